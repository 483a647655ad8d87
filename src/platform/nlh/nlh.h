#ifndef PLATFORM_NLH_NLH_H
#define PLATFORM_NLH_NLH_H

// The language layer: turns a language name, or the environment's locale settings, into the
// language ids under which message catalogs are looked for, most specific first.
#include <string>
#include <vector>

namespace nlh {

// The language of the environment: LC_ALL, then LC_MESSAGES, then LANG, the first that is set
// and not empty; "C", "POSIX" and nothing at all mean English.
std::string langEnv();

// A language name reduced to its id: "de_DE.UTF-8@euro" gives "de_DE"; "C" and "" give "en".
std::string laToId(const std::string& name);

// The ids to try for a language id, most specific first, ending with the English fallback:
// "de_DE" gives {"de_DE", "de", "en"}.
std::vector<std::string> candidates(const std::string& id);

}  // namespace nlh

#endif
