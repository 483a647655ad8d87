// Variables: record layout by type, typed access, replacement, listing and name extension.
#include "evm/libevm/evm_var.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "evm/libevm/evm.h"
#include "evm/libevm/evm_test_util.h"

using namespace evmtest;

class EvmVarTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(EvmEventCreateVa(&e_, EvmITEM_NAME, "a.b", 0), EvmERROR_NONE); }
  void TearDown() override { EvmEventDestroy(e_); }
  // The record of the only variable set so far.
  Bytes record() {
    Bytes b = used(e_);
    const unsigned char* rec = _evmuiFindVar(e_->head_p, EvmITEM_VAR, nullptr);
    for (const unsigned char* r = nullptr; _evmuiGetVar(e_->head_p, &r) == EvmERROR_NONE;)
      if (evmRecIdent(r) == EvmITEM_VAR) rec = r;
    std::size_t off = rec - reinterpret_cast<const unsigned char*>(e_->head_p);
    return Bytes(b.begin() + off, b.begin() + off + evmRecSize(rec));
  }
  std::string eventName() {
    EvmItemValue_t v;
    EXPECT_EQ(EvmItemGet(e_, EvmITEM_NAME, &v), EvmERROR_NONE);
    std::string s = v.NAME;
    EvmItemRelease(EvmITEM_NAME, v);
    return s;
  }
  EvmEvent_t e_ = nullptr;
};

TEST_F(EvmVarTest, ScalarValueSitsBehindThePaddedName) {
  ASSERT_EQ(EvmVarSetInt32(e_, "abcdefg", -2), EvmERROR_NONE);
  Bytes r = record();
  ASSERT_EQ(r.size(), 40u);
  EXPECT_EQ(get32(r, 12), 8u);  // nameLen
  EXPECT_EQ(get32(r, 16), 4u);  // valueLen
  EXPECT_EQ(get32(r, 32), 0xfffffffeu);
  EXPECT_EQ(get32(r, 36), 0u);
}

TEST_F(EvmVarTest, EveryTypeStoresItsWidthAndReadsBack) {
  ASSERT_EQ(EvmVarSetBoolean(e_, "b", EvmTRUE), EvmERROR_NONE);
  EXPECT_EQ(get32(record(), 16), 1u);  // valueLen 1 although four bytes are stored
  EXPECT_EQ(get32(record(), 32), 1u);
  ASSERT_EQ(EvmVarSetChar(e_, "c", 'q'), EvmERROR_NONE);
  ASSERT_EQ(EvmVarSetInt16(e_, "i16", -300), EvmERROR_NONE);
  EXPECT_EQ(get32(record(), 16), 2u);
  ASSERT_EQ(EvmVarSetInt64(e_, "i64", -(std::int64_t{1} << 50)), EvmERROR_NONE);
  EXPECT_EQ(get32(record(), 16), 8u);
  ASSERT_EQ(EvmVarSetUint8(e_, "u8", 250), EvmERROR_NONE);
  ASSERT_EQ(EvmVarSetUint16(e_, "u16", 65000), EvmERROR_NONE);
  ASSERT_EQ(EvmVarSetUint32(e_, "u32", 4000000000u), EvmERROR_NONE);
  ASSERT_EQ(EvmVarSetUint64(e_, "u64", ~std::uint64_t{0}), EvmERROR_NONE);
  ASSERT_EQ(EvmVarSetFloat(e_, "f", 1.5f), EvmERROR_NONE);
  EXPECT_EQ(get32(record(), 16), 4u);
  ASSERT_EQ(EvmVarSetDouble(e_, "d", 2.25), EvmERROR_NONE);
  ASSERT_EQ(EvmVarSetStringI18n(e_, "s", "hello", 77), EvmERROR_NONE);
  EXPECT_EQ(record().size(), 24u + 8 + 8);
  EXPECT_EQ(get32(record(), 20), 77u);
  const unsigned char blob[9] = {9, 8, 7, 6, 5, 4, 3, 2, 1};
  ASSERT_EQ(EvmVarSetOpaque(e_, "o", blob, 9), EvmERROR_NONE);
  EXPECT_EQ(record().size(), 24u + 8 + 16);
  EXPECT_EQ(record()[32 + 9], 0);  // padding behind opaque bytes is zero

  EvmBoolean_t b; EvmChar_t c; EvmInt16_t i16; EvmInt64_t i64; EvmUint8_t u8; EvmUint16_t u16;
  EvmUint32_t u32; EvmUint64_t u64; EvmFloat_t f; EvmDouble_t d;
  EXPECT_EQ(EvmVarGetBoolean(e_, "b", &b), EvmERROR_NONE); EXPECT_EQ(b, EvmTRUE);
  EXPECT_EQ(EvmVarGetChar(e_, "c", &c), EvmERROR_NONE); EXPECT_EQ(c, 'q');
  EXPECT_EQ(EvmVarGetInt16(e_, "i16", &i16), EvmERROR_NONE); EXPECT_EQ(i16, -300);
  EXPECT_EQ(EvmVarGetInt64(e_, "i64", &i64), EvmERROR_NONE); EXPECT_EQ(i64, -(std::int64_t{1} << 50));
  EXPECT_EQ(EvmVarGetUint8(e_, "u8", &u8), EvmERROR_NONE); EXPECT_EQ(u8, 250);
  EXPECT_EQ(EvmVarGetUint16(e_, "u16", &u16), EvmERROR_NONE); EXPECT_EQ(u16, 65000);
  EXPECT_EQ(EvmVarGetUint32(e_, "u32", &u32), EvmERROR_NONE); EXPECT_EQ(u32, 4000000000u);
  EXPECT_EQ(EvmVarGetUint64(e_, "u64", &u64), EvmERROR_NONE); EXPECT_EQ(u64, ~std::uint64_t{0});
  EXPECT_EQ(EvmVarGetFloat(e_, "f", &f), EvmERROR_NONE); EXPECT_EQ(f, 1.5f);
  EXPECT_EQ(EvmVarGetDouble(e_, "d", &d), EvmERROR_NONE); EXPECT_EQ(d, 2.25);
  EvmString_t s = nullptr;
  EvmI18NMsgId_t msg = 0;
  EXPECT_EQ(EvmVarGetString(e_, "s", &s, &msg), EvmERROR_NONE);
  EXPECT_STREQ(s, "hello");
  EXPECT_EQ(msg, 77);
  std::free(s);
  EvmOpaque_t o = nullptr;
  EvmSize_t len = 0;
  EXPECT_EQ(EvmVarGetOpaque(e_, "o", &o, &len), EvmERROR_NONE);
  EXPECT_EQ(len, 9u);
  EXPECT_EQ(std::memcmp(o, blob, 9), 0);
  std::free(o);
  EXPECT_EQ(EvmEventValidate(e_), EvmERROR_NONE);
}

TEST_F(EvmVarTest, BadNamesAndValuesAreInvalidArguments) {
  EXPECT_EQ(EvmVarSetInt32(e_, "my.var", 1), EvmERROR_INVALID_ARGUMENT);
  EXPECT_EQ(EvmVarSetString(e_, "s", nullptr), EvmERROR_INVALID_ARGUMENT);
  EvmVarValue_t v;
  v.UINT64 = 0;
  EXPECT_EQ(EvmVarSet(e_, "t", static_cast<EvmVarType_t>(14), v, 0, 0), EvmERROR_INVALID_ARGUMENT);
  EXPECT_EQ(EvmVarSet(e_, "t", EvmTYPE_NONE, v, 0, 0), EvmERROR_INVALID_ARGUMENT);
  EXPECT_EQ(e_->head_p->fldPresBits & EVM_PRES_VARIABLES, 0u);
}

TEST_F(EvmVarTest, SameNameReplacesTheRecordEvenWithAnotherType) {
  ASSERT_EQ(EvmVarSetInt32(e_, "x", 1), EvmERROR_NONE);
  ASSERT_EQ(EvmVarSetInt32(e_, "y", 2), EvmERROR_NONE);
  ASSERT_EQ(EvmVarSetString(e_, "x", "now a string"), EvmERROR_NONE);
  EXPECT_EQ(_evmuiCountVar(e_->head_p), 2u);
  EvmVarType_t t = EvmTYPE_NONE;
  EXPECT_EQ(EvmVarGetType(e_, "x", &t), EvmERROR_NONE);
  EXPECT_EQ(t, EvmTYPE_STRING);
  EXPECT_EQ(EvmVarGetType(e_, "nope", &t), EvmERROR_NOT_PRESENT);
  EXPECT_EQ(t, EvmTYPE_NONE);
  EvmVarList_t list = nullptr;
  EvmUint32_t n = 0;
  ASSERT_EQ(EvmVarListGet(e_, &n, &list), EvmERROR_NONE);
  ASSERT_EQ(n, 2u);
  EXPECT_STREQ(list[0], "y");  // the replaced one moved to the end
  EXPECT_STREQ(list[1], "x");
  EXPECT_EQ(list[2], nullptr);
  EXPECT_EQ(EvmVarListFree(list), EvmERROR_NONE);
}

TEST_F(EvmVarTest, EmptyOpaqueIsLegalInAnEventButNotStandAlone) {
  EvmVarValue_t v;
  v.OPAQUE = nullptr;
  EXPECT_EQ(EvmVarSet(e_, "o", EvmTYPE_OPAQUE, v, 0, 0), EvmERROR_NONE);
  EXPECT_EQ(record().size(), 32u);
  EvmVarStruct_t var;
  EXPECT_EQ(EvmVarInit(&var, "o", EvmTYPE_OPAQUE, v, 0, 0), EvmERROR_INVALID_VALUE);
  EXPECT_EQ(EvmVarInit(&var, nullptr, EvmTYPE_INT32, v, 0, 0), EvmERROR_INVALID_ARGUMENT);
  v.STRING = const_cast<char*>("own");
  ASSERT_EQ(EvmVarInit(&var, "s", EvmTYPE_STRING, v, 3, 0), EvmERROR_NONE);
  EXPECT_NE(var.value.STRING, v.STRING);
  EXPECT_STREQ(var.value.STRING, "own");
  EXPECT_EQ(EvmVarRelease(&var), EvmERROR_NONE);
}

TEST_F(EvmVarTest, CopiesOutliveTheEventAndReleaseOnlyOnce) {
  ASSERT_EQ(EvmVarSetString(e_, "s", "kept"), EvmERROR_NONE);
  EvmVarStruct_t var;
  ASSERT_EQ(EvmVarGet(e_, "s", &var), EvmERROR_NONE);
  EvmEventDestroy(e_);
  e_ = nullptr;
  EXPECT_STREQ(var.name_p, "s");
  EXPECT_STREQ(var.value.STRING, "kept");
  EXPECT_EQ(var.length, 5u);
  EXPECT_EQ(EvmVarRelease(&var), EvmERROR_NONE);
  EXPECT_EQ(EvmVarRelease(&var), EvmERROR_INVALID_VALUE);
  EXPECT_EQ(EvmVarRelease(nullptr), EvmERROR_INVALID_ARGUMENT);
  ASSERT_EQ(EvmEventCreateVa(&e_, 0), EvmERROR_NONE);  // for TearDown
}

TEST_F(EvmVarTest, ListOfAnEventWithoutVariablesHoldsOnlyTheEnd) {
  EvmVarList_t list = nullptr;
  EvmUint32_t n = 5;
  ASSERT_EQ(EvmVarListGet(e_, &n, &list), EvmERROR_NONE);
  EXPECT_EQ(n, 0u);
  EXPECT_EQ(list[0], nullptr);
  EvmVarListFree(list);
  EXPECT_EQ(EvmVarListFree(nullptr), EvmERROR_INVALID_ARGUMENT);
}

TEST_F(EvmVarTest, UnderscoreVariablesExtendTheNameOnce) {
  ASSERT_EQ(EvmVarSetString(e_, "_x", "c d"), EvmERROR_NONE);
  ASSERT_EQ(EvmVarSetInt32(e_, "plain", 5), EvmERROR_NONE);
  ASSERT_EQ(EvmVarSetOpaque(e_, "_o", "zz", 2), EvmERROR_NONE);
  ASSERT_EQ(EvmVarSetString(e_, "_punct", "!!"), EvmERROR_NONE);  // nothing left to add
  EvmUint32_t added = 0;
  ASSERT_EQ(EvmEventAutoExtendName(e_, &added), EvmERROR_NONE);
  EXPECT_EQ(added, 2u);
  EXPECT_EQ(eventName(), "a.b._x.cd._o.OPAQUE");
  ASSERT_EQ(EvmEventAutoExtendName(e_, &added), EvmERROR_NONE);
  EXPECT_EQ(added, 0u);
  EXPECT_EQ(eventName(), "a.b._x.cd._o.OPAQUE");
}

TEST_F(EvmVarTest, AnEmptyNameTakesNoLeadingDot) {
  ASSERT_EQ(EvmItemSetVa(e_, EvmITEM_NAME, "", 0), EvmERROR_NONE);
  ASSERT_EQ(EvmVarSetUint16(e_, "_n", 42), EvmERROR_NONE);
  ASSERT_EQ(EvmEventAutoExtendName(e_, nullptr), EvmERROR_NONE);
  EXPECT_EQ(eventName(), "_n.42");
  EvmEvent_t unnamed = nullptr;
  ASSERT_EQ(EvmEventCreateVa(&unnamed, 0), EvmERROR_NONE);
  EXPECT_EQ(EvmEventAutoExtendName(unnamed, nullptr), EvmERROR_NOT_PRESENT);
  EvmEventDestroy(unnamed);
}
