// The direct solve of crssparse on the coefficient matrix of a single-trait
// animal model (bench_animal_model.h) in its METIS order, against CHOLMOD
// called directly on the same matrix, with the same order and settings, in
// the same run. CHOLMOD gets the matrix in its own form, built beforehand
// and not timed, and keeps its solution and workspace from one solve to the
// next: the yardstick is what a program written against CHOLMOD would spend.
//   first_s, cholmod_first_s    the first solve of one right-hand side:
//                               sort, analysis, factorisation and solve
//   solve1_s, solve100_s        a later solve of 1 and of 100 right-hand
//   cholmod_solve1_s, ...       sides with the factor
//   *_ratio                     the class / CHOLMOD (target at most 1.10)
//   residual                    largest norm(A x - y) / norm(y) of the
//                               class's solutions
//   max_diff                    largest difference between the two solutions
// Each figure is the best of a few runs, the two sides taking turns. Every
// size runs on one thread (BLAS and OpenMP) and on all of them (threads 0):
// the first gives the steadier figures, as spinning OpenMP threads on a
// machine with few cores make the threaded factorisation take up to twice
// its time now and then, on either side.
// Run as build/bench/bench_solvers; --benchmark_filter=animals:200000 for
// the small size alone.
#include <benchmark/benchmark.h>
#include <cblas.h>
#include <omp.h>
#include <suitesparse/cholmod.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <random>
#include <sstream>
#include <vector>

#include "bench_animal_model.h"
#include "bench_main.h"
#include "bench_support.h"
#include "sparse/direct_solver.h"
#include "sparse/sparse_matrix.h"
#include "util/blas_core.h"

namespace {

// CHOLMOD without the class: supernodal where CHOLMOD finds it pays, the
// given order postordered, as the class asks for a matrix with perm.
class direct_cholmod {
public:
    direct_cholmod(const krel::crssparse& crs, std::span<const std::int32_t> perm) {
        cholmod_start(&c_);
        c_.print = 0;
        n_ = static_cast<std::size_t>(crs.getdim(1));
        const std::size_t nnz = static_cast<std::size_t>(crs.totalnumberofelements());
        A_ = cholmod_allocate_sparse(n_, n_, nnz, 1, 1, -1, CHOLMOD_REAL, &c_);
        krel::bench::copy_to_cholmod<int>(crs, *A_);
        for (std::int32_t p : perm) perm_.push_back(p - 1);
    }
    ~direct_cholmod() {
        if (X_) cholmod_free_dense(&X_, &c_);
        if (Y_) cholmod_free_dense(&Y_, &c_);
        if (E_) cholmod_free_dense(&E_, &c_);
        if (L_) cholmod_free_factor(&L_, &c_);
        cholmod_free_sparse(&A_, &c_);
        cholmod_finish(&c_);
    }
    direct_cholmod(const direct_cholmod&) = delete;
    direct_cholmod& operator=(const direct_cholmod&) = delete;

    // Analysis, factorisation and the solve of one right-hand side.
    void first(const double* y) {
        release();
        c_.nmethods = 1;
        c_.method[0].ordering = CHOLMOD_GIVEN;
        c_.postorder = 1;
        c_.supernodal = CHOLMOD_AUTO;
        c_.final_ll = 0;
        L_ = cholmod_analyze_p(A_, perm_.data(), nullptr, 0, &c_);
        cholmod_factorize(A_, L_, &c_);
        if (c_.status != CHOLMOD_OK) throw std::runtime_error("CHOLMOD factorisation failed");
        solve(1, y);
    }
    // The solution is in result().
    void solve(std::size_t nrhs, const double* y) {
        cholmod_dense B{n_, nrhs, n_ * nrhs, n_, const_cast<double*>(y), nullptr, CHOLMOD_REAL,
                        CHOLMOD_DOUBLE};
        if (!cholmod_solve2(CHOLMOD_A, L_, &B, nullptr, &X_, nullptr, &Y_, &E_, &c_))
            throw std::runtime_error("CHOLMOD solve failed");
    }
    void release() {
        if (L_) cholmod_free_factor(&L_, &c_);
    }
    bool factored() const { return L_ != nullptr; }
    const double* result() const { return static_cast<const double*>(X_->x); }
    bool supernodal() const { return L_ && L_->is_super; }

private:
    cholmod_common c_{};
    std::size_t n_ = 0;
    cholmod_sparse* A_ = nullptr;
    cholmod_factor* L_ = nullptr;
    cholmod_dense* X_ = nullptr;
    cholmod_dense* Y_ = nullptr;
    cholmod_dense* E_ = nullptr;
    std::vector<int> perm_;
};

template <class F>
double seconds(F&& f) {
    const double t = omp_get_wtime();
    f();
    return omp_get_wtime() - t;
}

// Largest norm(A x - y) / norm(y) over the columns.
double residual(const krel::crssparse& crs, const krel::dmatrix& x, const krel::dmatrix& y) {
    const std::size_t n = static_cast<std::size_t>(crs.getdim(1));
    std::vector<double> r(n);
    double worst = 0.0;
    for (krel::dmatrix::index_type c = 1; c <= y.cols(); ++c) {
        std::copy_n(y.column(c), n, r.begin());
        crs.multgenv(1.0, 'N', std::span<const double>(x.column(c), n), -1.0, r);
        double rr = 0.0, yy = 0.0;
        for (std::size_t i = 0; i < n; ++i) {
            rr += r[i] * r[i];
            yy += y.column(c)[i] * y.column(c)[i];
        }
        worst = std::max(worst, std::sqrt(rr / yy));
    }
    return worst;
}

// The model of n animals in its METIS order, built once for all thread
// counts.
const krel::crssparse& ordered_model(std::int32_t n_animals) {
    static std::map<std::int32_t, krel::crssparse> models;
    auto [it, fresh] = models.try_emplace(n_animals);
    if (fresh) {
        it->second = krel::bench::animal_model(n_animals);
        std::vector<std::int32_t> perm;
        it->second.getordering(perm);
        it->second.setpermutation32(perm);
    }
    return it->second;
}

// One thread, or all of them when threads is 0, for the lifetime of the
// object.
class thread_count {
public:
    explicit thread_count(int threads)
        : omp_(omp_get_max_threads()), blas_(openblas_get_num_threads()) {
        if (threads > 0) {
            omp_set_num_threads(threads);
            openblas_set_num_threads(threads);
        }
    }
    ~thread_count() {
        omp_set_num_threads(omp_);
        openblas_set_num_threads(blas_);
    }
    thread_count(const thread_count&) = delete;
    thread_count& operator=(const thread_count&) = delete;

private:
    int omp_, blas_;
};

void direct_solve(benchmark::State& state) {
    const std::int32_t n_animals = static_cast<std::int32_t>(state.range(0));
    const krel::crssparse& model = ordered_model(n_animals);
    std::vector<std::int32_t> perm;
    model.getpermutation32(perm);
    const thread_count threads(static_cast<int>(state.range(1)));
    const std::int32_t neq = model.getdim(1);
    const std::size_t n = static_cast<std::size_t>(neq);

    krel::dmatrix y(neq, 100);
    std::mt19937_64 gen(3);
    std::normal_distribution<double> normal;
    for (std::size_t k = 0; k < y.size(); ++k) y.data()[k] = normal(gen);
    krel::dmatrix y1(neq, 1);
    std::copy_n(y.data(), n, y1.data());
    krel::dmatrix x1(neq, 1), x(neq, 100);
    const std::span<const double> y1v(y1.data(), n);
    const std::span<double> x1v(x1.data(), n);

    for (auto _ : state) {
        direct_cholmod direct(model, perm);
        krel::crssparse crs = model;
        std::ostringstream unit;
        crs.setoutputunit(&unit);

        // The best of runs runs of each side, which take turns in going
        // first; prepare runs, untimed, before each.
        auto compare = [](int runs, auto&& prepare, auto&& ours, auto&& theirs,
                          double& best_ours, double& best_theirs) {
            auto timed = [&prepare](auto&& f, double& best) {
                prepare();
                krel::bench::keep_min(best, seconds(f));
            };
            for (int run = 0; run < runs; ++run) {
                if (run % 2 == 0) timed(theirs, best_theirs);
                timed(ours, best_ours);
                if (run % 2 == 1) timed(theirs, best_theirs);
            }
        };
        const auto nothing = [] {};
        // Every first solve starts with no factor on either side.
        const auto unfactored = [&] {
            direct.release();
            crs.reset_pardiso_memory();
        };
        // More runs where they are cheap: the threaded factorisation's slow
        // turns are the more frequent the smaller the matrix.
        const int first_runs = n_animals <= 200000 ? 15 : 5;
        double first = 0.0, cholmod_first = 0.0;
        compare(
            first_runs, unfactored, [&] { crs.solve(x1v, y1v); }, [&] { direct.first(y1.data()); },
            first, cholmod_first);
        if (!direct.factored()) direct.first(y1.data());
        if (!crs.getpardiso().hasfactor()) crs.solve(x1v, y1v);

        double solve1 = 0.0, cholmod_solve1 = 0.0;
        compare(
            6, nothing, [&] { crs.solve(x1v, y1v); }, [&] { direct.solve(1, y1.data()); },
            solve1, cholmod_solve1);
        double diff = 0.0;
        for (std::size_t i = 0; i < n; ++i)
            diff = std::max(diff, std::abs(x1.data()[i] - direct.result()[i]));
        double solve100 = 0.0, cholmod_solve100 = 0.0;
        compare(
            4, nothing, [&] { crs.solve(x, y); }, [&] { direct.solve(100, y.data()); }, solve100,
            cholmod_solve100);
        for (std::size_t k = 0; k < x.size(); ++k)
            diff = std::max(diff, std::abs(x.data()[k] - direct.result()[k]));
        state.SetIterationTime(first);

        state.counters["first_s"] = first;
        state.counters["cholmod_first_s"] = cholmod_first;
        state.counters["first_ratio"] = first / cholmod_first;
        state.counters["solve1_s"] = solve1;
        state.counters["cholmod_solve1_s"] = cholmod_solve1;
        state.counters["solve1_ratio"] = solve1 / cholmod_solve1;
        state.counters["solve100_s"] = solve100;
        state.counters["cholmod_solve100_s"] = cholmod_solve100;
        state.counters["solve100_ratio"] = solve100 / cholmod_solve100;
        state.counters["residual"] = std::max(residual(model, x1, y1), residual(model, x, y));
        state.counters["max_diff"] = diff;
        state.counters["supernodal"] = direct.supernodal() ? 1 : 0;
        state.counters["nnz_L"] = static_cast<double>(crs.getpardiso().factor_nonzeros());
    }
    state.counters["threads"] = openblas_get_num_threads();
    state.counters["neq"] = neq;
    state.counters["nnz_A"] = static_cast<double>(model.totalnumberofelements());
    state.SetLabel(krel::blas_core_report());
}

BENCHMARK(direct_solve)
    ->ArgNames({"animals", "threads"})
    ->ArgsProduct({{200000, 1000000}, {1, 0}})
    ->UseManualTime()
    ->Iterations(1)
    ->Unit(benchmark::kSecond);

}  // namespace

int main(int argc, char** argv) { return krel::bench::run_benchmarks(argc, argv); }
