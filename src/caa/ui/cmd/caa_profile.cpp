#include "caa/ui/cmd/caa_profile.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <sstream>

#include "caa/lib/caavrg.h"
#include "caa/logger/caa_event.h"
#include "caa/logger/caa_logger.h"
#include "caa/smsec/auth_exception.h"
#include "caa/ui/api/caa_cmdparse.h"
#include "caa/ui/res/caa_cmdprof.h"
#include "cppgen/clsException.h"
#include "cppgen/clsLog.h"
#include "evm/libevm/clsgenv.h"
#include "platform/idh/idh.h"
#include "platform/osl/osl.h"
#include "platform/thread/nxthr.h"
#include "platform/trace/dtr.h"

namespace CAA {

namespace {

const CLS_Debug::CLSlog& dbug() {
  static const CLS_Debug::CLSlog* s_dbug = new CLS_Debug::CLSlog("VYNCMD");
  return *s_dbug;
}

[[noreturn]] void finish(int status) {
  caavrgTerm();
  idhterm();
  clsgenvterm();
  std::exit(status);
}

// An exception that no operation caught (an identity that cannot be read) ends the run with one
// line on standard error.
[[noreturn]] void escaped(const std::string& text) {
  std::ostringstream os;
  os << " An exception ended the command: " << text;
  dbug().error(os, CLS_Debug::FUNC_FAIL, CLS_Debug::CLSlogModule::getModuleNone());
  std::fprintf(stderr, "vyn_profile: %s\n", text.c_str());
  std::fflush(stderr);
  finish(1);
}

}  // namespace

bool initProc(int argc, CmdProf& cmdprof) {
  if (argc != 1) return true;
  cmdprof.showUsage();
  return false;
}

int returnProc(caa_Status& caaStat, Cmds& cmds) {
  switch (caaStat) {
    case caa_FAILURE:
      cmds.showUsage();
      return 1;
    case caa_WARNING:
      return 1;
    default:
      return 0;
  }
}

void caa_profile_main(int argc, char** argv) {
  const char* vynhome = nullptr;
  osrec ose;
  if (osl_meta_init(&ose, 0) != 0) {
    std::fputs(osrecFormat(ose).c_str(), stderr);
    clsgenvterm();
    std::exit(1);
  }
  idhinit();
  nxthrInitctx();
  vynhome = clsgenv("ZEL_VYN_HOME");
  if (vynhome == nullptr) finish(1);
  clssetzelkorhome(vynhome);
  dtrSetProgram("vyn_profile");

  CaaLogger logger(LOG_STDERR, EVENT_LOG_UI);
  CmdProf cmdprof(&logger);
  CmdParse cmdparse(argc, argv, &logger);
  if (!initProc(argc, cmdprof)) finish(1);

  caa_Status caaStat = cmdprof.initPaths();
  try {
    caaStat = cmdprof.procArgs(cmdparse);
  } catch (const AuthorizationException& e) {
    escaped(e.getExceptionMessage());
  } catch (const AuthenticationException& e) {
    escaped(e.getExceptionMessage());
  } catch (const cls::Exception& e) {
    escaped(e.what());
  } catch (const std::exception& e) {
    escaped(e.what());
  }
  int rtn = returnProc(caaStat, cmdprof);
  finish(rtn == 0 ? 0 : 1);
}

}  // namespace CAA

int caacmd_main(int argc, char** argv) { CAA::caa_profile_main(argc, argv); }
