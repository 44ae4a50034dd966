#pragma once
// Whether each SNP varies among the genotyped animals: a SNP whose genotypes
// are all alike carries no information on its effect, whatever its test
// statistic says.
#include <cstdint>
#include <vector>

#include "inputs/genotypes.h"

namespace krel {

struct snp_variability {
    // Frequency of the allele counted by the genotype codes (the second
    // allele of the .bim) among the genotyped animals; not-a-number for text
    // genotypes, which may be centred and do not tell it.
    std::vector<double> observed_frequency;
    // True where at least two genotyped animals differ at the SNP.
    std::vector<bool> varies;
};

// Per SNP, 0-based.
snp_variability snp_variability_of(const covariable_type& geno);

}  // namespace krel
