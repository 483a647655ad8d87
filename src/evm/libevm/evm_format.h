#ifndef EVM_LIBEVM_EVM_FORMAT_H
#define EVM_LIBEVM_EVM_FORMAT_H

// Events as text for people: the event's own message with its placeholders filled in, a line
// from a caller's template, the default form for an event without a message, a dump of every
// item and variable, and single items and variables. Output goes into the caller's buffer and is
// cut at its end without an error; a buffer of one byte holds the empty text.
//
// A message (the item EvmITEM_FORMAT) and a template may hold:
//   $name, ${name}     the variable `name`
//   @name, @{name}     the item of that name (as in ItemInfo, in either case)
//   @@                 template only: the event's whole message
//   %digits            template only, behind a name: the least width of the field (four digits count)
//   \c                 the character c; in a template \t is a tab and \n a line end
// A placeholder for something the event lacks stands as it is ($name, @name); in a template an
// absent item is "-".
#include <atomic>
#include <cstdio>
#include <string>

#include "evm/libevm/evm_types.h"

struct ItemInfo_s {
  EvmItemId_t itemid;
  const char* name;
  const char* description;
  EvmBoolean_t format_ok;  // whether a message or template may show it
};
// Item ids 1 to 23, indexed by id - 1.
extern const ItemInfo_s ItemInfo[EvmITEM_MAX];

// The words the formatter prints, from the catalog at their first use and kept after that; `def`
// stands in when the catalog lacks a text. The row with msgid 0 ends the table.
struct DefStrings_s {
  int msgid;
  std::atomic<const char*> str;
  const char* def;
};
extern DefStrings_s DefStrings[];

// Bit of EvmEventFormatOpt's options: leave the "[N times] " of a repeated event out.
constexpr int EVM_FORMAT_NO_REPEAT_COUNT = 1;

EvmStatus_t EvmEventFormat(char* buffer, EvmSize_t size, EvmEvent_t event);
EvmStatus_t EvmEventFormatOpt(char* buffer, EvmSize_t size, EvmEvent_t event, int options);
EvmStatus_t EvmEventFormatAsDefault(char* buffer, EvmSize_t size, EvmEvent_t event);
EvmStatus_t EvmEventFormatFromTemplate(char* buffer, EvmSize_t size, const char* templ, EvmEvent_t event);
EvmStatus_t EvmEventDump(EvmEvent_t event, FILE* stream);
// One item's value as text, padded with blanks to `width`; the length of the text in `buffer`.
int EvmItemFormatValue(EvmItemId_t id, EvmItemValue_t value, char* buffer, EvmSize_t size, int width);
// One variable as text. A variable the event lacks gives "$name" and EvmERROR_NOT_PRESENT; with
// `translate` a string's unprintable characters are shown as blanks and '#'.
EvmStatus_t EvmVarFormat(EvmEvent_t event, EvmVarName_t name, char* buffer, EvmSize_t size, EvmBoolean_t translate);
const char* EvmItemDescription(EvmItemId_t id);
// *name is the table's own text, not a copy.
EvmStatus_t EvmItemNameFromId(EvmItemId_t id, EvmString_t* name);
EvmStatus_t EvmItemIdFromName(const char* name, EvmItemId_t* id);

// ---- Inner ----

// A template read once, for a caller that formats many events by it: _evmTemplateFormat gives
// the same text as EvmEventFormatFromTemplate with that template, without reading it again.
typedef struct EvmTemplate_s* EvmTemplate_t;
EvmStatus_t _evmTemplateCompile(const char* templ, EvmTemplate_t* compiled);
EvmStatus_t _evmTemplateFormat(char* buffer, EvmSize_t size, EvmTemplate_t compiled, EvmEvent_t event);
void _evmTemplateFree(EvmTemplate_t compiled);

// The text of a DefStrings row; "" for no such row.
const char* _GetString(int msgid);
// Printing characters stand; other space-class characters become a blank, anything else '#'.
char _MakeCharPrintable(char c);
// The name of a variable type, "UNKNOWN" for a bad one.
const char* _FormatVarType(EvmVarType_t type);
// Wraps each line of `text` to `lineLength` columns, continuation lines behind `indent` blanks,
// with unprintable characters replaced and blanks trimmed; at most outSize bytes with the
// terminator. The std::string form has no limit.
void _WrapText(const char* text, char* out, EvmSize_t outSize, int lineLength, int indent);
void _evmWrapText(const char* text, std::string* out, int lineLength, int indent);

#endif
