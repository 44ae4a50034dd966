// The inverse relationship matrix straight from a pedigree: operations of
// pedigree_type that need the sparse matrices.
#include "inputs/pedigree.h"
#include "mme/henderson_rules.h"
#include "sparse/sparse_matrix.h"

namespace krel {

namespace {
constexpr const char* module_name = "modpedigree";
}  // namespace

void pedigree_type::addrandompart_eff_ani_inb(coosparse& lhs, std::int32_t n) const {
    ainv::check_pedigree(*this, n, module_name, "addrandompart_eff_ani_inb");
    ainv::reserve_keys(lhs, ainv::key_bound(ainv::count_parents(*this, n), 1));
    const ainv::slot_prefetcher prefetch(lhs);
    ainv::for_each_animal(
        *this, n,
        [&](std::int32_t i, std::int32_t s, std::int32_t m) {
            ainv::for_each_pair(i, s, m, 0, 1.0, [&](std::int32_t r, std::int32_t c, double) { prefetch(r, c); });
        },
        [&](std::int32_t i, std::int32_t s, std::int32_t m, double d) {
            ainv::for_each_pair(i, s, m, 0, d, [&](std::int32_t r, std::int32_t c, double v) { lhs.add(r, c, v); });
        });
}

void pedigree_type::computeasparse_ped(coosparse& asparse, std::optional<std::int32_t> n) const {
    const std::int32_t levels = n.value_or(nlength());
    ainv::check_pedigree(*this, levels, module_name, "computeasparse_ped");
    asparse.constructor_sub(levels, levels,
                            ainv::table_size_for(ainv::key_bound(ainv::count_parents(*this, levels), 1)), true);
    asparse.setsymmetric(true);
    addrandompart_eff_ani_inb(asparse, levels);
}

}  // namespace krel
