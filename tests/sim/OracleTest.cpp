// The oracle on hand-built switch states: it must accept the right hardware
// and name every wrong entry.

#include "sim/Oracle.h"

#include <gtest/gtest.h>

#include "SimFixture.h"

using Quarn::Fib::GlobalFecId;
using simtest::hwKey;
using simtest::pfx;
using Lines = std::vector<Zop::String>;

namespace {

const RouteInfo kRedDrop4(RouteType::routeTypeDrop,
                          sim::RoutingAgent::dropL2Index(1, Pexo::AddressFamily::ipv4));
const RouteInfo kRedDrop6(RouteType::routeTypeDrop,
                          sim::RoutingAgent::dropL2Index(1, Pexo::AddressFamily::ipv6));

// "Nested segments, FIB routes beneath": VRF red (id 1, routing off) with
//   segment web (id 5): 10.0.0.0/8, 2001:db8::/32
//   segment db  (id 6): 10.1.0.0/16, itself a FIB route
//   FIB routes 10.1.0.0/16 (adj 8), 10.1.1.0/24 (adj 7), 192.168.0.0/16 (adj 9),
//              2001:db8:1::/48 (adj 11)
// plus configuration that must not count: a prefix with host bits, a
// multicast and a default prefix, a prefix of a deleted (but granted)
// segment, a prefix of a segment without a grant, and a firewall VRF
// without a VRF id. The hardware is then set as it must be.
struct NestedSegments : simtest::Platform {
   NestedSegments() {
      EXPECT_TRUE(routing.vrfAdd("red", VrfId(1), false, false).ok());
      EXPECT_TRUE(routing.fibAdd("red", pfx("10.1.0.0/16"), 8).ok());
      EXPECT_TRUE(routing.fibAdd("red", pfx("10.1.1.0/24"), 7).ok());
      EXPECT_TRUE(routing.fibAdd("red", pfx("192.168.0.0/16"), 9).ok());
      EXPECT_TRUE(routing.fibAdd("red", pfx("2001:db8:1::/48"), 11).ok());
      config.configure("red", pfx("10.0.0.0/8"), "web");
      config.configure("red", pfx("2001:db8::/32"), "web");
      config.configure("red", pfx("10.1.0.0/16"), "db");
      config.configure("red", pfx("10.2.3.4/16"), "web");
      config.configure("red", pfx("224.0.0.0/4"), "web");
      config.configure("red", pfx("0.0.0.0/0"), "web");
      config.configure("red", pfx("10.9.0.0/16"), "gone");
      config.configure("red", pfx("10.8.0.0/16"), "fresh");
      config.configure("green", pfx("10.0.0.0/8"), "web");

      allocator.modeIs(sim::HwIdAllocator::Mode::manual);
      for (const char* segment : {"web", "db", "gone"}) {
         EXPECT_TRUE(config.requestId("red", segment).ok());
      }
      settle();
      EXPECT_TRUE(allocator.grant(SegmentIdRequestKey(VrfId(1), "web"), SegmentHwId(5)).ok());
      EXPECT_TRUE(allocator.grant(SegmentIdRequestKey(VrfId(1), "db"), SegmentHwId(6)).ok());
      EXPECT_TRUE(allocator.grant(SegmentIdRequestKey(VrfId(1), "gone"), SegmentHwId(7)).ok());
      EXPECT_TRUE(config.segmentDelete("red", "gone").ok());
      settle();

      program("10.0.0.0/8", kRedDrop4, 5);
      program("2001:db8::/32", kRedDrop6, 5);
      writeId("10.1.0.0/16", 6);
      writeId("10.1.1.0/24", 6);
      writeId("2001:db8:1::/48", 5);
   }
   void program(const char* p, const RouteInfo& r, uint16_t id) {
      const auto* e = hardware->entry(hwKey(1, p));
      EXPECT_TRUE(hardware->programRoute(hwKey(1, p), e ? e->routeInfo : RouteInfo(), r));
      if (!r.empty()) {
         writeId(p, id);
      }
   }
   void writeId(const char* p, uint16_t id) {
      EXPECT_TRUE(hardware->hardwareIdIs(hwKey(1, p), SegmentHwId(id)));
   }
};

}  // namespace

TEST(SimOracle, AcceptsTheRightHardwareAndNamesEveryWrongEntry) {
   NestedSegments s;
   EXPECT_EQ(s.oracle().check(), Lines());
   EXPECT_EQ(s.oracle().expected().entries.size(), 6u);
   // The configuration side created a counter for each grant.
   EXPECT_TRUE(s.prefixCount->segmentPrefixCountHas(SegmentHwId(5)));
   EXPECT_TRUE(s.prefixCount->segmentPrefixCountHas(SegmentHwId(7)));

   s.writeId("10.1.1.0/24", 5);              // the shorter segment's id
   s.program("10.0.0.0/8", RouteInfo(), 0);  // a segment route lost
   s.program("10.9.0.0/16", kRedDrop4, 0);   // a segment that is gone
   s.writeId("192.168.0.0/16", 65535);       // outside every segment
   s.hardware->fibRouteIs(hwKey(1, "2001:db8:1::/48"), RouteInfo(RouteType::routeTypeForward, 12));
   EXPECT_EQ(
       s.oracle().check(),
       (Lines{"red 10.0.0.0/8: missing, expected routeTypeDrop adj 1048578 id 5 (segment route)",
              "red 10.1.1.0/24: expected routeTypeForward adj 7 id 6 (FIB route), found "
              "routeTypeForward adj 7 id 5 (FIB route)",
              "red 10.9.0.0/16: unexpected routeTypeDrop adj 1048578 id 0 (segment route)",
              "red 192.168.0.0/16: expected routeTypeForward adj 9 id 0 (FIB route), found "
              "routeTypeForward adj 9 id 65535 (FIB route)",
              "red 2001:db8:1::/48: expected routeTypeForward adj 11 id 5 (FIB route), found "
              "routeTypeForward adj 12 id 5 (FIB route)"}));

   // Published state the rules need but do not find is named as well.
   s.l3Status->adjacencyDel(GlobalFecId(GlobalFecId::kDropV6, 0, 1));
   const Lines lines = s.oracle().check();
   EXPECT_EQ(std::count(lines.begin(), lines.end(),
                        "red 2001:db8::/32: no drop adjacency (drop index 1)"),
             1);
   EXPECT_EQ(std::count(lines.begin(), lines.end(),
                        "red 2001:db8::/32: unexpected routeTypeDrop adj 1048579 id 5 (segment "
                        "route)"),
             1);

   // With the feature stopped (the firewall off), no segment prefix counts.
   sim::Oracle::Inputs stopped = s.inputs();
   stopped.status = Zop::makePtr<SegmentSecurityStatus>();
   s.fwConfig->fwActiveIs(false);
   const auto ex = sim::Oracle(stopped).expected();
   EXPECT_EQ(ex.entries.size(), 4u);
   for (const auto& [key, entry] : ex.entries) {
      EXPECT_EQ(entry.classId, SegmentHwId(0)) << sim::keyText(key);
   }
}

// The library's records against the hardware: a second view that holds
// whatever the configuration says.
TEST(SimOracle, NamesEveryDifferenceBetweenTheRecordsAndTheHardware) {
   NestedSegments s;
   auto records = Kiv::kivSegmentRouteInfoCollFactory();
   auto record = [&](const char* p, uint16_t id, const RouteInfo& r) {
      records->routeInfoIs(
          Kiv::KivSegmentRouteInfo(VrfAndIpGenPrefix(VrfId(1), pfx(p)), SegmentHwId(id), r));
   };
   record("10.0.0.0/8", 5, kRedDrop4);
   record("2001:db8::/32", 5, kRedDrop6);
   record("10.1.0.0/16", 6, RouteInfo(RouteType::routeTypeForward, 8));
   sim::Oracle::Inputs in = s.inputs();
   in.segmentRoutes = records;
   const sim::Oracle oracle(in);
   EXPECT_EQ(oracle.check(), Lines());

   // A prefix saved until the resolver answers claims no hardware, but the
   // FIB routes beneath it carry its id.
   record("192.168.0.0/16", 9, RouteInfo());
   EXPECT_EQ(oracle.check(), Lines{"red 192.168.0.0/16: FIB route carries id 0, the records give "
                                   "it id 9"});
   records->routeInfoDel(VrfAndIpGenPrefix(VrfId(1), pfx("192.168.0.0/16")));

   record("10.8.0.0/16", 9, kRedDrop4);     // claims hardware it is not in
   record("2001:db8::/32", 4, kRedDrop6);   // another id than the hardware's
   s.program("10.9.0.0/16", kRedDrop4, 5);  // in hardware, not recorded
   record("10.2.0.0/16", 5, RouteInfo());   // saved ...
   s.program("10.2.0.0/16", kRedDrop4, 5);  // ... yet in hardware
   EXPECT_EQ(oracle.check(),
             (Lines{"red 10.2.0.0/16: routeTypeDrop adj 1048578 id 5 (segment route) in hardware "
                    "without a record that claims it",
                    "red 10.2.0.0/16: unexpected routeTypeDrop adj 1048578 id 5 (segment route)",
                    "red 10.8.0.0/16: record routeTypeDrop adj 1048578 id 9, not in hardware",
                    "red 10.9.0.0/16: routeTypeDrop adj 1048578 id 5 (segment route) in hardware "
                    "without a record",
                    "red 10.9.0.0/16: unexpected routeTypeDrop adj 1048578 id 5 (segment route)",
                    "red 2001:db8::/32: record routeTypeDrop adj 1048579 id 4, hardware holds "
                    "routeTypeDrop adj 1048579 id 5 (segment route)",
                    "red 2001:db8:1::/48: FIB route carries id 5, the records give it id 4"}));

   // Without the records given, only the expectation is judged.
   in.segmentRoutes = nullptr;
   EXPECT_EQ(sim::Oracle(in).check(),
             (Lines{"red 10.2.0.0/16: unexpected routeTypeDrop adj 1048578 id 5 (segment route)",
                    "red 10.9.0.0/16: unexpected routeTypeDrop adj 1048578 id 5 (segment route)"}));
}

TEST(SimOracle, RoutingEnabledPrefixesFollowTheResolver) {
   simtest::Platform p;
   ASSERT_TRUE(p.routing.vrfAdd("blue", VrfId(2), true, false).ok());
   ASSERT_TRUE(p.routing.fibAdd("blue", pfx("172.0.0.0/8"), 50).ok());
   p.config.configure("blue", pfx("172.16.0.0/16"), "app");
   p.config.configure("blue", pfx("2001:db8::/32"), "app");
   ASSERT_TRUE(p.config.requestId("blue", "app").ok());
   p.settle();
   const uint16_t id = p.responses->status(SegmentIdRequestKey(VrfId(2), "app"))->hwId.value();
   const auto key = hwKey(2, "172.16.0.0/16");
   const RouteInfo drop6(RouteType::routeTypeDrop,
                         sim::RoutingAgent::dropL2Index(1, Pexo::AddressFamily::ipv6));
   ASSERT_TRUE(p.hardware->programRoute(hwKey(2, "2001:db8::/32"), {}, drop6));
   ASSERT_TRUE(p.hardware->hardwareIdIs(hwKey(2, "2001:db8::/32"), SegmentHwId(id)));
   const sim::HardwareRouteTable::Entry fibEntry{RouteInfo(RouteType::routeTypeForward, 50),
                                                 SegmentHwId(0),
                                                 sim::HardwareRouteTable::Owner::fibRoute};

   // Not answered: nothing may be in hardware for it.
   EXPECT_EQ(p.oracle().check(), Lines());
   ASSERT_TRUE(p.hardware->programRoute(key, {}, RouteInfo(RouteType::routeTypeDrop, 1)));
   EXPECT_EQ(p.oracle().check(),
             Lines{"blue 172.16.0.0/16: unexpected routeTypeDrop adj 1 id 0 (segment route)"});

   // Answered with the covering FIB route.
   p.watch(2, "172.16.0.0/16");
   p.settle();
   EXPECT_EQ(
       p.oracle().expected().entries.at(key),
       (sim::HardwareRouteTable::Entry{RouteInfo(RouteType::routeTypeForward, 50), SegmentHwId(id),
                                       sim::HardwareRouteTable::Owner::segmentRoute}));
   EXPECT_EQ(p.oracle().expected().entries.at(hwKey(2, "172.0.0.0/8")), fibEntry)
       << "a FIB route above a segment prefix keeps id 0";
   ASSERT_TRUE(p.hardware->programRoute(key, RouteInfo(RouteType::routeTypeDrop, 1),
                                        RouteInfo(RouteType::routeTypeForward, 50)));
   ASSERT_TRUE(p.hardware->hardwareIdIs(key, SegmentHwId(id)));
   EXPECT_EQ(p.oracle().check(), Lines());

   // Answered without a next hop: the drop route.
   p.resolver.modeIs(sim::RouteResolver::Mode::manual);
   p.resolver.resolveNone(VrfId(2), pfx("172.16.0.0/16"));
   p.settle();
   EXPECT_EQ(p.oracle().check(),
             Lines{"blue 172.16.0.0/16: expected routeTypeDrop adj 1048578 id " +
                   std::to_string(id) + " (segment route), found routeTypeForward adj 50 id " +
                   std::to_string(id) + " (segment route)"});
}

TEST(SimOracle, WhetherTheFeatureRunsComesFromTheInputsAndTheStatusMustAgree) {
   NestedSegments s;
   // A grant nobody asked for, in a VRF the L3 status does not know.
   s.responses->statusIs(SegmentIdRequestKey(VrfId(9), "orphan"), {SegmentHwId(8)});
   auto status = Zop::makePtr<SegmentSecurityStatus>();
   auto ip = Zop::makePtr<Ip::Status>();
   auto ip6 = Zop::makePtr<Ip6::Status>();
   auto multicast = Zop::makePtr<Routing::Multicast::Fib::Hardware::Status>();
   auto helper = Zop::makePtr<sim::RoutingStatusHelper>();
   sim::Oracle::Inputs in = s.inputs();
   in.status = status;
   in.segmentIdRequest = s.requests;
   in.ipStatus = ip;
   in.ip6Status = ip6;
   in.multicastStatus = multicast;
   in.routingHelper = helper;
   const sim::Oracle oracle(in);

   const Lines offLines{
       "red 10.0.0.0/8: unexpected routeTypeDrop adj 1048578 id 5 (segment route)",
       "red 10.1.0.0/16: expected routeTypeForward adj 8 id 0 (FIB route), found "
       "routeTypeForward adj 8 id 6 (FIB route)",
       "red 10.1.1.0/24: expected routeTypeForward adj 7 id 0 (FIB route), found "
       "routeTypeForward adj 7 id 6 (FIB route)",
       "red 2001:db8::/32: unexpected routeTypeDrop adj 1048579 id 5 (segment route)",
       "red 2001:db8:1::/48: expected routeTypeForward adj 11 id 0 (FIB route), found "
       "routeTypeForward adj 11 id 5 (FIB route)",
       "red segment 'db': id request left while the feature is off",
       "red segment 'gone': id request left while the feature is off",
       "red segment 'web': id request left while the feature is off",
       "vrf#9 segment 'orphan': id 8 granted without a request while the feature is off"};
   auto with = [](Lines lines, const char* first) {
      lines.insert(lines.begin(), first);
      return lines;
   };

   // The firewall off: the feature must be off, whatever the status says.
   s.fwConfig->fwActiveIs(false);
   EXPECT_EQ(oracle.check(), offLines);
   status->enabledIs(true);
   status->segmentSecuritySetupCompleteIs(true);
   EXPECT_EQ(oracle.check(),
             with(offLines,
                  "feature: must be off (firewall off, uRPF ipv4 off, ipv6 off), the "
                  "status says enabled: true, segmentSecuritySetupComplete: true"));

   // The firewall on: it must run, and does. Every configured segment must
   // have a request or a grant ("fresh" has neither).
   s.fwConfig->fwActiveIs(true);
   // Nor may a segment that is gone keep a granted request ("gone").
   EXPECT_EQ(oracle.check(),
             (Lines{"red segment 'fresh': configured, but neither requested nor granted",
                    "red segment 'gone': id 7 still granted to a segment that is not configured"}));
   EXPECT_TRUE(s.config.requestId("red", "fresh").ok());
   EXPECT_TRUE(s.config.requestIdDel("red", "gone").ok());
   s.settle();
   EXPECT_EQ(oracle.check(), Lines());
   // Still in the handshake at a settle, with nothing holding it up: wrong.
   status->segmentSecuritySetupCompleteIs(false);
   status->segmentSecurityRoutingDisableDoneIs(true);
   multicast->hwRoutingIs(false);
   EXPECT_EQ(oracle.check(),
             (Lines{"feature: must run (firewall on, uRPF ipv4 off, ipv6 off), the status says "
                    "enabled: true, segmentSecuritySetupComplete: false",
                    "feature: segmentSecurityRoutingDisableDone left true (a routing disable never "
                    "completed)",
                    "routing: hardware routing left off (hwRouting false)"}));
   // An unready helper may rightly hold the handshake: the hardware is then
   // judged by what the status says (not running), and nothing else.
   helper->readyIs(false);
   Lines unready = offLines;
   unready[6] = "red segment 'fresh': id request left while the feature is off";
   EXPECT_EQ(oracle.check(), unready);
   helper->readyIs(true);
   status->segmentSecuritySetupCompleteIs(true);
   status->segmentSecurityRoutingDisableDoneIs(false);
   multicast->hwRoutingIs(true);
   EXPECT_EQ(oracle.check(), Lines());

   // uRPF of either family wins.
   ip6->urpfConfiguredIs(true);
   EXPECT_EQ(oracle.check()[0],
             "feature: must be off (firewall on, uRPF ipv4 off, ipv6 on), the "
             "status says enabled: true, segmentSecuritySetupComplete: true");
   ip6->urpfConfiguredIs(false);

   // Torn down and cleaned up: nothing is left to name.
   s.fwConfig->fwActiveIs(false);
   status->enabledIs(false);
   status->segmentSecuritySetupCompleteIs(false);
   for (const char* p : {"10.0.0.0/8", "2001:db8::/32"}) {
      s.program(p, RouteInfo(), 0);
   }
   for (const char* p : {"10.1.0.0/16", "10.1.1.0/24", "2001:db8:1::/48"}) {
      s.writeId(p, 0);
   }
   for (const char* segment : {"web", "db", "fresh"}) {
      EXPECT_TRUE(s.config.requestIdDel("red", segment).ok());
   }
   s.responses->statusDel(SegmentIdRequestKey(VrfId(9), "orphan"));
   s.settle();
   EXPECT_EQ(oracle.check(), Lines());
}

// What holds at every moment: no entry with the invalid id, no record
// without its trie entry.
TEST(SimOracle, AlwaysRulesNameTheInvalidIdAndARecordOutsideTheTrie) {
   NestedSegments s;
   auto records = Kiv::kivSegmentRouteInfoCollFactory();
   auto tries = Zop::makePtr<Kiv::KivSegmentPrefixTrie>();
   sim::Oracle::Inputs in = s.inputs();
   in.segmentRoutes = records;
   in.segmentTries = tries;
   const sim::Oracle oracle(in);
   EXPECT_EQ(oracle.alwaysDifferences(), Lines());
   records->routeInfoIs(Kiv::KivSegmentRouteInfo(VrfAndIpGenPrefix(VrfId(1), pfx("10.0.0.0/8")),
                                                 SegmentHwId(5), kRedDrop4));
   EXPECT_EQ(oracle.alwaysDifferences(),
             Lines{"red 10.0.0.0/8: record routeTypeDrop adj 1048578 id 5 without its segment "
                   "trie entry"});
   tries->getPrefixTrie(VrfId(1), Pexo::AddressFamily::ipv4)->routeIs(pfx("10.0.0.0/8"), true);
   EXPECT_EQ(oracle.alwaysDifferences(), Lines());
   s.writeId("10.1.1.0/24", 65535);
   EXPECT_EQ(oracle.alwaysDifferences(),
             Lines{"red 10.1.1.0/24: routeTypeForward adj 7 id 65535 (FIB route) carries the "
                   "invalid id"});
}
