#pragma once
// Henderson's rules with the inbreeding of the parents, shared by the two
// assemblies of the inverse relationship matrix (through a model, and
// straight from a pedigree).
//
// Assembly is a stream of scattered additions into a hash table far larger
// than the caches; each addition waits for its slot to come from memory.
// The keys of an animal some way down the pedigree are known long before
// they are added, so their slots are fetched ahead while the current animal
// is added. And the table is made large enough beforehand for the keys the
// pedigree can bring: sized to the number of equations it would grow
// several times, each growth re-inserting all it holds. The additions and
// their order are those of the plain loop, so every element gets the same
// value; only an element that cancels to exactly zero may differ, kept here
// as a stored zero where a growth would have dropped it.
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "inputs/pedigree.h"
#include "sparse/sparse_matrix.h"
#include "util/error_stop.h"
#include "util/fortran_format.h"
#include "util/logger.h"

namespace krel::ainv {

// The triple (animal, sire, dam) goes with t = (1, -1/2, -1/2).
inline constexpr double tvec[3] = {1.0, -0.5, -0.5};

// How far ahead the slots of an animal's additions are fetched.
inline constexpr std::int32_t prefetch_distance = 8;

// Asks for the cache line of p. GCC drops __builtin_prefetch from some
// inlined callbacks of the templates below, so on x86 the instruction is
// written out; a prefetch never faults.
inline void fetch(const void* p) {
#if defined(__x86_64__) || defined(__i386__)
    asm volatile("prefetcht0 %0" : : "m"(*static_cast<const char*>(p)));
#else
    __builtin_prefetch(p);
#endif
}

// The pedigree must hold the first n levels with their parents among them,
// and the inbreeding of every level; anything else is logged and stops the
// run.
inline void check_pedigree(const pedigree_type& ped, std::int32_t n, std::string_view module,
                           std::string_view routine) {
    auto fail = [&](const std::string& message) {
        global_logger().log_error(message, module, procedure_at(routine));
        throw error_stop();
    };
    const std::int32_t nlen = ped.nlength();
    if (n < 0) fail("Number of animals < 0 (internal error)");
    if (n > nlen)
        fail("Number of animals of the effect (" + inttochar(n) + ") above the number of levels of the pedigree (" +
             inttochar(nlen) + ")");
    if (ped.inb.size() < static_cast<std::size_t>(nlen) + 1)
        fail("Inbreeding coefficients are not available for the pedigree");
    // A parent beyond n would be added outside the equations of the n
    // levels, into whatever follows them.
    for (std::int32_t i = 1; i <= n; ++i)
        if (ped.sire(i) > n || ped.dam(i) > n)
            fail("Parent of level " + inttochar(i) + " outside the levels 1 to " + inttochar(n));
}

// The number of known parents of each of the levels 1 to n, in a count of
// the levels with none, one and two.
struct parent_counts {
    std::int64_t none = 0, one = 0, two = 0;
};
inline parent_counts count_parents(const pedigree_type& ped, std::int32_t n) {
    parent_counts c;
    for (std::int32_t i = 1; i <= n; ++i) {
        const int known = (ped.sire(i) >= 1) + (ped.dam(i) >= 1);
        (known == 0 ? c.none : known == 1 ? c.one : c.two) += 1;
    }
    return c;
}

// A bound on the keys that the levels add to an upper-stored matrix when each
// level has e equations: the upper triangle of its own diagonal block and a
// whole block for each pair of distinct members of its triple (the parents'
// diagonal blocks are those of their own levels).
inline std::int64_t key_bound(const parent_counts& c, std::int64_t e) {
    const std::int64_t levels = c.none + c.one + c.two;
    return levels * (e * (e + 1) / 2) + (c.one + 3 * c.two) * e * e;
}

// add grows a table when its load, in single precision, passes 0.8; the
// margin covers the rounding.
inline constexpr double table_load = 0.79;

// A table size that holds keys without growing.
inline std::int64_t table_size_for(std::int64_t keys) {
    return static_cast<std::int64_t>(static_cast<double>(keys) / table_load) + 1;
}

// Makes room for more keys in lhs so that they do not make it grow: every
// growth re-inserts all that the table holds, and assembly with a table
// sized to the number of equations would grow several times. A larger table
// is filled as a growth would fill it, slot after slot with the values that
// add accepts, so the matrix holds the same elements afterwards.
inline void reserve_keys(coosparse& lhs, std::int64_t more) {
    const std::int64_t nel = lhs.getnel();
    if (nel == 0) return;  // a destroyed matrix takes nothing
    const std::int64_t needed = lhs.totalnumberofelements() + more;
    if (static_cast<double>(needed) <= table_load * static_cast<double>(nel)) return;
    const std::int32_t m = lhs.getdim(1), n = lhs.getdim(2);
    coosparse larger(m, n, table_size_for(needed), lhs.isupperstorage(), lhs.getoutputunit());
    const auto ij = lhs.ij_table();
    const auto a = lhs.values();
    for (std::size_t k = 0; k < static_cast<std::size_t>(nel); ++k)
        if (ij[2 * k] != 0) larger.add(ij[2 * k], ij[2 * k + 1], a[k]);
    if (lhs.issymmetric()) larger.setsymmetric(true);
    if (lhs.haspermutation32()) {
        std::vector<std::int32_t> p;
        lhs.getpermutation32(p);
        larger.setpermutation32(p);
    }
    if (lhs.haspermutation64()) {
        std::vector<std::int64_t> p;
        lhs.getpermutation64(p);
        larger.setpermutation64(p);
    }
    lhs = std::move(larger);
}

// Calls emit(i, s, m, d) for i = 1 to n in order, s and m the parents with 0
// for an unknown one (0 or less in the pedigree), and d = 4 / (ms + md) with
// ms = 2 for an unknown sire and 1 - F(s) for a known one (md likewise).
// ahead(i, s, m) is called for animal i some animals before its emit, to
// fetch what its additions will touch. check_pedigree must have passed.
template <class Ahead, class Emit>
void for_each_animal(const pedigree_type& ped, std::int32_t n, Ahead&& ahead, Emit&& emit) {
    const double* f = ped.inb.data();
    auto parent = [](std::int32_t p) { return p < 1 ? 0 : p; };
    auto look_ahead = [&](std::int32_t i) {
        const std::int32_t s = parent(ped.sire(i)), m = parent(ped.dam(i));
        fetch(f + s);
        fetch(f + m);
        ahead(i, s, m);
    };
    for (std::int32_t i = 1; i <= std::min(prefetch_distance, n); ++i) look_ahead(i);
    for (std::int32_t i = 1; i <= n; ++i) {
        if (i <= n - prefetch_distance) look_ahead(i + prefetch_distance);
        const std::int32_t s = parent(ped.sire(i)), m = parent(ped.dam(i));
        const double ms = s < 1 ? 2.0 : 1.0 - f[s];
        const double md = m < 1 ? 2.0 : 1.0 - f[m];
        // Two parents with F = 1 give an infinite d, left as it comes.
        emit(i, s, m, 4.0 / (ms + md));
    }
}

// f(row, col, value) for each pair of the known members of the triple
// (animal i, sire s, dam m), at equation offset + level, with value
// scale t(a) t(b): rows in the order animal, sire, dam, and the columns of a
// row likewise.
template <class F>
void for_each_pair(std::int32_t i, std::int32_t s, std::int32_t m, std::int32_t offset, double scale, F&& f) {
    const std::int32_t member[3] = {i, s, m};
    for (int a = 0; a < 3; ++a) {
        if (member[a] < 1) continue;
        for (int b = 0; b < 3; ++b)
            if (member[b] >= 1) f(offset + member[a], offset + member[b], scale * tvec[a] * tvec[b]);
    }
}

// Fetches the first slot of the key (row, col) of a coosparse, the slot that
// add will look at first, and the key of the second, where a collision sends
// it; keys that add drops are skipped.
class slot_prefetcher {
public:
    explicit slot_prefetcher(const coosparse& m) : m_(m) {}
    void operator()(std::int32_t row, std::int32_t col) const {
        if (!m_.validvalue(row, col) || (m_.isupperstorage() && row > col)) return;
        const std::int64_t nel = m_.getnel();
        if (nel == 0) return;
        hash_probe probe(row, col, nel);
        const std::size_t slot = static_cast<std::size_t>(probe.next() - 1);
        fetch(m_.ij_table().data() + 2 * slot);
        fetch(m_.values().data() + slot);
        const std::size_t second = static_cast<std::size_t>(probe.next() - 1);
        fetch(m_.ij_table().data() + 2 * second);
    }

private:
    const coosparse& m_;
};

}  // namespace krel::ainv
