#!/usr/bin/env bash
# Times the krel binary on generated data sets of named sizes.
#
#   bench/krel_sizes.sh [size ...]      sizes: tiny small medium large (default: tiny small)
#
# Each data set is generated once by krel-simulate into $build/bench-data/<size>
# (again only when the generator line of its manifest changes). Each run of
# krel takes place in $build/bench-runs/<size> and adds one line to
# $build/bench-results.txt (or $KREL_BENCH_RESULTS):
#   date  krel|generate  size  animals  genotyped  snps  wall_s  peak_MiB  status  phases
# where phases lists the timings that the run wrote to its log, as
# "label=seconds" separated by "; ". Extra krel options go in $KREL_BENCH_ARGS.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${KREL_BUILD_DIR:-$root/build}
results=${KREL_BENCH_RESULTS:-$build/bench-results.txt}
krel="$build/krel"
simulate="$build/tools/krel-simulate"
[ -x "$krel" ] && [ -x "$simulate" ] || { echo "build first: bash scripts/setup.sh build" >&2; exit 2; }
[ -x /usr/bin/time ] || { echo "GNU time is needed (Debian package time)" >&2; exit 2; }

size_args() {
  case "$1" in
    tiny)   echo "--animals 3000 --genotyped 300 --snps 2000" ;;
    small)  echo "--animals 100000 --genotyped 5000 --snps 10000" ;;
    medium) echo "--animals 1000000 --genotyped 20000 --snps 50000" ;;
    large)  echo "--animals 10000000 --genotyped 100000 --snps 50000" ;;
    *) echo "unknown size: $1 (tiny, small, medium, large)" >&2; return 1 ;;
  esac
}

# Runs a command under GNU time; wall seconds and peak resident KiB go to $out.time.
timed() {
  local out=$1; shift
  /usr/bin/time -f '%e %M' -o "$out.time" "$@" > "$out.stdout" 2> "$out.stderr"
}

# Sets wall and peak (MiB) from a .time file.
read_time() {
  read -r wall kib < <(tail -n 1 "$1")
  peak=$(awk -v k="$kib" 'BEGIN { printf "%.1f", k / 1024 }')
}

# Timings that a krel log reports: lines that carry "time" and "(s)" and end
# in a number.
phases() {
  [ -f "$1" ] || return 0
  awk '/[Tt]ime/ && /\(s\)/ && $NF ~ /^[0-9.]+$/ {
         t = $NF; $NF = ""; sub(/^(INFO|WARN): */, ""); gsub(/ *: *$| +$/, ""); gsub(/  +/, " ");
         printf "%s%s=%s", sep, $0, t; sep = "; " }' "$1"
}

[ $# -gt 0 ] || set -- tiny small
mkdir -p "$build/bench-data" "$build/bench-runs"
[ -s "$results" ] || printf 'date\tkind\tsize\tanimals\tgenotyped\tsnps\twall_s\tpeak_MiB\tstatus\tphases\n' > "$results"
for size in "$@"; do
  args=$(size_args "$size")
  data="$build/bench-data/$size"
  # shellcheck disable=SC2086
  read -r animals genotyped snps < <(set -- $args; echo "$2 $4 $6")
  if [ ! -f "$data/manifest.txt" ] || [ "$(cat "$data/.args" 2>/dev/null)" != "$args" ]; then
    rm -rf "$data"
    # shellcheck disable=SC2086
    timed "$build/bench-data/$size-generate" "$simulate" --out "$data" $args || {
      echo "generating $size failed:"; cat "$build/bench-data/$size-generate.stderr"; exit 1; } >&2
    read_time "$build/bench-data/$size-generate.time"
    echo "$args" > "$data/.args"
    printf '%s\tgenerate\t%s\t%s\t%s\t%s\t%s\t%s\t0\t\n' "$(date -u +%FT%TZ)" "$size" "$animals" "$genotyped" \
      "$snps" "$wall" "$peak" >> "$results"
    echo "generated $size: ${wall} s, ${peak} MiB"
  fi

  run="$build/bench-runs/$size"
  rm -rf "$run"
  mkdir -p "$run"
  status=0
  # shellcheck disable=SC2086
  (cd "$run" && timed "$run/krel" "$krel" krel --noscreen \
      --ped "$data/pedigree.txt" --gen "$data/genotypes.bed" --freq compute \
      --h2 "$data/heritability.txt" --gvcv "$data/genetic_vcv.txt" --pev "$data/pev.txt" --effect 1 \
      ${KREL_BENCH_ARGS:-}) || status=$?
  read_time "$run/krel.time"
  printf '%s\tkrel\t%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\n' "$(date -u +%FT%TZ)" "$size" "$animals" "$genotyped" \
    "$snps" "$wall" "$peak" "$status" "$(phases "$run/log_krel.dat")" >> "$results"
  echo "krel on $size: ${wall} s, ${peak} MiB, exit status $status"
done
echo "results: $results"
