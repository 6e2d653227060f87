#pragma once
// The configuration side of the segment feature as tests and scenarios play
// it: the firewall configuration (VRFs, segments, prefix-list entries), and,
// when the configuration reactors do not run, their work as well.
//
// It edits the firewall configuration only when told, and accepts any
// prefix: checking entries is the feature's business.
//
// Modes:
//   reactors  the library's configuration reactors run: they make the hw-id
//      requests, create the prefix counters and keep the review list, so
//      requestId, requestIdDel and review are refused here.
//   manual    nothing else plays the configuration side: requestId,
//      requestIdDel and review make and withdraw requests and put (VRF,
//      prefix) keys on the segment review list, each only when told; and
//      when a grant appears in SegmentIdResponse the driver makes sure
//      PrefixCount holds a SegmentPrefixCount for the granted id, as the
//      configuration side does before it queues the segment's prefixes. That
//      is done in its task ("SimConfigDriverTask", high priority, so it runs
//      before other work due at the same instant); the response notification
//      only notes the key. Counters are never deleted here: the processor
//      keeps them balanced and the configuration side only creates them.

#include <cstdint>
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
   enum class Mode : uint8_t { reactors, manual };

   ConfigDriver(Mode mode, Zop::Ptr<Ruv::TaskScheduler> scheduler,
                Zop::Ptr<Firewall::HwConfig> fwConfig, Zop::Ptr<const L3Status> l3Status,
                Zop::Ptr<SegmentIdRequest> segmentIdRequest,
                Zop::Ptr<SegmentIdResponse> segmentIdResponse,
                Zop::Ptr<Kiv::PrefixCount> prefixCount,
                Zop::Ptr<Kiv::VrfPrefixCollection> segmentReviewList);
   ~ConfigDriver();
   ConfigDriver(const ConfigDriver&) = delete;
   ConfigDriver& operator=(const ConfigDriver&) = delete;

   Mode mode() const { return mode_; }

   // ---- The firewall ----
   void firewallIs(bool active) { fwConfig_->fwActiveIs(active); }
   void defaultDropIs(bool drop) { fwConfig_->fwDefaultDropIs(drop); }

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

   // ---- Hw-id requests (manual mode; the VRF needs an id) ----
   Outcome requestId(const L3::VrfName& vrf, const Zop::String& segment);
   Outcome requestIdDel(const L3::VrfName& vrf, const Zop::String& segment);

   // ---- The segment review list (manual mode; the VRF needs an id) ----
   Outcome review(const L3::VrfName& vrf, const Pexo::IpGenPrefix& prefix);

private:
   class ResponseNotifiee;

   void grantChanged(const SegmentIdRequestKey& key);
   void run();
   Zop::Ptr<Firewall::FwVrf> fwVrf(const L3::VrfName& vrf);

   const Mode mode_;
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
