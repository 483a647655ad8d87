#include "platform/host/utlhost.h"

#include <unistd.h>

#include <cstring>

int utlnsinit(char* errbuf, std::size_t size) {
  if (errbuf != nullptr && size > 0) errbuf[0] = '\0';
  return 0;
}

int utlhost(char* buf, std::size_t size) {
  if (buf == nullptr || size == 0) return -1;
  char name[256];
  if (gethostname(name, sizeof name) != 0) return -1;
  name[sizeof name - 1] = '\0';
  std::size_t len = std::strlen(name);
  if (len >= size) len = size - 1;
  std::memcpy(buf, name, len);
  buf[len] = '\0';
  return static_cast<int>(len);
}
