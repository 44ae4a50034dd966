#pragma once
// The Tier and Meyer approximation of the diagonal of the inverse
// left-hand side of a one-trait animal model.
#include <cstdint>
#include <span>
#include <vector>

#include "inputs/pedigree.h"

namespace krel {

// Approximate diagonal of the inverse left-hand side of a one-trait animal
// model: own information w(i) rinv for each level, pedigree information by
// Henderson's rules with the inbreeding of `inb` (1-based, empty for none),
// and ginv the inverse genetic variance. d is 1-based over the levels; group
// levels get the prior variance.
void tiermeyer(const pedigree_type& ped, std::span<const std::int32_t> order, std::span<const double> inb,
               double ginv, double rinv, std::span<const double> w, std::vector<double>& d);

}  // namespace krel
