#pragma once
// Small numerical and system helpers shared by the whole program: index
// sorting, sample statistics, diagonal and identity matrices, the normal
// distribution function in quadruple precision, directory creation and case
// folding.
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

namespace krel {

class dmatrix;

// Sorts the keys in place, ascending, keeping equal keys in their original
// order, and returns the 0-based original position of every sorted key:
// after the call keys[k] == original[index[k]].
std::vector<std::int64_t> sort_index(std::span<std::int64_t> keys);

// Arithmetic mean; NaN for an empty sample.
double mean(std::span<const double> x);

// Sample variance with divisor N-1 (the unbiased estimate); NaN for fewer
// than two values, where it is not defined.
double var(std::span<const double> x);

// The n x n column-major matrix with v on its diagonal.
std::vector<double> diag(std::span<const double> v);
// The diagonal of a column-major nrow x ncol matrix (min(nrow, ncol)
// values). Throws std::invalid_argument when a does not hold nrow*ncol values.
std::vector<double> diag(std::span<const double> a, std::size_t nrow, std::size_t ncol);

// The same two for the dense matrix type: a is reshaped to n x n with v on
// its diagonal; the diagonal of a has min(rows, cols) values.
void diag(std::span<const double> v, dmatrix& a);
std::vector<double> diag(const dmatrix& a);

// The n x n column-major identity matrix.
std::vector<double> eye(std::size_t n);

// Normal distribution function. Quadruple precision keeps the far tails
// (x = -40 and beyond) distinguishable from zero.
__float128 cdf_norm(__float128 x, __float128 loc = 0, __float128 scale = 1);

// Creates the directory and any missing parents. Returns true when the
// directory exists afterwards (an existing one is fine); otherwise false with
// the reason in ec.
bool make_directory_all(const std::string& path, std::error_code& ec);

// ASCII lower case; other bytes are left alone.
std::string to_lower(std::string_view text);

// The text without leading and trailing blanks, tabs and line ends.
std::string_view trim(std::string_view text);

}  // namespace krel
