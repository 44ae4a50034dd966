// Runs of the real binary through Steps 2 and 3 and the p-values, on small
// generated data sets; the reliabilities of the animals without genotypes
// from the exact inverse of the animal model, and the default krel run that
// takes that road.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "app/binary_run.h"
#include "engine/reliability_engine.h"
#include "inputs/pedigree_support.h"
#include "run_results.h"
#include "util/dense_linear_algebra.h"

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
    EXPECT_TRUE(contains(a.log, "Step 3.a: inverse SNPBLUP (Plink)"));
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

// Levels 1 to 11 are animals, 12 is a group. The matings 6 x 7 (full sibs) and 9 x 3 (offspring and parent) inbreed, and so
// does 3 x 4, whose parents are the same group.
// Animal 10 stands alone: no parents, no progeny.
constexpr std::int32_t nlevels = 12, ngroups = 1;
const std::vector<testing::pedigree_record> records = {
    {1, 0, 0}, {2, 0, 0}, {3, 12, 0}, {4, 0, 12}, {5, 1, 2},  {6, 1, 2},
    {7, 1, 2}, {8, 6, 7}, {9, 3, 4},  {10, 0, 0}, {11, 9, 3},
};

struct dense_model {
    dmatrix ainv;
    std::vector<double> f;  // by level
};

dense_model reference_pedigree(const pedigree_type& p) {
    dense_model m;
    m.ainv = testing::tabular_relationships(p);  // the group as a founder
    m.f.assign(static_cast<std::size_t>(p.nlength()) + 1, 0.0);
    for (std::int32_t i = 1; i <= p.nlength(); ++i) m.f[i] = m.ainv(i, i) - 1.0;
    invsym(m.ainv);
    return m;
}

// Diagonal of the inverse of [sum x, x'; x, diag(x+) + A^-1 / g] for the
// animals, where x+ keeps the weights above the working zero only.
std::vector<double> dense_diagonal(const dense_model& m, double g, const std::vector<double>& x) {
    const std::int32_t n = m.ainv.rows();
    dmatrix c(n + 1, n + 1);
    for (std::int32_t i = 1; i <= n; ++i) {
        for (std::int32_t j = 1; j <= n; ++j) c(i + 1, j + 1) = m.ainv(i, j) / g;
        c(1, 1) += x[i];
        if (x[i] > 2.220446049250313e-16) {
            c(i + 1, i + 1) += x[i];
            c(1, i + 1) = c(i + 1, 1) = x[i];
        }
    }
    invsym(c);
    std::vector<double> d(static_cast<std::size_t>(n) + 1);
    for (std::int32_t i = 1; i <= n; ++i) d[i] = c(i + 1, i + 1);
    return d;
}

TEST(reliabilities_by_exact_inverse, AgreesWithTheDenseInverseOfTheAnimalModel) {
    const pedigree_type p = testing::make_pedigree(nlevels, ngroups, records);
    const dense_model ref = reference_pedigree(p);
    ASSERT_NEAR(ref.f[8], 0.25, 1e-15);
    ASSERT_NEAR(ref.f[9], 0.125, 1e-15);
    ASSERT_GT(ref.f[11], 0.3);

    // Two traits with their own weights; the residual covariance must play
    // no part. Animal 2 and the lone animal have no records, animal 7 a
    // slightly negative weight, animal 4 a genotype.
    const double g[3] = {0, 25.0, 4.0}, r[3] = {0, 60.0, 12.0};
    const std::vector<std::vector<double>> erc = {
        {},
        {0, 3.0, 0.0, 1.5, 7.0, 12.0, 0.8, -1e-3, 2.0, 0.4, 0.0, 5.0, 0.0},
        {0, 0.5, 9.0, 0.0, 1.0, 2.5, 30.0, 4.0, 0.0, 0.9, 0.0, 1.2, 0.0},
    };
    for (const bool inbreeding : {true, false}) {
        SCOPED_TRACE(inbreeding ? "with inbreeding" : "without inbreeding");
        krel_type k;
        k.ped = p;
        k.ped.inb = ref.f;
        k.ntrait = 2;
        k.effect = 1;
        k.use_inbreeding = inbreeding;
        k.rmat.assign(2, dmatrix(2, 2));
        k.rmat[1](1, 1) = r[1];
        k.rmat[1](2, 2) = r[2];
        k.rmat[1](1, 2) = k.rmat[1](2, 1) = 20.0;
        k.gvar.assign(2, dmatrix(2, 2));
        k.gvar[1](1, 1) = g[1];
        k.gvar[1](2, 2) = g[2];
        k.gvar[1](1, 2) = k.gvar[1](2, 1) = 6.0;
        k.erc_ss.resize(2, nlevels);
        for (std::int32_t t = 1; t <= 2; ++t)
            for (std::int32_t i = 1; i <= nlevels; ++i) k.erc_ss(t, i) = erc[t][i];
        k.idmap.assign(nlevels + 1, 0);
        k.idmap[4] = 1;
        k.final_rel.resize(nlevels, 2);
        k.final_rel(4, 1) = 0.777;
        k.final_rel(4, 2) = 0.555;
        {
            testing::log_capture quiet;
            ::testing::internal::CaptureStdout();
            k.reliabilities_by_exact_inverse();
            ::testing::internal::GetCapturedStdout();
        }
        for (std::int32_t t = 1; t <= 2; ++t) {
            std::vector<double> x(nlevels + 1);
            for (std::int32_t i = 1; i <= nlevels; ++i) x[i] = erc[t][i] / r[t];
            const std::vector<double> d = dense_diagonal(ref, g[t], x);
            for (std::int32_t i = 1; i <= nlevels; ++i) {
                if (i == 4) continue;
                const double f = inbreeding ? ref.f[i] : 0.0;
                EXPECT_NEAR(k.final_rel(i, t), 1.0 - d[i] / (g[t] * (1.0 + f)), 1e-12) << "trait " << t << " level " << i;
            }
            // Without records or relatives the prior is all there is.
            EXPECT_NEAR(k.final_rel(10, t), 0.0, 1e-12);
            // Records of relatives alone still inform.
            EXPECT_GT(k.final_rel(2, 1), 0.01);
        }
        EXPECT_EQ(k.final_rel(4, 1), 0.777);
        EXPECT_EQ(k.final_rel(4, 2), 0.555);
    }
}

void copy_example(const scratch_dir& dir) {
    const std::filesystem::path herd = std::filesystem::path(KREL_SOURCE_DIR) / "examples" / "herd";
    for (const auto& e : std::filesystem::directory_iterator(herd))
        if (e.path().extension() != ".inb")
            std::filesystem::copy_file(e.path(), std::filesystem::path(dir.path()) / e.path().filename());
}

const std::vector<std::string> herd_model = {"--ped",  "pedigree.txt",  "--effect", "1",
                                             "--gen",  "genotypes.bed", "--freq",   "compute",
                                             "--rvcv", "residual_vcv.txt", "--gvcv", "genetic_vcv.txt",
                                             "--pev",  "pev.txt"};

std::vector<std::string> herd_args(std::vector<std::string> head) {
    return testing::followed_by(std::move(head), herd_model);
}

TEST(krel_default, ExampleRunTakesTheExactRoadForAnimalsWithoutGenotypes) {
    scratch_dir dir;
    copy_example(dir);
    const auto geno = run_binary(dir, herd_args({"krel", "--only-geno"}));
    ASSERT_EQ(geno.status, 0) << geno.log;
    const auto step3 = results(dir, "qd_sskreliabilities_geno.dat");
    const auto tm_run = run_binary(dir, herd_args({"krel", "--ungeno_tm"}));
    ASSERT_EQ(tm_run.status, 0) << tm_run.log;
    const auto tm = results(dir, "qd_sskreliabilities.dat");
    std::filesystem::remove(std::filesystem::path(dir.path()) / "OK_KREL");

    const auto r = run_binary(dir, herd_args({"krel", "--gwas", "snp_solutions.txt", "2"}));
    ASSERT_EQ(r.status, 0) << r.log;
    EXPECT_TRUE(dir.exists("OK_KREL"));
    const std::string log = testing::flat(r.log);
    EXPECT_TRUE(contains(log, "Number of equations: 3005"));
    EXPECT_FALSE(contains(log, "Tier and Meyer reliabilities"));

    // Every result file: SNP statistics of the gwas side product and the
    // reliabilities of all 3,000 animals and 4 groups.
    for (const char* file : {"qd_pevsnpeffects.dat", "qd_pvalues_approx.dat", "qd_zscores_approx.dat",
                             "qd_varhatsnpeffects_approx.dat", "qd_lr_approx.dat", "qd_stats_erc_add.dat"})
        EXPECT_FALSE(dir.read(file).empty()) << file;
    EXPECT_EQ(results(dir, "qd_pevsnpeffects.dat").size(), 2000u);
    const auto rel = results(dir, "qd_sskreliabilities.dat");
    ASSERT_EQ(rel.size(), 3004u);
    EXPECT_EQ(dir.read("qd_sskreliabilities.dat"), dir.read("qd_sskreliabilities_tarnelo.dat"));
    ASSERT_EQ(step3.size(), 300u);
    for (const auto& [id, v] : step3) EXPECT_NEAR(rel.at(id)[0], v[0], 1e-5) << id;
    // The approximation is close to the exact values but not equal.
    double diff = 0.0, most = 0.0;
    for (const auto& [id, v] : rel) {
        EXPECT_TRUE(v[0] > -1e-9 && v[0] < 1.0) << id;
        if (step3.count(id)) continue;
        const double e = std::abs(v[0] - tm.at(id)[0]);
        diff += e;
        most = std::max(most, e);
    }
    diff /= 2704.0;
    EXPECT_LT(diff, 0.15);
    EXPECT_GT(most, 1e-4);
}

}  // namespace
}  // namespace krel
