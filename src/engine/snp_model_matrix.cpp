#include "engine/snp_model_matrix.h"

#include <cblas.h>

#include <cmath>
#include <vector>

#include "engine/packed_genotype_products.h"
#include "util/dense_linear_algebra.h"
#include "util/dense_square_file.h"
#include "util/error_stop.h"
#include "util/fortran_format.h"
#include "util/logger.h"
#include "util/run_timer.h"

namespace krel {

namespace {

// Steps shared by both forms once the product stands: the timing line and
// the prior on the SNP effects, added to the diagonal of the SNP block.
void finish_zrz(dmatrix& zrz, std::int64_t nsnp, double sigmab, std::optional<double> polyfrac, const wtime& clock) {
    auto& log = global_logger();
    log.log_information("Wall clock time (s) for ZRZ: " + realtochar(clock.elapsed(), "(f0.3)"));
    double bi = sigmab;
    if (polyfrac && *polyfrac != 1.0) bi = bi / (1.0 - *polyfrac);
    const double b = 1.0 / bi;
    log.log_message("Diagonal element of B (SNP variance)          : " + realtochar(b, "(g0.6)"));
    log.log_message("Diagonal element of Bi: (inverse SNP variance): " + realtochar(bi, "(g0.6)"));
    for (std::int64_t i = 1; i <= nsnp; ++i) zrz(i, i) += bi;
}

// The weights r = scale r0, and the matrix with its corner, sum of r.
std::vector<double> start_zrz(dmatrix& zrz, std::int64_t nsnp, std::span<const double> r0, double scale,
                              std::int64_t nind) {
    zrz.resize(nsnp + 1, nsnp + 1);
    std::vector<double> r(nind);
    double sum = 0.0;
    for (std::int64_t i = 0; i < nind; ++i) {
        r[i] = scale * r0[i];
        sum += r[i];
    }
    zrz(nsnp + 1, nsnp + 1) = sum;
    return r;
}

// The border column is in place: the row is its copy.
void finish_border(dmatrix& zrz, std::int64_t nsnp, const wtime& clock) {
    for (std::int64_t i = 1; i <= nsnp; ++i) zrz(nsnp + 1, i) = zrz(i, nsnp + 1);
    global_logger().log_information("Wall clock time (s) for ZR1: " + realtochar(clock.elapsed(), "(f0.3)"));
}

}  // namespace

void compute_zrz_plink(std::int32_t method, const covariable_type& cov, std::span<const double> r0, double scale,
                       double sigmab, dmatrix& zrz, std::optional<double> polyfrac) {
    const std::int64_t nsnp = cov.nsnp, nind = cov.ngeno, nbytes = cov.ncol;
    const auto r = start_zrz(zrz, nsnp, r0, scale, nind);
    wtime clock;
    dgemm_compressed("n", "n", nsnp, 1, nind, nbytes, 1.0, cov.ival.data(), cov.val.data(), nsnp, r.data(), nind,
                     0.0, &zrz(1, nsnp + 1), nsnp);
    finish_border(zrz, nsnp, clock);
    if (method == 1) {
        dgemm_zrz_mkl(nind, nsnp, nbytes, cov.ival.data(), cov.val.data(), r.data(), zrz.data(), nsnp + 1);
    } else if (method == 2) {
        dgemm_zrz(nind, nsnp, nbytes, cov.ival.data(), cov.val.data(), r.data(), zrz.data(), nsnp + 1);
    } else {
        global_logger().log_error("Method for computing ZRZ not implemented: " + inttochar(method), "modkrel",
                                  procedure_at("compute_zrz_plink"));
        throw error_stop();
    }
    finish_zrz(zrz, nsnp, sigmab, polyfrac, clock);
}

void dgemm_zrz_real(const covariable_type& cov, std::int64_t nsnp, std::int64_t nind, const double* r, double* c,
                    std::int64_t ldc) {
    std::vector<double> v(static_cast<std::size_t>(nsnp) * nind);
    for (std::int64_t i = 0; i < nind; ++i) {
        const double s = std::sqrt(r[i]);
        const double* col = &cov.val(1, i + 1);
        for (std::int64_t j = 0; j < nsnp; ++j) v[i * nsnp + j] = col[j] * s;
    }
    cblas_dgemm(CblasColMajor, CblasNoTrans, CblasTrans, nsnp, nsnp, nind, 1.0, v.data(), nsnp, v.data(), nsnp, 0.0,
                c, ldc);
}

void compute_zrz_real(const covariable_type& cov, std::span<const double> r0, double scale, double sigmab,
                      dmatrix& zrz, std::optional<double> polyfrac) {
    const std::int64_t nsnp = cov.nsnp, nind = cov.ngeno;
    const auto r = start_zrz(zrz, nsnp, r0, scale, nind);
    wtime clock;
    if (nsnp > 0 && nind > 0)
        cblas_dgemv(CblasColMajor, CblasNoTrans, nsnp, nind, 1.0, cov.val.data(), nsnp, r.data(), 1, 0.0,
                    &zrz(1, nsnp + 1), 1);
    finish_border(zrz, nsnp, clock);
    if (nsnp > 0) dgemm_zrz_real(cov, nsnp, nind, r.data(), zrz.data(), nsnp + 1);
    finish_zrz(zrz, nsnp, sigmab, polyfrac, clock);
}

void compute_krel_step3a(std::int32_t method, bool isplink, const covariable_type& cov,
                         std::span<const double> r0, double scale, double sigmab,
                         std::optional<double> polyfrac, bool savepec, const std::string& name, dmatrix& zrz,
                         std::vector<double>& pecdiag) {
    auto& log = global_logger();
    zrz = dmatrix();
    wtime clock;
    if (!isplink)
        compute_zrz_real(cov, r0, scale, sigmab, zrz, polyfrac);
    else
        compute_zrz_plink(method, cov, r0, scale, sigmab, zrz, polyfrac);
    log.log_message("Wall clock time (s) for computing (ZRZ+Bi): " + realtochar(clock.elapsed(), "(f0.3)"));
    clock.start();
    invsym(zrz);
    log.log_message("Wall clock time (s) for inverting (ZRZ+Bi): " + realtochar(clock.elapsed(), "(f0.3)"));
    const auto n = zrz.rows();
    pecdiag.assign(static_cast<std::size_t>(n) + 1, 0.0);
    for (dmatrix::index_type i = 1; i <= n; ++i) pecdiag[i] = zrz(i, i);
    if (!savepec) return;
    const std::string file = "qd_pec_" + name + "_tri.dat";
    log.log_message("Saves PEC in " + file);
    densesquare_type d;
    d.n = static_cast<std::int32_t>(n);
    d.ids.resize(n);
    for (std::int32_t i = 0; i < d.n; ++i) d.ids[i] = i + 1;
    d.a = zrz;
    d.write_densesquare(file, "tri");
}

}  // namespace krel
