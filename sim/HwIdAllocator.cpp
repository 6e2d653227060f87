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
   if (!id) {
      id = lowestFree();
      if (!id) {
         return Outcome::refused("the pool is exhausted");
      }
   } else if (id->value() < kPoolFirst || id->value() > kPoolLast) {
      return Outcome::refused("id " + std::to_string(id->value()) + " cannot be granted");
   } else if (used_.count(id->value())) {
      return Outcome::refused("id " + std::to_string(id->value()) + " is granted already");
   }
   grantNow(key, *id);
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
   while (!changed_.empty()) {
      const SegmentIdRequestKey key = *changed_.begin();
      changed_.erase(changed_.begin());
      const bool requested = requests_->requestHas(key);
      auto granted = grants_.find(key);
      if (!requested && granted != grants_.end()) {
         used_.erase(granted->second.value());
         grants_.erase(granted);
         responses_->statusDel(key);
      }
   }
   if (mode_ != Mode::automatic) {
      return;
   }
   // Every waiting request, also one that found the pool exhausted before
   // and may find an id freed just now.
   for (const SegmentIdRequestKey& key : pendingRequests()) {
      const auto id = lowestFree();
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
   used_.insert(id.value());
   grants_[key] = id;
   responses_->statusIs(key, SegmentIdStatus{id});
}

}  // namespace sim
