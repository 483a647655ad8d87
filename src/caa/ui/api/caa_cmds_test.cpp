#include "caa/ui/api/caa_cmds.h"

#include <gtest/gtest.h>

#include <cstring>

namespace CAA {
namespace {

class CmdsParseTest : public ::testing::Test {
 protected:
  int split(const char* text, int max, char d) {
    std::strncpy(buf_, text, sizeof buf_ - 1);
    return Cmds::parse(buf_, fields_, max, d);
  }
  char buf_[256] = {0};
  const char* fields_[32] = {nullptr};
};

TEST_F(CmdsParseTest, SplitsInPlaceAndLeavesTheRestInTheLastField) {
  EXPECT_EQ(split("a,b", 20, ','), 2);
  EXPECT_STREQ(fields_[0], "a");
  EXPECT_STREQ(fields_[1], "b");

  EXPECT_EQ(split("", 20, ','), 1);
  EXPECT_STREQ(fields_[0], "");

  EXPECT_EQ(split("a=b=c=d", 2, '='), 3);
  EXPECT_STREQ(fields_[2], "c=d");

  EXPECT_EQ(split("a,,b,", 20, ','), 4) << "empty fields count";
  EXPECT_STREQ(fields_[1], "");
  EXPECT_STREQ(fields_[3], "");
}

}  // namespace
}  // namespace CAA
