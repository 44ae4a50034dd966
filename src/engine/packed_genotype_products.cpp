#include "engine/packed_genotype_products.h"

#include <cblas.h>
#include <omp.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <iostream>
#include <string>
#include <vector>

#include "engine/genotype_kernels.h"
#include "inputs/plink_reader.h"
#include "util/error_stop.h"
#include "util/fortran_format.h"
#include "util/large_buffer.h"
#include "util/logger.h"

namespace krel {

namespace {

namespace gk = genotype_kernels;

constexpr std::string_view module_name = "modplink";

std::atomic<const gk::kernel_set*> chosen_kernels{nullptr};

const gk::kernel_set& best_kernels() {
    if (const auto* k = gk::avx512_kernels()) return *k;
    if (const auto* k = gk::avx2_kernels()) return *k;
    return gk::portable_kernels();
}

const gk::kernel_set& kernels() {
    const gk::kernel_set* k = chosen_kernels.load(std::memory_order_acquire);
    if (!k) {
        k = &best_kernels();
        chosen_kernels.store(k, std::memory_order_release);
    }
    return *k;
}

// The decoding table of the products: the four genotypes of every byte.
const double* decode_i1() { return pdecode_i1_wp()[0].data(); }

bool is_plain(std::string_view t) { return t == "n" || t == "N"; }
bool is_transposed(std::string_view t) { return t == "t" || t == "T"; }

[[noreturn]] void not_implemented(int line, std::string_view what) {
    std::cout << " ERROR (" << line << " " << module_name << "): " << what << std::endl;
    throw error_stop();
}

// Shapes that would make a kernel read or write outside the arrays are a
// slip of the caller; they are stopped before any work starts.
void check_shape(bool ok, const std::string& routine, std::int64_t m, std::int64_t n, std::int64_t k,
                 std::int64_t nbytes, std::int64_t lda, std::int64_t ldb, std::int64_t ldc) {
    if (ok) return;
    global_logger().log_error("Inconsistent dimensions: m = " + inttochar(m) + ", n = " + inttochar(n) +
                                  ", k = " + inttochar(k) + ", nbytes = " + inttochar(nbytes) +
                                  ", lda = " + inttochar(lda) + ", ldb = " + inttochar(ldb) +
                                  ", ldc = " + inttochar(ldc),
                              module_name, procedure_at(routine));
    throw error_stop();
}

// Contiguous share [first, last) of count items for the calling thread,
// as a static schedule hands them out.
void thread_share(std::int64_t count, std::int64_t& first, std::int64_t& last) {
    const std::int64_t threads = omp_get_num_threads();
    const std::int64_t t = omp_get_thread_num();
    first = count * t / threads;
    last = count * (t + 1) / threads;
}

double border_value(double g, double p) { return g < 3.0 ? (g - p) - p : 0.0; }

// The strict lower triangle of the n x n matrix c from its upper one.
void mirror_upper(std::int64_t n, double* c, std::int64_t ldc) {
    constexpr std::int64_t tile = 64;
#pragma omp parallel for schedule(dynamic, 1)
    for (std::int64_t j0 = 0; j0 < n; j0 += tile) {
        const std::int64_t j1 = std::min(n, j0 + tile);
        for (std::int64_t i0 = j0; i0 < n; i0 += tile) {
            const std::int64_t i1 = std::min(n, i0 + tile);
            for (std::int64_t j = j0; j < j1; ++j)
                for (std::int64_t i = std::max(i0, j + 1); i < i1; ++i) c[j * ldc + i] = c[i * ldc + j];
        }
    }
}

}  // namespace

bool select_genotype_kernels(std::string_view name) {
    const gk::kernel_set* k = nullptr;
    if (name == "portable")
        k = &gk::portable_kernels();
    else if (name == "avx2")
        k = gk::avx2_kernels();
    else if (name == "avx512")
        k = gk::avx512_kernels();
    if (!k) return false;
    chosen_kernels.store(k, std::memory_order_release);
    return true;
}

std::string_view genotype_kernels_in_use() { return kernels().name; }

void dgemm_compressed(std::string_view transa, std::string_view transb, std::int64_t m,
                      std::int64_t n, std::int64_t k, std::int64_t nbytes, double alpha,
                      const std::int8_t* a, const double* freq, std::int64_t lda, const double* b,
                      std::int64_t ldb, double beta, double* c, std::int64_t ldc) {
    if (is_plain(transa)) {
        dgemm_comp_n(transb, m, n, k, nbytes, alpha, a, freq, lda, b, ldb, beta, c, ldc);
    } else if (is_transposed(transa)) {
        dgemm_comp_t(transb, m, n, k, nbytes, alpha, a, freq, lda, b, ldb, beta, c, ldc);
    } else {
        global_logger().log_error("This type of transa is not implemented", module_name,
                                  procedure_at("dgemm_compressed"));
        throw error_stop();
    }
}

void dgemm_comp_t(std::string_view transb, std::int64_t m, std::int64_t n, std::int64_t k,
                  std::int64_t nbytes, double alpha, const std::int8_t* a, const double* freq,
                  std::int64_t lda, const double* b, std::int64_t ldb, double beta, double* c,
                  std::int64_t ldc) {
    if (!is_plain(transb)) not_implemented(__LINE__, "Not yet implemented for transposed matrix");
    if (alpha != 1.0) not_implemented(__LINE__, "Not yet implemented for alpha!=1");
    if (m <= 0 || n <= 0) return;
    check_shape(k >= 0 && 4 * nbytes >= m && lda >= std::max<std::int64_t>(k, 1) &&
                    ldb >= std::max<std::int64_t>(k, 1) && ldc >= m,
                "dgemm_comp_t", m, n, k, nbytes, lda, ldb, ldc);

    const gk::kernel_set& ks = kernels();
    const std::int64_t blocks = (m + gk::t_rows - 1) / gk::t_rows;
    // Whole row blocks, so that a last block of 32 can be written whole; a
    // thread owns the rows of its blocks.
    std::vector<double> ctmp(static_cast<std::size_t>(blocks * gk::t_rows * n), 0.0);
    const gk::comp_t_task task{decode_i1(), a, lda, freq, m, k, nbytes, b, ldb, n, ctmp.data()};
#pragma omp parallel
    {
        std::int64_t rb0 = 0, rb1 = 0;
        thread_share(blocks, rb0, rb1);
        if (rb0 < rb1)
            for (std::int64_t s0 = 0; s0 < k; s0 += gk::t_chunk_snps)
                ks.comp_t(task, rb0, rb1, s0, std::min(k, s0 + gk::t_chunk_snps));
    }

    for (std::int64_t j = 0; j < n; ++j) {
        double* cj = c + j * ldc;
        for (std::int64_t i = 0; i < m; ++i) {
            const double v = ctmp[static_cast<std::size_t>(((i / gk::t_rows) * n + j) * gk::t_rows + i % gk::t_rows)];
            cj[i] = beta == 0.0 ? v : std::fma(beta, cj[i], v);
        }
    }
}

void dgemm_comp_n(std::string_view transb, std::int64_t m, std::int64_t n, std::int64_t k,
                  std::int64_t nbytes, double alpha, const std::int8_t* a, const double* freq,
                  std::int64_t lda, const double* b, std::int64_t ldb, double beta, double* c,
                  std::int64_t ldc) {
    if (!is_plain(transb)) not_implemented(__LINE__, "Not yet implemented for transposed matrix");
    if (alpha != 1.0) not_implemented(__LINE__, "Not yet implemented for alpha!=1");
    if (m <= 0 || n <= 0) return;
    check_shape(k >= 0 && 4 * nbytes >= k && lda >= m && ldb >= std::max<std::int64_t>(k, 1) && ldc >= m,
                "dgemm_comp_n", m, n, k, nbytes, lda, ldb, ldc);

    const gk::kernel_set& ks = kernels();
    const std::int64_t blocks = (m + gk::n_snps - 1) / gk::n_snps;
    const std::int64_t mpad = blocks * gk::n_snps;
    // Only the bytes that hold individuals count; padding rows of B are 0.
    const std::int64_t bytes = std::min(nbytes, (k + 3) / 4);
    std::vector<double> ctmp(static_cast<std::size_t>(4 * mpad * n), 0.0);
    const gk::comp_n_task task{decode_i1(), a, lda, freq, m, bytes, n, ctmp.data(), mpad};
    // Each thread's copy of the rows of B for the bytes at hand, zero behind
    // the last individual; allocated here, where a failure can be reported.
    const std::int64_t ldbb = 4 * gk::n_chunk_bytes;
    std::vector<double> bbufs(static_cast<std::size_t>(omp_get_max_threads() * ldbb * n));
#pragma omp parallel
    {
        std::int64_t sb0 = 0, sb1 = 0;
        thread_share(blocks, sb0, sb1);
        double* bbuf = bbufs.data() + omp_get_thread_num() * ldbb * n;
        for (std::int64_t b0 = 0; b0 < bytes && sb0 < sb1; b0 += gk::n_chunk_bytes) {
            const std::int64_t b1 = std::min(bytes, b0 + gk::n_chunk_bytes);
            const std::int64_t r0 = 4 * b0, r1 = 4 * b1, rk = std::min(r1, k);
            for (std::int64_t j = 0; j < n; ++j) {
                double* dst = bbuf + j * ldbb;
                std::copy(b + j * ldb + r0, b + j * ldb + rk, dst);
                std::fill(dst + (rk - r0), dst + (r1 - r0), 0.0);
            }
            ks.comp_n(task, sb0, sb1, b0, b1, bbuf, ldbb);
        }
    }

    for (std::int64_t j = 0; j < n; ++j) {
        double* cj = c + j * ldc;
        const double* lanes = ctmp.data() + j * mpad * 4;
        for (std::int64_t s = 0; s < m; ++s) {
            const double* l = lanes + 4 * s;
            const double sum = ((l[0] + l[1]) + l[2]) + l[3];
            cj[s] = beta == 0.0 ? sum : std::fma(beta, cj[s], sum);
        }
    }
}

void dgemm_zrz(std::int64_t nind, std::int64_t nsnp, std::int64_t nbytes, const std::int8_t* ival,
               const double* freq, const double* r, double* c, std::int64_t ldc) {
    global_logger().log_information("Number of columns (SNPs): " + inttochar(zrz_panel_snps));
    if (nsnp <= 0) return;
    const decode_table& table = pdecode_i1_wp();
    std::vector<double> ypanel(static_cast<std::size_t>(std::max<std::int64_t>(nind, 1) * zrz_panel_snps), 0.0);
    std::vector<double> cpanel(static_cast<std::size_t>(nsnp * zrz_panel_snps), 0.0);
    const std::int64_t ldy = std::max<std::int64_t>(nind, 1);
    const std::int64_t full_bytes = std::min(nbytes, nind / 4);

    for (std::int64_t p0 = 0; p0 < nsnp; p0 += zrz_panel_snps) {
        const std::int64_t width = std::min(zrz_panel_snps, nsnp - p0);
        // Rows of Z times r, by the border form; the last byte column
        // through a buffer of four of which only the individuals are kept.
        for (std::int64_t b = 0; b < full_bytes; ++b) {
            const std::int8_t* x = ival + b * nsnp + p0;
            for (std::int64_t col = 0; col < width; ++col) {
                const auto& g = table[static_cast<std::uint8_t>(x[col])];
                const double p = freq[p0 + col];
                double* y = ypanel.data() + col * ldy + 4 * b;
                for (int q = 0; q < 4; ++q) y[q] = border_value(g[static_cast<std::size_t>(q)], p) * r[4 * b + q];
            }
        }
        for (std::int64_t b = full_bytes; b < nbytes && 4 * b < nind; ++b) {
            for (std::int64_t col = 0; col < width; ++col) {
                const auto& g = table[static_cast<std::uint8_t>(ival[b * nsnp + p0 + col])];
                const double p = freq[p0 + col];
                double buffer[4];
                for (int q = 0; q < 4; ++q) buffer[q] = border_value(g[static_cast<std::size_t>(q)], p);
                for (std::int64_t i = 4 * b; i < nind; ++i)
                    ypanel[static_cast<std::size_t>(col * ldy + i)] = buffer[i - 4 * b] * r[i];
            }
        }
        // Only the rows down to the panel's last SNP: the rest of the
        // column is the transpose of rows that later panels give.
        const std::int64_t rows = p0 + width;
        dgemm_compressed("n", "n", rows, width, nind, nbytes, 1.0, ival, freq, nsnp, ypanel.data(), ldy,
                         0.0, cpanel.data(), rows);
        for (std::int64_t col = 0; col < width; ++col)
            std::copy(cpanel.data() + col * rows, cpanel.data() + (col + 1) * rows, c + (p0 + col) * ldc);
    }
    mirror_upper(nsnp, c, ldc);
}

void dgemm_zrz_mkl(std::int64_t nind, std::int64_t nsnp, std::int64_t nbytes,
                   const std::int8_t* ival, const double* freq, const double* r, double* c,
                   std::int64_t ldc) {
    if (nsnp <= 0) return;
    check_shape(4 * nbytes >= nind && ldc >= nsnp, "dgemm_zrz_mkl", nsnp, nsnp, nind, nbytes, nsnp, nind, ldc);
    std::vector<double> scale(static_cast<std::size_t>(nind));
    for (std::size_t i = 0; i < scale.size(); ++i) scale[i] = std::sqrt(r[i]);
    large_buffer zdense(static_cast<std::size_t>(nsnp * nind) * sizeof(double));
    double* z = static_cast<double*>(zdense.data());
    expand_genotypes(ival, nsnp, nsnp, freq, nind, scale.data(), z, nsnp);
    // Z Z' is symmetric: the rank-k update computes one triangle, at half
    // the work of the general product, and the other is copied.
    cblas_dsyrk(CblasColMajor, CblasUpper, CblasNoTrans, static_cast<int>(nsnp), static_cast<int>(nind), 1.0, z,
                static_cast<int>(nsnp), 0.0, c, static_cast<int>(ldc));
    mirror_upper(nsnp, c, ldc);
}

void expand_genotypes(const std::int8_t* ival, std::int64_t lda, std::int64_t nsnp, const double* freq,
                      std::int64_t nind, const double* scale, double* z, std::int64_t ldz) {
    if (nsnp <= 0 || nind <= 0) return;
    const gk::kernel_set& ks = kernels();
    const gk::expand_task task{decode_i1(), ival, lda, freq, nsnp, nind, scale, z, ldz};
    const std::int64_t bytes = (nind + 3) / 4;
#pragma omp parallel
    {
        std::int64_t b0 = 0, b1 = 0;
        thread_share(bytes, b0, b1);
        if (b0 < b1) ks.expand(task, b0, b1);
    }
}

void dgemm_compressed_reference(std::string_view transa, std::int64_t m, std::int64_t n,
                                std::int64_t k, const std::int8_t* a, const double* freq,
                                std::int64_t lda, const double* b, std::int64_t ldb, double beta,
                                double* c, std::int64_t ldc) {
    const bool plain = is_plain(transa);
    const std::int64_t nsnp = plain ? m : k;
    const std::int64_t nind = plain ? k : m;
    std::vector<double> z(static_cast<std::size_t>(std::max<std::int64_t>(nsnp * nind, 1)));
    decompress_bed_snpmajor_real8(a, lda, nsnp, freq, nind, z.data(), std::max<std::int64_t>(nsnp, 1));
    cblas_dgemm(CblasColMajor, plain ? CblasNoTrans : CblasTrans, CblasNoTrans, static_cast<int>(m),
                static_cast<int>(n), static_cast<int>(k), 1.0, z.data(), static_cast<int>(std::max<std::int64_t>(nsnp, 1)),
                b, static_cast<int>(ldb), beta, c, static_cast<int>(ldc));
}

}  // namespace krel
