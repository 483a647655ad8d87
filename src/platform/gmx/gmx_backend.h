#ifndef PLATFORM_GMX_GMX_BACKEND_H
#define PLATFORM_GMX_GMX_BACKEND_H

// Inside the membership service: where group membership is kept. The configuration (node names,
// cluster name) is always read through prvrg; only the members of groups come from a backend.
//
// A backend object is used by one thread at a time (its owner serialises). Its calls give
// GMX_SUCC or a GMX_ERR_ code and put a printable reason in *why on failure.
//
// The default backend (makeRegistryBackend) keeps a heartbeat key per member in the registry (see
// gmx.h for the keys); another backend may keep membership any way that lets members() tell,
// within three heartbeat periods, that a member which died without leaving is gone.
#include <memory>
#include <string>
#include <vector>

#include "platform/gmx/gmx.h"

struct prvrg_ctx;

namespace gmx {

// One registry handle (DEFAULT level, else REBOOT for reads only) with the few operations the
// service needs. Not for two threads at once.
class Registry {
 public:
  Registry() = default;
  ~Registry();
  Registry(const Registry&) = delete;
  Registry& operator=(const Registry&) = delete;

  // GMX_SUCC, or GMX_ERR_REGISTRY with the store's reason.
  int open(std::string* why);
  // PRVRG_SUCC and the text value; PRVRG_ERR_NO_KEY for a missing key or one without a text.
  int get(const std::string& key, std::string* value);
  // The names of the direct subkeys; a missing key has none.
  int subkeys(const std::string& key, std::vector<std::string>* names);
  // Sets a text value, creating the key and those above it.
  int set(const std::string& key, const std::string& value);
  // Deletes a key and its subtree; a missing key is a success.
  int remove(const std::string& key);
  // The store's text for the last failure.
  std::string lastError();

 private:
  prvrg_ctx* ctx_ = nullptr;
};

class Backend {
 public:
  virtual ~Backend() = default;

  // Makes `node` a member of `group`, promising a beat every periodMs.
  virtual int join(const std::string& group, gmxnode node, int periodMs, std::string* why) = 0;
  // Called every period while joined; renews the membership.
  virtual int beat(const std::string& group, gmxnode node, std::string* why) = 0;
  // Ends the membership; leaving a group one is not in is a success.
  virtual int leave(const std::string& group, gmxnode node, std::string* why) = 0;
  // The nodes that are members of `group` now, in any order.
  virtual int members(const std::string& group, std::vector<gmxnode>* nodes, std::string* why) = 0;
};

// The backend for this process: ephemeral znodes when the registry is a ZooKeeper ensemble
// (gmx_zk.h), else the registry heartbeat backend. nullptr and *why when the store cannot be
// opened.
std::unique_ptr<Backend> makeBackend(std::string* why);
std::unique_ptr<Backend> makeRegistryBackend(std::string* why);

// The name of a group as one registry key component: bytes other than [A-Za-z0-9_-] as %XX.
std::string groupKeyComponent(const std::string& group);

// A node number as a key component: decimal, no leading zero, below GMX_MAX_NODES.
bool parseNode(const std::string& text, gmxnode* node);

// Milliseconds since the epoch: heartbeats are compared across processes (and machines).
long long wallClockMs();

}  // namespace gmx

#endif
