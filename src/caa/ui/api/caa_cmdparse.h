#ifndef CAA_UI_API_CAA_CMDPARSE_H
#define CAA_UI_API_CAA_CMDPARSE_H

// Walks the command line and offers each token to the argument objects. The whole line is read
// once per usage group, and every group sees every token; within a group the first object that
// wants a token and does not refuse it takes it.
#include <string>

#include "caa/ui/api/caa_args.h"

namespace CAA {

class CaaLogger;

class CmdParse {
 public:
  CmdParse(int argc, char** argv, CaaLogger* caa_logger);
  virtual ~CmdParse() = default;

  // Offers every token to every group, group 1 first. The list must not be empty and the object
  // with the highest group number must stand last.
  void initArgs(arg_List& arg_list);
  void cmdSearch(char* arg_str, arg_List& arg_list, const int& group_id);
  char* getTag() { return argv[aItr]; }
  caa_Status paramProc(caaArg* caa_arg) { return caa_arg->proc(aItr, argc, argv); }
  bool iterate() { return ++aItr <= argc; }
  void reset() { aItr = 0; }
  // True when "-h" stands anywhere on the line.
  bool helpOption() const;

 private:
  int argc;  // the index of the last token
  int aItr;  // the cursor; 0 before the first token
  char** argv;
  std::string pname;
  [[maybe_unused]] CaaLogger* caa_logger;
};

}  // namespace CAA

#endif
