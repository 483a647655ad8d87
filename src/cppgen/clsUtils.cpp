#include "cppgen/clsUtils.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <sstream>

#include "cppgen/clsAssert.h"
#include "cppgen/clsException.h"
#include "cppgen/clsUserErrorException.h"
#include "platform/host/utlhost.h"
#include "platform/osl/ostime.h"
#include "platform/tfm/tfm.h"

namespace cls {

namespace {

const int kMsgNotNameValue = 4228;  // one text: the item
const int kMsgDuplicate = 4980;     // two texts: the value, then the name
const std::size_t kHostNameLen = 64;
const std::size_t kNumberLen = 32;
const std::size_t kTimeLen = 64;

// Reads the file line by line, each line trimmed and blank ones left out. A line is used only
// once the read that got it has left the stream good, so a last line without a line end is never
// seen. `take` returns false to stop early. Returns false when the file cannot be opened, or
// when the reading stopped other than at the end of the file or by `take`.
bool forEachLine(const std::string& file, const std::function<bool(const std::string&)>& take) {
  std::ifstream in(file.c_str());
  if (!in.is_open()) return false;
  std::string line;
  std::getline(in, line);
  while (in.good()) {
    Utils::trimTheString(line, Utils::WHITESPACE_CHARS);
    if (!line.empty() && !take(line)) return true;
    std::getline(in, line);
  }
  return in.eof();
}

}  // namespace

const std::string Utils::WHITESPACE_CHARS = " \r\n\t";

void Utils::trimTheString(std::string& s, const std::string& chars) {
  if (s.empty() || chars.empty()) return;
  std::string::size_type first = s.find_first_not_of(chars);
  if (first == std::string::npos) {
    s.clear();
    return;
  }
  s.erase(s.find_last_not_of(chars) + 1);
  s.erase(0, first);
}

void Utils::trimLongString(std::string& s, std::size_t maxLen) {
  static const std::string kEllipsis = "...";
  if (maxLen < kEllipsis.size()) maxLen = kEllipsis.size();
  if (s.size() <= maxLen) return;
  s.erase(maxLen - kEllipsis.size());
  s += kEllipsis;
}

bool Utils::areAllCharsInSet(const std::string& s, const std::string& charSet) {
  return s.find_first_not_of(charSet) == std::string::npos;
}

bool Utils::containsChars(const std::string& s, const std::string& chars) {
  return !chars.empty() && s.find_first_of(chars) != std::string::npos;
}

void Utils::purgeChars(std::string& s, const std::string& chars) {
  if (chars.empty()) return;
  s.erase(std::remove_if(s.begin(), s.end(), [&chars](char c) { return chars.find(c) != std::string::npos; }),
          s.end());
}

void Utils::replace(std::string& s, const std::string& from, const std::string& to) {
  if (from.empty()) return;  // an empty text occurs everywhere and would be replaced forever
  const std::string::size_type end = s.size();
  std::string::size_type pos = 0;
  while (pos < end) {
    pos = s.find(from, pos);
    if (pos == std::string::npos) break;
    s.replace(pos, from.size(), to);
    pos += to.size();
  }
}

int Utils::compareNoCase(const std::string& s1, const std::string& s2) { return sfmclo(s1.c_str(), s2.c_str()); }

void Utils::makeUpper(std::string& s) {
  for (char& c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
}

void Utils::makeLower(std::string& s) {
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
}

void Utils::memoryAlloc(void** ppMem, std::size_t size) {
  // Overwriting a live pointer would lose its memory: a caller's bug, not a condition.
  if (ppMem == nullptr || *ppMem != nullptr) CLS_Debug::clsAbort();
  void* p = std::calloc(1, size == 0 ? 1 : size);
  if (p == nullptr) throw NoMemoryException("");
  *ppMem = p;
}

void Utils::memoryFree(void** ppMem) {
  if (ppMem == nullptr || *ppMem == nullptr) return;
  std::free(*ppMem);
  *ppMem = nullptr;
}

std::string Utils::itoa(int n) {
  char buf[kNumberLen];
  sfmprintf(buf, sizeof buf, "%d", n);
  return buf;
}

std::string Utils::itoa(unsigned n) {
  char buf[kNumberLen];
  sfmprintf(buf, sizeof buf, "%u", n);
  return buf;
}

std::string Utils::itoa(long n) {
  std::ostringstream os;
  os << n;
  return os.str();
}

std::string Utils::itoa(unsigned long n) {
  std::ostringstream os;
  os << n;
  return os.str();
}

std::uint32_t Utils::getTimeNow() { return osgts(); }

void Utils::timeToString(std::uint32_t t, std::string& timeStr) {
  char buf[kTimeLen];
  buf[0] = '\0';
  osgcts(t, buf, sizeof buf);
  timeStr = buf;
}

void Utils::getLocalHostName(std::string& str) {
  char buf[kHostNameLen];
  buf[0] = '\0';
  if (utlhost(buf, sizeof buf) < 0) buf[0] = '\0';
  str = buf;
}

void Utils::getAttrsFromList(std::string& list, StringMap& argMap, bool acceptBlanks, AttrDupVals dupValsEnum) {
  StringMapPairVec pairs;
  extractAttrsFromList(list, pairs, acceptBlanks);
  storeResourceAttrs(pairs, argMap, dupValsEnum);
}

void Utils::getAttrsFromFile(const std::string& file, StringMap& argMap, bool acceptBlanks,
                             AttrDupVals dupValsEnum) {
  StringMapPairVec pairs;
  extractAttrsFromFile(file, pairs, acceptBlanks, false);
  storeResourceAttrs(pairs, argMap, dupValsEnum);
}

void Utils::extractAttrsFromList(std::string& list, StringMapPairVec& attrPairVec, bool acceptBlanks) {
  // The comma behind the last item makes every item end in one.
  list += ",";
  std::string::size_type comma = list.find(',');
  while (comma != std::string::npos) {
    // A quote before the comma opens a value that may hold commas: the item runs to the
    // matching quote, and the character behind that quote (its comma) goes with it. A quote
    // that is never closed takes the rest of the list.
    std::string::size_type end = comma;
    std::string::size_type quote = list.find('\'');
    if (quote != std::string::npos && quote < comma) {
      std::string::size_type closing = list.find('\'', quote + 1);
      end = closing == std::string::npos ? list.size() - 1 : closing + 1;
    }
    std::string item = list.substr(0, end);
    list.erase(0, end + 1);
    trimTheString(item, WHITESPACE_CHARS);

    std::string::size_type eq = item.find('=');
    if (eq != std::string::npos) {
      std::string name = item.substr(0, eq);
      std::string value;
      if (eq + 1 < item.size() && item[eq + 1] == '\'') {
        value = item.substr(eq + 2);
        if (!value.empty()) value.erase(value.size() - 1);
      } else {
        value = item.substr(eq + 1);
      }
      if (!name.empty()) attrPairVec.push_back(StringMapPair(name, value));
    } else if (!item.empty()) {
      if (!acceptBlanks) throw UserErrorException(kMsgNotNameValue, item.c_str());
      attrPairVec.push_back(StringMapPair(item, std::string()));
    }
    comma = list.find(',');
  }
}

void Utils::extractAttrsFromFile(const std::string& file, StringMapPairVec& attrPairVec, bool acceptBlanks,
                                 bool stripQuotes) {
  bool read = forEachLine(file, [&](const std::string& line) {
    std::string::size_type eq = line.find('=');
    if (eq == std::string::npos) {
      if (acceptBlanks) attrPairVec.push_back(StringMapPair(line, std::string()));
      return true;
    }
    std::string value = line.substr(eq + 1);
    if (stripQuotes && value.size() >= 2 && value.front() == '\'' && value.back() == '\'')
      value = value.substr(1, value.size() - 2);
    attrPairVec.push_back(StringMapPair(line.substr(0, eq), value));
    return true;
  });
  if (!read) throw BadIOException("");
}

StringMapPairVec::iterator Utils::storeAttrs(StringMapPairVec& attrPairVec, StringMap& argMap) {
  std::stable_sort(attrPairVec.begin(), attrPairVec.end(), PairCompareLess());
  StringMapPairVec firsts, repeats;
  for (std::size_t i = 0; i < attrPairVec.size(); ++i) {
    bool repeat = i > 0 && PairCompareEqual()(attrPairVec[i - 1], attrPairVec[i]);
    (repeat ? repeats : firsts).push_back(attrPairVec[i]);
  }
  argMap.clear();
  argMap.insert(firsts.begin(), firsts.end());
  std::size_t split = firsts.size();
  attrPairVec.swap(firsts);
  attrPairVec.insert(attrPairVec.end(), repeats.begin(), repeats.end());
  return attrPairVec.begin() + static_cast<std::ptrdiff_t>(split);
}

void Utils::storeResourceAttrs(StringMapPairVec& attrPairVec, StringMap& argMap, AttrDupVals dupValsEnum) {
  StringMapPairVec::iterator repeats = storeAttrs(attrPairVec, argMap);
  if (repeats == attrPairVec.end()) return;
  if (dupValsEnum == LAST_DUP_VALUE) {
    for (StringMapPairVec::iterator it = repeats; it != attrPairVec.end(); ++it) argMap[it->first] = it->second;
    return;
  }
  // One error for all repeats: each later one wraps the error so far as its cause.
  Exception error;
  for (StringMapPairVec::iterator it = repeats; it != attrPairVec.end(); ++it) {
    UserErrorException repeat(kMsgDuplicate, it->second.c_str(), it->first.c_str());
    if (it == repeats)
      error = repeat;
    else
      error = Exception(repeat.what(), error);
  }
  throw error;
}

bool Utils::isKeyValueInValidFormat(const std::string& file, const std::string& /*separator*/) {
  bool valid = true;
  bool read = forEachLine(file, [&valid](const std::string& line) {
    std::string::size_type eq = line.find('=');
    if (eq == std::string::npos) {
      valid = false;
    } else {
      std::string value = line.substr(eq + 1);
      if (value.find('=') != std::string::npos)
        valid = value.size() >= 2 && value.front() == '\'' && value.back() == '\'';
    }
    return valid;
  });
  return read && valid;
}

bool Utils::isKeyValueInValidFormat(const std::string& file, char separator) {
  return isKeyValueInValidFormat(file, std::string(1, separator));
}

int Utils::parseSpecialValues(const std::string& faceValue, char spSeparator,
                              std::vector<std::string>& specialValues, std::vector<std::size_t>& positions) {
  specialValues.clear();
  positions.clear();
  static const std::string trimSet = WHITESPACE_CHARS + spSeparator;
  bool inPair = false;
  std::string::size_type open = 0;
  for (std::string::size_type i = 0; i < faceValue.size(); ++i) {
    if (faceValue[i] != spSeparator) continue;
    if (inPair) {
      std::string value = faceValue.substr(open, i - open);
      trimTheString(value, trimSet);
      if (!value.empty()) {
        specialValues.push_back(value);
        positions.push_back(open);
      }
      inPair = false;
    } else if (i + 1 < faceValue.size() && faceValue[i + 1] == spSeparator) {
      ++i;  // a doubled separator stands for itself
    } else {
      inPair = true;
      open = i;
    }
  }
  CLS_ASSERT(specialValues.size() == positions.size());
  return static_cast<int>(specialValues.size());
}

}  // namespace cls
