#pragma once
// Variance components of the model: heritabilities, genetic and residual
// (co)variance matrices, and their listing in the log.
#include <cstdint>
#include <string>
#include <vector>

#include "util/dense_matrix.h"

namespace krel {

// One heritability per record, until a record does not read as a real.
// h2 is 1-based (h2[0] unused); n is the count.
void readh2(const std::string& file, std::int32_t& n, std::vector<double>& h2);

// ntrait records, record t holding row t of the matrix up to the diagonal;
// the upper triangle is mirrored. gvar is ntrait by ntrait.
void readgf(const std::string& file, std::int32_t effect, std::int32_t ntrait, dmatrix& gvar);

// Records of class, row, then the row's values up to the diagonal. rmat is
// indexed by class (rmat[0] unused), each ntrait by ntrait. With ntrait 0 on
// entry the number of traits is the highest row in the file.
void readrf(const std::string& file, std::int32_t& ntrait, std::vector<dmatrix>& rmat);

// Logs the n by m block a under the headings of a (co)variance listing.
void writeg(const dmatrix& a, std::int32_t n, std::int32_t m, const std::string& title,
            std::int32_t effect = 1);

}  // namespace krel
