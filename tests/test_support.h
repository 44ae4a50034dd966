#pragma once
// What several test suites need: a scratch directory that disappears with
// the test, file reading, command lines, and the global logger routed into
// a string.
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "util/logger.h"

namespace krel::testing {

inline std::string read_text(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
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

class log_capture {
public:
    log_capture() {
        global_logger().reset();
        global_logger().configure(std::nullopt, std::nullopt, std::nullopt, std::nullopt, false);
        global_logger().add_log_unit(out_);
    }
    ~log_capture() { global_logger().reset(); }
    log_capture(const log_capture&) = delete;
    log_capture& operator=(const log_capture&) = delete;

    std::string text() const { return out_.str(); }
    void clear() { out_.str({}); }

private:
    std::ostringstream out_;
};

// The words of a command line: head, then tail.
inline std::vector<std::string> followed_by(std::vector<std::string> head, const std::vector<std::string>& tail) {
    head.insert(head.end(), tail.begin(), tail.end());
    return head;
}

inline bool contains(const std::string& text, const std::string& piece) {
    return text.find(piece) != std::string::npos;
}

}  // namespace krel::testing
