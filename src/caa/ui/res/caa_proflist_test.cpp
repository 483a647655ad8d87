// The walk over a directory's profiles: byte order, only the extension asked for, and the same
// names however small the budget that forces it into several passes.
#include "caa/ui/res/caa_proflist.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace CAA {
namespace {

class ProfileListTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/vyn_proflist_test.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }
  void touch(const std::string& name) { std::ofstream(dir_ + "/" + name) << "x"; }
  std::vector<std::string> walk(std::size_t budget, int* passes = nullptr) {
    ProfileList list(dir_, "cap", budget);
    osrec e;
    std::vector<std::string> names;
    EXPECT_EQ(list.open(&e), 0);
    std::string name;
    int rc;
    while ((rc = list.next(&e, &name)) == 0) names.push_back(name);
    EXPECT_EQ(rc, OSL_FILELIST_END);
    EXPECT_EQ(list.next(&e, &name), OSL_FILELIST_END);
    if (passes != nullptr) *passes = list.passes();
    return names;
  }
  std::string dir_;
};

TEST_F(ProfileListTest, GivesTheProfilesInByteOrderAndNothingElse) {
  // The names are held without their common ending, yet ordered as whole names: "a-" goes
  // before "a", and "a~" after it.
  for (const char* n : {"b.cap", "a.cap", "a~.cap", "B.cap", "a-.cap", "a.b.cap", "\xe9.cap", "a.bak", "cap", "x.capx", ".cap"})
    touch(n);
  std::filesystem::create_directory(dir_ + "/sub");
  int passes = 0;
  EXPECT_EQ(walk(ProfileList::PASS_BYTES, &passes),
            (std::vector<std::string>{".cap", "B.cap", "a-.cap", "a.b.cap", "a.cap", "a~.cap", "b.cap", "\xe9.cap"}));
  EXPECT_EQ(passes, 1);
}

TEST_F(ProfileListTest, ASmallBudgetReadsInPassesAndMissesNoName) {
  std::vector<std::string> want;
  // Names of very different lengths, made in an order unlike their sorted one.
  for (int i = 0; i < 400; ++i) {
    int k = (i * 7919) % 400;
    std::string name = "r" + std::to_string(k) + std::string(static_cast<std::size_t>(k % 97), "x-~"[k % 3]) + ".cap";
    touch(name);
    want.push_back(name);
  }
  std::sort(want.begin(), want.end());
  int passes = 0;
  EXPECT_EQ(walk(0, &passes), want);  // the smallest budget there is: two of the longest names
  EXPECT_GT(passes, 10);
  EXPECT_EQ(walk(4096, &passes), want);
  EXPECT_GT(passes, 1);
  EXPECT_EQ(walk(ProfileList::PASS_BYTES, &passes), want);
  EXPECT_EQ(passes, 1);
}

TEST_F(ProfileListTest, AnEmptyDirectoryEndsAtOnceAndAMissingOneFails) {
  EXPECT_TRUE(walk(ProfileList::PASS_BYTES).empty());
  ProfileList list(dir_ + "/none", "cap");
  osrec e;
  EXPECT_EQ(list.open(&e), OSL_ERR_FAIL);
  EXPECT_EQ(osrecFormat(e), "category: 2, operation: opendir, loc: proflist, OS error: 2, other: " + dir_ + "/none\n");
}

}  // namespace
}  // namespace CAA
