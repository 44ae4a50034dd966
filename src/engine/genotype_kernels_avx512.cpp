// The AVX-512 kernel set: eight reals a vector. In the transposed product a
// vector is eight individuals of one SNP (two bytes); in the plain product
// it is the four positions of a byte for two adjacent SNPs, so the four
// partial sums of each result stay apart as in every other set.
//
// Only the intrinsics header and plain declarations come before the choice
// of instructions: a library function compiled here could be picked by the
// linker for code that runs on processors without these instructions.
#include <immintrin.h>

#include <cstdint>

#include "engine/genotype_kernels.h"

#if defined(__clang__)
#pragma clang attribute push(__attribute__((target("avx512f,avx2,fma"))), apply_to = function)
#else
#pragma GCC push_options
#pragma GCC target("avx512f,avx2,fma")
#endif

#include "engine/genotype_kernels_loops.h"

namespace krel::genotype_kernels {

namespace {

// Decoded genotypes of two bytes, the first in the low half.
// (The masked forms with every lane set name their source operand: the
// unmasked intrinsics of GCC 12 pass an undefined one, which -Wall reports.)
inline __m512d join(__m256d lo, __m256d hi) {
    const __m512d wide = _mm512_castpd256_pd512(lo);
    return _mm512_mask_insertf64x4(wide, 0xFF, wide, hi, 1);
}
inline __m512d broadcast4(const double* x) {
    return _mm512_maskz_broadcast_f64x4(0xFF, _mm256_loadu_pd(x));
}

struct avx512_vectors {
    using vec = __m512d;
    static constexpr int width = 8;
    static constexpr int t_columns = 4;
    static constexpr int n_columns = 4;

    static vec load(const double* x) { return _mm512_load_pd(x); }
    static vec loadu(const double* x) { return _mm512_loadu_pd(x); }
    static void store(double* x, vec v) { _mm512_store_pd(x, v); }
    static void storeu(double* x, vec v) { _mm512_storeu_pd(x, v); }
    static vec set1(double a) { return _mm512_set1_pd(a); }
    static vec mul(vec a, vec b) { return _mm512_mul_pd(a, b); }
    static vec fmadd(vec a, vec b, vec c) { return _mm512_fmadd_pd(a, b, c); }
    static vec broadcast(const double* x) { return _mm512_set1_pd(*x); }

    static vec decoded_bytes(const double* decode, const std::int8_t* x, std::int64_t stride) {
        return join(_mm256_loadu_pd(decoded(decode, x[0])), _mm256_loadu_pd(decoded(decode, x[stride])));
    }
    static vec twice_freqs(const double* f) {
        return join(_mm256_set1_pd(2.0 * f[0]), _mm256_set1_pd(2.0 * f[1]));
    }
    static vec byte_rows(const double* b) { return broadcast4(b); }

    // Fast form: g - 2p, with missing (g >= 3) cleared by the mask.
    static vec centre(vec g, vec twop) {
        const __mmask8 present = _mm512_cmp_pd_mask(g, _mm512_set1_pd(3.0), _CMP_LT_OQ);
        return _mm512_maskz_sub_pd(present, g, twop);
    }
    static vec centre_border(vec g, vec p) {
        const __mmask8 present = _mm512_cmp_pd_mask(g, _mm512_set1_pd(3.0), _CMP_LT_OQ);
        return _mm512_maskz_sub_pd(present, _mm512_sub_pd(g, p), p);
    }

    // The codes are taken from the bytes by shifts, and their values from a
    // register that serves as the table.
    struct code_table {
        __m512d values;
        explicit code_table(const double* row) : values(broadcast4(row)) {}
    };
    static __m512i code_shift(std::int64_t q) { return _mm512_set1_epi64(2 * q); }
    static vec genotypes(const code_table& table, const std::int8_t* x, __m512i shift) {
        const __m512i bytes = _mm512_maskz_cvtepu8_epi64(0xFF, _mm_loadl_epi64(reinterpret_cast<const __m128i*>(x)));
        const __m512i code = _mm512_and_si512(_mm512_maskz_srlv_epi64(0xFF, bytes, shift), _mm512_set1_epi64(3));
        return _mm512_maskz_permutexvar_pd(0xFF, code, table.values);
    }
};

using avx512_loops = tile_loops<avx512_vectors>;

}  // namespace

}  // namespace krel::genotype_kernels

#if defined(__clang__)
#pragma clang attribute pop
#else
#pragma GCC pop_options
#endif

namespace krel::genotype_kernels {

const kernel_set* avx512_kernels() {
    static const kernel_set set = {"avx512", avx512_loops::comp_t, avx512_loops::comp_n, avx512_loops::expand};
    return __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("fma") ? &set : nullptr;
}

}  // namespace krel::genotype_kernels
