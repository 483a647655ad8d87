#include "caa/logger/caa_event.h"

namespace CAA {

const char* const EVENT_PROFILE_DELETE = "sys.zel.clu.vyn.res.profile.delete";
const char* const EVENT_PROFILE_UPDATE = "sys.zel.clu.vyn.res.profile.update";
const char* const EVENT_LOG_UI = "sys.zel.clu.vyn.log.ui";

EventMgr::EventMgr(const char* event, const char* dname, int* ecode)
    : event_name(event), data_name(dname), e_code(ecode) {}

EventMgr::~EventMgr() = default;

// The event client's connection to the daemon is not part of this build yet: a post fails,
// and the caller reports it as it reports any failed post.
caa_Status EventMgr::sendEvent(const char* ename, const char* dname, const std::string&, int* ecode) {
  EventMgr mgr(ename, dname, ecode);
  (void)mgr;
  return caa_WARNING;
}

}  // namespace CAA
