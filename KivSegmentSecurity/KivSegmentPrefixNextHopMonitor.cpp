// The next-hop monitor: in a VRF with routing enabled a segment prefix is
// watched, and the route resolver's reports program it with the resolved next
// hop, or with the drop next hop when there is none.

#include "KivSegmentSecurity/KivSegmentPrefixProcessorSm.h"
#include "KivSegmentSecurity/KivSegmentSecurityUtils.h"

#include "KivSegmentSecurity/KivSegmentSecurityTrace.h"

namespace Kiv {

namespace {
constexpr char kSource[] = "KivSegmentSecurity/KivSegmentPrefixNextHopMonitor";
}

void KivSegmentPrefixProcessorSm::addWatchedPrefix(VrfId vrfId, const Pexo::Prefix& prefix) {
   VrfAndPrefix key(vrfId, prefix);
   if (routeConfig_->watchedPrefixHas(key)) {
      return;
   }
   routeConfig_->watchedPrefixIs(key, Routing::RouteWatch{});
   // An answer the resolver already holds brings no notification: take it now.
   if (routeStatus_->resolvedEntry(key)) {
      handleResolvedPrefix(VrfAndIpGenPrefix(vrfId, Pexo::IpGenPrefix(prefix)));
   }
}

void KivSegmentPrefixProcessorSm::removeWatchedPrefix(VrfId vrfId, const Pexo::Prefix& prefix) {
   routeConfig_->watchedPrefixDel(VrfAndPrefix(vrfId, prefix));
}

void KivSegmentPrefixProcessorSm::addWatchedIp6Prefix(VrfId vrfId, const Pexo::Ip6Prefix& prefix) {
   VrfAndIp6Prefix key(vrfId, prefix);
   if (route6Config_->watchedPrefixHas(key)) {
      return;
   }
   route6Config_->watchedPrefixIs(key, Routing::RouteWatch{});
   if (route6Status_->resolvedEntry(key)) {
      handleResolvedIp6Prefix(VrfAndIpGenPrefix(vrfId, Pexo::IpGenPrefix(prefix)));
   }
}

void KivSegmentPrefixProcessorSm::removeWatchedIp6Prefix(VrfId vrfId,
                                                         const Pexo::Ip6Prefix& prefix) {
   route6Config_->watchedPrefixDel(VrfAndIp6Prefix(vrfId, prefix));
}

void KivSegmentPrefixProcessorSm::handleResolvedPrefix(const VrfAndIpGenPrefix& vrfPrefix) {
   TRACE8_FN("handleResolvedPrefix", " vrfAndIpGenPrefix: " << vrfPrefix);
   const NextHopEntryList* entries =
       routeStatus_->resolvedEntry(VrfAndPrefix(vrfPrefix.vrfId(), vrfPrefix.prefix().v4()));
   if (entries) {
      NextHopEntryList copy = *entries;  // programming may change the status
      handleResolvedPrefixCommon(vrfPrefix, copy);
   } else {
      handleResolvedEntryWithdrawn("handleResolvedPrefix", vrfPrefix);
   }
}

void KivSegmentPrefixProcessorSm::handleResolvedIp6Prefix(const VrfAndIpGenPrefix& vrfPrefix) {
   TRACE8_FN("handleResolvedIp6Prefix", " vrfAndIpGenPrefix: " << vrfPrefix);
   const NextHopEntryList* entries =
       route6Status_->resolvedEntry(VrfAndIp6Prefix(vrfPrefix.vrfId(), vrfPrefix.prefix().v6()));
   if (entries) {
      NextHopEntryList copy = *entries;
      handleResolvedPrefixCommon(vrfPrefix, copy);
   } else {
      handleResolvedEntryWithdrawn("handleResolvedIp6Prefix", vrfPrefix);
   }
}

void KivSegmentPrefixProcessorSm::handleResolvedEntryWithdrawn(const char* fn,
                                                               const VrfAndIpGenPrefix& vrfPrefix) {
   // A watch the processor dropped takes its answer with it after the record
   // went; only a prefix still recorded, in hardware by an answer, is ours.
   const KivSegmentRouteInfo* recorded = segmentRoutesList_->routeInfoFind(vrfPrefix);
   if (!recorded || recorded->routeInfo().routeType() == RouteType::routeTypeInvalid) {
      return;
   }
   Zop::Ptr<L3::VrfStatus> vrfStatus = vrfL3Status(vrfPrefix.vrfId());
   if (!vrfStatus || !vrfStatus->routingEnabled(vrfPrefix.prefix().af()) ||
       isFibRoute(vrfPrefix, l3Status_)) {
      return;
   }
   // The route was programmed from an answer that no longer stands: the
   // prefix waits for the next one, as it did before the first.
   const KivSegmentRouteInfo routeInfo = *recorded;
   TRACE5_FN(fn,
             " RouteResolver withdrew its answer. Removing " << vrfPrefix.prefix() << " from Hw");
   if (!hwWriter_.programRoute(vrfPrefix, routeInfo.routeInfo(), RouteInfo())) {
      TRACE5_FN(fn, " Failed to remove prefix from Hw");
      return;
   }
   segmentRoutesList_->routeInfoIs(KivSegmentRouteInfo(vrfPrefix, routeInfo.hwId(), RouteInfo()));
}

void KivSegmentPrefixProcessorSm::handleResolvedPrefixCommon(const VrfAndIpGenPrefix& vrfPrefix,
                                                             const NextHopEntryList& entryList) {
   constexpr char fn[] = "handleResolvedPrefixCommon";
   // Reports for anything but a segment prefix are not ours.
   const KivSegmentRouteInfo* recorded = segmentRoutesList_->routeInfoFind(vrfPrefix);
   if (!recorded) {
      return;
   }
   // Only a VRF that routes the family forwards segment prefixes to their
   // next hop; elsewhere the prefix keeps its drop route whatever is
   // reported.
   Zop::Ptr<L3::VrfStatus> vrfStatus = l3Status_->vrfStatus(l3Status_->vrfName(vrfPrefix.vrfId()));
   if (!vrfStatus || !vrfStatus->routingEnabled(vrfPrefix.prefix().af())) {
      return;
   }
   const uint32_t* fibTableId =
       l3Status_->vrfTableStatus()->fibTableId(l3Status_->vrfName(vrfPrefix.vrfId()));
   bool noNextHop = entryList.empty() || !entryList.front().resolved || !fibTableId;
   if (noNextHop) {
      TRACE5_FN(fn, " RouteResolver could not find NH. "
                        << "Adding Drop NH to prefix again ");
      KivSegmentRouteInfo routeInfo = *recorded;
      if (isFibRoute(vrfPrefix, l3Status_)) {
         // Never a drop route over a FIB route: it only carries the id.
         TRACE5_FN(fn, " " << vrfPrefix.prefix() << " is also a fib route. ");
         hwWriter_.fibRouteHwIdIs({fn, kSource}, vrfPrefix, routeInfo.hwId(), true);
         return;
      }
      addPrefixToHwWithDropNh(KivSegmentHwInfo(vrfPrefix, segmentRouteAdd, routeInfo.hwId()),
                              routeInfo.routeInfo());
      return;
   }
   const Routing::NextHopEntry& nextHop = entryList.front();
   Quarn::Fib::GlobalFecId fecId(Quarn::Fib::GlobalFecId::kForward, *fibTableId, nextHop.fecIndex);
   fecId.doInit();
   TRACE5_FN(fn, " New fecId: " << fecId);
   Zop::Ptr<AdjEntry> adjInfo = l3Status_->adjacency(fecId);
   ZOP_ASSERT_FN(adjInfo, "adjInfo && \"Adjacency Info is NULL\"", kSource, fn);
   TRACE5_FN(fn, " NH update for segment prefix. AdjIndex: " << adjInfo->l2Adj().index());
   processResolvedEntry(vrfPrefix, nextHop.routeType, fecId.value());
}

void KivSegmentPrefixProcessorSm::processResolvedEntry(const VrfAndIpGenPrefix& vrfPrefix,
                                                       RouteType routeType, uint64_t fecId) {
   constexpr char fn[] = "processResolvedEntry";
   const KivSegmentRouteInfo* recorded = segmentRoutesList_->routeInfoFind(vrfPrefix);
   if (!recorded) {
      return;
   }
   KivSegmentRouteInfo routeInfo = *recorded;
   // A recorded prefix is in the trie; putting it there again is harmless and
   // keeps the two in step should a failed install have taken it out.
   segmentPrefixTrie_->getPrefixTrie(vrfPrefix.vrfId(), vrfPrefix.prefix().af())
       ->routeIs(vrfPrefix.prefix(), true);
   Zop::Ptr<AdjEntry> adjInfo = l3Status_->adjacency(Quarn::Fib::GlobalFecId::fromValue(fecId));
   ZOP_ASSERT_FN(adjInfo, "adjInfo && \"Adjacency Info is NULL\"", kSource, fn);
   const Pexo::IpGenPrefix& prefix = vrfPrefix.prefix();
   TRACE5_FN(fn, " Received NH update for segment prefix."
                     << " Existing VrfId: " << vrfPrefix.vrfId() << " Prefix: " << prefix
                     << " RouteType: " << routeType << " AdjIndex: " << adjInfo->l2Adj().index());

   if (isFibRoute(vrfPrefix, l3Status_)) {
      // The FIB route keeps its own forwarding and takes the id.
      TRACE5_FN(fn, " Resolved prefix is also a Fib route"
                        << ". Updating hwId");
      hwWriter_.fibRouteHwIdIs({fn, kSource}, vrfPrefix, routeInfo.hwId(), true);
   } else {
      TRACE5_FN(fn, " Resolved prefix is not in FIB."
                        << " Insert it now");
      const RouteInfo newRouteInfo(routeType, adjInfo->l2Adj().index());
      if (awaitFibEntryRemoval(fn, routeInfo)) {
         return;
      }
      if (!hwWriter_.programRoute(vrfPrefix, routeInfo.routeInfo(), newRouteInfo)) {
         TRACE5_FN(fn, " Failed to add prefix in Hw");
         return;
      }
      TRACE5_FN(fn, " Prefix added successfully ");
      // A route programmed anew carries no id yet.
      hwWriter_.installedIs({fn, kSource},
                            KivSegmentRouteInfo(vrfPrefix, routeInfo.hwId(), newRouteInfo));
   }
   if (prefix.isHost()) {
      return;
   }
   syncFibRouteHwId(vrfPrefix, routeInfo.hwId());
}

}  // namespace Kiv
