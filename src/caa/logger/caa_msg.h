#ifndef CAA_LOGGER_CAA_MSG_H
#define CAA_LOGGER_CAA_MSG_H

// A message of the command's catalog held as text, ready to be shown.
#include <string>

#include "caa/lib/messages.h"

namespace CAA {

class CaaMsg : public Messages {
 public:
  static const char* const MSG_FILE_NAME;
  static const char* const MSG_FILE_LOC;
  static const char* const CAAMSG_UNKNOWN;

  CaaMsg();
  explicit CaaMsg(const char* name);
  CaaMsg(const char* name, int set);
  virtual ~CaaMsg();

  void clear() { msgstr.clear(); }
  // Writes the text and a newline to standard output (where == 1) or standard error.
  void display(int where);
  // "VYN-nnnn: text\n" into str (MSG_BUF_LEN bytes), or "Message not found".
  void getString(char* str, const int& msg_num);
  void getStringnofmt(char* str, const int& msg_num);

 protected:
  std::string msgstr;
  char log_flag;
};

}  // namespace CAA

#endif
