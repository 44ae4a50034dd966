#include "util/logger.h"

#include <chrono>
#include <ctime>
#include <fstream>
#include <iostream>
#include <mutex>
#include <stdexcept>

#include <fmt/format.h>

namespace krel {

namespace {
std::mutex& logger_mutex() {
    static std::mutex m;
    return m;
}

std::string lead_text(std::string_view module, std::string_view procedure) {
    if (!module.empty() && !procedure.empty()) return fmt::format("{} % {}: ", module, procedure);
    if (!module.empty()) return fmt::format("{}: ", module);
    if (!procedure.empty()) return fmt::format("{}: ", procedure);
    return {};
}

std::string time_stamp_text() {
    const auto now = std::chrono::system_clock::now();
    const std::time_t t = std::chrono::system_clock::to_time_t(now);
    const auto ms =
        std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
    std::tm tm{};
    localtime_r(&t, &tm);
    return fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02}.{:03}: ", tm.tm_year + 1900,
                       tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, ms);
}

// Splits one physical line at blanks. Words longer than the room are kept
// whole: a file name cut in two is worse than a long line.
void wrap_line(std::string_view line, std::size_t width, std::size_t indent,
               std::vector<std::string>& out) {
    bool first = true;
    while (true) {
        const std::size_t room = first ? width : (width > indent ? width - indent : 1);
        const std::string pad = first ? std::string() : std::string(indent, ' ');
        if (width == 0 || line.size() <= room) {
            out.push_back(pad + std::string(line));
            return;
        }
        std::size_t cut = line.rfind(' ', room);
        // A cut inside the leading blanks would leave an empty line.
        const std::size_t first_text = line.find_first_not_of(' ');
        if (cut == std::string_view::npos || cut == 0 || cut < first_text) {
            cut = line.find(' ', room);
            if (cut == std::string_view::npos) {
                out.push_back(pad + std::string(line));
                return;
            }
        }
        std::string_view head = line.substr(0, cut);
        while (!head.empty() && head.back() == ' ') head.remove_suffix(1);
        out.push_back(pad + std::string(head));
        line = line.substr(cut);
        const std::size_t next = line.find_first_not_of(' ');
        if (next == std::string_view::npos) return;
        line = line.substr(next);
        first = false;
    }
}
}  // namespace

std::vector<std::string> format_log_lines(std::string_view lead, std::string_view message,
                                          int max_width, bool indent) {
    std::vector<std::string> lines;
    const std::size_t width = max_width > 0 ? static_cast<std::size_t>(max_width) : 0;
    const std::size_t cont = indent ? std::max<std::size_t>(4, lead.size()) : 0;
    std::string text = std::string(lead) + std::string(message);
    std::size_t start = 0;
    while (true) {
        const std::size_t nl = text.find('\n', start);
        std::string_view piece(text.data() + start,
                               (nl == std::string::npos ? text.size() : nl) - start);
        wrap_line(piece, width, cont, lines);
        if (nl == std::string::npos) break;
        start = nl + 1;
    }
    return lines;
}

logger_type::logger_type() = default;
logger_type::~logger_type() = default;

void logger_type::add_log_unit(std::ostream& unit) {
    std::lock_guard lock(logger_mutex());
    units_.push_back(&unit);
}

void logger_type::add_log_file(const std::string& filename, std::string_view position) {
    std::lock_guard lock(logger_mutex());
    const auto mode = position == "append" ? std::ios::out | std::ios::app : std::ios::out | std::ios::trunc;
    auto file = std::make_unique<std::ofstream>(filename, mode);
    if (!*file) throw std::runtime_error("Cannot open the log file " + filename);
    units_.push_back(file.get());
    files_.push_back(std::move(file));
}

std::vector<std::ostream*> logger_type::configuration() const {
    std::lock_guard lock(logger_mutex());
    return units_;
}

void logger_type::configure(std::optional<bool> add_blank_line, std::optional<bool> indent,
                            std::optional<log_level> level, std::optional<int> max_width,
                            std::optional<bool> time_stamp) {
    std::lock_guard lock(logger_mutex());
    if (add_blank_line) add_blank_line_ = *add_blank_line;
    if (indent) indent_ = *indent;
    if (level) level_ = *level;
    if (max_width) max_width_ = *max_width > 0 ? *max_width : 0;
    if (time_stamp) time_stamp_ = *time_stamp;
}

void logger_type::reset() {
    std::lock_guard lock(logger_mutex());
    units_.clear();
    files_.clear();
    add_blank_line_ = false;
    indent_ = true;
    level_ = log_level::information;
    max_width_ = 0;
    time_stamp_ = true;
    last_error_.clear();
}

void logger_type::emit(const std::string& text) {
    for (std::ostream* unit : units_) {
        *unit << text;
        unit->flush();
    }
}

void logger_type::write(log_level level, std::string_view prefix, std::string_view message,
                        std::string_view module, std::string_view procedure) {
    std::lock_guard lock(logger_mutex());
    if (level < level_ || units_.empty()) return;
    std::string lead = time_stamp_ ? time_stamp_text() : std::string();
    lead += lead_text(module, procedure);
    if (!prefix.empty()) lead += fmt::format("{}: ", prefix);
    std::string text;
    if (add_blank_line_) text += '\n';
    for (const std::string& line : format_log_lines(lead, message, max_width_, indent_)) {
        text += line;
        text += '\n';
    }
    emit(text);
}

void logger_type::log_message(std::string_view message, std::string_view module,
                              std::string_view procedure) {
    // Plain progress lines are written whatever the level, but for "all off".
    write(level_ == log_level::all_off ? log_level::all_off : log_level::error, "", message,
          module, procedure);
}

void logger_type::log_debug(std::string_view message, std::string_view module,
                            std::string_view procedure) {
    write(log_level::debug, "DEBUG", message, module, procedure);
}

void logger_type::log_information(std::string_view message, std::string_view module,
                                  std::string_view procedure) {
    write(log_level::information, "INFO", message, module, procedure);
}

void logger_type::log_warning(std::string_view message, std::string_view module,
                              std::string_view procedure) {
    write(log_level::warning, "WARN", message, module, procedure);
}

void logger_type::log_error(std::string_view message, std::string_view module,
                            std::string_view procedure, std::optional<int> stat,
                            std::optional<std::string> errmsg) {
    std::string text(message);
    if (stat) text += fmt::format("\nWith stat = {}", *stat);
    if (errmsg) text += fmt::format("\nWith errmsg = \"{}\"", *errmsg);
    last_error_ = text;
    write(log_level::error, "ERROR", text, module, procedure);
}

void logger_type::log_io_error(std::string_view message, std::string_view module,
                               std::string_view procedure, std::optional<int> iostat,
                               std::optional<std::string> iomsg) {
    std::string text(message);
    if (iostat) text += fmt::format("\nWith iostat = {}", *iostat);
    if (iomsg) text += fmt::format("\nWith iomsg = \"{}\"", *iomsg);
    last_error_ = text;
    write(log_level::error, "I/O ERROR", text, module, procedure);
}

std::string procedure_at(std::string_view routine, const char* file, int line) {
    std::string_view name = file;
    if (const auto slash = name.rfind('/'); slash != std::string_view::npos)
        name.remove_prefix(slash + 1);
    return fmt::format("{} ({}:{})", routine, name, line);
}

logger_type& global_logger() {
    static logger_type logger;
    return logger;
}

}  // namespace krel
