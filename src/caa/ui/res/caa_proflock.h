#ifndef CAA_UI_RES_CAA_PROFLOCK_H
#define CAA_UI_RES_CAA_PROFLOCK_H

// An exclusive hold on one profile of a directory, for the whole of a read-modify-write: two
// updates of one profile, or an update and a delete, take turns instead of one undoing the other.
//
// The lock is flock(2) on a file beside the profile, ".<name>.cap.lock", never on the profile,
// which is replaced by a new file on every write. The lock file exists only while it is held:
// the holder removes it before letting go, and a waiter that then gets the lock of a file that
// has lost its name starts again with a new one. So nothing stays behind, and the one whose
// process was killed leaves a file that removeStale takes away.
//
// The directory may be shared with hostile users: the lock file is never followed as a symbolic
// link, never written, never waited on as a FIFO, and refused unless it is a regular file with one
// name. A lock held too long ends the wait with X_LOCK_Busy rather than hanging.
#include <string>

#include "cppgen/clsException.h"
#include "platform/osl/osl_fd.h"

namespace CAA {

class X_LOCK : public cls::Exception {
 public:
  explicit X_LOCK(const std::string& message) : cls::Exception(message) {}
  std::string className() const override { return "X_LOCK"; }
};

// Another process holds the lock, and kept it past the wait.
class X_LOCK_Busy : public X_LOCK {
 public:
  explicit X_LOCK_Busy(const std::string& message) : X_LOCK(message) {}
  std::string className() const override { return "X_LOCK_Busy"; }
};

class ProfileLock {
 public:
  // How long a lock is waited for, in milliseconds, before X_LOCK_Busy.
  static const int WAIT_MS = 30000;

  // Takes the lock of dir/name.cap, waiting up to wait_ms. X_LOCK_Busy when the wait ends,
  // X_LOCK (the reason as its text) when the lock file cannot be made or is not safe to use.
  ProfileLock(const std::string& dir, const std::string& name, int wait_ms = WAIT_MS);
  // Removes the lock file, then lets go.
  ~ProfileLock();
  ProfileLock(const ProfileLock&) = delete;
  ProfileLock& operator=(const ProfileLock&) = delete;

  const std::string& path() const { return path_; }
  static std::string lockPath(const std::string& dir, const std::string& name);
  // Removes the lock files of dir that nobody holds: those of killed processes. Only regular
  // files owned by the caller. The number removed.
  static int removeStale(const std::string& dir);
  // The same for one entry of a directory open as `dfd`: whether it was such a lock and is gone.
  static bool removeStaleEntry(int dfd, const char* name);

 private:
  std::string path_;
  OslFd fd_;
};

}  // namespace CAA

#endif
