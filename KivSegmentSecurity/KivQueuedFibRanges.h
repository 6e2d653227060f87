#pragma once
// What the FIB range walks have queued and is still waiting on the FIB route
// review list, so that a walk over a range queued whole a moment ago is not
// made again route by route.
//
// At an enable every segment prefix is walked: the outermost first, which
// queues every FIB route beneath it, then each more specific one with an id
// of its own, which walks the same routes again and finds each one queued
// already (on the real table three visits in five). Such a walk changes
// nothing, so it need not be made.
//
// The record is a set of runs: stretches of one walk, in walk order (address,
// then length: the trie's pre-order), over which every FIB route was put at
// the back of the review list by the walk itself. The list numbers the keys
// put at its back and takes them in that order (Zop::QueueSetAttr), so a
// run's routes all still wait while the list has not taken the number of the
// first of them. A run notes the number every few routes, so that a range
// deep inside a run is judged by the number near it.
//
// A run is only as good as what it assumed:
// - the FIB did not change since (the walk would meet other routes now);
// - no key left the list other than from its front (a key taken out of
//   order may be one of a run's).
// The owner hands both counts to validate(), which forgets every run when
// either moved: it marks them out of date, and trim() drops them with the
// rest, a few at a time.

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <utility>
#include <vector>

#include "Kiv/KivExport.h"
#include "Pexo/Prefix.h"
#include "Pexo/VrfId.h"

namespace Kiv {

// The last prefix inside `p` in walk order (its highest address, at the
// longest length): a walk that resumes after it has passed all of p.
KIV_EXPORT Pexo::IpGenPrefix lastInside(const Pexo::IpGenPrefix& p);

class KIV_EXPORT KivQueuedFibRanges {
public:
   // Forgets every run when the FIB changes or the list's out-of-order
   // removals counted since the last call moved.
   void validate(uint64_t fibChanges, uint64_t outOfOrder);
   // A walk in `vrf` visited `p`: put at the back of the list under
   // `number`, or (none) found there already or put back in an old place.
   void visited(VrfId vrf, const Pexo::IpGenPrefix& p, std::optional<uint64_t> number);
   // The walk passed over the block of `p` without visiting it: the run
   // ends just before p.
   void passedOver(const Pexo::IpGenPrefix& p);
   // The walk of the range `start` came to its end: the run reaches the end
   // of the range.
   void walkEnded(const Pexo::IpGenPrefix& start);
   // The walk was given up part way: the run ends at its last route.
   void walkDropped();
   // Whether every FIB route equal to or inside `p` in `vrf` is known to wait
   // on the list, given its current taken bound.
   bool allWaiting(VrfId vrf, const Pexo::IpGenPrefix& p, uint64_t takenBound) const;
   // Drops the oldest runs whose routes the list has all taken, at most
   // `most` of them.
   void trim(uint64_t takenBound, size_t most = kTrimAtOnce);

   // A run notes its number every this many routes.
   static constexpr uint32_t kMarkEvery = 64;
   static constexpr size_t kTrimAtOnce = 8;
   static constexpr size_t kTrimWhenDrained = 64;

private:
   struct Run {
      // The end of what the run covers, in walk order: up to and including
      // `end`, or (endInclusive false) everything before it.
      Pexo::IpGenPrefix end;
      bool endInclusive = true;
      uint64_t lastNumber = 0;
      // (route, its number), the run's first route first.
      std::vector<std::pair<Pexo::IpGenPrefix, uint64_t>> marks;
      uint32_t sinceMark = 0;
      uint64_t epoch = 0;  // runs of an older epoch are out of date
   };
   void forget();
   void closeOpen(const Pexo::IpGenPrefix& end, bool inclusive);

   std::map<VrfAndIpGenPrefix, Run> runs_;  // by first route
   std::deque<VrfAndIpGenPrefix> opened_;   // first routes, in the order runs opened
   Run* open_ = nullptr;
   uint64_t fibChanges_ = 0;
   uint64_t outOfOrder_ = 0;
   uint64_t epoch_ = 0;
};

}  // namespace Kiv
