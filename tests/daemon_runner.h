#ifndef TESTS_DAEMON_RUNNER_H
#define TESTS_DAEMON_RUNNER_H

// Runs build/bin/vyn_evmd for a test in a temporary home, and reads back the events it logged
// as a reader of event files does.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "evm/libevm/evm.h"
#include "program_runner.h"

namespace vyntest {

class Daemon {
 public:
  // `env` adds to, or replaces, what the daemon is given by default: the home, a socket directory
  // and a registry store, all below the home's root.
  explicit Daemon(const TempHome& home, std::vector<std::string> args = {},
                  const std::map<std::string, std::string>& env = {}) {
    std::map<std::string, std::string> all = {{"ZEL_VYN_HOME", home.home()},
                                              {"VYN_IPC_DIR", home.root() + "/ipc"},
                                              {"VYN_REGISTRY", home.root() + "/registry.db"},
                                              {"PATH", "/usr/bin:/bin"}};
    for (const auto& kv : env) all[kv.first] = kv.second;
    std::vector<std::string> envText;
    for (const auto& kv : all) envText.push_back(kv.first + "=" + kv.second);
    std::vector<char*> envp;
    for (auto& e : envText) envp.push_back(&e[0]);
    envp.push_back(nullptr);
    std::string prog = binary("vyn_evmd");
    args.insert(args.begin(), prog);
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(&a[0]);
    argv.push_back(nullptr);
    errPath_ = home.root() + "/vyn_evmd.stderr";
    int fds[2];
    if (pipe(fds) != 0) std::abort();
    pid_ = fork();
    if (pid_ == 0) {
      dup2(fds[1], 1);
      close(fds[0]);
      int err = open(errPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
      if (err >= 0) dup2(err, 2);
      execve(prog.c_str(), argv.data(), envp.data());
      _exit(98);
    }
    close(fds[1]);
    // The daemon says one line once it listens; the end of the pipe means it gave up.
    FILE* f = fdopen(fds[0], "r");
    char line[512] = "";
    if (std::fgets(line, sizeof line, f) != nullptr) banner_ = line;
    std::fclose(f);
  }
  ~Daemon() {
    if (pid_ > 0) stop();
  }
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  const std::string& banner() const { return banner_; }
  bool listening() const { return banner_.find("listening on") != std::string::npos; }
  pid_t pid() const { return pid_; }
  // What the daemon wrote to standard error so far.
  std::string errors() const {
    std::string s;
    FILE* f = std::fopen(errPath_.c_str(), "r");
    if (f == nullptr) return s;
    char buf[4096];
    std::size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) s.append(buf, n);
    std::fclose(f);
    return s;
  }
  // The daemon's resident memory in KiB, from /proc.
  long rssKiB() const {
    FILE* f = std::fopen(("/proc/" + std::to_string(pid_) + "/status").c_str(), "r");
    if (f == nullptr) return -1;
    char line[256];
    long kb = -1;
    while (std::fgets(line, sizeof line, f) != nullptr)
      if (std::sscanf(line, "VmRSS: %ld kB", &kb) == 1) break;
    std::fclose(f);
    return kb;
  }
  // Stops the daemon (SIGTERM: after the events in hand are written) and gives its exit status.
  // -1 when it was stopped already: a pid of -1 must never reach kill().
  int stop(int sig = SIGTERM) {
    if (pid_ <= 0) return -1;
    kill(pid_, sig);
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }

 private:
  pid_t pid_ = -1;
  std::string banner_;
  std::string errPath_;
};

// The events of the daemon's log, in order. The caller destroys them.
inline std::vector<EvmEvent_t> loggedEvents(const TempHome& home) {
  std::vector<EvmEvent_t> events;
  int fd = open((home.home() + "/log/evm/events.log").c_str(), O_RDONLY);
  if (fd < 0) return events;
  EvmEvent_t ev = nullptr;
  while (EvmEventReadFD(fd, &ev) == EvmERROR_NONE) events.push_back(ev);
  close(fd);
  return events;
}

inline std::string itemName(EvmEvent_t ev) {
  EvmItemValue_t v;
  if (EvmItemGet(ev, EvmITEM_NAME, &v) != EvmERROR_NONE) return "?";
  std::string name = v.NAME != nullptr ? v.NAME : "";
  EvmItemRelease(EvmITEM_NAME, v);
  return name;
}

inline std::string stringVar(EvmEvent_t ev, const char* var) {
  EvmVarStruct_t s;
  if (EvmVarGet(ev, var, &s) != EvmERROR_NONE) return "<missing>";
  std::string value = s.value.STRING != nullptr ? s.value.STRING : "";
  EvmVarRelease(&s);
  return value;
}

}  // namespace vyntest

#endif
