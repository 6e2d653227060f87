#include "Zop/Clock.h"

#include <chrono>

namespace Zop {

Time MonotonicClock::now() const {
   return std::chrono::duration_cast<std::chrono::nanoseconds>(
              std::chrono::steady_clock::now().time_since_epoch())
       .count();
}

}  // namespace Zop
