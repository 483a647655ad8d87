// A program of another service of the suite using the toolbox: built apart from the project,
// with nothing but the compiler, the headers and the built static libraries, as such a program
// would be. It touches every group of operations by the names a caller knows, and says what
// differed.
// Exit status 0 when everything held.
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "cppgen/clsException.h"
#include "cppgen/clsUserErrorException.h"
#include "cppgen/clsUtils.h"

namespace {

int g_failures = 0;

void expect(bool ok, const char* what) {
  if (!ok) {
    std::printf("FAILED: %s\n", what);
    ++g_failures;
  }
}

}  // namespace

int main(int argc, char** argv) {
  using cls::Utils;
  std::string scratch = argc > 1 ? argv[1] : "/tmp";

  std::string s = "  padded\t";
  Utils::trimTheString(s, Utils::WHITESPACE_CHARS);
  expect(s == "padded", "trimTheString");
  s = "abcdefghijklmnopqrst";
  Utils::trimLongString(s, 10);
  expect(s == "abcdefg...", "trimLongString");
  expect(Utils::areAllCharsInSet("ba", "ab") && !Utils::containsChars("ab", ""), "character sets");
  s = "aaa";
  Utils::replace(s, "a", "aa");
  expect(s == "aaaaa", "replace");
  Utils::purgeChars(s, "a");
  Utils::makeUpper(s);
  expect(s.empty() && Utils::compareNoCase("AbC", "aBc") == 0, "purge, case");

  char* mem = nullptr;
  Utils::memoryAlloc(reinterpret_cast<void**>(&mem), 16);
  expect(mem != nullptr && mem[15] == 0, "memoryAlloc");
  Utils::memoryFree(reinterpret_cast<void**>(&mem));
  expect(mem == nullptr, "memoryFree");

  expect(Utils::itoa(-7) == "-7" && Utils::itoa(7u) == "7" && Utils::itoa(-7L) == "-7" && Utils::itoa(7UL) == "7",
         "itoa");
  std::string when, host;
  Utils::timeToString(Utils::getTimeNow(), when);
  Utils::getLocalHostName(host);
  expect(when.size() == 24 && !host.empty(), "time and host");

  cls::StringMapPairVec pairs;
  std::string list = "a=1,b='x,y',c";
  Utils::extractAttrsFromList(list, pairs, true);
  expect(pairs.size() == 3 && pairs[1] == cls::StringMapPair("b", "x,y") && pairs[2].second.empty(), "list");

  cls::StringMap map;
  list = "a=1,b=2,a=3";
  Utils::getAttrsFromList(list, map, false, Utils::LAST_DUP_VALUE);
  expect(map["a"] == "3" && map["b"] == "2", "last value wins");
  list = "a=1,b=2,a=3";
  bool threw = false;
  try {
    Utils::getAttrsFromList(list, map, false, Utils::NO_DUP_VALUES);
  } catch (const cls::Exception& e) {
    threw = e.what().find("-4980: ") != std::string::npos;
  }
  expect(threw && map["a"] == "1", "a repeated name is an error");
  list = "c";
  threw = false;
  try {
    Utils::getAttrsFromList(list, map, false, Utils::NO_DUP_VALUES);
  } catch (const cls::UserErrorException& e) {
    threw = e.getMsgId() == 4228;
  }
  expect(threw, "an item without =");

  std::string path = scratch + "/utils_outside_program.attrs";
  std::ofstream(path) << "x=\nk='v'\n";
  pairs.clear();
  Utils::extractAttrsFromFile(path, pairs, false, true);
  expect(pairs.size() == 2 && pairs[1].second == "v", "file");
  Utils::getAttrsFromFile(path, map, false, Utils::NO_DUP_VALUES);
  expect(map.size() == 2 && map["k"] == "'v'", "file to map");
  expect(Utils::isKeyValueInValidFormat(path, "="), "format");
  std::remove(path.c_str());
  threw = false;
  try {
    Utils::extractAttrsFromFile(path, pairs, false, false);
  } catch (const cls::BadIOException&) {
    threw = true;
  }
  expect(threw, "a missing file");

  std::vector<std::string> values;
  std::vector<std::size_t> positions;
  expect(Utils::parseSpecialValues("at %here%", '%', values, positions) == 1 && values[0] == "here" &&
             positions[0] == 3,
         "parseSpecialValues");
  expect(cls::PairCompareLess()(cls::StringMapPair("a", "2"), cls::StringMapPair("b", "1")) &&
             cls::PairCompareEqual()(cls::StringMapPair("a", "1"), cls::StringMapPair("a", "2")),
         "pair comparisons");

  if (g_failures == 0) std::printf("all held\n");
  return g_failures == 0 ? 0 : 1;
}
