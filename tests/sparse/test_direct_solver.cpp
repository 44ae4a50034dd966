// The solvers of the sparse matrices: the direct solve of crssparse and
// crssparse64 (factor once, solve many times), the LDL' factor of crssparse
// and the solves on it, and the conjugate gradient.
#include <gtest/gtest.h>

#include <lapack.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <random>
#include <sstream>
#include <type_traits>
#include <vector>

#include "sparse/direct_solver.h"
#include "sparse/sparse_matrix.h"
#include "sparse_test_support.h"
#include "test_support.h"

namespace krel {
namespace {

using namespace krel::testing;

// The upper-stored symmetric matrix of the dense symmetric a, unsorted as a
// conversion leaves it.
template <class CRS>
CRS crs_of(const dmatrix& a, std::ostream& unit) {
    const coosparse coo = coo_of(upper_of(a), true, true);
    CRS crs;
    if constexpr (std::is_same_v<CRS, crssparse>)
        crs = convertfromcootocrs(coo);
    else
        crs = convertfromcootocrs64(coo);
    crs.setoutputunit(&unit);
    return crs;
}

double frobenius(const dmatrix& a) {
    double s = 0.0;
    for (std::size_t k = 0; k < a.size(); ++k) s += a.data()[k] * a.data()[k];
    return std::sqrt(s);
}

// norm(A x - b) / (norm(A) norm(x)).
double relative_residual(const dmatrix& a, const dmatrix& x, const dmatrix& b) {
    return frobenius(dense_product(1.0, 'N', a, x, -1.0, b)) / (frobenius(a) * frobenius(x));
}

// inverse(a) b by LAPACK.
dmatrix dense_solve(dmatrix a, dmatrix b) {
    const lapack_int n = static_cast<lapack_int>(a.rows());
    const lapack_int nrhs = static_cast<lapack_int>(b.cols());
    std::vector<lapack_int> ipiv(static_cast<std::size_t>(n));
    lapack_int info = 0;
    LAPACK_dgesv(&n, &nrhs, a.data(), &n, ipiv.data(), b.data(), &n, &info);
    EXPECT_EQ(info, 0);
    return b;
}

std::vector<std::int32_t> random_order(std::int32_t n, unsigned seed) {
    std::vector<std::int32_t> p(static_cast<std::size_t>(n));
    std::iota(p.begin(), p.end(), 1);
    std::shuffle(p.begin(), p.end(), std::mt19937_64(seed));
    return p;
}

std::span<double> column_span(dmatrix& x) { return {x.data(), x.size()}; }
std::span<const double> column_span(const dmatrix& x) { return {x.data(), x.size()}; }

template <class CRS>
class DirectSolve : public ::testing::Test {};
using CrsWidths = ::testing::Types<crssparse, crssparse64>;
TYPED_TEST_SUITE(DirectSolve, CrsWidths);

// ---------------------------------------------------------------------------
// solve

TYPED_TEST(DirectSolve, SolvesDefiniteAndIndefiniteMatricesInAnyOrder) {
    using CRS = TypeParam;
    struct problem {
        const char* name;
        dmatrix a;
    };
    // The very sparse ones are factored the simplicial way from the start;
    // the others are tried supernodally first, which an indefinite matrix
    // makes fail.
    const std::vector<problem> problems = {
        {"very sparse definite", random_symmetric(300, 0.004, 1, true)},
        {"very sparse indefinite", random_symmetric(300, 0.004, 2, false)},
        {"sparse indefinite", random_symmetric(300, 0.02, 3, false)},
        {"dense definite", random_symmetric(120, 1.0, 4, true)},
        {"dense indefinite", random_symmetric(120, 1.0, 5, false)},
    };
    for (const problem& p : problems) {
        const std::int32_t n = static_cast<std::int32_t>(p.a.rows());
        const dmatrix b = random_block(n, 3, 6);
        for (const char* order : {"own", "given", "given 32-bit"}) {
            if (std::is_same_v<CRS, crssparse> && order == std::string("given 32-bit")) continue;
            SCOPED_TRACE(std::string(p.name) + ", order " + order);
            std::ostringstream unit;
            CRS crs = crs_of<CRS>(p.a, unit);
            const std::vector<std::int32_t> perm = random_order(n, 6);
            if (order == std::string("given")) {
                if constexpr (std::is_same_v<CRS, crssparse>) {
                    crs.setpermutation32(perm);
                } else {
                    crs.setpermutation64(std::vector<std::int64_t>(perm.begin(), perm.end()));
                }
            } else if (order == std::string("given 32-bit")) {
                crs.setpermutation32(perm);
            }
            dmatrix x(n, 3);
            crs.solve(x, b);
            EXPECT_LT(relative_residual(p.a, x, b), 1e-14);
            EXPECT_EQ(crs.getpardiso().iparm[4], order == std::string("own") ? 0 : 1);
            // The vector form with the same factor.
            dmatrix xv(n, 1), bv(n, 1);
            std::copy_n(b.column(2), n, bv.data());
            crs.solve(column_span(xv), column_span(bv));
            EXPECT_LT(relative_residual(p.a, xv, bv), 1e-14);
            EXPECT_TRUE(crs.issorted());
        }
    }
}

TYPED_TEST(DirectSolve, OnlyTheFirstSolveTalksUntilTheFactorIsReset) {
    using CRS = TypeParam;
    // Tridiagonal, in its natural order: the factor has 2n - 1 values.
    const std::int32_t n = 50;
    dmatrix a(n, n);
    for (std::int32_t i = 1; i <= n; ++i) {
        a(i, i) = 4.0;
        if (i < n) a(i, i + 1) = a(i + 1, i) = -1.0;
    }
    std::ostringstream unit;
    CRS crs = crs_of<CRS>(a, unit);
    std::vector<std::int32_t> natural(n);
    std::iota(natural.begin(), natural.end(), 1);
    crs.setpermutation32(natural);
    crs.reset_pardiso_memory();  // before any solve: nothing to free, nothing said
    EXPECT_EQ(unit.str(), "");

    const dmatrix b = random_block(n, 1, 7);
    dmatrix x(n, 1), x2(n, 1);
    crs.solve(column_span(x), column_span(b), 1);
    EXPECT_EQ(unit.str().rfind(" Start ordering and factorization\n", 0), 0u) << unit.str();
    EXPECT_TRUE(contains(unit.str(), " Number of nonzeros in factors  = " + std::to_string(2 * n - 1) + "\n"));
    unit.str({});
    crs.solve(column_span(x2), column_span(b), 1);
    EXPECT_EQ(unit.str(), "");
    EXPECT_EQ(max_abs_diff(x, x2), 0.0);

    // Changed values go unnoticed until the factor is reset.
    crs.scale(2.0);
    crs.solve(column_span(x2), column_span(b));
    EXPECT_EQ(max_abs_diff(x, x2), 0.0);
    crs.reset_pardiso_memory();
    EXPECT_FALSE(crs.getpardiso().hasmemory());
    crs.solve(column_span(x2), column_span(b));
    EXPECT_TRUE(contains(unit.str(), " Start ordering and factorization\n"));
    for (std::int32_t i = 1; i <= n; ++i) EXPECT_NEAR(x2(i, 1), 0.5 * x(i, 1), 1e-15);

    // A copy holds no factor: it factors at its own first solve, and the
    // original keeps its factor.
    unit.str({});
    CRS copy = crs;
    copy.solve(column_span(x2), column_span(b));
    EXPECT_TRUE(contains(unit.str(), " Start ordering and factorization\n"));
    unit.str({});
    crs.solve(column_span(x2), column_span(b));
    EXPECT_EQ(unit.str(), "");
}

TYPED_TEST(DirectSolve, ArgumentsAreCheckedBeforeAnyFactorisation) {
    using CRS = TypeParam;
    const dmatrix a = random_symmetric(20, 0.2, 8, true);
    std::ostringstream unit;
    CRS crs = crs_of<CRS>(a, unit);
    dmatrix x(20, 2), y(20, 3);
    EXPECT_EQ(stop_message(unit, [&] { crs.solve(x, y); }),
              " ERROR: the number of colums of x and y provided to solve are different!\n");
    dmatrix short_x(19, 3);
    EXPECT_EQ(stop_message(unit, [&] { crs.solve(short_x, y); }),
              " ERROR: one of multiple arguments are not conform\n");
    EXPECT_FALSE(crs.getpardiso().hasmemory());

    // Not square: a warning, and x as it was.
    const coosparse rect = coo_of(random_dense(4, 6, 0.5, 9), false, false);
    CRS r;
    if constexpr (std::is_same_v<CRS, crssparse>)
        r = convertfromcootocrs(rect);
    else
        r = convertfromcootocrs64(rect);
    r.setoutputunit(&unit);
    unit.str({});
    dmatrix rx(4, 2, 7.0), ry(4, 3, 1.0);
    r.solve(rx, ry);
    EXPECT_EQ(unit.str(), " Warning: the sparse matrix is not squared!\n");
    EXPECT_EQ(max_abs_diff(rx, dmatrix(4, 2, 7.0)), 0.0);
}

TYPED_TEST(DirectSolve, SolverFailuresStopWithTheirPhaseAndCode) {
    using CRS = TypeParam;
    // A zero row: no pivot in either factorisation.
    dmatrix a = random_symmetric(30, 0.2, 10, false);
    for (std::int32_t j = 1; j <= 30; ++j) a(7, j) = a(j, 7) = 0.0;
    std::ostringstream unit;
    CRS singular = crs_of<CRS>(a, unit);
    std::vector<double> x(30), y(30, 1.0);
    EXPECT_TRUE(contains(stop_message(unit, [&] { singular.solve(x, y); }),
                         " The following error for phase 12 was detected: -4\n"));

    // A permutation that is none.
    CRS badperm = crs_of<CRS>(random_symmetric(30, 0.2, 11, true), unit);
    std::vector<std::int32_t> perm = random_order(30, 12);
    perm[3] = perm[4];
    badperm.setpermutation32(perm);
    EXPECT_TRUE(contains(stop_message(unit, [&] { badperm.solve(x, y); }),
                         " The following error for phase 12 was detected: -1\n"));
    // The failed factorisation left nothing to reuse: a valid order later
    // factors afresh.
    std::iota(perm.begin(), perm.end(), 1);
    badperm.setpermutation32(perm);
    unit.str({});
    badperm.solve(x, y);
    EXPECT_TRUE(contains(unit.str(), " Start ordering and factorization\n"));
}

TEST(Checkpardiso, StopsOnAnErrorWithPhaseAndCode) {
    std::ostringstream unit;
    checkpardiso(33, 0, &unit);
    EXPECT_EQ(unit.str(), "");
    EXPECT_EQ(stop_message(unit, [&] { checkpardiso_64(33, -8, &unit); }),
              " The following error for phase 33 was detected: -8\n");
}

TEST(Pardisovariable, PositiveDefiniteTypeRefusesAnIndefiniteMatrix) {
    // mtype 2 takes no LDL' as a second try.
    const dmatrix a = random_symmetric(120, 1.0, 13, false);
    std::ostringstream unit;
    crssparse crs = crs_of<crssparse>(a, unit);
    crs.sort();
    const auto ia = crs.rowptr();
    for (const std::int32_t mtype : {2, -2}) {
        pardiso_variable record(std::nullopt, std::nullopt, mtype);
        record.init();
        EXPECT_EQ(record.factorize(ia, crs.colval(), crs.nzval(), {}), mtype == 2 ? -4 : 0);
        EXPECT_EQ(record.hasfactor(), mtype == -2);
        EXPECT_EQ(record.factor_nonzeros(), mtype == 2 ? 0 : 120 * 121 / 2);
        reset_pardiso_variable(record);
        EXPECT_FALSE(record.hasmemory());
    }
}

// ---------------------------------------------------------------------------
// LDL' factor and the solves on the stored factors

// The matrix in the order of perm.
dmatrix permuted(const dmatrix& a, const std::vector<std::int32_t>& perm) {
    const auto n = a.rows();
    dmatrix p(n, n);
    for (dmatrix::index_type i = 1; i <= n; ++i)
        for (dmatrix::index_type j = 1; j <= n; ++j) p(i, j) = a(perm[i - 1], perm[j - 1]);
    return p;
}

TEST(Getldlt, UnitFactorAndDiagonalGiveThePermutedMatrix) {
    const std::int32_t n = 80;
    const dmatrix a = random_symmetric(n, 0.05, 14, true);
    std::ostringstream unit;
    crssparse crs = crs_of<crssparse>(a, unit);
    {
        cout_capture quiet;
        crs.getldlt();
        crs.getldlt();  // in that form already
    }
    std::vector<std::int32_t> perm;
    crs.getpermutation32(perm);
    const dmatrix f = dense_of(crs);
    dmatrix u(n, n), du(n, n);
    for (std::int32_t i = 1; i <= n; ++i)
        for (std::int32_t j = i; j <= n; ++j) {
            u(i, j) = i == j ? 1.0 : f(i, j);
            du(i, j) = f(i, i) * u(i, j);
        }
    EXPECT_LT(max_abs_diff(dense_product(1.0, 'T', u, du, 0.0, dmatrix(n, n)), permuted(a, perm)),
              1e-12);

    // From the factor of getchol, without factoring again.
    crssparse chol = crs_of<crssparse>(a, unit);
    {
        cout_capture quiet;
        chol.getchol();
        unit.str({});
        chol.getldlt();
    }
    EXPECT_EQ(unit.str(), "");
    EXPECT_EQ(max_abs_diff(dense_of(chol), f), 0.0);
}

TEST(FactorSolves, SolvesOnTheFactorsAgreeWithADenseSolve) {
    const std::int32_t n = 60;
    const dmatrix a = random_symmetric(n, 0.1, 15, true);
    const dmatrix y = random_block(n, 4, 16);
    std::ostringstream unit;
    crssparse chol = crs_of<crssparse>(a, unit);
    std::vector<double> x(n);
    EXPECT_EQ(stop_message(unit, [&] { chol.isolve(x, column_span(y)); }),
              " ERROR: the matrix holds no factor to solve with\n");
    crssparse ldlt = chol, direct = chol;
    {
        cout_capture quiet;
        chol.getchol();
        ldlt.getldlt();
    }
    // isolve and solveldlt_s work in the order of the factor.
    std::vector<std::int32_t> perm;
    chol.getpermutation32(perm);
    const dmatrix expected = dense_solve(permuted(a, perm), y);
    chol.isolve(x, column_span(y).first(n));
    for (std::int32_t i = 1; i <= n; ++i) EXPECT_NEAR(x[i - 1], expected(i, 1), 1e-13);
    std::vector<double> in_place(y.data(), y.data() + n);
    ldlt.solveldlt_s(in_place, in_place);
    for (std::int32_t i = 1; i <= n; ++i) EXPECT_NEAR(in_place[i - 1], expected(i, 1), 1e-13);

    // solveldlt factors by itself, says so once, and solves in the original order.
    const dmatrix plain = dense_solve(a, y);
    dmatrix xm(n, 4);
    unit.str({});
    {
        cout_capture quiet;
        direct.solveldlt(xm, y);
    }
    EXPECT_EQ(unit.str().rfind(" Start ordering and factorization\n", 0), 0u) << unit.str();
    EXPECT_LT(max_abs_diff(xm, plain), 1e-13);
    unit.str({});
    direct.solveldlt(x, std::span<const double>(y.column(3), n), 1);
    EXPECT_EQ(unit.str(), "");
    for (std::int32_t i = 1; i <= n; ++i) EXPECT_NEAR(x[i - 1], plain(i, 3), 1e-13);
    dmatrix wrong(n, 3);
    EXPECT_EQ(stop_message(unit, [&] { direct.solveldlt(wrong, y); }),
              " ERROR: the number of colums of x and y provided to solve are different!\n");
}

TEST(Solveldlt, ZeroRowGivesTheSolutionOfTheRest) {
    // The column of the zero row is dropped from the factor, as in a
    // generalised inverse: its element of x is 0, the others solve the rest.
    const std::int32_t n = 40, zero = 11;
    dmatrix a = random_symmetric(n, 0.1, 19, true);
    for (std::int32_t j = 1; j <= n; ++j) a(zero, j) = a(j, zero) = 0.0;
    const dmatrix y = random_block(n, 1, 20);
    const dmatrix expected = dense_product(1.0, 'N', inverse_without(a, zero), y, 0.0, dmatrix(n, 1));
    std::ostringstream unit;
    crssparse crs = crs_of<crssparse>(a, unit);
    std::vector<double> x(n, 1.0);
    {
        cout_capture quiet;
        crs.solveldlt(x, column_span(y));
    }
    EXPECT_EQ(x[zero - 1], 0.0);
    for (std::int32_t i = 1; i <= n; ++i) EXPECT_NEAR(x[i - 1], expected(i, 1), 1e-13);
}

// ---------------------------------------------------------------------------
// Conjugate gradient

TEST(Cg, ReachesTheDirectSolutionFromItsStartingValue) {
    const std::int32_t n = 300;
    const dmatrix a = random_symmetric(n, 0.02, 21, true);
    const dmatrix y = random_block(n, 1, 22);
    std::ostringstream unit;
    crssparse crs = crs_of<crssparse>(a, unit);
    std::vector<double> direct(n);
    crs.solve(direct, column_span(y));

    // Any class, through the base.
    coosparse coo = coo_of(upper_of(a), true, true);
    for (const gen_sparse* m : std::initializer_list<const gen_sparse*>{&crs, &coo}) {
        SCOPED_TRACE(m->getnamemat());
        std::vector<double> x(n, 0.0);
        const cg_result done = m->cg(x, column_span(y), 1e-12);
        EXPECT_LE(done.residual, 1e-12);
        EXPECT_GT(done.iterations, 1);
        EXPECT_LT(done.iterations, 60);
        for (std::int32_t i = 0; i < n; ++i) EXPECT_NEAR(x[i], direct[i], 1e-11);

        // The direct solution is where it starts and stops.
        std::vector<double> start = direct;
        EXPECT_EQ(m->cg(start, column_span(y), 1e-12).iterations, 0);
        EXPECT_EQ(start, direct);

        std::vector<double> few(n, 0.0);
        const cg_result cut = m->cg(few, column_span(y), 1e-12, 3);
        EXPECT_EQ(cut.iterations, 3);
        EXPECT_GT(cut.residual, 1e-12);
    }
}

TEST(Cg, ArgumentsThatDoNotFitStop) {
    std::ostringstream unit;
    crssparse crs = crs_of<crssparse>(random_symmetric(10, 0.3, 23, true), unit);
    std::vector<double> x(10), y(10), shorter(9);
    EXPECT_EQ(stop_message(unit, [&] { crs.cg(shorter, y); }),
              " ERROR: one of multiple arguments are not conform\n");
    crssparse64 wide = crs_of<crssparse64>(random_symmetric(10, 0.3, 23, true), unit);
    EXPECT_EQ(stop_message(unit, [&] { wide.cg(x, y); }),
              " ERROR: cg needs a matrix product, which crssparse64 does not have\n");
}

}  // namespace
}  // namespace krel
