#!/usr/bin/env bash
# Reading a PLINK fileset with allele frequencies computed: krel's reader
# (bench_genotypes, read_plink/compute) against plink2 --freq on the same
# files. The data sets are generated once into $build/bench-data.
#
#   bench/genotype_reading.sh [runs]       (default 5 runs; the best of each is kept)
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${KREL_BUILD_DIR:-$root/build}
runs=${1:-5}
bench="$build/bench/bench_genotypes"
simulate="$build/tools/krel-simulate"
plink2=${PLINK2:-/usr/bin/plink2}
[ -x "$bench" ] && [ -x "$simulate" ] || { echo "build first" >&2; exit 2; }
[ -x "$plink2" ] || { echo "plink2 not found at $plink2" >&2; exit 2; }

declare -A sizes=(
  [g20k]="--animals 200000 --genotyped 20000 --snps 50000"
  [g100k]="--animals 500000 --genotyped 100000 --snps 10000"
)

now() { date +%s.%N; }
best() { sort -g | head -n 1; }

printf '%-6s %10s %10s %8s %12s %16s\n' set krel_ms plink2_ms ratio packed_MiB peak_growth_MiB
for name in g20k g100k; do
  data="$build/bench-data/$name"
  if [ ! -s "$data/genotypes.bed" ]; then
    # shellcheck disable=SC2086
    "$simulate" --out "$data" ${sizes[$name]} > /dev/null
  fi
  work=$(mktemp -d)
  # Runs alternate between the two programs, so that a busy spell of the
  # machine hits both; the best run of each counts.
  : > "$work/krel" && : > "$work/plink2"
  for _ in $(seq "$runs"); do
    KREL_BENCH_BED="$data/genotypes.bed" "$bench" --benchmark_filter='read_plink' --benchmark_format=csv 2> /dev/null |
      awk -F, '/read_plink/ { print $3 }' >> "$work/krel"
    t0=$(now)
    # plink2: all samples (the .fam has parents), any chromosome code.
    "$plink2" --bfile "$data/genotypes" --freq --nonfounders --chr-set 95 --out "$work/p" > /dev/null
    t1=$(now)
    awk -v a="$t0" -v b="$t1" 'BEGIN { printf "%.1f\n", (b - a) * 1000 }' >> "$work/plink2"
  done
  krel_ms=$(best < "$work/krel")
  plink_ms=$(best < "$work/plink2")
  rm -rf "$work"
  counters=$(KREL_BENCH_BED="$data/genotypes.bed" "$bench" --benchmark_filter='read_plink' --benchmark_format=json 2> /dev/null)
  packed=$(grep -o '"packed_MiB": [0-9.e+]*' <<< "$counters" | awk '{ print $2 }')
  growth=$(grep -o '"peak_growth_MiB": [0-9.e+]*' <<< "$counters" | awk '{ print $2 }')
  awk -v n="$name" -v k="$krel_ms" -v p="$plink_ms" -v m="$packed" -v g="$growth" \
    'BEGIN { printf "%-6s %10.1f %10.1f %8.2f %12.1f %16.1f\n", n, k, p, k / p, m, g }'
done
