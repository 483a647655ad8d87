// Tests of the membership client's upper layer. Its context belongs to the process, so each test
// that makes one runs in a process of its own (a death test that exits with the number of the
// first check that failed, 0 when all held).
#include "evm/libevm/cluinfo.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "platform/gmx/gmx_backend.h"
#include "platform/registry/prvrg.h"
#include "platform/trace/dtr.h"

namespace fs = std::filesystem;

namespace {

std::string slurp(const std::string& path) {
  std::ifstream in(path);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

// The test's directory. A death test's child leaves through finish(), which removes the
// directory its own run of SetUp made, since TearDown does not run there.
std::string g_dir;

[[noreturn]] void finish(int code) {
  std::error_code ec;
  fs::remove_all(g_dir, ec);
  std::exit(code);
}

class CluinfoTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // A child runs the test anew from the start, so that it has no client of the parent's.
    savedStyle_ = ::testing::FLAGS_gtest_death_test_style;
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    char tmpl[] = "/tmp/cluinfo_test.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    g_dir = dir_;
    fs::create_directories(dir_ + "/log");
    setenv("VYN_REGISTRY", (dir_ + "/reg.db").c_str(), 1);
    setenv("VYN_NODE_NAME", "Beta.example.com", 1);
    setenv("GMX_CLUSTERNAME", "c", 1);
    setenv("ZEL_VYN_HOME", dir_.c_str(), 1);
    prvrg_ctx* reg = nullptr;
    char err[1024];
    std::size_t len = sizeof err;
    ASSERT_EQ(prvrg_init_ext(&reg, PRVRG_LEVEL_DEFAULT, err, &len, PRVRG_FLAG_CREATE), PRVRG_SUCC) << err;
    auto set = [reg](const std::string& key, const std::string& value) {
      return prvrg_create_n_set_key(reg, nullptr, key.c_str(), nullptr, nullptr, prvrg_dtype_ZELTEXT, value.c_str(),
                                    value.size() + 1, prvrg_security{});
    };
    ASSERT_EQ(set("SYSTEM.gmx.node.1", "alpha"), PRVRG_SUCC);
    ASSERT_EQ(set("SYSTEM.gmx.node.2", "beta"), PRVRG_SUCC);
    ASSERT_EQ(set("SYSTEM.gmx.group.c_NG.1", std::to_string(gmx::wallClockMs()) + " 60000 1"), PRVRG_SUCC);
    prvrg_terminate(reg);
  }
  void TearDown() override {
    ::testing::FLAGS_gtest_death_test_style = savedStyle_;
    for (const char* v : {"VYN_REGISTRY", "VYN_NODE_NAME", "GMX_CLUSTERNAME", "ZEL_VYN_HOME"}) unsetenv(v);
    fs::remove_all(dir_);
  }

  std::string dir_;
  std::string savedStyle_;
};

TEST_F(CluinfoTest, BeforeTheContextIsMadeEveryRequestFails) {
  EXPECT_EXIT(finish([&]() -> int {
        int id = 0;
        clu_gen_info* info = nullptr;
        if (clu_is_ready() != 0) return 1;
        if (clu_info(CLU_INFO_MY_ID, &id) != 1) return 2;
        if (clu_get_info(&info) != 1 || clu_free_info(&info) != 1) return 3;
        if (clu_is_member() != 0) return 4;
        if (clugetctx() != nullptr || clu_getgmxsctx() != nullptr) return 5;
        return 0;
      }()),
      ::testing::ExitedWithCode(0), "");
}

TEST_F(CluinfoTest, TheContextIsMadeOnceAndAnswersForTheProcess) {
  EXPECT_EXIT(finish([&]() -> int {
        if (clu_ctxinit(nullptr, nullptr) != 0) return 1;
        clscluctx* first = clugetctx();
        if (clu_ctxinit(nullptr, nullptr) != 0 || clugetctx() != first) return 2;
        if (clu_is_ready() != 1 || clu_getgmxsctx() == nullptr) return 3;
        int id = 0;
        if (clu_info(CLU_INFO_MY_ID, &id) != 0 || id != 2) return 4;
        if (clu_info(CLU_INFO_MEMBERID_BY_NAME, "ALPHA", &id) != 0 || id != 1) return 5;
        char buf[16];
        std::memset(buf, 'x', sizeof buf);
        if (clu_info(CLU_INFO_INTERCONNECT, "alpha.x", buf, static_cast<int>(sizeof buf)) != 0 ||
            std::string(buf) != "alpha.x")
          return 6;
        // Requests of the lower layer alone.
        if (clu_info(CLU_INFO_CLU_NAME, buf, static_cast<int>(sizeof buf)) != 1) return 7;
        if (clu_info(CLU_INFO_NODENAME_BY_ID, 1, buf, static_cast<int>(sizeof buf)) != 1) return 8;
        char state[3] = {9, 9, 9};
        if (clu_info(CLU_INFO_MEMBSTATE, 3, state) != 0 || std::string(state, 3) != std::string("\0\1\0", 3))
          return 9;
        clu_gen_info* info = nullptr;
        if (clu_get_info(&info) != 0 || info->clu_num_of_members != 2 || info->memblist[0].state != 1 ||
            info->memblist[1].state != 0)
          return 10;
        if (clu_free_info(&info) != 0 || info != nullptr) return 11;
        if (clu_is_member() != 0) return 12;  // node 2 has no heartbeat
        return 0;
      }()),
      ::testing::ExitedWithCode(0), "");
}

TEST_F(CluinfoTest, ANodeIsAMemberWhileItsHeartbeatIsFresh) {
  setenv("VYN_NODE_NAME", "alpha", 1);
  EXPECT_EXIT(finish([&]() -> int {
        if (clu_is_member() != 0) return 1;  // no context yet
        if (clu_ctxinit(nullptr, nullptr) != 0) return 2;
        return clu_is_member() == 1 ? 0 : 3;
      }()),
      ::testing::ExitedWithCode(0), "");
}

TEST_F(CluinfoTest, AFailedStartLeavesNoContextAndMayBeTriedAgain) {
  std::string store = dir_ + "/reg.db";
  setenv("VYN_REGISTRY", (dir_ + "/none.db").c_str(), 1);
  EXPECT_EXIT(finish([&]() -> int {
        if (clu_ctxinit(nullptr, nullptr) == 0 || clu_is_ready() != 0) return 1;
        setenv("VYN_REGISTRY", store.c_str(), 1);
        if (clu_ctxinit(nullptr, nullptr) != 0 || clu_is_ready() != 1) return 2;
        return 0;
      }()),
      ::testing::ExitedWithCode(0), "");
}

TEST_F(CluinfoTest, TraceLinesGoToTheirComponentWhileTracingIsOn) {
  EXPECT_EXIT(finish([&]() -> int {
        dtrreset();
        int off = 0;
        evmclstrc(&off, "quiet %d", 1);
        evmclstrc(&evmclu_tracing, "heard %d", 2);
        std::string trace = slurp(dtrTraceFile());
        if (trace.find("quiet") != std::string::npos) return 1;
        if (trace.find("CLUCLS") == std::string::npos || trace.find("heard 2") == std::string::npos) return 2;
        return 0;
      }()),
      ::testing::ExitedWithCode(0), "");
}

// In a child as well: the home, once looked up, stays with the process.
TEST_F(CluinfoTest, TheOwnTraceFileIsAppendedToPerNode) {
  EXPECT_EXIT(finish([this]() -> int {
        if (evmcls_iprintf("abc", 3) != 3 || evmcls_iprintf("de\n", 3) != 3) return 1;
        if (slurp(dir_ + "/log/evm_clss_beta.trc") != "abcde\n") return 2;
        if (evmcls_iprintf("", 0) != 0) return 3;
        return 0;
      }()),
      ::testing::ExitedWithCode(0), "");
}

TEST_F(CluinfoTest, TheOwnTraceFileNeedsAHome) {
  unsetenv("ZEL_VYN_HOME");
  // The child dies before it could clean up: its directory goes first.
  EXPECT_DEATH((fs::remove_all(g_dir), evmcls_iprintf("x", 1)), "evmcls_iprintf: ZEL_VYN_HOME is not set");
}

}  // namespace
