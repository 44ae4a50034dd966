// The operations of crssparse that rest on a Cholesky factor or on sampling
// from the inverse: getlogdetchol and harville.
#include <cholmod.h>

#include <algorithm>
#include <cmath>
#include <memory>

#include "sparse/sparse_matrix.h"
#include "util/random_stream.h"

namespace krel {

namespace {

// Working zero of a pivot: a column whose pivot is at most this is dropped,
// as the generalised factor of the selected inversion drops it.
constexpr double pivot_zero = 1e-08;

// CHOLMOD's workspace for the time of one call.
class cholmod_session {
public:
    cholmod_session() {
        cholmod_l_start(&common_);
        // Failures are read from the status; CHOLMOD must not print them.
        common_.print = 0;
        common_.error_handler = nullptr;
    }
    ~cholmod_session() {
        if (factor_) cholmod_l_free_factor(&factor_, &common_);
        if (matrix_) cholmod_l_free_sparse(&matrix_, &common_);
        cholmod_l_finish(&common_);
    }
    cholmod_session(const cholmod_session&) = delete;
    cholmod_session& operator=(const cholmod_session&) = delete;

    cholmod_common& common() { return common_; }
    cholmod_sparse*& matrix() { return matrix_; }
    cholmod_factor*& factor() { return factor_; }

private:
    cholmod_common common_{};
    cholmod_sparse* matrix_ = nullptr;
    cholmod_factor* factor_ = nullptr;
};

}  // namespace

void crssparse::getlogdetchol(double& logdet, std::int32_t& rank) const {
    if (ldecomposed) {
        rank = dim1;
        double sum = 0.0;
        const gen_sparse& self = *this;
        for (std::int32_t i = 1; i <= dim1; ++i) {
            const double d = self.get(i, i);
            if (d <= sparse_tol)
                --rank;
            else
                sum += std::log10(d);
        }
        logdet = 2.0 * sum;
        return;
    }

    if (!issquare()) stop(" ERROR: the log-determinant needs a square matrix");
    const std::int32_t n = dim1;

    // The symmetric matrix of the upper triangle, upper-stored with the
    // diagonal first in every row, the form of every converted matrix.
    std::int64_t nnz = n;
    auto for_each_upper = [this](auto&& f) {
        if (ia.empty() || ia.back() < 1) return;
        for (std::int32_t i = 1; i <= dim1; ++i)
            for (std::int32_t k = ia[static_cast<std::size_t>(i - 1)];
                 k >= 1 && k < ia[static_cast<std::size_t>(i)]; ++k) {
                const std::int32_t j = ja[static_cast<std::size_t>(k - 1)];
                if (j >= i) f(i, j, a[static_cast<std::size_t>(k - 1)]);
            }
    };
    for_each_upper([&nnz](std::int32_t i, std::int32_t j, double) { nnz += (j != i); });
    crssparse upper(n, static_cast<std::int32_t>(nnz), n, true, unlog);
    {
        std::vector<std::int32_t> count(static_cast<std::size_t>(n), 1);
        for_each_upper([&count](std::int32_t i, std::int32_t j, double) {
            count[static_cast<std::size_t>(i - 1)] += (j != i);
        });
        upper.ia[0] = 1;
        for (std::size_t r = 0; r < static_cast<std::size_t>(n); ++r) {
            upper.ja[static_cast<std::size_t>(upper.ia[r] - 1)] = static_cast<std::int32_t>(r + 1);
            upper.ia[r + 1] = upper.ia[r] + count[r];
            count[r] = upper.ia[r];  // last place taken
        }
        for_each_upper([&](std::int32_t i, std::int32_t j, double v) {
            const std::size_t r = static_cast<std::size_t>(i - 1);
            if (j == i) {
                upper.a[static_cast<std::size_t>(upper.ia[r] - 1)] += v;
            } else {
                const std::size_t p = static_cast<std::size_t>(count[r]++);
                upper.ja[p] = j;
                upper.a[p] = v;
            }
        });
    }

    std::vector<std::int32_t> order;
    if (perm)
        order = *perm;
    else
        upper.getordering(order);

    // Row i of the upper triangle is column i of the lower one: the arrays go
    // to CHOLMOD as they are, 0-based, as a symmetric matrix stored lower.
    cholmod_session session;
    cholmod_common& c = session.common();
    c.nmethods = 1;
    c.method[0].ordering = CHOLMOD_GIVEN;
    c.postorder = 0;
    c.supernodal = CHOLMOD_SIMPLICIAL;
    c.final_ll = 0;
    session.matrix() =
        cholmod_l_allocate_sparse(static_cast<std::size_t>(n), static_cast<std::size_t>(n),
                                  static_cast<std::size_t>(nnz), 0, 1, -1, CHOLMOD_REAL, &c);
    cholmod_sparse* A = session.matrix();
    if (A == nullptr) stop(" ERROR: the Cholesky factor could not be computed");
    auto* Ap = static_cast<SuiteSparse_long*>(A->p);
    auto* Ai = static_cast<SuiteSparse_long*>(A->i);
    auto* Ax = static_cast<double*>(A->x);
    for (std::size_t r = 0; r <= static_cast<std::size_t>(n); ++r) Ap[r] = upper.ia[r] - 1;
    for (std::size_t k = 0; k < static_cast<std::size_t>(nnz); ++k) {
        Ai[k] = upper.ja[k] - 1;
        Ax[k] = upper.a[k];
    }
    std::vector<SuiteSparse_long> given(order.begin(), order.end());
    for (SuiteSparse_long& p : given) --p;
    session.factor() = cholmod_l_analyze_p(A, given.data(), nullptr, 0, &c);
    cholmod_factor* L = session.factor();
    if (L == nullptr) stop(" ERROR: the Cholesky factor could not be computed");

    // Factor, drop the first column (in elimination order) whose pivot is
    // at most the working zero, factor again: the columns before it are
    // final, so the loop ends with the generalised factor. A dropped column
    // keeps a unit diagonal and contributes nothing to the log-determinant.
    std::int32_t dropped = 0;
    for (;;) {
        cholmod_l_factorize(A, L, &c);
        if (c.status < CHOLMOD_OK) stop(" ERROR: the Cholesky factor could not be computed");
        const auto* Lp = static_cast<const SuiteSparse_long*>(L->p);
        const auto* Lx = static_cast<const double*>(L->x);
        const auto* Lperm = static_cast<const SuiteSparse_long*>(L->Perm);
        const std::size_t reliable =
            c.status == CHOLMOD_NOT_POSDEF ? std::min<std::size_t>(L->minor, n) : n;
        std::size_t bad = static_cast<std::size_t>(n);
        for (std::size_t k = 0; k < reliable; ++k)
            if (!(Lx[Lp[k]] > pivot_zero)) {
                bad = k;
                break;
            }
        if (bad == static_cast<std::size_t>(n) && reliable < static_cast<std::size_t>(n))
            bad = reliable;
        if (bad == static_cast<std::size_t>(n)) {
            double sum = 0.0;
            for (std::size_t k = 0; k < static_cast<std::size_t>(n); ++k)
                sum += std::log10(Lx[Lp[k]]);
            logdet = sum;  // the pivots are the squares of the diagonal of L
            rank = n - dropped;
            return;
        }
        const SuiteSparse_long r = Lperm[bad];
        for (SuiteSparse_long col = 0; col < n; ++col)
            for (SuiteSparse_long k = Ap[col]; k < Ap[col + 1]; ++k)
                if (col == r || Ai[k] == r) Ax[k] = 0.0;
        Ax[Ap[r]] = 1.0;
        ++dropped;
    }
}

std::vector<double> crssparse::harville(std::int32_t nsamples, std::int32_t seed,
                                        std::int32_t nburnin) const {
    if (!issquare()) stop(" ERROR: harville needs a square matrix");
    const std::size_t n = static_cast<std::size_t>(dim1);
    std::vector<double> result(n, 0.0);
    if (ia.empty() || ia.back() < 1) return result;

    std::vector<double> diagonal(n, 0.0);
    for (std::size_t i = 0; i < n; ++i)
        for (std::int32_t k = ia[i]; k >= 1 && k < ia[i + 1]; ++k)
            if (ja[static_cast<std::size_t>(k - 1)] == static_cast<std::int32_t>(i + 1))
                diagonal[i] += a[static_cast<std::size_t>(k - 1)];

    random_stream stream;
    stream.setseed(seed);
    std::vector<double> x(n, 0.0);
    // lower(i): sum over j < i of c(j, i) x(j) with the x(j) of this round.
    std::vector<double> lower(n, 0.0);
    const std::int32_t rounds = std::max(nburnin, 0) + std::max(nsamples, 0);
    for (std::int32_t round = 1; round <= rounds; ++round) {
        const bool kept = round > nburnin;
        std::fill(lower.begin(), lower.end(), 0.0);
        for (std::size_t i = 0; i < n; ++i) {
            const double z = stream.rand_stdnormal();
            if (!(diagonal[i] > pivot_zero)) {
                x[i] = 0.0;
                continue;
            }
            double sum = lower[i];
            for (std::int32_t k = ia[i]; k >= 1 && k < ia[i + 1]; ++k) {
                const std::size_t j =
                    static_cast<std::size_t>(ja[static_cast<std::size_t>(k - 1)] - 1);
                if (j > i) sum += a[static_cast<std::size_t>(k - 1)] * x[j];
            }
            const double mean = -sum / diagonal[i];
            x[i] = mean + z / std::sqrt(diagonal[i]);
            if (kept) result[i] += mean * mean;
            for (std::int32_t k = ia[i]; k >= 1 && k < ia[i + 1]; ++k) {
                const std::size_t j =
                    static_cast<std::size_t>(ja[static_cast<std::size_t>(k - 1)] - 1);
                if (j > i) lower[j] += a[static_cast<std::size_t>(k - 1)] * x[i];
            }
        }
    }
    for (std::size_t i = 0; i < n; ++i)
        result[i] = diagonal[i] > pivot_zero
                        ? 1.0 / diagonal[i] + (nsamples > 0 ? result[i] / nsamples : 0.0)
                        : 0.0;
    return result;
}

}  // namespace krel
