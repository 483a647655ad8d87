#ifndef PLATFORM_HOST_UTLHOST_H
#define PLATFORM_HOST_UTLHOST_H

// Host name and name service start of the platform.
#include <cstddef>

// Starts the name service; 0 on success. `errbuf` (may be null) gets a text on failure.
int utlnsinit(char* errbuf, std::size_t size);
// The local host's name, terminated and cut to fit. The length of the name, or -1 on failure.
int utlhost(char* buf, std::size_t size);

#endif
