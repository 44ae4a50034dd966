#!/usr/bin/env bash
# Generates the pedigrees of bench_pedigree into $build/bench-data (once) and
# runs it: reading, ordering and inbreeding on 1,000,000, 3,000,000 and
# 10,000,000 animals, without and with metafounders (1 and 10 million), in
# one run.
#
#   bench/pedigree_sizes.sh [bench_pedigree options]
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${KREL_BUILD_DIR:-$root/build}
simulate="$build/tools/krel-simulate"
bench="$build/bench/bench_pedigree"
[ -x "$simulate" ] && [ -x "$bench" ] || { echo "build first" >&2; exit 2; }

data="$build/bench-data"
mkdir -p "$data"
generate() {
  local name=$1; shift
  local args="--animals $* --genotyped 0 --snps 1"
  if [ ! -f "$data/$name/pedigree.txt" ] || [ "$(cat "$data/$name/.args" 2>/dev/null)" != "$args" ]; then
    rm -rf "${data:?}/$name"
    # shellcheck disable=SC2086
    "$simulate" --out "$data/$name" $args > /dev/null
    echo "$args" > "$data/$name/.args"
  fi
}
generate ped1m 1000000
generate ped1m-meta 1000000 --groups 10 --metafounders
generate ped3m 3000000
generate ped10m 10000000
generate ped10m-meta 10000000 --groups 10 --metafounders

KREL_BENCH_DATA="$data" "$bench" "$@"
