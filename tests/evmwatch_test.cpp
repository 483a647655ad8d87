// vyn_evmwatch as a whole program: events from the real daemon as they are posted, the daemon's
// going away with and without -r (and its restart), signals, the command line; and, against a
// fake daemon that records every byte, the filter request it sends, the missed-events notice and
// the filter kept on the client's side.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "evm/libevm/evm.h"
#include "evm/libevm/evm_comm_wire.h"
#include "daemon_runner.h"
#include "platform/xpc/xpc.h"
#include "program_runner.h"

namespace {

using vyntest::Outcome;

const char* kDaemonAddress = "(ADDRESS=(PROTOCOL=ipc)(KEY=SYSTEM.evm.acceptor.auth))";

int lines(const std::string& text) { return static_cast<int>(std::count(text.begin(), text.end(), '\n')); }

// Waits until `path` holds at least `n` lines, at most five seconds; its text.
std::string waitForLines(const std::string& path, int n) {
  std::string text;
  for (int i = 0; i < 500; ++i) {
    text = vyntest::slurp(path);
    if (lines(text) >= n) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return text;
}

void post(const char* name, const char* x) {
  EvmEvent_t ev = nullptr;
  ASSERT_EQ(EvmEventCreateVa(&ev, EvmITEM_NAME, name, 0), EvmERROR_NONE);
  EvmVarSetString(ev, "x", x);
  EXPECT_EQ(EvmEventPost(nullptr, ev), EvmERROR_NONE);
  EvmEventDestroy(ev);
}

class EvmwatchTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::create_directories(home_.root() + "/ipc");
    setenv("VYN_IPC_DIR", (home_.root() + "/ipc").c_str(), 1);
    setenv("ZEL_VYN_HOME", home_.home().c_str(), 1);
    setenv("VYN_REGISTRY", (home_.root() + "/registry.db").c_str(), 1);
    unsetenv("GMX_CLUSTERNAME");
    out_ = home_.work() + "/watch.out";
    err_ = home_.work() + "/watch.err";
  }
  // vyn_evmwatch with its output in out_ and err_, which the test reads while it runs.
  vyntest::Running watch(const std::string& args) {
    return vyntest::start("/bin/sh",
                          {"-c", "exec " + vyntest::binary("vyn_evmwatch") + " " + args + " > " + out_ + " 2> " + err_},
                          {{"ZEL_VYN_HOME", home_.home()},
                           {"VYN_IPC_DIR", home_.root() + "/ipc"},
                           {"VYN_REGISTRY", home_.root() + "/registry.db"}},
                          home_.work());
  }
  // Posts "warm" events until the watcher shows one: from then on it hears every post.
  void waitUntilListening() {
    for (int i = 0; i < 100; ++i) {
      post("sys.zel.test.warm", "w");
      if (lines(vyntest::slurp(out_)) > 0) return;
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    FAIL() << "the watcher never showed an event";
  }
  std::string afterWarmUp() {
    std::string text = vyntest::slurp(out_);
    std::string kept;
    for (std::size_t at = 0; at < text.size();) {
      std::size_t end = text.find('\n', at);
      std::string line = text.substr(at, end - at + 1);
      if (line.find("warm") == std::string::npos) kept += line;
      at = end + 1;
    }
    return kept;
  }

  vyntest::TempHome home_;
  std::string out_, err_;
};

TEST_F(EvmwatchTest, PrintsEventsAsPostedAndSaysOnceWhenTheDaemonGoes) {
  auto d = std::make_unique<vyntest::Daemon>(home_);
  ASSERT_NE(d->banner().find("listening on"), std::string::npos);
  vyntest::Running w = watch("-t '@name $x'");
  waitUntilListening();
  post("sys.zel.test.one", "1");
  post("sys.zel.test.two", "two\tand\x01");
  for (int i = 0; i < 500 && lines(afterWarmUp()) < 2; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_EQ(afterWarmUp(), "sys.zel.test.one 1\nsys.zel.test.two two and#\n");
  EXPECT_EQ(d->stop(), 0);
  Outcome o = w.wait(5000);
  EXPECT_EQ(o.status, 1);
  EXPECT_EQ(vyntest::slurp(err_), "EVM-0067: The connection to the event daemon was lost\n");
}

TEST_F(EvmwatchTest, AFilterTakenByTheDaemonPassesOnlyMatchingNames) {
  auto d = std::make_unique<vyntest::Daemon>(home_);
  vyntest::Running w = watch("-n 'sys.zel.test.?' -t '@name $x'");
  waitUntilListening();  // sys.zel.test.warm matches
  post("sys.zel.other.one", "no");
  post("sys.zel.test.deeper.two", "no");
  post("sys.zel.test.three", "yes");
  for (int i = 0; i < 500 && lines(afterWarmUp()) < 1; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_EQ(afterWarmUp(), "sys.zel.test.three yes\n");
  EXPECT_EQ(vyntest::slurp(err_), "") << "the daemon took the filter";
  kill(w.pid(), SIGTERM);
  EXPECT_EQ(w.wait(5000).status, 0);
}

TEST_F(EvmwatchTest, ReconnectsToARestartedDaemonAndEndsCleanlyOnASignal) {
  auto d = std::make_unique<vyntest::Daemon>(home_);
  vyntest::Running w = watch("-r -j");
  waitUntilListening();
  d.reset();  // stopped by pid
  for (int i = 0; i < 300 && vyntest::slurp(err_).empty(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  d = std::make_unique<vyntest::Daemon>(home_);
  for (int i = 0; i < 500 && lines(vyntest::slurp(err_)) < 2; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  post("sys.zel.test.after", "back");
  for (int i = 0; i < 500 && afterWarmUp().empty(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  std::string json = afterWarmUp();
  EXPECT_EQ(json.substr(0, 29), "{\"name\":\"sys.zel.test.after\",");
  EXPECT_NE(json.find("\"variables\":{\"x\":{\"type\":\"STRING\",\"value\":\"back\"}}}\n"), std::string::npos) << json;
  kill(w.pid(), SIGINT);
  Outcome o = w.wait(5000);
  EXPECT_EQ(o.status, 0);
  EXPECT_EQ(vyntest::slurp(err_),
            "EVM-0067: The connection to the event daemon was lost\n"
            "EVM-0069: Connected to the event daemon again\n");
}

TEST_F(EvmwatchTest, NoDaemonIsStatusOneABadCommandLineTwo) {
  vyntest::Running w = watch("");
  EXPECT_EQ(w.wait(5000).status, 1);
  EXPECT_EQ(vyntest::slurp(err_), "EVM-0068: Cannot connect to the event daemon: Connection error\n");
  for (const char* args : {"-x", "-n 'a.b*'", "-d -j", "extra", "-h ''", "-h host:port"}) {
    vyntest::Running bad = watch(args);
    EXPECT_EQ(bad.wait(5000).status, 2) << args;
    EXPECT_NE(vyntest::slurp(err_).find("usage: vyn_evmwatch"), std::string::npos) << args;
  }
}

TEST_F(EvmwatchTest, OverTcpOnlyADaemonThatLetsTcpPeersListenIsWatched) {
  // The daemon publishes its TCP port in the registry, which must exist for that.
  vyntest::Outcome made = vyntest::run(vyntest::binary("vyn_vrg"), {"set", "SYSTEM.test.made", "1"},
                                       {{"VYN_REGISTRY", home_.root() + "/registry.db"}}, home_.work());
  ASSERT_EQ(made.status, 0) << made.err;
  char host[256];
  ASSERT_EQ(gethostname(host, sizeof host), 0);
  for (bool allowed : {false, true}) {
    std::vector<std::string> args = {"-tcp", "127.0.0.1:0"};
    if (allowed) args.push_back("-tcplisten");
    auto d = std::make_unique<vyntest::Daemon>(home_, args);
    ASSERT_NE(d->banner().find("PROTOCOL=tcp"), std::string::npos) << d->banner();
    vyntest::Running w = watch("-h " + std::string(host) + " -t '@name'");
    if (!allowed) {
      EXPECT_EQ(w.wait(5000).status, 1);
      EXPECT_EQ(vyntest::slurp(err_).rfind("EVM-0068: Cannot connect to the event daemon: ", 0), 0u)
          << vyntest::slurp(err_);
      continue;
    }
    waitUntilListening();
    kill(w.pid(), SIGTERM);
    EXPECT_EQ(w.wait(5000).status, 0);
    EXPECT_EQ(vyntest::slurp(err_), "");
  }
}

// A daemon that answers by hand and keeps what the client sent.
class FakeDaemon {
 public:
  FakeDaemon() {
    xpcctx* ctx = nullptr;
    xpcugblm* g = nullptr;
    xpccon* l = nullptr;
    xpcinit(0, 0, &ctx, 0);
    ctx_.reset(ctx);
    xpcugblmini(ctx, &g, 0);
    g_.reset(g);
    ok_ = xpclisten(g, kDaemonAddress, 0, &l, 0) == xpcretSUCC;
    listener_.reset(l);
  }
  bool ok() const { return ok_; }
  bool accept() {
    xpccon* c = nullptr;
    if (xpcanswer(listener_.get(), 0, &c, 0, 0, 0, 0, 0, 0) != xpcretSUCC) return false;
    con_.reset(c);
    return true;
  }
  // One message, at most five seconds away; empty when none came.
  std::vector<unsigned char> receive() {
    std::vector<unsigned char> buf(64 * 1024);
    std::uint32_t n = 0;
    if (xpcreceive(con_.get(), buf.data(), static_cast<std::uint32_t>(buf.size()), 5000, 0, XPC_WAIT_TIMED, &n) !=
        xpcretSUCC)
      n = 0;
    buf.resize(n);
    return buf;
  }
  void head(std::uint32_t type, std::uint32_t flags, std::uint64_t data, std::uint32_t bodySize) {
    EvmCommHead_t h = evmCommHead(type, flags, data, bodySize);
    xpcsend(con_.get(), &h, EVM_COMM_HEAD_SIZE);
  }
  void notify(EvmEvent_t ev) {
    EvmUint32_t len = 0;
    const void* block = EvmEventWriteBuf(&len, ev);
    head(EvmCOMM_NOTIFY, 0, 0, len);
    xpcsend(con_.get(), block, len);
  }
  void close() { con_.reset(); }

 private:
  XpcCtx ctx_;
  XpcGroup g_;
  XpcCon listener_;
  XpcCon con_;
  bool ok_ = false;
};

TEST_F(EvmwatchTest, SendsTheFilterAsAgreedAndReportsMissedEvents) {
  FakeDaemon fake;
  ASSERT_TRUE(fake.ok());
  vyntest::Running w = watch("-n 'sys.zel.*.res.?' -t '@name'");
  ASSERT_TRUE(fake.accept());
  std::vector<unsigned char> h = fake.receive();
  ASSERT_EQ(h.size(), EVM_COMM_HEAD_SIZE);
  ASSERT_EQ(evmLoad32(h.data(), EVM_COMM_OFF_TYPE), EvmCOMM_CONNECT_REQ);
  ASSERT_FALSE(fake.receive().empty());  // the connect request itself
  fake.head(EvmCOMM_CONNECT_RSP, 0, 0, 0);

  const std::string pattern = "sys.zel.*.res.?";
  h = fake.receive();
  ASSERT_EQ(h.size(), EVM_COMM_HEAD_SIZE);
  EXPECT_EQ(evmLoad32(h.data(), EVM_COMM_OFF_TYPE), EvmCOMM_SUBSCRIPTION_REQ);
  EXPECT_EQ(evmLoad32(h.data(), EVM_COMM_OFF_FLAGS), 0u);
  const std::uint32_t bodySize = static_cast<std::uint32_t>(48 + pattern.size() + 1);
  EXPECT_EQ(evmLoad32(h.data(), EVM_COMM_OFF_BODY_SIZE), bodySize);
  std::vector<unsigned char> body = fake.receive();
  ASSERT_EQ(body.size(), bodySize);
  EXPECT_EQ(evmLoad32(body.data(), 0), bodySize);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(body.data()) + 48, pattern.size() + 1),
            std::string(pattern.c_str(), pattern.size() + 1));
  fake.head(EvmCOMM_SUBSCRIPTION_RSP, 0, 0, 0);

  fake.head(EvmCOMM_FLAGS, evmCommFlag(EvmCOMMFLAG_EVENT_LOST), 0x100000007ULL, 0);
  for (const char* name : {"sys.zel.clu.res.a", "sys.zel.clu.res.a.b", "sys.zel.x.y.res.b"}) {
    EvmEvent_t ev = nullptr;
    ASSERT_EQ(EvmEventCreateVa(&ev, EvmITEM_NAME, name, 0), EvmERROR_NONE);
    fake.notify(ev);
    EvmEventDestroy(ev);
  }
  EXPECT_EQ(waitForLines(out_, 2), "sys.zel.clu.res.a\nsys.zel.x.y.res.b\n");
  fake.close();
  Outcome o = w.wait(5000);
  EXPECT_EQ(o.status, 1);
  EXPECT_EQ(vyntest::slurp(out_), "sys.zel.clu.res.a\nsys.zel.x.y.res.b\n");
  EXPECT_EQ(vyntest::slurp(err_),
            "EVM-0066: 7 events were missed\n"
            "EVM-0067: The connection to the event daemon was lost\n");
}

}  // namespace
