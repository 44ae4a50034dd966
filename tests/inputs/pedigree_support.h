#pragma once
// Pedigrees built in memory for tests: records of level, sire, dam; and their
// relationship matrix by the tabular method, the yardstick of inbreeding and
// of the inverse relationship matrix.
#include <algorithm>
#include <array>
#include <cstdint>
#include <functional>
#include <vector>

#include "inputs/pedigree.h"
#include "simulate/sim_pedigree.h"
#include "util/dense_matrix.h"

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

// A generated pedigree of overlapping generations. With groups, every
// unknown parent is a group, so that all animals trace to them.
inline pedigree_type generated_pedigree(std::int64_t animals, std::int64_t groups) {
    krelsim::sim_settings s;
    s.out = "unused";  // nothing is written
    s.animals = animals;
    s.groups = groups;
    s.genotyped = 0;
    s.snps = 1;
    s.check();
    const auto sim = krelsim::simulate_pedigree(s);
    pedigree_type p;
    p.allocate(static_cast<std::int32_t>(animals + groups), static_cast<std::int32_t>(groups));
    for (std::int64_t i = 0; i < sim.n; ++i) {
        p.ped(1, sim.level[i]) = sim.parent_level(i, 0);
        p.ped(2, sim.level[i]) = sim.parent_level(i, 1);
    }
    return p;
}

// How the relationship matrix treats the group levels (those above nreal).
enum class groups_as { founders, unknown_parents, metafounders };

// A of all levels by the tabular method, levels taken in order of generation
// depth, so that a parent may have a higher number than its offspring. As
// unknown parents, the groups' own rows stay zero; as metafounders they are
// related by gamma.
inline dmatrix tabular_relationships(const pedigree_type& p, groups_as groups = groups_as::founders,
                                     const dmatrix* gamma = nullptr) {
    const std::int32_t n = p.nlength(), nr = p.nreal();
    const bool apart = groups != groups_as::founders;  // groups are not walked as animals
    std::vector<std::int32_t> depth(static_cast<std::size_t>(n) + 1, -1);
    std::function<std::int32_t(std::int32_t)> depth_of = [&](std::int32_t x) -> std::int32_t {
        if (x == 0 || (apart && x > nr)) return 0;
        if (depth[x] < 0) depth[x] = 1 + std::max(depth_of(p.sire(x)), depth_of(p.dam(x)));
        return depth[x];
    };
    std::vector<std::int32_t> levels;
    for (std::int32_t x = 1; x <= (apart ? nr : n); ++x) levels.push_back(x);
    std::stable_sort(levels.begin(), levels.end(), [&](auto a, auto b) { return depth_of(a) < depth_of(b); });
    auto parent = [&](std::int32_t x) { return x > nr && groups == groups_as::unknown_parents ? 0 : x; };

    dmatrix a(n + 1, n + 1);  // index 0 stands for an unknown parent: all zero
    std::vector<std::int32_t> done;
    if (groups == groups_as::metafounders)
        for (std::int32_t i = nr + 1; i <= n; ++i) {
            for (std::int32_t j = nr + 1; j <= n; ++j) a(i + 1, j + 1) = (*gamma)(i - nr, j - nr);
            done.push_back(i);
        }
    for (std::int32_t j : levels) {
        const std::int32_t s = parent(p.sire(j)), d = parent(p.dam(j));
        for (std::int32_t i : done) a(i + 1, j + 1) = a(j + 1, i + 1) = 0.5 * (a(i + 1, s + 1) + a(i + 1, d + 1));
        a(j + 1, j + 1) = 1.0 + 0.5 * a(s + 1, d + 1);
        done.push_back(j);
    }
    dmatrix r(n, n);
    for (std::int32_t i = 1; i <= n; ++i)
        for (std::int32_t j = 1; j <= n; ++j) r(i, j) = a(i + 1, j + 1);
    return r;
}

}  // namespace krel::testing
