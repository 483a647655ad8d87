#ifndef CAA_UI_API_CAA_CMDS_H
#define CAA_UI_API_CAA_CMDS_H

// The base of a command: it owns the argument objects, knows the quiet and force modes, and
// offers what every operation needs: splitting a text, showing a result, going quiet, deciding
// the working directories, and the lines that point users at the newer tool.
#include <string>

#include "caa/lib/caa_types.h"
#include "caa/ui/api/caa_args.h"

namespace CAA {

class CaaLogger;

// Keys of argument objects.
extern const std::string caa_NONE;
extern const std::string caa_NAME;
extern const std::string caa_TYPE;
extern const std::string caa_DIR;
extern const std::string caa_FORCE;
extern const std::string caa_QUIET;
extern const std::string caa_INPUT;
extern const std::string caa_OUTPUT;
extern const std::string caa_RESOURCE;
extern const std::string caa_TRASH;
extern const std::string caa_NON_TRASH;
extern const std::string caa_PROF_OPTIONAL;
extern const std::string caa_ACTION_SCRIPT;
extern const std::string caa_BINARY;
extern const std::string caa_binary_tag;
extern const std::string caa_TAG;

// Message numbers of the catalog that operations log.
const int CMD_SUCCESS = 0;
const int CMD_RES_TOO_LONG = 174;
const int CMD_CONNECTION = 184;
const int CMD_WARNING = 199;
const int CMD_FAILURE = 200;
const int CMD_BAD_COMMAND = 201;
const int CMD_NO_APPS = 202;
const int CMD_OTHER = 203;
const int CMD_ATTR_NOTFOUND = 204;
const int CMD_APP_NAME = 210;
const int CMD_IS_REGISTERED = 211;
const int CMD_NOT_REGISTERED = 212;
const int CMD_REGISTER_FAIL = 213;
const int CMD_UNREGISTER_FAIL = 214;
const int CMD_START_FAIL = 215;
const int CMD_STOP_FAIL = 216;
const int CMD_RELOCATE_FAIL = 217;
const int CMD_NOT_RESTART = 218;
const int CMD_UPDATE_FAIL = 219;
const int CMD_PROFILE_INVALID = 220;
const int CMD_PROFILE_BADPATH = 221;
const int CMD_DEPENDENCY = 222;
const int CMD_PLACEMENT = 223;
const int CMD_SCRIPT_OUTPUT = 224;
const int CMD_MISSING_RESNAME = 225;
const int CMD_MEMALLOC_WARNING = 226;
const int CMD_INVALID_RESNAME = 227;
const int CMD_INVALID_HOST = 228;
const int CMD_INVALID_FLAGS = 229;
const int CMD_MEMBER_INVALID = 230;
const int CMD_OPERATION_INVALID = 231;
const int CMD_MEMBER_DOWN = 232;
const int CMD_RESOURCE_BUSY = 233;
const int CMD_USEROPTS_INVALID = 234;
const int CMD_INVALID = 239;
const int CMD_CHANNEL_OUTPUT = 240;
const int CMD_INVALID_DIRPATH = 241;
const int CMD_ACL_UNAVAILABLE = 242;
const int CMD_DEFAULT_SETTING_UNAVAILABLE = 243;
const int CMD_REGISTER_UNAVAILABLE = 244;
const int CMD_NO_PRIVILEGE = 245;
const int CMD_INVALID_ID = 246;
const int CMD_INVALID_NAME = 247;
const int CMD_ACL_FAILED = 248;
const int CMD_AUTHENTICATION_FAILURE = 249;
const int CMD_CONFIGURE_FAILURE = 250;
const int CMD_CONFIGURATION_MISS = 251;
const int CMD_CONFIGURATION_ERROR = 252;
const int CMD_MISSING_USR_DEF_DIR = 253;
const int CMD_AUTHORIZATION_FAILURE = 254;
const int CMD_USERMODE_ONLY = 255;
const int CMD_USRNAME_CONFLICT = 256;
const int CMD_GRPNAME_CONFLICT = 257;
const int CMD_UNKNOWN_ACL = 258;
const int CMD_NO_GRP_MEMBERSHIP = 259;
const int CMD_SHUTDOWN_IN_PROGRESS = 271;
const int CMD_REJECTED = 325;

// The deprecation lines.
const int MSG_DEPRECATED_LATER = 272;
const int MSG_DEPRECATED_USE = 273;

class Cmds {
 public:
  static const std::string tag_force;  // "-f"
  static const std::string tag_quiet;  // "-q"
  static const std::string tag_stdin;  // "-xi"
  static const int MAX_MSG_FLD = 10;
  static const int PROC_ERR = -1;

  explicit Cmds(CaaLogger* caa_logger);
  virtual ~Cmds();
  virtual void showUsage() = 0;

  // Splits str in place at d: p[0] is str, and each delimiter, while the count of fields does
  // not pass max_size, ends a field. The count of fields (up to max_size + 1; 1 for "").
  static int parse(char* str, const char** p, int max_size, char d);
  // The logger's text, as it stands, on standard output (or as an event in quiet mode).
  void display();
  // Quiet mode: every text goes out as an event from now on, and the standard streams are silenced.
  void setQuietMode();
  // Decides the profile and script directories from a "-dir" object, and makes them.
  caa_Status processDirArg(caaArg* arg, std::string& dirPath, std::string& scrDirPath);
  // Fills the table of directories from the home.
  caa_Status constructPaths();
  void showDeprecatedMessage(const char* pParam);

  // The value of the first argument object with the key, or the empty text.
  std::string argValue(const std::string& key) const;

  bool isQuiet() const { return quiet_mode; }
  bool isForced() const { return force_mode; }
  int groupId() const { return group_id; }

 protected:
  CaaLogger* caa_logger;
  std::string usage;
  std::string rtn_data;
  bool quiet_mode;
  bool force_mode;
  std::string client_locale;
  std::string user_opts;
  int group_id;
  arg_List arg_list;
  string_List output_list;
};

}  // namespace CAA

#endif
