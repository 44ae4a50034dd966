#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <filesystem>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include <quadmath.h>

#include "test_support.h"
#include "util/dense_matrix.h"
#include "util/numeric_helpers.h"

namespace krel {
namespace {

TEST(SortIndex, StableAndMapsSortedToOriginalPositions) {
    std::mt19937_64 gen(42);
    std::uniform_int_distribution<std::int64_t> dist(-50, 50);  // many ties
    std::vector<std::int64_t> keys(5000);
    for (auto& k : keys) k = dist(gen);
    keys.push_back(INT64_MIN);
    keys.push_back(INT64_MAX);
    const std::vector<std::int64_t> original = keys;
    const std::vector<std::int64_t> index = sort_index(keys);
    ASSERT_EQ(index.size(), keys.size());
    for (std::size_t k = 0; k < keys.size(); ++k) {
        ASSERT_EQ(keys[k], original[static_cast<std::size_t>(index[k])]) << k;
        if (k == 0) continue;
        ASSERT_LE(keys[k - 1], keys[k]) << k;
        if (keys[k - 1] == keys[k]) {
            ASSERT_LT(index[k - 1], index[k]) << k;
        }
    }
}

TEST(Statistics, MeanAndVarianceWithDivisorNMinusOne) {
    const std::vector<double> x{1.0, 2.0, 3.0, 4.0};
    EXPECT_DOUBLE_EQ(mean(x), 2.5);
    EXPECT_DOUBLE_EQ(var(x), 5.0 / 3.0);  // not the population 1.25
    // The sum-of-squares shortcut loses every digit here.
    EXPECT_DOUBLE_EQ(var(std::vector<double>{1.0e9 + 1.0, 1.0e9 + 2.0, 1.0e9 + 3.0}), 1.0);
    const std::vector<double> one{3.0}, none;
    EXPECT_TRUE(std::isnan(var(one)));
    EXPECT_TRUE(std::isnan(var(none)));
    EXPECT_TRUE(std::isnan(mean(none)));
}

TEST(Matrices, DiagOfRectangularColumnMajorMatrices) {
    const std::vector<double> a{1, 2, 3, 4, 5, 6};  // 2 x 3: columns (1,2) (3,4) (5,6)
    EXPECT_EQ(diag(a, 2, 3), (std::vector<double>{1, 4}));
    EXPECT_EQ(diag(a, 3, 2), (std::vector<double>{1, 5}));
    EXPECT_THROW(diag(a, 2, 2), std::invalid_argument);
    dmatrix m(2, 5, 7.0);  // reshaped and cleared, not merely overwritten
    diag(std::vector<double>{1.0, 2.0, 3.0}, m);
    EXPECT_EQ(std::vector<double>(m.data(), m.data() + m.size()), (std::vector<double>{1, 0, 0, 0, 2, 0, 0, 0, 3}));
}

TEST(CdfNorm, CentreTailsSymmetryAndScale) {
    EXPECT_TRUE(cdf_norm(0) == 0.5Q);
    // Phi(-40) = 3.6558935409150297e-350: far below the double range.
    EXPECT_NEAR(static_cast<double>(cdf_norm(-40) * 1.0e350Q), 3.6558935409150297, 1e-12);
    EXPECT_NEAR(static_cast<double>(cdf_norm(1.96Q)), 0.9750021048517795, 1e-16);
    for (__float128 x : {0.1Q, 1.96Q, 12.5Q})
        EXPECT_TRUE(fabsq(cdf_norm(x) + cdf_norm(-x) - 1) < 1.0e-30Q) << static_cast<double>(x);
    // 10 + 2 * 1.5 is one and a half standard deviations above the mean.
    EXPECT_TRUE(fabsq(cdf_norm(13, 10, 2) - cdf_norm(1.5Q)) < 1.0e-32Q);
}

TEST(MakeDirectoryAll, ReportsWhyItFailed) {
    testing::scratch_dir dir;
    std::error_code ec;
    EXPECT_TRUE(make_directory_all(dir / "x" / "y", ec));
    EXPECT_TRUE(make_directory_all(dir / "x", ec));  // already there
    EXPECT_FALSE(ec);
    dir.write("f", "x");
    EXPECT_FALSE(make_directory_all(dir / "f" / "g", ec));
    EXPECT_TRUE(ec);
}

}  // namespace
}  // namespace krel
