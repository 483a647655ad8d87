// The member list of a cluster of 64 configured nodes (half of them up) on a warm store, against
// memcpy of the list's bytes in the same run. A warm call includes the registry being read again
// whenever the service's snapshot has aged (every GMX_SNAPSHOT_MS), spread over the calls between.
// The cold case makes a whole new context each time, reading every key from the store.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "evm/libevm/cluinfo.h"
#include "platform/gmx/gmx_backend.h"
#include "platform/registry/prvrg.h"

namespace {

const int kNodes = 64;
std::string g_dir;

bool setUp() {
  char tmpl[] = "/tmp/clu_bench.XXXXXX";
  if (mkdtemp(tmpl) == nullptr) return false;
  g_dir = tmpl;
  setenv("VYN_REGISTRY", (g_dir + "/reg.db").c_str(), 1);
  setenv("VYN_NODE_NAME", "node1", 1);
  setenv("GMX_CLUSTERNAME", "bench", 1);
  char err[1024];
  std::size_t len = sizeof err;
  prvrg_ctx* reg = nullptr;
  if (prvrg_init_ext(&reg, PRVRG_LEVEL_DEFAULT, err, &len, PRVRG_FLAG_CREATE) != PRVRG_SUCC) return false;
  // A period of an hour keeps these beats fresh for the whole run.
  std::string beat = std::to_string(gmx::wallClockMs()) + " 3600000 1";
  bool ok = true;
  for (int n = 1; n <= kNodes && ok; ++n) {
    std::string key = "SYSTEM.gmx.node." + std::to_string(n);
    std::string name = "node" + std::to_string(n) + ".example.com";
    ok = prvrg_create_n_set_key(reg, nullptr, key.c_str(), nullptr, nullptr, prvrg_dtype_ZELTEXT, name.c_str(),
                                name.size() + 1, prvrg_security{}) == PRVRG_SUCC;
    if (n % 2 == 1) {
      key = "SYSTEM.gmx.group.bench_NG." + std::to_string(n);
      ok = ok && prvrg_create_n_set_key(reg, nullptr, key.c_str(), nullptr, nullptr, prvrg_dtype_ZELTEXT,
                                        beat.c_str(), beat.size() + 1, prvrg_security{}) == PRVRG_SUCC;
    }
  }
  prvrg_terminate(reg);
  return ok && clu_ctxinit(nullptr, nullptr) == 0;
}

void BM_MemcpyOfTheListBaseline(benchmark::State& state) {
  std::size_t bytes = sizeof(clu_gen_info) + kNodes * (sizeof(clu_member_info) + sizeof "node64.example.com");
  std::vector<char> from(bytes, 'x'), to(bytes);
  for (auto _ : state) {
    std::memcpy(to.data(), from.data(), bytes);
    benchmark::DoNotOptimize(to.data());
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_MemcpyOfTheListBaseline);

void BM_CluGetInfoWarm(benchmark::State& state) {
  for (auto _ : state) {
    clu_gen_info* info = nullptr;
    if (clu_get_info(&info) != 0 || info->clu_num_of_members != kNodes) state.SkipWithError("clu_get_info failed");
    clu_free_info(&info);
  }
}
BENCHMARK(BM_CluGetInfoWarm);

void BM_CluGetInfoColdContext(benchmark::State& state) {
  clsclucb cb = {nullptr, clsclu_malloc, clsclu_mfree};
  for (auto _ : state) {
    clscluctx* ctx = nullptr;
    clu_gen_info* info = nullptr;
    if (clsclu_init(&ctx, nullptr, &cb) != clscluretSUCC || clsclu_get_info(ctx, &info) != clscluretSUCC)
      state.SkipWithError("a new context failed");
    clsclu_free_info(ctx, &info);
    clsclu_term(ctx);
  }
}
BENCHMARK(BM_CluGetInfoColdContext);

}  // namespace

int main(int argc, char** argv) {
  if (!setUp()) {
    std::fprintf(stderr, "clu_bench: cannot set up the store in %s\n", g_dir.c_str());
    return 1;
  }
  evmclu_tracing = 0;
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  std::filesystem::remove_all(g_dir);
  return 0;
}
