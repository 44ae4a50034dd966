// Runs of the real binary through Steps 2 and 3 and the p-values, on small
// generated data sets.
#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "app/binary_run.h"
#include "run_results.h"

namespace krel {
namespace {

using testing::contains;
using testing::run_binary;
using testing::run_program;
using testing::flat;
using testing::results;
using testing::scratch_dir;

void generate(const scratch_dir& dir) {
    testing::generate(dir, {"--animals", "500", "--genotyped", "80", "--snps", "150", "--text", "--centred-text"});
}

// Values of a result file by record: record -> values after the three integers.


const std::vector<std::string> model = {"--ped", "pedigree.txt", "--effect", "1", "--rvcv", "residual_vcv.txt",
                                        "--gvcv", "genetic_vcv.txt", "--pev", "pev.txt"};

std::vector<std::string> with_model(std::vector<std::string> head) {
    return testing::followed_by(std::move(head), model);
}

TEST(krel_runs, PackedAndCentredTextGenotypesGiveTheSameReliabilities) {
    scratch_dir plink_dir, text_dir;
    generate(plink_dir);
    generate(text_dir);
    const auto a = run_binary(plink_dir, with_model({"krel", "--only-geno", "--gen", "genotypes.bed", "--freq",
                                                     "frequencies.txt", "--svcv", "snp_vcv.txt", "--gwas",
                                                     "snp_solutions.txt", "2"}));
    ASSERT_EQ(a.status, 0) << a.log;
    const auto b = run_binary(text_dir, with_model({"krel", "--only-geno", "--gen", "genotypes_spaced.txt", "--freq",
                                                    "frequencies.txt", "--svcv", "snp_vcv.txt"}));
    ASSERT_EQ(b.status, 0) << b.log;
    EXPECT_TRUE(plink_dir.exists("OK_KREL"));
    for (const char* step : {"Step 2: reverse reliabilities for the genotyped animals",
                             "Step 3: reliabilities of GEBV for genotyped animals", "Step 3.a: inverse SNPBLUP (Plink)",
                             "Step 3.c: blending of genomic and RPG REL", "Tr 1 - ERC (N, Min, Mean (SD), Max): 80, ",
                             "Plink genotype file                           : T"})
        EXPECT_TRUE(contains(a.log, step)) << step;
    EXPECT_TRUE(contains(b.log, "Step 3.a: inverse SNPBLUP (real)"));

    const auto ra = results(plink_dir, "qd_sskreliabilities_geno.dat");
    const auto rb = results(text_dir, "qd_sskreliabilities_geno.dat");
    ASSERT_EQ(ra.size(), 80u);
    ASSERT_EQ(rb.size(), 80u);
    for (const auto& [id, v] : ra) {
        ASSERT_TRUE(rb.count(id)) << id;
        EXPECT_NEAR(v[0], rb.at(id)[0], 1e-4) << id;
        EXPECT_GE(v[0], 1e-8);
        EXPECT_LE(v[0], 1.0);
    }
    const auto pa = results(plink_dir, "qd_pevsnpeffects.dat");
    const auto pb = results(text_dir, "qd_pevsnpeffects.dat");
    ASSERT_EQ(pa.size(), 150u);
    for (const auto& [j, v] : pa) EXPECT_NEAR(v[0], pb.at(j)[0], 1e-4 * v[0]) << j;

    // p-values: one record per SNP in each file, probabilities in [0, 1].
    for (const char* f : {"qd_zscores_approx.dat", "qd_pvalues_approx.dat", "qd_lr_approx.dat",
                          "qd_varhatsnpeffects_approx.dat"})
        EXPECT_EQ(results(plink_dir, f).size(), 150u) << f;
    for (const auto& [j, v] : results(plink_dir, "qd_pvalues_approx.dat"))
        // A SNP variance below the PEV gives no number, and that is kept.
        EXPECT_TRUE(std::isnan(v[0]) || (v[0] >= 0.0 && v[0] <= 1.0)) << j;
    EXPECT_FALSE(text_dir.exists("qd_pvalues_approx.dat"));
    EXPECT_FALSE(plink_dir.exists("qd_sskreliabilities.dat"));
}

TEST(krel_runs, GwasRunsInBlocksAndReadsBothSolutionFormats) {
    scratch_dir dir;
    generate(dir);
    const std::vector<std::string> base = {"gwas", "--gen", "genotypes.bed", "--freq", "compute", "--svcv",
                                           "snp_vcv.txt", "--blocks", "50"};
    auto five = with_model(base);
    five.insert(five.end(), {"--gwas", "snp_solutions.txt", "2"});
    const auto r = run_binary(dir, five);
    ASSERT_EQ(r.status, 0) << r.log;
    // An overlap of 1000 SNPs: no block starts far enough in to get one on
    // its left, and each reaches the last SNP on its right.
    for (const char* line : {"Size of overlap between blocks: 1000", "Step 3.a: inverse SNPBLUP (Plink) (1-150)",
                             "Step 3.a: inverse SNPBLUP (Plink) (51-150)", "Step 3.a: inverse SNPBLUP (Plink) (101-150)",
                             "Copy SNP PEV (51-100)"})
        EXPECT_TRUE(contains(r.log, line)) << line;
    EXPECT_FALSE(contains(r.log, "Step 3.b"));
    EXPECT_FALSE(dir.exists("qd_sskreliabilities_geno.dat"));
    const auto z5 = results(dir, "qd_zscores_approx.dat");
    EXPECT_EQ(z5.begin()->second.size(), 1u);

    auto six = with_model(base);
    six.insert(six.end(), {"--mgwas", "snp_solutions_tarnelo.txt", "2"});
    ASSERT_EQ(run_binary(dir, six).status, 0);
    const auto z6 = results(dir, "qd_zscores_approx.dat");
    ASSERT_EQ(z5.size(), z6.size());
    for (const auto& [j, v] : z5)
        if (std::isfinite(v[0])) {
            EXPECT_DOUBLE_EQ(v[0], z6.at(j)[0]) << j;
        }

    // A krel run in blocks has no overlap.
    const auto k = run_binary(dir, with_model({"krel", "--only-geno", "--gen", "genotypes.bed", "--freq", "compute",
                                               "--svcv", "snp_vcv.txt", "--blocks", "60"}));
    ASSERT_EQ(k.status, 0) << k.log;
    EXPECT_TRUE(contains(k.log, "Step 3.a: inverse SNPBLUP (Plink) (61-120)"));
    EXPECT_TRUE(contains(k.log, "Step 3.a: inverse SNPBLUP (Plink) (121-150)"));
    EXPECT_EQ(results(dir, "qd_sskreliabilities_geno.dat").size(), 80u);
}

TEST(krel_runs, ReferenceAnimalsAndVerboseFiles) {
    scratch_dir dir;
    generate(dir);
    // The reference: the first 30 genotyped animals.
    std::istringstream fam(dir.read("genotypes.fam"));
    std::string ref;
    std::string line;
    for (int k = 0; k < 30 && std::getline(fam, line); ++k) ref += line.substr(0, line.find(' ')) + "\n";
    dir.write("ref.txt", ref);
    const auto r = run_binary(dir, with_model({"krel", "--only-geno", "--verbose", "--ref", "ref.txt", "--gen",
                                               "genotypes.bed", "--freq", "compute", "--svcv", "snp_vcv.txt"}));
    ASSERT_EQ(r.status, 0) << r.log;
    EXPECT_EQ(results(dir, "qd_sskreliabilities_geno.dat").size(), 80u);
    EXPECT_TRUE(dir.exists("qd_list_related_genotyped.dat"));
    EXPECT_TRUE(dir.exists("qd_pevrelstarrel_geno_1.dat"));
    EXPECT_TRUE(contains(r.log, "Number of animals related to genotyped animals: "));

    // Reference animals need packed genotypes.
    const auto text = run_binary(dir, with_model({"krel", "--only-geno", "--ref", "ref.txt", "--gen",
                                                  "genotypes_spaced.txt", "--freq", "frequencies.txt", "--svcv",
                                                  "snp_vcv.txt"}));
    EXPECT_NE(text.status, 0);
    EXPECT_TRUE(contains(flat(text.log), "Reference individuals can only be used with Plink genotype files"));
}

TEST(krel_runs, BadInputStopsWithItsFileNamed) {
    scratch_dir dir;
    generate(dir);
    // A genotyped animal beyond the pedigree.
    std::string fam = dir.read("genotypes.fam");
    fam.replace(0, fam.find(' '), "99999");
    dir.write("bad.fam", fam);
    std::filesystem::copy_file(dir / "genotypes.bed", dir / "bad.bed");
    std::filesystem::copy_file(dir / "genotypes.bim", dir / "bad.bim");
    const auto g = run_binary(dir, with_model({"krel", "--only-geno", "--gen", "bad.bed", "--freq", "compute",
                                               "--svcv", "snp_vcv.txt"}));
    EXPECT_NE(g.status, 0);
    EXPECT_TRUE(contains(flat(g.log), "bad.fam")) << g.log;
    EXPECT_FALSE(dir.exists("OK_KREL"));

    // A solution file naming a level beyond the pedigree.
    dir.write("bad_pev.txt", dir.read("pev.txt") + "1 1 99999 99999 3.0\n");
    auto args = with_model({"krel", "--only-geno", "--gen", "genotypes.bed", "--freq", "compute", "--svcv",
                            "snp_vcv.txt"});
    std::replace(args.begin(), args.end(), std::string("pev.txt"), std::string("bad_pev.txt"));
    const auto s = run_binary(dir, args);
    EXPECT_NE(s.status, 0);
    EXPECT_TRUE(contains(flat(s.log), "bad_pev.txt")) << s.log;
    EXPECT_TRUE(contains(flat(s.log), "level 99999"));

    // A SNP solution file with a wrong number of columns.
    dir.write("bad_sol.txt", "1 2 3 0.5\n");
    auto gw = with_model({"gwas", "--gen", "genotypes.bed", "--freq", "compute", "--svcv", "snp_vcv.txt", "--gwas",
                          "bad_sol.txt", "2"});
    const auto sol = run_binary(dir, gw);
    EXPECT_NE(sol.status, 0);
    EXPECT_TRUE(contains(flat(sol.log), "The file bad_sol.txt must contain 5 columns!")) << sol.log;

    // Reference animals without genotypes.
    dir.write("ref.txt", "1\n2\n3\n");
    const auto ref = run_binary(dir, with_model({"krel", "--only-geno", "--ref", "ref.txt", "--gen", "genotypes.bed",
                                                 "--freq", "compute", "--svcv", "snp_vcv.txt"}));
    EXPECT_NE(ref.status, 0);
    EXPECT_TRUE(contains(flat(ref.log), "which has no genotypes")) << ref.log;

    // A frequency file of another length.
    dir.write("short_freq.txt", "1 0.5\n2 0.5\n");
    const auto f = run_binary(dir, with_model({"krel", "--only-geno", "--gen", "genotypes_spaced.txt", "--freq",
                                               "short_freq.txt", "--svcv", "snp_vcv.txt"}));
    EXPECT_NE(f.status, 0);
    EXPECT_TRUE(contains(flat(f.log), "Not the same number of SNPs in the genotype and allele frequency files!"));
}

}  // namespace
}  // namespace krel
