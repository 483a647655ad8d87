// The resource-registration client over the resource store. A resource is written where the
// store's own operations keep it: each attribute a text value of VYN.CUR.<resource>.<attribute>,
// the resource's dots spelled "!" in its key. A new resource is written complete under the local
// node's staging key first and moved into the current copy in one change, so that nobody sees it
// half written; an update writes its attributes in place.
#include "platform/vynapi/vynapi.h"

#include <cctype>
#include <cstring>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "caa/lib/caa_Cluster.h"
#include "caa/lib/caavrg.h"
#include "platform/registry/prvrg.h"

struct vynapi_ctx {
  prvrg_ctx* store = nullptr;
};

struct vynapi_res {
  std::string name;
  std::map<std::string, std::string> attrs;
  bool hasStatus = false;
  std::string status;
};

struct vynapi_reslist {
  std::list<std::unique_ptr<vynapi_res>> items;
};

namespace {

// The library's one connection, between vynapi_init_vyn and vynapi_term_vyn.
std::mutex g_ctxMutex;
vynapi_ctx* g_ctx = nullptr;

const std::size_t kMaxResourceName = 127;
const std::size_t kMaxAttrName = 1023;

// One open key, closed when it goes out of scope.
class Key {
 public:
  explicit Key(prvrg_ctx* ctx) : ctx_(ctx) {}
  ~Key() {
    if (key_ != nullptr) prvrg_close_key(ctx_, key_);
  }
  Key(const Key&) = delete;
  Key& operator=(const Key&) = delete;
  prvrg_key** out() { return &key_; }
  prvrg_key* get() const { return key_; }

 private:
  prvrg_ctx* ctx_;
  prvrg_key* key_ = nullptr;
};

struct Outcome {
  VYNAPI_STAT code;
  std::string text;
};

std::string lastError(prvrg_ctx* ctx) {
  char text[1024] = "";
  std::size_t len = sizeof text;
  int code = 0;
  prvrg_get_last_error(ctx, &code, text, &len);
  return text;
}

// A failure of the store as the caller's code and a text that names the resource.
Outcome storeFailure(prvrg_ctx* ctx, int rc, const std::string& resource) {
  std::string why = lastError(ctx);
  if (rc == PRVRG_ERR_LEVEL)
    return {VYNAPI_STAT_AUTHENTICATION_FAILURE,
            "Resource " + resource + " cannot be changed: the resource store may not be written by this user."};
  if (why.find("locked") != std::string::npos)
    return {VYNAPI_STAT_BUSY, "Resource " + resource + " cannot be changed now: " + why + "."};
  if (rc == PRVRG_ERR_INVALID_HANDLE)
    return {VYNAPI_STAT_NOT_INITIALIZED, "Resource " + resource + ": the resource store is not open."};
  return {VYNAPI_STAT_FAILURE, "Resource " + resource + " cannot be changed: " + why + "."};
}

bool printable(const std::string& s) {
  for (unsigned char c : s)
    if (c < 0x20 || c == 0x7f) return false;
  return true;
}

// Refuses what the store could not keep or give back as it was given. A "!" stands for a dot in
// the store's keys, so a name holding one would be another resource's.
bool checkResource(const vynapi_res& res, Outcome* bad) {
  const std::string& n = res.name;
  if (n.empty() || n.size() > kMaxResourceName || !printable(n) || n.find_first_of("!/ ") != std::string::npos ||
      n.front() == '.' || n.back() == '.' || n.find("..") != std::string::npos) {
    *bad = {VYNAPI_STAT_INVALID_NAME, "The resource name \"" + n + "\" is not valid."};
    return false;
  }
  for (const auto& attr : res.attrs) {
    const std::string& a = attr.first;
    bool nameOk = !a.empty() && a.size() <= kMaxAttrName;
    for (unsigned char c : a) nameOk = nameOk && (std::isalnum(c) || c == '_');
    if (!nameOk) {
      *bad = {VYNAPI_STAT_INVALID_NAME, "The attribute name \"" + a + "\" of resource " + n + " is not valid."};
      return false;
    }
    if (attr.second.size() >= CAAVRG_VALUE_SIZE || attr.second.find_first_of("\r\n") != std::string::npos) {
      *bad = {VYNAPI_STAT_INVALID_NAME,
              "The value of attribute " + a + " of resource " + n + " cannot be stored: it is too long or holds a line break."};
      return false;
    }
  }
  return true;
}

std::string keyPart(const std::string& name) {
  std::string part = name;
  caavrgResTrans(part, CAARESSP, CAARESEXC);
  return part;
}

// Writes the attributes below the open key `at`; `done` counts those written.
int writeAttrs(prvrg_ctx* ctx, prvrg_key* at, const vynapi_res& res, const prvrg_security& sec, std::size_t* done) {
  *done = 0;
  for (const auto& attr : res.attrs) {
    int created = 0;
    int rc = prvrg_create_n_set_key(ctx, at, attr.first.c_str(), nullptr, &created, prvrg_dtype_ZELTEXT,
                                    attr.second.c_str(), attr.second.size() + 1, sec);
    if (rc != 0) return rc;
    ++*done;
  }
  return 0;
}

// A registered resource is one whose current copy is complete.
int registered(prvrg_ctx* ctx, const std::string& part, bool* yes) {
  Key probe(ctx);
  const std::string name = std::string(CAARESCUR) + "." + part + "." + CAARESUNREG;
  int rc = prvrg_open_key(ctx, probe.out(), name.c_str());
  *yes = rc == 0;
  return rc == PRVRG_ERR_NO_KEY ? 0 : rc;
}

Outcome update(prvrg_ctx* ctx, const vynapi_res& res) {
  const std::string part = keyPart(res.name);
  bool yes = false;
  int rc = registered(ctx, part, &yes);
  if (rc != 0) return storeFailure(ctx, rc, res.name);
  if (!yes) return {VYNAPI_STAT_NOT_REGISTERED, "Resource " + res.name + " is not registered."};
  Key resKey(ctx);
  const std::string key = std::string(CAARESCUR) + "." + part;
  rc = prvrg_open_key(ctx, resKey.out(), key.c_str());
  if (rc != 0) return storeFailure(ctx, rc, res.name);
  prvrg_security sec{};
  caavrgSetSecurity(ctx, resKey.get(), sec);
  std::size_t done = 0;
  rc = writeAttrs(ctx, resKey.get(), res, sec, &done);
  if (rc != 0) {
    Outcome o = storeFailure(ctx, rc, res.name);
    if (done > 0) o.text += " " + std::to_string(done) + " of its " + std::to_string(res.attrs.size()) +
                            " attributes were changed before.";
    return o;
  }
  return {VYNAPI_STAT_SUCCESS, "Resource " + res.name + " updated."};
}

Outcome registerNew(prvrg_ctx* ctx, const vynapi_res& res) {
  const std::string part = keyPart(res.name);
  bool yes = false;
  int rc = registered(ctx, part, &yes);
  if (rc != 0) return storeFailure(ctx, rc, res.name);
  if (yes) return {VYNAPI_STAT_IS_REGISTERED, "Resource " + res.name + " is registered already."};
  std::string stage;
  try {
    stage = std::string(CAARESSTAGE) + CAA::Cluster::getMemberId(CAA::Cluster::getLocalhost());
  } catch (const cls::Exception&) {
    return {VYNAPI_STAT_FAILURE, "Resource " + res.name + " cannot be registered: this node is not known in the cluster."};
  }
  Key root(ctx), current(ctx), staged(ctx);
  rc = prvrg_open_key(ctx, current.out(), CAARESCUR);
  if (rc == PRVRG_ERR_NO_KEY) return {VYNAPI_STAT_FAILURE, "The resource store holds no current copy."};
  if (rc == 0) rc = prvrg_open_key(ctx, root.out(), CAARESROOT);
  if (rc != 0) return storeFailure(ctx, rc, res.name);
  prvrg_security sec{};
  caavrgSetSecurity(ctx, root.get(), sec);
  // What a killed registration left behind goes first; the resource is staged afresh.
  const std::string where = stage + "." + part;
  {
    Key old(ctx);
    if (prvrg_open_key(ctx, old.out(), where.c_str()) == 0) prvrg_delete_key(ctx, old.get(), 1);
  }
  int created = 0;
  rc = prvrg_create_key(ctx, nullptr, where.c_str(), staged.out(), &created, sec);
  std::size_t done = 0;
  std::map<std::string, std::string> whole = res.attrs;
  whole.emplace("NAME", res.name);
  whole.emplace(CAARESUNREG, "0");
  vynapi_res full{res.name, whole, false, ""};
  if (rc == 0) rc = writeAttrs(ctx, staged.get(), full, sec, &done);
  if (rc == 0) rc = prvrg_move_key(ctx, staged.get(), current.get(), part.c_str(), nullptr, 0);
  if (rc != 0) {
    Outcome o = storeFailure(ctx, rc, res.name);
    Key left(ctx);
    if (prvrg_open_key(ctx, left.out(), where.c_str()) == 0) prvrg_delete_key(ctx, left.get(), 1);
    return o;
  }
  return {VYNAPI_STAT_SUCCESS, "Resource " + res.name + " registered."};
}

const zeltext* z(const std::string& s) { return reinterpret_cast<const zeltext*>(s.c_str()); }

}  // namespace

VYNAPI_STAT vynapi_init_vyn(vynapi_ctx** ctx) {
  std::lock_guard<std::mutex> lock(g_ctxMutex);
  if (g_ctx != nullptr) return VYNAPI_STAT_FAILURE;
  auto made = std::make_unique<vynapi_ctx>();
  char err[1024] = "";
  std::size_t len = sizeof err;
  if (prvrg_init_ext(&made->store, PRVRG_LEVEL_DEFAULT, err, &len, 0) != 0) return VYNAPI_STAT_CONNECTION;
  g_ctx = made.release();
  if (ctx != nullptr) *ctx = g_ctx;
  return VYNAPI_STAT_SUCCESS;
}

VYNAPI_STAT vynapi_term_vyn(vynapi_ctx* ctx) {
  std::lock_guard<std::mutex> lock(g_ctxMutex);
  if (g_ctx == nullptr || (ctx != nullptr && ctx != g_ctx)) return VYNAPI_STAT_NOT_INITIALIZED;
  prvrg_terminate(g_ctx->store);
  delete g_ctx;
  g_ctx = nullptr;
  return VYNAPI_STAT_SUCCESS;
}

VYNAPI_STAT vynapi_res_create(vynapi_res** res, const char* name) {
  if (res == nullptr || name == nullptr) return VYNAPI_STAT_BAD_ARGUMENT;
  *res = new vynapi_res{name, {}, false, ""};
  return VYNAPI_STAT_SUCCESS;
}

VYNAPI_STAT vynapi_res_destroy(vynapi_res* res) {
  if (res == nullptr) return VYNAPI_STAT_BAD_ARGUMENT;
  delete res;
  return VYNAPI_STAT_SUCCESS;
}

VYNAPI_STAT vynapi_res_set_attr(vynapi_res* res, const char* name, const char* value) {
  if (res == nullptr || name == nullptr || value == nullptr) return VYNAPI_STAT_BAD_ARGUMENT;
  res->attrs[name] = value;
  return VYNAPI_STAT_SUCCESS;
}

VYNAPI_STAT vynapi_res_get_op_status(vynapi_res* res, const char** text) {
  if (res == nullptr || text == nullptr) return VYNAPI_STAT_BAD_ARGUMENT;
  *text = res->hasStatus ? res->status.c_str() : nullptr;
  return VYNAPI_STAT_SUCCESS;
}

const char* vynapi_res_get_name(const vynapi_res* res) { return res != nullptr ? res->name.c_str() : nullptr; }

VYNAPI_STAT vynapi_reslist_create(vynapi_reslist** list) {
  if (list == nullptr) return VYNAPI_STAT_BAD_ARGUMENT;
  *list = new vynapi_reslist;
  return VYNAPI_STAT_SUCCESS;
}

VYNAPI_STAT vynapi_reslist_destroy(vynapi_reslist* list) {
  if (list == nullptr) return VYNAPI_STAT_BAD_ARGUMENT;
  delete list;
  return VYNAPI_STAT_SUCCESS;
}

VYNAPI_STAT vynapi_reslist_append(vynapi_reslist* list, vynapi_res* res) {
  if (list == nullptr || res == nullptr) return VYNAPI_STAT_BAD_ARGUMENT;
  list->items.emplace_back(res);
  return VYNAPI_STAT_SUCCESS;
}

VYNAPI_STAT vynapi_reslist_first(vynapi_reslist* list, vynapi_res** res) {
  if (list == nullptr || res == nullptr) return VYNAPI_STAT_BAD_ARGUMENT;
  if (list->items.empty()) return VYNAPI_STAT_FAILURE;
  *res = list->items.front().get();
  return VYNAPI_STAT_SUCCESS;
}

VYNAPI_STAT vynapi_register_resource2(vynapi_reslist* list, ub4 flags, vynapi_msg2_cb msg2, void* pArg,
                                      vynapi_reslist* statusList) {
  if (list == nullptr || list->items.empty()) return VYNAPI_STAT_BAD_ARGUMENT;
  std::lock_guard<std::mutex> lock(g_ctxMutex);
  if (g_ctx == nullptr) return VYNAPI_STAT_NOT_INITIALIZED;
  VYNAPI_STAT first = VYNAPI_STAT_SUCCESS;
  for (const auto& item : list->items) {
    vynapi_res& res = *item;
    Outcome o{VYNAPI_STAT_SUCCESS, ""};
    if (checkResource(res, &o)) o = (flags & VYNAPI_FLAG_UPDATE) ? update(g_ctx->store, res) : registerNew(g_ctx->store, res);
    res.hasStatus = true;
    res.status = o.text;
    if (statusList != nullptr) statusList->items.emplace_back(new vynapi_res{res.name, {}, true, o.text});
    // A failure is told once, by its status entry.
    if (msg2 != nullptr && o.code == VYNAPI_STAT_SUCCESS) msg2(pArg, z(res.name), z(o.text), vynapi_msgtype_progress);
    if (o.code != VYNAPI_STAT_SUCCESS && first == VYNAPI_STAT_SUCCESS) first = o.code;
  }
  return first;
}
