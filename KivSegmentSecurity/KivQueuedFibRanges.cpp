#include "KivSegmentSecurity/KivQueuedFibRanges.h"

#include <algorithm>

namespace Kiv {

Pexo::IpGenPrefix lastInside(const Pexo::IpGenPrefix& p) {
   if (p.isIpv4()) {
      const uint32_t len = p.len();
      const uint32_t host = len == 0 ? ~0u : (len >= 32 ? 0u : ~0u >> len);
      return Pexo::IpGenPrefix(
          Pexo::Prefix(Pexo::IpAddr(p.v4().addr().value() | host), Pexo::Prefix::kMaxLength));
   }
   const uint32_t len = p.len();
   const uint64_t hiHost = len >= 64 ? 0 : (len == 0 ? ~0ull : ~0ull >> len);
   const uint64_t loHost = len <= 64 ? ~0ull : (len == 128 ? 0 : ~0ull >> (len - 64));
   const Pexo::Ip6Addr a = p.v6().addr();
   return Pexo::IpGenPrefix(Pexo::Ip6Prefix(Pexo::Ip6Addr(a.hi() | hiHost, a.lo() | loHost),
                                            Pexo::Ip6Prefix::kMaxLength));
}

void KivQueuedFibRanges::validate(uint64_t fibChanges, uint64_t outOfOrder) {
   if (fibChanges != fibChanges_ || outOfOrder != outOfOrder_) {
      forget();
      fibChanges_ = fibChanges;
      outOfOrder_ = outOfOrder;
   }
}

void KivQueuedFibRanges::visited(VrfId vrf, const Pexo::IpGenPrefix& p,
                                 std::optional<uint64_t> number) {
   if (!number) {
      closeOpen(p, false);
      return;
   }
   if (!open_) {
      const VrfAndIpGenPrefix first(vrf, p);
      // A later walk from the same route replaces the earlier run: its
      // numbers are the newer ones.
      Run& run = runs_[first];
      run = Run();
      run.epoch = epoch_;
      run.marks.emplace_back(p, *number);
      opened_.push_back(first);
      open_ = &run;
   } else if (++open_->sinceMark == kMarkEvery) {
      open_->marks.emplace_back(p, *number);
      open_->sinceMark = 0;
   }
   open_->end = p;
   open_->endInclusive = true;
   open_->lastNumber = *number;
}

void KivQueuedFibRanges::passedOver(const Pexo::IpGenPrefix& p) {
   closeOpen(p, false);
}

void KivQueuedFibRanges::walkEnded(const Pexo::IpGenPrefix& start) {
   closeOpen(lastInside(start), true);
}

void KivQueuedFibRanges::walkDropped() {
   open_ = nullptr;
}

void KivQueuedFibRanges::closeOpen(const Pexo::IpGenPrefix& end, bool inclusive) {
   if (!open_) {
      return;
   }
   open_->end = end;
   open_->endInclusive = inclusive;
   open_ = nullptr;
}

bool KivQueuedFibRanges::allWaiting(VrfId vrf, const Pexo::IpGenPrefix& p,
                                    uint64_t takenBound) const {
   auto it = runs_.upper_bound(VrfAndIpGenPrefix(vrf, p));
   if (it == runs_.begin()) {
      return false;
   }
   --it;
   // The run with the last first route at or before p; one starting earlier
   // may cover p too, but the newest covering run is the one that counts
   // most often, and missing one only costs the walk.
   if (it->first.vrfId() != vrf || it->first.prefix().af() != p.af()) {
      return false;
   }
   const Run& run = it->second;
   if (run.epoch != epoch_) {
      return false;
   }
   const Pexo::IpGenPrefix last = lastInside(p);
   if (run.endInclusive ? run.end < last : !(last < run.end)) {
      return false;
   }
   // Every route of the run from the mark at or before p on was numbered at
   // least the mark's number.
   auto mark =
       std::upper_bound(run.marks.begin(), run.marks.end(), p,
                        [](const Pexo::IpGenPrefix& a, const auto& m) { return a < m.first; });
   --mark;  // the first mark is the run's first route, at or before p
   return mark->second >= takenBound;
}

void KivQueuedFibRanges::trim(uint64_t takenBound, size_t most) {
   // A few at a time, before each walk and whenever the review drains the
   // list, which keeps up with the runs the walks open; dropping a table's
   // worth at once held the review's task for 2-3 ms.
   for (size_t n = 0; n < most && !opened_.empty(); ++n) {
      auto it = runs_.find(opened_.front());
      if (it != runs_.end()) {
         const Run& run = it->second;
         if (&run == open_ || (run.epoch == epoch_ && run.lastNumber >= takenBound)) {
            return;
         }
         runs_.erase(it);
      }
      opened_.pop_front();
   }
}

void KivQueuedFibRanges::forget() {
   // Freeing thousands of runs at once held a run of the task for 10 ms:
   // they are marked out of date here and dropped by trim() like any other.
   ++epoch_;
   open_ = nullptr;
}

}  // namespace Kiv
