// Items of an event.
#include "evm/libevm/evm_item.h"

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "evm/libevm/evm_check.h"
#include "evm/libevm/evm_event.h"
#include "evm/libevm/evm_itempkg.h"
#include "evm/libevm/evm_log.h"
#include "evm/libevm/evm_misc.h"
#include "evm/libevm/evm_record.h"

#define T EvmTRUE
#define F EvmFALSE
const EvmTypeTabEntry_s EvmTypeTab[EvmITEM_MAX] = {
    {F, F, F, F, F, T, F},  // 1 name
    {T, F, F, F, F, F, F},  // 2 unused
    {T, T, F, F, F, F, F},  // 3 kernel only
    {T, T, F, F, F, F, F},  // 4 cluster event
    {T, F, T, F, F, F, F},  // 5 priority
    {T, F, F, T, F, F, F},  // 6 pid
    {T, F, F, T, F, F, F},  // 7 ppid
    {T, F, F, T, F, F, F},  // 8 event id
    {T, F, F, T, F, F, F},  // 9 member id
    {T, F, F, T, F, F, F},  // 10 timestamp
    {T, F, F, T, F, F, F},  // 11 host ip
    {F, F, F, T, F, F, F},  // 12 repeat count
    {F, F, F, T, F, F, F},  // 13 last timestamp
    {F, F, F, T, F, F, F},  // 14 i18n msg id
    {F, F, F, T, F, F, F},  // 15 i18n set id
    {F, F, F, F, F, T, F},  // 16 i18n catalog
    {F, F, F, T, F, F, F},  // 17 cluster ip
    {F, F, F, F, F, T, F},  // 18 host name
    {F, F, F, F, F, T, F},  // 19 cluster name
    {F, F, F, F, F, T, F},  // 20 user name
    {F, F, F, F, F, T, F},  // 21 format
    {F, F, F, F, F, T, F},  // 22 ref
    {F, F, F, F, F, F, F},  // 23 variable
};
#undef T
#undef F

namespace {

constexpr std::uint64_t kMaxRecord = 0x7fffffffu;
// Small packages are built on the stack: a typical event then costs one block and one handle.
constexpr std::size_t kLocalPackage = 1024;

bool inHead(int id) { return id >= EvmITEM_UNUSED_1 && id <= EvmITEM_HOST_IP; }
bool isNumericBody(int id) {
  return (id >= EvmITEM_REPEAT_COUNT && id <= EvmITEM_I18N_SET_ID) || id == EvmITEM_CLUSTER_IP;
}

// Stored width (valueLen) of a scalar variable type; 0 for the sized types and bad ones.
std::uint32_t scalarWidth(EvmVarType_t type) {
  switch (type) {
    case EvmTYPE_BOOLEAN: case EvmTYPE_CHAR: case EvmTYPE_UINT8: return 1;
    case EvmTYPE_INT16: case EvmTYPE_UINT16: return 2;
    case EvmTYPE_INT32: case EvmTYPE_UINT32: case EvmTYPE_FLOAT: return 4;
    case EvmTYPE_INT64: case EvmTYPE_UINT64: case EvmTYPE_DOUBLE: return 8;
    default: return 0;
  }
}

EvmStatus_t buildPackage(va_list* ap, unsigned char* local, EvmItemPkg_t** out) {
  va_list sizing;
  va_copy(sizing, *ap);
  int entries = 0;
  EvmUint32_t space = 0;
  EvmStatus_t st = EvmCalculateItemPkgSpaceFromVarargs(&sizing, EvmFALSE, &entries, &space);
  va_end(sizing);
  if (st != EvmERROR_NONE) return st;
  auto* pkg = reinterpret_cast<EvmItemPkg_t*>(space <= kLocalPackage ? local : std::malloc(space));
  if (pkg == nullptr) return EvmERROR_NO_MEMORY;
  va_list building;
  va_copy(building, *ap);
  st = EvmBuildItemPkgFromVarargs(&building, EvmFALSE, entries, pkg, space);
  va_end(building);
  if (st != EvmERROR_NONE) {
    if (reinterpret_cast<unsigned char*>(pkg) != local) std::free(pkg);
    return st;
  }
  *out = pkg;
  return EvmERROR_NONE;
}

void freePackage(EvmItemPkg_t* pkg, unsigned char* local) {
  if (pkg != nullptr && reinterpret_cast<unsigned char*>(pkg) != local) std::free(pkg);
}

// Builds the package of an item list (on the stack when it is small), hands it to `apply`,
// and frees it.
template <typename Apply>
EvmStatus_t withPackage(va_list* ap, Apply apply) {
  alignas(16) unsigned char local[kLocalPackage];
  EvmItemPkg_t* pkg = nullptr;
  EvmStatus_t st = buildPackage(ap, local, &pkg);
  if (st != EvmERROR_NONE) return st;
  st = apply(pkg);
  freePackage(pkg, local);
  return st;
}

// Removes dead records (ident 0) in one pass, moving the rest down.
void compactBody(EvmEventHead_t* head) {
  std::uint64_t end = head->control.size;
  std::uint64_t off = EVM_HEAD_SIZE, w = EVM_HEAD_SIZE;
  while (off + EVM_REC_HEAD <= end) {
    unsigned char* rec = evmAt(head, off);
    std::uint32_t size = evmRecSize(rec);
    if (size < EVM_REC_HEAD || off + size > end) break;  // a broken tail is dropped
    if (evmRecIdent(rec) != 0) {
      if (w != off) std::memmove(evmAt(head, w), rec, size);
      w += size;
    }
    off += size;
  }
  head->control.size = static_cast<std::uint32_t>(w);
}

// Sizes every entry once: the totals, and in adds (entry_count slots) what each entry adds.
EvmStatus_t sizePackage(const EvmEventHead_t* head, EvmItemPkg_t* pkg, EvmSize_t* adds, EvmSize_t* addTotal,
                        EvmSize_t* oldTotal) {
  std::uint64_t add = 0, old = 0;
  for (std::uint32_t k = 0; k < pkg->entry_count; ++k) {
    EvmSize_t a = 0, o = 0;
    EvmStatus_t st = _evmuiGetAddSize(head, &pkg->table_p[k], &a, &o);
    if (st != EvmERROR_NONE) return st;
    if (adds != nullptr) adds[k] = a;
    add += a;
    old += o;
  }
  if (add > kMaxRecord) return EvmERROR_NO_MEMORY;
  *addTotal = static_cast<EvmSize_t>(add);
  *oldTotal = static_cast<EvmSize_t>(old);
  return EvmERROR_NONE;
}

// Appends every entry in table order, with the sizes that sizePackage found, or sized afresh
// (and checked once more) when there are none.
EvmStatus_t insertPackage(EvmEventHead_t* head, EvmItemPkg_t* pkg, const EvmSize_t* adds) {
  _evmRemoveChecksum(head);
  for (std::uint32_t k = 0; k < pkg->entry_count; ++k) {
    EvmSize_t add = 0, old = 0;
    EvmStatus_t st = EvmERROR_NONE;
    if (adds != nullptr)
      add = adds[k];
    else
      st = _evmuiGetAddSize(nullptr, &pkg->table_p[k], &add, &old);
    if (st == EvmERROR_NONE) st = _evmuiInsertValue(head, &pkg->table_p[k], add);
    if (st != EvmERROR_NONE) return st;
  }
  return EvmERROR_NONE;
}

// The sizes of a package's entries, on the stack for every package that fits the local buffer.
class EntrySizes {
 public:
  explicit EntrySizes(std::uint32_t count)
      : heap_(count > kLocalEntries ? static_cast<EvmSize_t*>(std::malloc(count * sizeof(EvmSize_t))) : nullptr) {}
  ~EntrySizes() { std::free(heap_); }
  EntrySizes(const EntrySizes&) = delete;
  EntrySizes& operator=(const EntrySizes&) = delete;
  // Null when a large package found no memory: the entries are then sized again as inserted.
  EvmSize_t* get(std::uint32_t count) { return count <= kLocalEntries ? local_ : heap_; }

 private:
  static constexpr std::uint32_t kLocalEntries = kLocalPackage / EVM_PKG_ENTRY_SIZE;
  EvmSize_t local_[kLocalEntries];
  EvmSize_t* heap_;
};

EvmStatus_t setFromPackage(EvmEvent_t event, EvmItemPkg_t* pkg) {
  EvmSize_t addTotal = 0, oldTotal = 0;
  EntrySizes sizes(pkg->entry_count);
  EvmSize_t* adds = sizes.get(pkg->entry_count);
  EvmStatus_t st = sizePackage(event->head_p, pkg, adds, &addTotal, &oldTotal);
  if (st != EvmERROR_NONE) return st;
  if (addTotal > oldTotal) {
    std::uint64_t want = static_cast<std::uint64_t>(event->head_p->control.size) + addTotal - oldTotal;
    if (want > kMaxRecord) return EvmERROR_NO_MEMORY;
    st = _evmEventResize(event, static_cast<EvmSize_t>(want));
    if (st != EvmERROR_NONE) return st;
  }
  EvmEventHead_t* head = event->head_p;
  bool dead = false;
  for (std::uint32_t k = 0; k < pkg->entry_count; ++k) {
    const EvmItemTableEntry_t& e = pkg->table_p[k];
    if (inHead(e.id)) continue;
    if (e.id != EvmITEM_VAR) head->fldPresBits &= ~(1u << e.id);
    unsigned char* rec = _evmuiFindVar(head, e.id, e.id == EvmITEM_VAR ? e.var.name_p : nullptr);
    if (rec != nullptr) {
      evmStore32(rec, EVM_REC_IDENT, 0);
      dead = true;
    }
  }
  if (dead) compactBody(head);
  st = insertPackage(head, pkg, adds);
  if (st != EvmERROR_NONE) return st;
  if (addTotal < oldTotal) _evmEventResize(event, head->control.size);  // a failed shrink leaves it roomy
  return EvmERROR_NONE;
}

}  // namespace

EvmStatus_t _evmuiGetAddSize(const EvmEventHead_t* head, EvmItemTableEntry_s* entry, EvmSize_t* addSize,
                             EvmSize_t* oldSize) {
  int id = entry->id;
  *addSize = 0;
  *oldSize = 0;
  if (id <= 0 || id > EvmITEM_MAX) {
    _evmLogErrorf(EvmDL2, "_evmuiGetAddSize - illegal item (%d).", id);
    return EvmERROR_INVALID_ARGUMENT;
  }
  bool present = head != nullptr && (head->fldPresBits & (1u << id));
  auto oldRecord = [&](const char* name) -> EvmSize_t {
    const unsigned char* rec = present ? _evmuiFindVar(head, static_cast<EvmItemId_t>(id), name) : nullptr;
    return rec != nullptr ? evmRecSize(rec) : 0;
  };
  if (_evmIsStringItem(id)) {
    const char* text = entry->value.NAME;
    if (text == nullptr) return EvmERROR_INVALID_ARGUMENT;
    if (id == EvmITEM_NAME && _evmStringCheck(text, nullptr, EvmFALSE) != EvmERROR_NONE)
      return EvmERROR_INVALID_VALUE;
    std::uint64_t add = EVM_REC_HEAD + evmPad8(std::strlen(text) + 1);
    if (add > kMaxRecord) return EvmERROR_INVALID_VALUE;
    *addSize = static_cast<EvmSize_t>(add);
    *oldSize = oldRecord(nullptr);
    return EvmERROR_NONE;
  }
  if (id == EvmITEM_UNUSED_1) return EvmERROR_NOT_IMPLEMENTED;
  if (id == EvmITEM_PRIORITY) return entry->value.PRIORITY > EVM_PRIORITY_MAX ? EvmERROR_INVALID_VALUE : EvmERROR_NONE;
  if (inHead(id)) return EvmERROR_NONE;
  if (isNumericBody(id)) {
    *addSize = EVM_REC_NUMERIC_SIZE;
    *oldSize = oldRecord(nullptr);
    return EvmERROR_NONE;
  }
  // A variable.
  EvmVarStruct_t& v = entry->var;
  if (_evmVarNameCheck(v.name_p) != EvmERROR_NONE) return EvmERROR_INVALID_VALUE;
  std::uint64_t area;
  if (v.type == EvmTYPE_STRING) {
    if (v.value.STRING == nullptr) return EvmERROR_INVALID_VALUE;
    std::size_t len = std::strlen(v.value.STRING) + 1;
    if (len > kMaxRecord) return EvmERROR_INVALID_VALUE;
    v.length = static_cast<EvmSize_t>(len);
    area = evmPad8(len);
  } else if (v.type == EvmTYPE_OPAQUE) {
    if (v.value.OPAQUE == nullptr && v.length != 0) return EvmERROR_INVALID_VALUE;
    area = evmPad8(v.length);
  } else {
    std::uint32_t width = scalarWidth(v.type);
    if (width == 0) return EvmERROR_INVALID_VALUE;
    v.length = width;
    area = EVM_VAR_SCALAR_AREA;
  }
  std::uint64_t add = EVM_VAR_NAME + evmPad8(std::strlen(v.name_p) + 1) + area;
  if (add > kMaxRecord) return EvmERROR_INVALID_VALUE;
  *addSize = static_cast<EvmSize_t>(add);
  *oldSize = oldRecord(v.name_p);
  return EvmERROR_NONE;
}

EvmStatus_t _evmuiVaTotalAddFromItemPkg(const EvmEventHead_t* head, EvmSize_t* addTotal, EvmSize_t* oldTotal,
                                        EvmItemPkg_t* package) {
  return sizePackage(head, package, nullptr, addTotal, oldTotal);
}

EvmStatus_t _evmuiInsertValue(EvmEventHead_t* head, const EvmItemTableEntry_s* entry, EvmSize_t addSize) {
  const int id = entry->id;
  const EvmItemValue_t& value = entry->value;
  switch (id) {
    case EvmITEM_KERNEL_ONLY:
    case EvmITEM_CLUSTER_EVENT: {
      std::uint32_t bit = evmFlagMask(id == EvmITEM_KERNEL_ONLY ? EvmFLAG_KERNEL_ONLY : EvmFLAG_CLUSTER_EVENT);
      if (value.KERNEL_ONLY == EvmTRUE)
        head->flags |= bit;
      else
        head->flags &= ~bit;
      break;
    }
    case EvmITEM_PRIORITY: head->priority = value.PRIORITY; break;
    case EvmITEM_PID: head->pid = value.PID; break;
    case EvmITEM_PPID: head->ppid = value.PPID; break;
    case EvmITEM_EVENT_ID: head->eventId = value.EVENT_ID; break;
    case EvmITEM_MEMBER_ID: head->memberId = value.MEMBER_ID; break;
    case EvmITEM_TIMESTAMP: head->time = value.TIMESTAMP; break;
    case EvmITEM_HOST_IP: head->hostId = value.HOST_IP; break;
    default: {
      if (id <= 0 || id > EvmITEM_MAX || id == EvmITEM_UNUSED_1) return EvmERROR_INVALID_ARGUMENT;
      unsigned char* rec = evmAt(head, head->control.size);
      std::memset(rec, 0, addSize);
      evmStore32(rec, EVM_REC_IDENT, static_cast<std::uint32_t>(id));
      evmStore32(rec, EVM_REC_SIZE, addSize);
      if (_evmIsStringItem(id)) {
        std::memcpy(rec + EVM_REC_VALUE, value.NAME, std::strlen(value.NAME) + 1);
      } else if (isNumericBody(id)) {
        // The last timestamp keeps only its low 32 bits, like every numeric body item.
        evmStore32(rec, EVM_REC_VALUE, static_cast<std::uint32_t>(value.LAST_TIMESTAMP));
      } else {
        const EvmVarStruct_t& v = entry->var;
        std::uint32_t nameLen = static_cast<std::uint32_t>(std::strlen(v.name_p) + 1);
        std::uint32_t valueLen;
        if (v.type == EvmTYPE_STRING)
          valueLen = static_cast<std::uint32_t>(std::strlen(v.value.STRING) + 1);
        else if (v.type == EvmTYPE_OPAQUE)
          valueLen = v.length;
        else
          valueLen = scalarWidth(v.type);
        evmStore32(rec, EVM_VAR_TYPE, static_cast<std::uint32_t>(v.type));
        evmStore32(rec, EVM_VAR_NAMELEN, nameLen);
        evmStore32(rec, EVM_VAR_VALUELEN, valueLen);
        evmStore32(rec, EVM_VAR_MSGID, static_cast<std::uint32_t>(v.msgId));
        std::memcpy(rec + EVM_VAR_NAME, v.name_p, nameLen);
        unsigned char* val = rec + EVM_VAR_NAME + evmPad8(nameLen);
        if (v.type == EvmTYPE_STRING)
          std::memcpy(val, v.value.STRING, valueLen);
        else if (v.type == EvmTYPE_OPAQUE)
          (valueLen != 0 && v.value.OPAQUE != nullptr) ? (void)std::memcpy(val, v.value.OPAQUE, valueLen) : (void)0;
        else if (v.type == EvmTYPE_BOOLEAN)
          evmStore32(val, 0, static_cast<std::uint32_t>(v.value.BOOLEAN));  // four bytes, valueLen 1
        else
          std::memcpy(val, &v.value, valueLen);  // the union's members all start at its first byte
      }
      head->control.size += addSize;
      break;
    }
  }
  if (id < 32) head->fldPresBits |= 1u << id;
  return EvmERROR_NONE;
}

EvmStatus_t _evmuiItemSetFromItemPkg(EvmEventHead_t* head, EvmItemPkg_t* package) {
  return insertPackage(head, package, nullptr);
}

EvmStatus_t _evmEventCreateFromItemPkg(EvmEvent_t* event, EvmItemPkg_t* package) {
  EvmSize_t add = 0, old = 0;
  // Each entry is checked and sized once; the inserts below use those sizes.
  EntrySizes sizes(package->entry_count);
  EvmSize_t* adds = sizes.get(package->entry_count);
  EvmStatus_t st = sizePackage(nullptr, package, adds, &add, &old);
  if (st != EvmERROR_NONE) return st;
  EvmEvent_t ev = nullptr;
  st = _evmuiEventCreate(&ev, static_cast<EvmSize_t>(EVM_HEAD_SIZE) + add);
  if (st != EvmERROR_NONE) {
    EvmLog_C_module_error(EvmDL2, "_evmEventCreateFromItemPkg - event allocation.");
    return st;
  }
  if (package->entry_count > 0 && (st = insertPackage(ev->head_p, package, adds)) != EvmERROR_NONE) {
    EvmEventDestroy(ev);
    return st;
  }
  *event = ev;
  return EvmERROR_NONE;
}

EvmStatus_t EvmEventCreateVa(EvmEvent_t* event, ...) {
  if (evmglob_Initialized.load() == 0) evmglobInit();
  if (event == nullptr) {
    EvmLog_C_module_error(EvmDL2, "EvmEventCreateVa - illegal argument *event (NULL).");
    return EvmERROR_INVALID_ARGUMENT;
  }
  va_list ap;
  va_start(ap, event);
  EvmStatus_t st = withPackage(&ap, [event](EvmItemPkg_t* pkg) { return _evmEventCreateFromItemPkg(event, pkg); });
  va_end(ap);
  return st;
}

EvmStatus_t EvmItemSetVa(EvmEvent_t event, ...) {
  if (_evmuiTestEventMagic(event) != EvmERROR_NONE || event->head_p == nullptr) {
    EvmLog_C_module_error(EvmDL2, "EvmItemSetVa - bad argument.");
    return EvmERROR_INVALID_ARGUMENT;
  }
  va_list ap;
  va_start(ap, event);
  EvmStatus_t st = withPackage(&ap, [event](EvmItemPkg_t* pkg) { return setFromPackage(event, pkg); });
  va_end(ap);
  return st;
}

EvmStatus_t EvmItemSetu(EvmEvent_t event, EvmItemId_t id, EvmItemValue_t value) {
  if (_evmIsStringItem(id)) return EvmItemSetVa(event, id, value.NAME, 0);
  switch (id) {
    case EvmITEM_KERNEL_ONLY: case EvmITEM_CLUSTER_EVENT:
      return EvmItemSetVa(event, id, static_cast<int>(value.KERNEL_ONLY), 0);
    case EvmITEM_PRIORITY:
      return EvmItemSetVa(event, id, static_cast<int>(value.PRIORITY), 0);
    case EvmITEM_PID: case EvmITEM_PPID: case EvmITEM_TIMESTAMP: case EvmITEM_LAST_TIMESTAMP:
      return EvmItemSetVa(event, id, static_cast<std::int64_t>(value.PID), 0);
    case EvmITEM_EVENT_ID: case EvmITEM_MEMBER_ID: case EvmITEM_HOST_IP: case EvmITEM_REPEAT_COUNT:
    case EvmITEM_I18N_MSG_ID: case EvmITEM_I18N_SET_ID: case EvmITEM_CLUSTER_IP:
      return EvmItemSetVa(event, id, static_cast<int>(value.EVENT_ID), 0);
    case EvmITEM_VAR:
      return EvmItemSetVa(event, id, value.VAR, 0);
    default:
      return EvmERROR_INVALID_ARGUMENT;
  }
}

EvmStatus_t EvmItemEntryListSet(EvmEvent_t event, EvmItemEntryList_t list, int count) {
  if (list == nullptr || _evmuiTestEventMagic(event) != EvmERROR_NONE) return EvmERROR_INVALID_ARGUMENT;
  for (int i = 0; i < count; ++i) {
    EvmStatus_t st = EvmItemSetu(event, list[i].id, list[i].value);
    if (st != EvmERROR_NONE) return st;
  }
  return EvmERROR_NONE;
}

EvmStatus_t EvmEventCreateFromList(EvmEvent_t* event, EvmItemEntryList_t list, int count) {
  EvmStatus_t st = EvmEventCreateVa(event, 0);
  if (st != EvmERROR_NONE) return st;
  return EvmItemEntryListSet(*event, list, count);
}

EvmStatus_t _evmuiItemGet(EvmEvent_t event, EvmItemId_t id, EvmItemValue_t* value) {
  const EvmEventHead_t* head = event->head_p;
  if (id <= 0 || id > EvmITEM_MAX) return EvmERROR_INVALID_ARGUMENT;
  if (!(head->fldPresBits & (1u << id))) {
    if (id == EvmITEM_KERNEL_ONLY || id == EvmITEM_CLUSTER_EVENT) {
      value->KERNEL_ONLY = EvmFALSE;
      return EvmERROR_NONE;
    }
    return EvmERROR_NOT_PRESENT;
  }
  switch (id) {
    case EvmITEM_KERNEL_ONLY:
      value->KERNEL_ONLY = (head->flags & evmFlagMask(EvmFLAG_KERNEL_ONLY)) ? EvmTRUE : EvmFALSE;
      return EvmERROR_NONE;
    case EvmITEM_CLUSTER_EVENT:
      value->CLUSTER_EVENT = (head->flags & evmFlagMask(EvmFLAG_CLUSTER_EVENT)) ? EvmTRUE : EvmFALSE;
      return EvmERROR_NONE;
    case EvmITEM_PRIORITY: value->PRIORITY = head->priority; return EvmERROR_NONE;
    case EvmITEM_PID: value->PID = head->pid; return EvmERROR_NONE;
    case EvmITEM_PPID: value->PPID = head->ppid; return EvmERROR_NONE;
    case EvmITEM_EVENT_ID: value->EVENT_ID = head->eventId; return EvmERROR_NONE;
    case EvmITEM_MEMBER_ID: value->MEMBER_ID = head->memberId; return EvmERROR_NONE;
    case EvmITEM_TIMESTAMP: value->TIMESTAMP = head->time; return EvmERROR_NONE;
    case EvmITEM_HOST_IP: value->HOST_IP = head->hostId; return EvmERROR_NONE;
    case EvmITEM_UNUSED_1: return EvmERROR_NOT_PRESENT;
    case EvmITEM_VAR:
      EvmLog_C_module_error(EvmDL2, "EvmItemGet - illegal item.");
      return EvmERROR_INVALID_ARGUMENT;
    default: break;
  }
  const unsigned char* rec = _evmuiFindVar(head, id, nullptr);
  if (rec == nullptr || evmRecSize(rec) < EVM_REC_NUMERIC_SIZE) {
    // A stranger's block may promise an item it does not carry.
    EvmLog_C_module_error(EvmDL2, "EvmItemGet - internal location error.");
    return EvmERROR_NOT_PRESENT;
  }
  if (_evmIsStringItem(id)) {
    value->NAME = reinterpret_cast<char*>(const_cast<unsigned char*>(rec + EVM_REC_VALUE));
  } else if (id == EvmITEM_LAST_TIMESTAMP) {
    value->LAST_TIMESTAMP = evmLoad32(rec, EVM_REC_VALUE);
  } else {
    value->LAST_TIMESTAMP = 0;
    value->REPEAT_COUNT = evmLoad32(rec, EVM_REC_VALUE);
  }
  return EvmERROR_NONE;
}

EvmStatus_t EvmItemGet(EvmEvent_t event, EvmItemId_t id, EvmItemValue_t* value) {
  if (value == nullptr || _evmuiTestEventMagic(event) != EvmERROR_NONE || event->head_p == nullptr) {
    EvmLog_C_module_error(EvmDL2, "EvmItemGet - bad argument.");
    return EvmERROR_INVALID_ARGUMENT;
  }
  if (id <= 0 || id > EvmITEM_MAX) {
    EvmLog_C_module_error(EvmDL2, "EvmItemGet - bad item identifier.");
    return EvmERROR_INVALID_ARGUMENT;
  }
  EvmItemValue_t v;
  v.PID = 0;
  EvmStatus_t st = _evmuiItemGet(event, id, &v);
  if (st != EvmERROR_NONE) return st;
  if (_evmIsStringItem(id)) {
    v.NAME = _evmmiscStrdup(v.NAME);
    if (v.NAME == nullptr) return EvmERROR_NO_MEMORY;
  }
  *value = v;
  return EvmERROR_NONE;
}

EvmStatus_t EvmItemRelease(EvmItemId_t id, EvmItemValue_t value) {
  if (id <= 0 || id > EvmITEM_PREDEFINED_MAX) {
    EvmLog_C_module_error(EvmDL2, "EvmItemRelease - bad item identifier.");
    return EvmERROR_INVALID_ARGUMENT;
  }
  if (!_evmIsStringItem(id)) return EvmERROR_NONE;
  if (value.NAME == nullptr) {
    EvmLog_C_module_error(EvmDL2, "EvmItemRelease - bad argument.");
    return EvmERROR_INVALID_ARGUMENT;
  }
  std::free(value.NAME);
  return EvmERROR_NONE;
}

EvmStatus_t EvmItemListGet(EvmEvent_t event, EvmUint32_t* count, EvmItemList_t* list) {
  if (list == nullptr || _evmuiTestEventMagic(event) != EvmERROR_NONE || event->head_p == nullptr) {
    EvmLog_C_module_error(EvmDL2, "EvmItemListGet - bad argument.");
    return EvmERROR_INVALID_ARGUMENT;
  }
  EvmPresence_t bits = event->head_p->fldPresBits;
  EvmUint32_t n = 0;
  for (int id = EvmITEM_FIRST; id <= EvmITEM_PREDEFINED_MAX; ++id)
    if (bits & (1u << id)) ++n;
  auto* out = static_cast<EvmItemList_t>(std::malloc((n + 1) * sizeof(EvmItemId_t)));
  if (out == nullptr) {
    _evmLogErrorf(EvmDL2, "EvmItemListGet - list malloc, %d.", errno);
    return EvmERROR_NO_MEMORY;
  }
  EvmUint32_t k = 0;
  for (int id = EvmITEM_FIRST; id <= EvmITEM_PREDEFINED_MAX; ++id)
    if (bits & (1u << id)) out[k++] = static_cast<EvmItemId_t>(id);
  out[k] = EvmITEM_NONE;
  if (count != nullptr) *count = n;
  *list = out;
  return EvmERROR_NONE;
}

EvmStatus_t EvmItemListFree(EvmItemList_t list) {
  if (list == nullptr) {
    EvmLog_C_module_error(EvmDL2, "EvmItemListFree - bad argument.");
    return EvmERROR_INVALID_ARGUMENT;
  }
  std::free(list);
  return EvmERROR_NONE;
}

EvmStatus_t _evmMerge(EvmEvent_t event, EvmEvent_t other) {
  if (_evmuiTestEventMagic(event) != EvmERROR_NONE || _evmuiTestEventMagic(other) != EvmERROR_NONE)
    return EvmERROR_INVALID_ARGUMENT;
  const EvmEventHead_t* from = other->head_p;
  auto missing = [&](int id) {
    return (from->fldPresBits & (1u << id)) && !(event->head_p->fldPresBits & (1u << id));
  };
  std::uint64_t sum = 0;
  for (int id = EvmITEM_FIRST; id <= EvmITEM_PREDEFINED_MAX; ++id) {
    if (!missing(id) || EvmTypeTab[id - 1].in_header) continue;
    const unsigned char* rec = _evmuiFindVar(from, static_cast<EvmItemId_t>(id), nullptr);
    if (rec != nullptr) sum += evmRecSize(rec);
  }
  const unsigned char* rec = nullptr;
  while (_evmuiGetVar(from, &rec) == EvmERROR_NONE) {
    if (evmRecIdent(rec) != EvmITEM_VAR || evmRecSize(rec) <= EVM_VAR_NAME) continue;
    const char* name = reinterpret_cast<const char*>(rec + EVM_VAR_NAME);
    if (_evmuiFindVar(event->head_p, EvmITEM_VAR, name) == nullptr) sum += evmRecSize(rec);
  }
  std::uint64_t want = event->head_p->control.size + sum;
  if (want > kMaxRecord) return EvmERROR_NO_MEMORY;
  EvmStatus_t st = _evmEventResize(event, static_cast<EvmSize_t>(want));
  if (st != EvmERROR_NONE) return st;
  EvmEventHead_t* head = event->head_p;
  for (int id = EvmITEM_FIRST; id <= EvmITEM_PREDEFINED_MAX; ++id) {
    if (!missing(id)) continue;
    if (EvmTypeTab[id - 1].in_header) {
      EvmItemTableEntry_t e;
      std::memset(&e, 0, sizeof e);
      e.id = static_cast<EvmItemId_t>(id);
      if (_evmuiItemGet(other, e.id, &e.value) == EvmERROR_NONE) _evmuiInsertValue(head, &e, 0);
      continue;
    }
    const unsigned char* src = _evmuiFindVar(from, static_cast<EvmItemId_t>(id), nullptr);
    if (src == nullptr) continue;
    std::memcpy(evmAt(head, head->control.size), src, evmRecSize(src));
    head->control.size += evmRecSize(src);
    head->fldPresBits |= 1u << id;
  }
  // The variables to copy are found again in the grown block; the names are compared against
  // what the event had before, so a name copied now is not copied twice.
  std::uint32_t before = head->control.size;
  rec = nullptr;
  while (_evmuiGetVar(from, &rec) == EvmERROR_NONE) {
    if (evmRecIdent(rec) != EvmITEM_VAR || evmRecSize(rec) <= EVM_VAR_NAME) continue;
    const char* name = reinterpret_cast<const char*>(rec + EVM_VAR_NAME);
    std::uint32_t saved = head->control.size;
    head->control.size = before;
    bool has = _evmuiFindVar(head, EvmITEM_VAR, name) != nullptr;
    head->control.size = saved;
    if (has) continue;
    std::memcpy(evmAt(head, head->control.size), rec, evmRecSize(rec));
    head->control.size += evmRecSize(rec);
    head->fldPresBits |= EVM_PRES_VARIABLES;
  }
  _evmRemoveChecksum(head);
  return EvmERROR_NONE;
}
