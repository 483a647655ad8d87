#include "caa/lib/caavrg.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

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

  // A store with the three main keys, and the shared handle open on it.
  void makeResourceStore() {
    makeStore({});
    ASSERT_EQ(caavrginitctx(3, nullptr), 0);
    ASSERT_EQ(caavrgCrRoot(), 0);
  }
  // The text value of a key as the store holds it, or "<absent>".
  std::string stored(const std::string& key) {
    char buf[256] = "";
    ub4 size = sizeof buf;
    int rc = caavrgReadVRGKey(key.c_str(), buf, &size, nullptr);
    return rc == 0 ? std::string(buf) : rc == 4 ? "<absent>" : "<rc " + std::to_string(rc) + ">";
  }
  // A resource with every attribute that makes it complete.
  void addComplete(const std::string& name, caavrgResourceLoc loc = CURRENT) {
    caavrgSetvalue(name, "NAME", name, loc, nullptr);
    caavrgSetvalue(name, "IS_UNREGISTERING", "0", loc, nullptr);
  }
  std::vector<std::string> walk(caavrgResourceLoc loc) {
    std::vector<std::string> names;
    prvrg_key* hdl = nullptr;
    std::string name;
    int remain = 0;
    while (caavrgGetres(name, hdl, remain, loc) == 0) names.push_back(name + "/" + std::to_string(remain));
    EXPECT_EQ(name, "");
    EXPECT_EQ(remain, -1);
    caavrgcloseKey(hdl);
    return names;
  }

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

TEST_F(CaavrgTest, AttributesOfADottedResourceLiveOneLevelBelowTheLocation) {
  makeResourceStore();
  EXPECT_EQ(caavrgSetvalue("db.primary", "STATE", "ONLINE", CURRENT, nullptr), 0);
  EXPECT_EQ(caavrgSetvalue("db.primary", "STATE", "OFFLINE", CURRENT, nullptr), 0) << "a second write replaces";
  EXPECT_EQ(caavrgSetvalue("db.primary", "TARGET", "", HISTORY, nullptr), 0);
  EXPECT_EQ(stored("VYN.CUR.db!primary.STATE"), "OFFLINE");
  EXPECT_EQ(stored("VYN.HIS.db!primary.TARGET"), "");

  std::string v = "untouched";
  EXPECT_EQ(caavrgGetvalue("db.primary", "STATE", v, CURRENT, nullptr), 0);
  EXPECT_EQ(v, "OFFLINE");
  EXPECT_EQ(caavrgGetvalue("db.primary", "NOSUCH", v, CURRENT, nullptr), 4) << "a missing attribute is an answer";
  EXPECT_EQ(caavrgGetvalue("db.primary", "STATE", v, HISTORY, nullptr), 4);
  EXPECT_EQ(v, "OFFLINE");

  std::map<std::string, std::string> m = {{"stale", "x"}};
  EXPECT_EQ(caavrgGetValues("db.primary", m, CURRENT, nullptr), 0);
  EXPECT_EQ(m, (std::map<std::string, std::string>{{"STATE", "OFFLINE"}}));
  EXPECT_EQ(caavrgGetValues("db.primary", m, STAGE, nullptr), 0) << "staged resources are read where they end up";
  EXPECT_EQ(m.size(), 1u);
  EXPECT_EQ(caavrgGetValues("nosuch", m, CURRENT, nullptr), 1);
  EXPECT_TRUE(m.empty());
  EXPECT_EQ(caavrgGetSubKeyVals("VYN.CUR.db!primary", m, nullptr), 0);
  EXPECT_EQ(m["STATE"], "OFFLINE");
  EXPECT_EQ(caavrgGetSubKeyVals("VYN.CUR", m, nullptr), 2) << "a resource key holds no value of its own";

  std::string t = trace();
  EXPECT_NE(t.find("VYNVRG: Value of size is 8\n"), std::string::npos) << t;
  EXPECT_EQ(t.find("Successfully set key"), std::string::npos) << "trace lines are not written";
}

TEST_F(CaavrgTest, TheNameTranslationReplacesEveryOccurrence) {
  std::string s = "a.b..c.";
  caavrgResTrans(s, CAARESSP, CAARESEXC);
  EXPECT_EQ(s, "a!b!!c!");
  caavrgResTrans(s, CAARESEXC, CAARESSP);
  EXPECT_EQ(s, "a.b..c.");
  // A "!" in a name is the key form of a dot: both spell the same resource.
  makeResourceStore();
  addComplete("x!y");
  EXPECT_EQ(caavrgLookup("x.y", CAARESCUR, nullptr), 0);
  EXPECT_EQ(walk(CURRENT), (std::vector<std::string>{"x.y/0"}));
}

TEST_F(CaavrgTest, AStagedResourceMovesWholeIntoTheCurrentCopy) {
  makeResourceStore();
  makeStore({{"SYSTEM.gmx.node.1", "elsewhere"}, {"SYSTEM.gmx.node.3", "thisnode"}});
  setenv("VYN_NODE_NAME", "thisnode", 1);
  EXPECT_EQ(caavrgCommitResource("app.1", nullptr), 4) << "nothing staged";
  EXPECT_EQ(caavrgAddResource("app.1", STAGE, nullptr), 0);
  EXPECT_EQ(caavrgSetvalue("app.1", "IS_UNREGISTERING", "0", STAGE, nullptr), 0);
  EXPECT_EQ(stored("VYN.STAGE.node3.app!1.IS_UNREGISTERING"), "0");
  EXPECT_TRUE(walk(CURRENT).empty());
  EXPECT_EQ(caavrgCommitResource("app.1", nullptr), 0);
  EXPECT_EQ(stored("VYN.CUR.app!1.IS_UNREGISTERING"), "0");
  EXPECT_EQ(caavrgCheckKey("VYN.STAGE.node3.app!1"), 4);
  EXPECT_EQ(walk(CURRENT), (std::vector<std::string>{"app.1/0"}));

  // A second staging of a current resource does not replace it on commit.
  EXPECT_EQ(caavrgSetvalue("app.1", "IS_UNREGISTERING", "1", STAGE, nullptr), 0);
  EXPECT_NE(caavrgCommitResource("app.1", nullptr), 0);
  EXPECT_EQ(stored("VYN.CUR.app!1.IS_UNREGISTERING"), "0");
  EXPECT_EQ(caavrgRemove("app.1", CAARESSTAGE, nullptr), 0);
  EXPECT_EQ(caavrgCheckKey("VYN.STAGE.node3.app!1"), 4);
  unsetenv("VYN_NODE_NAME");
  std::string t = trace();
  EXPECT_NE(t.find("VYNVRG: Commit Resource done.app.1\n"), std::string::npos) << t;
}

TEST_F(CaavrgTest, LookupAndRemoveWorkOnTheirSubtreesOnly) {
  makeResourceStore();
  addComplete("web.1");
  EXPECT_EQ(caavrgSetPerm("web.1", "owner=root"), 0);
  EXPECT_EQ(caavrgLookup("web.1", CAARESCUR, nullptr), 0);
  EXPECT_EQ(caavrgLookup("web.1", CAARESSEC, nullptr), 0);
  EXPECT_EQ(caavrgLookup("web.1", CAARESHIS, nullptr), 1);
  EXPECT_EQ(caavrgLookup("web.1", "VYN.STAGE.node", nullptr), 2);
  EXPECT_EQ(caavrgLookup("web.1", "VYN", nullptr), 2);
  EXPECT_EQ(caavrgRemove("web.1", "SYSTEM", nullptr), 2);
  EXPECT_EQ(caavrgRemove("web.1", CAARESHIS, nullptr), 4);
  EXPECT_EQ(caavrgRemove("web.1", CAARESCUR, nullptr), 0);
  EXPECT_EQ(caavrgLookup("web.1", CAARESCUR, nullptr), 1);
  EXPECT_EQ(stored("VYN.CUR.web!1.NAME"), "<absent>") << "the attributes go with the resource";
  EXPECT_EQ(stored("VYN.SEC.web!1"), "owner=root");
  std::string perm;
  EXPECT_EQ(caavrgGetPerm("web.1", perm), 0);
  EXPECT_EQ(perm, "owner=root");
}

TEST_F(CaavrgTest, TheWalkPassesOverIncompleteResourcesAndGoesOn) {
  makeResourceStore();
  addComplete("a");
  caavrgSetvalue("b.half", "NAME", "b.half", CURRENT, nullptr);
  addComplete("c.d");
  addComplete("old", HISTORY);
  caavrgSetvalue("gone", "NAME", "gone", HISTORY, nullptr);
  addComplete("gone");
  EXPECT_EQ(walk(CURRENT), (std::vector<std::string>{"a/3", "c.d/1", "gone/0"}));
  // Completeness is judged by the current copy, also in the history.
  EXPECT_EQ(walk(HISTORY), (std::vector<std::string>{"gone/1"}));
  std::string t = trace();
  EXPECT_NE(t.find("VYNVRG: Resource b!half has incomplete attribute set.\n"), std::string::npos) << t;
  EXPECT_NE(t.find("VYNVRG: Resource old has incomplete attribute set.\n"), std::string::npos) << t;

  caavrgDeleteKey(CAARESCUR);
  ASSERT_EQ(caavrgCrRoot(), 0);
  EXPECT_TRUE(walk(CURRENT).empty());
}

TEST_F(CaavrgTest, NewKeysBelongToTheOwnerOfTheirParentAlone) {
  makeStore({});
  prvrg_ctx* c = nullptr;
  char err[1024];
  std::size_t len = sizeof err;
  ASSERT_EQ(prvrg_init_ext(&c, 3, err, &len, 0), 0);
  prvrg_security root{};
  root.user_perm = root.group_perm = root.other_perm = 7;
  std::strcpy(root.user_name, "resd");
  std::strcpy(root.group_name, "cluster");
  ASSERT_EQ(prvrg_create_key(c, nullptr, "VYN", nullptr, nullptr, root), 0);
  ASSERT_EQ(caavrginitctx(3, nullptr), 0);
  ASSERT_EQ(caavrgCrRoot(), 0);
  ASSERT_EQ(caavrgSetvalue("r", "STATE", "ONLINE", CURRENT, nullptr), 0);
  for (const char* name : {"VYN.CUR", "VYN.SEC", "VYN.CUR.r", "VYN.CUR.r.STATE"}) {
    prvrg_key* k = nullptr;
    ASSERT_EQ(prvrg_open_key(c, &k, name), 0) << name;
    prvrg_security sec{};
    ASSERT_EQ(prvrg_get_key_security(c, k, &sec), 0);
    EXPECT_EQ(sec.user_perm, 63u) << name;
    EXPECT_EQ(sec.group_perm, 0u) << name;
    EXPECT_EQ(sec.other_perm, 0u) << name;
    EXPECT_STREQ(sec.user_name, "resd") << name;
    EXPECT_STREQ(sec.group_name, "cluster") << name;
  }
  prvrg_terminate(c);
}

TEST_F(CaavrgTest, SystemKeysVersionsAndDebugLevels) {
  makeResourceStore();
  makeStore({{"SYSTEM.vyn", ""}});
  EXPECT_EQ(caavrgWrite("vyn.uiport", "6001", 5, nullptr), 0);
  EXPECT_EQ(stored(CaaVRGKeys::CommUIPort), "6001");
  EXPECT_EQ(caavrgCreateKey("SYSTEM.vyn", "versions"), 0);
  EXPECT_EQ(caavrgCheckKey("SYSTEM.vyn.versions"), 0);
  EXPECT_EQ(caavrgWriteVersion("node1", "2.1", "versions"), 0);
  EXPECT_EQ(stored("SYSTEM.vyn.versions.node1"), "2.1");
  setenv("_VYN_CONFIG_VERSION", "9.9-pinned", 1);
  EXPECT_EQ(caavrgWriteVersion("node2", "2.1", "versions"), 0);
  unsetenv("_VYN_CONFIG_VERSION");
  EXPECT_EQ(stored("SYSTEM.vyn.versions.node2"), "9.9-pinned");
  EXPECT_EQ(caavrgDeleteKey("SYSTEM.vyn.versions"), 0);
  EXPECT_EQ(caavrgCheckKey("SYSTEM.vyn.versions.node1"), 4);
  EXPECT_EQ(caavrgDeleteKey("SYSTEM.vyn.versions"), 4);

  EXPECT_EQ(caavrgSetDebugLevel(nullptr, reinterpret_cast<const zeltext*>("vynsec"), 11, 1), 0);
  EXPECT_EQ(stored("SYSTEM.vyn.debug." + host_ + ".VYNSEC"), "10");
  addComplete("app.1");
  EXPECT_EQ(caavrgSetDebugLevel(nullptr, reinterpret_cast<const zeltext*>("app.1"), 4, 3), 0);
  EXPECT_EQ(stored("VYN.CUR.app!1.USR_ZEL_DEBUG"), "4");
  EXPECT_EQ(caavrgSetDebugLevel(nullptr, reinterpret_cast<const zeltext*>("nosuch"), 4, 3), 2);
  std::string t = trace();
  EXPECT_NE(t.find("VYNVRG: SET Logging Level for: vynsec  10\n"), std::string::npos) << t;
  EXPECT_NE(t.find("VYNVRG: CAAVRG Set Debug Level for Resource app.1: 4\nVYNVRG: SET Logging Level for: app.1  4\n"),
            std::string::npos)
      << t;
  EXPECT_NE(t.find("VYNVRG: CAAVRG set Debug Fails, Resource nosuch does not exist.\n"), std::string::npos) << t;
}

TEST_F(CaavrgTest, AStoreThatFailsAWriteEndsTheDaemonButNotALookup) {
  makeResourceStore();
  addComplete("r");
  caavrgTerm();
  // Without the root keys the location cannot be opened.
  clstest::ChildOutcome o = runInChild([] {
    caavrginitctx(3, nullptr);
    caavrgDeleteKey(CAARESROOT);
    caavrgSetvalue("r", "STATE", "ONLINE", CURRENT, nullptr);
  });
  EXPECT_EQ(o.status, 1);
  EXPECT_NE(o.trace.find("Unable to open root key: VYN.CUR(File: caavrg.cpp, line: "), std::string::npos) << o.trace;
  EXPECT_EQ(o.err, "VYND Exiting. VRG Failed\n");

  makeResourceStore();
  addComplete("r");
  caavrgTerm();
  o = runInChild([] {
    caavrginitctx(7, nullptr);  // a cache handle reads only
    std::string v;
    if (caavrgLookup("r", CAARESCUR, nullptr) != 0 || caavrgGetvalue("r", "NAME", v, CURRENT, nullptr) != 0 ||
        v != "r")
      _exit(7);
    caavrgSetvalue("r", "STATE", "ONLINE", CURRENT, nullptr);
  });
  EXPECT_EQ(o.status, 1);
  EXPECT_NE(o.trace.find("Failed to create key: VYN.CUR.r.STATE(File: caavrg.cpp"), std::string::npos) << o.trace;
  o = runInChild([] {
    caavrginitctx(7, nullptr);
    caavrgSetvalue("r", "NAME", "renamed", CURRENT, nullptr);
  });
  EXPECT_EQ(o.status, 1);
  EXPECT_NE(o.trace.find("Failed to set key: VYN.CUR.r.NAME value: renamed(File: caavrg.cpp"), std::string::npos)
      << o.trace;
  o = runInChild([] {
    caavrginitctx(3, nullptr);
    prvrg_key* hdl = nullptr;
    std::string name;
    int remain = 0;
    caavrgGetres(name, hdl, remain, STAGE);
  });
  EXPECT_EQ(o.status, 0) << "walking the stage is an error of the caller";
  EXPECT_NE(o.trace.find("loc != STAGE"), std::string::npos) << o.trace;
}

}  // namespace
