#include <gtest/gtest.h>

#include <sstream>

#include "test_support.h"
#include "util/logger.h"
#include "util/run_timer.h"

namespace krel {
namespace {

TEST(LoggerFormat, SplitsAtBlanksAndIndentsContinuation) {
    const auto lines = format_log_lines("", "aaa bbb ccc ddd", 8, true);
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0], "aaa bbb");
    EXPECT_EQ(lines[1], "    ccc");
    EXPECT_EQ(lines[2], "    ddd");
    // Without indent the continuation starts in the first column.
    EXPECT_EQ(format_log_lines("", "aaa bbb ccc", 8, false)[1], "ccc");
    // Continuation lines stand under the text behind a prefix.
    EXPECT_EQ(format_log_lines("INFO: ", "aaaa bbbb", 10, true)[1], "      bbbb");
}

TEST(LoggerFormat, LineFeedsAndLongWords) {
    const auto lines = format_log_lines("", "\n              Compiler: x", 82, false);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], "");
    EXPECT_EQ(lines[1], "              Compiler: x");
    // A word longer than the width is not cut.
    const std::string word(100, 'w');
    const auto long_lines = format_log_lines("", "name: " + word, 82, true);
    ASSERT_EQ(long_lines.size(), 2u);
    EXPECT_EQ(long_lines[1], "    " + word);
    // No width: never split.
    EXPECT_EQ(format_log_lines("", std::string(300, 'a') + " b", 0, true).size(), 1u);
    // An 82-character rule fits its width exactly.
    EXPECT_EQ(format_log_lines("", std::string(82, '*'), 82, true).size(), 1u);
}

TEST(Logger, EveryUnitGetsEveryMessageWithLevelPrefixes) {
    testing::scratch_dir dir;
    std::ostringstream screen;
    logger_type log;
    log.configure(std::nullopt, std::nullopt, std::nullopt, std::nullopt, false);
    log.add_log_unit(screen);
    const auto file = dir / "log.dat";
    {
        std::ofstream(file) << "left from an earlier run\n";
    }
    log.add_log_file(file.string(), "replace");
    ASSERT_EQ(log.configuration().size(), 2u);
    EXPECT_EQ(log.configuration().front(), &screen);

    log.log_message("plain");
    log.log_information("info", "modx", "proc (1)");
    log.log_warning("careful");
    log.log_error("broken", {}, {}, 3, "why");
    log.log_io_error("unreadable", "mody");
    const std::string expected =
        "plain\n"
        "modx % proc (1): INFO: info\n"
        "WARN: careful\n"
        "ERROR: broken\nWith stat = 3\nWith errmsg = \"why\"\n"
        "mody: I/O ERROR: unreadable\n";
    EXPECT_EQ(screen.str(), expected);
    EXPECT_EQ(testing::read_text(file), expected);
}

TEST(Logger, LevelsFilterAndResetRestoresDefaults) {
    std::ostringstream out;
    logger_type log;
    log.configure(std::nullopt, std::nullopt, log_level::warning, std::nullopt, false);
    log.add_log_unit(out);
    log.log_information("hidden");
    log.log_debug("hidden too");
    log.log_warning("shown");
    log.log_message("plain lines are always shown");
    EXPECT_EQ(out.str(), "WARN: shown\nplain lines are always shown\n");

    log.reset();
    EXPECT_TRUE(log.configuration().empty());
    log.log_message("nowhere");  // no unit: nothing to do, no failure
    EXPECT_TRUE(log.indent());
    EXPECT_EQ(log.max_width(), 0);
}

TEST(Logger, TimeStampsAreOnByDefault) {
    std::ostringstream out;
    logger_type log;
    log.add_log_unit(out);
    log.log_message("x");
    // "YYYY-MM-DD hh:mm:ss.sss: x"
    const std::string text = out.str();
    ASSERT_GE(text.size(), 26u);
    EXPECT_EQ(text.substr(4, 1), "-");
    EXPECT_EQ(text.substr(23), ": x\n");
}

TEST(Logger, ProcedureTextNamesTheRoutineAndThePlaceOfTheCall) {
    const int line = __LINE__ + 1;
    const std::string text = procedure_at("readgf");
    EXPECT_EQ(text, "readgf (test_logger.cpp:" + std::to_string(line) + ")");
}

TEST(Logger, UnopenableFileIsRefused) {
    logger_type log;
    EXPECT_THROW(log.add_log_file("/nonexistent-directory/log.dat"), std::runtime_error);
    EXPECT_TRUE(log.configuration().empty());
}

TEST(RunStatistics, MemoryReportKeepsTheVmLinesOnly) {
    testing::scratch_dir dir;
    dir.write("status",
              "Name:\tkrel\nVmPeak:\t  100 kB\nVmSize:\t   90 kB\nVmLck:\t 0 kB\nVmHWM:\t 50 kB\n"
              "VmRSS:\t 40 kB\nVmData:\t 30 kB\nVmStk:\t 20 kB\nVmExe:\t 5 kB\nVmSwap:\t 0 kB\n"
              "Threads:\t1\n");
    std::ostringstream out;
    vmstat(out, (dir / "status").string());
    EXPECT_EQ(out.str(),
              "\nVmPeak:\t  100 kB\nVmSize:\t   90 kB\nVmHWM:\t 50 kB\nVmRSS:\t 40 kB\n"
              "VmData:\t 30 kB\nVmStk:\t 20 kB\nVmSwap:\t 0 kB\n\n");
    std::ostringstream none;
    vmstat(none, (dir / "no-such-file").string());
    EXPECT_EQ(none.str(), "");
}

TEST(RunStatistics, TimerLogsTheElapsedSeconds) {
    testing::log_capture log;
    wtime timer;
    timer.start("Reading");
    timer.stop("  Reading done ");
    const std::string text = log.text();
    EXPECT_TRUE(testing::contains(text, "Reading\n"));
    EXPECT_TRUE(testing::contains(text, "Reading done - Wall clock time (s): ")) << text;
    EXPECT_GE(timer.elapsed(), 0.0);
}

}  // namespace
}  // namespace krel
