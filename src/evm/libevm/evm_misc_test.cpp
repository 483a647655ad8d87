// The client's small helpers: texts and names they build, paths under the home, the scratch file.
#include "evm/libevm/evm_misc.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "evm/libevm/evm.h"
#include "platform/host/utlhost.h"

namespace {

class EvmMiscTest : public ::testing::Test {};

TEST_F(EvmMiscTest, CaseBlindComparisonReportsTheBytesAsTheyStand) {
  EXPECT_EQ(_evmmiscCaseBlindStrcmp("Sys.Zel", "sys.ZEL"), 0);
  EXPECT_EQ(_evmmiscCaseBlindStrcmp("abc", "abd"), 'c' - 'd');
  // Unequal even blind to case: the difference of the original bytes, not of their capitals.
  EXPECT_EQ(_evmmiscCaseBlindStrcmp("a", "B"), 'a' - 'B');
  EXPECT_EQ(_evmmiscCaseBlindStrcmp("ab", "a"), 'b');
  EXPECT_EQ(_evmmiscCaseBlindStrncmp("abcX", "ABCy", 3), 0);
  EXPECT_EQ(_evmmiscCaseBlindStrncmp("abcX", "ABCy", 4), 'X' - 'y');
}

TEST_F(EvmMiscTest, BuiltTextsAndCopies) {
  char* name = _EvmFilenameConstruct("evmlog", 3, -12);
  EXPECT_STREQ(name, "evmlog.3.-12");
  std::free(name);
  EXPECT_EQ(_EvmFilenameConstruct(nullptr, 1, 2), nullptr);
  EXPECT_EQ(_evmmiscStrdup(nullptr), nullptr);
  EXPECT_EQ(_evmmiscTermStrLen(nullptr), 0u);
  EXPECT_EQ(_evmmiscTermStrLen("abc"), 4u);
  char* zero = static_cast<char*>(_evmmiscMalloc(16));
  EXPECT_EQ(std::memcmp(zero, std::string(16, '\0').data(), 16), 0);
  _evmmiscFree(zero);

  char head[] = "head-", body[] = "body";
  struct iovec v[3] = {{head, 5}, {nullptr, 0}, {body, 4}};
  char* linear = nullptr;
  EvmUint32_t length = 0;
  ASSERT_EQ(_evmIovToLinearMsg(v, 3, &linear, &length), EvmERROR_NONE);
  EXPECT_EQ(std::string(linear, length), "head-body");
  std::free(linear);
  EXPECT_EQ(_evmIovToLinearMsg(v, 3, nullptr, &length), EvmERROR_INVALID_ARGUMENT);
  EXPECT_EQ(_evmIovToLinearMsg(nullptr, 1, &linear, &length), EvmERROR_INVALID_ARGUMENT);
}

TEST_F(EvmMiscTest, SettingsAndPathsPreferTheirOwnVariable) {
  setenv("VYN_TEST_EVM_PATH", "/srv/evm/own", 1);
  char* own = EvmGetAbsolutePath("VYN_TEST_EVM_PATH", "/log/evm");
  EXPECT_STREQ(own, "/srv/evm/own");
  std::free(own);
  EXPECT_STREQ(EvmGetEnvironmentVariable("VYN_TEST_EVM_UNSET_SETTING", "fallback"), "fallback");
  EXPECT_STREQ(EvmGetEnvironmentVariable("VYN_TEST_EVM_PATH", "fallback"), "/srv/evm/own");
  // Under the home: the home is read once per process, so a child asks.
  EXPECT_EXIT(
      {
        setenv("ZEL_VYN_HOME", "/opt/vynhome", 1);
        char* p = EvmGetAbsolutePath("VYN_TEST_EVM_UNSET_SETTING", "/log/evm");
        char* d = _evmmiscDirStrdup("/mesg");
        bool ok = p != nullptr && std::strcmp(p, "/opt/vynhome/log/evm") == 0 && d != nullptr &&
                  std::strcmp(d, "/opt/vynhome/mesg") == 0;
        std::free(p);
        std::free(d);
        std::exit(ok ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
  EXPECT_EXIT(
      {
        unsetenv("ZEL_VYN_HOME");
        std::exit(_evmmiscDirStrdup("/mesg") == nullptr ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
  FILE* mine = stdout;
  EvmSetFP(mine);
  EXPECT_EQ(EvmGetProfFP(), mine);
  EvmSetFP(nullptr);
}

TEST_F(EvmMiscTest, ScratchFileHasNoNameAndTakesWrites) {
  char tmpl[] = "/tmp/evm_misc_test.XXXXXX";
  ASSERT_NE(mkdtemp(tmpl), nullptr);
  const std::string home = tmpl;
  std::filesystem::create_directories(home + "/log/evm");
  EXPECT_EXIT(
      {
        setenv("ZEL_VYN_HOME", home.c_str(), 1);
        FILE* f = _evmtempfile();
        if (f == nullptr) std::exit(2);
        // Gone from the directory at once, yet writable and readable through the stream.
        bool empty = std::filesystem::is_empty(home + "/log/evm");
        std::fputs("sorted", f);
        std::rewind(f);
        char back[16] = {};
        bool read = std::fgets(back, sizeof back, f) != nullptr && std::strcmp(back, "sorted") == 0;
        std::fclose(f);
        std::exit(empty && read ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
  // No home: the reason goes to standard output (sent to the error stream here to be seen).
  EXPECT_EXIT(
      {
        unsetenv("ZEL_VYN_HOME");
        dup2(2, 1);
        bool none = _evmtempfile() == nullptr;
        std::fflush(stdout);
        std::exit(none ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "(^|\n)ZEL_VYN_HOME is not set$");
  // A home without the log directory gives no file, and leaves nothing behind.
  std::filesystem::remove_all(home + "/log");
  EXPECT_EXIT(
      {
        setenv("ZEL_VYN_HOME", home.c_str(), 1);
        std::exit(_evmtempfile() == nullptr ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
  EXPECT_TRUE(std::filesystem::is_empty(home));
  std::filesystem::remove_all(home);
}

}  // namespace
