#pragma once
// Dense products in which one factor is the centred genotype matrix Z (nsnp
// x nind, z = g - 2p, missing 0), held only in packed 2-bit form (see
// inputs/plink_reader.h). Z is never expanded as a whole: each thread expands
// small tiles, uses them at once and drops them.
//
// All matrices are column-major with leading dimensions as in BLAS; the
// packed array ival is nsnp x nbytes with leading dimension lda. Every
// result element is summed by one thread in a fixed order, so results do
// not depend on the number of threads.
#include <cstdint>
#include <string_view>

namespace krel {

// transa "n": C (m x n) = alpha Z B + beta C, with m = nsnp, k = nind.
// transa "t": C (m x n) = alpha Z' B + beta C, with m = nind, k = nsnp.
// Only transb "n" and alpha 1 are implemented. beta 0 overwrites C.
void dgemm_compressed(std::string_view transa, std::string_view transb, std::int64_t m,
                      std::int64_t n, std::int64_t k, std::int64_t nbytes, double alpha,
                      const std::int8_t* a, const double* freq, std::int64_t lda, const double* b,
                      std::int64_t ldb, double beta, double* c, std::int64_t ldc);

// The two forms of dgemm_compressed, with its arguments.
void dgemm_comp_t(std::string_view transb, std::int64_t m, std::int64_t n, std::int64_t k,
                  std::int64_t nbytes, double alpha, const std::int8_t* a, const double* freq,
                  std::int64_t lda, const double* b, std::int64_t ldb, double beta, double* c,
                  std::int64_t ldc);
void dgemm_comp_n(std::string_view transb, std::int64_t m, std::int64_t n, std::int64_t k,
                  std::int64_t nbytes, double alpha, const std::int8_t* a, const double* freq,
                  std::int64_t lda, const double* b, std::int64_t ldb, double beta, double* c,
                  std::int64_t ldc);

// C (nsnp x nsnp, leading dimension ldc) = Z diag(r) Z', r one weight per
// individual; ival has leading dimension nsnp. The low-memory form works in
// panels of 32 SNPs and needs nind x 32 plus nsnp x 32 reals beyond C.
void dgemm_zrz(std::int64_t nind, std::int64_t nsnp, std::int64_t nbytes, const std::int8_t* ival,
               const double* freq, const double* r, double* c, std::int64_t ldc);
// The fast form: Z expanded once (8 nsnp nind bytes) and scaled by the
// square roots of r, then one symmetric product. r must be non-negative.
void dgemm_zrz_mkl(std::int64_t nind, std::int64_t nsnp, std::int64_t nbytes,
                   const std::int8_t* ival, const double* freq, const double* r, double* c,
                   std::int64_t ldc);

// The centred genotypes (g - p) - p, missing 0, of the first nind
// individuals as nsnp x nind reals: individual i in column i of z (leading
// dimension ldz), multiplied by scale[i] when scale is given. Threaded over
// byte columns.
void expand_genotypes(const std::int8_t* ival, std::int64_t lda, std::int64_t nsnp, const double* freq,
                      std::int64_t nind, const double* scale, double* z, std::int64_t ldz);

// SNPs in a panel of dgemm_zrz.
inline constexpr std::int64_t zrz_panel_snps = 32;

// The same product as dgemm_compressed, by expanding Z with
// decompress_bed_snpmajor_real8 and one DGEMM: the plain version that the
// tiled kernels are checked against.
void dgemm_compressed_reference(std::string_view transa, std::int64_t m, std::int64_t n,
                                std::int64_t k, const std::int8_t* a, const double* freq,
                                std::int64_t lda, const double* b, std::int64_t ldb, double beta,
                                double* c, std::int64_t ldc);

// The kernel set that the products use: "avx512", "avx2" or "portable". The
// best one the processor runs is chosen on first use; tests and benchmarks
// may choose another. Returns false (and changes nothing) when the
// processor cannot run the set named.
bool select_genotype_kernels(std::string_view name);
std::string_view genotype_kernels_in_use();

}  // namespace krel
