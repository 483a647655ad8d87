#include "platform/trace/dbgds.h"

#include <cxxabi.h>
#include <dlfcn.h>
#include <elf.h>
#include <execinfo.h>
#include <fcntl.h>
#include <link.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

// The function symbols of one object file, read from its .symtab (which dynamic symbols lack for
// functions of a program's own units).
struct SymbolFile {
  std::string path;
  bool relative = true;  // a shared object or PIE: symbol values are offsets from the load base
  struct Sym {
    std::uint64_t start, size;
    std::string name;
  };
  std::vector<Sym> syms;
};

bool readAt(int fd, void* buf, std::size_t len, off_t at) {
  return pread(fd, buf, len, at) == static_cast<ssize_t>(len);
}

void loadSymbols(SymbolFile& f) {
  int fd = open(f.path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return;
  Elf64_Ehdr eh;
  if (readAt(fd, &eh, sizeof eh, 0) && std::memcmp(eh.e_ident, ELFMAG, SELFMAG) == 0 &&
      eh.e_ident[EI_CLASS] == ELFCLASS64 && eh.e_shentsize == sizeof(Elf64_Shdr)) {
    f.relative = eh.e_type == ET_DYN;
    std::vector<Elf64_Shdr> sh(eh.e_shnum);
    if (readAt(fd, sh.data(), sh.size() * sizeof(Elf64_Shdr), static_cast<off_t>(eh.e_shoff))) {
      for (const Elf64_Shdr& s : sh) {
        if (s.sh_type != SHT_SYMTAB || s.sh_link >= sh.size()) continue;
        const Elf64_Shdr& strs = sh[s.sh_link];
        std::vector<Elf64_Sym> syms(s.sh_size / sizeof(Elf64_Sym));
        std::vector<char> names(strs.sh_size + 1, '\0');
        if (!readAt(fd, syms.data(), syms.size() * sizeof(Elf64_Sym), static_cast<off_t>(s.sh_offset)) ||
            !readAt(fd, names.data(), strs.sh_size, static_cast<off_t>(strs.sh_offset)))
          continue;
        for (const Elf64_Sym& y : syms) {
          if (ELF64_ST_TYPE(y.st_info) != STT_FUNC || y.st_value == 0 || y.st_name >= strs.sh_size) continue;
          f.syms.push_back({y.st_value, y.st_size, std::string(&names[y.st_name])});
        }
      }
    }
  }
  close(fd);
}

std::string demangle(const std::string& name) {
  int status = 0;
  char* d = abi::__cxa_demangle(name.c_str(), nullptr, nullptr, &status);
  if (d == nullptr) return name;
  std::string out(d);
  std::free(d);
  return out;
}

// "name+0xoff (object)" for an address, as well as can be told.
std::string describe(void* addr, std::vector<SymbolFile>& files) {
  Dl_info info;
  std::memset(&info, 0, sizeof info);
  if (dladdr(addr, &info) == 0 || info.dli_fname == nullptr) return "?";
  std::string object = info.dli_fname;
  if (object.empty()) object = "/proc/self/exe";
  auto pc = reinterpret_cast<std::uintptr_t>(addr);
  auto base = reinterpret_cast<std::uintptr_t>(info.dli_fbase);
  SymbolFile* file = nullptr;
  for (SymbolFile& f : files)
    if (f.path == object) file = &f;
  if (file == nullptr) {
    files.push_back(SymbolFile());
    files.back().path = object;
    loadSymbols(files.back());
    file = &files.back();
  }
  std::uint64_t rel = file->relative ? pc - base : pc;
  const SymbolFile::Sym* best = nullptr;
  for (const SymbolFile::Sym& s : file->syms)
    if (s.start <= rel && (rel < s.start + s.size || (s.size == 0 && (best == nullptr || s.start > best->start))))
      if (best == nullptr || s.start >= best->start) best = &s;
  char off[32];
  if (best != nullptr) {
    std::snprintf(off, sizeof off, "+0x%lx", static_cast<unsigned long>(rel - best->start));
    return demangle(best->name) + off + " (" + object + ")";
  }
  if (info.dli_sname != nullptr) {
    std::snprintf(off, sizeof off, "+0x%lx", static_cast<unsigned long>(pc - reinterpret_cast<std::uintptr_t>(info.dli_saddr)));
    return demangle(info.dli_sname) + off + " (" + object + ")";
  }
  std::snprintf(off, sizeof off, "+0x%lx", static_cast<unsigned long>(pc - base));
  return "?? (" + object + off + ")";
}

}  // namespace

int dbgdstsg(void* work, const dbgdsCallbacks* cb, int skip) {
  void** frames = static_cast<void**>(work);
  const int capacity = DBGDS_WORK_SIZE / static_cast<int>(sizeof(void*));
  int n = backtrace(frames, capacity);
  std::vector<SymbolFile> files;
  cb->write(nullptr, "----- Call Stack Trace -----\n", 0);
  int written = 0;
  for (int i = 1 + (skip > 0 ? skip : 0); i < n; ++i, ++written) {
    std::string where = describe(frames[i], files);
    cb->write(nullptr, "#%-2d %p %s\n", 2, written, frames[i], where.c_str());
  }
  cb->write(nullptr, "----- End of Call Stack Trace -----\n", 0);
  cb->flush(nullptr);
  return written;
}

int utlInDevelopmentMode() {
  const char* v = std::getenv("ZEL_VYN_DEVELOPMENT");
  return v != nullptr && v[0] != '\0' ? 1 : 0;
}
