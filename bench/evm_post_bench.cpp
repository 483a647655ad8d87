// Posting against the event daemon, each measure beside a baseline of the same bytes and the
// same number of messages:
//   PostOpen/*        a post and its answer on an open connection; raw: a Unix-socket client that
//                     writes the head and the block and reads the 88-byte answer itself
//   ConnectPost/*     connect, post, wait, disconnect as the command does it; raw: the same five
//                     messages by hand on a fresh socket
//   Throughput/*      8 threads, each on its own connection, posting through the library and
//                     waiting for each answer; to the daemon (durable default: group commit), to a
//                     second daemon with -sync interval, and to a bare epoll server that answers
//                     the same messages and does nothing else
//   AppendSync        one writer appending a typical event's bytes and fdatasync-ing, round after
//                     round, beside the daemon's log: what the disk allows. With 8 posters one sync
//                     can cover at most 8 events, so group commit's bound is
//                     min(bare server, 8 x AppendSync). The disk's rate drifts with the machine's
//                     other load, so the two alternate in three passes, each pass judged against
//                     its own disk figure; the summary gives each pass's ratio and their median.
//   WorstLatency/*    a good poster's slowest post (counter max_us) and the daemon's resident
//                     memory (rss_kib): alone, and while 100 hostile clients sit on the daemon:
//                     50 that announced the longest event taken and sent 48 bytes of it, and 50
//                     that keep connecting with a first message that claims 64 MiB
// The raw side talks to that bare server too. Both servers run as child processes.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <memory>
#include <thread>
#include <map>
#include <unordered_map>
#include <vector>

#include "evm/libevm/evm.h"

namespace {

std::string g_dir;
std::string g_bareAddr = "(ADDRESS=(PROTOCOL=ipc)(KEY=bench.bare))";
std::string g_intervalAddr;
pid_t g_daemon = -1, g_bare = -1, g_intervalDaemon = -1;

EvmEvent_t typicalEvent() {
  EvmEvent_t ev = nullptr;
  EvmEventCreateVa(&ev, EvmITEM_NAME, "sys.zel.clu.vyn.res.profile.delete", EvmITEM_CLUSTER_EVENT, EvmTRUE,
                   EvmITEM_NONE);
  EvmVarSetString(ev, "_name", "demo");
  return ev;
}

// The bytes a post puts on the wire, stamped and checksummed once.
std::vector<unsigned char> typicalBlock() {
  EvmEvent_t ev = typicalEvent();
  _EvmItemSetAuto(ev, 0);
  EvmUint32_t len = 0;
  const auto* p = static_cast<const unsigned char*>(EvmEventWriteBuf(&len, ev));
  std::vector<unsigned char> b(p, p + len);
  EvmEventDestroy(ev);
  return b;
}

EvmCommHead_t head(std::uint32_t type, std::uint64_t data, std::uint32_t body) {
  return evmCommHead(type, 0, data, body);
}

// ---- The bare server: frames messages, answers connects and posts, nothing more ----

[[noreturn]] void bareServer(const std::string& path) {
  int l = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
  sockaddr_un sa{};
  sa.sun_family = AF_UNIX;
  std::strcpy(sa.sun_path, path.c_str());
  unlink(path.c_str());
  if (bind(l, reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0 || listen(l, 128) != 0) _exit(1);
  int ep = epoll_create1(0);
  epoll_event ev{};
  ev.events = EPOLLIN;
  ev.data.fd = l;
  epoll_ctl(ep, EPOLL_CTL_ADD, l, &ev);
  struct Conn {
    std::vector<unsigned char> buf = std::vector<unsigned char>(1 << 16);
    std::size_t have = 0;
    int awaiting = 0;  // 0: a head, 1: a connect body, 2: a post body
    std::uint64_t token = 0;
  };
  std::unordered_map<int, Conn> conns;
  std::vector<epoll_event> evs(64);
  for (;;) {
    int n = epoll_wait(ep, evs.data(), 64, -1);
    for (int i = 0; i < n; ++i) {
      int fd = evs[i].data.fd;
      if (fd == l) {
        int c;
        while ((c = accept4(l, nullptr, nullptr, SOCK_NONBLOCK)) >= 0) {
          epoll_event e{};
          e.events = EPOLLIN;
          e.data.fd = c;
          epoll_ctl(ep, EPOLL_CTL_ADD, c, &e);
          conns[c] = Conn();
        }
        continue;
      }
      Conn& c = conns[fd];
      ssize_t r = recv(fd, c.buf.data() + c.have, c.buf.size() - c.have, 0);
      if (r <= 0) {
        close(fd);
        conns.erase(fd);
        continue;
      }
      c.have += static_cast<std::size_t>(r);
      std::size_t at = 0;
      std::vector<unsigned char> out;
      while (c.have - at >= 4) {
        std::uint32_t len = evmLoad32(c.buf.data(), at);
        if (c.have - at < len) break;
        if (c.awaiting == 0) {
          EvmCommHead_t h;
          std::memcpy(&h, c.buf.data() + at, sizeof h);
          c.awaiting = h.type == EvmCOMM_CONNECT_REQ ? 1 : 2;
          c.token = h.headerData;
        } else {
          EvmCommHead_t a = head(c.awaiting == 1 ? EvmCOMM_CONNECT_RSP : EvmCOMM_POST_RSP, c.token, 0);
          const auto* p = reinterpret_cast<const unsigned char*>(&a);
          out.insert(out.end(), p, p + sizeof a);
          c.awaiting = 0;
        }
        at += len;
      }
      std::memmove(c.buf.data(), c.buf.data() + at, c.have - at);
      c.have -= at;
      if (!out.empty() && send(fd, out.data(), out.size(), MSG_NOSIGNAL) < 0) {
        close(fd);
        conns.erase(fd);
      }
    }
  }
}

// ---- Raw client ----

int rawConnect() {
  int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un sa{};
  sa.sun_family = AF_UNIX;
  std::strcpy(sa.sun_path, (g_dir + "/ipc/bench.bare").c_str());
  if (connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0) std::abort();
  return fd;
}

void writeAll(int fd, const void* p, std::size_t n) {
  if (send(fd, p, n, MSG_NOSIGNAL) != static_cast<ssize_t>(n)) std::abort();
}

void readAnswer(int fd) {
  unsigned char a[EVM_COMM_HEAD_SIZE];
  std::size_t got = 0;
  while (got < sizeof a) {
    ssize_t r = read(fd, a + got, sizeof a - got);
    if (r <= 0) std::abort();
    got += static_cast<std::size_t>(r);
  }
}

void rawPost(int fd, const std::vector<unsigned char>& block) {
  EvmCommHead_t h = head(EvmCOMM_POST_REQ, 1, static_cast<std::uint32_t>(block.size()));
  writeAll(fd, &h, sizeof h);
  writeAll(fd, block.data(), block.size());
  readAnswer(fd);
}

void BM_PostOpen_Raw(benchmark::State& state) {
  int fd = rawConnect();
  auto block = typicalBlock();
  std::vector<unsigned char> req(64, 0);
  evmStore32(req.data(), 0, 64);
  EvmCommHead_t h = head(EvmCOMM_CONNECT_REQ, 0, 64);
  writeAll(fd, &h, sizeof h);
  writeAll(fd, req.data(), req.size());
  readAnswer(fd);
  for (auto _ : state) rawPost(fd, block);
  close(fd);
}

void BM_PostOpen_Daemon(benchmark::State& state) {
  EvmConnection_t conn = nullptr;
  if (EvmConnCreate(EvmCONNECTION_POST, EvmRESPONSE_WAIT, nullptr, nullptr, nullptr, &conn) != EvmERROR_NONE) {
    state.SkipWithError("no daemon");
    return;
  }
  EvmEvent_t ev = typicalEvent();
  for (auto _ : state)
    if (EvmEventPost(conn, ev) != EvmERROR_NONE) state.SkipWithError("post failed");
  EvmEventDestroy(ev);
  EvmConnDestroy(conn);
}

void BM_ConnectPost_Raw(benchmark::State& state) {
  auto block = typicalBlock();
  std::vector<unsigned char> req(64, 0);
  evmStore32(req.data(), 0, 64);
  EvmCommHead_t h = head(EvmCOMM_CONNECT_REQ, 0, 64);
  for (auto _ : state) {
    int fd = rawConnect();
    writeAll(fd, &h, sizeof h);
    writeAll(fd, req.data(), req.size());
    readAnswer(fd);
    rawPost(fd, block);
    close(fd);
  }
}

void BM_ConnectPost_Daemon(benchmark::State& state) {
  EvmEvent_t ev = typicalEvent();
  for (auto _ : state)
    if (EvmEventPost(nullptr, ev) != EvmERROR_NONE) state.SkipWithError("post failed");
  EvmEventDestroy(ev);
}

void throughput(benchmark::State& state, const char* address) {
  EvmTransport_t t{};
  t.type = EvmTRANSPORT_DOMAIN_SOCKET;
  t.data.domainSocket.name = const_cast<char*>(address);
  EvmConnection_t conn = nullptr;
  if (EvmConnCreate(EvmCONNECTION_POST, EvmRESPONSE_WAIT, address != nullptr ? &t : nullptr, nullptr, nullptr,
                    &conn) != EvmERROR_NONE) {
    state.SkipWithError("no server");
    return;
  }
  EvmEvent_t ev = typicalEvent();
  for (auto _ : state)
    if (EvmEventPost(conn, ev) != EvmERROR_NONE) state.SkipWithError("post failed");
  state.SetItemsProcessed(state.iterations());
  EvmEventDestroy(ev);
  EvmConnDestroy(conn);
}

void BM_Throughput_Bare(benchmark::State& state) { throughput(state, g_bareAddr.c_str()); }
void BM_Throughput_Daemon(benchmark::State& state) { throughput(state, nullptr); }
void BM_Throughput_DaemonInterval(benchmark::State& state) { throughput(state, g_intervalAddr.c_str()); }

// Small append + fdatasync rounds on the log's file system.
void BM_AppendSync(benchmark::State& state) {
  auto block = typicalBlock();
  std::string path = g_dir + "/home/log/evm/append.bench";
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0600);
  if (fd < 0) {
    state.SkipWithError("cannot open a file beside the log");
    return;
  }
  for (auto _ : state) {
    if (write(fd, block.data(), block.size()) != static_cast<ssize_t>(block.size()) || fdatasync(fd) != 0)
      state.SkipWithError("append or fdatasync failed");
  }
  state.SetItemsProcessed(state.iterations());
  close(fd);
  unlink(path.c_str());
}

long daemonRssKiB() {
  FILE* f = std::fopen(("/proc/" + std::to_string(g_daemon) + "/status").c_str(), "r");
  if (f == nullptr) return -1;
  char line[256];
  long kb = -1;
  while (std::fgets(line, sizeof line, f) != nullptr)
    if (std::sscanf(line, "VmRSS: %ld kB", &kb) == 1) break;
  std::fclose(f);
  return kb;
}

int daemonSocket() {
  int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un sa{};
  sa.sun_family = AF_UNIX;
  std::strcpy(sa.sun_path, (g_dir + "/ipc/SYSTEM.evm.acceptor.auth").c_str());
  if (connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

// 50 clients that announced the longest event and sent a little of it, and a thread that keeps
// 50 more connecting with a first message that claims 64 MiB.
class Flood {
 public:
  Flood() {
    std::size_t len = _evmGetConnectReqDataSize();
    std::vector<unsigned char> req(len, 0);
    _evmFillTransportHeader(req.data(), static_cast<EvmUint32_t>(len));
    evmStore32(req.data(), EVM_CONNREQ_OFF_CONNECTOR, EvmCOMM_POSTER);
    uid_t me = geteuid();
    std::memcpy(_evmGetConnectReqDataUidPtr(req.data()), &me, _evmGetUidSize());
    std::vector<unsigned char> part(48, 0);
    evmStore32(part.data(), 0, EVM_MAX_EVENT_SIZE);
    for (int i = 0; i < 50; ++i) {
      int fd = daemonSocket();
      if (fd < 0) continue;
      EvmCommHead_t h = head(EvmCOMM_CONNECT_REQ, 0, static_cast<std::uint32_t>(len));
      writeAll(fd, &h, sizeof h);
      writeAll(fd, req.data(), req.size());
      readAnswer(fd);
      h = head(EvmCOMM_POST_REQ, 1, EVM_MAX_EVENT_SIZE);
      writeAll(fd, &h, sizeof h);
      writeAll(fd, part.data(), part.size());
      slow_.push_back(fd);
    }
    claimer_ = std::thread([this] {
      std::vector<unsigned char> claim(48, 0);
      evmStore32(claim.data(), 0, 64u << 20);
      std::vector<int> open(50, -1);
      for (std::size_t i = 0; !stop_.load(); i = (i + 1) % open.size()) {
        if (open[i] >= 0) close(open[i]);
        open[i] = daemonSocket();
        if (open[i] >= 0) send(open[i], claim.data(), claim.size(), MSG_NOSIGNAL);
      }
      for (int fd : open)
        if (fd >= 0) close(fd);
    });
  }
  ~Flood() {
    stop_ = true;
    claimer_.join();
    for (int fd : slow_) close(fd);
  }

 private:
  std::vector<int> slow_;
  std::atomic<bool> stop_{false};
  std::thread claimer_;
};

void worstLatency(benchmark::State& state, bool flooded) {
  std::unique_ptr<Flood> flood;
  if (flooded) flood = std::make_unique<Flood>();
  EvmConnection_t conn = nullptr;
  if (EvmConnCreate(EvmCONNECTION_POST, EvmRESPONSE_WAIT, nullptr, nullptr, nullptr, &conn) != EvmERROR_NONE) {
    state.SkipWithError("no daemon");
    return;
  }
  EvmEvent_t ev = typicalEvent();
  double worst = 0;
  for (auto _ : state) {
    auto t0 = std::chrono::steady_clock::now();
    if (EvmEventPost(conn, ev) != EvmERROR_NONE) state.SkipWithError("post failed");
    worst = std::max(worst, std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - t0).count());
  }
  state.counters["max_us"] = worst;
  state.counters["rss_kib"] = static_cast<double>(daemonRssKiB());
  EvmEventDestroy(ev);
  EvmConnDestroy(conn);
}

void BM_WorstLatency_Alone(benchmark::State& state) { worstLatency(state, false); }
void BM_WorstLatency_Flooded(benchmark::State& state) { worstLatency(state, true); }

BENCHMARK(BM_PostOpen_Raw);
BENCHMARK(BM_PostOpen_Daemon);
BENCHMARK(BM_ConnectPost_Raw);
BENCHMARK(BM_ConnectPost_Daemon);
BENCHMARK(BM_Throughput_Bare)->Threads(8)->UseRealTime()->MinTime(2.0);
// BM_AppendSync and BM_Throughput_Daemon are registered in main, in alternating passes.
BENCHMARK(BM_Throughput_DaemonInterval)->Threads(8)->UseRealTime()->MinTime(2.0);
BENCHMARK(BM_WorstLatency_Alone)->Iterations(5000)->UseRealTime();
BENCHMARK(BM_WorstLatency_Flooded)->Iterations(5000)->UseRealTime();

// Starts vyn_evmd (beside this program's build: ../bin) with `-sync syncMode`, its home and
// local address set by the environment given.
pid_t startDaemon(const std::string& self, const char* syncMode, const std::vector<std::string>& env) {
  std::string prog = std::filesystem::path(self).parent_path().string() + "/../bin/vyn_evmd";
  int fds[2];
  if (pipe(fds) != 0) return -1;
  pid_t pid = fork();
  if (pid == 0) {
    dup2(fds[1], 1);
    close(fds[0]);
    for (const auto& e : env) putenv(const_cast<char*>(e.c_str()));
    execl(prog.c_str(), prog.c_str(), "-sync", syncMode, static_cast<char*>(nullptr));
    _exit(98);
  }
  close(fds[1]);
  char line[512];
  FILE* f = fdopen(fds[0], "r");
  bool up = std::fgets(line, sizeof line, f) != nullptr;
  std::fclose(f);
  return up ? pid : -1;
}

// The console's report, and the rates it saw, for the summary.
class Summary : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& r : runs) {
      auto it = r.counters.find("items_per_second");
      if (it != r.counters.end() && !r.error_occurred) rates[r.benchmark_name()] = it->second.value;
    }
  }
  double rate(const std::string& prefix) const {
    for (const auto& kv : rates)
      if (kv.first.rfind(prefix, 0) == 0) return kv.second;
    return 0;
  }
  std::map<std::string, double> rates;
};

}  // namespace

int main(int argc, char** argv) {
  // VYN_BENCH_DIR: where the daemons' logs go (default /tmp); put it on the file system whose
  // syncs are to be measured.
  const char* base = std::getenv("VYN_BENCH_DIR");
  std::string tmpl = std::string(base != nullptr && *base ? base : "/tmp") + "/evm_post_bench.XXXXXX";
  if (mkdtemp(&tmpl[0]) == nullptr) return 1;
  g_dir = tmpl;
  std::filesystem::create_directories(g_dir + "/ipc");
  std::filesystem::create_directories(g_dir + "/home/log/evm");
  std::filesystem::create_directories(g_dir + "/home2/log/evm");
  setenv("VYN_IPC_DIR", (g_dir + "/ipc").c_str(), 1);
  setenv("ZEL_VYN_HOME", (g_dir + "/home").c_str(), 1);
  setenv("VYN_REGISTRY", (g_dir + "/none.db").c_str(), 1);
  unsetenv("GMX_CLUSTERNAME");
  // VYN_BENCH_SYNC=interval measures the first daemon with the old interval policy.
  const char* sync = std::getenv("VYN_BENCH_SYNC");
  g_bare = fork();
  if (g_bare == 0) bareServer(g_dir + "/ipc/bench.bare");
  g_daemon = startDaemon(argv[0], sync != nullptr ? sync : "batch", {});
  // The second daemon: another home, and another address through the cluster's name.
  setenv("GMX_CLUSTERNAME", "bench", 1);
  char* address = _evmdConnString(0);
  unsetenv("GMX_CLUSTERNAME");
  g_intervalAddr = address != nullptr ? address : "";
  std::free(address);
  g_intervalDaemon = startDaemon(argv[0], "interval", {"GMX_CLUSTERNAME=bench", "ZEL_VYN_HOME=" + g_dir + "/home2"});
  if (g_daemon < 0 || g_intervalDaemon < 0) {
    std::fprintf(stderr, "vyn_evmd did not start\n");
    return 1;
  }
  // Wait until the bare server answers.
  for (;;) {
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un sa{};
    sa.sun_family = AF_UNIX;
    std::strcpy(sa.sun_path, (g_dir + "/ipc/bench.bare").c_str());
    bool ok = connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) == 0;
    close(fd);
    if (ok) break;
    sched_yield();
  }
  constexpr int kPasses = 3;
  for (int pass = 1; pass <= kPasses; ++pass) {
    std::string tag = "/pass" + std::to_string(pass);
    benchmark::RegisterBenchmark(("BM_AppendSync" + tag).c_str(), BM_AppendSync)->UseRealTime()->MinTime(1.0);
    benchmark::RegisterBenchmark(("BM_Throughput_Daemon" + tag).c_str(), BM_Throughput_Daemon)
        ->Threads(8)
        ->UseRealTime()
        ->MinTime(1.0);
  }
  benchmark::Initialize(&argc, argv);
  Summary summary;
  benchmark::RunSpecifiedBenchmarks(&summary);
  benchmark::Shutdown();
  double bare = summary.rate("BM_Throughput_Bare/");
  std::vector<double> ratios;
  for (int pass = 1; pass <= kPasses && bare > 0; ++pass) {
    std::string tag = "/pass" + std::to_string(pass) + "/";
    double daemon = summary.rate("BM_Throughput_Daemon" + tag), rounds = summary.rate("BM_AppendSync" + tag);
    if (daemon <= 0 || rounds <= 0) continue;
    double bound = std::min(bare, 8 * rounds);
    ratios.push_back(daemon / bound);
    std::printf("%sgroup commit pass %d: %.0f posts/s with 8 waiting posters; bare server %.0f/s, append+fdatasync "
                "%.0f rounds/s (x8 = %.0f); achieved / min(bare, 8 x rounds) = %.0f%%\n",
                pass == 1 ? "\n" : "", pass, daemon, bare, rounds, 8 * rounds, 100 * daemon / bound);
  }
  if (!ratios.empty()) {
    std::sort(ratios.begin(), ratios.end());
    std::printf("group commit: median achieved / min(bare, 8 x rounds) = %.0f%%\n", 100 * ratios[ratios.size() / 2]);
  }
  kill(g_daemon, SIGTERM);
  kill(g_intervalDaemon, SIGTERM);
  kill(g_bare, SIGKILL);
  waitpid(g_daemon, nullptr, 0);
  waitpid(g_intervalDaemon, nullptr, 0);
  waitpid(g_bare, nullptr, 0);
  std::filesystem::remove_all(g_dir);
  return 0;
}
