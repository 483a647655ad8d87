#include "platform/registry/prvrg_znode.h"

#include <cstring>

namespace znode {

namespace {

void putUint32(std::string* out, std::size_t at, std::uint32_t v) {
  (*out)[at] = static_cast<char>(v >> 24);
  (*out)[at + 1] = static_cast<char>(v >> 16);
  (*out)[at + 2] = static_cast<char>(v >> 8);
  (*out)[at + 3] = static_cast<char>(v);
}

std::uint32_t getUint32(const char* p) {
  const unsigned char* u = reinterpret_cast<const unsigned char*>(p);
  return (std::uint32_t(u[0]) << 24) | (std::uint32_t(u[1]) << 16) | (std::uint32_t(u[2]) << 8) | u[3];
}

void putName(std::string* out, std::size_t at, const char* name) {
  std::size_t n = strnlen(name, kNameSize - 1);
  out->replace(at, n, name, n);
}

void getName(const char* p, char* name) {
  std::size_t n = strnlen(p, kNameSize - 1);
  std::memcpy(name, p, n);
  name[n] = '\0';
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool plain(unsigned char c) { return c > 0x20 && c < 0x7f && c != '/' && c != '%'; }

}  // namespace

std::string encode(const Record& r) {
  std::string out(kHeaderSize, '\0');
  out.replace(kMagicOffset, sizeof kMagic, kMagic, sizeof kMagic);
  out[kVersionOffset] = static_cast<char>(kLayoutVersion);
  out[kTypeOffset] = static_cast<char>(r.dtype);
  putUint32(&out, kUserPermOffset, r.security.user_perm);
  putUint32(&out, kGroupPermOffset, r.security.group_perm);
  putUint32(&out, kOtherPermOffset, r.security.other_perm);
  putName(&out, kUserNameOffset, r.security.user_name);
  putName(&out, kGroupNameOffset, r.security.group_name);
  putUint32(&out, kValueLengthOffset, static_cast<std::uint32_t>(r.value.size()));
  out += r.value;
  return out;
}

std::string withValue(const std::string& data, int dtype, const std::string& value) {
  std::string out = data.substr(0, kHeaderSize);
  out[kTypeOffset] = static_cast<char>(dtype);
  putUint32(&out, kValueLengthOffset, static_cast<std::uint32_t>(value.size()));
  out += value;
  return out;
}

bool decode(const char* data, std::size_t length, Record* r) {
  if (data == nullptr || length < kHeaderSize) return false;
  if (std::memcmp(data + kMagicOffset, kMagic, sizeof kMagic) != 0) return false;
  if (static_cast<std::uint8_t>(data[kVersionOffset]) != kLayoutVersion) return false;
  int dtype = static_cast<std::uint8_t>(data[kTypeOffset]);
  if (dtype > prvrg_dtype_BYTESTREAM) return false;
  std::uint32_t n = getUint32(data + kValueLengthOffset);
  if (length - kHeaderSize != n) return false;
  r->dtype = dtype;
  r->security = prvrg_security{};
  r->security.user_perm = getUint32(data + kUserPermOffset);
  r->security.group_perm = getUint32(data + kGroupPermOffset);
  r->security.other_perm = getUint32(data + kOtherPermOffset);
  getName(data + kUserNameOffset, r->security.user_name);
  getName(data + kGroupNameOffset, r->security.group_name);
  r->value.assign(data + kHeaderSize, n);
  return true;
}

std::string encodeName(const std::string& part) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(part.size());
  for (unsigned char c : part) {
    if (plain(c)) {
      out.push_back(static_cast<char>(c));
    } else {
      out.push_back('%');
      out.push_back(kHex[c >> 4]);
      out.push_back(kHex[c & 0xf]);
    }
  }
  return out;
}

bool decodeName(const std::string& name, std::string* part) {
  std::string out;
  for (std::size_t i = 0; i < name.size(); ++i) {
    unsigned char c = static_cast<unsigned char>(name[i]);
    if (c == '%') {
      if (i + 2 >= name.size()) return false;
      int hi = hexValue(name[i + 1]), lo = hexValue(name[i + 2]);
      if (hi < 0 || lo < 0) return false;
      unsigned char b = static_cast<unsigned char>(hi * 16 + lo);
      if (plain(b)) return false;  // one name, one spelling
      out.push_back(static_cast<char>(b));
      i += 2;
    } else if (plain(c) && c != '.') {
      out.push_back(static_cast<char>(c));
    } else {
      return false;
    }
  }
  if (out.empty() || out.find('.') != std::string::npos) return false;
  *part = out;
  return true;
}

std::string pathOf(const std::string& chroot, const std::string& fullname) {
  std::string path = chroot;
  std::size_t start = 0;
  while (!fullname.empty() && start <= fullname.size()) {
    std::size_t dot = fullname.find('.', start);
    if (dot == std::string::npos) dot = fullname.size();
    path += '/';
    path += encodeName(fullname.substr(start, dot - start));
    start = dot + 1;
  }
  return path.empty() ? "/" : path;
}

}  // namespace znode
