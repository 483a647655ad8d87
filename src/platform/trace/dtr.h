#ifndef PLATFORM_TRACE_DTR_H
#define PLATFORM_TRACE_DTR_H

// The diagnostic trace service. Registered components each carry their own log level; a line
// passes when its level is within the component's. Lines are appended, time-stamped, to
// <home>/log/<program>.trc and never to the user's terminal; each line is one write(2), so
// lines of several threads or processes never interleave. A trace file that passes its size
// limit becomes <name>.1 (older ones shift up to a kept count) and a new one begins.
// Alerts go to <home>/log/alert.log with their ids.
//
// A process without a home traces nothing. A log directory that cannot be written loses the
// lines; the process goes on and says so once on standard error.
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/thread/sltypes.h"

// Components known by number: 0 test, 1 the cluster resource daemon, 2 the event daemon, 3 to 13
// others, 8 among them the init component.
typedef int dtrmkey;
enum { DTRMKEY_TEST = 0, DTRMKEY_RESD = 1, DTRMKEY_EVMD = 2, DTRMKEY_INIT = 8, DTRMKEY_LAST = 13 };

typedef int dtrmtype;
// Context of an alert raiser; none is needed here, so callers pass null.
struct dtrmctx;

// Formats a binary trace record into buf; the length written.
typedef int (*dtrfcb)(int opcode, const void* data, char* buf, std::size_t buflen);

// Flags word of a descriptor.
enum {
  DTR_COMP_ENABLED = 0x1,
  DTR_COMP_DISABLED = 0x8,
};

// A registered component. Its log level may change while other threads read it.
struct dtrcomp {
  char name[9];  // the first 8 characters of the registered name
  std::string description;
  std::atomic<ub4> loglevel;
  ub4 tracelevel;
  ub4 flags;
  dtrfcb fcb;
  std::size_t bufsize;
};

// Registers a component; null when the name (its first 8 characters) is taken or empty.
// Components live until the process ends.
dtrcomp* dtrcompreg(const char* description, const char* name, std::size_t bufsize, ub4 tracelevel,
                    ub4 loglevel, dtrfcb fcb, int flags);
// The component of a name (cut to 8 characters), or null.
dtrcomp* dtrgetcompid(const char* name);
void dtrset_loglvl(dtrcomp* comp, ub4 level);
// How many components are registered.
ub4 dtrget_regcomp();
typedef char dtrcompname[9];
// Fills list with the names of the registered components, in the order of registration. On
// entry *count is the list's capacity, on return the names given. -1 when the list is too small.
int dtrget_complist(dtrcompname* list, ub4* count);

// Writes one line if `level` passes the component's log level (a null component passes level 0
// only). The _cdesc form puts the component's description in the line as well.
// Levels 4 and 5 are one tier here: a component at 4 or 5 passes both, so the logging layer's
// detail filter alone tells ALGO_FINE and EXTERN_DETAIL apart.
void dtrprintft(const dtrcomp* comp, ub4 level, const char* fmt, ...) __attribute__((format(printf, 3, 4)));
void dtrprintft_cdesc(const dtrcomp* comp, ub4 level, const char* fmt, ...)
    __attribute__((format(printf, 3, 4)));
// True when a line of `level` would pass the component (see dtrprintft).
bool dtrpasses(const dtrcomp* comp, ub4 level);

// Raises an alert numbered msgid; the text is formatted like printf.
void dtr_alertprintft(ub4 msgid, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

// Lines are written unbuffered, so flushing only makes the file durable.
void dtrfflush(int sync);
// Stands for every component in dtrflush.
dtrcomp* dtrallcomp();
void dtrflush(dtrcomp* comp);

// The trace file's name into buf; its length, or -1 when there is none or buf is too small.
int dtrget_logname(char* buf, std::size_t size);

// Names the trace file of this process: <home>/log/<program>.trc. Until it is called the
// program name is "vyn". The file, once open, is kept until this or dtrreset is called, so a
// home set later takes effect through them.
void dtrSetProgram(const std::string& program);
// Appends one unconditional line (a newline is added).
void dtrWrite(const std::string& line);
// The file trace lines go to, or empty when there is none.
std::string dtrTraceFile();

// Rotation: a file that passes maxBytes (default 8 MiB) is renamed to <name>.1, older ones
// shift up to <name>.<keep> (default 4), and the oldest beyond that is dropped.
void dtrset_rotation(std::uint64_t maxBytes, unsigned keep);

// Closes the trace file and forgets the home, so that the next line finds them again.
void dtrreset();

#endif
