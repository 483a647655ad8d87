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

int ext_nxthrSpawn(void* (*start)(void*), void* arg, nxthrid* tID, nxthrhdl* tHnd, uword stacksize,
                   sword flags) {
  pthread_attr_t attr;
  int rc = pthread_attr_init(&attr);
  if (rc != 0) return rc;
  if (stacksize != 0) rc = pthread_attr_setstacksize(&attr, stacksize);
  if (rc == 0 && (flags & NXTHR_DETACHED) != 0) rc = pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
  pthread_t t;
  if (rc == 0) rc = pthread_create(&t, &attr, start, arg);
  pthread_attr_destroy(&attr);
  if (rc != 0) return rc;
  if (tID != nullptr) *tID = t;
  if (tHnd != nullptr) *tHnd = t;
  return 0;
}
