#include "platform/gmx/gmx.h"

#include <algorithm>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <vector>

#include "platform/gmx/gmx_backend.h"
#include "platform/host/utlhost.h"
#include "platform/registry/prvrg.h"
#include "platform/thread/nxthr.h"

namespace {

const char kNodeRoot[] = "SYSTEM.gmx.node";
const char kClusterNameKey[] = "SYSTEM.gmx.cluster_name";
// The name of a cluster that was given none.
const char kDefaultClusterName[] = "vyn";

struct Config {
  std::string clusterName;
  std::vector<std::string> names;  // by node number, as configured; empty: not configured
  std::vector<bool> shared;        // the node's name is another's too
  std::uint32_t count = 0;
  gmxnode local = GMX_NO_NODE;

  bool operator==(const Config& o) const {
    return clusterName == o.clusterName && names == o.names && local == o.local;
  }
};

struct Group {
  std::uint64_t readAt = 0;
  std::vector<gmxnode> up;
};

}  // namespace

struct gmxsctx {
  std::mutex mx;  // guards everything below
  const gmxtrccb* trace = nullptr;
  int* traceFlag = nullptr;
  gmx::Registry reg;
  std::unique_ptr<gmx::Backend> backend;
  std::string localName;  // normal form
  bool haveConfig = false;
  std::uint64_t configAt = 0;
  Config config;
  std::map<std::string, Group> groups;
};

namespace {

void trc(gmxsctx* ctx, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
void trc(gmxsctx* ctx, const char* fmt, ...) {
  if (ctx->trace == nullptr || ctx->trace->trc == nullptr) return;
  char line[512];
  va_list ap;
  va_start(ap, fmt);
  std::vsnprintf(line, sizeof line, fmt, ap);
  va_end(ap);
  ctx->trace->trc(ctx->traceFlag, "%s", line);
}

bool fresh(std::uint64_t readAt) { return osrgatime64() - readAt < GMX_SNAPSHOT_MS; }

// Reads the configuration again when the snapshot is stale. Called under ctx->mx.
int loadConfig(gmxsctx* ctx) {
  if (ctx->haveConfig && fresh(ctx->configAt)) return GMX_SUCC;
  Config c;
  const char* env = std::getenv("GMX_CLUSTERNAME");
  if (env != nullptr && *env != '\0') {
    c.clusterName = env;
  } else {
    int rc = ctx->reg.get(kClusterNameKey, &c.clusterName);
    if (rc == PRVRG_ERR_NO_KEY || (rc == PRVRG_SUCC && c.clusterName.empty())) {
      c.clusterName = kDefaultClusterName;
    } else if (rc != PRVRG_SUCC) {
      trc(ctx, "gmx: cannot read %s: %s", kClusterNameKey, ctx->reg.lastError().c_str());
      return GMX_ERR_REGISTRY;
    }
  }
  bool quiet = ctx->haveConfig;  // bad entries are told about when they first show
  std::vector<std::string> keys;
  if (ctx->reg.subkeys(kNodeRoot, &keys) != PRVRG_SUCC) {
    trc(ctx, "gmx: cannot read %s: %s", kNodeRoot, ctx->reg.lastError().c_str());
    return GMX_ERR_REGISTRY;
  }
  c.names.assign(GMX_MAX_NODES, std::string());
  c.shared.assign(GMX_MAX_NODES, false);
  if (keys.empty()) {
    // Nobody configured a cluster: this node stands alone as node 1.
    if (!ctx->localName.empty()) {
      c.names[1] = ctx->localName;
      c.count = 1;
    }
  }
  std::vector<std::string> bad;
  for (const std::string& k : keys) {
    gmxnode n = 0;
    std::string name;
    std::string full = std::string(kNodeRoot) + "." + k;
    if (!gmx::parseNode(k, &n)) {
      bad.push_back(full + " is not a node number below " + std::to_string(GMX_MAX_NODES));
      continue;
    }
    int rc = ctx->reg.get(full, &name);
    if (rc == PRVRG_ERR_NO_KEY) {
      bad.push_back(full + " holds no name");
      continue;
    }
    if (rc != PRVRG_SUCC) {
      trc(ctx, "gmx: cannot read %s: %s", full.c_str(), ctx->reg.lastError().c_str());
      return GMX_ERR_REGISTRY;
    }
    if (gmxNormalName(name).empty() || name.size() >= GMX_MAX_NAMEL) {
      bad.push_back(full + " holds no usable node name");
      continue;
    }
    c.names[n] = name;
    ++c.count;
  }
  std::map<std::string, std::vector<gmxnode>> byName;
  for (gmxnode n = 0; n < GMX_MAX_NODES; ++n)
    if (!c.names[n].empty()) byName[gmxNormalName(c.names[n])].push_back(n);
  for (const auto& entry : byName) {
    if (entry.second.size() > 1) {
      for (gmxnode n : entry.second) c.shared[n] = true;
      bad.push_back("the name " + entry.first + " is given to " + std::to_string(entry.second.size()) +
                    " nodes; it names none of them");
    } else if (entry.first == ctx->localName) {
      c.local = entry.second.front();
    }
  }
  if (!quiet || !(c == ctx->config))
    for (const std::string& b : bad) trc(ctx, "gmx: %s", b.c_str());
  ctx->config = std::move(c);
  ctx->configAt = osrgatime64();
  ctx->haveConfig = true;
  return GMX_SUCC;
}

void setBit(unsigned char* map, std::size_t size, gmxnode n) {
  if (n / 8 < size) map[n / 8] |= static_cast<unsigned char>(1u << (n % 8));
}

}  // namespace

std::string gmxNormalName(const std::string& name) {
  std::string s = name.substr(0, name.find('.'));
  for (char& ch : s) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
  return s;
}

int ndq_getnodenm(char* buf, std::size_t size) {
  if (buf == nullptr || size == 0) return -1;
  const char* env = std::getenv("VYN_NODE_NAME");
  if (env != nullptr && *env != '\0') {
    std::size_t len = std::strlen(env);
    if (len >= size) return -1;
    std::memcpy(buf, env, len + 1);
    return 0;
  }
  char host[256];
  int len = utlhost(host, sizeof host);
  if (len <= 0 || static_cast<std::size_t>(len) >= size) return -1;
  std::memcpy(buf, host, static_cast<std::size_t>(len) + 1);
  return 0;
}

int gmxsinit(gmxsctx** out, const gmxtrccb* trace, int* traceFlag) {
  if (out == nullptr) return GMX_ERR_BADARG;
  *out = nullptr;
  std::unique_ptr<gmxsctx> ctx(new gmxsctx);
  ctx->trace = trace;
  ctx->traceFlag = traceFlag;
  std::string why;
  if (ctx->reg.open(&why) != GMX_SUCC) {
    trc(ctx.get(), "gmxsinit: registry: %s", why.c_str());
    return GMX_ERR_REGISTRY;
  }
  ctx->backend = gmx::makeBackend(&why);
  if (ctx->backend == nullptr) {
    trc(ctx.get(), "gmxsinit: membership: %s", why.c_str());
    return GMX_ERR_REGISTRY;
  }
  char name[GMX_MAX_NAMEL];
  if (ndq_getnodenm(name, sizeof name) == 0) ctx->localName = gmxNormalName(name);
  *out = ctx.release();
  return GMX_SUCC;
}

void gmxsterm(gmxsctx* ctx) { delete ctx; }

int gmxsattrib(gmxsctx* ctx, int attribute, std::uint32_t* value) {
  if (ctx == nullptr) return GMX_ERR_BADCTX;
  if (value == nullptr) return GMX_ERR_BADARG;
  switch (attribute) {
    case GMX_ATTR_NSNAMEL: *value = GMX_MAX_NAMEL; return GMX_SUCC;
    case GMX_ATTR_NSCFG: *value = GMX_MAX_NODES; return GMX_SUCC;
    case GMX_ATTR_GSDGRPSZ: *value = GMX_MAX_NODES; return GMX_SUCC;
    default: return GMX_ERR_BADARG;
  }
}

int gmxnsqlnum(gmxsctx* ctx, gmxnode* node) {
  if (ctx == nullptr) return GMX_ERR_BADCTX;
  if (node == nullptr) return GMX_ERR_BADARG;
  std::lock_guard<std::mutex> lock(ctx->mx);
  int rc = loadConfig(ctx);
  if (rc != GMX_SUCC) return rc;
  *node = ctx->config.local;
  return GMX_SUCC;
}

int gmxnsNodeList(gmxsctx* ctx, unsigned char* map, std::size_t size, std::uint32_t* count) {
  if (ctx == nullptr) return GMX_ERR_BADCTX;
  if ((map == nullptr && size != 0) || count == nullptr) return GMX_ERR_BADARG;
  std::lock_guard<std::mutex> lock(ctx->mx);
  int rc = loadConfig(ctx);
  if (rc != GMX_SUCC) return rc;
  if (size != 0) std::memset(map, 0, size);
  for (gmxnode n = 0; n < GMX_MAX_NODES; ++n)
    if (!ctx->config.names[n].empty()) setBit(map, size, n);
  *count = ctx->config.count;
  return GMX_SUCC;
}

int gmxnsqclname(gmxsctx* ctx, char* buf, std::size_t* length) {
  if (ctx == nullptr) return GMX_ERR_BADCTX;
  if (length == nullptr) return GMX_ERR_BADARG;
  std::lock_guard<std::mutex> lock(ctx->mx);
  int rc = loadConfig(ctx);
  if (rc != GMX_SUCC) return rc;
  std::size_t need = ctx->config.clusterName.size() + 1;
  if (buf == nullptr || *length < need) {
    *length = need;
    return GMX_ERR_TOOLONG;
  }
  std::memcpy(buf, ctx->config.clusterName.c_str(), need);
  *length = need;
  return GMX_SUCC;
}

int gmxnsqanum(gmxsctx* ctx, const char* name, gmxnode* node) {
  if (ctx == nullptr) return GMX_ERR_BADCTX;
  if (name == nullptr || node == nullptr) return GMX_ERR_BADARG;
  std::string wanted = gmxNormalName(name);
  if (wanted.empty()) return GMX_ERR_NONODE;
  std::lock_guard<std::mutex> lock(ctx->mx);
  int rc = loadConfig(ctx);
  if (rc != GMX_SUCC) return rc;
  for (gmxnode n = 0; n < GMX_MAX_NODES; ++n) {
    const std::string& have = ctx->config.names[n];
    if (have.empty() || gmxNormalName(have) != wanted) continue;
    if (ctx->config.shared[n]) return GMX_ERR_NONODE;
    *node = n;
    return GMX_SUCC;
  }
  return GMX_ERR_NONODE;
}

int gmxnsqname(gmxsctx* ctx, gmxnode node, char* buf, std::size_t length) {
  if (ctx == nullptr) return GMX_ERR_BADCTX;
  if (buf == nullptr) return GMX_ERR_BADARG;
  std::lock_guard<std::mutex> lock(ctx->mx);
  int rc = loadConfig(ctx);
  if (rc != GMX_SUCC) return rc;
  if (node >= GMX_MAX_NODES || ctx->config.names[node].empty()) return GMX_ERR_NONODE;
  const std::string& name = ctx->config.names[node];
  if (name.size() + 1 > length) return GMX_ERR_TOOLONG;
  std::memcpy(buf, name.c_str(), name.size() + 1);
  return GMX_SUCC;
}

int gmxgsqgrp(gmxsctx* ctx, const char* group, unsigned char* map, std::size_t size) {
  if (ctx == nullptr) return GMX_ERR_BADCTX;
  if (group == nullptr || (map == nullptr && size != 0)) return GMX_ERR_BADARG;
  std::lock_guard<std::mutex> lock(ctx->mx);
  int rc = loadConfig(ctx);
  if (rc != GMX_SUCC) return rc;
  Group& g = ctx->groups[group];
  if (g.readAt == 0 || !fresh(g.readAt)) {
    std::string why;
    std::vector<gmxnode> up;
    rc = ctx->backend->members(group, &up, &why);
    if (rc != GMX_SUCC) {
      ctx->groups.erase(group);
      trc(ctx, "gmxgsqgrp: group %s: %s", group, why.c_str());
      return rc;
    }
    g.up = std::move(up);
    g.readAt = std::max<std::uint64_t>(osrgatime64(), 1);
  }
  if (size != 0) std::memset(map, 0, size);
  // Only configured nodes are members: a heartbeat left by a node since removed counts for none.
  for (gmxnode n : g.up)
    if (n < GMX_MAX_NODES && !ctx->config.names[n].empty()) setBit(map, size, n);
  return GMX_SUCC;
}
