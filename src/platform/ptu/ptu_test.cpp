#include "platform/ptu/ptu.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace {

class PtuTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/ptu_test.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }
  std::string read(const std::string& p) {
    std::ifstream in(p, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
  }
  int entries() {
    int n = 0;
    for (auto& e : std::filesystem::directory_iterator(dir_)) (void)e, ++n;
    return n;
  }
  std::string dir_;
  char buf_[512];
};

TEST_F(PtuTest, ComposedPathsFitOrFail) {
  ASSERT_EQ(ptu_addToPath(buf_, sizeof buf_, "/h", "vyn", "profile", static_cast<const char*>(nullptr)), 0);
  EXPECT_STREQ(buf_, "/h/vyn/profile/");
  ASSERT_EQ(ptu_getFile(buf_, sizeof buf_, "/d", "r", "cap"), 0);
  EXPECT_STREQ(buf_, "/d/r.cap");
  ASSERT_EQ(ptu_getFile(buf_, sizeof buf_, "/d/", "r", ""), 0);
  EXPECT_STREQ(buf_, "/d/r");
  EXPECT_EQ(ptu_getFile(buf_, sizeof buf_, "/d", std::string(507, 'n').c_str(), "cap"), PTU_ERR_NOROOM);
  EXPECT_EQ(ptu_getFile(buf_, sizeof buf_, "/d", std::string(502, 'n').c_str(), "cap"), 0) << "511 bytes and the terminator fit";
}

TEST_F(PtuTest, CreateDirMakesParentsAndFailsWhereItCannot) {
  EXPECT_EQ(ptu_createDir((dir_ + "/a/b/c").c_str()), 0);
  EXPECT_EQ(ptu_createDir((dir_ + "/a/b/c").c_str()), 0) << "a directory that stands is fine";
  EXPECT_EQ(ptu_createDir(""), PTU_ERR_NOROOM);
  std::ofstream(dir_ + "/file") << "x";
  EXPECT_EQ(ptu_createDir((dir_ + "/file").c_str()), PTU_ERR_NOROOM);
  EXPECT_EQ(ptu_createDir((dir_ + "/file/sub").c_str()), PTU_ERR_NOROOM);
}

TEST_F(PtuTest, SplitsPathsIntoDirectoryNameAndExtension) {
  char name[512], dir[512], ext[512], ver[512];
  osrec e;
  ASSERT_EQ(Osfpfn(name, dir, ext, ver, "/p/res.cap", &e, 0), 0);
  EXPECT_STREQ(dir, "/p/");
  EXPECT_STREQ(name, "res");
  EXPECT_STREQ(ext, "cap");
  ASSERT_EQ(Osfpfn(name, dir, ext, ver, "plain", &e, 0), 0);
  EXPECT_STREQ(dir, "");
  EXPECT_STREQ(name, "plain");
  EXPECT_STREQ(ext, "");
  ASSERT_EQ(Osfpfn(name, dir, ext, ver, "/p/.hidden", &e, 0), 0);
  EXPECT_STREQ(name, ".hidden");
  EXPECT_EQ(Osfpfn(name, dir, ext, ver, "", &e, 0), 1);
  EXPECT_NE(osrecFormat(e).find("operation: Osfpfn"), std::string::npos);
}

TEST_F(PtuTest, ReplaceFileLeavesNoTemporaryAndKeepsTheModeOfWhatItReplaces) {
  std::string p = dir_ + "/r.cap";
  ASSERT_EQ(ptu_replaceFile(p, "one\n", 0640), 0);
  ASSERT_EQ(ptu_replaceFile(p, "two\n", 0644), 0);
  EXPECT_EQ(read(p), "two\n");
  struct stat st;
  ASSERT_EQ(stat(p.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0640u) << "a replaced file keeps its mode";
  EXPECT_EQ(entries(), 1);

  EXPECT_EQ(ptu_replaceFile(dir_ + "/no/such/dir/f", "x", 0644), -1);
  EXPECT_EQ(ptu_copyFile(dir_ + "/missing", dir_ + "/copy"), PTU_ERR_NOROOM);
  EXPECT_FALSE(std::filesystem::exists(dir_ + "/copy"));
  EXPECT_EQ(entries(), 1);
}

TEST_F(PtuTest, WithoutOverwriteAFileThatStandsIsLeftAlone) {
  std::string p = dir_ + "/r.cap";
  ASSERT_EQ(ptu_replaceFile(p, "first\n", 0644, false), 0);
  errno = 0;
  EXPECT_EQ(ptu_replaceFile(p, "second\n", 0644, false), -1);
  EXPECT_EQ(errno, EEXIST);
  EXPECT_EQ(read(p), "first\n");
  EXPECT_EQ(entries(), 1) << "no temporary file stays";
}

TEST_F(PtuTest, ReplaceRefusesWhatIsNotARegularFile) {
  std::string target = dir_ + "/target";
  std::ofstream(target) << "keep";
  std::string link = dir_ + "/r.cap";
  ASSERT_EQ(symlink(target.c_str(), link.c_str()), 0);
  EXPECT_EQ(ptu_replaceFile(link, "new", 0644), -1);
  EXPECT_EQ(read(target), "keep");
  struct stat st;
  ASSERT_EQ(lstat(link.c_str(), &st), 0);
  EXPECT_TRUE(S_ISLNK(st.st_mode));
}

TEST_F(PtuTest, TemporaryFilesOfDeadWritersAreRemovedAndNothingElse) {
  pid_t dead = fork();
  if (dead == 0) _exit(0);
  waitpid(dead, nullptr, 0);
  std::string d = std::to_string(dead);
  std::string live = std::to_string(getppid());
  std::ofstream(dir_ + "/.r.cap.tmp." + d) << "debris";
  std::ofstream(dir_ + "/.r.bak.tmp." + d) << "";
  std::ofstream(dir_ + "/.s.cap.tmp." + live) << "being written";
  std::ofstream(dir_ + "/r.cap.tmp." + d) << "not a name of ours";
  std::ofstream(dir_ + "/.r.cap.tmp.x" + d) << "not a name of ours";
  std::string outside = dir_ + "/outside";
  std::ofstream(outside) << "keep";
  ASSERT_EQ(symlink(outside.c_str(), (dir_ + "/.t.cap.tmp." + d).c_str()), 0);
  mkdir((dir_ + "/.u.cap.tmp." + d).c_str(), 0755);
  std::ofstream(dir_ + "/.other.conf.tmp." + d) << "another program's";

  auto ours = [](const std::string& base) { return base != "other.conf"; };
  EXPECT_EQ(ptu_removeStaleTemps(dir_, ours), 2);
  EXPECT_FALSE(std::filesystem::exists(dir_ + "/.r.cap.tmp." + d));
  EXPECT_FALSE(std::filesystem::exists(dir_ + "/.r.bak.tmp." + d));
  EXPECT_TRUE(std::filesystem::exists(dir_ + "/.s.cap.tmp." + live));
  EXPECT_TRUE(std::filesystem::exists(dir_ + "/r.cap.tmp." + d));
  EXPECT_TRUE(std::filesystem::exists(dir_ + "/.r.cap.tmp.x" + d));
  EXPECT_TRUE(std::filesystem::is_symlink(dir_ + "/.t.cap.tmp." + d));
  EXPECT_EQ(read(outside), "keep");
  EXPECT_TRUE(std::filesystem::is_directory(dir_ + "/.u.cap.tmp." + d));
  EXPECT_TRUE(std::filesystem::exists(dir_ + "/.other.conf.tmp." + d));
}

TEST_F(PtuTest, ATemporaryNameLeftByAnEarlierHolderOfOurPidIsReused) {
  std::string p = dir_ + "/r.cap";
  std::ofstream(ptu_tempName(p)) << "left by a killed process that had our pid";
  ASSERT_EQ(ptu_replaceFile(p, "new\n", 0644), 0);
  EXPECT_EQ(read(p), "new\n");
  EXPECT_EQ(entries(), 1);
}

}  // namespace
