// Fuzz target: event formatting. The input holds a message, a template and a string value,
// separated by NUL bytes; what follows the third NUL is taken as an event block. Every output
// must stay inside its buffer, terminated, whatever the texts and the event hold, and a template
// read once must give what the template gives.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "evm/libevm/evm.h"

namespace {

// The next NUL-ended piece of the input (the rest, if there is no NUL).
std::string piece(const std::uint8_t** p, const std::uint8_t* end) {
  const std::uint8_t* at = *p;
  while (at < end && *at != 0) ++at;
  std::string s(reinterpret_cast<const char*>(*p), static_cast<std::size_t>(at - *p));
  *p = at < end ? at + 1 : end;
  return s;
}

void checkBuffer(const char* buf, EvmSize_t size) {
  if (std::memchr(buf, 0, size) == nullptr) std::abort();
}

void formatAll(EvmEvent_t ev, const std::string& templ, FILE* sink) {
  static const EvmSize_t sizes[] = {1, 2, 7, 64, 1024, 8192};
  static char buf[8192 + 1];
  static char again[8192 + 1];
  EvmTemplate_t compiled = nullptr;
  if (_evmTemplateCompile(templ.c_str(), &compiled) != EvmERROR_NONE) std::abort();
  for (EvmSize_t size : sizes) {
    // A template read once gives what the template gives.
    std::memset(again, 'z', sizeof again);
    std::memset(buf, 'z', sizeof buf);
    _evmTemplateFormat(again, size, compiled, ev);
    EvmEventFormatFromTemplate(buf, size, templ.c_str(), ev);
    if (std::memcmp(buf, again, sizeof buf) != 0) std::abort();
    std::memset(buf, 'z', sizeof buf);
    buf[size] = '\x7f';  // a guard behind the buffer
    EvmEventFormat(buf, size, ev);
    checkBuffer(buf, size);
    EvmEventFormatOpt(buf, size, ev, 1);
    checkBuffer(buf, size);
    EvmEventFormatAsDefault(buf, size, ev);
    checkBuffer(buf, size);
    EvmEventFormatFromTemplate(buf, size, templ.c_str(), ev);
    checkBuffer(buf, size);
    if (buf[size] != '\x7f') std::abort();
  }
  _evmTemplateFree(compiled);
  char zero = 'z';
  if (EvmEventFormat(&zero, 0, ev) != EvmERROR_INVALID_VALUE || zero != 'z') std::abort();
  EvmEventDump(ev, sink);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static FILE* sink = std::fopen("/dev/null", "w");
  const std::uint8_t* p = data;
  const std::uint8_t* end = data + size;
  std::string format = piece(&p, end);
  std::string templ = piece(&p, end);
  std::string value = piece(&p, end);

  EvmEvent_t ev = nullptr;
  if (EvmEventCreateVa(&ev, EvmITEM_NAME, "fuzz.format", EvmITEM_FORMAT, format.c_str(), EvmITEM_REPEAT_COUNT,
                       static_cast<int>(size % 5), EvmITEM_PRIORITY, 100, 0) == EvmERROR_NONE) {
    EvmVarSetString(ev, "s", value.c_str());
    EvmVarSetInt32(ev, "n", static_cast<EvmInt32_t>(size));
    EvmVarSetOpaque(ev, "o", value.data(), static_cast<EvmSize_t>(value.size()));
    EvmVarSetChar(ev, "c", value.empty() ? 'c' : value[0]);
    formatAll(ev, templ, sink);
    char wrapped[512];
    _WrapText(value.c_str(), wrapped, sizeof wrapped, static_cast<int>(size % 100), static_cast<int>(size % 30));
    checkBuffer(wrapped, sizeof wrapped);
    EvmEventDestroy(ev);
  }

  // The rest as a block from outside, with whatever items and variables it carries.
  std::size_t rest = static_cast<std::size_t>(end - p);
  if (rest >= EVM_OLD_HEAD_SIZE) {
    auto* head = static_cast<EvmEventHead_t*>(std::calloc(1, rest < EVM_HEAD_SIZE ? EVM_HEAD_SIZE : rest));
    std::memcpy(head, p, rest);
    if (head->control.size > rest) head->control.size = static_cast<std::uint32_t>(rest);
    EvmEvent_t outside = _evmMakeEvent(head);  // takes the block either way
    if (outside != nullptr) {
      formatAll(outside, templ, sink);
      EvmEventDestroy(outside);
    }
  }
  return 0;
}
