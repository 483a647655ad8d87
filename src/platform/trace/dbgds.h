#ifndef PLATFORM_TRACE_DBGDS_H
#define PLATFORM_TRACE_DBGDS_H

// The stack dump service: writes the calling thread's stack, one frame a line with the function's
// name where the binary has symbols, through the caller's write and flush callbacks.
#include <cstddef>

typedef int (*dbgdsWrite)(void* ctx, const char* format, int count, ...);
typedef void (*dbgdsFlush)(void* ctx);

struct dbgdsCallbacks {
  dbgdsWrite write;
  dbgdsWrite errwrite;
  dbgdsFlush flush;
  dbgdsFlush errflush;
};

// The work area a caller lends the service for the frames of one dump.
enum { DBGDS_WORK_SIZE = 16456 };

// Dumps the stack through cb; `work` is DBGDS_WORK_SIZE bytes. `skip` frames nearest the call
// are left out (the dumper's own frame always is). The number of frames written.
int dbgdstsg(void* work, const dbgdsCallbacks* cb, int skip);

// Non-zero when ZEL_VYN_DEVELOPMENT is set and non-empty: failed checks then abort for a core.
int utlInDevelopmentMode();

#endif
