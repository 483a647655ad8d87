#ifndef CPPGEN_CLSTINT_H
#define CPPGEN_CLSTINT_H

// A tint is a small token a thread carries into its log lines, so that the lines of one piece of
// work can be found again across the processes of a cluster. Value 0 means no tint. Tinting is
// off until initializeTinting succeeds (and stays off if ZEL_CLS_TINT_DISABLE is non-empty);
// while off every tint is 0 and every operation is harmless.
#include <pthread.h>

#include <atomic>
#include <mutex>
#include <string>

#include "platform/thread/sltypes.h"

namespace cls {

class Tint {
 public:
  static const ub8 TINT_INVALID = 0;
  static const char* const TINT_FRAME;  // "{%u:%u:%u}"
  static const int TINT_FRAME_SIZE = 40;

  explicit Tint(ub8 value = TINT_INVALID) : m_value(value) {}

  // Once per process; a second call is an assertion failure.
  static void initializeTinting(ub4 nodeId, ub4 procId);

  // A new tint: nodeId * 0xFFFFFFFF + (procId mod 65535) * 65535 + (seed mod 65535).
  void generateTint();
  void getThreadTint();
  void setThreadTint();

  // "{a:b:c}" with a = value / 0xFFFFFFFF, b = (value / 65535) mod 65535, c = value mod 65535.
  void stringify(std::string& str) const;
  std::string toString() const;
  ub8 toUb8() const { return m_value; }
  // Reads the text form; anything else gives the invalid tint.
  void destringify(const std::string& str);
  bool isInvalid() const { return m_value == TINT_INVALID; }

 private:
  static ub8* threadSlot();
  static void sltskydHandler(void* slot);

  ub8 m_value;

  static std::mutex* s_tintMux;
  static pthread_key_t s_tintKey;
  static std::atomic<bool> s_initialized;
  static ub4 s_nodeId;
  static ub4 s_procId;
  static ub4 s_tintSeed;
};

}  // namespace cls

#endif
