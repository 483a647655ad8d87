#ifndef EVM_LIBEVM_EVM_LOG_H
#define EVM_LIBEVM_EVM_LOG_H

// Diagnostic hooks of the event client. In this program they swallow every text: no entry or
// failure text of the library reaches a user or a log. They stay so that a build with tracing
// has one place to route them.

void EvmLog_C_module(int level, const char* text);
void EvmLog_C_module_error(int level, const char* text);
// printf-style convenience over EvmLog_C_module_error.
void _evmLogErrorf(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

#endif
