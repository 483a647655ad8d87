#include "caa/profiler/caa_profile.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <memory>

#include "caa/lib/caa_File.h"
#include "caa/lib/caa_Path.h"
#include "caa/profiler/caa_template.h"
#include "platform/osl/osl_fd.h"
#include "platform/ptu/ptu.h"
#include "platform/tfm/tfm.h"

namespace CAA {

namespace {

// fgets is given one byte less than the buffer, so a piece holds at most
// VYN_PROFILE_LINE_MAXLEN characters.
const int READ_BUF_LEN = VYN_PROFILE_VALUE_MAXLEN;
const int READ_LIMIT = VYN_PROFILE_LINE_MAXLEN + 1;
// The syntax error text, and the quoted line within it, fit this buffer.
const std::size_t ERROR_BUF_LEN = 10240;
const std::size_t MESG_BUF_LEN = 1024;

// Every exception of this unit names where it was thrown, on a line of its own.
std::string located(const std::string& text, int line) {
  return text + "\n(File: caa_profile, line: " + std::to_string(line) + "\n";
}

std::string syntaxError(const std::string& file, int lineno, const std::string& text) {
  char buf[ERROR_BUF_LEN];
  sfmprintf(buf, sizeof buf, "Syntax error in %s, line number %d: \"%s\"", file.c_str(), lineno, text.c_str());
  // A cut text still closes its quote, so the message reads as one.
  std::size_t len = std::strlen(buf);
  if (len == sizeof buf - 1) buf[len - 1] = '"';
  return buf;
}

bool isBlank(char c) { return c == ' ' || c == '\t'; }

struct FileCloser {
  void operator()(FILE* fp) const {
    if (fp != nullptr) std::fclose(fp);
  }
};

}  // namespace

int Profile::readLine(FILE* fp, std::string& s) {
  char buf[READ_BUF_LEN];
  int count = 0;
  for (;;) {
    if (std::fgets(buf, READ_LIMIT, fp) == nullptr) return 0;
    ++count;
    // A zero byte ends the piece: what follows it on the physical line is not text.
    std::size_t end = std::strlen(buf);
    while (end > 0 && (isBlank(buf[end - 1]) || buf[end - 1] == '\n')) --end;
    if (end > 0 && buf[end - 1] == '\\') {
      s.append(buf, end - 1);
      continue;
    }
    s.append(buf, end);
    return count;
  }
}

void Profile::trim(char* input) {
  if (input == nullptr) return;
  std::size_t len = std::strlen(input);
  if (len > 0 && input[len - 1] == '\n') input[--len] = '\0';
  while (len > 0 && isBlank(input[len - 1])) input[--len] = '\0';
  std::size_t start = 0;
  while (start < len && isBlank(input[start])) ++start;
  if (start > 0) std::memmove(input, input + start, len - start + 1);
}

void Profile::trim(std::string& input) {
  if (!input.empty() && input.back() == '\n') input.pop_back();
  std::size_t end = input.size();
  while (end > 0 && isBlank(input[end - 1])) --end;
  std::size_t start = 0;
  while (start < end && isBlank(input[start])) ++start;
  input = input.substr(start, end - start);
}

void Profile::upper(char* s) {
  if (s == nullptr) return;
  for (; *s != '\0'; ++s) *s = static_cast<char>(std::toupper(static_cast<unsigned char>(*s)));
}

bool Profile::numeric(const char* text) {
  if (text == nullptr) return true;
  for (; *text != '\0'; ++text)
    if (!std::isdigit(static_cast<unsigned char>(*text))) return false;
  return true;
}

namespace {

// Opens a file to be read as a profile. Only a regular file is one: a FIFO or a device would
// never end or never come, so the open does not wait, and anything else is refused.
FILE* openRegular(const std::string& file) {
  OslFd fd(open(file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  struct stat st;
  if (!fd || fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) return nullptr;
  FILE* fp = fdopen(fd.get(), "r");
  if (fp != nullptr) fd.release();
  return fp;
}

}  // namespace

void Profile::loadProfile(const std::string& file, string_Map& contents) {
  std::unique_ptr<FILE, FileCloser> fp(openRegular(file));
  if (!fp) throw X_PROF_InvalidFile(located(file, __LINE__));
  int lineno = 0;
  std::string s;
  int n;
  while ((n = readLine(fp.get(), s)) != 0) {
    lineno += n;
    std::string line;
    line.swap(s);
    trim(line);
    if (line.empty() || line[0] == '#') continue;
    if (line.find('=') == std::string::npos) throw X_PROF_SyntaxError(located(syntaxError(file, lineno, line), __LINE__));
    // Leading signs are skipped; the name runs to the next sign, and the value is everything
    // behind that, further signs included.
    std::size_t start = line.find_first_not_of('=');
    std::size_t sign = start == std::string::npos ? start : line.find('=', start);
    std::string name = start == std::string::npos ? std::string() : line.substr(start, sign - start);
    std::string value = sign == std::string::npos ? std::string() : line.substr(sign + 1);
    trim(name);
    trim(value);
    // A line without a name, or with a name or value that continuation lines have grown past
    // what a profile may hold, is a fault of the file.
    if (name.empty() || name.size() >= static_cast<std::size_t>(VYN_PROFILE_NAME_MAXLEN) ||
        value.size() >= static_cast<std::size_t>(VYN_PROFILE_VALUE_MAXLEN))
      throw X_PROF_SyntaxError(located(syntaxError(file, lineno, line), __LINE__));
    upper(&name[0]);
    contents[name] = value;
  }
}

void Profile::mergeProfile(const std::string& type, string_Map& contents, const AttrMap* amap) {
  AttrMap read;
  if (amap == nullptr) {
    if (CaaTemplate::readTDF(type, read) != 0) throw X_PROF(located("Invalid Type Definition File", __LINE__));
    amap = &read;
  }
  for (const auto& attr : *amap) {
    auto it = contents.find(attr.first);
    if (it == contents.end() || it->second.empty()) contents[attr.first] = attr.second.getDefault();
  }
}

void Profile::createProfile(string_Map& contents, const std::string& destFile, bool overwrite, bool temp,
                            const AttrMap* amap) {
  std::string name = contents["NAME"];
  std::string type = contents["TYPE"];
  if (name.empty() && !temp) throw X_PROF(located("NAME field must be set", __LINE__));
  if (!name.empty() && temp) throw X_PROF(located("NAME field may not be set for a template", __LINE__));
  if (type.empty()) throw X_PROF(located("TYPE field must be set", __LINE__));
  CaaFile file = destFile.empty() ? CaaFile(Path::profile_path, name, Path::PROFILE_EXT) : CaaFile(destFile);
  if (file.exists() && !overwrite) throw X_PROF_Exists(located(file.getName(), __LINE__));
  mergeProfile(type, contents, amap);
  writeProfile(file.getName(), contents, overwrite);
}

std::string Profile::formatProfile(const string_Map& contents) {
  auto valueOf = [&contents](const char* key) {
    auto it = contents.find(key);
    return it == contents.end() ? std::string() : it->second;
  };
  std::string text = "NAME=" + valueOf("NAME") + "\nTYPE=" + valueOf("TYPE") + "\n";
  for (const auto& entry : contents) {
    if (entry.first == "NAME" || entry.first == "TYPE") continue;
    text += entry.first;
    text += '=';
    text += entry.second;
    text += '\n';
  }
  return text;
}

std::size_t Profile::valueRoom(const std::string& name) {
  std::size_t used = name.size() + 1;
  return used >= static_cast<std::size_t>(VYN_PROFILE_LINE_MAXLEN) ? 0 : VYN_PROFILE_LINE_MAXLEN - used;
}

EntryFault Profile::entryFault(const std::string& name, const std::string& value) {
  // The reader trims the name, upper-cases it, and splits the line at its first "=".
  if (name.empty() || name.size() >= static_cast<std::size_t>(VYN_PROFILE_NAME_MAXLEN) ||
      name.find_first_of(std::string("=\n\0", 3)) != std::string::npos || name[0] == '#' || isBlank(name[0]) ||
      isBlank(name.back()))
    return ENTRY_BAD_NAME;
  if (value.find_first_of(std::string("\n\0", 2)) != std::string::npos) return ENTRY_LINE_BREAK;
  if (value.size() > valueRoom(name)) return ENTRY_TOO_LONG;
  std::size_t last = value.find_last_not_of(" \t");
  if (last != std::string::npos && value[last] == '\\') return ENTRY_CONTINUED;
  return ENTRY_OK;
}

void Profile::writeProfile(const std::string& file, string_Map contents, bool overwrite) {
  char mesg[MESG_BUF_LEN];
  for (const auto& entry : contents) {
    if (entryFault(entry.first, entry.second) == ENTRY_OK) continue;
    sfmprintf(mesg, sizeof mesg, "Error creating profile file %s: the attribute %s cannot be written as it is",
              file.c_str(), entry.first.c_str());
    throw X_PROF_InvalidFile(located(mesg, __LINE__));
  }
  if (ptu_replaceFile(file, formatProfile(contents), 0644, overwrite) != 0) {
    if (!overwrite && errno == EEXIST) throw X_PROF_Exists(located(file, __LINE__));
    sfmprintf(mesg, sizeof mesg, "Error creating profile file %s", file.c_str());
    throw X_PROF_InvalidFile(located(mesg, __LINE__));
  }
}

}  // namespace CAA
