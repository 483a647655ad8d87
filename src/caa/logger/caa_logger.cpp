#include "caa/logger/caa_logger.h"

#include <cstdio>

#include "caa/logger/caa_event.h"
#include "platform/tfm/tfm.h"

namespace CAA {

const char* const CaaLogger::CAA_LOGGER = "CAA_LOG";

CaaLogger::CaaLogger(caaLogRoute route, const char* event)
    : rtn_code(0), l_route(route), event_switch(0), l_event(event != nullptr ? event : "") {}

CaaLogger::CaaLogger(const char* msgfile, caaLogRoute route, const char* event)
    : CaaMsg(msgfile), rtn_code(0), l_route(route), event_switch(0), l_event(event != nullptr ? event : "") {}

CaaLogger::CaaLogger(const char* msgfile, int set, caaLogRoute route, const char* event)
    : CaaMsg(msgfile, set), rtn_code(0), l_route(route), event_switch(0), l_event(event != nullptr ? event : "") {}

CaaLogger::~CaaLogger() = default;

void CaaLogger::formatNumbered(int lnum, va_list ap) {
  char fmt[MSG_BUF_LEN];
  getString(fmt, lnum);
  char text[MSG_BUF_LEN];
  sfmvprintf(text, sizeof text, fmt, ap);
  msgstr = text;
  rtn_code = lnum;
}

void CaaLogger::formatText(const char* fmt, va_list ap) {
  char text[MSG_BUF_LEN];
  sfmvprintf(text, sizeof text, fmt != nullptr ? fmt : "", ap);
  msgstr = text;
}

void CaaLogger::log(std::string& str) {
  msgstr = str;
  logProc();
}

void CaaLogger::log(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  formatText(fmt, ap);
  va_end(ap);
  logProc();
}

void CaaLogger::log(int lnum, ...) {
  va_list ap;
  va_start(ap, lnum);
  formatNumbered(lnum, ap);
  va_end(ap);
  logProc();
}

void CaaLogger::log(caa_LogRoute lr, std::string& str) {
  l_route = lr;
  msgstr = str;
  logProc();
}

void CaaLogger::log(caa_LogRoute lr, const char* fmt, ...) {
  l_route = lr;
  va_list ap;
  va_start(ap, fmt);
  formatText(fmt, ap);
  va_end(ap);
  logProc();
}

void CaaLogger::log(caa_LogRoute lr, int lnum, ...) {
  l_route = lr;
  va_list ap;
  va_start(ap, lnum);
  formatNumbered(lnum, ap);
  va_end(ap);
  logProc();
}

std::string CaaLogger::toString(int lnum, ...) {
  va_list ap;
  va_start(ap, lnum);
  formatNumbered(lnum, ap);
  va_end(ap);
  return msgstr;
}

void CaaLogger::log(EvmEvent_t& ev) {
  l_route = LOG_EVMPOST;
  logProc(ev);
}

void CaaLogger::log(const char* event, EvmEvent_t& ev) {
  l_route = LOG_EVMPOST;
  setEventName(event);
  logProc(ev);
}

void CaaLogger::logProc(EvmEvent_t& ev) {
  int e_code = 0;
  if (EventMgr::sendEvent(l_event.c_str(), ev, &e_code) != caa_SUCCESS) {
    std::fputs("Evm log has failed.\n", stderr);
    std::fflush(stderr);
  }
}

void CaaLogger::emit(bool addNewline) {
  int rc = 0;
  if (event_switch != 0 || l_route == LOG_EVMPOST) {
    rc = sendLog(nullptr);
  } else {
    std::FILE* out = l_route == LOG_STDOUT ? stdout : stderr;
    std::fwrite(msgstr.data(), 1, msgstr.size(), out);
    if (addNewline) std::fputc('\n', out);
    std::fflush(out);
  }
  if (rc != 0) {
    std::fputs("Evm log has failed.\n", stderr);
    std::fflush(stderr);
  }
}

void CaaLogger::logProc() { emit(true); }

void CaaLogger::logOrigProc() { emit(false); }

int CaaLogger::sendLog(const char* event) {
  if (event != nullptr) l_event = event;
  int e_code = 0;
  return EventMgr::sendEvent(l_event.c_str(), CAA_LOGGER, msgstr, &e_code) == caa_SUCCESS ? 0 : 1;
}

}  // namespace CAA
