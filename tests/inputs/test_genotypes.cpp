// Text genotypes in both layouts, the formats of the layout without spaces,
// the covariable class and the frequency file of text genotypes.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "app/binary_run.h"
#include "inputs/frequency_file.h"
#include "inputs/genotypes.h"
#include "inputs/plink_reader.h"
#include "test_support.h"
#include "util/error_stop.h"

namespace krel {
namespace {

using testing::contains;
using testing::scratch_dir;

std::string format_of(const std::string& line, std::int32_t nsnp) { return derive_format_statement(nsnp, line); }

TEST(GenotypeFormat, WidthsOfIdentityBlanksAndGenotypes) {
    const std::string fifty(50, '1');
    EXPECT_EQ(format_of(" 1234  " + fifty, 50), "(i05,02x,00050i1)");
    // Leading blanks are absorbed into the identity's field.
    EXPECT_EQ(format_of("   12 0120", 4), "(i05,01x,00004i1)");
    std::array<std::int32_t, 3> counts{};
    count_spaces("   12 0120", counts);
    EXPECT_EQ(counts, (std::array<std::int32_t, 3>{1, 4, 1}));
    EXPECT_EQ(format_of("7 0", 1), "(i01,01x,00001i1)");
}

TEST(GenotypeFormat, LongLinesRepeatGroupsOf30000) {
    EXPECT_EQ(format_of(" 1234  0", 60000), "(i05,02x,0002(30000i1),00000i1)");

    std::string digits(30001, '0');
    digits[0] = '2';
    digits[29999] = '1';
    digits[30000] = '9';
    const std::string line = "77 " + digits;
    std::int32_t identity = 0;
    std::vector<std::int32_t> g;
    ASSERT_TRUE(read_genotype_line(derive_format_statement(30001, line), line, identity, g));
    EXPECT_EQ(identity, 77);
    ASSERT_EQ(g.size(), 30001u);
    EXPECT_EQ(g[0], 2);
    EXPECT_EQ(g[29999], 1);
    EXPECT_EQ(g[30000], 9);
}

TEST(GenotypeFormat, ALineWithoutExactlyTwoFieldsIsPrintedAndStops) {
    for (const std::string line : {"12 0101 2", "120101"}) {
        ::testing::internal::CaptureStdout();
        std::array<std::int32_t, 3> counts{};
        EXPECT_THROW(count_spaces(line, counts), error_stop);
        const std::string out = ::testing::internal::GetCapturedStdout();
        EXPECT_EQ(out, " Problem reading genotypes without spaces between columns.\n"
                       " The file should contain one separate column with IDs, followed by genotypes.\n " +
                           line + "\n");
    }
}

class GenotypeText : public ::testing::Test {
protected:
    struct result {
        covariable_type cov;
        std::int32_t nsnp = -1, ngeno = -1;
        bool isplink = true;
    };
    result read(const std::string& name, std::int32_t maxid = 50) {
        result r;
        readgenotype((dir_ / name).string(), "none", maxid, r.nsnp, r.ngeno, r.cov, r.isplink);
        return r;
    }
    testing::log_capture log_;
    scratch_dir dir_;
};

TEST_F(GenotypeText, SpacedValuesAreStoredAsTheyStand) {
    // Only the last extension counts: this is text. Commas separate too.
    dir_.write("geno.bed.txt", "7 -1.25 0 2\n3 0.5,1.0d0 1e-1\n\n12 2 2 2\n");
    const result r = read("geno.bed.txt");
    EXPECT_FALSE(r.isplink);
    EXPECT_EQ(r.nsnp, 3);
    EXPECT_EQ(r.ngeno, 3);
    EXPECT_EQ(r.cov.getval(1, 1), -1.25);
    EXPECT_EQ(r.cov.getval(2, 2), 1.0);
    EXPECT_EQ(r.cov.getval(3, 2), 0.1);
    EXPECT_EQ(r.cov.getval(3, 3), 2.0);
    EXPECT_EQ(r.cov.idmap[3], 2);
    EXPECT_EQ(r.cov.idmap[12], 3);
    EXPECT_TRUE(contains(log_.text(), "Genotype file: space delimiter!"));
}

TEST_F(GenotypeText, DigitsWithoutSpacesTakeEachLinesOwnWidths) {
    // Leading blanks and identities of different widths.
    dir_.write("g.txt", "  5  0121\n123 2100\n6 1111\n");
    const result r = read("g.txt", 200);
    EXPECT_EQ(r.nsnp, 4);
    EXPECT_EQ(r.ngeno, 3);
    EXPECT_EQ(r.cov.val(4, 1), 1.0);
    EXPECT_EQ(r.cov.val(1, 2), 2.0);
    EXPECT_EQ(r.cov.val(2, 3), 1.0);
    EXPECT_EQ(r.cov.idmap[123], 2);
    EXPECT_EQ(r.cov.idmap[5], 1);
    EXPECT_EQ(r.cov.idmap[6], 3);
    EXPECT_TRUE(contains(log_.text(), "Genotype file: no space delimiter!"));
}

TEST_F(GenotypeText, OneSnpWithABlankReadsTheSameInEitherLayout) {
    dir_.write("g.txt", "4 2\n9 1\n");
    const result r = read("g.txt");
    EXPECT_TRUE(contains(log_.text(), "Genotype file: no space delimiter!"));
    EXPECT_EQ(r.nsnp, 1);
    EXPECT_EQ(r.cov.val(1, 1), 2.0);
    EXPECT_EQ(r.cov.val(1, 2), 1.0);
    std::int32_t nsnp = -1, ngeno = -1;
    covariable_type spaced;
    read_genocov_spacedelimiter((dir_ / "g.txt").string(), 50, nsnp, ngeno, spaced);
    EXPECT_EQ(spaced.val(1, 1), 2.0);
    EXPECT_EQ(spaced.val(1, 2), 1.0);
    EXPECT_EQ(spaced.idmap, r.cov.idmap);
}

TEST_F(GenotypeText, ShortRecordsAndStrayIdentitiesStopNamingTheFile) {
    const std::string file = (dir_ / "g.txt").string();
    for (const std::string text : {"1 0 1 2\n2 1 0\n", "1 012\n2 01\n", "1 0 1\n51 1 1\n", "1 01\n0 11\n"}) {
        dir_.write("g.txt", text);
        log_.clear();
        EXPECT_THROW(read("g.txt"), error_stop) << text;
        EXPECT_TRUE(contains(log_.text(), "line 2 of " + file)) << log_.text();
    }
}

TEST_F(GenotypeText, ALaterLineWithMoreThanTwoFieldsStops) {
    dir_.write("g.txt", "1 0101\n2 01 01\n");
    ::testing::internal::CaptureStdout();
    EXPECT_THROW(read("g.txt"), error_stop);
    const std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_TRUE(contains(out, " Problem reading genotypes without spaces between columns.\n"));
    EXPECT_TRUE(contains(out, " 2 01 01\n"));
}

TEST_F(GenotypeText, ExpectedSnpCountIsChecked) {
    const std::string file = (dir_ / "g.txt").string();
    for (const std::string text : {"1 0 1 2\n", "1 012\n"}) {
        dir_.write("g.txt", text);
        std::int32_t nsnp = 4, ngeno = 0;
        covariable_type cov;
        log_.clear();
        EXPECT_THROW(read_centeredgenocov_ascii(file, 10, nsnp, ngeno, cov), error_stop);
        EXPECT_TRUE(contains(log_.text(),
                             "The expected number of SNPs does not match with the number of SNPs in " + file));
    }
}

TEST_F(GenotypeText, MissingOrEmptyFilesStopNamingTheFile) {
    const std::string missing = (dir_ / "absent.txt").string();
    EXPECT_THROW(read("absent.txt"), error_stop);
    EXPECT_TRUE(contains(log_.text(), missing));
    dir_.write("empty.txt", "");
    log_.clear();
    EXPECT_THROW(read("empty.txt"), error_stop);
    EXPECT_TRUE(contains(log_.text(), (dir_ / "empty.txt").string()));
}

TEST_F(GenotypeText, GeneratedTextLayoutsMatchThePlinkGenotypes) {
    // The generator writes the same genotypes three ways; in the text files
    // a missing genotype is replaced by the rounded mean, 2p.
    scratch_dir sim;
    const auto run = testing::run_program(sim, KREL_SIMULATE_BINARY,
                                          {"--out", sim.path().string(), "--seed", "5", "--animals", "400",
                                           "--genotyped", "37", "--snps", "45", "--text"});
    ASSERT_EQ(run.status, 0) << run.err;
    const std::int32_t maxid = 1000;
    result plink, spaced, nospace;
    readgenotype((sim / "genotypes.bed").string(), "compute", maxid, plink.nsnp, plink.ngeno, plink.cov, plink.isplink);
    readgenotype((sim / "genotypes_spaced.txt").string(), "none", maxid, spaced.nsnp, spaced.ngeno, spaced.cov,
                 spaced.isplink);
    readgenotype((sim / "genotypes_nospace.txt").string(), "none", maxid, nospace.nsnp, nospace.ngeno,
                 nospace.cov, nospace.isplink);
    ASSERT_EQ(spaced.ngeno, plink.ngeno);
    ASSERT_EQ(nospace.ngeno, plink.ngeno);
    ASSERT_EQ(spaced.nsnp, 45);
    ASSERT_EQ(nospace.nsnp, 45);
    int compared = 0;
    for (std::int32_t level = 1; level <= maxid; ++level) {
        const std::int32_t row = plink.cov.idmap[static_cast<std::size_t>(level)];
        if (row == 0) continue;
        ASSERT_EQ(spaced.cov.idmap[static_cast<std::size_t>(level)], row);
        ASSERT_EQ(nospace.cov.idmap[static_cast<std::size_t>(level)], row);
        for (std::int32_t s = 1; s <= 45; ++s) {
            const double g = plink.cov.getvalue_ival(s, row);
            if (g >= 3.0) continue;
            EXPECT_EQ(spaced.cov.getval(s, row), g);
            EXPECT_EQ(nospace.cov.getval(s, row), g);
            ++compared;
        }
    }
    EXPECT_GT(compared, 37 * 45 / 2);
}

TEST(Covariable, PackedAccess) {
    covariable_type cov;
    cov.allocint(2, 2);
    // Individual 5 sits in the low two bits of byte 2: code 10, het.
    cov.ival(1, 2) = static_cast<std::int8_t>(0b11111110);
    cov.ival(1, 1) = static_cast<std::int8_t>(0b01000000);  // individual 4 missing
    cov.val.resize(2, 1);
    cov.val(1, 1) = 0.4;
    EXPECT_EQ(cov.getvalue_ival(1, 5), 1.0);
    EXPECT_EQ(cov.getvalue_ival(1, 6), 2.0);
    EXPECT_EQ(cov.getvalue_ival(1, 4), 3.0);
    EXPECT_EQ(cov.getvalue_summary(1, 4), 0.0);
    EXPECT_EQ(cov.getvalue_summary(1, 5), 1.0 - 0.8);
    EXPECT_EQ(cov.getval(1, 6), 2.0 - 0.8);
}

TEST(Readfrequency, ComputeLeavesAllAloneAndAFileGivesItsRecords) {
    testing::log_capture log;
    scratch_dir dir;
    std::int32_t n = -3;
    std::vector<double> freq{9.0};
    readfrequency("compute", n, freq);
    EXPECT_EQ(n, -3);
    EXPECT_EQ(freq, std::vector<double>{9.0});

    dir.write("f.txt", "1 0.1\n2 0.25\n\n3 1.0\n");
    readfrequency((dir / "f.txt").string(), n, freq);
    EXPECT_EQ(n, 3);
    EXPECT_EQ(freq, (std::vector<double>{0.1, 0.25, 1.0}));

    for (const std::string bad : {"1 0.1\n2 x\n", "1 0.1\n2\n"}) {
        dir.write("f.txt", bad);
        log.clear();
        EXPECT_THROW(readfrequency((dir / "f.txt").string(), n, freq), error_stop);
        EXPECT_TRUE(contains(log.text(), "I/O ERROR: Issue with the file " + (dir / "f.txt").string()));
    }
    log.clear();
    EXPECT_THROW(readfrequency((dir / "absent.txt").string(), n, freq), error_stop);
    EXPECT_TRUE(contains(log.text(), (dir / "absent.txt").string()));
}

}  // namespace
}  // namespace krel
