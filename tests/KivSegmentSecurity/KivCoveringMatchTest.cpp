// The covering match kept from one FIB route to the next, asked the way the
// FIB route review asks it (runs of routes in walk order from a few tries of
// both families, jumps back, segment prefixes added and removed between
// routes), always gives what a lookup in the trie gives; and the first
// stored prefix after a prefix, which it keeps, is the one brute force finds.

#include <gtest/gtest.h>

#include <iterator>
#include <set>
#include <vector>

#include "KivSegmentSecurity/KivSegmentHwWriter.h"
#include "Routing/Trie.h"
#include "support/RandomPrefixes.h"

using Pexo::AddressFamily;
using Pexo::IpGenPrefix;

namespace {

struct Tries {
   Zop::Ptr<Routing::TrieGen> trie;
   std::set<IpGenPrefix> stored;  // in walk order within a family
};

TEST(KivCoveringMatch, RunsOfRoutesInWalkOrderMatchAsTheTrieDoes) {
   for (uint64_t seed = 1; seed <= 12; ++seed) {
      KivTest::RandomPrefixes rnd(seed);
      std::vector<Tries> tries(2);
      for (Tries& t : tries) {
         t.trie = Routing::trieGenFactory("segments");
         for (int i = 0; i < 60; ++i) {
            const IpGenPrefix p =
                rnd.gen(rnd.chance(70) ? AddressFamily::ipv4 : AddressFamily::ipv6);
            t.trie->routeIs(p, true);
            t.stored.insert(p);
         }
      }
      // The FIB: routes of both families, taken in walk order.
      std::set<IpGenPrefix> fibSet;
      for (int i = 0; i < 1500; ++i) {
         fibSet.insert(rnd.gen(rnd.chance(70) ? AddressFamily::ipv4 : AddressFamily::ipv6));
      }
      const std::vector<IpGenPrefix> fib(fibSet.begin(), fibSet.end());

      Kiv::KivCoveringMatch memo;
      size_t asked = 0;
      size_t at = 0;
      Tries* t = &tries[0];
      for (int step = 0; step < 6000; ++step) {
         const uint32_t r = rnd.below(100);
         if (r < 3) {
            at = rnd.below(uint32_t(fib.size()));  // a jump, back or ahead
         } else if (r < 5) {
            t = &tries[rnd.below(2)];  // another VRF's trie
         } else if (r < 8) {
            // A segment prefix comes or goes between two routes.
            const IpGenPrefix p =
                rnd.chance(50) && !t->stored.empty()
                    ? *std::next(t->stored.begin(), rnd.below(uint32_t(t->stored.size())))
                    : rnd.gen(rnd.chance(70) ? AddressFamily::ipv4 : AddressFamily::ipv6);
            const bool present = !t->stored.count(p);
            t->trie->routeIs(p, present);
            present ? (void)t->stored.insert(p) : (void)t->stored.erase(p);
         } else if (r < 9) {
            memo.clear();
         }
         const IpGenPrefix& p = fib[at];
         at = (at + 1) % fib.size();
         ++asked;
         ASSERT_EQ(memo.longestMatch(t->trie, p), t->trie->longestMatch(p))
             << "seed " << seed << " step " << step << " route " << p;

         // The first stored prefix after p: the next one of its family in
         // walk order.
         const auto next = t->stored.upper_bound(p);
         const std::optional<IpGenPrefix> want =
             next != t->stored.end() && next->af() == p.af() ? std::optional(*next) : std::nullopt;
         ASSERT_EQ(t->trie->firstAfter(p), want) << "seed " << seed << " after " << p;
      }
      // Most routes were known without a lookup, or this proves little.
      EXPECT_LT(memo.lookups() * 3, asked) << "seed " << seed;
      EXPECT_GT(memo.lookups() * 20, asked) << "seed " << seed;
   }
}

}  // namespace
