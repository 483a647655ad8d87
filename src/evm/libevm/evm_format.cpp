// Events as text.
#include "evm/libevm/evm_format.h"

#include <array>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>
#include <string>
#include <vector>

#include "evm/libevm/evm_check.h"
#include "evm/libevm/evm_item.h"
#include "evm/libevm/evm_misc.h"
#include "evm/libevm/evm_msg.h"
#include "evm/libevm/evm_var.h"
#include "platform/tfm/tfm.h"

const ItemInfo_s ItemInfo[EvmITEM_MAX] = {
    {EvmITEM_NAME, "name", "Event Name", EvmTRUE},
    {EvmITEM_UNUSED_1, "unused_1", "Unused 1", EvmFALSE},
    {EvmITEM_KERNEL_ONLY, "kernel_only", "Kernel Only", EvmTRUE},
    {EvmITEM_CLUSTER_EVENT, "cluster_event", "Cluster Event", EvmTRUE},
    {EvmITEM_PRIORITY, "priority", "Priority", EvmTRUE},
    {EvmITEM_PID, "pid", "PID", EvmTRUE},
    {EvmITEM_PPID, "ppid", "PPID", EvmTRUE},
    {EvmITEM_EVENT_ID, "event_id", "Event Id", EvmTRUE},
    {EvmITEM_MEMBER_ID, "member_id", "Member Id", EvmTRUE},
    {EvmITEM_TIMESTAMP, "timestamp", "Timestamp", EvmTRUE},
    {EvmITEM_HOST_IP, "host_ip", "Host IP address", EvmTRUE},
    {EvmITEM_REPEAT_COUNT, "repeat_count", "Repeat count", EvmTRUE},
    {EvmITEM_LAST_TIMESTAMP, "last_timestamp", "Last Timestamp", EvmTRUE},
    {EvmITEM_I18N_MSG_ID, "i18n_msg_id", "I18N Msg Id", EvmTRUE},
    {EvmITEM_I18N_SET_ID, "i18n_set_id", "I18N Set Id", EvmTRUE},
    {EvmITEM_I18N_CATALOG, "i18n_catalog", "I18N Catalog", EvmTRUE},
    {EvmITEM_CLUSTER_IP, "cluster_ip", "Cluster IP address", EvmTRUE},
    {EvmITEM_HOST_NAME, "host_name", "Host Name", EvmTRUE},
    {EvmITEM_CLUSTER_NAME, "cluster_name", "Cluster Name", EvmTRUE},
    {EvmITEM_USER_NAME, "user_name", "User Name", EvmTRUE},
    {EvmITEM_FORMAT, "format", "Format", EvmTRUE},
    {EvmITEM_REF, "ref", "Reference", EvmTRUE},
    {EvmITEM_VAR, "var", "Variable", EvmFALSE},
};

DefStrings_s DefStrings[] = {
    {1, {nullptr}, "True"},
    {2, {nullptr}, "False"},
    {3, {nullptr}, "(no name)"},
    {4, {nullptr}, "Unformatted event"},
    {5, {nullptr}, "Unknown item id"},
    {6, {nullptr}, "Unknown variable type"},
    {7, {nullptr}, "Msg-id"},
    {8, {nullptr}, "Failed to get item list"},
    {9, {nullptr}, "Failed to get item"},
    {10, {nullptr}, "Failed to get variable list"},
    {11, {nullptr}, "bytes"},
    {12, {nullptr}, "OPAQUE VALUE"},
    {13, {nullptr}, "None"},
    {14, {nullptr}, "times"},
    {0, {nullptr}, nullptr},
};

namespace {

enum : int {
  kTrue = 1, kFalse = 2, kNoName = 3, kUnformatted = 4, kUnknownItem = 5, kUnknownType = 6, kMsgId = 7,
  kNoItemList = 8, kNoItem = 9, kNoVarList = 10, kBytes = 11, kOpaque = 12, kNone = 13, kTimes = 14,
};
constexpr int kStringSet = 19;          // catalog number 1800 + msgid
constexpr std::size_t kFieldText = 1024;  // one placeholder's text in a message or template
constexpr int kDumpColumns = 79;

// Every byte of output goes through here: a full buffer stays terminated at its last byte, and
// the position then sticks at `size`.
EvmSize_t _PutChar(char* buffer, EvmSize_t size, EvmSize_t position, char c) {
  if (position + 1 < size) {
    buffer[position] = c;
    buffer[position + 1] = '\0';
    return position + 1;
  }
  buffer[size - 1] = '\0';
  return size;
}

// Bulk copy of what fits of `n` bytes; the same result as a _PutChar per byte.
EvmSize_t putBytes(char* buffer, EvmSize_t size, EvmSize_t position, const char* text, std::size_t n) {
  if (position + 1 < size) {
    std::size_t room = size - 1 - position;
    if (n <= room) {
      std::memcpy(buffer + position, text, n + 1);
      return position + static_cast<EvmSize_t>(n);
    }
    std::memcpy(buffer + position, text, room);
  }
  buffer[size - 1] = '\0';
  return size;
}

EvmSize_t _PutString(char* buffer, EvmSize_t size, EvmSize_t position, const char* text) {
  return putBytes(buffer, size, position, text, std::strlen(text));
}

EvmSize_t _PutStringPadded(char* buffer, EvmSize_t size, EvmSize_t position, const char* text, int width) {
  std::size_t n = std::strlen(text);
  position = putBytes(buffer, size, position, text, n);
  for (std::size_t shown = n; static_cast<long>(shown) < width && position < size; ++shown)
    position = _PutChar(buffer, size, position, ' ');
  return position;
}

bool badEvent(EvmEvent_t event) {
  return _evmuiTestEventMagic(event) != EvmERROR_NONE || event->head_p == nullptr;
}

bool nameChar(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}
bool digit(char c) { return c >= '0' && c <= '9'; }

// A new copy of the event's message, or null.
char* _GetEventFormat(EvmEvent_t event) {
  EvmItemValue_t v;
  if (EvmItemGet(event, EvmITEM_FORMAT, &v) != EvmERROR_NONE) return nullptr;
  return v.FORMAT;
}

const ItemInfo_s* itemByName(const char* name) {
  // Only a row of the same length can be equal without regard to case: the comparison runs on
  // one or two rows instead of all of them.
  static const auto lengths = [] {
    std::array<std::size_t, EvmITEM_MAX> l{};
    for (std::size_t i = 0; i < l.size(); ++i) l[i] = std::strlen(ItemInfo[i].name);
    return l;
  }();
  std::size_t n = std::strlen(name);
  for (std::size_t i = 0; i < lengths.size(); ++i)
    if (lengths[i] == n && sfmclo(ItemInfo[i].name, name) == 0) return &ItemInfo[i];
  return nullptr;
}

// "@name" as it stood, for an item that cannot or need not be shown.
EvmSize_t putItemPlaceholder(char* buffer, EvmSize_t size, EvmSize_t position, const char* name, int width) {
  position = _PutChar(buffer, size, position, '@');
  return _PutStringPadded(buffer, size, position, name, width > 0 ? width - 1 : 0);
}

// The item `info` (itemByName of `name`) as a message or template shows it.
EvmSize_t formatItem(char* buffer, EvmSize_t size, EvmSize_t position, EvmEvent_t event, const ItemInfo_s* info,
                     const char* name, const char* absent, int width) {
  if (info == nullptr || info->format_ok == EvmFALSE) return putItemPlaceholder(buffer, size, position, name, width);
  // Read in place: the text is copied into the output at once, so the item's own copy would
  // only cost an allocation.
  EvmItemValue_t v;
  if (_evmuiItemGet(event, info->itemid, &v) == EvmERROR_NONE) {
    char text[kFieldText];
    EvmItemFormatValue(info->itemid, v, text, sizeof text, width);
    return _PutString(buffer, size, position, text);
  }
  if (absent != nullptr) return _PutStringPadded(buffer, size, position, absent, width);
  return putItemPlaceholder(buffer, size, position, name, width);
}

EvmSize_t _FormatDataItem(char* buffer, EvmSize_t size, EvmSize_t position, EvmEvent_t event, const char* name,
                         const char* absent, int width) {
  return formatItem(buffer, size, position, event, itemByName(name), name, absent, width);
}

EvmSize_t _InsertRepeatCountString(char* buffer, EvmSize_t size, EvmEvent_t event) {
  EvmItemValue_t v;
  if (EvmItemGet(event, EvmITEM_REPEAT_COUNT, &v) != EvmERROR_NONE || v.REPEAT_COUNT <= 1) return 0;
  char text[64];
  std::snprintf(text, sizeof text, "[%d %s] ", static_cast<int>(v.REPEAT_COUNT), _GetString(kTimes));
  return _PutString(buffer, size, 0, text);
}

// Where a placeholder's name starts and ends, and what follows it.
struct Placeholder {
  std::size_t nameBegin = 0, nameEnd = 0;  // the name is [nameBegin, nameEnd)
  std::size_t next = 0;                    // first byte behind the placeholder
  int width = 0;
};

// Reads "%digits" at `at` if a digit follows the '%'; of the digits the first four count.
bool readWidth(const char* text, std::size_t* at, int* width) {
  if (text[*at] != '%' || !digit(text[*at + 1])) return false;
  std::size_t p = *at + 1;
  int w = 0, counted = 0;
  for (; digit(text[p]); ++p)
    if (counted++ < 4) w = w * 10 + (text[p] - '0');
  *width = w;
  *at = p;
  return true;
}

// The placeholder behind the '$' or '@' at `at`. `widths` allows the template's "%digits".
Placeholder readPlaceholder(const char* text, std::size_t at, bool widths) {
  Placeholder ph;
  std::size_t p = at + 1;
  bool brace = text[p] == '{';
  if (brace) ++p;
  ph.nameBegin = p;
  while (nameChar(text[p])) ++p;
  ph.nameEnd = p;
  bool haveWidth = false;
  if (brace) {
    if (widths) haveWidth = readWidth(text, &p, &ph.width);
    if (text[p] == '}') ++p;
  }
  if (widths && !haveWidth) readWidth(text, &p, &ph.width);
  ph.next = p;
  return ph;
}

// The string of a variable that EvmVarGet copied out, with its unprintable characters made
// printable in place.
void _VarTranslateString(EvmVarStruct_t* var) {
  if (var->value.STRING == nullptr) return;
  for (char* p = var->value.STRING; *p; ++p) *p = _MakeCharPrintable(*p);
}

// A variable's text as a message or template shows it, into `text` of kFieldText bytes.
void varText(EvmEvent_t event, const char* name, char* text) {
  text[0] = '\0';
  EvmVarFormat(event, name, text, kFieldText, EvmTRUE);
}

// A variable's text of any length, for the dump.
std::string varTextWhole(EvmEvent_t event, const char* name, EvmVarStruct_t* var) {
  std::size_t size = (var->type == EvmTYPE_STRING ? var->length : 0) + 128;
  std::vector<char> text(size, '\0');
  EvmVarFormat(event, name, text.data(), static_cast<EvmSize_t>(size), EvmFALSE);
  return std::string(text.data());
}

void wrapLine(const std::string& line, std::string* out, int lineLength, int indent) {
  std::size_t width = lineLength - indent > 0 ? static_cast<std::size_t>(lineLength - indent) : 1;
  std::size_t begin = 0, end = line.size();
  while (begin < end && line[begin] == ' ') ++begin;
  while (end > begin && line[end - 1] == ' ') --end;
  while (end - begin > width) {
    std::size_t cut = begin + width - 1;
    std::size_t blank = cut + 1;
    for (std::size_t p = cut + 1; p-- > begin;)
      if (line[p] == ' ') {
        blank = p;
        break;
      }
    if (blank <= cut) cut = blank;
    out->append(line, begin, cut + 1 - begin);
    begin = cut + 1;
    if (begin < end) {
      out->push_back('\n');
      out->append(static_cast<std::size_t>(indent > 0 ? indent : 0), ' ');
      while (begin < end && line[begin] == ' ') ++begin;
    }
  }
  out->append(line, begin, end - begin);
}

}  // namespace

const char* _GetString(int msgid) {
  for (DefStrings_s* row = DefStrings; row->msgid != 0; ++row) {
    if (row->msgid != msgid) continue;
    const char* have = row->str.load(std::memory_order_acquire);
    if (have != nullptr) return have;
    char text[1024];
    _EvmMsgGet(kStringSet, msgid, row->def, text, sizeof text);
    // Without a catalog the program's own word is better than the not-found notice.
    const char* source = std::strcmp(text, EVM_MSG_NOT_FOUND) == 0 ? row->def : text;
    char* copy = _evmmiscStrdup(source);
    if (copy == nullptr) return row->def;
    // Two threads may look the text up at once: the first one's copy stays.
    const char* expected = nullptr;
    if (row->str.compare_exchange_strong(expected, copy, std::memory_order_acq_rel)) return copy;
    std::free(copy);
    return expected;
  }
  return "";
}

char _MakeCharPrintable(char c) {
  // The classes of the C locale, spelled out: this runs for every byte of output.
  unsigned char u = static_cast<unsigned char>(c);
  if (u >= 0x20 && u < 0x7f) return c;
  if (u >= '\t' && u <= '\r') return ' ';
  return '#';
}

const char* _FormatVarType(EvmVarType_t type) {
  static const char* const names[] = {"NONE",   "BOOLEAN", "CHAR",   "INT16", "INT32",  "INT64",  "UINT8",
                                      "UINT16", "UINT32",  "UINT64", "FLOAT", "DOUBLE", "STRING", "OPAQUE"};
  if (type < EvmTYPE_NONE || type > EvmTYPE_MAX) return "UNKNOWN";
  return names[type];
}

void _evmWrapText(const char* text, std::string* out, int lineLength, int indent) {
  std::string line;
  bool first = true;
  for (const char* p = text;; ++p) {
    if (*p != '\n' && *p != '\0') {
      line.push_back(_MakeCharPrintable(*p));
      continue;
    }
    // A line that is empty once its blanks are gone vanishes.
    if (line.find_first_not_of(' ') != std::string::npos) {
      if (!first) {
        out->push_back('\n');
        out->append(static_cast<std::size_t>(indent > 0 ? indent : 0), ' ');
      }
      wrapLine(line, out, lineLength, indent);
      first = false;
    }
    line.clear();
    if (*p == '\0') break;
  }
}

void _WrapText(const char* text, char* out, EvmSize_t outSize, int lineLength, int indent) {
  if (out == nullptr || outSize == 0) return;
  std::string whole;
  if (text != nullptr) _evmWrapText(text, &whole, lineLength, indent);
  out[0] = '\0';
  _PutString(out, outSize, 0, whole.c_str());
}

int EvmItemFormatValue(EvmItemId_t id, EvmItemValue_t value, char* buffer, EvmSize_t size, int width) {
  if (buffer == nullptr || size == 0) return 0;
  char text[128];
  const char* shown = text;
  switch (id) {
    case EvmITEM_NAME: case EvmITEM_I18N_CATALOG: case EvmITEM_HOST_NAME: case EvmITEM_CLUSTER_NAME:
    case EvmITEM_USER_NAME: case EvmITEM_FORMAT: case EvmITEM_REF:
      shown = value.NAME != nullptr ? value.NAME : "";
      break;
    case EvmITEM_KERNEL_ONLY: case EvmITEM_CLUSTER_EVENT:
      shown = _GetString(value.KERNEL_ONLY == EvmFALSE ? kFalse : kTrue);
      break;
    case EvmITEM_PRIORITY: std::snprintf(text, sizeof text, "%d", static_cast<int>(value.PRIORITY)); break;
    case EvmITEM_EVENT_ID: std::snprintf(text, sizeof text, "%d", static_cast<int>(value.EVENT_ID)); break;
    case EvmITEM_MEMBER_ID: std::snprintf(text, sizeof text, "%d", static_cast<int>(value.MEMBER_ID)); break;
    case EvmITEM_I18N_MSG_ID: std::snprintf(text, sizeof text, "%d", static_cast<int>(value.I18N_MSG_ID)); break;
    case EvmITEM_I18N_SET_ID: std::snprintf(text, sizeof text, "%d", static_cast<int>(value.I18N_SET_ID)); break;
    case EvmITEM_PID: case EvmITEM_PPID:
      std::snprintf(text, sizeof text, "%lld", static_cast<long long>(value.PID));
      break;
    case EvmITEM_TIMESTAMP: case EvmITEM_LAST_TIMESTAMP: {
      std::time_t t = static_cast<std::time_t>(value.TIMESTAMP);
      struct tm local;
      text[0] = '\0';
      if (localtime_r(&t, &local) != nullptr) std::strftime(text, 64, "%d-%b-%Y %H:%M:%S", &local);
      break;
    }
    case EvmITEM_HOST_IP: case EvmITEM_CLUSTER_IP: {
      unsigned char b[4];
      std::memcpy(b, &value.HOST_IP, 4);
      std::snprintf(text, sizeof text, "%u.%u.%u.%u", b[0], b[1], b[2], b[3]);
      break;
    }
    case EvmITEM_REPEAT_COUNT: std::snprintf(text, sizeof text, "%u", value.REPEAT_COUNT); break;
    default: std::snprintf(text, sizeof text, "%s %d", _GetString(kUnknownItem), static_cast<int>(id)); break;
  }
  buffer[0] = '\0';
  EvmSize_t end = _PutStringPadded(buffer, size, 0, shown, width);
  return static_cast<int>(end < size ? end : size - 1);
}

EvmStatus_t EvmVarFormat(EvmEvent_t event, EvmVarName_t name, char* buffer, EvmSize_t size, EvmBoolean_t translate) {
  if (buffer == nullptr || size == 0) return EvmERROR_INVALID_ARGUMENT;
  EvmVarStruct_t var;
  EvmStatus_t st = EvmVarGet(event, name, &var);
  if (st == EvmERROR_NOT_PRESENT) {
    buffer[0] = '\0';
    _PutString(buffer, size, _PutChar(buffer, size, 0, '$'), name);
    return st;
  }
  if (st != EvmERROR_NONE) return st;
  char text[128];
  const char* shown = text;
  const EvmVarValue_t& v = var.value;
  switch (var.type) {
    case EvmTYPE_BOOLEAN: shown = _GetString(v.BOOLEAN == EvmFALSE ? kFalse : kTrue); break;
    case EvmTYPE_CHAR: std::snprintf(text, sizeof text, "%c", v.EVMCHAR & 0x7f); break;
    // An INT32 shows its low 16 bits with their sign, as every reader of these texts expects.
    case EvmTYPE_INT16: case EvmTYPE_INT32: std::snprintf(text, sizeof text, "%d", static_cast<int>(v.INT16)); break;
    case EvmTYPE_INT64: std::snprintf(text, sizeof text, "%ld", static_cast<long>(v.INT64)); break;
    case EvmTYPE_UINT8: std::snprintf(text, sizeof text, "%u", static_cast<unsigned>(v.UINT8)); break;
    case EvmTYPE_UINT16: std::snprintf(text, sizeof text, "%u", static_cast<unsigned>(v.UINT16)); break;
    case EvmTYPE_UINT32: std::snprintf(text, sizeof text, "%u", v.UINT32); break;
    case EvmTYPE_UINT64: std::snprintf(text, sizeof text, "%lu", static_cast<unsigned long>(v.UINT64)); break;
    case EvmTYPE_FLOAT: std::snprintf(text, sizeof text, "%.8g", static_cast<double>(v.FLOAT)); break;
    case EvmTYPE_DOUBLE: std::snprintf(text, sizeof text, "%.8g", v.DOUBLE); break;
    case EvmTYPE_STRING:
      if (translate != EvmFALSE) _VarTranslateString(&var);
      shown = v.STRING != nullptr ? v.STRING : "(NULL)";
      break;
    case EvmTYPE_OPAQUE:
      std::snprintf(text, sizeof text, "[%s: %u %s]", _GetString(kOpaque), var.length, _GetString(kBytes));
      break;
    default: {
      std::string s = std::string("[$") + _GetString(kUnknownType) + ": " + name + "]";
      buffer[0] = '\0';
      _PutString(buffer, size, 0, s.c_str());
      // The release refuses a type it does not know; the name is the one copy made.
      std::free(const_cast<char*>(var.name_p));
      return EvmERROR_NONE;
    }
  }
  buffer[0] = '\0';
  _PutString(buffer, size, 0, shown);
  EvmVarRelease(&var);
  return EvmERROR_NONE;
}

EvmStatus_t EvmEventFormat(char* buffer, EvmSize_t size, EvmEvent_t event) {
  return EvmEventFormatOpt(buffer, size, event, 0);
}

EvmStatus_t EvmEventFormatOpt(char* buffer, EvmSize_t size, EvmEvent_t event, int options) {
  if (size == 0) return EvmERROR_INVALID_VALUE;
  if (buffer == nullptr || badEvent(event)) return EvmERROR_INVALID_ARGUMENT;
  buffer[0] = '\0';
  if (size == 1) return EvmERROR_NONE;
  char* format = _GetEventFormat(event);
  if (format == nullptr) {
    EvmEventFormatAsDefault(buffer, size, event);
    return EvmERROR_NONE;
  }
  EvmSize_t pos = (options & EVM_FORMAT_NO_REPEAT_COUNT) ? 0 : _InsertRepeatCountString(buffer, size, event);
  std::size_t len = std::strlen(format);
  char* name = static_cast<char*>(std::malloc(len + 1));
  if (name == nullptr) {
    EvmItemRelease(EvmITEM_FORMAT, {format});
    return EvmERROR_NO_MEMORY;
  }
  char text[kFieldText];
  for (std::size_t i = 0; i < len && pos < size;) {
    char c = format[i];
    if (c == '\\') {
      // A backslash at one of the last two places is dropped; elsewhere it passes the next
      // byte through untouched.
      if (i + 2 >= len) {
        ++i;
      } else {
        pos = _PutChar(buffer, size, pos, format[i + 1]);
        i += 2;
      }
      continue;
    }
    if (c == '$' || c == '@') {
      Placeholder ph = readPlaceholder(format, i, false);
      if (ph.nameEnd == ph.nameBegin) {
        pos = _PutChar(buffer, size, pos, c);
        ++i;
        continue;
      }
      std::memcpy(name, format + ph.nameBegin, ph.nameEnd - ph.nameBegin);
      name[ph.nameEnd - ph.nameBegin] = '\0';
      if (c == '@') {
        pos = _FormatDataItem(buffer, size, pos, event, name, nullptr, 0);
      } else {
        varText(event, name, text);
        pos = _PutString(buffer, size, pos, text);
      }
      i = ph.next;
      continue;
    }
    pos = _PutChar(buffer, size, pos, _MakeCharPrintable(c));
    ++i;
  }
  std::free(name);
  EvmItemRelease(EvmITEM_FORMAT, {format});
  return EvmERROR_NONE;
}

EvmStatus_t EvmEventFormatAsDefault(char* buffer, EvmSize_t size, EvmEvent_t event) {
  if (size == 0) return EvmERROR_INVALID_VALUE;
  if (buffer == nullptr || badEvent(event)) return EvmERROR_INVALID_ARGUMENT;
  buffer[0] = '\0';
  if (size == 1) return EvmERROR_NONE;
  EvmSize_t pos = _InsertRepeatCountString(buffer, size, event);
  pos = _PutString(buffer, size, pos, _GetString(kUnformatted));
  pos = _PutString(buffer, size, pos, " \"");
  EvmItemValue_t v;
  if (EvmItemGet(event, EvmITEM_NAME, &v) == EvmERROR_NONE) {
    pos = _PutString(buffer, size, pos, v.NAME[0] != '\0' ? v.NAME : _GetString(kNoName));
    EvmItemRelease(EvmITEM_NAME, v);
  } else {
    pos = _PutString(buffer, size, pos, _GetString(kNoName));
  }
  pos = _PutString(buffer, size, pos, "\": ");
  EvmVarList_t list = nullptr;
  if (EvmVarListGet(event, nullptr, &list) != EvmERROR_NONE) return EvmERROR_NONE;
  for (char** p = list; *p != nullptr && pos < size; ++p) {
    pos = _PutString(buffer, size, pos, *p);
    pos = _PutChar(buffer, size, pos, '=');
    if (pos < size) {
      EvmVarFormat(event, *p, buffer + pos, size - pos, EvmTRUE);
      pos += static_cast<EvmSize_t>(std::strlen(buffer + pos));
    }
    pos = _PutChar(buffer, size, pos, ' ');
  }
  EvmVarListFree(list);
  return EvmERROR_NONE;
}

namespace {

// One piece of a template: a character to print, the whole message (@@), an item, a variable.
struct TemplatePart {
  enum Kind { Char, Message, Item, Var } kind = Char;
  char c = 0;                        // Char: already made printable
  const ItemInfo_s* info = nullptr;  // Item: the row of the name, if there is one
  const char* name = nullptr;        // Item, Var: the name, terminated
  int width = 0;
};

// Reads `templ` part by part and hands each to `take`, which says whether to go on. The names it
// hands out live in `name` (room for the whole template) until the next part.
template <class Take>
void walkTemplate(const char* templ, std::size_t len, char* name, Take&& take) {
  for (std::size_t i = 0; i < len;) {
    TemplatePart part;
    char c = templ[i];
    if (c == '\\') {
      part.c = i + 1 >= len ? '\\' : templ[i + 1] == 't' ? '\t' : templ[i + 1] == 'n' ? '\n' : templ[i + 1];
      i += i + 1 >= len ? 1 : 2;
    } else if (c == '@' && templ[i + 1] == '@') {
      part.kind = TemplatePart::Message;
      i += 2;
    } else if (c == '$' || c == '@') {
      Placeholder ph = readPlaceholder(templ, i, true);
      if (ph.nameEnd == ph.nameBegin) {
        part.c = c;
        ++i;
      } else {
        std::memcpy(name, templ + ph.nameBegin, ph.nameEnd - ph.nameBegin);
        name[ph.nameEnd - ph.nameBegin] = '\0';
        part.kind = c == '@' ? TemplatePart::Item : TemplatePart::Var;
        part.name = name;
        part.width = ph.width;
        if (c == '@') part.info = itemByName(name);
        i = ph.next;
      }
    } else {
      part.c = _MakeCharPrintable(c);
      ++i;
    }
    if (!take(part)) return;
  }
}

// Prints one part of a template at `pos`.
EvmSize_t formatPart(char* buffer, EvmSize_t size, EvmSize_t pos, EvmEvent_t event, const TemplatePart& part) {
  switch (part.kind) {
    case TemplatePart::Char:
      return _PutChar(buffer, size, pos, part.c);
    case TemplatePart::Message:
      if (pos + 1 < size) {
        EvmEventFormat(buffer + pos, size - pos, event);
        pos += static_cast<EvmSize_t>(std::strlen(buffer + pos));
      }
      return pos;
    case TemplatePart::Item:
      return formatItem(buffer, size, pos, event, part.info, part.name, "-", part.width);
    case TemplatePart::Var: {
      char text[kFieldText];
      varText(event, part.name, text);
      return _PutStringPadded(buffer, size, pos, text, part.width);
    }
  }
  return pos;
}

}  // namespace

// A template read once: its parts, and runs of characters joined into one text.
struct EvmTemplate_s {
  struct Piece {
    TemplatePart part;
    std::string text;  // Char: the run of characters; Item, Var: the name
  };
  std::vector<Piece> pieces;
};

EvmStatus_t _evmTemplateCompile(const char* templ, EvmTemplate_t* compiled) {
  if (templ == nullptr || compiled == nullptr) return EvmERROR_INVALID_ARGUMENT;
  std::size_t len = std::strlen(templ);
  auto* t = new (std::nothrow) EvmTemplate_s;
  if (t == nullptr) return EvmERROR_NO_MEMORY;
  try {
    std::vector<char> name(len + 1);
    walkTemplate(templ, len, name.data(), [t](const TemplatePart& part) {
      if (part.kind == TemplatePart::Char && !t->pieces.empty() && t->pieces.back().part.kind == TemplatePart::Char) {
        t->pieces.back().text.push_back(part.c);
        return true;
      }
      EvmTemplate_s::Piece piece{part, part.kind == TemplatePart::Char ? std::string(1, part.c)
                                       : part.name != nullptr          ? std::string(part.name)
                                                                        : std::string()};
      t->pieces.push_back(std::move(piece));
      return true;
    });
    for (auto& piece : t->pieces) piece.part.name = piece.text.c_str();
  } catch (const std::bad_alloc&) {
    delete t;
    return EvmERROR_NO_MEMORY;
  }
  *compiled = t;
  return EvmERROR_NONE;
}

void _evmTemplateFree(EvmTemplate_t compiled) { delete compiled; }

EvmStatus_t _evmTemplateFormat(char* buffer, EvmSize_t size, EvmTemplate_t compiled, EvmEvent_t event) {
  if (size == 0) return EvmERROR_INVALID_VALUE;
  if (buffer == nullptr || compiled == nullptr || badEvent(event)) return EvmERROR_INVALID_ARGUMENT;
  buffer[0] = '\0';
  if (size == 1) return EvmERROR_NONE;
  EvmSize_t pos = 0;
  for (const auto& piece : compiled->pieces) {
    if (pos >= size) break;
    // A run of characters is what a _PutChar per character would give.
    pos = piece.part.kind == TemplatePart::Char ? putBytes(buffer, size, pos, piece.text.data(), piece.text.size())
                                                : formatPart(buffer, size, pos, event, piece.part);
  }
  return EvmERROR_NONE;
}

EvmStatus_t EvmEventFormatFromTemplate(char* buffer, EvmSize_t size, const char* templ, EvmEvent_t event) {
  if (size == 0) return EvmERROR_INVALID_VALUE;
  if (buffer == nullptr || templ == nullptr || badEvent(event))
    return EvmERROR_INVALID_ARGUMENT;
  buffer[0] = '\0';
  if (size == 1) return EvmERROR_NONE;
  std::size_t len = std::strlen(templ);
  char* name = static_cast<char*>(std::malloc(len + 1));
  if (name == nullptr) return EvmERROR_NO_MEMORY;
  EvmSize_t pos = 0;
  walkTemplate(templ, len, name, [&](const TemplatePart& part) {
    pos = formatPart(buffer, size, pos, event, part);
    return pos < size;
  });
  std::free(name);
  return EvmERROR_NONE;
}

EvmStatus_t EvmEventDump(EvmEvent_t event, FILE* stream) {
  if (stream == nullptr || badEvent(event)) return EvmERROR_INVALID_ARGUMENT;
  char message[kFieldText];
  std::string wrapped;
  std::fprintf(stream, "\nFormatted Message:\n");
  EvmEventFormat(message, sizeof message, event);
  _evmWrapText(message, &wrapped, kDumpColumns, 4);
  std::fprintf(stream, "    %s\n", wrapped.c_str());

  EvmItemList_t items = nullptr;
  EvmStatus_t st = EvmItemListGet(event, nullptr, &items);
  if (st != EvmERROR_NONE) {
    std::fprintf(stream, "EvmEventDump: %s - %d\n", _GetString(kNoItemList), static_cast<int>(st));
    return st;
  }
  std::fprintf(stream, "\nEvent Data Items:\n");
  for (EvmItemList_t p = items; *p != EvmITEM_NONE; ++p) {
    EvmItemValue_t v;
    st = EvmItemGet(event, *p, &v);
    if (st != EvmERROR_NONE) {
      std::fprintf(stream, "EvmEventDump: %s - %d\n", _GetString(kNoItem), static_cast<int>(st));
      EvmItemListFree(items);
      return st;
    }
    bool isString = *p == EvmITEM_NAME || *p == EvmITEM_I18N_CATALOG || (*p >= EvmITEM_HOST_NAME && *p <= EvmITEM_REF);
    std::vector<char> text((isString && v.NAME != nullptr ? std::strlen(v.NAME) : 0) + 128, '\0');
    EvmItemFormatValue(*p, v, text.data(), static_cast<EvmSize_t>(text.size()), 0);
    EvmItemRelease(*p, v);
    wrapped.clear();
    _evmWrapText(text.data(), &wrapped, kDumpColumns, 24);
    std::fprintf(stream, "    %-18s: %s\n", EvmItemDescription(*p), wrapped.c_str());
  }
  EvmItemListFree(items);

  std::fprintf(stream, "\nVariable Items:\n");
  EvmVarList_t vars = nullptr;
  EvmUint32_t count = 0;
  st = EvmVarListGet(event, &count, &vars);
  if (st != EvmERROR_NONE) {
    std::fprintf(stream, "EvmEventDump: %s - %d\n", _GetString(kNoVarList), static_cast<int>(st));
    return st;
  }
  for (char** p = vars; *p != nullptr; ++p) {
    EvmVarStruct_t var;
    if (EvmVarGet(event, *p, &var) != EvmERROR_NONE) continue;
    int column = std::fprintf(stream, "    %s (%s) ", *p, _FormatVarType(var.type));
    if (var.type == EvmTYPE_STRING && var.msgId > 0)
      column += std::fprintf(stream, "[%s %d] ", _GetString(kMsgId), static_cast<int>(var.msgId));
    column += std::fprintf(stream, "= ");
    std::string value = varTextWhole(event, *p, &var);
    bool quoted = var.type == EvmTYPE_STRING;
    EvmVarRelease(&var);
    if (column > 24 && column + static_cast<long>(value.size()) > kDumpColumns) {
      std::fprintf(stream, "\n%12s", "");
      column = 12;
    }
    if (quoted) {
      std::fputc('"', stream);
      ++column;
    }
    wrapped.clear();
    _evmWrapText(value.c_str(), &wrapped, kDumpColumns, column);
    std::fprintf(stream, "%s%s\n", wrapped.c_str(), quoted ? "\"" : "");
  }
  if (count == 0) std::fprintf(stream, "    %s\n", _GetString(kNone));
  EvmVarListFree(vars);
  return EvmERROR_NONE;
}

const char* EvmItemDescription(EvmItemId_t id) {
  if (id < EvmITEM_FIRST || id > EvmITEM_MAX) return _GetString(kUnknownItem);
  return ItemInfo[id - 1].description;
}

EvmStatus_t EvmItemNameFromId(EvmItemId_t id, EvmString_t* name) {
  if (name == nullptr) return EvmERROR_INVALID_ARGUMENT;
  if (id < EvmITEM_FIRST || id > EvmITEM_MAX) {
    *name = nullptr;
    return EvmERROR_INVALID_VALUE;
  }
  *name = const_cast<char*>(ItemInfo[id - 1].name);
  return EvmERROR_NONE;
}

EvmStatus_t EvmItemIdFromName(const char* name, EvmItemId_t* id) {
  if (id == nullptr) return EvmERROR_INVALID_ARGUMENT;
  const ItemInfo_s* info = name != nullptr ? itemByName(name) : nullptr;
  *id = info != nullptr ? info->itemid : EvmITEM_NONE;
  return info != nullptr ? EvmERROR_NONE : EvmERROR_INVALID_VALUE;
}
