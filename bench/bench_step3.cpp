// Step 3 on PLINK genotypes: the SNP model matrix (ZRZ), its inversion and
// the genomic PEV, each beside the dense kernel of the same shape alone
// (DSYRK, DPOTRF + DPOTRI, and the two DGEMM of each block of animals).
//
//   build/bench/bench_step3
//
// Data: $KREL_BENCH_DATA/step3 (20,000 genotyped animals by 20,000 SNPs),
// generated on first use.
#include <benchmark/benchmark.h>
#include <cblas.h>
#include <lapack.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "bench_main.h"
#include "engine/genomic_pev.h"
#include "engine/packed_genotype_products.h"
#include "engine/snp_model_matrix.h"
#include "inputs/genotypes.h"
#include "util/blas_core.h"
#include "util/dense_linear_algebra.h"

namespace {

namespace fs = std::filesystem;

fs::path data_dir;

krel::covariable_type& genotypes() {
    static krel::covariable_type cov;
    if (!cov.is_packed()) {
        if (!fs::exists(data_dir / "genotypes.bed")) {
            const fs::path sim = data_dir.parent_path().parent_path() / "tools" / "krel-simulate";
            const std::string cmd = sim.string() + " --out " + data_dir.string() +
                                    " --animals 40000 --genotyped 20000 --snps 20000 > /dev/null";
            if (std::system(cmd.c_str()) != 0) std::abort();
        }
        std::int32_t nsnp = 0, ngeno = 0;
        bool isplink = false;
        krel::readgenotype((data_dir / "genotypes.bed").string(), "compute", 40000, nsnp, ngeno, cov, isplink);
    }
    return cov;
}

std::vector<double> weights(std::int64_t n) {
    std::vector<double> r(n);
    for (std::int64_t i = 0; i < n; ++i) r[i] = 0.5 + 0.001 * static_cast<double>(i % 1000);
    return r;
}

krel::dmatrix& inverse() {
    static krel::dmatrix zrz;
    return zrz;
}

void bm_zrz(benchmark::State& state) {
    auto& cov = genotypes();
    const auto r = weights(cov.ngeno);
    for (auto _ : state) krel::compute_zrz_plink(1, cov, r, 1.0 / 58.0, 700.0, inverse(), std::nullopt);
    state.SetLabel(krel::blas_core_in_use());
}

void bm_invert(benchmark::State& state) {
    for (auto _ : state) krel::invsym(inverse());
}

void bm_genomic_pev(benchmark::State& state) {
    auto& cov = genotypes();
    std::vector<double> pev;
    for (auto _ : state) krel::get_pev_gen_exp_plink(inverse(), cov, pev);
}

// The dense kernels alone, on expanded genotypes.
void bm_dense(benchmark::State& state) {
    auto& cov = genotypes();
    const std::int64_t nsnp = cov.nsnp, n = cov.ngeno;
    std::vector<double> z(static_cast<std::size_t>(nsnp) * n);
    krel::expand_genotypes(cov.ival.data(), cov.ival.ld(), nsnp, cov.val.data(), n, nullptr, z.data(), nsnp);
    std::vector<double> c(static_cast<std::size_t>(nsnp) * nsnp);
    const std::int64_t block = 2048;
    std::vector<double> t(static_cast<std::size_t>(nsnp) * block), q(static_cast<std::size_t>(block) * block);
    double t_syrk = 0, t_chol = 0, t_gemm = 0;
    for (auto _ : state) {
        auto t0 = std::chrono::steady_clock::now();
        cblas_dsyrk(CblasColMajor, CblasUpper, CblasNoTrans, nsnp, n, 1.0, z.data(), nsnp, 0.0, c.data(), nsnp);
        auto t1 = std::chrono::steady_clock::now();
        for (std::int64_t i = 0; i < nsnp; ++i) c[i * nsnp + i] += 700.0;
        const char uplo = 'U';
        const lapack_int nn = static_cast<lapack_int>(nsnp);
        lapack_int info = 0;
        LAPACK_dpotrf(&uplo, &nn, c.data(), &nn, &info);
        LAPACK_dpotri(&uplo, &nn, c.data(), &nn, &info);
        auto t2 = std::chrono::steady_clock::now();
        for (std::int64_t s = 0; s < n; s += block) {
            const std::int64_t nb = std::min(block, n - s);
            cblas_dgemm(CblasColMajor, CblasNoTrans, CblasNoTrans, nsnp, nb, nsnp, 1.0, c.data(), nsnp,
                        z.data() + s * nsnp, nsnp, 0.0, t.data(), nsnp);
            cblas_dgemm(CblasColMajor, CblasTrans, CblasNoTrans, nb, nb, nsnp, 1.0, z.data() + s * nsnp, nsnp,
                        t.data(), nsnp, 0.0, q.data(), nb);
        }
        auto t3 = std::chrono::steady_clock::now();
        t_syrk += std::chrono::duration<double>(t1 - t0).count();
        t_chol += std::chrono::duration<double>(t2 - t1).count();
        t_gemm += std::chrono::duration<double>(t3 - t2).count();
    }
    state.counters["dsyrk_s"] = t_syrk / static_cast<double>(state.iterations());
    state.counters["dpotrf_dpotri_s"] = t_chol / static_cast<double>(state.iterations());
    state.counters["dgemm_s"] = t_gemm / static_cast<double>(state.iterations());
}

BENCHMARK(bm_zrz)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();
BENCHMARK(bm_invert)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();
BENCHMARK(bm_genomic_pev)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();
BENCHMARK(bm_dense)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
    const char* env = std::getenv("KREL_BENCH_DATA");
    data_dir = (env ? fs::path(env) : fs::absolute(fs::path(argv[0])).parent_path().parent_path() / "bench-data") / "step3";
    return krel::bench::run_benchmarks(argc, argv);
}
