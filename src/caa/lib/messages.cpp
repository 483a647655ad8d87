#include "caa/lib/messages.h"

#include <cstring>
#include <string>

#include "caa/lib/caa_ZelCoreCtx.h"
#include "platform/mcg/mcg.h"
#include "platform/tfm/tfm.h"
#include "platform/trace/dtr.h"

namespace CAA {

namespace {

const char kProduct[] = "vyn";
const char kFacility[] = "VYN";
const char kNotFound[] = "Message not found";

int zelgetmsg_get_mesg(const std::string& lid, const char* facility_name, int mesg_no, char* msgbuf,
                       int msglen, int* pSeverity) {
  mcgcat* cat = mcgaicmt(kProduct, facility_name, lid);
  if (mcgaerr(cat) != 0) {
    mcgatrm(cat);
    return -1;
  }
  int severity = 0;
  int rc = mcgagbcmt(cat, mesg_no, msgbuf, static_cast<std::size_t>(msglen), &severity);
  if (pSeverity != nullptr) *pSeverity = severity;
  mcgatrm(cat);
  if (rc == 2) {
    dtr_alertprintft(1, "%s-%d", facility_name, mesg_no);
    rc = 0;
  }
  return rc == 0 ? 0 : -1;
}

char* dup(const char* s) {
  if (s == nullptr) return nullptr;
  char* copy = new char[std::strlen(s) + 1];
  std::strcpy(copy, s);
  return copy;
}

}  // namespace

int zelgetmsg(const char* facility_name, int mesg_no, char* msgbuf, int msglen, int* pSeverity,
              const char* pLang) {
  ZelCoreCtx* core = ZelCoreCtx::getInstance();
  if (facility_name == nullptr || std::strlen(facility_name) >= 8 || mesg_no == 0 || msgbuf == nullptr ||
      msglen <= 0)
    return -1;
  return zelgetmsg_get_mesg(core->getLangId(pLang), facility_name, mesg_no, msgbuf, msglen, pSeverity);
}

Messages::Messages(const char* filename, int set, const char* location)
    : cxxl_filename(dup(filename)), cxxl_set(set), cxxl_default_file_location(dup(location)) {}

Messages::~Messages() {
  delete[] cxxl_filename;
  delete[] cxxl_default_file_location;
}

int Messages::text(char* msgbuf, int msg_arg, const char*, int) {
  char body[MSG_BUF_LEN];
  if (zelgetmsg(kFacility, msg_arg, body, MSG_BUF_LEN, nullptr, nullptr) != 0) {
    sfmprintf(msgbuf, MSG_BUF_LEN, "%s", kNotFound);
    return -1;
  }
  sfmprintf(msgbuf, MSG_BUF_LEN, "%s-%4.4d: %s\n", kFacility, msg_arg, body);
  return 0;
}

int Messages::textnofmt(char* msgbuf, int msg_arg, const char*, int) {
  if (zelgetmsg(kFacility, msg_arg, msgbuf, MSG_BUF_LEN, nullptr, nullptr) != 0) {
    sfmprintf(msgbuf, MSG_BUF_LEN, "%s", kNotFound);
    return -1;
  }
  return 0;
}

}  // namespace CAA
