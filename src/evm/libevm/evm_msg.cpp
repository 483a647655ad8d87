// Status texts and catalog messages of the event client.
#include "evm/libevm/evm_msg.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "platform/mcg/mcg.h"

const char EVM_MSG_NOT_FOUND[] = "Message / Message file not found";

const EvmMsgTableRow_s MsgTable[EvmERROR_LAST] = {
    {EvmERROR_NONE, 1, "Operation succeeded"},
    {EvmERROR_NOT_IMPLEMENTED, 2, "Function not implemented"},
    {EvmERROR_INVALID_ARGUMENT, 3, "Invalid argument"},
    {EvmERROR_NOT_SET, 4, "Item or variable not set"},
    {EvmERROR_NOT_PRESENT, 5, "Item or variable not present"},
    {EvmERROR_PROTOCOL_MISMATCH, 6, "Mismatched EVM protocol version"},
    {EvmERROR_NO_MEMORY, 7, "Memory allocation failed"},
    {EvmERROR_INVALID_VARARGS_LIST, 8, "Incorrect argument type"},
    {EvmERROR_FILTER_NOT_VALID, 9, "Invalid filter specification"},
    {EvmERROR_INVALID_VALUE, 10, "Invalid value"},
    {EvmERROR_NOT_INITIALIZED, 11, "Attempt to use an uninitialized object"},
    {EvmERROR_SELECT, 12, "Select error"},
    {EvmERROR_SERVICE_TERMINATED, 13, "Service terminated"},
    {EvmERROR_CONNECT, 14, "Connection error"},
    {EvmERROR_READ, 15, "Read error"},
    {EvmERROR_WRITE, 16, "Write error"},
    {EvmERROR_OPEN, 17, "Open error"},
    {EvmERROR_EVENT_REJECTED, 18, "Event rejected"},
    {EvmERROR_RESOURCE, 19, "Resource error"},
    {EvmERROR_SEQUENCE, 20, "Sequence error"},
    {EvmERROR_CONNECTION_LOST, 21, "Connection lost"},
    {EvmERROR_INVALID_OPERATION, 22, "Invalid operation"},
    {EvmERROR_INVALID_MESSAGE, 23, "Invalid message"},
    {EvmERROR_PARTIAL, 24, "Partial completion"},
    {EvmERROR_WOULDBLOCK, 25, "Operation would block"},
    {EvmERROR_TIMEOUT, 26, "Timeout"},
    {EvmERROR_QUEUE_FULL, 27, "Queue full"},
    {EvmERROR_PROTOCOL, 28, "Protocol error"},
    {EvmERROR_INTERRUPT_LEVEL, 29, "Operation invalid at interrupt level"},
    {EvmERROR_EOF, 30, "End-of-file reached"},
    {EvmERROR_SIGNAL, 31, "Signal received"},
    {EvmERROR_SYNCHRONIZATION_FAILURE, 32, "Synchronization failure"},
    {EvmERROR_EVENT_NOT_VALID, 33, "Event is not valid"},
    {EvmERROR_QUEUED, 34, "Message is queued"},
    {EvmERROR_CONNECTION_REFUSED, 35, "EVM daemon refused connection"},
    {EvmERROR_TOO_MANY_ITEMS, 36, "Too many items"},
};

namespace {
constexpr int kStatusSet = 11;
constexpr std::size_t kMsgBuf = 1024;
}  // namespace

int evmgetmsg(const char* product, EvmUint32_t number, char* text, EvmUint32_t size) {
  if (product == nullptr || std::strlen(product) >= 8 || number == 0 || text == nullptr || size == 0) return -1;
  mcgcat* cat = mcgaicmt(product, "EVM", std::string());
  if (mcgaerr(cat) != 0) {
    mcgatrm(cat);
    return -1;
  }
  int rc = mcgagbcmt(cat, static_cast<int>(number), text, size, nullptr);
  mcgatrm(cat);
  return rc == 0 ? 0 : -1;
}

void _EvmMsgGet(int set, int id, const char* /*deflt*/, char* text, std::size_t size) {
  if (text == nullptr || size == 0) return;
  char buffer[kMsgBuf];
  EvmUint32_t number = static_cast<EvmUint32_t>((set - 1) * 100 + id);
  if (evmgetmsg("EVM", number, buffer, sizeof buffer) != 0) std::snprintf(buffer, sizeof buffer, "%s", EVM_MSG_NOT_FOUND);
  std::snprintf(text, size, "%s", buffer);
}

EvmStatus_t EvmStatusTextGet(EvmStatus_t status, char* text, EvmUint32_t size) {
  if (text == nullptr || status < EvmERROR_NONE || status >= EvmERROR_LAST) return EvmERROR_INVALID_ARGUMENT;
  const EvmMsgTableRow_s* row = nullptr;
  for (const EvmMsgTableRow_s& r : MsgTable)
    if (r.status_code == status) row = &r;
  if (row == nullptr) return EvmERROR_INVALID_ARGUMENT;
  if (size == 0) return EvmERROR_NONE;
  _EvmMsgGet(kStatusSet, static_cast<int>(row->msgid), row->default_string, text, size);
  return EvmERROR_NONE;
}

void _EvmMsgErr(const char* /*program*/, int set, int id, const char* deflt, ...) {
  char catalogText[kMsgBuf];
  int number = (set - 1) * 100 + id;
  if (evmgetmsg("EVM", static_cast<EvmUint32_t>(number), catalogText, sizeof catalogText) != 0) {
    std::fprintf(stderr, "%s\n", EVM_MSG_NOT_FOUND);
    std::fflush(stderr);
    return;
  }
  char format[kMsgBuf + 32];
  std::snprintf(format, sizeof format, "%s-%4.4d: %s\n", "EVM", number, catalogText);
  char out[4 * kMsgBuf];
  va_list ap;
  va_start(ap, deflt);
  std::vsnprintf(out, sizeof out, format, ap);
  va_end(ap);
  std::fprintf(stderr, "%s\n", out);
  std::fflush(stderr);
}

void _EvmMsgTimestamp() {
  std::time_t now = std::time(nullptr);
  struct tm local;
  localtime_r(&now, &local);
  char text[64];
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S  ", &local);
  std::fputs(text, stderr);
}

EvmStatus_t _evmCliConvertHostArg(const char* program, const char* argument, int* port) {
  if (argument == nullptr || port == nullptr) return EvmERROR_INVALID_ARGUMENT;
  *port = -1;
  const char* colon = std::strchr(argument, ':');
  if (colon == nullptr) return EvmERROR_NONE;
  const char* digits = colon + 1;
  bool ok = *digits != '\0';
  for (const char* p = digits; *p; ++p)
    if (*p < '0' || *p > '9') ok = false;
  if (!ok) {
    _EvmMsgErr(program, 1, 39, nullptr, argument);
    return EvmERROR_INVALID_ARGUMENT;
  }
  long value = std::strtol(digits, nullptr, 10);
  *port = value == 0 ? -1 : static_cast<int>(value);
  return EvmERROR_NONE;
}

void _evmCliExitNoMemory(const char* program) {
  _EvmMsgErr(program, 1, 27, nullptr);
  std::exit(14);
}

void _evmCliExitUsage(const char* text) {
  std::fprintf(stderr, "%s\n", text != nullptr ? text : "");
  std::exit(1);
}

void _evmCliPrintEvmStatus(const char* program, EvmStatus_t status) {
  char text[kMsgBuf];
  if (EvmStatusTextGet(status, text, sizeof text) != EvmERROR_NONE) text[0] = '\0';
  _EvmMsgErr(program, 1, 34, nullptr, text);
}
