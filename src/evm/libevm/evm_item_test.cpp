// Setting, replacing, reading, listing and merging items.
#include "evm/libevm/evm_item.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "evm/libevm/evm.h"
#include "evm/libevm/evm_test_util.h"

using namespace evmtest;

class EvmItemTest : public ::testing::Test {
 protected:
  void TearDown() override {
    if (e_ != nullptr) EvmEventDestroy(e_);
  }
  std::string name() {
    EvmItemValue_t v;
    EXPECT_EQ(EvmItemGet(e_, EvmITEM_NAME, &v), EvmERROR_NONE);
    std::string s = v.NAME;
    EvmItemRelease(EvmITEM_NAME, v);
    return s;
  }
  EvmEvent_t e_ = nullptr;
};

TEST_F(EvmItemTest, ReplacedItemMovesToTheEndAndAShorterValueShrinks) {
  ASSERT_EQ(EvmEventCreateVa(&e_, EvmITEM_NAME, "a.long.first.name", EvmITEM_HOST_NAME, "h", 0), EvmERROR_NONE);
  EXPECT_EQ(e_->head_p->control.size, 120u + 32u + 16u);
  ASSERT_EQ(EvmItemSetVa(e_, EvmITEM_NAME, "n", 0), EvmERROR_NONE);
  Bytes b = used(e_);
  ASSERT_EQ(b.size(), 120u + 16u + 16u);
  EXPECT_EQ(get32(b, 120), static_cast<std::uint32_t>(EvmITEM_HOST_NAME));
  EXPECT_EQ(get32(b, 136), static_cast<std::uint32_t>(EvmITEM_NAME));
  EXPECT_EQ(name(), "n");
  EXPECT_EQ(_evmuiCountVar(e_->head_p), 0u);
}

TEST_F(EvmItemTest, HeadItemsGoToTheirFieldsAndAddNoBytes) {
  ASSERT_EQ(EvmEventCreateVa(&e_, 0), EvmERROR_NONE);
  ASSERT_EQ(EvmItemSetVa(e_, EvmITEM_PRIORITY, 300, EvmITEM_PID, std::int64_t{1} << 40, EvmITEM_PPID,
                         std::int64_t{-2}, EvmITEM_EVENT_ID, 77, EvmITEM_MEMBER_ID, -5, EvmITEM_TIMESTAMP,
                         std::int64_t{1700000000}, EvmITEM_HOST_IP, 0x0100007f, EvmITEM_CLUSTER_EVENT, EvmTRUE, 0),
            EvmERROR_NONE);
  const EvmEventHead_t* h = e_->head_p;
  EXPECT_EQ(h->control.size, 120u);
  EXPECT_EQ(h->priority, 300);
  EXPECT_EQ(h->pid, std::int64_t{1} << 40);
  EXPECT_EQ(h->ppid, -2);
  EXPECT_EQ(h->eventId, 77u);
  EXPECT_EQ(h->memberId, -5);
  EXPECT_EQ(h->time, 1700000000u);
  EXPECT_EQ(h->hostId, 0x0100007fu);
  EXPECT_EQ(h->flags, 0x02u);
  EXPECT_EQ(h->fldPresBits, 0xff0u);
}

TEST_F(EvmItemTest, FlagItemIsSetOnlyByExactlyTrue) {
  ASSERT_EQ(EvmEventCreateVa(&e_, EvmITEM_KERNEL_ONLY, EvmTRUE, 0), EvmERROR_NONE);
  EXPECT_EQ(e_->head_p->flags, 0x04u);
  ASSERT_EQ(EvmItemSetVa(e_, EvmITEM_KERNEL_ONLY, 2, 0), EvmERROR_NONE);
  EXPECT_EQ(e_->head_p->flags, 0u);
  EXPECT_EQ(e_->head_p->fldPresBits, 1u << EvmITEM_KERNEL_ONLY);
}

TEST_F(EvmItemTest, AbsentFlagsReadFalseAndOtherAbsentItemsAreNotPresent) {
  ASSERT_EQ(EvmEventCreateVa(&e_, 0), EvmERROR_NONE);
  EvmItemValue_t v;
  v.PID = 12345;
  EXPECT_EQ(EvmItemGet(e_, EvmITEM_CLUSTER_EVENT, &v), EvmERROR_NONE);
  EXPECT_EQ(v.CLUSTER_EVENT, EvmFALSE);
  EXPECT_EQ(EvmItemGet(e_, EvmITEM_HOST_NAME, &v), EvmERROR_NOT_PRESENT);
  ASSERT_EQ(EvmVarSetInt32(e_, "x", 1), EvmERROR_NONE);
  EXPECT_EQ(EvmItemGet(e_, EvmITEM_VAR, &v), EvmERROR_INVALID_ARGUMENT);  // variables have their own calls
  EXPECT_EQ(EvmItemGet(e_, static_cast<EvmItemId_t>(24), &v), EvmERROR_INVALID_ARGUMENT);
  EXPECT_EQ(EvmItemGet(e_, EvmITEM_NAME, nullptr), EvmERROR_INVALID_ARGUMENT);
}

TEST_F(EvmItemTest, OneBadEntryLeavesTheEventUntouched) {
  ASSERT_EQ(EvmEventCreateVa(&e_, EvmITEM_NAME, "keep", EvmITEM_PRIORITY, 10, 0), EvmERROR_NONE);
  Bytes before = used(e_);
  EXPECT_EQ(EvmItemSetVa(e_, EvmITEM_NAME, "other", EvmITEM_PRIORITY, 701, 0), EvmERROR_INVALID_VALUE);
  EXPECT_EQ(EvmItemSetVa(e_, EvmITEM_HOST_NAME, "h", EvmITEM_NAME, "bad..name", 0), EvmERROR_INVALID_VALUE);
  EXPECT_EQ(EvmItemSetVa(e_, EvmITEM_VAR_INT32, "x", 1, EvmITEM_VAR_STRING, "x", "again", 0),
            EvmERROR_INVALID_ARGUMENT);
  EXPECT_EQ(EvmItemSetVa(e_, EvmITEM_UNUSED_1, 0, 0), EvmERROR_NOT_IMPLEMENTED);
  EXPECT_EQ(EvmItemSetVa(e_, 99, 0), EvmERROR_INVALID_ARGUMENT);
  EXPECT_EQ(EvmItemSetVa(e_, EvmITEM_HOST_NAME, static_cast<char*>(nullptr), 0), EvmERROR_INVALID_ARGUMENT);
  EXPECT_EQ(used(e_), before);
  EvmEvent_t none = nullptr;
  EXPECT_EQ(EvmEventCreateVa(&none, EvmITEM_PRIORITY, 701, 0), EvmERROR_INVALID_VALUE);
  EXPECT_EQ(none, nullptr);
}

TEST_F(EvmItemTest, ARepeatedBodyItemInOneListIsRefused) {
  // Sizing counts each replaced record once; two of the same id would write past the block.
  ASSERT_EQ(EvmEventCreateVa(&e_, EvmITEM_NAME, "a", 0), EvmERROR_NONE);
  EXPECT_EQ(EvmItemSetVa(e_, EvmITEM_NAME, "b", EvmITEM_NAME, "c", 0), EvmERROR_INVALID_ARGUMENT);
}

TEST_F(EvmItemTest, NumericBodyItemsTakeSixteenBytesAndKeepLowHalf) {
  ASSERT_EQ(EvmEventCreateVa(&e_, EvmITEM_LAST_TIMESTAMP, (std::int64_t{5} << 32) | 9, EvmITEM_I18N_SET_ID, -3, 0),
            EvmERROR_NONE);
  Bytes b = used(e_);
  ASSERT_EQ(b.size(), 152u);
  const unsigned char expected[32] = {13, 0, 0, 0, 16, 0, 0, 0, 9, 0, 0, 0, 0, 0, 0, 0,
                                      15, 0, 0, 0, 16, 0, 0, 0, 0xfd, 0xff, 0xff, 0xff, 0, 0, 0, 0};
  EXPECT_EQ(Bytes(b.begin() + 120, b.end()), Bytes(expected, expected + 32));
  EvmItemValue_t v;
  ASSERT_EQ(EvmItemGet(e_, EvmITEM_LAST_TIMESTAMP, &v), EvmERROR_NONE);
  EXPECT_EQ(v.LAST_TIMESTAMP, 9u);
  ASSERT_EQ(EvmItemGet(e_, EvmITEM_I18N_SET_ID, &v), EvmERROR_NONE);
  EXPECT_EQ(v.I18N_SET_ID, -3);
}

TEST_F(EvmItemTest, StringItemsAreCopiedOutAndReleasedByKind) {
  ASSERT_EQ(EvmEventCreateVa(&e_, EvmITEM_USER_NAME, "root", 0), EvmERROR_NONE);
  EvmItemValue_t v;
  ASSERT_EQ(EvmItemGet(e_, EvmITEM_USER_NAME, &v), EvmERROR_NONE);
  EXPECT_STREQ(v.USER_NAME, "root");
  EXPECT_NE(static_cast<void*>(v.USER_NAME), static_cast<void*>(e_->head_p));
  EXPECT_EQ(EvmItemRelease(EvmITEM_USER_NAME, v), EvmERROR_NONE);
  v.NAME = nullptr;
  EXPECT_EQ(EvmItemRelease(EvmITEM_USER_NAME, v), EvmERROR_INVALID_ARGUMENT);
  EXPECT_EQ(EvmItemRelease(EvmITEM_PID, v), EvmERROR_NONE);
  EXPECT_EQ(EvmItemRelease(EvmITEM_NONE, v), EvmERROR_INVALID_ARGUMENT);
  EXPECT_EQ(EvmItemRelease(EvmITEM_VAR, v), EvmERROR_INVALID_ARGUMENT);
}

TEST_F(EvmItemTest, ListHoldsSetIdsInOrderAndEndsWithZero) {
  ASSERT_EQ(EvmEventCreateVa(&e_, 0), EvmERROR_NONE);
  EvmUint32_t count = 9;
  EvmItemList_t list = nullptr;
  ASSERT_EQ(EvmItemListGet(e_, &count, &list), EvmERROR_NONE);
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(list[0], EvmITEM_NONE);
  EvmItemListFree(list);
  ASSERT_EQ(EvmItemSetVa(e_, EvmITEM_REF, "r", EvmITEM_NAME, "n", EvmITEM_VAR_INT32, "v", 1, EvmITEM_PRIORITY, 1, 0),
            EvmERROR_NONE);
  ASSERT_EQ(EvmItemListGet(e_, nullptr, &list), EvmERROR_NONE);
  EXPECT_EQ(list[0], EvmITEM_NAME);
  EXPECT_EQ(list[1], EvmITEM_PRIORITY);
  EXPECT_EQ(list[2], EvmITEM_REF);
  EXPECT_EQ(list[3], EvmITEM_NONE);  // variables are not items of the list
  EXPECT_EQ(EvmItemListFree(list), EvmERROR_NONE);
  EXPECT_EQ(EvmItemListFree(nullptr), EvmERROR_INVALID_ARGUMENT);
}

TEST_F(EvmItemTest, AnyChangeDropsTheChecksumFlag) {
  ASSERT_EQ(EvmEventCreateVa(&e_, EvmITEM_NAME, "a", 0), EvmERROR_NONE);
  _evmInsertChecksum(e_->head_p);
  ASSERT_EQ(EvmItemSetVa(e_, EvmITEM_PRIORITY, 1, 0), EvmERROR_NONE);
  EXPECT_EQ(e_->head_p->flags & 0x20u, 0u);
}

TEST_F(EvmItemTest, EntryListSetsUntilTheFirstFailure) {
  ASSERT_EQ(EvmEventCreateVa(&e_, 0), EvmERROR_NONE);
  EvmItemEntry_t list[3];
  list[0].id = EvmITEM_PRIORITY;
  list[0].value.PID = 0;
  list[0].value.PRIORITY = 42;
  list[1].id = EvmITEM_UNUSED_1;
  list[1].value.PID = 0;
  list[2].id = EvmITEM_EVENT_ID;
  list[2].value.EVENT_ID = 7;
  EXPECT_EQ(EvmItemEntryListSet(e_, list, 3), EvmERROR_INVALID_ARGUMENT);
  EXPECT_EQ(e_->head_p->priority, 42);
  EXPECT_EQ(e_->head_p->fldPresBits, 1u << EvmITEM_PRIORITY);
  EXPECT_EQ(EvmItemEntryListSet(e_, list, 0), EvmERROR_NONE);
  EXPECT_EQ(EvmItemEntryListSet(e_, nullptr, 1), EvmERROR_INVALID_ARGUMENT);
  EvmEvent_t made = nullptr;
  ASSERT_EQ(EvmEventCreateFromList(&made, &list[2], 1), EvmERROR_NONE);
  EXPECT_EQ(made->head_p->eventId, 7u);
  EvmEventDestroy(made);
}

TEST_F(EvmItemTest, MergeAddsOnlyWhatTheEventLacks) {
  ASSERT_EQ(EvmEventCreateVa(&e_, EvmITEM_NAME, "mine", EvmITEM_VAR_INT32, "a", 1, 0), EvmERROR_NONE);
  EvmEvent_t tmpl = nullptr;
  ASSERT_EQ(EvmEventCreateVa(&tmpl, EvmITEM_NAME, "theirs", EvmITEM_PRIORITY, 200, EvmITEM_FORMAT, "fmt $a",
                             EvmITEM_VAR_INT32, "a", 2, EvmITEM_VAR_STRING, "b", "bee", 0),
            EvmERROR_NONE);
  _evmInsertChecksum(e_->head_p);
  ASSERT_EQ(_evmMerge(e_, tmpl), EvmERROR_NONE);
  EXPECT_EQ(name(), "mine");
  EXPECT_EQ(e_->head_p->priority, 200);
  EvmInt32_t a = 0;
  EXPECT_EQ(EvmVarGetInt32(e_, "a", &a), EvmERROR_NONE);
  EXPECT_EQ(a, 1);
  EvmString_t b = nullptr;
  ASSERT_EQ(EvmVarGetString(e_, "b", &b, nullptr), EvmERROR_NONE);
  EXPECT_STREQ(b, "bee");
  std::free(b);
  EXPECT_EQ(e_->head_p->control.size, 120u + (16 + 40) + 16 + 40);  // + format, + variable b
  EXPECT_EQ(e_->head_p->flags & 0x20u, 0u);
  EXPECT_EQ(EvmEventValidate(e_), EvmERROR_NONE);
  EvmEventDestroy(tmpl);
}

TEST_F(EvmItemTest, FirstEventsOfSeveralThreadsAtOnce) {
  // As in a fresh process whose threads all make their first event at the same moment.
  evmglob_Initialized = 0;
  std::atomic<int> made{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i)
    threads.emplace_back([&] {
      EvmEvent_t e = nullptr;
      if (EvmEventCreateVa(&e, EvmITEM_NAME, "sys.zel.test.first", 0) == EvmERROR_NONE) ++made;
      EvmEventDestroy(e);
    });
  for (auto& t : threads) t.join();
  EXPECT_EQ(made.load(), 4);
  EXPECT_EQ(evmglob_Initialized.load(), 1);
}
