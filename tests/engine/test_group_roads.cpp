// Genetic groups on the two roads for animals without genotypes: the exact
// inverse, with groups as founders or as unknown parents, against a dense
// inverse and against the Tier and Meyer approximation.
#include <gtest/gtest.h>

#include <cmath>
#include <set>
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
using testing::results;
using testing::run_binary;
using testing::scratch_dir;

// Levels 1 to 9 are animals, 10 and 11 groups. Animal 8 has a group as one
// parent and a real one as the other; 3 and 4 share a group and mate.
constexpr std::int32_t nlevels = 11, ngroups = 2;
const std::vector<testing::pedigree_record> records = {
    {1, 10, 11}, {2, 10, 10}, {3, 0, 11}, {4, 11, 0}, {5, 1, 2}, {6, 3, 4}, {7, 5, 6}, {8, 10, 6}, {9, 0, 0},
};

// Relationships of the animals with group parents taken as unknown, by the
// tabular method (parents precede progeny here); the groups are unrelated
// founders.
dmatrix relationships_groups_unknown(const pedigree_type& p) {
    const std::int32_t n = p.nlength(), last = n - p.nupg;
    auto parent = [&](std::int32_t q) { return q >= 1 && q <= last ? q : 0; };
    dmatrix a(n, n);
    for (std::int32_t i = 1; i <= n; ++i) {
        const std::int32_t s = i <= last ? parent(p.sire(i)) : 0, d = i <= last ? parent(p.dam(i)) : 0;
        for (std::int32_t j = 1; j < i; ++j)
            a(i, j) = a(j, i) = 0.5 * ((s > 0 ? a(j, s) : 0.0) + (d > 0 ? a(j, d) : 0.0));
        a(i, i) = 1.0 + (s > 0 && d > 0 ? 0.5 * a(s, d) : 0.0);
    }
    return a;
}

TEST(GroupsAsUnknown, ExactInverseAgreesWithTheDenseModelOfUnknownParents) {
    const pedigree_type p = testing::make_pedigree(nlevels, ngroups, records);
    dmatrix ainv = relationships_groups_unknown(p);
    std::vector<double> f(nlevels + 1, 0.0);
    for (std::int32_t i = 1; i <= nlevels; ++i) f[i] = ainv(i, i) - 1.0;
    invsym(ainv);
    const double g = 16.0, r = 48.0;
    const std::vector<double> erc = {0, 2.0, 0.0, 5.0, 1.0, 0.5, 3.0, 8.0, 0.0, 4.0, 0.0, 0.0};

    // Dense: [sum x, x'; x, diag(x) + A^-1 / g], x = ERC / r.
    dmatrix c(nlevels + 1, nlevels + 1);
    for (std::int32_t i = 1; i <= nlevels; ++i) {
        for (std::int32_t j = 1; j <= nlevels; ++j) c(i + 1, j + 1) = ainv(i, j) / g;
        const double x = erc[i] / r;
        c(1, 1) += x;
        c(i + 1, i + 1) += x;
        c(1, i + 1) = c(i + 1, 1) = x;
    }
    invsym(c);

    for (const bool as_unknown : {true, false}) {
        SCOPED_TRACE(as_unknown ? "groups as unknown parents" : "groups as founders");
        krel_type k;
        k.ped = p;
        k.ped.inb = f;
        k.ntrait = 1;
        k.effect = 1;
        k.groups_as_unknown = as_unknown;
        k.rmat.assign(2, dmatrix(1, 1, r));
        k.gvar.assign(2, dmatrix(1, 1, g));
        k.erc_ss.resize(1, nlevels);
        for (std::int32_t i = 1; i <= nlevels; ++i) k.erc_ss(1, i) = erc[i];
        k.idmap.assign(nlevels + 1, 0);
        k.final_rel.resize(nlevels, 1);
        testing::log_capture log;
        ::testing::internal::CaptureStdout();
        k.reliabilities_by_exact_inverse();
        ::testing::internal::GetCapturedStdout();
        const std::string text = testing::flat(log.text());
        EXPECT_EQ(contains(text, "The pedigree has 2 genetic groups."), !as_unknown) << text;
        EXPECT_EQ(contains(text, "Genetic groups as unknown parents in the exact inverse: 7 group parents"),
                  as_unknown)
            << text;
        EXPECT_TRUE(contains(text, "Reliabilities of the exact inverse below 0 (trait 1): ")) << text;
        double most = 0.0;
        for (std::int32_t i = 1; i <= nlevels; ++i) {
            const double expected = 1.0 - c(i + 1, i + 1) / (g * (1.0 + f[i]));
            most = std::max(most, std::abs(k.final_rel(i, 1) - expected));
            if (as_unknown) {
                EXPECT_NEAR(k.final_rel(i, 1), expected, 1e-12) << "level " << i;
            }
        }
        // As founders the groups tie their progeny together: another model.
        if (!as_unknown) {
            EXPECT_GT(most, 1e-3);
        }
    }
}

// Pearson correlation and root mean square difference of two reliability
// files over the animals without genotypes.
struct agreement {
    double r = 0.0, rmse = 0.0;
    int negative = 0;
};

agreement compare(const std::map<long, std::vector<double>>& a, const std::map<long, std::vector<double>>& b,
                  const std::set<long>& genotyped, long last_animal) {
    double sa = 0, sb = 0, saa = 0, sbb = 0, sab = 0, sd = 0;
    int n = 0;
    agreement out;
    for (long id = 1; id <= last_animal; ++id) {
        if (genotyped.count(id)) continue;
        const double x = a.at(id)[0], y = b.at(id)[0];
        sa += x, sb += y, saa += x * x, sbb += y * y, sab += x * y, sd += (x - y) * (x - y);
        out.negative += x < 0.0;
        ++n;
    }
    out.r = (n * sab - sa * sb) / std::sqrt((n * saa - sa * sa) * (n * sbb - sb * sb));
    out.rmse = std::sqrt(sd / n);
    return out;
}

TEST(GroupsAsUnknown, TheTwoRoadsAgreeOnGroupedData) {
    scratch_dir dir;
    testing::generate(dir, {"--seed", "5", "--animals", "800", "--genotyped", "80", "--snps", "200", "--traits", "1",
                            "--groups", "4"});
    std::set<long> genotyped;
    {
        std::istringstream fam(dir.read("genotypes.fam"));
        for (std::string family, id; fam >> family >> id && fam.ignore(1000, '\n');) genotyped.insert(std::stol(id));
    }
    ASSERT_EQ(genotyped.size(), 80u);
    const std::vector<std::string> model = {"--ped", "pedigree.txt", "--effect", "1", "--gen", "genotypes.bed",
                                            "--freq", "compute", "--h2", "heritability.txt", "--gvcv",
                                            "genetic_vcv.txt", "--pev", "pev.txt"};
    auto run = [&](std::vector<std::string> extra, const std::string& file) {
        const auto r = run_binary(dir, testing::followed_by(testing::followed_by({"krel"}, model), extra));
        EXPECT_EQ(r.status, 0) << r.log;
        return std::make_pair(results(dir, file), testing::flat(r.log));
    };
    const auto [tm, tm_log] = run({"--ungeno_tm"}, "qd_sskreliabilities.dat");
    const auto [founders, founders_log] = run({}, "qd_sskreliabilities.dat");
    const auto [unknown, unknown_log] = run({"--groups-as-unknown"}, "qd_sskreliabilities.dat");
    ASSERT_EQ(tm.size(), 804u);
    EXPECT_FALSE(contains(tm_log, "genetic groups. The exact inverse"));
    EXPECT_TRUE(contains(founders_log, "The pedigree has 4 genetic groups. The exact inverse counts each group"));
    EXPECT_TRUE(contains(unknown_log, "Groups as unknown parents : T"));

    const agreement by_default = compare(founders, tm, genotyped, 800);
    const agreement with_option = compare(unknown, tm, genotyped, 800);
    EXPECT_LT(by_default.r, 0.9);
    EXPECT_GT(by_default.rmse, 0.05);
    EXPECT_GE(with_option.r, 0.99);
    EXPECT_LT(with_option.rmse, 0.03);
    EXPECT_EQ(with_option.negative, 0);
    // The groups themselves: no information on either road.
    for (long g = 801; g <= 804; ++g) {
        EXPECT_NEAR(unknown.at(g)[0], 0.0, 1e-5) << g;
        EXPECT_NEAR(tm.at(g)[0], 0.0, 1e-5) << g;
    }
}

}  // namespace
}  // namespace krel
