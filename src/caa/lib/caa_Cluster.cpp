#include "caa/lib/caa_Cluster.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <ctime>
#include <sstream>
#include <vector>

#include "cppgen/clsLog.h"
#include "evm/libevm/cluinfo.h"

namespace CAA {

const char* const MEMBER_LOCK_PREFIX = "_ZEL_VYN_MEMBER_";
const char* const CLUSTER_FAILOVER_LOCK = "_ZEL_VYN_FAILOVER";
const char* const VYN_BOOT_LOCK = "_ZEL_VYN_BOOT";

std::mutex Cluster::quorump;
int Cluster::quorum_lost = 0;
long Cluster::quorum_gained = 0;

namespace {

// The cached highest member id; all ones until it is asked for. Two threads that race here
// store the same value.
std::atomic<unsigned int> s_maxMembers{static_cast<unsigned int>(-1)};

const CLS_Debug::CLSlog& dbug() {
  static const CLS_Debug::CLSlog* s_dbug = new CLS_Debug::CLSlog("VYNGMX");
  return *s_dbug;
}

void logLine(const std::string& text) {
  std::ostringstream os;
  os << " " << text;
  dbug().log(os, CLS_Debug::PANIC, CLS_Debug::CLSlogModule::getModuleNone());
}

#define CLUSTER_FAIL(logged, thrown) fail((logged), (thrown), __LINE__)

[[noreturn]] void fail(const std::string& logged, const std::string& thrown, int line) {
  logLine(logged);
  throw ClusterException(thrown + "\n(File: caa_Cluster, line: " + std::to_string(line) + "\n");
}

// The process's membership client, made on first use. A failure leaves it to be tried again.
void ensureClient() {
  if (clu_is_ready()) return;
  clu_ctxinit(nullptr, nullptr);
}

}  // namespace

unsigned int maxMembers() {
  if (s_maxMembers.load() == static_cast<unsigned int>(-1)) {
    ensureClient();
    clu_limits limits{};
    // A client that is not up yet is asked again next time rather than cached as empty.
    if (clu_info(CLU_INFO_LIMITS, &limits) != 0) return 0;
    s_maxMembers.store(static_cast<unsigned int>(limits.max_membid));
  }
  return s_maxMembers.load();
}

int getId(const std::string& name) {
  std::string shortName = Cluster::ToShortAndLower(name);
  ensureClient();
  int id = -1;
  if (clu_info(CLU_INFO_MEMBERID_BY_NAME, shortName.c_str(), &id) != 0)
    CLUSTER_FAIL("cluinfo(memberid) failed for " + shortName, "cluinfo(memberid) failed for " + shortName);
  return id;
}

std::string Cluster::ToShortAndLower(const std::string& name) {
  std::string s = name.substr(0, name.find('.'));
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

std::string Cluster::getLocalhost() {
  char buf[512];
  if (ndq_getnodenm(buf, sizeof buf) != 0) CLUSTER_FAIL("ndq getnodename failed ", "ndq getnodename failed");
  std::string name = ToShortAndLower(buf);
  if (name.empty()) CLUSTER_FAIL("ndq getnodename failed ", "ToShortAndLower returned NULL name");
  return name;
}

std::string Cluster::getMemberLockName(const std::string& name) {
  return std::string(MEMBER_LOCK_PREFIX) + (name.empty() ? getLocalhost() : name);
}

std::string Cluster::getMemberId(const std::string& name) { return std::to_string(getId(name)); }

int Cluster::getState(const std::string& name) {
  int id = getId(name);
  std::string shortName = ToShortAndLower(name);
  std::vector<char> state(static_cast<std::size_t>(maxMembers()) + 1, 0);
  if (clu_info(CLU_INFO_MEMBSTATE, static_cast<int>(state.size()), state.data()) != 0)
    CLUSTER_FAIL("cluinfo(CLU_INFO_MEMBSTATE) failed for " + shortName,
                 "cluinfo(CLU_INFO_MEMBSTATE) failed for " + shortName);
  if (id < 0 || static_cast<std::size_t>(id) >= state.size() || state[static_cast<std::size_t>(id)] == -1)
    CLUSTER_FAIL("member not configured: " + shortName, "member not configured: " + shortName);
  return state[static_cast<std::size_t>(id)] != 0 ? 1 : 0;
}

std::string Cluster::getInterconnect(const std::string& name) {
  ensureClient();
  char buf[512] = "";
  if (clu_info(CLU_INFO_INTERCONNECT, ToShortAndLower(name).c_str(), buf, static_cast<int>(sizeof buf)) != 0)
    return name;
  buf[sizeof buf - 1] = '\0';
  return buf;
}

int Cluster::getMembers(hstate_t& members) {
  ensureClient();
  clu_gen_info* info = nullptr;
  if (clu_get_info(&info) != 0 || info == nullptr) CLUSTER_FAIL("clu_get_info failed", "clu_get_info failed");
  int count = 0;
  for (int i = 0; i < info->clu_num_of_members; ++i) {
    const clu_member_info& m = info->memblist[i];
    if (m.hostname == nullptr || *m.hostname == '\0' || m.state == -1) continue;
    members[ToShortAndLower(m.hostname)] = m.state;
    ++count;
  }
  clu_free_info(&info);
  return count;
}

bool Cluster::amMaster() {
  ensureClient();
  int myid = -1;
  if (clu_info(CLU_INFO_MY_ID, &myid) != 0)
    CLUSTER_FAIL("clu_info(CLU_INFO_MY_ID) failed", "clu_info(CLU_INFO_MY_ID) failed");
  clu_limits limits{};
  std::vector<char> state;
  bool ok = clu_info(CLU_INFO_LIMITS, &limits) == 0 && limits.max_membid >= 0;
  if (ok) {
    state.assign(static_cast<std::size_t>(limits.max_membid) + 1, 0);
    ok = clu_info(CLU_INFO_MEMBSTATE, static_cast<int>(state.size()), state.data()) == 0;
  }
  if (!ok) CLUSTER_FAIL("clu_info(CLU_INFO_MEMBSTATE) failed", "clu_info(CLU_INFO_MEMBSTATE) failed");
  std::vector<int> up;
  for (int id = std::max(limits.min_membid, 0); id <= limits.max_membid; ++id)
    if (state[static_cast<std::size_t>(id)] == 1) up.push_back(id);
  std::sort(up.begin(), up.end());
  return !up.empty() && up.front() == myid;
}

void Cluster::lostQuorum(long t) {
  logLine("lost quorum: " + std::to_string(t));
  std::lock_guard<std::mutex> lock(quorump);
  quorum_lost = 1;
  quorum_gained = t;
}

void Cluster::gainedQuorum(long t) {
  logLine("gained quorum: " + std::to_string(t));
  std::lock_guard<std::mutex> lock(quorump);
  quorum_lost = 0;
  quorum_gained = t;
}

void Cluster::sleepWithQuorum(int t) {
  long left = t;
  for (;;) {
    logLine("sleep at " + std::to_string(static_cast<long>(std::time(nullptr))) + " for " + std::to_string(left));
    // sleep() may be cut short by a signal; what matters is the quorum over the whole of t.
    if (left > 0) sleep(static_cast<unsigned>(left));
    std::lock_guard<std::mutex> lock(quorump);
    long since = static_cast<long>(std::time(nullptr)) - t;
    if (!quorum_lost && since >= quorum_gained) return;
    // Lost: all of t again. Held again since quorum_gained: what of t is still to come.
    left = quorum_lost ? t : quorum_gained - since;
  }
}

}  // namespace CAA
