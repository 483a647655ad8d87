#ifndef CPPGEN_CLSASSERT_H
#define CPPGEN_CLSASSERT_H

// Checks of states that must not happen. A failed check raises alert 6015, writes the failing
// thread's stack to standard output and ends the process at once with status 0 (in development
// mode it aborts instead). No input is supposed to reach one.
#include "platform/thread/sltypes.h"

namespace CLS_Debug {

void clsAssert(bool condition, const zeltext* condString, const zeltext* filename, sb4 line);
[[noreturn]] void clsAbort();

}  // namespace CLS_Debug

#define CLS_ASSERT(cond)                                                                     \
  ::CLS_Debug::clsAssert(static_cast<bool>(cond), reinterpret_cast<const zeltext*>(#cond), \
                         reinterpret_cast<const zeltext*>(__FILE__), __LINE__)

#endif
