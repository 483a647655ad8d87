#ifndef EVM_LIBEVM_EVM_VAR_H
#define EVM_LIBEVM_EVM_VAR_H

// Named, typed variables of an event: setting (a variable of an existing name is replaced),
// reading into a caller's structure, listing, and folding "_" variables into the event name.
#include <cstddef>

#include "evm/libevm/evm_types.h"
#include "evm/libevm/evm_wire.h"

EvmStatus_t EvmVarSet(EvmEvent_t event, EvmVarName_t name, EvmVarType_t type, EvmVarValue_t value,
                      EvmI18NMsgId_t msgId, EvmSize_t length);
// A stand-alone variable that owns copies of its name and string or opaque value.
EvmStatus_t EvmVarInit(EvmVarStruct_t* var, EvmVarName_t name, EvmVarType_t type, EvmVarValue_t value,
                       EvmI18NMsgId_t msgId, EvmSize_t length);
// Copies a variable out: name and string or opaque value are new copies for EvmVarRelease.
EvmStatus_t EvmVarGet(EvmEvent_t event, EvmVarName_t name, EvmVarStruct_t* var);
EvmStatus_t EvmVarRelease(EvmVarStruct_t* var);
EvmStatus_t EvmVarGetType(EvmEvent_t event, EvmVarName_t name, EvmVarType_t* type);
EvmStatus_t EvmVarListGet(EvmEvent_t event, EvmUint32_t* count, EvmVarList_t* list);
EvmStatus_t EvmVarListFree(EvmVarList_t list);
EvmStatus_t EvmEventAutoExtendName(EvmEvent_t event, EvmUint32_t* added);

EvmStatus_t EvmVarSetBoolean(EvmEvent_t event, EvmVarName_t name, EvmBoolean_t value);
EvmStatus_t EvmVarSetChar(EvmEvent_t event, EvmVarName_t name, EvmChar_t value);
EvmStatus_t EvmVarSetInt16(EvmEvent_t event, EvmVarName_t name, EvmInt16_t value);
EvmStatus_t EvmVarSetInt32(EvmEvent_t event, EvmVarName_t name, EvmInt32_t value);
EvmStatus_t EvmVarSetInt64(EvmEvent_t event, EvmVarName_t name, EvmInt64_t value);
EvmStatus_t EvmVarSetUint8(EvmEvent_t event, EvmVarName_t name, EvmUint8_t value);
EvmStatus_t EvmVarSetUint16(EvmEvent_t event, EvmVarName_t name, EvmUint16_t value);
EvmStatus_t EvmVarSetUint32(EvmEvent_t event, EvmVarName_t name, EvmUint32_t value);
EvmStatus_t EvmVarSetUint64(EvmEvent_t event, EvmVarName_t name, EvmUint64_t value);
EvmStatus_t EvmVarSetFloat(EvmEvent_t event, EvmVarName_t name, EvmFloat_t value);
EvmStatus_t EvmVarSetDouble(EvmEvent_t event, EvmVarName_t name, EvmDouble_t value);
EvmStatus_t EvmVarSetString(EvmEvent_t event, EvmVarName_t name, const char* value);
EvmStatus_t EvmVarSetStringI18n(EvmEvent_t event, EvmVarName_t name, const char* value, EvmI18NMsgId_t msgId);
EvmStatus_t EvmVarSetOpaque(EvmEvent_t event, EvmVarName_t name, const void* data, EvmSize_t length);

// Getters do not compare the stored type with their own: ask EvmVarGetType when unsure.
EvmStatus_t EvmVarGetBoolean(EvmEvent_t event, EvmVarName_t name, EvmBoolean_t* value);
EvmStatus_t EvmVarGetChar(EvmEvent_t event, EvmVarName_t name, EvmChar_t* value);
EvmStatus_t EvmVarGetInt16(EvmEvent_t event, EvmVarName_t name, EvmInt16_t* value);
EvmStatus_t EvmVarGetInt32(EvmEvent_t event, EvmVarName_t name, EvmInt32_t* value);
EvmStatus_t EvmVarGetInt64(EvmEvent_t event, EvmVarName_t name, EvmInt64_t* value);
EvmStatus_t EvmVarGetUint8(EvmEvent_t event, EvmVarName_t name, EvmUint8_t* value);
EvmStatus_t EvmVarGetUint16(EvmEvent_t event, EvmVarName_t name, EvmUint16_t* value);
EvmStatus_t EvmVarGetUint32(EvmEvent_t event, EvmVarName_t name, EvmUint32_t* value);
EvmStatus_t EvmVarGetUint64(EvmEvent_t event, EvmVarName_t name, EvmUint64_t* value);
EvmStatus_t EvmVarGetFloat(EvmEvent_t event, EvmVarName_t name, EvmFloat_t* value);
EvmStatus_t EvmVarGetDouble(EvmEvent_t event, EvmVarName_t name, EvmDouble_t* value);
// *value is a new copy that the caller frees; msgId may be null.
EvmStatus_t EvmVarGetString(EvmEvent_t event, EvmVarName_t name, EvmString_t* value, EvmI18NMsgId_t* msgId);
EvmStatus_t EvmVarGetOpaque(EvmEvent_t event, EvmVarName_t name, EvmOpaque_t* data, EvmSize_t* length);

// Reads a record's value into the union by var->type; string and opaque as addresses in the block.
void _evmuiSetVal(const EvmVarStruct_t* var, EvmVarValue_t* value, const unsigned char* record);
// Finds a variable and fills type, msgId, length and value without copying.
EvmStatus_t _evmuiVarGet(EvmEvent_t event, EvmVarStruct_t* var);
// Whether `var` stands as a whole dot-separated component of `name`.
bool _evmIsVarInName(const char* name, const char* var);

#endif
