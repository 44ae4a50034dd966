#pragma once
// The one levelled logger of the program. Every message goes to all units in
// the order in which they were added; a unit is standard output or a log file.
#include <iosfwd>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace krel {

enum class log_level : int { debug = 0, information = 10, warning = 20, error = 30, all_off = 40 };

class logger_type {
public:
    // Out of line: the log files' stream type is only declared here.
    logger_type();
    ~logger_type();
    logger_type(const logger_type&) = delete;
    logger_type& operator=(const logger_type&) = delete;

    // Adds a stream owned elsewhere (standard output).
    void add_log_unit(std::ostream& unit);
    // Adds a file; position "replace" starts it afresh, "append" keeps what is there.
    // Throws std::runtime_error when the file cannot be opened.
    void add_log_file(const std::string& filename, std::string_view position = "replace");
    // The units, in the order in which they were added.
    std::vector<std::ostream*> configuration() const;
    void configure(std::optional<bool> add_blank_line = std::nullopt,
                   std::optional<bool> indent = std::nullopt,
                   std::optional<log_level> level = std::nullopt,
                   std::optional<int> max_width = std::nullopt,
                   std::optional<bool> time_stamp = std::nullopt);

    void log_message(std::string_view message, std::string_view module = {},
                     std::string_view procedure = {});
    void log_debug(std::string_view message, std::string_view module = {},
                   std::string_view procedure = {});
    void log_information(std::string_view message, std::string_view module = {},
                         std::string_view procedure = {});
    void log_warning(std::string_view message, std::string_view module = {},
                     std::string_view procedure = {});
    void log_error(std::string_view message, std::string_view module = {},
                   std::string_view procedure = {}, std::optional<int> stat = std::nullopt,
                   std::optional<std::string> errmsg = std::nullopt);
    void log_io_error(std::string_view message, std::string_view module = {},
                      std::string_view procedure = {}, std::optional<int> iostat = std::nullopt,
                      std::optional<std::string> iomsg = std::nullopt);

    bool indent() const { return indent_; }
    int max_width() const { return max_width_; }
    // The text of the last error or I/O error logged, empty if none: the run
    // summary of a stopped run carries it.
    const std::string& last_error() const { return last_error_; }

    // Drops every unit and restores the defaults: a new process's state.
    void reset();

private:
    void write(log_level level, std::string_view prefix, std::string_view message,
               std::string_view module, std::string_view procedure);
    void emit(const std::string& text);

    std::vector<std::ostream*> units_;
    std::vector<std::unique_ptr<std::ofstream>> files_;
    bool add_blank_line_ = false;
    bool indent_ = true;
    log_level level_ = log_level::information;
    int max_width_ = 0;  // 0: lines are never split
    bool time_stamp_ = true;
    std::string last_error_;
};

// The procedure text of an error line: the routine name and the place of the
// call, "routine (file.cpp:123)".
// The place comes from the compiler builtins rather than std::source_location,
// which clang before 15 cannot build with this standard library.
std::string procedure_at(std::string_view routine, const char* file = __builtin_FILE(),
                         int line = __builtin_LINE());

// The process-wide logger.
logger_type& global_logger();

// Lays out one message as the logger writes it: the prefix text in front of
// the first line, each line of the message split at blanks so that no line
// exceeds max_width (0: no limit), continuation lines indented under the text
// when indent is set. Exposed for tests.
std::vector<std::string> format_log_lines(std::string_view lead, std::string_view message,
                                          int max_width, bool indent);

}  // namespace krel
