#include "platform/mcg/mcg.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "platform/nlh/nlh.h"

namespace {

TEST(NlhTest, LanguageIdsAndTheirFallbacks) {
  EXPECT_EQ(nlh::laToId("de_DE.UTF-8@euro"), "de_DE");
  EXPECT_EQ(nlh::laToId("C.UTF-8"), "en");
  EXPECT_EQ(nlh::laToId(""), "en");
  EXPECT_EQ(nlh::candidates("de_DE"), (std::vector<std::string>{"de_DE", "de", "en"}));
  EXPECT_EQ(nlh::candidates("en"), (std::vector<std::string>{"en"}));
  EXPECT_EQ(nlh::candidates("../../etc"), (std::vector<std::string>{"en"})) << "never part of a path";
  setenv("LC_ALL", "", 1);
  setenv("LC_MESSAGES", "fr_FR.UTF-8", 1);
  setenv("LANG", "de_DE", 1);
  EXPECT_EQ(nlh::langEnv(), "fr_FR");
  unsetenv("LC_MESSAGES");
  EXPECT_EQ(nlh::langEnv(), "de_DE");
}

TEST(McgTest, TextsByFacilityFromTheShippedCatalog) {
  setenv("ZEL_VYN_HOME", std::getenv("VYN_TEST_HOME"), 1);
  mcgcat* cat = mcgaicmt("vyn", "vyn", "en");
  ASSERT_EQ(mcgaerr(cat), 0);
  char buf[64];
  EXPECT_EQ(mcgagbcmt(cat, 169, buf, sizeof buf, nullptr), 0);
  EXPECT_STREQ(buf, "Could not remove %s.");
  EXPECT_EQ(mcgagbcmt(cat, 1018, buf, sizeof buf, nullptr), -1) << "an EVM text is not in the VYN set";
  char tiny[6];
  EXPECT_EQ(mcgagbcmt(cat, 169, tiny, sizeof tiny, nullptr), 0);
  EXPECT_STREQ(tiny, "Could");
  mcgatrm(cat);

  cat = mcgaicmt("EVM", "evm", "xx_YY");
  EXPECT_EQ(mcgagbcmt(cat, 1814, buf, sizeof buf, nullptr), 0);
  EXPECT_STREQ(buf, "times");
  mcgatrm(cat);

  cat = mcgaicmt("vyn", "nosuch", "en");
  EXPECT_EQ(mcgaerr(cat), -1);
  mcgatrm(cat);
}

}  // namespace
