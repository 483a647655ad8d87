// A program of another service of the suite asking about the cluster: built apart from the
// project, with nothing but the compiler, the headers and the built static libraries. It uses the
// membership client's two layers and the cluster queries by the names a caller knows, and says
// what differed. Its one argument is a scratch home. Exit status 0 when everything held.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/time.h>

#include "caa/lib/caa_Cluster.h"
#include "clu/clsclu.h"
#include "evm/libevm/cluinfo.h"
#include "platform/registry/prvrg.h"

namespace {

int g_failures = 0;

void expect(bool ok, const char* what) {
  if (!ok) {
    std::printf("FAILED: %s\n", what);
    ++g_failures;
  }
}

// Setting up: a store with two configured nodes, and node 2 beating as its daemon would.
bool makeStore(const std::string& path) {
  setenv("VYN_REGISTRY", path.c_str(), 1);
  char err[1024];
  std::size_t len = sizeof err;
  prvrg_ctx* ctx = nullptr;
  if (prvrg_init_ext(&ctx, PRVRG_LEVEL_DEFAULT, err, &len, PRVRG_FLAG_CREATE) != 0) return false;
  timeval tv;
  gettimeofday(&tv, nullptr);
  std::string beat = std::to_string(tv.tv_sec * 1000LL + tv.tv_usec / 1000) + " 60000 1";
  const char* keys[][2] = {{"SYSTEM.gmx.node.1", "node1"},
                           {"SYSTEM.gmx.node.2", "Node2.example.com"},
                           {"SYSTEM.gmx.group.out_NG.2", beat.c_str()}};
  bool ok = true;
  for (auto& kv : keys)
    ok = ok && prvrg_create_n_set_key(ctx, nullptr, kv[0], nullptr, nullptr, prvrg_dtype_ZELTEXT, kv[1],
                                      std::strlen(kv[1]) + 1, prvrg_security{}) == 0;
  prvrg_terminate(ctx);
  return ok;
}

}  // namespace

int main(int argc, char** argv) {
  std::string home = argc > 1 ? argv[1] : "/tmp";
  setenv("VYN_NODE_NAME", "node2", 1);
  setenv("GMX_CLUSTERNAME", "out", 1);
  if (!makeStore(home + "/cluster_outside.db")) {
    std::printf("FAILED: setting up the store\n");
    return 1;
  }

  // The upper layer.
  int id = -1;
  expect(clu_is_ready() == 0 && clu_info(CLU_INFO_MY_ID, &id) == 1, "nothing before clu_ctxinit");
  expect(clu_ctxinit(nullptr, nullptr) == 0 && clu_ctxinit(nullptr, nullptr) == 0 && clu_is_ready() == 1,
         "clu_ctxinit, once");
  expect(clu_info(CLU_INFO_MY_ID, &id) == 0 && id == 2, "CLU_INFO_MY_ID");
  expect(clu_info(CLU_INFO_MEMBERID_BY_NAME, "node1", &id) == 0 && id == 1, "CLU_INFO_MEMBERID_BY_NAME");
  clu_limits limits;
  expect(clu_info(3, &limits) == 0 && limits.min_membid == 0 && limits.max_membid == limits.max_sup_memb - 1,
         "clu_limits");
  char state[3] = {5, 5, 5};
  expect(clu_info(CLU_INFO_MEMBSTATE, 3, state) == 0 && state[0] == 0 && state[1] == 0 && state[2] == 1,
         "CLU_INFO_MEMBSTATE");
  char name[64];
  expect(clu_info(8, "node1", name, static_cast<int>(sizeof name)) == 0 && std::strcmp(name, "node1") == 0,
         "the interconnect");
  expect(clu_is_member() == 1, "clu_is_member");
  clu_gen_info* info = nullptr;
  expect(clu_get_info(&info) == 0 && info->clu_num_of_members == 2 && info->my_memberid == 2 &&
             std::strcmp(info->clu_name, "out") == 0 && info->memblist[1].state == 1 &&
             std::strcmp(info->memblist[1].hostname, "Node2.example.com") == 0,
         "clu_get_info");
  expect(clu_free_info(&info) == 0 && info == nullptr, "clu_free_info");
  expect(clu_getgmxsctx() != nullptr, "clu_getgmxsctx");

  // The lower layer, on the process's context.
  clscluctx* ctx = clugetctx();
  expect(ctx != nullptr && std::memcmp(&ctx->majik_clscluctx, "cUlC", 4) == 0, "clugetctx and the magic");
  expect(clsclu_info(ctx, CLU_INFO_CLU_NAME, name, static_cast<int>(sizeof name)) == clscluretSUCC &&
             std::strcmp(name, "out") == 0,
         "CLU_INFO_CLU_NAME");
  expect(clsclu_info(ctx, CLU_INFO_NODENAME_BY_ID, 1, name, static_cast<int>(sizeof name)) == clscluretSUCC &&
             std::strcmp(name, "node1") == 0,
         "CLU_INFO_NODENAME_BY_ID");
  expect(clsclu_info(nullptr, CLU_INFO_MY_ID, &id) == clscluretFAIL && clsclu_term(nullptr) == clscluretSUCC,
         "a null context");

  // The queries.
  using CAA::Cluster;
  expect(Cluster::getLocalhost() == "node2", "getLocalhost");
  expect(Cluster::ToShortAndLower("A.B") == "a", "ToShortAndLower");
  expect(Cluster::getMemberLockName("") == std::string(CAA::MEMBER_LOCK_PREFIX) + "node2", "getMemberLockName");
  expect(Cluster::getMemberId("NODE1.example.com") == "1", "getMemberId");
  expect(Cluster::getState("node2") == 1 && Cluster::getState("node1") == 0, "getState");
  expect(Cluster::getInterconnect("node1") == "node1", "getInterconnect");
  CAA::hstate_t members;
  expect(Cluster::getMembers(members) == 2 && members["node1"] == 0 && members["node2"] == 1, "getMembers");
  expect(Cluster::amMaster(), "amMaster");
  try {
    Cluster::getState("nobody");
    expect(false, "an unknown member throws");
  } catch (const CAA::ClusterException& e) {
    expect(e.className() == "ClusterException" &&
               e.what().rfind("cluinfo(memberid) failed for nobody\n(File: caa_Cluster, line: ", 0) == 0,
           "ClusterException");
  }
  Cluster::lostQuorum(static_cast<long>(std::time(nullptr)) - 20);
  Cluster::gainedQuorum(static_cast<long>(std::time(nullptr)) - 10);
  Cluster::sleepWithQuorum(0);

  // The client's own trace file.
  expect(evmcls_iprintf("outside\n", 8) == 8, "evmcls_iprintf");
  std::ifstream in(home + "/log/evm_clss_node2.trc");
  std::stringstream text;
  text << in.rdbuf();
  expect(text.str() == "outside\n", "the trace file of evmcls_iprintf");
  evmclu_tracing = 0;
  return g_failures == 0 ? 0 : 1;
}
