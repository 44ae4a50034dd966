#!/usr/bin/env bash
# DGEMM and DSYRK at order 3000: the core krel selects against the library's
# own choice, and against the generic core the library falls back to on CPUs
# it does not know (Prescott), all in one run.
set -euo pipefail
build=${KREL_BUILD_DIR:-$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)/build}
bench="$build/bench/bench_blas"
echo "== core selected by krel"
env -u OPENBLAS_CORETYPE "$bench" "$@"
echo "== library's own choice"
env -u OPENBLAS_CORETYPE KREL_KEEP_BLAS_CORE=1 "$bench" "$@"
echo "== generic core (what the library picks on a CPU newer than itself)"
OPENBLAS_CORETYPE=Prescott "$bench" "$@"
