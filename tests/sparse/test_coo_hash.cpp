#include <gtest/gtest.h>

#include <random>
#include <set>
#include <vector>

#include "sparse/coo_hash.h"
#include "sparse_test_support.h"

namespace krel {
namespace {

using testing::cout_capture;

// Slots computed from the description of the mix by an independent program.
TEST(ModsparseHash, ProbeSequencesOfKnownKeys) {
    auto walk = [](std::int64_t a, std::int64_t b, std::int64_t nel) {
        hash_probe p(a, b, nel);
        std::vector<std::int64_t> s;
        for (int k = 0; k < 6; ++k) s.push_back(p.next());
        return s;
    };
    EXPECT_EQ(walk(3, 7, 1024), (std::vector<std::int64_t>{998, 101, 429, 871, 255, 869}));
    EXPECT_EQ(walk(1, 1, 128), (std::vector<std::int64_t>{82, 64, 100, 35, 114, 57}));
    // A negative row is widened with its sign.
    EXPECT_EQ(walk(-5, 2, 1 << 20),
              (std::vector<std::int64_t>{676515, 760868, 530847, 737583, 707234, 701020}));
    // hashf_vect mixes the key with 11.
    EXPECT_EQ(walk(123456, 11, 4096),
              (std::vector<std::int64_t>{921, 3918, 204, 2537, 3435, 2609}));

    std::vector<std::int32_t> table(2 * 128, 0);
    std::int64_t filled = 0;
    EXPECT_EQ(hashf_array(1, 1, table, 128, filled, false), 82);
    std::vector<std::int32_t> set(4096, 0);
    EXPECT_EQ(hashf_vect(123456, set, 4096, filled, false), 921);
}

TEST(ModsparseHash, ArrayInsertsOnceAndLooksUpWithoutInserting) {
    constexpr std::int64_t nel = 4096;
    std::vector<std::int32_t> table(2 * nel, 0);
    std::int64_t filled = 0;
    std::mt19937 gen(5);
    std::uniform_int_distribution<std::int32_t> u(1, 200);
    std::set<std::pair<std::int32_t, std::int32_t>> keys;
    for (int n = 0; n < 3000; ++n) {
        const std::int32_t r = u(gen), c = u(gen);
        const bool fresh = keys.insert({r, c}).second;
        const std::int64_t before = filled;
        const std::int64_t slot = hashf_array(r, c, table, nel, filled, false);
        ASSERT_GE(slot, 1);
        EXPECT_EQ(filled, before + (fresh ? 1 : 0));
        EXPECT_EQ(table[2 * (slot - 1)], r);
        EXPECT_EQ(table[2 * (slot - 1) + 1], c);
        EXPECT_EQ(hashf_array_getval(r, c, table, nel), slot);
    }
    EXPECT_EQ(filled, static_cast<std::int64_t>(keys.size()));
    std::set<std::pair<std::int32_t, std::int32_t>> held;
    for (std::int64_t k = 0; k < nel; ++k)
        if (table[2 * k] != 0) {
            EXPECT_TRUE(held.insert({table[2 * k], table[2 * k + 1]}).second);
        }
    EXPECT_EQ(held, keys);

    const std::int64_t before = filled;
    EXPECT_EQ(hashf_array(201, 1, table, nel, filled, true), 0);
    EXPECT_EQ(hashf_array_getval(201, 1, table, nel), 0);
    EXPECT_EQ(filled, before);
}

TEST(ModsparseHash, SearchLimitWarnsAndReturnsMinusOne) {
    constexpr std::int64_t nel = 4;
    std::vector<std::int32_t> table(2 * nel, 0);
    std::int64_t filled = 0;
    std::int32_t row = 1;
    while (filled < nel) hashf_array(row++, 1, table, nel, filled, false);
    {
        cout_capture out;
        EXPECT_EQ(hashf_array(999, 1, table, nel, filled, false), -1);
        EXPECT_EQ(hashf_array(999, 1, table, nel, filled, true), -1);
        EXPECT_EQ(out.text(),
                  " Warning: the maximum number of searches was reached!\n"
                  " Warning: the maximum number of searches was reached!\n");
    }
    EXPECT_EQ(filled, nel);
    cout_capture out;
    EXPECT_EQ(hashf_array_getval(999, 1, table, nel), -1);
    EXPECT_EQ(out.text(), "");
}

TEST(ModsparseHash, VectIsASetOfIntegers) {
    constexpr std::int64_t nel = 64;
    std::vector<std::int32_t> t32(nel, 0);
    std::vector<std::int64_t> t64(nel, 0);
    std::int64_t f32 = 0, f64 = 0;
    for (std::int32_t k : {5, 17, 5, 40, 17, 5}) {
        EXPECT_GE(hashf_vect(k, t32, nel, f32, false), 1);
        EXPECT_GE(hashf_vect(std::int64_t{k} << 33, t64, nel, f64, false), 1);
    }
    EXPECT_EQ(f32, 3);
    EXPECT_EQ(f64, 3);
    EXPECT_GE(hashf_vect(40, t32, nel, f32, true), 1);
    EXPECT_EQ(hashf_vect(41, t32, nel, f32, true), 0);
    EXPECT_EQ(hashf_vect(std::int64_t{41} << 33, t64, nel, f64, true), 0);
    EXPECT_EQ(f32, 3);
    EXPECT_EQ(f64, 3);
}

}  // namespace
}  // namespace krel
