#pragma once
// Reading back the result files of a run: one record a line, the record
// number, the effect, 0, then the values.
#include <gtest/gtest.h>

#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "test_support.h"

namespace krel::testing {

inline std::map<long, std::vector<double>> results(const scratch_dir& dir, const std::string& name) {
    std::map<long, std::vector<double>> out;
    std::istringstream in(dir.read(name));
    for (std::string line; std::getline(in, line);) {
        std::istringstream words(line);
        long id = 0, effect = 0, zero = -1;
        words >> id >> effect >> zero;
        EXPECT_EQ(zero, 0) << name << ": " << line;
        std::vector<double> v;
        for (std::string w; words >> w;) v.push_back(std::stod(w));
        out[id] = v;
    }
    return out;
}

// The log with its wrapped lines joined: long messages are split at blanks.
inline std::string flat(const std::string& log) {
    std::string out;
    bool blank = false;
    for (char c : log) {
        if (c == ' ' || c == '\n') {
            blank = true;
            continue;
        }
        if (blank && !out.empty()) out += ' ';
        blank = false;
        out += c;
    }
    return out;
}

// A small generated data set in dir, with extra generator options.
inline void generate(const scratch_dir& dir, std::vector<std::string> args) {
    args.insert(args.begin(), {"--out", "."});
    const auto r = run_program(dir, KREL_SIMULATE_BINARY, args);
    ASSERT_EQ(r.status, 0) << r.err;
}

}  // namespace krel::testing
