#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

#include "util/part_array.h"

namespace krel {
namespace {

TEST(PartArray, IndexedByTheBoundsAndZeroed) {
    partarray_type p;
    p.initbounds_scal(5, 9);
    p.initarray_scal();
    ASSERT_EQ(p.array.size(), 5u);
    for (std::int32_t i = 5; i <= 9; ++i) EXPECT_EQ(p(i), 0.0);
    p(5) = 1.5;
    p(9) = -2.0;
    EXPECT_EQ(p.array.front(), 1.5);
    EXPECT_EQ(p.array.back(), -2.0);
    const partarray_type& c = p;
    EXPECT_EQ(c(9), -2.0);

    p.initarray_scal();  // starts afresh
    EXPECT_EQ(p(5), 0.0);

    partarray_type neg;
    neg.initbounds_scal(-3, -1);
    neg.initarray_scal();
    neg(-3) = 4.0;
    EXPECT_EQ(neg.array[0], 4.0);
    EXPECT_EQ(neg.size(), 3u);
}

TEST(PartArray, MemoryInMebibytes) {
    partarray_type p;
    p.initbounds_scal(1, 131072);  // 131072 doubles: one mebibyte
    EXPECT_DOUBLE_EQ(p.memory(), 1.0);
    p.initbounds_scal(0, 0);
    EXPECT_DOUBLE_EQ(p.memory(), 8.0 / 1048576.0);
    p.initbounds_scal(1, 0);
    EXPECT_EQ(p.size(), 0u);
    EXPECT_DOUBLE_EQ(p.memory(), 0.0);
    // The whole 32-bit range, counted without overflow and not allocated.
    p.initbounds_scal(std::numeric_limits<std::int32_t>::min(),
                      std::numeric_limits<std::int32_t>::max());
    EXPECT_EQ(p.size(), std::size_t{1} << 32);
    EXPECT_DOUBLE_EQ(p.memory(), 32768.0);
}

}  // namespace
}  // namespace krel
