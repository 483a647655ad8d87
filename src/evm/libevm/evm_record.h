#ifndef EVM_LIBEVM_EVM_RECORD_H
#define EVM_LIBEVM_EVM_RECORD_H

// Walking the records of an event body. Every walk is bounded by control.size and stops at a
// record that is too small or reaches past it, so a damaged block can end a walk but never take
// it outside the block or round in a circle.
#include <cstdint>

#include "evm/libevm/evm_types.h"
#include "evm/libevm/evm_wire.h"

// Steps `*cursor` to the next record (a null cursor starts at the first). 0 with a cursor on a
// whole record; EvmERROR_NOT_PRESENT with a null cursor at the end of the body;
// EvmERROR_INVALID_VALUE with a null cursor at a record that does not fit.
EvmStatus_t _evmuiGetVar(const EvmEventHead_t* head, const unsigned char** cursor);

// The first record with this ident (for EvmITEM_VAR: and this name), or null.
unsigned char* _evmuiFindVar(EvmEventHead_t* head, EvmItemId_t id, const char* name);
const unsigned char* _evmuiFindVar(const EvmEventHead_t* head, EvmItemId_t id, const char* name);

// The number of variable records.
EvmUint32_t _evmuiCountVar(const EvmEventHead_t* head);

inline std::uint32_t evmRecIdent(const unsigned char* rec) { return evmLoad32(rec, EVM_REC_IDENT); }
inline std::uint32_t evmRecSize(const unsigned char* rec) { return evmLoad32(rec, EVM_REC_SIZE); }
// Offset of a variable's value within its record (of a record that passed _evmBodyCheck or
// was written here, so that it fits).
inline std::uint64_t evmVarValueOffset(const unsigned char* rec) {
  return EVM_VAR_NAME + evmPad8(evmLoad32(rec, EVM_VAR_NAMELEN));
}

// The whole body checked as a stranger's block must be before anything reads it: sizes, record
// kinds, terminators, variable layout, and a record behind every presence bit of a body item.
// 0 or EvmERROR_INVALID_VALUE.
EvmStatus_t _evmBodyCheck(const EvmEventHead_t* head);

#endif
