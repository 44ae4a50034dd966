#include "util/part_array.h"

#include <cassert>

namespace krel {

void partarray_type::initbounds_scal(std::int32_t lower_bound, std::int32_t upper_bound) {
    lower = lower_bound;
    upper = upper_bound;
}

void partarray_type::initarray_scal() { array.assign(size(), 0.0); }

std::size_t partarray_type::size() const {
    // 64 bits: the full int32 range would overflow upper - lower + 1.
    const std::int64_t n = std::int64_t{upper} - std::int64_t{lower} + 1;
    return n > 0 ? static_cast<std::size_t>(n) : 0;
}

double partarray_type::memory() const {
    return static_cast<double>(8 * size()) / 1048576.0;
}

std::size_t partarray_type::offset(std::int32_t i) const {
    assert(i >= lower && i <= upper && array.size() == size());
    return static_cast<std::size_t>(std::int64_t{i} - std::int64_t{lower});
}

}  // namespace krel
