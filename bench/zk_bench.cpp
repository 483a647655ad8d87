// The registry and membership on a ZooKeeper server, each measure beside a bare client call on
// the same server in the same run:
//   Get/bare_vs_prvrg       zoo_get of one key's znode, and prvrg_get_value of that key (open)
//   Set/bare_vs_prvrg       zoo_set of the same data, and prvrg_set_value of the same value
//   CluGetInfo/*            the member list of 64 configured nodes, 32 of them members (ephemeral
//                           znodes), with no change since the last call, against memcpy of the
//                           list's bytes; the list is served from the copy its watch keeps
// The server is a standalone one from the `zookeeper` package, started by this program on a free
// loopback port and stopped when it ends.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "evm/libevm/cluinfo.h"

#include "platform/registry/prvrg.h"
#include "platform/registry/prvrg_znode.h"
#include "platform/registry/zk_connection.h"
#include "platform/registry/zk_test_server.h"

namespace {

using vyntest::ZkTestServer;

const char* const kKey = "VYN.CUR.res1.RESTART_ATTEMPTS";
const int kNodes = 64;
const std::string kValue = "ora.db1.inst:restart-attempts=3";

// The server, a registry handle on a chroot of its own with the key made, and a bare session.
struct Setup {
  Setup() {
    // A server of its own that does not sync its log to disk: a disk's flush time would drown the
    // clients' own cost, which is what the figures compare.
    if (!ZkTestServer::available()) return;
    static ZkTestServer own(false);
    if (!own.start()) return;
    server = &own;
    std::string address = server->address("/zk_bench");
    setenv("VYN_REGISTRY", address.c_str(), 1);
    char err[1024];
    std::size_t len = sizeof err;
    if (prvrg_init_ext(&ctx, PRVRG_LEVEL_DEFAULT, err, &len, PRVRG_FLAG_CREATE) != PRVRG_SUCC ||
        prvrg_create_n_set_key(ctx, nullptr, kKey, &key, nullptr, prvrg_dtype_ZELTEXT, kValue.c_str(),
                               kValue.size() + 1, prvrg_security{}) != PRVRG_SUCC)
      std::abort();
    bare = new zk::Connection(zk::parseAddress(address), 4000);
    path = znode::pathOf("/zk_bench", kKey);
    znode::Record r;
    r.dtype = prvrg_dtype_ZELTEXT;
    r.value = kValue;
    data = znode::encode(r);
    // A cluster of 64 configured nodes; the odd ones are members, as their daemons' sessions
    // would make them.
    setenv("VYN_NODE_NAME", "node1", 1);
    setenv("GMX_CLUSTERNAME", "bench", 1);
    for (int n = 1; n <= kNodes; ++n) {
      std::string key = "SYSTEM.gmx.node." + std::to_string(n);
      std::string name = "node" + std::to_string(n) + ".example.com";
      if (prvrg_create_n_set_key(ctx, nullptr, key.c_str(), nullptr, nullptr, prvrg_dtype_ZELTEXT, name.c_str(),
                                 name.size() + 1, prvrg_security{}) != PRVRG_SUCC)
        std::abort();
    }
    prvrg_key* group = nullptr;
    if (prvrg_create_key(ctx, nullptr, "SYSTEM.gmx.group.bench_NG", &group, nullptr, prvrg_security{}) != PRVRG_SUCC)
      std::abort();
    znode::Record member;
    member.dtype = prvrg_dtype_ZELTEXT;
    member.value = "1 bench";
    std::string memberData = znode::encode(member);
    for (int n = 1; n <= kNodes; n += 2) {
      std::string p = znode::pathOf("/zk_bench", "SYSTEM.gmx.group.bench_NG." + std::to_string(n));
      if (zoo_create(bare->handle(), p.c_str(), memberData.data(), static_cast<int>(memberData.size()),
                     &ZOO_OPEN_ACL_UNSAFE, ZOO_EPHEMERAL, nullptr, 0) != ZOK)
        std::abort();
    }
    evmclu_tracing = 0;
    if (clu_ctxinit(nullptr, nullptr) != 0) std::abort();
  }
  ZkTestServer* server = nullptr;
  prvrg_ctx* ctx = nullptr;
  prvrg_key* key = nullptr;
  zk::Connection* bare = nullptr;
  std::string path, data;
};

Setup& setup() {
  static Setup s;
  return s;
}

bool ready(benchmark::State& state) {
  if (setup().server != nullptr) return true;
  state.SkipWithError(ZkTestServer::skipReason());
  return false;
}

// Each iteration makes kBlock bare calls, then kBlock registry calls, and times both sides: in
// turns, the two meet the same load of the machine and of the server. (In blocks, since a bare
// write between two registry writes is another writer, which the registry's next conditional
// write must read again: that costs it once a block, as it would with a real other writer.)
// Counters: the mean call of each side in µs and their ratio.
const int kBlock = 50;

template <typename Bare, typename Registry>
void paired(benchmark::State& state, Bare bare, Registry registry) {
  using Clock = std::chrono::steady_clock;
  Clock::duration bareTotal{}, registryTotal{};
  for (auto _ : state) {
    auto t0 = Clock::now();
    for (int i = 0; i < kBlock; ++i)
      if (!bare()) state.SkipWithError("the bare call failed");
    auto t1 = Clock::now();
    for (int i = 0; i < kBlock; ++i)
      if (!registry()) state.SkipWithError("the registry call failed");
    auto t2 = Clock::now();
    bareTotal += t1 - t0;
    registryTotal += t2 - t1;
  }
  double n = static_cast<double>(state.iterations()) * kBlock;
  double bareUs = std::chrono::duration<double, std::micro>(bareTotal).count() / n;
  double registryUs = std::chrono::duration<double, std::micro>(registryTotal).count() / n;
  state.counters["bare_us"] = bareUs;
  state.counters["prvrg_us"] = registryUs;
  state.counters["ratio"] = registryUs / bareUs;
}

void BM_Get(benchmark::State& state) {
  if (!ready(state)) return;
  Setup& s = setup();
  char buf[4096];
  paired(
      state,
      [&] {
        int len = sizeof buf;
        Stat st;
        return zoo_get(s.bare->handle(), s.path.c_str(), 0, buf, &len, &st) == ZOK;
      },
      [&] {
        std::size_t len = sizeof buf;
        int type = 0;
        return prvrg_get_value(s.ctx, s.key, &type, buf, &len) == PRVRG_SUCC;
      });
}
BENCHMARK(BM_Get)->Name("Get/bare_vs_prvrg")->UseRealTime();

void BM_Set(benchmark::State& state) {
  if (!ready(state)) return;
  Setup& s = setup();
  paired(
      state,
      [&] { return zoo_set(s.bare->handle(), s.path.c_str(), s.data.data(), static_cast<int>(s.data.size()), -1) == ZOK; },
      [&] {
        return prvrg_set_value(s.ctx, s.key, prvrg_dtype_ZELTEXT, kValue.c_str(), kValue.size() + 1) == PRVRG_SUCC;
      });
}
BENCHMARK(BM_Set)->Name("Set/bare_vs_prvrg")->UseRealTime();

void BM_CluMemcpy(benchmark::State& state) {
  std::size_t bytes = sizeof(clu_gen_info) + kNodes * (sizeof(clu_member_info) + sizeof "node64.example.com");
  std::vector<char> from(bytes, 'x'), to(bytes);
  for (auto _ : state) {
    std::memcpy(to.data(), from.data(), bytes);
    benchmark::DoNotOptimize(to.data());
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_CluMemcpy)->Name("CluGetInfo/memcpy");

void BM_CluGetInfo(benchmark::State& state) {
  if (!ready(state)) return;
  for (auto _ : state) {
    clu_gen_info* info = nullptr;
    if (clu_get_info(&info) != 0 || info->clu_num_of_members != kNodes) state.SkipWithError("clu_get_info failed");
    clu_free_info(&info);
  }
}
BENCHMARK(BM_CluGetInfo)->Name("CluGetInfo/zk64");

}  // namespace

BENCHMARK_MAIN();
