// Readers of the variance and solution files.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "inputs/solution_files.h"
#include "inputs/variance_files.h"
#include "test_support.h"
#include "util/error_stop.h"

namespace krel {
namespace {

using testing::log_capture;
using testing::scratch_dir;

TEST(variance_files, HeritabilitiesAndGeneticMatrix) {
    log_capture log;
    scratch_dir dir;
    dir.write("h2.txt", "0.3\n\n 0.25d0 ignored\nnot-a-number\n0.9\n");
    std::int32_t n = 0;
    std::vector<double> h2;
    readh2((dir / "h2.txt").string(), n, h2);
    ASSERT_EQ(n, 2);
    EXPECT_EQ(h2[1], 0.3);
    EXPECT_EQ(h2[2], 0.25);

    dir.write("g.txt", "25\n3.0, 4.0 99\n");
    dmatrix g;
    readgf((dir / "g.txt").string(), 1, 2, g);
    EXPECT_EQ(std::vector<double>(g.data(), g.data() + 4), (std::vector<double>{25.0, 3.0, 3.0, 4.0}));

    EXPECT_THROW(readgf((dir / "g.txt").string(), 1, 3, g), error_stop);
    EXPECT_NE(log.text().find("Cannot read the file properly"), std::string::npos);
    EXPECT_NE(log.text().find("g.txt"), std::string::npos);
    log.clear();
    EXPECT_THROW(readgf((dir / "absent.txt").string(), 1, 1, g), error_stop);
    EXPECT_NE(log.text().find("Cannot open the file " + (dir / "absent.txt").string()), std::string::npos);
}

TEST(variance_files, ResidualClasses) {
    log_capture log;
    scratch_dir dir;
    std::vector<dmatrix> r;
    std::int32_t ntrait = 0;
    dir.write("r.txt", "1 1 58.3\n1 2 1.0 36.0\n3 1 2.0\n3 2 0.5 1.0\n");
    readrf((dir / "r.txt").string(), ntrait, r);
    EXPECT_EQ(ntrait, 2);
    ASSERT_EQ(r.size(), 4u);
    EXPECT_EQ(r[1](1, 1), 58.3);
    EXPECT_EQ(r[1](1, 2), 1.0);
    EXPECT_EQ(r[1](2, 1), 1.0);
    EXPECT_EQ(r[3](2, 2), 1.0);
    EXPECT_NE(log.text().find("The class 2 of the residual covariance matrix is not provided!"), std::string::npos);

    dir.write("r.txt", "1 1 1.0\n1 2 2.0 1.0\n");
    EXPECT_THROW(readrf((dir / "r.txt").string(), ntrait, r), error_stop);
    EXPECT_NE(log.text().find("The residual matrix for the class 1 is not positive definite!"), std::string::npos);
    const std::string file = (dir / "r.txt").string();
    for (const auto& [bad, where] : std::vector<std::pair<std::string, std::string>>{
             {"1 1\n", "Line 1 of " + file},
             {"1 1 4\nx 1 1.0\n", "Line 2 of " + file},
             {"1 3 1 2 3\n", file + " gives a row 3 of a matrix of 2 traits"},
             {"1 1 1\n9999 1 1\n", file + " numbers a class 9999 but gives only 2 rows"}}) {
        log.clear();
        dir.write("r.txt", bad);
        std::int32_t two = 2;
        EXPECT_THROW(readrf(file, two, r), error_stop) << bad;
        EXPECT_NE(log.text().find("The format of the residual covariance file is not correct!"), std::string::npos);
        EXPECT_NE(log.text().find(where), std::string::npos) << log.text();
    }
}

TEST(solution_files, FiveColumns) {
    log_capture log;
    scratch_dir dir;
    dir.write("sol.txt", "1 1 3 A3 12.5\n1 2 3 7 99\n2 1 4 44 1.5d0\n1 1 2 2 -3\n");
    dmatrix a(5, 2);
    readsol((dir / "sol.txt").string(), 1, a);
    EXPECT_EQ(a(3, 1), 12.5);
    EXPECT_EQ(a(4, 2), 1.5);
    EXPECT_EQ(a(2, 1), -3.0);
    EXPECT_EQ(a(1, 1), 0.0);

    // Another effect only: the array stays zero.
    dmatrix b(5, 2);
    readsol((dir / "sol.txt").string(), 7, b);
    for (double x : std::vector<double>(b.data(), b.data() + 10)) EXPECT_EQ(x, 0.0);

    // The fourth column as level; reading ends at the first failed record.
    dir.write("sol.txt", "1 1 3 4 12.5\n1 1 3 x 1\n1 1 3 5 2\n");
    dmatrix c(5, 1);
    readsol((dir / "sol.txt").string(), 1, c, true);
    EXPECT_EQ(c(4, 1), 12.5);
    EXPECT_EQ(c(3, 1), 0.0);
    EXPECT_EQ(c(5, 1), 0.0);

    log.clear();
    dir.write("sol.txt", "1 1 3 12.5\n");
    EXPECT_THROW(readsol((dir / "sol.txt").string(), 1, c), error_stop);
    EXPECT_NE(log.text().find("The file " + (dir / "sol.txt").string() + " must contain 5 columns!"), std::string::npos);
    log.clear();
    dir.write("sol.txt", "1 1 9 9 12.5\n");
    EXPECT_THROW(readsol((dir / "sol.txt").string(), 1, c), error_stop);
    EXPECT_NE(log.text().find("level 9"), std::string::npos);
    EXPECT_THROW(readsol((dir / "absent").string(), 1, c), error_stop);
}

TEST(solution_files, WideAndSixColumns) {
    log_capture log;
    scratch_dir dir;
    dir.write("rel.txt", "1 1 0 0.5 0.25\n3 A 2 0.9 0.8\n");
    dmatrix r(3, 2);
    readsol_tarnelo((dir / "rel.txt").string(), r);
    EXPECT_EQ(r(1, 1), 0.5);
    EXPECT_EQ(r(3, 2), 0.8);
    dmatrix one(3, 1);
    EXPECT_THROW(readsol_tarnelo((dir / "rel.txt").string(), one), error_stop);
    EXPECT_NE(log.text().find("must contain 4 columns!"), std::string::npos);

    // The header is skipped; traits beyond the array end the reading with a warning.
    dir.write("six.txt", "trait type level effect solution se\n1 1 2 3 0.5 1\n1 1 1 4 9 1\n2 1 3 3 0.7 1\n1 1 3 3 1.5 1\n");
    dmatrix s(3, 2);
    readsol_tarnelo_reg((dir / "six.txt").string(), 3, s);
    EXPECT_EQ(s(2, 1), 0.5);
    EXPECT_EQ(s(1, 1), 0.0);
    EXPECT_EQ(s(3, 2), 0.7);
    EXPECT_EQ(s(3, 1), 1.5);
    log.clear();
    dmatrix s1(3, 1);
    readsol_tarnelo_reg((dir / "six.txt").string(), 3, s1);
    EXPECT_NE(log.text().find("More traits in the file " + (dir / "six.txt").string() +
                              " for effect 3 than allowed traits. Additional traits will be ignored."),
              std::string::npos);
    EXPECT_EQ(s1(3, 1), 0.0);  // the record after the warning is not read
    dir.write("six.txt", "1 1 2 3 0.5\n");
    EXPECT_THROW(readsol_tarnelo_reg((dir / "six.txt").string(), 3, s1), error_stop);
    EXPECT_NE(log.text().find("must contain 6 columns!"), std::string::npos);
}

}  // namespace
}  // namespace krel
