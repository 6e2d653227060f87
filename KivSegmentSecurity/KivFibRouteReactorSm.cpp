// The FIB route reactor: keeps FIB routes at the id of the longest segment
// prefix covering them, and puts a segment prefix whose FIB route went away
// back into hardware with the drop next hop.

#include "KivSegmentSecurity/KivFibRouteReactorSm.h"

#include "KivSegmentSecurity/KivSegmentSecurityUtils.h"

#include "KivSegmentSecurity/KivSegmentSecurityTrace.h"

namespace Kiv {

namespace {
constexpr char kSource[] = "KivSegmentSecurity/KivFibRouteReactorSm";
// A burst of queued routes is handled by one task run.
constexpr double kRouteUpdateDelay = 0.025;

}  // namespace

class FibRouteReactorSm::FibRouteNotifiee : public KivVrfFibRouteCollection::Notifiee {
public:
   explicit FibRouteNotifiee(FibRouteReactorSm& sm) : sm_(sm) {}
   void handleFibRoute(const VrfAndPrefix& key) override {
      sm_.handleFibRoute(VrfAndIpGenPrefix(key.vrfId(), Pexo::IpGenPrefix(key.prefix())));
   }

private:
   FibRouteReactorSm& sm_;
};

class FibRouteReactorSm::FibRoute6Notifiee : public KivVrfFibRoute6Collection::Notifiee {
public:
   explicit FibRoute6Notifiee(FibRouteReactorSm& sm) : sm_(sm) {}
   void handleFibRoute(const VrfAndIp6Prefix& key) override {
      sm_.handleFibRoute(VrfAndIpGenPrefix(key.vrfId(), Pexo::IpGenPrefix(key.prefix())));
   }

private:
   FibRouteReactorSm& sm_;
};

class FibRouteReactorSm::L3StatusNotifiee : public L3Status::Notifiee {
public:
   explicit L3StatusNotifiee(FibRouteReactorSm& sm) : sm_(sm) {}
   void handleRouteAdj(const VrfAndPrefix& key) override { sm_.handleV4AdjUpdate(key); }
   void handleRoute6Adj(const VrfAndIp6Prefix& key) override { sm_.handleV6AdjUpdate(key); }

private:
   FibRouteReactorSm& sm_;
};

class FibRouteReactorSm::ReviewListNotifiee : public VrfPrefixCollection::Notifiee {
public:
   explicit ReviewListNotifiee(FibRouteReactorSm& sm) : sm_(sm) {}
   void handleVrfIpGenPrefix(const VrfAndIpGenPrefix&) override {
      if (sm_.routeUpdateTask_ && sm_.fibRouteReviewList_->vrfIpGenPrefixCount() != 0) {
         sm_.routeUpdateTask_->scheduleTaskLowestDelay(kRouteUpdateDelay);
      }
   }

private:
   FibRouteReactorSm& sm_;
};

FibRouteReactorSm::FibRouteReactorSm(const Zop::Ptr<Ruv::TaskScheduler>& scheduler,
                                     const Zop::Ptr<L3Status>& l3Status,
                                     const Zop::Ptr<const KivVrfFibRouteCollection>& fibRoutes,
                                     const Zop::Ptr<const KivVrfFibRoute6Collection>& fibRoutes6,
                                     const Zop::Ptr<VrfPrefixCollection>& fibRouteReviewList,
                                     const Zop::Ptr<KivSegmentRouteInfoColl>& segmentRoutesList,
                                     const Zop::Ptr<KivSegmentPrefixTrie>& segmentPrefixTrie,
                                     const Zop::Ptr<KivSegmentRouteHelper>& segmentRouteHelper,
                                     const Zop::Ptr<KivHelper::RouteSmHelper>& routeHelper,
                                     const Zop::Ptr<KivHelper::Route6SmHelper>& route6Helper,
                                     const Zop::Ptr<SegmentSecurityStatus>& status)
    : scheduler_(scheduler),
      l3Status_(l3Status),
      fibRoutes_(fibRoutes),
      fibRoutes6_(fibRoutes6),
      fibRouteReviewList_(fibRouteReviewList),
      segmentRoutesList_(segmentRoutesList),
      segmentPrefixTrie_(segmentPrefixTrie),
      segmentRouteHelper_(segmentRouteHelper),
      routeHelper_(routeHelper),
      route6Helper_(route6Helper),
      status_(status) {
   fibRouteNotifiee_ = std::make_unique<FibRouteNotifiee>(*this);
   fibRouteNotifiee_->notifierIs(fibRoutes_);
   fibRoute6Notifiee_ = std::make_unique<FibRoute6Notifiee>(*this);
   fibRoute6Notifiee_->notifierIs(fibRoutes6_);
   l3StatusNotifiee_ = std::make_unique<L3StatusNotifiee>(*this);
   l3StatusNotifiee_->notifierIs(l3Status_);
   reviewListNotifiee_ = std::make_unique<ReviewListNotifiee>(*this);
   reviewListNotifiee_->notifierIs(fibRouteReviewList_);
   // Off until the owner has wired the reactor.
   notificationActiveIs(false);
}

FibRouteReactorSm::~FibRouteReactorSm() {
   notificationActiveIs(false);
   if (routeUpdateTask_) {
      routeUpdateTask_->cancel();
   }
}

void FibRouteReactorSm::notificationActiveIs(bool active) {
   fibRouteNotifiee_->notificationActiveIs(active);
   fibRoute6Notifiee_->notificationActiveIs(active);
   l3StatusNotifiee_->notificationActiveIs(active);
   reviewListNotifiee_->notificationActiveIs(active);
}

void FibRouteReactorSm::handleInitialized() {
   TRACE8_FN("handleInitialized");
   if (routeUpdateTask_ && fibRouteReviewList_->vrfIpGenPrefixCount() != 0) {
      routeUpdateTask_->scheduleTask();
   }
}

void FibRouteReactorSm::routeUpdateTaskIs(const Zop::Ptr<Ruv::TaskScheduler>& scheduler,
                                          int priority, const Zop::String& name) {
   if (routeUpdateTask_) {
      routeUpdateTask_->cancel();
   }
   routeUpdateTask_ = Ruv::makeTask(
       scheduler, name, [this] { doReviewFibRouteUpdates(); }, priority);
}

const RouteInfo* FibRouteReactorSm::fibRouteInfo(const VrfAndIpGenPrefix& vrfPrefix) const {
   const Pexo::IpGenPrefix& prefix = vrfPrefix.prefix();
   if (prefix.isIpv4()) {
      return fibRoutes_->fibRoute(VrfAndPrefix(vrfPrefix.vrfId(), prefix.v4()));
   }
   return fibRoutes6_->fibRoute(VrfAndIp6Prefix(vrfPrefix.vrfId(), prefix.v6()));
}

void FibRouteReactorSm::handleFibRoute(const VrfAndIpGenPrefix& vrfPrefix) {
   TRACE8_FN("handleFibRoute", " VrfPrefix: " << vrfPrefix);
   const Pexo::IpGenPrefix& prefix = vrfPrefix.prefix();
   const KivSegmentRouteInfo* recorded = segmentRoutesList_->routeInfoFind(vrfPrefix);
   if (!recorded) {
      // A VRF without segment tries has no id to give: the review would
      // write nothing. When its first segment prefix comes, the FIB routes
      // beneath are queued from the FIB itself. So a FIB download into such
      // a VRF (a start-up with the feature off) costs no review at all.
      if (!segmentPrefixTrie_->vrfTrie(vrfPrefix.vrfId())) {
         TRACE8_FN("handleFibRoute",
                   " " << prefix << " no segment prefixes in its VRF, nothing to review");
         return;
      }
      fibRouteReviewList_->vrfIpGenPrefixIs(vrfPrefix);
      TRACE8_FN("handleFibRoute", " " << prefix << " not existing segment route added to review");
      return;
   }
   KivSegmentRouteInfo routeInfo = *recorded;
   if (isFibRoute(vrfPrefix, l3Status_)) {
      Zop::Ptr<AdjEntry> adjInfo = getAdjacencyInfo(vrfPrefix, l3Status_);
      ZOP_ASSERT_FN(adjInfo, "Adjacency Info not found", kSource, "handleFibRoute");
      TRACE5_FN("handleFibRoute", " " << prefix << " is also a fib route. "
                                      << " Updating HW Id: " << routeInfo.hwId());
      KivSegmentRouteInfo fibRoute(vrfPrefix, routeInfo.hwId(), adjInfo->routeInfo());
      if (!segmentRouteHelper_->updateHardwareId(fibRoute)) {
         TRACE5_FN("handleFibRoute", " updateHardwareId failed for " << prefix);
      }
      // The FIB route owns the hardware entry now; the record follows, so
      // that its withdrawal is known to leave nothing behind.
      segmentRoutesList_->routeInfoIs(fibRoute);
      return;
   }

   // One withdrawal is reported twice (the route's adjacency and the FIB
   // collection). The routing layer takes the FIB route's entry out of
   // hardware before it reports the withdrawal, so an entry found now is the
   // segment route already put back.
   if (segmentRouteHelper_->getHardwareId(vrfPrefix).isValid()) {
      TRACE8_FN("handleFibRoute", " " << prefix << " already back in hardware");
      return;
   }
   L3::VrfName vrfName = l3Status_->vrfName(vrfPrefix.vrfId());
   Zop::Ptr<L3::VrfStatus> vrfStatus = l3Status_->vrfStatus(vrfName);
   if (vrfStatus && vrfStatus->routingEnabled(prefix.af())) {
      // Where the VRF routes the family the prefix belongs on the next hop the
      // resolver finds: it is saved again (nothing of it is in hardware now)
      // and the resolver's current answer, if any, is applied.
      TRACE5_FN("handleFibRoute", " Fib route is removed."
                                      << " Segment prefix waits for its next hop.");
      segmentRoutesList_->routeInfoIs(
          KivSegmentRouteInfo(vrfPrefix, routeInfo.hwId(), RouteInfo()));
      if (segmentRouteSaved_) {
         segmentRouteSaved_(vrfPrefix);
      }
      return;
   }
   TRACE5_FN("handleFibRoute", " Fib route is removed."
                                   << " Segment prefix is to be inserted again.");
   // The FIB entry is gone, so the hardware holds nothing for the prefix: the
   // drop route goes in from an empty route info, and the record holds it.
   Zop::Ptr<AdjEntry> dropAdj = getDropAdjacencyInfo(vrfPrefix.vrfId(), prefix.af(), l3Status_);
   bool installed = false;
   RouteInfo dropRouteInfo;
   if (dropAdj) {
      dropRouteInfo = RouteInfo(dropAdj->routeType(), dropAdj->l2Adj().index());
      installed = prefix.isIpv4() ? routeHelper_->programRoute(prefix.v4(), vrfPrefix.vrfId(),
                                                               RouteInfo(), dropRouteInfo)
                                  : route6Helper_->programRoute(prefix.v6(), vrfPrefix.vrfId(),
                                                                RouteInfo(), dropRouteInfo);
   }
   if (!installed) {
      TRACE5_FN("handleFibRoute",
                " Failed to install prefix back after " << prefix << " entry was removed from FIB");
      return;
   }
   KivSegmentRouteInfo dropRoute(vrfPrefix, routeInfo.hwId(), dropRouteInfo);
   if (!segmentRouteHelper_->updateHardwareId(dropRoute)) {
      TRACE5_FN("handleFibRoute", " updateHardwareId failed for " << prefix);
   }
   segmentRoutesList_->routeInfoIs(dropRoute);
   TRACE5_FN("handleFibRoute", " Successfully installed prefix back after "
                                   << prefix << " entry was removed from FIB");
}

void FibRouteReactorSm::handleV4AdjUpdate(const VrfAndPrefix& key) {
   if (l3Status_->routeAdj(key)) {
      TRACE8_FN("handleV4AdjUpdate", " AdjInfo: " << key);
   } else {
      TRACE8_FN("handleV4AdjUpdate", " AdjInfo: " << key << " REMOVED ");
   }
   handleFibRoute(VrfAndIpGenPrefix(key.vrfId(), Pexo::IpGenPrefix(key.prefix())));
}

void FibRouteReactorSm::handleV6AdjUpdate(const VrfAndIp6Prefix& key) {
   if (l3Status_->route6Adj(key)) {
      TRACE8_FN("handleV6AdjUpdate", " AdjInfo: " << key);
   } else {
      TRACE8_FN("handleV6AdjUpdate", " AdjInfo: " << key << " REMOVED ");
   }
   handleFibRoute(VrfAndIpGenPrefix(key.vrfId(), Pexo::IpGenPrefix(key.prefix())));
}

void FibRouteReactorSm::doReviewFibRouteUpdates() {
   TRACE8_FN("doReviewFibRouteUpdates");
   while (fibRouteReviewList_->vrfIpGenPrefixCount() != 0) {
      const VrfAndIpGenPrefix key = fibRouteReviewList_->vrfIpGenPrefixFront();
      const Pexo::IpGenPrefix& prefix = key.prefix();
      TRACE8_FN("doReviewFibRouteUpdates", " Reviewing: " << key);
      const RouteInfo* fibRoute = fibRouteInfo(key);

      // Only a VRF that has segment tries has ids to hand out; nothing is
      // created here.
      Zop::Ptr<Routing::TrieGen> segmentTrie;
      if (Zop::Ptr<VrfTrieGen> vrfTrie = segmentPrefixTrie_->vrfTrie(key.vrfId())) {
         segmentTrie = vrfTrie->prefixTrie(prefix.af());
      }
      SegmentHwId hwId(0);
      if (segmentTrie) {
         if (std::optional<Pexo::IpGenPrefix> match = segmentTrie->longestMatch(prefix)) {
            VrfAndIpGenPrefix matchKey(key.vrfId(), *match);
            if (const KivSegmentRouteInfo* covering = segmentRoutesList_->routeInfoFind(matchKey)) {
               hwId = covering->hwId();
            } else {
               TRACE5_FN("doReviewFibRouteUpdates",
                         " Segment Prefix " << *match << " no route in RouteInfo collection");
            }
         }
      }
      if (fibRoute && segmentTrie) {
         TRACE8_FN("doReviewFibRouteUpdates",
                   " Updating Vrf: " << key.vrfId() << " " << prefix << " with HwId: " << hwId);
         if (!segmentRouteHelper_->updateHardwareId(KivSegmentRouteInfo(key, hwId, *fibRoute))) {
            TRACE5_FN("doReviewFibRouteUpdates", " updateHardwareId failed for " << prefix);
         }
      }
      fibRouteReviewList_->vrfIpGenPrefixDel(key);
      if (Ruv::taskShouldYield()) {
         routeUpdateTask_->scheduleTask();
         return;
      }
   }
}

Zop::Ptr<FibRouteReactorSm> fibRouteReactorSmFactory(
    const Zop::Ptr<Ruv::TaskScheduler>& scheduler, const Zop::Ptr<L3Status>& l3Status,
    const Zop::Ptr<const KivVrfFibRouteCollection>& fibRoutes,
    const Zop::Ptr<const KivVrfFibRoute6Collection>& fibRoutes6,
    const Zop::Ptr<VrfPrefixCollection>& fibRouteReviewList,
    const Zop::Ptr<KivSegmentRouteInfoColl>& segmentRoutesList,
    const Zop::Ptr<KivSegmentPrefixTrie>& segmentPrefixTrie,
    const Zop::Ptr<KivSegmentRouteHelper>& segmentRouteHelper,
    const Zop::Ptr<KivHelper::RouteSmHelper>& routeHelper,
    const Zop::Ptr<KivHelper::Route6SmHelper>& route6Helper,
    const Zop::Ptr<SegmentSecurityStatus>& status) {
   return Zop::makePtr<FibRouteReactorSm>(scheduler, l3Status, fibRoutes, fibRoutes6,
                                          fibRouteReviewList, segmentRoutesList, segmentPrefixTrie,
                                          segmentRouteHelper, routeHelper, route6Helper, status);
}

}  // namespace Kiv
