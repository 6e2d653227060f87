#include "Zop/Clock.h"

#include <algorithm>
#include <chrono>

#include "Zop/Notifier.h"

namespace Zop {

Time monotonicNow() {
   return std::chrono::duration_cast<std::chrono::nanoseconds>(
              std::chrono::steady_clock::now().time_since_epoch())
       .count();
}

Time MonotonicClock::now() const {
   return monotonicNow();
}

namespace detail {

bool notificationTiming = false;
unsigned notificationDepth = 0;

namespace {
NotificationStatistics statistics;
}

void handlerTimed(Time duration, const char* notifiee) {
   ++statistics.handlerCalls;
   NotificationStatistics::Handler& handler = statistics.byNotifiee[notifiee];
   ++handler.calls;
   handler.longest = std::max(handler.longest, duration);
   if (duration > statistics.longestHandler) {
      statistics.longestHandler = duration;
      statistics.longestHandlerNotifiee = notifiee;
   }
}

}  // namespace detail

void notificationTimingIs(bool on) {
   detail::notificationTiming = on;
}

const NotificationStatistics& notificationStatistics() {
   return detail::statistics;
}

void resetNotificationStatistics() {
   detail::statistics = NotificationStatistics();
}

}  // namespace Zop
