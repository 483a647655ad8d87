// The event log: failed writes and syncs fail what they were to cover, commits are held for the
// posters the last sync answered and share one sync, rotation keeps every event whole and in order, a log that is no plain file
// is refused, and damage at open costs only the damaged bytes.
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
  // The outcomes the log reports, as "mark:ok " or "mark:FAIL ".
  static std::string outcomes(evmd::EventLog& l) {
    std::string s;
    for (const auto& o : l.takeOutcomes()) s += std::to_string(o.through) + (o.ok ? ":ok " : ":FAIL ");
    return s;
  }
  evmdtest::ScratchDir dir_;
  evmdtest::FailingIo io_;
};

TEST_F(EventLogTest, AFailedWriteOrSyncFailsEverythingItWasToCoverAndLeavesTheFileAsItWas) {
  Bytes a = evmdtest::block("sys.zel.test.a");
  {
    evmd::EventLog l(log(), evmd::SyncPolicy::Group, 200, io_);
    l.add(a.data(), a.size());
    EXPECT_EQ(l.commit(), 1u);
    l.sync();
    EXPECT_EQ(outcomes(l), "1:ok ");
    std::string before = evmdtest::events(log());

    io_.failWrites = true;
    l.add(a.data(), a.size());
    EXPECT_EQ(l.commit(), 2u);
    l.sync();
    EXPECT_EQ(outcomes(l), "2:FAIL ");
    EXPECT_EQ(evmdtest::events(log()), before);

    io_.failWrites = false;
    io_.failSyncs = true;
    l.add(a.data(), a.size());
    l.commit();
    l.add(a.data(), a.size());
    l.commit();
    l.sync();
    EXPECT_EQ(outcomes(l), "4:FAIL ") << "one failed sync fails both rounds it was to cover";
    EXPECT_EQ(evmdtest::events(log()), before) << "writes whose sync failed stay in the file";

    io_.failSyncs = false;
    l.add(a.data(), a.size());
    EXPECT_EQ(l.commit(), 5u);
    l.sync();
    EXPECT_EQ(outcomes(l), "5:ok ");
    EXPECT_EQ(l.events(), 2u);
  }
  EXPECT_EQ(evmdtest::names(log()), (std::vector<std::string>{"sys.zel.test.a", "sys.zel.test.a"}));
}

TEST_F(EventLogTest, CommitsAreHeldForThePostersTheLastSyncAnsweredAndShareOneSync) {
  evmd::EventLog l(log(), evmd::SyncPolicy::Group, 200, io_);
  auto round = [&](int events) {
    for (int i = 0; i < events; ++i) {
      Bytes b = evmdtest::block("sys.zel.test.r" + std::to_string(i));
      l.add(b.data(), b.size());
    }
    l.commit();
    l.syncIfDue();
  };
  EXPECT_EQ(l.usUntilSyncDue(), -1) << "nothing waits";
  round(3);
  EXPECT_EQ(outcomes(l), "1:ok ") << "a first sync is not held";
  EXPECT_EQ(io_.syncs.load(), 1);

  // The three it answered come back one round at a time.
  round(1);
  EXPECT_EQ(outcomes(l), "");
  long long left = l.usUntilSyncDue();
  EXPECT_GT(left, 0);
  EXPECT_LE(left, 2000) << "a sync is held at most 2 ms";
  EXPECT_EQ(evmdtest::names(log()).size(), 3u) << "held events reached the file before their sync";
  round(2);
  EXPECT_EQ(outcomes(l), "3:ok ") << "the sync is due once as many wait as the last one covered";
  EXPECT_EQ(io_.syncs.load(), 2);
  EXPECT_EQ(evmdtest::names(log()).size(), 6u);

  // Fewer come back: the sync goes when the hold ends.
  round(1);
  EXPECT_EQ(outcomes(l), "");
  while ((left = l.usUntilSyncDue()) > 0) usleep(static_cast<useconds_t>(left));
  EXPECT_EQ(left, 0);
  l.syncIfDue();
  EXPECT_EQ(outcomes(l), "4:ok ");
  EXPECT_EQ(l.syncs(), 3u);
  EXPECT_EQ(l.syncedEvents(), 7u);
}

TEST_F(EventLogTest, RotationKeepsEveryEventWholeAndInOrderAcrossTheFiles) {
  Bytes one = evmdtest::block("sys.zel.test.e00");
  evmd::LogLimits limits;
  limits.maxBytes = 4 * one.size();
  limits.keep = 100;
  {
    evmd::EventLog l(log(), evmd::SyncPolicy::Group, 200, io_, limits);
    for (int i = 0; i < 30; i += 3) {
      // Three events in one commit: they land together in one file.
      for (int k = i; k < i + 3; ++k) {
        Bytes b = evmdtest::block("sys.zel.test.e" + std::string(k < 10 ? "0" : "") + std::to_string(k));
        l.add(b.data(), b.size());
      }
      l.commit();
      l.sync();
    }
  }
  std::vector<std::string> all;
  std::vector<std::string> files;
  for (int n = 20; n >= 1; --n)
    if (access((log() + "." + std::to_string(n)).c_str(), F_OK) == 0) files.push_back(log() + "." + std::to_string(n));
  files.push_back(log());
  EXPECT_EQ(files.size(), 10u);
  for (const auto& f : files) {
    auto n = evmdtest::names(f);
    EXPECT_EQ(n.size(), 3u) << f;
    EXPECT_EQ(evmdtest::slurp(f).size(), 3 * one.size()) << f << " holds bytes that are no whole event";
    all.insert(all.end(), n.begin(), n.end());
  }
  ASSERT_EQ(all.size(), 30u);
  for (int k = 0; k < 30; ++k)
    EXPECT_EQ(all[k], "sys.zel.test.e" + std::string(k < 10 ? "0" : "") + std::to_string(k));
}

TEST_F(EventLogTest, RotationDropsTheOldestBeyondTheKeptCount) {
  Bytes b = evmdtest::block("sys.zel.test.x");
  evmd::LogLimits limits;
  limits.maxBytes = b.size();
  limits.keep = 2;
  evmd::EventLog l(log(), evmd::SyncPolicy::Interval, 200, io_, limits);
  for (int i = 0; i < 6; ++i) {
    Bytes e = evmdtest::block("sys.zel.test.r" + std::to_string(i));
    l.add(e.data(), e.size());
    l.commit();
  }
  EXPECT_EQ(evmdtest::names(log() + ".2"), std::vector<std::string>{"sys.zel.test.r3"});
  EXPECT_EQ(evmdtest::names(log() + ".1"), std::vector<std::string>{"sys.zel.test.r4"});
  EXPECT_EQ(evmdtest::names(log()), std::vector<std::string>{"sys.zel.test.r5"});
  EXPECT_NE(access((log() + ".3").c_str(), F_OK), 0);
  EXPECT_NE(access((log() + ".new").c_str(), F_OK), 0);
}

TEST_F(EventLogTest, ARotationThatCannotMakeTheNewLogFailsItsBatchAndMovesNothing) {
  Bytes a = evmdtest::block("sys.zel.test.a");
  evmd::LogLimits limits;
  limits.maxBytes = a.size();
  evmd::EventLog l(log(), evmd::SyncPolicy::Group, 200, io_, limits);
  l.add(a.data(), a.size());
  l.commit();
  l.sync();
  std::string before = evmdtest::events(log());
  // Something in the way of the new log's name.
  ASSERT_EQ(mkdir((log() + ".new").c_str(), 0700), 0);
  l.add(a.data(), a.size());
  l.commit();
  l.sync();
  std::vector<evmd::EventLog::Outcome> o = l.takeOutcomes();
  ASSERT_EQ(o.size(), 2u);
  EXPECT_FALSE(o[1].ok);
  EXPECT_NE(o[1].why.find(log() + ".new"), std::string::npos) << o[1].why;
  EXPECT_EQ(evmdtest::events(log()), before);
  EXPECT_NE(access((log() + ".1").c_str(), F_OK), 0);
  ASSERT_EQ(rmdir((log() + ".new").c_str()), 0);
  Bytes b = evmdtest::block("sys.zel.test.b");
  l.add(b.data(), b.size());
  l.commit();
  l.sync();
  EXPECT_EQ(evmdtest::names(log() + ".1"), std::vector<std::string>{"sys.zel.test.a"});
  EXPECT_EQ(evmdtest::names(log()), std::vector<std::string>{"sys.zel.test.b"});
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

TEST_F(EventLogTest, EventsAreWrittenOverZerosMadeAheadWhichAreCutAtCloseAndAtOpenAfterACrash) {
  Bytes a = evmdtest::block("sys.zel.test.a");
  std::string live;
  {
    evmd::EventLog l(log(), evmd::SyncPolicy::Group, 200, io_);
    for (int i = 0; i < 3; ++i) {
      l.add(a.data(), a.size());
      l.commit();
      l.sync();
    }
    live = evmdtest::slurp(log());
    ASSERT_GT(live.size(), 3 * a.size()) << "no space was made ahead";
    EXPECT_EQ(live.find_first_not_of('\0', 3 * a.size()), std::string::npos) << "the space ahead is not zeros";
    EXPECT_EQ(evmdtest::names(log()).size(), 3u) << "a reader does not stop at the zeros";
  }
  EXPECT_EQ(evmdtest::slurp(log()), live.substr(0, 3 * a.size())) << "the zeros outlived the close";

  // A daemon that died left its zeros, and a write torn inside them.
  const std::string torn("\x90\0\0\0\x01\0\0\0torn end", 16);
  evmdtest::spit(log(), live.substr(0, 3 * a.size()) + torn + std::string(4096, '\0'));
  {
    evmd::EventLog l(log(), evmd::SyncPolicy::Group, 200, io_);
    EXPECT_EQ(l.events(), 3u);
    ASSERT_EQ(l.damagedFiles().size(), 1u);
    EXPECT_EQ(evmdtest::slurp(l.damagedFiles()[0]), torn) << "the zeros were saved as damage";
    EXPECT_EQ(evmdtest::slurp(log()), live.substr(0, 3 * a.size()));
  }
  // Only zeros: cut without a word.
  evmdtest::spit(log(), live);
  evmd::EventLog l(log(), evmd::SyncPolicy::Group, 200, io_);
  EXPECT_EQ(l.events(), 3u);
  EXPECT_EQ(l.removedBytes(), 0u);
  EXPECT_EQ(evmdtest::slurp(log()), live.substr(0, 3 * a.size()));
}

TEST_F(EventLogTest, OnAFullDiskTheLogAppendsWithoutSpaceAheadUntilNothingFits) {
  Bytes a = evmdtest::block("sys.zel.test.a");
  io_.diskFull = static_cast<off_t>(5 * a.size() + 100);
  {
    evmd::EventLog l(log(), evmd::SyncPolicy::Group, 200, io_);
    for (int i = 0; i < 5; ++i) {
      l.add(a.data(), a.size());
      l.commit();
      l.sync();
      EXPECT_EQ(outcomes(l), std::to_string(i + 1) + ":ok ") << "event " << i;
    }
    EXPECT_EQ(evmdtest::slurp(log()).size(), 5 * a.size()) << "zeros that failed to fit were left";
    l.add(a.data(), a.size());
    l.commit();
    l.sync();
    EXPECT_EQ(outcomes(l), "6:FAIL ");
  }
  EXPECT_EQ(evmdtest::names(log()).size(), 5u);
  EXPECT_EQ(evmdtest::slurp(log()).size(), 5 * a.size());
}

}  // namespace
