// Genotype-side readers on spoilt input: text genotypes, PLINK filesets and
// frequency files stop with the file, the line and the value; a byte-order
// mark at the start of a file and chromosome names in a .bim are read through.
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "inputs/frequency_file.h"
#include "inputs/genotypes.h"
#include "inputs/plink_reader.h"
#include "test_support.h"
#include "util/error_stop.h"
#include "util/freeform.h"

namespace krel {
namespace {

using testing::contains;
using testing::scratch_dir;

const std::string bom = "\xEF\xBB\xBF";

// The log wraps long messages: compared with runs of blanks and line ends as one blank.
std::string flat(const std::string& text) {
    std::string out;
    for (char c : text) {
        const bool blank = c == ' ' || c == '\n';
        if (!blank) out += c;
        else if (!out.empty() && out.back() != ' ') out += ' ';
    }
    return out;
}

class BadGenotypeInput : public ::testing::Test {
protected:
    std::string path(const std::string& name) const { return (dir_ / name).string(); }

    covariable_type read_text(const std::string& text) {
        dir_.write("g.txt", text);
        covariable_type cov;
        std::int32_t nsnp = -1, ngeno = -1;
        bool isplink = false;
        readgenotype(path("g.txt"), "none", 50, nsnp, ngeno, cov, isplink);
        return cov;
    }

    // A fileset of the given .fam and .bim texts whose .bed holds `snps`
    // SNPs of `individuals` of one genotype code, the padding bits set the
    // same way, plus `extra` bytes (negative: that many fewer).
    covariable_type read_plink(const std::string& fam, const std::string& bim, int snps, int individuals,
                               int extra = 0, const std::string& freqfile = "compute", char code = '\xAA') {
        dir_.write("g.fam", fam);
        dir_.write("g.bim", bim);
        const int bytes = snps * ((individuals + 3) / 4) + extra;
        dir_.write("g.bed", std::string("\x6C\x1B\x01", 3) + std::string(static_cast<std::size_t>(bytes), code));
        covariable_type cov;
        std::int32_t nsnp = -1, ngeno = -1;
        bool isplink = false;
        readgenotype(path("g.bed"), freqfile, 50, nsnp, ngeno, cov, isplink);
        return cov;
    }

    void expect_stop(const std::function<void()>& read, const std::string& message, const std::string& what) {
        log_.clear();
        EXPECT_THROW(read(), error_stop) << what;
        EXPECT_TRUE(contains(flat(log_.text()), flat(message))) << what << "\n" << log_.text();
    }

    testing::log_capture log_;
    scratch_dir dir_;
};

TEST_F(BadGenotypeInput, TextRecordsStopWithFileLineAndValue) {
    const std::string g = path("g.txt");
    struct bad {
        std::string text, message;
    };
    const std::vector<bad> cases = {
        // Level given twice: the second row would have no animal.
        {"1 0 1\n2 1 1\n\n1 2 2\n", "The level 1 on line 4 of " + g + " was already given on line 1"},
        {"7 01\n 7 11\n", "The level 7 on line 2 of " + g + " was already given on line 1"},
        // A record that cannot be read in the middle of the file.
        {"1 0.5 1\n2 1 NA\n3 2 2\n", "The value 'NA' of SNP 2 on line 2 of " + g + " is not a finite number"},
        {"1 -0.5 1\n2 nan 1\n", "The value 'nan' of SNP 1 on line 2 of " + g},
        {"1 0 1\nB2 1 1\n", "The identity 'B2' on line 2 of " + g + " is not an integer"},
        {"1 01\nB2 11\n", "The identity 'B2' on line 2 of " + g + " is not an integer"},
        {"1 01\n2 1x\n3 22\n", "The genotype 'x' of SNP 2 on line 2 of " + g + " is not 0, 1 or 2"},
        // Values outside the allele counts.
        {"1 0129\n", "The genotype '9' of SNP 4 on line 1 of " + g},
        {"1 0123\n", "The genotype '3' of SNP 4 on line 1 of " + g},
        // Whole numbers on the first record: a file of allele counts.
        {"1 0 1\n2 3 1\n", "The genotype '3' of SNP 1 on line 2 of " + g},
        {"1 0 1\n2 1 -1\n", "The genotype '-1' of SNP 2 on line 2 of " + g},
        {"1 0 1\n2 1.5 1\n", "The genotype '1.5' of SNP 1 on line 2 of " + g},
        {"1 0 1\n2 1 A\n", "The genotype 'A' of SNP 2 on line 2 of " + g},
        {"1 0 9\n2 1 1\n", "The genotype '9' of SNP 2 on line 1 of " + g},
    };
    for (const auto& c : cases) expect_stop([&] { read_text(c.text); }, c.message, c.text);

    // A fraction on the first record: centred genotypes, taken as they stand.
    const covariable_type centred = read_text("1 -1.25 0.5\n2 2 1.0d0\n3 -1 9\n");
    EXPECT_EQ(centred.val(1, 1), -1.25);
    EXPECT_EQ(centred.val(2, 2), 1.0);
    EXPECT_EQ(centred.val(2, 3), 9.0);
}

TEST_F(BadGenotypeInput, ByteOrderMarkAtTheStartIsSkipped) {
    std::string line = bom + "12 0";
    EXPECT_TRUE(skip_utf8_bom(line));
    EXPECT_EQ(line, "12 0");
    EXPECT_FALSE(skip_utf8_bom(line));
    std::string_view view = "\xEF\xBB\xBF" "5";
    EXPECT_TRUE(skip_utf8_bom(view));
    EXPECT_EQ(view, "5");

    for (const std::string text : {"4 0 2 1\n9 1 1 2\n", "4 021\n9 112\n"}) {
        const covariable_type marked = read_text(bom + text);
        EXPECT_EQ(marked.idmap[4], 1) << text;
        EXPECT_EQ(marked.idmap[9], 2) << text;
        EXPECT_EQ(marked.val(3, 2), 2.0) << text;
    }
    // Only at the start of a file: elsewhere it is text that cannot be read.
    expect_stop([&] { read_text("4 0 2 1\n" + bom + "9 1 1 2\n"); }, "on line 2 of " + path("g.txt"), "inside");

    dir_.write("f.txt", bom + "1 0.25\n2 1\n3 0\n");
    std::int32_t n = 0;
    std::vector<double> freq;
    readfrequency(path("f.txt"), n, freq);
    EXPECT_EQ(freq, (std::vector<double>{0.25, 1.0, 0.0}));

    const covariable_type plink = read_plink(bom + "3 3 0 0 1 -9\n8 8 0 0 1 -9\n",
                                             bom + "1 a 0 1 A G\n1 b 0 2 A G\n1 c 0 3 A G\n", 3, 2, 0, path("f.txt"));
    EXPECT_EQ(plink.nsnp, 3);
    EXPECT_EQ(plink.idmap[3], 1);
    EXPECT_EQ(plink.idmap[8], 2);
    EXPECT_EQ(plink.val(1, 1), 0.25);
}

TEST_F(BadGenotypeInput, FrequenciesOutsideZeroToOneStop) {
    std::int32_t n = 0;
    std::vector<double> freq;
    for (const std::string value : {"1.0001", "-0.1", "nan", "inf"}) {
        dir_.write("f.txt", "1 0.5\n\n2 " + value + "\n3 0.5\n");
        const std::string message =
            "The allele frequency '" + value + "' on line 3 of " + path("f.txt") + " is not between 0 and 1";
        expect_stop([&] { readfrequency(path("f.txt"), n, freq); }, message, value);
        expect_stop([&] { read_plink("1 1 0 0 1 -9\n", "1 a\n1 b\n1 c\n", 3, 1, 0, path("f.txt")); }, message,
                    value + " (PLINK)");
    }
}

TEST_F(BadGenotypeInput, PlinkFilesMustAgreeWhateverTheChromosomeCodes) {
    const std::string fam = "1 1 0 0 1 -9\n2 2 0 0 1 -9\n3 3 0 0 1 -9\n4 4 0 0 1 -9\n5 5 0 0 1 -9\n";
    const std::string bim = "X a 0 1 A G\n23 b 0 2 A G\nchrX c 0 3 A G\nMT d 0 4 A G\nY e 0 5 A G\n";
    // Five individuals, two bytes a SNP.
    const covariable_type cov = read_plink(fam, bim, 5, 5);
    EXPECT_EQ(cov.nsnp, 5);
    EXPECT_EQ(cov.ncol, 2);
    // The three padding codes of each SNP are heterozygous too, and must not count.
    for (int snp = 1; snp <= 5; ++snp) EXPECT_EQ(cov.val(snp, 1), 0.5) << "SNP " << snp;
    EXPECT_EQ(cov.ival(1, 2) & ~0x03, 0);

    const std::string prefix = "g.bed holds ";
    const std::string counts = " bytes of genotypes, but the ";
    for (const auto& [snps, extra, message] : std::vector<std::tuple<int, int, std::string>>{
             {6, 0, prefix + "12" + counts + "5 SNPs of " + path("g.bim")},  // .bim a line short
             {5, 1, prefix + "11" + counts + "5 SNPs"},                      // a byte to spare
             {5, -3, prefix + "7" + counts + "5 SNPs of " + path("g.bim") + " and the 5 individuals of " +
                         path("g.fam") + " need 10 (2 bytes a SNP)"}}) {
        expect_stop([&] { read_plink(fam, bim, snps, 5, extra); }, message, message);
    }

    expect_stop([&] { read_plink("", bim, 5, 0); }, "No individuals in " + path("g.fam"), "empty .fam");
    expect_stop([&] { read_plink(fam, "\n", 0, 5); }, "No SNPs in " + path("g.bim"), "empty .bim");
    expect_stop([&] { read_plink(fam + "2 2 0 0 1 -9\n", bim, 5, 6); },
                "The level 2 on line 6 of " + path("g.fam") + " was already given on line 2", "level twice");
    expect_stop([&] { read_plink(fam, bim, 5, 5, 0, "compute", '\x55'); },
                "The genotypes of 5 SNP(s) in " + path("g.bed") + " are missing in every animal (the first is SNP 1)",
                "no genotype to count a frequency from");
}

}  // namespace
}  // namespace krel
