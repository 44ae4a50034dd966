#!/usr/bin/env bash
# Time and size of each plot of `krel --plots` on generated data sets.
#
#   bench/plot_sizes.sh [size ...]      sizes: tiny small medium (default: tiny)
#
# medium is the largest set the machine takes in reasonable time: a million
# animals, 20,000 genotyped, 50,000 SNPs on 29 chromosomes. Each set is
# generated once into $build/bench-data/plots-<size>; krel runs in
# $build/bench-runs/plots-<size> with --gwas and --plots (and --ungeno_tm, so
# that the non-genotyped animals take the approximation whatever the size).
# For each plot one line goes to standard output and to
# $build/bench-plot-results.txt (or $KREL_BENCH_RESULTS):
#   date  size  animals  genotyped  snps  plot  seconds  png_bytes  pdf_bytes
# The seconds are those the log reports for drawing the PNG and the PDF.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${KREL_BUILD_DIR:-$root/build}
results=${KREL_BENCH_RESULTS:-$build/bench-plot-results.txt}
krel="$build/krel"
simulate="$build/tools/krel-simulate"
[ -x "$krel" ] && [ -x "$simulate" ] || { echo "build first: bash scripts/setup.sh build" >&2; exit 2; }

size_args() {
  case "$1" in
    tiny)   echo "--animals 3000 --genotyped 300 --snps 2000 --chromosomes 5" ;;
    small)  echo "--animals 100000 --genotyped 5000 --snps 10000 --chromosomes 29" ;;
    medium) echo "--animals 1000000 --genotyped 20000 --snps 50000 --chromosomes 29" ;;
    *) echo "unknown size: $1 (tiny, small, medium)" >&2; return 1 ;;
  esac
}

[ $# -gt 0 ] || set -- tiny
mkdir -p "$build/bench-data" "$build/bench-runs"
[ -s "$results" ] || printf 'date\tsize\tanimals\tgenotyped\tsnps\tplot\tseconds\tpng_bytes\tpdf_bytes\n' > "$results"
for size in "$@"; do
  args=$(size_args "$size")
  data="$build/bench-data/plots-$size"
  if ! grep -qF -- "$args" "$data/manifest.txt" 2>/dev/null; then
    rm -rf "$data"
    # shellcheck disable=SC2086
    "$simulate" --out "$data" $args --monomorphic 0.02 > /dev/null
  fi
  run="$build/bench-runs/plots-$size"
  rm -rf "$run"
  mkdir -p "$run"
  (cd "$run" && "$krel" --noscreen krel --ped "$data/pedigree.txt" --effect 1 --gen "$data/genotypes.bed" \
      --freq compute --rvcv "$data/residual_vcv.txt" --gvcv "$data/genetic_vcv.txt" --pev "$data/pev.txt" \
      --gwas "$data/snp_solutions.txt" 2 --ungeno_tm --plots > stdout.txt 2> stderr.txt) ||
    { echo "krel failed on $size, see $run/log_krel.dat" >&2; continue; }
  read -r animals genotyped snps < <(python3 -c "
import json; s = json.load(open('$run/krel_summary.json'))['inputs']
print(s['animals'], s['genotyped'], s['snps'])")
  # "Plot krel_qq.png and its PDF - Wall clock time (s): 0.123"
  grep -h '^ *Plot .* Wall clock time (s):' "$run/log_krel.dat" | while read -r _ png _; do
    seconds=$(grep -h "Plot $png and its PDF" "$run/log_krel.dat" | awk '{ print $NF }')
    stem=${png%.png}
    line=$(printf '%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s' "$(date -u +%FT%TZ)" "$size" "$animals" "$genotyped" \
      "$snps" "$stem" "$seconds" "$(stat -c %s "$run/$png")" "$(stat -c %s "$run/$stem.pdf")")
    echo "$line"
    echo "$line" >> "$results"
  done
done
