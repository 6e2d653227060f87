// Notifying attributes and the safety of a delivery against handlers that
// change the notifiee list, the entity, or its lifetime while it runs.

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Zop/Attr.h"
#include "Zop/Notifier.h"
#include "Zop/Ptr.h"

namespace {

using Log = std::vector<std::string>;

// A collection with one attribute of each kind, declared as an entity is.
class Coll : public Zop::PtrInterface {
public:
   class Notifiee : public Zop::BaseNotifiee<Coll> {
   public:
      virtual void handleMember(const int&) {}
      virtual void handleWeight(const std::string&) {}
      virtual void handleCounter() {}
   };
   explicit Coll(int* destroyed = nullptr) : destroyed_(destroyed) {}

   void memberIs(int k) { member_.is(*this, k); }
   void memberDel(int k) { member_.del(*this, k); }
   void memberDelAll() { member_.delAll(*this); }
   bool member(int k) const { return member_.has(k); }
   size_t members() const { return member_.size(); }
   void weightIs(const std::string& k, int v) { weight_.is(*this, k, v); }
   std::optional<int> weightDel(const std::string& k) { return weight_.del(*this, k); }
   void weightDelAll() { weight_.delAll(*this); }
   int weight(const std::string& k) const { return weight_.get(k, -1); }
   size_t weights() const { return weight_.size(); }
   void counterIs(uint32_t v) { counter_.is(*this, v); }
   void counterInc() { counter_.inc(*this); }
   uint32_t counter() const { return counter_.get(); }
   Zop::NotifierList<Notifiee>& notifieeList() { return notifiees_; }

protected:
   ~Coll() override {
      if (destroyed_) {
         ++*destroyed_;
      }
   }

private:
   int* destroyed_;
   Zop::NotifierList<Notifiee> notifiees_;
   Zop::HashSetAttr<Coll, int> member_{&Notifiee::handleMember};
   Zop::OrderedMapAttr<Coll, std::string, int> weight_{&Notifiee::handleWeight};
   Zop::ScalarAttr<Coll, uint32_t> counter_{&Notifiee::handleCounter};
};

// Logs "<name>:<attr><key>=<state seen by the handler>", then runs `then`.
class Recorder : public Coll::Notifiee {
public:
   Recorder(std::string name, Log* log) : name_(std::move(name)), log_(log) {}
   void handleMember(const int& k) override {
      log_->push_back(name_ + ":m" + std::to_string(k) + "=" +
                      (notifier()->member(k) ? "in" : "out"));
      run(k);
   }
   void handleWeight(const std::string& k) override {
      log_->push_back(name_ + ":w" + k + "=" + std::to_string(notifier()->weight(k)));
      run(0);
   }
   void handleCounter() override {
      log_->push_back(name_ + ":c=" + std::to_string(notifier()->counter()));
   }
   std::function<void(int)> then;

private:
   void run(int k) {
      if (then) {
         then(k);
      }
   }
   std::string name_;
   Log* log_;
};

class ZopNotifierTest : public ::testing::Test {
protected:
   std::unique_ptr<Recorder> recorder(const std::string& name) {
      auto r = std::make_unique<Recorder>(name, &log);
      r->notifierIs(coll);
      return r;
   }
   Log take() { return std::exchange(log, {}); }

   Zop::Ptr<Coll> coll = Zop::makePtr<Coll>();
   Log log;
};

TEST_F(ZopNotifierTest, AttributesNotifyOnlyRealChangesAfterMakingThem) {
   auto a = recorder("a");
   coll->memberIs(1);
   coll->memberIs(1);
   coll->memberDel(2);
   coll->memberDel(1);
   EXPECT_EQ(take(), (Log{"a:m1=in", "a:m1=out"}));

   coll->weightIs("x", 1);
   coll->weightIs("x", 1);
   coll->weightIs("x", 2);
   EXPECT_EQ(coll->weightDel("y"), std::nullopt);
   EXPECT_EQ(coll->weightDel("x"), 2);
   EXPECT_EQ(take(), (Log{"a:wx=1", "a:wx=2", "a:wx=-1"}));

   coll->counterIs(4294967295u);
   coll->counterIs(4294967295u);
   coll->counterInc();
   EXPECT_EQ(take(), (Log{"a:c=4294967295", "a:c=0"}));
}

TEST_F(ZopNotifierTest, DelAllNotifiesEachRemovalWithTheStateAfterIt) {
   auto a = recorder("a");
   std::vector<size_t> sizes;
   a->then = [&](int) { sizes.push_back(coll->members() + coll->weights()); };
   for (int k : {1, 2, 3}) {
      coll->memberIs(k);
   }
   coll->weightIs("p", 5);
   coll->weightIs("q", 6);
   take();
   sizes.clear();

   coll->weightDelAll();
   coll->memberDelAll();
   EXPECT_EQ(sizes, (std::vector<size_t>{4, 3, 2, 1, 0}));
   Log got = take();
   ASSERT_EQ(got.size(), 5u);
   // The map goes in key order, the set in whatever order it holds.
   std::sort(got.begin() + 2, got.end());
   EXPECT_EQ(got, (Log{"a:wp=-1", "a:wq=-1", "a:m1=out", "a:m2=out", "a:m3=out"}));
}

TEST_F(ZopNotifierTest, InactiveNotifieeStaysRegisteredButIsSkipped) {
   auto a = recorder("a"), b = recorder("b");
   a->notificationActiveIs(false);
   coll->memberIs(1);
   EXPECT_EQ(take(), (Log{"b:m1=in"}));
   EXPECT_EQ(coll->notifieeList().size(), 2u);
   a->notificationActiveIs(true);
   coll->memberIs(2);
   EXPECT_EQ(take(), (Log{"a:m2=in", "b:m2=in"}));
}

TEST_F(ZopNotifierTest, HandlerDetachesOrDestroysNotifieesNotYetCalled) {
   auto a = recorder("a"), b = recorder("b"), c = recorder("c"), d = recorder("d");
   a->then = [&](int) {
      b->notifierIs(nullptr);
      c.reset();
      a->notifierIs(nullptr);
   };
   coll->memberIs(1);
   EXPECT_EQ(take(), (Log{"a:m1=in", "d:m1=in"}));
   coll->memberIs(2);
   EXPECT_EQ(take(), (Log{"d:m2=in"}));
   EXPECT_EQ(coll->notifieeList().size(), 1u);
}

TEST_F(ZopNotifierTest, HandlerDeletesItself) {
   class SelfDeleting : public Coll::Notifiee {
      void handleMember(const int&) override { delete this; }
   };
   (new SelfDeleting)->notifierIs(coll);
   auto b = recorder("b");
   coll->memberIs(1);
   coll->memberIs(2);
   EXPECT_EQ(take(), (Log{"b:m1=in", "b:m2=in"}));
   EXPECT_EQ(coll->notifieeList().size(), 1u);
}

TEST_F(ZopNotifierTest, NotifieeRegisteredDuringDeliveryWaitsForTheNextChange) {
   auto a = recorder("a");
   std::unique_ptr<Recorder> late;
   a->then = [&](int) {
      if (!late) {
         late = recorder("late");
      }
   };
   coll->memberIs(1);
   EXPECT_EQ(take(), (Log{"a:m1=in"}));
   coll->memberIs(2);
   EXPECT_EQ(take(), (Log{"a:m2=in", "late:m2=in"}));
}

TEST_F(ZopNotifierTest, NestedChangeIsDeliveredAtOnceAndDetachInsideItIsSafe) {
   auto a = recorder("a"), b = recorder("b"), c = recorder("c");
   a->then = [&](int k) {
      if (k < 3) {
         coll->memberIs(k + 1);
      }
   };
   // b leaves during the innermost delivery; the outer ones must neither call
   // it again nor lose track of c.
   b->then = [&](int k) {
      if (k == 3) {
         b->notifierIs(nullptr);
      }
   };
   coll->memberIs(1);
   EXPECT_EQ(take(),
             (Log{"a:m1=in", "a:m2=in", "a:m3=in", "b:m3=in", "c:m3=in", "c:m2=in", "c:m1=in"}));
   EXPECT_EQ(coll->notifieeList().size(), 2u);
}

// The entity is reached only through a raw pointer and the notifiees' own
// pointers; the last notifiee to leave drops the last reference mid-change.
TEST_F(ZopNotifierTest, LastReferenceDroppedDuringDeliveryOutlivesTheChange) {
   int destroyed = 0;
   for (int which = 0; which < 3; ++which) {
      Zop::Ptr<Coll> owned = Zop::makePtr<Coll>(&destroyed);
      for (int k : {1, 2, 3}) {
         owned->memberIs(k);
      }
      owned->weightIs("p", 1);
      owned->weightIs("q", 2);
      Coll* raw = owned.ptr();
      auto a = std::make_unique<Recorder>("a", &log);
      a->notifierIs(owned);
      auto b = std::make_unique<Recorder>("b", &log);
      b->notifierIs(owned);
      owned = nullptr;
      a->then = [&](int) { a->notifierIs(nullptr); };
      b->then = [&](int) {
         b->notifierIs(nullptr);
         EXPECT_EQ(destroyed, which) << "freed while its change is being delivered";
      };
      if (which == 0) {
         raw->memberIs(4);
      } else if (which == 1) {
         raw->memberDelAll();
      } else {
         raw->weightDelAll();
      }
      EXPECT_EQ(destroyed, which + 1);
   }
}

}  // namespace

// A review list: members are taken oldest first, whatever else came and went.
// Its members are kept in any of the three sets a review list may use.
template <class Set = Zop::GrowingSet<int>>
class Queue : public Zop::PtrInterface {
public:
   class Notifiee : public Zop::BaseNotifiee<Queue> {
   public:
      virtual void handleMember(const int&) {}
   };
   Zop::NotifierList<Notifiee>& notifieeList() { return notifiees_; }
   Zop::NotifierList<Notifiee> notifiees_;
   Zop::QueueSetAttr<Queue, int, Set> member{&Notifiee::handleMember};
};

template <class Set>
class ZopQueueSetAttr : public ::testing::Test {};
using MemberSets = ::testing::Types<Zop::GrowingSet<int>, Zop::OrderedWorkSet<int>,
                                    Zop::HashThenOrderedSet<int>, Zop::AscendingRunSet<int>>;
TYPED_TEST_SUITE(ZopQueueSetAttr, MemberSets);

TYPED_TEST(ZopQueueSetAttr, FrontIsAlwaysAMemberAndDrainingGivesEachOnceInArrivalOrder) {
   std::mt19937 rng(7);
   for (int round = 0; round < 200; ++round) {
      auto q = Zop::makePtr<Queue<TypeParam>>();
      // Arrival order of the members, a key that comes back going last.
      std::vector<int> model;
      for (int op = 0; op < 300; ++op) {
         const int k = int(rng() % 40);
         if (rng() % 3 != 0) {
            if (q->member.is(*q, k)) {
               model.push_back(k);
            }
         } else if (q->member.del(*q, k)) {
            std::erase(model, k);
         }
         ASSERT_EQ(q->member.size(), model.size());
         if (!model.empty()) {
            ASSERT_TRUE(q->member.has(q->member.front()));
         }
      }
      // Drained from the front, every member comes out once; once nothing
      // left out of order stands in the queue, in arrival order.
      std::vector<int> drained;
      while (!q->member.empty()) {
         drained.push_back(q->member.front());
         q->member.del(*q, q->member.front());
      }
      std::vector<int> sortedDrained = drained, sortedModel = model;
      std::sort(sortedDrained.begin(), sortedDrained.end());
      std::sort(sortedModel.begin(), sortedModel.end());
      ASSERT_EQ(sortedDrained, sortedModel);
      // A pure queue history keeps arrival order exactly.
      for (int k : model) {
         q->member.is(*q, k);
      }
      drained.clear();
      while (!q->member.empty()) {
         drained.push_back(q->member.front());
         q->member.del(*q, q->member.front());
      }
      ASSERT_EQ(drained, model);
   }
}

// Lists drained out of order (the segment review takes members in hash
// order) leave stale copies behind, which are compacted away a few per call.
// However the two kinds of removal mix, the front is a member, and members
// that only ever left from the front come out in the order they came.
TYPED_TEST(ZopQueueSetAttr, CompactingStaleCopiesStepByStepKeepsArrivalOrder) {
   std::mt19937 rng(23);
   auto q = Zop::makePtr<Queue<TypeParam>>();
   std::set<int> members, outOfOrder;  // keys ever removed other than at the front
   std::vector<int> arrived, served;
   auto serve = [&] {
      const int front = q->member.front();
      ASSERT_TRUE(q->member.del(*q, front));
      members.erase(front);
      served.push_back(front);
   };
   for (int op = 0; op < 80000; ++op) {
      const int k = int(rng() % 50000);
      const unsigned what = rng() % 8;
      if (what < 4) {
         if (q->member.is(*q, k)) {
            members.insert(k);
            arrived.push_back(k);
         }
      } else if (what < 7) {
         // Out of order: the first member in hash order, or k.
         const int taken = what < 6 && !q->member.empty() ? *q->member.begin() : k;
         if (members.count(taken) && taken != q->member.front()) {
            outOfOrder.insert(taken);
         } else if (members.count(taken)) {
            served.push_back(taken);  // the set's first member may well be the front
         }
         ASSERT_EQ(q->member.del(*q, taken), members.erase(taken) == 1);
      } else if (!q->member.empty()) {
         serve();
      }
      ASSERT_EQ(q->member.size(), members.size());
      if (!members.empty()) {
         ASSERT_TRUE(members.count(q->member.front())) << "op " << op;
      }
   }
   // The final drain takes members from the front only.
   const size_t drainFrom = served.size();
   while (!q->member.empty()) {
      serve();
   }
   EXPECT_GT(served.size() - drainFrom, 1000u);
   std::erase_if(arrived, [&](int k) { return outOfOrder.count(k) != 0; });
   std::erase_if(served, [&](int k) { return outOfOrder.count(k) != 0; });
   EXPECT_GT(arrived.size(), 10000u);
   EXPECT_EQ(served, arrived);
}

// A walked map answers as a plain map does, whatever the order of the keys
// asked: in ascending runs (as a review of a table asks), backwards, absent
// between two entries or past the last; and a handler asking about the
// changed key, or about its neighbours, sees the map as it is after the
// change.
class Walked : public Zop::PtrInterface {
public:
   class Notifiee : public Zop::BaseNotifiee<Walked> {
   public:
      virtual void handleValue(const int&) {}
   };
   Zop::NotifierList<Notifiee>& notifieeList() { return notifiees_; }
   Zop::NotifierList<Notifiee> notifiees_;
   Zop::WalkedMapAttr<Walked, int, int> value{&Notifiee::handleValue};
};

TEST(ZopWalkedMapAttr, LookupsInAnyOrderAnswerAsAPlainMapThroughChanges) {
   std::mt19937 rng(29);
   auto w = Zop::makePtr<Walked>();
   std::map<int, int> model;
   auto expect = [&](int k) {
      const auto it = model.find(k);
      const int* v = w->value.find(k);
      ASSERT_EQ(v != nullptr, it != model.end()) << k;
      if (v) {
         ASSERT_EQ(*v, it->second) << k;
      }
   };
   class Asker : public Walked::Notifiee {
   public:
      std::function<void(int)> ask;
      void handleValue(const int& k) override { ask(k); }
   } asker;
   asker.ask = [&](int k) {
      for (int d = -2; d <= 2; ++d) {
         expect(k + d);
      }
   };
   asker.notifierIs(w);
   int at = 0;
   for (int op = 0; op < 200000; ++op) {
      const unsigned what = rng() % 16;
      if (what < 3) {
         const int k = int(rng() % 5000);
         const int v = int(rng() % 4);
         model[k] = v;  // before the change: its handler asks
         w->value.is(*w, k, v);
      } else if (what < 4) {
         const int k = int(rng() % 5000);
         const bool was = model.erase(k) == 1;
         ASSERT_EQ(w->value.del(*w, k).has_value(), was);
      } else if (what < 5) {
         at = int(rng() % 5200) - 100;  // a new run, past either end too
      } else if (what < 6) {
         expect(at - int(rng() % 50));  // backwards
      } else {
         at += int(rng() % 3);  // on, often to the next entry or between two
         expect(at);
      }
   }
   EXPECT_GT(model.size(), 1000u);
   asker.notifierIs(nullptr);
   w->value.delAll(*w);
   EXPECT_EQ(w->value.find(3), nullptr);
}

// The FIB route review list's set: keys arrive in ascending runs (a range
// walk) and leave from anywhere, the one after the last insertion included,
// which is where the next insertion starts looking.
TEST(ZopOrderedWorkSet, RunsOfKeysAndRemovalsAnywhereMatchAnOrderedSet) {
   std::mt19937 rng(5);
   Zop::OrderedWorkSet<int> set;
   std::set<int> model;
   int next = 0;
   for (int op = 0; op < 200000; ++op) {
      const unsigned what = rng() % 16;
      if (what < 9) {
         if (rng() % 64 == 0) {
            next = int(rng() % 100000);  // a new run
         }
         const int k = next++;
         ASSERT_EQ(set.insert(k), model.insert(k).second);
      } else if (what < 12) {
         const int k = next + int(rng() % 3) - 1;  // around the last insertion
         ASSERT_EQ(set.erase(k), model.erase(k) == 1);
      } else if (what < 15 && !model.empty()) {
         ASSERT_EQ(*set.begin(), *model.begin());
         ASSERT_TRUE(set.erase(*model.begin()));
         model.erase(model.begin());
      } else {
         const int k = int(rng() % 100000);
         ASSERT_EQ(set.erase(k), model.erase(k) == 1);
      }
      ASSERT_EQ(set.size(), model.size());
      if (op % 9973 == 0) {
         ASSERT_TRUE(std::equal(set.begin(), set.end(), model.begin(), model.end()));
      }
   }
   EXPECT_GT(set.held(), 1000u);
   set.release();
   EXPECT_TRUE(set.empty());
   EXPECT_EQ(set.held(), 0u);
   EXPECT_TRUE(set.insert(3) && !set.insert(3) && set.contains(3) && !set.contains(4));
}

// The FIB route review list's set: keys mostly come past the last one and
// leave oldest first, but a walk also queues keys below the last one, keys
// leave from anywhere and come back (a dead slot brought back to life, or a
// key out of order), and a drained set is given back and refilled.
TEST(ZopAscendingRunSet, AscendingRunsOldestFirstAndAnyOtherHistoryMatchAnOrderedSet) {
   std::mt19937 rng(11);
   Zop::AscendingRunSet<int> set;
   std::set<int> model;
   std::deque<int> arrivals;  // keys inserted, oldest first (may have left)
   int next = 0;
   size_t revived = 0;
   for (int op = 0; op < 300000; ++op) {
      const unsigned what = rng() % 32;
      if (what < 16) {
         if (rng() % 256 == 0) {
            next = int(rng() % 200000);  // a new run, anywhere
         }
         const int k = next;
         next += 1 + int(rng() % 3);
         ASSERT_EQ(set.insert(k), model.insert(k).second) << op;
         arrivals.push_back(k);
      } else if (what < 22) {
         // The oldest arrival still a member: the review taking its front.
         while (!arrivals.empty() && !model.count(arrivals.front())) {
            arrivals.pop_front();
         }
         if (!arrivals.empty()) {
            ASSERT_TRUE(set.erase(arrivals.front())) << op;
            model.erase(arrivals.front());
            arrivals.pop_front();
         }
      } else if (what < 26) {
         // Around the last insertion: out, and back in below the last key.
         const int k = next - int(rng() % 40);
         const bool in = model.count(k) != 0;
         if (rng() % 2 == 0) {
            ASSERT_EQ(set.erase(k), model.erase(k) == 1) << op;
         } else {
            ASSERT_EQ(set.insert(k), model.insert(k).second) << op;
            revived += in ? 0 : 1;
            arrivals.push_back(k);
         }
      } else if (what < 31) {
         const int k = int(rng() % 200000);
         ASSERT_EQ(set.contains(k), model.count(k) == 1) << op;
         if (what == 30) {
            ASSERT_EQ(set.erase(k), model.erase(k) == 1) << op;
         }
      } else if (op % 64 == 0 && model.size() < 3000) {
         // Drained and given back.
         for (const int k : model) {
            ASSERT_TRUE(set.erase(k));
         }
         model.clear();
         arrivals.clear();
         set.release();
      }
      ASSERT_EQ(set.size(), model.size()) << op;
      if (op % 4999 == 0) {
         std::vector<int> members(set.begin(), set.end());
         std::sort(members.begin(), members.end());
         ASSERT_TRUE(std::equal(members.begin(), members.end(), model.begin(), model.end())) << op;
      }
   }
   EXPECT_GT(revived, 1000u);
   EXPECT_GT(set.held(), 1000u);
}

// The segment review list's set: up to a few thousand members exactly the
// hash order a GrowingSet has for the same history, so that small lists are
// reviewed as they always were; beyond, key order once the members have
// moved across, every member met once while they move; given back, hash
// order again.
TEST(ZopHashThenOrderedSet, HashOrderWhileSmallKeyOrderBeyondAndHashOrderAgainWhenGivenBack) {
   using Set = Zop::HashThenOrderedSet<int>;
   std::mt19937 rng(17);
   Set set;
   auto smallHistory = [&](Set& s, unsigned seed) {
      std::mt19937 r(seed);
      Zop::GrowingSet<int> same;
      for (int op = 0; op < 12000; ++op) {
         const int k = int(r() % 3000);
         if (r() % 3 != 0) {
            ASSERT_EQ(s.insert(k), same.insert(k));
         } else {
            ASSERT_EQ(s.erase(k), same.erase(k));
         }
         if (op % 997 == 0) {
            ASSERT_TRUE(std::equal(s.begin(), s.end(), same.begin(), same.end())) << op;
         }
      }
      ASSERT_TRUE(std::equal(s.begin(), s.end(), same.begin(), same.end()));
   };
   smallHistory(set, 1);
   std::set<int> model(set.begin(), set.end());
   bool sawMoving = false;
   for (int op = 0; op < 60000; ++op) {
      const int k = int(rng() % 50000);
      if (rng() % 4 != 0) {
         ASSERT_EQ(set.insert(k), model.insert(k).second);
      } else {
         ASSERT_EQ(set.erase(k), model.erase(k) == 1);
      }
      ASSERT_EQ(set.size(), model.size());
      ASSERT_EQ(set.contains(k), model.count(k) == 1);
      if (op % 499 == 0) {
         // Each member once; the members already moved come last, in order.
         const std::vector<int> seen(set.begin(), set.end());
         std::vector<int> sorted = seen;
         std::sort(sorted.begin(), sorted.end());
         ASSERT_EQ(sorted, std::vector<int>(model.begin(), model.end()));
         const auto moved = std::is_sorted_until(seen.rbegin(), seen.rend(), std::greater<>());
         sawMoving = sawMoving || moved != seen.rend();
      }
   }
   EXPECT_TRUE(sawMoving);
   ASSERT_TRUE(std::equal(set.begin(), set.end(), model.begin(), model.end()));
   // Drained from begin(), as the segment review drains its list.
   while (!set.empty()) {
      ASSERT_EQ(*set.begin(), *model.begin());
      set.erase(*model.begin());
      model.erase(model.begin());
   }
   EXPECT_GT(set.held(), Set::kGrowInSteps);
   set.release();
   smallHistory(set, 2);
}

// A set past a few thousand members grows in steps: while the old table is
// being emptied, every member is found, counted and iterated exactly once,
// and a review list drained from the front still gives arrival order.
TEST(ZopGrowingSet, MembersStayVisibleAndUniqueWhileGrowingInSteps) {
   using Set = Zop::GrowingSet<int>;
   std::mt19937 rng(11);
   Set set;
   std::set<int> model;
   bool sawGrowing = false;
   auto checkIteration = [&] {
      std::vector<int> seen(set.begin(), set.end());
      std::sort(seen.begin(), seen.end());
      ASSERT_EQ(seen, std::vector<int>(model.begin(), model.end()));
   };
   // Mostly insertions, so the set crosses several growth points; checked
   // in full at a few hundred points, growth steps included.
   for (int op = 0; op < 120000; ++op) {
      const int k = int(rng() % 200000);
      if (rng() % 4 != 0) {
         ASSERT_EQ(set.insert(k), model.insert(k).second);
      } else {
         ASSERT_EQ(set.erase(k), model.erase(k) == 1);
      }
      ASSERT_EQ(set.size(), model.size());
      sawGrowing = sawGrowing || set.growing();
      if (op % 4999 == 0 || (set.growing() && op % 401 == 0)) {
         ASSERT_TRUE(set.contains(k) == (model.count(k) == 1));
         checkIteration();
      }
   }
   EXPECT_TRUE(sawGrowing);
   checkIteration();

   auto q = Zop::makePtr<Queue<>>();
   std::vector<int> arrival;
   for (int k = 0; k < 3 * int(Set::kGrowInSteps); ++k) {
      q->member.is(*q, k * 7919 % 100003);
      arrival.push_back(k * 7919 % 100003);
   }
   std::vector<int> drained;
   while (!q->member.empty()) {
      ASSERT_TRUE(q->member.has(q->member.front()));
      drained.push_back(q->member.front());
      q->member.del(*q, q->member.front());
   }
   EXPECT_EQ(drained, arrival);
}

// Keys in runs of 64 that share a hash: long probe runs, removals that shift
// a run back (across the table's end too), moves to a larger table in the
// middle of a run; and a list drained from
// begin(), as the segment review drains its list, still meets every member
// once and finds the next one without rescanning what it emptied.
TEST(ZopGrowingSet, OneLongProbeRunStaysConsistentThroughRemovalsGrowthAndDraining) {
   struct SameHash {
      size_t operator()(int k) const { return size_t(k / 64); }
   };
   using Set = Zop::GrowingSet<int, SameHash>;
   std::mt19937 rng(5);
   Set set;
   std::set<int> model;
   bool sawGrowing = false;
   for (int op = 0; op < 200000; ++op) {
      const int k = int(rng() % 100000);
      if (rng() % 4 != 0) {
         ASSERT_EQ(set.insert(k), model.insert(k).second) << op;
      } else {
         ASSERT_EQ(set.erase(k), model.erase(k) == 1) << op;
      }
      ASSERT_EQ(set.size(), model.size());
      sawGrowing = sawGrowing || set.growing();
      if (op % 4999 == 0) {
         for (int probe = 0; probe < 100000; probe += 7) {
            ASSERT_EQ(set.contains(probe), model.count(probe) == 1) << op << " " << probe;
         }
      }
   }
   ASSERT_GT(set.size(), Set::kGrowInSteps) << "the test must reach the open table";
   ASSERT_TRUE(sawGrowing) << "the test must grow the open table";
   std::set<int> drained;
   while (!set.empty()) {
      const int k = *set.begin();
      ASSERT_TRUE(drained.insert(k).second) << k << " met twice";
      ASSERT_TRUE(set.erase(k));
      if (drained.size() % 5 == 0 && k % 2 == 0) {
         // Members come and go while the list drains.
         ASSERT_EQ(set.insert(k + 100000), true);
         model.insert(k + 100000);
      }
   }
   EXPECT_EQ(drained, model);
}

// The open table alone, small enough that probe runs wrap around its end all
// the time: after any mix of insertions and shifting removals every member is
// found at a live slot and nothing else is.
TEST(ZopGrowingSet, OpenTableRunsThatWrapAroundKeepEveryMemberFindable) {
   std::mt19937 rng(3);
   for (int round = 0; round < 200; ++round) {
      Zop::detail::OpenTable<int, Zop::detail::KeyIsEntry> table(16);
      std::map<int, uint32_t> model;  // key -> its hash
      for (int op = 0; op < 200; ++op) {
         const int k = int(rng() % 40);
         const uint32_t h = 12 + uint32_t(k % 7);  // homes 12..18: across the end
         const size_t at = table.find(k, h);
         ASSERT_EQ(at != table.npos, model.count(k) == 1) << round << " " << op;
         if (at != table.npos) {
            table.eraseShift(at);
            model.erase(k);
         } else if (table.hasRoom()) {
            table.insertNew(k, h);
            model[k] = h;
         }
         ASSERT_EQ(table.size(), model.size());
         for (const auto& [key, hash] : model) {
            const size_t i = table.find(key, hash);
            ASSERT_NE(i, table.npos) << round << " " << op << " lost " << key;
            ASSERT_EQ(table.entryAt(i), key);
         }
      }
   }
}

// A table emptied from its start into another (as a growing or shrinking
// map empties its old table): once the slots below the mover are given
// back, a probe run that starts there, or wraps around the end into them,
// still reaches the entries past the mover.
TEST(ZopGrowingSet, OpenTableFindsEntriesPastTheSlotsGivenBack) {
   using Table = Zop::detail::OpenTable<int, Zop::detail::KeyIsEntry>;
   const size_t capacity = 16384;
   Table table(capacity);
   std::vector<std::pair<int, uint32_t>> keys;  // key, hash
   auto add = [&](int k, uint32_t h) {
      table.insertNew(k, h);
      keys.emplace_back(k, h);
   };
   for (int k = 0; k < 7400; ++k) {
      add(k, uint32_t(capacity - 1));  // one run: the last slot, then 0 .. 7398
   }
   for (int k = 0; k < 200; ++k) {
      add(100000 + k, 7050);  // a run across the mover below, after the first
   }
   std::mt19937 rng(31);
   for (int k = 0; k < 3000; ++k) {
      add(200000 + k, uint32_t(rng() % capacity));
   }
   const size_t mover = 7100;
   std::set<int> moved;
   for (size_t i = 0; i < mover; ++i) {
      if (table.liveAt(i)) {
         moved.insert(table.entryAt(i));
         table.eraseMark(i);
      }
   }
   table.killBelow(mover);
   size_t found = 0;
   for (const auto& [k, h] : keys) {
      const size_t at = table.find(k, h);
      if (moved.count(k)) {
         ASSERT_EQ(at, Table::npos) << k;
      } else {
         ASSERT_NE(at, Table::npos) << k << " lost";
         ASSERT_EQ(table.entryAt(at), k);
         ++found;
      }
   }
   EXPECT_EQ(found, table.size());
   EXPECT_GT(found, 1500u);
   EXPECT_GE(table.firstLive(), mover);
}

// A value that owns memory and counts its live copies: a slot that is
// moved, shifted or emptied without its value being destroyed (or destroyed
// twice) shows in the count, and under the address sanitizer as a leak or a
// double free.
struct OwnedValue {
   static inline int live = 0;
   std::vector<int> v;
   explicit OwnedValue(int x = 0) : v(size_t(x % 5 + 1), x) { ++live; }
   OwnedValue(const OwnedValue& o) : v(o.v) { ++live; }
   OwnedValue(OwnedValue&& o) noexcept : v(std::move(o.v)) { ++live; }
   OwnedValue& operator=(const OwnedValue&) = default;
   OwnedValue& operator=(OwnedValue&&) = default;
   ~OwnedValue() { --live; }
   friend bool operator==(const OwnedValue&, const OwnedValue&) = default;
};

// The map on the same table, as the map attributes use it, against
// std::map: values overwritten in place, erasure by iterator while the table
// grows in steps, and iteration meeting each entry once with its value. With
// values that own memory, and with keys in runs of one hash, so removals
// shift whole runs of such values back.
template <class V, class Hash>
void growingMapMatchesModel(unsigned seed) {
   Zop::GrowingMap<int, V, Hash> map;
   std::map<int, V> model;
   std::mt19937 rng(seed);
   auto same = [&](int op) {
      std::map<int, V> seen;
      for (const auto& [key, value] : map) {
         ASSERT_TRUE(seen.emplace(key, value).second) << key << " met twice";
      }
      ASSERT_EQ(seen, model) << op;
   };
   for (int op = 0; op < 150000; ++op) {
      const int k = int(rng() % 120000);
      const V v(int(rng() % 1000));
      if (rng() % 4 == 0) {
         auto it = map.find(k);
         ASSERT_EQ(it != map.end(), model.count(k) == 1) << op;
         if (it != map.end()) {
            ASSERT_EQ(it->second, model.at(k));
            map.erase(it);
            model.erase(k);
         }
      } else {
         auto [it, inserted] = map.try_emplace(k, v);
         ASSERT_EQ(inserted, model.count(k) == 0) << op;
         it->second = v;
         model.insert_or_assign(k, v);
      }
      ASSERT_EQ(map.size(), model.size());
      if (op % 9973 == 0) {
         same(op);
      }
   }
   same(-1);
}

TEST(ZopGrowingMap, BehavesAsAMapWhileGrowingInSteps) {
   struct SameHash {
      size_t operator()(int k) const { return size_t(k / 16); }
   };
   growingMapMatchesModel<int, std::hash<int>>(17);
   growingMapMatchesModel<OwnedValue, std::hash<int>>(19);
   growingMapMatchesModel<OwnedValue, SameHash>(23);
   EXPECT_EQ(OwnedValue::live, 0) << "values left undestroyed, or destroyed twice";
}

// A list filled past a hundred thousand and then emptied in random order
// shrinks (more than once) while it drains: every member is found while the
// big table is emptied from its start and its slots given back, probe runs
// that wrap around the end into those slots included, and the values moved
// out are destroyed exactly once.
TEST(ZopGrowingMap, ShrinksInStepsWhileDrainedAndKeepsEveryEntryFindable) {
   struct Runs {
      size_t operator()(int k) const { return size_t(k / 8); }
   };
   {
      Zop::GrowingMap<int, OwnedValue, Runs> map;
      std::map<int, OwnedValue> model;
      std::mt19937 rng(29);
      std::vector<int> keys;
      for (int k = 0; k < 160000; ++k) {
         keys.push_back(k * 3);
      }
      std::shuffle(keys.begin(), keys.end(), rng);
      for (int k : keys) {
         map.try_emplace(k, OwnedValue(k));
         model.emplace(k, OwnedValue(k));
      }
      std::shuffle(keys.begin(), keys.end(), rng);
      size_t shrinks = 0, buckets = map.bucket_count();
      for (size_t i = 0; i < keys.size(); ++i) {
         auto it = map.find(keys[i]);
         ASSERT_TRUE(it != map.end()) << i;
         map.erase(it);
         model.erase(keys[i]);
         if (map.bucket_count() < buckets) {
            ++shrinks;
         }
         buckets = map.bucket_count();
         if (map.growing() && i % 97 == 0) {
            // Present, absent and never-inserted keys, around the moving part.
            for (int probe = 0; probe < 480000; probe += 1 + int(rng() % 400)) {
               ASSERT_EQ(map.find(probe) != map.end(), model.count(probe) == 1)
                   << i << " " << probe;
            }
            std::map<int, OwnedValue> seen;
            for (const auto& [key, value] : map) {
               ASSERT_TRUE(seen.emplace(key, value).second) << key << " met twice";
            }
            ASSERT_EQ(seen, model) << i;
         }
      }
      EXPECT_GE(shrinks, 2u);
      EXPECT_TRUE(map.empty());
   }
   EXPECT_EQ(OwnedValue::live, 0);
}

// Calls are timed by the processor's counter and shown in nanoseconds: a
// handler that holds the thread for 2 ms by the clock shows 2 ms, whatever
// the counter's rate.
TEST_F(ZopNotifierTest, TimedHandlersShowClockTime) {
   auto a = recorder("a");
   a->then = [](int) {
      const Zop::Time until = Zop::monotonicNow() + 2 * Zop::kMillisecond;
      while (Zop::monotonicNow() < until) {
      }
   };
   Zop::notificationTimingIs(true);
   Zop::resetNotificationStatistics();
   coll->memberIs(1);
   coll->memberIs(2);
   Zop::notificationTimingIs(false);
   const Zop::NotificationStatistics& s = Zop::notificationStatistics();
   EXPECT_EQ(s.handlerCalls, 2u);
   EXPECT_GE(s.longestHandler, 19 * Zop::kMillisecond / 10);
   ASSERT_EQ(s.byNotifiee.size(), 1u);
   EXPECT_EQ(s.byNotifiee.begin()->second.calls, 2u);
   EXPECT_EQ(s.byNotifiee.begin()->second.longest, s.longestHandler);
   take();
}

TEST_F(ZopNotifierTest, TimedHandlersCountOutermostDeliveriesOnly) {
   auto a = recorder("a");
   auto b = recorder("b");
   // a's handler changes the collection again: b hears of that nested change
   // inside a's call, which is what a's call cost.
   a->then = [&](int k) {
      if (k == 1) {
         coll->memberIs(2);
      }
   };
   Zop::notificationTimingIs(true);
   Zop::resetNotificationStatistics();
   coll->memberIs(1);
   Zop::notificationTimingIs(false);
   coll->memberIs(3);
   const Zop::NotificationStatistics& s = Zop::notificationStatistics();
   // The delivery of 1 to a and b (with that of 2 nested inside a's call) is
   // one call; nothing for 3.
   EXPECT_EQ(s.handlerCalls, 1u);
   EXPECT_GT(s.longestHandler, 0);
   EXPECT_NE(std::string(s.longestHandlerNotifiee).find("Notifiee"), std::string::npos);
   EXPECT_EQ(take(), (Log{"a:m1=in", "a:m2=in", "b:m2=in", "b:m1=in", "a:m3=in", "b:m3=in"}));
}
