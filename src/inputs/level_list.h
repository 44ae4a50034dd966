#pragma once
// Lists of pedigree levels, one a record: the reference animals (--ref) and
// the animals with phenotypes (--pheno).
#include <cstdint>
#include <string>
#include <vector>

namespace krel {

// Reads until a record does not start with an integer (with a warning when
// lines are left); a level outside 1 to maxlevel stops the run. module and
// routine name the caller in the messages.
std::vector<std::int32_t> read_level_list(const std::string& file, std::int32_t maxlevel, const char* module,
                                          const char* routine);

}  // namespace krel
