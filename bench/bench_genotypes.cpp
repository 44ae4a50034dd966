// Genotypes: reading a PLINK fileset with allele frequencies, and the
// products with the packed genotype matrix against the dense BLAS products
// on the same genotypes expanded to reals.
//
// The products run on random packed genotypes built in memory (sizes in
// the benchmark names: individuals/SNPs/columns). The reading benchmark
// needs a fileset: set KREL_BENCH_BED to its .bed (bench/genotype_reading.sh
// generates data sets into the build folder and compares with plink2).
//
//   build/bench/bench_genotypes --benchmark_filter=product
#include <benchmark/benchmark.h>
#include <cblas.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "bench_main.h"
#include "engine/packed_genotype_products.h"
#include "inputs/genotypes.h"
#include "inputs/plink_reader.h"
#include "util/blas_core.h"
#include "util/logger.h"

namespace {

struct genotypes {
    std::int64_t nsnp = 0, nind = 0, nbytes = 0;
    krel::int8_matrix ival;
    std::vector<double> freq;
};

// Random codes with 1 % missing; padding bits 00.
const genotypes& random_genotypes(std::int64_t nind, std::int64_t nsnp) {
    static std::map<std::pair<std::int64_t, std::int64_t>, std::unique_ptr<genotypes>> cache;
    auto& slot = cache[{nind, nsnp}];
    if (slot) return *slot;
    cache.clear();  // one data set at a time
    auto& g = *(cache[{nind, nsnp}] = std::make_unique<genotypes>());
    g.nsnp = nsnp;
    g.nind = nind;
    g.nbytes = (nind + 3) / 4;
    g.ival.allocate(nsnp, g.nbytes);
    g.freq.resize(static_cast<std::size_t>(nsnp));
    std::mt19937_64 gen(42);
    for (std::int64_t b = 0; b < g.nbytes; ++b)
        for (std::int64_t s = 0; s < nsnp; ++s) {
            std::uint64_t x = gen();
            std::uint8_t byte = 0;
            for (int q = 0; q < 4 && 4 * b + q < nind; ++q, x >>= 8) {
                const unsigned u = static_cast<unsigned>(x & 0xFF);
                const unsigned code = u < 3 ? 1u : (u < 90 ? 0u : (u < 200 ? 2u : 3u));
                byte = static_cast<std::uint8_t>(byte | (code << (2 * q)));
            }
            g.ival(s + 1, b + 1) = static_cast<std::int8_t>(byte);
        }
    krel::allelefreq_allsnp(g.freq, g.ival, nind);
    return g;
}

// The same genotypes expanded: nsnp x nind reals.
const std::vector<double>& dense_genotypes(std::int64_t nind, std::int64_t nsnp) {
    static std::pair<std::int64_t, std::int64_t> key{0, 0};
    static std::vector<double> z;
    if (key != std::pair{nind, nsnp}) {
        const genotypes& g = random_genotypes(nind, nsnp);
        std::vector<double>().swap(z);
        z.resize(static_cast<std::size_t>(nsnp * nind));
        krel::decompress_bed_snpmajor_real8(g.ival.data(), g.ival.ld(), nsnp, g.freq.data(), nind, z.data(), nsnp);
        key = {nind, nsnp};
    }
    return z;
}

std::vector<double> random_matrix(std::int64_t rows, std::int64_t cols) {
    std::mt19937_64 gen(7);
    std::normal_distribution<double> d;
    std::vector<double> a(static_cast<std::size_t>(rows * cols));
    for (double& x : a) x = d(gen);
    return a;
}

void set_flops(benchmark::State& state, double flops) {
    state.counters["GFLOPS"] = benchmark::Counter(flops, benchmark::Counter::kIsIterationInvariantRate,
                                                  benchmark::Counter::kIs1000);
}

// dgemm_compressed "n" (C = Z B) or "t" (C = Z' B).
template <bool Transposed>
void bm_compressed(benchmark::State& state) {
    const std::int64_t nind = state.range(0), nsnp = state.range(1), n = state.range(2);
    const genotypes& g = random_genotypes(nind, nsnp);
    const std::int64_t m = Transposed ? nind : nsnp, k = Transposed ? nsnp : nind;
    const auto b = random_matrix(k, n);
    std::vector<double> c(static_cast<std::size_t>(m * n));
    for (auto _ : state) {
        krel::dgemm_compressed(Transposed ? "t" : "n", "n", m, n, k, g.nbytes, 1.0, g.ival.data(), g.freq.data(),
                               nsnp, b.data(), k, 0.0, c.data(), m);
        benchmark::DoNotOptimize(c.data());
    }
    set_flops(state, 2.0 * static_cast<double>(m) * static_cast<double>(n) * static_cast<double>(k));
    state.SetLabel(std::string(krel::genotype_kernels_in_use()));
}

// The same product on the expanded genotypes: DGEMM, or DGEMV for one column.
template <bool Transposed>
void bm_dense(benchmark::State& state) {
    const std::int64_t nind = state.range(0), nsnp = state.range(1), n = state.range(2);
    const auto& z = dense_genotypes(nind, nsnp);
    const std::int64_t m = Transposed ? nind : nsnp, k = Transposed ? nsnp : nind;
    const auto b = random_matrix(k, n);
    std::vector<double> c(static_cast<std::size_t>(m * n));
    const auto trans = Transposed ? CblasTrans : CblasNoTrans;
    for (auto _ : state) {
        if (n == 1)
            cblas_dgemv(CblasColMajor, trans, static_cast<int>(nsnp), static_cast<int>(nind), 1.0, z.data(),
                        static_cast<int>(nsnp), b.data(), 1, 0.0, c.data(), 1);
        else
            cblas_dgemm(CblasColMajor, trans, CblasNoTrans, static_cast<int>(m), static_cast<int>(n),
                        static_cast<int>(k), 1.0, z.data(), static_cast<int>(nsnp), b.data(), static_cast<int>(k),
                        0.0, c.data(), static_cast<int>(m));
        benchmark::DoNotOptimize(c.data());
    }
    set_flops(state, 2.0 * static_cast<double>(m) * static_cast<double>(n) * static_cast<double>(k));
    state.SetLabel(krel::blas_core_in_use());
}

std::vector<double> weights(std::int64_t nind) {
    std::vector<double> r(static_cast<std::size_t>(nind));
    for (std::size_t i = 0; i < r.size(); ++i) r[i] = 0.5 + 1e-4 * static_cast<double>(i % 1000);
    return r;
}

// Z diag(r) Z': 0 low memory (panels), 1 expanded with a rank-k update.
template <int Form>
void bm_zrz(benchmark::State& state) {
    const std::int64_t nind = state.range(0), nsnp = state.range(1);
    const genotypes& g = random_genotypes(nind, nsnp);
    const auto r = weights(nind);
    std::vector<double> c(static_cast<std::size_t>(nsnp * nsnp));
    krel::global_logger().reset();  // no log lines between the figures
    const auto run = [&] {
        if (Form == 0)
            krel::dgemm_zrz(nind, nsnp, g.nbytes, g.ival.data(), g.freq.data(), r.data(), c.data(), nsnp);
        else
            krel::dgemm_zrz_mkl(nind, nsnp, g.nbytes, g.ival.data(), g.freq.data(), r.data(), c.data(), nsnp);
    };
    // Once untimed: on a virtual machine the first touch of memory that the
    // guest has never used costs far more than the product's own work.
    run();
    for (auto _ : state) {
        run();
        benchmark::DoNotOptimize(c.data());
    }
    set_flops(state, static_cast<double>(nsnp) * static_cast<double>(nsnp) * static_cast<double>(nind));
    state.SetLabel(std::string(krel::genotype_kernels_in_use()) + " " + krel::blas_core_in_use());
}

// DSYRK on the genotypes already expanded and scaled.
void bm_dsyrk(benchmark::State& state) {
    const std::int64_t nind = state.range(0), nsnp = state.range(1);
    const auto& z = dense_genotypes(nind, nsnp);
    std::vector<double> c(static_cast<std::size_t>(nsnp * nsnp));
    for (auto _ : state) {
        cblas_dsyrk(CblasColMajor, CblasUpper, CblasNoTrans, static_cast<int>(nsnp), static_cast<int>(nind), 1.0,
                    z.data(), static_cast<int>(nsnp), 0.0, c.data(), static_cast<int>(nsnp));
        benchmark::DoNotOptimize(c.data());
    }
    set_flops(state, static_cast<double>(nsnp) * static_cast<double>(nsnp) * static_cast<double>(nind));
    state.SetLabel(krel::blas_core_in_use());
}

// Peak resident memory of the process so far, in MiB.
double peak_resident_mib() {
    std::ifstream status("/proc/self/status");
    std::string key;
    double kib = 0.0;
    while (status >> key) {
        if (key == "VmHWM:") {
            status >> kib;
            break;
        }
        status.ignore(std::numeric_limits<std::streamsize>::max(), '\n');
    }
    return kib / 1024.0;
}

// plinkreadbed with frequencies computed, on the fileset of KREL_BENCH_BED.
// One read a run: run the program afresh for each figure (as the script
// does), so that the read fills memory that no earlier read has touched.
void bm_read_plink(benchmark::State& state) {
    const char* bed = std::getenv("KREL_BENCH_BED");
    if (!bed) {
        state.SkipWithError("KREL_BENCH_BED is not set");
        return;
    }
    krel::global_logger().reset();
    // Resets the peak to the present size, whatever ran before in this process.
    std::ofstream("/proc/self/clear_refs") << "5";
    const double before = peak_resident_mib();
    for (auto _ : state) {
        krel::covariable_type cov;
        std::int32_t nbytes = 0, nind = 0, maxfam = 0;
        krel::plinkreadbed(bed, "compute", std::nullopt, cov.nsnp, nbytes, nind, maxfam, cov.ival, cov.idmap,
                           cov.val);
        benchmark::DoNotOptimize(cov.val.data());
        state.counters["SNPs"] = cov.nsnp;
        state.counters["individuals"] = nind;
        state.counters["packed_MiB"] = static_cast<double>(cov.ival.size()) / 1048576.0;
        // Growth of the peak while the genotypes are read and held: the
        // packed array, the .fam levels and the work of each thread.
        state.counters["peak_growth_MiB"] = peak_resident_mib() - before;
    }
}

constexpr std::int64_t product_individuals = 20000, product_snps = 10000;
constexpr std::int64_t zrz_individuals = 20000, zrz_snps = 4000;

void product_sizes(benchmark::internal::Benchmark* b) {
    for (const std::int64_t n : {1, 64}) b->Args({product_individuals, product_snps, n});
    b->Unit(benchmark::kMillisecond)->UseRealTime();
}

BENCHMARK(bm_compressed<false>)->Name("product_n/compressed")->Apply(product_sizes)->MinTime(1.0);
BENCHMARK(bm_dense<false>)->Name("product_n/dense")->Apply(product_sizes)->MinTime(1.0);
BENCHMARK(bm_compressed<true>)->Name("product_t/compressed")->Apply(product_sizes)->MinTime(1.0);
BENCHMARK(bm_dense<true>)->Name("product_t/dense")->Apply(product_sizes)->MinTime(1.0);
BENCHMARK(bm_zrz<1>)->Name("zrz/expanded")->Args({zrz_individuals, zrz_snps})->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK(bm_zrz<0>)->Name("zrz/low_memory")->Args({zrz_individuals, zrz_snps})->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK(bm_dsyrk)->Name("zrz/dsyrk")->Args({zrz_individuals, zrz_snps})->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK(bm_read_plink)->Name("read_plink/compute")->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);

}  // namespace

int main(int argc, char** argv) { return krel::bench::run_benchmarks(argc, argv); }
