#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <random>
#include <set>

#include "sparse/metis_ordering.h"
#include "sparse/sparse_matrix.h"
#include "sparse_test_support.h"

namespace krel {
namespace {

using namespace krel::testing;

// An upper-stored symmetric matrix with the pattern of a pedigree: each
// animal linked to two earlier ones.
crssparse pedigree_like(std::int32_t n, unsigned seed) {
    std::mt19937 gen(seed);
    coosparse c(n, std::nullopt, 4 * static_cast<std::int64_t>(n), true);
    for (std::int32_t i = 1; i <= n; ++i) {
        c.add(i, i, 2.0);
        if (i <= 10) continue;
        std::uniform_int_distribution<std::int32_t> parent(1, i - 1);
        const std::int32_t s = parent(gen), d = parent(gen);
        c.add(s, i, -1.0);
        c.add(d, i, -1.0);
        c.add(std::min(s, d), std::max(s, d), 0.5);
    }
    c.setsymmetric();
    crssparse crs = convertfromcootocrs(c);
    crs.sort();
    return crs;
}

void expect_permutation(const std::vector<std::int32_t>& perm, std::int32_t n) {
    ASSERT_EQ(perm.size(), static_cast<std::size_t>(n));
    std::vector<std::int32_t> sorted = perm;
    std::sort(sorted.begin(), sorted.end());
    for (std::int32_t k = 0; k < n; ++k) ASSERT_EQ(sorted[k], k + 1);
}

TEST(Metisgraph, GraphOfTheFullPattern) {
    const dmatrix up = random_dense(12, 12, 0.3, 19, true, true);
    const crssparse crs = convertfromcootocrs(coo_of(up, true, true));
    const metisgraph g = convertfromcrstometisgraph(crs);
    ASSERT_EQ(g.xadj.size(), 13u);
    EXPECT_EQ(g.xadj.back(), 2 * g.nedges + 1);
    for (std::int32_t i = 1; i <= 12; ++i) {
        std::set<std::int32_t> neighbours(g.adjncy.begin() + g.xadj[i - 1] - 1,
                                          g.adjncy.begin() + g.xadj[i] - 1);
        EXPECT_EQ(neighbours.size(), static_cast<std::size_t>(g.xadj[i] - g.xadj[i - 1]));
        for (std::int32_t j = 1; j <= 12; ++j) {
            const bool linked = j != i && up(std::min(i, j), std::max(i, j)) != 0.0;
            EXPECT_EQ(neighbours.count(j), linked ? 1u : 0u) << i << "," << j;
        }
    }
}

TEST(Metisgraph, OnlySquareUpperStoredMatrices) {
    std::ostringstream log;
    crssparse general = convertfromcootocrs(coo_of(random_dense(4, 4, 0.5, 1), false, false));
    general.setoutputunit(&log);
    EXPECT_EQ(stop_message(log, [&] { (void)convertfromcrstometisgraph(general); }),
              " ERROR: the CRS matrix must be square and upper triangular stored\n");
    crssparse rect = convertfromcootocrs(coo_of(random_dense(4, 5, 0.5, 1, true), true, false));
    rect.setoutputunit(&log);
    std::vector<std::int32_t> perm;
    EXPECT_EQ(stop_message(log, [&] { rect.getordering(perm); }),
              " ERROR: the CRS matrix must be square and upper triangular stored\n");
}

TEST(Metis, OrderingIsAPermutation) {
    const crssparse crs = pedigree_like(3000, 2);
    std::vector<std::int32_t> perm{42};
    crs.getordering(perm);
    expect_permutation(perm, 3000);
    std::vector<std::int32_t> again;
    crs.getordering(again);
    EXPECT_EQ(again, perm);
    crs.getordering(again, ordering_options{.ctype = 1, .nseps = 3});
    expect_permutation(again, 3000);

    dmatrix diag(7, 7);
    for (int i = 1; i <= 7; ++i) diag(i, i) = 1.0;
    convertfromcootocrs(coo_of(diag, true, true)).getordering(perm);
    expect_permutation(perm, 7);
}

TEST(Metis, SeparatorsFollowTheSizeOfTheMatrix) {
    for (auto [n, nseps] : {std::pair{49999, 1}, {50000, 5}, {199999, 5}, {200000, 10}})
        EXPECT_EQ(metis_ordering_options(n)[15], nseps) << n;
    // A given value wins over the rule.
    EXPECT_EQ(metis_ordering_options(200000, {.nseps = 2})[15], 2);
    EXPECT_EQ(metis_ordering_options(10, {.nseps = 7})[15], 7);
}

TEST(Metis, OptionsLandInTheirPlaces) {
    using opts = std::vector<std::int32_t>;
    // Places 2 to 5 (ctype, iptype, rtype, dbglvl), 12 to 15 (compress,
    // ccorder, pfactor, nseps) and 17 (numbering).
    auto places = [](const metis_options_array& o) {
        return opts{o[2], o[3], o[4], o[5], o[12], o[13], o[14], o[15], o[17]};
    };
    EXPECT_EQ(places(metis_ordering_options(100)), (opts{0, 2, 2, 0, 0, 0, 0, 1, 1}));
    ordering_options given;
    given.ctype = 1, given.iptype = 3, given.rtype = 3, given.dbglvl = 2;
    given.compress = 1, given.ccorder = 1, given.pfactor = 60, given.nseps = 4;
    EXPECT_EQ(places(metis_ordering_options(100, given)), (opts{1, 3, 3, 2, 1, 1, 60, 4, 1}));

}

TEST(Metis, ErrorStatusesStopWithTheirNames) {
    metis_checkerror(1);
    std::ostringstream unit;
    for (const auto& [status, name] : std::vector<std::pair<int, std::string>>{
             {-2, " METIS_ERROR_INPUT\n"}, {-3, " METIS_ERROR_MEMORY\n"}, {-4, " METIS_ERROR\n"}, {0, " UNKNOWN METIS_ERROR\n"}})
        EXPECT_EQ(stop_message(unit, [&] { metis_checkerror(status, &unit); }), name);

    // A refinement METIS does not know is refused by METIS itself.
    std::ostringstream log;
    crssparse crs = pedigree_like(200, 3);
    crs.setoutputunit(&log);
    std::vector<std::int32_t> perm;
    cout_capture metis_chatter;
    EXPECT_THROW(crs.getordering(perm, {.rtype = 99}), error_stop);
    EXPECT_EQ(log.str(), " METIS_ERROR_INPUT\n");
}

}  // namespace
}  // namespace krel
