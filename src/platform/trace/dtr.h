#ifndef PLATFORM_TRACE_DTR_H
#define PLATFORM_TRACE_DTR_H

// The diagnostic trace service: appends log lines to a file under the home's log/ directory,
// never to the user's terminal. A process without a home, or with a log directory it cannot
// write, traces nothing and goes on.
#include <string>

// Names the trace file of this process: <home>/log/<program>.trc. Until it is called the
// program name is "vyn".
void dtrSetProgram(const std::string& program);
// Appends one line (a newline is added) with a time stamp and the process id.
void dtrWrite(const std::string& line);
// An alert of a level: goes to <home>/log/alert.log.
void dtr_alertprintft(int level, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
// The file trace lines go to, or empty when there is none.
std::string dtrTraceFile();

#endif
