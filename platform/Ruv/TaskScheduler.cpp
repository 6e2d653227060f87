#include "Ruv/TaskScheduler.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "Zop/Assert.h"

namespace Ruv {

namespace {

constexpr const char* kSource = "Ruv/TaskScheduler";

// Statistics measure real time whatever clock the scheduler runs on.
Zop::Time monotonicNow() {
   return Zop::monotonicNow();
}

// Delays beyond this are clamped rather than overflow the nanosecond count.
constexpr double kMaxDelaySeconds = 1e9;

}  // namespace

// --- Yield policies ---------------------------------------------------------

TimeSliceYieldPolicy::TimeSliceYieldPolicy(Zop::Time slice) : slice_(slice) {
   // A zero slice would make a task that asks before its first item never
   // process anything.
   ZOP_ASSERT(slice > 0, "a time slice is positive", kSource);
}

RealTimeSliceYieldPolicy::RealTimeSliceYieldPolicy(Zop::Time slice) : slice_(slice) {
   ZOP_ASSERT(slice > 0, "a time slice is positive", kSource);
}

void RealTimeSliceYieldPolicy::runStarted(Zop::Time) {
   start_ = monotonicNow();
   startTicks_ = Zop::counterTicks();
   sinceClock_ = 0;
   if (startTicks_ == 0) {
      return;  // no counter
   }
   if (baseTime_ == 0) {
      baseTime_ = start_;
      baseTicks_ = startTicks_;
      return;
   }
   // Measured again at every run, over everything since the first: a
   // longer base, a closer rate.
   if (start_ - baseTime_ >= kCalibrateAfter && startTicks_ > baseTicks_) {
      const double ticksPerNs = double(startTicks_ - baseTicks_) / double(start_ - baseTime_);
      sureTicks_ = uint64_t(ticksPerNs * double(slice_) * kSureShare);
   }
}

bool RealTimeSliceYieldPolicy::shouldYield(Zop::Time) {
   if (sureTicks_ != 0 && sinceClock_ < kClockEvery) {
      const uint64_t ticks = Zop::counterTicks();
      // A counter read on another processor may be behind: the clock decides.
      if (ticks >= startTicks_ && ticks - startTicks_ < sureTicks_) {
         ++sinceClock_;
         return false;
      }
   }
   sinceClock_ = 0;
   return monotonicNow() - start_ >= slice_;
}

EveryNItemsYieldPolicy::EveryNItemsYieldPolicy(uint32_t n) : n_(n) {
   ZOP_ASSERT(n >= 1, "a run processes at least one item", kSource);
}

// --- Task -------------------------------------------------------------------

Task::Task(Zop::Ptr<TaskScheduler> scheduler, Zop::String name, Priority priority)
    : scheduler_(std::move(scheduler)), name_(std::move(name)), priority_(priority) {
   ZOP_ASSERT(scheduler_, "a task belongs to a scheduler", kSource);
}

Task::~Task() {
   cancel();
}

void Task::priorityIs(Priority priority) {
   priority_ = priority;
   if (isScheduled()) {
      scheduler_->reposition(this);
   }
}

void Task::scheduleTask() {
   scheduleTaskNoLaterThan(scheduler_->asapTime());
}

void Task::scheduleTaskLowestDelay(double delaySeconds) {
   // Written so that NaN also means "now".
   if (!(delaySeconds > 0)) {
      scheduleTask();
      return;
   }
   if (delaySeconds > kMaxDelaySeconds) {
      delaySeconds = kMaxDelaySeconds;
   }
   scheduleTaskNoLaterThan(scheduler_->clock()->now() + Zop::secondsToTime(delaySeconds));
}

void Task::scheduleTaskNoLaterThan(Zop::Time due) {
   if (isScheduled()) {
      if (due >= due_) {
         return;  // already due no later: keep the place in the queue
      }
      // Moved earlier: it queues behind whatever was already scheduled for
      // that instant, as a fresh request would.
      due_ = due;
      sequence_ = scheduler_->nextSequence_++;
      scheduler_->siftUp(heapIndex_);
      return;
   }
   scheduler_->enqueue(this, due);
}

void Task::cancel() {
   if (isScheduled()) {
      scheduler_->remove(this);
   }
}

bool Task::isRunning() const {
   return scheduler_->currentTask() == this;
}

FunctionTask::FunctionTask(Zop::Ptr<TaskScheduler> scheduler, Zop::String name,
                           std::function<void()> fn, Priority priority)
    : Task(std::move(scheduler), std::move(name), priority), fn_(std::move(fn)) {
   ZOP_ASSERT(fn_, "a function task has a function", kSource);
}

// --- TaskScheduler: queue ---------------------------------------------------

TaskScheduler::TaskScheduler(Zop::Ptr<Zop::Clock> clock, Zop::Ptr<YieldPolicy> yieldPolicy)
    : clock_(std::move(clock)) {
   ZOP_ASSERT(clock_, "a scheduler has a clock", kSource);
   yieldPolicyIs(std::move(yieldPolicy));
}

TaskScheduler::~TaskScheduler() {
   // Every scheduled task holds the scheduler, so this cannot fail unless the
   // reference counting itself is broken.
   ZOP_ASSERT(heap_.empty(), "a scheduler dies with no task scheduled", kSource);
}

Zop::Time TaskScheduler::asapTime() const {
   return current_ ? runStart_ : clock_->now();
}

bool TaskScheduler::before(const Task* a, const Task* b) const {
   if (a->due_ != b->due_) {
      return a->due_ < b->due_;
   }
   if (a->priority_ != b->priority_) {
      return a->priority_ < b->priority_;
   }
   return a->sequence_ < b->sequence_;
}

void TaskScheduler::place(Task* task, size_t index) {
   heap_[index] = task;
   task->heapIndex_ = index;
}

bool TaskScheduler::siftUp(size_t index) {
   Task* task = heap_[index];
   size_t start = index;
   while (index > 0) {
      size_t parent = (index - 1) / 2;
      if (!before(task, heap_[parent])) {
         break;
      }
      place(heap_[parent], index);
      index = parent;
   }
   place(task, index);
   return index != start;
}

void TaskScheduler::siftDown(size_t index) {
   Task* task = heap_[index];
   size_t size = heap_.size();
   for (;;) {
      size_t child = 2 * index + 1;
      if (child >= size) {
         break;
      }
      if (child + 1 < size && before(heap_[child + 1], heap_[child])) {
         ++child;
      }
      if (!before(heap_[child], task)) {
         break;
      }
      place(heap_[child], index);
      index = child;
   }
   place(task, index);
}

void TaskScheduler::reposition(Task* task) {
   if (!siftUp(task->heapIndex_)) {
      siftDown(task->heapIndex_);
   }
}

void TaskScheduler::enqueue(Task* task, Zop::Time due) {
   task->due_ = due;
   task->sequence_ = nextSequence_++;
   heap_.push_back(task);
   task->heapIndex_ = heap_.size() - 1;
   siftUp(task->heapIndex_);
}

void TaskScheduler::remove(Task* task) {
   size_t index = task->heapIndex_;
   Task* last = heap_.back();
   heap_.pop_back();
   task->heapIndex_ = Task::kNotQueued;
   if (last != task) {
      place(last, index);
      reposition(last);
   }
}

std::optional<Zop::Time> TaskScheduler::nextDueTime() const {
   if (heap_.empty()) {
      return std::nullopt;
   }
   return heap_.front()->due_;
}

bool TaskScheduler::hasReadyTask() const {
   return !heap_.empty() && heap_.front()->due_ <= clock_->now();
}

// --- TaskScheduler: running -------------------------------------------------

bool TaskScheduler::runOnce() {
   ZOP_ASSERT(current_ == nullptr, "runs of one scheduler do not nest", kSource);
   if (!hasReadyTask()) {
      return false;
   }
   Task* task = heap_.front();
   remove(task);
   // The run may drop the last outside reference to its own task; this one
   // keeps the task alive until the run is over and accounted for.
   ZOP_ASSERT(task->references() > 0, "a scheduled task is held by a Zop::Ptr", kSource);
   Zop::Ptr<Task> keepAlive(task);

   // Restores the "no run in progress" state however run() leaves.
   struct RunScope {
      TaskScheduler* scheduler;
      TaskScheduler* outer;
      RunScope(TaskScheduler* s, Task* t) : scheduler(s), outer(detail::runningScheduler) {
         scheduler->current_ = t;
         detail::runningScheduler = s;
      }
      ~RunScope() {
         scheduler->current_ = nullptr;
         detail::runningScheduler = outer;
      }
   };

   runStart_ = clock_->now();
   yieldPolicy_->runStarted(runStart_);
   {
      RunScope scope(this, task);
      Zop::Time began = monotonicNow();
      task->run();
      recordRun(task, monotonicNow() - began);
   }
   return true;
}

void TaskScheduler::recordRun(Task* task, Zop::Time duration) {
   ++statistics_.slices;
   if (task->statistics_ == nullptr) {
      task->statistics_ = &statistics_.byTaskName[task->name_];
   }
   TaskStatistics& entry = *task->statistics_;
   ++entry.runs;
   if (duration > entry.longestRun) {
      entry.longestRun = duration;
   }
   if (duration > statistics_.longestRun) {
      statistics_.longestRun = duration;
      statistics_.longestRunTask = task->name_;
   }
}

void TaskScheduler::resetStatistics() {
   statistics_.slices = 0;
   statistics_.longestRun = 0;
   statistics_.longestRunTask.clear();
   for (auto& [name, entry] : statistics_.byTaskName) {
      entry = TaskStatistics{};
   }
}

size_t TaskScheduler::runReady(size_t maxSlices) {
   size_t slices = 0;
   while (slices < maxSlices && runOnce()) {
      ++slices;
   }
   return slices;
}

size_t TaskScheduler::runUntilIdle(size_t maxSlices) {
   size_t slices = 0;
   while (slices < maxSlices) {
      if (runOnce()) {
         ++slices;
         continue;
      }
      if (!clock_->isVirtual() || onlyBackgroundScheduled()) {
         break;
      }
      clock_->advanceTo(heap_.front()->due_);
   }
   return slices;
}

bool TaskScheduler::onlyBackgroundScheduled() const {
   // The heap holds a handful of tasks: a scan is cheaper than a count kept
   // in step with every schedule and cancel.
   return std::all_of(heap_.begin(), heap_.end(), [](const Task* t) { return t->background_; });
}

size_t TaskScheduler::settle() {
   size_t slices = runUntilIdle(kSettleLimit);
   ZOP_ASSERT(!hasReadyTask() && (onlyBackgroundScheduled() || !clock_->isVirtual()),
              "settle: the tasks kept rescheduling and never became idle", kSource);
   return slices;
}

size_t TaskScheduler::runBackgroundRound() {
   if (heap_.empty() || !clock_->isVirtual() || !onlyBackgroundScheduled()) {
      return 0;
   }
   clock_->advanceTo(heap_.front()->due_);
   return settle();
}

size_t TaskScheduler::runUntil(Zop::Time deadline, size_t maxSlices) {
   size_t slices = 0;
   while (slices < maxSlices) {
      if (heap_.empty() || heap_.front()->due_ > deadline) {
         // Nothing more to do before the deadline; let virtual time reach it.
         clock_->advanceTo(deadline);
         break;
      }
      if (runOnce()) {
         ++slices;
         continue;
      }
      if (clock_->isVirtual()) {
         clock_->advanceTo(heap_.front()->due_);
      } else if (clock_->now() >= deadline) {
         break;
      }
      // A real clock: poll until the first task is due.
   }
   return slices;
}

size_t TaskScheduler::runFor(Zop::Time duration, size_t maxSlices) {
   return runUntil(clock_->now() + duration, maxSlices);
}

bool TaskScheduler::taskShouldYield() {
   return current_ != nullptr && yieldPolicy_->shouldYield(clock_->now());
}

void TaskScheduler::yieldPolicyIs(Zop::Ptr<YieldPolicy> policy) {
   if (!policy) {
      policy = Zop::makePtr<TimeSliceYieldPolicy>();
   }
   yieldPolicy_ = std::move(policy);
   if (current_) {
      yieldPolicy_->runStarted(runStart_);
   }
}

// For the free taskShouldYield(). One reactor thread, so a plain global;
// saved and restored around each run so that a run driving another scheduler
// leaves it right.
TaskScheduler* detail::runningScheduler = nullptr;

bool taskShouldYield() {
   return detail::runningScheduler != nullptr && detail::runningScheduler->taskShouldYield();
}

}  // namespace Ruv
