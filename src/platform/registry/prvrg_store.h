#ifndef PLATFORM_REGISTRY_PRVRG_STORE_H
#define PLATFORM_REGISTRY_PRVRG_STORE_H

// What the registry client asks of a store. The client (prvrg.cpp) checks handles and names, keeps
// the open keys and the last error, and fits results into the caller's buffers; a store keeps the
// tree. Two stores stand behind it: an embedded SQLite file for one machine and a ZooKeeper
// ensemble for a cluster of many. A store reports a failure by throwing RegistryFailure with one
// of the client's result codes and a text for prvrg_get_last_error.
#include <memory>
#include <string>
#include <vector>

#include "platform/registry/prvrg.h"

struct RegistryFailure {
  int code;
  std::string text;
};

[[noreturn]] inline void registryFail(int code, std::string text) { throw RegistryFailure{code, std::move(text)}; }

// An open key. `version` and `meta` are what the store last saw of it, kept so that a write can
// be conditional on nobody having changed the key since (-1: nothing seen yet).
struct prvrg_key {
  std::string name;    // full name; "" is the root
  std::string cursor;  // name of the subkey last given by prvrg_enum_subkey (not the full name)
  int version = -1;
  std::string meta;
  // The subkeys as a store listed them when the enumeration began (a store that lists cheaply
  // leaves this empty).
  std::vector<std::string> listing;
};

class RegistryStore {
 public:
  virtual ~RegistryStore() = default;

  // Whether the key exists (the root does while the store does); a store may note in `key` what
  // it saw of it.
  virtual bool find(prvrg_key& key) = 0;
  // Creates `name` (dotted, relative) below the existing `parent`, with any missing keys between;
  // true if `name` itself was new. With a value, the last key gets it (an existing one keeps its
  // security record and takes the value).
  virtual bool create(const std::string& parent, const std::string& name, const prvrg_security& sec,
                      const std::string* value, int dtype) = 0;
  // Fails with PRVRG_ERR_NO_KEY when the key is gone.
  virtual void setValue(prvrg_key& key, int dtype, const std::string& value) = 0;
  // The key's type and value; PRVRG_ERR_NO_KEY when it is gone.
  virtual void getValue(prvrg_key& key, int* dtype, std::string* value) = 0;
  virtual void getSecurity(const std::string& name, prvrg_security* sec) = 0;
  virtual void remove(const std::string& name, bool recursive) = 0;
  // Moves `from` and its subtree to `to`, whose parent must exist and which must not.
  virtual void move(const std::string& from, const std::string& to) = 0;
  // The first direct subkey of `key` whose name sorts after its cursor in byte order, and how
  // many come after it; false at the end. An empty cursor begins an enumeration.
  virtual bool nextSubkey(prvrg_key& key, std::string* next, ub4* remaining) = 0;
};

#endif
