#pragma once
// Scenario: the command language of kivsim, over one simulated switch.
//
// One command a line; words are separated by blanks and `#` starts a comment.
// Commands that change state print nothing; looking commands (hw, status,
// check, syslog, trace, echo, help, show, request) print to the output stream given. The
// commands and their usage are in one table (sim/ScenarioCommands). A line is
// checked word by word before anything is applied, so a bad line changes
// nothing and names the offending word: "file:line: message".
//
// The same Scenario serves the program (files, standard input, the prompt)
// and the tests.

#include <cstdint>
#include <iosfwd>
#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "Trace/Trace.h"
#include "sim/ScenarioCommands.h"
#include "sim/Switch.h"

namespace sim {

struct ScenarioOptions {
   // hw, show and request print JSON without being asked to.
   bool json = false;
   // Trace level of the scenario's Duolog (5 decisions, 8 functions).
   Trace::Level traceLevel = Trace::kDecisions;
   // The text trace, when wanted; must outlive the Scenario.
   std::ostream* traceStream = nullptr;
   // Every task yields after this many items (0: the scheduler's default).
   uint64_t yieldEvery = 0;
   // Every task yields after this much real time (0: not by real time). Where
   // runs are cut then depends on the machine; for measuring.
   Zop::Time realTimeSlice = 0;
   // Notification handlers are timed, for the figures.
   bool timeHandlers = false;
   // The switch's dataplane (sim/Dataplane.h); none: the simulated table.
   // `status` adds its lines.
   std::shared_ptr<Dataplane> dataplane = nullptr;
   // Adopt mode: the dataplane's routes of other programs are FIB routes
   // (see sim/RouteAdopter.h; the caller has the dataplane follow them with
   // adoptIs()); routes skipped are noted on `adoptNotes`.
   bool adopt = false;
   std::ostream* adoptNotes = nullptr;
   // At each settle after which the feature runs and did not at the settle
   // before (an enable), time the floor on the switch as it stands
   // (sim/Floor.h) and keep it with the settle's figures. Its table is
   // freed and given back before the peak resident size goes on, so the
   // figures of memory leave it out.
   bool floor = false;
};

struct ScenarioResult {
   enum class Kind : uint8_t { ok, checkFailed, badLine };
   Kind kind = Kind::ok;
   // For a bad line: "file:line: message".
   std::string message;
   // The command the line ran, its word spelt out (empty for a blank line).
   std::string command;
   // The line was exit or quit: nothing more is to be read.
   bool stop = false;
   bool ok() const { return kind == Kind::ok; }
};

struct ScenarioStats {
   // One settle: where it was, the slices it ran, the virtual time it moved
   // the clock by and the real time it took; and since the settle before it
   // (so including the commands that made the work): their real time, the
   // hardware writes, the longest task run and the longest notification
   // handler (0 unless handlers are timed). Memory at its end: the peak
   // resident size of the process so far and the heap in use.
   struct Settle {
      std::string where;
      uint64_t slices = 0;
      int64_t virtualNs = 0;
      int64_t realNs = 0;
      int64_t commandsNs = 0;
      uint64_t hwWrites = 0;
      int64_t longestRunNs = 0;
      std::string longestRunTask;
      int64_t longestHandlerNs = 0;
      std::string longestHandlerNotifiee;
      uint64_t peakResidentKb = 0;
      uint64_t heapInUseKb = 0;
      // With ScenarioOptions::floor, after an enable: the floor's time and
      // writes; 0 otherwise.
      int64_t floorNs = 0;
      uint64_t floorWrites = 0;
   };
   uint64_t commands = 0;
   uint64_t slices = 0;
   // Over the whole run.
   int64_t longestRunNs = 0;
   std::string longestRunTask;
   int64_t longestHandlerNs = 0;
   std::string longestHandlerNotifiee;
   std::vector<Settle> settles;
};

// How often one task or notification handler ran, and its longest run.
struct RunFigure {
   std::string name;
   uint64_t runs = 0;
   int64_t longestNs = 0;
};

// VmHWM of this process, in kB; 0 where /proc is not there.
uint64_t peakResidentKb();

class Scenario {
public:
   using Options = ScenarioOptions;
   using Result = ScenarioResult;

   explicit Scenario(Options options = {});
   ~Scenario();
   Scenario(const Scenario&) = delete;
   Scenario& operator=(const Scenario&) = delete;

   // Runs the lines of `in` until the end or the first bad line. A failing
   // check does not stop the run; the result then says checkFailed.
   Result run(std::istream& in, const std::string& fileName, std::ostream& out);
   // Runs one line (line number `lineNo` of `fileName`, for messages).
   Result runLine(const std::string& line, const std::string& fileName, uint64_t lineNo,
                  std::ostream& out);

   sim::Switch& sw() { return *switch_; }
   // Per task name, and per notification handler (its notifiee class, timed
   // only with Options::timeHandlers), over the whole run: longest first.
   std::vector<RunFigure> taskFigures() const;
   std::vector<RunFigure> handlerFigures() const;
   // The VRFs and segments a line may name now (the routing agent's VRFs and
   // the firewall configuration's), for completion.
   ScenarioNames names() const;
   const ScenarioStats& stats() const { return stats_; }
   // The process's peak resident size so far, in kB, without the floor's
   // tables (see ScenarioOptions::floor); 0 where /proc is not there.
   uint64_t peakResidentKb() const;
   const Trace::Duolog& trace() const { return duolog_; }

private:
   using Words = std::vector<std::string>;

   // Each returns false when a check found a difference; throws Bad.
   bool execute(const Words& w, std::ostream& out);
   void measureFloorNow(ScenarioStats::Settle& s);
   void vrf(const Words& w);
   void fib(const Words& w);
   void resolver(const Words& w);
   void resolve(const Words& w);
   void urpf(const Words& w);
   void allocator(const Words& w);
   void grant(const Words& w);
   void revoke(const Words& w);
   void routingHelper(const Words& w);
   void routing(const Words& w);
   void hwfail(const Words& w);
   void hwcapacity(const Words& w);
   void fwVrf(const Words& w);
   void segment(const Words& w);
   void prefix(const Words& w);
   void policy(const Words& w);
   void host(const Words& w);
   void send(const Words& w, std::ostream& out);
   // A dataplane that forwards gets the policies as its rules (when they
   // changed), and its rule counts go to the live firewall counters.
   void rulesToDataplane();
   void countsFromDataplane();
   void settle();
   void step(const Words& w);
   void hw(const Words& w, std::ostream& out);
   void status(const Words& w, std::ostream& out);
   // For a check difference about one prefix: the library's record of it,
   // the syslog messages that name it and the last trace line about it.
   std::string whereToLook(const std::string& difference) const;
   // Adds the scheduler's and the handlers' per-name figures since their
   // last reset to `tasks` and `handlers`.
   void addFigures(std::map<std::string, RunFigure>& tasks,
                   std::map<std::string, RunFigure>& handlers) const;
   bool check(const Words& w, std::ostream& out);
   void syslog(const Words& w, std::ostream& out);
   void trace(const Words& w, std::ostream& out);
   void gen(const Words& w);
   void counters(const Words& w);
   void show(const Words& w, std::ostream& out);
   void help(const Words& w, std::ostream& out);

   Options options_;
   Trace::Duolog duolog_;
   Trace::ScopedDuolog guard_;
   std::unique_ptr<sim::Switch> switch_;
   ScenarioStats stats_;
   // Per-name figures of the settles so far (see addFigures).
   std::map<std::string, RunFigure> taskTotals_;
   std::map<std::string, RunFigure> handlerTotals_;
   // Where the last settle ended, for the next one's figures.
   int64_t sinceSettleNs_ = 0;
   bool ranAtSettle_ = false;  // the feature, at the last settle (for the floor)
   uint64_t peakBeforeFloorKb_ = 0;
   uint64_t hwWritesAtSettle_ = 0;
   // The line being run, for the figures.
   std::string where_;
   // The action of each policy (VRF, destination, source) given as deny; the
   // others permit.
   std::map<std::tuple<std::string, std::string, std::string>, bool> denied_;
   std::vector<Dataplane::Rule> rules_;
};

}  // namespace sim
