#pragma once
// The whole simulated switch, for tests, benchmarks and the command-line
// program: one task scheduler on a virtual clock, every shared state object
// the agents publish and read, the simulated agents (hardware route table,
// routing agent, routing layer, route resolver, hw-id allocator,
// configuration stand-in, routing status helper), and the segment library's
// processor and configuration reactors built through their factories,
// exactly as a forwarding agent would build them.
//
// Nothing happens behind the caller's back: changes made through the parts
// notify at once, and the work they cause runs only in settle() (or in
// whatever the caller does with scheduler()). check() is the oracle's verdict
// on the hardware table: meaningful once settled.
//
// Who plays the configuration side:
//   the configuration reactors (the default): the library's root reactor
//      decides whether the feature runs (firewallIs, urpfIs), runs the routing
//      handshake with the routing layer, and its VRF reactors make the id
//      requests, the prefix counters and the review list from the firewall
//      configuration that configure / segmentAdd / ... write.
//   the caller (manualConfiguration): no configuration reactor is built; the
//      feature's status says it runs (enabled, setup complete, firewall
//      active) from the start, and the caller uses requestId / review in the
//      order the reactors would (configure the prefix, request the segment's
//      id, settle so it is granted, then review the prefix).
//
// The library's syslog messages are defined in this switch's registry at
// construction, so what the library raises lands in syslogRecords(), as do
// the hardware resource messages the switch itself raises when its hardware
// table refuses a write for want of space and when room comes back. The
// messages are the library's own, one set per process: with several switches
// alive, the last one built receives them.

#include <memory>
#include <vector>

#include "Firewall/Counters.h"
#include "Ip/Status.h"
#include "KivSegmentSecurity/KivSegmentPrefixFirewallConfigSm.h"
#include "KivSegmentSecurity/KivSegmentPrefixProcessorSm.h"
#include "KivSegmentSecurity/KivSegmentSecurityCliSm.h"
#include "Syslog/Syslog.h"
#include "Zop/Clock.h"
#include "sim/ConfigDriver.h"
#include "sim/HardwareRouteTable.h"
#include "sim/HwIdAllocator.h"
#include "sim/Oracle.h"
#include "sim/RouteAdopter.h"
#include "sim/RouteResolver.h"
#include "sim/RoutingAgent.h"
#include "sim/RoutingLayer.h"
#include "sim/RoutingStatusHelper.h"

namespace sim {

struct SwitchOptions {
   // The scheduler's (default: its time slice, which with a virtual clock
   // never yields by itself).
   Zop::Ptr<Ruv::YieldPolicy> yieldPolicy;
   // The caller plays the configuration side; see above.
   bool manualConfiguration = false;
   // Where the hardware table's entries really go (sim/Dataplane.h); none:
   // the simulated table is the hardware.
   std::shared_ptr<Dataplane> dataplane = nullptr;
   // Adopt mode (sim/RouteAdopter.h): the dataplane's routes of other
   // programs are FIB routes of the switch; their skipped routes are noted
   // on `adoptNotes`. Needs a dataplane that follows them (adoptIs).
   bool adopt = false;
   std::ostream* adoptNotes = nullptr;
};

class Switch {
public:
   using Options = SwitchOptions;

   explicit Switch(Options options = {});
   // The default options with this yield policy.
   explicit Switch(Zop::Ptr<Ruv::YieldPolicy> yieldPolicy);
   ~Switch();
   Switch(const Switch&) = delete;
   Switch& operator=(const Switch&) = delete;

   // Runs the scheduler until nothing but background tasks is scheduled,
   // then gives those one round (see Ruv::TaskScheduler::runBackgroundRound);
   // returns the slices run. In adopt mode the dataplane's route changes are
   // read first and again after each round, until it reports none: a settle
   // sees every change made before it began (and the kernel's answers to
   // the writes it caused).
   size_t settle();
   // The oracle's differences; empty when the hardware is as it must be.
   std::vector<Zop::String> check() const;
   Oracle oracle() const;

   bool manualConfiguration() const { return manual_; }

   // ---- The configuration side (see ConfigDriver) ----
   void firewallIs(bool active) { config_->firewallIs(active); }
   void defaultDropIs(bool drop) { config_->defaultDropIs(drop); }
   // uRPF of one family, as the IP agents publish it (see RoutingLayer).
   void urpfIs(Pexo::AddressFamily af, bool on) { routingLayer_->urpfIs(af, on); }
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
   // Manual configuration only.
   Outcome requestId(const L3::VrfName& vrf, const Zop::String& segment) {
      return config_->requestId(vrf, segment);
   }
   Outcome review(const L3::VrfName& vrf, const Pexo::IpGenPrefix& prefix) {
      return config_->review(vrf, prefix);
   }

   // ---- The command line ----
   // Sends a command request (command word, VRF and segment joined by "#")
   // as the switch's CLI would, runs the event loop until the agent has
   // served it, and returns what the command printed. Other work that is due
   // runs as well, as in an agent that serves its CLI between other tasks.
   Zop::String cliRequest(const Zop::String& command, lumo::Format format = lumo::Format::text);
   // The command-request service's settings (longest run, output buffer).
   void cliServiceSettingsIs(const Agent::AgentCommandServiceSettings& s);
   // The live firewall counters the CLI reports (counters()), and the CLI's
   // baseline of them.
   const Zop::Ptr<Firewall::Counters>& countersSnapshot() const { return countersSnapshot_; }
   const Zop::Ptr<Zop::Dir>& cliRequestDir() const { return cliRequestDir_; }
   const Zop::Ptr<Kiv::KivSegmentSecurityCliSm>& cli() const { return cli_; }

   // ---- The agents ----
   HardwareRouteTable& hardware() { return *hardware_; }
   const HardwareRouteTable& hardware() const { return *hardware_; }
   RoutingAgent& routing() { return *routing_; }
   // Null unless in adopt mode.
   RouteAdopter* adopter() { return adopter_.get(); }
   RoutingLayer& routingLayer() { return *routingLayer_; }
   const Zop::Ptr<RoutingStatusHelper>& routingStatusHelper() const { return routingStatusHelper_; }
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
   const Zop::Ptr<Ip::Status>& ipStatus() const { return ipStatus_; }
   const Zop::Ptr<Ip6::Status>& ip6Status() const { return ip6Status_; }
   const Zop::Ptr<MulticastHwStatus>& multicastStatus() const { return multicastStatus_; }
   const Zop::Ptr<Firewall::Counters>& counters() const { return counters_; }
   const Zop::Ptr<Syslog::Registry>& syslogRegistry() const { return syslogRegistry_; }
   const Zop::Ptr<Syslog::MemorySink>& syslogSink() const { return syslogSink_; }
   // What the library raised, in order.
   const std::vector<Syslog::Record>& syslogRecords() const { return syslogSink_->records(); }
   const Zop::Ptr<Kiv::KivSegmentPrefixProcessorSm>& processor() const { return processor_; }
   // Null with manual configuration.
   const Zop::Ptr<Kiv::KivSegmentSecurityRootSm>& root() const { return root_; }

private:
   bool manual_;
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
   Zop::Ptr<Ip::Status> ipStatus_;
   Zop::Ptr<Ip6::Status> ip6Status_;
   Zop::Ptr<MulticastHwStatus> multicastStatus_;
   Zop::Ptr<Firewall::Counters> counters_;
   Zop::Ptr<Firewall::Counters> countersSnapshot_;
   Zop::Ptr<Zop::Dir> cliRequestDir_;
   uint64_t cliRequests_ = 0;
   Zop::Ptr<Syslog::MemorySink> syslogSink_;
   Zop::Ptr<Syslog::Registry> syslogRegistry_;

   Zop::Ptr<HardwareRouteTable> hardware_;
   std::unique_ptr<RoutingAgent> routing_;
   std::unique_ptr<RouteAdopter> adopter_;
   std::unique_ptr<RouteResolver> resolver_;
   std::unique_ptr<HwIdAllocator> allocator_;
   std::unique_ptr<ConfigDriver> config_;
   std::unique_ptr<RoutingLayer> routingLayer_;
   Zop::Ptr<RoutingStatusHelper> routingStatusHelper_;
   Zop::Ptr<Kiv::KivSegmentPrefixProcessorSm> processor_;
   Zop::Ptr<Kiv::KivSegmentSecurityRootSm> root_;
   Zop::Ptr<Kiv::KivSegmentSecurityCliSm> cli_;
};

}  // namespace sim
