#include "platform/gmx/gmx_zk.h"

#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <map>
#include <vector>

#include "platform/host/utlhost.h"
#include "platform/registry/prvrg.h"
#include "platform/registry/prvrg_store.h"
#include "platform/registry/prvrg_znode.h"
#include "platform/registry/zk_connection.h"

namespace gmx {

namespace {

int sessionTimeoutMs() {
  const char* v = std::getenv("VYN_GMX_SESSION_MS");
  if (v == nullptr || *v == '\0') return GMX_ZK_SESSION_MS;
  char* end = nullptr;
  long ms = std::strtol(v, &end, 10);
  return (*end == '\0' && ms > 0 && ms <= 600000) ? static_cast<int>(ms) : GMX_ZK_SESSION_MS;
}

struct StringVector {
  String_vector v{0, nullptr};
  ~StringVector() { deallocate_String_vector(&v); }
};

// One group's member list as last read, and whether a watch has told of a change since.
struct GroupCache {
  std::atomic<bool> stale{true};
  std::uint64_t generation = 0;  // the session that set the watch
  std::vector<gmxnode> nodes;
};

// Runs on the client library's thread: any event on the group, or of the session, makes the list
// worth reading again.
void groupWatcher(zhandle_t*, int, int, const char*, void* ctx) {
  static_cast<GroupCache*>(ctx)->stale.store(true, std::memory_order_release);
}

class ZkBackend : public Backend {
 public:
  explicit ZkBackend(const zk::Address& address) : address_(address) {}

  int join(const std::string& group, gmxnode node, int, std::string* why) override {
    joined_ = true;
    int rc = claim(group, node, why);
    // Out of reach or held by the session before: the beats keep trying.
    return rc == GMX_ERR_FAIL ? rc : GMX_SUCC;
  }

  int beat(const std::string& group, gmxnode node, std::string* why) override {
    return joined_ ? claim(group, node, why) : GMX_SUCC;
  }

  int leave(const std::string& group, gmxnode node, std::string* why) override {
    joined_ = false;
    if (!conn_ || ownedGeneration_ == 0) return GMX_SUCC;
    ownedGeneration_ = 0;
    try {
      // Only the znode of this session: a daemon started since under the same name keeps its own.
      zhandle_t* zh = conn_->handle();
      std::string path = memberPath(group, node);
      Stat st;
      int rc = zoo_exists(zh, path.c_str(), 0, &st);
      if (rc == ZOK && st.ephemeralOwner == zoo_client_id(zh)->client_id) rc = zoo_delete(zh, path.c_str(), -1);
      if (rc == ZOK || rc == ZNONODE) return GMX_SUCC;
      *why = conn_->failureText("cannot delete " + path + ": " + zerror(rc));
    } catch (const RegistryFailure& f) {
      *why = f.text;
    }
    return GMX_ERR_REGISTRY;
  }

  int members(const std::string& group, std::vector<gmxnode>* nodes, std::string* why) override {
    try {
      zhandle_t* zh = connection()->handle();
      std::uint64_t generation = conn_->generation();
      std::unique_ptr<GroupCache>& c = cache_[group];
      if (!c) c.reset(new GroupCache);
      if (!c->stale.load(std::memory_order_acquire) && c->generation == generation) {
        *nodes = c->nodes;
        return GMX_SUCC;
      }
      // Cleared before the read: a change during it fires the new watch and marks it again.
      c->stale.store(false, std::memory_order_release);
      c->generation = generation;
      std::string path = groupPath(group);
      StringVector kids;
      int rc = zoo_wget_children(zh, path.c_str(), groupWatcher, c.get(), &kids.v);
      if (rc == ZNONODE) {
        // No member ever: watch for the group's coming.
        Stat st;
        rc = zoo_wexists(zh, path.c_str(), groupWatcher, c.get(), &st);
        if (rc == ZOK) c->stale.store(true);  // it came meanwhile
        if (rc == ZNONODE) rc = ZOK;
      }
      if (rc != ZOK) {
        c->stale.store(true);
        *why = conn_->failureText("cannot list " + path + ": " + zerror(rc));
        return GMX_ERR_REGISTRY;
      }
      c->nodes.clear();
      for (int i = 0; i < kids.v.count; ++i) {
        std::string part;
        gmxnode n = 0;
        if (znode::decodeName(kids.v.data[i], &part) && parseNode(part, &n)) c->nodes.push_back(n);
      }
      *nodes = c->nodes;
      return GMX_SUCC;
    } catch (const RegistryFailure& f) {
      *why = f.text;
      return GMX_ERR_REGISTRY;
    }
  }

 private:
  std::string groupPath(const std::string& group) const {
    return znode::pathOf(address_.chroot, "SYSTEM.gmx.group." + groupKeyComponent(group));
  }
  std::string memberPath(const std::string& group, gmxnode node) const {
    return groupPath(group) + "/" + std::to_string(node);
  }

  zk::Connection* connection() {
    if (!conn_) conn_.reset(new zk::Connection(address_, sessionTimeoutMs()));
    return conn_.get();
  }

  // Makes sure that this session holds the node's znode. GMX_ERR_REGISTRY while the ensemble is
  // out of reach or another session holds it; GMX_ERR_FAIL when it cannot be made at all.
  int claim(const std::string& group, gmxnode node, std::string* why) {
    try {
      zhandle_t* zh = connection()->handle();
      std::uint64_t generation = conn_->generation();
      if (ownedGeneration_ == generation) return GMX_SUCC;
      ownedGeneration_ = 0;
      // The keys above the member are plain registry keys, made once and kept.
      znode::Record parent;
      const std::string parentData = znode::encode(parent);
      std::string path = memberPath(group, node);
      for (std::size_t at = path.find('/', address_.chroot.size() + 1); at != std::string::npos;
           at = path.find('/', at + 1)) {
        std::string p = path.substr(0, at);
        int rc = zoo_create(zh, p.c_str(), parentData.data(), static_cast<int>(parentData.size()), &ZOO_OPEN_ACL_UNSAFE,
                            ZOO_PERSISTENT, nullptr, 0);
        if (rc != ZOK && rc != ZNODEEXISTS) return failed(rc, "cannot create " + p, why);
      }
      znode::Record me;
      me.dtype = prvrg_dtype_ZELTEXT;
      char host[256] = "";
      if (utlhost(host, sizeof host) <= 0) host[0] = '\0';
      me.value = std::to_string(getpid()) + " " + host;
      std::string data = znode::encode(me);
      int rc = zoo_create(zh, path.c_str(), data.data(), static_cast<int>(data.size()), &ZOO_OPEN_ACL_UNSAFE,
                          ZOO_EPHEMERAL, nullptr, 0);
      if (rc == ZNODEEXISTS) {
        Stat st;
        rc = zoo_exists(zh, path.c_str(), 0, &st);
        if (rc == ZOK && st.ephemeralOwner != zoo_client_id(zh)->client_id) {
          *why = conn_->failureText(path + " is held by another session (until it ends or expires)");
          return GMX_ERR_REGISTRY;
        }
        if (rc == ZNONODE) return failed(ZCONNECTIONLOSS, "the old " + path + " went meanwhile", why);
      }
      if (rc != ZOK) return failed(rc, "cannot create " + path, why);
      ownedGeneration_ = generation;
      return GMX_SUCC;
    } catch (const RegistryFailure& f) {
      *why = f.text;
      return f.code == PRVRG_ERR_LEVEL ? GMX_ERR_REGISTRY : GMX_ERR_FAIL;
    }
  }

  int failed(int rc, const std::string& what, std::string* why) {
    *why = conn_->failureText(what + ": " + zerror(rc));
    return zk::unreachable(rc) || rc == ZNONODE ? GMX_ERR_REGISTRY : GMX_ERR_FAIL;
  }

  zk::Address address_;
  bool joined_ = false;
  std::uint64_t ownedGeneration_ = 0;  // the session that holds the member's znode; 0: none
  std::map<std::string, std::unique_ptr<GroupCache>> cache_;
  // Last: closed first, so that no watcher runs on the caches while they go.
  std::unique_ptr<zk::Connection> conn_;
};

}  // namespace

bool zkMembership() { return zk::isAddress(prvrg_store_path()); }

std::unique_ptr<Backend> makeZkBackend(std::string* why) {
  try {
    return std::unique_ptr<Backend>(new ZkBackend(zk::parseAddress(prvrg_store_path())));
  } catch (const RegistryFailure& f) {
    *why = f.text;
    return nullptr;
  }
}

}  // namespace gmx
