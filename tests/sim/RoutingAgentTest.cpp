// The routing agent's publication order: what an observer finds in place at
// the moment each notification arrives.

#include "sim/RoutingAgent.h"

#include <gtest/gtest.h>

#include <map>
#include <random>

#include "SimFixture.h"

using Quarn::Fib::GlobalFecId;
using simtest::hwKey;
using simtest::pfx;

namespace {

// Records, at each VRF id or status notification, whether the rest of the
// VRF is in the state the agent promises.
class VrfObserver : public L3Status::Notifiee {
public:
   explicit VrfObserver(simtest::Platform& p) : p_(p) { notifierIs(p.l3Status); }
   std::vector<Zop::String> faults;
   int idsSeen = 0;
   int idsGone = 0;

   void handleVrfId(const L3::VrfName& name) override {
      const VrfId* id = p_.l3Status->vrfId(name);
      const bool rest = p_.l3Status->vrfStatus(name) && p_.l3Status->vrfDropIndex(name) != 0 &&
                        p_.l3Status->vrfTableStatus()->fibTableId(name);
      if (id) {
         ++idsSeen;
         const uint16_t drop = p_.l3Status->vrfDropIndex(name);
         const auto d4 = p_.l3Status->adjacency(GlobalFecId(GlobalFecId::kDropV4, 0, drop));
         const auto d6 = p_.l3Status->adjacency(GlobalFecId(GlobalFecId::kDropV6, 0, drop));
         if (!rest || !d4 || !d6 || d4->routeType() != RouteType::routeTypeDrop ||
             d6->routeType() != RouteType::routeTypeDrop) {
            faults.push_back(name.value() +
                             ": id before its status, drop index or drop adjacencies");
         }
         if (!p_.routeStatus->fibTrie(*id) || !p_.route6Status->fibTrie(*id)) {
            faults.push_back(name.value() + ": id before its FIB tries");
         }
         if (p_.l3Status->vrfName(*id) != name) {
            faults.push_back(name.value() + ": id before its name");
         }
      } else {
         ++idsGone;
         if (!rest) {
            faults.push_back(name.value() + ": status removed before the id");
         }
         // The name by id goes after the id, so the old id is still known.
         for (const auto& [oldId, oldName] : p_.l3Status->vrfName()) {
            if (oldName != name) {
               continue;
            }
            for (const auto& entry : p_.fibRoutes->fibRoute()) {
               if (entry.first.vrfId() == oldId) {
                  faults.push_back(name.value() + ": id removed before its FIB routes");
               }
            }
         }
      }
   }
   void handleVrfStatus(const L3::VrfName& name) override {
      if (!p_.l3Status->vrfStatus(name) && p_.l3Status->vrfId(name)) {
         faults.push_back(name.value() + ": status removed while the id stands");
      }
   }

private:
   simtest::Platform& p_;
};

// Records, at each FIB collection notification, whether the adjacency, the
// trie and the hardware entry agree with the collection.
template <class Coll, class Key>
class FibObserver : public Coll::Notifiee {
public:
   FibObserver(simtest::Platform& p, const Zop::Ptr<Coll>& coll) : p_(p) { this->notifierIs(coll); }
   std::vector<Zop::String> faults;
   int seen = 0;

   void handleFibRoute(const Key& k) override {
      ++seen;
      const Pexo::IpGenPrefix prefix(k.prefix());
      const RouteInfo* route = this->notifier()->fibRoute(k);
      const sim::HardwareRouteTable::Entry* hw = p_.hardware->entry({k.vrfId(), prefix});
      Zop::Ptr<AdjEntry> adj;
      bool inTrie;
      if constexpr (std::is_same_v<Key, VrfAndPrefix>) {
         adj = p_.l3Status->routeAdj(k);
         const auto trie = p_.routeStatus->fibTrie(k.vrfId());
         inTrie = trie && trie->routeHas(k.prefix());
      } else {
         adj = p_.l3Status->route6Adj(k);
         const auto trie = p_.route6Status->fibTrie(k.vrfId());
         inTrie = trie && trie->routeHas(k.prefix());
      }
      const Zop::String what = valueToStrep(prefix);
      if (route) {
         if (!adj || adj->routeInfo() != *route || !inTrie || !hw || hw->routeInfo != *route) {
            faults.push_back(what + ": announced before its adjacency, trie entry or hardware");
         }
      } else if (adj || inTrie || hw) {
         faults.push_back(what + ": withdrawn while its adjacency, trie entry or hardware stays");
      }
   }

private:
   simtest::Platform& p_;
};

}  // namespace

TEST(SimRoutingAgent, VrfIsCompleteBeforeItsIdAndGoesAfterIt) {
   simtest::Platform p;
   VrfObserver observer(p);
   ASSERT_TRUE(p.routing.vrfAdd("red", VrfId(1), false, true).ok());
   ASSERT_TRUE(p.routing.vrfAdd("blue", VrfId(2), true, false).ok());
   ASSERT_TRUE(p.routing.fibAdd("red", pfx("10.0.0.0/8"), 5).ok());
   ASSERT_TRUE(p.routing.fibAdd("red", pfx("2001:db8::/32"), 6).ok());

   // Each VRF has drop FECs and a FIB table of its own.
   EXPECT_NE(p.routing.dropIndex("red"), p.routing.dropIndex("blue"));
   EXPECT_NE(p.routing.fibTableId("red"), p.routing.fibTableId("blue"));
   const auto redDrop6 =
       p.l3Status->adjacency(GlobalFecId(GlobalFecId::kDropV6, 0, *p.routing.dropIndex("red")));
   const auto blueDrop6 =
       p.l3Status->adjacency(GlobalFecId(GlobalFecId::kDropV6, 0, *p.routing.dropIndex("blue")));
   EXPECT_NE(redDrop6->l2Adj(), blueDrop6->l2Adj());
   EXPECT_TRUE(p.l3Status->vrfStatus("red")->routing6Enabled());
   EXPECT_FALSE(p.l3Status->vrfStatus("red")->routingEnabled());

   // Bad requests change nothing.
   EXPECT_FALSE(p.routing.vrfAdd("green", VrfId(1), false, false).ok());
   EXPECT_FALSE(p.l3Status->vrfId("green"));
   EXPECT_FALSE(p.routing.fibAdd("green", pfx("10.0.0.0/8"), 5).ok());
   EXPECT_FALSE(p.routing.fibAdd("red", pfx("10.1.2.3/16"), 5).ok());

   // Flags change in place; a new id re-creates the VRF.
   ASSERT_TRUE(p.routing.vrfAdd("blue", VrfId(2), false, false).ok());
   EXPECT_FALSE(p.l3Status->vrfStatus("blue")->routingEnabled());
   ASSERT_TRUE(p.routing.vrfAdd("blue", VrfId(3), false, false).ok());
   EXPECT_FALSE(p.l3Status->vrfNameHas(VrfId(2)));
   EXPECT_EQ(*p.l3Status->vrfId("blue"), VrfId(3));

   ASSERT_TRUE(p.routing.vrfDelete("red").ok());
   EXPECT_EQ(p.hardware->size(), 0u);
   EXPECT_FALSE(p.routeStatus->fibTrie(VrfId(1)));
   EXPECT_FALSE(p.l3Status->vrfStatus("red"));
   EXPECT_FALSE(p.l3Status->adjacency(GlobalFecId(GlobalFecId::kDropV4, 0, 1)));

   EXPECT_EQ(observer.idsSeen, 3);
   EXPECT_EQ(observer.idsGone, 2);
   EXPECT_EQ(observer.faults, std::vector<Zop::String>());
}

TEST(SimRoutingAgent, FibCollectionChangesLastBothWays) {
   simtest::Platform p;
   FibObserver<KivVrfFibRouteCollection, VrfAndPrefix> v4(p, p.fibRoutes);
   FibObserver<KivVrfFibRoute6Collection, VrfAndIp6Prefix> v6(p, p.fibRoutes6);
   ASSERT_TRUE(p.routing.vrfAdd("red", VrfId(1), false, false).ok());

   ASSERT_TRUE(p.routing.fibAdd("red", pfx("10.1.0.0/16"), 5).ok());
   ASSERT_TRUE(p.routing.fibAdd("red", pfx("2001:db8::/32"), 6).ok());
   ASSERT_TRUE(p.routing.fibAdd("red", pfx("10.1.0.0/16"), 5).ok());  // no change, no news
   EXPECT_EQ(v4.seen, 1);

   // A change of adjacency keeps the class id the hardware entry carries.
   ASSERT_TRUE(p.hardware->hardwareIdIs(hwKey(1, "10.1.0.0/16"), SegmentHwId(4)));
   ASSERT_TRUE(p.routing.fibAdd("red", pfx("10.1.0.0/16"), 9).ok());
   EXPECT_EQ(
       *p.hardware->entry(hwKey(1, "10.1.0.0/16")),
       (sim::HardwareRouteTable::Entry{RouteInfo(RouteType::routeTypeForward, 9), SegmentHwId(4),
                                       sim::HardwareRouteTable::Owner::fibRoute}));

   ASSERT_TRUE(p.routing.fibDelete("red", pfx("10.1.0.0/16")).ok());
   EXPECT_FALSE(p.routing.fibDelete("red", pfx("10.1.0.0/16")).ok());
   ASSERT_TRUE(p.routing.fibAdd("red", pfx("10.9.0.0/16"), 1).ok());
   // Deleting the VRF withdraws its routes one by one, the same way.
   ASSERT_TRUE(p.routing.vrfDelete("red").ok());

   EXPECT_EQ(v4.seen, 5);
   EXPECT_EQ(v6.seen, 2);
   EXPECT_EQ(v4.faults, std::vector<Zop::String>());
   EXPECT_EQ(v6.faults, std::vector<Zop::String>());
   EXPECT_EQ(p.l3Status->routeAdjCount() + p.l3Status->route6AdjCount(), 0u);
   EXPECT_EQ(p.hardware->size(), 0u);
}

// A routing layer that reports a withdrawal before its hardware entry goes:
// the collections change at once, the entry a moment later, unless the route
// came back meanwhile. The entry of a route that stays withdrawn is removed
// whatever it carries; a route back in time keeps its entry and its id.
TEST(SimRoutingAgent, ReportFirstRemovesTheEntryOnALaterRun) {
   simtest::Platform p;
   p.routing.withdrawOrderIs(sim::RoutingAgent::WithdrawOrder::reportFirst);
   ASSERT_TRUE(p.routing.vrfAdd("red", VrfId(1), false, false).ok());
   ASSERT_TRUE(p.routing.fibAdd("red", pfx("10.1.0.0/16"), 5).ok());
   ASSERT_TRUE(p.routing.fibAdd("red", pfx("2001:db8::/32"), 6).ok());
   ASSERT_TRUE(p.hardware->hardwareIdIs(hwKey(1, "10.1.0.0/16"), SegmentHwId(4)));

   ASSERT_TRUE(p.routing.fibDelete("red", pfx("10.1.0.0/16")).ok());
   ASSERT_TRUE(p.routing.fibDelete("red", pfx("2001:db8::/32")).ok());
   EXPECT_FALSE(p.fibRoutes->fibRoute(VrfAndPrefix(VrfId(1), pfx("10.1.0.0/16").v4())));
   EXPECT_FALSE(p.l3Status->routeAdj(VrfAndPrefix(VrfId(1), pfx("10.1.0.0/16").v4())));
   EXPECT_EQ(p.hardware->size(), 2u) << "both entries still in hardware";
   EXPECT_EQ(p.routing.entryRemovalsPending(), 2u);

   // The IPv6 route comes back before its entry went: it keeps the entry.
   ASSERT_TRUE(p.routing.fibAdd("red", pfx("2001:db8::/32"), 7).ok());
   p.settle();
   EXPECT_GE(p.clock->now(), sim::RoutingAgent::kEntryRemovalDelay);
   EXPECT_FALSE(p.hardware->entry(hwKey(1, "10.1.0.0/16")));
   ASSERT_TRUE(p.hardware->entry(hwKey(1, "2001:db8::/32")));
   EXPECT_EQ(p.hardware->entry(hwKey(1, "2001:db8::/32"))->routeInfo,
             RouteInfo(RouteType::routeTypeForward, 7));
   EXPECT_EQ(p.routing.entryRemovalsPending(), 0u);
}

namespace {

// Records the order in which the FIB collections announce withdrawals.
class WithdrawalOrder : public KivVrfFibRouteCollection::Notifiee {
public:
   WithdrawalOrder(simtest::Platform& p) : v6_(*this) {
      notifierIs(p.fibRoutes);
      v6_.notifierIs(p.fibRoutes6);
   }
   std::vector<Pexo::IpGenPrefix> withdrawn;

   void handleFibRoute(const VrfAndPrefix& k) override {
      if (!notifier()->fibRouteHas(k)) {
         withdrawn.emplace_back(k.prefix());
      }
   }

private:
   struct V6 : KivVrfFibRoute6Collection::Notifiee {
      explicit V6(WithdrawalOrder& o) : o_(o) {}
      void handleFibRoute(const VrfAndIp6Prefix& k) override {
         if (!notifier()->fibRouteHas(k)) {
            o_.withdrawn.emplace_back(k.prefix());
         }
      }
      WithdrawalOrder& o_;
   } v6_;
};

}  // namespace

// Random adds, adjacency changes, deletes and VRF deletions against a plain
// map: the agent's view of its routes, the adjacency each route publishes and
// the order a VRF deletion withdraws them in (prefix order, IPv4 first) all
// follow the map, however the routes share adjacencies.
TEST(SimRoutingAgent, RoutesFollowAPlainMapThroughRandomChanges) {
   simtest::Platform p;
   WithdrawalOrder order(p);
   std::mt19937_64 rng(11);
   const char* names[] = {"red", "blue"};
   std::map<Zop::String, std::map<Pexo::IpGenPrefix, uint64_t>> model;
   auto makeVrf = [&](int v) {
      ASSERT_TRUE(p.routing.vrfAdd(names[v], VrfId(v + 1), false, false).ok());
      model[names[v]];
   };
   makeVrf(0);
   makeVrf(1);
   auto randomPrefix = [&] {
      if (rng() % 3 == 0) {
         const unsigned len = 16 + unsigned(rng() % 3) * 16;
         const uint64_t hi = (0x20010db8ULL << 32 | (rng() & 0xffff0000ULL)) &
                             (len == 64 ? ~0ULL : ~0ULL << (64 - len));
         return Pexo::IpGenPrefix(Pexo::Ip6Prefix(Pexo::Ip6Addr(hi, 0), len));
      }
      const unsigned len = 8 + unsigned(rng() % 17);
      const uint32_t addr = (0x0a000000u | uint32_t(rng() & 0x00ffffffu)) & (~0u << (32 - len));
      return Pexo::IpGenPrefix(Pexo::Prefix(Pexo::IpAddr(addr), len));
   };
   for (int step = 0; step < 3000; ++step) {
      const int v = int(rng() % 2);
      auto& routes = model[names[v]];
      const unsigned what = unsigned(rng() % 100);
      if (what < 60) {
         const Pexo::IpGenPrefix prefix = randomPrefix();
         const uint64_t adj = 1 + rng() % 4;
         ASSERT_TRUE(p.routing.fibAdd(names[v], prefix, adj).ok());
         routes[prefix] = adj;
      } else if (what < 97) {
         if (routes.empty()) {
            continue;
         }
         auto it = std::next(routes.begin(), long(rng() % routes.size()));
         ASSERT_TRUE(p.routing.fibDelete(names[v], it->first).ok());
         routes.erase(it);
      } else {
         std::vector<Pexo::IpGenPrefix> expected;
         for (const auto& [prefix, adj] : routes) {
            expected.push_back(prefix);
         }
         order.withdrawn.clear();
         ASSERT_TRUE(p.routing.vrfDelete(names[v]).ok());
         EXPECT_EQ(order.withdrawn, expected) << "step " << step;
         model.erase(names[v]);
         makeVrf(v);
      }
      ASSERT_EQ(p.routing.fibRoutes(names[v]), model[names[v]]) << "step " << step;
   }
   size_t total = 0;
   for (int v = 0; v < 2; ++v) {
      for (const auto& [prefix, adj] : model[names[v]]) {
         ++total;
         const Zop::Ptr<AdjEntry> entry =
             prefix.isIpv4() ? p.l3Status->routeAdj(VrfAndPrefix(VrfId(v + 1), prefix.v4()))
                             : p.l3Status->route6Adj(VrfAndIp6Prefix(VrfId(v + 1), prefix.v6()));
         ASSERT_TRUE(entry) << prefix;
         EXPECT_EQ(entry->routeInfo(), RouteInfo(RouteType::routeTypeForward, adj)) << prefix;
      }
   }
   EXPECT_EQ(p.routing.fibRouteCount(), total);
   EXPECT_EQ(p.hardware->size(), total);
}
