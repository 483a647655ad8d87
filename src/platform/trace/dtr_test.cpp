#include "platform/trace/dtr.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace fs = std::filesystem;

std::vector<std::string> readLines(const std::string& path) {
  std::vector<std::string> lines;
  std::ifstream in(path);
  std::string line;
  while (std::getline(in, line)) lines.push_back(line);
  return lines;
}

class DtrTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/vyn_dtr.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    home_ = tmpl;
    fs::create_directories(home_ + "/log");
    setenv("ZEL_VYN_HOME", home_.c_str(), 1);
    dtrSetProgram("dtrtest");
    dtrset_rotation(8u << 20, 4);
  }
  void TearDown() override {
    dtrset_rotation(8u << 20, 4);
    dtrreset();
    std::error_code ec;
    fs::permissions(home_ + "/log", fs::perms::owner_all, ec);
    fs::remove_all(home_, ec);
  }
  std::string trc() const { return home_ + "/log/dtrtest.trc"; }

  // Every line of the trace file and its rotated predecessors.
  std::vector<std::string> allLines() const {
    std::vector<std::string> all;
    for (const auto& e : fs::directory_iterator(home_ + "/log")) {
      std::string name = e.path().filename().string();
      if (name.rfind("dtrtest.trc", 0) != 0) continue;
      for (std::string& l : readLines(e.path().string())) all.push_back(l);
    }
    return all;
  }

  std::string home_;
};

TEST_F(DtrTest, LinesAreStampedAndNamedAfterTheirComponent) {
  dtrcomp* c = dtrcompreg("Stamp Component", "STAMPCOMPONENT", 1024, 0, 1, nullptr, 0);
  ASSERT_NE(c, nullptr);
  EXPECT_STREQ(c->name, "STAMPCOM") << "the service keeps 8 characters of a name";
  EXPECT_EQ(dtrgetcompid("STAMPCOMPONENT"), c);
  EXPECT_EQ(dtrcompreg("again", "STAMPCOM", 1024, 0, 1, nullptr, 0), nullptr) << "a taken name is refused";

  dtrprintft(c, 1, "%s%s", "[FFAIL]", " one");
  dtrprintft_cdesc(c, 0, "%s", " two");
  dtrWrite(" three");
  std::vector<std::string> lines = readLines(trc());
  ASSERT_EQ(lines.size(), 3u);
  const std::string stamp = R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} \[\d+:\d+\] )";
  EXPECT_TRUE(std::regex_match(lines[0], std::regex(stamp + R"(STAMPCOM:\[FFAIL\] one)"))) << lines[0];
  EXPECT_TRUE(std::regex_match(lines[1], std::regex(stamp + R"(STAMPCOM\(Stamp Component\): two)"))) << lines[1];
  EXPECT_TRUE(std::regex_match(lines[2], std::regex(stamp + " three"))) << lines[2];
}

TEST_F(DtrTest, AComponentPassesLinesUpToItsOwnLevel) {
  dtrcomp* c = dtrcompreg("Levels", "LEVELS", 1024, 0, 1, nullptr, 0);
  ASSERT_NE(c, nullptr);
  for (ub4 level = 0; level <= 5; ++level) dtrprintft(c, level, " at %u", level);
  dtrset_loglvl(c, 3);
  for (ub4 level = 0; level <= 5; ++level) dtrprintft(c, level, " then %u", level);
  dtrset_loglvl(c, 4);
  dtrprintft(c, 5, " fine at four");
  std::string text;
  for (const std::string& l : readLines(trc())) text += l.substr(l.find("LEVELS:")) + "\n";
  EXPECT_EQ(text,
            "LEVELS: at 0\nLEVELS: at 1\nLEVELS: then 0\nLEVELS: then 1\nLEVELS: then 2\nLEVELS: then 3\n"
            "LEVELS: fine at four\n");
  EXPECT_FALSE(dtrpasses(nullptr, 1)) << "without a component only unconditional lines pass";
}

TEST_F(DtrTest, ComponentListAndLogName) {
  dtrcompreg("Listed", "LISTED", 1024, 0, 1, nullptr, 0);
  ub4 n = dtrget_regcomp();
  std::vector<dtrcompname> names(n);
  ub4 count = n;
  ASSERT_EQ(dtrget_complist(names.data(), &count), 0);
  EXPECT_EQ(count, n);
  EXPECT_EQ(std::string(names[n - 1]), "LISTED");
  ub4 small = n - 1;
  EXPECT_EQ(dtrget_complist(names.data(), &small), -1);

  char buf[4096];
  ASSERT_GT(dtrget_logname(buf, sizeof buf), 0);
  EXPECT_EQ(std::string(buf), trc());
  EXPECT_EQ(dtrget_logname(buf, 4), -1);
}

TEST_F(DtrTest, AlertsCarryTheirIds) {
  dtr_alertprintft(6015, "%s", "a b (:X:)");
  std::vector<std::string> lines = readLines(home_ + "/log/alert.log");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find("alert 6015: a b (:X:)"), std::string::npos) << lines[0];
}

TEST_F(DtrTest, ManyThreadsNeverTearALine) {
  const int kThreads = 8, kLines = 2000;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([t] {
      std::string body(100 + t * 37, static_cast<char>('a' + t));
      for (int i = 0; i < kLines; ++i) dtrprintft(nullptr, 0, " t%d n%d %s", t, i, body.c_str());
    });
  for (auto& th : threads) th.join();
  std::vector<std::string> lines = readLines(trc());
  ASSERT_EQ(lines.size(), static_cast<size_t>(kThreads * kLines));
  std::regex shape(R"(.*\]  t(\d) n\d+ ([a-z])+)");
  for (const std::string& l : lines) {
    std::smatch m;
    ASSERT_TRUE(std::regex_match(l, m, shape)) << l;
    int t = std::stoi(m[1]);
    EXPECT_EQ(l.size() - l.find(' ', l.find(" n") + 2) - 1, static_cast<size_t>(100 + t * 37)) << l;
    EXPECT_EQ(l.back(), static_cast<char>('a' + t));
  }
}

// Threads of two processes write while the file rotates many times: every line lands in one of
// the kept files, whole, and the files stay near the limit.
TEST_F(DtrTest, RotationUnderConcurrentWritersLosesNoLine) {
  const int kThreads = 4, kLines = 1500;
  dtrset_rotation(64 * 1024, 1000);
  auto write = [&](int proc) {
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
      threads.emplace_back([=] {
        for (int i = 0; i < kLines; ++i) dtrprintft(nullptr, 0, " p%d t%d n%d xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx", proc, t, i);
      });
    for (auto& th : threads) th.join();
  };
  dtrreset();
  pid_t child = fork();
  if (child == 0) {
    dtrreset();
    write(1);
    _exit(0);
  }
  write(0);
  int status = 0;
  waitpid(child, &status, 0);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);

  std::set<std::string> seen;
  std::regex shape(R"(.*\]  (p\d t\d n\d+) x{32})");
  for (const std::string& l : allLines()) {
    std::smatch m;
    ASSERT_TRUE(std::regex_match(l, m, shape)) << l;
    EXPECT_TRUE(seen.insert(m[1]).second) << "written twice: " << l;
  }
  EXPECT_EQ(seen.size(), static_cast<size_t>(2 * kThreads * kLines));
  int files = 0;
  for (const auto& e : fs::directory_iterator(home_ + "/log"))
    if (e.path().filename().string().rfind("dtrtest.trc", 0) == 0) {
      ++files;
      EXPECT_LT(fs::file_size(e.path()), 2u * 64 * 1024) << e.path();
    }
  EXPECT_GT(files, 5);
}

TEST_F(DtrTest, RotationKeepsOnlyTheKeptCount) {
  dtrset_rotation(1000, 2);
  for (int i = 0; i < 200; ++i) dtrprintft(nullptr, 0, " line %03d ..................................", i);
  EXPECT_TRUE(fs::exists(trc() + ".1"));
  EXPECT_TRUE(fs::exists(trc() + ".2"));
  EXPECT_FALSE(fs::exists(trc() + ".3"));
  std::vector<std::string> newest = readLines(trc());
  std::vector<std::string> older = readLines(trc() + ".1");
  ASSERT_FALSE(older.empty());
  // The files follow each other: the newest file begins where .1 ended.
  std::string lastOld = older.back().substr(older.back().find(" line "));
  std::string next = newest.empty() ? std::string() : newest.front().substr(newest.front().find(" line "));
  EXPECT_EQ(std::stoi(lastOld.substr(6)) + 1, newest.empty() ? 200 : std::stoi(next.substr(6)));
}

TEST_F(DtrTest, ABrokenLogDirectoryLosesLinesAndSaysSoOnce) {
  fs::remove_all(home_ + "/log");
  std::ofstream(home_ + "/log") << "not a directory";
  dtrreset();
  ::testing::internal::CaptureStderr();
  dtrprintft(nullptr, 0, " lost one");
  dtrprintft(nullptr, 0, " lost two");
  std::string err = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(err, "dtrtest: cannot write the trace file " + trc() + ": Not a directory; its lines are lost\n");
}

TEST_F(DtrTest, AUserWhoMayNotWriteTheSharedLogDirectoryIsNotTroubled) {
  if (geteuid() == 0) GTEST_SKIP() << "the superuser may write any directory";
  fs::permissions(home_ + "/log", fs::perms::owner_read | fs::perms::owner_exec);
  dtrreset();
  ::testing::internal::CaptureStderr();
  dtrprintft(nullptr, 0, " not written");
  std::string err = ::testing::internal::GetCapturedStderr();
  fs::permissions(home_ + "/log", fs::perms::owner_all);
  EXPECT_EQ(err, "");
  EXPECT_FALSE(fs::exists(trc()));
}

TEST_F(DtrTest, APlantedLinkIsNotFollowed) {
  std::string target = home_ + "/victim";
  std::ofstream(target) << "keep\n";
  fs::create_symlink(target, trc());
  dtrreset();
  ::testing::internal::CaptureStderr();
  dtrprintft(nullptr, 0, " into the link");
  std::string err = ::testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("cannot write the trace file " + trc()), std::string::npos) << err;
  EXPECT_EQ(readLines(target), std::vector<std::string>{"keep"});
}

TEST_F(DtrTest, NoHomeTracesNothingAndSaysNothing) {
  unsetenv("ZEL_VYN_HOME");
  dtrreset();
  ::testing::internal::CaptureStderr();
  dtrprintft(nullptr, 0, " nowhere");
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
  char buf[64];
  EXPECT_EQ(dtrget_logname(buf, sizeof buf), -1);
}

}  // namespace
