#include <gtest/gtest.h>

#include "util/logger.h"

namespace krel {
namespace {

TEST(LoggerFormat, SplitsAtBlanksAndIndentsContinuation) {
    const auto lines = format_log_lines("", "aaa bbb ccc ddd", 8, true);
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0], "aaa bbb");
    EXPECT_EQ(lines[1], "    ccc");
    EXPECT_EQ(lines[2], "    ddd");
}

}  // namespace
}  // namespace krel
