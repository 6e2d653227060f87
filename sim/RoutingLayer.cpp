#include "sim/RoutingLayer.h"

namespace sim {

class RoutingLayer::StatusNotifiee final : public SegmentSecurityStatus::Notifiee {
public:
   explicit StatusNotifiee(RoutingLayer& r) : r_(r) {}
   void handleSegmentSecurityRoutingDisableDone() override {
      if (notifier()->segmentSecurityRoutingDisableDone()) {
         r_.disableRequested();
      }
   }
   void handleSegmentSecurityRoutingDisable() override {
      if (notifier()->segmentSecurityRoutingDisableDone()) {
         r_.disableRequested();
      }
   }

private:
   RoutingLayer& r_;
};

class RoutingLayer::MulticastNotifiee final : public MulticastHwStatus::Notifiee {
public:
   explicit MulticastNotifiee(RoutingLayer& r) : r_(r) {}
   void handleHwRouting() override {
      if (notifier()->hwRouting()) {
         r_.restoreRequested();
      }
   }

private:
   RoutingLayer& r_;
};

class RoutingLayer::L3Notifiee final : public L3Status::Notifiee {
public:
   explicit L3Notifiee(RoutingLayer& r) : r_(r) {}
   void handleVrfStatus(const L3::VrfName& name) override { r_.vrfStatusChanged(name); }

private:
   RoutingLayer& r_;
};

class RoutingLayer::VrfNotifiee final : public L3::VrfStatus::Notifiee {
public:
   explicit VrfNotifiee(RoutingLayer& r) : r_(r) {}
   void handleRoutingEnabled() override { r_.vrfFlagsChanged(); }
   void handleRouting6Enabled() override { r_.vrfFlagsChanged(); }

private:
   RoutingLayer& r_;
};

template <int Family>
class RoutingLayer::UrpfNotifiee final : public IpCommon::UrpfStatus<Family>::Notifiee {
public:
   explicit UrpfNotifiee(RoutingLayer& r) : r_(r) {}
   void handleUrpfConfigured() override {
      if (this->notifier()->urpfConfigured()) {
         r_.urpfTurnedOn(Family == 6 ? Pexo::AddressFamily::ipv6 : Pexo::AddressFamily::ipv4);
      }
   }

private:
   RoutingLayer& r_;
};

RoutingLayer::RoutingLayer(Zop::Ptr<Ruv::TaskScheduler> scheduler, Zop::Ptr<L3Status> l3Status,
                           Zop::Ptr<MulticastHwStatus> multicastStatus,
                           Zop::Ptr<SegmentSecurityStatus> segmentStatus,
                           Zop::Ptr<Ip::Status> ipStatus, Zop::Ptr<Ip6::Status> ip6Status)
    : scheduler_(std::move(scheduler)),
      l3Status_(std::move(l3Status)),
      multicastStatus_(std::move(multicastStatus)),
      segmentStatus_(std::move(segmentStatus)),
      ipStatus_(std::move(ipStatus)),
      ip6Status_(std::move(ip6Status)),
      waitWrapper_(Zop::makePtr<L3::WaitForRoutingWrapper>()),
      urpfWrapper_(Zop::makePtr<L3::UrpfRoutingDisableDoneWrapper>()),
      task_(Ruv::makeTask(scheduler_, "SimRoutingLayerTask", [this] { run(); })),
      disableTask_(Ruv::makeTask(scheduler_, "SimRoutingDisableTask", [this] { endDisable(); })),
      urpfTask_(
          Ruv::makeTask(scheduler_, "SimUrpfRoutingDisableTask", [this] { endUrpfDisable(); })),
      statusNotifiee_(std::make_unique<StatusNotifiee>(*this)),
      multicastNotifiee_(std::make_unique<MulticastNotifiee>(*this)),
      l3Notifiee_(std::make_unique<L3Notifiee>(*this)),
      ipNotifiee_(std::make_unique<UrpfNotifiee<4>>(*this)),
      ip6Notifiee_(std::make_unique<UrpfNotifiee<6>>(*this)) {
   l3Status_->waitForRoutingWrapperIs(waitWrapper_);
   l3Status_->urpfRoutingDisableDoneWrapperIs(urpfWrapper_);
   statusNotifiee_->notifierIs(segmentStatus_);
   multicastNotifiee_->notifierIs(multicastStatus_);
   l3Notifiee_->notifierIs(l3Status_);
   ipNotifiee_->notifierIs(ipStatus_);
   ip6Notifiee_->notifierIs(ip6Status_);
   // The VRFs there are already (a VRF's status is published before its id,
   // so every VRF with an id has one).
   for (const auto& entry : l3Status_->vrfName()) {
      attachVrf(entry.second);
   }
   publishRoutingEnabled();
}

RoutingLayer::~RoutingLayer() {
   task_->cancel();
   disableTask_->cancel();
   urpfTask_->cancel();
}

void RoutingLayer::heldIs(bool held) {
   if (held == held_) {
      return;
   }
   held_ = held;
   if (held_) {
      disableTask_->cancel();
   } else if (busy_) {
      disableTask_->scheduleTask();
   }
}

void RoutingLayer::ownBusyIs(bool busy) {
   if (busy == ownBusy_) {
      return;
   }
   ownBusy_ = busy;
   publishBusy();
}

void RoutingLayer::publishBusy() {
   const bool any = busy_ || ownBusy_;
   l3Status_->waitForRoutingDisabledInVrfsIs(any);
   l3Status_->waitForRouting6DisabledInVrfsIs(any);
}

void RoutingLayer::urpfIs(Pexo::AddressFamily af, bool on) {
   if (af == Pexo::AddressFamily::ipv6) {
      ip6Status_->urpfConfiguredIs(on);
   } else {
      ipStatus_->urpfConfiguredIs(on);
   }
}

// ---- Notifications: note and schedule ----

void RoutingLayer::disableRequested() {
   disableRequested_ = true;
   task_->scheduleTask();
}

void RoutingLayer::restoreRequested() {
   restoreRequested_ = true;
   task_->scheduleTask();
}

void RoutingLayer::urpfTurnedOn(Pexo::AddressFamily af) {
   (af == Pexo::AddressFamily::ipv6 ? urpf6TurnedOn_ : urpf4TurnedOn_) = true;
   task_->scheduleTask();
}

void RoutingLayer::vrfStatusChanged(const L3::VrfName& name) {
   attachVrf(name);
   vrfFlagsChanged();
}

void RoutingLayer::vrfFlagsChanged() {
   vrfFlagsChanged_ = true;
   task_->scheduleTask();
}

void RoutingLayer::attachVrf(const L3::VrfName& name) {
   const Zop::Ptr<L3::VrfStatus> status = l3Status_->vrfStatus(name);
   if (!status) {
      vrfs_.erase(name);
      return;
   }
   auto& notifiee = vrfs_[name];
   if (!notifiee) {
      notifiee = std::make_unique<VrfNotifiee>(*this);
   }
   notifiee->notifierIs(status);
}

// ---- The work ----

void RoutingLayer::publishRoutingEnabled() {
   bool any4 = false;
   bool any6 = false;
   if (!suspended_) {
      for (const auto& entry : vrfs_) {
         const auto& status = entry.second->notifier();
         any4 = any4 || status->routingEnabled();
         any6 = any6 || status->routing6Enabled();
      }
   }
   l3Status_->routingEnabledInAnyVrfIs(any4);
   l3Status_->routing6EnabledInAnyVrfIs(any6);
}

void RoutingLayer::run() {
   if (disableRequested_) {
      disableRequested_ = false;
      if (!busy_) {
         busy_ = true;
         ++disablesStarted_;
         publishBusy();
         if (!held_) {
            disableTask_->scheduleTaskLowestDelay(busyDelay_);
         }
      }
   }
   if (restoreRequested_) {
      restoreRequested_ = false;
      if (suspended_ && !busy_ && multicastStatus_->hwRouting()) {
         suspended_ = false;
         vrfFlagsChanged_ = true;
      }
   }
   if (vrfFlagsChanged_) {
      vrfFlagsChanged_ = false;
      publishRoutingEnabled();
   }
   bool urpfStarts = false;
   if (urpf4TurnedOn_) {
      urpf4TurnedOn_ = false;
      urpfStarts =
          urpfStarts || (ipStatus_->urpfConfigured() && l3Status_->routingEnabledInAnyVrf());
   }
   if (urpf6TurnedOn_) {
      urpf6TurnedOn_ = false;
      urpfStarts =
          urpfStarts || (ip6Status_->urpfConfigured() && l3Status_->routing6EnabledInAnyVrf());
   }
   if (urpfStarts) {
      ++urpfDisables_;
      urpfWrapper_->urpfRoutingDisableDoneIs(true);
      // A new uRPF disable starts the delay again.
      urpfTask_->cancel();
      urpfTask_->scheduleTaskLowestDelay(urpfBusyDelay_);
   }
}

void RoutingLayer::endDisable() {
   if (!busy_ || held_) {
      return;
   }
   busy_ = false;
   suspended_ = true;
   ++disablesDone_;
   publishRoutingEnabled();
   multicastStatus_->hwRoutingIs(false);
   publishBusy();
   waitWrapper_->waitForRoutingDisabledRefCntInc();
}

void RoutingLayer::endUrpfDisable() {
   urpfWrapper_->urpfRoutingDisableDoneIs(false);
}

}  // namespace sim
