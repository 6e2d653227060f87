// The range finders and the next-more-specific finder, driven by real trie
// walks and checked against brute force over random prefix sets.

#include "KivSegmentSecurity/KivSegmentSecurityTrieHelper.h"

#include <gtest/gtest.h>

#include <set>
#include <vector>

#include "KivSegmentSecurity/KivSegmentSecurityUtils.h"
#include "Trace/Trace.h"
#include "support/RandomPrefixes.h"

using namespace Kiv;
using Pexo::AddressFamily;
using Pexo::IpGenPrefix;

namespace {

IpGenPrefix pfx(const char* text) {
   return Zop::strepToValue<IpGenPrefix>(text);
}

std::set<IpGenPrefix> members(const Zop::Ptr<VrfPrefixCollection>& coll, VrfId vrf) {
   std::set<IpGenPrefix> out;
   coll->vrfIpGenPrefixForEach([&](const VrfAndIpGenPrefix& k) {
      EXPECT_EQ(k.vrfId(), vrf);
      out.insert(k.prefix());
   });
   return out;
}

// The FIB routes a range should yield: inside start, and (for a distinct end)
// not equal to or inside end.
std::set<IpGenPrefix> expectedRange(const std::set<IpGenPrefix>& fib, const IpGenPrefix& start,
                                    const IpGenPrefix& end) {
   std::set<IpGenPrefix> out;
   for (const auto& p : fib) {
      if (start.contains(p) && (start == end || !end.contains(p))) {
         out.insert(p);
      }
   }
   return out;
}

// Runs getV4FibRoutes / getV6FibRoutes over a FIB holding `fib`.
std::set<IpGenPrefix> collect(const std::set<IpGenPrefix>& fib, const IpGenPrefix& start,
                              const IpGenPrefix& end) {
   auto out = vrfPrefixCollectionFactory();
   auto routes = kivSegmentRouteInfoCollFactory();
   VrfId vrf(4);
   if (start.isIpv4()) {
      auto trie = Routing::trieFactory();
      for (const auto& p : fib) {
         if (p.isIpv4()) {
            trie->routeIs(p.v4(), true);
         }
      }
      getV4FibRoutes(vrf, start, end, routes, out, trie);
   } else {
      auto trie = Routing6::trieFactory();
      for (const auto& p : fib) {
         if (p.isIpv6()) {
            trie->routeIs(p, true);
         }
      }
      getV6FibRoutes(vrf, start, end, routes, out, trie);
   }
   return members(out, vrf);
}

IpGenPrefix expectedNext(const std::set<IpGenPrefix>& segs, const IpGenPrefix& ref) {
   IpGenPrefix best = ref;
   for (const auto& p : segs) {
      if (p.isHost() || !ref.contains(p) || p.len() <= ref.len()) {
         continue;
      }
      if (best == ref || p.len() < best.len() || (p.len() == best.len() && p < best)) {
         best = p;
      }
   }
   return best;
}

}  // namespace

TEST(KivTrieHelper, FibRangeMatchesBruteForceBothFamilies) {
   KivTest::RandomPrefixes r(11);
   for (AddressFamily af : {AddressFamily::ipv4, AddressFamily::ipv6}) {
      for (int round = 0; round < 60; ++round) {
         std::set<IpGenPrefix> fib;
         for (int i = 0; i < 300; ++i) {
            fib.insert(r.gen(af));
         }
         std::vector<IpGenPrefix> list(fib.begin(), fib.end());
         for (int q = 0; q < 30; ++q) {
            IpGenPrefix start = r.chance(50) ? list[r.below(uint32_t(list.size()))] : r.gen(af);
            IpGenPrefix end = start;
            if (r.chance(70)) {
               // A bound somewhere inside start, stored or not.
               IpGenPrefix inner = r.chance(50) ? list[r.below(uint32_t(list.size()))] : r.gen(af);
               if (start.contains(inner)) {
                  end = inner;
               }
            }
            EXPECT_EQ(collect(fib, start, end), expectedRange(fib, start, end))
                << "start " << start << " end " << end;
         }
      }
   }
}

TEST(KivTrieHelper, UnsetBoundAndBoundItself) {
   std::set<IpGenPrefix> fib = {pfx("10.0.0.0/8"),        pfx("10.1.0.0/16"),
                                pfx("10.1.1.0/24"),       pfx("10.1.1.1/32"),
                                pfx("10.2.0.0/16"),       pfx("11.0.0.0/8"),
                                pfx("2001:db8::/32"),     pfx("2001:db8:1::/48"),
                                pfx("2001:db8:1::1/128"), pfx("2001:db8:2::/48")};
   // Equal bounds: everything inside, host routes included.
   EXPECT_EQ(collect(fib, pfx("10.0.0.0/8"), pfx("10.0.0.0/8")),
             (std::set<IpGenPrefix>{pfx("10.0.0.0/8"), pfx("10.1.0.0/16"), pfx("10.1.1.0/24"),
                                    pfx("10.1.1.1/32"), pfx("10.2.0.0/16")}));
   EXPECT_EQ(collect(fib, pfx("2001:db8::/32"), pfx("2001:db8::/32")),
             (std::set<IpGenPrefix>{pfx("2001:db8::/32"), pfx("2001:db8:1::/48"),
                                    pfx("2001:db8:1::1/128"), pfx("2001:db8:2::/48")}));
   // The bound itself and what lies inside it are left out; the walk goes on
   // past it.
   EXPECT_EQ(collect(fib, pfx("10.0.0.0/8"), pfx("10.1.0.0/16")),
             (std::set<IpGenPrefix>{pfx("10.0.0.0/8"), pfx("10.2.0.0/16")}));
   EXPECT_EQ(collect(fib, pfx("2001:db8::/32"), pfx("2001:db8:1::/48")),
             (std::set<IpGenPrefix>{pfx("2001:db8::/32"), pfx("2001:db8:2::/48")}));
   // A start that is not stored still walks what lies inside it.
   EXPECT_EQ(collect(fib, pfx("10.1.0.0/20"), pfx("10.1.0.0/20")),
             (std::set<IpGenPrefix>{pfx("10.1.1.0/24"), pfx("10.1.1.1/32")}));
}

TEST(KivTrieHelper, RangeCallbacksWithoutCollectionAndSubnetsOnly) {
   RangeIpv4PrefixFinderCallback v4(pfx("10.0.0.0/8").v4(),
                                    Pexo::Prefix(Pexo::IpAddr(0), Pexo::Prefix::kUnsetLength),
                                    VrfId(1), nullptr, /*subnetsOnly=*/true);
   EXPECT_TRUE(v4.handlePrefix(pfx("10.1.0.0/16").v4()));
   EXPECT_TRUE(v4.handlePrefix(pfx("10.1.1.1/32").v4()));
   EXPECT_FALSE(v4.handlePrefix(pfx("11.0.0.0/8").v4()));  // outside the start
   EXPECT_EQ(v4.walkedPrefix(), (std::set<Pexo::Prefix>{pfx("10.1.0.0/16").v4()}));

   // An end bound of length 0 contains everything.
   RangeIpv4PrefixFinderCallback all(pfx("0.0.0.0/0").v4(), pfx("0.0.0.0/0").v4(), VrfId(1),
                                     nullptr, false);
   EXPECT_FALSE(all.handlePrefix(pfx("10.0.0.0/8").v4()));

   RangeIpv6PrefixFinderCallback v6(pfx("2001:db8::/32"), IpGenPrefix(), VrfId(1), nullptr, true);
   Routing::PrefixData data;
   EXPECT_TRUE(v6.handlePrefixData(pfx("2001:db8:1::/48"), data));
   EXPECT_TRUE(v6.handlePrefixData(pfx("2001:db8::1/128"), data));
   EXPECT_EQ(v6.walkedPrefix(), (std::set<IpGenPrefix>{pfx("2001:db8:1::/48")}));
}

TEST(KivTrieHelper, NextSpecificPrefixMatchesBruteForce) {
   KivTest::RandomPrefixes r(23);
   for (AddressFamily af : {AddressFamily::ipv4, AddressFamily::ipv6}) {
      for (int round = 0; round < 100; ++round) {
         std::set<IpGenPrefix> segs;
         auto trie = Routing::trieGenFactory("v4Trie", af);
         for (int i = 0; i < 80; ++i) {
            IpGenPrefix p = r.gen(af);
            segs.insert(p);
            trie->routeIs(p, true);
         }
         for (const auto& ref : segs) {
            NextSpecifcPrefixCallback cb(ref);
            trie->preOrderWalk(ref, [&](const IpGenPrefix& p) { return cb.handlePrefix(p); });
            ASSERT_EQ(cb.nextPrefix(), expectedNext(segs, ref)) << "reference " << ref;
         }
      }
   }
}

TEST(KivTrieHelper, NextSpecificPrefixTracesEachVisit) {
   Trace::Duolog log(Trace::kFunctions);
   Trace::ScopedDuolog guard(log);
   auto trie = Routing::trieGenFactory("v4Trie", AddressFamily::ipv4);
   for (const char* p : {"10.0.0.0/8", "10.1.0.0/16", "10.1.2.0/24", "10.3.0.0/16"}) {
      trie->routeIs(pfx(p), true);
   }
   auto cb = nextSpecifcPrefixCallbackFactory(pfx("10.0.0.0/8"));
   trie->preOrderWalk(pfx("10.0.0.0/8"), [&](const IpGenPrefix& p) { return cb->handlePrefix(p); });
   EXPECT_EQ(cb->nextPrefix(), pfx("10.1.0.0/16"));
   // 10.1.2.0/24 lies below the answer and is pruned.
   EXPECT_EQ(log.ringlog().texts(),
             (std::vector<Zop::String>{"handlePrefix 10.0.0.0/8", "handlePrefix 10.1.0.0/16",
                                       "handlePrefix 10.3.0.0/16"}));
}
