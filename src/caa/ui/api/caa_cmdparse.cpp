#include "caa/ui/api/caa_cmdparse.h"

#include <cstring>

namespace CAA {

CmdParse::CmdParse(int argc_, char** argv_, CaaLogger* logger)
    : argc(argc_ - 1), aItr(0), argv(argv_), pname(argc_ > 0 && argv_[0] != nullptr ? argv_[0] : ""), caa_logger(logger) {}

void CmdParse::initArgs(arg_List& arg_list) {
  if (arg_list.empty()) return;
  int group_size = arg_list.back()->showArgID();
  for (int group = 1; group <= group_size; ++group) {
    while (iterate()) cmdSearch(getTag(), arg_list, group);
    reset();
  }
}

void CmdParse::cmdSearch(char* arg_str, arg_List& arg_list, const int& group_id) {
  bool group_lock = false;
  std::string token = arg_str;
  for (caaArg* arg : arg_list) {
    if (arg->showArgID() != group_id || group_lock || !arg->find(token)) continue;
    if (paramProc(arg) != caa_FAILURE) group_lock = true;
  }
}

bool CmdParse::helpOption() const {
  for (int i = 1; i <= argc; ++i)
    if (std::strcmp(argv[i], "-h") == 0) return true;
  return false;
}

}  // namespace CAA
