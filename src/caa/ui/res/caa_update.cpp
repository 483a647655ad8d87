// The update of a stored profile: load it, take over only what the command line really gave
// (a value behind its tag, or a sub-option of "-o"), validate, write it back in place, and tell
// the cluster. No backup, no action script, no "-f": the defaults of the type never overwrite a
// stored value, which is what sets an update apart from a create.
#include <cstdio>

#include "caa/lib/caa_File.h"
#include "caa/logger/caa_event.h"
#include "caa/logger/caa_logger.h"
#include "caa/profiler/caa_profile.h"
#include "caa/ui/res/caa_cmdprof.h"
#include "caa/ui/res/caa_proflock.h"

namespace CAA {

void CmdProf::postProfileEvent(const char* name, const std::string& resource) {
  EvmEvent_t event = nullptr;
  EvmStatus_t status = EvmEventCreateVa(&event, EvmITEM_NAME, name, EvmITEM_CLUSTER_EVENT, 1, EvmITEM_VAR_STRING,
                                        "_name", resource.c_str(), EvmITEM_NONE);
  if (status != EvmERROR_NONE) {
    char text[100] = "";
    EvmStatusTextGet(status, text, sizeof text);
    std::fprintf(stderr, "Failed to create event '%s'\nError: %s\nEvm log has failed.\n", name, text);
    std::fflush(stderr);
    if (event != nullptr) EvmEventDestroy(event);
    return;
  }
  caa_logger->log(name, event);
  EvmEventDestroy(event);
}

caa_Status CmdProf::updateProfile(CmdParse& cmdparse) {
  caa_Status ret = caa_SUCCESS;
  std::string namestr = argValue(caa_NAME);
  if (checkResourceName(namestr) != caa_SUCCESS) return caa_WARNING;

  // The second scan: no "-f" and no "-t"; the type is the stored profile's.
  clearArgList(arg_list);
  arg_list.push_back(new caaTag(1, NOT_ENTERED, tag_update, caa_NONE));
  arg_list.push_back(new caaTagValue(1, NOT_ENTERED_NEEDED, tag_dir, caa_NONE));
  arg_list.push_back(new caaTag(1, NOT_ENTERED_NEEDED, tag_quiet, caa_NONE));
  arg_list.push_back(new caaTagValue(1, NOT_ENTERED_NEEDED, tag_option, caa_PROF_OPTIONAL));
  arg_list.push_back(new caaValue(1, NOT_ENTERED, caa_NAME));

  // From the read to the event, no other change of this profile comes between.
  std::unique_ptr<ProfileLock> lock = lockProfile(namestr);
  if (!lock) return caa_WARNING;
  CaaFile profile;
  prepareProfile(namestr, profile);
  string_Map paramMap;
  try {
    Profile::loadProfile(profile.getName(), paramMap);
  } catch (const X_PROF_InvalidFile&) {
    caa_logger->log(LOG_STDERR, 181, profile.getName().c_str());
    ret = caa_WARNING;
  } catch (const X_PROF_SyntaxError& e) {
    std::printf("%s\n", e.what().c_str());
    std::fflush(stdout);
    ret = caa_WARNING;
  }
  if (ret == caa_SUCCESS) ret = scanTypeOptions(paramMap[caa_TYPE], cmdparse);
  if (ret != caa_SUCCESS) return ret;

  for (caaArg* arg : arg_list) {
    const std::string& key = arg->showArgKey();
    if (arg->showStatus() != ENTERED) continue;
    if (key == caa_NONE || key == caa_BINARY || key == caa_NAME || key == caa_PROF_OPTIONAL || key == caa_TRASH)
      continue;
    paramMap[key] = arg->showArgValue();
  }

  bool fixup = true;
  bool tried = false;
  ret = saveProfile(paramMap, profile, fixup, true, true, &tried);
  // The event follows the write, also one that failed: the cluster learns that an update was tried.
  if (tried) postProfileEvent(EVENT_PROFILE_UPDATE, namestr);
  return ret;
}

}  // namespace CAA
