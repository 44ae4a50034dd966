#include "sparse/coo_hash.h"

#include <iostream>

namespace krel {

void hash_search_limit_warning() {
    std::cout << " Warning: the maximum number of searches was reached!\n";
}

namespace {

template <class Key>
std::int64_t hashf_vect_impl(Key key, std::span<Key> table, std::int64_t nel, std::int64_t& filled,
                             bool lookup) {
    hash_probe probe(key, 11, nel);
    for (std::int64_t n = 1; n <= max_hash_probes; ++n) {
        const std::int64_t slot = probe.next();
        Key& held = table[static_cast<std::size_t>(slot - 1)];
        if (held == key) return slot;
        if (held == 0) {
            if (lookup) return 0;
            held = key;
            ++filled;
            return slot;
        }
    }
    hash_search_limit_warning();
    return -1;
}

}  // namespace

std::int64_t next_power_of_2(std::int64_t n) noexcept {
    std::int64_t p = 1;
    while (p < n) p <<= 1;
    return p;
}

std::int64_t hashf_vect(std::int32_t key, std::span<std::int32_t> table, std::int64_t nel,
                        std::int64_t& filled, bool lookup) {
    return hashf_vect_impl(key, table, nel, filled, lookup);
}

std::int64_t hashf_vect(std::int64_t key, std::span<std::int64_t> table, std::int64_t nel,
                        std::int64_t& filled, bool lookup) {
    return hashf_vect_impl(key, table, nel, filled, lookup);
}

std::int64_t hashf_array_getval(std::int32_t row, std::int32_t col,
                                std::span<const std::int32_t> table, std::int64_t nel) noexcept {
    hash_probe probe(row, col, nel);
    for (std::int64_t n = 1; n <= max_hash_probes; ++n) {
        const std::int64_t slot = probe.next();
        const std::int32_t* key = table.data() + 2 * (slot - 1);
        if (key[0] == row && key[1] == col) return slot;
        if (key[0] == 0 || key[1] == 0) return 0;
    }
    return -1;
}

}  // namespace krel
