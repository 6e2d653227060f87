#include "Agent/AgentCommandRequest.h"

#include <algorithm>

namespace Agent {

// ---- AgentAsyncCommandRequestSm ----

AgentAsyncCommandRequestSm::AgentAsyncCommandRequestSm(Zop::String name,
                                                       Zop::Ptr<AgentCommandRequest> request,
                                                       double timeValue, Zop::Ptr<Zop::Clock> clock)
    : name_(std::move(name)),
      request_(std::move(request)),
      timeValue_(timeValue),
      clock_(std::move(clock)),
      printer_(request_ ? request_->output() : nullptr,
               request_ ? request_->format() : lumo::Format::text) {}

bool AgentAsyncCommandRequestSm::shouldYield() const {
   if (printer_.bytesProduced() - bytesAtRunStart_ >= bufferSize_) {
      return true;
   }
   return clock_ && clock_->now() - runStart_ >= runBudget_;
}

void AgentAsyncCommandRequestSm::runCommand(const AgentCommandServiceSettings& settings) {
   ++runs_;
   if (!paused_) {
      runStart_ = clock_ ? clock_->now() : 0;
      bytesAtRunStart_ = printer_.bytesProduced();
   }
   paused_ = false;
   const double budget =
       timeValue_ > 0 ? std::min(timeValue_, settings.maxRunTime) : settings.maxRunTime;
   runBudget_ = Zop::secondsToTime(budget);
   bufferSize_ = settings.bufferSize;
   handleAsyncCommand();
   printer_.ioflush();
}

// ---- AgentCommandRequestDirSm ----

class AgentCommandRequestDirSm::DirNotifiee : public Zop::Dir::Notifiee {
public:
   explicit DirNotifiee(AgentCommandRequestDirSm* owner) : owner_(owner) {}
   void handleEntry(const Zop::String& name) override { owner_->handleEntry(name); }

private:
   AgentCommandRequestDirSm* owner_;
};

// One request being served: its reactor and the task that runs it.
struct AgentCommandRequestDirSm::Active {
   Zop::Ptr<AgentCommandRequest> request;
   Zop::Ptr<AgentAsyncCommandRequestSm> sm;
   Zop::Ptr<Ruv::Task> task;
};

AgentCommandRequestDirSm::AgentCommandRequestDirSm(Zop::Ptr<Ruv::TaskScheduler> scheduler,
                                                   Zop::Ptr<Zop::Dir> dir)
    : scheduler_(std::move(scheduler)),
      dir_(std::move(dir)),
      notifiee_(std::make_unique<DirNotifiee>(this)) {
   notifiee_->notificationActiveIs(false);
   notifiee_->notifierIs(dir_);
   dispatchTask_ =
       Ruv::makeTask(scheduler_, "AgentCommandRequestDirSm", [this] { dispatchPending(); });
}

AgentCommandRequestDirSm::~AgentCommandRequestDirSm() {
   for (auto& [name, a] : active_) {
      a->task->cancel();
   }
   dispatchTask_->cancel();
}

bool AgentCommandRequestDirSm::hasNotificationActive() const {
   return notifiee_->notificationActive();
}

void AgentCommandRequestDirSm::hasNotificationActiveIs(bool on) {
   if (on == notifiee_->notificationActive()) {
      return;
   }
   notifiee_->notificationActiveIs(on);
   if (on) {
      // Requests written while nobody watched are not lost.
      for (const auto& [name, entry] : dir_->entry()) {
         handleEntry(name);
      }
   }
}

void AgentCommandRequestDirSm::agentCommandCallbackWithFormatIs(
    const Zop::Ptr<AgentCommandCallbackWithFormat>& cb) {
   callback_ = cb;
   if (callback_ && !pending_.empty()) {
      dispatchTask_->scheduleTask();
   }
}

void AgentCommandRequestDirSm::handleEntry(const Zop::String& name) {
   auto request = dir_->entry<AgentCommandRequest>(name);
   if (!request) {
      // Gone (or not a request): a command being served is abandoned.
      auto it = active_.find(name);
      if (it != active_.end()) {
         it->second->task->cancel();
         active_.erase(it);
      }
      return;
   }
   if (request->status() == AgentCommandRequest::Status::pending) {
      pending_.push_back(name);
      if (callback_) {
         dispatchTask_->scheduleTask();
      }
   }
}

void AgentCommandRequestDirSm::dispatchPending() {
   while (!pending_.empty() && callback_) {
      const Zop::String name = pending_.front();
      pending_.pop_front();
      auto request = dir_->entry<AgentCommandRequest>(name);
      if (request && request->status() == AgentCommandRequest::Status::pending &&
          !active_.count(name)) {
         dispatch(request);
      }
      if (Ruv::taskShouldYield()) {
         dispatchTask_->scheduleTask();
         return;
      }
   }
}

void AgentCommandRequestDirSm::dispatch(const Zop::Ptr<AgentCommandRequest>& request) {
   Zop::Ptr<AgentCommandCallbackWithFormat> cb = callback_;
   Zop::Ptr<AgentAsyncCommandRequestSm> sm = cb->createAgentAsyncCommandRequestSm(request);
   if (!sm) {
      cb->handleCommand(request->socket(), request->command(), request->format());
      request->statusIs(AgentCommandRequest::Status::completed);
      return;
   }
   request->statusIs(AgentCommandRequest::Status::running);
   const Zop::String name = request->name();
   auto active = std::make_unique<Active>();
   active->request = request;
   active->sm = sm;
   active->task =
       Ruv::makeTask(scheduler_, "AgentCommand " + name, [this, name] { runActive(name); });
   Ruv::Task* task = active->task.ptr();
   active_[name] = std::move(active);
   sm->handleInitialized();
   task->scheduleTask();
}

void AgentCommandRequestDirSm::runActive(const Zop::String& name) {
   auto it = active_.find(name);
   if (it == active_.end()) {
      return;
   }
   // The run may drop the request (and so this entry) through the directory.
   Zop::Ptr<AgentAsyncCommandRequestSm> sm = it->second->sm;
   Zop::Ptr<AgentCommandRequest> request = it->second->request;
   if (!sm->initialized()) {
      // Not ready yet: it will be, by its own handlers; look again later.
      it->second->task->scheduleTaskLowestDelay(sm->timeValue() > 0 ? sm->timeValue() : 0.001);
      return;
   }
   sm->runCommand(settings_);
   it = active_.find(name);
   if (it == active_.end() || it->second->sm != sm) {
      return;
   }
   if (sm->executionCompleted()) {
      Zop::Ptr<Ruv::Task> hold = it->second->task;
      active_.erase(it);
      request->statusIs(AgentCommandRequest::Status::completed);
      return;
   }
   it->second->task->scheduleTask();
}

}  // namespace Agent
