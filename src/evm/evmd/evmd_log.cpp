// The daemon's event log.
#include "evm/evmd/evmd_log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "evm/libevm/evm_io.h"

namespace evmd {

namespace {
long long nowMs() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}
}  // namespace

EventLog::EventLog(const std::string& path, SyncPolicy policy, int intervalMs)
    : path_(path), policy_(policy), intervalMs_(intervalMs) {
  std::error_code ec;
  std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ec);
  fd_ = open(path.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0640);
  if (fd_ < 0) throw LogError("cannot open the event log " + path + ": " + std::strerror(errno));
  // Walk to the end of the last whole block.
  off_t good = 0;
  struct stat st;
  if (fstat(fd_, &st) != 0) throw LogError("cannot stat the event log " + path);
  for (;;) {
    EvmDataBlockType_t type = 0;
    off_t next = 0;
    if (_evmGetNextBlockOffset(fd_, good, &type, &next) != EvmERROR_NONE || (type == 0 && next == 0) ||
        next > st.st_size)
      break;
    good = next;
  }
  if (good < st.st_size) {
    truncated_ = static_cast<std::uint64_t>(st.st_size - good);
    if (ftruncate(fd_, good) != 0) throw LogError("cannot cut the torn end of the event log " + path);
  }
  lastSyncMs_ = nowMs();
}

EventLog::~EventLog() {
  if (fd_ < 0) return;
  try {
    commit();
  } catch (const LogError&) {
  }
  sync();
  close(fd_);
}

void EventLog::add(const void* block, std::size_t size) {
  const auto* p = static_cast<const unsigned char*>(block);
  batch_.insert(batch_.end(), p, p + size);
  ++batchEvents_;
}

void EventLog::commit() {
  if (batch_.empty()) return;
  const unsigned char* p = batch_.data();
  std::size_t left = batch_.size();
  while (left > 0) {
    ssize_t n = write(fd_, p, left);
    if (n < 0) {
      if (errno == EINTR) continue;
      std::string why = std::strerror(errno);
      // Leave whole blocks only: what part of the batch went out is taken back.
      struct stat st;
      if (fstat(fd_, &st) == 0 && st.st_size >= static_cast<off_t>(batch_.size() - left))
        if (ftruncate(fd_, st.st_size - static_cast<off_t>(batch_.size() - left)) != 0) {
        }
      batch_.clear();
      batchEvents_ = 0;
      throw LogError("cannot write the event log " + path_ + ": " + why);
    }
    p += n;
    left -= static_cast<std::size_t>(n);
  }
  events_ += batchEvents_;
  batch_.clear();
  batchEvents_ = 0;
  dirty_ = true;
  if (policy_ == SyncPolicy::EveryBatch || nowMs() - lastSyncMs_ >= intervalMs_) sync();
}

void EventLog::sync() {
  if (!dirty_) return;
  fdatasync(fd_);
  dirty_ = false;
  lastSyncMs_ = nowMs();
}

int EventLog::msUntilSyncDue() const {
  if (!dirty_) return -1;
  long long left = lastSyncMs_ + intervalMs_ - nowMs();
  return left > 0 ? static_cast<int>(left) : 0;
}

}  // namespace evmd
