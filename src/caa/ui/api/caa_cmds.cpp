#include "caa/ui/api/caa_cmds.h"

#include <cstdio>
#include <cstring>

#include "caa/lib/caa_Path.h"
#include "caa/lib/caavrg.h"
#include "caa/logger/caa_logger.h"
#include "caa/smsec/identity.h"
#include "evm/libevm/clsgenv.h"
#include "platform/osl/osl.h"
#include "platform/ptu/ptu.h"
#include "platform/tfm/tfm.h"

namespace CAA {

const std::string caa_NONE = "none";
const std::string caa_NAME = "NAME";
const std::string caa_TYPE = "TYPE";
const std::string caa_DIR = "DIR";
const std::string caa_FORCE = "FORCE";
const std::string caa_QUIET = "QUIET";
const std::string caa_INPUT = "INPUT";
const std::string caa_OUTPUT = "OUTPUT";
const std::string caa_RESOURCE = "RESOURCE";
const std::string caa_TRASH = "TRASH";
const std::string caa_NON_TRASH = "NON_TRASH";
const std::string caa_PROF_OPTIONAL = "OPTIONAL";
const std::string caa_ACTION_SCRIPT = "ACTION_SCRIPT";
const std::string caa_BINARY = "BINARY";
const std::string caa_binary_tag = "-B";
const std::string caa_TAG = "_TAG";

const std::string Cmds::tag_force = "-f";
const std::string Cmds::tag_quiet = "-q";
const std::string Cmds::tag_stdin = "-xi";

Cmds::Cmds(CaaLogger* logger) : caa_logger(logger), quiet_mode(false), force_mode(false), group_id(0) {}

Cmds::~Cmds() {
  for (caaArg* arg : arg_list) delete arg;
  arg_list.clear();
}

int Cmds::parse(char* str, const char** p, int max_size, char d) {
  p[0] = str;
  int fields = 1;
  for (char* c = str; *c != '\0'; ++c) {
    if (*c != d || fields > max_size) continue;
    *c = '\0';
    p[fields++] = c + 1;
  }
  return fields;
}

std::string Cmds::argValue(const std::string& key) const {
  for (caaArg* arg : arg_list)
    if (arg->showArgKey() == key) return arg->showArgValue();
  return std::string();
}

void Cmds::display() {
  caa_logger->setLogRoute(LOG_STDOUT);
  caa_logger->setEventName("sys.zel.clu.vyn.log.ui");
  caa_logger->logOrigProc();
}

void Cmds::setQuietMode() {
  if (!quiet_mode) return;
  int on = 1;
  caa_logger->setEventSwitch(on);
  osrec ose;
  if (osl_stdio_nullify(0, &ose, 6) != 0) {
    std::fputs(osrecFormat(ose).c_str(), stderr);
    std::fflush(stderr);
  }
}

caa_Status Cmds::processDirArg(caaArg* arg, std::string& dirPath, std::string& scrDirPath) {
  if (arg->showStatus() == ENTERED) {
    std::string dir = arg->showArgValue();
    if (ptu_createDir(dir.c_str()) != 0) {
      caa_logger->log(LOG_STDERR, CMD_INVALID_DIRPATH, dir.c_str());
      return caa_WARNING;
    }
    dirPath = dir;
    scrDirPath = dir;
  } else {
    Identity me = Identity::getCurrentIdentity();
    if (me.isSuperUser()) {
      dirPath = Path::profile_path;
      scrDirPath = Path::script_path;
    } else {
      const char* fromEnv = clsgenv("ZEL_VYN_DEFAULT_PATH");
      if (fromEnv != nullptr) {
        dirPath = fromEnv;
      } else {
        char buf[Path::buf_len];
        std::memset(buf, 0, sizeof buf);
        std::uint32_t size = sizeof buf;
        if (caavrgReadVRGKey(CaaVRGKeys::DefaultDir, buf, &size, nullptr) == 0) {
          buf[sizeof buf - 1] = '\0';
          dirPath = buf;
        } else {
          dirPath = Path::vyn_public_dir;
        }
      }
      scrDirPath = dirPath;
    }
  }
  if (ptu_createDir(dirPath.c_str()) == PTU_ERR_NOROOM) {
    caa_logger->log(LOG_STDERR, CMD_INVALID_DIRPATH, dirPath.c_str());
    return caa_WARNING;
  }
  if (ptu_createDir(scrDirPath.c_str()) == PTU_ERR_NOROOM) {
    caa_logger->log(LOG_STDERR, CMD_INVALID_DIRPATH, scrDirPath.c_str());
    return caa_WARNING;
  }
  return caa_SUCCESS;
}

caa_Status Cmds::constructPaths() {
  const char* home = clsgenv("ZEL_VYN_HOME");
  Path path(home != nullptr ? home : "");
  return path.initializePaths() == 0 ? caa_SUCCESS : caa_FAILURE;
}

void Cmds::showDeprecatedMessage(const char* pParam) {
  CaaMsg msg;
  char text[MSG_BUF_LEN];
  msg.getStringnofmt(text, MSG_DEPRECATED_USE);
  char line[MSG_BUF_LEN];
  sfmprintf(line, sizeof line, text, pParam);
  std::printf("%s\n", line);
  msg.getStringnofmt(text, MSG_DEPRECATED_LATER);
  std::printf("%s\n", text);
  std::printf("\n");
  std::fflush(stdout);
}

}  // namespace CAA
