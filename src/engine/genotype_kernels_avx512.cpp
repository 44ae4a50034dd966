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

namespace krel::genokernels {

namespace {

// Decoded genotypes of two bytes, the first in the low half.
// (The masked forms with every lane set name their source operand: the
// unmasked intrinsics of GCC 12 pass an undefined one, which -Wall reports.)
inline __m512d join(__m256d lo, __m256d hi) {
    const __m512d wide = _mm512_castpd256_pd512(lo);
    return _mm512_mask_insertf64x4(wide, 0xFF, wide, hi, 1);
}
inline __m512d load_pair(const double* decode, std::int8_t lo, std::int8_t hi) {
    return join(_mm256_loadu_pd(decoded(decode, lo)), _mm256_loadu_pd(decoded(decode, hi)));
}
inline __m512d broadcast4(const double* x) {
    return _mm512_maskz_broadcast_f64x4(0xFF, _mm256_loadu_pd(x));
}

// Fast form: g - 2p, with missing (g >= 3) cleared by the mask.
inline __m512d centre(__m512d g, __m512d twop) {
    const __mmask8 present = _mm512_cmp_pd_mask(g, _mm512_set1_pd(3.0), _CMP_LT_OQ);
    return _mm512_maskz_sub_pd(present, g, twop);
}

void expand_t(const comp_t_task& t, std::int64_t rb, std::int64_t s0, std::int64_t s1, double* panel) {
    const std::int64_t byte0 = rb * (t_rows / 4);
    for (std::int64_t sub = s0; sub < s1; sub += 4) {
        if (!t_tile_full(t, rb, sub)) {
            const std::int64_t send = sub + 4 < s1 ? sub + 4 : s1;
            for (std::int64_t s = sub; s < send; ++s) expand_t_border(t, rb, s, panel + (s - s0) * t_rows);
            continue;
        }
        for (std::int64_t s = sub; s < sub + 4; ++s) {
            const __m512d twop = _mm512_set1_pd(2.0 * t.freq[s]);
            const std::int8_t* x = t.ival + byte0 * t.lda + s;
            double* out = panel + (s - s0) * t_rows;
#pragma GCC unroll 4
            for (int v = 0; v < 4; ++v) {
                const __m512d g = load_pair(t.decode, x[(2 * v) * t.lda], x[(2 * v + 1) * t.lda]);
                _mm512_store_pd(out + 8 * v, centre(g, twop));
            }
        }
    }
}

// ctmp block columns [j, j + NC) of one row block += panel' B(s0..s1, j..).
template <int NC>
inline void t_columns(const double* panel, std::int64_t ns, const double* b, std::int64_t ldb, double* c) {
    __m512d acc[NC][4];
#pragma GCC unroll 4
    for (int jc = 0; jc < NC; ++jc)
#pragma GCC unroll 4
        for (int v = 0; v < 4; ++v) acc[jc][v] = _mm512_loadu_pd(c + jc * t_rows + 8 * v);
    for (std::int64_t s = 0; s < ns; ++s) {
        const double* ps = panel + s * t_rows;
        const __m512d t0 = _mm512_load_pd(ps), t1 = _mm512_load_pd(ps + 8);
        const __m512d t2 = _mm512_load_pd(ps + 16), t3 = _mm512_load_pd(ps + 24);
#pragma GCC unroll 4
        for (int jc = 0; jc < NC; ++jc) {
            const __m512d bj = _mm512_set1_pd(b[jc * ldb + s]);
            acc[jc][0] = _mm512_fmadd_pd(t0, bj, acc[jc][0]);
            acc[jc][1] = _mm512_fmadd_pd(t1, bj, acc[jc][1]);
            acc[jc][2] = _mm512_fmadd_pd(t2, bj, acc[jc][2]);
            acc[jc][3] = _mm512_fmadd_pd(t3, bj, acc[jc][3]);
        }
    }
#pragma GCC unroll 4
    for (int jc = 0; jc < NC; ++jc)
#pragma GCC unroll 4
        for (int v = 0; v < 4; ++v) _mm512_storeu_pd(c + jc * t_rows + 8 * v, acc[jc][v]);
}

void comp_t(const comp_t_task& t, std::int64_t rb0, std::int64_t rb1, std::int64_t s0, std::int64_t s1) {
    alignas(64) double panel[t_chunk_snps * t_rows];
    const std::int64_t ns = s1 - s0;
    for (std::int64_t rb = rb0; rb < rb1; ++rb) {
        expand_t(t, rb, s0, s1, panel);
        double* c = t.ctmp + rb * t.n * t_rows;
        const double* b = t.b + s0;
        std::int64_t j = 0;
        for (; j + 4 <= t.n; j += 4) t_columns<4>(panel, ns, b + j * t.ldb, t.ldb, c + j * t_rows);
        switch (t.n - j) {
            case 3: t_columns<3>(panel, ns, b + j * t.ldb, t.ldb, c + j * t_rows); break;
            case 2: t_columns<2>(panel, ns, b + j * t.ldb, t.ldb, c + j * t_rows); break;
            case 1: t_columns<1>(panel, ns, b + j * t.ldb, t.ldb, c + j * t_rows); break;
            default: break;
        }
    }
}

void expand_n(const comp_n_task& t, std::int64_t sb, std::int64_t bt, std::int64_t b0, std::int64_t bend,
              double* panel) {
    if (!n_tile_full(t, sb, bt)) {
        expand_n_border(t, sb, bt, b0, bend, panel);
        return;
    }
    const std::int64_t s = sb * n_snps;
    __m512d twop[4];
    for (int v = 0; v < 4; ++v)
        twop[v] = join(_mm256_set1_pd(2.0 * t.freq[s + 2 * v]), _mm256_set1_pd(2.0 * t.freq[s + 2 * v + 1]));
    for (std::int64_t b = bt; b < bend; ++b) {
        const std::int8_t* x = t.ival + b * t.lda + s;
        double* out = panel + (b - b0) * n_snps * 4;
#pragma GCC unroll 4
        for (int v = 0; v < 4; ++v)
            _mm512_store_pd(out + 8 * v, centre(load_pair(t.decode, x[2 * v], x[2 * v + 1]), twop[v]));
    }
}

// Lanes of one SNP block, columns [j, j + NC), += panel x bbuf over the bytes.
template <int NC>
inline void n_columns(const double* panel, std::int64_t nb, const double* bbuf, std::int64_t ldbb,
                      double* c, std::int64_t cstride) {
    __m512d acc[NC][4];
#pragma GCC unroll 4
    for (int jc = 0; jc < NC; ++jc)
#pragma GCC unroll 4
        for (int v = 0; v < 4; ++v) acc[jc][v] = _mm512_loadu_pd(c + jc * cstride + 8 * v);
    for (std::int64_t b = 0; b < nb; ++b) {
        const double* pb = panel + b * n_snps * 4;
        const __m512d t0 = _mm512_load_pd(pb), t1 = _mm512_load_pd(pb + 8);
        const __m512d t2 = _mm512_load_pd(pb + 16), t3 = _mm512_load_pd(pb + 24);
#pragma GCC unroll 4
        for (int jc = 0; jc < NC; ++jc) {
            const __m512d bj = broadcast4(bbuf + jc * ldbb + 4 * b);
            acc[jc][0] = _mm512_fmadd_pd(t0, bj, acc[jc][0]);
            acc[jc][1] = _mm512_fmadd_pd(t1, bj, acc[jc][1]);
            acc[jc][2] = _mm512_fmadd_pd(t2, bj, acc[jc][2]);
            acc[jc][3] = _mm512_fmadd_pd(t3, bj, acc[jc][3]);
        }
    }
#pragma GCC unroll 4
    for (int jc = 0; jc < NC; ++jc)
#pragma GCC unroll 4
        for (int v = 0; v < 4; ++v) _mm512_storeu_pd(c + jc * cstride + 8 * v, acc[jc][v]);
}

void comp_n(const comp_n_task& t, std::int64_t sb0, std::int64_t sb1, std::int64_t b0, std::int64_t b1,
            const double* bbuf, std::int64_t ldbb) {
    alignas(64) double panel[n_chunk_bytes * n_snps * 4];
    const std::int64_t nb = b1 - b0;
    const std::int64_t cstride = t.mpad * 4;
    for (std::int64_t sb = sb0; sb < sb1; ++sb) {
        for (std::int64_t bt = b0; bt < b1; bt += n_tile_bytes)
            expand_n(t, sb, bt, b0, bt + n_tile_bytes < b1 ? bt + n_tile_bytes : b1, panel);
        double* c = t.ctmp + sb * n_snps * 4;
        std::int64_t j = 0;
        for (; j + 4 <= t.n; j += 4) n_columns<4>(panel, nb, bbuf + j * ldbb, ldbb, c + j * cstride, cstride);
        switch (t.n - j) {
            case 3: n_columns<3>(panel, nb, bbuf + j * ldbb, ldbb, c + j * cstride, cstride); break;
            case 2: n_columns<2>(panel, nb, bbuf + j * ldbb, ldbb, c + j * cstride, cstride); break;
            case 1: n_columns<1>(panel, nb, bbuf + j * ldbb, ldbb, c + j * cstride, cstride); break;
            default: break;
        }
    }
}

// Eight SNPs at a time: the codes are taken from the bytes by shifts, and
// their values from a register that serves as the table.
void expand(const expand_task& t, std::int64_t b0, std::int64_t b1) {
    const __m512d values = broadcast4(decoded(t.decode, code_sequence));
    const __m512d three = _mm512_set1_pd(3.0);
    const __m512i mask3 = _mm512_set1_epi64(3);
    const std::int64_t vec_end = t.nsnp / 8 * 8;
    for (std::int64_t b = b0; b < b1; ++b) {
        const std::int8_t* x = t.ival + b * t.lda;
        const std::int64_t present = t.nind - 4 * b < 4 ? t.nind - 4 * b : 4;
        for (std::int64_t q = 0; q < present; ++q) {
            const std::int64_t i = 4 * b + q;
            const __m512d scale = _mm512_set1_pd(t.scale ? t.scale[i] : 1.0);
            const __m512i shift = _mm512_set1_epi64(2 * q);
            double* out = t.z + i * t.ldz;
            for (std::int64_t s = 0; s < vec_end; s += 8) {
                const __m512i bytes = _mm512_maskz_cvtepu8_epi64(0xFF, _mm_loadl_epi64(reinterpret_cast<const __m128i*>(x + s)));
                const __m512i code = _mm512_and_si512(_mm512_maskz_srlv_epi64(0xFF, bytes, shift), mask3);
                const __m512d g = _mm512_maskz_permutexvar_pd(0xFF, code, values);
                const __m512d p = _mm512_loadu_pd(t.freq + s);
                const __mmask8 present_mask = _mm512_cmp_pd_mask(g, three, _CMP_LT_OQ);
                const __m512d centred = _mm512_maskz_sub_pd(present_mask, _mm512_sub_pd(g, p), p);
                _mm512_storeu_pd(out + s, _mm512_mul_pd(centred, scale));
            }
        }
        if (vec_end < t.nsnp) expand_border(t, b, vec_end);
    }
}

}  // namespace

}  // namespace krel::genokernels

#if defined(__clang__)
#pragma clang attribute pop
#else
#pragma GCC pop_options
#endif

namespace krel::genokernels {

const kernel_set* avx512_kernels() {
    static const kernel_set set = {"avx512", comp_t, comp_n, expand};
    return __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("fma") ? &set : nullptr;
}

}  // namespace krel::genokernels
