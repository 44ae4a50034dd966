// Step 3 from the SNP model to the reliabilities of the genotyped animals,
// recomputed densely from the run's own ERC: the genomic PEV, d(i) with and
// without inbreeding, the EDC and PEV adjustments, the blending with the
// pedigree reliabilities and the final clamp.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "app/binary_run.h"
#include "run_results.h"
#include "util/dense_linear_algebra.h"

namespace krel {
namespace {

using testing::followed_by;
using testing::results;
using testing::run_binary;
using testing::scratch_dir;

double read_single(const scratch_dir& dir, const std::string& file, int skip) {
    std::istringstream in(dir.read(file));
    double v = 0.0;
    for (int k = 0; k <= skip; ++k) in >> v;
    return v;
}

// Inbreeding of the run, chosen here so that every genotyped animal has its own.
double inbreeding_of(long level) { return 0.01 + 0.02 * static_cast<double>(level % 7); }

TEST(GenomicBlending, Step3AgreesWithADenseRecomputation) {
    scratch_dir dir;
    testing::generate(dir, {"--seed", "9", "--animals", "60", "--genotyped", "20", "--snps", "30", "--text",
                            "--centred-text",
                            "--groups", "0"});
    {
        std::ofstream inb(dir / "chosen.inb");
        for (long level = 1; level <= 60; ++level) inb << level << ' ' << inbreeding_of(level) << '\n';
    }
    const double g = read_single(dir, "genetic_vcv.txt", 0), e = read_single(dir, "residual_vcv.txt", 2),
                 snp_var = read_single(dir, "snp_vcv.txt", 0);
    std::map<long, std::vector<double>> genotypes;
    {
        std::istringstream in(dir.read("genotypes_spaced.txt"));
        for (std::string line; std::getline(in, line);) {
            std::istringstream items(line);
            long id = 0;
            items >> id;
            for (double v; items >> v;) genotypes[id].push_back(v);
        }
    }
    ASSERT_EQ(genotypes.size(), 20u);
    const std::size_t nsnp = genotypes.begin()->second.size();
    // Pedigree reliabilities: the last item of each record of rel.txt.
    std::map<long, double> rel_ped;
    {
        std::istringstream in(dir.read("rel.txt"));
        for (std::string line; std::getline(in, line);) {
            std::istringstream items(line);
            long id = 0;
            items >> id;
            for (std::string v; items >> v;) rel_ped[id] = std::stod(v);
        }
    }

    struct row {
        bool inbreeding;
        double beta, edc, pev;
    };
    const std::vector<row> rows = {
        {true, 0.05, 1.0, 1.0}, {false, 0.05, 1.0, 1.0}, {true, 0.3, 0.6, 1.0},
        {true, 0.1, 1.4, 1.25}, {false, 0.2, 1.0, 4.0},  // the last drives some below the floor
    };
    int clamped = 0;
    for (const row& c : rows) {
        SCOPED_TRACE("inbreeding " + std::to_string(c.inbreeding) + " beta " + std::to_string(c.beta) + " edc " +
                     std::to_string(c.edc) + " pev " + std::to_string(c.pev));
        std::vector<std::string> args = {"krel", "--verbose", "--ped", "pedigree.txt", "--effect", "1",
                                         "--gen", "genotypes_spaced.txt", "--freq", "frequencies.txt", "--rvcv",
                                         "residual_vcv.txt", "--gvcv", "genetic_vcv.txt", "--svcv", "snp_vcv.txt",
                                         "--mrel", "rel.txt", "--inbfile", "chosen.inb", "--beta",
                                         std::to_string(c.beta), "--edc-adjust-factor", std::to_string(c.edc),
                                         "--pev-adjust-factor", std::to_string(c.pev)};
        if (!c.inbreeding) args.push_back("--noinb");
        const auto r = run_binary(dir, args);
        ASSERT_EQ(r.status, 0) << r.log;

        // ERC of the genotyped animals from Step 2: fifth item of the debug listing.
        std::map<long, double> erc;
        {
            std::istringstream in(dir.read("fort.5555"));
            for (std::string line; std::getline(in, line);) {
                std::istringstream items(line);
                long id = 0;
                double one, erc1, erc2, ercg;
                items >> id >> one >> erc1 >> erc2 >> ercg;
                erc[id] = ercg;
            }
        }
        // The SNP model: [Z R Z' + I / snp_var, Z r; r' Z', sum r], r = ERC / e.
        const auto n = static_cast<std::int64_t>(nsnp);
        dmatrix m(n + 1, n + 1);
        for (std::int64_t s = 1; s <= n; ++s) m(s, s) = 1.0 / snp_var;
        for (const auto& [id, z] : genotypes) {
            const double w = erc.at(id) / e;
            for (std::int64_t a = 1; a <= n; ++a) {
                for (std::int64_t b = 1; b <= n; ++b) m(a, b) += z[a - 1] * w * z[b - 1];
                m(a, n + 1) += z[a - 1] * w;
                m(n + 1, a) += z[a - 1] * w;
            }
            m(n + 1, n + 1) += w;
        }
        invsym(m);

        const auto final_rel = results(dir, "qd_sskreliabilities.dat");
        std::istringstream listing(dir.read("qd_pevrelstarrel_geno_1.dat"));
        int listed = 0;
        for (std::string line; std::getline(listing, line); ++listed) {
            std::istringstream items(line);
            long row_number = 0, id = 0;
            double pev_run = 0, rel_run = 0, blended_run = 0;
            items >> row_number >> id >> pev_run >> rel_run >> blended_run;
            const std::vector<double>& z = genotypes.at(id);
            double pev = 0.0;
            for (std::int64_t a = 1; a <= n; ++a)
                for (std::int64_t b = 1; b <= n; ++b) pev += z[a - 1] * m(a, b) * z[b - 1];
            const double f = inbreeding_of(id);
            const double d = c.inbreeding ? g * (1.0 + f) : g;
            double rel = 1.0 - pev / d;
            if (c.edc != 1.0) {
                const double h = g / (g + 1.0 / e), lambda = (1.0 - h) / h;
                const double edc = c.edc * lambda * rel / (1.0 - rel);
                rel = edc / (lambda + edc);
                pev = d * (1.0 - rel);
            }
            if (c.pev != 1.0) {
                pev = d * c.pev * (1.0 - rel);
                rel = 1.0 - pev / d;
            }
            const double w = c.beta * (1.0 + f);
            const double blended = (w * rel_ped.at(id) + (1.0 - c.beta) * rel) / (w + 1.0 - c.beta);
            EXPECT_NEAR(pev_run, pev, 1e-6 * g) << id;
            EXPECT_NEAR(rel_run, rel, 1e-6) << id;
            EXPECT_NEAR(blended_run, blended, 1e-6) << id;
            const double kept = std::min(std::max(blended, 1.0e-8), 1.0);
            EXPECT_NEAR(final_rel.at(id)[0], kept, 6e-6) << id;
            EXPECT_GE(final_rel.at(id)[0], 0.0) << id;
            clamped += blended < 0.0;
        }
        EXPECT_EQ(listed, 20);
    }
    EXPECT_GT(clamped, 0);
}

}  // namespace
}  // namespace krel
