#ifndef CAA_LIB_MESSAGES_H
#define CAA_LIB_MESSAGES_H

// Numbered messages of the catalog. A message comes out as "VYN-0162: text\n"; the text may
// hold printf directives that the caller fills in.
namespace CAA {

// Buffers of message texts hold this many bytes; longer texts are cut.
const int MSG_BUF_LEN = 2048;

// The catalog text of a message of a facility (fewer than 8 characters), in a language (null:
// the environment's). 0 on success, -1 when there is no such text. pSeverity may be null.
int zelgetmsg(const char* facility_name, int mesg_no, char* msgbuf, int msglen, int* pSeverity,
              const char* pLang);

class Messages {
 public:
  Messages(const char* filename, int set, const char* location);
  Messages(const Messages&) = delete;
  Messages& operator=(const Messages&) = delete;
  ~Messages();

  // "VYN-%04d: text\n" into msgbuf (MSG_BUF_LEN bytes). 0, or -1 with "Message not found".
  int text(char* msgbuf, int msg_arg, const char* fallback_text_arg, int set_arg);
  // The catalog text alone. 0, or -1 with "Message not found".
  int textnofmt(char* msgbuf, int msg_arg, const char* fallback_text_arg, int set_arg);

 private:
  char* cxxl_filename;
  [[maybe_unused]] int cxxl_set;
  char* cxxl_default_file_location;
};

}  // namespace CAA

#endif
