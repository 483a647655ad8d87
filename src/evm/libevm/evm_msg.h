#ifndef EVM_LIBEVM_EVM_MSG_H
#define EVM_LIBEVM_EVM_MSG_H

// Status texts and other numbered texts of the event client, from the "EVM" facility of the
// message catalog below the home, and the few messages the event tools print.
#include <cstddef>

#include "evm/libevm/evm_types.h"

struct EvmMsgTableRow_s {
  EvmStatus_t status_code;
  EvmUint32_t msgid;  // status + 1; with set 11 this is catalog number 1001 and up
  const char* default_string;
};
extern const EvmMsgTableRow_s MsgTable[EvmERROR_LAST];

// Text that stands in when the catalog lacks a number.
extern const char EVM_MSG_NOT_FOUND[];

EvmStatus_t EvmStatusTextGet(EvmStatus_t status, char* text, EvmUint32_t size);
// A catalog text: 0 on success, -1 otherwise.
int evmgetmsg(const char* product, EvmUint32_t number, char* text, EvmUint32_t size);
// Text (set - 1) * 100 + id of the catalog, or the not-found text; `deflt` is not used in its place.
void _EvmMsgGet(int set, int id, const char* deflt, char* text, std::size_t size);
// "EVM-<number>: <text>" filled with the arguments, to standard error.
void _EvmMsgErr(const char* program, int set, int id, const char* deflt, ...);
void _EvmMsgTimestamp();

EvmStatus_t _evmCliConvertHostArg(const char* program, const char* argument, int* port);
[[noreturn]] void _evmCliExitNoMemory(const char* program);
[[noreturn]] void _evmCliExitUsage(const char* text);
void _evmCliPrintEvmStatus(const char* program, EvmStatus_t status);

#endif
