#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "util/dense_matrix.h"
#include "util/modmatop.h"

namespace krel {
namespace {

dmatrix from_rows(const std::vector<std::vector<double>>& rows) {
    const auto n = static_cast<dmatrix::index_type>(rows.size());
    const auto m = static_cast<dmatrix::index_type>(rows.front().size());
    dmatrix a(n, m);
    for (dmatrix::index_type i = 1; i <= n; ++i)
        for (dmatrix::index_type j = 1; j <= m; ++j) a(i, j) = rows[i - 1][j - 1];
    return a;
}

dmatrix multiply(const dmatrix& a, const dmatrix& b) {
    dmatrix c(a.rows(), b.cols());
    for (dmatrix::index_type j = 1; j <= b.cols(); ++j)
        for (dmatrix::index_type k = 1; k <= a.cols(); ++k) {
            const double bkj = b(k, j);
            for (dmatrix::index_type i = 1; i <= a.rows(); ++i) c(i, j) += a(i, k) * bkj;
        }
    return c;
}

double max_abs_diff(const dmatrix& a, const dmatrix& b) {
    double d = 0.0;
    for (std::size_t k = 0; k < a.size(); ++k)
        d = std::max(d, std::abs(a.data()[k] - b.data()[k]));
    return d;
}

dmatrix identity(dmatrix::index_type n) {
    dmatrix e(n, n);
    for (dmatrix::index_type i = 1; i <= n; ++i) e(i, i) = 1.0;
    return e;
}

// B B' + n I: well conditioned, different for every seed.
dmatrix random_spd(dmatrix::index_type n, unsigned seed) {
    std::mt19937_64 gen(seed);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    dmatrix b(n, n);
    for (std::size_t k = 0; k < b.size(); ++k) b.data()[k] = u(gen);
    dmatrix a(n, n);
    for (dmatrix::index_type j = 1; j <= n; ++j)
        for (dmatrix::index_type i = 1; i <= n; ++i) {
            double s = 0.0;
            for (dmatrix::index_type k = 1; k <= n; ++k) s += b(i, k) * b(j, k);
            a(i, j) = s;
        }
    for (dmatrix::index_type i = 1; i <= n; ++i) a(i, i) += static_cast<double>(n);
    return a;
}

// Poisons the strict upper triangle, which the routines must not read.
void poison_upper(dmatrix& a) {
    for (dmatrix::index_type j = 2; j <= a.cols(); ++j)
        for (dmatrix::index_type i = 1; i < j; ++i) a(i, j) = std::numeric_limits<double>::quiet_NaN();
}

void expect_symmetric(const dmatrix& a) {
    for (dmatrix::index_type j = 1; j <= a.cols(); ++j)
        for (dmatrix::index_type i = 1; i < j; ++i) ASSERT_EQ(a(i, j), a(j, i)) << i << "," << j;
}

// ---------------------------------------------------------------- ginv1

const std::vector<std::vector<double>> tridiagonal = {{2, -1, 0}, {-1, 2, -1}, {0, -1, 2}};
const std::vector<std::vector<double>> tridiagonal_inverse = {
    {0.75, 0.5, 0.25}, {0.5, 1.0, 0.5}, {0.25, 0.5, 0.75}};

TEST(Ginv1, FullRankGivesTheInverse) {
    dmatrix t = from_rows(tridiagonal);
    std::int32_t rank = -1;
    ginv1(t, 3, ginv1_default_tol, rank);
    EXPECT_EQ(rank, 3);
    EXPECT_LT(max_abs_diff(t, from_rows(tridiagonal_inverse)), 1e-15);

    const dmatrix a = from_rows(
        {{4, 1, 0.5, 0.2}, {1, 3, 0.3, 0.1}, {0.5, 0.3, 2, 0.4}, {0.2, 0.1, 0.4, 1.5}});
    dmatrix g = a;
    poison_upper(g);
    ginv1(g, 4, ginv1_default_tol, rank);
    EXPECT_EQ(rank, 4);
    expect_symmetric(g);
    EXPECT_LT(max_abs_diff(multiply(a, g), identity(4)), 1e-12);
}

TEST(Ginv1, DuplicateRowDropsTheSecondOfThePair) {
    // Row and column 3 repeat row and column 2; the rest is SPD.
    const dmatrix a = from_rows(
        {{4, 1, 1, 0.5}, {1, 3, 3, 0.2}, {1, 3, 3, 0.2}, {0.5, 0.2, 0.2, 2}});
    dmatrix g = a;
    std::int32_t rank = -1;
    ginv1(g, 4, ginv1_default_tol, rank);
    EXPECT_EQ(rank, 3);
    for (dmatrix::index_type k = 1; k <= 4; ++k) {
        EXPECT_EQ(g(3, k), 0.0) << k;
        EXPECT_EQ(g(k, 3), 0.0) << k;
    }
    EXPECT_NE(g(2, 2), 0.0);
    expect_symmetric(g);
    EXPECT_LT(max_abs_diff(multiply(multiply(a, g), a), a), 1e-12);

    // The kept part is the ordinary inverse of the kept submatrix.
    const std::vector<int> kept = {1, 2, 4};
    dmatrix b(3, 3), gk(3, 3);
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) {
            b(i + 1, j + 1) = a(kept[i], kept[j]);
            gk(i + 1, j + 1) = g(kept[i], kept[j]);
        }
    EXPECT_LT(max_abs_diff(multiply(b, gk), identity(3)), 1e-12);
}

TEST(Ginv1, RepeatedRowsOfALargerMatrixAreDropped) {
    // A 24 x 24 matrix built from a 20 x 20 SPD one by repeating four of its
    // rows and columns; each copy comes after its original.
    const dmatrix base = random_spd(20, 4321u);
    std::vector<int> source;  // row of base behind each row of a
    for (int k = 1; k <= 20; ++k) {
        source.push_back(k);
        if (k == 1 || k == 7 || k == 8 || k == 19) source.push_back(k);
    }
    const auto n = static_cast<dmatrix::index_type>(source.size());
    dmatrix a(n, n);
    for (dmatrix::index_type j = 1; j <= n; ++j)
        for (dmatrix::index_type i = 1; i <= n; ++i) a(i, j) = base(source[i - 1], source[j - 1]);

    dmatrix g = a;
    std::int32_t rank = -1;
    ginv1(g, static_cast<std::int32_t>(n), ginv1_default_tol, rank);
    EXPECT_EQ(rank, 20);
    expect_symmetric(g);
    dmatrix kept(20, 20);
    for (dmatrix::index_type i = 1; i <= n; ++i) {
        const bool copy = i > 1 && source[i - 1] == source[i - 2];
        for (dmatrix::index_type j = 1; j <= n; ++j) {
            if (copy) {
                ASSERT_EQ(g(i, j), 0.0) << i << "," << j;
                ASSERT_EQ(g(j, i), 0.0) << i << "," << j;
            } else if (j == 1 || source[j - 1] != source[j - 2]) {
                kept(source[i - 1], source[j - 1]) = g(i, j);
            }
        }
    }
    EXPECT_LT(max_abs_diff(multiply(base, kept), identity(20)), 1e-12);
    EXPECT_LT(max_abs_diff(multiply(multiply(a, g), a), a), 1e-11);
}

TEST(Ginv1, EmptyAndScalarCases) {
    std::int32_t rank = -1;
    double sentinel = 42.0;
    ginv1(&sentinel, 0, 1, ginv1_default_tol, rank);
    EXPECT_EQ(rank, 0);
    EXPECT_EQ(sentinel, 42.0);

    double x = 4.0;
    ginv1(&x, 1, 1, ginv1_default_tol, rank);
    EXPECT_EQ(rank, 1);
    EXPECT_EQ(x, 0.25);

    double tiny = 1e-09;
    ginv1(&tiny, 1, 1, ginv1_default_tol, rank);
    EXPECT_EQ(rank, 0);
    EXPECT_EQ(tiny, 0.0);

    // A negative pivot is below any positive working zero.
    dmatrix d = from_rows({{2, 0}, {0, -3}});
    ginv1(d, 2, ginv1_default_tol, rank);
    EXPECT_EQ(rank, 1);
    EXPECT_EQ(d(1, 1), 0.5);
    EXPECT_EQ(d(2, 2), 0.0);
}

TEST(Ginv1, WorksOnTheLeadingBlockOfALargerMatrix) {
    dmatrix a(5, 5);
    for (dmatrix::index_type j = 1; j <= 5; ++j)
        for (dmatrix::index_type i = 1; i <= 5; ++i) a(i, j) = 100.0 + 10.0 * i + j;
    for (int i = 1; i <= 3; ++i)
        for (int j = 1; j <= 3; ++j) a(i, j) = tridiagonal[i - 1][j - 1];
    const dmatrix before = a;
    std::int32_t rank = -1;
    ginv1(a.data(), 3, 5, ginv1_default_tol, rank);
    EXPECT_EQ(rank, 3);
    for (dmatrix::index_type j = 1; j <= 5; ++j)
        for (dmatrix::index_type i = 1; i <= 5; ++i) {
            if (i <= 3 && j <= 3)
                EXPECT_NEAR(a(i, j), tridiagonal_inverse[i - 1][j - 1], 1e-15) << i << "," << j;
            else
                EXPECT_EQ(a(i, j), before(i, j)) << i << "," << j;
        }
}

// ---------------------------------------------------------------- invsym

TEST(Invsym, ReferenceGivesAKnownInverse) {
    dmatrix t = from_rows(tridiagonal);
    poison_upper(t);
    invsym_reference(t);
    EXPECT_LT(max_abs_diff(t, from_rows(tridiagonal_inverse)), 1e-15);
}

TEST(Invsym, AgreesWithReferenceOnRandomSpdMatrices) {
    for (const dmatrix::index_type n : {1, 7, 300}) {
        SCOPED_TRACE(n);
        const dmatrix a = random_spd(n, 1234u + static_cast<unsigned>(n));
        dmatrix inv = a;
        poison_upper(inv);
        invsym(inv);
        expect_symmetric(inv);
        EXPECT_LT(max_abs_diff(multiply(a, inv), identity(n)), 1e-12);

        dmatrix ref = a;
        invsym_reference(ref);
        EXPECT_LT(max_abs_diff(inv, ref), 1e-13);
    }
}

TEST(Invsym, LeavesElementsOutsideTheBlockAlone) {
    const dmatrix a = random_spd(7, 99u);
    dmatrix big(9, 9, -5.0);
    for (dmatrix::index_type j = 1; j <= 7; ++j)
        for (dmatrix::index_type i = 1; i <= 7; ++i) big(i, j) = a(i, j);
    invsym(big.data(), 7, 9);
    dmatrix inv(7, 7);
    for (dmatrix::index_type j = 1; j <= 9; ++j)
        for (dmatrix::index_type i = 1; i <= 9; ++i) {
            if (i <= 7 && j <= 7)
                inv(i, j) = big(i, j);
            else
                EXPECT_EQ(big(i, j), -5.0) << i << "," << j;
        }
    expect_symmetric(inv);
    EXPECT_LT(max_abs_diff(multiply(a, inv), identity(7)), 1e-12);
}

// ---------------------------------------------------------------- chols8

TEST(Chols8, FactorOfSpdMatrixReproducesIt) {
    const dmatrix a = random_spd(6, 7u);
    dmatrix l = a;
    poison_upper(l);
    chols8(l);
    expect_symmetric(l);  // L below, L' above
    dmatrix lower(6, 6), upper(6, 6);
    for (dmatrix::index_type j = 1; j <= 6; ++j) {
        EXPECT_GT(l(j, j), 0.0);
        for (dmatrix::index_type i = j; i <= 6; ++i) {
            lower(i, j) = l(i, j);
            upper(j, i) = l(i, j);
        }
    }
    EXPECT_LT(max_abs_diff(multiply(lower, upper), a), 1e-12);
}

TEST(Chols8, PivotBelowRelativeLimitIsExactlyZero) {
    // Row 2 is row 1 plus 1e-12 on the diagonal: the remaining pivot 1e-12 is
    // below 1e-10 times the diagonal and must not become a root of 1e-6.
    dmatrix a = from_rows({{1, 1, 0.5}, {1, 1 + 1e-12, 0.5}, {0.5, 0.5, 2}});
    chols8(a);
    for (dmatrix::index_type k = 1; k <= 3; ++k) {
        EXPECT_EQ(a(2, k), 0.0) << k;
        EXPECT_EQ(a(k, 2), 0.0) << k;
    }
    EXPECT_EQ(a(1, 1), 1.0);
    EXPECT_EQ(a(3, 1), 0.5);
    EXPECT_EQ(a(1, 3), 0.5);
    EXPECT_DOUBLE_EQ(a(3, 3), std::sqrt(2.0 - 0.25));
}

TEST(Chols8, TinyDiagonalZeroesRowAndColumn) {
    // Diagonal 2 is below 1e-08 although its remaining pivot is positive.
    dmatrix a = from_rows({{4, 1e-5, 2}, {1e-5, 5e-9, 0.3}, {2, 0.3, 10}});
    chols8(a);
    for (dmatrix::index_type k = 1; k <= 3; ++k) {
        EXPECT_EQ(a(2, k), 0.0) << k;
        EXPECT_EQ(a(k, 2), 0.0) << k;
    }
    EXPECT_EQ(a(1, 1), 2.0);
    EXPECT_EQ(a(3, 1), 1.0);
    EXPECT_EQ(a(1, 3), 1.0);
    EXPECT_DOUBLE_EQ(a(3, 3), 3.0);  // sqrt(10 - 1), the zeroed row adds nothing
}

// ---------------------------------------------------------------- ispositive

TEST(Ispositive, DecidesOnTheSmallestEigenvalue) {
    const dmatrix spd = random_spd(5, 3u);
    EXPECT_TRUE(ispositive(spd, 5));

    const dmatrix singular = from_rows({{1, 1}, {1, 1}});  // eigenvalues 0 and 2
    EXPECT_FALSE(ispositive(singular, 2));
    EXPECT_TRUE(ispositive(singular, 2, -1e-12));

    const dmatrix indefinite = from_rows({{1, 2}, {2, 1}});  // -1 and 3
    EXPECT_FALSE(ispositive(indefinite, 2, -1e-12));
}

TEST(Ispositive, UsesOnlyTheLeadingBlockAndKeepsTheMatrix) {
    dmatrix a = from_rows({{2, 1, 5}, {1, 2, 5}, {5, 5, 1}});
    const dmatrix before = a;
    EXPECT_TRUE(ispositive(a, 2));
    EXPECT_FALSE(ispositive(a, 3));
    EXPECT_EQ(max_abs_diff(a, before), 0.0);
}

}  // namespace
}  // namespace krel
