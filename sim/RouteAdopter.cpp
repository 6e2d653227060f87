#include "sim/RouteAdopter.h"

namespace sim {

RouteAdopter::RouteAdopter(Zop::Ptr<Ruv::TaskScheduler> scheduler,
                           std::shared_ptr<Dataplane> dataplane, RoutingAgent& routing,
                           std::ostream* notes)
    : scheduler_(std::move(scheduler)),
      dataplane_(std::move(dataplane)),
      routing_(routing),
      notes_(notes),
      task_(Ruv::makeTask(scheduler_, "SimRouteAdoptTask", [this] { run(); })) {}

RouteAdopter::~RouteAdopter() {
   task_->cancel();
}

bool RouteAdopter::vrfsRead() {
   std::map<uint32_t, L3::VrfName> now;
   for (const auto& name : routing_.vrfNames()) {
      if (auto id = routing_.vrfId(name)) {
         now[id->value()] = name;
      }
   }
   if (now == vrfs_) {
      return false;
   }
   // A VRF gone took its FIB routes with it; a VRF new (or renumbered) gets
   // the routes of its table.
   for (auto it = published_.begin(); it != published_.end();) {
      auto was = vrfs_.find(it->first.vrfId.value());
      auto is = now.find(it->first.vrfId.value());
      if (is == now.end() || was == vrfs_.end() || is->second != was->second) {
         it = published_.erase(it);
      } else {
         ++it;
      }
   }
   vrfs_ = std::move(now);
   for (const auto& [key, route] : kernel_) {
      if (vrfs_.count(key.vrfId.value()) && !published_.count(key)) {
         dirty_.insert(key);
      }
   }
   return true;
}

bool RouteAdopter::pending() {
   if (!peeked_) {
      peeked_ = dataplane_->foreignRouteNext(next_);
   }
   const bool work = peeked_ || !dirty_.empty() || vrfsRead();
   if (work && !task_->isScheduled()) {
      task_->scheduleTask();
   }
   return work || task_->isScheduled();
}

void RouteAdopter::run() {
   vrfsRead();
   // The changes the dataplane reported, one at a time, then what they
   // change for the switch, one route at a time; each one item of the slice.
   for (;;) {
      if (!peeked_) {
         peeked_ = dataplane_->foreignRouteNext(next_);
      }
      if (!peeked_ && dirty_.empty()) {
         return;
      }
      if (scheduler_->taskShouldYield()) {
         task_->scheduleTask();
         return;
      }
      if (peeked_) {
         peeked_ = false;
         ++changesRead_;
         if (next_.present) {
            kernel_[next_.key] = Route{next_.adj, next_.skipped};
         } else {
            kernel_.erase(next_.key);
         }
         dirty_.insert(next_.key);
      } else {
         const HwKey key = *dirty_.begin();
         dirty_.erase(dirty_.begin());
         publish(key);
      }
   }
}

void RouteAdopter::publish(const HwKey& key) {
   auto vrf = vrfs_.find(key.vrfId.value());
   if (vrf == vrfs_.end()) {
      return;  // its table is no VRF's (yet)
   }
   auto route = kernel_.find(key);
   auto published = published_.find(key);
   if (route != kernel_.end() && !route->second.skipped.empty()) {
      if (notes_ && noted_[key] != route->second.skipped) {
         *notes_ << "kivsim: adopt: vrf " << vrf->second << " " << valueToStrep(key.prefix)
                 << ": skipped: " << route->second.skipped << '\n';
      }
      noted_[key] = route->second.skipped;
   } else {
      noted_.erase(key);
   }
   if (route == kernel_.end() || !route->second.skipped.empty()) {
      if (published != published_.end()) {
         published_.erase(published);
         (void)routing_.fibDelete(vrf->second, key.prefix);
      }
      return;
   }
   if (published != published_.end() && published->second == route->second.adj) {
      return;
   }
   if (Outcome o = routing_.fibAdd(vrf->second, key.prefix, route->second.adj); o.ok()) {
      published_[key] = route->second.adj;
   } else if (notes_) {
      *notes_ << "kivsim: adopt: vrf " << vrf->second << " " << valueToStrep(key.prefix)
              << ": not published: " << o.error() << '\n';
   }
}

}  // namespace sim
