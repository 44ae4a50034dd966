// The solvers of the sparse matrices: the direct solve of crssparse and
// crssparse64 with the solver of their record, the solves with the factor
// that crssparse stores in its own arrays, and the conjugate gradient of
// every class.
#include <algorithm>
#include <cmath>
#include <iostream>
#include <memory>
#include <numeric>
#include <type_traits>
#include <vector>

#include "sparse/direct_solver.h"
#include "sparse/sparse_matrix.h"
#include "util/fortran_format.h"
#include "util/run_timer.h"

namespace krel {

namespace {

constexpr std::string_view not_conform = " ERROR: one of multiple arguments are not conform";

std::size_t at(std::int64_t one_based) { return static_cast<std::size_t>(one_based - 1); }

void check(const pardiso_variable& record, std::int32_t error, std::ostream& unit) {
    checkpardiso(record.phase, error, &unit);
}
void check(const pardiso_variable_64& record, std::int64_t error, std::ostream& unit) {
    checkpardiso_64(record.phase, error, &unit);
}

}  // namespace

// ---------------------------------------------------------------------------
// Direct solves

template <class IA>
bool crs_base<IA>::solve_arguments(std::int64_t xrows, std::int64_t yrows, std::int64_t xcols,
                                   std::int64_t ycols) const {
    if (!issquare()) {
        out() << " Warning: the sparse matrix is not squared!\n";
        out().flush();
        return false;
    }
    if (xcols != ycols)
        stop(" ERROR: the number of colums of x and y provided to solve are different!");
    if (xrows != dim1 || yrows != dim1) stop(not_conform);
    return true;
}

template <class IA>
void crs_base<IA>::solve(std::span<double> x, std::span<const double> y,
                         std::optional<std::int32_t> msglvl) {
    if (!solve_arguments(std::ssize(x), std::ssize(y), 1, 1)) return;
    solve_columns(1, y.data(), x.data(), msglvl);
}

template <class IA>
void crs_base<IA>::solve(dmatrix& x, const dmatrix& y, std::optional<std::int32_t> msglvl) {
    if (!solve_arguments(x.rows(), y.rows(), x.cols(), y.cols())) return;
    solve_columns(y.cols(), y.data(), x.data(), msglvl);
}

template <class IA>
void crs_base<IA>::solve_columns(std::int64_t nrhs, const double* y, double* x,
                                 std::optional<std::int32_t> msglvl) {
    std::ostream& unit = out();
    if (lpardisofirst || !pardiso) {
        const wtime clock;
        sort();
        pardiso = std::make_unique<pardiso_record<IA>>(1, 1, pardiso_record<IA>::real_symmetric_indefinite, 0,
                                                       msglvl.value_or(1));
        pardiso_record<IA>& record = *pardiso;
        record.init();
        record.phase = 12;
        unit << " Start ordering and factorization\n";
        unit.flush();
        // The order in the width of the matrix; a 64-bit matrix takes perm
        // when it has no perm64.
        std::span<const IA> order;
        std::vector<IA> widened;
        if constexpr (std::is_same_v<IA, std::int64_t>) {
            if (perm64) {
                order = *perm64;
            } else if (perm) {
                widened.assign(perm->begin(), perm->end());
                order = widened;
            }
        } else if (perm) {
            order = *perm;
        }
        check(record,
              record.factorize({ia.data(), ia.size()}, {ja.data(), ja.size()},
                               {a.data(), a.size()}, order),
              unit);
        unit << " Number of nonzeros in factors  = " << record.factor_nonzeros() << '\n'
             << " Elapsed time (s)               = " << realtochar(clock.elapsed(), "(f0.3)") << '\n';
        unit.flush();
        lpardisofirst = false;
    }
    pardiso_record<IA>& record = *pardiso;
    record.phase = 33;
    check(record, record.solve(nrhs, y, x), unit);
    record.msglvl = 0;
}

template <class IA>
void crs_base<IA>::reset_pardiso_memory() {
    if (!issquare() || !pardiso || !pardiso->hasmemory()) return;
    lpardisofirst = true;
    pardiso->phase = -1;
    check(*pardiso, pardiso->release(), out());
    reset_pardiso_variable(*pardiso);
}

// The rest of crs_base is instantiated with the class, in crs_matrix.cpp.
#define KREL_INSTANTIATE_SOLVE(IA)                                                           \
    template bool crs_base<IA>::solve_arguments(std::int64_t, std::int64_t, std::int64_t,    \
                                                std::int64_t) const;                         \
    template void crs_base<IA>::solve(std::span<double>, std::span<const double>,            \
                                      std::optional<std::int32_t>);                          \
    template void crs_base<IA>::solve(dmatrix&, const dmatrix&, std::optional<std::int32_t>); \
    template void crs_base<IA>::solve_columns(std::int64_t, const double*, double*,          \
                                              std::optional<std::int32_t>);                  \
    template void crs_base<IA>::reset_pardiso_memory();
KREL_INSTANTIATE_SOLVE(std::int32_t)
KREL_INSTANTIATE_SOLVE(std::int64_t)
#undef KREL_INSTANTIATE_SOLVE

// ---------------------------------------------------------------------------
// Solves with the factor in the arrays of crssparse

void crssparse::getldlt() {
    if (!ldecomposed)
        getchol();
    else if (lldlt)
        return;
    for (std::int32_t i = 1; i <= dim1; ++i) {
        // The rows of the factor are sorted: the diagonal comes first.
        const std::size_t first = at(ia[at(i)]);
        const std::size_t end = at(ia[at(i + 1)]);
        const double d = a[first];
        a[first] = d * d;
        const double scale = d > 0.0 ? 1.0 / d : 0.0;
        for (std::size_t k = first + 1; k < end; ++k) a[k] *= scale;
    }
    lldlt = true;
}

void crssparse::factor_solve(std::span<double> x, std::span<const double> y, bool ldlt) const {
    if (!ldecomposed) stop(" ERROR: the matrix holds no factor to solve with");
    if (!issquare() || std::ssize(x) != dim1 || std::ssize(y) != dim1) stop(not_conform);
    if (x.data() != y.data()) std::copy(y.begin(), y.end(), x.begin());
    const std::size_t n = static_cast<std::size_t>(dim1);
    // Row i of the upper triangle U is column i of U'. Elements left of the
    // diagonal are not part of U.
    auto pivot = [this](std::size_t i) {
        for (std::size_t k = at(ia[i]); k < at(ia[i + 1]); ++k)
            if (static_cast<std::size_t>(ja[k]) == i + 1) return a[k];
        return 0.0;
    };
    auto divide = [](double v, double d) { return d != 0.0 ? v / d : 0.0; };
    // U' z = y, column by column of U'.
    for (std::size_t i = 0; i < n; ++i) {
        if (!ldlt) x[i] = divide(x[i], pivot(i));
        const double xi = x[i];
        if (xi == 0.0) continue;
        for (std::size_t k = at(ia[i]); k < at(ia[i + 1]); ++k) {
            const std::size_t j = at(ja[k]);
            if (j > i) x[j] -= a[k] * xi;
        }
    }
    if (ldlt)
        for (std::size_t i = 0; i < n; ++i) x[i] = divide(x[i], pivot(i));
    // U x = z, row by row.
    for (std::size_t i = n; i-- > 0;) {
        double s = x[i];
        for (std::size_t k = at(ia[i]); k < at(ia[i + 1]); ++k) {
            const std::size_t j = at(ja[k]);
            if (j > i) s -= a[k] * x[j];
        }
        x[i] = ldlt ? s : divide(s, pivot(i));
    }
}

void crssparse::isolve(std::span<double> x, std::span<const double> y) const {
    factor_solve(x, y, false);
}

void crssparse::solveldlt_s(std::span<double> x, std::span<const double> y) const {
    factor_solve(x, y, true);
}

void crssparse::solveldlt(std::span<double> x, std::span<const double> y,
                          std::optional<std::int32_t>) {
    if (!solve_arguments(std::ssize(x), std::ssize(y), 1, 1)) return;
    solveldlt_columns(1, y.data(), x.data());
}

void crssparse::solveldlt(dmatrix& x, const dmatrix& y, std::optional<std::int32_t>) {
    if (!solve_arguments(x.rows(), y.rows(), x.cols(), y.cols())) return;
    solveldlt_columns(y.cols(), y.data(), x.data());
}

void crssparse::solveldlt_columns(std::int64_t nrhs, const double* y, double* x) {
    if (!(ldecomposed && lldlt)) {
        const wtime clock;
        out() << " Start ordering and factorization\n";
        out().flush();
        getldlt();
        out() << " Elapsed time (s)               = " << realtochar(clock.elapsed(), "(f0.3)") << '\n';
        out().flush();
    }
    // The factor is that of P A P': (P y)(i) = y(perm(i)), and x(perm(i)) is
    // the solution in place i.
    const std::size_t n = static_cast<std::size_t>(dim1);
    std::vector<std::int32_t> order(n);
    if (perm)
        order = *perm;
    else
        std::iota(order.begin(), order.end(), 1);
    std::vector<double> w(n);
    for (std::int64_t c = 0; c < nrhs; ++c) {
        const double* yc = y + c * static_cast<std::int64_t>(n);
        double* xc = x + c * static_cast<std::int64_t>(n);
        for (std::size_t i = 0; i < n; ++i) w[i] = yc[at(order[i])];
        factor_solve(w, w, true);
        for (std::size_t i = 0; i < n; ++i) xc[at(order[i])] = w[i];
    }
}

// ---------------------------------------------------------------------------
// Conjugate gradient

cg_result gen_sparse::cg(std::span<double> x, std::span<const double> y, double tol,
                         std::optional<std::int32_t> maxiter) const {
    if (!issquare() || std::ssize(x) != dim2 || std::ssize(y) != dim1) stop(not_conform);
    // Its product only warns and copies x: iterating on that would return
    // numbers that look like a solution.
    if (dynamic_cast<const crssparse64*>(this) != nullptr)
        stop(" ERROR: cg needs a matrix product, which crssparse64 does not have");
    const std::size_t n = x.size();
    auto dot = [n](const double* u, const double* v) {
        double s = 0.0;
        for (std::size_t i = 0; i < n; ++i) s += u[i] * v[i];
        return s;
    };
    cg_result result;
    const double ynorm = std::sqrt(dot(y.data(), y.data()));
    if (ynorm == 0.0) {
        std::fill(x.begin(), x.end(), 0.0);
        return result;
    }
    std::vector<double> inv(n), r(y.begin(), y.end()), z(n), p(n), q(n, 0.0);
    for (std::size_t i = 0; i < n; ++i) {
        const double d = get(static_cast<std::int32_t>(i + 1), static_cast<std::int32_t>(i + 1));
        inv[i] = d > 0.0 ? 1.0 / d : 1.0;
    }
    multgenv(-1.0, 'N', x, 1.0, r);
    result.residual = std::sqrt(dot(r.data(), r.data())) / ynorm;
    if (result.residual <= tol) return result;
    for (std::size_t i = 0; i < n; ++i) p[i] = z[i] = inv[i] * r[i];
    double rz = dot(r.data(), z.data());
    const std::int32_t limit = maxiter.value_or(dim1);
    while (result.iterations < limit) {
        multgenv(1.0, 'N', p, 0.0, q);
        const double pq = dot(p.data(), q.data());
        if (!(pq != 0.0)) break;  // no direction left to go
        const double alpha = rz / pq;
        for (std::size_t i = 0; i < n; ++i) {
            x[i] += alpha * p[i];
            r[i] -= alpha * q[i];
        }
        ++result.iterations;
        result.residual = std::sqrt(dot(r.data(), r.data())) / ynorm;
        if (result.residual <= tol) break;
        for (std::size_t i = 0; i < n; ++i) z[i] = inv[i] * r[i];
        const double rz_next = dot(r.data(), z.data());
        const double beta = rz_next / rz;
        rz = rz_next;
        for (std::size_t i = 0; i < n; ++i) p[i] = z[i] + beta * p[i];
    }
    return result;
}

}  // namespace krel
