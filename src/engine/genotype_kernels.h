#pragma once
// Inner kernels of the products with packed genotypes. The products in
// engine/packed_genotype_products.cpp own the threads, the partition of the work and the
// working arrays; a kernel set does the expansion of tiles and the
// multiply-adds for one thread's share. Every set gives the same bits: the
// expansion forms and the order of the multiply-adds are fixed, only the
// width of the vectors differs.
#include <cstdint>

namespace krel::genotype_kernels {

// Individuals in a row block of the transposed product (8 bytes) and SNPs in
// a SNP block of the plain product.
inline constexpr std::int64_t t_rows = 32;
inline constexpr std::int64_t n_snps = 8;
// Byte columns of a tile of the plain product.
inline constexpr std::int64_t n_tile_bytes = 8;
// Most SNPs handed to one call of a transposed kernel, and most byte columns
// to one call of a plain kernel: the expanded genotypes of one block for
// such a call (32 KiB) stay in the first-level cache while every column of B
// passes over them.
inline constexpr std::int64_t t_chunk_snps = 128;
inline constexpr std::int64_t n_chunk_bytes = 128;

// C (m individuals x n) = Z' B, Z the centred genotypes (k SNPs x m).
// ctmp holds the sums by row blocks: block rb, column j, row i of the block
// at ctmp[(rb * n + j) * t_rows + i].
struct comp_t_task {
    const double* decode;  // 256 x 4 decoded genotypes, by unsigned byte
    const std::int8_t* ival;
    std::int64_t lda;
    const double* freq;
    std::int64_t m;
    std::int64_t k;
    std::int64_t nbytes;
    const double* b;
    std::int64_t ldb;
    std::int64_t n;
    double* ctmp;
};
// Adds the SNPs [s0, s1) to the row blocks [rb0, rb1). s0 is a multiple of 4.
using comp_t_kernel = void (*)(const comp_t_task& task, std::int64_t rb0, std::int64_t rb1,
                               std::int64_t s0, std::int64_t s1);

// C (m SNPs x n) = Z B, Z the centred genotypes (m SNPs x k individuals).
// ctmp holds four partial sums per element, one for each position within a
// byte: lane q of SNP s, column j at ctmp[(j * mpad + s) * 4 + q], mpad the
// SNPs rounded up to whole blocks.
struct comp_n_task {
    const double* decode;
    const std::int8_t* ival;
    std::int64_t lda;
    const double* freq;
    std::int64_t m;
    std::int64_t nbytes;
    std::int64_t n;
    double* ctmp;
    std::int64_t mpad;
};
// Adds the byte columns [b0, b1) to the SNP blocks [sb0, sb1). b0 is a
// multiple of n_tile_bytes. bbuf holds the rows 4 b0 .. 4 b1 - 1 of B, zero
// beyond k, column j at bbuf + j * ldbb.
using comp_n_kernel = void (*)(const comp_n_task& task, std::int64_t sb0, std::int64_t sb1,
                               std::int64_t b0, std::int64_t b1, const double* bbuf,
                               std::int64_t ldbb);

// Z expanded by the border form, column i (individual i, from 0) at
// z + i * ldz, times scale[i] when scale is given.
struct expand_task {
    const double* decode;
    const std::int8_t* ival;
    std::int64_t lda;
    const double* freq;
    std::int64_t nsnp;
    std::int64_t nind;
    const double* scale;
    double* z;
    std::int64_t ldz;
};
// Expands the individuals of the byte columns [b0, b1).
using expand_kernel = void (*)(const expand_task& task, std::int64_t b0, std::int64_t b1);

struct kernel_set {
    const char* name;
    comp_t_kernel comp_t;
    comp_n_kernel comp_n;
    expand_kernel expand;
};

// Plain C++, for any processor.
const kernel_set& portable_kernels();
// AVX2 with FMA, and AVX-512; null when the processor lacks the instructions.
const kernel_set* avx2_kernels();
const kernel_set* avx512_kernels();

}  // namespace krel::genotype_kernels
