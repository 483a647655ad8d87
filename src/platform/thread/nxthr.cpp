#include "platform/thread/nxthr.h"

#include <chrono>

namespace {
thread_local bool t_hasCtx = false;
}

int nxthrInitctx() {
  t_hasCtx = true;
  return 0;
}

bool nxthrHasctx() { return t_hasCtx; }

std::uint64_t osrgatime64() {
  using namespace std::chrono;
  return static_cast<std::uint64_t>(
      duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count());
}
