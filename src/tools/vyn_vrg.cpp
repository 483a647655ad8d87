// vyn_vrg: the administrator's tool for the registry store named by $VYN_REGISTRY.
//   get KEY          print the key's value
//   set KEY VALUE    set a text value, creating the store and any missing keys on the way
//   list [KEY]       the full names of KEY's subkeys, or of the whole tree, with their values
//   delete KEY       delete the key and everything below it
//   dump [KEY]       KEY (or the whole tree) and everything below it as an indented outline of
//                    "name = value" lines, resource names shown as their users know them
// Exit status: 0 done, 1 failed (a missing key or store included), 2 bad arguments.
#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "caa/lib/caavrg.h"
#include "platform/registry/prvrg.h"

namespace {

void usage() {
  std::fprintf(stderr,
               "usage: vyn_vrg get KEY\n"
               "       vyn_vrg set KEY VALUE\n"
               "       vyn_vrg list [KEY]\n"
               "       vyn_vrg delete KEY\n"
               "       vyn_vrg dump [KEY]\n"
               "The store is $VYN_REGISTRY (default /var/lib/vyn/registry.db).\n");
}

std::string lastError(prvrg_ctx* ctx) {
  char text[1024] = "";
  std::size_t len = sizeof text;
  int code = 0;
  prvrg_get_last_error(ctx, &code, text, &len);
  return text;
}

// A handle at DEFAULT level; a store that cannot be written still serves reads.
prvrg_ctx* openStore(int flags) {
  char err[1024] = "";
  std::size_t len = sizeof err;
  prvrg_ctx* ctx = nullptr;
  if (prvrg_init_ext(&ctx, PRVRG_LEVEL_DEFAULT, err, &len, flags) != PRVRG_SUCC) {
    std::fprintf(stderr, "vyn_vrg: %s\n", err);
    return nullptr;
  }
  return ctx;
}

int failed(prvrg_ctx* ctx, int rc, const char* what, const char* key) {
  if (rc == PRVRG_ERR_NO_KEY)
    std::fprintf(stderr, "vyn_vrg: key %s does not exist\n", key);
  else
    std::fprintf(stderr, "vyn_vrg: %s %s failed (%d): %s\n", what, key, rc, lastError(ctx).c_str());
  return 1;
}

// The value as printable text, or false if the key holds none.
bool valueText(prvrg_ctx* ctx, prvrg_key* key, std::string* out, int* rc) {
  std::vector<char> buf(256);
  std::size_t len = buf.size();
  int type = 0;
  *rc = prvrg_get_value(ctx, key, &type, buf.data(), &len);
  if (*rc == PRVRG_ERR_BUFFER) {
    buf.resize(len);
    *rc = prvrg_get_value(ctx, key, &type, buf.data(), &len);
  }
  if (*rc != PRVRG_SUCC) return false;
  if (type == prvrg_dtype_ZELTEXT) {
    *out = std::string(buf.data(), len ? len - 1 : 0);
  } else if (type == prvrg_dtype_UB4 && len == 4) {
    ub4 v;
    std::memcpy(&v, buf.data(), 4);
    *out = std::to_string(v);
  } else {
    *out = "<value of type " + std::to_string(type) + ", " + std::to_string(len) + " bytes>";
  }
  return true;
}

int walk(prvrg_ctx* ctx, const std::string& name, bool recurse) {
  prvrg_key* key = nullptr;
  int rc = prvrg_open_key(ctx, &key, name.c_str());
  if (rc != PRVRG_SUCC) return failed(ctx, rc, "open", name.c_str());
  int status = 0;
  std::vector<char> sub(1024);
  for (;;) {
    std::size_t len = sub.size();
    rc = prvrg_enum_subkey(ctx, key, sub.data(), &len, nullptr);
    if (rc == PRVRG_ERR_BUFFER) {
      sub.resize(len);
      continue;
    }
    if (rc == PRVRG_ERR_NO_MORE) break;
    if (rc != PRVRG_SUCC) {
      status = failed(ctx, rc, "list", name.c_str());
      break;
    }
    std::string full = name.empty() ? sub.data() : name + "." + sub.data();
    prvrg_key* child = nullptr;
    std::string value;
    if (prvrg_open_key(ctx, &child, full.c_str()) == PRVRG_SUCC && valueText(ctx, child, &value, &rc))
      std::printf("%s = %s\n", full.c_str(), value.c_str());
    else
      std::printf("%s\n", full.c_str());
    prvrg_close_key(ctx, child);
    if (recurse && walk(ctx, full, true) != 0) status = 1;
  }
  prvrg_close_key(ctx, key);
  return status;
}

// Whether the subkeys of `name` are resources, whose key parts spell a dot as "!".
bool holdsResources(const std::string& name) {
  if (name == CAARESCUR || name == CAARESHIS || name == CAARESSEC) return true;
  const std::string stage = CAARESSTAGE;
  return name.size() > stage.size() && name.compare(0, stage.size(), stage) == 0 &&
         name.find_first_not_of("0123456789", stage.size()) == std::string::npos;
}

void printLine(const std::string& indent, const std::string& shown, prvrg_ctx* ctx, prvrg_key* key) {
  std::string value;
  int rc = 0;
  if (key != nullptr && valueText(ctx, key, &value, &rc))
    std::printf("%s%s = %s\n", indent.c_str(), shown.c_str(), value.c_str());
  else
    std::printf("%s%s\n", indent.c_str(), shown.c_str());
}

// The subkeys of the open key `name`, each a line two blanks further in, then its own subkeys.
int dumpBelow(prvrg_ctx* ctx, prvrg_key* key, const std::string& name, const std::string& indent) {
  std::vector<char> sub(1024);
  const bool resources = holdsResources(name);
  for (;;) {
    std::size_t len = sub.size();
    int rc = prvrg_enum_subkey(ctx, key, sub.data(), &len, nullptr);
    if (rc == PRVRG_ERR_BUFFER) {
      sub.resize(len);
      continue;
    }
    // Another process may delete a key while it is shown: what is gone is no longer there.
    if (rc == PRVRG_ERR_NO_MORE || rc == PRVRG_ERR_NO_KEY) return 0;
    if (rc != PRVRG_SUCC) return failed(ctx, rc, "dump", name.c_str());
    std::string part = sub.data();
    std::string full = name.empty() ? part : name + "." + part;
    if (resources) caavrgResTrans(part, CAARESEXC, CAARESSP);
    prvrg_key* child = nullptr;
    rc = prvrg_open_key(ctx, &child, full.c_str());
    if (rc == PRVRG_ERR_NO_KEY) continue;
    if (rc != PRVRG_SUCC) return failed(ctx, rc, "open", full.c_str());
    printLine(indent, part, ctx, child);
    int status = dumpBelow(ctx, child, full, indent + "  ");
    prvrg_close_key(ctx, child);
    if (status != 0) return status;
  }
}

int dump(prvrg_ctx* ctx, const char* name) {
  const std::string top = name != nullptr ? name : "";
  prvrg_key* key = nullptr;
  int rc = prvrg_open_key(ctx, &key, top.c_str());
  if (rc != PRVRG_SUCC) return failed(ctx, rc, "open", top.c_str());
  std::string indent;
  if (!top.empty()) {
    printLine("", top, ctx, key);
    indent = "  ";
  }
  int status = dumpBelow(ctx, key, top, indent);
  prvrg_close_key(ctx, key);
  return status;
}

prvrg_security ownerSecurity() {
  prvrg_security sec{};
  sec.user_perm = 63;  // the owner may do everything; others rely on the store file's mode
  if (const passwd* pw = getpwuid(geteuid())) std::snprintf(sec.user_name, sizeof sec.user_name, "%s", pw->pw_name);
  if (const group* gr = getgrgid(getegid())) std::snprintf(sec.group_name, sizeof sec.group_name, "%s", gr->gr_name);
  return sec;
}

int run(prvrg_ctx* ctx, const std::string& cmd, const char* key, const char* value) {
  if (cmd == "set") {
    int rc = prvrg_create_n_set_key(ctx, nullptr, key, nullptr, nullptr, prvrg_dtype_ZELTEXT, value,
                                    std::strlen(value) + 1, ownerSecurity());
    return rc == PRVRG_SUCC ? 0 : failed(ctx, rc, "set", key);
  }
  if (cmd == "list") return walk(ctx, key ? key : "", key == nullptr);
  if (cmd == "dump") return dump(ctx, key);

  prvrg_key* k = nullptr;
  int rc = prvrg_open_key(ctx, &k, key);
  if (rc != PRVRG_SUCC) return failed(ctx, rc, "open", key);
  if (cmd == "get") {
    std::string text;
    if (valueText(ctx, k, &text, &rc)) std::printf("%s\n", text.c_str());
    else if (rc == PRVRG_ERR_NO_KEY) std::fprintf(stderr, "vyn_vrg: key %s holds no value\n", key);
    else failed(ctx, rc, "get", key);
  } else {
    rc = prvrg_delete_key(ctx, k, 1);
    if (rc != PRVRG_SUCC) failed(ctx, rc, "delete", key);
  }
  prvrg_close_key(ctx, k);
  return rc == PRVRG_SUCC ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  std::string cmd = argc > 1 ? argv[1] : "";
  bool ok = (cmd == "get" && argc == 3) || (cmd == "set" && argc == 4) || (cmd == "list" && argc <= 3) ||
            (cmd == "dump" && argc <= 3) ||
            (cmd == "delete" && argc == 3);
  if (!ok) {
    usage();
    return 2;
  }
  prvrg_ctx* ctx = openStore(cmd == "set" ? PRVRG_FLAG_CREATE : 0);
  if (ctx == nullptr) return 1;
  int status = run(ctx, cmd, argc > 2 ? argv[2] : nullptr, argc > 3 ? argv[3] : nullptr);
  prvrg_terminate(ctx);
  return status;
}
