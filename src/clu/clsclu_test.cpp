// Tests of the membership client's lower layer over real registry stores.
#include "clu/clsclu.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "platform/gmx/gmx_backend.h"
#include "platform/registry/prvrg.h"

namespace fs = std::filesystem;

namespace {

void* testMalloc(void* mmctx, std::size_t size) {
  ++*static_cast<std::atomic<int>*>(mmctx);
  return std::malloc(size);
}
void testFree(void* mmctx, void* p) {
  --*static_cast<std::atomic<int>*>(mmctx);
  std::free(p);
}

class ClscluTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/clsclu_test.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    setenv("VYN_REGISTRY", (dir_ + "/reg.db").c_str(), 1);
    setenv("VYN_NODE_NAME", "beta", 1);
    setenv("GMX_CLUSTERNAME", "c", 1);
    char err[1024];
    std::size_t len = sizeof err;
    ASSERT_EQ(prvrg_init_ext(&reg_, PRVRG_LEVEL_DEFAULT, err, &len, PRVRG_FLAG_CREATE), PRVRG_SUCC) << err;
    set("SYSTEM.gmx.node.1", "alpha");
    set("SYSTEM.gmx.node.2", "Beta.example.com");
    set("SYSTEM.gmx.node.5", "gamma");
    beat(2);
  }
  void TearDown() override {
    EXPECT_EQ(clsclu_term(ctx_), clscluretSUCC);
    EXPECT_EQ(allocated_.load(), 0) << "blocks not released";
    prvrg_terminate(reg_);
    unsetenv("VYN_REGISTRY");
    unsetenv("VYN_NODE_NAME");
    unsetenv("GMX_CLUSTERNAME");
    fs::remove_all(dir_);
  }

  void set(const std::string& key, const std::string& value) {
    ASSERT_EQ(prvrg_create_n_set_key(reg_, nullptr, key.c_str(), nullptr, nullptr, prvrg_dtype_ZELTEXT, value.c_str(),
                                     value.size() + 1, prvrg_security{}),
              PRVRG_SUCC);
  }
  void beat(int node) {
    set("SYSTEM.gmx.group.c_NG." + std::to_string(node), std::to_string(gmx::wallClockMs()) + " 60000 1");
  }
  clscluctx* init() {
    clsclucb cb = {&allocated_, testMalloc, testFree};
    EXPECT_EQ(clsclu_init(&ctx_, nullptr, &cb), clscluretSUCC);
    return ctx_;
  }
  // What the service tells after its snapshot of the registry has aged.
  void letTheSnapshotAge() { std::this_thread::sleep_for(std::chrono::milliseconds(GMX_SNAPSHOT_MS + 20)); }

  std::string dir_;
  prvrg_ctx* reg_ = nullptr;
  clscluctx* ctx_ = nullptr;
  std::atomic<int> allocated_{0};
};

TEST_F(ClscluTest, EveryEntryRefusesANullOrForeignContext) {
  clscluctx foreign;
  std::memset(&foreign, 0, sizeof foreign);
  int id = 0;
  clu_gen_info* info = nullptr;
  for (clscluctx* bad : {static_cast<clscluctx*>(nullptr), &foreign}) {
    EXPECT_EQ(clsclu_info(bad, CLU_INFO_MY_ID, &id), clscluretFAIL);
    EXPECT_EQ(clsclu_get_info(bad, &info), clscluretFAIL);
    EXPECT_EQ(clsclu_free_info(bad, &info), clscluretFAIL);
  }
  EXPECT_EQ(clsclu_term(&foreign), clscluretFAIL);
  EXPECT_EQ(clsclu_term(nullptr), clscluretSUCC);
  clscluctx* out = &foreign;
  EXPECT_EQ(clsclu_init(&out, nullptr, nullptr), clscluretFAIL);
  EXPECT_EQ(out, nullptr);
}

TEST_F(ClscluTest, AContextKnowsTheClusterAndAnswersEveryRequest) {
  clscluctx* c = init();
  ASSERT_NE(c, nullptr);
  EXPECT_EQ(std::memcmp(&c->majik_clscluctx, "cUlC", 4), 0);
  EXPECT_EQ(c->flags_clscluctx, static_cast<std::uint32_t>(CLSCLU_OWN_GMXCTX | CLSCLU_HAS_MUTEX));
  EXPECT_EQ(c->trclvl_clscluctx, 3);
  EXPECT_STREQ(c->cgname_clscluctx, "c_NG");
  EXPECT_EQ(c->cfnodes_clscluctx, 3u);

  int id = -5;
  ASSERT_EQ(clsclu_info(c, CLU_INFO_MY_ID, &id), clscluretSUCC);
  EXPECT_EQ(id, 2);
  ASSERT_EQ(clsclu_info(c, CLU_INFO_MEMBERID_BY_NAME, "GAMMA.x", &id), clscluretSUCC);
  EXPECT_EQ(id, 5);
  EXPECT_EQ(clsclu_info(c, CLU_INFO_MEMBERID_BY_NAME, "delta", &id), clscluretFAIL);

  clu_limits limits{};
  ASSERT_EQ(clsclu_info(c, CLU_INFO_LIMITS, &limits), clscluretSUCC);
  EXPECT_EQ(limits.min_membid, 0);
  EXPECT_EQ(limits.max_sup_memb, GMX_MAX_NODES);
  EXPECT_EQ(limits.max_membid, GMX_MAX_NODES - 1);

  // The buffer is cleared, and only the group's members below its size are marked.
  char state[4];
  std::memset(state, 7, sizeof state);
  ASSERT_EQ(clsclu_info(c, CLU_INFO_MEMBSTATE, 4, state), clscluretSUCC);
  EXPECT_EQ(std::string(state, 4), std::string("\0\0\1\0", 4));

  char name[32];
  ASSERT_EQ(clsclu_info(c, CLU_INFO_CLU_NAME, name, 2), clscluretSUCC);
  EXPECT_STREQ(name, "c");
  EXPECT_EQ(clsclu_info(c, CLU_INFO_CLU_NAME, name, 1), clscluretFAIL);
  ASSERT_EQ(clsclu_info(c, CLU_INFO_NODENAME_BY_ID, 2, name, static_cast<int>(sizeof name)), clscluretSUCC);
  EXPECT_STREQ(name, "Beta.example.com");
  EXPECT_EQ(clsclu_info(c, CLU_INFO_NODENAME_BY_ID, 3, name, static_cast<int>(sizeof name)), clscluretFAIL);
  EXPECT_STREQ(name, "");

  // The interconnect request belongs to the upper layer only.
  EXPECT_EQ(clsclu_info(c, CLU_INFO_INTERCONNECT, "alpha", name, static_cast<int>(sizeof name)), clscluretFAIL);
  EXPECT_EQ(clsclu_info(c, 99), clscluretFAIL);
}

TEST_F(ClscluTest, AClusterNameLongerThanAHundredIsAskedForAgain) {
  std::string longName(150, 'x');
  setenv("GMX_CLUSTERNAME", longName.c_str(), 1);
  clscluctx* c = init();
  ASSERT_NE(c, nullptr);
  EXPECT_EQ(c->clnmlen_clscluctx, 150u);
  EXPECT_EQ(std::string(c->cgname_clscluctx), longName + "_NG");
  std::string buf(200, '\0');
  ASSERT_EQ(clsclu_info(c, CLU_INFO_CLU_NAME, &buf[0], 200), clscluretSUCC);
  EXPECT_EQ(std::string(buf.c_str()), longName);
  EXPECT_EQ(clsclu_info(c, CLU_INFO_CLU_NAME, &buf[0], 150), clscluretFAIL);
}

TEST_F(ClscluTest, TheMemberListIsAnUpToDateCopy) {
  clscluctx* c = init();
  ASSERT_NE(c, nullptr);
  clu_gen_info* first = nullptr;
  ASSERT_EQ(clsclu_get_info(c, &first), clscluretSUCC);
  ASSERT_EQ(first->clu_num_of_members, 3);
  EXPECT_EQ(first->my_memberid, 2);
  EXPECT_STREQ(first->clu_name, "c");
  EXPECT_EQ(first->memblist[0].memberid, 1);
  EXPECT_STREQ(first->memblist[0].hostname, "alpha");
  EXPECT_EQ(first->memblist[0].state, 0);  // configured, not in the group
  EXPECT_EQ(first->memblist[1].memberid, 2);
  EXPECT_STREQ(first->memblist[1].hostname, "Beta.example.com");
  EXPECT_EQ(first->memblist[1].state, 1);
  EXPECT_EQ(first->memblist[2].memberid, 5);
  EXPECT_EQ(first->memblist[2].state, 0);

  // A node joins the group, another leaves the configuration, and one is added.
  beat(1);
  beat(7);  // in the group but not configured: not in the list
  prvrg_key* k = nullptr;
  ASSERT_EQ(prvrg_open_key(reg_, &k, "SYSTEM.gmx.node.5"), PRVRG_SUCC);
  ASSERT_EQ(prvrg_delete_key(reg_, k, 1), PRVRG_SUCC);
  prvrg_close_key(reg_, k);
  set("SYSTEM.gmx.node.9", "delta");
  letTheSnapshotAge();
  clu_gen_info* second = nullptr;
  ASSERT_EQ(clsclu_get_info(c, &second), clscluretSUCC);
  ASSERT_EQ(second->clu_num_of_members, 3);
  EXPECT_EQ(second->memblist[0].state, 1);
  EXPECT_EQ(second->memblist[2].memberid, 9);
  EXPECT_STREQ(second->memblist[2].hostname, "delta");
  EXPECT_EQ(second->memblist[2].state, 0);
  // The earlier copy is as it was.
  EXPECT_EQ(first->memblist[0].state, 0);
  EXPECT_STREQ(first->memblist[2].hostname, "gamma");

  EXPECT_EQ(clsclu_free_info(c, &first), clscluretSUCC);
  EXPECT_EQ(first, nullptr);
  EXPECT_EQ(clsclu_free_info(c, &first), clscluretSUCC);  // a null copy
  EXPECT_EQ(clsclu_free_info(c, &second), clscluretSUCC);
}

TEST_F(ClscluTest, AMissingStoreEndsTheContextCleanly) {
  setenv("VYN_REGISTRY", (dir_ + "/none.db").c_str(), 1);
  clsclucb cb = {&allocated_, testMalloc, testFree};
  ctx_ = reinterpret_cast<clscluctx*>(1);
  EXPECT_EQ(clsclu_init(&ctx_, nullptr, &cb), clscluretFAIL);
  EXPECT_EQ(ctx_, nullptr);
}

TEST_F(ClscluTest, AGivenServiceContextIsUsedAndLeftToItsOwner) {
  gmxsctx* g = nullptr;
  ASSERT_EQ(gmxsinit(&g, nullptr, nullptr), GMX_SUCC);
  clsclucb cb = {&allocated_, testMalloc, testFree};
  ASSERT_EQ(clsclu_init(&ctx_, g, &cb), clscluretSUCC);
  EXPECT_EQ(ctx_->gmxctx_clscluctx, g);
  EXPECT_EQ(ctx_->flags_clscluctx, static_cast<std::uint32_t>(CLSCLU_HAS_MUTEX));
  EXPECT_EQ(clsclu_term(ctx_), clscluretSUCC);
  ctx_ = nullptr;
  gmxnode me = 0;
  EXPECT_EQ(gmxnsqlnum(g, &me), GMX_SUCC);  // still alive
  gmxsterm(g);
}

TEST_F(ClscluTest, ThreadsShareAContext) {
  clscluctx* c = init();
  ASSERT_NE(c, nullptr);
  std::vector<std::thread> threads;
  std::atomic<int> failures{0};
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([c, &failures] {
      for (int i = 0; i < 100; ++i) {
        clu_gen_info* info = nullptr;
        char state[8];
        int id = 0;
        if (clsclu_get_info(c, &info) != clscluretSUCC || info->clu_num_of_members != 3 ||
            clsclu_free_info(c, &info) != clscluretSUCC || clsclu_info(c, CLU_INFO_MEMBSTATE, 8, state) != clscluretSUCC ||
            state[2] != 1 || clsclu_info(c, CLU_INFO_MEMBERID_BY_NAME, "gamma", &id) != clscluretSUCC || id != 5)
          ++failures;
      }
    });
  for (auto& th : threads) th.join();
  EXPECT_EQ(failures.load(), 0);
}

}  // namespace
