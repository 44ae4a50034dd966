#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

#include "util/part_array.h"

namespace krel {
namespace {

TEST(PartArray, IndexedByTheBoundsZeroedAndSizedWithoutOverflow) {
    partarray_type p;
    p.initbounds_scal(-3, 9);
    p.initarray_scal();
    ASSERT_EQ(p.array.size(), 13u);
    p(-3) = 1.5;
    p(9) = -2.0;
    EXPECT_EQ(p.array.front(), 1.5);
    EXPECT_EQ(p.array.back(), -2.0);
    p.initarray_scal();  // starts afresh
    EXPECT_EQ(p(-3), 0.0);
    // The whole 32-bit range, counted without overflow and not allocated.
    p.initbounds_scal(std::numeric_limits<std::int32_t>::min(), std::numeric_limits<std::int32_t>::max());
    EXPECT_EQ(p.size(), std::size_t{1} << 32);
    EXPECT_DOUBLE_EQ(p.memory(), 32768.0);
    p.initbounds_scal(1, 0);
    EXPECT_EQ(p.size(), 0u);
}

}  // namespace
}  // namespace krel
