#include "platform/registry/zk_connection.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/registry/prvrg_store.h"

namespace zk {

namespace {

// Whether a wait for the ensemble has run out in this process since a session last connected.
std::mutex g_waitMutex;
bool g_waitRanOut = false;

void silenceClientLog() {
  static std::once_flag once;
  // The client library writes its own log to standard error, which is a program's interface.
  std::call_once(once, [] { zoo_set_debug_level(static_cast<ZooLogLevel>(0)); });
}

std::chrono::milliseconds waitAllowed() {
  std::lock_guard<std::mutex> lock(g_waitMutex);
  return g_waitRanOut ? kShortWait : kConnectWait;
}

void noteWait(bool connected) {
  std::lock_guard<std::mutex> lock(g_waitMutex);
  g_waitRanOut = !connected;
}

}  // namespace

bool isAddress(const std::string& text) { return text.compare(0, 5, "zk://") == 0; }

Address parseAddress(const std::string& text) {
  Address a;
  a.text = text;
  std::string rest = text.substr(5);
  std::size_t slash = rest.find('/');
  a.hosts = rest.substr(0, slash);
  a.chroot = slash == std::string::npos ? "/vyn" : rest.substr(slash);
  while (a.chroot.size() > 1 && a.chroot.back() == '/') a.chroot.pop_back();
  auto bad = [&](const std::string& why) { registryFail(PRVRG_ERR_FAIL, "registry " + text + ": " + why); };
  if (a.hosts.empty()) bad("no host:port given");
  for (std::size_t at = 0; at <= a.hosts.size();) {
    std::size_t comma = a.hosts.find(',', at);
    if (comma == std::string::npos) comma = a.hosts.size();
    std::string one = a.hosts.substr(at, comma - at);
    std::size_t colon = one.rfind(':');
    if (one.empty() || colon == std::string::npos || colon == 0 || colon + 1 == one.size() ||
        one.find_first_not_of("0123456789", colon + 1) != std::string::npos)
      bad("\"" + one + "\" is not host:port");
    at = comma + 1;
  }
  if (a.chroot == "/") bad("the chroot must be a znode below /");
  for (std::size_t at = 1; at <= a.chroot.size();) {
    std::size_t next = a.chroot.find('/', at);
    if (next == std::string::npos) next = a.chroot.size();
    std::string part = a.chroot.substr(at, next - at);
    if (part.empty() || part == "." || part == ".." || part == "zookeeper")
      bad("the chroot " + a.chroot + " is not a usable znode path");
    at = next + 1;
  }
  return a;
}

bool unreachable(int rc) {
  return rc == ZCONNECTIONLOSS || rc == ZOPERATIONTIMEOUT || rc == ZSESSIONEXPIRED || rc == ZINVALIDSTATE ||
         rc == ZCLOSING || rc == ZSESSIONMOVED;
}

Connection::Connection(const Address& address, int sessionTimeoutMs)
    : address_(address), sessionTimeoutMs_(sessionTimeoutMs) {
  silenceClientLog();
  std::unique_lock<std::mutex> lock(mutex_);
  start();
  lock.unlock();
  try {
    handle();
  } catch (...) {
    zookeeper_close(zh_);
    throw;
  }
}

Connection::~Connection() {
  // zookeeper_close ends the library's threads: no watcher runs on this object after it.
  if (zh_) zookeeper_close(zh_);
}


void Connection::start() {
  state_ = 0;
  errno = 0;
  zh_ = zookeeper_init(address_.hosts.c_str(), watcher, sessionTimeoutMs_, nullptr, this, 0);
  if (zh_ == nullptr)
    registryFail(PRVRG_ERR_FAIL, failureText(std::string("cannot start a session: ") +
                                             (errno ? std::strerror(errno) : "bad address")));
  ++generation_;
}

void Connection::watcher(zhandle_t*, int type, int state, const char*, void* ctx) {
  if (type != ZOO_SESSION_EVENT) return;
  auto* self = static_cast<Connection*>(ctx);
  std::lock_guard<std::mutex> lock(self->mutex_);
  self->state_ = state;
  self->changed_.notify_all();
}

zhandle_t* Connection::handle() {
  std::unique_lock<std::mutex> lock(mutex_);
  if (state_ == ZOO_CONNECTED_STATE) return zh_;
  if (state_ == ZOO_EXPIRED_SESSION_STATE || state_ == ZOO_AUTH_FAILED_STATE) {
    // Closing ends the library's threads, whose watcher takes mutex_: close without it.
    zhandle_t* old = zh_;
    zh_ = nullptr;
    lock.unlock();
    zookeeper_close(old);
    lock.lock();
    if (zh_ == nullptr) start();
  }
  auto allowed = waitAllowed();
  auto now = std::chrono::steady_clock::now();
  auto deadline = now + allowed, hard = now + kConnectWait;
  while (state_ != ZOO_CONNECTED_STATE) {
    now = std::chrono::steady_clock::now();
    if (now >= deadline) {
      // A short wait that found a server taking the connection waits for its answer in full.
      if (deadline < hard && zoo_state(zh_) == ZOO_ASSOCIATING_STATE)
        deadline = hard;
      else
        break;
    }
    changed_.wait_until(lock, std::min(deadline, now + std::chrono::milliseconds(10)));
  }
  bool ok = state_ == ZOO_CONNECTED_STATE;
  noteWait(ok);
  if (!ok)
    registryFail(PRVRG_ERR_LEVEL, failureText("the ensemble " + address_.hosts + " cannot be reached (waited " +
                                              std::to_string(allowed.count()) + " ms)"));
  return zh_;
}

std::uint64_t Connection::generation() {
  std::lock_guard<std::mutex> lock(mutex_);
  return generation_;
}

int Connection::sessionTimeout() {
  std::lock_guard<std::mutex> lock(mutex_);
  return zoo_recv_timeout(zh_);
}

std::string Connection::failureText(const std::string& what) const { return "registry " + address_.text + ": " + what; }

}  // namespace zk
