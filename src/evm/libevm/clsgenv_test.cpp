#include "evm/libevm/clsgenv.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "platform/envs/envs.h"
#include "platform/registry/prvrg.h"

namespace {

// The cache lives as long as the process, so each case that depends on a first answer runs in
// a child process of its own.
class ClsgenvTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/clsgenv_test.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    setenv("VYN_REGISTRY", (dir_ + "/reg.db").c_str(), 1);
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  void putKey(const char* name, const char* value) {
    prvrg_ctx* ctx = nullptr;
    char err[1024];
    std::size_t len = sizeof err;
    ASSERT_EQ(prvrg_init_ext(&ctx, PRVRG_LEVEL_DEFAULT, err, &len, PRVRG_FLAG_CREATE), 0) << err;
    prvrg_security sec{};
    prvrg_key* key = nullptr;
    int created = 0;
    ASSERT_EQ(prvrg_create_n_set_key(ctx, nullptr, name, &key, &created, prvrg_dtype_ZELTEXT, value,
                                     std::strlen(value) + 1, sec),
              0);
    prvrg_close_key(ctx, key);
    prvrg_terminate(ctx);
  }
  std::string dir_;
};

TEST_F(ClsgenvTest, FirstAnswerHoldsForTheLifeOfTheProcess) {
  EXPECT_EXIT(
      {
        setenv("VYN_TEST_SETTING", "one", 1);
        const char* first = clsgenv("VYN_TEST_SETTING");
        setenv("VYN_TEST_SETTING", "two", 1);
        const char* second = clsgenv("VYN_TEST_SETTING");
        std::exit(first == second && std::strcmp(second, "one") == 0 ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST_F(ClsgenvTest, MissingOrEmptyIsAskedAgainAndNeverReachesTheRegistry) {
  EXPECT_EXIT(
      {
        setenv("ZEL_VYN_DEFAULT_PATH", "", 1);
        bool ok = clsgenv("ZEL_VYN_DEFAULT_PATH") == nullptr && clsgenv(nullptr) == nullptr;
        setenv("ZEL_VYN_DEFAULT_PATH", "/srv/p", 1);
        const char* later = clsgenv("ZEL_VYN_DEFAULT_PATH");
        ok = ok && later != nullptr && std::strcmp(later, "/srv/p") == 0;
        std::exit(ok ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
  EXPECT_FALSE(std::filesystem::exists(dir_ + "/reg.db")) << "no store was made or opened";
  EXPECT_EQ(clsgenvvrg("ZEL_VYN_DEFAULT_PATH", nullptr), -1);
}

TEST_F(ClsgenvTest, HomeFallsBackToTheRegistry) {
  putKey("SYSTEM.ZEL_VYN_HOME", "/opt/vyn");
  putKey("SYSTEM.evm.rmport.node1", "(ADDRESS=(PROTOCOL=tcp)(HOST=node1)(PORT=7000))");
  EXPECT_EXIT(
      {
        unsetenv("ZEL_VYN_HOME");
        const char* home = clsgenv("ZEL_VYN_HOME");
        char conn[256];
        bool ok = home != nullptr && std::strcmp(home, "/opt/vyn") == 0 &&
                  clsgetconnstr("SYSTEM.evm.rmport.node1", conn) == 0 &&
                  std::strcmp(conn, "(ADDRESS=(PROTOCOL=tcp)(HOST=node1)(PORT=7000))") == 0 &&
                  clsgetconnstr("SYSTEM.evm.rmport.nowhere", conn) == 1 && clssetzelkorhome(home) == 0 &&
                  envs_get_zelkor_home() == "/opt/vyn";
        clsgenvterm();
        std::exit(ok ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST_F(ClsgenvTest, WithoutAStoreTheHomeIsUnknownAndTheStoreIsNotMade) {
  EXPECT_EXIT(
      {
        unsetenv("ZEL_VYN_HOME");
        bool ok = clsgenv("ZEL_VYN_HOME") == nullptr && clsgenv("ZEL_VYN_HOME") == nullptr;
        std::exit(ok ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
  EXPECT_FALSE(std::filesystem::exists(dir_ + "/reg.db"));
}

TEST(ClsgenvClimbTest, ClimbIsDueOnlyAfterMoreThanTheInterval) {
  EXPECT_FALSE(clsgenvClimbDue(60000, 0));
  EXPECT_TRUE(clsgenvClimbDue(60001, 0));
  EXPECT_FALSE(clsgenvClimbDue(1000, 1000));
  // The clock wraps: the difference is taken modulo 2^32.
  EXPECT_FALSE(clsgenvClimbDue(59999u - 10u, 0xFFFFFFFFu - 10u));
  EXPECT_TRUE(clsgenvClimbDue(60010u, 0xFFFFFFFFu - 10u));
}

}  // namespace
