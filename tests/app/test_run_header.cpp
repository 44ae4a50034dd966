#include <gtest/gtest.h>

#include "app/run_header.h"
#include "test_support.h"

namespace krel {
namespace {

TEST(RunHeader, NameBoxIsCentredInTheBanner) {
    testing::log_capture log;
    write_nameprog("KREL");
    // p = (78 - 4) / 2 = 37: 38 blanks, then the box of 8.
    const std::string pad(38, ' ');
    EXPECT_EQ(log.text(), "\n" + pad + "********\n" + "\n" + pad + "* KREL *\n" + "\n" + pad +
                              "********\n");
    log.clear();
    // Odd length: (78 - 3) / 2 = 37 rounds toward zero.
    write_nameprog("ABC");
    EXPECT_TRUE(testing::contains(log.text(), "\n" + pad + "* ABC *\n"));
}

TEST(RunHeader, TimeLineFormat) {
    testing::log_capture log;
    write_time("Start on ");
    const std::string text = log.text();
    // "Start on dd-mm-yyyy at hhh mmm sss"
    ASSERT_EQ(text.size(), std::string("Start on 22-11-2026 at 02h 40m 05s\n").size()) << text;
    EXPECT_EQ(text.substr(11, 1), "-");
    EXPECT_EQ(text.substr(19, 4), " at ");
    EXPECT_EQ(text.substr(25, 2), "h ");
    EXPECT_EQ(text.back(), '\n');
}

TEST(RunHeader, MarkerIsRemovedByTheHeaderAndWrittenAtTheEnd) {
    testing::scratch_dir dir;
    const auto cwd = std::filesystem::current_path();
    std::filesystem::current_path(dir.path());
    dir.write("OK_KREL", "");
    {
        testing::log_capture log;
        header("KREL", "v1", "abc");
        EXPECT_FALSE(dir.exists("OK_KREL"));
        EXPECT_TRUE(testing::contains(log.text(), "Version: v1"));
        EXPECT_TRUE(testing::contains(log.text(), "Commit : abc"));
        EXPECT_TRUE(global_logger().indent());
        endheader("KREL");
        EXPECT_TRUE(dir.exists("OK_KREL"));
        EXPECT_FALSE(global_logger().indent());
        EXPECT_TRUE(testing::contains(log.text(), "Elapsed time (s): "));
    }
    std::filesystem::current_path(cwd);
}

}  // namespace
}  // namespace krel
