#!/usr/bin/env bash
# Open-ended fuzzing of krel's file readers with libFuzzer.
#   scripts/fuzz.sh [SECONDS_PER_TARGET] [TARGET...]
# Builds the fuzz binaries first (scripts/setup.sh fuzz). Each target starts
# from its seed corpus and the inputs that once failed; what it learns goes to
# build-fuzz/corpus/TARGET, and an input that crashes, hangs or runs out of
# memory to build-fuzz/findings/TARGET. Once fixed, copy such an input to
# tests/fuzz/regressions/TARGET/ so that every test run replays it.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${KREL_FUZZ_BUILD_DIR:-$root/build-fuzz}
seconds=${1:-60}
shift || true
bash "$root/scripts/setup.sh" fuzz > /dev/null
targets=("$@")
if ((${#targets[@]} == 0)); then
  for f in "$build"/tests/fuzz/fuzz_*; do targets+=("$(basename "$f" | sed 's/^fuzz_//')"); done
fi
for t in "${targets[@]}"; do
  corpus=$build/corpus/$t findings=$build/findings/$t
  mkdir -p "$corpus" "$findings"
  seeds=("$root/tests/fuzz/corpus/$t")
  [ -d "$root/tests/fuzz/regressions/$t" ] && seeds+=("$root/tests/fuzz/regressions/$t")
  echo "== $t: $seconds s"
  # One input may take 10 s and 2 GiB before it counts as a hang or a leak of memory.
  LSAN_OPTIONS=suppressions=$root/tests/sanitizer/leak_suppressions.txt "$build/tests/fuzz/fuzz_$t" "$corpus" "${seeds[@]}" \
    -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -max_len=65536 \
    -artifact_prefix="$findings/" -print_final_stats=1 2>&1 | tee "$build/fuzz_$t.log" |
    grep -E '^#[0-9]+.*(DONE|pulse)|^stat::|ERROR|SUMMARY|Test unit written' || true
done
