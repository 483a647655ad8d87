#include "caa/profiler/caa_profile.h"

#include <cctype>
#include <cstring>
#include <memory>

#include "caa/lib/caa_File.h"
#include "caa/lib/caa_Path.h"
#include "caa/profiler/caa_template.h"
#include "platform/ptu/ptu.h"
#include "platform/tfm/tfm.h"

namespace CAA {

namespace {

// fgets is given one byte less than the buffer, so a piece holds at most 10238 characters.
const int READ_BUF_LEN = 10240;
const int READ_LIMIT = READ_BUF_LEN - 1;
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

void Profile::loadProfile(const std::string& file, string_Map& contents) {
  std::unique_ptr<FILE, FileCloser> fp(std::fopen(file.c_str(), "r"));
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

void Profile::mergeProfile(const std::string& type, string_Map& contents) {
  AttrMap amap;
  if (CaaTemplate::readTDF(type, amap) != 0) throw X_PROF(located("Invalid Type Definition File", __LINE__));
  for (const auto& attr : amap) {
    auto it = contents.find(attr.first);
    if (it == contents.end() || it->second.empty()) contents[attr.first] = attr.second.getDefault();
  }
}

void Profile::createProfile(string_Map& contents, const std::string& destFile, bool overwrite, bool temp) {
  std::string name = contents["NAME"];
  std::string type = contents["TYPE"];
  if (name.empty() && !temp) throw X_PROF(located("NAME field must be set", __LINE__));
  if (!name.empty() && temp) throw X_PROF(located("NAME field may not be set for a template", __LINE__));
  if (type.empty()) throw X_PROF(located("TYPE field must be set", __LINE__));
  CaaFile file = destFile.empty() ? CaaFile(Path::profile_path, name, Path::PROFILE_EXT) : CaaFile(destFile);
  if (file.exists() && !overwrite) throw X_PROF_InvalidFile(located(file.getName(), __LINE__));
  mergeProfile(type, contents);
  writeProfile(file.getName(), contents);
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

void Profile::writeProfile(const std::string& file, string_Map contents) {
  if (ptu_replaceFile(file, formatProfile(contents), 0644) != 0) {
    char mesg[MESG_BUF_LEN];
    sfmprintf(mesg, sizeof mesg, "Error creating profile file %s", file.c_str());
    throw X_PROF_InvalidFile(located(mesg, __LINE__));
  }
}

}  // namespace CAA
