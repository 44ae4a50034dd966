#pragma once
// Runs a real binary of the project in a fresh directory and collects what it left.
#include <sys/wait.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "test_support.h"

namespace krel::testing {

inline std::string shell_quote(const std::string& s) {
    std::string q = "'";
    for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

struct run_result {
    int status = -1;
    std::string out;
    std::string err;
    std::string log;  // log_krel.dat
};

// `env` is a list of NAME=value words put in front of the command.
inline run_result run_program(const scratch_dir& dir, const std::string& binary,
                              const std::vector<std::string>& args, const std::string& env = "") {
    // Built piece by piece: g++ 12 warns falsely on "literal" + std::string&&.
    std::string cmd = "cd ";
    cmd += shell_quote(dir.path().string());
    cmd += " && ";
    cmd += env;
    cmd += " ";
    cmd += shell_quote(binary);
    for (const auto& a : args) {
        cmd += ' ';
        cmd += shell_quote(a);
    }
    cmd += " > stdout.txt 2> stderr.txt < /dev/null";
    const int raw = std::system(cmd.c_str());
    run_result r;
    r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    r.out = dir.read("stdout.txt");
    r.err = dir.read("stderr.txt");
    r.log = dir.read("log_krel.dat");
    return r;
}

inline run_result run_binary(const scratch_dir& dir, const std::vector<std::string>& args,
                             const std::string& env = "") {
    return run_program(dir, KREL_BINARY, args, env);
}

}  // namespace krel::testing
