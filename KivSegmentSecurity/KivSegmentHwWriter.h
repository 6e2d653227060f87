#pragma once
// Every way a segment id reaches hardware.
//
// The processor, its next-hop monitor and the FIB route reactor all write
// through one KivSegmentHwWriter, so the IPv4/IPv6 split, the failure trace
// and the record bookkeeping live here once:
//
//   programRoute      a segment prefix's own route (drop next hop, resolved
//                     next hop, or removal) through the family's route helper;
//   hwIdIs            the id of an entry already in hardware, through the
//                     segment route helper;
//   installedIs       hwIdIs, then the record of the segment prefix;
//   fibRouteHwIdIs    a segment prefix that is also a FIB route: the id on the
//                     FIB route's own entry, with the route info of its
//                     adjacency, optionally recorded;
//   coveringHwId      the id a FIB route must carry: that of the longest
//                     segment prefix covering it, else 0.
//
// Trace lines and assertions carry the name of the routine the write is done
// for, which the caller passes in, and the caller's source.

#include "KivSegmentSecurity/KivSegmentPrefixProcessorTypes.h"
#include "KivSegmentSecurity/KivSegmentRouteHelper.h"
#include "Routing/L3Status.h"
#include "Routing/RouteSmHelper.h"

namespace Kiv {

// Where a trace line or an assertion is attributed: the named routine and its
// source file.
struct HwWriteSite {
   const char* function;
   const char* source;
};

class KivSegmentHwWriter {
public:
   KivSegmentHwWriter(const Zop::Ptr<L3Status>& l3Status,
                      const Zop::Ptr<KivSegmentRouteInfoColl>& segmentRoutesList,
                      const Zop::Ptr<KivSegmentRouteHelper>& segmentRouteHelper,
                      const Zop::Ptr<KivHelper::RouteSmHelper>& routeHelper,
                      const Zop::Ptr<KivHelper::Route6SmHelper>& route6Helper);

   // Reprograms the prefix's own hardware route from `oldRouteInfo` (what the
   // hardware holds now) to `newRouteInfo` (empty removes it). The caller
   // traces the outcome: its texts differ from routine to routine.
   bool programRoute(const VrfAndIpGenPrefix& vrfPrefix, const RouteInfo& oldRouteInfo,
                     const RouteInfo& newRouteInfo) const;

   // Writes `info`'s id onto the hardware entry of its prefix; a refusal is
   // traced (" updateHardwareId failed for ") and not retried here.
   bool hwIdIs(const HwWriteSite& site, const KivSegmentRouteInfo& info) const;

   // hwIdIs, then `info` becomes the prefix's record, whatever the hardware
   // answered: the record says what the prefix is programmed with.
   void installedIs(const HwWriteSite& site, const KivSegmentRouteInfo& info) const;

   // The FIB route of `vrfPrefix` takes `hwId` with its own forwarding (the
   // route info of its adjacency, which must exist: "Adjacency Info not
   // found"). With `record`, that becomes the prefix's record. Answers what
   // was written.
   KivSegmentRouteInfo fibRouteHwIdIs(const HwWriteSite& site, const VrfAndIpGenPrefix& vrfPrefix,
                                      SegmentHwId hwId, bool record) const;

private:
   Zop::Ptr<L3Status> l3Status_;
   Zop::Ptr<KivSegmentRouteInfoColl> segmentRoutesList_;
   Zop::Ptr<KivSegmentRouteHelper> segmentRouteHelper_;
   Zop::Ptr<KivHelper::RouteSmHelper> routeHelper_;
   Zop::Ptr<KivHelper::Route6SmHelper> route6Helper_;
};

// The id a FIB route at `vrfPrefix` must carry: that of the longest segment
// prefix in the VRF's segment trie covering it, or 0 when none does (or the
// VRF has no segment trie). A trie entry without a record gives 0 and is
// traced (" Segment Prefix ... no route in RouteInfo collection") under
// `function`: the trie and the records are kept in step, so it is a fault
// worth seeing, not a reason to stop.
SegmentHwId coveringHwId(const char* function, const VrfAndIpGenPrefix& vrfPrefix,
                         const KivSegmentPrefixTrie& segmentPrefixTrie,
                         const KivSegmentRouteInfoColl& segmentRoutesList);
// The same, for a caller that holds the segment trie of the prefix's VRF and
// family already.
SegmentHwId coveringHwId(const char* function, const VrfAndIpGenPrefix& vrfPrefix,
                         const Routing::TrieGen& segmentTrie,
                         const KivSegmentRouteInfoColl& segmentRoutesList);
// The same, for a caller that found the longest match itself.
SegmentHwId coveringHwId(const char* function, VrfId vrfId,
                         const std::optional<Pexo::IpGenPrefix>& match,
                         const KivSegmentRouteInfoColl& segmentRoutesList);

// The longest match in a segment trie, for prefixes asked one after another
// in walk order, as the FIB route review takes a range walk's routes: one
// segment prefix covers a run of them, up to the next segment prefix in walk
// order. So a match is kept with the first stored prefix after the prefix it
// was found for. A later prefix of the same trie, unchanged since, that comes
// at or after that prefix and before the next stored one, and lies inside the
// match (if there was one), has the same match: a longer one would be a
// stored prefix inside the match containing it, which either comes before
// the first prefix (and would contain it too) or after it (and not before
// the later prefix's address). Anything else is looked up, and kept.
class KIV_EXPORT KivCoveringMatch {
public:
   std::optional<Pexo::IpGenPrefix> longestMatch(const Zop::Ptr<Routing::TrieGen>& trie,
                                                 const Pexo::IpGenPrefix& p);
   // Lets go of the trie.
   void clear() { trie_ = nullptr; }
   // Matches looked up in a trie so far (the others were known).
   uint64_t lookups() const { return lookups_; }

private:
   Zop::Ptr<Routing::TrieGen> trie_;  // held: another trie cannot take its place
   uint64_t changes_ = 0;
   Pexo::IpGenPrefix from_;
   std::optional<Pexo::IpGenPrefix> match_;
   std::optional<Pexo::IpGenPrefix> next_;
   uint64_t lookups_ = 0;
};

}  // namespace Kiv
