#ifndef EVM_LIBEVM_EVM_POST_H
#define EVM_LIBEVM_EVM_POST_H

// Posting events and taking in what the daemon sends back: the communication head on the way
// out, the wait-and-dispatch loop that ends a connect and a post, callbacks, and the queue of
// non-blocking posts.
#include <sys/uio.h>

#include "evm/libevm/evm_conn.h"
#include "evm/libevm/evm_types.h"
#include "evm/libevm/evm_xpcio.h"

// A time-out: tv_usec counts milliseconds here, whatever its name says.
struct cls_timeval {
  EvmInt32_t tv_sec;
  EvmInt32_t tv_usec;
};

// Posts `event` (which stays the caller's). A null connection means a temporary one.
EvmStatus_t EvmEventPost(EvmConnection_t connection, EvmEvent_t event);
// Posts an event made from the item list (ended by 0) merged with `event`, which may be null.
EvmStatus_t EvmEventPostVa(EvmConnection_t connection, EvmEvent_t event, ...);
// Waits for input; a null time-out waits without limit, {0, 0} means one millisecond.
// Asks the daemon to send this listen connection only the events whose names match `pattern`
// (EvmEventNameMatch; "" or "*" for all). The answer arrives through dispatch as a callback with
// reason EvmREASON_SUBSCRIBE_COMPLETE; until then the old filter holds. EvmERROR_INVALID_ARGUMENT
// for a connection that is not a listen connection or a pattern the name check refuses.
EvmStatus_t EvmConnSubscribe(EvmConnection_t connection, const char* pattern);

EvmStatus_t EvmConnWait(EvmConnection_t connection, cls_timeval* timeout);
EvmStatus_t EvmConnCheck(EvmConnection_t connection, EvmBoolean_t* ready);
// Handles one message from the daemon if one is there.
EvmStatus_t EvmConnDispatch(EvmConnection_t connection);
EvmStatus_t EvmConnFlush(EvmConnection_t connection, EvmUint32_t* remaining);

EvmStatus_t EvmConnWaitInternal(EvmConnection_t connection, cls_timeval* timeout);
EvmStatus_t _evmConnDispatchNext(EvmConnection_t connection);
EvmStatus_t _evmConnDispatchPostResponse(EvmConnection_t connection, EvmCommHeaderData_t headerData,
                                         EvmCommFlag_t flags);
// Waits for the answer to a connect request.
EvmStatus_t _evmConnWaitForAcknowledgement(EvmConnection_t connection);
EvmStatus_t _evmConnEventSend(EvmConnection_t connection, EvmEvent_t event);
EvmStatus_t _evmConnHeadSend(EvmConnection_t connection, EvmCommType_t type, EvmCommFlag_t flags,
                             EvmCommHeaderData_t headerData, EvmCommSize_t bodySize);
EvmStatus_t _evmConnSend(EvmConnection_t connection, void* buffer, EvmUint32_t length);

void _evmIoMsgQueueInit(_evmIoMsgQueue_t* queue);
EvmUint32_t _evmIoMsgQueueCount(const _evmIoMsgQueue_t* queue);
// The entry takes over `msg`.
EvmStatus_t _evmIoMsgQueueAddEntry(_evmIoMsgQueue_t* queue, char* msg, EvmSize_t length);
_evmIoMsgQueueEntry_t* _evmIoMsgQueueDequeueFirstEntry(_evmIoMsgQueue_t* queue);
void _evmIoMsgQueueDestroyEntry(_evmIoMsgQueueEntry_t* entry);
void _evmIoMsgQueueDestroy(_evmIoMsgQueue_t* queue);
EvmStatus_t _evmConnIoMsgQueueClear(EvmConnection_t connection);

#endif
