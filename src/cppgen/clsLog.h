#ifndef CPPGEN_CLSLOG_H
#define CPPGEN_CLSLOG_H

// Log objects by module and level. A source unit that logs keeps one static CLSlog named after
// its module; a message is composed on a stream and handed over with a detail. Conditional
// messages are written only when the module's level lets the detail pass; errors and log lines
// always are. Lines go to the trace service (a file under the home's log/), never to a terminal.
//
// A module's level starts at 1 and is set by ZEL_VYNDEBUG_ALL, and then, overriding it,
// by ZEL_VYNDEBUG_<module>, both read when the module is first used.
#include <map>
#include <mutex>
#include <sstream>
#include <string>

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

const char* debugDetailTag(DebugDetail dd);
// The highest detail a module level lets pass (levels above 5 count as 0).
DebugDetail detailForLevel(unsigned level);

class CLSlogModule {
 public:
  // The module that stands for "the log object's own module".
  static CLSlogModule& getModuleNone();
  // The module of a name, made on first use; "default" is the none module.
  static CLSlogModule& getReference(const std::string& name);

  const std::string& getName() const { return m_name; }
  unsigned getClsdLevelLog() const { return m_level; }
  void setClsdLevelLog(unsigned level) { m_level = level; }
  DebugDetail getDetailDefault() const { return detailForLevel(m_level); }

  explicit CLSlogModule(const std::string& name);

 private:
  std::string m_name;
  unsigned m_level;
};

class CLSlog {
 public:
  enum OutputType { CONDITIONAL_OUT = 0, ERROR_OUT = 1, LOG_OUT = 2, ALERT_OUT = 3 };

  explicit CLSlog(const std::string& moduleName);
  virtual ~CLSlog() = default;

  // Each drains the stream when the line is written.
  virtual void log(std::ostringstream& os, DebugDetail dd, const CLSlogModule& module, bool useDesc = false) const;
  virtual void error(std::ostringstream& os, DebugDetail dd, const CLSlogModule& module, bool useDesc = false) const;
  virtual void out(std::ostringstream& os, DebugDetail dd, const CLSlogModule& module, bool useDesc = false) const;

  // The line `print` would write for this message, or empty when it is filtered out.
  std::string compose(const std::string& text, DebugDetail dd, const CLSlogModule& module, OutputType ot) const;

 private:
  void print(std::ostringstream& os, DebugDetail dd, const CLSlogModule& module, OutputType ot) const;
  const CLSlogModule& moduleFor(const CLSlogModule& module) const;

  std::string m_name;
  mutable const CLSlogModule* m_pModule;
};

}  // namespace CLS_Debug

#endif
