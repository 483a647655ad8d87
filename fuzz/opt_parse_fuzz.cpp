// Fuzz target: any text as the value of "-o", taken apart into the sub-options of a type that
// has a few plain ones and "bt", whose value may hold commas. The messages go to a null
// standard error; the parser must end in a status, never a fault.
#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "caa/logger/caa_logger.h"
#include "caa/ui/api/caa_args.h"
#include "caa/ui/api/caa_cmds.h"
#include "caa/ui/res/caa_cmdprof.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // A command line cannot carry a zero byte: the text ends at the first one.
  std::string text(reinterpret_cast<const char*>(data), size);
  text = text.c_str();

  std::vector<char> raw(text.begin(), text.end());
  raw.push_back('\0');
  CAA::CmdProf::replaceChar(raw.data(), "bt", ',', 0x01);

  CAA::CaaLogger logger(CAA::LOG_STDERR, "fuzz");
  CAA::CmdProf cmd(&logger);
  cmd.clearArgList(cmd.args());
  auto* opt = new CAA::caaTagValue(1, CAA::NOT_ENTERED_NEEDED, "-o", CAA::caa_PROF_OPTIONAL);
  opt->writeValue(text);
  cmd.args().push_back(opt);
  CAA::string_Map switches = {{"-o as", "AUTO_START=restore"}, {"-o bt", "REBALANCE="}, {"-o ci", "CHECK_INTERVAL=60"},
                              {"-d", "DESCRIPTION="}};
  std::fflush(stderr);
  int saved = dup(2);
  int null = open("/dev/null", O_WRONLY);
  dup2(null, 2);
  cmd.uploadArgList(switches);
  cmd.procOptArgs();
  std::fflush(stderr);
  dup2(saved, 2);
  close(saved);
  close(null);
  for (CAA::caaArg* arg : cmd.args()) (void)arg->showArgValue().size();
  return 0;
}
