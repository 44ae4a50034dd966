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
#include <unistd.h>

#include "util/logger.h"
#include "util/modbasic.h"

namespace krel {
namespace {

// The expected texts below are what gfortran 12 writes for the same value and
// edit descriptor, except for "(g0)", which is the shortest round-trip text.

TEST(InttocharFormat, MinimalWidthWritesAllDigits) {
    EXPECT_EQ(inttochar_int4(0), "0");
    EXPECT_EQ(inttochar_int4(-12), "-12");
    EXPECT_EQ(inttochar_int4(123456, "(i0)"), "123456");
    EXPECT_EQ(inttochar_int4(std::numeric_limits<std::int32_t>::min()), "-2147483648");
    EXPECT_EQ(inttochar_int4(std::numeric_limits<std::int32_t>::max()), "2147483647");
    EXPECT_EQ(inttochar_int8(std::numeric_limits<std::int64_t>::min()), "-9223372036854775808");
    EXPECT_EQ(inttochar_int8(std::numeric_limits<std::int64_t>::max()), "9223372036854775807");
    // The overloads pick the kind from the argument.
    EXPECT_EQ(inttochar(std::int64_t{5000000000}), "5000000000");
    EXPECT_EQ(inttochar(std::int32_t{-7}), "-7");
}

TEST(InttocharFormat, FixedWidthIsTrimmedOrFilledWithAsterisks) {
    EXPECT_EQ(inttochar_int4(5, "(i5)"), "5");
    EXPECT_EQ(inttochar_int4(-1234, "(i5)"), "-1234");
    EXPECT_EQ(inttochar_int4(-1234, "(i4)"), "****");
    EXPECT_EQ(inttochar_int4(123456, "(i5)"), "*****");
    EXPECT_EQ(inttochar_int4(std::numeric_limits<std::int32_t>::min(), "(i6)"), "******");
    EXPECT_EQ(inttochar_int8(std::numeric_limits<std::int64_t>::min(), "(I20)"),
              "-9223372036854775808");
    EXPECT_EQ(inttochar_int8(std::numeric_limits<std::int64_t>::min(), "(i19)"),
              "*******************");
}

TEST(InttocharFormat, MinimumDigitsPadWithZeros) {
    EXPECT_EQ(inttochar_int4(5, "(i6.4)"), "0005");
    EXPECT_EQ(inttochar_int4(-12, "(i6.4)"), "-0012");
    EXPECT_EQ(inttochar_int4(-12, "(i0.3)"), "-012");
    EXPECT_EQ(inttochar_int4(123456, "(i6.4)"), "123456");
    EXPECT_EQ(inttochar_int4(0, "(i0.3)"), "000");
    // A zero under a minimum of zero digits has no digits at all.
    EXPECT_EQ(inttochar_int4(0, "(i0.0)"), "");
    EXPECT_EQ(inttochar_int4(0, "(i3.0)"), "");
    EXPECT_EQ(inttochar_int4(5, "(i0.0)"), "5");
}

TEST(InttocharFormat, BlankAndLiteralItemsKeepTheirBlanks) {
    EXPECT_EQ(inttochar_int4(37, "(2x,i0,'%')"), "  37%");
    EXPECT_EQ(inttochar_int4(-12, "(2x,i0,'%')"), "  -12%");
    EXPECT_EQ(inttochar_int4(7, "(i0,2x)"), "7  ");
    EXPECT_EQ(inttochar_int4(7, "(x,i0)"), " 7");
    EXPECT_EQ(inttochar_int4(7, "(I0,'%')"), "7%");
    EXPECT_EQ(inttochar_int4(5, "(i3,1x,\"a b\")"), "  5 a b");
    EXPECT_EQ(inttochar_int4(1234, "(i3,1x,\"a b\")"), "*** a b");
    EXPECT_EQ(inttochar_int4(7, "('it''s',i0)"), "it's7");
    EXPECT_EQ(inttochar_int8(std::int64_t{-9}, " ( 2X , I0 , ' %' ) "), "  -9 %");
}

TEST(InttocharFormat, RejectsWhatItCannotWrite) {
    for (const char* format : {"(a10)", "(i)", "(i0,i0)", "(2x,'%')", "(i0", "i0)", "(0x,i0)",
                               "(i5.6)", "(i0,'%)", "(i0.)", "(f0.3)", "(i99999999999)"}) {
        EXPECT_THROW(inttochar_int4(1, format), std::invalid_argument) << format;
    }
}

TEST(RealtocharFixed, MinimalWidthHasNoDigitBeforeThePointBelowOne) {
    EXPECT_EQ(realtochar_real8(0.05, "(f0.3)"), ".050");
    EXPECT_EQ(realtochar_real8(-0.05, "(f0.3)"), "-.050");
    EXPECT_EQ(realtochar_real8(0.0, "(f0.3)"), ".000");
    EXPECT_EQ(realtochar_real8(-0.0, "(f0.3)"), "-.000");
    EXPECT_EQ(realtochar_real8(-0.0001, "(f0.3)"), "-.000");
    EXPECT_EQ(realtochar_real8(1.0 / 3.0, "(f0.6)"), ".333333");
    EXPECT_EQ(realtochar_real8(123.456, "(f0.3)"), "123.456");
    EXPECT_EQ(realtochar_real8(-123.456, "(f0.3)"), "-123.456");
    EXPECT_EQ(realtochar_real8(1.0e6, "(f0.3)"), "1000000.000");
    EXPECT_EQ(realtochar_real8(1.0e-100, "(f0.3)"), ".000");
}

TEST(RealtocharFixed, RoundsToNearestWithCarry) {
    EXPECT_EQ(realtochar_real8(0.9996, "(f0.3)"), "1.000");
    EXPECT_EQ(realtochar_real8(-0.9996, "(f0.3)"), "-1.000");
    EXPECT_EQ(realtochar_real8(9.9999999, "(f0.3)"), "10.000");
    EXPECT_EQ(realtochar_real8(0.0005, "(f0.3)"), ".001");  // stored just above the tie
    EXPECT_EQ(realtochar_real8(0.0004999, "(f0.3)"), ".000");
    EXPECT_EQ(realtochar_real8(0.09999999, "(f0.3)"), ".100");
    // Exact binary ties go to the even digit.
    EXPECT_EQ(realtochar_real8(0.125, "(f0.2)"), ".12");
    EXPECT_EQ(realtochar_real8(0.375, "(f0.2)"), ".38");
    EXPECT_EQ(realtochar_real8(0.25, "(f0.1)"), ".2");
    EXPECT_EQ(realtochar_real8(0.35, "(f0.1)"), ".3");  // 0.35 is stored below the tie
}

TEST(RealtocharFixed, NoDecimalsKeepsTheOnlyDigit) {
    EXPECT_EQ(realtochar_real8(0.0, "(f0.0)"), "0.");
    EXPECT_EQ(realtochar_real8(0.05, "(f0.0)"), "0.");
    EXPECT_EQ(realtochar_real8(-0.05, "(f0.0)"), "-0.");
    EXPECT_EQ(realtochar_real8(0.5, "(f0.0)"), "0.");
    EXPECT_EQ(realtochar_real8(1.5, "(f0.0)"), "2.");
    EXPECT_EQ(realtochar_real8(2.5, "(f0.0)"), "2.");
    EXPECT_EQ(realtochar_real8(999999.5, "(f0.0)"), "1000000.");
    EXPECT_EQ(realtochar_real8(0.4, "(f1.0)"), "*");
    EXPECT_EQ(realtochar_real8(-0.05, "(f3.0)"), "-0.");
}

TEST(RealtocharFixed, WideValuesPrintEveryDigit) {
    EXPECT_EQ(realtochar_real8(1.0e100, "(f0.0)"),
              "10000000000000000159028911097599180468360808563945281389781327557747838772170381"
              "060813469985856815104.");
    const std::string max = realtochar_real8(DBL_MAX, "(f0.3)");
    EXPECT_EQ(max.size(), 313u);
    EXPECT_EQ(max.substr(0, 20), "17976931348623157081");
    EXPECT_EQ(max.substr(303), "858368.000");
}

TEST(RealtocharFixed, FieldWidthDropsTheZeroBeforeAsterisks) {
    EXPECT_EQ(realtochar_real8(0.05, "(f8.3)"), "0.050");
    EXPECT_EQ(realtochar_real8(-0.05, "(f8.3)"), "-0.050");
    EXPECT_EQ(realtochar_real8(0.0, "(f8.3)"), "0.000");
    EXPECT_EQ(realtochar_real8(-0.05, "(f5.3)"), "-.050");
    EXPECT_EQ(realtochar_real8(0.05, "(f5.3)"), "0.050");
    EXPECT_EQ(realtochar_real8(-0.5, "(f3.1)"), "-.5");
    EXPECT_EQ(realtochar_real8(0.125, "(f2.1)"), ".1");
    EXPECT_EQ(realtochar_real8(0.9996, "(f5.3)"), "1.000");
    EXPECT_EQ(realtochar_real8(-0.9996, "(f5.3)"), "*****");
    EXPECT_EQ(realtochar_real8(1.5, "(f2.1)"), "**");
    EXPECT_EQ(realtochar_real8(1.0e6, "(f8.3)"), "********");
    EXPECT_EQ(realtochar_real8(-123.456, "(f8.3)"), "-123.456");
}

TEST(RealtocharExponent, FieldWidthUsesTwoOrThreeExponentDigits) {
    EXPECT_EQ(realtochar_real8(12.345678, "(e16.8)"), "0.12345678E+02");
    EXPECT_EQ(realtochar_real8(0.0, "(e16.8)"), "0.00000000E+00");
    EXPECT_EQ(realtochar_real8(-0.0, "(e16.8)"), "-0.00000000E+00");
    EXPECT_EQ(realtochar_real8(0.05, "(e16.8)"), "0.50000000E-01");
    EXPECT_EQ(realtochar_real8(-123.456, "(e16.8)"), "-0.12345600E+03");
    EXPECT_EQ(realtochar_real8(9.9999999, "(e16.8)"), "0.99999999E+01");
    EXPECT_EQ(realtochar_real8(1.0e-100, "(e16.8)"), "0.10000000E-99");
    // Three exponent digits take the place of the E.
    EXPECT_EQ(realtochar_real8(1.0e100, "(e16.8)"), "0.10000000+101");
    EXPECT_EQ(realtochar_real8(DBL_MAX, "(e16.8)"), "0.17976931+309");
    EXPECT_EQ(realtochar_real8(DBL_MIN, "(e16.8)"), "0.22250739-307");
    EXPECT_EQ(realtochar_real8(1.0e-310, "(e16.8)"), "0.10000000-309");
    EXPECT_EQ(realtochar_real8(5.0e-324, "(e16.8)"), "0.49406565-323");
}

TEST(RealtocharExponent, RoundingCarriesIntoTheExponent) {
    EXPECT_EQ(realtochar_real8(0.9996, "(e10.3)"), "0.100E+01");
    EXPECT_EQ(realtochar_real8(999999.5, "(e10.3)"), "0.100E+07");
    EXPECT_EQ(realtochar_real8(0.0004999, "(e10.3)"), "0.500E-03");
    EXPECT_EQ(realtochar_real8(1.5, "(e8.1)"), "0.2E+01");  // tie to even
    EXPECT_EQ(realtochar_real8(0.25, "(e8.1)"), "0.2E+00");
    EXPECT_EQ(realtochar_real8(0.015, "(e8.1)"), "0.1E-01");  // stored below the tie
}

TEST(RealtocharExponent, NarrowFieldsDropTheZeroThenOverflow) {
    EXPECT_EQ(realtochar_real8(-0.5, "(e15.8)"), "-0.50000000E+00");
    EXPECT_EQ(realtochar_real8(-0.5, "(e14.8)"), "-.50000000E+00");
    EXPECT_EQ(realtochar_real8(0.5, "(e13.8)"), ".50000000E+00");
    EXPECT_EQ(realtochar_real8(0.5, "(e12.8)"), "************");
    EXPECT_EQ(realtochar_real8(1.0e200, "(e9.3)"), "0.100+201");
    EXPECT_EQ(realtochar_real8(1.0e200, "(e8.3)"), ".100+201");
}

TEST(RealtocharExponent, MinimalWidthUsesFewestExponentDigits) {
    EXPECT_EQ(realtochar_real8(0.05, "(e0.8)"), "0.50000000E-1");
    EXPECT_EQ(realtochar_real8(-0.0001, "(e0.8)"), "-0.10000000E-3");
    EXPECT_EQ(realtochar_real8(1.0e100, "(e0.8)"), "0.10000000E+101");
    EXPECT_EQ(realtochar_real8(5.0e-324, "(e0.8)"), "0.49406565E-323");
    EXPECT_EQ(realtochar_real8(-0.5, "(e0.8)"), "-0.50000000");
    // gfortran leaves out an exponent of zero altogether.
    EXPECT_EQ(realtochar_real8(0.0, "(e0.8)"), "0.00000000");
    EXPECT_EQ(realtochar_real8(0.125, "(e0.8)"), "0.12500000");
    EXPECT_EQ(realtochar_real8(0.09996, "(e0.3)"), "0.100");
}

TEST(RealtocharExponent, ScientificForm) {
    EXPECT_EQ(realtochar_real8(0.05, "(es16.8)"), "5.00000000E-02");
    EXPECT_EQ(realtochar_real8(0.0, "(es16.8)"), "0.00000000E+00");
    EXPECT_EQ(realtochar_real8(1.0e100, "(es16.8)"), "1.00000000+100");
    EXPECT_EQ(realtochar_real8(1.0e-310, "(es16.8)"), "1.00000000-310");
    EXPECT_EQ(realtochar_real8(9.9999999, "(es16.8)"), "9.99999990E+00");
    EXPECT_EQ(realtochar_real8(1.0e100, "(es10.3)"), "1.000+100");
    EXPECT_EQ(realtochar_real8(0.5, "(es13.8)"), "*************");
    EXPECT_EQ(realtochar_real8(1.5, "(es8.0)"), "2.E+00");
    EXPECT_EQ(realtochar_real8(-25.0, "(es8.0)"), "-2.E+01");
    EXPECT_EQ(realtochar_real8(123.456, "(es0.4)"), "1.2346E+2");
    EXPECT_EQ(realtochar_real8(0.05, "(es0.4)"), "5.0000E-2");
    EXPECT_EQ(realtochar_real8(1.0e100, "(es0.4)"), "1.0000E+100");
    EXPECT_EQ(realtochar_real8(2.5, "(es0.4)"), "2.5000");
    EXPECT_EQ(realtochar_real8(999999.5, "(es0.4)"), "1.0000E+6");
}

TEST(RealtocharGeneral, FixedFormInsideTheRangeOfTheDigits) {
    EXPECT_EQ(realtochar_real8(0.9996, "(g0.6)"), "0.999600");
    EXPECT_EQ(realtochar_real8(-0.5, "(g0.6)"), "-0.500000");
    EXPECT_EQ(realtochar_real8(0.1, "(g0.6)"), "0.100000");
    EXPECT_EQ(realtochar_real8(0.09999999, "(g0.6)"), "0.100000");
    EXPECT_EQ(realtochar_real8(0.0999999, "(g0.6)"), "0.999999E-1");
    EXPECT_EQ(realtochar_real8(123.456, "(g0.6)"), "123.456");
    EXPECT_EQ(realtochar_real8(9.9999999, "(g0.6)"), "10.0000");
    EXPECT_EQ(realtochar_real8(100000.4, "(g0.6)"), "100000.");
    EXPECT_EQ(realtochar_real8(999999.4, "(g0.6)"), "999999.");
    EXPECT_EQ(realtochar_real8(123.456, "(g0.3)"), "123.");
    EXPECT_EQ(realtochar_real8(0.9996, "(g0.3)"), "1.00");
    EXPECT_EQ(realtochar_real8(9.9999999, "(g0.3)"), "10.0");
    EXPECT_EQ(realtochar_real8(1.5, "(g0.1)"), "2.");
    EXPECT_EQ(realtochar_real8(1.0e6, "(g0.15)"), "1000000.00000000");
}

TEST(RealtocharGeneral, ExponentFormOutsideTheRange) {
    EXPECT_EQ(realtochar_real8(0.05, "(g0.6)"), "0.500000E-1");
    EXPECT_EQ(realtochar_real8(-0.05, "(g0.6)"), "-0.500000E-1");
    EXPECT_EQ(realtochar_real8(1.0e6, "(g0.6)"), "0.100000E+7");
    EXPECT_EQ(realtochar_real8(999999.5, "(g0.6)"), "0.100000E+7");
    EXPECT_EQ(realtochar_real8(1.0e100, "(g0.6)"), "0.100000E+101");
    EXPECT_EQ(realtochar_real8(DBL_MAX, "(g0.6)"), "0.179769E+309");
    EXPECT_EQ(realtochar_real8(5.0e-324, "(g0.6)"), "0.494066E-323");
    EXPECT_EQ(realtochar_real8(0.0004999, "(g0.3)"), "0.500E-3");
    EXPECT_EQ(realtochar_real8(0.005, "(g0.1)"), "0.5E-2");
}

TEST(RealtocharGeneral, ZeroShowsOneDigitFewer) {
    EXPECT_EQ(realtochar_real8(0.0, "(g0.6)"), "0.00000");
    EXPECT_EQ(realtochar_real8(-0.0, "(g0.6)"), "-0.00000");
    EXPECT_EQ(realtochar_real8(0.0, "(g0.2)"), "0.0");
    EXPECT_EQ(realtochar_real8(0.0, "(g0.1)"), "0.");
}

TEST(RealtocharShortest, AwkwardValuesReadBackExactly) {
    const struct {
        double value;
        const char* text;
    } cases[] = {
        {0.1, "0.1"},
        {1.0 / 3.0, "0.3333333333333333"},
        {1.0e-310, "1e-310"},
        {5.0e-324, "5e-324"},
        {DBL_MAX, "1.7976931348623157e+308"},
        {-2.5, "-2.5"},
        {0.0, "0"},
        {-0.0, "-0"},
        {1.0e6, "1e+06"},
        {123456789.0, "123456789"},
    };
    for (const auto& c : cases) {
        const std::string text = realtochar_real8(c.value);
        EXPECT_EQ(text, c.text);
        EXPECT_EQ(std::strtod(text.c_str(), nullptr), c.value) << text;
        EXPECT_EQ(std::signbit(std::strtod(text.c_str(), nullptr)), std::signbit(c.value)) << text;
    }
    EXPECT_EQ(realtochar(0.1, "G0"), "0.1");
    EXPECT_EQ(realtochar(0.1, "g0"), "0.1");
}

TEST(RealtocharShortest, RandomBitPatternsRoundTrip) {
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

TEST(RealtocharNonFinite, SpelledOutOnlyWhenTheFieldIsWide) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double inf = std::numeric_limits<double>::infinity();
    EXPECT_EQ(realtochar_real8(nan), "NaN");
    EXPECT_EQ(realtochar_real8(inf), "Inf");
    EXPECT_EQ(realtochar_real8(-inf), "-Inf");
    EXPECT_EQ(realtochar_real8(nan, "(f0.3)"), "NaN");
    EXPECT_EQ(realtochar_real8(-inf, "(g0.6)"), "-Inf");
    EXPECT_EQ(realtochar_real8(inf, "(e0.8)"), "Inf");
    EXPECT_EQ(realtochar_real8(inf, "(f8.3)"), "Infinity");
    EXPECT_EQ(realtochar_real8(-inf, "(f8.3)"), "-Inf");
    EXPECT_EQ(realtochar_real8(-inf, "(e16.8)"), "-Infinity");
    EXPECT_EQ(realtochar_real8(inf, "(f5.3)"), "Inf");
    EXPECT_EQ(realtochar_real8(nan, "(f3.1)"), "NaN");
    EXPECT_EQ(realtochar_real8(-inf, "(f3.1)"), "***");
    EXPECT_EQ(realtochar_real8(nan, "(f2.1)"), "**");
}

TEST(RealtocharSyntax, ParenthesesCaseAndBlanksAreOptional) {
    EXPECT_EQ(realtochar_real8(0.05, "f0.3"), ".050");
    EXPECT_EQ(realtochar_real8(0.05, "F0.3"), ".050");
    EXPECT_EQ(realtochar_real8(0.05, " ( f0.3 ) "), ".050");
    EXPECT_EQ(realtochar_real8(0.05, "E16.8"), "0.50000000E-01");
    EXPECT_EQ(realtochar_real8(0.05, "(ES16.8)"), "5.00000000E-02");
    EXPECT_EQ(realtochar(0.05, "G0.6"), "0.500000E-1");
}

TEST(RealtocharSyntax, RejectsUnknownDescriptors) {
    for (const char* format : {"", "()", "(a10)", "(i0)", "(d16.8)", "(f0)", "(f.3)", "(f0.3",
                               "f0.3)", "(g5.2)", "(g0.0)", "(e16.0)", "(e0.0)", "(es0.0)",
                               "(e16.8e3)", "(f0.3,f0.3)", "(f0.99999)", "(en12.3)", "(f-1.3)"}) {
        EXPECT_THROW(realtochar_real8(1.0, format), std::invalid_argument) << format;
    }
}

TEST(Outputfile, JoinsDirectoryAndFileName) {
    EXPECT_EQ(outputfile("out/", "data/run1/solutions.txt"), "out/solutions.txt");
    EXPECT_EQ(outputfile("out/   ", "/abs/path/file"), "out/file");
    EXPECT_EQ(outputfile("out/", "plain.txt"), "out/plain.txt");
    EXPECT_EQ(outputfile("", "a/b"), "b");
    EXPECT_EQ(outputfile("results", "x/y"), "resultsy");  // the dir brings its own "/"
    EXPECT_EQ(outputfile("out/", "dir/"), "out/");
}

TEST(PosWords, StartsOfWordsAreOneBased) {
    EXPECT_EQ(pos_words("ab cd"), (std::vector<int>{1, 4}));
    EXPECT_EQ(pos_words("  ab   cd\tef  "), (std::vector<int>{3, 8, 11}));
    EXPECT_EQ(pos_words("\tx"), (std::vector<int>{2}));
    EXPECT_TRUE(pos_words("").empty());
    EXPECT_TRUE(pos_words(" \t  ").empty());
}

TEST(ProgressBar, OneBarPerLoop) {
    progress_bar bar;
    std::ostringstream out;
    for (int pass = 0; pass < 2; ++pass)
        for (std::int64_t i = 1; i <= 1000; ++i) bar.update(i, 1000, out);
    const std::string line = "  10%  20%  30%  40%  50%  60%  70%  80%  90%  100%\n";
    EXPECT_EQ(out.str(), line + line);
}

TEST(ProgressBar, PrintsEachTenthOnceWithTheTruncatedPercentage) {
    progress_bar bar;
    std::ostringstream out;
    for (std::int64_t i = 1; i <= 7; ++i) bar.update(i, 7, out);
    EXPECT_EQ(out.str(), "  14%  28%  42%  57%  71%  85%  100%\n");

    std::ostringstream again;
    bar.update(50, 100, again);
    bar.update(50, 100, again);
    bar.update(59, 100, again);
    EXPECT_EQ(again.str(), "  50%");
}

TEST(ProgressBar, RatioIsTakenInSinglePrecision) {
    // 100000000 / 100000001 is 1 in single precision: the bar is complete.
    progress_bar bar;
    std::ostringstream out;
    bar.update(100000000, 100000001, out);
    EXPECT_EQ(out.str(), "  100%\n");
}

TEST(ProgressBar, NothingForAnEmptyLoop) {
    progress_bar bar;
    std::ostringstream out;
    bar.update(1, 0, out);
    bar.update(0, 0, out);
    bar.update(5, -3, out);
    bar.update(-5, 10, out);
    EXPECT_EQ(out.str(), "");
}

class MakeDirectory : public ::testing::Test {
protected:
    testing::scratch_dir dir_;
    const std::filesystem::path root_ = dir_ / "root";
    testing::log_capture log_;
};

TEST_F(MakeDirectory, CreatesParentsAndLogsSuccess) {
    const std::string path = (root_ / "a" / "b" / "c").string();
    EXPECT_TRUE(make_directory(path));
    EXPECT_TRUE(std::filesystem::is_directory(path));
    EXPECT_EQ(log_.text(), path + " created sucessfully\n");
}

TEST_F(MakeDirectory, ExistingDirectoryIsSuccess) {
    const std::string path = (root_ / "d").string() + "/";
    ASSERT_TRUE(make_directory(path));
    log_.clear();
    EXPECT_TRUE(make_directory(path));
    EXPECT_NE(log_.text().find("created sucessfully"), std::string::npos);
}

TEST_F(MakeDirectory, FailureIsLoggedAndReturned) {
    std::filesystem::create_directories(root_);
    const std::filesystem::path file = root_ / "file";
    std::ofstream(file) << "x";
    const std::string path = (file / "sub").string();
    EXPECT_FALSE(make_directory(path));
    EXPECT_FALSE(std::filesystem::exists(path));
    const std::string text = log_.text();
    EXPECT_NE(text.find("modbasic % make_directory ("), std::string::npos) << text;
    EXPECT_NE(text.find("ERROR: "), std::string::npos) << text;
    EXPECT_NE(text.find(path), std::string::npos) << text;
    EXPECT_EQ(text.find("sucessfully"), std::string::npos) << text;

    log_.clear();
    EXPECT_FALSE(make_directory(file.string()));  // a file of that name is in the way
    EXPECT_NE(log_.text().find("ERROR: "), std::string::npos);
}

}  // namespace
}  // namespace krel
