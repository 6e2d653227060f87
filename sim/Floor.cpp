#include "sim/Floor.h"

#include <map>
#include <unordered_map>
#include <utility>

#include "Routing/Trie.h"
#include "Zop/Clock.h"
#include "sim/Oracle.h"
#include "sim/RoutingAgent.h"

namespace sim {

namespace {

using Key = HardwareRouteTable::Key;

uint64_t writesOf(const HardwareRouteTable& table) {
   const auto& c = table.counters();
   return c.routePrograms + c.hwIdWrites;
}

struct VrfFamily {
   Zop::Ptr<Routing::TrieGen> trie;
   std::unordered_map<Pexo::IpGenPrefix, SegmentHwId> ids;
};

}  // namespace

FloorFigures timeFloor(HardwareRouteTable& table, const std::vector<Key>& fib,
                       const std::vector<FloorPrefix>& prefixes) {
   const uint64_t writesBefore = writesOf(table);
   const Zop::Time start = Zop::monotonicNow();

   std::map<std::pair<VrfId, bool>, VrfFamily> families;
   // Routes come VRF by VRF: the last one's tries serve the next route.
   std::pair<VrfId, bool> lastKey{};
   VrfFamily* last = nullptr;
   auto family = [&](VrfId vrf, bool v6, bool add) -> VrfFamily* {
      const std::pair<VrfId, bool> key{vrf, v6};
      if (!last || key != lastKey) {
         auto it = families.find(key);
         if (it == families.end()) {
            if (!add) {
               return nullptr;
            }
            it = families.emplace(key, VrfFamily()).first;
            it->second.trie = Routing::trieGenFactory(
                "floor", v6 ? Pexo::AddressFamily::ipv6 : Pexo::AddressFamily::ipv4);
         }
         lastKey = key;
         last = &it->second;
      }
      return last;
   };
   for (const FloorPrefix& p : prefixes) {
      VrfFamily* f = family(p.vrf, p.prefix.isIpv6(), true);
      f->trie->routeIs(p.prefix, true);
      f->ids[p.prefix] = p.id;
   }
   for (const FloorPrefix& p : prefixes) {
      const Key key{p.vrf, p.prefix};
      if (!table.entry(key)) {
         table.programRoute(
             key, RouteInfo(),
             RouteInfo(RouteType::routeTypeDrop,
                       RoutingAgent::dropL2Index(uint16_t(p.vrf.value()), p.prefix.af())));
         table.hardwareIdIs(key, p.id);
      }
   }
   for (const Key& key : fib) {
      const VrfFamily* f = family(key.vrfId, key.prefix.isIpv6(), false);
      const auto match = f ? f->trie->longestMatch(key.prefix) : std::nullopt;
      table.hardwareIdIs(key, match ? f->ids.find(*match)->second : SegmentHwId(0));
   }

   FloorFigures figures;
   figures.ns = Zop::monotonicNow() - start;
   figures.writes = writesOf(table) - writesBefore;
   return figures;
}

FloorFigures measureFloor(const Oracle& oracle) {
   const Oracle::Inputs& in = oracle.inputs();
   auto table = Zop::makePtr<HardwareRouteTable>();
   std::vector<Key> fib;
   fib.reserve(in.fibRoutes->fibRoute().size() + in.fibRoutes6->fibRoute().size());
   for (const auto& [k, r] : in.fibRoutes->fibRoute()) {
      fib.push_back({k.vrfId(), Pexo::IpGenPrefix(k.prefix())});
      table->fibRouteIs(fib.back(), r);
   }
   for (const auto& [k, r] : in.fibRoutes6->fibRoute()) {
      fib.push_back({k.vrfId(), Pexo::IpGenPrefix(k.prefix())});
      table->fibRouteIs(fib.back(), r);
   }
   std::vector<FloorPrefix> prefixes;
   for (const auto& [vrf, ids] : oracle.segmentPrefixIds()) {
      for (const auto& [prefix, id] : ids) {
         prefixes.push_back({vrf, prefix, id});
      }
   }
   return timeFloor(*table, fib, prefixes);
}

}  // namespace sim
