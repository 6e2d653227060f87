// The record of what the range walks queued, driven the way the processor
// drives it (resumable trie walks over a random FIB onto a real review list,
// with the review taking keys from the front, keys taken out of order and FIB
// changes in between) and checked by brute force: whenever it says a range
// all waits on the list, every FIB route of the range is a member.

#include "KivSegmentSecurity/KivQueuedFibRanges.h"

#include <gtest/gtest.h>

#include <optional>
#include <set>
#include <vector>

#include "KivSegmentSecurity/KivSegmentPrefixProcessorTypes.h"
#include "Routing/Trie.h"
#include "support/RandomPrefixes.h"

using namespace Kiv;
using Pexo::IpGenPrefix;

namespace {

struct Walk {
   IpGenPrefix start;
   IpGenPrefix end;
   std::optional<Pexo::Prefix> last;
};

class Driver {
public:
   explicit Driver(uint64_t seed) : rnd_(seed) {
      for (int i = 0; i < 300; ++i) {
         addRoute(rnd_.v4());
      }
   }

   // One random step; counts what it saw in the figures.
   void step() {
      const uint32_t r = rnd_.below(100);
      if (r < 35) {
         walkStep();
      } else if (r < 60) {
         take(1 + rnd_.below(20));
      } else if (r < 62) {
         takeOutOfOrder();
      } else if (r < 64) {
         addRoute(rnd_.v4());  // the FIB changes under the record
         ++fibChanges_;
      } else {
         query(pick());
      }
   }

   size_t confirmed = 0;  // ranges said to wait, checked member by member
   size_t asked = 0;
   size_t skipped = 0;  // walks not made

private:
   VrfId vrf_{7};

   void addRoute(const Pexo::Prefix& p) {
      trie_->routeIs(p, true);
      fib_.insert(IpGenPrefix(p));
   }

   // A prefix to walk or ask about: mostly a FIB route or a prefix around or
   // inside one, as segment prefixes nest over a FIB.
   IpGenPrefix pick() {
      if (rnd_.chance(60) && !fib_.empty()) {
         auto it = fib_.begin();
         std::advance(it, rnd_.below(uint32_t(fib_.size())));
         const Pexo::Prefix p = it->v4();
         const uint32_t len = p.len() == 0 ? 0 : rnd_.below(p.len() + 1);
         return IpGenPrefix(Pexo::Prefix(p.addr(), len).masked());
      }
      return IpGenPrefix(rnd_.v4());
   }

   void query(const IpGenPrefix& p) {
      ++asked;
      ranges_.validate(fibChanges_, list_->queuedOutOfOrder());
      if (!ranges_.allWaiting(vrf_, p, list_->queuedTakenBound())) {
         return;
      }
      ++confirmed;
      for (const IpGenPrefix& f : fib_) {
         if (p.contains(f)) {
            ASSERT_TRUE(list_->vrfIpGenPrefixHas(VrfAndIpGenPrefix(vrf_, f)))
                << f << " inside " << p << " is not waiting";
         }
      }
   }

   void walkStep() {
      ranges_.validate(fibChanges_, list_->queuedOutOfOrder());
      if (!walk_) {
         Walk w;
         w.start = pick();
         w.end = w.start;
         if (rnd_.chance(50) && w.start.len() < 32) {
            // A more specific segment prefix's block inside the range.
            const uint32_t len = w.start.len() + 1 + rnd_.below(32 - w.start.len());
            const Pexo::Prefix inner(Pexo::IpAddr(w.start.v4().addr().value() |
                                                  (uint32_t(rnd_.rng()()) >> w.start.len())),
                                     len);
            w.end = IpGenPrefix(inner.masked());
         }
         ranges_.trim(list_->queuedTakenBound());
         if (ranges_.allWaiting(vrf_, w.start, list_->queuedTakenBound())) {
            ++skipped;
            query(w.start);  // and it is right to skip it
            return;
         }
         walk_ = w;
      }
      // A piece of the walk, as far as a random budget goes.
      uint32_t budget = 1 + rnd_.below(40);
      bool stopped = false;
      Walk& w = *walk_;
      auto visit = [&](const Pexo::Prefix& q) {
         if (budget == 0) {
            stopped = true;
            return Routing::WalkStep::stop;
         }
         --budget;
         const IpGenPrefix p(q);
         if (w.end != w.start && w.end.contains(p)) {
            w.last = lastInside(p).v4();
            ranges_.passedOver(p);
            return Routing::WalkStep::skip;
         }
         w.last = q;
         const uint64_t number = list_->queuedNumber();
         list_->vrfIpGenPrefixIs(VrfAndIpGenPrefix(vrf_, p));
         ranges_.visited(vrf_, p,
                         list_->queuedNumber() != number ? std::optional(number) : std::nullopt);
         return Routing::WalkStep::descend;
      };
      if (w.last) {
         trie_->preOrderWalkAfter(w.start.v4(), *w.last, visit);
      } else {
         trie_->preOrderWalk(w.start.v4(), visit);
      }
      if (!stopped) {
         ranges_.walkEnded(w.start);
         walk_.reset();
      }
   }

   // The FIB route review: takes keys at the front.
   void take(uint32_t n) {
      for (uint32_t i = 0; i < n && list_->vrfIpGenPrefixCount() != 0; ++i) {
         list_->vrfIpGenPrefixDel(list_->vrfIpGenPrefixFront());
      }
   }

   void takeOutOfOrder() {
      const size_t n = list_->vrfIpGenPrefixCount();
      if (n < 2) {
         return;
      }
      std::vector<VrfAndIpGenPrefix> keys;
      list_->vrfIpGenPrefixForEach([&](const VrfAndIpGenPrefix& k) { keys.push_back(k); });
      list_->vrfIpGenPrefixDel(keys[1 + rnd_.below(uint32_t(n - 1))]);
   }

   KivTest::RandomPrefixes rnd_;
   Zop::Ptr<Routing::Trie> trie_ = Routing::trieFactory();
   std::set<IpGenPrefix> fib_;
   Zop::Ptr<VrfPrefixCollection> list_ =
       vrfPrefixCollectionFactory(VrfPrefixCollection::Membership::queue);
   KivQueuedFibRanges ranges_;
   std::optional<Walk> walk_;
   uint64_t fibChanges_ = 0;
};

TEST(KivQueuedFibRanges, ARangeSaidToWaitHasEveryFibRouteOfItOnTheList) {
   size_t confirmed = 0;
   size_t asked = 0;
   size_t skipped = 0;
   for (uint64_t seed = 1; seed <= 40; ++seed) {
      Driver d(seed);
      for (int i = 0; i < 3000; ++i) {
         d.step();
         if (HasFatalFailure()) {
            FAIL() << "seed " << seed << " step " << i;
         }
      }
      confirmed += d.confirmed;
      asked += d.asked;
      skipped += d.skipped;
   }
   // Not vacuous: a good share of the questions, and of the walks, are
   // answered from the record.
   EXPECT_GT(confirmed, asked / 20);
   EXPECT_GT(skipped, 500u);
}

TEST(KivQueuedFibRanges, SetListsNumberNothing) {
   auto list = vrfPrefixCollectionFactory(VrfPrefixCollection::Membership::set);
   KivQueuedFibRanges ranges;
   const IpGenPrefix p(Pexo::Prefix(Pexo::IpAddr(0x0A000000), 8));
   const uint64_t number = list->queuedNumber();
   list->vrfIpGenPrefixIs(VrfAndIpGenPrefix(VrfId(1), p));
   ranges.visited(VrfId(1), p,
                  list->queuedNumber() != number ? std::optional(number) : std::nullopt);
   ranges.walkEnded(p);
   EXPECT_FALSE(ranges.allWaiting(VrfId(1), p, list->queuedTakenBound()));
}

}  // namespace
