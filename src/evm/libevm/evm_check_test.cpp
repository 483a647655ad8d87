// Checksum, name syntax, whole-event validation and the older head form.
#include "evm/libevm/evm_check.h"

#include <gtest/gtest.h>

#include <string>

#include "evm/libevm/evm.h"
#include "evm/libevm/evm_test_util.h"

using namespace evmtest;

class EvmCheckTest : public ::testing::Test {
 protected:
  void TearDown() override {
    if (e_ != nullptr) EvmEventDestroy(e_);
  }
  // Wraps hand-made bytes in a handle without any check, the way a reader holds them.
  EvmEvent_t wrap(const Bytes& b) {
    EvmEvent_t h = nullptr;
    _evmuiAllocateHandle(&h);
    h->head_p = mallocCopy(b);
    if (e_ != nullptr) EvmEventDestroy(e_);
    e_ = h;
    return h;
  }
  EvmEvent_t e_ = nullptr;
};

TEST_F(EvmCheckTest, FoldAddsCarriesTwice) {
  EXPECT_EQ(_evmFoldChecksum(0x12345), 0x2346);
  EXPECT_EQ(_evmFoldChecksum(0xFFFFF), 0x000F);
  EXPECT_EQ(_evmFoldChecksum(0), 0);
}

TEST_F(EvmCheckTest, ByteSumAgreesWithPlainLoopAtEveryLengthAndAlignment) {
  unsigned char data[300];
  for (int i = 0; i < 300; ++i) data[i] = static_cast<unsigned char>(i * 37 + 200);
  for (std::size_t start = 0; start < 16; ++start)
    for (std::size_t n = 0; n + start <= 300; n += 7) {
      std::uint64_t plain = 0;
      for (std::size_t i = 0; i < n; ++i) plain += data[start + i];
      ASSERT_EQ(_evmByteSum(data + start, n), plain) << start << " " << n;
    }
}

TEST_F(EvmCheckTest, WorkedExampleChecksumIs0x0500) {
  ASSERT_EQ(EvmEventCreateVa(&e_, EvmITEM_NAME, "sys.x", EvmITEM_VAR_INT32, "n", 7, 0), EvmERROR_NONE);
  _evmInsertChecksum(e_->head_p);
  EXPECT_EQ(e_->head_p->flags, 0x20u);
  EXPECT_EQ(e_->head_p->checksum, 0x0500);
}

TEST_F(EvmCheckTest, ChecksumCoversBlockButNotTransportHeader) {
  ASSERT_EQ(EvmEventCreateVa(&e_, EvmITEM_NAME, "sys.x", EvmITEM_VAR_INT32, "n", 7, 0), EvmERROR_NONE);
  EvmUint16_t sum = _evmCalculateChecksum(e_->head_p);
  unsigned char* p = reinterpret_cast<unsigned char*>(e_->head_p);
  std::memset(p, 0xAB, 48);
  p[74] = 0x11;  // the checksum field itself
  EXPECT_EQ(_evmCalculateChecksum(e_->head_p), sum);
  p[170] ^= 1;  // inside the variable's value
  EXPECT_NE(_evmCalculateChecksum(e_->head_p), sum);
}

TEST_F(EvmCheckTest, InsertKeepsAPresentChecksumUntilRemoved) {
  ASSERT_EQ(EvmEventCreateVa(&e_, EvmITEM_NAME, "a", 0), EvmERROR_NONE);
  _evmInsertChecksum(e_->head_p);
  EvmUint16_t first = e_->head_p->checksum;
  e_->head_p->priority = 9;  // changed behind the library's back
  _evmInsertChecksum(e_->head_p);
  EXPECT_EQ(e_->head_p->checksum, first);
  EXPECT_EQ(_evmTestChecksum(e_->head_p), EvmERROR_INVALID_VALUE);
  _evmRemoveChecksum(e_->head_p);
  EXPECT_EQ(_evmTestChecksum(e_->head_p), EvmERROR_NONE);
  _evmInsertChecksum(e_->head_p);
  EXPECT_NE(e_->head_p->checksum, first);
  EXPECT_EQ(_evmTestChecksum(e_->head_p), EvmERROR_NONE);
}

TEST_F(EvmCheckTest, EventNamesAreDottedComponents) {
  EvmUint32_t n = 99;
  EXPECT_EQ(_evmStringCheck("sys.zel.clu.vyn.log.ui", &n, EvmFALSE), EvmERROR_NONE);
  EXPECT_EQ(n, 6u);
  EXPECT_EQ(_evmStringCheck("", &n, EvmFALSE), EvmERROR_NONE);
  EXPECT_EQ(n, 0u);
  for (const char* bad : {"a..b", ".a", "a.", "a b", "a-b"})
    EXPECT_EQ(_evmStringCheck(bad, nullptr, EvmTRUE), EvmERROR_INVALID_ARGUMENT) << bad;
  EXPECT_EQ(_evmStringCheck("a.b..c", &n, EvmFALSE), EvmERROR_INVALID_ARGUMENT);
  EXPECT_EQ(n, 2u);  // the count reached before the fault is still told
}

TEST_F(EvmCheckTest, WildcardsStandAsWholeComponentsOnlyWhenAllowed) {
  EvmUint32_t n = 0;
  EXPECT_EQ(_evmStringCheck("a.*.c", &n, EvmTRUE), EvmERROR_NONE);
  EXPECT_EQ(n, 3u);
  EXPECT_EQ(_evmStringCheck("?", nullptr, EvmTRUE), EvmERROR_NONE);
  EXPECT_EQ(_evmStringCheck("a*", nullptr, EvmTRUE), EvmERROR_INVALID_ARGUMENT);
  EXPECT_EQ(_evmStringCheck("*a", nullptr, EvmTRUE), EvmERROR_INVALID_ARGUMENT);
  for (const char* s : {"a.*.c", "?", "a*", "*a"})
    EXPECT_EQ(_evmStringCheck(s, nullptr, EvmFALSE), EvmERROR_INVALID_ARGUMENT) << s;
}

TEST_F(EvmCheckTest, NamePatternsMatchWholeComponents) {
  struct Case {
    const char* pattern;
    const char* name;
    bool match;
  } cases[] = {
      {"", "a.b", true},
      {"*", "a.b", true},
      {"*", "", true},
      {"", nullptr, true},
      {"a.b", "", false},
      {"a.b", "a.b", true},
      {"a.b", "a.b.c", false},
      {"a.b", "a.bc", false},
      {"a.?", "a.b", true},
      {"a.?", "a.b.c", false},
      {"a.?", "a", false},
      {"a.*", "a", true},  // "*" may stand for no component
      {"a.*", "a.b.c.d", true},
      {"a.*", "ab.c", false},
      {"*.d", "a.b.c.d", true},
      {"*.d", "a.b.c.e", false},
      {"a.*.c.*.e", "a.x.c.y.c.z.e", true},
      {"a.*.c.?", "a.c.c.c", true},
      {"sys.zel.clu.vyn.res.*", "sys.zel.clu.vyn.res.state.changed", true},
      {"sys.zel.clu.vyn.res.*", "sys.zel.clu.vyn.resx", false},
      {"a*", "a", false},  // not a pattern the name check takes: matches nothing
      {"a..b", "a..b", false},
  };
  for (const Case& c : cases)
    EXPECT_EQ(EvmEventNameMatch(c.pattern, c.name), c.match ? EvmTRUE : EvmFALSE)
        << "pattern '" << c.pattern << "' name '" << (c.name ? c.name : "(null)") << "'";
  EXPECT_EQ(EvmEventNameMatch(nullptr, "a"), EvmFALSE);
  // Many stars against a long name that fails at its end stays cheap.
  std::string pattern, name;
  for (int i = 0; i < 200; ++i) pattern += "*.";
  pattern += "z";
  for (int i = 0; i < 2000; ++i) name += "a.";
  name += "b";
  EXPECT_EQ(EvmEventNameMatch(pattern.c_str(), name.c_str()), EvmFALSE);
}

TEST_F(EvmCheckTest, VariableNamesHaveNoDots) {
  EXPECT_EQ(_evmVarNameCheck("my_var1"), EvmERROR_NONE);
  EXPECT_EQ(_evmVarNameCheck("my.var"), EvmERROR_INVALID_ARGUMENT);
  EXPECT_EQ(_evmVarNameCheck(""), EvmERROR_INVALID_ARGUMENT);
  EXPECT_EQ(_evmVarNameCheck(nullptr), EvmERROR_INVALID_ARGUMENT);
}

TEST_F(EvmCheckTest, ValidationLooksAtNameAndPriority) {
  ASSERT_EQ(EvmEventCreateVa(&e_, 0), EvmERROR_NONE);
  EXPECT_EQ(EvmEventValidate(e_), EvmERROR_NONE);  // no name, no priority
  ASSERT_EQ(EvmItemSetVa(e_, EvmITEM_PRIORITY, 700, 0), EvmERROR_NONE);
  EXPECT_EQ(EvmEventValidate(e_), EvmERROR_NONE);
  e_->head_p->priority = 701;
  EXPECT_EQ(EvmEventValidate(e_), EvmERROR_INVALID_VALUE);
  e_->head_p->priority = 5;
  Bytes b = used(e_);
  addStringRecord(b, EvmITEM_NAME, "bad..name");
  put32(b, 60, get32(b, 60) | 2u);
  fitSize(b);
  EXPECT_EQ(EvmEventValidate(wrap(b)), EvmERROR_INVALID_VALUE);
  EXPECT_EQ(EvmEventValidate(nullptr), EvmERROR_INVALID_ARGUMENT);
  e_->magic = 0;
  EXPECT_EQ(EvmEventValidate(e_), EvmERROR_INVALID_VALUE);
  e_->magic = EVM_HANDLE_MAGIC;
}

// Blocks that a stranger could send: each is refused, none is read outside its bytes
// (the sanitizer build would report that).
TEST_F(EvmCheckTest, DamagedBodiesAreRefused) {
  Bytes good = newHead();
  addStringRecord(good, EvmITEM_NAME, "a.b");
  put32(good, 60, 2u);
  fitSize(good);
  ASSERT_EQ(EvmEventValidate(wrap(good)), EvmERROR_NONE);

  Bytes zeroSize = good;
  put32(zeroSize, 124, 0);
  Bytes pastEnd = good;
  put32(pastEnd, 124, 64);
  Bytes bitWithoutRecord = good;
  put32(bitWithoutRecord, 60, 2u | (1u << EvmITEM_HOST_NAME));
  Bytes noTerminator = good;
  std::memset(&noTerminator[128], 'x', 8);
  Bytes sizeBelowHead = good;
  put32(sizeBelowHead, 52, 100);
  Bytes headItemInBody = good;
  put32(headItemInBody, 120, EvmITEM_PRIORITY);
  Bytes varNameTooLong = newHead();
  varNameTooLong.resize(120 + 40, 0);
  put32(varNameTooLong, 120, 23);
  put32(varNameTooLong, 124, 40);
  put32(varNameTooLong, 128, EvmTYPE_INT32);
  put32(varNameTooLong, 132, 4000);  // name length reaching far past the record
  put32(varNameTooLong, 136, 4);
  put32(varNameTooLong, 60, 1u << 23);
  fitSize(varNameTooLong);
  Bytes varNameLenWraps = varNameTooLong;
  put32(varNameLenWraps, 132, 0xffffffffu);  // padding the length to 8 must not wrap to 0
  Bytes varsBitOnly = newHead();
  put32(varsBitOnly, 60, 1u << 23);

  for (const Bytes* b : {&zeroSize, &pastEnd, &bitWithoutRecord, &noTerminator, &sizeBelowHead, &headItemInBody,
                         &varNameTooLong, &varNameLenWraps, &varsBitOnly})
    EXPECT_EQ(EvmEventValidate(wrap(*b)), EvmERROR_INVALID_VALUE) << (b - &zeroSize);
}

TEST_F(EvmCheckTest, OlderHeadGrowsByEightBytesAndKeepsRecordsAndChecksum) {
  ASSERT_EQ(EvmEventCreateVa(&e_, EvmITEM_NAME, "old.form", EvmITEM_REPEAT_COUNT, 3, EvmITEM_VAR_STRING, "v",
                             "value", 0),
            EvmERROR_NONE);
  Bytes current = used(e_);
  Bytes records(current.begin() + 120, current.end());
  Bytes old(current.begin(), current.begin() + 112);
  old.insert(old.end(), records.begin(), records.end());
  put32(old, 52, static_cast<std::uint32_t>(old.size()));
  EvmEvent_t h = wrap(old);
  _evmInsertChecksum(h->head_p);
  ASSERT_EQ(_evmTestChecksum(h->head_p), EvmERROR_NONE);
  ASSERT_EQ(_evmEventTranslateVersion(h), EvmERROR_NONE);
  Bytes now = used(h);
  ASSERT_EQ(now.size(), old.size() + 8);
  EXPECT_EQ(Bytes(now.begin() + 120, now.end()), records);
  EXPECT_EQ(get32(now, 112), 512u);
  EXPECT_EQ(get32(now, 116), 8u);
  EXPECT_EQ(h->head_p->flags & 0x20u, 0x20u);
  EXPECT_EQ(_evmTestChecksum(h->head_p), EvmERROR_NONE);
  EXPECT_EQ(EvmEventValidate(h), EvmERROR_NONE);
  EXPECT_EQ(_evmEventTranslateVersion(h), EvmERROR_NONE);  // the current form is left alone
  EXPECT_EQ(used(h), now);
}
