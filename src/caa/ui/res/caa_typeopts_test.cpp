// The options of a resource type: protecting the commas of "bt", and taking "-o" apart.
#include <gtest/gtest.h>

#include <stdlib.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "caa/lib/caa_Path.h"
#include "caa/logger/caa_logger.h"
#include "caa/ui/res/caa_cmdprof.h"

using namespace CAA;

namespace {

std::string protect(std::string text) {
  CmdProf::replaceChar(&text[0], "bt", ',', '|');
  return text;
}

// A command whose list holds a "-o" value and the sub-options as, bt and ci.
class SubOptions : public ::testing::Test {
 protected:
  SubOptions() : logger(LOG_STDERR, "test"), cmd(&logger) {}
  // The messages come from the catalog of the shipped home.
  static void SetUpTestSuite() {
    const char* home = std::getenv("VYN_TEST_HOME");
    if (home != nullptr) setenv("ZEL_VYN_HOME", home, 0);
  }
  caa_Status parse(const std::string& text) {
    cmd.clearArgList(cmd.args());
    auto* opt = new caaTagValue(1, NOT_ENTERED_NEEDED, "-o", caa_PROF_OPTIONAL);
    opt->writeValue(text);
    cmd.args().push_back(opt);
    string_Map switches = {{"-o as", "AUTO_START=restore"}, {"-o bt", "REBALANCE="}, {"-o ci", "CHECK_INTERVAL=60"}};
    EXPECT_EQ(cmd.uploadArgList(switches), caa_SUCCESS);
    testing::internal::CaptureStderr();
    caa_Status rc = cmd.procOptArgs();
    err = testing::internal::GetCapturedStderr();
    return rc;
  }
  std::string value(const std::string& key) {
    for (caaArg* arg : cmd.args())
      if (arg->showArgKey() == key) return arg->showArgValue();
    return "<none>";
  }
  CaaLogger logger;
  CmdProf cmd;
  std::string err;
};

}  // namespace

TEST(ReplaceChar, FindsTheValueOfTheTag) {
  EXPECT_EQ(protect("bt=a,b,as=1"), "bt=a|b,as=1");
  EXPECT_EQ(protect("bt=a,b"), "bt=a|b");
  EXPECT_EQ(protect("as=1,bt=a,b,c,ci=2"), "as=1,bt=a|b|c,ci=2");
  EXPECT_EQ(protect("xbt=a,b"), "xbt=a|b");   // a name that ends in the tag matches too
  EXPECT_EQ(protect("bt=,x=a,b"), "bt=,x=a,b");  // no value behind the first sign
  EXPECT_EQ(protect("bt=a=b"), "bt=a=b");      // no comma before the next sign
  EXPECT_EQ(protect("bt="), "bt=");
  EXPECT_EQ(protect(""), "");
}

TEST_F(SubOptions, ValuesReachTheirOptionsAndMoveBeforeTheTrash) {
  EXPECT_EQ(parse("bt=t:1,2:3:4,as=\"1\",ci=5,ci=6"), caa_SUCCESS);
  EXPECT_EQ(value("REBALANCE"), "t:1,2:3:4");
  EXPECT_EQ(value("AUTO_START"), " 1 ");
  EXPECT_EQ(value("CHECK_INTERVAL"), "6");  // the last of a repeated sub-option wins
  EXPECT_EQ(cmd.args().back()->showArgKey(), caa_TRASH);
  EXPECT_TRUE(cmd.options().empty());
  EXPECT_EQ(err, "");
}

TEST_F(SubOptions, FaultsStopAtTheFirstBadField) {
  EXPECT_EQ(parse("as=1,ci"), caa_WARNING);
  EXPECT_NE(err.find("VYN-0152"), std::string::npos);
  EXPECT_NE(err.find("#2, 'ci'"), std::string::npos);
  EXPECT_EQ(value("AUTO_START"), "1");
  EXPECT_EQ(parse("ci=1,"), caa_WARNING);
  EXPECT_NE(err.find("VYN-0151"), std::string::npos);
  EXPECT_EQ(parse("zz=1"), caa_WARNING);
  EXPECT_NE(err.find("VYN-0160: Unknown or misplaced argument: zz"), std::string::npos);
  EXPECT_EQ(cmd.args().back()->showArgKey(), caa_TRASH);  // moved all the same
  EXPECT_EQ(parse(""), caa_SUCCESS);
}

TEST_F(SubOptions, MoreThanTwentyCommasStayInTheLastField) {
  std::string text;
  for (int i = 0; i < 25; ++i) text += (i ? "," : "") + std::string("ci=") + std::to_string(i);
  EXPECT_EQ(parse(text), caa_WARNING);
  EXPECT_NE(err.find("#21, 'ci=20,ci=21,ci=22,ci=23,ci=24'"), std::string::npos);
  EXPECT_EQ(value("CHECK_INTERVAL"), "19");
}

TEST_F(SubOptions, AnEntryThatCannotBeAnOptionIsReported) {
  cmd.clearArgList(cmd.args());
  string_Map bad = {{"-x", "A=b=c"}, {"-o a b", "B=1"}, {"-y", "C=1"}};
  testing::internal::CaptureStderr();
  EXPECT_EQ(cmd.uploadArgList(bad), caa_WARNING);
  std::string out = testing::internal::GetCapturedStderr();
  EXPECT_NE(out.find("VYN-0161"), std::string::npos);
  ASSERT_EQ(cmd.args().size(), 1u);  // only -y, and no closing trash after a fault
  EXPECT_EQ(cmd.args().front()->showArgKey(), "C");
}

TEST_F(SubOptions, TheDefinitionReadForTheOptionsIsKeptForItsTypeOnly) {
  char tmpl[] = "/tmp/vyn_typeopts_XXXXXX";
  ASSERT_NE(mkdtemp(tmpl), nullptr);
  std::string dir = tmpl;
  std::string saved = Path::template_path;
  Path::template_path = dir + "/";
  std::ofstream(dir + "/generic.tdf") << "ATTRIBUTE: NAME\nSWITCH: none\n";
  std::ofstream(dir + "/app.tdf") << "ATTRIBUTE: PLACEMENT\nSWITCH: -p\nDEFAULT: balanced\n";
  EXPECT_EQ(cmd.typeDefinition("app"), nullptr);
  ASSERT_EQ(cmd.initParams("app"), caa_SUCCESS);
  const AttrMap* amap = cmd.typeDefinition("app");
  ASSERT_NE(amap, nullptr);
  EXPECT_EQ(amap->size(), 2u);
  EXPECT_EQ(amap->at("PLACEMENT").getDefault(), "balanced");
  EXPECT_EQ(cmd.typeDefinition("other"), nullptr);
  // A definition that cannot be read leaves none behind.
  testing::internal::CaptureStderr();
  EXPECT_EQ(cmd.initParams("nosuch"), caa_WARNING);
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(cmd.typeDefinition("app"), nullptr);
  EXPECT_EQ(cmd.typeDefinition("nosuch"), nullptr);
  Path::template_path = saved;
  std::filesystem::remove_all(dir);
}
