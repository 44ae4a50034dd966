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
    EXPECT_EQ(log.text(), "\n" + pad + "********\n" + "\n" + pad + "* KREL *\n" + "\n" + pad + "********\n");
    log.clear();
    write_nameprog("ABC");  // (78 - 3) / 2 = 37 rounds toward zero
    EXPECT_TRUE(testing::contains(log.text(), "\n" + pad + "* ABC *\n"));
}

}  // namespace
}  // namespace krel
