#!/usr/bin/env bash
# Set-up and build of krel on Debian 12, then one of:
#   example  run krel on the shipped example data set
#   test     run the whole test suite through CTest
#   build    only install what is missing and build
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

if [ ! -f "$build/CMakeCache.txt" ]; then
  cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release
fi
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
  *)
    echo "usage: $0 [build|example|test]" >&2
    exit 2
    ;;
esac
