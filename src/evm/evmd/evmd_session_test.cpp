// One client's protocol: who may connect as whom, what a listener needs, and that no length
// word makes the session take memory for bytes that have not come.
#include "evm/evmd/evmd_session.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "evm/evmd/evmd_test_util.h"

namespace {

using evmdtest::Bytes;

struct Recorder : evmd::SessionSink {
  void accepted(const EvmEventHead_t*, std::uint32_t size, const char*) override { sizes.push_back(size); }
  void answer(const EvmCommHead_t& h, bool acceptedPost) override {
    answers.push_back(h);
    if (acceptedPost) ++acceptedPosts;
  }
  void complain(const char* kind, const std::string& detail) override {
    complaints.push_back(std::string(kind) + " [" + detail + "]");
  }
  std::vector<std::uint32_t> sizes;
  std::vector<EvmCommHead_t> answers;
  int acceptedPosts = 0;
  std::vector<std::string> complaints;
};

Bytes headBytes(std::uint32_t type, std::uint32_t flags, std::uint64_t data, std::uint32_t body) {
  EvmCommHead_t h = evmCommHead(type, flags, data, body);
  const auto* p = reinterpret_cast<const unsigned char*>(&h);
  return Bytes(p, p + sizeof h);
}

// A connect head and request for `connector`, claiming to be `uid`.
Bytes connectBytes(std::uint32_t connector, std::uint32_t uid) {
  std::size_t len = _evmGetConnectReqDataSize();
  Bytes req(len, 0);
  _evmFillTransportHeader(req.data(), static_cast<EvmUint32_t>(len));
  evmStore32(req.data(), EVM_CONNREQ_OFF_CONNECTOR, connector);
  evmStore32(req.data(), EVM_CONNREQ_OFF_PID, 4242);
  std::memcpy(_evmGetConnectReqDataUidPtr(req.data()), &uid, _evmGetUidSize());
  Bytes all = headBytes(EvmCOMM_CONNECT_REQ, 0, 0, static_cast<std::uint32_t>(len));
  all.insert(all.end(), req.begin(), req.end());
  return all;
}

evmd::Peer localPeer(uid_t uid, bool mayListen = false) {
  evmd::Peer p;
  p.uid = uid;
  p.gid = uid;
  p.pid = 4242;
  p.mayListen = mayListen;
  return p;
}

// A subscription head and its message: the transport header, `pattern`, and a NUL unless told
// otherwise; the head's bodySize says `claimed` bytes (0: the true length).
Bytes subscribeBytes(const std::string& pattern, bool nul = true, std::uint32_t claimed = 0) {
  Bytes body(EVM_SUBSCRIBE_OFF_PATTERN, 0);
  body.insert(body.end(), pattern.begin(), pattern.end());
  if (nul) body.push_back(0);
  _evmFillTransportHeader(body.data(), static_cast<EvmUint32_t>(body.size()));
  Bytes all = headBytes(EvmCOMM_SUBSCRIPTION_REQ, 0, 0, claimed != 0 ? claimed : static_cast<std::uint32_t>(body.size()));
  all.insert(all.end(), body.begin(), body.end());
  return all;
}

class SessionTest : public ::testing::Test {
 protected:
  bool feed(evmd::Session& s, const Bytes& b) { return s.feed(b.data(), b.size(), sink_); }
  Recorder sink_;
};

TEST_F(SessionTest, AConnectRequestMustNameThePeersOwnUser) {
  evmd::Session honest(localPeer(1000));
  ASSERT_TRUE(feed(honest, connectBytes(EvmCOMM_POSTER, 1000)));
  ASSERT_EQ(sink_.answers.size(), 1u);
  EXPECT_EQ(sink_.answers[0].type, static_cast<std::uint32_t>(EvmCOMM_CONNECT_RSP));
  EXPECT_EQ(sink_.answers[0].flags, 0u);
  EXPECT_FALSE(honest.closing());

  evmd::Session liar(localPeer(1000));
  ASSERT_TRUE(feed(liar, connectBytes(EvmCOMM_POSTER, 0)));
  ASSERT_EQ(sink_.answers.size(), 2u);
  EXPECT_EQ(sink_.answers[1].flags, evmCommFlag(EvmCOMMFLAG_CONNECTION_REFUSED));
  EXPECT_TRUE(liar.closing());
  ASSERT_EQ(sink_.complaints.size(), 1u);
  EXPECT_EQ(sink_.complaints[0], "a client claimed to be another user [uid 1000, pid 4242 claimed uid 0]");
  // Whatever it sends afterwards is neither acted on nor kept.
  Bytes post = headBytes(EvmCOMM_POST_REQ, 0, 1, 200);
  ASSERT_TRUE(feed(liar, post));
  EXPECT_EQ(sink_.answers.size(), 2u);
  EXPECT_FALSE(liar.midMessage());
}

TEST_F(SessionTest, ListeningIsForThoseTheServerAllows) {
  evmd::Session outsider(localPeer(1000, false));
  ASSERT_TRUE(feed(outsider, connectBytes(EvmCOMM_SUBSCRIBER, 1000)));
  EXPECT_EQ(sink_.answers.back().flags, evmCommFlag(EvmCOMMFLAG_CONNECTION_REFUSED));
  EXPECT_FALSE(outsider.listening());

  evmd::Session member(localPeer(1000, true));
  ASSERT_TRUE(feed(member, connectBytes(EvmCOMM_SUBSCRIBER, 1000)));
  EXPECT_EQ(sink_.answers.back().flags, 0u);
  EXPECT_TRUE(member.listening());

  // A TCP peer has no credentials to check; it may post, and the server never lets it listen.
  evmd::Peer tcp;
  tcp.local = false;
  evmd::Session remote(tcp);
  ASSERT_TRUE(feed(remote, connectBytes(EvmCOMM_POSTER, 12345)));
  EXPECT_EQ(sink_.answers.back().flags, 0u);
}

TEST_F(SessionTest, ALengthClaimBeyondWhatTheStageAllowsCutsTheClientOffAtOnce) {
  struct Case {
    const char* what;
    Bytes before;
    std::uint32_t claim;
  } cases[] = {
      {"first message", {}, 64u * 1024 * 1024},
      {"connect request", headBytes(EvmCOMM_CONNECT_REQ, 0, 0, 64), 1u << 20},
      {"short word", {}, 20},
      {"post head", connectBytes(EvmCOMM_POSTER, 7), 89},
  };
  for (auto& c : cases) {
    evmd::Session s(localPeer(7));
    Bytes b = c.before;
    Bytes word(48, 0);
    evmStore32(word.data(), 0, c.claim);
    b.insert(b.end(), word.begin(), word.end());
    EXPECT_FALSE(feed(s, b)) << c.what;
    EXPECT_LE(s.bufferSize(), 64u * 1024) << c.what;
  }
}

TEST_F(SessionTest, MemoryFollowsArrivedBytesAndAnOverlongEventIsDroppedAsItComes) {
  evmd::Session s(localPeer(7));
  ASSERT_TRUE(feed(s, connectBytes(EvmCOMM_POSTER, 7)));
  // A post of a block that may be taken, but whose bytes trickle in.
  Bytes ev = evmdtest::block("sys.zel.test.slow");
  Bytes big(EVM_MAX_EVENT_SIZE, 0);
  std::memcpy(big.data(), ev.data(), ev.size());
  evmStore32(big.data(), 0, EVM_MAX_EVENT_SIZE);
  ASSERT_TRUE(feed(s, headBytes(EvmCOMM_POST_REQ, 0, 5, EVM_MAX_EVENT_SIZE)));
  ASSERT_TRUE(s.feed(big.data(), 1000, sink_));
  EXPECT_LE(s.bufferSize(), 64u * 1024);
  EXPECT_TRUE(s.midMessage());
  ASSERT_TRUE(s.feed(big.data() + 1000, big.size() - 1000, sink_));
  EXPECT_EQ(sink_.answers.back().headerData, 5u);
  EXPECT_EQ(sink_.answers.back().flags, 0u);

  // One longer than the daemon takes: its bytes go by, then the answer says rejected.
  std::uint32_t huge = EVM_MAX_EVENT_SIZE + 1;
  ASSERT_TRUE(feed(s, headBytes(EvmCOMM_POST_REQ, 0, 6, huge)));
  Bytes chunk(100000, 0xab);
  evmStore32(chunk.data(), 0, huge);
  std::size_t sent = 0;
  std::size_t most = 0;
  while (sent < huge) {
    std::size_t n = std::min<std::size_t>(chunk.size(), huge - sent);
    ASSERT_TRUE(s.feed(chunk.data(), n, sink_));
    most = std::max(most, s.bufferSize());
    sent += n;
    evmStore32(chunk.data(), 0, 0xabababab);
  }
  EXPECT_LE(most, 512u * 1024);
  EXPECT_EQ(sink_.answers.back().headerData, 6u);
  EXPECT_EQ(sink_.answers.back().flags, evmCommFlag(EvmCOMMFLAG_EVENT_REJECTED));
  // And the client is still served.
  Bytes ok = evmdtest::block("sys.zel.test.ok");
  ASSERT_TRUE(feed(s, headBytes(EvmCOMM_POST_REQ, 0, 7, static_cast<std::uint32_t>(ok.size()))));
  ASSERT_TRUE(feed(s, ok));
  EXPECT_EQ(sink_.answers.back().flags, 0u);
  EXPECT_EQ(sink_.acceptedPosts, 2);
  EXPECT_EQ(sink_.sizes.size(), 2u);
}

TEST_F(SessionTest, AListenersFilterIsReplacedByEachGoodPatternAndABadOneKeepsTheOld) {
  evmd::Session s(localPeer(0, true));
  ASSERT_TRUE(feed(s, connectBytes(EvmCOMM_SUBSCRIBER, 0)));
  EXPECT_TRUE(s.wants("anything.at.all"));
  ASSERT_TRUE(feed(s, subscribeBytes("sys.zel.*.res.?")));
  EXPECT_TRUE(s.wants("sys.zel.clu.vyn.res.profile"));
  EXPECT_FALSE(s.wants("sys.zel.clu.vyn.res.profile.delete"));
  std::string tooLong(EVM_SUBSCRIBE_MAX_FILTER - 1, 'a');
  tooLong += ".b";
  for (const Bytes& bad : {subscribeBytes("sys..zel"), subscribeBytes("sys.z*"), subscribeBytes("sys.zel", false),
                           subscribeBytes(std::string("sys\0zel", 7)), subscribeBytes(tooLong)}) {
    ASSERT_TRUE(feed(s, bad));
    EXPECT_EQ(sink_.answers.back().type, static_cast<std::uint32_t>(EvmCOMM_SUBSCRIPTION_RSP));
    EXPECT_EQ(sink_.answers.back().flags, evmCommFlag(EvmCOMMFLAG_INVALID_DATA));
    EXPECT_EQ(s.filter(), "sys.zel.*.res.?");
  }
  // A body far longer than any pattern is dropped as it comes, never held.
  Bytes huge = subscribeBytes(std::string(200000, 'x'));
  ASSERT_TRUE(feed(s, huge));
  EXPECT_LT(s.bufferSize(), 100000u);
  EXPECT_EQ(sink_.answers.back().flags, evmCommFlag(EvmCOMMFLAG_INVALID_DATA));
  ASSERT_TRUE(feed(s, subscribeBytes("")));
  EXPECT_EQ(sink_.answers.back().flags, 0u);
  EXPECT_TRUE(s.wants("other"));
  EXPECT_EQ(sink_.answers.size(), 9u);  // the connect and eight subscriptions, each answered
}

TEST_F(SessionTest, ASubscriptionFromAPosterIsAProtocolError) {
  evmd::Session s(localPeer(1000));
  ASSERT_TRUE(feed(s, connectBytes(EvmCOMM_POSTER, 1000)));
  EXPECT_FALSE(feed(s, subscribeBytes("sys.*")));
  EXPECT_TRUE(s.closing());
  EXPECT_EQ(sink_.answers.size(), 1u);
}

}  // namespace
