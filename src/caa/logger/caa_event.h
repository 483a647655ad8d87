#ifndef CAA_LOGGER_CAA_EVENT_H
#define CAA_LOGGER_CAA_EVENT_H

// Posting the command's events to the cluster's event daemon: one short-lived connection per
// event. A daemon that cannot be reached costs the event, never the command's own result.
#include <string>

#include "caa/lib/caa_types.h"
#include "evm/libevm/evm.h"

namespace CAA {

// The command's event names.
extern const char* const EVENT_PROFILE_DELETE;  // "sys.zel.clu.vyn.res.profile.delete"
extern const char* const EVENT_PROFILE_UPDATE;  // "sys.zel.clu.vyn.res.profile.update"
extern const char* const EVENT_LOG_UI;          // "sys.zel.clu.vyn.log.ui"

class EventMgr {
 public:
  // For an event to be made, with one string variable `dname`.
  EventMgr(const char* event, const char* dname, int* ecode);
  // For the caller's event, which stays the caller's.
  EventMgr(const char* event, EvmEvent_t& ev, int* ecode);
  virtual ~EventMgr();

  // Makes an event `ename` with the string variable `dname` = send_data and posts it.
  static caa_Status sendEvent(const char* ename, const char* dname, const std::string& send_data, int* ecode);
  // Posts the caller's event; the caller destroys it afterwards.
  static caa_Status sendEvent(const char* ename, EvmEvent_t& ev, int* ecode);

  caa_Status createEvent();
  void setEventVar(char*& send_str);
  caa_Status postEvent();
  // Reads a reply event: its "CmdStatus" and the variable of this manager.
  caa_Status getEventData(EvmEvent_t& ev, std::string& rtn_data);
  // 1 when the event's name is `name`.
  int checkEventName(EvmEvent_t& ev, const char* name);
  // "Error: " and the text of the last status, on standard error.
  void prtEventStatus();

 private:
  EvmEvent_t post_ev;
  EvmEvent_t rec_ev;
  EvmStatus_t status;
  EvmVarValue_t value;
  EvmVarName_t data_name;
  const char* event_name;
  int* e_code;
  bool owns_event;  // made here, so destroyed here after the post
};

}  // namespace CAA

#endif
