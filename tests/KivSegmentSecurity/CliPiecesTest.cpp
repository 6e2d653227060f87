// The show commands built and printed a piece at a time: on random tables
// with several VRFs, nested segment prefixes of both families and FIB routes
// beneath them, a scheduler that wants the thread back after every item
// must not change a byte of any command's output (text or JSON), and must
// really cut the command into many runs; the command's own budget, looked at
// between VRFs, still decides alone where a listing repeats a VRF.

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <set>
#include <sstream>

#include "Agent/AgentCommandRequest.h"
#include "Ruv/TaskScheduler.h"
#include "sim/Scenario.h"

namespace {

struct Served {
   std::string out;
   uint64_t runs = 0;
};

class CliPieces : public ::testing::Test {
protected:
   void run(const std::string& line) {
      std::ostringstream out;
      auto r = sc_->runLine(line, "test", ++lineNo_, out);
      ASSERT_TRUE(r.ok()) << line << ": " << r.message;
   }

   // The request served, with the runs its reactor's task took.
   Served serve(const std::string& request, lumo::Format format) {
      auto& sw = sc_->sw();
      sw.scheduler()->resetStatistics();
      Served s;
      s.out = sw.cliRequest(request, format);
      for (const auto& [name, task] : sw.scheduler()->statistics().byTaskName) {
         if (name.rfind("AgentCommand ", 0) == 0) {
            s.runs += task.runs;
         }
      }
      return s;
   }

   void everyItemIs(bool on) {
      sc_->sw().scheduler()->yieldPolicyIs(
          on ? Zop::Ptr<Ruv::YieldPolicy>(Zop::makePtr<Ruv::EveryNItemsYieldPolicy>(1))
             : Zop::Ptr<Ruv::YieldPolicy>(Zop::makePtr<Ruv::TimeSliceYieldPolicy>()));
   }

   // Three VRFs of FIB routes inside 10.V.0.0/16 (and a few IPv6 ones), and
   // segment prefixes drawn from FIB routes and their covers, so they nest
   // and often are FIB routes themselves; segments per VRF from a small set,
   // one of them holding most prefixes.
   void randomTable(uint32_t seed) {
      std::mt19937 rng(seed);
      const char* vrfs[] = {"red", "green", "blue"};
      for (int v = 0; v < 3; ++v) {
         run(std::string("vrf ") + vrfs[v] + " id " + std::to_string(v + 2));
      }
      for (int v = 0; v < 3; ++v) {
         std::set<std::string> fib;
         std::vector<std::pair<uint32_t, unsigned>> routes;
         for (int i = 0; i < 40; ++i) {
            const unsigned len = 18 + rng() % 11;
            const uint32_t addr = (10u << 24) | (uint32_t(v + 1) << 16) | (rng() & 0xFFFF);
            const uint32_t masked = addr & (~uint32_t(0) << (32 - len));
            const std::string p = dotted(masked) + "/" + std::to_string(len);
            if (fib.insert(p).second) {
               routes.emplace_back(masked, len);
               run(std::string("fib ") + vrfs[v] + " " + p + " adj " + std::to_string(1 + i));
            }
         }
         run(std::string("fib ") + vrfs[v] + " 2001:db8:" + std::to_string(v + 1) +
             ":1::/64 adj 90");
         std::set<std::string> prefixes;
         for (int i = 0; i < 14; ++i) {
            const auto& [addr, len] = routes[rng() % routes.size()];
            const unsigned shorter = len - rng() % 8;
            const uint32_t masked = addr & (~uint32_t(0) << (32 - shorter));
            const std::string p = dotted(masked) + "/" + std::to_string(shorter);
            if (prefixes.insert(p).second) {
               const std::string segment = rng() % 3 ? "main" : "s" + std::to_string(rng() % 3);
               run(std::string("prefix ") + vrfs[v] + " " + p + " " + segment);
            }
         }
         run(std::string("prefix ") + vrfs[v] + " 2001:db8:" + std::to_string(v + 1) + "::/48 v6");
         run(std::string("segment ") + vrfs[v] + " idle");
      }
      run("firewall on");
      run("settle");
      ASSERT_TRUE(sc_->sw().check().empty());
   }

   static std::string dotted(uint32_t a) {
      return std::to_string(a >> 24) + "." + std::to_string((a >> 16) & 255) + "." +
             std::to_string((a >> 8) & 255) + "." + std::to_string(a & 255);
   }

   std::unique_ptr<sim::Scenario> sc_ = std::make_unique<sim::Scenario>();
   uint64_t lineNo_ = 0;
};

const char* const kRequests[] = {
    "HardwareRoutes##",         "HardwareDetail##",       "HardwareSummary##",
    "HardwareRoutes#green#",    "HardwareDetail#blue#",   "HardwareRoutes#red#main",
    "HardwareDetail#red#main",  "HardwareSummary#green#", "HardwareRoutes#nosuch#",
    "HardwareRoutes#blue#none",
};

TEST_F(CliPieces, YieldingAfterEveryItemPrintsExactlyWhatOneRunPrints) {
   for (uint32_t seed : {1u, 2u, 3u}) {
      SCOPED_TRACE("seed " + std::to_string(seed));
      sc_.reset();
      sc_ = std::make_unique<sim::Scenario>();
      lineNo_ = 0;
      randomTable(seed);
      for (const char* request : kRequests) {
         for (lumo::Format format : {lumo::Format::text, lumo::Format::json}) {
            SCOPED_TRACE(std::string(request) + (format == lumo::Format::json ? " json" : ""));
            everyItemIs(false);
            const Served whole = serve(request, format);
            EXPECT_EQ(whole.runs, 1u) << "the virtual clock never cuts a run";
            everyItemIs(true);
            const Served pieces = serve(request, format);
            EXPECT_EQ(pieces.out, whole.out);
            // Every listed prefix is a piece of its own (a row, and for
            // routes a key to sort), so the runs outnumber the rows.
            if (format == lumo::Format::text && std::string(request).rfind("HardwareSummary", 0)) {
               const auto rows = size_t(std::count(whole.out.begin(), whole.out.end(), '\n'));
               EXPECT_GT(pieces.runs, rows / 2);
            }
         }
      }
      // Guard against a vacuous table: routes lists all three VRFs, FIB-only
      // routes and segment prefixes that are FIB routes too.
      everyItemIs(false);
      const std::string routes = serve("HardwareRoutes##", lumo::Format::text).out;
      for (const char* needle :
           {"VRF: red", "VRF: green", "VRF: blue", " F   ", " S,F ", "2001:db8:1:1::/64"}) {
         EXPECT_NE(routes.find(needle), std::string::npos) << needle;
      }
   }
}

// The command's own output budget still cuts the listing between VRFs, and
// a VRF it stopped after is printed once more, exactly as without the
// scheduler's pauses: a pause does not start a new run for that budget.
TEST_F(CliPieces, PausesLeaveTheCommandsOwnBudgetWhereItWas) {
   randomTable(7);
   sc_->sw().cliServiceSettingsIs({.maxRunTime = 1.0, .bufferSize = 2000});
   for (const char* request : {"HardwareRoutes##", "HardwareDetail##"}) {
      for (lumo::Format format : {lumo::Format::text, lumo::Format::json}) {
         everyItemIs(false);
         const Served whole = serve(request, format);
         everyItemIs(true);
         const Served pieces = serve(request, format);
         EXPECT_EQ(pieces.out, whole.out) << request;
         EXPECT_GT(pieces.runs, whole.runs);
      }
   }
   // The budget did cut: some VRF is listed twice.
   everyItemIs(false);
   const std::string routes = serve("HardwareRoutes##", lumo::Format::text).out;
   size_t headers = 0;
   for (size_t at = routes.find("VRF: "); at != std::string::npos;
        at = routes.find("VRF: ", at + 1)) {
      ++headers;
   }
   EXPECT_GT(headers, 3u);
}

}  // namespace

// An outermost segment prefix over more FIB routes than one batch takes: the
// batches resume after the last route taken, through nested FIB routes and
// nested segment prefixes, and list every route once.
TEST_F(CliPieces, FibRoutesBeneathOnePrefixAreTakenInBatchesThatResume) {
   run("vrf red id 1");
   run("gen fib red 2500 10.200.0.0/24");
   for (const char* p :
        {"10.201.0.0/16", "10.203.0.0/17", "10.203.128.0/18", "10.192.0.0/12", "10.207.255.0/25"}) {
      run(std::string("fib red ") + p + " adj 7");
   }
   run("prefix red 10.192.0.0/12 wide");
   run("prefix red 10.201.0.0/16 narrow");
   run("prefix red 10.203.128.0/20 narrow");
   run("prefix red 10.208.0.0/16 other");
   run("firewall on");
   run("settle");
   ASSERT_TRUE(sc_->sw().check().empty());
   for (lumo::Format format : {lumo::Format::text, lumo::Format::json}) {
      everyItemIs(false);
      const Served whole = serve("HardwareRoutes##", format);
      everyItemIs(true);
      const Served pieces = serve("HardwareRoutes##", format);
      EXPECT_EQ(pieces.out, whole.out);
      EXPECT_GT(pieces.runs, 2500u);
   }
   // 10.192.0.0/12 holds the /24s up to 10.207.255.0 and the nested routes:
   // more than two batches.
   everyItemIs(true);
   const std::string text = serve("HardwareRoutes#red#", lumo::Format::text).out;
   size_t rows = 0;
   for (size_t at = text.find("/24 "); at != std::string::npos; at = text.find("/24 ", at + 1)) {
      ++rows;
   }
   // The 2,048 of them beneath 10.192.0.0/12 and the 256 beneath
   // 10.208.0.0/16; the ones beyond are beneath no segment prefix.
   EXPECT_EQ(rows, 2304u);
   EXPECT_EQ(text.find("10.209.0.0/24"), std::string::npos);
   for (const char* route : {"10.200.0.0/24", "10.207.255.0/24", "10.207.255.0/25",
                             "10.203.128.0/18", "10.208.0.0/24"}) {
      EXPECT_NE(text.find(std::string(route) + " "), std::string::npos) << route;
   }
}
