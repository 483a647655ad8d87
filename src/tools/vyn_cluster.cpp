// vyn_cluster: the administrator's questions about the cluster.
//   members      one line per configured node: its id, its name and "up" or "down"
//   state NAME   1 when the node is up, 0 when not
//   id NAME      the node's id
//   master       exit status 0 when this node is the master, 1 otherwise
//   localhost    this node's name
// Exit status: 0 done, 1 failed (the reason's first line on standard error), 2 bad arguments.
#include <cstdio>
#include <cstring>
#include <string>

#include "caa/lib/caa_Cluster.h"
#include "evm/libevm/cluinfo.h"

namespace {

int usage() {
  std::fputs(
      "usage: vyn_cluster members\n"
      "       vyn_cluster state NAME\n"
      "       vyn_cluster id NAME\n"
      "       vyn_cluster master\n"
      "       vyn_cluster localhost\n",
      stderr);
  return 2;
}

std::string firstLine(const std::string& text) { return text.substr(0, text.find('\n')); }

// Every configured node in id order, with its state; a name shared by two nodes shows for both.
void members() {
  CAA::hstate_t byName;
  CAA::Cluster::getMembers(byName);  // brings the client up, or says why it cannot
  clu_gen_info* info = nullptr;
  if (clu_get_info(&info) != 0 || info == nullptr) throw CAA::ClusterException("clu_get_info failed");
  for (int i = 0; i < info->clu_num_of_members; ++i) {
    const clu_member_info& m = info->memblist[i];
    if (m.hostname == nullptr || *m.hostname == '\0') continue;
    std::printf("%d %s %s\n", m.memberid, CAA::Cluster::ToShortAndLower(m.hostname).c_str(), m.state == 1 ? "up" : "down");
  }
  clu_free_info(&info);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return usage();
  std::string cmd = argv[1];
  bool oneName = cmd == "state" || cmd == "id";
  if (oneName ? argc != 3 : argc != 2) return usage();
  if (!oneName && cmd != "members" && cmd != "master" && cmd != "localhost") return usage();
  if (oneName && *argv[2] == '\0') return usage();
  try {
    if (cmd == "members") {
      members();
    } else if (cmd == "state") {
      std::printf("%d\n", CAA::Cluster::getState(argv[2]));
    } else if (cmd == "id") {
      std::printf("%s\n", CAA::Cluster::getMemberId(argv[2]).c_str());
    } else if (cmd == "master") {
      return CAA::Cluster::amMaster() ? 0 : 1;
    } else {
      std::printf("%s\n", CAA::Cluster::getLocalhost().c_str());
    }
  } catch (const cls::Exception& e) {
    std::fprintf(stderr, "%s\n", firstLine(e.what()).c_str());
    return 1;
  }
  return std::fflush(stdout) == 0 ? 0 : 1;
}
