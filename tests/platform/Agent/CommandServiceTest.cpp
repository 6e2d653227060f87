#include <gtest/gtest.h>

#include "Agent/AgentCommandRequest.h"

namespace {

using Agent::AgentCommandRequest;
using Status = AgentCommandRequest::Status;

// Prints "<word>:<i>\n" for i in 0..count-1, asking shouldYield after each;
// a run that may not go on returns.
class CountingSm : public Agent::AgentAsyncCommandRequestSm {
public:
   CountingSm(const Zop::Ptr<AgentCommandRequest>& request,
              const Zop::Ptr<Zop::VirtualClock>& clock, int count, int* alive,
              Zop::Time costPerItem = 0)
       : AgentAsyncCommandRequestSm(request->name(), request, 0.1, clock),
         clock_(clock),
         count_(count),
         alive_(alive),
         cost_(costPerItem) {
      ++*alive_;
   }
   ~CountingSm() override { --*alive_; }

   void handleAsyncCommand() override {
      while (next_ < count_) {
         printer().addFrills("%s:%d\n", request()->command().c_str(), next_++);
         clock_->advanceTo(clock_->now() + cost_);
         if (next_ < count_ && shouldYield()) {
            return;
         }
      }
      executionCompletedIs(true);
   }

private:
   Zop::Ptr<Zop::VirtualClock> clock_;
   int count_;
   int next_ = 0;
   int* alive_;
   Zop::Time cost_;
};

class Callback : public Agent::AgentCommandCallbackWithFormat {
public:
   explicit Callback(Zop::Ptr<Zop::VirtualClock> clock)
       : AgentCommandCallbackWithFormat("agent", "cb"), clock_(std::move(clock)) {}
   Zop::Ptr<Agent::AgentAsyncCommandRequestSm> createAgentAsyncCommandRequestSm(
       const Zop::Ptr<AgentCommandRequest>& request) override {
      if (request->command() == "sync") {
         return nullptr;
      }
      return Zop::makePtr<CountingSm>(request, clock_, count, &alive, cost);
   }
   void handleCommand(int socket, const Zop::String& command, lumo::Format format) override {
      syncCalls.push_back(std::to_string(socket) + " " + command + " " +
                          std::to_string(uint32_t(format)));
   }

   int count = 3;
   int alive = 0;
   Zop::Time cost = 0;
   std::vector<std::string> syncCalls;

private:
   Zop::Ptr<Zop::VirtualClock> clock_;
};

struct Service : ::testing::Test {
   Zop::Ptr<Zop::VirtualClock> clock = Zop::makePtr<Zop::VirtualClock>();
   Zop::Ptr<Ruv::TaskScheduler> scheduler = Zop::makePtr<Ruv::TaskScheduler>(clock);
   Zop::Ptr<Zop::Dir> dir = Zop::dirFactory("requests");
   Zop::Ptr<Agent::AgentCommandRequestDirSm> service =
       Zop::makePtr<Agent::AgentCommandRequestDirSm>(scheduler, dir);
   Zop::Ptr<Callback> callback = Zop::makePtr<Callback>(clock);

   Zop::Ptr<AgentCommandRequest> add(const std::string& name, const std::string& command,
                                     const Zop::Ptr<lumo::StringSink>& sink) {
      auto r = Agent::agentCommandRequestFactory(name, command, 9, sink, lumo::Format::text);
      dir->entryIs(name, r);
      return r;
   }
};

TEST_F(Service, TakesRequestsOnlyWhileWatchingAndWithACallback) {
   auto sink = Zop::makePtr<lumo::StringSink>();
   auto early = add("early", "a", sink);
   service->agentCommandCallbackWithFormatIs(callback);
   scheduler->settle();
   EXPECT_EQ(early->status(), Status::pending) << "not watching yet";

   // Switching on picks up what was written meanwhile.
   service->hasNotificationActiveIs(true);
   scheduler->settle();
   EXPECT_EQ(early->status(), Status::completed);
   EXPECT_EQ(sink->data(), "a:0\na:1\na:2\n");
   EXPECT_EQ(callback->alive, 0) << "a completed reactor is dropped";

   // No reactor: the synchronous path, and the request is done.
   auto sync = add("s", "sync", Zop::makePtr<lumo::StringSink>());
   scheduler->settle();
   EXPECT_EQ(sync->status(), Status::completed);
   EXPECT_EQ(callback->syncCalls, std::vector<std::string>{"9 sync 0"});
}

TEST_F(Service, BufferLimitSplitsACommandIntoRunsAndFlushesEach) {
   service->hasNotificationActiveIs(true);
   service->agentCommandCallbackWithFormatIs(callback);
   service->settingsIs({.maxRunTime = 1.0, .bufferSize = 8});
   callback->count = 5;
   auto sink = Zop::makePtr<lumo::StringSink>();
   auto r = add("r", "bb", sink);
   // Dispatch, then one run per slice; every run prints two lines (8 bytes).
   EXPECT_TRUE(scheduler->runOnce());
   EXPECT_EQ(r->status(), Status::running);
   EXPECT_TRUE(scheduler->runOnce());
   EXPECT_EQ(sink->data(), "bb:0\nbb:1\n");
   EXPECT_TRUE(scheduler->runOnce());
   EXPECT_EQ(sink->data(), "bb:0\nbb:1\nbb:2\nbb:3\n");
   scheduler->settle();
   EXPECT_EQ(sink->data(), "bb:0\nbb:1\nbb:2\nbb:3\nbb:4\n");
   EXPECT_EQ(r->status(), Status::completed);
}

TEST_F(Service, RunTimeIsTheSmallerOfTheReactorsValueAndTheServiceLimit) {
   service->hasNotificationActiveIs(true);
   service->agentCommandCallbackWithFormatIs(callback);
   callback->count = 100;
   callback->cost = 10 * Zop::kMillisecond;
   auto sink = Zop::makePtr<lumo::StringSink>();
   // The reactor's value is 0.1 s: with a 1 s service limit a run is 10 items.
   service->settingsIs({.maxRunTime = 1.0, .bufferSize = 1 << 20});
   add("r", "x", sink);
   scheduler->runOnce();
   scheduler->runOnce();
   EXPECT_EQ(std::count(sink->data().begin(), sink->data().end(), '\n'), 10);
   // A 25 ms service limit wins over the reactor's 0.1 s.
   service->settingsIs({.maxRunTime = 0.025, .bufferSize = 1 << 20});
   scheduler->runOnce();
   EXPECT_EQ(std::count(sink->data().begin(), sink->data().end(), '\n'), 13);
}

TEST_F(Service, RemovingARequestAbandonsItsReactor) {
   service->hasNotificationActiveIs(true);
   service->agentCommandCallbackWithFormatIs(callback);
   service->settingsIs({.maxRunTime = 1.0, .bufferSize = 1});
   callback->count = 50;
   auto sink = Zop::makePtr<lumo::StringSink>();
   add("r", "x", sink);
   scheduler->runOnce();
   scheduler->runOnce();
   EXPECT_EQ(callback->alive, 1);
   EXPECT_EQ(service->activeCommands(), 1u);
   dir->entryDel("r");
   EXPECT_EQ(callback->alive, 0);
   scheduler->settle();
   EXPECT_EQ(sink->data(), "x:0\n");
}

}  // namespace
