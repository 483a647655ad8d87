#ifndef EVM_LIBEVM_EVM_CHECK_H
#define EVM_LIBEVM_EVM_CHECK_H

// Whether a handle and a block are an event: the handle stamp, the 16-bit checksum, the syntax
// of event and variable names, and bringing blocks of the older head form up to date.
#include <cstddef>
#include <cstdint>

#include "evm/libevm/evm_types.h"
#include "evm/libevm/evm_wire.h"

void _evmuiSetEventMagic(EvmEvent_t event);
EvmStatus_t _evmuiTestEventMagic(EvmConstEvent_t event);

// The checksum folds the byte sum of control..priority and of everything from eventId up to
// control.size; the transport header and the checksum field itself are left out.
EvmUint16_t _evmCalculateChecksum(const EvmEventHead_t* head);
// The same fold over any byte sum: exposed so that the folding can be checked on its own.
EvmUint16_t _evmFoldChecksum(std::uint32_t sum);
// Plain byte sum, the inner loop of the checksum.
std::uint64_t _evmByteSum(const unsigned char* p, std::size_t n);
void _evmInsertChecksum(EvmEventHead_t* head);
EvmStatus_t _evmSetChecksum(EvmEvent_t event);
void _evmRemoveChecksum(EvmEventHead_t* head);
EvmStatus_t _evmTestChecksum(const EvmEventHead_t* head);

EvmStatus_t _evmVarNameCheck(const char* name);
EvmStatus_t _evmStringCheck(const char* name, EvmUint32_t* components, EvmBoolean_t wildcards);

// Whether the event name `name` matches `pattern`, a name that _evmStringCheck takes with
// wildcards. Component by component: "?" matches exactly one component, "*" any number of
// components including none, any other component only itself. The empty pattern matches every
// name; a null or empty name matches only the empty pattern and "*". A pattern the check refuses
// matches nothing.
EvmBoolean_t EvmEventNameMatch(const char* pattern, const char* name);

EvmStatus_t _evmValidate(EvmEvent_t event, EvmUint32_t* components);
EvmStatus_t EvmEventValidate(EvmEvent_t event);
EvmStatus_t _evmEventTranslateVersion(EvmEvent_t event);

#endif
