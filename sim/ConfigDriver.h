#pragma once
// Stand-in for the segment feature's configuration reactors, until they
// exist: tests and scenarios play the configuration side through it.
//
// It edits the firewall configuration (VRFs, segments, prefix-list entries),
// makes and withdraws hw-id requests, and puts (VRF, prefix) keys on the
// segment review list, each only when told; it decides nothing by itself,
// with one exception the processor depends on: when a grant appears in
// SegmentIdResponse, it makes sure PrefixCount holds a SegmentPrefixCount for
// the granted id, as the configuration side does before it queues the
// segment's prefixes. That is done in its task ("SimConfigDriverTask", high
// priority, so it runs before other work due at the same instant); the
// response notification only notes the key. Counters are never deleted here:
// the processor keeps them balanced and the configuration side only creates
// them.

#include <memory>
#include <set>

#include "Firewall/HwConfig.h"
#include "KivSegmentSecurity/KivSegmentPrefixProcessorTypes.h"
#include "Routing/L3Status.h"
#include "Ruv/TaskScheduler.h"
#include "Segment/SegmentId.h"
#include "sim/Outcome.h"

namespace sim {

class ConfigDriver {
public:
   ConfigDriver(Zop::Ptr<Ruv::TaskScheduler> scheduler, Zop::Ptr<Firewall::HwConfig> fwConfig,
                Zop::Ptr<const L3Status> l3Status, Zop::Ptr<SegmentIdRequest> segmentIdRequest,
                Zop::Ptr<SegmentIdResponse> segmentIdResponse,
                Zop::Ptr<Kiv::PrefixCount> prefixCount,
                Zop::Ptr<Kiv::VrfPrefixCollection> segmentReviewList);
   ~ConfigDriver();
   ConfigDriver(const ConfigDriver&) = delete;
   ConfigDriver& operator=(const ConfigDriver&) = delete;

   // ---- Firewall configuration (kept as written: any prefix is accepted) ----
   // The prefix-list entry prefix -> segment, adding the firewall VRF and the
   // segment when missing.
   void configure(const L3::VrfName& vrf, const Pexo::IpGenPrefix& prefix,
                  const Zop::String& segment);
   // Removes the prefix-list entry.
   Outcome unconfigure(const L3::VrfName& vrf, const Pexo::IpGenPrefix& prefix);
   void segmentAdd(const L3::VrfName& vrf, const Zop::String& segment);
   Outcome segmentDelete(const L3::VrfName& vrf, const Zop::String& segment);
   // The firewall VRF with all its prefix-list entries and segments.
   Outcome fwVrfDelete(const L3::VrfName& vrf);

   // ---- Hw-id requests (the VRF needs an id) ----
   Outcome requestId(const L3::VrfName& vrf, const Zop::String& segment);
   Outcome requestIdDel(const L3::VrfName& vrf, const Zop::String& segment);

   // ---- The segment review list (the VRF needs an id) ----
   Outcome review(const L3::VrfName& vrf, const Pexo::IpGenPrefix& prefix);

private:
   class ResponseNotifiee;

   void grantChanged(const SegmentIdRequestKey& key);
   void run();
   Zop::Ptr<Firewall::FwVrf> fwVrf(const L3::VrfName& vrf);

   Zop::Ptr<Ruv::TaskScheduler> scheduler_;
   Zop::Ptr<Firewall::HwConfig> fwConfig_;
   Zop::Ptr<const L3Status> l3Status_;
   Zop::Ptr<SegmentIdRequest> segmentIdRequest_;
   Zop::Ptr<SegmentIdResponse> segmentIdResponse_;
   Zop::Ptr<Kiv::PrefixCount> prefixCount_;
   Zop::Ptr<Kiv::VrfPrefixCollection> segmentReviewList_;
   Zop::Ptr<Ruv::Task> task_;
   std::unique_ptr<ResponseNotifiee> notifiee_;
   std::set<SegmentIdRequestKey> changed_;
};

}  // namespace sim
