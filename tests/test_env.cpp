// Linked into every test program: a program run by hand, outside CTest, finds the build's home and
// programs as CTest would tell it (what the environment already says wins). Tests never write into
// the shipped home: VYN_TEST_HOME names a copy of it, made for this process and removed when it
// ends, so a trace line or a profile that a test leaves behind lands in the copy.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

namespace {

namespace fs = std::filesystem;

class TestEnvironment {
 public:
  TestEnvironment() : owner_(getpid()) {
    setenv("VYN_TEST_HOME", VYN_BUILD_HOME, 0);
    setenv("VYN_BIN_DIR", VYN_BUILD_BIN, 0);
    setenv("VYN_SOURCE_DIR", VYN_SOURCE_ROOT, 0);
    // A death test's child runs this program again with our environment: it uses our copy.
    if (std::getenv("VYN_TEST_HOME_COPIED") != nullptr) return;
    char tmpl[] = "/tmp/vyn_test_home_XXXXXX";
    if (mkdtemp(tmpl) == nullptr) return;
    // Readable like the shipped home: some tests run the programs as another user.
    chmod(tmpl, 0755);
    std::error_code ec;
    fs::copy(std::getenv("VYN_TEST_HOME"), std::string(tmpl) + "/home",
             fs::copy_options::recursive | fs::copy_options::copy_symlinks, ec);
    if (ec) {
      std::fprintf(stderr, "cannot copy the shipped home: %s\n", ec.message().c_str());
      fs::remove_all(tmpl, ec);
      return;
    }
    dir_ = tmpl;
    setenv("VYN_TEST_HOME", (dir_ + "/home").c_str(), 1);
    setenv("VYN_TEST_HOME_COPIED", "1", 1);
  }
  // Children forked by death tests and runners end through here too; only the maker removes.
  ~TestEnvironment() {
    if (dir_.empty() || getpid() != owner_) return;
    std::error_code ec;
    fs::remove_all(dir_, ec);
  }

 private:
  pid_t owner_;
  std::string dir_;
};

const TestEnvironment g_environment;

}  // namespace
