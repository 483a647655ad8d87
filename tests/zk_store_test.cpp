// The suite's resource store kept on a ZooKeeper server that the test starts: what the resource
// daemon does with it (stage, commit, walk, remove), and two processes updating one resource at
// once.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "caa/lib/caavrg.h"
#include "platform/registry/prvrg.h"
#include "platform/registry/zk_test_server.h"
#include "platform/trace/dtr.h"

namespace {

using vyntest::ZkTestServer;

class ZkResourceStore : public ::testing::Test {
 protected:
  void SetUp() override {
    ZkTestServer* server = ZkTestServer::shared();
    if (server == nullptr) GTEST_SKIP() << ZkTestServer::skipReason();
    char tmpl[] = "/tmp/zk_store_test.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    std::filesystem::create_directories(dir_ + "/log");
    setenv("ZEL_VYN_HOME", dir_.c_str(), 1);
    static int serial = 0;
    setenv("VYN_REGISTRY", server->address("/zk_store_test/" + std::to_string(getpid()) + "_" + std::to_string(++serial)).c_str(), 1);
    dtrSetProgram("zk_store_test");
    // The chroot is made by a creating write, as an administrator's first vyn_vrg set makes it.
    prvrg_ctx* c = nullptr;
    char err[1024];
    std::size_t len = sizeof err;
    ASSERT_EQ(prvrg_init_ext(&c, PRVRG_LEVEL_DEFAULT, err, &len, PRVRG_FLAG_CREATE), PRVRG_SUCC) << err;
    prvrg_terminate(c);
    ASSERT_EQ(caavrginitctx(3, nullptr), 0);
    ASSERT_EQ(caavrgCrRoot(), 0);
  }
  void TearDown() override {
    caavrgTerm();
    caalvgTerm();
    unsetenv("VYN_REGISTRY");
    unsetenv("VYN_NODE_NAME");
    dtrreset();
    std::error_code ec;
    if (!dir_.empty()) std::filesystem::remove_all(dir_, ec);
  }

  std::string stored(const std::string& key) {
    char buf[256] = "";
    ub4 size = sizeof buf;
    int rc = caavrgReadVRGKey(key.c_str(), buf, &size, nullptr);
    return rc == 0 ? std::string(buf) : rc == 4 ? "<absent>" : "<rc " + std::to_string(rc) + ">";
  }
  std::vector<std::string> walk(caavrgResourceLoc loc) {
    std::vector<std::string> names;
    prvrg_key* hdl = nullptr;
    std::string name;
    int remain = 0;
    while (caavrgGetres(name, hdl, remain, loc) == 0) names.push_back(name + "/" + std::to_string(remain));
    caavrgcloseKey(hdl);
    return names;
  }
  void addComplete(const std::string& name) {
    ASSERT_EQ(caavrgSetvalue(name, "NAME", name, CURRENT, nullptr), 0);
    ASSERT_EQ(caavrgSetvalue(name, "IS_UNREGISTERING", "0", CURRENT, nullptr), 0);
  }

  std::string dir_;
};

TEST_F(ZkResourceStore, AResourceIsStagedCommittedWalkedAndRemoved) {
  prvrg_ctx* c = nullptr;
  char err[1024];
  std::size_t len = sizeof err;
  ASSERT_EQ(prvrg_init_ext(&c, PRVRG_LEVEL_DEFAULT, err, &len, 0), PRVRG_SUCC) << err;
  for (const char* kv : {"SYSTEM.gmx.node.1", "SYSTEM.gmx.node.3"}) {
    std::string v = kv[16] == '1' ? "elsewhere" : "thisnode";
    ASSERT_EQ(prvrg_create_n_set_key(c, nullptr, kv, nullptr, nullptr, prvrg_dtype_ZELTEXT, v.c_str(), v.size() + 1,
                                     prvrg_security{}),
              PRVRG_SUCC);
  }
  prvrg_terminate(c);
  setenv("VYN_NODE_NAME", "thisnode", 1);

  EXPECT_EQ(caavrgAddResource("app.1", STAGE, nullptr), 0);
  EXPECT_EQ(caavrgSetvalue("app.1", "IS_UNREGISTERING", "0", STAGE, nullptr), 0);
  EXPECT_EQ(caavrgSetvalue("app.1", "CHECK_INTERVAL", "60", STAGE, nullptr), 0);
  EXPECT_EQ(stored("VYN.STAGE.node3.app!1.IS_UNREGISTERING"), "0");
  EXPECT_EQ(caavrgCommitResource("app.1", nullptr), 0);
  EXPECT_EQ(stored("VYN.CUR.app!1.CHECK_INTERVAL"), "60");
  EXPECT_EQ(caavrgCheckKey("VYN.STAGE.node3.app!1"), 4);
  addComplete("b");
  addComplete("a.z");
  EXPECT_EQ(walk(CURRENT), (std::vector<std::string>{"a.z/2", "app.1/1", "b/0"}));
  EXPECT_EQ(caavrgRemove("app.1", CAARESCUR, nullptr), 0);
  EXPECT_EQ(caavrgLookup("app.1", CAARESCUR, nullptr), 1);
  EXPECT_EQ(stored("VYN.CUR.app!1.CHECK_INTERVAL"), "<absent>");
  EXPECT_EQ(walk(CURRENT), (std::vector<std::string>{"a.z/1", "b/0"}));
}

const int kEach = 60;

// One writer of the test below, in a process of its own: this program run again, so that no
// thread of the test's process (its sessions have some) is forked along.
TEST(ZkResourceStoreWriter, DISABLED_Writes) {
  const char* who = std::getenv("ZK_STORE_TEST_WRITER");
  ASSERT_NE(who, nullptr);
  ASSERT_EQ(caavrginitctx(3, nullptr), 0);
  for (int i = 0; i < kEach; ++i) {
    std::string v = std::to_string(i);
    ASSERT_EQ(caavrgSetvalue("web", std::string(who) + "_" + v, v, CURRENT, nullptr), 0);
    ASSERT_EQ(caavrgSetvalue("web", std::string("LAST_") + who, v, CURRENT, nullptr), 0);
    ASSERT_EQ(caavrgSetvalue("web", "SHARED", who, CURRENT, nullptr), 0);
  }
  caavrgTerm();
}

// Two processes (machines, as far as the ensemble knows) update attributes of one resource at
// once: every change of each stands.
TEST_F(ZkResourceStore, TwoWritersOfOneResourceBothKeepTheirChanges) {
  addComplete("web");
  std::vector<pid_t> kids;
  for (const char* who : {"P", "Q"}) {
    std::string env = std::string("ZK_STORE_TEST_WRITER=") + who;
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      putenv(&env[0]);
      int devnull = open("/dev/null", O_WRONLY);
      if (devnull >= 0) dup2(devnull, 1);
      execl("/proc/self/exe", "zk_store_test", "--gtest_filter=ZkResourceStoreWriter.DISABLED_Writes",
            "--gtest_also_run_disabled_tests", static_cast<char*>(nullptr));
      _exit(127);
    }
    kids.push_back(pid);
  }
  for (pid_t pid : kids) {
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  }
  std::map<std::string, std::string> m;
  ASSERT_EQ(caavrgGetValues("web", m, CURRENT, nullptr), 0);
  EXPECT_EQ(m.size(), 2u + 2 * kEach + 2 + 1);
  EXPECT_EQ(m["LAST_P"], std::to_string(kEach - 1));
  EXPECT_EQ(m["LAST_Q"], std::to_string(kEach - 1));
  EXPECT_TRUE(m["SHARED"] == "P" || m["SHARED"] == "Q") << m["SHARED"];
  EXPECT_EQ(m["IS_UNREGISTERING"], "0");
}

}  // namespace
