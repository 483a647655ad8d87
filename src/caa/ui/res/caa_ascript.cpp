#include "caa/ui/res/caa_ascript.h"

#include <cstdio>
#include <new>
#include <sstream>

#include "caa/lib/caa_Path.h"
#include "caa/logger/caa_logger.h"
#include "cppgen/clsLog.h"

namespace CAA {

CaaScript::CaaScript(const char* fname, const char* ext, const char* bname, bool& dual, CaaLogger* logger,
                     const char* dir_path)
    : dual_flag(dual),
      scr_dir_path(dir_path != nullptr ? dir_path : Path::script_path),
      osl_ctx(osl_process_ctx()),
      prochdl(new (std::nothrow) osl_process_handle{0}),
      app_path(bname != nullptr ? bname : ""),
      action_script(scr_dir_path, fname != nullptr ? fname : "", ext != nullptr ? ext : ""),
      caa_logger(logger) {}

CaaScript::~CaaScript() { delete prochdl; }

namespace {

// A script that could not be made is told on standard error and kept in the trace.
caa_Status scriptFailed(const std::string& line) {
  static const CLS_Debug::CLSlog* s_dbug = new CLS_Debug::CLSlog("VYNSCR");
  std::fputs(line.c_str(), stderr);
  std::fflush(stderr);
  std::ostringstream os;
  os << " " << line.substr(0, line.size() - 1);
  s_dbug->error(os, CLS_Debug::FUNC_FAIL, CLS_Debug::CLSlogModule::getModuleNone());
  return caa_WARNING;
}

caa_Status spawnFailed(const char* what, const osrec& ose) {
  return scriptFailed(std::string(what) + ose.opname_osrec + "," + ose.location_osrec + "," + ose.otherinfo_osrec +
                      "\n");
}

}  // namespace

caa_Status CaaScript::createActionScript(const std::string& res_name) {
  std::string path = action_script.getName();
  if (action_script.exists() && !dual_flag) {
    char text[MSG_BUF_LEN];
    caa_logger->getString(text, 162);
    caa_logger->log(LOG_STDERR, text, path.c_str());
    return caa_WARNING;
  }
  if (path.size() > PATH_MAXLEN) {
    return scriptFailed("Action script file path is too long.\n");
  }
  osrec ose = {};
  if (osl_ctx == nullptr || prochdl == nullptr) {
    std::snprintf(ose.opname_osrec, sizeof ose.opname_osrec, "osl_process_spawn");
    std::snprintf(ose.otherinfo_osrec, sizeof ose.otherinfo_osrec, "no process context");
    return spawnFailed("osl_process_spawn failed, ", ose);
  }
  // The template sees the usual argument vector: its own path, then "clone" and the three
  // arguments of the verb.
  std::string program = Path::template_file;
  std::string verb = "clone";
  std::string resource = res_name;
  std::string binary = app_path;
  char* argv[] = {&program[0], &verb[0], &resource[0], &binary[0], &path[0]};
  if (osl_process_spawn(osl_ctx, &ose, 0, program.c_str(), 5, argv, prochdl) != 0)
    return spawnFailed("osl_process_spawn failed, ", ose);
  int status = 0;
  if (osl_process_join(osl_ctx, &ose, prochdl, &status) != 0) return spawnFailed("osl_process_join failed, ", ose);
  if (status == 0) return caa_SUCCESS;
  return scriptFailed("Action script creation returned " + std::to_string(status) + "\n");
}

}  // namespace CAA
