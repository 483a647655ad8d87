// The event daemon's server loop.
#include "evm/evmd/evmd_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "evm/libevm/evm.h"
#include "platform/host/utlhost.h"
#include "platform/registry/prvrg.h"
#include "platform/trace/dtr.h"
#include "platform/xpc/xpc.h"

namespace evmd {

namespace {

constexpr std::size_t kReadChunk = 64 * 1024;
// Bytes read from one client in one round, so that a flood from one can't starve the others.
constexpr std::size_t kRoundBudget = 256 * 1024;
// A listener that doesn't read its notifications is cut off rather than buffered without end.
constexpr std::size_t kMaxOutBuffer = 16 * 1024 * 1024;

enum class State { ConnectHead, ConnectBody, Ready, PostBody, Closing };

EvmCommHead_t makeHead(std::uint32_t type, std::uint32_t flags, std::uint64_t headerData, std::uint32_t bodySize) {
  EvmCommHead_t h;
  std::memset(&h, 0, sizeof h);
  _evmFillTransportHeader(&h, static_cast<EvmUint32_t>(EVM_COMM_HEAD_SIZE));
  h.ident = EVM_COMM_IDENT;
  h.version = EVM_COMM_VERSION;
  h.magic = EVM_COMM_MAGIC;
  h.type = type;
  h.flags = flags;
  h.headerData = headerData;
  h.bodySize = bodySize;
  return h;
}

void setNonBlocking(int fd) { fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK); }

}  // namespace

struct Server::Client {
  int fd = -1;
  bool tcp = false;
  State state = State::ConnectHead;
  std::uint32_t connector = EvmCOMM_NO_CONNECTOR;
  EvmCommHead_t head{};  // of the message awaited
  std::vector<unsigned char> in;
  std::size_t inStart = 0, inEnd = 0;
  // Messages that wait for the round's commit, and whether each answers an accepted post (whose
  // answer must turn into a failure if the commit fails).
  std::vector<unsigned char> held;
  std::vector<std::size_t> acceptedAt;
  std::vector<unsigned char> out;
  std::size_t outStart = 0;
  bool touched = false;
  bool watchingOut = false;
  bool dead = false;
  bool peerClosed = false;
};

Server::Server(const Options& options)
    : options_(options),
      log_(options.home + "/log/evm/events.log", options.sync, options.syncIntervalMs) {
  signal(SIGPIPE, SIG_IGN);
  sigset_t mask;
  sigemptyset(&mask);
  sigaddset(&mask, SIGTERM);
  sigaddset(&mask, SIGINT);
  sigprocmask(SIG_BLOCK, &mask, nullptr);
  sigfd_ = signalfd(-1, &mask, SFD_CLOEXEC | SFD_NONBLOCK);
  epfd_ = epoll_create1(EPOLL_CLOEXEC);
  if (sigfd_ < 0 || epfd_ < 0) throw ServerError(std::string("cannot set up the event loop: ") + std::strerror(errno));
  if (xpcinit(0, 0, &ctx_, 0) != xpcretSUCC || xpcugblmini(ctx_, &group_, 0) != xpcretSUCC)
    throw ServerError("cannot start the transport");
  int r = xpclisten(group_, options_.localAddress.c_str(), 0, &local_, 0);
  if (r == xpcretENDPTUSED) throw ServerError("another event daemon listens on " + options_.localAddress);
  if (r != xpcretSUCC) throw ServerError("cannot listen on " + options_.localAddress + " (transport code " + std::to_string(r) + ")");
  if (options_.tcp) {
    std::string addr = "(ADDRESS=(PROTOCOL=tcp)(HOST=" + options_.tcpHost + ")(PORT=" + std::to_string(options_.tcpPort) + "))";
    r = xpclisten(group_, addr.c_str(), 0, &tcpListener_, 0);
    if (r != xpcretSUCC) throw ServerError("cannot listen on " + addr + " (transport code " + std::to_string(r) + ")");
    char own[256];
    xpcgetaddr(tcpListener_, own, sizeof own, 0);
    tcpAddress_ = own;
    if (options_.registerTcp) registerTcpAddress();
  }
  auto watch = [this](int fd) {
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.fd = fd;
    epoll_ctl(epfd_, EPOLL_CTL_ADD, fd, &ev);
  };
  setNonBlocking(xpcfd(local_));
  watch(xpcfd(local_));
  if (tcpListener_ != nullptr) {
    setNonBlocking(xpcfd(tcpListener_));
    watch(xpcfd(tcpListener_));
  }
  watch(sigfd_);
  dtrWrite(" vyn_evmd started on " + options_.localAddress + (tcpAddress_.empty() ? "" : " and " + tcpAddress_) +
           ", log " + log_.path() +
           (log_.truncatedBytes() > 0 ? ", cut a torn end of " + std::to_string(log_.truncatedBytes()) + " bytes" : ""));
}

Server::~Server() {
  for (auto& kv : clients_) close(kv.first);
  clients_.clear();
  if (local_ != nullptr) xpcdisc(local_);
  if (tcpListener_ != nullptr) xpcdisc(tcpListener_);
  if (group_ != nullptr) xpcugblmterm(group_);
  if (ctx_ != nullptr) xpcterm(ctx_);
  if (epfd_ >= 0) close(epfd_);
  if (sigfd_ >= 0) close(sigfd_);
}

void Server::registerTcpAddress() {
  // The address others reach us at: the host's own address when we listen on all of them.
  std::string published = tcpAddress_;
  char host[256] = "";
  if (utlhost(host, sizeof host) < 1) return;
  if (options_.tcpHost == "0.0.0.0") {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    addrinfo* res = nullptr;
    std::string ip = "127.0.0.1";
    if (getaddrinfo(host, nullptr, &hints, &res) == 0 && res != nullptr) {
      char text[INET_ADDRSTRLEN];
      if (inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in*>(res->ai_addr)->sin_addr, text, sizeof text) != nullptr)
        ip = text;
      freeaddrinfo(res);
    }
    std::string port = tcpAddress_.substr(tcpAddress_.find("(PORT="));
    published = "(ADDRESS=(PROTOCOL=tcp)(HOST=" + ip + ")" + port;
  }
  char* dot = std::strchr(host, '.');
  if (dot != nullptr) *dot = '\0';
  std::string key = std::string(EVM_RMPORT_KEY) + host;
  prvrg_ctx* rg = nullptr;
  char err[256];
  std::size_t errlen = sizeof err;
  if (prvrg_init_ext(&rg, PRVRG_LEVEL_DEFAULT, err, &errlen, 0) != PRVRG_SUCC) {
    dtrWrite(" vyn_evmd could not open the registry to publish " + published + ": " + std::string(err, errlen));
    return;
  }
  prvrg_security sec{};
  sec.user_perm = 63;
  int rc = prvrg_create_n_set_key(rg, nullptr, key.c_str(), nullptr, nullptr, prvrg_dtype_ZELTEXT, published.c_str(),
                                  published.size() + 1, sec);
  dtrWrite(" vyn_evmd " + std::string(rc == PRVRG_SUCC ? "published " : "could not publish ") + published + " as " + key);
  prvrg_terminate(rg);
}

void Server::accept(int listenFd, bool tcp) {
  for (;;) {
    int fd = accept4(listenFd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
      if (errno == EINTR) continue;
      if (errno != EAGAIN && errno != EWOULDBLOCK) dtrWrite(std::string(" vyn_evmd accept: ") + std::strerror(errno));
      return;
    }
    auto c = std::make_unique<Client>();
    c->fd = fd;
    c->tcp = tcp;
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.fd = fd;
    epoll_ctl(epfd_, EPOLL_CTL_ADD, fd, &ev);
    clients_[fd] = std::move(c);
    ++stats_.clients;
  }
}

void Server::drop(Client& c, const char* why) {
  if (c.dead) return;
  c.dead = true;
  dead_.push_back(c.fd);
  if (why != nullptr) {
    ++stats_.dropped;
    dtrWrite(std::string(" vyn_evmd dropped a client: ") + why);
  }
}

void Server::reap() {
  for (int fd : dead_) {
    auto it = clients_.find(fd);
    if (it == clients_.end()) continue;
    epoll_ctl(epfd_, EPOLL_CTL_DEL, fd, nullptr);
    close(fd);
    clients_.erase(it);
  }
  dead_.clear();
}

void Server::readFrom(Client& c) {
  std::size_t budget = kRoundBudget;
  while (!c.dead && !c.peerClosed && budget > 0) {
    if (c.in.size() - c.inEnd < kReadChunk) {
      if (c.inStart > 0) {
        std::memmove(c.in.data(), c.in.data() + c.inStart, c.inEnd - c.inStart);
        c.inEnd -= c.inStart;
        c.inStart = 0;
      }
      if (c.in.size() - c.inEnd < kReadChunk) c.in.resize(c.inEnd + kReadChunk);
    }
    ssize_t n = recv(c.fd, c.in.data() + c.inEnd, c.in.size() - c.inEnd, MSG_DONTWAIT);
    if (n > 0) {
      c.inEnd += static_cast<std::size_t>(n);
      budget -= std::min(budget, static_cast<std::size_t>(n));
    } else if (n == 0) {
      c.peerClosed = true;
    } else if (errno == EINTR) {
      continue;
    } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
      break;
    } else {
      c.peerClosed = true;
    }
    // Whole messages are acted on as they come, so the buffer holds at most one partial one.
    while (!c.dead && c.inEnd - c.inStart >= 4) {
      std::uint32_t len = evmLoad32(c.in.data(), c.inStart);
      if (len < XPC_HEADER_SIZE || len > XPC_MAX_MESSAGE) {
        drop(c, "a message length that no message has");
        return;
      }
      if (c.inEnd - c.inStart < len) {
        if (c.in.size() < len) {
          std::memmove(c.in.data(), c.in.data() + c.inStart, c.inEnd - c.inStart);
          c.inEnd -= c.inStart;
          c.inStart = 0;
          c.in.resize(len + kReadChunk);
        }
        break;
      }
      handleMessage(c, c.in.data() + c.inStart, len);
      c.inStart += len;
      if (c.inStart == c.inEnd) c.inStart = c.inEnd = 0;
    }
  }
  if (c.peerClosed && !c.dead) {
    // What the client sent before it went away still counts; a message it broke off does not.
    drop(c, c.inEnd > c.inStart ? "it ended inside a message" : nullptr);
  }
}

void Server::handleMessage(Client& c, const unsigned char* msg, std::uint32_t len) {
  EvmCommHead_t h;
  auto isHead = [&](std::uint32_t type) {
    if (len != EVM_COMM_HEAD_SIZE) return false;
    std::memcpy(&h, msg, sizeof h);
    return h.type == type && h.magic == EVM_COMM_MAGIC;
  };
  switch (c.state) {
    case State::ConnectHead:
      if (!isHead(EvmCOMM_CONNECT_REQ)) return drop(c, "no connect request");
      c.head = h;
      c.state = State::ConnectBody;
      return;
    case State::ConnectBody: {
      std::uint32_t flags = 0;
      if (len != c.head.bodySize || len < EVM_CONNREQ_OFF_PID) {
        flags = evmCommFlag(EvmCOMMFLAG_INVALID_DATA);
      } else {
        c.connector = evmLoad32(msg, EVM_CONNREQ_OFF_CONNECTOR);
        // Posters and listeners are served; services and the rest have nothing here.
        if (c.connector != EvmCOMM_POSTER && c.connector != EvmCOMM_SUBSCRIBER)
          flags = evmCommFlag(EvmCOMMFLAG_CONNECTION_REFUSED);
      }
      answer(c, EvmCOMM_CONNECT_RSP, flags, 0);
      c.state = flags == 0 ? State::Ready : State::Closing;
      return;
    }
    case State::Ready:
      if (isHead(EvmCOMM_POST_REQ)) {
        c.head = h;
        c.state = State::PostBody;
        return;
      }
      return drop(c, "a message of a type not expected from a client");
    case State::PostBody:
      c.state = State::Ready;
      return handlePost(c, msg, len);
    case State::Closing:
      return;
  }
}

void Server::handlePost(Client& c, const unsigned char* msg, std::uint32_t len) {
  const std::uint64_t token = c.head.headerData;
  const bool ack = (c.head.flags & evmCommFlag(EvmCOMMFLAG_DO_NOT_ACK)) == 0;
  std::uint32_t verdict = 0;
  EvmEvent_t event = nullptr;
  EvmEventHead_t head;
  if (len != c.head.bodySize || len < EVM_HEAD_SIZE) {
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
    log_.add(event->head_p, event->head_p->control.size);
    notify(reinterpret_cast<const unsigned char*>(event->head_p), event->head_p->control.size);
    ++stats_.accepted;
  } else if (verdict == evmCommFlag(EvmCOMMFLAG_EVENT_REJECTED)) {
    ++stats_.rejected;
  } else {
    ++stats_.invalid;
  }
  if (event != nullptr) EvmEventDestroy(event);
  if (ack) {
    if (verdict == 0) c.acceptedAt.push_back(c.held.size());
    answer(c, EvmCOMM_POST_RSP, verdict, token);
  }
}

void Server::answer(Client& c, std::uint32_t type, std::uint32_t flags, std::uint64_t headerData) {
  EvmCommHead_t h = makeHead(type, flags, headerData, 0);
  const auto* p = reinterpret_cast<const unsigned char*>(&h);
  c.held.insert(c.held.end(), p, p + sizeof h);
  if (!c.touched) {
    c.touched = true;
    touched_.push_back(&c);
  }
}

void Server::notify(const unsigned char* block, std::uint32_t size) {
  for (auto& kv : clients_) {
    Client& s = *kv.second;
    if (s.dead || s.connector != EvmCOMM_SUBSCRIBER || s.state == State::Closing) continue;
    if (s.out.size() - s.outStart + s.held.size() > kMaxOutBuffer) {
      drop(s, "a listener that does not read its events");
      continue;
    }
    EvmCommHead_t h = makeHead(EvmCOMM_NOTIFY, 0, 0, size);
    const auto* p = reinterpret_cast<const unsigned char*>(&h);
    s.held.insert(s.held.end(), p, p + sizeof h);
    std::size_t at = s.held.size();
    s.held.insert(s.held.end(), block, block + size);
    _evmFillTransportHeader(s.held.data() + at, size);
    if (!s.touched) {
      s.touched = true;
      touched_.push_back(&s);
    }
  }
}

void Server::flushOut(Client& c) {
  while (!c.dead && c.outStart < c.out.size()) {
    ssize_t n = send(c.fd, c.out.data() + c.outStart, c.out.size() - c.outStart, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n > 0) {
      c.outStart += static_cast<std::size_t>(n);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
    drop(c, nullptr);  // the client went away; what it was owed has nowhere to go
    return;
  }
  bool pendingOut = c.outStart < c.out.size();
  if (!pendingOut) {
    c.out.clear();
    c.outStart = 0;
    if (c.state == State::Closing) return drop(c, nullptr);
  }
  if (pendingOut != c.watchingOut && !c.dead) {
    epoll_event ev{};
    ev.events = EPOLLIN | (pendingOut ? EPOLLOUT : 0u);
    ev.data.fd = c.fd;
    epoll_ctl(epfd_, EPOLL_CTL_MOD, c.fd, &ev);
    c.watchingOut = pendingOut;
  }
}

void Server::endRound() {
  bool failed = false;
  try {
    log_.commit();
  } catch (const LogError& e) {
    failed = true;
    dtrWrite(std::string(" vyn_evmd ") + e.what());
  }
  for (Client* c : touched_) {
    if (failed) {
      // Nothing that was not written may be acknowledged as taken.
      for (std::size_t at : c->acceptedAt) {
        EvmCommFlag_t f = evmCommFlag(EvmCOMMFLAG_RESOURCE_FAILURE);
        std::memcpy(c->held.data() + at + EVM_COMM_OFF_FLAGS, &f, sizeof f);
      }
    }
    c->acceptedAt.clear();
    c->touched = false;
    if (c->dead) {
      c->held.clear();
      continue;
    }
    if (c->out.empty()) {
      c->out.swap(c->held);
    } else {
      c->out.insert(c->out.end(), c->held.begin(), c->held.end());
      c->held.clear();
    }
    flushOut(*c);
  }
  touched_.clear();
}

void Server::run() {
  std::vector<epoll_event> events(256);
  const int localFd = xpcfd(local_), tcpFd = xpcfd(tcpListener_);
  while (!stopping_) {
    int n = epoll_wait(epfd_, events.data(), static_cast<int>(events.size()), log_.msUntilSyncDue());
    if (n < 0) {
      if (errno == EINTR) continue;
      throw ServerError(std::string("epoll_wait: ") + std::strerror(errno));
    }
    if (n == 0) {
      log_.sync();
      continue;
    }
    for (int i = 0; i < n; ++i) {
      int fd = events[i].data.fd;
      if (fd == localFd) {
        accept(fd, false);
      } else if (fd == tcpFd) {
        accept(fd, true);
      } else if (fd == sigfd_) {
        signalfd_siginfo si;
        while (read(sigfd_, &si, sizeof si) == static_cast<ssize_t>(sizeof si)) {
        }
        stopping_ = true;
      } else {
        auto it = clients_.find(fd);
        if (it == clients_.end()) continue;
        Client& c = *it->second;
        if (events[i].events & EPOLLOUT) flushOut(c);
        if (events[i].events & (EPOLLIN | EPOLLHUP | EPOLLERR)) readFrom(c);
      }
    }
    endRound();
    reap();
  }
  // Events already sent to us are in hand: take them in, write them, and answer what we can.
  for (auto& kv : clients_) readFrom(*kv.second);
  endRound();
  reap();
  log_.sync();
  dtrWrite(" vyn_evmd stopped: " + std::to_string(stats_.accepted) + " accepted, " + std::to_string(stats_.rejected) +
           " rejected, " + std::to_string(stats_.invalid) + " invalid, " + std::to_string(stats_.clients) +
           " clients, " + std::to_string(stats_.dropped) + " dropped");
}

}  // namespace evmd
