#ifndef CAA_LIB_CAA_CLUSTER_H
#define CAA_LIB_CAA_CLUSTER_H

// Questions about the cluster by host name: a member's state and id, the list of members, whether
// this node is the master, and whether the cluster has quorum. Host names are compared in one
// normal form, short and in lower case. The answers come from the process's membership client
// (cluinfo.h), which is made on first use.
//
// Every failure is logged through the module "VYNGMX" and thrown as ClusterException; only
// getInterconnect falls back on the name it was given.
#include <map>
#include <mutex>
#include <string>

#include "cppgen/clsException.h"

namespace CAA {

// Short host name to state: 1 up, 0 down.
typedef std::map<std::string, int> hstate_t;

extern const char* const MEMBER_LOCK_PREFIX;     // "_ZEL_VYN_MEMBER_"
extern const char* const CLUSTER_FAILOVER_LOCK;  // "_ZEL_VYN_FAILOVER"
extern const char* const VYN_BOOT_LOCK;          // "_ZEL_VYN_BOOT"

// The text, a newline, and the line "(File: caa_Cluster, line: <n>" with its newline.
class ClusterException : public cls::Exception {
 public:
  explicit ClusterException(const std::string& message) : cls::Exception(message) {}
  std::string className() const override { return "ClusterException"; }
};

class Cluster {
 public:
  // Cut at the first '.', lower case; a name that begins with a dot gives "".
  static std::string ToShortAndLower(const std::string& name);
  // The local node's name in the normal form.
  static std::string getLocalhost();
  // MEMBER_LOCK_PREFIX and the name; the local host's for an empty name.
  static std::string getMemberLockName(const std::string& name);
  // The member's id as decimal text.
  static std::string getMemberId(const std::string& name);
  // 1 when the member is up, 0 when not.
  static int getState(const std::string& name);
  // The member's interconnect name; the name as given when it cannot be had.
  static std::string getInterconnect(const std::string& name);
  // Fills members with every configured node that has a name; gives their number.
  static int getMembers(hstate_t& members);
  // True on the member with the lowest id among those that are up; false when none is.
  static bool amMaster();

  // Notes of a change of the quorum at time t (seconds), from whoever watches it.
  static void lostQuorum(long t);
  static void gainedQuorum(long t);
  // Returns after t seconds during which the quorum was held without a break.
  static void sleepWithQuorum(int t);

 private:
  static std::mutex quorump;
  static int quorum_lost;      // 1 while the quorum is lost
  static long quorum_gained;   // the time of the last change
};

// The highest member id, asked once and cached.
unsigned int maxMembers();
// The member's id; throws ClusterException for a name the cluster does not know.
int getId(const std::string& name);

}  // namespace CAA

#endif
