// Costs of formatting one event, by its message, a template, the default form and a dump, each
// beside memcpy of the event's bytes. Also writes the logs that bench/evmshow_bench.sh reads:
//   evm_format_bench --write-log PATH COUNT    COUNT events as the daemon logs them
// and otherwise runs as a Google Benchmark program.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "evm/libevm/evm.h"

namespace {

const char kTemplate[] = "@timestamp @host_name @name $_name";

// An event like those the profile command posts, as the daemon has stamped it; every fourth one
// carries a message of its own.
EvmEvent_t loggedEvent(long i) {
  EvmEvent_t e = nullptr;
  std::string res = "res" + std::to_string(i);
  EvmEventCreateVa(&e, EvmITEM_NAME, "sys.zel.clu.vyn.res.profile.delete", EvmITEM_TIMESTAMP,
                   static_cast<EvmTimestamp_t>(1700000000 + i), EvmITEM_PID, static_cast<EvmPid_t>(4242),
                   EvmITEM_PPID, static_cast<EvmPid_t>(1), EvmITEM_USER_NAME, "root", EvmITEM_HOST_NAME, "node1",
                   EvmITEM_PRIORITY, 200, EvmITEM_VAR_STRING, "_name", res.c_str(), 0);
  if (i % 4 == 0) EvmItemSetVa(e, EvmITEM_FORMAT, "Profile $_name deleted by @user_name on @host_name", 0);
  return e;
}

int writeLog(const char* path, long count) {
  int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (fd < 0) return 1;
  std::vector<char> batch;
  for (long i = 0; i < count; ++i) {
    EvmEvent_t e = loggedEvent(i);
    EvmUint32_t len = 0;
    const char* p = static_cast<const char*>(EvmEventWriteBuf(&len, e));
    batch.insert(batch.end(), p, p + len);
    EvmEventDestroy(e);
    if (batch.size() > (1u << 20) || i + 1 == count) {
      if (write(fd, batch.data(), batch.size()) != static_cast<ssize_t>(batch.size())) return 1;
      batch.clear();
    }
  }
  return close(fd) == 0 ? 0 : 1;
}

void memcpyOf(benchmark::State& state, EvmEvent_t e) {
  std::size_t n = e->head_p->control.size;
  std::vector<unsigned char> dst(n);
  for (auto _ : state) {
    std::memcpy(dst.data(), e->head_p, n);
    benchmark::DoNotOptimize(dst.data());
    benchmark::ClobberMemory();
  }
}

void BM_Format_memcpy(benchmark::State& state) {
  EvmEvent_t e = loggedEvent(0);
  memcpyOf(state, e);
  EvmEventDestroy(e);
}
BENCHMARK(BM_Format_memcpy);

// Per event, over the mix the log holds (one in four with its own message).
void BM_EventFormat(benchmark::State& state) {
  std::vector<EvmEvent_t> events;
  for (long i = 0; i < 4; ++i) events.push_back(loggedEvent(i));
  char buf[4096];
  std::size_t k = 0;
  for (auto _ : state) {
    EvmEventFormat(buf, sizeof buf, events[k++ & 3]);
    benchmark::DoNotOptimize(buf);
  }
  for (EvmEvent_t e : events) EvmEventDestroy(e);
}
BENCHMARK(BM_EventFormat);

void BM_EventFormatFromTemplate(benchmark::State& state) {
  EvmEvent_t e = loggedEvent(1);
  char buf[4096];
  for (auto _ : state) {
    EvmEventFormatFromTemplate(buf, sizeof buf, kTemplate, e);
    benchmark::DoNotOptimize(buf);
  }
  EvmEventDestroy(e);
}
BENCHMARK(BM_EventFormatFromTemplate);

void BM_EventDump(benchmark::State& state) {
  EvmEvent_t e = loggedEvent(0);
  FILE* sink = std::fopen("/dev/null", "w");
  for (auto _ : state) EvmEventDump(e, sink);
  std::fclose(sink);
  EvmEventDestroy(e);
}
BENCHMARK(BM_EventDump);

}  // namespace

int main(int argc, char** argv) {
  if (argc == 4 && std::strcmp(argv[1], "--write-log") == 0) return writeLog(argv[2], std::atol(argv[3]));
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
