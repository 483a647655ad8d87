// The daemon's event log.
#include "evm/evmd/evmd_log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "evm/libevm/evm.h"

namespace evmd {

namespace {

long long nowUs() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<long long>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

long long nowMs() { return nowUs() / 1000; }

std::string errText() { return std::strerror(errno); }

bool preadAll(int fd, void* buffer, std::size_t n, off_t at) {
  auto* p = static_cast<unsigned char*>(buffer);
  while (n > 0) {
    ssize_t r = pread(fd, p, n, at);
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) return false;
    p += r;
    n -= static_cast<std::size_t>(r);
    at += r;
  }
  return true;
}

// Whether the head at `p` (at least the control part) could start a block of `room` bytes.
std::uint32_t plausibleSize(const unsigned char* p, off_t room) {
  std::uint16_t ident, type;
  std::memcpy(&ident, p + EVM_OFF_CONTROL, sizeof ident);
  std::memcpy(&type, p + EVM_OFF_CONTROL + 2, sizeof type);
  std::uint32_t size = evmLoad32(p, EVM_OFF_CONTROL_SIZE);
  if (ident != EVM_BLOCK_IDENT || type < 1 || type > 3 || size < EVM_OLD_HEAD_SIZE || size > room) return 0;
  return size;
}

constexpr std::size_t kScanChunk = 1 << 20;
// Group: the longest a sync is held for posters expected back, and the most it holds in memory.
constexpr long long kMaxHoldUs = 2000;
constexpr std::size_t kMaxHeldBytes = 1 << 20;
// Zeros written ahead of the events at a time; more is made when less than half of it is left.
constexpr off_t kAheadStep = 1 << 20;
constexpr std::size_t kZeroChunk = 64 * 1024;
const unsigned char kZeros[kZeroChunk] = {};

// Makes a rename in the log's directory durable.
void syncDirOf(const std::string& path) {
  OslFd d(open(std::filesystem::path(path).parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (d) fsync(d.get());
}

}  // namespace

ssize_t LogIo::pwrite(int fd, const void* buffer, std::size_t size, off_t offset) {
  return ::pwrite(fd, buffer, size, offset);
}
int LogIo::fdatasync(int fd) { return ::fdatasync(fd); }
LogIo& LogIo::system() {
  static LogIo io;
  return io;
}

EventLog::EventLog(const std::string& path, SyncPolicy policy, int intervalMs, LogIo& io, LogLimits limits)
    : path_(path), policy_(policy), intervalMs_(intervalMs), io_(io), limits_(limits) {
  if (limits_.keep < 1) limits_.keep = 1;
  std::error_code ec;
  std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ec);
  // O_NONBLOCK only so that a FIFO put in the log's place can't hang the open; it is refused below.
  fd_.reset(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0640));
  if (!fd_) {
    if (errno == ELOOP) throw LogError("the event log " + path + " is a symbolic link; refusing to follow it");
    throw LogError("cannot open the event log " + path + ": " + errText());
  }
  struct stat st;
  if (fstat(fd_.get(), &st) != 0) throw LogError("cannot stat the event log " + path + ": " + errText());
  if (!S_ISREG(st.st_mode)) throw LogError("the event log " + path + " is not a regular file");
  fcntl(fd_.get(), F_SETFL, fcntl(fd_.get(), F_GETFL) & ~O_NONBLOCK);
  repair();
  aheadEnd_ = size_;
  durableSize_ = size_;
  durableEvents_ = events_;
  lastSyncMs_ = nowMs();
}

EventLog::~EventLog() {
  try {
    commit();
  } catch (const LogError&) {
    // Nothing is acknowledged from here on; what the last commit could not write is lost to
    // a daemon that is going away, and its posters were told.
  }
  try {
    sync();
  } catch (const LogError&) {
  }
  // A stopped daemon leaves a plain stream of events (readers stop at zeros left behind).
  try {
    if (cutSpaceAhead()) io_.fdatasync(fd_.get());
  } catch (const LogError&) {
  }
}

// The length of the valid block at `at`, or 0. Valid is what a reader takes: a sound head, the
// checksum if there is one, and every record in place.
off_t EventLog::validBlockAt(off_t at, off_t size) const {
  unsigned char head[EVM_HEAD_SIZE];
  off_t room = size - at;
  if (room < static_cast<off_t>(EVM_OLD_HEAD_SIZE)) return 0;
  std::size_t want = static_cast<std::size_t>(std::min<off_t>(room, EVM_HEAD_SIZE));
  if (!preadAll(fd_.get(), head, want, at)) return 0;
  std::uint32_t n = plausibleSize(head, room);
  if (n == 0) return 0;
  auto* block = static_cast<EvmEventHead_t*>(std::malloc(std::max<std::size_t>(n, EVM_HEAD_SIZE)));
  if (block == nullptr) return 0;
  std::memset(block, 0, EVM_HEAD_SIZE);
  if (!preadAll(fd_.get(), block, n, at) || _evmTestChecksum(block) != EvmERROR_NONE) {
    std::free(block);
    return 0;
  }
  EvmEvent_t ev = _evmMakeEvent(block);  // frees the block when it fails
  if (ev == nullptr) return 0;
  EvmEventDestroy(ev);
  return n;
}

// The first offset at or after `from` where a valid block starts, or `size`.
off_t EventLog::nextValidBlock(off_t from, off_t size) const {
  std::vector<unsigned char> buf;
  for (off_t base = from; base < size; base += kScanChunk) {
    std::size_t n = static_cast<std::size_t>(std::min<off_t>(size - base, kScanChunk + EVM_HEAD_SIZE));
    buf.resize(n);
    if (!preadAll(fd_.get(), buf.data(), n, base)) return size;
    std::size_t last = std::min<std::size_t>(n, kScanChunk);
    for (std::size_t i = 0; i < last; ++i) {
      if (n - i < EVM_OFF_CONTROL_SIZE + 4) break;
      if (plausibleSize(buf.data() + i, size - base - static_cast<off_t>(i)) != 0 &&
          validBlockAt(base + static_cast<off_t>(i), size) != 0)
        return base + static_cast<off_t>(i);
    }
  }
  return size;
}

void EventLog::writeAll(int fd, const unsigned char* p, std::size_t n, off_t at) {
  while (n > 0) {
    ssize_t w = io_.pwrite(fd, p, n, at);
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) throw LogError("cannot write beside the event log " + path_ + ": " + errText());
    p += w;
    n -= static_cast<std::size_t>(w);
    at += w;
  }
}

// Copies the log's bytes of `s` to `out` at `at`, a chunk at a time; returns where they end.
off_t EventLog::copySpan(const Span& s, int out, off_t at) {
  std::vector<unsigned char> buf;
  for (off_t from = s.begin; from < s.end;) {
    std::size_t n = static_cast<std::size_t>(std::min<off_t>(s.end - from, kScanChunk));
    buf.resize(n);
    if (!preadAll(fd_.get(), buf.data(), n, from)) throw LogError("cannot read the event log " + path_);
    writeAll(out, buf.data(), n, at);
    from += static_cast<off_t>(n);
    at += static_cast<off_t>(n);
  }
  return at;
}

// Where the zeros that end the first `size` bytes of the file begin: the space made ahead that no
// event reached. Events are multiples of 8 bytes, so that space starts on a multiple of 8; zeros
// before it belong to what precedes them.
off_t EventLog::trailingZerosFrom(off_t size) const {
  std::vector<unsigned char> buf;
  for (off_t end = size; end > 0;) {
    off_t begin = std::max<off_t>(0, end - static_cast<off_t>(kScanChunk));
    buf.resize(static_cast<std::size_t>(end - begin));
    if (!preadAll(fd_.get(), buf.data(), buf.size(), begin)) return size;
    for (std::size_t i = buf.size(); i > 0; --i)
      if (buf[i - 1] != 0) return std::min(size, (begin + static_cast<off_t>(i) + 7) / 8 * 8);
    end = begin;
  }
  return 0;
}

// Copies the damaged bytes to the first free <log>.damaged.<n>: written beside under a
// temporary name, synced, renamed, so that a file of that name is always whole.
std::string EventLog::saveDamage(const Span& s) {
  std::string name;
  for (int n = 1;; ++n) {
    name = path_ + ".damaged." + std::to_string(n);
    struct stat st;
    if (lstat(name.c_str(), &st) != 0 && errno == ENOENT) break;
  }
  std::string tmp = name + ".tmp";
  unlink(tmp.c_str());
  OslFd out(open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0640));
  if (!out) throw LogError("cannot save the damaged part of the event log to " + tmp + ": " + errText());
  copySpan(s, out.get(), 0);
  if (io_.fdatasync(out.get()) != 0 || out.close() != 0 || rename(tmp.c_str(), name.c_str()) != 0)
    throw LogError("cannot save the damaged part of the event log to " + name + ": " + errText());
  syncDirOf(name);
  return name;
}

// Replaces the log by a copy of the spans to keep: written beside, synced, renamed over it.
void EventLog::rewriteWithout(const std::vector<Span>& keep) {
  std::string tmp = path_ + ".repair";
  unlink(tmp.c_str());
  OslFd out(open(tmp.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0640));
  if (!out) throw LogError("cannot write the repaired event log " + tmp + ": " + errText());
  off_t total = 0;
  for (const Span& s : keep) total = copySpan(s, out.get(), total);
  if (io_.fdatasync(out.get()) != 0 || rename(tmp.c_str(), path_.c_str()) != 0)
    throw LogError("cannot replace the event log " + path_ + " by its repaired copy: " + errText());
  syncDirOf(path_);
  fd_ = std::move(out);
  size_ = total;
}

void EventLog::repair() {
  struct stat st;
  if (fstat(fd_.get(), &st) != 0) throw LogError("cannot stat the event log " + path_ + ": " + errText());
  const off_t size = st.st_size;
  // Zeros that end the file are space made ahead by a daemon that did not stop (or damage that
  // left zeros): no event, and nothing to save.
  const off_t zeros = trailingZerosFrom(size);
  std::vector<Span> keep, damaged;
  off_t at = 0;
  while (at < size) {
    off_t n = validBlockAt(at, size);
    if (n > 0) {
      if (!keep.empty() && keep.back().end == at)
        keep.back().end = at + n;
      else
        keep.push_back({at, at + n});
      ++events_;
      at += n;
      continue;
    }
    if (at >= zeros) break;
    off_t next = nextValidBlock(at + 1, size);
    damaged.push_back({at, next == size ? zeros : next});
    at = next;
  }
  size_ = std::min(at, size);
  if (damaged.empty()) {
    if (size_ < size && (ftruncate(fd_.get(), size_) != 0 || io_.fdatasync(fd_.get()) != 0))
      throw LogError("cannot cut the zeros at the end of the event log " + path_ + ": " + errText());
    return;
  }
  // The damaged bytes are safe beside the log before any of them leaves it.
  for (const Span& d : damaged) {
    damagedFiles_.push_back(saveDamage(d));
    removed_ += static_cast<std::uint64_t>(d.end - d.begin);
  }
  if (damaged.size() == 1 && damaged[0].end == zeros) {
    // Only a torn end: cut it.
    if (ftruncate(fd_.get(), damaged[0].begin) != 0 || io_.fdatasync(fd_.get()) != 0)
      throw LogError("cannot cut the torn end of the event log " + path_ + ": " + errText());
    size_ = damaged[0].begin;
    return;
  }
  rewriteWithout(keep);
}

void EventLog::add(const void* block, std::size_t size) {
  const auto* p = static_cast<const unsigned char*>(block);
  batch_.insert(batch_.end(), p, p + size);
  ++batchEvents_;
}

// Takes a failed batch back out of the file, so that what is there is only what was answered
// as taken.
void EventLog::takeBack(off_t size) {
  if (ftruncate(fd_.get(), size) != 0) {
    // The bytes stay; a reader takes them for events that their posters were told failed.
    return;
  }
  aheadEnd_ = size;
}

// Writes zeros ahead of the events when less than half a step is left, up to the length at which
// the log rotates. Best effort: space that cannot be made is cut back, and asked for again only a
// step later, so that a full disk costs one try per step.
void EventLog::makeSpaceAhead() {
  if (aheadEnd_ - size_ >= kAheadStep / 2 || size_ < aheadRetryAt_) return;
  off_t limit = limits_.maxBytes > 0 ? static_cast<off_t>(limits_.maxBytes) : size_ + kAheadStep;
  off_t end = std::min(size_ + kAheadStep, limit);
  for (off_t at = aheadEnd_; at < end;) {
    std::size_t n = static_cast<std::size_t>(std::min<off_t>(end - at, static_cast<off_t>(kZeroChunk)));
    ssize_t w = io_.pwrite(fd_.get(), kZeros, n, at);
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) {
      if (ftruncate(fd_.get(), aheadEnd_) != 0) end = at;  // what was written is zeros all the same
      else end = aheadEnd_;
      aheadRetryAt_ = size_ + kAheadStep;
      break;
    }
    at += w;
  }
  aheadEnd_ = std::max(aheadEnd_, end);
}

// Cuts the zeros ahead off, so that the file holds only events; whether it cut any.
bool EventLog::cutSpaceAhead() {
  if (aheadEnd_ == size_) return false;
  if (ftruncate(fd_.get(), size_) != 0)
    throw LogError("cannot cut the zeros at the end of the event log " + path_ + ": " + errText());
  aheadEnd_ = size_;
  return true;
}

// Writes the queued blocks at the end of the file, rotating first if they would take it past its
// limit. Throws LogError, with the file as it was, when that fails.
void EventLog::writeBatch() {
  std::vector<unsigned char> batch;
  batch.swap(batch_);
  std::size_t count = batchEvents_;
  batchEvents_ = 0;
  if (limits_.maxBytes > 0 && size_ > 0 && static_cast<std::uint64_t>(size_) + batch.size() > limits_.maxBytes) rotate();
  const unsigned char* p = batch.data();
  std::size_t left = batch.size();
  off_t at = size_;
  while (left > 0) {
    ssize_t n = io_.pwrite(fd_.get(), p, left, at);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      std::string why = n < 0 ? errText() : "nothing written";
      takeBack(size_);
      throw LogError("cannot write the event log " + path_ + ": " + why);
    }
    p += n;
    left -= static_cast<std::size_t>(n);
    at += n;
  }
  size_ = at;
  aheadEnd_ = std::max(aheadEnd_, size_);
  events_ += count;
  makeSpaceAhead();
}

std::uint64_t EventLog::commit() {
  if (batchEvents_ == 0) return written_;
  if (policy_ == SyncPolicy::Group) {
    // Held until the sync is due, then written in one go.
    if (unsynced_ == 0) firstUnsyncedUs_ = nowUs();
    // The queued events stay in batch_; unsynced_ counts them until the sync writes them.
    unsynced_ += batchEvents_;
    batchEvents_ = 0;
    return ++written_;
  }
  const off_t before = size_;
  const std::uint64_t eventsBefore = events_;
  writeBatch();
  dirty_ = true;
  if (nowMs() - lastSyncMs_ >= intervalMs_) {
    try {
      syncNow();
    } catch (const LogError&) {
      takeBack(before);
      size_ = before;
      events_ = eventsBefore;
      throw;
    }
  }
  ++written_;
  settled_ = written_;
  outcomes_.push_back({written_, true, std::string()});
  return written_;
}

std::vector<EventLog::Outcome> EventLog::takeOutcomes() {
  std::vector<Outcome> out;
  out.swap(outcomes_);
  return out;
}

long long EventLog::usUntilSyncDue() const {
  if (policy_ == SyncPolicy::Group) {
    if (written_ == settled_) return -1;
    if (unsynced_ >= lastCovered_ || batch_.size() >= kMaxHeldBytes) return 0;
    const long long hold = std::min<long long>(lastSyncUs_, kMaxHoldUs);
    return std::max<long long>(0, firstUnsyncedUs_ + hold - nowUs());
  }
  if (!dirty_) return -1;
  return std::max<long long>(0, (lastSyncMs_ + intervalMs_ - nowMs()) * 1000);
}

void EventLog::syncIfDue() {
  if (usUntilSyncDue() == 0) sync();
}

// Group: writes what was held, in one write, and syncs it; the outcome settles every mark handed
// out so far.
void EventLog::groupSync() {
  if (written_ == settled_) return;
  const long long t0 = nowUs();
  std::string why;
  batchEvents_ = static_cast<std::size_t>(unsynced_);
  try {
    writeBatch();
    if (io_.fdatasync(fd_.get()) != 0) why = "cannot sync the event log " + path_ + ": " + errText();
  } catch (const LogError& e) {
    batch_.clear();
    batchEvents_ = 0;
    why = e.what();
  }
  const long long took = nowUs() - t0;
  if (why.empty()) {
    settled_ = written_;
    durableSize_ = size_;
    durableEvents_ = events_;
    lastCovered_ = unsynced_;
    lastSyncUs_ = took;
    syncMicros_ += took;
    ++syncs_;
    syncedEvents_ += unsynced_;
    outcomes_.push_back({settled_, true, std::string()});
  } else {
    // What the sync was to cover may be lost whatever the file says now: all of it is taken
    // back and answered as failed.
    takeBack(durableSize_);
    size_ = durableSize_;
    events_ = durableEvents_;
    settled_ = written_;
    lastCovered_ = 0;
    outcomes_.push_back({settled_, false, why});
  }
  unsynced_ = 0;
}

// Interval: one fdatasync in this thread.
void EventLog::syncNow() {
  if (io_.fdatasync(fd_.get()) != 0) {
    std::string why = errText();
    lastSyncMs_ = nowMs();  // not again at once: the next due time retries
    throw LogError("cannot sync the event log " + path_ + ": " + why);
  }
  dirty_ = false;
  lastSyncMs_ = nowMs();
}

void EventLog::sync() {
  if (policy_ == SyncPolicy::Group) return groupSync();
  if (dirty_) syncNow();
}

void EventLog::rotate() {
  // Whatever the old file holds is synced, and its zeros are cut, before it leaves the name
  // readers follow.
  if (cutSpaceAhead() || dirty_) syncNow();
  std::string fresh = path_ + ".new";
  unlink(fresh.c_str());
  OslFd next(open(fresh.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0640));
  if (!next) throw LogError("cannot make a new event log " + fresh + ": " + errText());
  if (io_.fdatasync(next.get()) != 0) {
    std::string why = errText();
    unlink(fresh.c_str());
    throw LogError("cannot sync the new event log " + fresh + ": " + why);
  }
  auto numbered = [this](int n) { return path_ + "." + std::to_string(n); };
  for (int n = limits_.keep - 1; n >= 1; --n) {
    if (rename(numbered(n).c_str(), numbered(n + 1).c_str()) != 0 && errno != ENOENT)
      throw LogError("cannot rotate the event log " + numbered(n) + ": " + errText());
  }
  if (rename(path_.c_str(), numbered(1).c_str()) != 0)
    throw LogError("cannot rotate the event log " + path_ + ": " + errText());
  if (rename(fresh.c_str(), path_.c_str()) != 0) {
    std::string why = errText();
    // The old file goes back to its name; the chain behind it has moved up by one.
    rename(numbered(1).c_str(), path_.c_str());
    unlink(fresh.c_str());
    throw LogError("cannot put the new event log in place of " + path_ + ": " + why);
  }
  syncDirOf(path_);
  fd_ = std::move(next);
  size_ = aheadEnd_ = durableSize_ = aheadRetryAt_ = 0;
}

}  // namespace evmd
