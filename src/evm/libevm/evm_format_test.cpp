// Events as text: messages, templates, the default form, single items and variables, wrapping
// and the dump, each checked to the byte a reader sees.
#include "evm/libevm/evm_format.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "evm/libevm/evm.h"
#include "evm/libevm/evm_test_util.h"

namespace {

class EvmFormatTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* home = std::getenv("VYN_TEST_HOME");
    ASSERT_NE(home, nullptr) << "run through ctest, which points VYN_TEST_HOME at the built home";
    setenv("ZEL_VYN_HOME", home, 1);
    setenv("TZ", "UTC", 1);
    tzset();
    ASSERT_EQ(EvmEventCreateVa(&e_, EvmITEM_NAME, "a.b", 0), EvmERROR_NONE);
  }
  void TearDown() override { EvmEventDestroy(e_); }

  void setFormat(const char* format) { ASSERT_EQ(EvmItemSetVa(e_, EvmITEM_FORMAT, format, 0), EvmERROR_NONE); }
  std::string message(EvmSize_t size = 1024, int options = 0) {
    std::string buf(size, 'x');
    EXPECT_EQ(EvmEventFormatOpt(&buf[0], size, e_, options), EvmERROR_NONE);
    return buf.c_str();
  }
  // The template's text; the same template read once must give the same bytes.
  std::string templ(const char* t, EvmSize_t size = 1024) {
    std::string buf(size, 'x'), again(size, 'x');
    EXPECT_EQ(EvmEventFormatFromTemplate(&buf[0], size, t, e_), EvmERROR_NONE);
    EvmTemplate_t compiled = nullptr;
    EXPECT_EQ(_evmTemplateCompile(t, &compiled), EvmERROR_NONE);
    EXPECT_EQ(_evmTemplateFormat(&again[0], size, compiled, e_), EvmERROR_NONE);
    _evmTemplateFree(compiled);
    EXPECT_EQ(again, buf) << "read once, the template " << t << " gave other bytes";
    return buf.c_str();
  }
  std::string var(const char* name, EvmBoolean_t translate = EvmTRUE, EvmStatus_t want = EvmERROR_NONE) {
    char buf[256] = "untouched";
    EXPECT_EQ(EvmVarFormat(e_, name, buf, sizeof buf, translate), want) << name;
    return buf;
  }
  std::string dump() {
    char* text = nullptr;
    std::size_t len = 0;
    FILE* f = open_memstream(&text, &len);
    EXPECT_EQ(EvmEventDump(e_, f), EvmERROR_NONE);
    std::fclose(f);
    std::string s(text, len);
    std::free(text);
    return s;
  }

  EvmEvent_t e_ = nullptr;
};

TEST_F(EvmFormatTest, BufferOfOneByteHoldsTheEmptyTextAndNoneIsRefused) {
  setFormat("Hi");
  char buf[4] = "zzz";
  for (auto fn : {+[](char* b, EvmSize_t s, EvmEvent_t e) { return EvmEventFormat(b, s, e); },
                  +[](char* b, EvmSize_t s, EvmEvent_t e) { return EvmEventFormatAsDefault(b, s, e); },
                  +[](char* b, EvmSize_t s, EvmEvent_t e) { return EvmEventFormatFromTemplate(b, s, "@@", e); }}) {
    buf[0] = 'z';
    EXPECT_EQ(fn(buf, 0, e_), EvmERROR_INVALID_VALUE);
    EXPECT_EQ(buf[0], 'z');
    EXPECT_EQ(fn(buf, 1, e_), EvmERROR_NONE);
    EXPECT_EQ(buf[0], '\0');
  }
}

TEST_F(EvmFormatTest, TextIsCutAtTheBufferEndWithoutError) {
  setFormat("Hi $who, @name");
  ASSERT_EQ(EvmVarSetString(e_, "who", "Bob"), EvmERROR_NONE);
  EXPECT_EQ(message(), "Hi Bob, a.b");
  EXPECT_EQ(message(5), "Hi B");
  EXPECT_EQ(message(9), "Hi Bob, ");
  EXPECT_EQ(templ("[$who%10]", 8), "[Bob   ");
  EXPECT_EQ(templ("@@ and @@", 12), "Hi Bob, a.b");
  EXPECT_EQ(templ("@@ and @@", 13), "Hi Bob, a.b ");
}

TEST_F(EvmFormatTest, MessageFillsVariablesAndItemsAndLeavesWhatIsMissing) {
  ASSERT_EQ(EvmVarSetString(e_, "who", "Bob"), EvmERROR_NONE);
  setFormat("Hi $who");
  EXPECT_EQ(message(), "Hi Bob");
  setFormat("${who}by at @{name}: $missing @priority");
  EXPECT_EQ(message(), "Bobby at a.b: $missing @priority");
  ASSERT_EQ(EvmItemSetVa(e_, EvmITEM_PRIORITY, 300, 0), EvmERROR_NONE);
  setFormat("@PRIORITY @Priority @var @unused_1 @nosuch");
  EXPECT_EQ(message(), "300 300 @var @unused_1 @nosuch");
  // A sign without a name stands; widths are a template's, so a '%' is plain text here.
  setFormat("$ 5$ @ ${} $who%3");
  EXPECT_EQ(message(), "$ 5$ @ ${} Bob%3");
}

TEST_F(EvmFormatTest, MessageEscapesAndUnprintableBytes) {
  ASSERT_EQ(EvmVarSetString(e_, "who", "Bob"), EvmERROR_NONE);
  setFormat("\\$who costs \\\\5 \\");
  EXPECT_EQ(message(), "$who costs \\5 ");
  setFormat("ab\\c");  // a backslash at one of the last two places is dropped
  EXPECT_EQ(message(), "abc");
  setFormat("tab\there\x01\xc3\xa9");
  EXPECT_EQ(message(), "tab here###");
  setFormat("ends in $");
  EXPECT_EQ(message(), "ends in $");
  setFormat("ends in @");
  EXPECT_EQ(message(), "ends in @");
  EXPECT_EQ(templ("$|@|\\"), "$|@|\\");
  EXPECT_EQ(templ("<@@"), "<ends in @");
}

TEST_F(EvmFormatTest, ThreadsFormattingAtOnceShareTheCachedWords) {
  ASSERT_EQ(EvmVarSetBoolean(e_, "t", EvmTRUE), EvmERROR_NONE);
  ASSERT_EQ(EvmItemSetVa(e_, EvmITEM_REPEAT_COUNT, 2, 0), EvmERROR_NONE);
  std::vector<std::thread> threads;
  std::atomic<int> wrong{0};
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([this, &wrong] {
      char buf[128];
      for (int i = 0; i < 200; ++i) {
        EvmEventFormat(buf, sizeof buf, e_);
        if (std::string(buf) != "[2 times] Unformatted event \"a.b\": t=True ") ++wrong;
      }
    });
  for (auto& t : threads) t.join();
  EXPECT_EQ(wrong.load(), 0);
}

TEST_F(EvmFormatTest, RepeatCountLeadsTheMessageUnlessAskedNotTo) {
  setFormat("again");
  ASSERT_EQ(EvmItemSetVa(e_, EvmITEM_REPEAT_COUNT, 3, 0), EvmERROR_NONE);
  EXPECT_EQ(message(), "[3 times] again");
  EXPECT_EQ(message(1024, EVM_FORMAT_NO_REPEAT_COUNT), "again");
  ASSERT_EQ(EvmItemSetVa(e_, EvmITEM_REPEAT_COUNT, 1, 0), EvmERROR_NONE);
  EXPECT_EQ(message(), "again");
}

TEST_F(EvmFormatTest, DefaultFormNamesTheEventAndListsItsVariables) {
  EXPECT_EQ(message(), "Unformatted event \"a.b\": ");
  ASSERT_EQ(EvmVarSetInt32(e_, "n", 7), EvmERROR_NONE);
  ASSERT_EQ(EvmVarSetString(e_, "s", "x\ty\n"), EvmERROR_NONE);
  ASSERT_EQ(EvmItemSetVa(e_, EvmITEM_REPEAT_COUNT, 2, 0), EvmERROR_NONE);
  EXPECT_EQ(message(), "[2 times] Unformatted event \"a.b\": n=7 s=x y  ");
  EvmEvent_t bare = nullptr;
  ASSERT_EQ(EvmEventCreateVa(&bare, 0), EvmERROR_NONE);
  char buf[64];
  ASSERT_EQ(EvmEventFormatAsDefault(buf, sizeof buf, bare), EvmERROR_NONE);
  EXPECT_STREQ(buf, "Unformatted event \"(no name)\": ");
  EvmEventDestroy(bare);
}

TEST_F(EvmFormatTest, EveryVariableTypeAsText) {
  ASSERT_EQ(EvmVarSetBoolean(e_, "t", EvmTRUE), EvmERROR_NONE);
  ASSERT_EQ(EvmVarSetBoolean(e_, "f", EvmFALSE), EvmERROR_NONE);
  ASSERT_EQ(EvmVarSetChar(e_, "c", static_cast<char>(0xc1)), EvmERROR_NONE);
  ASSERT_EQ(EvmVarSetInt16(e_, "i16", -5), EvmERROR_NONE);
  ASSERT_EQ(EvmVarSetInt32(e_, "i32", 70000), EvmERROR_NONE);
  ASSERT_EQ(EvmVarSetInt64(e_, "i64", -5000000000LL), EvmERROR_NONE);
  ASSERT_EQ(EvmVarSetUint8(e_, "u8", 255), EvmERROR_NONE);
  ASSERT_EQ(EvmVarSetUint16(e_, "u16", 65535), EvmERROR_NONE);
  ASSERT_EQ(EvmVarSetUint32(e_, "u32", 4000000000u), EvmERROR_NONE);
  ASSERT_EQ(EvmVarSetUint64(e_, "u64", 18000000000000000000ULL), EvmERROR_NONE);
  ASSERT_EQ(EvmVarSetFloat(e_, "fl", 1.5f), EvmERROR_NONE);
  ASSERT_EQ(EvmVarSetDouble(e_, "d", 3.14159265358979), EvmERROR_NONE);
  ASSERT_EQ(EvmVarSetOpaque(e_, "o", "\0\1\2\3\4", 5), EvmERROR_NONE);
  ASSERT_EQ(EvmVarSetString(e_, "s", "a\x01\tb\xff"), EvmERROR_NONE);
  EXPECT_EQ(var("t"), "True");
  EXPECT_EQ(var("f"), "False");
  EXPECT_EQ(var("c"), "A");
  EXPECT_EQ(var("i16"), "-5");
  EXPECT_EQ(var("i32"), "4464");  // the low 16 bits, with their sign
  EXPECT_EQ(var("i64"), "-5000000000");
  EXPECT_EQ(var("u8"), "255");
  EXPECT_EQ(var("u16"), "65535");
  EXPECT_EQ(var("u32"), "4000000000");
  EXPECT_EQ(var("u64"), "18000000000000000000");
  EXPECT_EQ(var("fl"), "1.5");
  EXPECT_EQ(var("d"), "3.1415927");
  EXPECT_EQ(var("o"), "[OPAQUE VALUE: 5 bytes]");
  EXPECT_EQ(var("s"), "a# b#");
  EXPECT_EQ(var("s", EvmFALSE), "a\x01\tb\xff");
  EXPECT_EQ(var("gone", EvmTRUE, EvmERROR_NOT_PRESENT), "$gone");
  // A type no writer makes: patch the stored type of a record.
  ASSERT_EQ(EvmVarSetInt32(e_, "odd", 1), EvmERROR_NONE);
  unsigned char* rec = _evmuiFindVar(e_->head_p, EvmITEM_VAR, "odd");
  ASSERT_NE(rec, nullptr);
  evmStore32(rec, EVM_VAR_TYPE, 99);
  EXPECT_EQ(var("odd"), "[$Unknown variable type: odd]");
  char small[6];
  EXPECT_EQ(EvmVarFormat(e_, "o", small, sizeof small, EvmTRUE), EvmERROR_NONE);
  EXPECT_STREQ(small, "[OPAQ");
}

TEST_F(EvmFormatTest, TemplateWidthsEscapesAndAbsentItems) {
  ASSERT_EQ(EvmVarSetString(e_, "name", "abc"), EvmERROR_NONE);
  ASSERT_EQ(EvmVarSetString(e_, "long", "abcdefghijklmno"), EvmERROR_NONE);
  EXPECT_EQ(templ("[${name}%10]"), "[abc       ]");
  EXPECT_EQ(templ("[${name%10}]"), "[abc       ]");
  EXPECT_EQ(templ("[$name%10]"), "[abc       ]");
  EXPECT_EQ(templ("[$long%10]"), "[abcdefghijklmno]");
  EXPECT_EQ(templ("[$name%00051]"), "[abc  ]");  // the first four digits count
  EXPECT_EQ(templ("$name% $name} $ x @"), "abc% abc} $ x @");
  EXPECT_EQ(templ("@priority|@priority%4|@name%5|@nosuch%4|"), "-|-   |a.b  |@nosuch|");
  EXPECT_EQ(templ("a\\tb\\nc\\$name\\"), "a\tb\nc$name\\");
  EXPECT_EQ(templ("$missing"), "$missing");
  setFormat("msg $name");
  EXPECT_EQ(templ("<@@> @name"), "<msg abc> a.b");
}

TEST_F(EvmFormatTest, ItemValuesAsText) {
  char buf[128];
  EvmItemValue_t v;
  v.TIMESTAMP = 1700000000;  // 2023-11-14 22:13:20 UTC
  EXPECT_EQ(EvmItemFormatValue(EvmITEM_TIMESTAMP, v, buf, sizeof buf, 0), 20);
  EXPECT_STREQ(buf, "14-Nov-2023 22:13:20");
  v.HOST_IP = 0;
  unsigned char ip[4] = {10, 1, 2, 254};
  std::memcpy(&v.HOST_IP, ip, 4);
  EvmItemFormatValue(EvmITEM_CLUSTER_IP, v, buf, sizeof buf, 0);
  EXPECT_STREQ(buf, "10.1.2.254");
  v.PID = -1;
  EvmItemFormatValue(EvmITEM_PPID, v, buf, sizeof buf, 0);
  EXPECT_STREQ(buf, "-1");
  v.CLUSTER_EVENT = EvmTRUE;
  EXPECT_EQ(EvmItemFormatValue(EvmITEM_CLUSTER_EVENT, v, buf, sizeof buf, 7), 7);
  EXPECT_STREQ(buf, "True   ");
  v.PID = 0;
  v.REPEAT_COUNT = 4000000000u;
  EvmItemFormatValue(EvmITEM_REPEAT_COUNT, v, buf, sizeof buf, 0);
  EXPECT_STREQ(buf, "4000000000");
  EvmItemFormatValue(EvmITEM_VAR, v, buf, sizeof buf, 0);
  EXPECT_STREQ(buf, "Unknown item id 23");
  EXPECT_EQ(EvmItemFormatValue(EvmITEM_VAR, v, buf, 4, 0), 3);
  EXPECT_STREQ(buf, "Unk");
}

TEST_F(EvmFormatTest, ItemNamesIdsAndDescriptions) {
  EvmItemId_t id = EvmITEM_VAR;
  EXPECT_EQ(EvmItemIdFromName("Host_Name", &id), EvmERROR_NONE);
  EXPECT_EQ(id, EvmITEM_HOST_NAME);
  EXPECT_EQ(EvmItemIdFromName("hostname", &id), EvmERROR_INVALID_VALUE);
  EXPECT_EQ(id, EvmITEM_NONE);
  EvmString_t name = nullptr;
  EXPECT_EQ(EvmItemNameFromId(EvmITEM_LAST_TIMESTAMP, &name), EvmERROR_NONE);
  EXPECT_STREQ(name, "last_timestamp");
  EXPECT_EQ(EvmItemNameFromId(static_cast<EvmItemId_t>(24), &name), EvmERROR_INVALID_VALUE);
  EXPECT_EQ(name, nullptr);
  for (int i = EvmITEM_FIRST; i <= EvmITEM_MAX; ++i) EXPECT_EQ(ItemInfo[i - 1].itemid, i);
  EXPECT_STREQ(EvmItemDescription(EvmITEM_HOST_IP), "Host IP address");
  EXPECT_STREQ(EvmItemDescription(EvmITEM_NONE), "Unknown item id");
  EXPECT_STREQ(_GetString(14), "times");
  EXPECT_STREQ(_GetString(15), "");
  EXPECT_STREQ(_FormatVarType(EvmTYPE_OPAQUE), "OPAQUE");
  EXPECT_STREQ(_FormatVarType(static_cast<EvmVarType_t>(14)), "UNKNOWN");
}

TEST_F(EvmFormatTest, WrappingBreaksAtBlanksOrAtTheLineEnd) {
  std::string solid(200, 'x');
  char out[512];
  _WrapText(solid.c_str(), out, sizeof out, 79, 4);
  EXPECT_EQ(std::string(out), std::string(75, 'x') + "\n    " + std::string(75, 'x') + "\n    " + std::string(50, 'x'));
  _WrapText("  one two three  \n\n  \nfour\x01", out, sizeof out, 12, 2);
  EXPECT_STREQ(out, "one two \n  three\n  four#");
  _WrapText("abcdef", out, 4, 79, 0);
  EXPECT_STREQ(out, "abc");
}

TEST_F(EvmFormatTest, DumpShowsMessageItemsAndVariables) {
  ASSERT_EQ(EvmItemSetVa(e_, EvmITEM_PRIORITY, 200, EvmITEM_FORMAT, "Hi $who", 0), EvmERROR_NONE);
  EXPECT_EQ(dump(),
            "\nFormatted Message:\n    Hi $who\n"
            "\nEvent Data Items:\n"
            "    Event Name        : a.b\n"
            "    Priority          : 200\n"
            "    Format            : Hi $who\n"
            "\nVariable Items:\n    None\n");
  ASSERT_EQ(EvmVarSetString(e_, "who", "Bob"), EvmERROR_NONE);
  ASSERT_EQ(EvmVarSetStringI18n(e_, "a_rather_long_name", std::string(60, 'w').c_str(), 12), EvmERROR_NONE);
  ASSERT_EQ(EvmVarSetOpaque(e_, "o", "xy", 2), EvmERROR_NONE);
  std::string d = dump();
  EXPECT_EQ(d.substr(0, 31), "\nFormatted Message:\n    Hi Bob\n");
  EXPECT_NE(d.find("\nVariable Items:\n"
                   "    who (STRING) = \"Bob\"\n"
                   "    a_rather_long_name (STRING) [Msg-id 12] = \n"
                   "            \"" + std::string(60, 'w') + "\"\n"
                   "    o (OPAQUE) = [OPAQUE VALUE: 2 bytes]\n"),
            std::string::npos)
      << d;
}

}  // namespace
