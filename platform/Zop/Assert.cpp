#include "Zop/Assert.h"

#include <cstdio>
#include <cstdlib>

namespace Zop {

void assertFailed(const char* text, const char* source, const char* function) {
   std::fprintf(stderr, "assertion failed: %s\n  source: %s\n  function: %s\n", text, source,
                function);
   std::fflush(stderr);
   std::abort();
}

}  // namespace Zop
