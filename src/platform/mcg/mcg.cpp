#include "platform/mcg/mcg.h"

#include <nl_types.h>
#include <strings.h>
#include <unistd.h>

#include <cstring>

#include "platform/envs/envs.h"
#include "platform/nlh/nlh.h"

struct mcgcat {
  nl_catd fallback;  // English, when the language's own catalog lacks a number
  nl_catd own;
  int set;
};

namespace {

const nl_catd kNoCatalog = reinterpret_cast<nl_catd>(-1);

int setOf(const char* facility) {
  if (facility == nullptr) return 0;
  if (strcasecmp(facility, "VYN") == 0) return MCG_SET_VYN;
  if (strcasecmp(facility, "EVM") == 0) return MCG_SET_EVM;
  return 0;
}

std::string pathFor(const std::string& home, const std::string& id) {
  return home + "/vyn/mesg/" + id + "/vyn.cat";
}

nl_catd openPath(const std::string& path) {
  if (path.empty() || access(path.c_str(), R_OK) != 0) return kNoCatalog;
  return catopen(path.c_str(), 0);
}

}  // namespace

std::string mcgCatalogPath(const std::string& language) {
  std::string home = envs_get_zelkor_home();
  if (home.empty()) return std::string();
  std::string id = language.empty() ? nlh::langEnv() : nlh::laToId(language);
  for (const std::string& candidate : nlh::candidates(id)) {
    std::string path = pathFor(home, candidate);
    if (access(path.c_str(), R_OK) == 0) return path;
  }
  return std::string();
}

mcgcat* mcgaicmt(const char* /*product*/, const char* facility, const std::string& language) {
  mcgcat* cat = new mcgcat{kNoCatalog, kNoCatalog, setOf(facility)};
  if (cat->set == 0) return cat;
  std::string home = envs_get_zelkor_home();
  if (home.empty()) return cat;
  std::string own = mcgCatalogPath(language);
  cat->own = openPath(own);
  std::string english = pathFor(home, "en");
  if (own != english) cat->fallback = openPath(english);
  return cat;
}

int mcgaerr(const mcgcat* cat) {
  if (cat == nullptr || cat->set == 0) return -1;
  return (cat->own != kNoCatalog || cat->fallback != kNoCatalog) ? 0 : -1;
}

int mcgagbcmt(mcgcat* cat, int number, char* buf, std::size_t size, int* severity) {
  if (severity != nullptr) *severity = 0;
  if (cat == nullptr || buf == nullptr || size == 0 || number <= 0 || mcgaerr(cat) != 0) return -1;
  // catgets hands back its last argument when the number is missing: a unique sentinel tells.
  static const char kMissing[] = "";
  for (nl_catd catd : {cat->own, cat->fallback}) {
    if (catd == kNoCatalog) continue;
    const char* text = catgets(catd, cat->set, number, kMissing);
    if (text == nullptr || text == kMissing) continue;
    std::size_t len = std::strlen(text);
    if (len >= size) len = size - 1;
    std::memcpy(buf, text, len);
    buf[len] = '\0';
    return 0;
  }
  return -1;
}

void mcgatrm(mcgcat* cat) {
  if (cat == nullptr) return;
  if (cat->own != kNoCatalog) catclose(cat->own);
  if (cat->fallback != kNoCatalog) catclose(cat->fallback);
  delete cat;
}
