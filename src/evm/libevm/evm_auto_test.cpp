// Automatic items and the local identity helpers.
#include "evm/libevm/evm_auto.h"

#include <gtest/gtest.h>
#include <arpa/inet.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "evm/libevm/evm.h"

namespace {
int s_lookups = 0;
const char* s_name = "tester";
const char* fakeUser() {
  ++s_lookups;
  return s_name;
}
}  // namespace

class EvmAutoTest : public ::testing::Test {
 protected:
  void SetUp() override {
    s_lookups = 0;
    s_name = "tester";
    _evmSetUserNameSource(fakeUser);
    ASSERT_EQ(EvmEventCreateVa(&e_, EvmITEM_NAME, "a.b", 0), EvmERROR_NONE);
  }
  void TearDown() override {
    _evmSetUserNameSource(nullptr);
    EvmEventDestroy(e_);
  }
  std::string hostsFile(const std::string& text) {
    std::string path = ::testing::TempDir() + "evm_hosts_" + std::to_string(getpid());
    FILE* f = std::fopen(path.c_str(), "w");
    std::fputs(text.c_str(), f);
    std::fclose(f);
    return path;
  }
  EvmEvent_t e_ = nullptr;
};

TEST_F(EvmAutoTest, DefaultSetIsTimeProcessIdsAndUser) {
  ASSERT_EQ(_EvmItemSetAuto(e_, 0), EvmERROR_NONE);
  EXPECT_EQ(e_->head_p->fldPresBits,
            (1u << EvmITEM_NAME) | (1u << 10) | (1u << 7) | (1u << 6) | (1u << EvmITEM_USER_NAME));
  EXPECT_EQ(e_->head_p->pid, getpid());
  EXPECT_EQ(e_->head_p->ppid, getppid());
  EXPECT_GT(e_->head_p->time, 1600000000u);
  EvmItemValue_t v;
  ASSERT_EQ(EvmItemGet(e_, EvmITEM_USER_NAME, &v), EvmERROR_NONE);
  EXPECT_STREQ(v.USER_NAME, "tester");
  EvmItemRelease(EvmITEM_USER_NAME, v);
}

TEST_F(EvmAutoTest, OverTcpTheHostIsAddedToo) {
  ASSERT_EQ(_EvmItemSetAutoWithCache(e_, 0, nullptr, EvmTRUE), EvmERROR_NONE);
  EXPECT_NE(e_->head_p->fldPresBits & (1u << EvmITEM_HOST_NAME), 0u);
  EXPECT_NE(e_->head_p->fldPresBits & (1u << EvmITEM_HOST_IP), 0u);
}

TEST_F(EvmAutoTest, UnknownUserIsLeftOut) {
  s_name = nullptr;
  ASSERT_EQ(_EvmItemSetAuto(e_, 0), EvmERROR_NONE);
  EXPECT_EQ(e_->head_p->fldPresBits & (1u << EvmITEM_USER_NAME), 0u);
  EXPECT_NE(e_->head_p->fldPresBits & (1u << EvmITEM_PID), 0u);
}

TEST_F(EvmAutoTest, MasksSelectItemsAndRefuseOthers) {
  EvmPresence_t before = e_->head_p->fldPresBits;
  EXPECT_EQ(_EvmItemSetAuto(e_, EvmItemMask_t{1} << EvmITEM_PRIORITY), EvmERROR_INVALID_ARGUMENT);
  EXPECT_EQ(_EvmItemSetAuto(e_, EvmItemMask_t{1} << EvmITEM_CLUSTER_NAME), EvmERROR_NONE);
  EXPECT_EQ(e_->head_p->fldPresBits, before);
  ASSERT_EQ(_EvmItemSetAuto(e_, (EvmItemMask_t{1} << EvmITEM_PPID) | (EvmItemMask_t{1} << EvmITEM_MEMBER_ID) |
                                    (EvmItemMask_t{1} << EvmITEM_CLUSTER_IP) |
                                    (EvmItemMask_t{1} << EvmITEM_CLUSTER_EVENT)),
            EvmERROR_NONE);
  EXPECT_EQ(e_->head_p->fldPresBits, before | (1u << 7) | (1u << 9) | (1u << 17) | (1u << 4));
  EXPECT_EQ(e_->head_p->ppid, getppid());
  EXPECT_EQ(e_->head_p->flags, 0u);
}

TEST_F(EvmAutoTest, CachedNameServesAnUnchangedUser) {
  EvmIdentityCache_t cache{};
  ASSERT_EQ(_EvmItemSetAutoWithCache(e_, 0, &cache, EvmFALSE), EvmERROR_NONE);
  ASSERT_EQ(_EvmItemSetAutoWithCache(e_, 0, &cache, EvmFALSE), EvmERROR_NONE);
  EXPECT_EQ(s_lookups, 1);
  cache.euid = geteuid() + 1;  // as if the process had changed its user since
  s_name = "other";
  ASSERT_EQ(_EvmItemSetAutoWithCache(e_, 0, &cache, EvmFALSE), EvmERROR_NONE);
  EXPECT_EQ(s_lookups, 2);
  EXPECT_STREQ(cache.userName, "other");
  _evmIdentityCacheFree(&cache);
}

TEST_F(EvmAutoTest, HostsFileMatchesNamesAndLocalDomain) {
  std::string path = hostsFile(
      "# 10.0.0.9 web\n"
      "#10.0.0.8 web.example.com\n"
      "127.0.0.1\tlocalhost\n"
      "10.1.2.3   web.example.com web\n"
      "10.1.2.4   db.other.org\n");
  EXPECT_EQ(_evmGetHostIpFrom(path.c_str(), "web.example.com", "me.example.com"), htonl(0x0a010203));
  EXPECT_EQ(_evmGetHostIpFrom(path.c_str(), "web", "me.example.com"), htonl(0x0a010203));
  EXPECT_EQ(_evmGetHostIpFrom(path.c_str(), "web", "me.elsewhere.net"), 0u);  // aliases are not read
  EXPECT_EQ(_evmGetHostIpFrom(path.c_str(), "db", ""), htonl(0x0a010204));
  EXPECT_EQ(_evmGetHostIpFrom(path.c_str(), "localhost", "me"), htonl(0x7f000001));
  EXPECT_EQ(_evmGetHostIpFrom("/nonexistent/hosts", "web", "me"), 0u);
  std::remove(path.c_str());
}

TEST_F(EvmAutoTest, IdentityHelpersNeverFailLoudly) {
  const char* host = _evmGetHostName();
  ASSERT_NE(host, nullptr);
  EXPECT_LE(std::string(host).size(), 64u);
  const char* user = _evmGetUserName();
  if (user != nullptr) {
    EXPECT_GT(std::string(user).size(), 0u);
    EXPECT_LE(std::string(user).size(), 12u);
  }
}

TEST_F(EvmAutoTest, ThreadsStampingAtOnceEachGetTheWholeIdentity) {
  _evmSetUserNameSource(nullptr);  // the real lookups, which several threads now run together
  const std::string host = _evmGetHostName();
  const char* user = _evmGetUserName();
  const std::string expectUser = user != nullptr ? user : "";
  std::vector<std::string> hosts(4), users(4);
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i)
    threads.emplace_back([&, i] {
      EvmEvent_t e = nullptr;
      EvmEventCreateVa(&e, EvmITEM_NAME, "a.b", 0);
      for (int round = 0; round < 20; ++round) _EvmItemSetAutoWithCache(e, 0, nullptr, EvmTRUE);
      EvmItemValue_t v;
      if (EvmItemGet(e, EvmITEM_HOST_NAME, &v) == EvmERROR_NONE) {
        hosts[i] = v.HOST_NAME;
        EvmItemRelease(EvmITEM_HOST_NAME, v);
      }
      if (EvmItemGet(e, EvmITEM_USER_NAME, &v) == EvmERROR_NONE) {
        users[i] = v.USER_NAME;
        EvmItemRelease(EvmITEM_USER_NAME, v);
      }
      EvmEventDestroy(e);
    });
  for (auto& t : threads) t.join();
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(hosts[i], host);
    EXPECT_EQ(users[i], expectUser);
  }
}
