// Posting and dispatch seen from the daemon's end of one connection: what each message of the
// daemon makes the client do, what a post from an item list puts on the wire, what the controls
// of a connection change in the posts that follow, and how long a wait lasts.
#include "evm/libevm/evm_post.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "evm/libevm/clsgenv.h"
#include "evm/libevm/evm.h"
#include "evm/libevm/evm_test_util.h"
#include "platform/host/utlhost.h"
#include "platform/registry/prvrg.h"

namespace {

typedef std::vector<unsigned char> Message;

const char* kLocal = "(ADDRESS=(PROTOCOL=ipc)(KEY=SYSTEM.evm.acceptor.auth))";

// What a callback was given, copied out while the data was valid.
struct Seen {
  EvmCallbackReason_t reason;
  EvmStatus_t status;
  EvmEvent_t event;  // the post's handle for a post answer; otherwise null once read
  std::string name;  // name of a delivered event
  EvmCallbackExtension_t extension;
};

void record(EvmConnection_t, EvmCallbackArg_t arg, EvmCallbackData_t* data) {
  Seen s{data->reason, data->status, data->event, "", data->extension};
  if (data->reason != EvmREASON_POST_COMPLETE && data->event != nullptr) {
    // A delivered event belongs to the callback.
    EvmItemValue_t v;
    if (EvmItemGet(data->event, EvmITEM_NAME, &v) == EvmERROR_NONE) {
      s.name = v.NAME;
      EvmItemRelease(EvmITEM_NAME, v);
    }
    EvmEventDestroy(data->event);
    s.event = nullptr;
  }
  static_cast<std::vector<Seen>*>(arg)->push_back(s);
}

EvmEvent_t eventFrom(const Message& block) {
  return _evmMakeEvent(evmtest::mallocCopy(evmtest::Bytes(block.begin(), block.end())));
}

class EvmPostTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/evm_post_test.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    setenv("VYN_IPC_DIR", dir_.c_str(), 1);
    unsetenv("GMX_CLUSTERNAME");
    ASSERT_EQ(xpcinit(0, 0, &ctx_, 0), xpcretSUCC);
    ASSERT_EQ(xpcugblmini(ctx_, &group_, 0), xpcretSUCC);
    ASSERT_EQ(xpclisten(group_, kLocal, 0, &listener_, 0), xpcretSUCC);
    ASSERT_EQ(EvmEventCreateVa(&event_, EvmITEM_NAME, "sys.zel.test.post", EvmITEM_NONE), EvmERROR_NONE);
  }
  void TearDown() override {
    if (conn_ != nullptr) EvmConnDestroy(conn_);
    if (peer_ != nullptr) xpcdisc(peer_);
    if (tcpListener_ != nullptr) xpcdisc(tcpListener_);
    xpcdisc(listener_);
    xpcugblmterm(group_);
    xpcterm(ctx_);
    EvmEventDestroy(event_);
    std::filesystem::remove_all(dir_);
  }

  // Connects as the client while this side takes the connect and answers it with `flags`; the
  // daemon's end stays in peer_.
  EvmStatus_t open(EvmConnectionType_t type, EvmResponseMode_t mode, EvmCallback_t callback = nullptr,
                   EvmCallbackArg_t arg = nullptr, EvmTransport_t* transport = nullptr,
                   const Message& answerBody = {}, std::uint32_t flags = 0, std::uint64_t headerData = 0) {
    xpccon* from = transport != nullptr && transport->type == EvmTRANSPORT_TCPIP ? tcpListener_ : listener_;
    std::thread daemon([&] {
      if (xpcanswer(from, 0, &peer_, 0, 0, 0, 0, 0, 32) != xpcretSUCC) return;
      connectHead_ = take();
      request_ = take();
      sendHead(EvmCOMM_CONNECT_RSP, flags, headerData, static_cast<std::uint32_t>(answerBody.size()));
      if (!answerBody.empty()) send(answerBody);
    });
    EvmStatus_t st = EvmConnCreate(type, mode, transport, callback, arg, &conn_);
    daemon.join();
    return st;
  }

  Message take() {
    Message m(1 << 20);
    std::uint32_t n = 0;
    if (xpcreceive(peer_, m.data(), static_cast<std::uint32_t>(m.size()), 5000, 0, XPC_WAIT_TIMED, &n) != xpcretSUCC)
      return {};
    m.resize(n);
    return m;
  }
  void send(Message m) {
    _evmFillTransportHeader(m.data(), static_cast<EvmUint32_t>(m.size()));
    ASSERT_EQ(xpcsend(peer_, m.data(), static_cast<std::uint32_t>(m.size())), xpcretSUCC);
  }
  void sendHead(std::uint32_t type, std::uint32_t flags, std::uint64_t headerData = 0, std::uint32_t bodySize = 0) {
    EvmCommHead_t h = evmCommHead(type, flags, headerData, bodySize);
    const unsigned char* p = reinterpret_cast<const unsigned char*>(&h);
    send(Message(p, p + EVM_COMM_HEAD_SIZE));
  }
  // Waits until the daemon's message is there, then has the client act on it.
  EvmStatus_t dispatch() {
    cls_timeval t{5, 0};
    EvmStatus_t st = EvmConnWait(conn_, &t);
    return st != EvmERROR_NONE ? st : EvmConnDispatch(conn_);
  }
  // The post's two messages as the daemon gets them; the block as an event of its own.
  EvmEvent_t takePost(EvmCommHead_t* head = nullptr) {
    Message h = take();
    Message block = take();
    if (head != nullptr && h.size() == EVM_COMM_HEAD_SIZE) std::memcpy(head, h.data(), EVM_COMM_HEAD_SIZE);
    return block.size() >= EVM_HEAD_SIZE ? eventFrom(block) : nullptr;
  }

  std::string dir_;
  xpcctx* ctx_ = nullptr;
  xpcugblm* group_ = nullptr;
  xpccon* listener_ = nullptr;
  xpccon* tcpListener_ = nullptr;
  xpccon* peer_ = nullptr;
  EvmConnection_t conn_ = nullptr;
  EvmEvent_t event_ = nullptr;
  Message connectHead_, request_;
};

TEST_F(EvmPostTest, ServiceAndListenConnectRequestsNameTheirKind) {
  char service[] = "evmlogger";
  ASSERT_EQ(open(EvmCONNECTION_SERVICE, EvmRESPONSE_WAIT, nullptr, service), EvmERROR_NONE);
  // 48-byte transport header, connector, name length, pid, uid, then the name without terminator.
  ASSERT_EQ(request_.size(), 64u + 9u);
  EXPECT_EQ(evmLoad32(request_.data(), 0), 73u);
  EXPECT_EQ(evmLoad32(request_.data(), EVM_CONNREQ_OFF_CONNECTOR), 3u);
  EXPECT_EQ(evmLoad32(request_.data(), EVM_CONNREQ_OFF_NAME_LEN), 9u);
  EXPECT_EQ(evmLoad32(request_.data(), EVM_CONNREQ_OFF_PID), static_cast<std::uint32_t>(getpid()));
  EXPECT_EQ(evmLoad32(request_.data(), 60), static_cast<std::uint32_t>(geteuid()));
  EXPECT_EQ(std::string(request_.begin() + 64, request_.end()), "evmlogger");
  ASSERT_EQ(connectHead_.size(), EVM_COMM_HEAD_SIZE);
  EXPECT_EQ(evmLoad32(connectHead_.data(), EVM_COMM_OFF_TYPE), static_cast<std::uint32_t>(EvmCOMM_CONNECT_REQ));
  EXPECT_EQ(evmLoad32(connectHead_.data(), EVM_COMM_OFF_BODY_SIZE), 73u);
  EXPECT_EQ(evmLoad32(connectHead_.data(), EVM_COMM_OFF_HEADER_DATA), 0u) << "no host address on the local transport";
  // A service connection can't post.
  EXPECT_EQ(EvmEventPost(conn_, event_), EvmERROR_INVALID_ARGUMENT);
  EXPECT_EQ(EvmConnDestroy(conn_), EvmERROR_NONE);
  conn_ = nullptr;
  xpcdisc(peer_);
  peer_ = nullptr;

  std::vector<Seen> seen;
  ASSERT_EQ(open(EvmCONNECTION_LISTEN, EvmRESPONSE_CALLBACK, record, &seen), EvmERROR_NONE);
  ASSERT_EQ(request_.size(), 64u);
  EXPECT_EQ(evmLoad32(request_.data(), EVM_CONNREQ_OFF_CONNECTOR), 2u);
  EXPECT_EQ(evmLoad32(request_.data(), EVM_CONNREQ_OFF_NAME_LEN), 0u);
  EXPECT_EQ(EvmEventPost(conn_, event_), EvmERROR_INVALID_ARGUMENT) << "a listener doesn't post";
}

TEST_F(EvmPostTest, ASubscriptionIsAHeadAndThePatternWithItsNulBehindATransportHeader) {
  std::vector<Seen> seen;
  ASSERT_EQ(open(EvmCONNECTION_LISTEN, EvmRESPONSE_CALLBACK, record, &seen), EvmERROR_NONE);
  ASSERT_EQ(EvmConnSubscribe(conn_, "sys.zel.clu.vyn.res.*"), EvmERROR_NONE);
  Message head = take();
  Message body = take();
  ASSERT_EQ(head.size(), EVM_COMM_HEAD_SIZE);
  EXPECT_EQ(evmLoad32(head.data(), EVM_COMM_OFF_TYPE), static_cast<std::uint32_t>(EvmCOMM_SUBSCRIPTION_REQ));
  EXPECT_EQ(evmLoad32(head.data(), EVM_COMM_OFF_FLAGS), 0u);
  EXPECT_EQ(evmLoad32(head.data(), EVM_COMM_OFF_BODY_SIZE), 48u + 22u);
  ASSERT_EQ(body.size(), 48u + 22u);
  EXPECT_EQ(evmLoad32(body.data(), 0), 70u) << "the body's transport header gives its whole length";
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(body.data()) + EVM_SUBSCRIBE_OFF_PATTERN),
            "sys.zel.clu.vyn.res.*");
  EXPECT_EQ(body.back(), 0);
  sendHead(EvmCOMM_SUBSCRIPTION_RSP, 0);
  ASSERT_EQ(dispatch(), EvmERROR_NONE);
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].reason, EvmREASON_SUBSCRIBE_COMPLETE);
  EXPECT_EQ(seen[0].status, EvmERROR_NONE);

  // Refused before anything is sent: a bad pattern, one too long, a null one.
  EXPECT_EQ(EvmConnSubscribe(conn_, "sys.zel*"), EvmERROR_INVALID_ARGUMENT);
  EXPECT_EQ(EvmConnSubscribe(conn_, nullptr), EvmERROR_INVALID_ARGUMENT);
  EXPECT_EQ(EvmConnSubscribe(conn_, std::string(EVM_SUBSCRIBE_MAX_FILTER + 1, 'a').c_str()),
            EvmERROR_INVALID_ARGUMENT);
  ASSERT_EQ(EvmConnSubscribe(conn_, std::string(EVM_SUBSCRIBE_MAX_FILTER, 'a').c_str()), EvmERROR_NONE);
  EXPECT_EQ(take().size(), EVM_COMM_HEAD_SIZE) << "the longest pattern is taken whole";
  EXPECT_EQ(take().size(), 48u + EVM_SUBSCRIBE_MAX_FILTER + 1);
}

TEST_F(EvmPostTest, OnlyAListenConnectionSubscribes) {
  ASSERT_EQ(open(EvmCONNECTION_POST, EvmRESPONSE_WAIT), EvmERROR_NONE);
  EXPECT_EQ(EvmConnSubscribe(conn_, "*"), EvmERROR_INVALID_ARGUMENT);
}

TEST_F(EvmPostTest, EachDaemonMessageReachesTheCallbackWithItsReasonAndStatus) {
  std::vector<Seen> seen;
  ASSERT_EQ(open(EvmCONNECTION_POST, EvmRESPONSE_CALLBACK, record, &seen), EvmERROR_NONE);
  const std::uint32_t invalid = evmCommFlag(EvmCOMMFLAG_INVALID_DATA);

  sendHead(EvmCOMM_SUBSCRIPTION_RSP, invalid);
  sendHead(EvmCOMM_SUBSCRIPTION_RSP, evmCommFlag(EvmCOMMFLAG_SYNCHRONIZATION_FAILED));
  sendHead(EvmCOMM_SUBSCRIPTION_RSP, 0);
  for (int i = 0; i < 3; ++i) ASSERT_EQ(dispatch(), EvmERROR_NONE);
  ASSERT_EQ(seen.size(), 3u);
  EXPECT_EQ(seen[0].reason, EvmREASON_SUBSCRIBE_COMPLETE);
  EXPECT_EQ(seen[0].status, EvmERROR_FILTER_NOT_VALID);
  EXPECT_EQ(seen[1].status, EvmERROR_SYNCHRONIZATION_FAILURE);
  EXPECT_EQ(seen[2].status, EvmERROR_NONE);
  EXPECT_EQ(seen[2].event, nullptr);
  seen.clear();

  // Delivered events, one marked invalid by the daemon.
  EvmEvent_t out = nullptr;
  ASSERT_EQ(EvmEventCreateVa(&out, EvmITEM_NAME, "sys.zel.test.notify", EvmITEM_NONE), EvmERROR_NONE);
  EvmUint32_t len = 0;
  auto* bytes = static_cast<const unsigned char*>(EvmEventWriteBuf(&len, out));
  Message block(bytes, bytes + len);
  EvmEventDestroy(out);
  sendHead(EvmCOMM_NOTIFY, 0, 0, len);
  send(block);
  sendHead(EvmCOMM_NOTIFY, invalid, 0, len);
  send(block);
  for (int i = 0; i < 2; ++i) ASSERT_EQ(dispatch(), EvmERROR_NONE);
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(seen[0].reason, EvmREASON_EVENT_DELIVERED);
  EXPECT_EQ(seen[0].name, "sys.zel.test.notify");
  EXPECT_EQ(seen[0].status, EvmERROR_NONE);
  EXPECT_EQ(seen[1].status, EvmERROR_INVALID_ARGUMENT);
  seen.clear();

  // Missed events: the count is the low half of headerData. A flags message without either
  // flag has nothing to report.
  sendHead(EvmCOMM_FLAGS, evmCommFlag(EvmCOMMFLAG_EVENT_LOST), 0x500000007ull);
  sendHead(EvmCOMM_FLAGS, evmCommFlag(EvmCOMMFLAG_KBUFF_OVERFLOW), 12);
  sendHead(EvmCOMM_FLAGS, 0, 99);
  for (int i = 0; i < 3; ++i) ASSERT_EQ(dispatch(), EvmERROR_NONE);
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(seen[0].reason, EvmREASON_EVENTS_MISSED);
  EXPECT_EQ(seen[0].extension.eventMissedData.missedCount, 7u);
  EXPECT_EQ(seen[1].reason, EvmREASON_KBUFF_OVERFLOW);
  EXPECT_EQ(seen[1].extension.kBuffOverflowData.missedCount, 12u);
  seen.clear();

  // Template answers: failures carry no event; a good one brings its template data and the
  // event as a head message and a body message.
  sendHead(EvmCOMM_TEMPLATE_INFO_RSP, evmCommFlag(EvmCOMMFLAG_EVENT_NOT_REGISTERED) | invalid, 41);
  sendHead(EvmCOMM_REGISTRATION_RSP, invalid, 42);
  sendHead(EvmCOMM_REGISTRATION_RSP, evmCommFlag(EvmCOMMFLAG_RESOURCE_FAILURE), 43);
  for (int i = 0; i < 3; ++i) ASSERT_EQ(dispatch(), EvmERROR_NONE);
  sendHead(EvmCOMM_TEMPLATE_INFO_RSP, evmCommFlag(EvmCOMMFLAG_FIRST_EVENT), 44);
  Message data(EVM_TEMPLATE_DATA_SIZE, 0);
  std::uint16_t squelch = 300;
  std::memcpy(&data[52], &squelch, 2);
  send(data);
  Message head(block.begin(), block.begin() + EVM_HEAD_SIZE);
  send(head);
  Message body(EVM_XPC_HEADER_SIZE, 0);
  body.insert(body.end(), block.begin() + EVM_HEAD_SIZE, block.end());
  send(body);
  ASSERT_EQ(dispatch(), EvmERROR_NONE);
  ASSERT_EQ(seen.size(), 4u);
  EXPECT_EQ(seen[0].reason, EvmREASON_TEMPLATE_INFO_DELIVERED);
  EXPECT_EQ(seen[0].status, EvmERROR_NOT_PRESENT) << "not registered outranks invalid data";
  EXPECT_EQ(seen[0].extension.templateData.userArg, reinterpret_cast<void*>(41));
  EXPECT_EQ(seen[1].reason, EvmREASON_REGISTRATION_DELIVERED);
  EXPECT_EQ(seen[1].status, EvmERROR_INVALID_ARGUMENT);
  EXPECT_EQ(seen[2].status, EvmERROR_RESOURCE);
  EXPECT_EQ(seen[3].reason, EvmREASON_TEMPLATE_INFO_DELIVERED);
  EXPECT_EQ(seen[3].status, EvmERROR_NONE);
  EXPECT_EQ(seen[3].name, "sys.zel.test.notify");
  EXPECT_EQ(seen[3].extension.templateData.userArg, reinterpret_cast<void*>(44));
  EXPECT_EQ(seen[3].extension.templateData.resetToFirst, EvmTRUE);
  EXPECT_EQ(seen[3].extension.templateData.squelchLevel, 300);
}

TEST_F(EvmPostTest, PostAnswersGoToTheCallbackWithThePostsHandleAndTheLastFlagWins) {
  std::vector<Seen> seen;
  ASSERT_EQ(open(EvmCONNECTION_POST, EvmRESPONSE_CALLBACK, record, &seen), EvmERROR_NONE);
  ASSERT_EQ(EvmEventPost(conn_, event_), EvmERROR_NONE) << "a callback connection doesn't wait";
  EvmCommHead_t h{};
  EvmEvent_t posted = takePost(&h);
  ASSERT_NE(posted, nullptr);
  EvmEventDestroy(posted);
  const std::uint32_t rejected = evmCommFlag(EvmCOMMFLAG_EVENT_REJECTED);
  const std::uint32_t invalid = evmCommFlag(EvmCOMMFLAG_INVALID_DATA);
  const std::uint32_t resource = evmCommFlag(EvmCOMMFLAG_RESOURCE_FAILURE);
  for (std::uint32_t flags : {0u, rejected, rejected | invalid, rejected | invalid | resource}) {
    sendHead(EvmCOMM_POST_RSP, flags, h.headerData);
    ASSERT_EQ(dispatch(), EvmERROR_NONE);
  }
  ASSERT_EQ(seen.size(), 4u);
  EXPECT_EQ(seen[0].reason, EvmREASON_POST_COMPLETE);
  EXPECT_EQ(seen[0].event, event_);
  EXPECT_EQ(seen[0].status, EvmERROR_NONE);
  EXPECT_EQ(seen[1].status, EvmERROR_EVENT_REJECTED);
  EXPECT_EQ(seen[2].status, EvmERROR_EVENT_NOT_VALID);
  EXPECT_EQ(seen[3].status, EvmERROR_NO_MEMORY);
}

TEST_F(EvmPostTest, MessagesAClientNeverReceivesAreProtocolErrorsThatEndTheConnection) {
  const std::uint32_t types[] = {EvmCOMM_NONE, EvmCOMM_CONNECT_REQ, EvmCOMM_AUTHENT_REQ, EvmCOMM_SYNCHRO_REQ,
                                 EvmCOMM_SUBSCRIPTION_REQ, EvmCOMM_POST_REQ, EvmCOMM_SET_SQUELCH_COM,
                                 EvmCOMM_FLUSH_COM, EvmCOMM_TEMPLATE_INFO_REQ, EvmCOMM_REGISTRATION_REQ,
                                 EvmCOMM_DISCONNECT, EvmCOMM_HINT, 21};
  for (std::uint32_t type : types) {
    ASSERT_EQ(open(EvmCONNECTION_POST, EvmRESPONSE_WAIT), EvmERROR_NONE);
    sendHead(type, 0);
    EXPECT_EQ(dispatch(), EvmERROR_PROTOCOL) << type;
    EXPECT_EQ(EvmEventPost(conn_, event_), EvmERROR_CONNECTION_LOST) << type;
    EvmConnDestroy(conn_);
    conn_ = nullptr;
    xpcdisc(peer_);
    peer_ = nullptr;
  }
  // A connect answer that nobody awaits, and a delivered event that isn't one.
  for (std::uint32_t type : {static_cast<std::uint32_t>(EvmCOMM_SYNCHRO_RSP), static_cast<std::uint32_t>(EvmCOMM_NOTIFY)}) {
    ASSERT_EQ(open(EvmCONNECTION_POST, EvmRESPONSE_WAIT), EvmERROR_NONE);
    sendHead(type, 0, 0, 200);
    if (type == EvmCOMM_NOTIFY) send(Message(200, 0xee));
    EXPECT_EQ(dispatch(), type == EvmCOMM_NOTIFY ? EvmERROR_CONNECTION_LOST : EvmERROR_PROTOCOL) << type;
    EXPECT_EQ(EvmEventPost(conn_, event_), EvmERROR_CONNECTION_LOST) << type;
    EvmConnDestroy(conn_);
    conn_ = nullptr;
    xpcdisc(peer_);
    peer_ = nullptr;
  }
}

TEST_F(EvmPostTest, ConnectAnswersWithAFailureFlagRefuseTheConnection) {
  const struct {
    std::uint32_t flags;
    EvmStatus_t status;
  } cases[] = {{evmCommFlag(EvmCOMMFLAG_INVALID_DATA), EvmERROR_INVALID_ARGUMENT},
               {evmCommFlag(EvmCOMMFLAG_SERVICE_START_FAILURE), EvmERROR_INVALID_VALUE},
               {evmCommFlag(EvmCOMMFLAG_CONNECTION_REFUSED) | evmCommFlag(EvmCOMMFLAG_SERVICE_START_FAILURE),
                EvmERROR_CONNECTION_REFUSED}};
  for (const auto& c : cases) {
    EXPECT_EQ(open(EvmCONNECTION_POST, EvmRESPONSE_WAIT, nullptr, nullptr, nullptr, {}, c.flags), c.status);
    EXPECT_EQ(conn_, nullptr);
    xpcdisc(peer_);
    peer_ = nullptr;
  }
}

TEST_F(EvmPostTest, PostFromAListMergesWithTheTemplateAndTheListWins) {
  ASSERT_EQ(open(EvmCONNECTION_POST, EvmRESPONSE_WAIT), EvmERROR_NONE);
  EvmEvent_t tmpl = nullptr;
  ASSERT_EQ(EvmEventCreateVa(&tmpl, EvmITEM_NAME, "sys.zel.test.template", EvmITEM_PRIORITY, 300,
                             EvmITEM_VAR_STRING, "from", "template", EvmITEM_NONE),
            EvmERROR_NONE);
  EvmStatus_t result = EvmERROR_LAST;
  std::thread poster([&] {
    result = EvmEventPostVa(conn_, tmpl, EvmITEM_NAME, "sys.zel.test.list", EvmITEM_VAR_INT32, "n", 7, EvmITEM_NONE);
  });
  EvmCommHead_t h{};
  EvmEvent_t got = takePost(&h);
  sendHead(EvmCOMM_POST_RSP, evmCommFlag(EvmCOMMFLAG_EVENT_REJECTED), h.headerData);
  poster.join();
  EXPECT_EQ(result, EvmERROR_EVENT_REJECTED) << "the daemon's answer is the post's result";
  ASSERT_NE(got, nullptr);
  EvmItemValue_t v;
  ASSERT_EQ(EvmItemGet(got, EvmITEM_NAME, &v), EvmERROR_NONE);
  EXPECT_STREQ(v.NAME, "sys.zel.test.list");
  EvmItemRelease(EvmITEM_NAME, v);
  ASSERT_EQ(EvmItemGet(got, EvmITEM_PRIORITY, &v), EvmERROR_NONE);
  EXPECT_EQ(v.PRIORITY, 300);
  EvmInt32_t n = 0;
  EXPECT_EQ(EvmVarGetInt32(got, "n", &n), EvmERROR_NONE);
  EXPECT_EQ(n, 7);
  char* from = nullptr;
  ASSERT_EQ(EvmVarGetString(got, "from", &from, nullptr), EvmERROR_NONE);
  EXPECT_STREQ(from, "template");
  std::free(from);
  EXPECT_TRUE(got->head_p->fldPresBits & (1u << EvmITEM_TIMESTAMP)) << "automatic items were added";
  EvmEventDestroy(got);
  // The template itself went nowhere and is unchanged.
  ASSERT_EQ(EvmItemGet(tmpl, EvmITEM_NAME, &v), EvmERROR_NONE);
  EXPECT_STREQ(v.NAME, "sys.zel.test.template");
  EvmItemRelease(EvmITEM_NAME, v);
  EvmEventDestroy(tmpl);

  // A list the library can't read sends nothing: an unknown id, a variable without a name.
  EXPECT_EQ(EvmEventPostVa(conn_, nullptr, EvmITEM_NAME, "sys.zel.test.bad", 999, 1, EvmITEM_NONE),
            EvmERROR_INVALID_ARGUMENT);
  EXPECT_EQ(EvmEventPostVa(conn_, nullptr, EvmITEM_VAR_INT32, static_cast<const char*>(nullptr), 1, EvmITEM_NONE),
            EvmERROR_INVALID_ARGUMENT);
  EvmBoolean_t ready = EvmTRUE;
  char probe[EVM_COMM_HEAD_SIZE];
  std::uint32_t n2 = 0;
  EXPECT_EQ(xpcreceive(peer_, probe, sizeof probe, 100, 0, XPC_WAIT_TIMED, &n2), xpcretTIMEOUT);
  EXPECT_EQ(EvmConnCheck(conn_, &ready), EvmERROR_NONE);
  EXPECT_EQ(ready, EvmFALSE);
}

TEST_F(EvmPostTest, ControlsChangeWhatTheNextPostCarries) {
  ASSERT_EQ(open(EvmCONNECTION_POST, EvmRESPONSE_IGNORE), EvmERROR_NONE);
  auto post = [&] {
    EXPECT_EQ(EvmEventPost(conn_, event_), EvmERROR_NONE);
    return takePost();
  };
  auto has = [](EvmEvent_t e, EvmItemId_t id) { return (e->head_p->fldPresBits & (1u << id)) != 0; };
  auto flagged = [](EvmEvent_t e) { return (e->head_p->flags & evmFlagMask(EvmFLAG_CHECKSUM_PRESENT)) != 0; };

  EvmBoolean_t on = EvmFALSE;
  EXPECT_EQ(EvmConnControl(conn_, EvmCONN_CHECKSUM_IS_ENABLED, &on), EvmERROR_NONE);
  EXPECT_EQ(on, EvmTRUE);
  EvmEvent_t e = post();
  ASSERT_NE(e, nullptr);
  EXPECT_TRUE(flagged(e));
  EXPECT_TRUE(has(e, EvmITEM_TIMESTAMP) && has(e, EvmITEM_PID) && has(e, EvmITEM_PPID));
  EvmEventDestroy(e);

  // Checksum off: the event leaves as it stands, without the flag it never had.
  _evmRemoveChecksum(event_->head_p);
  EXPECT_EQ(EvmConnControl(conn_, EvmCONN_CHECKSUM_DISABLE, nullptr), EvmERROR_NONE);
  EXPECT_EQ(EvmConnControl(conn_, EvmCONN_CHECKSUM_IS_ENABLED, &on), EvmERROR_NONE);
  EXPECT_EQ(on, EvmFALSE);
  e = post();
  ASSERT_NE(e, nullptr);
  EXPECT_FALSE(flagged(e));
  EvmEventDestroy(e);
  EXPECT_EQ(EvmConnControl(conn_, EvmCONN_CHECKSUM_ENABLE, nullptr), EvmERROR_NONE);

  // A mask picks the automatic items; a mask of 0 adds none; a reset restores the default set.
  EvmEvent_t bare = nullptr;
  ASSERT_EQ(EvmEventCreateVa(&bare, EvmITEM_NAME, "sys.zel.test.mask", EvmITEM_NONE), EvmERROR_NONE);
  std::swap(bare, event_);
  auto mask = reinterpret_cast<EvmPointer_t>(static_cast<std::uintptr_t>(1u << EvmITEM_PID));
  EXPECT_EQ(EvmConnControl(conn_, EvmCONN_POST_ITEM_MASK_SET, mask), EvmERROR_NONE);
  e = post();
  ASSERT_NE(e, nullptr);
  EXPECT_TRUE(has(e, EvmITEM_PID));
  EXPECT_FALSE(has(e, EvmITEM_TIMESTAMP));
  EvmEventDestroy(e);
  std::swap(bare, event_);
  EvmEventDestroy(bare);
  ASSERT_EQ(EvmEventCreateVa(&bare, EvmITEM_NAME, "sys.zel.test.mask", EvmITEM_NONE), EvmERROR_NONE);
  std::swap(bare, event_);
  EXPECT_EQ(EvmConnControl(conn_, EvmCONN_POST_ITEM_MASK_SET, nullptr), EvmERROR_NONE);
  e = post();
  ASSERT_NE(e, nullptr);
  EXPECT_FALSE(has(e, EvmITEM_PID) || has(e, EvmITEM_TIMESTAMP));
  EvmEventDestroy(e);
  EXPECT_EQ(EvmConnControl(conn_, EvmCONN_POST_ITEM_MASK_RESET, nullptr), EvmERROR_NONE);
  e = post();
  ASSERT_NE(e, nullptr);
  EXPECT_TRUE(has(e, EvmITEM_TIMESTAMP) && has(e, EvmITEM_PID));
  EvmEventDestroy(e);
  std::swap(bare, event_);
  EvmEventDestroy(bare);

  // Non-blocking posts exist only for a post connection that ignores answers, and take 1 or 0.
  auto value = [](std::uintptr_t v) { return reinterpret_cast<EvmPointer_t>(v); };
  EXPECT_EQ(EvmConnControl(conn_, EvmCONN_POST_NONBLOCK_SET, value(2)), EvmERROR_INVALID_ARGUMENT);
  EXPECT_EQ(EvmConnControl(conn_, EvmCONN_POST_NONBLOCK_SET, value(1)), EvmERROR_NONE);
  e = post();
  ASSERT_NE(e, nullptr) << "the blocking transport sends at once, queue or not";
  EvmEventDestroy(e);
  EvmUint32_t remaining = 9;
  EXPECT_EQ(EvmConnFlush(conn_, &remaining), EvmERROR_NONE);
  EXPECT_EQ(remaining, 0u);
  EXPECT_EQ(EvmConnControl(conn_, EvmCONN_POST_NONBLOCK_SET, value(0)), EvmERROR_NONE);
}

TEST_F(EvmPostTest, RequestsThatReadOrRefuseOnALocalConnection) {
  ASSERT_EQ(open(EvmCONNECTION_POST, EvmRESPONSE_WAIT), EvmERROR_NONE);
  EvmUint32_t size = 0;
  EvmBoolean_t flag = EvmTRUE;
  EvmString_t name = nullptr;
  cls_in_addr_t addr = 0;
  EvmCluaMemberList_t list = reinterpret_cast<EvmCluaMemberList_t>(&size);
  // Requests that take an argument refuse a null one; the rest ignore it.
  EXPECT_EQ(EvmConnControl(conn_, EvmCONN_RCV_SZ_GET, nullptr), EvmERROR_INVALID_ARGUMENT);
  EXPECT_EQ(EvmConnControl(conn_, EvmCONN_RCV_SZ_GET, &size), EvmERROR_NONE);
  EXPECT_EQ(EvmConnControl(conn_, EvmCONN_SND_SZ_GET, nullptr), EvmERROR_INVALID_ARGUMENT);
  EXPECT_EQ(EvmConnControl(conn_, EvmCONN_SND_SZ_GET, &size), EvmERROR_NONE);
  EXPECT_EQ(EvmConnControl(conn_, EvmCONN_RCV_SZ_SET, nullptr), EvmERROR_NONE);
  EXPECT_EQ(EvmConnControl(conn_, EvmCONN_SND_SZ_SET, nullptr), EvmERROR_NONE);
  EXPECT_EQ(EvmConnControl(conn_, EvmCONN_CHECKSUM_IS_ENABLED, nullptr), EvmERROR_INVALID_ARGUMENT);
  EXPECT_EQ(EvmConnControl(conn_, EvmCONN_IS_CLUSTER_ALIAS, nullptr), EvmERROR_INVALID_ARGUMENT);
  EXPECT_EQ(EvmConnControl(conn_, EvmCONN_IS_CLUSTER_ALIAS, &flag), EvmERROR_NONE);
  EXPECT_EQ(flag, EvmFALSE);
  EXPECT_EQ(EvmConnControl(conn_, EvmCONN_REMOTE_IS_ON_CLUSTER, &flag), EvmERROR_INVALID_ARGUMENT);
  EXPECT_EQ(EvmConnControl(conn_, EvmCONN_CLUSTER_LIST_GET, nullptr), EvmERROR_INVALID_ARGUMENT);
  EXPECT_EQ(EvmConnControl(conn_, EvmCONN_CLUSTER_LIST_GET, &list), EvmERROR_NONE);
  EXPECT_EQ(list, nullptr) << "no cluster list on a local connection";
  // Host and address requests are for TCP only, and never touch a null argument.
  for (auto request : {EvmCONN_LOCAL_HOST_NAME_GET, EvmCONN_LOCAL_IP_GET, EvmCONN_REMOTE_HOST_NAME_GET,
                       EvmCONN_REMOTE_IP_GET, EvmCONN_CLUSTER_HOST_IP_GET}) {
    EvmPointer_t arg = request == EvmCONN_LOCAL_HOST_NAME_GET || request == EvmCONN_REMOTE_HOST_NAME_GET
                           ? static_cast<EvmPointer_t>(&name)
                           : static_cast<EvmPointer_t>(&addr);
    EXPECT_EQ(EvmConnControl(conn_, request, arg), EvmERROR_INVALID_ARGUMENT) << request;
    EXPECT_EQ(EvmConnControl(conn_, request, nullptr), EvmERROR_INVALID_ARGUMENT) << request;
  }
  EXPECT_EQ(EvmConnControl(conn_, static_cast<EvmConnControlRequest_t>(18), nullptr), EvmERROR_INVALID_ARGUMENT);
  EXPECT_EQ(EvmConnControl(conn_, EvmCONN_POST_NONBLOCK_SET, nullptr), EvmERROR_INVALID_ARGUMENT)
      << "a connection that waits for answers can't queue";
  EvmCommVersion_t version = 9;
  EXPECT_EQ(EvmConnProtocolVersionGet(conn_, &version), EvmERROR_NONE);
  EXPECT_EQ(version, 0) << "the local daemon's version is never asked";
  EvmFd_t fd = 0;
  EXPECT_EQ(EvmConnFdGet(conn_, &fd), EvmERROR_NONE);
  EXPECT_EQ(fd, -1);
  xpccon* con = nullptr;
  EXPECT_EQ(EvmConnConGet(conn_, &con), EvmERROR_NONE);
  EXPECT_EQ(con, EvmGetXpccon(conn_));
  xpcugblm* group = nullptr;
  EXPECT_EQ(EvmConnUgblmGet(conn_, &group), EvmERROR_NONE);
  EXPECT_NE(group, nullptr);
  EXPECT_EQ(EvmConnControl(nullptr, EvmCONN_CHECKSUM_ENABLE, nullptr), EvmERROR_INVALID_ARGUMENT);

  // Once the daemon is gone every request says so.
  xpcdisc(peer_);
  peer_ = nullptr;
  EXPECT_EQ(dispatch(), EvmERROR_CONNECTION_LOST);
  EXPECT_EQ(EvmConnControl(conn_, EvmCONN_CHECKSUM_ENABLE, nullptr), EvmERROR_CONNECTION_LOST);
  EXPECT_EQ(EvmConnFlush(conn_, nullptr), EvmERROR_CONNECTION_LOST);
}

TEST_F(EvmPostTest, OverTcpTheDaemonsAnswerBringsTheClusterAndTheRequestsReadIt) {
  // The daemon's TCP address is found in the registry under the host's short name.
  ASSERT_EQ(xpclisten(group_, "(ADDRESS=(PROTOCOL=tcp)(HOST=127.0.0.1)(PORT=0))", 0, &tcpListener_, 0), xpcretSUCC);
  char address[256];
  ASSERT_EQ(xpcgetaddr(tcpListener_, address, sizeof address, 0), xpcretSUCC);
  setenv("VYN_REGISTRY", (dir_ + "/reg.db").c_str(), 1);
  clsgenvterm();
  {
    prvrg_ctx* ctx = nullptr;
    char err[1024];
    std::size_t len = sizeof err;
    ASSERT_EQ(prvrg_init_ext(&ctx, PRVRG_LEVEL_DEFAULT, err, &len, PRVRG_FLAG_CREATE), 0) << err;
    prvrg_security sec{};
    prvrg_key* key = nullptr;
    int created = 0;
    ASSERT_EQ(prvrg_create_n_set_key(ctx, nullptr, "SYSTEM.evm.rmport.localhost", &key, &created,
                                     prvrg_dtype_ZELTEXT, address, std::strlen(address) + 1, sec),
              0);
    prvrg_close_key(ctx, key);
    prvrg_terminate(ctx);
  }
  char host[] = "localhost";
  EvmTransport_t t{};
  t.type = EvmTRANSPORT_TCPIP;
  t.data.tcpip.portNumber = 7000;
  t.data.tcpip.hostName = host;
  // Behind its transport header the answer lists two members' addresses.
  Message members(EVM_XPC_HEADER_SIZE + 8, 0);
  evmStore32(members.data(), EVM_XPC_HEADER_SIZE, htonl(0x0a000001));
  evmStore32(members.data(), EVM_XPC_HEADER_SIZE + 4, htonl(0x0a000002));
  const std::uint32_t realHost = htonl(0x0a000009);
  EvmStatus_t st = open(EvmCONNECTION_POST, EvmRESPONSE_WAIT, nullptr, nullptr, &t, members,
                        evmCommFlag(EvmCOMMFLAG_IS_CLUSTER_ALIAS), realHost);
  clsgenvterm();
  unsetenv("VYN_REGISTRY");
  ASSERT_EQ(st, EvmERROR_NONE);
  EXPECT_EQ(evmLoad32(connectHead_.data(), EVM_COMM_OFF_HEADER_DATA), htonl(0x7f000001))
      << "the daemon is told the address it was reached at";
  EXPECT_EQ(conn_->portNumber, htons(7000));

  EvmCluaMemberList_t list = nullptr;
  ASSERT_EQ(EvmConnControl(conn_, EvmCONN_CLUSTER_LIST_GET, &list), EvmERROR_NONE);
  ASSERT_NE(list, nullptr);
  ASSERT_EQ(list->count, 2u);
  EXPECT_EQ(list->members[0], htonl(0x0a000001));
  EXPECT_EQ(list->members[1], htonl(0x0a000002));
  std::free(list->members);
  std::free(list);
  EvmBoolean_t alias = EvmFALSE;
  EXPECT_EQ(EvmConnControl(conn_, EvmCONN_IS_CLUSTER_ALIAS, &alias), EvmERROR_NONE);
  EXPECT_EQ(alias, EvmTRUE);
  cls_in_addr_t addr = 0;
  EXPECT_EQ(EvmConnControl(conn_, EvmCONN_CLUSTER_HOST_IP_GET, &addr), EvmERROR_NONE);
  EXPECT_EQ(addr, realHost);
  EvmCommVersion_t version = 0;
  EXPECT_EQ(EvmConnProtocolVersionGet(conn_, &version), EvmERROR_NONE);
  EXPECT_EQ(version, 1);

  EXPECT_EQ(EvmConnControl(conn_, EvmCONN_REMOTE_IP_GET, &addr), EvmERROR_NONE);
  EXPECT_EQ(addr, htonl(0x7f000001));
  EvmString_t name = nullptr;
  EXPECT_EQ(EvmConnControl(conn_, EvmCONN_REMOTE_HOST_NAME_GET, &name), EvmERROR_NONE);
  ASSERT_NE(name, nullptr);
  EXPECT_EQ(name, conn_->hostName) << "the connection's own string, not a copy";
  EXPECT_EQ(EvmConnControl(conn_, EvmCONN_LOCAL_HOST_NAME_GET, &name), EvmERROR_NONE);
  ASSERT_NE(name, nullptr);
  EXPECT_STREQ(name, _evmGetHostName());
  EXPECT_EQ(EvmConnControl(conn_, EvmCONN_LOCAL_IP_GET, &addr), EvmERROR_NONE);
  EXPECT_NE(addr, 0u);
  for (auto request : {EvmCONN_LOCAL_HOST_NAME_GET, EvmCONN_LOCAL_IP_GET, EvmCONN_REMOTE_HOST_NAME_GET,
                       EvmCONN_REMOTE_IP_GET, EvmCONN_CLUSTER_HOST_IP_GET})
    EXPECT_EQ(EvmConnControl(conn_, request, nullptr), EvmERROR_INVALID_ARGUMENT) << request;
}

TEST_F(EvmPostTest, WaitCountsItsSecondFieldInMilliseconds) {
  ASSERT_EQ(open(EvmCONNECTION_POST, EvmRESPONSE_WAIT), EvmERROR_NONE);
  // {0, 300} is 300 ms, not 300 microseconds.
  cls_timeval t{0, 300};
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(EvmConnWait(conn_, &t), EvmERROR_TIMEOUT);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(290));
  cls_timeval zero{0, 0};
  EXPECT_EQ(EvmConnWait(conn_, &zero), EvmERROR_TIMEOUT) << "{0, 0} still waits a millisecond, and times out";
  sendHead(EvmCOMM_FLAGS, 0);
  EXPECT_EQ(EvmConnWait(conn_, nullptr), EvmERROR_NONE);
  EvmBoolean_t ready = EvmFALSE;
  EXPECT_EQ(EvmConnCheck(conn_, &ready), EvmERROR_NONE);
  EXPECT_EQ(ready, EvmTRUE);
  EXPECT_EQ(EvmConnCheck(conn_, nullptr), EvmERROR_INVALID_ARGUMENT);
  EXPECT_EQ(EvmConnDispatch(conn_), EvmERROR_NONE);
  EXPECT_EQ(EvmConnCheck(conn_, &ready), EvmERROR_NONE);
  EXPECT_EQ(ready, EvmFALSE);
  EXPECT_EQ(EvmConnDispatch(conn_), EvmERROR_NONE) << "nothing to do is no failure";
}

TEST_F(EvmPostTest, DaemonGoneWhileSeveralThreadsPostFailsEveryPost) {
  ASSERT_EQ(open(EvmCONNECTION_POST, EvmRESPONSE_WAIT), EvmERROR_NONE);
  constexpr int kThreads = 4;
  std::vector<EvmStatus_t> results(kThreads, EvmERROR_NONE);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i)
    threads.emplace_back([&, i] {
      EvmEvent_t e = nullptr;
      EvmEventCreateVa(&e, EvmITEM_NAME, "sys.zel.test.gone", EvmITEM_NONE);
      results[i] = EvmEventPost(conn_, e);
      EvmEventDestroy(e);
    });
  // The daemon takes the first post and goes away without answering.
  EvmEvent_t first = takePost();
  EvmEventDestroy(first);
  xpcdisc(peer_);
  peer_ = nullptr;
  for (auto& t : threads) t.join();
  for (EvmStatus_t st : results) EXPECT_EQ(st, EvmERROR_CONNECTION_LOST);
}

TEST_F(EvmPostTest, AnotherThreadSeesTheConnectionEndWhileItUsesIt) {
  ASSERT_EQ(open(EvmCONNECTION_POST, EvmRESPONSE_WAIT), EvmERROR_NONE);
  std::atomic<bool> started{false};
  EvmStatus_t last = EvmERROR_NONE;
  std::thread user([&] {
    started = true;
    while ((last = EvmConnControl(conn_, EvmCONN_CHECKSUM_ENABLE, nullptr)) == EvmERROR_NONE) std::this_thread::yield();
  });
  while (!started) std::this_thread::yield();
  xpcdisc(peer_);
  peer_ = nullptr;
  EXPECT_EQ(dispatch(), EvmERROR_CONNECTION_LOST);
  user.join();
  EXPECT_EQ(last, EvmERROR_CONNECTION_LOST);
}

TEST_F(EvmPostTest, SetupRefusesWhatCannotBeAConnection) {
  EvmConnection_t c = nullptr;
  EXPECT_EQ(EvmConnCreate(EvmCONNECTION_POST, static_cast<EvmResponseMode_t>(3), nullptr, nullptr, nullptr, &c),
            EvmERROR_INVALID_ARGUMENT);
  EXPECT_EQ(EvmConnCreate(static_cast<EvmConnectionType_t>(3), EvmRESPONSE_WAIT, nullptr, nullptr, nullptr, &c),
            EvmERROR_INVALID_ARGUMENT);
  EvmTransport_t t{};
  t.type = static_cast<EvmTransportType_t>(2);
  EXPECT_EQ(EvmConnCreate(EvmCONNECTION_POST, EvmRESPONSE_WAIT, &t, nullptr, nullptr, &c), EvmERROR_INVALID_ARGUMENT);
  t.type = EvmTRANSPORT_TCPIP;
  t.data.tcpip.portNumber = -1;
  t.data.tcpip.hostName = nullptr;
  EXPECT_EQ(EvmConnCreate(EvmCONNECTION_POST, EvmRESPONSE_WAIT, &t, nullptr, nullptr, &c), EvmERROR_INVALID_ARGUMENT);
  // A daemon host whose address key the registry lacks can't be reached.
  char host[] = "localhost";
  t.data.tcpip.hostName = host;
  setenv("VYN_REGISTRY", (dir_ + "/none.db").c_str(), 1);
  clsgenvterm();
  testing::internal::CaptureStdout();
  EXPECT_EQ(EvmConnCreate(EvmCONNECTION_POST, EvmRESPONSE_WAIT, &t, nullptr, nullptr, &c), EvmERROR_CONNECT);
  testing::internal::GetCapturedStdout();
  clsgenvterm();
  unsetenv("VYN_REGISTRY");
  EXPECT_EQ(c, nullptr);
  EXPECT_EQ(EvmConnDestroy(nullptr), EvmERROR_INVALID_ARGUMENT);
  EvmEventHandle_s stale{};
  EXPECT_EQ(EvmEventPost(nullptr, &stale), EvmERROR_INVALID_ARGUMENT) << "a handle without its stamp";
  EXPECT_EQ(EvmEventPost(nullptr, nullptr), EvmERROR_INVALID_ARGUMENT);
}

TEST_F(EvmPostTest, AddressesOfTheLocalDaemonAndHostKeys) {
  setenv("GMX_CLUSTERNAME", "alpha", 1);
  char* s = _evmdConnString(0);
  char host[256] = {};
  ASSERT_GT(utlhost(host, sizeof host), 0);
  EXPECT_EQ(std::string(s), std::string("(ADDRESS=(PROTOCOL=ipc)(KEY=SYSTEM.evm.acceptor.auth.alpha.") + host + "))");
  std::free(s);
  unsetenv("GMX_CLUSTERNAME");
  // A dotted number stands for the name the host is known by; a name stays as far as its dot.
  char dotted[] = "127.0.0.1";
  EXPECT_STREQ(_StripHostKey(dotted), "localhost");
  char plain[] = "node7";
  EXPECT_STREQ(_StripHostKey(plain), "node7");
  EXPECT_EQ(_StripHostKey(nullptr), nullptr);
  // The process-wide transport context is made once, and again after it has ended.
  xpcctx* ctx = EvmInitxpcctx();
  ASSERT_NE(ctx, nullptr);
  EXPECT_EQ(EvmInitxpcctx(), ctx);
  Evmxpcterm();
  EXPECT_NE(EvmInitxpcctx(), nullptr);
}

TEST_F(EvmPostTest, WhatNoCallbackTakesIsFreedAndABrokenTemplateEndsTheConnection) {
  ASSERT_EQ(open(EvmCONNECTION_POST, EvmRESPONSE_WAIT), EvmERROR_NONE);
  // A delivered event on a connection without a callback goes nowhere, and nothing leaks.
  EvmUint32_t len = 0;
  auto* bytes = static_cast<const unsigned char*>(EvmEventWriteBuf(&len, event_));
  Message block(bytes, bytes + len);
  sendHead(EvmCOMM_NOTIFY, 0, 0, len);
  send(block);
  EXPECT_EQ(dispatch(), EvmERROR_NONE);
  EvmConnDestroy(conn_);
  conn_ = nullptr;
  xpcdisc(peer_);
  peer_ = nullptr;

  std::vector<Seen> seen;
  ASSERT_EQ(open(EvmCONNECTION_POST, EvmRESPONSE_CALLBACK, record, &seen), EvmERROR_NONE);
  sendHead(EvmCOMM_REGISTRATION_RSP, 0, 5);
  send(Message(EVM_TEMPLATE_DATA_SIZE, 0));
  send(Message(EVM_XPC_HEADER_SIZE + 10, 0));  // no 120-byte head
  EXPECT_EQ(dispatch(), EvmERROR_NONE) << "the callback hears of it, not the dispatcher";
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].reason, EvmREASON_REGISTRATION_DELIVERED);
  EXPECT_EQ(seen[0].status, EvmERROR_CONNECTION_LOST);
  EXPECT_EQ(seen[0].name, "");
  EXPECT_EQ(EvmEventPost(conn_, event_), EvmERROR_CONNECTION_LOST);
}

TEST(EvmQueueTest, EntriesLeaveInTheOrderTheyCameAndTheQueueOwnsThem) {
  _evmIoMsgQueue_t q;
  _evmIoMsgQueueInit(&q);
  EXPECT_EQ(_evmIoMsgQueueDequeueFirstEntry(&q), nullptr);
  for (int i = 0; i < 3; ++i) {
    char* msg = static_cast<char*>(std::malloc(8));
    std::snprintf(msg, 8, "m%d", i);
    ASSERT_EQ(_evmIoMsgQueueAddEntry(&q, msg, 8), EvmERROR_NONE);
  }
  EXPECT_EQ(_evmIoMsgQueueCount(&q), 3u);
  _evmIoMsgQueueEntry_t* e = _evmIoMsgQueueDequeueFirstEntry(&q);
  ASSERT_NE(e, nullptr);
  EXPECT_STREQ(e->msg, "m0");
  EXPECT_EQ(e->next, nullptr);
  _evmIoMsgQueueDestroyEntry(e);
  EXPECT_EQ(_evmIoMsgQueueCount(&q), 2u);
  _evmIoMsgQueueDestroy(&q);  // frees what is left
  EXPECT_EQ(_evmIoMsgQueueCount(&q), 0u);
  EXPECT_EQ(q.head, nullptr);
  EXPECT_EQ(q.tail, nullptr);
}

}  // namespace
