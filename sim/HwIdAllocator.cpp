#include "sim/HwIdAllocator.h"

#include <algorithm>
#include <string>

namespace sim {

class HwIdAllocator::RequestNotifiee final : public SegmentIdRequest::Notifiee {
public:
   explicit RequestNotifiee(HwIdAllocator& a) : a_(a) {}
   void handleRequest(const SegmentIdRequestKey& key) override { a_.requestChanged(key); }

private:
   HwIdAllocator& a_;
};

HwIdAllocator::HwIdAllocator(Zop::Ptr<Ruv::TaskScheduler> scheduler,
                             Zop::Ptr<SegmentIdRequest> requests,
                             Zop::Ptr<SegmentIdResponse> responses)
    : scheduler_(std::move(scheduler)),
      requests_(std::move(requests)),
      responses_(std::move(responses)),
      task_(Ruv::makeTask(scheduler_, "SimHwIdAllocatorTask", [this] { run(); })),
      notifiee_(std::make_unique<RequestNotifiee>(*this)) {
   notifiee_->notifierIs(requests_);
   for (const SegmentIdRequestKey& key : requests_->request()) {
      requestChanged(key);
   }
}

HwIdAllocator::~HwIdAllocator() {
   task_->cancel();
}

void HwIdAllocator::modeIs(Mode mode) {
   if (mode == mode_) {
      return;
   }
   mode_ = mode;
   if (mode_ == Mode::automatic) {
      task_->scheduleTask();
   }
}

Outcome HwIdAllocator::poolIs(uint16_t first, uint16_t last) {
   if (first < kPoolFirst || last > kPoolLast || first > last) {
      return Outcome::refused("a pool lies within " + std::to_string(kPoolFirst) + ".." +
                              std::to_string(kPoolLast) + ", first id first");
   }
   poolFirst_ = first;
   poolLast_ = last;
   // A larger pool may serve requests that waited for an id.
   if (mode_ == Mode::automatic) {
      task_->scheduleTask();
   }
   return Outcome::done();
}

Outcome HwIdAllocator::grant(const SegmentIdRequestKey& key, std::optional<SegmentHwId> id) {
   if (!requests_->requestHas(key)) {
      return Outcome::refused("no request for " + valueToStrep(key));
   }
   if (grants_.count(key)) {
      return Outcome::refused(valueToStrep(key) + " is granted already");
   }
   auto reserved = reserved_.find(key);
   if (!id) {
      id = reserved != reserved_.end() ? std::optional(reserved->second) : lowestFree();
      if (!id) {
         return Outcome::refused("the pool is exhausted");
      }
   } else if (id->value() < kPoolFirst || id->value() > kPoolLast) {
      return Outcome::refused("id " + std::to_string(id->value()) + " cannot be granted");
   } else if (used_.count(id->value()) &&
              !(reserved != reserved_.end() && reserved->second == *id)) {
      return Outcome::refused("id " + std::to_string(id->value()) + " is granted already");
   }
   grantNow(key, *id);
   return Outcome::done();
}

Outcome HwIdAllocator::grantInvalid(const SegmentIdRequestKey& key) {
   if (!requests_->requestHas(key)) {
      return Outcome::refused("no request for " + valueToStrep(key));
   }
   if (grants_.count(key)) {
      return Outcome::refused(valueToStrep(key) + " is granted already");
   }
   invalid_.insert(key);
   responses_->statusIs(key, SegmentIdStatus{SegmentHwId()});
   return Outcome::done();
}

Outcome HwIdAllocator::revoke(const SegmentIdRequestKey& key) {
   auto granted = grants_.find(key);
   if (granted == grants_.end()) {
      return Outcome::refused(valueToStrep(key) + " has no grant to revoke");
   }
   // The id stays in use, reserved for the key, until its request goes.
   reserved_[key] = granted->second;
   grants_.erase(granted);
   responses_->statusDel(key);
   if (mode_ == Mode::automatic) {
      task_->scheduleTask();
   }
   return Outcome::done();
}

Outcome HwIdAllocator::regrant(const SegmentIdRequestKey& key) {
   if (!responses_->statusHas(key)) {
      return Outcome::refused(valueToStrep(key) + " has no grant to notify again");
   }
   responses_->statusRenotify(key);
   return Outcome::done();
}

std::vector<SegmentIdRequestKey> HwIdAllocator::pendingRequests() const {
   std::vector<SegmentIdRequestKey> keys;
   for (const SegmentIdRequestKey& key : requests_->request()) {
      if (!grants_.count(key)) {
         keys.push_back(key);
      }
   }
   std::sort(keys.begin(), keys.end());
   return keys;
}

void HwIdAllocator::requestChanged(const SegmentIdRequestKey& key) {
   changed_.insert(key);
   task_->scheduleTask();
}

void HwIdAllocator::run() {
   // One key per item, the scheduler asked before each, like a real agent:
   // a grant sets off the library's handlers, and a thousand of them would
   // hold the thread far beyond a slice. Requests that went are dealt with
   // before any grant, also across runs.
   while (!changed_.empty()) {
      if (scheduler_->taskShouldYield()) {
         task_->scheduleTask();
         return;
      }
      const SegmentIdRequestKey key = *changed_.begin();
      changed_.erase(changed_.begin());
      if (requests_->requestHas(key)) {
         continue;
      }
      auto granted = grants_.find(key);
      if (granted != grants_.end()) {
         used_.erase(granted->second.value());
         grants_.erase(granted);
         responses_->statusDel(key);
      }
      auto reserved = reserved_.find(key);
      if (reserved != reserved_.end()) {
         used_.erase(reserved->second.value());
         reserved_.erase(reserved);
      }
      auto [first, last] = retired_.equal_range(key);
      for (auto it = first; it != last; ++it) {
         used_.erase(it->second);
      }
      retired_.erase(first, last);
      if (invalid_.erase(key) != 0) {
         responses_->statusDel(key);
      }
   }
   if (mode_ != Mode::automatic) {
      return;
   }
   // Every waiting request, also one that found the pool exhausted before
   // and may find an id freed just now.
   for (const SegmentIdRequestKey& key : pendingRequests()) {
      if (scheduler_->taskShouldYield()) {
         task_->scheduleTask();
         return;
      }
      auto reserved = reserved_.find(key);
      const auto id = reserved != reserved_.end() ? std::optional(reserved->second) : lowestFree();
      if (!id) {
         break;
      }
      grantNow(key, *id);
   }
}

std::optional<SegmentHwId> HwIdAllocator::lowestFree() const {
   uint32_t candidate = poolFirst_;
   for (auto it = used_.lower_bound(poolFirst_); it != used_.end() && *it == candidate; ++it) {
      ++candidate;
   }
   if (candidate > poolLast_) {
      return std::nullopt;
   }
   return SegmentHwId(uint16_t(candidate));
}

void HwIdAllocator::grantNow(const SegmentIdRequestKey& key, SegmentHwId id) {
   // A key granted another id than the one kept for it still holds that one
   // until its request goes.
   auto reserved = reserved_.find(key);
   if (reserved != reserved_.end()) {
      if (reserved->second != id) {
         retired_.emplace(key, reserved->second.value());
      }
      reserved_.erase(reserved);
   }
   invalid_.erase(key);
   used_.insert(id.value());
   grants_[key] = id;
   responses_->statusIs(key, SegmentIdStatus{id});
}

}  // namespace sim
