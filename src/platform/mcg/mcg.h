#ifndef PLATFORM_MCG_MCG_H
#define PLATFORM_MCG_MCG_H

// The catalog layer: numbered texts of the suite, in the language asked for.
//
// The catalogs are POSIX message catalogs found only through the home:
//   <home>/vyn/mesg/<language id>/vyn.cat
// One catalog per language holds every facility of the suite, one message set per facility:
// set 1 is the facility "VYN" (the command's messages), set 2 is "EVM" (the event client's texts).
// A language without a catalog, or a catalog without the number, falls back to English.
#include <cstddef>
#include <string>

struct mcgcat;

enum {
  MCG_SET_VYN = 1,
  MCG_SET_EVM = 2,
};

// Opens the catalog of `facility` ("VYN" or "EVM", in any case) for a language id (see nlh;
// empty means the environment's language). Never null: a failed open is held in the handle,
// and mcgaerr tells it. The product names the suite and is not part of the file's name.
mcgcat* mcgaicmt(const char* product, const char* facility, const std::string& language);
// 0 when the catalog opened, -1 otherwise.
int mcgaerr(const mcgcat* cat);
// Copies text `number` into buf (cut to fit, always terminated). 0 when found, -1 when not.
// `severity`, when not null, gets 0: the catalogs carry no severities.
int mcgagbcmt(mcgcat* cat, int number, char* buf, std::size_t size, int* severity);
void mcgatrm(mcgcat* cat);

// The catalog file that a lookup for this language id reads, or empty when none exists.
std::string mcgCatalogPath(const std::string& language);

#endif
