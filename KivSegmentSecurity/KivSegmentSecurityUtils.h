#pragma once
// Small shared look-ups of the segment feature: a prefix's FIB adjacency, its
// installed segment route record, the FIB routes of a range, and string
// splitting.

#include <vector>

#include "Kiv/KivExport.h"
#include "KivSegmentSecurity/KivSegmentPrefixProcessorTypes.h"
#include "Routing/L3Status.h"
#include "Routing/Trie.h"

namespace Kiv {

// The adjacency of the FIB route of `vrfPrefix` (looked up in the table of its
// family), or null when the prefix is not a FIB route.
KIV_EXPORT Zop::Ptr<AdjEntry> getAdjacencyInfo(const VrfAndIpGenPrefix& vrfPrefix,
                                               const Zop::Ptr<const L3Status>& l3Status);
KIV_EXPORT bool isFibRoute(const VrfAndIpGenPrefix& vrfPrefix,
                           const Zop::Ptr<const L3Status>& l3Status);

// The installed record of (vrfId, prefix). It must exist: a missing record is
// a broken invariant and stops the process.
KIV_EXPORT KivSegmentRouteInfo
getSegmentRouteInfo(VrfId vrfId, const Pexo::IpGenPrefix& prefix,
                    const Zop::Ptr<const KivSegmentRouteInfoColl>& routeInfoColl);

// Puts on `prefixColl` every FIB route of `fibTrie` equal to or inside
// `startPrefix`, except those equal to or inside `endPrefix` (when it differs
// from `startPrefix`; equal bounds mean no end bound). Host routes are
// included, and so are FIB routes that are segment prefixes themselves: a
// second look at one is harmless. The route info collection is not consulted:
// the caller may have removed the start prefix's record a moment before.
KIV_EXPORT void getV4FibRoutes(VrfId vrfId, const Pexo::IpGenPrefix& startPrefix,
                               const Pexo::IpGenPrefix& endPrefix,
                               const Zop::Ptr<const KivSegmentRouteInfoColl>& routeInfoColl,
                               const Zop::Ptr<VrfPrefixCollection>& prefixColl,
                               const Zop::Ptr<const Routing::Trie>& fibTrie);
KIV_EXPORT void getV6FibRoutes(VrfId vrfId, const Pexo::IpGenPrefix& startPrefix,
                               const Pexo::IpGenPrefix& endPrefix,
                               const Zop::Ptr<const KivSegmentRouteInfoColl>& routeInfoColl,
                               const Zop::Ptr<VrfPrefixCollection>& prefixColl,
                               const Zop::Ptr<const Routing6::Trie>& fibTrie);

// The adjacency of a VRF's drop next hop for a family: the global FEC
// (IPv4 or IPv6 drop, 0, the drop index the L3 status keeps for the VRF's
// name), normalised. Null when the L3 status has none.
KIV_EXPORT Zop::Ptr<AdjEntry> getDropAdjacencyInfo(VrfId vrfId, Pexo::AddressFamily af,
                                                   const Zop::Ptr<const L3Status>& l3Status);

// Whether a prefix-list entry can be a segment prefix: a valid prefix of its
// family (no bit set beyond its length) whose address is unicast (so neither
// a default route nor multicast).
KIV_EXPORT bool validSegmentPrefix(const Pexo::IpGenPrefix& prefix);

// Splits at every occurrence of `separator`, keeping empty pieces: "a,,b"
// gives "a", "", "b"; "" gives one empty piece; a text without the separator
// gives itself. An empty separator does not split.
KIV_EXPORT std::vector<Zop::String> splitStr(const Zop::String& text, const Zop::String& separator);

}  // namespace Kiv
