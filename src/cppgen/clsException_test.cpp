#include "cppgen/clsException.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <sstream>

#include "cppgen/clsUserErrorException.h"

namespace cls {
namespace {

TEST(ExceptionTest, HistoryIsFlatNearestFirst) {
  Exception a("a");
  Exception b("b", a);
  NoMemoryException typed("typed");
  b.appendToHistory(typed);
  Exception c("c", b);
  ASSERT_EQ(c.getNestedErrorMessages().size(), 3u);
  EXPECT_EQ(c.getEntireErrorStack(), "c\nb\na\ntyped");
  EXPECT_EQ(c.getNestedErrorMessages().back().className(), "Exception") << "causes keep their text, not their class";
}

TEST(ExceptionTest, PrintGivesClassAndText) {
  std::ostringstream os;
  os << BadIOException("disk");
  EXPECT_EQ(os.str(), "BadIOException : disk");
}

// Texts come from the catalog of a copy of the shipped home, which also takes the trace lines.
class UserErrorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/vyn_usererr_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    std::filesystem::copy(std::getenv("VYN_TEST_HOME"), dir_ + "/home", std::filesystem::copy_options::recursive);
    setenv("ZEL_VYN_HOME", (dir_ + "/home").c_str(), 1);
    setenv("LANG", "C", 1);
  }
  void TearDown() override {
    unsetenv("ZEL_VYN_HOME");
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
  }
  std::string dir_;
};

TEST_F(UserErrorTest, RendersTheCatalogTextWithItsArguments) {
  UserErrorException e(170, "web");
  EXPECT_EQ(e.what(), "VYN-0170: No profile exists for resource web.\n");
  EXPECT_EQ(e.getPureMessage(), "No profile exists for resource web.");
  EXPECT_EQ(e.getMsgId(), 170);
  std::ostringstream os;
  e.print(os);
  EXPECT_EQ(os.str(), "UserErrorException : VYN-0170: No profile exists for resource web.\n");
}

TEST_F(UserErrorTest, CopiesShareTheArgumentsBeyondTheSourcesLife) {
  UserErrorException copy;
  {
    std::string name = "temporary";
    UserErrorException source(174, name.c_str());
    copy = source;
  }
  EXPECT_EQ(copy.what("C"), "VYN-0174: The resource name temporary is longer than 127 characters.\n");
  EXPECT_EQ(copy.what(), "VYN-0174: The resource name temporary is longer than 127 characters.\n");
}

TEST_F(UserErrorTest, AnUnknownNumberLeavesAnEmptyMessage) {
  UserErrorException e(4242, "x");
  EXPECT_EQ(e.what(), "");
  Exception cause("root cause");
  UserErrorException nested(cause, 170, "r");
  EXPECT_EQ(nested.getEntireErrorStack(), "VYN-0170: No profile exists for resource r.\n\nroot cause");
}

}  // namespace
}  // namespace cls
