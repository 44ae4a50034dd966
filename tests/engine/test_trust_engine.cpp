// Runs that used to crash or to write numbers without meaning: text
// genotypes without a SNP variance, an empty reversal, and the test
// statistics of monomorphic SNPs on the two routes to their variance.
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "app/binary_run.h"
#include "engine/erc_reversal.h"
#include "run_results.h"

namespace krel {
namespace {

using testing::contains;
using testing::flat;
using testing::followed_by;
using testing::results;
using testing::run_binary;
using testing::scratch_dir;

void copy_herd(const scratch_dir& dir) {
    const std::filesystem::path herd = std::filesystem::path(KREL_SOURCE_DIR) / "examples" / "herd";
    for (const auto& e : std::filesystem::directory_iterator(herd))
        std::filesystem::copy_file(e.path(), dir / e.path().filename().string());
}

TEST(TextGenotypes, WithoutSnpVarianceItIsDerivedOrTheRunNamesTheOption) {
    scratch_dir dir;
    copy_herd(dir);
    // --svcv excludes --h2: the residual variance comes from its file.
    const std::vector<std::string> model = {"--ped",  "pedigree.txt",    "--effect", "1",
                                            "--rvcv", "residual_vcv.txt", "--gvcv",  "genetic_vcv.txt",
                                            "--pev",  "pev.txt"};
    // The SNP variance the run should derive: 25 over the sum of 2pq.
    // and the genotypes it should use: the counts centred, g - 2p.
    double sum2pq = 0.0;
    std::vector<double> p;
    {
        std::ifstream in(dir / "frequencies.txt");
        for (double id, q; in >> id >> q;) {
            sum2pq += 2.0 * q * (1.0 - q);
            p.push_back(q);
        }
    }
    std::ostringstream svar, centred_text;
    svar.precision(17);
    svar << 25.0 / sum2pq << '\n';
    dir.write("derived_vcv.txt", svar.str());
    {
        std::istringstream in(dir.read("genotypes_spaced.txt"));
        centred_text.precision(17);
        for (std::string line; std::getline(in, line);) {
            std::istringstream items(line);
            std::string id;
            items >> id;
            centred_text << id;
            std::size_t s = 0;
            for (double g; items >> g; ++s) centred_text << ' ' << g - 2.0 * p.at(s);
            EXPECT_EQ(s, p.size());
            centred_text << '\n';
        }
    }
    dir.write("centred.txt", centred_text.str());

    const auto given = run_binary(
        dir, followed_by({"krel", "--only-geno", "--gen", "centred.txt", "--freq", "frequencies.txt", "--svcv",
                          "derived_vcv.txt"},
                         model));
    ASSERT_EQ(given.status, 0) << given.log;
    const auto expected = results(dir, "qd_sskreliabilities_geno.dat");
    ASSERT_EQ(expected.size(), 300u);
    for (const char* file : {"genotypes_spaced.txt", "genotypes_nospace.txt"}) {
        SCOPED_TRACE(file);
        std::filesystem::remove(dir / "OK_KREL");
        const auto r = run_binary(
            dir, followed_by({"krel", "--only-geno", "--gen", file, "--freq", "frequencies.txt"}, model));
        ASSERT_EQ(r.status, 0) << r.log;
        EXPECT_TRUE(dir.exists("OK_KREL"));
        EXPECT_TRUE(contains(flat(r.log), "SNP variance (trait 1) derived without --svcv: genetic variance 25.0000 "
                                          "over the sum of 2pq of frequencies.txt"))
            << r.log;
        EXPECT_TRUE(contains(flat(r.log), std::string("Text genotypes of ") + file +
                                              " are allele counts: centred as g - 2p"))
            << r.log;
        const auto rel = results(dir, "qd_sskreliabilities_geno.dat");
        ASSERT_EQ(rel.size(), expected.size());
        double mean = 0.0;
        for (const auto& [id, v] : expected) {
            EXPECT_NEAR(rel.at(id)[0], v[0], 1e-6) << id;
            mean += v[0] / 300.0;
        }
        // Genomic reliabilities, not the floor that counts as they are give.
        EXPECT_GT(mean, 0.3);
    }

    // No frequencies, or genotypes that are not allele counts: no variance
    // to derive.
    scratch_dir centred;
    testing::generate(centred, {"--seed", "3", "--animals", "200", "--genotyped", "30", "--snps", "50",
                                "--centred-text", "--text"});
    struct row {
        const scratch_dir* where;
        const char* gen;
        const char* freq;
        const char* why;
    };
    for (const row& c : {row{&dir, "genotypes_spaced.txt", "compute", "no allele frequency file (--freq) is given"},
                         row{&centred, "genotypes_spaced.txt", "frequencies.txt",
                             "the genotypes of genotypes_spaced.txt are not all allele counts 0, 1 or 2"}}) {
        SCOPED_TRACE(c.why);
        std::filesystem::remove(*c.where / "OK_KREL");
        const auto r = run_binary(*c.where, followed_by({"krel", "--gen", c.gen, "--freq", c.freq}, model));
        EXPECT_NE(r.status, 0);
        EXPECT_LT(r.status, 128);
        EXPECT_FALSE(c.where->exists("OK_KREL"));
        EXPECT_TRUE(contains(flat(r.log), "Text genotypes need the (co)variances of SNP effects (--svcv): " +
                                              std::string(c.why)))
            << r.log;
    }
}

TEST(ErcReversal, AnEmptyPedigreeGivesAnEmptyResult) {
    pedigree_type p;
    p.allocate(0, 0);
    std::vector<std::int32_t> order;
    p.getorder(order);
    dmatrix erc(1, 3, 7.0);
    testing::log_capture log;
    erc_rev(p, order, 0, 0, dmatrix(1, 1, 0.04), dmatrix(1, 1, 0.02), dmatrix(1, 0), std::vector<double>(1), 0.3,
            30, erc);
    EXPECT_EQ(erc.rows(), 1);
    EXPECT_EQ(erc.cols(), 0);
    EXPECT_TRUE(contains(log.text(), "Iteration 0:")) << log.text();
}

// Both routes to the variance of an estimated SNP effect: from the genetic
// variance (krel with --gwas) and from the SNP variance (gwas with --svcv).
TEST(MonomorphicSnps, BothRoutesGiveTheirDegenerateStatisticsAndSayWhy) {
    scratch_dir dir;
    copy_herd(dir);
    const std::vector<std::string> model = {"--ped", "pedigree.txt", "--effect", "1", "--gen", "genotypes.bed",
                                            "--freq", "compute", "--rvcv", "residual_vcv.txt", "--gvcv",
                                            "genetic_vcv.txt", "--pev", "pev.txt", "--gwas", "snp_solutions.txt",
                                            "2"};
    std::vector<std::map<long, std::vector<double>>> p, lr, z;
    for (const auto& head : {std::vector<std::string>{"krel", "--only-geno"},
                             std::vector<std::string>{"gwas", "--svcv", "snp_vcv.txt"}}) {
        SCOPED_TRACE(head[0]);
        std::filesystem::remove(dir / "OK_KREL");
        const auto r = run_binary(dir, followed_by(head, model));
        ASSERT_EQ(r.status, 0) << r.log;
        EXPECT_TRUE(dir.exists("OK_KREL"));
        const std::string log = flat(r.log);
        EXPECT_TRUE(contains(log, "62 monomorphic SNPs: the variance of their estimated effect is 0")) << log;
        EXPECT_TRUE(contains(log, "qd_zscores_approx.dat: 62 records with values that are not finite numbers, kept: "
                                  "monomorphic SNPs"))
            << log;
        p.push_back(results(dir, "qd_pvalues_approx.dat"));
        lr.push_back(results(dir, "qd_lr_approx.dat"));
        z.push_back(results(dir, "qd_zscores_approx.dat"));
    }
    int degenerate = 0;
    for (const auto& [snp, v] : z[0]) {
        const bool mono = !std::isfinite(v[0]);
        EXPECT_EQ(mono, !std::isfinite(z[1].at(snp)[0])) << snp;
        for (int route = 0; route < 2; ++route) {
            EXPECT_TRUE(std::isfinite(p[route].at(snp)[0])) << snp;
            if (!mono) continue;
            EXPECT_EQ(p[route].at(snp)[0], 0.0) << snp;
            EXPECT_EQ(lr[route].at(snp)[0], DBL_MAX) << snp;
        }
        degenerate += mono;
    }
    EXPECT_EQ(degenerate, 62);
}

}  // namespace
}  // namespace krel
