// The item package.
#include "evm/libevm/evm_itempkg.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>

namespace {

// Reads the arguments that follow one id into a table entry. Shorthand variable ids become
// EvmITEM_VAR with the embedded structure filled; the caller points value.VAR at it.
EvmStatus_t fetch(va_list* ap, int id, EvmItemTableEntry_t* e) {
  std::memset(e, 0, sizeof *e);
  e->id = static_cast<EvmItemId_t>(id);
  EvmVarStruct_t& v = e->var;
  auto shorthand = [&](EvmVarType_t type) {
    e->id = EvmITEM_VAR;
    v.type = type;
    v.name_p = va_arg(*ap, const char*);
  };
  switch (id) {
    case EvmITEM_NAME: case EvmITEM_I18N_CATALOG: case EvmITEM_HOST_NAME: case EvmITEM_CLUSTER_NAME:
    case EvmITEM_USER_NAME: case EvmITEM_FORMAT: case EvmITEM_REF:
      e->value.NAME = va_arg(*ap, char*);
      return EvmERROR_NONE;
    case EvmITEM_KERNEL_ONLY: case EvmITEM_CLUSTER_EVENT:
      e->value.KERNEL_ONLY = static_cast<EvmBoolean_t>(va_arg(*ap, int));
      return EvmERROR_NONE;
    case EvmITEM_PRIORITY:
      e->value.PRIORITY = static_cast<EvmPriority_t>(va_arg(*ap, int));
      return EvmERROR_NONE;
    case EvmITEM_PID: case EvmITEM_PPID: case EvmITEM_TIMESTAMP: case EvmITEM_LAST_TIMESTAMP:
      e->value.PID = va_arg(*ap, std::int64_t);
      return EvmERROR_NONE;
    case EvmITEM_UNUSED_1:  // takes an int so that the walk stays in step; refused when sized
    case EvmITEM_EVENT_ID: case EvmITEM_MEMBER_ID: case EvmITEM_HOST_IP: case EvmITEM_REPEAT_COUNT:
    case EvmITEM_I18N_MSG_ID: case EvmITEM_I18N_SET_ID: case EvmITEM_CLUSTER_IP:
      e->value.EVENT_ID = static_cast<EvmUint32_t>(va_arg(*ap, int));
      return EvmERROR_NONE;
    case EvmITEM_VAR: {
      EvmVarStruct_t* given = va_arg(*ap, EvmVarStruct_t*);
      if (given == nullptr) return EvmERROR_INVALID_ARGUMENT;
      v = *given;
      return EvmERROR_NONE;
    }
    case EvmITEM_VAR_BOOLEAN: shorthand(EvmTYPE_BOOLEAN); v.value.BOOLEAN = static_cast<EvmBoolean_t>(va_arg(*ap, int)); break;
    case EvmITEM_VAR_CHAR: shorthand(EvmTYPE_CHAR); v.value.EVMCHAR = static_cast<EvmChar_t>(va_arg(*ap, int)); break;
    case EvmITEM_VAR_INT16: shorthand(EvmTYPE_INT16); v.value.INT16 = static_cast<EvmInt16_t>(va_arg(*ap, int)); break;
    case EvmITEM_VAR_INT32: shorthand(EvmTYPE_INT32); v.value.INT32 = va_arg(*ap, int); break;
    case EvmITEM_VAR_INT64: shorthand(EvmTYPE_INT64); v.value.INT64 = va_arg(*ap, std::int64_t); break;
    case EvmITEM_VAR_UINT8: shorthand(EvmTYPE_UINT8); v.value.UINT8 = static_cast<EvmUint8_t>(va_arg(*ap, int)); break;
    case EvmITEM_VAR_UINT16: shorthand(EvmTYPE_UINT16); v.value.UINT16 = static_cast<EvmUint16_t>(va_arg(*ap, int)); break;
    case EvmITEM_VAR_UINT32: shorthand(EvmTYPE_UINT32); v.value.UINT32 = static_cast<EvmUint32_t>(va_arg(*ap, int)); break;
    case EvmITEM_VAR_UINT64: shorthand(EvmTYPE_UINT64); v.value.UINT64 = va_arg(*ap, std::uint64_t); break;
    case EvmITEM_VAR_FLOAT: shorthand(EvmTYPE_FLOAT); v.value.FLOAT = static_cast<float>(va_arg(*ap, double)); break;
    case EvmITEM_VAR_DOUBLE: shorthand(EvmTYPE_DOUBLE); v.value.DOUBLE = va_arg(*ap, double); break;
    case EvmITEM_VAR_STRING: shorthand(EvmTYPE_STRING); v.value.STRING = va_arg(*ap, char*); break;
    case EvmITEM_VAR_STRING_I18N:
      shorthand(EvmTYPE_STRING);
      v.value.STRING = va_arg(*ap, char*);
      v.msgId = va_arg(*ap, int);
      break;
    case EvmITEM_VAR_OPAQUE:
      shorthand(EvmTYPE_OPAQUE);
      v.value.OPAQUE = va_arg(*ap, void*);
      v.length = static_cast<EvmSize_t>(va_arg(*ap, int));
      break;
    default:
      return EvmERROR_INVALID_ARGUMENT;
  }
  // Shorthand: the name and the value of a string must be there, and an opaque with a length.
  if (v.name_p == nullptr) return EvmERROR_INVALID_ARGUMENT;
  if (v.type == EvmTYPE_STRING && v.value.STRING == nullptr) return EvmERROR_INVALID_ARGUMENT;
  if (v.type == EvmTYPE_OPAQUE && v.value.OPAQUE == nullptr && v.length != 0) return EvmERROR_INVALID_ARGUMENT;
  return EvmERROR_NONE;
}

// Bytes an entry adds to the data area of a relocatable package; refuses what cannot be copied.
EvmStatus_t dataBytes(const EvmItemTableEntry_t& e, std::uint64_t* bytes) {
  if (_evmIsStringItem(e.id)) {
    if (e.value.NAME == nullptr) return EvmERROR_INVALID_ARGUMENT;
    *bytes += std::strlen(e.value.NAME) + 1;
  } else if (e.id == EvmITEM_VAR) {
    const EvmVarStruct_t& v = e.var;
    if (v.name_p == nullptr) return EvmERROR_INVALID_ARGUMENT;
    *bytes += std::strlen(v.name_p) + 1;
    if (v.type == EvmTYPE_STRING) {
      if (v.value.STRING == nullptr) return EvmERROR_INVALID_ARGUMENT;
      *bytes += std::strlen(v.value.STRING) + 1;
    } else if (v.type == EvmTYPE_OPAQUE) {
      if (v.value.OPAQUE == nullptr && v.length != 0) return EvmERROR_INVALID_ARGUMENT;
      *bytes += v.length;
    }
  }
  return EvmERROR_NONE;
}

unsigned char* copyOut(unsigned char* at, const void* src, std::size_t n) {
  if (n != 0) std::memcpy(at, src, n);
  return at + n;
}

}  // namespace

bool _evmIsStringItem(int id) {
  return id == EvmITEM_NAME || id == EvmITEM_I18N_CATALOG || (id >= EvmITEM_HOST_NAME && id <= EvmITEM_REF);
}

EvmStatus_t EvmCalculateItemPkgSpaceFromVarargs(va_list* args, EvmBoolean_t relocatable, int* entries,
                                                EvmUint32_t* space) {
  if (args == nullptr || entries == nullptr || space == nullptr) return EvmERROR_INVALID_ARGUMENT;
  *entries = 0;
  *space = 0;
  std::uint64_t data = 0;
  int count = 0;
  for (int id = va_arg(*args, int); id != EvmITEM_NONE; id = va_arg(*args, int)) {
    EvmItemTableEntry_t e;
    EvmStatus_t st = fetch(args, id, &e);
    if (st != EvmERROR_NONE) return st;
    if (relocatable == EvmTRUE && (st = dataBytes(e, &data)) != EvmERROR_NONE) return st;
    ++count;
  }
  if (data + EVM_PKG_ENTRY_SIZE * static_cast<std::uint64_t>(count) > 0x7fffffffu) return EvmERROR_NO_MEMORY;
  *entries = count;
  *space = evmPkgSpace(static_cast<std::uint32_t>(data), static_cast<std::uint32_t>(count));
  return EvmERROR_NONE;
}

EvmStatus_t EvmBuildItemPkgFromVarargs(va_list* args, EvmBoolean_t relocatable, int entries,
                                       EvmItemPkg_t* package, EvmUint32_t space) {
  if (args == nullptr || package == nullptr || entries < 0 ||
      space < evmPkgSpace(0, static_cast<std::uint32_t>(entries)))
    return EvmERROR_INVALID_ARGUMENT;
  std::memset(package, 0, space);
  auto* base = reinterpret_cast<unsigned char*>(package);
  package->version = EVM_PKG_VERSION;
  package->magic = EVM_PKG_MAGIC;
  package->base_p = base;
  package->relocatable = relocatable == EvmTRUE ? EvmTRUE : EvmFALSE;
  package->entry_count = static_cast<std::uint32_t>(entries);
  package->size = space;
  package->table_p = reinterpret_cast<EvmItemTableEntry_t*>(base + EVM_PKG_HEADER_SIZE);
  EvmItemTableEntry_t* table = package->table_p;
  std::uint32_t seenItems = 0;
  int n = 0;
  for (int id = va_arg(*args, int); id != EvmITEM_NONE; id = va_arg(*args, int), ++n) {
    if (n >= entries) return EvmERROR_INVALID_ARGUMENT;  // not the list that was sized
    EvmItemTableEntry_t* e = &table[n];
    EvmStatus_t st = fetch(args, id, e);
    if (st != EvmERROR_NONE) return st;
    if (e->id == EvmITEM_VAR) {
      e->value.VAR = &e->var;
      for (int k = 0; k < n; ++k)
        if (table[k].id == EvmITEM_VAR && table[k].var.name_p != nullptr && e->var.name_p != nullptr &&
            std::strcmp(table[k].var.name_p, e->var.name_p) == 0)
          return EvmERROR_INVALID_ARGUMENT;
    } else if (e->id < 32) {
      // Sizing counts each item's old record once: a repeated body item would overrun the block.
      if (seenItems & (1u << e->id)) return EvmERROR_INVALID_ARGUMENT;
      seenItems |= 1u << e->id;
    }
  }
  if (n != entries) return EvmERROR_INVALID_ARGUMENT;
  unsigned char* data = base + EVM_PKG_HEADER_SIZE + EVM_PKG_ENTRY_SIZE * static_cast<std::size_t>(entries);
  if (package->relocatable == EvmTRUE) {
    std::uint64_t need = 0;
    for (int k = 0; k < entries; ++k)
      if (dataBytes(table[k], &need) != EvmERROR_NONE) return EvmERROR_INVALID_ARGUMENT;
    if (evmPkgSpace(static_cast<std::uint32_t>(need), static_cast<std::uint32_t>(entries)) > space)
      return EvmERROR_INVALID_ARGUMENT;
    for (int k = 0; k < entries; ++k) {
      EvmItemTableEntry_t& e = table[k];
      if (_evmIsStringItem(e.id)) {
        char* at = reinterpret_cast<char*>(data);
        data = copyOut(data, e.value.NAME, std::strlen(e.value.NAME) + 1);
        e.value.NAME = at;
      } else if (e.id == EvmITEM_VAR) {
        char* at = reinterpret_cast<char*>(data);
        data = copyOut(data, e.var.name_p, std::strlen(e.var.name_p) + 1);
        e.var.name_p = at;
        if (e.var.type == EvmTYPE_STRING) {
          at = reinterpret_cast<char*>(data);
          data = copyOut(data, e.var.value.STRING, std::strlen(e.var.value.STRING) + 1);
          e.var.value.STRING = at;
        } else if (e.var.type == EvmTYPE_OPAQUE && e.var.value.OPAQUE != nullptr) {
          void* op = data;
          data = copyOut(data, e.var.value.OPAQUE, e.var.length);
          e.var.value.OPAQUE = op;
        }
      }
    }
  }
  std::size_t trailerOff = evmPad8(static_cast<std::uint64_t>(data - base));
  package->trailer_p = reinterpret_cast<EvmItemPkgTrailer_t*>(base + trailerOff);
  package->trailer_p->magic = EVM_PKG_TRAILER_MAGIC;
  return EvmERROR_NONE;
}

EvmStatus_t EvmItemPkgRelocate(EvmItemPkg_t* package) {
  if (package == nullptr || package->magic != EVM_PKG_MAGIC || package->relocatable != EvmTRUE)
    return EvmERROR_INVALID_ARGUMENT;
  auto* now = reinterpret_cast<unsigned char*>(package);
  std::uintptr_t trailerOff = reinterpret_cast<std::uintptr_t>(package->trailer_p) -
                              reinterpret_cast<std::uintptr_t>(package->base_p);
  if (trailerOff + sizeof(EvmItemPkgTrailer_t) > package->size ||
      reinterpret_cast<EvmItemPkgTrailer_t*>(now + trailerOff)->magic != EVM_PKG_TRAILER_MAGIC)
    return EvmERROR_INVALID_ARGUMENT;
  std::ptrdiff_t delta = now - package->base_p;
  auto move = [delta](auto* p) { return reinterpret_cast<decltype(p)>(reinterpret_cast<unsigned char*>(const_cast<void*>(static_cast<const void*>(p))) + delta); };
  package->table_p = move(package->table_p);
  package->trailer_p = move(package->trailer_p);
  for (std::uint32_t k = 0; k < package->entry_count; ++k) {
    EvmItemTableEntry_t& e = package->table_p[k];
    if (_evmIsStringItem(e.id)) {
      e.value.NAME = move(e.value.NAME);
    } else if (e.id == EvmITEM_VAR) {
      e.value.VAR = &e.var;
      e.var.name_p = move(e.var.name_p);
      if (e.var.type == EvmTYPE_STRING) e.var.value.STRING = move(e.var.value.STRING);
      if (e.var.type == EvmTYPE_OPAQUE && e.var.value.OPAQUE != nullptr) e.var.value.OPAQUE = move(e.var.value.OPAQUE);
    }
  }
  package->base_p = now;
  return EvmERROR_NONE;
}

EvmStatus_t EvmItemPkgDump(EvmItemPkg_t* package) {
  if (package == nullptr) return EvmERROR_INVALID_ARGUMENT;
  auto addr = [](const void* p) { return static_cast<unsigned long>(reinterpret_cast<std::uintptr_t>(p)); };
  std::printf("\nHeader:\n");
  std::printf("  Version:     %d\n", static_cast<int>(package->version));
  std::printf("  Magic:       0x%x\n", package->magic);
  std::printf("  Base:        0x%lx\n", addr(package->base_p));
  std::printf("  Table:       0x%lx\n", addr(package->table_p));
  std::printf("  Trailer:     0x%lx\n", addr(package->trailer_p));
  std::printf("  Entry count: 0x%x\n", package->entry_count);
  std::printf("  Size:        %d (0x%x)\n", static_cast<int>(package->size), package->size);
  std::printf("  Relocatable: %s\n", package->relocatable == EvmTRUE ? "Yes" : "No");
  std::printf("Table:\n");
  for (std::uint32_t k = 0; k < package->entry_count; ++k) {
    const EvmItemTableEntry_t& e = package->table_p[k];
    std::printf("  ItemId:  %d  Value: 0x%" PRIx64 " ", static_cast<int>(e.id), static_cast<std::uint64_t>(e.value.PID));
    if (_evmIsStringItem(e.id))
      std::printf("[%s]\n", e.value.NAME != nullptr ? e.value.NAME : "");
    else
      std::printf("\n");
  }
  std::printf("Trailer:\n");
  std::printf("  Magic:       0x%x\n", package->trailer_p != nullptr ? package->trailer_p->magic : 0u);
  return EvmERROR_NONE;
}
