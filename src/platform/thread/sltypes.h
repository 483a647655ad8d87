#ifndef PLATFORM_THREAD_SLTYPES_H
#define PLATFORM_THREAD_SLTYPES_H

// The scalar types the closed services and the shared layers speak in.
#include <cstdint>

typedef std::uint8_t ub1;
typedef std::uint32_t ub4;
typedef std::uint64_t ub8;
typedef std::int32_t sb4;
typedef long sword;
typedef unsigned long uword;
// Text arguments of the closed services are unsigned characters.
typedef unsigned char zeltext;

#endif
