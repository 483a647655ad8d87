#include "cppgen/clsLog.h"

#include <cstdlib>
#include <memory>

#include "platform/trace/dtr.h"

namespace CLS_Debug {

namespace {

// Modules live until the process ends: callers keep references to them.
std::mutex& mapMutex() {
  static std::mutex mx;
  return mx;
}

std::map<std::string, std::unique_ptr<CLSlogModule>>& modules() {
  static auto* map = new std::map<std::string, std::unique_ptr<CLSlogModule>>();
  return *map;
}

bool envLevel(const std::string& name, unsigned* level) {
  const char* v = std::getenv(name.c_str());
  if (v == nullptr || v[0] == '\0') return false;
  *level = static_cast<unsigned>(std::strtoul(v, nullptr, 10));
  return true;
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

DebugDetail detailForLevel(unsigned level) {
  switch (level) {
    case 1: return FUNC_FAIL;
    case 2: return FUNC_ENTER;
    case 3: return ALGO_COARSE;
    case 4: return EXTERN_DETAIL;
    case 5: return ALGO_FINE;
    default: return LOGGING;
  }
}

CLSlogModule::CLSlogModule(const std::string& name) : m_name(name), m_level(1) {
  envLevel("ZEL_VYNDEBUG_ALL", &m_level);
  envLevel("ZEL_VYNDEBUG_" + name, &m_level);
}

CLSlogModule& CLSlogModule::getModuleNone() {
  static CLSlogModule* none = new CLSlogModule("default");
  return *none;
}

CLSlogModule& CLSlogModule::getReference(const std::string& name) {
  if (name == "default") return getModuleNone();
  std::lock_guard<std::mutex> lock(mapMutex());
  auto& map = modules();
  auto it = map.find(name);
  if (it == map.end()) it = map.emplace(name, std::make_unique<CLSlogModule>(name)).first;
  return *it->second;
}

CLSlog::CLSlog(const std::string& moduleName) : m_name(moduleName), m_pModule(nullptr) {}

const CLSlogModule& CLSlog::moduleFor(const CLSlogModule& module) const {
  if (&module != &CLSlogModule::getModuleNone()) return module;
  if (m_pModule == nullptr) m_pModule = &CLSlogModule::getReference(m_name);
  return *m_pModule;
}

std::string CLSlog::compose(const std::string& text, DebugDetail dd, const CLSlogModule& module,
                            OutputType ot) const {
  const CLSlogModule& m = moduleFor(module);
  if (ot == CONDITIONAL_OUT && static_cast<int>(dd) > static_cast<int>(m.getDetailDefault())) return std::string();
  return std::string(debugDetailTag(dd)) + text;
}

void CLSlog::print(std::ostringstream& os, DebugDetail dd, const CLSlogModule& module, OutputType ot) const {
  std::string line = compose(os.str(), dd, module, ot);
  if (line.empty()) return;
  os.str(std::string());
  dtrWrite(moduleFor(module).getName() + ":" + line);
}

void CLSlog::log(std::ostringstream& os, DebugDetail dd, const CLSlogModule& module, bool) const {
  print(os, dd, module, LOG_OUT);
}
void CLSlog::error(std::ostringstream& os, DebugDetail dd, const CLSlogModule& module, bool) const {
  print(os, dd, module, ERROR_OUT);
}
void CLSlog::out(std::ostringstream& os, DebugDetail dd, const CLSlogModule& module, bool) const {
  print(os, dd, module, CONDITIONAL_OUT);
}

}  // namespace CLS_Debug
