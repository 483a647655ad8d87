#ifndef EVM_EVMD_EVMD_LOG_H
#define EVM_EVMD_EVMD_LOG_H

// The daemon's event log: accepted events appended as a plain stream of blocks, the form that
// EvmEventReadFD and _evmGetNextBlockOffset walk. Events are gathered per round of the daemon's
// loop and go to the file in one write before any of them is acknowledged.
//
// Durability: SyncPolicy::EveryBatch calls fdatasync after each batch's write and before its
// answers leave (group commit: one sync covers every poster of the round). SyncPolicy::Interval
// (the default) syncs at most every `intervalMs` and at close; an acknowledged event is then in
// the kernel before its answer leaves, so it survives the daemon's own death but not a crash of
// the machine inside the interval. A write or sync that fails fails the batch it belongs to:
// its bytes are taken back and none of its events is acknowledged as taken.
//
// At open the log is walked block by block, each block checked as a reader would check it.
// Bytes that are no valid block (a torn end left by a death inside a write, or damage in the
// middle) are copied to <log>.damaged.<n> (written beside, synced, renamed) before they leave
// the log; the walk goes on at the next valid block, so damage in the middle costs only the
// damaged bytes, never the events behind them.
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/osl/osl_fd.h"

namespace evmd {

class LogError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

enum class SyncPolicy { EveryBatch, Interval };

// The two calls through which the log's bytes reach the disk, apart so that a test can make
// them fail. The default passes them to the system.
class LogIo {
 public:
  virtual ~LogIo() = default;
  virtual ssize_t write(int fd, const void* buffer, std::size_t size);
  virtual int fdatasync(int fd);
  static LogIo& system();
};

class EventLog {
 public:
  // Opens (creating it and its directory) the log at `path`, and repairs it as said above.
  // Refuses a path that is a symlink or anything but a regular file.
  EventLog(const std::string& path, SyncPolicy policy, int intervalMs, LogIo& io = LogIo::system());
  ~EventLog();
  EventLog(const EventLog&) = delete;
  EventLog& operator=(const EventLog&) = delete;

  // Queues one block for the next commit.
  void add(const void* block, std::size_t size);
  bool pending() const { return !batch_.empty(); }
  // Writes the queued blocks and syncs as the policy says. Throws LogError when the write or
  // the sync fails; the batch is then taken back out of the file.
  void commit();
  // Syncs now if anything was written since the last sync. Throws LogError if that fails.
  void sync();
  // Milliseconds until an Interval sync is due, or -1 when nothing waits for one.
  int msUntilSyncDue() const;

  const std::string& path() const { return path_; }
  std::uint64_t events() const { return events_; }
  // What the repair at open did: bytes taken out of the log, and the files they went to.
  std::uint64_t removedBytes() const { return removed_; }
  const std::vector<std::string>& damagedFiles() const { return damagedFiles_; }

 private:
  struct Span {
    off_t begin, end;
  };
  void repair();
  off_t validBlockAt(off_t at, off_t size) const;
  off_t nextValidBlock(off_t from, off_t size) const;
  std::string saveDamage(const Span& s);
  void rewriteWithout(const std::vector<Span>& keep);
  void takeBack(off_t size);
  void writeAll(int fd, const unsigned char* p, std::size_t n);
  void copySpan(const Span& s, int out);

  std::string path_;
  SyncPolicy policy_;
  int intervalMs_;
  LogIo& io_;
  OslFd fd_;
  off_t size_ = 0;  // the file's length after the last good commit
  std::vector<unsigned char> batch_;
  std::size_t batchEvents_ = 0;
  bool dirty_ = false;
  long long lastSyncMs_ = 0;
  std::uint64_t events_ = 0;
  std::uint64_t removed_ = 0;
  std::vector<std::string> damagedFiles_;
};

}  // namespace evmd

#endif
