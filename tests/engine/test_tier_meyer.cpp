// Steps 4 to 6 and the Tier and Meyer road: weights of all animals and
// reliabilities of the animals without genotypes.
#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "app/binary_run.h"
#include "engine/tier_meyer.h"
#include "run_results.h"

namespace krel {
namespace {

using testing::contains;
using testing::run_binary;
using testing::run_program;
using testing::results;
using testing::scratch_dir;

TEST(tiermeyer, ExactWhereThereAreNoRelationships) {
    // Five founders without progeny, one with unknown parents and a group
    // as parent (a group takes no part).
    pedigree_type p;
    p.allocate(7, 1);
    p.ped(1, 6) = 7;
    std::vector<std::int32_t> order;
    {
        testing::log_capture quiet;
        p.getorder(order);
    }
    const std::vector<double> w = {0, 0.0, 1.0, 2.5, 10.0, 0.3, 4.0, 0.0};
    const double gi = 1.0 / 25.0, ri = 1.0 / 58.0;
    std::vector<double> d;
    tiermeyer(p, order, {}, gi, ri, w, d);
    for (std::int32_t i = 1; i <= 6; ++i) EXPECT_NEAR(d[i], 1.0 / (w[i] * ri + gi), 1e-14) << i;

    // A parent and its progeny, both with records: both gain, each PEV
    // falls below that of its own records alone.
    p.ped(1, 2) = 1;
    std::vector<double> w2 = w;
    w2[1] = 3.0;
    tiermeyer(p, order, {}, gi, ri, w2, d);
    EXPECT_LT(d[1], 1.0 / (w2[1] * ri + gi));
    EXPECT_LT(d[2], 1.0 / (w2[2] * ri + gi));
}

void generate(const scratch_dir& dir) {
    testing::generate(dir, {"--animals", "600", "--genotyped", "70", "--snps", "120"});
}


const std::vector<std::string> model = {"--ped", "pedigree.txt", "--effect", "1", "--h2", "heritability.txt",
                                        "--gvcv", "genetic_vcv.txt", "--pev", "pev.txt", "--gen", "genotypes.bed",
                                        "--freq", "compute"};

std::vector<std::string> with_model(std::vector<std::string> head) {
    return testing::followed_by(std::move(head), model);
}

TEST(notgeno, WeightsAndReliabilitiesOfAllAnimals) {
    scratch_dir dir;
    generate(dir);
    const auto geno = run_binary(dir, with_model({"krel", "--only-geno"}));
    ASSERT_EQ(geno.status, 0) << geno.log;
    const auto step3 = results(dir, "qd_sskreliabilities_geno.dat");

    const auto r = run_binary(dir, with_model({"krel", "--ungeno_tm", "--verbose", "--erc"}));
    ASSERT_EQ(r.status, 0) << r.log;
    EXPECT_TRUE(dir.exists("OK_KREL"));
    for (const char* step : {"Step 4: weights for the non-genotyped animals",
                             "Step 5: genomic weights for the genotyped animals",
                             "Step 6: combining the weights for all the animals",
                             "Tier and Meyer reliabilities for the animals (trait 1)",
                             "Number of individuals listed: 600"})
        EXPECT_TRUE(contains(r.log, step)) << step;

    // Final weights: pedigree ERC, plus for genotyped animals the genomic
    // extra, at least 1e-8 (the debug listing holds the pieces: record, 1,
    // pedigree ERC, genomic ERC, Step 2 ERC, combined).
    const auto add = results(dir, "qd_erc_add.dat");
    const auto ss = results(dir, "qd_erc_ss.dat");
    ASSERT_EQ(add.size(), 70u);
    ASSERT_EQ(ss.size(), 600u);
    std::istringstream debug(dir.read("fort.5555"));
    int checked = 0;
    for (std::string line; std::getline(debug, line);) {
        std::istringstream words(line);
        long id = 0, one = 0;
        double e1 = 0, e2 = 0, eg = 0, ess = 0;
        words >> id >> one >> e1 >> e2 >> eg >> ess;
        ASSERT_EQ(one, 1);
        if (add.count(id)) {
            const double extra = std::max(e2 - eg, 1e-8);
            EXPECT_NEAR(add.at(id)[0], e2 - eg > 0 ? e2 - eg : 1e-8, 2e-6) << id;
            EXPECT_NEAR(ss.at(id)[0], e1 + extra, 2e-6) << id;
        } else {
            EXPECT_NEAR(ss.at(id)[0], e1, 1e-6) << id;
        }
        ++checked;
    }
    EXPECT_EQ(checked, 600);

    // The statistics line of the extra weights: trait, min, mean, SD, max.
    double sum = 0, sum2 = 0, lo = 1e300, hi = -1e300;
    for (const auto& [id, v] : add) sum += v[0], sum2 += v[0] * v[0], lo = std::min(lo, v[0]), hi = std::max(hi, v[0]);
    const double nadd = static_cast<double>(add.size()), mean = sum / nadd;
    std::istringstream stats(dir.read("qd_stats_erc_add.dat"));
    int trait = 0;
    double smin = 0, smean = 0, ssd = 0, smax = 0;
    stats >> trait >> smin >> smean >> ssd >> smax;
    EXPECT_EQ(trait, 1);
    EXPECT_NEAR(smin, lo, 5e-4);
    EXPECT_NEAR(smean, mean, 5e-4);
    EXPECT_NEAR(ssd, std::sqrt((sum2 - nadd * mean * mean) / (nadd - 1)), 5e-4);
    EXPECT_NEAR(smax, hi, 5e-4);

    // Reliabilities of every level; genotyped animals keep their Step 3 value.
    const auto rel = results(dir, "qd_sskreliabilities.dat");
    EXPECT_EQ(rel.size(), 600u);
    EXPECT_EQ(dir.read("qd_sskreliabilities.dat"), dir.read("qd_sskreliabilities_tarnelo.dat"));
    for (const auto& [id, v] : step3) EXPECT_NEAR(rel.at(id)[0], v[0], 1e-5) << id;
    for (const auto& [id, v] : rel) EXPECT_TRUE(v[0] > -1e-9 && v[0] < 1.0) << id;
}

TEST(notgeno, ListFilesAndTheRoadTaken) {
    scratch_dir dir;
    generate(dir);
    dir.write("list.txt", "1\n2\n3\n");
    const auto listed = run_binary(dir, with_model({"krel", "--ungeno_tm", "--pheno", "list.txt"}));
    ASSERT_EQ(listed.status, 0) << listed.log;
    EXPECT_TRUE(contains(listed.log, "Number of individuals listed: 3"));

    dir.write("list.txt", "1\n9999\n");
    const auto outside = run_binary(dir, with_model({"krel", "--ungeno_tm", "--pheno", "list.txt"}));
    EXPECT_NE(outside.status, 0);
    EXPECT_TRUE(contains(outside.log, "9999"));
    // Without --ungeno_tm a pedigree of at most a million animals takes the
    // exact road; the same list holds there.
    dir.write("list.txt", "1\n2\n3\n");
    const auto exact = run_binary(dir, with_model({"krel", "--pheno", "list.txt"}));
    ASSERT_EQ(exact.status, 0) << exact.log;
    EXPECT_TRUE(contains(exact.log, "Number of individuals listed: 3"));
    EXPECT_TRUE(contains(exact.log, "Number of equations: 601"));
    EXPECT_FALSE(contains(exact.log, "Tier and Meyer reliabilities"));

    const auto missing = run_binary(dir, with_model({"krel", "--ungeno_tm", "--pheno", "absent.txt"}));
    EXPECT_NE(missing.status, 0);
    EXPECT_TRUE(contains(missing.log, "absent.txt"));
}

}  // namespace
}  // namespace krel
