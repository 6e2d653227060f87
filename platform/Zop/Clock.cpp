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

// In handler ticks (handlerTicks()).
NotificationStatistics raw;
// The last notifiee class timed, and its figures in raw: calls come in runs
// of one class.
const char* lastNotifiee = nullptr;
NotificationStatistics::Handler* lastHandler = nullptr;
// The figures in nanoseconds, as last read.
NotificationStatistics shown;

// Where the ticks' rate is measured from: when timing was first switched on.
Time baseTime = 0;
uint64_t baseTicks = 0;

void markBase() {
   if (baseTime == 0) {
      baseTime = monotonicNow();
      baseTicks = handlerTicks();
   }
}

// Nanoseconds per tick, measured against the clock since the base (over at
// least a millisecond, for a rate good to a part in a thousand).
double nanosecondsPerTick() {
   if (!kHasCounter) {
      return 1;
   }
   markBase();
   Time now = monotonicNow();
   while (now - baseTime < kMillisecond) {
      now = monotonicNow();
   }
   const uint64_t ticks = handlerTicks();
   return ticks > baseTicks ? double(now - baseTime) / double(ticks - baseTicks) : 1;
}

}  // namespace

void handlerTimed(uint64_t startTicks, uint64_t endTicks, const char* notifiee) {
   // A counter read on another processor may be behind: no time, but a call.
   const uint64_t duration = endTicks > startTicks ? endTicks - startTicks : 0;
   ++raw.handlerCalls;
   if (notifiee != lastNotifiee) {
      lastNotifiee = notifiee;
      lastHandler = &raw.byNotifiee[notifiee];
   }
   ++lastHandler->calls;
   lastHandler->longest = std::max(lastHandler->longest, Time(duration));
   if (Time(duration) > raw.longestHandler) {
      raw.longestHandler = Time(duration);
      raw.longestHandlerNotifiee = notifiee;
   }
}

}  // namespace detail

void notificationTimingIs(bool on) {
   detail::notificationTiming = on;
   if (on) {
      detail::markBase();
   }
}

const NotificationStatistics& notificationStatistics() {
   using detail::raw;
   using detail::shown;
   const double nsPerTick = raw.handlerCalls == 0 ? 1 : detail::nanosecondsPerTick();
   auto ns = [nsPerTick](Time ticks) { return Time(double(ticks) * nsPerTick); };
   shown.handlerCalls = raw.handlerCalls;
   shown.longestHandler = ns(raw.longestHandler);
   shown.longestHandlerNotifiee = raw.longestHandlerNotifiee;
   shown.byNotifiee.clear();
   for (const auto& [notifiee, handler] : raw.byNotifiee) {
      shown.byNotifiee[notifiee] = {handler.calls, ns(handler.longest)};
   }
   return shown;
}

void resetNotificationStatistics() {
   detail::raw = NotificationStatistics();
   detail::lastNotifiee = nullptr;
   detail::lastHandler = nullptr;
}

}  // namespace Zop
