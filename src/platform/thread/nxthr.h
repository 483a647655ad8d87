#ifndef PLATFORM_THREAD_NXTHR_H
#define PLATFORM_THREAD_NXTHR_H

// The thread service: per-thread context, thread start and the monotonic millisecond clock.
#include <pthread.h>

#include <cstdint>

#include "platform/thread/sltypes.h"

// Starts the calling thread's context. 0 on success.
int nxthrInitctx();
// True once the calling thread has a context.
bool nxthrHasctx();

// Milliseconds of a monotonic clock, as 64 bits; callers that keep 32 bits take differences
// modulo 2^32.
std::uint64_t osrgatime64();

typedef pthread_t nxthrid;
typedef pthread_t nxthrhdl;
// Asks ext_nxthrSpawn for a thread nobody joins.
enum { NXTHR_DETACHED = 2 };

// Starts `start(arg)` on a new thread. A stack size of 0 leaves the size to the system. With
// NXTHR_DETACHED in `flags` the thread is detached; otherwise `tHnd` (if given) can be joined.
// 0 on success, else the system's error number.
int ext_nxthrSpawn(void* (*start)(void*), void* arg, nxthrid* tID, nxthrhdl* tHnd,
                   uword stacksize, sword flags);

#endif
