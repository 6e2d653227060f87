// Queueing the FIB routes beneath a changed segment prefix: when a segment
// prefix comes, goes or changes id, the FIB routes it covers may need another
// id. Only the range between the prefix and the next more-specific segment
// prefix below it can be affected; those FIB routes go on the FIB route
// review list, and the FIB route reactor writes their ids.

#include "KivSegmentSecurity/KivSegmentPrefixProcessorSm.h"
#include "KivSegmentSecurity/KivSegmentSecurityTrieHelper.h"
#include "KivSegmentSecurity/KivSegmentSecurityUtils.h"

#include "KivSegmentSecurity/KivSegmentSecurityTrace.h"

namespace Kiv {

namespace {
constexpr char kSource[] = "KivSegmentSecurity/FibRouteHwIdUpdateHelper";
}

void KivSegmentPrefixProcessorSm::syncFibRouteHwId(const VrfAndIpGenPrefix& vrfPrefix,
                                                   SegmentHwId hwId) {
   const VrfId vrfId = vrfPrefix.vrfId();
   const Pexo::IpGenPrefix& prefix = vrfPrefix.prefix();
   Zop::Ptr<Routing::TrieGen> segmentTrie = segmentPrefixTrie_->getPrefixTrie(vrfId, prefix.af());
   ZOP_ASSERT_FN(segmentTrie, " Segment trie does not exist ", kSource, "syncFibRouteHwId");

   // getLpmHardwareId: the id the FIB routes beneath would fall back to.
   SegmentHwId lpmHwId;
   std::optional<Pexo::IpGenPrefix> match = segmentTrie->longestMatch(prefix);
   if (match && match->af() == prefix.af() && match->validAsPrefix() && *match != prefix) {
      lpmHwId = getSegmentRouteInfo(vrfId, *match, segmentRoutesList_).hwId();
   }
   if (lpmHwId == hwId) {
      TRACE5_FN("getLpmHardwareId", " Longest Prefix is in same segment. "
                                        << prefix << " " << hwId << " Longest Prefix: "
                                        << (match ? *match : Pexo::IpGenPrefix()) << " "
                                        << lpmHwId);
      return;
   }

   Zop::Ptr<NextSpecifcPrefixCallback> nextCallback = nextSpecifcPrefixCallbackFactory(prefix);
   segmentTrie->preOrderWalk(
       prefix, [&](const Pexo::IpGenPrefix& p) { return nextCallback->handlePrefix(p); });
   Pexo::IpGenPrefix nextPrefix = nextCallback->nextPrefix();
   if (nextPrefix != prefix) {
      SegmentHwId nextHwId = getSegmentRouteInfo(vrfId, nextPrefix, segmentRoutesList_).hwId();
      TRACE5_FN("syncFibRouteHwId",
                " " << prefix << " " << hwId << " Next Prefix: " << nextPrefix << " " << nextHwId);
   }

   // A deleted VRF has no FIB any more: nothing beneath to review.
   if (!l3Status_->vrfNameHas(vrfId)) {
      TRACE5_FN("syncFibRouteHwId",
                " Vrf " << vrfId << " is gone, no Fib routes to review under " << prefix);
      return;
   }
   if (prefix.isIpv4()) {
      Zop::Ptr<Routing::Trie> fibTrie = routeStatus_->fibTrie(vrfId);
      ZOP_ASSERT_FN(fibTrie, " Fib trie does not exist ", kSource, "syncFibRouteHwId");
      getV4FibRoutes(vrfId, prefix, nextPrefix, segmentRoutesList_, fibRouteReivewList_, fibTrie);
   } else {
      Zop::Ptr<Routing6::Trie> fibTrie = route6Status_->fibTrie(vrfId);
      ZOP_ASSERT_FN(fibTrie, " Fib trie does not exist ", kSource, "syncFibRouteHwId");
      getV6FibRoutes(vrfId, prefix, nextPrefix, segmentRoutesList_, fibRouteReivewList_, fibTrie);
   }
}

}  // namespace Kiv
