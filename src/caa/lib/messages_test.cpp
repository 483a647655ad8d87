#include "caa/lib/messages.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

namespace CAA {
namespace {

class MessagesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("ZEL_VYN_HOME", std::getenv("VYN_TEST_HOME"), 1);
    setenv("LANG", "C", 1);
  }
  char buf_[MSG_BUF_LEN];
};

TEST_F(MessagesTest, TextHasTheFacilityAndFourDigitsAndEndsInANewline) {
  Messages m("caa_ui", 1, "%N.cat");
  ASSERT_EQ(m.text(buf_, 173, nullptr, 0), 0);
  EXPECT_EQ(std::string(buf_).substr(0, 10), "VYN-0173: ");
  EXPECT_EQ(std::string(buf_).back(), '\n');
  ASSERT_EQ(m.textnofmt(buf_, 162, nullptr, 0), 0);
  EXPECT_STREQ(buf_, "%s already exists. Use -f to replace it.");
}

TEST_F(MessagesTest, LookupFailuresGiveMessageNotFound) {
  Messages m("caa_ui", 1, "%N.cat");
  EXPECT_EQ(m.text(buf_, 0, nullptr, 0), -1);
  EXPECT_STREQ(buf_, "Message not found");
  EXPECT_EQ(m.text(buf_, 4242, nullptr, 0), -1);
  EXPECT_STREQ(buf_, "Message not found");
}

TEST_F(MessagesTest, FacilityNamesAreShorterThanEight) {
  EXPECT_EQ(zelgetmsg("VYN", 173, buf_, MSG_BUF_LEN, nullptr, nullptr), 0);
  EXPECT_EQ(zelgetmsg("VYNVYNV", 173, buf_, MSG_BUF_LEN, nullptr, nullptr), -1) << "7 characters, no such facility";
  EXPECT_EQ(zelgetmsg("VYNVYNVY", 173, buf_, MSG_BUF_LEN, nullptr, nullptr), -1);
  EXPECT_EQ(zelgetmsg("EVM", 1018, buf_, MSG_BUF_LEN, nullptr, nullptr), 0);
  EXPECT_STREQ(buf_, "Event rejected");
}

TEST_F(MessagesTest, ALanguageWithoutCatalogFallsBackToEnglish) {
  EXPECT_EQ(zelgetmsg("VYN", 170, buf_, MSG_BUF_LEN, nullptr, "fr_FR.UTF-8"), 0);
  EXPECT_STREQ(buf_, "No profile exists for resource %s.");
}

TEST_F(MessagesTest, WithoutAHomeNothingIsFound) {
  unsetenv("ZEL_VYN_HOME");
  EXPECT_EQ(zelgetmsg("VYN", 170, buf_, MSG_BUF_LEN, nullptr, nullptr), -1);
}

}  // namespace
}  // namespace CAA
