#pragma once
// What a data set is made of. Sizes are 64-bit so that a negative or huge
// request is caught by `check` instead of wrapping.
#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <string>

namespace krelsim {

struct sim_settings {
    std::filesystem::path out;
    std::uint64_t seed = 1;
    std::int64_t animals = 3000;      // real animals in the pedigree
    std::int64_t genotyped = 300;
    std::int64_t snps = 2000;
    std::int64_t chromosomes = 0;     // 0: chosen from the SNP count
    std::int64_t years = 0;           // birth years; 0: chosen from the animal count
    std::int64_t traits = 1;
    std::int64_t groups = 0;          // genetic groups (or metafounders)
    bool metafounders = false;        // the groups are metafounders: write their relationships
    double missing = 0.01;            // share of missing genotypes
    double monomorphic = 0.02;        // share of SNPs without variation
    double shuffle = 0.1;             // share of animals whose identities are permuted
    double unknown_sire = 0.05;
    double unknown_dam = 0.03;
    double sire_share = 0.02;         // males of a cohort kept as sires
    std::int64_t max_sires = 300;     // at most this many sires from one cohort
    bool text = false;                // also text genotypes and a frequency file
    bool centred_text = false;        // spaced text holds g - 2p, missing 0
    std::int64_t effect = 1;          // animal effect number in the solution files
    std::int64_t snp_effect = 0;      // 0: effect + 1
    std::string plink_name = "genotypes";

    // Fills the automatic values; throws std::invalid_argument with a message
    // that names the offending option.
    void check();

    std::int64_t other_effect() const { return std::max(effect, snp_effect) + 1; }
};

}  // namespace krelsim
