// The scenario language over the simulated switch: a small scenario's exact
// output, and bad lines of every kind refused with their file, line and the
// offending word, leaving the switch as it was.

#include "sim/Scenario.h"

#include <gtest/gtest.h>

#include <sstream>

#include "sim/ScenarioCommands.h"

namespace {

struct Played {
   sim::Scenario::Result result;
   std::string out;
};

Played play(sim::Scenario& s, const std::string& text, const std::string& file = "t.kiv") {
   std::istringstream in(text);
   std::ostringstream out;
   Played r;
   r.result = s.run(in, file, out);
   r.out = out.str();
   return r;
}

const char* kSetUp =
    "# two VRFs, nested segments\n"
    "vrf red id 1\n"
    "vrf blue id 2 routing on\n"
    "fib red 10.1.1.0/24 adj 11\n"
    "fib blue 10.7.1.0/24 adj 22\n"
    "\n"
    "prefix red 10.1.0.0/16 web   # outer\n"
    "prefix red 10.1.1.0/25 db\n"
    "prefix blue 10.7.0.0/16 app\n"
    "firewall on\n"
    "settle\n";

TEST(Scenario, SmallScenarioExactOutput) {
   sim::Scenario s;
   Played r = play(s, std::string(kSetUp) +
                          "echo == hardware ==\n"
                          "hw\n"
                          "hw red json\n"
                          "status\n"
                          "check\n");
   ASSERT_TRUE(r.result.ok()) << r.result.message;
   EXPECT_EQ(r.out,
             "== hardware ==\n"
             "blue 10.7.0.0/16 routeTypeDrop adj 1048580 id 3\n"
             "blue 10.7.1.0/24 routeTypeForward adj 22 id 3\n"
             "red 10.1.0.0/16 routeTypeDrop adj 1048578 id 2\n"
             "red 10.1.1.0/24 routeTypeForward adj 11 id 2\n"
             "red 10.1.1.0/25 routeTypeDrop adj 1048578 id 1\n"
             "[\n"
             "  {\"vrf\": \"red\", \"prefix\": \"10.1.0.0/16\", \"routeType\": \"routeTypeDrop\", "
             "\"adjIndex\": 1048578, \"hwId\": 2},\n"
             "  {\"vrf\": \"red\", \"prefix\": \"10.1.1.0/24\", \"routeType\": "
             "\"routeTypeForward\", \"adjIndex\": 11, \"hwId\": 2},\n"
             "  {\"vrf\": \"red\", \"prefix\": \"10.1.1.0/25\", \"routeType\": \"routeTypeDrop\", "
             "\"adjIndex\": 1048578, \"hwId\": 1}\n"
             "]\n"
             "enabled: true\n"
             "segmentSecuritySetupComplete: true\n"
             "waitForRoutesCleanup: false\n"
             "segmentSecurityRoutingDisableDone: false\n"
             "segmentSecurityRoutingDisable: 1\n"
             "segmentSecurityRoutingEnable: 1\n"
             "waitForSegmentSecurityRoutingDisabledCnt: 1\n"
             "hwRouting: true\n"
             "routingSuspended: false\n"
             "check: ok\n");
   EXPECT_EQ(s.stats().commands, 14u);
}

// The floor is timed after each settle that enabled the feature, and only
// then, over the switch as it stands (an id write per FIB route, a drop route
// and its id per other segment prefix), without touching the switch.
TEST(Scenario, FloorAfterEachEnableOnly) {
   sim::Scenario::Options options;
   options.floor = true;
   sim::Scenario s(options);
   Played r = play(s, std::string(kSetUp) +
                          "settle\n"
                          "firewall off\n"
                          "settle\n"
                          "prefix red 10.1.2.0/24 web\n"
                          "firewall on\n"
                          "settle\n"
                          "check\n"
                          "hw red\n");
   ASSERT_TRUE(r.result.ok()) << r.result.message;
   EXPECT_EQ(r.out,
             "check: ok\n"
             "red 10.1.0.0/16 routeTypeDrop adj 1048578 id 2\n"
             "red 10.1.1.0/24 routeTypeForward adj 11 id 2\n"
             "red 10.1.1.0/25 routeTypeDrop adj 1048578 id 1\n"
             "red 10.1.2.0/24 routeTypeDrop adj 1048578 id 2\n");
   std::vector<uint64_t> writes;
   for (const auto& settle : s.stats().settles) {
      writes.push_back(settle.floorWrites);
      EXPECT_EQ(settle.floorNs > 0, settle.floorWrites > 0) << settle.where;
   }
   EXPECT_EQ(writes, (std::vector<uint64_t>{2 + 2 * 3, 0, 0, 2 + 2 * 4}));
   EXPECT_GT(s.peakResidentKb(), 0u);
}

TEST(Scenario, BadLinesNameTheWordAndChangeNothing) {
   sim::Scenario s;
   ASSERT_TRUE(play(s, kSetUp).result.ok());
   std::ostringstream before;
   ASSERT_TRUE(s.runLine("hw", "x", 1, before).ok());
   size_t commands = s.stats().commands;

   const std::pair<const char*, const char*> cases[] = {
       {"show links",
        "unknown show 'links': show routes/detail/summary [VRF [SEGMENT]] [json] | "
        "show counters [VRF] [json]"},
       {"se red web", "ambiguous command 'se': segment, settle, send"},
       {"show routes red web extra",
        "unexpected word 'extra': show routes/detail/summary [VRF [SEGMENT]] [json] | show "
        "counters [VRF] [json]"},
       {"show counters red blue", "unexpected word 'blue': show counters [VRF] [json]"},
       {"clear all", "unknown clear 'all': clear counters"},
       {"request", "missing words: request TEXT [json]"},
       {"request HardwareRoutes## jsn", "unexpected word 'jsn': request TEXT [json]"},
       {"counters red policy p 1", "missing words: counters VRF policy NAME HITS DROPS"},
       {"counters red policy p 1 x", "'x' is not a number (drops)"},
       {"counters red segment d s 1 99999999999999999999",
        "'99999999999999999999' is out of range for drops (at most 18446744073709551615)"},
       {"counters red flows 1",
        "unknown counters kind 'flows': counters VRF policy NAME HITS DROPS | counters VRF "
        "segment DST SRC HITS DROPS | counters VRF default-drop DST DROPS (or delete for the "
        "counts)"},
       {"vrf green id x1", "'x1' is not a number (VRF id)"},
       {"vrf green id 99999999999",
        "'99999999999' is out of range for VRF id (at most 4294967295)"},
       {"vrf green id 3 routing onn", "'onn' is not on/off"},
       {"vrf green id 3 routing", "missing on/off after 'routing'"},
       {"vrf green id 3 routing on routing off",
        "unexpected word 'routing': vrf NAME id N "
        "[routing on/off] [routing6 on/off] | vrf NAME "
        "delete"},
       {"vrf green id 3 colour blue",
        "unexpected word 'colour': vrf NAME id N [routing on/off] "
        "[routing6 on/off] | vrf NAME delete"},
       {"vrf green delete", "unknown VRF 'green'"},
       {"vrf red",
        "missing words: vrf NAME id N [routing on/off] [routing6 on/off] | vrf NAME "
        "delete"},
       {"fib green 10.9.0.0/16", "unknown VRF 'green'"},
       {"fib red 10.9.0/16", "bad prefix '10.9.0/16'"},
       {"fib red 10.9.0.0/16 adj -1", "'-1' is not a number (adjacency index)"},
       {"fib red 10.9.0.0/16 via 3",
        "unexpected word 'via': fib VRF PREFIX [adj N] | fib VRF "
        "PREFIX delete"},
       {"resolver sometimes", "'sometimes' is not auto/manual"},
       {"resolve red 10.1.0.0/16 adj",
        "missing words: resolve VRF PREFIX adj N | resolve VRF "
        "PREFIX none"},
       {"urpf ipv5 on", "'ipv5' is not ipv4/ipv6"},
       {"urpf ipv4 yes", "'yes' is not on/off"},
       {"allocator auto pool 5", "pool '5' is not FIRST-LAST"},
       {"allocator auto pool 9-3", "pool '9-3' is not 1 <= FIRST <= LAST <= 65534"},
       {"allocator auto pool 1-70000", "'70000' is out of range for pool (at most 65534)"},
       {"grant purple web", "unknown VRF 'purple'"},
       {"hwfail red 10.1.0.0/16 sometimes", "'sometimes' is not on/off/once"},
       {"hwcapacity plenty", "'plenty' is not a number (capacity)"},
       {"hwcapacity 3 4", "unexpected word '4': hwcapacity N/none"},
       {"firewall of", "'of' is not on/off"},
       {"default-drop", "missing words: default-drop on/off"},
       {"fw-vrf red remove", "unexpected word 'remove': fw-vrf NAME [delete]"},
       {"segment red web drop", "unexpected word 'drop': segment VRF NAME [delete]"},
       {"prefix red 10.1.0.0/33 web", "bad prefix '10.1.0.0/33'"},
       {"policy red nosuch web allow", "unknown segment 'nosuch' in VRF 'red'"},
       {"policy gray web db allow", "unknown firewall VRF 'gray'"},
       {"policy red web db delete", "no policy from 'db' to 'web'"},
       {"policy red web db allow maybe",
        "unexpected word 'maybe': policy VRF DST SRC NAME [permit/deny] | policy VRF DST SRC "
        "delete"},
       {"host Web1 red 10.1.1.10/24 via 10.1.1.1", "bad host name 'Web1' (1 to 12 of a-z, 0-9, -)"},
       {"host web1 green 10.1.1.10/24 via 10.1.1.1", "unknown VRF 'green'"},
       {"host web1 red 10.1.1.10 via 10.1.1.1", "bad address '10.1.1.10' (an IPv4 ADDRESS/LEN)"},
       {"host web1 red 10.1.1.10/31 via 10.1.1.11", "'31' is out of range for length (at most 30)"},
       {"host web1 red 10.1.1.10/24 to 10.1.1.1",
        "unexpected word 'to': host NAME VRF ADDRESS/LEN via GATEWAY"},
       {"host web1 red 10.1.1.10/24 via 10.1.2.1",
        "bad gateway '10.1.2.1' (another address on 10.1.1.10/24)"},
       {"host web1 red 10.1.1.10/24 via 10.1.1.1",
        "hosts need a dataplane that forwards packets (kivsim --dataplane linux)"},
       {"send web1 10.1.1.300", "bad address '10.1.1.300' (an IPv4 address)"},
       {"send web1 10.1.1.10",
        "sending needs a dataplane that forwards packets (kivsim --dataplane linux)"},
       {"settle now", "unexpected word 'now': settle"},
       {"step two", "'two' is not a number (slices)"},
       {"hw red yaml", "unexpected word 'yaml': hw [VRF] [json]"},
       {"hw green", "unknown VRF 'green'"},
       {"check everything", "unexpected word 'everything': check"},
       {"trace -3", "'-3' is not a number (lines)"},
       {"gen fib red 2000000 10.0.0.0/24", "'2000000' is out of range for count (at most 1000000)"},
       {"gen fib red 3 10.0.0.1/24", "prefix '10.0.0.1/24' has host bits set"},
       {"gen fib red 2 255.255.255.0/24", "2 prefixes from '255.255.255.0/24' leave IPv4"},
       {"gen prefixes red web 5 zz", "bad prefix 'zz'"},
       {"gen routes red 5 10.0.0.0/24", "'routes' is not fib/prefixes"},
   };
   uint64_t lineNo = 40;
   for (const auto& [line, message] : cases) {
      std::ostringstream out;
      auto result = s.runLine(line, "bad.kiv", lineNo, out);
      EXPECT_EQ(result.kind, sim::Scenario::Result::Kind::badLine) << line;
      EXPECT_EQ(result.message, "bad.kiv:" + std::to_string(lineNo) + ": " + message);
      EXPECT_EQ(out.str(), "") << line;
      ++lineNo;
   }
   EXPECT_EQ(s.stats().commands, commands);
   std::ostringstream after;
   ASSERT_TRUE(s.runLine("settle", "x", 1, after).ok());
   ASSERT_TRUE(s.runLine("hw", "x", 2, after).ok());
   EXPECT_EQ(after.str(), before.str());
   EXPECT_EQ(s.sw().check(), std::vector<Zop::String>{});
}

// Help quotes each command's usage from the command table; the engine's own
// message for a line with too many words quotes the form it parses. They must
// be the same text, and every word help lists must be a command the engine
// runs (a listed word it does not know would be "unknown command").
TEST(Scenario, HelpListsExactlyTheCommandsTheEngineRunsWithTheirForms) {
   sim::Scenario s;
   for (const auto& c : sim::scenarioCommands()) {
      if (c.word == "echo") {
         // Takes any text.
         std::ostringstream out;
         EXPECT_TRUE(s.runLine("echo a b c d e f g h i j", "h.kiv", 1, out).ok());
         continue;
      }
      std::string line(c.word);
      for (int i = 1; i <= 9; ++i) {
         line += " x" + std::to_string(i);
      }
      std::ostringstream out;
      auto result = s.runLine(line, "h.kiv", 1, out);
      EXPECT_EQ(result.kind, sim::Scenario::Result::Kind::badLine) << line;
      std::string suffix = ": " + std::string(c.usage);
      EXPECT_TRUE(
          result.message.size() > suffix.size() &&
          result.message.compare(result.message.size() - suffix.size(), suffix.size(), suffix) == 0)
          << c.word << ": help says '" << c.usage << "', the engine says '" << result.message
          << "'";
   }

   std::ostringstream out;
   EXPECT_EQ(s.runLine("help nosuch", "h.kiv", 7, out).message,
             "h.kiv:7: unknown command 'nosuch' (help lists the commands)");
   EXPECT_EQ(s.runLine("nosuch", "h.kiv", 8, out).message, "h.kiv:8: unknown command 'nosuch'");
   EXPECT_EQ(out.str(), "");
}

TEST(Scenario, AFileStopsAtItsBadLineAndAFailedCheckGoesOn) {
   sim::Scenario s;
   Played r = play(s,
                   "vrf red id 1\n"
                   "hwfail red 10.1.0.0/16 on\n"
                   "prefix red 10.1.0.0/16 web\n"
                   "firewall on\n"
                   "settle\n"
                   "check\n"
                   "echo still here\n"
                   "vrf red id one\n"
                   "echo never\n",
                   "f.kiv");
   EXPECT_EQ(r.result.kind, sim::Scenario::Result::Kind::badLine);
   EXPECT_EQ(r.result.message, "f.kiv:8: 'one' is not a number (VRF id)");
   // The check's header counts the differences; under each, where to look.
   EXPECT_EQ(r.out,
             "check: 1 difference\n"
             "red 10.1.0.0/16: missing, expected routeTypeDrop adj 1048578 id 1 (segment route)\n"
             "  record: none; syslog: 0 messages name it; last trace: addPrefixToHwWithDropNh "
             "10.1.0.0/16 could not be programmed in Hw\n"
             "still here\n");

   sim::Scenario t;
   Played u = play(t,
                   "vrf red id 1\n"
                   "hwfail red 10.1.0.0/16 on\n"
                   "prefix red 10.1.0.0/16 web\n"
                   "firewall on\n"
                   "settle\n"
                   "check\n"
                   "echo after\n");
   EXPECT_EQ(u.result.kind, sim::Scenario::Result::Kind::checkFailed);
}

TEST(Scenario, GeneratedPrefixesAreConsecutive) {
   sim::Scenario s;
   Played r = play(s,
                   "vrf red id 1\n"
                   "gen fib red 3 10.0.0.0/24\n"
                   "gen fib red 2 2001:db8::/127\n"
                   "hw\n");
   ASSERT_TRUE(r.result.ok()) << r.result.message;
   EXPECT_EQ(r.out,
             "red 10.0.0.0/24 routeTypeForward adj 1 id 0\n"
             "red 10.0.1.0/24 routeTypeForward adj 1 id 0\n"
             "red 10.0.2.0/24 routeTypeForward adj 1 id 0\n"
             "red 2001:db8::/127 routeTypeForward adj 1 id 0\n"
             "red 2001:db8::2/127 routeTypeForward adj 1 id 0\n");
}

// Completion follows the grammar the usage texts give: command words first
// (and after help), then each place's literal words, and the VRFs and
// segments in use where the usage names one; a shortened command word counts.
TEST(Scenario, NextWordsFollowTheUsageOfTheCommand) {
   const sim::ScenarioNames names{{"blue", "red"}, {"db", "web"}};
   using V = std::vector<std::string>;
   const V none;
   EXPECT_EQ(sim::scenarioNextWords({}, names).size(), sim::scenarioCommands().size());
   EXPECT_EQ(sim::scenarioNextWords({"help"}, names).size(), sim::scenarioCommands().size());
   EXPECT_EQ(sim::scenarioNextWords({"sh"}, names), (V{"routes", "detail", "summary", "counters"}));
   EXPECT_EQ(sim::scenarioNextWords({"show", "routes"}, names), (V{"blue", "red"}));
   EXPECT_EQ(sim::scenarioNextWords({"show", "routes", "red"}, names), (V{"db", "web", "json"}));
   EXPECT_EQ(sim::scenarioNextWords({"prefix", "red", "10.1.0.0/16"}, names),
             (V{"db", "web", "delete"}));
   EXPECT_EQ(sim::scenarioNextWords({"vrf"}, names), (V{"blue", "red"}));
   EXPECT_EQ(sim::scenarioNextWords({"vrf", "red"}, names), (V{"id", "delete"}));
   EXPECT_EQ(sim::scenarioNextWords({"segment", "red"}, names), (V{"db", "web"}));
   EXPECT_EQ(sim::scenarioNextWords({"hwfail", "red", "10.1.0.0/16"}, names),
             (V{"on", "off", "once"}));
   EXPECT_EQ(sim::scenarioNextWords({"routing"}, names), (V{"busy", "withdraw"}));
   // Numbers, prefixes and free names are not guessed; a word that names no
   // command (or several) has nothing after it.
   EXPECT_EQ(sim::scenarioNextWords({"fib", "red"}, names), none);
   EXPECT_EQ(sim::scenarioNextWords({"se"}, names), none);
   EXPECT_EQ(sim::scenarioNextWords({"settle"}, names), none);
}

}  // namespace
