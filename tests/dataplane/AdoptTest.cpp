// Adopt mode against the kernel: routes another program (`ip route`) puts in
// a namespace's tables before kivsim starts and while it runs become FIB
// routes of the VRF whose id is the table, the library's segment ids reach
// them as realms, a route replaced by its owner without a realm gets it back,
// a deleted route leaves the switch, and kinds the switch cannot express are
// skipped with one line.
//
// Needs root and network namespaces; skipped, saying why, where they are not
// to be had.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>

#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>

#include "sim/Scenario.h"
#include "sim/linux/LinuxDataplane.h"

namespace {

// `ip ARGS`; its output, and whether it succeeded.
bool ip(const std::string& args, std::string* out = nullptr) {
   std::string text;
   FILE* p = popen(("ip " + args + " 2>&1").c_str(), "r");
   if (!p) {
      return false;
   }
   char buf[256];
   while (fgets(buf, sizeof buf, p)) {
      text += buf;
   }
   const int rc = pclose(p);
   if (out) {
      *out = text;
   }
   return rc == 0;
}

// A namespace of the test's own, with a link for next hops, gone at the end.
class AdoptTest : public ::testing::Test {
protected:
   void SetUp() override {
      if (geteuid() != 0) {
         GTEST_SKIP() << "needs root (network namespaces)";
      }
      ns_ = "kivadopt-" + std::to_string(getpid());
      std::string said;
      if (!ip("netns add " + ns_, &said)) {
         ns_.clear();
         GTEST_SKIP() << "no network namespace to be had (" << said << ")";
      }
      ASSERT_TRUE(ip("-n " + ns_ + " link add up0 type veth peer name up1"));
      ASSERT_TRUE(ip("-n " + ns_ + " link set up0 up"));
      ASSERT_TRUE(ip("-n " + ns_ + " link set up1 up"));
      ASSERT_TRUE(ip("-n " + ns_ + " addr add 192.0.2.1/24 dev up0"));
   }
   void TearDown() override {
      scenario_.reset();
      dp_.reset();
      if (!ns_.empty()) {
         ip("netns del " + ns_);
      }
   }
   // Routes added here are another program's (protocol boot, as `ip` adds).
   void route(const std::string& args) { ASSERT_TRUE(ip("-n " + ns_ + " route " + args)) << args; }
   void start(uint64_t yieldEvery = 0) {
      dp_ = sim::LinuxDataplane::open(ns_);
      ASSERT_EQ(dp_->adoptIs(), "");
      sim::ScenarioOptions o;
      o.yieldEvery = yieldEvery;
      o.dataplane = dp_;
      o.adopt = true;
      o.adoptNotes = &notes_;
      scenario_ = std::make_unique<sim::Scenario>(o);
   }
   std::string run(const std::string& text) {
      std::istringstream in(text);
      std::ostringstream out;
      auto result = scenario_->run(in, "test", out);
      EXPECT_NE(result.kind, sim::ScenarioResult::Kind::badLine) << result.message;
      return out.str();
   }
   // What the kernel holds in table N, as `ip` shows it.
   std::string table(int n) {
      std::string out;
      ip("-n " + ns_ + " route show table " + std::to_string(n), &out);
      return out;
   }

   std::string ns_;
   std::shared_ptr<sim::LinuxDataplane> dp_;
   std::unique_ptr<sim::Scenario> scenario_;
   std::ostringstream notes_;
};

TEST_F(AdoptTest, RoutesBeforeAndWhileRunningGetTheirRealms) {
   route("add 10.1.1.0/24 via 192.0.2.9 table 1");
   route("add 10.1.2.0/24 dev up0 table 1");
   route("add blackhole 10.1.9.0/24 table 1");
   route("add 10.9.0.0/16 via 192.0.2.9 table 5");  // no VRF's table
   route("add 10.7.0.0/16 via 192.0.2.7");          // the main table
   start();
   // The adjacencies: the next hop's address (or link) hashed, so the two
   // routes via 192.0.2.9 share one.
   EXPECT_EQ(run("vrf red id 1\n"
                 "prefix red 10.1.0.0/16 web\n"
                 "prefix red 10.1.2.0/24 db\n"
                 "firewall on\n"
                 "settle\n"
                 "hw\n"
                 "check\n"),
             "red 10.1.0.0/16 routeTypeDrop adj 1048578 id 2\n"
             "red 10.1.1.0/24 routeTypeForward adj 2553252 id 2\n"
             "red 10.1.2.0/24 routeTypeForward adj 2997739 id 1\n"
             "check: ok\n");
   EXPECT_EQ(notes_.str(),
             "kivsim: adopt: vrf red 10.1.9.0/24: skipped: a blackhole route is not a forward "
             "route\n");
   // The owner's routes (protocol boot, which ip does not show), with our
   // realms, beside the library's own route of the segment prefix.
   EXPECT_EQ(table(1),
             "blackhole 10.1.0.0/16 proto 76 realm 2 \n"
             "10.1.1.0/24 via 192.0.2.9 dev up0 realm 2 \n"
             "10.1.2.0/24 dev up0 scope link realm 1 \n"
             "blackhole 10.1.9.0/24 \n");

   // While it runs: a route added, one moved to another next hop, one
   // deleted; a VRF that takes table 5 gets its route.
   route("add 10.1.3.0/24 via 192.0.2.9 table 1");
   route("replace 10.1.1.0/24 via 192.0.2.10 table 1");
   route("del 10.1.2.0/24 table 1");
   EXPECT_EQ(run("vrf blue id 5\n"
                 "settle\n"
                 "hw\n"
                 "check\n"),
             "blue 10.9.0.0/16 routeTypeForward adj 2553252 id 0\n"
             "red 10.1.0.0/16 routeTypeDrop adj 1048578 id 2\n"
             "red 10.1.1.0/24 routeTypeForward adj 2173300 id 2\n"
             "red 10.1.2.0/24 routeTypeDrop adj 1048578 id 1\n"
             "red 10.1.3.0/24 routeTypeForward adj 2553252 id 2\n"
             "check: ok\n");
   // 10.1.2.0/24 is the library's now: a segment prefix without its FIB
   // route.
   EXPECT_EQ(table(1),
             "blackhole 10.1.0.0/16 proto 76 realm 2 \n"
             "10.1.1.0/24 via 192.0.2.10 dev up0 realm 2 \n"
             "blackhole 10.1.2.0/24 proto 76 realm 1 \n"
             "10.1.3.0/24 via 192.0.2.9 dev up0 realm 2 \n"
             "blackhole 10.1.9.0/24 \n");
}

TEST_F(AdoptTest, ARouteReplacedWithoutItsRealmGetsItBack) {
   route("add 10.1.1.0/24 via 192.0.2.9 table 1");
   start();
   run("vrf red id 1\n"
       "prefix red 10.1.0.0/16 web\n"
       "firewall on\n"
       "settle\n");
   const std::string own = "blackhole 10.1.0.0/16 proto 76 realm 1 \n";
   EXPECT_EQ(table(1), own + "10.1.1.0/24 via 192.0.2.9 dev up0 realm 1 \n");
   // The owner writes the same route again, without a realm (and with
   // another protocol): the switch sees no change of the FIB route, the
   // kernel lost the realm, the dataplane writes it back.
   route("replace 10.1.1.0/24 via 192.0.2.9 table 1 proto static");
   EXPECT_EQ(table(1), own + "10.1.1.0/24 via 192.0.2.9 dev up0 proto static \n");
   EXPECT_EQ(run("settle\ncheck\n"), "check: ok\n");
   EXPECT_EQ(table(1), own + "10.1.1.0/24 via 192.0.2.9 dev up0 proto static realm 1 \n");
   EXPECT_EQ(dp_->realmsRestored(), 1u);
   // A segment move re-tags it as any FIB route.
   run("prefix red 10.1.1.0/24 db\nsettle\n");
   EXPECT_EQ(table(1),
             "blackhole 10.1.0.0/16 proto 76 realm 1 \n"
             "10.1.1.0/24 via 192.0.2.9 dev up0 proto static realm 2 \n");
   // At the end the realm goes and the route stays its owner's.
   scenario_.reset();
   dp_.reset();
   EXPECT_EQ(table(1), "10.1.1.0/24 via 192.0.2.9 dev up0 proto static \n");
}

TEST_F(AdoptTest, ADeletedRouteLeavesTheSwitchAndItsSegmentRouteTakesOver) {
   route("add 10.1.1.0/24 via 192.0.2.9 table 1");
   start();
   run("vrf red id 1\n"
       "prefix red 10.1.1.0/24 web\n"
       "firewall on\n"
       "settle\n");
   EXPECT_EQ(run("hw\n"), "red 10.1.1.0/24 routeTypeForward adj 2553252 id 1\n");
   route("del 10.1.1.0/24 table 1");
   // The segment prefix is no FIB route any more: the library's own route.
   EXPECT_EQ(run("settle\nhw\ncheck\n"),
             "red 10.1.1.0/24 routeTypeDrop adj 1048578 id 1\n"
             "check: ok\n");
   EXPECT_EQ(table(1), "blackhole 10.1.1.0/24 proto 76 realm 1 \n");
   // Back again: the owner's route, tagged.
   route("replace 10.1.1.0/24 via 192.0.2.9 table 1");
   EXPECT_EQ(run("settle\nhw\ncheck\n"),
             "red 10.1.1.0/24 routeTypeForward adj 2553252 id 1\n"
             "check: ok\n");
   EXPECT_EQ(table(1), "10.1.1.0/24 via 192.0.2.9 dev up0 realm 1 \n");
}

// IPv6: the route is adopted and tagged; the id is kept beside the kernel's
// route, which carries no realm and is not written.
TEST_F(AdoptTest, AnIpv6RouteIsAdoptedWithItsIdBesideTheKernel) {
   route("add 2001:db8:1::/48 via fe80::1 dev up0 table 1");
   start();
   EXPECT_EQ(run("vrf red id 1\n"
                 "prefix red 2001:db8::/32 web\n"
                 "firewall on\n"
                 "settle\n"
                 "hw\n"
                 "check\n"),
             "red 2001:db8::/32 routeTypeDrop adj 1048579 id 1\n"
             "red 2001:db8:1::/48 routeTypeForward adj 2724855 id 1\n"
             "check: ok\n");
   std::string shown;
   ip("-n " + ns_ + " -6 route show table 1 2001:db8:1::/48", &shown);
   EXPECT_EQ(shown, "2001:db8:1::/48 via fe80::1 dev up0 metric 1024 pref medium\n");
   route("del 2001:db8:1::/48 table 1");
   EXPECT_EQ(run("settle\nhw\ncheck\n"),
             "red 2001:db8::/32 routeTypeDrop adj 1048579 id 1\ncheck: ok\n");
}

// Many changes, read by a task that yields after every one: each settle
// still sees all of them.
TEST_F(AdoptTest, EveryChangeIsSeenWhenTheTaskYieldsAfterEachOne) {
   char path[] = "/tmp/kivadopt-XXXXXX";
   int fd = mkstemp(path);
   ASSERT_GE(fd, 0);
   std::string batch;
   for (int i = 0; i < 300; ++i) {
      batch += "route add 10.2." + std::to_string(i / 256) + "." + std::to_string(i % 256) +
               "/32 via 192.0.2." + std::to_string(2 + i % 3) + " table 1\n";
   }
   ASSERT_EQ(write(fd, batch.data(), batch.size()), ssize_t(batch.size()));
   close(fd);
   start(1);
   run("vrf red id 1\nprefix red 10.2.0.0/16 web\nfirewall on\n");
   ASSERT_TRUE(ip("-n " + ns_ + " -batch " + path));
   EXPECT_EQ(run("settle\ncheck\n"), "check: ok\n");
   EXPECT_EQ(scenario_->sw().routing().fibRoutes("red").size(), 300u);
   std::string shown;
   ip("-n " + ns_ + " route show table 1 realm 1", &shown);
   EXPECT_EQ(std::count(shown.begin(), shown.end(), '\n'), 301);  // and the segment prefix
   // Taken away again, in one batch.
   for (size_t at = 0; (at = batch.find("add", at)) != std::string::npos;) {
      batch.replace(at, 3, "del");
   }
   fd = ::open(path, O_WRONLY | O_TRUNC);
   ASSERT_EQ(write(fd, batch.data(), batch.size()), ssize_t(batch.size()));
   close(fd);
   ASSERT_TRUE(ip("-n " + ns_ + " -batch " + path));
   unlink(path);
   EXPECT_EQ(run("settle\nhw\ncheck\n"),
             "red 10.2.0.0/16 routeTypeDrop adj 1048578 id 1\ncheck: ok\n");
   EXPECT_EQ(scenario_->sw().routing().fibRoutes("red").size(), 0u);
}

}  // namespace
