#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "util/dense_linear_algebra.h"
#include "util/dense_matrix.h"

namespace krel {
namespace {

using idx = dmatrix::index_type;

dmatrix from_rows(const std::vector<std::vector<double>>& rows) {
    dmatrix a(static_cast<idx>(rows.size()), static_cast<idx>(rows.front().size()));
    for (idx i = 1; i <= a.rows(); ++i)
        for (idx j = 1; j <= a.cols(); ++j) a(i, j) = rows[i - 1][j - 1];
    return a;
}

dmatrix multiply(const dmatrix& a, const dmatrix& b) {
    dmatrix c(a.rows(), b.cols());
    for (idx j = 1; j <= b.cols(); ++j)
        for (idx k = 1; k <= a.cols(); ++k)
            for (idx i = 1; i <= a.rows(); ++i) c(i, j) += a(i, k) * b(k, j);
    return c;
}

double max_abs_diff(const dmatrix& a, const dmatrix& b) {
    double d = 0.0;
    for (std::size_t k = 0; k < a.size(); ++k)
        d = std::max(d, std::abs(a.data()[k] - b.data()[k]));
    return d;
}

// A G is the identity outside row and column `dropped` (0: none).
void expect_inverse(const dmatrix& a, const dmatrix& g, idx dropped = 0) {
    const dmatrix ag = multiply(a, g);
    for (idx j = 1; j <= a.rows(); ++j)
        for (idx i = 1; i <= a.rows(); ++i)
            if (i != dropped && j != dropped) {
                ASSERT_NEAR(ag(i, j), i == j ? 1.0 : 0.0, 1e-12) << i << "," << j;
            }
}

// B B' + n I: well conditioned, different for every seed.
dmatrix random_spd(idx n, unsigned seed) {
    std::mt19937_64 gen(seed);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    dmatrix b(n, n), bt(n, n);
    for (idx j = 1; j <= n; ++j)
        for (idx i = 1; i <= n; ++i) b(i, j) = bt(j, i) = u(gen);
    dmatrix a = multiply(b, bt);
    for (idx i = 1; i <= n; ++i) a(i, i) += static_cast<double>(n);
    return a;
}

// The lower triangle of a in the leading block of a matrix with extra rows and
// columns of -5; the strict upper triangle of the block, which the routines
// must not read, is NaN.
dmatrix embed(const dmatrix& a, idx extra) {
    const idx n = a.rows();
    dmatrix big(n + extra, n + extra, -5.0);
    for (idx j = 1; j <= n; ++j)
        for (idx i = 1; i <= n; ++i)
            big(i, j) = i >= j ? a(i, j) : std::numeric_limits<double>::quiet_NaN();
    return big;
}

// The leading n x n block of big, which must be symmetric; the rest must
// still be -5.
dmatrix block(const dmatrix& big, idx n) {
    dmatrix a(n, n);
    for (idx j = 1; j <= big.cols(); ++j)
        for (idx i = 1; i <= big.rows(); ++i) {
            if (i > n || j > n) {
                EXPECT_EQ(big(i, j), -5.0) << i << "," << j;
                continue;
            }
            a(i, j) = big(i, j);
            EXPECT_TRUE(i >= j || big(i, j) == big(j, i)) << i << "," << j;
        }
    return a;
}

void expect_zero_row_and_column(const dmatrix& a, idx r) {
    for (idx k = 1; k <= a.cols(); ++k) {
        EXPECT_EQ(a(r, k), 0.0) << r << "," << k;
        EXPECT_EQ(a(k, r), 0.0) << k << "," << r;
    }
}

TEST(Ginv1, InvertsTheKeptPartOfTheLeadingBlock) {
    const struct {
        std::vector<std::vector<double>> rows;
        idx dropped;  // 0: none
    } cases[] = {
        {{{2, -1, 0}, {-1, 2, -1}, {0, -1, 2}}, 0},
        // Row and column 3 repeat row and column 2: the second of the pair goes.
        {{{4, 1, 1, 0.5}, {1, 3, 3, 0.2}, {1, 3, 3, 0.2}, {0.5, 0.2, 0.2, 2}}, 3},
        // The first pivot is below the working zero although its column is not.
        {{{1e-9, 0.5, 0.25}, {0.5, 2, -1}, {0.25, -1, 2}}, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.dropped);
        const dmatrix a = from_rows(c.rows);
        const idx n = a.rows();
        dmatrix big = embed(a, 2);
        std::int32_t rank = -1;
        ginv1(big, static_cast<std::int32_t>(n), ginv1_default_tol, rank);
        EXPECT_EQ(rank, c.dropped == 0 ? n : n - 1);
        const dmatrix g = block(big, n);
        if (c.dropped != 0) expect_zero_row_and_column(g, c.dropped);
        expect_inverse(a, g, c.dropped);
    }
}

TEST(Ginv1, EmptyScalarAndNegativePivot) {
    // A negative pivot is below any positive working zero.
    const struct {
        std::int32_t n;
        double value, inverse;
        std::int32_t rank;
    } cases[] = {{0, 42.0, 42.0, 0}, {1, 4.0, 0.25, 1}, {1, 1e-09, 0.0, 0}, {1, -3.0, 0.0, 0}};
    for (const auto& c : cases) {
        double x = c.value;
        std::int32_t rank = -1;
        ginv1(&x, c.n, 1, ginv1_default_tol, rank);
        EXPECT_EQ(rank, c.rank) << c.n << " " << c.value;
        EXPECT_EQ(x, c.inverse) << c.n << " " << c.value;
    }
}

TEST(Invsym, AgreesWithReferenceAndLeavesTheRestAlone) {
    for (const idx n : {1, 7, 300}) {
        SCOPED_TRACE(n);
        const dmatrix a = random_spd(n, 1234u + static_cast<unsigned>(n));
        dmatrix big = embed(a, 2);
        invsym(big.data(), static_cast<std::int32_t>(n), static_cast<std::int32_t>(n + 2));
        const dmatrix inv = block(big, n);
        expect_inverse(a, inv);
        dmatrix whole = embed(a, 0), ref = a;
        invsym(whole);
        invsym_reference(ref);
        EXPECT_LT(max_abs_diff(whole, inv), 1e-13);
        EXPECT_LT(max_abs_diff(inv, ref), 1e-13);
    }
}

TEST(Chols8, FactorOfSpdMatrixReproducesIt) {
    const dmatrix a = random_spd(6, 7u);
    dmatrix l = embed(a, 0);
    chols8(l);
    block(l, 6);  // L below, L' above
    dmatrix lower(6, 6), upper(6, 6);
    for (idx j = 1; j <= 6; ++j) {
        EXPECT_GT(l(j, j), 0.0);
        for (idx i = j; i <= 6; ++i) lower(i, j) = upper(j, i) = l(i, j);
    }
    EXPECT_LT(max_abs_diff(multiply(lower, upper), a), 1e-12);
}

TEST(Chols8, DependentOrTinyRowsBecomeExactlyZero) {
    // Row 2 is row 1 plus 1e-12 on the diagonal: the remaining pivot 1e-12 is
    // below 1e-10 times the diagonal and must not become a root of 1e-6.
    dmatrix a = embed(from_rows({{1, 1, 0.5}, {1, 1 + 1e-12, 0.5}, {0.5, 0.5, 2}}), 0);
    chols8(a);
    block(a, 3);  // L below, L' above
    expect_zero_row_and_column(a, 2);
    EXPECT_EQ(a(1, 1), 1.0);
    EXPECT_EQ(a(3, 1), 0.5);
    EXPECT_DOUBLE_EQ(a(3, 3), std::sqrt(2.0 - 0.25));

    // Diagonal 2 is below 1e-08 although its remaining pivot is positive.
    dmatrix b = from_rows({{4, 1e-5, 2}, {1e-5, 5e-9, 0.3}, {2, 0.3, 10}});
    chols8(b);
    expect_zero_row_and_column(b, 2);
    EXPECT_EQ(b(1, 1), 2.0);
    EXPECT_EQ(b(3, 1), 1.0);
    EXPECT_DOUBLE_EQ(b(3, 3), 3.0);  // sqrt(10 - 1), the zeroed row adds nothing
}

TEST(Ispositive, DecidesOnTheSmallestEigenvalueOfTheLeadingBlock) {
    EXPECT_TRUE(ispositive(random_spd(5, 3u), 5));
    const dmatrix singular = from_rows({{1, 1}, {1, 1}});  // eigenvalues 0 and 2
    EXPECT_FALSE(ispositive(singular, 2));
    EXPECT_TRUE(ispositive(singular, 2, -1e-12));
    EXPECT_FALSE(ispositive(from_rows({{1, 2}, {2, 1}}), 2, -1e-12));  // -1 and 3

    dmatrix a = from_rows({{2, 1, 5}, {1, 2, 5}, {5, 5, 1}});
    const dmatrix before = a;
    EXPECT_TRUE(ispositive(a, 2));
    EXPECT_FALSE(ispositive(a, 3));
    EXPECT_EQ(max_abs_diff(a, before), 0.0);
}

}  // namespace
}  // namespace krel
