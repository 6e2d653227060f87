#include "KivSegmentSecurity/KivSegmentHwWriter.h"

#include "KivSegmentSecurity/KivSegmentSecurityUtils.h"

#include "KivSegmentSecurity/KivSegmentSecurityTrace.h"

namespace Kiv {

KivSegmentHwWriter::KivSegmentHwWriter(const Zop::Ptr<L3Status>& l3Status,
                                       const Zop::Ptr<KivSegmentRouteInfoColl>& segmentRoutesList,
                                       const Zop::Ptr<KivSegmentRouteHelper>& segmentRouteHelper,
                                       const Zop::Ptr<KivHelper::RouteSmHelper>& routeHelper,
                                       const Zop::Ptr<KivHelper::Route6SmHelper>& route6Helper)
    : l3Status_(l3Status),
      segmentRoutesList_(segmentRoutesList),
      segmentRouteHelper_(segmentRouteHelper),
      routeHelper_(routeHelper),
      route6Helper_(route6Helper) {}

bool KivSegmentHwWriter::programRoute(const VrfAndIpGenPrefix& vrfPrefix,
                                      const RouteInfo& oldRouteInfo,
                                      const RouteInfo& newRouteInfo) const {
   const Pexo::IpGenPrefix& prefix = vrfPrefix.prefix();
   if (prefix.isIpv4()) {
      return routeHelper_->programRoute(prefix.v4(), vrfPrefix.vrfId(), oldRouteInfo, newRouteInfo);
   }
   return route6Helper_->programRoute(prefix.v6(), vrfPrefix.vrfId(), oldRouteInfo, newRouteInfo);
}

bool KivSegmentHwWriter::hwIdIs(const HwWriteSite& site, const KivSegmentRouteInfo& info) const {
   if (segmentRouteHelper_->updateHardwareId(info)) {
      return true;
   }
   TRACE5_FN(site.function, " updateHardwareId failed for " << info.vrfPrefix().prefix());
   return false;
}

void KivSegmentHwWriter::installedIs(const HwWriteSite& site,
                                     const KivSegmentRouteInfo& info) const {
   hwIdIs(site, info);
   segmentRoutesList_->routeInfoIs(info);
}

KivSegmentRouteInfo KivSegmentHwWriter::fibRouteHwIdIs(const HwWriteSite& site,
                                                       const VrfAndIpGenPrefix& vrfPrefix,
                                                       SegmentHwId hwId, bool record) const {
   Zop::Ptr<AdjEntry> adjInfo = getAdjacencyInfo(vrfPrefix, l3Status_);
   ZOP_ASSERT_FN(adjInfo, "Adjacency Info not found", site.source, site.function);
   const KivSegmentRouteInfo info(vrfPrefix, hwId, adjInfo->routeInfo());
   if (record) {
      installedIs(site, info);
   } else {
      hwIdIs(site, info);
   }
   return info;
}

SegmentHwId coveringHwId(const char* function, const VrfAndIpGenPrefix& vrfPrefix,
                         const KivSegmentPrefixTrie& segmentPrefixTrie,
                         const KivSegmentRouteInfoColl& segmentRoutesList) {
   Zop::Ptr<VrfTrieGen> vrfTrie = segmentPrefixTrie.vrfTrie(vrfPrefix.vrfId());
   Zop::Ptr<Routing::TrieGen> trie =
       vrfTrie ? vrfTrie->prefixTrie(vrfPrefix.prefix().af()) : nullptr;
   return trie ? coveringHwId(function, vrfPrefix, *trie, segmentRoutesList) : SegmentHwId(0);
}

SegmentHwId coveringHwId(const char* function, const VrfAndIpGenPrefix& vrfPrefix,
                         const Routing::TrieGen& segmentTrie,
                         const KivSegmentRouteInfoColl& segmentRoutesList) {
   return coveringHwId(function, vrfPrefix.vrfId(), segmentTrie.longestMatch(vrfPrefix.prefix()),
                       segmentRoutesList);
}

SegmentHwId coveringHwId(const char* function, VrfId vrfId,
                         const std::optional<Pexo::IpGenPrefix>& match,
                         const KivSegmentRouteInfoColl& segmentRoutesList) {
   if (!match) {
      return SegmentHwId(0);
   }
   const KivSegmentRouteInfo* covering =
       segmentRoutesList.routeInfoFind(VrfAndIpGenPrefix(vrfId, *match));
   if (!covering) {
      TRACE5_FN(function, " Segment Prefix " << *match << " no route in RouteInfo collection");
      return SegmentHwId(0);
   }
   return covering->hwId();
}

std::optional<Pexo::IpGenPrefix> KivCoveringMatch::longestMatch(
    const Zop::Ptr<Routing::TrieGen>& trie, const Pexo::IpGenPrefix& p) {
   if (trie_ == trie && trie->changeCount() == changes_ && p.af() == from_.af() && from_ <= p &&
       (!next_ || p < *next_) && (!match_ || match_->contains(p))) {
      return match_;
   }
   ++lookups_;
   match_ = trie->longestMatch(p);
   next_ = trie->firstAfter(p);
   from_ = p;
   trie_ = trie;
   changes_ = trie->changeCount();
   return match_;
}

}  // namespace Kiv
