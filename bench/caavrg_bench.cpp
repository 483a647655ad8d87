// Writing one attribute of a resource against its baseline in the same run: a bare SQLite
// INSERT OR REPLACE of the same row in one transaction, in a database beside the store, with the
// same journal and sync settings the registry's store runs with (SQLite's defaults). Both change
// the value at every write (SQLite skips the write of a row that stays the same).
#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "caa/lib/caavrg.h"
#include "platform/registry/prvrg.h"
#include "platform/trace/dtr.h"

namespace {

std::string g_dir;
const std::string kValues[2] = {"ONLINE", "OFFLINE"};

void BM_SqliteInsertOrReplaceBaseline(benchmark::State& state) {
  sqlite3* db = nullptr;
  if (sqlite3_open((g_dir + "/baseline.db").c_str(), &db) != SQLITE_OK ||
      sqlite3_exec(db, "CREATE TABLE IF NOT EXISTS vrg_key (name TEXT PRIMARY KEY, dtype INTEGER, value BLOB)"
                       " WITHOUT ROWID", nullptr, nullptr, nullptr) != SQLITE_OK) {
    state.SkipWithError("cannot make the baseline database");
    return;
  }
  sqlite3_stmt* ins = nullptr;
  sqlite3_prepare_v2(db, "INSERT OR REPLACE INTO vrg_key (name, dtype, value) VALUES (?, 3, ?)", -1, &ins, nullptr);
  const char kName[] = "VYN.CUR.app!1.STATE";
  bool flip = false;
  for (auto _ : state) {
    const std::string& value = kValues[flip = !flip];
    sqlite3_exec(db, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr);
    sqlite3_bind_text(ins, 1, kName, -1, SQLITE_STATIC);
    sqlite3_bind_blob(ins, 2, value.c_str(), static_cast<int>(value.size() + 1), SQLITE_STATIC);
    if (sqlite3_step(ins) != SQLITE_DONE) state.SkipWithError("insert failed");
    sqlite3_reset(ins);
    sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
  }
  sqlite3_finalize(ins);
  sqlite3_close(db);
}
BENCHMARK(BM_SqliteInsertOrReplaceBaseline);

void BM_CaavrgSetvalue(benchmark::State& state) {
  bool flip = false;
  for (auto _ : state) {
    if (caavrgSetvalue("app.1", "STATE", kValues[flip = !flip], CURRENT, nullptr) != 0)
      state.SkipWithError("set failed");
  }
}
BENCHMARK(BM_CaavrgSetvalue);

}  // namespace

int main(int argc, char** argv) {
  char tmpl[] = "/tmp/vyn_vrgbench.XXXXXX";
  if (mkdtemp(tmpl) == nullptr) return 1;
  g_dir = tmpl;
  std::filesystem::create_directories(g_dir + "/log");
  setenv("ZEL_VYN_HOME", g_dir.c_str(), 1);
  setenv("VYN_REGISTRY", (g_dir + "/registry.db").c_str(), 1);
  unsetenv("ZEL_VYNDEBUG_ALL");
  dtrSetProgram("caavrg_bench");
  char err[1024] = "";
  std::size_t len = sizeof err;
  prvrg_ctx* made = nullptr;
  if (prvrg_init_ext(&made, PRVRG_LEVEL_DEFAULT, err, &len, PRVRG_FLAG_CREATE) != 0) {
    std::fprintf(stderr, "caavrg_bench: %s\n", err);
    return 1;
  }
  prvrg_terminate(made);
  int rc = caavrginitctx(PRVRG_LEVEL_DEFAULT, nullptr);
  if (rc == 0) rc = caavrgCrRoot();
  // The attribute exists before the runs, as the baseline's row does after its first one.
  if (rc == 0) rc = caavrgSetvalue("app.1", "STATE", "ONLINE", CURRENT, nullptr);
  if (rc != 0) return 1;
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  caavrgTerm();
  std::error_code ec;
  std::filesystem::remove_all(g_dir, ec);
  return 0;
}
