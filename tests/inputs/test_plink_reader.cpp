// PLINK filesets into the packed genotype array: layout, frequencies,
// subsets, expansion, the failures of each member of the fileset, and the
// allele frequencies against plink2 on a generated fileset.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "app/binary_run.h"
#include "inputs/genotypes.h"
#include "inputs/plink_reader.h"
#include "test_support.h"
#include "util/error_stop.h"

namespace krel {
namespace {

using testing::contains;
using testing::scratch_dir;

const std::string snp_major("\x6C\x1B\x01", 3);

// Codes by SNP and individual (0 hom first, 1 missing, 2 het, 3 hom
// second), packed SNP by SNP as in a .bed.
std::string bed_bytes(const std::vector<std::vector<int>>& codes, std::size_t nind) {
    std::string out;
    for (const auto& snp : codes)
        for (std::size_t b = 0; b < (nind + 3) / 4; ++b) {
            unsigned byte = 0;
            for (std::size_t q = 0; q < 4 && 4 * b + q < nind; ++q) byte |= static_cast<unsigned>(snp[4 * b + q]) << (2 * q);
            out += static_cast<char>(byte);
        }
    return out;
}

void write_fileset(const scratch_dir& dir, const std::vector<std::int32_t>& levels,
                   const std::vector<std::vector<int>>& codes, const std::string& magic = snp_major) {
    std::string fam, bim;
    for (auto level : levels) fam += std::to_string(level) + " " + std::to_string(level) + " 0 0 1 -9\n";
    for (std::size_t s = 0; s < codes.size(); ++s) bim += "1 snp" + std::to_string(s + 1) + " 0 " + std::to_string(100 * s) + " A G\n";
    dir.write("g.fam", fam);
    dir.write("g.bim", bim);
    dir.write("g.bed", magic + bed_bytes(codes, levels.size()));
}

// Deterministic codes with every kind present.
std::vector<std::vector<int>> pattern_codes(std::size_t nsnp, std::size_t nind) {
    std::vector<std::vector<int>> codes(nsnp, std::vector<int>(nind));
    for (std::size_t s = 0; s < nsnp; ++s)
        for (std::size_t i = 0; i < nind; ++i) codes[s][i] = static_cast<int>((s * 7 + i * 3 + s * i) % 4);
    return codes;
}

struct read_result {
    std::int32_t nsnp = 0, nbytes = 0, nind = 0, maxfam = 0;
    int8_matrix ival;
    std::vector<std::int32_t> idmap;
    dmatrix val;
};

read_result read(const scratch_dir& dir, const std::string& freqfile = "compute",
                 std::optional<std::int32_t> maxid = std::nullopt) {
    read_result r;
    plinkreadbed((dir / "g.bed").string(), freqfile, maxid, r.nsnp, r.nbytes, r.nind, r.maxfam, r.ival, r.idmap,
                 r.val);
    return r;
}

class PlinkRead : public ::testing::Test {
protected:
    testing::log_capture log_;
    scratch_dir dir_;
};

TEST_F(PlinkRead, TransposesTheFileIntoSnpsByBytes) {
    // 70 individuals: 18 bytes, one 16 x 16 transpose and two single bytes a
    // row; 35 SNPs: blocks of 16, 16 and 3; the last byte has padding.
    const std::vector<std::int32_t> levels = [] {
        std::vector<std::int32_t> l;
        for (int i = 0; i < 70; ++i) l.push_back(200 - 2 * i);
        return l;
    }();
    const auto codes = pattern_codes(35, 70);
    write_fileset(dir_, levels, codes);
    const read_result r = read(dir_);
    ASSERT_EQ(r.nsnp, 35);
    ASSERT_EQ(r.nind, 70);
    ASSERT_EQ(r.nbytes, 18);
    EXPECT_EQ(r.maxfam, 200);
    const std::string bytes = bed_bytes(codes, 70);
    for (int s = 1; s <= 35; ++s)
        for (int b = 1; b <= 18; ++b)
            ASSERT_EQ(static_cast<std::uint8_t>(r.ival(s, b)), static_cast<std::uint8_t>(bytes[static_cast<std::size_t>((s - 1) * 18 + b - 1)]))
                << s << "," << b;
    ASSERT_EQ(r.idmap.size(), 201u);
    EXPECT_EQ(r.idmap[200], 1);
    EXPECT_EQ(r.idmap[62], 70);
    EXPECT_EQ(r.idmap[199], 0);
}

TEST_F(PlinkRead, FiveIndividualsSeventeenSnpsAndComputedFrequencies) {
    // SNP 1 all het: 0.5; SNP 2 hom second, het, missing, hom first, hom second:
    // (2*2 + 1) / (2*4); the last byte holds one genotype and padding.
    std::vector<std::vector<int>> codes = pattern_codes(17, 5);
    codes[0] = {2, 2, 2, 2, 2};
    codes[1] = {3, 2, 1, 0, 3};
    write_fileset(dir_, {1, 2, 3, 4, 5}, codes);
    const read_result r = read(dir_);
    ASSERT_EQ(r.nbytes, 2);
    EXPECT_EQ(r.val(1, 1), 0.5);
    EXPECT_EQ(r.val(2, 1), 5.0 / 8.0);
    EXPECT_EQ(static_cast<std::uint8_t>(r.ival(17, 2)), static_cast<unsigned>(codes[16][4]));
    // Counting on the packed array gives the same bits as counting the file,
    // and the file's count agrees with counting the codes.
    std::vector<double> packed(17);
    allelefreq_allsnp(packed, r.ival, 5);
    for (int s = 1; s <= 17; ++s) EXPECT_EQ(packed[static_cast<std::size_t>(s - 1)], r.val(s, 1)) << s;
    for (int s = 1; s <= 17; ++s) {
        double sum = 0.0, seen = 0.0;
        for (int c : codes[static_cast<std::size_t>(s - 1)])
            if (c != 1) {
                sum += c == 0 ? 0.0 : c - 1.0;
                seen += 1.0;
            }
        EXPECT_DOUBLE_EQ(r.val(s, 1), sum / (2.0 * seen)) << s;
    }
}

TEST_F(PlinkRead, FrequencyRuleNoneAndAFrequencyFile) {
    write_fileset(dir_, {3, 1, 2}, {{0, 1, 2}, {3, 3, 0}});
    const read_result none = read(dir_, "none", 10);
    EXPECT_EQ(none.idmap.size(), 11u);
    EXPECT_EQ(none.val(1, 1), 0.0);
    EXPECT_EQ(none.val(2, 1), 0.0);
    covariable_type cov;
    cov.ival = none.ival;
    cov.val = none.val;
    // With no frequencies the centred genotype is the raw one, missing 0.
    EXPECT_EQ(cov.getvalue_summary(1, 1), 0.0);
    EXPECT_EQ(cov.getvalue_summary(1, 2), 0.0);
    EXPECT_EQ(cov.getvalue_summary(1, 3), 1.0);
    EXPECT_EQ(cov.getvalue_summary(2, 1), 2.0);

    // Records beyond the SNPs are ignored.
    dir_.write("f.txt", "1 0.25\n2 0.75\n3 0.5\n");
    const read_result from_file = read(dir_, (dir_ / "f.txt").string());
    EXPECT_EQ(from_file.val(1, 1), 0.25);
    EXPECT_EQ(from_file.val(2, 1), 0.75);
}

TEST_F(PlinkRead, FrequencyFileWithFewerSnpsOrMissingStops) {
    write_fileset(dir_, {1, 2, 3}, {{0, 1, 2}, {3, 3, 0}});
    dir_.write("f.txt", "1 0.25\n");
    EXPECT_THROW(read(dir_, (dir_ / "f.txt").string()), error_stop);
    EXPECT_TRUE(contains(log_.text(), "The number of SNPs in " + (dir_ / "g.bed").string() + " and " +
                                          (dir_ / "f.txt").string() + " are not the same."));
    log_.clear();
    EXPECT_THROW(read(dir_, (dir_ / "absent.txt").string()), error_stop);
    EXPECT_TRUE(contains(log_.text(), "The following file does not exist: " + (dir_ / "absent.txt").string()));
}

TEST_F(PlinkRead, EachMissingMemberOfTheFilesetIsNamed) {
    for (const std::string missing : {".bed", ".bim", ".fam"}) {
        write_fileset(dir_, {1, 2}, {{0, 1}});
        std::filesystem::remove(dir_ / ("g" + missing));
        log_.clear();
        EXPECT_THROW(read(dir_), error_stop) << missing;
        EXPECT_TRUE(contains(log_.text(), "The following file does not exist: " + (dir_ / ("g" + missing)).string()))
            << log_.text();
    }
}

TEST_F(PlinkRead, IndividualMajorOrForeignFilesAreRefused) {
    for (const std::string& magic : {std::string("\x6C\x1B\x00", 3), std::string("BED"), std::string("\x6C")}) {
        write_fileset(dir_, {1, 2}, {{0, 1}}, magic);
        log_.clear();
        EXPECT_THROW(read(dir_), error_stop);
        EXPECT_TRUE(contains(log_.text(), "The following file is not a Plink SNP-major bed file: " +
                                              (dir_ / "g.bed").string()));
    }
}

TEST_F(PlinkRead, FamWithoutIntegerLevelsOrLevelsBeyondMaxidStops) {
    write_fileset(dir_, {1, 2, 3}, pattern_codes(2, 3));
    dir_.write("g.fam", "1 1 0 0 1 -9\nA7 A7 0 0 1 -9\n3 3 0 0 1 -9\n");
    EXPECT_THROW(read(dir_), error_stop);
    EXPECT_TRUE(contains(log_.text(), "line 2 of " + (dir_ / "g.fam").string()));

    write_fileset(dir_, {1, 12, 3}, pattern_codes(2, 3));
    log_.clear();
    EXPECT_THROW(read(dir_, "compute", 10), error_stop);
    EXPECT_TRUE(contains(log_.text(), "12")) << log_.text();
    EXPECT_TRUE(contains(log_.text(), (dir_ / "g.fam").string())) << log_.text();
}

TEST_F(PlinkRead, ReadgenotypeTakesTheBedByItsLastExtension) {
    write_fileset(dir_, {4, 2, 9}, pattern_codes(6, 3));
    covariable_type cov;
    std::int32_t nsnp = 0, ngeno = 0;
    bool isplink = false;
    readgenotype((dir_ / "g.bed").string(), "compute", 12, nsnp, ngeno, cov, isplink);
    EXPECT_TRUE(isplink);
    EXPECT_TRUE(cov.is_packed());
    EXPECT_EQ(nsnp, 6);
    EXPECT_EQ(ngeno, 3);
    EXPECT_EQ(cov.idmap[9], 3);
    EXPECT_TRUE(contains(log_.text(), "Genotype file: Plink bed format!"));
}

TEST(PlinkKeep, KeepsTheListedIndividualsInTheNewOrder) {
    testing::log_capture log;
    // Five individuals of levels 10..14; keep the levels of old rows 3 and 1.
    const auto codes = pattern_codes(3, 5);
    covariable_type cov;
    cov.allocint(3, 2);
    const std::string bytes = bed_bytes(codes, 5);
    for (int s = 1; s <= 3; ++s)
        for (int b = 1; b <= 2; ++b) cov.ival(s, b) = static_cast<std::int8_t>(bytes[static_cast<std::size_t>((s - 1) * 2 + b - 1)]);
    cov.idmap = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 2, 3, 4, 5};
    const int8_matrix before = cov.ival;

    int8_matrix ivalnew;
    std::vector<std::int32_t> idmapnew;
    const std::vector<std::int32_t> keep = {12, 10};
    keepindividuals(cov.ival, cov.idmap, keep, ivalnew, idmapnew);
    ASSERT_EQ(ivalnew.rows(), 3);
    ASSERT_EQ(ivalnew.cols(), 1);
    for (int s = 1; s <= 3; ++s) {
        const auto& c = codes[static_cast<std::size_t>(s - 1)];
        EXPECT_EQ(static_cast<std::uint8_t>(ivalnew(s, 1)), static_cast<unsigned>(c[2] | (c[0] << 2))) << s;
    }
    EXPECT_EQ(idmapnew[12], 1);
    EXPECT_EQ(idmapnew[10], 2);
    EXPECT_EQ(idmapnew[11], 0);
    for (std::size_t k = 0; k < before.size(); ++k) EXPECT_EQ(cov.ival.data()[k], before.data()[k]);

    // A level without genotypes cannot be kept.
    const std::vector<std::int32_t> unknown = {12, 3};
    EXPECT_THROW(keepindividuals(cov.ival, cov.idmap, unknown, ivalnew, idmapnew), error_stop);
    EXPECT_TRUE(contains(log.text(), "The individual of level 3 to keep has no genotypes"));
}

TEST(PlinkDecompress, CentresByTwiceTheFrequencyAndZeroesMissing) {
    const auto codes = std::vector<std::vector<int>>{{0, 1, 2, 3, 2}, {1, 1, 1, 1, 1}};
    int8_matrix ival;
    ival.allocate(2, 2);
    const std::string bytes = bed_bytes(codes, 5);
    for (int s = 1; s <= 2; ++s)
        for (int b = 1; b <= 2; ++b) ival(s, b) = static_cast<std::int8_t>(bytes[static_cast<std::size_t>((s - 1) * 2 + b - 1)]);
    const std::vector<double> freq = {0.3, 0.7};
    dmatrix z;
    decompress_bed_snpmajor_real8(ival, freq, 5, z);
    ASSERT_EQ(z.cols(), 5);
    const double want[5] = {-0.6, 0.0, 1.0 - 0.6, 2.0 - 0.6, 1.0 - 0.6};  // missing: 0
    for (int i = 1; i <= 5; ++i) {
        EXPECT_DOUBLE_EQ(z(1, i), want[i - 1]) << i;
        EXPECT_EQ(z(2, i), 0.0) << i;
    }
}

// Allele frequencies against plink2 on a generated fileset. Ours is the
// frequency of the allele coded 2, the second allele of the .bim (column 6);
// plink2 takes column 5 of the .bim as ALT, so ALT_FREQS is one minus ours.
TEST(PlinkFrequencies, AgreeWithPlink2) {
    const std::string plink2 = "/usr/bin/plink2";
    if (!std::filesystem::exists(plink2)) GTEST_SKIP() << plink2 << " is not installed";
    testing::log_capture log;
    scratch_dir dir;
    const auto sim = testing::run_program(dir, KREL_SIMULATE_BINARY,
                                          {"--out", dir.path().string(), "--seed", "3", "--animals", "800",
                                           "--genotyped", "203", "--snps", "301", "--missing", "0.05"});
    ASSERT_EQ(sim.status, 0) << sim.err;
    // All samples (the .fam has parents) and any chromosome count.
    const auto run = testing::run_program(dir, plink2,
                                          {"--bfile", "genotypes", "--freq", "--nonfounders", "--chr-set", "95",
                                           "--out", "plink2", "--threads", "1"});
    ASSERT_EQ(run.status, 0) << run.out << run.err;

    read_result r;
    plinkreadbed((dir / "genotypes.bed").string(), "compute", std::nullopt, r.nsnp, r.nbytes, r.nind, r.maxfam,
                 r.ival, r.idmap, r.val);
    ASSERT_EQ(r.nsnp, 301);

    std::ifstream bim(dir / "genotypes.bim"), afreq(dir / "plink2.afreq");
    std::string line;
    std::getline(afreq, line);  // header
    ASSERT_TRUE(contains(line, "ALT_FREQS"));
    for (int s = 1; s <= r.nsnp; ++s) {
        std::string chrom, id, cm, pos, a1, a2, fchrom, fid, ref, alt, freq, obs;
        ASSERT_TRUE(bim >> chrom >> id >> cm >> pos >> a1 >> a2);
        ASSERT_TRUE(afreq >> fchrom >> fid >> ref >> alt >> freq >> obs);
        ASSERT_EQ(fid, id);
        ASSERT_EQ(alt, a1);
        ASSERT_EQ(ref, a2);
        EXPECT_NEAR(r.val(s, 1), 1.0 - std::stod(freq), 5e-6) << id;
    }
}

}  // namespace
}  // namespace krel
