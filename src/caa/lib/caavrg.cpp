#include "caa/lib/caavrg.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <sstream>
#include <vector>

#include "caa/lib/caa_Cluster.h"
#include "cppgen/clsAssert.h"
#include "cppgen/clsLog.h"
#include "cppgen/clsThreadMain.h"
#include "evm/libevm/clsgenv.h"
#include "platform/host/utlhost.h"
#include "platform/registry/prvrg.h"

const char* const CAASYSTEM = "SYSTEM";
const char* const CAAVRG_DEBUG_KEY_PREFIX = "debug";
const char* const VYND = "vyn";
const char* const EVMD = "evm";
const char* const DEFAULT = "default";

const char* const CAARESROOT = "VYN";
const char* const CAARESCUR = "VYN.CUR";
const char* const CAARESHIS = "VYN.HIS";
const char* const CAARESSEC = "VYN.SEC";
const char* const CAARESSTAGE = "VYN.STAGE.node";
const char* const CAARESSP = ".";
const char* const CAARESEXC = "!";
const char* const USRZELDEBUG = "USR_ZEL_DEBUG";
const char* const CAARESUNREG = "IS_UNREGISTERING";

const char* const CAA::CaaVRGKeys::AuthDirKey = "SYSTEM.vyn.authloc";
const char* const CAA::CaaVRGKeys::AuthSecurity = "SYSTEM.vyn.usersecurity";
const char* const CAA::CaaVRGKeys::AuthAllow = "SYSTEM.vyn.allow";
const char* const CAA::CaaVRGKeys::AuthDeny = "SYSTEM.vyn.deny";
const char* const CAA::CaaVRGKeys::AuthDefaultAcl = "SYSTEM.vyn.default_acl";
const char* const CAA::CaaVRGKeys::DefaultDir = "SYSTEM.vyn.user_default_dir";
const char* const CAA::CaaVRGKeys::CommUIPort = "SYSTEM.vyn.uiport";
const char* const CAA::CaaVRGKeys::CommE2EPort = "SYSTEM.vyn.e2eport";

const char* const CAA::QemsdVRGKeys::AuthDirKey = "SYSTEM.qemsd.authloc";
const char* const CAA::QemsdVRGKeys::AuthSecurity = "SYSTEM.qemsd.usersecurity";
const char* const CAA::QemsdVRGKeys::AuthAllow = "SYSTEM.qemsd.allow";
const char* const CAA::QemsdVRGKeys::AuthDeny = "SYSTEM.qemsd.deny";
const char* const CAA::QemsdVRGKeys::AuthDefaultAcl = "SYSTEM.qemsd.default_acl";
const char* const CAA::QemsdVRGKeys::DefaultDir = "SYSTEM.qemsd.user_default_dir";
const char* const CAA::QemsdVRGKeys::CommUIPort = "SYSTEM.qemsd.uiport";
const char* const CAA::QemsdVRGKeys::CommE2EPort = "SYSTEM.qemsd.e2eport";

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
  return caavrgSetDebugLevel(nullptr, reinterpret_cast<const zeltext*>(module.c_str()), level, caller);
}

// ---- The resource store ----

namespace {

// One open key of a handle, closed when it goes out of scope.
class OpenKey {
 public:
  explicit OpenKey(prvrg_ctx* ctx) : ctx_(ctx) {}
  ~OpenKey() { close(); }
  OpenKey(const OpenKey&) = delete;
  OpenKey& operator=(const OpenKey&) = delete;

  // For the client's out-argument; a key still held is closed first.
  prvrg_key** out() {
    close();
    return &key_;
  }
  prvrg_key* get() const { return key_; }
  int close() {
    int rc = 0;
    if (key_ != nullptr) rc = prvrg_close_key(ctx_, key_);
    key_ = nullptr;
    return rc;
  }
  // A key that is gone (deleted or moved away) needs its handle closed all the same.
  prvrg_key* release() {
    prvrg_key* k = key_;
    key_ = nullptr;
    return k;
  }

 private:
  prvrg_ctx* ctx_;
  prvrg_key* key_ = nullptr;
};

void report(prvrg_ctx* ctx, const char* op, const std::string& key, int rc) {
  rtivrg_report_vrg_error(ctx, "VYNVRG", op, key.c_str(), rc);
}

// A bad handle ends the process quietly (status 0), any other failure as fatal.
[[noreturn]] void endOn(int rc, int line, const std::string& text) {
  if (rc == PRVRG_ERR_INVALID_HANDLE) caavrgExit(kUnit, line, text);
  caavrgFatal(kUnit, line, text);
}

prvrg_ctx* handle(prvrg_ctx* pCtx) { return pCtx != nullptr ? pCtx : caavrggetctx(); }

std::string toKeyPart(const std::string& resname) {
  std::string s = resname;
  caavrgResTrans(s, CAARESSP, CAARESEXC);
  return s;
}

std::string fromKeyPart(const std::string& part) {
  std::string s = part;
  caavrgResTrans(s, CAARESEXC, CAARESSP);
  return s;
}

std::string stageKey() {
  return std::string(CAARESSTAGE) + CAA::Cluster::getMemberId(CAA::Cluster::getLocalhost());
}

std::string locationKey(caavrgResourceLoc loc) {
  if (loc == HISTORY) return CAARESHIS;
  if (loc == STAGE) return stageKey();
  return CAARESCUR;
}

// Opens the key of a location. A node's staging key is made on its first use, owned as the
// root of the store is.
int openLocation(prvrg_ctx* ctx, caavrgResourceLoc loc, const std::string& where, OpenKey& key) {
  int rc = prvrg_open_key(ctx, key.out(), where.c_str());
  if (rc != PRVRG_ERR_NO_KEY || loc != STAGE) return rc;
  OpenKey root(ctx);
  rc = prvrg_open_key(ctx, root.out(), CAARESROOT);
  if (rc != 0) return rc;
  prvrg_security sec{};
  caavrgSetSecurity(ctx, root.get(), sec);
  int created = 0;
  return prvrg_create_key(ctx, nullptr, where.c_str(), key.out(), &created, sec);
}

// A text value of at most CAAVRG_VALUE_SIZE bytes, terminator included.
int readText(prvrg_ctx* ctx, prvrg_key* key, std::string& val, std::size_t* size) {
  std::vector<char> buf(CAAVRG_VALUE_SIZE);
  std::size_t len = buf.size();
  int type = 0;
  int rc = prvrg_get_value(ctx, key, &type, buf.data(), &len);
  *size = len;
  if (rc == 0) val.assign(buf.data(), strnlen(buf.data(), std::min(len, buf.size())));
  return rc;
}

// The values of key's direct subkeys: 0, 1 when key is missing, 2 on any other failure.
int subKeyValues(prvrg_ctx* ctx, const std::string& key, std::map<std::string, std::string>& map) {
  map.clear();
  OpenKey parent(ctx);
  int rc = prvrg_open_key(ctx, parent.out(), key.c_str());
  if (rc == PRVRG_ERR_NO_KEY) return 1;
  if (rc != 0) {
    report(ctx, "prvrg_open_key", key, rc);
    return 2;
  }
  std::vector<char> name(CAAVRG_VALUE_SIZE);
  for (bool first = true;; first = false) {
    std::size_t len = name.size();
    ub4 remaining = 0;
    rc = prvrg_enum_subkey(ctx, parent.get(), name.data(), &len, &remaining);
    if (rc == PRVRG_ERR_NO_MORE && first) return 0;  // a key without subkeys
    if (rc != 0) {
      report(ctx, "prvrg_enum_subkey", key, rc);
      return 2;
    }
    std::string sub = key + "." + name.data();
    OpenKey child(ctx);
    rc = prvrg_open_key(ctx, child.out(), sub.c_str());
    if (rc != 0) {
      report(ctx, "prvrg_open_key", sub, rc);
      return 2;
    }
    std::string value;
    std::size_t size = 0;
    rc = readText(ctx, child.get(), value, &size);
    if (rc != 0) {
      report(ctx, "prvrg_get_value", sub, rc);
      return 2;
    }
    map[name.data()] = value;
    if (remaining == 0) return 0;
  }
}

// The last step of caavrgSetvalue: sets the open attribute key and closes what is open.
int setAttribute(prvrg_ctx* ctx, OpenKey& attrKey, OpenKey* location, const std::string& key, const std::string& val) {
  int rc = prvrg_set_value(ctx, attrKey.get(), prvrg_dtype_ZELTEXT, val.c_str(), val.size() + 1);
  if (rc != 0) report(ctx, "prvrg_set_value", key, rc);
  attrKey.close();
  if (location != nullptr) location->close();
  if (rc == 0) {
    std::ostringstream os;
    os << "Successfully set key: " << key << " value: " << val;
    dbug().trace(os, 0, CLS_Debug::NONE, CLS_Debug::CLSlogModule::getModuleNone());
    return 0;
  }
  if (rc == PRVRG_ERR_NO_KEY) return rc;
  endOn(rc, __LINE__, "Failed to set key: " + key + " value: " + val);
}

}  // namespace

void caavrgResTrans(std::string& str, const char* src, const char* dest) {
  if (src == nullptr || dest == nullptr || src[0] == '\0' || dest[0] == '\0') return;
  for (std::size_t at = str.find(src[0]); at != std::string::npos; at = str.find(src[0], at + 1)) str[at] = dest[0];
}

int caavrgSetSecurity(prvrg_ctx* ctx, prvrg_key* key, prvrg_security& sec) {
  int rc = prvrg_get_key_security(ctx, key, &sec);
  if (rc != 0) report(ctx, "prvrg_get_key_security", "", rc);
  sec.user_perm = 63;
  sec.group_perm = 0;
  sec.other_perm = 0;
  return rc;
}

int caavrgCrRoot() {
  prvrg_ctx* ctx = caavrggetctx();
  OpenKey root(ctx);
  prvrg_security sec{};
  int rc = prvrg_open_key(ctx, root.out(), CAARESROOT);
  if (rc == PRVRG_ERR_NO_KEY) {
    // A store that has never held resources: the root goes to whoever makes it.
    prvrg_key* top = nullptr;
    rc = prvrg_open_key(ctx, &top, "");
    if (rc == 0) {
      caavrgSetSecurity(ctx, top, sec);
      prvrg_close_key(ctx, top);
      int created = 0;
      rc = prvrg_create_key(ctx, nullptr, CAARESROOT, root.out(), &created, sec);
    }
  }
  if (rc != 0) {
    report(ctx, "prvrg_open_key", CAARESROOT, rc);
    return rc;
  }
  caavrgSetSecurity(ctx, root.get(), sec);
  for (const char* name : {CAARESCUR, CAARESHIS, CAARESSEC}) {
    // The full name at the top of the tree places the key wherever the root lies.
    OpenKey made(ctx);
    int created = 0;
    rc = prvrg_create_key(ctx, nullptr, name, made.out(), &created, sec);
    if (rc != 0) {
      report(ctx, "prvrg_create_key", name, rc);
      return rc;
    }
  }
  return 0;
}

int caavrgAddResource(const std::string& resname, caavrgResourceLoc loc, prvrg_ctx* pCtx) {
  prvrg_ctx* ctx = handle(pCtx);
  const std::string where = locationKey(loc);
  OpenKey location(ctx);
  int rc = openLocation(ctx, loc, where, location);
  if (rc != 0) {
    report(ctx, "prvrg_open_key", where, rc);
    endOn(rc, __LINE__, "Failed to open key: " + where);
  }
  prvrg_security sec{};
  caavrgSetSecurity(ctx, location.get(), sec);
  const std::string part = toKeyPart(resname);
  OpenKey made(ctx);
  int created = 0;
  rc = prvrg_create_key(ctx, location.get(), part.c_str(), made.out(), &created, sec);
  if (rc != 0) {
    report(ctx, "prvrg_create_key", where + "." + part, rc);
    location.close();
    endOn(rc, __LINE__, "Failed to create key: " + where + "." + part);
  }
  return 0;
}

int caavrgCommitResource(const std::string& resname, prvrg_ctx* pCtx) {
  prvrg_ctx* ctx = pCtx != nullptr ? pCtx : caavrgtrygetctx();
  if (ctx == nullptr) return 2;
  const std::string part = toKeyPart(resname);
  const std::string staged = stageKey() + "." + part;
  OpenKey stage(ctx), current(ctx), moved(ctx);
  int rc = prvrg_open_key(ctx, stage.out(), staged.c_str());
  if (rc != 0) {
    report(ctx, "prvrg_open_key", staged, rc);
    return rc;
  }
  rc = prvrg_open_key(ctx, current.out(), CAARESCUR);
  if (rc != 0) {
    report(ctx, "prvrg_open_key", CAARESCUR, rc);
    return rc;
  }
  rc = prvrg_move_key(ctx, stage.get(), current.get(), part.c_str(), moved.out(), 0);
  if (rc != 0) report(ctx, "prvrg_move_key", staged, rc);
  std::ostringstream os;
  os << " Commit Resource done." << resname;
  out(os);
  return rc;
}

int caavrgRemove(const std::string& resname, const std::string& subtreeValue, prvrg_ctx* pCtx) {
  std::string subtree;
  if (subtreeValue == CAARESHIS || subtreeValue == CAARESCUR || subtreeValue == CAARESSEC)
    subtree = subtreeValue;
  else if (subtreeValue == CAARESSTAGE)
    subtree = stageKey();
  else
    return 2;
  prvrg_ctx* ctx = handle(pCtx);
  const std::string key = subtree + "." + toKeyPart(resname);
  OpenKey k(ctx);
  int rc = prvrg_open_key(ctx, k.out(), key.c_str());
  if (rc != 0) {
    report(ctx, "prvrg_open_key", key, rc);
    return rc;
  }
  rc = prvrg_delete_key(ctx, k.get(), 1);
  if (rc != 0) report(ctx, "prvrg_delete_key", key, rc);
  return rc;
}

int caavrgLookup(const std::string& resname, const std::string& subtreeValue, prvrg_ctx* pCtx) {
  if (subtreeValue != CAARESHIS && subtreeValue != CAARESCUR && subtreeValue != CAARESSEC) return 2;
  prvrg_ctx* ctx = handle(pCtx);
  const std::string key = subtreeValue + "." + toKeyPart(resname);
  OpenKey k(ctx);
  int rc = prvrg_open_key(ctx, k.out(), key.c_str());
  if (rc == PRVRG_ERR_NO_KEY) return 1;
  if (rc != 0) {
    report(ctx, "prvrg_open_key", key, rc);
    endOn(rc, __LINE__, "Failed to open key: " + key);
  }
  return 0;
}

int caavrgSetvalue(const std::string& resname, const std::string& attr, const std::string& val,
                   caavrgResourceLoc loc, prvrg_ctx* pCtx) {
  prvrg_ctx* ctx = handle(pCtx);
  const std::string where = locationKey(loc);
  const std::string relative = toKeyPart(resname) + "." + attr;
  const std::string key = where + "." + relative;
  OpenKey attrKey(ctx);
  // Most writes change an attribute that exists: its key is set at once, keeping its security,
  // as a create of an existing key would.
  int rc = prvrg_open_key(ctx, attrKey.out(), key.c_str());
  if (rc == 0) return setAttribute(ctx, attrKey, nullptr, key, val);
  OpenKey location(ctx);
  rc = openLocation(ctx, loc, where, location);
  if (rc != 0) {
    report(ctx, "prvrg_open_key", where, rc);
    endOn(rc, __LINE__, "Unable to open root key: " + where);
  }
  prvrg_security sec{};
  caavrgSetSecurity(ctx, location.get(), sec);
  int created = 0;
  rc = prvrg_create_key(ctx, location.get(), relative.c_str(), attrKey.out(), &created, sec);
  if (rc != 0) {
    report(ctx, "prvrg_create_key", key, rc);
    location.close();
    endOn(rc, __LINE__, "Failed to create key: " + key);
  }
  return setAttribute(ctx, attrKey, &location, key, val);
}

int caavrgGetvalue(const std::string& resname, const std::string& attr, std::string& val, caavrgResourceLoc loc,
                   prvrg_ctx* pCtx) {
  prvrg_ctx* ctx = handle(pCtx);
  const std::string key = locationKey(loc) + "." + toKeyPart(resname) + "." + attr;
  OpenKey k(ctx);
  int rc = prvrg_open_key(ctx, k.out(), key.c_str());
  if (rc == PRVRG_ERR_NO_KEY) return rc;
  if (rc != 0) {
    report(ctx, "prvrg_open_key", key, rc);
    return rc;
  }
  std::size_t size = 0;
  rc = readText(ctx, k.get(), val, &size);
  std::ostringstream os;
  os << " Value of size is " << size;
  out(os);
  if (rc == 0) return 0;
  report(ctx, "prvrg_get_value", key, rc);
  k.close();
  if (rc == PRVRG_ERR_NO_KEY) return rc;
  endOn(rc, __LINE__, "Failed to get value for key: " + key);
}

int caavrgGetValues(const std::string& resname, std::map<std::string, std::string>& map, caavrgResourceLoc loc,
                    prvrg_ctx* pCtx) {
  // Staged resources are read from the current copy, which is where they end up.
  const std::string key = std::string(loc == HISTORY ? CAARESHIS : CAARESCUR) + "." + toKeyPart(resname);
  return subKeyValues(handle(pCtx), key, map);
}

int caavrgGetSubKeyVals(const std::string& key, std::map<std::string, std::string>& map, prvrg_ctx* pCtx) {
  return subKeyValues(handle(pCtx), key, map);
}

int caavrgGetres(std::string& resname, prvrg_key*& vrghdl, int& remain, caavrgResourceLoc loc) {
  prvrg_ctx* ctx = caavrggetctx();
  if (vrghdl == nullptr) {
    CLS_ASSERT(loc != STAGE);
    const char* where = loc == HISTORY ? CAARESHIS : CAARESCUR;
    int rc = prvrg_open_key(ctx, &vrghdl, where);
    if (rc != 0) {
      vrghdl = nullptr;
      report(ctx, "prvrg_open_key", where, rc);
      endOn(rc, __LINE__, std::string("Failed to open key: ") + where);
    }
  }
  std::vector<char> name(CAAVRG_VALUE_SIZE);
  for (;;) {
    std::size_t len = name.size();
    ub4 remaining = 0;
    int rc = prvrg_enum_subkey(ctx, vrghdl, name.data(), &len, &remaining);
    if (rc == PRVRG_ERR_NO_MORE) {
      resname.clear();
      remain = -1;
      return rc;
    }
    const std::string where = prvrg_key_name(vrghdl);
    if (rc != 0) {
      report(ctx, "prvrg_enum_subkey", where, rc);
      endOn(rc, __LINE__, "Failed during enumeration for: " + where);
    }
    // Whether a resource is whole is judged by the current copy, also in a walk of the history.
    const std::string probe = std::string(CAARESCUR) + "." + name.data() + "." + CAARESUNREG;
    OpenKey p(ctx);
    if (prvrg_open_key(ctx, p.out(), probe.c_str()) != 0) {
      std::ostringstream os;
      os << " Resource " << name.data() << " has incomplete attribute set.";
      error(os);
      continue;
    }
    resname = fromKeyPart(name.data());
    remain = static_cast<int>(remaining);
    return 0;
  }
}

void caavrgcloseKey(prvrg_key* key) {
  if (key == nullptr) return;
  prvrg_ctx* ctx = caavrggetctx();
  const std::string name = prvrg_key_name(key);
  int rc = prvrg_close_key(ctx, key);
  if (rc != 0) {
    report(ctx, "prvrg_close_key", name, rc);
    endOn(rc, __LINE__, "Failed to close key");
  }
}

int caavrgSetPerm(const std::string& resname, const std::string& val) {
  prvrg_ctx* ctx = caavrggetctx();
  OpenKey sec(ctx);
  int rc = prvrg_open_key(ctx, sec.out(), CAARESSEC);
  if (rc != 0) {
    report(ctx, "prvrg_open_key", CAARESSEC, rc);
    return rc;
  }
  prvrg_security security{};
  caavrgSetSecurity(ctx, sec.get(), security);
  const std::string part = toKeyPart(resname);
  OpenKey k(ctx);
  int created = 0;
  rc = prvrg_create_key(ctx, sec.get(), part.c_str(), k.out(), &created, security);
  if (rc != 0) {
    report(ctx, "prvrg_create_key", std::string(CAARESSEC) + "." + part, rc);
    return rc;
  }
  rc = prvrg_set_value(ctx, k.get(), prvrg_dtype_ZELTEXT, val.c_str(), val.size() + 1);
  if (rc != 0) report(ctx, "prvrg_set_value", std::string(CAARESSEC) + "." + part, rc);
  return rc;
}

int caavrgGetPerm(const std::string& resname, std::string& val) {
  const std::string key = std::string(CAARESSEC) + "." + toKeyPart(resname);
  std::vector<char> buf(CAAVRG_VALUE_SIZE, '\0');
  ub4 size = CAAVRG_VALUE_SIZE;
  int rc = caavrgReadVRGKey(key.c_str(), buf.data(), &size, nullptr);
  if (rc == 0) val.assign(buf.data(), strnlen(buf.data(), buf.size()));
  return rc;
}

int caavrgSetDebugLevel(void*, const zeltext* module, ub4 level, dtrmkey caller) {
  const std::string name = module != nullptr ? reinterpret_cast<const char*>(module) : "";
  prvrg_ctx* ctx = gvrgctx.load();
  if (ctx == nullptr) {
    caavrginitctx(PRVRG_LEVEL_DEFAULT, nullptr);
    ctx = caavrgtrygetctx();
  }
  std::ostringstream os;
  if (ctx == nullptr) {
    os << " CAAVRG SET Debug FAILED for " << name << "vrg context NULL = " << 2;
    out(os);
    return 2;
  }
  if (level > 10) level = 10;
  const std::string text = std::to_string(level);
  int rc = 0;
  if (caller == 3) {
    os << " CAAVRG Set Debug Level for Resource " << name << ": " << level;
    out(os);
    if (caavrgLookup(name, CAARESCUR, ctx) == 0) {
      rc = caavrgSetvalue(name, USRZELDEBUG, text, CURRENT, ctx);
    } else {
      os << " CAAVRG set Debug Fails, Resource " << name << " does not exist.";
      error(os);
      return 2;
    }
  } else {
    OpenKey system(ctx), made(ctx);
    rc = prvrg_open_key(ctx, system.out(), CAASYSTEM);
    if (rc == 0) {
      const std::string key = caavrgGetDebugKey(getDebugString(caller), name);
      int created = 0;
      rc = prvrg_create_n_set_key(ctx, system.get(), key.c_str(), made.out(), &created, prvrg_dtype_ZELTEXT,
                                  text.c_str(), text.size() + 1, prvrg_security{});
    }
  }
  if (rc == 0) {
    os << " SET Logging Level for: " << name << "  " << level;
    out(os);
    return 0;
  }
  os << " CAAVRG SET Debug FAILED for " << name << ": rc = " << rc;
  error(os);
  return 2;
}

int caavrgWrite(const char* key, const char* value, ub4 valSize, prvrg_ctx* pCtx) {
  if (pCtx == nullptr && gvrgctx.load() == nullptr) caavrginitctx(PRVRG_LEVEL_DEFAULT, nullptr);
  prvrg_ctx* ctx = handle(pCtx);
  OpenKey system(ctx), made(ctx);
  int rc = prvrg_open_key(ctx, system.out(), CAASYSTEM);
  if (rc != 0) {
    report(ctx, "prvrg_open_key", CAASYSTEM, rc);
  } else {
    int created = 0;
    rc = prvrg_create_n_set_key(ctx, system.get(), key, made.out(), &created, prvrg_dtype_ZELTEXT, value, valSize,
                                prvrg_security{});
    if (rc != 0) report(ctx, "prvrg_create_n_set_key", std::string(CAASYSTEM) + "." + key, rc);
  }
  if (rc == 0) return 0;
  std::ostringstream os;
  os << " error on Vrg Write: " << key << ": " << std::string(value, strnlen(value, valSize)) << ", RC:" << rc;
  error(os);
  return 2;
}

int caavrgCreateKey(const char* rkey, const char* keyname) {
  prvrg_ctx* ctx = caavrggetctx();
  OpenKey parent(ctx), made(ctx);
  int rc = prvrg_open_key(ctx, parent.out(), rkey);
  if (rc != 0) {
    report(ctx, "prvrg_open_key", rkey, rc);
    return rc;
  }
  prvrg_security sec{};
  caavrgSetSecurity(ctx, parent.get(), sec);
  const std::string whole = std::string(rkey) + "." + keyname;
  int created = 0;
  rc = prvrg_create_key(ctx, nullptr, whole.c_str(), made.out(), &created, sec);
  if (rc != 0) {
    report(ctx, "prvrg_create_key", whole, rc);
    return rc;
  }
  std::ostringstream os;
  os << "Successfully created key " << keyname;
  dbug().trace(os, 0, CLS_Debug::NONE, CLS_Debug::CLSlogModule::getModuleNone());
  return 0;
}

int caavrgCheckKey(const char* keyname, prvrg_ctx* pCtx) {
  prvrg_ctx* ctx = handle(pCtx);
  OpenKey k(ctx);
  return prvrg_open_key(ctx, k.out(), keyname);
}

int caavrgDeleteKey(const char* keyname, prvrg_ctx* pCtx) {
  prvrg_ctx* ctx = handle(pCtx);
  OpenKey k(ctx);
  int rc = prvrg_open_key(ctx, k.out(), keyname);
  if (rc != 0) {
    report(ctx, "prvrg_open_key", keyname, rc);
    return rc;
  }
  rc = prvrg_delete_key(ctx, k.get(), 1);
  if (rc != 0) report(ctx, "prvrg_delete_key", keyname, rc);
  return rc;
}

int caavrgWriteVersion(const char* node, const char* version_str, const char* vers_extkey) {
  prvrg_ctx* ctx = caavrggetctx();
  const std::string base = std::string(CAASYSTEM) + "." + VYND;
  OpenKey vyn(ctx), ext(ctx), made(ctx);
  int rc = prvrg_open_key(ctx, vyn.out(), base.c_str());
  if (rc != 0) {
    report(ctx, "prvrg_open_key", base, rc);
    return rc;
  }
  prvrg_security sec{};
  caavrgSetSecurity(ctx, vyn.get(), sec);
  const std::string extKey = base + "." + vers_extkey;
  const std::string nodeKey = extKey + "." + node;
  int created = 0;
  rc = prvrg_create_key(ctx, nullptr, extKey.c_str(), ext.out(), &created, sec);
  if (rc == 0) rc = prvrg_create_key(ctx, nullptr, nodeKey.c_str(), made.out(), &created, sec);
  if (rc != 0) {
    report(ctx, "prvrg_create_key", nodeKey, rc);
    return rc;
  }
  // An installation may pin the version it reports.
  std::string version = version_str;
  if (const char* forced = clsgenv("_VYN_CONFIG_VERSION"); forced != nullptr && forced[0] != '\0')
    version = std::string(forced, strnlen(forced, 59));
  rc = prvrg_set_value(ctx, made.get(), prvrg_dtype_ZELTEXT, version.c_str(), version.size() + 1);
  if (rc != 0) report(ctx, "prvrg_set_value", nodeKey, rc);
  return rc;
}
