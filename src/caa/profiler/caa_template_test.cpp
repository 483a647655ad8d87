// Reading type definition files.
#include "caa/profiler/caa_template.h"

#include "caa/profiler/caa_profiler_fixture.h"

using namespace CAA;

class TdfFile : public ProfilerDir {};

TEST_F(TdfFile, RowsKeywordsAndGenericMerge) {
  write("generic.tdf",
        "# comment\nATTRIBUTE: NAME\nSWITCH: none\nREQUIRED: yes\n"
        "ATTRIBUTE: DESCRIPTION\nTYPE: string\nSWITCH: -d\nDEFAULT: generic\n");
  write("t.tdf",
        "ATTRIBUTE: DESCRIPTION\nswitch : -x\n"
        "ATTRIBUTE: Mixed\nTYPE: integer\ndefault:a:b\nDEFAULT:\nDEFAULT: last\nREQUIRED: YES\nCOLOUR: blue\n"
        "ATTRIBUTE: EMPTYDEF\nDEFAULT:\n");
  AttrMap amap;
  ASSERT_EQ(CaaTemplate::readTDF("t", amap), 0);
  ASSERT_EQ(amap.size(), 4u);
  EXPECT_TRUE(amap["NAME"].isRequired());
  // The type's row replaces the generic row as a whole: no field falls back.
  EXPECT_EQ(amap["DESCRIPTION"].getValue(pro_SWITCH), "-x");
  EXPECT_EQ(amap["DESCRIPTION"].getDefault(), "");
  EXPECT_EQ(amap["DESCRIPTION"].getAttrType(), "");
  // Names keep their case; a later keyword line wins; only "yes" is required.
  EXPECT_EQ(amap["Mixed"].getDefault(), "last");
  EXPECT_EQ(amap["Mixed"].getAttrType(), "integer");
  EXPECT_FALSE(amap["Mixed"].isRequired());
  EXPECT_EQ(amap["EMPTYDEF"].getDefault(), "");

  AttrMap once, twice;
  ASSERT_EQ(CaaTemplate::readFile("generic", once), 0);
  ASSERT_EQ(CaaTemplate::readTDF("generic", twice), 0);
  EXPECT_EQ(once.size(), twice.size());
}

TEST_F(TdfFile, MissingFilesFailQuietly) {
  AttrMap amap;
  testing::internal::CaptureStdout();
  EXPECT_EQ(CaaTemplate::readTDF("t", amap), 1);  // no generic.tdf: every type fails
  write("generic.tdf", "ATTRIBUTE: NAME\n");
  EXPECT_EQ(CaaTemplate::readTDF("t", amap), 1);  // generic read, own file missing
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(amap.count("NAME"), 1u);
  EXPECT_THROW(CaaTemplate::readFile("t", amap), X_TEMP_Notfound);
}

TEST_F(TdfFile, SyntaxErrorNamesTheTemplateAndStopsReading) {
  write("generic.tdf", "ATTRIBUTE: NAME\nATTRIBUTE: B\nno colon here\nATTRIBUTE: C\n");
  write("t.tdf", "ATTRIBUTE: OWN\n");
  AttrMap amap;
  testing::internal::CaptureStdout();
  EXPECT_EQ(CaaTemplate::readTDF("t", amap), 1);
  std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(out.find("Syntax error in generic, line number 3: \"no colon here\"\n(File: caa_template, line: "), 0u);
  EXPECT_EQ(out.substr(out.size() - 2), "\n\n");
  EXPECT_EQ(amap.count("NAME"), 1u);
  EXPECT_EQ(amap.count("B"), 0u);  // the row in progress is not stored
  EXPECT_EQ(amap.count("OWN"), 0u);
}

TEST_F(TdfFile, OverlongFieldsAndStrayKeywordsAreSafe) {
  write("generic.tdf", "SWITCH: -z\nATTRIBUTE: A\nDEFAULT: " + std::string(2000, 'd') + "\n");
  AttrMap amap;
  EXPECT_THROW(CaaTemplate::readFile("generic", amap), X_TEMP_SyntaxError);
  write("generic.tdf", "TYPE: stray\nATTRIBUTE: A\nDEFAULT: " + std::string(1023, 'd') + "\n");
  AttrMap ok;
  EXPECT_EQ(CaaTemplate::readFile("generic", ok), 0);
  EXPECT_EQ(ok.size(), 1u);
  EXPECT_EQ(ok["A"].getAttrType(), "");
  EXPECT_EQ(ok["A"].getDefault().size(), 1023u);
}

TEST(Attribute, FieldsByKeyword) {
  CaaAttribute a("ignored", "integer", "-x", "5", "yes");
  EXPECT_EQ(a.getValue("SWITCH"), "-x");
  EXPECT_EQ(a.setValue("ATTRIBUTE", "v"), 1);
  EXPECT_EQ(a.getValue("ATTRIBUTE"), "");
  EXPECT_EQ(a.setValue("DEFAULT", "6"), 0);
  EXPECT_EQ(a.getDefault(), "6");
  testing::internal::CaptureStdout();
  a.describe();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "\tTYPE = integer\n\tSWITCH = -x\n\tDEFAULT = 6\n\tREQUIRED = yes\n");
}
