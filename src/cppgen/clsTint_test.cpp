#include "cppgen/clsTint.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>
#include <thread>

#include "cppgen/clsLog.h"
#include "cppgen/cls_testutil.h"

namespace cls {
namespace {

using clstest::bare;
using clstest::runInChild;

// Inside a child: a failed expectation ends it with status 3 and says which.
#define CHILD_EXPECT(cond)                                  \
  do {                                                      \
    if (!(cond)) {                                          \
      std::fprintf(stderr, "failed: %s\n", #cond);          \
      std::fflush(stderr);                                  \
      _exit(3);                                             \
    }                                                       \
  } while (0)

TEST(ClsTintTest, TextFormsOfKnownValues) {
  EXPECT_EQ(Tint(0).toString(), "{0:0:0}");
  EXPECT_TRUE(Tint(0).isInvalid());
  Tint proc7(7ULL * 65535 + 2);
  EXPECT_EQ(proc7.toString(), "{0:7:2}");
  Tint node1(0xFFFFFFFFULL + 7ULL * 65535 + 2);
  EXPECT_EQ(node1.toString(), "{1:9:2}") << "the middle field mixes node and process";
  Tint back;
  back.destringify("{0:7:2}");
  EXPECT_EQ(back.toUb8(), proc7.toUb8());
  back.destringify("{1:9:2}");
  EXPECT_EQ(back.toUb8(), 0xFFFFFFFFULL + 9ULL * 65535 + 2) << "read back as written, not as made";
  for (const char* junk : {"", "{1:2}", "1:2:3", "{a:b:c}"}) {
    back = Tint(5);
    back.destringify(junk);
    EXPECT_TRUE(back.isInvalid()) << junk;
  }
}

TEST(ClsTintTest, WithoutInitialisationEveryTintIsInvalid) {
  Tint t(42);
  t.generateTint();
  EXPECT_TRUE(t.isInvalid());
  Tint(9).setThreadTint();
  t.getThreadTint();
  EXPECT_TRUE(t.isInvalid());
}

TEST(ClsTintTest, TintsAreGeneratedPerThreadAndTravelIntoLogLines) {
  clstest::ChildOutcome o = runInChild([] {
    unsetenv("ZEL_CLS_TINT_DISABLE");
    Tint::initializeTinting(0, 7);
    Tint t;
    t.generateTint();
    CHILD_EXPECT(t.toString() == "{0:7:2}");
    t.setThreadTint();
    Tint mine;
    mine.getThreadTint();
    CHILD_EXPECT(mine.toUb8() == t.toUb8());
    std::thread([] {
      Tint other;
      other.getThreadTint();
      CHILD_EXPECT(other.isInvalid());
      other.generateTint();
      CHILD_EXPECT(other.toString() == "{0:7:3}");
    }).join();
    CLS_Debug::CLSlog log("TINTED");
    std::ostringstream os;
    os << " tinted line";
    log.error(os, CLS_Debug::PANIC, CLS_Debug::CLSlogModule::getModuleNone());
    os << " tinted alert";
    log.alert(os, 12, "(:DR:)");
  });
  ASSERT_EQ(o.status, 0) << o.err;
  EXPECT_EQ(bare(o.trace),
            "CLSFRAME: Tints initialized with nodeId: 0 procId: 7\n"
            "TINTED:[PANIC]{0:7:2} tinted line\n"
            "TINTED:{0:7:2} {0:7:2} Created alert : (:DR:) :  tinted alert\n");
  EXPECT_NE(o.alerts.find("alert 12: (:DR:) {0:7:2} /tmp/"), std::string::npos) << o.alerts;
}

TEST(ClsTintTest, ANonEmptyDisableVariableKeepsTintsOff) {
  clstest::ChildOutcome o = runInChild([] {
    setenv("ZEL_CLS_TINT_DISABLE", "yes", 1);
    Tint::initializeTinting(1, 2);
    Tint t;
    t.generateTint();
    CHILD_EXPECT(t.isInvalid());
  });
  ASSERT_EQ(o.status, 0) << o.err;
  EXPECT_EQ(bare(o.trace), "CLSFRAME: Tints disabled by Env variable ZEL_CLS_TINT_DISABLE\n");

  o = runInChild([] {
    setenv("ZEL_CLS_TINT_DISABLE", "", 1);
    Tint::initializeTinting(0, 1);
    Tint t;
    t.generateTint();
    CHILD_EXPECT(!t.isInvalid());
  });
  EXPECT_EQ(o.status, 0) << "an empty value does not disable: " << o.err;
}

TEST(ClsTintTest, InitialisingTwiceFailsTheAssertion) {
  clstest::ChildOutcome o = runInChild([] {
    unsetenv("ZEL_CLS_TINT_DISABLE");
    Tint::initializeTinting(0, 1);
    Tint::initializeTinting(0, 1);
    _exit(7);
  });
  EXPECT_EQ(o.status, 0) << "a failed assertion ends the process with status 0";
  EXPECT_NE(o.trace.find("Condition [s_tintMux == NULL && !s_initialized]"), std::string::npos) << o.trace;
  EXPECT_NE(o.out.find("initializeTinting"), std::string::npos) << o.out;
}

}  // namespace
}  // namespace cls
