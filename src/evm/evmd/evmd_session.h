#ifndef EVM_EVMD_EVMD_SESSION_H
#define EVM_EVMD_EVMD_SESSION_H

// One client's side of the protocol, apart from its socket: bytes in, and out of them the
// events to take and the answers to give. A client speaks a connect head and request, answered
// by a connect response; then any number of posts (a head and an event block), each answered
// unless it carries DO_NOT_ACK. A listener may also send subscription requests (a head and a
// name pattern), each answered: the pattern becomes its filter, or, when the pattern is refused,
// the old filter stays. Anything else (a length word that no message expected now can have, a
// message of a type not expected now) ends the client and nothing more.
//
// Memory grows with the bytes that arrived, never with what a length word claims: every length
// is checked against the longest message the stage allows before any room is taken, and a post
// of an event longer than the daemon takes is answered EVENT_REJECTED while its bytes are
// dropped as they come.
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "evm/libevm/evm.h"

namespace evmd {

// Who is at the other end, as the kernel says it, not the client.
struct Peer {
  bool local = true;  // a Unix socket: uid, gid and pid are the peer's credentials
  uid_t uid = 0;
  gid_t gid = 0;
  pid_t pid = 0;
  bool mayListen = false;  // the superuser, or a member of the listeners' group
};

// Where a session's results go; the server implements it.
class SessionSink {
 public:
  virtual ~SessionSink() = default;
  // An event that passed every check, to be logged and handed to listeners; `name` is its name.
  virtual void accepted(const EvmEventHead_t* block, std::uint32_t size, const char* name) = 0;
  // An answer for the client. `acceptedPost` marks the answer to an accepted post, which must
  // turn into a failure if the event can't be committed.
  virtual void answer(const EvmCommHead_t& head, bool acceptedPost) = 0;
  // A complaint about the client, of a kind (for counting) with a detail.
  virtual void complain(const char* kind, const std::string& detail) = 0;
};

class Session {
 public:
  // The longest connect request taken: the fixed part and a service name.
  static constexpr std::uint32_t kMaxConnectRequest = 1024;

  explicit Session(const Peer& peer) : peer_(peer) {}

  // Room for the next bytes from the socket: at least some, grown only as bytes arrive.
  unsigned char* space(std::size_t* size);
  // `n` bytes were put into space(): acts on every whole message. False when the client must be
  // cut off; the sink has been told why.
  bool received(std::size_t n, SessionSink& sink);
  // Copies `n` bytes in and acts on them, as space() and received() would.
  bool feed(const unsigned char* p, std::size_t n, SessionSink& sink);

  // Whether bytes of a message that has not yet come whole are in hand.
  bool midMessage() const { return inEnd_ > inStart_ || discardLeft_ > 0; }
  // A listener whose connect was accepted: it gets every accepted event.
  bool listening() const { return stage_ != Stage::ConnectHead && stage_ != Stage::ConnectBody &&
                                  stage_ != Stage::Closing && connector_ == EvmCOMM_SUBSCRIBER; }
  // Whether a listener wants the event named `name`: every event until it names a filter.
  bool wants(const char* name) const;
  const std::string& filter() const { return filter_; }
  // The connect was refused: the client ends once that answer is out.
  bool closing() const { return stage_ == Stage::Closing; }
  const Peer& peer() const { return peer_; }
  std::size_t bufferSize() const { return in_.size(); }

 private:
  enum class Stage { ConnectHead, ConnectBody, Ready, PostBody, SubscribeBody, Discard, Closing };
  bool lengthFits(std::uint32_t len, SessionSink& sink);
  bool handle(const unsigned char* msg, std::uint32_t len, SessionSink& sink);
  void connect(const unsigned char* msg, std::uint32_t len, SessionSink& sink);
  void post(const unsigned char* msg, std::uint32_t len, SessionSink& sink);
  void subscribe(const unsigned char* msg, std::uint32_t len, SessionSink& sink);
  void answerPost(std::uint32_t verdict, SessionSink& sink);
  bool cut(SessionSink& sink, const char* kind, const std::string& detail);

  Peer peer_;
  Stage stage_ = Stage::ConnectHead;
  std::uint32_t connector_ = EvmCOMM_NO_CONNECTOR;
  EvmCommHead_t head_{};  // of the message awaited
  std::uint32_t discardLeft_ = 0;
  std::string filter_;  // empty: every event
  std::vector<unsigned char> in_;
  std::size_t inStart_ = 0, inEnd_ = 0;
};

}  // namespace evmd

#endif
