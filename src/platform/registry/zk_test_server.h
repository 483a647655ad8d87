#ifndef PLATFORM_REGISTRY_ZK_TEST_SERVER_H
#define PLATFORM_REGISTRY_ZK_TEST_SERVER_H

// For tests that need a real ZooKeeper server: a standalone server from Debian's `zookeeper`
// package, listening on a free loopback port, with its data in a temporary directory. It is
// stopped by pid when its owner goes, and killed by the kernel should the test process die first.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

namespace vyntest {

class ZkTestServer {
 public:
  static constexpr const char* kJar = "/usr/share/java/zookeeper.jar";
  static constexpr const char* kJava = "/usr/bin/java";

  // Whether the package and a Java runtime are installed.
  static bool available() { return access(kJar, R_OK) == 0 && access(kJava, X_OK) == 0; }
  static const char* skipReason() { return "ZooKeeper is not installed (apt-get install zookeeper)"; }

  // forceSync false: the server does not flush its log to disk (for benchmarks).
  explicit ZkTestServer(bool forceSync = true) {
    char tmpl[] = "/tmp/zk_test_server.XXXXXX";
    if (mkdtemp(tmpl) == nullptr) std::abort();
    dir_ = tmpl;
    port_ = freePort();
    std::ofstream cfg(dir_ + "/zoo.cfg");
    // A short tick lets sessions time out from 1 s on, so that tests of expiry run quickly.
    cfg << "tickTime=500\ninitLimit=10\nsyncLimit=5\ndataDir=" << dir_ << "/data\nclientPort=" << port_
        << "\nclientPortAddress=127.0.0.1\nadmin.enableServer=false\nmaxClientCnxns=0\nforceSync="
        << (forceSync ? "yes" : "no") << "\n";
  }
  ~ZkTestServer() {
    stop();
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
  }
  ZkTestServer(const ZkTestServer&) = delete;
  ZkTestServer& operator=(const ZkTestServer&) = delete;

  // Starts the server (again, on the same port and data) and waits until it takes connections.
  bool start() {
    if (pid_ > 0) return true;
    pid_t parent = getpid();
    pid_ = fork();
    if (pid_ < 0) return false;
    if (pid_ == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (getppid() != parent) _exit(1);
      std::string log = dir_ + "/server.out";
      if (!freopen(log.c_str(), "a", stdout) || !freopen(log.c_str(), "a", stderr)) _exit(1);
      std::string cfg = dir_ + "/zoo.cfg";
      execl(kJava, kJava, "-Xmx128m", "-XX:+UseSerialGC", "-XX:TieredStopAtLevel=1", "-Dzookeeper.admin.enableServer=false",
            "-cp", kJar, "org.apache.zookeeper.server.ZooKeeperServerMain", cfg.c_str(), static_cast<char*>(nullptr));
      _exit(127);
    }
    auto until = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (std::chrono::steady_clock::now() < until) {
      if (serving()) return true;
      if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
        pid_ = -1;
        return false;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    stop();
    return false;
  }
  // Stops it by pid: asked first, killed if it lingers.
  void stop() {
    if (pid_ <= 0) return;
    kill(pid_, SIGTERM);
    for (int i = 0; i < 100; ++i) {
      if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
        pid_ = -1;
        return;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }
  // A server that hangs: it keeps its connections but answers nothing.
  void freeze() {
    if (pid_ > 0) kill(pid_, SIGSTOP);
  }
  void thaw() {
    if (pid_ > 0) kill(pid_, SIGCONT);
  }

  int port() const { return port_; }
  std::string hosts() const { return "127.0.0.1:" + std::to_string(port_); }
  std::string address(const std::string& chroot) const { return "zk://" + hosts() + chroot; }

  // One server for a whole test program, started at the first call; null when it cannot run.
  static ZkTestServer* shared() {
    static ZkTestServer* server = [] {
      if (!available()) return static_cast<ZkTestServer*>(nullptr);
      static ZkTestServer s;
      return s.start() ? &s : nullptr;
    }();
    return server;
  }

 private:
  static int freePort() {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) != 0)
      std::abort();
    close(fd);
    return ntohs(a.sin_port);
  }
  // Whether the server answers the "srvr" command as a serving server does (it takes connections
  // before it has loaded its data).
  bool serving() const {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port_));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::string reply;
    timeval tv{2, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    if (connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 && write(fd, "srvr", 4) == 4) {
      char buf[512];
      ssize_t n;
      while ((n = read(fd, buf, sizeof buf)) > 0) reply.append(buf, static_cast<std::size_t>(n));
    }
    close(fd);
    return reply.find("Mode: ") != std::string::npos;
  }

  std::string dir_;
  int port_ = 0;
  pid_t pid_ = -1;
};

}  // namespace vyntest

#endif
