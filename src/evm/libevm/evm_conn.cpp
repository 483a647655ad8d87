// Connections to the event daemon: setup, the connect request and its acknowledgement, the
// controls, teardown, and the one transport context of the process.
#include "evm/libevm/evm_conn.h"

#include <arpa/inet.h>
#include <netdb.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "evm/libevm/clsgenv.h"
#include "evm/libevm/evm_log.h"
#include "evm/libevm/evm_misc.h"
#include "evm/libevm/evm_post.h"
#include "platform/host/utlhost.h"
#include "platform/thread/nxthr.h"

namespace {

pthread_mutex_t ctxMx = PTHREAD_MUTEX_INITIALIZER;
xpcctx* globalevmuser = nullptr;  // guarded by ctxMx for its creation

void freeConnection(EvmConnection_t c) {
  if (c == nullptr) return;
  std::free(c->hostName);
  std::free(c->localHostName);
  std::free(c->socketName);
  std::free(c->userName);
  std::free(c->clusterMembers);
  delete c->euid;
  _evmIdentityCacheFree(&c->identity);
  if (c->ugblm != nullptr) xpcugblmterm(c->ugblm);
  pthread_mutex_destroy(&c->conn_mx);
  pthread_cond_destroy(&c->conn_condv);
  pthread_mutex_destroy(&c->ack_mx);
  pthread_cond_destroy(&c->ack_condv);
  std::free(c);
}

bool isDottedNumber(const char* s) {
  if (*s == '\0') return false;
  for (; *s; ++s)
    if (!((*s >= '0' && *s <= '9') || *s == '.')) return false;
  return true;
}

// The host's first IPv4 address in network order, or 0.
EvmUint32_t firstAddress(const char* host) {
  addrinfo hints{};
  hints.ai_family = AF_INET;
  addrinfo* res = nullptr;
  if (getaddrinfo(host, nullptr, &hints, &res) != 0 || res == nullptr) return 0;
  std::unique_ptr<addrinfo, void (*)(addrinfo*)> owner(res, freeaddrinfo);
  return reinterpret_cast<sockaddr_in*>(res->ai_addr)->sin_addr.s_addr;
}

EvmStatus_t sockInfoGet(EvmConnection_t c) {
  if (c->localHostName != nullptr) return EvmERROR_NONE;
  char* name = _evmHostNameDup();
  if (name == nullptr) return EvmERROR_NO_MEMORY;
  EvmUint32_t a = firstAddress(name);
  if (a == 0) {
    std::free(name);
    return EvmERROR_RESOURCE;
  }
  c->localHostName = name;
  c->localHostAddr = a;
  return EvmERROR_NONE;
}

EvmStatus_t peerInfoGet(EvmConnection_t c) {
  if (c->hostName != nullptr) return EvmERROR_NONE;
  char buf[256];
  if (xpcgetaddr(c->con, buf, sizeof buf, XPC_ADDR_PEER) != xpcretSUCC) return EvmERROR_CONNECTION_LOST;
  const char* at = std::strstr(buf, "HOST=");
  const char* end = at != nullptr ? std::strchr(at, ')') : nullptr;
  if (end == nullptr) return EvmERROR_RESOURCE;
  std::string host(at + 5, end);
  cls_in_addr_t a = 0;
  if (_evminet_aton(host.c_str(), &a) == 1) {
    c->hostAddr = a;
    c->hostName = _evmHostNameFromId(a);
    if (c->hostName == nullptr) c->hostName = _evmmiscStrdup(host.c_str());
  } else {
    a = firstAddress(host.c_str());
    if (a == 0) return EvmERROR_RESOURCE;
    c->hostAddr = a;
    c->hostName = _evmmiscStrdup(host.c_str());
  }
  return c->hostName != nullptr ? EvmERROR_NONE : EvmERROR_NO_MEMORY;
}

}  // namespace

// ---- Process-wide context ----

xpcctx* EvmInitxpcctx() {
  pthread_mutex_lock(&ctxMx);
  if (globalevmuser == nullptr) {
    char msg[100];
    if (utlnsinit(msg, sizeof msg) == 0) {
      xpcctx* ctx = nullptr;
      if (xpcinit(0, 0, &ctx, 0) == xpcretSUCC) globalevmuser = ctx;
    }
  }
  xpcctx* ctx = globalevmuser;
  pthread_mutex_unlock(&ctxMx);
  return ctx;
}

void Evmxpcterm() {
  pthread_mutex_lock(&ctxMx);
  if (globalevmuser != nullptr) xpcterm(globalevmuser);
  globalevmuser = nullptr;
  pthread_mutex_unlock(&ctxMx);
}

// ---- Addresses ----

char* _evmdConnString(int) {
  char buf[EVM_SOCKET_NAME_MAX * 2];
  const char* cluster = std::getenv("GMX_CLUSTERNAME");
  if (cluster != nullptr && *cluster != '\0') {
    char host[256];
    if (utlhost(host, sizeof host) < 1) return nullptr;
    std::snprintf(buf, sizeof buf, "(ADDRESS=(PROTOCOL=ipc)(KEY=%s.%s.%s))", EVM_ACCEPTOR_KEY, cluster, host);
  } else {
    std::snprintf(buf, sizeof buf, "(ADDRESS=(PROTOCOL=ipc)(KEY=%s))", EVM_ACCEPTOR_KEY);
  }
  return _evmmiscStrdup(buf);
}

int _evminet_aton(const char* text, cls_in_addr_t* address) {
  if (text == nullptr || !isDottedNumber(text)) return 0;
  EvmUint32_t parts[4] = {0, 0, 0, 0};
  int n = 0;
  const char* p = text;
  while (true) {
    if (n == 4 || *p < '0' || *p > '9') return 0;
    EvmUint32_t v = 0;
    while (*p >= '0' && *p <= '9') {
      v = v * 10 + static_cast<EvmUint32_t>(*p - '0');
      if (v > 255) return 0;
      ++p;
    }
    parts[n++] = v;
    if (*p == '\0') break;
    ++p;  // a dot
  }
  // Missing numbers are zero bytes at the low end: "10.1" is 10.1.0.0.
  EvmUint32_t host = (parts[0] << 24) | (parts[1] << 16) | (parts[2] << 8) | parts[3];
  if (address != nullptr) *address = htonl(host);
  return 1;
}

char* _StripHostKey(char* host) {
  if (host == nullptr) return nullptr;
  char* dot = std::strchr(host, '.');
  if (dot == nullptr) return host;
  if (!isDottedNumber(host)) {
    *dot = '\0';
    return host;
  }
  in_addr a{};
  if (inet_pton(AF_INET, host, &a) != 1) return nullptr;
  char name[NI_MAXHOST];
  sockaddr_in sa{};
  sa.sin_family = AF_INET;
  sa.sin_addr = a;
  if (getnameinfo(reinterpret_cast<sockaddr*>(&sa), sizeof sa, name, sizeof name, nullptr, 0, NI_NAMEREQD) != 0)
    return nullptr;
  if (std::strcmp(name, "localhost") != 0) {
    char* d = std::strchr(name, '.');
    if (d != nullptr) *d = '\0';
  }
  // The argument holds a dotted number, which is at least as long as what fits of the name.
  std::size_t room = std::strlen(host);
  std::strncpy(host, name, room);
  host[room] = '\0';
  return host;
}

std::size_t _evmGetPidSizeHack() { return sizeof(osl_pid_t); }
std::size_t _evmGetUidSize() { return sizeof(osl_user_id); }
std::size_t _evmGetConnectReqDataSize() { return evmConnReqNameOffset(_evmGetPidSizeHack(), _evmGetUidSize()); }
unsigned char* _evmGetConnectReqDataPidPtr(unsigned char* request) { return request + EVM_CONNREQ_OFF_PID; }
unsigned char* _evmGetConnectReqDataUidPtr(unsigned char* request) {
  return request + evmConnReqUidOffset(_evmGetPidSizeHack());
}

// ---- Checks ----

EvmStatus_t _evmConnContextCheck(EvmConnection_t connection) {
  if (connection == nullptr || connection->magic != EVM_CONN_MAGIC) return EvmERROR_INVALID_ARGUMENT;
  return EvmERROR_NONE;
}

EvmStatus_t _evmConnContextActive(EvmConnection_t connection) {
  EvmStatus_t st = _evmConnContextCheck(connection);
  if (st != EvmERROR_NONE) return st;
  // Another thread's failed read may be disabling the connection at this very moment.
  pthread_mutex_lock(&connection->ack_mx);
  const bool disabled = connection->disabled == EvmTRUE;
  pthread_mutex_unlock(&connection->ack_mx);
  if (connection->con == nullptr || disabled) return EvmERROR_CONNECTION_LOST;
  return EvmERROR_NONE;
}

void _evmConnDisable(EvmConnection_t connection) {
  if (connection == nullptr) return;
  pthread_mutex_lock(&connection->ack_mx);
  connection->disabled = EvmTRUE;
  // Posts waiting on another thread's reads must learn that no answer will come.
  pthread_cond_broadcast(&connection->ack_condv);
  pthread_mutex_unlock(&connection->ack_mx);
}

EvmStatus_t _evmConnClose(EvmConnection_t connection) {
  if (connection->con == nullptr) return EvmERROR_NONE;
  int r = xpcdisc(connection->con);
  connection->con = nullptr;
  return r == xpcretSUCC ? EvmERROR_NONE : EvmERROR_PROTOCOL;
}

// ---- Connect ----

EvmStatus_t _evmConnSetup(EvmConnectionType_t type, EvmResponseMode_t mode, EvmTransport_t* transport,
                          EvmCallback_t callback, EvmCallbackArg_t callbackArg, EvmConnection_t* connection,
                          xpcctx* ctx, xpcugblm* ugblm) {
  if (connection == nullptr) return EvmERROR_INVALID_ARGUMENT;
  *connection = nullptr;
  if (mode != EvmRESPONSE_WAIT && mode != EvmRESPONSE_CALLBACK && mode != EvmRESPONSE_IGNORE)
    return EvmERROR_INVALID_ARGUMENT;
  if (mode == EvmRESPONSE_CALLBACK && callback == nullptr) return EvmERROR_INVALID_ARGUMENT;
  if (type != EvmCONNECTION_POST && type != EvmCONNECTION_LISTEN && type != EvmCONNECTION_SERVICE)
    return EvmERROR_INVALID_ARGUMENT;
  if (type == EvmCONNECTION_LISTEN && mode != EvmRESPONSE_CALLBACK) return EvmERROR_INVALID_ARGUMENT;
  EvmTransportType_t ttype = EvmTRANSPORT_DOMAIN_SOCKET;
  if (transport != nullptr) {
    if (transport->type != EvmTRANSPORT_DOMAIN_SOCKET && transport->type != EvmTRANSPORT_TCPIP)
      return EvmERROR_INVALID_ARGUMENT;
    ttype = transport->type;
  }

  auto c = static_cast<EvmConnection_t>(std::calloc(1, sizeof(EvmConnection_s)));
  if (c == nullptr) return EvmERROR_NO_MEMORY;
  c->type = type;
  c->mode = mode;
  c->transportType = ttype;
  c->callback = callback;
  c->callbackArg = callbackArg;
  c->portNumber = htons(EVM_DEFAULT_TCP_PORT);
  c->fdRead = c->fdWrite = -1;
  c->connect_state = EvmCONNECT_NONE;
  c->magic = EVM_CONN_MAGIC;
  c->checksumUsed = EvmTRUE;
  c->ctx = ctx;
  c->ugblm = ugblm;
  _evmIoMsgQueueInit(&c->msgQueue);
  pthread_mutex_init(&c->conn_mx, nullptr);
  pthread_cond_init(&c->conn_condv, nullptr);
  pthread_mutex_init(&c->ack_mx, nullptr);
  pthread_cond_init(&c->ack_condv, nullptr);
  nxthrInitctx();
  *connection = c;

  osl_pid_t pid = 0;
  c->euid = new (std::nothrow) osl_user_id{};
  if (c->euid == nullptr) return EvmERROR_NO_MEMORY;
  osrec e;
  if (osl_pid_get_self(osl_process_ctx(), &e, 0, &pid) != 0 || osl_idq_get_user_id(osl_process_ctx(), &e, 0, c->euid) != 0)
    return EvmERROR_LAST;
  c->pid = pid;

  char address[EVM_SOCKET_NAME_MAX];
  if (ttype == EvmTRANSPORT_DOMAIN_SOCKET) {
    const char* given = transport != nullptr ? transport->data.domainSocket.name : nullptr;
    c->socketName = given != nullptr ? _evmmiscStrdup(given) : _evmdConnString(0);
    if (c->socketName == nullptr) return EvmERROR_NO_MEMORY;
    if (std::strlen(c->socketName) >= EVM_SOCKET_NAME_MAX) return EvmERROR_INVALID_ARGUMENT;
    std::strcpy(address, c->socketName);
  } else {
    if (transport->data.tcpip.portNumber != -1)
      c->portNumber = htons(static_cast<EvmUint16_t>(transport->data.tcpip.portNumber));
    const char* host = transport->data.tcpip.hostName;
    if (host == nullptr) return EvmERROR_INVALID_ARGUMENT;
    in_addr a{};
    c->hostAddr = inet_aton(host, &a) != 0 ? a.s_addr : firstAddress(host);
    if (c->hostAddr == 0) return EvmERROR_INVALID_VALUE;
    char keyHost[256];
    std::snprintf(keyHost, sizeof keyHost, "%s", host);
    const char* part = _StripHostKey(keyHost);
    if (part == nullptr) return EvmERROR_INVALID_ARGUMENT;
    std::string key = std::string(EVM_RMPORT_KEY) + part;
    // Where the daemon listens is known only from what it wrote into the registry.
    if (clsgetconnstr(key.c_str(), address) != 0) return EvmERROR_CONNECT;
  }
  int options = ttype == EvmTRANSPORT_DOMAIN_SOCKET ? 2 : 0;
  if (xpcconnect(ugblm, address, 0, &c->con, nullptr, nullptr, nullptr, nullptr, 30, options) != xpcretSUCC) {
    c->con = nullptr;
    return EvmERROR_CONNECT;
  }
  return EvmERROR_NONE;
}

EvmStatus_t _evmConnRequestSend(EvmConnection_t connection) {
  const std::size_t sizePid = _evmGetPidSizeHack(), sizeUid = _evmGetUidSize();
  const std::size_t fixed = evmConnReqNameOffset(sizePid, sizeUid);
  const char* service = connection->type == EvmCONNECTION_SERVICE ? static_cast<const char*>(connection->callbackArg)
                                                                   : nullptr;
  const std::size_t nameLen = service != nullptr ? std::strlen(service) : 0;
  const std::size_t length = fixed + nameLen;
  auto* req = static_cast<unsigned char*>(std::calloc(1, length));
  if (req == nullptr) return EvmERROR_NO_MEMORY;
  // The id bytes are the leading bytes of each value: the little-endian low part.
  std::memcpy(_evmGetConnectReqDataPidPtr(req), &connection->pid, sizePid < sizeof connection->pid ? sizePid : sizeof connection->pid);
  osl_user_id uid{};
  osrec e;
  if (osl_idq_get_user_id(osl_process_ctx(), &e, 0, &uid) != 0) {
    std::free(req);
    return EvmERROR_LAST;
  }
  std::memcpy(_evmGetConnectReqDataUidPtr(req), &uid, sizeUid);
  EvmUint32_t connector = connection->type == EvmCONNECTION_POST     ? EvmCOMM_POSTER
                          : connection->type == EvmCONNECTION_LISTEN ? EvmCOMM_SUBSCRIBER
                                                                     : EvmCOMM_SERVICE;
  evmStore32(req, EVM_CONNREQ_OFF_CONNECTOR, connector);
  evmStore32(req, EVM_CONNREQ_OFF_NAME_LEN, static_cast<EvmUint32_t>(nameLen));
  if (nameLen > 0) std::memcpy(req + fixed, service, nameLen);
  EvmCommHeaderData_t hd = connection->transportType == EvmTRANSPORT_TCPIP ? connection->hostAddr : 0;
  EvmStatus_t st = _evmConnHeadSend(connection, EvmCOMM_CONNECT_REQ, 0, hd, static_cast<EvmCommSize_t>(length));
  if (st == EvmERROR_NONE) st = _evmConnSend(connection, req, static_cast<EvmUint32_t>(length));
  std::free(req);
  return st;
}

EvmStatus_t _evmConnRequestComplete(EvmConnection_t connection) {
  EvmStatus_t st = _evmConnWaitForAcknowledgement(connection);
  if (st != EvmERROR_NONE) return st;
  auto size = reinterpret_cast<EvmPointer_t>(static_cast<std::uintptr_t>(EVM_CONN_BUFFER_SIZE));
  if (connection->type == EvmCONNECTION_POST) return EvmConnControl(connection, EvmCONN_SND_SZ_SET, size);
  if (connection->type == EvmCONNECTION_LISTEN) return EvmConnControl(connection, EvmCONN_RCV_SZ_SET, size);
  return EvmERROR_NONE;
}

EvmStatus_t EvmConnCreateStep(EvmConnectionType_t type, EvmResponseMode_t mode, EvmTransport_t* transport,
                              EvmCallback_t callback, EvmCallbackArg_t callbackArg, EvmConnection_t* connection,
                              xpcctx* ctx, xpcugblm* ugblm) {
  EvmConnection_t c = nullptr;
  EvmStatus_t st = _evmConnSetup(type, mode, transport, callback, callbackArg, &c, ctx, ugblm);
  if (st == EvmERROR_NONE) {
    c->connect_state = EvmCONNECT_SETUP;
    st = _evmConnRequestSend(c);
  }
  if (st == EvmERROR_NONE) {
    c->connect_state = EvmCONNECT_REQUEST_SENT;
    c->connect_state = EvmCONNECT_AUTHENTICATED;
    st = _evmConnRequestComplete(c);
  }
  if (st != EvmERROR_NONE) {
    if (c != nullptr) {
      c->magic = 0;
      _evmConnClose(c);
      freeConnection(c);
    } else if (ugblm != nullptr) {
      xpcugblmterm(ugblm);
    }
    if (connection != nullptr) *connection = nullptr;
    return st;
  }
  c->connect_state = EvmCONNECT_COMPLETED;
  if (connection != nullptr) *connection = c;
  return EvmERROR_NONE;
}

EvmStatus_t EvmConnCreate(EvmConnectionType_t type, EvmResponseMode_t mode, EvmTransport_t* transport,
                          EvmCallback_t callback, EvmCallbackArg_t callbackArg, EvmConnection_t* connection) {
  xpcctx* ctx = EvmInitxpcctx();
  if (ctx == nullptr) return EvmERROR_RESOURCE;
  if (connection == nullptr) return EvmERROR_INVALID_ARGUMENT;
  *connection = nullptr;
  xpcugblm* ugblm = nullptr;
  if (xpcugblmini(ctx, &ugblm, 0) != xpcretSUCC) return EvmERROR_RESOURCE;
  return EvmConnCreateStep(type, mode, transport, callback, callbackArg, connection, ctx, ugblm);
}

EvmStatus_t EvmConnDestroy(EvmConnection_t connection) {
  EvmStatus_t st = _evmConnContextCheck(connection);
  if (st != EvmERROR_NONE) return st;
  if (connection->nonBlocking == EvmTRUE && _evmIoMsgQueueCount(&connection->msgQueue) > 0) {
    EvmConnFlush(connection, nullptr);
    _evmIoMsgQueueDestroy(&connection->msgQueue);
  }
  connection->magic = 0;
  _evmConnClose(connection);
  freeConnection(connection);
  return EvmERROR_NONE;
}

// ---- Controls and accessors ----

EvmStatus_t EvmConnControl(EvmConnection_t connection, EvmConnControlRequest_t request, EvmPointer_t argument) {
  EvmStatus_t st = _evmConnContextActive(connection);
  if (st != EvmERROR_NONE) return st;
  const bool tcp = connection->transportType == EvmTRANSPORT_TCPIP;
  switch (request) {
    case EvmCONN_RCV_SZ_GET:
    case EvmCONN_SND_SZ_GET:
      return argument != nullptr ? EvmERROR_NONE : EvmERROR_INVALID_ARGUMENT;
    case EvmCONN_RCV_SZ_SET:
    case EvmCONN_SND_SZ_SET:
      return EvmERROR_NONE;
    case EvmCONN_CHECKSUM_ENABLE:
      connection->checksumUsed = EvmTRUE;
      return EvmERROR_NONE;
    case EvmCONN_CHECKSUM_DISABLE:
      connection->checksumUsed = EvmFALSE;
      return EvmERROR_NONE;
    case EvmCONN_CHECKSUM_IS_ENABLED:
      if (argument == nullptr) return EvmERROR_INVALID_ARGUMENT;
      *static_cast<EvmBoolean_t*>(argument) = connection->checksumUsed;
      return EvmERROR_NONE;
    case EvmCONN_IS_CLUSTER_ALIAS:
      if (argument == nullptr) return EvmERROR_INVALID_ARGUMENT;
      *static_cast<EvmBoolean_t*>(argument) = connection->isClusterAlias;
      return EvmERROR_NONE;
    case EvmCONN_LOCAL_HOST_NAME_GET:
    case EvmCONN_LOCAL_IP_GET:
      if (!tcp || argument == nullptr) return EvmERROR_INVALID_ARGUMENT;
      st = sockInfoGet(connection);
      if (st != EvmERROR_NONE) return st;
      if (request == EvmCONN_LOCAL_HOST_NAME_GET)
        *static_cast<EvmString_t*>(argument) = connection->localHostName;
      else
        *static_cast<cls_in_addr_t*>(argument) = connection->localHostAddr;
      return EvmERROR_NONE;
    case EvmCONN_REMOTE_HOST_NAME_GET:
    case EvmCONN_REMOTE_IP_GET:
      if (!tcp || argument == nullptr) return EvmERROR_INVALID_ARGUMENT;
      st = peerInfoGet(connection);
      if (st != EvmERROR_NONE) return st;
      if (request == EvmCONN_REMOTE_HOST_NAME_GET)
        *static_cast<EvmString_t*>(argument) = connection->hostName;
      else
        *static_cast<cls_in_addr_t*>(argument) = connection->hostAddr;
      return EvmERROR_NONE;
    case EvmCONN_CLUSTER_LIST_GET: {
      if (argument == nullptr) return EvmERROR_INVALID_ARGUMENT;
      auto* out = static_cast<EvmCluaMemberList_t*>(argument);
      *out = nullptr;
      if (connection->clusterMembers == nullptr) return EvmERROR_NONE;
      auto* list = static_cast<EvmCluaMemberList_s*>(std::calloc(1, sizeof(EvmCluaMemberList_s)));
      void* copy = std::malloc(connection->clusterMembersSize);
      if (list == nullptr || copy == nullptr) {
        std::free(list);
        std::free(copy);
        return EvmERROR_NO_MEMORY;
      }
      std::memcpy(copy, connection->clusterMembers, connection->clusterMembersSize);
      list->count = connection->clusterMembersSize / sizeof(EvmUint32_t);
      list->members = static_cast<EvmUint32_t*>(copy);
      *out = list;
      return EvmERROR_NONE;
    }
    case EvmCONN_CLUSTER_HOST_IP_GET:
      if (!tcp || argument == nullptr) return EvmERROR_INVALID_ARGUMENT;
      *static_cast<cls_in_addr_t*>(argument) = connection->realHostAddr;
      return EvmERROR_NONE;
    case EvmCONN_POST_ITEM_MASK_SET:
      connection->postItems = static_cast<EvmItemMask_t>(reinterpret_cast<std::uintptr_t>(argument));
      connection->postComponentsMasked = EvmTRUE;
      return EvmERROR_NONE;
    case EvmCONN_POST_ITEM_MASK_RESET:
      connection->postItems = 0;
      connection->postComponentsMasked = EvmFALSE;
      return EvmERROR_NONE;
    case EvmCONN_POST_NONBLOCK_SET: {
      auto v = reinterpret_cast<std::uintptr_t>(argument);
      if (connection->type != EvmCONNECTION_POST || connection->mode != EvmRESPONSE_IGNORE || v > 1)
        return EvmERROR_INVALID_ARGUMENT;
      if (v == 0 && connection->nonBlocking == EvmTRUE) EvmConnFlush(connection, nullptr);
      connection->nonBlocking = v == 1 ? EvmTRUE : EvmFALSE;
      return EvmERROR_NONE;
    }
    case EvmCONN_REMOTE_IS_ON_CLUSTER:
    default:
      return EvmERROR_INVALID_ARGUMENT;
  }
}

EvmStatus_t EvmConnProtocolVersionGet(EvmConnection_t connection, EvmCommVersion_t* version) {
  if (_evmConnContextCheck(connection) != EvmERROR_NONE || version == nullptr) return EvmERROR_INVALID_ARGUMENT;
  *version = connection->daemonCommVrsn;
  return EvmERROR_NONE;
}

EvmStatus_t EvmConnFdGet(EvmConnection_t connection, EvmFd_t* fd) {
  if (_evmConnContextCheck(connection) != EvmERROR_NONE || fd == nullptr) return EvmERROR_INVALID_ARGUMENT;
  *fd = connection->fdRead;
  return EvmERROR_NONE;
}

EvmStatus_t EvmConnConGet(EvmConnection_t connection, xpccon** con) {
  if (_evmConnContextCheck(connection) != EvmERROR_NONE || con == nullptr) return EvmERROR_INVALID_ARGUMENT;
  *con = connection->con;
  return EvmERROR_NONE;
}

EvmStatus_t EvmConnUgblmGet(EvmConnection_t connection, xpcugblm** ugblm) {
  if (_evmConnContextCheck(connection) != EvmERROR_NONE || ugblm == nullptr) return EvmERROR_INVALID_ARGUMENT;
  *ugblm = connection->ugblm;
  return EvmERROR_NONE;
}

xpccon* EvmGetXpccon(EvmConnection_t connection) { return connection->con; }

void EvmSetXPC(EvmConnection_t connection, xpcctx* ctx, xpcugblm* ugblm) {
  connection->ctx = ctx;
  connection->ugblm = ugblm;
}
