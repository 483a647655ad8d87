// Fuzz target: raw bytes taken as an event block, the way a block arrives in one transport
// message: the walk over its records, the checks, and, for a block that passes, updates.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "evm/libevm/evm.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < EVM_OLD_HEAD_SIZE) return 0;
  // A message carries its own length: control.size beyond it is cut back, as a receiver that
  // sized its buffer would see it. The checks must hold for every size up to that.
  std::size_t alloc = size < EVM_HEAD_SIZE ? EVM_HEAD_SIZE : size;
  auto* head = static_cast<EvmEventHead_t*>(std::calloc(1, alloc));
  std::memcpy(head, data, size);
  if (head->control.size > size) head->control.size = static_cast<std::uint32_t>(size);

  const unsigned char* rec = nullptr;
  while (_evmuiGetVar(head, &rec) == EvmERROR_NONE) {
  }
  _evmBodyCheck(head);
  _evmCalculateChecksum(head);

  EvmEvent_t ev = _evmMakeEvent(head);  // takes the block either way
  if (ev == nullptr) return 0;
  EvmUint32_t added = 0;
  EvmEventAutoExtendName(ev, &added);
  EvmItemSetVa(ev, EvmITEM_NAME, "fuzz.name", EvmITEM_VAR_INT32, "n", 1, EvmITEM_HOST_NAME, "h", 0);
  EvmEvent_t copy = nullptr;
  if (EvmEventDup(&copy, ev) == EvmERROR_NONE) {
    EvmEvent_t empty = nullptr;
    if (EvmEventCreateVa(&empty, 0) == EvmERROR_NONE) {
      _evmMerge(empty, copy);
      EvmEventValidate(empty);
      EvmEventDestroy(empty);
    }
    EvmEventDestroy(copy);
  }
  EvmEventValidate(ev);
  EvmEventDestroy(ev);
  return 0;
}
