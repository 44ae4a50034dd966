#include <gtest/gtest.h>

#include "util/blas_core.h"

namespace krel {
namespace {

TEST(BlasCore, GenericCoresAreReplacedByTheOneTheCpuCallsFor) {
    EXPECT_EQ(blas_core_to_select("Prescott", "SkylakeX", false, false), "SkylakeX");
    EXPECT_EQ(blas_core_to_select("Nehalem", "Haswell", false, false), "Haswell");
    EXPECT_EQ(blas_core_to_select("Haswell", "SkylakeX", false, false), "SkylakeX");
    EXPECT_EQ(blas_core_to_select("Unknown", "SandyBridge", false, false), "SandyBridge");
}

TEST(BlasCore, TheLibrarysChoiceIsKept) {
    // As good or better already.
    EXPECT_EQ(blas_core_to_select("SkylakeX", "SkylakeX", false, false), "");
    EXPECT_EQ(blas_core_to_select("Cooperlake", "SkylakeX", false, false), "");
    EXPECT_EQ(blas_core_to_select("Zen", "Haswell", false, false), "");
    // The user decides, or opts out.
    EXPECT_EQ(blas_core_to_select("Prescott", "SkylakeX", true, false), "");
    EXPECT_EQ(blas_core_to_select("Prescott", "SkylakeX", false, true), "");
    // A processor without AVX, or a core name the table does not know.
    EXPECT_EQ(blas_core_to_select("Prescott", "", false, false), "");
    EXPECT_EQ(blas_core_to_select("NewCoreName", "SkylakeX", false, false), "");
}

TEST(BlasCore, RanksAreCaseInsensitive) {
    EXPECT_EQ(blas_core_rank("PRESCOTT"), 0);
    EXPECT_EQ(blas_core_rank("skylakex"), 3);
    EXPECT_EQ(blas_core_rank("Haswell"), 2);
    EXPECT_EQ(blas_core_rank("something"), -1);
    EXPECT_FALSE(blas_core_in_use().empty());
}

}  // namespace
}  // namespace krel
