#pragma once
// Data structures shared by the computations and their output routines.
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "util/dense_matrix.h"

namespace krel {

// A dense symmetric matrix of order n together with the identifier of the
// record behind each of its rows (and columns).
struct densesquare_type {
    std::int32_t n = 0;
    std::vector<std::int32_t> ids;  // length n
    dmatrix a;                      // n x n

    // Writes the matrix to filename, replacing the file. Format "tri" (or
    // "_tri") is the upper triangle as text: a line with n and 0, a line with
    // the identifiers, then line i with a(1..i, i). An unknown format is
    // logged and nothing is written; a file that cannot be written is logged
    // and stops the run.
    void write_densesquare(const std::string& filename, std::string_view format) const;
};

}  // namespace krel
