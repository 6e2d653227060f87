#pragma once
// Time for the scheduler. Simulations and tests run on a VirtualClock, which
// moves only when told; real runs use the MonotonicClock.

#include <cstdint>

#include "Zop/Ptr.h"

namespace Zop {

// Nanoseconds since an arbitrary epoch of the clock.
using Time = int64_t;
constexpr Time kNanosecond = 1;
constexpr Time kMicrosecond = 1000;
constexpr Time kMillisecond = 1000 * kMicrosecond;
constexpr Time kSecond = 1000 * kMillisecond;

// Converts seconds given as a double (the framework's usual delay unit).
constexpr Time secondsToTime(double s) {
   return Time(s * double(kSecond));
}

// The monotonic clock's reading, for measuring real durations whatever clock
// the scheduler runs on.
Time monotonicNow();

// The processor's time-stamp counter, where there is one (x86): a third of
// the cost of a clock read, for what asks the time before every item. Its
// rate is not known here; whoever reads it measures that against
// monotonicNow(). 0 where there is no counter.
constexpr bool kHasCounter =
#if defined(__x86_64__) || defined(__i386__)
    true;
#else
    false;
#endif
inline uint64_t counterTicks() {
#if defined(__x86_64__) || defined(__i386__)
   return __builtin_ia32_rdtsc();
#else
   return 0;
#endif
}

class Clock : public PtrInterface {
public:
   virtual Time now() const = 0;
   // Whether the clock moves by itself (monotonic) or only by advanceTo().
   virtual bool isVirtual() const = 0;
   // Moves a virtual clock forward (never back); a real clock ignores it.
   virtual void advanceTo(Time t) = 0;
};

class VirtualClock : public Clock {
public:
   explicit VirtualClock(Time start = 0) : now_(start) {}
   Time now() const override { return now_; }
   bool isVirtual() const override { return true; }
   void advanceTo(Time t) override {
      if (t > now_) {
         now_ = t;
      }
   }
   void advanceBy(Time d) { advanceTo(now_ + d); }

private:
   Time now_;
};

class MonotonicClock : public Clock {
public:
   Time now() const override;
   bool isVirtual() const override { return false; }
   void advanceTo(Time) override {}
};

}  // namespace Zop
