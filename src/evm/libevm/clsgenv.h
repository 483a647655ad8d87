#ifndef EVM_LIBEVM_CLSGENV_H
#define EVM_LIBEVM_CLSGENV_H

// The one way to read a named setting of the environment: a process-wide cache first, then the
// process environment, and for ZEL_VYN_HOME alone the cluster registry. Plain functions with
// result codes; no exceptions.
//
// A value handed out stays valid and unchanged for the life of the process.
#include <cstdint>

struct prvrg_ctx;

// The value of a setting, or null when the name is null or has no value anywhere.
const char* clsgenv(const char* name);

// The registry fallback of the home: 0 and the value in buf (512 bytes); -1 for any other name;
// 1 when no registry context can be made; else the registry client's result.
int clsgenvvrg(const char* name, char* buf);

// A whole registry key's text value into buf (256 bytes): 0, or 1 on any failure.
int clsgetconnstr(const char* key, char* buf);

// Tells the environment service the home; 0, or 1 when it is refused.
int clssetzelkorhome(const char* zelhome);

int clsgenvinit();
void clsgenvterm();

// What the registry levels are called when passed to the registry client.
enum { CLSGENV_LEVEL_REBOOT = 2, CLSGENV_LEVEL_DEFAULT = 3 };

// Milliseconds that must pass at the REBOOT level before a climb back to DEFAULT is tried.
constexpr std::uint32_t CLSGENV_CLIMB_MS = 60000;

// Whether a climb back to DEFAULT is due at `now`, the REBOOT level having been entered (or a
// climb having failed) at `since`; both are the low 32 bits of the millisecond clock, so the
// difference is taken modulo 2^32.
bool clsgenvClimbDue(std::uint32_t now, std::uint32_t since);

#endif
