// Small helpers of the event client.
#include "evm/libevm/evm_misc.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <unistd.h>

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <string>

#include "evm/libevm/clsgenv.h"
#include "platform/host/utlhost.h"
#include "platform/osl/osl_fd.h"

std::atomic<int> evmglob_Initialized{0};
EvmPid_t evmglob_EvmUserPid = 0;

namespace {
FILE* s_fp = nullptr;
const char kHomeVar[] = "ZEL_VYN_HOME";
}  // namespace

void* _evmmiscMalloc(std::size_t size) { return std::calloc(1, size == 0 ? 1 : size); }
void* _evmmiscRealloc(void* p, std::size_t size) { return std::realloc(p, size); }
void _evmmiscFree(void* p) { std::free(p); }

char* _evmmiscStrdup(const char* text) {
  if (text == nullptr) return nullptr;
  std::size_t n = std::strlen(text) + 1;
  char* copy = static_cast<char*>(std::malloc(n));
  if (copy != nullptr) std::memcpy(copy, text, n);
  return copy;
}

std::size_t _evmmiscTermStrLen(const char* text) {
  return text == nullptr ? 0 : std::strlen(text) + 1;
}

int _evmmiscCaseBlindStrncmp(const char* a, const char* b, std::size_t n) {
  for (std::size_t i = 0; i < n; ++i) {
    unsigned char ca = static_cast<unsigned char>(a[i]);
    unsigned char cb = static_cast<unsigned char>(b[i]);
    if (std::toupper(ca) != std::toupper(cb)) return ca - cb;
    if (ca == '\0') return 0;
  }
  return 0;
}

int _evmmiscCaseBlindStrcmp(const char* a, const char* b) {
  return _evmmiscCaseBlindStrncmp(a, b, static_cast<std::size_t>(-1));
}

char* _evmmiscDirStrdup(const char* suffix) {
  const char* home = clsgenv(kHomeVar);
  if (home == nullptr) return nullptr;
  std::string path = std::string(home) + (suffix != nullptr ? suffix : "");
  return _evmmiscStrdup(path.c_str());
}

char* EvmGetAbsolutePath(const char* variable, const char* suffix) {
  const char* value = variable != nullptr ? clsgenv(variable) : nullptr;
  if (value != nullptr) return _evmmiscStrdup(value);
  return _evmmiscDirStrdup(suffix);
}

const char* EvmGetEnvironmentVariable(const char* name, const char* deflt) {
  const char* value = clsgenv(name);
  return value != nullptr ? value : deflt;
}

char* _EvmFilenameConstruct(const char* base, int a, int b) {
  if (base == nullptr) return nullptr;
  int n = std::snprintf(nullptr, 0, "%s.%d.%d", base, a, b);
  char* text = static_cast<char*>(std::malloc(static_cast<std::size_t>(n) + 1));
  if (text != nullptr) std::snprintf(text, static_cast<std::size_t>(n) + 1, "%s.%d.%d", base, a, b);
  return text;
}

EvmStatus_t _evmIovToLinearMsg(const struct iovec* vectors, int count, char** buffer,
                               EvmUint32_t* length) {
  if (buffer == nullptr || length == nullptr || (vectors == nullptr && count > 0))
    return EvmERROR_INVALID_ARGUMENT;
  std::size_t total = 0;
  for (int i = 0; i < count; ++i) total += vectors[i].iov_len;
  char* out = static_cast<char*>(std::malloc(total == 0 ? 1 : total));
  if (out == nullptr) return EvmERROR_NO_MEMORY;
  std::size_t at = 0;
  for (int i = 0; i < count; ++i) {
    if (vectors[i].iov_len != 0) std::memcpy(out + at, vectors[i].iov_base, vectors[i].iov_len);
    at += vectors[i].iov_len;
  }
  *buffer = out;
  *length = static_cast<EvmUint32_t>(total);
  return EvmERROR_NONE;
}

char* _evmHostNameFromId(EvmIpAddress_t address) {
  struct in_addr in;
  in.s_addr = address;
  struct hostent* h = gethostbyaddr(&in, sizeof in, AF_INET);
  return h != nullptr ? _evmmiscStrdup(h->h_name) : nullptr;
}

EvmStatus_t _evmBufSizesSet(EvmUint32_t, EvmUint32_t) { return EvmERROR_NONE; }
EvmStatus_t _evmBufSizesGet(EvmUint32_t*, EvmUint32_t*) { return EvmERROR_NONE; }
EvmStatus_t _evmProcTermEventSet(EvmEvent_t) { return EvmERROR_NONE; }
EvmStatus_t _evmProcTermEventClear() { return EvmERROR_NONE; }
EvmStatus_t _evmDoProcTermEvent() { return EvmERROR_NONE; }

void evmglobInit() { evmglob_Initialized.store(1); }

FILE* _evmtempfile() {
  const char* home = clsgenv(kHomeVar);
  if (home == nullptr) {
    std::printf("ZEL_VYN_HOME is not set");
    return nullptr;
  }
  char host[65] = {0};
  if (utlhost(host, 64) <= 0) {
    std::printf("Unable to get hostName");
    return nullptr;
  }
  std::string path = std::string(home) + "/log/evm/" + host + "_sort.log";
  OslFd fd(open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NONBLOCK, 0666));
  if (!fd) return nullptr;
  FILE* fp = fdopen(fd.get(), "wb+");
  // The file has no name from here on: nobody else can open it, and it goes with its stream.
  unlink(path.c_str());
  if (fp == nullptr) return nullptr;
  fd.release();  // the stream closes it now
  return fp;
}

void EvmSetFP(FILE* fp) { s_fp = fp; }
FILE* EvmGetProfFP() { return s_fp; }
