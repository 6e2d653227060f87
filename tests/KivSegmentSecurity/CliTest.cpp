// The CLI commands on a small switch: exact text, the same data as JSON,
// resumption after yields, request parsing, and the counters baseline.

#include <gtest/gtest.h>

#include <sstream>

#include "KivSegmentSecurity/KivSegmentSecurityCliSm.h"
#include "sim/Scenario.h"
#include "support/Json.h"

namespace {

using test::Json;

// Two VRFs (green 3 routing, blue 7): in blue, segment a with a prefix that is
// also a FIB route (S,F), a FIB route beneath it (F) and an IPv6 prefix with a
// FIB route beneath; segment b nested inside a's prefix with a FIB route
// beneath; segment idle with an id and no prefix. Segments are made b before
// a, so the listing order is the CLI's own.
const char* const kFixture[] = {
    "vrf blue id 7",
    "vrf green id 3 routing on",
    "fib blue 10.1.0.0/16 adj 13",
    "fib blue 10.1.1.0/24 adj 11",
    "fib blue 10.1.2.0/24 adj 12",
    "fib blue 2001:db8:1::/48 adj 14",
    "fib green 10.9.0.0/16 adj 31",
    "segment blue b",
    "segment blue a",
    "segment blue idle",
    "prefix blue 10.1.0.0/16 a",
    "prefix blue 10.1.2.0/23 b",
    "prefix blue 2001:db8::/32 a",
    "prefix green 10.9.1.0/24 c",
    "firewall on",
    "settle",
};

const char* const kLegend =
    "Codes: S - Segment prefix\n"
    "       F - FIB route\n"
    "       S,F - Segment prefix which is also present in FIB\n";

const char* const kRoutesGreen =
    "\nVRF: green\n"
    "Segment              Hardware ID     Routes                                  Route Type\n"
    "-------------------- --------------- --------------------------------------- ----------\n"
    "c                    1               10.9.1.0/24                             S         \n";

const char* const kRoutesBlue =
    "\nVRF: blue\n"
    "Segment              Hardware ID     Routes                                  Route Type\n"
    "-------------------- --------------- --------------------------------------- ----------\n"
    "a                    2               10.1.0.0/16                             S,F       \n"
    "                                     10.1.1.0/24                             F         \n"
    "                                     2001:db8::/32                           S         \n"
    "                                     2001:db8:1::/48                         F         \n"
    "b                    3               10.1.2.0/23                             S         \n"
    "                                     10.1.2.0/24                             F         \n";

const char* const kDetail =
    "VRF: green\n"
    "Segment              Hardware ID     Prefixes                                Adj Index      \n"
    "-------------------- --------------- --------------------------------------- "
    "---------------\n"
    "c                    1               10.9.1.0/24                             31             \n"
    "VRF: blue\n"
    "Segment              Hardware ID     Prefixes                                Adj Index      \n"
    "-------------------- --------------- --------------------------------------- "
    "---------------\n"
    "a                    2               10.1.0.0/16                             13             \n"
    "                                     2001:db8::/32                           1048579        \n"
    "b                    3               10.1.2.0/23                             1048578        "
    "\n";

const char* const kSummary =
    "\nVRF: green\n"
    "Segment              Hardware ID     Prefixes   Programmed     \n"
    "-------------------- --------------- ---------- ---------------\n"
    "c                    1               1          1              \n"
    "\nVRF: blue\n"
    "Segment              Hardware ID     Prefixes   Programmed     \n"
    "-------------------- --------------- ---------- ---------------\n"
    "a                    2               2          2              \n"
    "b                    3               1          1              \n"
    "idle                 4               0          0              \n";

class Cli : public ::testing::Test {
protected:
   explicit Cli(sim::Scenario::Options options = {}) : sc_(options) {}

   void run(const std::string& line) {
      std::ostringstream out;
      auto r = sc_.runLine(line, "test", ++lineNo_, out);
      ASSERT_TRUE(r.ok()) << r.message;
   }
   void fixture() {
      for (const char* line : kFixture) {
         run(line);
      }
      ASSERT_TRUE(sc_.sw().check().empty());
   }
   std::string text(const std::string& request) { return sc_.sw().cliRequest(request); }
   Json json(const std::string& request) {
      const std::string out = sc_.sw().cliRequest(request, lumo::Format::json);
      try {
         return test::parseJson(out);
      } catch (const std::exception& e) {
         ADD_FAILURE() << e.what() << " in " << out;
         return {};
      }
   }
   std::vector<std::string> traces() const { return sc_.trace().ringlog().texts(); }

   sim::Scenario sc_;
   uint64_t lineNo_ = 0;
};

TEST_F(Cli, ShowCommandsPrintExactTables) {
   fixture();
   EXPECT_EQ(text("HardwareRoutes##"), std::string(kLegend) + kRoutesGreen + kRoutesBlue);
   EXPECT_EQ(text("HardwareDetail##"), kDetail);
   EXPECT_EQ(text("HardwareSummary##"), kSummary);

   // One VRF, one segment; an unknown VRF gives the routes legend alone.
   EXPECT_EQ(text("HardwareRoutes#green#"), std::string(kLegend) + kRoutesGreen);
   EXPECT_EQ(text("HardwareSummary#blue#idle"),
             "\nVRF: blue\n"
             "Segment              Hardware ID     Prefixes   Programmed     \n"
             "-------------------- --------------- ---------- ---------------\n"
             "idle                 4               0          0              \n");
   EXPECT_EQ(text("HardwareRoutes#blue#b"),
             std::string(kLegend) +
                 "\nVRF: blue\n"
                 "Segment              Hardware ID     Routes                                  "
                 "Route Type\n"
                 "-------------------- --------------- --------------------------------------- "
                 "----------\n"
                 "b                    3               10.1.2.0/23                             S "
                 "        \n"
                 "                                     10.1.2.0/24                             F "
                 "        \n");
   EXPECT_EQ(text("HardwareRoutes#nosuch#"), kLegend);
   EXPECT_EQ(text("HardwareDetail#blue#nosuch"),
             "VRF: blue\n"
             "Segment              Hardware ID     Prefixes                                Adj "
             "Index      \n"
             "-------------------- --------------- --------------------------------------- "
             "---------------\n");
   // Missing fields read as empty; a name too long for a VRF is just unknown.
   EXPECT_EQ(text("HardwareSummary"), kSummary);
   EXPECT_EQ(text("HardwareRoutes#" + std::string(300, 'v')), kLegend);
}

TEST_F(Cli, JsonCarriesTheSameData) {
   fixture();
   Json routes = json("HardwareRoutes##");
   const Json& vrfs = routes.at("vrfs");
   EXPECT_EQ(vrfs.keys(), (std::vector<std::string>{"green", "blue"}));
   const Json& blue = vrfs.at("blue").at("segments");
   EXPECT_EQ(blue.keys(), (std::vector<std::string>{"a", "b"}));
   EXPECT_EQ(blue.at("a").at("hardwareId").number(), 2u);
   std::vector<std::string> rows;
   const Json& prefixes = blue.at("a").at("prefixes");
   for (size_t i = 0; i < prefixes.size(); ++i) {
      rows.push_back(prefixes.names[i] + " " + prefixes.values[i].at("routeType").text);
   }
   EXPECT_EQ(rows, (std::vector<std::string>{"10.1.0.0/16 S,F", "10.1.1.0/24 F", "2001:db8::/32 S",
                                             "2001:db8:1::/48 F"}));

   Json detail = json("HardwareDetail#blue#");
   const Json& segs = detail.at("vrfs").at("blue").at("segments");
   EXPECT_EQ(segs.at("a").at("prefixes").at("10.1.0.0/16").at("l2AdjIndex").number(), 13u);
   // A segment without a programmed prefix has no text row but its entry.
   EXPECT_TRUE(segs.at("idle").at("prefixes").names.empty());
   EXPECT_EQ(segs.at("idle").at("hardwareId").number(), 4u);

   Json summary = json("HardwareSummary##");
   const Json& idle = summary.at("vrfs").at("blue").at("segments").at("idle");
   EXPECT_EQ(idle.at("prefixesConfigured").number(), 0u);
   EXPECT_EQ(idle.at("prefixesProgrammed").number(), 0u);
   EXPECT_EQ(summary.at("vrfs").at("blue").at("segments").at("a").at("prefixesConfigured").number(),
             2u);

   // Unknown VRF: its entry with empty segments; nothing at all: empty vrfs.
   Json unknown = json("HardwareRoutes#nosuch#");
   EXPECT_TRUE(unknown.at("vrfs").at("nosuch").at("segments").names.empty());
}

TEST_F(Cli, NoSegmentVrfPrintsNothingNotEvenTheLegend) {
   run("vrf red id 1");
   EXPECT_EQ(text("HardwareRoutes##"), "");
   EXPECT_TRUE(json("HardwareRoutes##").at("vrfs").names.empty());
}

TEST_F(Cli, OnlyExactCommandWordsMakeAReactor) {
   fixture();
   for (const char* request : {"hardwaredetail##", "HardwareDetails##", "HARDWAREROUTES", "",
                               "#blue#a", "Hardware Routes"}) {
      EXPECT_EQ(text(request), "") << request;
      EXPECT_EQ(sc_.sw().cli()->cliRequestDirSm()->activeCommands(), 0u);
   }
   EXPECT_EQ(sc_.sw().cliRequestDir()->entryCount(), 0u);
}

class CliYielding : public Cli {
protected:
   CliYielding() : Cli(sim::Scenario::Options{.traceLevel = Trace::kFunctions}) {}
};

// With a yield wanted after every VRF, each run after the first starts by
// printing the VRF it stopped after again, and still prints one more.
TEST_F(CliYielding, EveryRunResumesAtItsBookmarkAndMakesProgress) {
   fixture();
   run("vrf zeta id 9");
   run("prefix zeta 10.50.0.0/16 z");
   run("settle");
   sc_.sw().cliServiceSettingsIs({.maxRunTime = 1.0, .bufferSize = 1});
   const std::string zeta =
       "\nVRF: zeta\n"
       "Segment              Hardware ID     Routes                                  Route Type\n"
       "-------------------- --------------- --------------------------------------- ----------\n"
       "z                    5               10.50.0.0/16                            S         \n";
   EXPECT_EQ(text("HardwareRoutes##"),
             std::string(kLegend) + kRoutesGreen + kRoutesGreen + kRoutesBlue + kRoutesBlue + zeta);
   Json doc = json("HardwareDetail##");
   EXPECT_EQ(doc.at("vrfs").keys(),
             (std::vector<std::string>{"green", "green", "blue", "blue", "zeta"}));
   // Summary never yields.
   EXPECT_EQ(json("HardwareSummary##").at("vrfs").keys(),
             (std::vector<std::string>{"green", "blue", "zeta"}));
   // The unknown word reached the synchronous path, which only traces.
   text("Nothing#x");
   bool traced = false;
   for (const auto& t : traces()) {
      traced |= t.find("handleCommand Socket: ") != std::string::npos &&
                t.find(" Command: Nothing#x Format: 0") != std::string::npos;
   }
   EXPECT_TRUE(traced);
}

// ---- Counters ----

TEST_F(CliYielding, CountersShowLiveMinusBaselineAndClearMovesTheBaseline) {
   fixture();
   run("policy blue b a web-to-db");
   run("counters blue policy p1 100 10");
   run("counters blue segment b a 50 5");
   run("counters blue default-drop b 7");
   run("counters blue default-drop idle 3");
   run("counters nosuchvrf policy p9 1 1");
   // Before any clear, everything is shown whole; only VRFs with an id.
   EXPECT_EQ(
       text("ShowHardwareCounters#"),
       "VRF: blue\n"
       "Policy               Hit        Drop      \n"
       "-------------------- ---------- ----------\n"
       "p1                   100        10        \n"
       "\n"
       "Dest Segment         Source Segment       Policy               Hit        Drop      \n"
       "-------------------- -------------------- -------------------- ---------- "
       "----------\n"
       "b                    *                    n/a                  0          7         \n"
       "b                    a                    web-to-db            50         5         \n"
       "idle                 *                    n/a                  0          3         \n");
   EXPECT_EQ(text("ClearHardwareCounters"), "");
   run("counters blue policy p1 140 4");  // above and below the baseline
   run("counters blue policy p2 9 9");    // first seen after the clear
   run("counters blue segment b a 50 6");
   Json doc = json("ShowHardwareCounters#blue");
   const Json& blue = doc.at("vrfs").at("blue");
   EXPECT_EQ(blue.at("policies").at("p1").at("hits").number(), 40u);
   EXPECT_EQ(blue.at("policies").at("p1").at("drops").number(), 4u);
   EXPECT_EQ(blue.at("policies").at("p2").at("hits").number(), 9u);
   const Json& b = blue.at("destinationSegments").at("b").at("sourceSegments");
   EXPECT_EQ(b.at("*").at("drops").number(), 0u);
   EXPECT_EQ(b.at("*").at("policyName").text, "n/a");
   EXPECT_EQ(b.at("a").at("drops").number(), 1u);
   EXPECT_EQ(b.at("a").at("policyName").text, "web-to-db");

   // A policy gone from the live tree leaves the baseline, with a trace.
   run("counters blue policy p1 delete");
   json("ShowHardwareCounters#");
   EXPECT_FALSE(sc_.sw().countersSnapshot()->vrf("blue")->countersDir()->policy("p1"));
   bool traced = false;
   for (const auto& t : traces()) {
      traced |= t.find(" Removing policy: p1") != std::string::npos;
   }
   EXPECT_TRUE(traced);
   // Unknown VRF: its entry and nothing under it.
   EXPECT_TRUE(json("ShowHardwareCounters#red").at("vrfs").at("red").names.empty());
}

TEST_F(Cli, FirewallOffEmptiesTheBaselineAndDefaultDropOffZeroesItsCounts) {
   fixture();
   run("default-drop on");
   run("counters blue policy p1 100 10");
   run("counters blue default-drop b 7");
   // A clear before any show has no baseline entries to move: it adds none.
   text("ClearHardwareCounters");
   const auto& snapshot = sc_.sw().countersSnapshot();
   EXPECT_TRUE(snapshot->vrf().empty());
   text("ShowHardwareCounters#");
   text("ClearHardwareCounters");
   auto group = snapshot->vrf("blue")->countersDir()->segment("b");
   ASSERT_TRUE(group);
   EXPECT_EQ(group->defaultDrop(), 7u);
   run("default-drop off");
   EXPECT_EQ(group->defaultDrop(), 0u);
   EXPECT_EQ(snapshot->vrf("blue")->countersDir()->policy("p1")->hitCount(), 100u);
   // Shown whole again, as the baseline was zeroed.
   EXPECT_EQ(json("ShowHardwareCounters#blue")
                 .at("vrfs")
                 .at("blue")
                 .at("destinationSegments")
                 .at("b")
                 .at("sourceSegments")
                 .at("*")
                 .at("drops")
                 .number(),
             7u);
   run("firewall off");
   EXPECT_TRUE(snapshot->vrf().empty());
}

// ---- The snapshot's pieces ----

TEST(SortedSnapshot, PrefixInfoTextParsesBackAndOrdersByPrefixThenType) {
   const auto key = [](uint32_t vrf, const char* p) {
      return VrfAndIpGenPrefix(VrfId(vrf), Zop::strepToValue<Pexo::IpGenPrefix>(p));
   };
   const Kiv::SortedPrefixInfo a(key(3, "10.0.0.0/8"), Kiv::routeTypeSegmentAndFib);
   const Kiv::SortedPrefixInfo b(key(3, "10.0.0.0/8"), Kiv::routeTypeFibOnly);
   const Kiv::SortedPrefixInfo c(key(7, "1.0.0.0/8"), Kiv::routeTypeSegmentOnly);
   EXPECT_EQ(Kiv::valueToStrep(a),
             "Value('Kiv::SortedPrefixInfo', ** {'vrfPrefix': Value('Pexo::VrfAndIpGenPrefix', ** "
             "{'vrfId': 3, 'prefix': 10.0.0.0/8}), 'routeType': routeTypeSegmentAndFib})");
   for (const auto& v : {a, b, c}) {
      EXPECT_EQ(Zop::strepToValue<Kiv::SortedPrefixInfo>(Kiv::valueToStrep(v)), v);
   }
   EXPECT_THROW(
       Zop::strepToValue<Kiv::SortedPrefixInfo>(
           "Value('Kiv::SortedPrefixInfo', ** {'vrfPrefix': Value('Pexo::VrfAndIpGenPrefix',"
           " ** {'vrfId': 3, 'prefix': 10.0.0.0/8}), 'routeType': routeTypeBoth})"),
       Zop::ParseError);
   EXPECT_TRUE(b < a);
   EXPECT_TRUE(a < c);
   EXPECT_FALSE(a < a);
}

TEST(SortedSnapshotDeathTest, ListForASegmentNeedsItsVrfEntry) {
   auto sorted = Kiv::sortedSegmentRouteInfoFactory();
   auto ids = Zop::makePtr<SegmentIdResponse>();
   EXPECT_DEATH(Kiv::getSortedPrefixListForSegment(sorted, ids, VrfId(1), SegmentHwId(5)),
                "VRF entry for sorted routes not found");
}

// A VRF that has gone (no name, no FIB) while its records are still being
// removed contributes its segment prefixes only; a VRF that has an id but no
// FIB trie is a broken invariant.
TEST_F(Cli, RoutesOfAGoneVrfAreSkippedButAMissingTrieIsFatal) {
   fixture();
   auto& sw = sc_.sw();
   auto make = [&] {
      auto request = Agent::agentCommandRequestFactory("x", "HardwareRoutes##", 0, nullptr,
                                                       lumo::Format::text);
      return Zop::makePtr<Kiv::ShowSegmentHardwareRoutesSm>(
          "x", request, 0.1, sw.clock(), sw.segmentRoutesList(), sw.segmentIdResponse(),
          sw.l3Status(), "", "", sw.hardware().segmentRouteHelper(), sw.routeStatus(),
          sw.route6Status(), sw.fibRoutes(), sw.fibRoutes6());
   };
   // Without settling, as the processor would not have caught up yet.
   sw.l3Status()->vrfNameDel(VrfId(7));
   sw.routeStatus()->fibTrieDel(VrfId(7));
   auto sorted = Kiv::sortedSegmentRouteInfoFactory();
   make()->getSortedRoutes(sorted);
   auto b = sorted->sortedVrf(VrfId(7))->sortedPrefix("b");
   ASSERT_TRUE(b);
   EXPECT_EQ(b->programmedPrefix().size(), 1u);

   sw.l3Status()->vrfNameIs(VrfId(7), "blue");
   EXPECT_DEATH(make()->getSortedRoutes(Kiv::sortedSegmentRouteInfoFactory()),
                " Fib trie does not exist ");
}

}  // namespace
