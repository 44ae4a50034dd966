#pragma once
// Reproducible random numbers: every stream carries its own generator, so
// results depend only on the seed and on the order of the draws.
#include <cstdint>
#include <random>

namespace krel {

class random_stream {
public:
    random_stream() = default;
    explicit random_stream(std::int32_t seed) { setseed(seed); }

    // Restarts the stream; the same seed always gives the same sequence.
    void setseed(std::int32_t seed);

    // Uniform on (0, 1]: never zero, so that its logarithm is always finite.
    double rand_stduniform();

    // Standard normal by Box-Muller; one uniform pair per draw, the second
    // normal of the pair is not kept.
    double rand_stdnormal();

private:
    std::mt19937_64 engine_;
};

}  // namespace krel
