#include <gtest/gtest.h>

#include "util/dense_matrix.h"

namespace krel {
namespace {

// BLAS and LAPACK receive data() directly, so the 1-based subscripts must map
// onto plain column-major storage with leading dimension rows().
TEST(DenseMatrix, OneBasedSubscriptsAddressColumnMajorStorage) {
    dmatrix a(3, 2);
    EXPECT_EQ(a.rows(), 3);
    EXPECT_EQ(a.cols(), 2);
    EXPECT_EQ(a.ld(), 3);
    ASSERT_EQ(a.size(), 6u);
    for (double v : std::vector<double>(a.data(), a.data() + a.size())) EXPECT_EQ(v, 0.0);

    a(1, 1) = 11;
    a(2, 1) = 21;
    a(3, 1) = 31;
    a(1, 2) = 12;
    a(3, 2) = 32;
    const std::vector<double> expected = {11, 21, 31, 12, 0, 32};
    EXPECT_EQ(std::vector<double>(a.data(), a.data() + a.size()), expected);
    EXPECT_EQ(a.column(2), a.data() + 3);
    EXPECT_EQ(a.column(2)[2], 32);
}

TEST(DenseMatrix, ResizeZeroesAndAssignFills) {
    dmatrix a(2, 2, 7.5);
    EXPECT_EQ(a(2, 2), 7.5);
    a.resize(4, 3);
    EXPECT_EQ(a.rows(), 4);
    EXPECT_EQ(a.cols(), 3);
    ASSERT_EQ(a.size(), 12u);
    for (std::size_t k = 0; k < a.size(); ++k) EXPECT_EQ(a.data()[k], 0.0) << k;
    a.assign(-1.0);
    for (std::size_t k = 0; k < a.size(); ++k) EXPECT_EQ(a.data()[k], -1.0) << k;
    a.resize(0, 5);
    EXPECT_TRUE(a.empty());
    EXPECT_THROW(a.resize(-1, 2), std::length_error);
}

}  // namespace
}  // namespace krel
