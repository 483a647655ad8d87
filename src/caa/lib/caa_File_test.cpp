#include "caa/lib/caa_File.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "caa/lib/caa_Path.h"

namespace CAA {
namespace {

class CaaFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/caa_file_test.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }
  void write(const std::string& name, const std::string& data) { std::ofstream(dir_ + "/" + name, std::ios::binary) << data; }
  std::string read(const std::string& name) {
    std::ifstream in(dir_ + "/" + name, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
  }
  std::string dir_;
};

TEST_F(CaaFileTest, ComposesDirectoryNameAndExtension) {
  EXPECT_EQ(CaaFile(dir_, "r", "cap").getName(), dir_ + "/r.cap");
  EXPECT_EQ(CaaFile(dir_ + "/", "r", "").getName(), dir_ + "/r");
  EXPECT_EQ(CaaFile(dir_, std::string(600, 'n'), "cap").getName(), "") << "a name that does not fit";
}

TEST_F(CaaFileTest, ReadFileStopsTheTextAtAZeroByteButCountsAll) {
  write("a.cap", std::string("NAME=a\0rest", 11));
  CaaFile f(dir_, "a", "cap");
  int fd = f.openFile(O_RDONLY, 0666);
  ASSERT_GE(fd, 0);
  std::string text = "x";
  EXPECT_EQ(f.readFile(fd, text), 11);
  EXPECT_EQ(text, "xNAME=a");
  f.closeFile();

  write("empty.cap", "");
  CaaFile e(dir_, "empty", "cap");
  fd = e.openFile(O_RDONLY, 0666);
  std::string none;
  EXPECT_EQ(e.readFile(fd, none), 0);
  EXPECT_EQ(none, "");
  e.closeFile();

  int bad = -1;
  std::string kept = "kept";
  EXPECT_EQ(f.readFile(bad, kept), -1);
  EXPECT_EQ(kept, "kept");
}

TEST_F(CaaFileTest, BackupReplacesTheEarlierOneAndKeepsTheSource) {
  write("r.cap", "first");
  CaaFile f(dir_, "r", "cap");
  ASSERT_TRUE(f.createBackup(Path::BACKUP_EXT));
  write("r.cap", "second");
  ASSERT_TRUE(f.createBackup(Path::BACKUP_EXT));
  EXPECT_EQ(read("r.bak"), "second");
  EXPECT_EQ(read("r.cap"), "second");

  write("noext", "data");
  ASSERT_TRUE(CaaFile(dir_ + "/noext").createBackup("bak"));
  EXPECT_EQ(read("noext.bak"), "data");

  EXPECT_FALSE(CaaFile(dir_, "missing", "cap").createBackup("bak"));
  EXPECT_FALSE(std::filesystem::exists(dir_ + "/missing.bak"));
}

TEST_F(CaaFileTest, RemoveLeavesTheBackup) {
  write("r.cap", "x");
  CaaFile f(dir_, "r", "cap");
  ASSERT_TRUE(f.createBackup("bak"));
  EXPECT_TRUE(f.exists());
  EXPECT_TRUE(f.remove());
  EXPECT_FALSE(f.exists());
  EXPECT_FALSE(f.remove());
  EXPECT_TRUE(std::filesystem::exists(dir_ + "/r.bak"));
}

TEST(PathTest, FillsTheTableBelowTheHome) {
  Path p("/opt/h");
  ASSERT_EQ(p.initializePaths(), 0);
  EXPECT_EQ(Path::profile_path, "/opt/h/vyn/profile/");
  EXPECT_EQ(Path::template_path, "/opt/h/vyn/template/");
  EXPECT_EQ(Path::binary_path, "/opt/h/bin/");
  EXPECT_EQ(Path::vyn_public_dir, "/opt/h/vyn/public/");
  EXPECT_EQ(Path::vyn_safe_dir, Path::vyn_lockfile_dir);
  EXPECT_EQ(Path::vyn_stat_path, "/opt/h/bin/vyn_stat");
  EXPECT_EQ(Path::template_file, "/opt/h/bin/vyntmpl.scr");
  EXPECT_EQ(Path::local_template_file, "./template.cap");
  EXPECT_EQ(Path::vyn_config_file, "/opt/h/caaconfigtab");

  Path tooLong(std::string(600, 'h'));
  EXPECT_EQ(tooLong.initializePaths(), -2);
}

TEST_F(CaaFileTest, TheFileOwnsItsDescriptorOnEveryWayOut) {
  write("a.cap", "NAME=a\n");
  int fd = -1;
  {
    CaaFile f(dir_, "a", "cap");
    fd = f.openFile(O_RDONLY, 0666);
    ASSERT_GE(fd, 0);
    CaaFile moved = std::move(f);
    EXPECT_EQ(moved.getDescriptor(), fd);
  }
  EXPECT_EQ(fcntl(fd, F_GETFD), -1) << "closed when the file went out of scope";

  CaaFile g(dir_, "a", "cap");
  int first = g.openFile(O_RDONLY, 0666);
  int second = g.openFile(O_RDONLY, 0666);
  ASSERT_GE(second, 0);
  if (first != second) {
    EXPECT_EQ(fcntl(first, F_GETFD), -1) << "a second open closes the first";
  }
  EXPECT_EQ(g.closeFile(second), 0);
  EXPECT_EQ(g.closeFile(), -1) << "closed once, through its owner";
}

}  // namespace
}  // namespace CAA
