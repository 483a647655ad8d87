// Tests of the registry client against real stores: SQLite files in temporary directories and,
// for every test that does not hang on one store's own nature, a ZooKeeper server as well.
#include "platform/registry/prvrg.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "platform/registry/prvrg_test_util.h"
#include "platform/registry/zk_connection.h"
#include "platform/registry/zk_test_server.h"

namespace fs = std::filesystem;
using vyntest::StoreLocker;
using vyntest::ZkTestServer;

namespace {

class RegistryTestBase : public ::testing::Test {
 protected:
  // "sqlite": a file in a temporary directory; "zk": a chroot of its own on the shared server.
  void useStore(const std::string& kind) {
    char tmpl[] = "/tmp/prvrg_test.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    store_ = dir_ + "/reg.db";
    if (kind == "zk") {
      ZkTestServer* server = ZkTestServer::shared();
      if (server == nullptr) GTEST_SKIP() << ZkTestServer::skipReason();
      static int serial = 0;
      store_ = server->address("/prvrg_test/" + std::to_string(getpid()) + "_" + std::to_string(++serial));
    }
    setenv("VYN_REGISTRY", store_.c_str(), 1);
  }
  void TearDown() override {
    for (prvrg_ctx* c : open_) prvrg_terminate(c);
    unsetenv("VYN_REGISTRY");
    fs::remove_all(dir_);
  }

  prvrg_ctx* open(int level, int flags = 0) {
    char err[1024] = "";
    std::size_t len = sizeof err;
    prvrg_ctx* c = nullptr;
    EXPECT_EQ(prvrg_init_ext(&c, level, err, &len, flags), PRVRG_SUCC) << err;
    if (c) open_.push_back(c);
    return c;
  }
  prvrg_ctx* create() { return open(PRVRG_LEVEL_DEFAULT, PRVRG_FLAG_CREATE); }

  // Opening fails; returns the error text.
  std::string openFails(int level, int flags = 0) {
    char err[1024];
    std::memset(err, 'x', sizeof err);
    std::size_t len = sizeof err;
    prvrg_ctx* c = reinterpret_cast<prvrg_ctx*>(1);
    EXPECT_NE(prvrg_init_ext(&c, level, err, &len, flags), PRVRG_SUCC);
    EXPECT_EQ(c, nullptr);
    EXPECT_EQ(len, std::strlen(err));
    return err;
  }

  static void set(prvrg_ctx* c, const char* name, const std::string& value) {
    ASSERT_EQ(prvrg_create_n_set_key(c, nullptr, name, nullptr, nullptr, prvrg_dtype_ZELTEXT, value.c_str(),
                                     value.size() + 1, prvrg_security{}),
              PRVRG_SUCC);
  }
  // The text of a key, or "<rc N>" on failure.
  static std::string get(prvrg_ctx* c, const char* name) {
    prvrg_key* k = nullptr;
    int rc = prvrg_open_key(c, &k, name);
    if (rc != PRVRG_SUCC) return "<rc " + std::to_string(rc) + ">";
    char buf[256];
    std::size_t len = sizeof buf;
    int type = -1;
    rc = prvrg_get_value(c, k, &type, buf, &len);
    prvrg_close_key(c, k);
    if (rc != PRVRG_SUCC) return "<rc " + std::to_string(rc) + ">";
    EXPECT_EQ(type, prvrg_dtype_ZELTEXT);
    EXPECT_EQ(len, std::strlen(buf) + 1);
    return buf;
  }
  static std::vector<std::string> subkeys(prvrg_ctx* c, const char* name) {
    std::vector<std::string> out;
    prvrg_key* k = nullptr;
    if (prvrg_open_key(c, &k, name) != PRVRG_SUCC) return {"<no key>"};
    char buf[256];
    std::size_t len = sizeof buf;
    while (prvrg_enum_subkey(c, k, buf, &len, nullptr) == PRVRG_SUCC) {
      out.push_back(buf);
      len = sizeof buf;
    }
    prvrg_close_key(c, k);
    return out;
  }

  std::string dir_, store_;
  std::vector<prvrg_ctx*> open_;
};

// What every store does alike.
class RegistryTest : public RegistryTestBase, public ::testing::WithParamInterface<const char*> {
 protected:
  void SetUp() override { useStore(GetParam()); }
};

INSTANTIATE_TEST_SUITE_P(Stores, RegistryTest, ::testing::Values("sqlite", "zk"),
                         [](const ::testing::TestParamInfo<const char*>& info) { return std::string(info.param); });

// What belongs to the file store.
class SqliteRegistryTest : public RegistryTestBase {
 protected:
  void SetUp() override { useStore("sqlite"); }
};

TEST_F(SqliteRegistryTest, OpeningAMissingStoreFailsAndCreatesNothing) {
  std::string nested = dir_ + "/no/such/reg.db";
  for (const std::string& path : {store_, nested}) {
    setenv("VYN_REGISTRY", path.c_str(), 1);
    for (int level : {int(PRVRG_LEVEL_DEFAULT), int(PRVRG_LEVEL_REBOOT), int(PRVRG_LOCAL_DEFAULT), 7})
      EXPECT_EQ(openFails(level), "registry store " + path + " does not exist");
    // Only a DEFAULT handle creates, even when asked to.
    EXPECT_EQ(openFails(PRVRG_LEVEL_REBOOT, PRVRG_FLAG_CREATE), "registry store " + path + " does not exist");
  }
  EXPECT_TRUE(fs::is_empty(dir_));
}

TEST_F(SqliteRegistryTest, AFileThatIsNoRegistryIsRefused) {
  FILE* f = std::fopen(store_.c_str(), "w");
  std::fputs("not a database, just text that is long enough to have a header....", f);
  std::fclose(f);
  EXPECT_EQ(openFails(PRVRG_LEVEL_DEFAULT), "registry store " + store_ + ": file is not a database");
  // An empty file is a database without our schema; a reader must not take it.
  fs::resize_file(store_, 0);
  EXPECT_NE(openFails(PRVRG_LEVEL_REBOOT).find("holds no registry"), std::string::npos);
  EXPECT_EQ(fs::file_size(store_), 0u);
}

TEST_P(RegistryTest, ValuesRoundTripAcrossHandles) {
  prvrg_ctx* w = create();
  prvrg_key* k = nullptr;
  int created = -1;
  ASSERT_EQ(prvrg_create_n_set_key(w, nullptr, "SYSTEM.vyn.user_default_dir", &k, &created, prvrg_dtype_ZELTEXT,
                                   "/srv/profiles", 14, prvrg_security{}),
            PRVRG_SUCC);
  EXPECT_EQ(created, 1);
  EXPECT_STREQ(prvrg_key_name(k), "SYSTEM.vyn.user_default_dir");
  // A text given without its terminator reads back the same.
  ASSERT_EQ(prvrg_set_value(w, k, prvrg_dtype_ZELTEXT, "/srv/other", 10), PRVRG_SUCC);

  prvrg_ctx* r = open(PRVRG_LEVEL_REBOOT);
  EXPECT_EQ(get(r, "SYSTEM.vyn.user_default_dir"), "/srv/other");
  EXPECT_EQ(subkeys(r, "SYSTEM"), std::vector<std::string>{"vyn"});

  // Too small a buffer: the needed size, and not a byte written.
  prvrg_key* rk = nullptr;
  ASSERT_EQ(prvrg_open_key(r, &rk, "SYSTEM.vyn.user_default_dir"), PRVRG_SUCC);
  char buf[16];
  std::memset(buf, '#', sizeof buf);
  std::size_t len = 10;
  int type = 0;
  EXPECT_EQ(prvrg_get_value(r, rk, &type, buf, &len), PRVRG_ERR_BUFFER);
  EXPECT_EQ(len, 11u);
  EXPECT_EQ(buf[0], '#');
  EXPECT_EQ(prvrg_get_value(r, rk, &type, buf, &len), PRVRG_SUCC);
  EXPECT_STREQ(buf, "/srv/other");

  // Creating an existing key keeps its value.
  ASSERT_EQ(prvrg_create_key(w, nullptr, "SYSTEM.vyn.user_default_dir", nullptr, &created, prvrg_security{}),
            PRVRG_SUCC);
  EXPECT_EQ(created, 0);
  EXPECT_EQ(get(r, "SYSTEM.vyn.user_default_dir"), "/srv/other");
}

TEST_P(RegistryTest, MissingKeysBadNamesAndStaleHandles) {
  prvrg_ctx* c = create();
  set(c, "SYSTEM.vyn", "x");
  prvrg_key* k = reinterpret_cast<prvrg_key*>(1);
  EXPECT_EQ(prvrg_open_key(c, &k, "SYSTEM.nothing"), PRVRG_ERR_NO_KEY);
  EXPECT_EQ(k, nullptr);
  EXPECT_EQ(prvrg_open_key(c, &k, "SYSTEM.nothing"), PRVRG_ERR_NO_KEY);  // the open made nothing
  char text[1024];
  std::size_t len = sizeof text;
  int code = 0;
  ASSERT_EQ(prvrg_get_last_error(c, &code, text, &len), PRVRG_SUCC);
  EXPECT_EQ(code, PRVRG_ERR_NO_KEY);
  EXPECT_NE(std::string(text).find("SYSTEM.nothing"), std::string::npos);

  // A key without a value answers 4 to a read, like a missing one.
  ASSERT_EQ(prvrg_create_key(c, nullptr, "SYSTEM.empty", nullptr, nullptr, prvrg_security{}), PRVRG_SUCC);
  EXPECT_EQ(get(c, "SYSTEM.empty"), "<rc 4>");

  for (const char* bad : {"a..b", ".a", "a.", ""})
    EXPECT_EQ(prvrg_create_key(c, nullptr, bad, nullptr, nullptr, prvrg_security{}), PRVRG_ERR_FAIL) << bad;

  // A key deleted through another handle is gone, not a bad handle.
  ASSERT_EQ(prvrg_open_key(c, &k, "SYSTEM.vyn"), PRVRG_SUCC);
  prvrg_ctx* other = open(PRVRG_LEVEL_DEFAULT);
  prvrg_key* ok = nullptr;
  ASSERT_EQ(prvrg_open_key(other, &ok, "SYSTEM.vyn"), PRVRG_SUCC);
  ASSERT_EQ(prvrg_delete_key(other, ok, 1), PRVRG_SUCC);
  len = 0;
  EXPECT_EQ(prvrg_get_value(c, k, nullptr, nullptr, &len), PRVRG_ERR_NO_KEY);

  // Null, closed, foreign and terminated handles.
  EXPECT_EQ(prvrg_open_key(nullptr, &k, "SYSTEM"), PRVRG_ERR_INVALID_HANDLE);
  EXPECT_EQ(prvrg_get_value(c, nullptr, nullptr, nullptr, &len), PRVRG_ERR_INVALID_HANDLE);
  EXPECT_EQ(prvrg_set_value(other, k, prvrg_dtype_ZELTEXT, "v", 2), PRVRG_ERR_INVALID_HANDLE);
  ASSERT_EQ(prvrg_close_key(c, k), PRVRG_SUCC);
  EXPECT_EQ(prvrg_close_key(c, k), PRVRG_ERR_INVALID_HANDLE);
  open_.pop_back();
  ASSERT_EQ(prvrg_terminate(other), PRVRG_SUCC);  // ok is still open; terminate frees it
  EXPECT_EQ(prvrg_open_key(other, &k, "SYSTEM"), PRVRG_ERR_INVALID_HANDLE);
  EXPECT_EQ(get(c, "SYSTEM.empty"), "<rc 4>");  // the handle beside it still works
}

TEST_P(RegistryTest, EnumerationGoesInNameOrderAndEndsWith16) {
  prvrg_ctx* c = create();
  for (const char* n : {"R.b", "R.a.deep", "R.c", "R.a", "R.ab", "Q"}) set(c, n, n);

  prvrg_key* k = nullptr;
  ASSERT_EQ(prvrg_open_key(c, &k, "R"), PRVRG_SUCC);
  char name[8];
  std::size_t len = 1;
  ub4 left = 99;
  // A short buffer tells the size and does not move the cursor.
  EXPECT_EQ(prvrg_enum_subkey(c, k, name, &len, &left), PRVRG_ERR_BUFFER);
  EXPECT_EQ(len, 2u);
  std::vector<std::pair<std::string, ub4>> seen;
  for (;;) {
    len = sizeof name;
    int rc = prvrg_enum_subkey(c, k, name, &len, &left);
    if (rc != PRVRG_SUCC) {
      EXPECT_EQ(rc, PRVRG_ERR_NO_MORE);
      break;
    }
    EXPECT_EQ(len, std::strlen(name) + 1);
    seen.emplace_back(name, left);
  }
  std::vector<std::pair<std::string, ub4>> want{{"a", 3}, {"ab", 2}, {"b", 1}, {"c", 0}};
  EXPECT_EQ(seen, want);
  len = sizeof name;
  EXPECT_EQ(prvrg_enum_subkey(c, k, name, &len, &left), PRVRG_ERR_NO_MORE);
  EXPECT_EQ(left, 0u);

  // Each open key has its own cursor; "" is the root.
  EXPECT_EQ(subkeys(c, "R"), (std::vector<std::string>{"a", "ab", "b", "c"}));
  EXPECT_EQ(subkeys(c, ""), (std::vector<std::string>{"Q", "R"}));
  EXPECT_TRUE(subkeys(c, "R.c").empty());
  prvrg_close_key(c, k);
}

TEST_P(RegistryTest, DeleteTakesTheWholeSubtreeAndNothingBeside) {
  prvrg_ctx* c = create();
  for (const char* n : {"A.b", "A.b.c", "A.b.c.d", "A.bc", "A.b_x", "A.b/", "A.a"}) set(c, n, n);
  prvrg_key* k = nullptr;
  ASSERT_EQ(prvrg_open_key(c, &k, "A.b"), PRVRG_SUCC);
  EXPECT_EQ(prvrg_delete_key(c, k, 0), PRVRG_ERR_FAIL);  // not without recursive
  EXPECT_EQ(get(c, "A.b.c.d"), "A.b.c.d");
  ASSERT_EQ(prvrg_delete_key(c, k, 1), PRVRG_SUCC);
  EXPECT_EQ(prvrg_delete_key(c, k, 1), PRVRG_ERR_NO_KEY);
  prvrg_close_key(c, k);
  EXPECT_EQ(get(c, "A.b.c.d"), "<rc 4>");
  EXPECT_EQ(get(c, "A.b.c"), "<rc 4>");
  EXPECT_EQ(subkeys(c, "A"), (std::vector<std::string>{"a", "b/", "b_x", "bc"}));

  ASSERT_EQ(prvrg_open_key(c, &k, "A.a"), PRVRG_SUCC);
  EXPECT_EQ(prvrg_delete_key(c, k, 0), PRVRG_SUCC);  // a leaf goes without recursive
  prvrg_close_key(c, k);
  ASSERT_EQ(prvrg_open_key(c, &k, ""), PRVRG_SUCC);
  EXPECT_EQ(prvrg_delete_key(c, k, 1), PRVRG_ERR_FAIL);
  prvrg_close_key(c, k);
  EXPECT_EQ(subkeys(c, ""), std::vector<std::string>{"A"});
}

TEST_P(RegistryTest, MoveCarriesTheSubtree) {
  prvrg_ctx* c = create();
  for (const char* n : {"VYN.stage.n1.res.TYPE", "VYN.stage.n1.res.STATE", "VYN.stage.n1.res2.TYPE"}) set(c, n, n);
  ASSERT_EQ(prvrg_create_key(c, nullptr, "VYN.cur", nullptr, nullptr, prvrg_security{}), PRVRG_SUCC);
  prvrg_key *src = nullptr, *cur = nullptr, *moved = nullptr;
  ASSERT_EQ(prvrg_open_key(c, &src, "VYN.stage.n1.res"), PRVRG_SUCC);
  ASSERT_EQ(prvrg_open_key(c, &cur, "VYN.cur"), PRVRG_SUCC);
  ASSERT_EQ(prvrg_move_key(c, src, cur, "res", &moved, 0), PRVRG_SUCC);
  EXPECT_STREQ(prvrg_key_name(moved), "VYN.cur.res");
  EXPECT_STREQ(prvrg_key_name(src), "VYN.cur.res");  // the handle follows its key
  EXPECT_EQ(get(c, "VYN.cur.res.TYPE"), "VYN.stage.n1.res.TYPE");
  EXPECT_EQ(subkeys(c, "VYN.cur.res"), (std::vector<std::string>{"STATE", "TYPE"}));
  EXPECT_EQ(subkeys(c, "VYN.cur"), std::vector<std::string>{"res"});
  EXPECT_EQ(subkeys(c, "VYN.stage.n1"), std::vector<std::string>{"res2"});
  EXPECT_EQ(get(c, "VYN.stage.n1.res.TYPE"), "<rc 4>");

  // Onto an existing key, below itself, to a missing parent: refused, nothing changes.
  prvrg_key* other = nullptr;
  ASSERT_EQ(prvrg_open_key(c, &other, "VYN.stage.n1.res2"), PRVRG_SUCC);
  EXPECT_EQ(prvrg_move_key(c, other, cur, "res", nullptr, 0), PRVRG_ERR_FAIL);
  EXPECT_EQ(prvrg_move_key(c, other, other, "x", nullptr, 0), PRVRG_ERR_FAIL);
  EXPECT_EQ(prvrg_move_key(c, other, cur, "gone.x", nullptr, 0), PRVRG_ERR_NO_KEY);
  EXPECT_EQ(get(c, "VYN.stage.n1.res2.TYPE"), "VYN.stage.n1.res2.TYPE");
  // To the root with a new name.
  ASSERT_EQ(prvrg_move_key(c, other, nullptr, "top", nullptr, 0), PRVRG_SUCC);
  EXPECT_EQ(get(c, "top.TYPE"), "VYN.stage.n1.res2.TYPE");
  for (prvrg_key* k : {src, cur, moved, other}) prvrg_close_key(c, k);
}

TEST_P(RegistryTest, SecurityRecordsAreKeptPerKey) {
  prvrg_ctx* c = create();
  prvrg_security sec{};
  sec.user_perm = 63;
  sec.group_perm = 5;
  sec.other_perm = 0xffffffffu;
  std::strcpy(sec.user_name, "vynadmin");
  std::memset(sec.group_name, 'g', sizeof sec.group_name);  // no terminator: a full-width name
  prvrg_key* k = nullptr;
  ASSERT_EQ(prvrg_create_key(c, nullptr, "SYSTEM.sec", &k, nullptr, sec), PRVRG_SUCC);
  prvrg_security other{};
  other.user_perm = 1;
  ASSERT_EQ(prvrg_create_key(c, nullptr, "SYSTEM.sec", nullptr, nullptr, other), PRVRG_SUCC);

  prvrg_security back;
  ASSERT_EQ(prvrg_get_key_security(c, k, &back), PRVRG_SUCC);
  EXPECT_EQ(back.user_perm, 63u);
  EXPECT_EQ(back.group_perm, 5u);
  EXPECT_EQ(back.other_perm, 0xffffffffu);
  EXPECT_STREQ(back.user_name, "vynadmin");
  EXPECT_EQ(std::string(back.group_name), std::string(63, 'g'));  // cut to fit with its terminator
  prvrg_close_key(c, k);
}

TEST_P(RegistryTest, RebootHandleOnlyReads) {
  set(create(), "SYSTEM.v", "before");
  prvrg_ctx* r = open(PRVRG_LEVEL_REBOOT);
  prvrg_key* k = nullptr;
  ASSERT_EQ(prvrg_open_key(r, &k, "SYSTEM.v"), PRVRG_SUCC);
  EXPECT_NE(prvrg_set_value(r, k, prvrg_dtype_ZELTEXT, "after", 6), PRVRG_SUCC);
  EXPECT_NE(prvrg_delete_key(r, k, 1), PRVRG_SUCC);
  prvrg_close_key(r, k);
  EXPECT_EQ(get(r, "SYSTEM.v"), "before");
}

// A DEFAULT handle on a store that its user cannot write: reads work, writes answer 24. As root
// the check runs in a child that gives up root, since root writes any file.
TEST_F(SqliteRegistryTest, DefaultHandleOnAReadOnlyStoreAnswers24ToWrites) {
  set(create(), "SYSTEM.v", "before");
  for (prvrg_ctx* c : open_) prvrg_terminate(c);
  open_.clear();
  ASSERT_EQ(chmod(dir_.c_str(), 0755), 0);
  ASSERT_EQ(chmod(store_.c_str(), 0644), 0);
  bool asRoot = geteuid() == 0;
  if (!asRoot) {
    ASSERT_EQ(chmod(store_.c_str(), 0444), 0);
  }
  pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    if (asRoot && (setgid(65534) != 0 || setuid(65534) != 0)) _exit(10);
    char err[1024];
    std::size_t len = sizeof err;
    prvrg_ctx* c = nullptr;
    if (prvrg_init_ext(&c, PRVRG_LEVEL_DEFAULT, err, &len, 0) != PRVRG_SUCC) _exit(11);
    if (get(c, "SYSTEM.v") != "before") _exit(12);
    prvrg_key* k = nullptr;
    if (prvrg_open_key(c, &k, "SYSTEM.v") != PRVRG_SUCC) _exit(13);
    if (prvrg_set_value(c, k, prvrg_dtype_ZELTEXT, "after", 6) != PRVRG_ERR_LEVEL) _exit(14);
    if (prvrg_create_n_set_key(c, k, "x", nullptr, nullptr, prvrg_dtype_ZELTEXT, "y", 2, prvrg_security{}) !=
        PRVRG_ERR_LEVEL)
      _exit(15);
    if (prvrg_delete_key(c, k, 1) != PRVRG_ERR_LEVEL) _exit(16);
    _exit(prvrg_terminate(c) == PRVRG_SUCC ? 0 : 17);
  }
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_EQ(get(open(PRVRG_LEVEL_REBOOT), "SYSTEM.v"), "before");
}

// Two processes writing at once: every call lands, none fails on a busy store.
TEST_P(RegistryTest, TwoProcessesWritingAtOnceLoseNothing) {
  set(create(), "SYSTEM.shared", "0");
  for (prvrg_ctx* c : open_) prvrg_terminate(c);
  open_.clear();
  const int kEach = 150;
  std::vector<pid_t> kids;
  for (const char* who : {"p", "q"}) {
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      char err[1024];
      std::size_t len = sizeof err;
      prvrg_ctx* c = nullptr;
      if (prvrg_init_ext(&c, PRVRG_LEVEL_DEFAULT, err, &len, 0) != PRVRG_SUCC) _exit(20);
      for (int i = 0; i < kEach; ++i) {
        std::string name = std::string("SYSTEM.conc.") + who + "." + std::to_string(i);
        std::string v = std::to_string(i);
        prvrg_key* k = nullptr;
        if (prvrg_create_n_set_key(c, nullptr, name.c_str(), &k, nullptr, prvrg_dtype_ZELTEXT, v.c_str(),
                                   v.size() + 1, prvrg_security{}) != PRVRG_SUCC)
          _exit(21);
        if (prvrg_close_key(c, k) != PRVRG_SUCC) _exit(22);
        if (get(c, "SYSTEM.shared").rfind("<rc", 0) == 0) _exit(23);
        prvrg_key* s = nullptr;
        if (prvrg_open_key(c, &s, "SYSTEM.shared") != PRVRG_SUCC ||
            prvrg_set_value(c, s, prvrg_dtype_ZELTEXT, who, 2) != PRVRG_SUCC)
          _exit(24);
        prvrg_close_key(c, s);
      }
      _exit(prvrg_terminate(c) == PRVRG_SUCC ? 0 : 25);
    }
    kids.push_back(pid);
  }
  for (pid_t pid : kids) {
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
  }
  prvrg_ctx* r = open(PRVRG_LEVEL_REBOOT);
  for (const char* who : {"p", "q"}) {
    std::string under = std::string("SYSTEM.conc.") + who;
    EXPECT_EQ(subkeys(r, under.c_str()).size(), static_cast<std::size_t>(kEach));
    EXPECT_EQ(get(r, (under + "." + std::to_string(kEach - 1)).c_str()), std::to_string(kEach - 1));
  }
}

double secondsSince(std::chrono::steady_clock::time_point t0) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

// A store that stays locked costs a process one wait in all: the first call waits and gives up
// with the store's own reason, every later call gives up at once, and as soon as the store
// answers again a lock is worth a full wait once more. The bounds are loose; the figures
// themselves are measured elsewhere.
TEST_F(SqliteRegistryTest, AStoreThatStaysLockedCostsOneWaitInAll) {
  set(create(), "SYSTEM.v", "x");
  prvrg_ctx* early = open(PRVRG_LEVEL_REBOOT);  // opened while the store was free
  const std::string locked = "registry store " + store_ + ": database is locked";
  {
    StoreLocker holder(store_);
    ASSERT_TRUE(holder.locked());
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(openFails(PRVRG_LEVEL_REBOOT), locked);
    EXPECT_GT(secondsSince(t0), 3.0) << "a lock is waited for, not refused at once";

    t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(openFails(PRVRG_LEVEL_DEFAULT), locked);
    EXPECT_EQ(get(early, "SYSTEM.v"), "<rc 1>");
    char text[1024];
    std::size_t len = sizeof text;
    int code = 0;
    ASSERT_EQ(prvrg_get_last_error(early, &code, text, &len), PRVRG_SUCC);
    EXPECT_EQ(code, PRVRG_ERR_FAIL);
    EXPECT_EQ(text, locked);
    EXPECT_LT(secondsSince(t0), 2.0) << "the wait is paid once per process";
  }
  EXPECT_EQ(get(early, "SYSTEM.v"), "x");
  // The store answered again: a short lock is waited out once more.
  StoreLocker brief(store_, 300);
  ASSERT_TRUE(brief.locked());
  EXPECT_EQ(get(early, "SYSTEM.v"), "x");
  EXPECT_EQ(get(open(PRVRG_LEVEL_DEFAULT), "SYSTEM.v"), "x");
}

// What belongs to an ensemble.
class ZkRegistryTest : public RegistryTestBase {
 protected:
  void SetUp() override {
    useStore("zk");
    server_ = ZkTestServer::shared();
  }
  void TearDown() override {
    if (server_) server_->start();  // a test that stopped it leaves it running for the next
    RegistryTestBase::TearDown();
  }
  // A bare client of the same server, for what the registry client would never do itself.
  struct Raw {
    explicit Raw(const std::string& hosts) : conn(zk::parseAddress("zk://" + hosts + "/raw"), 4000) {}
    int create(const std::string& path, const std::string& data) {
      return zoo_create(conn.handle(), path.c_str(), data.data(), static_cast<int>(data.size()), &ZOO_OPEN_ACL_UNSAFE,
                        ZOO_PERSISTENT, nullptr, 0);
    }
    bool exists(const std::string& path) {
      Stat st;
      return zoo_exists(conn.handle(), path.c_str(), 0, &st) == ZOK;
    }
    zk::Connection conn;
  };
  std::string chroot() const { return store_.substr(store_.find('/', 5)); }
  std::string lastError(prvrg_ctx* c) {
    char text[1024] = "";
    std::size_t len = sizeof text;
    int code = 0;
    prvrg_get_last_error(c, &code, text, &len);
    return text;
  }

  ZkTestServer* server_ = nullptr;
};

TEST_F(ZkRegistryTest, AMissingChrootIsToldByAReadAndMadeOnlyByACreatingWrite) {
  Raw raw(server_->hosts());
  for (int level : {int(PRVRG_LEVEL_DEFAULT), int(PRVRG_LEVEL_REBOOT), 7})
    EXPECT_EQ(openFails(level), "registry " + store_ + ": the chroot " + chroot() + " does not exist");
  EXPECT_FALSE(raw.exists(chroot()));
  set(create(), "SYSTEM.v", "x");
  EXPECT_TRUE(raw.exists(chroot() + "/SYSTEM/v"));
  EXPECT_EQ(get(open(PRVRG_LEVEL_REBOOT), "SYSTEM.v"), "x");
}

TEST_F(ZkRegistryTest, BadAddressesAreRefusedWithTheReason) {
  for (const char* bad : {"zk://", "zk:///vyn", "zk://host/vyn", "zk://h:1,:2/vyn", "zk://h:1/", "zk://h:1/a//b"}) {
    setenv("VYN_REGISTRY", bad, 1);
    std::string text = openFails(PRVRG_LEVEL_DEFAULT);
    EXPECT_EQ(text.rfind(std::string("registry ") + bad + ": ", 0), 0u) << text;
  }
}

// Data and names that another program left in the tree: a clear status, never a crash, and
// foreign children are passed over in listings.
TEST_F(ZkRegistryTest, ZnodesThatAreNotOursGiveAClearStatus) {
  prvrg_ctx* c = create();
  set(c, "R.mine", "v");
  Raw raw(server_->hosts());
  ASSERT_EQ(raw.create(chroot() + "/R/plain", "hello"), ZOK);
  ASSERT_EQ(raw.create(chroot() + "/R/bad%zz", ""), ZOK);
  ASSERT_EQ(raw.create(chroot() + "/R/a.b", ""), ZOK);
  EXPECT_EQ(get(c, "R.plain"), "<rc 1>");
  EXPECT_EQ(lastError(c), "registry " + store_ + ": znode " + chroot() + "/R/plain holds data that is not a registry key");
  prvrg_key* k = nullptr;
  ASSERT_EQ(prvrg_open_key(c, &k, "R.plain"), PRVRG_SUCC);
  EXPECT_EQ(prvrg_set_value(c, k, prvrg_dtype_ZELTEXT, "x", 2), PRVRG_ERR_FAIL);
  prvrg_security sec;
  EXPECT_EQ(prvrg_get_key_security(c, k, &sec), PRVRG_ERR_FAIL);
  prvrg_close_key(c, k);
  EXPECT_EQ(subkeys(c, "R"), (std::vector<std::string>{"mine", "plain"}));
  // Names with bytes a znode cannot carry go through.
  set(c, "R.sl/ash", "1");
  set(c, "R.pct%2F", "2");
  set(c, "R.sp ace\x01", "3");
  EXPECT_EQ(get(c, "R.sl/ash"), "1");
  EXPECT_EQ(get(c, "R.pct%2F"), "2");
  EXPECT_EQ(subkeys(c, "R"), (std::vector<std::string>{"mine", "pct%2F", "plain", "sl/ash", "sp ace\x01"}));
  EXPECT_TRUE(raw.exists(chroot() + "/R/sl%2Fash"));
}

TEST_F(ZkRegistryTest, AValueAboveTheNodeLimitIsRefused) {
  prvrg_ctx* c = create();
  std::string big(1024 * 1024, 'v');
  EXPECT_EQ(prvrg_create_n_set_key(c, nullptr, "R.big", nullptr, nullptr, prvrg_dtype_BYTESTREAM, big.data(), big.size(),
                                   prvrg_security{}),
            PRVRG_ERR_FAIL);
  EXPECT_NE(lastError(c).find("the value of R.big has 1048576 bytes, more than a key may hold"), std::string::npos);
  EXPECT_EQ(get(c, "R.big"), "<rc 4>");
  big.resize(1000 * 1000);  // below the limit: kept whole
  ASSERT_EQ(prvrg_create_n_set_key(c, nullptr, "R.big", nullptr, nullptr, prvrg_dtype_BYTESTREAM, big.data(), big.size(),
                                   prvrg_security{}),
            PRVRG_SUCC);
  prvrg_key* k = nullptr;
  ASSERT_EQ(prvrg_open_key(c, &k, "R.big"), PRVRG_SUCC);
  std::string back(big.size(), '\0');
  std::size_t len = back.size();
  int type = 0;
  ASSERT_EQ(prvrg_get_value(c, k, &type, &back[0], &len), PRVRG_SUCC);
  EXPECT_EQ(len, big.size());
  EXPECT_EQ(back, big);
  prvrg_close_key(c, k);
}

// A key changed by another writer since this handle saw it: the write is tried again on the new
// version and keeps the key's security record.
TEST_F(ZkRegistryTest, AWriteAfterAnotherWritersKeepsTheSecurityRecord) {
  prvrg_ctx* a = create();
  prvrg_security sec{};
  sec.user_perm = 63;
  std::strcpy(sec.user_name, "owner");
  ASSERT_EQ(prvrg_create_n_set_key(a, nullptr, "R.attr", nullptr, nullptr, prvrg_dtype_ZELTEXT, "0", 2, sec), PRVRG_SUCC);
  prvrg_key* ka = nullptr;
  ASSERT_EQ(prvrg_open_key(a, &ka, "R.attr"), PRVRG_SUCC);
  prvrg_ctx* b = open(PRVRG_LEVEL_DEFAULT);
  prvrg_key* kb = nullptr;
  ASSERT_EQ(prvrg_open_key(b, &kb, "R.attr"), PRVRG_SUCC);
  ASSERT_EQ(prvrg_set_value(b, kb, prvrg_dtype_ZELTEXT, "from b", 7), PRVRG_SUCC);
  EXPECT_EQ(prvrg_set_value(a, ka, prvrg_dtype_ZELTEXT, "from a", 7), PRVRG_SUCC);
  EXPECT_EQ(get(b, "R.attr"), "from a");
  prvrg_security back;
  ASSERT_EQ(prvrg_get_key_security(b, kb, &back), PRVRG_SUCC);
  EXPECT_EQ(back.user_perm, 63u);
  EXPECT_STREQ(back.user_name, "owner");
  prvrg_close_key(a, ka);
  prvrg_close_key(b, kb);
}

double since(std::chrono::steady_clock::time_point t0) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

// The ensemble down at the start, going down under an open handle, and coming back: calls answer
// 24 within the stated wait, pay that wait once, and work again on the same handle afterwards.
TEST_F(ZkRegistryTest, AnEnsembleThatGoesAndComesBackGives24ThenServesAgain) {
  prvrg_ctx* c = create();
  set(c, "SYSTEM.v", "kept");
  server_->stop();
  auto t0 = std::chrono::steady_clock::now();
  EXPECT_EQ(get(c, "SYSTEM.v"), "<rc 24>");
  double first = since(t0);
  EXPECT_LT(first, 3.0);
  EXPECT_NE(lastError(c).find("cannot be reached"), std::string::npos) << lastError(c);
  t0 = std::chrono::steady_clock::now();
  char err[1024];
  std::size_t len = sizeof err;
  prvrg_ctx* other = nullptr;
  EXPECT_EQ(prvrg_init_ext(&other, PRVRG_LEVEL_REBOOT, err, &len, 0), PRVRG_ERR_LEVEL);
  EXPECT_LT(since(t0), 1.0) << "the wait is paid once";
  prvrg_key* k = nullptr;
  EXPECT_EQ(prvrg_create_key(c, nullptr, "SYSTEM.w", &k, nullptr, prvrg_security{}), PRVRG_ERR_LEVEL);

  ASSERT_TRUE(server_->start());
  std::string back;
  for (int i = 0; i < 50 && (back = get(c, "SYSTEM.v")) != "kept"; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_EQ(back, "kept");
  set(c, "SYSTEM.w", "after");
  EXPECT_EQ(get(open(PRVRG_LEVEL_REBOOT), "SYSTEM.w"), "after");
}

// A server that hangs without closing its connections is given up within the session's bound.
TEST_F(ZkRegistryTest, AServerThatHangsIsGivenUpInBoundedTime) {
  prvrg_ctx* c = create();
  set(c, "SYSTEM.v", "x");
  server_->freeze();
  auto t0 = std::chrono::steady_clock::now();
  std::string got = get(c, "SYSTEM.v");
  double took = since(t0);
  server_->thaw();
  EXPECT_EQ(got, "<rc 24>");
  EXPECT_LT(took, 6.0);
}

// Every acknowledged write is there after the server restarts.
TEST_F(ZkRegistryTest, ARestartLosesNoAcknowledgedWrite) {
  prvrg_ctx* c = create();
  for (int i = 0; i < 100; ++i) set(c, ("R.k" + std::to_string(i)).c_str(), std::to_string(i));
  server_->stop();
  ASSERT_TRUE(server_->start());
  prvrg_ctx* r = open(PRVRG_LEVEL_REBOOT);
  EXPECT_EQ(subkeys(r, "R").size(), 100u);
  for (int i = 0; i < 100; ++i) EXPECT_EQ(get(r, ("R.k" + std::to_string(i)).c_str()), std::to_string(i));
}

}  // namespace
