#pragma once
// Pieces shared by every kernel set, and the loop drivers of the vector sets.
// Included by each kernel file after its choice of instructions, so each gets
// its own copy (anonymous namespace): no function compiled for wide vectors
// may be shared with plain code.
#include <cstdint>
#include <type_traits>

#include "engine/genotype_kernels.h"

namespace krel::genotype_kernels {
namespace {

// Expansion of one decoded genotype. The fast form serves whole tiles, the
// border form the tiles at the edges; they may differ in the last bit, and
// each kernel set uses them at the same places.
inline double fast_value(double g, double twop) { return g < 3.0 ? g - twop : 0.0; }
inline double border_value(double g, double p) { return g < 3.0 ? (g - p) - p : 0.0; }

inline const double* decoded(const double* decode, std::int8_t byte) {
    return decode + 4 * static_cast<std::uint8_t>(byte);
}

// The byte 11 10 01 00: its decoded row is the value of each code.
constexpr std::int8_t code_sequence = static_cast<std::int8_t>(0xE4);

// Whether the tile of SNPs [s, s + 4) of row block rb is whole.
inline bool t_tile_full(const comp_t_task& t, std::int64_t rb, std::int64_t s) {
    return (rb + 1) * t_rows <= t.m && s + 4 <= t.k;
}

// One SNP row of a row block by the border form into out[0 .. 31]: byte
// columns beyond the last give 0.
inline void expand_t_border(const comp_t_task& t, std::int64_t rb, std::int64_t s, double* out) {
    const double p = t.freq[s];
    const std::int64_t byte0 = rb * (t_rows / 4);
    for (std::int64_t bb = 0; bb < t_rows / 4; ++bb) {
        if (byte0 + bb < t.nbytes) {
            const double* g = decoded(t.decode, t.ival[(byte0 + bb) * t.lda + s]);
            for (int q = 0; q < 4; ++q) out[4 * bb + q] = border_value(g[q], p);
        } else {
            for (int q = 0; q < 4; ++q) out[4 * bb + q] = 0.0;
        }
    }
}

// Whether the tile of SNP block sb and byte columns [bt, bt + 8) is whole.
inline bool n_tile_full(const comp_n_task& t, std::int64_t sb, std::int64_t bt) {
    return (sb + 1) * n_snps <= t.m && bt + n_tile_bytes <= t.nbytes;
}

// A tile of the plain product by the border form: panel row of byte b
// (relative to b0) holds 8 SNPs x 4 positions; SNPs beyond the last give 0.
inline void expand_n_border(const comp_n_task& t, std::int64_t sb, std::int64_t bt,
                            std::int64_t b0, std::int64_t bend, double* panel) {
    for (std::int64_t b = bt; b < bend; ++b) {
        double* out = panel + (b - b0) * n_snps * 4;
        for (std::int64_t ls = 0; ls < n_snps; ++ls) {
            const std::int64_t s = sb * n_snps + ls;
            if (s < t.m) {
                const double p = t.freq[s];
                const double* g = decoded(t.decode, t.ival[b * t.lda + s]);
                for (int q = 0; q < 4; ++q) out[4 * ls + q] = border_value(g[q], p);
            } else {
                for (int q = 0; q < 4; ++q) out[4 * ls + q] = 0.0;
            }
        }
    }
}

// Individuals [4 b, 4 b + present) of byte column b; SNPs from s0 on, one
// value at a time.
inline void expand_border(const expand_task& t, std::int64_t b, std::int64_t s0) {
    const std::int8_t* x = t.ival + b * t.lda;
    const std::int64_t present = t.nind - 4 * b < 4 ? t.nind - 4 * b : 4;
    for (std::int64_t q = 0; q < present; ++q) {
        const std::int64_t i = 4 * b + q;
        const double scale = t.scale ? t.scale[i] : 1.0;
        double* out = t.z + i * t.ldz;
        for (std::int64_t s = s0; s < t.nsnp; ++s)
            out[s] = border_value(decoded(t.decode, x[s])[q], t.freq[s]) * scale;
    }
}

// Runs pass(std::integral_constant<int, nc>, j) over the columns [0, n): in
// passes of NC columns, then one pass of the columns left over. Every column
// sees the same multiply-adds however the columns are grouped.
template <int NC, class Pass>
inline void column_passes(std::int64_t n, Pass pass) {
    std::int64_t j = 0;
    for (; j + NC <= n; j += NC) pass(std::integral_constant<int, NC>{}, j);
    if constexpr (NC > 1) {
        if (n - j > 0) column_passes<NC - 1>(n - j, [&](auto nc, std::int64_t jj) { pass(nc, j + jj); });
    }
}

// The loop drivers of a vector kernel set. V names the vector type and the
// few operations that differ between instruction sets:
//   vec, width                    the vector and its reals;
//   t_columns, n_columns          columns of B per pass of the transposed and
//                                 the plain product (the sums of one pass stay
//                                 in registers);
//   load, loadu, store, storeu, set1, mul, fmadd;
//   broadcast(x)                  *x in every lane;
//   decoded_bytes(decode, x, d)   the decoded genotypes of the width / 4 bytes
//                                 x[0], x[d], x[2 d], ...;
//   twice_freqs(f)                2 f[0], 2 f[1], ... of width / 4 SNPs, each
//                                 over the four positions of its byte;
//   byte_rows(b)                  b[0 .. 3], the rows of B of the individuals
//                                 of one byte, over the width / 4 SNPs;
//   centre(g, twop)               the fast form: g - 2p, 0 where missing;
//   centre_border(g, p)           the border form: (g - p) - p, 0 where missing;
//   code_table, code_shift(q), genotypes(table, x, shift)
//                                 the genotypes of width SNPs at individual q
//                                 of the bytes x[0 .. width - 1], looked up in
//                                 a table made of the decoded row that lists
//                                 every code.
// The order of the multiply-adds of each sum is the same for every V and the
// portable set: over the SNPs (or bytes) in turn, from the sum held in ctmp.
template <class V>
struct tile_loops {
    using vec = typename V::vec;
    static constexpr int w = V::width;
    // Vectors in one SNP row of a row block, and in one byte of a SNP block.
    static constexpr int row_vectors = t_rows / w;
    static_assert(n_snps * 4 / w == row_vectors);
    // A pass of the multiply-adds covers four vectors of a row: the rows of
    // a row block (SNP lanes of a SNP block) fall into this many parts.
    static constexpr int parts = row_vectors / 4;

    static void expand_t(const comp_t_task& t, std::int64_t rb, std::int64_t s0, std::int64_t s1, double* panel) {
        const std::int64_t byte0 = rb * (t_rows / 4);
        for (std::int64_t sub = s0; sub < s1; sub += 4) {
            if (!t_tile_full(t, rb, sub)) {
                const std::int64_t send = sub + 4 < s1 ? sub + 4 : s1;
                for (std::int64_t s = sub; s < send; ++s) expand_t_border(t, rb, s, panel + (s - s0) * t_rows);
                continue;
            }
            for (std::int64_t s = sub; s < sub + 4; ++s) {
                const vec twop = V::set1(2.0 * t.freq[s]);
                const std::int8_t* x = t.ival + byte0 * t.lda + s;
                double* out = panel + (s - s0) * t_rows;
#pragma GCC unroll 8
                for (int v = 0; v < row_vectors; ++v)
                    V::store(out + w * v, V::centre(V::decoded_bytes(t.decode, x + v * (w / 4) * t.lda, t.lda), twop));
            }
        }
    }

    // The sums of a pass from ctmp and back: column jc, vector v at
    // c + jc * stride + w * v.
    template <int NC>
    static void load_sums(vec (&acc)[NC][4], const double* c, std::int64_t stride) {
#pragma GCC unroll 4
        for (int jc = 0; jc < NC; ++jc)
#pragma GCC unroll 4
            for (int v = 0; v < 4; ++v) acc[jc][v] = V::loadu(c + jc * stride + w * v);
    }
    template <int NC>
    static void store_sums(const vec (&acc)[NC][4], double* c, std::int64_t stride) {
#pragma GCC unroll 4
        for (int jc = 0; jc < NC; ++jc)
#pragma GCC unroll 4
            for (int v = 0; v < 4; ++v) V::storeu(c + jc * stride + w * v, acc[jc][v]);
    }

    // One part of the rows of a row block, columns [j, j + NC) += panel' B.
    template <int NC>
    static void t_pass(const double* panel, std::int64_t ns, const double* b, std::int64_t ldb, double* c) {
        vec acc[NC][4];
        load_sums<NC>(acc, c, t_rows);
        for (std::int64_t s = 0; s < ns; ++s) {
            const double* ps = panel + s * t_rows;
            const vec t0 = V::load(ps), t1 = V::load(ps + w);
            const vec t2 = V::load(ps + 2 * w), t3 = V::load(ps + 3 * w);
#pragma GCC unroll 4
            for (int jc = 0; jc < NC; ++jc) {
                const vec bj = V::broadcast(b + jc * ldb + s);
                acc[jc][0] = V::fmadd(t0, bj, acc[jc][0]);
                acc[jc][1] = V::fmadd(t1, bj, acc[jc][1]);
                acc[jc][2] = V::fmadd(t2, bj, acc[jc][2]);
                acc[jc][3] = V::fmadd(t3, bj, acc[jc][3]);
            }
        }
        store_sums<NC>(acc, c, t_rows);
    }

    static void comp_t(const comp_t_task& t, std::int64_t rb0, std::int64_t rb1, std::int64_t s0, std::int64_t s1) {
        alignas(64) double panel[t_chunk_snps * t_rows];
        const std::int64_t ns = s1 - s0;
        for (std::int64_t rb = rb0; rb < rb1; ++rb) {
            expand_t(t, rb, s0, s1, panel);
            const double* b = t.b + s0;
            for (int h = 0; h < parts; ++h) {
                const double* ph = panel + 4 * w * h;
                double* c = t.ctmp + rb * t.n * t_rows + 4 * w * h;
                column_passes<V::t_columns>(t.n, [&](auto nc, std::int64_t j) {
                    t_pass<decltype(nc)::value>(ph, ns, b + j * t.ldb, t.ldb, c + j * t_rows);
                });
            }
        }
    }

    static void expand_n(const comp_n_task& t, std::int64_t sb, std::int64_t bt, std::int64_t b0, std::int64_t bend,
                         double* panel) {
        if (!n_tile_full(t, sb, bt)) {
            expand_n_border(t, sb, bt, b0, bend, panel);
            return;
        }
        const std::int64_t s = sb * n_snps;
        vec twop[row_vectors];
        for (int v = 0; v < row_vectors; ++v) twop[v] = V::twice_freqs(t.freq + s + v * (w / 4));
        for (std::int64_t b = bt; b < bend; ++b) {
            const std::int8_t* x = t.ival + b * t.lda + s;
            double* out = panel + (b - b0) * n_snps * 4;
#pragma GCC unroll 8
            for (int v = 0; v < row_vectors; ++v)
                V::store(out + w * v, V::centre(V::decoded_bytes(t.decode, x + v * (w / 4), 1), twop[v]));
        }
    }

    // One part of the SNP lanes of a block, columns [j, j + NC), += panel x
    // bbuf over the bytes.
    template <int NC>
    static void n_pass(const double* panel, std::int64_t nb, const double* bbuf, std::int64_t ldbb, double* c,
                       std::int64_t cstride) {
        vec acc[NC][4];
        load_sums<NC>(acc, c, cstride);
        for (std::int64_t b = 0; b < nb; ++b) {
            const double* pb = panel + b * n_snps * 4;
            vec bj[NC];
#pragma GCC unroll 4
            for (int jc = 0; jc < NC; ++jc) bj[jc] = V::byte_rows(bbuf + jc * ldbb + 4 * b);
#pragma GCC unroll 4
            for (int v = 0; v < 4; ++v) {
                const vec tv = V::load(pb + w * v);
#pragma GCC unroll 4
                for (int jc = 0; jc < NC; ++jc) acc[jc][v] = V::fmadd(tv, bj[jc], acc[jc][v]);
            }
        }
        store_sums<NC>(acc, c, cstride);
    }

    static void comp_n(const comp_n_task& t, std::int64_t sb0, std::int64_t sb1, std::int64_t b0, std::int64_t b1,
                       const double* bbuf, std::int64_t ldbb) {
        alignas(64) double panel[n_chunk_bytes * n_snps * 4];
        const std::int64_t nb = b1 - b0;
        const std::int64_t cstride = t.mpad * 4;
        for (std::int64_t sb = sb0; sb < sb1; ++sb) {
            for (std::int64_t bt = b0; bt < b1; bt += n_tile_bytes)
                expand_n(t, sb, bt, b0, bt + n_tile_bytes < b1 ? bt + n_tile_bytes : b1, panel);
            for (int h = 0; h < parts; ++h) {
                const double* ph = panel + 4 * w * h;
                double* c = t.ctmp + sb * n_snps * 4 + 4 * w * h;
                column_passes<V::n_columns>(t.n, [&](auto nc, std::int64_t j) {
                    n_pass<decltype(nc)::value>(ph, nb, bbuf + j * ldbb, ldbb, c + j * cstride, cstride);
                });
            }
        }
    }

    // Whole vectors of SNPs, then the SNPs left one value at a time.
    static void expand(const expand_task& t, std::int64_t b0, std::int64_t b1) {
        const typename V::code_table table(decoded(t.decode, code_sequence));
        const std::int64_t vec_end = t.nsnp / w * w;
        for (std::int64_t b = b0; b < b1; ++b) {
            const std::int8_t* x = t.ival + b * t.lda;
            const std::int64_t present = t.nind - 4 * b < 4 ? t.nind - 4 * b : 4;
            for (std::int64_t q = 0; q < present; ++q) {
                const std::int64_t i = 4 * b + q;
                const vec scale = V::set1(t.scale ? t.scale[i] : 1.0);
                const auto shift = V::code_shift(q);
                double* out = t.z + i * t.ldz;
                for (std::int64_t s = 0; s < vec_end; s += w) {
                    const vec g = V::genotypes(table, x + s, shift);
                    V::storeu(out + s, V::mul(V::centre_border(g, V::loadu(t.freq + s)), scale));
                }
            }
            if (vec_end < t.nsnp) expand_border(t, b, vec_end);
        }
    }
};

}  // namespace
}  // namespace krel::genotype_kernels
