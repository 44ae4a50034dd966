#include <gtest/gtest.h>

#include "util/dense_matrix.h"

namespace krel {
namespace {

// BLAS and LAPACK receive data() directly, so the 1-based subscripts must map
// onto plain column-major storage with leading dimension rows(), and a resize
// must leave zeros, not the old values.
TEST(DenseMatrix, OneBasedSubscriptsAddressColumnMajorStorage) {
    dmatrix a(3, 2, 5.0);
    a.resize(3, 2);
    a(1, 1) = 11;
    a(2, 1) = 21;
    a(3, 1) = 31;
    a(1, 2) = 12;
    a(3, 2) = 32;
    EXPECT_EQ(a.ld(), 3);
    EXPECT_EQ(std::vector<double>(a.data(), a.data() + a.size()), (std::vector<double>{11, 21, 31, 12, 0, 32}));
    EXPECT_EQ(a.column(2)[2], 32);
    EXPECT_THROW(a.resize(-1, 2), std::length_error);
}

}  // namespace
}  // namespace krel
