// The firewall configuration's per-segment index of its prefix list.

#include "Firewall/HwConfig.h"

#include <gtest/gtest.h>

#include <functional>
#include <random>
#include <set>
#include <vector>

namespace {

// Random entries, moves and removals; after each, and from inside the
// handler that hears of it, the index agrees with a walk of the list.
TEST(FwVrfPrefixList, SegmentIndexFollowsEveryChange) {
   auto vrf = Zop::makePtr<Firewall::FwVrf>("blue");
   const std::vector<Zop::String> segments = {"a", "b", "c"};
   auto byWalk = [&](const Zop::String& segment) {
      std::set<Pexo::IpGenPrefix> out;
      for (const auto& [p, s] : vrf->prefixList()) {
         if (s == segment) {
            out.insert(p);
         }
      }
      return out;
   };
   struct Checker : Firewall::FwVrf::Notifiee {
      std::function<void()> check;
      void handlePrefixList(const Pexo::IpGenPrefix&) override { check(); }
   } checker;
   int heard = 0;
   checker.check = [&] {
      for (const auto& s : segments) {
         ASSERT_EQ(vrf->prefixListOfSegment(s), byWalk(s)) << s;
      }
      ++heard;
   };
   checker.notifierIs(vrf);
   std::mt19937 rng(3);
   std::vector<Pexo::IpGenPrefix> prefixes;
   for (uint32_t i = 0; i < 40; ++i) {
      // Host bits set on some: entries are kept as written.
      prefixes.emplace_back(Pexo::Prefix(Pexo::IpAddr(0x0A000000u | (i << 12) | (i % 3)), 20));
   }
   for (int step = 0; step < 2000; ++step) {
      const Pexo::IpGenPrefix& p = prefixes[rng() % prefixes.size()];
      if (rng() % 4 == 0) {
         vrf->prefixListDel(p);
      } else {
         vrf->prefixListIs(p, segments[rng() % segments.size()]);
      }
   }
   EXPECT_GT(heard, 1000);
   EXPECT_TRUE(vrf->prefixListOfSegment("none").empty());
}

}  // namespace
