// The lock of one profile: exclusive across processes, gone when let go, and not to be fooled by
// what another user may put in its place.
#include "caa/ui/res/caa_proflock.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>

namespace CAA {
namespace {

class ProfileLockTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/vyn_lock_test.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }
  int entries() {
    int n = 0;
    for (auto& e : std::filesystem::directory_iterator(dir_)) (void)e, ++n;
    return n;
  }
  std::string dir_;
};

TEST_F(ProfileLockTest, ASecondHolderWaitsAndTheFileGoesWithTheLastHolder) {
  std::string path = ProfileLock::lockPath(dir_, "r");
  EXPECT_EQ(path, dir_ + "/.r.cap.lock");
  {
    ProfileLock first(dir_, "r");
    EXPECT_TRUE(std::filesystem::exists(path));
    auto start = std::chrono::steady_clock::now();
    EXPECT_THROW(ProfileLock(dir_, "r", 100), X_LOCK_Busy);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(100));
    ProfileLock other(dir_, "s", 100);  // another profile is another lock
  }
  EXPECT_EQ(entries(), 0);
  ProfileLock again(dir_, "r", 100);
}

TEST_F(ProfileLockTest, ProcessesTakeTurnsOverAReadModifyWrite) {
  std::string counter = dir_ + "/counter";
  std::ofstream(counter) << 0;
  const int kProcs = 4, kRounds = 40;
  for (int p = 0; p < kProcs; ++p) {
    if (fork() != 0) continue;
    for (int i = 0; i < kRounds; ++i) {
      ProfileLock lock(dir_, "r");
      int n = 0;
      std::ifstream(counter) >> n;
      usleep(200);
      std::ofstream(counter) << n + 1;
    }
    _exit(0);
  }
  for (int p = 0; p < kProcs; ++p) {
    int status = 0;
    wait(&status);
    EXPECT_EQ(status, 0);
  }
  int n = 0;
  std::ifstream(counter) >> n;
  EXPECT_EQ(n, kProcs * kRounds);
  EXPECT_EQ(entries(), 1) << "only the counter stays";
}

TEST_F(ProfileLockTest, WhatAnotherUserPutsInPlaceOfTheLockIsRefusedNotUsed) {
  std::string path = ProfileLock::lockPath(dir_, "r");
  std::string victim = dir_ + "/victim";
  std::ofstream(victim) << "keep";

  ASSERT_EQ(symlink(victim.c_str(), path.c_str()), 0);
  EXPECT_THROW(ProfileLock(dir_, "r", 100), X_LOCK);
  EXPECT_TRUE(std::filesystem::is_symlink(path));
  std::filesystem::remove(path);

  ASSERT_EQ(link(victim.c_str(), path.c_str()), 0);
  EXPECT_THROW(ProfileLock(dir_, "r", 100), X_LOCK);
  std::filesystem::remove(path);

  ASSERT_EQ(mkfifo(path.c_str(), 0666), 0);
  auto start = std::chrono::steady_clock::now();
  EXPECT_THROW(ProfileLock(dir_, "r", 100), X_LOCK);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5)) << "a FIFO is not waited on";
  std::filesystem::remove(path);

  std::ifstream in(victim);
  std::string text;
  in >> text;
  EXPECT_EQ(text, "keep");
}

TEST_F(ProfileLockTest, StaleLockFilesAreRemovedAndHeldOnesKept) {
  std::ofstream(ProfileLock::lockPath(dir_, "dead"));  // its holder was killed
  std::string outside = dir_ + "/outside";
  std::ofstream(outside) << "keep";
  ASSERT_EQ(symlink(outside.c_str(), ProfileLock::lockPath(dir_, "link").c_str()), 0);
  ProfileLock held(dir_, "held");
  EXPECT_EQ(ProfileLock::removeStale(dir_), 1);
  EXPECT_FALSE(std::filesystem::exists(ProfileLock::lockPath(dir_, "dead")));
  EXPECT_TRUE(std::filesystem::exists(held.path()));
  EXPECT_TRUE(std::filesystem::is_symlink(ProfileLock::lockPath(dir_, "link")));
  EXPECT_TRUE(std::filesystem::exists(outside));
}

}  // namespace
}  // namespace CAA
