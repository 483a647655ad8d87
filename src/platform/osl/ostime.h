#ifndef PLATFORM_OSL_OSTIME_H
#define PLATFORM_OSL_OSTIME_H

// Wall-clock time of the OS services layer: seconds since the epoch as 32 bits, and their text.
#include <cstddef>
#include <cstdint>

// The current time in seconds since 1970-01-01 UTC, cut to 32 bits.
std::uint32_t osgts();

// Writes the local time `t` as "Mon Nov 23 04:52:12 2026" (no line end) into buf, always
// terminated and cut to fit. The length written, or -1 when buf holds nothing or the time
// cannot be converted.
int osgcts(std::uint32_t t, char* buf, std::size_t size);

#endif
