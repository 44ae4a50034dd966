// The AVX2 kernel set: four reals a vector, the four genotypes of one byte.
// Sixteen vector registers hold the sums of 16 individuals by 2 columns in
// the transposed product and of 4 SNPs by 3 columns in the plain one.
//
// Only the intrinsics header and plain declarations come before the choice
// of instructions: a library function compiled here could be picked by the
// linker for code that runs on processors without these instructions.
#include <immintrin.h>

#include <cstdint>

#include "engine/genotype_kernels.h"

#if defined(__clang__)
#pragma clang attribute push(__attribute__((target("avx2,fma"))), apply_to = function)
#else
#pragma GCC push_options
#pragma GCC target("avx2,fma")
#endif

#include "engine/genotype_kernels_loops.h"

namespace krel::genotype_kernels {

namespace {

struct avx2_vectors {
    using vec = __m256d;
    static constexpr int width = 4;
    static constexpr int t_columns = 2;
    static constexpr int n_columns = 3;

    static vec load(const double* x) { return _mm256_load_pd(x); }
    static vec loadu(const double* x) { return _mm256_loadu_pd(x); }
    static void store(double* x, vec v) { _mm256_store_pd(x, v); }
    static void storeu(double* x, vec v) { _mm256_storeu_pd(x, v); }
    static vec set1(double a) { return _mm256_set1_pd(a); }
    static vec mul(vec a, vec b) { return _mm256_mul_pd(a, b); }
    static vec fmadd(vec a, vec b, vec c) { return _mm256_fmadd_pd(a, b, c); }
    static vec broadcast(const double* x) { return _mm256_broadcast_sd(x); }

    static vec decoded_bytes(const double* decode, const std::int8_t* x, std::int64_t) {
        return _mm256_loadu_pd(decoded(decode, x[0]));
    }
    static vec twice_freqs(const double* f) { return _mm256_set1_pd(2.0 * f[0]); }
    static vec byte_rows(const double* b) { return _mm256_loadu_pd(b); }

    // Fast form: g - 2p, with missing (g >= 3) cleared by the mask.
    static vec centre(vec g, vec twop) {
        const __m256d present = _mm256_cmp_pd(g, _mm256_set1_pd(3.0), _CMP_LT_OQ);
        return _mm256_and_pd(present, _mm256_sub_pd(g, twop));
    }
    static vec centre_border(vec g, vec p) {
        const __m256d present = _mm256_cmp_pd(g, _mm256_set1_pd(3.0), _CMP_LT_OQ);
        return _mm256_and_pd(present, _mm256_sub_pd(_mm256_sub_pd(g, p), p));
    }

    // The codes are taken from the bytes by shifts, and their values
    // gathered from the decoded row that lists every code.
    struct code_table {
        const double* values;
        explicit code_table(const double* row) : values(row) {}
    };
    static __m256i code_shift(std::int64_t q) { return _mm256_set1_epi64x(2 * q); }
    static vec genotypes(const code_table& table, const std::int8_t* x, __m256i shift) {
        std::int32_t four;
        __builtin_memcpy(&four, x, 4);
        const __m256i bytes = _mm256_cvtepu8_epi64(_mm_cvtsi32_si128(four));
        const __m256i code = _mm256_and_si256(_mm256_srlv_epi64(bytes, shift), _mm256_set1_epi64x(3));
        return _mm256_i64gather_pd(table.values, code, 8);
    }
};

using avx2_loops = tile_loops<avx2_vectors>;

}  // namespace

}  // namespace krel::genotype_kernels

#if defined(__clang__)
#pragma clang attribute pop
#else
#pragma GCC pop_options
#endif

namespace krel::genotype_kernels {

const kernel_set* avx2_kernels() {
    static const kernel_set set = {"avx2", avx2_loops::comp_t, avx2_loops::comp_n, avx2_loops::expand};
    return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma") ? &set : nullptr;
}

}  // namespace krel::genotype_kernels
