// What the command leaves in its trace file, <home>/log/vyn_profile.trc, and what a user sees
// when that file cannot be written.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "program_runner.h"

namespace fs = std::filesystem;
using vyntest::Outcome;

namespace {

const int kNobody = 65534;

class CommandTraceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to run as an ordinary user";
    // An ordinary user may write below the home, so that only what a test takes away is missing.
    for (const auto& e : fs::recursive_directory_iterator(home_.home())) fs::permissions(e.path(), fs::perms::all);
    fs::permissions(home_.home(), fs::perms::all);
    fs::permissions(home_.work(), fs::perms::all);
  }
  Outcome vyn(const std::vector<std::string>& args, const std::string& store) {
    return vyntest::run(vyntest::binary("vyn_profile"), args,
                        {{"ZEL_VYN_HOME", home_.home()}, {"VYN_REGISTRY", store}, {"LANG", "C"}}, home_.work(),
                        kNobody);
  }
  std::string trace() const { return vyntest::slurp(home_.home() + "/log/vyn_profile.trc"); }

  vyntest::TempHome home_;
};

TEST_F(CommandTraceTest, AMissingRegistryIsTracedAndTheUserGetsTheFallback) {
  std::string store = home_.root() + "/none.db";
  Outcome r = vyn({"-print", "r1"}, store);
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err.find("trace"), std::string::npos) << r.err;
  std::string t = trace();
  EXPECT_NE(t.find("VYNVRG: VRG context init failure: "), std::string::npos) << t;
  EXPECT_NE(t.find(store), std::string::npos) << "the store's own reason is kept: " << t;
}

TEST_F(CommandTraceTest, ACorruptRegistryIsTracedAndTheUserGetsTheFallback) {
  std::string store = home_.root() + "/bad.db";
  vyntest::spit(store, std::string(4096, 'Z'));
  fs::permissions(store, fs::perms::all);
  Outcome r = vyn({"-print", "r1"}, store);
  Outcome missing = vyn({"-print", "r1"}, home_.root() + "/none.db");
  EXPECT_EQ(r.status, missing.status);
  EXPECT_EQ(r.out, missing.out);
  EXPECT_NE(trace().find("VYNVRG: VRG context init failure: "), std::string::npos) << trace();
}

TEST_F(CommandTraceTest, AUserWhoMayNotWriteTheLogDirectoryGetsTheSameRunWithoutATrace) {
  Outcome before = vyn({"-print", "r1"}, home_.root() + "/none.db");
  fs::remove(home_.home() + "/log/vyn_profile.trc");
  fs::permissions(home_.home() + "/log", fs::perms::owner_all | fs::perms::group_read | fs::perms::others_read |
                                             fs::perms::group_exec | fs::perms::others_exec);
  Outcome r = vyn({"-print", "r1"}, home_.root() + "/none.db");
  EXPECT_EQ(r.status, before.status);
  EXPECT_EQ(r.out, before.out);
  EXPECT_EQ(r.err, before.err) << "the shared home's trace is the administrator's, not the user's concern";
  EXPECT_FALSE(fs::exists(home_.home() + "/log/vyn_profile.trc"));
}

}  // namespace
