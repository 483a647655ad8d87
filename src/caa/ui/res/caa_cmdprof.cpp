#include "caa/ui/res/caa_cmdprof.h"

#include <fcntl.h>

#include <cstdio>

#include "caa/lib/caa_File.h"
#include "caa/lib/caa_Path.h"
#include "caa/logger/caa_logger.h"
#include "caa/profiler/caa_profile.h"
#include "caa/ui/res/caa_proflock.h"
#include "platform/ptu/ptu.h"

namespace CAA {

const std::string CmdProf::COMMENT_CHAR = "#";
const std::string CmdProf::RESOURCE_TYPE_APPLICATION = "application";
const std::string CmdProf::tag_option = "-o";
const std::string CmdProf::tag_type = "-t";
const std::string CmdProf::tag_dir = "-dir";
const std::string CmdProf::tag_device = "-n";
const std::string CmdProf::tag_create = "-create";
const std::string CmdProf::tag_delete = "-delete";
const std::string CmdProf::tag_print = "-print";
const std::string CmdProf::tag_template = "-template";
const std::string CmdProf::tag_update = "-update";
const std::string CmdProf::tag_validate = "-validate";
const std::string CmdProf::tag_register_update = "-update";

const char* const CmdProf::PROF_USAGE =
    "Usage:  vyn_profile -create resource_name -t application\n"
    "          [-dir directory_path] [-a action_script] [-B binary_pathname]\n"
    "          [-d description] [-h hosting_members] [-r required_resources]\n"
    "          [-l optional_resources] [-p placement_policy]\n"
    "          [-o as=auto_start,ci=check_interval,ft=failure_threshold,\n"
    "          fi=failure_interval,ra=restart_attempts,fd=failover_delay,\n"
    "          st=script_timeout,ap=active_placement,\n"
    "          ut=uptime_threshold,rt=start_timeout,pt=stop_timeout] [-f] [-q]\n"
    "\n"
    "        vyn_profile -create resource_name -I template_file [-dir directory_path] [-f] [-q]\n"
    "\n"
    "        vyn_profile -delete resource_name [-dir directory_path] [-q]\n"
    "\n"
    "        vyn_profile -print [resource_name [...]] [-dir directory_path] [-q]\n"
    "\n"
    "        vyn_profile -template resource_name [-dir directory_path] [-O template_file]\n"
    "\n"
    "        vyn_profile -template -t application [-O template_file]\n"
    "\n"
    "        vyn_profile -update resource_name [-dir directory_path] [option ...] [-o option,...] [-q]\n"
    "\n"
    "        vyn_profile -validate resource_name [-dir directory_path] [-q]";

CmdProf::CmdProf(CaaLogger* logger) : Cmds(logger), scan_level_two(false) { initArgs(); }

CmdProf::~CmdProf() {
  clearArgList(arg_list);
  clearArgList(opt_list);
}

void CmdProf::initArgs() {
  initUsage1();
  initUsage2();
  initUsage3();
  initUsage4();
  initUsage5();
  initUsage6();
  initUsage7();
  initUsage8();
}

void CmdProf::initUsage1() {
  const int g = PROF_CREATE;
  arg_list.push_back(new caaTag(g, NOT_ENTERED, tag_create, caa_NONE));
  arg_list.push_back(new caaValue(g, NOT_ENTERED, caa_NAME));
  arg_list.push_back(new caaTagValue(g, NOT_ENTERED, tag_type, caa_TYPE));
  arg_list.push_back(new caaTagValue(g, NOT_ENTERED_NEEDED, tag_dir, caa_DIR));
  arg_list.push_back(new caaTag(g, NOT_ENTERED_NEEDED, tag_force, caa_FORCE));
  arg_list.push_back(new caaTag(g, NOT_ENTERED_NEEDED, tag_quiet, caa_QUIET));
  arg_list.push_back(new caaTrash(g, caa_NON_TRASH));
}

void CmdProf::initUsage2() {
  const int g = PROF_FILE_CREATE;
  arg_list.push_back(new caaTag(g, NOT_ENTERED, tag_create, caa_NONE));
  arg_list.push_back(new caaValue(g, NOT_ENTERED, caa_NAME));
  arg_list.push_back(new caaTagValue(g, NOT_ENTERED, "-I", caa_INPUT));
  arg_list.push_back(new caaTagValue(g, NOT_ENTERED_NEEDED, tag_dir, caa_DIR));
  arg_list.push_back(new caaTag(g, NOT_ENTERED_NEEDED, tag_force, caa_FORCE));
  arg_list.push_back(new caaTag(g, NOT_ENTERED_NEEDED, tag_quiet, caa_QUIET));
  arg_list.push_back(new caaTrash(g, caa_TRASH));
}

void CmdProf::initUsage3() {
  const int g = PROF_DELETE;
  arg_list.push_back(new caaTag(g, NOT_ENTERED, tag_delete, caa_NONE));
  arg_list.push_back(new caaValue(g, NOT_ENTERED, caa_RESOURCE));
  arg_list.push_back(new caaTagValue(g, NOT_ENTERED_NEEDED, tag_dir, caa_DIR));
  arg_list.push_back(new caaTag(g, NOT_ENTERED_NEEDED, tag_quiet, caa_QUIET));
  arg_list.push_back(new caaTrash(g, caa_TRASH));
}

void CmdProf::initUsage4() {
  const int g = PROF_LIST;
  arg_list.push_back(new caaTag(g, NOT_ENTERED, tag_print, caa_NONE));
  arg_list.push_back(new caaList(g, NOT_ENTERED_NEEDED, caa_RESOURCE));
  arg_list.push_back(new caaTagValue(g, NOT_ENTERED_NEEDED, tag_dir, caa_DIR));
  arg_list.push_back(new caaTag(g, NOT_ENTERED_NEEDED, tag_quiet, caa_QUIET));
  arg_list.push_back(new caaTrash(g, caa_TRASH));
}

void CmdProf::initUsage5() {
  const int g = PROF_TEMPLATE;
  arg_list.push_back(new caaTag(g, NOT_ENTERED, tag_template, caa_NONE));
  arg_list.push_back(new caaValue(g, NOT_ENTERED, caa_NAME));
  arg_list.push_back(new caaTagValue(g, NOT_ENTERED_NEEDED, tag_dir, caa_DIR));
  arg_list.push_back(new caaTagValue(g, NOT_ENTERED_NEEDED, "-O", caa_OUTPUT));
  arg_list.push_back(new caaTrash(g, caa_TRASH));
}

void CmdProf::initUsage6() {
  const int g = PROF_TYPE_TEMPLATE;
  arg_list.push_back(new caaTag(g, NOT_ENTERED, tag_template, caa_NONE));
  arg_list.push_back(new caaTagValue(g, NOT_ENTERED, tag_type, caa_TYPE));
  arg_list.push_back(new caaTagValue(g, NOT_ENTERED_NEEDED, "-O", caa_OUTPUT));
  arg_list.push_back(new caaTrash(g, caa_TRASH));
}

void CmdProf::initUsage7() {
  const int g = PROF_UPDATE;
  arg_list.push_back(new caaTag(g, NOT_ENTERED, tag_update, caa_NONE));
  arg_list.push_back(new caaValue(g, NOT_ENTERED_NEEDED, caa_NAME));
  arg_list.push_back(new caaTagValue(g, NOT_ENTERED_NEEDED, tag_dir, caa_DIR));
  arg_list.push_back(new caaTag(g, NOT_ENTERED_NEEDED, tag_quiet, caa_QUIET));
  arg_list.push_back(new caaTrash(g, caa_NON_TRASH));
}

void CmdProf::initUsage8() {
  const int g = PROF_VALIDATE;
  arg_list.push_back(new caaTag(g, NOT_ENTERED, tag_validate, caa_NONE));
  arg_list.push_back(new caaValue(g, NOT_ENTERED_NEEDED, caa_NAME));
  arg_list.push_back(new caaTagValue(g, NOT_ENTERED_NEEDED, tag_dir, caa_DIR));
  arg_list.push_back(new caaTag(g, NOT_ENTERED_NEEDED, tag_quiet, caa_QUIET));
  arg_list.push_back(new caaTrash(g, caa_TRASH));
}

caa_Status CmdProf::procArgs(CmdParse& cmdparse) {
  cmdparse.initArgs(arg_list);
  caa_Status ret = scanArgs(arg_list);
  // Quiet mode takes effect whatever the verdict, so that a failing quiet command stays quiet.
  setQuietMode();
  if (ret != caa_SUCCESS) return ret;
  removeExtraArgs();
  switch (group_id) {
    case PROF_CREATE: return createProfile(cmdparse);
    case PROF_FILE_CREATE: return inputProfile();
    case PROF_DELETE: return deleteProfile();
    case PROF_LIST: return listProfile();
    case PROF_TEMPLATE: return resourceTProfile();
    case PROF_TYPE_TEMPLATE: return typeTProfile();
    case PROF_UPDATE: return updateProfile(cmdparse);
    case PROF_VALIDATE: return validateProfile();
    default: return caa_FAILURE;
  }
}

caa_Status CmdProf::scanArgs(arg_List& local_list) {
  int misses = 0;
  int complete = 0;
  for (caaArg* arg : local_list) {
    arg_Status stat = arg->showStatus();
    const std::string& key = arg->showArgKey();
    if (stat == NOT_ENTERED || (stat == UNKNOWN_ENTERED && key != caa_NON_TRASH)) {
      if (scan_level_two) caa_logger->log(LOG_STDERR, 160, arg->showArgValue().c_str());
      ++misses;
    }
    if (key == caa_QUIET && stat == ENTERED) quiet_mode = true;
    if (key == caa_FORCE && stat == ENTERED) force_mode = true;
    if (key == caa_DIR) {
      caa_Status rc = processDirArg(arg, dir_path, scr_dir_path);
      if (rc != caa_SUCCESS) return rc;
    }
    if (key == caa_TRASH || key == caa_NON_TRASH) {
      if (misses == 0) {
        group_id = arg->showArgID();
        ++complete;
      }
      misses = 0;
    }
  }
  if (complete == 1) return caa_SUCCESS;
  return scan_level_two ? caa_WARNING : caa_FAILURE;
}

void CmdProf::removeExtraArgs() {
  for (auto it = arg_list.begin(); it != arg_list.end();) {
    if ((*it)->showArgID() == group_id) {
      (*it)->setArgID(1);
      ++it;
    } else {
      delete *it;
      it = arg_list.erase(it);
    }
  }
}

void CmdProf::clearArgList(arg_List& arg_l) {
  for (caaArg* arg : arg_l) delete arg;
  arg_l.clear();
}

void CmdProf::prepareProfile(const std::string& namestr, CaaFile& profile) {
  profile = CaaFile(dir_path, namestr, Path::PROFILE_EXT, caa_logger);
}

caa_Status CmdProf::openProfile(int& pfd, CaaFile& caa_file) {
  // A FIFO put where a profile belongs must not hold the command up.
  pfd = caa_file.openFile(O_RDONLY | O_NONBLOCK, 0666);
  return pfd < 0 ? caa_WARNING : caa_SUCCESS;
}

caa_Status CmdProf::checkResourceName(const std::string& name) {
  if (name.find('/') == std::string::npos) return caa_SUCCESS;
  caa_logger->log(LOG_STDERR, CMD_RES_BAD_NAME, name.c_str());
  return caa_WARNING;
}

caa_Status CmdProf::checkValues(const string_Map& values) {
  caa_Status ret = caa_SUCCESS;
  for (const auto& entry : values) {
    const char* name = entry.first.c_str();
    switch (Profile::entryFault(entry.first, entry.second)) {
      case ENTRY_LINE_BREAK:
        caa_logger->log(LOG_STDERR, CMD_VALUE_LINE_BREAK, name);
        break;
      case ENTRY_TOO_LONG:
        caa_logger->log(LOG_STDERR, CMD_VALUE_TOO_LONG, name, static_cast<int>(entry.second.size()),
                        static_cast<int>(Profile::valueRoom(entry.first)));
        break;
      case ENTRY_CONTINUED:
        caa_logger->log(LOG_STDERR, CMD_VALUE_CONTINUED, name);
        break;
      default:
        // A name that cannot be written comes from a type definition, not from the user; the
        // writer refuses it with its own text.
        continue;
    }
    ret = caa_WARNING;
  }
  return ret;
}

std::unique_ptr<ProfileLock> CmdProf::lockProfile(const std::string& name) {
  // The working directory may be one that other programs use too: only what a profile or its
  // backup was being written as is taken away.
  // One pass over the directory serves both sweeps: it may hold many thousands of profiles.
  auto profileOrBackup = [](const std::string& base) {
    auto endsWith = [&base](const std::string& ext) {
      std::string dotted = "." + ext;
      return base.size() > dotted.size() && base.compare(base.size() - dotted.size(), std::string::npos, dotted) == 0;
    };
    return endsWith(Path::PROFILE_EXT) || endsWith(Path::BACKUP_EXT);
  };
  ptu_scanDir(dir_path, [&profileOrBackup](int dfd, const char* entry) {
    if (!ptu_removeStaleTemp(dfd, entry, profileOrBackup)) ProfileLock::removeStaleEntry(dfd, entry);
  });
  try {
    return std::unique_ptr<ProfileLock>(new ProfileLock(dir_path, name));
  } catch (const X_LOCK_Busy&) {
    CaaFile profile;
    prepareProfile(name, profile);
    caa_logger->log(LOG_STDERR, CMD_PROFILE_BUSY, profile.getName().c_str());
  } catch (const X_LOCK& e) {
    caa_logger->log(LOG_STDERR, CMD_PROFILE_NO_LOCK, e.what().c_str());
  }
  return nullptr;
}

caa_Status CmdProf::saveProfile(string_Map& paramMap, const CaaFile& profile, bool fixup, bool report_invalid,
                                bool overwrite, bool* tried) {
  if (tried != nullptr) *tried = false;
  if (checkValues(paramMap) != caa_SUCCESS) return caa_WARNING;
  // The map's type is the one whose options were read for this run: its definition is at hand.
  const AttrMap* amap = typeDefinition(paramMap[caa_TYPE]);
  if (!Profile::validateProfile(paramMap, fixup, amap)) {
    if (report_invalid) caa_logger->log(LOG_STDERR, 180, profile.getName().c_str());
    return caa_WARNING;
  }
  // The writer checks the map once more as it writes it, mended and completed from the type.
  if (tried != nullptr) *tried = true;
  return writeProfileFile(paramMap, profile.getName(), overwrite, false, caa_logger, amap);
}

const AttrMap* CmdProf::typeDefinition(const std::string& type) const {
  return tdf_read && type == tdf_type ? &tdf_attrs : nullptr;
}

caa_Status writeProfileFile(string_Map& paramMap, const std::string& name, bool overwrite, bool isTemplate,
                            CaaLogger* logger, const AttrMap* amap) {
  try {
    Profile::createProfile(paramMap, name, overwrite, isTemplate, amap);
  } catch (const X_PROF_Exists&) {
    logger->log(LOG_STDERR, 162, name.c_str());
    return caa_WARNING;
  } catch (const X_PROF& e) {
    std::printf("%s\n", e.what().c_str());
    std::fflush(stdout);
    return caa_WARNING;
  }
  return caa_SUCCESS;
}

void CmdProf::showUsage() {
  if (quiet_mode) {
    caa_logger->log(LOG_STDERR, 173);
    return;
  }
  showDeprecatedMessage("vynctl <add|modify> resource");
  std::printf("%s\n", PROF_USAGE);
  std::fflush(stdout);
}

}  // namespace CAA
