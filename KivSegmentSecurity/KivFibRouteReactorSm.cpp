// The FIB route reactor: keeps FIB routes at the id of the longest segment
// prefix covering them, and puts a segment prefix whose FIB route went away
// back into hardware once the FIB route's entry is gone.

#include "KivSegmentSecurity/KivFibRouteReactorSm.h"

#include "KivSegmentSecurity/KivSegmentSecurityUtils.h"

#include "KivSegmentSecurity/KivSegmentSecurityTrace.h"

namespace Kiv {

namespace {
constexpr char kSource[] = "KivSegmentSecurity/KivFibRouteReactorSm";
// A burst of queued routes is handled by one task run.
constexpr double kRouteUpdateDelay = 0.025;
// How long a withdrawn segment prefix first waits for the routing layer to
// take its entry out of hardware, and the longest wait once it doubles.
constexpr Zop::Time kEntryWaitDelay = 10 * Zop::kMillisecond;
constexpr Zop::Time kEntryWaitDelayMax = 1000 * Zop::kMillisecond;

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

class FibRouteReactorSm::AdjInfoCollNotifiee : public AdjInfoColl::Notifiee {
public:
   explicit AdjInfoCollNotifiee(FibRouteReactorSm& sm) : sm_(sm) {}
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
      status_(status),
      hwWriter_(l3Status, segmentRoutesList, segmentRouteHelper, routeHelper, route6Helper) {
   fibRouteNotifiee_ = std::make_unique<FibRouteNotifiee>(*this);
   fibRouteNotifiee_->notifierIs(fibRoutes_);
   fibRoute6Notifiee_ = std::make_unique<FibRoute6Notifiee>(*this);
   fibRoute6Notifiee_->notifierIs(fibRoutes6_);
   adjInfoCollNotifiee_ = std::make_unique<AdjInfoCollNotifiee>(*this);
   newZop_AdjInfoCollIn(l3Status_);
   reviewListNotifiee_ = std::make_unique<ReviewListNotifiee>(*this);
   reviewListNotifiee_->notifierIs(fibRouteReviewList_);
   // A background task: a routing layer that is slow to take its entry out
   // must not keep the switch from settling, and nothing else waits on it.
   entryWaitTask_ = Ruv::makeTask(scheduler_, "SegSecFibEntryWaitTask",
                                  [this] { requeueAwaitingEntryRemoval(); });
   entryWaitTask_->backgroundIs(true);
   // Off until the owner has wired the reactor.
   notificationActiveIs(false);
}

FibRouteReactorSm::~FibRouteReactorSm() {
   notificationActiveIs(false);
   if (routeUpdateTask_) {
      routeUpdateTask_->cancel();
   }
   entryWaitTask_->cancel();
}

void FibRouteReactorSm::newZop_AdjInfoCollIn(const Zop::Ptr<AdjInfoColl>& adjInfoColl) {
   adjInfoCollNotifiee_->notifierIs(adjInfoColl);
}

void FibRouteReactorSm::notificationActiveIs(bool active) {
   fibRouteNotifiee_->notificationActiveIs(active);
   fibRoute6Notifiee_->notificationActiveIs(active);
   adjInfoCollNotifiee_->notificationActiveIs(active);
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
   constexpr char fn[] = "handleFibRoute";
   TRACE8_FN(fn, " VrfPrefix: " << vrfPrefix);
   ++fibChanges_;
   const Pexo::IpGenPrefix& prefix = vrfPrefix.prefix();
   const KivSegmentRouteInfo* recorded = segmentRoutesList_->routeInfoFind(vrfPrefix);
   if (!recorded) {
      // A VRF without segment tries has no id to give: the review would
      // write nothing. When its first segment prefix comes, the FIB routes
      // beneath are queued from the FIB itself. So a FIB download into such
      // a VRF (a start-up with the feature off) costs no review at all.
      if (!segmentPrefixTrie_->vrfTrie(vrfPrefix.vrfId())) {
         TRACE8_FN(fn, " " << prefix << " no segment prefixes in its VRF, nothing to review");
         return;
      }
      fibRouteReviewList_->vrfIpGenPrefixIs(vrfPrefix);
      TRACE5_FN(fn, " " << prefix << " not existing segment route added to review");
      return;
   }
   if (isFibRoute(vrfPrefix, l3Status_)) {
      TRACE5_FN(fn, " " << prefix << " is also a fib route. "
                        << " Updating HW Id: " << recorded->hwId());
      // The FIB route owns the hardware entry now; the record follows, so
      // that its withdrawal is known to leave nothing behind.
      hwWriter_.fibRouteHwIdIs({fn, kSource}, vrfPrefix, recorded->hwId(), true);
      return;
   }
   // The segment prefix's own FIB route went: the record says at once that
   // nothing of the prefix is in hardware (the entry was the routing
   // layer's), so a removal reviewed meanwhile removes nothing. Whether the
   // routing layer has taken its entry out yet depends on the order it
   // reports and removes in, so the prefix is put back from the review task,
   // which runs once the withdrawal is over. The withdrawal is reported twice
   // (adjacency and FIB collection), within the same operation.
   if (recorded->routeInfo().routeType() != RouteType::routeTypeInvalid) {
      segmentRoutesList_->routeInfoIs(
          KivSegmentRouteInfo(vrfPrefix, recorded->hwId(), RouteInfo()));
   }
   withdrawnSegmentRoutes_.insert(vrfPrefix);
   fibRouteReviewList_->vrfIpGenPrefixIs(vrfPrefix);
   TRACE5_FN(fn, " " << prefix << " segment prefix added to review");
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
   constexpr char fn[] = "doReviewFibRouteUpdates";
   TRACE8_FN(fn);
   while (fibRouteReviewList_->vrfIpGenPrefixCount() != 0) {
      const VrfAndIpGenPrefix key = fibRouteReviewList_->vrfIpGenPrefixFront();
      TRACE8_FN(fn, " Reviewing: " << key);
      reviewFibRoute(key);
      fibRouteReviewList_->vrfIpGenPrefixDel(key);
      if (Ruv::taskShouldYield()) {
         routeUpdateTask_->scheduleTask();
         return;
      }
   }
   // Nothing queued waits any more: what the walks recorded can go, and the
   // last segment trie asked is let go.
   queuedRanges_.trim(fibRouteReviewList_->queuedTakenBound(),
                      KivQueuedFibRanges::kTrimWhenDrained);
   coveringMatch_.clear();
}

void FibRouteReactorSm::reviewFibRoute(const VrfAndIpGenPrefix& key) {
   constexpr char fn[] = "doReviewFibRouteUpdates";
   const Pexo::IpGenPrefix& prefix = key.prefix();
   const RouteInfo* fibRoute = fibRouteInfo(key);
   const bool withdrawn =
       !withdrawnSegmentRoutes_.empty() && withdrawnSegmentRoutes_.erase(key) != 0;
   if (!fibRoute) {
      // A segment prefix whose FIB route was withdrawn goes back into
      // hardware, unless it was removed meanwhile, or something holds its
      // entry already.
      const KivSegmentRouteInfo* recorded = segmentRoutesList_->routeInfoFind(key);
      if (!withdrawn || !recorded ||
          recorded->routeInfo().routeType() != RouteType::routeTypeInvalid ||
          !segmentRouteWithdrawn_) {
         return;  // any other key whose FIB route left: nothing to write
      }
      if (segmentRouteHelper_->getHardwareId(key).isValid()) {
         // The routing layer reported the withdrawal before taking its entry
         // out of hardware. Writing the drop route over its entry would
         // rewrite a FIB route's forwarding, and its removal would then take
         // the segment prefix with it: wait until the entry is gone.
         awaitEntryRemoval(fn, key);
         return;
      }
      if (awaitingEntryRemoval_.empty()) {
         entryWaitDelay_ = 0;  // the routing layer keeps up: wait briefly again
      }
      segmentRouteWithdrawn_(key);
      return;
   }
   // Only a VRF that has segment tries has ids to hand out; nothing is
   // created here.
   Zop::Ptr<VrfTrieGen> vrfTrie = segmentPrefixTrie_->vrfTrie(key.vrfId());
   const Zop::Ptr<Routing::TrieGen> segmentTrie =
       vrfTrie ? vrfTrie->prefixTrie(prefix.af()) : nullptr;
   if (!segmentTrie) {
      return;
   }
   const SegmentHwId hwId = coveringHwId(
       fn, key.vrfId(), coveringMatch_.longestMatch(segmentTrie, prefix), *segmentRoutesList_);
   TRACE5_FN(fn, " Updating Vrf: " << key.vrfId() << " " << prefix << " with HwId: " << hwId);
   hwWriter_.hwIdIs({fn, kSource}, KivSegmentRouteInfo(key, hwId, *fibRoute));
}

void FibRouteReactorSm::awaitEntryRemoval(const char* fn, const VrfAndIpGenPrefix& key) {
   awaitingEntryRemoval_.insert(key);
   if (!entryWaitTask_->isScheduled()) {
      entryWaitDelay_ = entryWaitDelay_ == 0 ? kEntryWaitDelay
                                             : std::min(2 * entryWaitDelay_, kEntryWaitDelayMax);
      entryWaitTask_->scheduleTaskNoLaterThan(scheduler_->clock()->now() + entryWaitDelay_);
   }
   TRACE5_FN(fn, " " << key.prefix() << " Fib route is removed, its hw entry is still there. "
                     << "Checking again in " << entryWaitDelay_ / Zop::kMillisecond << " ms");
}

void FibRouteReactorSm::requeueAwaitingEntryRemoval() {
   std::set<VrfAndIpGenPrefix> keys;
   keys.swap(awaitingEntryRemoval_);
   for (const auto& key : keys) {
      withdrawnSegmentRoutes_.insert(key);
      fibRouteReviewList_->vrfIpGenPrefixIs(key);
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
