#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <random>
#include <stdexcept>
#include <string>
#include <unistd.h>
#include <vector>

#include <quadmath.h>

#include "util/dense_matrix.h"
#include "util/modcommon.h"

namespace krel {
namespace {

TEST(SortIndex, EqualKeysKeepTheirOrder) {
    std::vector<std::int64_t> keys{3, 1, 3, 2, 1, 3};
    const std::vector<std::int64_t> index = sort_index(keys);
    EXPECT_EQ(keys, (std::vector<std::int64_t>{1, 1, 2, 3, 3, 3}));
    EXPECT_EQ(index, (std::vector<std::int64_t>{1, 4, 3, 0, 2, 5}));
}

TEST(SortIndex, IndexMapsSortedToOriginalPositions) {
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
        ASSERT_EQ(keys[k], original[static_cast<std::size_t>(index[k])]);
        if (k > 0) {
            ASSERT_LE(keys[k - 1], keys[k]);
            if (keys[k - 1] == keys[k]) {
                ASSERT_LT(index[k - 1], index[k]);
            }
        }
    }
    EXPECT_EQ(keys.front(), INT64_MIN);
    EXPECT_EQ(keys.back(), INT64_MAX);
}

TEST(SortIndex, EmptyInput) {
    std::vector<std::int64_t> keys;
    EXPECT_TRUE(sort_index(keys).empty());
}

TEST(Statistics, MeanAndVarianceWithDivisorNMinusOne) {
    const std::vector<double> x{1.0, 2.0, 3.0, 4.0};
    EXPECT_DOUBLE_EQ(mean(x), 2.5);
    EXPECT_DOUBLE_EQ(var(x), 5.0 / 3.0);  // not the population 1.25
    const std::vector<double> two{-1.0, 1.0};
    EXPECT_DOUBLE_EQ(var(two), 2.0);
}

TEST(Statistics, VarianceFarFromZero) {
    // The sum-of-squares shortcut loses every digit here.
    const std::vector<double> x{1.0e9 + 1.0, 1.0e9 + 2.0, 1.0e9 + 3.0};
    EXPECT_DOUBLE_EQ(var(x), 1.0);
}

TEST(Statistics, UndefinedForTooFewValues) {
    const std::vector<double> one{3.0};
    const std::vector<double> none;
    EXPECT_DOUBLE_EQ(mean(one), 3.0);
    EXPECT_TRUE(std::isnan(var(one)));
    EXPECT_TRUE(std::isnan(var(none)));
    EXPECT_TRUE(std::isnan(mean(none)));
}

TEST(Matrices, DiagBuildsAndExtractsColumnMajor) {
    const std::vector<double> v{1.0, 2.0, 3.0};
    EXPECT_EQ(diag(v), (std::vector<double>{1, 0, 0, 0, 2, 0, 0, 0, 3}));
    // 2 x 3, column-major: columns (1,2) (3,4) (5,6).
    const std::vector<double> a{1, 2, 3, 4, 5, 6};
    EXPECT_EQ(diag(a, 2, 3), (std::vector<double>{1, 4}));
    EXPECT_EQ(diag(a, 3, 2), (std::vector<double>{1, 5}));
    EXPECT_EQ(diag(diag(v), 3, 3), v);
    EXPECT_THROW(diag(a, 2, 2), std::invalid_argument);
    EXPECT_TRUE(diag(std::vector<double>{}).empty());
}

TEST(Matrices, DiagOfTheDenseMatrix) {
    const std::vector<double> v{1.0, 2.0, 3.0};
    dmatrix a(2, 5, 7.0);  // reshaped and cleared, not merely overwritten
    diag(v, a);
    ASSERT_EQ(a.rows(), 3);
    ASSERT_EQ(a.cols(), 3);
    EXPECT_EQ(std::vector<double>(a.data(), a.data() + a.size()), diag(v));
    EXPECT_EQ(diag(a), v);

    dmatrix r(3, 2);
    r(1, 1) = 1.0;
    r(2, 2) = 4.0;
    r(2, 1) = 9.0;
    EXPECT_EQ(diag(r), (std::vector<double>{1.0, 4.0}));
    EXPECT_TRUE(diag(dmatrix()).empty());
}

TEST(Matrices, Identity) {
    EXPECT_EQ(eye(3), (std::vector<double>{1, 0, 0, 0, 1, 0, 0, 0, 1}));
    EXPECT_EQ(eye(1), (std::vector<double>{1}));
    EXPECT_TRUE(eye(0).empty());
}

TEST(CdfNorm, CentreTailsAndSymmetry) {
    EXPECT_TRUE(cdf_norm(0) == 0.5Q);
    EXPECT_TRUE(cdf_norm(3, 3, 7) == 0.5Q);

    // Phi(-40) = 3.6558935409150297e-350: far below the double range.
    const __float128 tail = cdf_norm(-40);
    EXPECT_TRUE(tail > 0);
    EXPECT_NEAR(static_cast<double>(tail * 1.0e350Q), 3.6558935409150297, 1e-12);

    EXPECT_NEAR(static_cast<double>(cdf_norm(1.96Q)), 0.9750021048517795, 1e-16);
    for (__float128 x : {0.1Q, 1.0Q, 1.96Q, 5.0Q, 12.5Q}) {
        const __float128 sum = cdf_norm(x) + cdf_norm(-x);
        EXPECT_TRUE(fabsq(sum - 1) < 1.0e-30Q) << static_cast<double>(x);
    }
}

TEST(CdfNorm, LocationAndScale) {
    // 10 + 2 * 1.5 is one and a half standard deviations above the mean.
    const __float128 d = cdf_norm(13, 10, 2) - cdf_norm(1.5Q);
    EXPECT_TRUE(fabsq(d) < 1.0e-32Q);
    EXPECT_TRUE(cdf_norm(9, 10, 2) < 0.5Q);
}

TEST(MakeDirectoryAll, ReportsWhyItFailed) {
    const std::filesystem::path root =
        std::filesystem::temp_directory_path() / ("krel_mkdir_all_" + std::to_string(::getpid()));
    std::filesystem::remove_all(root);
    std::error_code ec;
    EXPECT_TRUE(make_directory_all(root / "x" / "y", ec));
    EXPECT_FALSE(ec);
    EXPECT_TRUE(make_directory_all(root / "x", ec));  // already there
    EXPECT_FALSE(ec);

    std::ofstream(root / "f") << "x";
    EXPECT_FALSE(make_directory_all(root / "f", ec));
    EXPECT_TRUE(ec);
    EXPECT_FALSE(make_directory_all(root / "f" / "g", ec));
    EXPECT_TRUE(ec);
    EXPECT_FALSE(make_directory_all("", ec));
    EXPECT_TRUE(ec);
    std::filesystem::remove_all(root);
}

TEST(ToLower, AsciiOnly) {
    EXPECT_EQ(to_lower("AbC-Z09_[@"), "abc-z09_[@");
    EXPECT_EQ(to_lower("\xC3\x84X"), "\xC3\x84x");  // UTF-8 bytes left alone
    EXPECT_EQ(to_lower(""), "");
}

}  // namespace
}  // namespace krel
