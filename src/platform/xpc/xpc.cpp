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
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <string>
#include <vector>

struct xpcctx {
  int users = 0;
};

struct xpcugblm {
  std::mutex mx;
  std::vector<xpccon*> cons;  // guarded by mx
};

struct xpccon {
  int fd = -1;
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
  int fd = -1;
  if (!a.tcp) {
    sockaddr_un sa;
    if (!unixAddr(ipcDir() + "/" + a.key, &sa)) return xpcretBADARG;
    fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return errnoToRet(errno);
    int r;
    do r = connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa);
    while (r != 0 && errno == EINTR);
    if (r != 0) {
      int e = errno;
      close(fd);
      return e == ENOENT ? xpcretNOENDPT : e == ECONNREFUSED ? xpcretREFUSED : errnoToRet(e);
    }
  } else {
    sockaddr_in sa;
    if (a.port <= 0 || !resolve(a.host, a.port, &sa)) return xpcretNSERR;
    fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) return errnoToRet(errno);
    if (connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0) {
      if (errno != EINPROGRESS) {
        int e = errno;
        close(fd);
        return e == ECONNREFUSED ? xpcretREFUSED : errnoToRet(e);
      }
      int w = waitFd(fd, POLLOUT, nowMs() + 1000LL * (seconds > 0 ? seconds : 30));
      int err = 0;
      socklen_t len = sizeof err;
      if (w != xpcretSUCC || getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) != 0 || err != 0) {
        close(fd);
        return w == xpcretTIMEOUT ? xpcretTIMEOUT : err == ECONNREFUSED ? xpcretREFUSED : xpcretNOENDPT;
      }
    }
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  }
  xpccon* c = new (std::nothrow) xpccon;
  if (c == nullptr) {
    close(fd);
    return xpcretNOMEM;
  }
  c->fd = fd;
  c->tcp = a.tcp;
  c->peerAddr = address;
  join(ugblm, c);
  *con = c;
  return xpcretSUCC;
}

int xpclisten(xpcugblm* ugblm, const char* address, int, xpccon** lcon, int) {
  if (lcon == nullptr) return xpcretBADARG;
  *lcon = nullptr;
  Address a;
  if (!parseAddress(address, &a)) return xpcretBADARG;
  auto c = new (std::nothrow) xpccon;
  if (c == nullptr) return xpcretNOMEM;
  c->listener = true;
  c->tcp = a.tcp;
  int fd = -1;
  if (!a.tcp) {
    std::string dir = ipcDir(), path = dir + "/" + a.key;
    sockaddr_un sa;
    if (!unixAddr(path, &sa)) {
      delete c;
      return xpcretBADARG;
    }
    // Anyone may post: the directory is shared like /tmp, the socket open to all.
    if (mkdir(dir.c_str(), 01777) == 0) chmod(dir.c_str(), 01777);
    fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
      delete c;
      return errnoToRet(errno);
    }
    int bound = bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa);
    if (bound != 0 && errno == EADDRINUSE) {
      // A socket file is there. If something answers on it, the address is taken; if not,
      // it was left by a process that died, and we take its place.
      int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
      bool alive = probe >= 0 && connect(probe, reinterpret_cast<sockaddr*>(&sa), sizeof sa) == 0;
      if (probe >= 0) close(probe);
      if (alive) {
        close(fd);
        delete c;
        return xpcretENDPTUSED;
      }
      unlink(path.c_str());
      if (bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0) {
        int e = errno;
        close(fd);
        delete c;
        return errnoToRet(e);
      }
    } else if (bound != 0) {
      int e = errno;
      close(fd);
      delete c;
      return errnoToRet(e);
    }
    chmod(path.c_str(), 0666);
    c->socketPath = path;
    c->ownAddr = std::string("(ADDRESS=(PROTOCOL=ipc)(KEY=") + a.key + "))";
  } else {
    sockaddr_in sa;
    if (!resolve(a.host, a.port, &sa)) {
      delete c;
      return xpcretNSERR;
    }
    fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
      delete c;
      return errnoToRet(errno);
    }
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    socklen_t len = sizeof sa;
    if (bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&sa), &len) != 0) {
      int e = errno;
      close(fd);
      delete c;
      return e == EADDRINUSE ? xpcretENDPTUSED : errnoToRet(e);
    }
    c->ownAddr = tcpText(sa);
  }
  if (listen(fd, 128) != 0) {
    int e = errno;
    close(fd);
    if (!c->socketPath.empty()) unlink(c->socketPath.c_str());
    delete c;
    return errnoToRet(e);
  }
  c->fd = fd;
  join(ugblm, c);
  *lcon = c;
  return xpcretSUCC;
}

int xpcanswer(xpccon* lcon, int, xpccon** con, int, int, int, int, int, int) {
  if (lcon == nullptr || !lcon->listener || con == nullptr) return xpcretBADARG;
  *con = nullptr;
  int fd;
  do fd = accept4(lcon->fd, nullptr, nullptr, SOCK_CLOEXEC);
  while (fd < 0 && errno == EINTR);
  if (fd < 0) return errno == EAGAIN || errno == EWOULDBLOCK ? xpcretNODATA : errnoToRet(errno);
  auto c = new (std::nothrow) xpccon;
  if (c == nullptr) {
    close(fd);
    return xpcretNOMEM;
  }
  c->fd = fd;
  c->tcp = lcon->tcp;
  c->ownAddr = lcon->ownAddr;
  if (c->tcp) {
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    sockaddr_in sa;
    socklen_t len = sizeof sa;
    if (getpeername(fd, reinterpret_cast<sockaddr*>(&sa), &len) == 0) c->peerAddr = tcpText(sa);
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
  int r = close(con->fd) == 0 ? xpcretSUCC : xpcretFAIL;
  if (!con->socketPath.empty()) unlink(con->socketPath.c_str());
  delete con;
  return r;
}

int xpcfd(const xpccon* con) { return con != nullptr ? con->fd : -1; }

int xpcsend(xpccon* con, const void* buffer, std::uint32_t length) {
  if (con == nullptr || buffer == nullptr || con->listener || length < XPC_HEADER_SIZE) return xpcretBADARG;
  const auto* p = static_cast<const unsigned char*>(buffer);
  // A length word that lies would put the peer out of step for good.
  if (load32(p) != length) return xpcretBADARG;
  std::lock_guard<std::mutex> lock(con->sendMx);
  std::size_t left = length;
  while (left > 0) {
    ssize_t n = send(con->fd, p, left, MSG_NOSIGNAL);
    if (n < 0) {
      if (errno == EINTR) continue;
      if (errno == EAGAIN || errno == EWOULDBLOCK) {
        if (waitFd(con->fd, POLLOUT, -1) == xpcretFAIL) return xpcretFAIL;
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
    if (!reserve(con, need - avail)) return xpcretNOMEM;
    ssize_t n = recv(con->fd, con->buf.data() + con->end, con->buf.size() - con->end, MSG_DONTWAIT);
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
    int w = waitFd(con->fd, POLLIN, deadline);
    if (w != xpcretSUCC) return w;
  }
}

int xpcselect(xpcugblm* ugblm, xpcevthdlr handler, int timeoutMs, int, int flags) {
  if (ugblm == nullptr) return xpcretBADARG;
  std::vector<xpccon*> cons;
  {
    std::lock_guard<std::mutex> lock(ugblm->mx);
    cons = ugblm->cons;
  }
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
  for (xpccon* c : cons) fds.push_back(pollfd{c->fd, POLLIN, 0});
  int t = (flags & XPC_WAIT_FOREVER) ? -1 : std::max(timeoutMs, 0);
  int n = poll(fds.data(), fds.size(), t);
  if (n == 0) return xpcretTIMEOUT;
  if (n < 0) return errno == EINTR ? xpcretNOEVENT : xpcretFAIL;
  for (std::size_t i = 0; i < fds.size(); ++i)
    if (fds[i].revents != 0 && handler != nullptr) handler(ugblm, cons[i]);
  return xpcretSUCC;
}
