#pragma once
#include <vector>

#include "inputs/genotypes.h"
#include "util/dense_matrix.h"

namespace krel {

// Genomic PEV of every genotyped animal: the diagonal of Z' C Z, with C
// the leading nsnp by nsnp block of c, formed for blocks of animals (256 for
// real genotypes, 2048 for packed ones) with two matrix products each.
void get_pev_gen_exp_real(const dmatrix& c, const covariable_type& cov, std::vector<double>& pev);
void get_pev_gen_exp_plink(const dmatrix& c, const covariable_type& cov, std::vector<double>& pev);

}  // namespace krel
