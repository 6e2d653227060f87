// The simulated hardware table's rules, through the adapters the segment
// library calls and the routing agent's side.

#include "sim/HardwareRouteTable.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <set>

#include "SimFixture.h"

using sim::HardwareRouteTable;
using simtest::hwKey;
using simtest::pfx;

namespace {

const RouteInfo kDrop(RouteType::routeTypeDrop, 1000);
const RouteInfo kForward(RouteType::routeTypeForward, 7);
const RouteInfo kFib(RouteType::routeTypeForward, 42);

VrfAndIpGenPrefix vp(uint32_t vrf, const char* p) {
   return VrfAndIpGenPrefix(VrfId(vrf), pfx(p));
}

struct Adapters {
   Zop::Ptr<HardwareRouteTable> table = Zop::makePtr<HardwareRouteTable>();
   Zop::Ptr<KivHelper::RouteSmHelper> v4 = table->routeSmHelper();
   Zop::Ptr<KivHelper::Route6SmHelper> v6 = table->route6SmHelper();
   Zop::Ptr<Kiv::KivSegmentRouteHelper> ids = table->segmentRouteHelper();

   bool program(uint32_t vrf, const char* p, const RouteInfo& oldInfo, const RouteInfo& newInfo) {
      const auto prefix = pfx(p);
      return prefix.isIpv4() ? v4->programRoute(prefix.v4(), VrfId(vrf), oldInfo, newInfo)
                             : v6->programRoute(prefix.v6(), VrfId(vrf), oldInfo, newInfo);
   }
   bool writeId(uint32_t vrf, const char* p, uint16_t id, const RouteInfo& believed = {}) {
      return ids->updateHardwareId(Kiv::KivSegmentRouteInfo(vp(vrf, p), SegmentHwId(id), believed));
   }
   uint16_t readId(uint32_t vrf, const char* p) { return ids->getHardwareId(vp(vrf, p)).value(); }
};

}  // namespace

TEST(SimHardwareRouteTable, SegmentRoutesKeepTheirClassIdAcrossRouteChanges) {
   Adapters hw;
   for (const char* p : {"10.1.0.0/16", "2001:db8::/32"}) {
      SCOPED_TRACE(p);
      EXPECT_EQ(hw.readId(1, p), 65535);
      ASSERT_TRUE(hw.program(1, p, {}, kDrop));
      EXPECT_EQ(hw.readId(1, p), 0) << "a new entry starts with class id 0";
      ASSERT_TRUE(hw.writeId(1, p, 9));
      ASSERT_TRUE(hw.program(1, p, kDrop, kForward));
      const auto* e = hw.table->entry(hwKey(1, p));
      ASSERT_NE(e, nullptr);
      EXPECT_EQ(e->routeInfo, kForward);
      EXPECT_EQ(e->classId, SegmentHwId(9));
      EXPECT_EQ(e->owner, HardwareRouteTable::Owner::segmentRoute);
      ASSERT_TRUE(hw.program(1, p, kForward, {}));
      EXPECT_EQ(hw.table->entry(hwKey(1, p)), nullptr);
   }
   // The same prefix in another VRF is another entry.
   ASSERT_TRUE(hw.program(1, "10.1.0.0/16", {}, kDrop));
   EXPECT_EQ(hw.readId(2, "10.1.0.0/16"), 65535);
   EXPECT_FALSE(hw.writeId(2, "10.1.0.0/16", 3)) << "no entry to write the id on";
   EXPECT_EQ(hw.table->counters().missingEntryWrites, 1u);
   EXPECT_EQ(hw.table->counters().oldRouteMismatches, 0u);
   EXPECT_EQ(hw.table->counters().routePrograms, 7u);
   EXPECT_EQ(hw.table->counters().hwIdWrites, 2u);
}

TEST(SimHardwareRouteTable, FibRouteEntriesBelongToTheRoutingAgent) {
   Adapters hw;
   const auto key = hwKey(1, "10.2.0.0/16");
   hw.table->fibRouteIs(key, kFib);
   EXPECT_EQ(hw.readId(1, "10.2.0.0/16"), 0);

   // The id goes on the FIB route; its forwarding stays whatever the caller
   // believes the route to be.
   ASSERT_TRUE(hw.writeId(1, "10.2.0.0/16", 5, kDrop));
   EXPECT_EQ(
       *hw.table->entry(key),
       (HardwareRouteTable::Entry{kFib, SegmentHwId(5), HardwareRouteTable::Owner::fibRoute}));

   // The segment library can never remove it.
   EXPECT_FALSE(hw.program(1, "10.2.0.0/16", kFib, {}));
   ASSERT_NE(hw.table->entry(key), nullptr);
   EXPECT_EQ(hw.table->counters().fibRouteRemovals, 1u);

   // A FIB route change keeps the class id.
   hw.table->fibRouteIs(key, kForward);
   EXPECT_EQ(hw.table->entry(key)->classId, SegmentHwId(5));

   // A FIB route arriving over a segment route takes the entry with its id;
   // withdrawing it leaves nothing for the library to find.
   const auto seg = hwKey(1, "10.3.0.0/16");
   ASSERT_TRUE(hw.program(1, "10.3.0.0/16", {}, kDrop));
   ASSERT_TRUE(hw.writeId(1, "10.3.0.0/16", 8));
   EXPECT_FALSE(hw.table->fibRouteDel(seg)) << "not a FIB route's entry";
   hw.table->fibRouteIs(seg, kFib);
   EXPECT_EQ(
       *hw.table->entry(seg),
       (HardwareRouteTable::Entry{kFib, SegmentHwId(8), HardwareRouteTable::Owner::fibRoute}));
   EXPECT_TRUE(hw.table->fibRouteDel(seg));
   EXPECT_EQ(hw.table->entry(seg), nullptr);
   EXPECT_EQ(hw.table->counters().errors(), 1u);
}

TEST(SimHardwareRouteTable, WrongOldRouteIsCountedButApplied) {
   Adapters hw;
   // Nothing there, but the caller believes a drop route is.
   EXPECT_TRUE(hw.program(1, "10.4.0.0/16", kDrop, kForward));
   EXPECT_EQ(hw.table->entry(hwKey(1, "10.4.0.0/16"))->routeInfo, kForward);
   // There is a route, but the caller believes there is none.
   EXPECT_TRUE(hw.program(1, "10.4.0.0/16", {}, kDrop));
   EXPECT_EQ(hw.table->entry(hwKey(1, "10.4.0.0/16"))->routeInfo, kDrop);
   // Overwriting a FIB route's forwarding is applied, and is an error too.
   hw.table->fibRouteIs(hwKey(1, "10.5.0.0/16"), kFib);
   EXPECT_TRUE(hw.program(1, "10.5.0.0/16", kFib, kDrop));
   EXPECT_EQ(hw.table->entry(hwKey(1, "10.5.0.0/16"))->owner, HardwareRouteTable::Owner::fibRoute);

   const auto& c = hw.table->counters();
   EXPECT_EQ(c.oldRouteMismatches, 2u);
   EXPECT_EQ(c.fibRouteOverwrites, 1u);
   EXPECT_EQ(c.errors(), 3u);
   ASSERT_EQ(hw.table->errorLog().size(), 3u);
   EXPECT_EQ(hw.table->errorLog()[0],
             "programRoute vrf 1 10.4.0.0/16: caller's old route routeTypeDrop adj 1000, hardware "
             "holds nothing");
}

TEST(SimHardwareRouteTable, RefusalsOnceAlwaysAndWhenFull) {
   Adapters hw;
   using Fault = HardwareRouteTable::Fault;
   const auto key = hwKey(1, "10.6.0.0/16");

   hw.table->faultIs(key, Fault::once);
   EXPECT_FALSE(hw.program(1, "10.6.0.0/16", {}, kDrop));
   EXPECT_EQ(hw.table->entry(key), nullptr) << "a refused call changes nothing";
   EXPECT_EQ(hw.table->fault(key), Fault::none);
   EXPECT_TRUE(hw.program(1, "10.6.0.0/16", {}, kDrop));

   hw.table->faultIs(key, Fault::always);
   for (int i = 0; i < 3; ++i) {
      EXPECT_FALSE(hw.writeId(1, "10.6.0.0/16", 4));
      EXPECT_FALSE(hw.program(1, "10.6.0.0/16", kDrop, {}));
   }
   EXPECT_EQ(hw.readId(1, "10.6.0.0/16"), 0);
   hw.table->faultIs(key, Fault::none);
   EXPECT_TRUE(hw.writeId(1, "10.6.0.0/16", 4));
   EXPECT_EQ(hw.table->counters().refusals, 7u);

   // Room for two entries: the FIB route counts, but is never refused.
   hw.table->capacityIs(2);
   hw.table->fibRouteIs(hwKey(1, "10.7.0.0/16"), kFib);
   EXPECT_FALSE(hw.program(1, "2001:db8::/48", {}, kDrop));
   EXPECT_EQ(hw.table->counters().refusals, 8u);
   EXPECT_TRUE(hw.program(1, "10.6.0.0/16", kDrop, kForward)) << "a change needs no room";
   hw.table->fibRouteIs(hwKey(1, "10.8.0.0/16"), kFib);
   EXPECT_EQ(hw.table->size(), 3u);
   EXPECT_TRUE(hw.program(1, "10.6.0.0/16", kForward, {}));
   EXPECT_TRUE(hw.table->fibRouteDel(hwKey(1, "10.8.0.0/16")));
   EXPECT_TRUE(hw.program(1, "2001:db8::/48", {}, kDrop));
   EXPECT_EQ(hw.table->counters().errors(), 0u);
}

// The resource state changes on the edges only: full at the first write
// refused for want of space, normal at the first room after that.
TEST(SimHardwareRouteTable, ResourceStateIsReportedOnChangeOnly) {
   Adapters hw;
   std::vector<bool> reports;
   hw.table->resourceListenerIs([&](bool full) { reports.push_back(full); });
   hw.table->capacityIs(2);
   hw.table->fibRouteIs(hwKey(1, "10.7.0.0/16"), kFib);
   EXPECT_TRUE(hw.program(1, "10.6.0.0/16", {}, kDrop));
   hw.table->fibRouteIs(hwKey(1, "10.8.0.0/16"), kFib);  // over the capacity, never refused
   EXPECT_EQ(reports, std::vector<bool>{}) << "full only once a write is refused";

   EXPECT_FALSE(hw.program(1, "10.5.0.0/16", {}, kDrop));
   EXPECT_FALSE(hw.program(1, "2001:db8::/48", {}, kDrop));
   EXPECT_TRUE(hw.table->resourceFull());
   EXPECT_EQ(reports, std::vector<bool>{true});

   // Three entries for room for two: one freed is not room yet.
   EXPECT_TRUE(hw.table->fibRouteDel(hwKey(1, "10.8.0.0/16")));
   EXPECT_EQ(reports, std::vector<bool>{true});
   EXPECT_TRUE(hw.program(1, "10.6.0.0/16", kDrop, {}));
   EXPECT_FALSE(hw.table->resourceFull());
   EXPECT_EQ(reports, (std::vector<bool>{true, false}));
   EXPECT_TRUE(hw.program(1, "10.5.0.0/16", {}, kDrop));  // fills it, refuses nothing
   EXPECT_TRUE(hw.table->fibRouteDel(hwKey(1, "10.7.0.0/16")));
   EXPECT_EQ(reports, (std::vector<bool>{true, false}));

   // Full again, then the limit is lifted.
   hw.table->fibRouteIs(hwKey(1, "10.7.0.0/16"), kFib);
   EXPECT_FALSE(hw.program(1, "10.4.0.0/16", {}, kDrop));
   hw.table->capacityIs(std::nullopt);
   EXPECT_EQ(reports, (std::vector<bool>{true, false, true, false}));
   EXPECT_TRUE(hw.program(1, "10.4.0.0/16", {}, kDrop));
}

namespace {

// A dataplane that holds what it is given, refuses the keys it is told to,
// and can be made to hold something else behind the table's back.
struct FakeDataplane final : sim::Dataplane {
   std::map<sim::HwKey, sim::HwEntry> held;
   std::set<sim::HwKey> refusing;
   bool entryIs(const sim::HwKey& key, const sim::HwEntry& entry) override {
      if (refusing.count(key)) {
         return false;
      }
      held[key] = entry;
      return true;
   }
   bool entryDel(const sim::HwKey& key) override {
      if (refusing.count(key)) {
         return false;
      }
      held.erase(key);
      return true;
   }
   std::optional<SegmentHwId> classId(const sim::HwKey& key) override {
      auto it = held.find(key);
      return it == held.end() ? std::nullopt : std::optional(it->second.classId);
   }
   std::map<sim::HwKey, sim::HwEntry> entries() override { return held; }
   std::vector<std::string> statusLines() const override { return {}; }
};

}  // namespace

TEST(HardwareRouteTableDataplane, EveryTakenWriteReachesTheDataplaneAndARefusalChangesNothing) {
   Adapters a;
   auto dp = std::make_shared<FakeDataplane>();
   a.table->dataplaneIs(dp);
   a.table->fibRouteIs(hwKey(1, "10.1.1.0/24"), kFib);
   ASSERT_TRUE(a.program(1, "10.1.0.0/16", RouteInfo(), kDrop));
   ASSERT_TRUE(a.program(2, "2001:db8::/32", RouteInfo(), kForward));
   ASSERT_TRUE(a.writeId(1, "10.1.0.0/16", 5));
   ASSERT_TRUE(a.writeId(1, "10.1.1.0/24", 5));
   ASSERT_TRUE(a.writeId(2, "2001:db8::/32", 6));
   using sim::HwOwner;
   const std::map<sim::HwKey, sim::HwEntry> expected = {
       {hwKey(1, "10.1.0.0/16"), {kDrop, SegmentHwId(5), HwOwner::segmentRoute}},
       {hwKey(1, "10.1.1.0/24"), {kFib, SegmentHwId(5), HwOwner::fibRoute}},
       {hwKey(2, "2001:db8::/32"), {kForward, SegmentHwId(6), HwOwner::segmentRoute}},
   };
   EXPECT_EQ(dp->held, expected);
   EXPECT_EQ(a.table->entries(), expected);

   // Refused: the program, the id write and the removal answer false, the
   // table keeps what it had, and each is counted as a refusal.
   dp->refusing = {hwKey(1, "10.1.0.0/16"), hwKey(1, "10.9.0.0/16")};
   EXPECT_FALSE(a.program(1, "10.1.0.0/16", kDrop, kForward));
   EXPECT_FALSE(a.writeId(1, "10.1.0.0/16", 7));
   EXPECT_FALSE(a.program(1, "10.1.0.0/16", kDrop, RouteInfo()));
   EXPECT_FALSE(a.program(1, "10.9.0.0/16", RouteInfo(), kDrop));
   EXPECT_EQ(a.table->counters().refusals, 4u);
   EXPECT_EQ(a.table->counters().errors(), 0u);
   EXPECT_EQ(a.table->size(), 3u);
   EXPECT_EQ(dp->held, expected);
   EXPECT_EQ(a.readId(1, "10.1.0.0/16"), 5);

   // The routing agent's writes are never refused; the dataplane's refusal
   // is an error of its own.
   dp->refusing = {hwKey(1, "10.1.1.0/24")};
   EXPECT_TRUE(a.table->fibRouteDel(hwKey(1, "10.1.1.0/24")));
   EXPECT_EQ(a.table->counters().dataplaneFibRefusals, 1u);
   EXPECT_EQ(a.table->counters().errors(), 1u);
}

TEST(HardwareRouteTableDataplane, TheLibraryReadsAndLooksAtTheDataplane) {
   Adapters a;
   auto dp = std::make_shared<FakeDataplane>();
   a.table->dataplaneIs(dp);
   ASSERT_TRUE(a.program(1, "10.1.0.0/16", RouteInfo(), kDrop));
   ASSERT_TRUE(a.writeId(1, "10.1.0.0/16", 5));
   // Something else rewrites the id and adds a route: what the library reads,
   // and what entries() shows, are the dataplane's.
   dp->held[hwKey(1, "10.1.0.0/16")].classId = SegmentHwId(9);
   dp->held[hwKey(1, "10.2.0.0/16")] = {kDrop, SegmentHwId(3), sim::HwOwner::segmentRoute};
   EXPECT_EQ(a.readId(1, "10.1.0.0/16"), 9);
   EXPECT_EQ(a.table->entries().size(), 2u);
   ASSERT_NE(a.table->entry(hwKey(1, "10.2.0.0/16")), nullptr);
   EXPECT_EQ(a.table->entry(hwKey(1, "10.2.0.0/16"))->classId, SegmentHwId(3));
   EXPECT_EQ(a.table->size(), 1u) << "the table's own record is unchanged";
   dp->held.clear();
   EXPECT_EQ(a.readId(1, "10.1.0.0/16"), 65535);
}
