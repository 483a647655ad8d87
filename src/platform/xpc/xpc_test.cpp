// The transport against itself over real sockets: framing, a message longer than the reader's
// buffer, peers that vanish or send garbage, stale socket files, waiting and its time-out.
#include "platform/xpc/xpc.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

namespace {

const char* kAddr = "(ADDRESS=(PROTOCOL=ipc)(KEY=xpc.test))";

std::vector<unsigned char> message(std::uint32_t len, unsigned char fill) {
  std::vector<unsigned char> m(len, fill);
  std::memcpy(m.data(), &len, 4);
  return m;
}

class XpcTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/xpc_test.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    setenv("VYN_IPC_DIR", dir_.c_str(), 1);
    ASSERT_EQ(xpcinit(0, 0, &ctx_, 0), xpcretSUCC);
    ASSERT_EQ(xpcugblmini(ctx_, &server_, 0), xpcretSUCC);
    ASSERT_EQ(xpcugblmini(ctx_, &client_, 0), xpcretSUCC);
  }
  void TearDown() override {
    xpcugblmterm(server_);
    xpcugblmterm(client_);
    xpcterm(ctx_);
    std::filesystem::remove_all(dir_);
  }
  // A listener, a client connected to it and the server's end of that connection.
  void pair(const char* addr, xpccon** l, xpccon** c, xpccon** s) {
    ASSERT_EQ(xpclisten(server_, addr, 0, l, 0), xpcretSUCC);
    char own[256];
    ASSERT_EQ(xpcgetaddr(*l, own, sizeof own, 0), xpcretSUCC);
    ASSERT_EQ(xpcconnect(client_, own, 0, c, nullptr, nullptr, nullptr, nullptr, 30, 2), xpcretSUCC);
    ASSERT_EQ(xpcanswer(*l, 0, s, 0, 0, 0, 0, 0, 32), xpcretSUCC);
  }
  std::string dir_;
  xpcctx* ctx_ = nullptr;
  xpcugblm* server_ = nullptr;
  xpcugblm* client_ = nullptr;
};

TEST_F(XpcTest, MessagesKeepTheirBoundariesOverIpcAndTcp) {
  for (const char* addr : {kAddr, "(ADDRESS=(PROTOCOL=tcp)(HOST=127.0.0.1)(PORT=0))"}) {
    xpccon *l, *c, *s;
    pair(addr, &l, &c, &s);
    // Three messages back to back arrive as three, in order, whatever the kernel joins.
    for (std::uint32_t len : {48u, 88u, 70000u}) {
      auto m = message(len, static_cast<unsigned char>(len & 0xff));
      ASSERT_EQ(xpcsend(c, m.data(), len), xpcretSUCC);
    }
    std::vector<unsigned char> got(100000);
    for (std::uint32_t len : {48u, 88u, 70000u}) {
      std::uint32_t n = 0;
      ASSERT_EQ(xpcreceive(s, got.data(), got.size(), 0, 0, 32, &n), xpcretSUCC);
      EXPECT_EQ(n, len);
      EXPECT_EQ(got[len - 1], static_cast<unsigned char>(len & 0xff));
    }
    xpcdisc(c);
    xpcdisc(s);
    xpcdisc(l);
  }
}

TEST_F(XpcTest, LongMessageStaysQueuedAndReportsItsLength) {
  xpccon *l, *c, *s;
  pair(kAddr, &l, &c, &s);
  auto m = message(40000, 7);
  ASSERT_EQ(xpcsend(c, m.data(), 40000), xpcretSUCC);
  std::vector<unsigned char> small(32768);
  ASSERT_EQ(xpcreceive(s, small.data(), small.size(), 0, 0, 32), xpcretEMSGSZ);
  std::uint32_t trueLen;
  std::memcpy(&trueLen, small.data(), 4);
  EXPECT_EQ(trueLen, 40000u);
  std::vector<unsigned char> big(trueLen);
  ASSERT_EQ(xpcreceive(s, big.data(), trueLen, 0, 0, 32), xpcretSUCC);
  EXPECT_EQ(big, m);
  xpcdisc(c);
  xpcdisc(s);
  xpcdisc(l);
}

TEST_F(XpcTest, VanishedPeerIsRemoteDisconnectWithoutSigpipe) {
  xpccon *l, *c, *s;
  pair(kAddr, &l, &c, &s);
  // Half a message, then the sender dies: the reader is told the connection broke.
  auto m = message(200, 1);
  ASSERT_EQ(send(xpcfd(c), m.data(), 100, 0), 100);
  xpcdisc(c);
  std::vector<unsigned char> buf(256);
  EXPECT_EQ(xpcreceive(s, buf.data(), buf.size(), 0, 0, 32), xpcretRMTFAIL);
  // Writing to the dead peer returns a code; the process lives on (SIGPIPE is not ignored here).
  int r = xpcretSUCC;
  for (int i = 0; i < 100 && r == xpcretSUCC; ++i) r = xpcsend(s, m.data(), 200);
  EXPECT_TRUE(r == xpcretRMTDISC || r == xpcretRMTFAIL) << r;
  xpcdisc(s);

  // A clean end between messages is a plain disconnect.
  xpccon *c2, *s2;
  ASSERT_EQ(xpcconnect(client_, kAddr, 0, &c2, nullptr, nullptr, nullptr, nullptr, 30, 2), xpcretSUCC);
  ASSERT_EQ(xpcanswer(l, 0, &s2, 0, 0, 0, 0, 0, 32), xpcretSUCC);
  xpcdisc(c2);
  EXPECT_EQ(xpcreceive(s2, buf.data(), buf.size(), 0, 0, 32), xpcretRMTDISC);
  xpcdisc(s2);
  xpcdisc(l);
}

TEST_F(XpcTest, GarbageAndLyingLengthsAreRefused) {
  xpccon *l, *c, *s;
  pair(kAddr, &l, &c, &s);
  auto m = message(100, 2);
  EXPECT_EQ(xpcsend(c, m.data(), 99), xpcretBADARG);  // the length word says 100
  EXPECT_EQ(xpcsend(c, m.data(), 20), xpcretBADARG);  // shorter than a header
  const char junk[] = "GET / HTTP/1.0\r\n\r\n";
  ASSERT_GT(send(xpcfd(c), junk, sizeof junk, 0), 0);
  std::vector<unsigned char> buf(256);
  EXPECT_EQ(xpcreceive(s, buf.data(), buf.size(), 0, 0, 32), xpcretINVALID);
  EXPECT_EQ(xpcreceive(s, buf.data(), buf.size(), 0, 0, 32), xpcretINVALID);  // stays broken
  xpcdisc(c);
  xpcdisc(s);
  xpcdisc(l);
}

TEST_F(XpcTest, ConnectWithoutListenerAndStaleOrLiveSocketFiles) {
  xpccon* c = nullptr;
  EXPECT_EQ(xpcconnect(client_, kAddr, 0, &c, nullptr, nullptr, nullptr, nullptr, 30, 2), xpcretNOENDPT);
  EXPECT_EQ(c, nullptr);
  EXPECT_EQ(xpcconnect(client_, "(ADDRESS=(PROTOCOL=carrier-pigeon))", 0, &c, nullptr, nullptr, nullptr, nullptr,
                       30, 2),
            xpcretBADARG);

  // A socket file left by a dead process: nobody answers, connect is refused, listen replaces it.
  std::string path = dir_ + "/xpc.test";
  int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un sa{};
  sa.sun_family = AF_UNIX;
  std::strcpy(sa.sun_path, path.c_str());
  ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa), 0);
  close(fd);
  EXPECT_EQ(xpcconnect(client_, kAddr, 0, &c, nullptr, nullptr, nullptr, nullptr, 30, 2), xpcretREFUSED);
  xpccon* l = nullptr;
  ASSERT_EQ(xpclisten(server_, kAddr, 0, &l, 0), xpcretSUCC);
  // A second listener on a live address is refused and leaves the first one working.
  xpccon* l2 = nullptr;
  EXPECT_EQ(xpclisten(server_, kAddr, 0, &l2, 0), xpcretENDPTUSED);
  ASSERT_EQ(xpcconnect(client_, kAddr, 0, &c, nullptr, nullptr, nullptr, nullptr, 30, 2), xpcretSUCC);
  xpcdisc(c);
  xpcdisc(l);
  struct stat st;
  EXPECT_NE(stat(path.c_str(), &st), 0);  // the listener's file goes with it
}

void onAlarm(int) {}

TEST_F(XpcTest, SelectTimesOutSeesBufferedInputAndEndsOnASignal) {
  xpccon *l, *c, *s;
  pair(kAddr, &l, &c, &s);
  EXPECT_EQ(xpcselect(client_, nullptr, 20, 250, 64), xpcretTIMEOUT);
  // Two messages in one read: the second is found in the buffer, not by the kernel.
  auto a = message(48, 1), b = message(48, 2);
  std::vector<unsigned char> both(a);
  both.insert(both.end(), b.begin(), b.end());
  ASSERT_EQ(send(xpcfd(s), both.data(), both.size(), 0), 96);
  EXPECT_EQ(xpcselect(client_, nullptr, 0, 0, 96), xpcretSUCC);
  std::vector<unsigned char> buf(64);
  ASSERT_EQ(xpcreceive(c, buf.data(), buf.size(), 0, 0, 32), xpcretSUCC);
  EXPECT_EQ(xpcselect(client_, nullptr, 0, 0, 64), xpcretSUCC);
  ASSERT_EQ(xpcreceive(c, buf.data(), buf.size(), 0, 0, 32), xpcretSUCC);
  EXPECT_EQ(buf[47], 2);
  // A wait without limit ends when a signal arrives.
  struct sigaction sa{}, old{};
  sa.sa_handler = onAlarm;
  sigaction(SIGALRM, &sa, &old);
  itimerval t{};
  t.it_value.tv_usec = 50000;
  setitimer(ITIMER_REAL, &t, nullptr);
  EXPECT_EQ(xpcselect(client_, nullptr, 0, 0, 96), xpcretNOEVENT);
  sigaction(SIGALRM, &old, nullptr);
  EXPECT_EQ(xpcreceive(c, buf.data(), buf.size(), 10, 0, 64), xpcretTIMEOUT);
  xpcdisc(c);
  xpcdisc(s);
  xpcdisc(l);
}

TEST_F(XpcTest, ConcurrentSendersNeverInterleave) {
  xpccon *l, *c, *s;
  pair(kAddr, &l, &c, &s);
  constexpr int kThreads = 8, kEach = 200;
  std::vector<std::thread> ts;
  for (int t = 0; t < kThreads; ++t)
    ts.emplace_back([c, t] {
      auto m = message(3000 + 8 * t, static_cast<unsigned char>(t));
      for (int i = 0; i < kEach; ++i) ASSERT_EQ(xpcsend(c, m.data(), m.size()), xpcretSUCC);
    });
  std::vector<unsigned char> buf(4096);
  for (int i = 0; i < kThreads * kEach; ++i) {
    std::uint32_t n = 0;
    ASSERT_EQ(xpcreceive(s, buf.data(), buf.size(), 0, 0, 32, &n), xpcretSUCC);
    unsigned char t = buf[n - 1];
    ASSERT_EQ(n, 3000u + 8 * t);
    ASSERT_EQ(buf[4], t);
  }
  for (auto& th : ts) th.join();
  xpcdisc(c);
  xpcdisc(s);
  xpcdisc(l);
}

}  // namespace

TEST_F(XpcTest, ListenerRefusesASocketDirectoryOthersCouldChange) {
  xpccon* l = nullptr;
  // Made by the listener itself: 0755 whatever the umask.
  std::string made = dir_ + "/made";
  setenv("VYN_IPC_DIR", made.c_str(), 1);
  mode_t old = umask(0);
  ASSERT_EQ(xpclisten(server_, kAddr, 0, &l, 0), xpcretSUCC);
  umask(old);
  struct stat st;
  ASSERT_EQ(lstat(made.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0755u);
  ASSERT_EQ(lstat((made + "/xpc.test").c_str(), &st), 0);
  EXPECT_TRUE(S_ISSOCK(st.st_mode));
  EXPECT_EQ(st.st_mode & 0777, 0666u);
  xpcdisc(l);

  std::string open = dir_ + "/open";
  ASSERT_EQ(mkdir(open.c_str(), 0755), 0);
  ASSERT_EQ(chmod(open.c_str(), 01777), 0);
  setenv("VYN_IPC_DIR", open.c_str(), 1);
  EXPECT_EQ(xpclisten(server_, kAddr, 0, &l, 0), xpcretNOTAUTH);
  ASSERT_EQ(chmod(open.c_str(), 0775), 0);
  EXPECT_EQ(xpclisten(server_, kAddr, 0, &l, 0), xpcretNOTAUTH);

  // A symlink is not followed, even to a good directory.
  std::string link = dir_ + "/link";
  ASSERT_EQ(symlink(made.c_str(), link.c_str()), 0);
  setenv("VYN_IPC_DIR", link.c_str(), 1);
  EXPECT_EQ(xpclisten(server_, kAddr, 0, &l, 0), xpcretNOTAUTH);

  // Someone else's directory.
  if (geteuid() == 0) {
    std::string theirs = dir_ + "/theirs";
    ASSERT_EQ(mkdir(theirs.c_str(), 0755), 0);
    ASSERT_EQ(chown(theirs.c_str(), 65534, 65534), 0);
    setenv("VYN_IPC_DIR", theirs.c_str(), 1);
    EXPECT_EQ(xpclisten(server_, kAddr, 0, &l, 0), xpcretNOTAUTH);
  }
  EXPECT_EQ(l, nullptr);
}

TEST_F(XpcTest, TheLockNotAProbeDecidesWhetherASocketFileIsStale) {
  // A socket file that still answers, left by nobody who holds the lock: replaced.
  std::string path = dir_ + "/xpc.test";
  int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un sa{};
  sa.sun_family = AF_UNIX;
  std::strcpy(sa.sun_path, path.c_str());
  ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa), 0);
  ASSERT_EQ(listen(fd, 1), 0);
  xpccon* l = nullptr;
  ASSERT_EQ(xpclisten(server_, kAddr, 0, &l, 0), xpcretSUCC);
  close(fd);
  xpccon *c = nullptr, *s = nullptr;
  ASSERT_EQ(xpcconnect(client_, kAddr, 0, &c, nullptr, nullptr, nullptr, nullptr, 30, 2), xpcretSUCC);
  ASSERT_EQ(xpcanswer(l, 0, &s, 0, 0, 0, 0, 0, 32), xpcretSUCC);
  // While the lock is held nobody else listens there, and the file stays.
  xpccon* l2 = nullptr;
  EXPECT_EQ(xpclisten(server_, kAddr, 0, &l2, 0), xpcretENDPTUSED);
  struct stat st;
  EXPECT_EQ(stat(path.c_str(), &st), 0);
  xpcdisc(s);
  xpcdisc(c);
  xpcdisc(l);
}

TEST_F(XpcTest, AConnectionClosedWhileAnotherThreadSelectsStaysWholeUntilTheWaitEnds) {
  xpccon *l, *c, *s;
  pair(kAddr, &l, &c, &s);
  for (int round = 0; round < 20; ++round) {
    xpccon *c2 = nullptr, *s2 = nullptr;
    ASSERT_EQ(xpcconnect(client_, kAddr, 0, &c2, nullptr, nullptr, nullptr, nullptr, 30, 2), xpcretSUCC);
    ASSERT_EQ(xpcanswer(l, 0, &s2, 0, 0, 0, 0, 0, 32), xpcretSUCC);
    std::thread waiter([&] { xpcselect(client_, nullptr, 5, 0, XPC_WAIT_TIMED); });
    xpcdisc(c2);
    waiter.join();
    xpcdisc(s2);
  }
  xpcdisc(c);
  xpcdisc(s);
  xpcdisc(l);
}
