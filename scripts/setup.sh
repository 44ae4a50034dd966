#!/usr/bin/env bash
# Set-up and build of krel on Debian 12, then one of:
#   example   run krel on the shipped example data set
#   test      run the whole test suite through CTest
#   build     only install what is missing and build
#   sanitize  build with AddressSanitizer and UndefinedBehaviorSanitizer (Debug,
#             in build-sanitize/) and run the whole suite there, corpora included
#   fuzz      build the libFuzzer binaries of the readers with clang (build-fuzz/);
#             scripts/fuzz.sh runs them
# A second run installs and rebuilds nothing that is already there.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${KREL_BUILD_DIR:-$root/build}
what=${1:-build}

packages=(
  g++ cmake make
  libopenblas-openmp-dev liblapacke-dev
  libmetis-dev libcminpack-dev libsuitesparse-dev
  libcli11-dev libfmt-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  time plink2
  libcairo2-dev pkg-config python3
)
[ "$what" = fuzz ] && packages+=(clang libclang-rt-dev libomp-dev)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if ((${#missing[@]})); then
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo=sudo
  echo "Installing: ${missing[*]}"
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

case "$what" in
  sanitize)
    build=${KREL_SANITIZE_BUILD_DIR:-$root/build-sanitize}
    [ -f "$build/CMakeCache.txt" ] ||
      cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Debug -DKREL_SANITIZE=ON -DKREL_BUILD_BENCH=OFF
    ;;
  fuzz)
    build=${KREL_FUZZ_BUILD_DIR:-$root/build-fuzz}
    [ -f "$build/CMakeCache.txt" ] ||
      CC=clang CXX=clang++ cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKREL_FUZZ=ON \
        -DKREL_BUILD_TESTS=OFF -DKREL_BUILD_BENCH=OFF
    ;;
  *)
    [ -f "$build/CMakeCache.txt" ] || cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release
    ;;
esac
cmake --build "$build" -j"$(nproc)"

case "$what" in
  build) ;;
  example)
    run="$build/example-run"
    mkdir -p "$run"
    cd "$run"
    data="$root/examples/herd"
    "$build/krel" krel \
      --ped "$data/pedigree.txt" --gen "$data/genotypes.bed" --freq compute \
      --h2 "$data/heritability.txt" --gvcv "$data/genetic_vcv.txt" --pev "$data/pev.txt" \
      --effect 1 --gwas "$data/snp_solutions.txt" 2
    echo "Results and log_krel.dat are in $run"
    ;;
  test)
    cd "$build"
    ctest --output-on-failure -j"$(nproc)"
    ;;
  sanitize)
    cd "$build"
    ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
      LSAN_OPTIONS=suppressions=$root/tests/sanitizer/leak_suppressions.txt \
      ctest --output-on-failure -j"$(nproc)"
    ;;
  fuzz)
    echo "Fuzz binaries are in $build/tests/fuzz; run them with scripts/fuzz.sh"
    ;;
  *)
    echo "usage: $0 [build|example|test|sanitize|fuzz]" >&2
    exit 2
    ;;
esac
