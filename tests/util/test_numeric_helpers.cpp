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
    std::vector<std::int64_t> small{3, 1, 3, 2, 1, 3};
    EXPECT_EQ(sort_index(small), (std::vector<std::int64_t>{1, 4, 3, 0, 2, 5}));
    EXPECT_EQ(small, (std::vector<std::int64_t>{1, 1, 2, 3, 3, 3}));
    std::vector<std::int64_t> none;
    EXPECT_TRUE(sort_index(none).empty());

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
    EXPECT_DOUBLE_EQ(mean(one), 3.0);
    EXPECT_TRUE(std::isnan(var(one)));
    EXPECT_TRUE(std::isnan(var(none)));
    EXPECT_TRUE(std::isnan(mean(none)));
}

TEST(Matrices, DiagAndIdentityAreColumnMajor) {
    const std::vector<double> v{1.0, 2.0, 3.0};
    EXPECT_EQ(diag(v), (std::vector<double>{1, 0, 0, 0, 2, 0, 0, 0, 3}));
    const std::vector<double> a{1, 2, 3, 4, 5, 6};  // 2 x 3: columns (1,2) (3,4) (5,6)
    EXPECT_EQ(diag(a, 2, 3), (std::vector<double>{1, 4}));
    EXPECT_EQ(diag(a, 3, 2), (std::vector<double>{1, 5}));
    EXPECT_THROW(diag(a, 2, 2), std::invalid_argument);
    EXPECT_EQ(eye(3), diag(std::vector<double>{1, 1, 1}));
    EXPECT_TRUE(eye(0).empty());

    dmatrix m(2, 5, 7.0);  // reshaped and cleared, not merely overwritten
    diag(v, m);
    ASSERT_EQ(m.rows(), 3);
    ASSERT_EQ(m.cols(), 3);
    EXPECT_EQ(std::vector<double>(m.data(), m.data() + m.size()), diag(v));
    dmatrix r(3, 2, 9.0);
    r(1, 1) = 1.0;
    r(2, 2) = 4.0;
    EXPECT_EQ(diag(r), (std::vector<double>{1.0, 4.0}));
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
    EXPECT_FALSE(ec);
    EXPECT_TRUE(make_directory_all(dir / "x", ec));  // already there
    EXPECT_FALSE(ec);
    dir.write("f", "x");
    for (const std::filesystem::path& bad : {dir / "f", dir / "f" / "g", std::filesystem::path()}) {
        ec.clear();
        EXPECT_FALSE(make_directory_all(bad, ec)) << bad;
        EXPECT_TRUE(ec) << bad;
    }
}

TEST(Text, LowerCaseAndTrim) {
    EXPECT_EQ(to_lower("AbC-Z09_[@"), "abc-z09_[@");
    EXPECT_EQ(to_lower("\xC3\x84X"), "\xC3\x84x");  // UTF-8 bytes left alone
    EXPECT_EQ(trim(" \t a b \r\n"), "a b");
    EXPECT_EQ(trim("   "), "");
}

}  // namespace
}  // namespace krel
