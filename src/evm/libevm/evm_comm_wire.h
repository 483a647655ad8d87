#ifndef EVM_LIBEVM_EVM_COMM_WIRE_H
#define EVM_LIBEVM_EVM_COMM_WIRE_H

// The byte layout of the messages between a client and the event daemon, beside the event
// block of evm_wire.h: the communication head that starts every exchange, its types and flags,
// the connect request, and the small message in front of a template event. Host byte order, as
// the event. The client library and the daemon both read and write through these names only.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "evm/libevm/evm_io.h"
#include "evm/libevm/evm_wire.h"

typedef std::uint16_t EvmCommVersion_t;
typedef std::uint32_t EvmCommType_t;
typedef std::uint32_t EvmCommFlag_t;
typedef std::uint32_t EvmCommMagic_t;
typedef std::uint64_t EvmCommHeaderData_t;
typedef std::uint32_t EvmCommSize_t;
typedef std::uint32_t EvmCommSessionID_t;

// ---- Communication head: every message of the protocol but bodies ----

struct EvmCommHead_s {
  Evmxpcmsgh_s clschdr;
  std::uint16_t ident;
  EvmCommVersion_t version;
  EvmCommType_t type;
  EvmCommFlag_t flags;
  EvmCommMagic_t magic;
  EvmCommHeaderData_t headerData;
  EvmCommSize_t bodySize;  // whole length of the message that follows, its transport header included
  EvmCommSessionID_t sessionID;
  std::uint32_t reserved_1_32;
  std::uint32_t pad;
};
typedef EvmCommHead_s EvmCommHead_t;

constexpr std::size_t EVM_COMM_HEAD_SIZE = 88;
constexpr std::size_t EVM_COMM_OFF_IDENT = 48;
constexpr std::size_t EVM_COMM_OFF_VERSION = 50;
constexpr std::size_t EVM_COMM_OFF_TYPE = 52;
constexpr std::size_t EVM_COMM_OFF_FLAGS = 56;
constexpr std::size_t EVM_COMM_OFF_MAGIC = 60;
constexpr std::size_t EVM_COMM_OFF_HEADER_DATA = 64;
constexpr std::size_t EVM_COMM_OFF_BODY_SIZE = 72;
constexpr std::size_t EVM_COMM_OFF_SESSION = 76;
constexpr std::size_t EVM_COMM_OFF_RESERVED = 80;
static_assert(sizeof(EvmCommHead_s) == EVM_COMM_HEAD_SIZE, "communication head");
static_assert(offsetof(EvmCommHead_s, ident) == EVM_COMM_OFF_IDENT, "communication head");
static_assert(offsetof(EvmCommHead_s, version) == EVM_COMM_OFF_VERSION, "communication head");
static_assert(offsetof(EvmCommHead_s, type) == EVM_COMM_OFF_TYPE, "communication head");
static_assert(offsetof(EvmCommHead_s, flags) == EVM_COMM_OFF_FLAGS, "communication head");
static_assert(offsetof(EvmCommHead_s, magic) == EVM_COMM_OFF_MAGIC, "communication head");
static_assert(offsetof(EvmCommHead_s, headerData) == EVM_COMM_OFF_HEADER_DATA, "communication head");
static_assert(offsetof(EvmCommHead_s, bodySize) == EVM_COMM_OFF_BODY_SIZE, "communication head");
static_assert(offsetof(EvmCommHead_s, sessionID) == EVM_COMM_OFF_SESSION, "communication head");
static_assert(offsetof(EvmCommHead_s, reserved_1_32) == EVM_COMM_OFF_RESERVED, "communication head");

constexpr std::uint16_t EVM_COMM_IDENT = 104;
constexpr EvmCommVersion_t EVM_COMM_VERSION = 3;
constexpr EvmCommMagic_t EVM_COMM_MAGIC = 0x01020304u;

enum EvmCommType_e : std::uint32_t {
  EvmCOMM_NONE = 0,
  EvmCOMM_CONNECT_REQ = 1,
  EvmCOMM_CONNECT_RSP = 2,
  EvmCOMM_AUTHENT_REQ = 3,
  EvmCOMM_AUTHENT_RSP = 4,
  EvmCOMM_SYNCHRO_REQ = 5,
  EvmCOMM_SYNCHRO_RSP = 6,
  EvmCOMM_SUBSCRIPTION_REQ = 7,
  EvmCOMM_SUBSCRIPTION_RSP = 8,
  EvmCOMM_POST_REQ = 9,
  EvmCOMM_POST_RSP = 10,
  EvmCOMM_NOTIFY = 11,
  EvmCOMM_FLAGS = 12,
  EvmCOMM_SET_SQUELCH_COM = 13,
  EvmCOMM_FLUSH_COM = 14,
  EvmCOMM_TEMPLATE_INFO_REQ = 15,
  EvmCOMM_TEMPLATE_INFO_RSP = 16,
  EvmCOMM_REGISTRATION_REQ = 17,
  EvmCOMM_REGISTRATION_RSP = 18,
  EvmCOMM_DISCONNECT = 19,
  EvmCOMM_HINT = 20,
};

// Bit numbers in the head's flags.
enum EvmCommFlagItems_e : std::uint32_t {
  EvmCOMMFLAG_INVALID_DATA = 0,
  EvmCOMMFLAG_FIRST = 0,
  EvmCOMMFLAG_EVENT_LOST = 1,
  EvmCOMMFLAG_EVENT_REJECTED = 2,
  EvmCOMMFLAG_SYNCHRONIZATION_FAILED = 3,
  EvmCOMMFLAG_SERVICE_START_FAILURE = 4,
  EvmCOMMFLAG_FIRST_EVENT = 5,
  EvmCOMMFLAG_EVENT_NOT_REGISTERED = 6,
  EvmCOMMFLAG_NO_SERVICE = 7,
  EvmCOMMFLAG_NO_EXECUTABLE = 8,
  EvmCOMMFLAG_RESOURCE_FAILURE = 9,
  EvmCOMMFLAG_KBUFF_OVERFLOW = 10,
  EvmCOMMFLAG_DO_NOT_ACK = 11,
  EvmCOMMFLAG_LOCAL_CONNECT = 12,
  EvmCOMMFLAG_CLUSTER_CONNECT = 13,
  EvmCOMMFLAG_REMOTE_CONNECT = 14,
  EvmCOMMFLAG_IS_CLUSTER_ALIAS = 15,
  EvmCOMMFLAG_PROXY_CONNECTION = 16,
  EvmCOMMFLAG_CONNECTION_REFUSED = 17,
};

constexpr EvmCommFlag_t evmCommFlag(EvmCommFlagItems_e bit) { return 1u << bit; }

// The one way to make a head: transport header for its own 88 bytes, the constant fields, and
// the four that vary. Client, daemon, tests and benchmarks all build heads here, so that none
// can send one whose length word or magic differs from the others'.
inline EvmCommHead_t evmCommHead(EvmCommType_t type, EvmCommFlag_t flags, EvmCommHeaderData_t headerData,
                                 EvmCommSize_t bodySize) {
  EvmCommHead_t h;
  std::memset(&h, 0, sizeof h);
  _evmFillTransportHeader(&h, static_cast<EvmUint32_t>(EVM_COMM_HEAD_SIZE));
  h.ident = EVM_COMM_IDENT;
  h.version = EVM_COMM_VERSION;
  h.magic = EVM_COMM_MAGIC;
  h.type = type;
  h.flags = flags;
  h.headerData = headerData;
  h.bodySize = bodySize;
  return h;
}

// The longest event block the daemon takes. A post that announces a longer one is answered
// EVENT_REJECTED and its bytes are dropped as they come, so that no claim of a length makes
// the daemon take memory for bytes that have not arrived.
constexpr std::uint32_t EVM_MAX_EVENT_SIZE = 1u << 20;

// ---- Subscription request: the message behind a EvmCOMM_SUBSCRIPTION_REQ head ----
// A listener names the events it wants with a name pattern: behind the head (bodySize = the whole
// body) comes one transport message, the 48-byte transport header and then the pattern with its
// NUL. The daemon answers EvmCOMM_SUBSCRIPTION_RSP with flags 0 when it took the filter, which then
// holds for every event sent after the answer, or with EvmCOMMFLAG_INVALID_DATA when the pattern is
// refused (the old filter stays). A listener whose queue is full loses events; when its queue has
// room again it is sent a EvmCOMM_FLAGS head with EvmCOMMFLAG_EVENT_LOST and the number lost in
// headerData, before the next event.
constexpr std::size_t EVM_SUBSCRIBE_OFF_PATTERN = EVM_XPC_HEADER_SIZE;
constexpr std::size_t EVM_SUBSCRIBE_MAX_FILTER = 1024;  // pattern bytes, NUL not counted

// ---- Connect request: the message behind a EvmCOMM_CONNECT_REQ head ----
// The process and user ids are objects of the OS services layer whose sizes are known only at
// run time, so everything from offset 56 on is placed by those sizes.

enum EvmConnectors_e : std::uint32_t {
  EvmCOMM_NO_CONNECTOR = 0,
  EvmCOMM_POSTER = 1,
  EvmCOMM_SUBSCRIBER = 2,
  EvmCOMM_SERVICE = 3,
  EvmCOMM_COMMAND = 4,
  EvmCOMM_PROXY = 5,
};

constexpr std::size_t EVM_CONNREQ_OFF_CONNECTOR = 48;
constexpr std::size_t EVM_CONNREQ_OFF_NAME_LEN = 52;
constexpr std::size_t EVM_CONNREQ_OFF_PID = 56;
constexpr std::size_t evmConnReqUidOffset(std::size_t sizePid) { return EVM_CONNREQ_OFF_PID + sizePid; }
constexpr std::size_t evmConnReqNameOffset(std::size_t sizePid, std::size_t sizeUid) {
  return EVM_CONNREQ_OFF_PID + sizePid + sizeUid;
}

// ---- The message in front of a template event ----

struct EvmGetTemplateData_s {
  Evmxpcmsgh_s clschdr;
  std::int32_t authSize;
  EvmPriority_t squelchLevel;
  std::uint16_t pad;
};
constexpr std::size_t EVM_TEMPLATE_DATA_SIZE = 56;
static_assert(sizeof(EvmGetTemplateData_s) == EVM_TEMPLATE_DATA_SIZE, "template data");
static_assert(offsetof(EvmGetTemplateData_s, authSize) == 48, "template data");
static_assert(offsetof(EvmGetTemplateData_s, squelchLevel) == 52, "template data");

#endif
