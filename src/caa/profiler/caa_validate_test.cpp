// The rules a profile must keep.
#include "caa/profiler/caa_validate.h"

#include "caa/profiler/caa_profile.h"
#include "caa/profiler/caa_profiler_fixture.h"

using namespace CAA;

class Validation : public ProfilerDir {
 protected:
  void SetUp() override {
    ProfilerDir::SetUp();
    writeTypes();
  }
  // The verdict, and what was reported, of checking a map.
  bool check(string_Map& m, bool fixup, std::string* out) {
    testing::internal::CaptureStdout();
    bool ok = Profile::validateProfile(m, fixup);
    *out = testing::internal::GetCapturedStdout();
    return ok;
  }
  string_Map app() {
    return {{"NAME", "r"}, {"TYPE", "application"}, {"ACTION_SCRIPT", "/x/r.scr"}, {"PLACEMENT", "balanced"},
            {"AUTO_START", "restore"}, {"CHECK_INTERVAL", "60"}};
  }
};

TEST_F(Validation, GoodApplicationPassesSilently) {
  string_Map m = app();
  m["USR_ANY"] = "x";
  std::string out;
  EXPECT_TRUE(check(m, false, &out));
  EXPECT_EQ(out, "");
}

TEST_F(Validation, EveryFaultOfARunIsReported) {
  string_Map m = app();
  m["NAME"] = std::string(128, 'n');
  m["ACTION_SCRIPT"] = "";
  m["CHECK_INTERVAL"] = "-1";
  m["AUTO_START"] = "sometimes";
  m["PLACEMENT"] = "restricted";
  m["PRIORITY"] = "x";
  m["XUSR_ANY"] = "1";
  m["UPTIME_THRESHOLD"] = "5";
  std::string out;
  EXPECT_FALSE(check(m, false, &out));
  EXPECT_EQ(out,
            "Error: Resource Name '" + m["NAME"] + "' is too long\n"
            "Error: ACTION_SCRIPT must be set for application\n"
            "Error: CHECK_INTERVAL out of range: -1\n"
            "Error: PRIORITY out of range: x\n"
            "Error: Invalid attribute, XUSR_ANY, in the profile.\n"
            "Error: The ACTION_SCRIPT attribute of the resource profile must be set\n"
            "Error: CHECK_INTERVAL out of range: -1\n"
            "Error: UPTIME_THRESHOLD value invalid: 5\n"
            "Error: AUTO_START invalid: sometimes\n"
            "Error: HOSTING_MEMBERS is required for: restricted placement policy\n");
}

TEST_F(Validation, NamesTypesAndPlacement) {
  std::string out;
  string_Map m = app();
  m["NAME"] = std::string(127, 'n');
  m["HOSTING_MEMBERS"] = "a,b";
  EXPECT_FALSE(check(m, false, &out));
  EXPECT_EQ(out, "Error: HOSTING_MEMBERS syntax error a,b\nError: HOSTING_MEMBERS syntax error: a,b\n"
                 "Error: No HOSTING_MEMBERS is needed for balanced placement policy\n");

  string_Map empty = {{"TYPE", "nosuch"}};
  EXPECT_FALSE(check(empty, false, &out));
  EXPECT_EQ(out, "Error: Improper Name: \nError: Invalid Type: nosuch\n");

  string_Map net = {{"NAME", ".n"}, {"TYPE", "network"}, {"SUBNET", ".."}};
  EXPECT_FALSE(check(net, false, &out));
  EXPECT_EQ(out, "Error: Improper Name: .n\nError: Invalid subnet setting for network resource\n");
  net = {{"NAME", "n"}, {"TYPE", "network"}, {"SUBNET", "10.0.0.255"}};
  EXPECT_TRUE(check(net, false, &out));

  string_Map tape = {{"NAME", "t"}, {"TYPE", "tape"}};
  EXPECT_FALSE(check(tape, false, &out));
  EXPECT_EQ(out, "Error: DEVICE_NAME must be set for tape\n");
}

TEST_F(Validation, ForbiddenNameCharacterEndsTheProcess) {
  string_Map m = app();
  m["NAME"] = "a!b";
  EXPECT_EXIT(Profile::validateProfile(m, false), ::testing::ExitedWithCode(1), "");
  EXPECT_TRUE(Profile::validateResName("with space"));
  EXPECT_FALSE(Profile::validateResName("tab\there"));
}

TEST_F(Validation, RebalanceIsMendedOnlyWithFixup) {
  std::string out;
  string_Map m = app();
  m["REBALANCE"] = "12:+t:1:*:30";
  EXPECT_FALSE(check(m, false, &out));
  EXPECT_EQ(out, "");  // without fixup a bad value fails silently
  EXPECT_TRUE(check(m, true, &out));
  EXPECT_EQ(m["REBALANCE"], "t:*:12::0+t:1:*:30");
  m["REBALANCE"] = ":30";
  EXPECT_FALSE(check(m, true, &out));
  EXPECT_EQ(out, "Error: after fixup REBALANCE syntax error: :30 best fixed up as: t:*::30:0\n");
  m["REBALANCE"] = "1:2:3:4";
  EXPECT_FALSE(check(m, true, &out));
  EXPECT_EQ(out, "Error: after fixup REBALANCE syntax error: 1:2:3:4 best fixed up as: t:\n");
}

TEST_F(Validation, StoredFileNameAndReservedKeys) {
  std::string path = write("r.cap", "NAME=other\nTYPE=application\nACTION_SCRIPT=s\nPLACEMENT=balanced\n"
                                    "AUTO_START=1\nTARGET=x\nSTATUS=\n");
  testing::internal::CaptureStdout();
  EXPECT_FALSE(Profile::validateProfile(path));
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Error: NAME attribute must be the same as filename\nError: TARGET is a keyword\n"
            "Error: STATUS is a keyword\nError: Invalid attribute, STATUS, in the profile.\n"
            "Error: Invalid attribute, TARGET, in the profile.\n");
  EXPECT_THROW(Profile::validateProfile(dir + "/none.cap"), X_PROF_InvalidFile);
}

TEST(Rules, Integers) {
  EXPECT_TRUE(testInteger("", 0, -1));
  EXPECT_TRUE(testInteger("-", 0, -1));
  EXPECT_TRUE(testInteger("+", 0, -1));
  EXPECT_TRUE(testInteger("1 2", 0, -1));
  EXPECT_TRUE(testInteger(" 7", 0, 7));
  EXPECT_FALSE(testInteger("8", 0, 7));
  EXPECT_FALSE(testInteger("-1", 0, -1));
  EXPECT_TRUE(testInteger("-5", -1, -1));
  EXPECT_FALSE(testInteger("1x", -1, -1));
  EXPECT_FALSE(testInteger("x1", -1, -1));
  EXPECT_FALSE(testInteger("99999999999999999999", -1, -1));
  EXPECT_FALSE(testInteger("4294967296", -1, -1));
}

TEST(Rules, TimeUnitsVectorsSubnets) {
  for (const char* good : {"+5m", "0", "", "s", "12h", "3w"}) EXPECT_TRUE(testTimeUnit(good)) << good;
  for (const char* bad : {"5", "-5m", "5 m", "5x", "1:2s"}) EXPECT_FALSE(testTimeUnit(bad)) << bad;
  EXPECT_TRUE(testVector("a b c"));
  EXPECT_FALSE(testVector("a;b"));
  char s1[] = "...", s2[] = "..", s3[] = "1.2.3.256", s4[] = "1.2.3.4.5";
  EXPECT_TRUE(Profile::testSubnet(s1));
  EXPECT_FALSE(Profile::testSubnet(s2));
  EXPECT_FALSE(Profile::testSubnet(s3));
  EXPECT_FALSE(Profile::testSubnet(s4));
}

TEST(Rules, RebalanceEntries) {
  EXPECT_TRUE(testRebalance(""));
  EXPECT_TRUE(testRebalance("t:*:12:0+t:1,2:3:30"));
  EXPECT_TRUE(testRebalance("t::1:2:3"));
  EXPECT_TRUE(testRebalance("t:*x:*:*"));
  for (const char* bad : {"t:7:0:0", "t:1:24:0", "t:1:2", "x:1:2:3", "t:1:2:3:4", "t:a:1:1", "t:1:1:60"})
    EXPECT_FALSE(testRebalance(bad)) << bad;
  EXPECT_FALSE(testRebalance("t:1:2:3+" + std::string(130, '+')));
  char dw[MAX_STRING], hh[MAX_STRING], mm[MAX_STRING];
  ASSERT_TRUE(testDateTime("t:1,2:3:4", dw, hh, mm));
  EXPECT_STREQ(dw, "1,2");
  EXPECT_STREQ(hh, "3");
  EXPECT_STREQ(mm, "4");
}

TEST(Rules, FixupForms) {
  char line[MAX_STRING];
  const char* cases[][2] = {{"12", "*:12:0"}, {"12:30", "*:12:30"}, {"1::30", "1:*:30"}, {"1:12:", "1:12:0"},
                            {"12:", "*:12::0"}, {":30", "*::30:0"}, {":", "*:::0"}, {"::", "*:*:0"}, {"1:2:3:4", ""}};
  for (auto& c : cases) {
    fixupDateTime(c[0], line);
    EXPECT_STREQ(line, c[1]) << c[0];
  }
  fixupDateTime(std::string(200, '1').c_str(), line);
  EXPECT_STREQ(line, "");
  std::string r;
  fixupRebalance("t:12+1:12:", r);
  EXPECT_EQ(r, "t:*:12:0+t:1:12:0");
  EXPECT_EQ(count_char("a:b:c", ':'), 2);
  EXPECT_TRUE(contains("abc", "xc"));
}
