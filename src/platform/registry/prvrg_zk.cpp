#include "platform/registry/prvrg_zk.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "platform/registry/prvrg_znode.h"
#include "platform/registry/zk_connection.h"

namespace {

// A registry session holds no ephemeral znodes: its time-out only bounds how long a silent server
// is waited for in the middle of a call (two thirds of it).
const int kSessionTimeoutMs = 4000;
// How often a conditional write is tried again after another writer came between.
const int kConditionalTries = 16;
// Operations of one multi-operation when a subtree is deleted in parts.
const std::size_t kDeleteBatch = 1000;

struct StringVector {
  String_vector v{0, nullptr};
  ~StringVector() { deallocate_String_vector(&v); }
};

std::string parentOf(const std::string& name) {
  std::size_t dot = name.rfind('.');
  return dot == std::string::npos ? std::string() : name.substr(0, dot);
}

std::string join(const std::string& parent, const std::string& name) {
  return parent.empty() ? name : parent + "." + name;
}

class ZkStore : public RegistryStore {
 public:
  ZkStore(const zk::Address& address, bool defaultLevel) : conn_(address, kSessionTimeoutMs), writable_(defaultLevel) {}

  void openRoot(bool create);

  bool find(prvrg_key& key) override;
  bool create(const std::string& parent, const std::string& name, const prvrg_security& sec,
              const std::string* value, int dtype) override;
  void setValue(prvrg_key& key, int dtype, const std::string& value) override;
  void getValue(prvrg_key& key, int* dtype, std::string* value) override;
  void getSecurity(const std::string& name, prvrg_security* sec) override;
  void remove(const std::string& name, bool recursive) override;
  void move(const std::string& from, const std::string& to) override;
  bool nextSubkey(prvrg_key& key, std::string* next, ub4* remaining) override;

 private:
  struct Node {
    std::string path;
    std::string data;
    int version;
  };

  std::string path(const std::string& name) const { return znode::pathOf(conn_.address().chroot, name); }
  [[noreturn]] void fail(int code, const std::string& what) const { registryFail(code, conn_.failureText(what)); }
  // Turns a ZooKeeper result that is no answer about the tree into the call's failure.
  void check(int rc, const std::string& what) const {
    if (rc == ZOK) return;
    if (zk::unreachable(rc)) fail(PRVRG_ERR_LEVEL, what + ": " + zerror(rc));
    if (rc == ZNOAUTH) fail(PRVRG_ERR_FAIL, what + ": not allowed by the znode's access list");
    fail(PRVRG_ERR_FAIL, what + ": " + zerror(rc));
  }
  void mustWrite() const {
    if (!writable_) fail(PRVRG_ERR_FAIL, "this handle only reads");
  }
  void checkSize(const std::string& name, const std::string& value) const {
    if (value.size() > znode::kZnodeMaxValue)
      fail(PRVRG_ERR_FAIL, "the value of " + name + " has " + std::to_string(value.size()) +
                               " bytes, more than a key may hold (" + std::to_string(znode::kZnodeMaxValue) + ")");
  }
  // The whole data of a znode; false when there is no such znode.
  bool read(const std::string& p, std::string* data, Stat* stat);
  void decodeOrFail(const std::string& name, const std::string& data, znode::Record* r) const {
    if (!znode::decode(data.data(), data.size(), r))
      fail(PRVRG_ERR_FAIL, "znode " + path(name) + " holds data that is not a registry key");
  }
  // Every znode of the subtree at `p`, parents before children (with data when asked).
  void collect(const std::string& p, bool withData, std::vector<Node>* out);
  std::vector<std::string> children(const std::string& name);

  zk::Connection conn_;
  bool writable_;
  std::vector<char> buffer_ = std::vector<char>(4096);
};

bool ZkStore::read(const std::string& p, std::string* data, Stat* stat) {
  for (;;) {
    int len = static_cast<int>(buffer_.size());
    int rc = zoo_get(conn_.handle(), p.c_str(), 0, buffer_.data(), &len, stat);
    if (rc == ZNONODE) return false;
    check(rc, "cannot read " + p);
    if (stat->dataLength <= static_cast<int>(buffer_.size())) {
      data->assign(buffer_.data(), len < 0 ? 0 : len);
      return true;
    }
    buffer_.resize(stat->dataLength);  // grown since: read it whole
  }
}

void ZkStore::openRoot(bool create) {
  const std::string& root = conn_.address().chroot;
  Stat stat;
  int rc = zoo_exists(conn_.handle(), root.c_str(), 0, &stat);
  if (rc == ZOK) return;
  if (rc != ZNONODE) check(rc, "cannot look up " + root);
  if (!create) fail(PRVRG_ERR_FAIL, "the chroot " + root + " does not exist");
  std::string empty = znode::encode(znode::Record{});
  for (std::size_t at = root.find('/', 1);; at = root.find('/', at + 1)) {
    std::string part = root.substr(0, at);
    rc = zoo_create(conn_.handle(), part.c_str(), empty.data(), static_cast<int>(empty.size()), &ZOO_OPEN_ACL_UNSAFE,
                    ZOO_PERSISTENT, nullptr, 0);
    if (rc != ZNODEEXISTS) check(rc, "cannot create " + part);
    if (at == std::string::npos) break;
  }
}

bool ZkStore::find(prvrg_key& key) {
  std::string data;
  Stat stat;
  if (!read(path(key.name), &data, &stat)) return false;
  key.version = stat.version;
  key.meta = data.substr(0, znode::kHeaderSize);
  return true;
}

bool ZkStore::create(const std::string& parent, const std::string& name, const prvrg_security& sec,
                     const std::string* value, int dtype) {
  mustWrite();
  const std::string full = join(parent, name);
  if (value) checkSize(full, *value);
  Stat stat;
  int rc = zoo_exists(conn_.handle(), path(parent).c_str(), 0, &stat);
  if (rc == ZNONODE) fail(PRVRG_ERR_NO_KEY, "key " + parent + " does not exist");
  check(rc, "cannot look up " + path(parent));
  znode::Record r;
  r.security = sec;
  const std::string plain = znode::encode(r);
  std::string at = parent;
  bool created = false;
  for (std::size_t start = 0; start <= name.size();) {
    std::size_t dot = name.find('.', start);
    if (dot == std::string::npos) dot = name.size();
    at = join(at, name.substr(start, dot - start));
    bool last = dot == name.size();
    std::string data = plain;
    if (last && value) data = znode::withValue(plain, dtype, *value);
    std::string p = path(at);
    rc = zoo_create(conn_.handle(), p.c_str(), data.data(), static_cast<int>(data.size()), &ZOO_OPEN_ACL_UNSAFE,
                    ZOO_PERSISTENT, nullptr, 0);
    if (rc == ZNONODE) fail(PRVRG_ERR_NO_KEY, "key " + parentOf(at) + " was deleted by another writer");
    if (rc != ZNODEEXISTS) check(rc, "cannot create " + p);
    created = rc == ZOK;
    start = dot + 1;
  }
  if (!created && value) {
    prvrg_key k;
    k.name = full;
    setValue(k, dtype, *value);  // an existing key keeps its security record
  }
  return created;
}

void ZkStore::setValue(prvrg_key& key, int dtype, const std::string& value) {
  mustWrite();
  checkSize(key.name, value);
  const std::string p = path(key.name);
  for (int attempt = 0; attempt < kConditionalTries; ++attempt) {
    if (key.version < 0 && !find(key)) fail(PRVRG_ERR_NO_KEY, "key " + key.name + " does not exist");
    znode::Record r;
    if (key.meta.size() < znode::kHeaderSize ||
        !znode::decode(znode::withValue(key.meta, dtype, "").data(), znode::kHeaderSize, &r))
      fail(PRVRG_ERR_FAIL, "znode " + p + " holds data that is not a registry key");
    std::string data = znode::withValue(key.meta, dtype, value);
    Stat stat;
    int rc = zoo_set2(conn_.handle(), p.c_str(), data.data(), static_cast<int>(data.size()), key.version, &stat);
    if (rc == ZOK) {
      key.version = stat.version;
      return;
    }
    key.version = -1;
    if (rc == ZNONODE) fail(PRVRG_ERR_NO_KEY, "key " + key.name + " does not exist");
    if (rc != ZBADVERSION) check(rc, "cannot write " + p);
  }
  fail(PRVRG_ERR_CONFLICT, "key " + key.name + " keeps being changed by other writers");
}

void ZkStore::getValue(prvrg_key& key, int* dtype, std::string* value) {
  std::string data;
  Stat stat;
  if (!read(path(key.name), &data, &stat)) fail(PRVRG_ERR_NO_KEY, "key " + key.name + " does not exist");
  znode::Record r;
  decodeOrFail(key.name, data, &r);
  key.version = stat.version;
  key.meta = data.substr(0, znode::kHeaderSize);
  *dtype = r.dtype;
  *value = std::move(r.value);
}

void ZkStore::getSecurity(const std::string& name, prvrg_security* sec) {
  std::string data;
  Stat stat;
  if (!read(path(name), &data, &stat)) fail(PRVRG_ERR_NO_KEY, "key " + name + " does not exist");
  znode::Record r;
  decodeOrFail(name, data, &r);
  *sec = r.security;
}

void ZkStore::collect(const std::string& p, bool withData, std::vector<Node>* out) {
  Node n{p, std::string(), -1};
  Stat stat;
  if (withData) {
    if (!read(p, &n.data, &stat)) return;  // gone meanwhile: the multi-operation will tell
  }
  StringVector kids;
  int rc = zoo_get_children2(conn_.handle(), p.c_str(), 0, &kids.v, &stat);
  if (rc == ZNONODE) return;
  check(rc, "cannot list " + p);
  n.version = stat.version;
  out->push_back(std::move(n));
  for (int i = 0; i < kids.v.count; ++i) collect(p + "/" + kids.v.data[i], withData, out);
}

void ZkStore::remove(const std::string& name, bool recursive) {
  mustWrite();
  const std::string p = path(name);
  for (int attempt = 0; attempt < kConditionalTries; ++attempt) {
    std::vector<Node> nodes;
    collect(p, false, &nodes);
    if (nodes.empty()) fail(PRVRG_ERR_NO_KEY, "key " + name + " does not exist");
    if (!recursive && nodes.size() > 1) fail(PRVRG_ERR_FAIL, "key " + name + " has subkeys");
    // Children before parents; a subtree that fits one multi-operation goes at once.
    std::reverse(nodes.begin(), nodes.end());
    bool raced = false;
    for (std::size_t from = 0; from < nodes.size() && !raced; from += kDeleteBatch) {
      std::size_t n = std::min(kDeleteBatch, nodes.size() - from);
      std::vector<zoo_op_t> ops(n);
      std::vector<zoo_op_result_t> results(n);
      for (std::size_t i = 0; i < n; ++i) zoo_delete_op_init(&ops[i], nodes[from + i].path.c_str(), -1);
      int rc = zoo_multi(conn_.handle(), static_cast<int>(n), ops.data(), results.data());
      if (rc == ZNOTEMPTY || rc == ZNONODE) {
        raced = true;  // a writer added or took a key below meanwhile: look again
      } else {
        check(rc, "cannot delete " + p);
      }
    }
    if (!raced) return;
  }
  fail(PRVRG_ERR_CONFLICT, "key " + name + " keeps being changed by other writers");
}

void ZkStore::move(const std::string& from, const std::string& to) {
  mustWrite();
  const std::string src = path(from), dst = path(to);
  for (int attempt = 0; attempt < kConditionalTries; ++attempt) {
    std::vector<Node> nodes;
    collect(src, true, &nodes);
    if (nodes.empty()) fail(PRVRG_ERR_NO_KEY, "key " + from + " does not exist");
    Stat stat;
    int rc = zoo_exists(conn_.handle(), path(parentOf(to)).c_str(), 0, &stat);
    if (rc == ZNONODE) fail(PRVRG_ERR_NO_KEY, "key " + parentOf(to) + " does not exist");
    check(rc, "cannot look up " + path(parentOf(to)));
    rc = zoo_exists(conn_.handle(), dst.c_str(), 0, &stat);
    if (rc == ZOK) fail(PRVRG_ERR_FAIL, "key " + to + " exists already");
    if (rc != ZNONODE) check(rc, "cannot look up " + dst);

    // One multi-operation: the copies top-down, then the originals bottom-up, each delete
    // conditional on the version copied, so that no write to the subtree is lost on the way.
    std::size_t n = nodes.size();
    std::size_t bytes = 0;
    std::vector<std::string> targets(n);
    for (std::size_t i = 0; i < n; ++i) {
      targets[i] = dst + nodes[i].path.substr(src.size());
      bytes += nodes[i].data.size() + targets[i].size() + nodes[i].path.size() + 64;
    }
    if (bytes > znode::kMaxRequest - 16 * 1024) fail(PRVRG_ERR_FAIL, "key " + from + " is too large to move at once");
    std::vector<zoo_op_t> ops(2 * n);
    std::vector<zoo_op_result_t> results(2 * n);
    for (std::size_t i = 0; i < n; ++i)
      zoo_create_op_init(&ops[i], targets[i].c_str(), nodes[i].data.data(), static_cast<int>(nodes[i].data.size()),
                         &ZOO_OPEN_ACL_UNSAFE, ZOO_PERSISTENT, nullptr, 0);
    for (std::size_t i = 0; i < n; ++i) zoo_delete_op_init(&ops[n + i], nodes[n - 1 - i].path.c_str(), nodes[n - 1 - i].version);
    rc = zoo_multi(conn_.handle(), static_cast<int>(2 * n), ops.data(), results.data());
    if (rc == ZOK) return;
    if (rc == ZNODEEXISTS && results[0].err == ZNODEEXISTS) fail(PRVRG_ERR_FAIL, "key " + to + " exists already");
    if (rc == ZNONODE && results[0].err == ZNONODE) fail(PRVRG_ERR_NO_KEY, "key " + parentOf(to) + " does not exist");
    if (rc != ZBADVERSION && rc != ZNOTEMPTY && rc != ZNONODE && rc != ZNODEEXISTS) check(rc, "cannot move " + src);
  }
  fail(PRVRG_ERR_CONFLICT, "key " + from + " keeps being changed by other writers");
}

std::vector<std::string> ZkStore::children(const std::string& name) {
  StringVector kids;
  std::string p = path(name);
  int rc = zoo_get_children(conn_.handle(), p.c_str(), 0, &kids.v);
  if (rc == ZNONODE) fail(PRVRG_ERR_NO_KEY, "key " + name + " does not exist");
  check(rc, "cannot list " + p);
  std::vector<std::string> names;
  names.reserve(kids.v.count);
  for (int i = 0; i < kids.v.count; ++i) {
    std::string part;
    if (znode::decodeName(kids.v.data[i], &part)) names.push_back(std::move(part));
  }
  std::sort(names.begin(), names.end());
  return names;
}

// An enumeration lists the znode's children once, at its start, and goes through that listing:
// one call to the ensemble for the whole walk, in an order that keys made or deleted meanwhile do
// not disturb.
bool ZkStore::nextSubkey(prvrg_key& key, std::string* next, ub4* remaining) {
  if (key.cursor.empty()) key.listing = children(key.name);
  const std::vector<std::string>& names = key.listing;
  auto it = key.cursor.empty() ? names.begin() : std::upper_bound(names.begin(), names.end(), key.cursor);
  if (it == names.end()) return false;
  *next = *it;
  if (remaining) *remaining = static_cast<ub4>(names.end() - it - 1);
  return true;
}

}  // namespace

bool isZkAddress(const std::string& where) { return zk::isAddress(where); }

std::unique_ptr<RegistryStore> openZkStore(const std::string& address, bool defaultLevel, bool create) {
  auto store = std::make_unique<ZkStore>(zk::parseAddress(address), defaultLevel);
  store->openRoot(create && defaultLevel);
  return store;
}
