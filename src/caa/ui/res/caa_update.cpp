// The update of a stored profile. It will reuse the second stage of a create (initParams,
// procOptArgs); until it is built, the group ends cleanly with status 1.
#include <cstdio>

#include "caa/ui/res/caa_cmdprof.h"

namespace CAA {

caa_Status CmdProf::updateProfile(CmdParse&) {
  std::fprintf(stderr, "vyn_profile: -update is not available in this build.\n");
  return caa_WARNING;
}

}  // namespace CAA
