#ifndef CAA_LOGGER_CAA_EVENT_H
#define CAA_LOGGER_CAA_EVENT_H

// Posting the command's events to the cluster's event daemon: one short-lived connection per
// event. A daemon that cannot be reached costs the event, never the command's own result.
#include <string>

#include "caa/lib/caa_types.h"

namespace CAA {

// The command's event names.
extern const char* const EVENT_PROFILE_DELETE;  // "sys.zel.clu.vyn.res.profile.delete"
extern const char* const EVENT_PROFILE_UPDATE;  // "sys.zel.clu.vyn.res.profile.update"
extern const char* const EVENT_LOG_UI;          // "sys.zel.clu.vyn.log.ui"

class EventMgr {
 public:
  EventMgr(const char* event, const char* dname, int* ecode);
  virtual ~EventMgr();

  // Makes an event `ename` with the string variable `dname` = send_data and posts it.
  static caa_Status sendEvent(const char* ename, const char* dname, const std::string& send_data, int* ecode);

 private:
  const char* event_name;
  const char* data_name;
  int* e_code;
};

}  // namespace CAA

#endif
