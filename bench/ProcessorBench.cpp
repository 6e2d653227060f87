// The segment prefix processor on the simulated switch at scale, against the
// least work any implementation must do for the same result.
//
// Workload (fixed seed, built once): one VRF with routing disabled, holding
// 1,000,000 IPv4 FIB routes shaped like a real table (mostly /16-/24, a few
// per cent /25-/32), 90% of them inside 60 aggregate blocks (/8-/12) and the
// rest elsewhere; and 10,000 segment prefixes nested four levels deep inside
// those aggregates (the 60 aggregates, 1,500 /16s inside them, 6,000 /20s
// inside those, 2,000 /24s inside those, and 440 host prefixes), spread at
// random over 100 segments. The routing agent downloads the FIB in prefix
// order, as it does at start-up.
//
// Processor/*: builds the switch (VRF, FIB routes, segments with their ids
// granted) and settles it, untimed; then times the configuration side
// queuing every segment prefix (prefix-list entry and review list key) and
// settle() bringing the hardware to its final state. The oracle checks the
// result afterwards, untimed. Variants:
//   DefaultTrace            the trace as the library finds it (level 5)
//   TraceOff                a level 0 Duolog installed for the whole run
//   TraceOffYieldEveryItem  the same, with EveryNItemsYieldPolicy(1): in each
//                           run a task's first question is answered "go on"
//                           and every later one "yield", so a task does one
//                           or two items per run and the longest run is the
//                           longest piece of work a task cannot split. (With
//                           the virtual clock the default time-slice policy
//                           never yields, so in the other variants each task
//                           drains its whole list in one run.)
//
// Floor/*: the same segment prefixes in a Routing::TrieGen, each segment
// prefix that is not a FIB route programmed with the drop route and its id,
// then for every FIB route one longest match and one id write, into a
// hardware table of the simulated kind already holding the FIB routes.
// PrefixOrder visits the FIB routes in prefix order (as a walk of the FIB
// yields them); ShuffledOrder in random order, which shows what the order of
// the visits alone costs on tables of this size.
//
// Counters:
//   seconds             the timed phase (also the iteration time)
//   setup_s             building and settling the switch (untimed)
//   hw_writes           route programs + id writes during the timed phase
//   writes_per_fib      hw_writes / FIB routes
//   covered_fib         FIB routes inside some segment prefix
//   hw_errors           hardware table errors during the timed phase
//   longest_run_ms      longest single task run during the timed phase (the
//                       task's name is the label)
//   subnet_task_longest_ms, route_task_longest_ms
//                       the same for SegSubnetTask (segment review list) and
//                       SegSecRouteTask (FIB route review list)
//   slices              task runs during the timed phase
//   trace_level         maximum level of the Duolog in use
//   trace_lines         lines recorded during the timed phase
//   hwm_setup_mb        peak resident memory after setup (VmHWM, reset before
//                       the benchmark starts)
//   hwm_run_mb          peak resident memory after the timed phase
//   check_diffs         the oracle's differences after settling (must be 0;
//                       the first ten go to stderr)
//   ratio_vs_floor      seconds / Floor/PrefixOrder seconds
//   ratio_vs_shuffled_floor
//                       seconds / Floor/ShuffledOrder seconds

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "BenchSupport.h"
#include "Routing/Trie.h"
#include "Trace/Trace.h"
#include "sim/Switch.h"

namespace {

using bench::fibLength;
using bench::hardwareWrites;
using bench::peakResidentMb;
using bench::resetPeakResident;
using bench::secondsSince;
using Pexo::IpGenPrefix;
using Pexo::Prefix;

constexpr const char* kVrf = "bench";
constexpr uint32_t kVrfId = 1;
constexpr size_t kFibRoutes = 1'000'000;
constexpr size_t kSegments = 100;

// ---- The workload ----

struct SegmentPrefix {
   Prefix prefix;
   uint32_t segment;
};

struct Workload {
   std::vector<Prefix> fib;          // in prefix order, the order they are downloaded in
   std::vector<Prefix> fibShuffled;  // the same in random order
   std::vector<SegmentPrefix> segmentPrefixes;
   std::vector<Zop::String> segmentNames;
   size_t coveredFibRoutes = 0;
};

uint32_t maskTo(uint32_t a, unsigned len) {
   return len == 0 ? 0 : a & (~uint32_t(0) << (32 - len));
}

uint64_t adjIndexOf(size_t i) {
   return 1 + i % 4096;
}

const Workload& workload() {
   static const Workload w = [] {
      Workload w;
      std::mt19937_64 rng(20240611);

      // Aggregates: distinct unicast first octets, /8 to /12.
      std::vector<unsigned> octets;
      for (unsigned o = 1; o <= 223; ++o) {
         if (o != 127) {
            octets.push_back(o);
         }
      }
      std::shuffle(octets.begin(), octets.end(), rng);
      const std::vector<unsigned> lengths = [] {
         std::vector<unsigned> l;
         for (auto [len, n] : {std::pair{8u, 10}, {9u, 15}, {10u, 20}, {11u, 10}, {12u, 5}}) {
            l.insert(l.end(), size_t(n), len);
         }
         return l;
      }();
      std::vector<Prefix> aggregates;
      std::vector<double> weights;
      for (size_t i = 0; i < lengths.size(); ++i) {
         const uint32_t a = maskTo((octets[i] << 24) | uint32_t(rng() & 0x00FFFFFF), lengths[i]);
         aggregates.emplace_back(Pexo::IpAddr(a), lengths[i]);
         weights.push_back(double(uint64_t(1) << (32 - lengths[i])));
      }
      const std::vector<unsigned> outside(octets.begin() + long(lengths.size()), octets.end());
      std::discrete_distribution<size_t> pickAggregate(weights.begin(), weights.end());

      // FIB routes: 90% inside the aggregates, unique.
      std::unordered_set<uint64_t> seen;
      auto unique = [&seen](uint32_t a, unsigned len) {
         return seen.insert((uint64_t(a) << 6) | len).second;
      };
      while (w.fib.size() < kFibRoutes) {
         const unsigned len = fibLength(rng);
         uint32_t a = uint32_t(rng());
         if (rng() % 10 != 0) {
            const Prefix& agg = aggregates[pickAggregate(rng)];
            a = agg.addr().value() | (a & ~maskTo(~uint32_t(0), agg.len()));
         } else {
            a = (outside[rng() % outside.size()] << 24) | (a & 0x00FFFFFF);
         }
         a = maskTo(a, len);
         if (unique(a, len)) {
            w.fib.emplace_back(Pexo::IpAddr(a), len);
         }
      }

      // The routing agent downloads its table in prefix order, as at start-up.
      w.fibShuffled = w.fib;
      std::sort(w.fib.begin(), w.fib.end());
      // Segment prefixes, each level inside the one above.
      std::unordered_set<uint64_t> taken;
      std::vector<Prefix> level;
      auto addLevel = [&](const std::vector<Prefix>& parents, unsigned len, size_t n,
                          bool weighted) {
         std::vector<Prefix> out;
         std::vector<double> pw;
         for (const Prefix& p : parents) {
            pw.push_back(weighted ? double(uint64_t(1) << (32 - p.len())) : 1.0);
         }
         std::discrete_distribution<size_t> pick(pw.begin(), pw.end());
         while (out.size() < n) {
            const Prefix& parent = parents[pick(rng)];
            const uint32_t a = maskTo(
                parent.addr().value() | (uint32_t(rng()) & ~maskTo(~uint32_t(0), parent.len())),
                len);
            if (taken.insert((uint64_t(a) << 6) | len).second) {
               out.emplace_back(Pexo::IpAddr(a), len);
            }
         }
         return out;
      };
      std::vector<Prefix> all = aggregates;
      const auto l16 = addLevel(aggregates, 16, 1500, true);
      const auto l20 = addLevel(l16, 20, 6000, false);
      const auto l24 = addLevel(l20, 24, 2000, false);
      const auto l32 = addLevel(l24, 32, 440, false);
      for (const auto* l : {&l16, &l20, &l24, &l32}) {
         all.insert(all.end(), l->begin(), l->end());
      }
      for (const Prefix& p : all) {
         w.segmentPrefixes.push_back({p, uint32_t(rng() % kSegments)});
      }
      for (size_t s = 0; s < kSegments; ++s) {
         char name[16];
         std::snprintf(name, sizeof name, "seg%02zu", s);
         w.segmentNames.emplace_back(name);
      }

      auto trie = Routing::trieGenFactory("covered");
      for (const auto& sp : w.segmentPrefixes) {
         trie->routeIs(IpGenPrefix(sp.prefix), true);
      }
      for (const Prefix& p : w.fib) {
         w.coveredFibRoutes += trie->longestMatch(IpGenPrefix(p)).has_value();
      }
      return w;
   }();
   return w;
}

// ---- Measuring ----

RouteInfo dropRoute() {
   return RouteInfo(RouteType::routeTypeDrop,
                    sim::RoutingAgent::dropL2Index(1, Pexo::AddressFamily::ipv4));
}

// ---- The floor ----

struct FloorResult {
   double seconds = 0;
   uint64_t writes = 0;
};

enum class Order { prefix, shuffled };

FloorResult measureFloor(Order order, double* hwmMb = nullptr) {
   const Workload& w = workload();
   auto table = Zop::makePtr<sim::HardwareRouteTable>();
   for (size_t i = 0; i < w.fib.size(); ++i) {
      table->fibRouteIs({VrfId(kVrfId), IpGenPrefix(w.fib[i])},
                        RouteInfo(RouteType::routeTypeForward, adjIndexOf(i)));
   }
   // Ids as the allocator grants them: in segment name order from 1.
   auto idOf = [](uint32_t segment) { return SegmentHwId(uint16_t(segment + 1)); };
   const uint64_t writesBefore = hardwareWrites(table->counters());

   const auto start = std::chrono::steady_clock::now();
   auto trie = Routing::trieGenFactory("floor");
   std::unordered_map<IpGenPrefix, SegmentHwId> ids;
   ids.reserve(w.segmentPrefixes.size());
   for (const auto& sp : w.segmentPrefixes) {
      const IpGenPrefix p(sp.prefix);
      trie->routeIs(p, true);
      ids[p] = idOf(sp.segment);
   }
   const RouteInfo drop = dropRoute();
   for (const auto& sp : w.segmentPrefixes) {
      const sim::HardwareRouteTable::Key key{VrfId(kVrfId), IpGenPrefix(sp.prefix)};
      if (!table->entry(key)) {
         table->programRoute(key, RouteInfo(), drop);
         table->hardwareIdIs(key, idOf(sp.segment));
      }
   }
   for (const Prefix& p : order == Order::prefix ? w.fib : w.fibShuffled) {
      const IpGenPrefix g(p);
      const auto match = trie->longestMatch(g);
      table->hardwareIdIs({VrfId(kVrfId), g}, match ? ids.find(*match)->second : SegmentHwId(0));
   }
   FloorResult r;
   r.seconds = secondsSince(start);
   r.writes = hardwareWrites(table->counters()) - writesBefore;
   if (hwmMb) {
      *hwmMb = peakResidentMb();
   }
   return r;
}

std::optional<FloorResult>& floorResult(Order order) {
   static std::optional<FloorResult> r[2];
   return r[order == Order::prefix ? 0 : 1];
}

// The floor's seconds, measured now unless the Floor benchmark ran already.
double floorSeconds(Order order) {
   if (!floorResult(order)) {
      floorResult(order) = measureFloor(order);
   }
   return floorResult(order)->seconds;
}

void Floor(benchmark::State& state, Order order) {
   workload();
   resetPeakResident();
   FloorResult r;
   double hwm = 0;
   for (auto _ : state) {
      r = measureFloor(order, &hwm);
      state.SetIterationTime(r.seconds);
   }
   floorResult(order) = r;
   state.counters["seconds"] = r.seconds;
   state.counters["hw_writes"] = double(r.writes);
   state.counters["writes_per_fib"] = double(r.writes) / double(kFibRoutes);
   state.counters["hwm_run_mb"] = hwm;
}

// ---- The processor ----

enum class Variant { defaultTrace, traceOff, traceOffYieldEveryItem };

void Processor(benchmark::State& state, Variant variant) {
   const Workload& w = workload();
   const double floorPrefixOrder = floorSeconds(Order::prefix);
   const double floorShuffled = floorSeconds(Order::shuffled);
   // The level 0 Duolog stays current for setup, run and teardown.
   std::optional<Trace::Duolog> quiet;
   std::optional<Trace::ScopedDuolog> guard;
   if (variant != Variant::defaultTrace) {
      quiet.emplace(0);
      guard.emplace(*quiet);
   }
   Zop::Ptr<Ruv::YieldPolicy> policy;
   if (variant == Variant::traceOffYieldEveryItem) {
      policy = Zop::makePtr<Ruv::EveryNItemsYieldPolicy>(1);
   }

   resetPeakResident();
   const auto setupStart = std::chrono::steady_clock::now();
   auto sw = std::make_unique<sim::Switch>(
       sim::Switch::Options{.yieldPolicy = policy, .manualConfiguration = true});
   if (!sw->routing().vrfAdd(kVrf, VrfId(kVrfId), false, false).ok()) {
      state.SkipWithError("vrfAdd refused");
      return;
   }
   for (size_t i = 0; i < w.fib.size(); ++i) {
      if (!sw->routing().fibAdd(kVrf, IpGenPrefix(w.fib[i]), adjIndexOf(i)).ok()) {
         state.SkipWithError("fibAdd refused");
         return;
      }
   }
   for (const Zop::String& name : w.segmentNames) {
      sw->segmentAdd(kVrf, name);
      if (!sw->requestId(kVrf, name).ok()) {
         state.SkipWithError("requestId refused");
         return;
      }
   }
   sw->settle();
   const double setupSeconds = secondsSince(setupStart);
   const double hwmSetup = peakResidentMb();

   const auto countersBefore = sw->hardware().counters();
   const uint64_t linesBefore = Trace::current().lineCount();
   sw->scheduler()->resetStatistics();
   double seconds = 0;
   for (auto _ : state) {
      const auto start = std::chrono::steady_clock::now();
      for (const auto& sp : w.segmentPrefixes) {
         const IpGenPrefix p(sp.prefix);
         sw->configure(kVrf, p, w.segmentNames[sp.segment]);
         if (!sw->review(kVrf, p).ok()) {
            state.SkipWithError("review refused");
            return;
         }
      }
      sw->settle();
      seconds = secondsSince(start);
      state.SetIterationTime(seconds);
   }
   const double hwmRun = peakResidentMb();
   const auto& stats = sw->scheduler()->statistics();
   const auto& after = sw->hardware().counters();
   const uint64_t writes = hardwareWrites(after) - hardwareWrites(countersBefore);

   const std::vector<Zop::String> diffs = sw->check();
   for (size_t i = 0; i < diffs.size() && i < 10; ++i) {
      std::fprintf(stderr, "check: %s\n", diffs[i].c_str());
   }

   state.SetLabel("longest: " + stats.longestRunTask);
   state.counters["seconds"] = seconds;
   state.counters["setup_s"] = setupSeconds;
   state.counters["hw_writes"] = double(writes);
   state.counters["writes_per_fib"] = double(writes) / double(w.fib.size());
   state.counters["hw_errors"] = double(after.errors() - countersBefore.errors());
   state.counters["longest_run_ms"] = double(stats.longestRun) / double(Zop::kMillisecond);
   state.counters["slices"] = double(stats.slices);
   state.counters["trace_level"] = Trace::current().maxLevel();
   state.counters["trace_lines"] = double(Trace::current().lineCount() - linesBefore);
   state.counters["hwm_setup_mb"] = hwmSetup;
   state.counters["hwm_run_mb"] = hwmRun;
   state.counters["check_diffs"] = double(diffs.size());
   state.counters["ratio_vs_floor"] = seconds / floorPrefixOrder;
   state.counters["ratio_vs_shuffled_floor"] = seconds / floorShuffled;
   for (const auto& [name, counter] : {std::pair{"SegSubnetTask", "subnet_task_longest_ms"},
                                       std::pair{"SegSecRouteTask", "route_task_longest_ms"}}) {
      auto it = stats.byTaskName.find(name);
      state.counters[counter] = it == stats.byTaskName.end()
                                    ? 0.0
                                    : double(it->second.longestRun) / double(Zop::kMillisecond);
   }
   state.counters["covered_fib"] = double(w.coveredFibRoutes);
   sw.reset();
}

BENCHMARK_CAPTURE(Floor, PrefixOrder, Order::prefix)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Floor, ShuffledOrder, Order::shuffled)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Processor, DefaultTrace, Variant::defaultTrace)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Processor, TraceOff, Variant::traceOff)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Processor, TraceOffYieldEveryItem, Variant::traceOffYieldEveryItem)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
