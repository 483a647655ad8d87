// Fuzz target: any bytes read as a type definition file. The reader must end in rows or an
// X_TEMP, never a fault.
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "caa/lib/caa_Path.h"
#include "caa/profiler/caa_template.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string dir = [] {
    std::string d = "/tmp/tdf_read_fuzz." + std::to_string(getpid()) + "/";
    mkdir(d.c_str(), 0755);
    return d;
  }();
  CAA::Path::template_path = dir;
  FILE* fp = std::fopen((dir + "fz.tdf").c_str(), "wb");
  if (fp == nullptr) return 0;
  std::fwrite(data, 1, size, fp);
  std::fclose(fp);
  CAA::AttrMap amap;
  try {
    CAA::CaaTemplate::readFile("fz", amap);
  } catch (const CAA::X_TEMP&) {
  }
  for (const auto& attr : amap) (void)attr.second.isRequired();
  return 0;
}
