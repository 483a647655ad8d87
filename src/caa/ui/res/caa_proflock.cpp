#include "caa/ui/res/caa_proflock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>
#include <utility>

#include "caa/lib/caa_Path.h"
#include "platform/ptu/ptu.h"

namespace CAA {

namespace {

const char* const LOCK_EXT = ".lock";
const int OPEN_FLAGS = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;

bool sameFile(const struct stat& a, const struct stat& b) { return a.st_dev == b.st_dev && a.st_ino == b.st_ino; }

// ".<name>.cap.lock": only the lock files of profiles, whatever else the directory holds.
bool isLockName(const char* name) {
  std::string ending = std::string(".") + Path::PROFILE_EXT + LOCK_EXT;
  std::size_t len = std::strlen(name);
  return len > ending.size() && name[0] == '.' && ending.compare(0, std::string::npos, name + len - ending.size()) == 0;
}

enum Opened { OPENED, GONE, UNSAFE };

// Opens the lock file at path, making it if it is missing. GONE: a holder removed it meanwhile.
Opened openLock(const std::string& path, OslFd& fd, struct stat& st) {
  fd.reset(open(path.c_str(), OPEN_FLAGS | O_CREAT | O_EXCL, 0644));
  if (fd) {
    // Readable by all, whatever the umask, so that any user who may change the profile can wait.
    fchmod(fd.get(), 0644);
  } else if (errno == EEXIST) {
    fd.reset(open(path.c_str(), OPEN_FLAGS));
    if (!fd && errno == ENOENT) return GONE;
  }
  if (!fd) throw X_LOCK(path + ": " + std::strerror(errno));
  if (fstat(fd.get(), &st) != 0) throw X_LOCK(path + ": " + std::strerror(errno));
  if (!S_ISREG(st.st_mode)) throw X_LOCK(path + ": not a regular file");
  if (st.st_nlink == 0) return GONE;
  if (st.st_nlink > 1) throw X_LOCK(path + ": a file with more than one name");
  return OPENED;
}

}  // namespace

std::string ProfileLock::lockPath(const std::string& dir, const std::string& name) {
  std::string d = dir;
  if (!d.empty() && d.back() != '/') d += '/';
  return d + "." + name + "." + Path::PROFILE_EXT + LOCK_EXT;
}

ProfileLock::ProfileLock(const std::string& dir, const std::string& name, int wait_ms) : path_(lockPath(dir, name)) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(wait_ms);
  std::chrono::milliseconds pause(1);
  for (;;) {
    struct stat st;
    OslFd fd;
    if (openLock(path_, fd, st) == GONE) continue;
    if (flock(fd.get(), LOCK_EX | LOCK_NB) == 0) {
      // The lock counts only if the file still has its name: a holder removes it before it lets go.
      struct stat now;
      if (lstat(path_.c_str(), &now) == 0 && sameFile(now, st)) {
        fd_ = std::move(fd);
        return;
      }
      continue;
    }
    if (errno != EWOULDBLOCK && errno != EINTR) throw X_LOCK(path_ + ": " + std::strerror(errno));
    if (std::chrono::steady_clock::now() >= deadline) throw X_LOCK_Busy(path_);
    std::this_thread::sleep_for(pause);
    if (pause < std::chrono::milliseconds(32)) pause *= 2;
  }
}

ProfileLock::~ProfileLock() {
  struct stat mine, now;
  if (fstat(fd_.get(), &mine) == 0 && lstat(path_.c_str(), &now) == 0 && sameFile(mine, now)) unlink(path_.c_str());
}

int ProfileLock::removeStale(const std::string& dir) {
  int removed = 0;
  ptu_scanDir(dir, [&removed](int dfd, const char* name) {
    if (removeStaleEntry(dfd, name)) ++removed;
  });
  return removed;
}

bool ProfileLock::removeStaleEntry(int dfd, const char* name) {
  if (!isLockName(name)) return false;
  struct stat st, now;
  if (fstatat(dfd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) return false;
  if (!S_ISREG(st.st_mode) || st.st_uid != geteuid() || st.st_nlink != 1) return false;
  OslFd fd(openat(dfd, name, OPEN_FLAGS));
  if (!fd || fstat(fd.get(), &now) != 0 || !sameFile(st, now)) return false;
  // Held by nobody: its holder is gone. Taking it first keeps the rule that only a holder removes.
  if (flock(fd.get(), LOCK_EX | LOCK_NB) != 0) return false;
  return fstatat(dfd, name, &now, AT_SYMLINK_NOFOLLOW) == 0 && sameFile(st, now) && unlinkat(dfd, name, 0) == 0;
}

}  // namespace CAA
