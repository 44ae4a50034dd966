// Reading a pedigree and walking it: sizes derived from the file, the
// old-to-young numbering, ancestors, descendants and parent averages.
#include <gtest/gtest.h>
#include <omp.h>

#include <string>
#include <vector>

#include "inputs/pedigree.h"
#include "test_support.h"
#include "util/error_stop.h"

namespace krel {
namespace {

using testing::log_capture;
using testing::scratch_dir;

pedigree_type read_text_pedigree(const scratch_dir& dir, const std::string& text) {
    dir.write("ped.txt", text);
    pedigree_type p;
    p.readpedigree_nomax((dir / "ped.txt").string());
    return p;
}

std::vector<std::int32_t> order_of(const pedigree_type& p) {
    std::vector<std::int32_t> order;
    p.getorder(order);
    return {order.begin() + 1, order.end()};
}

TEST(pedigree, SizesComeFromTheHighestIdentityAndTheHighestParent) {
    log_capture log;
    scratch_dir dir;
    // Level 9 is the highest animal; parent 12 makes three groups although
    // only one is used. Level 2 occurs only as a parent.
    auto p = read_text_pedigree(dir, "5 2 12 1999\n\n 9,5 0\n7 0 0 extra words\n3 1 1\n3 5 7\n");
    EXPECT_EQ(p.nlength(), 12);
    EXPECT_EQ(p.nupg, 3);
    EXPECT_EQ(p.nreal(), 9);
    EXPECT_EQ(p.sire(9), 5);
    EXPECT_EQ(p.dam(5), 12);
    EXPECT_EQ(p.sire(2), 0);
    // The same identity twice: the last record holds.
    EXPECT_EQ(p.sire(3), 5);
    EXPECT_EQ(p.dam(3), 7);

    // A record that does not read as three integers ends the reading, silently.
    p = read_text_pedigree(dir, "1 0 0\n2 0 0\n3 1 x\n4 1 2\n");
    EXPECT_EQ(p.nlength(), 2);
    p = read_text_pedigree(dir, "1 0 0\n2 1\n4 1 2\n");
    EXPECT_EQ(p.nlength(), 1);

    pedigree_type q;
    dir.write("ped.txt", "1 0 0\n2 1 0\n");
    q.readpedigree_max((dir / "ped.txt").string(), 5, 1);
    EXPECT_EQ(q.nlength(), 5);
    EXPECT_EQ(q.nupg, 1);
    EXPECT_EQ(q.sire(2), 1);
}

TEST(pedigree, UnusableFilesStopWithTheirName) {
    scratch_dir dir;
    log_capture log;
    pedigree_type p;
    EXPECT_THROW(p.readpedigree_nomax((dir / "absent.txt").string()), error_stop);
    EXPECT_NE(log.text().find("absent.txt"), std::string::npos);
    log.clear();
    EXPECT_THROW(read_text_pedigree(dir, "1 0 0\n-2 1 0\n"), error_stop);
    EXPECT_NE(log.text().find("ped.txt"), std::string::npos);
    EXPECT_NE(log.text().find("-2 1 0"), std::string::npos);
    EXPECT_THROW(read_text_pedigree(dir, "1 0 0\n2 1 -1\n"), error_stop);
    EXPECT_THROW(read_text_pedigree(dir, "1 0 0\n2 1 99999999999\n"), error_stop);
    dir.write("ped.txt", "1 0 0\n2 1 7\n");
    EXPECT_THROW(p.readpedigree_max((dir / "ped.txt").string(), 5, 0), error_stop);
}

// A file larger than one reading piece: every thread count gives the same
// pedigree, and a bad record in a later piece still ends the reading there.
TEST(pedigree, ParallelReadingKeepsFileOrder) {
    log_capture log;
    scratch_dir dir;
    std::string text;
    const int n = 40000;
    for (int i = 1; i <= n; ++i)
        text += std::to_string(i) + " " + std::to_string(i > 2 ? i / 2 : 0) + " " + std::to_string(i > 2 ? i - 1 : 0) + "\n";
    text += "7 1 2\n";  // a repeated identity late in the file wins
    const int threads = omp_get_max_threads();
    omp_set_num_threads(1);
    auto one = read_text_pedigree(dir, text);
    omp_set_num_threads(4);
    auto four = read_text_pedigree(dir, text);
    EXPECT_EQ(one.nlength(), n);
    for (int i = 1; i <= n; ++i) {
        ASSERT_EQ(one.sire(i), four.sire(i)) << i;
        ASSERT_EQ(one.dam(i), four.dam(i)) << i;
    }
    EXPECT_EQ(four.sire(7), 1);
    EXPECT_EQ(four.dam(7), 2);

    std::string broken = text;
    broken.insert(broken.find("\n30000 ") + 1, "oops\n");
    auto cut = read_text_pedigree(dir, broken);
    omp_set_num_threads(threads);
    EXPECT_EQ(cut.nlength(), 29999);
    EXPECT_EQ(cut.sire(7), 3);  // the late record was never reached
}

TEST(pedigree, OrderPutsGroupsFirstAndParentsBeforeOffspring) {
    log_capture log;
    scratch_dir dir;
    // Levels 7 and 8 are groups. Offspring 1 is listed first and has a lower
    // identity than its parents; 6 has the group 8 as dam.
    auto p = read_text_pedigree(dir, "1 4 3\n2 0 0\n3 5 2\n4 0 7\n5 0 0\n6 5 8\n");
    ASSERT_EQ(p.nupg, 2);
    // 1 needs its sire's line (4) first, then its dam's (3, needing 5 then 2).
    EXPECT_EQ(order_of(p), (std::vector<std::int32_t>{7, 8, 4, 5, 2, 3, 1, 6}));
    std::vector<std::int32_t> order, inverse;
    p.getorder(order, &inverse);
    for (std::int32_t id = 1; id <= p.nlength(); ++id) EXPECT_EQ(order[inverse[id]], id);

    // Unrelated animals: the lower identity comes first.
    EXPECT_EQ(order_of(read_text_pedigree(dir, "2 0 0\n1 0 0\n")), (std::vector<std::int32_t>{1, 2}));
    // Explicit sizes: the last two levels of 4 are taken as groups.
    p = read_text_pedigree(dir, "1 0 0\n2 0 0\n3 0 0\n4 0 0\n");
    std::vector<std::int32_t> o;
    p.getorder(o, nullptr, 4, 2);
    EXPECT_EQ(std::vector<std::int32_t>(o.begin() + 1, o.end()), (std::vector<std::int32_t>{3, 4, 1, 2}));
}

TEST(pedigree, DeepPedigreesAndLoops) {
    log_capture log;
    scratch_dir dir;
    // 100,000 generations, youngest first in the file and lowest in level.
    const int n = 100000;
    std::string text;
    for (int i = 1; i <= n; ++i) text += std::to_string(i) + " " + std::to_string(i < n ? i + 1 : 0) + " 0\n";
    auto p = read_text_pedigree(dir, text);
    const auto order = order_of(p);
    EXPECT_EQ(order.front(), n);
    EXPECT_EQ(order.back(), 1);
    std::vector<std::int32_t> lap;
    p.getlap(lap);
    EXPECT_EQ(lap[1], n - 1);
    std::vector<std::int32_t> anc;
    const std::vector<std::int32_t> youngest{1};
    p.getancestors(youngest, anc);
    EXPECT_EQ(anc.size(), static_cast<std::size_t>(n));

    // 2 -> 3 -> 4 -> 2 is a loop.
    p = read_text_pedigree(dir, "1 2 0\n2 3 0\n3 4 0\n4 2 0\n5 0 0\n");
    log.clear();
    std::vector<std::int32_t> o;
    EXPECT_THROW(p.getorder(o), error_stop);
    EXPECT_NE(log.text().find("loop"), std::string::npos);
    EXPECT_NE(log.text().find("level 2 "), std::string::npos);
    p = read_text_pedigree(dir, "1 0 1\n");
    EXPECT_THROW(p.getorder(o), error_stop);
}

TEST(pedigree, WalksUpAndDown) {
    log_capture log;
    scratch_dir dir;
    // 1..6 animals, 7 and 8 groups. 3 has both parents groups; 5 unknown parents.
    auto p = read_text_pedigree(dir, "1 3 4\n2 3 0\n3 7 8\n4 0 7\n5 0 0\n6 1 5\n");
    std::vector<std::int32_t> lap;
    p.getlap(lap);
    EXPECT_EQ(lap, (std::vector<std::int32_t>{lap[0], 2, 2, 1, 1, 0, 3, lap[7], lap[8]}));

    std::vector<std::int32_t> result;
    const std::vector<std::int32_t> with_group{6, 8};
    p.getancestors(with_group, result);  // the group is dropped
    EXPECT_EQ(result, (std::vector<std::int32_t>{1, 3, 4, 5, 6}));
    const std::vector<std::int32_t> group{8};
    p.getdescendants(group, result);  // the group is kept, with its progeny
    EXPECT_EQ(result, (std::vector<std::int32_t>{1, 2, 3, 6, 8}));

    // Parent averages: one known parent gives half its row; none gives 0.
    dmatrix pa(8, 2, 0.0);
    std::vector<char> known(9, 0);
    pa(5, 1) = 4.0;
    pa(5, 2) = -2.0;
    known[5] = 1;
    pa(4, 1) = 8.0;  // replaced: 4 is not known
    p.compute_pa(pa, known);
    EXPECT_EQ(pa(4, 1), 0.0);
    EXPECT_EQ(pa(6, 1), 2.0);
    EXPECT_EQ(pa(6, 2), -1.0);
    EXPECT_EQ(pa(5, 1), 4.0);
    EXPECT_EQ(pa(1, 1), 0.0);
}

TEST(pedigree, MetafounderRelationships) {
    log_capture log;
    scratch_dir dir;
    auto p = read_text_pedigree(dir, "1 3 4\n2 3 3\n");
    ASSERT_EQ(p.nupg, 2);
    dir.write("meta.txt", "3 3 0.5\n4 3 0.1\n4 4 0.7\n4 3 0.2\n");
    p.readmetarel((dir / "meta.txt").string(), 1);
    EXPECT_TRUE(p.ismeta);
    EXPECT_EQ(p.metarel(1, 1), 0.5);
    EXPECT_EQ(p.metarel(1, 2), 0.2);  // mirrored, and the later record holds
    EXPECT_EQ(p.metarel(2, 1), 0.2);
    EXPECT_EQ(p.metarel(2, 2), 0.7);

    dir.write("meta.txt", "1 3 0.5\n");
    EXPECT_THROW(p.readmetarel((dir / "meta.txt").string(), 1), error_stop);
    p = read_text_pedigree(dir, "1 0 0\n");
    log.clear();
    EXPECT_THROW(p.readmetarel((dir / "meta.txt").string(), 1), error_stop);
    EXPECT_NE(log.text().find("Number of metafounders <= 0 (internal error)"), std::string::npos);
}

TEST(pedigree, StatisticsAndListing) {
    log_capture log;
    scratch_dir dir;
    auto p = read_text_pedigree(dir, "1 0 0\n2 0 0\n3 1 5\n");
    EXPECT_EQ(p.printstats_pedigree(),
              "Number of levels (max ID)         : 5\nNumber of (real) animals          : 3\n"
              "Number of declared genetic groups : 2");
    p.inb = {0.0, 0.0, 0.25, 0.125, 0.0, 0.0};
    p.print_pedigree((dir / "x_").string());
    EXPECT_EQ(dir.read("x_pedigree.snpblup"),
              "           0           0\n           0           0\n           1           5\n"
              "           0           0\n           0           0\n");
    const auto inb = dir.read("x_inbreeding.snpblup");
    EXPECT_EQ(inb.substr(0, inb.find('\n')), "           1   0.0000000000000000     ");
    EXPECT_NE(inb.find("           3  0.12500000000000000     "), std::string::npos);
}

}  // namespace
}  // namespace krel
