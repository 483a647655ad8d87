#ifndef CAA_LOGGER_CAA_LOGGER_H
#define CAA_LOGGER_CAA_LOGGER_H

// What the command talks through. The logger holds one text and sends it to standard output,
// standard error, or as an event to the cluster's event daemon. In quiet mode (the event
// switch on) every text goes out as an event, whatever the route.
#include <cstdarg>
#include <string>

#include "caa/logger/caa_msg.h"
#include "evm/libevm/evm.h"

namespace CAA {

enum caaLogRoute { LOG_STDERR = 0, LOG_STDOUT = 1, LOG_EVMPOST = 2 };
typedef caaLogRoute caa_LogRoute;

class CaaLogger : public CaaMsg {
 public:
  // The event variable that carries a text.
  static const char* const CAA_LOGGER;

  CaaLogger(caaLogRoute route, const char* event);
  CaaLogger(const char* msgfile, caaLogRoute route, const char* event);
  CaaLogger(const char* msgfile, int set, caaLogRoute route, const char* event);
  virtual ~CaaLogger();

  caa_LogRoute getlogRoute() const { return l_route; }
  void setLogRoute(caaLogRoute route) { l_route = route; }
  const char* getEventName() const { return l_event.c_str(); }
  void setEventName(const char* event) { l_event = event != nullptr ? event : ""; }
  void setEventSwitch(int& sw) { event_switch = sw; }
  int getEventSwitch() const { return event_switch; }
  void setRtnCode(int code) { rtn_code = code; }
  int getRtnCode() const { return rtn_code; }
  const std::string& getText() const { return msgstr; }

  void set(const char* text) { msgstr = text != nullptr ? text : ""; }
  void set(const std::string& text) { msgstr = text; }
  void set() { msgstr.clear(); }
  void append(const char* text) { msgstr += text != nullptr ? text : ""; }
  void append(const std::string& text) { msgstr += text; }
  void append() { msgstr += '\n'; }

  // Each sets the text and sends it on the current route (a route given becomes current).
  // The forms with a message number format the catalog text with the further arguments.
  void log(std::string& str);
  void log(const char* fmt, ...);
  void log(int lnum, ...);
  void log(caa_LogRoute lr, std::string& str);
  void log(caa_LogRoute lr, const char* fmt, ...);
  void log(caa_LogRoute lr, int lnum, ...);
  // Message lnum, formatted, as text; nothing is written.
  std::string toString(int lnum, ...);
  // Posts the caller's event (which stays the caller's); the route becomes LOG_EVMPOST, so that
  // later calls without a route go out as events too.
  void log(EvmEvent_t& ev);
  void log(const char* event, EvmEvent_t& ev);

  // Sends the text with an end of line, or as an event.
  void logProc();
  // Sends the text as it stands, for output that is complete already.
  void logOrigProc();
  // Posts the text as the event `event` (null: the current event name). 0 on success.
  int sendLog(const char* event);
  void logProc(EvmEvent_t& ev);

 private:
  void formatNumbered(int lnum, va_list ap);
  void formatText(const char* fmt, va_list ap);
  void emit(bool addNewline);

  int rtn_code;
  caa_LogRoute l_route;
  int event_switch;
  std::string l_event;
};

}  // namespace CAA

#endif
