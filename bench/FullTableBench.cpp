// The segment feature at full table on the simulated switch: enabling it,
// changing it and tearing it down, against the least work any implementation
// must do for the same result.
//
// Workload (FullTableWorkload.h, deterministic from its seed, 20240611 or
// KIV_SEED): 64 VRFs, every 4th routing both families; 1,000,000 IPv4 and
// 200,000 IPv6 FIB routes shaped like real tables, half of them in vrf00;
// 1,000 segments holding 100,000 nested segment prefixes, about 26,000 in
// vrf00.
//
// The switch: sim::Switch with its configuration reactors (the VRF reactors
// request ids, the simulated allocator grants them), RealTimeSliceYieldPolicy
// at the default 2 ms (a real agent's scheduler runs on a real clock; the
// virtual one never trips a slice), a level 0 trace Duolog and handler timing
// on for the whole run. Built once with the firewall off (VRFs, FIB, segments,
// prefix-list entries) and settled, untimed; the phases then run in order on
// it, each preparing what it needs when run alone (--benchmark_filter):
//   Floor             sim::timeFloor: one Routing::TrieGen per VRF and family of the segment
//                     prefixes; each one that is not a FIB route programmed
//                     with its VRF's drop route and its id; then per FIB route
//                     one longest match and one id write (0 where nothing
//                     covers it), into a separate hardware table holding the
//                     FIB. Ids as the allocator grants them (Enable compares)
//   Enable            firewall on
//   PrefixAddEmpty    a /26 in vrf00 inside a segment /20, no FIB route beneath
//   PrefixAddCovering half of an aggregate of vrf00, the most FIB routes
//                     beneath of 200 candidates
//   PrefixRemove      the prefix of vrf00 (not a FIB route, not around the
//                     added one) that is the longest cover of the most routes
//   PrefixMove        the next such prefix, to the next segment of vrf00
//   SegmentDelete     a whole segment of vrf00 (about 1,600 prefixes)
//   FibWithdraw100k   100,000 FIB routes beneath segment prefixes no earlier
//                     phase removes, all VRFs and families, in random order
//   FibReadd100k      the same routes back
//   FirewallOff       the teardown
//   FirewallOn        enabling again
// each timed from the change to settled. Counters (all phases unless said):
//   seconds             the timed phase (also the iteration time)
//   change_s            of which the change calls themselves (the routing
//                       agent's writes and the handlers they notify)
//   hw_writes           route programs + id writes of the hardware table
//   hw_errors           hardware table errors (must be 0)
//   affected_fib        FIB entries that came, went or changed id, hardware
//                       before against after (check_diffs = 0 says the after
//                       is right); Floor: the FIB routes some prefix covers
//   longest_run_ms      longest task run (the task is in the label);
//                       <Task>_ms the longest run of each task that ran
//   longest_handler_ms  longest outermost notification handler call, nested
//                       deliveries included (its notifiee type is in the label)
//   handler_calls, slices  outermost handler calls, task runs
//   heap_mb             heap in use after the phase (as heap_*_mb below)
//   check_diffs         the oracle's differences after the phase (must be 0;
//                       the first five go to stderr)
//   ratio_vs_floor      Enable seconds / Floor seconds (Floor: if Enable ran)
// Enable only:
//   heap_*_mb, hwm_*_mb heap in use (mallinfo2 uordblks + hblkhd) and VmHWM
//                       (reset just before) before the switch is built, after
//                       the FIB, after the configuration, after enabling
//   switch_bytes_per_fib  heap for the FIB per route: the simulated switch
//                       (hardware table, routing agent tries, FIB
//                       collections, adjacencies) and what the library keeps
//                       per FIB route with the feature off
//   config_bytes_per_segment_prefix  the firewall configuration
//   library_bytes_per_segment_prefix  heap for enabling, per segment prefix:
//                       the library's records, tries and lists, plus what the
//                       switch adds (segment route entries, resolver watches
//                       and answers, grants); ..._per_covered_fib the same
//   oracle_peak_mb      the switch keeps no oracle state: check() builds its
//                       expected table and frees it, so the heap figures
//                       exclude it; this is VmHWM during check() minus VmRSS
//   floor_ids_differ    grants that are not the ids Floor used
// KIV_STOP_AFTER_ENABLE=1 ends the process right after the enable's heap
// figures, with the switch still standing, so that a heap profiler sees what
// it holds then as left in use (bench/heap_owners.py sorts that by owner).
// Prefix phases: fib_beneath, the FIB routes inside the prefix (the library
// looks at each; affected_fib are those whose longest cover changes).
// SegmentDelete: segment_prefixes, the segment's prefixes.

#include <benchmark/benchmark.h>
#include <malloc.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "BenchSupport.h"
#include "FullTableWorkload.h"
#include "Routing/Trie.h"
#include "Trace/Trace.h"
#include "Zop/Notifier.h"
#include "Zop/TableMemory.h"
#include "sim/Floor.h"
#include "sim/Switch.h"

namespace {

using namespace bench;
using namespace fulltable;
using Key = sim::HardwareRouteTable::Key;

// ---- Measuring ----

// Heap in use: uordblks misses the large arrays (trie pools, hash tables),
// which malloc maps on their own (hblkhd), and the large tables of the
// review lists and watch maps, which the platform maps itself.
double heapBytes() {
   const struct mallinfo2 m = mallinfo2();
   return double(m.uordblks + m.hblkhd + Zop::tableMappedBytes());
}

// A refused request means the workload is not what it claims: stop there.
void must(const sim::Outcome& o, const char* what) {
   if (!o.ok()) {
      std::fprintf(stderr, "%s refused: %s\n", what, o.error().c_str());
      std::abort();
   }
}

using SegmentIds = std::vector<std::vector<SegmentHwId>>;  // by VRF and segment

// What the switch's allocator granted; without a switch, what it grants
// when every request is in before it runs (from 1, in (VRF id, segment)
// order).
SegmentIds segmentIds(sim::Switch* sw) {
   SegmentIds ids(kVrfs);
   uint16_t next = 1;
   for (uint32_t v = 0; v < kVrfs; ++v) {
      for (uint32_t s = 0; s < workload().segments[v]; ++s, ++next) {
         if (!sw) {
            ids[v].push_back(SegmentHwId(next));
            continue;
         }
         const auto& grants = sw->allocator().grants();
         const auto it = grants.find(SegmentIdRequestKey(VrfId(v + 1), segmentName(s)));
         ids[v].push_back(it == grants.end() ? SegmentHwId(0) : it->second);
      }
   }
   return ids;
}

// ---- The shared switch ----

struct Run {
   std::unique_ptr<sim::Switch> sw;
   bool enabled = false;  // the firewall went on once
   bool firewallOn = false;
   bool withdrawn = false;
   double enableSeconds = 0;
   std::optional<double> floorSeconds;
   SegmentIds floorIds;
   double heap[4] = {}, hwm[4] = {};  // before, FIB, configuration, enabled
};

Run& run() {
   static Run r;
   return r;
}

sim::Switch& built() {
   Run& r = run();
   if (r.sw) {
      return *r.sw;
   }
   const Workload& w = workload();
   resetPeakResident();
   r.heap[0] = heapBytes();
   r.hwm[0] = peakResidentMb();
   r.sw = std::make_unique<sim::Switch>(
       Zop::makePtr<Ruv::RealTimeSliceYieldPolicy>(Ruv::TimeSliceYieldPolicy::kDefaultSlice));
   sim::Switch& sw = *r.sw;
   for (uint32_t v = 0; v < kVrfs; ++v) {
      must(sw.routing().vrfAdd(vrfName(v), VrfId(v + 1), v % 4 == 0, v % 4 == 0), "vrfAdd");
   }
   for (const Route& rt : w.fib) {
      must(sw.routing().fibAdd(vrfName(rt.vrf), rt.prefix, rt.adj), "fibAdd");
   }
   sw.settle();
   r.heap[1] = heapBytes();
   r.hwm[1] = peakResidentMb();
   for (uint32_t v = 0; v < kVrfs; ++v) {
      for (uint32_t s = 0; s < w.segments[v]; ++s) {
         sw.segmentAdd(vrfName(v), segmentName(s));
      }
   }
   for (const SegmentPrefix& sp : w.segmentPrefixes) {
      sw.configure(vrfName(sp.vrf), sp.prefix, segmentName(sp.segment));
   }
   sw.settle();
   r.heap[2] = heapBytes();
   r.hwm[2] = peakResidentMb();
   return sw;
}

// The FIB entries of the hardware with their ids, in key order.
std::vector<std::pair<Key, SegmentHwId>> fibIds(const sim::Switch& sw) {
   std::vector<std::pair<Key, SegmentHwId>> out;
   out.reserve(kFib[0] + kFib[1]);
   for (const auto& [key, entry] : sw.hardware().entries()) {
      if (entry.owner == sim::HardwareRouteTable::Owner::fibRoute) {
         out.emplace_back(key, entry.classId);
      }
   }
   return out;
}

// FIB entries only in one of the two, or with another id.
size_t affected(const std::vector<std::pair<Key, SegmentHwId>>& before,
                const std::vector<std::pair<Key, SegmentHwId>>& after) {
   size_t n = 0;
   auto b = before.begin();
   auto a = after.begin();
   while (b != before.end() || a != after.end()) {
      if (a == after.end() || (b != before.end() && b->first < a->first)) {
         ++n, ++b;
      } else if (b == before.end() || a->first < b->first) {
         ++n, ++a;
      } else {
         n += a++->second != b++->second;
      }
   }
   return n;
}

// Times `change` to settled on the built switch and sets the counters every
// phase has.
double measure(benchmark::State& state, const char* phase,
               const std::function<void(sim::Switch&)>& change) {
   sim::Switch& sw = built();
   const auto before = fibIds(sw);
   // The heap figures are the switch's: the copy of the ids taken here for
   // counting the affected routes is not (1.2M routes: 55 MB).
   const double beforeBytes = double(before.capacity() * sizeof(before[0]));
   const auto countersBefore = sw.hardware().counters();
   sw.scheduler()->resetStatistics();
   Zop::resetNotificationStatistics();
   double seconds = 0, changeSeconds = 0;
   size_t slices = 0;
   for (auto _ : state) {
      const auto start = std::chrono::steady_clock::now();
      change(sw);
      changeSeconds = secondsSince(start);
      slices = sw.settle();
      seconds = secondsSince(start);
      state.SetIterationTime(seconds);
   }
   const Ruv::SchedulerStatistics stats = sw.scheduler()->statistics();
   const Zop::NotificationStatistics handlers = Zop::notificationStatistics();
   const auto& after = sw.hardware().counters();
   const double ms = double(Zop::kMillisecond);
   auto& c = state.counters;
   c["seconds"] = seconds;
   c["change_s"] = changeSeconds;
   c["hw_writes"] = double(hardwareWrites(after) - hardwareWrites(countersBefore));
   c["hw_errors"] = double(after.errors() - countersBefore.errors());
   c["longest_run_ms"] = double(stats.longestRun) / ms;
   for (const auto& [name, task] : stats.byTaskName) {
      if (task.runs != 0) {
         c[name + "_ms"] = double(task.longestRun) / ms;
      }
   }
   c["longest_handler_ms"] = double(handlers.longestHandler) / ms;
   c["handler_calls"] = double(handlers.handlerCalls);
   c["slices"] = double(slices);
   state.SetLabel("run: " + stats.longestRunTask + "; handler: " +
                  (handlers.handlerCalls ? demangled(handlers.longestHandlerNotifiee) : "-"));
   c["heap_mb"] = (heapBytes() - beforeBytes) / (1024.0 * 1024.0);
   const bool enable = std::string(phase) == "Enable";
   if (enable) {
      // Memory before check() builds the oracle's table.
      run().heap[3] = heapBytes() - beforeBytes;
      run().hwm[3] = peakResidentMb();
      resetPeakResident();
      if (const char* stop = std::getenv("KIV_STOP_AFTER_ENABLE"); stop && *stop == '1') {
         std::printf(
             "stopping after the enable, the switch left standing; tables mapped: %.1f MB\n",
             double(Zop::tableMappedBytes()) / (1024.0 * 1024.0));
         std::fflush(stdout);
         (void)run().sw.release();
         std::exit(0);
      }
   }
   const double rss = residentMb();
   const std::vector<Zop::String> diffs = sw.check();
   for (size_t i = 0; i < diffs.size() && i < 5; ++i) {
      std::fprintf(stderr, "%s check: %s\n", phase, diffs[i].c_str());
   }
   c["check_diffs"] = double(diffs.size());
   if (enable) {
      c["oracle_peak_mb"] = peakResidentMb() - rss;
   }
   c["affected_fib"] = double(affected(before, fibIds(sw)));
   return seconds;
}

// ---- The floor ----

double measureFloor(const SegmentIds& ids, uint64_t* writes) {
   const Workload& w = workload();
   auto table = Zop::makePtr<sim::HardwareRouteTable>();
   std::vector<Key> fib;
   fib.reserve(w.fib.size());
   for (const Route& r : w.fib) {
      fib.push_back({VrfId(r.vrf + 1), r.prefix});
      table->fibRouteIs(fib.back(), RouteInfo(RouteType::routeTypeForward, r.adj));
   }
   std::vector<sim::FloorPrefix> prefixes;
   prefixes.reserve(w.segmentPrefixes.size());
   for (const SegmentPrefix& sp : w.segmentPrefixes) {
      prefixes.push_back({VrfId(sp.vrf + 1), sp.prefix, ids[sp.vrf][sp.segment]});
   }
   const sim::FloorFigures floor = sim::timeFloor(*table, fib, prefixes);
   *writes = floor.writes;
   return double(floor.ns) / 1e9;
}

void Floor(benchmark::State& state) {
   const Workload& w = workload();
   Run& r = run();
   r.floorIds = segmentIds(r.enabled ? r.sw.get() : nullptr);
   uint64_t writes = 0;
   double seconds = 0;
   for (auto _ : state) {
      seconds = measureFloor(r.floorIds, &writes);
      state.SetIterationTime(seconds);
   }
   r.floorSeconds = seconds;
   auto& c = state.counters;
   c["seconds"] = seconds;
   c["hw_writes"] = double(writes);
   c["affected_fib"] = double(w.covered);
   c["fib_routes"] = double(w.fib.size());
   c["segment_prefixes"] = double(w.segmentPrefixes.size());
   c["prefixes_are_fib"] = double(w.prefixesAreFib);
   c["prefixes_cover_nothing"] = double(w.prefixesEmpty);
   if (r.enableSeconds > 0) {
      c["ratio_vs_floor"] = r.enableSeconds / seconds;
   }
}

// ---- The phases ----

void enableNow(sim::Switch& sw) {
   sw.firewallIs(true);
   run().firewallOn = run().enabled = true;
}

void Enable(benchmark::State& state) {
   const Workload& w = workload();
   sim::Switch& sw = built();
   Run& r = run();
   if (r.enabled) {
      state.SkipWithError("the feature has run already");
      return;
   }
   r.enableSeconds = measure(state, "Enable", enableNow);
   const SegmentIds granted = segmentIds(&sw);
   if (!r.floorSeconds) {
      uint64_t writes = 0;
      r.floorIds = granted;
      r.floorSeconds = measureFloor(r.floorIds, &writes);
   }
   size_t differ = 0;
   for (uint32_t v = 0; v < kVrfs; ++v) {
      for (size_t s = 0; s < granted[v].size(); ++s) {
         differ += granted[v][s] != r.floorIds[v][s];
      }
   }
   if (differ) {
      std::fprintf(stderr, "Enable: %zu grants are not the ids Floor used\n", differ);
   }
   const double mb = 1024.0 * 1024.0, prefixes = double(w.segmentPrefixes.size());
   auto& c = state.counters;
   c["ratio_vs_floor"] = r.enableSeconds / *r.floorSeconds;
   c["floor_ids_differ"] = double(differ);
   const char* points[4] = {"before", "fib", "config", "enable"};
   for (int i = 0; i < 4; ++i) {
      c[std::string("heap_") + points[i] + "_mb"] = r.heap[i] / mb;
      c[std::string("hwm_") + points[i] + "_mb"] = r.hwm[i];
   }
   c["switch_bytes_per_fib"] = (r.heap[1] - r.heap[0]) / double(w.fib.size());
   c["config_bytes_per_segment_prefix"] = (r.heap[2] - r.heap[1]) / prefixes;
   c["library_bytes_per_segment_prefix"] = (r.heap[3] - r.heap[2]) / prefixes;
   c["library_bytes_per_covered_fib"] = (r.heap[3] - r.heap[2]) / double(w.covered);
}

void configureChange(sim::Switch& sw, const SegmentPrefix& sp) {
   sw.configure(vrfName(sp.vrf), sp.prefix, segmentName(sp.segment));
}

void fibWithdraw(sim::Switch& sw) {
   const Workload& w = workload();
   for (size_t i : w.churn) {
      must(sw.routing().fibDelete(vrfName(w.fib[i].vrf), w.fib[i].prefix), "fibDelete");
   }
   run().withdrawn = true;
}

void fibReadd(sim::Switch& sw) {
   const Workload& w = workload();
   for (size_t i : w.churn) {
      must(sw.routing().fibAdd(vrfName(w.fib[i].vrf), w.fib[i].prefix, w.fib[i].adj), "fibAdd");
   }
   run().withdrawn = false;
}

void firewallOff(sim::Switch& sw) {
   sw.firewallIs(false);
   run().firewallOn = false;
}

void registerAll() {
   auto add = [](const char* name, const std::function<void(benchmark::State&)>& fn) {
      benchmark::RegisterBenchmark((std::string("FullTable/") + name).c_str(), fn)
          ->Iterations(1)
          ->UseManualTime()
          ->Unit(benchmark::kMillisecond);
   };
   // A change made with the feature running (enabled untimed if no phase did
   // it); `before` brings the switch to the state the change starts from
   // when the phase before it did not run.
   auto change = [&add](const char* name, std::function<void(sim::Switch&)> fn,
                        std::function<void(sim::Switch&)> before = nullptr,
                        std::vector<std::pair<const char*, double>> extra = {}) {
      add(name, [name, fn, before, extra](benchmark::State& s) {
         sim::Switch& sw = built();
         if (!run().enabled) {
            enableNow(sw);
            sw.settle();
         }
         if (before) {
            before(sw);
         }
         measure(s, name, fn);
         for (const auto& [counter, value] : extra) {
            s.counters[counter] = value;
         }
      });
   };
   const Workload& w = workload();
   add("Floor", Floor);
   add("Enable", Enable);
   change("PrefixAddEmpty", [&w](sim::Switch& sw) { configureChange(sw, w.addEmpty); });
   change("PrefixAddCovering", [&w](sim::Switch& sw) { configureChange(sw, w.addCovering); },
          nullptr, {{"fib_beneath", double(beneath(w, w.addCovering.prefix))}});
   change("PrefixRemove",
          [&w](sim::Switch& sw) {
             must(sw.unconfigure(vrfName(0), w.segmentPrefixes[w.remove].prefix), "unconfigure");
          },
          nullptr, {{"fib_beneath", double(beneath(w, w.segmentPrefixes[w.remove].prefix))}});
   change("PrefixMove",
          [&w](sim::Switch& sw) {
             configureChange(sw, {0, w.segmentPrefixes[w.move].prefix, w.moveTo});
          },
          nullptr, {{"fib_beneath", double(beneath(w, w.segmentPrefixes[w.move].prefix))}});
   change("SegmentDelete",
          [&w](sim::Switch& sw) {
             must(sw.segmentDelete(vrfName(0), segmentName(w.deleteSegment)), "segmentDelete");
          },
          nullptr, {{"segment_prefixes", double(w.deletePrefixes)}});
   change("FibWithdraw100k", fibWithdraw);
   change("FibReadd100k", fibReadd, [](sim::Switch& sw) {
      if (!run().withdrawn) {
         fibWithdraw(sw);
         sw.settle();
      }
   });
   change("FirewallOff", firewallOff);
   change("FirewallOn", enableNow, [](sim::Switch& sw) {
      if (run().firewallOn) {
         firewallOff(sw);
         sw.settle();
      }
   });
}

}  // namespace

int main(int argc, char** argv) {
   bench::allocateAsKivsim();
   // The level 0 Duolog outlives the switch; handlers are timed throughout,
   // unless KIV_TIME_HANDLERS=0 (timing costs two clock readings a handler
   // call, which shows at millions of calls).
   Trace::Duolog quiet(0);
   Trace::ScopedDuolog guard(quiet);
   const char* timeHandlers = std::getenv("KIV_TIME_HANDLERS");
   Zop::notificationTimingIs(!timeHandlers || std::string(timeHandlers) != "0");
   benchmark::Initialize(&argc, argv);
   if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
      return 1;
   }
   const auto start = std::chrono::steady_clock::now();
   const Workload& w = workload();
   std::fprintf(
       stderr,
       "workload (seed %llu, %.1f s): covering %s, removed %s, moved %s, deleted "
       "segment seg%02u (%zu prefixes)\n",
       (unsigned long long)w.seed, secondsSince(start), valueToStrep(w.addCovering.prefix).c_str(),
       valueToStrep(w.segmentPrefixes[w.remove].prefix).c_str(),
       valueToStrep(w.segmentPrefixes[w.move].prefix).c_str(), w.deleteSegment, w.deletePrefixes);
   registerAll();
   benchmark::RunSpecifiedBenchmarks();
   benchmark::Shutdown();
   run().sw.reset();
   Zop::notificationTimingIs(false);
   std::fprintf(stderr, "whole run: %.1f s\n", secondsSince(start));
   return 0;
}
