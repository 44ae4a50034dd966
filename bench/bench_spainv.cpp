// Selected inversion of the coefficient matrix of a single-trait animal
// model (bench_animal_model.h).
//
// For each size the six phases of the pipeline run one after the other, each
// with its wall-clock seconds and the peak resident memory it reached above
// the process's base (<phase>_MB; the BLAS library's buffers are in the base,
// the matrix, its graph and perm are alive throughout). In the same run, with
// the same METIS permutation, CHOLMOD's supernodal numeric factorisation
// (cholmod_l_factorize) of the same matrix is timed on one BLAS thread and on
// all of them; the faster is the yardstick:
//   chol_ratio      our Cholesky phase / CHOLMOD's factorisation (target 1.3)
//   spainv_ratio    the whole pipeline / CHOLMOD's factorisation (target 3)
//   cholmod_postordered_s, spainv_ratio_postordered
//                   the same with CHOLMOD's default, the permutation
//                   postordered (same fill, larger supernodes)
//   pipeline_MB     the highest peak of the pipeline, the matrix and the
//                   graph included, but not what the process held before
//   peak_ratio      pipeline_MB / (factor + matrix) (target 1.5), with the
//                   factor as stored here: values and compressed subscripts
// Run as build/bench/bench_spainv; --benchmark_filter=/200000 for the small
// size alone.
#include <benchmark/benchmark.h>
#include <cblas.h>
#include <suitesparse/cholmod.h>
#include <malloc.h>
#include <omp.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "bench_animal_model.h"
#include "bench_main.h"
#include "bench_support.h"
#include "sparse/metis_ordering.h"
#include "sparse/selected_inverse.h"
#include "sparse/sparse_matrix.h"
#include "sparse/supernodal_kernels.h"
#include "util/blas_core.h"

namespace {

using krel::bench::animal_model;
using krel::bench::quiet_cout;

double rss_mb() { return static_cast<double>(krel::bench::resident_kib()) / 1024.0; }
double peak_mb() { return krel::bench::peak_mib(); }
// Freed memory that the allocator kept goes back to the system first, so that
// the peak of a phase is what it holds itself.
void reset_peak() {
    malloc_trim(0);
    krel::bench::reset_peak();
}

// CHOLMOD's supernodal factorisation of the matrix in the order perm.
struct cholmod_result {
    double factorize_s = 0.0;
    double analyze_s = 0.0;
    double lnz = 0.0;
    double flops = 0.0;
    double peak_mb = 0.0;
};

cholmod_result cholmod_factorize(const krel::crssparse& crs, std::span<const std::int32_t> perm,
                                 double base_mb, int threads, bool postorder = false) {
    cholmod_result res;
    const int omp_max = omp_get_max_threads();
    const int blas_max = openblas_get_num_threads();
    openblas_set_num_threads(threads);
    const std::size_t n = static_cast<std::size_t>(crs.getdim(1));
    const std::size_t nnz = static_cast<std::size_t>(crs.totalnumberofelements());
    cholmod_common c;
    cholmod_l_start(&c);
    c.nmethods = 1;
    c.method[0].ordering = CHOLMOD_GIVEN;
    // Without postordering the order is ours, column for column; with it
    // the same fill, but in larger supernodes.
    c.postorder = postorder ? 1 : 0;
    c.supernodal = CHOLMOD_SUPERNODAL;
    cholmod_sparse* A = cholmod_l_allocate_sparse(n, n, nnz, 1, 1, -1, CHOLMOD_REAL, &c);
    krel::bench::copy_to_cholmod<SuiteSparse_long>(crs, *A);
    std::vector<SuiteSparse_long> given(perm.begin(), perm.end());
    for (SuiteSparse_long& p : given) --p;
    reset_peak();
    double t = omp_get_wtime();
    cholmod_factor* L = cholmod_l_analyze_p(A, given.data(), nullptr, 0, &c);
    res.analyze_s = omp_get_wtime() - t;
    t = omp_get_wtime();
    cholmod_l_factorize(A, L, &c);
    res.factorize_s = omp_get_wtime() - t;
    res.peak_mb = peak_mb() - base_mb;
    res.lnz = c.lnz;
    res.flops = c.fl;
    if (c.status != CHOLMOD_OK) std::cerr << "CHOLMOD status " << c.status << '\n';
    cholmod_l_free_factor(&L, &c);
    cholmod_l_free_sparse(&A, &c);
    cholmod_l_finish(&c);
    openblas_set_num_threads(blas_max);
    omp_set_num_threads(omp_max);
    return res;
}

// The BLAS library's own buffers belong to the process, not to the
// algorithm: they are touched before the base of the memory counts is read.
void warm_up_blas() {
    const int n = 1200;
    std::vector<double> a(static_cast<std::size_t>(n) * n, 1.0), c(a.size(), 0.0);
    for (int k = 0; k < n; ++k) a[static_cast<std::size_t>(k) * n + k] = n;
    cblas_dgemm(CblasColMajor, CblasNoTrans, CblasTrans, n, n, n, 1.0, a.data(), n, a.data(), n,
                0.0, c.data(), n);
    const int threads = openblas_get_num_threads();
    openblas_set_num_threads(1);
    cblas_dgemm(CblasColMajor, CblasNoTrans, CblasTrans, n, n, n, 1.0, a.data(), n, a.data(), n,
                0.0, c.data(), n);
    openblas_set_num_threads(threads);
}

void selected_inversion(benchmark::State& state) {
    const std::int32_t n_animals = static_cast<std::int32_t>(state.range(0));
    warm_up_blas();
    const double base_mb = rss_mb();
    krel::crssparse crs = animal_model(n_animals);
    const std::int32_t neq = crs.getdim(1);
    std::vector<std::int32_t> perm;
    crs.getordering(perm);
    crs.setpermutation32(perm);
    const double matrix_mb =
        (4.0 * (neq + 1) + 12.0 * static_cast<double>(crs.totalnumberofelements())) / 1048576.0;

    for (auto _ : state) {
        // CHOLMOD on one BLAS thread and on all of them: the faster is the
        // yardstick (a threaded factorisation can stall badly on a machine
        // that is not idle).
        const int threads = openblas_get_num_threads();
        const cholmod_result one = cholmod_factorize(crs, perm, base_mb, 1);
        const cholmod_result all =
            threads > 1 ? cholmod_factorize(crs, perm, base_mb, threads) : one;
        const cholmod_result& ref = all.factorize_s < one.factorize_s ? all : one;
        // For information: CHOLMOD's default, the permutation postordered.
        const cholmod_result post_one = cholmod_factorize(crs, perm, base_mb, 1, true);
        const cholmod_result post_all =
            threads > 1 ? cholmod_factorize(crs, perm, base_mb, threads, true) : post_one;
        const double postordered_s = std::min(post_one.factorize_s, post_all.factorize_s);

        krel::spainv_times times{};
        krel::spainv_factor f;
        std::vector<double> peaks(6, 0.0);
        std::int32_t maxsub = 0, maxlnz = 0, nnode = 0, maxnode = 0, minsize = 0, rank = 0;
        // What the process holds before the pipeline, the matrix among it:
        // the pipeline's own memory is counted from here, graph included.
        reset_peak();
        const double before_mb = rss_mb() - base_mb;
        {
            quiet_cout quiet;
            krel::metisgraph graph = krel::convertfromcrstometisgraph(crs);
            const auto ia = crs.rowptr();
            const auto ja = crs.colval();
            auto a = crs.nzval();
            auto phase = [&](int k, auto&& work) {
                reset_peak();
                const double t = omp_get_wtime();
                work();
                times[static_cast<std::size_t>(k)] = omp_get_wtime() - t;
                peaks[static_cast<std::size_t>(k)] = peak_mb() - base_mb;
            };
            phase(0, [&] {
                maxsub = ia[static_cast<std::size_t>(neq)] - 1;
                krel::symbolicfact(neq, maxsub, graph.xadj, graph.adjncy, perm, f.xlnz, maxlnz,
                                   f.xnzsub, f.nzsub);
                // As in the pipeline, the graph goes with the symbolic phase.
                std::vector<std::int32_t>().swap(graph.xadj);
                std::vector<std::int32_t>().swap(graph.adjncy);
            });
            phase(1, [&] {
                f.xspars = krel::factor_values(static_cast<std::size_t>(maxlnz));
                f.diag.assign(static_cast<std::size_t>(neq), 0.0);
                krel::computexsparsdiag(neq, f.xlnz, f.xspars, f.xnzsub, f.nzsub, f.diag, ia, ja,
                                        a, perm);
            });
            std::vector<std::int32_t> inode(static_cast<std::size_t>(neq) + 1, 0);
            phase(2, [&] {
                krel::super_nodes(minsize, neq, f.xlnz, f.xnzsub, f.nzsub, nnode, inode, maxnode);
            });
            phase(3, [&] {
                krel::super_gsfct(neq, f.xlnz, f.xspars, f.xnzsub, f.nzsub, f.diag, nnode, inode,
                                  &rank);
            });
            phase(4, [&] {
                krel::super_sparsinv(neq, f.xlnz, f.xspars, f.xnzsub, f.nzsub, f.diag, nnode,
                                     inode);
            });
            phase(5, [&] {
                krel::converttoija(neq, f.xlnz, f.xspars, f.xnzsub, f.nzsub, f.diag, ia, ja, a,
                                   perm);
            });
        }
        double total = 0.0;
        for (double t : times) total += t;
        state.SetIterationTime(total);

        const double factor_mb = (8.0 * (static_cast<double>(maxlnz) + neq) +
                                  4.0 * (static_cast<double>(maxsub) + 2.0 * (neq + 1))) /
                                 1048576.0;
        static constexpr const char* names[6] = {"symbolic", "setup", "nodes",
                                                 "cholesky", "inversion", "writeback"};
        double top = 0.0;
        for (int k = 0; k < 6; ++k) {
            state.counters[std::string(names[k]) + "_s"] = times[static_cast<std::size_t>(k)];
            state.counters[std::string(names[k]) + "_MB"] = peaks[static_cast<std::size_t>(k)];
            top = std::max(top, peaks[static_cast<std::size_t>(k)]);
        }
        state.counters["total_s"] = total;
        state.counters["cholmod_factorize_s"] = ref.factorize_s;
        state.counters["cholmod_1thread_s"] = one.factorize_s;
        state.counters["cholmod_threaded_s"] = all.factorize_s;
        state.counters["cholmod_MB"] = ref.peak_mb;
        state.counters["cholmod_postordered_s"] = postordered_s;
        state.counters["spainv_ratio_postordered"] = total / postordered_s;
        state.counters["chol_ratio"] = times[3] / ref.factorize_s;
        state.counters["spainv_ratio"] = total / ref.factorize_s;
        state.counters["factor_MB"] = factor_mb;
        state.counters["matrix_MB"] = matrix_mb;
        // The matrix is counted with the pipeline's memory, the rest of what
        // the process held before is not.
        state.counters["pipeline_MB"] = top - before_mb + matrix_mb;
        state.counters["peak_ratio"] = (top - before_mb + matrix_mb) / (factor_mb + matrix_mb);
        state.counters["neq"] = neq;
        state.counters["nnz_A"] = static_cast<double>(crs.totalnumberofelements());
        state.counters["nnz_L"] = static_cast<double>(maxlnz) + neq;
        state.counters["nnz_L_cholmod"] = ref.lnz;
        state.counters["cholmod_flops"] = ref.flops;
        state.counters["maxsub"] = maxsub;
        state.counters["nnode"] = nnode;
        state.counters["maxnode"] = maxnode;
        state.counters["rank"] = rank;
    }
    state.SetLabel(krel::blas_core_report());
}

BENCHMARK(selected_inversion)
    ->Arg(200000)
    ->Arg(1000000)
    ->UseManualTime()
    ->Iterations(1)
    ->Unit(benchmark::kSecond);

}  // namespace

int main(int argc, char** argv) { return krel::bench::run_benchmarks(argc, argv); }
