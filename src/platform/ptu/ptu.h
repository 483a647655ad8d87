#ifndef PLATFORM_PTU_PTU_H
#define PLATFORM_PTU_PTU_H

// Path utilities and the file layer: composing paths into fixed buffers, testing, making
// directories, splitting names, removing, and copying or replacing files safely.
#include <cstddef>
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

// Writes `data` to a new file beside `path`, syncs it and renames it over `path`, so that a
// reader sees either the old content or the new, never a part. 0, or -1 with errno set.
int ptu_replaceFile(const std::string& path, const std::string& data, unsigned mode);
// Copies `source` over `dest` the same way. 0, or PTU_ERR_NOROOM on failure.
int ptu_copyFile(const std::string& source, const std::string& dest);

#endif
