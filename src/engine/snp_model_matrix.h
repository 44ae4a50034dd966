#pragma once
// Step 3.a: the coefficient matrix of the SNP model with an intercept,
//   [ Z diag(r) Z' + Bi I   Z r   ]
//   [ r' Z'                 sum r ],
// built from packed or real genotypes and inverted densely; its inverse is
// the prediction error (co)variance of the SNP effects.
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "inputs/genotypes.h"
#include "util/dense_matrix.h"

namespace krel {

// The whole of Step 3.a: zrz receives the inverse (order nsnp + 1) and
// pecdiag its diagonal (1-based). r0 holds one weight per animal of cov.
void compute_krel_step3a(std::int32_t method, bool isplink, const covariable_type& cov,
                         std::span<const double> r0, double scale, double sigmab,
                         std::optional<double> polyfrac, bool savepec, const std::string& name, dmatrix& zrz,
                         std::vector<double>& pecdiag);
void compute_zrz_plink(std::int32_t method, const covariable_type& cov, std::span<const double> r0, double scale,
                       double sigmab, dmatrix& zrz, std::optional<double> polyfrac);
void compute_zrz_real(const covariable_type& cov, std::span<const double> r0, double scale, double sigmab,
                      dmatrix& zrz, std::optional<double> polyfrac);
// C (leading dimension ldc) = V diag(r) V' for the real genotypes V (nsnp by nind).
void dgemm_zrz_real(const covariable_type& cov, std::int64_t nsnp, std::int64_t nind, const double* r, double* c,
                    std::int64_t ldc);

}  // namespace krel
