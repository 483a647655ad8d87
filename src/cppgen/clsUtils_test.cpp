#include "cppgen/clsUtils.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "cppgen/clsException.h"
#include "cppgen/clsUserErrorException.h"

namespace fs = std::filesystem;
using cls::StringMap;
using cls::StringMapPair;
using cls::StringMapPairVec;
using cls::Utils;

namespace {

class UtilsTest : public ::testing::Test {
 protected:
  // Errors are rendered from the catalog of a copy of the shipped home, which also takes the
  // trace lines they write.
  void SetUp() override {
    char tmpl[] = "/tmp/clsutils_test.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    fs::copy(std::getenv("VYN_TEST_HOME"), dir_ + "/home", fs::copy_options::recursive);
    setenv("ZEL_VYN_HOME", (dir_ + "/home").c_str(), 1);
    setenv("LANG", "C", 1);
  }
  void TearDown() override {
    unsetenv("ZEL_VYN_HOME");
    fs::remove_all(dir_);
  }

  std::string file(const std::string& text) {
    std::string path = dir_ + "/attrs" + std::to_string(++files_);
    std::ofstream(path, std::ios::binary) << text;
    return path;
  }

  static StringMapPairVec fromList(std::string list, bool acceptBlanks) {
    StringMapPairVec pairs;
    Utils::extractAttrsFromList(list, pairs, acceptBlanks);
    return pairs;
  }

  std::string dir_;
  int files_ = 0;
};

TEST_F(UtilsTest, TrimTakesOnlyTheGivenCharactersFromBothEnds) {
  std::string s = " \t x y \r\n";
  Utils::trimTheString(s, Utils::WHITESPACE_CHARS);
  EXPECT_EQ(s, "x y");
  s = "--a-b--";
  Utils::trimTheString(s, "-");
  EXPECT_EQ(s, "a-b");
  s = " \n\t ";
  Utils::trimTheString(s, Utils::WHITESPACE_CHARS);
  EXPECT_EQ(s, "");
  s = " kept ";
  Utils::trimTheString(s, "");
  EXPECT_EQ(s, " kept ");
  EXPECT_EQ(Utils::WHITESPACE_CHARS, " \r\n\t");
}

TEST_F(UtilsTest, LongStringsAreCutToTheirLengthWithAnEllipsis) {
  std::string s = "abcdefghijklmnopqrst";
  Utils::trimLongString(s, 10);
  EXPECT_EQ(s, "abcdefg...");
  s = "abcdefghij";
  Utils::trimLongString(s, 10);
  EXPECT_EQ(s, "abcdefghij") << "a string that fits is left alone";
  s = "abcdef";
  Utils::trimLongString(s, 1);
  EXPECT_EQ(s, "...") << "never shorter than the ellipsis";
}

TEST_F(UtilsTest, CharacterSetQuestionsAndPurging) {
  EXPECT_TRUE(Utils::areAllCharsInSet("", "abc"));
  EXPECT_TRUE(Utils::areAllCharsInSet("cab", "abc"));
  EXPECT_FALSE(Utils::areAllCharsInSet("cabd", "abc"));
  EXPECT_FALSE(Utils::containsChars("anything", ""));
  EXPECT_TRUE(Utils::containsChars("a,b", ",;"));
  EXPECT_FALSE(Utils::containsChars("ab", ",;"));

  std::string s = "a,b;c,";
  Utils::purgeChars(s, ",;");
  EXPECT_EQ(s, "abc");
  Utils::purgeChars(s, "");
  EXPECT_EQ(s, "abc");

  s = "MiXed 1";
  Utils::makeUpper(s);
  EXPECT_EQ(s, "MIXED 1");
  Utils::makeLower(s);
  EXPECT_EQ(s, "mixed 1");
  EXPECT_EQ(Utils::compareNoCase("En_US", "en_us"), 0);
  EXPECT_NE(Utils::compareNoCase("en_US", "de_DE"), 0);
}

TEST_F(UtilsTest, ReplaceGoesOnBehindEachInsertionUpToTheOriginalLength) {
  std::string s = "aaa";
  Utils::replace(s, "a", "aa");
  EXPECT_EQ(s, "aaaaa") << "the scan stops at position 3 of the grown string";
  s = "a.b.c";
  Utils::replace(s, ".", "::");
  EXPECT_EQ(s, "a::b::c");
  s = "abcabc";
  Utils::replace(s, "bc", "");
  EXPECT_EQ(s, "aa");
  s = "none here";
  Utils::replace(s, "x", "y");
  EXPECT_EQ(s, "none here");
  Utils::replace(s, "", "y");
  EXPECT_EQ(s, "none here");
}

TEST_F(UtilsTest, AllocationGivesZeroedMemoryAndFreeingClearsThePointer) {
  unsigned char* p = nullptr;
  Utils::memoryAlloc(&p, 64);
  ASSERT_NE(p, nullptr);
  for (int i = 0; i < 64; ++i) EXPECT_EQ(p[i], 0) << i;
  Utils::memoryFree(&p);
  EXPECT_EQ(p, nullptr);
  Utils::memoryFree(&p);  // a null pointer is left alone
  EXPECT_EQ(p, nullptr);

  void* v = nullptr;
  Utils::memoryAlloc(&v, 0);
  EXPECT_NE(v, nullptr);
  Utils::memoryFree(&v);
  EXPECT_EQ(v, nullptr);
}

TEST_F(UtilsTest, AllocationOverALivePointerEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  char keep = 0;
  char* live = &keep;
  EXPECT_DEATH(Utils::memoryAlloc(&live, 8), "");
}

TEST_F(UtilsTest, NumbersAsDecimalText) {
  EXPECT_EQ(Utils::itoa(INT_MIN), "-2147483648");
  EXPECT_EQ(Utils::itoa(0), "0");
  EXPECT_EQ(Utils::itoa(UINT_MAX), "4294967295");
  EXPECT_EQ(Utils::itoa(LONG_MIN), "-9223372036854775808");
  EXPECT_EQ(Utils::itoa(ULONG_MAX), "18446744073709551615");
}

TEST_F(UtilsTest, TimeAndHostName) {
  std::uint32_t before = static_cast<std::uint32_t>(std::time(nullptr));
  std::uint32_t now = Utils::getTimeNow();
  EXPECT_GE(now, before);
  EXPECT_LE(now, before + 5);

  const char* tz = std::getenv("TZ");
  std::string oldTz = tz != nullptr ? tz : "";
  setenv("TZ", "UTC", 1);
  tzset();
  std::string text;
  Utils::timeToString(0, text);
  EXPECT_EQ(text, "Thu Jan  1 00:00:00 1970");
  Utils::timeToString(1795409532u, text);
  EXPECT_EQ(text, "Mon Nov 23 04:52:12 2026");
  if (tz != nullptr) setenv("TZ", oldTz.c_str(), 1); else unsetenv("TZ");
  tzset();

  char host[256] = "";
  ASSERT_EQ(gethostname(host, sizeof host), 0);
  std::string name;
  Utils::getLocalHostName(name);
  EXPECT_EQ(name, std::string(host).substr(0, 63));
}

TEST_F(UtilsTest, ListItemsWithQuotedCommasAndBlanks) {
  std::string list = "a=1,b='x,y',c";
  StringMapPairVec pairs;
  Utils::extractAttrsFromList(list, pairs, true);
  EXPECT_EQ(pairs, (StringMapPairVec{{"a", "1"}, {"b", "x,y"}, {"c", ""}}));
  EXPECT_TRUE(list.empty()) << "the list is eaten";

  EXPECT_EQ(fromList("", false), StringMapPairVec{});
  EXPECT_EQ(fromList("=5", false), StringMapPairVec{}) << "an empty name drops the item";
  EXPECT_EQ(fromList(" a = 1 ,, b=2=3 ", false), (StringMapPairVec{{"a ", " 1"}, {"b", "2=3"}}))
      << "blanks around = stay, empty items are skipped";
  EXPECT_EQ(fromList("q='',r=''", false), (StringMapPairVec{{"q", ""}, {"r", ""}}));
  EXPECT_EQ(fromList("d='open,e=1", false), (StringMapPairVec{{"d", "open,e="}}))
      << "an unclosed quote takes the rest of the list, less its last character";
}

TEST_F(UtilsTest, ListItemWithoutEqualsIsAnErrorUnlessBlanksAreAccepted) {
  std::string list = "a=1,b='x,y',c,d=4";
  StringMapPairVec pairs;
  try {
    Utils::extractAttrsFromList(list, pairs, false);
    FAIL() << "no exception";
  } catch (const cls::UserErrorException& e) {
    EXPECT_EQ(e.what(), "VYN-4228: The item c is not of the form name=value.\n");
    EXPECT_EQ(e.getMsgId(), 4228);
  }
  EXPECT_EQ(pairs, (StringMapPairVec{{"a", "1"}, {"b", "x,y"}})) << "the pairs before it stay";
}

TEST_F(UtilsTest, FileLinesWithQuotesBlanksAndAnUnfinishedLastLine) {
  std::string path = file("x=\n\n  name = v  \nnoequals\nq='quoted'\nq1='\nr='a=b'\nlast=unfinished");
  StringMapPairVec pairs;
  Utils::extractAttrsFromFile(path, pairs, false, false);
  EXPECT_EQ(pairs, (StringMapPairVec{{"x", ""}, {"name ", " v"}, {"q", "'quoted'"}, {"q1", "'"}, {"r", "'a=b'"}}));

  pairs.clear();
  Utils::extractAttrsFromFile(path, pairs, true, true);
  EXPECT_EQ(pairs, (StringMapPairVec{{"x", ""}, {"name ", " v"}, {"noequals", ""}, {"q", "quoted"}, {"q1", "'"},
                                     {"r", "a=b"}}));
}

TEST_F(UtilsTest, FileThatCannotBeReadThrowsBadIOWithNoText) {
  StringMapPairVec pairs;
  for (const std::string& path : {dir_ + "/missing", dir_}) {
    try {
      Utils::extractAttrsFromFile(path, pairs, true, false);
      FAIL() << path;
    } catch (const cls::BadIOException& e) {
      EXPECT_EQ(e.what(), "") << path;
      EXPECT_EQ(e.className(), "BadIOException");
    }
  }
  EXPECT_TRUE(pairs.empty());
}

TEST_F(UtilsTest, RepeatedNamesTakeTheLastValueOrAreAllReportedAtOnce) {
  StringMapPairVec pairs{{"a", "1"}, {"b", "2"}, {"a", "3"}};
  StringMap map{{"stale", "gone"}};
  Utils::storeResourceAttrs(pairs, map, Utils::LAST_DUP_VALUE);
  EXPECT_EQ(map, (StringMap{{"a", "3"}, {"b", "2"}}));

  pairs = {{"a", "1"}, {"b", "2"}, {"a", "3"}, {"b", "4"}, {"a", "5"}};
  try {
    Utils::storeResourceAttrs(pairs, map, Utils::NO_DUP_VALUES);
    FAIL() << "no exception";
  } catch (const cls::UserErrorException&) {
    FAIL() << "thrown as the base class";
  } catch (const cls::Exception& e) {
    EXPECT_EQ(e.className(), "Exception");
    EXPECT_EQ(e.getEntireErrorStack(),
              "VYN-4980: The value 4 is given again for the attribute b.\n\n"
              "VYN-4980: The value 5 is given again for the attribute a.\n\n"
              "VYN-4980: The value 3 is given again for the attribute a.\n");
  }
  EXPECT_EQ(map, (StringMap{{"a", "1"}, {"b", "2"}})) << "the first values stay";
}

TEST_F(UtilsTest, ReadersFillTheMapFromAListOrAFile) {
  StringMap map;
  std::string list = "b=2,a=1,b=3";
  Utils::getAttrsFromList(list, map, false, Utils::LAST_DUP_VALUE);
  EXPECT_EQ(map, (StringMap{{"a", "1"}, {"b", "3"}}));

  Utils::getAttrsFromFile(file("k='v'\nflag\n"), map, true, Utils::NO_DUP_VALUES);
  EXPECT_EQ(map, (StringMap{{"flag", ""}, {"k", "'v'"}})) << "quotes stay in a file's values";
  EXPECT_THROW(Utils::getAttrsFromFile(file("k=1\nk=2\n"), map, true, Utils::NO_DUP_VALUES), cls::Exception);
}

TEST_F(UtilsTest, KeyValueFormatWantsEqualsOnEveryLineAndQuotesAroundFurtherEquals) {
  EXPECT_TRUE(Utils::isKeyValueInValidFormat(file("a=1\n\n  b = 2 \nc='x=y'\n"), "="));
  EXPECT_TRUE(Utils::isKeyValueInValidFormat(file(""), '='));
  EXPECT_FALSE(Utils::isKeyValueInValidFormat(file("a=1\nflag\n"), "="));
  EXPECT_FALSE(Utils::isKeyValueInValidFormat(file("c=x=y\n"), "="));
  EXPECT_FALSE(Utils::isKeyValueInValidFormat(file("c='x=y\n"), "="));
  EXPECT_FALSE(Utils::isKeyValueInValidFormat(dir_ + "/missing", "="));
  EXPECT_FALSE(Utils::isKeyValueInValidFormat(dir_, "=")) << "a directory cannot be read";
}

// The only test that calls parseSpecialValues: its first call fixes the trim set for the process.
TEST_F(UtilsTest, MarkedValuesArePairsOfSeparatorsAndTheFirstSeparatorStaysInTheTrimSet) {
  std::vector<std::string> values{"old"};
  std::vector<std::size_t> positions{99};
  EXPECT_EQ(Utils::parseSpecialValues("run %host% on %% port % 80 %%", '%', values, positions), 2);
  EXPECT_EQ(values, (std::vector<std::string>{"host", "80"}));
  EXPECT_EQ(positions, (std::vector<std::size_t>{4, 22}));

  std::vector<int> at;
  EXPECT_EQ(Utils::parseSpecialValues("%  % %open", '%', values, at), 0) << "blank pairs and open ends count not";
  EXPECT_TRUE(values.empty());
  EXPECT_TRUE(at.empty());
  EXPECT_EQ(Utils::parseSpecialValues("%a%%b%", '%', values, at), 2) << "a doubled separator inside a pair closes it";
  EXPECT_EQ(values, (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(at, (std::vector<int>{0, 3}));

  // Another separator is still found, but only the first one is trimmed away.
  EXPECT_EQ(Utils::parseSpecialValues("x #name# y", '#', values, at), 1);
  EXPECT_EQ(values, (std::vector<std::string>{"#name"}));
  EXPECT_EQ(at, (std::vector<int>{2}));
}

}  // namespace
