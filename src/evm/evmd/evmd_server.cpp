// The event daemon's server loop.
#include "evm/evmd/evmd_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <grp.h>
#include <netdb.h>
#include <pwd.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "evm/evmd/evmd_session.h"
#include "evm/libevm/evm.h"
#include "platform/host/utlhost.h"
#include "platform/registry/prvrg.h"
#include "cppgen/clsLog.h"

namespace evmd {

namespace {

// The daemon's lines in its trace file: what it did (start, stop, publication) at LOGGING, what
// went wrong at FUNC_FAIL.
const CLS_Debug::CLSlog& dbug() {
  static const CLS_Debug::CLSlog* s_dbug = new CLS_Debug::CLSlog("VYNEVMD");
  return *s_dbug;
}

void traceLine(const std::string& text, bool failure) {
  std::ostringstream os;
  os << text;
  if (failure) {
    dbug().error(os, CLS_Debug::FUNC_FAIL, CLS_Debug::CLSlogModule::getModuleNone());
  } else {
    dbug().log(os, CLS_Debug::LOGGING, CLS_Debug::CLSlogModule::getModuleNone());
  }
}

// Bytes read from one client in one round, so that a flood from one can't starve the others.
constexpr std::size_t kRoundBudget = 256 * 1024;
// What a client may be owed (answers it has not read) before the daemon stops reading from it;
// it reads on when half of that has gone out.
constexpr std::size_t kMaxBacklog = 1024 * 1024;
// How long the listeners rest when accept finds no descriptor free.
constexpr long long kAcceptPauseMs = 100;

long long nowMs() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

std::string errText() { return std::strerror(errno); }

// epoll_wait to the microsecond, since a held sync waits about as long as a sync takes; on a
// kernel without epoll_pwait2, to the millisecond rounded up.
int waitEvents(int epfd, std::vector<epoll_event>& events, long long timeoutUs) {
  const int max = static_cast<int>(events.size());
  if (timeoutUs < 0) return epoll_wait(epfd, events.data(), max, -1);
  timespec ts{static_cast<time_t>(timeoutUs / 1000000), static_cast<long>(timeoutUs % 1000000) * 1000};
  int n = epoll_pwait2(epfd, events.data(), max, &ts, nullptr);
  if (n < 0 && errno == ENOSYS)
    n = epoll_wait(epfd, events.data(), max, static_cast<int>(std::min<long long>((timeoutUs + 999) / 1000, 1 << 30)));
  return n;
}

// Whether `uid` (primary group `gid`) belongs to the group `want`, through its primary group or
// the group file.
bool inGroup(uid_t uid, gid_t gid, gid_t want) {
  if (gid == want) return true;
  std::vector<char> buf(16384);
  passwd pw;
  passwd* found = nullptr;
  if (getpwuid_r(uid, &pw, buf.data(), buf.size(), &found) != 0 || found == nullptr) return false;
  int n = 64;
  std::vector<gid_t> groups(static_cast<std::size_t>(n));
  if (getgrouplist(pw.pw_name, pw.pw_gid, groups.data(), &n) < 0) {
    groups.resize(static_cast<std::size_t>(n));
    if (getgrouplist(pw.pw_name, pw.pw_gid, groups.data(), &n) < 0) return false;
  }
  return std::find(groups.begin(), groups.begin() + n, want) != groups.begin() + n;
}

}  // namespace

bool tcpPeerAllowed(const sockaddr_in& addr) {
  // Once membership exists, the addresses of the cluster's configured nodes join loopback here.
  return (ntohl(addr.sin_addr.s_addr) >> 24) == 127;
}

// What one round owes one client, waiting for the log to settle the round's mark.
struct Server::Chunk {
  std::uint64_t mark = 0;
  std::vector<unsigned char> bytes;
  std::vector<std::size_t> acceptedAt;  // answers to accepted posts: they fail if the round does
  std::vector<std::pair<std::size_t, std::size_t>> notices;  // events for a listener: gone if it fails
};

struct Server::Client {
  Client(int fd, const Peer& peer, std::uint64_t key) : fd(fd), session(peer), key(key) {}
  OslFd fd;
  Session session;
  std::uint64_t key;  // whom it counts against in perUser_
  // What this round owes the client, laid out as a Chunk.
  Chunk held;
  std::deque<Chunk> waiting;
  std::size_t waitingBytes = 0;
  std::vector<unsigned char> out;
  std::size_t outStart = 0;
  std::uint64_t lost = 0;  // events lost since the last notice
  bool touched = false;
  bool readPaused = false;
  std::uint32_t watched = EPOLLIN;
  bool dead = false;
};

// What a session's messages lead to, for one client.
class Server::Sink : public SessionSink {
 public:
  Sink(Server& s, Client& c) : s_(s), c_(c) {}
  void accepted(const EvmEventHead_t* block, std::uint32_t size, const char* name) override {
    s_.log_.add(block, size);
    s_.notify(block, size, name);
    ++s_.stats_.accepted;
  }
  void answer(const EvmCommHead_t& head, bool acceptedPost) override {
    if (head.type == EvmCOMM_POST_RSP) {
      if (head.flags & evmCommFlag(EvmCOMMFLAG_EVENT_REJECTED)) ++s_.stats_.rejected;
      if (head.flags & evmCommFlag(EvmCOMMFLAG_INVALID_DATA)) ++s_.stats_.invalid;
    }
    if (acceptedPost) c_.held.acceptedAt.push_back(c_.held.bytes.size());
    s_.hold(c_, &head, sizeof head);
  }
  void complain(const char* kind, const std::string& detail) override { s_.complain(kind, detail); }

 private:
  Server& s_;
  Client& c_;
};

Server::Server(const Options& options)
    : options_(options),
      log_(options.home + "/log/evm/events.log", options.sync, options.syncIntervalMs,
           options.logIo != nullptr ? *options.logIo : LogIo::system(), options.logLimits),
      complaints_(nowMs, [](const std::string& line) { traceLine(line, true); }) {
  signal(SIGPIPE, SIG_IGN);
  sigset_t mask;
  sigemptyset(&mask);
  sigaddset(&mask, SIGTERM);
  sigaddset(&mask, SIGINT);
  sigprocmask(SIG_BLOCK, &mask, nullptr);
  sigfd_.reset(signalfd(-1, &mask, SFD_CLOEXEC | SFD_NONBLOCK));
  epfd_.reset(epoll_create1(EPOLL_CLOEXEC));
  stopfd_.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!sigfd_ || !epfd_ || !stopfd_) throw ServerError("cannot set up the event loop: " + errText());
  if (!options_.listenGroup.empty()) {
    std::vector<char> buf(16384);
    group gr;
    group* found = nullptr;
    if (getgrnam_r(options_.listenGroup.c_str(), &gr, buf.data(), buf.size(), &found) != 0 || found == nullptr)
      throw ServerError("no group named " + options_.listenGroup);
    haveGroup_ = true;
    groupId_ = gr.gr_gid;
  }
  xpcctx* ctx = nullptr;
  xpcugblm* group = nullptr;
  if (xpcinit(0, 0, &ctx, 0) != xpcretSUCC) throw ServerError("cannot start the transport");
  ctx_.reset(ctx);
  if (xpcugblmini(ctx, &group, 0) != xpcretSUCC) throw ServerError("cannot start the transport");
  group_.reset(group);
  xpccon* l = nullptr;
  int r = xpclisten(group, options_.localAddress.c_str(), 0, &l, 0);
  local_.reset(l);
  if (r == xpcretENDPTUSED) throw ServerError("another event daemon listens on " + options_.localAddress);
  if (r == xpcretNOTAUTH) {
    const char* dir = std::getenv("VYN_IPC_DIR");
    throw ServerError(std::string("the socket directory ") + (dir != nullptr && *dir ? dir : "/var/tmp/.vyn") +
                      " is not safe: it must be a directory, not a symbolic link, owned by uid " +
                      std::to_string(geteuid()) + " and writable by nobody else");
  }
  if (r != xpcretSUCC) {
    // The key names the socket in the socket directory; a local socket's path has a hard limit,
    // which a long cluster name in the key or a deep directory passes.
    const std::string& a = options_.localAddress;
    const std::size_t k = a.find("(KEY=");
    const char* dir = std::getenv("VYN_IPC_DIR");
    const std::string path = std::string(dir != nullptr && *dir ? dir : "/var/tmp/.vyn") + "/" +
                             (k == std::string::npos ? "" : a.substr(k + 5, a.find(')', k) - k - 5));
    if (path.size() >= sizeof(sockaddr_un::sun_path))
      throw ServerError("cannot listen on " + a + ": its socket path " + path + " has " + std::to_string(path.size()) +
                        " bytes, and a local socket's path at most " +
                        std::to_string(sizeof(sockaddr_un::sun_path) - 1) +
                        " (a shorter VYN_IPC_DIR or cluster name helps)");
    throw ServerError("cannot listen on " + a + " (transport code " + std::to_string(r) + ")");
  }
  if (!options_.tcpAddress.empty()) {
    r = xpclisten(group, options_.tcpAddress.c_str(), 0, &l, 0);
    tcpListener_.reset(l);
    if (r != xpcretSUCC)
      throw ServerError("cannot listen on " + options_.tcpAddress + " (transport code " + std::to_string(r) + ")");
    char own[256];
    xpcgetaddr(l, own, sizeof own, 0);
    tcpAddress_ = own;
    if (options_.registerTcp) registerTcpAddress();
  }
  auto watchFd = [this](int fd) {
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.fd = fd;
    if (epoll_ctl(epfd_.get(), EPOLL_CTL_ADD, fd, &ev) != 0) throw ServerError("cannot watch a descriptor: " + errText());
  };
  for (xpccon* c : {local_.get(), tcpListener_.get()}) {
    if (c == nullptr) continue;
    fcntl(xpcfd(c), F_SETFL, fcntl(xpcfd(c), F_GETFL) | O_NONBLOCK);
    watchFd(xpcfd(c));
  }
  watchFd(sigfd_.get());
  watchFd(stopfd_.get());
  std::string repaired;
  if (log_.removedBytes() > 0) {
    repaired = ", took " + std::to_string(log_.removedBytes()) + " damaged bytes out of it into";
    for (const auto& f : log_.damagedFiles()) repaired += " " + f;
  }
  traceLine(" vyn_evmd started on " + options_.localAddress + (tcpAddress_.empty() ? "" : " and " + tcpAddress_) +
                ", log " + log_.path() + " with " + std::to_string(log_.events()) + " events" + repaired,
            false);
}

Server::~Server() = default;

void Server::requestStop() {
  std::uint64_t one = 1;
  if (write(stopfd_.get(), &one, sizeof one) != static_cast<ssize_t>(sizeof one)) {
    // Already signalled: the counter is not read until the loop stops.
  }
}

void Server::registerTcpAddress() {
  // The address others reach us at: the host's own address when we listen on all of them.
  std::string published = tcpAddress_;
  char host[256] = "";
  if (utlhost(host, sizeof host) < 1) return;
  if (tcpAddress_.find("(HOST=0.0.0.0)") != std::string::npos) {
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
    traceLine(" vyn_evmd could not open the registry to publish " + published + ": " + std::string(err, errlen), true);
    return;
  }
  prvrg_security sec{};
  sec.user_perm = 63;
  int rc = prvrg_create_n_set_key(rg, nullptr, key.c_str(), nullptr, nullptr, prvrg_dtype_ZELTEXT, published.c_str(),
                                  published.size() + 1, sec);
  traceLine(" vyn_evmd " + std::string(rc == PRVRG_SUCC ? "published " : "could not publish ") + published + " as " + key,
            rc != PRVRG_SUCC);
  prvrg_terminate(rg);
}

void Server::pauseListeners() {
  pausedUntilMs_ = nowMs() + kAcceptPauseMs;
  for (xpccon* c : {local_.get(), tcpListener_.get()}) {
    if (c == nullptr) continue;
    epoll_event ev{};
    ev.events = 0;
    ev.data.fd = xpcfd(c);
    epoll_ctl(epfd_.get(), EPOLL_CTL_MOD, xpcfd(c), &ev);
  }
}

void Server::resumeListeners() {
  pausedUntilMs_ = -1;
  for (xpccon* c : {local_.get(), tcpListener_.get()}) {
    if (c == nullptr) continue;
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.fd = xpcfd(c);
    epoll_ctl(epfd_.get(), EPOLL_CTL_MOD, xpcfd(c), &ev);
  }
}

void Server::accept(int listenFd, bool tcp) {
  for (;;) {
    sockaddr_storage ss{};
    socklen_t len = sizeof ss;
    OslFd fd(accept4(listenFd, reinterpret_cast<sockaddr*>(&ss), &len, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!fd) {
      if (errno == EINTR || errno == ECONNABORTED) continue;
      if (errno == EAGAIN || errno == EWOULDBLOCK) return;
      if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
        // The waiting connection stays queued; trying again at once would spin.
        complain("the daemon has no descriptor left for a new connection", errText());
        pauseListeners();
        return;
      }
      complain("accept failed", errText());
      return;
    }
    Peer peer;
    std::uint64_t key = 0;
    if (tcp) {
      const auto& sin = reinterpret_cast<const sockaddr_in&>(ss);
      char text[INET_ADDRSTRLEN] = "";
      inet_ntop(AF_INET, &sin.sin_addr, text, sizeof text);
      if (ss.ss_family != AF_INET || !tcpPeerAllowed(sin)) {
        ++stats_.turnedAway;
        complain("a TCP connection came from an address that is not admitted", text);
        continue;
      }
      peer.local = false;
      peer.mayListen = options_.tcpListen;
      key = (std::uint64_t{1} << 32) | ntohl(sin.sin_addr.s_addr);
    } else {
      ucred cred{};
      socklen_t clen = sizeof cred;
      if (getsockopt(fd.get(), SOL_SOCKET, SO_PEERCRED, &cred, &clen) != 0) {
        complain("a local peer's credentials could not be read", errText());
        continue;
      }
      peer.uid = cred.uid;
      peer.gid = cred.gid;
      peer.pid = cred.pid;
      peer.mayListen = cred.uid == 0 || (haveGroup_ && inGroup(cred.uid, cred.gid, groupId_));
      key = cred.uid;
    }
    if (static_cast<int>(clients_.size()) >= options_.maxClients) {
      ++stats_.turnedAway;
      complain("a connection was turned away: the daemon has as many clients as it takes",
               std::to_string(clients_.size()) + " clients");
      continue;
    }
    int& mine = perUser_[key];
    if (mine >= options_.maxClientsPerUser) {
      ++stats_.turnedAway;
      complain("a connection was turned away: its user has as many connections as one user may",
               tcp ? "a TCP peer" : "uid " + std::to_string(peer.uid));
      continue;
    }
    int raw = fd.get();
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.fd = raw;
    if (epoll_ctl(epfd_.get(), EPOLL_CTL_ADD, raw, &ev) != 0) {
      complain("a connection could not be watched", errText());
      continue;
    }
    ++mine;
    clients_[raw] = std::make_unique<Client>(fd.release(), peer, key);
    ++stats_.clients;
  }
}

void Server::drop(Client& c) {
  if (c.dead) return;
  c.dead = true;
  dead_.push_back(c.fd.get());
}

void Server::reap() {
  if (dead_.empty()) return;
  waiting_.erase(std::remove_if(waiting_.begin(), waiting_.end(), [](Client* c) { return c->dead; }), waiting_.end());
  for (int fd : dead_) {
    auto it = clients_.find(fd);
    if (it == clients_.end()) continue;
    epoll_ctl(epfd_.get(), EPOLL_CTL_DEL, fd, nullptr);
    auto u = perUser_.find(it->second->key);
    if (u != perUser_.end() && --u->second <= 0) perUser_.erase(u);
    clients_.erase(it);
  }
  dead_.clear();
}

void Server::readFrom(Client& c) {
  if (c.dead || c.readPaused) return;
  if (backlog(c) > kMaxBacklog + (c.session.listening() ? options_.listenerQueueBytes : 0)) {
    // It does not read what it is owed: nothing more from it until it does.
    c.readPaused = true;
    watch(c);
    return;
  }
  std::size_t budget = kRoundBudget;
  bool peerClosed = false;
  Sink sink(*this, c);
  while (!c.dead && budget > 0) {
    std::size_t room = 0;
    unsigned char* p = c.session.space(&room);
    ssize_t n = recv(c.fd.get(), p, room, MSG_DONTWAIT);
    if (n > 0) {
      budget -= std::min(budget, static_cast<std::size_t>(n));
      if (!c.session.received(static_cast<std::size_t>(n), sink)) {
        ++stats_.dropped;
        drop(c);
        return;
      }
      // Less than there was room for: the socket is empty for now, and the loop hears when it
      // is not.
      if (static_cast<std::size_t>(n) < room) break;
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
    peerClosed = true;
    break;
  }
  if (peerClosed && !c.dead) {
    // What the client sent before it went away still counts; a message it broke off does not.
    if (c.session.midMessage()) {
      ++stats_.dropped;
      complain("a client ended inside a message", "");
    }
    drop(c);
  }
}

void Server::hold(Client& c, const void* p, std::size_t n) {
  const auto* b = static_cast<const unsigned char*>(p);
  c.held.bytes.insert(c.held.bytes.end(), b, b + n);
  if (!c.touched) {
    c.touched = true;
    touched_.push_back(&c);
  }
}

// What the client is owed and has not taken: unsent output, rounds waiting, this round.
std::size_t Server::backlog(const Client& c) const {
  return c.out.size() - c.outStart + c.waitingBytes + c.held.bytes.size();
}

void Server::holdLostNotice(Client& c) {
  EvmCommHead_t h = evmCommHead(EvmCOMM_FLAGS, evmCommFlag(EvmCOMMFLAG_EVENT_LOST),
                                std::min<std::uint64_t>(c.lost, 0xffffffffu), 0);
  c.lost = 0;
  hold(c, &h, sizeof h);
}

void Server::notify(const EvmEventHead_t* block, std::uint32_t size, const char* name) {
  for (auto& kv : clients_) {
    Client& s = *kv.second;
    if (s.dead || !s.session.listening() || !s.session.wants(name)) continue;
    std::size_t need = EVM_COMM_HEAD_SIZE + size + (s.lost > 0 ? EVM_COMM_HEAD_SIZE : 0);
    if (backlog(s) + need > options_.listenerQueueBytes) {
      ++s.lost;
      ++stats_.lost;
      continue;
    }
    if (s.lost > 0) holdLostNotice(s);
    std::size_t begin = s.held.bytes.size();
    EvmCommHead_t h = evmCommHead(EvmCOMM_NOTIFY, 0, 0, size);
    hold(s, &h, sizeof h);
    std::size_t at = s.held.bytes.size();
    hold(s, block, size);
    _evmFillTransportHeader(s.held.bytes.data() + at, size);
    s.held.notices.emplace_back(begin, s.held.bytes.size());
  }
}

void Server::watch(Client& c) {
  if (c.dead) return;
  std::uint32_t want = (c.readPaused ? 0u : static_cast<std::uint32_t>(EPOLLIN)) |
                       (c.outStart < c.out.size() ? static_cast<std::uint32_t>(EPOLLOUT) : 0u);
  if (want == c.watched) return;
  epoll_event ev{};
  ev.events = want;
  ev.data.fd = c.fd.get();
  epoll_ctl(epfd_.get(), EPOLL_CTL_MOD, c.fd.get(), &ev);
  c.watched = want;
}

void Server::flushOut(Client& c) {
  for (;;) {
    while (!c.dead && c.outStart < c.out.size()) {
      ssize_t n = send(c.fd.get(), c.out.data() + c.outStart, c.out.size() - c.outStart, MSG_NOSIGNAL | MSG_DONTWAIT);
      if (n > 0) {
        c.outStart += static_cast<std::size_t>(n);
        continue;
      }
      if (n < 0 && errno == EINTR) continue;
      if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
      drop(c);  // the client went away; what it was owed has nowhere to go
      return;
    }
    if (c.dead || c.outStart < c.out.size()) break;
    c.out.clear();
    c.outStart = 0;
    // The room of a burst is given back rather than kept for an idle client.
    if (c.out.capacity() > kMaxBacklog) std::vector<unsigned char>().swap(c.out);
    if (c.session.closing()) return drop(c);
    // Everything it was owed is out: a listener that lost events hears of it now.
    if (c.lost == 0 || !c.waiting.empty() || !c.held.bytes.empty()) break;
    EvmCommHead_t h = evmCommHead(EvmCOMM_FLAGS, evmCommFlag(EvmCOMMFLAG_EVENT_LOST),
                                  std::min<std::uint64_t>(c.lost, 0xffffffffu), 0);
    c.lost = 0;
    const auto* b = reinterpret_cast<const unsigned char*>(&h);
    c.out.assign(b, b + sizeof h);
  }
  if (c.dead) return;
  if (c.readPaused && backlog(c) <= kMaxBacklog / 2) c.readPaused = false;
  watch(c);
}

void Server::failChunk(Chunk& chunk) {
  // Nothing that was not written may be acknowledged as taken, nor shown to a listener.
  EvmCommFlag_t f = evmCommFlag(EvmCOMMFLAG_RESOURCE_FAILURE);
  for (std::size_t at : chunk.acceptedAt) std::memcpy(chunk.bytes.data() + at + EVM_COMM_OFF_FLAGS, &f, sizeof f);
  chunk.acceptedAt.clear();
  if (chunk.notices.empty()) return;
  std::vector<unsigned char> kept;
  std::size_t from = 0;
  for (const auto& n : chunk.notices) {
    kept.insert(kept.end(), chunk.bytes.begin() + static_cast<std::ptrdiff_t>(from),
                chunk.bytes.begin() + static_cast<std::ptrdiff_t>(n.first));
    from = n.second;
  }
  kept.insert(kept.end(), chunk.bytes.begin() + static_cast<std::ptrdiff_t>(from), chunk.bytes.end());
  chunk.bytes.swap(kept);
  chunk.notices.clear();
}

void Server::deliver(Client& c, Chunk& chunk) {
  if (c.dead) return;
  if (c.out.empty()) {
    c.out.swap(chunk.bytes);
  } else {
    c.out.insert(c.out.end(), chunk.bytes.begin(), chunk.bytes.end());
  }
  flushOut(c);
}

// Lets go what the log has settled, round by round in the order of their marks.
void Server::settle() {
  for (const EventLog::Outcome& o : log_.takeOutcomes()) {
    if (!o.ok) complain("the event log failed; the posts it was to cover were answered as failed", o.why);
    settledMark_ = o.through;
    for (Client* c : waiting_) {
      while (!c->waiting.empty() && c->waiting.front().mark <= o.through) {
        Chunk chunk = std::move(c->waiting.front());
        c->waiting.pop_front();
        c->waitingBytes -= chunk.bytes.size();
        if (!o.ok) failChunk(chunk);
        deliver(*c, chunk);
      }
    }
  }
  waiting_.erase(std::remove_if(waiting_.begin(), waiting_.end(), [](Client* c) { return c->waiting.empty() && !c->dead; }),
                 waiting_.end());
}

void Server::endRound() {
  std::uint64_t mark = 0;
  bool failed = false;
  try {
    mark = log_.commit();
  } catch (const LogError& e) {
    failed = true;
    mark = log_.written();
    complain("the event log failed; the round's posts were answered as failed", e.what());
  }
  try {
    log_.syncIfDue();
  } catch (const LogError& e) {
    complain("the event log could not be synced", e.what());
  }
  for (Client* c : touched_) {
    c->touched = false;
    Chunk chunk = std::move(c->held);
    c->held = Chunk();
    if (c->dead) continue;
    chunk.mark = mark;
    if (failed) failChunk(chunk);
    if (c->waiting.empty() && mark <= settledMark_) {
      deliver(*c, chunk);
      continue;
    }
    if (c->waiting.empty()) waiting_.push_back(c);
    c->waitingBytes += chunk.bytes.size();
    c->waiting.push_back(std::move(chunk));
  }
  touched_.clear();
  settle();
}

void Server::run() {
  std::vector<epoll_event> events(256);
  const int localFd = xpcfd(local_.get()), tcpFd = xpcfd(tcpListener_.get());
  while (!stopping_) {
    long long timeoutUs = log_.usUntilSyncDue();
    if (pausedUntilMs_ >= 0) {
      long long left = std::max<long long>(0, pausedUntilMs_ - nowMs()) * 1000;
      timeoutUs = timeoutUs < 0 ? left : std::min(timeoutUs, left);
    }
    int n = waitEvents(epfd_.get(), events, timeoutUs);
    if (n < 0) {
      if (errno == EINTR) continue;
      throw ServerError("epoll_wait: " + errText());
    }
    if (pausedUntilMs_ >= 0 && nowMs() >= pausedUntilMs_) resumeListeners();
    for (int i = 0; i < n; ++i) {
      int fd = events[i].data.fd;
      if (fd == localFd) {
        accept(fd, false);
      } else if (fd == tcpFd) {
        accept(fd, true);
      } else if (fd == sigfd_.get()) {
        signalfd_siginfo si;
        while (read(sigfd_.get(), &si, sizeof si) == static_cast<ssize_t>(sizeof si)) {
        }
        stopping_ = true;
      } else if (fd == stopfd_.get()) {
        stopping_ = true;
      } else {
        auto it = clients_.find(fd);
        if (it == clients_.end()) continue;
        Client& c = *it->second;
        if (events[i].events & EPOLLOUT) flushOut(c);
        // A client not read from that hangs up can be owed nothing more.
        if (c.readPaused && (events[i].events & (EPOLLHUP | EPOLLERR))) drop(c);
        if (events[i].events & (EPOLLIN | EPOLLHUP | EPOLLERR)) readFrom(c);
      }
    }
    endRound();
    reap();
  }
  // Events already sent to us are in hand: take them in, write them, and answer what we can.
  for (auto& kv : clients_) readFrom(*kv.second);
  endRound();
  try {
    log_.sync();
  } catch (const LogError& e) {
    complain("the event log could not be synced", e.what());
  }
  settle();
  reap();
  complaints_.flush();
  traceLine(" vyn_evmd stopped: " + std::to_string(stats_.accepted) + " accepted, " + std::to_string(stats_.rejected) +
                " rejected, " + std::to_string(stats_.invalid) + " invalid, " + std::to_string(stats_.clients) +
                " clients, " + std::to_string(stats_.dropped) + " dropped, " + std::to_string(stats_.turnedAway) +
                " turned away, " + std::to_string(stats_.lost) + " events lost by slow listeners" +
                (log_.syncs() > 0 ? ", " + std::to_string(log_.syncedEvents()) + " events synced in " +
                                        std::to_string(log_.syncs()) + " syncs of " +
                                        std::to_string(log_.syncMicros() / static_cast<long long>(log_.syncs())) +
                                        " us on average"
                                  : std::string()),
            false);
}

}  // namespace evmd
