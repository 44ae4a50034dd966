#pragma once
// A pedigree of overlapping generations, simulated by birth cohorts.
//
// Animals are kept in birth order ("internal index"), so a parent always has
// a lower internal index than its offspring; the levels written to the files
// are a partly shuffled copy of that order.
#include <cstdint>
#include <vector>

#include "sim_settings.h"

namespace krelsim {

constexpr std::int32_t unknown_parent = -1;

struct sim_pedigree {
    std::int64_t n = 0;                  // real animals
    std::int64_t years = 0;
    std::int64_t groups = 0;
    std::vector<std::int32_t> sire, dam; // internal indices, or unknown_parent
    std::vector<std::int16_t> year;      // birth year, 0 = first cohort
    std::vector<std::uint8_t> male;
    std::vector<std::uint8_t> recorded;  // has a record of its own in the pedigree file
    std::vector<std::int32_t> level;     // internal index -> pedigree level 1..n
    std::vector<std::int32_t> progeny;   // number of offspring

    // Level of the genetic group that stands for a missing parent (side 0:
    // sire, 1: dam) of internal animal i; 0 when there are no groups.
    std::int32_t group_level(std::int64_t i, int side) const;
    // Level of a parent as written to the pedigree file: the parent's level,
    // its group, or 0.
    std::int32_t parent_level(std::int64_t i, int side) const;
    // internal index of every level, 0-based by level - 1
    std::vector<std::int32_t> by_level() const;
};

sim_pedigree simulate_pedigree(const sim_settings& s);

// Genotyped animals in the order of the PLINK .fam file: the most used sires
// first, then mostly recent animals.
std::vector<std::int32_t> select_genotyped(const sim_pedigree& ped, const sim_settings& s);

}  // namespace krelsim
