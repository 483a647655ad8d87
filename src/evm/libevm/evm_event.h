#ifndef EVM_LIBEVM_EVM_EVENT_H
#define EVM_LIBEVM_EVM_EVENT_H

// The event object: a handle around one contiguous block, its creation, growth, duplication and
// destruction, the caller's chain link and the posting flags.
#include "evm/libevm/evm_types.h"
#include "evm/libevm/evm_wire.h"

// A handle without a block. It is one allocation, freed with free() or EvmEventDestroy.
EvmStatus_t _evmuiAllocateHandle(EvmEvent_t* handle);
// With *head null: a new zero-filled block of `size` bytes with a fresh head. Otherwise the
// block moves to one of `size` bytes, unless that is below the part in use.
EvmStatus_t _evmuiAllocateEvent(EvmEventHead_t** head, EvmSize_t size);
EvmStatus_t _evmuiInitializeEventHeader(EvmEventHead_t** head);
// Moves a block to a new zero-filled one of `size` bytes keeping the first `used` bytes;
// a size below `used` leaves it where it is. For a block of one's own: the block of an event
// is moved with _evmEventResize.
EvmStatus_t _evmclearRealloc(EvmEventHead_t** head, EvmSize_t size, EvmSize_t used);
// An event with a fresh head and room for `size` bytes, in one allocation with its handle.
EvmStatus_t _evmuiEventCreate(EvmEvent_t* event, EvmSize_t size);
// Moves the block of an event to a new zero-filled one of `size` bytes that keeps the part in
// use, as _evmclearRealloc does; the first block, which shares the handle's allocation, is not
// freed apart from it. A size below the part in use leaves the block where it is, and so does
// a size equal to it while the block is still the first one.
EvmStatus_t _evmEventResize(EvmEvent_t event, EvmSize_t size);
// A handle around a block from elsewhere (malloc'd, control.size bytes in use), once it is
// translated and valid. The block is taken in every case: on failure it is freed and null is
// returned, so the caller never holds a pointer that a translation may have replaced.
EvmEvent_t _evmMakeEvent(EvmEventHead_t* head);

EvmStatus_t EvmEventDup(EvmEvent_t* copy, EvmEvent_t event);
EvmStatus_t EvmEventDestroy(EvmEvent_t event);

EvmStatus_t _EvmQueuePointerGet(EvmEvent_t event, EvmEvent_t* next);
EvmStatus_t _EvmQueuePointerSet(EvmEvent_t event, EvmEvent_t next);

EvmStatus_t _evmFlagSet(EvmEvent_t event, EvmFlagItems_t flag, EvmBoolean_t value);
EvmStatus_t _evmFlagGet(EvmEvent_t event, EvmFlagItems_t flag, EvmBoolean_t* value);

#endif
