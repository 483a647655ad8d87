// Posting and dispatch: a post is a communication head and the event block as two transport
// messages; the daemon's messages are read one at a time and acted on by type.
#include "evm/libevm/evm_post.h"

#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "evm/libevm/evm_check.h"
#include "evm/libevm/evm_event.h"
#include "evm/libevm/evm_io.h"
#include "evm/libevm/evm_item.h"
#include "evm/libevm/evm_itempkg.h"
#include "evm/libevm/evm_misc.h"
#include "evm/libevm/evm_xpcio.h"

namespace {

void DummyEvtHdlr(xpcugblm*, xpccon*) {}

void claimChannel(EvmConnection_t c) {
  pthread_mutex_lock(&c->conn_mx);
  while (c->channel_inuse == EvmTRUE) pthread_cond_wait(&c->conn_condv, &c->conn_mx);
  c->channel_inuse = EvmTRUE;
  pthread_mutex_unlock(&c->conn_mx);
}

void releaseChannel(EvmConnection_t c) {
  pthread_mutex_lock(&c->conn_mx);
  c->channel_inuse = EvmFALSE;
  pthread_cond_broadcast(&c->conn_condv);
  pthread_mutex_unlock(&c->conn_mx);
}

void fillHead(EvmCommHead_t* h, EvmCommType_t type, EvmCommFlag_t flags, EvmCommHeaderData_t headerData,
              EvmCommSize_t bodySize) {
  *h = evmCommHead(type, flags, headerData, bodySize);
}

void callBack(EvmConnection_t c, EvmCallbackData_t* data) {
  if (c->callback != nullptr) c->callback(c, c->callbackArg, data);
}

// Answers are matched to waiting posts under ack_mx; see _evmAckWaiter_s.
void addWaiter(EvmConnection_t c, _evmAckWaiter_t* w) {
  pthread_mutex_lock(&c->ack_mx);
  _evmAckWaiter_t** p = &c->ackWaiters;
  while (*p != nullptr) p = &(*p)->next;
  *p = w;
  c->ackPending = EvmTRUE;
  pthread_mutex_unlock(&c->ack_mx);
}

// Caller holds ack_mx.
void removeWaiter(EvmConnection_t c, _evmAckWaiter_t* w) {
  for (_evmAckWaiter_t** p = &c->ackWaiters; *p != nullptr; p = &(*p)->next) {
    if (*p == w) {
      *p = w->next;
      break;
    }
  }
  c->ackPending = c->ackWaiters != nullptr ? EvmTRUE : EvmFALSE;
}

// ackPending is shared with the posts of other threads, which change it under ack_mx.
void setAckPending(EvmConnection_t c, EvmBoolean_t value) {
  pthread_mutex_lock(&c->ack_mx);
  c->ackPending = value;
  pthread_mutex_unlock(&c->ack_mx);
}

bool ackPending(EvmConnection_t c) {
  pthread_mutex_lock(&c->ack_mx);
  const bool pending = c->ackPending == EvmTRUE;
  pthread_mutex_unlock(&c->ack_mx);
  return pending;
}

bool isAnswerStatus(EvmStatus_t st) {
  return st == EvmERROR_EVENT_REJECTED || st == EvmERROR_EVENT_NOT_VALID || st == EvmERROR_NO_MEMORY;
}

// Waits until the daemon's answer to the post of `w` has been read, by this thread or another.
EvmStatus_t awaitAnswer(EvmConnection_t c, _evmAckWaiter_t* w) {
  EvmStatus_t result = EvmERROR_NONE;
  pthread_mutex_lock(&c->ack_mx);
  while (w->answered != EvmTRUE) {
    if (c->disabled == EvmTRUE) {
      result = EvmERROR_CONNECTION_LOST;
      break;
    }
    if (c->ackReaderActive == EvmTRUE) {
      pthread_cond_wait(&c->ack_condv, &c->ack_mx);
      continue;
    }
    c->ackReaderActive = EvmTRUE;
    pthread_mutex_unlock(&c->ack_mx);
    EvmStatus_t st = EvmConnWait(c, nullptr);
    if (st == EvmERROR_NONE) st = _evmConnDispatchNext(c);
    pthread_mutex_lock(&c->ack_mx);
    c->ackReaderActive = EvmFALSE;
    pthread_cond_broadcast(&c->ack_condv);
    if (w->answered == EvmTRUE) break;
    // An answer that went to another post, or a wait broken by a signal: go round again.
    if (st == EvmERROR_NONE || st == EvmERROR_SIGNAL || (isAnswerStatus(st) && c->disabled != EvmTRUE)) continue;
    result = st;
    break;
  }
  if (w->answered == EvmTRUE) result = w->status;
  removeWaiter(c, w);
  pthread_mutex_unlock(&c->ack_mx);
  return result;
}

}  // namespace

// ---- Queue ----

void _evmIoMsgQueueInit(_evmIoMsgQueue_t* queue) {
  queue->head = queue->tail = nullptr;
  queue->count = 0;
}

EvmUint32_t _evmIoMsgQueueCount(const _evmIoMsgQueue_t* queue) { return queue->count; }

EvmStatus_t _evmIoMsgQueueAddEntry(_evmIoMsgQueue_t* queue, char* msg, EvmSize_t length) {
  auto* e = static_cast<_evmIoMsgQueueEntry_t*>(std::calloc(1, sizeof(_evmIoMsgQueueEntry_t)));
  if (e == nullptr) return EvmERROR_NO_MEMORY;
  e->msg = msg;
  e->length = length;
  if (queue->tail != nullptr)
    queue->tail->next = e;
  else
    queue->head = e;
  queue->tail = e;
  ++queue->count;
  return EvmERROR_NONE;
}

_evmIoMsgQueueEntry_t* _evmIoMsgQueueDequeueFirstEntry(_evmIoMsgQueue_t* queue) {
  _evmIoMsgQueueEntry_t* e = queue->head;
  if (e == nullptr) return nullptr;
  queue->head = e->next;
  if (queue->head == nullptr) queue->tail = nullptr;
  --queue->count;
  e->next = nullptr;
  return e;
}

void _evmIoMsgQueueDestroyEntry(_evmIoMsgQueueEntry_t* entry) {
  if (entry == nullptr) return;
  std::free(entry->msg);
  std::free(entry);
}

void _evmIoMsgQueueDestroy(_evmIoMsgQueue_t* queue) {
  while (queue->head != nullptr) _evmIoMsgQueueDestroyEntry(_evmIoMsgQueueDequeueFirstEntry(queue));
}

EvmStatus_t _evmConnIoMsgQueueClear(EvmConnection_t connection) { return EvmConnFlush(connection, nullptr); }

EvmStatus_t EvmConnFlush(EvmConnection_t connection, EvmUint32_t* remaining) {
  if (remaining != nullptr) *remaining = 0;
  EvmStatus_t st = _evmConnContextActive(connection);
  if (st != EvmERROR_NONE) return st;
  _evmIoMsgQueue_t* q = &connection->msgQueue;
  while (q->head != nullptr) {
    _evmIoMsgQueueEntry_t* e = q->head;
    // A queued message holds the head and the block one after the other, each a message of its own.
    struct iovec v[2];
    int n = 0;
    EvmSize_t off = e->written;
    while (off < e->length && n < 2) {
      EvmUint32_t len = evmLoad32(e->msg, off);
      if (len < EVM_XPC_HEADER_SIZE || off + len > e->length) break;
      v[n].iov_base = e->msg + off;
      v[n].iov_len = len;
      ++n;
      off += len;
    }
    EvmUint32_t written = 0;
    st = _evmWriteVIntr(connection->con, v, n, &written);
    if (st == EvmERROR_WOULDBLOCK) {
      e->written += written;
      st = EvmERROR_QUEUED;
      break;
    }
    if (st != EvmERROR_NONE) {
      _evmConnDisable(connection);
      st = EvmERROR_CONNECTION_LOST;
      break;
    }
    _evmIoMsgQueueDestroyEntry(_evmIoMsgQueueDequeueFirstEntry(q));
  }
  if (remaining != nullptr) *remaining = q->count;
  return st;
}

// ---- Sending ----

EvmStatus_t _evmConnSend(EvmConnection_t connection, void* buffer, EvmUint32_t length) {
  return Evmxpcsend(connection->con, static_cast<Evmxpcmsgh_s*>(buffer), length) == xpcretSUCC
             ? EvmERROR_NONE
             : EvmERROR_CONNECTION_LOST;
}

EvmStatus_t _evmConnHeadSend(EvmConnection_t connection, EvmCommType_t type, EvmCommFlag_t flags,
                             EvmCommHeaderData_t headerData, EvmCommSize_t bodySize) {
  EvmCommHead_t h;
  fillHead(&h, type, flags, headerData, bodySize);
  return _evmConnSend(connection, &h, static_cast<EvmUint32_t>(EVM_COMM_HEAD_SIZE));
}

EvmStatus_t _evmConnEventSend(EvmConnection_t connection, EvmEvent_t event) {
  EvmEventHead_t* block = event->head_p;
  EvmCommHead_t h;
  fillHead(&h, EvmCOMM_POST_REQ, connection->mode == EvmRESPONSE_IGNORE ? evmCommFlag(EvmCOMMFLAG_DO_NOT_ACK) : 0,
           static_cast<EvmCommHeaderData_t>(reinterpret_cast<std::uintptr_t>(event)), block->control.size);
  if (connection->checksumUsed == EvmTRUE) {
    std::memset(block, 0, EVM_XPC_HEADER_SIZE);
    _evmFillTransportHeader(block, block->control.size);
    _evmInsertChecksum(block);
  }
  struct iovec v[2];
  v[0].iov_base = &h;
  v[0].iov_len = EVM_COMM_HEAD_SIZE;
  v[1].iov_base = block;
  v[1].iov_len = block->control.size;
  EvmStatus_t st = EvmERROR_NONE;
  bool queued = connection->nonBlocking == EvmTRUE && _evmIoMsgQueueCount(&connection->msgQueue) > 0;
  if (!queued) {
    claimChannel(connection);
    st = _evmWriteVIntr(connection->con, v, 2, nullptr);
    releaseChannel(connection);
    if (st != EvmERROR_WOULDBLOCK) return st;
  }
  // Only a transport that can say "would block" gets here; the blocking transport never does, so
  // its queue stays empty. The queue is kept for callers that turn non-blocking posts on.
  char* linear = nullptr;
  EvmUint32_t length = 0;
  st = _evmIovToLinearMsg(v, 2, &linear, &length);
  if (st != EvmERROR_NONE) return st;
  st = _evmIoMsgQueueAddEntry(&connection->msgQueue, linear, length);
  if (st != EvmERROR_NONE) {
    std::free(linear);
    return st;
  }
  claimChannel(connection);
  EvmConnFlush(connection, nullptr);
  releaseChannel(connection);
  return EvmERROR_QUEUED;
}

// ---- Subscribing ----

EvmStatus_t EvmConnSubscribe(EvmConnection_t connection, const char* pattern) {
  if (pattern == nullptr || std::strlen(pattern) > EVM_SUBSCRIBE_MAX_FILTER ||
      _evmStringCheck(pattern, nullptr, EvmTRUE) != EvmERROR_NONE)
    return EvmERROR_INVALID_ARGUMENT;
  EvmStatus_t st = _evmConnContextActive(connection);
  if (st != EvmERROR_NONE) return st;
  if (connection->type != EvmCONNECTION_LISTEN) return EvmERROR_INVALID_ARGUMENT;
  const std::size_t length = std::strlen(pattern) + 1;
  unsigned char body[EVM_SUBSCRIBE_OFF_PATTERN + EVM_SUBSCRIBE_MAX_FILTER + 1];
  std::memset(body, 0, EVM_SUBSCRIBE_OFF_PATTERN);
  const auto bodySize = static_cast<EvmUint32_t>(EVM_SUBSCRIBE_OFF_PATTERN + length);
  _evmFillTransportHeader(body, bodySize);
  std::memcpy(body + EVM_SUBSCRIBE_OFF_PATTERN, pattern, length);
  EvmCommHead_t h;
  fillHead(&h, EvmCOMM_SUBSCRIPTION_REQ, 0, 0, bodySize);
  struct iovec v[2];
  v[0].iov_base = &h;
  v[0].iov_len = EVM_COMM_HEAD_SIZE;
  v[1].iov_base = body;
  v[1].iov_len = bodySize;
  claimChannel(connection);
  st = _evmWriteVIntr(connection->con, v, 2, nullptr);
  releaseChannel(connection);
  if (st != EvmERROR_NONE) {
    _evmConnDisable(connection);
    return EvmERROR_CONNECTION_LOST;
  }
  return EvmERROR_NONE;
}

// ---- Posting ----

EvmStatus_t EvmEventPost(EvmConnection_t connection, EvmEvent_t event) {
  if (event == nullptr || _evmuiTestEventMagic(event) != EvmERROR_NONE || event->head_p == nullptr)
    return EvmERROR_INVALID_ARGUMENT;
  EvmConnection_t temporary = nullptr;
  EvmStatus_t st;
  if (connection == nullptr) {
    if (EvmInitxpcctx() == nullptr) return EvmERROR_RESOURCE;
    st = EvmConnCreate(EvmCONNECTION_POST, EvmRESPONSE_WAIT, nullptr, nullptr, nullptr, &temporary);
    if (st != EvmERROR_NONE) return st;
    connection = temporary;
    st = _EvmItemSetAutoWithCache(event, 0, &connection->identity, EvmFALSE);
  } else {
    st = _evmConnContextActive(connection);
    if (st != EvmERROR_NONE) return st;
    if (connection->type != EvmCONNECTION_POST) return EvmERROR_INVALID_ARGUMENT;
    EvmBoolean_t tcp = connection->transportType == EvmTRANSPORT_TCPIP ? EvmTRUE : EvmFALSE;
    // The identity cache is the connection's, and posts of several threads share it.
    pthread_mutex_lock(&connection->conn_mx);
    if (connection->postComponentsMasked == EvmTRUE) {
      if (connection->postItems != 0)
        st = _EvmItemSetAutoWithCache(event, connection->postItems, &connection->identity, tcp);
    } else {
      st = _EvmItemSetAutoWithCache(event, 0, &connection->identity, tcp);
    }
    pthread_mutex_unlock(&connection->conn_mx);
  }
  if (st != EvmERROR_NONE) {
    if (temporary != nullptr) EvmConnDestroy(temporary);
    return st;
  }

  // The answer's place is taken before the post leaves, so no answer can come before it.
  _evmAckWaiter_t waiter{static_cast<EvmCommHeaderData_t>(reinterpret_cast<std::uintptr_t>(event)), EvmFALSE,
                         EvmERROR_NONE, nullptr};
  const bool wait = connection->mode == EvmRESPONSE_WAIT;
  if (wait) addWaiter(connection, &waiter);
  st = _evmConnEventSend(connection, event);
  if (st == EvmERROR_NO_MEMORY) st = EvmERROR_RESOURCE;
  if (st != EvmERROR_NONE && st != EvmERROR_QUEUED && st != EvmERROR_RESOURCE) {
    _evmConnDisable(connection);
    st = EvmERROR_CONNECTION_LOST;
  }
  if (wait) {
    if (st == EvmERROR_NONE) {
      st = awaitAnswer(connection, &waiter);
    } else {
      pthread_mutex_lock(&connection->ack_mx);
      removeWaiter(connection, &waiter);
      pthread_mutex_unlock(&connection->ack_mx);
    }
  }
  if (temporary != nullptr) EvmConnDestroy(temporary);
  return st;
}

EvmStatus_t EvmEventPostVa(EvmConnection_t connection, EvmEvent_t event, ...) {
  va_list args;
  va_start(args, event);
  int entries = 0;
  EvmUint32_t space = 0;
  EvmStatus_t st = EvmCalculateItemPkgSpaceFromVarargs(&args, EvmFALSE, &entries, &space);
  va_end(args);
  if (st != EvmERROR_NONE) return st;
  auto* pkg = static_cast<EvmItemPkg_t*>(_evmmiscMalloc(space));
  if (pkg == nullptr) return EvmERROR_NO_MEMORY;
  va_start(args, event);
  st = EvmBuildItemPkgFromVarargs(&args, EvmFALSE, entries, pkg, space);
  va_end(args);
  EvmEvent_t made = nullptr;
  if (st == EvmERROR_NONE) st = _evmEventCreateFromItemPkg(&made, pkg);
  if (st == EvmERROR_NONE && event != nullptr) {
    st = _evmMerge(made, event);
    if (st != EvmERROR_NONE) {
      EvmEventDestroy(made);
      made = nullptr;
    }
  }
  if (st == EvmERROR_NONE) {
    st = EvmEventPost(connection, made);
    EvmEventDestroy(made);
  }
  _evmmiscFree(pkg);
  return st;
}

// ---- Waiting ----

EvmStatus_t EvmConnWaitInternal(EvmConnection_t connection, cls_timeval* timeout) {
  xpccon* con = nullptr;
  EvmStatus_t st = EvmConnConGet(connection, &con);
  if (st != EvmERROR_NONE) return st;
  st = _evmConnContextActive(connection);
  if (st != EvmERROR_NONE) return st;
  int r;
  if (timeout != nullptr) {
    // tv_usec counts milliseconds, not microseconds: {2, 500} is two and a half seconds, as the
    // library's callers have always written it.
    int ms = timeout->tv_sec * 1000 + timeout->tv_usec;
    r = xpcselect(connection->ugblm, DummyEvtHdlr, ms, 250, XPC_WAIT_TIMED);
  } else {
    r = xpcselect(connection->ugblm, DummyEvtHdlr, 0, 0, XPC_WAIT_FOREVER | XPC_WAIT_TIMED);
  }
  if (r == xpcretSUCC) return EvmERROR_NONE;
  if (r == xpcretNOEVENT) return EvmERROR_SIGNAL;
  if (r == xpcretTIMEOUT) return EvmERROR_TIMEOUT;
  return EvmERROR_CONNECTION_LOST;
}

EvmStatus_t EvmConnWait(EvmConnection_t connection, cls_timeval* timeout) {
  if (timeout != nullptr && timeout->tv_sec == 0 && timeout->tv_usec == 0) {
    cls_timeval oneMs{0, 1};
    return EvmConnWaitInternal(connection, &oneMs);
  }
  return EvmConnWaitInternal(connection, timeout);
}

EvmStatus_t EvmConnCheck(EvmConnection_t connection, EvmBoolean_t* ready) {
  if (ready == nullptr) return EvmERROR_INVALID_ARGUMENT;
  cls_timeval zero{0, 0};
  EvmStatus_t st = EvmConnWaitInternal(connection, &zero);
  if (st == EvmERROR_NONE) {
    *ready = EvmTRUE;
    return EvmERROR_NONE;
  }
  *ready = EvmFALSE;
  return st == EvmERROR_TIMEOUT ? EvmERROR_NONE : st;
}

EvmStatus_t EvmConnDispatch(EvmConnection_t connection) {
  EvmBoolean_t ready = EvmFALSE;
  EvmStatus_t st = EvmConnCheck(connection, &ready);
  if (st != EvmERROR_NONE || ready != EvmTRUE) return st;
  return _evmConnDispatchNext(connection);
}

EvmStatus_t _evmConnWaitForAcknowledgement(EvmConnection_t connection) {
  EvmStatus_t st = EvmERROR_NONE;
  setAckPending(connection, EvmTRUE);
  while (ackPending(connection)) {
    st = EvmConnWait(connection, nullptr);
    if (st == EvmERROR_NONE) {
      st = EvmConnDispatch(connection);
      if (st != EvmERROR_NONE) break;
    } else if (st != EvmERROR_SIGNAL) {
      setAckPending(connection, EvmFALSE);
      break;
    }
  }
  return st;
}

// ---- Dispatch ----

EvmStatus_t _evmConnDispatchPostResponse(EvmConnection_t connection, EvmCommHeaderData_t headerData,
                                         EvmCommFlag_t flags) {
  EvmStatus_t answer = EvmERROR_NONE;
  if (flags & evmCommFlag(EvmCOMMFLAG_EVENT_REJECTED)) answer = EvmERROR_EVENT_REJECTED;
  if (flags & evmCommFlag(EvmCOMMFLAG_INVALID_DATA)) answer = EvmERROR_EVENT_NOT_VALID;
  if (flags & evmCommFlag(EvmCOMMFLAG_RESOURCE_FAILURE)) answer = EvmERROR_NO_MEMORY;
  if (connection->mode == EvmRESPONSE_WAIT) {
    pthread_mutex_lock(&connection->ack_mx);
    // The post whose handle the daemon echoed; failing that, the oldest one still waiting.
    _evmAckWaiter_t* hit = nullptr;
    for (_evmAckWaiter_t* w = connection->ackWaiters; w != nullptr; w = w->next) {
      if (w->answered == EvmTRUE) continue;
      if (hit == nullptr) hit = w;
      if (w->token == headerData) {
        hit = w;
        break;
      }
    }
    if (hit != nullptr) {
      hit->answered = EvmTRUE;
      hit->status = answer;
      pthread_cond_broadcast(&connection->ack_condv);
    }
    pthread_mutex_unlock(&connection->ack_mx);
    if (hit == nullptr) {
      _evmConnDisable(connection);
      return EvmERROR_PROTOCOL;
    }
    return answer;
  }
  if (connection->mode == EvmRESPONSE_CALLBACK) {
    EvmCallbackData_t data{};
    data.reason = EvmREASON_POST_COMPLETE;
    data.event = reinterpret_cast<EvmEvent_t>(static_cast<std::uintptr_t>(headerData));
    data.status = answer;
    callBack(connection, &data);
  }
  return EvmERROR_NONE;
}

EvmStatus_t _evmConnDispatchNext(EvmConnection_t connection) {
  EvmCommHead_t h;
  std::uint32_t got = 0;
  if (xpcreceive(connection->con, &h, EVM_COMM_HEAD_SIZE, 0, 0, 32, &got) != xpcretSUCC ||
      got != EVM_COMM_HEAD_SIZE) {
    _evmConnDisable(connection);
    return EvmERROR_CONNECTION_LOST;
  }
  EvmCallbackData_t data{};
  switch (h.type) {
    case EvmCOMM_CONNECT_RSP:
    case EvmCOMM_AUTHENT_RSP:
    case EvmCOMM_SYNCHRO_RSP: {
      EvmStatus_t st = EvmERROR_NONE;
      if (!ackPending(connection))
        st = EvmERROR_PROTOCOL;
      else if (h.flags & evmCommFlag(EvmCOMMFLAG_INVALID_DATA))
        st = EvmERROR_INVALID_ARGUMENT;
      else if (h.flags & evmCommFlag(EvmCOMMFLAG_CONNECTION_REFUSED))
        st = EvmERROR_CONNECTION_REFUSED;
      else if (h.flags & evmCommFlag(EvmCOMMFLAG_SERVICE_START_FAILURE))
        st = EvmERROR_INVALID_VALUE;
      if (st != EvmERROR_NONE) {
        _evmConnDisable(connection);
        return st;
      }
      setAckPending(connection, EvmFALSE);
      if (h.type == EvmCOMM_CONNECT_RSP && h.bodySize > 0 && connection->transportType == EvmTRANSPORT_TCPIP) {
        if (h.version != 0 && connection->daemonCommVrsn != 2) connection->daemonCommVrsn = 1;
        auto* body = static_cast<unsigned char*>(std::malloc(h.bodySize < EVM_XPC_HEADER_SIZE ? EVM_XPC_HEADER_SIZE
                                                                                             : h.bodySize));
        if (body == nullptr) {
          _evmConnDisable(connection);
          return EvmERROR_NO_MEMORY;
        }
        if (xpcreceive(connection->con, body, h.bodySize, 0, 0, 32, &got) != xpcretSUCC) {
          std::free(body);
          _evmConnDisable(connection);
          return EvmERROR_CONNECTION_LOST;
        }
        // A body no longer than its transport header holds no list.
        if (got > EVM_XPC_HEADER_SIZE) {
          EvmSize_t n = got - static_cast<EvmSize_t>(EVM_XPC_HEADER_SIZE);
          auto* list = static_cast<EvmUint32_t*>(std::malloc(n));
          if (list == nullptr) {
            std::free(body);
            _evmConnDisable(connection);
            return EvmERROR_NO_MEMORY;
          }
          std::memcpy(list, body + EVM_XPC_HEADER_SIZE, n);
          std::free(connection->clusterMembers);
          connection->clusterMembers = list;
          connection->clusterMembersSize = n;
        }
        std::free(body);
        if (h.flags & evmCommFlag(EvmCOMMFLAG_IS_CLUSTER_ALIAS)) {
          connection->isClusterAlias = EvmTRUE;
          connection->realHostAddr = static_cast<EvmUint32_t>(h.headerData);
        }
      }
      return EvmERROR_NONE;
    }
    case EvmCOMM_SUBSCRIPTION_RSP:
      data.reason = EvmREASON_SUBSCRIBE_COMPLETE;
      data.status = (h.flags & evmCommFlag(EvmCOMMFLAG_INVALID_DATA))             ? EvmERROR_FILTER_NOT_VALID
                    : (h.flags & evmCommFlag(EvmCOMMFLAG_SYNCHRONIZATION_FAILED)) ? EvmERROR_SYNCHRONIZATION_FAILURE
                                                                                   : EvmERROR_NONE;
      callBack(connection, &data);
      return EvmERROR_NONE;
    case EvmCOMM_POST_RSP:
      return _evmConnDispatchPostResponse(connection, h.headerData, h.flags);
    case EvmCOMM_NOTIFY: {
      EvmEvent_t ev = nullptr;
      if (EvmEventRead(connection->con, &ev, h.bodySize) != EvmERROR_NONE) {
        _evmConnDisable(connection);
        return EvmERROR_CONNECTION_LOST;
      }
      data.reason = EvmREASON_EVENT_DELIVERED;
      data.event = ev;
      data.status = (h.flags & evmCommFlag(EvmCOMMFLAG_INVALID_DATA)) ? EvmERROR_INVALID_ARGUMENT : EvmERROR_NONE;
      if (connection->callback != nullptr)
        callBack(connection, &data);
      else
        EvmEventDestroy(ev);
      return EvmERROR_NONE;
    }
    case EvmCOMM_FLAGS:
      if (h.flags & evmCommFlag(EvmCOMMFLAG_EVENT_LOST)) {
        data.reason = EvmREASON_EVENTS_MISSED;
        data.extension.eventMissedData.missedCount = static_cast<EvmUint32_t>(h.headerData);
      } else if (h.flags & evmCommFlag(EvmCOMMFLAG_KBUFF_OVERFLOW)) {
        data.reason = EvmREASON_KBUFF_OVERFLOW;
        data.extension.kBuffOverflowData.missedCount = static_cast<EvmUint32_t>(h.headerData);
      } else {
        return EvmERROR_NONE;  // no reason to report
      }
      callBack(connection, &data);
      return EvmERROR_NONE;
    case EvmCOMM_TEMPLATE_INFO_RSP:
    case EvmCOMM_REGISTRATION_RSP: {
      data.reason = h.type == EvmCOMM_TEMPLATE_INFO_RSP ? EvmREASON_TEMPLATE_INFO_DELIVERED
                                                        : EvmREASON_REGISTRATION_DELIVERED;
      data.extension.templateData.userArg = reinterpret_cast<void*>(static_cast<std::uintptr_t>(h.headerData));
      if (h.flags & evmCommFlag(EvmCOMMFLAG_EVENT_NOT_REGISTERED)) {
        data.status = EvmERROR_NOT_PRESENT;
      } else if (h.flags & evmCommFlag(EvmCOMMFLAG_INVALID_DATA)) {
        data.status = EvmERROR_INVALID_ARGUMENT;
      } else if (h.flags & evmCommFlag(EvmCOMMFLAG_RESOURCE_FAILURE)) {
        data.status = EvmERROR_RESOURCE;
      } else {
        EvmGetTemplateData_s td;
        if (xpcreceive(connection->con, &td, EVM_TEMPLATE_DATA_SIZE, 0, 0, 32, &got) != xpcretSUCC ||
            EvmTemplateEventRead(connection->con, &data.event) != EvmERROR_NONE) {
          _evmConnDisable(connection);
          data.status = EvmERROR_CONNECTION_LOST;
        } else {
          data.extension.templateData.squelchLevel = td.squelchLevel;
          if (h.flags & evmCommFlag(EvmCOMMFLAG_FIRST_EVENT)) data.extension.templateData.resetToFirst = EvmTRUE;
        }
      }
      callBack(connection, &data);
      return EvmERROR_NONE;
    }
    default:
      _evmConnDisable(connection);
      return EvmERROR_PROTOCOL;
  }
}
