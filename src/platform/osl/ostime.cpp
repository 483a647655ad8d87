#include "platform/osl/ostime.h"

#include <cstdio>
#include <ctime>

std::uint32_t osgts() { return static_cast<std::uint32_t>(std::time(nullptr)); }

int osgcts(std::uint32_t t, char* buf, std::size_t size) {
  if (buf == nullptr || size == 0) return -1;
  buf[0] = '\0';
  std::time_t when = static_cast<std::time_t>(t);
  std::tm local;
  if (localtime_r(&when, &local) == nullptr) return -1;
  // The C library's own layout, spelled out so that no locale changes it.
  static const char* const kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  static const char* const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                        "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  int n = std::snprintf(buf, size, "%s %s %2d %02d:%02d:%02d %d", kDays[local.tm_wday], kMonths[local.tm_mon],
                        local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec, local.tm_year + 1900);
  if (n < 0) return -1;
  return static_cast<std::size_t>(n) < size ? n : static_cast<int>(size - 1);
}
