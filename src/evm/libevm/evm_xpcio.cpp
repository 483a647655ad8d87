// Events and raw messages on a transport connection, and named local pipes.
#include "evm/libevm/evm_xpcio.h"

#include <time.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "evm/libevm/evm_check.h"
#include "evm/libevm/evm_event.h"
#include "evm/libevm/evm_io.h"
#include "evm/libevm/evm_log.h"
#include "platform/host/utlhost.h"

namespace {
constexpr int kWaitRoundMs = 5000;
constexpr const char* kDefaultPipeName = "(ADDRESS=(PROTOCOL=tcp)(HOST=127.0.0.1))";

// A received block becomes an event only once its checksum holds, it is brought to the current
// head form, and it validates; `block` is taken in every case.
EvmStatus_t adopt(unsigned char* block, EvmEvent_t* event) {
  auto* head = reinterpret_cast<EvmEventHead_t*>(block);
  if (_evmTestChecksum(head) != EvmERROR_NONE) {
    std::free(block);
    return EvmERROR_INVALID_VALUE;
  }
  EvmEvent_t h = _evmMakeEvent(head);
  if (h == nullptr) return EvmERROR_INVALID_VALUE;
  *event = h;
  return EvmERROR_NONE;
}
}  // namespace

int Evmxpcsend(xpccon* con, Evmxpcmsgh_s* message, EvmUint32_t length) {
  if (con == nullptr || message == nullptr || length < EVM_XPC_HEADER_SIZE) return xpcretBADARG;
  _evmFillTransportHeader(message, length);
  return xpcsend(con, message, length);
}

int call_xpcreceive(xpccon* con, void* buffer, EvmUint32_t length, int wait) {
  if (wait != 1) return xpcreceive(con, buffer, length, 0, 0, 16);
  int r;
  do r = xpcreceive(con, buffer, length, kWaitRoundMs, 250, XPC_WAIT_TIMED);
  while (r == xpcretNODATA || r == xpcretTIMEOUT);
  return r;
}

int Evmxpcreceive(xpccon* con, void* buffer, EvmUint32_t length, int wait) {
  return call_xpcreceive(con, buffer, length, wait);
}

int xpcfmtnsnd(xpccon* con, const void* data, EvmUint32_t length) {
  auto* buf = static_cast<unsigned char*>(std::malloc(length + EVM_XPC_HEADER_SIZE));
  if (buf == nullptr) return xpcretNOMEM;
  if (length > 0) std::memcpy(buf + EVM_XPC_HEADER_SIZE, data, length);
  int r = Evmxpcsend(con, reinterpret_cast<Evmxpcmsgh_s*>(buf), length + EVM_XPC_HEADER_SIZE);
  std::free(buf);
  return r;
}

int xpcfmtrecv(xpccon* con, void* data, EvmUint32_t length) {
  auto* buf = static_cast<unsigned char*>(std::malloc(length + EVM_XPC_HEADER_SIZE));
  if (buf == nullptr) return xpcretNOMEM;
  int r = call_xpcreceive(con, buf, length + EVM_XPC_HEADER_SIZE, 1);
  if (r == xpcretSUCC && length > 0) std::memcpy(data, buf + EVM_XPC_HEADER_SIZE, length);
  std::free(buf);
  return r;
}

void evmxpcsleep(EvmUint32_t seconds) {
  timespec left{static_cast<time_t>(seconds), 0};
  while (nanosleep(&left, &left) != 0 && errno == EINTR) {
  }
}

EvmStatus_t _evmWriteAll(xpccon* con, void* buffer, EvmUint32_t length) {
  return Evmxpcsend(con, static_cast<Evmxpcmsgh_s*>(buffer), length) == xpcretSUCC ? EvmERROR_NONE
                                                                                   : EvmERROR_CONNECTION_LOST;
}

EvmStatus_t _evmWriteVIntr(xpccon* con, struct iovec* vectors, int count, EvmUint32_t* written) {
  EvmUint32_t total = 0;
  EvmStatus_t st = EvmERROR_NONE;
  for (int i = 0; i < count; ++i) {
    if (vectors[i].iov_base == nullptr) continue;
    auto len = static_cast<EvmUint32_t>(vectors[i].iov_len);
    if (Evmxpcsend(con, static_cast<Evmxpcmsgh_s*>(vectors[i].iov_base), len) != xpcretSUCC) {
      st = EvmERROR_WRITE;
      break;
    }
    total += len;
  }
  if (written != nullptr) *written = total;
  return st;
}

EvmStatus_t EvmEventWrite(xpccon* con, EvmEvent_t event) {
  if (_evmPrepareForOutput(event) != EvmERROR_NONE) return EvmERROR_INVALID_ARGUMENT;
  return _evmWriteAll(con, event->head_p, event->head_p->control.size);
}

int _evmuiReadAll(xpccon* con, void* buffer, EvmUint32_t length) {
  return xpcreceive(con, buffer, length, 0, 0, 32);
}

EvmStatus_t EvmEventRead(xpccon* con, EvmEvent_t* event, EvmUint32_t length) {
  if (event == nullptr) return EvmERROR_INVALID_ARGUMENT;
  EvmUint32_t want = length != 0 ? length : EVM_READ_DEFAULT_LENGTH;
  unsigned char* buf = nullptr;
  std::uint32_t got = 0;
  for (;;) {
    if (want < EVM_XPC_HEADER_SIZE) want = EVM_XPC_HEADER_SIZE;
    buf = static_cast<unsigned char*>(std::malloc(want));
    if (buf == nullptr) return EvmERROR_NO_MEMORY;
    int r = xpcreceive(con, buf, want, 0, 0, 32, &got);
    if (r == xpcretEMSGSZ) {
      // The transport left the message queued and told its true length in the first word.
      want = evmLoad32(buf, 0);
      std::free(buf);
      continue;
    }
    if (r != xpcretSUCC) {
      std::free(buf);
      _evmLogErrorf(EvmDL2, "EvmEventRead(head): nbytes = %d; errno = %d.", r, errno);
      return r == xpcretRMTDISC || r == xpcretRMTFAIL ? EvmERROR_EOF : EvmERROR_READ;
    }
    break;
  }
  EvmEventHead_t head;
  if (got < EVM_HEAD_SIZE) {
    std::free(buf);
    return EvmERROR_INVALID_VALUE;
  }
  std::memcpy(&head, buf, EVM_HEAD_SIZE);
  // A block that claims more than the message brought, or less than any head, can't be copied.
  if (head.control.ident != EVM_BLOCK_IDENT || head.control.size < EVM_OLD_HEAD_SIZE || head.control.size > got) {
    std::free(buf);
    return EvmERROR_INVALID_VALUE;
  }
  auto* block = static_cast<unsigned char*>(std::malloc(head.control.size));
  if (block == nullptr) {
    std::free(buf);
    EvmLog_C_module_error(EvmDL2, "EvmEventRead - alloc for event body failed.");
    return EvmERROR_NO_MEMORY;
  }
  std::memcpy(block, buf, head.control.size);
  std::free(buf);
  return adopt(block, event);
}

EvmStatus_t EvmTemplateEventRead(xpccon* con, EvmEvent_t* event) {
  if (event == nullptr) return EvmERROR_INVALID_ARGUMENT;
  EvmEventHead_t head;
  std::uint32_t got = 0;
  if (xpcreceive(con, &head, EVM_HEAD_SIZE, 0, 0, 32, &got) != xpcretSUCC || got != EVM_HEAD_SIZE)
    return EvmERROR_EOF;
  if (head.control.ident != EVM_BLOCK_IDENT || head.control.size < EVM_HEAD_SIZE) return EvmERROR_INVALID_VALUE;
  EvmUint32_t bodyMsg = head.control.size - static_cast<EvmUint32_t>(EVM_HEAD_SIZE) +
                        static_cast<EvmUint32_t>(EVM_XPC_HEADER_SIZE);
  auto* msg = static_cast<unsigned char*>(std::malloc(bodyMsg));
  if (msg == nullptr) return EvmERROR_NO_MEMORY;
  if (xpcreceive(con, msg, bodyMsg, 0, 0, 32, &got) != xpcretSUCC || got != bodyMsg) {
    std::free(msg);
    return EvmERROR_READ;
  }
  auto* block = static_cast<unsigned char*>(std::malloc(head.control.size));
  if (block == nullptr) {
    std::free(msg);
    return EvmERROR_NO_MEMORY;
  }
  std::memcpy(block, &head, EVM_HEAD_SIZE);
  std::memcpy(block + EVM_HEAD_SIZE, msg + EVM_XPC_HEADER_SIZE, bodyMsg - EVM_XPC_HEADER_SIZE);
  std::free(msg);
  return adopt(block, event);
}

// ---- Pipes ----

EvmStatus_t EvmPipeCreate(EvmPipe* pipe, const char* name) {
  if (pipe == nullptr) return EvmERROR_INVALID_ARGUMENT;
  std::memset(pipe, 0, sizeof *pipe);
  char msg[1024];
  if (utlnsinit(msg, sizeof msg) != 0 || xpcinit(0, 0, &pipe->cctx, 0) != xpcretSUCC ||
      xpcugblmini(pipe->cctx, &pipe->cgblm, 0) != xpcretSUCC) {
    EvmPipeDestroy(pipe);
    return EvmERROR_NOT_INITIALIZED;
  }
  const char* n = name != nullptr && *name != '\0' ? name : kDefaultPipeName;
  std::strncpy(pipe->name, n, sizeof pipe->name - 1);
  pipe->init = 1;
  return EvmERROR_NONE;
}

EvmStatus_t EvmPipeListen(EvmPipe* pipe) {
  if (pipe == nullptr || pipe->name[0] == '\0') return EvmERROR_NOT_INITIALIZED;
  if (xpclisten(pipe->cgblm, pipe->name, 0, &pipe->lcon, 0) != xpcretSUCC ||
      xpcgetaddr(pipe->lcon, pipe->baseName, sizeof pipe->baseName, 0) != xpcretSUCC) {
    if (pipe->lcon != nullptr) xpcdisc(pipe->lcon);
    pipe->lcon = nullptr;
    return EvmERROR_CONNECT;
  }
  return EvmERROR_NONE;
}

EvmStatus_t EvmPipeAccept(EvmPipe* pipe) {
  if (pipe == nullptr || pipe->name[0] == '\0') return EvmERROR_NOT_INITIALIZED;
  if (pipe->lcon == nullptr) return EvmERROR_CONNECT;
  return xpcanswer(pipe->lcon, 0, &pipe->ccon, 0, 0, 0, 0, 0, 32) == xpcretSUCC ? EvmERROR_NONE : EvmERROR_CONNECT;
}

EvmStatus_t EvmPipeConnect(EvmPipe* pipe) {
  if (pipe == nullptr || pipe->name[0] == '\0') return EvmERROR_NOT_INITIALIZED;
  return xpcconnect(pipe->cgblm, pipe->name, 0, &pipe->ccon, nullptr, nullptr, nullptr, nullptr, 0, 0) ==
                 xpcretSUCC
             ? EvmERROR_NONE
             : EvmERROR_CONNECT;
}

EvmStatus_t EvmPipeGetBaseName(EvmPipe* pipe, char* buffer, EvmUint32_t size) {
  if (pipe == nullptr || pipe->name[0] == '\0') return EvmERROR_NOT_INITIALIZED;
  if (buffer == nullptr || std::strlen(pipe->baseName) + 1 > size) return EvmERROR_INVALID_ARGUMENT;
  std::memcpy(buffer, pipe->baseName, std::strlen(pipe->baseName) + 1);
  return EvmERROR_NONE;
}

void EvmPipeDestroy(EvmPipe* pipe) {
  if (pipe == nullptr) return;
  if (pipe->ccon != nullptr) xpcdisc(pipe->ccon);
  if (pipe->lcon != nullptr) xpcdisc(pipe->lcon);
  if (pipe->cgblm != nullptr) xpcugblmterm(pipe->cgblm);
  if (pipe->cctx != nullptr) xpcterm(pipe->cctx);
  std::memset(pipe, 0, sizeof *pipe);
}
