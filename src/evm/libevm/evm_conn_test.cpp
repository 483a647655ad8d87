// Connections and posting against a scripted daemon inside the test: the bytes of the connect and
// the post, and what the library makes of refusals, rejections, wrong messages and a daemon that
// goes away at each step.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "evm/libevm/evm.h"

namespace {

const char* kDaemon = "(ADDRESS=(PROTOCOL=ipc)(KEY=SYSTEM.evm.acceptor.auth))";

// One message from the peer's side.
std::vector<unsigned char> take(xpccon* con) {
  std::vector<unsigned char> m(1 << 20);
  std::uint32_t n = 0;
  if (xpcreceive(con, m.data(), m.size(), 5000, 0, XPC_WAIT_TIMED, &n) != xpcretSUCC) return {};
  m.resize(n);
  return m;
}

void give(xpccon* con, std::uint32_t type, std::uint32_t flags, std::uint64_t headerData = 0) {
  EvmCommHead_t h = evmCommHead(type, flags, headerData, 0);
  xpcsend(con, &h, EVM_COMM_HEAD_SIZE);
}

EvmCommHead_t headOf(const std::vector<unsigned char>& m) {
  EvmCommHead_t h{};
  if (m.size() == EVM_COMM_HEAD_SIZE) std::memcpy(&h, m.data(), sizeof h);
  return h;
}

// A daemon that runs `script` on each connection it takes, one at a time, on its own thread.
class FakeDaemon {
 public:
  using Script = std::function<void(xpccon*)>;
  explicit FakeDaemon(Script script) : script_(std::move(script)) {
    xpcinit(0, 0, &ctx_, 0);
    xpcugblmini(ctx_, &group_, 0);
    EXPECT_EQ(xpclisten(group_, kDaemon, 0, &listener_, 0), xpcretSUCC);
    thread_ = std::thread([this] {
      for (;;) {
        xpccon* c = nullptr;
        if (xpcanswer(listener_, 0, &c, 0, 0, 0, 0, 0, 32) != xpcretSUCC || stop_) {
          if (c) xpcdisc(c);
          return;
        }
        script_(c);
        if (c != nullptr) xpcdisc(c);
      }
    });
  }
  ~FakeDaemon() {
    stop_ = true;
    // Wake the accept with a connection of our own.
    xpccon* poke = nullptr;
    xpcconnect(group_, kDaemon, 0, &poke, nullptr, nullptr, nullptr, nullptr, 30, 2);
    thread_.join();
    if (poke) xpcdisc(poke);
    xpcdisc(listener_);
    xpcugblmterm(group_);
    xpcterm(ctx_);
  }

 private:
  Script script_;
  xpcctx* ctx_ = nullptr;
  xpcugblm* group_ = nullptr;
  xpccon* listener_ = nullptr;
  std::thread thread_;
  std::atomic<bool> stop_{false};
};

// Takes the connect head and request and answers with `flags`; false if the client sent no connect.
bool acceptConnect(xpccon* c, std::uint32_t flags = 0, std::vector<unsigned char>* request = nullptr) {
  EvmCommHead_t h = headOf(take(c));
  if (h.type != EvmCOMM_CONNECT_REQ) return false;
  auto req = take(c);
  if (request != nullptr) *request = req;
  give(c, EvmCOMM_CONNECT_RSP, flags);
  return true;
}

class ConnTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/evm_conn_test.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    setenv("VYN_IPC_DIR", dir_.c_str(), 1);
    unsetenv("GMX_CLUSTERNAME");
    ASSERT_EQ(EvmEventCreateVa(&event_, EvmITEM_NAME, "sys.zel.test.conn", EvmITEM_NONE), EvmERROR_NONE);
  }
  void TearDown() override {
    EvmEventDestroy(event_);
    std::filesystem::remove_all(dir_);
  }
  EvmStatus_t connect(EvmConnection_t* c, EvmResponseMode_t mode = EvmRESPONSE_WAIT) {
    return EvmConnCreate(EvmCONNECTION_POST, mode, nullptr, nullptr, nullptr, c);
  }
  std::string dir_;
  EvmEvent_t event_ = nullptr;
};

TEST_F(ConnTest, ConnectAndPostPutExactBytesOnTheWire) {
  std::vector<unsigned char> request, postHead, block;
  FakeDaemon d([&](xpccon* c) {
    if (!acceptConnect(c, 0, &request)) return;
    postHead = take(c);
    block = take(c);
    give(c, EvmCOMM_POST_RSP, 0, headOf(postHead).headerData);
  });
  EvmConnection_t conn = nullptr;
  ASSERT_EQ(connect(&conn), EvmERROR_NONE);
  ASSERT_EQ(EvmEventPost(conn, event_), EvmERROR_NONE);
  EXPECT_EQ(EvmConnDestroy(conn), EvmERROR_NONE);

  // Connect request: 48-byte transport header, connector, name length, pid and uid of 4 bytes each.
  ASSERT_EQ(request.size(), 64u);
  EXPECT_EQ(evmLoad32(request.data(), 0), 64u);
  EXPECT_EQ(evmLoad32(request.data(), EVM_CONNREQ_OFF_CONNECTOR), static_cast<std::uint32_t>(EvmCOMM_POSTER));
  EXPECT_EQ(evmLoad32(request.data(), EVM_CONNREQ_OFF_NAME_LEN), 0u);
  EXPECT_EQ(evmLoad32(request.data(), EVM_CONNREQ_OFF_PID), static_cast<std::uint32_t>(getpid()));
  EXPECT_EQ(evmLoad32(request.data(), evmConnReqUidOffset(4)), static_cast<std::uint32_t>(geteuid()));

  // Post head: fixed words, the handle as headerData, the block's size as bodySize.
  ASSERT_EQ(postHead.size(), EVM_COMM_HEAD_SIZE);
  EvmCommHead_t h = headOf(postHead);
  EXPECT_EQ(h.clschdr.clschdr.size_xpcmsgh, EVM_COMM_HEAD_SIZE);
  EXPECT_EQ(h.ident, 104);
  EXPECT_EQ(h.version, 3);
  EXPECT_EQ(h.type, static_cast<std::uint32_t>(EvmCOMM_POST_REQ));
  EXPECT_EQ(h.flags, 0u);
  EXPECT_EQ(h.magic, 0x01020304u);
  EXPECT_EQ(h.headerData, reinterpret_cast<std::uintptr_t>(event_));
  EXPECT_EQ(h.bodySize, block.size());
  EXPECT_EQ(h.sessionID, 0u);
  // The block went out checksummed, stamped, and whole: the reader's checks accept it.
  ASSERT_GE(block.size(), EVM_HEAD_SIZE);
  EXPECT_EQ(evmLoad32(block.data(), 0), block.size());
  auto* copy = static_cast<EvmEventHead_t*>(std::malloc(block.size()));
  std::memcpy(copy, block.data(), block.size());
  EXPECT_TRUE(copy->flags & evmFlagMask(EvmFLAG_CHECKSUM_PRESENT));
  EXPECT_TRUE(copy->fldPresBits & (1u << EvmITEM_TIMESTAMP));
  EXPECT_EQ(_evmTestChecksum(copy), EvmERROR_NONE);
  EvmEvent_t got = _evmMakeEvent(copy);
  ASSERT_NE(got, nullptr);
  EvmEventDestroy(got);
}

TEST_F(ConnTest, DaemonDownGivesAReadableConnectError) {
  EvmConnection_t conn = reinterpret_cast<EvmConnection_t>(1);
  EXPECT_EQ(connect(&conn), EvmERROR_CONNECT);
  EXPECT_EQ(conn, nullptr);
  EXPECT_EQ(EvmEventPost(nullptr, event_), EvmERROR_CONNECT);
  EXPECT_EQ(connect(nullptr), EvmERROR_INVALID_ARGUMENT);
  EXPECT_EQ(EvmConnCreate(EvmCONNECTION_LISTEN, EvmRESPONSE_WAIT, nullptr, nullptr, nullptr, &conn),
            EvmERROR_INVALID_ARGUMENT);
  EXPECT_EQ(EvmConnCreate(EvmCONNECTION_POST, EvmRESPONSE_CALLBACK, nullptr, nullptr, nullptr, &conn),
            EvmERROR_INVALID_ARGUMENT);
}

TEST_F(ConnTest, AddressStringsAndDottedNumbers) {
  char* s = _evmdConnString(0);
  EXPECT_STREQ(s, kDaemon);
  std::free(s);
  cls_in_addr_t a = 0;
  EXPECT_EQ(_evminet_aton("10.1", &a), 1);
  EXPECT_EQ(a, htonl(0x0a010000));
  EXPECT_EQ(_evminet_aton("1.2.3.4.5", &a), 0);
  EXPECT_EQ(_evminet_aton("300.1.1.1", &a), 0);
  EXPECT_EQ(_evminet_aton("1.2.x.4", &a), 0);
  char host[64] = "node7.cluster.example";
  EXPECT_STREQ(_StripHostKey(host), "node7");
  // A local address of 255 characters is taken (the daemon just isn't there); 256 is refused.
  std::string name(255, 'x');
  EvmTransport_t t{};
  t.type = EvmTRANSPORT_DOMAIN_SOCKET;
  t.data.domainSocket.name = &name[0];
  EvmConnection_t conn = nullptr;
  EXPECT_EQ(EvmConnCreate(EvmCONNECTION_POST, EvmRESPONSE_WAIT, &t, nullptr, nullptr, &conn), EvmERROR_CONNECT);
  name.push_back('x');
  t.data.domainSocket.name = &name[0];
  EXPECT_EQ(EvmConnCreate(EvmCONNECTION_POST, EvmRESPONSE_WAIT, &t, nullptr, nullptr, &conn),
            EvmERROR_INVALID_ARGUMENT);
}

TEST_F(ConnTest, RefusedConnectAndRejectedOrInvalidPosts) {
  {
    FakeDaemon d([](xpccon* c) { acceptConnect(c, evmCommFlag(EvmCOMMFLAG_CONNECTION_REFUSED)); });
    EvmConnection_t conn = nullptr;
    EXPECT_EQ(connect(&conn), EvmERROR_CONNECTION_REFUSED);
  }
  FakeDaemon d([](xpccon* c) {
    if (!acceptConnect(c)) return;
    for (std::uint32_t flags : {evmCommFlag(EvmCOMMFLAG_EVENT_REJECTED), evmCommFlag(EvmCOMMFLAG_INVALID_DATA), 0u}) {
      EvmCommHead_t h = headOf(take(c));
      take(c);
      give(c, EvmCOMM_POST_RSP, flags, h.headerData);
    }
  });
  EvmConnection_t conn = nullptr;
  ASSERT_EQ(connect(&conn), EvmERROR_NONE);
  // A rejection leaves the connection usable.
  EXPECT_EQ(EvmEventPost(conn, event_), EvmERROR_EVENT_REJECTED);
  EXPECT_EQ(EvmEventPost(conn, event_), EvmERROR_EVENT_NOT_VALID);
  EXPECT_EQ(EvmEventPost(conn, event_), EvmERROR_NONE);
  EvmConnDestroy(conn);
}

TEST_F(ConnTest, WrongMessagesAreProtocolErrorsThatDisable) {
  // A message of type 3 in answer to a post, and an answer when none is awaited.
  for (std::uint32_t type : {static_cast<std::uint32_t>(EvmCOMM_AUTHENT_REQ), static_cast<std::uint32_t>(EvmCOMM_POST_RSP)}) {
    std::atomic<bool> sent{false};
    FakeDaemon d([&](xpccon* c) {
      if (!acceptConnect(c)) return;
      if (type == EvmCOMM_POST_RSP) {
        give(c, EvmCOMM_POST_RSP, 0);  // unasked
        sent = true;
        take(c);  // hold the connection until the client ends it
        return;
      }
      take(c);
      take(c);
      give(c, type, 0);
      take(c);
    });
    EvmConnection_t conn = nullptr;
    ASSERT_EQ(connect(&conn), EvmERROR_NONE);
    if (type == EvmCOMM_POST_RSP) {
      EXPECT_EQ(EvmConnWait(conn, nullptr), EvmERROR_NONE);
      EXPECT_EQ(EvmConnDispatch(conn), EvmERROR_PROTOCOL);
    } else {
      EXPECT_EQ(EvmEventPost(conn, event_), EvmERROR_PROTOCOL);
    }
    // Disabled for good: the next post fails before anything is sent.
    EXPECT_EQ(EvmEventPost(conn, event_), EvmERROR_CONNECTION_LOST);
    EvmConnDestroy(conn);
  }
}

TEST_F(ConnTest, DaemonGoneAfterConnectOrWhileAPostWaits) {
  {
    FakeDaemon d([](xpccon* c) { acceptConnect(c); });  // then hangs up
    EvmConnection_t conn = nullptr;
    ASSERT_EQ(connect(&conn), EvmERROR_NONE);
    EXPECT_EQ(EvmEventPost(conn, event_), EvmERROR_CONNECTION_LOST);
    EvmConnDestroy(conn);
  }
  {
    FakeDaemon d([](xpccon* c) {
      if (!acceptConnect(c)) return;
      take(c);
      take(c);  // has the whole post, and goes away without answering
    });
    EvmConnection_t conn = nullptr;
    ASSERT_EQ(connect(&conn), EvmERROR_NONE);
    EXPECT_EQ(EvmEventPost(conn, event_), EvmERROR_CONNECTION_LOST);
    EvmConnDestroy(conn);
  }
  {
    FakeDaemon d([](xpccon* c) { take(c); });  // never answers the connect
    EvmConnection_t conn = nullptr;
    EXPECT_EQ(connect(&conn), EvmERROR_CONNECTION_LOST);
  }
}

TEST_F(ConnTest, IgnoreModeSetsDoNotAckAndCheckReportsIdle) {
  std::vector<unsigned char> postHead;
  std::atomic<bool> done{false};
  FakeDaemon d([&](xpccon* c) {
    if (!acceptConnect(c)) return;
    postHead = take(c);
    take(c);
    done = true;
    take(c);
  });
  EvmConnection_t conn = nullptr;
  ASSERT_EQ(connect(&conn, EvmRESPONSE_IGNORE), EvmERROR_NONE);
  EvmBoolean_t ready = EvmTRUE;
  EXPECT_EQ(EvmConnCheck(conn, &ready), EvmERROR_NONE);
  EXPECT_EQ(ready, EvmFALSE);
  EXPECT_EQ(EvmEventPost(conn, event_), EvmERROR_NONE);
  EvmConnDestroy(conn);
  while (!done) std::this_thread::yield();
  EXPECT_EQ(headOf(postHead).flags, evmCommFlag(EvmCOMMFLAG_DO_NOT_ACK));
}

TEST_F(ConnTest, EightThreadsShareOneConnection) {
  constexpr int kThreads = 8, kEach = 50;
  // Answers come in the order posts arrived; each must reach the thread that posted.
  FakeDaemon d([&](xpccon* c) {
    if (!acceptConnect(c)) return;
    for (int i = 0; i < kThreads * kEach; ++i) {
      EvmCommHead_t h = headOf(take(c));
      auto block = take(c);
      if (h.type != EvmCOMM_POST_REQ || block.size() != h.bodySize) return;
      // Posts whose event carries a priority are refused, the rest taken.
      EvmEventHead_t head;
      std::memcpy(&head, block.data(), sizeof head);
      bool reject = head.fldPresBits & (1u << EvmITEM_PRIORITY);
      give(c, EvmCOMM_POST_RSP, reject ? evmCommFlag(EvmCOMMFLAG_EVENT_REJECTED) : 0, h.headerData);
    }
  });
  EvmConnection_t conn = nullptr;
  ASSERT_EQ(connect(&conn), EvmERROR_NONE);
  std::atomic<int> wrong{0};
  std::vector<std::thread> ts;
  for (int t = 0; t < kThreads; ++t)
    ts.emplace_back([&, t] {
      EvmEvent_t ev = nullptr;
      if (t % 2 == 0)
        EvmEventCreateVa(&ev, EvmITEM_NAME, "sys.zel.test.even", EvmITEM_NONE);
      else
        EvmEventCreateVa(&ev, EvmITEM_NAME, "sys.zel.test.odd", EvmITEM_PRIORITY, 200, EvmITEM_NONE);
      for (int i = 0; i < kEach; ++i) {
        EvmStatus_t st = EvmEventPost(conn, ev);
        if (st != (t % 2 == 0 ? EvmERROR_NONE : EvmERROR_EVENT_REJECTED)) ++wrong;
      }
      EvmEventDestroy(ev);
    });
  for (auto& th : ts) th.join();
  EXPECT_EQ(wrong.load(), 0);
  EvmConnDestroy(conn);
}

TEST_F(ConnTest, EventReadTakesAMessageLongerThanItsBuffer) {
  xpcctx* ctx = EvmInitxpcctx();
  xpcugblm* g = nullptr;
  xpcugblmini(ctx, &g, 0);
  xpccon *l = nullptr, *a = nullptr, *b = nullptr;
  ASSERT_EQ(xpclisten(g, kDaemon, 0, &l, 0), xpcretSUCC);
  ASSERT_EQ(xpcconnect(g, kDaemon, 0, &a, nullptr, nullptr, nullptr, nullptr, 30, 2), xpcretSUCC);
  ASSERT_EQ(xpcanswer(l, 0, &b, 0, 0, 0, 0, 0, 32), xpcretSUCC);
  std::string big(40000, 'v');
  EvmEvent_t ev = nullptr;
  ASSERT_EQ(EvmEventCreateVa(&ev, EvmITEM_NAME, "sys.zel.test.big", EvmITEM_NONE), EvmERROR_NONE);
  ASSERT_EQ(EvmVarSetString(ev, "text", big.c_str()), EvmERROR_NONE);
  ASSERT_GT(ev->head_p->control.size, EVM_READ_DEFAULT_LENGTH);
  ASSERT_EQ(EvmEventWrite(a, ev), EvmERROR_NONE);
  EvmEvent_t got = nullptr;
  ASSERT_EQ(EvmEventRead(b, &got, 0), EvmERROR_NONE);
  char* text = nullptr;
  ASSERT_EQ(EvmVarGetString(got, "text", &text, nullptr), EvmERROR_NONE);
  EXPECT_EQ(text, big);
  std::free(text);
  // One byte changed behind the checksum: refused.
  ev->head_p->flags |= evmFlagMask(EvmFLAG_CHECKSUM_PRESENT);
  const void* bytes = nullptr;
  EvmUint32_t len = 0;
  bytes = EvmEventWriteBuf(&len, ev);
  std::vector<unsigned char> bad(static_cast<const unsigned char*>(bytes), static_cast<const unsigned char*>(bytes) + len);
  bad[len - 10] ^= 1;
  ASSERT_EQ(xpcsend(a, bad.data(), len), xpcretSUCC);
  EvmEvent_t none = nullptr;
  EXPECT_EQ(EvmEventRead(b, &none, 0), EvmERROR_INVALID_VALUE);
  xpcdisc(a);
  EXPECT_EQ(EvmEventRead(b, &none, 0), EvmERROR_EOF);
  EvmEventDestroy(ev);
  EvmEventDestroy(got);
  xpcdisc(b);
  xpcdisc(l);
  xpcugblmterm(g);
}

}  // namespace
