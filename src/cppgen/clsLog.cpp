#include "cppgen/clsLog.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <random>
#include <sstream>
#include <vector>

#include "caa/lib/caavrg.h"
#include "cppgen/clsTint.h"
#include "platform/tfm/tfm.h"

namespace CLS_Debug {

const char* const ENV_DEBUG_PREPEND = "ZEL_VYNDEBUG_";
const char* const ENV_DEBUG_ALL = "ZEL_VYNDEBUG_ALL";
const char* const DEFAULT_LOG_LOC = "[Unknown]";

namespace {

const dtrmkey kInitComponent = DTRMKEY_INIT;

std::mutex& referenceMapMx() {
  static std::mutex* mx = new std::mutex;
  return *mx;
}

// Never destroyed: static objects of other units may still log while the process ends.
CLSlogStaticData& staticData() {
  static CLSlogStaticData* data = new CLSlogStaticData;
  return *data;
}

// Made in the static initialiser, as other units' first messages expect it to be there.
CLSlogStaticData& s_staticData = staticData();

// Formats binary trace records for the trace service.
int tfcb(int opcode, const void* data, char* buf, size_t buflen) {
  switch (opcode) {
    case 0:
      return sfmprintf(buf, buflen, " trace data:[%s]", static_cast<const char*>(data));
    case 1:
      return sfmprintf(buf, buflen, "[%d]0123456789", *static_cast<const int*>(data));
    default:
      return sfmprintf(buf, buflen, "%s", "wrong trace record");
  }
}

// A level from the environment: an unsigned decimal number that fits 32 bits. Empty or unset
// leaves the level alone; anything else that is not such a number is noted and passed over.
void envLevel(const std::string& name, ub4* level, std::string* notes) {
  const char* v = std::getenv(name.c_str());
  if (v == nullptr || v[0] == '\0') return;
  const char* p = v;
  while (*p >= '0' && *p <= '9') ++p;
  errno = 0;
  unsigned long n = std::strtoul(v, nullptr, 10);
  if (*p != '\0' || p == v || errno != 0 || n > UINT32_MAX) {
    *notes += " Ignoring " + name + "=\"" + v + "\": a level is a decimal number 0 to 5";
    return;
  }
  *level = static_cast<ub4>(n);
}

std::string drain(std::ostream& os) {
  auto* sb = dynamic_cast<std::stringbuf*>(os.rdbuf());
  if (sb == nullptr) return std::string();
  std::string text = sb->str();
  sb->str(std::string());
  return text;
}

}  // namespace

const char* debugDetailTag(DebugDetail dd) {
  switch (dd) {
    case IN_MEMORY: return "[IN MEM]";
    case LOGGING: return "[LOGGING]";
    case CLS_ERROR: return "[ALERT]";
    case PANIC: return "[PANIC]";
    case FUNC_FAIL: return "[FFAIL]";
    case FUNC_ENTER: return "[ENTER]";
    case ALGO_FINE: return "[F-ALGO]";
    case EXTERN_DETAIL: return "[EXT-LAYER]";
    case NONE:
    case ALGO_COARSE: return "";
  }
  return "";
}

ub4 debugDetail2ClsdLevelLog(DebugDetail dd) {
  switch (dd) {
    case IN_MEMORY:
    case LOGGING:
    case CLS_ERROR:
    case PANIC: return 0;
    case NONE:
    case FUNC_FAIL: return 1;
    case FUNC_ENTER: return 2;
    case ALGO_COARSE: return 3;
    case ALGO_FINE: return 5;
    case EXTERN_DETAIL: return 4;
  }
  return 0;
}

ub4 debugDetail2ClsdLevelTrace(DebugDetail dd) { return debugDetail2ClsdLevelLog(dd); }

// ---- static data

CLSlogStaticData::CLSlogStaticData()
    : m_pModuleNone(new CLSlogModule("default")),
      m_pModuleDefault(m_pModuleNone),
      m_pLogDefault(new CLSlog("default", nullptr)),
      m_isQemsd(false),
      m_logFileName(DEFAULT_LOG_LOC),
      m_pRegisteredModules(new std::map<std::string, CLSlogModule*>) {}

CLSlogStaticData::~CLSlogStaticData() {
  delete m_pLogDefault;
  for (auto& entry : *m_pRegisteredModules) delete entry.second;
  delete m_pRegisteredModules;
  delete m_pModuleNone;
}

std::string CLSlogStaticData::getLogFileName() {
  std::lock_guard<std::mutex> lock(m_mx);
  if (m_logFileName == DEFAULT_LOG_LOC) {
    char buf[4096];
    if (dtrget_logname(buf, sizeof buf) >= 0) m_logFileName = buf;
  }
  return m_logFileName;
}

// ---- modules

CLSlogModule::CLSlogModule(const std::string& name) : m_name(name), m_pCompId(nullptr) {}

CLSlogModule& CLSlogModule::getModuleNone() { return *staticData().m_pModuleNone; }

std::map<std::string, CLSlogModule*>& CLSlogModule::getRegisteredModules() {
  return *staticData().m_pRegisteredModules;
}

CLSlogModule& CLSlogModule::getReference(const std::string& name) {
  if (name == "default") return getModuleNone();
  std::lock_guard<std::mutex> lock(referenceMapMx());
  auto& map = getRegisteredModules();
  auto it = map.find(name);
  if (it == map.end()) it = map.emplace(name, new CLSlogModule(name)).first;
  return *it->second;
}

CLSlogModule& CLSlogModule::registerModule(const CLSlogModuleInfo& info) {
  ub4 level = info.m_logLevel;
  // The registry lookup logs through a module of its own, which registers here in turn: that
  // inner registration goes without the lookup.
  thread_local bool t_inLookup = false;
  if (staticData().m_isQemsd.load() && !t_inLookup) {
    t_inLookup = true;
    ub4 stored = 0;
    if (caavrgGetDebugLevel(info.m_name, &stored, kInitComponent) == 0) level = stored;
    t_inLookup = false;
  }
  std::string notes;
  envLevel(ENV_DEBUG_ALL, &level, &notes);
  envLevel(ENV_DEBUG_PREPEND + info.m_name, &level, &notes);
  dtrcomp* comp = dtrcompreg(info.m_description.c_str(), info.m_name.c_str(), info.m_bufSize, info.m_traceLevel,
                             level, info.m_formatCb, 0);
  if (!notes.empty()) dtrprintft(comp, 0, "%s", notes.c_str());
  return getReference(info.m_name);
}

CLSlogModule& CLSlogModule::registerUnique(const std::string& description) {
  thread_local std::mt19937 rnd{std::random_device{}()};
  for (;;) {
    std::string name = ("R" + std::to_string(static_cast<ub4>(rnd()))).substr(0, 8);
    if (dtrcompreg(description.c_str(), name.c_str(), 1024, 1, 1, nullptr, 0) != nullptr) return getReference(name);
  }
}

void CLSlogModule::registerModules(const CLSlogModuleInfo* infos, size_t count) {
  for (size_t i = 0; i < count; ++i) registerModule(infos[i]);
  // The none module has no descriptor, so there are no saved levels to load for it.
  ub4 capacity = dtrget_regcomp() + 1;
  std::vector<dtrcompname> names(capacity);
  ub4 n = capacity;
  std::ostringstream os;
  if (dtrget_complist(names.data(), &n) != 0) {
    os << " Failed to obtain registered module list";
    dbError(os, NONE, CLSlog::getModuleDefault());
    return;
  }
  for (ub4 i = 0; i < n; ++i) {
    os << " Logging level for Module: " << names[i] << "  " << getReference(names[i]).getClsdLevelLog();
    dbLog(os, NONE, CLSlog::getModuleDefault());
  }
}

dtrcomp* CLSlogModule::findClsdCompId() const {
  // The none module stays without a descriptor, so its level reads 0.
  if (this == &getModuleNone()) return nullptr;
  dtrcomp* comp = dtrgetcompid(m_name.c_str());
  if (comp != nullptr) m_pCompId.store(comp, std::memory_order_release);
  return comp;
}

void CLSlogModule::setClsdLevelLog(ub4 level) { dtrset_loglvl(getClsdCompId(), level); }

void CLSlogModule::setDetailDefault(DebugDetail detail) { setClsdLevelLog(debugDetail2ClsdLevelLog(detail)); }

// ---- log objects

CLSlog::CLSlog(const std::string& moduleName, AlertBaseProvider* abp)
    : m_pBaseProvider(abp), m_pModule(nullptr), m_name(moduleName) {}

CLSlog::~CLSlog() = default;

void CLSlog::print(std::ostream& os, DebugDetail detail, const CLSlogModule& module, OutputType ot,
                   bool useDesc) const {
  const CLSlogModule* m = &module;
  if (m == &CLSlogModule::getModuleNone()) {
    CLSlogModule* own = m_pModule.load(std::memory_order_acquire);
    if (own == nullptr) {
      CLSlogModuleInfo info{m_name + " Component", m_name, 1, 0, LOG_PRST, tfcb, 1024};
      own = &CLSlogModule::registerModule(info);
      m_pModule.store(own, std::memory_order_release);
    }
    m = own;
  }
  ub4 level = 0;
  if (ot == CONDITIONAL_OUT) {
    if (static_cast<int>(detail) > static_cast<int>(m->getDetailDefault())) return;
    level = debugDetail2ClsdLevelLog(detail);
  }
  cls::Tint tint(0);
  tint.getThreadTint();
  std::string text;
  if (!tint.isInvalid()) tint.stringify(text);
  text += drain(os);
  if (useDesc)
    dtrprintft_cdesc(m->getClsdCompId(), level, "%s%s", debugDetailTag(detail), text.c_str());
  else
    dtrprintft(m->getClsdCompId(), level, "%s%s", debugDetailTag(detail), text.c_str());
}

void CLSlog::log(std::ostream& os, DebugDetail dd, const CLSlogModule& module, bool useDesc) const {
  print(os, dd, module, LOG_OUT, useDesc);
}
void CLSlog::error(std::ostream& os, DebugDetail dd, const CLSlogModule& module, bool useDesc) const {
  print(os, dd, module, ERROR_OUT, useDesc);
}
void CLSlog::out(std::ostream& os, DebugDetail dd, const CLSlogModule& module, bool useDesc) const {
  // The common case, a message whose level is off, is settled here without a further call.
  const CLSlogModule* m = &module;
  if (m == &CLSlogModule::getModuleNone()) m = m_pModule.load(std::memory_order_acquire);
  if (m != nullptr && static_cast<int>(dd) > static_cast<int>(m->getDetailDefault())) return;
  print(os, dd, module, CONDITIONAL_OUT, useDesc);
}
void CLSlog::trace(std::ostream&, int, DebugDetail, const CLSlogModule&) const {}

void CLSlog::setBaseProvider(AlertBaseProvider* abp) { m_pBaseProvider = abp; }

void CLSlog::raise(std::ostream& os, ub4 msgid, const std::string& args, Druid dr) const {
  cls::Tint tint(0);
  tint.getThreadTint();
  std::string tintText;
  if (!tint.isInvalid()) tint.stringify(tintText);
  std::string logFile = staticData().getLogFileName();
  std::string tail;
  if (dr != nullptr && !tint.isInvalid())
    tail = std::string(dr) + " " + tintText + " " + logFile;
  else if (dr != nullptr)
    tail = std::string(dr) + " " + logFile;
  else if (!tint.isInvalid())
    tail = tintText + " " + logFile;
  std::string alertText = args;
  if (!tail.empty()) alertText += (alertText.empty() ? "" : " ") + tail;
  dtr_alertprintft(msgid, "%s", alertText.c_str());

  std::ostringstream line;
  if (!tint.isInvalid()) line << " " << tintText;
  if (dr != nullptr) line << " Created alert : " << dr << " : ";
  line << drain(os);
  print(line, NONE, getModuleDefault(), ALERT_OUT, false);
}

namespace {
std::string txt(const zeltext* t) { return t != nullptr ? reinterpret_cast<const char*>(t) : "(null)"; }
}  // namespace

void CLSlog::alert(std::ostream& os, ub4 msgid, Druid dr, dtrmctx*) const { raise(os, msgid, "", dr); }
void CLSlog::alert(std::ostream& os, ub4 msgid, const zeltext* a1, Druid dr, dtrmctx*) const {
  raise(os, msgid, txt(a1), dr);
}
void CLSlog::alert(std::ostream& os, ub4 msgid, sb4 a1, Druid dr, dtrmctx*) const {
  raise(os, msgid, std::to_string(a1), dr);
}
void CLSlog::alert(std::ostream& os, ub4 msgid, sb4 a1, sb4 a2, sb4 a3, sb4 a4, sb4 a5, Druid dr, dtrmctx*) const {
  raise(os, msgid,
        std::to_string(a1) + " " + std::to_string(a2) + " " + std::to_string(a3) + " " + std::to_string(a4) + " " +
            std::to_string(a5),
        dr);
}
void CLSlog::alert(std::ostream& os, ub4 msgid, const zeltext* a1, const zeltext* a2, Druid dr, dtrmctx*) const {
  raise(os, msgid, txt(a1) + " " + txt(a2), dr);
}

void CLSlog::base_alert(std::ostream& os, ub4 offset, Druid dr, dtrmctx* ctx) const {
  if (m_pBaseProvider != nullptr) alert(os, offset + static_cast<ub4>(m_pBaseProvider->getBase()), dr, ctx);
}
void CLSlog::base_alert(std::ostream& os, ub4 offset, const zeltext* a1, Druid dr, dtrmctx* ctx) const {
  if (m_pBaseProvider != nullptr) alert(os, offset + static_cast<ub4>(m_pBaseProvider->getBase()), a1, dr, ctx);
}
void CLSlog::base_alert(std::ostream& os, ub4 offset, const zeltext* a1, const zeltext* a2, Druid dr,
                        dtrmctx* ctx) const {
  if (m_pBaseProvider != nullptr)
    alert(os, offset + static_cast<ub4>(m_pBaseProvider->getBase()), a1, a2, dr, ctx);
}

CLSlogModule& CLSlog::getModuleDefault() { return *staticData().m_pModuleDefault.load(); }
CLSlog& CLSlog::getLogDefault() { return *staticData().m_pLogDefault; }
void CLSlog::setDefaultModule(CLSlogModule& module) { staticData().m_pModuleDefault.store(&module); }
void CLSlog::setIsQemsd(bool isQemsd) { staticData().m_isQemsd.store(isQemsd); }

int CLSlog::clsdCbkLog(void*, zeltext* pModuleName, ub4 moduleLevel, dtrmkey moduleConnectKey) {
  std::string name = pModuleName != nullptr ? reinterpret_cast<const char*>(pModuleName) : "";
  CLSlogModule& module = CLSlogModule::getReference(name);
  std::ostringstream os;
  os << " Debug level set to " << moduleLevel << " for module " << name;
  dbLog(os, NONE, getModuleDefault());
  module.setClsdLevelLog(moduleLevel);
  if (staticData().m_isQemsd.load()) caavrgSetDebugLevel(name, moduleLevel, moduleConnectKey);
  return 0;
}

int CLSlog::clsdCbkFilter(void*, const zeltext*, ub4, dtrmtype) { return staticData().m_isQemsd.load() ? 0 : -1; }

void dbOut(std::ostream& os, DebugDetail dd, const CLSlogModule& module, bool useDesc) {
  CLSlog::getLogDefault().out(os, dd, module, useDesc);
}
void dbLog(std::ostream& os, DebugDetail dd, const CLSlogModule& module, bool useDesc) {
  CLSlog::getLogDefault().log(os, dd, module, useDesc);
}
void dbError(std::ostream& os, DebugDetail dd, const CLSlogModule& module, bool useDesc) {
  CLSlog::getLogDefault().error(os, dd, module, useDesc);
}

void dumpMemoryTrace() { dtrflush(dtrallcomp()); }

}  // namespace CLS_Debug

extern "C" void clsDumpMemoryTrace() { CLS_Debug::dumpMemoryTrace(); }
