#ifndef PLATFORM_THREAD_NXTHR_H
#define PLATFORM_THREAD_NXTHR_H

// The thread service: per-thread context and the monotonic millisecond clock.
#include <cstdint>

// Starts the calling thread's context. 0 on success.
int nxthrInitctx();
// True once the calling thread has a context.
bool nxthrHasctx();

// Milliseconds of a monotonic clock, as 64 bits; callers that keep 32 bits take differences
// modulo 2^32.
std::uint64_t osrgatime64();

#endif
