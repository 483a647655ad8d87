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
// the machine inside the interval.
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace evmd {

class LogError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

enum class SyncPolicy { EveryBatch, Interval };

class EventLog {
 public:
  // Opens (creating it and its directory) the log at `path`. A torn block at the end, left by a
  // process that died in a write, is cut off so that appends follow whole blocks.
  EventLog(const std::string& path, SyncPolicy policy, int intervalMs);
  ~EventLog();
  EventLog(const EventLog&) = delete;
  EventLog& operator=(const EventLog&) = delete;

  // Queues one block for the next commit.
  void add(const void* block, std::size_t size);
  bool pending() const { return !batch_.empty(); }
  // Writes the queued blocks and syncs as the policy says. Throws LogError when the write fails;
  // nothing of a failed batch may be acknowledged.
  void commit();
  // Syncs now if anything was written since the last sync.
  void sync();
  // Milliseconds until an Interval sync is due, or -1 when nothing waits for one.
  int msUntilSyncDue() const;

  const std::string& path() const { return path_; }
  std::uint64_t events() const { return events_; }
  std::uint64_t truncatedBytes() const { return truncated_; }

 private:
  std::string path_;
  SyncPolicy policy_;
  int intervalMs_;
  int fd_ = -1;
  std::vector<unsigned char> batch_;
  std::size_t batchEvents_ = 0;
  bool dirty_ = false;
  long long lastSyncMs_ = 0;
  std::uint64_t events_ = 0;
  std::uint64_t truncated_ = 0;
};

}  // namespace evmd

#endif
