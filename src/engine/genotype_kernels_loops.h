#pragma once
// Pieces shared by every kernel set. Included by each kernel file after its
// choice of instructions, so each gets its own copy (anonymous namespace):
// no function compiled for wide vectors may be shared with plain code.
#include "engine/genotype_kernels.h"

namespace krel::genokernels {
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

}  // namespace
}  // namespace krel::genokernels
