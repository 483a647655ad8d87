// Creating a profile: from the options of the command line (with the action script made from
// a program when "-B" names one), or from a template file ("-I"). Both refuse to replace an
// existing profile without "-f", and with it renew the profile's backup first. The profile
// itself is written last, so a failure anywhere before leaves the old one as it was.
#include <cstdio>

#include "caa/lib/caa_File.h"
#include "caa/lib/caa_Path.h"
#include "caa/logger/caa_logger.h"
#include "caa/profiler/caa_profile.h"
#include "caa/ui/res/caa_ascript.h"
#include "caa/ui/res/caa_cmdprof.h"
#include "caa/ui/res/caa_proflock.h"
#include "platform/osl/osl.h"
#include "platform/ptu/ptu.h"

namespace CAA {

namespace {

const char* const FIL_FAILURE = "FIL failure while generating the name of the profile file";


}  // namespace

caa_Status CmdProf::prepareNewProfile(const std::string& namestr, CaaFile& profile) {
  prepareProfile(namestr, profile);
  if (profile.getName().empty()) {
    caa_logger->log(LOG_STDERR, FIL_FAILURE);
    return caa_WARNING;
  }
  if (profile.exists()) {
    if (!force_mode) {
      caa_logger->log(LOG_STDERR, 162, profile.getName().c_str());
      return caa_WARNING;
    }
    // One backup, the latest: it replaces an earlier one. The directory is synced once, when the
    // profile is replaced in it: the backup's rename comes first, so it is lasting before the
    // profile's can be. Should the create stop before that, the profile stands unchanged and an
    // older backup is all a crash could bring back.
    if (!profile.createBackup(Path::BACKUP_EXT, false)) {
      caa_logger->log(LOG_STDERR, 168);
      return caa_WARNING;
    }
  }
  return caa_SUCCESS;
}

caa_Status CmdProf::createActionScript(std::string& ascript_fname, std::string& ascript_ext, std::string& resname,
                                       std::string& bname) {
  CaaScript script(ascript_fname.c_str(), ascript_ext.c_str(), bname.c_str(), force_mode, caa_logger,
                   scr_dir_path.c_str());
  return script.createActionScript(resname);
}

caa_Status CmdProf::removeActionScript(std::string& ascript_fname, std::string& ascript_ext) {
  if (ascript_fname.empty()) return caa_SUCCESS;
  CaaFile script(scr_dir_path, ascript_fname, ascript_ext, caa_logger);
  if (script.exists() && !script.remove()) {
    caa_logger->log(LOG_STDERR, 169, script.getName().c_str());
    return caa_WARNING;
  }
  return caa_SUCCESS;
}

caa_Status CmdProf::createProfile(CmdParse& cmdparse) {
  caa_Status ret = caa_SUCCESS;
  const std::string caa_DESCRIPTION = "DESCRIPTION";
  CaaFile profile;
  std::string namestr = argValue(caa_NAME);
  std::string typestr = argValue(caa_TYPE);
  std::string binary_str, action_script_str, action_script_fname, action_script_ext;
  string_Map paramMap;
  bool as_created = false;

  if (namestr.size() > static_cast<std::size_t>(CAA_RESOURCE_MAXNAMELEN)) {
    caa_logger->log(LOG_STDERR, CMD_RES_TOO_LONG, namestr.c_str());
    return caa_WARNING;
  }
  if (checkResourceName(namestr) != caa_SUCCESS) return caa_WARNING;

  // The second scan: the fixed tags again, now without the work they did in the first scan,
  // and the options of the type.
  clearArgList(arg_list);
  arg_list.push_back(new caaTag(1, NOT_ENTERED, tag_create, caa_NONE));
  arg_list.push_back(new caaValue(1, NOT_ENTERED, caa_NAME));
  arg_list.push_back(new caaTagValue(1, NOT_ENTERED, tag_type, caa_TYPE));
  arg_list.push_back(new caaTagValue(1, NOT_ENTERED_NEEDED, tag_dir, caa_NONE));
  arg_list.push_back(new caaTag(1, NOT_ENTERED_NEEDED, tag_force, caa_NONE));
  arg_list.push_back(new caaTag(1, NOT_ENTERED_NEEDED, tag_quiet, caa_NONE));
  arg_list.push_back(new caaTagValue(1, NOT_ENTERED_NEEDED, tag_option, caa_PROF_OPTIONAL));
  ret = scanTypeOptions(typestr, cmdparse);
  if (ret != caa_SUCCESS) return ret;
  binary_str = argValue(caa_BINARY);
  action_script_str = argValue(caa_ACTION_SCRIPT);

  for (caaArg* arg : arg_list) {
    const std::string& key = arg->showArgKey();
    if (key == caa_NONE || key == caa_BINARY || key == caa_PROF_OPTIONAL || key == caa_TRASH) continue;
    paramMap[key] = arg->showArgValue();
  }
  // A value the profile could not give back is refused before the backup or the script is made.
  if (checkValues(paramMap) != caa_SUCCESS) return caa_WARNING;
  std::unique_ptr<ProfileLock> lock = lockProfile(namestr);
  if (!lock) return caa_WARNING;
  if (prepareNewProfile(namestr, profile) != caa_SUCCESS) return caa_WARNING;

  if (action_script_str.empty()) {
    action_script_fname = namestr;
    action_script_ext = Path::SCRIPT_EXT;
  } else {
    char fname[Path::buf_len] = "", path[Path::buf_len] = "", ext[Path::buf_len] = "", ver[Path::buf_len] = "";
    osrec ose;
    if (Osfpfn(fname, path, ext, ver, action_script_str.c_str(), &ose, 0) != 0) {
      std::fputs(osrecFormat(ose).c_str(), stdout);
      std::fflush(stdout);
      fname[0] = path[0] = ext[0] = '\0';
    }
    action_script_fname = fname;
    action_script_ext = ext;
    // A script named with a directory is made there, whatever the working directory is.
    if (path[0] != '\0') scr_dir_path = path;
  }

  paramMap[caa_TYPE] = typestr;

  char as_path[Path::buf_len];
  if (!binary_str.empty()) {
    ret = createActionScript(action_script_fname, action_script_ext, namestr, binary_str);
    int rc = ptu_getFile(as_path, sizeof as_path, scr_dir_path.c_str(), action_script_fname.c_str(),
                         action_script_ext.c_str());
    if (ret == caa_SUCCESS && rc == 0) {
      paramMap[caa_ACTION_SCRIPT] = as_path;
      as_created = true;
    } else {
      // The profile is still written if it is valid; the status tells the script failed.
      ret = caa_WARNING;
    }
  }
  if (paramMap[caa_DESCRIPTION].empty()) paramMap[caa_DESCRIPTION] = namestr;
  if (paramMap[caa_TYPE] == RESOURCE_TYPE_APPLICATION && paramMap[caa_ACTION_SCRIPT].empty()) {
    // The script need not exist yet: the profile names where it is expected.
    bool fits = ptu_getFile(as_path, sizeof as_path, scr_dir_path.c_str(), namestr.c_str(), Path::SCRIPT_EXT) == 0;
    paramMap[caa_ACTION_SCRIPT] = fits ? as_path : "";
  }

  // Without "-f" the profile is made only if no file has its name, whoever else is at work.
  if (saveProfile(paramMap, profile, true, true, force_mode) != caa_SUCCESS) ret = caa_WARNING;
  if (ret == caa_WARNING && as_created) removeActionScript(action_script_fname, action_script_ext);
  return ret;
}

caa_Status CmdProf::inputProfile() {
  CaaFile profile;
  std::string namestr = argValue(caa_NAME);
  std::string inputstr = argValue(caa_INPUT);
  string_Map paramMap;

  if (checkResourceName(namestr) != caa_SUCCESS) return caa_WARNING;
  std::unique_ptr<ProfileLock> lock = lockProfile(namestr);
  if (!lock) return caa_WARNING;
  if (prepareNewProfile(namestr, profile) != caa_SUCCESS) return caa_WARNING;
  int rooted = 0;
  osrec ose;
  if (osl_path_is_rooted(&ose, 0, inputstr.c_str(), &rooted) != 0) {
    caa_logger->log(LOG_STDERR, 168);
    return caa_WARNING;
  }
  // A relative template is looked for below the bin directory of the home.
  if (!rooted) inputstr = Path::binary_path + inputstr;
  try {
    Profile::loadProfile(inputstr, paramMap);
  } catch (const X_PROF_InvalidFile&) {
    caa_logger->log(LOG_STDERR, 185, inputstr.c_str());
    return caa_WARNING;
  } catch (const X_PROF_SyntaxError& e) {
    std::printf("%s\n", e.what().c_str());
    std::fflush(stdout);
    return caa_WARNING;
  }
  paramMap[caa_NAME] = namestr;
  paramMap[caa_ACTION_SCRIPT] = namestr + Path::SCRIPT_EXT;
  if (paramMap["DESCRIPTION"].empty()) paramMap["DESCRIPTION"] = namestr;

  // A template's values are the user's own text: they are checked, not mended, and a broken rule
  // is told by the rules alone.
  return saveProfile(paramMap, profile, false, false, force_mode);
}

}  // namespace CAA
