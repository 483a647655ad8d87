#include "caa/logger/caa_msg.h"

#include <cstdio>

namespace CAA {

const char* const CaaMsg::MSG_FILE_NAME = "caa_ui";
const char* const CaaMsg::MSG_FILE_LOC = "%N.cat";
const char* const CaaMsg::CAAMSG_UNKNOWN = "The CAA message catalog entry is missing.";

CaaMsg::CaaMsg() : Messages(MSG_FILE_NAME, 1, MSG_FILE_LOC), log_flag(0) {}
CaaMsg::CaaMsg(const char* name) : Messages(name, 1, MSG_FILE_LOC), log_flag(0) {}
CaaMsg::CaaMsg(const char* name, int set) : Messages(name, set, MSG_FILE_LOC), log_flag(0) {}
CaaMsg::~CaaMsg() = default;

void CaaMsg::display(int where) {
  std::FILE* out = where == 1 ? stdout : stderr;
  std::fprintf(out, "%s\n", msgstr.c_str());
}

void CaaMsg::getString(char* str, const int& msg_num) { text(str, msg_num, CAAMSG_UNKNOWN, 0); }

void CaaMsg::getStringnofmt(char* str, const int& msg_num) { textnofmt(str, msg_num, CAAMSG_UNKNOWN, 0); }

}  // namespace CAA
