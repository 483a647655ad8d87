// vyn_evmd: the cluster's event daemon. Takes events from posters over the local socket (and
// TCP when asked), checks them, appends them to <home>/log/evm/events.log and hands them to
// listeners. Runs in the foreground until SIGTERM or SIGINT.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>

#include "cppgen/clsLog.h"
#include "evm/evmd/evmd_server.h"
#include "evm/libevm/clsgenv.h"
#include "evm/libevm/evm_conn.h"
#include "platform/gmx/gmx.h"
#include "platform/trace/dtr.h"

namespace {

const char kUsage[] =
    "Usage: vyn_evmd [-tcp host[:port]] [-group name] [-sync batch|interval] [-syncms milliseconds]\n"
    "                [-maxclients n] [-maxperuser n]\n"
    "  -tcp         also listen on TCP at that address (port 0 or none: any free port), take\n"
    "               connections from loopback only, and publish the address under\n"
    "               SYSTEM.evm.rmport.<host> in the registry\n"
    "  -group       members of this group may listen to events, besides the superuser\n"
    "  -sync        batch: fdatasync the log before each round's answers leave;\n"
    "               interval (default): fdatasync at most every -syncms (200) and at the end\n"
    "  -maxclients  connections taken in all (1000); -maxperuser: from one user (128)\n";

bool number(const char* s, int* out) {
  char* end = nullptr;
  long v = std::strtol(s, &end, 10);
  if (*s == '\0' || *end != '\0' || v < 0 || v > 65535 * 100) return false;
  *out = static_cast<int>(v);
  return true;
}

// host[:port] as a TCP address string; a host is required, so that what we listen on is what
// the administrator named.
bool tcpAddress(const std::string& text, std::string* out) {
  std::string host = text, port = "0";
  std::size_t colon = text.rfind(':');
  if (colon != std::string::npos) {
    host = text.substr(0, colon);
    port = text.substr(colon + 1);
  }
  int p = 0;
  if (host.empty() || host.find_first_not_of("0123456789") == std::string::npos || !number(port.c_str(), &p) ||
      p > 65535 || host.find_first_of("()=") != std::string::npos)
    return false;
  *out = "(ADDRESS=(PROTOCOL=tcp)(HOST=" + host + ")(PORT=" + std::to_string(p) + "))";
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  evmd::Options o;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if (a == "-tcp" && i + 1 < argc && tcpAddress(argv[i + 1], &o.tcpAddress)) {
      ++i;
    } else if (a == "-group" && i + 1 < argc && *argv[i + 1] != '\0') {
      o.listenGroup = argv[++i];
    } else if (a == "-maxclients" && i + 1 < argc && number(argv[i + 1], &o.maxClients)) {
      ++i;
    } else if (a == "-maxperuser" && i + 1 < argc && number(argv[i + 1], &o.maxClientsPerUser)) {
      ++i;
    } else if (a == "-sync" && i + 1 < argc && (std::strcmp(argv[i + 1], "batch") == 0 || std::strcmp(argv[i + 1], "interval") == 0)) {
      o.sync = std::strcmp(argv[++i], "batch") == 0 ? evmd::SyncPolicy::EveryBatch : evmd::SyncPolicy::Interval;
    } else if (a == "-syncms" && i + 1 < argc && number(argv[i + 1], &o.syncIntervalMs)) {
      ++i;
    } else {
      std::fputs(kUsage, stderr);
      return 1;
    }
  }
  const char* home = clsgenv("ZEL_VYN_HOME");
  if (home == nullptr || *home == '\0') {
    std::fputs("vyn_evmd: ZEL_VYN_HOME is not set\n", stderr);
    return 1;
  }
  o.home = home;
  dtrSetProgram("vyn_evmd");
  char* address = _evmdConnString(0);
  if (address == nullptr) {
    std::fputs("vyn_evmd: cannot make the local address\n", stderr);
    return 1;
  }
  o.localAddress = address;
  std::free(address);
  try {
    evmd::Server server(o);
    // This node is up in its cluster while we run: joined once we listen, left at a clean stop.
    // A node that cannot join is traced and counts as down; the daemon runs on.
    gmxNodeMember member;
    // One line when the sockets are up, so that whoever started us can wait for it.
    std::printf("vyn_evmd: listening on %s%s%s\n", o.localAddress.c_str(), o.tcpAddress.empty() ? "" : " ", server.tcpAddress().c_str());
    std::fflush(stdout);
    server.run();
  } catch (const std::exception& e) {
    std::ostringstream os;
    os << " vyn_evmd: " << e.what();
    CLS_Debug::dbError(os, CLS_Debug::FUNC_FAIL, CLS_Debug::CLSlogModule::getModuleNone());
    std::fprintf(stderr, "vyn_evmd: %s\n", e.what());
    return 1;
  }
  return 0;
}
