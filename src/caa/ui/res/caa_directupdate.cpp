// The direct update: the changed attributes of a registered resource go to the
// resource-registration client, which changes the resource where the cluster keeps it, instead
// of rewriting a profile file. The options are those of an application, as for an update; only
// what the command line really gave is handed over.
#include <cstdio>
#include <cstring>

#include "caa/logger/caa_logger.h"
#include "caa/ui/res/caa_cmdprof.h"

namespace CAA {

void caaCmdProfMsg2Callback(void*, const zeltext*, const zeltext* pMsg, vynapi_msgtype) {
  const char* text = pMsg != nullptr ? reinterpret_cast<const char*>(pMsg) : "";
  std::size_t len = std::strlen(text);
  std::fputs(text, stdout);
  if (len == 0 || text[len - 1] != '\n') std::fputc('\n', stdout);
  std::fflush(stdout);
}

bool CmdProf::getArgValue(const arg_List& list, const std::string& key, std::string& value) {
  for (caaArg* arg : list) {
    if (arg->showArgKey() != key) continue;
    value = arg->showArgValue();
    return true;
  }
  return false;
}

void CmdProf::initDirectProfileUpdateUsage() {
  clearArgList(arg_list);
  const int g = PROF_UPDATEDIRECT;
  arg_list.push_back(new caaTag(g, NOT_ENTERED, tag_register_update, caa_NONE));
  arg_list.push_back(new caaValue(g, NOT_ENTERED_NEEDED, caa_NAME));
  arg_list.push_back(new caaTag(g, NOT_ENTERED_NEEDED, tag_quiet, caa_QUIET));
  arg_list.push_back(new caaTrash(g, caa_NON_TRASH));
}

void CmdProf::initDirectProfileUpdateParsingArgs() {
  clearArgList(arg_list);
  arg_list.push_back(new caaTag(1, NOT_ENTERED, tag_register_update, caa_NONE));
  arg_list.push_back(new caaValue(1, NOT_ENTERED_NEEDED, caa_NAME));
  arg_list.push_back(new caaTag(1, NOT_ENTERED_NEEDED, tag_quiet, caa_QUIET));
  arg_list.push_back(new caaTagValue(1, NOT_ENTERED_NEEDED, tag_option, caa_PROF_OPTIONAL));
}

caa_Status CmdProf::processDirectProfileUpdate(CmdParse& cmdParse) {
  initDirectProfileUpdateUsage();
  cmdParse.initArgs(arg_list);
  caa_Status ret = scanArgs(arg_list);
  if (ret != caa_SUCCESS) return ret;
  setQuietMode();
  if (group_id != PROF_UPDATEDIRECT) return caa_FAILURE;
  getArgValue(arg_list, caa_NAME, resourceName);

  // The second scan, with the options of an application.
  initDirectProfileUpdateParsingArgs();
  ret = initParams(RESOURCE_TYPE_APPLICATION);
  if (ret != caa_SUCCESS) return ret;
  cmdParse.initArgs(arg_list);
  ret = procOptArgs();
  if (ret != caa_SUCCESS) return ret;
  scan_level_two = true;
  ret = scanArgs(arg_list);
  if (ret != caa_SUCCESS) return ret;

  paramMap.clear();
  for (caaArg* arg : arg_list) {
    const std::string& key = arg->showArgKey();
    if (arg->showStatus() != ENTERED) continue;
    if (key == caa_NAME || key == caa_TRASH || key == caa_PROF_OPTIONAL || key == caa_NONE || key == caa_BINARY)
      continue;
    paramMap[key] = arg->showArgValue();
  }
  if (paramMap.empty()) {
    caa_logger->log(LOG_STDERR, CMD_INVALID);
    return caa_WARNING;
  }
  return performDirectProfileUpdate(resourceName, paramMap);
}

caa_Status CmdProf::performDirectProfileUpdate(const std::string& resName, const string_Map& attribs) {
  caa_Status ret = caa_FAILURE;
  vynapi_ctx* ctx = nullptr;
  vynapi_reslist* pResList = nullptr;
  vynapi_reslist* pStatusList = nullptr;
  vynapi_res* pRes = nullptr;
  bool listOwnsRes = false;

  VYNAPI_STAT stat = vynapi_init_vyn(&ctx);
  if (stat != VYNAPI_STAT_SUCCESS) {
    logApiError(stat);
    return ret;
  }
  bool built = vynapi_reslist_create(&pResList) == VYNAPI_STAT_SUCCESS &&
               vynapi_reslist_create(&pStatusList) == VYNAPI_STAT_SUCCESS &&
               vynapi_res_create(&pRes, resName.c_str()) == VYNAPI_STAT_SUCCESS;
  for (auto it = attribs.begin(); built && it != attribs.end(); ++it)
    built = vynapi_res_set_attr(pRes, it->first.c_str(), it->second.c_str()) == VYNAPI_STAT_SUCCESS;
  if (built) built = listOwnsRes = vynapi_reslist_append(pResList, pRes) == VYNAPI_STAT_SUCCESS;

  if (!built) {
    logApiError(VYNAPI_STAT_FAILURE);
  } else {
    stat = vynapi_register_resource2(pResList, VYNAPI_FLAG_UPDATE, caaCmdProfMsg2Callback, nullptr, pStatusList);
    if (stat == VYNAPI_STAT_SUCCESS) {
      ret = caa_SUCCESS;
    } else {
      vynapi_res* status = nullptr;
      const char* text = nullptr;
      if (vynapi_reslist_first(pStatusList, &status) == VYNAPI_STAT_SUCCESS &&
          vynapi_res_get_op_status(status, &text) == VYNAPI_STAT_SUCCESS && text != nullptr && !quiet_mode) {
        std::printf("\n%s\n", text);
        std::fflush(stdout);
      } else {
        logApiError(stat);
      }
    }
  }
  if (pResList != nullptr) vynapi_reslist_destroy(pResList);
  if (pStatusList != nullptr) vynapi_reslist_destroy(pStatusList);
  if (pRes != nullptr && !listOwnsRes) vynapi_res_destroy(pRes);
  vynapi_term_vyn(ctx);
  return ret;
}

void CmdProf::logApiError(VYNAPI_STAT errorCode) {
  std::printf("%d\n", errorCode);
  std::fflush(stdout);
  int msg = CMD_FAILURE;
  switch (errorCode) {
    case VYNAPI_STAT_AUTHENTICATION_FAILURE: msg = VYNAPI_STAT_AUTHENTICATION_FAILURE; break;
    case VYNAPI_STAT_CONNECTION:
    case VYNAPI_STAT_BUSY:
    case VYNAPI_STAT_NOT_INITIALIZED:
    case 452: msg = CMD_CONNECTION; break;
    case VYNAPI_STAT_BAD_ARGUMENT: msg = CMD_BAD_COMMAND; break;
    default: break;
  }
  caa_logger->log(LOG_STDERR, msg);
}

}  // namespace CAA
