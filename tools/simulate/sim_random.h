#pragma once
// Counter-based random numbers: every draw is a function of the seed and of
// the coordinates of what it decides (animal, side, chromosome, SNP ...).
// The same data set therefore comes out whatever the order of the work, the
// size of the SNP chunks or the number of threads.
#include <cmath>
#include <cstdint>

namespace krelsim {

inline std::uint64_t mix64(std::uint64_t z) {
    z += 0x9E3779B97F4A7C15ull;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
}

// A key made of up to five coordinates; `stream` keeps the purposes apart.
inline std::uint64_t key(std::uint64_t seed, std::uint64_t stream, std::uint64_t a = 0,
                         std::uint64_t b = 0, std::uint64_t c = 0) {
    std::uint64_t h = mix64(seed ^ 0x5DEECE66Dull);
    h = mix64(h ^ stream);
    h = mix64(h ^ a);
    h = mix64(h ^ b);
    return mix64(h ^ c);
}

// Uniform on [0, 1) from the top 53 bits.
inline double to_unit(std::uint64_t x) { return static_cast<double>(x >> 11) * 0x1.0p-53; }

// A small sequential generator started from a key (splitmix64).
class rng {
public:
    explicit rng(std::uint64_t start) : state_(start) {}
    std::uint64_t next() {
        state_ += 0x9E3779B97F4A7C15ull;
        std::uint64_t z = state_;
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        return z ^ (z >> 31);
    }
    double uniform() { return to_unit(next()); }
    // Uniform integer in [0, n), n > 0 (multiply-shift, bias below 2^-32 for our n).
    std::uint64_t below(std::uint64_t n) {
        return static_cast<std::uint64_t>((static_cast<unsigned __int128>(next()) * n) >> 64);
    }
    bool chance(double p) { return uniform() < p; }
    double normal() {
        const double u1 = 1.0 - uniform();  // (0, 1]
        const double u2 = uniform();
        return std::sqrt(-2.0 * std::log(u1)) * std::cos(6.283185307179586 * u2);
    }
    // Poisson by multiplication of uniforms: only used with small means.
    int poisson(double mean) {
        const double limit = std::exp(-mean);
        int k = 0;
        double prod = uniform();
        while (prod > limit) {
            ++k;
            prod *= uniform();
        }
        return k;
    }
    // Number of failures before the first success, success probability p in (0, 1].
    std::uint64_t geometric(double p) {
        if (p >= 1.0) return 0;
        const double u = 1.0 - uniform();  // (0, 1]
        const double g = std::floor(std::log(u) / std::log1p(-p));
        return g > 9.0e18 ? static_cast<std::uint64_t>(9.0e18) : static_cast<std::uint64_t>(g);
    }

private:
    std::uint64_t state_;
};

// Purposes of the keyed streams.
enum stream_id : std::uint64_t {
    stream_pedigree = 1,
    stream_identity,
    stream_sire_merit,
    stream_records,
    stream_selection,
    stream_snp_map,
    stream_pool,
    stream_founder,
    stream_meiosis,
    stream_missing,
    stream_effects,
    stream_metafounder,
};

}  // namespace krelsim
