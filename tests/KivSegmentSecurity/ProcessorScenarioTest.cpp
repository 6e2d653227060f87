// The segment prefix processor and the FIB route reactor on the simulated
// switch. Every scenario ends with the oracle finding no difference between
// the hardware table and what configuration, FIB, grants and resolver
// answers demand.

#include <gtest/gtest.h>

#include <cstdlib>
#include <random>

#include "Trace/Trace.h"
#include "sim/Switch.h"

namespace {

using Pexo::IpGenPrefix;

IpGenPrefix pfx(const char* text) {
   return Zop::strepToValue<IpGenPrefix>(text);
}

// The configuration side, played by hand: segments with granted ids, and
// prefixes put on the review list the way the configuration reactors do.
class Scenario {
public:
   explicit Scenario(Zop::Ptr<Ruv::YieldPolicy> policy = nullptr)
       : sw(sim::Switch::Options{.yieldPolicy = std::move(policy), .manualConfiguration = true}) {}

   void vrf(const char* name, uint32_t id, bool routing = false, bool routing6 = false) {
      ASSERT_TRUE(sw.routing().vrfAdd(name, VrfId(id), routing, routing6).ok());
   }
   void segment(const char* vrf, const char* name) {
      sw.segmentAdd(vrf, name);
      ASSERT_TRUE(sw.requestId(vrf, name).ok());
      sw.settle();
   }
   void prefix(const char* vrf, const char* prefix, const char* segment) {
      sw.configure(vrf, pfx(prefix), segment);
      ASSERT_TRUE(sw.review(vrf, pfx(prefix)).ok());
   }
   void unprefix(const char* vrf, const char* prefix) {
      ASSERT_TRUE(sw.unconfigure(vrf, pfx(prefix)).ok());
      ASSERT_TRUE(sw.review(vrf, pfx(prefix)).ok());
   }
   void fib(const char* vrf, const char* prefix, uint64_t adj) {
      ASSERT_TRUE(sw.routing().fibAdd(vrf, pfx(prefix), adj).ok());
   }
   void unfib(const char* vrf, const char* prefix) {
      ASSERT_TRUE(sw.routing().fibDelete(vrf, pfx(prefix)).ok());
   }
   SegmentHwId idOf(const char* vrf, const char* segment) {
      const SegmentIdStatus* s =
          sw.segmentIdResponse()->status(SegmentIdRequestKey(*sw.routing().vrfId(vrf), segment));
      return s ? s->hwId : SegmentHwId();
   }
   // Class id and route type of the hardware entry (65535 when absent).
   SegmentHwId hwId(const char* vrf, const char* prefix) {
      return sw.hardware().hardwareId({*sw.routing().vrfId(vrf), pfx(prefix)});
   }
   const sim::HardwareRouteTable::Entry* entry(const char* vrf, const char* prefix) {
      return sw.hardware().entry({*sw.routing().vrfId(vrf), pfx(prefix)});
   }
   int32_t count(SegmentHwId id) {
      auto c = sw.prefixCount()->segmentPrefixCount(id);
      return c ? c->prefixCount() : -1;
   }
   void settleAndCheck() {
      sw.settle();
      EXPECT_EQ(sw.check(), std::vector<Zop::String>{});
      EXPECT_EQ(sw.hardware().counters().errors(), 0u) << sw.hardware().errorLog().front();
   }

   sim::Switch sw;
};

// A two-level fixture: segments "outer" and "inner" with nested prefixes and
// FIB routes at every level beneath them.
void nestedFixture(Scenario& s, const char* vrf, bool v6) {
   s.segment(vrf, "outer");
   s.segment(vrf, "inner");
   if (!v6) {
      s.fib(vrf, "10.1.0.0/24", 1);
      s.fib(vrf, "10.1.2.0/24", 2);
      s.fib(vrf, "10.1.2.9/32", 3);
      s.fib(vrf, "10.9.0.0/16", 4);  // outside every segment prefix
      s.prefix(vrf, "10.1.0.0/16", "outer");
      s.prefix(vrf, "10.1.2.0/23", "inner");
   } else {
      s.fib(vrf, "2001:db8:1::/48", 1);
      s.fib(vrf, "2001:db8:1:2::/64", 2);
      s.fib(vrf, "2001:db8:1:2::9/128", 3);
      s.fib(vrf, "2001:db9::/32", 4);
      s.prefix(vrf, "2001:db8::/32", "outer");
      s.prefix(vrf, "2001:db8:1:2::/63", "inner");
   }
}

struct Mode {
   bool routing;
   bool v6;
};

class NestedSegments : public ::testing::TestWithParam<Mode> {};

TEST_P(NestedSegments, FibRoutesTakeTheLongestCoveringSegmentAndFollowChanges) {
   Mode m = GetParam();
   Scenario s;
   s.vrf("red", 1, m.routing, m.routing);
   nestedFixture(s, "red", m.v6);
   s.settleAndCheck();
   SegmentHwId outer = s.idOf("red", "outer"), inner = s.idOf("red", "inner");
   ASSERT_NE(outer, inner);
   const char* innerFib = m.v6 ? "2001:db8:1:2::/64" : "10.1.2.0/24";
   const char* hostFib = m.v6 ? "2001:db8:1:2::9/128" : "10.1.2.9/32";
   const char* outerFib = m.v6 ? "2001:db8:1::/48" : "10.1.0.0/24";
   const char* outside = m.v6 ? "2001:db9::/32" : "10.9.0.0/16";
   EXPECT_EQ(s.hwId("red", innerFib), inner);
   EXPECT_EQ(s.hwId("red", hostFib), inner);
   EXPECT_EQ(s.hwId("red", outerFib), outer);
   EXPECT_EQ(s.hwId("red", outside), SegmentHwId(0));
   EXPECT_EQ(s.count(outer), 1);
   EXPECT_EQ(s.count(inner), 1);

   // FIB routes added, changed and withdrawn beneath the segments.
   s.fib("red", m.v6 ? "2001:db8:1:3::/64" : "10.1.3.0/24", 7);
   s.fib("red", m.v6 ? "2001:db8:5::/48" : "10.1.5.0/24", 8);
   s.fib("red", innerFib, 9);
   s.unfib("red", outerFib);
   s.settleAndCheck();

   // Removing the outer prefix keeps the inner one and its routes.
   s.unprefix("red", m.v6 ? "2001:db8::/32" : "10.1.0.0/16");
   s.settleAndCheck();
   EXPECT_EQ(s.hwId("red", innerFib), inner);
   EXPECT_EQ(s.hwId("red", m.v6 ? "2001:db8:5::/48" : "10.1.5.0/24"), SegmentHwId(0));
   // The outer segment is still configured, so its id stays requested.
   EXPECT_TRUE(s.idOf("red", "outer").isValid());

   // And the inner one leaves too: everything returns to 0.
   s.unprefix("red", m.v6 ? "2001:db8:1:2::/63" : "10.1.2.0/23");
   s.settleAndCheck();
   EXPECT_EQ(s.hwId("red", hostFib), SegmentHwId(0));
}

INSTANTIATE_TEST_SUITE_P(Modes, NestedSegments,
                         ::testing::Values(Mode{false, false}, Mode{true, false}, Mode{false, true},
                                           Mode{true, true}),
                         [](const auto& info) {
                            return std::string(info.param.routing ? "Routing" : "NoRouting") +
                                   (info.param.v6 ? "V6" : "V4");
                         });

TEST(ProcessorScenario, PrefixMovedToAnotherSegmentMovesItsCountAndReleasesTheOldId) {
   Scenario s;
   s.vrf("red", 1);
   s.segment("red", "a");
   s.segment("red", "b");
   s.fib("red", "10.2.1.0/24", 5);
   s.prefix("red", "10.2.0.0/16", "a");
   s.settleAndCheck();
   SegmentHwId a = s.idOf("red", "a"), b = s.idOf("red", "b");
   EXPECT_EQ(s.count(a), 1);

   s.prefix("red", "10.2.0.0/16", "b");
   s.settleAndCheck();
   EXPECT_EQ(s.count(a), 0);
   EXPECT_EQ(s.count(b), 1);
   EXPECT_EQ(s.hwId("red", "10.2.0.0/16"), b);
   EXPECT_EQ(s.hwId("red", "10.2.1.0/24"), b);
   // Segment a is still configured: an empty segment keeps its id.
   EXPECT_TRUE(s.idOf("red", "a").isValid());

   // Once a is gone from the configuration, its last prefix's departure
   // releases the id.
   s.prefix("red", "10.3.0.0/16", "a");
   s.settleAndCheck();
   ASSERT_TRUE(s.sw.segmentDelete("red", "a").ok());
   ASSERT_TRUE(s.sw.review("red", pfx("10.3.0.0/16")).ok());
   s.settleAndCheck();
   EXPECT_FALSE(s.sw.segmentIdRequest()->requestHas(SegmentIdRequestKey(VrfId(1), "a")));
   EXPECT_FALSE(s.idOf("red", "a").isValid());
}

TEST(ProcessorScenario, SegmentPrefixThatIsAFibRouteKeepsItsForwarding) {
   for (bool routing : {false, true}) {
      SCOPED_TRACE(routing);
      Scenario s;
      s.vrf("red", 1, routing);
      s.segment("red", "outer");
      s.segment("red", "conn");
      s.fib("red", "10.4.0.0/24", 11);
      s.fib("red", "10.4.0.128/25", 12);
      s.prefix("red", "10.4.0.0/16", "outer");
      s.prefix("red", "10.4.0.0/24", "conn");
      s.settleAndCheck();
      const auto* e = s.entry("red", "10.4.0.0/24");
      ASSERT_TRUE(e);
      EXPECT_EQ(e->routeInfo, RouteInfo(RouteType::routeTypeForward, 11));
      EXPECT_EQ(e->classId, s.idOf("red", "conn"));
      EXPECT_EQ(s.hwId("red", "10.4.0.128/25"), s.idOf("red", "conn"));

      // Removing it leaves the FIB route with the covering segment's id.
      s.unprefix("red", "10.4.0.0/24");
      s.settleAndCheck();
      e = s.entry("red", "10.4.0.0/24");
      ASSERT_TRUE(e);
      EXPECT_EQ(e->routeInfo, RouteInfo(RouteType::routeTypeForward, 11));
      EXPECT_EQ(e->classId, s.idOf("red", "outer"));
      EXPECT_EQ(s.hwId("red", "10.4.0.128/25"), s.idOf("red", "outer"));
   }
}

TEST(ProcessorScenario, FibRouteOfASegmentPrefixWithdrawnAndRestored) {
   Scenario s;
   s.vrf("red", 1);
   s.segment("red", "web");
   s.fib("red", "10.5.0.0/16", 21);
   s.prefix("red", "10.5.0.0/16", "web");
   s.settleAndCheck();
   s.unfib("red", "10.5.0.0/16");
   s.settleAndCheck();
   const auto* e = s.entry("red", "10.5.0.0/16");
   ASSERT_TRUE(e);  // back as a drop route with the segment's id
   EXPECT_EQ(e->routeInfo.routeType(), RouteType::routeTypeDrop);
   EXPECT_EQ(e->classId, s.idOf("red", "web"));
   s.fib("red", "10.5.0.0/16", 22);
   s.settleAndCheck();
   EXPECT_EQ(s.entry("red", "10.5.0.0/16")->routeInfo, RouteInfo(RouteType::routeTypeForward, 22));
   // Removing the prefix now leaves the FIB route, at 0.
   s.unprefix("red", "10.5.0.0/16");
   s.settleAndCheck();
   EXPECT_EQ(s.hwId("red", "10.5.0.0/16"), SegmentHwId(0));
}

TEST(ProcessorScenario, ResolverAnswersWithAndWithoutNextHop) {
   Scenario s;
   s.vrf("red", 1, true, true);
   s.sw.resolver().modeIs(sim::RouteResolver::Mode::manual);
   s.segment("red", "web");
   s.fib("red", "10.6.1.0/24", 31);
   s.prefix("red", "10.6.0.0/16", "web");
   s.prefix("red", "2001:db8:6::/48", "web");
   s.prefix("red", "10.7.0.1/32", "web");
   s.settleAndCheck();
   // Not answered yet: saved, not in hardware, but FIB routes beneath carry the id.
   EXPECT_FALSE(s.entry("red", "10.6.0.0/16"));
   EXPECT_EQ(s.hwId("red", "10.6.1.0/24"), s.idOf("red", "web"));

   s.sw.resolver().resolve(VrfId(1), pfx("10.6.0.0/16"), 77);
   s.sw.resolver().resolveNone(VrfId(1), pfx("2001:db8:6::/48"));
   s.sw.resolver().resolve(VrfId(1), pfx("10.7.0.1/32"), 78);
   s.settleAndCheck();
   EXPECT_EQ(s.entry("red", "10.6.0.0/16")->routeInfo.adjIndex(), 77u);
   EXPECT_EQ(s.entry("red", "2001:db8:6::/48")->routeInfo.routeType(), RouteType::routeTypeDrop);

   // The answers change: next hop lost, next hop found.
   s.sw.resolver().resolveNone(VrfId(1), pfx("10.6.0.0/16"));
   s.sw.resolver().resolve(VrfId(1), pfx("2001:db8:6::/48"), 79);
   s.settleAndCheck();
   EXPECT_EQ(s.entry("red", "10.6.0.0/16")->routeInfo.routeType(), RouteType::routeTypeDrop);
   EXPECT_EQ(s.entry("red", "2001:db8:6::/48")->routeInfo.adjIndex(), 79u);

   // Removal stops the watch and takes the routes out.
   s.unprefix("red", "10.6.0.0/16");
   s.unprefix("red", "2001:db8:6::/48");
   s.settleAndCheck();
   EXPECT_FALSE(s.entry("red", "10.6.0.0/16"));
   EXPECT_FALSE(
       s.sw.routeConfig()->watchedPrefixHas(VrfAndPrefix(VrfId(1), pfx("10.6.0.0/16").v4())));
}

TEST(ProcessorScenario, DeletedVrfsRoutesGoWhenItsPrefixesAreReviewed) {
   Scenario s;
   s.vrf("red", 1);
   s.vrf("blue", 2);
   s.segment("red", "web");
   s.segment("blue", "web");
   s.fib("red", "10.8.1.0/24", 41);
   s.prefix("red", "10.8.0.0/16", "web");
   s.prefix("red", "10.9.0.0/16", "web");
   s.prefix("blue", "10.8.0.0/16", "web");
   s.settleAndCheck();
   ASSERT_TRUE(s.sw.routing().vrfDelete("red").ok());
   // The configuration side queues the VRF's prefixes again.
   s.sw.segmentReviewList()->vrfIpGenPrefixIs(VrfAndIpGenPrefix(VrfId(1), pfx("10.8.0.0/16")));
   s.sw.segmentReviewList()->vrfIpGenPrefixIs(VrfAndIpGenPrefix(VrfId(1), pfx("10.9.0.0/16")));
   s.sw.settle();
   EXPECT_EQ(s.sw.check(), std::vector<Zop::String>{});
   EXPECT_EQ(s.sw.segmentRoutesList()->routeInfoCount(), 1u);  // blue's
   for (const auto& [key, e] : s.sw.hardware().entries()) {
      EXPECT_NE(key.vrfId, VrfId(1)) << key.prefix;
   }
}

TEST(ProcessorScenario, HardwareRefusalsAreTracedNotRetried) {
   Trace::Duolog log(Trace::kDecisions, 100000);
   Trace::ScopedDuolog guard(log);
   Scenario s;
   s.vrf("red", 1);
   s.segment("red", "web");
   s.sw.hardware().faultIs({VrfId(1), pfx("10.10.0.0/16")}, sim::HardwareRouteTable::Fault::always);
   s.sw.hardware().faultIs({VrfId(1), pfx("10.11.0.0/16")}, sim::HardwareRouteTable::Fault::once);
   s.fib("red", "10.10.1.0/24", 51);
   s.prefix("red", "10.10.0.0/16", "web");
   s.prefix("red", "10.11.0.0/16", "web");
   s.prefix("red", "10.12.0.0/16", "web");
   s.sw.settle();
   // The refused prefixes are not installed and not in the trie, so the FIB
   // route beneath the first keeps 0; the third is fine.
   EXPECT_FALSE(s.entry("red", "10.10.0.0/16"));
   EXPECT_FALSE(s.entry("red", "10.11.0.0/16"));
   EXPECT_EQ(s.hwId("red", "10.10.1.0/24"), SegmentHwId(0));
   EXPECT_EQ(s.hwId("red", "10.12.0.0/16"), s.idOf("red", "web"));
   EXPECT_EQ(s.count(s.idOf("red", "web")), 1);
   bool traced = false;
   for (const auto& line : log.ringlog().texts()) {
      traced |= line == "addPrefixToHwWithDropNh 10.10.0.0/16 could not be programmed in Hw";
   }
   EXPECT_TRUE(traced);
   // The oracle reports exactly the two refused prefixes and the FIB route
   // that lost its covering prefix.
   EXPECT_EQ(s.sw.check().size(), 3u);
   // Reviewing again retries: the once-fault is spent.
   ASSERT_TRUE(s.sw.review("red", pfx("10.11.0.0/16")).ok());
   s.sw.settle();
   EXPECT_EQ(s.hwId("red", "10.11.0.0/16"), s.idOf("red", "web"));
}

size_t countLines(const Trace::Duolog& log, const std::string& text) {
   size_t n = 0;
   for (const auto& line : log.ringlog().texts()) {
      n += line == text;
   }
   return n;
}

// A removal the hardware refuses is not tried again in the same run: it is
// retried on a later one (100 ms later, then doubling), and the prefix keeps
// its record, its count and its id until the hardware takes the write, so
// the id cannot reach another segment while hardware still carries it.
TEST(ProcessorScenario, RefusedRemovalIsRetriedOnALaterRunKeepingItsId) {
   Trace::Duolog log(Trace::kDecisions, 100000);
   Trace::ScopedDuolog guard(log);
   Scenario s(Zop::makePtr<Ruv::EveryNItemsYieldPolicy>(1));
   s.vrf("red", 1);
   s.segment("red", "web");
   s.segment("red", "db");
   s.fib("red", "10.20.1.0/24", 61);
   s.prefix("red", "10.20.0.0/16", "web");
   s.settleAndCheck();
   SegmentHwId web = s.idOf("red", "web");
   ASSERT_EQ(s.hwId("red", "10.20.1.0/24"), web);

   // Refused once: the settle's own run is refused, the retry round removes.
   s.sw.hardware().faultIs({VrfId(1), pfx("10.20.0.0/16")}, sim::HardwareRouteTable::Fault::once);
   s.unprefix("red", "10.20.0.0/16");
   s.settleAndCheck();
   EXPECT_FALSE(s.entry("red", "10.20.0.0/16"));
   EXPECT_FALSE(
       s.sw.segmentRoutesList()->routeInfoHas(VrfAndIpGenPrefix(VrfId(1), pfx("10.20.0.0/16"))));
   EXPECT_EQ(s.hwId("red", "10.20.1.0/24"), SegmentHwId(0));
   EXPECT_EQ(s.count(web), 0);
   EXPECT_EQ(s.sw.hardware().counters().refusals, 1u);
   EXPECT_EQ(countLines(log,
                        "removePrefixCommon Segment-only prefix: 10.20.0.0/16 could not be "
                        "removed from hw"),
             1u);
   EXPECT_EQ(countLines(log,
                        "removeIpPrefix Segment-only prefix: 10.20.0.0/16 removal refused 1 "
                        "times, next attempt in 100 ms"),
             1u);
   EXPECT_EQ(countLines(log,
                        "removePrefixCommon Segment-only prefix: 10.20.0.0/16 removed from "
                        "hw "),
             1u);

   // Always refused: one attempt per retry round, each further apart, and
   // meanwhile everything stays as it was, other work included.
   s.prefix("red", "2001:db8:20::/48", "web");
   s.fib("red", "2001:db8:20:1::/64", 62);
   s.settleAndCheck();
   web = s.idOf("red", "web");
   const VrfAndIpGenPrefix key(VrfId(1), pfx("2001:db8:20::/48"));
   const Kiv::KivSegmentRouteInfo recorded = *s.sw.segmentRoutesList()->routeInfoFind(key);
   const sim::HardwareRouteTable::Entry installed = *s.entry("red", "2001:db8:20::/48");
   s.sw.hardware().faultIs({VrfId(1), key.prefix()}, sim::HardwareRouteTable::Fault::always);
   ASSERT_TRUE(s.sw.segmentDelete("red", "web").ok());
   ASSERT_TRUE(s.sw.review("red", key.prefix()).ok());
   s.prefix("red", "2001:db8:22::/48", "db");
   for (int i = 0; i < 4; ++i) {
      s.sw.settle();
   }
   EXPECT_EQ(s.sw.hardware().counters().refusals, 1u + 5u);
   EXPECT_EQ(countLines(log,
                        "removePrefixCommon Segment-only prefix: 2001:db8:20::/48 could not "
                        "be removed from hw"),
             5u);
   const std::pair<int, int> waits[] = {{1, 100}, {2, 200}, {3, 400}, {4, 800}, {5, 1600}};
   for (const auto& [refusals, ms] : waits) {
      EXPECT_EQ(countLines(log,
                           "removeIp6Prefix Segment-only prefix: 2001:db8:20::/48 removal "
                           "refused " +
                               std::to_string(refusals) + " times, next attempt in " +
                               std::to_string(ms) + " ms"),
                1u)
          << refusals;
   }
   EXPECT_EQ(*s.entry("red", "2001:db8:20::/48"), installed);
   EXPECT_EQ(*s.sw.segmentRoutesList()->routeInfoFind(key), recorded);
   EXPECT_EQ(s.count(web), 1);
   EXPECT_TRUE(s.sw.segmentIdRequest()->requestHas(SegmentIdRequestKey(VrfId(1), "web")));
   EXPECT_EQ(s.hwId("red", "2001:db8:20:1::/64"), web);
   EXPECT_TRUE(s.entry("red", "2001:db8:22::/48"));
   // Only what the hardware still carries differs from the configuration.
   EXPECT_EQ(s.sw.check(), (std::vector<Zop::String>{
                               "red 2001:db8:20::/48: unexpected routeTypeDrop adj 1048579 id 1 "
                               "(segment route)",
                               "red 2001:db8:20:1::/64: expected routeTypeForward adj 62 id 0 "
                               "(FIB route), found routeTypeForward adj 62 id 1 (FIB route)"}));

   // Once the hardware takes writes, the next retry round removes it and
   // releases the id; no review is needed from outside.
   s.sw.hardware().faultIs({VrfId(1), key.prefix()}, sim::HardwareRouteTable::Fault::none);
   s.settleAndCheck();
   EXPECT_FALSE(s.entry("red", "2001:db8:20::/48"));
   EXPECT_FALSE(s.sw.segmentIdRequest()->requestHas(SegmentIdRequestKey(VrfId(1), "web")));
   EXPECT_EQ(s.hwId("red", "2001:db8:20:1::/64"), SegmentHwId(0));
}

// Many short random histories over a small prefix space, every item a
// forced yield, the oracle after each settle. A failure prints the history.
TEST(ProcessorScenario, RandomHistoriesAgreeWithTheOracle) {
   const char* v4[] = {"10.0.0.0/8",  "10.1.0.0/16", "10.1.1.0/24", "10.1.1.1/32",
                       "10.1.2.0/24", "10.2.0.0/16", "10.1.0.0/17", "10.1.128.0/17"};
   const char* v6[] = {"2001:db8::/32", "2001:db8:1::/48", "2001:db8:1:1::/64",
                       "2001:db8:1:1::1/128", "2001:db8:2::/48"};
   const char* segs[] = {"a", "b", "c"};
   uint64_t firstSeed = 1, lastSeed = 200;
   // KIV_SEEDS=N runs seeds 1..N (a longer soak); KIV_SEED=S replays one.
   if (const char* many = std::getenv("KIV_SEEDS")) {
      lastSeed = std::strtoull(many, nullptr, 10);
   }
   if (const char* only = std::getenv("KIV_SEED")) {
      firstSeed = lastSeed = std::strtoull(only, nullptr, 10);
   }
   int events = 0;
   for (uint64_t seed = firstSeed; seed <= lastSeed; ++seed) {
      std::mt19937_64 rng(seed);
      auto pick = [&](auto& arr) { return arr[rng() % std::size(arr)]; };
      std::string history;
      auto note = [&](const std::string& line) { history += line + "\n"; };
      Scenario s(Zop::makePtr<Ruv::EveryNItemsYieldPolicy>(1));
      bool routing = rng() % 2;
      s.vrf("red", 1, routing, !routing);
      note(std::string("vrf red id 1 routing ") + (routing ? "on" : "off") + " routing6 " +
           (routing ? "off" : "on"));
      if (rng() % 2) {
         s.sw.resolver().modeIs(sim::RouteResolver::Mode::manual);
         note("resolver manual");
      }
      for (const char* seg : segs) {
         s.segment("red", seg);
      }
      for (int step = 0; step < 40; ++step, ++events) {
         const char* p = rng() % 3 ? pick(v4) : pick(v6);
         switch (rng() % 7) {
            case 0:
            case 1: {
               const char* seg = pick(segs);
               s.prefix("red", p, seg);
               note(std::string("prefix red ") + p + " " + seg);
               break;
            }
            case 2:
               if (s.sw.fwConfig()->vrf("red")->prefixListHas(pfx(p))) {
                  s.unprefix("red", p);
                  note(std::string("prefix red ") + p + " delete");
               }
               break;
            case 3: {
               uint64_t adj = 100 + rng() % 3;
               s.fib("red", p, adj);
               note(std::string("fib red ") + p + " adj " + std::to_string(adj));
               break;
            }
            case 4:
               if (s.sw.routing().fibRoutes("red").count(pfx(p))) {
                  s.unfib("red", p);
                  note(std::string("fib red ") + p + " delete");
               }
               break;
            case 5:
               if (s.sw.resolver().mode() == sim::RouteResolver::Mode::manual) {
                  if (rng() % 2) {
                     uint64_t adj = 200 + rng() % 3;
                     s.sw.resolver().resolve(VrfId(1), pfx(p), adj);
                     note(std::string("resolve red ") + p + " adj " + std::to_string(adj));
                  } else {
                     s.sw.resolver().resolveNone(VrfId(1), pfx(p));
                     note(std::string("resolve red ") + p + " none");
                  }
               }
               break;
            case 6:
               s.sw.settle();
               note("settle");
               break;
         }
         if (rng() % 5 == 0 || step == 39) {
            s.sw.settle();
            note("settle");
            ASSERT_EQ(s.sw.check(), std::vector<Zop::String>{}) << "seed " << seed << ", history:\n"
                                                                << history;
            ASSERT_EQ(s.sw.hardware().counters().errors(), 0u)
                << s.sw.hardware().errorLog().front() << "\nseed " << seed << ", history:\n"
                << history;
         }
      }
   }
   RecordProperty("events", events);
}

// ---- Broken invariants ----

TEST(ProcessorDeathTest, AddOfAnInstalledPrefixIsFatal) {
   Scenario s;
   s.vrf("red", 1);
   s.segment("red", "web");
   s.prefix("red", "10.1.0.0/16", "web");
   s.sw.settle();
   Kiv::KivSegmentHwInfo again(VrfAndIpGenPrefix(VrfId(1), pfx("10.1.0.0/16")),
                               Kiv::segmentRouteAdd, s.idOf("red", "web"));
   EXPECT_DEATH(s.sw.processor()->addIpPrefix(again),
                "assertion failed: Another add request for already installed prefix\n  source: "
                "KivSegmentSecurity/KivSegmentPrefixProcessorSm");
}

TEST(ProcessorDeathTest, CountsAndUnsupportedOperations) {
   Scenario s;
   s.vrf("red", 1);
   EXPECT_DEATH(s.sw.processor()->updatePrefixCount(SegmentHwId(9), true),
                "assertion failed: prefixCount\\(\\)->segmentPrefixCountHas\\( hwId \\)");
   s.sw.prefixCount()->segmentPrefixCountIs(Kiv::segmentPrefixCountFactory(SegmentHwId(9)));
   EXPECT_DEATH(s.sw.processor()->updatePrefixCount(SegmentHwId(9), false),
                "assertion failed: prefCnt >= 0");
   Kiv::KivSegmentHwInfo update(VrfAndIpGenPrefix(VrfId(1), pfx("10.1.0.0/16")),
                                Kiv::segmentRouteHwIdUpdate, SegmentHwId(9));
   EXPECT_DEATH(s.sw.processor()->processIpPrefix(update),
                "assertion failed: false && \"Operation not supported\"");
   EXPECT_DEATH(s.sw.processor()->updateInstalledPrefixHwId(update.vrfPrefix()),
                "assertion failed: segmentRoutesList\\(\\)->routeInfoHas\\( vrfPrefix \\)");
}

TEST(ProcessorDeathTest, MissingPlatformStateIsFatal) {
   Scenario s;
   s.vrf("red", 1);
   s.segment("red", "web");
   SegmentHwId id = s.idOf("red", "web");
   VrfAndIpGenPrefix key(VrfId(1), pfx("10.1.0.0/16"));
   // A VRF id without an L3 status entry.
   s.sw.l3Status()->vrfNameIs(VrfId(7), "ghost");
   EXPECT_DEATH(s.sw.processor()->addIpPrefix(Kiv::KivSegmentHwInfo(
                    VrfAndIpGenPrefix(VrfId(7), pfx("10.1.0.0/16")), Kiv::segmentRouteAdd, id)),
                "assertion failed: VRF L3 Status is NULL");
   // A VRF whose drop adjacency is missing.
   s.sw.l3Status()->adjacencyDel(Quarn::Fib::GlobalFecId(Quarn::Fib::GlobalFecId::kDropV4, 0,
                                                         *s.sw.routing().dropIndex("red")));
   EXPECT_DEATH(s.sw.processor()->addIpPrefix(Kiv::KivSegmentHwInfo(key, Kiv::segmentRouteAdd, id)),
                "assertion failed: Adjacency info for v4Drop not found");
   // A VRF with an id but no FIB trie.
   s.sw.routeStatus()->fibTrieDel(VrfId(1));
   s.sw.processor()->segmentPrefixTrie()->getPrefixTrie(VrfId(1), Pexo::AddressFamily::ipv4);
   EXPECT_DEATH(s.sw.processor()->syncFibRouteHwId(key, id),
                "assertion failed:  Fib trie does not exist \n  source: "
                "KivSegmentSecurity/FibRouteHwIdUpdateHelper");
}

}  // namespace
