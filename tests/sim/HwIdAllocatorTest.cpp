// The hw-id allocator: lowest free id, unique across VRFs, released with the
// request; manual grants.

#include "sim/HwIdAllocator.h"

#include <gtest/gtest.h>

#include "SimFixture.h"

using sim::HwIdAllocator;

namespace {

SegmentIdRequestKey key(uint32_t vrf, const char* segment) {
   return SegmentIdRequestKey(VrfId(vrf), segment);
}

uint16_t granted(const simtest::Platform& p, const SegmentIdRequestKey& k) {
   const SegmentIdStatus* s = p.responses->status(k);
   return s ? s->hwId.value() : 0;
}

}  // namespace

TEST(SimHwIdAllocator, GrantsTheLowestFreeIdUniquelyAndTakesItBack) {
   simtest::Platform p;
   p.requests->requestIs(key(2, "web"));
   p.requests->requestIs(key(1, "web"));
   p.requests->requestIs(key(1, "db"));
   EXPECT_FALSE(p.responses->statusHas(key(1, "web"))) << "answered inside the notification";
   p.settle();
   // Answered in key order, whatever order the requests came in.
   EXPECT_EQ(granted(p, key(1, "db")), 1);
   EXPECT_EQ(granted(p, key(1, "web")), 2);
   EXPECT_EQ(granted(p, key(2, "web")), 3);
   // Each id names one key, through the reverse entry too.
   EXPECT_EQ(*p.responses->hwIdKey(SegmentHwId(3)), key(2, "web"));

   p.requests->requestDel(key(1, "web"));
   p.settle();
   EXPECT_FALSE(p.responses->statusHas(key(1, "web")));
   EXPECT_EQ(p.responses->hwIdKey(SegmentHwId(2)), nullptr);
   p.requests->requestIs(key(3, "app"));
   p.settle();
   EXPECT_EQ(granted(p, key(3, "app")), 2) << "the freed id is the lowest free one";

   // An exhausted pool makes requests wait until an id comes free.
   ASSERT_TRUE(p.allocator.poolIs(1, 3).ok());
   p.requests->requestIs(key(4, "x"));
   p.requests->requestIs(key(4, "y"));
   p.settle();
   EXPECT_EQ(p.allocator.pendingRequests(), (std::vector{key(4, "x"), key(4, "y")}));
   p.requests->requestDel(key(1, "db"));
   p.settle();
   EXPECT_EQ(granted(p, key(4, "x")), 1);
   EXPECT_EQ(p.allocator.pendingRequests(), (std::vector{key(4, "y")}));
   ASSERT_TRUE(p.allocator.poolIs(10, 11).ok());
   p.settle();
   EXPECT_EQ(granted(p, key(4, "y")), 10);
   EXPECT_FALSE(p.allocator.poolIs(0, 5).ok());
   EXPECT_FALSE(p.allocator.poolIs(5, 65535).ok());

   // A request withdrawn before its answer leaves nothing behind.
   p.requests->requestIs(key(5, "z"));
   p.requests->requestDel(key(5, "z"));
   p.settle();
   EXPECT_FALSE(p.responses->statusHas(key(5, "z")));
   EXPECT_EQ(p.allocator.grants().size(), p.responses->status().size());
   EXPECT_EQ(p.allocator.grants().size(), 4u);
}

TEST(SimHwIdAllocator, ManualGrantsWaitForTheWord) {
   simtest::Platform p;
   p.allocator.modeIs(HwIdAllocator::Mode::manual);
   p.requests->requestIs(key(1, "web"));
   p.requests->requestIs(key(1, "db"));
   p.requests->requestIs(key(1, "app"));
   p.settle();
   EXPECT_TRUE(p.responses->status().empty());
   EXPECT_EQ(p.allocator.pendingRequests().size(), 3u);

   ASSERT_TRUE(p.allocator.grant(key(1, "web")).ok());
   EXPECT_EQ(granted(p, key(1, "web")), 1);
   ASSERT_TRUE(p.allocator.grant(key(1, "db"), SegmentHwId(500)).ok());
   EXPECT_EQ(granted(p, key(1, "db")), 500);

   EXPECT_FALSE(p.allocator.grant(key(1, "web")).ok()) << "granted already";
   EXPECT_FALSE(p.allocator.grant(key(1, "app"), SegmentHwId(500)).ok()) << "id taken";
   EXPECT_FALSE(p.allocator.grant(key(1, "app"), SegmentHwId(0)).ok());
   EXPECT_FALSE(p.allocator.grant(key(1, "app"), SegmentHwId(65535)).ok());
   EXPECT_FALSE(p.allocator.grant(key(2, "web")).ok()) << "nobody asked";
   EXPECT_FALSE(p.responses->statusHas(key(1, "app")));

   // Withdrawal works in manual mode too; automatic grants what waits.
   p.requests->requestDel(key(1, "web"));
   p.settle();
   EXPECT_FALSE(p.responses->statusHas(key(1, "web")));
   p.allocator.modeIs(HwIdAllocator::Mode::automatic);
   p.settle();
   EXPECT_EQ(granted(p, key(1, "app")), 1);
   EXPECT_TRUE(p.allocator.pendingRequests().empty());
}

// What else an allocator may do: take a grant back while the request
// stands, publish the invalid id, say a grant again.
TEST(SimHwIdAllocator, RevokedIdsStayWithTheirKeyInvalidAndRepeatedGrants) {
   simtest::Platform p;
   struct Counter : SegmentIdResponse::Notifiee {
      std::vector<std::string> seen;
      void handleStatus(const SegmentIdRequestKey& k) override {
         const SegmentIdStatus* s = notifier()->status(k);
         seen.push_back(valueToStrep(k) + "=" + (s ? std::to_string(s->hwId.value()) : "-"));
      }
   } heard;
   heard.notifierIs(p.responses);
   p.requests->requestIs(key(1, "web"));
   p.requests->requestIs(key(1, "db"));
   p.settle();
   ASSERT_EQ(granted(p, key(1, "web")), 2);

   // Revoked: the grant goes at once, the request waits, and the id is kept
   // for its key: automatic mode gives it back, nobody else gets it.
   ASSERT_TRUE(p.allocator.revoke(key(1, "web")).ok());
   EXPECT_FALSE(p.responses->statusHas(key(1, "web")));
   EXPECT_TRUE(p.requests->requestHas(key(1, "web")));
   EXPECT_EQ(p.allocator.reserved().at(key(1, "web")), SegmentHwId(2));
   p.requests->requestIs(key(1, "app"));
   p.settle();
   EXPECT_EQ(granted(p, key(1, "web")), 2);
   EXPECT_EQ(granted(p, key(1, "app")), 3);
   EXPECT_FALSE(p.allocator.revoke(key(1, "nobody")).ok());

   // Manual: the key may have its kept id or another; it holds the kept one
   // until its request goes.
   p.allocator.modeIs(HwIdAllocator::Mode::manual);
   ASSERT_TRUE(p.allocator.revoke(key(1, "web")).ok());
   EXPECT_FALSE(p.allocator.grant(key(1, "db2"), SegmentHwId(2)).ok()) << "nobody asked";
   p.requests->requestIs(key(1, "x"));
   p.settle();
   EXPECT_FALSE(p.allocator.grant(key(1, "x"), SegmentHwId(2)).ok()) << "kept for web";
   ASSERT_TRUE(p.allocator.grant(key(1, "web"), SegmentHwId(9)).ok());
   EXPECT_TRUE(p.allocator.reserved().empty());
   EXPECT_FALSE(p.allocator.grant(key(1, "x"), SegmentHwId(2)).ok()) << "still web's";
   ASSERT_TRUE(p.allocator.grant(key(1, "x"), SegmentHwId(4)).ok());

   // A request deleted frees every id it held.
   ASSERT_TRUE(p.allocator.revoke(key(1, "x")).ok());
   p.requests->requestDel(key(1, "x"));
   p.requests->requestDel(key(1, "web"));
   p.settle();
   EXPECT_TRUE(p.allocator.reserved().empty());
   p.requests->requestIs(key(1, "y"));
   p.settle();
   ASSERT_TRUE(p.allocator.grant(key(1, "y")).ok());
   EXPECT_EQ(granted(p, key(1, "y")), 2);

   // The invalid id: published, the key still waits; a grant replaces it.
   p.requests->requestIs(key(1, "z"));
   p.settle();
   ASSERT_TRUE(p.allocator.grantInvalid(key(1, "z")).ok());
   EXPECT_EQ(granted(p, key(1, "z")), 65535);
   EXPECT_EQ(p.allocator.pendingRequests(), std::vector{key(1, "z")});
   EXPECT_FALSE(p.allocator.revoke(key(1, "z")).ok()) << "no valid grant";
   ASSERT_TRUE(p.allocator.grant(key(1, "z")).ok());
   EXPECT_NE(granted(p, key(1, "z")), 65535);

   // Said again: one more notification, nothing changed.
   heard.seen.clear();
   ASSERT_TRUE(p.allocator.regrant(key(1, "db")).ok());
   EXPECT_EQ(heard.seen, std::vector<std::string>{valueToStrep(key(1, "db")) + "=1"});
   EXPECT_FALSE(p.allocator.regrant(key(1, "nobody")).ok());
   EXPECT_EQ(p.allocator.grants().size(), p.responses->status().size());
}

// Like a real agent, the allocator gives the thread back between keys when
// the scheduler asks: with a yield wanted after every item each run deals
// with one key, and the ids come out as from one run.
TEST(SimHwIdAllocator, YieldsBetweenKeysAndGrantsWhatOneRunGrants) {
   simtest::Platform whole;
   simtest::Platform pieces;
   pieces.scheduler->yieldPolicyIs(Zop::makePtr<Ruv::EveryNItemsYieldPolicy>(1));
   auto both = [&](auto&& f) {
      f(whole);
      f(pieces);
   };
   std::vector<SegmentIdRequestKey> keys;
   for (uint32_t i = 0; i < 40; ++i) {
      keys.push_back(key(1 + i % 3, ("s" + std::to_string(i)).c_str()));
   }
   both([&](simtest::Platform& p) {
      for (const auto& k : keys) {
         p.requests->requestIs(k);
      }
      p.scheduler->resetStatistics();
      p.settle();
   });
   EXPECT_EQ(whole.scheduler->statistics().byTaskName.at("SimHwIdAllocatorTask").runs, 1u);
   EXPECT_GE(pieces.scheduler->statistics().byTaskName.at("SimHwIdAllocatorTask").runs, 40u);
   // Requests that go and come between runs: the ones that went free their
   // ids before any new grant takes the lowest free one.
   both([&](simtest::Platform& p) {
      for (size_t i = 0; i < keys.size(); i += 4) {
         p.requests->requestDel(keys[i]);
      }
      for (uint32_t i = 0; i < 6; ++i) {
         p.requests->requestIs(key(4, ("n" + std::to_string(i)).c_str()));
      }
      p.settle();
   });
   std::vector<uint16_t> a;
   std::vector<uint16_t> b;
   for (const auto& [k, status] : whole.responses->status()) {
      a.push_back(granted(whole, k));
      b.push_back(granted(pieces, k));
   }
   EXPECT_EQ(a, b);
   EXPECT_EQ(whole.responses->status().size(), pieces.responses->status().size());
   EXPECT_EQ(whole.allocator.grants(), pieces.allocator.grants());
   EXPECT_EQ(granted(pieces, key(4, "n0")), 1) << "the lowest id freed";
}
