// Two cluster nodes on one machine sharing one ZooKeeper server: each its own home, node name and
// event daemon; the registry and the membership live on the server. The built vyn_cluster and
// vyn_vrg ask from outside while daemons are killed and the server restarts under them.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/registry/zk_test_server.h"
#include "daemon_runner.h"
#include "direct_update_runner.h"
#include "program_runner.h"

namespace {

using vyntest::Outcome;
using vyntest::TempHome;
using vyntest::ZkTestServer;

// The daemons' session time-out: a killed daemon's node is down this long after, and a little.
const int kSessionMs = 1500;

double secondsSince(std::chrono::steady_clock::time_point t0) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

// One node's event daemon in its own home, stopped by pid whatever happens; it can be started again.
class Node {
 public:
  Node(const std::string& name, const std::string& registry) : name_(name), registry_(registry) { start(); }
  ~Node() { kill(SIGKILL); }
  Node(const Node&) = delete;
  Node& operator=(const Node&) = delete;

  void start() {
    daemon_ = std::make_unique<vyntest::Daemon>(
        home_, std::vector<std::string>{},
        std::map<std::string, std::string>{{"VYN_REGISTRY", registry_},
                                           {"VYN_NODE_NAME", name_},
                                           {"VYN_GMX_SESSION_MS", std::to_string(kSessionMs)},
                                           {"VYN_GMX_HEARTBEAT_MS", "200"}});
  }
  bool listening() const { return daemon_->listening(); }
  int kill(int sig) { return daemon_->stop(sig); }
  const TempHome& home() const { return home_; }
  std::string trace() const { return vyntest::slurp(home_.home() + "/log/vyn_evmd.trc"); }

 private:
  std::string name_, registry_;
  TempHome home_;
  std::unique_ptr<vyntest::Daemon> daemon_;
};

class ZkNodes : public ::testing::Test {
 protected:
  void SetUp() override {
    server_ = ZkTestServer::shared();
    if (server_ == nullptr) GTEST_SKIP() << ZkTestServer::skipReason();
    registry_ = server_->address("/zk_nodes_test/" + std::to_string(getpid()));
  }
  void TearDown() override {
    if (server_) server_->start();
  }

  Outcome vrg(const std::vector<std::string>& args) {
    return vyntest::run(vyntest::binary("vyn_vrg"), args, {{"VYN_REGISTRY", registry_}}, root_.work());
  }
  Outcome cluster(const std::string& as, const std::vector<std::string>& args) {
    return vyntest::run(vyntest::binary("vyn_cluster"), args,
                        {{"VYN_REGISTRY", registry_}, {"ZEL_VYN_HOME", root_.home()}, {"VYN_NODE_NAME", as}},
                        root_.work());
  }
  // Asks as `as` until the members read `want`, for at most `seconds`; how long it took.
  double until(const std::string& as, const std::string& want, double seconds) {
    auto t0 = std::chrono::steady_clock::now();
    while (cluster(as, {"members"}).out != want && secondsSince(t0) < seconds)
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    return secondsSince(t0);
  }

  // The profile command's direct update on node `node`, in a child process as the command runs it.
  Outcome directUpdate(const Node& node, const std::vector<std::string>& args) {
    return vyntest::runDirectUpdate(args,
                                    {{"ZEL_VYN_HOME", node.home().home()},
                                     {"VYN_REGISTRY", registry_},
                                     {"VYN_IPC_DIR", node.home().root() + "/ipc"}},
                                    node.home().root());
  }

  ZkTestServer* server_ = nullptr;
  TempHome root_;
  std::string registry_;
};

TEST_F(ZkNodes, TwoNodesShareMembersAndResourcesThroughOneServer) {
  ASSERT_EQ(vrg({"set", "SYSTEM.gmx.node.1", "node1"}).status, 0);
  ASSERT_EQ(vrg({"set", "SYSTEM.gmx.node.2", "node2"}).status, 0);
  ASSERT_EQ(vrg({"set", "VYN.CUR.web.IS_UNREGISTERING", "0"}).status, 0);
  ASSERT_EQ(vrg({"set", "VYN.CUR.web.CHECK_INTERVAL", "60"}).status, 0);
  Node n1("node1", registry_), n2("node2", registry_);
  ASSERT_TRUE(n1.listening());
  ASSERT_TRUE(n2.listening());

  const std::string both = "1 node1 up\n2 node2 up\n";
  EXPECT_LT(until("node1", both, 5.0), 5.0) << n1.trace();
  EXPECT_EQ(cluster("node2", {"members"}).out, both);

  // An update made on one node is what the other node's tools read.
  Outcome u = directUpdate(n1, {"-update", "web", "-o", "ci=30"});
  EXPECT_EQ(u.status, 0) << u.out << u.err;
  EXPECT_EQ(u.out, "Resource web updated.\n");
  const std::string web = "VYN.CUR.web\n  CHECK_INTERVAL = 30\n  IS_UNREGISTERING = 0\n";
  Outcome d = vrg({"dump", "VYN.CUR.web"});
  EXPECT_EQ(d.status, 0) << d.err;
  EXPECT_EQ(d.out, web);

  // A daemon killed outright: down on the other node within the session time-out.
  EXPECT_EQ(n2.kill(SIGKILL), 128 + SIGKILL);
  double took = until("node1", "1 node1 up\n2 node2 down\n", 10.0);
  EXPECT_LT(took, kSessionMs / 1000.0 + 2.0);

  // The server restarts: no acknowledged write is lost, and the living node is a member again.
  server_->stop();
  ASSERT_TRUE(server_->start());
  EXPECT_EQ(vrg({"dump", "VYN.CUR.web"}).out, web);
  EXPECT_LT(until("node1", "1 node1 up\n2 node2 down\n", 10.0), 10.0) << n1.trace();
  n2.start();
  ASSERT_TRUE(n2.listening());
  EXPECT_LT(until("node2", both, 10.0), 10.0);
}

// The server away: the tools fail within the stated wait with the ensemble's reason, and work
// again once it is back.
TEST_F(ZkNodes, ToolsFailInBoundedTimeWhileTheServerIsAway) {
  ASSERT_EQ(vrg({"set", "SYSTEM.gmx.node.1", "node1"}).status, 0);
  server_->stop();
  auto t0 = std::chrono::steady_clock::now();
  Outcome o = vrg({"get", "SYSTEM.gmx.node.1"});
  EXPECT_LT(secondsSince(t0), 4.0);
  EXPECT_EQ(o.status, 1);
  EXPECT_NE(o.err.find("cannot be reached"), std::string::npos) << o.err;
  ASSERT_TRUE(server_->start());
  o = vrg({"get", "SYSTEM.gmx.node.1"});
  EXPECT_EQ(o.status, 0) << o.err;
  EXPECT_EQ(o.out, "node1\n");
}

}  // namespace
