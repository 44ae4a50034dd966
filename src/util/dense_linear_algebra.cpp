#include "util/dense_linear_algebra.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstddef>
#include <string>
#include <vector>

#include <lapack.h>

#include "util/error_stop.h"
#include "util/logger.h"

namespace krel {

namespace {

using idx = std::int64_t;

// Square tiles keep both the strided reads and the contiguous writes of the
// mirror inside the cache; a tile column is the unit of work of one thread.
constexpr idx mirror_tile = 64;

// Copies the strict lower triangle of the leading n x n block to the strict
// upper one. Each element is a plain copy, so the result is the same for any
// number of threads; threads write disjoint columns of the upper triangle and
// read only the lower one.
void mirror_lower_to_upper(double* a, idx n, idx lda) {
    const idx ntiles = (n + mirror_tile - 1) / mirror_tile;
#pragma omp parallel for schedule(dynamic, 1) if (n > 2 * mirror_tile)
    for (idx tj = 0; tj < ntiles; ++tj) {
        const idx j0 = tj * mirror_tile;
        const idx j1 = std::min(n, j0 + mirror_tile);
        for (idx i0 = 0; i0 < j1; i0 += mirror_tile) {
            const idx i1 = std::min(j1, i0 + mirror_tile);
            for (idx j = j0; j < j1; ++j) {
                double* cj = a + j * lda;
                const idx iend = std::min(i1, j);
                for (idx i = i0; i < iend; ++i) cj[i] = a[i * lda + j];
            }
        }
    }
}

}  // namespace

void ginv1(double* a, std::int32_t n, std::int32_t m, double tol, std::int32_t& rank) {
    rank = std::max<std::int32_t>(n, 0);
    if (n <= 0) return;
    assert(m >= n);
    const idx nn = n;
    const idx ld = m;
    auto col = [a, ld](idx j) { return a + j * ld; };  // 0-based column j

    // A = L D L' with unit lower L below the diagonal and D on it, right
    // looking. A dropped pivot leaves a zero column, so it contributes no
    // update and the kept part is the factor of the kept submatrix; what is
    // left in the dropped row is never used again.
    for (idx i = 0; i < nn; ++i) {
        double* ci = col(i);
        const double d = ci[i];
        if (d < tol) {
            std::fill(ci + i, ci + nn, 0.0);
            --rank;
            continue;
        }
        for (idx r = i + 1; r < nn; ++r) ci[r] /= d;
        for (idx c = i + 1; c < nn; ++c) {
            const double f = d * ci[c];
            if (f == 0.0) continue;
            double* cc = col(c);
            for (idx r = c; r < nn; ++r) cc[r] -= f * ci[r];
        }
    }

    // X = inv(L) column by column below the diagonal (its unit diagonal is
    // implied), inv(D) on the diagonal. A zero diagonal marks a dropped row:
    // its entries of X are zero, which also keeps it out of the later rows.
    std::vector<double> w(static_cast<std::size_t>(nn));
    for (idx i = 0; i < nn; ++i) {
        double* ci = col(i);
        if (ci[i] == 0.0) continue;
        ci[i] = 1.0 / ci[i];
        for (idx r = i + 1; r < nn; ++r) w[r] = -ci[r];
        for (idx k = i + 1; k < nn; ++k) {
            const double* ck = col(k);
            if (ck[k] == 0.0) {
                w[k] = 0.0;
                continue;
            }
            const double xk = w[k];
            if (xk == 0.0) continue;
            for (idx r = k + 1; r < nn; ++r) w[r] -= ck[r] * xk;
        }
        std::copy(w.begin() + i + 1, w.end(), ci + i + 1);
    }

    // inv(A) = X' inv(D) X, lower triangle, one column at a time. Column j
    // of X is consumed into w before it is overwritten; the columns to its
    // right are still X.
    std::vector<double> dinv(static_cast<std::size_t>(nn));
    for (idx r = 0; r < nn; ++r) dinv[r] = col(r)[r];
    for (idx j = 0; j < nn; ++j) {
        double* cj = col(j);
        w[j] = dinv[j];
        for (idx r = j + 1; r < nn; ++r) w[r] = dinv[r] * cj[r];
        for (idx i = j; i < nn; ++i) {
            const double* ci = col(i);
            double s = w[i];
            for (idx r = i + 1; r < nn; ++r) s += ci[r] * w[r];
            cj[i] = s;
        }
    }
    mirror_lower_to_upper(a, nn, ld);
}

void ginv1(dmatrix& a, std::int32_t n, double tol, std::int32_t& rank) {
    assert(a.rows() >= n && a.cols() >= n);
    ginv1(a.data(), n, static_cast<std::int32_t>(a.rows()), tol, rank);
}

void invsym(double* a, std::int32_t n, std::int32_t lda) {
    if (n <= 0) return;
    const lapack_int nn = n;
    const lapack_int ld = lda;
    lapack_int info = 0;
    LAPACK_dpotrf("L", &nn, a, &ld, &info);
    LAPACK_dpotri("L", &nn, a, &ld, &info);
    mirror_lower_to_upper(a, nn, ld);
}

void invsym(dmatrix& a) {
    assert(a.rows() == a.cols());
    invsym(a.data(), static_cast<std::int32_t>(a.rows()), static_cast<std::int32_t>(a.rows()));
}

void invsym_reference(double* a, std::int32_t n, std::int32_t lda) {
    if (n <= 0) return;
    const idx nn = n;
    const idx ld = lda;
    auto at = [a, ld](idx i, idx j) -> double& { return a[j * ld + i]; };
    // L and then inv(L), in a compact copy, lower triangles only.
    std::vector<double> l(static_cast<std::size_t>(nn * nn), 0.0);
    auto el = [&l, nn](idx i, idx j) -> double& { return l[static_cast<std::size_t>(j * nn + i)]; };
    for (idx j = 0; j < nn; ++j) {
        double d = at(j, j);
        for (idx k = 0; k < j; ++k) d -= el(j, k) * el(j, k);
        el(j, j) = std::sqrt(d);
        for (idx i = j + 1; i < nn; ++i) {
            double s = at(i, j);
            for (idx k = 0; k < j; ++k) s -= el(i, k) * el(j, k);
            el(i, j) = s / el(j, j);
        }
    }
    std::vector<double> x(static_cast<std::size_t>(nn * nn), 0.0);
    auto ex = [&x, nn](idx i, idx j) -> double& { return x[static_cast<std::size_t>(j * nn + i)]; };
    for (idx j = 0; j < nn; ++j) {
        ex(j, j) = 1.0 / el(j, j);
        for (idx i = j + 1; i < nn; ++i) {
            double s = 0.0;
            for (idx k = j; k < i; ++k) s -= el(i, k) * ex(k, j);
            ex(i, j) = s / el(i, i);
        }
    }
    for (idx j = 0; j < nn; ++j) {
        for (idx i = j; i < nn; ++i) {
            double s = 0.0;
            for (idx r = i; r < nn; ++r) s += ex(r, i) * ex(r, j);
            at(i, j) = s;
            at(j, i) = s;
        }
    }
}

void invsym_reference(dmatrix& a) {
    assert(a.rows() == a.cols());
    invsym_reference(a.data(), static_cast<std::int32_t>(a.rows()),
                     static_cast<std::int32_t>(a.rows()));
}

void chols8(dmatrix& a) {
    constexpr double zero_diagonal = 1e-08;
    constexpr double zero_relative = 1e-10;
    assert(a.rows() == a.cols());
    const idx n = a.rows();
    // Row i of L is finished before row i + 1 starts, and every entry is
    // stored in both triangles: the rows of L left of the diagonal are then
    // the columns of the upper triangle, and the sums below are dot products
    // of contiguous columns. A zeroed row has zeros in both places, so it
    // drops out of every later sum.
    for (idx i = 1; i <= n; ++i) {
        double* ci = a.column(i);
        const double d = ci[i - 1];
        double s = 0.0;
        for (idx k = 0; k < i - 1; ++k) s += ci[k] * ci[k];
        if (d < zero_diagonal || d - s < d * zero_relative) {
            std::fill(ci, ci + n, 0.0);
            for (idx j = 1; j <= n; ++j) a(i, j) = 0.0;
            continue;
        }
        const double p = std::sqrt(d - s);
        ci[i - 1] = p;
        for (idx j = i + 1; j <= n; ++j) {
            double* cj = a.column(j);
            double t = ci[j - 1];
            for (idx k = 0; k < i - 1; ++k) t -= cj[k] * ci[k];
            t /= p;
            ci[j - 1] = t;
            cj[i - 1] = t;
        }
    }
}

bool ispositive(const dmatrix& a, std::int32_t n, std::optional<double> tol) {
    const double limit = tol.value_or(2.220446049250313e-16);
    if (n <= 0) return true;
    assert(a.rows() >= n && a.cols() >= n);
    const idx nn = n;
    std::vector<double> work_a(static_cast<std::size_t>(nn * nn));
    for (idx j = 1; j <= nn; ++j) std::copy_n(a.column(j), nn, work_a.begin() + (j - 1) * nn);
    std::vector<double> eigen(static_cast<std::size_t>(nn));

    const lapack_int ln = n;
    lapack_int lwork = -1;
    lapack_int liwork = -1;
    lapack_int info = 0;
    double work_size = 0.0;
    lapack_int iwork_size = 0;
    LAPACK_dsyevd("N", "L", &ln, work_a.data(), &ln, eigen.data(), &work_size, &lwork, &iwork_size,
                  &liwork, &info);
    if (info != 0) {
        global_logger().log_error("ERROR info : " + std::to_string(info));
        throw error_stop();
    }
    lwork = std::max<lapack_int>(1, static_cast<lapack_int>(work_size));
    liwork = std::max<lapack_int>(1, iwork_size);
    std::vector<double> work(static_cast<std::size_t>(lwork));
    std::vector<lapack_int> iwork(static_cast<std::size_t>(liwork));
    LAPACK_dsyevd("N", "L", &ln, work_a.data(), &ln, eigen.data(), work.data(), &lwork,
                  iwork.data(), &liwork, &info);
    if (info != 0) {
        global_logger().log_error("ERROR info-end: " + std::to_string(info));
        throw error_stop();
    }
    return std::none_of(eigen.begin(), eigen.end(), [limit](double e) { return e < limit; });
}

}  // namespace krel
