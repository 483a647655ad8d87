// Walking the records of an event body.
#include "evm/libevm/evm_record.h"

#include <cstring>

namespace {

bool isStringItem(std::uint32_t id) {
  return id == EvmITEM_NAME || id == EvmITEM_I18N_CATALOG || (id >= EvmITEM_HOST_NAME && id <= EvmITEM_REF);
}
bool isNumericItem(std::uint32_t id) {
  return (id >= EvmITEM_REPEAT_COUNT && id <= EvmITEM_I18N_SET_ID) || id == EvmITEM_CLUSTER_IP;
}

bool varRecordFits(const unsigned char* rec, std::uint32_t size) {
  if (size < EVM_VAR_NAME) return false;
  std::uint32_t nameLen = evmLoad32(rec, EVM_VAR_NAMELEN);
  std::uint32_t type = evmLoad32(rec, EVM_VAR_TYPE);
  std::uint32_t valueLen = evmLoad32(rec, EVM_VAR_VALUELEN);
  if (nameLen == 0 || type < EvmTYPE_FIRST || type > EvmTYPE_MAX) return false;
  std::uint64_t nameArea = evmPad8(nameLen);
  bool sized = type == EvmTYPE_STRING || type == EvmTYPE_OPAQUE;
  std::uint64_t valueArea = sized ? static_cast<std::uint64_t>(evmPad8(valueLen)) : EVM_VAR_SCALAR_AREA;
  if (EVM_VAR_NAME + nameArea + valueArea > size) return false;
  if (rec[EVM_VAR_NAME + nameLen - 1] != '\0') return false;
  if (type == EvmTYPE_STRING) {
    if (valueLen == 0) return false;
    if (rec[EVM_VAR_NAME + nameArea + valueLen - 1] != '\0') return false;
  }
  return true;
}

}  // namespace

EvmStatus_t _evmuiGetVar(const EvmEventHead_t* head, const unsigned char** cursor) {
  const unsigned char* base = evmAt(head, 0);
  std::uint64_t end = head->control.size;
  std::uint64_t off = (*cursor == nullptr) ? EVM_HEAD_SIZE
                                           : static_cast<std::uint64_t>(*cursor - base) + evmRecSize(*cursor);
  if (off >= end) {
    *cursor = nullptr;
    return EvmERROR_NOT_PRESENT;
  }
  if (off + EVM_REC_HEAD > end) {
    *cursor = nullptr;
    return EvmERROR_INVALID_VALUE;
  }
  std::uint32_t size = evmLoad32(base + off, EVM_REC_SIZE);
  if (size < EVM_REC_HEAD || off + size > end) {
    *cursor = nullptr;
    return EvmERROR_INVALID_VALUE;
  }
  *cursor = base + off;
  return EvmERROR_NONE;
}

const unsigned char* _evmuiFindVar(const EvmEventHead_t* head, EvmItemId_t id, const char* name) {
  std::size_t nameLen = (id == EvmITEM_VAR && name != nullptr) ? std::strlen(name) + 1 : 0;
  const unsigned char* rec = nullptr;
  while (_evmuiGetVar(head, &rec) == EvmERROR_NONE) {
    if (evmRecIdent(rec) != static_cast<std::uint32_t>(id)) continue;
    if (id != EvmITEM_VAR) return rec;
    if (name == nullptr) continue;
    if (EVM_VAR_NAME + nameLen <= evmRecSize(rec) && std::memcmp(rec + EVM_VAR_NAME, name, nameLen) == 0)
      return rec;
  }
  return nullptr;
}

unsigned char* _evmuiFindVar(EvmEventHead_t* head, EvmItemId_t id, const char* name) {
  return const_cast<unsigned char*>(_evmuiFindVar(static_cast<const EvmEventHead_t*>(head), id, name));
}

EvmUint32_t _evmuiCountVar(const EvmEventHead_t* head) {
  EvmUint32_t count = 0;
  const unsigned char* rec = nullptr;
  while (_evmuiGetVar(head, &rec) == EvmERROR_NONE)
    if (evmRecIdent(rec) == EvmITEM_VAR) ++count;
  return count;
}

EvmStatus_t _evmBodyCheck(const EvmEventHead_t* head) {
  if (head->control.size < EVM_HEAD_SIZE) return EvmERROR_INVALID_VALUE;
  std::uint32_t seen = 0;
  const unsigned char* rec = nullptr;
  EvmStatus_t st;
  while ((st = _evmuiGetVar(head, &rec)) == EvmERROR_NONE) {
    std::uint32_t id = evmRecIdent(rec);
    std::uint32_t size = evmRecSize(rec);
    if (size % 8 != 0) return EvmERROR_INVALID_VALUE;
    if (isStringItem(id)) {
      if (size <= EVM_REC_VALUE || std::memchr(rec + EVM_REC_VALUE, '\0', size - EVM_REC_VALUE) == nullptr)
        return EvmERROR_INVALID_VALUE;
    } else if (isNumericItem(id)) {
      if (size < EVM_REC_NUMERIC_SIZE) return EvmERROR_INVALID_VALUE;
    } else if (id == EvmITEM_VAR) {
      if (!varRecordFits(rec, size)) return EvmERROR_INVALID_VALUE;
    } else {
      return EvmERROR_INVALID_VALUE;  // head items, dead records and unknown ids never travel
    }
    seen |= 1u << id;
  }
  if (st != EvmERROR_NOT_PRESENT) return EvmERROR_INVALID_VALUE;
  // A presence bit of a body item promises a record behind it.
  std::uint32_t bodyBits = 0;
  for (std::uint32_t id = EvmITEM_NAME; id <= EvmITEM_VAR; ++id)
    if (isStringItem(id) || isNumericItem(id) || id == EvmITEM_VAR) bodyBits |= 1u << id;
  if ((head->fldPresBits & bodyBits & ~seen) != 0) return EvmERROR_INVALID_VALUE;
  return EvmERROR_NONE;
}
