#pragma once
// Readers shared by the applications of the suite.
#include <cstdint>
#include <string>
#include <vector>

namespace krel {

// Allele frequencies of text genotypes: one SNP a record, an integer (not
// used) and the frequency. The word "compute" stands for no file: then n and
// freq are left as they are. Otherwise n is the number of records and freq
// their frequencies in file order.
void readfrequency(const std::string& file, std::int32_t& n, std::vector<double>& freq);

}  // namespace krel
