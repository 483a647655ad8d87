// Status texts from the catalog below the home.
#include "evm/libevm/evm_msg.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "evm/libevm/evm.h"

class EvmMsgTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* home = std::getenv("VYN_TEST_HOME");
    ASSERT_NE(home, nullptr) << "run through ctest, which points VYN_TEST_HOME at the built home";
    setenv("ZEL_VYN_HOME", home, 1);
  }
};

TEST_F(EvmMsgTest, EveryStatusReadsAsTheUserSeesIt) {
  // What a tool prints for each status, in the order of the codes.
  const char* const expected[] = {
      "Operation succeeded", "Function not implemented", "Invalid argument", "Item or variable not set",
      "Item or variable not present", "Mismatched EVM protocol version", "Memory allocation failed",
      "Incorrect argument type", "Invalid filter specification", "Invalid value",
      "Attempt to use an uninitialized object", "Select error", "Service terminated", "Connection error",
      "Read error", "Write error", "Open error", "Event rejected", "Resource error", "Sequence error",
      "Connection lost", "Invalid operation", "Invalid message", "Partial completion", "Operation would block",
      "Timeout", "Queue full", "Protocol error", "Operation invalid at interrupt level", "End-of-file reached",
      "Signal received", "Synchronization failure", "Event is not valid", "Message is queued",
      "EVM daemon refused connection", "Too many items"};
  static_assert(sizeof expected / sizeof expected[0] == EvmERROR_LAST, "one text per status");
  char text[256];
  for (int s = 0; s < EvmERROR_LAST; ++s) {
    ASSERT_EQ(EvmStatusTextGet(static_cast<EvmStatus_t>(s), text, sizeof text), EvmERROR_NONE);
    EXPECT_STREQ(text, expected[s]) << s;
  }
  ASSERT_EQ(EvmStatusTextGet(EvmERROR_EOF, text, 4), EvmERROR_NONE);
  EXPECT_STREQ(text, "End");  // cut to the caller's size
}

TEST_F(EvmMsgTest, OutOfRangeAndEmptyBuffers) {
  char text[8] = "keep";
  EXPECT_EQ(EvmStatusTextGet(EvmERROR_LAST, text, sizeof text), EvmERROR_INVALID_ARGUMENT);
  EXPECT_EQ(EvmStatusTextGet(static_cast<EvmStatus_t>(-1), text, sizeof text), EvmERROR_INVALID_ARGUMENT);
  EXPECT_EQ(EvmStatusTextGet(EvmERROR_NONE, nullptr, 8), EvmERROR_INVALID_ARGUMENT);
  EXPECT_EQ(EvmStatusTextGet(EvmERROR_NONE, text, 0), EvmERROR_NONE);
  EXPECT_STREQ(text, "keep");
}

TEST_F(EvmMsgTest, MissingCatalogGivesTheNotFoundText) {
  setenv("ZEL_VYN_HOME", "/nonexistent/home", 1);
  char text[64];
  ASSERT_EQ(EvmStatusTextGet(EvmERROR_READ, text, sizeof text), EvmERROR_NONE);
  EXPECT_STREQ(text, "Message / Message file not found");
  EXPECT_EQ(evmgetmsg("TOOLONGNAME", 1001, text, sizeof text), -1);
  EXPECT_EQ(evmgetmsg("EVM", 0, text, sizeof text), -1);
}

TEST_F(EvmMsgTest, ToolMessagesCarryFacilityAndNumber) {
  testing::internal::CaptureStderr();
  _evmCliPrintEvmStatus("evmtool", EvmERROR_INVALID_ARGUMENT);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "EVM-0034: Error: Invalid argument\n\n");
  int port = 0;
  testing::internal::CaptureStderr();
  EXPECT_EQ(_evmCliConvertHostArg("evmtool", "host:80x", &port), EvmERROR_INVALID_ARGUMENT);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "EVM-0039: Invalid port number in host name \"host:80x\"\n\n");
  EXPECT_EQ(_evmCliConvertHostArg("evmtool", "host:8080", &port), EvmERROR_NONE);
  EXPECT_EQ(port, 8080);
  EXPECT_EQ(_evmCliConvertHostArg("evmtool", "host:0", &port), EvmERROR_NONE);
  EXPECT_EQ(port, -1);
}

TEST_F(EvmMsgTest, ToolExitsSayWhyAndEndWithTheirStatus) {
  EXPECT_EXIT(_evmCliExitNoMemory("evmtool"), ::testing::ExitedWithCode(14),
              "^EVM-0027: Memory allocation failure\n\n$");
  EXPECT_EXIT(_evmCliExitUsage("usage: evmtool [-h host]"), ::testing::ExitedWithCode(1),
              "^usage: evmtool \\[-h host\\]\n$");
  testing::internal::CaptureStderr();
  _EvmMsgTimestamp();
  std::string stamp = testing::internal::GetCapturedStderr();
  ASSERT_EQ(stamp.size(), 21u) << stamp;  // "YYYY-MM-DD HH:MM:SS" and two blanks
  EXPECT_EQ(stamp.substr(4, 1) + stamp.substr(7, 1) + stamp.substr(10, 1) + stamp.substr(13, 1) + stamp.substr(16, 1),
            "-- ::");
  EXPECT_EQ(stamp.substr(19), "  ");
  // Without a catalog the tool says so instead of the message.
  setenv("ZEL_VYN_HOME", "/nonexistent/home", 1);
  testing::internal::CaptureStderr();
  _evmCliPrintEvmStatus("evmtool", EvmERROR_READ);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Message / Message file not found\n");
}
