// The event block: head values, record layout and the life of a handle.
#include "evm/libevm/evm_event.h"

#include <gtest/gtest.h>

#include "evm/libevm/evm.h"
#include "evm/libevm/evm_test_util.h"

using namespace evmtest;

class EvmEventTest : public ::testing::Test {
 protected:
  void TearDown() override {
    if (e_ != nullptr) {
      EXPECT_EQ(EvmEventDestroy(e_), EvmERROR_NONE);
    }
  }
  EvmEvent_t e_ = nullptr;
};

TEST_F(EvmEventTest, NewEventHasOnlyTheFixedHeadValues) {
  ASSERT_EQ(EvmEventCreateVa(&e_, 0), EvmERROR_NONE);
  Bytes expected(120, 0);
  expected[48] = 3;    // control.ident
  expected[50] = 1;    // control.blocktype
  expected[52] = 120;  // control.size
  expected[108] = 2;   // version
  expected[110] = 0x54;
  expected[111] = 0x76;  // head magic 0x7654
  put32(expected, 112, 512);
  put32(expected, 116, 8);
  EXPECT_EQ(used(e_), expected);
  EXPECT_EQ(e_->next_event, nullptr);
}

TEST_F(EvmEventTest, WorkedExampleIsLaidOutByteForByte) {
  ASSERT_EQ(EvmEventCreateVa(&e_, EvmITEM_NAME, "sys.x", EvmITEM_VAR_INT32, "n", 7, 0), EvmERROR_NONE);
  Bytes b = used(e_);
  ASSERT_EQ(b.size(), 176u);
  EXPECT_EQ(get32(b, 60), 0x800002u);
  Bytes body(b.begin() + 120, b.end());
  const unsigned char expected[56] = {
      1, 0, 0, 0, 16, 0, 0, 0, 's', 'y', 's', '.', 'x', 0, 0, 0,  // name record
      23, 0, 0, 0, 40, 0, 0, 0, 4, 0, 0, 0, 2, 0, 0, 0,           // ident, size, type, nameLen
      4, 0, 0, 0, 0, 0, 0, 0,                                     // valueLen, msgId
      'n', 0, 0, 0, 0, 0, 0, 0,                                   // name at 160
      7, 0, 0, 0, 0, 0, 0, 0,                                     // value at 168
  };
  EXPECT_EQ(body, Bytes(expected, expected + 56));
}

TEST_F(EvmEventTest, StringRecordsPadToEightBytes) {
  ASSERT_EQ(EvmEventCreateVa(&e_, EvmITEM_NAME, "abcdefg", 0), EvmERROR_NONE);
  EXPECT_EQ(get32(used(e_), 124), 16u);
  ASSERT_EQ(EvmItemSetVa(e_, EvmITEM_NAME, "abcdefgh", 0), EvmERROR_NONE);
  EXPECT_EQ(get32(used(e_), 124), 24u);
  EXPECT_EQ(e_->head_p->control.size, 144u);
}

TEST_F(EvmEventTest, DuplicateIsEqualAndOutlivesItsSource) {
  ASSERT_EQ(EvmEventCreateVa(&e_, EvmITEM_NAME, "a.b", EvmITEM_PRIORITY, 300, EvmITEM_VAR_STRING, "s", "text", 0),
            EvmERROR_NONE);
  _evmSetChecksum(e_);
  EvmEvent_t copy = nullptr;
  ASSERT_EQ(EvmEventDup(&copy, e_), EvmERROR_NONE);
  Bytes before = used(e_);
  copy->next_event = nullptr;
  EXPECT_EQ(EvmEventDestroy(e_), EvmERROR_NONE);
  e_ = copy;
  EXPECT_EQ(used(e_), before);
  EXPECT_EQ(EvmEventValidate(e_), EvmERROR_NONE);
}

TEST_F(EvmEventTest, DupAndDestroyRefuseBadHandles) {
  EvmEventHandle_s dead{0, nullptr, nullptr};
  EvmEvent_t copy = nullptr;
  EXPECT_EQ(EvmEventDup(&copy, nullptr), EvmERROR_INVALID_ARGUMENT);
  EXPECT_EQ(EvmEventDup(&copy, &dead), EvmERROR_INVALID_ARGUMENT);
  EXPECT_EQ(EvmEventDestroy(nullptr), EvmERROR_INVALID_ARGUMENT);
  EXPECT_EQ(EvmEventDestroy(&dead), EvmERROR_INVALID_VALUE);
}

TEST_F(EvmEventTest, BlockGrowsWithZeroTailAndIgnoresShrinkBelowUse) {
  ASSERT_EQ(EvmEventCreateVa(&e_, EvmITEM_NAME, "x", 0), EvmERROR_NONE);
  Bytes before = used(e_);
  EvmEventHead_t* old = e_->head_p;
  EXPECT_EQ(_evmEventResize(e_, 100), EvmERROR_NONE);
  EXPECT_EQ(e_->head_p, old);
  ASSERT_EQ(_evmEventResize(e_, 4096), EvmERROR_NONE);
  EXPECT_EQ(used(e_), before);
  const unsigned char* p = reinterpret_cast<const unsigned char*>(e_->head_p);
  for (std::size_t i = before.size(); i < 4096; ++i) ASSERT_EQ(p[i], 0) << i;
}

TEST_F(EvmEventTest, FirstBlockSharesTheHandleUntilTheEventGrows) {
  ASSERT_EQ(EvmEventCreateVa(&e_, EvmITEM_NAME, "a.b", EvmITEM_VAR_STRING, "_name", "r", 0), EvmERROR_NONE);
  auto* handle = reinterpret_cast<unsigned char*>(e_);
  auto* block = reinterpret_cast<unsigned char*>(e_->head_p);
  // One allocation: the block follows the handle, 16-aligned.
  EXPECT_GT(block, handle);
  EXPECT_LE(block - handle, 32);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % 16, 0u);
  // An exact fit of the first block stays where it is.
  EXPECT_EQ(_evmEventResize(e_, e_->head_p->control.size), EvmERROR_NONE);
  EXPECT_EQ(reinterpret_cast<unsigned char*>(e_->head_p), block);

  // Growing gives the block one of its own; the event reads as before, and a duplicate made
  // now is as whole as one made first.
  ASSERT_EQ(EvmItemSetVa(e_, EvmITEM_NAME, "a.much.longer.name.than.the.first.one", 0), EvmERROR_NONE);
  EXPECT_NE(reinterpret_cast<unsigned char*>(e_->head_p), block);
  EvmEvent_t copy = nullptr;
  ASSERT_EQ(EvmEventDup(&copy, e_), EvmERROR_NONE);
  EXPECT_EQ(used(copy), used(e_));
  ASSERT_EQ(EvmItemSetVa(e_, EvmITEM_NAME, "x", 0), EvmERROR_NONE);  // shrinks to an exact fit
  EvmVarStruct_t var;
  ASSERT_EQ(EvmVarGet(e_, "_name", &var), EvmERROR_NONE);
  EXPECT_STREQ(var.value.STRING, "r");
  EvmVarRelease(&var);
  EXPECT_EQ(EvmEventValidate(e_), EvmERROR_NONE);
  EXPECT_EQ(EvmEventDestroy(copy), EvmERROR_NONE);
}

TEST_F(EvmEventTest, OnlyPostingFlagsCanBeSetDirectly) {
  ASSERT_EQ(EvmEventCreateVa(&e_, 0), EvmERROR_NONE);
  EvmBoolean_t v = EvmFALSE;
  EXPECT_EQ(_evmFlagSet(e_, EvmFLAG_KERNEL_POSTED, EvmTRUE), EvmERROR_NONE);
  EXPECT_EQ(e_->head_p->flags, 0x08u);
  EXPECT_EQ(_evmFlagGet(e_, EvmFLAG_KERNEL_POSTED, &v), EvmERROR_NONE);
  EXPECT_EQ(v, EvmTRUE);
  EXPECT_EQ(_evmFlagSet(e_, EvmFLAG_EXTERNALLY_POSTED, static_cast<EvmBoolean_t>(2)), EvmERROR_NONE);
  EXPECT_EQ(e_->head_p->flags, 0x08u);
  EXPECT_EQ(_evmFlagSet(e_, EvmFLAG_CHECKSUM_PRESENT, EvmTRUE), EvmERROR_INVALID_ARGUMENT);
  EXPECT_EQ(_evmFlagGet(e_, EvmFLAG_CLUSTER_EVENT, &v), EvmERROR_INVALID_ARGUMENT);
}

TEST_F(EvmEventTest, QueuePointerNeedsValidEvents) {
  ASSERT_EQ(EvmEventCreateVa(&e_, 0), EvmERROR_NONE);
  EvmEvent_t other = nullptr;
  ASSERT_EQ(EvmEventCreateVa(&other, 0), EvmERROR_NONE);
  EvmEventHandle_s dead{0, nullptr, nullptr};
  EvmEvent_t next = &dead;
  EXPECT_EQ(_EvmQueuePointerSet(e_, &dead), EvmERROR_INVALID_ARGUMENT);
  EXPECT_EQ(_EvmQueuePointerSet(e_, other), EvmERROR_NONE);
  EXPECT_EQ(_EvmQueuePointerGet(e_, &next), EvmERROR_NONE);
  EXPECT_EQ(next, other);
  EXPECT_EQ(_EvmQueuePointerGet(&dead, &next), EvmERROR_INVALID_ARGUMENT);
  EvmEventDestroy(other);
}

TEST_F(EvmEventTest, MakeEventAdoptsAValidBlockAndFreesARefusedOne) {
  Bytes b = newHead();
  addStringRecord(b, EvmITEM_NAME, "ok.name");
  put32(b, 60, 1u << EvmITEM_NAME);
  fitSize(b);
  e_ = _evmMakeEvent(mallocCopy(b));
  ASSERT_NE(e_, nullptr);
  EXPECT_EQ(used(e_), b);
  addStringRecord(b, EvmITEM_HOST_NAME, "h");
  put32(b, 124, 0);  // the name record now claims no length
  fitSize(b);
  EXPECT_EQ(_evmMakeEvent(mallocCopy(b)), nullptr);  // ASan reports a leak if the block were kept
}
