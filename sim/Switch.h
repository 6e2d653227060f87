#pragma once
// The whole simulated switch, for tests, benchmarks and the command-line
// program: one task scheduler on a virtual clock, every shared state object
// the agents publish and read, the simulated agents (hardware route table,
// routing agent, route resolver, hw-id allocator, configuration stand-in),
// and the segment library's processor built through its factory, exactly as
// a forwarding agent would build it.
//
// Nothing happens behind the caller's back: changes made through the parts
// notify at once, and the work they cause runs only in settle() (or in
// whatever the caller does with scheduler()). check() is the oracle's verdict
// on the hardware table: meaningful once settled.
//
// The configuration side is played by hand until its reactors exist:
// configure / segmentAdd / requestId / review below, in the order the
// configuration reactors would use (configure the prefix, request the
// segment's id, settle so it is granted, then review the prefix).

#include <memory>
#include <vector>

#include "KivSegmentSecurity/KivSegmentPrefixProcessorSm.h"
#include "Zop/Clock.h"
#include "sim/ConfigDriver.h"
#include "sim/HardwareRouteTable.h"
#include "sim/HwIdAllocator.h"
#include "sim/Oracle.h"
#include "sim/RouteResolver.h"
#include "sim/RoutingAgent.h"

namespace sim {

class Switch {
public:
   // `yieldPolicy`: the scheduler's (default: its time slice, which with a
   // virtual clock never yields by itself).
   explicit Switch(Zop::Ptr<Ruv::YieldPolicy> yieldPolicy = nullptr);
   ~Switch();
   Switch(const Switch&) = delete;
   Switch& operator=(const Switch&) = delete;

   // Runs the scheduler until nothing is scheduled; returns the slices run.
   size_t settle();
   // The oracle's differences; empty when the hardware is as it must be.
   std::vector<Zop::String> check() const;
   Oracle oracle() const;

   // ---- The configuration side (see ConfigDriver) ----
   void configure(const L3::VrfName& vrf, const Pexo::IpGenPrefix& prefix,
                  const Zop::String& segment) {
      config_->configure(vrf, prefix, segment);
   }
   Outcome unconfigure(const L3::VrfName& vrf, const Pexo::IpGenPrefix& prefix) {
      return config_->unconfigure(vrf, prefix);
   }
   void segmentAdd(const L3::VrfName& vrf, const Zop::String& segment) {
      config_->segmentAdd(vrf, segment);
   }
   Outcome segmentDelete(const L3::VrfName& vrf, const Zop::String& segment) {
      return config_->segmentDelete(vrf, segment);
   }
   Outcome requestId(const L3::VrfName& vrf, const Zop::String& segment) {
      return config_->requestId(vrf, segment);
   }
   Outcome review(const L3::VrfName& vrf, const Pexo::IpGenPrefix& prefix) {
      return config_->review(vrf, prefix);
   }

   // ---- The agents ----
   HardwareRouteTable& hardware() { return *hardware_; }
   const HardwareRouteTable& hardware() const { return *hardware_; }
   RoutingAgent& routing() { return *routing_; }
   RouteResolver& resolver() { return *resolver_; }
   HwIdAllocator& allocator() { return *allocator_; }
   ConfigDriver& config() { return *config_; }

   // ---- The machinery and the shared state ----
   const Zop::Ptr<Zop::VirtualClock>& clock() const { return clock_; }
   const Zop::Ptr<Ruv::TaskScheduler>& scheduler() const { return scheduler_; }
   const Zop::Ptr<L3Status>& l3Status() const { return l3Status_; }
   const Zop::Ptr<KivVrfFibRouteCollection>& fibRoutes() const { return fibRoutes_; }
   const Zop::Ptr<KivVrfFibRoute6Collection>& fibRoutes6() const { return fibRoutes6_; }
   const Zop::Ptr<RouteReactorConfig>& routeConfig() const { return routeConfig_; }
   const Zop::Ptr<Route6ReactorConfig>& route6Config() const { return route6Config_; }
   const Zop::Ptr<RouteReactorStatus>& routeStatus() const { return routeStatus_; }
   const Zop::Ptr<Route6ReactorStatus>& route6Status() const { return route6Status_; }
   const Zop::Ptr<Firewall::HwConfig>& fwConfig() const { return fwConfig_; }
   const Zop::Ptr<SegmentIdRequest>& segmentIdRequest() const { return segmentIdRequest_; }
   const Zop::Ptr<SegmentIdResponse>& segmentIdResponse() const { return segmentIdResponse_; }
   const Zop::Ptr<SegmentSecurityStatus>& status() const { return status_; }
   const Zop::Ptr<Kiv::VrfPrefixCollection>& segmentReviewList() const {
      return segmentReviewList_;
   }
   const Zop::Ptr<Kiv::PrefixCount>& prefixCount() const { return prefixCount_; }
   const Zop::Ptr<Kiv::KivSegmentRouteInfoColl>& segmentRoutesList() const {
      return segmentRoutesList_;
   }
   const Zop::Ptr<Kiv::KivSegmentPrefixProcessorSm>& processor() const { return processor_; }

private:
   Zop::Ptr<Zop::VirtualClock> clock_;
   Zop::Ptr<Ruv::TaskScheduler> scheduler_;

   Zop::Ptr<L3Status> l3Status_;
   Zop::Ptr<KivVrfFibRouteCollection> fibRoutes_;
   Zop::Ptr<KivVrfFibRoute6Collection> fibRoutes6_;
   Zop::Ptr<RouteReactorConfig> routeConfig_;
   Zop::Ptr<Route6ReactorConfig> route6Config_;
   Zop::Ptr<RouteReactorStatus> routeStatus_;
   Zop::Ptr<Route6ReactorStatus> route6Status_;
   Zop::Ptr<Firewall::HwConfig> fwConfig_;
   Zop::Ptr<SegmentIdRequest> segmentIdRequest_;
   Zop::Ptr<SegmentIdResponse> segmentIdResponse_;
   Zop::Ptr<SegmentSecurityStatus> status_;
   Zop::Ptr<Kiv::VrfPrefixCollection> segmentReviewList_;
   Zop::Ptr<Kiv::PrefixCount> prefixCount_;
   Zop::Ptr<Kiv::KivSegmentRouteInfoColl> segmentRoutesList_;

   Zop::Ptr<HardwareRouteTable> hardware_;
   std::unique_ptr<RoutingAgent> routing_;
   std::unique_ptr<RouteResolver> resolver_;
   std::unique_ptr<HwIdAllocator> allocator_;
   std::unique_ptr<ConfigDriver> config_;
   Zop::Ptr<Kiv::KivSegmentPrefixProcessorSm> processor_;
};

}  // namespace sim
