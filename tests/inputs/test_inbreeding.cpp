// Inbreeding: the methods against the tabular method and against each
// other, the cache file and the user's inbreeding file.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <filesystem>
#include <string>
#include <vector>

#include "inputs/inbreeding.h"
#include "inputs/pedigree.h"
#include "inputs/pedigree_support.h"
#include "test_support.h"
#include "util/error_stop.h"
#include "util/numeric_helpers.h"

namespace krel {
namespace {

using testing::contains;
using testing::log_capture;
using testing::scratch_dir;

using record = testing::pedigree_record;
using testing::make_pedigree;

// F = A(i,i) - 1 by the tabular method: groups are unknown parents; with
// gamma they are metafounders whose own F is gamma(k,k) - 1.
std::vector<double> tabular_f(const pedigree_type& p, const dmatrix* gamma) {
    const dmatrix a = testing::tabular_relationships(
        p, gamma ? testing::groups_as::metafounders : testing::groups_as::unknown_parents, gamma);
    std::vector<double> f(static_cast<std::size_t>(p.nlength()) + 1, 0.0);
    for (std::int32_t i = 1; i <= p.nlength(); ++i)
        if (i <= p.nreal() || gamma) f[i] = a(i, i) - 1.0;
    return f;
}

// shared + own(k) on the diagonal, own(k) = own + step (k - 1).
dmatrix gamma(std::int32_t g, double shared, double own, double step) {
    dmatrix m(g, g, shared);
    for (std::int32_t k = 1; k <= g; ++k) m(k, k) += own + step * (k - 1);
    return m;
}

pedigree_type with_metafounders(pedigree_type p, const dmatrix& gamma) {
    p.ismeta = true;
    p.metarel = gamma;
    return p;
}

std::vector<double> inbreeding(pedigree_type p, std::int32_t method) {
    p.inbmethod = method;
    p.computeinbreeding_ped();
    return p.inb;
}

void expect_near_all(const std::vector<double>& got, const std::vector<double>& want, double tol,
                     const std::string& what) {
    ASSERT_EQ(got.size(), want.size()) << what;
    for (std::size_t i = 1; i < got.size(); ++i) ASSERT_NEAR(got[i], want[i], tol) << what << ", level " << i;
}


// Levels 15 and 16 are groups. Full sibs 4 and 5 mate; 7 and 14 come from
// selfing; 2 and 10 have one known parent; 11 and 13 have parents with
// higher identities than their own.
const std::vector<record> small_pedigree = {
    {1, 15, 16}, {2, 15, 0}, {3, 0, 0},   {4, 1, 2},   {5, 1, 2},    {6, 4, 5},    {7, 6, 6},
    {8, 6, 3},   {9, 8, 7},  {10, 0, 9},  {11, 13, 9}, {12, 16, 3},  {13, 4, 12}, {14, 11, 11}};

TEST(inbreeding, BothMethodsAgreeWithTheTabularMethod) {
    log_capture log;
    const auto p = make_pedigree(16, 2, small_pedigree);
    const auto want = tabular_f(p, nullptr);
    EXPECT_DOUBLE_EQ(want[6], 0.25);   // offspring of full sibs
    EXPECT_DOUBLE_EQ(want[7], 0.625);  // selfing of an inbred animal
    expect_near_all(inbreeding(p, 1), want, 1e-12, "Meuwissen and Luo");
    expect_near_all(inbreeding(p, 2), want, 1e-12, "Sargolzaei");
    // One known parent, groups and founders: zero.
    for (std::int32_t level : {2, 3, 10, 15, 16}) EXPECT_EQ(inbreeding(p, 2)[level], 0.0) << level;

    // Founders only: nobody is a parent. And no level at all.
    for (std::int32_t method : {1, 2}) {
        EXPECT_EQ(inbreeding(make_pedigree(4, 0, {}), method), std::vector<double>(5, 0.0));
        EXPECT_EQ(inbreeding(make_pedigree(0, 0, {}), method), std::vector<double>(1, 0.0));
    }
}

TEST(inbreeding, MetafoundersAgreeWithTheTabularMethodOnGamma) {
    log_capture log;
    // Two metafounders related by 0.5: one parent from each gives 0.5 / 2.
    auto p = with_metafounders(make_pedigree(3, 2, {{1, 3, 2}}), gamma(2, 0.5, 0.5, 0.0));
    for (std::int32_t method : {1, 2}) EXPECT_DOUBLE_EQ(inbreeding(p, method)[1], 0.25) << method;

    // Unequal diagonals catch a metafounder block indexed or seeded wrongly.
    p = with_metafounders(make_pedigree(11, 3, {{1, 11, 10}, {2, 9, 11}, {3, 1, 2}, {4, 1, 2}, {5, 3, 4},
                                                {6, 5, 5}, {7, 10, 6}, {8, 7, 9}}),
                          gamma(3, 0.1, 0.5, 0.3));
    auto want = tabular_f(p, &p.metarel);
    EXPECT_DOUBLE_EQ(want[9], -0.4);
    expect_near_all(inbreeding(p, 1), want, 1e-12, "Meuwissen and Luo, metafounders");
    expect_near_all(inbreeding(p, 2), want, 1e-12, "Sargolzaei, metafounders");

    // Beyond 200 metafounders the products go through BLAS.
    const std::int32_t g = 210, nr = 60;
    std::vector<record> records;
    for (std::int32_t i = 1; i <= nr; ++i)
        records.push_back({i, i <= 20 ? nr + (i * 7) % g + 1 : (i * 13) % (i - 1) + 1,
                           i <= 30 ? nr + (i * 11 + 5) % g + 1 : (i * 5) % (i - 1) + 1});
    p = with_metafounders(make_pedigree(nr + g, g, records), gamma(g, 0.1, 0.2, 0.002));
    want = tabular_f(p, &p.metarel);
    expect_near_all(inbreeding(p, 1), want, 1e-12, "Meuwissen and Luo, 210 metafounders");
    expect_near_all(inbreeding(p, 2), want, 1e-12, "Sargolzaei, 210 metafounders");
}

TEST(inbreeding, MethodsAgreeOnAGeneratedPedigree) {
    log_capture log;
    const auto p = testing::generated_pedigree(100000, 0);
    const auto ml = inbreeding(p, 1);
    expect_near_all(inbreeding(p, 2), ml, 1e-12, "100,000 animals");
    EXPECT_GT(*std::max_element(ml.begin(), ml.end()), 0.1);  // the comparison has something to compare
    // With groups every animal traces to them: metafounders, by both methods.
    const auto q = with_metafounders(testing::generated_pedigree(20000, 6), gamma(6, 0.1, 0.35, 0.05));
    expect_near_all(inbreeding(q, 2), inbreeding(q, 1), 1e-12, "20,000 animals, metafounders");
}

TEST(inbreeding, SargolzaeiKeepsTheColumnAboveTheLastMate) {
    // 3 is first met as a dam (of 4, or of 5), then sires 5 (or 6) on a dam
    // met before him: his reduced identity lies above his last mate, the
    // column is cleared only up to that mate, and what stays above it enters
    // the next tracing: of his son 4 in the first pedigree, of the unrelated
    // founder 4 in the second. Meuwissen and Luo give the true values.
    log_capture log;
    const std::vector<std::vector<record>> pedigrees = {{{3, 1, 2}, {4, 1, 3}, {5, 3, 2}, {7, 4, 5}},
                                                        {{3, 1, 2}, {5, 1, 3}, {6, 3, 2}, {7, 4, 1}}};
    const double kept[] = {0.4375, 0.125}, truth[] = {0.25, 0.0};
    for (std::size_t k = 0; k < pedigrees.size(); ++k) {
        const auto p = make_pedigree(7, 0, pedigrees[k]);
        EXPECT_DOUBLE_EQ(inbreeding(p, 1)[7], truth[k]) << k;
        EXPECT_DOUBLE_EQ(inbreeding(p, 2)[7], kept[k]) << k;
    }
}

TEST(inbreeding, WrongRequestsStop) {
    log_capture log;
    auto p = make_pedigree(3, 0, {{3, 1, 2}});
    p.inbmethod = 3;
    EXPECT_THROW(p.computeinbreeding_ped(), error_stop);
    EXPECT_TRUE(contains(log.text(), "Request of a method to compute inbreeding coefficients that is not implemented"));

    // Meuwissen and Luo need metafounders on both sides; Sargolzaei gives 0.
    p = with_metafounders(make_pedigree(4, 1, {{1, 4, 4}, {2, 0, 4}, {3, 1, 2}}), dmatrix(1, 1, 1.5));
    EXPECT_DOUBLE_EQ(inbreeding(p, 2)[2], 0.0);
    EXPECT_DOUBLE_EQ(inbreeding(p, 2)[4], 0.5);  // a metafounder keeps its own value
    log.clear();
    EXPECT_THROW(inbreeding(p, 1), error_stop);
    EXPECT_TRUE(contains(log.text(), "Metafounder (=0) not defined.\nCheck your pedigree"));

    // A negative group count is logged and the run goes on.
    log.clear();
    p = make_pedigree(3, -1, {{3, 1, 2}});
    EXPECT_EQ(inbreeding(p, 1)[3], 0.0);
    EXPECT_TRUE(contains(log.text(), "Number of UPGs < 0 (internal error)"));
}

TEST(inbreeding, HashCoversTheFirstAndLastHundredLevels) {
    auto p = make_pedigree(250, 0, {{100, 5, 1000}, {101, 1000, 0}, {149, 0, 1000}, {150, 0, 7}});
    EXPECT_EQ(p.checkval(), 250 + 5 + 7);
    p = make_pedigree(101, 0, {{1, 3, 4}, {101, 1000, 6}});
    EXPECT_EQ(p.checkval(), 101 + 3 + 4 + 6);  // up to 101 levels all dams count
    p = make_pedigree(3, 0, {{1, 2000000000, 2000000000}});
    EXPECT_EQ(p.checkval(), -294967293);  // 32-bit wrap-around
}

class inbreeding_cache : public ::testing::Test {
protected:
    void SetUp() override {
        std::string text;
        for (const auto& [id, s, d] : small_pedigree)
            text += std::to_string(id) + " " + std::to_string(s) + " " + std::to_string(d) + "\n";
        dir_.write("ped.txt", text);
    }
    pedigree_type run(std::int32_t method = 1, bool meta = false,
                      const std::optional<std::string>& outdir = std::nullopt) {
        pedigree_type p;
        p.readpedigree_nomax(pedfile());
        if (meta) {
            dir_.write("meta.txt", "15 15 1.0\n16 16 1.0\n15 16 0.2\n");
            p.readmetarel((dir_ / "meta.txt").string(), 1);
        }
        p.inbmethod = method;
        log_.clear();
        p.computeinbreeding_ped(outdir);
        return p;
    }
    std::string pedfile() const { return (dir_ / "ped.txt").string(); }
    std::string cache() const { return dir_.read("ped.txt.inb"); }
    bool computed() const { return contains(log_.text(), "1. Get the order from old to young..."); }

    log_capture log_;
    scratch_dir dir_;
};

TEST_F(inbreeding_cache, WrittenOnceThenTrustedByItsHash) {
    const auto first = run();
    EXPECT_TRUE(computed());
    EXPECT_TRUE(contains(log_.text(), "Inbreeding coefficients saved in " + pedfile() + ".inb"));
    const std::string text = cache();
    EXPECT_TRUE(text.starts_with("# " + std::to_string(first.checkval()) + "\n1 .000000\n"));
    EXPECT_TRUE(contains(text, "\n7 .625000\n") && text.ends_with("\n15 .000000\n16 .000000\n"));

    // The next run reads the file and computes nothing, whatever the method.
    const auto second = run(2);
    EXPECT_FALSE(computed());
    EXPECT_TRUE(contains(log_.text(), "Inbreeding coefficients read from " + pedfile() + ".inb"));
    expect_near_all(second.inb, first.inb, 5e-7, "cached");

    // The token in front of the hash is not compared, and the values are
    // taken as they stand, in any order of levels.
    std::string edited = "XYZ " + std::to_string(first.checkval()) + "\n3 0.5\n";
    for (std::int32_t i = 16; i >= 1; --i)
        if (i != 3) edited += std::to_string(i) + " 0\n";
    dir_.write("ped.txt.inb", edited);
    EXPECT_DOUBLE_EQ(run().inb[3], 0.5);
    EXPECT_FALSE(computed());
}

TEST_F(inbreeding_cache, StaleFileIsWarnedAboutAndLeftInPlace) {
    const auto fresh = run();
    const std::string full = cache();
    const std::string hash = std::to_string(fresh.checkval());

    // One line short: the end of the file is the status.
    const std::string short_one = full.substr(0, full.rfind("\n16 ") + 1);
    dir_.write("ped.txt.inb", short_one);
    const auto p = run();
    EXPECT_TRUE(computed());
    EXPECT_TRUE(contains(log_.text(), "The file " + pedfile() +
                                          ".inb exists, but is incorrect (magic number or number of lines)\n"));
    EXPECT_TRUE(contains(log_.text(), "io = -1\nhash: " + hash + " vs " + hash));
    EXPECT_EQ(p.inb, fresh.inb);
    EXPECT_EQ(cache(), short_one);

    // Another pedigree's hash.
    dir_.write("ped.txt.inb", "# 12345" + full.substr(full.find('\n')));
    run();
    EXPECT_TRUE(computed());
    EXPECT_TRUE(contains(log_.text(), "io = 0\nhash: 12345 vs " + hash));

    // A level outside the pedigree is no index.
    dir_.write("ped.txt.inb", "# " + hash + "\n99 0.1\n");
    EXPECT_THROW(run(), error_stop);
    EXPECT_TRUE(contains(log_.text(), pedfile() + ".inb"));
}

TEST_F(inbreeding_cache, MetafounderAndOutdirFilesAreNotFoundAgain) {
    // Only pedfile.inb is ever read: the _meta file and the file written into
    // outdir are not, and a metafounder run takes a file written without.
    run(2, true);
    EXPECT_TRUE(dir_.exists("ped.txt_meta.inb"));
    EXPECT_TRUE(contains(log_.text(), "Inbreeding coefficients saved in " + pedfile() + "_meta.inb"));
    EXPECT_TRUE(contains(dir_.read("ped.txt_meta.inb"), "\n15 .000000\n16 .000000\n"));
    run(2, true);
    EXPECT_TRUE(computed());

    std::filesystem::create_directory(dir_ / "out");
    run(1, false, (dir_ / "out").string() + "/");
    EXPECT_TRUE(dir_.exists("out/ped.txt.inb"));
    EXPECT_FALSE(dir_.exists("ped.txt.inb"));
    run(1);
    EXPECT_TRUE(computed());
    EXPECT_TRUE(dir_.exists("ped.txt.inb"));
    run(2, true);
    EXPECT_FALSE(computed());
}

TEST(readinbreeding, CommentsOnlyAmongTheFirstTenDataLines) {
    log_capture log;
    scratch_dir dir;
    auto p = make_pedigree(20, 0, {});
    std::string text = "# coefficients\n";
    for (int i = 1; i <= 12; ++i) {
        text += std::to_string(i) + ", 0." + std::to_string(i) + "\n";
        if (i == 3) text += "   # between data lines\n\n";
        if (i == 10) text += "# ends the reading\n";
    }
    dir.write("inb.txt", text);
    const std::string file = (dir / "inb.txt").string();
    p.readinbreeding(file);
    EXPECT_DOUBLE_EQ(p.inb[3], 0.3);
    EXPECT_DOUBLE_EQ(p.inb[4], 0.4);
    EXPECT_DOUBLE_EQ(p.inb[10], 0.10);
    EXPECT_EQ(p.inb[11], 0.0);
    EXPECT_EQ(p.inb.size(), 21u);
    EXPECT_TRUE(contains(log.text(), "Number of inbreeding coefficients read from " + file + ": 10\n"));

    dir.write("inb.txt", "1 0.1\n21 0.2\n");
    EXPECT_THROW(p.readinbreeding(file), error_stop);
    EXPECT_TRUE(contains(log.text(), file));
    log.clear();
    EXPECT_THROW(p.readinbreeding((dir / "absent.txt").string()), error_stop);
    EXPECT_TRUE(contains(log.text(), "absent.txt"));
}

}  // namespace
}  // namespace krel
