// Validation and checksum of events.
#include "evm/libevm/evm_check.h"

#include <array>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "evm/libevm/evm_log.h"
#include "evm/libevm/evm_record.h"

void _evmuiSetEventMagic(EvmEvent_t event) {
  if (event != nullptr) event->magic = EVM_HANDLE_MAGIC;
}

EvmStatus_t _evmuiTestEventMagic(EvmConstEvent_t event) {
  if (event == nullptr || event->magic != EVM_HANDLE_MAGIC) {
    EvmLog_C_module_error(EvmDL2, "_evmuiTestEventMagic - bad magic.");
    return EvmERROR_INVALID_VALUE;
  }
  return EvmERROR_NONE;
}

std::uint64_t _evmByteSum(const unsigned char* p, std::size_t n) {
  std::uint64_t sum = 0;
#if defined(__SSE2__)
  // psadbw against zero adds 8 bytes into a 64-bit lane: 16 bytes per instruction, no overflow.
  const __m128i zero = _mm_setzero_si128();
  __m128i a0 = zero, a1 = zero, a2 = zero, a3 = zero;
  while (n >= 64) {
    a0 = _mm_add_epi64(a0, _mm_sad_epu8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)), zero));
    a1 = _mm_add_epi64(a1, _mm_sad_epu8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 16)), zero));
    a2 = _mm_add_epi64(a2, _mm_sad_epu8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 32)), zero));
    a3 = _mm_add_epi64(a3, _mm_sad_epu8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 48)), zero));
    p += 64;
    n -= 64;
  }
  while (n >= 16) {
    a0 = _mm_add_epi64(a0, _mm_sad_epu8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)), zero));
    p += 16;
    n -= 16;
  }
  __m128i acc = _mm_add_epi64(_mm_add_epi64(a0, a1), _mm_add_epi64(a2, a3));
  acc = _mm_add_epi64(acc, _mm_unpackhi_epi64(acc, acc));
  sum = static_cast<std::uint64_t>(_mm_cvtsi128_si64(acc));
#endif
  for (std::size_t i = 0; i < n; ++i) sum += p[i];
  return sum;
}

EvmUint16_t _evmFoldChecksum(std::uint32_t sum) {
  std::uint32_t t = (sum & 0xffffu) + (sum >> 16);
  return static_cast<EvmUint16_t>(((t & 0xffffu) + (t >> 16)) & 0xffffu);
}

EvmUint16_t _evmCalculateChecksum(const EvmEventHead_t* head) {
  const unsigned char* b = evmAt(head, 0);
  std::size_t end = head->control.size;
  std::uint64_t sum = 0;
  // Never past control.size, even when a damaged size cuts into the head.
  std::size_t firstEnd = end < EVM_OFF_CHECKSUM ? end : EVM_OFF_CHECKSUM;
  if (firstEnd > EVM_OFF_CONTROL) sum += _evmByteSum(b + EVM_OFF_CONTROL, firstEnd - EVM_OFF_CONTROL);
  std::size_t rest = EVM_OFF_CHECKSUM + 2;
  if (end > rest) sum += _evmByteSum(b + rest, end - rest);
  return _evmFoldChecksum(static_cast<std::uint32_t>(sum));
}

void _evmInsertChecksum(EvmEventHead_t* head) {
  const std::uint32_t flag = evmFlagMask(EvmFLAG_CHECKSUM_PRESENT);
  if (head->flags & flag) return;
  head->flags |= flag;  // the flag is part of what is summed, so it goes in first
  head->checksum = _evmCalculateChecksum(head);
}

EvmStatus_t _evmSetChecksum(EvmEvent_t event) {
  if (_evmuiTestEventMagic(event) != EvmERROR_NONE) return EvmERROR_INVALID_ARGUMENT;
  _evmInsertChecksum(event->head_p);
  return EvmERROR_NONE;
}

void _evmRemoveChecksum(EvmEventHead_t* head) { head->flags &= ~evmFlagMask(EvmFLAG_CHECKSUM_PRESENT); }

EvmStatus_t _evmTestChecksum(const EvmEventHead_t* head) {
  if (!(head->flags & evmFlagMask(EvmFLAG_CHECKSUM_PRESENT))) return EvmERROR_NONE;
  return head->checksum == _evmCalculateChecksum(head) ? EvmERROR_NONE : EvmERROR_INVALID_VALUE;
}

namespace {
bool nameChar(char c) {
  unsigned char u = static_cast<unsigned char>(c);
  // Every locale classes the portable characters alike, so only the others need the lookup.
  if (u < 0x80) return (u >= '0' && u <= '9') || ((u | 0x20) >= 'a' && (u | 0x20) <= 'z') || u == '_';
  return std::isalnum(u) != 0;
}
}  // namespace

EvmStatus_t _evmVarNameCheck(const char* name) {
  if (name == nullptr || *name == '\0') return EvmERROR_INVALID_ARGUMENT;
  for (const char* p = name; *p; ++p)
    if (!nameChar(*p)) return EvmERROR_INVALID_ARGUMENT;
  return EvmERROR_NONE;
}

namespace {
// What a byte can be in a name: a name character of every locale, the separator, a wildcard, a
// byte the locale must class, or nothing a name may hold. Read once per byte of every event
// name a reader checks, so a table rather than a chain of comparisons.
enum NameByte : unsigned char { kBad, kNameChar, kDot, kWild, kLocale };
constexpr std::array<unsigned char, 256> kNameBytes = [] {
  std::array<unsigned char, 256> t{};
  for (int u = 0; u < 256; ++u) {
    if ((u >= '0' && u <= '9') || (u >= 'a' && u <= 'z') || (u >= 'A' && u <= 'Z') || u == '_')
      t[u] = kNameChar;
    else if (u == '.')
      t[u] = kDot;
    else if (u == '*' || u == '?')
      t[u] = kWild;
    else if (u >= 0x80)
      t[u] = kLocale;
  }
  return t;
}();
}  // namespace

EvmStatus_t _evmStringCheck(const char* name, EvmUint32_t* components, EvmBoolean_t wildcards) {
  EvmUint32_t count = 0;
  EvmStatus_t st = EvmERROR_NONE;
  if (name == nullptr) {
    st = EvmERROR_INVALID_ARGUMENT;
  } else {
    std::size_t len = 0;  // of the current component
    for (const char* p = name; *p; ++p) {
      const unsigned char u = static_cast<unsigned char>(*p);
      const unsigned char kind = kNameBytes[u];
      if (kind == kDot) {
        if (len == 0) {
          st = EvmERROR_INVALID_ARGUMENT;
          break;
        }
        len = 0;
        continue;
      }
      if (kind != kNameChar && !(kind == kLocale && std::isalnum(u) != 0)) {
        // A wildcard is a component of its own.
        bool wild = wildcards == EvmTRUE && kind == kWild && (p == name || p[-1] == '.') &&
                    (p[1] == '.' || p[1] == '\0');
        if (!wild) {
          st = EvmERROR_INVALID_ARGUMENT;
          break;
        }
      }
      if (len == 0) ++count;
      ++len;
    }
    // A name that ends in a dot ends with an empty component.
    if (st == EvmERROR_NONE && *name != '\0' && len == 0) st = EvmERROR_INVALID_ARGUMENT;
  }
  if (components != nullptr) *components = count;
  return st;
}

namespace {

// A walk over the dot-separated components of a name, without copying it.
struct Components {
  std::string_view text;
  std::size_t at = 0;  // start of the current component; text.size() + 1 past the last
  bool done() const { return at > text.size() || text.empty(); }
  std::string_view current() const {
    std::size_t dot = text.find('.', at);
    return text.substr(at, dot == std::string_view::npos ? std::string_view::npos : dot - at);
  }
  void next() { at += current().size() + 1; }
};

}  // namespace

EvmBoolean_t EvmEventNameMatch(const char* pattern, const char* name) {
  if (pattern == nullptr || _evmStringCheck(pattern, nullptr, EvmTRUE) != EvmERROR_NONE) return EvmFALSE;
  std::string_view pat(pattern);
  if (pat.empty() || pat == "*") return EvmTRUE;
  if (name == nullptr || *name == '\0') return EvmFALSE;
  // Wildcard matching over components, backtracking only to the last "*": at worst |p| x |n|
  // steps, so a hostile pattern costs no more than that, and nothing is allocated.
  Components p{pat}, n{name};
  Components starP, starN;
  bool star = false;
  while (!n.done()) {
    if (!p.done() && p.current() == "*") {
      star = true;
      p.next();
      starP = p;
      starN = n;
    } else if (!p.done() && (p.current() == "?" || p.current() == n.current())) {
      p.next();
      n.next();
    } else if (star) {
      starN.next();
      p = starP;
      n = starN;
    } else {
      return EvmFALSE;
    }
  }
  while (!p.done() && p.current() == "*") p.next();
  return p.done() ? EvmTRUE : EvmFALSE;
}

EvmStatus_t _evmValidate(EvmEvent_t event, EvmUint32_t* components) {
  if (event == nullptr) return EvmERROR_INVALID_ARGUMENT;
  if (event->magic != EVM_HANDLE_MAGIC || event->head_p == nullptr) return EvmERROR_INVALID_VALUE;
  const EvmEventHead_t* head = event->head_p;
  if (head->control.ident != EVM_BLOCK_IDENT || head->ext_item_id != EvmITEM_HDR_EXT_SIZE)
    return EvmERROR_INVALID_VALUE;
  if (head->control.size < EVM_HEAD_SIZE) return EvmERROR_INVALID_VALUE;
  if (_evmTestChecksum(head) != EvmERROR_NONE) return EvmERROR_INVALID_VALUE;
  if (_evmBodyCheck(head) != EvmERROR_NONE) return EvmERROR_INVALID_VALUE;
  if (head->fldPresBits & (1u << EvmITEM_NAME)) {
    const unsigned char* rec = _evmuiFindVar(head, EvmITEM_NAME, nullptr);
    if (rec == nullptr) return EvmERROR_NOT_PRESENT;
    const char* name = reinterpret_cast<const char*>(rec + EVM_REC_VALUE);
    if (_evmStringCheck(name, components, EvmFALSE) != EvmERROR_NONE) return EvmERROR_INVALID_VALUE;
  } else if (components != nullptr) {
    *components = 0;
  }
  if ((head->fldPresBits & (1u << EvmITEM_PRIORITY)) && head->priority > EVM_PRIORITY_MAX)
    return EvmERROR_INVALID_VALUE;
  return EvmERROR_NONE;
}

EvmStatus_t EvmEventValidate(EvmEvent_t event) { return _evmValidate(event, nullptr); }

EvmStatus_t _evmEventTranslateVersion(EvmEvent_t event) {
  if (_evmuiTestEventMagic(event) != EvmERROR_NONE || event->head_p == nullptr) return EvmERROR_INVALID_ARGUMENT;
  EvmEventHead_t* old = event->head_p;
  std::uint32_t used = old->control.size;
  // Only a block that reaches the word at 112 can be told apart; a shorter one is no event.
  if (used < EVM_OLD_HEAD_SIZE) return EvmERROR_INVALID_VALUE;
  if (used >= EVM_HEAD_SIZE && old->ext_item_id == EvmITEM_HDR_EXT_SIZE) return EvmERROR_NONE;
  std::uint32_t size = used + static_cast<std::uint32_t>(EVM_HEAD_SIZE - EVM_OLD_HEAD_SIZE);
  if (size < used) return EvmERROR_INVALID_VALUE;
  auto* head = static_cast<EvmEventHead_t*>(std::calloc(1, size));
  if (head == nullptr) return EvmERROR_NO_MEMORY;
  std::memcpy(head, old, EVM_OLD_HEAD_SIZE);
  std::memcpy(evmAt(head, EVM_HEAD_SIZE), evmAt(old, EVM_OLD_HEAD_SIZE), used - EVM_OLD_HEAD_SIZE);
  head->control.size = size;
  head->version = EVM_HEAD_VERSION;
  head->magic = EVM_HEAD_MAGIC;
  head->ext_item_id = EvmITEM_HDR_EXT_SIZE;
  head->ext_item_len = EVM_HEAD_EXT_LEN;
  if (head->flags & evmFlagMask(EvmFLAG_CHECKSUM_PRESENT)) {
    _evmRemoveChecksum(head);
    _evmInsertChecksum(head);
  }
  std::free(old);
  event->head_p = head;
  return EvmERROR_NONE;
}
