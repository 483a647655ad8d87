#ifndef CAA_LIB_CAA_FILE_H
#define CAA_LIB_CAA_FILE_H

// One named file with the few operations the command needs: existence, open, whole-file read,
// close, removal and backup. The file owns the descriptor it opens: it is closed by closeFile or,
// on any other way out, by the destructor. So a CaaFile is moved, never copied.
#include <sys/types.h>

#include <string>

#include "platform/osl/osl_fd.h"

namespace CAA {

class CaaLogger;

class CaaFile {
 public:
  CaaFile();
  explicit CaaFile(const std::string& fname);
  CaaFile(const std::string& fname, CaaLogger* logger);
  // dir/name.ext; no dot for an empty extension.
  CaaFile(const std::string& pname, const std::string& fname, const std::string& ext);
  CaaFile(const std::string& pname, const std::string& fname, const std::string& ext, CaaLogger* logger);
  CaaFile(CaaFile&&) = default;
  CaaFile& operator=(CaaFile&&) = default;
  CaaFile(const CaaFile&) = delete;
  CaaFile& operator=(const CaaFile&) = delete;
  virtual ~CaaFile();

  std::string getName() const { return filename; }
  bool exists() const;
  // open(2) of the file; the descriptor, or -1. The file keeps the descriptor (a second open
  // closes the first) and lends it out: callers never close it themselves.
  int openFile(const int& type, const mode_t& mode);
  // Appends the whole content of ifd to str, as a text that ends at its first zero byte.
  // The number of bytes read, or -1 with str unchanged.
  int readFile(int& ifd, std::string& str);
  int closeFile();
  // Closes ifd; the file's own descriptor is closed through its owner, once.
  int closeFile(int& ifd);
  bool remove();
  // Copies the file beside itself with backup_ext in place of its extension; a second backup
  // replaces the first. The copy is written beside the backup and renamed over it, so a failed
  // copy leaves the earlier backup whole. Without sync_dir the directory is not synced after the
  // rename: for a caller that replaces the file itself next, whose sync of the directory then
  // makes both lasting at once.
  bool createBackup(const std::string& backup_ext, bool sync_dir = true);
  // Replaces the content with buf and a newline: 0, or 1 after "Can't open file to write %s\n".
  int twrite(char* buf);
  // The first line into buf: 0, or 1 ("Can't open file %s\n" when the open fails).
  int readl(char* buf, int size);
  // Opens for appending, created if missing: the descriptor, or a negative value after a line
  // on standard error. This descriptor is the caller's to close.
  int getFD();
  int getDescriptor() const { return fd.get(); }

  bool operator==(const CaaFile& other) const { return filename == other.filename; }
  bool operator!=(const CaaFile& other) const { return filename != other.filename; }

 private:
  [[maybe_unused]] CaaLogger* caa_logger;
  std::string filename;
  OslFd fd;
};

}  // namespace CAA

#endif
