#pragma once
// The main of every benchmark: the same BLAS kernels as krel selects, then
// Google Benchmark.
#include <benchmark/benchmark.h>

#include "util/blas_core.h"

namespace krel::bench {

inline int run_benchmarks(int argc, char** argv) {
    krel::select_blas_core(argv);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

}  // namespace krel::bench
