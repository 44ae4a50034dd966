#pragma once
// Readers of the solution files of the evaluation suites: PEV, reliabilities
// and estimated SNP effects.
#include <cstdint>
#include <string>

#include "util/dense_matrix.h"

namespace krel {

// Five-column solution file (trait, effect, level, original identity,
// value): values of `effect` go to array(level, trait); with use_column_4 the
// fourth column is the level. Returns the number of values stored.
std::int64_t readsol(const std::string& file, std::int32_t effect, dmatrix& array, bool use_column_4 = false);
// Wide solution file: level, two unused columns, one value per trait.
void readsol_tarnelo(const std::string& file, dmatrix& array);
// Six-column solution file behind one header record: trait, unused, level,
// effect, value, unused.
void readsol_tarnelo_reg(const std::string& file, std::int32_t effect, dmatrix& array);

}  // namespace krel
