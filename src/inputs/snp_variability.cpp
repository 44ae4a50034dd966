#include "inputs/snp_variability.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "inputs/plink_reader.h"

namespace krel {

snp_variability snp_variability_of(const covariable_type& geno) {
    snp_variability out;
    const auto nsnp = static_cast<std::size_t>(std::max<std::int32_t>(geno.nsnp, 0));
    out.observed_frequency.assign(nsnp, std::numeric_limits<double>::quiet_NaN());
    out.varies.assign(nsnp, false);
    if (nsnp == 0) return out;
    if (geno.is_packed()) {
        allelefreq_allsnp(out.observed_frequency, geno.ival, geno.ngeno);
        // With the frequency strictly between 0 and 1 both alleles occur.
        for (std::size_t j = 0; j < nsnp; ++j) {
            const double f = out.observed_frequency[j];
            out.varies[j] = f > 0.0 && f < 1.0;
        }
        return out;
    }
    for (std::size_t j = 0; j < nsnp; ++j) {
        const auto snp = static_cast<std::int64_t>(j) + 1;
        const double first = geno.val(snp, 1);
        for (std::int64_t r = 2; r <= geno.ngeno && !out.varies[j]; ++r) out.varies[j] = geno.val(snp, r) != first;
    }
    return out;
}

}  // namespace krel
