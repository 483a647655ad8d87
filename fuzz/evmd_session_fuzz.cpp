// Fuzz target: the bytes one client sends to the event daemon, in pieces as reads would bring
// them, through its session; what it accepts goes through the event log. The first byte picks
// who the peer is and how the bytes are cut. Every input must end in answers or a cut-off,
// never a fault, and no length word may make the session hold more than it was given.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

#include "evm/evmd/evmd_log.h"
#include "evm/evmd/evmd_session.h"

namespace {

// The log's bytes go nowhere: the fuzzer exercises the path, not the disk.
class NullIo : public evmd::LogIo {
 public:
  ssize_t pwrite(int, const void*, std::size_t size, off_t) override { return static_cast<ssize_t>(size); }
  int fdatasync(int) override { return 0; }
};

struct Sink : evmd::SessionSink {
  explicit Sink(evmd::EventLog& log) : log(log) {}
  void accepted(const EvmEventHead_t* block, std::uint32_t size, const char* name) override {
    if (size < EVM_OLD_HEAD_SIZE || size > EVM_MAX_EVENT_SIZE || name == nullptr) std::abort();
    log.add(block, size);
  }
  void answer(const EvmCommHead_t& head, bool) override {
    if (head.ident != EVM_COMM_IDENT || head.clschdr.clschdr.size_xpcmsgh != EVM_COMM_HEAD_SIZE) std::abort();
    ++answers;
  }
  void complain(const char*, const std::string&) override {}
  evmd::EventLog& log;
  int answers = 0;
};

evmd::EventLog& theLog() {
  static NullIo io;
  // A scratch directory, removed at exit (after the log, which is made later, has closed).
  static char dir[] = "/tmp/evmd_session_fuzz.XXXXXX";
  static std::string path = [] {
    if (mkdtemp(dir) == nullptr) std::abort();
    std::atexit([] {
      std::error_code ec;
      std::filesystem::remove_all(dir, ec);
    });
    return std::string(dir) + "/events.log";
  }();
  static evmd::EventLog log(path, evmd::SyncPolicy::Group, 0, io);
  return log;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 1) return 0;
  evmd::EventLog& log = theLog();
  evmd::Peer peer;
  peer.local = (data[0] & 1) == 0;
  peer.uid = (data[0] & 2) ? 0 : 1000;
  peer.mayListen = (data[0] & 4) != 0;
  std::size_t piece = 1 + (data[0] >> 3) * 37;
  ++data;
  --size;
  evmd::Session s(peer);
  Sink sink(log);
  std::size_t fed = 0;
  while (fed < size) {
    std::size_t n = std::min(piece, size - fed);
    if (!s.feed(data + fed, n, sink)) break;
    fed += n;
    if (s.bufferSize() > 2 * (fed + 64 * 1024)) std::abort();  // memory follows what arrived
    try {
      log.commit();
    } catch (const evmd::LogError&) {
      std::abort();
    }
    log.syncIfDue();
    for (const auto& o : log.takeOutcomes())
      if (!o.ok) std::abort();
  }
  return 0;
}
