#include "caa/profiler/caa_template.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "caa/lib/caa_Path.h"
#include "caa/profiler/caa_profile.h"
#include "platform/tfm/tfm.h"

namespace CAA {

namespace {

const std::size_t ERROR_BUF_LEN = 1024;

std::string located(const std::string& text, int line) {
  return text + "\n(File: caa_template, line: " + std::to_string(line) + "\n";
}

std::string syntaxError(const std::string& name, int lineno, const std::string& text) {
  char buf[ERROR_BUF_LEN];
  sfmprintf(buf, sizeof buf, "Syntax error in %s, line number %d: \"%s\"", name.c_str(), lineno, text.c_str());
  std::size_t len = std::strlen(buf);
  if (len == sizeof buf - 1) buf[len - 1] = '"';
  return buf;
}

void closeTdf(FILE* fp, const std::string& path) {
  if (std::fclose(fp) != 0) std::printf("Failure to close TDF file %s, errno=%d\n", path.c_str(), errno);
}

}  // namespace

int CaaTemplate::readFile(const std::string& template_name, AttrMap& amap) {
  std::string path = Path::template_path + template_name + "." + Path::TDF_EXT;
  errno = 0;
  FILE* fp = std::fopen(path.c_str(), "r");
  if (fp == nullptr) throw X_TEMP_Notfound(located(template_name, __LINE__));

  int lineno = 0;
  bool have_attr = false;
  std::string attr_name;
  CaaAttribute attr;
  std::string s;
  int n;
  while ((n = Profile::readLine(fp, s)) != 0) {
    lineno += n;
    std::string line;
    line.swap(s);
    Profile::trim(line);
    if (line.empty() || line[0] == '#') continue;
    std::size_t colon = line.find(':');
    std::string keyword = colon == std::string::npos ? std::string() : line.substr(0, colon);
    std::string text = colon == std::string::npos ? std::string() : line.substr(colon + 1);
    Profile::trim(keyword);
    Profile::trim(text);
    // A keyword or text longer than a definition may hold is as wrong as a missing colon.
    if (colon == std::string::npos || keyword.size() > FIELD_MAXLEN || text.size() > FIELD_MAXLEN) {
      std::string message = syntaxError(template_name, lineno, line);
      closeTdf(fp, path);
      throw X_TEMP_SyntaxError(located(message, __LINE__));
    }
    if (!keyword.empty()) Profile::upper(&keyword[0]);
    if (keyword == pro_ATTR) {
      if (have_attr) amap[attr_name] = attr;
      attr_name = text;
      attr = CaaAttribute();
      have_attr = true;
    } else if (have_attr) {
      // Unknown keywords are ignored, so a definition may carry lines for newer tools.
      attr.setValue(keyword, text);
    }
    // A keyword ahead of the first ATTRIBUTE line belongs to no attribute and is skipped.
  }
  closeTdf(fp, path);
  if (have_attr) amap[attr_name] = attr;
  return 0;
}

int CaaTemplate::readTDF(const std::string& template_name, AttrMap& amap) {
  try {
    readFile("generic", amap);
    readFile(template_name, amap);
  } catch (const X_TEMP_Notfound&) {
    return 1;
  } catch (const X_TEMP_SyntaxError& e) {
    std::printf("%s\n", e.what().c_str());
    std::fflush(stdout);
    return 1;
  }
  return 0;
}

}  // namespace CAA
