#include "platform/tfm/tfm.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(TfmTest, FormattingCutsToTheBuffer) {
  char buf[8];
  EXPECT_EQ(sfmprintf(buf, sizeof buf, "%s", "abcdefghij"), 7);
  EXPECT_STREQ(buf, "abcdefg");
  EXPECT_EQ(sfmclo("en_us", "EN_US"), 0);
  EXPECT_EQ(sfmclo(nullptr, ""), 0);
}

TEST(TfmTest, ArgumentListsKeepCopiesAndFormatAgain) {
  tfmdsc* list = tfmdl();
  {
    std::string gone = "web";
    tfmdi(list, TFM_TEXT, gone.c_str());
  }
  tfmdi(list, TFM_SB4, -5);
  tfmdi(list, TFM_UB4, 7u);
  tfmdi(list, TFM_FLOAT, 1.5);
  EXPECT_EQ(tfmdcnt(list), 4);
  char buf[128];
  EXPECT_GT(tfmpd(buf, sizeof buf, "%s: %d %u %.1f 100%%", list), 0);
  EXPECT_STREQ(buf, "web: -5 7 1.5 100%");
  EXPECT_GT(tfmpd(buf, sizeof buf, "%2$d before %1$s", list), 0);
  EXPECT_STREQ(buf, "-5 before web");
  EXPECT_LT(tfmpd(buf, sizeof buf, "%s %s %s %s %s", list), 0) << "a text where a number stands";
  tfmdrm(list);
}

}  // namespace
