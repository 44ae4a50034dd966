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

namespace krel::genokernels {

namespace {

// Fast form: g - 2p, with missing (g >= 3) cleared by the mask.
inline __m256d centre(__m256d g, __m256d twop) {
    const __m256d present = _mm256_cmp_pd(g, _mm256_set1_pd(3.0), _CMP_LT_OQ);
    return _mm256_and_pd(present, _mm256_sub_pd(g, twop));
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
            const __m256d twop = _mm256_set1_pd(2.0 * t.freq[s]);
            const std::int8_t* x = t.ival + byte0 * t.lda + s;
            double* out = panel + (s - s0) * t_rows;
#pragma GCC unroll 8
            for (int v = 0; v < 8; ++v)
                _mm256_store_pd(out + 4 * v, centre(_mm256_loadu_pd(decoded(t.decode, x[v * t.lda])), twop));
        }
    }
}

// 16 rows of a row block (half h), columns [j, j + NC) += panel' B.
template <int NC>
inline void t_columns(const double* panel, std::int64_t ns, const double* b, std::int64_t ldb, double* c) {
    __m256d acc[NC][4];
#pragma GCC unroll 4
    for (int jc = 0; jc < NC; ++jc)
#pragma GCC unroll 4
        for (int v = 0; v < 4; ++v) acc[jc][v] = _mm256_loadu_pd(c + jc * t_rows + 4 * v);
    for (std::int64_t s = 0; s < ns; ++s) {
        const double* ps = panel + s * t_rows;
        const __m256d t0 = _mm256_load_pd(ps), t1 = _mm256_load_pd(ps + 4);
        const __m256d t2 = _mm256_load_pd(ps + 8), t3 = _mm256_load_pd(ps + 12);
#pragma GCC unroll 4
        for (int jc = 0; jc < NC; ++jc) {
            const __m256d bj = _mm256_broadcast_sd(b + jc * ldb + s);
            acc[jc][0] = _mm256_fmadd_pd(t0, bj, acc[jc][0]);
            acc[jc][1] = _mm256_fmadd_pd(t1, bj, acc[jc][1]);
            acc[jc][2] = _mm256_fmadd_pd(t2, bj, acc[jc][2]);
            acc[jc][3] = _mm256_fmadd_pd(t3, bj, acc[jc][3]);
        }
    }
#pragma GCC unroll 4
    for (int jc = 0; jc < NC; ++jc)
#pragma GCC unroll 4
        for (int v = 0; v < 4; ++v) _mm256_storeu_pd(c + jc * t_rows + 4 * v, acc[jc][v]);
}

void comp_t(const comp_t_task& t, std::int64_t rb0, std::int64_t rb1, std::int64_t s0, std::int64_t s1) {
    alignas(64) double panel[t_chunk_snps * t_rows];
    const std::int64_t ns = s1 - s0;
    for (std::int64_t rb = rb0; rb < rb1; ++rb) {
        expand_t(t, rb, s0, s1, panel);
        const double* b = t.b + s0;
        for (int h = 0; h < 2; ++h) {
            const double* ph = panel + 16 * h;
            double* c = t.ctmp + rb * t.n * t_rows + 16 * h;
            std::int64_t j = 0;
            for (; j + 2 <= t.n; j += 2) t_columns<2>(ph, ns, b + j * t.ldb, t.ldb, c + j * t_rows);
            if (j < t.n) t_columns<1>(ph, ns, b + j * t.ldb, t.ldb, c + j * t_rows);
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
    __m256d twop[n_snps];
    for (int ls = 0; ls < n_snps; ++ls) twop[ls] = _mm256_set1_pd(2.0 * t.freq[s + ls]);
    for (std::int64_t b = bt; b < bend; ++b) {
        const std::int8_t* x = t.ival + b * t.lda + s;
        double* out = panel + (b - b0) * n_snps * 4;
#pragma GCC unroll 8
        for (int ls = 0; ls < n_snps; ++ls)
            _mm256_store_pd(out + 4 * ls, centre(_mm256_loadu_pd(decoded(t.decode, x[ls])), twop[ls]));
    }
}

// Lanes of 4 SNPs of a block, columns [j, j + NC), += panel x bbuf over the bytes.
template <int NC>
inline void n_columns(const double* panel, std::int64_t nb, const double* bbuf, std::int64_t ldbb,
                      double* c, std::int64_t cstride) {
    __m256d acc[NC][4];
#pragma GCC unroll 3
    for (int jc = 0; jc < NC; ++jc)
#pragma GCC unroll 4
        for (int v = 0; v < 4; ++v) acc[jc][v] = _mm256_loadu_pd(c + jc * cstride + 4 * v);
    for (std::int64_t b = 0; b < nb; ++b) {
        const double* pb = panel + b * n_snps * 4;
        __m256d bj[NC];
#pragma GCC unroll 3
        for (int jc = 0; jc < NC; ++jc) bj[jc] = _mm256_loadu_pd(bbuf + jc * ldbb + 4 * b);
#pragma GCC unroll 4
        for (int v = 0; v < 4; ++v) {
            const __m256d tv = _mm256_load_pd(pb + 4 * v);
#pragma GCC unroll 3
            for (int jc = 0; jc < NC; ++jc) acc[jc][v] = _mm256_fmadd_pd(tv, bj[jc], acc[jc][v]);
        }
    }
#pragma GCC unroll 3
    for (int jc = 0; jc < NC; ++jc)
#pragma GCC unroll 4
        for (int v = 0; v < 4; ++v) _mm256_storeu_pd(c + jc * cstride + 4 * v, acc[jc][v]);
}

void comp_n(const comp_n_task& t, std::int64_t sb0, std::int64_t sb1, std::int64_t b0, std::int64_t b1,
            const double* bbuf, std::int64_t ldbb) {
    alignas(64) double panel[n_chunk_bytes * n_snps * 4];
    const std::int64_t nb = b1 - b0;
    const std::int64_t cstride = t.mpad * 4;
    for (std::int64_t sb = sb0; sb < sb1; ++sb) {
        for (std::int64_t bt = b0; bt < b1; bt += n_tile_bytes)
            expand_n(t, sb, bt, b0, bt + n_tile_bytes < b1 ? bt + n_tile_bytes : b1, panel);
        for (int h = 0; h < 2; ++h) {
            const double* ph = panel + 16 * h;
            double* c = t.ctmp + sb * n_snps * 4 + 16 * h;
            std::int64_t j = 0;
            for (; j + 3 <= t.n; j += 3) n_columns<3>(ph, nb, bbuf + j * ldbb, ldbb, c + j * cstride, cstride);
            switch (t.n - j) {
                case 2: n_columns<2>(ph, nb, bbuf + j * ldbb, ldbb, c + j * cstride, cstride); break;
                case 1: n_columns<1>(ph, nb, bbuf + j * ldbb, ldbb, c + j * cstride, cstride); break;
                default: break;
            }
        }
    }
}

// Four SNPs at a time: the codes are taken from the bytes by shifts, and
// their values gathered from the decoded row that lists every code.
void expand(const expand_task& t, std::int64_t b0, std::int64_t b1) {
    const double* values = decoded(t.decode, code_sequence);
    const __m256i mask3 = _mm256_set1_epi64x(3);
    const __m256d three = _mm256_set1_pd(3.0);
    const std::int64_t vec_end = t.nsnp / 4 * 4;
    for (std::int64_t b = b0; b < b1; ++b) {
        const std::int8_t* x = t.ival + b * t.lda;
        const std::int64_t present = t.nind - 4 * b < 4 ? t.nind - 4 * b : 4;
        for (std::int64_t q = 0; q < present; ++q) {
            const std::int64_t i = 4 * b + q;
            const __m256d scale = _mm256_set1_pd(t.scale ? t.scale[i] : 1.0);
            const __m256i shift = _mm256_set1_epi64x(2 * q);
            double* out = t.z + i * t.ldz;
            for (std::int64_t s = 0; s < vec_end; s += 4) {
                std::int32_t four;
                __builtin_memcpy(&four, x + s, 4);
                const __m256i bytes = _mm256_cvtepu8_epi64(_mm_cvtsi32_si128(four));
                const __m256i code = _mm256_and_si256(_mm256_srlv_epi64(bytes, shift), mask3);
                const __m256d g = _mm256_i64gather_pd(values, code, 8);
                const __m256d p = _mm256_loadu_pd(t.freq + s);
                const __m256d present_mask = _mm256_cmp_pd(g, three, _CMP_LT_OQ);
                const __m256d centred = _mm256_and_pd(present_mask, _mm256_sub_pd(_mm256_sub_pd(g, p), p));
                _mm256_storeu_pd(out + s, _mm256_mul_pd(centred, scale));
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

const kernel_set* avx2_kernels() {
    static const kernel_set set = {"avx2", comp_t, comp_n, expand};
    return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma") ? &set : nullptr;
}

}  // namespace krel::genokernels
