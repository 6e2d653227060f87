// The segment prefix processor: the review loop that drains the segment
// review list, and the operations that install, re-id and remove one segment
// prefix in hardware.

#include "KivSegmentSecurity/KivSegmentPrefixProcessorSm.h"

#include <algorithm>

#include "KivSegmentSecurity/KivSegmentSecurityUtils.h"

#include "KivSegmentSecurity/KivSegmentSecurityTrace.h"

namespace Kiv {

namespace {
constexpr char kSource[] = "KivSegmentSecurity/KivSegmentPrefixProcessorSm";
constexpr int kSegmentSubnetTaskPriority = 2;
// A refused removal is tried again after 0.1 s, then after twice as long
// each time, but never more than 6.4 s apart.
constexpr Zop::Time kRemovalRetryDelay = 100 * Zop::kMillisecond;
constexpr Zop::Time kRemovalRetryDelayMax = 6400 * Zop::kMillisecond;
}  // namespace

// ---- Observers ----

class KivSegmentPrefixProcessorSm::ReviewListNotifiee : public VrfPrefixCollection::Notifiee {
public:
   explicit ReviewListNotifiee(KivSegmentPrefixProcessorSm& sm) : sm_(sm) {}
   // Only records work: the review runs in the task. The review's own
   // removals leave nothing to schedule once the list is empty.
   void handleVrfIpGenPrefix(const VrfAndIpGenPrefix&) override {
      if (sm_.segmentSubnetTask_ && sm_.segmentReviewList_->vrfIpGenPrefixCount() != 0) {
         sm_.segmentSubnetTask_->scheduleTaskLowestDelay(0);
      }
   }
   void handleRecordsToReview() override {
      if (sm_.segmentSubnetTask_) {
         sm_.segmentSubnetTask_->scheduleTaskLowestDelay(0);
      }
   }

private:
   KivSegmentPrefixProcessorSm& sm_;
};

class KivSegmentPrefixProcessorSm::RouteStatusNotifiee : public RouteReactorStatus::Notifiee {
public:
   explicit RouteStatusNotifiee(KivSegmentPrefixProcessorSm& sm) : sm_(sm) {}
   void handleResolvedEntry(const VrfAndPrefix& key) override {
      if (key.prefix().len() == Pexo::Prefix::kUnsetLength) {
         return;
      }
      sm_.handleResolvedPrefix(VrfAndIpGenPrefix(key.vrfId(), Pexo::IpGenPrefix(key.prefix())));
   }

private:
   KivSegmentPrefixProcessorSm& sm_;
};

class KivSegmentPrefixProcessorSm::Route6StatusNotifiee : public Route6ReactorStatus::Notifiee {
public:
   explicit Route6StatusNotifiee(KivSegmentPrefixProcessorSm& sm) : sm_(sm) {}
   void handleResolvedEntry(const VrfAndIp6Prefix& key) override {
      if (key.prefix().isNullPrefix()) {
         return;
      }
      sm_.handleResolvedIp6Prefix(VrfAndIpGenPrefix(key.vrfId(), Pexo::IpGenPrefix(key.prefix())));
   }

private:
   KivSegmentPrefixProcessorSm& sm_;
};

class KivSegmentPrefixProcessorSm::L3StatusNotifiee : public L3Status::Notifiee {
public:
   explicit L3StatusNotifiee(KivSegmentPrefixProcessorSm& sm) : sm_(sm) {}
   void handleVrfStatus(const L3::VrfName& name) override { sm_.vrfStatusChanged(name); }

private:
   KivSegmentPrefixProcessorSm& sm_;
};

class KivSegmentPrefixProcessorSm::VrfRoutingNotifiee : public L3::VrfStatus::Notifiee {
public:
   VrfRoutingNotifiee(KivSegmentPrefixProcessorSm& sm, const L3::VrfName& name)
       : sm_(sm), name_(name) {}
   void handleRoutingEnabled() override {
      sm_.routingFlagChanged(name_, Pexo::AddressFamily::ipv4);
   }
   void handleRouting6Enabled() override {
      sm_.routingFlagChanged(name_, Pexo::AddressFamily::ipv6);
   }

private:
   KivSegmentPrefixProcessorSm& sm_;
   const L3::VrfName name_;
};

// ---- Life cycle ----

KivSegmentPrefixProcessorSm::KivSegmentPrefixProcessorSm(
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
    const Zop::Ptr<SegmentSecurityStatus>& status)
    : scheduler_(scheduler),
      routeConfig_(routeConfig),
      route6Config_(route6Config),
      routeStatus_(routeStatus),
      route6Status_(route6Status),
      l3Status_(l3Status),
      fibRoutes_(fibRoutes),
      fibRoutes6_(fibRoutes6),
      routeHelper_(routeHelper),
      route6Helper_(route6Helper),
      segmentRouteHelper_(segmentRouteHelper),
      fwConfig_(fwConfig),
      segmentIdRequest_(segmentIdRequest),
      segmentIdResponse_(segmentIdResponse),
      segmentReviewList_(segmentReviewList),
      prefixCount_(prefixCount),
      segmentRoutesList_(segmentRoutesList),
      status_(status),
      hwWriter_(l3Status, segmentRoutesList, segmentRouteHelper, routeHelper, route6Helper) {
   routeStatusNotifiee_ = std::make_unique<RouteStatusNotifiee>(*this);
   routeStatusNotifiee_->notifierIs(routeStatus_);
   route6StatusNotifiee_ = std::make_unique<Route6StatusNotifiee>(*this);
   route6StatusNotifiee_->notifierIs(route6Status_);
   reviewListNotifiee_ = std::make_unique<ReviewListNotifiee>(*this);
   reviewListNotifiee_->notifierIs(segmentReviewList_);
   l3StatusNotifiee_ = std::make_unique<L3StatusNotifiee>(*this);
   l3StatusNotifiee_->notifierIs(l3Status_);
   for (const auto& [name, vrfStatus] : l3Status_->vrfStatus()) {
      vrfStatusChanged(name);
   }
   removalRetryTask_ = Ruv::makeTask(
       scheduler_, "SegRemovalRetryTask", [this] { retryRefusedRemovals(); },
       kSegmentSubnetTaskPriority);
   removalRetryTask_->backgroundIs(true);
   handleInitialized();
   segmentSubnetTaskIs(scheduler_, kSegmentSubnetTaskPriority, "SegSubnetTask");
}

KivSegmentPrefixProcessorSm::~KivSegmentPrefixProcessorSm() {
   fibRouteSmDel();
   segmentPrefixTrieDel();
   segmentSubnetTaskDel();
   removalRetryTask_->cancel();
   reviewListNotifiee_->notificationActiveIs(false);
   routeStatusNotifiee_->notificationActiveIs(false);
   route6StatusNotifiee_->notificationActiveIs(false);
   l3StatusNotifiee_->notificationActiveIs(false);
   vrfRoutingNotifiees_.clear();
}

void KivSegmentPrefixProcessorSm::handleInitialized() {
   TRACE8_FN("handleInitialized");
   // Idempotent: a second call keeps what exists.
   if (!segmentPrefixTrie_) {
      segmentPrefixTrieIs();
   }
   if (!fibRouteReivewList_) {
      fibRouteReivewListIs(vrfPrefixCollectionFactory(VrfPrefixCollection::Membership::queue));
   }
   if (!fibRouteSm_) {
      fibRouteSmIs(scheduler_, l3Status_, fibRoutes_, fibRoutes6_, fibRouteReivewList_,
                   segmentRoutesList_, segmentPrefixTrie_, segmentRouteHelper_, routeHelper_,
                   route6Helper_, status_);
   }
}

void KivSegmentPrefixProcessorSm::segmentSubnetTaskIs(const Zop::Ptr<Ruv::TaskScheduler>& scheduler,
                                                      int priority, const Zop::String& name) {
   if (segmentSubnetTask_ && segmentSubnetTask_->scheduler() == scheduler &&
       segmentSubnetTask_->priority() == priority && segmentSubnetTask_->name() == name) {
      return;
   }
   segmentSubnetTaskDel();
   segmentSubnetTask_ = Ruv::makeTask(
       scheduler, name, [this] { doReviewConfiguredSegmentSubnets(); }, priority);
   // Keys queued before the processor existed are reviewed now.
   doReviewConfiguredSegmentSubnets();
}

void KivSegmentPrefixProcessorSm::segmentSubnetTaskDel() {
   if (segmentSubnetTask_) {
      segmentSubnetTask_->cancel();
      segmentSubnetTask_ = nullptr;
   }
}

void KivSegmentPrefixProcessorSm::segmentPrefixTrieIs() {
   segmentPrefixTrie_ = kivSegmentPrefixTrieFactory();
}

void KivSegmentPrefixProcessorSm::segmentPrefixTrieDel() {
   segmentPrefixTrie_ = nullptr;
}

void KivSegmentPrefixProcessorSm::fibRouteReivewListIs(const Zop::Ptr<VrfPrefixCollection>& list) {
   fibRouteReivewList_ = list;
}

void KivSegmentPrefixProcessorSm::fibRouteSmIs(
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
   fibRouteSmDel();
   FibRouteReactorSmIs(fibRouteSm_, scheduler, l3Status, fibRoutes, fibRoutes6, fibRouteReviewList,
                       segmentRoutesList, segmentPrefixTrie, segmentRouteHelper, routeHelper,
                       route6Helper, status);
   fibRouteSm_->routeUpdateTaskIs(scheduler, kSegmentSubnetTaskPriority, "SegSecRouteTask");
   fibRouteSm_->segmentRouteWithdrawnIs(
       [this](const VrfAndIpGenPrefix& vrfPrefix) { reinstallSegmentPrefix(vrfPrefix); });
   fibRouteSm_->notificationActiveIs(true);
   fibRouteSm_->handleInitialized();
}

void KivSegmentPrefixProcessorSm::fibRouteSmDel() {
   if (fibRouteSm_) {
      fibRouteSm_->notificationActiveIs(false);
      fibRouteSm_ = nullptr;
   }
}

// ---- Review loop ----

KivSegmentRouteOperationType KivSegmentPrefixProcessorSm::getPrefixRequiredAction(
    const VrfAndIpGenPrefix& vrfPrefix) {
   L3::VrfName vrfName = l3Status_->vrfName(vrfPrefix.vrfId());
   Zop::Ptr<Firewall::FwVrf> fwVrf = fwConfig_->vrf(vrfName);
   const Zop::String* segmentName = fwVrf ? fwVrf->prefixList(vrfPrefix.prefix()) : nullptr;
   // A prefix-list entry that cannot be a segment prefix is never installed:
   // the configuration side reports it; here it only counts as not configured.
   bool configured = segmentName && validSegmentPrefix(vrfPrefix.prefix());
   bool installed = segmentRoutesList_->routeInfoHas(vrfPrefix);
   if (!configured || status_->waitForRoutesCleanup()) {
      TRACE5_FN("getPrefixRequiredAction", " Prefix remove request");
      return segmentRouteDelete;
   }
   if (!fwVrf->segment(*segmentName)) {
      TRACE5_FN("getPrefixRequiredAction", " Segment removed. Clearing prefix");
      return segmentRouteDelete;
   }
   // The review decides from the configuration as it is now: a segment whose
   // id is not (or no longer) granted has no place in hardware; its prefixes
   // come back when the id is granted. A grant whose request was withdrawn is
   // on its way out: not an id to program.
   const SegmentIdRequestKey segKey(vrfPrefix.vrfId(), *segmentName);
   const SegmentIdStatus* idStatus = segmentIdResponse_->status(segKey);
   if (!idStatus || !idStatus->hwId.isValid() || !segmentIdRequest_->requestHas(segKey)) {
      TRACE5_FN("getPrefixRequiredAction", " Segment HwId not allocated. Clearing prefix");
      return segmentRouteDelete;
   }
   if (!installed) {
      TRACE5_FN("getPrefixRequiredAction", " Prefix add request");
      return segmentRouteAdd;
   }
   TRACE5_FN("getPrefixRequiredAction", " Prefix HwId update request ");
   return segmentRouteHwIdUpdate;
}

void KivSegmentPrefixProcessorSm::doReviewConfiguredSegmentSubnets() {
   TRACE8_FN("doReviewConfiguredSegmentSubnets");
   queueRoutingChanges();
   // An enable at full table records every configured prefix: the records
   // are sized for the configuration before they fill.
   if (fwConfig_ && segmentReviewList_->vrfIpGenPrefixCount() != 0) {
      size_t configured = 0;
      for (const auto& [name, fwVrf] : fwConfig_->vrf()) {
         configured += fwVrf->prefixList().size();
      }
      segmentRoutesList_->routeInfoExpectedIs(configured);
   }
   // Every member processed leaves the list, so the walk always takes the
   // list's first member; a member removed meanwhile is simply not met. The
   // FIB range walks a member queues go on before the next member, so the
   // FIB route review keeps pace with the segment prefixes.
   while (continueRoutingWalks() && continueRecordWalks() && continueSegmentPrefixWalks() &&
          continueFibRangeWalks() && segmentReviewList_->vrfIpGenPrefixCount() != 0) {
      if (Ruv::taskShouldYield()) {
         break;
      }
      const VrfAndIpGenPrefix member = segmentReviewList_->vrfIpGenPrefixFirst();
      SegmentHwId oldHwId;
      L3::VrfName vrfName = l3Status_->vrfName(member.vrfId());
      KivSegmentRouteOperationType action = getPrefixRequiredAction(member);
      segmentReviewList_->vrfIpGenPrefixDel(member);
      TRACE5_FN("doReviewConfiguredSegmentSubnets",
                " vrf: " << vrfName << " prefix: " << member.prefix());

      if (const KivSegmentRouteInfo* installed = segmentRoutesList_->routeInfoFind(member)) {
         oldHwId = installed->hwId();
         int32_t prefCnt = updatePrefixCount(oldHwId, false);
         TRACE5_FN("doReviewConfiguredSegmentSubnets",
                   " installedHwId: " << oldHwId << " prefCnt: " << prefCnt);
      }

      if (action != segmentRouteDelete && !removalFailures_.empty()) {
         // Wanted again: earlier refused removals no longer count.
         removalFailures_.erase(member);
      }
      const bool routingChanged = !routingReview_.empty() && routingReview_.erase(member) != 0;
      if (action == segmentRouteHwIdUpdate) {
         updateInstalledPrefixHwId(member);
         if (routingChanged) {
            followRoutingFlag(member);
         }
      } else {
         SegmentHwId hwId;
         if (action == segmentRouteDelete) {
            hwId = oldHwId;
         } else {
            Zop::Ptr<Firewall::FwVrf> fwVrf = fwConfig_->vrf(vrfName);
            const Zop::String* segmentName = fwVrf->prefixList(member.prefix());
            SegmentIdRequestKey segIdKey(member.vrfId(), *segmentName);
            const SegmentIdStatus* idStatus = segmentIdResponse_->status(segIdKey);
            ZOP_ASSERT_FN(idStatus, "segmentIdStatus()->statusHas( segIdKey )", kSource,
                          "doReviewConfiguredSegmentSubnets");
            hwId = idStatus->hwId;
         }
         TRACE5_FN("doReviewConfiguredSegmentSubnets", " Effective hwId: " << hwId);
         processPrefix(KivSegmentHwInfo(member, action, hwId));
      }

      if (const KivSegmentRouteInfo* now = segmentRoutesList_->routeInfoFind(member)) {
         SegmentHwId installedHwId = now->hwId();
         int32_t prefCnt = updatePrefixCount(installedHwId, true);
         TRACE5_FN("doReviewConfiguredSegmentSubnets",
                   " Installed Route hwId: " << installedHwId << " prefCnt: " << prefCnt);
      }
      if (!removalFailures_.empty() && !segmentRoutesList_->routeInfoHas(member)) {
         removalFailures_.erase(member);  // gone: nothing left to retry
      }
      if (oldHwId.isValid()) {
         maybeReleaseSegmentHwId(member, oldHwId);
      }
      segmentRoutesList_->reviewSegmentHwIdInc(1);
   }
   if ((segmentReviewList_->vrfIpGenPrefixCount() != 0 || !rangeWalks_.empty() ||
        !routingWalks_.empty() || !recordWalks_.empty() || !segmentPrefixWalks_.empty() ||
        segmentReviewList_->recordsToReviewCount() != 0) &&
       segmentSubnetTask_) {
      segmentSubnetTask_->scheduleTask();
   }
}

bool KivSegmentPrefixProcessorSm::validatePrefixAction(const KivSegmentHwInfo& info) {
   if (info.operation() != segmentRouteDelete) {
      return true;
   }
   if (segmentRoutesList_->routeInfoHas(info.vrfPrefix())) {
      return true;
   }
   TRACE5_FN("validatePrefixAction", " Ignoring remove for non-existing prefix");
   return false;
}

void KivSegmentPrefixProcessorSm::processPrefix(const KivSegmentHwInfo& info) {
   if (info.vrfPrefix().prefix().isIpv4()) {
      processIpPrefix(info);
   } else {
      processIp6Prefix(info);
   }
}

void KivSegmentPrefixProcessorSm::processIpPrefix(const KivSegmentHwInfo& info) {
   TRACE8_FN("processIpPrefix", " " << info);
   switch (info.operation()) {
      case segmentRouteAdd:
         addIpPrefix(info);
         break;
      case segmentRouteDelete:
         removeIpPrefix(info);
         break;
      default:
         ZOP_ASSERT_FN(false, "false && \"Operation not supported\"", kSource, "processIpPrefix");
   }
}

void KivSegmentPrefixProcessorSm::processIp6Prefix(const KivSegmentHwInfo& info) {
   TRACE8_FN("processIp6Prefix", " " << info);
   switch (info.operation()) {
      case segmentRouteAdd:
         addIp6Prefix(info);
         break;
      case segmentRouteDelete:
         removeIp6Prefix(info);
         break;
      default:
         ZOP_ASSERT_FN(false, "false && \"Operation not supported\"", kSource, "processIp6Prefix");
   }
}

// ---- Install ----

Zop::Ptr<L3::VrfStatus> KivSegmentPrefixProcessorSm::vrfL3Status(VrfId vrfId) const {
   return l3Status_->vrfStatus(l3Status_->vrfName(vrfId));
}

void KivSegmentPrefixProcessorSm::addIpPrefix(const KivSegmentHwInfo& info) {
   addPrefix("addIpPrefix", info);
}

void KivSegmentPrefixProcessorSm::addIp6Prefix(const KivSegmentHwInfo& info) {
   addPrefix("addIp6Prefix", info);
}

void KivSegmentPrefixProcessorSm::addPrefix(const char* fn, const KivSegmentHwInfo& info) {
   TRACE8_FN(fn);
   const VrfAndIpGenPrefix& vrfPrefix = info.vrfPrefix();
   const Pexo::IpGenPrefix& prefix = vrfPrefix.prefix();
   bool prefixInstalled = segmentRoutesList_->routeInfoHas(vrfPrefix);
   ZOP_ASSERT_FN(!prefixInstalled, "Another add request for already installed prefix", kSource, fn);
   Zop::Ptr<L3::VrfStatus> vrfStatus = vrfL3Status(vrfPrefix.vrfId());
   ZOP_ASSERT_FN(vrfStatus, "VRF L3 Status is NULL", kSource, fn);
   segmentPrefixTrie_->getPrefixTrie(vrfPrefix.vrfId(), prefix.af())->routeIs(prefix, true);

   bool routingEnabled = vrfStatus->routingEnabled(prefix.af());
   bool recorded = true;
   if (isFibRoute(vrfPrefix, l3Status_)) {
      // The FIB route keeps its forwarding; it only takes the segment's id.
      TRACE5_FN(fn, " " << prefix << " is also a fib route. ");
      hwWriter_.fibRouteHwIdIs({fn, kSource}, vrfPrefix, info.hwId(), true);
   } else if (!routingEnabled) {
      TRACE5_FN(fn, " Adding prefix in Hw. routingEnabled: " << routingEnabled);
      recorded = addPrefixToHwWithDropNh(info, RouteInfo());
   } else {
      segmentRoutesList_->routeInfoIs(KivSegmentRouteInfo(vrfPrefix, info.hwId(), RouteInfo()));
      TRACE5_FN(fn, " Saved prefix with invalid RouteType");
   }
   // FIB routes beneath the new prefix take its id, whatever the VRF's
   // routing flag. A host prefix covers nothing.
   if (recorded && !prefix.isHost()) {
      syncFibRouteHwId(vrfPrefix, info.hwId());
   }
   // Watched exactly while recorded: a refused install leaves no watch
   // behind, which would outlive the prefix (nothing removes what is not
   // recorded) and make a later install miss the resolver's standing answer.
   if (!recorded) {
      return;
   }
   if (prefix.isIpv4()) {
      addWatchedPrefix(vrfPrefix.vrfId(), prefix.v4());
   } else {
      addWatchedIp6Prefix(vrfPrefix.vrfId(), prefix.v6());
   }
}

bool KivSegmentPrefixProcessorSm::addPrefixToHwWithDropNh(const KivSegmentHwInfo& info,
                                                          const RouteInfo& oldRouteInfo) {
   constexpr char fn[] = "addPrefixToHwWithDropNh";
   const VrfAndIpGenPrefix& vrfPrefix = info.vrfPrefix();
   const Pexo::IpGenPrefix& prefix = vrfPrefix.prefix();
   TRACE5_FN(fn, " Old RouteInfo: routeType: " << oldRouteInfo.routeType()
                                               << " adjIndex: " << oldRouteInfo.adjIndex());
   Zop::Ptr<Routing::TrieGen> trie =
       segmentPrefixTrie_->getPrefixTrie(vrfPrefix.vrfId(), prefix.af());
   trie->routeIs(prefix, true);
   Zop::Ptr<AdjEntry> adjInfo = getDropAdjacencyInfo(vrfPrefix.vrfId(), prefix.af(), l3Status_);
   if (prefix.isIpv4()) {
      ZOP_ASSERT_FN(adjInfo, "Adjacency info for v4Drop not found", kSource, fn);
   } else {
      ZOP_ASSERT_FN(adjInfo, "Adjacency info for v6Drop not found", kSource, fn);
   }
   RouteInfo dropRouteInfo(adjInfo->routeType(), adjInfo->l2Adj().index());
   if (awaitFibEntryRemoval(fn, KivSegmentRouteInfo(vrfPrefix, info.hwId(), oldRouteInfo))) {
      return true;
   }
   if (!hwWriter_.programRoute(vrfPrefix, oldRouteInfo, dropRouteInfo)) {
      TRACE5_FN(fn, " " << prefix << " could not be programmed in Hw");
      // The trie holds exactly the recorded prefixes: a saved prefix stays.
      if (!segmentRoutesList_->routeInfoHas(vrfPrefix)) {
         trie->routeDel(prefix);
      }
      return false;
   }
   TRACE5_FN(fn, " " << prefix << " programmed successfully");
   hwWriter_.installedIs({fn, kSource}, KivSegmentRouteInfo(vrfPrefix, info.hwId(), dropRouteInfo));
   return true;
}

bool KivSegmentPrefixProcessorSm::awaitFibEntryRemoval(const char* fn,
                                                       const KivSegmentRouteInfo& routeInfo) {
   const VrfAndIpGenPrefix& vrfPrefix = routeInfo.vrfPrefix();
   // Nothing of the prefix is in hardware by our records, yet hardware holds
   // an entry: that of its FIB route, withdrawn but not yet taken out by the
   // routing layer. A route written over it now would overwrite the FIB
   // route's forwarding and leave with that entry.
   if (routeInfo.routeInfo().routeType() != RouteType::routeTypeInvalid || !fibRouteSm_ ||
       !segmentRouteHelper_->getHardwareId(vrfPrefix).isValid()) {
      return false;
   }
   segmentRoutesList_->routeInfoIs(routeInfo);
   fibRouteSm_->awaitEntryRemoval(fn, vrfPrefix);
   return true;
}

// ---- Remove ----

void KivSegmentPrefixProcessorSm::removeIpPrefix(const KivSegmentHwInfo& info) {
   removePrefix("removeIpPrefix", info);
}

void KivSegmentPrefixProcessorSm::removeIp6Prefix(const KivSegmentHwInfo& info) {
   removePrefix("removeIp6Prefix", info);
}

void KivSegmentPrefixProcessorSm::removePrefix(const char* fn, const KivSegmentHwInfo& info) {
   TRACE8_FN(fn);
   if (!validatePrefixAction(info)) {
      return;
   }
   const VrfAndIpGenPrefix& vrfPrefix = info.vrfPrefix();
   const Pexo::IpGenPrefix& prefix = vrfPrefix.prefix();
   KivSegmentRouteInfo saved = segmentRoutesList_->routeInfoDel(vrfPrefix);
   Zop::Ptr<Routing::TrieGen> trie =
       segmentPrefixTrie_->getPrefixTrie(vrfPrefix.vrfId(), prefix.af());
   if (trie) {
      trie->routeDel(prefix);
   }
   if (!vrfL3Status(vrfPrefix.vrfId())) {
      // The VRF was deleted: its routes still have to go.
      TRACE5_FN(fn, " VRF L3 Status is NULL");
   }
   if (!removePrefixCommon(info, saved)) {
      // The route is still in hardware, so it stays recorded: in the trie,
      // watched, counted and holding its id, exactly as before. Releasing the
      // id now would let another segment take it while hardware still
      // classifies traffic with it, and a teardown would end with the route
      // left behind.
      segmentRoutesList_->routeInfoIs(saved);
      if (trie) {
         trie->routeIs(prefix, true);
      }
      retryRemoval(fn, vrfPrefix);
      return;
   }
   removalFailures_.erase(vrfPrefix);
   // The watch goes with the route: until then the resolver's answers still
   // apply to it.
   if (prefix.isIpv4()) {
      removeWatchedPrefix(vrfPrefix.vrfId(), prefix.v4());
   } else {
      removeWatchedIp6Prefix(vrfPrefix.vrfId(), prefix.v6());
   }
   // FIB routes that lay under the removed prefix take the id of the next
   // covering segment prefix, or lose it, whatever the VRF's routing flag.
   syncFibRouteHwId(vrfPrefix, info.hwId());
}

void KivSegmentPrefixProcessorSm::retryRemoval(const char* fn, const VrfAndIpGenPrefix& vrfPrefix) {
   RefusedRemoval& refused = removalFailures_[vrfPrefix];
   ++refused.refusals;
   // Never again in this run: hardware that refused a moment ago would most
   // likely refuse again at once. A teardown waits for the route meanwhile.
   Zop::Time delay = kRemovalRetryDelay;
   for (uint32_t i = 1; i < refused.refusals && delay < kRemovalRetryDelayMax; ++i) {
      delay *= 2;
   }
   delay = std::min(delay, kRemovalRetryDelayMax);
   refused.due = scheduler_->clock()->now() + delay;
   TRACE5_FN(fn, " Segment-only prefix: " << vrfPrefix.prefix() << " removal refused "
                                          << refused.refusals << " times, next attempt in "
                                          << delay / Zop::kMillisecond << " ms");
   scheduleRemovalRetry();
}

void KivSegmentPrefixProcessorSm::scheduleRemovalRetry() {
   // The timer fires when the first refused removal is due, not earlier: a
   // prefix refused again moves its own time later.
   std::optional<Zop::Time> first;
   for (const auto& [key, refused] : removalFailures_) {
      if (refused.due && (!first || *refused.due < *first)) {
         first = refused.due;
      }
   }
   removalRetryTask_->cancel();
   if (first) {
      removalRetryTask_->scheduleTaskNoLaterThan(*first);
   }
}

void KivSegmentPrefixProcessorSm::retryRefusedRemovals() {
   const Zop::Time now = scheduler_->clock()->now();
   std::vector<VrfAndIpGenPrefix> due;
   for (auto& [key, refused] : removalFailures_) {
      if (refused.due && *refused.due <= now) {
         refused.due.reset();  // on the review list until reviewed
         due.push_back(key);
      }
   }
   scheduleRemovalRetry();
   for (const auto& key : due) {
      segmentReviewList_->vrfIpGenPrefixIs(key);
   }
}

bool KivSegmentPrefixProcessorSm::removePrefixCommon(const KivSegmentHwInfo& info,
                                                     const KivSegmentRouteInfo& saved) {
   constexpr char fn[] = "removePrefixCommon";
   const VrfAndIpGenPrefix& vrfPrefix = info.vrfPrefix();
   const Pexo::IpGenPrefix& prefix = vrfPrefix.prefix();
   if (!isFibRoute(vrfPrefix, l3Status_)) {
      if (saved.routeInfo().routeType() != RouteType::routeTypeInvalid) {
         if (!hwWriter_.programRoute(vrfPrefix, saved.routeInfo(), RouteInfo())) {
            TRACE5_FN(fn, " Segment-only prefix: " << prefix << " could not be removed from hw");
            return false;
         }
      }
      TRACE5_FN(fn, " Segment-only prefix: " << prefix << " removed from hw ");
      return true;
   }
   TRACE5_FN(fn, " " << prefix << " is already in Fib. Clearing hwId");
   // The FIB route stays; it takes the id of the longest segment prefix still
   // covering it (the removed one has left the trie), or 0. Its route info is
   // refreshed from its adjacency, which must be there.
   hwWriter_.fibRouteHwIdIs({fn, kSource}, vrfPrefix,
                            coveringHwId(fn, vrfPrefix, *segmentPrefixTrie_, *segmentRoutesList_),
                            false);
   return true;
}

// ---- Re-id ----

void KivSegmentPrefixProcessorSm::updateInstalledPrefixHwId(const VrfAndIpGenPrefix& vrfPrefix) {
   constexpr char fn[] = "updateInstalledPrefixHwId";
   const KivSegmentRouteInfo* recorded = segmentRoutesList_->routeInfoFind(vrfPrefix);
   ZOP_ASSERT_FN(recorded, "segmentRoutesList()->routeInfoHas( vrfPrefix )", kSource, fn);
   KivSegmentRouteInfo routeInfo = *recorded;
   L3::VrfName vrfName = l3Status_->vrfName(vrfPrefix.vrfId());
   Zop::Ptr<Firewall::FwVrf> fwVrf = fwConfig_->vrf(vrfName);
   ZOP_ASSERT_FN(fwVrf, "fwConfig()->vrfHas( vrfName )", kSource, fn);
   const Zop::String* segmentName = fwVrf->prefixList(vrfPrefix.prefix());
   SegmentIdRequestKey segIdKey(vrfPrefix.vrfId(), segmentName ? *segmentName : Zop::String());
   const SegmentIdStatus* idStatus = segmentIdResponse_->status(segIdKey);
   ZOP_ASSERT_FN(idStatus, "segmentIdStatus()->statusHas( segIdKey )", kSource, fn);
   SegmentHwId newHwId = idStatus->hwId;
   const Pexo::IpGenPrefix& prefix = vrfPrefix.prefix();
   TRACE5_FN(fn, " " << prefix << " oldHwId: " << routeInfo.hwId() << " newHwId: " << newHwId);
   if (routeInfo.hwId() == newHwId) {
      return;
   }
   routeInfo.hwIdIs(newHwId);
   segmentRoutesList_->routeInfoIs(routeInfo);
   // A FIB route takes the id with its own current forwarding; a saved prefix
   // that is not in hardware has nothing to write yet.
   if (isFibRoute(vrfPrefix, l3Status_)) {
      hwWriter_.fibRouteHwIdIs({fn, kSource}, vrfPrefix, newHwId, false);
   } else if (routeInfo.routeInfo().routeType() != RouteType::routeTypeInvalid) {
      hwWriter_.hwIdIs({fn, kSource}, routeInfo);
   }
   if (!prefix.isHost()) {
      syncFibRouteHwId(vrfPrefix, newHwId);
   }
}

// ---- A VRF's routing flag ----

void KivSegmentPrefixProcessorSm::vrfStatusChanged(const L3::VrfName& name) {
   Zop::Ptr<L3::VrfStatus> vrfStatus = l3Status_->vrfStatus(name);
   if (!vrfStatus) {
      vrfRoutingNotifiees_.erase(name);
      return;
   }
   auto& notifiee = vrfRoutingNotifiees_[name];
   if (!notifiee) {
      notifiee = std::make_unique<VrfRoutingNotifiee>(*this, name);
   }
   notifiee->notifierIs(vrfStatus);
   // A VRF that comes back may come back under the same id before its
   // prefixes were removed, with other flags and another drop adjacency:
   // what it forwarded them with is looked at again.
   routingFlagChanged(name, Pexo::AddressFamily::ipv4);
   routingFlagChanged(name, Pexo::AddressFamily::ipv6);
}

void KivSegmentPrefixProcessorSm::routingFlagChanged(const L3::VrfName& name,
                                                     Pexo::AddressFamily af) {
   routingChanges_.emplace(name, af);
   if (segmentSubnetTask_) {
      segmentSubnetTask_->scheduleTaskLowestDelay(0);
   }
}

void KivSegmentPrefixProcessorSm::queueRoutingChanges() {
   for (const auto& [name, af] : routingChanges_) {
      const VrfId* vrfId = l3Status_->vrfId(name);
      if (!vrfId) {
         continue;  // gone: its prefixes leave with the configuration
      }
      routingWalks_.push_back(RoutingWalk{name, *vrfId, af, std::nullopt, 0});
   }
   routingChanges_.clear();
}

namespace {

// Walks the records of `scope` after `last`, asking the scheduler before each
// and keeping `last` as the bookmark; false when told to yield first.
template <class F>
bool walkRecordsAfter(const KivSegmentRouteInfoColl& records, const RecordScope& scope,
                      std::optional<KivSegmentRouteInfoColl::RecordBookmark>& last, F&& visit) {
   bool stopped = false;
   records.routeInfoIn(scope, last, [&](SegmentHwId hwId, const VrfAndIpGenPrefix& key) {
      if (Ruv::taskShouldYield()) {
         stopped = true;
         return false;
      }
      last = {hwId, key};
      visit(key);
      return true;
   });
   return !stopped;
}

}  // namespace

bool KivSegmentPrefixProcessorSm::continueRoutingWalks() {
   while (!routingWalks_.empty()) {
      RoutingWalk& walk = routingWalks_.front();
      const bool done = walkRecordsAfter(*segmentRoutesList_, {walk.vrfId, std::nullopt}, walk.last,
                                         [&](const VrfAndIpGenPrefix& key) {
                                            if (key.prefix().af() == walk.af) {
                                               routingReview_.insert(key);
                                               segmentReviewList_->vrfIpGenPrefixIs(key);
                                               ++walk.queued;
                                            }
                                         });
      if (!done) {
         return false;
      }
      if (walk.queued != 0) {
         TRACE5_FN("doReviewConfiguredSegmentSubnets",
                   " Routing changed. Vrf: " << walk.name << " " << walk.af
                                             << " prefixes to review: " << walk.queued);
      }
      routingWalks_.pop_front();
   }
   return true;
}

bool KivSegmentPrefixProcessorSm::continueRecordWalks() {
   for (const RecordScope& scope : segmentReviewList_->recordsToReviewTake()) {
      recordWalks_.push_back(RecordWalk{scope, std::nullopt});
   }
   while (!recordWalks_.empty()) {
      RecordWalk& walk = recordWalks_.front();
      if (!walkRecordsAfter(
              *segmentRoutesList_, walk.scope, walk.last,
              [&](const VrfAndIpGenPrefix& key) { segmentReviewList_->vrfIpGenPrefixIs(key); })) {
         return false;
      }
      recordWalks_.pop_front();
   }
   return true;
}

bool KivSegmentPrefixProcessorSm::continueSegmentPrefixWalks() {
   for (SegmentPrefixScope& scope : segmentReviewList_->segmentPrefixesToReviewTake()) {
      segmentPrefixWalks_.push_back(SegmentPrefixWalk{std::move(scope), std::nullopt});
   }
   while (!segmentPrefixWalks_.empty()) {
      SegmentPrefixWalk& walk = segmentPrefixWalks_.front();
      // Found again at each run, from the last prefix queued: the
      // configuration may change between runs (a VRF or segment that went
      // has nothing left to queue), not while this run queues.
      const Zop::Ptr<Firewall::FwVrf> fwVrf =
          fwConfig_ ? fwConfig_->vrf(l3Status_->vrfName(walk.scope.vrfId)) : nullptr;
      if (fwVrf) {
         const std::set<Pexo::IpGenPrefix>& prefixes =
             fwVrf->prefixListOfSegment(walk.scope.segment);
         for (auto next = walk.last ? prefixes.upper_bound(*walk.last) : prefixes.begin();
              next != prefixes.end(); ++next) {
            if (Ruv::taskShouldYield()) {
               return false;
            }
            walk.last = *next;
            if (validSegmentPrefix(*next)) {
               segmentReviewList_->vrfIpGenPrefixIs(VrfAndIpGenPrefix(walk.scope.vrfId, *next));
            }
         }
      }
      segmentPrefixWalks_.pop_front();
   }
   return true;
}

void KivSegmentPrefixProcessorSm::followRoutingFlag(const VrfAndIpGenPrefix& vrfPrefix) {
   const KivSegmentRouteInfo* recorded = segmentRoutesList_->routeInfoFind(vrfPrefix);
   Zop::Ptr<L3::VrfStatus> vrfStatus = vrfL3Status(vrfPrefix.vrfId());
   if (!recorded || !vrfStatus || isFibRoute(vrfPrefix, l3Status_)) {
      return;  // a FIB route keeps its own forwarding
   }
   const KivSegmentRouteInfo routeInfo = *recorded;
   const Pexo::IpGenPrefix& prefix = vrfPrefix.prefix();
   if (!vrfStatus->routingEnabled(prefix.af())) {
      Zop::Ptr<AdjEntry> drop = getDropAdjacencyInfo(vrfPrefix.vrfId(), prefix.af(), l3Status_);
      if (drop && routeInfo.routeInfo() == RouteInfo(drop->routeType(), drop->l2Adj().index())) {
         return;
      }
      TRACE5_FN("doReviewConfiguredSegmentSubnets",
                " Routing disabled. " << prefix << " goes back to the drop next hop");
      addPrefixToHwWithDropNh(KivSegmentHwInfo(vrfPrefix, segmentRouteAdd, routeInfo.hwId()),
                              routeInfo.routeInfo());
      return;
   }
   // Routing on: the resolver's answer decides; without one the prefix is
   // only saved.
   TRACE5_FN("doReviewConfiguredSegmentSubnets",
             " Routing enabled. " << prefix << " follows the RouteResolver");
   if (prefix.isIpv4()) {
      handleResolvedPrefix(vrfPrefix);
   } else {
      handleResolvedIp6Prefix(vrfPrefix);
   }
}

// ---- A segment prefix's FIB route withdrawn ----

void KivSegmentPrefixProcessorSm::reinstallSegmentPrefix(const VrfAndIpGenPrefix& vrfPrefix) {
   // Written for the FIB route reactor's handleFibRoute, whose decision this
   // is; it runs from the reactor's task, once the routing layer has both
   // reported the withdrawal and taken its entry out of hardware, whichever
   // it did first.
   constexpr char fn[] = "handleFibRoute";
   const KivSegmentRouteInfo* recorded = segmentRoutesList_->routeInfoFind(vrfPrefix);
   Zop::Ptr<L3::VrfStatus> vrfStatus = vrfL3Status(vrfPrefix.vrfId());
   if (!recorded || !vrfStatus) {
      return;  // its VRF went: it stays saved and leaves with the VRF
   }
   const KivSegmentRouteInfo routeInfo = *recorded;
   const Pexo::IpGenPrefix& prefix = vrfPrefix.prefix();
   const bool answered =
       prefix.isIpv4()
           ? routeStatus_->resolvedEntry(VrfAndPrefix(vrfPrefix.vrfId(), prefix.v4())) != nullptr
           : route6Status_->resolvedEntry(VrfAndIp6Prefix(vrfPrefix.vrfId(), prefix.v6())) !=
                 nullptr;
   if (vrfStatus->routingEnabled(prefix.af()) && answered) {
      // The resolver's standing answer decides, as for a prefix just added:
      // it is saved (nothing of it is in hardware) and the answer applied.
      TRACE5_FN(fn, " Fib route is removed."
                        << " Segment prefix follows the RouteResolver.");
      segmentRoutesList_->routeInfoIs(
          KivSegmentRouteInfo(vrfPrefix, routeInfo.hwId(), RouteInfo()));
      if (prefix.isIpv4()) {
         handleResolvedPrefix(vrfPrefix);
      } else {
         handleResolvedIp6Prefix(vrfPrefix);
      }
      return;
   }
   // Routing off, or no answer yet: the drop route with the segment's id
   // keeps the id in force for the prefix's traffic.
   TRACE5_FN(fn, " Fib route is removed."
                     << " Segment prefix is to be inserted again.");
   if (!addPrefixToHwWithDropNh(KivSegmentHwInfo(vrfPrefix, segmentRouteAdd, routeInfo.hwId()),
                                RouteInfo())) {
      TRACE5_FN(fn,
                " Failed to install prefix back after " << prefix << " entry was removed from FIB");
      return;
   }
   TRACE5_FN(
       fn, " Successfully installed prefix back after " << prefix << " entry was removed from FIB");
}

// ---- Counting and release ----

int32_t KivSegmentPrefixProcessorSm::updatePrefixCount(SegmentHwId hwId, bool increment) {
   Zop::Ptr<SegmentPrefixCount> counter = prefixCount_->segmentPrefixCount(hwId);
   ZOP_ASSERT_FN(counter, "prefixCount()->segmentPrefixCountHas( hwId )", kSource,
                 "updatePrefixCount");
   if (increment) {
      counter->prefixCountInc(1);
   } else {
      counter->prefixCountDec(1);
   }
   int32_t prefCnt = counter->prefixCount();
   ZOP_ASSERT_FN(prefCnt >= 0, "prefCnt >= 0", kSource, "updatePrefixCount");
   return prefCnt;
}

void KivSegmentPrefixProcessorSm::maybeReleaseSegmentHwId(const VrfAndIpGenPrefix& vrfPrefix,
                                                          SegmentHwId hwId) {
   Zop::Ptr<SegmentPrefixCount> counter = prefixCount_->segmentPrefixCount(hwId);
   ZOP_ASSERT_FN(counter, "prefixCount()->segmentPrefixCountHas( hwId )", kSource,
                 "maybeReleaseSegmentHwId");
   if (counter->prefixCount() != 0) {
      return;
   }
   L3::VrfName vrfName = l3Status_->vrfName(vrfPrefix.vrfId());
   const SegmentIdRequestKey* hwIdToSegName = segmentIdResponse_->hwIdKey(hwId);
   Zop::String segmentName = hwIdToSegName ? hwIdToSegName->segment() : Zop::String();
   TRACE5_FN("maybeReleaseSegmentHwId",
             " Freeing HwId. Vrf: " << vrfName << " Segment: " << segmentName << " " << hwId);
   if (!hwIdToSegName) {
      // The allocator took the id back while its prefixes were counted: no
      // grant names its segment, so only its counter goes (a later grant of
      // it starts anew). A segment still configured waits for a new grant;
      // one that is gone kept its request only while an id it had was still
      // counted.
      prefixCount_->segmentPrefixCountDel(hwId);
      releaseRequestsOfGoneSegments(vrfPrefix.vrfId());
      return;
   }
   // During a teardown every id goes with its last prefix, configured or not.
   if (!vrfName.empty() && !status_->waitForRoutesCleanup()) {
      if (Zop::Ptr<Firewall::FwVrf> fwVrf = fwConfig_->vrf(vrfName)) {
         ZOP_ASSERT_FN(hwIdToSegName, " Missing entry in Segment HwId Status ", kSource,
                       "maybeReleaseSegmentHwId");
         if (fwVrf->segment(segmentName)) {
            return;
         }
      }
   }
   TRACE5_FN("maybeReleaseSegmentHwId", " Processing release request for Vrf: " << vrfName);
   segmentIdRequest_->requestDel(SegmentIdRequestKey(vrfPrefix.vrfId(), segmentName));
   // The counter goes with the request: a later grant of the id starts anew.
   prefixCount_->segmentPrefixCountDel(hwId);
}

void KivSegmentPrefixProcessorSm::releaseRequestsOfGoneSegments(VrfId vrfId) {
   // While any id taken back is still counted, it may be one of theirs.
   for (const auto& [hwId, counter] : prefixCount_->segmentPrefixCount()) {
      if (counter->prefixCount() != 0 && !segmentIdResponse_->hwIdKey(hwId)) {
         return;
      }
   }
   const L3::VrfName vrfName = l3Status_->vrfName(vrfId);
   Zop::Ptr<Firewall::FwVrf> fwVrf = vrfName.empty() ? nullptr : fwConfig_->vrf(vrfName);
   std::vector<SegmentIdRequestKey> gone;
   for (const SegmentIdRequestKey& key : segmentIdRequest_->request()) {
      if (key.vrfId() != vrfId || (fwVrf && fwVrf->segment(key.segment()))) {
         continue;
      }
      const SegmentIdStatus* status = segmentIdResponse_->status(key);
      Zop::Ptr<SegmentPrefixCount> counter =
          status ? prefixCount_->segmentPrefixCount(status->hwId) : nullptr;
      if (!counter || counter->prefixCount() == 0) {
         gone.push_back(key);
      }
   }
   std::sort(gone.begin(), gone.end());
   for (const auto& key : gone) {
      TRACE5_FN("maybeReleaseSegmentHwId", " Processing release request for Vrf: " << vrfName);
      const SegmentIdStatus* status = segmentIdResponse_->status(key);
      if (status && prefixCount_->segmentPrefixCountHas(status->hwId)) {
         prefixCount_->segmentPrefixCountDel(status->hwId);
      }
      segmentIdRequest_->requestDel(key);
   }
}

// ---- Factory ----

Zop::Ptr<KivSegmentPrefixProcessorSm> kivSegmentPrefixProcessorSmFactory(
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
    const Zop::Ptr<SegmentSecurityStatus>& status) {
   return Zop::makePtr<KivSegmentPrefixProcessorSm>(
       scheduler, routeConfig, route6Config, routeStatus, route6Status, l3Status, fibRoutes,
       fibRoutes6, routeHelper, route6Helper, segmentRouteHelper, fwConfig, segmentIdRequest,
       segmentIdResponse, segmentReviewList, prefixCount, segmentRoutesList, status);
}

}  // namespace Kiv
