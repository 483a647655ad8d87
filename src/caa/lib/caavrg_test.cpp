#include "caa/lib/caavrg.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "cppgen/cls_testutil.h"
#include "platform/host/utlhost.h"
#include "platform/registry/prvrg.h"

namespace {

namespace fs = std::filesystem;
using clstest::bare;
using clstest::runInChild;

class CaavrgTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/vyn_caavrg.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    fs::create_directories(dir_ + "/log");
    setenv("ZEL_VYN_HOME", dir_.c_str(), 1);
    setenv("VYN_REGISTRY", (dir_ + "/reg.db").c_str(), 1);
    dtrSetProgram("caavrg");
    char host[512] = {0};
    ASSERT_GE(utlhost(host, sizeof host), 0);
    host_ = host;
  }
  void TearDown() override {
    caavrgTerm();
    caalvgTerm();
    unsetenv("VYN_REGISTRY");
    dtrreset();
    std::error_code ec;
    fs::remove_all(dir_, ec);
  }

  // A store holding the given text values.
  void makeStore(const std::vector<std::pair<std::string, std::string>>& values) {
    prvrg_ctx* c = nullptr;
    char err[1024];
    std::size_t len = sizeof err;
    ASSERT_EQ(prvrg_init_ext(&c, PRVRG_LEVEL_DEFAULT, err, &len, PRVRG_FLAG_CREATE), 0) << err;
    for (const auto& kv : values) {
      prvrg_key* k = nullptr;
      int created = 0;
      if (kv.second.empty()) {
        ASSERT_EQ(prvrg_create_key(c, nullptr, kv.first.c_str(), &k, &created, prvrg_security{}), 0);
      } else {
        ASSERT_EQ(prvrg_create_n_set_key(c, nullptr, kv.first.c_str(), &k, &created, prvrg_dtype_ZELTEXT,
                                         kv.second.c_str(), kv.second.size() + 1, prvrg_security{}),
                  0);
      }
      prvrg_close_key(c, k);
    }
    prvrg_terminate(c);
  }
  std::string trace() const { return bare(clstest::slurp(dir_ + "/log/caavrg.trc")); }

  std::string dir_, host_;
};

TEST_F(CaavrgTest, AMissingStoreGivesTwoAndTheCallerFallsBack) {
  char val[16] = "untouched";
  ub4 size = sizeof val;
  EXPECT_EQ(caavrgReadVRGKey(CaaVRGKeys::DefaultDir, val, &size, nullptr), 2);
  EXPECT_STREQ(val, "untouched");
  EXPECT_EQ(caavrgtrygetctx(), nullptr);
  std::string t = trace();
  EXPECT_EQ(t.rfind("VYNVRG: VRG context init failure: ", 0), 0u) << t;
  EXPECT_EQ(std::count(t.begin(), t.end(), '\n'), 2) << "each call tries again:\n" << t;
}

TEST_F(CaavrgTest, ACorruptStoreIsTheCallersStatusNotACrash) {
  std::ofstream(dir_ + "/reg.db") << std::string(4096, '\x5a');
  char val[64] = "";
  ub4 size = sizeof val;
  EXPECT_NE(caavrgReadVRGKey(CaaVRGKeys::DefaultDir, val, &size, nullptr), 0);
  EXPECT_NE(trace().find("VYNVRG: VRG "), std::string::npos) << trace();
}

TEST_F(CaavrgTest, ALockedStoreIsTheCallersStatusNotACrash) {
  makeStore({{"SYSTEM.vyn.user_default_dir", "/srv/profiles"}});
  sqlite3* holder = nullptr;
  ASSERT_EQ(sqlite3_open((dir_ + "/reg.db").c_str(), &holder), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(holder, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr), SQLITE_OK);
  char val[64] = "";
  ub4 size = sizeof val;
  int rc = caavrgReadVRGKey(CaaVRGKeys::DefaultDir, val, &size, nullptr);
  sqlite3_exec(holder, "ROLLBACK", nullptr, nullptr, nullptr);
  sqlite3_close(holder);
  EXPECT_NE(rc, 0);
  EXPECT_NE(rc, 3) << "a lock is not a bad handle";
}

TEST_F(CaavrgTest, KeysAreReadAndOnlyAMissingKeyIsQuiet) {
  makeStore({{"SYSTEM.vyn.user_default_dir", "/srv/profiles"}, {"SYSTEM.vyn.novalue", ""}});
  char val[64] = "";
  ub4 size = sizeof val;
  EXPECT_EQ(caavrgReadVRGKey(CaaVRGKeys::DefaultDir, val, &size, nullptr), 0);
  EXPECT_STREQ(val, "/srv/profiles");
  EXPECT_EQ(size, std::strlen("/srv/profiles") + 1);
  size = sizeof val;
  EXPECT_EQ(caavrgReadVRGKey("SYSTEM.vyn.absent", val, &size, nullptr), 4);
  std::string before = trace();
  EXPECT_EQ(before.rfind("VYNVRG: VRG context init DEFAULT Level: 0x", 0), 0u) << before;
  EXPECT_EQ(std::count(before.begin(), before.end(), '\n'), 1) << before;
  size = sizeof val;
  EXPECT_EQ(caavrgReadVRGKey("SYSTEM.vyn.novalue", val, &size, caavrgtrygetctx()), 4);
  std::string after = trace().substr(before.size());
  EXPECT_EQ(after.rfind("VYNVRG: VRG api prvrg_get_value failed for key SYSTEM.vyn.novalue. VRG error code = 4 "
                        "VRG error msg: ",
                        0),
            0u)
      << after;
}

TEST_F(CaavrgTest, HandlesOfEachLevelAndRegistry) {
  std::string err;
  EXPECT_NE(caavrginitctx(3, &err), 0);
  EXPECT_FALSE(err.empty());
  EXPECT_NE(caalvginitctx(0x30000), 0);
  makeStore({});
  EXPECT_EQ(caavrginitctx(3, nullptr), 0);
  EXPECT_EQ(caavrginitctx(2, nullptr), 0);
  EXPECT_EQ(caavrginitctx(7, nullptr), 0);
  EXPECT_EQ(caalvginitctx(0x20000), 0);
  EXPECT_EQ(caalvginitctx(0x30000), 0);
  EXPECT_NE(caavrggetctx(), nullptr);
  EXPECT_NE(caalvggetctx(), nullptr);
  std::string t = trace();
  std::vector<std::string> starts = {"VYNVRG: VRG context init failure.  Error: " + err,
                                     "VYNVRG: LVG context init failure. Error: ",
                                     "VYNVRG: VRG context init DEFAULT Level: 0x",
                                     "VYNVRG: VRG context init REBOOT Level: 0x",
                                     "VYNVRG: VRG context init CACHE Level: 0x",
                                     "VYNVRG: LVG context init REBOOT Level: 0x",
                                     "VYNVRG: LVG context init DEFAULT Level: 0x"};
  std::istringstream in(t);
  std::string line;
  for (const std::string& s : starts) {
    ASSERT_TRUE(std::getline(in, line));
    EXPECT_EQ(line.rfind(s, 0), 0u) << line;
  }
}

TEST_F(CaavrgTest, DebugLevelsLiveUnderTheHostsKey) {
  EXPECT_EQ(getDebugString(1), "vyn");
  EXPECT_EQ(getDebugString(2), "evm");
  EXPECT_EQ(getDebugString(8), "default");
  EXPECT_EQ(caavrgGetDebugKey("vyn", "MixedCase"), "vyn.debug." + host_ + ".MIXEDCASE");
  makeStore({{"SYSTEM.default.debug." + host_ + ".VYNSEC", "3"}});
  ub4 level = 99;
  EXPECT_EQ(caavrgGetDebugLevel("vynsec", &level, 8), 0);
  EXPECT_EQ(level, 3u);
  level = 99;
  EXPECT_EQ(caavrgGetDebugLevel("other", &level, 8), 0);
  EXPECT_EQ(level, 0u) << "an absent key is level 0";
  EXPECT_EQ(caavrgSetDebugLevel("other", 5, 2), 0);
  EXPECT_EQ(caavrgGetDebugLevel("OTHER", &level, 2), 0);
  EXPECT_EQ(level, 5u);
  std::string t = trace();
  EXPECT_NE(t.find("VYNVRG: CAAVRG GET Debug sblevel Level[vynsec]: 3\nVYNVRG: CAAVRG GET Debug level Level[vynsec]: 3\n"),
            std::string::npos)
      << t;
}

TEST_F(CaavrgTest, DebugLevelWithoutARegistryIsTwo) {
  ub4 level = 99;
  EXPECT_EQ(caavrgGetDebugLevel("vynsec", &level, 8), 2);
  EXPECT_EQ(level, 0u);
  EXPECT_NE(trace().find("VYNVRG: CAAVRG GET Debug Level Return Code[vynsec]: 2\n"), std::string::npos) << trace();
}

TEST_F(CaavrgTest, FatalEndsWithOneExitEndsWithZero) {
  clstest::ChildOutcome o = runInChild([] { caavrgFatal("unit.cpp", 12, "It broke"); });
  EXPECT_EQ(o.status, 1);
  EXPECT_EQ(o.err, "VYND Exiting. VRG Failed\n");
  EXPECT_EQ(bare(o.trace), "VYNVRG:[PANIC] It broke(File: unit.cpp, line: 12)\n[PANIC] VYND Exiting. VRG Failed\n Done.\n");

  o = runInChild([] { caavrgExit("unit.cpp", 13, "Invalid VRG Context"); });
  EXPECT_EQ(o.status, 0);
  EXPECT_EQ(o.err, "");
  EXPECT_EQ(bare(o.trace), "VYNVRG: Invalid VRG Context(File: unit.cpp, line: 13)\n VYND Exiting. VRG Failed\n Done.\n");

  o = runInChild([] {
    caavrgTerm();
    caavrggetctx();
  });
  EXPECT_EQ(o.status, 1);
  EXPECT_NE(o.trace.find("VRG Context is NULL(File: caavrg.cpp, line: "), std::string::npos) << o.trace;
  o = runInChild([] { caalvggetctx(); });
  EXPECT_EQ(o.status, 1);
  EXPECT_NE(o.trace.find("LVG Context is NULL(File: caavrg.cpp, line: "), std::string::npos) << o.trace;
}

TEST_F(CaavrgTest, ABadHandleEndsTheProcessWithStatusZero) {
  clstest::ChildOutcome o = runInChild([] { rtivrg_report_vrg_error(nullptr, "VYNVRG", "prvrg_open_key", "K", 3); });
  EXPECT_EQ(o.status, 0);
  EXPECT_NE(o.trace.find("VYNVRG: Invalid VRG Context(File: caavrg.cpp, line: "), std::string::npos) << o.trace;
}

}  // namespace
