// The portable kernel set: the same expansion and the same order of
// multiply-adds as the vector sets, one value at a time.
#include <cmath>

#include "engine/genotype_kernels.h"
#include "engine/genotype_kernels_loops.h"

namespace krel::genotype_kernels {

namespace {

void expand_t(const comp_t_task& t, std::int64_t rb, std::int64_t s0, std::int64_t s1, double* panel) {
    for (std::int64_t sub = s0; sub < s1; sub += 4) {
        const bool full = t_tile_full(t, rb, sub);
        const std::int64_t send = sub + 4 < s1 ? sub + 4 : s1;
        for (std::int64_t s = sub; s < send; ++s) {
            double* out = panel + (s - s0) * t_rows;
            if (!full) {
                expand_t_border(t, rb, s, out);
                continue;
            }
            const double twop = 2.0 * t.freq[s];
            const std::int64_t byte0 = rb * (t_rows / 4);
            for (std::int64_t bb = 0; bb < t_rows / 4; ++bb) {
                const double* g = decoded(t.decode, t.ival[(byte0 + bb) * t.lda + s]);
                for (int q = 0; q < 4; ++q) out[4 * bb + q] = fast_value(g[q], twop);
            }
        }
    }
}

void comp_t(const comp_t_task& t, std::int64_t rb0, std::int64_t rb1, std::int64_t s0, std::int64_t s1) {
    double panel[t_chunk_snps * t_rows];
    for (std::int64_t rb = rb0; rb < rb1; ++rb) {
        expand_t(t, rb, s0, s1, panel);
        for (std::int64_t j = 0; j < t.n; ++j) {
            double* c = t.ctmp + (rb * t.n + j) * t_rows;
            const double* b = t.b + j * t.ldb;
            for (std::int64_t i = 0; i < t_rows; ++i) {
                double acc = c[i];
                for (std::int64_t s = s0; s < s1; ++s) acc = std::fma(panel[(s - s0) * t_rows + i], b[s], acc);
                c[i] = acc;
            }
        }
    }
}

void expand_n(const comp_n_task& t, std::int64_t sb, std::int64_t bt, std::int64_t b0, std::int64_t bend,
              double* panel) {
    if (!n_tile_full(t, sb, bt)) {
        expand_n_border(t, sb, bt, b0, bend, panel);
        return;
    }
    for (std::int64_t b = bt; b < bend; ++b) {
        double* out = panel + (b - b0) * n_snps * 4;
        for (std::int64_t ls = 0; ls < n_snps; ++ls) {
            const std::int64_t s = sb * n_snps + ls;
            const double twop = 2.0 * t.freq[s];
            const double* g = decoded(t.decode, t.ival[b * t.lda + s]);
            for (int q = 0; q < 4; ++q) out[4 * ls + q] = fast_value(g[q], twop);
        }
    }
}

void comp_n(const comp_n_task& t, std::int64_t sb0, std::int64_t sb1, std::int64_t b0, std::int64_t b1,
            const double* bbuf, std::int64_t ldbb) {
    double panel[n_chunk_bytes * n_snps * 4];
    for (std::int64_t sb = sb0; sb < sb1; ++sb) {
        for (std::int64_t bt = b0; bt < b1; bt += n_tile_bytes)
            expand_n(t, sb, bt, b0, bt + n_tile_bytes < b1 ? bt + n_tile_bytes : b1, panel);
        for (std::int64_t j = 0; j < t.n; ++j) {
            double* c = t.ctmp + (j * t.mpad + sb * n_snps) * 4;
            const double* bj = bbuf + j * ldbb;
            for (std::int64_t lane = 0; lane < n_snps * 4; ++lane) {
                const std::int64_t q = lane % 4;
                double acc = c[lane];
                for (std::int64_t b = b0; b < b1; ++b)
                    acc = std::fma(panel[(b - b0) * n_snps * 4 + lane], bj[4 * (b - b0) + q], acc);
                c[lane] = acc;
            }
        }
    }
}

void expand(const expand_task& t, std::int64_t b0, std::int64_t b1) {
    for (std::int64_t b = b0; b < b1; ++b) expand_border(t, b, 0);
}

const kernel_set portable_set = {"portable", comp_t, comp_n, expand};

}  // namespace

const kernel_set& portable_kernels() { return portable_set; }

}  // namespace krel::genotype_kernels
