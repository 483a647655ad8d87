#ifndef EVM_EVMD_EVMD_COMPLAINTS_H
#define EVM_EVMD_EVMD_COMPLAINTS_H

// What the daemon says about bad clients. A hostile client can open connections as fast as it
// likes, so a line per connection would let it fill the trace: each kind of complaint gets at
// most one line a minute, which counts the ones it stood for.
#include <functional>
#include <map>
#include <string>

namespace evmd {

class Complaints {
 public:
  using Clock = std::function<long long()>;  // milliseconds, monotonic
  using Writer = std::function<void(const std::string&)>;
  static constexpr long long kPeriodMs = 60000;

  Complaints(Clock clock, Writer writer) : clock_(std::move(clock)), writer_(std::move(writer)) {}

  // One more of `kind`; `detail` describes this one, and shows if it gets a line.
  void note(const std::string& kind, const std::string& detail);
  // Writes what is counted but not yet said (at the end of a run).
  void flush();

 private:
  struct Kind {
    long long lastLineMs = 0;
    bool said = false;
    unsigned long unsaid = 0;
  };
  void say(const std::string& kind, Kind& k, const std::string& detail, long long now);

  Clock clock_;
  Writer writer_;
  std::map<std::string, Kind> kinds_;
};

}  // namespace evmd

#endif
