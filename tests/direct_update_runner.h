#ifndef TESTS_DIRECT_UPDATE_RUNNER_H
#define TESTS_DIRECT_UPDATE_RUNNER_H

// The profile command's direct update has no command line of its own: a test runs the operation
// in a child process with the environment and the command line it names, as the command would
// run it, and reads what it printed.
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "caa/logger/caa_event.h"
#include "caa/logger/caa_logger.h"
#include "caa/ui/api/caa_cmdparse.h"
#include "caa/ui/res/caa_cmdprof.h"
#include "platform/trace/dtr.h"
#include "program_runner.h"

namespace vyntest {

// `args` after the program's name; `scratch` a directory for the captured output; `uid` >= 0 runs
// the operation as that user.
inline Outcome runDirectUpdate(const std::vector<std::string>& args, const std::map<std::string, std::string>& env,
                               const std::string& scratch, int uid = -1) {
  const std::string out = scratch + "/du.out", err = scratch + "/du.err";
  std::vector<std::string> words = {"vyn_profile"};
  words.insert(words.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& w : words) argv.push_back(&w[0]);
  argv.push_back(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    if (!std::freopen(out.c_str(), "w", stdout) || !std::freopen(err.c_str(), "w", stderr)) _exit(99);
    for (const auto& kv : env) setenv(kv.first.c_str(), kv.second.c_str(), 1);
    setenv("LANG", "C", 1);
    if (uid >= 0 && setuid(static_cast<uid_t>(uid)) != 0) _exit(97);
    dtrSetProgram("vyn_profile");
    CAA::CaaLogger logger(CAA::LOG_STDERR, CAA::EVENT_LOG_UI);
    CAA::CmdProf prof(&logger);
    CAA::CmdParse parse(static_cast<int>(words.size()), argv.data(), &logger);
    prof.initPaths();
    int status = prof.processDirectProfileUpdate(parse);
    std::fflush(nullptr);
    _exit(status);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  Outcome o;
  o.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  o.out = slurp(out);
  o.err = slurp(err);
  return o;
}

}  // namespace vyntest

#endif
