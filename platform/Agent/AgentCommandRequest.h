#pragma once
// The agent's command-request service.
//
// The switch's command line asks an agent for state by writing an
// AgentCommandRequest (a name, the command text, the output socket and the
// output format) into a request directory (a Zop::Dir). The service,
// AgentCommandRequestDirSm, watches that directory and hands each new request
// to the callback registered with it, an AgentCommandCallbackWithFormat:
//
//   createAgentAsyncCommandRequestSm(request)  the reactor that serves the
//      request, or null. The service calls the reactor's handleInitialized()
//      once; the reactor calls initializeSm() when it is ready, and from then
//      on the service runs handleAsyncCommand() again and again, one run per
//      scheduler slice, until the reactor sets executionCompleted.
//   handleCommand(socket, command, format)     the synchronous path, used
//      when no reactor was made for the request.
//
// Inside a run, the reactor prints through printer() (lumo::Printer on the
// request's output, in the request's format) and asks shouldYield() between
// pieces of work: yes once the run has used its time (the smaller of the
// reactor's time value, in seconds, and the service's longest run) or has
// produced the service's output buffer size since the run began. Output is
// flushed to the request's sink after every run.
//
// A reactor that also gives the thread back whenever the scheduler asks
// (Ruv::taskShouldYield(), inside pieces its own budget never cuts) calls
// pauseRun() before returning from such a run: the next run then continues
// the paused one, its time and output counted from where the paused run
// began. What the command's own budget decides (and so what the command
// prints) is then the same however often the scheduler cut it.
//
// The request's status tells the command line where it stands: pending until
// the service takes it, running while its reactor runs, completed when the
// reactor has completed (or the synchronous path has run). Removing a
// request from the directory abandons it; its reactor is dropped.
//
// Everything runs on the reactor thread; notifications only record work, the
// service's tasks do it.

#include <deque>
#include <map>
#include <memory>

#include "Ruv/TaskScheduler.h"
#include "Zop/Clock.h"
#include "Zop/Dir.h"
#include "lumo/Printer.h"

namespace Agent {

class AgentCommandRequest : public Zop::PtrInterface {
public:
   enum class Status : uint32_t { pending = 0, running = 1, completed = 2 };

   class Notifiee : public Zop::BaseNotifiee<AgentCommandRequest> {
   public:
      virtual void handleStatus() {}
   };

   AgentCommandRequest(Zop::String name, Zop::String command, int socket,
                       Zop::Ptr<lumo::OutputSink> output, lumo::Format format)
       : name_(std::move(name)),
         command_(std::move(command)),
         socket_(socket),
         output_(std::move(output)),
         format_(format) {}

   const Zop::String& name() const { return name_; }
   const Zop::String& command() const { return command_; }
   int socket() const { return socket_; }
   const Zop::Ptr<lumo::OutputSink>& output() const { return output_; }
   lumo::Format format() const { return format_; }

   Status status() const { return status_.get(); }
   void statusIs(Status s) { status_.is(*this, s); }

   Zop::NotifierList<Notifiee>& notifieeList() { return notifiees_; }

private:
   const Zop::String name_;
   const Zop::String command_;
   const int socket_;
   const Zop::Ptr<lumo::OutputSink> output_;
   const lumo::Format format_;
   Zop::NotifierList<Notifiee> notifiees_;
   Zop::ScalarAttr<AgentCommandRequest, Status> status_{&Notifiee::handleStatus, Status::pending};
};

inline Zop::Ptr<AgentCommandRequest> agentCommandRequestFactory(const Zop::String& name,
                                                                const Zop::String& command,
                                                                int socket,
                                                                Zop::Ptr<lumo::OutputSink> output,
                                                                lumo::Format format) {
   return Zop::makePtr<AgentCommandRequest>(name, command, socket, std::move(output), format);
}

// The service's settings.
struct AgentCommandServiceSettings {
   // The longest one run of a command reactor may take, in seconds.
   double maxRunTime = 0.005;
   // Output a run may produce before shouldYield() says yes.
   size_t bufferSize = 64 * 1024;
};

class AgentAsyncCommandRequestSm : public Zop::PtrInterface {
public:
   enum class ContinuationState : uint32_t { initial = 0, continuing = 1 };

   AgentAsyncCommandRequestSm(Zop::String name, Zop::Ptr<AgentCommandRequest> request,
                              double timeValue, Zop::Ptr<Zop::Clock> clock);

   const Zop::String& name() const { return name_; }
   const Zop::Ptr<AgentCommandRequest>& request() const { return request_; }
   double timeValue() const { return timeValue_; }
   const Zop::Ptr<Zop::Clock>& clock() const { return clock_; }

   // Called once by the service after creation; a reactor that overrides it
   // calls initializeSm() when it is ready to run.
   virtual void handleInitialized() { initializeSm(); }
   // One run of the command.
   virtual void handleAsyncCommand() = 0;

   bool initialized() const { return initialized_; }
   bool executionCompleted() const { return executionCompleted_; }
   void executionCompletedIs(bool v) { executionCompleted_ = v; }
   // initial during the first run, continuing during every later one.
   ContinuationState continuationState() const {
      return runs_ <= 1 ? ContinuationState::initial : ContinuationState::continuing;
   }
   uint64_t runs() const { return runs_; }
   bool shouldYield() const;
   // This run stops only because the scheduler asked: the next run goes on
   // with this run's budget (see the header comment).
   void pauseRun() { paused_ = true; }
   lumo::Printer& printer() { return printer_; }

   // The service's side: one run under `settings`, then a flush.
   void runCommand(const AgentCommandServiceSettings& settings);

protected:
   void initializeSm() { initialized_ = true; }

private:
   const Zop::String name_;
   const Zop::Ptr<AgentCommandRequest> request_;
   const double timeValue_;
   const Zop::Ptr<Zop::Clock> clock_;
   lumo::Printer printer_;
   bool initialized_ = false;
   bool executionCompleted_ = false;
   uint64_t runs_ = 0;
   bool paused_ = false;
   Zop::Time runStart_ = 0;
   Zop::Time runBudget_ = 0;
   uint64_t bytesAtRunStart_ = 0;
   size_t bufferSize_ = 0;
};

class AgentCommandCallbackWithFormat : public Zop::PtrInterface {
public:
   AgentCommandCallbackWithFormat(Zop::String agentName, Zop::String callbackName)
       : agentName_(std::move(agentName)), callbackName_(std::move(callbackName)) {}
   const Zop::String& agentName() const { return agentName_; }
   const Zop::String& callbackName() const { return callbackName_; }

   virtual Zop::Ptr<AgentAsyncCommandRequestSm> createAgentAsyncCommandRequestSm(
       const Zop::Ptr<AgentCommandRequest>& request) = 0;
   virtual void handleCommand(int socket, const Zop::String& command, lumo::Format format) = 0;

private:
   const Zop::String agentName_;
   const Zop::String callbackName_;
};

class AgentCommandRequestDirSm : public Zop::PtrInterface {
public:
   AgentCommandRequestDirSm(Zop::Ptr<Ruv::TaskScheduler> scheduler, Zop::Ptr<Zop::Dir> dir);

   const Zop::Ptr<Zop::Dir>& dir() const { return dir_; }
   const AgentCommandServiceSettings& settings() const { return settings_; }
   void settingsIs(const AgentCommandServiceSettings& s) { settings_ = s; }

   // Whether the service watches the directory. Switching it on takes every
   // request still pending in the directory.
   bool hasNotificationActive() const;
   void hasNotificationActiveIs(bool on);

   const Zop::Ptr<AgentCommandCallbackWithFormat>& agentCommandCallbackWithFormat() const {
      return callback_;
   }
   void agentCommandCallbackWithFormatIs(const Zop::Ptr<AgentCommandCallbackWithFormat>& cb);

   // Reactors being run.
   size_t activeCommands() const { return active_.size(); }

protected:
   ~AgentCommandRequestDirSm() override;

private:
   class DirNotifiee;
   struct Active;
   void handleEntry(const Zop::String& name);
   void dispatchPending();
   void dispatch(const Zop::Ptr<AgentCommandRequest>& request);
   void runActive(const Zop::String& name);

   const Zop::Ptr<Ruv::TaskScheduler> scheduler_;
   const Zop::Ptr<Zop::Dir> dir_;
   AgentCommandServiceSettings settings_;
   Zop::Ptr<AgentCommandCallbackWithFormat> callback_;
   std::unique_ptr<DirNotifiee> notifiee_;
   std::deque<Zop::String> pending_;
   Zop::Ptr<Ruv::Task> dispatchTask_;
   std::map<Zop::String, std::unique_ptr<Active>> active_;
};

}  // namespace Agent
