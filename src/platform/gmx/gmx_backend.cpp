#include "platform/gmx/gmx_backend.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/gmx/gmx_zk.h"
#include "platform/registry/prvrg.h"

namespace gmx {

Registry::~Registry() {
  if (ctx_ != nullptr) prvrg_terminate(ctx_);
}

int Registry::open(std::string* why) {
  if (ctx_ != nullptr) return GMX_SUCC;
  char err[1024] = "";
  std::size_t len = sizeof err;
  if (prvrg_init_ext(&ctx_, PRVRG_LEVEL_DEFAULT, err, &len, 0) == PRVRG_SUCC) return GMX_SUCC;
  ctx_ = nullptr;
  // A store we may not write to can still tell us who is configured and who is up.
  char err2[1024] = "";
  len = sizeof err2;
  if (prvrg_init_ext(&ctx_, PRVRG_LEVEL_REBOOT, err2, &len, 0) == PRVRG_SUCC) return GMX_SUCC;
  ctx_ = nullptr;
  if (why != nullptr) *why = err;
  return GMX_ERR_REGISTRY;
}

namespace {

// Closes a key handle however the caller leaves.
class Key {
 public:
  Key(prvrg_ctx* ctx) : ctx_(ctx) {}
  ~Key() {
    if (key_ != nullptr) prvrg_close_key(ctx_, key_);
  }
  Key(const Key&) = delete;
  Key& operator=(const Key&) = delete;
  int open(const std::string& name) { return prvrg_open_key(ctx_, &key_, name.c_str()); }
  prvrg_key* get() const { return key_; }

 private:
  prvrg_ctx* ctx_;
  prvrg_key* key_ = nullptr;
};

prvrg_security ownerSecurity() {
  prvrg_security sec{};
  sec.user_perm = 63;  // the owner may do everything; others rely on the store file's mode
  if (const passwd* pw = getpwuid(geteuid())) std::snprintf(sec.user_name, sizeof sec.user_name, "%s", pw->pw_name);
  if (const group* gr = getgrgid(getegid())) std::snprintf(sec.group_name, sizeof sec.group_name, "%s", gr->gr_name);
  return sec;
}

}  // namespace

int Registry::get(const std::string& name, std::string* value) {
  if (ctx_ == nullptr) return PRVRG_ERR_INVALID_HANDLE;
  Key key(ctx_);
  int rc = key.open(name);
  if (rc != PRVRG_SUCC) return rc;
  char buf[512];
  std::size_t len = sizeof buf;
  int dtype = 0;
  rc = prvrg_get_value(ctx_, key.get(), &dtype, buf, &len);
  std::vector<char> big;
  if (rc == PRVRG_ERR_BUFFER) {
    big.resize(len);
    rc = prvrg_get_value(ctx_, key.get(), &dtype, big.data(), &len);
  }
  if (rc != PRVRG_SUCC) return rc;
  if (dtype != prvrg_dtype_ZELTEXT) return PRVRG_ERR_NO_KEY;
  const char* text = big.empty() ? buf : big.data();
  value->assign(text, strnlen(text, len));
  return PRVRG_SUCC;
}

int Registry::subkeys(const std::string& name, std::vector<std::string>* names) {
  names->clear();
  if (ctx_ == nullptr) return PRVRG_ERR_INVALID_HANDLE;
  Key key(ctx_);
  int rc = key.open(name);
  if (rc == PRVRG_ERR_NO_KEY) return PRVRG_SUCC;
  if (rc != PRVRG_SUCC) return rc;
  std::vector<char> buf(256);
  for (;;) {
    std::size_t len = buf.size();
    rc = prvrg_enum_subkey(ctx_, key.get(), buf.data(), &len, nullptr);
    if (rc == PRVRG_ERR_NO_MORE) return PRVRG_SUCC;
    if (rc == PRVRG_ERR_BUFFER && len > buf.size()) {
      // The cursor stays before a name that did not fit: ask again with room for it.
      buf.resize(len);
      continue;
    }
    if (rc != PRVRG_SUCC) return rc;
    names->push_back(buf.data());
  }
}

int Registry::set(const std::string& name, const std::string& value) {
  if (ctx_ == nullptr) return PRVRG_ERR_INVALID_HANDLE;
  return prvrg_create_n_set_key(ctx_, nullptr, name.c_str(), nullptr, nullptr, prvrg_dtype_ZELTEXT,
                                value.c_str(), value.size() + 1, ownerSecurity());
}

int Registry::remove(const std::string& name) {
  if (ctx_ == nullptr) return PRVRG_ERR_INVALID_HANDLE;
  Key key(ctx_);
  int rc = key.open(name);
  if (rc == PRVRG_ERR_NO_KEY) return PRVRG_SUCC;
  if (rc != PRVRG_SUCC) return rc;
  rc = prvrg_delete_key(ctx_, key.get(), 1);
  return rc == PRVRG_ERR_NO_KEY ? PRVRG_SUCC : rc;
}

std::string Registry::lastError() {
  if (ctx_ == nullptr) return "no registry handle";
  char text[1024] = "";
  std::size_t len = sizeof text;
  int code = 0;
  prvrg_get_last_error(ctx_, &code, text, &len);
  return text;
}

std::string groupKeyComponent(const std::string& group) {
  static const char hex[] = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : group) {
    if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' || c == '-') {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += hex[c >> 4];
      out += hex[c & 15];
    }
  }
  return out;
}

long long wallClockMs() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

namespace {

const char kGroupRoot[] = "SYSTEM.gmx.group.";

std::string groupKey(const std::string& group) { return kGroupRoot + groupKeyComponent(group); }

std::string memberKey(const std::string& group, gmxnode node) {
  return groupKey(group) + "." + std::to_string(node);
}

// A member's heartbeat, "<unix ms> <period ms> <pid>".
struct Beat {
  long long stampMs = 0;
  long long periodMs = 0;
  long long pid = 0;
};

// Anyone who may write the store may write a heartbeat: every field is checked and bounded, so
// that no arithmetic on it can overflow.
bool parseField(const char** p, long long max, long long* out) {
  const char* s = *p;
  if (*s < '0' || *s > '9') return false;
  long long v = 0;
  for (; *s >= '0' && *s <= '9'; ++s) {
    v = v * 10 + (*s - '0');
    if (v > max) return false;
  }
  *out = v;
  *p = s;
  return true;
}

bool parseBeat(const std::string& text, Beat* beat) {
  const char* p = text.c_str();
  return parseField(&p, 1LL << 50, &beat->stampMs) && *p++ == ' ' && parseField(&p, 1LL << 31, &beat->periodMs) &&
         *p++ == ' ' && parseField(&p, 1LL << 31, &beat->pid) && *p == '\0' && beat->periodMs > 0;
}

}  // namespace

bool parseNode(const std::string& text, gmxnode* node) {
  if (text.empty() || text.size() > 5 || text.find_first_not_of("0123456789") != std::string::npos ||
      (text.size() > 1 && text[0] == '0'))
    return false;
  unsigned long n = std::strtoul(text.c_str(), nullptr, 10);
  if (n >= GMX_MAX_NODES) return false;
  *node = static_cast<gmxnode>(n);
  return true;
}

namespace {

class RegistryBackend : public Backend {
 public:
  int open(std::string* why) { return reg_.open(why); }

  int join(const std::string& group, gmxnode node, int periodMs, std::string* why) override {
    periodMs_ = periodMs;
    return write(group, node, why);
  }

  int beat(const std::string& group, gmxnode node, std::string* why) override { return write(group, node, why); }

  int leave(const std::string& group, gmxnode node, std::string* why) override {
    // A daemon started later under the same node name may own the key by now: leave it be.
    std::string text;
    Beat b;
    int rc = reg_.get(memberKey(group, node), &text);
    if (rc == PRVRG_ERR_NO_KEY || (rc == PRVRG_SUCC && (!parseBeat(text, &b) || b.pid != getpid())))
      return GMX_SUCC;
    if (rc == PRVRG_SUCC) rc = reg_.remove(memberKey(group, node));
    if (rc == PRVRG_SUCC) return GMX_SUCC;
    *why = reg_.lastError();
    return GMX_ERR_REGISTRY;
  }

  int members(const std::string& group, std::vector<gmxnode>* nodes, std::string* why) override {
    nodes->clear();
    std::vector<std::string> names;
    int rc = reg_.subkeys(groupKey(group), &names);
    if (rc != PRVRG_SUCC) {
      *why = reg_.lastError();
      return GMX_ERR_REGISTRY;
    }
    long long now = wallClockMs();
    for (const std::string& name : names) {
      gmxnode node = 0;
      std::string text;
      Beat b;
      if (!parseNode(name, &node) || reg_.get(groupKey(group) + "." + name, &text) != PRVRG_SUCC ||
          !parseBeat(text, &b))
        continue;
      // Three periods without a beat: the member is gone, whether it said so or not.
      if (now - b.stampMs <= 3 * b.periodMs) nodes->push_back(node);
    }
    return GMX_SUCC;
  }

 private:
  int write(const std::string& group, gmxnode node, std::string* why) {
    std::string value =
        std::to_string(wallClockMs()) + " " + std::to_string(periodMs_) + " " + std::to_string(getpid());
    if (reg_.set(memberKey(group, node), value) == PRVRG_SUCC) return GMX_SUCC;
    *why = reg_.lastError();
    return GMX_ERR_REGISTRY;
  }

  Registry reg_;
  int periodMs_ = GMX_HEARTBEAT_MS;
};

}  // namespace

std::unique_ptr<Backend> makeRegistryBackend(std::string* why) {
  std::unique_ptr<RegistryBackend> b(new RegistryBackend);
  if (b->open(why) != GMX_SUCC) return nullptr;
  return b;
}

std::unique_ptr<Backend> makeBackend(std::string* why) {
  return zkMembership() ? makeZkBackend(why) : makeRegistryBackend(why);
}

}  // namespace gmx
