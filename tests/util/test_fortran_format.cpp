#include <gtest/gtest.h>

#include "test_support.h"

#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>

#include "util/fortran_format.h"

namespace krel {
namespace {

// The expected texts below are what gfortran 12 writes for the same value and
// edit descriptor, except for "(g0)", which is the shortest round-trip text.

TEST(InttocharFormat, WidthsDigitsAndLiterals) {
    EXPECT_EQ(inttochar_int4(-12), "-12");
    EXPECT_EQ(inttochar_int4(std::numeric_limits<std::int32_t>::min()), "-2147483648");
    EXPECT_EQ(inttochar_int8(std::numeric_limits<std::int64_t>::min()), "-9223372036854775808");
    EXPECT_EQ(inttochar(std::int64_t{5000000000}), "5000000000");
    EXPECT_EQ(inttochar_int4(5, "(i5)"), "5");  // trimmed
    EXPECT_EQ(inttochar_int4(-1234, "(i4)"), "****");
    EXPECT_EQ(inttochar_int8(std::numeric_limits<std::int64_t>::min(), "(i19)"),
              "*******************");
    EXPECT_EQ(inttochar_int4(-12, "(i6.4)"), "-0012");
    EXPECT_EQ(inttochar_int4(0, "(i0.0)"), "");  // a zero under zero digits has none
    EXPECT_EQ(inttochar_int4(5, "(i0.0)"), "5");
    // Blank and literal items keep their blanks.
    EXPECT_EQ(inttochar_int4(37, "(2x,i0,'%')"), "  37%");
    EXPECT_EQ(inttochar_int4(7, "(i0,2x)"), "7  ");
    EXPECT_EQ(inttochar_int4(1234, "(i3,1x,\"a b\")"), "*** a b");
    EXPECT_EQ(inttochar_int4(7, "('it''s',i0)"), "it's7");
    EXPECT_EQ(inttochar_int8(std::int64_t{-9}, " ( 2X , I0 , ' %' ) "), "  -9 %");
    for (const char* format : {"(a10)", "(i)", "(i0,i0)", "(2x,'%')", "(i0", "i0)", "(0x,i0)",
                               "(i5.6)", "(i0,'%)", "(i0.)", "(f0.3)", "(i99999999999)"})
        EXPECT_THROW(inttochar_int4(1, format), std::invalid_argument) << format;
}

TEST(Realtochar, EditDescriptors) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double inf = std::numeric_limits<double>::infinity();
    const struct {
        double value;
        const char* format;
        const char* text;
    } cases[] = {
        // f0.d: no digit before the point below one; round to nearest, ties to even.
        {0.05, "(f0.3)", ".050"}, {-0.05, "(f0.3)", "-.050"}, {-0.0, "(f0.3)", "-.000"},
        {-0.0001, "(f0.3)", "-.000"}, {-123.456, "(f0.3)", "-123.456"},
        {0.9996, "(f0.3)", "1.000"}, {9.9999999, "(f0.3)", "10.000"},
        {0.0005, "(f0.3)", ".001"},  // stored just above the tie
        {0.125, "(f0.2)", ".12"}, {0.375, "(f0.2)", ".38"}, {0.35, "(f0.1)", ".3"},
        {0.05, "(f0.0)", "0."}, {-0.05, "(f0.0)", "-0."}, {2.5, "(f0.0)", "2."},
        {999999.5, "(f0.0)", "1000000."},
        {1.0e100, "(f0.0)",
         "10000000000000000159028911097599180468360808563945281389781327557747838772170381"
         "060813469985856815104."},
        // fw.d: the zero before the point goes first, then the value overflows.
        {0.05, "(f8.3)", "0.050"}, {-0.05, "(f5.3)", "-.050"}, {-0.9996, "(f5.3)", "*****"},
        // ew.d: two exponent digits, or three in place of the E.
        {12.345678, "(e16.8)", "0.12345678E+02"}, {1.0e100, "(e16.8)", "0.10000000+101"},
        {0.9996, "(e10.3)", "0.100E+01"}, {-0.5, "(e14.8)", "-.50000000E+00"}, {0.5, "(e12.8)", "************"},
        // e0.d: fewest exponent digits; gfortran leaves out an exponent of zero.
        {0.05, "(e0.8)", "0.50000000E-1"}, {1.0e100, "(e0.8)", "0.10000000E+101"},
        {5.0e-324, "(e0.8)", "0.49406565E-323"}, {-0.5, "(e0.8)", "-0.50000000"},
        {0.0, "(e0.8)", "0.00000000"}, {0.09996, "(e0.3)", "0.100"},
        // esw.d and es0.d.
        {0.05, "(es16.8)", "5.00000000E-02"}, {1.0e-310, "(es16.8)", "1.00000000-310"},
        {0.5, "(es13.8)", "*************"}, {-25.0, "(es8.0)", "-2.E+01"},
        {123.456, "(es0.4)", "1.2346E+2"}, {2.5, "(es0.4)", "2.5000"},
        // g0.d: fixed form inside the range of the digits, exponent form outside.
        {0.9996, "(g0.6)", "0.999600"}, {-0.5, "(g0.6)", "-0.500000"},
        {0.09999999, "(g0.6)", "0.100000"}, {0.0999999, "(g0.6)", "0.999999E-1"},
        {9.9999999, "(g0.6)", "10.0000"}, {999999.4, "(g0.6)", "999999."},
        {123.456, "(g0.3)", "123."}, {1.5, "(g0.1)", "2."},
        {1.0e6, "(g0.15)", "1000000.00000000"}, {-0.05, "(g0.6)", "-0.500000E-1"},
        {999999.5, "(g0.6)", "0.100000E+7"}, {1.0e100, "(g0.6)", "0.100000E+101"},
        {5.0e-324, "(g0.6)", "0.494066E-323"}, {0.005, "(g0.1)", "0.5E-2"},
        {0.0, "(g0.6)", "0.00000"}, {-0.0, "(g0.6)", "-0.00000"}, {0.0, "(g0.1)", "0."},
        // Non-finite values are spelled out only as far as the field allows.
        {nan, "(g0)", "NaN"}, {-inf, "(g0)", "-Inf"}, {-inf, "(g0.6)", "-Inf"},
        {inf, "(e0.8)", "Inf"}, {inf, "(f8.3)", "Infinity"}, {-inf, "(f8.3)", "-Inf"},
        {-inf, "(e16.8)", "-Infinity"}, {nan, "(f3.1)", "NaN"}, {-inf, "(f3.1)", "***"},
        {nan, "(f2.1)", "**"},
        // Parentheses, case and blanks are optional.
        {0.05, "F0.3", ".050"}, {0.05, " ( f0.3 ) ", ".050"}, {0.05, "E16.8", "0.50000000E-01"},
        {0.05, "(ES16.8)", "5.00000000E-02"}, {0.05, "G0.6", "0.500000E-1"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(realtochar_real8(c.value, c.format), c.text) << c.value << " " << c.format;
    for (const char* format : {"", "()", "(a10)", "(i0)", "(d16.8)", "(f0)", "(f.3)", "(f0.3",
                               "f0.3)", "(g5.2)", "(g0.0)", "(e16.0)", "(e0.0)", "(es0.0)",
                               "(e16.8e3)", "(f0.3,f0.3)", "(f0.99999)", "(en12.3)", "(f-1.3)"})
        EXPECT_THROW(realtochar_real8(1.0, format), std::invalid_argument) << format;
}

TEST(Realtochar, ShortestTextReadsBackExactly) {
    const struct {
        double value;
        const char* text;
    } cases[] = {{1.0 / 3.0, "0.3333333333333333"}, {5.0e-324, "5e-324"}, {-0.0, "-0"},
                 {1.0e6, "1e+06"}, {123456789.0, "123456789"}};
    for (const auto& c : cases) {
        const std::string text = realtochar(c.value);
        EXPECT_EQ(text, c.text);
        EXPECT_EQ(std::signbit(std::strtod(text.c_str(), nullptr)), std::signbit(c.value)) << text;
    }
    EXPECT_EQ(realtochar(0.1, "g0"), "0.1");
    std::mt19937_64 bits(20240611);
    for (int k = 0; k < 20000; ++k) {
        const std::uint64_t b = bits();
        double x;
        std::memcpy(&x, &b, sizeof x);
        if (!std::isfinite(x)) continue;
        const std::string text = realtochar_real8(x);
        ASSERT_EQ(std::strtod(text.c_str(), nullptr), x) << text;
        ASSERT_LE(text.size(), 24u) << text;
    }
}

TEST(Outputfile, JoinsDirectoryAndFileNameAndFindsWords) {
    EXPECT_EQ(outputfile("out/   ", "/abs/path/file"), "out/file");
    EXPECT_EQ(outputfile("results", "x/y"), "resultsy");  // the dir brings its own "/"
    EXPECT_EQ(pos_words("  ab   cd\tef  "), (std::vector<int>{3, 8, 11}));
}

TEST(ProgressBar, EachTenthOncePerLoop) {
    progress_bar bar;
    std::ostringstream out;
    for (int pass = 0; pass < 2; ++pass)
        for (std::int64_t i = 1; i <= 7; ++i) bar.update(i, 7, out);
    const std::string line = "  14%  28%  42%  57%  71%  85%  100%\n";  // truncated percentages
    EXPECT_EQ(out.str(), line + line);
    std::ostringstream edges;
    bar.update(100000000, 100000001, edges);  // a ratio of 1 in single precision
    bar.update(1, 0, edges);
    bar.update(-5, 10, edges);
    EXPECT_EQ(edges.str(), "  100%\n");
}

TEST(MakeDirectory, CreatesParentsOrLogsTheFailure) {
    testing::scratch_dir dir;
    testing::log_capture log;
    const std::string path = (dir / "a" / "b").string() + "/";
    EXPECT_TRUE(make_directory(path));
    EXPECT_TRUE(std::filesystem::is_directory(path));
    EXPECT_EQ(log.text(), path + " created sucessfully\n");
    dir.write("file", "x");
    const std::string sub = (dir / "file" / "sub").string();
    log.clear();
    EXPECT_FALSE(make_directory(sub));
    EXPECT_TRUE(testing::contains(log.text(), "modbasic % make_directory (")) << log.text();
    EXPECT_TRUE(testing::contains(log.text(), "ERROR: ")) << log.text();
    EXPECT_TRUE(testing::contains(log.text(), sub)) << log.text();
}

}  // namespace
}  // namespace krel
