#pragma once
// The last look at a run's result files before OK_KREL is written: a file of
// NaN beside the marker would pass for a good result. Every value is read
// back; a value that is not finite stops the run, unless its record is one
// whose value is degenerate by construction (the test statistics of a
// monomorphic SNP), and those are counted in the log.
#include <cstdint>
#include <string>
#include <vector>

namespace krel {

struct result_file {
    std::string name;
    // Record numbers (first column) whose values may be non-finite, ascending.
    std::vector<std::int32_t> degenerate_records;
    // What the degenerate records are, for the log line.
    std::string degenerate_what;
};

// Non-finite values of one file, apart from those of degenerate records.
struct result_file_scan {
    std::int64_t degenerate_nonfinite = 0;
    std::int64_t bad_line = 0;  // first line with another non-finite value, 0 if none
    std::string bad_text;       // that line
};

// Reads one file of records "record effect 0 value...", or any lines of
// numbers: every item after the first is a value.
result_file_scan scan_result_file(const result_file& file);

// What a run wrote, for the list of files to check.
struct run_outputs {
    bool pvalues = false;        // --gwas or --mgwas
    bool only_geno = false;      // krel --only-geno: genotyped animals only
    bool all_animals = false;    // krel: the reliabilities of all animals
    bool weight_files = false;   // --erc or --verbose with all_animals
};

// The result files of a run; the monomorphic SNPs (ascending) are the
// degenerate records of the test statistics.
std::vector<result_file> run_result_files(const run_outputs& run, const std::vector<std::int32_t>& monomorphic);

// Scans every file; logs the count of kept degenerate values per file, and
// on any other non-finite value logs an error naming the file and the line
// and stops the run. A listed file that cannot be opened stops the run too.
void check_result_files(const std::vector<result_file>& files);

}  // namespace krel
