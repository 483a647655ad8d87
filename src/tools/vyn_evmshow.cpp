// vyn_evmshow: prints the events of the event daemon's log, oldest first.
//   -f FILE   read FILE instead of <home>/log/evm/events.log; "-f -" reads standard input
//   -a        the rotated logs first (FILE.N ... FILE.1), then FILE
//   -t TEMPL  each event through a template; -d dumps each event whole; -j one JSON object a line
//   -n PATT   only events whose name matches PATT ("*" and "?" stand for whole components)
//   -s TIME   only events at or after TIME; -u TIME only those before (YYYY-mm-ddTHH:MM:SS, local)
//   -c N      only the last N events
//   -F        go on reading as the daemon appends, across its rotation of the log
// Damage in the log (garbage, a torn end) is reported once with its offset and skipped.
// Exit status: 0; 1 when an input cannot be read or the output cannot be written; 2 for a bad
// command line.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <string>
#include <utility>
#include <vector>

#include "evm/libevm/evm.h"
#include "platform/osl/osl_fd.h"
#include "tools/evm_show_output.h"

namespace {

using evmshow::message;

const char kUsage[] =
    "usage: vyn_evmshow [-a] [-f FILE|-] [-t TEMPLATE|-d|-j] [-n PATTERN] [-s TIME] [-u TIME] [-c N] [-F]\n"
    "       TIME is YYYY-mm-ddTHH:MM:SS, local time\n";

[[noreturn]] void usage() {
  std::fputs(kUsage, stderr);
  std::exit(2);
}

constexpr long kFollowPollUs = 200 * 1000;
constexpr std::size_t kReadChunk = 256 * 1024;
constexpr std::size_t kControlEnd = EVM_OFF_CONTROL_SIZE + 4;  // enough to judge a head

// Reads a stream of event blocks through a window of bounded size, one block at a time. Bytes
// that make no valid block are skipped up to the next valid block and reported once; what is
// left at the end without making a block is reported as a torn end. Zeros that run to the end
// are the space a running daemon makes ahead of its events: the end of the events, not damage.
// A block never starts with four zero bytes (its first word is its length).
class BlockReader {
 public:
  enum Result { kEvent, kEnd, kError };

  BlockReader(OslFd fd, std::string name) : fd_(std::move(fd)), name_(std::move(name)), buf_(kReadChunk) {}

  // The next valid event. `final` says that the input will not grow: a block cut short by its
  // end (or by the zeros at its end) is then damage; otherwise it may still be coming, and the
  // reader waits at it, reading it again from its start next time. `*owned`
  // says whether the caller must destroy the event; one that is not owned lives until the next
  // call.
  Result next(EvmEvent_t* ev, bool* owned, bool final) {
    for (;;) {
      std::size_t need = 0;
      std::uint32_t size = 0;
      EvmEvent_t found = tryAt(&need, &size, owned);
      if (found != nullptr) {
        reportDamage(false);
        pos_ += size;
        *ev = found;
        return kEvent;
      }
      if (need != 0) {
        if (fill(need)) continue;
        if (failed_) return kError;
        if (!final) return kEnd;
        if (pos_ == end_) {
          reportDamage(true);
          return kEnd;
        }
      }
      if (zeroWordAt(pos_)) {
        Result r;
        if (skipZeros(final, &r)) return r;
        continue;
      }
      // No block starts here: look one byte further.
      if (damageStart_ < 0) damageStart_ = offset();
      ++pos_;
    }
  }

  int fd() const { return fd_.get(); }
  const std::string& name() const { return name_; }
  int error() const { return errno_; }

 private:
  long long offset() const { return base_ + static_cast<long long>(pos_); }

  // A valid event of `size` bytes starting at pos_, or null; `need` is set when more bytes
  // could decide.
  EvmEvent_t tryAt(std::size_t* need, std::uint32_t* size, bool* owned) {
    std::size_t avail = end_ - pos_;
    if (avail < kControlEnd) {
      *need = kControlEnd;
      return nullptr;
    }
    const unsigned char* p = buf_.data() + pos_;
    *size = evmLoad32(p, EVM_OFF_CONTROL_SIZE);
    return makeEvent(p, avail, *size, need, owned);
  }

  EvmEvent_t makeEvent(const unsigned char* p, std::size_t avail, std::uint32_t size, std::size_t* need,
                       bool* owned) {
    std::uint16_t ident, type;
    std::memcpy(&ident, p + EVM_OFF_CONTROL, 2);
    std::memcpy(&type, p + EVM_OFF_CONTROL + 2, 2);
    if (ident != EVM_BLOCK_IDENT || type < 1 || type > 3 || size < EVM_OLD_HEAD_SIZE || size > EVM_MAX_EVENT_SIZE)
      return nullptr;
    if (avail < size) {
      *need = size;
      return nullptr;
    }
    if (size >= EVM_HEAD_SIZE && evmLoad32(p, EVM_OFF_EXT_ITEM_ID) == EvmITEM_HDR_EXT_SIZE) {
      // A block of the current form needs no translation, so it is checked (checksum included)
      // and shown where it stands, behind a handle of our own: no allocation per event. Blocks
      // are multiples of 8 bytes, so in an undamaged log each is aligned in the window; one
      // behind damage may not be, and is copied to an aligned scratch block first.
      const unsigned char* at = p;
      if (reinterpret_cast<std::uintptr_t>(p) % alignof(EvmEventHead_t) != 0) {
        scratch_.resize((size + 7) / 8);
        std::memcpy(scratch_.data(), p, size);
        at = reinterpret_cast<const unsigned char*>(scratch_.data());
      }
      borrowed_.magic = EVM_HANDLE_MAGIC;
      borrowed_.head_p = reinterpret_cast<EvmEventHead_t*>(const_cast<unsigned char*>(at));
      borrowed_.next_event = nullptr;
      if (_evmValidate(&borrowed_, nullptr) != EvmERROR_NONE) return nullptr;
      *owned = false;
      return &borrowed_;
    }
    std::size_t alloc = std::max<std::size_t>(size, EVM_HEAD_SIZE);
    auto* block = static_cast<EvmEventHead_t*>(std::malloc(alloc));
    if (block == nullptr) return nullptr;
    if (alloc > size) std::memset(reinterpret_cast<unsigned char*>(block) + size, 0, alloc - size);
    std::memcpy(block, p, size);
    if (_evmTestChecksum(block) != EvmERROR_NONE) {
      std::free(block);
      return nullptr;
    }
    *owned = true;
    return _evmMakeEvent(block);  // takes the block either way
  }

  bool zeroWordAt(std::size_t at) const {
    return end_ - at >= 4 && buf_[at] == 0 && buf_[at + 1] == 0 && buf_[at + 2] == 0 && buf_[at + 3] == 0;
  }

  // Passes over the zeros at pos_. Followed by more data they are damage (or part of it), and the
  // search for a block goes on at the last place one could start. Running to the end they are
  // the end: `*r` is set and true returned. When the input may still grow, the reader goes back to
  // where the unfinished bytes began, so that what is written over them is read next time.
  bool skipZeros(bool final, Result* r) {
    const long long zerosAt = offset();
    for (;;) {
      const unsigned char* from = buf_.data() + pos_;
      const unsigned char* to = buf_.data() + end_;
      const unsigned char* nonzero = std::find_if(from, to, [](unsigned char c) { return c != 0; });
      if (nonzero != to) {
        // A block may begin up to three bytes before its first nonzero byte.
        pos_ = std::max(pos_, static_cast<std::size_t>(nonzero - buf_.data()) - 3);
        if (damageStart_ < 0) damageStart_ = zerosAt;
        return false;
      }
      pos_ = std::max(pos_, end_ - std::min<std::size_t>(end_, 3));
      if (fill(4)) continue;
      if (failed_) {
        *r = kError;
        return true;
      }
      if (std::any_of(buf_.data() + pos_, buf_.data() + end_, [](unsigned char c) { return c != 0; })) {
        // A few bytes after the zeros: damage, which the end reports.
        if (damageStart_ < 0) damageStart_ = zerosAt;
        return false;
      }
      *r = kEnd;
      if (final) {
        // An event cut short keeps the zeros behind it, as a torn end without them would.
        pos_ = end_;
        reportDamage(true);
        return true;
      }
      const long long back = damageStart_ >= 0 ? damageStart_ : zerosAt;
      if (lseek(fd_.get(), back, SEEK_SET) == back) {
        base_ = back;
        pos_ = end_ = 0;
        damageStart_ = -1;
      }
      return true;
    }
  }

  // Makes `need` bytes from pos_ available; false at the end of the input (for now) or on an
  // error. The window moves forward; it never holds more than one largest block and a chunk.
  bool fill(std::size_t need) {
    if (pos_ + need > buf_.size()) {
      std::memmove(buf_.data(), buf_.data() + pos_, end_ - pos_);
      base_ += static_cast<long long>(pos_);
      end_ -= pos_;
      pos_ = 0;
      if (need + kReadChunk / 4 > buf_.size()) buf_.resize(need + kReadChunk / 4);
    }
    while (end_ - pos_ < need) {
      ssize_t n = read(fd_.get(), buf_.data() + end_, buf_.size() - end_);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) {
        failed_ = true;
        errno_ = errno;
        return false;
      }
      if (n == 0) return false;
      end_ += static_cast<std::size_t>(n);
    }
    return true;
  }

  // Reports the damage that began at damageStart_ and ends where the reader stands.
  void reportDamage(bool atEnd) {
    if (damageStart_ < 0) return;
    const long long from = damageStart_, bytes = offset() - from;
    damageStart_ = -1;
    if (bytes <= 0) return;
    if (atEnd)
      message(evmshow::kMsgTorn, "%s: incomplete event at offset %lld (%lld bytes) at the end ignored",
              name_.c_str(), from, bytes);
    else
      message(evmshow::kMsgDamaged, "%s: damaged data at offset %lld (%lld bytes) skipped", name_.c_str(), from,
              bytes);
  }

  OslFd fd_;
  std::string name_;
  std::vector<unsigned char> buf_;
  std::vector<std::uint64_t> scratch_;  // the block of a borrowed event
  EvmEventHandle_s borrowed_{};
  std::size_t pos_ = 0, end_ = 0;  // unread bytes are buf_[pos_, end_)
  long long base_ = 0;             // offset in the input of buf_[0]
  long long damageStart_ = -1;     // where the bytes that make no block began
  bool failed_ = false;
  int errno_ = 0;
};

struct Options {
  evmshow::Output output;
  std::string file;
  bool all = false;
  bool follow = false;
  std::string pattern;
  bool havePattern = false;
  bool haveSince = false, haveUntil = false;
  EvmTimestamp_t since = 0, until = 0;
  long long count = -1;
};

EvmTimestamp_t parseTime(const char* text) {
  struct tm tm;
  std::memset(&tm, 0, sizeof tm);
  const char* end = strptime(text, "%Y-%m-%dT%H:%M:%S", &tm);
  if (end == nullptr || *end != '\0') {
    message(evmshow::kMsgBadTime, "Invalid time \"%s\": use YYYY-mm-ddTHH:MM:SS", text);
    usage();
  }
  tm.tm_isdst = -1;
  std::time_t t = std::mktime(&tm);
  if (t < 0) {
    message(evmshow::kMsgBadTime, "Invalid time \"%s\": use YYYY-mm-ddTHH:MM:SS", text);
    usage();
  }
  return static_cast<EvmTimestamp_t>(t);
}

Options parse(int argc, char** argv) {
  Options o;
  int outputs = 0;
  opterr = 0;
  int c;
  while ((c = getopt(argc, argv, "+af:t:djn:s:u:c:F")) != -1) {
    switch (c) {
      case 'a': o.all = true; break;
      case 'f': o.file = optarg; break;
      case 't': o.output.mode = evmshow::Mode::Template; o.output.templ = optarg; ++outputs; break;
      case 'd': o.output.mode = evmshow::Mode::Dump; ++outputs; break;
      case 'j': o.output.mode = evmshow::Mode::Json; ++outputs; break;
      case 'n':
        o.pattern = optarg;
        o.havePattern = true;
        if (_evmStringCheck(optarg, nullptr, EvmTRUE) != EvmERROR_NONE) {
          message(evmshow::kMsgBadPattern, "Invalid name pattern \"%s\"", optarg);
          usage();
        }
        break;
      case 's': o.since = parseTime(optarg); o.haveSince = true; break;
      case 'u': o.until = parseTime(optarg); o.haveUntil = true; break;
      case 'c': {
        char* end = nullptr;
        errno = 0;
        long long n = std::strtoll(optarg, &end, 10);
        if (*optarg < '0' || *optarg > '9' || *end != '\0' || errno != 0) {
          message(evmshow::kMsgBadCount, "Invalid count \"%s\"", optarg);
          usage();
        }
        o.count = n;
        break;
      }
      case 'F': o.follow = true; break;
      default: usage();
    }
  }
  if (optind != argc || outputs > 1 || (o.all && o.file == "-")) usage();
  return o;
}

// The rotated logs beside `path`, oldest first: path.N ... path.1.
std::vector<std::string> rotated(const std::string& path) {
  std::string dir = ".", base = path;
  std::size_t slash = path.rfind('/');
  if (slash != std::string::npos) {
    dir = slash == 0 ? "/" : path.substr(0, slash);
    base = path.substr(slash + 1);
  }
  std::vector<std::pair<unsigned long, std::string>> found;
  DIR* d = opendir(dir.c_str());
  if (d == nullptr) return {};
  while (dirent* e = readdir(d)) {
    std::string n = e->d_name;
    if (n.size() <= base.size() + 1 || n.compare(0, base.size() + 1, base + ".") != 0) continue;
    std::string suffix = n.substr(base.size() + 1);
    if (suffix.find_first_not_of("0123456789") != std::string::npos || suffix[0] == '0') continue;
    found.emplace_back(std::strtoul(suffix.c_str(), nullptr, 10), (slash == std::string::npos ? "" : dir + "/") + n);
  }
  closedir(d);
  std::sort(found.begin(), found.end(), [](const auto& a, const auto& b) { return a.first > b.first; });
  std::vector<std::string> out;
  for (auto& f : found) out.push_back(f.second);
  return out;
}

class Shower {
 public:
  explicit Shower(const Options& o) : o_(o), renderer_(o.output) {}
  ~Shower() {
    for (EvmEvent_t ev : ring_) EvmEventDestroy(ev);
  }

  // Shows or keeps the event, and destroys it if it is `owned`.
  void take(EvmEvent_t ev, bool owned) {
    if (!wanted(ev) || (o_.count == 0 && !live_)) {
      if (owned) EvmEventDestroy(ev);
      return;
    }
    if (o_.count >= 0 && !live_) {
      if (!owned) {
        EvmEvent_t copy = nullptr;
        if (EvmEventDup(&copy, ev) != EvmERROR_NONE) return;
        ev = copy;
      }
      ring_.push_back(ev);
      if (static_cast<long long>(ring_.size()) > o_.count) {
        EvmEventDestroy(ring_.front());
        ring_.pop_front();
      }
      return;
    }
    print(ev);
    if (owned) EvmEventDestroy(ev);
  }

  // What was kept for the end goes out; from now on every event goes out as it comes.
  void goLive() {
    for (EvmEvent_t ev : ring_) {
      print(ev);
      EvmEventDestroy(ev);
    }
    ring_.clear();
    live_ = true;
  }

  bool flush() {
    if (!text_.empty()) {
      std::fwrite(text_.data(), 1, text_.size(), stdout);
      text_.clear();
    }
    return std::fflush(stdout) == 0 && !std::ferror(stdout);
  }

 private:
  bool wanted(EvmEvent_t ev) {
    EvmItemValue_t v;
    if (o_.havePattern) {
      const char* name = _evmuiItemGet(ev, EvmITEM_NAME, &v) == EvmERROR_NONE ? v.NAME : "";
      if (EvmEventNameMatch(o_.pattern.c_str(), name) == EvmFALSE) return false;
    }
    if (o_.haveSince || o_.haveUntil) {
      if (_evmuiItemGet(ev, EvmITEM_TIMESTAMP, &v) != EvmERROR_NONE) return false;
      if (o_.haveSince && v.TIMESTAMP < o_.since) return false;
      if (o_.haveUntil && v.TIMESTAMP >= o_.until) return false;
    }
    return true;
  }

  void print(EvmEvent_t ev) {
    renderer_.render(ev, &text_);
    if (text_.size() >= kReadChunk) {
      std::fwrite(text_.data(), 1, text_.size(), stdout);
      text_.clear();
    }
  }

  const Options& o_;
  evmshow::Renderer renderer_;
  std::deque<EvmEvent_t> ring_;
  std::string text_;
  bool live_ = false;
};

// Reads one input to its end; false when it could not be read.
bool readAll(BlockReader& reader, Shower& shower, bool final) {
  for (;;) {
    EvmEvent_t ev = nullptr;
    bool owned = false;
    BlockReader::Result r = reader.next(&ev, &owned, final);
    if (r == BlockReader::kEvent) {
      shower.take(ev, owned);
      continue;
    }
    if (r == BlockReader::kError) {
      message(evmshow::kMsgCannotRead, "Cannot read %s: %s", reader.name().c_str(), std::strerror(reader.error()));
      return false;
    }
    return true;
  }
}

bool openInput(const std::string& path, OslFd* fd, bool quiet = false) {
  if (path == "-") {
    // A copy, so that closing the input never closes the process's standard input.
    int f = fcntl(0, F_DUPFD_CLOEXEC, 0);
    if (f < 0) {
      if (!quiet) message(evmshow::kMsgCannotRead, "Cannot read %s: %s", "standard input", std::strerror(errno));
      return false;
    }
    *fd = OslFd(f);
    return true;
  }
  int f = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (f < 0) {
    if (!quiet) message(evmshow::kMsgCannotRead, "Cannot read %s: %s", path.c_str(), std::strerror(errno));
    return false;
  }
  *fd = OslFd(f);
  return true;
}

// Whether `path` now names another file than the one open on `fd`.
bool replaced(const std::string& path, int fd) {
  struct stat named, open;
  if (stat(path.c_str(), &named) != 0 || fstat(fd, &open) != 0) return false;
  return named.st_ino != open.st_ino || named.st_dev != open.st_dev;
}

int follow(BlockReader reader, const std::string& path, Shower& shower) {
  for (;;) {
    if (!readAll(reader, shower, false)) return 1;
    if (!shower.flush()) return 1;
    if (path != "-" && replaced(path, reader.fd())) {
      // The daemon has rotated: the old file is finished first, then the new one from its start.
      if (!readAll(reader, shower, true)) return 1;
      OslFd fd;
      if (!openInput(path, &fd)) return 1;
      reader = BlockReader(std::move(fd), path);
      continue;
    }
    if (path == "-") return shower.flush() ? 0 : 1;  // a pipe's end is the end
    usleep(kFollowPollUs);
  }
}

}  // namespace

int main(int argc, char** argv) {
  Options o = parse(argc, argv);
  static char outBuf[1 << 16];
  std::setvbuf(stdout, outBuf, _IOFBF, sizeof outBuf);

  std::string path = o.file;
  if (path.empty()) {
    char* p = _evmmiscDirStrdup("/log/evm/events.log");
    if (p == nullptr) {
      message(evmshow::kMsgCannotRead, "Cannot read %s: %s", "<home>/log/evm/events.log", "ZEL_VYN_HOME is not set");
      return 1;
    }
    path = p;
    std::free(p);
  }
  std::vector<std::string> inputs;
  if (o.all) inputs = rotated(path);
  inputs.push_back(path);

  Shower shower(o);
  int status = 0;
  for (std::size_t i = 0; i < inputs.size(); ++i) {
    bool last = i + 1 == inputs.size();
    OslFd fd;
    if (last && o.follow && inputs[i] != "-" && !openInput(inputs[i], &fd)) {
      // Like tail -F: a log that is not there yet is waited for.
      while (!openInput(inputs[i], &fd, true)) usleep(kFollowPollUs);
    } else if (fd.get() < 0 && !openInput(inputs[i], &fd)) {
      status = 1;
      continue;
    }
    BlockReader reader(std::move(fd), inputs[i]);
    if (last && o.follow && inputs[i] != "-") {
      if (!readAll(reader, shower, false)) return 1;
      shower.goLive();
      return follow(std::move(reader), inputs[i], shower) != 0 ? 1 : status;
    }
    if (!readAll(reader, shower, true)) status = 1;
  }
  shower.goLive();
  if (!shower.flush()) {
    message(evmshow::kMsgCannotWrite, "Cannot write %s: %s", "standard output", std::strerror(errno));
    return 1;
  }
  return status;
}
