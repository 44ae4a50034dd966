#pragma once
// Dense matrix operations on symmetric matrices: generalised and ordinary
// inverses, a Cholesky factor that tolerates dependencies, and a test for
// positive definiteness.
#include <cstdint>
#include <optional>

#include "util/dense_matrix.h"

namespace krel {

// Working zero of ginv1 used throughout the program.
inline constexpr double ginv1_default_tol = 1e-08;

// In-place generalised inverse of the symmetric matrix in the leading n x n
// block of a (column-major, leading dimension m >= n). Only the lower
// triangle of the block is read; the result is written to both triangles and
// nothing outside the block is touched.
//
// Pivots are taken in natural order without pivoting; a pivot below tol
// (after the elimination of the earlier ones) is dropped and rank is reduced
// by one. The result is the ordinary inverse of the submatrix of kept rows
// and columns, with zero rows and columns for the dropped ones. Of two
// identical rows the second one is dropped.
void ginv1(double* a, std::int32_t n, std::int32_t m, double tol, std::int32_t& rank);
// The same on the leading n x n block of a (m = a.rows()).
void ginv1(dmatrix& a, std::int32_t n, double tol, std::int32_t& rank);

// In-place inverse of the symmetric positive definite matrix in the leading
// n x n block of a (leading dimension lda), written to both triangles. Only
// the lower triangle is read. The LAPACK status is not examined: the caller
// guarantees positive definiteness.
void invsym(double* a, std::int32_t n, std::int32_t lda);
// The same on the whole of the square matrix a.
void invsym(dmatrix& a);

// Plain-loop versions of invsym (Cholesky factor, its inverse, the product),
// the yardstick for the LAPACK path in tests.
void invsym_reference(double* a, std::int32_t n, std::int32_t lda);
void invsym_reference(dmatrix& a);

// In-place lower Cholesky factor L of the square symmetric matrix a, computed
// row by row, that copes with singular matrices: a row whose diagonal is
// below 1e-08, or whose remaining pivot is below 1e-10 times its diagonal, is
// set to zero in L (row and column). L is written to the lower triangle and
// L' to the upper one. Only the lower triangle of a is read.
void chols8(dmatrix& a);

// True when no eigenvalue of the symmetric leading n x n block of a is below
// tol (default: the machine epsilon of double). Only the lower triangle is
// read; a is not changed. A LAPACK failure is logged and stops the run.
bool ispositive(const dmatrix& a, std::int32_t n, std::optional<double> tol = std::nullopt);

}  // namespace krel
