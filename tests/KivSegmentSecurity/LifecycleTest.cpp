// The configuration reactors under lifecycle events that arrive inside each
// other's windows, a few scheduler slices apart instead of settled in
// between: each sequence here once left the feature off while wanted, routing
// suspended, a segment without its id, or aborted. Every task yields after
// every item, and the judge decides from the inputs alone.

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "sim/Scenario.h"

namespace {

using Lines = std::vector<std::string>;

// One VRF routing IPv6, segment prefixes of two segments, FIB routes beneath
// them; the feature running. The allocator grants "db" id 1 and "web" id 2
// (requests are granted in key order).
const char* const kOpening = R"(
vrf red id 1 routing6 on
fib red 10.1.1.0/24 adj 11
fib red 2001:db8:1::/48 adj 12
prefix red 10.1.0.0/16 web
prefix red 2001:db8::/32 web
prefix red 10.2.0.0/16 db
firewall on
settle
)";

struct Outcome {
   std::string output;
   sim::ScenarioResult result;
};

Outcome run(sim::Scenario& scenario, const std::string& text) {
   std::istringstream in(text);
   std::ostringstream out;
   Outcome r;
   r.result = scenario.run(in, "sequence", out);
   r.output = out.str();
   return r;
}

sim::ScenarioOptions everyItemYields() {
   sim::ScenarioOptions o;
   o.yieldEvery = 1;
   return o;
}

// The value of the last status line `name: value` in an output.
std::string field(const std::string& output, const std::string& name) {
   std::istringstream in(output);
   std::string value = "(no " + name + ")";
   for (std::string line; std::getline(in, line);) {
      if (line.rfind(name + ": ", 0) == 0) {
         value = line.substr(name.size() + 2);
      }
   }
   return value;
}

struct Sequence {
   const char* name;
   const char* lines;
   // Status fields that must read so at the end (beyond what check judges).
   std::vector<std::pair<std::string, std::string>> status;
};

class Lifecycle : public testing::TestWithParam<Sequence> {};

TEST_P(Lifecycle, EndsWithTheHardwareAndStatusTheInputsAskFor) {
   const Sequence& seq = GetParam();
   sim::Scenario scenario(everyItemYields());
   ASSERT_EQ(run(scenario, kOpening).output, "");
   const Outcome r = run(scenario, std::string(seq.lines) + "\nstatus\ncheck\n");
   ASSERT_NE(r.result.kind, sim::ScenarioResult::Kind::badLine) << r.result.message;
   EXPECT_TRUE(r.result.ok()) << r.output;
   EXPECT_EQ(r.output.substr(r.output.rfind("check")), "check: ok\n") << r.output;
   for (const auto& [name, value] : seq.status) {
      EXPECT_EQ(field(r.output, name), value) << name << " in\n" << r.output;
   }
   // What a settle found is what the switch keeps: a second settle changes
   // nothing.
   auto writes = [&] {
      const auto& c = scenario.sw().hardware().counters();
      return c.routePrograms + c.hwIdWrites;
   };
   const uint64_t before = writes();
   EXPECT_EQ(run(scenario, "settle\ncheck\n").output, "check: ok\n");
   EXPECT_EQ(writes(), before);
}

INSTANTIATE_TEST_SUITE_P(
    Sequences, Lifecycle,
    testing::Values(
        // The teardown's last review withdraws the id request while the new
        // VRF reactor sees the old grant; prefixes added later need the id too.
        Sequence{"FirewallOffThenOnTwoSlicesLater",
                 "firewall off\nstep 2\nfirewall on\nsettle\nprefix red 10.3.0.0/16 web\nsettle",
                 {{"enabled", "true"}, {"segmentSecuritySetupComplete", "true"}}},
        Sequence{"SegmentDeletedAndAddedInOneBatch",
                 "segment red web delete\nsegment red web\nsettle",
                 {}},
        Sequence{"VrfDeletedAndBackUnderTheSameIdSlicesLater",
                 "vrf red delete\nstep 3\nvrf red id 1 routing6 on\nfib red 10.1.1.0/24 adj 11\n"
                 "fib red 2001:db8:1::/48 adj 12\nsettle",
                 {}},
        // The uRPF routing disable ends while the teardown's handshake runs.
        Sequence{"UrpfOnAndOffAFewSlicesApart",
                 "urpf ipv6 on\nstep 3\nurpf ipv6 off\nsettle",
                 {{"enabled", "true"}, {"segmentSecuritySetupComplete", "true"}}},
        // Stage 2 meets uRPF: routing goes back on, the feature stays off
        // until uRPF goes.
        Sequence{"UrpfDuringTheRoutingDisable",
                 "firewall off\nsettle\nfirewall on\nstep\nurpf ipv4 on\nsettle\ncheck\n"
                 "urpf ipv4 off\nsettle",
                 {{"enabled", "true"},
                  {"segmentSecurityRoutingDisable", "4"},
                  {"segmentSecurityRoutingEnable", "4"}}},
        // One disable outstanding serves every setup that follows it.
        Sequence{"FirewallOnOffOnWhileADisableIsOutstanding",
                 "firewall off\nsettle\nfirewall on\nfirewall off\nfirewall on\nsettle",
                 {{"segmentSecurityRoutingDisable", "3"}, {"segmentSecurityRoutingEnable", "3"}}},
        // The same id taken back and granted again while prefixes count it.
        Sequence{"GrantRevokedAndTheSameIdGrantedAgain",
                 "allocator manual\nrevoke red web\nstep 2\ngrant red web 2\nsettle",
                 {{"enabled", "true"}}},
        Sequence{"GrantRevokedAndAnotherIdGranted",
                 "allocator manual\nrevoke red web\nstep 4\ngrant red web 7\nsettle",
                 {}},
        Sequence{"GrantRevokedUntilAfterASettle",
                 "allocator manual\nrevoke red web\nsettle\ncheck\ngrant red web\nsettle",
                 {}},
        Sequence{"GrantOfTheInvalidIdThenAValidOne",
                 "allocator manual\nrevoke red web\ngrant red web invalid\nsettle\ncheck\n"
                 "grant red web 2\nsettle",
                 {}}),
    [](const testing::TestParamInfo<Sequence>& info) { return std::string(info.param.name); });

// Histories the fast-churn test once shrank to these; each starts from an
// empty switch and ends settled.
class FoundByChurn : public testing::TestWithParam<Sequence> {};

TEST_P(FoundByChurn, EndsWithTheHardwareAndStatusTheInputsAskFor) {
   sim::Scenario scenario(everyItemYields());
   const Outcome r = run(scenario, std::string(GetParam().lines) + "\nsettle\ncheck\n");
   ASSERT_NE(r.result.kind, sim::ScenarioResult::Kind::badLine) << r.result.message;
   EXPECT_EQ(r.output, "check: ok\n");
}

INSTANTIATE_TEST_SUITE_P(
    Histories, FoundByChurn,
    testing::Values(
        // A VRF back while a uRPF teardown finishes must not get a reactor
        // that outlives it.
        Sequence{"VrfBackBetweenCleanupAndStage2",
                 "vrf red id 1\nvrf blue id 2 routing on\nprefix red 10.1.0.0/17 c\nfirewall on\n"
                 "settle\nvrf red delete\nurpf ipv4 on\nresolve blue 2001:db8:1:1::1/128 adj 11\n"
                 "step 2\nurpf ipv4 off\nstep 4\n"
                 "vrf red id 1 routing off",
                 {}},
        // A segment removed after its grant was taken back keeps its request
        // while its last id is counted, so the id goes to nobody else.
        Sequence{"SegmentRemovedWhileItsRevokedIdIsCounted",
                 "firewall on\nvrf blue id 4 routing on routing6 on\nprefix blue 10.1.1.1/32 b\n"
                 "settle\nprefix blue 10.1.1.0/24 b\nstep 4\nrevoke blue b\n"
                 "segment blue b delete\nstep 2\nprefix blue 10.1.2.2/32 c\ngrant blue c",
                 {}},
        // The same, granted another id meanwhile: the old one still counts.
        Sequence{"RemovedSegmentGrantedAnotherIdWhileTheOldCounts",
                 "prefix green 10.0.0.0/8 c\nfirewall on\nsettle\nfw-vrf green delete\n"
                 "vrf green id 3 routing off\nprefix green 10.1.1.0/25 a\nstep 5\n"
                 "segment green a delete\nprefix green 10.1.1.1/32 b\nrevoke green a\n"
                 "grant green a 2\nstep 1",
                 {}},
        // A grant revoked during a teardown and the firewall back at once.
        Sequence{"RevokedDuringATeardown",
                 "vrf blue id 2 routing off routing6 off\nprefix blue 10.0.0.0/8 c\nfirewall on\n"
                 "settle\nfirewall off\nrevoke blue c\nfirewall on\nstep 4",
                 {}}),
    [](const testing::TestParamInfo<Sequence>& info) { return std::string(info.param.name); });

// An allocator that changes a grant in place (no release in between): the
// routes carrying the old id move to the new one. The simulated allocator
// never does this, so the response is written directly.
TEST(LifecycleHelper, AGrantChangedInPlaceMovesTheRoutes) {
   sim::Scenario scenario(everyItemYields());
   ASSERT_EQ(run(scenario, kOpening).output, "");
   auto& sw = scenario.sw();
   const SegmentIdRequestKey web(VrfId(1), "web");
   ASSERT_EQ(sw.segmentIdResponse()->status(web)->hwId, SegmentHwId(2));
   sw.segmentIdResponse()->statusIs(web, SegmentIdStatus{SegmentHwId(9)});
   EXPECT_EQ(run(scenario, "settle\ncheck\n").output, "check: ok\n");
   EXPECT_EQ(
       sw.hardware().hardwareId({VrfId(1), Zop::strepToValue<Pexo::IpGenPrefix>("10.1.1.0/24")}),
       SegmentHwId(9));
}

// The routing status helper decides when each stage may go: not ready at
// stage 1, the feature is off until it is; not ready at stage 2, the stage
// waits and runs when it is. Routing is never left suspended either way.
TEST(LifecycleHelper, AnUnreadyHelperPostponesEitherStage) {
   sim::Scenario scenario(everyItemYields());
   ASSERT_EQ(run(scenario, kOpening).output, "");
   auto& sw = scenario.sw();

   // Stage 2 of a teardown: the disable is asked, the helper says no.
   ASSERT_EQ(
       run(scenario, "firewall off\nsettle\nfirewall on\nrouting-helper unready\nsettle\n").output,
       "");
   EXPECT_TRUE(sw.status()->segmentSecurityRoutingDisableDone());
   EXPECT_TRUE(sw.routingLayer().suspended());
   ASSERT_EQ(run(scenario, "routing-helper ready\nsettle\ncheck\n").output, "check: ok\n");
   EXPECT_FALSE(sw.routingLayer().suspended());

   // Stage 1: the feature turns off until the helper is ready again.
   ASSERT_EQ(run(scenario, "firewall off\nrouting-helper unready\nsettle\n").output, "");
   EXPECT_FALSE(sw.status()->enabled());
   EXPECT_TRUE(sw.status()->segmentSecuritySetupComplete());
   EXPECT_EQ(run(scenario, "routing-helper ready\nsettle\ncheck\n").output, "check: ok\n");
   EXPECT_FALSE(sw.status()->segmentSecuritySetupComplete());
}

// A prefix-list entry naming a segment deleted moments earlier: the
// segment's request and counter are gone, its grant not yet. Written into
// the firewall configuration directly, as the configuration agent may
// publish it (the scenario's `prefix` would create the segment again).
TEST(LifecycleHelper, AnEntryOfASegmentJustDeletedWaitsForItsId) {
   sim::Scenario scenario(everyItemYields());
   ASSERT_EQ(run(scenario, kOpening + std::string("prefix red 10.9.0.0/16 gone\nsettle\n")).output,
             "");
   auto& sw = scenario.sw();
   auto fwVrf = sw.fwConfig()->vrf(L3::VrfName("red"));
   fwVrf->prefixListDel(Zop::strepToValue<Pexo::IpGenPrefix>("10.9.0.0/16"));
   ASSERT_EQ(run(scenario, "settle\n").output, "");
   // The segment goes; the allocator has not run yet, so its grant stands.
   fwVrf->segmentDir()->segmentDel("gone");
   ASSERT_TRUE(sw.segmentIdResponse()->status(SegmentIdRequestKey(VrfId(1), "gone")));
   ASSERT_FALSE(sw.segmentIdRequest()->requestHas(SegmentIdRequestKey(VrfId(1), "gone")));
   fwVrf->prefixListIs(Zop::strepToValue<Pexo::IpGenPrefix>("10.9.0.0/16"), "gone");
   EXPECT_EQ(run(scenario, "settle\ncheck\n").output, "check: ok\n");
   // The segment back: a new request, a new grant, the entry in hardware.
   fwVrf->segmentDir()->segmentIs(Firewall::fwSegmentFactory("gone"));
   EXPECT_EQ(run(scenario, "settle\ncheck\n").output, "check: ok\n");
   EXPECT_NE(sw.hardware().entry({VrfId(1), Zop::strepToValue<Pexo::IpGenPrefix>("10.9.0.0/16")}),
             nullptr);
}

// How much one run of the library's tasks does: with every task yielding
// after every item, a run of the subnet task takes exactly one key off the
// segment review list (it asks before each key), and a run of the FIB route
// task at most two (it asks after each). A task that never yields would
// drain a list in one run; one that yields before its first item would
// never drain it.
TEST(LifecycleWork, EachRunTakesOneItemOffAReviewList) {
   sim::Scenario scenario(everyItemYields());
   auto& sw = scenario.sw();
   ASSERT_EQ(run(scenario,
                 "vrf red id 1\ngen fib red 200 10.1.0.0/24\n"
                 "gen prefixes red web 40 10.1.0.0/22\nfirewall on\n")
                 .output,
             "");
   const auto& segmentList = sw.segmentReviewList();
   const auto& fibList = sw.processor()->fibRouteReivewList();
   size_t slices = 0, segmentTaken = 0, fibTaken = 0;
   auto sizes = [&] {
      return std::pair(segmentList->vrfIpGenPrefixCount(), fibList->vrfIpGenPrefixCount());
   };
   for (auto before = sizes(); slices < 100000 && sw.scheduler()->runUntilIdle(1) != 0; ++slices) {
      const auto after = sizes();
      // Lists only grow in handlers; a run takes at most one key off each.
      if (after.first < before.first) {
         ASSERT_EQ(before.first - after.first, 1u) << "slice " << slices;
         ++segmentTaken;
      }
      if (after.second < before.second) {
         // The FIB route task asks after each key, so its run ends one key
         // past the policy's count.
         ASSERT_LE(before.second - after.second, 2u) << "slice " << slices;
         fibTaken += before.second - after.second;
      }
      before = after;
   }
   EXPECT_EQ(sizes(), std::pair(size_t(0), size_t(0))) << "not drained in " << slices << " slices";
   EXPECT_GE(segmentTaken, 40u);
   EXPECT_GE(fibTaken, 160u);  // the /24s inside the /22s
   EXPECT_EQ(sw.check(), std::vector<Zop::String>{});
}

// A segment with more prefixes than one handler may queue: its grant hands
// them to the processor, which queues a few per run and goes on from the
// last one queued, while prefixes of the segment come and go, the segment
// is revoked and granted again, and a prefix moves to another segment.
TEST(LifecycleWork, ALargeSegmentsPrefixesAreQueuedAFewPerRun) {
   sim::Scenario scenario(everyItemYields());
   auto& sw = scenario.sw();
   ASSERT_EQ(run(scenario,
                 "vrf red id 1\ngen fib red 600 10.0.0.0/25\n"
                 "gen prefixes red web 1500 10.0.0.0/24\nprefix red 10.200.0.0/16 db\n"
                 "firewall on\n")
                 .output,
             "");
   const auto& list = sw.segmentReviewList();
   const std::vector<std::pair<size_t, std::string>> meanwhile = {
       {40, "prefix red 10.0.3.0/24 delete\nprefix red 10.0.250.0/24 delete\n"},
       {60, "prefix red 10.0.2.0/24 db\ngen prefixes red web 20 10.0.240.0/24\n"},
       {90, "revoke red web\n"},
       {95, "grant red web\n"},
       {400, "prefix red 10.0.1.0/24 delete\nprefix red 10.0.5.128/25 web\n"},
   };
   size_t slices = 0, most = 0, next = 0;
   for (size_t before = list->vrfIpGenPrefixCount();
        slices < 200000 && (sw.scheduler()->runUntilIdle(1) != 0 || next < meanwhile.size());
        ++slices) {
      const size_t after = list->vrfIpGenPrefixCount();
      most = std::max(most, after > before ? after - before : 0);
      if (next < meanwhile.size() && slices >= meanwhile[next].first) {
         ASSERT_EQ(run(scenario, meanwhile[next++].second).output, "");
      }
      before = list->vrfIpGenPrefixCount();
   }
   EXPECT_LE(most, 3u) << "a run queued " << most << " prefixes";
   EXPECT_EQ(list->vrfIpGenPrefixCount(), 0u);
   EXPECT_EQ(sw.check(), std::vector<Zop::String>{});
}

}  // namespace
