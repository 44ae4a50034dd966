#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "util/random_stream.h"

namespace krel {
namespace {

std::vector<double> draws(random_stream& s, int n) {
    std::vector<double> out(static_cast<std::size_t>(n));
    for (double& x : out) x = s.rand_stduniform();
    return out;
}

TEST(RandomStream, SameSeedSameStream) {
    random_stream a(12345), b(12345), c(12346);
    const std::vector<double> xa = draws(a, 100);
    EXPECT_EQ(xa, draws(b, 100));
    EXPECT_NE(xa, draws(c, 100));
    a.setseed(12345);  // reseeding restarts the sequence
    EXPECT_EQ(draws(a, 100), xa);
}

TEST(RandomStream, UniformAndNormalSampleMoments) {
    random_stream s(7);
    const int n = 100000;
    double sum = 0.0, lo = 1.0, hi = 0.0;
    for (int k = 0; k < n; ++k) {
        const double u = s.rand_stduniform();
        ASSERT_TRUE(u > 0.0 && u <= 1.0) << u;
        sum += u;
        lo = std::min(lo, u);
        hi = std::max(hi, u);
    }
    EXPECT_NEAR(sum / n, 0.5, 0.005);
    EXPECT_LT(lo, 1.0e-3);
    EXPECT_GT(hi, 1.0 - 1.0e-3);
    double zsum = 0.0, zsum2 = 0.0, beyond2 = 0.0;
    for (int k = 0; k < n; ++k) {
        const double x = s.rand_stdnormal();
        ASSERT_TRUE(std::isfinite(x));
        zsum += x;
        zsum2 += x * x;
        if (std::fabs(x) > 1.959963984540054) beyond2 += 1.0;
    }
    EXPECT_NEAR(zsum / n, 0.0, 0.015);
    EXPECT_NEAR(zsum2 / n, 1.0, 0.03);
    EXPECT_NEAR(beyond2 / n, 0.05, 0.005);  // the tails have the normal weight
}

}  // namespace
}  // namespace krel
