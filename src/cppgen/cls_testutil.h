#ifndef CPPGEN_CLS_TESTUTIL_H
#define CPPGEN_CLS_TESTUTIL_H

// For tests of what ends a process or can happen once per process: runs a function in a forked
// child with its own temporary home and hands back how it ended, what it wrote, and its trace.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>

#include "platform/trace/dtr.h"

namespace clstest {

struct ChildOutcome {
  int status = -1;  // the exit status, or 128 + the signal
  std::string out, err, trace, alerts;
};

inline std::string slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

// `body` runs in the child; returning from it exits with status 0. The child's trace file is
// <home>/log/child.trc.
inline ChildOutcome runInChild(const std::function<void()>& body) {
  char tmpl[] = "/tmp/vyn_child.XXXXXX";
  if (mkdtemp(tmpl) == nullptr) std::abort();
  std::string dir = tmpl;
  std::filesystem::create_directories(dir + "/log");
  pid_t pid = fork();
  if (pid == 0) {
    int out = open((dir + "/out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    int err = open((dir + "/err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(out, 1);
    dup2(err, 2);
    setenv("ZEL_VYN_HOME", dir.c_str(), 1);
    dtrSetProgram("child");
    body();
    std::fflush(nullptr);
    _exit(0);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  ChildOutcome o;
  o.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  o.out = slurp(dir + "/out");
  o.err = slurp(dir + "/err");
  o.trace = slurp(dir + "/log/child.trc");
  o.alerts = slurp(dir + "/log/alert.log");
  std::error_code ec;
  std::filesystem::remove_all(dir, ec);
  return o;
}

// The trace text with the time stamps and ids taken off each line.
inline std::string bare(const std::string& trace) {
  std::istringstream in(trace);
  std::string line, out;
  while (std::getline(in, line)) out += line.substr(line.find("] ") + 2) + "\n";
  return out;
}

}  // namespace clstest

#endif
