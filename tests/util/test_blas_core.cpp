#include <gtest/gtest.h>

#include "util/blas_core.h"

namespace krel {
namespace {

TEST(BlasCore, GenericCoresAreReplacedAndBetterOrChosenOnesKept) {
    struct row {
        const char *library, *cpu;
        bool user_set, opted_out;
        const char* selected;
    };
    for (const row& r : std::vector<row>{{"Prescott", "SkylakeX", false, false, "SkylakeX"},
                                         {"Nehalem", "Haswell", false, false, "Haswell"},
                                         {"Haswell", "SkylakeX", false, false, "SkylakeX"},
                                         {"Unknown", "SandyBridge", false, false, "SandyBridge"},
                                         {"Cooperlake", "SkylakeX", false, false, ""},
                                         {"Zen", "Haswell", false, false, ""},
                                         {"Prescott", "SkylakeX", true, false, ""},
                                         {"Prescott", "SkylakeX", false, true, ""},
                                         {"Prescott", "", false, false, ""},  // no AVX
                                         {"NewCoreName", "SkylakeX", false, false, ""}})
        EXPECT_EQ(blas_core_to_select(r.library, r.cpu, r.user_set, r.opted_out), r.selected)
            << r.library << " " << r.cpu;
    EXPECT_EQ(blas_core_rank("skylakex"), blas_core_rank("SKYLAKEX"));
    EXPECT_EQ(blas_core_rank("something"), -1);
}

}  // namespace
}  // namespace krel
