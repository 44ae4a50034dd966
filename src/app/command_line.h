#pragma once
// The command line: two groups (subcommands) "krel" and "gwas" and the common
// options, read back value by value with an error code as the program asks
// for them. Parsing is CLI11's; defaults, abbreviations, value counts and the
// one-sided exclusions follow the option table below.
#include <cstdint>
#include <iosfwd>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "app/run_options.h"
#include "util/freeform.h"

namespace krel {

struct option_row {
    std::string_view switch_name;   // "--gen"
    std::string_view abbreviation;  // "--ifile", "-vb", "-m" or empty
    std::string_view group;         // empty for the common part
    bool required;
    std::string_view default_value;  // as text, Fortran style ("0.05d0", ".true.")
    std::string_view action;         // "", "store", "store_true", "store_false"
    int nargs;                       // values taken; 0 for a switch
    std::string_view excludes;       // switch refused together with this one, reported from this side
    std::string_view help;
};

// All options, in the order in which they are added to the parser.
std::span<const option_row> option_table();

inline constexpr std::string_view program_description =
    "Program to approximate ERCs, genomic reliabilities and/or p-values based on pedigree "
    "reliabilities and genotypes.";

// Every text value travels through a buffer of this many characters.
inline constexpr std::size_t cla_text_length = 128;

// Error codes of the read-back calls.
inline constexpr int cla_error_no_such_switch = 20;
inline constexpr int cla_error_conversion = 21;
inline constexpr int cla_error_value_count = 22;

// Results of parse().
inline constexpr int parse_ok = 0;
inline constexpr int parse_error = 1;
inline constexpr int parse_served_help = -1;
inline constexpr int parse_served_version = -2;
inline constexpr int parse_served_markdown = -3;

class command_line {
public:
    // usage, error and version texts are written to `unit`.
    explicit command_line(std::ostream& unit);
    ~command_line();
    command_line(const command_line&) = delete;
    command_line& operator=(const command_line&) = delete;

    // Parses the arguments (without the program name). Returns parse_ok, a
    // positive code after writing the parser's message, or a negative code
    // when help, the version or the Markdown help was served.
    int parse(const std::vector<std::string>& args);

    // Read-back of one value under a switch or its abbreviation; 0 on success.
    int get_cla(std::string_view switch_name, std::string& value, std::string_view group = {}) const;
    int get_cla(std::string_view switch_name, std::int32_t& value, std::string_view group = {}) const;
    int get_cla(std::string_view switch_name, double& value, std::string_view group = {}) const;
    int get_cla(std::string_view switch_name, bool& value, std::string_view group = {}) const;
    // Every value of a switch that takes several, each cut to the text length.
    int get_cla_list(std::string_view switch_name, std::vector<std::string>& values,
                     std::string_view group = {}) const;

    bool is_called_group(std::string_view group) const;

    // Arguments that matched nothing; they are ignored.
    const std::vector<std::string>& ignored_arguments() const;

    std::string usage() const;
    std::string markdown() const;

private:
    struct impl;
    std::unique_ptr<impl> impl_;
};

// Values that no run can use: an animal effect below 1 would index before
// the first effect, and the arrays by effect are as long as its number, so
// it has the four digits of the other effect numbers at most; beta is a
// share. Logged, then the run stops.
inline constexpr std::int32_t max_effect_number = 9999;
void check_option_values(const run_options& opts);

// Fortran "(i4)" reading: only the first four columns count, blanks in them
// are ignored, all blanks read as 0.
bool read_integer_i4(std::string_view text, std::int32_t& value);

// The value as the program keeps it: cut at cla_text_length, trailing blanks trimmed.
std::string cut_text_value(std::string_view value);

}  // namespace krel
