#ifndef EVM_EVMD_EVMD_SERVER_H
#define EVM_EVMD_EVMD_SERVER_H

// The event daemon's server: one thread, one epoll loop over the listening sockets, the clients
// and a signalfd. Each round reads what the ready clients sent, acts on every whole message,
// commits the round's accepted events to the log, and only then lets the round's answers go.
//
// A client speaks: a connect head and request, answered by a connect response; then any number
// of posts (a head and an event block), each answered unless it carries DO_NOT_ACK. A listen
// client (connector EvmCOMM_SUBSCRIBER) gets every accepted event as a notify head and the block.
// Anything else (a bad length word, a message of a type not expected now) ends that client and
// nothing more.
#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <vector>

#include "evm/evmd/evmd_log.h"

struct xpccon;
struct xpcugblm;
struct xpcctx;

namespace evmd {

class ServerError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct Options {
  std::string home;          // ZEL_VYN_HOME; the log lives in <home>/log/evm/
  std::string localAddress;  // the ipc address to listen on
  bool tcp = false;          // also listen on TCP
  int tcpPort = 0;           // 0: any free port
  std::string tcpHost = "0.0.0.0";
  bool registerTcp = true;   // write the TCP address under SYSTEM.evm.rmport.<host>
  SyncPolicy sync = SyncPolicy::Interval;
  int syncIntervalMs = 200;
};

struct Stats {
  std::uint64_t accepted = 0;
  std::uint64_t rejected = 0;
  std::uint64_t invalid = 0;
  std::uint64_t clients = 0;
  std::uint64_t dropped = 0;  // clients cut off for garbage or a broken connection
};

class Server {
 public:
  explicit Server(const Options& options);
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // Runs until SIGTERM or SIGINT (which the constructor blocks and takes through a signalfd),
  // then writes what is in hand and returns.
  void run();
  const Stats& stats() const { return stats_; }
  std::string tcpAddress() const { return tcpAddress_; }
  std::string logPath() const { return log_.path(); }

 private:
  struct Client;
  void accept(int listenFd, bool tcp);
  void readFrom(Client& c);
  void handleMessage(Client& c, const unsigned char* msg, std::uint32_t len);
  void handlePost(Client& c, const unsigned char* msg, std::uint32_t len);
  void answer(Client& c, std::uint32_t type, std::uint32_t flags, std::uint64_t headerData);
  void notify(const unsigned char* block, std::uint32_t size);
  void flushOut(Client& c);
  void endRound();
  void drop(Client& c, const char* why);
  void reap();
  void registerTcpAddress();

  Options options_;
  EventLog log_;
  Stats stats_;
  int epfd_ = -1;
  int sigfd_ = -1;
  xpcctx* ctx_ = nullptr;
  xpcugblm* group_ = nullptr;
  xpccon* local_ = nullptr;
  xpccon* tcpListener_ = nullptr;
  std::string tcpAddress_;
  std::unordered_map<int, std::unique_ptr<Client>> clients_;
  std::vector<Client*> touched_;  // clients with answers held for the round's commit
  std::vector<int> dead_;
  bool stopping_ = false;
};

}  // namespace evmd

#endif
