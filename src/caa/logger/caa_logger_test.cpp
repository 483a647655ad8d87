#include "caa/logger/caa_logger.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "caa/lib/caa_ZelCoreCtx.h"
#include "caa/logger/caa_event.h"

namespace CAA {
namespace {

// Messages come from the shipped catalog, found through the home.
class LoggerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* home = std::getenv("VYN_TEST_HOME");
    ASSERT_NE(home, nullptr);
    setenv("ZEL_VYN_HOME", home, 1);
    setenv("LANG", "C", 1);
  }
  // What standard output and standard error received while `fn` ran.
  template <typename F>
  std::pair<std::string, std::string> capture(F fn) {
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
    fn();
    std::string out = ::testing::internal::GetCapturedStdout();
    return {out, ::testing::internal::GetCapturedStderr()};
  }
  CaaLogger logger_{LOG_STDERR, EVENT_LOG_UI};
};

TEST_F(LoggerTest, NumberedMessageKeepsItsFormAndAnEmptyLineFollows) {
  auto io = capture([&] { logger_.log(LOG_STDOUT, 162, "/p/r.cap"); });
  EXPECT_EQ(io.first, "VYN-0162: /p/r.cap already exists. Use -f to replace it.\n\n");
  EXPECT_EQ(io.second, "");
  EXPECT_EQ(logger_.getRtnCode(), 162);

  // The route given last stays for later calls without one.
  io = capture([&] { logger_.log(170, "r"); });
  EXPECT_EQ(io.first, "VYN-0170: No profile exists for resource r.\n\n");
}

TEST_F(LoggerTest, ToStringFormatsWithoutWriting) {
  auto io = capture([&] { EXPECT_EQ(logger_.toString(241, "/x"), "VYN-0241: The directory /x cannot be used: it does not exist and cannot be created.\n"); });
  EXPECT_EQ(io.first + io.second, "");
  EXPECT_EQ(logger_.getRtnCode(), 241);
  EXPECT_EQ(logger_.getText(), "VYN-0241: The directory /x cannot be used: it does not exist and cannot be created.\n");
}

TEST_F(LoggerTest, UnknownNumberGivesMessageNotFound) {
  auto io = capture([&] { logger_.log(LOG_STDERR, 9999); });
  EXPECT_EQ(io.second, "Message not found\n");
}

TEST_F(LoggerTest, PlainTextAndOriginalOutput) {
  auto io = capture([&] {
    logger_.set();
    logger_.logProc();
    logger_.set("a");
    logger_.append("b");
    logger_.append();
    logger_.setLogRoute(LOG_STDOUT);
    logger_.logOrigProc();
  });
  EXPECT_EQ(io.second, "\n") << "an empty text is an empty line";
  EXPECT_EQ(io.first, "ab\n") << "output that is complete gets no newline";
}

TEST_F(LoggerTest, LongTextsAreCutNotOverrun) {
  std::string huge(10000, 'z');
  auto io = capture([&] { logger_.log(LOG_STDOUT, "%s", huge.c_str()); });
  EXPECT_EQ(io.first.size(), 2047u + 1u);
  io = capture([&] { logger_.log(LOG_STDOUT, 170, huge.c_str()); });
  EXPECT_EQ(io.first.size(), 2047u + 1u);
}

TEST_F(LoggerTest, EventRouteThatFailsSaysSoOnStandardError) {
  int on = 1;
  logger_.setEventSwitch(on);
  auto io = capture([&] { logger_.log(LOG_STDOUT, 170, "r"); });
  EXPECT_EQ(io.first, "");
  EXPECT_NE(io.second.find("Evm log has failed.\n"), std::string::npos);
}

// A reply of the cluster carries the command's status and, when it is 0, the data asked for.
TEST(EventMgrTest, ReadsAReplysStatusAndDataAndKnowsItsName) {
  EvmEvent_t ok = nullptr;
  ASSERT_EQ(EvmEventCreateVa(&ok, EvmITEM_NAME, "sys.zel.clu.vyn.reply", EvmITEM_VAR_INT32, "CmdStatus", 0,
                             EvmITEM_VAR_STRING, "_data", "hello", EvmITEM_NONE),
            EvmERROR_NONE);
  int code = -1;
  EventMgr mgr("sys.zel.clu.vyn.reply", "_data", &code);
  std::string data;
  EXPECT_EQ(mgr.getEventData(ok, data), caa_SUCCESS);
  EXPECT_EQ(data, "hello");
  EXPECT_EQ(code, -1) << "a good status leaves the caller's code alone";
  EXPECT_EQ(mgr.checkEventName(ok, "sys.zel.clu.vyn.reply"), 1);
  EXPECT_EQ(mgr.checkEventName(ok, "sys.zel.clu.vyn.other"), 0);
  EvmEventDestroy(ok);

  EvmEvent_t failed = nullptr;
  ASSERT_EQ(EvmEventCreateVa(&failed, EvmITEM_NAME, "sys.zel.clu.vyn.reply", EvmITEM_VAR_INT32, "CmdStatus", 7,
                             EvmITEM_VAR_STRING, "_data", "unused", EvmITEM_NONE),
            EvmERROR_NONE);
  data.clear();
  EXPECT_EQ(mgr.getEventData(failed, data), caa_WARNING);
  EXPECT_EQ(code, 7);
  EXPECT_EQ(data, "");
  EvmEventDestroy(failed);

  EvmEvent_t bare = nullptr;
  ASSERT_EQ(EvmEventCreateVa(&bare, EvmITEM_NAME, "sys.zel.clu.vyn.reply", EvmITEM_NONE), EvmERROR_NONE);
  EXPECT_EQ(mgr.getEventData(bare, data), caa_WARNING) << "a reply without a status is no answer";
  EvmEventDestroy(bare);
}

TEST(ZelCoreCtxTest, LanguagesThatDifferInCaseShareAContextAndTheCacheIsBounded) {
  ZelCoreCtx::cleanup();
  ZelCoreCtx* core = ZelCoreCtx::getInstance();
  EXPECT_EQ(core->getLangCtx("de_DE"), core->getLangCtx("DE_de"));
  EXPECT_EQ(core->getLangCtx(nullptr), core->getLangCtx(""));
  EXPECT_EQ(core->getLangId("de_DE.UTF-8"), "de_DE");
  for (int i = 0; i < 25; ++i) core->getLangCtx(("x" + std::to_string(i)).c_str());
  EXPECT_EQ(core->cachedCount(), ZelCoreCtx::MAX_CONTEXTS);
  ZelCoreCtx::cleanup();
}

}  // namespace
}  // namespace CAA
