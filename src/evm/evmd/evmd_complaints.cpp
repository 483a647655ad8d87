// Rate-limited complaints about clients.
#include "evm/evmd/evmd_complaints.h"

namespace evmd {

void Complaints::say(const std::string& kind, Kind& k, const std::string& detail, long long now) {
  std::string line = " vyn_evmd: " + kind;
  if (!detail.empty()) line += " (" + detail + ")";
  if (k.unsaid > 1) line += "; " + std::to_string(k.unsaid) + " times since the last report";
  writer_(line);
  k.lastLineMs = now;
  k.said = true;
  k.unsaid = 0;
}

void Complaints::note(const std::string& kind, const std::string& detail) {
  long long now = clock_();
  Kind& k = kinds_[kind];
  ++k.unsaid;
  if (!k.said || now - k.lastLineMs >= kPeriodMs) say(kind, k, detail, now);
}

void Complaints::flush() {
  long long now = clock_();
  for (auto& kv : kinds_)
    if (kv.second.unsaid > 0) say(kv.first, kv.second, "", now);
}

}  // namespace evmd
