// The assembled switch with the segment library in it: the wiring works end
// to end and the oracle agrees with what the library programs.

#include "sim/Switch.h"

#include <gtest/gtest.h>

#include "SimFixture.h"

using simtest::pfx;
using Lines = std::vector<Zop::String>;

TEST(SimSwitch, SegmentPrefixesReachHardwareInBothKindsOfVrf) {
   sim::Switch sw(sim::Switch::Options{.yieldPolicy = nullptr, .manualConfiguration = true});
   ASSERT_TRUE(sw.routing().vrfAdd("red", VrfId(1), false, false).ok());
   ASSERT_TRUE(sw.routing().vrfAdd("blue", VrfId(2), true, true).ok());
   for (auto [p, adj] : {std::pair{"10.1.0.0/16", 8}, {"10.1.1.0/24", 7}, {"192.168.0.0/16", 9}}) {
      ASSERT_TRUE(sw.routing().fibAdd("red", pfx(p), adj).ok());
   }
   ASSERT_TRUE(sw.routing().fibAdd("blue", pfx("172.0.0.0/8"), 50).ok());
   sw.configure("red", pfx("10.0.0.0/8"), "web");
   sw.configure("red", pfx("10.1.0.0/16"), "db");
   sw.configure("blue", pfx("172.16.0.0/16"), "app");
   sw.configure("blue", pfx("2001:db8::/32"), "app");
   ASSERT_TRUE(sw.requestId("red", "web").ok());
   ASSERT_TRUE(sw.requestId("red", "db").ok());
   ASSERT_TRUE(sw.requestId("blue", "app").ok());
   sw.settle();
   for (auto [vrf, p] : {std::pair{"red", "10.0.0.0/8"},
                         {"red", "10.1.0.0/16"},
                         {"blue", "172.16.0.0/16"},
                         {"blue", "2001:db8::/32"}}) {
      ASSERT_TRUE(sw.review(vrf, pfx(p)).ok());
   }
   sw.settle();
   EXPECT_EQ(sw.check(), Lines());
   EXPECT_EQ(sw.hardware().size(), 7u);
   EXPECT_EQ(sw.hardware().counters().errors(), 0u)
       << ::testing::PrintToString(sw.hardware().errorLog());

   // The FIB route under a segment prefix goes: the prefix is a drop route again.
   ASSERT_TRUE(sw.routing().fibDelete("red", pfx("10.1.0.0/16")).ok());
   sw.settle();
   EXPECT_EQ(sw.check(), Lines());
   EXPECT_EQ(sw.hardware().entry({VrfId(1), pfx("10.1.0.0/16")})->owner,
             sim::HardwareRouteTable::Owner::segmentRoute);
}

TEST(SimSwitch, TheConfigurationReactorsDriveTheFeatureOnAndOff) {
   sim::Switch sw;
   ASSERT_TRUE(sw.routing().vrfAdd("red", VrfId(1), false, false).ok());
   ASSERT_TRUE(sw.routing().vrfAdd("blue", VrfId(2), true, true).ok());
   ASSERT_TRUE(sw.routing().fibAdd("red", pfx("10.1.0.0/16"), 8).ok());
   ASSERT_TRUE(sw.routing().fibAdd("blue", pfx("172.0.0.0/8"), 50).ok());
   sw.configure("red", pfx("10.0.0.0/8"), "web");
   sw.configure("blue", pfx("172.16.0.0/16"), "app");
   EXPECT_FALSE(sw.requestId("red", "web").ok()) << "the reactors make the requests";
   sw.settle();
   EXPECT_EQ(sw.check(), Lines());
   EXPECT_EQ(sw.hardware().size(), 2u) << "the firewall is off: FIB routes only";

   sw.firewallIs(true);
   sw.settle();
   EXPECT_TRUE(sw.status()->segmentSecuritySetupComplete());
   EXPECT_EQ(sw.routingLayer().disablesDone(), 1u);
   EXPECT_TRUE(sw.l3Status()->routingEnabledInAnyVrf()) << "routing is back";
   EXPECT_EQ(sw.check(), Lines());
   EXPECT_EQ(sw.hardware().size(), 4u);

   sw.firewallIs(false);
   sw.settle();
   EXPECT_FALSE(sw.status()->segmentSecuritySetupComplete());
   EXPECT_EQ(sw.routingLayer().disablesDone(), 2u);
   EXPECT_EQ(sw.check(), Lines());
   EXPECT_EQ(sw.hardware().size(), 2u);
   EXPECT_EQ(sw.hardware().counters().errors(), 0u)
       << ::testing::PrintToString(sw.hardware().errorLog());

   // uRPF keeps the feature off, and the library says so in this switch's log.
   EXPECT_TRUE(sw.syslogRecords().empty());
   sw.urpfIs(Pexo::AddressFamily::ipv4, true);
   sw.firewallIs(true);
   sw.settle();
   EXPECT_FALSE(sw.status()->segmentSecuritySetupComplete());
   EXPECT_EQ(sw.check(), Lines());
   ASSERT_EQ(sw.syslogRecords().size(), 1u);
   EXPECT_EQ(sw.syslogRecords()[0].name, "SECURITY_SEGMENTATION_URPF_CONFIGURATION_CONFLICT");
}
