#ifndef EVM_LIBEVM_EVM_WIRE_H
#define EVM_LIBEVM_EVM_WIRE_H

// The byte layout of everything the event client puts in memory that travels or moves as a
// whole: the event block (head and records), the transport header at its front, and the item
// package. This is the one place where those offsets are written down; the rest of the library
// uses the names below. Fields are in the writer's byte order; the target is little-endian.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "evm/libevm/evm_types.h"

// ---- Transport header, the first 48 bytes of every block handed to the transport ----

struct EvmTransportHeader_s {
  std::uint32_t size_xpcmsgh;  // length of the buffer handed over, this header included
  std::uint16_t type_xpcmsgh;
  std::uint16_t flags_xpcmsgh;
  std::uint8_t majorproduct_xpcversinf;
  std::uint8_t minorproduct_xpcversinf;
  std::uint8_t majorprotocol_xpcversinf;
  std::uint8_t minorprotocol_xpcversinf;
  std::uint32_t seqnum_xpcmsgh;
  std::uint32_t compid_xpcmsgh;
  std::uint16_t conid_xpcmsgh;
  std::uint16_t resvd1_xpcmsgh;
  std::uint32_t clntid_xpcmsgh;
  std::uint32_t resvd2_xpcmsgh[5];
};

struct Evmxpcmsgh_s {
  EvmTransportHeader_s clschdr;
};

constexpr std::uint16_t EVM_XPC_TYPE = 1;
constexpr std::uint8_t EVM_XPC_MAJOR_PRODUCT = 9;
constexpr std::uint8_t EVM_XPC_MINOR_PRODUCT = 2;
constexpr std::uint8_t EVM_XPC_MAJOR_PROTOCOL = 1;
constexpr std::uint8_t EVM_XPC_MINOR_PROTOCOL = 0;

// ---- Event head ----

struct EvmEventControl_s {
  std::uint16_t ident;
  EvmDataBlockType_t blocktype;
  std::uint32_t size;  // bytes in use, head included
};

struct EvmEventHead_s {
  Evmxpcmsgh_s clschdr;
  EvmEventControl_s control;
  EvmFlags_t flags;
  EvmPresence_t fldPresBits;
  EvmTimestamp_t time;
  EvmPriority_t priority;
  std::uint16_t checksum;
  EvmEventId_t eventId;
  EvmPid_t pid;
  EvmMemberId_t memberId;
  std::uint32_t pad;
  EvmPid_t ppid;
  EvmIpAddress_t hostId;
  EvmVersion_t version;
  std::uint16_t magic;
  std::uint32_t ext_item_id;
  std::uint32_t ext_item_len;
};

constexpr std::size_t EVM_XPC_HEADER_SIZE = 48;
constexpr std::size_t EVM_HEAD_SIZE = 120;
constexpr std::size_t EVM_OLD_HEAD_SIZE = 112;  // the older head, without the extension record
constexpr std::size_t EVM_OFF_CONTROL = 48;
constexpr std::size_t EVM_OFF_CONTROL_SIZE = 52;
constexpr std::size_t EVM_OFF_CHECKSUM = 74;
constexpr std::size_t EVM_OFF_EXT_ITEM_ID = 112;

static_assert(sizeof(EvmTransportHeader_s) == EVM_XPC_HEADER_SIZE, "transport header");
static_assert(offsetof(EvmTransportHeader_s, seqnum_xpcmsgh) == 12, "transport header");
static_assert(offsetof(EvmTransportHeader_s, conid_xpcmsgh) == 20, "transport header");
static_assert(offsetof(EvmTransportHeader_s, clntid_xpcmsgh) == 24, "transport header");
static_assert(offsetof(EvmTransportHeader_s, resvd2_xpcmsgh) == 28, "transport header");
static_assert(sizeof(EvmEventHead_s) == EVM_HEAD_SIZE, "event head");
static_assert(offsetof(EvmEventHead_s, control) == EVM_OFF_CONTROL, "event head");
static_assert(offsetof(EvmEventHead_s, control.size) == EVM_OFF_CONTROL_SIZE, "event head");
static_assert(offsetof(EvmEventHead_s, flags) == 56, "event head");
static_assert(offsetof(EvmEventHead_s, fldPresBits) == 60, "event head");
static_assert(offsetof(EvmEventHead_s, time) == 64, "event head");
static_assert(offsetof(EvmEventHead_s, priority) == 72, "event head");
static_assert(offsetof(EvmEventHead_s, checksum) == EVM_OFF_CHECKSUM, "event head");
static_assert(offsetof(EvmEventHead_s, eventId) == 76, "event head");
static_assert(offsetof(EvmEventHead_s, pid) == 80, "event head");
static_assert(offsetof(EvmEventHead_s, memberId) == 88, "event head");
static_assert(offsetof(EvmEventHead_s, ppid) == 96, "event head");
static_assert(offsetof(EvmEventHead_s, hostId) == 104, "event head");
static_assert(offsetof(EvmEventHead_s, version) == 108, "event head");
static_assert(offsetof(EvmEventHead_s, magic) == 110, "event head");
static_assert(offsetof(EvmEventHead_s, ext_item_id) == EVM_OFF_EXT_ITEM_ID, "event head");
static_assert(offsetof(EvmEventHead_s, ext_item_len) == 116, "event head");

constexpr std::uint16_t EVM_BLOCK_IDENT = 3;
constexpr EvmDataBlockType_t EVM_BLOCKTYPE_EVENT = 1;
constexpr EvmVersion_t EVM_HEAD_VERSION = 2;
constexpr std::uint16_t EVM_HEAD_MAGIC = 0x7654;
constexpr std::uint32_t EVM_HEAD_EXT_LEN = 8;
constexpr EvmPriority_t EVM_PRIORITY_MAX = 700;
constexpr std::uint32_t EVM_PRES_VARIABLES = 1u << EvmITEM_VAR;
constexpr std::int32_t EVM_HANDLE_MAGIC = static_cast<std::int32_t>(0xbeadbeefu);

constexpr std::uint32_t evmFlagMask(EvmFlagItems_t flag) { return 1u << flag; }

// ---- Records of the body ----
// Every record starts with ident and size; size covers the whole record and is a multiple of 8.

constexpr std::size_t EVM_REC_IDENT = 0;
constexpr std::size_t EVM_REC_SIZE = 4;
constexpr std::size_t EVM_REC_HEAD = 8;        // EvmVar_s
constexpr std::size_t EVM_REC_VALUE = 8;       // item value: string, or 32-bit word + 4 zero bytes
constexpr std::size_t EVM_REC_NUMERIC_SIZE = 16;
// Variable record: EvmVarHead_s = EvmVar_s + EvmVarUserVals_s, then name, then value.
constexpr std::size_t EVM_VAR_TYPE = 8;
constexpr std::size_t EVM_VAR_NAMELEN = 12;
constexpr std::size_t EVM_VAR_VALUELEN = 16;
constexpr std::size_t EVM_VAR_MSGID = 20;
constexpr std::size_t EVM_VAR_NAME = 24;
constexpr std::size_t EVM_VAR_SCALAR_AREA = 8;

// 64-bit on purpose: a length read from a stranger's record may be near 2^32.
constexpr std::uint64_t evmPad8(std::uint64_t n) { return (n + 7) & ~static_cast<std::uint64_t>(7); }

// Unaligned-safe access to a field at a byte offset: records of a hostile block need not be
// aligned, and the compiler turns these into plain moves.
inline std::uint32_t evmLoad32(const void* base, std::size_t off) {
  std::uint32_t v;
  std::memcpy(&v, static_cast<const unsigned char*>(base) + off, sizeof v);
  return v;
}
inline void evmStore32(void* base, std::size_t off, std::uint32_t v) {
  std::memcpy(static_cast<unsigned char*>(base) + off, &v, sizeof v);
}
inline unsigned char* evmAt(EvmEventHead_t* head, std::size_t off) {
  return reinterpret_cast<unsigned char*>(head) + off;
}
inline const unsigned char* evmAt(const EvmEventHead_t* head, std::size_t off) {
  return reinterpret_cast<const unsigned char*>(head) + off;
}

// ---- Item package ----

constexpr std::uint32_t EVM_PKG_VERSION = 1;
constexpr std::uint32_t EVM_PKG_MAGIC = 0x80ce3912u;
constexpr std::uint32_t EVM_PKG_TRAILER_MAGIC = 0x92f1e021u;
constexpr std::size_t EVM_PKG_HEADER_SIZE = 48;
constexpr std::size_t EVM_PKG_ENTRY_SIZE = 48;

struct EvmItemTableEntry_s {
  EvmItemId_t id;  // shorthand variable ids are stored as EvmITEM_VAR
  std::uint32_t pad;
  EvmItemValue_t value;  // for a variable: the address of var below
  EvmVarStruct_t var;
};
typedef EvmItemTableEntry_s EvmItemTableEntry_t;

struct EvmItemPkgTrailer_s {
  std::uint32_t magic;
};
typedef EvmItemPkgTrailer_s EvmItemPkgTrailer_t;

struct EvmItemPkg_s {
  std::uint32_t version;
  std::uint32_t magic;
  unsigned char* base_p;
  EvmBoolean_t relocatable;
  std::uint32_t entry_count;
  std::uint32_t size;
  std::uint32_t pad;
  EvmItemTableEntry_t* table_p;
  EvmItemPkgTrailer_t* trailer_p;
};

static_assert(sizeof(EvmItemPkg_s) == EVM_PKG_HEADER_SIZE, "package header");
static_assert(offsetof(EvmItemPkg_s, base_p) == 8, "package header");
static_assert(offsetof(EvmItemPkg_s, relocatable) == 16, "package header");
static_assert(offsetof(EvmItemPkg_s, entry_count) == 20, "package header");
static_assert(offsetof(EvmItemPkg_s, size) == 24, "package header");
static_assert(offsetof(EvmItemPkg_s, table_p) == 32, "package header");
static_assert(offsetof(EvmItemPkg_s, trailer_p) == 40, "package header");
static_assert(sizeof(EvmItemTableEntry_s) == EVM_PKG_ENTRY_SIZE, "package entry");
static_assert(offsetof(EvmItemTableEntry_s, value) == 8, "package entry");
static_assert(offsetof(EvmItemTableEntry_s, var) == 16, "package entry");

// Bytes a package needs for `entries` entries and `data` bytes of copied strings and values.
constexpr std::uint32_t evmPkgSpace(std::uint32_t data, std::uint32_t entries) {
  return ((data + static_cast<std::uint32_t>(EVM_PKG_ENTRY_SIZE) * entries + 55u) & ~7u) + 8u;
}

#endif
