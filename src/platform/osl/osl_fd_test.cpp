#include "platform/osl/osl_fd.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <utility>

namespace {

bool isOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }

class OslFdTest : public ::testing::Test {
 protected:
  int openNull() { return ::open("/dev/null", O_RDONLY | O_CLOEXEC); }
};

TEST_F(OslFdTest, ClosesOnceWhenItGoesOutOfScopeOrIsMoved) {
  int fd = openNull();
  {
    OslFd a(fd);
    OslFd b(std::move(a));
    EXPECT_FALSE(a.valid());
    EXPECT_EQ(b.get(), fd);
    OslFd c;
    c = std::move(b);
    EXPECT_TRUE(isOpen(fd));
  }
  EXPECT_FALSE(isOpen(fd));
}

TEST_F(OslFdTest, ReleaseHandsTheDescriptorOverAndResetClosesTheOldOne) {
  int first = openNull();
  int second = openNull();
  OslFd owner(first);
  owner.reset(second);
  EXPECT_FALSE(isOpen(first));
  EXPECT_EQ(owner.release(), second);
  EXPECT_FALSE(owner.valid());
  EXPECT_TRUE(isOpen(second));
  ::close(second);
}

TEST_F(OslFdTest, CloseReportsItsResultAndLeavesNothingToClose) {
  OslFd owner(openNull());
  EXPECT_EQ(owner.close(), 0);
  EXPECT_FALSE(owner.valid());
  EXPECT_EQ(owner.close(), 0);
}

}  // namespace
