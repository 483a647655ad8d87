#ifndef PLATFORM_PTU_PTU_H
#define PLATFORM_PTU_PTU_H

// Path utilities and the file layer: composing paths into fixed buffers, testing, making
// directories, splitting names, removing, and copying or replacing files safely.
#include <cstddef>
#include <functional>
#include <string>

#include "platform/osl/osl.h"

enum {
  PTU_SUCC = 0,
  PTU_ERR_FAIL = -1,
  PTU_ERR_NOROOM = -2,  // the result does not fit, or the directory cannot be made
};

// Joins `base` and the parts (a null-terminated list) to a directory path ending in "/".
int ptu_addToPath(char* out, std::size_t size, const char* base, ...);
// Joins a directory, a name and an extension: dir/name.ext, with no dot for an empty or null
// extension. A separator is added only where the directory lacks one.
int ptu_getFile(char* out, std::size_t size, const char* dir, const char* name, const char* ext);
// 0 when the file exists.
int ptu_fileExists(const char* path);
// Makes the directory and its missing parents: 0 when it stands afterwards, PTU_ERR_NOROOM when not.
int ptu_createDir(const char* path);
// Reads at most `size` bytes of standard input; the number read, or -1.
int ptu_readStdin(char* buf, std::size_t size);

// Splits a path into directory (with its trailing "/"), name and extension; `version` is
// always empty. Each buffer holds 512 bytes. 0, or 1 with `err` filled.
int Osfpfn(char* name, char* dir, char* ext, char* version, const char* path, osrec* err, int flags);
// Removes a file: 0 when it was removed.
int OsfRemove(const char* path);

// Writes `data` to a new file beside `path`, syncs it and moves it to `path`, so that a reader
// sees either the old content or the new, never a part. The new file is named
// ".<name>.tmp.<pid>" while it is being written, so that one a killed writer leaves behind is
// recognised and removed by ptu_removeStaleTemps.
// A file that is replaced hands its owner, group and mode on to its successor; `mode` is that of
// a file that did not exist. When the owner cannot be kept (a caller who is not the superuser
// replacing another user's file), or `path` names something other than a regular file, nothing
// is changed and the result is -1 with errno EPERM.
// With `overwrite` false the new file is linked to `path` only if no file has that name: the
// result is then -1 with errno EEXIST, and the file that stands is untouched.
// 0, or -1 with errno set; the temporary file is gone either way.
int ptu_replaceFile(const std::string& path, const std::string& data, unsigned mode, bool overwrite = true);
// Copies `source` over `dest` the same way, with the mode, and where the caller may, the owner
// and group of `source`. 0, or PTU_ERR_NOROOM on failure. Without sync_dir the directory of
// `dest` is left for the caller to sync.
int ptu_copyFile(const std::string& source, const std::string& dest, bool sync_dir = true);
// The name ptu_replaceFile writes `path` under before it moves it into place.
std::string ptu_tempName(const std::string& path);
// Removes from `dir` the temporary files of writers that are gone: names ".<base>.tmp.<pid>"
// whose process no longer runs and whose <base> `ours` accepts (a directory may hold other
// programs' files of that form), and only regular files owned by the caller; a symbolic link is
// never followed. The number removed.
int ptu_removeStaleTemps(const std::string& dir, const std::function<bool(const std::string& base)>& ours);
// The same for one entry of a directory open as `dfd`: whether it was such a file and is gone.
bool ptu_removeStaleTemp(int dfd, const char* name, const std::function<bool(const std::string& base)>& ours);
// Calls `visit` with each name in `dir` (and the directory's descriptor), in one pass, so that
// several sweeps of a large directory read it once. Nothing is followed or opened but `dir`.
void ptu_scanDir(const std::string& dir, const std::function<void(int dfd, const char* name)>& visit);

#endif
