// The registry kept in an embedded SQLite file.
//
// The store keeps SQLite's rollback journal, not WAL: a WAL reader needs write access to the
// -shm file beside the store, and the usual reader here is an unprivileged user reading a
// root-owned store in a root-owned directory. Rollback readers need nothing but read access.
#include "platform/registry/prvrg_sqlite.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>

namespace {

const int kSchemaVersion = 1;

// A store held locked by another process is waited for at most kLockWait, and a process pays that
// wait once: after one wait has run out, further waits give up at once until the store serves a
// statement again, or until kLockRetry has passed (a long-lived process tries afresh now and then).
// kLockWait is long enough to outlast another process's single call.
const std::chrono::milliseconds kLockWait(5000);
const std::chrono::milliseconds kLockRetry(60000);

// Whether a wait for a locked store has run out in this process, and when.
class LockWaits {
 public:
  // The busy handler: true to try the lock again after a pause, false to give up. `start` is
  // when the caller's wait began.
  bool keepWaiting(std::chrono::steady_clock::time_point* start, int attempt) {
    using std::chrono::steady_clock;
    steady_clock::time_point now = steady_clock::now();
    if (attempt == 0) *start = now;
    steady_clock::duration left = kLockWait - (now - *start);
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


[[noreturn]] void fail(int code, std::string text) { registryFail(code, std::move(text)); }

std::string join(const std::string& parent, const std::string& name) {
  return parent.empty() ? name : parent + "." + name;
}

std::string parentOf(const std::string& name) {
  std::size_t dot = name.rfind('.');
  return dot == std::string::npos ? std::string() : name.substr(0, dot);
}

// Bounds of a subtree's descendants by byte order: every "X.…" lies in ["X.", "X/").
std::string below(const std::string& name) { return name + "."; }
std::string beyond(const std::string& name) { return name + "/"; }

// mkdir -p of the directory that will hold a new store.
void makeParentDirs(const std::string& path) {
  for (std::size_t at = path.find('/', 1); at != std::string::npos; at = path.find('/', at + 1)) {
    std::string dir = path.substr(0, at);
    if (mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST)
      fail(PRVRG_ERR_FAIL, "cannot create directory " + dir + ": " + std::strerror(errno));
  }
}

class SqliteStore : public RegistryStore {
 public:
  SqliteStore(const std::string& path, bool defaultLevel) : path_(path), defaultLevel_(defaultLevel) {}
  ~SqliteStore() override { sqlite3_close(db_); }
  SqliteStore(const SqliteStore&) = delete;
  SqliteStore& operator=(const SqliteStore&) = delete;

  void open(bool create);

  bool find(prvrg_key& key) override { return exists(key.name); }
  bool create(const std::string& parent, const std::string& name, const prvrg_security& sec,
              const std::string* value, int dtype) override;
  void setValue(prvrg_key& key, int dtype, const std::string& value) override;
  void getValue(prvrg_key& key, int* dtype, std::string* value) override;
  void getSecurity(const std::string& name, prvrg_security* sec) override;
  void remove(const std::string& name, bool recursive) override;
  void move(const std::string& from, const std::string& to) override;
  bool nextSubkey(prvrg_key& key, std::string* next, ub4* remaining) override;

 private:
  class Stmt;
  class Txn;
  static int busyHandler(void* self, int attempt) {
    return g_lockWaits.keepWaiting(&static_cast<SqliteStore*>(self)->waitStart_, attempt) ? 1 : 0;
  }
  // The text of a failure is the store's own reason ("database is locked", "file is not a
  // database", ...) behind the store's path, so that whoever logs it tells the administrator why.
  void check(int rc) {
    if (rc == SQLITE_OK || rc == SQLITE_ROW || rc == SQLITE_DONE) return;
    int primary = rc & 0xff;
    std::string text = "registry store " + path_ + ": " + sqlite3_errmsg(db_);
    bool refused = primary == SQLITE_READONLY || primary == SQLITE_CANTOPEN || primary == SQLITE_PERM;
    if (inWrite_ && refused && defaultLevel_) fail(PRVRG_ERR_LEVEL, text);
    fail(PRVRG_ERR_FAIL, text);
  }
  bool exists(const std::string& name);
  void exec(const char* sql) { check(sqlite3_exec(db_, sql, nullptr, nullptr, nullptr)); }
  void mustExist(const std::string& name) {
    if (!exists(name)) fail(PRVRG_ERR_NO_KEY, "key " + name + " does not exist");
  }
  bool createPath(const std::string& parent, const std::string& name, const prvrg_security& sec);
  void storeValue(const std::string& name, int dtype, const std::string& value);
  void openSchema(bool create);

  sqlite3* db_ = nullptr;
  std::string path_;
  bool defaultLevel_;      // asked for DEFAULT: a refused write answers PRVRG_ERR_LEVEL
  bool writable_ = false;  // DEFAULT and the store opened read-write
  bool inWrite_ = false;   // inside a write transaction
  std::chrono::steady_clock::time_point waitStart_;  // when the current wait for a lock began
};

class SqliteStore::Stmt {
 public:
  Stmt(SqliteStore* s, const char* sql) : s_(s) { s->check(sqlite3_prepare_v2(s->db_, sql, -1, &st_, nullptr)); }
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
  Stmt& bindBlob(int i, const std::string& v) {
    sqlite3_bind_blob64(st_, i, v.empty() ? "" : v.data(), v.size(), SQLITE_TRANSIENT);
    return *this;
  }
  // True while a row is there.
  bool step() {
    int rc = sqlite3_step(st_);
    s_->check(rc);
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
  SqliteStore* s_;
  sqlite3_stmt* st_ = nullptr;
};

// One transaction per call. A write takes the write lock at BEGIN, so two writers queue on the
// busy handler instead of failing when a read lock would have to be upgraded.
class SqliteStore::Txn {
 public:
  Txn(SqliteStore* s, bool write) : s_(s) {
    if (write && !s->writable_) {
      fail(s->defaultLevel_ ? PRVRG_ERR_LEVEL : PRVRG_ERR_FAIL,
           "registry store " + s->path_ + " cannot be written through this handle");
    }
    s->inWrite_ = write;
    try {
      s->exec(write ? "BEGIN IMMEDIATE" : "BEGIN");
    } catch (const RegistryFailure&) {
      s->inWrite_ = false;
      throw;
    }
  }
  void commit() {
    s_->exec("COMMIT");
    done_ = true;
  }
  ~Txn() {
    if (!done_) sqlite3_exec(s_->db_, "ROLLBACK", nullptr, nullptr, nullptr);
    s_->inWrite_ = false;
  }
  Txn(const Txn&) = delete;
  Txn& operator=(const Txn&) = delete;

 private:
  SqliteStore* s_;
  bool done_ = false;
};

bool SqliteStore::exists(const std::string& name) {
  if (name.empty()) return true;  // the root always exists
  return Stmt(this, "SELECT 1 FROM vrg_key WHERE name = ?").bind(1, name).step();
}

bool SqliteStore::createPath(const std::string& parent, const std::string& name, const prvrg_security& sec) {
  mustExist(parent);
  std::string at = parent;
  bool created = false;
  std::size_t start = 0;
  while (start <= name.size()) {
    std::size_t dot = name.find('.', start);
    if (dot == std::string::npos) dot = name.size();
    std::string full = join(at, name.substr(start, dot - start));
    Stmt ins(this,
             "INSERT OR IGNORE INTO vrg_key (name, parent, dtype, value, user_perm, group_perm, "
             "other_perm, user_name, group_name) VALUES (?, ?, 0, NULL, ?, ?, ?, ?, ?)");
    ins.bind(1, full).bind(2, at).bind(3, sec.user_perm).bind(4, sec.group_perm).bind(5, sec.other_perm);
    ins.bind(6, std::string(sec.user_name, strnlen(sec.user_name, sizeof sec.user_name)));
    ins.bind(7, std::string(sec.group_name, strnlen(sec.group_name, sizeof sec.group_name)));
    ins.step();
    created = sqlite3_changes(db_) > 0;
    at = full;
    start = dot + 1;
  }
  return created;
}

void SqliteStore::storeValue(const std::string& name, int dtype, const std::string& value) {
  Stmt up(this, "UPDATE vrg_key SET dtype = ?, value = ? WHERE name = ?");
  up.bind(1, dtype).bindBlob(2, value).bind(3, name).step();
  if (sqlite3_changes(db_) == 0) fail(PRVRG_ERR_NO_KEY, "key " + name + " does not exist");
}

bool SqliteStore::create(const std::string& parent, const std::string& name, const prvrg_security& sec,
                         const std::string* value, int dtype) {
  Txn t(this, true);
  bool isNew = createPath(parent, name, sec);
  if (value) storeValue(join(parent, name), dtype, *value);
  t.commit();
  return isNew;
}

void SqliteStore::setValue(prvrg_key& key, int dtype, const std::string& value) {
  Txn t(this, true);
  storeValue(key.name, dtype, value);
  t.commit();
}

void SqliteStore::getValue(prvrg_key& key, int* dtype, std::string* value) {
  Stmt get(this, "SELECT dtype, value FROM vrg_key WHERE name = ?");
  if (!get.bind(1, key.name).step()) fail(PRVRG_ERR_NO_KEY, "key " + key.name + " does not exist");
  *dtype = static_cast<int>(get.integer(0));
  *value = get.blob(1);
}

void SqliteStore::getSecurity(const std::string& name, prvrg_security* sec) {
  Stmt get(this, "SELECT user_perm, group_perm, other_perm, user_name, group_name FROM vrg_key WHERE name = ?");
  if (!get.bind(1, name).step()) fail(PRVRG_ERR_NO_KEY, "key " + name + " does not exist");
  sec->user_perm = static_cast<prvrg_perm>(get.integer(0));
  sec->group_perm = static_cast<prvrg_perm>(get.integer(1));
  sec->other_perm = static_cast<prvrg_perm>(get.integer(2));
  std::string user = get.text(3), group = get.text(4);
  std::memcpy(sec->user_name, user.data(), std::min(user.size(), sizeof sec->user_name - 1));
  std::memcpy(sec->group_name, group.data(), std::min(group.size(), sizeof sec->group_name - 1));
}

void SqliteStore::remove(const std::string& name, bool recursive) {
  Txn t(this, true);
  mustExist(name);
  if (!recursive && Stmt(this, "SELECT 1 FROM vrg_key WHERE parent = ?").bind(1, name).step())
    fail(PRVRG_ERR_FAIL, "key " + name + " has subkeys");
  Stmt del(this, "DELETE FROM vrg_key WHERE name = ? OR (name > ? AND name < ?)");
  del.bind(1, name).bind(2, below(name)).bind(3, beyond(name)).step();
  t.commit();
}

void SqliteStore::move(const std::string& from, const std::string& to) {
  Txn t(this, true);
  mustExist(from);
  mustExist(parentOf(to));
  if (exists(to)) fail(PRVRG_ERR_FAIL, "key " + to + " exists already");
  // Rename the subtree by prefix; the parent column follows the same rewrite.
  Stmt up(this,
          "UPDATE vrg_key SET"
          " name = ?1 || CAST(substr(CAST(name AS BLOB), ?3) AS TEXT),"
          " parent = CASE WHEN name = ?2 THEN ?4 ELSE ?1 || CAST(substr(CAST(parent AS BLOB), ?3) AS TEXT) END"
          " WHERE name = ?2 OR (name > ?5 AND name < ?6)");
  up.bind(1, to).bind(2, from).bind(3, static_cast<sqlite3_int64>(from.size() + 1)).bind(4, parentOf(to));
  up.bind(5, below(from)).bind(6, beyond(from)).step();
  t.commit();
}

bool SqliteStore::nextSubkey(prvrg_key& key, std::string* next, ub4* remaining) {
  const std::string& name = key.name;
  const std::string& after = key.cursor;
  Txn t(this, false);
  mustExist(name);
  std::string cursor = after.empty() ? std::string() : join(name, after);
  Stmt first(this, "SELECT name FROM vrg_key WHERE parent = ? AND name > ? ORDER BY name LIMIT 1");
  if (!first.bind(1, name).bind(2, cursor).step()) return false;
  std::string full = first.text(0);
  *next = name.empty() ? full : full.substr(name.size() + 1);
  if (remaining) {
    Stmt count(this, "SELECT count(*) FROM vrg_key WHERE parent = ? AND name > ?");
    count.bind(1, name).bind(2, full).step();
    *remaining = static_cast<ub4>(count.integer(0));
  }
  return true;
}

void SqliteStore::openSchema(bool create) {
  int version = 0;
  {
    Stmt v(this, "PRAGMA user_version");
    if (v.step()) version = static_cast<int>(v.integer(0));
  }
  if (version == kSchemaVersion) return;
  if (version > kSchemaVersion)
    fail(PRVRG_ERR_FAIL, "registry store " + path_ + " has schema version " + std::to_string(version) +
                             ", newer than this client's " + std::to_string(kSchemaVersion));
  if (!create || !writable_) fail(PRVRG_ERR_FAIL, "registry store " + path_ + " holds no registry (create it with vyn_vrg)");
  Txn t(this, true);
  exec("CREATE TABLE IF NOT EXISTS vrg_key ("
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

void SqliteStore::open(bool create) {
  struct stat st;
  if (stat(path_.c_str(), &st) != 0) {
    if (errno != ENOENT) fail(PRVRG_ERR_FAIL, "cannot reach registry store " + path_ + ": " + std::strerror(errno));
    if (!create) fail(PRVRG_ERR_FAIL, "registry store " + path_ + " does not exist");
    makeParentDirs(path_);
  }
  int mode = defaultLevel_ ? SQLITE_OPEN_READWRITE | (create ? SQLITE_OPEN_CREATE : 0) : SQLITE_OPEN_READONLY;
  if (sqlite3_open_v2(path_.c_str(), &db_, mode, nullptr) != SQLITE_OK)
    fail(PRVRG_ERR_FAIL,
         "cannot open registry store " + path_ + ": " + (db_ ? sqlite3_errmsg(db_) : "out of memory"));
  sqlite3_busy_handler(db_, busyHandler, this);
  // SQLite falls back to read-only by itself when the file cannot be written.
  writable_ = defaultLevel_ && sqlite3_db_readonly(db_, "main") == 0;
  openSchema(create);
}

}  // namespace

std::unique_ptr<RegistryStore> openSqliteStore(const std::string& path, bool defaultLevel, bool create) {
  auto store = std::make_unique<SqliteStore>(path, defaultLevel);
  store->open(create && defaultLevel);
  return store;
}
