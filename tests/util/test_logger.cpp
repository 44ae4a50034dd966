#include <gtest/gtest.h>

#include <sstream>

#include "test_support.h"
#include "util/logger.h"
#include "util/run_timer.h"

namespace krel {
namespace {

TEST(LoggerFormat, SplitsAtBlanksAndIndentsContinuation) {
    const std::string word(100, 'w');
    const struct {
        const char* prefix;
        std::string text;
        int width;
        bool indent;
        std::vector<std::string> lines;
    } cases[] = {
        {"", "aaa bbb ccc ddd", 8, true, {"aaa bbb", "    ccc", "    ddd"}},
        {"", "aaa bbb ccc", 8, false, {"aaa bbb", "ccc"}},
        {"INFO: ", "aaaa bbbb", 10, true, {"INFO: aaaa", "      bbbb"}},  // under the text
        {"", "\n  Compiler: x", 82, false, {"", "  Compiler: x"}},
        {"", "name: " + word, 82, true, {"name:", "    " + word}},  // long words stay whole
        {"", std::string(300, 'a') + " b", 0, true, {std::string(300, 'a') + " b"}},  // no width
        {"", std::string(82, '*'), 82, true, {std::string(82, '*')}},
    };
    for (const auto& c : cases) EXPECT_EQ(format_log_lines(c.prefix, c.text, c.width, c.indent), c.lines) << c.text;
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

TEST(Logger, LevelsFilterTimeStampsAndUnopenableFiles) {
    std::ostringstream out;
    logger_type log;
    log.configure(std::nullopt, std::nullopt, log_level::warning, std::nullopt, false);
    log.add_log_unit(out);
    log.log_information("hidden");
    log.log_debug("hidden too");
    log.log_warning("shown");
    log.log_message("plain lines are always shown");
    EXPECT_EQ(out.str(), "WARN: shown\nplain lines are always shown\n");

    log.reset();  // back to the defaults: time stamps on
    std::ostringstream stamped;
    log.add_log_unit(stamped);
    log.log_message("x");
    ASSERT_GE(stamped.str().size(), 26u);  // "YYYY-MM-DD hh:mm:ss.sss: x"
    EXPECT_EQ(stamped.str().substr(23), ": x\n");
    EXPECT_THROW(log.add_log_file("/nonexistent-directory/log.dat"), std::runtime_error);
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
