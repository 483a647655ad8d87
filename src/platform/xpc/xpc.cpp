// The message transport over Unix stream sockets and TCP. Framing is the length word at the
// front of every message; each connection keeps what it has read but not yet handed out, so a
// message longer than a reader's buffer waits for a second, larger try, and one read(2) can
// bring in several small messages.
#include "platform/xpc/xpc.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "platform/osl/osl_fd.h"

struct xpcctx {
  int users = 0;
};

struct xpcugblm {
  std::mutex mx;
  std::vector<xpccon*> cons;  // guarded by mx
};

struct xpccon {
  OslFd fd;
  OslFd lock;  // a local listener's lock file, held while it listens
  bool listener = false;
  bool tcp = false;
  xpcugblm* group = nullptr;
  std::string socketPath;  // a local listener's file, removed at xpcdisc
  std::string ownAddr;
  std::string peerAddr;
  std::mutex sendMx;
  std::mutex recvMx;
  // Bytes read but not handed out: [start, end) of buf. Guarded by recvMx.
  std::vector<unsigned char> buf;
  std::size_t start = 0;
  std::size_t end = 0;
  bool eof = false;
  bool broken = false;
  // The owner's reference and one for each xpcselect that is looking at the connection, so that
  // a connection closed by one thread while another waits on it stays whole (descriptor
  // included, so its number can't be reused under the wait) until the last of them lets go.
  std::atomic<int> refs{1};
};

namespace {

constexpr std::size_t kReadChunk = 64 * 1024;
constexpr const char* kDefaultIpcDir = "/var/tmp/.vyn";

struct Address {
  bool tcp = false;
  std::string key;
  std::string host;
  int port = -1;
};

// The value of "(NAME=value)" inside an address string, matched without regard to case.
bool field(const std::string& text, const char* name, std::string* value) {
  std::string upper(text.size(), '\0');
  std::transform(text.begin(), text.end(), upper.begin(), [](unsigned char c) { return std::toupper(c); });
  std::string pat = std::string("(") + name + "=";
  std::size_t at = upper.find(pat);
  if (at == std::string::npos) return false;
  at += pat.size();
  std::size_t close = text.find(')', at);
  if (close == std::string::npos) return false;
  *value = text.substr(at, close - at);
  return true;
}

bool parseAddress(const char* text, Address* a) {
  if (text == nullptr) return false;
  std::string s(text), proto;
  if (!field(s, "PROTOCOL", &proto)) return false;
  for (char& c : proto) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (proto == "ipc") {
    a->tcp = false;
    return field(s, "KEY", &a->key) && !a->key.empty() && a->key.find('/') == std::string::npos;
  }
  if (proto != "tcp") return false;
  a->tcp = true;
  if (!field(s, "HOST", &a->host)) a->host = "127.0.0.1";
  std::string port;
  if (field(s, "PORT", &port)) {
    char* endp = nullptr;
    long p = std::strtol(port.c_str(), &endp, 10);
    if (port.empty() || *endp != '\0' || p < 0 || p > 65535) return false;
    a->port = static_cast<int>(p);
  }
  return true;
}

std::string ipcDir() {
  const char* d = std::getenv("VYN_IPC_DIR");
  return d != nullptr && *d != '\0' ? d : kDefaultIpcDir;
}

bool unixAddr(const std::string& path, sockaddr_un* sa) {
  std::memset(sa, 0, sizeof *sa);
  sa->sun_family = AF_UNIX;
  if (path.size() >= sizeof sa->sun_path) return false;
  std::memcpy(sa->sun_path, path.c_str(), path.size() + 1);
  return true;
}

bool resolve(const std::string& host, int port, sockaddr_in* sa) {
  std::memset(sa, 0, sizeof *sa);
  sa->sin_family = AF_INET;
  sa->sin_port = htons(static_cast<std::uint16_t>(port < 0 ? 0 : port));
  if (inet_pton(AF_INET, host.c_str(), &sa->sin_addr) == 1) return true;
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* res = nullptr;
  if (getaddrinfo(host.c_str(), nullptr, &hints, &res) != 0 || res == nullptr) return false;
  sa->sin_addr = reinterpret_cast<sockaddr_in*>(res->ai_addr)->sin_addr;
  freeaddrinfo(res);
  return true;
}

std::string tcpText(const sockaddr_in& sa) {
  char ip[INET_ADDRSTRLEN] = "";
  inet_ntop(AF_INET, &sa.sin_addr, ip, sizeof ip);
  return std::string("(ADDRESS=(PROTOCOL=tcp)(HOST=") + ip + ")(PORT=" + std::to_string(ntohs(sa.sin_port)) + "))";
}

void join(xpcugblm* g, xpccon* c) {
  c->group = g;
  if (g == nullptr) return;
  std::lock_guard<std::mutex> lock(g->mx);
  g->cons.push_back(c);
}

void leave(xpccon* c) {
  xpcugblm* g = c->group;
  if (g == nullptr) return;
  std::lock_guard<std::mutex> lock(g->mx);
  g->cons.erase(std::remove(g->cons.begin(), g->cons.end(), c), g->cons.end());
  c->group = nullptr;
}

long long nowMs() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

std::uint32_t load32(const unsigned char* p) {
  std::uint32_t v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

// Whether a whole message sits in the connection's buffer. Caller holds recvMx.
bool messageBuffered(const xpccon* c) {
  std::size_t avail = c->end - c->start;
  if (avail < 4) return false;
  std::uint32_t len = load32(c->buf.data() + c->start);
  // A bad length is "input" too: the receive that follows reports it.
  return len < XPC_HEADER_SIZE || len > XPC_MAX_MESSAGE || avail >= len;
}

// Room for at least `need` bytes behind the buffered ones, moving them to the front first.
bool reserve(xpccon* c, std::size_t need) {
  if (c->start > 0) {
    std::memmove(c->buf.data(), c->buf.data() + c->start, c->end - c->start);
    c->end -= c->start;
    c->start = 0;
  }
  std::size_t want = std::max(c->end + need, kReadChunk);
  if (c->buf.size() < want) {
    try {
      c->buf.resize(want);
    } catch (const std::bad_alloc&) {
      return false;
    }
  }
  return true;
}

int errnoToRet(int e) {
  switch (e) {
    case EPIPE:
    case ENOTCONN:
      return xpcretRMTDISC;
    case ECONNRESET:
    case ETIMEDOUT:
    case EHOSTUNREACH:
      return xpcretRMTFAIL;
    case ENOMEM:
    case ENOBUFS:
      return xpcretNOMEM;
    default:
      return xpcretFAIL;
  }
}

// Waits for `events` on fd up to `deadline` (ms of nowMs; -1: no limit).
int waitFd(int fd, short events, long long deadline) {
  for (;;) {
    int t = -1;
    if (deadline >= 0) {
      long long left = deadline - nowMs();
      t = left > 0 ? static_cast<int>(std::min<long long>(left, 1 << 30)) : 0;
    }
    pollfd p{fd, events, 0};
    int n = poll(&p, 1, t);
    if (n > 0) return xpcretSUCC;
    if (n == 0) return xpcretTIMEOUT;
    if (errno == EINTR) return xpcretNOEVENT;
    return xpcretFAIL;
  }
}

// Drops one reference; the last one closes the descriptor and frees the connection, and
// reports how the close went.
int unref(xpccon* c) {
  if (c->refs.fetch_sub(1, std::memory_order_acq_rel) != 1) return xpcretSUCC;
  int r = c->fd.close() == 0 ? xpcretSUCC : xpcretFAIL;
  delete c;
  return r;
}

// The socket directory, made if it is missing. Whoever may write into it could put their own
// socket in the daemon's place, so it must be ours, a real directory (a symlink is not
// followed), and writable by nobody else; otherwise xpcretNOTAUTH.
int openIpcDir(const std::string& dir, OslFd* out) {
  bool made = mkdir(dir.c_str(), 0755) == 0;
  if (!made && errno != EEXIST) return errno == EACCES ? xpcretNOTAUTH : errnoToRet(errno);
  OslFd d(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!d) return errno == ELOOP || errno == ENOTDIR || errno == EACCES ? xpcretNOTAUTH : errnoToRet(errno);
  // mkdir's mode passed through the umask; set the one we mean.
  if (made && fchmod(d.get(), 0755) != 0) return errnoToRet(errno);
  struct stat st;
  if (fstat(d.get(), &st) != 0) return errnoToRet(errno);
  if (st.st_uid != geteuid() || (st.st_mode & (S_IWGRP | S_IWOTH)) != 0) return xpcretNOTAUTH;
  *out = std::move(d);
  return xpcretSUCC;
}

// Takes the listener's lock file beside the socket. A running listener holds it; a socket file
// found while we hold it is stale and ours to replace.
int lockIpcKey(int dirFd, const std::string& key, OslFd* out) {
  std::string name = key + ".lock";
  OslFd l(openat(dirFd, name.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!l) return errno == ELOOP ? xpcretNOTAUTH : errnoToRet(errno);
  struct stat st;
  if (fstat(l.get(), &st) != 0 || !S_ISREG(st.st_mode) || st.st_uid != geteuid()) return xpcretNOTAUTH;
  if (flock(l.get(), LOCK_EX | LOCK_NB) != 0) return errno == EWOULDBLOCK ? xpcretENDPTUSED : errnoToRet(errno);
  *out = std::move(l);
  return xpcretSUCC;
}

}  // namespace

int xpcinit(int, int, xpcctx** ctx, int) {
  if (ctx == nullptr) return xpcretBADARG;
  *ctx = new (std::nothrow) xpcctx;
  return *ctx != nullptr ? xpcretSUCC : xpcretNOMEM;
}

int xpcterm(xpcctx* ctx) {
  delete ctx;
  return xpcretSUCC;
}

int xpcugblmini(xpcctx* ctx, xpcugblm** ugblm, int) {
  if (ctx == nullptr || ugblm == nullptr) return xpcretBADARG;
  *ugblm = new (std::nothrow) xpcugblm;
  return *ugblm != nullptr ? xpcretSUCC : xpcretNOMEM;
}

int xpcugblmterm(xpcugblm* ugblm) {
  if (ugblm == nullptr) return xpcretBADARG;
  {
    std::lock_guard<std::mutex> lock(ugblm->mx);
    for (xpccon* c : ugblm->cons) c->group = nullptr;
  }
  delete ugblm;
  return xpcretSUCC;
}

int xpcipcpath(const char* key, char* buffer, std::size_t size) {
  if (key == nullptr || buffer == nullptr) return xpcretBADARG;
  std::string p = ipcDir() + "/" + key;
  if (p.size() + 1 > size) return xpcretBADARG;
  std::memcpy(buffer, p.c_str(), p.size() + 1);
  return xpcretSUCC;
}

int xpcconnect(xpcugblm* ugblm, const char* address, int, xpccon** con, void*, void*, void*, void*, int seconds,
               int) {
  if (con == nullptr) return xpcretBADARG;
  *con = nullptr;
  Address a;
  if (!parseAddress(address, &a)) return xpcretBADARG;
  OslFd fd;
  if (!a.tcp) {
    sockaddr_un sa;
    if (!unixAddr(ipcDir() + "/" + a.key, &sa)) return xpcretBADARG;
    fd.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd) return errnoToRet(errno);
    int r;
    do r = connect(fd.get(), reinterpret_cast<sockaddr*>(&sa), sizeof sa);
    while (r != 0 && errno == EINTR);
    if (r != 0) {
      int e = errno;
      return e == ENOENT ? xpcretNOENDPT : e == ECONNREFUSED ? xpcretREFUSED : errnoToRet(e);
    }
  } else {
    sockaddr_in sa;
    if (a.port <= 0 || !resolve(a.host, a.port, &sa)) return xpcretNSERR;
    fd.reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd) return errnoToRet(errno);
    if (connect(fd.get(), reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0) {
      if (errno != EINPROGRESS) return errno == ECONNREFUSED ? xpcretREFUSED : errnoToRet(errno);
      int w = waitFd(fd.get(), POLLOUT, nowMs() + 1000LL * (seconds > 0 ? seconds : 30));
      int err = 0;
      socklen_t len = sizeof err;
      if (w != xpcretSUCC || getsockopt(fd.get(), SOL_SOCKET, SO_ERROR, &err, &len) != 0 || err != 0)
        return w == xpcretTIMEOUT ? xpcretTIMEOUT : err == ECONNREFUSED ? xpcretREFUSED : xpcretNOENDPT;
    }
    fcntl(fd.get(), F_SETFL, fcntl(fd.get(), F_GETFL) & ~O_NONBLOCK);
    int one = 1;
    setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  }
  xpccon* c = new (std::nothrow) xpccon;
  if (c == nullptr) return xpcretNOMEM;
  c->fd = std::move(fd);
  c->tcp = a.tcp;
  c->peerAddr = address;
  join(ugblm, c);
  *con = c;
  return xpcretSUCC;
}

namespace {

// Binds a local listener: socket directory checked, lock taken, a stale socket file replaced
// under the lock, the new one created with its mode already set (no chmod by path afterwards).
int bindIpc(xpccon* c, const std::string& key) {
  std::string dir = ipcDir(), path = dir + "/" + key;
  sockaddr_un sa;
  if (!unixAddr(path, &sa)) return xpcretBADARG;
  OslFd dirFd;
  int r = openIpcDir(dir, &dirFd);
  if (r != xpcretSUCC) return r;
  r = lockIpcKey(dirFd.get(), key, &c->lock);
  if (r != xpcretSUCC) return r;
  if (unlinkat(dirFd.get(), key.c_str(), 0) != 0 && errno != ENOENT) return errnoToRet(errno);
  c->fd.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!c->fd) return errnoToRet(errno);
  // Anyone may connect: the daemon asks the kernel who each peer is. The umask is the only way
  // to give a socket file its mode as it is made.
  mode_t old = umask(0111);
  int bound = bind(c->fd.get(), reinterpret_cast<sockaddr*>(&sa), sizeof sa);
  int e = errno;
  umask(old);
  if (bound != 0) return e == EADDRINUSE ? xpcretENDPTUSED : errnoToRet(e);
  c->socketPath = path;
  c->ownAddr = std::string("(ADDRESS=(PROTOCOL=ipc)(KEY=") + key + "))";
  return xpcretSUCC;
}

int bindTcp(xpccon* c, const Address& a) {
  sockaddr_in sa;
  if (!resolve(a.host, a.port, &sa)) return xpcretNSERR;
  c->fd.reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!c->fd) return errnoToRet(errno);
  int one = 1;
  setsockopt(c->fd.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  socklen_t len = sizeof sa;
  if (bind(c->fd.get(), reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0 ||
      getsockname(c->fd.get(), reinterpret_cast<sockaddr*>(&sa), &len) != 0)
    return errno == EADDRINUSE ? xpcretENDPTUSED : errnoToRet(errno);
  c->ownAddr = tcpText(sa);
  return xpcretSUCC;
}

}  // namespace

int xpclisten(xpcugblm* ugblm, const char* address, int, xpccon** lcon, int) {
  if (lcon == nullptr) return xpcretBADARG;
  *lcon = nullptr;
  Address a;
  if (!parseAddress(address, &a)) return xpcretBADARG;
  std::unique_ptr<xpccon> c(new (std::nothrow) xpccon);
  if (c == nullptr) return xpcretNOMEM;
  c->listener = true;
  c->tcp = a.tcp;
  int r = a.tcp ? bindTcp(c.get(), a) : bindIpc(c.get(), a.key);
  if (r == xpcretSUCC && listen(c->fd.get(), 128) != 0) r = errnoToRet(errno);
  if (r != xpcretSUCC) {
    // The socket file is removed only if we made it, that is under our lock.
    if (!c->socketPath.empty()) unlink(c->socketPath.c_str());
    return r;
  }
  join(ugblm, c.get());
  *lcon = c.release();
  return xpcretSUCC;
}

int xpcanswer(xpccon* lcon, int, xpccon** con, int, int, int, int, int, int) {
  if (lcon == nullptr || !lcon->listener || con == nullptr) return xpcretBADARG;
  *con = nullptr;
  OslFd fd;
  do fd.reset(accept4(lcon->fd.get(), nullptr, nullptr, SOCK_CLOEXEC));
  while (!fd && errno == EINTR);
  if (!fd) return errno == EAGAIN || errno == EWOULDBLOCK ? xpcretNODATA : errnoToRet(errno);
  xpccon* c = new (std::nothrow) xpccon;
  if (c == nullptr) return xpcretNOMEM;
  c->fd = std::move(fd);
  c->tcp = lcon->tcp;
  c->ownAddr = lcon->ownAddr;
  if (c->tcp) {
    int one = 1;
    setsockopt(c->fd.get(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    sockaddr_in sa;
    socklen_t len = sizeof sa;
    if (getpeername(c->fd.get(), reinterpret_cast<sockaddr*>(&sa), &len) == 0) c->peerAddr = tcpText(sa);
  } else {
    c->peerAddr = "(ADDRESS=(PROTOCOL=ipc))";
  }
  join(lcon->group, c);
  *con = c;
  return xpcretSUCC;
}

int xpcgetaddr(xpccon* con, char* buffer, std::size_t size, int flags) {
  if (con == nullptr || buffer == nullptr || size == 0) return xpcretBADARG;
  const std::string& s = (flags & XPC_ADDR_PEER) ? con->peerAddr : con->ownAddr;
  if (s.empty()) return xpcretCONNINV;
  if (s.size() + 1 > size) return xpcretBUF2SHORT;
  std::memcpy(buffer, s.c_str(), s.size() + 1);
  return xpcretSUCC;
}

int xpcdisc(xpccon* con) {
  if (con == nullptr) return xpcretBADARG;
  leave(con);
  // Our lock is still held here, so the file we remove is ours.
  if (!con->socketPath.empty()) unlink(con->socketPath.c_str());
  return unref(con);
}

int xpcfd(const xpccon* con) { return con != nullptr ? con->fd.get() : -1; }

int xpcsend(xpccon* con, const void* buffer, std::uint32_t length) {
  if (con == nullptr || buffer == nullptr || con->listener || length < XPC_HEADER_SIZE) return xpcretBADARG;
  const auto* p = static_cast<const unsigned char*>(buffer);
  // A length word that lies would put the peer out of step for good.
  if (load32(p) != length) return xpcretBADARG;
  std::lock_guard<std::mutex> lock(con->sendMx);
  std::size_t left = length;
  while (left > 0) {
    ssize_t n = send(con->fd.get(), p, left, MSG_NOSIGNAL);
    if (n < 0) {
      if (errno == EINTR) continue;
      if (errno == EAGAIN || errno == EWOULDBLOCK) {
        if (waitFd(con->fd.get(), POLLOUT, -1) == xpcretFAIL) return xpcretFAIL;
        continue;
      }
      return errnoToRet(errno);
    }
    p += n;
    left -= static_cast<std::size_t>(n);
  }
  return xpcretSUCC;
}

int xpcreceive(xpccon* con, void* buffer, std::uint32_t length, int timeoutMs, int, int flags,
               std::uint32_t* received) {
  if (con == nullptr || buffer == nullptr || con->listener || length < 4) return xpcretBADARG;
  long long deadline = (flags & XPC_WAIT_TIMED) && !(flags & XPC_WAIT_FOREVER) ? nowMs() + std::max(timeoutMs, 0) : -1;
  std::lock_guard<std::mutex> lock(con->recvMx);
  if (con->broken) return xpcretINVALID;
  for (;;) {
    std::size_t avail = con->end - con->start;
    std::size_t need = 4;
    if (avail >= 4) {
      std::uint32_t len = load32(con->buf.data() + con->start);
      if (len < XPC_HEADER_SIZE || len > XPC_MAX_MESSAGE) {
        con->broken = true;
        return xpcretINVALID;
      }
      if (avail >= len) {
        if (len > length) {
          std::memcpy(buffer, &len, sizeof len);
          return xpcretEMSGSZ;
        }
        std::memcpy(buffer, con->buf.data() + con->start, len);
        con->start += len;
        if (con->start == con->end) con->start = con->end = 0;
        if (received != nullptr) *received = len;
        return xpcretSUCC;
      }
      need = len;
    }
    if (con->eof) return avail == 0 ? xpcretRMTDISC : xpcretRMTFAIL;
    // Room grows with what arrives, not with what a length word claims.
    if (!reserve(con, std::min(need - avail, std::max(avail, kReadChunk)))) return xpcretNOMEM;
    ssize_t n = recv(con->fd.get(), con->buf.data() + con->end, con->buf.size() - con->end, MSG_DONTWAIT);
    if (n > 0) {
      con->end += static_cast<std::size_t>(n);
      continue;
    }
    if (n == 0) {
      con->eof = true;
      continue;
    }
    if (errno == EINTR) continue;
    if (errno != EAGAIN && errno != EWOULDBLOCK) return errnoToRet(errno);
    int w = waitFd(con->fd.get(), POLLIN, deadline);
    if (w != xpcretSUCC) return w;
  }
}

int xpcselect(xpcugblm* ugblm, xpcevthdlr handler, int timeoutMs, int, int flags) {
  if (ugblm == nullptr) return xpcretBADARG;
  // Each connection looked at is held by a reference taken under the group's lock, so that a
  // thread that closes one meanwhile leaves it whole until we are done with it.
  std::vector<xpccon*> cons;
  {
    std::lock_guard<std::mutex> lock(ugblm->mx);
    cons = ugblm->cons;
    for (xpccon* c : cons) c->refs.fetch_add(1, std::memory_order_relaxed);
  }
  struct Release {
    std::vector<xpccon*>& cons;
    ~Release() {
      for (xpccon* c : cons) unref(c);
    }
  } release{cons};
  if (cons.empty()) return xpcretNOCONN;
  // What is already buffered is input without asking the kernel.
  bool ready = false;
  for (xpccon* c : cons) {
    if (c->listener) continue;
    std::lock_guard<std::mutex> lock(c->recvMx);
    if (messageBuffered(c) || c->eof || c->broken) {
      ready = true;
      if (handler != nullptr) handler(ugblm, c);
    }
  }
  if (ready) return xpcretSUCC;
  std::vector<pollfd> fds;
  for (xpccon* c : cons) fds.push_back(pollfd{c->fd.get(), POLLIN, 0});
  int t = (flags & XPC_WAIT_FOREVER) ? -1 : std::max(timeoutMs, 0);
  int n = poll(fds.data(), fds.size(), t);
  if (n == 0) return xpcretTIMEOUT;
  if (n < 0) return errno == EINTR ? xpcretNOEVENT : xpcretFAIL;
  for (std::size_t i = 0; i < fds.size(); ++i)
    if (fds[i].revents != 0 && handler != nullptr) handler(ugblm, cons[i]);
  return xpcretSUCC;
}
