// Linked into every test program: a program run by hand, outside CTest, finds the build's
// home and programs as CTest would tell it. What the environment already says wins.
#include <cstdlib>

namespace {

struct TestEnvironment {
  TestEnvironment() {
    setenv("VYN_TEST_HOME", VYN_BUILD_HOME, 0);
    setenv("VYN_BIN_DIR", VYN_BUILD_BIN, 0);
    setenv("VYN_SOURCE_DIR", VYN_SOURCE_ROOT, 0);
  }
};

const TestEnvironment g_environment;

}  // namespace
