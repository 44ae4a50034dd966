// Products with the packed genotype matrix against the same products
// computed densely from the expanded genotypes, on shapes that reach every
// border of the tiles; every kernel set and thread count gives the same bits.
#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "engine/packed_genotype_products.h"
#include "inputs/genotypes.h"
#include "inputs/plink_reader.h"
#include "test_support.h"
#include "util/error_stop.h"

namespace krel {
namespace {

struct genotypes {
    std::int64_t nsnp = 0;
    std::int64_t nind = 0;
    std::int64_t nbytes = 0;
    std::vector<std::int8_t> ival;  // nsnp x nbytes
    std::vector<double> freq;
};

// Random codes with about 5 % missing; padding bits behind the last
// individual are 00 as in a .bed.
genotypes random_genotypes(std::int64_t nsnp, std::int64_t nind, unsigned seed, bool zero_freq = false) {
    genotypes g;
    g.nsnp = nsnp;
    g.nind = nind;
    g.nbytes = (nind + 3) / 4;
    g.ival.assign(static_cast<std::size_t>(nsnp * g.nbytes), 0);
    g.freq.assign(static_cast<std::size_t>(nsnp), 0.0);
    std::mt19937_64 gen(seed);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    for (std::int64_t s = 0; s < nsnp; ++s) {
        const double p = 0.05 + 0.9 * u(gen);
        if (!zero_freq) g.freq[static_cast<std::size_t>(s)] = p;
        for (std::int64_t i = 0; i < nind; ++i) {
            const double x = u(gen);
            const unsigned code = x < 0.05 ? 1u : (x < 0.05 + (1 - p) * (1 - p) ? 0u : (x < 0.05 + 1 - p * p ? 2u : 3u));
            auto& byte = g.ival[static_cast<std::size_t>((i / 4) * nsnp + s)];
            byte = static_cast<std::int8_t>(static_cast<std::uint8_t>(byte) | (code << (2 * (i % 4))));
        }
    }
    return g;
}

std::vector<double> random_matrix(std::int64_t rows, std::int64_t cols, unsigned seed) {
    std::mt19937_64 gen(seed);
    std::normal_distribution<double> z;
    std::vector<double> a(static_cast<std::size_t>(rows * cols));
    for (double& x : a) x = z(gen);
    return a;
}

// Runs dgemm_compressed under a kernel set and a thread count.
std::vector<double> product(const genotypes& g, const std::string& transa, std::int64_t n,
                            const std::vector<double>& b, std::int64_t ldb, double beta,
                            std::vector<double> c, std::int64_t ldc, const std::string& kernels, int threads) {
    EXPECT_TRUE(select_genotype_kernels(kernels));
    omp_set_num_threads(threads);
    const bool plain = transa == "n";
    const std::int64_t m = plain ? g.nsnp : g.nind, k = plain ? g.nind : g.nsnp;
    dgemm_compressed(transa, "n", m, n, k, g.nbytes, 1.0, g.ival.data(), g.freq.data(), g.nsnp, b.data(), ldb,
                     beta, c.data(), ldc);
    return c;
}

std::vector<std::string> kernel_sets() {
    std::vector<std::string> sets{"portable"};
    for (const char* name : {"avx2", "avx512"})
        if (select_genotype_kernels(name)) sets.push_back(name);
    return sets;
}

class CompressedProducts : public ::testing::Test {
protected:
    void TearDown() override {
        select_genotype_kernels(default_kernels_);
        omp_set_num_threads(default_threads_);
    }
    std::string default_kernels_{genotype_kernels_in_use()};
    int default_threads_ = omp_get_max_threads();
};

struct shape {
    std::int64_t nind, nsnp, n;
};

// Individuals not a multiple of 4 or 32, SNPs not a multiple of 4, 8 or
// 128, one column and odd column counts, and sizes that span several chunks
// of SNPs (transposed) and of bytes (plain).
const shape shapes[] = {{1, 1, 1},    {5, 17, 1},   {31, 3, 2},    {33, 37, 3},   {64, 8, 4},
                        {67, 130, 5}, {130, 257, 7}, {1029, 45, 1}, {2053, 21, 9}, {96, 300, 64}};

TEST_F(CompressedProducts, AgreeWithDenseProductForEveryKernelSetAndThreadCount) {
    for (const bool zero_freq : {false, true})
        for (const shape& sh : shapes)
            for (const std::string transa : {"n", "t"}) {
                SCOPED_TRACE(::testing::Message() << "nind " << sh.nind << " nsnp " << sh.nsnp << " n " << sh.n
                                                << " transa " << transa << " zero freq " << zero_freq);
                const genotypes g = random_genotypes(sh.nsnp, sh.nind, 3 + static_cast<unsigned>(sh.nsnp), zero_freq);
                const bool plain = transa == "n";
                const std::int64_t m = plain ? sh.nsnp : sh.nind, k = plain ? sh.nind : sh.nsnp;
                // Strided B and C: two rows more than needed.
                const std::int64_t ldb = k + 2, ldc = m + 2;
                const auto b = random_matrix(ldb, sh.n, 7);
                std::vector<double> c0(static_cast<std::size_t>(ldc * sh.n),
                                       std::numeric_limits<double>::quiet_NaN());

                std::vector<double> expected(c0.size(), 0.0);
                dgemm_compressed_reference(transa, m, sh.n, k, g.ival.data(), g.freq.data(), g.nsnp, b.data(),
                                           ldb, 0.0, expected.data(), ldc);
                const auto first = product(g, transa, sh.n, b, ldb, 0.0, c0, ldc, "portable", 1);
                for (std::int64_t j = 0; j < sh.n; ++j)
                    for (std::int64_t i = 0; i < m; ++i) {
                        const std::size_t at = static_cast<std::size_t>(j * ldc + i);
                        ASSERT_NEAR(first[at], expected[at], 1e-12 * static_cast<double>(k + 1)) << i << "," << j;
                    }
                // Rows of C beyond m are left alone.
                for (std::int64_t j = 0; j < sh.n; ++j) EXPECT_TRUE(std::isnan(first[static_cast<std::size_t>(j * ldc + m)]));

                for (const auto& kernels : kernel_sets())
                    for (const int threads : {1, 2}) {
                        const auto other = product(g, transa, sh.n, b, ldb, 0.0, c0, ldc, kernels, threads);
                        for (std::size_t at = 0; at < first.size(); ++at) {
                            if (std::isnan(first[at])) continue;
                            ASSERT_EQ(first[at], other[at]) << kernels << " threads " << threads << " at " << at;
                        }
                    }
            }
}

TEST_F(CompressedProducts, BetaScalesTheOldResult) {
    const genotypes g = random_genotypes(19, 22, 5);
    for (const std::string transa : {"n", "t"}) {
        const bool plain = transa == "n";
        const std::int64_t m = plain ? g.nsnp : g.nind, k = plain ? g.nind : g.nsnp;
        const auto b = random_matrix(k, 3, 1);
        const auto c0 = random_matrix(m, 3, 2);
        std::vector<double> expected = c0;
        dgemm_compressed_reference(transa, m, 3, k, g.ival.data(), g.freq.data(), g.nsnp, b.data(), k, 0.5,
                                   expected.data(), m);
        const auto got = product(g, transa, 3, b, k, 0.5, c0, m, default_kernels_, 2);
        for (std::size_t i = 0; i < got.size(); ++i) EXPECT_NEAR(got[i], expected[i], 1e-12) << transa << i;
    }
}

TEST_F(CompressedProducts, MissingGenotypesContributeNothingWhateverTheFrequency) {
    genotypes g = random_genotypes(9, 40, 4);
    std::fill(g.ival.begin(), g.ival.end(), static_cast<std::int8_t>(0x55));  // every code 01
    for (std::size_t s = 0; s < g.freq.size(); ++s) g.freq[s] = 0.1 * static_cast<double>(s);
    const auto b = random_matrix(40, 2, 3);
    const auto zn = product(g, "n", 2, b, 40, 0.0, std::vector<double>(18, 1.0), 9, default_kernels_, 2);
    for (double v : zn) EXPECT_EQ(v, 0.0);
    const auto bt = random_matrix(9, 2, 3);
    const auto zt = product(g, "t", 2, bt, 9, 0.0, std::vector<double>(80, 1.0), 40, default_kernels_, 2);
    for (double v : zt) EXPECT_EQ(v, 0.0);
}

TEST_F(CompressedProducts, UnsupportedArgumentsStop) {
    testing::log_capture log;
    const genotypes g = random_genotypes(4, 4, 1);
    std::vector<double> b(4), c(4);
    EXPECT_THROW(dgemm_compressed("x", "n", 4, 1, 4, 1, 1.0, g.ival.data(), g.freq.data(), 4, b.data(), 4, 0.0,
                                  c.data(), 4),
                 error_stop);
    EXPECT_TRUE(testing::contains(log.text(), "This type of transa is not implemented"));
    for (const auto& [transb, alpha, message] : {std::tuple{"t", 1.0, "Not yet implemented for transposed matrix"},
                                                 std::tuple{"n", 2.0, "Not yet implemented for alpha!=1"}}) {
        ::testing::internal::CaptureStdout();
        EXPECT_THROW(dgemm_compressed("t", transb, 4, 1, 4, 1, alpha, g.ival.data(), g.freq.data(), 4, b.data(), 4,
                                      0.0, c.data(), 4),
                     error_stop);
        const std::string out = ::testing::internal::GetCapturedStdout();
        EXPECT_TRUE(testing::contains(out, message)) << out;
    }
}

TEST_F(CompressedProducts, ExpansionEqualsDecompressionTimesScaleForEveryKernelSet) {
    // SNPs beyond the last whole vector and individuals in a last partial byte.
    const genotypes g = random_genotypes(21, 11, 8);
    std::vector<double> expected(21 * 11);
    decompress_bed_snpmajor_real8(g.ival.data(), g.nsnp, g.nsnp, g.freq.data(), g.nind, expected.data(), g.nsnp);
    std::vector<double> scale(11);
    for (std::size_t i = 0; i < scale.size(); ++i) scale[i] = 0.25 * static_cast<double>(i + 1);
    for (const auto& kernels : kernel_sets())
        for (const bool scaled : {false, true}) {
            ASSERT_TRUE(select_genotype_kernels(kernels));
            std::vector<double> z(22 * 11, -1.0);  // leading dimension one more than the SNPs
            expand_genotypes(g.ival.data(), g.nsnp, g.nsnp, g.freq.data(), g.nind, scaled ? scale.data() : nullptr,
                             z.data(), 22);
            for (std::int64_t i = 0; i < 11; ++i) {
                for (std::int64_t s = 0; s < 21; ++s)
                    ASSERT_EQ(z[static_cast<std::size_t>(i * 22 + s)],
                              expected[static_cast<std::size_t>(i * 21 + s)] * (scaled ? scale[static_cast<std::size_t>(i)] : 1.0))
                        << kernels << " " << s << "," << i;
                ASSERT_EQ(z[static_cast<std::size_t>(i * 22 + 21)], -1.0);
            }
        }
}

// Z diag(r) Z' from the expanded genotypes.
std::vector<double> dense_zrz(const genotypes& g, const std::vector<double>& r) {
    std::vector<double> z(static_cast<std::size_t>(g.nsnp * g.nind));
    decompress_bed_snpmajor_real8(g.ival.data(), g.nsnp, g.nsnp, g.freq.data(), g.nind, z.data(), g.nsnp);
    std::vector<double> c(static_cast<std::size_t>(g.nsnp * g.nsnp), 0.0);
    for (std::int64_t t = 0; t < g.nsnp; ++t)
        for (std::int64_t s = 0; s < g.nsnp; ++s) {
            double sum = 0.0;
            for (std::int64_t i = 0; i < g.nind; ++i)
                sum += z[static_cast<std::size_t>(i * g.nsnp + s)] * r[static_cast<std::size_t>(i)] *
                       z[static_cast<std::size_t>(i * g.nsnp + t)];
            c[static_cast<std::size_t>(t * g.nsnp + s)] = sum;
        }
    return c;
}

TEST_F(CompressedProducts, BothZrzFormsGiveTheWeightedCrossProductIntoABlock) {
    // 70 SNPs: two panels of 32 and one of 6. The result goes into the upper
    // left block of a matrix one larger, whose border must stay untouched.
    testing::log_capture log;
    const genotypes g = random_genotypes(70, 45, 11);
    std::vector<double> r(45);
    for (std::size_t i = 0; i < r.size(); ++i) r[i] = 0.5 + 0.01 * static_cast<double>(i);
    const auto expected = dense_zrz(g, r);
    const std::int64_t ld = g.nsnp + 1;
    for (const int threads : {1, 2})
        for (const bool low_memory : {true, false}) {
            omp_set_num_threads(threads);
            std::vector<double> c(static_cast<std::size_t>(ld * ld), -7.0);
            if (low_memory)
                dgemm_zrz(g.nind, g.nsnp, g.nbytes, g.ival.data(), g.freq.data(), r.data(), c.data(), ld);
            else
                dgemm_zrz_mkl(g.nind, g.nsnp, g.nbytes, g.ival.data(), g.freq.data(), r.data(), c.data(), ld);
            for (std::int64_t t = 0; t < ld; ++t)
                for (std::int64_t s = 0; s < ld; ++s) {
                    const double got = c[static_cast<std::size_t>(t * ld + s)];
                    if (s == g.nsnp || t == g.nsnp)
                        ASSERT_EQ(got, -7.0);
                    else
                        ASSERT_NEAR(got, expected[static_cast<std::size_t>(t * g.nsnp + s)], 1e-11)
                            << low_memory << " " << s << "," << t;
                }
        }
    EXPECT_TRUE(testing::contains(log.text(), "INFO: Number of columns (SNPs): 32"));
}

}  // namespace
}  // namespace krel
