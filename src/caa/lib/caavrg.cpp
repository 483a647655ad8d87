#include "caa/lib/caavrg.h"

#include <atomic>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <sstream>

#include "cppgen/clsLog.h"
#include "cppgen/clsThreadMain.h"
#include "platform/host/utlhost.h"
#include "platform/registry/prvrg.h"

const char* const CAASYSTEM = "SYSTEM";
const char* const CAAVRG_DEBUG_KEY_PREFIX = "debug";
const char* const VYND = "vyn";
const char* const EVMD = "evm";
const char* const DEFAULT = "default";

const char* const CAA::CaaVRGKeys::DefaultDir = "SYSTEM.vyn.user_default_dir";

namespace {

const char kUnit[] = "caavrg.cpp";
const char kExitText[] = "VYND Exiting. VRG Failed";

// The handles are read without the mutex by every caller; the mutexes only keep two openers or
// closers of one pair apart.
std::atomic<prvrg_ctx*> gvrgctx{nullptr};
std::atomic<prvrg_ctx*> rvrgctx{nullptr};
std::mutex s_vrgMux;
std::atomic<prvrg_ctx*> glvgctx{nullptr};
std::atomic<prvrg_ctx*> rlvgctx{nullptr};
std::mutex s_lvgMux;

const CLS_Debug::CLSlog& dbug() {
  static const CLS_Debug::CLSlog* s_dbug = new CLS_Debug::CLSlog("VYNVRG");
  return *s_dbug;
}

void out(std::ostringstream& os) { dbug().out(os, CLS_Debug::NONE, CLS_Debug::CLSlogModule::getModuleNone()); }
void error(std::ostringstream& os) { dbug().error(os, CLS_Debug::NONE, CLS_Debug::CLSlogModule::getModuleNone()); }

// The client's error text, terminated whatever length it reported.
std::string errorText(const char* buf, std::size_t len, std::size_t size) {
  return std::string(buf, strnlen(buf, len < size ? len : size));
}

int openCtx(prvrg_ctx** ctx, int level, std::string* text) {
  char err[1024];
  std::memset(err, 0, sizeof err);
  std::size_t len = sizeof err;
  int rc = prvrg_init_ext(ctx, level, err, &len, 0);
  if (rc != 0) {
    *ctx = nullptr;
    *text = errorText(err, len, sizeof err);
  }
  return rc;
}

[[noreturn]] void endProcess(bool fatal, const char* file, int line, const std::string& message) {
  std::ostringstream os;
  os << " " << message << "(File: " << file << ", line: " << line << ")";
  if (fatal)
    dbug().error(os, CLS_Debug::PANIC, CLS_Debug::CLSlogModule::getModuleNone());
  else
    dbug().out(os, CLS_Debug::NONE, CLS_Debug::CLSlogModule::getModuleNone());
  CLSthreadMain::processExit(fatal ? 1 : 0, kExitText);
}

std::string debugKey(const std::string& module, dtrmkey caller) {
  return std::string(CAASYSTEM) + "." + caavrgGetDebugKey(getDebugString(caller), module);
}

}  // namespace

prvrg_ctx* caavrgtrygetctx() {
  if (gvrgctx.load() == nullptr && rvrgctx.load() == nullptr) {
    std::lock_guard<std::mutex> lock(s_vrgMux);
    // A second first caller finds the handle its predecessor opened.
    if (gvrgctx.load() == nullptr && rvrgctx.load() == nullptr) {
      std::string text;
      prvrg_ctx* ctx = nullptr;
      std::ostringstream os;
      if (openCtx(&ctx, PRVRG_LEVEL_DEFAULT, &text) == 0) {
        gvrgctx.store(ctx);
        os << " VRG context init DEFAULT Level: " << static_cast<const void*>(ctx);
        out(os);
      } else if (openCtx(&ctx, PRVRG_LEVEL_REBOOT, &text) == 0) {
        rvrgctx.store(ctx);
        os << " VRG context init REBOOT Level: " << static_cast<const void*>(ctx);
        out(os);
      } else {
        os << " VRG context init failure: " << text;
        error(os);
      }
    }
  }
  prvrg_ctx* g = gvrgctx.load();
  return g != nullptr ? g : rvrgctx.load();
}

prvrg_ctx* caavrggetctx() {
  prvrg_ctx* ctx = gvrgctx.load();
  if (ctx == nullptr) caavrgFatal(kUnit, __LINE__, "VRG Context is NULL");
  return ctx;
}

prvrg_ctx* caalvggetctx() {
  prvrg_ctx* ctx = glvgctx.load();
  if (ctx == nullptr) caavrgFatal(kUnit, __LINE__, "LVG Context is NULL");
  return ctx;
}

int caavrginitctx(ub4 bootlevel, std::string* pErrMsg) {
  std::lock_guard<std::mutex> lock(s_vrgMux);
  prvrg_ctx* ctx = nullptr;
  std::string text;
  int rc = openCtx(&ctx, static_cast<int>(bootlevel), &text);
  std::ostringstream os;
  if (rc != 0) {
    os << " VRG context init failure.  Error: " << text;
    error(os);
    if (pErrMsg != nullptr) *pErrMsg = text;
    return rc;
  }
  // A handle opened again replaces the one before, which is closed.
  if (bootlevel == PRVRG_LEVEL_REBOOT) {
    if (prvrg_ctx* old = rvrgctx.exchange(ctx)) prvrg_terminate(old);
    os << " VRG context init REBOOT Level: " << static_cast<const void*>(ctx);
  } else {
    if (prvrg_ctx* old = gvrgctx.exchange(ctx)) prvrg_terminate(old);
    os << " VRG context init " << (bootlevel == PRVRG_LEVEL_DEFAULT ? "DEFAULT" : "CACHE") << " Level: "
       << static_cast<const void*>(ctx);
  }
  out(os);
  return rc;
}

int caalvginitctx(ub4 bootlevel) {
  std::lock_guard<std::mutex> lock(s_lvgMux);
  prvrg_ctx* ctx = nullptr;
  std::string text;
  int rc = openCtx(&ctx, static_cast<int>(bootlevel), &text);
  std::ostringstream os;
  if (rc != 0) {
    os << " LVG context init failure. Error: " << text;
    error(os);
    return rc;
  }
  if (bootlevel == PRVRG_LOCAL_REBOOT) {
    if (prvrg_ctx* old = rlvgctx.exchange(ctx)) prvrg_terminate(old);
    os << " LVG context init REBOOT Level: " << static_cast<const void*>(ctx);
  } else {
    if (prvrg_ctx* old = glvgctx.exchange(ctx)) prvrg_terminate(old);
    os << " LVG context init " << (bootlevel == PRVRG_LOCAL_DEFAULT ? "DEFAULT" : "CACHE") << " Level: "
       << static_cast<const void*>(ctx);
  }
  out(os);
  return rc;
}

void caavrgTerm() {
  std::lock_guard<std::mutex> lock(s_vrgMux);
  if (prvrg_ctx* g = gvrgctx.exchange(nullptr)) prvrg_terminate(g);
  if (prvrg_ctx* r = rvrgctx.exchange(nullptr)) prvrg_terminate(r);
}

void caalvgTerm() {
  std::lock_guard<std::mutex> lock(s_lvgMux);
  if (prvrg_ctx* g = glvgctx.exchange(nullptr)) prvrg_terminate(g);
  if (prvrg_ctx* r = rlvgctx.exchange(nullptr)) prvrg_terminate(r);
}

void rtivrg_report_vrg_error(prvrg_ctx* ctx, const char*, const char* vrg_op_name, const char* key, sb4 rc) {
  if (rc == PRVRG_ERR_INVALID_HANDLE) caavrgExit(kUnit, __LINE__, "Invalid VRG Context");
  char text[1024];
  std::memset(text, 0, sizeof text);
  std::size_t len = sizeof text - 1;
  int code = 0;
  prvrg_get_last_error(ctx, &code, text, &len);
  std::ostringstream os;
  os << " VRG api " << vrg_op_name << " failed for key " << key << ". VRG error code = " << rc
     << " VRG error msg: " << text;
  error(os);
}

int caavrgReadVRGKey(const char* key, char* val, ub4* size, prvrg_ctx* pCtx) {
  prvrg_ctx* ctx = pCtx != nullptr ? pCtx : caavrgtrygetctx();
  if (ctx == nullptr) return 2;
  prvrg_key* hkey = nullptr;
  int rc = prvrg_open_key(ctx, &hkey, key);
  if (rc != 0) {
    // A missing key is a plain answer, not a failure.
    if (rc != PRVRG_ERR_NO_KEY) rtivrg_report_vrg_error(ctx, "VYNVRG", "prvrg_open_key", key, rc);
    return rc;
  }
  int dtype = 0;
  std::size_t len = *size;
  rc = prvrg_get_value(ctx, hkey, &dtype, val, &len);
  *size = static_cast<ub4>(len);
  if (rc != 0) {
    rtivrg_report_vrg_error(ctx, "VYNVRG", "prvrg_get_value", key, rc);
    prvrg_close_key(ctx, hkey);
    return rc;
  }
  prvrg_close_key(ctx, hkey);
  std::ostringstream os;
  os << "Successfully read VRG key " << key;
  dbug().trace(os, 0, CLS_Debug::NONE, CLS_Debug::CLSlogModule::getModuleNone());
  return 0;
}

void caavrgFatal(const char* file, int line, const std::string& message) { endProcess(true, file, line, message); }

void caavrgExit(const char* file, int line, const std::string& message) { endProcess(false, file, line, message); }

std::string caavrgGetHostname() {
  char hostName[512];
  std::memset(hostName, 0, sizeof hostName);
  int len = utlhost(hostName, sizeof hostName);
  if (len < 0) caavrgFatal(kUnit, __LINE__, "Failed to obtain the system hostname");
  return len > 0 ? std::string(hostName) : std::string();
}

std::string caavrgGetDebugKey(const std::string& caller, const std::string& module) {
  std::string upper = module;
  for (char& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return caller + "." + CAAVRG_DEBUG_KEY_PREFIX + "." + caavrgGetHostname() + "." + upper;
}

std::string getDebugString(dtrmkey caller) {
  switch (caller) {
    case DTRMKEY_RESD: return VYND;
    case DTRMKEY_EVMD: return EVMD;
    default: return DEFAULT;
  }
}

int caavrgGetDebugLevel(const std::string& module, ub4* level, dtrmkey caller) {
  std::string key = debugKey(module, caller);
  char buf[25];
  std::memset(buf, 0, sizeof buf);
  ub4 size = 24;
  int rc = caavrgReadVRGKey(key.c_str(), buf, &size, nullptr);
  *level = 0;
  std::ostringstream os;
  if (rc != 0 && rc != PRVRG_ERR_NO_KEY) {
    os << " CAAVRG GET Debug Level Return Code[" << module << "]: " << rc;
    error(os);
    return 2;
  }
  ub4 sblevel = static_cast<ub4>(std::strtoul(buf, nullptr, 10));
  os << " CAAVRG GET Debug sblevel Level[" << module << "]: " << sblevel;
  out(os);
  *level = sblevel;
  os << " CAAVRG GET Debug level Level[" << module << "]: " << *level;
  out(os);
  return 0;
}

int caavrgSetDebugLevel(const std::string& module, ub4 level, dtrmkey caller) {
  prvrg_ctx* ctx = caavrgtrygetctx();
  if (ctx == nullptr) return 2;
  std::string key = debugKey(module, caller);
  std::string value = std::to_string(level);
  prvrg_security sec{};
  sec.user_perm = 63;
  prvrg_key* hkey = nullptr;
  int created = 0;
  int rc = prvrg_create_n_set_key(ctx, nullptr, key.c_str(), &hkey, &created, prvrg_dtype_ZELTEXT, value.c_str(),
                                  value.size() + 1, sec);
  if (rc != 0) {
    rtivrg_report_vrg_error(ctx, "VYNVRG", "prvrg_create_n_set_key", key.c_str(), rc);
    return rc;
  }
  prvrg_close_key(ctx, hkey);
  return 0;
}
