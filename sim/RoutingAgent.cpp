#include "sim/RoutingAgent.h"

#include <set>
#include <string>

namespace sim {

namespace {

using Quarn::Fib::GlobalFecId;

// The lowest number from 1 up that `used` does not hold.
template <class T>
T lowestFree(const std::set<T>& used) {
   T candidate = 1;
   for (T u : used) {
      if (u > candidate) {
         break;
      }
      if (u == candidate) {
         ++candidate;
      }
   }
   return candidate;
}

Zop::String vrfText(const L3::VrfName& name) {
   return "VRF '" + name.value() + "'";
}

}  // namespace

RoutingAgent::RoutingAgent(Zop::Ptr<Ruv::TaskScheduler> scheduler, Zop::Ptr<L3Status> l3Status,
                           Zop::Ptr<KivVrfFibRouteCollection> fibRoutes,
                           Zop::Ptr<KivVrfFibRoute6Collection> fibRoutes6,
                           Zop::Ptr<RouteReactorStatus> routeStatus,
                           Zop::Ptr<Route6ReactorStatus> route6Status,
                           Zop::Ptr<HardwareRouteTable> hardware)
    : scheduler_(std::move(scheduler)),
      l3Status_(std::move(l3Status)),
      fibRoutes_(std::move(fibRoutes)),
      fibRoutes6_(std::move(fibRoutes6)),
      routeStatus_(std::move(routeStatus)),
      route6Status_(std::move(route6Status)),
      hardware_(std::move(hardware)),
      removalTask_(Ruv::makeTask(scheduler_, "SimRoutingEntryRemovalTask",
                                 [this] { removePendingEntries(); })) {}

RoutingAgent::~RoutingAgent() {
   removalTask_->cancel();
}

Outcome RoutingAgent::vrfAdd(const L3::VrfName& name, VrfId id, bool routing, bool routing6) {
   if (name.empty()) {
      return Outcome::refused("a VRF needs a name");
   }
   for (const auto& [other, vrf] : vrfs_) {
      if (vrf.id == id && other != name) {
         return Outcome::refused("VRF id " + std::to_string(id.value()) + " belongs to " +
                                 vrfText(other));
      }
   }
   auto it = vrfs_.find(name);
   if (it != vrfs_.end()) {
      if (it->second.id == id) {
         return vrfRoutingIs(name, routing, routing6);
      }
      (void)vrfDelete(name);
   }

   std::set<uint16_t> dropIndices;
   std::set<uint32_t> tableIds;
   for (const auto& [other, vrf] : vrfs_) {
      dropIndices.insert(vrf.dropIndex);
      tableIds.insert(vrf.tableId);
   }
   Vrf vrf;
   vrf.id = id;
   vrf.dropIndex = lowestFree(dropIndices);
   if (vrf.dropIndex == 0) {
      return Outcome::refused("no drop index left for " + vrfText(name));
   }
   vrf.tableId = lowestFree(tableIds);
   // Flags are set before the status is published: nobody sees it change.
   vrf.status = L3::vrfStatusFactory(name);
   vrf.status->routingEnabledIs(routing);
   vrf.status->routing6EnabledIs(routing6);
   vrf.trie = Routing::trieFactory();
   vrf.trie6 = Routing6::trieFactory();
   publish(name, vrfs_.emplace(name, std::move(vrf)).first->second);
   return Outcome::done();
}

void RoutingAgent::publish(const L3::VrfName& name, Vrf& vrf) {
   l3Status_->vrfStatusIs(vrf.status);
   l3Status_->vrfDropIndexIs(name, vrf.dropIndex);
   l3Status_->adjacencyIs(
       GlobalFecId(GlobalFecId::kDropV4, 0, vrf.dropIndex),
       Zop::makePtr<AdjEntry>(RouteType::routeTypeDrop,
                              dropL2Index(vrf.dropIndex, Pexo::AddressFamily::ipv4)));
   l3Status_->adjacencyIs(
       GlobalFecId(GlobalFecId::kDropV6, 0, vrf.dropIndex),
       Zop::makePtr<AdjEntry>(RouteType::routeTypeDrop,
                              dropL2Index(vrf.dropIndex, Pexo::AddressFamily::ipv6)));
   l3Status_->vrfTableStatus()->fibTableIdIs(name, vrf.tableId);
   routeStatus_->fibTrieIs(vrf.id, vrf.trie);
   route6Status_->fibTrieIs(vrf.id, vrf.trie6);
   // The id last: it tells everyone the VRF is complete.
   l3Status_->vrfNameIs(vrf.id, name);
   l3Status_->vrfIdIs(name, vrf.id);
}

Outcome RoutingAgent::vrfRoutingIs(const L3::VrfName& name, bool routing, bool routing6) {
   auto it = vrfs_.find(name);
   if (it == vrfs_.end()) {
      return Outcome::refused("no " + vrfText(name));
   }
   it->second.status->routingEnabledIs(routing);
   it->second.status->routing6EnabledIs(routing6);
   return Outcome::done();
}

Outcome RoutingAgent::vrfDelete(const L3::VrfName& name) {
   auto it = vrfs_.find(name);
   if (it == vrfs_.end()) {
      return Outcome::refused("no " + vrfText(name));
   }
   Vrf& vrf = it->second;
   // Until none is left: a route added by someone reacting to a withdrawal
   // goes too, and one they withdrew first is skipped.
   for (auto prefixes = fibPrefixes(vrf); !prefixes.empty(); prefixes = fibPrefixes(vrf)) {
      for (const Pexo::IpGenPrefix& prefix : prefixes) {
         if (const std::optional<uint64_t> adjIndex = fibAdjIndex(vrf, prefix)) {
            fibWithdraw(vrf, prefix, *adjIndex);
         }
      }
   }
   // Whatever the order of a withdrawal, the VRF's entries are out of
   // hardware before its id is given up: a VRF made with the id next must not
   // find them.
   std::erase_if(pendingRemovals_, [&](const HardwareRouteTable::Key& key) {
      return key.vrfId == vrf.id && (hardware_->fibRouteDel(key), true);
   });
   withdraw(name, vrf);
   vrfs_.erase(it);
   return Outcome::done();
}

void RoutingAgent::withdraw(const L3::VrfName& name, Vrf& vrf) {
   // The id first: from then on nobody starts anything with the VRF.
   l3Status_->vrfIdDel(name);
   l3Status_->vrfNameDel(vrf.id);
   route6Status_->fibTrieDel(vrf.id);
   routeStatus_->fibTrieDel(vrf.id);
   l3Status_->vrfTableStatus()->fibTableIdDel(name);
   l3Status_->adjacencyDel(GlobalFecId(GlobalFecId::kDropV6, 0, vrf.dropIndex));
   l3Status_->adjacencyDel(GlobalFecId(GlobalFecId::kDropV4, 0, vrf.dropIndex));
   l3Status_->vrfDropIndexDel(name);
   l3Status_->vrfStatusDel(name);
}

Outcome RoutingAgent::fibAdd(const L3::VrfName& vrfName, const Pexo::IpGenPrefix& prefix,
                             uint64_t adjIndex) {
   auto it = vrfs_.find(vrfName);
   if (it == vrfs_.end()) {
      return Outcome::refused("no " + vrfText(vrfName) + " with an id");
   }
   if (!prefix.validAsPrefix()) {
      return Outcome::refused("not a valid prefix: " + valueToStrep(prefix));
   }
   Vrf& vrf = it->second;
   const std::optional<uint64_t> was = fibAdjIndex(vrf, prefix);
   if (was == adjIndex) {
      return Outcome::done();
   }
   const RouteInfo info(RouteType::routeTypeForward, adjIndex);
   const Zop::Ptr<AdjEntry> adj = forwardAdj(adjIndex);
   // Back before its entry left hardware: the entry is the route's again.
   pendingRemovals_.erase({vrf.id, prefix});
   hardware_->fibRouteIs({vrf.id, prefix}, info);
   if (prefix.isIpv4()) {
      const VrfAndPrefix key(vrf.id, prefix.v4());
      vrf.trie->routeIs(prefix.v4(), true);
      l3Status_->routeAdjIs(key, adj);
      fibRoutes_->fibRouteIs(key, info);
   } else {
      const VrfAndIp6Prefix key(vrf.id, prefix.v6());
      vrf.trie6->routeIs(prefix.v6(), true);
      l3Status_->route6AdjIs(key, adj);
      fibRoutes6_->fibRouteIs(key, info);
   }
   if (was) {
      forwardAdjRelease(*was);
   }
   return Outcome::done();
}

Outcome RoutingAgent::fibDelete(const L3::VrfName& vrfName, const Pexo::IpGenPrefix& prefix) {
   auto it = vrfs_.find(vrfName);
   if (it == vrfs_.end()) {
      return Outcome::refused("no " + vrfText(vrfName) + " with an id");
   }
   const std::optional<uint64_t> adjIndex = fibAdjIndex(it->second, prefix);
   if (!adjIndex) {
      return Outcome::refused("no FIB route " + valueToStrep(prefix) + " in " + vrfText(vrfName));
   }
   fibWithdraw(it->second, prefix, *adjIndex);
   return Outcome::done();
}

void RoutingAgent::fibWithdraw(Vrf& vrf, const Pexo::IpGenPrefix& prefix, uint64_t adjIndex) {
   const Pexo::IpGenPrefix p = prefix;
   if (withdrawOrder_ == WithdrawOrder::reportFirst) {
      pendingRemovals_.insert({vrf.id, p});
      if (!removalTask_->isScheduled()) {
         removalTask_->scheduleTaskNoLaterThan(scheduler_->clock()->now() + kEntryRemovalDelay);
      }
   } else {
      hardware_->fibRouteDel({vrf.id, p});
   }
   if (p.isIpv4()) {
      const VrfAndPrefix key(vrf.id, p.v4());
      vrf.trie->routeDel(p.v4());
      l3Status_->routeAdjDel(key);
      fibRoutes_->fibRouteDel(key);
   } else {
      const VrfAndIp6Prefix key(vrf.id, p.v6());
      vrf.trie6->routeDel(p.v6());
      l3Status_->route6AdjDel(key);
      fibRoutes6_->fibRouteDel(key);
   }
   forwardAdjRelease(adjIndex);
}

std::optional<uint64_t> RoutingAgent::fibAdjIndex(const Vrf& vrf,
                                                  const Pexo::IpGenPrefix& prefix) const {
   const RouteInfo* info = nullptr;
   if (prefix.isIpv4()) {
      info = fibRoutes_->fibRoute(VrfAndPrefix(vrf.id, prefix.v4()));
   } else if (prefix.isIpv6()) {
      info = fibRoutes6_->fibRoute(VrfAndIp6Prefix(vrf.id, prefix.v6()));
   }
   return info ? std::optional<uint64_t>(info->adjIndex()) : std::nullopt;
}

std::vector<Pexo::IpGenPrefix> RoutingAgent::fibPrefixes(const Vrf& vrf) const {
   std::vector<Pexo::IpGenPrefix> prefixes;
   prefixes.reserve(vrf.trie->size() + vrf.trie6->size());
   vrf.trie->preOrderWalk(Pexo::Prefix(Pexo::IpAddr(0u), 0), [&](const Pexo::Prefix& p) {
      prefixes.emplace_back(p);
      return true;
   });
   vrf.trie6->preOrderWalk(Pexo::Ip6Prefix(Pexo::Ip6Addr(0, 0), 0),
                           [&](const Pexo::IpGenPrefix& p) {
                              prefixes.push_back(p);
                              return true;
                           });
   return prefixes;
}

Zop::Ptr<AdjEntry> RoutingAgent::forwardAdj(uint64_t adjIndex) {
   Zop::Ptr<AdjEntry>& adj = forwardAdj_[adjIndex];
   if (!adj) {
      adj = Zop::makePtr<AdjEntry>(RouteType::routeTypeForward, adjIndex);
   }
   return adj;
}

void RoutingAgent::forwardAdjRelease(uint64_t adjIndex) {
   // Dropped once no route uses it. One a reader of the L3 status still held
   // at that moment stays here until a route takes the index again and lets
   // it go: at most one object per index ever used.
   auto it = forwardAdj_.find(adjIndex);
   if (it != forwardAdj_.end() && it->second->references() == 1) {
      forwardAdj_.erase(it);
   }
}

void RoutingAgent::removePendingEntries() {
   // Only an entry the FIB route still owns goes: one the segment library
   // has taken over since is not the routing layer's to remove.
   for (const auto& key : pendingRemovals_) {
      hardware_->fibRouteDel(key);
   }
   pendingRemovals_.clear();
}

std::optional<VrfId> RoutingAgent::vrfId(const L3::VrfName& name) const {
   auto it = vrfs_.find(name);
   return it == vrfs_.end() ? std::nullopt : std::optional<VrfId>(it->second.id);
}

std::optional<uint16_t> RoutingAgent::dropIndex(const L3::VrfName& name) const {
   auto it = vrfs_.find(name);
   return it == vrfs_.end() ? std::nullopt : std::optional<uint16_t>(it->second.dropIndex);
}

std::optional<uint32_t> RoutingAgent::fibTableId(const L3::VrfName& name) const {
   auto it = vrfs_.find(name);
   return it == vrfs_.end() ? std::nullopt : std::optional<uint32_t>(it->second.tableId);
}

std::map<Pexo::IpGenPrefix, uint64_t> RoutingAgent::fibRoutes(const L3::VrfName& name) const {
   std::map<Pexo::IpGenPrefix, uint64_t> routes;
   auto it = vrfs_.find(name);
   if (it == vrfs_.end()) {
      return routes;
   }
   // A route in the trie but not yet in its collection (asked from inside
   // an addition's notifications) is not announced yet: left out.
   for (const Pexo::IpGenPrefix& prefix : fibPrefixes(it->second)) {
      if (const std::optional<uint64_t> adj = fibAdjIndex(it->second, prefix)) {
         routes.emplace_hint(routes.end(), prefix, *adj);
      }
   }
   return routes;
}

std::vector<L3::VrfName> RoutingAgent::vrfNames() const {
   std::vector<L3::VrfName> names;
   for (const auto& entry : vrfs_) {
      names.push_back(entry.first);
   }
   return names;
}

size_t RoutingAgent::fibRouteCount() const {
   size_t n = 0;
   for (const auto& entry : vrfs_) {
      n += entry.second.trie->size() + entry.second.trie6->size();
   }
   return n;
}

}  // namespace sim
