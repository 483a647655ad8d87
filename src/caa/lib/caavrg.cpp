#include "caa/lib/caavrg.h"

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <sstream>

#include "cppgen/clsLog.h"
#include "platform/registry/prvrg.h"

namespace CAA {

const char* const CaaVRGKeys::DefaultDir = "SYSTEM.vyn.user_default_dir";

namespace {

prvrg_ctx* gvrgctx = nullptr;
prvrg_ctx* rvrgctx = nullptr;
std::mutex s_vrgMux;

const CLS_Debug::CLSlog& dbug() {
  static const CLS_Debug::CLSlog* s_dbug = new CLS_Debug::CLSlog("VYNVRG");
  return *s_dbug;
}

void logError(const std::string& text) {
  std::ostringstream os;
  os << text;
  dbug().error(os, CLS_Debug::NONE, CLS_Debug::CLSlogModule::getModuleNone());
}

}  // namespace

prvrg_ctx* caavrgtrygetctx() {
  if (gvrgctx == nullptr && rvrgctx == nullptr) {
    std::lock_guard<std::mutex> lock(s_vrgMux);
    char err[1024];
    std::size_t len = sizeof err;
    if (prvrg_init_ext(&gvrgctx, PRVRG_LEVEL_DEFAULT, err, &len, 0) != 0) {
      gvrgctx = nullptr;
      len = sizeof err;
      if (prvrg_init_ext(&rvrgctx, PRVRG_LEVEL_REBOOT, err, &len, 0) != 0) {
        rvrgctx = nullptr;
        logError(std::string(" Unable to open the cluster registry: ") + err);
      }
    }
  }
  return gvrgctx != nullptr ? gvrgctx : rvrgctx;
}

void caavrgTerm() {
  std::lock_guard<std::mutex> lock(s_vrgMux);
  if (gvrgctx != nullptr) prvrg_terminate(gvrgctx);
  if (rvrgctx != nullptr) prvrg_terminate(rvrgctx);
  gvrgctx = rvrgctx = nullptr;
}

void rtivrg_report_vrg_error(prvrg_ctx* ctx, const char*, const char* vrg_op_name, const char* key, int rc) {
  if (rc == PRVRG_ERR_INVALID_HANDLE) {
    logError(" Invalid VRG Context");
    std::exit(0);
  }
  char text[1024];
  std::memset(text, 0, sizeof text);
  std::size_t len = sizeof text;
  int code = 0;
  prvrg_get_last_error(ctx, &code, text, &len);
  std::ostringstream line;
  line << " VRG api " << vrg_op_name << " failed for key " << key << ". VRG error code = " << rc
       << " VRG error msg: " << text;
  logError(line.str());
}

int caavrgReadVRGKey(const char* key, char* val, std::uint32_t* size, prvrg_ctx* pCtx) {
  prvrg_ctx* ctx = pCtx != nullptr ? pCtx : caavrgtrygetctx();
  if (ctx == nullptr) return 2;
  prvrg_key* hkey = nullptr;
  int rc = prvrg_open_key(ctx, &hkey, key);
  if (rc != 0) {
    if (rc != PRVRG_ERR_NO_KEY) rtivrg_report_vrg_error(ctx, "VYNVRG", "prvrg_open_key", key, rc);
    return rc;
  }
  int dtype = 0;
  std::size_t len = *size;
  rc = prvrg_get_value(ctx, hkey, &dtype, val, &len);
  if (rc != 0) {
    rtivrg_report_vrg_error(ctx, "VYNVRG", "prvrg_get_value", key, rc);
    prvrg_close_key(ctx, hkey);
    return rc;
  }
  *size = static_cast<std::uint32_t>(len);
  prvrg_close_key(ctx, hkey);
  return 0;
}

}  // namespace CAA
