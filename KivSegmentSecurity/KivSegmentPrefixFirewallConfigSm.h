#pragma once
// The configuration reactors of the segment feature.
//
// KivSegmentSecurityRootSm decides whether the feature runs (the firewall is
// active and no uRPF configuration conflicts), drives the two-stage routing
// handshake (stage 1 asks the routing layer to disable routing, stage 2 marks
// the setup complete and turns routing back on), waits for the segment
// routes of a previous run to be gone before a new run or a teardown
// completes, and keeps one KivSegmentSecurityVrfSm per firewall VRF that has
// a VRF id.
//
// KivSegmentSecurityVrfSm turns one VRF's firewall configuration into work
// for the processor: an id request per segment, a prefix counter per granted
// id, and review-list entries for the valid prefixes of segments with an id.
// It never programs hardware. KivDestinationSegmentSm follows one segment's
// policies by source segment.
//
// Handlers do nothing until the reactor is initialised; they only change
// status, requests and the review list, so each runs in a bounded time.

#include <map>
#include <memory>
#include <optional>
#include <set>

#include "Firewall/Counters.h"
#include "Firewall/HwConfig.h"
#include "Ip/Status.h"
#include "Kiv/KivExport.h"
#include "Kiv/KivReactorIs.h"
#include "KivSegmentSecurity/KivSegmentPrefixProcessorTypes.h"
#include "Routing/L3Status.h"
#include "Routing/MulticastHardwareStatus.h"
#include "Routing/RoutingStatusSmHelper.h"
#include "Segment/SegmentId.h"

namespace Kiv {

using MulticastHwStatus = Routing::Multicast::Fib::Hardware::Status;

// ---- Destination segment ----

class KIV_EXPORT DestinationSegmentSm : public Zop::PtrInterface {
public:
   DestinationSegmentSm(Zop::String segment, const Zop::Ptr<const Firewall::FwSegment>& fwSegment);
   const Zop::String& segment() const { return segment_; }
   const Zop::Ptr<const Firewall::FwSegment>& fwSegment() const { return fwSegment_; }
   virtual void handleSourceSegment(const Zop::String& source) = 0;

protected:
   ~DestinationSegmentSm() override;
   void notificationActiveIs(bool on);

private:
   class SegmentNotifiee;
   Zop::String segment_;
   Zop::Ptr<const Firewall::FwSegment> fwSegment_;
   std::unique_ptr<SegmentNotifiee> notifiee_;
};

class KIV_EXPORT KivDestinationSegmentSm : public DestinationSegmentSm {
public:
   KivDestinationSegmentSm(Zop::String segment,
                           const Zop::Ptr<const Firewall::FwSegment>& fwSegment,
                           const L3::VrfName& vrfName,
                           const Zop::Ptr<const Firewall::HwConfig>& fwConfig,
                           const Zop::Ptr<Firewall::Counters>& counters);
   // Looks the source segment up among the segment's policies; programs
   // nothing (policy programming is the firewall agent's).
   void handleSourceSegment(const Zop::String& source) override;

private:
   L3::VrfName vrfName_;
   Zop::Ptr<const Firewall::HwConfig> fwConfig_;
   Zop::Ptr<Firewall::Counters> counters_;
};

KIV_EXPORT Zop::Ptr<KivDestinationSegmentSm> kivDestinationSegmentSmFactory(
    const Zop::String& segment, const Zop::Ptr<const Firewall::FwSegment>& fwSegment,
    const L3::VrfName& vrfName, const Zop::Ptr<const Firewall::HwConfig>& fwConfig,
    const Zop::Ptr<Firewall::Counters>& counters);
// KivDestinationSegmentSmIs(holder, the factory's arguments): a new reactor in place of the old.
KIV_REACTOR_IS(KivDestinationSegmentSm, kivDestinationSegmentSmFactory)

// ---- VRF ----

// What every VRF reactor of the firewall configuration holds: the VRF's name,
// its firewall configuration and segment directory, whether it is
// initialised, and one destination-segment reactor per segment.
class KIV_EXPORT VrfBaseSm : public Zop::PtrInterface {
public:
   const L3::VrfName& vrfName() const { return vrfName_; }
   const Zop::Ptr<const Firewall::FwVrf>& fwVrf() const { return fwVrf_; }
   const Zop::Ptr<const Firewall::FwSegmentDir>& segmentDir() const { return segmentDir_; }
   bool initialized() const { return initialized_; }
   // Setting it true runs handleInitialized().
   void initializedIs(bool v);
   virtual void handleInitialized() = 0;
   virtual void handleGlobalPrefix(const Pexo::IpGenPrefix& prefix) = 0;
   // handleGlobalPrefix(prefix) for every prefix of the VRF's prefix list, in
   // prefix order.
   void handleGlobalPrefix();

   Zop::Ptr<KivDestinationSegmentSm> dstSegmentSm(const Zop::String& segment) const;
   void dstSegmentSmIs(const Zop::String& segment, const Zop::Ptr<KivDestinationSegmentSm>& sm);
   void dstSegmentSmDel(const Zop::String& segment);

protected:
   VrfBaseSm(const L3::VrfName& vrfName, const Zop::Ptr<const Firewall::FwVrf>& fwVrf,
             const Zop::Ptr<const Firewall::FwSegmentDir>& segmentDir);
   ~VrfBaseSm() override;

   L3::VrfName vrfName_;
   Zop::Ptr<const Firewall::FwVrf> fwVrf_;
   Zop::Ptr<const Firewall::FwSegmentDir> segmentDir_;
   bool initialized_ = false;
   ChildReactors<Zop::String, KivDestinationSegmentSm> dstSegmentSm_;
};

class KIV_EXPORT KivSegmentSecurityVrfSm : public VrfBaseSm {
public:
   KivSegmentSecurityVrfSm(const L3::VrfName& vrfName, const Zop::Ptr<const Firewall::FwVrf>& fwVrf,
                           const Zop::Ptr<const Firewall::FwSegmentDir>& segmentDir,
                           const Zop::Ptr<const Firewall::HwConfig>& fwConfig,
                           const Zop::Ptr<VrfPrefixCollection>& reviewList,
                           const Zop::Ptr<SegmentIdRequest>& segmentIdRequest,
                           const Zop::Ptr<const SegmentIdResponse>& segmentIdResponse, VrfId vrfId,
                           const Zop::Ptr<PrefixCount>& prefixCount,
                           const Zop::Ptr<const KivSegmentRouteInfoColl>& segmentRoutesList,
                           const Zop::Ptr<Firewall::Counters>& counters);
   ~KivSegmentSecurityVrfSm() override;

   using VrfBaseSm::dstSegmentSmIs;
   using VrfBaseSm::handleGlobalPrefix;

   VrfId vrfId() const { return vrfId_; }

   void handleInitialized() override;
   void handleDestinationSegment(const Zop::String& segment);
   void handleSegmentIdStatus(const SegmentIdRequestKey& key);
   void processSegmentPrefix(const Zop::String& segment, bool install);
   void handleGlobalPrefix(const Pexo::IpGenPrefix& prefix) override;
   void processPrefix(const VrfAndIpGenPrefix& vrfPrefix);
   void handleHwRoute(const VrfAndIpGenPrefix& vrfPrefix);
   void doCleanup();
   // The VRF's recorded routes, for a doCleanup that comes with a teardown of
   // every VRF: the root finds them all in one walk of the records.
   void cleanupRoutesIs(std::vector<VrfAndIpGenPrefix> routes) {
      cleanupRoutes_ = std::move(routes);
   }
   // The last id granted per segment. The root keeps one per VRF id and hands
   // it to each reactor of the VRF before initialising it: a grant taken back
   // while one reactor lived may come back to the next one, and the same id
   // must be known as the same owner's.
   using KnownHwIds = std::map<Zop::String, SegmentHwId>;
   void knownHwIdsIs(std::shared_ptr<KnownHwIds> known) { knownHwId_ = std::move(known); }

   const Zop::Ptr<const SegmentIdResponse>& segmentIdStatus() const { return segmentIdResponse_; }
   const Zop::Ptr<PrefixCount>& prefixCount() const { return prefixCount_; }
   // A destination-segment reactor for the segment of the directory.
   void dstSegmentSmIs(const Zop::String& segment);

private:
   class FwVrfNotifiee;
   class SegmentDirNotifiee;
   class ResponseNotifiee;
   class RouteNotifiee;

   // Whether `prefix` may be programmed; an invalid one is reported once and
   // traced under `fn`, the routine that met it.
   bool validPrefix(const char* fn, const Pexo::IpGenPrefix& prefix);
   // The key's id while its request stands and its grant is valid; else
   // the invalid id.
   SegmentHwId allocatedHwId(const SegmentIdRequestKey& key) const;
   // The last id granted to the key, unless granted to another key since.
   SegmentHwId lastHwId(const SegmentIdRequestKey& key) const;
   // Reviews this VRF's recorded routes that carry `hwId`.
   void queueRoutesWithHwId(SegmentHwId hwId);

   Zop::Ptr<const Firewall::HwConfig> fwConfig_;
   Zop::Ptr<VrfPrefixCollection> reviewList_;
   Zop::Ptr<SegmentIdRequest> segmentIdRequest_;
   Zop::Ptr<const SegmentIdResponse> segmentIdResponse_;
   VrfId vrfId_;
   std::optional<std::vector<VrfAndIpGenPrefix>> cleanupRoutes_;
   Zop::Ptr<PrefixCount> prefixCount_;
   Zop::Ptr<const KivSegmentRouteInfoColl> segmentRoutesList_;
   Zop::Ptr<Firewall::Counters> counters_;
   // The last valid id seen per segment, to tell a re-notification from a new
   // id; kept while the grant is away, so the same id granted back is known.
   std::shared_ptr<KnownHwIds> knownHwId_ = std::make_shared<KnownHwIds>();
   // Invalid prefix-list entries already reported.
   std::set<Pexo::IpGenPrefix> reportedInvalid_;
   std::unique_ptr<FwVrfNotifiee> fwVrfNotifiee_;
   std::unique_ptr<SegmentDirNotifiee> segmentDirNotifiee_;
   std::unique_ptr<ResponseNotifiee> responseNotifiee_;
   std::unique_ptr<RouteNotifiee> routeNotifiee_;
};

KIV_EXPORT Zop::Ptr<KivSegmentSecurityVrfSm> kivSegmentSecurityVrfSmFactory(
    const L3::VrfName& vrfName, const Zop::Ptr<const Firewall::FwVrf>& fwVrf,
    const Zop::Ptr<const Firewall::FwSegmentDir>& segmentDir,
    const Zop::Ptr<const Firewall::HwConfig>& fwConfig,
    const Zop::Ptr<VrfPrefixCollection>& reviewList,
    const Zop::Ptr<SegmentIdRequest>& segmentIdRequest,
    const Zop::Ptr<const SegmentIdResponse>& segmentIdResponse, VrfId vrfId,
    const Zop::Ptr<PrefixCount>& prefixCount,
    const Zop::Ptr<const KivSegmentRouteInfoColl>& segmentRoutesList,
    const Zop::Ptr<Firewall::Counters>& counters);
// KivSegmentSecurityVrfSmIs(holder, the factory's arguments): a new reactor in place of the old.
KIV_REACTOR_IS(KivSegmentSecurityVrfSm, kivSegmentSecurityVrfSmFactory)

// ---- Root ----

// What the root reactor of the configuration holds: the firewall
// configuration, whether it is initialised, and one VRF reactor per VRF name.
class KIV_EXPORT SegmentSecurityRootBaseSm : public Zop::PtrInterface {
public:
   const Zop::Ptr<const Firewall::HwConfig>& fwConfig() const { return fwConfig_; }
   bool initialized() const { return initialized_; }
   virtual void handleVrf(const L3::VrfName& name) = 0;
   // handleVrf(name) for every VRF of the firewall configuration, and for
   // every VRF reactor whose VRF has left it.
   void handleVrf();

   Zop::Ptr<KivSegmentSecurityVrfSm> vrfSm(const L3::VrfName& name) const;
   size_t vrfSmCount() const { return vrfSm_.size(); }
   void vrfSmIs(const L3::VrfName& name, const Zop::Ptr<KivSegmentSecurityVrfSm>& sm);
   // Drops the VRF's reactor, which cleans up as it goes.
   virtual void vrfSmDel(const L3::VrfName& name);
   // vrfSmDel for every VRF reactor.
   virtual void vrfSmDelAll();

protected:
   explicit SegmentSecurityRootBaseSm(const Zop::Ptr<const Firewall::HwConfig>& fwConfig);
   ~SegmentSecurityRootBaseSm() override;

   Zop::Ptr<const Firewall::HwConfig> fwConfig_;
   bool initialized_ = false;
   ChildReactors<L3::VrfName, KivSegmentSecurityVrfSm> vrfSm_;
};

class KIV_EXPORT KivSegmentSecurityRootSm : public SegmentSecurityRootBaseSm {
public:
   KivSegmentSecurityRootSm(const Zop::Ptr<const Firewall::HwConfig>& fwConfig,
                            const Zop::Ptr<const Ip::Status>& ipStatus,
                            const Zop::Ptr<const Ip6::Status>& ip6Status,
                            const Zop::Ptr<VrfPrefixCollection>& reviewList,
                            const Zop::Ptr<SegmentIdRequest>& segmentIdRequest,
                            const Zop::Ptr<const SegmentIdResponse>& segmentIdResponse,
                            const Zop::Ptr<L3Status>& l3Status,
                            const Zop::Ptr<MulticastHwStatus>& multicastHwStatus,
                            const Zop::Ptr<PrefixCount>& prefixCount,
                            const Zop::Ptr<const KivSegmentRouteInfoColl>& segmentRoutesList,
                            const Zop::Ptr<SegmentSecurityStatus>& status,
                            const Zop::Ptr<KivHelper::RoutingStatusSmHelper>& routingStatusHelper,
                            const Zop::Ptr<Firewall::Counters>& counters);
   ~KivSegmentSecurityRootSm() override;

   using SegmentSecurityRootBaseSm::handleVrf;

   // Setting it true runs handleInitialized().
   void initializedIs(bool v);

   bool urpf4Configured() const { return urpf4Configured_; }
   void urpf4ConfiguredIs(bool v);
   bool urpf6Configured() const { return urpf6Configured_; }
   void urpf6ConfiguredIs(bool v);
   bool urpfConflictSyslogDone() const { return urpfConflictSyslogDone_; }
   void urpfConflictSyslogDoneIs(bool v) { urpfConflictSyslogDone_ = v; }

   void handleInitialized();
   void handleSecuritySegmentEnable();
   void waitForSegmentRouteRemoval();
   void setupSegmentSecurity();
   void doSegmentSecuritySetup();
   void segmentSecurityEnableRouting(bool setupComplete);
   void handleSegmentSecuritySetupComplete();
   void handleUrpfRoutingDisableDone();
   void handleVrf(const L3::VrfName& name) override;
   void handleVrfCreation(const L3::VrfName& name);
   // The L3 status replaced one of its wrappers: the wrapper's notifiee
   // follows the new one.
   void zop_WaitForRoutingWrapperInIs(const Zop::Ptr<L3::WaitForRoutingWrapper>& wrapper);
   void zop_UrpfRoutingDisableDoneWrapperInIs(
       const Zop::Ptr<L3::UrpfRoutingDisableDoneWrapper>& wrapper);

   // The VRF's counters go with its reactor.
   void vrfSmDel(const L3::VrfName& name) override;
   // One walk of the records hands each reactor its routes first.
   void vrfSmDelAll() override;
   const Zop::Ptr<SegmentSecurityStatus>& status() const { return status_; }

private:
   class HwConfigNotifiee;
   class IpNotifiee;
   class Ip6Notifiee;
   class L3Notifiee;
   class WaitWrapperNotifiee;
   class UrpfWrapperNotifiee;
   class MulticastNotifiee;
   class RouteNotifiee;
   class StatusNotifiee;
   class HelperNotifiee;

   bool urpfConfigured() const { return urpf4Configured_ || urpf6Configured_; }
   bool urpfRoutingDisableDone() const;
   uint32_t routingDisabledRefCnt() const;
   // The routing layer is no longer busy: the stage that waits on it.
   void retrySetup();
   // The routing status helper became ready: the stage that waits on it.
   void handleRoutingStatusReady();
   // After a handshake that ended with the feature off: the enable decision.
   void decideAgainIfOff();
   // At the end of a cleanup wait: the id requests and counters nothing owns.
   void releaseRequestsLeft();
   // Cleanup wait on: every installed route goes on the review list.
   void startRoutesCleanup();

   Zop::Ptr<const Ip::Status> ipStatus_;
   Zop::Ptr<const Ip6::Status> ip6Status_;
   Zop::Ptr<VrfPrefixCollection> reviewList_;
   Zop::Ptr<SegmentIdRequest> segmentIdRequest_;
   Zop::Ptr<const SegmentIdResponse> segmentIdResponse_;
   Zop::Ptr<L3Status> l3Status_;
   Zop::Ptr<MulticastHwStatus> multicastHwStatus_;
   Zop::Ptr<PrefixCount> prefixCount_;
   Zop::Ptr<const KivSegmentRouteInfoColl> segmentRoutesList_;
   Zop::Ptr<SegmentSecurityStatus> status_;
   Zop::Ptr<KivHelper::RoutingStatusSmHelper> routingStatusHelper_;
   Zop::Ptr<Firewall::Counters> counters_;

   bool urpf4Configured_ = false;
   bool urpf6Configured_ = false;
   bool urpfConflictSyslogDone_ = false;
   // Per VRF id, the last id granted per segment, shared by the VRF's
   // reactors one after the other.
   std::map<VrfId, std::shared_ptr<KivSegmentSecurityVrfSm::KnownHwIds>> knownHwIds_;

   std::unique_ptr<HwConfigNotifiee> hwConfigNotifiee_;
   std::unique_ptr<IpNotifiee> ipNotifiee_;
   std::unique_ptr<Ip6Notifiee> ip6Notifiee_;
   std::unique_ptr<L3Notifiee> l3Notifiee_;
   std::unique_ptr<WaitWrapperNotifiee> waitWrapperNotifiee_;
   std::unique_ptr<UrpfWrapperNotifiee> urpfWrapperNotifiee_;
   std::unique_ptr<MulticastNotifiee> multicastNotifiee_;
   std::unique_ptr<RouteNotifiee> routeNotifiee_;
   std::unique_ptr<StatusNotifiee> statusNotifiee_;
   std::unique_ptr<HelperNotifiee> helperNotifiee_;
};

KIV_EXPORT Zop::Ptr<KivSegmentSecurityRootSm> kivSegmentSecurityRootSmFactory(
    const Zop::Ptr<const Firewall::HwConfig>& fwConfig, const Zop::Ptr<const Ip::Status>& ipStatus,
    const Zop::Ptr<const Ip6::Status>& ip6Status, const Zop::Ptr<VrfPrefixCollection>& reviewList,
    const Zop::Ptr<SegmentIdRequest>& segmentIdRequest,
    const Zop::Ptr<const SegmentIdResponse>& segmentIdResponse, const Zop::Ptr<L3Status>& l3Status,
    const Zop::Ptr<MulticastHwStatus>& multicastHwStatus, const Zop::Ptr<PrefixCount>& prefixCount,
    const Zop::Ptr<const KivSegmentRouteInfoColl>& segmentRoutesList,
    const Zop::Ptr<SegmentSecurityStatus>& status,
    const Zop::Ptr<KivHelper::RoutingStatusSmHelper>& routingStatusHelper,
    const Zop::Ptr<Firewall::Counters>& counters);
// KivSegmentSecurityRootSmIs(holder, the factory's arguments): a new reactor in place of the old.
KIV_REACTOR_IS(KivSegmentSecurityRootSm, kivSegmentSecurityRootSmFactory)

}  // namespace Kiv
