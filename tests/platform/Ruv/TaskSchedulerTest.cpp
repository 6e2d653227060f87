#include "Ruv/TaskScheduler.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

namespace {

using Ruv::Task;
using Ruv::TaskScheduler;
using Zop::kMillisecond;
using Zop::kSecond;

class RuvTaskSchedulerTest : public ::testing::Test {
protected:
   Zop::Ptr<Task> logging(const std::string& name, Task::Priority priority = 0) {
      return Ruv::makeTask(
          scheduler, name, [this, name] { log.push_back(name); }, priority);
   }

   // Slices needed by a task that processes 10 items, asking before each one
   // whether to yield, with the clock moving `perItem` for every item.
   size_t slicesForTenItems(Zop::Ptr<Ruv::YieldPolicy> policy, Zop::Time perItem) {
      scheduler->yieldPolicyIs(policy);
      int remaining = 10;
      Zop::Ptr<Task> worker;
      worker = Ruv::makeTask(scheduler, "worker", [&] {
         while (remaining > 0) {
            if (Ruv::taskShouldYield()) {
               worker->scheduleTask();
               return;
            }
            --remaining;
            clock->advanceBy(perItem);
         }
      });
      worker->scheduleTask();
      size_t slices = scheduler->settle();
      EXPECT_EQ(remaining, 0);
      return slices;
   }

   Zop::Ptr<Zop::VirtualClock> clock = Zop::makePtr<Zop::VirtualClock>();
   Zop::Ptr<TaskScheduler> scheduler = Zop::makePtr<TaskScheduler>(clock);
   std::vector<std::string> log;
};

using Log = std::vector<std::string>;

TEST_F(RuvTaskSchedulerTest, OrdersByDueTimeThenPriorityThenSchedulingOrder) {
   auto a = logging("a"), b = logging("b", Task::kHighPriority), c = logging("c");
   auto d = logging("d", Task::kLowPriority), late = logging("late", Task::kHighPriority);
   late->scheduleTaskLowestDelay(1.0);
   a->scheduleTask();
   d->scheduleTask();
   c->scheduleTask();
   a->scheduleTask();  // already scheduled: keeps its place, runs once
   b->scheduleTask();
   EXPECT_EQ(scheduler->pendingTasks(), 5u);
   EXPECT_EQ(scheduler->settle(), 5u);
   EXPECT_EQ(log, (Log{"b", "a", "c", "d", "late"}));

   // Requests made during one run are due at the run's start, however the
   // clock moves meanwhile, so priority orders them.
   log.clear();
   auto parent = Ruv::makeTask(scheduler, "parent", [&] {
      d->scheduleTask();
      clock->advanceBy(kMillisecond);
      b->scheduleTask();
   });
   parent->scheduleTask();
   scheduler->settle();
   EXPECT_EQ(log, (Log{"b", "d"}));
}

TEST_F(RuvTaskSchedulerTest, QueueKeepsOrderThroughMovesPrioritiesAndCancels) {
   // Enough tasks and mutations to exercise every path of the queue; the
   // expected order is recomputed independently from the ordering rule.
   struct Entry {
      Zop::Ptr<Task> task;
      Zop::Time due;
      int priority, sequence;
   };
   std::vector<Entry> entries, expected;
   int sequence = 0;
   unsigned seed = 12345;
   auto next = [&seed](unsigned n) {
      seed = seed * 1103515245u + 12345u;
      return int((seed >> 16) % n);
   };
   for (int i = 0; i < 60; ++i) {
      int delay = next(6) + 1, priority = next(3);
      entries.push_back(
          {logging("t" + std::to_string(i), priority), delay * kSecond, priority, sequence++});
      entries.back().task->scheduleTaskLowestDelay(delay);
   }
   // Backwards, so that requeued tasks get a scheduling order unlike their first.
   for (auto e = entries.rbegin(); e != entries.rend(); ++e) {
      int action = next(4);
      if (action == 0) {  // a later time changes nothing, an earlier one requeues
         e->task->scheduleTaskLowestDelay(double(e->due / kSecond) + 1);
         e->task->scheduleTaskLowestDelay(0.5);
         e->due = kSecond / 2;
         e->sequence = sequence++;
      } else if (action == 1) {
         e->task->cancel();
         continue;
      } else if (action == 2) {
         e->priority = 2 - e->priority;
         e->task->priorityIs(e->priority);
      }
      expected.push_back(*e);
   }
   std::sort(expected.begin(), expected.end(), [](const Entry& x, const Entry& y) {
      return std::tie(x.due, x.priority, x.sequence) < std::tie(y.due, y.priority, y.sequence);
   });
   Log expectedLog;
   for (const Entry& e : expected) {
      expectedLog.push_back(e.task->name());
   }
   EXPECT_EQ(scheduler->settle(), expected.size());
   EXPECT_EQ(log, expectedLog);
   EXPECT_EQ(clock->now(), expected.back().due);
}

TEST_F(RuvTaskSchedulerTest, LowestDelayKeepsTheEarliestTimeAndSettleAdvancesVirtualTime) {
   auto t = logging("t");
   t->scheduleTaskLowestDelay(5.0);
   t->scheduleTaskLowestDelay(2.0);
   t->scheduleTaskLowestDelay(10.0);
   EXPECT_EQ(scheduler->nextDueTime(), 2 * kSecond);
   EXPECT_FALSE(scheduler->runOnce());  // not due: runOnce never moves the clock
   EXPECT_EQ(scheduler->settle(), 1u);
   EXPECT_EQ(clock->now(), 2 * kSecond);
   EXPECT_EQ(scheduler->nextDueTime(), std::nullopt);

   // scheduleTask() brings a delayed task forward to now.
   t->scheduleTaskLowestDelay(60.0);
   t->scheduleTask();
   EXPECT_EQ(scheduler->runReady(), 1u);

   // runUntil runs what is due up to the deadline and leaves virtual time there.
   auto u = logging("u"), v = logging("v");
   t->scheduleTaskLowestDelay(1.0);
   u->scheduleTaskLowestDelay(2.0);
   v->scheduleTaskLowestDelay(5.0);
   EXPECT_EQ(scheduler->runFor(3 * kSecond), 2u);
   EXPECT_EQ(clock->now(), 5 * kSecond);
   EXPECT_EQ(scheduler->pendingTasks(), 1u);
   v->cancel();
}

// A background task (a retry timer) never keeps settle() going: settle stops
// with only background tasks left, leaving the clock where the work ended;
// runBackgroundRound() moves the clock to the first one and settles again,
// including whatever that run schedules in the foreground.
TEST_F(RuvTaskSchedulerTest, BackgroundTasksWaitForTheirOwnRound) {
   auto fg = logging("fg");
   Zop::Ptr<Task> retry = Ruv::makeTask(scheduler, "retry", [&] {
      log.push_back("retry");
      fg->scheduleTask();
      retry->scheduleTaskLowestDelay(10.0);  // and again, much later
   });
   retry->backgroundIs(true);
   retry->scheduleTaskLowestDelay(1.0);
   auto other = logging("other");
   other->scheduleTaskLowestDelay(0.5);
   EXPECT_EQ(scheduler->settle(), 1u);
   EXPECT_EQ(log, Log{"other"});
   EXPECT_EQ(clock->now(), kSecond / 2);
   EXPECT_TRUE(scheduler->onlyBackgroundScheduled());
   EXPECT_EQ(scheduler->runUntilIdle(100), 0u);

   EXPECT_EQ(scheduler->runBackgroundRound(), 2u);
   EXPECT_EQ(log, (Log{"other", "retry", "fg"}));
   EXPECT_EQ(clock->now(), kSecond);
   EXPECT_EQ(scheduler->nextDueTime(), 11 * kSecond);
   // A foreground task scheduled meanwhile: no background round is taken.
   other->scheduleTaskLowestDelay(20.0);
   EXPECT_FALSE(scheduler->onlyBackgroundScheduled());
   EXPECT_EQ(scheduler->runBackgroundRound(), 0u);
   // Background tasks due before the foreground one run on the way: retry
   // and fg at 11 s; other, retry and fg at 21 s.
   EXPECT_EQ(scheduler->settle(), 5u);
   EXPECT_EQ(clock->now(), 21 * kSecond);
   retry->cancel();
   EXPECT_EQ(scheduler->runBackgroundRound(), 0u);
}

TEST_F(RuvTaskSchedulerTest, RescheduleFromInsideRunNeverDuplicates) {
   int runs = 0;
   Zop::Ptr<Task> self;
   self = Ruv::makeTask(scheduler, "self", [&] {
      ++runs;
      EXPECT_TRUE(self->isRunning());
      if (runs < 3) {
         self->scheduleTask();
         self->scheduleTask();
         self->scheduleTaskLowestDelay(4.0);
      }
   });
   self->scheduleTask();
   self->scheduleTask();
   EXPECT_EQ(scheduler->settle(), 3u);
   EXPECT_EQ(runs, 3);
   EXPECT_EQ(clock->now(), 0);
}

TEST_F(RuvTaskSchedulerTest, CancelAndDestroyDuringRunsAreSafe) {
   bool destroyed = false;
   auto cancelled = logging("cancelled");
   Zop::Ptr<Task> dropped = logging("dropped");
   Zop::Ptr<Task> killer = Ruv::makeTask(scheduler, "killer", [&] {
      cancelled->cancel();
      dropped = nullptr;  // the last reference to a scheduled task
      killer->scheduleTask();
      killer->cancel();  // drops the reschedule just made
   });
   killer->scheduleTask();
   cancelled->scheduleTask();
   dropped->scheduleTask();
   EXPECT_EQ(scheduler->settle(), 1u);
   EXPECT_TRUE(log.empty());
   EXPECT_FALSE(scheduler->hasPendingTasks());

   // A run that drops the last outside reference to its own task finishes
   // with the task still alive; it dies once the run is over.
   auto lifetime = std::shared_ptr<int>(new int, [&](int* p) {
      delete p;
      destroyed = true;
   });
   Zop::Ptr<Task> owner;
   owner = Ruv::makeTask(scheduler, "owner", [&, lifetime] {
      owner->scheduleTask();
      owner = nullptr;
      EXPECT_FALSE(destroyed);
   });
   lifetime.reset();  // now only the task's function holds it
   owner->scheduleTask();
   EXPECT_TRUE(scheduler->runOnce());
   EXPECT_TRUE(destroyed);
   EXPECT_FALSE(scheduler->hasPendingTasks());
}

TEST_F(RuvTaskSchedulerTest, YieldPoliciesBoundTheWorkOfOneRun) {
   constexpr Zop::Time kHour = 3600 * kSecond;
   EXPECT_EQ(slicesForTenItems(Zop::makePtr<Ruv::EveryNItemsYieldPolicy>(1), 0), 10u);
   EXPECT_EQ(slicesForTenItems(Zop::makePtr<Ruv::EveryNItemsYieldPolicy>(3), 0), 4u);
   // By time: never while a virtual clock stands still.
   EXPECT_EQ(slicesForTenItems(Zop::makePtr<Ruv::TimeSliceYieldPolicy>(), 0), 1u);
   // Two items use up a two-hour slice of virtual time.
   EXPECT_EQ(slicesForTenItems(Zop::makePtr<Ruv::TimeSliceYieldPolicy>(2 * kHour), kHour), 5u);
   // Statistics measure real time, not the hours the virtual clock moved.
   const auto& stats = scheduler->statistics();
   EXPECT_EQ(stats.slices, 20u);
   EXPECT_EQ(stats.byTaskName.at("worker").runs, 20u);
   EXPECT_LT(stats.longestRun, kHour / 60);
   EXPECT_EQ(stats.longestRunTask, "worker");
}

TEST_F(RuvTaskSchedulerTest, RealTimeSliceCutsRunsWhileTheVirtualClockStandsStill) {
   // Each item spins for 1 ms of real time; the virtual clock never moves.
   scheduler->yieldPolicyIs(Zop::makePtr<Ruv::RealTimeSliceYieldPolicy>(2 * kMillisecond));
   int remaining = 10;
   Zop::Ptr<Task> worker;
   worker = Ruv::makeTask(scheduler, "worker", [&] {
      while (remaining > 0) {
         if (Ruv::taskShouldYield()) {
            worker->scheduleTask();
            return;
         }
         --remaining;
         const Zop::Time until = Zop::monotonicNow() + kMillisecond;
         while (Zop::monotonicNow() < until) {
         }
      }
   });
   worker->scheduleTask();
   const size_t slices = scheduler->settle();
   EXPECT_EQ(remaining, 0);
   // At most two items fit a run (a loaded machine may fit fewer, never more).
   EXPECT_GE(slices, 5u);
   EXPECT_EQ(clock->now(), 0);
}

TEST_F(RuvTaskSchedulerTest, RealTimeSliceAnsweredByTheCounterStillCutsEveryRun) {
   // 60 items of 0.5 ms of real time under a 1 ms slice: the counter's rate
   // is known after the first 20 ms, and from then on most questions are
   // answered by the counter. Every run still ends once its slice is used:
   // at most two items a run (a loaded machine may fit fewer, never more).
   auto policy = Zop::makePtr<Ruv::RealTimeSliceYieldPolicy>(kMillisecond);
   scheduler->yieldPolicyIs(policy);
   int remaining = 60;
   std::vector<int> itemsPerRun;
   Zop::Ptr<Task> worker;
   worker = Ruv::makeTask(scheduler, "worker", [&] {
      itemsPerRun.push_back(0);
      while (remaining > 0) {
         if (Ruv::taskShouldYield()) {
            worker->scheduleTask();
            return;
         }
         --remaining;
         ++itemsPerRun.back();
         const Zop::Time until = Zop::monotonicNow() + kMillisecond / 2;
         while (Zop::monotonicNow() < until) {
         }
      }
   });
   worker->scheduleTask();
   scheduler->settle();
   EXPECT_EQ(remaining, 0);
   EXPECT_LE(*std::max_element(itemsPerRun.begin(), itemsPerRun.end()), 2);
#if defined(__x86_64__) || defined(__i386__)
   EXPECT_TRUE(policy->countsTicks());
#endif
}

TEST_F(RuvTaskSchedulerTest, YieldQuestionBelongsToTheRunningScheduler) {
   EXPECT_FALSE(Ruv::taskShouldYield());
   scheduler->yieldPolicyIs(Zop::makePtr<Ruv::EveryNItemsYieldPolicy>(1));
   EXPECT_FALSE(scheduler->taskShouldYield());  // and nothing is counted outside a run

   std::vector<bool> answers;
   auto t = Ruv::makeTask(scheduler, "t", [&] {
      answers.push_back(Ruv::taskShouldYield());
      answers.push_back(Ruv::taskShouldYield());
      // A policy installed mid-run governs the rest of the run.
      scheduler->yieldPolicyIs(Zop::makePtr<Ruv::EveryNItemsYieldPolicy>(2));
      answers.push_back(Ruv::taskShouldYield());
      answers.push_back(Ruv::taskShouldYield());
      answers.push_back(Ruv::taskShouldYield());
   });
   t->scheduleTask();
   scheduler->settle();
   EXPECT_EQ(answers, (std::vector<bool>{false, true, false, false, true}));
   EXPECT_FALSE(Ruv::taskShouldYield());
}

TEST(RuvTaskSchedulerRealClockTest, RunUntilIdleDoesNotWaitForFutureTasks) {
   auto scheduler = Zop::makePtr<TaskScheduler>(Zop::makePtr<Zop::MonotonicClock>());
   auto t = Ruv::makeTask(scheduler, "t", [] {});
   t->scheduleTaskLowestDelay(3600.0);
   EXPECT_EQ(scheduler->runUntilIdle(), 0u);
   EXPECT_EQ(scheduler->runFor(0), 0u);
   EXPECT_TRUE(t->isScheduled());
   t->cancel();
}

}  // namespace
