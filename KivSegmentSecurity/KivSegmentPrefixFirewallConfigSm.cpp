// The configuration reactors: the root that turns the feature on and off
// with the routing handshake, and per VRF the reactor that turns firewall
// configuration into hw-id requests and review-list entries.

#include "KivSegmentSecurity/KivSegmentPrefixFirewallConfigSm.h"

#include <algorithm>
#include <unordered_map>
#include <vector>

#include "KivSegmentSecurity/KivSegmentSecuritySyslog.h"
#include "KivSegmentSecurity/KivSegmentSecurityUtils.h"

#include "KivSegmentSecurity/KivSegmentSecurityTrace.h"

namespace Kiv {

namespace {
constexpr char kSource[] = "KivSegmentSecurity/KivSegmentPrefixFirewallConfigSm";

}  // namespace

// ===================== Destination segment =====================

class DestinationSegmentSm::SegmentNotifiee : public Firewall::FwSegment::Notifiee {
public:
   explicit SegmentNotifiee(DestinationSegmentSm& sm) : sm_(sm) {}
   void handleSourceSegment(const Zop::String& source) override { sm_.handleSourceSegment(source); }

private:
   DestinationSegmentSm& sm_;
};

DestinationSegmentSm::DestinationSegmentSm(Zop::String segment,
                                           const Zop::Ptr<const Firewall::FwSegment>& fwSegment)
    : segment_(std::move(segment)), fwSegment_(fwSegment) {
   notifiee_ = std::make_unique<SegmentNotifiee>(*this);
   if (fwSegment_) {
      notifiee_->notifierIs(fwSegment_);
   }
}

DestinationSegmentSm::~DestinationSegmentSm() = default;

void DestinationSegmentSm::notificationActiveIs(bool on) {
   notifiee_->notificationActiveIs(on);
}

KivDestinationSegmentSm::KivDestinationSegmentSm(
    Zop::String segment, const Zop::Ptr<const Firewall::FwSegment>& fwSegment,
    const L3::VrfName& vrfName, const Zop::Ptr<const Firewall::HwConfig>& fwConfig,
    const Zop::Ptr<Firewall::Counters>& counters)
    : DestinationSegmentSm(std::move(segment), fwSegment),
      vrfName_(vrfName),
      fwConfig_(fwConfig),
      counters_(counters) {}

void KivDestinationSegmentSm::handleSourceSegment(const Zop::String& source) {
   const Zop::String* policy = fwSegment() ? fwSegment()->sourceSegment(source) : nullptr;
   TRACE8_FN("handleSourceSegment",
             " Vrf: " << vrfName_ << " Segment: " << segment() << " Source: " << source
                      << " Policy: " << (policy ? *policy : Zop::String("n/a")));
}

Zop::Ptr<KivDestinationSegmentSm> kivDestinationSegmentSmFactory(
    const Zop::String& segment, const Zop::Ptr<const Firewall::FwSegment>& fwSegment,
    const L3::VrfName& vrfName, const Zop::Ptr<const Firewall::HwConfig>& fwConfig,
    const Zop::Ptr<Firewall::Counters>& counters) {
   return Zop::makePtr<KivDestinationSegmentSm>(segment, fwSegment, vrfName, fwConfig, counters);
}

// ===================== VRF =====================

// ---- Bases ----

VrfBaseSm::VrfBaseSm(const L3::VrfName& vrfName, const Zop::Ptr<const Firewall::FwVrf>& fwVrf,
                     const Zop::Ptr<const Firewall::FwSegmentDir>& segmentDir)
    : vrfName_(vrfName), fwVrf_(fwVrf), segmentDir_(segmentDir) {}

VrfBaseSm::~VrfBaseSm() = default;

void VrfBaseSm::initializedIs(bool v) {
   if (v == initialized_) {
      return;
   }
   initialized_ = v;
   if (v) {
      handleInitialized();
   }
}

void VrfBaseSm::handleGlobalPrefix() {
   std::vector<Pexo::IpGenPrefix> prefixes;
   for (const auto& [prefix, segmentName] : fwVrf_->prefixList()) {
      prefixes.push_back(prefix);
   }
   std::sort(prefixes.begin(), prefixes.end());
   for (const auto& prefix : prefixes) {
      handleGlobalPrefix(prefix);
   }
}

Zop::Ptr<KivDestinationSegmentSm> VrfBaseSm::dstSegmentSm(const Zop::String& segment) const {
   return dstSegmentSm_.get(segment);
}

void VrfBaseSm::dstSegmentSmIs(const Zop::String& segment,
                               const Zop::Ptr<KivDestinationSegmentSm>& sm) {
   dstSegmentSm_.is(segment, sm);
}

void VrfBaseSm::dstSegmentSmDel(const Zop::String& segment) {
   dstSegmentSm_.del(segment);
}

SegmentSecurityRootBaseSm::SegmentSecurityRootBaseSm(
    const Zop::Ptr<const Firewall::HwConfig>& fwConfig)
    : fwConfig_(fwConfig) {}

SegmentSecurityRootBaseSm::~SegmentSecurityRootBaseSm() = default;

void SegmentSecurityRootBaseSm::handleVrf() {
   std::vector<L3::VrfName> names;
   for (const auto& [name, fwVrf] : fwConfig_->vrf()) {
      names.push_back(name);
   }
   // VRF reactors of VRFs gone from the configuration go too.
   for (const auto& [name, sm] : vrfSm_) {
      if (!fwConfig_->vrfHas(name)) {
         names.push_back(name);
      }
   }
   for (const auto& name : names) {
      handleVrf(name);
   }
}

Zop::Ptr<KivSegmentSecurityVrfSm> SegmentSecurityRootBaseSm::vrfSm(const L3::VrfName& name) const {
   return vrfSm_.get(name);
}

void SegmentSecurityRootBaseSm::vrfSmIs(const L3::VrfName& name,
                                        const Zop::Ptr<KivSegmentSecurityVrfSm>& sm) {
   vrfSm_.is(name, sm);
}

void SegmentSecurityRootBaseSm::vrfSmDel(const L3::VrfName& name) {
   vrfSm_.del(name);
}

void SegmentSecurityRootBaseSm::vrfSmDelAll() {
   std::vector<L3::VrfName> names;
   for (const auto& [name, sm] : vrfSm_) {
      names.push_back(name);
   }
   for (const auto& name : names) {
      vrfSmDel(name);
   }
}

class KivSegmentSecurityVrfSm::FwVrfNotifiee : public Firewall::FwVrf::Notifiee {
public:
   explicit FwVrfNotifiee(KivSegmentSecurityVrfSm& sm) : sm_(sm) {}
   void handlePrefixList(const Pexo::IpGenPrefix& prefix) override {
      if (sm_.initialized_) {
         sm_.handleGlobalPrefix(prefix);
      }
   }

private:
   KivSegmentSecurityVrfSm& sm_;
};

class KivSegmentSecurityVrfSm::SegmentDirNotifiee : public Firewall::FwSegmentDir::Notifiee {
public:
   explicit SegmentDirNotifiee(KivSegmentSecurityVrfSm& sm) : sm_(sm) {}
   void handleSegment(const Zop::String& segment) override {
      if (sm_.initialized_) {
         sm_.handleDestinationSegment(segment);
      }
   }

private:
   KivSegmentSecurityVrfSm& sm_;
};

class KivSegmentSecurityVrfSm::ResponseNotifiee : public SegmentIdResponse::Notifiee {
public:
   explicit ResponseNotifiee(KivSegmentSecurityVrfSm& sm) : sm_(sm) {}
   void handleStatus(const SegmentIdRequestKey& key) override {
      if (sm_.initialized_ && key.vrfId() == sm_.vrfId_) {
         sm_.handleSegmentIdStatus(key);
      }
   }

private:
   KivSegmentSecurityVrfSm& sm_;
};

class KivSegmentSecurityVrfSm::RouteNotifiee : public KivSegmentRouteInfoColl::Notifiee {
public:
   explicit RouteNotifiee(KivSegmentSecurityVrfSm& sm) : sm_(sm) {}
   void handleRouteInfo(const VrfAndIpGenPrefix& key) override {
      if (sm_.initialized_) {
         sm_.handleHwRoute(key);
      }
   }

private:
   KivSegmentSecurityVrfSm& sm_;
};

KivSegmentSecurityVrfSm::KivSegmentSecurityVrfSm(
    const L3::VrfName& vrfName, const Zop::Ptr<const Firewall::FwVrf>& fwVrf,
    const Zop::Ptr<const Firewall::FwSegmentDir>& segmentDir,
    const Zop::Ptr<const Firewall::HwConfig>& fwConfig,
    const Zop::Ptr<VrfPrefixCollection>& reviewList,
    const Zop::Ptr<SegmentIdRequest>& segmentIdRequest,
    const Zop::Ptr<const SegmentIdResponse>& segmentIdResponse, VrfId vrfId,
    const Zop::Ptr<PrefixCount>& prefixCount,
    const Zop::Ptr<const KivSegmentRouteInfoColl>& segmentRoutesList,
    const Zop::Ptr<Firewall::Counters>& counters)
    : VrfBaseSm(vrfName, fwVrf, segmentDir),
      fwConfig_(fwConfig),
      reviewList_(reviewList),
      segmentIdRequest_(segmentIdRequest),
      segmentIdResponse_(segmentIdResponse),
      vrfId_(vrfId),
      prefixCount_(prefixCount),
      segmentRoutesList_(segmentRoutesList),
      counters_(counters) {
   fwVrfNotifiee_ = std::make_unique<FwVrfNotifiee>(*this);
   fwVrfNotifiee_->notifierIs(fwVrf_);
   segmentDirNotifiee_ = std::make_unique<SegmentDirNotifiee>(*this);
   segmentDirNotifiee_->notifierIs(segmentDir_);
   responseNotifiee_ = std::make_unique<ResponseNotifiee>(*this);
   responseNotifiee_->notifierIs(segmentIdResponse_);
   routeNotifiee_ = std::make_unique<RouteNotifiee>(*this);
   routeNotifiee_->notifierIs(segmentRoutesList_);
}

KivSegmentSecurityVrfSm::~KivSegmentSecurityVrfSm() {
   fwVrfNotifiee_->notificationActiveIs(false);
   segmentDirNotifiee_->notificationActiveIs(false);
   responseNotifiee_->notificationActiveIs(false);
   routeNotifiee_->notificationActiveIs(false);
   if (initialized_) {
      doCleanup();
   }
}

void KivSegmentSecurityVrfSm::handleInitialized() {
   TRACE8_FN("handleInitialized", " Vrf: " << vrfName_);
   std::vector<Zop::String> segments;
   for (const auto& [name, segment] : segmentDir_->segment()) {
      segments.push_back(name);
   }
   for (const auto& name : segments) {
      handleDestinationSegment(name);
   }
}

void KivSegmentSecurityVrfSm::dstSegmentSmIs(const Zop::String& segment) {
   dstSegmentSmIs(segment, kivDestinationSegmentSmFactory(segment, segmentDir_->segment(segment),
                                                          vrfName_, fwConfig_, counters_));
}

bool KivSegmentSecurityVrfSm::validPrefix(const char* fn, const Pexo::IpGenPrefix& prefix) {
   if (validSegmentPrefix(prefix)) {
      return true;
   }
   // Reported once per prefix-list entry, when first met.
   if (reportedInvalid_.insert(prefix).second) {
      const KivSegmentSecuritySyslog& syslog = kivSegmentSecuritySyslog();
      syslog.registry->raise(syslog.invalidPrefix, Pexo::valueToStrep(prefix));
   }
   TRACE5_FN(fn, " Skipping invalid prefix: " << prefix);
   return false;
}

SegmentHwId KivSegmentSecurityVrfSm::allocatedHwId(const SegmentIdRequestKey& key) const {
   // Requests are a set: a key holds an id only while its request stands. A
   // grant whose request was withdrawn is on its way out (the allocator takes
   // it back at its next run), whatever the response still says.
   if (!segmentIdRequest_->requestHas(key)) {
      return SegmentHwId();
   }
   const SegmentIdStatus* status = segmentIdResponse_->status(key);
   return status ? status->hwId : SegmentHwId();
}

SegmentHwId KivSegmentSecurityVrfSm::lastHwId(const SegmentIdRequestKey& key) const {
   auto known = knownHwId_->find(key.segment());
   if (known == knownHwId_->end()) {
      return SegmentHwId();
   }
   // Granted to another key since: its counter is that key's now.
   const SegmentIdRequestKey* owner = segmentIdResponse_->hwIdKey(known->second);
   return owner && !(*owner == key) ? SegmentHwId() : known->second;
}

void KivSegmentSecurityVrfSm::queueRoutesWithHwId(SegmentHwId hwId) {
   // A copy: queueing may reach handlers that change the records.
   const std::set<VrfAndIpGenPrefix>& recorded =
       segmentRoutesList_->routeInfoWithHwId(vrfId_, hwId);
   if (recorded.size() > VrfPrefixCollection::kQueueAtOnce) {
      reviewList_->recordsToReviewIs({vrfId_, hwId});
      return;
   }
   const std::vector<VrfAndIpGenPrefix> routes(recorded.begin(), recorded.end());
   for (const auto& routeKey : routes) {
      processPrefix(routeKey);
   }
}

void KivSegmentSecurityVrfSm::handleDestinationSegment(const Zop::String& segment) {
   SegmentIdRequestKey key(vrfId_, segment);
   if (segmentDir_->segmentHas(segment)) {
      if (!dstSegmentSm(segment)) {
         dstSegmentSmIs(segment);
      }
      TRACE5_FN("handleDestinationSegment", " Added. Vrf: " << vrfName_ << " Segment: " << segment);
      SegmentHwId hwId = allocatedHwId(key);
      if (!hwId.isValid()) {
         TRACE5_FN("handleDestinationSegment",
                   " Requesting HwId for Vrf: " << vrfName_ << " Segment: " << segment);
         segmentIdRequest_->requestIs(key);
         // A grant still standing from the key's withdrawn request is the
         // key's again now that the request is back: the allocator keeps a
         // grant whose request it finds standing, and says nothing more.
         hwId = allocatedHwId(key);
         if (!hwId.isValid()) {
            return;
         }
      }
      TRACE5_FN("handleDestinationSegment", " " << hwId << " already allocated for Vrf: "
                                                << vrfName_ << " Segment: " << segment);
      if (!prefixCount_->segmentPrefixCountHas(hwId)) {
         prefixCount_->segmentPrefixCountIs(segmentPrefixCountFactory(hwId));
      }
      (*knownHwId_)[segment] = hwId;
      processSegmentPrefix(segment, true);
      return;
   }

   dstSegmentSmDel(segment);
   TRACE5_FN("handleDestinationSegment", " Removed. Vrf: " << vrfName_ << " Segment: " << segment);
   if (Zop::Ptr<Firewall::VrfCounters> vrfCounters =
           counters_ ? counters_->vrf(vrfName_) : nullptr) {
      vrfCounters->countersDir()->segmentDel(segment);
   }
   const SegmentHwId hwId = allocatedHwId(key);
   // Without an id in force (never granted, or taken back by the allocator)
   // the routes of the segment may still carry its last id: the request stays
   // while they are counted.
   SegmentHwId counted = hwId;
   if (hwId.isValid()) {
      processSegmentPrefix(segment, false);
   } else {
      counted = lastHwId(key);
   }
   Zop::Ptr<SegmentPrefixCount> counter =
       counted.isValid() ? prefixCount_->segmentPrefixCount(counted) : nullptr;
   if (hwId.isValid()) {
      ZOP_ASSERT_FN(counter, "prefixCount()->segmentPrefixCountHas( hwId )", kSource,
                    "handleDestinationSegment");
   }
   if (counter && counter->prefixCount() != 0) {
      TRACE5_FN("handleDestinationSegment",
                " " << counted << " in use with request count: " << counter->prefixCount());
      return;
   }
   TRACE5_FN("handleDestinationSegment", " Releasing hwId");
   segmentIdRequest_->requestDel(key);
   if (counter) {
      prefixCount_->segmentPrefixCountDel(counted);
   }
   knownHwId_->erase(segment);
}

void KivSegmentSecurityVrfSm::handleSegmentIdStatus(const SegmentIdRequestKey& key) {
   const Zop::String& segment = key.segment();
   const SegmentIdStatus* status = segmentIdResponse_->status(key);
   if (!status) {
      TRACE5_FN("handleSegmentIdStatus",
                " HwId released for Vrf: " << vrfName_ << " Segment: " << segment);
   } else {
      TRACE5_FN("handleSegmentIdStatus", " HwId: " << status->hwId << " allocated for Vrf: "
                                                   << vrfName_ << " Segment: " << segment);
   }
   const SegmentHwId oldHwId = lastHwId(key);
   const SegmentHwId hwId = allocatedHwId(key);
   if (!status && !segmentIdRequest_->requestHas(key)) {
      // Released: the request went first, with nothing counted.
      knownHwId_->erase(segment);
      return;
   }
   if (!hwId.isValid()) {
      // No id in force for the segment: an allocator that took the grant
      // back (or replaced it with the invalid id) while the request stands.
      // Whatever still carries the last id leaves hardware until an id is
      // granted again; the last id is remembered, so that the same id
      // granted again is not taken for a new owner's.
      if (oldHwId.isValid()) {
         queueRoutesWithHwId(oldHwId);
      }
      // A segment gone from the configuration kept its request only for its
      // counted prefixes; with nothing counted there is nothing to keep it for.
      if (!segmentDir_->segmentHas(segment) && segmentIdRequest_->requestHas(key)) {
         Zop::Ptr<SegmentPrefixCount> counter =
             oldHwId.isValid() ? prefixCount_->segmentPrefixCount(oldHwId) : nullptr;
         if (!counter || counter->prefixCount() == 0) {
            TRACE5_FN("handleSegmentIdStatus", " Releasing hwId");
            segmentIdRequest_->requestDel(key);
            knownHwId_->erase(segment);
         }
      }
      return;
   }
   bool newToKey = oldHwId != hwId;
   if (Zop::Ptr<SegmentPrefixCount> segPrefixCntr = prefixCount_->segmentPrefixCount(hwId)) {
      TRACE5_FN("handleSegmentIdStatus", " Pending prefCnt: " << segPrefixCntr->prefixCount());
      // An id may not be handed to a new owner while prefixes of its previous
      // owner are still counted; the same id notified again is harmless.
      if (newToKey) {
         ZOP_ASSERT_FN(
             !segPrefixCntr->prefixCount(),
             "!segPrefixCntr->prefixCount() && \" Previous segment still had pending items \"",
             kSource, "handleSegmentIdStatus");
      }
   } else {
      prefixCount_->segmentPrefixCountIs(segmentPrefixCountFactory(hwId));
   }
   (*knownHwId_)[segment] = hwId;
   if (!segmentDir_->segmentHas(segment)) {
      // Granted to a segment that left the configuration while its request
      // waited: nothing will use the id. Routes still counted under the id it
      // had before keep the request, which keeps that id from another owner
      // until they are gone (a teardown withdraws what is left).
      Zop::Ptr<SegmentPrefixCount> counter = prefixCount_->segmentPrefixCount(hwId);
      Zop::Ptr<SegmentPrefixCount> oldCounter =
          newToKey && oldHwId.isValid() ? prefixCount_->segmentPrefixCount(oldHwId) : nullptr;
      if (counter->prefixCount() == 0 && (!oldCounter || oldCounter->prefixCount() == 0)) {
         TRACE5_FN("handleSegmentIdStatus", " Releasing hwId");
         segmentIdRequest_->requestDel(key);
         prefixCount_->segmentPrefixCountDel(hwId);
         knownHwId_->erase(segment);
         return;
      }
   }
   processSegmentPrefix(segment, true);
   if (newToKey && oldHwId.isValid()) {
      // Routes still carrying the old id move to the new one.
      queueRoutesWithHwId(oldHwId);
   }
}

void KivSegmentSecurityVrfSm::processSegmentPrefix(const Zop::String& segment, bool install) {
   SegmentIdRequestKey segKey(vrfId_, segment);
   const SegmentIdStatus* status = segmentIdResponse_->status(segKey);
   ZOP_ASSERT_FN(status, "segmentIdStatus()->statusHas( segKey )", kSource, "processSegmentPrefix");
   SegmentHwId hwId = status->hwId;
   TRACE5_FN("processSegmentPrefix",
             " Processing all prefixes for vrf: " << vrfName_ << " install: " << install);
   // In prefix order, so that reports and traces come out the same way on
   // every run. A copy: queueing may reach handlers that change the list.
   const std::set<Pexo::IpGenPrefix>& configured = fwVrf_->prefixListOfSegment(segment);
   if (configured.size() > VrfPrefixCollection::kQueueAtOnce) {
      // A large segment's prefixes are queued by the processor a piece at a
      // time (a grant's handler queued 1,630 at once in 5 ms); the invalid
      // ones are reported here all the same, which queues nothing.
      for (const auto& prefix : configured) {
         if (!validSegmentPrefix(prefix)) {
            validPrefix("processSegmentPrefix", prefix);
         }
      }
      reviewList_->segmentPrefixesToReviewIs({vrfId_, segment});
      queueRoutesWithHwId(hwId);
      return;
   }
   const std::vector<Pexo::IpGenPrefix> prefixes(configured.begin(), configured.end());
   for (const auto& prefix : prefixes) {
      if (validPrefix("processSegmentPrefix", prefix)) {
         processPrefix(VrfAndIpGenPrefix(vrfId_, prefix));
      }
   }
   queueRoutesWithHwId(hwId);
}

void KivSegmentSecurityVrfSm::handleGlobalPrefix(const Pexo::IpGenPrefix& prefix) {
   VrfAndIpGenPrefix key(vrfId_, prefix);
   const Zop::String* segment = fwVrf_->prefixList(prefix);
   if (!segment) {
      if (!validSegmentPrefix(prefix)) {
         // Never queued; a later entry of the same prefix is a new one.
         reportedInvalid_.erase(prefix);
         TRACE5_FN("handleGlobalPrefix", " Skipping invalid prefix: " << prefix);
         return;
      }
      TRACE5_FN("handleGlobalPrefix", " Remove request for. Vrf: " << vrfName_ << " " << prefix);
      processPrefix(key);
      return;
   }
   if (!validPrefix("handleGlobalPrefix", prefix)) {
      return;
   }
   TRACE5_FN("handleGlobalPrefix",
             " Add request for Vrf:" << vrfName_ << " Segment:" << *segment << " " << prefix);
   const SegmentHwId hwId = allocatedHwId(SegmentIdRequestKey(vrfId_, *segment));
   if (hwId.isValid()) {
      ZOP_ASSERT_FN(prefixCount_->segmentPrefixCountHas(hwId),
                    "prefixCount()->segmentPrefixCountHas( hwId )", kSource, "handleGlobalPrefix");
      TRACE5_FN("handleGlobalPrefix", " HwId already allocated: " << hwId);
      processPrefix(key);
      return;
   }
   TRACE5_FN("handleGlobalPrefix", " HwId not yet allocated. Skipping now");
   // A prefix moving to a segment without an id must still leave its old one.
   if (segmentRoutesList_->routeInfoHas(key)) {
      processPrefix(key);
   }
}

void KivSegmentSecurityVrfSm::processPrefix(const VrfAndIpGenPrefix& vrfPrefix) {
   TRACE8_FN("processPrefix", " " << vrfName_ << " " << vrfPrefix.prefix());
   reviewList_->vrfIpGenPrefixIs(vrfPrefix);
}

void KivSegmentSecurityVrfSm::handleHwRoute(const VrfAndIpGenPrefix& vrfPrefix) {
   if (vrfPrefix.vrfId() == vrfId_) {
      TRACE8_FN("handleHwRoute", " " << vrfName_ << " " << vrfPrefix.prefix());
   }
}

void KivSegmentSecurityVrfSm::doCleanup() {
   TRACE8_FN("doCleanup", " Vrf: " << vrfName_);
   std::vector<VrfAndIpGenPrefix> routes;
   if (cleanupRoutes_) {
      routes = std::move(*cleanupRoutes_);
      cleanupRoutes_.reset();
   } else if (segmentRoutesList_->routeInfoCount() > VrfPrefixCollection::kQueueAtOnce) {
      reviewList_->recordsToReviewIs({vrfId_, std::nullopt});
   } else {
      for (const auto& [routeKey, route] : segmentRoutesList_->routeInfo()) {
         if (routeKey.vrfId() == vrfId_) {
            routes.push_back(routeKey);
         }
      }
   }
   for (const auto& routeKey : routes) {
      processPrefix(routeKey);
   }
   // This VRF's segments are those it requested ids for. An id whose count is
   // 0 goes now; the others go with their last prefix (the processor releases
   // them).
   std::vector<SegmentIdRequestKey> requests;
   for (const auto& key : segmentIdRequest_->request()) {
      if (key.vrfId() == vrfId_) {
         requests.push_back(key);
      }
   }
   std::sort(requests.begin(), requests.end());
   for (const auto& key : requests) {
      const SegmentIdStatus* status = segmentIdResponse_->status(key);
      SegmentHwId hwId = status ? status->hwId : SegmentHwId();
      if (!hwId.isValid()) {
         // A grant taken back: the segment's routes may still carry its last id.
         hwId = lastHwId(key);
      }
      Zop::Ptr<SegmentPrefixCount> counter =
          hwId.isValid() ? prefixCount_->segmentPrefixCount(hwId) : nullptr;
      if (counter && counter->prefixCount() != 0) {
         TRACE5_FN("doCleanup", " Still have items in reviewList. Not freeing HwId: " << hwId);
         continue;
      }
      TRACE5_FN("doCleanup", " Nothing in reviewList. Freeing HwId: " << hwId);
      segmentIdRequest_->requestDel(key);
      if (counter) {
         prefixCount_->segmentPrefixCountDel(hwId);
      }
   }
}

Zop::Ptr<KivSegmentSecurityVrfSm> kivSegmentSecurityVrfSmFactory(
    const L3::VrfName& vrfName, const Zop::Ptr<const Firewall::FwVrf>& fwVrf,
    const Zop::Ptr<const Firewall::FwSegmentDir>& segmentDir,
    const Zop::Ptr<const Firewall::HwConfig>& fwConfig,
    const Zop::Ptr<VrfPrefixCollection>& reviewList,
    const Zop::Ptr<SegmentIdRequest>& segmentIdRequest,
    const Zop::Ptr<const SegmentIdResponse>& segmentIdResponse, VrfId vrfId,
    const Zop::Ptr<PrefixCount>& prefixCount,
    const Zop::Ptr<const KivSegmentRouteInfoColl>& segmentRoutesList,
    const Zop::Ptr<Firewall::Counters>& counters) {
   return Zop::makePtr<KivSegmentSecurityVrfSm>(vrfName, fwVrf, segmentDir, fwConfig, reviewList,
                                                segmentIdRequest, segmentIdResponse, vrfId,
                                                prefixCount, segmentRoutesList, counters);
}

// ===================== Root =====================

class KivSegmentSecurityRootSm::HwConfigNotifiee : public Firewall::HwConfig::Notifiee {
public:
   explicit HwConfigNotifiee(KivSegmentSecurityRootSm& sm) : sm_(sm) {}
   void handleFwActive() override {
      if (sm_.initialized_) {
         sm_.handleSecuritySegmentEnable();
      }
   }
   void handleVrf(const L3::VrfName& name) override {
      if (sm_.initialized_) {
         sm_.handleVrf(name);
      }
   }

private:
   KivSegmentSecurityRootSm& sm_;
};

class KivSegmentSecurityRootSm::IpNotifiee : public Ip::Status::Notifiee {
public:
   explicit IpNotifiee(KivSegmentSecurityRootSm& sm) : sm_(sm) {}
   void handleUrpfConfigured() override {
      if (sm_.initialized_) {
         sm_.urpf4ConfiguredIs(notifier()->urpfConfigured());
      }
   }

private:
   KivSegmentSecurityRootSm& sm_;
};

class KivSegmentSecurityRootSm::Ip6Notifiee : public Ip6::Status::Notifiee {
public:
   explicit Ip6Notifiee(KivSegmentSecurityRootSm& sm) : sm_(sm) {}
   void handleUrpfConfigured() override {
      if (sm_.initialized_) {
         sm_.urpf6ConfiguredIs(notifier()->urpfConfigured());
      }
   }

private:
   KivSegmentSecurityRootSm& sm_;
};

class KivSegmentSecurityRootSm::WaitWrapperNotifiee : public L3::WaitForRoutingWrapper::Notifiee {
public:
   explicit WaitWrapperNotifiee(KivSegmentSecurityRootSm& sm) : sm_(sm) {}
   void handleWaitForRoutingDisabledRefCnt() override {
      if (sm_.initialized_ && notifier()->waitForRoutingDisabledRefCnt() != 0) {
         sm_.doSegmentSecuritySetup();
      }
   }

private:
   KivSegmentSecurityRootSm& sm_;
};

class KivSegmentSecurityRootSm::UrpfWrapperNotifiee
    : public L3::UrpfRoutingDisableDoneWrapper::Notifiee {
public:
   explicit UrpfWrapperNotifiee(KivSegmentSecurityRootSm& sm) : sm_(sm) {}
   void handleUrpfRoutingDisableDone() override {
      if (sm_.initialized_) {
         sm_.handleUrpfRoutingDisableDone();
      }
   }

private:
   KivSegmentSecurityRootSm& sm_;
};

class KivSegmentSecurityRootSm::L3Notifiee : public L3Status::Notifiee {
public:
   explicit L3Notifiee(KivSegmentSecurityRootSm& sm) : sm_(sm) {}
   void handleVrfId(const L3::VrfName& name) override {
      if (sm_.initialized_) {
         sm_.handleVrfCreation(name);
      }
   }
   void handleWaitForRoutingWrapper() override {
      sm_.zop_WaitForRoutingWrapperInIs(notifier()->waitForRoutingWrapper());
   }
   void handleUrpfRoutingDisableDoneWrapper() override {
      sm_.zop_UrpfRoutingDisableDoneWrapperInIs(notifier()->urpfRoutingDisableDoneWrapper());
   }
   void handleWaitForRoutingDisabledInVrfs() override { sm_.retrySetup(); }
   void handleWaitForRouting6DisabledInVrfs() override { sm_.retrySetup(); }

private:
   KivSegmentSecurityRootSm& sm_;
};

class KivSegmentSecurityRootSm::MulticastNotifiee : public MulticastHwStatus::Notifiee {
public:
   explicit MulticastNotifiee(KivSegmentSecurityRootSm& sm) : sm_(sm) {}
   void handleHwRouting() override {
      if (sm_.initialized_) {
         sm_.doSegmentSecuritySetup();
      }
   }

private:
   KivSegmentSecurityRootSm& sm_;
};

class KivSegmentSecurityRootSm::RouteNotifiee : public KivSegmentRouteInfoColl::Notifiee {
public:
   explicit RouteNotifiee(KivSegmentSecurityRootSm& sm) : sm_(sm) {}
   // A route leaves the collection in the middle of the processor's work on
   // its prefix, before the prefix's id is released: the wait is judged once
   // the processor has finished the member, which it signals by counting it
   // (also for a member whose review changed nothing).
   void handleReviewSegmentHwId() override { wait(); }

private:
   void wait() {
      if (sm_.initialized_) {
         sm_.waitForSegmentRouteRemoval();
      }
   }
   KivSegmentSecurityRootSm& sm_;
};

class KivSegmentSecurityRootSm::StatusNotifiee : public SegmentSecurityStatus::Notifiee {
public:
   explicit StatusNotifiee(KivSegmentSecurityRootSm& sm) : sm_(sm) {}
   void handleSegmentSecuritySetupComplete() override {
      if (sm_.initialized_) {
         sm_.handleSegmentSecuritySetupComplete();
      }
   }

private:
   KivSegmentSecurityRootSm& sm_;
};

class KivSegmentSecurityRootSm::HelperNotifiee : public KivHelper::RoutingStatusSmHelper::Notifiee {
public:
   explicit HelperNotifiee(KivSegmentSecurityRootSm& sm) : sm_(sm) {}
   void handleReady() override { sm_.handleRoutingStatusReady(); }

private:
   KivSegmentSecurityRootSm& sm_;
};

KivSegmentSecurityRootSm::KivSegmentSecurityRootSm(
    const Zop::Ptr<const Firewall::HwConfig>& fwConfig, const Zop::Ptr<const Ip::Status>& ipStatus,
    const Zop::Ptr<const Ip6::Status>& ip6Status, const Zop::Ptr<VrfPrefixCollection>& reviewList,
    const Zop::Ptr<SegmentIdRequest>& segmentIdRequest,
    const Zop::Ptr<const SegmentIdResponse>& segmentIdResponse, const Zop::Ptr<L3Status>& l3Status,
    const Zop::Ptr<MulticastHwStatus>& multicastHwStatus, const Zop::Ptr<PrefixCount>& prefixCount,
    const Zop::Ptr<const KivSegmentRouteInfoColl>& segmentRoutesList,
    const Zop::Ptr<SegmentSecurityStatus>& status,
    const Zop::Ptr<KivHelper::RoutingStatusSmHelper>& routingStatusHelper,
    const Zop::Ptr<Firewall::Counters>& counters)
    : SegmentSecurityRootBaseSm(fwConfig),
      ipStatus_(ipStatus),
      ip6Status_(ip6Status),
      reviewList_(reviewList),
      segmentIdRequest_(segmentIdRequest),
      segmentIdResponse_(segmentIdResponse),
      l3Status_(l3Status),
      multicastHwStatus_(multicastHwStatus),
      prefixCount_(prefixCount),
      segmentRoutesList_(segmentRoutesList),
      status_(status),
      routingStatusHelper_(routingStatusHelper),
      counters_(counters) {
   hwConfigNotifiee_ = std::make_unique<HwConfigNotifiee>(*this);
   hwConfigNotifiee_->notifierIs(fwConfig_);
   ipNotifiee_ = std::make_unique<IpNotifiee>(*this);
   ip6Notifiee_ = std::make_unique<Ip6Notifiee>(*this);
   if (ipStatus_) {
      ipNotifiee_->notifierIs(ipStatus_);
   }
   if (ip6Status_) {
      ip6Notifiee_->notifierIs(ip6Status_);
   }
   waitWrapperNotifiee_ = std::make_unique<WaitWrapperNotifiee>(*this);
   urpfWrapperNotifiee_ = std::make_unique<UrpfWrapperNotifiee>(*this);
   l3Notifiee_ = std::make_unique<L3Notifiee>(*this);
   l3Notifiee_->notifierIs(l3Status_);
   zop_WaitForRoutingWrapperInIs(l3Status_->waitForRoutingWrapper());
   zop_UrpfRoutingDisableDoneWrapperInIs(l3Status_->urpfRoutingDisableDoneWrapper());
   multicastNotifiee_ = std::make_unique<MulticastNotifiee>(*this);
   if (multicastHwStatus_) {
      multicastNotifiee_->notifierIs(multicastHwStatus_);
   }
   routeNotifiee_ = std::make_unique<RouteNotifiee>(*this);
   routeNotifiee_->notifierIs(segmentRoutesList_);
   statusNotifiee_ = std::make_unique<StatusNotifiee>(*this);
   statusNotifiee_->notifierIs(status_);
   helperNotifiee_ = std::make_unique<HelperNotifiee>(*this);
   if (routingStatusHelper_) {
      helperNotifiee_->notifierIs(routingStatusHelper_);
   }
}

KivSegmentSecurityRootSm::~KivSegmentSecurityRootSm() {
   initialized_ = false;
   vrfSm_.clear();
}

void KivSegmentSecurityRootSm::zop_WaitForRoutingWrapperInIs(
    const Zop::Ptr<L3::WaitForRoutingWrapper>& wrapper) {
   waitWrapperNotifiee_->notifierIs(wrapper);
}

void KivSegmentSecurityRootSm::zop_UrpfRoutingDisableDoneWrapperInIs(
    const Zop::Ptr<L3::UrpfRoutingDisableDoneWrapper>& wrapper) {
   urpfWrapperNotifiee_->notifierIs(wrapper);
}

void KivSegmentSecurityRootSm::initializedIs(bool v) {
   if (v == initialized_) {
      return;
   }
   if (v) {
      handleInitialized();
   } else {
      initialized_ = false;
   }
}

void KivSegmentSecurityRootSm::handleInitialized() {
   TRACE8_FN("handleInitialized");
   initialized_ = true;
   // uRPF configured before the feature started is a conflict from the start.
   urpf4Configured_ = ipStatus_ && ipStatus_->urpfConfigured();
   urpf6Configured_ = ip6Status_ && ip6Status_->urpfConfigured();
   handleSecuritySegmentEnable();
}

void KivSegmentSecurityRootSm::urpf4ConfiguredIs(bool v) {
   if (v == urpf4Configured_) {
      return;
   }
   urpf4Configured_ = v;
   handleSecuritySegmentEnable();
}

void KivSegmentSecurityRootSm::urpf6ConfiguredIs(bool v) {
   if (v == urpf6Configured_) {
      return;
   }
   urpf6Configured_ = v;
   handleSecuritySegmentEnable();
}

bool KivSegmentSecurityRootSm::urpfRoutingDisableDone() const {
   const auto& wrapper = l3Status_->urpfRoutingDisableDoneWrapper();
   return wrapper && wrapper->urpfRoutingDisableDone();
}

uint32_t KivSegmentSecurityRootSm::routingDisabledRefCnt() const {
   const auto& wrapper = l3Status_->waitForRoutingWrapper();
   return wrapper ? wrapper->waitForRoutingDisabledRefCnt() : 0;
}

void KivSegmentSecurityRootSm::handleSecuritySegmentEnable() {
   if (!initialized_) {
      return;
   }
   TRACE5_FN("handleSecuritySegmentEnable",
             " enabled: " << status_->enabled()
                          << " waitForRoutesCleanup: " << status_->waitForRoutesCleanup());
   bool fwActive = fwConfig_->fwActive();
   bool wanted = false;
   if (urpfConfigured()) {
      if (fwActive) {
         TRACE5_FN("handleSecuritySegmentEnable", " segment security enabled and urpfConfigured");
         if (!urpfConflictSyslogDone_) {
            const KivSegmentSecuritySyslog& syslog = kivSegmentSecuritySyslog();
            syslog.registry->raise(syslog.urpfConflict);
            urpfConflictSyslogDoneIs(true);
         }
      } else {
         urpfConflictSyslogDoneIs(false);
      }
   } else {
      wanted = fwActive && !urpfRoutingDisableDone();
      urpfConflictSyslogDoneIs(false);
   }
   if (wanted) {
      status_->enabledIs(true);
      if (status_->segmentSecuritySetupComplete()) {
         TRACE5_FN("handleSecuritySegmentEnable",
                   " segmentSecuritySetupComplete. Processing Vrf Now");
         status_->waitForRoutesCleanupIs(false);
         handleVrf();
         return;
      }
      startRoutesCleanup();
      waitForSegmentRouteRemoval();
      return;
   }
   status_->enabledIs(false);
   if (!status_->segmentSecuritySetupComplete()) {
      return;
   }
   vrfSmDelAll();
   startRoutesCleanup();
   waitForSegmentRouteRemoval();
}

void KivSegmentSecurityRootSm::startRoutesCleanup() {
   status_->waitForRoutesCleanupIs(true);
   // The processor removes whatever it reviews while the cleanup runs: every
   // installed route is reviewed, whichever run or reactor put it there. A
   // full table is queued by the processor's task, a piece per run.
   if (segmentRoutesList_->routeInfoCount() > VrfPrefixCollection::kQueueAtOnce) {
      reviewList_->recordsToReviewIs({});
      return;
   }
   std::vector<VrfAndIpGenPrefix> routes;
   for (const auto& [key, route] : segmentRoutesList_->routeInfo()) {
      routes.push_back(key);
   }
   for (const auto& key : routes) {
      reviewList_->vrfIpGenPrefixIs(key);
   }
}

void KivSegmentSecurityRootSm::waitForSegmentRouteRemoval() {
   if (!initialized_) {
      return;
   }
   if (!status_->waitForRoutesCleanup()) {
      TRACE5_FN("waitForSegmentRouteRemoval", " Not in progress. Skipping");
      return;
   }
   size_t installedRoutes = segmentRoutesList_->routeInfoCount();
   size_t pendingRequests = reviewList_->vrfIpGenPrefixCount();
   if (installedRoutes != 0 || pendingRequests != 0) {
      TRACE5_FN("waitForSegmentRouteRemoval", " Still waiting for routes to be deleted: "
                                                  << " installedRoutes: " << installedRoutes
                                                  << " pendingRequests: " << pendingRequests);
      return;
   }
   status_->waitForRoutesCleanupIs(false);
   status_->waitForSegmentSecurityRoutingDisabledCntInc();
   releaseRequestsLeft();
   if (urpfConfigured()) {
      TRACE5_FN("waitForSegmentRouteRemoval", " nothing else todo as urpf is configured");
      status_->segmentSecuritySetupCompleteIs(false);
      return;
   }
   if (status_->enabled() != status_->segmentSecuritySetupComplete()) {
      setupSegmentSecurity();
   } else if (fwConfig_->fwActive()) {
      handleVrf();
   }
}

void KivSegmentSecurityRootSm::releaseRequestsLeft() {
   // No VRF reactor lives through a cleanup wait and no route is left at its
   // end, so a request still standing has no one to release it: an id whose
   // grant the allocator took back while its last prefix was being removed
   // names no request the processor could withdraw. None outlives the wait.
   std::vector<SegmentIdRequestKey> left(segmentIdRequest_->request().begin(),
                                         segmentIdRequest_->request().end());
   std::sort(left.begin(), left.end());
   for (const auto& key : left) {
      TRACE5_FN("waitForSegmentRouteRemoval", " Releasing hwId request left: " << key);
      segmentIdRequest_->requestDel(key);
   }
   prefixCount_->segmentPrefixCountDelAll();
}

void KivSegmentSecurityRootSm::retrySetup() {
   if (!initialized_) {
      return;
   }
   // A stage 2 postponed while the routing layer was busy on its own must
   // run again when it is not: routing would otherwise stay disabled.
   if (status_->segmentSecurityRoutingDisableDone()) {
      doSegmentSecuritySetup();
      return;
   }
   if (status_->waitForRoutesCleanup() ||
       status_->enabled() == status_->segmentSecuritySetupComplete()) {
      return;
   }
   setupSegmentSecurity();
}

void KivSegmentSecurityRootSm::handleRoutingStatusReady() {
   if (!initialized_) {
      return;
   }
   // The answer may have changed: the stages ask again.
   if (status_->segmentSecurityRoutingDisableDone()) {
      // Stage 2 only postpones on an unready helper.
      doSegmentSecuritySetup();
      return;
   }
   // Stage 1 gave up on an unready helper and turned the feature off until
   // the next enable decision: this is it. A running feature, or a cleanup
   // wait that reaches stage 1 by itself, needs nothing.
   if (!status_->waitForRoutesCleanup() &&
       !(status_->enabled() && status_->segmentSecuritySetupComplete())) {
      handleSecuritySegmentEnable();
   }
}

void KivSegmentSecurityRootSm::setupSegmentSecurity() {
   if (!initialized_) {
      return;
   }
   TRACE8_FN("setupSegmentSecurity");
   if (status_->segmentSecurityRoutingDisableDone()) {
      // The disable asked for earlier is still outstanding (the feature went
      // off and on again meanwhile): it serves this setup too, and stage 2
      // completes it with the enable state of that moment. Asking again would
      // count two disables for one.
      TRACE5_FN("setupSegmentSecurity", " segment securiry routing disable already requested");
      doSegmentSecuritySetup();
      return;
   }
   bool v4 = l3Status_->waitForRoutingDisabledInVrfs();
   bool v6 = l3Status_->waitForRouting6DisabledInVrfs();
   if (v4 || v6) {
      TRACE5_FN("setupSegmentSecurity",
                " WaitForRoutingDisabled v4: " << v4 << ", waitForRoutingDisabled v6: " << v6);
      return;
   }
   if (urpfConfigured()) {
      TRACE5_FN("setupSegmentSecurity", " urpfConfigured, skip segment security setup");
      return;
   }
   // A routing side that is not ready turns the feature off until the next
   // enable decision, which its readiness change runs.
   if (routingStatusHelper_ && !routingStatusHelper_->routingStatusReady(status_->enabled())) {
      TRACE5_FN("setupSegmentSecurity", " unable to complete stage 1 init");
      status_->enabledIs(false);
      return;
   }
   status_->segmentSecurityRoutingDisableDoneIs(true);
   status_->segmentSecurityRoutingDisableInc();
}

void KivSegmentSecurityRootSm::doSegmentSecuritySetup() {
   if (!initialized_) {
      return;
   }
   TRACE8_FN("doSegmentSecuritySetup");
   if (urpfRoutingDisableDone()) {
      TRACE5_FN("doSegmentSecuritySetup", " waiting for urpfRoutingDisableDone to complete");
      return;
   }
   bool busy = l3Status_->waitForRoutingDisabledInVrfs() ||
               l3Status_->waitForRouting6DisabledInVrfs() || l3Status_->routingEnabledInAnyVrf() ||
               l3Status_->routing6EnabledInAnyVrf() ||
               (multicastHwStatus_ && multicastHwStatus_->hwRouting());
   if (busy) {
      TRACE5_FN("doSegmentSecuritySetup", " Segment Security routing setting not modified "
                                              << "(routing still enabled). RefCount: "
                                              << routingDisabledRefCnt());
      return;
   }
   if (urpfConfigured()) {
      TRACE5_FN("doSegmentSecuritySetup", " Segment Security conflicting with URPF enable");
      // Routing was disabled at this feature's request: it goes back on
      // (flags cleared, setup not complete) rather than staying suspended for
      // as long as uRPF stays configured.
      segmentSecurityEnableRouting(false);
      decideAgainIfOff();
      return;
   }
   if (routingStatusHelper_ && !routingStatusHelper_->routingStatusReady(status_->enabled())) {
      TRACE5_FN("doSegmentSecuritySetup", " RoutingStatusHelper not ready");
      return;
   }
   TRACE5_FN("doSegmentSecuritySetup", " RoutingStatusHelper OK");
   TRACE5_FN("doSegmentSecuritySetup",
             " SegmentSecurity setup: " << status_->enabled()
                                        << " refCount: " << routingDisabledRefCnt());
   // Only a stage 2 without an outstanding routing disable has nothing to do:
   // otherwise routing is always turned back on.
   if (!status_->segmentSecurityRoutingDisableDone()) {
      TRACE5_FN("doSegmentSecuritySetup", " SegmentSecurity skipping doSegmentSecurityInitStage2");
      return;
   }
   segmentSecurityEnableRouting(status_->enabled());
   decideAgainIfOff();
}

void KivSegmentSecurityRootSm::decideAgainIfOff() {
   // The inputs may have changed while the handshake ran without an enable
   // decision taking them in (uRPF's routing disable ending clears the way
   // for stage 2 only, and `enabled` keeps the decision made before): a
   // handshake that ends with the feature off decides again, so that the
   // feature does not stay off while it is wanted.
   if (!status_->segmentSecuritySetupComplete() && !status_->waitForRoutesCleanup() &&
       !status_->segmentSecurityRoutingDisableDone()) {
      handleSecuritySegmentEnable();
   }
}

void KivSegmentSecurityRootSm::segmentSecurityEnableRouting(bool setupComplete) {
   TRACE5_FN("segmentSecurityEnableRouting", " " << setupComplete);
   status_->segmentSecurityRoutingDisableDoneIs(false);
   status_->segmentSecuritySetupCompleteIs(setupComplete);
   status_->segmentSecurityRoutingEnableInc();
   l3Status_->mrouteZombieEnabledIs(true);
   if (multicastHwStatus_) {
      multicastHwStatus_->hwRoutingIs(true);
   }
}

void KivSegmentSecurityRootSm::handleSegmentSecuritySetupComplete() {
   bool complete = status_->segmentSecuritySetupComplete();
   TRACE5_FN("handleSegmentSecuritySetupComplete", " segmentSecuritySetupComplete: " << complete);
   if (complete) {
      TRACE5_FN("handleSegmentSecuritySetupComplete", " Processfing VRF Now ");
      status_->waitForRoutesCleanupIs(false);
      handleVrf();
      return;
   }
   waitForSegmentRouteRemoval();
}

void KivSegmentSecurityRootSm::handleUrpfRoutingDisableDone() {
   bool done = urpfRoutingDisableDone();
   TRACE5_FN("handleUrpfRoutingDisableDone", " urpfRoutingDisableDone: " << done);
   if (done) {
      TRACE5_FN("handleUrpfRoutingDisableDone", " wait for urpfRoutingDisableDone to be false");
      return;
   }
   if (status_->segmentSecurityRoutingDisableDone()) {
      TRACE5_FN("handleUrpfRoutingDisableDone",
                " segment securiry routing disable already requested");
      doSegmentSecuritySetup();
      return;
   }
   handleSecuritySegmentEnable();
}

void KivSegmentSecurityRootSm::handleVrf(const L3::VrfName& name) {
   if (!initialized_) {
      return;
   }
   bool fwActive = fwConfig_->fwActive();
   if (!fwActive || status_->waitForRoutesCleanup()) {
      TRACE5_FN("handleVrf", " Skipping. fwActive: " << fwActive << " waitForRoutesCleanup: "
                                                     << status_->waitForRoutesCleanup());
      return;
   }
   // A teardown between its cleanup wait and its stage 2 still has the setup
   // complete, but the feature is no longer enabled: a VRF (re)appearing then
   // gets no reactor, or it would outlive the teardown.
   if (!status_->segmentSecuritySetupComplete() || !status_->enabled()) {
      TRACE5_FN("handleVrf", " Segment security setup not complete. Skipping");
      return;
   }
   Zop::Ptr<Firewall::FwVrf> fwVrf = fwConfig_->vrf(name);
   if (vrfSm(name)) {
      if (fwVrf) {
         TRACE5_FN("handleVrf", " VrfSm for vrf: " << name << " already created");
         return;
      }
      TRACE5_FN("handleVrf", " Deleting VrfSm for: " << name);
      vrfSmDel(name);
      return;
   }
   if (!fwVrf) {
      // An L3 VRF without firewall configuration has nothing to segment.
      TRACE5_FN("handleVrf", " Skipping. No firewall configuration for Vrf: " << name);
      return;
   }
   const VrfId* vrfId = l3Status_->vrfId(name);
   if (!vrfId) {
      TRACE5_FN("handleVrf", " VrfId not allocated yet for VrfName: " << name);
      return;
   }
   TRACE5_FN("handleVrf", " Creating VrfSm for: " << name);
   Zop::Ptr<KivSegmentSecurityVrfSm> sm = kivSegmentSecurityVrfSmFactory(
       name, fwVrf, fwVrf->segmentDir(), fwConfig_, reviewList_, segmentIdRequest_,
       segmentIdResponse_, *vrfId, prefixCount_, segmentRoutesList_, counters_);
   auto& known = knownHwIds_[*vrfId];
   if (!known) {
      known = std::make_shared<KivSegmentSecurityVrfSm::KnownHwIds>();
   }
   sm->knownHwIdsIs(known);
   vrfSmIs(name, sm);
   sm->initializedIs(true);
}

void KivSegmentSecurityRootSm::handleVrfCreation(const L3::VrfName& name) {
   if (l3Status_->vrfId(name)) {
      handleVrf(name);
      return;
   }
   if (vrfSm(name)) {
      TRACE5_FN("handleVrfCreation", " Deleting VrfSm for Vrf: " << name);
      vrfSmDel(name);
   }
}

void KivSegmentSecurityRootSm::vrfSmDel(const L3::VrfName& name) {
   if (!vrfSm(name)) {
      return;
   }
   SegmentSecurityRootBaseSm::vrfSmDel(name);
   if (counters_) {
      counters_->vrfDel(name);
   }
}

void KivSegmentSecurityRootSm::vrfSmDelAll() {
   // Each VRF reactor cleans up its own records as it goes. One walk of the
   // records finds every VRF's, in the order each would have met its own;
   // a walk per VRF would make a teardown cost VRFs times records. Past a
   // slice's worth of records each reactor asks for its VRF's records to be
   // queued from the processor's task instead.
   if (segmentRoutesList_->routeInfoCount() > VrfPrefixCollection::kQueueAtOnce) {
      SegmentSecurityRootBaseSm::vrfSmDelAll();
      return;
   }
   std::unordered_map<VrfId, std::vector<VrfAndIpGenPrefix>> byVrf;
   for (const auto& [routeKey, route] : segmentRoutesList_->routeInfo()) {
      byVrf[routeKey.vrfId()].push_back(routeKey);
   }
   for (const auto& [name, sm] : vrfSm_) {
      auto it = byVrf.find(sm->vrfId());
      sm->cleanupRoutesIs(it == byVrf.end() ? std::vector<VrfAndIpGenPrefix>()
                                            : std::move(it->second));
   }
   SegmentSecurityRootBaseSm::vrfSmDelAll();
}

Zop::Ptr<KivSegmentSecurityRootSm> kivSegmentSecurityRootSmFactory(
    const Zop::Ptr<const Firewall::HwConfig>& fwConfig, const Zop::Ptr<const Ip::Status>& ipStatus,
    const Zop::Ptr<const Ip6::Status>& ip6Status, const Zop::Ptr<VrfPrefixCollection>& reviewList,
    const Zop::Ptr<SegmentIdRequest>& segmentIdRequest,
    const Zop::Ptr<const SegmentIdResponse>& segmentIdResponse, const Zop::Ptr<L3Status>& l3Status,
    const Zop::Ptr<MulticastHwStatus>& multicastHwStatus, const Zop::Ptr<PrefixCount>& prefixCount,
    const Zop::Ptr<const KivSegmentRouteInfoColl>& segmentRoutesList,
    const Zop::Ptr<SegmentSecurityStatus>& status,
    const Zop::Ptr<KivHelper::RoutingStatusSmHelper>& routingStatusHelper,
    const Zop::Ptr<Firewall::Counters>& counters) {
   return Zop::makePtr<KivSegmentSecurityRootSm>(
       fwConfig, ipStatus, ip6Status, reviewList, segmentIdRequest, segmentIdResponse, l3Status,
       multicastHwStatus, prefixCount, segmentRoutesList, status, routingStatusHelper, counters);
}

}  // namespace Kiv
