#include <gtest/gtest.h>

#include "test_support.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "util/dense_square_file.h"
#include "util/error_stop.h"
#include "util/logger.h"

namespace krel {
namespace {

namespace fs = std::filesystem;

class WriteDensesquare : public ::testing::Test {
protected:
    void SetUp() override {
        // The upper triangle holds the matrix; the lower one is filled with
        // other values so that output from the wrong triangle shows.
        m_.n = 3;
        m_.ids = {7, 12, 3};
        m_.a.resize(3, 3);
        m_.a.assign(999.0);
        m_.a(1, 1) = 1.5;
        m_.a(1, 2) = -0.5;
        m_.a(2, 2) = 2.0;
        m_.a(1, 3) = 0.0;
        m_.a(2, 3) = 1234.5678;
        m_.a(3, 3) = 1e-3;
    }
    testing::log_capture log_;
    testing::scratch_dir dir_;
    densesquare_type m_;
};

TEST_F(WriteDensesquare, TriangleFormatsWriteTheUpperTriangleByColumns) {
    const std::string expected =
        "3 0 \n"
        "7 12 3 \n"
        // Minimum width: the exponent takes as few digits as it needs, none when zero.
        "0.15000000E+1 \n"
        "-0.50000000 0.20000000E+1 \n"
        "0.00000000 0.12345678E+4 0.10000000E-2 \n";
    const fs::path tri = dir_ / "tri.txt";
    const fs::path utri = dir_ / "utri.txt";
    std::ofstream(tri) << "a much longer old content that has to disappear entirely\n";
    m_.write_densesquare(tri.string(), "tri");
    m_.write_densesquare(utri.string(), "_tri");
    EXPECT_EQ(testing::read_text(tri), expected);
    EXPECT_EQ(testing::read_text(utri), expected);
    EXPECT_EQ(log_.text(), "");
}

TEST_F(WriteDensesquare, UnknownFormatOrUnopenableFileIsLogged) {
    const fs::path p = dir_ / "full.txt";
    EXPECT_NO_THROW(m_.write_densesquare(p.string(), "full"));
    EXPECT_FALSE(fs::exists(p));
    EXPECT_TRUE(testing::contains(log_.text(), "ERROR: The format \"full\" for the densesquare matrix is not implemented!\n"))
        << log_.text();
    const fs::path q = dir_ / "missing_directory" / "m.txt";
    EXPECT_THROW(m_.write_densesquare(q.string(), "tri"), error_stop);
    EXPECT_TRUE(testing::contains(log_.text(), q.string())) << log_.text();
}

}  // namespace
}  // namespace krel
