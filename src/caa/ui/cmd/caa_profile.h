#ifndef CAA_UI_CMD_CAA_PROFILE_H
#define CAA_UI_CMD_CAA_PROFILE_H

// The run of the profile command: start the platform services, find the home, build the
// logger, the command and the parser, run exactly one operation, and exit with 0 or 1.
#include "caa/lib/caa_types.h"

namespace CAA {

class CmdProf;
class Cmds;

// Never returns: every path ends in exit.
[[noreturn]] void caa_profile_main(int argc, char** argv);
// True when the line holds at least one argument; otherwise shows the usage.
bool initProc(int argc, CmdProf& cmdprof);
// The exit status of a result: 1 for FAILURE (after the usage) and WARNING, else 0.
int returnProc(caa_Status& caaStat, Cmds& cmds);

}  // namespace CAA

int caacmd_main(int argc, char** argv);

#endif
