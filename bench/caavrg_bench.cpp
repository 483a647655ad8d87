// Writing one attribute of a resource against its baseline in the same run: a bare SQLite
// INSERT OR REPLACE of the same row in one transaction, in a database beside the store, with the
// same journal and sync settings the registry's store runs with (SQLite's defaults). Both change
// the value at every write (SQLite skips the write of a row that stays the same).
#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <unistd.h>

#include <chrono>
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

// The bare write: one prepared INSERT OR REPLACE of the row in its own transaction.
class Baseline {
 public:
  Baseline() {
    ok_ = sqlite3_open((g_dir + "/baseline.db").c_str(), &db_) == SQLITE_OK &&
          sqlite3_exec(db_, "CREATE TABLE IF NOT EXISTS vrg_key (name TEXT PRIMARY KEY, dtype INTEGER, value BLOB)"
                            " WITHOUT ROWID", nullptr, nullptr, nullptr) == SQLITE_OK &&
          sqlite3_prepare_v2(db_, "INSERT OR REPLACE INTO vrg_key (name, dtype, value) VALUES (?, 3, ?)", -1, &ins_,
                             nullptr) == SQLITE_OK;
  }
  ~Baseline() {
    sqlite3_finalize(ins_);
    sqlite3_close(db_);
  }
  Baseline(const Baseline&) = delete;
  Baseline& operator=(const Baseline&) = delete;

  bool ok() const { return ok_; }
  bool write(const std::string& value) {
    sqlite3_exec(db_, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr);
    sqlite3_bind_text(ins_, 1, "VYN.CUR.app!1.STATE", -1, SQLITE_STATIC);
    sqlite3_bind_blob(ins_, 2, value.c_str(), static_cast<int>(value.size() + 1), SQLITE_STATIC);
    bool done = sqlite3_step(ins_) == SQLITE_DONE;
    sqlite3_reset(ins_);
    return sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr) == SQLITE_OK && done;
  }

 private:
  sqlite3* db_ = nullptr;
  sqlite3_stmt* ins_ = nullptr;
  bool ok_ = false;
};

void BM_SqliteInsertOrReplaceBaseline(benchmark::State& state) {
  Baseline base;
  if (!base.ok()) state.SkipWithError("cannot make the baseline database");
  bool flip = false;
  for (auto _ : state)
    if (!base.write(kValues[flip = !flip])) state.SkipWithError("insert failed");
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

// The two in turns, each iteration one of each, so that both meet the same disk: the counter
// "ratio" is the time of caavrgSetvalue over the time of the bare write.
void BM_SetvalueOverBaselineInTurns(benchmark::State& state) {
  using Clock = std::chrono::steady_clock;
  Baseline base;
  if (!base.ok()) state.SkipWithError("cannot make the baseline database");
  Clock::duration inBase{}, inSet{};
  bool flip = false;
  for (auto _ : state) {
    const std::string& value = kValues[flip = !flip];
    Clock::time_point t0 = Clock::now();
    base.write(value);
    Clock::time_point t1 = Clock::now();
    caavrgSetvalue("app.1", "STATE", value, CURRENT, nullptr);
    Clock::time_point t2 = Clock::now();
    inBase += t1 - t0;
    inSet += t2 - t1;
  }
  state.counters["ratio"] = inBase.count() > 0 ? static_cast<double>(inSet.count()) / inBase.count() : 0.0;
}
BENCHMARK(BM_SetvalueOverBaselineInTurns);

}  // namespace

int main(int argc, char** argv) {
  // $TMPDIR chooses the file system: a disk shows the cost of its syncs, a memory file system the
  // cost of the work around them.
  const char* tmp = std::getenv("TMPDIR");
  std::string tmpl = std::string(tmp != nullptr && tmp[0] != '\0' ? tmp : "/tmp") + "/vyn_vrgbench.XXXXXX";
  if (mkdtemp(&tmpl[0]) == nullptr) return 1;
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
