#ifndef EVM_EVMD_EVMD_SERVER_H
#define EVM_EVMD_EVMD_SERVER_H

// The event daemon's server: one thread, one epoll loop over the listening sockets, the clients,
// a signalfd and a stop eventfd. Each round reads what the ready clients sent and hands it to
// their sessions (evmd_session.h), commits the round's accepted events to the log, and syncs the
// log when a sync is due; the loop's wait ends when a held sync falls due. What the round owes
// each client (answers, and events for listeners) waits, in order, until the log settles the
// round's mark: under group commit, until a finished sync covers it. A round whose events could
// not be written or synced answers its posts as failed, and its events reach no listener.
//
// Listeners get each accepted event that matches their filter (all, until they name one) as a
// notify head and the block. A listener's queue of unsent events is bounded: an event that does
// not fit is lost and counted, and before the next event that fits (or as soon as the queue
// empties) the listener is told how many it lost. It is never cut off for being slow. A client
// that does not read its answers is not read from until it does, so what it is owed stays bounded.
//
// Who may do what. Each local client's credentials are read from the kernel at accept; its
// connect request must name that same user. Listening is for the superuser and the members of
// the group given as Options::listenGroup. TCP listens only on the address it is given, and
// takes connections only from the addresses tcpPeerAllowed admits: today, with no membership
// layer to name the cluster's nodes, loopback only; that one function is where the configured
// nodes' addresses will be admitted once membership exists. A TCP peer has no credentials, so it
// may post but not listen.
//
// Bounds. Connections are capped in all and per user (per address for TCP); when accept fails
// for lack of descriptors the listeners rest for a moment instead of spinning; a session's
// memory follows the bytes that arrived; complaints about clients are rate limited.
#include <netinet/in.h>
#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <vector>

#include "evm/evmd/evmd_complaints.h"
#include "evm/evmd/evmd_log.h"
#include "evm/libevm/evm_wire.h"
#include "platform/osl/osl_fd.h"
#include "platform/xpc/xpc.h"

namespace evmd {

class ServerError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct Options {
  std::string home;          // ZEL_VYN_HOME; the log lives in <home>/log/evm/
  std::string localAddress;  // the ipc address to listen on
  std::string tcpAddress;    // a TCP address to listen on too, "(ADDRESS=(PROTOCOL=tcp)(HOST=h)(PORT=p))"; empty: none
  bool registerTcp = true;   // write the TCP address under SYSTEM.evm.rmport.<host>
  std::string listenGroup;   // members of this group may listen, besides the superuser
  // A TCP peer's user is not known, so TCP peers may only post unless the administrator lets
  // them listen (and so lets every local user read the events).
  bool tcpListen = false;
  SyncPolicy sync = SyncPolicy::Group;
  int syncIntervalMs = 200;  // Interval only
  LogLimits logLimits;
  std::size_t listenerQueueBytes = 4u << 20;  // unsent events one listener may have queued
  int maxClients = 1000;
  int maxClientsPerUser = 128;
  LogIo* logIo = nullptr;  // the log's file calls; null: the system's
};

struct Stats {
  std::uint64_t accepted = 0;
  std::uint64_t rejected = 0;
  std::uint64_t invalid = 0;
  std::uint64_t clients = 0;
  std::uint64_t dropped = 0;  // clients cut off for garbage or a broken connection
  std::uint64_t turnedAway = 0;  // connections closed at accept: not admitted or over a cap
  std::uint64_t lost = 0;        // events a slow listener had no room for
};

// Whether a TCP peer at `addr` may connect: loopback until membership names the nodes.
bool tcpPeerAllowed(const sockaddr_in& addr);

class Server {
 public:
  explicit Server(const Options& options);
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // Runs until SIGTERM or SIGINT (which the constructor blocks and takes through a signalfd), or
  // requestStop, then writes what is in hand and returns.
  void run();
  // Makes run return; safe from any thread.
  void requestStop();
  const Stats& stats() const { return stats_; }
  std::string tcpAddress() const { return tcpAddress_; }
  std::string logPath() const { return log_.path(); }

 private:
  struct Client;
  struct Chunk;
  class Sink;
  void accept(int listenFd, bool tcp);
  bool admit(Client& c, int fd, bool tcp);
  void readFrom(Client& c);
  void notify(const EvmEventHead_t* block, std::uint32_t size, const char* name);
  void hold(Client& c, const void* p, std::size_t n);
  void holdLostNotice(Client& c);
  std::size_t backlog(const Client& c) const;
  void flushOut(Client& c);
  void watch(Client& c);
  void endRound();
  void settle();
  void deliver(Client& c, Chunk& chunk);
  void failChunk(Chunk& chunk);
  void drop(Client& c);
  void reap();
  void pauseListeners();
  void resumeListeners();
  void registerTcpAddress();
  void complain(const char* kind, const std::string& detail) { complaints_.note(kind, detail); }

  Options options_;
  EventLog log_;
  Stats stats_;
  Complaints complaints_;
  OslFd epfd_, sigfd_, stopfd_;
  XpcCtx ctx_;
  XpcGroup group_;
  XpcCon local_, tcpListener_;
  std::string tcpAddress_;
  bool haveGroup_ = false;
  gid_t groupId_ = 0;
  std::unordered_map<int, std::unique_ptr<Client>> clients_;
  std::map<std::uint64_t, int> perUser_;
  std::vector<Client*> touched_;  // clients with answers held for the round's commit
  std::vector<Client*> waiting_;  // clients with rounds waiting for the log to settle them
  std::uint64_t settledMark_ = 0;
  std::vector<int> dead_;
  long long pausedUntilMs_ = -1;
  bool stopping_ = false;
};

}  // namespace evmd

#endif
