// Tests of the cluster queries over real registry stores. The membership client below them
// belongs to the process, so each test that asks the cluster runs in a process of its own (a
// death test that exits with the number of the first check that failed, 0 when all held).
#include "caa/lib/caa_Cluster.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>

#include "platform/gmx/gmx_backend.h"
#include "platform/registry/prvrg.h"
#include "platform/trace/dtr.h"

namespace fs = std::filesystem;
using CAA::Cluster;
using CAA::ClusterException;

namespace {

// The exception's text without the line that says where it was thrown, or "" when none came.
std::string thrownBy(const std::function<void()>& f) {
  try {
    f();
  } catch (const ClusterException& e) {
    std::string text = e.what();
    const std::string where = "\n(File: caa_Cluster, line: ";
    std::size_t at = text.find(where);
    if (at == std::string::npos || text.back() != '\n' || e.className() != "ClusterException") return "<bad form>";
    return text.substr(0, at);
  }
  return "";
}

// The test's directory. A death test's child leaves through finish(), which removes the
// directory its own run of SetUp made, since TearDown does not run there.
std::string g_dir;

[[noreturn]] void finish(int code) {
  std::error_code ec;
  fs::remove_all(g_dir, ec);
  std::exit(code);
}

class ClusterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // A child runs the test anew from the start, so that it has no client of the parent's.
    savedStyle_ = ::testing::FLAGS_gtest_death_test_style;
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    char tmpl[] = "/tmp/cluster_test.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    g_dir = dir_;
    fs::create_directories(dir_ + "/log");
    setenv("VYN_REGISTRY", (dir_ + "/reg.db").c_str(), 1);
    setenv("VYN_NODE_NAME", "Beta.example.com", 1);
    setenv("GMX_CLUSTERNAME", "c", 1);
    setenv("ZEL_VYN_HOME", dir_.c_str(), 1);
    char err[1024];
    std::size_t len = sizeof err;
    ASSERT_EQ(prvrg_init_ext(&reg_, PRVRG_LEVEL_DEFAULT, err, &len, PRVRG_FLAG_CREATE), PRVRG_SUCC) << err;
    set("SYSTEM.gmx.node.1", "alpha");
    set("SYSTEM.gmx.node.2", "BETA");
    set("SYSTEM.gmx.node.3", "gamma.example.com");
  }
  void TearDown() override {
    ::testing::FLAGS_gtest_death_test_style = savedStyle_;
    prvrg_terminate(reg_);
    for (const char* v : {"VYN_REGISTRY", "VYN_NODE_NAME", "GMX_CLUSTERNAME", "ZEL_VYN_HOME"}) unsetenv(v);
    dtrreset();  // the trace file of this test's home is not the next test's
    fs::remove_all(dir_);
  }

  void set(const std::string& key, const std::string& value) {
    ASSERT_EQ(prvrg_create_n_set_key(reg_, nullptr, key.c_str(), nullptr, nullptr, prvrg_dtype_ZELTEXT, value.c_str(),
                                     value.size() + 1, prvrg_security{}),
              PRVRG_SUCC);
  }
  void up(int node) { set("SYSTEM.gmx.group.c_NG." + std::to_string(node), std::to_string(gmx::wallClockMs()) + " 60000 1"); }

  std::string dir_;
  std::string savedStyle_;
  prvrg_ctx* reg_ = nullptr;
};

TEST_F(ClusterTest, NamesAreComparedShortAndInLowerCase) {
  EXPECT_EQ(Cluster::ToShortAndLower("Node1.Example.COM"), "node1");
  EXPECT_EQ(Cluster::ToShortAndLower("NODE2"), "node2");
  EXPECT_EQ(Cluster::ToShortAndLower(".hidden"), "");
  EXPECT_EQ(Cluster::getLocalhost(), "beta");
  EXPECT_EQ(Cluster::getMemberLockName("x"), "_ZEL_VYN_MEMBER_x");
  EXPECT_EQ(Cluster::getMemberLockName(""), "_ZEL_VYN_MEMBER_beta");
  EXPECT_STREQ(CAA::CLUSTER_FAILOVER_LOCK, "_ZEL_VYN_FAILOVER");
  EXPECT_STREQ(CAA::VYN_BOOT_LOCK, "_ZEL_VYN_BOOT");
  setenv("VYN_NODE_NAME", ".nameless", 1);
  EXPECT_EQ(thrownBy([] { Cluster::getLocalhost(); }), "ToShortAndLower returned NULL name");
}

TEST_F(ClusterTest, MembersAreKnownByNameWithTheirIdsAndStates) {
  up(2);
  up(3);
  EXPECT_EXIT(finish([]() -> int {
        if (Cluster::getMemberId("Gamma") != "3" || CAA::getId("alpha.x") != 1) return 1;
        if (Cluster::getState("alpha") != 0 || Cluster::getState("beta.example.com") != 1) return 2;
        CAA::hstate_t members;
        if (Cluster::getMembers(members) != 3) return 3;
        if (members != CAA::hstate_t{{"alpha", 0}, {"beta", 1}, {"gamma", 1}}) return 4;
        if (!Cluster::amMaster()) return 5;  // beta is the lowest id that is up
        if (Cluster::getInterconnect("Alpha.example.com") != "alpha") return 6;
        if (CAA::maxMembers() != 255) return 7;
        return 0;
      }()),
      ::testing::ExitedWithCode(0), "");
}

TEST_F(ClusterTest, OnlyTheLowestMemberThatIsUpIsMaster) {
  up(1);
  up(2);
  EXPECT_EXIT(finish(Cluster::amMaster() ? 1 : 0), ::testing::ExitedWithCode(0), "");
  setenv("VYN_NODE_NAME", "alpha", 1);
  EXPECT_EXIT(finish(Cluster::amMaster() ? 0 : 1), ::testing::ExitedWithCode(0), "");
}

TEST_F(ClusterTest, NoMemberUpMeansNoMaster) {
  EXPECT_EXIT(finish(Cluster::amMaster() ? 1 : 0), ::testing::ExitedWithCode(0), "");
}

TEST_F(ClusterTest, AnUnknownNameIsAFailureThatIsLoggedAndThrown) {
  EXPECT_EXIT(finish([]() -> int {
        if (thrownBy([] { Cluster::getMemberId("delta"); }) != "cluinfo(memberid) failed for delta") return 1;
        if (thrownBy([] { Cluster::getState("Delta.x"); }) != "cluinfo(memberid) failed for delta") return 2;
        std::ifstream in(dtrTraceFile());
        std::stringstream trace;
        trace << in.rdbuf();
        if (trace.str().find("VYNGMX:[PANIC] cluinfo(memberid) failed for delta\n") == std::string::npos) return 3;
        return 0;
      }()),
      ::testing::ExitedWithCode(0), "");
}

TEST_F(ClusterTest, WithoutAStoreQuestionsFailButTheNameStands) {
  setenv("VYN_REGISTRY", (dir_ + "/none.db").c_str(), 1);
  EXPECT_EXIT(finish([]() -> int {
        if (Cluster::getLocalhost() != "beta") return 1;
        if (thrownBy([] { Cluster::getMemberId("alpha"); }) != "cluinfo(memberid) failed for alpha") return 2;
        CAA::hstate_t members;
        if (thrownBy([&] { Cluster::getMembers(members); }) != "clu_get_info failed") return 3;
        if (thrownBy([] { Cluster::amMaster(); }) != "clu_info(CLU_INFO_MY_ID) failed") return 4;
        if (Cluster::getInterconnect("Alpha.x") != "Alpha.x") return 5;
        if (CAA::maxMembers() != 0) return 6;  // not cached: asked again once the client is up
        return 0;
      }()),
      ::testing::ExitedWithCode(0), "");
}

// Whole seconds: the notes are kept in seconds.
double secondsOf(const std::function<void()>& f) {
  auto t0 = std::chrono::steady_clock::now();
  f();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

TEST_F(ClusterTest, SleepWithQuorumReturnsAfterAnUnbrokenStretch) {
  Cluster::gainedQuorum(std::time(nullptr) - 100);
  double held = secondsOf([] { Cluster::sleepWithQuorum(1); });
  EXPECT_GE(held, 1.0);
  EXPECT_LT(held, 1.9);

  // Lost during the first pass, regained (long ago, as the note says) during the second: the
  // second pass sleeps the whole time again.
  std::thread notes([] {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    Cluster::lostQuorum(std::time(nullptr));
    std::this_thread::sleep_for(std::chrono::milliseconds(1000));
    Cluster::gainedQuorum(std::time(nullptr) - 100);
  });
  double broken = secondsOf([] { Cluster::sleepWithQuorum(1); });
  notes.join();
  EXPECT_GE(broken, 2.0);
  EXPECT_LT(broken, 2.9);
}

}  // namespace
