#include "platform/tfm/tfm.h"

#include <strings.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

struct tfmvalue {
  int type;
  double f;
  long long i;
  std::string text;
};

struct tfmdsc {
  std::vector<tfmvalue> values;
};

int sfmvprintf(char* buf, std::size_t size, const char* fmt, va_list ap) {
  if (buf == nullptr || size == 0 || fmt == nullptr) return -1;
  int n = std::vsnprintf(buf, size, fmt, ap);
  if (n < 0) {
    buf[0] = '\0';
    return -1;
  }
  return static_cast<std::size_t>(n) >= size ? static_cast<int>(size - 1) : n;
}

int sfmprintf(char* buf, std::size_t size, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  int n = sfmvprintf(buf, size, fmt, ap);
  va_end(ap);
  return n;
}

int sfmclo(const char* a, const char* b) { return strcasecmp(a != nullptr ? a : "", b != nullptr ? b : ""); }

tfmdsc* tfmdl() { return new tfmdsc; }

tfmdsc* tfmdi(tfmdsc* list, int type, ...) {
  if (list == nullptr) return nullptr;
  va_list ap;
  va_start(ap, type);
  tfmvalue v{type, 0.0, 0, std::string()};
  switch (type) {
    case TFM_FLOAT: v.f = va_arg(ap, double); break;
    case TFM_UB4: v.i = va_arg(ap, unsigned); break;
    case TFM_SB4: v.i = va_arg(ap, int); break;
    case TFM_TEXT: {
      const char* s = va_arg(ap, const char*);
      v.text = s != nullptr ? s : "(null)";
      break;
    }
    default: break;
  }
  va_end(ap);
  list->values.push_back(std::move(v));
  return list;
}

int tfmdcnt(const tfmdsc* list) { return list != nullptr ? static_cast<int>(list->values.size()) : 0; }

int tfmpd(char* buf, std::size_t size, const char* fmt, const tfmdsc* list) {
  if (buf == nullptr || size == 0 || fmt == nullptr) return -1;
  std::string out;
  std::size_t next = 0;
  int rc = 0;
  for (const char* p = fmt; *p != '\0'; ++p) {
    if (*p != '%') {
      out += *p;
      continue;
    }
    if (p[1] == '%') {
      out += '%';
      ++p;
      continue;
    }
    // One directive: an optional "n$" position, flags, width, precision, length, conversion.
    const char* start = p++;
    std::size_t index = next;
    const char* digits = p;
    while (*p >= '0' && *p <= '9') ++p;
    if (*p == '$' && p > digits) {
      index = static_cast<std::size_t>(std::atoi(digits)) - 1;
      ++p;
    } else {
      p = digits;
      ++next;
    }
    std::string directive = "%";
    while (*p != '\0' && std::strchr("-+ #0123456789.", *p) != nullptr) directive += *p++;
    while (*p != '\0' && std::strchr("hlLqjzt", *p) != nullptr) ++p;
    if (*p == '\0') break;
    char conv = *p;
    const tfmvalue* v = (list != nullptr && index < list->values.size()) ? &list->values[index] : nullptr;
    char piece[2048];
    piece[0] = '\0';
    if (v == nullptr) {
      rc = -1;
      out.append(start, p + 1);
      continue;
    }
    if (std::strchr("s", conv) != nullptr && v->type == TFM_TEXT) {
      std::snprintf(piece, sizeof piece, (directive + "s").c_str(), v->text.c_str());
    } else if (std::strchr("di", conv) != nullptr && v->type != TFM_TEXT) {
      std::snprintf(piece, sizeof piece, (directive + "lld").c_str(), v->type == TFM_FLOAT ? static_cast<long long>(v->f) : v->i);
    } else if (std::strchr("uxXo", conv) != nullptr && v->type != TFM_TEXT) {
      std::snprintf(piece, sizeof piece, (directive + "ll" + conv).c_str(), static_cast<unsigned long long>(v->i));
    } else if (std::strchr("feEgG", conv) != nullptr && v->type == TFM_FLOAT) {
      std::snprintf(piece, sizeof piece, (directive + conv).c_str(), v->f);
    } else {
      rc = -1;
      out.append(start, p + 1);
      continue;
    }
    out += piece;
  }
  std::size_t len = out.size() < size ? out.size() : size - 1;
  std::memcpy(buf, out.data(), len);
  buf[len] = '\0';
  return rc < 0 ? rc : static_cast<int>(len);
}

void tfmdrm(tfmdsc* list) { delete list; }
