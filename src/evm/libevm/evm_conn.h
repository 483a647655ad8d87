#ifndef EVM_LIBEVM_EVM_CONN_H
#define EVM_LIBEVM_EVM_CONN_H

// Connections to the event daemon: the connection object, finding the daemon's address, the
// connect request and its acknowledgement, the controls of a connection, and the process-wide
// transport context that all connections share.
#include <pthread.h>

#include "evm/libevm/evm_auto.h"
#include "evm/libevm/evm_comm_wire.h"
#include "evm/libevm/evm_types.h"
#include "platform/osl/osl.h"
#include "platform/xpc/xpc.h"

enum EvmConnectionType_e : std::int32_t {
  EvmCONNECTION_POST = 0,
  EvmCONNECTION_LISTEN = 1,
  EvmCONNECTION_SERVICE = 2,
};
typedef EvmConnectionType_e EvmConnectionType_t;

enum EvmResponseMode_e : std::int32_t {
  EvmRESPONSE_WAIT = 0,
  EvmRESPONSE_CALLBACK = 1,
  EvmRESPONSE_IGNORE = 2,
};
typedef EvmResponseMode_e EvmResponseMode_t;

enum EvmTransportType_e : std::int32_t {
  EvmTRANSPORT_DOMAIN_SOCKET = 0,
  EvmTRANSPORT_TCPIP = 1,
};
typedef EvmTransportType_e EvmTransportType_t;

struct EvmDomainSocketData_s {
  char* name;  // an address string, or null for the daemon's local address
};
struct EvmTcpipData_s {
  EvmInt32_t portNumber;  // -1: the default
  char* hostName;
};
union EvmTransportData_u {
  EvmDomainSocketData_s domainSocket;
  EvmTcpipData_s tcpip;
};
struct EvmTransport_s {
  EvmTransportType_t type;
  EvmTransportData_u data;
};
typedef EvmTransport_s EvmTransport_t;

enum EvmConnectionState_e : std::int32_t {
  EvmCONNECT_NONE = 0,
  EvmCONNECT_SETUP = 1,
  EvmCONNECT_REQUEST_SENT = 2,
  EvmCONNECT_AUTHENTICATED = 3,
  EvmCONNECT_COMPLETED = 4,
};
typedef EvmConnectionState_e EvmConnectionState_t;

enum EvmCallbackReason_e : std::int32_t {
  EvmREASON_POST_COMPLETE = 0,
  EvmREASON_EVENT_DELIVERED = 1,
  EvmREASON_SUBSCRIBE_COMPLETE = 2,
  EvmREASON_TEMPLATE_INFO_DELIVERED = 3,
  EvmREASON_REGISTRATION_DELIVERED = 4,
  EvmREASON_EVENTS_MISSED = 5,
  EvmREASON_KBUFF_OVERFLOW = 6,
};
typedef EvmCallbackReason_e EvmCallbackReason_t;

struct EvmCallbackTemplateData_s {
  void* userArg;
  EvmBoolean_t resetToFirst;
  EvmPriority_t squelchLevel;
};
struct EvmCallbackEventMissedData_s {
  EvmUint32_t missedCount;
};
struct EvmCallbackKBuffOverflowData_s {
  EvmUint32_t missedCount;
};
union EvmCallbackExtension_u {
  EvmCallbackTemplateData_s templateData;
  EvmCallbackEventMissedData_s eventMissedData;
  EvmCallbackKBuffOverflowData_s kBuffOverflowData;
};
typedef EvmCallbackExtension_u EvmCallbackExtension_t;

struct EvmCallbackData_s {
  EvmCallbackReason_t reason;
  EvmEvent_t event;
  EvmStatus_t status;
  EvmCallbackExtension_t extension;
};
typedef EvmCallbackData_s EvmCallbackData_t;

struct EvmConnection_s;
typedef EvmConnection_s* EvmConnection_t;
typedef void* EvmCallbackArg_t;
typedef void (*EvmCallback_t)(EvmConnection_t connection, EvmCallbackArg_t arg, EvmCallbackData_t* data);

typedef int EvmFd_t;
typedef std::uint32_t cls_in_addr_t;
typedef void* EvmPointer_t;

// A message a non-blocking post could not finish; `written` bytes of it are gone.
struct _evmIoMsgQueueEntry_s {
  char* msg;
  EvmSize_t length;
  EvmSize_t written;
  _evmIoMsgQueueEntry_s* next;
};
typedef _evmIoMsgQueueEntry_s _evmIoMsgQueueEntry_t;
struct _evmIoMsgQueue_s {
  _evmIoMsgQueueEntry_t* head;
  _evmIoMsgQueueEntry_t* tail;
  EvmUint32_t count;
};
typedef _evmIoMsgQueue_s _evmIoMsgQueue_t;

// Posts whose answer is awaited on a connection, in the order they went out. Several threads may
// post on one connection; one of them at a time reads the daemon's messages and hands each
// answer to the post it belongs to (by the echoed headerData, else the oldest).
struct _evmAckWaiter_s {
  EvmCommHeaderData_t token;
  EvmBoolean_t answered;
  EvmStatus_t status;
  _evmAckWaiter_s* next;
};
typedef _evmAckWaiter_s _evmAckWaiter_t;

struct EvmConnection_s {
  EvmConnectionType_t type;
  EvmResponseMode_t mode;
  EvmTransportType_t transportType;
  EvmCallback_t callback;
  EvmCallbackArg_t callbackArg;
  EvmUint16_t portNumber;  // network order
  EvmUint32_t hostAddr;    // network order
  char* socketName;
  EvmFd_t fdRead;
  EvmFd_t fdWrite;
  EvmBoolean_t ackPending;
  EvmConnectionState_t connect_state;
  EvmUint32_t magic;
  EvmPid_t pid;
  osl_user_id* euid;
  char* userName;
  EvmItemMask_t postItems;
  EvmBoolean_t disabled;
  EvmBoolean_t checksumUsed;
  EvmBoolean_t postComponentsMasked;
  EvmBoolean_t isClusterAlias;
  EvmBoolean_t remoteIsClusterMember;
  EvmUint32_t* clusterMembers;
  EvmSize_t clusterMembersSize;
  EvmUint32_t realHostAddr;
  char* hostName;
  EvmUint32_t localHostAddr;
  char* localHostName;
  EvmBoolean_t nonBlocking;
  _evmIoMsgQueue_t msgQueue;
  EvmCommVersion_t daemonCommVrsn;
  pthread_mutex_t conn_mx;  // guards channel_inuse and the identity cache
  pthread_cond_t conn_condv;
  EvmBoolean_t channel_inuse;
  xpccon* con;
  xpcctx* ctx;
  xpcugblm* ugblm;
  // Answers awaited by posts (see _evmAckWaiter_s); guarded by ack_mx.
  pthread_mutex_t ack_mx;
  pthread_cond_t ack_condv;
  _evmAckWaiter_t* ackWaiters;
  EvmBoolean_t ackReaderActive;  // a thread is reading the daemon's messages
  EvmIdentityCache_t identity;
};

constexpr EvmUint32_t EVM_CONN_MAGIC = 0xabacdabau;
constexpr EvmUint16_t EVM_DEFAULT_TCP_PORT = 6190;
constexpr std::size_t EVM_SOCKET_NAME_MAX = 256;  // an address string must be shorter
constexpr const char* EVM_ACCEPTOR_KEY = "SYSTEM.evm.acceptor.auth";
constexpr const char* EVM_RMPORT_KEY = "SYSTEM.evm.rmport.";
constexpr EvmUint32_t EVM_CONN_BUFFER_SIZE = 32768;

enum EvmConnControlRequest_e : std::int32_t {
  EvmCONN_RCV_SZ_GET = 0,
  EvmCONN_RCV_SZ_SET = 1,
  EvmCONN_SND_SZ_GET = 2,
  EvmCONN_SND_SZ_SET = 3,
  EvmCONN_CHECKSUM_ENABLE = 4,
  EvmCONN_CHECKSUM_DISABLE = 5,
  EvmCONN_CHECKSUM_IS_ENABLED = 6,
  EvmCONN_IS_CLUSTER_ALIAS = 7,
  EvmCONN_REMOTE_IS_ON_CLUSTER = 8,
  EvmCONN_LOCAL_HOST_NAME_GET = 9,
  EvmCONN_LOCAL_IP_GET = 10,
  EvmCONN_REMOTE_HOST_NAME_GET = 11,
  EvmCONN_REMOTE_IP_GET = 12,
  EvmCONN_CLUSTER_LIST_GET = 13,
  EvmCONN_CLUSTER_HOST_IP_GET = 14,
  EvmCONN_POST_ITEM_MASK_SET = 15,
  EvmCONN_POST_ITEM_MASK_RESET = 16,
  EvmCONN_POST_NONBLOCK_SET = 17,
};
typedef EvmConnControlRequest_e EvmConnControlRequest_t;

// A copy of a connection's cluster list.
struct EvmCluaMemberList_s {
  EvmUint32_t count;
  EvmUint32_t* members;
};
typedef EvmCluaMemberList_s* EvmCluaMemberList_t;

// ---- Public ----

EvmStatus_t EvmConnCreate(EvmConnectionType_t type, EvmResponseMode_t mode, EvmTransport_t* transport,
                          EvmCallback_t callback, EvmCallbackArg_t callbackArg, EvmConnection_t* connection);
EvmStatus_t EvmConnCreateStep(EvmConnectionType_t type, EvmResponseMode_t mode, EvmTransport_t* transport,
                              EvmCallback_t callback, EvmCallbackArg_t callbackArg, EvmConnection_t* connection,
                              xpcctx* ctx, xpcugblm* ugblm);
EvmStatus_t EvmConnDestroy(EvmConnection_t connection);
EvmStatus_t EvmConnControl(EvmConnection_t connection, EvmConnControlRequest_t request, EvmPointer_t argument);
EvmStatus_t EvmConnProtocolVersionGet(EvmConnection_t connection, EvmCommVersion_t* version);
EvmStatus_t EvmConnFdGet(EvmConnection_t connection, EvmFd_t* fd);
EvmStatus_t EvmConnConGet(EvmConnection_t connection, xpccon** con);
EvmStatus_t EvmConnUgblmGet(EvmConnection_t connection, xpcugblm** ugblm);
xpccon* EvmGetXpccon(EvmConnection_t connection);
void EvmSetXPC(EvmConnection_t connection, xpcctx* ctx, xpcugblm* ugblm);
// The process-wide transport context, made at the first call; null on failure.
xpcctx* EvmInitxpcctx();
void Evmxpcterm();

// ---- Inner ----

EvmStatus_t _evmConnSetup(EvmConnectionType_t type, EvmResponseMode_t mode, EvmTransport_t* transport,
                          EvmCallback_t callback, EvmCallbackArg_t callbackArg, EvmConnection_t* connection,
                          xpcctx* ctx, xpcugblm* ugblm);
EvmStatus_t _evmConnRequestSend(EvmConnection_t connection);
EvmStatus_t _evmConnRequestComplete(EvmConnection_t connection);
EvmStatus_t _evmConnContextCheck(EvmConnection_t connection);
EvmStatus_t _evmConnContextActive(EvmConnection_t connection);
void _evmConnDisable(EvmConnection_t connection);
EvmStatus_t _evmConnClose(EvmConnection_t connection);
// The daemon's local address string, a new string; null when it can't be made.
char* _evmdConnString(int unused);
// Cuts a host name (in place) to the part used in registry keys; null for an unknown address.
char* _StripHostKey(char* host);
// Dotted numbers only, at most four, each up to 255; 1 and the address in network order.
int _evminet_aton(const char* text, cls_in_addr_t* address);
// Sizes of the process and user ids in a connect request, as the OS services layer has them.
std::size_t _evmGetPidSizeHack();
std::size_t _evmGetUidSize();
std::size_t _evmGetConnectReqDataSize();
unsigned char* _evmGetConnectReqDataPidPtr(unsigned char* request);
unsigned char* _evmGetConnectReqDataUidPtr(unsigned char* request);

#endif
