#include "sim/ConfigDriver.h"

namespace sim {

namespace {

Zop::String noVrfId(const L3::VrfName& vrf) {
   return "VRF '" + vrf.value() + "' has no id";
}

Outcome reactorsDoIt(const char* what) {
   return Outcome::refused(Zop::String("the configuration reactors ") + what);
}

}  // namespace

class ConfigDriver::ResponseNotifiee final : public SegmentIdResponse::Notifiee {
public:
   explicit ResponseNotifiee(ConfigDriver& d) : d_(d) {}
   void handleStatus(const SegmentIdRequestKey& key) override { d_.grantChanged(key); }

private:
   ConfigDriver& d_;
};

ConfigDriver::ConfigDriver(Mode mode, Zop::Ptr<Ruv::TaskScheduler> scheduler,
                           Zop::Ptr<Firewall::HwConfig> fwConfig, Zop::Ptr<const L3Status> l3Status,
                           Zop::Ptr<SegmentIdRequest> segmentIdRequest,
                           Zop::Ptr<SegmentIdResponse> segmentIdResponse,
                           Zop::Ptr<Kiv::PrefixCount> prefixCount,
                           Zop::Ptr<Kiv::VrfPrefixCollection> segmentReviewList)
    : mode_(mode),
      scheduler_(std::move(scheduler)),
      fwConfig_(std::move(fwConfig)),
      l3Status_(std::move(l3Status)),
      segmentIdRequest_(std::move(segmentIdRequest)),
      segmentIdResponse_(std::move(segmentIdResponse)),
      prefixCount_(std::move(prefixCount)),
      segmentReviewList_(std::move(segmentReviewList)),
      task_(Ruv::makeTask(
          scheduler_, "SimConfigDriverTask", [this] { run(); }, Ruv::Task::kHighPriority)),
      notifiee_(std::make_unique<ResponseNotifiee>(*this)) {
   if (mode_ == Mode::reactors) {
      return;
   }
   notifiee_->notifierIs(segmentIdResponse_);
   for (const auto& entry : segmentIdResponse_->status()) {
      grantChanged(entry.first);
   }
}

ConfigDriver::~ConfigDriver() {
   task_->cancel();
}

Zop::Ptr<Firewall::FwVrf> ConfigDriver::fwVrf(const L3::VrfName& vrf) {
   auto v = fwConfig_->vrf(vrf);
   if (!v) {
      v = Firewall::fwVrfFactory(vrf);
      fwConfig_->vrfIs(v);
   }
   return v;
}

void ConfigDriver::configure(const L3::VrfName& vrf, const Pexo::IpGenPrefix& prefix,
                             const Zop::String& segment) {
   auto v = fwVrf(vrf);
   if (!v->segment(segment)) {
      v->segmentDir()->segmentIs(Firewall::fwSegmentFactory(segment));
   }
   v->prefixListIs(prefix, segment);
}

Outcome ConfigDriver::unconfigure(const L3::VrfName& vrf, const Pexo::IpGenPrefix& prefix) {
   auto v = fwConfig_->vrf(vrf);
   if (!v || !v->prefixListHas(prefix)) {
      return Outcome::refused("no prefix-list entry " + valueToStrep(prefix) + " in VRF '" +
                              vrf.value() + "'");
   }
   v->prefixListDel(prefix);
   return Outcome::done();
}

void ConfigDriver::segmentAdd(const L3::VrfName& vrf, const Zop::String& segment) {
   auto v = fwVrf(vrf);
   if (!v->segment(segment)) {
      v->segmentDir()->segmentIs(Firewall::fwSegmentFactory(segment));
   }
}

Outcome ConfigDriver::segmentDelete(const L3::VrfName& vrf, const Zop::String& segment) {
   auto v = fwConfig_->vrf(vrf);
   if (!v || !v->segment(segment)) {
      return Outcome::refused("no segment '" + segment + "' in VRF '" + vrf.value() + "'");
   }
   v->segmentDir()->segmentDel(segment);
   return Outcome::done();
}

Outcome ConfigDriver::fwVrfDelete(const L3::VrfName& vrf) {
   if (!fwConfig_->vrfHas(vrf)) {
      return Outcome::refused("no firewall VRF '" + vrf.value() + "'");
   }
   fwConfig_->vrfDel(vrf);
   return Outcome::done();
}

Outcome ConfigDriver::requestId(const L3::VrfName& vrf, const Zop::String& segment) {
   if (mode_ == Mode::reactors) {
      return reactorsDoIt("make the id requests");
   }
   const VrfId* id = l3Status_->vrfId(vrf);
   if (!id) {
      return Outcome::refused(noVrfId(vrf));
   }
   segmentIdRequest_->requestIs(SegmentIdRequestKey(*id, segment));
   return Outcome::done();
}

Outcome ConfigDriver::requestIdDel(const L3::VrfName& vrf, const Zop::String& segment) {
   if (mode_ == Mode::reactors) {
      return reactorsDoIt("withdraw the id requests");
   }
   const VrfId* id = l3Status_->vrfId(vrf);
   if (!id) {
      return Outcome::refused(noVrfId(vrf));
   }
   segmentIdRequest_->requestDel(SegmentIdRequestKey(*id, segment));
   return Outcome::done();
}

Outcome ConfigDriver::review(const L3::VrfName& vrf, const Pexo::IpGenPrefix& prefix) {
   if (mode_ == Mode::reactors) {
      return reactorsDoIt("keep the review list");
   }
   const VrfId* id = l3Status_->vrfId(vrf);
   if (!id) {
      return Outcome::refused(noVrfId(vrf));
   }
   segmentReviewList_->vrfIpGenPrefixIs(VrfAndIpGenPrefix(*id, prefix));
   return Outcome::done();
}

void ConfigDriver::grantChanged(const SegmentIdRequestKey& key) {
   changed_.insert(key);
   task_->scheduleTask();
}

void ConfigDriver::run() {
   const std::set<SegmentIdRequestKey> changed = std::move(changed_);
   changed_.clear();
   for (const SegmentIdRequestKey& key : changed) {
      const SegmentIdStatus* grant = segmentIdResponse_->status(key);
      if (grant && grant->hwId.isValid() && !prefixCount_->segmentPrefixCountHas(grant->hwId)) {
         prefixCount_->segmentPrefixCountIs(Kiv::segmentPrefixCountFactory(grant->hwId));
      }
   }
}

}  // namespace sim
