// The direct solver behind the record: CHOLMOD, in the width of the
// record's integers.
#include "sparse/direct_solver.h"

#include <suitesparse/cholmod.h>

#include <iostream>
#include <limits>
#include <string>
#include <type_traits>
#include <utility>

#include "sparse/sparse_stream_io.h"

namespace krel {

namespace {

template <class Int>
struct cholmod_api;

template <>
struct cholmod_api<std::int32_t> {
    static constexpr int itype = CHOLMOD_INT;
    static constexpr auto start = cholmod_start;
    static constexpr auto finish = cholmod_finish;
    static constexpr auto analyze_p = cholmod_analyze_p;
    static constexpr auto factorize = cholmod_factorize;
    static constexpr auto solve2 = cholmod_solve2;
    static constexpr auto free_factor = cholmod_free_factor;
    static constexpr auto free_dense = cholmod_free_dense;
};

static_assert(std::is_same_v<SuiteSparse_long, std::int64_t>);

template <>
struct cholmod_api<std::int64_t> {
    static constexpr int itype = CHOLMOD_LONG;
    static constexpr auto start = cholmod_l_start;
    static constexpr auto finish = cholmod_l_finish;
    static constexpr auto analyze_p = cholmod_l_analyze_p;
    static constexpr auto factorize = cholmod_l_factorize;
    static constexpr auto solve2 = cholmod_l_solve2;
    static constexpr auto free_factor = cholmod_l_free_factor;
    static constexpr auto free_dense = cholmod_l_free_dense;
};

// The PARDISO error code that tells the same as a CHOLMOD status.
template <class Int>
Int error_code(int status) {
    switch (status) {
        case CHOLMOD_OK: return 0;
        case CHOLMOD_INVALID: return -1;
        case CHOLMOD_OUT_OF_MEMORY: return -2;
        case CHOLMOD_NOT_POSDEF: return -4;
        case CHOLMOD_TOO_LARGE: return -8;
        default: return -5;
    }
}

}  // namespace

template <class Int>
struct cholmod_state {
    using api = cholmod_api<Int>;

    cholmod_state() {
        api::start(&common);
        // Failures travel as error codes to checkpardiso, on the matrix's
        // unit; CHOLMOD itself stays silent, also about the failed LL'
        // attempt on an indefinite matrix, which is no failure here.
        common.print = 0;
    }
    ~cholmod_state() {
        release();
        api::finish(&common);
    }
    cholmod_state(const cholmod_state&) = delete;
    cholmod_state& operator=(const cholmod_state&) = delete;

    void release() {
        if (factor) api::free_factor(&factor, &common);
        if (y) api::free_dense(&y, &common);
        if (e) api::free_dense(&e, &common);
    }

    cholmod_common common{};
    cholmod_factor* factor = nullptr;
    // Workspace of the solves, kept from one solve to the next.
    cholmod_dense* y = nullptr;
    cholmod_dense* e = nullptr;
};

template <class Int>
pardiso_record<Int>::pardiso_record(std::optional<Int> maxfct_, std::optional<Int> mnum_,
                                    std::optional<Int> mtype_, std::optional<Int> solver_,
                                    std::optional<Int> msglvl_) noexcept
    : maxfct(maxfct_.value_or(1)),
      mnum(mnum_.value_or(1)),
      mtype(mtype_.value_or(real_symmetric_indefinite)),
      msglvl(msglvl_.value_or(1)),
      solver(solver_.value_or(0)) {}

template <class Int>
pardiso_record<Int>::~pardiso_record() = default;
template <class Int>
pardiso_record<Int>::pardiso_record(pardiso_record&&) noexcept = default;
template <class Int>
pardiso_record<Int>& pardiso_record<Int>::operator=(pardiso_record&&) noexcept = default;

template <class Int>
void pardiso_record<Int>::init() {
    iparm.assign(64, 0);
    pt = std::make_unique<cholmod_state<Int>>();
}

template <class Int>
bool pardiso_record<Int>::hasfactor() const {
    return pt && pt->factor;
}

template <class Int>
Int pardiso_record<Int>::factorize(std::span<const Int> ia, std::span<const std::int32_t> ja,
                                   std::span<const double> a, std::span<const Int> perm) {
    using api = cholmod_api<Int>;
    if (!pt || iparm.size() != 64) return -1;
    pt->release();
    if (ia.empty()) return -1;
    const std::size_t n = ia.size() - 1;

    // What PARDISO's matrix checker looks at: the arrays must index each
    // other and the permutation must be one. Row i of the upper triangle is
    // column i of the lower one, so the arrays go to CHOLMOD as a symmetric
    // matrix stored lower, 0-based; the values are read where they are.
    if (ia[0] != 1) return -1;
    std::vector<Int> colptr(n + 1);
    for (std::size_t r = 0; r <= n; ++r) {
        if (r > 0 && ia[r] < ia[r - 1]) return -1;
        colptr[r] = ia[r] - 1;
    }
    const std::size_t nnz = static_cast<std::size_t>(colptr[n]);
    if (nnz > ja.size() || nnz > a.size()) return -1;
    std::vector<Int> rowind(nnz);
    for (std::size_t k = 0; k < nnz; ++k) {
        if (ja[k] < 1 || static_cast<std::size_t>(ja[k]) > n) return -1;
        rowind[k] = ja[k] - 1;
    }
    std::vector<Int> given;
    if (!perm.empty()) {
        if (perm.size() != n) return -1;
        given.resize(n);
        std::vector<bool> seen(n, false);
        for (std::size_t k = 0; k < n; ++k) {
            const Int p = perm[k] - 1;
            if (p < 0 || static_cast<std::size_t>(p) >= n || seen[static_cast<std::size_t>(p)])
                return -1;
            seen[static_cast<std::size_t>(p)] = true;
            given[k] = p;
        }
    }
    iparm[4] = given.empty() ? 0 : 1;
    iparm[17] = 0;
    if (n == 0) return 0;

    cholmod_sparse A{};
    A.nrow = n;
    A.ncol = n;
    A.nzmax = nnz;
    A.p = colptr.data();
    A.i = rowind.data();
    A.x = const_cast<double*>(a.data());  // read only
    A.stype = -1;
    A.itype = api::itype;
    A.xtype = CHOLMOD_REAL;
    A.dtype = CHOLMOD_DOUBLE;
    A.sorted = 1;
    A.packed = 1;

    // The factorisation. A supernodal LL' runs on dense blocks with the
    // threaded BLAS and is several times faster than CHOLMOD's only
    // factorisation that also takes indefinite matrices, the simplicial
    // LDL' (it has no supernodal LDL'). So a supernodal LL' is tried first,
    // and an indefinite matrix, on which it fails at the first pivot that
    // is not positive, is factored again by the simplicial LDL' in the
    // order of the first analysis. CHOLMOD's choice stays between the two
    // for matrices on which a simplicial factorisation is the faster one
    // anyway: it is then an LDL' straight away. The LDL' has no pivoting:
    // a zero pivot in the chosen order is an error.
    cholmod_common& c = pt->common;
    c.nmethods = given.empty() ? 0 : 1;  // 0: CHOLMOD's own strategy
    c.method[0].ordering = CHOLMOD_GIVEN;
    c.postorder = 1;  // same fill as the given order, larger supernodes
    c.supernodal = CHOLMOD_AUTO;
    c.final_ll = 0;
    // A matrix that is not positive definite is found as early as it can
    // be: the LDL' starts over anyway.
    c.quick_return_if_not_posdef = 1;
    pt->factor = api::analyze_p(&A, given.empty() ? nullptr : given.data(), nullptr, 0, &c);
    if (pt->factor == nullptr) return error_code<Int>(c.status);
    api::factorize(&A, pt->factor, &c);
    if (c.status == CHOLMOD_NOT_POSDEF && pt->factor->is_super && mtype != real_spd) {
        const Int* order = static_cast<const Int*>(pt->factor->Perm);
        given.assign(order, order + n);
        api::free_factor(&pt->factor, &c);
        c.nmethods = 1;
        c.method[0].ordering = CHOLMOD_GIVEN;
        c.postorder = 0;
        c.supernodal = CHOLMOD_SIMPLICIAL;
        pt->factor = api::analyze_p(&A, given.data(), nullptr, 0, &c);
        if (pt->factor == nullptr) return error_code<Int>(c.status);
        api::factorize(&A, pt->factor, &c);
    }
    if (c.status < CHOLMOD_OK || c.status == CHOLMOD_NOT_POSDEF) {
        pt->release();
        return error_code<Int>(c.status);
    }
    iparm[17] = static_cast<Int>(
        std::min<std::int64_t>(factor_nonzeros(), std::numeric_limits<Int>::max()));
    return 0;
}

template <class Int>
Int pardiso_record<Int>::solve(std::int64_t nrhs, const double* y, double* x) {
    using api = cholmod_api<Int>;
    if (!pt || !pt->factor || nrhs < 0) return -1;
    const std::size_t n = pt->factor->n;
    if (n == 0 || nrhs == 0) return 0;
    const std::size_t cols = static_cast<std::size_t>(nrhs);
    cholmod_dense B{n, cols, n * cols, n, const_cast<double*>(y), nullptr, CHOLMOD_REAL,
                    CHOLMOD_DOUBLE};
    // The solution is written straight into x: CHOLMOD takes a solution
    // matrix of its own shape as it is, and this one has that shape.
    cholmod_dense X{n, cols, n * cols, n, x, nullptr, CHOLMOD_REAL, CHOLMOD_DOUBLE};
    cholmod_dense* result = &X;
    if (!api::solve2(CHOLMOD_A, pt->factor, &B, nullptr, &result, nullptr, &pt->y, &pt->e,
                     &pt->common))
        return pt->common.status < CHOLMOD_OK ? error_code<Int>(pt->common.status) : -5;
    return 0;
}

template <class Int>
Int pardiso_record<Int>::release() {
    if (pt) pt->release();
    return 0;
}

template <class Int>
std::int64_t pardiso_record<Int>::factor_nonzeros() const {
    if (!hasfactor()) return 0;
    const cholmod_factor& L = *pt->factor;
    std::int64_t count = 0;
    if (L.is_super) {
        // Supernode s: a dense trapezoid of ncols columns and nrows rows.
        const Int* super = static_cast<const Int*>(L.super);
        const Int* pi = static_cast<const Int*>(L.pi);
        for (std::size_t s = 0; s < L.nsuper; ++s) {
            const std::int64_t ncols = super[s + 1] - super[s];
            const std::int64_t nrows = pi[s + 1] - pi[s];
            count += ncols * nrows - ncols * (ncols - 1) / 2;
        }
    } else {
        const Int* nz = static_cast<const Int*>(L.nz);
        for (std::size_t j = 0; j < L.n; ++j) count += nz[j];
    }
    return count;
}

template class pardiso_record<std::int32_t>;
template class pardiso_record<std::int64_t>;

pardiso_variable constructor_pardiso_variable(std::optional<std::int32_t> maxfct,
                                              std::optional<std::int32_t> mnum,
                                              std::optional<std::int32_t> mtype,
                                              std::optional<std::int32_t> solver,
                                              std::optional<std::int32_t> msglvl) {
    return pardiso_variable(maxfct, mnum, mtype, solver, msglvl);
}

pardiso_variable_64 constructor_pardiso_variable_64(std::optional<std::int64_t> maxfct,
                                                    std::optional<std::int64_t> mnum,
                                                    std::optional<std::int64_t> mtype,
                                                    std::optional<std::int64_t> solver,
                                                    std::optional<std::int64_t> msglvl) {
    return pardiso_variable_64(maxfct, mnum, mtype, solver, msglvl);
}

namespace {

void check(std::int64_t phase, std::int64_t error, std::ostream* unit) {
    if (error == 0) return;
    sparse_stop(unit ? *unit : std::cout, " The following error for phase " +
                                              std::to_string(phase) + " was detected: " +
                                              std::to_string(error));
}

}  // namespace

void checkpardiso(std::int32_t phase, std::int32_t error, std::ostream* unit) {
    check(phase, error, unit);
}

void checkpardiso_64(std::int64_t phase, std::int64_t error, std::ostream* unit) {
    check(phase, error, unit);
}

namespace {

template <class Int>
void reset_record(pardiso_record<Int>& record) {
    record.iparm.clear();
    record.iparm.shrink_to_fit();
    record.pt.reset();
}

}  // namespace

void reset_pardiso_variable(pardiso_variable& record) { reset_record(record); }

void reset_pardiso_variable(pardiso_variable_64& record) { reset_record(record); }

}  // namespace krel
