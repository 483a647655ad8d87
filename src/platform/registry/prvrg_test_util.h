#ifndef PLATFORM_REGISTRY_PRVRG_TEST_UTIL_H
#define PLATFORM_REGISTRY_PRVRG_TEST_UTIL_H

// For tests of the registry's store and of the programs that read it.
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

namespace vyntest {

// Another process holding the store locked, as an administrator's open transaction would.
// The lock is taken before the constructor returns and lasts until release() or, with a
// `holdMs`, until that time has passed.
class StoreLocker {
 public:
  explicit StoreLocker(const std::string& store, int holdMs = -1) {
    int ready[2], release[2];
    if (pipe(ready) != 0 || pipe(release) != 0) std::abort();
    pid_ = fork();
    if (pid_ == 0) {
      close(ready[0]);
      close(release[1]);
      sqlite3* db = nullptr;
      if (sqlite3_open_v2(store.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK ||
          sqlite3_exec(db, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr) != SQLITE_OK)
        _exit(1);
      if (write(ready[1], "l", 1) != 1) _exit(2);
      if (holdMs >= 0) {
        usleep(static_cast<useconds_t>(holdMs) * 1000);
      } else {
        char c;
        while (read(release[0], &c, 1) > 0) {
        }
      }
      _exit(0);  // the lock goes with the process
    }
    close(ready[1]);
    close(release[0]);
    release_ = release[1];
    char c = 0;
    locked_ = read(ready[0], &c, 1) == 1;
    close(ready[0]);
  }
  ~StoreLocker() { release(); }
  StoreLocker(const StoreLocker&) = delete;
  StoreLocker& operator=(const StoreLocker&) = delete;

  bool locked() const { return locked_; }
  void release() {
    if (release_ >= 0) close(release_);
    release_ = -1;
    if (pid_ > 0) waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }

 private:
  pid_t pid_ = -1;
  int release_ = -1;
  bool locked_ = false;
};

}  // namespace vyntest

#endif
