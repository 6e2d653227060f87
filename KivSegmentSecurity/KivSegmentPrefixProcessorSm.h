#pragma once
// KivSegmentPrefixProcessorSm turns configured segment prefixes into
// hardware state.
//
// The configuration side puts (VRF id, prefix) keys whose segment or segment
// id may have changed on the segment review list. The task "SegSubnetTask"
// drains the list, a key at a time, asking taskShouldYield() before each:
// it decides whether the prefix is to be added, removed or given a new id,
// programs the hardware (a route of its own with the drop next hop, the id on
// the FIB route of the same prefix, or, where routing is enabled in the VRF,
// the route the resolver finds for it), keeps the installed prefixes per hw
// id counted, and withdraws the id request of a segment whose last prefix
// went. Where a segment prefix changes, the FIB routes beneath it are queued
// for the FIB route reactor, which it owns.
//
// Sources: KivSegmentPrefixProcessorSm.cpp (review loop, install and
// remove), FibRouteHwIdUpdateHelper.cpp (queueing the FIB routes beneath a
// changed prefix), KivSegmentPrefixNextHopMonitor.cpp (resolver reports).

#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <utility>

#include "Firewall/HwConfig.h"
#include "Kiv/KivExport.h"
#include "Kiv/KivReactorIs.h"
#include "KivSegmentSecurity/KivFibRouteReactorSm.h"
#include "KivSegmentSecurity/KivSegmentHwWriter.h"
#include "KivSegmentSecurity/KivSegmentPrefixProcessorTypes.h"
#include "KivSegmentSecurity/KivSegmentRouteHelper.h"
#include "Routing/FibRoute.h"
#include "Routing/L3Status.h"
#include "Routing/RouteReactor.h"
#include "Routing/RouteSmHelper.h"
#include "Ruv/TaskScheduler.h"
#include "Segment/SegmentId.h"

namespace Kiv {

class KIV_EXPORT KivSegmentPrefixProcessorSm : public Zop::PtrInterface {
public:
   KivSegmentPrefixProcessorSm(const Zop::Ptr<Ruv::TaskScheduler>& scheduler,
                               const Zop::Ptr<RouteReactorConfig>& routeConfig,
                               const Zop::Ptr<Route6ReactorConfig>& route6Config,
                               const Zop::Ptr<RouteReactorStatus>& routeStatus,
                               const Zop::Ptr<Route6ReactorStatus>& route6Status,
                               const Zop::Ptr<L3Status>& l3Status,
                               const Zop::Ptr<const KivVrfFibRouteCollection>& fibRoutes,
                               const Zop::Ptr<const KivVrfFibRoute6Collection>& fibRoutes6,
                               const Zop::Ptr<KivHelper::RouteSmHelper>& routeHelper,
                               const Zop::Ptr<KivHelper::Route6SmHelper>& route6Helper,
                               const Zop::Ptr<KivSegmentRouteHelper>& segmentRouteHelper,
                               const Zop::Ptr<const Firewall::HwConfig>& fwConfig,
                               const Zop::Ptr<SegmentIdRequest>& segmentIdRequest,
                               const Zop::Ptr<const SegmentIdResponse>& segmentIdResponse,
                               const Zop::Ptr<VrfPrefixCollection>& segmentReviewList,
                               const Zop::Ptr<PrefixCount>& prefixCount,
                               const Zop::Ptr<KivSegmentRouteInfoColl>& segmentRoutesList,
                               const Zop::Ptr<SegmentSecurityStatus>& status);
   ~KivSegmentPrefixProcessorSm() override;

   // ---- Review loop ----
   // Creates the segment trie, the FIB route review list and the FIB route
   // reactor, each only when absent.
   void handleInitialized();
   void segmentSubnetTaskIs(const Zop::Ptr<Ruv::TaskScheduler>& scheduler, int priority,
                            const Zop::String& name);
   void segmentSubnetTaskDel();
   const Zop::Ptr<Ruv::Task>& segmentSubnetTask() const { return segmentSubnetTask_; }
   void doReviewConfiguredSegmentSubnets();
   KivSegmentRouteOperationType getPrefixRequiredAction(const VrfAndIpGenPrefix& vrfPrefix);
   bool validatePrefixAction(const KivSegmentHwInfo& info);
   void processPrefix(const KivSegmentHwInfo& info);
   void processIpPrefix(const KivSegmentHwInfo& info);
   void processIp6Prefix(const KivSegmentHwInfo& info);

   // ---- Install and remove ----
   void addIpPrefix(const KivSegmentHwInfo& info);
   void addIp6Prefix(const KivSegmentHwInfo& info);
   // Programs the prefix with the VRF's drop next hop; `oldRouteInfo` is what
   // the hardware holds for it now. Answers whether the hardware took it.
   bool addPrefixToHwWithDropNh(const KivSegmentHwInfo& info, const RouteInfo& oldRouteInfo);
   // When hardware still holds the entry of the prefix's withdrawn FIB route
   // (the routing layer reported the withdrawal before removing it) and
   // `routeInfo` says nothing of the prefix is in hardware: records the
   // prefix saved, has the FIB route reactor put it in once the entry is
   // gone, and answers true. Traced under `fn`.
   bool awaitFibEntryRemoval(const char* fn, const KivSegmentRouteInfo& routeInfo);
   void removeIpPrefix(const KivSegmentHwInfo& info);
   void removeIp6Prefix(const KivSegmentHwInfo& info);
   // Takes the prefix out of hardware, or gives a FIB route of the same
   // prefix the id of the next covering segment prefix. False when the
   // hardware refused to remove a segment-only route: it is still there.
   bool removePrefixCommon(const KivSegmentHwInfo& info, const KivSegmentRouteInfo& saved);
   void updateInstalledPrefixHwId(const VrfAndIpGenPrefix& vrfPrefix);
   int32_t updatePrefixCount(SegmentHwId hwId, bool increment);
   void maybeReleaseSegmentHwId(const VrfAndIpGenPrefix& vrfPrefix, SegmentHwId hwId);
   // The requests of the VRF's segments that left the configuration and hold
   // nothing counted, once no id taken back by the allocator is counted.
   void releaseRequestsOfGoneSegments(VrfId vrfId);

   // ---- A VRF's routing flag ----
   // A segment prefix that is not a FIB route forwards as the VRF's routing
   // flag of its family says: with the drop next hop where the VRF does not
   // route, as the resolver answers where it does (absent until it answers).
   // A flag change, or the VRF's status coming (back), queues the VRF's
   // recorded prefixes of the family for review, and their review brings each
   // one in line. Part of the review task, so it traces under its name.
   void followRoutingFlag(const VrfAndIpGenPrefix& vrfPrefix);

   // ---- FIB routes beneath a changed segment prefix ----
   // Decides which range of the FIB the change can affect and queues a walk
   // of it; the walk itself runs from the review task, a piece per run.
   void syncFibRouteHwId(const VrfAndIpGenPrefix& vrfPrefix, SegmentHwId hwId);
   // Range walks queued and not finished.
   size_t fibRangeWalkCount() const { return rangeWalks_.size(); }

   // ---- Next-hop monitor ----
   void addWatchedPrefix(VrfId vrfId, const Pexo::Prefix& prefix);
   void removeWatchedPrefix(VrfId vrfId, const Pexo::Prefix& prefix);
   void addWatchedIp6Prefix(VrfId vrfId, const Pexo::Ip6Prefix& prefix);
   void removeWatchedIp6Prefix(VrfId vrfId, const Pexo::Ip6Prefix& prefix);
   void handleResolvedPrefix(const VrfAndIpGenPrefix& vrfPrefix);
   void handleResolvedIp6Prefix(const VrfAndIpGenPrefix& vrfPrefix);
   void handleResolvedPrefixCommon(const VrfAndIpGenPrefix& vrfPrefix,
                                   const NextHopEntryList& entryList);
   // The resolver has no answer any more for a watched prefix: a route
   // programmed from its last answer leaves hardware, and the prefix is saved
   // until the next answer.
   // `fn`: the handler it traces for.
   void handleResolvedEntryWithdrawn(const char* fn, const VrfAndIpGenPrefix& vrfPrefix);
   void processResolvedEntry(const VrfAndIpGenPrefix& vrfPrefix, RouteType routeType,
                             uint64_t fecId);

   // ---- Owned members ----
   void segmentPrefixTrieIs();
   void segmentPrefixTrieDel();
   const Zop::Ptr<KivSegmentPrefixTrie>& segmentPrefixTrie() const { return segmentPrefixTrie_; }
   // The FIB route review takes its list oldest first: a list made with
   // VrfPrefixCollection::Membership::queue (a set list is taken in its
   // set's order instead).
   void fibRouteReivewListIs(const Zop::Ptr<VrfPrefixCollection>& list);
   const Zop::Ptr<VrfPrefixCollection>& fibRouteReivewList() const { return fibRouteReivewList_; }
   void fibRouteSmIs(const Zop::Ptr<Ruv::TaskScheduler>& scheduler,
                     const Zop::Ptr<L3Status>& l3Status,
                     const Zop::Ptr<const KivVrfFibRouteCollection>& fibRoutes,
                     const Zop::Ptr<const KivVrfFibRoute6Collection>& fibRoutes6,
                     const Zop::Ptr<VrfPrefixCollection>& fibRouteReviewList,
                     const Zop::Ptr<KivSegmentRouteInfoColl>& segmentRoutesList,
                     const Zop::Ptr<KivSegmentPrefixTrie>& segmentPrefixTrie,
                     const Zop::Ptr<KivSegmentRouteHelper>& segmentRouteHelper,
                     const Zop::Ptr<KivHelper::RouteSmHelper>& routeHelper,
                     const Zop::Ptr<KivHelper::Route6SmHelper>& route6Helper,
                     const Zop::Ptr<SegmentSecurityStatus>& status);
   void fibRouteSmDel();
   const Zop::Ptr<FibRouteReactorSm>& fibRouteSm() const { return fibRouteSm_; }

   const Zop::Ptr<KivSegmentRouteInfoColl>& segmentRoutesList() const { return segmentRoutesList_; }
   const Zop::Ptr<const SegmentIdResponse>& segmentIdStatus() const { return segmentIdResponse_; }
   const Zop::Ptr<PrefixCount>& prefixCount() const { return prefixCount_; }
   const Zop::Ptr<const Firewall::HwConfig>& fwConfig() const { return fwConfig_; }

private:
   class ReviewListNotifiee;
   class RouteStatusNotifiee;
   class Route6StatusNotifiee;
   class L3StatusNotifiee;
   class VrfRoutingNotifiee;

   // The VRF's status entry appeared, changed or went: watch its flags.
   void vrfStatusChanged(const L3::VrfName& name);
   void routingFlagChanged(const L3::VrfName& name, Pexo::AddressFamily af);
   // Puts the recorded prefixes of every VRF and family whose routing flag
   // changed on the review list (traced under the review task's name): a
   // walk of the VRF's records per change, asking taskShouldYield() before
   // each record; false when asked to yield with a walk unfinished.
   void queueRoutingChanges();
   bool continueRoutingWalks();
   // Takes the review list's requests for whole tables of records and puts
   // their records on it, asking taskShouldYield() before each record; false
   // when asked to yield with a request unfinished.
   bool continueRecordWalks();
   // The same for the review list's requests for a segment's configured
   // prefixes: the valid ones go on the list in prefix order.
   bool continueSegmentPrefixWalks();

   Zop::Ptr<L3::VrfStatus> vrfL3Status(VrfId vrfId) const;
   // Puts the FIB routes of the queued range walks on the FIB route review
   // list, asking taskShouldYield() before each; false when asked to yield,
   // or when `budget` routes were visited, with a walk unfinished (it goes on
   // from its bookmark next run).
   bool continueFibRangeWalks(size_t budget = SIZE_MAX);
   // What a handler that queues a range walk walks of it at once.
   static constexpr size_t kRangeWalkInHandler = 64;
   // addIpPrefix/addIp6Prefix and removeIpPrefix/removeIp6Prefix, which
   // differ only in their name.
   void addPrefix(const char* fn, const KivSegmentHwInfo& info);
   void removePrefix(const char* fn, const KivSegmentHwInfo& info);
   // A removal the hardware refused: the prefix is reviewed again on a later
   // run of the review task, after a delay that doubles with each refusal up
   // to a bound, for as long as its review still removes it.
   void retryRemoval(const char* fn, const VrfAndIpGenPrefix& vrfPrefix);
   // The retry timer: puts the refused removals whose time has come back on
   // the review list.
   void retryRefusedRemovals();
   void scheduleRemovalRetry();
   // A segment prefix's own FIB route was withdrawn and the hardware holds
   // nothing for it: it goes back in with the drop next hop, or, where the
   // VRF routes its family and the resolver has an answer, on that answer.
   void reinstallSegmentPrefix(const VrfAndIpGenPrefix& vrfPrefix);

   Zop::Ptr<Ruv::TaskScheduler> scheduler_;
   Zop::Ptr<RouteReactorConfig> routeConfig_;
   Zop::Ptr<Route6ReactorConfig> route6Config_;
   Zop::Ptr<RouteReactorStatus> routeStatus_;
   Zop::Ptr<Route6ReactorStatus> route6Status_;
   Zop::Ptr<L3Status> l3Status_;
   Zop::Ptr<const KivVrfFibRouteCollection> fibRoutes_;
   Zop::Ptr<const KivVrfFibRoute6Collection> fibRoutes6_;
   Zop::Ptr<KivHelper::RouteSmHelper> routeHelper_;
   Zop::Ptr<KivHelper::Route6SmHelper> route6Helper_;
   Zop::Ptr<KivSegmentRouteHelper> segmentRouteHelper_;
   Zop::Ptr<const Firewall::HwConfig> fwConfig_;
   Zop::Ptr<SegmentIdRequest> segmentIdRequest_;
   Zop::Ptr<const SegmentIdResponse> segmentIdResponse_;
   Zop::Ptr<VrfPrefixCollection> segmentReviewList_;
   Zop::Ptr<PrefixCount> prefixCount_;
   Zop::Ptr<KivSegmentRouteInfoColl> segmentRoutesList_;
   Zop::Ptr<SegmentSecurityStatus> status_;

   Zop::Ptr<KivSegmentPrefixTrie> segmentPrefixTrie_;
   Zop::Ptr<VrfPrefixCollection> fibRouteReivewList_;
   Zop::Ptr<FibRouteReactorSm> fibRouteSm_;
   Zop::Ptr<Ruv::Task> segmentSubnetTask_;
   KivSegmentHwWriter hwWriter_;
   // A range of the FIB whose routes are to be reviewed: the routes equal
   // to or inside `start` and not inside `end` (`end` == `start`: no
   // bound). `last` is the bookmark, the last route of it queued (or
   // passed over), so a walk stopped for a yield resumes just after it, in
   // whatever state the FIB and the segment trie are by then: a FIB route
   // added meanwhile is queued by its own notification, and the review reads
   // the segment trie as it is when it runs.
   struct FibRangeWalk {
      VrfId vrfId;
      Pexo::IpGenPrefix start;
      Pexo::IpGenPrefix end;
      std::optional<Pexo::IpGenPrefix> last;
   };
   std::deque<FibRangeWalk> rangeWalks_;
   struct RefusedRemoval {
      uint32_t refusals = 0;
      // When it goes back on the review list; unset once it is there.
      std::optional<Zop::Time> due;
   };
   // Removals the hardware refused, still being retried.
   std::map<VrfAndIpGenPrefix, RefusedRemoval> removalFailures_;
   // A background task: a removal the hardware keeps refusing does not keep
   // the scheduler busy.
   Zop::Ptr<Ruv::Task> removalRetryTask_;
   // VRFs and families whose routing flag changed, not yet queued.
   std::set<std::pair<L3::VrfName, Pexo::AddressFamily>> routingChanges_;
   // Prefixes queued for review because their VRF's routing flag changed.
   std::set<VrfAndIpGenPrefix> routingReview_;
   // The walks of the records of a VRF and family whose routing flag
   // changed, each with its place and what it queued so far.
   struct RoutingWalk {
      L3::VrfName name;
      VrfId vrfId;
      Pexo::AddressFamily af;
      std::optional<KivSegmentRouteInfoColl::RecordBookmark> last;
      size_t queued = 0;
   };
   std::deque<RoutingWalk> routingWalks_;
   // The review list's requests for whole tables, each with its place.
   struct RecordWalk {
      RecordScope scope;
      std::optional<KivSegmentRouteInfoColl::RecordBookmark> last;
   };
   std::deque<RecordWalk> recordWalks_;
   struct SegmentPrefixWalk {
      SegmentPrefixScope scope;
      std::optional<Pexo::IpGenPrefix> last;
   };
   std::deque<SegmentPrefixWalk> segmentPrefixWalks_;
   std::unique_ptr<ReviewListNotifiee> reviewListNotifiee_;
   std::unique_ptr<RouteStatusNotifiee> routeStatusNotifiee_;
   std::unique_ptr<Route6StatusNotifiee> route6StatusNotifiee_;
   std::unique_ptr<L3StatusNotifiee> l3StatusNotifiee_;
   std::map<L3::VrfName, std::unique_ptr<VrfRoutingNotifiee>> vrfRoutingNotifiees_;
};

KIV_EXPORT Zop::Ptr<KivSegmentPrefixProcessorSm> kivSegmentPrefixProcessorSmFactory(
    const Zop::Ptr<Ruv::TaskScheduler>& scheduler, const Zop::Ptr<RouteReactorConfig>& routeConfig,
    const Zop::Ptr<Route6ReactorConfig>& route6Config,
    const Zop::Ptr<RouteReactorStatus>& routeStatus,
    const Zop::Ptr<Route6ReactorStatus>& route6Status, const Zop::Ptr<L3Status>& l3Status,
    const Zop::Ptr<const KivVrfFibRouteCollection>& fibRoutes,
    const Zop::Ptr<const KivVrfFibRoute6Collection>& fibRoutes6,
    const Zop::Ptr<KivHelper::RouteSmHelper>& routeHelper,
    const Zop::Ptr<KivHelper::Route6SmHelper>& route6Helper,
    const Zop::Ptr<KivSegmentRouteHelper>& segmentRouteHelper,
    const Zop::Ptr<const Firewall::HwConfig>& fwConfig,
    const Zop::Ptr<SegmentIdRequest>& segmentIdRequest,
    const Zop::Ptr<const SegmentIdResponse>& segmentIdResponse,
    const Zop::Ptr<VrfPrefixCollection>& segmentReviewList,
    const Zop::Ptr<PrefixCount>& prefixCount,
    const Zop::Ptr<KivSegmentRouteInfoColl>& segmentRoutesList,
    const Zop::Ptr<SegmentSecurityStatus>& status);
// KivSegmentPrefixProcessorSmIs(holder, the factory's arguments): a new reactor in place of the
// old.
KIV_REACTOR_IS(KivSegmentPrefixProcessorSm, kivSegmentPrefixProcessorSmFactory)

}  // namespace Kiv
