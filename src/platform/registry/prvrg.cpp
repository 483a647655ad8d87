// The registry client over an embedded SQLite store: one row per key, named by its full dotted
// name, holding the key's typed value and security record.
//
// The store keeps SQLite's rollback journal, not WAL: a WAL reader needs write access to the
// -shm file beside the store, and the usual reader here is an unprivileged user reading a
// root-owned store in a root-owned directory. Rollback readers need nothing but read access.
#include "platform/registry/prvrg.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <mutex>
#include <new>
#include <set>
#include <string>
#include <thread>

struct prvrg_key {
  std::string name;    // full name; "" is the root
  std::string cursor;  // full name of the subkey last given by prvrg_enum_subkey
};

struct prvrg_ctx {
  sqlite3* db = nullptr;
  std::string path;
  bool default_level = false;  // asked for DEFAULT: a refused write answers PRVRG_ERR_LEVEL
  bool writable = false;       // DEFAULT and the store opened read-write
  bool in_write = false;       // inside a write transaction
  std::chrono::steady_clock::time_point wait_start;  // when the current wait for a lock began
  int last_code = 0;
  std::string last_text;
  std::set<prvrg_key*> keys;  // open keys; the handle owns them until closed or terminated
};

namespace {

const int kSchemaVersion = 1;

// A store held locked by another process is waited for at most kLockWait, and a process pays that
// wait once: after one wait has run out, further waits give up at once until the store serves a
// statement again, or until kLockRetry has passed (a long-lived process tries afresh now and then).
// kLockWait is long enough to outlast another process's single call.
const std::chrono::milliseconds kLockWait(5000);
const std::chrono::milliseconds kLockRetry(60000);
const char* const kDefaultStore = "/var/lib/vyn/registry.db";

// Handles still alive, so that a terminated or foreign handle answers 3 instead of crashing.
std::mutex g_liveMutex;
std::set<const prvrg_ctx*> g_live;

struct Failure {
  int code;
  std::string text;
};

[[noreturn]] void fail(int code, std::string text) { throw Failure{code, std::move(text)}; }

// Whether a wait for a locked store has run out in this process, and when.
class LockWaits {
 public:
  // The busy handler: true to try the lock again after a pause, false to give up.
  bool keepWaiting(prvrg_ctx* ctx, int attempt) {
    using std::chrono::steady_clock;
    steady_clock::time_point now = steady_clock::now();
    if (attempt == 0) ctx->wait_start = now;
    steady_clock::duration left = kLockWait - (now - ctx->wait_start);
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (exhausted_ && now - exhaustedAt_ < kLockRetry) return false;
      if (left <= steady_clock::duration::zero()) {
        exhausted_ = true;
        exhaustedAt_ = now;
        return false;
      }
    }
    // Short pauses first: another process's call is usually over within milliseconds.
    static const int kPauseMs[] = {1, 2, 5, 10, 20, 50};
    int n = sizeof kPauseMs / sizeof kPauseMs[0];
    std::chrono::milliseconds pause(attempt < n ? kPauseMs[attempt] : 100);
    std::this_thread::sleep_for(std::min<steady_clock::duration>(pause, left));
    return true;
  }
  // The store answered a statement: the next lock is worth a full wait again.
  void served() {
    std::lock_guard<std::mutex> lock(mutex_);
    exhausted_ = false;
  }

 private:
  std::mutex mutex_;
  bool exhausted_ = false;
  std::chrono::steady_clock::time_point exhaustedAt_;
};

LockWaits g_lockWaits;

int busyHandler(void* ctx, int attempt) {
  return g_lockWaits.keepWaiting(static_cast<prvrg_ctx*>(ctx), attempt) ? 1 : 0;
}

bool isLevelDefault(int level) { return level == PRVRG_LEVEL_DEFAULT || level == PRVRG_LOCAL_DEFAULT; }

// The text of a failure is the store's own reason ("database is locked", "file is not a
// database", ...) behind the store's path, so that whoever logs it tells the administrator why.
void check(prvrg_ctx* ctx, int rc) {
  if (rc == SQLITE_OK || rc == SQLITE_ROW || rc == SQLITE_DONE) return;
  int primary = rc & 0xff;
  std::string text = "registry store " + ctx->path + ": " + sqlite3_errmsg(ctx->db);
  bool refused = primary == SQLITE_READONLY || primary == SQLITE_CANTOPEN || primary == SQLITE_PERM;
  if (ctx->in_write && refused && ctx->default_level) fail(PRVRG_ERR_LEVEL, text);
  fail(PRVRG_ERR_FAIL, text);
}

class Stmt {
 public:
  Stmt(prvrg_ctx* ctx, const char* sql) : ctx_(ctx) {
    check(ctx, sqlite3_prepare_v2(ctx->db, sql, -1, &st_, nullptr));
  }
  ~Stmt() { sqlite3_finalize(st_); }
  Stmt(const Stmt&) = delete;
  Stmt& operator=(const Stmt&) = delete;

  Stmt& bind(int i, const std::string& s) {
    sqlite3_bind_text(st_, i, s.data(), static_cast<int>(s.size()), SQLITE_TRANSIENT);
    return *this;
  }
  Stmt& bind(int i, sqlite3_int64 v) {
    sqlite3_bind_int64(st_, i, v);
    return *this;
  }
  Stmt& bindBlob(int i, const void* p, std::size_t n) {
    sqlite3_bind_blob64(st_, i, n ? p : "", n, SQLITE_TRANSIENT);
    return *this;
  }
  // True while a row is there.
  bool step() {
    int rc = sqlite3_step(st_);
    check(ctx_, rc);
    g_lockWaits.served();
    return rc == SQLITE_ROW;
  }
  sqlite3_int64 integer(int col) { return sqlite3_column_int64(st_, col); }
  std::string text(int col) {
    const char* p = reinterpret_cast<const char*>(sqlite3_column_text(st_, col));
    return std::string(p ? p : "", sqlite3_column_bytes(st_, col));
  }
  std::string blob(int col) {
    const char* p = static_cast<const char*>(sqlite3_column_blob(st_, col));
    return std::string(p ? p : "", sqlite3_column_bytes(st_, col));
  }

 private:
  prvrg_ctx* ctx_;
  sqlite3_stmt* st_ = nullptr;
};

void exec(prvrg_ctx* ctx, const char* sql) { check(ctx, sqlite3_exec(ctx->db, sql, nullptr, nullptr, nullptr)); }

// One transaction per call. A write takes the write lock at BEGIN, so two writers queue on the
// busy handler instead of failing when a read lock would have to be upgraded.
class Txn {
 public:
  Txn(prvrg_ctx* ctx, bool write) : ctx_(ctx) {
    if (write && !ctx->writable) {
      fail(ctx->default_level ? PRVRG_ERR_LEVEL : PRVRG_ERR_FAIL,
           "registry store " + ctx->path + " cannot be written through this handle");
    }
    ctx->in_write = write;
    try {
      exec(ctx, write ? "BEGIN IMMEDIATE" : "BEGIN");
    } catch (const Failure&) {
      ctx->in_write = false;
      throw;
    }
  }
  void commit() {
    exec(ctx_, "COMMIT");
    done_ = true;
  }
  ~Txn() {
    if (!done_) sqlite3_exec(ctx_->db, "ROLLBACK", nullptr, nullptr, nullptr);
    ctx_->in_write = false;
  }

 private:
  prvrg_ctx* ctx_;
  bool done_ = false;
};

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
  } catch (const Failure& f) {
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

std::string parentOf(const std::string& name) {
  std::size_t dot = name.rfind('.');
  return dot == std::string::npos ? std::string() : name.substr(0, dot);
}

bool exists(prvrg_ctx* ctx, const std::string& name) {
  if (name.empty()) return true;  // the root always exists
  return Stmt(ctx, "SELECT 1 FROM vrg_key WHERE name = ?").bind(1, name).step();
}

void mustExist(prvrg_ctx* ctx, const std::string& name) {
  if (!exists(ctx, name)) fail(PRVRG_ERR_NO_KEY, "key " + name + " does not exist");
}

// Bounds of a subtree's descendants by byte order: every "X.…" lies in ["X.", "X/").
std::string below(const std::string& name) { return name + "."; }
std::string beyond(const std::string& name) { return name + "/"; }

// Creates `name` below `parent` with any missing keys between; true if `name` itself was new.
bool createPath(prvrg_ctx* ctx, const std::string& parent, const std::string& name,
                const prvrg_security& sec) {
  mustExist(ctx, parent);
  std::string at = parent;
  bool created = false;
  std::size_t start = 0;
  while (start <= name.size()) {
    std::size_t dot = name.find('.', start);
    if (dot == std::string::npos) dot = name.size();
    std::string full = join(at, name.substr(start, dot - start));
    Stmt ins(ctx,
             "INSERT OR IGNORE INTO vrg_key (name, parent, dtype, value, user_perm, group_perm, "
             "other_perm, user_name, group_name) VALUES (?, ?, 0, NULL, ?, ?, ?, ?, ?)");
    ins.bind(1, full).bind(2, at).bind(3, sec.user_perm).bind(4, sec.group_perm).bind(5, sec.other_perm);
    ins.bind(6, std::string(sec.user_name, strnlen(sec.user_name, sizeof sec.user_name)));
    ins.bind(7, std::string(sec.group_name, strnlen(sec.group_name, sizeof sec.group_name)));
    ins.step();
    created = sqlite3_changes(ctx->db) > 0;
    at = full;
    start = dot + 1;
  }
  return created;
}

void storeValue(prvrg_ctx* ctx, const std::string& name, int dtype, const void* value, std::size_t length) {
  if (dtype < prvrg_dtype_NOVALUE || dtype > prvrg_dtype_BYTESTREAM) fail(PRVRG_ERR_FAIL, "unknown value type");
  if (value == nullptr && length != 0) fail(PRVRG_ERR_FAIL, "no value given");
  // A text is kept without its terminator whether or not the caller counted it.
  if (dtype == prvrg_dtype_ZELTEXT) length = strnlen(static_cast<const char*>(value ? value : ""), length);
  Stmt up(ctx, "UPDATE vrg_key SET dtype = ?, value = ? WHERE name = ?");
  up.bind(1, dtype).bindBlob(2, value, length).bind(3, name).step();
  if (sqlite3_changes(ctx->db) == 0) fail(PRVRG_ERR_NO_KEY, "key " + name + " does not exist");
}

prvrg_key* newKey(prvrg_ctx* ctx, const std::string& name) {
  auto* k = new prvrg_key{name, std::string()};
  ctx->keys.insert(k);
  return k;
}

void openSchema(prvrg_ctx* ctx, bool create) {
  int version = 0;
  {
    Stmt v(ctx, "PRAGMA user_version");
    if (v.step()) version = static_cast<int>(v.integer(0));
  }
  if (version == kSchemaVersion) return;
  if (version > kSchemaVersion)
    fail(PRVRG_ERR_FAIL, "registry store " + ctx->path + " has schema version " + std::to_string(version) +
                             ", newer than this client's " + std::to_string(kSchemaVersion));
  if (!create || !ctx->writable)
    fail(PRVRG_ERR_FAIL, "registry store " + ctx->path + " holds no registry (create it with vyn_vrg)");
  Txn t(ctx, true);
  exec(ctx,
       "CREATE TABLE IF NOT EXISTS vrg_key ("
       " name TEXT PRIMARY KEY,"
       " parent TEXT NOT NULL,"
       " dtype INTEGER NOT NULL,"
       " value BLOB,"
       " user_perm INTEGER NOT NULL, group_perm INTEGER NOT NULL, other_perm INTEGER NOT NULL,"
       " user_name TEXT NOT NULL, group_name TEXT NOT NULL) WITHOUT ROWID;"
       "CREATE INDEX IF NOT EXISTS vrg_key_parent ON vrg_key (parent, name);"
       "PRAGMA user_version = 1;");
  t.commit();
}

// mkdir -p of the directory that will hold a new store.
void makeParentDirs(const std::string& path) {
  for (std::size_t at = path.find('/', 1); at != std::string::npos; at = path.find('/', at + 1)) {
    std::string dir = path.substr(0, at);
    if (mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST)
      fail(PRVRG_ERR_FAIL, "cannot create directory " + dir + ": " + std::strerror(errno));
  }
}

}  // namespace

const char* prvrg_store_path() {
  const char* p = std::getenv("VYN_REGISTRY");
  return (p != nullptr && p[0] != '\0') ? p : kDefaultStore;
}

int prvrg_init_ext(prvrg_ctx** out, int level, char* errbuf, std::size_t* errlen, int flags) {
  if (out == nullptr) return PRVRG_ERR_FAIL;
  *out = nullptr;
  auto* ctx = new prvrg_ctx;
  ctx->path = prvrg_store_path();
  ctx->default_level = isLevelDefault(level);
  bool create = (flags & PRVRG_FLAG_CREATE) != 0 && ctx->default_level;
  try {
    struct stat st;
    if (stat(ctx->path.c_str(), &st) != 0) {
      if (errno != ENOENT) fail(PRVRG_ERR_FAIL, "cannot reach registry store " + ctx->path + ": " + std::strerror(errno));
      if (!create) fail(PRVRG_ERR_FAIL, "registry store " + ctx->path + " does not exist");
      makeParentDirs(ctx->path);
    }
    int mode = ctx->default_level ? SQLITE_OPEN_READWRITE | (create ? SQLITE_OPEN_CREATE : 0) : SQLITE_OPEN_READONLY;
    if (sqlite3_open_v2(ctx->path.c_str(), &ctx->db, mode, nullptr) != SQLITE_OK)
      fail(PRVRG_ERR_FAIL, "cannot open registry store " + ctx->path + ": " +
                               (ctx->db ? sqlite3_errmsg(ctx->db) : "out of memory"));
    sqlite3_busy_handler(ctx->db, busyHandler, ctx);
    // SQLite falls back to read-only by itself when the file cannot be written.
    ctx->writable = ctx->default_level && sqlite3_db_readonly(ctx->db, "main") == 0;
    openSchema(ctx, create);
  } catch (const Failure& f) {
    copyText(f.text, errbuf, errlen);
    sqlite3_close(ctx->db);
    delete ctx;
    return f.code;
  }
  std::lock_guard<std::mutex> lock(g_liveMutex);
  g_live.insert(ctx);
  *out = ctx;
  return PRVRG_SUCC;
}

int prvrg_terminate(prvrg_ctx* ctx) {
  {
    std::lock_guard<std::mutex> lock(g_liveMutex);
    if (ctx == nullptr || g_live.erase(ctx) == 0) return PRVRG_ERR_INVALID_HANDLE;
  }
  for (prvrg_key* k : ctx->keys) delete k;
  sqlite3_close(ctx->db);
  delete ctx;
  return PRVRG_SUCC;
}

int prvrg_open_key(prvrg_ctx* ctx, prvrg_key** key, const char* fullname) {
  return call(ctx, [&] {
    if (key == nullptr) fail(PRVRG_ERR_FAIL, "no key out-argument");
    *key = nullptr;
    checkName(fullname, true);
    mustExist(ctx, fullname);
    *key = newKey(ctx, fullname);
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
    Txn t(ctx, true);
    bool isNew = createPath(ctx, p, name, security);
    t.commit();
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
    Txn t(ctx, true);
    bool isNew = createPath(ctx, p, name, security);
    storeValue(ctx, join(p, name), dtype, value, length);
    t.commit();
    if (created) *created = isNew ? 1 : 0;
    if (key) *key = newKey(ctx, join(p, name));
  });
}

int prvrg_delete_key(prvrg_ctx* ctx, prvrg_key* key, int recursive) {
  return call(ctx, [&] {
    const std::string name = keyOf(ctx, key)->name;
    if (name.empty()) fail(PRVRG_ERR_FAIL, "the root key cannot be deleted");
    Txn t(ctx, true);
    mustExist(ctx, name);
    if (!recursive && Stmt(ctx, "SELECT 1 FROM vrg_key WHERE parent = ?").bind(1, name).step())
      fail(PRVRG_ERR_FAIL, "key " + name + " has subkeys");
    Stmt del(ctx, "DELETE FROM vrg_key WHERE name = ? OR (name > ? AND name < ?)");
    del.bind(1, name).bind(2, below(name)).bind(3, beyond(name)).step();
    t.commit();
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
    if (to.compare(0, from.size() + 1, below(from)) == 0) fail(PRVRG_ERR_FAIL, "cannot move " + from + " below itself");
    Txn t(ctx, true);
    mustExist(ctx, from);
    mustExist(ctx, parentOf(to));
    if (exists(ctx, to)) fail(PRVRG_ERR_FAIL, "key " + to + " exists already");
    // Rename the subtree by prefix; the parent column follows the same rewrite.
    Stmt up(ctx,
            "UPDATE vrg_key SET"
            " name = ?1 || CAST(substr(CAST(name AS BLOB), ?3) AS TEXT),"
            " parent = CASE WHEN name = ?2 THEN ?4 ELSE ?1 || CAST(substr(CAST(parent AS BLOB), ?3) AS TEXT) END"
            " WHERE name = ?2 OR (name > ?5 AND name < ?6)");
    up.bind(1, to).bind(2, from).bind(3, static_cast<sqlite3_int64>(from.size() + 1)).bind(4, parentOf(to));
    up.bind(5, below(from)).bind(6, beyond(from)).step();
    t.commit();
    k->name = to;  // the handle follows its key
    k->cursor.clear();
    if (moved) *moved = newKey(ctx, to);
  });
}

int prvrg_enum_subkey(prvrg_ctx* ctx, prvrg_key* key, char* name, std::size_t* length, ub4* remaining) {
  return call(ctx, [&] {
    prvrg_key* k = keyOf(ctx, key);
    if (name == nullptr || length == nullptr) fail(PRVRG_ERR_FAIL, "no name buffer given");
    Txn t(ctx, false);
    mustExist(ctx, k->name);
    Stmt next(ctx, "SELECT name FROM vrg_key WHERE parent = ? AND name > ? ORDER BY name LIMIT 1");
    if (!next.bind(1, k->name).bind(2, k->cursor).step()) {
      if (remaining) *remaining = 0;
      fail(PRVRG_ERR_NO_MORE, "no further subkey of " + (k->name.empty() ? std::string("the root") : k->name));
    }
    std::string full = next.text(0);
    std::string part = k->name.empty() ? full : full.substr(k->name.size() + 1);
    if (*length < part.size() + 1) {
      *length = part.size() + 1;
      fail(PRVRG_ERR_BUFFER, "name buffer too small for a subkey of " + k->name);
    }
    std::memcpy(name, part.c_str(), part.size() + 1);
    *length = part.size() + 1;
    if (remaining) {
      Stmt count(ctx, "SELECT count(*) FROM vrg_key WHERE parent = ? AND name > ?");
      count.bind(1, k->name).bind(2, full).step();
      *remaining = static_cast<ub4>(count.integer(0));
    }
    k->cursor = full;
  });
}

int prvrg_get_value(prvrg_ctx* ctx, prvrg_key* key, int* dtype, void* buffer, std::size_t* length) {
  return call(ctx, [&] {
    const std::string& name = keyOf(ctx, key)->name;
    if (length == nullptr) fail(PRVRG_ERR_FAIL, "no length given");
    Stmt get(ctx, "SELECT dtype, value FROM vrg_key WHERE name = ?");
    if (!get.bind(1, name).step()) fail(PRVRG_ERR_NO_KEY, "key " + name + " does not exist");
    int type = static_cast<int>(get.integer(0));
    if (dtype) *dtype = type;
    if (type == prvrg_dtype_NOVALUE) fail(PRVRG_ERR_NO_KEY, "key " + name + " holds no value");
    std::string v = get.blob(1);
    if (type == prvrg_dtype_ZELTEXT) v.push_back('\0');
    if (buffer == nullptr || *length < v.size()) {
      *length = v.size();
      fail(PRVRG_ERR_BUFFER, "buffer too small for the value of " + name);
    }
    std::memcpy(buffer, v.data(), v.size());
    *length = v.size();
  });
}

int prvrg_set_value(prvrg_ctx* ctx, prvrg_key* key, int dtype, const void* value, std::size_t length) {
  return call(ctx, [&] {
    const std::string name = keyOf(ctx, key)->name;
    Txn t(ctx, true);
    storeValue(ctx, name, dtype, value, length);
    t.commit();
  });
}

int prvrg_get_key_security(prvrg_ctx* ctx, prvrg_key* key, prvrg_security* security) {
  return call(ctx, [&] {
    const std::string& name = keyOf(ctx, key)->name;
    if (security == nullptr) fail(PRVRG_ERR_FAIL, "no security record given");
    *security = prvrg_security{};
    if (name.empty()) return;  // the root carries an empty record
    Stmt get(ctx, "SELECT user_perm, group_perm, other_perm, user_name, group_name FROM vrg_key WHERE name = ?");
    if (!get.bind(1, name).step()) fail(PRVRG_ERR_NO_KEY, "key " + name + " does not exist");
    security->user_perm = static_cast<prvrg_perm>(get.integer(0));
    security->group_perm = static_cast<prvrg_perm>(get.integer(1));
    security->other_perm = static_cast<prvrg_perm>(get.integer(2));
    std::size_t n = sizeof security->user_name;
    copyText(get.text(3), security->user_name, &n);
    n = sizeof security->group_name;
    copyText(get.text(4), security->group_name, &n);
  });
}

int prvrg_get_last_error(prvrg_ctx* ctx, int* code, char* text, std::size_t* length) {
  if (!validCtx(ctx)) return PRVRG_ERR_INVALID_HANDLE;
  if (code) *code = ctx->last_code;
  copyText(ctx->last_text, text, length);
  return PRVRG_SUCC;
}

const char* prvrg_key_name(const prvrg_key* key) { return key ? key->name.c_str() : ""; }
