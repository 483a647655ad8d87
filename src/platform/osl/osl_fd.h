#ifndef PLATFORM_OSL_OSL_FD_H
#define PLATFORM_OSL_OSL_FD_H

// The one owner of an open file descriptor. Whoever holds a descriptor holds it in an OslFd, so
// that every exit, a thrown exception included, closes it exactly once. Moving hands it on;
// release() gives it up to a caller that takes over.
#include <unistd.h>

class OslFd {
 public:
  OslFd() noexcept = default;
  explicit OslFd(int fd) noexcept : fd_(fd) {}
  ~OslFd() { reset(); }

  OslFd(OslFd&& other) noexcept : fd_(other.release()) {}
  OslFd& operator=(OslFd&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  OslFd(const OslFd&) = delete;
  OslFd& operator=(const OslFd&) = delete;

  int get() const noexcept { return fd_; }
  bool valid() const noexcept { return fd_ >= 0; }
  explicit operator bool() const noexcept { return valid(); }

  int release() noexcept {
    int fd = fd_;
    fd_ = -1;
    return fd;
  }
  // Closes what is held, if anything, and takes `fd`.
  void reset(int fd = -1) noexcept {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
  }
  // Closes now and reports close's own result: for a file just written, a failed close can be
  // the first word of a failed write, and a caller that must not lose data checks it.
  int close() noexcept {
    int r = fd_ >= 0 ? ::close(fd_) : 0;
    fd_ = -1;
    return r;
  }

 private:
  int fd_ = -1;
};

#endif
