#ifndef TESTS_PROGRAM_RUNNER_H
#define TESTS_PROGRAM_RUNNER_H

// Runs a built program in a temporary home as a user would: a copy of build/home, a controlled
// environment, a working directory, and optionally another uid. Captures both streams and the
// exit status. A program may also be started and waited for later, to run several at once.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace vyntest {

struct Outcome {
  int status = -1;
  std::string out;
  std::string err;
};

inline std::string slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

inline void spit(const std::string& path, const std::string& data) {
  std::ofstream out(path, std::ios::binary);
  out << data;
}

// A temporary directory holding a copy of the shipped home, removed at the end.
class TempHome {
 public:
  TempHome() {
    char tmpl[] = "/tmp/vyn_test.XXXXXX";
    if (mkdtemp(tmpl) == nullptr) std::abort();
    root_ = tmpl;
    chmod(root_.c_str(), 0755);
    const char* shipped = std::getenv("VYN_TEST_HOME");
    home_ = root_ + "/home";
    std::filesystem::copy(shipped != nullptr ? shipped : "build/home", home_,
                          std::filesystem::copy_options::recursive);
    std::filesystem::create_directories(root_ + "/work");
  }
  ~TempHome() {
    std::error_code ec;
    std::filesystem::remove_all(root_, ec);
  }
  TempHome(const TempHome&) = delete;
  TempHome& operator=(const TempHome&) = delete;

  const std::string& root() const { return root_; }
  const std::string& home() const { return home_; }
  std::string work() const { return root_ + "/work"; }

 private:
  std::string root_;
  std::string home_;
};

inline std::string binary(const std::string& name) {
  const char* dir = std::getenv("VYN_BIN_DIR");
  return std::string(dir != nullptr ? dir : "build/bin") + "/" + name;
}

// A program started by start() and not yet waited for. Whatever happens to the test, the
// process is killed and reaped by pid when this goes out of scope.
class Running {
 public:
  Running(pid_t pid, std::string dir) : pid_(pid), dir_(std::move(dir)) {}
  Running(Running&& other) noexcept : pid_(other.pid_), dir_(std::move(other.dir_)) { other.pid_ = -1; }
  Running(const Running&) = delete;
  Running& operator=(const Running&) = delete;
  ~Running() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    if (!dir_.empty()) {
      std::error_code ec;
      std::filesystem::remove_all(dir_, ec);
    }
  }

  pid_t pid() const { return pid_; }
  // Waits for the end, at most timeout_ms when that is not negative: a program still running
  // then is killed, and its status is 128 + SIGKILL.
  Outcome wait(int timeout_ms = -1) {
    int status = 0;
    if (timeout_ms >= 0) {
      for (int waited = 0; waitpid(pid_, &status, WNOHANG) == 0; waited += 5) {
        if (waited >= timeout_ms) {
          kill(pid_, SIGKILL);
          waitpid(pid_, &status, 0);
          break;
        }
        usleep(5000);
      }
    } else {
      waitpid(pid_, &status, 0);
    }
    pid_ = -1;
    Outcome o;
    o.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    o.out = slurp(dir_ + "/out");
    o.err = slurp(dir_ + "/err");
    return o;
  }

 private:
  pid_t pid_;
  std::string dir_;
};

// Starts `program` with `args`. The environment is exactly `env` (plus PATH); `uid`, when not -1,
// is taken before exec (the test must run as root for that).
inline Running start(const std::string& program, const std::vector<std::string>& args,
                     const std::map<std::string, std::string>& env, const std::string& cwd, int uid = -1,
                     const std::string& input = std::string()) {
  char tmpl[] = "/tmp/vyn_run.XXXXXX";
  if (mkdtemp(tmpl) == nullptr) std::abort();
  std::string dir = tmpl;
  std::string outPath = dir + "/out", errPath = dir + "/err", inPath = dir + "/in";
  spit(inPath, input);
  // Everything the child needs is made before the fork.
  std::vector<std::string> envText;
  envText.push_back("PATH=/usr/local/bin:/usr/bin:/bin");
  for (const auto& kv : env) envText.push_back(kv.first + "=" + kv.second);
  std::vector<char*> envp;
  for (std::string& e : envText) envp.push_back(&e[0]);
  envp.push_back(nullptr);
  std::vector<std::string> argText{program};
  argText.insert(argText.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& a : argText) argv.push_back(&a[0]);
  argv.push_back(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    int in = open(inPath.c_str(), O_RDONLY);
    int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
    int err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
    if (in < 0 || out < 0 || err < 0) _exit(97);
    dup2(in, 0);
    dup2(out, 1);
    dup2(err, 2);
    if (chdir(cwd.c_str()) != 0) _exit(96);
    if (uid != -1 && (setgid(static_cast<gid_t>(uid)) != 0 || setuid(static_cast<uid_t>(uid)) != 0)) _exit(95);
    execve(program.c_str(), argv.data(), envp.data());
    _exit(98);
  }
  if (pid < 0) std::abort();
  return Running(pid, dir);
}

// Runs `program` to its end; see start().
inline Outcome run(const std::string& program, const std::vector<std::string>& args,
                   const std::map<std::string, std::string>& env, const std::string& cwd, int uid = -1,
                   const std::string& input = std::string()) {
  return start(program, args, env, cwd, uid, input).wait();
}

}  // namespace vyntest

#endif
