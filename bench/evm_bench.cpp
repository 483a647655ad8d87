// Costs of the event client's hot paths, each beside memcpy of the same bytes.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "evm/libevm/evm.h"

namespace {

const char kName[] = "sys.zel.clu.vyn.res.profile.delete";

EvmEvent_t typicalEvent() {
  EvmEvent_t e = nullptr;
  EvmEventCreateVa(&e, EvmITEM_NAME, kName, EvmITEM_CLUSTER_EVENT, EvmTRUE, EvmITEM_VAR_STRING, "_name", "myres", 0);
  return e;
}

// memcpy of an event's bytes in use: the floor any operation on the block stands against.
void memcpyOf(benchmark::State& state, EvmEvent_t e) {
  std::size_t n = e->head_p->control.size;
  std::vector<unsigned char> dst(n);
  for (auto _ : state) {
    std::memcpy(dst.data(), e->head_p, n);
    benchmark::DoNotOptimize(dst.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(n));
  state.counters["bytes"] = static_cast<double>(n);
}

void BM_CreateTypicalEvent(benchmark::State& state) {
  for (auto _ : state) {
    EvmEvent_t e = nullptr;
    EvmEventCreateVa(&e, EvmITEM_NAME, kName, EvmITEM_CLUSTER_EVENT, EvmTRUE, EvmITEM_VAR_STRING, "_name", "myres", 0);
    benchmark::DoNotOptimize(e);
    EvmEventDestroy(e);
  }
}
BENCHMARK(BM_CreateTypicalEvent);

void BM_CreateTypicalEvent_memcpy(benchmark::State& state) {
  EvmEvent_t e = typicalEvent();
  memcpyOf(state, e);
  EvmEventDestroy(e);
}
BENCHMARK(BM_CreateTypicalEvent_memcpy);

// What making an event of these bytes could cost at the least: one allocation, one copy, one free.
void BM_CreateTypicalEvent_malloc(benchmark::State& state) {
  EvmEvent_t e = typicalEvent();
  std::size_t n = e->head_p->control.size;
  for (auto _ : state) {
    void* p = std::malloc(n);
    benchmark::DoNotOptimize(p);
    std::memcpy(p, e->head_p, n);
    benchmark::ClobberMemory();
    std::free(p);
  }
  state.counters["bytes"] = static_cast<double>(n);
  EvmEventDestroy(e);
}
BENCHMARK(BM_CreateTypicalEvent_malloc);

void BM_ReplaceItem(benchmark::State& state) {
  EvmEvent_t e = typicalEvent();
  const char* names[2] = {"sys.zel.clu.vyn.res.profile.update", "sys.zel.clu.vyn.res.profile.delete"};
  int i = 0;
  for (auto _ : state) {
    EvmItemSetVa(e, EvmITEM_NAME, names[i], 0);
    i ^= 1;
  }
  EvmEventDestroy(e);
}
BENCHMARK(BM_ReplaceItem);

void BM_ReplaceItem_memcpy(benchmark::State& state) {
  EvmEvent_t e = typicalEvent();
  memcpyOf(state, e);
  EvmEventDestroy(e);
}
BENCHMARK(BM_ReplaceItem_memcpy);

void BM_VarGet(benchmark::State& state) {
  EvmEvent_t e = typicalEvent();
  for (auto _ : state) {
    EvmVarStruct_t var;
    EvmVarGet(e, "_name", &var);
    benchmark::DoNotOptimize(var.value.STRING);
    EvmVarRelease(&var);
  }
  EvmEventDestroy(e);
}
BENCHMARK(BM_VarGet);

void BM_VarGet_memcpy(benchmark::State& state) {
  EvmEvent_t e = typicalEvent();
  memcpyOf(state, e);
  EvmEventDestroy(e);
}
BENCHMARK(BM_VarGet_memcpy);

EvmEvent_t bigEvent() {
  EvmEvent_t e = typicalEvent();
  // 32 KiB of summed bytes in all: the head's share plus one opaque variable.
  std::vector<unsigned char> blob(32 * 1024 - 120 - (e->head_p->control.size - 120) - 32, 0xA5);
  EvmVarSetOpaque(e, "blob", blob.data(), static_cast<EvmSize_t>(blob.size()));
  return e;
}

void BM_Checksum32K(benchmark::State& state) {
  EvmEvent_t e = bigEvent();
  for (auto _ : state) benchmark::DoNotOptimize(_evmCalculateChecksum(e->head_p));
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * e->head_p->control.size);
  state.counters["bytes"] = static_cast<double>(e->head_p->control.size);
  EvmEventDestroy(e);
}
BENCHMARK(BM_Checksum32K);

void BM_Checksum32K_memcpy(benchmark::State& state) {
  EvmEvent_t e = bigEvent();
  memcpyOf(state, e);
  EvmEventDestroy(e);
}
BENCHMARK(BM_Checksum32K_memcpy);

}  // namespace

BENCHMARK_MAIN();
