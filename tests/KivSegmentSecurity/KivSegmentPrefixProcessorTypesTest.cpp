// Value records and shared collections of the segment model.

#include "KivSegmentSecurity/KivSegmentPrefixProcessorTypes.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "Zop/Value.h"
#include "support/RandomPrefixes.h"

using namespace Kiv;

namespace {

KivSegmentHwInfo randomHwInfo(KivTest::RandomPrefixes& r) {
   auto af = r.chance(50) ? Pexo::AddressFamily::ipv4 : Pexo::AddressFamily::ipv6;
   Pexo::IpGenPrefix p = r.chance(5) ? Pexo::IpGenPrefix() : r.gen(af);
   return KivSegmentHwInfo(VrfAndIpGenPrefix(VrfId(r.below(5000)), p),
                           KivSegmentRouteOperationType(r.below(5)),
                           SegmentHwId(uint16_t(r.chance(10) ? 65535 : r.below(65536))));
}

KivSegmentRouteInfo randomRouteInfo(KivTest::RandomPrefixes& r) {
   KivSegmentHwInfo h = randomHwInfo(r);
   RouteInfo ri(RouteType(r.below(5)), r.chance(20) ? ~uint64_t(0) : r.below(100000), r.chance(50));
   return KivSegmentRouteInfo(h.vrfPrefix(), h.hwId(), ri);
}

template <class T>
void expectRejected(const std::string& text, const std::string& field) {
   try {
      Zop::strepToValue<T>(text);
      ADD_FAILURE() << "accepted: " << text;
   } catch (const Zop::ParseError& e) {
      EXPECT_EQ(e.field(), field) << text << " -> " << e.what();
   }
}

}  // namespace

TEST(KivSegmentValues, TextFormsRoundTripOverRandomValues) {
   KivTest::RandomPrefixes r(7);
   for (int i = 0; i < 3000; ++i) {
      KivSegmentHwInfo h = randomHwInfo(r);
      std::string text = valueToStrep(h);
      EXPECT_EQ(Zop::strepToValue<KivSegmentHwInfo>(text), h) << text;
      KivSegmentRouteInfo ri = randomRouteInfo(r);
      text = valueToStrep(ri);
      EXPECT_EQ(Zop::strepToValue<KivSegmentRouteInfo>(text), ri) << text;
      // The generic value interface goes through the same text form.
      const Zop::ValueType& type = Zop::valueType<KivSegmentRouteInfo>("Kiv::KivSegmentRouteInfo");
      void* copy = type.fromStrep(text);
      EXPECT_TRUE(type.equal(copy, &ri));
      EXPECT_EQ(type.hash(copy), std::hash<KivSegmentRouteInfo>()(ri));
      type.destruct(copy);
   }
}

TEST(KivSegmentValues, ExactTextForm) {
   KivSegmentHwInfo h(
       VrfAndIpGenPrefix(VrfId(3), Zop::strepToValue<Pexo::IpGenPrefix>("10.1.0.0/16")),
       segmentRouteHwIdUpdate, SegmentHwId(42));
   EXPECT_EQ(valueToStrep(h),
             "Value('Kiv::KivSegmentHwInfo', ** {'vrfPrefix': Value('Pexo::VrfAndIpGenPrefix', ** "
             "{'vrfId': 3, 'prefix': 10.1.0.0/16}), 'operation': segmentRouteHwIdUpdate, 'hwId': "
             "42})");
   EXPECT_EQ(valueToStrep(KivSegmentRouteInfo()),
             "Value('Kiv::KivSegmentRouteInfo', ** {'vrfPrefix': Value('Pexo::VrfAndIpGenPrefix', "
             "** {'vrfId': 0, 'prefix': none}), 'hwId': 65535, 'routeInfo': "
             "Value('Routing::RouteInfo', ** {'routeType': routeTypeInvalid, 'adjIndex': 0, "
             "'flag': false})})");
}

TEST(KivSegmentValues, OneCharacterOffTheTemplateIsRejectedNamingTheField) {
   const std::string good =
       "Value('Kiv::KivSegmentHwInfo', ** {'vrfPrefix': Value('Pexo::VrfAndIpGenPrefix', ** "
       "{'vrfId': 3, 'prefix': 10.1.0.0/16}), 'operation': segmentRouteAdd, 'hwId': 42})";
   ASSERT_NO_THROW(Zop::strepToValue<KivSegmentHwInfo>(good));
   auto with = [&](const std::string& from, const std::string& to) {
      std::string t = good;
      size_t at = t.find(from);
      EXPECT_NE(at, std::string::npos) << from;
      return t.replace(at, from.size(), to);
   };
   expectRejected<KivSegmentHwInfo>(with("Value('Kiv", "Value ('Kiv"), "value");
   expectRejected<KivSegmentHwInfo>(with("'vrfPrefix': ", "'vrfPrefix':"), "vrfPrefix");
   expectRejected<KivSegmentHwInfo>(with("'vrfId': 3", "'vrfId':3"), "vrfPrefix");
   expectRejected<KivSegmentHwInfo>(with("10.1.0.0/16", "10.1.0.0/33"), "vrfPrefix");
   expectRejected<KivSegmentHwInfo>(with(", 'operation'", ",'operation'"), "operation");
   expectRejected<KivSegmentHwInfo>(with("'operation'", "'op'"), "operation");
   expectRejected<KivSegmentHwInfo>(with("segmentRouteAdd", "segmentRouteAddd"), "operation");
   expectRejected<KivSegmentHwInfo>(with("segmentRouteAdd", "SegmentRouteAdd"), "operation");
   expectRejected<KivSegmentHwInfo>(with("'hwId': 42", "'hwId': 65536"), "hwId");
   expectRejected<KivSegmentHwInfo>(with("'hwId': 42", "'hwid': 42"), "hwId");
   expectRejected<KivSegmentHwInfo>(with("42})", "42}"), "value");
   expectRejected<KivSegmentHwInfo>(good + " ", "value");

   KivSegmentRouteInfo ri(
       VrfAndIpGenPrefix(VrfId(1), Zop::strepToValue<Pexo::IpGenPrefix>("2001:db8::/32")),
       SegmentHwId(9), RouteInfo(RouteType::routeTypeDrop, 12));
   std::string t = valueToStrep(ri);
   std::string bad = t;
   bad.replace(bad.find("'adjIndex': 12"), 14, "'adjIndex':12");
   expectRejected<KivSegmentRouteInfo>(bad, "routeInfo");
   bad = t;
   bad.replace(bad.find("routeTypeDrop"), 13, "routeTypeDrip");
   expectRejected<KivSegmentRouteInfo>(bad, "routeInfo");
   bad = t;
   bad.replace(bad.find(", 'routeInfo': "), 15, ", 'routeinfo': ");
   expectRejected<KivSegmentRouteInfo>(bad, "routeInfo");
}

TEST(KivSegmentValues, OperationNames) {
   const std::vector<std::string> names = {"segmentRouteAdd", "segmentRouteDelete",
                                           "segmentRouteHwIdUpdate", "fibOnlyRouteHwIdUpdate",
                                           "routeActionInvalid"};
   for (int32_t i = 0; i < 5; ++i) {
      EXPECT_EQ(stringValue(KivSegmentRouteOperationType(i)), names[size_t(i)]);
      EXPECT_EQ(sequenceToValue(names[size_t(i)]), KivSegmentRouteOperationType(i));
   }
   EXPECT_THROW(sequenceToValue("segmentRouteRemove"), Zop::RangeError);
   EXPECT_THROW(sequenceToValue(""), Zop::RangeError);
}

TEST(KivSegmentValues, HwInfoOrderIsPrefixThenOperationThenHwId) {
   auto key = [](uint32_t vrf, const char* p) {
      return VrfAndIpGenPrefix(VrfId(vrf), Zop::strepToValue<Pexo::IpGenPrefix>(p));
   };
   // Listed in ascending order.
   const std::vector<KivSegmentHwInfo> sorted = {
       {key(1, "10.0.0.0/8"), segmentRouteAdd, SegmentHwId(0)},
       {key(1, "10.0.0.0/8"), segmentRouteAdd, SegmentHwId(7)},
       {key(1, "10.0.0.0/8"), segmentRouteAdd, SegmentHwId(65535)},
       {key(1, "10.0.0.0/8"), segmentRouteDelete, SegmentHwId(0)},
       {key(1, "10.0.0.0/8"), segmentRouteHwIdUpdate, SegmentHwId(0)},
       {key(1, "10.0.0.0/8"), fibOnlyRouteHwIdUpdate, SegmentHwId(0)},
       {key(1, "10.0.0.0/8"), routeActionInvalid, SegmentHwId(0)},
       {key(1, "10.0.0.0/16"), segmentRouteAdd, SegmentHwId(0)},
       {key(1, "2001:db8::/32"), segmentRouteAdd, SegmentHwId(0)},
       {key(2, "0.0.0.0/0"), segmentRouteAdd, SegmentHwId(0)},
   };
   for (size_t i = 0; i < sorted.size(); ++i) {
      for (size_t j = 0; j < sorted.size(); ++j) {
         EXPECT_EQ(sorted[i] < sorted[j], i < j) << i << " " << j;
         EXPECT_EQ(sorted[i] == sorted[j], i == j) << i << " " << j;
      }
   }
}

TEST(KivSegmentValues, RouteInfoDefaultAndEquality) {
   KivSegmentRouteInfo d;
   EXPECT_EQ(d.hwId().value(), 65535);
   EXPECT_FALSE(d.hwId().isValid());
   EXPECT_TRUE(d.routeInfo().empty());
   EXPECT_NE(d,
             KivSegmentRouteInfo(d.vrfPrefix(), d.hwId(), RouteInfo(RouteType::routeTypeDrop, 0)));
   EXPECT_NE(
       d, KivSegmentRouteInfo(d.vrfPrefix(), d.hwId(), RouteInfo(RouteType::routeTypeInvalid, 1)));
   EXPECT_NE(d, KivSegmentRouteInfo(d.vrfPrefix(), d.hwId(),
                                    RouteInfo(RouteType::routeTypeInvalid, 0, true)));
   EXPECT_NE(d, KivSegmentRouteInfo(d.vrfPrefix(), SegmentHwId(1), RouteInfo()));
}

// ---- Collections ----

namespace {

VrfAndIpGenPrefix key(uint32_t vrf, const char* p) {
   return VrfAndIpGenPrefix(VrfId(vrf), Zop::strepToValue<Pexo::IpGenPrefix>(p));
}

// Records every notification, with the collection's size at that moment.
struct ReviewListLog : VrfPrefixCollection::Notifiee {
   std::vector<std::pair<VrfAndIpGenPrefix, size_t>> seen;
   void handleVrfIpGenPrefix(const VrfAndIpGenPrefix& k) override {
      seen.emplace_back(k, notifier()->vrfIpGenPrefixCount());
   }
};

// `n` random keys in VRFs 1-3, both families (a key may come twice).
std::vector<VrfAndIpGenPrefix> randomKeys(KivTest::RandomPrefixes& r, int n) {
   std::vector<VrfAndIpGenPrefix> keys;
   for (int i = 0; i < n; ++i) {
      const auto af = r.chance(50) ? Pexo::AddressFamily::ipv4 : Pexo::AddressFamily::ipv6;
      keys.push_back(VrfAndIpGenPrefix(VrfId(1 + r.below(3)), r.gen(af)));
   }
   return keys;
}

struct RouteInfoLog : KivSegmentRouteInfoColl::Notifiee {
   std::vector<VrfAndIpGenPrefix> routes;
   int reviews = 0;
   void handleRouteInfo(const VrfAndIpGenPrefix& k) override { routes.push_back(k); }
   void handleReviewSegmentHwId() override { ++reviews; }
};

}  // namespace

TEST(KivSegmentCollections, ReviewListNotifiesOnRealChangesOnly) {
   auto list = vrfPrefixCollectionFactory();
   ReviewListLog log;
   log.notifierIs(list);
   list->vrfIpGenPrefixIs(key(1, "10.0.0.0/8"));
   list->vrfIpGenPrefixIs(key(1, "10.0.0.0/8"));
   list->vrfIpGenPrefixDel(key(1, "10.9.0.0/16"));
   ASSERT_EQ(log.seen.size(), 1u);
   list->vrfIpGenPrefixIs(key(2, "10.0.0.0/8"));
   list->vrfIpGenPrefixIs(key(1, "2001:db8::/32"));
   log.seen.clear();
   list->vrfIpGenPrefixDelAll();
   // One notification per member, each after its removal.
   ASSERT_EQ(log.seen.size(), 3u);
   EXPECT_EQ(log.seen[0].second, 2u);
   EXPECT_EQ(log.seen[1].second, 1u);
   EXPECT_EQ(log.seen[2].second, 0u);
   EXPECT_EQ(list->vrfIpGenPrefixCount(), 0u);
}

TEST(KivSegmentCollections, RouteInfoCollection) {
   auto coll = kivSegmentRouteInfoCollFactory();
   RouteInfoLog log;
   log.notifierIs(coll);
   KivSegmentRouteInfo a(key(1, "10.1.0.0/16"), SegmentHwId(5),
                         RouteInfo(RouteType::routeTypeDrop, 3));
   coll->routeInfoIs(a);
   coll->routeInfoIs(a);  // equal: nothing
   EXPECT_EQ(log.routes.size(), 1u);
   KivSegmentRouteInfo b(a.vrfPrefix(), SegmentHwId(6), a.routeInfo());
   coll->routeInfoIs(b);
   EXPECT_EQ(log.routes.size(), 2u);
   EXPECT_EQ(coll->routeInfo(a.vrfPrefix()), b);

   KivSegmentRouteInfo gone = coll->routeInfoDel(key(1, "10.2.0.0/16"));
   EXPECT_EQ(gone.hwId().value(), 65535);
   EXPECT_EQ(log.routes.size(), 2u);
   EXPECT_EQ(coll->routeInfoDel(a.vrfPrefix()), b);
   EXPECT_EQ(log.routes.size(), 3u);
   EXPECT_FALSE(coll->routeInfoHas(a.vrfPrefix()));
   EXPECT_EQ(log.reviews, 0);  // route changes do not touch the review counter

   coll->reviewSegmentHwIdIs(4294967295u);
   coll->reviewSegmentHwIdIs(4294967295u);
   EXPECT_EQ(log.reviews, 1);
   coll->reviewSegmentHwIdInc(1);
   EXPECT_EQ(coll->reviewSegmentHwId(), 0u);
   EXPECT_EQ(log.reviews, 2);
}

// The (VRF, hw id) index and a record's lookup (which keeps the answer found
// last at hand, absent or not) over random changes, checked against a walk of the records,
// also from inside the handlers: both are right before they run.
TEST(KivSegmentCollections, RecordsByVrfAndHwIdFollowEveryChange) {
   auto coll = kivSegmentRouteInfoCollFactory();
   auto byWalk = [&](VrfId vrf, SegmentHwId hwId) {
      std::set<VrfAndIpGenPrefix> keys;
      for (const auto& [k, r] : coll->routeInfo()) {
         if (k.vrfId() == vrf && r.hwId() == hwId) {
            keys.insert(k);
         }
      }
      return keys;
   };
   auto found = [&](const VrfAndIpGenPrefix& k) {
      const KivSegmentRouteInfo* walked = nullptr;
      for (const auto& [key, r] : coll->routeInfo()) {
         walked = key == k ? &r : walked;
      }
      const KivSegmentRouteInfo* f = coll->routeInfoFind(k);
      ASSERT_EQ(f != nullptr, walked != nullptr);
      if (f) {
         ASSERT_EQ(*f, *walked);
      }
   };
   struct Checker : KivSegmentRouteInfoColl::Notifiee {
      std::function<void(const VrfAndIpGenPrefix&)> check;
      void handleRouteInfo(const VrfAndIpGenPrefix& k) override { check(k); }
   } checker;
   int checked = 0;
   checker.check = [&](const VrfAndIpGenPrefix& k) {
      for (uint16_t id = 1; id <= 4; ++id) {
         ASSERT_EQ(coll->routeInfoWithHwId(k.vrfId(), SegmentHwId(id)),
                   byWalk(k.vrfId(), SegmentHwId(id)));
      }
      found(k);
      ++checked;
   };
   checker.notifierIs(coll);
   KivTest::RandomPrefixes r(7);
   const std::vector<VrfAndIpGenPrefix> keys = randomKeys(r, 60);
   for (int step = 0; step < 3000; ++step) {
      const VrfAndIpGenPrefix& k = keys[r.below(keys.size())];
      found(k);  // kept at hand across the change below
      if (r.chance(30)) {
         coll->routeInfoDel(k);
      } else {
         coll->routeInfoIs(KivSegmentRouteInfo(k, SegmentHwId(uint16_t(1 + r.below(4))),
                                               RouteInfo(RouteType::routeTypeDrop, r.below(3))));
      }
   }
   EXPECT_GT(checked, 1000);
   coll->routeInfoDelAll();
   for (uint32_t vrf = 1; vrf <= 3; ++vrf) {
      EXPECT_TRUE(coll->routeInfoWithHwId(VrfId(vrf), SegmentHwId(1)).empty());
   }
}

// A walk of records in pieces, the records changing between pieces: it
// visits only records of its scope, in (VRF, hw id, key) order, every record
// that stood unchanged through the whole walk, and none of those twice.
TEST(KivSegmentCollections, RecordWalksInPiecesMeetEveryStandingRecordOnce) {
   KivTest::RandomPrefixes r(19);
   const std::vector<VrfAndIpGenPrefix> keys = randomKeys(r, 80);
   for (int round = 0; round < 300; ++round) {
      auto coll = kivSegmentRouteInfoCollFactory();
      auto change = [&](const VrfAndIpGenPrefix& k) {
         if (r.chance(30)) {
            coll->routeInfoDel(k);
         } else {
            coll->routeInfoIs(KivSegmentRouteInfo(k, SegmentHwId(uint16_t(1 + r.below(4))),
                                                  RouteInfo(RouteType::routeTypeDrop, 0)));
         }
      };
      for (int i = 0; i < 60; ++i) {
         change(keys[r.below(keys.size())]);
      }
      RecordScope scope;
      if (!r.chance(25)) {
         scope.vrfId = VrfId(1 + r.below(3));
         if (r.chance(50)) {
            scope.hwId = SegmentHwId(uint16_t(1 + r.below(4)));
         }
      }
      auto inScope = [&](const KivSegmentRouteInfo& rec) {
         return (!scope.vrfId || rec.vrfPrefix().vrfId() == *scope.vrfId) &&
                (!scope.hwId || rec.hwId() == *scope.hwId);
      };
      // Records in scope at the start; a change to one takes it out of what
      // the walk owes.
      std::map<VrfAndIpGenPrefix, SegmentHwId> standing;
      for (const auto& [k, rec] : coll->routeInfo()) {
         if (inScope(rec)) {
            standing.emplace(k, rec.hwId());
         }
      }
      std::optional<KivSegmentRouteInfoColl::RecordBookmark> last;
      std::set<VrfAndIpGenPrefix> touched;  // changed during the walk
      std::vector<std::tuple<VrfId, SegmentHwId, VrfAndIpGenPrefix>> visited;
      for (bool done = false; !done;) {
         size_t budget = 1 + r.below(5);
         done = true;
         coll->routeInfoIn(scope, last, [&](SegmentHwId hwId, const VrfAndIpGenPrefix& k) {
            if (budget-- == 0) {
               done = false;
               return false;
            }
            last = {hwId, k};
            visited.emplace_back(k.vrfId(), hwId, k);
            return true;
         });
         for (int i = 0; i < 2; ++i) {
            const VrfAndIpGenPrefix& k = keys[r.below(keys.size())];
            standing.erase(k);
            touched.insert(k);
            change(k);
         }
      }
      std::set<VrfAndIpGenPrefix> seen;
      for (size_t i = 0; i < visited.size(); ++i) {
         const auto& [vrf, hwId, k] = visited[i];
         // Only a record that moved ahead of the bookmark is met again.
         ASSERT_TRUE(seen.insert(k).second || touched.count(k) == 1) << "visited twice: " << k;
         ASSERT_TRUE((!scope.vrfId || vrf == *scope.vrfId) && (!scope.hwId || hwId == *scope.hwId));
         if (i != 0) {
            ASSERT_LT(visited[i - 1], visited[i]);
         }
      }
      for (const auto& [k, hwId] : standing) {
         ASSERT_EQ(seen.count(k), 1u) << "missed: " << k;
      }
   }
}

TEST(KivSegmentCollections, PrefixCountKeepsOneElementPerHwId) {
   auto counts = prefixCountFactory();
   auto first = segmentPrefixCountFactory(SegmentHwId(4));
   first->prefixCountInc(3);
   counts->segmentPrefixCountIs(first);
   auto second = segmentPrefixCountFactory(SegmentHwId(4));
   counts->segmentPrefixCountIs(second);
   EXPECT_EQ(counts->segmentPrefixCount(SegmentHwId(4)), second);
   EXPECT_EQ(counts->segmentPrefixCount(SegmentHwId(4))->prefixCount(), 0);
   counts->segmentPrefixCountDel(SegmentHwId(4));
   EXPECT_FALSE(counts->segmentPrefixCountHas(SegmentHwId(4)));
}

TEST(KivSegmentCollections, FirstTrieOfAVrfCreatesBothFamiliesOnly) {
   auto tries = kivSegmentPrefixTrieFactory();
   EXPECT_FALSE(tries->vrfTrie(VrfId(9)));
   auto v6 = tries->getPrefixTrie(VrfId(9), Pexo::AddressFamily::ipv6);
   ASSERT_TRUE(v6);
   EXPECT_EQ(v6->name(), "v6Trie");
   auto v4 = tries->vrfTrie(VrfId(9))->prefixTrie(Pexo::AddressFamily::ipv4);
   ASSERT_TRUE(v4);
   EXPECT_EQ(v4->name(), "v4Trie");
   EXPECT_EQ(tries->getPrefixTrie(VrfId(9), Pexo::AddressFamily::ipv4), v4);
   // A family removed later is not created again.
   tries->vrfTrie(VrfId(9))->prefixTrieDel(Pexo::AddressFamily::ipv4);
   EXPECT_FALSE(tries->getPrefixTrie(VrfId(9), Pexo::AddressFamily::ipv4));
   EXPECT_EQ(tries->getPrefixTrie(VrfId(9), Pexo::AddressFamily::ipv6), v6);
}
