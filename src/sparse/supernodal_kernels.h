#pragma once
// Supernodes and the numeric kernels of the selected inversion: a
// right-looking supernodal Cholesky factorisation on dense blocks and the
// supernodal recursion that overwrites the factor by the elements of the
// inverse that lie on its pattern, and the tolerant triangular solve that
// lets a dropped column through.
//
// The factor is held in the compressed column storage of smbfct (see
// sparse/selected_inverse.h). All arrays are passed as 0-based spans of 1-based
// values: xlnz[j - 1] is the first position of column j, and the subscript
// of position k of column j is nzsub[xnzsub[j - 1] + k - xlnz[j - 1] - 1].
//
// inode holds the supernode boundaries in descending order: inode(1) is
// neqns, inode(nnode + 1) is 0, and supernode s is the columns
// inode(s + 1) + 1 to inode(s). Supernode 1 therefore holds the last
// columns. inode always has room for neqns + 1 entries, so that every node
// can be split into single columns.
#include <cstdint>
#include <span>

namespace krel {

// A pivot at or below this is singular: its column is dropped from the
// factor, and its row and column of the inverse are zero.
inline constexpr double spainv_zero = 1e-08;

// The supernodes, found from the last column backward: a column joins the
// block to its right while its structure holds every column of that block,
// or while the block is narrower than minsizenode (its missing elements are
// then explicit zeros of the dense block). On return minsizenode holds the
// smallest width of a closed node (1073741824 when there is none) and
// maxnode the largest; the first node's width enters neither.
void super_nodes(std::int32_t& minsizenode, std::int32_t neqns,
                 std::span<const std::int32_t> xlnz, std::span<const std::int32_t> xnzsub,
                 std::span<const std::int32_t> nzsub, std::int32_t& nnode,
                 std::span<std::int32_t> inode, std::int32_t& maxnode);

// Node s of width nb becomes nb nodes of one column each.
void split_inode(std::span<std::int32_t> inode, std::int32_t& nnode, std::int32_t s);

// Right-looking supernodal Cholesky factorisation of the matrix in diag and
// xspars, in place: diag receives the diagonal of L, xspars its strict
// lower part. A singular pivot drops its column: a node whose columns hold
// one at the start, or on which DPOTRF fails, is worked column by column,
// and a single column with a pivot at most spainv_zero is set to zero. A
// final pass zeroes the rows of the dropped columns too, so that the result
// is a generalised factor. nnode and inode come back with the splits; rank,
// when given, receives the number of columns factored. " Cholesky
// factorization..." and a progress bar go to the standard output.
void super_gsfct(std::int32_t neqns, std::span<const std::int32_t> xlnz, std::span<double> xspars,
                 std::span<const std::int32_t> xnzsub, std::span<const std::int32_t> nzsub,
                 std::span<double> diag, std::int32_t& nnode, std::span<std::int32_t> inode,
                 std::int32_t* rank = nullptr);

// Overwrites the factor left by super_gsfct by the elements of the inverse
// of the (permuted) matrix on the pattern of the factor, from the last
// columns to the first. " Sparse inversion..." and a progress bar go to the
// standard output; a failure of DPOTRI writes its code there and stops the
// run.
//
// The product of a node's rows with the part of the inverse already known
// runs on dense copies of that part, S, a panel of columns at a time. When
// such a panel cannot be had, or would hold more than max_s_elements
// (negative: no limit but the memory), the product is accumulated row by
// row without S.
void super_sparsinv(std::int32_t neqns, std::span<const std::int32_t> xlnz,
                    std::span<double> xspars, std::span<const std::int32_t> xnzsub,
                    std::span<const std::int32_t> nzsub, std::span<double> diag,
                    std::int32_t nnode, std::span<const std::int32_t> inode,
                    std::int64_t max_s_elements = -1);

// DTRSM (column-major, leading dimensions as in BLAS), argument checks
// included, except that where it forms the reciprocal of a non-unit pivot p
// it takes 0.0 when p is at most 1e-10: a singular pivot zeroes its part of
// the solution instead of filling it with infinities. The reciprocal is
// formed by the forms with A on the right; those with A on the left divide
// by the pivot, as DTRSM does. An illegal argument writes its number on the
// standard output and stops the run.
void dgtrsm(char side, char uplo, char transa, char diag, std::int32_t m, std::int32_t n,
            double alpha, const double* a, std::int32_t lda, double* b, std::int32_t ldb);

}  // namespace krel
