#pragma once
// Effective record contributions (ERC) from pedigree PEV: a fixed-point
// iteration over sweeps of the Tier and Meyer pedigree approximation, each
// sweep solving every animal's ERC so that its approximate prediction error
// variance equals the target.
#include <cstdint>
#include <span>
#include <vector>

#include "inputs/modpedigree.h"
#include "inputs/modstructure.h"
#include "util/dense_matrix.h"

namespace krel {

// The whole iteration for one trait block. target and erc are nt by n
// (record in the column), rel is 1-based over the records, order as given by
// getorder. At most maxiter sweeps; non-convergence is no error.
void erc_rev(const pedigree_type& ped, std::span<const std::int32_t> order, std::int32_t n, std::int32_t nupg,
             const dmatrix& ginv, const dmatrix& rinv, const dmatrix& target, std::span<const double> rel,
             double h2, std::int32_t maxiter, dmatrix& erc);

// One sweep: from the present ERC x to the next one in erc. flag selects the
// stronger damping.
void tiermeyer_rev(const pedigree_type& ped, std::span<const std::int32_t> order, std::int32_t n,
                   std::int32_t nupg, const dmatrix& ginv, const dmatrix& rinv, const dmatrix& x,
                   const dmatrix& target, bool flag, dmatrix& erc);

// Contribution to its parent of an individual with information b, a being
// the inverse genetic (co)variance: a/3 - (4/9) a (4a/3 + b)^- a. One trait
// takes the closed form, a block the generalised inverse.
void tmform6(dmatrix& out, const dmatrix& a, const dmatrix& b);
// The block form, whatever the size.
void tmform6_block(dmatrix& out, const dmatrix& a, const dmatrix& b);
// The same for one trait.
inline double tmform6(double a, double b) {
    const double m = (4.0 / 3.0) * a + b;
    return a * (1.0 / 3.0) - (((4.0 / 9.0) * a) * a) / m;
}

// ERC of one record for a block of traits: the x for which the diagonal of
// (p + D(x))^-1 equals target_i, by Levenberg-Marquardt. x holds the start
// value on entry.
void get_erc(std::span<const double> target_i, const dmatrix& p, const dmatrix& rinv, std::span<double> x);

// Approximate diagonal of the inverse left-hand side of a one-trait animal
// model: own information w(i) rinv for each level, pedigree information by
// Henderson's rules with the inbreeding of `inb` (1-based, empty for none),
// and ginv the inverse genetic variance. d is 1-based over the levels; group
// levels get the prior variance.
void tiermeyer(const pedigree_type& ped, std::span<const std::int32_t> order, std::span<const double> inb,
               double ginv, double rinv, std::span<const double> w, std::vector<double>& d);

// Genomic PEV of every genotyped animal: the diagonal of Z' C Z, with C
// the leading nsnp by nsnp block of c, formed for blocks of animals (256 for
// real genotypes, 2048 for packed ones) with two matrix products each.
void get_pev_gen_exp_real(const dmatrix& c, const covariable_type& cov, std::vector<double>& pev);
void get_pev_gen_exp_plink(const dmatrix& c, const covariable_type& cov, std::vector<double>& pev);

}  // namespace krel
