#ifndef PLATFORM_TFM_TFM_H
#define PLATFORM_TFM_TFM_H

// The text formatter: printf-style formatting into fixed buffers that always cuts and never
// overruns, and argument lists that keep copies of their values so that a text can be
// formatted again long after the arguments are gone (an error rendered in another language).
#include <cstdarg>
#include <cstddef>

// Formats into buf (size bytes, always terminated, cut to fit). The length written, or -1.
int sfmprintf(char* buf, std::size_t size, const char* fmt, ...) __attribute__((format(printf, 3, 4)));
int sfmvprintf(char* buf, std::size_t size, const char* fmt, va_list ap);
// Compares two locale names without regard to case; 0 when equal. Null equals the empty name.
int sfmclo(const char* a, const char* b);

// Value types of an argument list.
enum {
  TFM_FLOAT = 2,
  TFM_UB4 = 5,
  TFM_SB4 = 8,
  TFM_TEXT = 25,
};

struct tfmdsc;

tfmdsc* tfmdl();
// Appends a value of `type` (the value follows as the variadic argument: double for TFM_FLOAT,
// unsigned for TFM_UB4, int for TFM_SB4, const char* for TFM_TEXT). Returns the list.
tfmdsc* tfmdi(tfmdsc* list, int type, ...);
int tfmdcnt(const tfmdsc* list);
// Formats `fmt` with the list's values in order (or by "%n$" position). The length written,
// or a negative value when a directive has no value of a fitting type.
int tfmpd(char* buf, std::size_t size, const char* fmt, const tfmdsc* list);
void tfmdrm(tfmdsc* list);

#endif
