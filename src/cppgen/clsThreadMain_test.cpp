#include "cppgen/clsThreadMain.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "cppgen/clsException.h"
#include "cppgen/cls_testutil.h"

namespace {

using clstest::bare;
using clstest::runInChild;

TEST(ClsThreadMainTest, AZeroResultEndsQuietly) {
  clstest::ChildOutcome o = runInChild([] { CLSthreadMain::processExit(0, "all is well"); });
  EXPECT_EQ(o.status, 0);
  EXPECT_EQ(o.err, "");
  EXPECT_EQ(bare(o.trace), " all is well\n Done.\n");
}

TEST(ClsThreadMainTest, AFailureResultAlsoGoesToStandardError) {
  clstest::ChildOutcome o = runInChild([] { CLSthreadMain::processExit(1, "VYND Exiting. VRG Failed"); });
  EXPECT_EQ(o.status, 1);
  EXPECT_EQ(o.err, "VYND Exiting. VRG Failed\n");
  EXPECT_EQ(bare(o.trace), "[PANIC] VYND Exiting. VRG Failed\n Done.\n");
}

TEST(ClsThreadMainTest, OfManyThreadsEndingTheProcessExactlyOneGoesOn) {
  clstest::ChildOutcome o = runInChild([] {
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) threads.emplace_back([i] { CLSthreadMain::processExit(2, "t" + std::to_string(i)); });
    for (auto& t : threads) t.join();
  });
  EXPECT_EQ(o.status, 2);
  EXPECT_EQ(o.err.size(), 3u) << o.err;
  std::string trace = bare(o.trace);
  EXPECT_EQ(trace.size(), std::string("[PANIC] t0\n Done.\n").size()) << trace;
}

void* setFlag(void* arg) {
  static_cast<std::atomic<int>*>(arg)->store(1);
  return nullptr;
}

TEST(ClsThreadMainTest, ThreadsStartDetachedOrJoinable) {
  EXPECT_EQ(CLSthreadMain::getStackSize(), 0u);
  std::atomic<int> flag{0};
  ASSERT_EQ(CLSthreadMain::StartDetached(setFlag, &flag, 0), 0) << "0 leaves the size to the thread service";
  for (int i = 0; i < 2000 && flag.load() == 0; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  EXPECT_EQ(flag.load(), 1);

  CLSthreadMain::setStackSize(256 * 1024);
  EXPECT_EQ(CLSthreadMain::getStackSize(), 256u * 1024);
  std::atomic<int> joined{0};
  nxthrid id;
  nxthrhdl handle;
  ASSERT_EQ(CLSthreadMain::startThread(setFlag, &joined, &id, &handle, 128 * 1024, 0), 0);
  ASSERT_EQ(pthread_join(handle, nullptr), 0);
  EXPECT_EQ(joined.load(), 1);
  EXPECT_NE(CLSthreadMain::startThread(setFlag, &joined, nullptr, nullptr, 1, 0), 0)
      << "a stack below the system's minimum is refused and reported";
  CLSthreadMain::setStackSize(0);
}

void* throwing(void*) { throw cls::Exception("the worker gave up"); }

TEST(ClsThreadMainTest, AnEscapingExceptionIsLoggedAndEndsTheProcess) {
  clstest::ChildOutcome o = runInChild([] {
    CLSthreadMain::StartDetached(throwing, nullptr);
    std::this_thread::sleep_for(std::chrono::seconds(10));
  });
  EXPECT_EQ(o.status, 128 + SIGABRT);
  EXPECT_EQ(bare(o.trace), "[PANIC] Exception caught at cppStart \n[PANIC] the worker gave up\n");
}

}  // namespace
