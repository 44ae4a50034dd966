#pragma once
// Runs the real krel binary in a fresh directory and collects what it left.
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace krel::testing {

inline std::string read_text(const std::filesystem::path& file) {
    std::ifstream in(file);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

inline std::string shell_quote(const std::string& s) {
    std::string q = "'";
    for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

class scratch_dir {
public:
    scratch_dir() {
        std::string pattern = (std::filesystem::temp_directory_path() / "krel-test-XXXXXX").string();
        path_ = mkdtemp(pattern.data());
    }
    ~scratch_dir() {
        std::error_code ec;
        std::filesystem::remove_all(path_, ec);
    }
    scratch_dir(const scratch_dir&) = delete;
    scratch_dir& operator=(const scratch_dir&) = delete;
    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path operator/(const std::string& name) const { return path_ / name; }
    void write(const std::string& name, const std::string& text) const {
        std::ofstream(path_ / name) << text;
    }
    bool exists(const std::string& name) const { return std::filesystem::exists(path_ / name); }
    std::string read(const std::string& name) const { return read_text(path_ / name); }

private:
    std::filesystem::path path_;
};

struct run_result {
    int status = -1;
    std::string out;
    std::string err;
    std::string log;  // log_krel.dat
};

// `env` is a list of NAME=value words put in front of the command.
inline run_result run_binary(const scratch_dir& dir, const std::vector<std::string>& args,
                             const std::string& env = "") {
    // Built piece by piece: g++ 12 warns falsely on "literal" + std::string&&.
    std::string cmd = "cd ";
    cmd += shell_quote(dir.path().string());
    cmd += " && ";
    cmd += env;
    cmd += " ";
    cmd += shell_quote(KREL_BINARY);
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

inline bool contains(const std::string& text, const std::string& piece) {
    return text.find(piece) != std::string::npos;
}

}  // namespace krel::testing
