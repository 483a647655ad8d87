// Events on file descriptors and in buffers.
#include "evm/libevm/evm_io.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "evm/libevm/evm_check.h"
#include "evm/libevm/evm_event.h"
#include "evm/libevm/evm_log.h"

namespace {
// The body is read in pieces that grow with what actually arrives, so that a forged
// control.size costs memory only for bytes that are really there.
constexpr std::size_t kFirstBodyChunk = 64 * 1024;
}  // namespace

void _evmFillTransportHeader(void* buffer, EvmUint32_t length) {
  EvmTransportHeader_s h;
  std::memset(&h, 0, sizeof h);
  h.size_xpcmsgh = length;
  h.type_xpcmsgh = EVM_XPC_TYPE;
  h.majorproduct_xpcversinf = EVM_XPC_MAJOR_PRODUCT;
  h.minorproduct_xpcversinf = EVM_XPC_MINOR_PRODUCT;
  h.majorprotocol_xpcversinf = EVM_XPC_MAJOR_PROTOCOL;
  h.minorprotocol_xpcversinf = EVM_XPC_MINOR_PROTOCOL;
  std::memcpy(buffer, &h, sizeof h);
}

EvmStatus_t _evmPrepareForOutput(EvmEvent_t event) {
  if (_evmuiTestEventMagic(event) != EvmERROR_NONE || event->head_p == nullptr) return EvmERROR_INVALID_ARGUMENT;
  EvmEventHead_t* head = event->head_p;
  _evmFillTransportHeader(head, head->control.size);
  _evmInsertChecksum(head);
  return EvmERROR_NONE;
}

EvmStatus_t _evmWriteFDAll(int fd, const void* buffer, EvmUint32_t length) {
  const auto* p = static_cast<const unsigned char*>(buffer);
  std::size_t left = length;
  while (left > 0) {
    ssize_t n = write(fd, p, left);
    if (n < 0) {
      if (errno == EINTR) continue;
      return EvmERROR_WRITE;
    }
    p += n;
    left -= static_cast<std::size_t>(n);
  }
  return EvmERROR_NONE;
}

EvmStatus_t EvmEventWriteFD(int fd, EvmEvent_t event) {
  if (_evmPrepareForOutput(event) != EvmERROR_NONE) return EvmERROR_INVALID_ARGUMENT;
  return _evmWriteFDAll(fd, event->head_p, event->head_p->control.size);
}

const void* EvmEventWriteBuf(EvmUint32_t* length, EvmEvent_t event) {
  if (length == nullptr || _evmPrepareForOutput(event) != EvmERROR_NONE) return nullptr;
  *length = event->head_p->control.size;
  return event->head_p;
}

long _evmuiReadFDAll(int fd, void* buffer, EvmUint32_t length) {
  auto* p = static_cast<unsigned char*>(buffer);
  std::size_t got = 0;
  while (got < length) {
    ssize_t n = read(fd, p + got, length - got);
    if (n < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    if (n == 0) break;
    got += static_cast<std::size_t>(n);
  }
  return static_cast<long>(got);
}

EvmStatus_t EvmEventReadFD(int fd, EvmEvent_t* event) {
  if (event == nullptr) return EvmERROR_INVALID_ARGUMENT;
  EvmEventHead_t head;
  long n = _evmuiReadFDAll(fd, &head, EVM_HEAD_SIZE);
  if (n == 0) return EvmERROR_EOF;
  if (n < 0 || static_cast<std::size_t>(n) < EVM_HEAD_SIZE) return EvmERROR_READ;
  // A size below the head leaves no body to read and no way to sum it: no event.
  if (head.control.ident != EVM_BLOCK_IDENT || head.control.size < EVM_HEAD_SIZE) return EvmERROR_INVALID_VALUE;
  const std::size_t total = head.control.size;
  std::size_t cap = total < EVM_HEAD_SIZE + kFirstBodyChunk ? total : EVM_HEAD_SIZE + kFirstBodyChunk;
  auto* block = static_cast<unsigned char*>(std::malloc(cap));
  if (block == nullptr) return EvmERROR_NO_MEMORY;
  std::memcpy(block, &head, EVM_HEAD_SIZE);
  std::size_t have = EVM_HEAD_SIZE;
  while (have < total) {
    if (have == cap) {
      std::size_t grown = cap * 2 < total ? cap * 2 : total;
      auto* bigger = static_cast<unsigned char*>(std::realloc(block, grown));
      if (bigger == nullptr) {
        std::free(block);
        return EvmERROR_NO_MEMORY;
      }
      block = bigger;
      cap = grown;
    }
    long got = _evmuiReadFDAll(fd, block + have, static_cast<EvmUint32_t>(cap - have));
    if (got < 0 || static_cast<std::size_t>(got) < cap - have) {
      std::free(block);
      return EvmERROR_READ;
    }
    have = cap;
  }
  EvmEvent_t h = nullptr;
  if (_evmuiAllocateHandle(&h) != EvmERROR_NONE) {
    std::free(block);
    return EvmERROR_NO_MEMORY;
  }
  h->head_p = reinterpret_cast<EvmEventHead_t*>(block);
  EvmStatus_t st = _evmTestChecksum(h->head_p);
  if (st == EvmERROR_NONE) st = _evmEventTranslateVersion(h);
  if (st == EvmERROR_NONE) st = EvmEventValidate(h);
  if (st != EvmERROR_NONE) {
    std::free(h->head_p);
    std::free(h);
    return st == EvmERROR_NO_MEMORY ? st : EvmERROR_INVALID_VALUE;
  }
  *event = h;
  return EvmERROR_NONE;
}

EvmStatus_t _evmReadLine(FILE* stream, char** buffer, EvmUint32_t* size) {
  if (stream == nullptr || buffer == nullptr || size == nullptr) return EvmERROR_INVALID_ARGUMENT;
  if (*buffer == nullptr) *size = 0;
  EvmUint32_t len = 0;
  for (;;) {
    if (*size - len < 2) {
      char* grown = static_cast<char*>(std::realloc(*buffer, *size + 128));
      if (grown == nullptr) return EvmERROR_NO_MEMORY;
      *buffer = grown;
      *size += 128;
    }
    (*buffer)[len] = '\0';
    int c = std::fgetc(stream);
    if (c == EOF) {
      if (std::ferror(stream) && errno == EINTR) {
        std::clearerr(stream);
        continue;
      }
      return EvmERROR_EOF;
    }
    if (c == '\n') return EvmERROR_NONE;
    (*buffer)[len++] = static_cast<char>(c);
    (*buffer)[len] = '\0';
  }
}

EvmStatus_t _evmGetNextBlockOffset(int fd, off_t offset, EvmDataBlockType_t* type, off_t* next) {
  if (type == nullptr || next == nullptr) return EvmERROR_INVALID_ARGUMENT;
  if (lseek(fd, offset, SEEK_SET) == static_cast<off_t>(-1)) return EvmERROR_INVALID_ARGUMENT;
  EvmEventHead_t head;
  long n = _evmuiReadFDAll(fd, &head, EVM_HEAD_SIZE);
  if (n == 0) {
    *type = 0;
    *next = 0;
    return EvmERROR_NONE;
  }
  if (n < 0 || static_cast<std::size_t>(n) < EVM_HEAD_SIZE) {
    _evmLogErrorf(EvmDL2, "_evmGetNextBlockOffset: nbytes = %ld; errno = %d.", n, errno);
    return EvmERROR_READ;
  }
  EvmDataBlockType_t bt = head.control.blocktype;
  // A size that does not reach past the control field would never move the walk forward.
  if (head.control.ident != EVM_BLOCK_IDENT || bt < 1 || bt > 3 ||
      head.control.size < EVM_OFF_CONTROL + sizeof(EvmEventControl_s))
    return EvmERROR_READ;
  *type = bt;
  *next = offset + static_cast<off_t>(head.control.size);
  return EvmERROR_NONE;
}
