// Diagnostic hooks: deliberately silent in this program.
#include "evm/libevm/evm_log.h"

void EvmLog_C_module(int /*level*/, const char* /*text*/) {}

void EvmLog_C_module_error(int /*level*/, const char* /*text*/) {}

// Formats nothing: the hook would drop the text anyway, and a failure path should stay cheap.
void _evmLogErrorf(int level, const char* format, ...) { EvmLog_C_module_error(level, format); }
