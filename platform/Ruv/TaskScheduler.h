#pragma once
// The agent's cooperative task scheduler.
//
// Everything runs on the one reactor thread. A TaskScheduler is an event loop
// over an injected Zop::Clock: a VirtualClock in tests and simulations (time
// moves only when the scheduler or the test moves it), a MonotonicClock in
// real runs. Work is done by Tasks; a task is scheduled, later the scheduler
// calls its run(), and a run that has more to do than it should do at once
// asks taskShouldYield() between items and schedules itself again.
//
// Ordering. The scheduler keeps the scheduled tasks ordered by
//   1. due time (earliest first),
//   2. priority (LOWER number first, see Task::Priority),
//   3. order of scheduling (first scheduled, first run).
// Only a task whose due time has been reached (due <= clock()->now()) runs.
// Ordering by due time first means a task that yields and reschedules itself
// goes behind every task that was due before its run began, whatever their
// priority: as long as time moves, nothing starves. Priority decides between
// tasks due at the same instant, which is what happens to all the "as soon as
// possible" requests made during one run (they share the run's start time,
// see TaskScheduler::asapTime), to all the requests made while a virtual
// clock stands still, and to delayed requests that name the same time.
//
// Operations, their promises, and when they may be called:
//
//   Task::scheduleTask()                   any time, also from inside a run
//      (its own or another task's). The task runs as soon as possible. A
//      task already scheduled no later than that keeps its place: scheduling
//      is idempotent, a task never sits twice in the queue and never runs
//      twice for one request. Calls nothing back.
//   Task::scheduleTaskLowestDelay(s)       any time. The task runs after at
//      most `s` seconds: a task already scheduled earlier keeps its earlier
//      time (and place); one scheduled later is moved earlier. Calls nothing
//      back.
//   Task::cancel()                         any time, also from inside a run.
//      The task leaves the queue; it runs again only if scheduled again. A
//      run in progress is not interrupted (cancelling oneself inside run()
//      only drops a reschedule made earlier in that run). The destructor
//      cancels, so dropping the last pointer to a scheduled task, even from
//      inside another task's run, is safe.
//   TaskScheduler::runOnce()               outside any run of this scheduler
//      (never from inside run(): runs do not nest). Runs at most one ready
//      task (one "slice") and says whether it did. Calls back Task::run(),
//      which may schedule, cancel or destroy any task, including itself, and
//      change the yield policy.
//   TaskScheduler::runReady / runUntilIdle / settle / runUntil / runFor
//      loops of runOnce(), same rules; see each below.
//   TaskScheduler::taskShouldYield(), Ruv::taskShouldYield()
//      meant for inside a run: whether the running task should stop now,
//      reschedule itself and return. Outside a run the answer is false.
//      Consults the yield policy; calls nothing else back.
//
// Ownership. A task holds its scheduler (Zop::Ptr); the scheduler holds the
// scheduled tasks only by plain pointer, so the owner of a task (typically a
// reactor) decides its lifetime. During its run the scheduler holds a
// reference to the task, so a run may drop the last outside reference to its
// own task and still finish. Tasks must therefore be held by Zop::Ptr (made
// by Zop::makePtr), never embedded by value.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <optional>
#include <vector>

#include "Zop/Clock.h"
#include "Zop/Ptr.h"
#include "Zop/String.h"

namespace Ruv {

class TaskScheduler;

// ---------------------------------------------------------------------------
// Yield policies: when a run should give the reactor back.
//
// A policy instance serves one scheduler. The scheduler calls runStarted()
// when a run begins (and when the policy is installed during a run) and
// shouldYield() each time the running task asks.
class YieldPolicy : public Zop::PtrInterface {
public:
   virtual void runStarted(Zop::Time now) = 0;
   virtual bool shouldYield(Zop::Time now) = 0;
};

// Yields once the current run has used `slice` on the scheduler's clock. With
// a virtual clock a run therefore never yields by time unless something
// moves the clock during the run.
class TimeSliceYieldPolicy : public YieldPolicy {
public:
   static constexpr Zop::Time kDefaultSlice = 2 * Zop::kMillisecond;

   explicit TimeSliceYieldPolicy(Zop::Time slice = kDefaultSlice);
   Zop::Time slice() const { return slice_; }

   void runStarted(Zop::Time now) override { start_ = now; }
   bool shouldYield(Zop::Time now) override { return now - start_ >= slice_; }

private:
   Zop::Time slice_;
   Zop::Time start_ = 0;
};

// Yields once the current run has used `slice` of real (monotonic) time,
// whatever clock the scheduler runs on: a simulation keeps its virtual clock,
// and so its deterministic timers, while its runs are cut as a real agent's
// would be. Where a run is cut then depends on the machine, so use it for
// measuring, not where output must repeat byte for byte.
//
// A task asks before every item, millions of times in a full table's
// review, and reading the clock was a twentieth of that review. Where the
// processor has a time-stamp counter (x86), the policy reads it instead,
// for half the cost: once the counter's rate is known against the clock
// (measured between runs at least kCalibrateAfter apart, and again at every
// run after), a question asked well inside the slice (kSureShare of it by
// the counter) is answered from the counter alone. Near the slice's end,
// and every kClockEvery-th question whatever the counter says, the clock
// decides, so a counter that misleads costs at most that many items.
class RealTimeSliceYieldPolicy : public YieldPolicy {
public:
   explicit RealTimeSliceYieldPolicy(Zop::Time slice = TimeSliceYieldPolicy::kDefaultSlice);
   Zop::Time slice() const { return slice_; }

   void runStarted(Zop::Time) override;
   bool shouldYield(Zop::Time) override;

   // Whether questions are answered from the counter (it is there, and its
   // rate has been measured).
   bool countsTicks() const { return sureTicks_ != 0; }

   static constexpr Zop::Time kCalibrateAfter = 20 * Zop::kMillisecond;
   static constexpr double kSureShare = 0.97;
   static constexpr uint32_t kClockEvery = 64;

private:
   Zop::Time slice_;
   Zop::Time start_ = 0;
   uint64_t startTicks_ = 0;
   // Counter ticks within which the run surely has slice left; 0 until the
   // counter's rate is known (or where there is no counter).
   uint64_t sureTicks_ = 0;
   uint32_t sinceClock_ = 0;  // questions answered by the counter since the clock was read
   // The first run's start, by the clock and by the counter: the rate is
   // measured from there.
   Zop::Time baseTime_ = 0;
   uint64_t baseTicks_ = 0;
};

// Yields after every `n` items: within one run the first `n` questions are
// answered false and every later one true. A task that asks before each item
// therefore processes exactly `n` items per run. `n` must be at least 1 (with
// 0 such a task would never process anything).
class EveryNItemsYieldPolicy : public YieldPolicy {
public:
   explicit EveryNItemsYieldPolicy(uint32_t n);
   uint32_t n() const { return n_; }

   void runStarted(Zop::Time) override { asked_ = 0; }
   bool shouldYield(Zop::Time) override { return ++asked_ > n_; }

private:
   uint32_t n_;
   uint64_t asked_ = 0;
};

// ---------------------------------------------------------------------------
// Statistics, for benchmarks and diagnostics. Durations are real time
// measured with a monotonic clock whatever clock the scheduler runs on, so
// they mean the same with a virtual clock. Kept per task name: tasks sharing
// a name share an entry.
struct TaskStatistics {
   uint64_t runs = 0;
   Zop::Time longestRun = 0;
};

struct SchedulerStatistics {
   uint64_t slices = 0;
   Zop::Time longestRun = 0;
   Zop::String longestRunTask;
   std::map<Zop::String, TaskStatistics> byTaskName;
};

// ---------------------------------------------------------------------------
// A unit of schedulable work.
class Task : public Zop::PtrInterface {
public:
   // Among tasks due at the same instant, the LOWER number runs first.
   using Priority = int;
   static constexpr Priority kHighPriority = -10;
   static constexpr Priority kDefaultPriority = 0;
   static constexpr Priority kLowPriority = 10;

   Task(Zop::Ptr<TaskScheduler> scheduler, Zop::String name, Priority priority = kDefaultPriority);

   const Zop::String& name() const { return name_; }
   Priority priority() const { return priority_; }
   // Takes effect at once, also for a task already waiting in the queue.
   void priorityIs(Priority priority);
   const Zop::Ptr<TaskScheduler>& scheduler() const { return scheduler_; }

   // Run as soon as possible. See the block comment above for the details.
   void scheduleTask();
   // Run after at most `delaySeconds` (negative counts as 0).
   void scheduleTaskLowestDelay(double delaySeconds);
   // Run no later than `due` on the scheduler's clock.
   void scheduleTaskNoLaterThan(Zop::Time due);
   // Leave the queue; a run in progress finishes.
   void cancel();

   // A background task (a retry timer, a periodic poll) does not keep the
   // scheduler busy: runUntilIdle() stops when only background tasks are
   // scheduled, and runs one only on the way to other work, or when asked to
   // (runBackgroundRound). Default: false.
   bool background() const { return background_; }
   void backgroundIs(bool background) { background_ = background; }

   bool isScheduled() const { return heapIndex_ != kNotQueued; }
   // When the task is due; meaningful only while isScheduled().
   Zop::Time dueTime() const { return due_; }
   bool isRunning() const;

protected:
   ~Task() override;
   // Does the work. Called by the scheduler only, on the reactor thread, once
   // per scheduling. May do anything a task may do (see above).
   virtual void run() = 0;

private:
   friend class TaskScheduler;
   static constexpr size_t kNotQueued = std::numeric_limits<size_t>::max();

   Zop::Ptr<TaskScheduler> scheduler_;
   Zop::String name_;
   Priority priority_;
   // Position in the scheduler's queue, and the ordering keys.
   size_t heapIndex_ = kNotQueued;
   Zop::Time due_ = 0;
   uint64_t sequence_ = 0;
   // This task's entry in the scheduler's statistics, found on first run.
   TaskStatistics* statistics_ = nullptr;
   bool background_ = false;
};

// A task that runs a callable. A callable that reschedules its own task
// should capture a plain pointer to it (or its owner), not a Zop::Ptr: the
// task owns the callable, and a Ptr back would be a cycle.
class FunctionTask final : public Task {
public:
   FunctionTask(Zop::Ptr<TaskScheduler> scheduler, Zop::String name, std::function<void()> fn,
                Priority priority = kDefaultPriority);

protected:
   void run() override { fn_(); }

private:
   std::function<void()> fn_;
};

inline Zop::Ptr<Task> makeTask(Zop::Ptr<TaskScheduler> scheduler, Zop::String name,
                               std::function<void()> fn,
                               Task::Priority priority = Task::kDefaultPriority) {
   return Zop::makePtr<FunctionTask>(std::move(scheduler), std::move(name), std::move(fn),
                                     priority);
}

// ---------------------------------------------------------------------------
class TaskScheduler : public Zop::PtrInterface {
public:
   static constexpr size_t kNoLimit = std::numeric_limits<size_t>::max();
   // settle() gives up (fatally) after this many slices: a task set that
   // keeps rescheduling itself never becomes idle.
   static constexpr size_t kSettleLimit = 10'000'000;

   // `yieldPolicy` defaults to a TimeSliceYieldPolicy with its default slice.
   explicit TaskScheduler(Zop::Ptr<Zop::Clock> clock, Zop::Ptr<YieldPolicy> yieldPolicy = nullptr);

   const Zop::Ptr<Zop::Clock>& clock() const { return clock_; }

   // Runs the first task in order if it is due; true if a task ran. Never
   // moves the clock.
   bool runOnce();
   // Runs due tasks (including those they make due) until none is due or
   // `maxSlices` ran. Never moves the clock. Returns the slices run.
   size_t runReady(size_t maxSlices = kNoLimit);
   // Runs until nothing but background tasks is scheduled. When nothing is
   // due, a virtual clock is advanced to the next due time; a real clock is
   // not waited for: the call returns with future tasks still pending (use
   // runUntil/runFor). Stops after `maxSlices` as well. Returns the slices
   // run.
   size_t runUntilIdle(size_t maxSlices = kNoLimit);
   // runUntilIdle() for tests: asserts that the scheduler really became idle
   // (with a real clock: that nothing is due), and that within kSettleLimit.
   size_t settle();
   // With only background tasks scheduled: a virtual clock is advanced to the
   // first one's due time and settle() runs (so each background task due by
   // then gets its run, and whatever it starts runs to the end). Returns the
   // slices run; none when other work is scheduled or the clock is real.
   size_t runBackgroundRound();
   // Whether everything scheduled is a background task (true when nothing is).
   bool onlyBackgroundScheduled() const;
   // Runs every task due up to `deadline`. A virtual clock is advanced from
   // due time to due time and finally to `deadline`. A real clock is polled
   // (the scheduler has no wait primitive; a loop that waits on descriptors
   // should use nextDueTime() as its timeout and call runReady()), but the
   // call returns early when nothing is scheduled, since then nothing could
   // schedule anything before the deadline. Returns the slices run.
   size_t runUntil(Zop::Time deadline, size_t maxSlices = kNoLimit);
   size_t runFor(Zop::Time duration, size_t maxSlices = kNoLimit);

   bool hasPendingTasks() const { return !heap_.empty(); }
   size_t pendingTasks() const { return heap_.size(); }
   // Due time of the first task in order; none when nothing is scheduled.
   std::optional<Zop::Time> nextDueTime() const;
   // Whether the first task in order is due now.
   bool hasReadyTask() const;

   // The task whose run is in progress, or null.
   Task* currentTask() const { return current_; }
   // See the block comment above; false outside a run of this scheduler.
   bool taskShouldYield();

   const Zop::Ptr<YieldPolicy>& yieldPolicy() const { return yieldPolicy_; }
   // Any time; installed during a run, the policy governs the rest of it.
   void yieldPolicyIs(Zop::Ptr<YieldPolicy> policy);

   const SchedulerStatistics& statistics() const { return statistics_; }
   // Zeroes the counters; the per-name entries stay (tasks point at them).
   void resetStatistics();

protected:
   ~TaskScheduler() override;

private:
   friend class Task;

   // The due time an "as soon as possible" request gets: the start of the run
   // in progress, so that requests made during one run are due at the same
   // instant and ordered by priority; the clock's time outside a run.
   Zop::Time asapTime() const;
   void enqueue(Task* task, Zop::Time due);
   void remove(Task* task);
   void reposition(Task* task);
   bool before(const Task* a, const Task* b) const;
   void place(Task* task, size_t index);
   bool siftUp(size_t index);
   void siftDown(size_t index);
   void recordRun(Task* task, Zop::Time duration);

   Zop::Ptr<Zop::Clock> clock_;
   Zop::Ptr<YieldPolicy> yieldPolicy_;
   // Binary min-heap in (due, priority, sequence) order; each task knows its
   // index so that cancel and moving earlier are O(log n), without allocation.
   std::vector<Task*> heap_;
   uint64_t nextSequence_ = 0;
   Task* current_ = nullptr;
   Zop::Time runStart_ = 0;
   SchedulerStatistics statistics_;
};

// The running task's scheduler's answer; false outside any task run.
//
// Process-wide like the trace state: a shared library that embeds this code
// runs its tasks on the program's scheduler, and must see the run the
// program's copy started, or its tasks would never yield.
#define RUV_PROCESS_WIDE __attribute__((visibility("default")))

RUV_PROCESS_WIDE bool taskShouldYield();

namespace detail {
// The scheduler whose task is running; nullptr between runs.
extern RUV_PROCESS_WIDE TaskScheduler* runningScheduler;
}  // namespace detail

}  // namespace Ruv
