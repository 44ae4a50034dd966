// Kernels of krel, each against its plain reference version where it has
// one. Later kernels join this file; run it as build/bench/bench_kernels.
#include <benchmark/benchmark.h>

#include <random>

#include "bench_main.h"
#include "util/blas_core.h"
#include "util/dense_linear_algebra.h"
#include "util/dense_matrix.h"

namespace {

// A well-conditioned symmetric positive definite matrix: X'X / n + I.
krel::dmatrix spd_matrix(int n, unsigned seed) {
    std::mt19937_64 gen(seed);
    std::normal_distribution<double> z;
    krel::dmatrix x(n, n), a(n, n);
    for (int j = 1; j <= n; ++j)
        for (int i = 1; i <= n; ++i) x(i, j) = z(gen);
    for (int j = 1; j <= n; ++j)
        for (int i = j; i <= n; ++i) {
            double s = 0.0;
            for (int k = 1; k <= n; ++k) s += x(k, i) * x(k, j);
            a(i, j) = a(j, i) = s / n + (i == j ? 1.0 : 0.0);
        }
    return a;
}

template <void (*Kernel)(krel::dmatrix&)>
void bm_dense(benchmark::State& state) {
    const int n = static_cast<int>(state.range(0));
    const krel::dmatrix a = spd_matrix(n, 11);
    krel::dmatrix work(n, n);
    for (auto _ : state) {
        state.PauseTiming();
        work = a;
        state.ResumeTiming();
        Kernel(work);
        benchmark::DoNotOptimize(work.data());
    }
    state.SetLabel(krel::blas_core_in_use());
}

void invsym_lapack(krel::dmatrix& a) { krel::invsym(a); }
void invsym_loops(krel::dmatrix& a) { krel::invsym_reference(a); }
void ginv1_loops(krel::dmatrix& a) {
    std::int32_t rank = 0;
    krel::ginv1(a, a.rows(), krel::ginv1_default_tol, rank);
}
void chols8_rows(krel::dmatrix& a) { krel::chols8(a); }

BENCHMARK(bm_dense<invsym_lapack>)->Name("invsym")->Arg(200)->Arg(1000)->Unit(benchmark::kMillisecond);
BENCHMARK(bm_dense<invsym_loops>)->Name("invsym_reference")->Arg(200)->Arg(1000)->Unit(benchmark::kMillisecond);
BENCHMARK(bm_dense<ginv1_loops>)->Name("ginv1")->Arg(200)->Arg(1000)->Unit(benchmark::kMillisecond);
BENCHMARK(bm_dense<chols8_rows>)->Name("chols8")->Arg(200)->Arg(1000)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) { return krel::bench::run_benchmarks(argc, argv); }
