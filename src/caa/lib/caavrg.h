#ifndef CAA_LIB_CAAVRG_H
#define CAA_LIB_CAAVRG_H

// The program's door to the cluster registry: the process-wide client handles (cluster and
// node-local, each pair under its own mutex), the reading of one key, the reporting of a client
// failure, the two ends of the process over a registry failure, the host name, and the
// per-module debug levels kept in the registry.
//
// A registry that cannot be reached gives caavrgReadVRGKey a quiet result 2, and a missing key a
// quiet 4, so that callers take their fallback; nothing here ends the process on those.
#include <string>

#include "platform/thread/sltypes.h"
#include "platform/trace/dtr.h"

struct prvrg_ctx;

// Parts of the debug level keys: SYSTEM.<component>.debug.<host>.<MODULE>.
extern const char* const CAASYSTEM;                // "SYSTEM"
extern const char* const CAAVRG_DEBUG_KEY_PREFIX;  // "debug"
extern const char* const VYND;                     // "vyn"
extern const char* const EVMD;                     // "evm"
extern const char* const DEFAULT;                  // "default"

// Cluster registry levels: 3 DEFAULT, 2 REBOOT, others CACHE. Node-local: 0x30000 DEFAULT,
// 0x20000 REBOOT, others CACHE.

// The DEFAULT handle, else the REBOOT one, trying both levels once per call while neither is
// open; null when neither opens. Never ends the process.
prvrg_ctx* caavrgtrygetctx();
// The DEFAULT/CACHE handle; without one the process ends through caavrgFatal.
prvrg_ctx* caavrggetctx();
prvrg_ctx* caalvggetctx();
// Opens one handle of a level into the matching global; the client's result. On failure the
// client's text goes to *pErrMsg if given.
int caavrginitctx(ub4 bootlevel, std::string* pErrMsg = nullptr);
int caalvginitctx(ub4 bootlevel);
void caavrgTerm();
void caalvgTerm();

// Reads a key's value into val; *size is the buffer's size on entry and as the client sets it on
// return. 0; 2 when there is no handle (pCtx null: the shared one); else the client's result, 4
// for a missing key, which alone is not reported.
int caavrgReadVRGKey(const char* key, char* val, ub4* size, prvrg_ctx* pCtx);

// Logs a client failure with the client's last error text; a bad handle (3) ends the process
// through caavrgExit.
void rtivrg_report_vrg_error(prvrg_ctx* ctx, const char* modulename, const char* vrg_op_name, const char* key,
                             sb4 rc);

// Log " message(File: file, line: line)" and end the process: caavrgFatal as a PANIC with
// status 1, caavrgExit with status 0.
[[noreturn]] void caavrgFatal(const char* file, int line, const std::string& message);
[[noreturn]] void caavrgExit(const char* file, int line, const std::string& message);

// The host name; the process ends when it cannot be had.
std::string caavrgGetHostname();
// caller.debug.<host>.<MODULE>, the module name upper-cased.
std::string caavrgGetDebugKey(const std::string& caller, const std::string& module);
// 1 VYND, 2 EVMD, anything else DEFAULT.
std::string getDebugString(dtrmkey caller);
// The module's level from SYSTEM.<component>.debug.<host>.<MODULE>: 0 (an absent key gives
// level 0) or 2.
int caavrgGetDebugLevel(const std::string& module, ub4* level, dtrmkey caller);
// Stores a module's level under the same key; 0 or the client's result.
int caavrgSetDebugLevel(const std::string& module, ub4 level, dtrmkey caller);

namespace CAA {

struct CaaVRGKeys {
  static const char* const DefaultDir;  // "SYSTEM.vyn.user_default_dir"
};

using ::caavrgReadVRGKey;
using ::caavrgTerm;
using ::caavrgtrygetctx;
using ::rtivrg_report_vrg_error;

}  // namespace CAA

using CAA::CaaVRGKeys;

#endif
