#pragma once
// Effective record contributions (ERC) from pedigree PEV: a fixed-point
// iteration over sweeps of the Tier and Meyer pedigree approximation, each
// sweep solving every animal's ERC so that its approximate prediction error
// variance equals the target.
#include <cstdint>
#include <span>

#include "inputs/pedigree.h"
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
void parent_contribution(dmatrix& out, const dmatrix& a, const dmatrix& b);
// The block form, whatever the size.
void parent_contribution_block(dmatrix& out, const dmatrix& a, const dmatrix& b);
// The same for one trait.
inline double parent_contribution(double a, double b) {
    const double m = (4.0 / 3.0) * a + b;
    return a * (1.0 / 3.0) - (((4.0 / 9.0) * a) * a) / m;
}

// ERC of one record for a block of traits: the x for which the diagonal of
// (p + D(x))^-1 equals target_i, by Levenberg-Marquardt. x holds the start
// value on entry.
void get_erc(std::span<const double> target_i, const dmatrix& p, const dmatrix& rinv, std::span<double> x);

}  // namespace krel
