// Fuzz target: a stream of bytes read as events from a descriptor, then every event that comes
// through is read the way a consumer would. Readers must end in a status, never a fault.
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "evm/libevm/evm.h"

namespace {

void consume(EvmEvent_t ev) {
  EvmItemList_t items = nullptr;
  if (EvmItemListGet(ev, nullptr, &items) == EvmERROR_NONE) {
    for (EvmItemList_t p = items; *p != EvmITEM_NONE; ++p) {
      EvmItemValue_t v;
      if (EvmItemGet(ev, *p, &v) == EvmERROR_NONE) EvmItemRelease(*p, v);
    }
    EvmItemListFree(items);
  }
  EvmVarList_t vars = nullptr;
  if (EvmVarListGet(ev, nullptr, &vars) == EvmERROR_NONE) {
    for (char** p = vars; *p != nullptr; ++p) {
      EvmVarStruct_t var;
      if (EvmVarGet(ev, *p, &var) == EvmERROR_NONE) EvmVarRelease(&var);
    }
    EvmVarListFree(vars);
  }
  EvmUint32_t len = 0;
  EvmEventWriteBuf(&len, ev);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  int fd = memfd_create("evm_readfd_fuzz", 0);
  if (fd < 0) return 0;
  if (size > 0 && write(fd, data, size) != static_cast<ssize_t>(size)) {
    close(fd);
    return 0;
  }
  lseek(fd, 0, SEEK_SET);
  for (int i = 0; i < 64; ++i) {
    EvmEvent_t ev = nullptr;
    if (EvmEventReadFD(fd, &ev) != EvmERROR_NONE) break;
    consume(ev);
    EvmEventDestroy(ev);
  }
  // The same bytes as a file of blocks.
  off_t at = 0;
  for (int i = 0; i < 64; ++i) {
    EvmDataBlockType_t type = 0;
    off_t next = 0;
    if (_evmGetNextBlockOffset(fd, at, &type, &next) != EvmERROR_NONE || type == 0) break;
    at = next;
  }
  close(fd);
  return 0;
}
