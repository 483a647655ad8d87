#ifndef CAA_LIB_CAA_PATH_H
#define CAA_LIB_CAA_PATH_H

// The process-wide table of directories and files below the home of the cluster software.
// A Path object is a temporary that fills the table once; the table outlives it.
#include <string>

namespace CAA {

class Path {
 public:
  // Every composed path fits this many bytes, terminator included.
  static const int buf_len = 512;

  static const char* const VYN_DIR;
  static const char* const PROFILE_DIR;
  static const char* const TEMPLATE_DIR;
  static const char* const SCRIPT_DIR;
  static const char* const LOG_DIR;
  static const char* const PUBLIC_DIR;
  static const char* const SAFE_DIR;
  static const char* const LOCKFILE_DIR;
  static const char* const BIN_DIR;
  static const char* const VYN_STAT_COMMAND;
  static const char* const TEMPLATE_FILE;
  static const char* const VYN_CONFIG_FILE;
  static const char* const CURR_DIR;
  static const char* const LOCAL_TEMPLATE_FILE;
  static const char* const PROFILE_EXT;  // "cap"
  static const char* const BACKUP_EXT;   // "bak"
  static const char* const SCRIPT_EXT;   // "scr"
  static const char* const TDF_EXT;      // "tdf"
  static const char* const NOEXT;        // ""

  static std::string vynhome;
  static std::string profile_path;
  static std::string template_path;
  static std::string binary_path;
  static std::string script_path;
  static std::string vyn_log_dir;
  static std::string vyn_public_dir;
  static std::string vyn_safe_dir;
  static std::string vyn_lockfile_dir;
  static std::string vyn_stat_path;
  static std::string template_file;
  static std::string local_template_file;
  static std::string vyn_config_file;

  explicit Path(const std::string& home);
  virtual ~Path();

  // Fills the table: 0, or -2 at the first path that does not fit (the earlier ones stay).
  int initializePaths() const;
};

}  // namespace CAA

#endif
