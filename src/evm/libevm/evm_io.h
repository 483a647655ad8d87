#ifndef EVM_LIBEVM_EVM_IO_H
#define EVM_LIBEVM_EVM_IO_H

// Events on file descriptors and in buffers. The block is its own wire form, so writing is
// preparing the head and handing out the bytes; reading is where a stranger's block first
// becomes an event, and every reader ends in the same checks.
#include <sys/types.h>

#include <cstdio>

#include "evm/libevm/evm_types.h"
#include "evm/libevm/evm_wire.h"

// Writes the transport header for a buffer of `length` bytes over its first 48 bytes.
void _evmFillTransportHeader(void* buffer, EvmUint32_t length);
// Makes a block ready to leave: fresh transport header, checksum inserted.
EvmStatus_t _evmPrepareForOutput(EvmEvent_t event);

EvmStatus_t EvmEventWriteFD(int fd, EvmEvent_t event);
// The prepared block and its length; null for a bad handle. The block stays the event's.
const void* EvmEventWriteBuf(EvmUint32_t* length, EvmEvent_t event);
EvmStatus_t _evmWriteFDAll(int fd, const void* buffer, EvmUint32_t length);

// One event from a descriptor: EvmERROR_EOF when the input ends before a head, EvmERROR_READ
// for a short head or body, EvmERROR_INVALID_VALUE for a block that is no valid event.
EvmStatus_t EvmEventReadFD(int fd, EvmEvent_t* event);
// Reads until `length` bytes are in or the input ends; the count, or -1 on an error.
long _evmuiReadFDAll(int fd, void* buffer, EvmUint32_t length);

// One line into a growing buffer (may start null), without its line end.
EvmStatus_t _evmReadLine(FILE* stream, char** buffer, EvmUint32_t* size);
// Type of the block at `offset` of a file of blocks and the offset of the next; at the end of
// the file both are 0.
EvmStatus_t _evmGetNextBlockOffset(int fd, off_t offset, EvmDataBlockType_t* type, off_t* next);

#endif
