#ifndef EVM_EVMD_EVMD_LOG_H
#define EVM_EVMD_EVMD_LOG_H

// The daemon's event log: accepted events appended as a plain stream of blocks, the form that
// EvmEventReadFD and _evmGetNextBlockOffset walk. Events are gathered per round of the daemon's
// loop; each round that added events gets the next number, its mark, and the server holds a
// round's answers until the log says their mark is settled.
//
// Durability. SyncPolicy::Group (the default) acknowledges only what is synced. Committed events
// are held in memory until a sync is due, then written in one write and synced with one fdatasync
// in the caller's thread; the sync settles every mark handed out before it. A sync is due at once
// when as many events wait as the last sync covered (the posters it answered are back), otherwise
// once the first waiting event has waited as long as the last sync took (at most 2 ms), or when
// 1 MiB waits. So one fdatasync covers every poster that is waiting, and the file holds only what
// was synced, or is being synced. While a sync runs nothing else is read: what arrives meanwhile
// waits in the sockets and shares the next one.
// SyncPolicy::Interval settles a mark as soon as it is written and syncs at most every
// `intervalMs` and at close: an acknowledged event survives the daemon's death but not a crash of
// the machine inside the interval. A failed write fails its own batch (its bytes are taken back);
// a failed sync fails every write it was to cover and those after it, all taken back, so that the
// file holds only what was, or will be, acknowledged.
//
// Space made ahead. Appending to a file changes its length, and a sync must then commit that
// length as well as the bytes, which on a journaling file system costs about half again as much
// as syncing bytes written over space the file already has. So the log writes zeros ahead of its
// events, a step at a time (synced with the events that come before them), and writes events
// over them: while the daemon runs, events.log ends in up to one step of zero bytes, which a
// reader takes for the end of the events (a block never starts with four zero bytes). They are
// cut off when the log is closed, before it is rotated, and at open after a crash. Space that
// cannot be made (a full disk) is not an error: the log appends as before.
//
// Rotation. When a write would take the file past `maxBytes`, everything in it is synced first
// (under Group it already is), then events.log.(keep-1) ... events.log.1 move up by one (the oldest falls off), events.log
// becomes events.log.1, and a new events.log, made and synced beside under another name, takes its
// place; the directory is synced. A batch is never split: each event lies whole in one file.
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

enum class SyncPolicy { Group, Interval };

struct LogLimits {
  std::uint64_t maxBytes = std::uint64_t{64} << 20;  // 0: never rotate
  int keep = 8;                                      // rotated files kept, at least 1
};

// The two calls through which the log's bytes reach the disk, apart so that a test can make
// them fail or watch them. The default passes them to the system.
class LogIo {
 public:
  virtual ~LogIo() = default;
  virtual ssize_t pwrite(int fd, const void* buffer, std::size_t size, off_t offset);
  virtual int fdatasync(int fd);
  static LogIo& system();
};

class EventLog {
 public:
  // What became of the writes up to a mark: settled for acknowledgement, or failed (taken back).
  struct Outcome {
    std::uint64_t through;
    bool ok;
    std::string why;  // what went wrong, when not ok
  };

  // Opens (creating it and its directory) the log at `path`, and repairs it as said above.
  // Refuses a path that is a symlink or anything but a regular file.
  EventLog(const std::string& path, SyncPolicy policy, int intervalMs, LogIo& io = LogIo::system(),
           LogLimits limits = LogLimits());
  ~EventLog();
  EventLog(const EventLog&) = delete;
  EventLog& operator=(const EventLog&) = delete;

  // Queues one block for the next commit.
  void add(const void* block, std::size_t size);
  bool pending() const { return !batch_.empty(); }
  // Ends a batch of queued blocks and returns the mark their acknowledgements wait for: a new
  // mark, or the last one when nothing was queued. Interval: writes them (rotating first if they
  // would take the file past its limit) and throws LogError, with the batch taken back, when that
  // fails. Group: holds them for the next sync, and never throws.
  std::uint64_t commit();
  // The last mark handed out.
  std::uint64_t written() const { return written_; }
  // What was settled since the last call, in order of marks.
  std::vector<Outcome> takeOutcomes();
  // Syncs everything committed so far. Throws LogError under Interval when the sync fails; under
  // Group a failure (of the write or the sync) is an outcome.
  void sync();
  // Microseconds until a sync is due, 0 when it is due now, -1 when nothing waits for one.
  long long usUntilSyncDue() const;
  void syncIfDue();

  const std::string& path() const { return path_; }
  std::uint64_t events() const { return events_; }
  // Group: the syncs that succeeded, the events they covered, and the time they took.
  std::uint64_t syncs() const { return syncs_; }
  std::uint64_t syncedEvents() const { return syncedEvents_; }
  long long syncMicros() const { return syncMicros_; }
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
  off_t trailingZerosFrom(off_t size) const;
  std::string saveDamage(const Span& s);
  void rewriteWithout(const std::vector<Span>& keep);
  void takeBack(off_t size);
  void writeAll(int fd, const unsigned char* p, std::size_t n, off_t at);
  off_t copySpan(const Span& s, int out, off_t at);
  void makeSpaceAhead();
  bool cutSpaceAhead();
  void rotate();
  void groupSync();
  void writeBatch();
  void syncNow();

  std::string path_;
  SyncPolicy policy_;
  int intervalMs_;
  LogIo& io_;
  LogLimits limits_;
  OslFd fd_;
  off_t size_ = 0;       // where the events end: the file's length but for the space made ahead
  off_t aheadEnd_ = 0;   // the file's length; [size_, aheadEnd_) holds zeros
  off_t aheadRetryAt_ = 0;  // after space could not be made, where to try again
  std::vector<unsigned char> batch_;
  std::size_t batchEvents_ = 0;
  bool dirty_ = false;  // Interval: written since the last sync
  long long lastSyncMs_ = 0;  // Interval
  std::uint64_t events_ = 0;
  std::uint64_t written_ = 0;   // marks handed out
  std::uint64_t settled_ = 0;   // marks whose outcome is known
  std::vector<Outcome> outcomes_;
  // Group: events committed and not yet synced, since when, and what the last sync covered and took.
  std::uint64_t unsynced_ = 0;
  long long firstUnsyncedUs_ = 0;
  std::uint64_t lastCovered_ = 0;
  std::uint64_t syncs_ = 0, syncedEvents_ = 0;
  long long lastSyncUs_ = 0;
  long long syncMicros_ = 0;
  off_t durableSize_ = 0;  // the file's length covered by the last good sync
  std::uint64_t durableEvents_ = 0;
  std::uint64_t removed_ = 0;
  std::vector<std::string> damagedFiles_;
};

}  // namespace evmd

#endif
