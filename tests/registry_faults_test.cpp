// The command against a registry store that is missing, held locked by another process, or
// damaged: an ordinary user's command goes on with its fallback (the public directory for the
// default directory, an error line where the home itself was to come from the registry), ends
// within a few seconds, and leaves the store's own reason in the trace file.
//
// The time bound here is loose on purpose: it catches a command that waits once per registry call
// instead of once in all. The exact waits are measured, not tested.
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <random>
#include <string>

#include "platform/registry/prvrg_test_util.h"
#include "program_runner.h"

namespace fs = std::filesystem;
using vyntest::Outcome;
using vyntest::StoreLocker;

namespace {

const double kBoundSeconds = 15.0;
const char kProfile[] = "NAME=x\nTYPE=application\nDESCRIPTION=kept in the public directory\n";

class RegistryFaults : public ::testing::Test {
 protected:
  void SetUp() override {
    // An ordinary user: nobody when the test runs as root, else the test's own user.
    uid_ = geteuid() == 0 ? 65534 : -1;
    for (const auto& entry : fs::recursive_directory_iterator(home_.home()))
      fs::permissions(entry.path(), fs::perms::all);
    fs::permissions(home_.home(), fs::perms::all);
    fs::permissions(home_.work(), fs::perms::all);
    vyntest::spit(home_.home() + "/vyn/public/x.cap", kProfile);
    store_ = home_.root() + "/reg.db";
    // The registry names an empty default directory, so a profile printed from the public one
    // shows that the registry was not used.
    std::string elsewhere = home_.root() + "/elsewhere";
    fs::create_directories(elsewhere);
    fs::permissions(elsewhere, fs::perms::all);
    ASSERT_EQ(vrg({"set", "SYSTEM.vyn.user_default_dir", elsewhere}).status, 0);
    ASSERT_EQ(vrg({"set", "SYSTEM.ZEL_VYN_HOME", home_.home()}).status, 0);
  }

  Outcome vrg(const std::vector<std::string>& args) {
    return vyntest::run(vyntest::binary("vyn_vrg"), args, {{"VYN_REGISTRY", store_}}, home_.work());
  }

  // `vyn_profile -print x` as an ordinary user; `withHome` false leaves the home to the registry.
  Outcome printX(bool withHome = true) {
    std::map<std::string, std::string> env = {{"VYN_REGISTRY", store_}, {"LANG", "C"}};
    if (withHome) env["ZEL_VYN_HOME"] = home_.home();
    auto t0 = std::chrono::steady_clock::now();
    Outcome o = vyntest::run(vyntest::binary("vyn_profile"), {"-print", "x"}, env, home_.work(), uid_);
    seconds_ = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    return o;
  }

  void damageStore() {
    std::mt19937 bytes(7);
    std::string junk(8192, '\0');
    for (char& c : junk) c = static_cast<char>(bytes() & 0xff);
    vyntest::spit(store_, junk);
  }

  std::string trace() const { return vyntest::slurp(home_.home() + "/log/vyn_profile.trc"); }

  // The command went on with the public directory.
  void expectPrintedFromPublic(const Outcome& o, const std::string& what) {
    EXPECT_EQ(o.status, 0) << what << "\n" << o.out << o.err;
    EXPECT_EQ(o.out, std::string(kProfile) + "\n\n") << what;
    EXPECT_EQ(o.err, "") << what;
    EXPECT_LT(seconds_, kBoundSeconds) << what;
  }

  vyntest::TempHome home_;
  std::string store_;
  int uid_ = -1;
  double seconds_ = 0;
};

TEST_F(RegistryFaults, AHealthyStoreNamesTheDefaultDirectory) {
  Outcome o = printX();
  EXPECT_EQ(o.status, 1);
  EXPECT_EQ(o.out, "VYN-0181: The profile x cannot be read.\n\n\n");
}

TEST_F(RegistryFaults, AMissingStoreLeavesThePublicDirectory) {
  fs::remove(store_);
  expectPrintedFromPublic(printX(), "missing store");
  EXPECT_FALSE(fs::exists(store_)) << "a read never creates the store";
}

TEST_F(RegistryFaults, ALockedStoreCostsOneBoundedWait) {
  StoreLocker holder(store_);
  ASSERT_TRUE(holder.locked());
  expectPrintedFromPublic(printX(), "locked store");
  EXPECT_NE(trace().find("registry store " + store_ + ": database is locked"), std::string::npos) << trace();

  // Where the home itself was to come from the registry, the command ends with the reason.
  Outcome o = printX(false);
  EXPECT_EQ(o.status, 1);
  EXPECT_EQ(o.out, "registry store " + store_ + ": database is locked\n");
  EXPECT_LT(seconds_, kBoundSeconds);
}

TEST_F(RegistryFaults, ADamagedStoreIsGivenUpAtOnce) {
  damageStore();
  expectPrintedFromPublic(printX(), "damaged store");
  EXPECT_NE(trace().find("registry store " + store_ + ": file is not a database"), std::string::npos) << trace();

  Outcome o = printX(false);
  EXPECT_EQ(o.status, 1);
  EXPECT_EQ(o.out, "registry store " + store_ + ": file is not a database\n");
  EXPECT_LT(seconds_, kBoundSeconds);
}

}  // namespace
