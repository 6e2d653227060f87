#pragma once
// The simulated routing layer's part in switching the segment feature on and
// off, and in configuring uRPF: the hardware routing of the switch as a whole
// (the L3 status handshake flags, the two wrappers, multicast hardware
// routing), never a VRF's own routing flags.
//
// The feature's routing handshake, from this side:
//   1. A disable request: SegmentSecurityStatus::segmentSecurityRoutingDisableDone
//      becomes true, or segmentSecurityRoutingDisable rises while it is true.
//      Requests heard before the layer's task runs are one disable; a request
//      heard while a disable is in progress is served by that disable.
//   2. The task starts the disable: waitForRoutingDisabledInVrfs and
//      waitForRouting6DisabledInVrfs become true (busy) for `busyDelay`
//      seconds of virtual time, or, while held, until released.
//   3. The disable ends, in one run of its own task ("SimRoutingDisableTask"),
//      in this order: routingEnabledInAnyVrf and routing6EnabledInAnyVrf
//      false, multicast hwRouting false, the two busy flags false, and last
//      waitForRoutingDisabledRefCnt of the wait wrapper raised by one. Hardware
//      routing is now suspended.
//   4. Whoever writes multicast hwRouting true (the feature's stage 2) ends
//      the suspension: routingEnabledInAnyVrf / routing6EnabledInAnyVrf become
//      true again when some VRF routes that family. A write of true while a
//      disable is in progress is ignored (the disable turns it off again).
// Busy on its own (ownBusyIs): another user of the routing layer disabling
// routing, not the segment feature. While it is, waitForRoutingDisabledInVrfs
// and waitForRouting6DisabledInVrfs are true; when it ends they clear, unless
// a disable the feature asked for is in progress (they clear when it ends).
// A feature's disable meanwhile runs as usual.
//
// Outside a suspension, routingEnabledInAnyVrf and routing6EnabledInAnyVrf
// follow the VRFs' own flags (L3::VrfStatus, as the routing agent publishes
// them) as they come and go.
//
// uRPF: urpfIs(family, on) writes urpfConfigured of Ip::Status or
// Ip6::Status. When uRPF of a family is turned on while routing of that
// family is enabled in some VRF (its *EnabledInAnyVrf flag), the layer
// disables routing for the uRPF change: urpfRoutingDisableDone of the uRPF
// wrapper is true for `urpfBusyDelay` seconds (a new one while it is true
// starts the delay again), then false. The *EnabledInAnyVrf flags are left as
// they are; turning uRPF off changes nothing here.
//
// Notifications only note what happened and schedule the layer's task
// ("SimRoutingLayerTask"); the task and the two delay tasks do the writes. The
// two wrappers are published in the L3 status at construction.

#include <cstdint>
#include <map>
#include <memory>

#include "Ip/Status.h"
#include "Pexo/Prefix.h"
#include "Routing/L3Status.h"
#include "Routing/MulticastHardwareStatus.h"
#include "Ruv/TaskScheduler.h"
#include "Segment/SegmentId.h"

namespace sim {

using MulticastHwStatus = Routing::Multicast::Fib::Hardware::Status;

class RoutingLayer {
public:
   static constexpr double kDefaultBusyDelay = 0.05;
   static constexpr double kDefaultUrpfBusyDelay = 0.02;

   RoutingLayer(Zop::Ptr<Ruv::TaskScheduler> scheduler, Zop::Ptr<L3Status> l3Status,
                Zop::Ptr<MulticastHwStatus> multicastStatus,
                Zop::Ptr<SegmentSecurityStatus> segmentStatus, Zop::Ptr<Ip::Status> ipStatus,
                Zop::Ptr<Ip6::Status> ip6Status);
   ~RoutingLayer();
   RoutingLayer(const RoutingLayer&) = delete;
   RoutingLayer& operator=(const RoutingLayer&) = delete;

   // ---- Knobs ----
   // How long a disable keeps the layer busy (virtual seconds); applies to
   // disables that start later.
   double busyDelay() const { return busyDelay_; }
   void busyDelayIs(double seconds) { busyDelay_ = seconds; }
   double urpfBusyDelay() const { return urpfBusyDelay_; }
   void urpfBusyDelayIs(double seconds) { urpfBusyDelay_ = seconds; }
   // Held: a disable that starts, or is in progress, stays busy until
   // released, whatever its delay. Releasing ends a disable in progress at
   // once (in the disable task).
   bool held() const { return held_; }
   void heldIs(bool held);

   // Busy on its own; see above.
   bool ownBusy() const { return ownBusy_; }
   void ownBusyIs(bool busy);

   // uRPF configuration of one family (ipv4 or ipv6).
   void urpfIs(Pexo::AddressFamily af, bool on);

   // ---- Looking ----
   // A disable is in progress (the busy flags are set).
   bool busy() const { return busy_; }
   // Hardware routing is off since the last disable.
   bool suspended() const { return suspended_; }
   // Disables begun and ended since construction.
   uint32_t disablesStarted() const { return disablesStarted_; }
   uint32_t disablesDone() const { return disablesDone_; }
   uint32_t urpfDisables() const { return urpfDisables_; }
   const Zop::Ptr<L3::WaitForRoutingWrapper>& waitWrapper() const { return waitWrapper_; }
   const Zop::Ptr<L3::UrpfRoutingDisableDoneWrapper>& urpfWrapper() const { return urpfWrapper_; }

private:
   class StatusNotifiee;
   class MulticastNotifiee;
   class L3Notifiee;
   class VrfNotifiee;
   template <int Family>
   class UrpfNotifiee;

   void disableRequested();
   void restoreRequested();
   void urpfTurnedOn(Pexo::AddressFamily af);
   void vrfStatusChanged(const L3::VrfName& name);
   void vrfFlagsChanged();
   void run();
   void endDisable();
   void endUrpfDisable();
   void attachVrf(const L3::VrfName& name);
   // Publishes the *EnabledInAnyVrf flags: off while suspended, else from the
   // VRFs' flags.
   void publishRoutingEnabled();
   // The busy flags: set while a feature's disable runs or the layer is busy
   // on its own.
   void publishBusy();

   Zop::Ptr<Ruv::TaskScheduler> scheduler_;
   Zop::Ptr<L3Status> l3Status_;
   Zop::Ptr<MulticastHwStatus> multicastStatus_;
   Zop::Ptr<SegmentSecurityStatus> segmentStatus_;
   Zop::Ptr<Ip::Status> ipStatus_;
   Zop::Ptr<Ip6::Status> ip6Status_;
   Zop::Ptr<L3::WaitForRoutingWrapper> waitWrapper_;
   Zop::Ptr<L3::UrpfRoutingDisableDoneWrapper> urpfWrapper_;
   Zop::Ptr<Ruv::Task> task_;
   Zop::Ptr<Ruv::Task> disableTask_;
   Zop::Ptr<Ruv::Task> urpfTask_;

   double busyDelay_ = kDefaultBusyDelay;
   double urpfBusyDelay_ = kDefaultUrpfBusyDelay;
   bool held_ = false;
   bool ownBusy_ = false;

   // Noted by notifications, taken by the task.
   bool disableRequested_ = false;
   bool restoreRequested_ = false;
   bool vrfFlagsChanged_ = false;
   bool urpf4TurnedOn_ = false;
   bool urpf6TurnedOn_ = false;

   bool busy_ = false;
   bool suspended_ = false;
   uint32_t disablesStarted_ = 0;
   uint32_t disablesDone_ = 0;
   uint32_t urpfDisables_ = 0;

   std::unique_ptr<StatusNotifiee> statusNotifiee_;
   std::unique_ptr<MulticastNotifiee> multicastNotifiee_;
   std::unique_ptr<L3Notifiee> l3Notifiee_;
   std::unique_ptr<UrpfNotifiee<4>> ipNotifiee_;
   std::unique_ptr<UrpfNotifiee<6>> ip6Notifiee_;
   // One per VRF with a published status, by name.
   std::map<L3::VrfName, std::unique_ptr<VrfNotifiee>> vrfs_;
};

}  // namespace sim
