#include "KivSegmentSecurity/KivSegmentSecurityUtils.h"

#include "KivSegmentSecurity/KivSegmentSecurityTrieHelper.h"

#include "KivSegmentSecurity/KivSegmentSecurityTrace.h"

namespace Kiv {

namespace {
constexpr char kSource[] = "KivSegmentSecurity/KivSegmentSecurityUtils";
}

Zop::Ptr<AdjEntry> getAdjacencyInfo(const VrfAndIpGenPrefix& vrfPrefix,
                                    const Zop::Ptr<const L3Status>& l3Status) {
   const Pexo::IpGenPrefix& prefix = vrfPrefix.prefix();
   if (prefix.isIpv4()) {
      return l3Status->routeAdj(VrfAndPrefix(vrfPrefix.vrfId(), prefix.v4()));
   }
   if (prefix.isIpv6()) {
      return l3Status->route6Adj(VrfAndIp6Prefix(vrfPrefix.vrfId(), prefix.v6()));
   }
   return nullptr;
}

bool isFibRoute(const VrfAndIpGenPrefix& vrfPrefix, const Zop::Ptr<const L3Status>& l3Status) {
   return bool(getAdjacencyInfo(vrfPrefix, l3Status));
}

KivSegmentRouteInfo getSegmentRouteInfo(
    VrfId vrfId, const Pexo::IpGenPrefix& prefix,
    const Zop::Ptr<const KivSegmentRouteInfoColl>& routeInfoColl) {
   VrfAndIpGenPrefix vrfPrefix(vrfId, prefix);
   const KivSegmentRouteInfo* info = routeInfoColl->routeInfoFind(vrfPrefix);
   ZOP_ASSERT_FN(info,
                 "routeInfoColl->routeInfoHas( vrfPrefix ) && \"RouteInfo for segment prefix not "
                 "found\"",
                 kSource, "getSegmentRouteInfo");
   return *info;
}

void getV4FibRoutes(VrfId vrfId, const Pexo::IpGenPrefix& startPrefix,
                    const Pexo::IpGenPrefix& endPrefix,
                    const Zop::Ptr<const KivSegmentRouteInfoColl>&,
                    const Zop::Ptr<VrfPrefixCollection>& prefixColl,
                    const Zop::Ptr<const Routing::Trie>& fibTrie) {
   Pexo::Prefix start = startPrefix.v4();
   Pexo::Prefix end = startPrefix == endPrefix
                          ? Pexo::Prefix(Pexo::IpAddr(0), Pexo::Prefix::kUnsetLength)
                          : endPrefix.v4();
   auto callback =
       rangeIpv4PrefixFinderCallbackFactory(start, end, vrfId, prefixColl, /*subnetsOnly=*/false);
   fibTrie->preOrderWalk(start, [&](const Pexo::Prefix& p) { return callback->handlePrefix(p); });
}

void getV6FibRoutes(VrfId vrfId, const Pexo::IpGenPrefix& startPrefix,
                    const Pexo::IpGenPrefix& endPrefix,
                    const Zop::Ptr<const KivSegmentRouteInfoColl>&,
                    const Zop::Ptr<VrfPrefixCollection>& prefixColl,
                    const Zop::Ptr<const Routing6::Trie>& fibTrie) {
   // The unset bound must be an IPv6 value for the IPv6 range test.
   Pexo::IpGenPrefix end =
       startPrefix == endPrefix
           ? Pexo::IpGenPrefix(Pexo::Ip6Prefix(Pexo::Ip6Addr(), Pexo::Ip6Prefix::kUnsetLength))
           : endPrefix;
   auto callback = rangeIpv6PrefixFinderCallbackFactory(startPrefix, end, vrfId, prefixColl,
                                                        /*subnetsOnly=*/false);
   Routing::PrefixData data;
   fibTrie->preOrderWalk(startPrefix, [&](const Pexo::IpGenPrefix& p) {
      return callback->handlePrefixData(p, data);
   });
}

Zop::Ptr<AdjEntry> getDropAdjacencyInfo(VrfId vrfId, Pexo::AddressFamily af,
                                        const Zop::Ptr<const L3Status>& l3Status) {
   Quarn::Fib::GlobalFecId fecId(af == Pexo::AddressFamily::ipv6 ? Quarn::Fib::GlobalFecId::kDropV6
                                                                 : Quarn::Fib::GlobalFecId::kDropV4,
                                 0, l3Status->vrfDropIndex(l3Status->vrfName(vrfId)));
   fecId.doInit();
   return l3Status->adjacency(fecId);
}

bool validSegmentPrefix(const Pexo::IpGenPrefix& prefix) {
   if (prefix.isIpv4()) {
      Pexo::Prefix p = prefix.v4();
      return p.validAsPrefix() && p.addr().isUnicast();
   }
   if (prefix.isIpv6()) {
      Pexo::Ip6Prefix p = prefix.v6();
      return p.validAsPrefix() && p.addr().isUnicast();
   }
   return false;
}

std::vector<Zop::String> splitStr(const Zop::String& text, const Zop::String& separator) {
   std::vector<Zop::String> pieces;
   if (separator.empty()) {
      pieces.push_back(text);
      return pieces;
   }
   size_t pos = 0;
   while (true) {
      size_t found = text.find(separator, pos);
      if (found == Zop::String::npos) {
         pieces.push_back(text.substr(pos));
         return pieces;
      }
      pieces.push_back(text.substr(pos, found - pos));
      pos = found + separator.size();
   }
}

}  // namespace Kiv
