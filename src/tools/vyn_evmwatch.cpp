// vyn_evmwatch: prints the events the event daemon sends a listen connection, as they arrive.
//   -h HOST[:PORT]  the daemon of HOST over TCP instead of the local one
//   -t TEMPL        each event through a template; -d dumps each event whole; -j one JSON object a line
//   -n PATT         only events whose name matches PATT (the daemon is asked to send only those)
//   -r              when the daemon goes away, wait for it and connect again
// SIGINT and SIGTERM end the run with status 0. Losing the daemon (without -r) or failing to
// reach it is status 1; a bad command line 2.
#include <signal.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "evm/libevm/evm.h"
#include "tools/evm_show_output.h"

namespace {

using evmshow::message;

const char kProgram[] = "vyn_evmwatch";
const char kUsage[] = "usage: vyn_evmwatch [-h HOST[:PORT]] [-t TEMPLATE|-d|-j] [-n PATTERN] [-r]\n";

volatile std::sig_atomic_t g_stop = 0;

void onSignal(int) { g_stop = 1; }

[[noreturn]] void usage() {
  std::fputs(kUsage, stderr);
  std::exit(2);
}

struct Options {
  evmshow::Output output;
  std::string host;
  bool remote = false;
  int port = -1;
  std::string pattern;
  bool havePattern = false;
  bool reconnect = false;
};

Options parse(int argc, char** argv) {
  Options o;
  int outputs = 0;
  opterr = 0;
  int c;
  while ((c = getopt(argc, argv, "+h:t:djn:r")) != -1) {
    switch (c) {
      case 'h':
        o.remote = true;
        if (_evmCliConvertHostArg(kProgram, optarg, &o.port) != EvmERROR_NONE) usage();
        o.host = std::string(optarg).substr(0, std::string(optarg).find(':'));
        if (o.host.empty()) usage();
        break;
      case 't': o.output.mode = evmshow::Mode::Template; o.output.templ = optarg; ++outputs; break;
      case 'd': o.output.mode = evmshow::Mode::Dump; ++outputs; break;
      case 'j': o.output.mode = evmshow::Mode::Json; ++outputs; break;
      case 'n':
        o.pattern = optarg;
        o.havePattern = true;
        if (std::strlen(optarg) > EVM_SUBSCRIBE_MAX_FILTER || _evmStringCheck(optarg, nullptr, EvmTRUE) != EvmERROR_NONE) {
          message(evmshow::kMsgBadPattern, "Invalid name pattern \"%s\"", optarg);
          usage();
        }
        break;
      case 'r': o.reconnect = true; break;
      default: usage();
    }
  }
  if (optind != argc || outputs > 1) usage();
  return o;
}

struct Watch {
  const Options* options;
  evmshow::Renderer* renderer;
  std::string text;
  bool writeFailed = false;
};

void onCallback(EvmConnection_t, EvmCallbackArg_t arg, EvmCallbackData_t* data) {
  auto* w = static_cast<Watch*>(arg);
  switch (data->reason) {
    case EvmREASON_EVENT_DELIVERED: {
      EvmEvent_t ev = data->event;
      if (ev == nullptr) return;
      // The daemon filters too; this also keeps the promise with one that does not.
      EvmItemValue_t v;
      const char* name = _evmuiItemGet(ev, EvmITEM_NAME, &v) == EvmERROR_NONE ? v.NAME : "";
      if (!w->options->havePattern || EvmEventNameMatch(w->options->pattern.c_str(), name) != EvmFALSE) {
        w->text.clear();
        w->renderer->render(ev, &w->text);
        if (std::fwrite(w->text.data(), 1, w->text.size(), stdout) != w->text.size() || std::fflush(stdout) != 0)
          w->writeFailed = true;
      }
      EvmEventDestroy(ev);
      break;
    }
    case EvmREASON_EVENTS_MISSED:
      message(evmshow::kMsgMissed, "%u events were missed", data->extension.eventMissedData.missedCount);
      break;
    case EvmREASON_SUBSCRIBE_COMPLETE:
      if (data->status != EvmERROR_NONE)
        message(evmshow::kMsgBadFilter, "The event daemon refused the name pattern \"%s\"",
                w->options->pattern.c_str());
      break;
    default:
      break;
  }
}

// A listen connection, with the filter asked for; null when the daemon cannot be reached.
EvmConnection_t connect(const Options& o, Watch* w, EvmStatus_t* status) {
  EvmTransport_t transport;
  std::memset(&transport, 0, sizeof transport);
  std::string host = o.host;
  EvmTransport_t* t = nullptr;
  if (o.remote) {
    transport.type = EvmTRANSPORT_TCPIP;
    transport.data.tcpip.portNumber = o.port;
    transport.data.tcpip.hostName = &host[0];
    t = &transport;
  }
  EvmConnection_t conn = nullptr;
  *status = EvmConnCreate(EvmCONNECTION_LISTEN, EvmRESPONSE_CALLBACK, t, onCallback, w, &conn);
  if (*status != EvmERROR_NONE) return nullptr;
  if (o.havePattern) {
    *status = EvmConnSubscribe(conn, o.pattern.c_str());
    if (*status != EvmERROR_NONE) {
      EvmConnDestroy(conn);
      return nullptr;
    }
  }
  return conn;
}

// Waits up to a second, in steps that notice a signal.
void napBeforeRetry() {
  for (int i = 0; i < 10 && g_stop == 0; ++i) usleep(100 * 1000);
}

}  // namespace

int main(int argc, char** argv) {
  Options o = parse(argc, argv);
  struct sigaction sa;
  std::memset(&sa, 0, sizeof sa);
  sa.sa_handler = onSignal;
  sigemptyset(&sa.sa_mask);
  sigaction(SIGINT, &sa, nullptr);
  sigaction(SIGTERM, &sa, nullptr);

  evmshow::Renderer renderer(o.output);
  Watch w{&o, &renderer, std::string(), false};
  bool lostBefore = false;
  bool unreachableSaid = false;  // said once until a connection stands again
  while (g_stop == 0) {
    EvmStatus_t st = EvmERROR_NONE;
    EvmConnection_t conn = connect(o, &w, &st);
    if (conn == nullptr) {
      if (!unreachableSaid) {
        char text[256] = "";
        EvmStatusTextGet(st, text, sizeof text);
        message(evmshow::kMsgNoDaemon, "Cannot connect to the event daemon: %s", text);
        unreachableSaid = true;
      }
      if (!o.reconnect) return 1;
      napBeforeRetry();
      continue;
    }
    if (lostBefore || unreachableSaid) message(evmshow::kMsgReconnected, "Connected to the event daemon again");
    unreachableSaid = false;
    lostBefore = false;
    bool lost = false;
    while (g_stop == 0 && !lost && !w.writeFailed) {
      cls_timeval second{1, 0};
      st = EvmConnWait(conn, &second);
      if (st == EvmERROR_TIMEOUT || st == EvmERROR_SIGNAL) continue;
      if (st == EvmERROR_NONE) st = EvmConnDispatch(conn);
      if (st != EvmERROR_NONE) lost = true;
    }
    EvmConnDestroy(conn);
    if (w.writeFailed) return 1;
    if (!lost) break;
    message(evmshow::kMsgDaemonGone, "The connection to the event daemon was lost");
    if (!o.reconnect) return 1;
    lostBefore = true;
    unreachableSaid = true;  // the loss was said; failed attempts to reconnect stay quiet
    napBeforeRetry();
  }
  return std::fflush(stdout) == 0 ? 0 : 1;
}
