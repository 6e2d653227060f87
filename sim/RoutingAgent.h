#pragma once
// The simulated routing agent: the VRFs and FIB routes of the switch, as the
// routing layer publishes them to the other agents, and their FIB route
// entries in the hardware table.
//
// What one VRF publishes (all in the L3 status unless said otherwise):
//   vrfStatus (routing flags), vrfDropIndex (a 16-bit index of its own, from
//   1 up), the drop adjacencies GlobalFecId(kDropV4 / kDropV6, 0, drop index)
//   -> AdjEntry(routeTypeDrop, dropL2Index(drop index, family)), its FIB table
//   id in vrfTableStatus (from 1 up), an empty FIB trie per family in the
//   route reactor statuses, and last its id: vrfNameIs(id, name), then
//   vrfIdIs(name, id). So whoever sees a VRF id finds everything else of the
//   VRF already there. Deletion withdraws the VRF's FIB routes first (one at a
//   time, as below), then the id (vrfIdDel, vrfNameDel), then the rest.
//
// One FIB route (VRF, prefix, adjacency index) is, consistently:
//   the hardware entry (RouteInfo(routeTypeForward, adj index)), the prefix in
//   the VRF's FIB trie, the route adjacency routeAdj / route6Adj
//   (AdjEntry(routeTypeForward, adj index)), and the FIB collection entry
//   (the same RouteInfo).
// The FIB collection is what the segment library reacts to, so it changes
// last, in both directions: on add (or change) the hardware entry, the trie
// and the adjacency are already in place when the collection announces the
// route; on withdrawal the hardware entry, the trie entry and the adjacency
// are already gone when the collection announces it. A library that then
// re-installs a segment prefix whose FIB route went finds no entry in
// hardware, and asking the L3 status whether the prefix is still a FIB route
// gets "no".
//
// That is the default order (WithdrawOrder::removeFirst). A routing layer may
// also report a withdrawal first and take the entry out of hardware on a
// later run of its own (WithdrawOrder::reportFirst): the trie, the adjacency
// and the collection entry go at once, the hardware entry kEntryRemovalDelay
// later, unless the route is added back meanwhile. A library that reinstalls
// a segment prefix over the FIB route's entry before it is gone would have it
// taken out with that entry.
//
// Requests are refused (sim::Outcome) when they do not make sense: a FIB
// route in a VRF without an id, an invalid prefix, an id another VRF holds.
// All of it runs synchronously on the reactor thread.

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <vector>

#include "Pexo/Prefix.h"
#include "Pexo/VrfId.h"
#include "Pexo/VrfName.h"
#include "Routing/FibRoute.h"
#include "Routing/L3Status.h"
#include "Routing/RouteReactor.h"
#include "Routing/Trie.h"
#include "Ruv/TaskScheduler.h"
#include "sim/HardwareRouteTable.h"
#include "sim/Outcome.h"

namespace sim {

class RoutingAgent {
public:
   // Drop adjacencies use hardware adjacency indices from here up, two per
   // VRF (IPv4, IPv6), out of the way of the indices FIB routes are given.
   static constexpr uint64_t kDropL2Base = 0x100000;
   static uint64_t dropL2Index(uint16_t dropIndex, Pexo::AddressFamily af) {
      return kDropL2Base + 2 * uint64_t(dropIndex) + (af == Pexo::AddressFamily::ipv6 ? 1 : 0);
   }

   // In which order a FIB route's withdrawal reaches hardware and the
   // collections; see above.
   enum class WithdrawOrder { removeFirst, reportFirst };
   static constexpr Zop::Time kEntryRemovalDelay = 40 * Zop::kMillisecond;

   RoutingAgent(Zop::Ptr<Ruv::TaskScheduler> scheduler, Zop::Ptr<L3Status> l3Status,
                Zop::Ptr<KivVrfFibRouteCollection> fibRoutes,
                Zop::Ptr<KivVrfFibRoute6Collection> fibRoutes6,
                Zop::Ptr<RouteReactorStatus> routeStatus,
                Zop::Ptr<Route6ReactorStatus> route6Status, Zop::Ptr<HardwareRouteTable> hardware);
   ~RoutingAgent();
   RoutingAgent(const RoutingAgent&) = delete;
   RoutingAgent& operator=(const RoutingAgent&) = delete;

   // Creates the VRF, or changes it: the same id only changes the routing
   // flags; another id deletes the VRF (with its FIB routes) and creates it
   // anew. Refused when another VRF holds the id.
   Outcome vrfAdd(const L3::VrfName& name, VrfId id, bool routing, bool routing6);
   // Changes the routing flags of an existing VRF.
   Outcome vrfRoutingIs(const L3::VrfName& name, bool routing, bool routing6);
   Outcome vrfDelete(const L3::VrfName& name);

   // Adds the FIB route or changes its adjacency index (no change: nothing
   // happens). The VRF must have an id; the prefix must be valid.
   Outcome fibAdd(const L3::VrfName& vrf, const Pexo::IpGenPrefix& prefix, uint64_t adjIndex);
   Outcome fibDelete(const L3::VrfName& vrf, const Pexo::IpGenPrefix& prefix);

   WithdrawOrder withdrawOrder() const { return withdrawOrder_; }
   void withdrawOrderIs(WithdrawOrder order) { withdrawOrder_ = order; }
   // Withdrawn FIB routes whose hardware entry is still to be removed.
   size_t entryRemovalsPending() const { return pendingRemovals_.size(); }

   // ---- Looking ----
   std::optional<VrfId> vrfId(const L3::VrfName& name) const;
   std::optional<uint16_t> dropIndex(const L3::VrfName& name) const;
   std::optional<uint32_t> fibTableId(const L3::VrfName& name) const;
   // The VRF's FIB routes and their adjacency indices, in prefix order.
   std::map<Pexo::IpGenPrefix, uint64_t> fibRoutes(const L3::VrfName& name) const;
   std::vector<L3::VrfName> vrfNames() const;
   size_t fibRouteCount() const;

private:
   struct Vrf {
      VrfId id;
      uint16_t dropIndex = 0;
      uint32_t tableId = 0;
      Zop::Ptr<L3::VrfStatus> status;
      // The VRF's FIB routes are its tries' prefixes; their adjacency
      // indices are in the FIB collections. No map of its own: at a full
      // table that was 80 bytes a route.
      Zop::Ptr<Routing::Trie> trie;
      Zop::Ptr<Routing6::Trie> trie6;
   };

   void publish(const L3::VrfName& name, Vrf& vrf);
   void withdraw(const L3::VrfName& name, Vrf& vrf);
   // Withdraws a route the VRF has, of adjacency index `adjIndex`.
   void fibWithdraw(Vrf& vrf, const Pexo::IpGenPrefix& prefix, uint64_t adjIndex);
   // The route's adjacency index; none when the VRF has no such route.
   std::optional<uint64_t> fibAdjIndex(const Vrf& vrf, const Pexo::IpGenPrefix& prefix) const;
   // The VRF's FIB routes in prefix order (IPv4 first).
   std::vector<Pexo::IpGenPrefix> fibPrefixes(const Vrf& vrf) const;
   // The forwarding adjacency of `adjIndex`, one object shared by every
   // route that uses it (it never changes once made).
   Zop::Ptr<AdjEntry> forwardAdj(uint64_t adjIndex);
   void forwardAdjRelease(uint64_t adjIndex);
   // The hardware entries of routes withdrawn report-first.
   void removePendingEntries();

   Zop::Ptr<Ruv::TaskScheduler> scheduler_;
   Zop::Ptr<L3Status> l3Status_;
   Zop::Ptr<KivVrfFibRouteCollection> fibRoutes_;
   Zop::Ptr<KivVrfFibRoute6Collection> fibRoutes6_;
   Zop::Ptr<RouteReactorStatus> routeStatus_;
   Zop::Ptr<Route6ReactorStatus> route6Status_;
   Zop::Ptr<HardwareRouteTable> hardware_;
   std::map<L3::VrfName, Vrf> vrfs_;
   WithdrawOrder withdrawOrder_ = WithdrawOrder::removeFirst;
   std::set<HardwareRouteTable::Key> pendingRemovals_;
   std::map<uint64_t, Zop::Ptr<AdjEntry>> forwardAdj_;
   Zop::Ptr<Ruv::Task> removalTask_;
};

}  // namespace sim
