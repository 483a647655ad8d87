#ifndef EVM_LIBEVM_EVM_XPCIO_H
#define EVM_LIBEVM_EVM_XPCIO_H

// Events and raw messages on a transport connection: the thin wrappers that stamp the transport
// header before each send, the readers that turn a received message into a checked event, and
// named local pipes. The connection layer (evm_conn.h, evm_post.h) is built on these.
#include <sys/uio.h>

#include "evm/libevm/evm_types.h"
#include "evm/libevm/evm_wire.h"
#include "platform/xpc/xpc.h"

// Default size of the buffer a reader starts with; a longer message costs one more receive.
constexpr EvmUint32_t EVM_READ_DEFAULT_LENGTH = 32768;

// Stamps the transport header for `length` bytes over the first 48 of `message` and sends it.
int Evmxpcsend(xpccon* con, Evmxpcmsgh_s* message, EvmUint32_t length);
// With `wait` 1, waits in rounds of 5 s until a message comes; otherwise one blocking receive.
int Evmxpcreceive(xpccon* con, void* buffer, EvmUint32_t length, int wait);
int call_xpcreceive(xpccon* con, void* buffer, EvmUint32_t length, int wait);
// `length` bytes behind a transport header, and the counterpart.
int xpcfmtnsnd(xpccon* con, const void* data, EvmUint32_t length);
int xpcfmtrecv(xpccon* con, void* data, EvmUint32_t length);
void evmxpcsleep(EvmUint32_t seconds);

EvmStatus_t _evmWriteAll(xpccon* con, void* buffer, EvmUint32_t length);
// Each vector with a base is one message of its own. `written` counts what went out.
EvmStatus_t _evmWriteVIntr(xpccon* con, struct iovec* vectors, int count, EvmUint32_t* written);
EvmStatus_t EvmEventWrite(xpccon* con, EvmEvent_t event);

int _evmuiReadAll(xpccon* con, void* buffer, EvmUint32_t length);
// One event that arrives as one message; `length` 0 means EVM_READ_DEFAULT_LENGTH. A longer
// message is read again at its true length.
EvmStatus_t EvmEventRead(xpccon* con, EvmEvent_t* event, EvmUint32_t length);
// One event that arrives as its 120-byte head and then a message with the rest of the block.
EvmStatus_t EvmTemplateEventRead(xpccon* con, EvmEvent_t* event);

// A named local channel over the transport.
struct EvmPipe {
  void* nsgbl;
  xpcctx* cctx;
  xpcugblm* cgblm;
  xpccon* ccon;
  xpccon* lcon;
  int init;
  char name[2048];
  char baseName[1024];
};
EvmStatus_t EvmPipeCreate(EvmPipe* pipe, const char* name);
EvmStatus_t EvmPipeListen(EvmPipe* pipe);
EvmStatus_t EvmPipeAccept(EvmPipe* pipe);
EvmStatus_t EvmPipeConnect(EvmPipe* pipe);
EvmStatus_t EvmPipeGetBaseName(EvmPipe* pipe, char* buffer, EvmUint32_t size);
void EvmPipeDestroy(EvmPipe* pipe);

#endif
