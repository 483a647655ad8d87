#ifndef EVM_LIBEVM_EVM_TYPES_H
#define EVM_LIBEVM_EVM_TYPES_H

// Scalar types, codes and caller-visible structures of the event client. Every width here is
// also a width on the wire, so each type is pinned to an exact-size integer.
#include <cstddef>
#include <cstdint>

typedef std::int8_t EvmInt8_t;
typedef std::int16_t EvmInt16_t;
typedef std::int32_t EvmInt32_t;
typedef std::int64_t EvmInt64_t;
typedef std::uint8_t EvmUint8_t;
typedef std::uint16_t EvmUint16_t;
typedef std::uint32_t EvmUint32_t;
typedef std::uint64_t EvmUint64_t;
typedef char EvmChar_t;
typedef float EvmFloat_t;
typedef double EvmDouble_t;
typedef char* EvmString_t;
typedef void* EvmOpaque_t;

enum EvmBoolean_e : std::int32_t { EvmFALSE = 0, EvmTRUE = 1 };
typedef EvmBoolean_e EvmBoolean_t;

typedef std::uint32_t EvmSize_t;
typedef std::uint32_t EvmCount_t;
typedef std::uint32_t EvmEventId_t;
typedef std::uint32_t EvmIpAddress_t;
typedef std::uint32_t EvmFlags_t;
typedef std::uint32_t EvmPresence_t;
typedef std::int32_t EvmMemberId_t;
typedef std::int32_t EvmI18NMsgId_t;
typedef std::int32_t EvmI18NSetId_t;
typedef std::uint16_t EvmPriority_t;
typedef std::uint16_t EvmVersion_t;
typedef std::uint16_t EvmDataBlockType_t;
typedef std::int64_t EvmPid_t;
typedef std::uint64_t EvmTimestamp_t;
typedef std::uint64_t EvmItemMask_t;

enum EvmStatus_e : std::int32_t {
  EvmERROR_NONE = 0,
  EvmERROR_NOT_IMPLEMENTED = 1,
  EvmERROR_INVALID_ARGUMENT = 2,
  EvmERROR_NOT_SET = 3,
  EvmERROR_NOT_PRESENT = 4,
  EvmERROR_PROTOCOL_MISMATCH = 5,
  EvmERROR_NO_MEMORY = 6,
  EvmERROR_INVALID_VARARGS_LIST = 7,
  EvmERROR_FILTER_NOT_VALID = 8,
  EvmERROR_INVALID_VALUE = 9,
  EvmERROR_NOT_INITIALIZED = 10,
  EvmERROR_SELECT = 11,
  EvmERROR_SERVICE_TERMINATED = 12,
  EvmERROR_CONNECT = 13,
  EvmERROR_READ = 14,
  EvmERROR_WRITE = 15,
  EvmERROR_OPEN = 16,
  EvmERROR_EVENT_REJECTED = 17,
  EvmERROR_RESOURCE = 18,
  EvmERROR_SEQUENCE = 19,
  EvmERROR_CONNECTION_LOST = 20,
  EvmERROR_INVALID_OPERATION = 21,
  EvmERROR_INVALID_MESSAGE = 22,
  EvmERROR_PARTIAL = 23,
  EvmERROR_WOULDBLOCK = 24,
  EvmERROR_TIMEOUT = 25,
  EvmERROR_QUEUE_FULL = 26,
  EvmERROR_PROTOCOL = 27,
  EvmERROR_INTERRUPT_LEVEL = 28,
  EvmERROR_EOF = 29,
  EvmERROR_SIGNAL = 30,
  EvmERROR_SYNCHRONIZATION_FAILURE = 31,
  EvmERROR_EVENT_NOT_VALID = 32,
  EvmERROR_QUEUED = 33,
  EvmERROR_CONNECTION_REFUSED = 34,
  EvmERROR_TOO_MANY_ITEMS = 35,
  EvmERROR_LAST = 36,
};
typedef EvmStatus_e EvmStatus_t;

enum EvmItemId_e : std::int32_t {
  EvmITEM_NONE = 0,
  EvmITEM_NAME = 1,
  EvmITEM_FIRST = 1,
  EvmITEM_UNUSED_1 = 2,
  EvmITEM_KERNEL_ONLY = 3,
  EvmITEM_CLUSTER_EVENT = 4,
  EvmITEM_PRIORITY = 5,
  EvmITEM_PID = 6,
  EvmITEM_PPID = 7,
  EvmITEM_EVENT_ID = 8,
  EvmITEM_MEMBER_ID = 9,
  EvmITEM_TIMESTAMP = 10,
  EvmITEM_HOST_IP = 11,
  EvmITEM_REPEAT_COUNT = 12,
  EvmITEM_LAST_TIMESTAMP = 13,
  EvmITEM_I18N_MSG_ID = 14,
  EvmITEM_I18N_SET_ID = 15,
  EvmITEM_I18N_CATALOG = 16,
  EvmITEM_CLUSTER_IP = 17,
  EvmITEM_HOST_NAME = 18,
  EvmITEM_CLUSTER_NAME = 19,
  EvmITEM_USER_NAME = 20,
  EvmITEM_FORMAT = 21,
  EvmITEM_REF = 22,
  EvmITEM_PREDEFINED_MAX = 22,
  EvmITEM_VAR = 23,
  EvmITEM_MAX = 23,
  EvmITEM_HDR_EXT_SIZE = 512,
  EvmITEM_INTERNAL_USE_FIRST = 512,
  EvmITEM_INTERNAL_USE_LAST = 512,
  EvmITEM_FORMATTED = 513,
  EvmITEM_VAR_BOOLEAN = 1024,
  EvmITEM_VAR_FIRST = 1024,
  EvmITEM_VAR_CHAR = 1025,
  EvmITEM_VAR_INT16 = 1026,
  EvmITEM_VAR_INT32 = 1027,
  EvmITEM_VAR_INT64 = 1028,
  EvmITEM_VAR_UINT8 = 1029,
  EvmITEM_VAR_UINT16 = 1030,
  EvmITEM_VAR_UINT32 = 1031,
  EvmITEM_VAR_UINT64 = 1032,
  EvmITEM_VAR_FLOAT = 1033,
  EvmITEM_VAR_DOUBLE = 1034,
  EvmITEM_VAR_STRING = 1035,
  EvmITEM_VAR_STRING_I18N = 1036,
  EvmITEM_VAR_OPAQUE = 1037,
  EvmITEM_VAR_MAX = 1037,
};
typedef EvmItemId_e EvmItemId_t;

enum EvmFlagItems_e : std::int32_t {
  EvmFLAG_NONE = 0,
  EvmFLAG_CLUSTER_EVENT = 1,
  EvmFLAG_KERNEL_ONLY = 2,
  EvmFLAG_KERNEL_POSTED = 3,
  EvmFLAG_EXTERNALLY_POSTED = 4,
  EvmFLAG_CHECKSUM_PRESENT = 5,
};
typedef EvmFlagItems_e EvmFlagItems_t;

enum EvmVarType_e : std::int32_t {
  EvmTYPE_NONE = 0,
  EvmTYPE_BOOLEAN = 1,
  EvmTYPE_FIRST = 1,
  EvmTYPE_CHAR = 2,
  EvmTYPE_INT16 = 3,
  EvmTYPE_INT32 = 4,
  EvmTYPE_INT64 = 5,
  EvmTYPE_UINT8 = 6,
  EvmTYPE_UINT16 = 7,
  EvmTYPE_UINT32 = 8,
  EvmTYPE_UINT64 = 9,
  EvmTYPE_FLOAT = 10,
  EvmTYPE_DOUBLE = 11,
  EvmTYPE_STRING = 12,
  EvmTYPE_OPAQUE = 13,
  EvmTYPE_MAX = 13,
};
typedef EvmVarType_e EvmVarType_t;

typedef const char* EvmVarName_t;

union EvmVarValue_u {
  EvmString_t STRING;
  EvmBoolean_t BOOLEAN;
  EvmChar_t EVMCHAR;
  EvmInt16_t INT16;
  EvmInt32_t INT32;
  EvmInt64_t INT64;
  EvmUint8_t UINT8;
  EvmUint16_t UINT16;
  EvmUint32_t UINT32;
  EvmUint64_t UINT64;
  EvmFloat_t FLOAT;
  EvmDouble_t DOUBLE;
  EvmOpaque_t OPAQUE;
};
typedef EvmVarValue_u EvmVarValue_t;

// The caller's view of one variable; also embedded as is in an item package entry.
struct EvmVarStruct_s {
  EvmVarType_t type;
  EvmVarName_t name_p;
  EvmVarValue_t value;
  EvmSize_t length;
  EvmI18NMsgId_t msgId;
};
typedef EvmVarStruct_s EvmVarStruct_t;
static_assert(sizeof(EvmVarStruct_s) == 32, "a variable structure fills 32 bytes of a package entry");

typedef char** EvmVarList_t;

union EvmItemValue_u {
  EvmString_t NAME;
  EvmBoolean_t KERNEL_ONLY;
  EvmBoolean_t CLUSTER_EVENT;
  EvmPriority_t PRIORITY;
  EvmPid_t PID;
  EvmPid_t PPID;
  EvmEventId_t EVENT_ID;
  EvmMemberId_t MEMBER_ID;
  EvmTimestamp_t TIMESTAMP;
  EvmIpAddress_t HOST_IP;
  EvmUint32_t REPEAT_COUNT;
  EvmTimestamp_t LAST_TIMESTAMP;
  EvmI18NMsgId_t I18N_MSG_ID;
  EvmI18NSetId_t I18N_SET_ID;
  EvmString_t I18N_CATALOG;
  EvmIpAddress_t CLUSTER_IP;
  EvmString_t HOST_NAME;
  EvmString_t CLUSTER_NAME;
  EvmString_t USER_NAME;
  EvmString_t FORMAT;
  EvmString_t REF;
  EvmVarStruct_t* VAR;
};
typedef EvmItemValue_u EvmItemValue_t;
static_assert(sizeof(EvmItemValue_u) == 8, "an item value is one 64-bit word");

struct EvmItemEntry_s {
  EvmItemId_t id;
  EvmItemValue_t value;
};
typedef EvmItemEntry_s EvmItemEntry_t;
typedef EvmItemEntry_s* EvmItemEntryList_t;

typedef EvmItemId_t* EvmItemList_t;

struct EvmEventHead_s;
typedef EvmEventHead_s EvmEventHead_t;

// The handle: the block moves whenever it grows, the handle stays.
struct EvmEventHandle_s {
  EvmInt32_t magic;
  EvmEventHead_t* head_p;
  EvmEventHandle_s* next_event;
};
typedef EvmEventHandle_s* EvmEvent_t;
typedef const EvmEventHandle_s* EvmConstEvent_t;

struct EvmItemPkg_s;
typedef EvmItemPkg_s EvmItemPkg_t;

// Levels of the diagnostic hooks.
enum { EvmDL0 = 0, EvmDL1 = 1, EvmDL2 = 2, EvmDL3 = 3 };

#endif
