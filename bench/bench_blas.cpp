// DGEMM and DSYRK rates at order 3000 under the BLAS core in use. Run it
// through bench/blas_cores.sh to compare the core krel selects with the
// library's own choice.
#include <benchmark/benchmark.h>
#include <cblas.h>

#include <random>
#include <vector>

#include "bench_main.h"
#include "util/blas_core.h"

namespace {

constexpr int order = 3000;

std::vector<double> random_matrix(int n, unsigned seed) {
    std::mt19937_64 gen(seed);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    std::vector<double> a(static_cast<std::size_t>(n) * n);
    for (double& x : a) x = u(gen);
    return a;
}

void bm_dgemm(benchmark::State& state) {
    const int n = order;
    const auto a = random_matrix(n, 1);
    const auto b = random_matrix(n, 2);
    std::vector<double> c(static_cast<std::size_t>(n) * n);
    for (auto _ : state) {
        cblas_dgemm(CblasColMajor, CblasNoTrans, CblasNoTrans, n, n, n, 1.0, a.data(), n, b.data(),
                    n, 0.0, c.data(), n);
        benchmark::DoNotOptimize(c.data());
    }
    state.counters["GFLOPS"] = benchmark::Counter(2.0 * n * n * static_cast<double>(n),
                                                  benchmark::Counter::kIsIterationInvariantRate,
                                                  benchmark::Counter::kIs1000);
    state.SetLabel(krel::blas_core_in_use());
}

void bm_dsyrk(benchmark::State& state) {
    const int n = order;
    const auto a = random_matrix(n, 3);
    std::vector<double> c(static_cast<std::size_t>(n) * n);
    for (auto _ : state) {
        cblas_dsyrk(CblasColMajor, CblasLower, CblasNoTrans, n, n, 1.0, a.data(), n, 0.0, c.data(),
                    n);
        benchmark::DoNotOptimize(c.data());
    }
    state.counters["GFLOPS"] = benchmark::Counter(1.0 * n * n * static_cast<double>(n),
                                                  benchmark::Counter::kIsIterationInvariantRate,
                                                  benchmark::Counter::kIs1000);
    state.SetLabel(krel::blas_core_in_use());
}

BENCHMARK(bm_dgemm)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);
BENCHMARK(bm_dsyrk)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);

}  // namespace

int main(int argc, char** argv) { return krel::bench::run_benchmarks(argc, argv); }
