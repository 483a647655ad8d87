#ifndef CPPGEN_CLSTHREADMAIN_H
#define CPPGEN_CLSTHREADMAIN_H

// Threads that log an escaping exception before they end the process, and the one orderly road
// by which a failing service ends the process.
#include <atomic>
#include <string>

#include "platform/thread/nxthr.h"
#include "platform/thread/sltypes.h"

typedef void* (*clsthrf)(void*);

// What a new thread runs; made by the starter, freed by the thread.
struct CppStartInfo {
  clsthrf m_start;
  void* m_arg;
};

class CLSthreadMain {
 public:
  // A detached thread; a tstacksize of 0 takes the default set by setStackSize.
  static int StartDetached(clsthrf start, void* arg, uword tstacksize = 0);
  // The thread service's result: 0 on success. tID and tHnd may be null.
  static int startThread(clsthrf start, void* arg, nxthrid* tID, nxthrhdl* tHnd, uword tstacksize,
                         sword flags);
  static void setStackSize(uword tstacksize);
  static uword getStackSize();

  // Logs buf (a non-zero result also on standard error), flushes the trace and ends the process
  // with `result`, running no static destructor. Of several threads exactly one goes on.
  [[noreturn]] static void processExit(int result, const std::string& buf);

 private:
  static void* cppStart(void* info);
  static std::atomic<uword> s_tStackSize;  // set at start-up, read by every start
};

#endif
