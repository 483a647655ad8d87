#include "platform/nlh/nlh.h"

#include <cstdlib>

namespace nlh {

std::string laToId(const std::string& name) {
  std::string id = name.substr(0, name.find_first_of(".@"));
  if (id.empty() || id == "C" || id == "POSIX") return "en";
  return id;
}

std::string langEnv() {
  for (const char* var : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
    const char* value = std::getenv(var);
    if (value != nullptr && value[0] != '\0') return laToId(value);
  }
  return "en";
}

std::vector<std::string> candidates(const std::string& id) {
  std::vector<std::string> out;
  // A name with a path separator or a leading dot must never become part of a file path.
  if (!id.empty() && id.find('/') == std::string::npos && id[0] != '.') {
    out.push_back(id);
    std::string::size_type cut = id.find('_');
    if (cut != std::string::npos && cut > 0) out.push_back(id.substr(0, cut));
  }
  if (out.empty() || out.back() != "en") out.push_back("en");
  return out;
}

}  // namespace nlh
