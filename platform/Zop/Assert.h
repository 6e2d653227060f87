#pragma once
// Fatal assertions. A broken invariant stops the process rather than let it
// program inconsistent hardware. The report names the condition text (or the
// given message), the source it belongs to (such as
// "KivSegmentSecurity/KivSegmentSecurityUtils") and the function, on standard
// error, then aborts:
//
//   assertion failed: <text>
//     source: <source>
//     function: <function>
//
// The text is given explicitly, not stringified, so that it stays exactly as
// written whatever the formatter does to the condition.

#include "Zop/String.h"

namespace Zop {

[[noreturn]] void assertFailed(const char* text, const char* source, const char* function);

}  // namespace Zop

#define ZOP_ASSERT(cond, text, source) ZOP_ASSERT_FN(cond, text, source, __func__)

// The same, naming the function explicitly: for code whose reports must keep
// a fixed name whatever C++ function the check happens to sit in.
#define ZOP_ASSERT_FN(cond, text, source, function)         \
   do {                                                     \
      if (!(cond)) [[unlikely]] {                           \
         ::Zop::assertFailed((text), (source), (function)); \
      }                                                     \
   } while (0)
