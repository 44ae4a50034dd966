#pragma once
// The banner at the start and end of a run, the script hook that runs before
// the work, and the marker file that tells a finished run from a broken one.
#include <string>
#include <string_view>

namespace krel {

inline constexpr std::string_view program_word = "KREL";
inline constexpr std::string_view program_version = "v1.19.13-0-g59ec9e7";
inline constexpr std::string_view program_commit = "59ec9e7";

// Runs each line of the file `name` as a shell command, if the file exists.
// A command that exits non-zero stops the run with that status.
void run_script(const std::string& name);

void header(std::string_view name, std::string_view version = {}, std::string_view commit = {});
void write_nameprog(std::string_view name);
void write_time(std::string_view prefix = {});
// The closing lines; the marker file only when the run did its work.
void endheader(std::string_view name, bool completed = true);

// Name of the marker file of a completed run.
std::string marker_file(std::string_view name);

}  // namespace krel
