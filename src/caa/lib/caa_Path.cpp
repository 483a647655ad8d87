#include "caa/lib/caa_Path.h"

#include "platform/ptu/ptu.h"

namespace CAA {

const char* const Path::VYN_DIR = "vyn";
const char* const Path::PROFILE_DIR = "profile";
const char* const Path::TEMPLATE_DIR = "template";
const char* const Path::SCRIPT_DIR = "script";
const char* const Path::LOG_DIR = "log";
const char* const Path::PUBLIC_DIR = "public";
const char* const Path::SAFE_DIR = "init";
const char* const Path::LOCKFILE_DIR = "init";
const char* const Path::BIN_DIR = "bin";
const char* const Path::VYN_STAT_COMMAND = "vyn_stat";
const char* const Path::TEMPLATE_FILE = "vyntmpl";
const char* const Path::VYN_CONFIG_FILE = "caaconfigtab";
const char* const Path::CURR_DIR = ".";
const char* const Path::LOCAL_TEMPLATE_FILE = "template";
const char* const Path::PROFILE_EXT = "cap";
const char* const Path::BACKUP_EXT = "bak";
const char* const Path::SCRIPT_EXT = "scr";
const char* const Path::TDF_EXT = "tdf";
const char* const Path::NOEXT = "";

std::string Path::vynhome;
std::string Path::profile_path;
std::string Path::template_path;
std::string Path::binary_path;
std::string Path::script_path;
std::string Path::vyn_log_dir;
std::string Path::vyn_public_dir;
std::string Path::vyn_safe_dir;
std::string Path::vyn_lockfile_dir;
std::string Path::vyn_stat_path;
std::string Path::template_file;
std::string Path::local_template_file;
std::string Path::vyn_config_file;

Path::Path(const std::string& home) { vynhome = home; }

Path::~Path() = default;

namespace {

bool dirOf(std::string& out, const char* a, const char* b) {
  char buf[Path::buf_len];
  if (ptu_addToPath(buf, sizeof buf, Path::vynhome.c_str(), a, b, static_cast<const char*>(nullptr)) != 0) return false;
  out = buf;
  return true;
}

bool fileOf(std::string& out, const std::string& dir, const char* name, const char* ext) {
  char buf[Path::buf_len];
  if (ptu_getFile(buf, sizeof buf, dir.c_str(), name, ext) != 0) return false;
  out = buf;
  return true;
}

}  // namespace

int Path::initializePaths() const {
  bool ok = dirOf(profile_path, VYN_DIR, PROFILE_DIR) && dirOf(template_path, VYN_DIR, TEMPLATE_DIR) &&
            dirOf(binary_path, BIN_DIR, nullptr) && dirOf(script_path, VYN_DIR, SCRIPT_DIR) &&
            dirOf(vyn_log_dir, VYN_DIR, LOG_DIR) && dirOf(vyn_public_dir, VYN_DIR, PUBLIC_DIR) &&
            dirOf(vyn_safe_dir, VYN_DIR, SAFE_DIR) && dirOf(vyn_lockfile_dir, VYN_DIR, LOCKFILE_DIR) &&
            fileOf(vyn_stat_path, vynhome, (std::string(BIN_DIR) + "/" + VYN_STAT_COMMAND).c_str(), NOEXT) &&
            fileOf(template_file, binary_path, TEMPLATE_FILE, SCRIPT_EXT) &&
            fileOf(local_template_file, CURR_DIR, LOCAL_TEMPLATE_FILE, PROFILE_EXT) &&
            fileOf(vyn_config_file, vynhome, VYN_CONFIG_FILE, NOEXT);
  return ok ? 0 : -2;
}

}  // namespace CAA
