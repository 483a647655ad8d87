#ifndef PLATFORM_GMX_GMX_H
#define PLATFORM_GMX_GMX_H

// The group membership service: node numbers and names, the map of configured nodes, the
// cluster's name, and which nodes are members of a group right now.
//
// Configuration lives in the registry (prvrg):
//   SYSTEM.gmx.node.<n>       = the host name of node n (decimal n, 0 <= n < GMX_MAX_NODES)
//   SYSTEM.gmx.cluster_name   = the cluster's name, unless GMX_CLUSTERNAME is set
// Names are compared in one normal form: cut at the first '.', lower case. The local node is the
// configured node whose name is the normal form of the local node name: $VYN_NODE_NAME when set
// and not empty, the host name otherwise (several nodes can so run on one machine). With no
// SYSTEM.gmx.node.* key at all the cluster is the local node alone, number 1. Entries with a name
// that is empty or not a valid number are left out (and traced); a name that two nodes share
// identifies neither of them (lookups by that name fail, and such a local node is unknown).
// A local node that is not configured has the number GMX_NO_NODE: it can ask, but not join.
//
// Membership is kept by a backend (gmx_backend.h); the default keeps heartbeats in the registry:
//   SYSTEM.gmx.group.<group>.<n> = "<unix time in ms> <period in ms> <pid>"
// where <group> is the group's name with every byte other than [A-Za-z0-9_-] written as %XX.
// A member rewrites its key every period and deletes it when it leaves; a node counts as down
// once its key is older than three of its own periods, so a member that dies drops out alone.
//
// What a context reads from the registry is kept for GMX_SNAPSHOT_MS and then read again, so that
// frequent questions cost no store access; a change is seen at most that much later.
//
// Functions give GMX_SUCC or an error code; none throws.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

typedef std::uint32_t gmxnode;

enum {
  GMX_MAX_NODES = 256,        // node numbers are below this
  GMX_MAX_NAMEL = 256,        // the longest node name, with its terminator
  GMX_SNAPSHOT_MS = 100,      // how long what was read from the registry is taken as current
  GMX_HEARTBEAT_MS = 2000,    // a member's default period ($VYN_GMX_HEARTBEAT_MS overrides)
};
const gmxnode GMX_NO_NODE = 0xffffffffu;

enum {
  GMX_SUCC = 0,
  GMX_ERR_FAIL = 1,       // a plain failure; the trace tells more
  GMX_ERR_BADCTX = 2,     // null or ended context
  GMX_ERR_REGISTRY = 3,   // the registry could not be read (missing store, no access)
  GMX_ERR_NONODE = 4,     // no configured node of that number or name
  GMX_ERR_BADARG = 5,     // a null pointer or a number out of range
  GMX_ERR_TOOLONG = 13,   // the buffer is too short; *length tells the size needed
};

// Attributes of gmxsattrib.
enum {
  GMX_ATTR_NSNAMEL = 1,   // the longest node name, terminator included
  GMX_ATTR_NSCFG = 3,     // the largest cluster: node numbers are below it
  GMX_ATTR_GSDGRPSZ = 9,  // the largest group
};

// Trace lines of the service go through this table; `flag` is handed back unchanged and a
// function may test it to stay quiet. A null table traces nothing.
struct gmxtrccb {
  void (*trc)(int* flag, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
};

struct gmxsctx;

// Opens the registry and makes a service context. GMX_ERR_REGISTRY when no store can be opened.
int gmxsinit(gmxsctx** ctx, const gmxtrccb* trace, int* traceFlag);
// Ends a context; a null one is left alone.
void gmxsterm(gmxsctx* ctx);
int gmxsattrib(gmxsctx* ctx, int attribute, std::uint32_t* value);

// The local node's number (GMX_NO_NODE when it is not configured).
int gmxnsqlnum(gmxsctx* ctx, gmxnode* node);
// Fills map (size bytes, bit n of byte n/8 for node n) with the configured nodes and gives their
// count. The map is cleared first; nodes beyond it are counted but not marked.
int gmxnsNodeList(gmxsctx* ctx, unsigned char* map, std::size_t size, std::uint32_t* count);
// The cluster's name into buf; *length is the buffer's size on entry and the name's size with its
// terminator on return. GMX_ERR_TOOLONG when it does not fit.
int gmxnsqclname(gmxsctx* ctx, char* buf, std::size_t* length);
// The number of the configured node of that name (taken in the normal form).
int gmxnsqanum(gmxsctx* ctx, const char* name, gmxnode* node);
// The name of node `node` into buf, as configured; GMX_ERR_TOOLONG when it does not fit.
int gmxnsqname(gmxsctx* ctx, gmxnode node, char* buf, std::size_t length);
// Fills map (size bytes, as gmxnsNodeList) with the configured nodes that are members of `group`.
int gmxgsqgrp(gmxsctx* ctx, const char* group, unsigned char* map, std::size_t size);

// The local node's name as the name service knows it: $VYN_NODE_NAME, else the host name. 0, or
// -1 when there is none or it does not fit.
int ndq_getnodenm(char* buf, std::size_t size);
// A name cut at its first '.' and in lower case.
std::string gmxNormalName(const std::string& name);

// This node's membership of the group "<cluster>_NG" for as long as the object lives: it joins at
// construction and beats from a thread of its own, and leaves at destruction. It never throws: a
// failure to join is traced (through dtr, component "GMX") and the object stays idle, so that the
// node simply counts as down.
class gmxNodeMember {
 public:
  // periodMs 0: $VYN_GMX_HEARTBEAT_MS, else GMX_HEARTBEAT_MS.
  explicit gmxNodeMember(int periodMs = 0);
  ~gmxNodeMember();
  gmxNodeMember(const gmxNodeMember&) = delete;
  gmxNodeMember& operator=(const gmxNodeMember&) = delete;

  bool joined() const;
  // Why the join failed; empty when joined.
  const std::string& failure() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

#endif
