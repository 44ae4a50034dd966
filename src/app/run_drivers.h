#pragma once
// The main program and its two run modes. The drivers decide which engine
// operations run and in which order; they compute nothing themselves.
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "app/command_line.h"
#include "app/run_options.h"
#include "report/run_summary.h"

namespace krel {

// The whole program; returns the process exit status.
int krel_program(int argc, char** argv);

// True when some argument, seen through its first 30 characters and trimmed,
// is exactly "--noscreen".
bool prescan_noscreen(const std::vector<std::string>& args);

// Reads the common options in their fixed order and logs the echo lines.
// A read-back error is logged and stops the run.
run_options read_common_options(const command_line& cli);
void echo_common_options(const run_options& opts);

// The same for the options of the group "krel".
krel_group_options read_krel_options(const command_line& cli);
void echo_krel_options(const krel_group_options& opts);

// "mkl" gives 1, "low_mem" 2, and any other word 1.
std::int32_t method_from_word(std::string_view word);

// The Tier and Meyer approximation replaces the exact inverse for pedigrees
// of more than a million levels, or when asked for.
inline constexpr std::int32_t exact_inverse_max_levels = 1000000;
bool use_tier_meyer(std::int64_t pedigree_levels, bool ungeno_tm);

// The drivers record their road, step times and results in `record`, the
// run summary that is written however the run ends.
void run_krel(const command_line& cli, const run_options& opts, run_record& record);
void run_gwas(const command_line& cli, const run_options& opts, run_record& record);

}  // namespace krel
