// Writing a template: a profile without a name, for a user to fill in and hand to "-create"
// with "-I". It comes from a stored profile or from the definition of a type, and never
// replaces a file that exists.
#include <cstdio>
#include <iterator>

#include "caa/lib/caa_File.h"
#include "caa/lib/caa_Path.h"
#include "caa/logger/caa_logger.h"
#include "caa/profiler/caa_profile.h"
#include "caa/ui/res/caa_cmdprof.h"
#include "platform/ptu/ptu.h"

namespace CAA {

namespace {

// A template never replaces a file, also not one that appears while it is being made.
caa_Status writeTemplate(string_Map& paramMap, const CaaFile& outfile, CaaLogger* logger) {
  // What an earlier run killed while writing this same file left beside it goes first.
  std::string name = outfile.getName();
  std::size_t slash = name.rfind('/');
  std::string base = slash == std::string::npos ? name : name.substr(slash + 1);
  ptu_removeStaleTemps(slash == std::string::npos ? "." : name.substr(0, slash + 1),
                       [&base](const std::string& b) { return b == base; });
  return writeProfileFile(paramMap, outfile.getName(), false, true, logger);
}

}  // namespace

caa_Status CmdProf::resourceTProfile() {
  std::string name_str, output_str;
  int output_flag = 0;
  for (caaArg* arg : arg_list) {
    if (arg->showArgKey() == caa_NAME) name_str = arg->showArgValue();
    if (arg->showArgKey() == caa_OUTPUT && arg->showStatus() == ENTERED) {
      output_flag = 1;
      output_str = arg->showArgValue();
    }
  }
  if (checkResourceName(name_str) != caa_SUCCESS) return caa_WARNING;
  CaaFile infile;
  prepareProfile(name_str, infile);
  CaaFile outfile(output_flag == 1 ? output_str : Path::local_template_file);
  if (outfile.exists()) {
    caa_logger->log(LOG_STDERR, 162, outfile.getName().c_str());
    return caa_WARNING;
  }
  string_Map paramMap;
  try {
    Profile::loadProfile(infile.getName(), paramMap);
  } catch (const X_PROF_InvalidFile&) {
    caa_logger->log(LOG_STDERR, 181, infile.getName().c_str());
    return caa_WARNING;
  } catch (const X_PROF_SyntaxError& e) {
    std::printf("%s\n", e.what().c_str());
    std::fflush(stdout);
    return caa_WARNING;
  }
  // What names this one resource goes; everything else stays as a starting point.
  paramMap[caa_NAME] = "";
  paramMap["DESCRIPTION"] = "";
  if (paramMap[caa_TYPE] == RESOURCE_TYPE_APPLICATION) paramMap[caa_ACTION_SCRIPT] = "";
  return writeTemplate(paramMap, outfile, caa_logger);
}

caa_Status CmdProf::typeTProfile() {
  std::string type_str;
  CaaFile outfile(Path::local_template_file);
  for (caaArg* arg : arg_list) {
    if (arg->showArgKey() == caa_TYPE) type_str = arg->showArgValue();
    if (arg->showArgKey() == caa_OUTPUT && arg->showStatus() == ENTERED) outfile = CaaFile(arg->showArgValue());
  }
  clearArgList(arg_list);
  caa_Status ret = initParams(type_str);
  if (ret != caa_SUCCESS) return ret;
  auto before_last = arg_list.empty() ? arg_list.end() : std::prev(arg_list.end());
  arg_list.splice(before_last, opt_list);

  // The options hold the type's defaults, as no command line has been scanned into them.
  string_Map paramMap;
  for (caaArg* arg : arg_list) {
    const std::string& key = arg->showArgKey();
    if (key == caa_NONE || key == caa_OUTPUT || key == caa_TRASH || key == caa_BINARY) continue;
    paramMap[key] = arg->showArgValue();
  }
  paramMap[caa_NAME] = "";
  paramMap[caa_TYPE] = type_str;
  if (outfile.exists()) {
    caa_logger->log(LOG_STDERR, 162, outfile.getName().c_str());
    return caa_WARNING;
  }
  return writeTemplate(paramMap, outfile, caa_logger);
}

}  // namespace CAA
