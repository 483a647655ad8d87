// Runs build/bin/vyn_vrg against stores in a temporary directory and checks its output and status.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

struct Outcome {
  int status;
  std::string out, err;
};

class VynVrgTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* bin = std::getenv("VYN_BIN_DIR");
    ASSERT_NE(bin, nullptr) << "VYN_BIN_DIR names the directory of vyn_vrg";
    tool_ = std::string(bin) + "/vyn_vrg";
    char tmpl[] = "/tmp/vyn_vrg_test.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    store_ = dir_ + "/var/vyn/registry.db";
  }
  void TearDown() override { fs::remove_all(dir_); }

  static std::string slurp(const std::string& path) {
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
  }

  Outcome vrg(const std::vector<std::string>& args) {
    pid_t pid = fork();
    if (pid == 0) {
      setenv("VYN_REGISTRY", store_.c_str(), 1);
      if (!freopen((dir_ + "/out").c_str(), "w", stdout) || !freopen((dir_ + "/err").c_str(), "w", stderr)) _exit(99);
      std::vector<char*> argv{const_cast<char*>(tool_.c_str())};
      for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
      argv.push_back(nullptr);
      execv(tool_.c_str(), argv.data());
      _exit(98);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return Outcome{WIFEXITED(status) ? WEXITSTATUS(status) : -1, slurp(dir_ + "/out"), slurp(dir_ + "/err")};
  }

  std::string tool_, dir_, store_;
};

TEST_F(VynVrgTest, ReadsOfAMissingStoreFailAndCreateNothing) {
  for (std::vector<std::string> args : {std::vector<std::string>{"get", "SYSTEM.ZEL_VYN_HOME"}, {"list"},
                                        {"list", "SYSTEM"}, {"delete", "SYSTEM"}}) {
    Outcome r = vrg(args);
    EXPECT_EQ(r.status, 1) << args[0];
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "vyn_vrg: registry store " + store_ + " does not exist\n");
  }
  EXPECT_FALSE(fs::exists(dir_ + "/var"));
}

TEST_F(VynVrgTest, SetGetListDelete) {
  // set makes the store, its directory and the keys on the way.
  ASSERT_EQ(vrg({"set", "SYSTEM.vyn.user_default_dir", "/srv/profiles"}).status, 0);
  ASSERT_EQ(vrg({"set", "SYSTEM.ZEL_VYN_HOME", "/opt/vyn home"}).status, 0);
  ASSERT_EQ(vrg({"set", "SYSTEM.vyn.empty", ""}).status, 0);
  EXPECT_TRUE(fs::exists(store_));

  Outcome r = vrg({"get", "SYSTEM.ZEL_VYN_HOME"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "/opt/vyn home\n");
  EXPECT_EQ(vrg({"get", "SYSTEM.vyn.empty"}).out, "\n");
  ASSERT_EQ(vrg({"set", "SYSTEM.ZEL_VYN_HOME", "/opt/vyn"}).status, 0);  // replaces
  EXPECT_EQ(vrg({"get", "SYSTEM.ZEL_VYN_HOME"}).out, "/opt/vyn\n");

  r = vrg({"list"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out,
            "SYSTEM\n"
            "SYSTEM.ZEL_VYN_HOME = /opt/vyn\n"
            "SYSTEM.vyn\n"
            "SYSTEM.vyn.empty = \n"
            "SYSTEM.vyn.user_default_dir = /srv/profiles\n");
  EXPECT_EQ(vrg({"list", "SYSTEM"}).out, "SYSTEM.ZEL_VYN_HOME = /opt/vyn\nSYSTEM.vyn\n");

  // A key without a value, and a missing key: status 1 and a line on stderr.
  r = vrg({"get", "SYSTEM.vyn"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "vyn_vrg: key SYSTEM.vyn holds no value\n");

  r = vrg({"delete", "SYSTEM.vyn"});
  EXPECT_EQ(r.status, 0);
  r = vrg({"get", "SYSTEM.vyn.user_default_dir"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "vyn_vrg: key SYSTEM.vyn.user_default_dir does not exist\n");
  EXPECT_EQ(vrg({"list"}).out, "SYSTEM\nSYSTEM.ZEL_VYN_HOME = /opt/vyn\n");

  r = vrg({"set", "SYSTEM..bad", "x"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("invalid key name"), std::string::npos);
}

TEST_F(VynVrgTest, DumpIsAnOutlineWithResourceNamesAsTheirUsersKnowThem) {
  ASSERT_EQ(vrg({"set", "VYN.CUR.db!primary.STATE", "ONLINE"}).status, 0);
  ASSERT_EQ(vrg({"set", "VYN.CUR.db!primary.IS_UNREGISTERING", "0"}).status, 0);
  ASSERT_EQ(vrg({"set", "VYN.CUR.web.NAME", "web"}).status, 0);
  ASSERT_EQ(vrg({"set", "VYN.SEC.db!primary", "owner=root"}).status, 0);
  ASSERT_EQ(vrg({"set", "VYN.STAGE.node2.a!b.STATE", "OFFLINE"}).status, 0);
  ASSERT_EQ(vrg({"set", "SYSTEM.gmx.x!y", "kept"}).status, 0);

  Outcome r = vrg({"dump", "VYN.CUR"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out,
            "VYN.CUR\n"
            "  db.primary\n"
            "    IS_UNREGISTERING = 0\n"
            "    STATE = ONLINE\n"
            "  web\n"
            "    NAME = web\n");
  EXPECT_EQ(vrg({"dump", "VYN.CUR.web.NAME"}).out, "VYN.CUR.web.NAME = web\n");
  // Below the whole tree only the keys that hold resources are shown translated back.
  r = vrg({"dump"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out,
            "SYSTEM\n"
            "  gmx\n"
            "    x!y = kept\n"
            "VYN\n"
            "  CUR\n"
            "    db.primary\n"
            "      IS_UNREGISTERING = 0\n"
            "      STATE = ONLINE\n"
            "    web\n"
            "      NAME = web\n"
            "  SEC\n"
            "    db.primary = owner=root\n"
            "  STAGE\n"
            "    node2\n"
            "      a.b\n"
            "        STATE = OFFLINE\n");

  r = vrg({"dump", "VYN.HIS"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "vyn_vrg: key VYN.HIS does not exist\n");
}

TEST_F(VynVrgTest, BadArgumentsGiveUsageAndStatus2) {
  for (std::vector<std::string> args : {std::vector<std::string>{}, {"frob"}, {"get"}, {"get", "a", "b"},
                                        {"set", "a"}, {"set", "a", "b", "c"}, {"list", "a", "b"}, {"delete"},
                                        {"dump", "a", "b"}}) {
    Outcome r = vrg(args);
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err.rfind("usage: vyn_vrg", 0), 0u);
  }
  EXPECT_FALSE(fs::exists(dir_ + "/var"));
}

}  // namespace
