#include "engine/genomic_pev.h"

#include <cblas.h>

#include <algorithm>

#include "engine/packed_genotype_products.h"
#include "util/fortran_format.h"
#include "util/logger.h"
#include "util/run_timer.h"

namespace krel {

namespace {

// diag(Zb' C Zb) block by block: two large products per block, of which only
// the diagonal is kept.
template <typename Expand>
void genomic_pev(const dmatrix& c, std::int64_t nsnp, std::int64_t n, std::int64_t block, Expand expand,
                 std::vector<double>& pev) {
    auto& log = global_logger();
    // A private contiguous copy of the SNP block (c may carry the intercept).
    std::vector<double> cc(static_cast<std::size_t>(nsnp) * nsnp);
    for (std::int64_t j = 0; j < nsnp; ++j)
        std::copy(&c(1, j + 1), &c(1, j + 1) + nsnp, cc.begin() + j * nsnp);
    pev.assign(static_cast<std::size_t>(n), 0.0);
    const std::int64_t b = std::min(block, std::max<std::int64_t>(n, 1));
    std::vector<double> zb(static_cast<std::size_t>(nsnp) * b), t(static_cast<std::size_t>(nsnp) * b),
        q(static_cast<std::size_t>(b) * b);
    for (std::int64_t s = 0; s < n; s += block) {
        const std::int64_t e = std::min(s + block, n), nb = e - s;
        wtime clock;
        expand(s, nb, zb.data());
        const double t_expand = clock.elapsed();
        clock.start();
        cblas_dgemm(CblasColMajor, CblasNoTrans, CblasNoTrans, nsnp, nb, nsnp, 1.0, cc.data(), nsnp, zb.data(), nsnp,
                    0.0, t.data(), nsnp);
        const double t_first = clock.elapsed();
        clock.start();
        cblas_dgemm(CblasColMajor, CblasTrans, CblasNoTrans, nb, nb, nsnp, 1.0, zb.data(), nsnp, t.data(), nsnp, 0.0,
                    q.data(), nb);
        const double t_second = clock.elapsed();
        clock.start();
        for (std::int64_t i = 0; i < nb; ++i) pev[s + i] = q[i * nb + i];
        if (s == 0) {
            log.log_information("Wall clock time decompression: " + realtochar(t_expand, "(f0.3)"));
            log.log_information("Wall clock time dgemm 1: " + realtochar(t_first, "(f0.3)"));
            log.log_information("Wall clock time dgemm 2: " + realtochar(t_second, "(f0.3)"));
            log.log_information("Wall clock time storage: " + realtochar(clock.elapsed(), "(f0.3)"));
        }
    }
}

}  // namespace

void get_pev_gen_exp_real(const dmatrix& c, const covariable_type& cov, std::vector<double>& pev) {
    const std::int64_t nsnp = cov.nsnp;
    genomic_pev(c, nsnp, cov.ngeno, 256,
                [&](std::int64_t s, std::int64_t nb, double* zb) {
                    std::copy(&cov.val(1, s + 1), &cov.val(1, s + 1) + nsnp * nb, zb);
                },
                pev);
}

void get_pev_gen_exp_plink(const dmatrix& c, const covariable_type& cov, std::vector<double>& pev) {
    const std::int64_t nsnp = cov.nsnp;
    genomic_pev(c, nsnp, cov.ngeno, 2048,
                [&](std::int64_t s, std::int64_t nb, double* zb) {
                    // Blocks start on a byte: 2048 animals are 512 bytes.
                    expand_genotypes(cov.ival.column(s / 4 + 1), cov.ival.ld(), nsnp, cov.val.data(), nb, nullptr, zb,
                                     nsnp);
                },
                pev);
}

}  // namespace krel
