#pragma once
// Each user file reader driven on arbitrary bytes. A target writes the bytes
// where the reader expects a file (in the working directory, which the
// drivers make a scratch directory) and calls the real reader. Reaching an
// error stop is a pass; anything else that escapes is a fault.
#include <cstdint>
#include <span>
#include <string_view>

namespace krel::fuzz {

struct reader_target {
    std::string_view name;
    void (*run)(std::span<const std::uint8_t> bytes);
};

std::span<const reader_target> reader_targets();
const reader_target* find_reader_target(std::string_view name);

// Moves into a fresh private directory and silences the logger, so that runs
// neither litter the caller's directory nor flood the terminal.
void enter_scratch_directory();

}  // namespace krel::fuzz
