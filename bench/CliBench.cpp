// The segment feature's show commands on the simulated switch at scale: what
// one command costs the agent (time, the longest stretch it holds the reactor,
// its output) and what its private sorted snapshot costs in memory.
//
// Workload (fixed seed, built once): 1,000,000 IPv4 FIB routes shaped like a
// real table (mostly /16-/24, a few per cent /25-/32), 90% of them inside 60
// aggregate blocks (/8-/12) and the rest elsewhere; and 100,000 segment
// prefixes nested four levels deep inside those aggregates (the 60
// aggregates, 4,000 /16s inside them, 30,000 /20s inside those, 50,000 /24s
// inside those, and 15,940 host prefixes), each given one of 1,000 segments at
// random. So about nine FIB routes in ten lie beneath some segment prefix, most
// of them beneath several. The routing agent downloads the FIB in prefix order.
//
// The same workload is spread over 1 VRF (vrfs:1) or over 4 (vrfs:4): a
// whole first octet goes to one VRF (an aggregate's octet by the aggregate's
// number, any other by its value), so a segment prefix always sits in the VRF
// of the FIB routes beneath it and the nesting is the same in both; segment
// number s lives in VRF s % vrfs and a prefix's segment is drawn among its
// VRF's. Routing is disabled in every VRF.
//
// Setup, untimed and once per VRF count: the switch in manual configuration
// mode (the benchmark plays the configuration side), the VRFs, the FIB
// routes, every segment with its id requested and granted, then every segment
// prefix configured and reviewed, and the switch settled. The oracle must find
// the hardware as it should be (check_diffs 0, the first ten to stderr;
// benchmarks on a switch that fails are skipped). The switch is kept for all
// the benchmarks of its VRF count, so they run grouped by VRF count.
//
// The command service keeps its default settings (5 ms longest run, 64 KiB
// output per run). On the switch's virtual clock a run never uses up its time,
// so only the output size spends a command's own budget, and the detail and
// routes commands look at it only between VRFs. A run that resumes after such
// a yield prints the VRF it stopped after once more before going on, so with
// several VRFs the output holds every VRF but the last twice.
//
// The commands themselves run under Ruv::RealTimeSliceYieldPolicy at the
// scheduler's default slice (2 ms), as a real agent's scheduler would cut
// them (the setup before runs on the virtual clock's slices, which never
// cut): the commands build and print a piece at a time and pause when the
// slice is spent, so longest_run_ms is the longest piece of work a command
// cannot split. A pause is not a new run for the command's own budget, so
// the output is the same as in one run.
//
// The machine these run on is shared, so next to the wall-clock figures the
// timed parts also report this thread's CPU time, the steadier of the two.
//
// Command/<command word>/<format>/vrfs:N
//   One request ("HardwareRoutes##" and so on: all VRFs, all segments) sent
//   with sim::Switch::cliRequest, which writes it into the request directory
//   and runs the scheduler slice by slice until the request is served.
//     seconds           the whole request, as the CLI waits for it (includes
//                       the dispatch slice and the harness copying the output)
//     cpu_s             the same in CPU time
//     output_bytes      what the command printed
//     longest_run_ms    the longest single run of the command's task
//                       ("AgentCommand <request name>", scheduler statistics)
//     runs              runs of that task
//     slices            scheduler slices the request took in all
//     peak_mb           rise of peak resident memory over the request
//                       (snapshot, output buffers, the harness's copy)
//
// Snapshot/<Routes|Detail>/vrfs:N
//   Only the sorted snapshot the first run builds, with the switch's inputs:
//   Routes with ShowSegmentHardwareRoutesSm::getSortedRoutes (a reactor
//   constructed directly, no request), Detail (also what Summary builds) with
//   getSortedSegmentPrefixInfo, each into a fresh SortedSegmentRouteInfo.
//     seconds           building it
//     cpu_s             the same in CPU time
//     listed            prefixes it lists (entries over all segments)
//     peak_mb           peak resident memory while building it, over the
//                       resident size before (freed heap trimmed first); it
//                       reads low when the snapshot reuses free heap that is
//                       still resident (setup leaves plenty)
//     heap_mb           heap in use held by the finished snapshot, the
//                       firmer of the two
//     peak_bytes_per_listed, heap_bytes_per_listed
//                       the two above per listed prefix
//     walk_visits       (Routes) FIB routes the builder walks: for each
//                       segment prefix, the FIB routes equal to or inside it,
//                       so a route under k nested segment prefixes counts k
//     covered_fib       FIB routes inside some segment prefix
//
// FirstRun/<command word>/vrfs:N
//   What dominates the command's first run. The snapshot is built alone
//   (as above) and timed, then the request is served by the same loop as
//   cliRequest's, each slice timed with a steady clock and attributed to the
//   command's task when that task's run count went up.
//     first_run_ms      the command's first run (the snapshot's first
//                       pieces, or all of it and what it prints before it
//                       first may yield when nothing cuts it)
//     first_run_cpu_ms  the same in CPU time
//     snapshot_ms, snapshot_cpu_ms
//                       the snapshot alone
//     snapshot_share    snapshot_cpu_ms / first_run_cpu_ms
//     later_longest_ms  the longest of the later runs (0 when one run)
//     longest_run_cpu_ms
//                       the longest run of all in CPU time, which a busy
//                       machine does not stretch as it does the wall clock
//     runs              runs of the command's task
//     largest_run_kib   the most output one run flushed, against the 64 KiB
//                       the service means a run to produce

#include <benchmark/benchmark.h>

#include <malloc.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <memory>
#include <random>
#include <string>
#include <tuple>
#include <unordered_set>
#include <utility>
#include <vector>

#include "Agent/AgentCommandRequest.h"
#include "BenchSupport.h"
#include "KivSegmentSecurity/KivSegmentSecurityCliSm.h"
#include "Routing/Trie.h"
#include "sim/Switch.h"

namespace {

using bench::fibLength;
using bench::peakResidentMb;
using bench::resetPeakResident;
using bench::residentMb;
using bench::secondsSince;
using Pexo::IpGenPrefix;
using Pexo::Prefix;

constexpr size_t kFibRoutes = 1'000'000;
constexpr size_t kSegments = 1'000;
constexpr unsigned kVrfCounts[] = {1, 4};

// ---- The workload ----

struct SegmentPrefix {
   Prefix prefix;
   // Drawn once, independent of the VRF count; see segmentOf().
   uint32_t draw;
};

struct Workload {
   std::vector<Prefix> fib;  // in prefix order, the order they are downloaded in
   std::vector<SegmentPrefix> segmentPrefixes;
   // Per first octet, the number that decides its VRF.
   std::vector<unsigned> octetSpread = std::vector<unsigned>(256, 0);
   size_t coveredFibRoutes = 0;
   size_t walkVisits = 0;
};

uint32_t maskTo(uint32_t a, unsigned len) {
   return len == 0 ? 0 : a & (~uint32_t(0) << (32 - len));
}

uint64_t keyOf(uint32_t a, unsigned len) {
   return (uint64_t(a) << 6) | len;
}

uint64_t adjIndexOf(size_t i) {
   return 1 + i % 4096;
}

// FIB routes equal to or inside each segment prefix, summed; `fibKeys` sorted.
size_t countWalkVisits(const std::vector<uint64_t>& fibKeys,
                       const std::vector<SegmentPrefix>& segmentPrefixes) {
   size_t visits = 0;
   for (const auto& sp : segmentPrefixes) {
      const uint32_t lo = sp.prefix.addr().value();
      const unsigned len = sp.prefix.len();
      const uint32_t hi = lo | ~maskTo(~uint32_t(0), len);
      auto it = std::lower_bound(fibKeys.begin(), fibKeys.end(), keyOf(lo, 0));
      const auto end = std::upper_bound(fibKeys.begin(), fibKeys.end(), keyOf(hi, 63));
      for (; it != end; ++it) {
         visits += (*it & 63) >= len;
      }
   }
   return visits;
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
      for (unsigned o = 0; o < 256; ++o) {
         w.octetSpread[o] = o;
      }
      for (size_t i = 0; i < lengths.size(); ++i) {
         w.octetSpread[octets[i]] = unsigned(i);
      }
      const std::vector<unsigned> outside(octets.begin() + long(lengths.size()), octets.end());
      std::discrete_distribution<size_t> pickAggregate(weights.begin(), weights.end());

      // FIB routes: 90% inside the aggregates, unique.
      std::unordered_set<uint64_t> seen;
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
         if (seen.insert(keyOf(a, len)).second) {
            w.fib.emplace_back(Pexo::IpAddr(a), len);
         }
      }
      std::sort(w.fib.begin(), w.fib.end());

      // Segment prefixes, each level inside the one above.
      std::unordered_set<uint64_t> taken;
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
            if (taken.insert(keyOf(a, len)).second) {
               out.emplace_back(Pexo::IpAddr(a), len);
            }
         }
         return out;
      };
      std::vector<Prefix> all = aggregates;
      const auto l16 = addLevel(aggregates, 16, 4'000, true);
      const auto l20 = addLevel(l16, 20, 30'000, false);
      const auto l24 = addLevel(l20, 24, 50'000, false);
      const auto l32 = addLevel(l24, 32, 15'940, false);
      for (const auto* l : {&l16, &l20, &l24, &l32}) {
         all.insert(all.end(), l->begin(), l->end());
      }
      for (const Prefix& p : all) {
         w.segmentPrefixes.push_back({p, uint32_t(rng() % kSegments)});
      }

      auto trie = Routing::trieGenFactory("covered");
      for (const auto& sp : w.segmentPrefixes) {
         trie->routeIs(IpGenPrefix(sp.prefix), true);
      }
      std::vector<uint64_t> fibKeys;
      fibKeys.reserve(w.fib.size());
      for (const Prefix& p : w.fib) {
         w.coveredFibRoutes += trie->longestMatch(IpGenPrefix(p)).has_value();
         fibKeys.push_back(keyOf(p.addr().value(), p.len()));
      }
      std::sort(fibKeys.begin(), fibKeys.end());
      w.walkVisits = countWalkVisits(fibKeys, w.segmentPrefixes);
      return w;
   }();
   return w;
}

unsigned vrfOf(const Prefix& p, unsigned vrfs) {
   return workload().octetSpread[p.addr().value() >> 24] % vrfs;
}

// The drawn segment moved into the prefix's VRF: segment s lives in VRF
// s % vrfs, and with one VRF this is the draw itself.
uint32_t segmentOf(const SegmentPrefix& sp, unsigned vrfs) {
   return sp.draw - sp.draw % vrfs + vrfOf(sp.prefix, vrfs);
}

Zop::String vrfName(unsigned v) {
   return "bench" + std::to_string(v);
}

Zop::String segmentName(uint32_t s) {
   char name[16];
   std::snprintf(name, sizeof name, "seg%03u", unsigned(s));
   return name;
}

// ---- Measuring ----

// CPU time of this thread: on a machine shared with other work the wall
// clock also counts the time other processes held the CPU.
double threadCpuSeconds() {
   timespec ts{};
   clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
   return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

double heapInUseMb() {
   return double(mallinfo2().uordblks) / (1024.0 * 1024.0);
}

// ---- The switch ----

struct Setup {
   std::unique_ptr<sim::Switch> sw;
   unsigned vrfs = 0;
   double seconds = 0;
   double hwmMb = 0;
   size_t checkDiffs = 0;
   Zop::String error;
};

Setup buildSetup(unsigned vrfs) {
   const Workload& w = workload();
   Setup s;
   s.vrfs = vrfs;
   resetPeakResident();
   const auto start = std::chrono::steady_clock::now();
   s.sw = std::make_unique<sim::Switch>(
       sim::Switch::Options{.yieldPolicy = nullptr, .manualConfiguration = true});
   sim::Switch& sw = *s.sw;
   for (unsigned v = 0; v < vrfs; ++v) {
      if (!sw.routing().vrfAdd(L3::VrfName(vrfName(v)), VrfId(v + 1), false, false).ok()) {
         s.error = "vrfAdd refused";
         return s;
      }
   }
   for (size_t i = 0; i < w.fib.size(); ++i) {
      const L3::VrfName vrf(vrfName(vrfOf(w.fib[i], vrfs)));
      if (!sw.routing().fibAdd(vrf, IpGenPrefix(w.fib[i]), adjIndexOf(i)).ok()) {
         s.error = "fibAdd refused";
         return s;
      }
   }
   for (uint32_t seg = 0; seg < kSegments; ++seg) {
      const L3::VrfName vrf(vrfName(seg % vrfs));
      sw.segmentAdd(vrf, segmentName(seg));
      if (!sw.requestId(vrf, segmentName(seg)).ok()) {
         s.error = "requestId refused";
         return s;
      }
   }
   sw.settle();
   for (const auto& sp : w.segmentPrefixes) {
      const L3::VrfName vrf(vrfName(vrfOf(sp.prefix, vrfs)));
      const IpGenPrefix p(sp.prefix);
      sw.configure(vrf, p, segmentName(segmentOf(sp, vrfs)));
      if (!sw.review(vrf, p).ok()) {
         s.error = "review refused";
         return s;
      }
   }
   sw.settle();
   s.seconds = secondsSince(start);
   s.hwmMb = peakResidentMb();

   const std::vector<Zop::String> diffs = sw.check();
   for (size_t i = 0; i < diffs.size() && i < 10; ++i) {
      std::fprintf(stderr, "check (vrfs %u): %s\n", vrfs, diffs[i].c_str());
   }
   s.checkDiffs = diffs.size();
   if (!diffs.empty()) {
      s.error = "the oracle found differences after settling";
   }
   // The commands run with the service's defaults, stated here rather than
   // assumed, and with a real agent's slices.
   sw.cliServiceSettingsIs(Agent::AgentCommandServiceSettings{});
   sw.scheduler()->yieldPolicyIs(
       Zop::makePtr<Ruv::RealTimeSliceYieldPolicy>(Ruv::TimeSliceYieldPolicy::kDefaultSlice));
   return s;
}

// One switch at a time: 1M routes each, and the benchmarks run grouped by
// VRF count, so the previous one goes before the next is built.
std::unique_ptr<Setup>& currentSetup() {
   static std::unique_ptr<Setup> s;
   return s;
}

Setup& setupFor(unsigned vrfs) {
   std::unique_ptr<Setup>& s = currentSetup();
   if (!s || s->vrfs != vrfs) {
      s = nullptr;
      s = std::make_unique<Setup>(buildSetup(vrfs));
   }
   return *s;
}

// Skips the benchmark (true) when the switch could not be set up.
bool skipped(benchmark::State& state, const Setup& s) {
   if (s.error.empty()) {
      return false;
   }
   state.SkipWithError(s.error.c_str());
   return true;
}

void setupCounters(benchmark::State& state, const Setup& s) {
   state.counters["setup_s"] = s.seconds;
   state.counters["hwm_setup_mb"] = s.hwmMb;
   state.counters["check_diffs"] = double(s.checkDiffs);
}

// The statistics entry of the command task that ran since the last reset:
// tasks are named "AgentCommand <request name>", one name per request, and
// a reset zeroes the entries of earlier requests.
const Ruv::TaskStatistics* commandTaskStatistics(const Ruv::SchedulerStatistics& stats) {
   for (const auto& [name, task] : stats.byTaskName) {
      if (name.rfind("AgentCommand ", 0) == 0 && task.runs > 0) {
         return &task;
      }
   }
   return nullptr;
}

double ms(Zop::Time t) {
   return double(t) / double(Zop::kMillisecond);
}

// ---- The snapshot alone ----

enum class SnapshotKind { routes, detail };

Zop::Ptr<Kiv::SortedSegmentRouteInfo> buildSnapshot(sim::Switch& sw, SnapshotKind kind) {
   auto sorted = Kiv::sortedSegmentRouteInfoFactory();
   if (kind == SnapshotKind::routes) {
      auto sm = Zop::makePtr<Kiv::ShowSegmentHardwareRoutesSm>(
          "bench-snapshot", nullptr, 0.1, sw.clock(), sw.segmentRoutesList(),
          sw.segmentIdResponse(), sw.l3Status(), "", "", sw.hardware().segmentRouteHelper(),
          sw.routeStatus(), sw.route6Status(), sw.fibRoutes(), sw.fibRoutes6());
      sm->getSortedRoutes(sorted);
   } else {
      Kiv::getSortedSegmentPrefixInfo(sorted, sw.segmentIdResponse(), sw.segmentRoutesList(),
                                      sw.l3Status(), sw.fwConfig());
   }
   return sorted;
}

size_t listedPrefixes(const Kiv::SortedSegmentRouteInfo& sorted) {
   size_t n = 0;
   for (const auto& [vrfId, vrf] : sorted.sortedVrf()) {
      for (const auto& [name, segment] : vrf->sortedPrefix()) {
         n += segment->programmedPrefix().size();
      }
   }
   return n;
}

void Snapshot(benchmark::State& state, unsigned vrfs, SnapshotKind kind) {
   const Workload& w = workload();
   Setup& s = setupFor(vrfs);
   if (skipped(state, s)) {
      return;
   }
   double seconds = 0;
   double cpuSeconds = 0;
   double peakMb = 0;
   double heapMb = 0;
   size_t listed = 0;
   for (auto _ : state) {
      resetPeakResident();
      const double residentBefore = residentMb();
      const double heapBefore = heapInUseMb();
      const auto start = std::chrono::steady_clock::now();
      const double cpuStart = threadCpuSeconds();
      auto sorted = buildSnapshot(*s.sw, kind);
      cpuSeconds = threadCpuSeconds() - cpuStart;
      seconds = secondsSince(start);
      state.SetIterationTime(seconds);
      peakMb = peakResidentMb() - residentBefore;
      heapMb = heapInUseMb() - heapBefore;
      listed = listedPrefixes(*sorted);
   }
   const double perListed = listed ? 1024.0 * 1024.0 / double(listed) : 0.0;
   state.counters["seconds"] = seconds;
   state.counters["cpu_s"] = cpuSeconds;
   state.counters["listed"] = double(listed);
   state.counters["peak_mb"] = peakMb;
   state.counters["heap_mb"] = heapMb;
   state.counters["peak_bytes_per_listed"] = peakMb * perListed;
   state.counters["heap_bytes_per_listed"] = heapMb * perListed;
   if (kind == SnapshotKind::routes) {
      state.counters["walk_visits"] = double(w.walkVisits);
   }
   state.counters["covered_fib"] = double(w.coveredFibRoutes);
   setupCounters(state, s);
}

// ---- One command through the CLI ----

void Command(benchmark::State& state, unsigned vrfs, const Zop::String& request,
             lumo::Format format) {
   Setup& s = setupFor(vrfs);
   if (skipped(state, s)) {
      return;
   }
   sim::Switch& sw = *s.sw;
   double seconds = 0;
   double cpuSeconds = 0;
   double bytes = 0;
   double longestMs = 0;
   double runs = 0;
   double slices = 0;
   double peakMb = 0;
   for (auto _ : state) {
      resetPeakResident();
      const double residentBefore = residentMb();
      sw.scheduler()->resetStatistics();
      const auto start = std::chrono::steady_clock::now();
      const double cpuStart = threadCpuSeconds();
      const Zop::String out = sw.cliRequest(request, format);
      cpuSeconds = threadCpuSeconds() - cpuStart;
      seconds = secondsSince(start);
      state.SetIterationTime(seconds);
      peakMb = peakResidentMb() - residentBefore;
      const auto& stats = sw.scheduler()->statistics();
      bytes = double(out.size());
      slices = double(stats.slices);
      const Ruv::TaskStatistics* task = commandTaskStatistics(stats);
      if (!task) {
         state.SkipWithError("the command's task never ran");
         return;
      }
      longestMs = ms(task->longestRun);
      runs = double(task->runs);
   }
   state.counters["seconds"] = seconds;
   state.counters["cpu_s"] = cpuSeconds;
   state.counters["output_bytes"] = bytes;
   state.counters["longest_run_ms"] = longestMs;
   state.counters["runs"] = runs;
   state.counters["slices"] = slices;
   state.counters["peak_mb"] = peakMb;
   setupCounters(state, s);
}

// ---- The first run taken apart ----

struct Timed {
   double wallMs = 0;
   double cpuMs = 0;
};

template <class F>
Timed timed(F&& f) {
   const auto start = std::chrono::steady_clock::now();
   const double cpuStart = threadCpuSeconds();
   f();
   return {secondsSince(start) * 1e3, (threadCpuSeconds() - cpuStart) * 1e3};
}

void FirstRun(benchmark::State& state, unsigned vrfs, const Zop::String& request,
              SnapshotKind kind) {
   Setup& s = setupFor(vrfs);
   if (skipped(state, s)) {
      return;
   }
   sim::Switch& sw = *s.sw;
   const Zop::Ptr<Ruv::TaskScheduler>& scheduler = sw.scheduler();
   // Request names are never reused, so a task name is never one an earlier
   // benchmark's statistics already know.
   static uint64_t served = 0;
   Timed snapshot;
   Timed firstRun;
   double laterLongestMs = 0;
   double longestCpuMs = 0;
   double runs = 0;
   double largestRunKib = 0;
   for (auto _ : state) {
      snapshot = timed([&] { buildSnapshot(sw, kind); });

      // cliRequest's loop, with every slice timed.
      scheduler->resetStatistics();
      auto sink = Zop::makePtr<lumo::StringSink>();
      const Zop::String name = "bench-" + std::to_string(++served);
      auto cmd =
          Agent::agentCommandRequestFactory(name, request, int(served), sink, lumo::Format::text);
      const Zop::String taskName = "AgentCommand " + name;
      auto commandRuns = [&] {
         const auto& byName = scheduler->statistics().byTaskName;
         auto it = byName.find(taskName);
         return it == byName.end() ? uint64_t(0) : it->second.runs;
      };
      firstRun = {};
      laterLongestMs = 0;
      longestCpuMs = 0;
      largestRunKib = 0;
      uint64_t seen = 0;
      double totalMs = 0;
      sw.cliRequestDir()->entryIs(name, cmd);
      while (cmd->status() != Agent::AgentCommandRequest::Status::completed) {
         const size_t bytesBefore = sink->size();
         size_t ran = 0;
         const Timed slice = timed([&] { ran = scheduler->runUntilIdle(1); });
         totalMs += slice.wallMs;
         if (ran == 0) {
            break;
         }
         const uint64_t now = commandRuns();
         if (now == seen) {
            continue;  // another task's slice (the service's dispatch)
         }
         seen = now;
         longestCpuMs = std::max(longestCpuMs, slice.cpuMs);
         if (now == 1) {
            firstRun = slice;
         } else {
            laterLongestMs = std::max(laterLongestMs, slice.wallMs);
         }
         largestRunKib = std::max(largestRunKib, double(sink->size() - bytesBefore) / 1024.0);
      }
      sw.cliRequestDir()->entryDel(name);
      state.SetIterationTime(totalMs / 1e3);
      runs = double(seen);
   }
   state.counters["first_run_ms"] = firstRun.wallMs;
   state.counters["first_run_cpu_ms"] = firstRun.cpuMs;
   state.counters["snapshot_ms"] = snapshot.wallMs;
   state.counters["snapshot_cpu_ms"] = snapshot.cpuMs;
   state.counters["snapshot_share"] = firstRun.cpuMs > 0 ? snapshot.cpuMs / firstRun.cpuMs : 0.0;
   state.counters["later_longest_ms"] = laterLongestMs;
   state.counters["longest_run_cpu_ms"] = longestCpuMs;
   state.counters["runs"] = runs;
   state.counters["largest_run_kib"] = largestRunKib;
   setupCounters(state, s);
}

// The request text for every VRF and every segment: empty fields mean all.
Zop::String allOf(const char* word) {
   return Zop::String(word) + "##";
}

// Registered grouped by VRF count, so that each switch is built once.
void registerBenchmarks() {
   for (unsigned vrfs : kVrfCounts) {
      const std::string suffix = "/vrfs:" + std::to_string(vrfs);
      auto add = [](benchmark::internal::Benchmark* b) {
         b->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
      };
      add(benchmark::RegisterBenchmark(("Snapshot/Routes" + suffix).c_str(), Snapshot, vrfs,
                                       SnapshotKind::routes));
      add(benchmark::RegisterBenchmark(("Snapshot/Detail" + suffix).c_str(), Snapshot, vrfs,
                                       SnapshotKind::detail));
      for (auto [word, format, label] :
           {std::tuple{"HardwareRoutes", lumo::Format::text, "text"},
            std::tuple{"HardwareRoutes", lumo::Format::json, "json"},
            std::tuple{"HardwareDetail", lumo::Format::text, "text"},
            std::tuple{"HardwareSummary", lumo::Format::text, "text"}}) {
         const std::string name = "Command/" + std::string(word) + "/" + label + suffix;
         add(benchmark::RegisterBenchmark(name.c_str(), Command, vrfs, allOf(word), format));
      }
      add(benchmark::RegisterBenchmark(("FirstRun/HardwareRoutes" + suffix).c_str(), FirstRun, vrfs,
                                       allOf("HardwareRoutes"), SnapshotKind::routes));
      add(benchmark::RegisterBenchmark(("FirstRun/HardwareDetail" + suffix).c_str(), FirstRun, vrfs,
                                       allOf("HardwareDetail"), SnapshotKind::detail));
      add(benchmark::RegisterBenchmark(("FirstRun/HardwareSummary" + suffix).c_str(), FirstRun,
                                       vrfs, allOf("HardwareSummary"), SnapshotKind::detail));
   }
}

}  // namespace

int main(int argc, char** argv) {
   bench::allocateAsKivsim();
   registerBenchmarks();
   benchmark::Initialize(&argc, argv);
   if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
      return 1;
   }
   benchmark::RunSpecifiedBenchmarks();
   benchmark::Shutdown();
   // The switch goes before the process's statics do.
   currentSetup() = nullptr;
   return 0;
}
