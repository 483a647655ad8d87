#include <cstdio>

#include "caa/ui/res/caa_cmdprof.h"

// The operations of the usage groups are not part of this build yet. Each says so and fails,
// so that a chosen group ends cleanly with status 1.
namespace CAA {

namespace {
caa_Status notBuilt(const char* what) {
  std::fprintf(stderr, "vyn_profile: %s is not available in this build.\n", what);
  return caa_WARNING;
}
}  // namespace

caa_Status CmdProf::createProfile(CmdParse&) { return notBuilt("-create"); }
caa_Status CmdProf::inputProfile() { return notBuilt("-create -I"); }
caa_Status CmdProf::deleteProfile() { return notBuilt("-delete"); }
caa_Status CmdProf::listProfile() { return notBuilt("-print"); }
caa_Status CmdProf::resourceTProfile() { return notBuilt("-template"); }
caa_Status CmdProf::typeTProfile() { return notBuilt("-template -t"); }
caa_Status CmdProf::updateProfile(CmdParse&) { return notBuilt("-update"); }
caa_Status CmdProf::validateProfile() { return notBuilt("-validate"); }

}  // namespace CAA
