#pragma once
// FibRouteReactorSm keeps the segment class id of FIB routes in step with
// the segment prefixes above them.
//
// It reacts to a FIB route appearing, changing or disappearing (either FIB
// route collection, or the route's adjacency in the L3 status) and drains the
// FIB route review list that syncFibRouteHwId fills. A FIB route that is a
// segment prefix gets the segment's id at once; when such a FIB route goes
// away, the review task puts the segment prefix back once the routing layer
// has taken the FIB route's entry out of hardware (the drop route, or the
// resolver's standing answer where the VRF routes). Any other FIB route is
// queued, and the review task "SegSecRouteTask" gives it the id of the
// longest segment prefix covering it, or 0.
//
// Notification handlers only queue work; the task yields between keys.

#include <functional>
#include <memory>
#include <set>

#include "Kiv/KivExport.h"
#include "Kiv/KivReactorIs.h"
#include "KivSegmentSecurity/KivQueuedFibRanges.h"
#include "KivSegmentSecurity/KivSegmentHwWriter.h"
#include "KivSegmentSecurity/KivSegmentPrefixProcessorTypes.h"
#include "KivSegmentSecurity/KivSegmentRouteHelper.h"
#include "Routing/FibRoute.h"
#include "Routing/L3Status.h"
#include "Routing/RouteSmHelper.h"
#include "Ruv/TaskScheduler.h"
#include "Segment/SegmentId.h"

namespace Kiv {

class KIV_EXPORT FibRouteReactorSm : public Zop::PtrInterface {
public:
   // The adjacency collection: the L3 status publishes every FIB route's
   // adjacency (routeAdj / route6Adj), so it is the input the reactor watches
   // for adjacency changes.
   using AdjInfoColl = L3Status;

   FibRouteReactorSm(const Zop::Ptr<Ruv::TaskScheduler>& scheduler,
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
   ~FibRouteReactorSm() override;

   // Starts work on whatever the review list already holds.
   void handleInitialized();
   void routeUpdateTaskIs(const Zop::Ptr<Ruv::TaskScheduler>& scheduler, int priority,
                          const Zop::String& name);
   const Zop::Ptr<Ruv::Task>& routeUpdateTask() const { return routeUpdateTask_; }

   // The task body: reviews the queued FIB routes until asked to yield.
   void doReviewFibRouteUpdates();
   // One FIB route changed (added, changed or withdrawn).
   void handleFibRoute(const VrfAndIpGenPrefix& vrfPrefix);
   void handleV4AdjUpdate(const VrfAndPrefix& key);
   void handleV6AdjUpdate(const VrfAndIp6Prefix& key);

   // Called from the review task for a segment prefix whose own FIB route
   // was withdrawn and whose hardware entry is gone: the owner puts it back
   // (the drop route, or the resolver's answer where the VRF routes).
   void segmentRouteWithdrawnIs(std::function<void(const VrfAndIpGenPrefix&)> f) {
      segmentRouteWithdrawn_ = std::move(f);
   }

   // Follows the adjacency changes of `adjInfoColl` (the constructor attaches
   // the L3 status given to it).
   void newZop_AdjInfoCollIn(const Zop::Ptr<AdjInfoColl>& adjInfoColl);

   // A segment prefix, recorded as saved, whose withdrawn FIB route's entry
   // the routing layer still holds in hardware: reviewed again on a later
   // run (10 ms, doubling while it keeps waiting, at most 1 s) and, once the
   // entry is gone, handed to segmentRouteWithdrawn. Traced under `fn`.
   void awaitEntryRemoval(const char* fn, const VrfAndIpGenPrefix& key);

   // Turns all notifications of the reactor on or off.
   void notificationActiveIs(bool active);

   // FIB route and adjacency changes reported so far: while it stays the
   // same, the FIB tries hold what they held.
   uint64_t fibChangeCount() const { return fibChanges_; }
   // What the range walks queued that still waits on the review list; the
   // walks keep it, and the review drops what it has taken whenever it
   // drains the list.
   KivQueuedFibRanges& queuedRanges() { return queuedRanges_; }

private:
   class FibRouteNotifiee;
   class FibRoute6Notifiee;
   class AdjInfoCollNotifiee;
   class ReviewListNotifiee;

   const RouteInfo* fibRouteInfo(const VrfAndIpGenPrefix& vrfPrefix) const;
   // One key of the review list.
   void reviewFibRoute(const VrfAndIpGenPrefix& key);
   void requeueAwaitingEntryRemoval();

   Zop::Ptr<Ruv::TaskScheduler> scheduler_;
   Zop::Ptr<L3Status> l3Status_;
   Zop::Ptr<const KivVrfFibRouteCollection> fibRoutes_;
   Zop::Ptr<const KivVrfFibRoute6Collection> fibRoutes6_;
   Zop::Ptr<VrfPrefixCollection> fibRouteReviewList_;
   Zop::Ptr<KivSegmentRouteInfoColl> segmentRoutesList_;
   Zop::Ptr<KivSegmentPrefixTrie> segmentPrefixTrie_;
   Zop::Ptr<KivSegmentRouteHelper> segmentRouteHelper_;
   Zop::Ptr<KivHelper::RouteSmHelper> routeHelper_;
   Zop::Ptr<KivHelper::Route6SmHelper> route6Helper_;
   Zop::Ptr<SegmentSecurityStatus> status_;
   Zop::Ptr<Ruv::Task> routeUpdateTask_;
   std::unique_ptr<FibRouteNotifiee> fibRouteNotifiee_;
   std::unique_ptr<FibRoute6Notifiee> fibRoute6Notifiee_;
   std::unique_ptr<AdjInfoCollNotifiee> adjInfoCollNotifiee_;
   std::unique_ptr<ReviewListNotifiee> reviewListNotifiee_;
   std::function<void(const VrfAndIpGenPrefix&)> segmentRouteWithdrawn_;
   KivSegmentHwWriter hwWriter_;
   // Segment prefixes whose own FIB route was withdrawn, queued to go back
   // into hardware.
   std::set<VrfAndIpGenPrefix> withdrawnSegmentRoutes_;
   // Of those, the ones whose entry the routing layer had not yet removed.
   std::set<VrfAndIpGenPrefix> awaitingEntryRemoval_;
   Zop::Ptr<Ruv::Task> entryWaitTask_;
   Zop::Time entryWaitDelay_ = 0;
   uint64_t fibChanges_ = 0;
   KivQueuedFibRanges queuedRanges_;
   KivCoveringMatch coveringMatch_;
};

KIV_EXPORT Zop::Ptr<FibRouteReactorSm> fibRouteReactorSmFactory(
    const Zop::Ptr<Ruv::TaskScheduler>& scheduler, const Zop::Ptr<L3Status>& l3Status,
    const Zop::Ptr<const KivVrfFibRouteCollection>& fibRoutes,
    const Zop::Ptr<const KivVrfFibRoute6Collection>& fibRoutes6,
    const Zop::Ptr<VrfPrefixCollection>& fibRouteReviewList,
    const Zop::Ptr<KivSegmentRouteInfoColl>& segmentRoutesList,
    const Zop::Ptr<KivSegmentPrefixTrie>& segmentPrefixTrie,
    const Zop::Ptr<KivSegmentRouteHelper>& segmentRouteHelper,
    const Zop::Ptr<KivHelper::RouteSmHelper>& routeHelper,
    const Zop::Ptr<KivHelper::Route6SmHelper>& route6Helper,
    const Zop::Ptr<SegmentSecurityStatus>& status);
// FibRouteReactorSmIs(holder, the factory's arguments): a new reactor in place of the old.
KIV_REACTOR_IS(FibRouteReactorSm, fibRouteReactorSmFactory)

}  // namespace Kiv
