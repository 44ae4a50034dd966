// Reverse reliabilities of a selected list, trait by trait, and the result
// record writer.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "engine/reverse_reliabilities.h"
#include "test_support.h"

namespace krel {
namespace {

using testing::log_capture;
using testing::scratch_dir;

// Runs in a scratch directory: the object writes into the working directory.
class in_scratch {
public:
    in_scratch() : old_(std::filesystem::current_path()) { std::filesystem::current_path(dir_.path()); }
    ~in_scratch() { std::filesystem::current_path(old_); }
    const scratch_dir& dir() const { return dir_; }

private:
    scratch_dir dir_;
    std::filesystem::path old_;
};

TEST(result_files, RecordLayout) {
    in_scratch here;
    dmatrix data(2, 4);
    data(1, 3) = 0.123456;
    data(2, 3) = 2.5;
    data(1, 1) = -0.5;
    const std::vector<std::int32_t> list{3, 1};
    write_pevercrel("out.dat", 7, list, data, "f0.5");
    EXPECT_EQ(here.dir().read("out.dat"), "3 7 0 .12346 2.50000 \n1 7 0 -.50000 .00000 \n");
    write_pevercrel("g0.dat", 2, list, data);
    EXPECT_EQ(here.dir().read("g0.dat"), "3 2 0 0.123456 2.5 \n1 2 0 -0.5 0 \n");
}

// A small model of two traits filled by hand: 8 animals, animal 8 with a
// group-free pedigree, PEV from reliabilities.
void fill(reverse_type& r, double genetic_correlation) {
    r.ntrait = 2;
    r.effect = 1;
    r.ped.allocate(8, 0);
    const std::int32_t parents[8][2] = {{0, 0}, {0, 0}, {0, 0}, {1, 2}, {1, 3}, {4, 5}, {1, 5}, {4, 3}};
    for (std::int32_t i = 1; i <= 8; ++i) {
        r.ped.ped(1, i) = parents[i - 1][0];
        r.ped.ped(2, i) = parents[i - 1][1];
    }
    r.ped.getorder(r.order);
    r.gvar.assign(2, dmatrix(2, 2));
    r.gvar[1](1, 1) = 25.0;
    r.gvar[1](2, 2) = 4.0;
    r.gvar[1](1, 2) = r.gvar[1](2, 1) = genetic_correlation * 10.0;
    r.rmat.assign(2, dmatrix(2, 2));
    r.rmat[1](1, 1) = 58.0;
    r.rmat[1](2, 2) = 36.0;
    r.rmat[1](1, 2) = r.rmat[1](2, 1) = 5.0;
    r.pev.resize(8, 2);
    r.rel.resize(8, 2);
    const double rel1[8] = {0.8, 0.6, 0.3, 0.55, 0.5, 0.4, 0.45, 0.35};
    for (std::int32_t i = 1; i <= 8; ++i) {
        r.rel(i, 1) = rel1[i - 1];
        r.rel(i, 2) = rel1[i - 1] * 0.5;
        r.pev(i, 1) = 25.0 * (1.0 - r.rel(i, 1));
        r.pev(i, 2) = 4.0 * (1.0 - r.rel(i, 2));
    }
    r.selected = {2, 4, 5, 6, 7, 8};
}

TEST(reverse, TraitsAreReversedOneByOneAndFilesOnlyOnRequest) {
    log_capture log;
    in_scratch here;
    reverse_type a, b;
    fill(a, 0.9);
    fill(b, 0.0);
    a.compute_reverse("named.dat");
    b.compute_reverse();
    EXPECT_FALSE(here.dir().exists("named.dat"));
    EXPECT_FALSE(here.dir().exists("qd_reverse_erc.dat"));
    EXPECT_FALSE(here.dir().exists("qd_sum_reverse_erc.dat"));
    for (std::int32_t t = 1; t <= 2; ++t)
        for (std::int32_t i = 1; i <= 8; ++i) EXPECT_EQ(a.erc(t, i), b.erc(t, i)) << t << ' ' << i;
    // Records outside the list carry no information of their own.
    EXPECT_EQ(a.erc(1, 1), 0.0);
    EXPECT_EQ(a.erc(1, 3), 0.0);
    EXPECT_GT(a.erc(1, 2), 0.0);

    // The first trait alone gives the same row.
    reverse_type one;
    fill(one, 0.0);
    one.ntrait = 1;
    one.gvar[1] = dmatrix(1, 1, 25.0);
    one.rmat[1] = dmatrix(1, 1, 58.0);
    dmatrix pev(8, 1), rel(8, 1);
    for (std::int32_t i = 1; i <= 8; ++i) {
        pev(i, 1) = one.pev(i, 1);
        rel(i, 1) = one.rel(i, 1);
    }
    one.pev = pev;
    one.rel = rel;
    one.compute_reverse();
    for (std::int32_t i = 1; i <= 8; ++i) EXPECT_EQ(one.erc(1, i), a.erc(1, i));

    a.write_files = true;
    a.compute_reverse("named.dat");
    const auto text = here.dir().read("named.dat");
    EXPECT_EQ(text.substr(0, text.find(' ', 2) + 1), "2 1 ");
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 6);
    const auto sums = here.dir().read("qd_sum_reverse_erc.dat");
    EXPECT_EQ(sums.substr(0, 6), "1 0 0 ");
    EXPECT_EQ(std::count(sums.begin(), sums.end(), '\n'), 2);

    // An empty list gives zero ERC.
    b.selected.clear();
    b.compute_reverse();
    for (std::int32_t t = 1; t <= 2; ++t)
        for (std::int32_t i = 1; i <= 8; ++i) EXPECT_EQ(b.erc(t, i), 0.0);
}

}  // namespace
}  // namespace krel
