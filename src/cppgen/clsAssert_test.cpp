#include "cppgen/clsAssert.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <thread>

#include "cppgen/cls_testutil.h"

namespace CLS_Debug {
namespace {

using clstest::runInChild;

// Kept out of line, and not ending in the call, so that it shows as its own frame.
__attribute__((noinline)) void assertingWorker() {
  volatile int one = 1;
  CLS_ASSERT(one == 2);
  one = 3;
}

TEST(ClsAssertTest, AHoldingConditionReturns) {
  CLS_ASSERT(1 + 1 == 2);
  clsAssert(true, nullptr, nullptr, 0);
  SUCCEED();
}

TEST(ClsAssertTest, AFailureInAnotherThreadDumpsThatThreadsStackAndEndsWithStatusZero) {
  clstest::ChildOutcome o = runInChild([] {
    unsetenv("ZEL_VYN_DEVELOPMENT");
    std::thread(assertingWorker).join();
    _exit(9);  // not reached
  });
  EXPECT_EQ(o.status, 0);
  EXPECT_EQ(o.out.rfind("----- Call Stack Trace -----\n", 0), 0u) << o.out;
  std::string::size_type worker = o.out.find("CLS_Debug::(anonymous namespace)::assertingWorker()");
  EXPECT_NE(worker, std::string::npos) << o.out;
  EXPECT_NE(o.out.find("clsAssert"), std::string::npos) << o.out;
  EXPECT_EQ(o.out.find("testing::"), std::string::npos) << "the main thread's stack is not shown:\n" << o.out;
  EXPECT_EQ(o.out.find(" main+"), std::string::npos) << o.out;
  EXPECT_NE(o.out.find("----- End of Call Stack Trace -----\n"), std::string::npos);

  std::string line = clstest::bare(o.trace);
  EXPECT_EQ(line.substr(0, line.find("File [")),
            "CLSCPPGE: Created alert : (:CLSGEN00100:) :  *ASSERTION FAILURE*. ");
  EXPECT_NE(line.find("clsAssert_test.cpp] Line ["), std::string::npos) << line;
  EXPECT_NE(line.find("] Condition [one == 2]\n"), std::string::npos) << line;
  EXPECT_NE(o.alerts.find("alert 6015: (:CLSGEN00100:) /tmp/"), std::string::npos) << o.alerts;
}

TEST(ClsAssertTest, InDevelopmentModeAFailureAborts) {
  clstest::ChildOutcome o = runInChild([] {
    setenv("ZEL_VYN_DEVELOPMENT", "1", 1);
    assertingWorker();
  });
  EXPECT_EQ(o.status, 128 + SIGABRT);
  EXPECT_EQ(o.out, "") << "no stack dump: the core holds it";
}

}  // namespace
}  // namespace CLS_Debug
