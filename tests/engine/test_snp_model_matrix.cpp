// Step 3 pieces against dense computations: the SNP model's coefficient
// matrix and its inverse, the genomic PEV, and the SNP test statistics.
#include <gtest/gtest.h>

#include <cmath>
#include <sstream>
#include <string>
#include <vector>

#include "app/binary_run.h"
#include "engine/genomic_pev.h"
#include "engine/reliability_engine.h"
#include "engine/snp_model_matrix.h"
#include "inputs/genotypes.h"
#include "inputs/plink_reader.h"
#include "test_support.h"
#include "util/error_stop.h"

namespace krel {
namespace {

using testing::log_capture;
using testing::scratch_dir;

// Packed genotypes of a generated set, and their centred dense form.
struct genotypes {
    covariable_type cov;
    dmatrix z;  // nsnp by nind
};

genotypes load(const scratch_dir& dir, int animals, int genotyped, int snps) {
    const auto r = testing::run_program(dir, KREL_SIMULATE_BINARY,
                                        {"--out", ".", "--animals", std::to_string(animals), "--genotyped",
                                         std::to_string(genotyped), "--snps", std::to_string(snps), "--missing", "0.05"});
    EXPECT_EQ(r.status, 0) << r.err;
    genotypes g;
    std::int32_t nsnp = 0, ngeno = 0;
    bool isplink = false;
    readgenotype((dir / "genotypes.bed").string(), "compute", animals, nsnp, ngeno, g.cov, isplink);
    g.z.resize(nsnp, ngeno);
    for (std::int32_t i = 1; i <= ngeno; ++i)
        for (std::int32_t s = 1; s <= nsnp; ++s) g.z(s, i) = g.cov.getvalue_summary(s, i);
    return g;
}

TEST(step3, CoefficientMatrixAndItsInverseMatchTheDenseModel) {
    log_capture log;
    scratch_dir dir;
    const auto g = load(dir, 300, 45, 37);
    const std::int32_t nsnp = g.cov.nsnp, n = g.cov.ngeno;
    std::vector<double> r0(n);
    for (std::int32_t i = 0; i < n; ++i) r0[i] = 0.2 + 0.05 * (i % 7);
    const double scale = 0.5, sigmab = 3.0, polyfrac = 0.5;
    // Dense: [Z R Z' + Bi I, Z r; r' Z', sum r] with R = diag(scale r0).
    dmatrix dense(nsnp + 1, nsnp + 1);
    for (std::int32_t i = 1; i <= n; ++i) {
        const double r = scale * r0[i - 1];
        for (std::int32_t a = 1; a <= nsnp; ++a) {
            for (std::int32_t b = 1; b <= nsnp; ++b) dense(a, b) += g.z(a, i) * r * g.z(b, i);
            dense(a, nsnp + 1) += g.z(a, i) * r;
            dense(nsnp + 1, a) += g.z(a, i) * r;
        }
        dense(nsnp + 1, nsnp + 1) += r;
    }
    for (std::int32_t a = 1; a <= nsnp; ++a) dense(a, a) += sigmab / (1.0 - polyfrac);

    for (std::int32_t method : {1, 2}) {
        dmatrix zrz;
        compute_zrz_plink(method, g.cov, r0, scale, sigmab, zrz, polyfrac);
        for (std::int32_t b = 1; b <= nsnp + 1; ++b)
            for (std::int32_t a = 1; a <= nsnp + 1; ++a)
                ASSERT_NEAR(zrz(a, b), dense(a, b), 1e-10 * (1.0 + std::abs(dense(a, b)))) << method << ' ' << a << ' ' << b;
    }
    EXPECT_NE(log.text().find("Diagonal element of Bi: (inverse SNP variance): 6.00000"), std::string::npos)
        << log.text();
    dmatrix bad;
    EXPECT_THROW(compute_zrz_plink(3, g.cov, r0, scale, sigmab, bad, std::nullopt), error_stop);
    EXPECT_NE(log.text().find("Method for computing ZRZ not implemented: 3"), std::string::npos);

    // The inverse and its diagonal, and the saved triangle on request.
    dmatrix inv;
    std::vector<double> pec;
    const auto old = std::filesystem::current_path();
    std::filesystem::current_path(dir.path());
    compute_krel_step3a(1, true, g.cov, r0, scale, sigmab, polyfrac, true, "t1", inv, pec);
    std::filesystem::current_path(old);
    EXPECT_TRUE(dir.exists("qd_pec_t1_tri.dat"));
    for (std::int32_t a = 1; a <= nsnp + 1; ++a) {
        double unit = 0.0;
        for (std::int32_t k = 1; k <= nsnp + 1; ++k) unit += dense(a, k) * inv(k, a);
        EXPECT_NEAR(unit, 1.0, 1e-9) << a;
        EXPECT_EQ(pec[a], inv(a, a));
    }
}

TEST(step3, GenomicPevIsTheDiagonalOfZCZ) {
    log_capture log;
    scratch_dir dir;
    // More animals than one block of the packed form holds.
    const auto g = load(dir, 2400, 2100, 9);
    const std::int32_t nsnp = g.cov.nsnp, n = g.cov.ngeno;
    dmatrix c(nsnp + 1, nsnp + 1);  // the intercept row and column are not used
    for (std::int32_t b = 1; b <= nsnp + 1; ++b)
        for (std::int32_t a = 1; a <= nsnp + 1; ++a) c(a, b) = 1.0 / (1.0 + a + b) + (a == b ? 1.0 : 0.0);
    std::vector<double> pev;
    get_pev_gen_exp_plink(c, g.cov, pev);
    ASSERT_EQ(pev.size(), static_cast<std::size_t>(n));
    for (std::int32_t i : {1, 2, 2048, 2049, n}) {
        double q = 0.0;
        for (std::int32_t a = 1; a <= nsnp; ++a)
            for (std::int32_t b = 1; b <= nsnp; ++b) q += g.z(a, i) * c(a, b) * g.z(b, i);
        EXPECT_NEAR(pev[i - 1], q, 1e-10 * (1.0 + q)) << i;
    }

    // The real form on the same, expanded genotypes.
    covariable_type real;
    real.allocreal(nsnp, n);
    real.ngeno = n;
    real.val = g.z;
    std::vector<double> pev_real;
    get_pev_gen_exp_real(c, real, pev_real);
    for (std::int32_t i = 0; i < n; i += 97) EXPECT_NEAR(pev_real[i], pev[i], 1e-10 * (1.0 + pev[i]));
}

TEST(step3, SnpTestStatistics) {
    log_capture log;
    scratch_dir dir;
    krel_type k;
    k.ntrait = 1;
    k.effect = 1;
    k.nsnp = 4;
    k.svcv = "given";
    k.svar.assign(2, dmatrix(80, 80));
    k.svar[1](1, 1) = 2.0;
    k.pev_snp.resize(1, 4);
    k.pev_snp(1, 1) = 1.0;
    k.pev_snp(1, 2) = 2.0;  // variance of the estimate exactly 0
    k.pev_snp(1, 3) = 1.0;
    k.pev_snp(1, 4) = 1.0;
    // SNP 1 absent from the file; SNP 3 far in the tail.
    dir.write("sol.txt", "1 5 2 2 0.7\n1 5 3 3 -10\n1 5 4 4 1.5\n1 9 1 1 100\n");
    const auto old = std::filesystem::current_path();
    std::filesystem::current_path(dir.path());
    k.pvalue("sol.txt", 5);
    std::filesystem::current_path(old);
    const std::string p = dir.read("qd_pvalues_approx.dat");
    const std::string z = dir.read("qd_zscores_approx.dat");
    const std::string lr = dir.read("qd_lr_approx.dat");
    EXPECT_EQ(p.substr(0, p.find('\n')), "1 5 0 1 ");
    EXPECT_EQ(z.substr(0, z.find('\n')), "1 5 0 0 ");
    EXPECT_EQ(lr.substr(0, lr.find('\n')), "1 5 0 0 ");
    EXPECT_NE(p.find("\n2 5 0 0 \n"), std::string::npos);
    EXPECT_NE(lr.find("\n2 5 0 1.7976931348623157e+308 \n"), std::string::npos) << lr;
    // |z| = 10: double precision would give 1 - 1 = 0.
    const auto at3 = p.find("\n3 5 0 ") + 7;
    const double p3 = std::stod(p.substr(at3));
    EXPECT_GT(p3, 0.0);
    EXPECT_NEAR(p3, 1.5239706048321e-23, 1e-33);
    EXPECT_NE(z.find("\n3 5 0 -10 \n"), std::string::npos);
    EXPECT_NE(lr.find("\n4 5 0 1.125 \n"), std::string::npos);
    // Tails against erfc(u / sqrt 2): 1 - Phi(u) is formed in 16-byte reals,
    // so its error is that of a 16-byte unit (about 1e-34), and it reaches 0
    // once Phi(u) rounds to 1, between u = 11 and u = 13.
    k.nsnp = 5;
    k.pev_snp.resize(1, 5);
    for (std::int32_t j = 1; j <= 5; ++j) k.pev_snp(1, j) = 1.0;  // variance of the estimate 1
    dir.write("tails.txt", "1 5 1 1 3\n1 5 2 2 8\n1 5 3 3 10\n1 5 4 4 11\n1 5 5 5 13\n");
    std::filesystem::current_path(dir.path());
    k.pvalue("tails.txt", 5);
    std::filesystem::current_path(old);
    std::istringstream tails(dir.read("qd_pvalues_approx.dat"));
    const double reference[5] = {0.0026997960632601913, 1.2441921148543639e-15, 1.5239706048321186e-23,
                                 3.821319148997366e-28, 0.0};
    for (double ref : reference) {
        long id = 0, e = 0, zero = 0;
        double value = -1.0;
        tails >> id >> e >> zero >> value;
        EXPECT_NEAR(value, ref, 1e-14 * ref + 4e-34) << id;
    }
    EXPECT_THROW(k.pvalue("none"), error_stop);
    EXPECT_NE(log.text().find("No SNP files were provided for GWAS"), std::string::npos);
}

}  // namespace
}  // namespace krel
