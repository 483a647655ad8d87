#include "platform/ptu/ptu.h"

#include <fcntl.h>
#include <libgen.h>
#include <sys/stat.h>
#include <dirent.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/osl/osl_fd.h"

namespace {

int put(char* out, std::size_t size, const std::string& text) {
  if (out == nullptr || text.size() >= size) return PTU_ERR_NOROOM;
  std::memcpy(out, text.c_str(), text.size() + 1);
  return PTU_SUCC;
}

bool isDir(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

int writeAll(int fd, const char* data, std::size_t length) {
  while (length > 0) {
    ssize_t n = write(fd, data, length);
    if (n < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    data += n;
    length -= static_cast<std::size_t>(n);
  }
  return 0;
}

int syncDirOf(const std::string& path) {
  std::string copy = path;
  std::string dir = dirname(&copy[0]);
  OslFd fd(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd) return -1;
  return fsync(fd.get());
}

const char* const TEMP_MARK = ".tmp.";

// Whether `name` is a temporary name of ptu_replaceFile, and the base name and pid of its writer.
bool tempOwner(const char* name, std::string* base, pid_t* pid) {
  std::size_t len = std::strlen(name);
  std::size_t mark = std::strlen(TEMP_MARK);
  if (len < 1 + mark + 1 || name[0] != '.') return false;
  std::size_t digits = len;
  while (digits > 0 && name[digits - 1] >= '0' && name[digits - 1] <= '9') --digits;
  if (digits == len || len - digits > 9 || digits < 1 + mark) return false;
  if (std::strncmp(name + digits - mark, TEMP_MARK, mark) != 0) return false;
  base->assign(name + 1, digits - mark - 1);
  *pid = static_cast<pid_t>(std::atol(name + digits));
  return *pid > 0;
}

// What a new file is to look like: its mode, and the owner and group of the file it replaces or
// copies. `strict`: an owner that cannot be kept is a failure, not a loss.
struct Attributes {
  unsigned mode;
  bool keep_owner;
  uid_t uid;
  gid_t gid;
  bool strict;
};

// Opens a new temporary file for `path`. One left by an earlier process that had our pid is ours
// to remove; anything else of that name (a link, another user's file) makes the write fail.
int openTemp(const std::string& tmp) {
  int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
  int fd = open(tmp.c_str(), flags, 0600);
  if (fd >= 0 || errno != EEXIST) return fd;
  struct stat st;
  if (lstat(tmp.c_str(), &st) != 0 || !S_ISREG(st.st_mode) || st.st_uid != geteuid()) {
    errno = EEXIST;
    return -1;
  }
  if (unlink(tmp.c_str()) != 0) return -1;
  return open(tmp.c_str(), flags, 0600);
}

int writeBeside(const std::string& path, const std::string& data, const Attributes& attrs, bool overwrite,
                bool sync_dir = true) {
  std::string tmp = ptu_tempName(path);
  OslFd fd(openTemp(tmp));
  if (!fd) return -1;
  int rc = 0;
  struct stat now;
  if (fstat(fd.get(), &now) != 0) rc = -1;
  if (rc == 0 && attrs.keep_owner && (now.st_uid != attrs.uid || now.st_gid != attrs.gid) &&
      fchown(fd.get(), attrs.uid, attrs.gid) != 0 && attrs.strict) {
    rc = -1;
    errno = EPERM;
  }
  // The mode comes after the owner, as a change of owner clears the set-id bits.
  if (rc == 0 && (fchmod(fd.get(), static_cast<mode_t>(attrs.mode)) != 0 ||
                  writeAll(fd.get(), data.data(), data.size()) != 0 || fsync(fd.get()) != 0))
    rc = -1;
  int saved = errno;
  if (fd.close() != 0 && rc == 0) {
    rc = -1;
    saved = errno;
  }
  // Without overwrite the name is taken by link, which fails if it exists: a test before a rename
  // would let two writers both believe they made the file.
  if (rc == 0 && (overwrite ? rename(tmp.c_str(), path.c_str()) : link(tmp.c_str(), path.c_str())) != 0) {
    rc = -1;
    saved = errno;
  }
  if (rc != 0 || !overwrite) unlink(tmp.c_str());
  if (rc != 0) {
    errno = saved;
    return -1;
  }
  if (sync_dir) syncDirOf(path);
  return 0;
}

}  // namespace

int ptu_addToPath(char* out, std::size_t size, const char* base, ...) {
  if (base == nullptr) return PTU_ERR_FAIL;
  std::string path = base;
  va_list ap;
  va_start(ap, base);
  while (const char* part = va_arg(ap, const char*)) {
    if (!path.empty() && path.back() != '/') path += '/';
    path += part;
  }
  va_end(ap);
  if (path.empty() || path.back() != '/') path += '/';
  return put(out, size, path);
}

int ptu_getFile(char* out, std::size_t size, const char* dir, const char* name, const char* ext) {
  std::string path = dir != nullptr ? dir : "";
  if (!path.empty() && path.back() != '/') path += '/';
  path += name != nullptr ? name : "";
  if (ext != nullptr && ext[0] != '\0') {
    path += '.';
    path += ext;
  }
  return put(out, size, path);
}

int ptu_fileExists(const char* path) {
  struct stat st;
  return (path != nullptr && stat(path, &st) == 0) ? 0 : -1;
}

int ptu_createDir(const char* path) {
  if (path == nullptr || path[0] == '\0') return PTU_ERR_NOROOM;
  std::string p = path;
  if (isDir(p)) return PTU_SUCC;
  for (std::size_t i = 1; i <= p.size(); ++i) {
    if (i != p.size() && p[i] != '/') continue;
    std::string prefix = p.substr(0, i);
    if (mkdir(prefix.c_str(), 0755) != 0 && errno != EEXIST) return PTU_ERR_NOROOM;
  }
  return isDir(p) ? PTU_SUCC : PTU_ERR_NOROOM;
}

int ptu_readStdin(char* buf, std::size_t size) {
  std::size_t got = 0;
  while (got < size) {
    ssize_t n = read(STDIN_FILENO, buf + got, size - got);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return -1;
    if (n == 0) break;
    got += static_cast<std::size_t>(n);
  }
  return static_cast<int>(got);
}

int Osfpfn(char* name, char* dir, char* ext, char* version, const char* path, osrec* err, int) {
  auto failWith = [err](const char* what) {
    if (err != nullptr) {
      std::memset(err, 0, sizeof *err);
      err->category_osrec = OSL_CAT_IO;
      std::snprintf(err->opname_osrec, sizeof err->opname_osrec, "Osfpfn");
      std::snprintf(err->location_osrec, sizeof err->location_osrec, "split");
      std::snprintf(err->otherinfo_osrec, sizeof err->otherinfo_osrec, "%s", what);
      err->depinfo_osrec = ENAMETOOLONG;
    }
    return 1;
  };
  const std::size_t kBuf = 512;
  if (path == nullptr || path[0] == '\0') return failWith("empty path");
  std::string p = path;
  std::size_t slash = p.rfind('/');
  std::string d = slash == std::string::npos ? std::string() : p.substr(0, slash + 1);
  std::string base = slash == std::string::npos ? p : p.substr(slash + 1);
  std::size_t dot = base.rfind('.');
  std::string n = (dot == std::string::npos || dot == 0) ? base : base.substr(0, dot);
  std::string x = (dot == std::string::npos || dot == 0) ? std::string() : base.substr(dot + 1);
  if (d.size() >= kBuf || n.size() >= kBuf || x.size() >= kBuf) return failWith("path too long");
  std::memcpy(dir, d.c_str(), d.size() + 1);
  std::memcpy(name, n.c_str(), n.size() + 1);
  std::memcpy(ext, x.c_str(), x.size() + 1);
  if (version != nullptr) version[0] = '\0';
  return 0;
}

int OsfRemove(const char* path) { return (path != nullptr && unlink(path) == 0) ? 0 : -1; }

std::string ptu_tempName(const std::string& path) {
  std::size_t slash = path.rfind('/');
  std::string dir = slash == std::string::npos ? std::string() : path.substr(0, slash + 1);
  std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
  return dir + "." + base + TEMP_MARK + std::to_string(getpid());
}

int ptu_replaceFile(const std::string& path, const std::string& data, unsigned mode, bool overwrite) {
  struct stat old;
  bool had = lstat(path.c_str(), &old) == 0;
  if (had && !overwrite) {
    errno = EEXIST;
    return -1;
  }
  if (had && !S_ISREG(old.st_mode)) {
    errno = EPERM;
    return -1;
  }
  Attributes attrs{had ? old.st_mode & 07777 : mode, had, had ? old.st_uid : 0, had ? old.st_gid : 0, true};
  return writeBeside(path, data, attrs, overwrite);
}

int ptu_copyFile(const std::string& source, const std::string& dest, bool sync_dir) {
  OslFd fd(open(source.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (!fd) return PTU_ERR_NOROOM;
  struct stat st;
  if (fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) return PTU_ERR_NOROOM;
  std::string data;
  char buf[65536];
  for (;;) {
    ssize_t n = read(fd.get(), buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return PTU_ERR_NOROOM;
    if (n == 0) break;
    data.append(buf, static_cast<std::size_t>(n));
  }
  // A copy is a fresh file: it takes the source's attributes, not those of an earlier copy, and
  // a caller who may not give it the source's owner still gets the copy.
  Attributes attrs{st.st_mode & 07777, true, st.st_uid, st.st_gid, false};
  return writeBeside(dest, data, attrs, true, sync_dir) == 0 ? PTU_SUCC : PTU_ERR_NOROOM;
}

void ptu_scanDir(const std::string& dir, const std::function<void(int dfd, const char* name)>& visit) {
  OslFd dfd(open(dir.empty() ? "." : dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!dfd) return;
  // The stream gets a descriptor of its own, so that dfd stays the one owner of dfd.
  DIR* d = fdopendir(dup(dfd.get()));
  if (d == nullptr) return;
  while (struct dirent* e = readdir(d)) visit(dfd.get(), e->d_name);
  closedir(d);
}

bool ptu_removeStaleTemp(int dfd, const char* name, const std::function<bool(const std::string& base)>& ours) {
  pid_t pid = 0;
  std::string base;
  if (!tempOwner(name, &base, &pid) || pid == getpid() || !ours(base)) return false;
  struct stat st;
  if (fstatat(dfd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) return false;
  if (!S_ISREG(st.st_mode) || st.st_uid != geteuid()) return false;
  if (kill(pid, 0) == 0 || errno != ESRCH) return false;
  return unlinkat(dfd, name, 0) == 0;
}

int ptu_removeStaleTemps(const std::string& dir, const std::function<bool(const std::string& base)>& ours) {
  int removed = 0;
  ptu_scanDir(dir, [&](int dfd, const char* name) {
    if (ptu_removeStaleTemp(dfd, name, ours)) ++removed;
  });
  return removed;
}
