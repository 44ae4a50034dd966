#pragma once
// Open addressing for the assembly of sparse matrices and for sets of
// integers. A key's probe sequence is a pseudo-random walk: each probe mixes
// the state of the previous one again, so there is no step and no stride, and
// keys that collide on one slot part at the next probe.
//
// Slots are 1-based. Every search returns the slot (>= 1) when the key was
// found or inserted, 0 when lookup is set and the key is absent, and -1 when
// max_hash_probes probes did not settle the search. A table holds nel slots,
// nel a power of two; 0 marks an empty slot, so 0 is never a key.
#include <cstdint>
#include <span>

namespace krel {

inline constexpr std::int64_t max_hash_probes = 5000;
// Start value of the third word of the mix (hexadecimal 12345678).
inline constexpr std::int64_t hash_seed = 305419896;

// The rotate of the mix: x shifted left by k, or-ed with x shifted logically
// by k - 32 (right by 32 - k for the counts in use), on the whole 64-bit
// word. The word is not masked to 32 bits, so this is not a true rotation of
// either width: the high bits keep what a 32-bit mix would lose. A shift
// count of magnitude 64 or more gives 0.
constexpr std::uint64_t hash_rot(std::uint64_t x, int k) noexcept {
    auto shift = [](std::uint64_t v, int s) noexcept -> std::uint64_t {
        if (s >= 64 || s <= -64) return 0;
        return s >= 0 ? v << s : v >> -s;
    };
    return shift(x, k) | shift(x, k - 32);
}

// One round of the mix on three 64-bit words, wrapping arithmetic.
constexpr void hash_mix(std::uint64_t& a, std::uint64_t& b, std::uint64_t& c) noexcept {
    // clang-format off
    a -= c; a ^= hash_rot(c, 4);  c += b;
    b -= a; b ^= hash_rot(a, 6);  a += c;
    c -= b; c ^= hash_rot(b, 8);  b += a;
    a -= c; a ^= hash_rot(c, 16); c += b;
    b -= a; b ^= hash_rot(a, 19); a += c;
    c -= b; c ^= hash_rot(b, 4);  b += a;
    // clang-format on
}

// The state of the probe walk of a (row, col) key; next() gives the 1-based
// slots one after the other. Exposed so that callers can prefetch the first
// slot of a key or measure probe lengths without changing the table.
class hash_probe {
public:
    hash_probe() noexcept = default;
    hash_probe(std::int64_t a, std::int64_t b, std::int64_t nel) noexcept
        : a_(static_cast<std::uint64_t>(a)),
          b_(static_cast<std::uint64_t>(b)),
          c_(static_cast<std::uint64_t>(hash_seed)),
          mask_(static_cast<std::uint64_t>(nel - 1)) {}
    std::int64_t next() noexcept {
        hash_mix(a_, b_, c_);
        return static_cast<std::int64_t>(c_ & mask_) + 1;
    }

private:
    std::uint64_t a_ = 0, b_ = 0, c_ = 0, mask_ = 0;
};

// The smallest power of two not below n; 1 for n <= 1.
std::int64_t next_power_of_2(std::int64_t n) noexcept;

// The warning of a search that reached max_hash_probes, on standard output.
[[gnu::cold]] void hash_search_limit_warning();

// Search, or insert unless lookup, the integer key in a one-dimensional table
// of nel slots. An insertion adds one to filled.
std::int64_t hashf_vect(std::int32_t key, std::span<std::int32_t> table, std::int64_t nel,
                        std::int64_t& filled, bool lookup);
std::int64_t hashf_vect(std::int64_t key, std::span<std::int64_t> table, std::int64_t nel,
                        std::int64_t& filled, bool lookup);

// The search of hashf_array from a walk already under way: slot is the slot
// probe gave last, the n-th of the walk. Callers that have mixed the key
// ahead (to fetch its slot early) go on from there without mixing it again.
inline std::int64_t hashf_array_from(hash_probe& probe, std::int64_t slot, std::int64_t n,
                                     std::int32_t row, std::int32_t col, std::int32_t* table,
                                     std::int64_t& filled, bool lookup) {
    for (;; ++n) {
        std::int32_t* key = table + 2 * (slot - 1);
        if (key[0] == row && key[1] == col) return slot;
        if (key[0] == 0 || key[1] == 0) {
            if (lookup) return 0;
            key[0] = row;
            key[1] = col;
            ++filled;
            return slot;
        }
        if (n >= max_hash_probes) {
            hash_search_limit_warning();
            return -1;
        }
        slot = probe.next();
    }
}

// The same for the key (row, col) over the two-row table ij of nel slots:
// table[2(k-1)] is the row and table[2(k-1)+1] the column of slot k. A slot
// with row 0 or column 0 is empty.
inline std::int64_t hashf_array(std::int32_t row, std::int32_t col, std::span<std::int32_t> table,
                                std::int64_t nel, std::int64_t& filled, bool lookup) {
    hash_probe probe(row, col, nel);
    const std::int64_t first = probe.next();
    return hashf_array_from(probe, first, 1, row, col, table.data(), filled, lookup);
}

// The search of hashf_array without insertion and without any message: the
// reading side of a table, safe to run on several threads at once.
std::int64_t hashf_array_getval(std::int32_t row, std::int32_t col,
                                std::span<const std::int32_t> table, std::int64_t nel) noexcept;

}  // namespace krel
