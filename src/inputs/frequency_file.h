#pragma once
// Readers shared by the applications of the suite.
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace krel {

// Allele frequencies of text genotypes: one SNP a record, an integer (not
// used) and the frequency. The word "compute" stands for no file: then n and
// freq are left as they are. Otherwise n is the number of records and freq
// their frequencies in file order.
// freq[s - 1] is the frequency of SNP s. A frequency outside [0, 1] stops.
void readfrequency(const std::string& file, std::int32_t& n, std::vector<double>& freq);

// An allele frequency is a proportion: a value outside [0, 1] (or not a
// number) as read from `text` on `line` of file stops the run naming them.
void check_frequency(double p, std::string_view text, std::int64_t line, const std::string& file,
                     std::string_view module, const std::string& procedure);

}  // namespace krel
