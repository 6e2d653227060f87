#pragma once
// Random histories of kivsim scenario lines and their judge, shared by the
// history test (tests/sim/HistoryTest.cpp) and the history fuzzer
// (fuzz/fuzz_history.cpp).
//
// Generator draws lines from the switch's current state, so that most are
// accepted (a refused line is left out of the history); every choice comes
// from the entropy it is given (a seeded generator, or a fuzzer's bytes).
//
// Runner runs lines through the scenario engine, over a switch whose every
// task yields after every item. After every scheduler slice (a `step` or a
// `settle` is run one slice at a time) it checks what holds at every moment:
// no hardware entry carries the invalid id, no record of the library lies
// outside its segment trie. After every settle it judges:
//   - the hardware table counted no error (the library never names an old
//     route the table does not hold, nor removes or rewrites a FIB route's
//     entry, nor writes an id where there is no entry), faults or not;
//   - normally, the oracle's check (hardware against configuration, FIB,
//     grants and resolver answers, and against the library's records) finds
//     nothing;
//   - from an `hwfail ... on/once` on, hardware refusals may leave the
//     hardware short of what the configuration asks (refused installs and id
//     writes are not retried), but never at odds with the library's records
//     except at the keys that were made to fail. Faults only ever hit
//     prefixes that are never FIB routes, so a refused write never leaves a
//     FIB route's id behind. Once no fault is left and the firewall has gone
//     from on to off (a teardown, which must remove everything, refused
//     removals included), the full check applies again from the next settle.

#include <functional>
#include <iterator>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "sim/Scenario.h"
#include "support/Json.h"

namespace KivTest {

using Lines = std::vector<std::string>;

// ---- The universe a history draws from ----

const char* const kVrfs[] = {"red", "blue", "green"};
const char* const kSegments[] = {"a", "b", "c"};
const char* const kPolicies[] = {"p1", "p2"};
// FIB routes come from this pool only.
const char* const kFibPool[] = {
    "10.0.0.0/8",  "10.1.0.0/16",   "10.1.1.0/24",     "10.1.1.1/32",       "10.1.2.0/24",
    "10.2.0.0/16", "2001:db8::/32", "2001:db8:1::/48", "2001:db8:1:1::/64", "2001:db8:1:1::1/128"};
// Segment prefixes come from both pools; faults hit only this one.
const char* const kSegmentOnlyPool[] = {"10.1.0.0/17",     "10.1.128.0/17",    "10.1.1.0/25",
                                        "10.3.0.0/16",     "10.1.2.2/32",      "2001:db8:1::/56",
                                        "2001:db8:2::/48", "2001:db8:1:1::/80"};
// Prefix-list entries that can never be segment prefixes.
const char* const kInvalidPool[] = {"10.1.1.1/16", "224.1.0.0/16", "0.0.0.0/0",
                                    "::/0",        "ff02::/16",    "2001:db8::1/32"};

inline std::vector<std::string> words(const std::string& line) {
   std::istringstream in(line);
   std::vector<std::string> out;
   for (std::string w; in >> w;) {
      out.push_back(w);
   }
   return out;
}

// How a history is drawn.
enum class Pace : uint8_t {
   // Changes one by one, often settled in between.
   steady,
   // Lifecycle events (firewall, uRPF, VRFs, segments, id grants, routing
   // helper and layer) in bursts, a few scheduler slices apart, each burst
   // inside the windows the ones before it opened; settled only at its end.
   churn,
};

// ---- Running and judging ----

// One history being run: the scenario engine, and what the judge needs to
// know about the faults made so far.
class Runner {
public:
   // `dataplane`: the switch's (none: the simulated table).
   explicit Runner(std::shared_ptr<sim::Dataplane> dataplane = nullptr)
       : scenario_(options(std::move(dataplane))) {}

   // Runs one line. Nullopt when the engine refused it (it changed nothing);
   // otherwise what the judge found after it (only a settle is judged).
   std::optional<Lines> run(const std::string& line) {
      // The scheduler's work is run here, a slice at a time, so that what
      // holds at every moment is looked at after each; the engine then finds
      // nothing left for a settle (it still records its figures).
      if (auto slices = slicesOf(line)) {
         Lines problems = runSlices(*slices);
         if (!problems.empty() || line.rfind("step", 0) == 0) {
            return problems;
         }
      }
      const bool firewallBefore = sw().fwConfig()->fwActive();
      std::ostringstream out;
      auto result = scenario_.runLine(line, "history", ++lineNo_, out);
      if (result.kind == sim::ScenarioResult::Kind::badLine) {
         return std::nullopt;
      }
      const bool firewallAfter = sw().fwConfig()->fwActive();
      if (firewallBefore && !firewallAfter) {
         tornDown_ = true;
      } else if (!firewallBefore && firewallAfter) {
         tornDown_ = false;
      }
      const auto w = words(line);
      if (w[0] == "hwfail" && w[3] != "off") {
         faulty_ = true;
         tornDown_ = false;
         faultKeys_.insert(sim::HardwareRouteTable::Key{
             *sw().routing().vrfId(L3::VrfName(w[1])), Zop::strepToValue<Pexo::IpGenPrefix>(w[2])});
      }
      if (w[0] == "show" || w[0] == "request" || w[0] == "clear") {
         return judgeCommand(w, out.str());
      }
      if (w[0] != "settle") {
         return Lines();
      }
      ++checks_;
      return judge();
   }

   sim::Switch& sw() { return scenario_.sw(); }
   bool faulty() const { return faulty_; }
   // Settles judged in full, and while faults may have left something.
   uint64_t checks() const { return checks_; }
   uint64_t faultyChecks() const { return faultyChecks_; }
   // CLI commands run and judged.
   uint64_t commands() const { return commands_; }

private:
   // The slices a `step [N]` asks for, or "until idle" for a settle; nullopt
   // for any other line (a malformed one is the engine's to refuse).
   static std::optional<uint64_t> slicesOf(const std::string& line) {
      const auto w = words(line);
      if (w.size() == 1 && w[0] == "settle") {
         return ~uint64_t(0);
      }
      if (w.empty() || w[0] != "step" || w.size() > 2) {
         return std::nullopt;
      }
      if (w.size() == 1) {
         return 1;
      }
      if (w[1].empty() || w[1].find_first_not_of("0123456789") != std::string::npos ||
          w[1].size() > 6) {
         return std::nullopt;
      }
      return std::stoull(w[1]);
   }

   Lines runSlices(uint64_t slices) {
      const sim::Oracle oracle = sw().oracle();
      const bool untilIdle = slices == ~uint64_t(0);
      for (uint64_t i = 0; i < slices; ++i) {
         const bool ran =
             untilIdle ? sw().scheduler()->runUntilIdle(1) != 0 : sw().scheduler()->runOnce();
         if (!ran) {
            break;
         }
         Lines problems = oracle.alwaysDifferences();
         if (!problems.empty()) {
            problems.insert(problems.begin(), "after a scheduler slice:");
            return problems;
         }
      }
      return {};
   }

   static sim::ScenarioOptions options(std::shared_ptr<sim::Dataplane> dataplane) {
      sim::ScenarioOptions o;
      o.yieldEvery = 1;
      o.dataplane = std::move(dataplane);
      return o;
   }

   // A CLI command must have completed, left no request behind, and its JSON
   // must parse.
   Lines judgeCommand(const std::vector<std::string>& w, const std::string& output) {
      Lines problems;
      ++commands_;
      if (sw().cli()->cliRequestDirSm()->activeCommands() != 0 ||
          sw().cliRequestDir()->entryCount() != 0) {
         problems.push_back("a CLI command did not complete");
      }
      // A request with an unknown command word makes no reactor and prints
      // nothing; every show prints a JSON document.
      if (w.back() == "json" && !(w[0] == "request" && output.empty())) {
         try {
            test::parseJson(output);
         } catch (const std::exception& e) {
            problems.push_back(std::string("CLI output is not JSON: ") + e.what());
         }
      }
      return problems;
   }

   Lines judge() {
      const auto& hw = sw().hardware();
      if (faulty_ && hw.faults().empty() && tornDown_) {
         faulty_ = false;
         faultKeys_.clear();
      }
      Lines problems;
      faultyChecks_ += faulty_;
      if (faulty_) {
         for (const auto& [key, text] : sw().oracle().recordDifferences()) {
            if (!faultKeys_.count(key)) {
               problems.push_back(sim::keyText(key) + ": " + text);
            }
         }
      } else {
         problems = sw().check();
      }
      if (hw.counters().errors() != errorsSeen_) {
         problems.push_back("the hardware table counted errors, the last: " + hw.errorLog().back());
      }
      errorsSeen_ = hw.counters().errors();
      return problems;
   }

   sim::Scenario scenario_;
   uint64_t lineNo_ = 0;
   uint64_t checks_ = 0;
   uint64_t commands_ = 0;
   uint64_t faultyChecks_ = 0;
   uint64_t errorsSeen_ = 0;
   // Since a fault was made: what it may have left behind is not judged yet.
   bool faulty_ = false;
   // The firewall went from on to off since the last fault (or switch-on).
   bool tornDown_ = false;
   std::set<sim::HardwareRouteTable::Key> faultKeys_;
};

// ---- Generating ----

// Draws the next line from the switch's state, so that most lines are
// accepted; a refused line is simply left out of the history.
class Generator {
public:
   // `entropy` makes every choice; `faults`: whether the history makes the
   // hardware refuse writes; `length`: how many steps before the last one.
   Generator(std::function<uint64_t()> entropy, sim::Switch& sw, bool faults, size_t length,
             Pace pace = Pace::steady)
       : rng_(std::move(entropy)), sw_(sw), faults_(faults), length_(length), pace_(pace) {}

   bool done() const { return step_ >= length_; }

   // The opening: some VRFs, the firewall on, settled.
   Lines opening() {
      Lines out;
      // Half the histories run on a routing layer that reports a FIB route's
      // withdrawal before its entry leaves hardware.
      if (chance(2)) {
         out.push_back("routing withdraw report-first");
      }
      const size_t vrfs = 1 + rng_() % 3;
      for (size_t i = 0; i < vrfs; ++i) {
         out.push_back(vrfLine(kVrfs[i], i + 1));
      }
      if (pace_ == Pace::churn) {
         // Something to converge: segments with prefixes, FIB routes beneath.
         for (size_t i = 0; i < 6; ++i) {
            out.push_back("prefix " + std::string(pick(kVrfs)) + " " + anyPrefix() + " " +
                          pick(kSegments));
            out.push_back("fib " + std::string(pick(kVrfs)) + " " + pick(kFibPool) + " adj " +
                          std::to_string(11 + rng_() % 4));
         }
      }
      if (!chance(8)) {
         out.push_back("firewall on");
      }
      out.push_back("settle");
      return out;
   }

   // The next few lines (a heal is several).
   Lines next(const Runner& runner) {
      ++step_;
      if (runner.faulty() && (step_ >= length_ || chance(8))) {
         return heal();
      }
      if (pace_ == Pace::churn) {
         return churn();
      }
      if (step_ >= length_) {
         return {"settle"};
      }
      return {draw()};
   }

private:
   bool chance(uint32_t oneIn) { return rng_() % oneIn == 0; }
   template <class T, size_t N>
   const T& pick(const T (&items)[N]) {
      return items[rng_() % N];
   }
   std::string onOff() { return rng_() % 2 ? "on" : "off"; }
   std::string anyPrefix() { return chance(2) ? pick(kFibPool) : pick(kSegmentOnlyPool); }
   std::optional<VrfId> idOf(const std::string& name) {
      return sw_.routing().vrfId(L3::VrfName(name));
   }
   bool hasFaults(VrfId id) {
      for (const auto& [key, fault] : sw_.hardware().faults()) {
         if (key.vrfId == id) {
            return true;
         }
      }
      return false;
   }

   std::string vrfLine(const std::string& name, uint64_t id) {
      std::string line = "vrf " + name + " id " + std::to_string(id);
      if (chance(2)) {
         line += " routing " + onOff();
      }
      if (chance(2)) {
         line += " routing6 " + onOff();
      }
      return line;
   }

   // Every fault off, then the firewall from on to off, settled.
   Lines heal() {
      Lines out;
      for (const auto& [key, fault] : sw_.hardware().faults()) {
         const L3::VrfName name = sw_.l3Status()->vrfName(key.vrfId);
         out.push_back("hwfail " + name.value() + " " + valueToStrep(key.prefix) + " off");
      }
      if (!sw_.fwConfig()->fwActive()) {
         out.push_back("firewall on");
         out.push_back("settle");
      }
      out.push_back("firewall off");
      out.push_back("settle");
      if (!chance(4)) {
         out.push_back("firewall on");
      }
      return out;
   }

   // ---- Fast churn ----

   // One event of a burst and the slices after it, or the burst's end: the
   // routing side freed (mostly) and a settle.
   Lines churn() {
      if (step_ >= length_ || burstLeft_ == 0) {
         burstLeft_ = 2 + rng_() % 7;
         Lines out;
         // Mostly the routing side can finish the handshake at the settle,
         // so that the judge decides from the inputs alone; sometimes it
         // cannot, and the status is judged at rest.
         if (!sw_.routingStatusHelper()->ready() && (step_ >= length_ || !chance(4))) {
            out.push_back("routing-helper ready");
         }
         if (routingBusy_ && (step_ >= length_ || !chance(4))) {
            out.push_back("routing busy off");
            routingBusy_ = false;
         }
         out.push_back("settle");
         return out;
      }
      --burstLeft_;
      Lines out{chance(4) ? draw() : lifecycle()};
      if (!chance(5)) {
         out.push_back("step " + std::to_string(1 + rng_() % 4));
      }
      return out;
   }

   std::string lifecycle() {
      const std::string v = vrf();
      const std::string seg = pick(kSegments);
      switch (rng_() % 9) {
         case 0:
            return std::string("firewall ") + (sw_.fwConfig()->fwActive() ? "off" : "on");
         case 1: {
            // uRPF is on only briefly, mostly.
            const bool v6 = chance(2);
            const bool on =
                v6 ? sw_.ip6Status()->urpfConfigured() : sw_.ipStatus()->urpfConfigured();
            return std::string("urpf ") + (v6 ? "ipv6 " : "ipv4 ") +
                   (on ? (chance(4) ? "on" : "off") : "on");
         }
         case 2: {
            // A VRF deleted, and later back under the same id (or another).
            if (auto id = idOf(v)) {
               goneVrfs_[v] = id->value();
               return "vrf " + v + " delete";
            }
            auto gone = goneVrfs_.find(v);
            const uint64_t id =
                gone != goneVrfs_.end() && !chance(4) ? gone->second : 1 + rng_() % 4;
            return vrfLine(v, id);
         }
         case 3: {
            auto fwVrf = sw_.fwConfig()->vrf(L3::VrfName(v));
            const bool has = fwVrf && fwVrf->segment(seg);
            return "segment " + v + " " + seg + (has ? " delete" : "");
         }
         case 4: {
            // The allocator takes a grant back, or hands one out.
            const auto& grants = sw_.allocator().grants();
            if (!grants.empty() && !chance(3)) {
               auto it = grants.begin();
               std::advance(it, long(rng_() % grants.size()));
               const auto name = sw_.l3Status()->vrfName(it->first.vrfId());
               return std::string(chance(5) ? "regrant " : "revoke ") + name.value() + " " +
                      it->first.segment();
            }
            const auto pending = sw_.allocator().pendingRequests();
            if (pending.empty()) {
               return chance(2) ? "allocator auto" : "allocator manual";
            }
            const auto& key = pending[rng_() % pending.size()];
            const std::string name = sw_.l3Status()->vrfName(key.vrfId()).value();
            switch (rng_() % 4) {
               case 0:
                  return "grant " + name + " " + key.segment() + " invalid";
               case 1:
                  return "grant " + name + " " + key.segment() + " " +
                         std::to_string(1 + rng_() % 8);
               default:
                  return "grant " + name + " " + key.segment();
            }
         }
         case 5:
            return std::string("routing-helper ") +
                   (sw_.routingStatusHelper()->ready() ? "unready" : "ready");
         case 6:
            routingBusy_ = !routingBusy_;
            return std::string("routing busy ") + (routingBusy_ ? "on" : "off");
         case 7:
            return "prefix " + v + " " + anyPrefix() + " " + seg;
         default:
            return "fw-vrf " + v + (chance(3) ? " delete" : "");
      }
   }

   // A VRF the switch has, mostly; sometimes any name.
   std::string vrf() {
      const auto names = sw_.routing().vrfNames();
      if (names.empty() || chance(5)) {
         return pick(kVrfs);
      }
      return names[rng_() % names.size()].value();
   }

   // Mostly a prefix of the segment-only pool that the VRF has in hardware,
   // or at least configured: faults go where the library writes.
   std::string faultPrefix(const std::string& v) {
      std::vector<std::string> installed, configured;
      auto fwVrf = sw_.fwConfig()->vrf(L3::VrfName(v));
      auto id = idOf(v);
      for (const char* text : kSegmentOnlyPool) {
         const auto p = Zop::strepToValue<Pexo::IpGenPrefix>(text);
         if (id && sw_.hardware().entry(sim::HardwareRouteTable::Key{*id, p})) {
            installed.push_back(text);
         } else if (fwVrf && fwVrf->prefixListHas(p)) {
            configured.push_back(text);
         }
      }
      const auto& from = !installed.empty() && !chance(4) ? installed : configured;
      if (from.empty() || chance(6)) {
         return pick(kSegmentOnlyPool);
      }
      return from[rng_() % from.size()];
   }

   std::string draw() {
      if (focus_ && chance(2)) {
         // Right after a fault: work on its prefix, so that the hardware is
         // asked to write it.
         const auto [v, p] = *focus_;
         focus_.reset();
         switch (rng_() % 6) {
            case 0:
            case 1:
               return "prefix " + v + " " + p + " delete";
            case 2:
            case 3:
               return "prefix " + v + " " + p + " " + pick(kSegments);
            case 4:
               return "resolve " + v + " " + p + (chance(2) ? " none" : " adj 13");
            default:
               return "vrf " + v + " id " + std::to_string(idOf(v) ? idOf(v)->value() : 1) +
                      " routing " + onOff() + " routing6 " + onOff();
         }
      }
      const std::string v = vrf();
      switch (rng_() % 36) {
         case 0:
         case 1:
         case 2:
         case 3:
         case 4:
         case 5:
         case 6:
         case 7:
            return "prefix " + v + " " + anyPrefix() + " " + pick(kSegments);
         case 8:
            return "prefix " + v + " " + pick(kInvalidPool) + " " + pick(kSegments);
         case 9:
         case 10: {
            // One that is configured, when the draw finds one.
            auto fwVrf = sw_.fwConfig()->vrf(L3::VrfName(v));
            std::string p = anyPrefix();
            for (int i = 0;
                 fwVrf && i < 4 && !fwVrf->prefixListHas(Zop::strepToValue<Pexo::IpGenPrefix>(p));
                 ++i) {
               p = chance(6) ? pick(kInvalidPool) : anyPrefix();
            }
            return "prefix " + v + " " + p + " delete";
         }
         case 11:
            return std::string("segment ") + v + " " + pick(kSegments) +
                   (chance(3) ? " delete" : "");
         case 12:
            return std::string("fw-vrf ") + v + (chance(4) ? " delete" : "");
         case 13:
            return std::string("policy ") + v + " " + pick(kSegments) + " " + pick(kSegments) +
                   " " + (chance(3) ? "delete" : pick(kPolicies));
         case 14:
         case 15:
         case 16:
         case 17:
            return "fib " + v + " " + pick(kFibPool) + " adj " + std::to_string(11 + rng_() % 4);
         case 18:
         case 19:
            return "fib " + v + " " + pick(kFibPool) + " delete";
         case 20: {
            // A VRF made, changed or deleted; one whose prefixes have faults
            // keeps its id, so that its faults can be switched off again.
            auto id = idOf(v);
            if (id && hasFaults(*id)) {
               return vrfLine(v, id->value());
            }
            if (id && chance(4)) {
               return "vrf " + v + " delete";
            }
            return vrfLine(v, id && chance(2) ? id->value() : 1 + rng_() % 4);
         }
         case 21:
            return chance(2) ? "resolver auto" : "resolver manual";
         case 22:
            return "resolve " + v + " " + anyPrefix() +
                   (chance(3) ? " none" : " adj " + std::to_string(11 + rng_() % 4));
         case 23:
            return std::string("urpf ") + (chance(2) ? "ipv4 " : "ipv6 ") +
                   (chance(6) ? "on" : "off");
         case 24: {
            const uint32_t r = rng_() % 8;
            if (r < 2) {
               return "allocator manual";
            }
            if (r < 6) {
               return "allocator auto";
            }
            const uint64_t first = 1 + rng_() % 6;
            return "allocator auto pool " + std::to_string(first) + "-" +
                   std::to_string(first + rng_() % 4);
         }
         case 25: {
            const auto pending = sw_.allocator().pendingRequests();
            if (pending.empty()) {
               return "settle";
            }
            const auto& key = pending[rng_() % pending.size()];
            return "grant " + sw_.l3Status()->vrfName(key.vrfId()).value() + " " + key.segment() +
                   (chance(2) ? " " + std::to_string(1 + rng_() % 8) : "");
         }
         case 26:
            return std::string("firewall ") + (chance(4) ? "off" : "on");
         case 27:
            return "default-drop " + onOff();
         case 28:
         case 29:
         case 30:
            if (faults_) {
               const uint32_t r = rng_() % 4;
               const std::string p = faultPrefix(v);
               if (r != 1) {
                  focus_.emplace(v, p);
               }
               return "hwfail " + v + " " + p + (r == 0 ? " on" : r == 1 ? " off" : " once");
            }
            return "settle";
         case 32: {
            // A show command over all VRFs, one VRF or one segment.
            static const char* const kShows[] = {"routes", "detail", "summary"};
            std::string line = std::string("show ") + pick(kShows);
            if (chance(2)) {
               line += " " + v;
               if (chance(2)) {
                  line += std::string(" ") + pick(kSegments);
               }
            }
            return line + (chance(3) ? "" : " json");
         }
         case 33:
            return std::string("show counters") + (chance(2) ? " " + v : "") +
                   (chance(3) ? "" : " json");
         case 34: {
            const std::string hits = std::to_string(rng_() % 1000);
            const std::string drops = std::to_string(rng_() % 100);
            switch (rng_() % 4) {
               case 0:
                  return "counters " + v + " policy p" + std::to_string(rng_() % 3) + " " + hits +
                         " " + drops;
               case 1:
                  return "counters " + v + " segment " + pick(kSegments) + " " + pick(kSegments) +
                         " " + hits + " " + drops;
               case 2:
                  return "counters " + v + " default-drop " + pick(kSegments) + " " + drops;
               default:
                  return "counters " + v + " policy p" + std::to_string(rng_() % 3) + " delete";
            }
         }
         case 35: {
            if (chance(2)) {
               return "clear counters";
            }
            // Raw request texts, well and badly formed.
            static const char* const kWords[] = {"HardwareRoutes",
                                                 "HardwareDetail",
                                                 "HardwareSummary",
                                                 "ShowHardwareCounters",
                                                 "hardwareroutes",
                                                 "",
                                                 "x"};
            std::string text = pick(kWords);
            for (uint64_t n = rng_() % 4; n > 0; --n) {
               text += "#" + (chance(2) ? v : pick(kSegments));
            }
            if (text.empty()) {
               text = "#";
            }
            return "request " + text + (chance(2) ? " json" : "");
         }
         default:
            return "settle";
      }
   }

   std::function<uint64_t()> rng_;
   sim::Switch& sw_;
   // The VRF and prefix of the fault just made.
   std::optional<std::pair<std::string, std::string>> focus_;
   const bool faults_;
   const size_t length_;
   const Pace pace_;
   size_t step_ = 0;
   // Fast churn: events left in the burst, VRFs deleted (with their last
   // id), and whether the routing layer was made busy.
   size_t burstLeft_ = 0;
   std::map<std::string, uint64_t> goneVrfs_;
   bool routingBusy_ = false;
};

}  // namespace KivTest
