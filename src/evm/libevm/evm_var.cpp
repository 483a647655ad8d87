// Variables of an event.
#include "evm/libevm/evm_var.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "evm/libevm/evm_check.h"
#include "evm/libevm/evm_format.h"
#include "evm/libevm/evm_item.h"
#include "evm/libevm/evm_log.h"
#include "evm/libevm/evm_misc.h"
#include "evm/libevm/evm_msg.h"
#include "evm/libevm/evm_record.h"

namespace {

EvmVarValue_t zeroValue() {
  EvmVarValue_t v;
  v.UINT64 = 0;
  return v;
}

// Copies the value a getter reads out of the union into its typed out-argument.
template <typename T>
EvmStatus_t getMember(EvmEvent_t event, EvmVarName_t name, T* out, T EvmVarValue_u::*member) {
  if (out == nullptr) return EvmERROR_INVALID_ARGUMENT;
  EvmVarStruct_t var;
  EvmStatus_t st = EvmVarGet(event, name, &var);
  if (st != EvmERROR_NONE) return st;
  *out = var.value.*member;
  EvmVarRelease(&var);
  return EvmERROR_NONE;
}

}  // namespace

void _evmuiSetVal(const EvmVarStruct_t* var, EvmVarValue_t* value, const unsigned char* record) {
  const unsigned char* p = record + evmVarValueOffset(record);
  *value = zeroValue();
  switch (var->type) {
    case EvmTYPE_BOOLEAN: value->BOOLEAN = static_cast<EvmBoolean_t>(evmLoad32(p, 0)); break;
    case EvmTYPE_STRING: value->STRING = reinterpret_cast<char*>(const_cast<unsigned char*>(p)); break;
    case EvmTYPE_OPAQUE: value->OPAQUE = const_cast<unsigned char*>(p); break;
    case EvmTYPE_CHAR: case EvmTYPE_UINT8: std::memcpy(value, p, 1); break;
    case EvmTYPE_INT16: case EvmTYPE_UINT16: std::memcpy(value, p, 2); break;
    case EvmTYPE_INT32: case EvmTYPE_UINT32: case EvmTYPE_FLOAT: std::memcpy(value, p, 4); break;
    default: std::memcpy(value, p, 8); break;
  }
}

EvmStatus_t _evmuiVarGet(EvmEvent_t event, EvmVarStruct_t* var) {
  EvmEventHead_t* head = event->head_p;
  if (!(head->fldPresBits & EVM_PRES_VARIABLES)) return EvmERROR_NOT_PRESENT;
  const unsigned char* rec = _evmuiFindVar(head, EvmITEM_VAR, var->name_p);
  if (rec == nullptr) return EvmERROR_NOT_PRESENT;
  var->type = static_cast<EvmVarType_t>(evmLoad32(rec, EVM_VAR_TYPE));
  var->msgId = static_cast<EvmI18NMsgId_t>(evmLoad32(rec, EVM_VAR_MSGID));
  var->length = evmLoad32(rec, EVM_VAR_VALUELEN);
  _evmuiSetVal(var, &var->value, rec);
  return EvmERROR_NONE;
}

EvmStatus_t EvmVarSet(EvmEvent_t event, EvmVarName_t name, EvmVarType_t type, EvmVarValue_t value,
                      EvmI18NMsgId_t msgId, EvmSize_t length) {
  EvmVarStruct_t var;
  var.type = type;
  var.name_p = name;
  var.value = value;
  var.length = length;
  var.msgId = msgId;
  EvmStatus_t st = EvmItemSetVa(event, EvmITEM_VAR, &var, 0);
  return st == EvmERROR_INVALID_VALUE ? EvmERROR_INVALID_ARGUMENT : st;
}

EvmStatus_t EvmVarInit(EvmVarStruct_t* var, EvmVarName_t name, EvmVarType_t type, EvmVarValue_t value,
                       EvmI18NMsgId_t msgId, EvmSize_t length) {
  if (var == nullptr) return EvmERROR_INVALID_ARGUMENT;
  var->length = length;
  var->msgId = msgId;
  if (type <= EvmTYPE_NONE || type > EvmTYPE_MAX || name == nullptr) return EvmERROR_INVALID_ARGUMENT;
  char* nameCopy = _evmmiscStrdup(name);
  if (nameCopy == nullptr) return EvmERROR_NO_MEMORY;
  EvmVarValue_t stored = value;
  EvmStatus_t st = EvmERROR_NONE;
  if (type == EvmTYPE_STRING) {
    if (value.STRING == nullptr)
      st = EvmERROR_INVALID_ARGUMENT;
    else if ((stored.STRING = _evmmiscStrdup(value.STRING)) == nullptr)
      st = EvmERROR_NO_MEMORY;
  } else if (type == EvmTYPE_OPAQUE) {
    if (length == 0 || value.OPAQUE == nullptr) {
      st = EvmERROR_INVALID_VALUE;
    } else if ((stored.OPAQUE = std::malloc(length)) == nullptr) {
      st = EvmERROR_NO_MEMORY;
    } else {
      std::memcpy(stored.OPAQUE, value.OPAQUE, length);
    }
  }
  if (st != EvmERROR_NONE) {
    std::free(nameCopy);
    return st;
  }
  var->type = type;
  var->name_p = nameCopy;
  var->value = stored;
  return EvmERROR_NONE;
}

EvmStatus_t EvmVarGet(EvmEvent_t event, EvmVarName_t name, EvmVarStruct_t* var) {
  if (name == nullptr || var == nullptr || _evmuiTestEventMagic(event) != EvmERROR_NONE || event->head_p == nullptr) {
    EvmLog_C_module_error(EvmDL2, "EvmVarGet - illegal argument event (NULL).");
    return EvmERROR_INVALID_ARGUMENT;
  }
  EvmVarStruct_t found;
  std::memset(&found, 0, sizeof found);
  found.name_p = name;
  EvmStatus_t st = _evmuiVarGet(event, &found);
  if (st != EvmERROR_NONE) return st;
  if (found.type == EvmTYPE_STRING || found.type == EvmTYPE_OPAQUE) {
    void* copy = std::malloc(found.length == 0 ? 1 : found.length);
    if (copy == nullptr) return EvmERROR_NO_MEMORY;
    if (found.length != 0) std::memcpy(copy, found.value.OPAQUE, found.length);
    found.value.OPAQUE = copy;
  }
  char* nameCopy = _evmmiscStrdup(name);
  if (nameCopy == nullptr) {
    if (found.type == EvmTYPE_STRING || found.type == EvmTYPE_OPAQUE) std::free(found.value.OPAQUE);
    return EvmERROR_NO_MEMORY;
  }
  found.name_p = nameCopy;
  *var = found;
  return EvmERROR_NONE;
}

EvmStatus_t EvmVarRelease(EvmVarStruct_t* var) {
  if (var == nullptr) {
    EvmLog_C_module_error(EvmDL2, "EvmVarRelease - illegal argument.");
    return EvmERROR_INVALID_ARGUMENT;
  }
  bool sized = var->type == EvmTYPE_STRING || var->type == EvmTYPE_OPAQUE;
  if (var->type < EvmTYPE_FIRST || var->type > EvmTYPE_MAX || var->name_p == nullptr ||
      (sized && var->value.OPAQUE == nullptr))
    return EvmERROR_INVALID_VALUE;
  std::free(const_cast<char*>(var->name_p));
  var->name_p = nullptr;
  if (sized) {
    std::free(var->value.OPAQUE);
    var->value.OPAQUE = nullptr;
  }
  return EvmERROR_NONE;
}

EvmStatus_t EvmVarGetType(EvmEvent_t event, EvmVarName_t name, EvmVarType_t* type) {
  if (type == nullptr || name == nullptr || _evmuiTestEventMagic(event) != EvmERROR_NONE) return EvmERROR_INVALID_ARGUMENT;
  *type = EvmTYPE_NONE;
  EvmVarStruct_t found;
  std::memset(&found, 0, sizeof found);
  found.name_p = name;
  EvmStatus_t st = _evmuiVarGet(event, &found);
  if (st != EvmERROR_NONE) return st;
  *type = found.type;
  return EvmERROR_NONE;
}

EvmStatus_t EvmVarListGet(EvmEvent_t event, EvmUint32_t* count, EvmVarList_t* list) {
  if (list == nullptr || _evmuiTestEventMagic(event) != EvmERROR_NONE || event->head_p == nullptr) {
    EvmLog_C_module_error(EvmDL2, "EvmVarListGet - illegal argument event (NULL).");
    return EvmERROR_INVALID_ARGUMENT;
  }
  const EvmEventHead_t* head = event->head_p;
  EvmUint32_t n = _evmuiCountVar(head);
  auto* out = static_cast<EvmVarList_t>(std::calloc(n + 1, sizeof(char*)));
  if (out == nullptr) return EvmERROR_NO_MEMORY;
  EvmUint32_t k = 0;
  const unsigned char* rec = nullptr;
  while (k < n && _evmuiGetVar(head, &rec) == EvmERROR_NONE) {
    if (evmRecIdent(rec) != EvmITEM_VAR) continue;
    out[k] = _evmmiscStrdup(reinterpret_cast<const char*>(rec + EVM_VAR_NAME));
    if (out[k] == nullptr) {
      EvmVarListFree(out);
      return EvmERROR_NO_MEMORY;
    }
    ++k;
  }
  if (count != nullptr) *count = k;
  *list = out;
  return EvmERROR_NONE;
}

EvmStatus_t EvmVarListFree(EvmVarList_t list) {
  if (list == nullptr) {
    EvmLog_C_module_error(EvmDL2, "EvmVarListFree - illegal argument event (NULL).");
    return EvmERROR_INVALID_ARGUMENT;
  }
  for (char** p = list; *p != nullptr; ++p) std::free(*p);
  std::free(list);
  return EvmERROR_NONE;
}

bool _evmIsVarInName(const char* name, const char* var) {
  std::size_t n = std::strlen(var);
  for (const char* p = name; p != nullptr && *p;) {
    const char* dot = std::strchr(p, '.');
    std::size_t len = dot != nullptr ? static_cast<std::size_t>(dot - p) : std::strlen(p);
    if (len == n && std::strncmp(p, var, n) == 0) return true;
    p = dot != nullptr ? dot + 1 : nullptr;
  }
  return false;
}

EvmStatus_t EvmEventAutoExtendName(EvmEvent_t event, EvmUint32_t* added) {
  EvmItemValue_t nameItem;
  EvmStatus_t st = EvmItemGet(event, EvmITEM_NAME, &nameItem);
  if (st != EvmERROR_NONE) return st;
  bool emptyName = nameItem.NAME[0] == '\0';
  if (added != nullptr) *added = 0;
  EvmVarList_t list = nullptr;
  st = EvmVarListGet(event, nullptr, &list);
  if (st != EvmERROR_NONE) {
    EvmItemRelease(EvmITEM_NAME, nameItem);
    return st;
  }
  // Grows as texts are appended; std::string keeps the capacity bookkeeping out of the way.
  std::string name(nameItem.NAME);
  name.reserve(name.size() + 128);
  EvmItemRelease(EvmITEM_NAME, nameItem);
  EvmUint32_t count = 0;
  for (char** p = list; *p != nullptr; ++p) {
    if ((*p)[0] != '_') continue;
    EvmVarStruct_t var;
    if (EvmVarGet(event, *p, &var) != EvmERROR_NONE) continue;
    bool skip = _evmIsVarInName(name.c_str(), *p) || (var.type == EvmTYPE_STRING && var.length == 0);
    std::string text;
    if (!skip) {
      std::size_t size = var.type == EvmTYPE_STRING ? var.length + 1 : var.type == EvmTYPE_OPAQUE ? 8 : 64;
      text.resize(size);
      if (var.type == EvmTYPE_OPAQUE)
        std::snprintf(&text[0], size, "OPAQUE");
      else
        EvmVarFormat(event, *p, &text[0], static_cast<EvmSize_t>(size), EvmFALSE);
      text.resize(std::strlen(text.c_str()));
    }
    EvmVarRelease(&var);
    std::string kept;
    for (char c : text)
      if (std::isalnum(static_cast<unsigned char>(c)) || c == '_') kept.push_back(c);
    if (skip || kept.empty()) continue;
    if (!(emptyName && count == 0)) name.push_back('.');
    name += *p;
    name.push_back('.');
    name += kept;
    ++count;
  }
  EvmVarListFree(list);
  if (added != nullptr) *added = count;
  if (count == 0) return EvmERROR_NONE;
  return EvmItemSetVa(event, EvmITEM_NAME, name.c_str(), 0);
}

EvmStatus_t EvmVarSetBoolean(EvmEvent_t e, EvmVarName_t n, EvmBoolean_t x) { EvmVarValue_t v = zeroValue(); v.BOOLEAN = x; return EvmVarSet(e, n, EvmTYPE_BOOLEAN, v, 0, 0); }
EvmStatus_t EvmVarSetChar(EvmEvent_t e, EvmVarName_t n, EvmChar_t x) { EvmVarValue_t v = zeroValue(); v.EVMCHAR = x; return EvmVarSet(e, n, EvmTYPE_CHAR, v, 0, 0); }
EvmStatus_t EvmVarSetInt16(EvmEvent_t e, EvmVarName_t n, EvmInt16_t x) { EvmVarValue_t v = zeroValue(); v.INT16 = x; return EvmVarSet(e, n, EvmTYPE_INT16, v, 0, 0); }
EvmStatus_t EvmVarSetInt32(EvmEvent_t e, EvmVarName_t n, EvmInt32_t x) { EvmVarValue_t v = zeroValue(); v.INT32 = x; return EvmVarSet(e, n, EvmTYPE_INT32, v, 0, 0); }
EvmStatus_t EvmVarSetInt64(EvmEvent_t e, EvmVarName_t n, EvmInt64_t x) { EvmVarValue_t v = zeroValue(); v.INT64 = x; return EvmVarSet(e, n, EvmTYPE_INT64, v, 0, 0); }
EvmStatus_t EvmVarSetUint8(EvmEvent_t e, EvmVarName_t n, EvmUint8_t x) { EvmVarValue_t v = zeroValue(); v.UINT8 = x; return EvmVarSet(e, n, EvmTYPE_UINT8, v, 0, 0); }
EvmStatus_t EvmVarSetUint16(EvmEvent_t e, EvmVarName_t n, EvmUint16_t x) { EvmVarValue_t v = zeroValue(); v.UINT16 = x; return EvmVarSet(e, n, EvmTYPE_UINT16, v, 0, 0); }
EvmStatus_t EvmVarSetUint32(EvmEvent_t e, EvmVarName_t n, EvmUint32_t x) { EvmVarValue_t v = zeroValue(); v.UINT32 = x; return EvmVarSet(e, n, EvmTYPE_UINT32, v, 0, 0); }
EvmStatus_t EvmVarSetUint64(EvmEvent_t e, EvmVarName_t n, EvmUint64_t x) { EvmVarValue_t v = zeroValue(); v.UINT64 = x; return EvmVarSet(e, n, EvmTYPE_UINT64, v, 0, 0); }
EvmStatus_t EvmVarSetFloat(EvmEvent_t e, EvmVarName_t n, EvmFloat_t x) { EvmVarValue_t v = zeroValue(); v.FLOAT = x; return EvmVarSet(e, n, EvmTYPE_FLOAT, v, 0, 0); }
EvmStatus_t EvmVarSetDouble(EvmEvent_t e, EvmVarName_t n, EvmDouble_t x) { EvmVarValue_t v = zeroValue(); v.DOUBLE = x; return EvmVarSet(e, n, EvmTYPE_DOUBLE, v, 0, 0); }

EvmStatus_t EvmVarSetString(EvmEvent_t e, EvmVarName_t n, const char* x) { return EvmVarSetStringI18n(e, n, x, 0); }
EvmStatus_t EvmVarSetStringI18n(EvmEvent_t e, EvmVarName_t n, const char* x, EvmI18NMsgId_t msgId) {
  EvmVarValue_t v = zeroValue();
  v.STRING = const_cast<char*>(x);
  return EvmVarSet(e, n, EvmTYPE_STRING, v, msgId, 0);
}
EvmStatus_t EvmVarSetOpaque(EvmEvent_t e, EvmVarName_t n, const void* data, EvmSize_t length) {
  EvmVarValue_t v = zeroValue();
  v.OPAQUE = const_cast<void*>(data);
  return EvmVarSet(e, n, EvmTYPE_OPAQUE, v, 0, length);
}

EvmStatus_t EvmVarGetBoolean(EvmEvent_t e, EvmVarName_t n, EvmBoolean_t* x) { return getMember(e, n, x, &EvmVarValue_u::BOOLEAN); }
EvmStatus_t EvmVarGetChar(EvmEvent_t e, EvmVarName_t n, EvmChar_t* x) { return getMember(e, n, x, &EvmVarValue_u::EVMCHAR); }
EvmStatus_t EvmVarGetInt16(EvmEvent_t e, EvmVarName_t n, EvmInt16_t* x) { return getMember(e, n, x, &EvmVarValue_u::INT16); }
EvmStatus_t EvmVarGetInt32(EvmEvent_t e, EvmVarName_t n, EvmInt32_t* x) { return getMember(e, n, x, &EvmVarValue_u::INT32); }
EvmStatus_t EvmVarGetInt64(EvmEvent_t e, EvmVarName_t n, EvmInt64_t* x) { return getMember(e, n, x, &EvmVarValue_u::INT64); }
EvmStatus_t EvmVarGetUint8(EvmEvent_t e, EvmVarName_t n, EvmUint8_t* x) { return getMember(e, n, x, &EvmVarValue_u::UINT8); }
EvmStatus_t EvmVarGetUint16(EvmEvent_t e, EvmVarName_t n, EvmUint16_t* x) { return getMember(e, n, x, &EvmVarValue_u::UINT16); }
EvmStatus_t EvmVarGetUint32(EvmEvent_t e, EvmVarName_t n, EvmUint32_t* x) { return getMember(e, n, x, &EvmVarValue_u::UINT32); }
EvmStatus_t EvmVarGetUint64(EvmEvent_t e, EvmVarName_t n, EvmUint64_t* x) { return getMember(e, n, x, &EvmVarValue_u::UINT64); }
EvmStatus_t EvmVarGetFloat(EvmEvent_t e, EvmVarName_t n, EvmFloat_t* x) { return getMember(e, n, x, &EvmVarValue_u::FLOAT); }
EvmStatus_t EvmVarGetDouble(EvmEvent_t e, EvmVarName_t n, EvmDouble_t* x) { return getMember(e, n, x, &EvmVarValue_u::DOUBLE); }

EvmStatus_t EvmVarGetString(EvmEvent_t event, EvmVarName_t name, EvmString_t* value, EvmI18NMsgId_t* msgId) {
  if (value == nullptr) return EvmERROR_INVALID_ARGUMENT;
  EvmVarStruct_t var;
  EvmStatus_t st = EvmVarGet(event, name, &var);
  if (st != EvmERROR_NONE) return st;
  *value = _evmmiscStrdup(var.value.STRING);
  if (msgId != nullptr) *msgId = *value != nullptr ? var.msgId : 0;
  EvmVarRelease(&var);
  return *value != nullptr ? EvmERROR_NONE : EvmERROR_NO_MEMORY;
}

EvmStatus_t EvmVarGetOpaque(EvmEvent_t event, EvmVarName_t name, EvmOpaque_t* data, EvmSize_t* length) {
  if (data == nullptr || length == nullptr) return EvmERROR_INVALID_ARGUMENT;
  EvmVarStruct_t var;
  EvmStatus_t st = EvmVarGet(event, name, &var);
  if (st != EvmERROR_NONE) return st;
  // The copy EvmVarGet made is handed over as it is.
  *data = var.value.OPAQUE;
  *length = var.length;
  var.value.OPAQUE = nullptr;
  var.type = EvmTYPE_UINT8;  // releases only the name now
  EvmVarRelease(&var);
  return EvmERROR_NONE;
}
