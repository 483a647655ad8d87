#ifndef CPPGEN_CLSLOG_H
#define CPPGEN_CLSLOG_H

// Log objects by module and level, over the trace service. A source unit that logs keeps one
// static CLSlog named after its module; a message is composed on a stream and handed over with a
// detail. Conditional messages (`out`) are written only when the module's level lets the detail
// pass; errors, log lines and alerts always are. A line is the detail's tag, the thread's tint,
// then the message, which by custom starts with one blank.
//
// A module's level comes, lowest precedence first, from its registration, the registry (only in
// the lower-stack daemon mode), ZEL_VYNDEBUG_ALL and ZEL_VYNDEBUG_<module>, read once when the
// module registers. A variable that is empty or not a decimal number is passed over.
#include <atomic>
#include <cstddef>
#include <map>
#include <mutex>
#include <ostream>
#include <string>

#include "platform/thread/sltypes.h"
#include "platform/trace/dtr.h"

namespace CLS_Debug {

enum DebugDetail {
  IN_MEMORY = 0,
  LOGGING = 1,
  CLS_ERROR = 2,
  PANIC = 3,
  NONE = 4,
  FUNC_FAIL = 5,
  FUNC_ENTER = 6,
  ALGO_COARSE = 7,
  ALGO_FINE = 8,
  EXTERN_DETAIL = 9,
};

// "[IN MEM]", "[LOGGING]", "[ALERT]", "[PANIC]", "", "[FFAIL]", "[ENTER]", "", "[F-ALGO]", "[EXT-LAYER]".
const char* debugDetailTag(DebugDetail dd);
// The trace service level of a detail: 0 0 0 0 1 1 2 3 5 4.
ub4 debugDetail2ClsdLevelLog(DebugDetail dd);
ub4 debugDetail2ClsdLevelTrace(DebugDetail dd);

// A diagnostic tag such as "(:CLSGEN00100:)".
typedef const char* Druid;

enum CLSlogModuleInfoFlags {
  LOG_ENV = 1,
  LOG_LOAD = 2,
  LOG_DFLT = 4,
  LOG_PRST = 65536,
  LOG_ALIAS = 131072,
};

struct CLSlogModuleInfo {
  std::string m_description;
  std::string m_name;  // the trace service keeps 8 characters of it
  ub4 m_logLevel;
  ub4 m_traceLevel;
  ub4 m_flags;  // CLSlogModuleInfoFlags; not passed on
  dtrfcb m_formatCb;
  size_t m_bufSize;
};

class CLSlogModule {
 public:
  explicit CLSlogModule(const std::string& name);

  // The module that stands for "the log object's own module".
  static CLSlogModule& getModuleNone();
  static std::map<std::string, CLSlogModule*>& getRegisteredModules();
  // The module of a name, made on first use; "default" is the none module. Modules are never
  // deleted before the process ends, so references stay good.
  static CLSlogModule& getReference(const std::string& name);
  static CLSlogModule& registerModule(const CLSlogModuleInfo& info);
  // A module with a fresh random name "R<digits>" (8 characters at most).
  static CLSlogModule& registerUnique(const std::string& description);
  // The start-up form for a daemon: registers each and logs every module's level.
  static void registerModules(const CLSlogModuleInfo* infos, size_t count);

  const std::string& getName() const { return m_name; }
  // The trace service's descriptor, or null when the name is not registered there.
  dtrcomp* getClsdCompId() const {
    dtrcomp* comp = m_pCompId.load(std::memory_order_acquire);
    return comp != nullptr ? comp : findClsdCompId();
  }
  // 0 without a descriptor or with a disabled one; otherwise the descriptor's level.
  ub4 getClsdLevelLog() const {
    const dtrcomp* comp = getClsdCompId();
    if (comp == nullptr || (comp->flags & 0x4021) == 0 || (comp->flags & 0xbed8) != 0) return 0;
    return comp->loglevel.load(std::memory_order_relaxed);
  }
  void setClsdLevelLog(ub4 level);
  // The highest detail the level lets pass; levels above 5 count as 0.
  // Level 4 lets ALGO_FINE (trace level 5) pass as well as EXTERN_DETAIL: the trace service takes 4 and 5 as one tier, so this filter alone decides.
  DebugDetail getDetailDefault() const {
    static const DebugDetail byLevel[] = {LOGGING, FUNC_FAIL, FUNC_ENTER, ALGO_COARSE, EXTERN_DETAIL, ALGO_FINE};
    ub4 level = getClsdLevelLog();
    return level <= 5 ? byLevel[level] : LOGGING;
  }
  void setDetailDefault(DebugDetail detail);

 private:
  dtrcomp* findClsdCompId() const;

  std::string m_name;
  mutable std::atomic<dtrcomp*> m_pCompId;
};

class CLSlog {
 public:
  enum OutputType { CONDITIONAL_OUT = 0, ERROR_OUT = 1, LOG_OUT = 2, ALERT_OUT = 3 };

  // Gives the base number of a component's alert messages.
  class AlertBaseProvider {
   public:
    virtual ~AlertBaseProvider() = default;
    virtual int getBase() = 0;
  };

  explicit CLSlog(const std::string& moduleName, AlertBaseProvider* abp = nullptr);
  virtual ~CLSlog();

  // Each drains the stream when its line is written; a conditional line filtered out leaves the
  // stream as it was. The stream's buffer must be a std::stringbuf (an ostringstream or stringstream).
  virtual void log(std::ostream& rOStream, DebugDetail dd, const CLSlogModule& rModule, bool useDesc = false) const;
  virtual void error(std::ostream& rOStream, DebugDetail dd, const CLSlogModule& rModule, bool useDesc = false) const;
  virtual void out(std::ostream& rOStream, DebugDetail dd, const CLSlogModule& rModule, bool useDesc = false) const;
  // Binary trace records are not kept: does nothing.
  virtual void trace(std::ostream& data, int opcode, DebugDetail detail, const CLSlogModule& module) const;
  virtual void setBaseProvider(AlertBaseProvider* abp);

  // Raises alert msgid with the message arguments, the druid, the tint and the log file name, and
  // logs it.
  void alert(std::ostream& os, ub4 msgid, Druid dr, dtrmctx* ctxclsdm = nullptr) const;
  void alert(std::ostream& os, ub4 msgid, const zeltext* a1, Druid dr, dtrmctx* ctxclsdm = nullptr) const;
  void alert(std::ostream& os, ub4 msgid, sb4 a1, Druid dr, dtrmctx* ctxclsdm = nullptr) const;
  void alert(std::ostream& os, ub4 msgid, sb4 a1, sb4 a2, sb4 a3, sb4 a4, sb4 a5, Druid dr,
             dtrmctx* ctxclsdm = nullptr) const;
  void alert(std::ostream& os, ub4 msgid, const zeltext* a1, const zeltext* a2, Druid dr,
             dtrmctx* ctxclsdm = nullptr) const;
  // An alert numbered from the provider's base; dropped without a provider.
  void base_alert(std::ostream& os, ub4 offset, Druid dr, dtrmctx* ctx = nullptr) const;
  void base_alert(std::ostream& os, ub4 offset, const zeltext* a1, Druid dr, dtrmctx* ctx = nullptr) const;
  void base_alert(std::ostream& os, ub4 offset, const zeltext* a1, const zeltext* a2, Druid dr,
                  dtrmctx* ctx = nullptr) const;

  static CLSlogModule& getModuleDefault();
  static CLSlog& getLogDefault();
  static void setDefaultModule(CLSlogModule& module);
  static void setIsQemsd(bool isQemsd);

  // The trace service's callback when a module's level changes. 0.
  static int clsdCbkLog(void* pContext, zeltext* pModuleName, ub4 moduleLevel, dtrmkey moduleConnectKey);
  // 0 in the lower-stack daemon mode, otherwise -1.
  static int clsdCbkFilter(void* pContext, const zeltext* pModuleName, ub4 level, dtrmtype type);

 private:
  void print(std::ostream& os, DebugDetail detail, const CLSlogModule& module, OutputType ot, bool useDesc) const;
  void raise(std::ostream& os, ub4 msgid, const std::string& args, Druid dr) const;

  AlertBaseProvider* m_pBaseProvider;
  mutable std::atomic<CLSlogModule*> m_pModule;  // set at the first message to the none module
  std::string m_name;
};

// The process-wide defaults of the logging layer.
class CLSlogStaticData {
 public:
  CLSlogStaticData();
  ~CLSlogStaticData();
  // The trace file's name, or "[Unknown]" while the trace service has none.
  std::string getLogFileName();

  CLSlogModule* m_pModuleNone;
  std::atomic<CLSlogModule*> m_pModuleDefault;
  CLSlog* m_pLogDefault;
  std::atomic<bool> m_isQemsd;
  std::string m_logFileName;  // guarded by m_mx
  std::map<std::string, CLSlogModule*>* m_pRegisteredModules;  // guarded by the module map's mutex
  std::mutex m_mx;
};

extern const char* const ENV_DEBUG_PREPEND;  // "ZEL_VYNDEBUG_"
extern const char* const ENV_DEBUG_ALL;      // "ZEL_VYNDEBUG_ALL"
extern const char* const DEFAULT_LOG_LOC;    // "[Unknown]"

// The default log's out, log and error.
void dbOut(std::ostream& os, DebugDetail dd, const CLSlogModule& module, bool useDesc = false);
void dbLog(std::ostream& os, DebugDetail dd, const CLSlogModule& module, bool useDesc = false);
void dbError(std::ostream& os, DebugDetail dd, const CLSlogModule& module, bool useDesc = false);
void dumpMemoryTrace();

}  // namespace CLS_Debug

extern "C" void clsDumpMemoryTrace();

#endif
