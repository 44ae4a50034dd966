#pragma once
// Variance components and pedigree-based reliabilities that behave like those
// of a routine evaluation: own records, progeny and the parent average add
// information, in daughter equivalents.
#include <cstdint>
#include <vector>

#include "sim_pedigree.h"
#include "sim_settings.h"

namespace krelsim {

struct sim_variances {
    std::int64_t traits = 1;
    double h2[2] = {0.30, 0.10};
    double genetic[2][2] = {{25.0, 3.0}, {3.0, 4.0}};  // genetic correlation 0.3
    double residual[2][2] = {{0.0, 0.0}, {0.0, 0.0}};  // from h2, residual correlation 0.1

    explicit sim_variances(std::int64_t ntraits);
};

struct sim_reliabilities {
    std::vector<std::uint8_t> records[2];  // own record for the trait
    std::vector<double> rel[2];            // by internal index, in [0, 1)
};

sim_reliabilities simulate_reliabilities(const sim_pedigree& ped, const sim_variances& v,
                                         const sim_settings& s);

// Highest reliability written: keeps the PEV away from 0 whatever the rounding.
constexpr double max_reliability = 0.9999;

}  // namespace krelsim
