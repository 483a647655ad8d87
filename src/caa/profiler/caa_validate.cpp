#include "caa/profiler/caa_validate.h"

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "caa/profiler/caa_profile.h"
#include "caa/profiler/caa_template.h"

namespace CAA {

namespace {

// The non-empty pieces of text between separators, as strtok would give them.
std::vector<std::string> pieces(const std::string& text, char sep) {
  std::vector<std::string> out;
  std::size_t start = 0;
  while (start <= text.size()) {
    std::size_t end = text.find(sep, start);
    if (end == std::string::npos) end = text.size();
    if (end > start) out.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return out;
}

bool isOneOf(const std::string& value, std::initializer_list<const char*> allowed) {
  for (const char* a : allowed)
    if (value == a) return true;
  return false;
}

// One element of a day, hour or minute list: "*..." or a number in [0, max].
bool timeElementOk(const std::string& element, long max) {
  if (!element.empty() && element[0] == '*') return true;
  if (!Profile::numeric(element.c_str())) return false;
  errno = 0;
  long v = std::strtol(element.c_str(), nullptr, 10);
  return errno == 0 && v >= 0 && v <= max;
}

void copyOut(char* out, const std::string& text) {
  if (out != nullptr) std::snprintf(out, MAX_STRING, "%s", text.c_str());
}

}  // namespace

void report(bool error, const std::string& message) {
  std::printf("%s: %s\n", error ? "Error" : "Warning", message.c_str());
  std::fflush(stdout);
}

int count_char(const char* str, char c) {
  int n = 0;
  if (str == nullptr) return 0;
  for (; *str != '\0'; ++str)
    if (*str == c) ++n;
  return n;
}

bool contains(const std::string& text, const std::string& chars) {
  return text.find_first_of(chars) != std::string::npos;
}

bool testInteger(const std::string& text, int min, int max) {
  errno = 0;
  if (text.empty()) return true;
  unsigned char first = static_cast<unsigned char>(text[0]);
  if (first != '-' && first != '+' && !std::isdigit(first) && !std::isspace(first)) return false;
  for (std::size_t i = 1; i < text.size(); ++i) {
    unsigned char c = static_cast<unsigned char>(text[i]);
    if (!std::isdigit(c) && !std::isspace(c)) return false;
  }
  // Converted as atoi would, but a number that does not fit an int is refused, not wrapped.
  long v = std::strtol(text.c_str(), nullptr, 10);
  if (errno != 0 || v < INT_MIN || v > INT_MAX) return false;
  int number = static_cast<int>(v);
  if (min != -1 && number < min) return false;
  if (max != -1 && number > max) return false;
  return true;
}

bool testTimeUnit(const std::string& str) {
  if (str.empty() || str == "0") return true;
  if (contains(str, ",;: ")) return false;
  if (!testInteger(str.substr(0, str.size() - 1), 0, -1)) return false;
  return std::strchr("smhdw", str.back()) != nullptr && str.back() != '\0';
}

bool testVector(const std::string& text) { return !contains(text, ",;:"); }

bool testDateTime(const char* text, char* dw, char* hh, char* mm) {
  if (text == nullptr || std::strlen(text) >= static_cast<std::size_t>(MAX_STRING)) return false;
  std::vector<std::string> parts = pieces(text, ':');
  if (parts.empty() || parts[0] != "t") return false;
  static const long kMax[] = {6, 23, 59};
  for (std::size_t i = 1; i < parts.size(); ++i) {
    for (const std::string& element : pieces(parts[i], ',')) {
      // Past the minutes nothing numeric belongs; the count below refuses the rest.
      if (i > 3) {
        if (!element.empty() && element[0] != '*' && Profile::numeric(element.c_str())) return false;
        continue;
      }
      if (!timeElementOk(element, kMax[i - 1])) return false;
    }
  }
  if (parts.size() > 1) copyOut(dw, parts[1]);
  if (parts.size() > 2) copyOut(hh, parts[2]);
  if (parts.size() > 3) copyOut(mm, parts[3]);
  return parts.size() == 4;
}

bool testRebalance(const std::string& text) {
  if (text.size() >= static_cast<std::size_t>(MAX_STRING)) return false;
  char dw[MAX_STRING], hh[MAX_STRING], mm[MAX_STRING];
  for (const std::string& entry : pieces(text, '+'))
    if (!testDateTime(entry.c_str(), dw, hh, mm)) return false;
  return true;
}

void fixupDateTime(const char* str, char* line) {
  line[0] = '\0';
  if (str == nullptr) return;
  std::string s = str;
  std::string out;
  switch (count_char(str, ':')) {
    case 0:
      out = "*:" + s + ":0";
      break;
    case 1:
      out = (s != ":" && s.front() != ':' && s.back() != ':') ? "*:" + s : "*:" + s + ":0";
      break;
    case 2:
      for (std::size_t i = 0; i < s.size(); ++i) {
        if (s[i] == ':' && (i == 0 || s[i - 1] == ':')) out += '*';
        out += s[i];
      }
      if (s.back() == ':') out += '0';
      break;
    default:
      // Too many parts to guess at: the entry stays empty and fails the test after the fixup.
      return;
  }
  // A cut entry could read as a different, valid one; an entry that does not fit stays empty.
  if (out.size() < static_cast<std::size_t>(MAX_STRING)) std::memcpy(line, out.c_str(), out.size() + 1);
}

void fixupRebalance(const char* str, std::string& rebalance) {
  if (str == nullptr) return;
  bool first = true;
  for (std::string entry : pieces(str, '+')) {
    if (entry.compare(0, 2, "t:") == 0) entry.erase(0, 2);
    char line[MAX_STRING];
    fixupDateTime(entry.c_str(), line);
    if (!first) rebalance += "+";
    rebalance += "t:";
    rebalance += line;
    first = false;
  }
}

bool Profile::validateResName(const char* name) {
  if (name == nullptr) return true;
  for (; *name != '\0'; ++name) {
    unsigned char c = static_cast<unsigned char>(*name);
    if (!std::isprint(c) || c == '!') return false;
  }
  return true;
}

bool Profile::testSubnet(char* subnet) {
  char* part = subnet;
  for (int i = 0; i < 3; ++i) {
    char* dot = std::strchr(part, '.');
    if (dot == nullptr) return false;
    *dot = '\0';
    if (!testInteger(part, 0, 255)) return false;
    part = dot + 1;
  }
  return testInteger(part, 0, 255);
}

bool Profile::validateProfile(const std::string& file) {
  string_Map contents;
  loadProfile(file, contents);
  bool ok = true;
  std::size_t slash = file.rfind('/');
  std::string base = slash == std::string::npos ? file : file.substr(slash + 1);
  if (base != contents["NAME"] + ".cap") {
    report(true, "NAME attribute must be the same as filename");
    ok = false;
  }
  if (contents.count("TARGET") != 0) {
    report(true, "TARGET is a keyword");
    ok = false;
  }
  if (contents.count("STATUS") != 0) {
    report(true, "STATUS is a keyword");
    ok = false;
  }
  bool rules = validateProfile(contents, false);
  return rules && ok;
}

bool Profile::validateProfile(string_Map& contents, bool fixup, const AttrMap* given) {
  bool ok = true;
  auto fault = [&ok](const std::string& message) {
    report(true, message);
    ok = false;
  };

  std::string name = contents["NAME"];
  if (name.size() > static_cast<std::size_t>(CAA_RESOURCE_MAXNAMELEN)) fault("Resource Name '" + name + "' is too long");
  if (name.empty() || name[0] == '.') fault("Improper Name: " + name);
  if (!validateResName(name.c_str())) {
    // A name that could not be shown safely on a terminal or in a file name stops the command.
    report(true, "Invalid Name character");
    std::exit(1);
  }

  std::string type = contents["TYPE"];
  AttrMap read;
  if (given == nullptr && CaaTemplate::readTDF(type, read) != 0) {
    fault("Invalid Type: " + type);
  } else if (!validateProfile(contents, given != nullptr ? *given : read)) {
    ok = false;
  }
  const AttrMap& amap = given != nullptr ? *given : read;
  auto has = [&amap](const char* attr) { return amap.count(attr) != 0; };

  if (type == "network") {
    if (has("SUBNET")) {
      std::string subnet = contents["SUBNET"];
      if (!testSubnet(&subnet[0])) fault("Invalid subnet setting for network resource");
    }
  } else if (type == "tape" || type == "changer") {
    if (has("DEVICE_NAME") && contents["DEVICE_NAME"].empty()) fault("DEVICE_NAME must be set for " + type);
  } else if (type == "application") {
    if (has("ACTION_SCRIPT") && contents["ACTION_SCRIPT"].empty())
      fault("The ACTION_SCRIPT attribute of the resource profile must be set");
    auto range = [&](const char* attr) {
      if (has(attr) && !testInteger(contents[attr], 0, -1)) fault(std::string(attr) + " out of range: " + contents[attr]);
    };
    range("FAILURE_INTERVAL");
    range("FAILURE_THRESHOLD");
    range("FAILOVER_DELAY");
    range("CHECK_INTERVAL");
    if (has("UPTIME_THRESHOLD") && !testTimeUnit(contents["UPTIME_THRESHOLD"]))
      fault("UPTIME_THRESHOLD value invalid: " + contents["UPTIME_THRESHOLD"]);
    range("RESTART_ATTEMPTS");
    if (has("AUTO_START") && !isOneOf(contents["AUTO_START"], {"always", "1", "restore", "0", "never", "2"}))
      fault("AUTO_START invalid: " + contents["AUTO_START"]);
    if (has("PLACEMENT") && !isOneOf(contents["PLACEMENT"], {"balanced", "restricted", "favored"}))
      fault("PLACEMENT invalid: " + contents["PLACEMENT"]);
    if (has("HOSTING_MEMBERS") && !testVector(contents["HOSTING_MEMBERS"]))
      fault("HOSTING_MEMBERS syntax error: " + contents["HOSTING_MEMBERS"]);
    if (has("PLACEMENT") && has("HOSTING_MEMBERS")) {
      const std::string placement = contents["PLACEMENT"];
      const std::string hosts = contents["HOSTING_MEMBERS"];
      if ((placement == "restricted" || placement == "favored") && hosts.empty())
        fault("HOSTING_MEMBERS is required for: " + placement + " placement policy");
      if (placement == "balanced" && !hosts.empty()) fault("No HOSTING_MEMBERS is needed for balanced placement policy");
    }
    if (has("REQUIRED_RESOURCES") && !testVector(contents["REQUIRED_RESOURCES"]))
      fault("REQUIRED_RESOURCES syntax error: " + contents["REQUIRED_RESOURCES"]);
    if (has("OPTIONAL_RESOURCES") && !testVector(contents["OPTIONAL_RESOURCES"]))
      fault("OPTIONAL_RESOURCES syntax error: " + contents["OPTIONAL_RESOURCES"]);
    if (has("REBALANCE") && !testRebalance(contents["REBALANCE"])) {
      if (!fixup) {
        ok = false;
      } else {
        const std::string old_value = contents["REBALANCE"];
        std::string new_value;
        fixupRebalance(old_value.c_str(), new_value);
        contents["REBALANCE"] = new_value;
        if (!testRebalance(new_value))
          fault("after fixup REBALANCE syntax error: " + old_value + " best fixed up as: " + new_value);
      }
    }
  }
  return ok;
}

bool Profile::validateProfile(string_Map& contents, const AttrMap& amap) {
  bool ok = true;
  string_Map rest = contents;
  const std::string type = contents["TYPE"];
  for (const auto& attr : amap) {
    const std::string& name = attr.first;
    std::string value = rest[name];
    rest.erase(name);
    if (attr.second.isRequired() && value.empty()) {
      report(true, name + " must be set for " + type);
      ok = false;
      continue;
    }
    const std::string vtype = attr.second.getAttrType();
    if ((vtype == "integer" && !testInteger(value, -1, -1)) || (vtype == "positive_integer" && !testInteger(value, 0, -1))) {
      report(true, name + " out of range: " + value);
      ok = false;
    } else if (vtype == "name_list" && !testVector(value)) {
      report(true, name + " syntax error " + value);
      ok = false;
    }
  }
  for (const auto& left : rest) {
    if (left.first.compare(0, 4, "USR_") != 0) {
      report(true, "Invalid attribute, " + left.first + ", in the profile.");
      ok = false;
    }
  }
  return ok;
}

}  // namespace CAA
