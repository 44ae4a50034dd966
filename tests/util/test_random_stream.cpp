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

    // Reseeding restarts the sequence, whatever was drawn before.
    a.setseed(12345);
    EXPECT_EQ(draws(a, 100), xa);

    random_stream neg1(-1), neg2(-1), pos(1);
    EXPECT_EQ(draws(neg1, 10), draws(neg2, 10));
    neg1.setseed(-1);
    EXPECT_NE(draws(neg1, 10), draws(pos, 10));
}

TEST(RandomStream, UniformOnZeroExclusiveOneInclusive) {
    random_stream s(7);
    double sum = 0.0, lo = 1.0, hi = 0.0;
    const int n = 100000;
    for (int k = 0; k < n; ++k) {
        const double u = s.rand_stduniform();
        ASSERT_GT(u, 0.0);
        ASSERT_LE(u, 1.0);
        sum += u;
        lo = std::min(lo, u);
        hi = std::max(hi, u);
    }
    EXPECT_NEAR(sum / n, 0.5, 0.005);
    EXPECT_LT(lo, 1.0e-3);
    EXPECT_GT(hi, 1.0 - 1.0e-3);
}

TEST(RandomStream, NormalUsesOneUniformPairPerDraw) {
    random_stream u(99), z(99);
    for (int k = 0; k < 3; ++k) {
        const double u1 = u.rand_stduniform();
        const double u2 = u.rand_stduniform();
        EXPECT_DOUBLE_EQ(z.rand_stdnormal(),
                         std::sqrt(-2.0 * std::log(u1)) * std::cos(6.283185307179586 * u2));
    }
}

TEST(RandomStream, NormalSampleMoments) {
    random_stream s(2024);
    const int n = 100000;
    double sum = 0.0, sum2 = 0.0, beyond2 = 0.0;
    for (int k = 0; k < n; ++k) {
        const double x = s.rand_stdnormal();
        ASSERT_TRUE(std::isfinite(x));
        sum += x;
        sum2 += x * x;
        if (std::fabs(x) > 1.959963984540054) beyond2 += 1.0;
    }
    const double m = sum / n;
    const double sd = std::sqrt((sum2 - n * m * m) / (n - 1));
    EXPECT_NEAR(m, 0.0, 0.015);
    EXPECT_NEAR(sd, 1.0, 0.015);
    EXPECT_NEAR(beyond2 / n, 0.05, 0.005);  // the tails have the normal weight
}

}  // namespace
}  // namespace krel
