#include "platform/osl/osl.h"

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

struct oslctx {
  pid_t pid;
};

struct osl_filelist_t {
  std::vector<std::string> names;
  std::size_t next;
};

namespace {

oslctx g_processCtx = {0};

void copyField(char* out, std::size_t size, const char* text) {
  std::snprintf(out, size, "%s", text != nullptr ? text : "");
}

int fail(osrec* e, int category, const char* op, const char* loc, int err, const char* other) {
  if (e != nullptr) {
    e->category_osrec = category;
    copyField(e->opname_osrec, sizeof e->opname_osrec, op);
    copyField(e->location_osrec, sizeof e->location_osrec, loc);
    copyField(e->otherinfo_osrec, sizeof e->otherinfo_osrec,
              other != nullptr ? other : (err != 0 ? std::strerror(err) : ""));
    e->depinfo_osrec = err;
  }
  return OSL_ERR_FAIL;
}

int copyName(const char* name, char* buf, std::size_t size, std::size_t* outlen) {
  std::size_t len = std::strlen(name);
  if (buf == nullptr || len >= size) return OSL_ERR_FAIL;
  std::memcpy(buf, name, len + 1);
  if (outlen != nullptr) *outlen = len;
  return OSL_SUCC;
}

// getpwuid_r and friends want a buffer whose size the system suggests.
std::vector<char> dbBuffer(int which) {
  long n = sysconf(which);
  return std::vector<char>(n > 0 ? static_cast<std::size_t>(n) : 16384);
}

bool lookupUser(uid_t uid, passwd* pw, std::vector<char>& buf) {
  passwd* result = nullptr;
  return getpwuid_r(uid, pw, buf.data(), buf.size(), &result) == 0 && result != nullptr;
}

bool lookupGroup(gid_t gid, group* gr, std::vector<char>& buf) {
  group* result = nullptr;
  return getgrgid_r(gid, gr, buf.data(), buf.size(), &result) == 0 && result != nullptr;
}

}  // namespace

std::string osrecFormat(const osrec& e) {
  char line[512];
  std::snprintf(line, sizeof line, "category: %d, operation: %s, loc: %s, OS error: %d, other: %s\n",
                e.category_osrec, e.opname_osrec, e.location_osrec, e.depinfo_osrec,
                e.otherinfo_osrec);
  return line;
}

int osl_meta_init(osrec* e, int /*flags*/) {
  if (e != nullptr) std::memset(e, 0, sizeof *e);
  g_processCtx.pid = getpid();
  // A daemon that vanishes must never kill a client through a write on a dead socket.
  if (signal(SIGPIPE, SIG_IGN) == SIG_ERR) return fail(e, OSL_CAT_INIT, "osl_meta_init", "signal", errno, nullptr);
  return OSL_SUCC;
}

oslctx* osl_process_ctx() { return &g_processCtx; }

oslctx* ctxgGet(int which) { return which == CLSG_OSL ? &g_processCtx : nullptr; }

int osl_stdio_nullify(int /*ctx*/, osrec* e, int mask) {
  int devnull = open("/dev/null", O_WRONLY);
  if (devnull < 0) return fail(e, OSL_CAT_IO, "osl_stdio_nullify", "open", errno, "/dev/null");
  std::fflush(stdout);
  std::fflush(stderr);
  int rc = OSL_SUCC;
  if ((mask & 2) != 0 && dup2(devnull, STDOUT_FILENO) < 0) rc = fail(e, OSL_CAT_IO, "osl_stdio_nullify", "dup2", errno, "stdout");
  if ((mask & 4) != 0 && dup2(devnull, STDERR_FILENO) < 0) rc = fail(e, OSL_CAT_IO, "osl_stdio_nullify", "dup2", errno, "stderr");
  close(devnull);
  return rc;
}

int osl_path_is_rooted(osrec* e, int /*flags*/, const char* path, int* rooted) {
  if (path == nullptr || rooted == nullptr) return fail(e, OSL_CAT_IO, "osl_path_is_rooted", "args", EINVAL, nullptr);
  *rooted = path[0] == '/' ? 1 : 0;
  return OSL_SUCC;
}

int osl_pid_get_self(oslctx*, osrec*, int, osl_pid_t* pid) {
  *pid = getpid();
  return OSL_SUCC;
}

int osl_pid_get_parent(oslctx*, osrec*, int, osl_pid_t* pid) {
  *pid = getppid();
  return OSL_SUCC;
}

#ifdef VYN_COVERAGE
extern "C" void __gcov_dump();
#endif

void osl_flush_coverage() {
#ifdef VYN_COVERAGE
  // A coverage build writes its line counts at exit(); a process that ends at once would lose
  // them, and with them what the tests of its end showed.
  __gcov_dump();
#endif
}

void osl_exit_fast(int code, int) {
  osl_flush_coverage();
  _exit(code);
}

int osl_idq_get_user_id(oslctx*, osrec*, int, osl_user_id* out) {
  out->uid = geteuid();
  return OSL_SUCC;
}

int osl_idq_get_user_name(oslctx* ctx, osrec* e, int flags, char* buf, std::size_t size,
                          std::size_t* outlen) {
  osl_user_id self{geteuid()};
  return osl_iddb_get_user_name_by_id(ctx, e, flags, &self, buf, size, outlen);
}

int osl_idq_get_primary_privgrp_name(oslctx*, osrec* e, int, char* buf, std::size_t size,
                                     std::size_t* outlen) {
  passwd pw;
  std::vector<char> pbuf = dbBuffer(_SC_GETPW_R_SIZE_MAX);
  if (!lookupUser(geteuid(), &pw, pbuf)) {
    fail(e, OSL_CAT_ID, "osl_idq_get_primary_privgrp_name", "getpwuid", errno, "no password entry");
    return OSL_ERR_NOGROUP;
  }
  group gr;
  std::vector<char> gbuf = dbBuffer(_SC_GETGR_R_SIZE_MAX);
  if (!lookupGroup(pw.pw_gid, &gr, gbuf)) {
    fail(e, OSL_CAT_ID, "osl_idq_get_primary_privgrp_name", "getgrgid", errno, "no group entry");
    return OSL_ERR_NOGROUP;
  }
  return copyName(gr.gr_name, buf, size, outlen);
}

int osl_iddb_get_user_name_by_id(oslctx*, osrec* e, int, const osl_user_id* id, char* buf,
                                 std::size_t size, std::size_t* outlen) {
  passwd pw;
  std::vector<char> pbuf = dbBuffer(_SC_GETPW_R_SIZE_MAX);
  if (id == nullptr || !lookupUser(id->uid, &pw, pbuf))
    return fail(e, OSL_CAT_ID, "osl_iddb_get_user_name_by_id", "getpwuid", errno, "no such user");
  return copyName(pw.pw_name, buf, size, outlen);
}

int osl_iddb_get_privgrp_name_by_id(oslctx*, osrec* e, int, const osl_privgrp_id* id, char* buf,
                                    std::size_t size, std::size_t* outlen) {
  group gr;
  std::vector<char> gbuf = dbBuffer(_SC_GETGR_R_SIZE_MAX);
  if (id == nullptr || !lookupGroup(id->gid, &gr, gbuf))
    return fail(e, OSL_CAT_ID, "osl_iddb_get_privgrp_name_by_id", "getgrgid", errno, "no such group");
  return copyName(gr.gr_name, buf, size, outlen);
}

int osl_iddb_get_privgrp_id_by_name(oslctx*, osrec* e, int, const char* name, osl_privgrp_id* out) {
  group gr;
  group* result = nullptr;
  std::vector<char> gbuf = dbBuffer(_SC_GETGR_R_SIZE_MAX);
  if (name == nullptr || out == nullptr ||
      getgrnam_r(name, &gr, gbuf.data(), gbuf.size(), &result) != 0 || result == nullptr)
    return fail(e, OSL_CAT_ID, "osl_iddb_get_privgrp_id_by_name", "getgrnam", errno, "no such group");
  out->gid = gr.gr_gid;
  return OSL_SUCC;
}

int osl_iddb_is_a_privgrp_member_by_id(oslctx*, osrec* e, int, const osl_user_id* user,
                                       const osl_privgrp_id* grp, int* member) {
  passwd pw;
  std::vector<char> pbuf = dbBuffer(_SC_GETPW_R_SIZE_MAX);
  if (user == nullptr || grp == nullptr || member == nullptr || !lookupUser(user->uid, &pw, pbuf))
    return fail(e, OSL_CAT_ID, "osl_iddb_is_a_privgrp_member", "getpwuid", errno, "no such user");
  int count = 64;
  std::vector<gid_t> groups(count);
  if (getgrouplist(pw.pw_name, pw.pw_gid, groups.data(), &count) < 0) {
    groups.resize(count);
    if (getgrouplist(pw.pw_name, pw.pw_gid, groups.data(), &count) < 0)
      return fail(e, OSL_CAT_ID, "osl_iddb_is_a_privgrp_member", "getgrouplist", errno, nullptr);
  }
  groups.resize(count);
  *member = std::find(groups.begin(), groups.end(), grp->gid) != groups.end() ? 1 : 0;
  return OSL_SUCC;
}

int osl_iddb_has_ha_privs(oslctx*, osrec* e, int, const osl_user_id* user, int* privs) {
  if (user == nullptr || privs == nullptr) return fail(e, OSL_CAT_ID, "osl_iddb_has_ha_privs", "args", EINVAL, nullptr);
  *privs = user->uid == 0 ? 1 : 0;
  return OSL_SUCC;
}

int osl_iddb_compare_user_id(const osl_user_id* a, const osl_user_id* b) {
  if (a == nullptr || b == nullptr) return 1;
  return a->uid == b->uid ? 0 : 1;
}

int osl_process_spawn(oslctx*, osrec* e, int, const char* program, int argc, char* const argv[],
                      osl_process_handle* handle) {
  if (program == nullptr || handle == nullptr || argc < 1 || argv == nullptr)
    return fail(e, OSL_CAT_PROCESS, "osl_process_spawn", "args", EINVAL, nullptr);
  std::vector<char*> args(argv, argv + argc);
  args.push_back(nullptr);
  std::fflush(nullptr);
  pid_t pid = fork();
  if (pid < 0) return fail(e, OSL_CAT_PROCESS, "osl_process_spawn", "fork", errno, program);
  if (pid == 0) {
    execv(program, args.data());
    _exit(127);
  }
  handle->pid = pid;
  return OSL_SUCC;
}

int osl_process_join(oslctx*, osrec* e, osl_process_handle* handle, int* status) {
  int raw = 0;
  pid_t got;
  do {
    got = waitpid(handle->pid, &raw, 0);
  } while (got < 0 && errno == EINTR);
  if (got < 0) return fail(e, OSL_CAT_PROCESS, "osl_process_join", "waitpid", errno, nullptr);
  if (status != nullptr) *status = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
  return OSL_SUCC;
}

int osl_filelist_open(oslctx*, osrec* e, int, const char* dir, const char* pattern,
                      const char* ext, osl_filelist_t** list) {
  DIR* d = opendir(dir != nullptr ? dir : "");
  if (d == nullptr) return fail(e, OSL_CAT_IO, "osl_filelist_open", "opendir", errno, dir);
  std::string prefix = pattern != nullptr ? pattern : "";
  std::string suffix = (ext != nullptr && ext[0] != '\0') ? std::string(".") + ext : std::string();
  auto* l = new osl_filelist_t{{}, 0};
  errno = 0;
  while (dirent* ent = readdir(d)) {
    std::string name = ent->d_name;
    if (name == "." || name == "..") continue;
    if (name.compare(0, prefix.size(), prefix) != 0) continue;
    if (name.size() < suffix.size() || name.compare(name.size() - suffix.size(), suffix.size(), suffix) != 0) continue;
    l->names.push_back(std::move(name));
  }
  int err = errno;
  closedir(d);
  if (err != 0) {
    delete l;
    return fail(e, OSL_CAT_IO, "osl_filelist_open", "readdir", err, dir);
  }
  std::sort(l->names.begin(), l->names.end());
  *list = l;
  return OSL_SUCC;
}

int osl_filelist_getentry(oslctx*, osrec* e, int, std::string* name, osl_filelist_t* list) {
  if (list == nullptr || name == nullptr) return fail(e, OSL_CAT_IO, "osl_filelist_getentry", "args", EINVAL, nullptr);
  if (list->next >= list->names.size()) return OSL_FILELIST_END;
  *name = list->names[list->next++];
  return OSL_SUCC;
}

int osl_filelist_close(oslctx*, osrec*, int, osl_filelist_t* list) {
  delete list;
  return OSL_SUCC;
}
