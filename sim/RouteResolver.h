#pragma once
// The simulated route resolver: answers the prefixes on the route reactor
// watch lists (both families) in the route reactor statuses.
//
// An answer for a watched (VRF, P) is a NextHopEntryList: either one entry
// {resolved = true, routeTypeForward, fecIndex}, or empty (no next hop). The
// next hop's adjacency is published first, under GlobalFecId(kForward, the
// VRF's FIB table id, fecIndex) -> AdjEntry(routeTypeForward, adj index). FEC
// indices are handed out per (table, adj index), lowest free from 1, shared by
// every answer that goes to the same adjacency, and withdrawn (adjacencyDel)
// once no published answer uses them any more.
//
// Modes:
//   automatic (the default)  the answer is the longest FIB route strictly
//      covering P (shorter than P and containing it), found in the VRF's FIB
//      trie; none: an empty list. FIB route changes re-answer every watched
//      prefix they cover.
//   manual  the answer is what resolve / resolveNone last said for the key,
//      held until the key is watched; a watched key without one gets no
//      answer. FIB changes do not matter.
// Changing the mode re-answers every watched key by the new rule. A VRF with
// no FIB table id resolves to no next hop. A VRF that goes (its name leaves
// the L3 status) takes its answers with it at once: an answer names a FEC
// index of the VRF's FIB table, and a VRF that comes back under the same id
// may have another table. When it comes back, its watched keys are answered
// again.
//
// Watch-list, FIB and returning-VRF notifications only note the keys and
// schedule the resolver's task ("SimRouteResolverTask"); the task looks up
// the watched keys each FIB change covers, then publishes answers, one FIB
// change or key per item, yielding between items when the scheduler asks
// (a VRF that goes is the exception, above). A watch that goes away
// takes its answer with it (resolvedEntryDel). Keys are answered in key
// order, so runs are deterministic.

#include <cstdint>
#include <map>
#include <memory>
#include <memory_resource>
#include <optional>
#include <set>

#include <absl/container/btree_map.h>

#include "Pexo/Prefix.h"
#include "Pexo/VrfId.h"
#include "Routing/FibRoute.h"
#include "Routing/L3Status.h"
#include "Routing/RouteReactor.h"
#include "Ruv/TaskScheduler.h"
#include "Zop/OrderedWorkSet.h"

namespace sim {

class RouteResolver {
public:
   enum class Mode : uint8_t { automatic, manual };

   RouteResolver(Zop::Ptr<Ruv::TaskScheduler> scheduler, Zop::Ptr<L3Status> l3Status,
                 Zop::Ptr<KivVrfFibRouteCollection> fibRoutes,
                 Zop::Ptr<KivVrfFibRoute6Collection> fibRoutes6,
                 Zop::Ptr<RouteReactorConfig> routeConfig,
                 Zop::Ptr<Route6ReactorConfig> route6Config,
                 Zop::Ptr<RouteReactorStatus> routeStatus,
                 Zop::Ptr<Route6ReactorStatus> route6Status);
   ~RouteResolver();
   RouteResolver(const RouteResolver&) = delete;
   RouteResolver& operator=(const RouteResolver&) = delete;

   Mode mode() const { return mode_; }
   void modeIs(Mode mode);

   // Manual answers: a next hop through hardware adjacency `adjIndex`, or
   // none. Held for the key (watched now or later); used in manual mode.
   void resolve(VrfId vrf, const Pexo::IpGenPrefix& prefix, uint64_t adjIndex);
   void resolveNone(VrfId vrf, const Pexo::IpGenPrefix& prefix);
   // Forgets the held answer; a watched key then has none (in manual mode).
   void resolveDel(VrfId vrf, const Pexo::IpGenPrefix& prefix);

   // The adjacency index the published answer of the key goes to; none when
   // there is no answer or it has no next hop.
   std::optional<uint64_t> answerAdjIndex(VrfId vrf, const Pexo::IpGenPrefix& prefix) const;
   // Keys answered so far (published answers, with or without a next hop).
   size_t answerCount() const { return published_.size(); }
   // FEC indices currently published.
   size_t fecCount() const { return fecs_.size(); }

private:
   class ConfigNotifiee;
   class Config6Notifiee;
   class FibNotifiee;
   class Fib6Notifiee;
   class L3Notifiee;

   using Key = VrfAndIpGenPrefix;
   // A published answer: none (empty list), or the FEC used.
   struct Answer {
      std::optional<std::pair<uint32_t, uint64_t>> fec;  // (table id, adj index)
      uint16_t fecIndex = 0;
   };
   struct Fec {
      uint16_t index = 0;
      uint32_t users = 0;
   };

   void watchChanged(const Key& key);
   void fibChanged(const Key& key);
   void vrfChanged(VrfId id);
   void run();
   void answer(const Key& key);
   bool watched(const Key& key) const;
   // Calls f(key) for each watched key (both families), watched as the
   // configuration says now: those answered and those still pending.
   template <class F>
   void forEachWatch(F&& f) const;
   // The answer the current rule gives for a watched key: nullopt = give no
   // answer; an inner nullopt = no next hop; else the adjacency index.
   std::optional<std::optional<uint64_t>> desired(const Key& key) const;
   void publish(const Key& key, const Answer& answer);
   void withdraw(const Key& key);
   uint16_t acquireFec(uint32_t tableId, uint64_t adjIndex);
   void releaseFec(const std::pair<uint32_t, uint64_t>& fec);

   Zop::Ptr<Ruv::TaskScheduler> scheduler_;
   Zop::Ptr<L3Status> l3Status_;
   Zop::Ptr<KivVrfFibRouteCollection> fibRoutes_;
   Zop::Ptr<KivVrfFibRoute6Collection> fibRoutes6_;
   Zop::Ptr<RouteReactorConfig> routeConfig_;
   Zop::Ptr<Route6ReactorConfig> route6Config_;
   Zop::Ptr<RouteReactorStatus> routeStatus_;
   Zop::Ptr<Route6ReactorStatus> route6Status_;
   Zop::Ptr<Ruv::Task> task_;
   std::unique_ptr<ConfigNotifiee> configNotifiee_;
   std::unique_ptr<Config6Notifiee> config6Notifiee_;
   std::unique_ptr<FibNotifiee> fibNotifiee_;
   std::unique_ptr<Fib6Notifiee> fib6Notifiee_;
   std::unique_ptr<L3Notifiee> l3Notifiee_;

   Mode mode_ = Mode::automatic;
   // Work noted by notifications, done by the task. The FIB changes' nodes
   // come from a pool of their own, given back whole once drained: a
   // node per FIB route of a table load, allocated between the routes' own
   // blocks and freed after them, left that many holes in the heap (732,000
   // on the real table), which malloc then sorted 10,000 at a time inside
   // whichever allocations came next (18 ms in one library handler).
   std::pmr::unsynchronized_pool_resource pendingPool_;
   std::pmr::set<Key> pendingFib_{&pendingPool_};
   // The keys to answer, taken from the front; an enable notes them in key
   // order, which a B-tree appends at its last node, with no node of its own
   // per key (erasing each from a red-black tree of 100,000 was 6% of
   // FullTableBench's enable).
   Zop::OrderedWorkSet<Key> pendingKeys_;
   std::map<Key, std::optional<uint64_t>> held_;
   // Filled in key order by an enable: a B-tree appends to its last node.
   absl::btree_map<Key, Answer> published_;
   std::map<std::pair<uint32_t, uint64_t>, Fec> fecs_;
   // A table's FEC indices: each new FEC takes the lowest free one. The
   // indices in use are 1 .. next-1 less the free ones below next, so the
   // lowest free index is found without scanning those in use (a full table
   // holds tens of thousands).
   struct FecIndices {
      uint32_t next = 1;
      std::set<uint16_t> free;
   };
   std::map<uint32_t, FecIndices> fecIndices_;
};

}  // namespace sim
