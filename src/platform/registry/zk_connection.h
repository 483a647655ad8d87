#ifndef PLATFORM_REGISTRY_ZK_CONNECTION_H
#define PLATFORM_REGISTRY_ZK_CONNECTION_H

// One client session with a ZooKeeper ensemble, named by an address
// "zk://host:port[,host:port...]/chroot". The registry's ZooKeeper store and the membership
// service each hold one.
//
// Time-outs. Connecting, and every later wait for the ensemble, lasts at most kConnectWait;
// when it runs out the caller gets PRVRG_ERR_LEVEL (24). A process pays that wait once: after one
// has run out, later waits of the process are cut to kShortWait (unless a server has taken the
// connection by then) until some session of the process is connected again. A server that goes silent in the middle of a call is given up by the
// client library after two thirds of the session time-out.
//
// A connection whose session has expired starts a new session at its next use (generation() then
// grows), so a holder of ephemeral znodes can tell that they are gone and make them again.
// Failures are thrown as RegistryFailure.
// The synchronous calls of the client library exist in its multi-threaded build only.
#ifndef THREADED
#define THREADED
#endif
#include <zookeeper/zookeeper.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>

namespace zk {

const std::chrono::milliseconds kConnectWait(2000);
const std::chrono::milliseconds kShortWait(50);

struct Address {
  std::string text;    // as given
  std::string hosts;   // "host:port,host:port"
  std::string chroot;  // "/vyn"; never "/" alone
};

// Whether `text` names an ensemble rather than a file.
bool isAddress(const std::string& text);
// Parses "zk://hosts[/chroot]"; the chroot is /vyn when none is given. Throws PRVRG_ERR_FAIL.
Address parseAddress(const std::string& text);

// Whether a ZooKeeper result means that the ensemble could not be reached.
bool unreachable(int rc);

class Connection {
 public:
  Connection(const Address& address, int sessionTimeoutMs);
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  // The handle, once its session is connected; throws PRVRG_ERR_LEVEL when the ensemble cannot be
  // reached in time.
  zhandle_t* handle();
  // Counts the sessions this connection has had, from 1.
  std::uint64_t generation();
  const Address& address() const { return address_; }
  // The session time-out that the ensemble granted, in ms.
  int sessionTimeout();

  // "registry zk://...: " + what, as every failure's text begins.
  std::string failureText(const std::string& what) const;

 private:
  static void watcher(zhandle_t* zh, int type, int state, const char* path, void* ctx);
  void start();  // a new session, with mutex_ held and no handle

  Address address_;
  int sessionTimeoutMs_;
  std::mutex mutex_;
  std::condition_variable changed_;
  zhandle_t* zh_ = nullptr;
  int state_ = 0;
  std::uint64_t generation_ = 0;
};

}  // namespace zk

#endif
