#ifndef CAA_UI_RES_CAA_ASCRIPT_H
#define CAA_UI_RES_CAA_ASCRIPT_H

// One job of making an application's action script. The command does not write scripts
// itself: it runs the script template with the verb "clone", and the template writes a script
// for the program named. Keeping the script's text out of the program lets an administrator
// change what every new script does by editing one file.
#include <string>

#include "caa/lib/caa_File.h"
#include "caa/lib/caa_types.h"
#include "platform/osl/osl.h"

namespace CAA {

class CaaLogger;

class CaaScript {
 public:
  // The script is dir_path/fname.ext (dir_path null: the directory of scripts); bname is the
  // program it will run. dual: an existing script may be handed to the template to replace.
  CaaScript(const char* fname, const char* ext, const char* bname, bool& dual, CaaLogger* logger,
            const char* dir_path);
  CaaScript(const CaaScript&) = delete;
  CaaScript& operator=(const CaaScript&) = delete;
  virtual ~CaaScript();

  // Runs "<template> clone <res_name> <program> <script path>" and waits for it. caa_SUCCESS
  // when it exits 0; otherwise caa_WARNING after saying why on standard error.
  caa_Status createActionScript(const std::string& res_name);
  std::string scriptPath() const { return action_script.getName(); }

  // A script path may hold this many characters.
  static const std::size_t PATH_MAXLEN = 512;

 private:
  bool dual_flag;
  std::string scr_dir_path;
  oslctx* osl_ctx;  // the process's context, which the OS layer keeps
  osl_process_handle* prochdl;
  std::string app_name;
  std::string app_path;
  CaaFile action_script;
  CaaLogger* caa_logger;
};

}  // namespace CAA

#endif
