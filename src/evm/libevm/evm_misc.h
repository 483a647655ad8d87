#ifndef EVM_LIBEVM_EVM_MISC_H
#define EVM_LIBEVM_EVM_MISC_H

// Small helpers of the event client: allocation, strings, paths under the home, settings,
// the scratch file, and the no-op hooks that other clients of the library call.
#include <sys/uio.h>

#include <atomic>
#include <cstddef>
#include <cstdio>

#include "evm/libevm/evm_types.h"

void* _evmmiscMalloc(std::size_t size);  // zero-filled
void* _evmmiscRealloc(void* p, std::size_t size);
void _evmmiscFree(void* p);
char* _evmmiscStrdup(const char* text);         // null for null
std::size_t _evmmiscTermStrLen(const char* text);  // with terminator; 0 for null
int _evmmiscCaseBlindStrcmp(const char* a, const char* b);
int _evmmiscCaseBlindStrncmp(const char* a, const char* b, std::size_t n);

// Home + suffix, as a new string; null when the home is unknown.
char* _evmmiscDirStrdup(const char* suffix);
// The value of `variable` if it is set (a new copy), else the path under the home.
char* EvmGetAbsolutePath(const char* variable, const char* suffix);
// The setting `name`, or `deflt` when it has none. Not a copy.
const char* EvmGetEnvironmentVariable(const char* name, const char* deflt);
// "%s.%d.%d" as a new string; null for a null base.
char* _EvmFilenameConstruct(const char* base, int a, int b);

// The vectors copied into one new buffer.
EvmStatus_t _evmIovToLinearMsg(const struct iovec* vectors, int count, char** buffer,
                               EvmUint32_t* length);
// The name of a host from its address (network order), a new string, or null.
char* _evmHostNameFromId(EvmIpAddress_t address);

EvmStatus_t _evmBufSizesSet(EvmUint32_t send, EvmUint32_t receive);
EvmStatus_t _evmBufSizesGet(EvmUint32_t* send, EvmUint32_t* receive);
EvmStatus_t _evmProcTermEventSet(EvmEvent_t event);
EvmStatus_t _evmProcTermEventClear();
EvmStatus_t _evmDoProcTermEvent();

// Set once by the first EvmEventCreateVa of any thread; atomic because that may be several
// threads at the same moment.
extern std::atomic<int> evmglob_Initialized;
extern EvmPid_t evmglob_EvmUserPid;
void evmglobInit();

// An unnamed scratch file below <home>/log/evm, or null.
FILE* _evmtempfile();

void EvmSetFP(FILE* fp);
FILE* EvmGetProfFP();

#endif
