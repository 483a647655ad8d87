// Tests of membership on a ZooKeeper server that the test program starts itself.
#include "platform/gmx/gmx_zk.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "platform/gmx/gmx.h"
#include "platform/registry/prvrg.h"
#include "platform/registry/zk_test_server.h"

using vyntest::ZkTestServer;

namespace {

double secondsSince(std::chrono::steady_clock::time_point t0) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

class GmxZkTest : public ::testing::Test {
 protected:
  void SetUp() override {
    server_ = ZkTestServer::shared();
    if (server_ == nullptr) GTEST_SKIP() << ZkTestServer::skipReason();
    static int serial = 0;
    std::string address = server_->address("/gmx_zk_test/" + std::to_string(getpid()) + "_" + std::to_string(++serial));
    setenv("VYN_REGISTRY", address.c_str(), 1);
    setenv("VYN_NODE_NAME", "alpha", 1);
    setenv("VYN_GMX_SESSION_MS", "1500", 1);
    unsetenv("GMX_CLUSTERNAME");
    openRegistry();
    set("SYSTEM.gmx.node.1", "alpha");
    set("SYSTEM.gmx.node.2", "beta");
    ASSERT_TRUE(gmx::zkMembership());
  }
  void TearDown() override {
    if (server_) server_->start();
    for (gmxsctx* c : open_) gmxsterm(c);
    if (reg_) prvrg_terminate(reg_);
    for (const char* v : {"VYN_REGISTRY", "VYN_NODE_NAME", "VYN_GMX_SESSION_MS", "VYN_GMX_HEARTBEAT_MS"}) unsetenv(v);
  }

  void openRegistry() {
    char err[1024];
    std::size_t len = sizeof err;
    ASSERT_EQ(prvrg_init_ext(&reg_, PRVRG_LEVEL_DEFAULT, err, &len, PRVRG_FLAG_CREATE), PRVRG_SUCC) << err;
  }
  // A child forked while a session's threads run could inherit a lock one of them holds: every
  // session of this process ends before a fork.
  pid_t forkAlone() {
    for (gmxsctx* c : open_) gmxsterm(c);
    open_.clear();
    prvrg_terminate(reg_);
    reg_ = nullptr;
    pid_t child = fork();
    if (child != 0) openRegistry();
    return child;
  }
  void set(const std::string& key, const std::string& value) {
    ASSERT_EQ(prvrg_create_n_set_key(reg_, nullptr, key.c_str(), nullptr, nullptr, prvrg_dtype_ZELTEXT, value.c_str(),
                                     value.size() + 1, prvrg_security{}),
              PRVRG_SUCC);
  }
  std::vector<gmxnode> up(gmxsctx* c = nullptr) {
    if (c == nullptr) {
      // 999: the service could not start, as it cannot while the server is away.
      if (gmxsinit(&c, nullptr, nullptr) != GMX_SUCC) return {999};
      open_.push_back(c);
    }
    unsigned char map[GMX_MAX_NODES / 8];
    if (gmxgsqgrp(c, "vyn_NG", map, sizeof map) != GMX_SUCC) return {999};
    std::vector<gmxnode> nodes;
    for (gmxnode n = 0; n < GMX_MAX_NODES; ++n)
      if (map[n / 8] >> (n % 8) & 1) nodes.push_back(n);
    return nodes;
  }
  // Polls until the members are `want` or `seconds` have passed; the time it took.
  double until(const std::vector<gmxnode>& want, double seconds) {
    auto t0 = std::chrono::steady_clock::now();
    while (up() != want && secondsSince(t0) < seconds) std::this_thread::sleep_for(std::chrono::milliseconds(50));
    return secondsSince(t0);
  }

  ZkTestServer* server_ = nullptr;
  prvrg_ctx* reg_ = nullptr;
  std::vector<gmxsctx*> open_;
};

TEST_F(GmxZkTest, AMemberIsAnEphemeralZnodeThatGoesWhenItLeaves) {
  {
    gmxNodeMember member(100);
    ASSERT_TRUE(member.joined()) << member.failure();
    EXPECT_EQ(up(), std::vector<gmxnode>{1});
    // No heartbeat is written: the member's key is its session's, holding "<pid> <host>".
    prvrg_key* k = nullptr;
    ASSERT_EQ(prvrg_open_key(reg_, &k, "SYSTEM.gmx.group.vyn_NG.1"), PRVRG_SUCC);
    char value[300];
    std::size_t len = sizeof value;
    ASSERT_EQ(prvrg_get_value(reg_, k, nullptr, value, &len), PRVRG_SUCC);
    EXPECT_EQ(std::string(value).substr(0, std::string(value).find(' ')), std::to_string(getpid()));
    prvrg_close_key(reg_, k);
  }
  EXPECT_LT(until({}, 2.0), 1.0);
}

// A daemon killed outright: its node stays up until the session expires, then drops out; a
// daemon started again for the node takes its place once the old session is gone.
TEST_F(GmxZkTest, AMemberWhoseProcessDiesDropsOutWhenItsSessionExpires) {
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  pid_t pid = forkAlone();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    gmxNodeMember member(100);
    char c = member.joined() ? 'j' : 'n';
    if (write(ready[1], &c, 1) != 1) _exit(1);
    pause();
    _exit(0);
  }
  char c = 0;
  ASSERT_EQ(read(ready[0], &c, 1), 1);
  close(ready[0]);
  close(ready[1]);
  ASSERT_EQ(c, 'j');
  EXPECT_EQ(up(), std::vector<gmxnode>{1});
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
  EXPECT_LT(until({}, 5.0), 3.0) << "down within the 1.5 s session time-out and a watch";
  gmxNodeMember again(100);  // the next daemon of the node
  ASSERT_TRUE(again.joined()) << again.failure();
  EXPECT_EQ(up(), std::vector<gmxnode>{1});
}

// A daemon started again at once finds its node's znode still held by the dead one's session,
// and takes the node over when that session expires.
TEST_F(GmxZkTest, ARestartedDaemonTakesItsNodeOverFromTheDeadSession) {
  pid_t pid = forkAlone();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    gmxNodeMember member(100);
    _exit(member.joined() ? 0 : 1);  // no leave: the znode stays with the session
  }
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  ASSERT_EQ(WEXITSTATUS(status), 0);
  // The child's exit closed nothing orderly; its session lives on for up to 1.5 s.
  gmxNodeMember again(100);
  ASSERT_TRUE(again.joined()) << again.failure();
  std::this_thread::sleep_for(std::chrono::milliseconds(3000));
  EXPECT_EQ(up(), std::vector<gmxnode>{1});
  prvrg_key* k = nullptr;
  ASSERT_EQ(prvrg_open_key(reg_, &k, "SYSTEM.gmx.group.vyn_NG.1"), PRVRG_SUCC);
  char value[300];
  std::size_t len = sizeof value;
  ASSERT_EQ(prvrg_get_value(reg_, k, nullptr, value, &len), PRVRG_SUCC);
  EXPECT_EQ(std::string(value).substr(0, std::string(value).find(' ')), std::to_string(getpid()));
  prvrg_close_key(reg_, k);
}

// The member list is served from the watched copy: an unchanged group is answered without the
// server, which is shown here by a server that has stopped answering.
TEST_F(GmxZkTest, AnUnchangedGroupIsAnsweredFromTheWatchedCopy) {
  std::string why;
  auto reader = gmx::makeZkBackend(&why);
  ASSERT_NE(reader, nullptr) << why;
  std::vector<gmxnode> nodes;
  ASSERT_EQ(reader->members("vyn_NG", &nodes, &why), GMX_SUCC) << why;
  EXPECT_TRUE(nodes.empty());
  auto member = gmx::makeZkBackend(&why);
  ASSERT_EQ(member->join("vyn_NG", 2, 100, &why), GMX_SUCC) << why;
  // The watch on the missing group fires when it appears.
  for (int i = 0; i < 50 && nodes.empty(); ++i) {
    ASSERT_EQ(reader->members("vyn_NG", &nodes, &why), GMX_SUCC) << why;
    if (nodes.empty()) std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  EXPECT_EQ(nodes, std::vector<gmxnode>{2});
  ASSERT_EQ(reader->members("vyn_NG", &nodes, &why), GMX_SUCC);

  server_->freeze();
  auto t0 = std::chrono::steady_clock::now();
  int rc = reader->members("vyn_NG", &nodes, &why);
  double took = secondsSince(t0);
  server_->thaw();
  EXPECT_EQ(rc, GMX_SUCC) << why;
  EXPECT_EQ(nodes, std::vector<gmxnode>{2});
  EXPECT_LT(took, 0.1);

  ASSERT_EQ(member->leave("vyn_NG", 2, &why), GMX_SUCC) << why;
  for (int i = 0; i < 50 && !nodes.empty(); ++i) {
    reader->members("vyn_NG", &nodes, &why);
    if (!nodes.empty()) std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  EXPECT_TRUE(nodes.empty());
}

// The ensemble out of reach when the daemon starts, and for longer than the session later: the
// member joins when the ensemble is there, and is back after its session expired.
TEST_F(GmxZkTest, AMemberJoinsWhenTheEnsembleComesAndRejoinsAfterItsSessionExpired) {
  server_->stop();
  gmxNodeMember member(100);
  EXPECT_FALSE(member.joined());
  ASSERT_TRUE(server_->start());
  EXPECT_LT(until({1}, 8.0), 6.0);
  EXPECT_TRUE(member.joined());

  server_->stop();
  std::this_thread::sleep_for(std::chrono::milliseconds(2500));  // past the session time-out
  ASSERT_TRUE(server_->start());
  EXPECT_LT(until({1}, 10.0), 8.0);
}

}  // namespace
