// Fuzz target: any bytes read as a profile file. The reader must end in a map or an X_PROF,
// and a value that was read must survive the REBALANCE tests and their mending, which work in
// fixed buffers.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "caa/profiler/caa_profile.h"
#include "caa/profiler/caa_validate.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string path = "/tmp/profile_load_fuzz." + std::to_string(getpid()) + ".cap";
  FILE* fp = std::fopen(path.c_str(), "wb");
  if (fp == nullptr) return 0;
  std::fwrite(data, 1, size, fp);
  std::fclose(fp);
  CAA::string_Map contents;
  try {
    CAA::Profile::loadProfile(path, contents);
  } catch (const CAA::X_PROF&) {
    return 0;
  }
  for (const auto& entry : contents) {
    if (CAA::testRebalance(entry.second)) continue;
    std::string mended;
    CAA::fixupRebalance(entry.second.c_str(), mended);
    CAA::testRebalance(mended);
    CAA::testTimeUnit(entry.second);
    CAA::testInteger(entry.second, 0, -1);
  }
  std::string text = CAA::Profile::formatProfile(contents);
  (void)text;
  return 0;
}
