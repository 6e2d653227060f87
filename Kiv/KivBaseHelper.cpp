#include "Kiv/KivBaseHelper.h"

#include <cstdio>

#include "Zop/Assert.h"

namespace Kiv {

void KivBaseHelper::kivAssert(const Zop::String& message) const {
   std::fprintf(stderr, "%s\n", message.c_str());
   std::fflush(stderr);
   Zop::assertFailed("0", "Kiv/KivBaseHelper", "KivBaseHelper::kivAssert");
}

}  // namespace Kiv
