#ifndef EVM_LIBEVM_EVM_ITEMPKG_H
#define EVM_LIBEVM_EVM_ITEMPKG_H

// The item package: a varargs list of item ids and values turned into one table in memory, so
// that every size and check is settled before an event is touched. A relocatable package holds
// copies of its strings and may be moved as a whole.
#include <cstdarg>

#include "evm/libevm/evm_types.h"
#include "evm/libevm/evm_wire.h"

// First pass: counts the entries of the list up to its 0 and the bytes a package needs.
EvmStatus_t EvmCalculateItemPkgSpaceFromVarargs(va_list* args, EvmBoolean_t relocatable, int* entries,
                                                EvmUint32_t* space);
// Second pass, over a fresh copy of the same list, into a buffer of `space` bytes.
EvmStatus_t EvmBuildItemPkgFromVarargs(va_list* args, EvmBoolean_t relocatable, int entries,
                                       EvmItemPkg_t* package, EvmUint32_t space);
// Fixes the addresses of a relocatable package that was copied whole to `package`.
EvmStatus_t EvmItemPkgRelocate(EvmItemPkg_t* package);
EvmStatus_t EvmItemPkgDump(EvmItemPkg_t* package);

// String items carry a text in the body; the package copies those texts when relocatable.
bool _evmIsStringItem(int id);

#endif
