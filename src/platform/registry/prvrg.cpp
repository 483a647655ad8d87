// The registry client's front: handles and their keys, names, the caller's buffers and the last
// error. The tree itself is kept by a store (prvrg_store.h) chosen by the registry's address.
#include "platform/registry/prvrg.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <new>
#include <set>
#include <string>

#include "platform/registry/prvrg_sqlite.h"
#include "platform/registry/prvrg_store.h"
#include "platform/registry/prvrg_zk.h"

struct prvrg_ctx {
  std::unique_ptr<RegistryStore> store;
  int last_code = 0;
  std::string last_text;
  std::set<prvrg_key*> keys;  // open keys; the handle owns them until closed or terminated
};

namespace {

const char* const kDefaultStore = "/var/lib/vyn/registry.db";

// Handles still alive, so that a terminated or foreign handle answers 3 instead of crashing.
std::mutex g_liveMutex;
std::set<const prvrg_ctx*> g_live;

[[noreturn]] void fail(int code, std::string text) { registryFail(code, std::move(text)); }

bool isLevelDefault(int level) { return level == PRVRG_LEVEL_DEFAULT || level == PRVRG_LOCAL_DEFAULT; }

bool validCtx(const prvrg_ctx* ctx) {
  std::lock_guard<std::mutex> lock(g_liveMutex);
  return ctx != nullptr && g_live.count(ctx) != 0;
}

void copyText(const std::string& text, char* buf, std::size_t* len) {
  if (buf == nullptr || len == nullptr || *len == 0) return;
  std::size_t n = std::min(text.size(), *len - 1);
  std::memcpy(buf, text.data(), n);
  buf[n] = '\0';
  *len = n;
}

// Runs one call: checks the handle, turns a failure into its result and remembers its text.
int call(prvrg_ctx* ctx, const std::function<void()>& body) {
  if (!validCtx(ctx)) return PRVRG_ERR_INVALID_HANDLE;
  try {
    body();
    return PRVRG_SUCC;
  } catch (const RegistryFailure& f) {
    ctx->last_code = f.code;
    ctx->last_text = f.text;
    return f.code;
  } catch (const std::bad_alloc&) {
    ctx->last_code = PRVRG_ERR_FAIL;
    ctx->last_text = "out of memory";
    return PRVRG_ERR_FAIL;
  }
}

prvrg_key* keyOf(prvrg_ctx* ctx, prvrg_key* key) {
  if (key == nullptr || ctx->keys.count(key) == 0) fail(PRVRG_ERR_INVALID_HANDLE, "invalid key handle");
  return key;
}

// A name is dot-separated parts, none of them empty.
void checkName(const char* name, bool allowEmpty) {
  if (name == nullptr) fail(PRVRG_ERR_FAIL, "no key name given");
  std::string s(name);
  if (s.empty() && allowEmpty) return;
  if (s.empty() || s.front() == '.' || s.back() == '.' || s.find("..") != std::string::npos)
    fail(PRVRG_ERR_FAIL, "invalid key name \"" + s + "\"");
}

std::string join(const std::string& parent, const std::string& name) {
  return parent.empty() ? name : parent + "." + name;
}

// The value as the store keeps it: a text without its terminator, whether or not the caller
// counted it.
std::string storedValue(int dtype, const void* value, std::size_t length) {
  if (dtype < prvrg_dtype_NOVALUE || dtype > prvrg_dtype_BYTESTREAM) fail(PRVRG_ERR_FAIL, "unknown value type");
  if (value == nullptr && length != 0) fail(PRVRG_ERR_FAIL, "no value given");
  if (value == nullptr) return std::string();
  if (dtype == prvrg_dtype_ZELTEXT) length = strnlen(static_cast<const char*>(value), length);
  return std::string(static_cast<const char*>(value), length);
}

prvrg_key* newKey(prvrg_ctx* ctx, const std::string& name) {
  auto* k = new prvrg_key;
  k->name = name;
  ctx->keys.insert(k);
  return k;
}

}  // namespace

const char* prvrg_store_path() {
  const char* p = std::getenv("VYN_REGISTRY");
  return (p != nullptr && p[0] != '\0') ? p : kDefaultStore;
}

int prvrg_init_ext(prvrg_ctx** out, int level, char* errbuf, std::size_t* errlen, int flags) {
  if (out == nullptr) return PRVRG_ERR_FAIL;
  *out = nullptr;
  auto ctx = std::make_unique<prvrg_ctx>();
  std::string where = prvrg_store_path();
  bool defaultLevel = isLevelDefault(level);
  bool create = (flags & PRVRG_FLAG_CREATE) != 0 && defaultLevel;
  try {
    if (isZkAddress(where))
      ctx->store = openZkStore(where, defaultLevel, create);
    else
      ctx->store = openSqliteStore(where, defaultLevel, create);
  } catch (const RegistryFailure& f) {
    copyText(f.text, errbuf, errlen);
    return f.code;
  } catch (const std::bad_alloc&) {
    copyText("out of memory", errbuf, errlen);
    return PRVRG_ERR_FAIL;
  }
  std::lock_guard<std::mutex> lock(g_liveMutex);
  g_live.insert(ctx.get());
  *out = ctx.release();
  return PRVRG_SUCC;
}

int prvrg_terminate(prvrg_ctx* ctx) {
  {
    std::lock_guard<std::mutex> lock(g_liveMutex);
    if (ctx == nullptr || g_live.erase(ctx) == 0) return PRVRG_ERR_INVALID_HANDLE;
  }
  for (prvrg_key* k : ctx->keys) delete k;
  delete ctx;
  return PRVRG_SUCC;
}

int prvrg_open_key(prvrg_ctx* ctx, prvrg_key** key, const char* fullname) {
  return call(ctx, [&] {
    if (key == nullptr) fail(PRVRG_ERR_FAIL, "no key out-argument");
    *key = nullptr;
    checkName(fullname, true);
    prvrg_key probe;
    probe.name = fullname;
    if (!ctx->store->find(probe)) fail(PRVRG_ERR_NO_KEY, std::string("key ") + fullname + " does not exist");
    prvrg_key* k = newKey(ctx, fullname);
    k->version = probe.version;
    k->meta = std::move(probe.meta);
    *key = k;
  });
}

int prvrg_close_key(prvrg_ctx* ctx, prvrg_key* key) {
  return call(ctx, [&] {
    ctx->keys.erase(keyOf(ctx, key));
    delete key;
  });
}

int prvrg_create_key(prvrg_ctx* ctx, prvrg_key* parent, const char* name, prvrg_key** key, int* created,
                     prvrg_security security) {
  return call(ctx, [&] {
    if (key) *key = nullptr;
    std::string p = parent ? keyOf(ctx, parent)->name : std::string();
    checkName(name, false);
    bool isNew = ctx->store->create(p, name, security, nullptr, prvrg_dtype_NOVALUE);
    if (created) *created = isNew ? 1 : 0;
    if (key) *key = newKey(ctx, join(p, name));
  });
}

int prvrg_create_n_set_key(prvrg_ctx* ctx, prvrg_key* parent, const char* name, prvrg_key** key, int* created,
                           int dtype, const void* value, std::size_t length, prvrg_security security) {
  return call(ctx, [&] {
    if (key) *key = nullptr;
    std::string p = parent ? keyOf(ctx, parent)->name : std::string();
    checkName(name, false);
    std::string v = storedValue(dtype, value, length);
    bool isNew = ctx->store->create(p, name, security, &v, dtype);
    if (created) *created = isNew ? 1 : 0;
    if (key) *key = newKey(ctx, join(p, name));
  });
}

int prvrg_delete_key(prvrg_ctx* ctx, prvrg_key* key, int recursive) {
  return call(ctx, [&] {
    const std::string name = keyOf(ctx, key)->name;
    if (name.empty()) fail(PRVRG_ERR_FAIL, "the root key cannot be deleted");
    ctx->store->remove(name, recursive != 0);
  });
}

int prvrg_move_key(prvrg_ctx* ctx, prvrg_key* key, prvrg_key* new_parent, const char* name, prvrg_key** moved,
                   int /*flags*/) {
  return call(ctx, [&] {
    if (moved) *moved = nullptr;
    prvrg_key* k = keyOf(ctx, key);
    const std::string from = k->name;
    std::string p = new_parent ? keyOf(ctx, new_parent)->name : std::string();
    checkName(name, false);
    const std::string to = join(p, name);
    if (from.empty()) fail(PRVRG_ERR_FAIL, "the root key cannot be moved");
    if (to.compare(0, from.size() + 1, from + ".") == 0) fail(PRVRG_ERR_FAIL, "cannot move " + from + " below itself");
    ctx->store->move(from, to);
    k->name = to;  // the handle follows its key
    k->cursor.clear();
    k->listing.clear();
    k->version = -1;
    if (moved) *moved = newKey(ctx, to);
  });
}

int prvrg_enum_subkey(prvrg_ctx* ctx, prvrg_key* key, char* name, std::size_t* length, ub4* remaining) {
  return call(ctx, [&] {
    prvrg_key* k = keyOf(ctx, key);
    if (name == nullptr || length == nullptr) fail(PRVRG_ERR_FAIL, "no name buffer given");
    std::string part;
    if (!ctx->store->nextSubkey(*k, &part, remaining)) {
      if (remaining) *remaining = 0;
      fail(PRVRG_ERR_NO_MORE, "no further subkey of " + (k->name.empty() ? std::string("the root") : k->name));
    }
    if (*length < part.size() + 1) {
      *length = part.size() + 1;
      fail(PRVRG_ERR_BUFFER, "name buffer too small for a subkey of " + k->name);
    }
    std::memcpy(name, part.c_str(), part.size() + 1);
    *length = part.size() + 1;
    k->cursor = part;
  });
}

int prvrg_get_value(prvrg_ctx* ctx, prvrg_key* key, int* dtype, void* buffer, std::size_t* length) {
  return call(ctx, [&] {
    prvrg_key* k = keyOf(ctx, key);
    if (length == nullptr) fail(PRVRG_ERR_FAIL, "no length given");
    int type = prvrg_dtype_NOVALUE;
    std::string v;
    ctx->store->getValue(*k, &type, &v);
    if (dtype) *dtype = type;
    if (type == prvrg_dtype_NOVALUE) fail(PRVRG_ERR_NO_KEY, "key " + k->name + " holds no value");
    if (type == prvrg_dtype_ZELTEXT) v.push_back('\0');
    if (buffer == nullptr || *length < v.size()) {
      *length = v.size();
      fail(PRVRG_ERR_BUFFER, "buffer too small for the value of " + k->name);
    }
    std::memcpy(buffer, v.data(), v.size());
    *length = v.size();
  });
}

int prvrg_set_value(prvrg_ctx* ctx, prvrg_key* key, int dtype, const void* value, std::size_t length) {
  return call(ctx, [&] {
    prvrg_key* k = keyOf(ctx, key);
    std::string v = storedValue(dtype, value, length);
    if (k->name.empty()) fail(PRVRG_ERR_FAIL, "the root key holds no value");
    ctx->store->setValue(*k, dtype, v);
  });
}

int prvrg_get_key_security(prvrg_ctx* ctx, prvrg_key* key, prvrg_security* security) {
  return call(ctx, [&] {
    const std::string& name = keyOf(ctx, key)->name;
    if (security == nullptr) fail(PRVRG_ERR_FAIL, "no security record given");
    *security = prvrg_security{};
    if (name.empty()) return;  // the root carries an empty record
    ctx->store->getSecurity(name, security);
  });
}

int prvrg_get_last_error(prvrg_ctx* ctx, int* code, char* text, std::size_t* length) {
  if (!validCtx(ctx)) return PRVRG_ERR_INVALID_HANDLE;
  if (code) *code = ctx->last_code;
  copyText(ctx->last_text, text, length);
  return PRVRG_SUCC;
}

const char* prvrg_key_name(const prvrg_key* key) { return key ? key->name.c_str() : ""; }
