#include "platform/ptu/ptu.h"

#include <fcntl.h>
#include <libgen.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

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
  int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY);
  if (fd < 0) return -1;
  int rc = fsync(fd);
  close(fd);
  return rc;
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

int ptu_replaceFile(const std::string& path, const std::string& data, unsigned mode) {
  std::string tmp = path + ".tmpXXXXXX";
  int fd = mkstemp(&tmp[0]);
  if (fd < 0) return -1;
  int rc = 0;
  if (fchmod(fd, static_cast<mode_t>(mode & ~0u)) != 0 || writeAll(fd, data.data(), data.size()) != 0 ||
      fsync(fd) != 0)
    rc = -1;
  int saved = errno;
  if (close(fd) != 0 && rc == 0) {
    rc = -1;
    saved = errno;
  }
  if (rc == 0 && rename(tmp.c_str(), path.c_str()) != 0) {
    rc = -1;
    saved = errno;
  }
  if (rc != 0) {
    unlink(tmp.c_str());
    errno = saved;
    return -1;
  }
  syncDirOf(path);
  return 0;
}

int ptu_copyFile(const std::string& source, const std::string& dest) {
  int fd = open(source.c_str(), O_RDONLY);
  if (fd < 0) return PTU_ERR_NOROOM;
  struct stat st;
  std::string data;
  char buf[65536];
  bool ok = fstat(fd, &st) == 0;
  while (ok) {
    ssize_t n = read(fd, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) ok = false;
    if (n <= 0) break;
    data.append(buf, static_cast<std::size_t>(n));
  }
  close(fd);
  if (!ok) return PTU_ERR_NOROOM;
  return ptu_replaceFile(dest, data, st.st_mode & 07777) == 0 ? PTU_SUCC : PTU_ERR_NOROOM;
}
