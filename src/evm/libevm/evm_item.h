#ifndef EVM_LIBEVM_EVM_ITEM_H
#define EVM_LIBEVM_EVM_ITEM_H

// Items of an event: making an event from a list, setting and replacing items (a replaced item
// moves to the end of the body), reading, listing and merging them.
#include "evm/libevm/evm_types.h"
#include "evm/libevm/evm_wire.h"

struct EvmTypeTabEntry_s {
  EvmBoolean_t in_header;
  EvmBoolean_t typeflag;
  EvmBoolean_t type16;
  EvmBoolean_t type32;
  EvmBoolean_t type64;
  EvmBoolean_t variable_length;
  EvmBoolean_t is_variable;
};
// Item ids 1 to 23, indexed by id - 1.
extern const EvmTypeTabEntry_s EvmTypeTab[EvmITEM_MAX];

EvmStatus_t EvmEventCreateVa(EvmEvent_t* event, ...);
EvmStatus_t EvmEventCreateFromList(EvmEvent_t* event, EvmItemEntryList_t list, int count);
EvmStatus_t EvmItemSetVa(EvmEvent_t event, ...);
EvmStatus_t EvmItemSetu(EvmEvent_t event, EvmItemId_t id, EvmItemValue_t value);
EvmStatus_t EvmItemEntryListSet(EvmEvent_t event, EvmItemEntryList_t list, int count);
// String items come back as copies, to be given to EvmItemRelease.
EvmStatus_t EvmItemGet(EvmEvent_t event, EvmItemId_t id, EvmItemValue_t* value);
EvmStatus_t EvmItemRelease(EvmItemId_t id, EvmItemValue_t value);
EvmStatus_t EvmItemListGet(EvmEvent_t event, EvmUint32_t* count, EvmItemList_t* list);
EvmStatus_t EvmItemListFree(EvmItemList_t list);

// What one package entry adds to the body and what record it replaces; refuses bad values.
// A null head sizes for an event that does not exist yet. Writes the stored length of a
// variable's value into entry->var.length.
struct EvmItemTableEntry_s;
EvmStatus_t _evmuiGetAddSize(const EvmEventHead_t* head, EvmItemTableEntry_s* entry, EvmSize_t* addSize,
                             EvmSize_t* oldSize);
EvmStatus_t _evmuiVaTotalAddFromItemPkg(const EvmEventHead_t* head, EvmSize_t* addTotal, EvmSize_t* oldTotal,
                                        EvmItemPkg_t* package);
// Writes one sized entry: head items to their field, the rest appended at control.size.
EvmStatus_t _evmuiInsertValue(EvmEventHead_t* head, const EvmItemTableEntry_s* entry, EvmSize_t addSize);
EvmStatus_t _evmuiItemSetFromItemPkg(EvmEventHead_t* head, EvmItemPkg_t* package);
EvmStatus_t _evmEventCreateFromItemPkg(EvmEvent_t* event, EvmItemPkg_t* package);
// Reads an item in place: a string item yields the address of its text in the block.
EvmStatus_t _evmuiItemGet(EvmEvent_t event, EvmItemId_t id, EvmItemValue_t* value);
// Adds to `event` what `other` has and `event` lacks.
EvmStatus_t _evmMerge(EvmEvent_t event, EvmEvent_t other);

#endif
