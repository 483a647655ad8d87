// The event object: handle and block.
#include "evm/libevm/evm_event.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "evm/libevm/evm_check.h"
#include "evm/libevm/evm_log.h"
#include "evm/libevm/evm_misc.h"

namespace {

// A handle and the first block of its event share one allocation, the block at this offset
// (16-aligned, so that the 64-bit fields of the block are aligned too).
constexpr std::size_t kHandleRoom = (sizeof(EvmEventHandle_s) + 15) & ~static_cast<std::size_t>(15);
// Every handle reserves at least this much behind it, also one whose block comes from elsewhere:
// the address of the inline block then lies inside the handle's own allocation, where no other
// block can start, and head_p equals it only while the block is the inline one.
constexpr std::size_t kMinInline = 16;

unsigned char* inlineBlock(EvmEvent_t h) { return reinterpret_cast<unsigned char*>(h) + kHandleRoom; }

bool blockIsInline(EvmEvent_t h) { return reinterpret_cast<unsigned char*>(h->head_p) == inlineBlock(h); }

// A stamped handle with room for a block of `block` bytes behind it, all of it zero but the
// first `head` bytes of the block, which the caller writes. (malloc and memset, not calloc: the
// allocator's per-thread cache serves malloc only.)
EvmEvent_t newHandle(std::size_t block, std::size_t head) {
  if (block < kMinInline) block = kMinInline;
  auto* room = static_cast<unsigned char*>(std::malloc(kHandleRoom + block));
  if (room == nullptr) return nullptr;
  std::memset(room, 0, kHandleRoom);
  std::memset(room + kHandleRoom + head, 0, block - head);
  auto* h = reinterpret_cast<EvmEvent_t>(room);
  _evmuiSetEventMagic(h);
  return h;
}

// Frees a handle's block unless it is the inline one, which goes with the handle.
void freeBlock(EvmEvent_t h) {
  if (!blockIsInline(h)) std::free(h->head_p);
  h->head_p = nullptr;
}

}  // namespace

EvmStatus_t _evmuiAllocateHandle(EvmEvent_t* handle) {
  EvmEvent_t h = newHandle(0, 0);
  if (h == nullptr) {
    _evmLogErrorf(EvmDL2, "_evmuiAllocateHandle - allocation, errno: %d.", errno);
    return EvmERROR_NO_MEMORY;
  }
  *handle = h;
  return EvmERROR_NONE;
}

EvmStatus_t _evmuiInitializeEventHeader(EvmEventHead_t** head) {
  EvmEventHead_t* h = *head;
  std::memset(h, 0, sizeof *h);
  h->control.ident = EVM_BLOCK_IDENT;
  h->control.blocktype = EVM_BLOCKTYPE_EVENT;
  h->control.size = EVM_HEAD_SIZE;
  h->pid = evmglob_EvmUserPid;
  h->version = EVM_HEAD_VERSION;
  h->magic = EVM_HEAD_MAGIC;
  h->ext_item_id = EvmITEM_HDR_EXT_SIZE;
  h->ext_item_len = EVM_HEAD_EXT_LEN;
  return EvmERROR_NONE;
}

EvmStatus_t _evmclearRealloc(EvmEventHead_t** head, EvmSize_t size, EvmSize_t used) {
  if (size < used) return EvmERROR_NONE;
  void* block = std::malloc(size);
  if (block == nullptr) {
    _evmLogErrorf(EvmDL2, "_evmuiAllocateEvent - realloc, %d.", errno);
    return EvmERROR_NO_MEMORY;
  }
  // Only the tail needs clearing: the used part is overwritten at once.
  std::memcpy(block, *head, used);
  std::memset(static_cast<unsigned char*>(block) + used, 0, size - used);
  std::free(*head);
  *head = static_cast<EvmEventHead_t*>(block);
  return EvmERROR_NONE;
}

EvmStatus_t _evmuiAllocateEvent(EvmEventHead_t** head, EvmSize_t size) {
  if (head == nullptr) return EvmERROR_INVALID_ARGUMENT;
  if (*head != nullptr) return _evmclearRealloc(head, size, (*head)->control.size);
  if (size < EVM_HEAD_SIZE) size = EVM_HEAD_SIZE;
  void* block = std::calloc(1, size);
  if (block == nullptr) {
    _evmLogErrorf(EvmDL2, "_evmuiAllocateEvent - malloc, %d.", errno);
    return EvmERROR_NO_MEMORY;
  }
  *head = static_cast<EvmEventHead_t*>(block);
  return _evmuiInitializeEventHeader(head);
}

EvmStatus_t _evmEventResize(EvmEvent_t event, EvmSize_t size) {
  EvmEventHead_t* head = event->head_p;
  EvmSize_t used = head->control.size;
  if (size < used) return EvmERROR_NONE;
  // Moving the inline block to one of its own would free nothing: it stays where it is when the
  // event shrinks.
  if (size == used && blockIsInline(event)) return EvmERROR_NONE;
  void* block = std::malloc(size);
  if (block == nullptr) {
    _evmLogErrorf(EvmDL2, "_evmuiAllocateEvent - realloc, %d.", errno);
    return EvmERROR_NO_MEMORY;
  }
  std::memcpy(block, head, used);
  std::memset(static_cast<unsigned char*>(block) + used, 0, size - used);
  freeBlock(event);
  event->head_p = static_cast<EvmEventHead_t*>(block);
  return EvmERROR_NONE;
}

EvmStatus_t _evmuiEventCreate(EvmEvent_t* event, EvmSize_t size) {
  if (size < EVM_HEAD_SIZE) size = EVM_HEAD_SIZE;
  // One allocation for the handle and the block: an event that is made, posted and destroyed
  // never needs a second one.
  EvmEvent_t h = newHandle(size, EVM_HEAD_SIZE);  // the head is written below
  if (h == nullptr) {
    _evmLogErrorf(EvmDL2, "_evmuiAllocateHandle - allocation, errno: %d.", errno);
    EvmLog_C_module_error(EvmDL2, "_evmuiEventCreate - handle allocation.");
    return EvmERROR_NO_MEMORY;
  }
  h->head_p = reinterpret_cast<EvmEventHead_t*>(inlineBlock(h));
  _evmuiInitializeEventHeader(&h->head_p);
  *event = h;
  return EvmERROR_NONE;
}

EvmEvent_t _evmMakeEvent(EvmEventHead_t* head) {
  if (head == nullptr) return nullptr;
  EvmEvent_t h = nullptr;
  if (_evmuiAllocateHandle(&h) != EvmERROR_NONE) {
    std::free(head);
    return nullptr;
  }
  h->head_p = head;
  if (_evmEventTranslateVersion(h) != EvmERROR_NONE || _evmValidate(h, nullptr) != EvmERROR_NONE) {
    freeBlock(h);
    std::free(h);
    return nullptr;
  }
  return h;
}

EvmStatus_t EvmEventDup(EvmEvent_t* copy, EvmEvent_t event) {
  if (copy == nullptr || event == nullptr) {
    EvmLog_C_module_error(EvmDL2, "EvmEventDup - illegal argument (NULL).");
    return EvmERROR_INVALID_ARGUMENT;
  }
  if (_evmuiTestEventMagic(event) != EvmERROR_NONE || event->head_p == nullptr) {
    EvmLog_C_module_error(EvmDL2, "EvmEventDup - bad argument.");
    return EvmERROR_INVALID_ARGUMENT;
  }
  EvmSize_t used = event->head_p->control.size;
  EvmEvent_t dup = nullptr;
  EvmStatus_t st = _evmuiEventCreate(&dup, used);
  if (st != EvmERROR_NONE) {
    EvmLog_C_module_error(EvmDL2, "EvmEventDup - event allocation.");
    return st;
  }
  std::memcpy(dup->head_p, event->head_p, used);
  *copy = dup;
  return EvmERROR_NONE;
}

EvmStatus_t EvmEventDestroy(EvmEvent_t event) {
  if (event == nullptr) {
    EvmLog_C_module_error(EvmDL2, "EvmEventDestroy - illegal argument *event (NULL).");
    return EvmERROR_INVALID_ARGUMENT;
  }
  if (event->magic != EVM_HANDLE_MAGIC) return EvmERROR_INVALID_VALUE;
  event->magic = 0;
  if (event->head_p != nullptr) {
    event->head_p->control.ident = 0;
    freeBlock(event);
  }
  std::free(event);
  return EvmERROR_NONE;
}

EvmStatus_t _EvmQueuePointerGet(EvmEvent_t event, EvmEvent_t* next) {
  if (EvmEventValidate(event) != EvmERROR_NONE || next == nullptr) return EvmERROR_INVALID_ARGUMENT;
  *next = event->next_event;
  return EvmERROR_NONE;
}

EvmStatus_t _EvmQueuePointerSet(EvmEvent_t event, EvmEvent_t next) {
  if (EvmEventValidate(event) != EvmERROR_NONE) return EvmERROR_INVALID_ARGUMENT;
  if (next != nullptr && EvmEventValidate(next) != EvmERROR_NONE) return EvmERROR_INVALID_ARGUMENT;
  event->next_event = next;
  return EvmERROR_NONE;
}

namespace {
bool postingFlag(EvmFlagItems_t flag) {
  return flag == EvmFLAG_KERNEL_POSTED || flag == EvmFLAG_EXTERNALLY_POSTED;
}
}  // namespace

EvmStatus_t _evmFlagSet(EvmEvent_t event, EvmFlagItems_t flag, EvmBoolean_t value) {
  if (!postingFlag(flag) || _evmuiTestEventMagic(event) != EvmERROR_NONE) return EvmERROR_INVALID_ARGUMENT;
  if (value == EvmTRUE)
    event->head_p->flags |= evmFlagMask(flag);
  else
    event->head_p->flags &= ~evmFlagMask(flag);
  return EvmERROR_NONE;
}

EvmStatus_t _evmFlagGet(EvmEvent_t event, EvmFlagItems_t flag, EvmBoolean_t* value) {
  if (!postingFlag(flag) || value == nullptr || _evmuiTestEventMagic(event) != EvmERROR_NONE)
    return EvmERROR_INVALID_ARGUMENT;
  *value = (event->head_p->flags & evmFlagMask(flag)) ? EvmTRUE : EvmFALSE;
  return EvmERROR_NONE;
}
