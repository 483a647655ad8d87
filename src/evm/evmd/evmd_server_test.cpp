// The server in this process, its log's file calls watched or failing on demand: no answer leaves
// before a finished sync covers its event, a post whose event could not be written or synced is
// answered as a failure, and connections are capped per user.
#include "evm/evmd/evmd_server.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <mutex>
#include <thread>

#include "evm/evmd/evmd_test_util.h"

namespace {

using evmdtest::Bytes;

const char* kAddr = "(ADDRESS=(PROTOCOL=ipc)(KEY=evmd.server.test))";

// A client that writes every byte itself.
class Raw {
 public:
  Raw() {
    xpcctx* ctx = nullptr;
    xpcugblm* g = nullptr;
    xpcinit(0, 0, &ctx, 0);
    ctx_.reset(ctx);
    xpcugblmini(ctx, &g, 0);
    group_.reset(g);
    xpccon* c = nullptr;
    xpcconnect(g, kAddr, 0, &c, nullptr, nullptr, nullptr, nullptr, 30, 2);
    con_.reset(c);
  }
  void send(const Bytes& b) { xpcsend(con_.get(), b.data(), static_cast<std::uint32_t>(b.size())); }
  void head(std::uint32_t type, std::uint64_t data, std::uint32_t body) {
    EvmCommHead_t h = evmCommHead(type, 0, data, body);
    xpcsend(con_.get(), &h, sizeof h);
  }
  // The connect answer's flags, or -1 when the daemon closed the connection instead.
  long long connect() {
    std::size_t len = _evmGetConnectReqDataSize();
    Bytes req(len, 0);
    _evmFillTransportHeader(req.data(), static_cast<EvmUint32_t>(len));
    evmStore32(req.data(), EVM_CONNREQ_OFF_CONNECTOR, EvmCOMM_POSTER);
    uid_t me = geteuid();
    std::memcpy(_evmGetConnectReqDataUidPtr(req.data()), &me, _evmGetUidSize());
    head(EvmCOMM_CONNECT_REQ, 0, static_cast<std::uint32_t>(len));
    send(req);
    EvmCommHead_t a{};
    return answer(&a) ? static_cast<long long>(a.flags) : -1;
  }
  bool answer(EvmCommHead_t* a) {
    std::uint32_t n = 0;
    return xpcreceive(con_.get(), a, sizeof *a, 10000, 0, XPC_WAIT_TIMED, &n) == xpcretSUCC && n == sizeof *a;
  }
  std::uint32_t post(const Bytes& block, std::uint64_t token) {
    head(EvmCOMM_POST_REQ, token, static_cast<std::uint32_t>(block.size()));
    send(block);
    EvmCommHead_t a{};
    return answer(&a) && a.headerData == token ? a.flags : 0xffffffffu;
  }

 private:
  XpcCtx ctx_;
  XpcGroup group_;
  XpcCon con_;
};

class ServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("VYN_IPC_DIR", (dir_.path() + "/ipc").c_str(), 1);
    options_.home = dir_.path();
    options_.localAddress = kAddr;
    options_.logIo = &io_;
  }
  void start() {
    server_ = std::make_unique<evmd::Server>(options_);
    thread_ = std::thread([this] { server_->run(); });
  }
  void TearDown() override {
    if (server_ != nullptr) {
      server_->requestStop();
      thread_.join();
    }
  }
  evmdtest::ScratchDir dir_;
  evmdtest::FailingIo io_;
  evmd::Options options_;
  std::unique_ptr<evmd::Server> server_;
  std::thread thread_;
};

TEST_F(ServerTest, ASocketPathTooLongForALocalSocketIsSaidInPlainWords) {
  const std::string deep = dir_.path() + "/" + std::string(100, 'd');
  setenv("VYN_IPC_DIR", deep.c_str(), 1);
  const std::string path = deep + "/evmd.server.test";
  try {
    evmd::Server server(options_);
    FAIL() << "the daemon started on a path no local socket can have";
  } catch (const evmd::ServerError& e) {
    EXPECT_EQ(std::string(e.what()), "cannot listen on " + std::string(kAddr) + ": its socket path " + path + " has " +
                                         std::to_string(path.size()) +
                                         " bytes, and a local socket's path at most 107 (a shorter VYN_IPC_DIR or "
                                         "cluster name helps)");
  }
}

TEST_F(ServerTest, APostWhoseEventCouldNotBeWrittenOrSyncedIsAnsweredAsAFailure) {
  options_.sync = evmd::SyncPolicy::Group;
  start();
  Raw c;
  ASSERT_EQ(c.connect(), 0);
  Bytes ev = evmdtest::block("sys.zel.test.server");
  EXPECT_EQ(c.post(ev, 1), 0u);
  io_.failWrites = true;
  EXPECT_EQ(c.post(ev, 2), evmCommFlag(EvmCOMMFLAG_RESOURCE_FAILURE));
  io_.failWrites = false;
  io_.failSyncs = true;
  EXPECT_EQ(c.post(ev, 3), evmCommFlag(EvmCOMMFLAG_RESOURCE_FAILURE));
  io_.failSyncs = false;
  EXPECT_EQ(c.post(ev, 4), 0u);
  server_->requestStop();
  thread_.join();
  server_.reset();
  EXPECT_EQ(evmdtest::names(dir_.path() + "/log/evm/events.log").size(), 2u);
}

// Watches the log's file calls: every write, and which of them a finished sync covers (a sync
// covers what was written before it began). Each sync takes a while, as a disk's does.
class WatchedIo : public evmd::LogIo {
 public:
  ssize_t pwrite(int fd, const void* buffer, std::size_t size, off_t offset) override {
    ssize_t n = evmd::LogIo::pwrite(fd, buffer, size, offset);
    if (n > 0) {
      std::lock_guard<std::mutex> l(m_);
      writes_.push_back({static_cast<std::size_t>(offset), std::string(static_cast<const char*>(buffer),
                                                                       static_cast<std::size_t>(n))});
    }
    return n;
  }
  int fdatasync(int fd) override {
    std::size_t covers;
    {
      std::lock_guard<std::mutex> l(m_);
      covers = writes_.size();
      ++syncs_;
    }
    usleep(2000);
    int r = evmd::LogIo::fdatasync(fd);
    std::lock_guard<std::mutex> l(m_);
    if (r == 0) durable_ = std::max(durable_, covers);
    return r;
  }
  // Whether the event named `name` lies wholly in what finished syncs cover: the file as those
  // writes alone would have made it.
  bool durable(const std::string& name) {
    std::lock_guard<std::mutex> l(m_);
    std::string image;
    for (std::size_t i = 0; i < durable_; ++i) {
      const auto& w = writes_[i];
      if (image.size() < w.first + w.second.size()) image.resize(w.first + w.second.size());
      image.replace(w.first, w.second.size(), w.second);
    }
    return image.find(name + '\0') != std::string::npos;
  }
  int syncs() {
    std::lock_guard<std::mutex> l(m_);
    return syncs_;
  }

 private:
  std::mutex m_;
  std::vector<std::pair<std::size_t, std::string>> writes_;
  std::size_t durable_ = 0;
  int syncs_ = 0;
};

TEST_F(ServerTest, NoAnswerLeavesBeforeAFinishedSyncCoversItsEventAndWaitingPostersShareASync) {
  WatchedIo io;
  options_.logIo = &io;
  start();
  constexpr int kPosters = 8, kEach = 40;
  std::atomic<int> early{0}, failed{0};
  std::vector<std::thread> posters;
  for (int t = 0; t < kPosters; ++t)
    posters.emplace_back([&, t] {
      Raw c;
      if (c.connect() != 0) {
        failed += kEach;
        return;
      }
      for (int i = 0; i < kEach; ++i) {
        char name[64];
        std::snprintf(name, sizeof name, "sys.zel.test.t%d.n%03d", t, i);
        if (c.post(evmdtest::block(name), static_cast<std::uint64_t>(i)) != 0) ++failed;
        // The answer is here: the event must already be on the disk.
        if (!io.durable(name)) ++early;
      }
    });
  for (auto& p : posters) p.join();
  EXPECT_EQ(failed.load(), 0);
  EXPECT_EQ(early.load(), 0) << "answers that left before a finished sync covered their event";
  EXPECT_LT(io.syncs(), kPosters * kEach) << "posters that waited during a sync did not share the next";
  server_->requestStop();
  thread_.join();
  server_.reset();
  EXPECT_EQ(evmdtest::names(dir_.path() + "/log/evm/events.log").size(), static_cast<std::size_t>(kPosters * kEach));
}

TEST_F(ServerTest, UnderTheIntervalPolicyAnswersLeaveOnceWrittenAndSyncsWaitForTheInterval) {
  WatchedIo io;
  options_.logIo = &io;
  options_.sync = evmd::SyncPolicy::Interval;
  options_.syncIntervalMs = 60000;
  start();
  Raw c;
  ASSERT_EQ(c.connect(), 0);
  for (int i = 0; i < 20; ++i) EXPECT_EQ(c.post(evmdtest::block("sys.zel.test.i" + std::to_string(i)), 1), 0u);
  EXPECT_LE(io.syncs(), 1) << "the interval policy synced per post";
  server_->requestStop();
  thread_.join();
  server_.reset();
  EXPECT_TRUE(io.durable("sys.zel.test.i19")) << "the stop did not sync what was written";
  EXPECT_EQ(evmdtest::names(dir_.path() + "/log/evm/events.log").size(), 20u);
}

TEST_F(ServerTest, ConnectionsAreCappedPerUserAndAPlaceIsFreedWhenOneEnds) {
  options_.maxClientsPerUser = 2;
  start();
  auto a = std::make_unique<Raw>();
  Raw b, c;
  EXPECT_EQ(a->connect(), 0);
  EXPECT_EQ(b.connect(), 0);
  EXPECT_EQ(c.connect(), -1);  // the third of one user is closed at once
  a.reset();
  long long got = -1;
  for (int i = 0; i < 200 && got != 0; ++i) {
    Raw again;
    got = again.connect();
    if (got != 0) usleep(10000);
  }
  EXPECT_EQ(got, 0);
}

}  // namespace

namespace {

TEST(TcpAdmissionTest, OnlyLoopbackIsAdmittedUntilMembershipNamesTheNodes) {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  for (const char* ip : {"127.0.0.1", "127.1.2.3"}) {
    inet_pton(AF_INET, ip, &a.sin_addr);
    EXPECT_TRUE(evmd::tcpPeerAllowed(a)) << ip;
  }
  for (const char* ip : {"10.0.0.1", "192.168.1.1", "0.0.0.0", "128.0.0.1"}) {
    inet_pton(AF_INET, ip, &a.sin_addr);
    EXPECT_FALSE(evmd::tcpPeerAllowed(a)) << ip;
  }
}

}  // namespace
