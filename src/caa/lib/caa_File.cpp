#include "caa/lib/caa_File.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "caa/lib/caa_Path.h"
#include "platform/osl/osl.h"
#include "platform/ptu/ptu.h"

namespace CAA {

namespace {

std::string compose(const std::string& dir, const std::string& name, const std::string& ext) {
  char buf[Path::buf_len];
  // A name that does not fit is cut off to nothing: callers bound names well below the limit.
  if (ptu_getFile(buf, sizeof buf, dir.c_str(), name.c_str(), ext.c_str()) != 0) return std::string();
  return buf;
}

}  // namespace

CaaFile::CaaFile() : caa_logger(nullptr) {}
CaaFile::CaaFile(const std::string& fname) : caa_logger(nullptr), filename(fname) {}
CaaFile::CaaFile(const std::string& fname, CaaLogger* logger) : caa_logger(logger), filename(fname) {}
CaaFile::CaaFile(const std::string& pname, const std::string& fname, const std::string& ext)
    : caa_logger(nullptr), filename(compose(pname, fname, ext)) {}
CaaFile::CaaFile(const std::string& pname, const std::string& fname, const std::string& ext, CaaLogger* logger)
    : caa_logger(logger), filename(compose(pname, fname, ext)) {}
CaaFile::~CaaFile() = default;

bool CaaFile::exists() const { return ptu_fileExists(filename.c_str()) == 0; }

int CaaFile::openFile(const int& type, const mode_t& mode) {
  fd.reset(open(filename.c_str(), type | O_CLOEXEC, mode));
  return fd.valid() ? fd.get() : -1;
}

int CaaFile::readFile(int& ifd, std::string& str) {
  struct stat st;
  if (fstat(ifd, &st) != 0) return -1;
  std::size_t size = static_cast<std::size_t>(st.st_size);
  std::vector<char> buf(size + 1);
  // Read until the size the file had, or its end; a file that grows meanwhile is read as it was.
  std::size_t got = 0;
  while (got < size) {
    ssize_t n = read(ifd, buf.data() + got, size - got);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return -1;
    if (n == 0) break;
    got += static_cast<std::size_t>(n);
  }
  buf[got] = '\0';
  str.append(buf.data());
  return static_cast<int>(got);
}

int CaaFile::closeFile() {
  if (!fd.valid()) {
    errno = EBADF;
    return -1;
  }
  return fd.close();
}

int CaaFile::closeFile(int& ifd) {
  if (fd.valid() && ifd == fd.get()) return fd.close();
  return close(ifd);
}

bool CaaFile::remove() { return OsfRemove(filename.c_str()) == 0; }

bool CaaFile::createBackup(const std::string& backup_ext, bool sync_dir) {
  char name[Path::buf_len], dir[Path::buf_len], ext[Path::buf_len], version[Path::buf_len];
  osrec err;
  if (Osfpfn(name, dir, ext, version, filename.c_str(), &err, 0) != 0) {
    std::fputs(osrecFormat(err).c_str(), stdout);
    return false;
  }
  char backup[Path::buf_len];
  if (ptu_getFile(backup, sizeof backup, dir, name, backup_ext.c_str()) != 0) return false;
  if (filename == backup) return false;
  return ptu_copyFile(filename, backup, sync_dir) == 0;
}

int CaaFile::twrite(char* buf) {
  std::string data = buf != nullptr ? buf : "";
  data += '\n';
  if (ptu_replaceFile(filename, data, 0644) != 0) {
    std::printf("Can't open file to write %s\n", filename.c_str());
    return 1;
  }
  return 0;
}

int CaaFile::readl(char* buf, int size) {
  std::FILE* f = std::fopen(filename.c_str(), "r");
  if (f == nullptr) {
    std::printf("Can't open file %s\n", filename.c_str());
    return 1;
  }
  bool ok = size > 0 && std::fgets(buf, size, f) != nullptr;
  std::fclose(f);
  if (!ok) return 1;
  buf[std::strcspn(buf, "\n")] = '\0';
  return 0;
}

int CaaFile::getFD() {
  int d = open(filename.c_str(), O_RDWR | O_CREAT | O_APPEND, 0644);
  if (d < 0) std::fprintf(stderr, "Unable to open file %s. %s\n", filename.c_str(), std::strerror(errno));
  return d;
}

}  // namespace CAA
