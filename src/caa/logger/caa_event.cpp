#include "caa/logger/caa_event.h"

#include <cstdio>
#include <cstring>
#include <sstream>
#include <vector>

#include "cppgen/clsLog.h"

namespace CAA {

namespace {

// A lost event is told to the user on standard error and kept in the trace, where an
// administrator looks for it later.
void traceLost(const char* event_name, EvmStatus_t status) {
  static const CLS_Debug::CLSlog* s_dbug = new CLS_Debug::CLSlog("VYNEVT");
  char text[100] = "";
  EvmStatusTextGet(status, text, sizeof text);
  std::ostringstream os;
  os << " event " << (event_name != nullptr ? event_name : "") << " not posted: " << text;
  s_dbug->error(os, CLS_Debug::FUNC_FAIL, CLS_Debug::CLSlogModule::getModuleNone());
}

}  // namespace

const char* const EVENT_PROFILE_DELETE = "sys.zel.clu.vyn.res.profile.delete";
const char* const EVENT_PROFILE_UPDATE = "sys.zel.clu.vyn.res.profile.update";
const char* const EVENT_LOG_UI = "sys.zel.clu.vyn.log.ui";

EventMgr::EventMgr(const char* event, const char* dname, int* ecode)
    : post_ev(nullptr), rec_ev(nullptr), status(EvmERROR_NONE), value(), data_name(dname), event_name(event),
      e_code(ecode), owns_event(true) {}

EventMgr::EventMgr(const char* event, EvmEvent_t& ev, int* ecode)
    : post_ev(ev), rec_ev(nullptr), status(EvmERROR_NONE), value(), data_name(nullptr), event_name(event),
      e_code(ecode), owns_event(false) {}

EventMgr::~EventMgr() = default;

caa_Status EventMgr::sendEvent(const char* ename, const char* dname, const std::string& send_data, int* ecode) {
  std::vector<char> copy(send_data.begin(), send_data.end());
  copy.push_back('\0');
  EventMgr mgr(ename, dname, ecode);
  if (mgr.createEvent() != caa_SUCCESS) return caa_WARNING;
  char* text = copy.data();
  mgr.setEventVar(text);
  return mgr.postEvent();
}

caa_Status EventMgr::sendEvent(const char* ename, EvmEvent_t& ev, int* ecode) {
  EventMgr mgr(ename, ev, ecode);
  return mgr.postEvent();
}

caa_Status EventMgr::createEvent() {
  status = EvmEventCreateVa(&post_ev, EvmITEM_NAME, event_name, EvmITEM_NONE);
  if (status != EvmERROR_NONE) {
    std::fprintf(stderr, "Failed to create event '%s'\n", event_name);
    prtEventStatus();
    if (post_ev != nullptr) EvmEventDestroy(post_ev);
    post_ev = nullptr;
    return caa_WARNING;
  }
  return caa_SUCCESS;
}

void EventMgr::setEventVar(char*& send_str) {
  value.STRING = send_str;
  EvmVarSet(post_ev, data_name, EvmTYPE_STRING, value, 0, 0);
}

caa_Status EventMgr::postEvent() {
  EvmConnection_t evconn = nullptr;
  bool ok = false;
  if (EvmInitxpcctx() == nullptr) {
    std::fprintf(stderr, "Error initializing xpcctx to post event \"%s\"\n", event_name);
  } else if ((status = EvmConnCreate(EvmCONNECTION_POST, EvmRESPONSE_WAIT, nullptr, nullptr, nullptr, &evconn)) !=
             EvmERROR_NONE) {
    std::fprintf(stderr, "Error creating connection to post event \"%s\" return code = %d\n", event_name,
                 static_cast<int>(status));
  } else if ((status = EvmEventPost(evconn, post_ev)) != EvmERROR_NONE) {
    std::fprintf(stderr, "Error posting event \"%s\" return code = %d\n", event_name, static_cast<int>(status));
    EvmConnDestroy(evconn);
  } else {
    EvmConnDestroy(evconn);
    ok = true;
  }
  if (!ok) prtEventStatus();
  // What this manager made, it destroys; an event handed in is the caller's to destroy.
  if (owns_event && post_ev != nullptr) {
    EvmEventDestroy(post_ev);
    post_ev = nullptr;
  }
  std::fflush(stderr);
  return ok ? caa_SUCCESS : caa_WARNING;
}

caa_Status EventMgr::getEventData(EvmEvent_t& ev, std::string& rtn_data) {
  rec_ev = ev;
  EvmVarStruct_t var;
  if (EvmVarGet(rec_ev, "CmdStatus", &var) != EvmERROR_NONE) return caa_WARNING;
  int cmdStatus = var.value.INT32;
  EvmVarRelease(&var);
  if (cmdStatus != 0) {
    if (e_code != nullptr) *e_code = cmdStatus;
    return caa_WARNING;
  }
  if (data_name != nullptr && EvmVarGet(rec_ev, data_name, &var) == EvmERROR_NONE) {
    if (var.value.STRING != nullptr) rtn_data = var.value.STRING;
    EvmVarRelease(&var);
  }
  return caa_SUCCESS;
}

int EventMgr::checkEventName(EvmEvent_t& ev, const char* name) {
  rec_ev = ev;
  EvmItemValue_t item;
  if (EvmItemGet(rec_ev, EvmITEM_NAME, &item) != EvmERROR_NONE) return 0;
  int same = (item.NAME != nullptr && name != nullptr && std::strcmp(item.NAME, name) == 0) ? 1 : 0;
  EvmItemRelease(EvmITEM_NAME, item);
  return same;
}

void EventMgr::prtEventStatus() {
  char text[100];
  text[0] = '\0';
  EvmStatusTextGet(status, text, sizeof text);
  std::fprintf(stderr, "Error: %s\n", text);
  traceLost(event_name, status);
}

}  // namespace CAA
