#ifndef TOOLS_EVM_SHOW_OUTPUT_H
#define TOOLS_EVM_SHOW_OUTPUT_H

// What vyn_evmshow and vyn_evmwatch share: an event as the line (or dump, or JSON object) they
// print, the name filter, and their numbered messages (facility EVM of the catalog, with the
// program's own words when no catalog can be read).
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "evm/libevm/evm.h"

namespace evmshow {

// Numbers of the tools' messages in the catalog.
enum Msg : int {
  kMsgCannotRead = 60,    // "Cannot read %s: %s"
  kMsgDamaged = 61,       // "%s: damaged data at offset %lld (%lld bytes) skipped"
  kMsgTorn = 62,          // "%s: incomplete event at offset %lld (%lld bytes) at the end ignored"
  kMsgBadTime = 63,       // "Invalid time \"%s\": use YYYY-mm-ddTHH:MM:SS"
  kMsgBadPattern = 64,    // "Invalid name pattern \"%s\""
  kMsgBadCount = 65,      // "Invalid count \"%s\""
  kMsgMissed = 66,        // "%u events were missed"
  kMsgDaemonGone = 67,    // "The connection to the event daemon was lost"
  kMsgNoDaemon = 68,      // "Cannot connect to the event daemon: %s"
  kMsgReconnected = 69,   // "Connected to the event daemon again"
  kMsgBadFilter = 70,     // "The event daemon refused the name pattern \"%s\""
  kMsgCannotWrite = 71,   // "Cannot write %s: %s"
};

// "EVM-<number>: <text>" and a line end on standard error.
inline void message(int number, const char* deflt, ...) {
  char format[1024];
  if (evmgetmsg("EVM", static_cast<EvmUint32_t>(number), format, sizeof format) != 0)
    std::snprintf(format, sizeof format, "%s", deflt);
  char text[4096];
  va_list ap;
  va_start(ap, deflt);
  std::vsnprintf(text, sizeof text, format, ap);
  va_end(ap);
  std::fprintf(stderr, "EVM-%04d: %s\n", number, text);
  std::fflush(stderr);
}

enum class Mode { Message, Template, Dump, Json };

struct Output {
  Mode mode = Mode::Message;
  std::string templ;
};

inline void jsonString(std::string* out, const char* s, std::size_t n) {
  static const char hex[] = "0123456789abcdef";
  out->push_back('"');
  const auto* p = reinterpret_cast<const unsigned char*>(s);
  for (std::size_t i = 0; i < n;) {
    unsigned char c = p[i];
    if (c == '"' || c == '\\') {
      out->push_back('\\');
      out->push_back(static_cast<char>(c));
      ++i;
    } else if (c < 0x20 || c == 0x7f) {
      switch (c) {
        case '\n': out->append("\\n"); break;
        case '\t': out->append("\\t"); break;
        case '\r': out->append("\\r"); break;
        default:
          out->append("\\u00");
          out->push_back(hex[c >> 4]);
          out->push_back(hex[c & 15]);
      }
      ++i;
    } else if (c < 0x80) {
      out->push_back(static_cast<char>(c));
      ++i;
    } else {
      // A well-formed UTF-8 sequence passes as it is; any other byte stands as U+FFFD, since a
      // JSON text must be Unicode.
      std::size_t len = c >= 0xc2 && c <= 0xdf ? 2 : c >= 0xe0 && c <= 0xef ? 3 : c >= 0xf0 && c <= 0xf4 ? 4 : 0;
      bool ok = len != 0 && i + len <= n;
      for (std::size_t k = 1; ok && k < len; ++k) ok = (p[i + k] & 0xc0) == 0x80;
      if (ok && len == 3) {
        unsigned cp = ((c & 0x0fu) << 12) | ((p[i + 1] & 0x3fu) << 6);
        ok = cp >= 0x800 && !(cp >= 0xd800 && cp <= 0xdfff);
      }
      if (ok && len == 4) {
        unsigned cp = ((c & 0x07u) << 18) | ((p[i + 1] & 0x3fu) << 12);
        ok = cp >= 0x10000 && cp <= 0x10ffff;
      }
      if (ok) {
        out->append(s + i, len);
        i += len;
      } else {
        out->append("\\ufffd");
        ++i;
      }
    }
  }
  out->push_back('"');
}
inline void jsonString(std::string* out, const char* s) { jsonString(out, s, std::strlen(s)); }

inline void base64(std::string* out, const unsigned char* p, std::size_t n) {
  static const char digits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  out->push_back('"');
  for (std::size_t i = 0; i < n; i += 3) {
    unsigned v = p[i] << 16 | (i + 1 < n ? p[i + 1] << 8 : 0) | (i + 2 < n ? p[i + 2] : 0);
    out->push_back(digits[v >> 18 & 63]);
    out->push_back(digits[v >> 12 & 63]);
    out->push_back(i + 1 < n ? digits[v >> 6 & 63] : '=');
    out->push_back(i + 2 < n ? digits[v & 63] : '=');
  }
  out->push_back('"');
}

// Seconds since the epoch as ISO 8601 in UTC.
inline std::string isoTime(EvmTimestamp_t t) {
  std::time_t s = static_cast<std::time_t>(t);
  struct tm utc;
  char text[64] = "";
  if (gmtime_r(&s, &utc) != nullptr) std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
  return text;
}

inline void jsonNumber(std::string* out, const char* fmt, ...) {
  char text[64];
  va_list ap;
  va_start(ap, fmt);
  std::vsnprintf(text, sizeof text, fmt, ap);
  va_end(ap);
  out->append(text);
}

inline void jsonDouble(std::string* out, double d, int digits) {
  char text[64];
  std::snprintf(text, sizeof text, "%.*g", digits, d);
  // JSON has no NaN or infinity: those stand as strings.
  if (std::strpbrk(text, "ni") != nullptr) {
    jsonString(out, text);
    return;
  }
  out->append(text);
}

inline void jsonVariable(std::string* out, EvmEvent_t ev, const char* name) {
  EvmVarStruct_t var;
  if (EvmVarGet(ev, name, &var) != EvmERROR_NONE) return;
  jsonString(out, name);
  out->append(":{\"type\":");
  jsonString(out, _FormatVarType(var.type));
  if (var.type == EvmTYPE_STRING && var.msgId > 0) jsonNumber(out, ",\"msg_id\":%d", static_cast<int>(var.msgId));
  out->append(",\"value\":");
  const EvmVarValue_t& v = var.value;
  switch (var.type) {
    case EvmTYPE_BOOLEAN: out->append(v.BOOLEAN != EvmFALSE ? "true" : "false"); break;
    case EvmTYPE_CHAR: jsonString(out, &v.EVMCHAR, 1); break;
    case EvmTYPE_INT16: jsonNumber(out, "%d", static_cast<int>(v.INT16)); break;
    case EvmTYPE_INT32: jsonNumber(out, "%d", static_cast<int>(v.INT32)); break;
    case EvmTYPE_INT64: jsonNumber(out, "%lld", static_cast<long long>(v.INT64)); break;
    case EvmTYPE_UINT8: jsonNumber(out, "%u", static_cast<unsigned>(v.UINT8)); break;
    case EvmTYPE_UINT16: jsonNumber(out, "%u", static_cast<unsigned>(v.UINT16)); break;
    case EvmTYPE_UINT32: jsonNumber(out, "%u", static_cast<unsigned>(v.UINT32)); break;
    case EvmTYPE_UINT64: jsonNumber(out, "%llu", static_cast<unsigned long long>(v.UINT64)); break;
    case EvmTYPE_FLOAT: jsonDouble(out, static_cast<double>(v.FLOAT), 9); break;
    case EvmTYPE_DOUBLE: jsonDouble(out, v.DOUBLE, 17); break;
    case EvmTYPE_STRING: {
      // The stored length holds the terminator; bytes behind an early NUL are not the text.
      const char* s = v.STRING;
      jsonString(out, s, strnlen(s, var.length));
      break;
    }
    case EvmTYPE_OPAQUE: base64(out, static_cast<const unsigned char*>(v.OPAQUE), var.length); break;
    default: out->append("null"); break;
  }
  out->push_back('}');
  if (var.type >= EvmTYPE_FIRST && var.type <= EvmTYPE_MAX)
    EvmVarRelease(&var);
  else
    std::free(const_cast<char*>(var.name_p));
}

// One event as a JSON object on one line: the items people filter on and every variable.
inline void json(std::string* out, EvmEvent_t ev, const std::string& message) {
  EvmItemValue_t v;
  out->push_back('{');
  auto key = [&](const char* k) {
    if (out->back() != '{') out->push_back(',');
    jsonString(out, k);
    out->push_back(':');
  };
  auto stringItem = [&](EvmItemId_t id, const char* k) {
    if (EvmItemGet(ev, id, &v) != EvmERROR_NONE) return;
    key(k);
    jsonString(out, v.NAME);
    EvmItemRelease(id, v);
  };
  stringItem(EvmITEM_NAME, "name");
  if (EvmItemGet(ev, EvmITEM_TIMESTAMP, &v) == EvmERROR_NONE) {
    key("timestamp");
    jsonString(out, isoTime(v.TIMESTAMP).c_str());
  }
  if (EvmItemGet(ev, EvmITEM_LAST_TIMESTAMP, &v) == EvmERROR_NONE) {
    key("last_timestamp");
    jsonString(out, isoTime(v.LAST_TIMESTAMP).c_str());
  }
  stringItem(EvmITEM_HOST_NAME, "host");
  if (EvmItemGet(ev, EvmITEM_HOST_IP, &v) == EvmERROR_NONE) {
    char ip[64];
    EvmItemFormatValue(EvmITEM_HOST_IP, v, ip, sizeof ip, 0);
    key("host_ip");
    jsonString(out, ip);
  }
  stringItem(EvmITEM_USER_NAME, "user");
  if (EvmItemGet(ev, EvmITEM_PID, &v) == EvmERROR_NONE) {
    key("pid");
    jsonNumber(out, "%lld", static_cast<long long>(v.PID));
  }
  if (EvmItemGet(ev, EvmITEM_PPID, &v) == EvmERROR_NONE) {
    key("ppid");
    jsonNumber(out, "%lld", static_cast<long long>(v.PPID));
  }
  if (EvmItemGet(ev, EvmITEM_PRIORITY, &v) == EvmERROR_NONE) {
    key("priority");
    jsonNumber(out, "%u", static_cast<unsigned>(v.PRIORITY));
  }
  if (EvmItemGet(ev, EvmITEM_CLUSTER_EVENT, &v) == EvmERROR_NONE) {
    key("cluster_event");
    out->append(v.CLUSTER_EVENT != EvmFALSE ? "true" : "false");
  }
  if (EvmItemGet(ev, EvmITEM_KERNEL_ONLY, &v) == EvmERROR_NONE) {
    key("kernel_only");
    out->append(v.KERNEL_ONLY != EvmFALSE ? "true" : "false");
  }
  stringItem(EvmITEM_CLUSTER_NAME, "cluster");
  if (EvmItemGet(ev, EvmITEM_REPEAT_COUNT, &v) == EvmERROR_NONE) {
    key("repeat_count");
    jsonNumber(out, "%u", v.REPEAT_COUNT);
  }
  key("message");
  jsonString(out, message.c_str());
  key("variables");
  out->push_back('{');
  EvmVarList_t vars = nullptr;
  if (EvmVarListGet(ev, nullptr, &vars) == EvmERROR_NONE) {
    for (char** p = vars; *p != nullptr; ++p) {
      if (out->back() != '{') out->push_back(',');
      jsonVariable(out, ev, *p);
    }
    EvmVarListFree(vars);
  }
  out->append("}}");
}

// Renders events as one of the outputs; keeps its buffers from one event to the next.
class Renderer {
 public:
  explicit Renderer(Output output) : output_(std::move(output)) {
    // A template is read once, not once an event.
    EvmTemplate_t t = nullptr;
    if (output_.mode == Mode::Template && _evmTemplateCompile(output_.templ.c_str(), &t) == EvmERROR_NONE)
      templ_.reset(t);
  }

  // The event's text with its line end, appended to `out`.
  void render(EvmEvent_t ev, std::string* out) {
    if (output_.mode == Mode::Dump) {
      char* text = nullptr;
      std::size_t len = 0;
      FILE* f = open_memstream(&text, &len);
      if (f == nullptr) return;
      EvmEventDump(ev, f);
      std::fclose(f);
      out->append(text, len);
      std::free(text);
      return;
    }
    // Room for every byte of the block twice over: a message or template cuts nothing short.
    std::size_t want = 2 * static_cast<std::size_t>(ev->head_p->control.size) + 4096;
    if (buffer_.size() < want) buffer_.resize(want);
    EvmSize_t size = static_cast<EvmSize_t>(buffer_.size());
    buffer_[0] = '\0';
    if (output_.mode == Mode::Template && templ_)
      _evmTemplateFormat(buffer_.data(), size, templ_.get(), ev);
    else if (output_.mode == Mode::Template)
      EvmEventFormatFromTemplate(buffer_.data(), size, output_.templ.c_str(), ev);
    else
      EvmEventFormat(buffer_.data(), size, ev);
    if (output_.mode == Mode::Json) {
      json(out, ev, buffer_.data());
    } else {
      out->append(buffer_.data());
    }
    out->push_back('\n');
  }

 private:
  struct FreeTemplate {
    void operator()(EvmTemplate_t t) const { _evmTemplateFree(t); }
  };
  Output output_;
  std::unique_ptr<EvmTemplate_s, FreeTemplate> templ_;
  std::vector<char> buffer_;
};

}  // namespace evmshow

#endif
