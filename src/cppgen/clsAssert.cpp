#include "cppgen/clsAssert.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "cppgen/clsLog.h"
#include "platform/osl/osl.h"
#include "platform/trace/dbgds.h"

namespace CLS_Debug {

namespace {

const ub4 kAssertAlert = 6015;
const char kAssertDruid[] = "(:CLSGEN00100:)";

// The stack dump's work area: a failing process may be short of memory.
unsigned char gp[DBGDS_WORK_SIZE];

const CLSlog& dbug() {
  static const CLSlog* s_dbug = new CLSlog("CLSCPPGEN");
  return *s_dbug;
}

int clsWriteCallback(void*, const char* format, int count, ...) {
  static char buf[10240];
  std::memset(buf, 0, sizeof buf);
  va_list ap;
  va_start(ap, count);
  int len = std::vsnprintf(buf, sizeof buf, format, ap);
  va_end(ap);
  std::fputs(buf, stdout);
  return len;
}

void clsFlushCallback(void*) { std::fflush(nullptr); }

const char* text(const zeltext* t) { return t != nullptr ? reinterpret_cast<const char*>(t) : ""; }

}  // namespace

void clsAssert(bool condition, const zeltext* condString, const zeltext* filename, sb4 line) {
  if (condition) return;
  std::ostringstream os;
  os << " *ASSERTION FAILURE*. File [" << text(filename) << "] Line [" << line << "] Condition ["
     << text(condString) << "]";
  dbug().alert(os, kAssertAlert, kAssertDruid, nullptr);
  if (utlInDevelopmentMode() != 0) clsAbort();
  dbgdsCallbacks table;
  std::memset(&table, 0, sizeof table);
  table.write = clsWriteCallback;
  table.errwrite = clsWriteCallback;
  table.flush = clsFlushCallback;
  table.errflush = clsFlushCallback;
  std::memset(gp, 0, sizeof gp);
  dbgdstsg(gp, &table, 0);
  osl_exit_fast(0, 0);
}

void clsAbort() {
  osl_flush_coverage();
  std::abort();
}

}  // namespace CLS_Debug
