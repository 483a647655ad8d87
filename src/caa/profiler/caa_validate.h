#ifndef CAA_PROFILER_CAA_VALIDATE_H
#define CAA_PROFILER_CAA_VALIDATE_H

// The tests that decide whether a profile may be kept, and the mending of a REBALANCE value
// that a user wrote in a short form. Profile::validateProfile runs every test of a profile and
// reports each fault on standard output, so that one run names them all.
#include <string>

namespace CAA {

// The work buffers of the date and time tests; a longer value fails them.
const int MAX_STRING = 132;

// "Error: message" (or "Warning: ...") on standard output, flushed.
void report(bool error, const std::string& message);
// An integer, possibly signed, white space allowed; -1 as min or max means no bound there.
// The empty text passes.
bool testInteger(const std::string& text, int min, int max);
// A number and one of the units s, m, h, d, w; "0" and the empty text pass.
bool testTimeUnit(const std::string& str);
// None of the separators , ; : in a list of names.
bool testVector(const std::string& text);
// Entries t:<days>:<hours>:<minutes> joined by "+"; the empty text passes.
bool testRebalance(const std::string& text);
// One entry; dw, hh and mm (MAX_STRING bytes each, or null) get its three lists.
bool testDateTime(const char* text, char* dw, char* hh, char* mm);
// Completes each entry of str written without its tag or parts, into rebalance.
void fixupRebalance(const char* str, std::string& rebalance);
// One entry without its "t:" completed into line (MAX_STRING bytes).
void fixupDateTime(const char* str, char* line);
int count_char(const char* str, char c);
bool contains(const std::string& text, const std::string& chars);

}  // namespace CAA

#endif
