// The Linux dataplane against the kernel: what the kernel holds after a
// scenario (realms, blackholes, next hops), a write the kernel refuses
// reaching the library as a refused write, the namespace going with the
// dataplane, and random histories judged against the kernel's tables.
//
// Needs root and network namespaces; skipped, saying why, where they are not
// to be had. KIV_LINUX_HISTORIES=N sets how many histories (default 12).

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <random>
#include <sstream>
#include <string>

#include "sim/Scenario.h"
#include "sim/linux/LinuxDataplane.h"
#include "support/History.h"

namespace {

std::shared_ptr<sim::LinuxDataplane> openOrSkipReason(std::string& why) {
   try {
      return sim::LinuxDataplane::open("");
   } catch (const sim::LinuxDataplane::Error& e) {
      why = e.what();
      return nullptr;
   }
}

#define OPEN_OR_SKIP(dp)                                             \
   std::string skipWhy;                                              \
   auto dp = openOrSkipReason(skipWhy);                              \
   if (!dp) {                                                        \
      GTEST_SKIP() << "no Linux dataplane here (" << skipWhy << ")"; \
   }

// What `ip -n NETNS ARGS` prints.
std::string ipOutput(const std::string& netns, const std::string& args) {
   std::string cmd = "ip -n " + netns + " " + args + " 2>&1";
   std::string out;
   if (FILE* p = popen(cmd.c_str(), "r")) {
      char buf[256];
      while (fgets(buf, sizeof buf, p)) {
         out += buf;
      }
      pclose(p);
   }
   return out;
}

std::string run(sim::Scenario& s, const std::string& text) {
   std::istringstream in(text);
   std::ostringstream out;
   auto result = s.run(in, "test", out);
   EXPECT_NE(result.kind, sim::ScenarioResult::Kind::badLine) << result.message;
   return out.str();
}

TEST(LinuxDataplane, KernelHoldsTheSegmentIdsAsRealms) {
   OPEN_OR_SKIP(dp);
   sim::ScenarioOptions o;
   o.dataplane = dp;
   sim::Scenario s(o);
   const std::string out = run(s,
                               "vrf red id 1\n"
                               "vrf blue id 7 routing on\n"
                               "fib red 10.1.1.0/24 adj 11\n"
                               "fib red 10.1.2.0/24 adj 12\n"
                               "fib blue 10.0.0.0/8 adj 21\n"
                               "prefix red 10.1.0.0/16 web\n"
                               "prefix red 10.1.2.0/23 db\n"
                               "prefix blue 10.7.0.0/16 app\n"
                               "firewall on\n"
                               "settle\n"
                               "hw\n"
                               "check\n");
   EXPECT_EQ(out,
             "blue 10.0.0.0/8 routeTypeForward adj 21 id 0\n"
             "blue 10.7.0.0/16 routeTypeForward adj 21 id 3\n"
             "red 10.1.0.0/16 routeTypeDrop adj 1048578 id 2\n"
             "red 10.1.1.0/24 routeTypeForward adj 11 id 2\n"
             "red 10.1.2.0/23 routeTypeDrop adj 1048578 id 1\n"
             "red 10.1.2.0/24 routeTypeForward adj 12 id 1\n"
             "check: ok\n");
   // The same, as the kernel's own tool shows it: FIB routes (protocol 75)
   // and segment routes (76), realms = ids.
   EXPECT_EQ(ipOutput(dp->netns(), "route show table 1 proto 75"),
             "10.1.1.0/24 via 100.64.0.11 dev kiv0 onlink realm 2 \n"
             "10.1.2.0/24 via 100.64.0.12 dev kiv0 onlink realm 1 \n");
   EXPECT_EQ(ipOutput(dp->netns(), "route show table 1 proto 76"),
             "blackhole 10.1.0.0/16 realm 2 \n"
             "blackhole 10.1.2.0/23 realm 1 \n");
   EXPECT_EQ(ipOutput(dp->netns(), "route show table 7 proto 76"),
             "10.7.0.0/16 via 100.64.0.21 dev kiv0 onlink realm 3 \n");
   // Nothing of ours anywhere else, and nothing outside the namespace.
   EXPECT_EQ(ipOutput(dp->netns(), "route show table main proto 76"), "");
}

TEST(LinuxDataplane, AKernelRefusalIsARefusedWrite) {
   OPEN_OR_SKIP(dp);
   sim::ScenarioOptions o;
   o.dataplane = dp;
   sim::Scenario s(o);
   // Table 255 is the kernel's local table: every write there is refused. A
   // forward adjacency beyond the next-hop range cannot be expressed either.
   const std::string out = run(s,
                               "vrf red id 255\n"
                               "vrf blue id 2 routing on\n"
                               "fib red 10.1.1.0/24 adj 11\n"
                               "prefix red 10.1.0.0/16 web\n"
                               "fib blue 10.0.0.0/8 adj 5000000\n"
                               "prefix blue 10.7.0.0/16 app\n"
                               "firewall on\n"
                               "settle\n");
   const auto& c = s.sw().hardware().counters();
   EXPECT_GT(c.refusals, 0u) << "the segment routes were refused";
   EXPECT_EQ(c.dataplaneFibRefusals, 2u) << "both FIB routes";
   EXPECT_EQ(s.sw().hardware().entries().size(), 0u) << "the kernel holds none of it";
   ASSERT_FALSE(dp->refusals().empty());
   EXPECT_EQ(dp->refusals().front().rfind("vrf 255 10.1.1.0/24: ", 0), 0u)
       << dp->refusals().front();
   // check sees the kernel's tables, so it finds what is missing.
   std::ostringstream checked;
   std::istringstream in("check\n");
   EXPECT_EQ(s.run(in, "test", checked).kind, sim::ScenarioResult::Kind::checkFailed);
}

TEST(LinuxDataplane, ItsNamespaceGoesWithIt) {
   std::string path;
   {
      OPEN_OR_SKIP(dp);
      path = "/run/netns/" + dp->netns();
      struct stat st {};
      ASSERT_EQ(stat(path.c_str(), &st), 0);
      ASSERT_TRUE(dp->entryIs(
          {VrfId(3), Zop::strepToValue<Pexo::IpGenPrefix>("10.9.0.0/16")},
          {RouteInfo(RouteType::routeTypeDrop, 4), SegmentHwId(9), sim::HwOwner::segmentRoute}));
      EXPECT_EQ(dp->classId({VrfId(3), Zop::strepToValue<Pexo::IpGenPrefix>("10.9.0.0/16")}),
                SegmentHwId(9));
   }
   struct stat st {};
   EXPECT_NE(stat(path.c_str(), &st), 0) << path << " is still there";
}

// Random histories of scenario lines (the simulator's own history generator
// and judge), each over a fresh namespace, judged after every settle and
// every scheduler slice against the kernel's tables.
TEST(LinuxDataplane, RandomHistoriesAgainstTheKernel) {
   { OPEN_OR_SKIP(probe); }
   const char* env = std::getenv("KIV_LINUX_HISTORIES");
   const uint64_t histories = env && *env ? std::strtoull(env, nullptr, 10) : 12;
   uint64_t checks = 0, refusals = 0;
   for (uint64_t seed = 1; seed <= histories; ++seed) {
      KivTest::Runner runner(sim::LinuxDataplane::open(""));
      std::mt19937_64 rng(seed);
      KivTest::Generator gen([&rng] { return rng(); }, runner.sw(), seed % 2 == 0, 30 + rng() % 60);
      KivTest::Lines history;
      auto feed = [&](const KivTest::Lines& lines) {
         for (const auto& line : lines) {
            auto problems = runner.run(line);
            if (!problems) {
               continue;
            }
            history.push_back(line);
            if (!problems->empty()) {
               std::string text;
               for (const auto& l : history) {
                  text += l + "\n";
               }
               ADD_FAILURE() << "seed " << seed << ": " << problems->front() << "\nhistory:\n"
                             << text;
               return false;
            }
         }
         return true;
      };
      if (feed(gen.opening())) {
         while (!gen.done() && feed(gen.next(runner))) {
         }
      }
      checks += runner.checks();
      refusals += runner.sw().hardware().counters().refusals;
      if (HasFailure()) {
         break;
      }
   }
   RecordProperty("checks", std::to_string(checks));
   RecordProperty("refusals", std::to_string(refusals));
   EXPECT_GT(checks, histories) << "the histories were judged";
}

}  // namespace
