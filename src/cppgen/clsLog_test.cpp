#include "cppgen/clsLog.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "caa/lib/caavrg.h"
#include "cppgen/cls_testutil.h"
#include "platform/host/utlhost.h"
#include "platform/registry/prvrg.h"

namespace CLS_Debug {
namespace {

namespace fs = std::filesystem;

std::vector<std::string> readLines(const std::string& path) {
  std::vector<std::string> lines;
  std::ifstream in(path);
  std::string line;
  while (std::getline(in, line)) lines.push_back(line);
  return lines;
}

CLSlogModuleInfo info(const std::string& name, ub4 level = 1) {
  return CLSlogModuleInfo{name + " Component", name, level, 0, LOG_PRST, nullptr, 1024};
}

// Each test works in its own home; module names are unique per test, since a module registers
// once per process.
class ClsLogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/vyn_clslog.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    home_ = tmpl;
    fs::create_directories(home_ + "/log");
    setenv("ZEL_VYN_HOME", home_.c_str(), 1);
    dtrSetProgram("clslog");
  }
  void TearDown() override {
    unsetenv("ZEL_VYNDEBUG_ALL");
    dtrreset();
    std::error_code ec;
    fs::remove_all(home_, ec);
  }
  // The trace lines without their time stamp and ids.
  std::vector<std::string> traced() const {
    std::vector<std::string> out;
    for (const std::string& l : readLines(home_ + "/log/clslog.trc")) out.push_back(l.substr(l.find("] ") + 2));
    return out;
  }
  std::string home_;
};

TEST_F(ClsLogTest, TheModulesOwnVariableBeatsTheGeneralOneAndBadValuesArePassedOver) {
  setenv("ZEL_VYNDEBUG_ALL", "3", 1);
  setenv("ZEL_VYNDEBUG_LVOWN", "0", 1);
  setenv("ZEL_VYNDEBUG_LVEMPTY", "", 1);
  setenv("ZEL_VYNDEBUG_LVWORD", "abc", 1);
  setenv("ZEL_VYNDEBUG_LVNEG", "-2", 1);
  EXPECT_EQ(CLSlogModule::registerModule(info("LVOWN")).getClsdLevelLog(), 0u);
  EXPECT_EQ(CLSlogModule::registerModule(info("LVALL")).getClsdLevelLog(), 3u);
  EXPECT_EQ(CLSlogModule::registerModule(info("LVEMPTY")).getClsdLevelLog(), 3u) << "empty changes nothing";
  EXPECT_EQ(CLSlogModule::registerModule(info("LVWORD")).getClsdLevelLog(), 3u);
  EXPECT_EQ(CLSlogModule::registerModule(info("LVNEG")).getClsdLevelLog(), 3u);
  unsetenv("ZEL_VYNDEBUG_ALL");
  EXPECT_EQ(CLSlogModule::registerModule(info("LVSTART", 2)).getClsdLevelLog(), 2u);
  EXPECT_EQ(traced(), (std::vector<std::string>{
                          "LVWORD: Ignoring ZEL_VYNDEBUG_LVWORD=\"abc\": a level is a decimal number 0 to 5",
                          "LVNEG: Ignoring ZEL_VYNDEBUG_LVNEG=\"-2\": a level is a decimal number 0 to 5"}));
  for (const char* v : {"LVOWN", "LVEMPTY", "LVWORD", "LVNEG"}) unsetenv((std::string("ZEL_VYNDEBUG_") + v).c_str());
}

TEST_F(ClsLogTest, ConditionalLinesPassByTheModuleLevel) {
  setenv("ZEL_VYNDEBUG_CONDLV", "0", 1);
  CLSlog log("CONDLV");
  const CLSlogModule& none = CLSlogModule::getModuleNone();
  std::ostringstream os;
  os << " dropped";
  log.out(os, NONE, none);
  EXPECT_EQ(os.str(), " dropped") << "a filtered line leaves the stream as it was";
  os.str("");
  os << " error at 0";
  log.error(os, NONE, none);
  EXPECT_EQ(os.str(), "") << "a written line drains the stream";
  os << " log at 0";
  log.log(os, FUNC_ENTER, none);

  CLSlogModule& m = CLSlogModule::getReference("CONDLV");
  m.setClsdLevelLog(1);
  os << " none at 1";
  log.out(os, NONE, none);
  m.setClsdLevelLog(4);
  os << " fine at 4";
  log.out(os, ALGO_FINE, none);
  os << " extern at 4";
  log.out(os, EXTERN_DETAIL, none);
  m.setClsdLevelLog(5);
  os << " fine at 5";
  log.out(os, ALGO_FINE, none);
  std::ostringstream dropped;
  dropped << " extern at 5";
  log.out(dropped, EXTERN_DETAIL, none);
  m.setClsdLevelLog(9);
  std::ostringstream high;
  high << " none at 9";
  log.out(high, NONE, none);
  EXPECT_EQ(m.getDetailDefault(), LOGGING) << "a level above 5 counts as 0";
  os << " logging at 9";
  log.out(os, LOGGING, none);

  EXPECT_EQ(traced(), (std::vector<std::string>{"CONDLV: error at 0", "CONDLV:[ENTER] log at 0", "CONDLV: none at 1",
                                                "CONDLV:[F-ALGO] fine at 4", "CONDLV:[EXT-LAYER] extern at 4",
                                                "CONDLV:[F-ALGO] fine at 5", "CONDLV:[LOGGING] logging at 9"}));
  unsetenv("ZEL_VYNDEBUG_CONDLV");
}

TEST_F(ClsLogTest, EveryDetailPrintsItsTag) {
  CLSlog log("TAGS");
  const DebugDetail all[] = {IN_MEMORY, LOGGING, CLS_ERROR, PANIC, NONE, FUNC_FAIL, FUNC_ENTER, ALGO_COARSE, ALGO_FINE, EXTERN_DETAIL};
  for (DebugDetail dd : all) {
    std::ostringstream os;
    os << " d" << dd;
    log.error(os, dd, CLSlogModule::getModuleNone());
  }
  EXPECT_EQ(traced(), (std::vector<std::string>{"TAGS:[IN MEM] d0", "TAGS:[LOGGING] d1", "TAGS:[ALERT] d2",
                                                "TAGS:[PANIC] d3", "TAGS: d4", "TAGS:[FFAIL] d5", "TAGS:[ENTER] d6",
                                                "TAGS: d7", "TAGS:[F-ALGO] d8", "TAGS:[EXT-LAYER] d9"}));
  const ub4 levels[] = {0, 0, 0, 0, 1, 1, 2, 3, 5, 4};
  for (DebugDetail dd : all) {
    EXPECT_EQ(debugDetail2ClsdLevelLog(dd), levels[dd]);
    EXPECT_EQ(debugDetail2ClsdLevelTrace(dd), levels[dd]);
  }
}

TEST_F(ClsLogTest, TheFirstMessageRegistersTheModuleSoLaterVariablesDoNotCount) {
  CLSlog log("FIRSTMSG");
  std::ostringstream os;
  os << " first";
  log.error(os, NONE, CLSlogModule::getModuleNone());
  setenv("ZEL_VYNDEBUG_FIRSTMSG", "5", 1);
  EXPECT_EQ(CLSlogModule::getReference("FIRSTMSG").getClsdLevelLog(), 1u);
  EXPECT_EQ(CLSlogModule::registerModule(info("FIRSTMSG")).getClsdLevelLog(), 1u) << "the name is taken";
  unsetenv("ZEL_VYNDEBUG_FIRSTMSG");
  EXPECT_EQ(&CLSlogModule::getReference("default"), &CLSlogModule::getModuleNone());
  EXPECT_EQ(CLSlogModule::getModuleNone().getClsdLevelLog(), 0u);
  EXPECT_EQ(CLSlogModule::getReference("NEVERREG").getClsdLevelLog(), 0u) << "no descriptor reads 0";
}

TEST_F(ClsLogTest, AMessageToANamedModuleUsesThatModule) {
  CLSlogModule& other = CLSlogModule::registerModule(info("OTHERMOD", 0));
  CLSlog log("OWNMOD");
  std::ostringstream os;
  os << " to the other";
  log.out(os, NONE, other);
  EXPECT_EQ(os.str(), " to the other") << "the other module's level 0 drops it";
  log.log(os, NONE, other);
  std::ostringstream desc;
  desc << " described";
  log.error(desc, NONE, other, true);
  EXPECT_EQ(traced(), (std::vector<std::string>{"OTHERMOD: to the other", "OTHERMOD(OTHERMOD Component): described"}));
}

struct FixedBase : CLSlog::AlertBaseProvider {
  int getBase() override { return 1000; }
};

TEST_F(ClsLogTest, AlertsRaiseTheirIdAndLogTheirText) {
  CLSlog log("ALERTS");
  std::ostringstream os;
  os << " it broke";
  log.alert(os, 6015, "(:CLSGEN00100:)");
  os << " two texts";
  log.alert(os, 7, reinterpret_cast<const zeltext*>("a"), reinterpret_cast<const zeltext*>("b"), nullptr);
  os << " numbers";
  log.alert(os, 8, 1, 2, 3, 4, 5, nullptr);
  os << " no provider";
  log.base_alert(os, 5, "(:D:)");
  EXPECT_EQ(os.str(), " no provider") << "dropped without a provider";
  FixedBase base;
  log.setBaseProvider(&base);
  log.base_alert(os, 5, reinterpret_cast<const zeltext*>("x"), "(:D:)");

  std::string trc = home_ + "/log/clslog.trc";
  std::vector<std::string> alerts;
  for (const std::string& l : readLines(home_ + "/log/alert.log")) alerts.push_back(l.substr(l.find("] ") + 2));
  EXPECT_EQ(alerts, (std::vector<std::string>{"alert 6015: (:CLSGEN00100:) " + trc, "alert 7: a b",
                                              "alert 8: 1 2 3 4 5", "alert 1005: x (:D:) " + trc}));
  EXPECT_EQ(traced(), (std::vector<std::string>{"ALERTS: Created alert : (:CLSGEN00100:) :  it broke",
                                                "ALERTS: two texts", "ALERTS: numbers",
                                                "ALERTS: Created alert : (:D:) :  no provider"}));
}

TEST_F(ClsLogTest, UniqueAndStartUpRegistration) {
  CLSlogModule& u = CLSlogModule::registerUnique("unique one");
  ASSERT_LE(u.getName().size(), 8u);
  EXPECT_EQ(u.getName()[0], 'R');
  EXPECT_EQ(u.getName().find_first_not_of("0123456789", 1), std::string::npos);
  EXPECT_NE(u.getClsdCompId(), nullptr);
  EXPECT_EQ(u.getClsdLevelLog(), 1u);
  EXPECT_NE(&CLSlogModule::registerUnique("unique two"), &u);

  setenv("ZEL_VYNDEBUG_STARTB", "4", 1);
  CLSlogModuleInfo infos[] = {info("STARTA", 2), info("STARTB", 1)};
  CLSlogModule::registerModules(infos, 2);
  unsetenv("ZEL_VYNDEBUG_STARTB");
  std::vector<std::string> lines = traced();
  auto has = [&](const std::string& s) { return std::find(lines.begin(), lines.end(), s) != lines.end(); };
  EXPECT_TRUE(has(" Logging level for Module: STARTA  2"));
  EXPECT_TRUE(has(" Logging level for Module: STARTB  4"));
  EXPECT_TRUE(has(" Logging level for Module: " + u.getName() + "  1"));
}

TEST_F(ClsLogTest, ALevelChangeFromTheTraceServiceReachesTheModule) {
  CLSlogModule& m = CLSlogModule::registerModule(info("CBKMOD"));
  std::string name = "CBKMOD";
  EXPECT_EQ(CLSlog::clsdCbkLog(nullptr, reinterpret_cast<zeltext*>(&name[0]), 3, DTRMKEY_INIT), 0);
  EXPECT_EQ(m.getClsdLevelLog(), 3u);
  EXPECT_EQ(m.getDetailDefault(), ALGO_COARSE);
  m.setDetailDefault(ALGO_FINE);
  EXPECT_EQ(m.getClsdLevelLog(), 5u);
  EXPECT_EQ(CLSlog::clsdCbkFilter(nullptr, nullptr, 0, 0), -1);
  EXPECT_EQ(traced(), std::vector<std::string>{" Debug level set to 3 for module CBKMOD"});
}

// The first messages of one log object from many threads at once: all lines arrive whole.
TEST_F(ClsLogTest, ManyThreadsShareOneLogObject) {
  static CLSlog shared("SHARED");
  std::vector<std::thread> threads;
  for (int t = 0; t < 6; ++t)
    threads.emplace_back([t] {
      for (int i = 0; i < 300; ++i) {
        std::ostringstream os;
        os << " t" << t << " i" << i;
        shared.error(os, NONE, CLSlogModule::getModuleNone());
        std::ostringstream off;
        off << " never";
        shared.out(off, ALGO_FINE, CLSlogModule::getModuleNone());
      }
    });
  for (auto& th : threads) th.join();
  std::vector<std::string> lines = traced();
  ASSERT_EQ(lines.size(), 1800u);
  for (const std::string& l : lines) EXPECT_EQ(l.rfind("SHARED: t", 0), 0u) << l;
}

// In the lower-stack daemon mode a module's stored registry level comes before the environment.
TEST_F(ClsLogTest, TheDaemonModeReadsStoredLevelsFromTheRegistry) {
  std::string store = home_ + "/reg.db";
  clstest::ChildOutcome o = clstest::runInChild([store] {
    setenv("VYN_REGISTRY", store.c_str(), 1);
    prvrg_ctx* c = nullptr;
    char err[1024];
    std::size_t len = sizeof err;
    if (prvrg_init_ext(&c, PRVRG_LEVEL_DEFAULT, err, &len, PRVRG_FLAG_CREATE) != 0) _exit(3);
    char host[512] = {0};
    utlhost(host, sizeof host);
    for (const char* mod : {"QSTORED", "QBOTH"}) {
      std::string key = std::string("SYSTEM.default.debug.") + host + "." + mod;
      if (prvrg_create_n_set_key(c, nullptr, key.c_str(), nullptr, nullptr, prvrg_dtype_ZELTEXT, "4", 2,
                                 prvrg_security{}) != 0)
        _exit(4);
    }
    prvrg_terminate(c);
    CLSlog::setIsQemsd(true);
    if (CLSlog::clsdCbkFilter(nullptr, nullptr, 0, 0) != 0) _exit(5);
    setenv("ZEL_VYNDEBUG_QBOTH", "2", 1);
    if (CLSlogModule::registerModule(info("QSTORED")).getClsdLevelLog() != 4) _exit(6);
    if (CLSlogModule::registerModule(info("QBOTH")).getClsdLevelLog() != 2) _exit(7);
    if (CLSlogModule::registerModule(info("QNONE", 3)).getClsdLevelLog() != 0) _exit(8);
    // A level set while running is stored for the next start.
    std::string name = "QNONE";
    CLSlog::clsdCbkLog(nullptr, reinterpret_cast<zeltext*>(&name[0]), 5, DTRMKEY_INIT);
    ub4 level = 0;
    if (caavrgGetDebugLevel("QNONE", &level, DTRMKEY_INIT) != 0 || level != 5) _exit(9);
  });
  EXPECT_EQ(o.status, 0) << o.err << o.trace;
}

}  // namespace
}  // namespace CLS_Debug
