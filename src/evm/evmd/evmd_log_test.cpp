// The event log: failed writes and syncs fail their batch, a log that is no plain file is
// refused, and damage at open costs only the damaged bytes.
#include "evm/evmd/evmd_log.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "evm/evmd/evmd_test_util.h"

namespace {

using evmdtest::Bytes;

class EventLogTest : public ::testing::Test {
 protected:
  std::string log() const { return dir_.path() + "/evm/events.log"; }
  // A log of `n` events named e0, e1, ..., as a file, and where each block starts.
  std::vector<std::size_t> writeEvents(int n) {
    std::string all;
    std::vector<std::size_t> at;
    for (int i = 0; i < n; ++i) {
      Bytes b = evmdtest::block("sys.zel.test.e" + std::to_string(i));
      at.push_back(all.size());
      all.append(b.begin(), b.end());
    }
    std::filesystem::create_directories(dir_.path() + "/evm");
    evmdtest::spit(log(), all);
    return at;
  }
  evmdtest::ScratchDir dir_;
  evmdtest::FailingIo io_;
};

TEST_F(EventLogTest, AFailedWriteOrSyncFailsTheBatchAndLeavesNoneOfItInTheFile) {
  Bytes a = evmdtest::block("sys.zel.test.a");
  {
    evmd::EventLog l(log(), evmd::SyncPolicy::EveryBatch, 200, io_);
    l.add(a.data(), a.size());
    l.commit();
    std::string before = evmdtest::slurp(log());

    io_.failWrites = true;
    l.add(a.data(), a.size());
    EXPECT_THROW(l.commit(), evmd::LogError);
    EXPECT_EQ(evmdtest::slurp(log()), before);

    io_.failWrites = false;
    io_.failSyncs = true;
    l.add(a.data(), a.size());
    EXPECT_THROW(l.commit(), evmd::LogError);
    EXPECT_EQ(evmdtest::slurp(log()), before) << "a batch whose sync failed stays in the file";

    io_.failSyncs = false;
    l.add(a.data(), a.size());
    l.commit();
    EXPECT_EQ(l.events(), 2u);
  }
  EXPECT_EQ(evmdtest::names(log()), (std::vector<std::string>{"sys.zel.test.a", "sys.zel.test.a"}));
}

TEST_F(EventLogTest, UnderIntervalSyncsTheDueSyncFailsItsBatchAndAPlainSyncReportsFailure) {
  Bytes a = evmdtest::block("sys.zel.test.a");
  evmd::EventLog l(log(), evmd::SyncPolicy::Interval, 0, io_);
  io_.failSyncs = true;
  l.add(a.data(), a.size());
  EXPECT_THROW(l.commit(), evmd::LogError);
  EXPECT_EQ(evmdtest::slurp(log()), "");
  io_.failSyncs = false;
  evmd::EventLog later(dir_.path() + "/other.log", evmd::SyncPolicy::Interval, 60000, io_);
  later.add(a.data(), a.size());
  later.commit();  // not due: written, not synced
  io_.failSyncs = true;
  EXPECT_THROW(later.sync(), evmd::LogError);
  io_.failSyncs = false;
  EXPECT_NO_THROW(later.sync());
}

TEST_F(EventLogTest, ASymlinkOrAnythingButAPlainFileIsRefused) {
  std::filesystem::create_directories(dir_.path() + "/evm");
  std::string target = dir_.path() + "/precious";
  evmdtest::spit(target, "keep me");
  ASSERT_EQ(symlink(target.c_str(), log().c_str()), 0);
  EXPECT_THROW(evmd::EventLog(log(), evmd::SyncPolicy::Interval, 200), evmd::LogError);
  EXPECT_EQ(evmdtest::slurp(target), "keep me");
  unlink(log().c_str());
  ASSERT_EQ(mkfifo(log().c_str(), 0600), 0);
  EXPECT_THROW(evmd::EventLog(log(), evmd::SyncPolicy::Interval, 200), evmd::LogError);
  unlink(log().c_str());
  ASSERT_EQ(mkdir(log().c_str(), 0700), 0);
  EXPECT_THROW(evmd::EventLog(log(), evmd::SyncPolicy::Interval, 200), evmd::LogError);
}

TEST_F(EventLogTest, DamageInTheMiddleCostsOnlyTheDamagedBlockAndIsSavedBeside) {
  auto at = writeEvents(300);
  std::string original = evmdtest::slurp(log());
  // A bad size word in block 100's head, and a flipped byte in block 200's body.
  std::string bad = original;
  bad[at[100] + EVM_OFF_CONTROL_SIZE] ^= 0x55;
  bad[at[200] + 130] ^= 0x01;
  evmdtest::spit(log(), bad);
  {
    evmd::EventLog l(log(), evmd::SyncPolicy::Interval, 200);
    EXPECT_EQ(l.events(), 298u);
    EXPECT_EQ(l.removedBytes(), (at[101] - at[100]) + (at[201] - at[200]));
    ASSERT_EQ(l.damagedFiles().size(), 2u);
    EXPECT_EQ(evmdtest::slurp(l.damagedFiles()[0]), bad.substr(at[100], at[101] - at[100]));
    EXPECT_EQ(evmdtest::slurp(l.damagedFiles()[1]), bad.substr(at[200], at[201] - at[200]));
    EXPECT_EQ(l.damagedFiles()[0], log() + ".damaged.1");
    Bytes z = evmdtest::block("sys.zel.test.after");
    l.add(z.data(), z.size());
    l.commit();
  }
  auto n = evmdtest::names(log());
  ASSERT_EQ(n.size(), 299u);
  EXPECT_EQ(n[99], "sys.zel.test.e99");
  EXPECT_EQ(n[100], "sys.zel.test.e101");
  EXPECT_EQ(n[198], "sys.zel.test.e199");
  EXPECT_EQ(n[199], "sys.zel.test.e201");
  EXPECT_EQ(n[297], "sys.zel.test.e299");
  EXPECT_EQ(n[298], "sys.zel.test.after");
  // A second repair numbers its file after the first ones.
  std::string again = evmdtest::slurp(log());
  again += "torn";
  evmdtest::spit(log(), again);
  evmd::EventLog l(log(), evmd::SyncPolicy::Interval, 200);
  ASSERT_EQ(l.damagedFiles().size(), 1u);
  EXPECT_EQ(l.damagedFiles()[0], log() + ".damaged.3");
  EXPECT_EQ(evmdtest::slurp(l.damagedFiles()[0]), "torn");
  EXPECT_EQ(l.events(), 299u);
}

TEST_F(EventLogTest, ATornEndIsSavedAndCutAndAWholeLogIsLeftAlone) {
  auto at = writeEvents(3);
  std::string whole = evmdtest::slurp(log());
  {
    evmd::EventLog l(log(), evmd::SyncPolicy::Interval, 200);
    EXPECT_EQ(l.events(), 3u);
    EXPECT_EQ(l.removedBytes(), 0u);
  }
  EXPECT_EQ(evmdtest::slurp(log()), whole);
  evmdtest::spit(log(), whole.substr(0, at[2] + 60));
  evmd::EventLog l(log(), evmd::SyncPolicy::Interval, 200);
  EXPECT_EQ(l.events(), 2u);
  EXPECT_EQ(evmdtest::slurp(log()), whole.substr(0, at[2]));
  EXPECT_EQ(evmdtest::slurp(log() + ".damaged.1"), whole.substr(at[2], 60));
}

}  // namespace
