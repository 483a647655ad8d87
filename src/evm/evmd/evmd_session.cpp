// One client's side of the protocol.
#include "evm/evmd/evmd_session.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "evm/libevm/evm_check.h"
#include "evm/libevm/evm_conn.h"

namespace evmd {

namespace {

constexpr std::size_t kChunk = 16 * 1024;

std::string user(const Peer& p) {
  return p.local ? "uid " + std::to_string(p.uid) + ", pid " + std::to_string(p.pid) : "a TCP peer";
}

}  // namespace

unsigned char* Session::space(std::size_t* size) {
  if (inStart_ == inEnd_) {
    inStart_ = inEnd_ = 0;
    // A long message is gone: give its room back rather than keep it for an idle client.
    if (in_.size() > 4 * kChunk) std::vector<unsigned char>().swap(in_);
  }
  if (in_.size() - inEnd_ < kChunk && inStart_ > 0) {
    std::memmove(in_.data(), in_.data() + inStart_, inEnd_ - inStart_);
    inEnd_ -= inStart_;
    inStart_ = 0;
  }
  if (in_.size() - inEnd_ < kChunk) in_.resize(std::max(inEnd_ + kChunk, std::min(2 * in_.size(), inEnd_ + 16 * kChunk)));
  *size = in_.size() - inEnd_;
  return in_.data() + inEnd_;
}

bool Session::feed(const unsigned char* p, std::size_t n, SessionSink& sink) {
  while (n > 0) {
    std::size_t room = 0;
    unsigned char* at = space(&room);
    std::size_t k = std::min(room, n);
    std::memcpy(at, p, k);
    if (!received(k, sink)) return false;
    p += k;
    n -= k;
  }
  return true;
}

bool Session::cut(SessionSink& sink, const char* kind, const std::string& detail) {
  sink.complain(kind, detail.empty() ? user(peer_) : user(peer_) + ": " + detail);
  inStart_ = inEnd_ = 0;
  stage_ = Stage::Closing;
  return false;
}

// Whether a message of `len` bytes may come now; cuts the client off if not.
bool Session::lengthFits(std::uint32_t len, SessionSink& sink) {
  std::uint32_t most = 0;
  switch (stage_) {
    case Stage::ConnectHead:
    case Stage::Ready:
      most = EVM_COMM_HEAD_SIZE;
      break;
    case Stage::ConnectBody:
      most = kMaxConnectRequest;
      break;
    case Stage::PostBody:
      most = EVM_MAX_EVENT_SIZE;
      break;
    case Stage::SubscribeBody:
      most = static_cast<std::uint32_t>(EVM_SUBSCRIBE_OFF_PATTERN + EVM_SUBSCRIBE_MAX_FILTER + 1);
      break;
    case Stage::Discard:
      most = head_.bodySize;
      break;
    case Stage::Closing:
      return true;
  }
  if (len < XPC_HEADER_SIZE || len > most)
    return cut(sink, "a client sent a length word no message it may send has",
               "length " + std::to_string(len) + ", at most " + std::to_string(most) + " expected");
  return true;
}

bool Session::received(std::size_t n, SessionSink& sink) {
  inEnd_ += n;
  while (stage_ != Stage::Closing) {
    std::size_t avail = inEnd_ - inStart_;
    if (stage_ == Stage::Discard) {
      // The bytes of an event too long to take: counted and dropped, never kept.
      std::size_t k = std::min<std::size_t>(avail, discardLeft_);
      if (discardLeft_ == head_.bodySize && k >= 4) {
        std::uint32_t len = evmLoad32(in_.data(), inStart_);
        if (len != head_.bodySize)
          return cut(sink, "a client sent a body whose length differs from its head", "");
      } else if (discardLeft_ == head_.bodySize) {
        break;  // its length word is not yet whole
      }
      inStart_ += k;
      discardLeft_ -= static_cast<std::uint32_t>(k);
      if (discardLeft_ > 0) break;
      stage_ = Stage::Ready;
      if (head_.type == EvmCOMM_SUBSCRIPTION_REQ)
        sink.answer(evmCommHead(EvmCOMM_SUBSCRIPTION_RSP, evmCommFlag(EvmCOMMFLAG_INVALID_DATA), head_.headerData, 0), false);
      else
        answerPost(evmCommFlag(EvmCOMMFLAG_EVENT_REJECTED), sink);
      continue;
    }
    if (avail < 4) break;
    std::uint32_t len = evmLoad32(in_.data(), inStart_);
    if (!lengthFits(len, sink)) return false;
    if (stage_ == Stage::Closing) break;
    if (avail < len) break;
    const unsigned char* msg = in_.data() + inStart_;
    inStart_ += len;
    if (!handle(msg, len, sink)) return false;
  }
  // A refused client's further bytes are not kept.
  if (inStart_ == inEnd_ || stage_ == Stage::Closing) inStart_ = inEnd_ = 0;
  return true;
}

bool Session::handle(const unsigned char* msg, std::uint32_t len, SessionSink& sink) {
  EvmCommHead_t h;
  auto isHead = [&](std::uint32_t type) {
    if (len != EVM_COMM_HEAD_SIZE) return false;
    std::memcpy(&h, msg, sizeof h);
    return h.type == type && h.magic == EVM_COMM_MAGIC;
  };
  switch (stage_) {
    case Stage::ConnectHead:
      if (!isHead(EvmCOMM_CONNECT_REQ)) return cut(sink, "a client began with something other than a connect request", "");
      head_ = h;
      stage_ = Stage::ConnectBody;
      return true;
    case Stage::ConnectBody:
      connect(msg, len, sink);
      return true;
    case Stage::Ready:
      if (connector_ == EvmCOMM_SUBSCRIBER && isHead(EvmCOMM_SUBSCRIPTION_REQ)) {
        head_ = h;
        if (h.bodySize > EVM_SUBSCRIBE_OFF_PATTERN + EVM_SUBSCRIBE_MAX_FILTER + 1) {
          // A pattern longer than any taken: its bytes are dropped as they come.
          discardLeft_ = h.bodySize;
          stage_ = Stage::Discard;
        } else {
          stage_ = Stage::SubscribeBody;
        }
        return true;
      }
      if (!isHead(EvmCOMM_POST_REQ)) return cut(sink, "a client sent a message of a type not expected from it", "");
      head_ = h;
      if (h.bodySize > EVM_MAX_EVENT_SIZE) {
        discardLeft_ = h.bodySize;
        stage_ = Stage::Discard;
        sink.complain("a client posted an event longer than the daemon takes",
                      user(peer_) + ": " + std::to_string(h.bodySize) + " bytes");
      } else {
        stage_ = Stage::PostBody;
      }
      return true;
    case Stage::PostBody:
      stage_ = Stage::Ready;
      post(msg, len, sink);
      return true;
    case Stage::SubscribeBody:
      stage_ = Stage::Ready;
      subscribe(msg, len, sink);
      return true;
    case Stage::Discard:
    case Stage::Closing:
      return true;
  }
  return true;
}

void Session::connect(const unsigned char* msg, std::uint32_t len, SessionSink& sink) {
  const std::size_t uidAt = evmConnReqUidOffset(_evmGetPidSizeHack());
  const std::size_t uidSize = _evmGetUidSize();
  std::uint32_t flags = 0;
  if (len != head_.bodySize || len < uidAt + uidSize) {
    flags = evmCommFlag(EvmCOMMFLAG_INVALID_DATA);
  } else {
    connector_ = evmLoad32(msg, EVM_CONNREQ_OFF_CONNECTOR);
    std::uint64_t claimed = 0;
    std::memcpy(&claimed, msg + uidAt, std::min(uidSize, sizeof claimed));
    if (connector_ != EvmCOMM_POSTER && connector_ != EvmCOMM_SUBSCRIBER) {
      // Posters and listeners are served; services and the rest have nothing here.
      flags = evmCommFlag(EvmCOMMFLAG_CONNECTION_REFUSED);
    } else if (peer_.local && claimed != static_cast<std::uint64_t>(peer_.uid)) {
      flags = evmCommFlag(EvmCOMMFLAG_CONNECTION_REFUSED);
      sink.complain("a client claimed to be another user",
                    user(peer_) + " claimed uid " + std::to_string(claimed));
    } else if (connector_ == EvmCOMM_SUBSCRIBER && !peer_.mayListen) {
      flags = evmCommFlag(EvmCOMMFLAG_CONNECTION_REFUSED);
      sink.complain("a client not allowed to listen asked to", user(peer_));
    }
  }
  sink.answer(evmCommHead(EvmCOMM_CONNECT_RSP, flags, 0, 0), false);
  stage_ = flags == 0 ? Stage::Ready : Stage::Closing;
}

bool Session::wants(const char* name) const {
  return filter_.empty() || EvmEventNameMatch(filter_.c_str(), name) == EvmTRUE;
}

void Session::subscribe(const unsigned char* msg, std::uint32_t len, SessionSink& sink) {
  std::uint32_t flags = evmCommFlag(EvmCOMMFLAG_INVALID_DATA);
  if (len == head_.bodySize && len > EVM_SUBSCRIBE_OFF_PATTERN && msg[len - 1] == '\0') {
    const char* pattern = reinterpret_cast<const char*>(msg + EVM_SUBSCRIBE_OFF_PATTERN);
    std::size_t n = len - EVM_SUBSCRIBE_OFF_PATTERN - 1;
    if (std::strlen(pattern) == n && n <= EVM_SUBSCRIBE_MAX_FILTER &&
        (n == 0 || _evmStringCheck(pattern, nullptr, EvmTRUE) == EvmERROR_NONE)) {
      filter_.assign(pattern, n);
      // "*" asks for everything, as the empty filter does, and costs no match per event.
      if (filter_ == "*") filter_.clear();
      flags = 0;
    }
  }
  sink.answer(evmCommHead(EvmCOMM_SUBSCRIPTION_RSP, flags, head_.headerData, 0), false);
}

void Session::answerPost(std::uint32_t verdict, SessionSink& sink) {
  if ((head_.flags & evmCommFlag(EvmCOMMFLAG_DO_NOT_ACK)) != 0) return;
  sink.answer(evmCommHead(EvmCOMM_POST_RSP, verdict, head_.headerData, 0), verdict == 0);
}

void Session::post(const unsigned char* msg, std::uint32_t len, SessionSink& sink) {
  std::uint32_t verdict = 0;
  EvmEvent_t event = nullptr;
  EvmEventHead_t head;
  if (len != head_.bodySize || len < EVM_HEAD_SIZE) {
    verdict = evmCommFlag(EvmCOMMFLAG_INVALID_DATA);
  } else {
    std::memcpy(&head, msg, EVM_HEAD_SIZE);
    if (head.control.ident != EVM_BLOCK_IDENT || head.control.size < EVM_OLD_HEAD_SIZE || head.control.size > len) {
      verdict = evmCommFlag(EvmCOMMFLAG_INVALID_DATA);
    } else if ((head.fldPresBits & (1u << EvmITEM_PRIORITY)) && head.priority > EVM_PRIORITY_MAX) {
      verdict = evmCommFlag(EvmCOMMFLAG_EVENT_REJECTED);  // well formed, but not an event we take
    } else {
      auto* block = static_cast<EvmEventHead_t*>(std::malloc(head.control.size));
      if (block == nullptr) {
        verdict = evmCommFlag(EvmCOMMFLAG_RESOURCE_FAILURE);
      } else {
        std::memcpy(block, msg, head.control.size);
        // The checksum first: a translation to the current head would sum the damage anew.
        if (_evmTestChecksum(block) != EvmERROR_NONE) {
          std::free(block);
          verdict = evmCommFlag(EvmCOMMFLAG_INVALID_DATA);
        } else if ((event = _evmMakeEvent(block)) == nullptr) {
          verdict = evmCommFlag(EvmCOMMFLAG_INVALID_DATA);
        } else if ((event->head_p->fldPresBits & (1u << EvmITEM_NAME)) == 0) {
          verdict = evmCommFlag(EvmCOMMFLAG_EVENT_REJECTED);  // an event without a name says nothing
        }
      }
    }
  }
  if (verdict == 0) {
    EvmItemValue_t name;
    sink.accepted(event->head_p, event->head_p->control.size,
                  _evmuiItemGet(event, EvmITEM_NAME, &name) == EvmERROR_NONE ? name.NAME : "");
  }
  if (event != nullptr) EvmEventDestroy(event);
  answerPost(verdict, sink);
}

}  // namespace evmd
