// The route resolver's answers, automatic and manual.

#include "sim/RouteResolver.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>
#include <string>

#include "SimFixture.h"

using Quarn::Fib::GlobalFecId;
using sim::RouteResolver;
using simtest::pfx;

namespace {

// Checks, at every answer, that the adjacency of each next hop it names is
// already published.
class AnswerObserver : public RouteReactorStatus::Notifiee {
public:
   explicit AnswerObserver(simtest::Platform& p) : p_(p) { notifierIs(p.routeStatus); }
   int answers = 0;
   int unpublished = 0;
   void handleResolvedEntry(const VrfAndPrefix& k) override {
      ++answers;
      const NextHopEntryList* list = p_.routeStatus->resolvedEntry(k);
      if (list && !list->empty() &&
          p_.answerAdj(k.vrfId().value(), valueToStrep(k.prefix()).c_str()) < 0) {
         ++unpublished;
      }
   }

private:
   simtest::Platform& p_;
};

}  // namespace

TEST(SimRouteResolver, AutomaticAnswersWithTheLongestStrictlyCoveringFibRoute) {
   simtest::Platform p;
   AnswerObserver observer(p);
   ASSERT_TRUE(p.routing.vrfAdd("red", VrfId(1), true, true).ok());
   ASSERT_TRUE(p.routing.fibAdd("red", pfx("10.0.0.0/8"), 100).ok());
   ASSERT_TRUE(p.routing.fibAdd("red", pfx("10.1.0.0/16"), 200).ok());
   ASSERT_TRUE(p.routing.fibAdd("red", pfx("2001:db8::/32"), 600).ok());

   p.watch(1, "10.1.2.0/24");
   p.watch(1, "10.1.0.0/16");  // itself a FIB route: only the /8 covers it strictly
   p.watch(1, "11.0.0.0/8");
   p.watch(1, "2001:db8:1::/48");
   EXPECT_EQ(p.answer(1, "10.1.2.0/24"), nullptr) << "answered inside the notification";
   p.settle();
   EXPECT_EQ(p.answerAdj(1, "10.1.2.0/24"), 200);
   EXPECT_EQ(p.answerAdj(1, "10.1.0.0/16"), 100);
   EXPECT_EQ(p.answerAdj(1, "11.0.0.0/8"), 0);
   EXPECT_EQ(p.answerAdj(1, "2001:db8:1::/48"), 600);
   const NextHopEntryList expected{
       {true, RouteType::routeTypeForward, p.answer(1, "10.1.2.0/24")->at(0).fecIndex}};
   EXPECT_EQ(*p.answer(1, "10.1.2.0/24"), expected);

   // FIB changes above a watched prefix re-answer it; others do not.
   const int before = observer.answers;
   ASSERT_TRUE(p.routing.fibAdd("red", pfx("10.1.2.0/23"), 300).ok());
   ASSERT_TRUE(p.routing.fibAdd("red", pfx("10.1.2.0/25"), 400).ok());  // below it
   p.settle();
   EXPECT_EQ(p.answerAdj(1, "10.1.2.0/24"), 300);
   EXPECT_EQ(observer.answers, before + 1);
   ASSERT_TRUE(p.routing.fibDelete("red", pfx("10.1.2.0/23")).ok());
   ASSERT_TRUE(p.routing.fibDelete("red", pfx("10.1.0.0/16")).ok());
   p.settle();
   EXPECT_EQ(p.answerAdj(1, "10.1.2.0/24"), 100);
   ASSERT_TRUE(p.routing.fibAdd("red", pfx("10.0.0.0/7"), 700).ok());
   p.settle();
   EXPECT_EQ(p.answerAdj(1, "11.0.0.0/8"), 700);

   // Answers to one adjacency share its FEC; the FEC goes with its last user.
   p.watch(1, "10.1.3.0/24");
   p.settle();
   EXPECT_EQ(p.answer(1, "10.1.3.0/24")->at(0).fecIndex,
             p.answer(1, "10.1.2.0/24")->at(0).fecIndex);
   const uint32_t table = *p.routing.fibTableId("red");
   const uint16_t fec100 = p.answer(1, "10.1.2.0/24")->at(0).fecIndex;
   p.unwatch(1, "10.1.2.0/24");
   p.unwatch(1, "10.1.3.0/24");
   p.settle();
   EXPECT_NE(p.l3Status->adjacency(GlobalFecId(GlobalFecId::kForward, table, fec100)), nullptr)
       << "10.1.0.0/16 still goes to it";
   p.unwatch(1, "10.1.0.0/16");
   EXPECT_NE(p.answer(1, "10.1.0.0/16"), nullptr) << "withdrawn inside the notification";
   p.settle();
   EXPECT_EQ(p.answer(1, "10.1.0.0/16"), nullptr);
   EXPECT_EQ(p.answer(1, "10.1.2.0/24"), nullptr);
   EXPECT_EQ(p.l3Status->adjacency(GlobalFecId(GlobalFecId::kForward, table, fec100)), nullptr);
   EXPECT_EQ(observer.unpublished, 0);
}

TEST(SimRouteResolver, ManualAnswersOnlyWhatItIsTold) {
   simtest::Platform p;
   ASSERT_TRUE(p.routing.vrfAdd("red", VrfId(1), true, true).ok());
   ASSERT_TRUE(p.routing.fibAdd("red", pfx("10.0.0.0/8"), 100).ok());
   p.resolver.modeIs(RouteResolver::Mode::manual);

   p.watch(1, "10.1.0.0/16");
   p.settle();
   EXPECT_EQ(p.answer(1, "10.1.0.0/16"), nullptr);

   p.resolver.resolve(VrfId(1), pfx("10.1.0.0/16"), 7);
   p.resolver.resolveNone(VrfId(1), pfx("10.2.0.0/16"));  // held until watched
   p.resolver.resolve(VrfId(1), pfx("2001:db8::/32"), 8);
   p.settle();
   EXPECT_EQ(p.answerAdj(1, "10.1.0.0/16"), 7);
   EXPECT_EQ(p.answer(1, "10.2.0.0/16"), nullptr);
   p.watch(1, "10.2.0.0/16");
   p.watch(1, "2001:db8::/32");
   p.settle();
   EXPECT_EQ(p.answerAdj(1, "10.2.0.0/16"), 0);
   EXPECT_EQ(p.answerAdj(1, "2001:db8::/32"), 8);

   // FIB changes do not matter; a new word does.
   ASSERT_TRUE(p.routing.fibAdd("red", pfx("10.0.0.0/15"), 300).ok());
   p.settle();
   EXPECT_EQ(p.answerAdj(1, "10.1.0.0/16"), 7);
   p.resolver.resolveNone(VrfId(1), pfx("10.1.0.0/16"));
   p.settle();
   EXPECT_EQ(p.answerAdj(1, "10.1.0.0/16"), 0);

   // Back to automatic: every watched key is answered from the FIB.
   p.resolver.modeIs(RouteResolver::Mode::automatic);
   p.settle();
   EXPECT_EQ(p.answerAdj(1, "10.1.0.0/16"), 300);
   EXPECT_EQ(p.answerAdj(1, "10.2.0.0/16"), 100);
   EXPECT_EQ(p.answerAdj(1, "2001:db8::/32"), 0);
   EXPECT_EQ(p.resolver.fecCount(), 2u) << "the FECs of manual answers went with them";
}

// A VRF that goes takes its answers with it at once; back under the same id
// with another FIB table, it is answered again with that table's FECs, so no
// answer ever names a FEC its VRF's table lacks.
TEST(SimRouteResolver, AVrfThatGoesTakesItsAnswersAndIsAnsweredAgainWhenBack) {
   simtest::Platform p;
   AnswerObserver observer(p);
   ASSERT_TRUE(p.routing.vrfAdd("blue", VrfId(2), true, false).ok());
   ASSERT_TRUE(p.routing.vrfAdd("red", VrfId(1), true, false).ok());
   ASSERT_TRUE(p.routing.fibAdd("red", pfx("10.0.0.0/8"), 100).ok());
   p.watch(1, "10.1.0.0/16");
   p.settle();
   ASSERT_EQ(p.answerAdj(1, "10.1.0.0/16"), 100);
   const uint32_t oldTable = *p.routing.fibTableId("red");

   ASSERT_TRUE(p.routing.vrfDelete("blue").ok());
   ASSERT_TRUE(p.routing.vrfDelete("red").ok());
   EXPECT_EQ(p.answer(1, "10.1.0.0/16"), nullptr) << "withdrawn before anything else runs";
   EXPECT_EQ(p.resolver.fecCount(), 0u);
   ASSERT_TRUE(p.routing.vrfAdd("red", VrfId(1), true, false).ok());
   ASSERT_NE(*p.routing.fibTableId("red"), oldTable);
   ASSERT_TRUE(p.routing.fibAdd("red", pfx("10.0.0.0/8"), 200).ok());
   p.settle();
   EXPECT_EQ(p.answerAdj(1, "10.1.0.0/16"), 200);
   EXPECT_EQ(observer.unpublished, 0);
}

// Like a real agent, the resolver gives the thread back between FIB changes
// and between keys when the scheduler asks: a withdrawn table does not go
// in one run, and the answers come out as from one run.
TEST(SimRouteResolver, YieldsBetweenFibChangesAndKeysAndAnswersAsOneRun) {
   simtest::Platform whole;
   simtest::Platform pieces;
   pieces.scheduler->yieldPolicyIs(Zop::makePtr<Ruv::EveryNItemsYieldPolicy>(1));
   std::vector<std::string> watched;
   std::vector<std::string> fib;
   for (int i = 0; i < 30; ++i) {
      watched.push_back("10." + std::to_string(i) + ".1.0/24");
      fib.push_back("10." + std::to_string(i) + ".0.0/16");
      fib.push_back("10." + std::to_string(i) + ".0.0/20");
   }
   for (simtest::Platform* p : {&whole, &pieces}) {
      ASSERT_TRUE(p->routing.vrfAdd("red", VrfId(1), true, true).ok());
      for (const auto& w : watched) {
         p->watch(1, w.c_str());
      }
      p->settle();
      for (size_t i = 0; i < fib.size(); ++i) {
         ASSERT_TRUE(p->routing.fibAdd("red", pfx(fib[i].c_str()), 100 + i).ok());
      }
      p->settle();
   }
   for (const auto& w : watched) {
      EXPECT_EQ(pieces.answerAdj(1, w.c_str()), whole.answerAdj(1, w.c_str())) << w;
      EXPECT_GE(whole.answerAdj(1, w.c_str()), 100) << w;
   }
   // The whole table withdrawn: every FIB change is an item of its own.
   for (simtest::Platform* p : {&whole, &pieces}) {
      p->scheduler->resetStatistics();
      for (const auto& f : fib) {
         ASSERT_TRUE(p->routing.fibDelete("red", pfx(f.c_str())).ok());
      }
      p->settle();
   }
   EXPECT_EQ(whole.scheduler->statistics().byTaskName.at("SimRouteResolverTask").runs, 1u);
   EXPECT_GT(pieces.scheduler->statistics().byTaskName.at("SimRouteResolverTask").runs, fib.size());
   for (const auto& w : watched) {
      EXPECT_EQ(whole.answerAdj(1, w.c_str()), 0) << w;
      EXPECT_EQ(pieces.answerAdj(1, w.c_str()), 0) << w;
   }
   EXPECT_EQ(whole.resolver.fecCount(), 0u);
   EXPECT_EQ(pieces.resolver.fecCount(), 0u);
}

// A new FEC takes the lowest index its table has free, however the indices
// in use came and went (a table's indices are what the hardware shows).
TEST(SimRouteResolver, ANewFecTakesTheLowestFreeIndexOfItsTable) {
   simtest::Platform p;
   ASSERT_TRUE(p.routing.vrfAdd("red", VrfId(1), true, false).ok());
   p.resolver.modeIs(RouteResolver::Mode::manual);
   std::mt19937 rng(20261125);
   std::map<int, uint16_t> held;  // watch -> the index of its FEC (one adjacency each)
   for (int step = 0; step < 1500; ++step) {
      const int i = int(rng() % 48);
      const std::string prefix = "10." + std::to_string(i) + ".0.0/16";
      if (held.erase(i) != 0) {
         p.unwatch(1, prefix.c_str());
         p.settle();
         ASSERT_EQ(p.answer(1, prefix.c_str()), nullptr) << prefix;
         continue;
      }
      std::set<uint16_t> used;
      for (const auto& [w, index] : held) {
         used.insert(index);
      }
      uint16_t lowest = 1;
      while (used.count(lowest) != 0) {
         ++lowest;
      }
      p.watch(1, prefix.c_str());
      p.resolver.resolve(VrfId(1), pfx(prefix.c_str()), uint64_t(1000 + i));
      p.settle();
      ASSERT_NE(p.answer(1, prefix.c_str()), nullptr) << prefix;
      const uint16_t index = p.answer(1, prefix.c_str())->at(0).fecIndex;
      ASSERT_EQ(index, lowest) << "step " << step << ", " << prefix;
      held[i] = index;
   }
   EXPECT_EQ(p.resolver.fecCount(), held.size());
}

// A FIB change made by someone reacting to an answer is noted while the run
// answers keys, and the keys it covers are answered again: the notes it left
// outlive the run that drained everything else.
TEST(SimRouteResolver, AFibChangeMadeByAnAnswersReaderIsAnsweredInTheNextRun) {
   simtest::Platform p;
   ASSERT_TRUE(p.routing.vrfAdd("red", VrfId(1), true, true).ok());
   ASSERT_TRUE(p.routing.fibAdd("red", pfx("10.0.0.0/8"), 100).ok());
   struct Reactor : RouteReactorStatus::Notifiee {
      explicit Reactor(simtest::Platform& p) : p_(p) { notifierIs(p.routeStatus); }
      void handleResolvedEntry(const VrfAndPrefix&) override {
         if (!added_) {
            added_ = true;
            ASSERT_TRUE(p_.routing.fibAdd("red", pfx("10.1.0.0/16"), 200).ok());
         }
      }
      simtest::Platform& p_;
      bool added_ = false;
   } reactor(p);
   for (int i = 0; i < 50; ++i) {
      p.watch(1, ("10.1." + std::to_string(i) + ".0/24").c_str());
   }
   p.settle();
   for (int i = 0; i < 50; ++i) {
      EXPECT_EQ(p.answerAdj(1, ("10.1." + std::to_string(i) + ".0/24").c_str()), 200) << i;
   }
}
