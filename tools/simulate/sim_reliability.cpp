#include "sim_reliability.h"

#include <algorithm>
#include <cmath>

#include "sim_random.h"

namespace krelsim {

sim_variances::sim_variances(std::int64_t ntraits) : traits(ntraits) {
    for (int t = 0; t < 2; ++t) residual[t][t] = genetic[t][t] * (1.0 - h2[t]) / h2[t];
    residual[0][1] = residual[1][0] = 0.1 * std::sqrt(residual[0][0] * residual[1][1]);
}

sim_reliabilities simulate_reliabilities(const sim_pedigree& ped, const sim_variances& v,
                                         const sim_settings& s) {
    const std::int64_t n = ped.n;
    sim_reliabilities out;
    // Cows older than two years at the end of the data have records for the
    // first trait, most of them, and half of those for the second one.
    for (int t = 0; t < v.traits; ++t) out.records[t].assign(n, 0);
    for (std::int64_t i = 0; i < n; ++i) {
        if (ped.male[i] || ped.year[i] > ped.years - 3) continue;
        rng r(key(s.seed, stream_records, i, 1));
        out.records[0][i] = r.chance(0.8);
        if (v.traits > 1) out.records[1][i] = out.records[0][i] && r.chance(0.5);
    }

    for (int t = 0; t < v.traits; ++t) {
        const double h2 = v.h2[t];
        const double lambda = (4.0 - h2) / h2;
        const double own = lambda * h2 / (1.0 - h2);  // one record gives a reliability of h2
        // Information from the animal itself and its descendants, youngest
        // first; a progeny of reliability r passes lambda r / (4 - r) on to
        // each parent (one daughter with one record passes 1).
        std::vector<double> de(n, 0.0);
        for (std::int64_t i = n - 1; i >= 0; --i) {
            if (out.records[t][i]) de[i] += own;
            if (de[i] <= 0.0) continue;
            const double r = de[i] / (de[i] + lambda);
            const double passed = lambda * r / (4.0 - r);
            if (ped.sire[i] != unknown_parent) de[ped.sire[i]] += passed;
            if (ped.dam[i] != unknown_parent) de[ped.dam[i]] += passed;
        }
        // Then the parent average, oldest first.
        auto& rel = out.rel[t];
        rel.assign(n, 0.0);
        for (std::int64_t i = 0; i < n; ++i) {
            double pa = 0.0;
            if (ped.sire[i] != unknown_parent) pa += rel[ped.sire[i]];
            if (ped.dam[i] != unknown_parent) pa += rel[ped.dam[i]];
            pa *= 0.25;
            const double total = de[i] + lambda * pa / (1.0 - pa);
            rel[i] = std::min(max_reliability, total / (total + lambda));
        }
    }
    return out;
}

}  // namespace krelsim
