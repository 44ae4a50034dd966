#pragma once
// Pedigrees built in memory for tests: records of level, sire, dam.
#include <array>
#include <cstdint>
#include <vector>

#include "inputs/pedigree.h"

namespace krel::testing {

using pedigree_record = std::array<std::int32_t, 3>;  // level, sire, dam

inline pedigree_type make_pedigree(std::int32_t nlevels, std::int32_t groups,
                                   const std::vector<pedigree_record>& records) {
    pedigree_type p;
    p.allocate(nlevels, groups);
    for (const auto& [id, s, d] : records) {
        p.ped(1, id) = s;
        p.ped(2, id) = d;
    }
    return p;
}

}  // namespace krel::testing
