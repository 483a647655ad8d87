// Reading and writing profile files.
#include "caa/profiler/caa_profile.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "caa/profiler/caa_profiler_fixture.h"
#include "caa/profiler/caa_template.h"

using namespace CAA;

class ProfileFile : public ProfilerDir {
 protected:
  string_Map load(const std::string& text) {
    string_Map m;
    Profile::loadProfile(write("p.cap", text), m);
    return m;
  }
  std::string syntaxMessage(const std::string& text) {
    try {
      load(text);
    } catch (const X_PROF_SyntaxError& e) {
      return e.what();
    }
    return "no error";
  }
};

TEST_F(ProfileFile, NamesAreUpperCasedAndValuesKeptWhole) {
  string_Map m = load(
      "# a comment\n\n  name = Some Value  \nX=Y=Z\nW==Y\nA=\n=value\nHASH=a # b\nCR=v\r\nname=later\n");
  EXPECT_EQ(m["NAME"], "later");  // a later line replaces an earlier one
  EXPECT_EQ(m["X"], "Y=Z");
  EXPECT_EQ(m["W"], "=Y");
  EXPECT_EQ(m["A"], "");
  EXPECT_EQ(m["VALUE"], "");  // leading signs are skipped
  EXPECT_EQ(m["HASH"], "a # b");
  EXPECT_EQ(m["CR"], "v\r");
  EXPECT_EQ(m.size(), 7u);
}

TEST_F(ProfileFile, LoadKeepsEntriesTheFileDoesNotName) {
  string_Map m = {{"KEEP", "1"}, {"A", "old"}};
  Profile::loadProfile(write("p.cap", "A=new\n"), m);
  EXPECT_EQ(m["KEEP"], "1");
  EXPECT_EQ(m["A"], "new");
}

TEST_F(ProfileFile, ContinuationLinesJoinAndCountAsPhysicalLines) {
  string_Map m = load("A=one \\\n  two\\  \nthree\n#c \\\nSWALLOWED=1\nB=x\n");
  EXPECT_EQ(m["A"], "one   twothree");
  EXPECT_EQ(m.count("SWALLOWED"), 0u);
  EXPECT_EQ(m["B"], "x");
  // The number is that of the continued line's last piece.
  std::string message = syntaxMessage("A=1\nbad \\\nline\n");
  EXPECT_EQ(message.find("Syntax error in " + dir + "/p.cap, line number 3: \"bad line\"\n(File: caa_profile, line: "), 0u);
  EXPECT_EQ(message.back(), '\n');
}

TEST_F(ProfileFile, TrailingBackslashAtEndOfFileLosesTheLine) {
  string_Map m = load("A=1\nB=2\\\n");
  EXPECT_EQ(m.size(), 1u);
}

TEST_F(ProfileFile, MalformedLinesAreSyntaxErrors) {
  EXPECT_NE(syntaxMessage("NOEQUALS\n").find("line number 1: \"NOEQUALS\""), std::string::npos);
  EXPECT_NE(syntaxMessage("A=1\n===\n").find("line number 2"), std::string::npos);
  EXPECT_NE(syntaxMessage("= =x\n").find("Syntax error"), std::string::npos);
  EXPECT_EQ(syntaxMessage("").substr(0, 8), "no error");
}

TEST_F(ProfileFile, LongLinesAreCutOrRefusedNeverOverrun) {
  // A physical line past the read limit is read as two lines; the rest lacks its sign.
  std::string longValue(20000, 'v');
  EXPECT_NE(syntaxMessage("A=" + longValue + "\n").find("line number 2"), std::string::npos);
  // Names and values grown past their limits by continuation lines are refused.
  std::string piece(5000, 'n');
  EXPECT_NE(syntaxMessage(piece + "\\\n=1\n").find("Syntax error"), std::string::npos);
  std::string vals;
  for (int i = 0; i < 3; ++i) vals += std::string(5000, 'x') + "\\\n";
  EXPECT_NE(syntaxMessage("A=" + vals + "end\n").find("Syntax error"), std::string::npos);
  std::string fits(10239, 'x');
  EXPECT_EQ(load("A=" + fits.substr(0, 5000) + "\\\n" + fits.substr(5000) + "\n")["A"].size(), 10239u);
}

TEST_F(ProfileFile, BinaryBytesDoNotBreakTheReader) {
  std::string text = "A=x";
  text += '\0';
  text += "junk\nB=\x01\xff\n";
  string_Map m = load(text);
  EXPECT_EQ(m["A"], "x");
  EXPECT_EQ(m["B"], "\x01\xff");
}

TEST_F(ProfileFile, MissingFileIsInvalidFile) {
  string_Map m;
  EXPECT_THROW(Profile::loadProfile(dir + "/none.cap", m), X_PROF_InvalidFile);
}

TEST_F(ProfileFile, WriteOrdersNameTypeThenBytes) {
  std::string path = dir + "/w.cap";
  Profile::writeProfile(path, {{"b", "2"}, {"TYPE", "t"}, {"A", ""}, {"NAME", "n"}, {"Z", "#"}});
  EXPECT_EQ(read(path), "NAME=n\nTYPE=t\nA=\nZ=#\nb=2\n");
  Profile::writeProfile(path, {{"X", "1"}});
  EXPECT_EQ(read(path), "NAME=\nTYPE=\nX=1\n");
}

TEST_F(ProfileFile, WriteIntoMissingDirectoryFailsAndLeavesNothing) {
  try {
    Profile::writeProfile(dir + "/no/such.cap", {{"NAME", "a"}});
    FAIL();
  } catch (const X_PROF_InvalidFile& e) {
    EXPECT_EQ(e.what().substr(0, 29), "Error creating profile file " + std::string(1, dir[0]));
  }
}

TEST_F(ProfileFile, FailedWriteKeepsTheOldProfile) {
  std::string path = write("keep.cap", "NAME=keep\nTYPE=t\n");
  chmod(dir.c_str(), 0555);
  bool threw = false;
  try {
    Profile::writeProfile(path, {{"NAME", "keep"}, {"TYPE", "other"}});
  } catch (const X_PROF_InvalidFile&) {
    threw = true;
  }
  chmod(dir.c_str(), 0755);
  if (geteuid() != 0) {
    EXPECT_TRUE(threw);
  }
  if (threw) {
    EXPECT_EQ(read(path), "NAME=keep\nTYPE=t\n");
  }
}

TEST_F(ProfileFile, CreateChecksNameAndTypeAndCompletesFromType) {
  writeTypes();
  string_Map m = {{"NAME", "r"}, {"TYPE", "application"}, {"AUTO_START", ""}, {"USR_X", "1"}};
  Profile::createProfile(m, "", true, false);
  string_Map back;
  Profile::loadProfile(dir + "/r.cap", back);
  EXPECT_EQ(back["AUTO_START"], "restore");
  EXPECT_EQ(back["CHECK_INTERVAL"], "60");
  EXPECT_EQ(back["USR_X"], "1");
  EXPECT_EQ(read(dir + "/r.cap").substr(0, 24), "NAME=r\nTYPE=application\n");

  string_Map noName = {{"TYPE", "application"}};
  EXPECT_THROW(Profile::createProfile(noName, "", true, false), X_PROF);
  string_Map named = {{"NAME", "r"}, {"TYPE", "application"}};
  EXPECT_THROW(Profile::createProfile(named, dir + "/t.cap", true, true), X_PROF);
  string_Map noType = {{"NAME", "r"}};
  EXPECT_THROW(Profile::createProfile(noType, "", true, false), X_PROF);
  string_Map exists = {{"NAME", "r"}, {"TYPE", "application"}};
  EXPECT_THROW(Profile::createProfile(exists, "", false, false), X_PROF_Exists);
  string_Map badType = {{"NAME", "q"}, {"TYPE", "nosuch"}};
  try {
    Profile::createProfile(badType, "", true, false);
    FAIL();
  } catch (const X_PROF& e) {
    EXPECT_EQ(e.className(), "X_PROF");
    EXPECT_EQ(e.what().substr(0, 46), "Invalid Type Definition File\n(File: caa_profil");
  }

  string_Map tmpl = {{"TYPE", "application"}};
  Profile::createProfile(tmpl, dir + "/template.cap", true, true);
  EXPECT_EQ(read(dir + "/template.cap").substr(0, 6), "NAME=\n");
}

TEST_F(ProfileFile, ADefinitionReadOnceServesTheChecksAndTheWrite) {
  writeTypes();
  AttrMap amap;
  ASSERT_EQ(CaaTemplate::readTDF("application", amap), 0);
  // Gone from disk: what was read before is all the checks and the write may use.
  std::filesystem::remove(dir + "/generic.tdf");
  std::filesystem::remove(dir + "/application.tdf");
  string_Map m = {{"NAME", "r"},         {"TYPE", "application"},   {"ACTION_SCRIPT", "/s"},
                  {"REBALANCE", "12:30"}, {"AUTO_START", "restore"}, {"PLACEMENT", "balanced"}};
  testing::internal::CaptureStdout();
  EXPECT_TRUE(Profile::validateProfile(m, true, &amap));
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(m["REBALANCE"], "t:*:12:30");  // mended by the rules of the type
  Profile::createProfile(m, "", true, false, &amap);
  string_Map back;
  Profile::loadProfile(dir + "/r.cap", back);
  EXPECT_EQ(back["CHECK_INTERVAL"], "60");

  // A map that breaks the definition given is refused by it, with the reasons told.
  string_Map bad = {{"NAME", "q"},
                    {"TYPE", "application"},
                    {"CHECK_INTERVAL", "-1"},
                    {"AUTO_START", "restore"},
                    {"PLACEMENT", "balanced"}};
  testing::internal::CaptureStdout();
  EXPECT_FALSE(Profile::validateProfile(bad, false, &amap));
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Error: ACTION_SCRIPT must be set for application\nError: CHECK_INTERVAL out of range: -1\n"
            "Error: The ACTION_SCRIPT attribute of the resource profile must be set\n"
            "Error: CHECK_INTERVAL out of range: -1\n");
  // Without one, the definition is read, and now it cannot be.
  testing::internal::CaptureStdout();
  EXPECT_FALSE(Profile::validateProfile(m, false));
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Error: Invalid Type: application\n");
}

TEST_F(ProfileFile, WhatIsWrittenReadsBackAsItWasOrIsNotWrittenAtAll) {
  std::string path = write("r.cap", "NAME=r\nTYPE=t\n");
  // The longest line the reader takes whole.
  std::string longest(VYN_PROFILE_LINE_MAXLEN - std::string("DESCRIPTION=").size(), 'd');
  EXPECT_EQ(Profile::valueRoom("DESCRIPTION"), longest.size());
  Profile::writeProfile(path, {{"NAME", "r"}, {"DESCRIPTION", longest}, {"B", "x"}});
  string_Map back;
  Profile::loadProfile(path, back);
  EXPECT_EQ(back["DESCRIPTION"], longest);
  EXPECT_EQ(back["B"], "x");

  std::string written = read(path);
  struct Case {
    std::string value;
    EntryFault fault;
  } cases[] = {
      {longest + "d", ENTRY_TOO_LONG},
      {std::string(20000, 'd'), ENTRY_TOO_LONG},
      {"web\nACTION_SCRIPT=/tmp/evil.sh", ENTRY_LINE_BREAK},
      {std::string("web\0ACTION_SCRIPT=/tmp/evil.sh", 30), ENTRY_LINE_BREAK},
      {"ends in a backslash\\", ENTRY_CONTINUED},
      {"ends in a backslash\\ \t", ENTRY_CONTINUED},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(Profile::entryFault("DESCRIPTION", c.value), c.fault) << c.value.size();
    EXPECT_THROW(Profile::writeProfile(path, {{"NAME", "r"}, {"DESCRIPTION", c.value}}), X_PROF_InvalidFile);
    EXPECT_EQ(read(path), written) << "the stored profile stays as it was";
  }
  EXPECT_EQ(Profile::entryFault("DESCRIPTION", "a \\ in the middle, blanks around "), ENTRY_OK);
  EXPECT_EQ(Profile::entryFault("A=B", "x"), ENTRY_BAD_NAME);
  EXPECT_EQ(Profile::entryFault("#A", "x"), ENTRY_BAD_NAME);
  EXPECT_EQ(Profile::entryFault("", "x"), ENTRY_BAD_NAME);
  EXPECT_EQ(Profile::entryFault(std::string(VYN_PROFILE_NAME_MAXLEN, 'N'), ""), ENTRY_BAD_NAME);
  int files = 0;
  for (auto& e : std::filesystem::directory_iterator(dir)) (void)e, ++files;
  EXPECT_EQ(files, 1) << "no temporary file stays behind";
}

TEST_F(ProfileFile, OnlyARegularFileIsReadAndNothingElseIsWaitedFor) {
  std::string fifo = dir + "/fifo.cap";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  string_Map m;
  EXPECT_THROW(Profile::loadProfile(fifo, m), X_PROF_InvalidFile);
  EXPECT_THROW(Profile::loadProfile(dir, m), X_PROF_InvalidFile);
  EXPECT_THROW(Profile::loadProfile("/dev/zero", m), X_PROF_InvalidFile);
  EXPECT_TRUE(m.empty());
}

TEST_F(ProfileFile, AReplacedProfileKeepsItsModeAndOwner) {
  std::string path = write("r.cap", "NAME=r\nTYPE=t\n");
  ASSERT_EQ(chmod(path.c_str(), 0600), 0);
  if (geteuid() == 0) {
    ASSERT_EQ(chown(path.c_str(), 4242, 4343), 0);
  }
  Profile::writeProfile(path, {{"NAME", "r"}, {"TYPE", "u"}});
  struct stat st;
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0600u);
  if (geteuid() == 0) {
    EXPECT_EQ(st.st_uid, 4242u);
    EXPECT_EQ(st.st_gid, 4343u);
  }
  EXPECT_EQ(read(path), "NAME=r\nTYPE=u\n");
}

TEST(ProfileText, TrimAndNumeric) {
  char a[] = "  \t x y \t\n";
  Profile::trim(a);
  EXPECT_STREQ(a, "x y");
  char b[] = "x\n\n";
  Profile::trim(b);
  EXPECT_STREQ(b, "x\n");  // only one newline goes
  EXPECT_TRUE(Profile::numeric(""));
  EXPECT_TRUE(Profile::numeric("0123"));
  EXPECT_FALSE(Profile::numeric("1a"));
  EXPECT_FALSE(Profile::numeric("-1"));
}
