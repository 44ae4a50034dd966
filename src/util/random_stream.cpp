#include "util/random_stream.h"

#include <cmath>

namespace krel {

void random_stream::setseed(std::int32_t seed) {
    // Through 32 unsigned bits, so that negative seeds are as good as any.
    engine_.seed(static_cast<std::uint64_t>(static_cast<std::uint32_t>(seed)));
}

double random_stream::rand_stduniform() {
    // The top 53 bits give every multiple of 2**-53 in [0, 1) with equal
    // probability; std::generate_canonical may round up to 1 and the
    // distribution classes differ between libraries.
    const double u = static_cast<double>(engine_() >> 11) * 0x1.0p-53;
    return 1.0 - u;
}

double random_stream::rand_stdnormal() {
    const double u1 = rand_stduniform();
    const double u2 = rand_stduniform();
    return std::sqrt(-2.0 * std::log(u1)) * std::cos(6.283185307179586 * u2);
}

}  // namespace krel
