#include "sim_pedigree.h"

#include <algorithm>
#include <cmath>
#include <numeric>

#include "sim_random.h"

namespace krelsim {

namespace {

constexpr int min_parent_age = 2;
constexpr int max_dam_age = 8;
constexpr int max_sire_age = 10;
// Relative use of a sire by age (index = age); young sires are tested on few
// cows, proven ones used widely, old ones fade out.
constexpr double sire_age_use[max_sire_age + 1] = {0, 0, 0.4, 1.0, 1.0, 0.8, 0.6, 0.4, 0.3, 0.2, 0.1};
// Founder animals that are parents but have no record of their own.
constexpr double parent_only_share = 0.3;

struct sire_entry {
    std::int32_t id;
    double merit;  // popularity; log-normal, so a few sires get most of the use
};

}  // namespace

std::int32_t sim_pedigree::group_level(std::int64_t i, int side) const {
    if (groups == 0) return 0;
    const std::int64_t g = std::min(groups - 1, ((year[i] + side * years) * groups) / (2 * years));
    return static_cast<std::int32_t>(n + 1 + g);
}

std::int32_t sim_pedigree::parent_level(std::int64_t i, int side) const {
    const std::int32_t p = side == 0 ? sire[i] : dam[i];
    return p == unknown_parent ? group_level(i, side) : level[p];
}

std::vector<std::int32_t> sim_pedigree::by_level() const {
    std::vector<std::int32_t> inv(n);
    for (std::int64_t i = 0; i < n; ++i) inv[level[i] - 1] = static_cast<std::int32_t>(i);
    return inv;
}

sim_pedigree simulate_pedigree(const sim_settings& s) {
    sim_pedigree ped;
    const std::int64_t n = s.animals;
    const std::int64_t ny = s.years;
    ped.n = n;
    ped.years = ny;
    ped.groups = s.groups;
    ped.sire.assign(n, unknown_parent);
    ped.dam.assign(n, unknown_parent);
    ped.year.assign(n, 0);
    ped.male.assign(n, 0);
    ped.recorded.assign(n, 1);
    ped.progeny.assign(n, 0);

    // Equal cohorts, the remainder going to the most recent years.
    std::vector<std::int64_t> start(ny + 1, 0);
    for (std::int64_t y = 0; y < ny; ++y)
        start[y + 1] = start[y] + n / ny + (y >= ny - n % ny ? 1 : 0);

    std::vector<std::vector<std::int32_t>> females(ny);
    std::vector<std::vector<sire_entry>> sires(ny);
    std::vector<std::int32_t> pool_id;
    std::vector<double> pool_cum;

    for (std::int64_t y = 0; y < ny; ++y) {
        // Sires available to this cohort, weighted by popularity and age.
        pool_id.clear();
        pool_cum.clear();
        double total = 0.0;
        for (std::int64_t by = std::max<std::int64_t>(0, y - max_sire_age); by <= y - min_parent_age; ++by) {
            for (const auto& e : sires[by]) {
                total += e.merit * sire_age_use[y - by];
                pool_id.push_back(e.id);
                pool_cum.push_back(total);
            }
        }
        std::int64_t dam_first = std::max<std::int64_t>(0, y - max_dam_age);
        std::int64_t dam_count = 0;
        for (std::int64_t by = dam_first; by <= y - min_parent_age; ++by) dam_count += females[by].size();

        std::vector<std::int32_t> males;
        for (std::int64_t i = start[y]; i < start[y + 1]; ++i) {
            rng r(key(s.seed, stream_pedigree, i));
            ped.year[i] = static_cast<std::int16_t>(y);
            ped.male[i] = r.chance(0.5);
            if (ped.male[i])
                males.push_back(static_cast<std::int32_t>(i));
            else
                females[y].push_back(static_cast<std::int32_t>(i));
            if (!pool_id.empty() && !r.chance(s.unknown_sire)) {
                const double u = r.uniform() * total;
                const auto k = std::upper_bound(pool_cum.begin(), pool_cum.end(), u) - pool_cum.begin();
                ped.sire[i] = pool_id[std::min<std::size_t>(k, pool_id.size() - 1)];
            }
            if (dam_count > 0 && !r.chance(s.unknown_dam)) {
                std::int64_t k = static_cast<std::int64_t>(r.below(dam_count));
                std::int64_t by = dam_first;
                while (k >= static_cast<std::int64_t>(females[by].size())) k -= females[by++].size();
                ped.dam[i] = females[by][k];
            }
        }
        // Keep a share of this cohort's males as future sires.
        if (!males.empty()) {
            rng r(key(s.seed, stream_sire_merit, y));
            const auto keep = std::clamp<std::int64_t>(
                std::llround(static_cast<double>(males.size()) * s.sire_share), 1,
                std::min<std::int64_t>(s.max_sires, static_cast<std::int64_t>(males.size())));
            for (std::int64_t k = 0; k < keep; ++k) {  // partial Fisher-Yates
                const auto j = k + static_cast<std::int64_t>(r.below(males.size() - k));
                std::swap(males[k], males[j]);
                sires[y].push_back({males[k], std::exp(1.5 * r.normal())});
            }
        }
    }

    for (std::int64_t i = 0; i < n; ++i) {
        if (ped.sire[i] != unknown_parent) ++ped.progeny[ped.sire[i]];
        if (ped.dam[i] != unknown_parent) ++ped.progeny[ped.dam[i]];
    }
    // Some founders that are parents have no record of their own: they occur
    // only as parents. Founders only, so that no known parent is lost.
    for (std::int64_t i = 0; i < n; ++i) {
        if (ped.progeny[i] > 0 && ped.sire[i] == unknown_parent && ped.dam[i] == unknown_parent &&
            rng(key(s.seed, stream_records, i)).chance(parent_only_share))
            ped.recorded[i] = 0;
    }

    // The highest group must have offspring, or the file would declare fewer
    // groups than asked: the youngest animal's dam becomes unknown if needed.
    if (s.groups > 0) {
        bool used = false;
        for (std::int64_t i = 0; i < n && !used; ++i)
            for (int side = 0; side < 2; ++side)
                if (ped.recorded[i] && (side == 0 ? ped.sire[i] : ped.dam[i]) == unknown_parent &&
                    ped.group_level(i, side) == n + s.groups)
                    used = true;
        if (!used) {
            const std::int32_t d = ped.dam[n - 1];
            ped.dam[n - 1] = unknown_parent;
            if (d != unknown_parent && --ped.progeny[d] == 0) ped.recorded[d] = 1;
        }
    }

    // Levels: birth order, with a share of animals permuted among themselves
    // so that some offspring get lower levels than their parents.
    ped.level.resize(n);
    std::iota(ped.level.begin(), ped.level.end(), 1);
    std::vector<std::int32_t> picked;
    for (std::int64_t i = 0; i < n; ++i)
        if (rng(key(s.seed, stream_identity, i)).chance(s.shuffle)) picked.push_back(static_cast<std::int32_t>(i));
    rng r(key(s.seed, stream_identity, n, 1));
    for (std::size_t k = picked.size(); k > 1; --k) {
        const auto j = r.below(k);
        std::swap(ped.level[picked[k - 1]], ped.level[picked[j]]);
    }
    // The highest level must have a record of its own: readers take the
    // number of animals from the highest identity in the first column.
    const auto top = std::find(ped.level.begin(), ped.level.end(), static_cast<std::int32_t>(n)) - ped.level.begin();
    if (!ped.recorded[top]) std::swap(ped.level[top], ped.level[n - 1]);
    return ped;
}

std::vector<std::int32_t> select_genotyped(const sim_pedigree& ped, const sim_settings& s) {
    const std::int64_t n = ped.n;
    std::vector<std::int32_t> chosen;
    chosen.reserve(s.genotyped);
    std::vector<std::uint8_t> taken(n, 0);

    std::vector<std::int32_t> used_sires;
    for (std::int64_t i = 0; i < n; ++i)
        if (ped.male[i] && ped.progeny[i] > 0) used_sires.push_back(static_cast<std::int32_t>(i));
    std::stable_sort(used_sires.begin(), used_sires.end(),
                     [&](std::int32_t a, std::int32_t b) { return ped.progeny[a] > ped.progeny[b]; });
    const std::int64_t sire_quota = std::min<std::int64_t>(s.genotyped / 4, used_sires.size());
    for (std::int64_t k = 0; k < sire_quota; ++k) {
        chosen.push_back(used_sires[k]);
        taken[used_sires[k]] = 1;
    }
    // Young animals first, skipping some so that several cohorts take part.
    for (int pass = 0; pass < 2 && static_cast<std::int64_t>(chosen.size()) < s.genotyped; ++pass) {
        for (std::int64_t i = n - 1; i >= 0 && static_cast<std::int64_t>(chosen.size()) < s.genotyped; --i) {
            if (taken[i]) continue;
            if (pass == 0 && !rng(key(s.seed, stream_selection, i)).chance(0.6)) continue;
            chosen.push_back(static_cast<std::int32_t>(i));
            taken[i] = 1;
        }
    }
    return chosen;
}

}  // namespace krelsim
