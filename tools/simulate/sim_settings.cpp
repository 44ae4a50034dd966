#include "sim_settings.h"

#include <fmt/format.h>

#include <algorithm>
#include <stdexcept>

namespace krelsim {

namespace {

void require(bool ok, const std::string& message) {
    if (!ok) throw std::invalid_argument(message);
}

void share(double value, const char* option) {
    require(value >= 0.0 && value <= 1.0,
            fmt::format("{} must lie between 0 and 1 (got {})", option, value));
}

}  // namespace

void sim_settings::check() {
    require(!out.empty(), "--out: an output directory is required");
    // Three birth years at least, so that the third cohort has parents.
    require(animals >= 3, fmt::format("--animals must be at least 3 (got {})", animals));
    // Pedigree levels are 32-bit: animals and groups together must fit.
    require(animals + groups < 2147483647,
            fmt::format("--animals plus --groups must stay below 2147483647 (got {})",
                        animals + groups));
    require(genotyped >= 0, fmt::format("--genotyped must not be negative (got {})", genotyped));
    require(genotyped <= animals,
            fmt::format("--genotyped ({}) must not exceed --animals ({})", genotyped, animals));
    require(snps >= 1, fmt::format("--snps must be at least 1 (got {})", snps));
    require(snps < 2147483647, fmt::format("--snps must stay below 2147483647 (got {})", snps));
    require(traits == 1 || traits == 2, fmt::format("--traits must be 1 or 2 (got {})", traits));
    require(groups >= 0, fmt::format("--groups must not be negative (got {})", groups));
    require(!metafounders || groups >= 1, "--metafounders needs --groups of at least 1");
    require(chromosomes >= 0, fmt::format("--chromosomes must not be negative (got {})", chromosomes));
    require(years >= 0, fmt::format("--years must not be negative (got {})", years));
    require(effect >= 1, fmt::format("--effect must be at least 1 (got {})", effect));
    require(snp_effect >= 0, fmt::format("--snp-effect must not be negative (got {})", snp_effect));
    share(missing, "--missing");
    require(missing < 1.0, "--missing must be below 1");
    share(monomorphic, "--monomorphic");
    share(shuffle, "--shuffle");
    share(unknown_sire, "--unknown-sire");
    share(unknown_dam, "--unknown-dam");
    share(sire_share, "--sire-share");
    require(sire_share > 0.0, "--sire-share must be above 0");
    require(max_sires >= 1, fmt::format("--max-sires must be at least 1 (got {})", max_sires));

    if (snp_effect == 0) snp_effect = effect + 1;
    require(snp_effect != effect, "--snp-effect must differ from --effect");
    if (chromosomes == 0) chromosomes = std::clamp<std::int64_t>(snps / 500, 1, 29);
    require(chromosomes <= snps,
            fmt::format("--chromosomes ({}) must not exceed --snps ({})", chromosomes, snps));
    // Cohorts of a few hundred animals at least, and 2 to 30 birth years:
    // parents are born at least two years before their offspring.
    if (years == 0) years = std::clamp<std::int64_t>(animals / 200, 3, 30);
    require(years >= 3, fmt::format("--years must be at least 3 (got {})", years));
    require(years <= 32000, fmt::format("--years must not exceed 32000 (got {})", years));
    require(animals >= years, fmt::format("--animals ({}) must be at least --years ({})", animals, years));
    // Groups follow birth cohorts and the side of the missing parent; more
    // groups than that would leave the highest ones without offspring.
    require(groups <= 2 * years,
            fmt::format("--groups ({}) must not exceed twice --years ({})", groups, years));
}

}  // namespace krelsim
