#ifndef EVM_LIBEVM_EVM_TEST_UTIL_H
#define EVM_LIBEVM_EVM_TEST_UTIL_H

// Helpers shared by the event client's tests: byte views of blocks and hand-made blocks.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "evm/libevm/evm.h"

namespace evmtest {

typedef std::vector<unsigned char> Bytes;

inline Bytes used(EvmEvent_t e) {
  const auto* p = reinterpret_cast<const unsigned char*>(e->head_p);
  return Bytes(p, p + e->head_p->control.size);
}

inline void put32(Bytes& b, std::size_t off, std::uint32_t v) {
  if (b.size() < off + 4) b.resize(off + 4);
  std::memcpy(&b[off], &v, 4);
}
inline std::uint32_t get32(const Bytes& b, std::size_t off) {
  std::uint32_t v;
  std::memcpy(&v, &b[off], 4);
  return v;
}

// Appends an item record holding a string.
inline void addStringRecord(Bytes& b, std::uint32_t id, const std::string& text) {
  std::size_t off = b.size();
  std::uint32_t size = static_cast<std::uint32_t>(8 + ((text.size() + 1 + 7) & ~std::size_t{7}));
  b.resize(off + size, 0);
  put32(b, off, id);
  put32(b, off + 4, size);
  std::memcpy(&b[off + 8], text.c_str(), text.size() + 1);
}

// A head of the current form with the fixed values of a new event and control.size fitted.
inline Bytes newHead() {
  EvmEvent_t e = nullptr;
  EvmEventCreateVa(&e, 0);
  Bytes b = used(e);
  EvmEventDestroy(e);
  return b;
}

inline void fitSize(Bytes& b) { put32(b, EVM_OFF_CONTROL_SIZE, static_cast<std::uint32_t>(b.size())); }

// A malloc'd copy that a handle may own.
inline EvmEventHead_t* mallocCopy(const Bytes& b) {
  void* p = std::malloc(b.size() < EVM_HEAD_SIZE ? EVM_HEAD_SIZE : b.size());
  std::memset(p, 0, b.size() < EVM_HEAD_SIZE ? EVM_HEAD_SIZE : b.size());
  std::memcpy(p, b.data(), b.size());
  return static_cast<EvmEventHead_t*>(p);
}

}  // namespace evmtest

#endif
