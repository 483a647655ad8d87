// Tests of the membership service against real registry stores in temporary directories.
#include "platform/gmx/gmx.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "platform/gmx/gmx_backend.h"
#include "platform/registry/prvrg.h"

namespace fs = std::filesystem;

namespace {

std::vector<std::string>* g_lines = nullptr;

void collect(int* /*flag*/, const char* fmt, ...) {
  char line[512];
  va_list ap;
  va_start(ap, fmt);
  std::vsnprintf(line, sizeof line, fmt, ap);
  va_end(ap);
  if (g_lines != nullptr) g_lines->push_back(line);
}
const gmxtrccb kCollect = {collect};

class GmxTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/gmx_test.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    store_ = dir_ + "/reg.db";
    setenv("VYN_REGISTRY", store_.c_str(), 1);
    setenv("VYN_NODE_NAME", "alpha", 1);
    unsetenv("GMX_CLUSTERNAME");
    char err[1024];
    std::size_t len = sizeof err;
    ASSERT_EQ(prvrg_init_ext(&reg_, PRVRG_LEVEL_DEFAULT, err, &len, PRVRG_FLAG_CREATE), PRVRG_SUCC) << err;
    set("SYSTEM.vyn.placeholder", "x");  // a store that exists but configures no cluster
    g_lines = &lines_;
  }
  void TearDown() override {
    g_lines = nullptr;
    for (gmxsctx* c : open_) gmxsterm(c);
    prvrg_terminate(reg_);
    unsetenv("VYN_REGISTRY");
    unsetenv("VYN_NODE_NAME");
    unsetenv("GMX_CLUSTERNAME");
    fs::remove_all(dir_);
  }

  void set(const std::string& key, const std::string& value) {
    ASSERT_EQ(prvrg_create_n_set_key(reg_, nullptr, key.c_str(), nullptr, nullptr, prvrg_dtype_ZELTEXT, value.c_str(),
                                     value.size() + 1, prvrg_security{}),
              PRVRG_SUCC);
  }
  void beat(const std::string& group, int node, long long ageMs, int periodMs = 200) {
    set("SYSTEM.gmx.group." + group + "." + std::to_string(node),
        std::to_string(gmx::wallClockMs() - ageMs) + " " + std::to_string(periodMs) + " 1");
  }

  // A fresh context, which reads the registry anew.
  gmxsctx* ctx() {
    gmxsctx* c = nullptr;
    EXPECT_EQ(gmxsinit(&c, &kCollect, nullptr), GMX_SUCC);
    if (c != nullptr) open_.push_back(c);
    return c;
  }

  gmxnode number(const char* name) {
    gmxnode n = 12345;
    int rc = gmxnsqanum(ctx(), name, &n);
    return rc == GMX_SUCC ? n : GMX_NO_NODE;
  }

  std::string name(gmxnode n) {
    char buf[GMX_MAX_NAMEL] = "";
    return gmxnsqname(ctx(), n, buf, sizeof buf) == GMX_SUCC ? buf : "<none>";
  }

  std::vector<gmxnode> configured(std::uint32_t* count) {
    unsigned char map[GMX_MAX_NODES / 8];
    EXPECT_EQ(gmxnsNodeList(ctx(), map, sizeof map, count), GMX_SUCC);
    std::vector<gmxnode> nodes;
    for (gmxnode n = 0; n < GMX_MAX_NODES; ++n)
      if (map[n / 8] >> (n % 8) & 1) nodes.push_back(n);
    return nodes;
  }

  std::vector<gmxnode> up(const char* group) {
    unsigned char map[GMX_MAX_NODES / 8];
    EXPECT_EQ(gmxgsqgrp(ctx(), group, map, sizeof map), GMX_SUCC);
    std::vector<gmxnode> nodes;
    for (gmxnode n = 0; n < GMX_MAX_NODES; ++n)
      if (map[n / 8] >> (n % 8) & 1) nodes.push_back(n);
    return nodes;
  }

  std::string clusterName() {
    char buf[512];
    std::size_t len = sizeof buf;
    EXPECT_EQ(gmxnsqclname(ctx(), buf, &len), GMX_SUCC);
    EXPECT_EQ(len, std::strlen(buf) + 1);
    return buf;
  }

  std::string dir_, store_;
  prvrg_ctx* reg_ = nullptr;
  std::vector<gmxsctx*> open_;
  std::vector<std::string> lines_;
};

TEST_F(GmxTest, NamesCompareShortAndInLowerCase) {
  EXPECT_EQ(gmxNormalName("Alpha.Example.COM"), "alpha");
  EXPECT_EQ(gmxNormalName("BETA"), "beta");
  EXPECT_EQ(gmxNormalName(".hidden"), "");
  char buf[64];
  ASSERT_EQ(ndq_getnodenm(buf, sizeof buf), 0);
  EXPECT_STREQ(buf, "alpha");
  EXPECT_EQ(ndq_getnodenm(buf, 3), -1);  // does not fit: no cut name
  unsetenv("VYN_NODE_NAME");
  char host[256];
  ASSERT_EQ(gethostname(host, sizeof host), 0);
  ASSERT_EQ(ndq_getnodenm(buf, sizeof buf), 0);
  EXPECT_STREQ(buf, host);
}

TEST_F(GmxTest, WithoutConfiguredNodesTheLocalNodeStandsAloneAsNumberOne) {
  gmxnode me = 0;
  ASSERT_EQ(gmxnsqlnum(ctx(), &me), GMX_SUCC);
  EXPECT_EQ(me, 1u);
  std::uint32_t count = 0;
  EXPECT_EQ(configured(&count), std::vector<gmxnode>{1});
  EXPECT_EQ(count, 1u);
  EXPECT_EQ(name(1), "alpha");
  EXPECT_EQ(number("ALPHA.somewhere"), 1u);
  EXPECT_EQ(number("beta"), GMX_NO_NODE);
  EXPECT_EQ(clusterName(), "vyn");
}

TEST_F(GmxTest, ConfiguredNodesAreFoundByNumberAndByNormalName) {
  set("SYSTEM.gmx.node.1", "Beta.example.com");
  set("SYSTEM.gmx.node.7", "alpha");
  set("SYSTEM.gmx.node.255", "gamma");
  gmxnode me = 0;
  ASSERT_EQ(gmxnsqlnum(ctx(), &me), GMX_SUCC);
  EXPECT_EQ(me, 7u);
  std::uint32_t count = 0;
  EXPECT_EQ(configured(&count), (std::vector<gmxnode>{1, 7, 255}));
  EXPECT_EQ(count, 3u);
  EXPECT_EQ(number("beta"), 1u);
  EXPECT_EQ(number("GAMMA.other.net"), 255u);
  EXPECT_EQ(number("delta"), GMX_NO_NODE);
  EXPECT_EQ(number(""), GMX_NO_NODE);
  EXPECT_EQ(name(1), "Beta.example.com");  // as configured
  EXPECT_EQ(name(2), "<none>");
  char small[4];
  EXPECT_EQ(gmxnsqname(ctx(), 1, small, sizeof small), GMX_ERR_TOOLONG);
}

TEST_F(GmxTest, BadEntriesAreLeftOutAndASharedNameNamesNoNode) {
  set("SYSTEM.gmx.node.1", "gamma");
  set("SYSTEM.gmx.node.x", "delta");
  set("SYSTEM.gmx.node.03", "delta");
  set("SYSTEM.gmx.node.256", "delta");
  set("SYSTEM.gmx.node.4", "");
  set("SYSTEM.gmx.node.5", ".dom");
  set("SYSTEM.gmx.node.6", "alpha");
  set("SYSTEM.gmx.node.9", "Alpha.other");
  set("SYSTEM.gmx.node." + std::string(600, '7'), "epsilon");  // a name longer than any buffer
  std::uint32_t count = 0;
  EXPECT_EQ(configured(&count), (std::vector<gmxnode>{1, 6, 9}));
  EXPECT_EQ(count, 3u);
  EXPECT_EQ(number("delta"), GMX_NO_NODE);
  EXPECT_EQ(number("alpha"), GMX_NO_NODE);
  EXPECT_EQ(number("gamma"), 1u);
  gmxnode me = 0;
  ASSERT_EQ(gmxnsqlnum(ctx(), &me), GMX_SUCC);
  EXPECT_EQ(me, GMX_NO_NODE);  // this node's name is also another's: it is nobody
  std::string all;
  for (const auto& l : lines_) all += l + "\n";
  EXPECT_NE(all.find("gmx: SYSTEM.gmx.node.x is not a node number below 256\n"), std::string::npos) << all;
  EXPECT_NE(all.find("gmx: SYSTEM.gmx.node.03 is not a node number"), std::string::npos) << all;
  EXPECT_NE(all.find("gmx: SYSTEM.gmx.node.777"), std::string::npos) << all;
  EXPECT_NE(all.find("gmx: SYSTEM.gmx.node.4 holds no usable node name\n"), std::string::npos) << all;
  EXPECT_NE(all.find("gmx: SYSTEM.gmx.node.5 holds no usable node name\n"), std::string::npos) << all;
  EXPECT_NE(all.find("gmx: the name alpha is given to 2 nodes; it names none of them\n"), std::string::npos) << all;
}

TEST_F(GmxTest, ClusterNameComesFromTheEnvironmentThenTheRegistry) {
  EXPECT_EQ(clusterName(), "vyn");
  set("SYSTEM.gmx.cluster_name", "prod");
  EXPECT_EQ(clusterName(), "prod");
  setenv("GMX_CLUSTERNAME", "test", 1);
  EXPECT_EQ(clusterName(), "test");
  std::string longName(150, 'n');
  setenv("GMX_CLUSTERNAME", longName.c_str(), 1);
  char buf[100];
  std::size_t len = sizeof buf;
  EXPECT_EQ(gmxnsqclname(ctx(), buf, &len), GMX_ERR_TOOLONG);
  EXPECT_EQ(len, 151u);
  EXPECT_EQ(clusterName(), longName);
}

TEST_F(GmxTest, AMissingStoreIsAnErrorAndANullContextIsRefused) {
  setenv("VYN_REGISTRY", (dir_ + "/none.db").c_str(), 1);
  gmxsctx* c = reinterpret_cast<gmxsctx*>(1);
  EXPECT_EQ(gmxsinit(&c, &kCollect, nullptr), GMX_ERR_REGISTRY);
  EXPECT_EQ(c, nullptr);
  ASSERT_FALSE(lines_.empty());
  EXPECT_EQ(lines_[0].rfind("gmxsinit: registry: ", 0), 0u) << lines_[0];
  EXPECT_FALSE(fs::exists(dir_ + "/none.db"));
  gmxnode n;
  std::uint32_t v;
  unsigned char map[4];
  char buf[8];
  std::size_t len = sizeof buf;
  EXPECT_EQ(gmxnsqlnum(nullptr, &n), GMX_ERR_BADCTX);
  EXPECT_EQ(gmxsattrib(nullptr, GMX_ATTR_NSCFG, &v), GMX_ERR_BADCTX);
  EXPECT_EQ(gmxnsNodeList(nullptr, map, sizeof map, &v), GMX_ERR_BADCTX);
  EXPECT_EQ(gmxnsqclname(nullptr, buf, &len), GMX_ERR_BADCTX);
  EXPECT_EQ(gmxnsqanum(nullptr, "a", &n), GMX_ERR_BADCTX);
  EXPECT_EQ(gmxnsqname(nullptr, 1, buf, sizeof buf), GMX_ERR_BADCTX);
  EXPECT_EQ(gmxgsqgrp(nullptr, "g", map, sizeof map), GMX_ERR_BADCTX);
  gmxsterm(nullptr);
}

TEST_F(GmxTest, AMemberIsUpWhileItsHeartbeatIsYoungerThanThreePeriods) {
  set("SYSTEM.gmx.node.1", "alpha");
  set("SYSTEM.gmx.node.2", "beta");
  set("SYSTEM.gmx.node.3", "gamma");
  beat("c_NG", 1, 0);
  beat("c_NG", 2, 500);    // two and a half periods
  beat("c_NG", 3, 700);    // three and a half
  beat("c_NG", 9, 0);      // not a configured node
  set("SYSTEM.gmx.group.c_NG.x", "1 200 1");
  EXPECT_EQ(up("c_NG"), (std::vector<gmxnode>{1, 2}));
  set("SYSTEM.gmx.group.c_NG.1", "garbage");
  EXPECT_EQ(up("c_NG"), (std::vector<gmxnode>{2}));
  // Hostile values: out of range, negative, trailing text, no period.
  for (const char* v : {"99999999999999999999999 200 1", "-5 200 1", "1 200 1 x", "1 0 1", "1 200", ""}) {
    set("SYSTEM.gmx.group.c_NG.1", v);
    beat("c_NG", 2, 0);
    EXPECT_EQ(up("c_NG"), (std::vector<gmxnode>{2})) << v;
  }
  EXPECT_EQ(up("other_NG"), std::vector<gmxnode>{});
}

TEST_F(GmxTest, ANodeMemberJoinsBeatsAndLeaves) {
  setenv("GMX_CLUSTERNAME", "c.1", 1);  // a dot in the group name makes no extra key level
  set("SYSTEM.gmx.node.4", "alpha");
  {
    gmxNodeMember member(20);
    ASSERT_TRUE(member.joined()) << member.failure();
    EXPECT_EQ(member.failure(), "");
    EXPECT_EQ(up("c.1_NG"), std::vector<gmxnode>{4});
    // Beats keep it up well past three periods.
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    EXPECT_EQ(up("c.1_NG"), std::vector<gmxnode>{4});
    prvrg_key* k = nullptr;
    EXPECT_EQ(prvrg_open_key(reg_, &k, "SYSTEM.gmx.group.c%2E1_NG.4"), PRVRG_SUCC);
    prvrg_close_key(reg_, k);
  }
  EXPECT_EQ(up("c.1_NG"), std::vector<gmxnode>{});
  EXPECT_EQ(gmx::groupKeyComponent("a b/%_-Z9"), "a%20b%2F%25_-Z9");
}

TEST_F(GmxTest, LeavingKeepsTheHeartbeatOfAnotherProcess) {
  set("SYSTEM.gmx.node.1", "alpha");
  gmxNodeMember member(20);
  ASSERT_TRUE(member.joined());
  // A second daemon for the same node took the key over; the first one's leaving must not drop it.
  std::string why;
  auto backend = gmx::makeBackend(&why);
  ASSERT_NE(backend, nullptr) << why;
  set("SYSTEM.gmx.group.vyn_NG.1", std::to_string(gmx::wallClockMs()) + " 60000 " + std::to_string(getpid() + 1));
  EXPECT_EQ(backend->leave("vyn_NG", 1, &why), GMX_SUCC);
  EXPECT_EQ(up("vyn_NG"), std::vector<gmxnode>{1});
}

TEST_F(GmxTest, ANodeThatCannotJoinSaysWhyAndStaysDown) {
  set("SYSTEM.gmx.node.1", "beta");
  gmxNodeMember notConfigured(20);
  EXPECT_FALSE(notConfigured.joined());
  EXPECT_EQ(notConfigured.failure(), "this node (alpha) is not a configured node of the cluster vyn");
  EXPECT_EQ(up("vyn_NG"), std::vector<gmxnode>{});

  setenv("VYN_REGISTRY", (dir_ + "/none.db").c_str(), 1);
  gmxNodeMember noStore(20);
  EXPECT_FALSE(noStore.joined());
  EXPECT_EQ(noStore.failure(), "the membership service cannot start (rc 3)");
}

// A store its user cannot write: the node cannot join but can still be asked. As root this runs
// in a child that gives up root, since root writes any file.
TEST_F(GmxTest, OnAReadOnlyStoreQuestionsWorkAndJoiningFails) {
  set("SYSTEM.gmx.node.1", "alpha");
  beat("vyn_NG", 1, 0, 60000);
  ASSERT_EQ(chmod(dir_.c_str(), 0755), 0);
  ASSERT_EQ(chmod(store_.c_str(), geteuid() == 0 ? 0644 : 0444), 0);
  pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    if (geteuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0)) _exit(10);
    g_lines = nullptr;
    gmxsctx* c = nullptr;
    if (gmxsinit(&c, nullptr, nullptr) != GMX_SUCC) _exit(11);
    unsigned char map[GMX_MAX_NODES / 8];
    if (gmxgsqgrp(c, "vyn_NG", map, sizeof map) != GMX_SUCC || map[0] != 2) _exit(12);
    gmxsterm(c);
    gmxNodeMember member(20);
    if (member.joined()) _exit(13);
    if (member.failure().rfind("cannot join the group vyn_NG: ", 0) != 0) _exit(14);
    _exit(0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace
