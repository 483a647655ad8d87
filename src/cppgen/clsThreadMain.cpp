#include "cppgen/clsThreadMain.h"

#include <unistd.h>

#include <cassert>
#include <cstdio>
#include <mutex>
#include <sstream>

#include "cppgen/clsException.h"
#include "cppgen/clsLog.h"
#include "platform/osl/osl.h"
#include "platform/trace/dtr.h"

namespace {

// Taken by the first thread that ends the process and never given back.
std::mutex s_exitMux;

void say(void (*how)(std::ostream&, CLS_Debug::DebugDetail, const CLS_Debug::CLSlogModule&, bool),
         CLS_Debug::DebugDetail dd, const std::string& text) {
  std::ostringstream os;
  os << text;
  how(os, dd, CLS_Debug::CLSlog::getModuleDefault(), false);
}

}  // namespace

std::atomic<uword> CLSthreadMain::s_tStackSize{0};

int CLSthreadMain::StartDetached(clsthrf start, void* arg, uword tstacksize) {
  return startThread(start, arg, nullptr, nullptr, tstacksize != 0 ? tstacksize : getStackSize(), NXTHR_DETACHED);
}

int CLSthreadMain::startThread(clsthrf start, void* arg, nxthrid* tID, nxthrhdl* tHnd, uword tstacksize,
                               sword flags) {
  CppStartInfo* info = new CppStartInfo{start, arg};
  int rc = ext_nxthrSpawn(&CLSthreadMain::cppStart, info, tID, tHnd, tstacksize, flags);
  if (rc != 0) delete info;
  return rc;
}

void CLSthreadMain::setStackSize(uword tstacksize) { s_tStackSize.store(tstacksize, std::memory_order_relaxed); }

uword CLSthreadMain::getStackSize() { return s_tStackSize.load(std::memory_order_relaxed); }

void* CLSthreadMain::cppStart(void* p) {
  CppStartInfo* info = static_cast<CppStartInfo*>(p);
  void* result = nullptr;
  try {
    result = info->m_start(info->m_arg);
  } catch (const cls::Exception& e) {
    delete info;
    say(CLS_Debug::dbError, CLS_Debug::PANIC, " Exception caught at cppStart ");
    say(CLS_Debug::dbError, CLS_Debug::PANIC, std::string(" ") + e.what());
    // An exception of ours that no one caught is a broken invariant of the thread's owner.
    assert(0);
    osl_flush_coverage();
    std::abort();
  }
  delete info;
  return result;
}

void CLSthreadMain::processExit(int result, const std::string& buf) {
  s_exitMux.lock();
  if (result != 0) {
    say(CLS_Debug::dbError, CLS_Debug::PANIC, " " + buf);
    std::string line = buf + "\n";
    std::fflush(stdout);
    ssize_t ignored = write(STDERR_FILENO, line.data(), line.size());
    (void)ignored;
  } else {
    say(CLS_Debug::dbLog, CLS_Debug::NONE, " " + buf);
  }
  say(CLS_Debug::dbLog, CLS_Debug::NONE, " Done.");
  dtrfflush(1);
  std::fflush(nullptr);
  osl_exit_fast(result, 0);
}
