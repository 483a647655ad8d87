// The logging layer against its baseline in the same run: a written trace line against fprintf +
// fflush of the same text to a file, and a message whose level is off (which should cost nothing
// next to either).
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>

#include "cppgen/clsLog.h"
#include "platform/trace/dtr.h"

namespace {

const char kText[] = " Resource r1 moved to member node2 after a check of 3000 ms";

std::string g_home;

void BM_FprintfFflushBaseline(benchmark::State& state) {
  std::FILE* f = std::fopen((g_home + "/log/baseline.txt").c_str(), "a");
  for (auto _ : state) {
    std::fprintf(f, "%s\n", kText);
    std::fflush(f);
  }
  std::fclose(f);
}
BENCHMARK(BM_FprintfFflushBaseline);

void BM_TraceLineWritten(benchmark::State& state) {
  static CLS_Debug::CLSlog log("BENCHON");
  std::ostringstream os;
  for (auto _ : state) {
    os << kText;
    log.error(os, CLS_Debug::NONE, CLS_Debug::CLSlogModule::getModuleNone());
  }
}
BENCHMARK(BM_TraceLineWritten);

void BM_LevelOffCall(benchmark::State& state) {
  static CLS_Debug::CLSlog log("BENCHOFF");
  std::ostringstream os;
  os << kText;
  log.error(os, CLS_Debug::NONE, CLS_Debug::CLSlogModule::getModuleNone());  // registers the module
  os << kText;
  for (auto _ : state) log.out(os, CLS_Debug::ALGO_FINE, CLS_Debug::CLSlogModule::getModuleNone());
}
BENCHMARK(BM_LevelOffCall);

}  // namespace

int main(int argc, char** argv) {
  char tmpl[] = "/tmp/vyn_logbench.XXXXXX";
  if (mkdtemp(tmpl) == nullptr) return 1;
  g_home = tmpl;
  std::filesystem::create_directories(g_home + "/log");
  setenv("ZEL_VYN_HOME", g_home.c_str(), 1);
  unsetenv("ZEL_VYNDEBUG_ALL");
  unsetenv("ZEL_VYNDEBUG_BENCHOFF");
  dtrSetProgram("cls_log_bench");
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  dtrreset();
  std::filesystem::remove_all(g_home);
  return 0;
}
