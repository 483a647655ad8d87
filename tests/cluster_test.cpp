// Several cluster nodes on one machine: each its own home, node name and event daemon, all sharing
// one registry store. vyn_cluster asks from outside while daemons start, stop and are killed.
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

#include "daemon_runner.h"
#include "program_runner.h"

namespace {

using vyntest::Outcome;
using vyntest::TempHome;

// Short enough for quick tests, long enough that a loaded machine still beats in time.
const int kPeriodMs = 300;

// One node's event daemon, started in its own home and stopped by pid whatever happens.
class Node {
 public:
  Node(const std::string& name, const std::string& store, std::map<std::string, std::string> extra = {}) {
    std::map<std::string, std::string> env = {
        {"VYN_REGISTRY", store}, {"VYN_NODE_NAME", name}, {"VYN_GMX_HEARTBEAT_MS", std::to_string(kPeriodMs)}};
    for (const auto& kv : extra) env[kv.first] = kv.second;
    daemon_ = std::make_unique<vyntest::Daemon>(home_, std::vector<std::string>{}, env);
  }
  ~Node() { kill(SIGKILL); }
  Node(const Node&) = delete;
  Node& operator=(const Node&) = delete;

  bool listening() const { return daemon_->listening(); }
  // Sends the signal and reaps the daemon; its exit status, or 128 + the signal.
  int kill(int sig) { return daemon_->stop(sig); }
  std::string trace() const { return vyntest::slurp(home_.home() + "/log/vyn_evmd.trc"); }

 private:
  TempHome home_;
  std::unique_ptr<vyntest::Daemon> daemon_;
};

class ClusterNodes : public ::testing::Test {
 protected:
  void SetUp() override { store_ = root_.root() + "/reg.db"; }

  void vrg(const std::string& key, const std::string& value) {
    Outcome o = vyntest::run(vyntest::binary("vyn_vrg"), {"set", key, value}, {{"VYN_REGISTRY", store_}}, root_.work());
    ASSERT_EQ(o.status, 0) << o.err;
  }
  void configure(const std::vector<std::string>& names) {
    for (std::size_t i = 0; i < names.size(); ++i) vrg("SYSTEM.gmx.node." + std::to_string(i + 1), names[i]);
  }
  std::unique_ptr<Node> start(const std::string& name, std::map<std::string, std::string> extra = {}) {
    std::unique_ptr<Node> n(new Node(name, store_, extra));
    EXPECT_TRUE(n->listening()) << name;
    return n;
  }
  // vyn_cluster as node `as`.
  Outcome cluster(const std::string& as, const std::vector<std::string>& args, int uid = -1,
                  std::map<std::string, std::string> extra = {}) {
    std::map<std::string, std::string> env = {{"VYN_REGISTRY", store_}, {"ZEL_VYN_HOME", root_.home()}};
    if (!as.empty()) env["VYN_NODE_NAME"] = as;
    for (const auto& kv : extra) env[kv.first] = kv.second;
    return vyntest::run(vyntest::binary("vyn_cluster"), args, env, root_.work(), uid);
  }
  int master(const std::string& as) { return cluster(as, {"master"}).status; }

  TempHome root_;
  std::string store_;
};

TEST_F(ClusterNodes, MembersAreUpWhileTheirDaemonsRun) {
  configure({"n1", "N2.example.com", "n3"});
  Outcome o = cluster("n1", {"members"});
  EXPECT_EQ(o.status, 0) << o.err;
  EXPECT_EQ(o.out, "1 n1 down\n2 n2 down\n3 n3 down\n");
  EXPECT_EQ(master("n1"), 1);  // nobody is up

  auto n2 = start("n2");
  auto n3 = start("n3.example.com");
  o = cluster("n1", {"members"});
  EXPECT_EQ(o.out, "1 n1 down\n2 n2 up\n3 n3 up\n");
  EXPECT_EQ(cluster("n1", {"state", "N2"}).out, "1\n");
  EXPECT_EQ(cluster("n1", {"state", "n1"}).out, "0\n");
  EXPECT_EQ(cluster("n1", {"id", "n3.example.com"}).out, "3\n");
  EXPECT_EQ(cluster("N1.Example.com", {"localhost"}).out, "n1\n");
  EXPECT_EQ(master("n2"), 0);
  EXPECT_EQ(master("n3"), 1);
  EXPECT_EQ(master("n1"), 1);

  // A clean stop leaves the group at once; the master's role moves on.
  EXPECT_EQ(n2->kill(SIGTERM), 0);
  EXPECT_EQ(cluster("n1", {"members"}).out, "1 n1 down\n2 n2 down\n3 n3 up\n");
  EXPECT_EQ(master("n3"), 0);
  auto n1 = start("n1");
  EXPECT_EQ(master("n1"), 0);
  EXPECT_EQ(master("n3"), 1);
  EXPECT_NE(n1->trace().find("gmx: node 1 joined the group vyn_NG, heartbeat every 300 ms\n"), std::string::npos)
      << n1->trace();
}

TEST_F(ClusterNodes, AKilledDaemonDropsOutWithinThreePeriods) {
  vrg("SYSTEM.gmx.cluster_name", "blue");
  configure({"n1", "n2"});
  auto n1 = start("n1");
  auto n2 = start("n2");
  // Well past three periods both still stand: the heartbeat keeps them up.
  std::this_thread::sleep_for(std::chrono::milliseconds(4 * kPeriodMs));
  ASSERT_EQ(cluster("n2", {"members"}).out, "1 n1 up\n2 n2 up\n");
  ASSERT_EQ(master("n2"), 1);

  auto killed = std::chrono::steady_clock::now();
  EXPECT_EQ(n1->kill(SIGKILL), 128 + SIGKILL);
  std::string state;
  double seconds = 0;
  do {
    state = cluster("n2", {"state", "n1"}).out;
    seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - killed).count();
  } while (state == "1\n" && seconds < 10);
  EXPECT_EQ(state, "0\n");
  // Three periods, plus what one asking takes.
  EXPECT_LT(seconds, 3 * kPeriodMs / 1000.0 + 0.5);
  EXPECT_EQ(master("n2"), 0);
}

TEST_F(ClusterNodes, WithoutConfiguredNodesTheNodeStandsAlone) {
  vrg("SYSTEM.vyn.placeholder", "x");
  EXPECT_EQ(cluster("Solo.example.com", {"members"}).out, "1 solo down\n");
  auto solo = start("solo");
  EXPECT_EQ(cluster("solo", {"members"}).out, "1 solo up\n");
  EXPECT_EQ(cluster("solo", {"id", "solo"}).out, "1\n");
  EXPECT_EQ(master("solo"), 0);
}

TEST_F(ClusterNodes, ABadCommandLineIsStatusTwo) {
  const char usage[] =
      "usage: vyn_cluster members\n"
      "       vyn_cluster state NAME\n"
      "       vyn_cluster id NAME\n"
      "       vyn_cluster master\n"
      "       vyn_cluster localhost\n";
  for (const auto& args : std::vector<std::vector<std::string>>{
           {}, {"state"}, {"id", ""}, {"members", "x"}, {"master", "n1"}, {"frob"}, {"state", "a", "b"}}) {
    Outcome o = cluster("n1", args);
    EXPECT_EQ(o.status, 2) << args.size();
    EXPECT_EQ(o.err, usage);
    EXPECT_EQ(o.out, "");
  }
}

TEST_F(ClusterNodes, UnknownSharedAndEmptyNamesAreToldApart) {
  configure({"dup", "Dup.other", "", "n4"});
  Outcome o = cluster("n4", {"state", "nosuch.example.com"});
  EXPECT_EQ(o.status, 1);
  EXPECT_EQ(o.err, "cluinfo(memberid) failed for nosuch\n");
  EXPECT_EQ(o.out, "");
  o = cluster("n4", {"id", "DUP"});
  EXPECT_EQ(o.status, 1);
  EXPECT_EQ(o.err, "cluinfo(memberid) failed for dup\n");
  // Both nodes of the shared name are listed; the one without a name is not.
  EXPECT_EQ(cluster("n4", {"members"}).out, "1 dup down\n2 dup down\n4 n4 down\n");

  // A daemon on a node with a shared name, or none configured, runs on and counts as down.
  auto dup = start("dup");
  auto stray = start("stray");
  EXPECT_EQ(cluster("n4", {"members"}).out, "1 dup down\n2 dup down\n4 n4 down\n");
  EXPECT_NE(stray->trace().find("gmx: not a member, this node counts as down: this node (stray) is not a configured "
                                "node of the cluster vyn\n"),
            std::string::npos)
      << stray->trace();
  EXPECT_EQ(master("stray"), 1);
}

TEST_F(ClusterNodes, ALongClusterNameStillMakesItsGroup) {
  // From the registry: in the environment the name would also go into the daemon's address.
  vrg("SYSTEM.gmx.cluster_name", std::string(150, 'c'));
  configure({"n1"});
  auto n1 = start("n1");
  EXPECT_EQ(cluster("n1", {"members"}).out, "1 n1 up\n");
  // Another cluster's name is another group.
  EXPECT_EQ(cluster("n1", {"members"}, -1, {{"GMX_CLUSTERNAME", "other"}}).out, "1 n1 down\n");
}

TEST_F(ClusterNodes, AMissingOrReadOnlyStoreGivesStatusesNotCrashes) {
  Outcome o = cluster("n1", {"members"});  // no store was ever made
  EXPECT_EQ(o.status, 1);
  EXPECT_EQ(o.err, "clu_get_info failed\n");
  o = cluster("n1", {"master"});
  EXPECT_EQ(o.status, 1);
  EXPECT_EQ(o.err, "clu_info(CLU_INFO_MY_ID) failed\n");
  EXPECT_EQ(cluster("n1", {"localhost"}).out, "n1\n");
  auto n1 = start("n1");  // a daemon without a store runs on
  EXPECT_NE(n1->trace().find("gmx: not a member, this node counts as down: the membership service cannot start"),
            std::string::npos)
      << n1->trace();
  n1.reset();

  configure({"n1", "n2"});
  auto n2 = start("n2");
  // A user who may only read the store still learns who is up.
  chmod(root_.root().c_str(), 0755);
  chmod(store_.c_str(), 0644);
  int nobody = geteuid() == 0 ? 65534 : -1;
  o = cluster("n1", {"members"}, nobody, {{"ZEL_VYN_HOME", "/nonexistent"}});
  EXPECT_EQ(o.status, 0) << o.err;
  EXPECT_EQ(o.out, "1 n1 down\n2 n2 up\n");
}

}  // namespace
