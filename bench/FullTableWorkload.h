#pragma once
// The full-table workload of FullTableBench, deterministic from its seed
// (20240611, or KIV_SEED in the environment): 64 VRFs
// (vrf00..vrf63, ids 1..64); every 4th one routes both families, so that its
// segment prefixes forward as the resolver answers.
//   FIB: 1,000,000 IPv4 routes shaped like a global table (half /24, most of
//   the rest /16-/23, a few per cent longer), 90% inside aggregates (/8-/12,
//   up to 60 per VRF), the rest in other unicast /8s; 200,000 IPv6 routes,
//   mostly /32-/48, some /56, /64 and /128, 90% inside a few /16-/29
//   aggregates of 2000::/3. vrf00 carries half of each family, vrf01..vrf63
//   the rest with weights 1/k. Downloaded VRF by VRF in prefix order.
//   Segments: 1,000 (15 or 16 per VRF), 100,000 segment prefixes, a sixth of
//   them IPv6, a VRF's share half by its segments and half by its routes
//   (vrf00 has about 26,000), each in a random segment of its VRF. They nest:
//   the FIB aggregates, then IPv4 /16, /20, /24, /32 (IPv6 /24, /32, /40,
//   /48, /128), each level inside the one above, 85% placed over a FIB route
//   of their parent (a longer one when a few tries find it; half of those
//   landing exactly on a FIB route are kept), the rest anywhere in it. Floor
//   reports how many are FIB routes and how many cover none.
// The changes its phases make are chosen here too (chooseChanges).

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <numeric>
#include <random>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "BenchSupport.h"
#include "Pexo/Prefix.h"
#include "Pexo/VrfName.h"
#include "Routing/Trie.h"
#include "Zop/String.h"

namespace fulltable {

using Pexo::IpGenPrefix;
// Addresses of both families in one type, aligned to the top: an IPv4
// address is the top 32 bits, so masking to a length is the same for both.
using U128 = unsigned __int128;

constexpr uint32_t kVrfs = 64;
constexpr size_t kFib[2] = {1'000'000, 200'000};
constexpr size_t kSegmentPrefixes = 100'000;
constexpr uint32_t kSegments = 1'000;
constexpr size_t kChurn = 100'000;

struct Route {
   uint32_t vrf;
   IpGenPrefix prefix;
   uint64_t adj;
};

struct SegmentPrefix {
   uint32_t vrf;
   IpGenPrefix prefix;
   uint32_t segment;  // within its VRF
};

struct Workload {
   uint64_t seed = 0;
   std::vector<Route> fib;                      // by VRF, then prefix: the download order
   std::vector<SegmentPrefix> segmentPrefixes;  // by VRF
   std::vector<uint32_t> segments;              // per VRF
   std::vector<int32_t> owner;  // per FIB route: longest covering segment prefix, or -1
   size_t covered = 0, prefixesAreFib = 0, prefixesEmpty = 0;
   // The changes.
   SegmentPrefix addEmpty, addCovering;
   size_t remove = 0, move = 0, deletePrefixes = 0;
   uint32_t moveTo = 0, deleteSegment = 0;
   std::vector<size_t> churn;  // indices into fib
};

struct P {
   U128 a;
   unsigned len;
   bool operator<(const P& o) const { return a != o.a ? a < o.a : len < o.len; }
};

inline U128 maskTo(U128 a, unsigned len) {
   return len == 0 ? 0 : a & (~U128(0) << (128 - len));
}

inline U128 random128(std::mt19937_64& rng) {
   const U128 hi = rng();
   return (hi << 64) | rng();
}

// A random address inside p.
inline U128 inside(std::mt19937_64& rng, const P& p) {
   return p.a | (random128(rng) & ~maskTo(~U128(0), p.len));
}

inline IpGenPrefix gen(bool v6, const P& p) {
   if (!v6) {
      return Pexo::Prefix(Pexo::IpAddr(uint32_t(p.a >> 96)), p.len);
   }
   return Pexo::Ip6Prefix(Pexo::Ip6Addr(uint64_t(p.a >> 64), uint64_t(p.a)), p.len);
}

inline unsigned fib6Length(std::mt19937_64& rng) {
   static const unsigned lengths[] = {32, 32, 32, 32, 32, 36, 40, 40, 44, 44,
                                      48, 48, 48, 48, 48, 48, 48, 56, 64, 128};
   return lengths[rng() % std::size(lengths)];
}

inline Zop::String named(const char* stem, uint32_t n) {
   char b[16];
   std::snprintf(b, sizeof b, "%s%02u", stem, n);
   return b;
}

inline L3::VrfName vrfName(uint32_t v) {
   return L3::VrfName(named("vrf", v));
}

inline Zop::String segmentName(uint32_t s) {
   return named("seg", s);
}

// Picks among prefixes in proportion to their address space.
inline std::discrete_distribution<size_t> bySize(const std::vector<P>& items) {
   std::vector<double> w;
   for (const P& p : items) {
      w.push_back(std::ldexp(1.0, -int(p.len)));
   }
   return std::discrete_distribution<size_t>(w.begin(), w.end());
}

// One VRF and family: its routes (appended to w.fib) and segment prefixes.
inline void generate(Workload& w, std::mt19937_64& rng, uint32_t vrf, bool v6, size_t nRoutes,
                     size_t nPrefixes) {
   // IPv4 aggregates and outside routes take distinct unicast /8s; IPv6 all
   // come from 2000::/3.
   std::vector<unsigned> octets(223);
   std::iota(octets.begin(), octets.end(), 1u);
   octets.erase(octets.begin() + 126);  // 127: loopback
   std::shuffle(octets.begin(), octets.end(), rng);
   const P v6Space{U128(1) << 125, 3};
   const size_t nAgg =
       v6 ? std::clamp<size_t>(nRoutes / 5000, 1, 20) : std::clamp<size_t>(nRoutes / 7000, 2, 60);
   std::vector<P> aggs;
   std::unordered_set<IpGenPrefix> taken;
   while (aggs.size() < nAgg) {
      const unsigned len = v6 ? 16 + unsigned(rng() % 14) : 8 + unsigned(rng() % 5);
      const P p{
          maskTo(v6 ? inside(rng, v6Space) : inside(rng, {U128(octets[aggs.size()]) << 120, 8}),
                 len),
          len};
      if (taken.insert(gen(v6, p)).second) {
         aggs.push_back(p);
      }
   }
   std::unordered_set<IpGenPrefix> seen;
   std::vector<P> fib;
   auto pickAgg = bySize(aggs);
   while (fib.size() < nRoutes) {
      const unsigned len = v6 ? fib6Length(rng) : bench::fibLength(rng);
      U128 a = rng() % 10 != 0 ? inside(rng, aggs[pickAgg(rng)])
               : v6            ? inside(rng, v6Space)
                    : inside(rng, {U128(octets[nAgg + rng() % (octets.size() - nAgg)]) << 120, 8});
      const P p{maskTo(a, len), len};
      if (seen.insert(gen(v6, p)).second) {
         fib.push_back(p);
      }
   }
   std::sort(fib.begin(), fib.end());
   for (const P& p : fib) {
      w.fib.push_back({vrf, gen(v6, p), 1 + w.fib.size() % 4096});
   }

   // Segment prefixes: the aggregates, then level by level, each inside the
   // level above; a level that cannot be filled passes what it lacks on.
   using Levels = std::vector<std::pair<unsigned, double>>;
   const Levels levels = v6 ? Levels{{24, .05}, {32, .15}, {40, .3}, {48, .45}, {128, .05}}
                            : Levels{{16, .06}, {20, .6}, {24, .29}, {32, .05}};
   std::vector<P> out(aggs.begin(), aggs.begin() + long(std::min(nAgg, nPrefixes)));
   const size_t rest = nPrefixes - out.size();
   std::vector<P> previous = out;
   size_t carry = 0, planned = 0;
   for (size_t l = 0; l < levels.size(); ++l) {
      // Not a structured binding: clang 14 cannot capture one.
      const unsigned len = levels[l].first;
      const size_t n =
          (l + 1 == levels.size() ? rest - planned : size_t(levels[l].second * double(rest)));
      planned += n;
      std::vector<P> parents, level;
      for (const P& p : previous) {
         if (p.len < len) {
            parents.push_back(p);
         }
      }
      if (parents.empty()) {
         std::copy_if(aggs.begin(), aggs.end(), std::back_inserter(parents),
                      [len](const P& p) { return p.len < len; });
      }
      auto pick = bySize(parents);
      for (size_t tries = 0; !parents.empty() && level.size() < n + carry && tries < 50 * n + 1000;
           ++tries) {
         // Mostly over a FIB route of the parent (a longer one if one of a
         // few tries finds it, so that the prefix covers it), else anywhere.
         const P& parent = parents[pick(rng)];
         const auto lo = std::lower_bound(fib.begin(), fib.end(), P{parent.a, 0});
         const auto hi =
             std::upper_bound(lo, fib.end(), P{parent.a | ~maskTo(~U128(0), parent.len), 128});
         const P* over = nullptr;
         for (int k = 0; k < 4 && lo != hi && (!over || over->len <= len); ++k) {
            over = &lo[long(rng() % uint64_t(hi - lo))];
         }
         const U128 a = over && rng() % 100 < 85 ? inside(rng, *over) : inside(rng, parent);
         // Half of those that land on a FIB route move on.
         const P p{maskTo(a, len), len};
         if ((!std::binary_search(fib.begin(), fib.end(), p) || rng() % 2 == 0) &&
             taken.insert(gen(v6, p)).second) {
            level.push_back(p);
         }
      }
      carry = n + carry - level.size();
      out.insert(out.end(), level.begin(), level.end());
      if (!level.empty()) {
         previous = std::move(level);
      }
   }
   for (const P& p : out) {
      w.segmentPrefixes.push_back({vrf, gen(v6, p), uint32_t(rng() % w.segments[vrf])});
   }
}

// The first FIB route at or after (vrf, p) in w.fib.
inline std::vector<Route>::const_iterator fibFrom(const Workload& w, uint32_t vrf,
                                                  const IpGenPrefix& p) {
   return std::lower_bound(w.fib.begin(), w.fib.end(), std::pair(vrf, p),
                           [](const Route& r, const std::pair<uint32_t, IpGenPrefix>& k) {
                              return std::pair(r.vrf, r.prefix) < k;
                           });
}

// FIB routes of vrf00 equal to or inside p.
inline size_t beneath(const Workload& w, const IpGenPrefix& p) {
   size_t n = 0;
   for (auto it = fibFrom(w, 0, p); it != w.fib.end() && it->vrf == 0 && p.contains(it->prefix);
        ++it) {
      ++n;
   }
   return n;
}

// The changes the phases make, all in vrf00's IPv4.
inline void chooseChanges(Workload& w, std::mt19937_64& rng) {
   std::unordered_set<IpGenPrefix> segment0;
   std::vector<size_t> l20, aggs, candidates;
   std::vector<size_t> owned(w.segmentPrefixes.size());
   for (int32_t o : w.owner) {
      if (o >= 0) {
         ++owned[size_t(o)];
      }
   }
   for (size_t i = 0; w.segmentPrefixes[i].vrf == 0; ++i) {
      const IpGenPrefix& p = w.segmentPrefixes[i].prefix;
      segment0.insert(p);
      if (p.isIpv4()) {
         (p.len() == 20 ? l20 : p.len() <= 12 ? aggs : candidates).push_back(i);
      }
   }
   auto within = [&](size_t parent, unsigned len) {
      const IpGenPrefix& g = w.segmentPrefixes[parent].prefix;
      const P p{U128(g.v4().addr().value()) << 96, g.len()};
      return gen(false, P{maskTo(inside(rng, p), len), len});
   };
   do {
      w.addEmpty = {0, within(l20[rng() % l20.size()], 26), uint32_t(rng() % w.segments[0])};
   } while (segment0.count(w.addEmpty.prefix) || beneath(w, w.addEmpty.prefix) != 0);
   size_t most = 0;
   for (int i = 0; i < 200; ++i) {
      const size_t agg = aggs[rng() % aggs.size()];
      const IpGenPrefix c = within(agg, w.segmentPrefixes[agg].prefix.len() + 1);
      if (const size_t n = segment0.count(c) ? 0 : beneath(w, c); n > most) {
         most = n;
         w.addCovering = {0, c, uint32_t(rng() % w.segments[0])};
      }
   }
   // Removed and moved: the prefixes (not FIB routes, not around the added
   // one) that are the longest cover of the most FIB routes.
   candidates.insert(candidates.end(), aggs.begin(), aggs.end());
   std::erase_if(candidates, [&](size_t i) {
      const IpGenPrefix& p = w.segmentPrefixes[i].prefix;
      const auto f = fibFrom(w, 0, p);
      return p.contains(w.addCovering.prefix) ||
             (f != w.fib.end() && f->vrf == 0 && f->prefix == p);
   });
   std::sort(candidates.begin(), candidates.end(),
             [&owned](size_t a, size_t b) { return owned[a] > owned[b]; });
   w.remove = candidates.at(0);
   w.move = candidates.at(1);
   w.moveTo = (w.segmentPrefixes[w.move].segment + 1) % w.segments[0];
   while (w.deleteSegment == w.segmentPrefixes[w.remove].segment ||
          w.deleteSegment == w.segmentPrefixes[w.move].segment || w.deleteSegment == w.moveTo) {
      ++w.deleteSegment;
   }
   // Withdrawn: FIB routes covered by prefixes no earlier phase takes away.
   std::vector<size_t> eligible;
   for (size_t i = 0; i < w.fib.size(); ++i) {
      const int32_t o = w.owner[i];
      if (o >= 0 && size_t(o) != w.remove &&
          !(w.segmentPrefixes[size_t(o)].vrf == 0 &&
            w.segmentPrefixes[size_t(o)].segment == w.deleteSegment)) {
         eligible.push_back(i);
      }
   }
   for (size_t i = 0; i < kChurn; ++i) {
      std::swap(eligible[i], eligible[i + rng() % (eligible.size() - i)]);
   }
   w.churn.assign(eligible.begin(), eligible.begin() + long(kChurn));
   for (const auto& sp : w.segmentPrefixes) {
      w.deletePrefixes += sp.vrf == 0 && sp.segment == w.deleteSegment;
   }
}

inline const Workload& workload() {
   static const Workload w = [] {
      Workload w;
      const char* env = std::getenv("KIV_SEED");
      w.seed = env ? std::strtoull(env, nullptr, 10) : 20240611;
      std::mt19937_64 rng(w.seed);
      // Routes: half in vrf00, the other half over vrf01.. with weights 1/k.
      double harmonic = 0;
      for (uint32_t v = 1; v < kVrfs; ++v) {
         harmonic += 1.0 / v;
      }
      std::vector<size_t> nRoutes[2];
      for (int f = 0; f < 2; ++f) {
         nRoutes[f].assign(kVrfs, kFib[f]);
         for (uint32_t v = 1; v < kVrfs; ++v) {
            nRoutes[f][0] -= nRoutes[f][v] = size_t(double(kFib[f]) / 2 / harmonic / v);
         }
      }
      // Segment prefixes: half by segments, half by routes.
      std::vector<size_t> nPrefixes(kVrfs, kSegmentPrefixes);
      for (uint32_t v = 0; v < kVrfs; ++v) {
         w.segments.push_back(kSegments / kVrfs + (v < kSegments % kVrfs));
         const double routeShare =
             double(nRoutes[0][v] + nRoutes[1][v]) / double(kFib[0] + kFib[1]);
         if (v) {
            nPrefixes[0] -= nPrefixes[v] =
                size_t(double(kSegmentPrefixes) *
                       (0.5 * w.segments[v] / double(kSegments) + 0.5 * routeShare));
         }
      }
      for (uint32_t v = 0; v < kVrfs; ++v) {
         generate(w, rng, v, false, nRoutes[0][v], nPrefixes[v] - nPrefixes[v] / 6);
         generate(w, rng, v, true, nRoutes[1][v], nPrefixes[v] / 6);
      }
      // The longest covering segment prefix of every FIB route.
      w.owner.assign(w.fib.size(), -1);
      size_t s = 0, r = 0;
      for (uint32_t v = 0; v < kVrfs; ++v) {
         auto trie = Routing::trieGenFactory("owner");
         std::unordered_map<IpGenPrefix, int32_t> index;
         for (; s < w.segmentPrefixes.size() && w.segmentPrefixes[s].vrf == v; ++s) {
            const SegmentPrefix& sp = w.segmentPrefixes[s];
            trie->routeIs(sp.prefix, true);
            index[sp.prefix] = int32_t(s);
            const auto f = fibFrom(w, v, sp.prefix);
            const bool here = f != w.fib.end() && f->vrf == v;
            w.prefixesAreFib += here && f->prefix == sp.prefix;
            w.prefixesEmpty += !here || !sp.prefix.contains(f->prefix);
         }
         for (; r < w.fib.size() && w.fib[r].vrf == v; ++r) {
            if (const auto m = trie->longestMatch(w.fib[r].prefix)) {
               w.owner[r] = index.at(*m);
               ++w.covered;
            }
         }
      }
      chooseChanges(w, rng);
      return w;
   }();
   return w;
}

}  // namespace fulltable
