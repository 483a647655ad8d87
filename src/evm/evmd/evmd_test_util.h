#ifndef EVM_EVMD_EVMD_TEST_UTIL_H
#define EVM_EVMD_EVMD_TEST_UTIL_H

// Helpers of the daemon's unit tests: a scratch directory, event blocks as a poster sends them,
// and a log whose file calls fail on demand.
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

#include "evm/evmd/evmd_log.h"
#include "evm/libevm/evm.h"

namespace evmdtest {

typedef std::vector<unsigned char> Bytes;

class ScratchDir {
 public:
  ScratchDir() {
    char tmpl[] = "/tmp/evmd_test.XXXXXX";
    if (mkdtemp(tmpl) == nullptr) std::abort();
    path_ = tmpl;
  }
  ~ScratchDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// The block of an event named `name`, prepared as a post sends it (transport header, checksum).
inline Bytes block(const std::string& name) {
  EvmEvent_t ev = nullptr;
  EvmEventCreateVa(&ev, EvmITEM_NAME, name.c_str(), EvmITEM_NONE);
  EvmUint32_t len = 0;
  const auto* p = static_cast<const unsigned char*>(EvmEventWriteBuf(&len, ev));
  Bytes b(p, p + len);
  EvmEventDestroy(ev);
  return b;
}

// File calls that fail once `failWrites` or `failSyncs` is set, and a disk that fills up at
// `diskFull`.
class FailingIo : public evmd::LogIo {
 public:
  ssize_t pwrite(int fd, const void* buffer, std::size_t size, off_t offset) override {
    if (failWrites || (diskFull >= 0 && offset >= diskFull)) {
      errno = ENOSPC;
      return -1;
    }
    if (diskFull >= 0) size = std::min<std::size_t>(size, static_cast<std::size_t>(diskFull - offset));
    return evmd::LogIo::pwrite(fd, buffer, size, offset);
  }
  int fdatasync(int fd) override {
    ++syncs;
    if (failSyncs) {
      errno = EIO;
      return -1;
    }
    return evmd::LogIo::fdatasync(fd);
  }
  // Set by a test while the log's threads call in.
  std::atomic<bool> failWrites{false};
  std::atomic<bool> failSyncs{false};
  std::atomic<off_t> diskFull{-1};  // no byte is written at or past this offset
  std::atomic<int> syncs{0};
};

inline std::string slurp(const std::string& path) {
  std::string s;
  int fd = open(path.c_str(), O_RDONLY);
  if (fd < 0) return "<missing>";
  char buf[65536];
  ssize_t n;
  while ((n = read(fd, buf, sizeof buf)) > 0) s.append(buf, static_cast<std::size_t>(n));
  close(fd);
  return s;
}

// The file's bytes without the zeros a running log makes ahead of its events (from the first
// multiple of 8 where only zeros follow).
inline std::string events(const std::string& path) {
  std::string s = slurp(path);
  std::size_t end = s.find_last_not_of('\0');
  end = end == std::string::npos ? 0 : (end + 1 + 7) / 8 * 8;
  s.resize(std::min(s.size(), end));
  return s;
}

inline void spit(const std::string& path, const std::string& bytes) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0640);
  if (fd < 0) std::abort();
  if (write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) std::abort();
  close(fd);
}

// The names of the events in a log file, read as a reader of event files reads them.
inline std::vector<std::string> names(const std::string& path) {
  std::vector<std::string> out;
  int fd = open(path.c_str(), O_RDONLY);
  if (fd < 0) return out;
  EvmEvent_t ev = nullptr;
  while (EvmEventReadFD(fd, &ev) == EvmERROR_NONE) {
    EvmItemValue_t v;
    out.push_back(_evmuiItemGet(ev, EvmITEM_NAME, &v) == EvmERROR_NONE ? v.NAME : "?");
    EvmEventDestroy(ev);
  }
  close(fd);
  return out;
}

}  // namespace evmdtest

#endif
