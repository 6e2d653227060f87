// Queueing the FIB routes beneath a changed segment prefix: when a segment
// prefix comes, goes or changes id, the FIB routes it covers may need another
// id. Only the range between the prefix and the next more-specific segment
// prefix below it can be affected; those FIB routes go on the FIB route
// review list, and the FIB route reactor writes their ids.

#include "KivSegmentSecurity/KivQueuedFibRanges.h"
#include "KivSegmentSecurity/KivSegmentPrefixProcessorSm.h"
#include "KivSegmentSecurity/KivSegmentSecurityTrieHelper.h"
#include "KivSegmentSecurity/KivSegmentSecurityUtils.h"
#include "Ruv/TaskScheduler.h"

#include "KivSegmentSecurity/KivSegmentSecurityTrace.h"

namespace Kiv {

namespace {
constexpr char kSource[] = "KivSegmentSecurity/FibRouteHwIdUpdateHelper";
}

void KivSegmentPrefixProcessorSm::syncFibRouteHwId(const VrfAndIpGenPrefix& vrfPrefix,
                                                   SegmentHwId hwId) {
   const VrfId vrfId = vrfPrefix.vrfId();
   const Pexo::IpGenPrefix& prefix = vrfPrefix.prefix();
   Zop::Ptr<Routing::TrieGen> segmentTrie = segmentPrefixTrie_->getPrefixTrie(vrfId, prefix.af());
   ZOP_ASSERT_FN(segmentTrie, " Segment trie does not exist ", kSource, "syncFibRouteHwId");

   // getLpmHardwareId: the id the FIB routes beneath would fall back to.
   SegmentHwId lpmHwId;
   std::optional<Pexo::IpGenPrefix> match = segmentTrie->longestMatch(prefix);
   if (match && match->af() == prefix.af() && match->validAsPrefix() && *match != prefix) {
      lpmHwId = getSegmentRouteInfo(vrfId, *match, segmentRoutesList_).hwId();
   }
   if (lpmHwId == hwId) {
      TRACE5_FN("getLpmHardwareId", " Longest Prefix is in same segment. "
                                        << prefix << " " << hwId << " Longest Prefix: "
                                        << (match ? *match : Pexo::IpGenPrefix()) << " "
                                        << lpmHwId);
      return;
   }

   Zop::Ptr<NextSpecifcPrefixCallback> nextCallback = nextSpecifcPrefixCallbackFactory(prefix);
   segmentTrie->preOrderWalk(
       prefix, [&](const Pexo::IpGenPrefix& p) { return nextCallback->handlePrefix(p); });
   Pexo::IpGenPrefix nextPrefix = nextCallback->nextPrefix();
   if (nextPrefix != prefix) {
      SegmentHwId nextHwId = getSegmentRouteInfo(vrfId, nextPrefix, segmentRoutesList_).hwId();
      TRACE5_FN("syncFibRouteHwId",
                " " << prefix << " " << hwId << " Next Prefix: " << nextPrefix << " " << nextHwId);
   }

   // A deleted VRF has no FIB any more: nothing beneath to review.
   if (!l3Status_->vrfNameHas(vrfId)) {
      TRACE5_FN("syncFibRouteHwId",
                " Vrf " << vrfId << " is gone, no Fib routes to review under " << prefix);
      return;
   }
   if (prefix.isIpv4()) {
      ZOP_ASSERT_FN(routeStatus_->fibTrie(vrfId), " Fib trie does not exist ", kSource,
                    "syncFibRouteHwId");
   } else {
      ZOP_ASSERT_FN(route6Status_->fibTrie(vrfId), " Fib trie does not exist ", kSource,
                    "syncFibRouteHwId");
   }
   // A /8 over a full table has tens of thousands of routes beneath it: they
   // are queued from the review task, a piece per run.
   rangeWalks_.push_back(FibRangeWalk{vrfId, prefix, nextPrefix, std::nullopt});
   // Queued from the review task itself, the walk goes on in the same run,
   // before the next segment prefix. Queued by a resolver report or a FIB
   // route put back, it starts at once, and what is left after a few dozen
   // routes, or when the running task is asked to yield, goes on in the
   // review task: a handler that walked to the end of the running task's
   // slice made one item of that task (the resolver's answer) 2-4 ms long.
   if (segmentSubnetTask_ && segmentSubnetTask_->isRunning()) {
      return;
   }
   if (!continueFibRangeWalks(kRangeWalkInHandler) && segmentSubnetTask_) {
      segmentSubnetTask_->scheduleTaskLowestDelay(0);
   }
}

bool KivSegmentPrefixProcessorSm::continueFibRangeWalks(size_t budget) {
   VrfPrefixCollection& list = *fibRouteReivewList_;
   while (!rangeWalks_.empty()) {
      FibRangeWalk& walk = rangeWalks_.front();
      const Pexo::IpGenPrefix& start = walk.start;
      const Pexo::IpGenPrefix& end = walk.end;
      KivQueuedFibRanges* queued = fibRouteSm_ ? &fibRouteSm_->queuedRanges() : nullptr;
      if (queued) {
         queued->validate(fibRouteSm_->fibChangeCount(), list.queuedOutOfOrder());
      }
      // A walk over routes an earlier walk queued, all still waiting, would
      // find each of them queued and change nothing.
      if (queued && !walk.last) {
         queued->trim(list.queuedTakenBound());
         if (queued->allWaiting(walk.vrfId, start, list.queuedTakenBound())) {
            rangeWalks_.pop_front();
            continue;
         }
      }
      bool stopped = false;
      // The range rules of the range finders: inside `end` is the next
      // segment prefix's business, and nothing beneath it is queued.
      auto visit = [&](const Pexo::IpGenPrefix& p) {
         if (budget == 0 || Ruv::taskShouldYield()) {
            stopped = true;
            return Routing::WalkStep::stop;
         }
         --budget;
         if (end != start && end.contains(p)) {
            walk.last = lastInside(p);
            if (queued) {
               queued->passedOver(p);
            }
            return Routing::WalkStep::skip;
         }
         walk.last = p;
         const uint64_t number = list.queuedNumber();
         list.vrfIpGenPrefixIs(VrfAndIpGenPrefix(walk.vrfId, p));
         if (queued) {
            queued->visited(walk.vrfId, p,
                            list.queuedNumber() != number ? std::optional(number) : std::nullopt);
         }
         return Routing::WalkStep::descend;
      };
      // A VRF deleted meanwhile has no FIB left to review.
      if (!l3Status_->vrfNameHas(walk.vrfId)) {
         if (queued) {
            queued->walkDropped();
         }
         rangeWalks_.pop_front();
         continue;
      }
      if (start.isIpv4()) {
         Zop::Ptr<Routing::Trie> fibTrie = routeStatus_->fibTrie(walk.vrfId);
         auto visit4 = [&](const Pexo::Prefix& p) { return visit(Pexo::IpGenPrefix(p)); };
         if (fibTrie && walk.last) {
            fibTrie->preOrderWalkAfter(start.v4(), walk.last->v4(), visit4);
         } else if (fibTrie) {
            fibTrie->preOrderWalk(start.v4(), visit4);
         }
      } else {
         Zop::Ptr<Routing6::Trie> fibTrie = route6Status_->fibTrie(walk.vrfId);
         if (fibTrie && walk.last) {
            fibTrie->preOrderWalkAfter(start, *walk.last, visit);
         } else if (fibTrie) {
            fibTrie->preOrderWalk(start, visit);
         }
      }
      if (stopped) {
         return false;
      }
      if (queued) {
         queued->walkEnded(start);
      }
      rangeWalks_.pop_front();
   }
   return true;
}

}  // namespace Kiv
