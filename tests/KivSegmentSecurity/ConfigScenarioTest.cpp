// The configuration reactors on the simulated switch: the feature turned on
// and off through the routing handshake, uRPF conflicts, VRFs and segments
// coming and going, prefixes valid and invalid. Every scenario ends with the
// oracle finding no difference and no hw id left to a segment that is gone.

#include <gtest/gtest.h>

#include <cstdlib>
#include <random>

#include "sim/Switch.h"

namespace {

using Pexo::AddressFamily;
using Pexo::IpGenPrefix;

IpGenPrefix pfx(const char* text) {
   return Zop::strepToValue<IpGenPrefix>(text);
}

class Feature {
public:
   Feature() = default;
   explicit Feature(Zop::Ptr<Ruv::YieldPolicy> policy) : sw(std::move(policy)) {}

   void vrf(const char* name, uint32_t id, bool routing = false, bool routing6 = false) {
      ASSERT_TRUE(sw.routing().vrfAdd(name, VrfId(id), routing, routing6).ok());
   }
   void fib(const char* vrf, const char* prefix, uint64_t adj) {
      ASSERT_TRUE(sw.routing().fibAdd(vrf, pfx(prefix), adj).ok());
   }
   void prefix(const char* vrf, const char* prefix, const char* segment) {
      sw.configure(vrf, pfx(prefix), segment);
   }
   SegmentHwId idOf(const char* vrf, const char* segment) {
      auto vrfId = sw.routing().vrfId(vrf);
      if (!vrfId) {
         return SegmentHwId();
      }
      const SegmentIdStatus* s =
          sw.segmentIdResponse()->status(SegmentIdRequestKey(*vrfId, segment));
      return s ? s->hwId : SegmentHwId();
   }
   SegmentHwId hwId(const char* vrf, const char* prefix) {
      return sw.hardware().hardwareId({*sw.routing().vrfId(vrf), pfx(prefix)});
   }
   bool running() const {
      return sw.status()->enabled() && sw.status()->segmentSecuritySetupComplete();
   }
   size_t syslogCount(const std::string& name) const {
      size_t n = 0;
      for (const auto& r : sw.syslogRecords()) {
         n += r.name == name;
      }
      return n;
   }
   // Ids requested for segments that no longer exist: a leak once settled.
   std::vector<std::string> leakedIds() const {
      std::vector<std::string> leaks;
      for (const auto& key : sw.segmentIdRequest()->request()) {
         L3::VrfName name = sw.l3Status()->vrfName(key.vrfId());
         auto fwVrf = sw.fwConfig()->vrf(name);
         if (!running() || !fwVrf || !fwVrf->segment(key.segment())) {
            leaks.push_back(valueToStrep(key));
         }
      }
      std::sort(leaks.begin(), leaks.end());
      return leaks;
   }
   void settleAndCheck() {
      sw.settle();
      EXPECT_EQ(sw.check(), std::vector<Zop::String>{});
      EXPECT_EQ(leakedIds(), std::vector<std::string>{});
      EXPECT_EQ(sw.hardware().counters().errors(), 0u)
          << (sw.hardware().errorLog().empty() ? "" : sw.hardware().errorLog().front());
   }

   sim::Switch sw;
};

// "Two VRFs": red (routing off) and blue (IPv4 routing on), nested segment
// prefixes with FIB routes beneath.
void twoVrfs(Feature& f) {
   f.vrf("red", 1);
   f.vrf("blue", 2, true);
   f.fib("red", "10.1.1.0/24", 11);
   f.fib("red", "10.1.2.0/24", 12);
   f.fib("blue", "10.0.0.0/8", 21);
   f.fib("blue", "10.7.1.0/24", 22);
   f.prefix("red", "10.1.0.0/16", "web");
   f.prefix("red", "10.1.2.0/23", "db");
   f.prefix("red", "2001:db8::/32", "web");
   f.prefix("blue", "10.7.0.0/16", "app");
}

TEST(ConfigScenario, EnableRunsTheHandshakeThenTheVrfs) {
   Feature f;
   twoVrfs(f);
   f.settleAndCheck();
   EXPECT_FALSE(f.running());
   EXPECT_EQ(f.sw.segmentIdRequest()->request().size(), 0u);

   f.sw.firewallIs(true);
   f.settleAndCheck();
   ASSERT_TRUE(f.running());
   EXPECT_EQ(f.sw.status()->segmentSecurityRoutingDisable(), 1u);
   EXPECT_EQ(f.sw.status()->segmentSecurityRoutingEnable(), 1u);
   EXPECT_EQ(f.sw.status()->waitForSegmentSecurityRoutingDisabledCnt(), 1u);
   EXPECT_EQ(f.sw.root()->vrfSmCount(), 2u);
   EXPECT_TRUE(f.sw.multicastStatus()->hwRouting());
   EXPECT_EQ(f.hwId("red", "10.1.1.0/24"), f.idOf("red", "web"));
   EXPECT_EQ(f.hwId("red", "10.1.2.0/24"), f.idOf("red", "db"));
   EXPECT_EQ(f.hwId("blue", "10.7.1.0/24"), f.idOf("blue", "app"));

   // Off and on again: the teardown leaves nothing, the second run is like
   // the first.
   f.sw.firewallIs(false);
   f.settleAndCheck();
   EXPECT_FALSE(f.running());
   EXPECT_EQ(f.sw.segmentRoutesList()->routeInfoCount(), 0u);
   EXPECT_TRUE(f.sw.allocator().grants().empty());
   EXPECT_EQ(f.hwId("red", "10.1.1.0/24"), SegmentHwId(0));
   f.sw.firewallIs(true);
   f.settleAndCheck();
   EXPECT_TRUE(f.running());
   EXPECT_EQ(f.sw.status()->segmentSecurityRoutingEnable(), 3u);
}

TEST(ConfigScenario, OldRoutesAreClearedBeforeTheVrfsStart) {
   Feature f;
   f.vrf("red", 1);
   f.prefix("red", "10.1.0.0/16", "web");
   // A route of a previous run: recorded, counted, in hardware.
   VrfAndIpGenPrefix stale(VrfId(1), pfx("10.9.0.0/16"));
   RouteInfo drop(RouteType::routeTypeDrop, 5);
   ASSERT_TRUE(f.sw.hardware().programRoute({VrfId(1), pfx("10.9.0.0/16")}, RouteInfo(), drop));
   f.sw.segmentRoutesList()->routeInfoIs(Kiv::KivSegmentRouteInfo(stale, SegmentHwId(77), drop));
   auto counter = Kiv::segmentPrefixCountFactory(SegmentHwId(77));
   counter->prefixCountIs(1);
   f.sw.prefixCount()->segmentPrefixCountIs(counter);

   f.sw.firewallIs(true);
   EXPECT_TRUE(f.sw.status()->waitForRoutesCleanup());
   EXPECT_EQ(f.sw.root()->vrfSmCount(), 0u);
   f.settleAndCheck();
   EXPECT_TRUE(f.running());
   EXPECT_FALSE(f.sw.hardware().entry({VrfId(1), pfx("10.9.0.0/16")}));
   EXPECT_EQ(f.hwId("red", "10.1.0.0/16"), f.idOf("red", "web"));
}

// A teardown does not finish while a route it must remove stays in hardware:
// the feature waits, holding the route's id, instead of reporting a clean
// teardown. Once the hardware takes writes again, the removal's next retry
// ends it, with no further change from outside.
TEST(ConfigScenario, TeardownWaitsForARouteTheHardwareKeeps) {
   Feature f(Zop::makePtr<Ruv::EveryNItemsYieldPolicy>(1));
   f.vrf("red", 1);
   f.fib("red", "10.30.1.0/24", 31);
   f.prefix("red", "10.30.0.0/16", "web");
   f.prefix("red", "10.31.0.0/16", "db");
   f.sw.firewallIs(true);
   f.settleAndCheck();
   const sim::HardwareRouteTable::Key stuck{VrfId(1), pfx("10.30.0.0/16")};
   f.sw.hardware().faultIs(stuck, sim::HardwareRouteTable::Fault::always);

   f.sw.firewallIs(false);
   f.sw.settle();
   EXPECT_FALSE(f.running());
   EXPECT_TRUE(f.sw.status()->waitForRoutesCleanup());
   EXPECT_TRUE(f.sw.status()->segmentSecuritySetupComplete());
   EXPECT_TRUE(f.sw.hardware().entry(stuck));
   EXPECT_EQ(f.sw.segmentRoutesList()->routeInfoCount(), 1u);
   EXPECT_FALSE(f.sw.hardware().entry({VrfId(1), pfx("10.31.0.0/16")}));
   // One attempt in the settle's run, one in its retry round.
   EXPECT_EQ(f.sw.hardware().counters().refusals, 2u);
   // The id stays with the route that carries it; the other one is gone.
   EXPECT_EQ(f.leakedIds(),
             std::vector<std::string>{valueToStrep(SegmentIdRequestKey(VrfId(1), "web"))});

   f.sw.settle();
   EXPECT_TRUE(f.sw.status()->waitForRoutesCleanup());
   EXPECT_EQ(f.sw.hardware().counters().refusals, 3u);

   f.sw.hardware().faultIs(stuck, sim::HardwareRouteTable::Fault::none);
   f.settleAndCheck();
   EXPECT_FALSE(f.sw.status()->waitForRoutesCleanup());
   EXPECT_FALSE(f.sw.status()->segmentSecuritySetupComplete());
   EXPECT_EQ(f.sw.segmentRoutesList()->routeInfoCount(), 0u);
   EXPECT_FALSE(f.sw.hardware().entry(stuck));
   EXPECT_EQ(f.hwId("red", "10.30.1.0/24"), SegmentHwId(0));
}

TEST(ConfigScenario, HandshakeWaitsForABusyRoutingLayerAndAnUnreadyHelper) {
   Feature f;
   twoVrfs(f);
   f.sw.routingStatusHelper()->readyIs(false);
   f.sw.firewallIs(true);
   f.sw.settle();
   // Stage 1 turns the feature off until the helper's readiness brings the
   // next enable decision; no disable was asked for.
   EXPECT_FALSE(f.sw.status()->enabled());
   EXPECT_FALSE(f.sw.status()->segmentSecuritySetupComplete());
   EXPECT_EQ(f.sw.status()->segmentSecurityRoutingDisable(), 0u);
   f.sw.routingStatusHelper()->readyIs(true);
   f.settleAndCheck();
   EXPECT_TRUE(f.running());

   // A teardown while the routing layer is held busy waits in stage 2.
   f.sw.routingLayer().heldIs(true);
   f.sw.firewallIs(false);
   f.sw.settle();
   EXPECT_TRUE(f.sw.status()->segmentSecurityRoutingDisableDone());
   EXPECT_TRUE(f.sw.status()->segmentSecuritySetupComplete());
   EXPECT_TRUE(f.sw.l3Status()->waitForRoutingDisabledInVrfs());
   f.sw.routingLayer().heldIs(false);
   f.settleAndCheck();
   EXPECT_FALSE(f.sw.status()->segmentSecuritySetupComplete());
   EXPECT_FALSE(f.sw.status()->segmentSecurityRoutingDisableDone());
   EXPECT_TRUE(f.sw.multicastStatus()->hwRouting());  // routing is never left off
}

TEST(ConfigScenario, UrpfWinsWithOneSyslogPerConflict) {
   const std::string conflict = "SECURITY_SEGMENTATION_URPF_CONFIGURATION_CONFLICT";
   Feature f;
   twoVrfs(f);
   f.sw.firewallIs(true);
   f.settleAndCheck();
   ASSERT_TRUE(f.running());

   f.sw.urpfIs(AddressFamily::ipv6, true);
   f.settleAndCheck();
   EXPECT_FALSE(f.sw.status()->enabled());
   EXPECT_EQ(f.sw.root()->vrfSmCount(), 0u);
   EXPECT_EQ(f.syslogCount(conflict), 1u);
   f.sw.urpfIs(AddressFamily::ipv4, true);  // the same conflict, again
   f.settleAndCheck();
   EXPECT_EQ(f.syslogCount(conflict), 1u);

   f.sw.urpfIs(AddressFamily::ipv4, false);
   f.sw.urpfIs(AddressFamily::ipv6, false);
   f.settleAndCheck();
   EXPECT_TRUE(f.running());
   f.sw.urpfIs(AddressFamily::ipv4, true);
   f.settleAndCheck();
   EXPECT_EQ(f.syslogCount(conflict), 2u);
   EXPECT_EQ(f.sw.syslogRecords().back().text,
             "Segment Security feature disabled because of conflicting URPF configuration");
}

TEST(ConfigScenario, UrpfConfiguredBeforeStartIsSeen) {
   Feature f;
   twoVrfs(f);
   f.sw.root()->initializedIs(false);
   f.sw.urpfIs(AddressFamily::ipv4, true);
   f.sw.firewallIs(true);
   f.sw.root()->initializedIs(true);
   f.settleAndCheck();
   EXPECT_FALSE(f.sw.status()->enabled());
   EXPECT_EQ(f.syslogCount("SECURITY_SEGMENTATION_URPF_CONFIGURATION_CONFLICT"), 1u);
}

TEST(ConfigScenario, VrfsComeAndGoInEitherOrder) {
   for (bool configFirst : {true, false}) {
      SCOPED_TRACE(configFirst);
      Feature f;
      twoVrfs(f);
      f.prefix("green", "10.5.0.0/16", "web");  // no L3 VRF yet
      f.sw.firewallIs(true);
      f.settleAndCheck();
      EXPECT_FALSE(f.sw.root()->vrfSm("green"));
      f.vrf("green", 3);
      f.fib("green", "10.5.5.0/24", 31);
      f.settleAndCheck();
      ASSERT_TRUE(f.sw.root()->vrfSm("green"));
      EXPECT_EQ(f.hwId("green", "10.5.5.0/24"), f.idOf("green", "web"));

      if (configFirst) {
         ASSERT_TRUE(f.sw.config().fwVrfDelete("red").ok());
         f.settleAndCheck();
         ASSERT_TRUE(f.sw.routing().vrfDelete("red").ok());
      } else {
         ASSERT_TRUE(f.sw.routing().vrfDelete("red").ok());
         f.settleAndCheck();
         ASSERT_TRUE(f.sw.config().fwVrfDelete("red").ok());
      }
      f.settleAndCheck();
      EXPECT_FALSE(f.sw.root()->vrfSm("red"));
      for (const auto& [key, route] : f.sw.segmentRoutesList()->routeInfo()) {
         EXPECT_NE(key.vrfId(), VrfId(1));
      }
   }
}

TEST(ConfigScenario, SegmentsBeforeAndAfterTheirIdIsGranted) {
   Feature f;
   f.vrf("red", 1);
   f.sw.allocator().modeIs(sim::HwIdAllocator::Mode::manual);
   f.sw.firewallIs(true);
   f.settleAndCheck();
   f.prefix("red", "10.1.0.0/16", "web");
   f.sw.segmentAdd("red", "idle");
   f.sw.settle();
   EXPECT_EQ(f.sw.allocator().pendingRequests().size(), 2u);
   EXPECT_EQ(f.sw.segmentRoutesList()->routeInfoCount(), 0u);

   // Deleted before its id came: the request goes.
   ASSERT_TRUE(f.sw.segmentDelete("red", "idle").ok());
   f.sw.settle();
   EXPECT_EQ(f.sw.allocator().pendingRequests().size(), 1u);

   ASSERT_TRUE(f.sw.allocator().grant(SegmentIdRequestKey(VrfId(1), "web")).ok());
   f.settleAndCheck();
   EXPECT_EQ(f.hwId("red", "10.1.0.0/16"), f.idOf("red", "web"));

   // Deleted after: its prefixes leave hardware and the id is released.
   ASSERT_TRUE(f.sw.segmentDelete("red", "web").ok());
   f.settleAndCheck();
   EXPECT_EQ(f.sw.segmentRoutesList()->routeInfoCount(), 0u);
   EXPECT_TRUE(f.sw.allocator().grants().empty());
}

TEST(ConfigScenario, InvalidPrefixesAreReportedOnceAndPrefixesMove) {
   Feature f;
   f.vrf("red", 1);
   f.fib("red", "10.1.1.0/24", 11);
   f.sw.firewallIs(true);
   f.settleAndCheck();
   f.prefix("red", "10.3.0.5/24", "web");   // host bits set
   f.prefix("red", "224.1.0.0/16", "web");  // multicast
   f.prefix("red", "0.0.0.0/0", "web");
   f.prefix("red", "10.2.0.1/32", "web");  // a host prefix is fine
   f.prefix("red", "10.1.0.0/16", "web");
   f.settleAndCheck();
   std::vector<std::string> texts;
   for (const auto& r : f.sw.syslogRecords()) {
      texts.push_back(r.line());
   }
   EXPECT_EQ(texts, (std::vector<std::string>{
                        "SECURITY_SEGMENTATION_INVALID_PREFIX: Invalid prefix (10.3.0.5/24) "
                        "configuration",
                        "SECURITY_SEGMENTATION_INVALID_PREFIX: Invalid prefix (224.1.0.0/16) "
                        "configuration",
                        "SECURITY_SEGMENTATION_INVALID_PREFIX: Invalid prefix (0.0.0.0/0) "
                        "configuration"}));
   EXPECT_EQ(f.hwId("red", "10.2.0.1/32"), f.idOf("red", "web"));

   // The segment's prefixes are processed again (a new segment joins, the id
   // is notified again): no second report. Removing one raises nothing.
   f.sw.segmentAdd("red", "db");
   f.prefix("red", "10.1.0.0/16", "db");  // moved
   f.settleAndCheck();
   ASSERT_TRUE(f.sw.unconfigure("red", pfx("224.1.0.0/16")).ok());
   f.settleAndCheck();
   EXPECT_EQ(f.sw.syslogRecords().size(), 3u);
   EXPECT_EQ(f.hwId("red", "10.1.1.0/24"), f.idOf("red", "db"));
   EXPECT_EQ(f.sw.prefixCount()->segmentPrefixCount(f.idOf("red", "db"))->prefixCount(), 1);
}

// Random histories of configuration and platform events, a forced yield at
// every item, the oracle and the leak check after each settle.
TEST(ConfigScenario, RandomHistoriesAgreeWithTheOracle) {
   const char* prefixes[] = {"10.0.0.0/8",    "10.1.0.0/16",     "10.1.1.0/24",
                             "10.1.1.1/32",   "10.2.0.0/16",     "10.1.0.5/24",
                             "2001:db8::/32", "2001:db8:1::/48", "224.0.0.0/8"};
   const char* vrfs[] = {"red", "blue"};
   const char* segs[] = {"a", "b"};
   uint64_t firstSeed = 1, lastSeed = 100;
   if (const char* many = std::getenv("KIV_SEEDS")) {
      lastSeed = std::strtoull(many, nullptr, 10);
   }
   if (const char* only = std::getenv("KIV_SEED")) {
      firstSeed = lastSeed = std::strtoull(only, nullptr, 10);
   }
   // How often a check met the feature running with routes installed, and
   // off: both must be common or the histories prove little.
   size_t checks = 0, withRoutes = 0, off = 0;
   for (uint64_t seed = firstSeed; seed <= lastSeed; ++seed) {
      std::mt19937_64 rng(seed);
      auto pick = [&](auto& arr) { return arr[rng() % std::size(arr)]; };
      std::string history;
      auto note = [&](const std::string& line) { history += line + "\n"; };
      Feature f(Zop::makePtr<Ruv::EveryNItemsYieldPolicy>(1));
      f.vrf("red", 1);
      f.vrf("blue", 2, true, true);
      f.sw.firewallIs(true);
      note("vrf red id 1\nvrf blue id 2 routing on routing6 on\nfirewall on");
      for (int step = 0; step < 40; ++step) {
         const char* vrf = pick(vrfs);
         const char* p = pick(prefixes);
         std::string line;
         switch (rng() % 12) {
            case 0:
            case 1:
            case 2:
               f.prefix(vrf, p, pick(segs));
               line = std::string("prefix ") + vrf + " " + p;
               break;
            case 3:
               (void)f.sw.unconfigure(vrf, pfx(p));
               line = std::string("prefix ") + vrf + " " + p + " delete";
               break;
            case 4:
               if (pfx(p).validAsPrefix() && f.sw.routing().vrfId(vrf)) {
                  (void)f.sw.routing().fibAdd(vrf, pfx(p), 100 + rng() % 3);
                  line = std::string("fib ") + vrf + " " + p;
               }
               break;
            case 5:
               if (f.sw.routing().vrfId(vrf)) {
                  (void)f.sw.routing().fibDelete(vrf, pfx(p));
                  line = std::string("fib ") + vrf + " " + p + " delete";
               }
               break;
            case 6: {
               const char* seg = pick(segs);
               (void)f.sw.segmentDelete(vrf, seg);
               line = std::string("segment ") + vrf + " " + seg + " delete";
               break;
            }
            case 7: {
               bool on = rng() % 3 != 0;
               f.sw.firewallIs(on);
               line = std::string("firewall ") + (on ? "on" : "off");
               break;
            }
            case 8:
               if (rng() % 3 == 0) {
                  bool on = rng() % 2;
                  f.sw.urpfIs(AddressFamily::ipv4, on);
                  line = std::string("urpf ipv4 ") + (on ? "on" : "off");
               }
               break;
            case 9:
               if (f.sw.routing().vrfId("blue")) {
                  (void)f.sw.routing().vrfDelete("blue");
                  line = "vrf blue delete";
               } else {
                  f.vrf("blue", 2, true, true);
                  line = "vrf blue id 2";
               }
               break;
            case 10:
               if (rng() % 3 == 0) {
                  (void)f.sw.config().fwVrfDelete(vrf);
                  line = std::string("fw-vrf ") + vrf + " delete";
               }
               break;
            default:
               f.sw.settle();
               line = "settle";
               break;
         }
         if (!line.empty()) {
            note(line);
         }
         if (rng() % 6 == 0 || step == 39) {
            f.sw.settle();
            note("settle");
            ++checks;
            withRoutes += f.running() && f.sw.segmentRoutesList()->routeInfoCount() > 0;
            off += !f.running();
            ASSERT_EQ(f.sw.check(), std::vector<Zop::String>{}) << "seed " << seed << ", history:\n"
                                                                << history;
            ASSERT_EQ(f.leakedIds(), std::vector<std::string>{})
                << "seed " << seed << ", history:\n"
                << history;
            ASSERT_EQ(f.sw.hardware().counters().errors(), 0u)
                << f.sw.hardware().errorLog().front() << "\nseed " << seed << ", history:\n"
                << history;
         }
      }
   }
   if (firstSeed != lastSeed) {
      EXPECT_GT(withRoutes * 4, checks) << withRoutes << " of " << checks;
      EXPECT_GT(off * 10, checks) << off << " of " << checks;
   }
   RecordProperty("checks", int(checks));
   RecordProperty("withRoutes", int(withRoutes));
}

}  // namespace

namespace {

// A VRF reactor on its own, over a switch whose configuration side is played
// by hand (no root reactor).
struct LoneVrfReactor {
   sim::Switch sw{sim::Switch::Options{.yieldPolicy = nullptr, .manualConfiguration = true}};
   Zop::Ptr<Kiv::KivSegmentSecurityVrfSm> sm;
   LoneVrfReactor() {
      EXPECT_TRUE(sw.routing().vrfAdd("red", VrfId(1), false, false).ok());
      sw.configure("red", pfx("10.1.0.0/16"), "web");
      auto fwVrf = sw.fwConfig()->vrf("red");
      sm = Kiv::kivSegmentSecurityVrfSmFactory("red", fwVrf, fwVrf->segmentDir(), sw.fwConfig(),
                                               sw.segmentReviewList(), sw.segmentIdRequest(),
                                               sw.segmentIdResponse(), VrfId(1), sw.prefixCount(),
                                               sw.segmentRoutesList(), sw.counters());
   }
};

TEST(ConfigDeathTest, VrfReactorCountersMustBeConsistent) {
   LoneVrfReactor r;
   EXPECT_DEATH(r.sm->processSegmentPrefix("web", true),
                "assertion failed: segmentIdStatus\\(\\)->statusHas\\( segKey \\)\n  source: "
                "KivSegmentSecurity/KivSegmentPrefixFirewallConfigSm");
   // An id granted to a new owner while the previous owner's prefixes are
   // still counted.
   auto busy = Kiv::segmentPrefixCountFactory(SegmentHwId(40));
   busy->prefixCountIs(2);
   r.sw.prefixCount()->segmentPrefixCountIs(busy);
   r.sm->initializedIs(true);
   EXPECT_DEATH(
       r.sw.segmentIdResponse()->statusIs(SegmentIdRequestKey(VrfId(1), "web"), {SegmentHwId(40)}),
       "Previous segment still had pending items");
   // A prefix added for a granted id that has no counter.
   r.sw.prefixCount()->segmentPrefixCountDel(SegmentHwId(40));
   r.sw.segmentIdResponse()->statusIs(SegmentIdRequestKey(VrfId(1), "web"), {SegmentHwId(41)});
   r.sw.prefixCount()->segmentPrefixCountDel(SegmentHwId(41));
   EXPECT_DEATH(r.sw.configure("red", pfx("10.2.0.0/16"), "web"),
                "assertion failed: prefixCount\\(\\)->segmentPrefixCountHas\\( hwId \\)");
}

}  // namespace
