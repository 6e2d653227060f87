#pragma once
// The simulated hardware route table.
//
// One entry per (VRF id, prefix), both families in one table: the RouteInfo
// the entry forwards with, the segment class id it carries, and whose entry
// it is (a FIB route's, placed by the routing agent, or a segment route's,
// placed by the segment library through the route helpers). Iteration is in
// (VRF id, family, address, length) order, so every listing is deterministic.
//
// Who calls what:
//   - The routing agent places, changes and removes FIB route entries with
//     fibRouteIs / fibRouteDel. These always succeed: the routing layer
//     reserves its own space, so faults and the capacity limit never refuse
//     them (its entries still count toward the capacity).
//   - The segment library reaches the table only through the three adapters
//     (routeSmHelper, route6SmHelper, segmentRouteHelper), which forward to
//     programRoute, hardwareId and hardwareIdIs below.
//
// programRoute(key, old, new)
//   The caller's `old` must equal what the table holds (an absent entry counts
//   as an empty RouteInfo); a mismatch is counted as an error and logged, and
//   the change is still applied, as real hardware would. Then:
//   - `new` empty: removes a segment route's entry. A FIB route's entry is
//     never removed this way: that is an error, reported by returning false,
//     and nothing changes.
//   - `new` not empty, no entry yet: a new segment route entry with class id
//     0 (refused when the table is full).
//   - `new` not empty, entry present: the route changes, the class id stays.
//     On a FIB route's entry this rewrites the FIB route's forwarding, which
//     the segment library must never do: it is applied but counted and logged
//     as an error, and the entry stays the FIB route's.
//   Answers whether the change was taken.
// hardwareId(key)
//   The class id of the entry; 65535 when there is none.
// hardwareIdIs(key, id)
//   Writes the class id of the existing entry and leaves its route as it is
//   (a FIB route keeps its forwarding). False, and counted as an error, when
//   there is no entry.
// Fault injection: a key can be set to refuse once (the next programRoute or
// hardwareIdIs on it fails and the fault clears) or always. A refused call
// answers false and changes nothing. Every refusal, by fault or for want of
// space, is counted.
// Resource state: the first new entry refused for want of space makes the
// table full; once an entry is freed below the capacity (or the capacity is
// raised or lifted) it is normal again. Each change of state, and only a
// change, is reported to the resource listener, the platform's hook for its
// resource syslogs.
//
// Dataplane: with one attached (dataplaneIs, see sim/Dataplane.h) every
// write the table takes, the library's and the routing agent's, is made in
// the dataplane first; one the dataplane refuses is a refused write to the
// library (counted with the refusals, nothing changes), and to the routing
// agent an error line (counted as dataplaneFibRefusals). hardwareId reads the
// dataplane's class id, and entries() and entry() show the dataplane's view.
//
// All of it runs on the reactor thread and calls nothing back.

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <vector>

#include "KivSegmentSecurity/KivSegmentRouteHelper.h"
#include "Pexo/Prefix.h"
#include "Pexo/VrfId.h"
#include "Routing/RouteInfo.h"
#include "Routing/RouteSmHelper.h"
#include "Zop/Ptr.h"
#include "Zop/String.h"
#include "sim/Dataplane.h"

namespace sim {

class HardwareRouteTable : public Zop::PtrInterface {
public:
   using Key = HwKey;
   using Owner = HwOwner;
   using Entry = HwEntry;

   enum class Fault : uint8_t { none, once, always };

   struct Counters {
      uint64_t routePrograms = 0;       // programRoute calls taken
      uint64_t hwIdWrites = 0;          // hardwareIdIs calls taken
      uint64_t fibWrites = 0;           // FIB route entries placed, changed or removed
      uint64_t oldRouteMismatches = 0;  // programRoute whose `old` was not what the table held
      uint64_t fibRouteRemovals = 0;    // programRoute asked to remove a FIB route's entry
      uint64_t fibRouteOverwrites = 0;  // programRoute changed a FIB route's forwarding
      uint64_t missingEntryWrites = 0;  // hardwareIdIs on a key without an entry
      uint64_t refusals = 0;  // calls refused by a fault, for want of space or by the dataplane
      uint64_t dataplaneFibRefusals = 0;  // FIB route writes the dataplane refused
      uint64_t errors() const {
         return oldRouteMismatches + fibRouteRemovals + fibRouteOverwrites + missingEntryWrites +
                dataplaneFibRefusals;
      }
   };

   // At most this many error lines are kept; the counters go on counting.
   static constexpr size_t kErrorLogLimit = 1000;

   HardwareRouteTable() = default;

   // ---- The segment library's side ----
   bool programRoute(const Key& key, const RouteInfo& oldRouteInfo, const RouteInfo& newRouteInfo);
   SegmentHwId hardwareId(const Key& key) const;
   bool hardwareIdIs(const Key& key, SegmentHwId id);

   // Adapters handed to the library. Each call makes a new adapter holding
   // this table; the table holds none of them.
   Zop::Ptr<KivHelper::RouteSmHelper> routeSmHelper();
   Zop::Ptr<KivHelper::Route6SmHelper> route6SmHelper();
   Zop::Ptr<Kiv::KivSegmentRouteHelper> segmentRouteHelper();

   // ---- The routing agent's side ----
   // Places or changes the FIB route's entry. A change keeps the class id; an
   // entry the segment library placed for the same prefix becomes the FIB
   // route's, keeping its class id.
   void fibRouteIs(const Key& key, const RouteInfo& routeInfo);
   // Removes the FIB route's entry; false when the key holds no FIB route.
   bool fibRouteDel(const Key& key);

   // ---- Looking ----
   // With a dataplane: its view, read back at each call.
   const Entry* entry(const Key& key) const;
   const std::map<Key, Entry>& entries() const;
   // The entries the table placed (its own record, whatever the dataplane).
   size_t size() const { return entries_.size(); }

   // ---- The dataplane ----
   // None (the default): the table is the simulated hardware itself.
   void dataplaneIs(std::shared_ptr<Dataplane> dataplane) { dataplane_ = std::move(dataplane); }
   Dataplane* dataplane() const { return dataplane_.get(); }

   // ---- Faults and limits ----
   void faultIs(const Key& key, Fault fault);
   Fault fault(const Key& key) const;
   // Every key with a fault still set (a once fault goes when it is used).
   const std::map<Key, Fault>& faults() const { return faults_; }
   // At most `n` entries; none means no limit (the default). Lowering the
   // limit below the current size removes nothing; only new entries wait.
   void capacityIs(std::optional<size_t> n);
   std::optional<size_t> capacity() const { return capacity_; }
   // Whether a write was refused for want of space since there was last
   // room; see "Resource state" above.
   bool resourceFull() const { return resourceFull_; }
   // Called with the new state on each change of resourceFull(), after the
   // write (or capacity change) that made it. It must not call back into the
   // table.
   using ResourceListener = std::function<void(bool full)>;
   void resourceListenerIs(ResourceListener listener) { resourceListener_ = std::move(listener); }

   const Counters& counters() const { return counters_; }
   // One line per error, oldest first (at most kErrorLogLimit).
   const std::vector<Zop::String>& errorLog() const { return errorLog_; }

private:
   // Consumes a one-time fault; true when the call must be refused.
   bool refusedByFault(const Key& key);
   void logError(const Zop::String& line);
   void resourceFullIs(bool full);
   // After an entry went or the capacity changed: normal again if there is room.
   void checkRoom();

   std::map<Key, Entry> entries_;
   std::shared_ptr<Dataplane> dataplane_;
   // The dataplane's view as last read by entries().
   mutable std::map<Key, Entry> dataplaneView_;
   std::map<Key, Fault> faults_;
   std::optional<size_t> capacity_;
   bool resourceFull_ = false;
   ResourceListener resourceListener_;
   Counters counters_;
   std::vector<Zop::String> errorLog_;
};

// "routeTypeDrop adj 7 id 5": an entry's route and class id in one phrase.
Zop::String entryText(const RouteInfo& routeInfo, SegmentHwId classId);
// "FIB route" or "segment route".
const char* ownerText(HardwareRouteTable::Owner owner);
// "vrf 3 10.1.0.0/16"
Zop::String keyText(const HardwareRouteTable::Key& key);

}  // namespace sim
