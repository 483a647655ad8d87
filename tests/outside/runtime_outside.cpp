// Built from outside the project against the runtime's public headers and the static libraries,
// using only the names those headers promise. Argument: a home directory with a log/ below it.
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>

#include "caa/lib/caavrg.h"
#include "cppgen/clsAssert.h"
#include "cppgen/clsLog.h"
#include "cppgen/clsThreadMain.h"
#include "cppgen/clsTint.h"

namespace {

int g_failures = 0;

void check(bool ok, const char* what) {
  if (!ok) {
    std::fprintf(stderr, "failed: %s\n", what);
    ++g_failures;
  }
}

void* worker(void* arg) {
  static CLS_Debug::CLSlog s_dbug("OUTTHRD");
  std::ostringstream os;
  os << " worker ran";
  s_dbug.error(os, CLS_Debug::NONE, CLS_Debug::CLSlogModule::getModuleNone());
  static_cast<std::atomic<int>*>(arg)->store(1);
  return nullptr;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  setenv("ZEL_VYN_HOME", argv[1], 1);
  setenv("VYN_REGISTRY", (std::string(argv[1]) + "/no-such-registry.db").c_str(), 1);
  setenv("ZEL_VYNDEBUG_OUTSIDE", "2", 1);

  cls::Tint t(0);
  check(t.isInvalid(), "a tint of 0 is invalid");
  std::string text;
  t.stringify(text);
  check(text == "{0:0:0}", "text of the invalid tint");
  t.destringify("{0:7:2}");
  check(t.toString() == "{0:7:2}" && t.toUb8() == 7ULL * 65535 + 2, "destringify");
  t.getThreadTint();
  check(t.isInvalid(), "no tint without initialisation");

  CLS_Debug::clsAssert(true, reinterpret_cast<const zeltext*>("true"), reinterpret_cast<const zeltext*>(__FILE__),
                       __LINE__);

  CLS_Debug::CLSlog log("OUTSIDE");
  std::ostringstream os;
  os << " entered";
  log.out(os, CLS_Debug::FUNC_ENTER, CLS_Debug::CLSlogModule::getModuleNone());
  os << " too fine";
  log.out(os, CLS_Debug::ALGO_COARSE, CLS_Debug::CLSlogModule::getModuleNone());
  check(os.str() == " too fine", "a filtered message stays in its stream");
  check(CLS_Debug::CLSlogModule::getReference("OUTSIDE").getClsdLevelLog() == 2, "module level from the environment");
  os.str("");
  os << " alerted";
  log.alert(os, 4242, "(:OUTSIDE:)");

  char val[512] = "";
  ub4 size = sizeof val;
  check(caavrgReadVRGKey("SYSTEM.vyn.user_default_dir", val, &size, nullptr) == 2, "no registry gives 2");
  check(caavrgGetDebugKey("vyn", "mod").find(".MOD") != std::string::npos, "debug key");

  std::atomic<int> ran{0};
  check(CLSthreadMain::StartDetached(worker, &ran, 0) == 0, "thread start");
  for (int i = 0; i < 5000 && ran.load() == 0; ++i) usleep(1000);
  check(ran.load() == 1, "the thread ran");

  if (g_failures != 0) return 1;
  CLSthreadMain::processExit(0, "outside program done");
}
