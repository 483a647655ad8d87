// The profile command's direct update, end to end: the operation runs in a child process with a
// copy of the shipped home and a store of its own, as the command would run it, and the built
// vyn_vrg shows what the store holds afterwards.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "direct_update_runner.h"
#include "program_runner.h"

namespace {

using vyntest::Outcome;

class DirectUpdate : public ::testing::Test {
 protected:
  DirectUpdate() : root_(home_.root()), store_(root_ + "/registry.db") {}

  Outcome vrg(const std::vector<std::string>& args) {
    return vyntest::run(vyntest::binary("vyn_vrg"), args, {{"VYN_REGISTRY", store_}}, root_);
  }
  // A resource the cluster holds: complete, with a check interval of 60.
  void registerResource(const std::string& key) {
    ASSERT_EQ(vrg({"set", "VYN.CUR." + key + ".IS_UNREGISTERING", "0"}).status, 0);
    ASSERT_EQ(vrg({"set", "VYN.CUR." + key + ".CHECK_INTERVAL", "60"}).status, 0);
  }

  // Runs the direct update with the command line `args`; the status is the operation's result.
  Outcome directUpdate(const std::vector<std::string>& args, int uid = -1) {
    return vyntest::runDirectUpdate(args, {{"ZEL_VYN_HOME", home_.home()}, {"VYN_REGISTRY", store_}}, root_, uid);
  }

  vyntest::TempHome home_;
  std::string root_, store_;
};

TEST_F(DirectUpdate, TheGivenAttributesAreVisibleInTheCurrentCopy) {
  registerResource("web!1");
  registerResource("db");
  Outcome r = directUpdate({"-update", "web.1", "-h", "n1 n2", "-o", "ci=30,ra=2"});
  EXPECT_EQ(r.status, CAA::caa_SUCCESS);
  EXPECT_EQ(r.out, "Resource web.1 updated.\n");
  EXPECT_EQ(r.err, "");
  r = vrg({"dump", "VYN.CUR"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out,
            "VYN.CUR\n"
            "  db\n"
            "    CHECK_INTERVAL = 60\n"
            "    IS_UNREGISTERING = 0\n"
            "  web.1\n"
            "    CHECK_INTERVAL = 30\n"
            "    HOSTING_MEMBERS = n1 n2\n"
            "    IS_UNREGISTERING = 0\n"
            "    RESTART_ATTEMPTS = 2\n");
}

TEST_F(DirectUpdate, RefusalsChangeNothing) {
  registerResource("web");
  const std::string before = vrg({"dump"}).out;

  Outcome r = directUpdate({"-update", "db", "-o", "ci=30"});
  EXPECT_EQ(r.status, CAA::caa_FAILURE);
  EXPECT_EQ(r.out, "\nResource db is not registered.\n");
  EXPECT_EQ(r.err, "");

  // A "!" is how the store spells a dot: a name holding one would change another resource.
  r = directUpdate({"-update", "a!b.c", "-o", "ci=30"});
  EXPECT_EQ(r.status, CAA::caa_FAILURE);
  EXPECT_EQ(r.out, "\nThe resource name \"a!b.c\" is not valid.\n");

  r = directUpdate({"-update", "web"});
  EXPECT_EQ(r.status, CAA::caa_WARNING);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "VYN-0239: The request is not valid.\n\n");

  r = directUpdate({"-update", "web", "-o", "ci=30", "-zz"});
  EXPECT_EQ(r.status, CAA::caa_WARNING);
  EXPECT_EQ(r.err, "VYN-0160: Unknown or misplaced argument: -zz\n\n");

  r = directUpdate({"-print", "web"});
  EXPECT_EQ(r.status, CAA::caa_FAILURE) << "only -update leads to a direct update";
  EXPECT_EQ(r.out, "");

  EXPECT_EQ(vrg({"dump"}).out, before);
}

TEST_F(DirectUpdate, AUserWhoMayNotWriteTheStoreChangesNothing) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to run as another user";
  registerResource("web");
  const std::string before = vrg({"dump"}).out;
  Outcome r = directUpdate({"-update", "web", "-o", "ci=30"}, 65534);
  EXPECT_EQ(r.status, CAA::caa_FAILURE);
  EXPECT_EQ(r.out, "\nResource web cannot be changed: the resource store may not be written by this user.\n");
  EXPECT_EQ(vrg({"dump"}).out, before);
}

TEST_F(DirectUpdate, AStoreThatCannotBeReachedIsAConnectionFailure) {
  Outcome r = directUpdate({"-update", "web", "-o", "ci=30"});
  EXPECT_EQ(r.status, CAA::caa_FAILURE);
  EXPECT_EQ(r.out, "184\n");
  EXPECT_EQ(r.err, "VYN-0184: Cannot connect to the cluster's resource manager.\n\n");
}

}  // namespace
