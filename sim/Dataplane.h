#pragma once
// A dataplane beneath the hardware route table: where the table's entries
// really forward. The simulated table is its own dataplane (none attached);
// with one attached, every write the table takes goes to the dataplane first
// and is taken only when the dataplane takes it, the class id the library
// reads back is the dataplane's, and looking at the table (entries(),
// entry()) shows the dataplane's view, so `hw` and `check` judge what is
// really there.
//
// The table keeps its own bookkeeping either way (owners, faults, capacity,
// counters): a dataplane only says yes or no to a write and tells what it
// holds.

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "Pexo/Prefix.h"
#include "Pexo/VrfId.h"
#include "Routing/RouteInfo.h"
#include "Segment/SegmentId.h"

namespace sim {

struct HwKey {
   VrfId vrfId;
   Pexo::IpGenPrefix prefix;
   friend auto operator<=>(const HwKey&, const HwKey&) = default;
   friend bool operator==(const HwKey&, const HwKey&) = default;
};

enum class HwOwner : uint8_t { fibRoute, segmentRoute };

struct HwEntry {
   RouteInfo routeInfo;
   SegmentHwId classId = SegmentHwId(0);
   HwOwner owner = HwOwner::segmentRoute;
   friend bool operator==(const HwEntry&, const HwEntry&) = default;
};

class Dataplane {
public:
   virtual ~Dataplane() = default;
   // Places the entry of `key`, or replaces the one there (route, class id
   // and owner at once). False: the dataplane refused it and holds what it
   // held.
   virtual bool entryIs(const HwKey& key, const HwEntry& entry) = 0;
   // Removes the entry of `key`; an absent entry is no error. False: refused.
   virtual bool entryDel(const HwKey& key) = 0;
   // The class id the dataplane holds for `key`; none when it has no entry.
   virtual std::optional<SegmentHwId> classId(const HwKey& key) = 0;
   // Everything the dataplane holds that this table placed, read back.
   virtual std::map<HwKey, HwEntry> entries() = 0;
   // Lines for `status`, each "name: value"; the same every run.
   virtual std::vector<std::string> statusLines() const = 0;

   // ---- Hosts, traffic and segment policy: a dataplane that forwards real
   // packets. Each answers an empty string when done, else why not (the
   // default: this dataplane has none of it). ----

   // One rule of the forwarding filter: packets whose class pair (source
   // segment id << 16 | destination segment id), masked with `mask`, equals
   // `classPair` are let through (permit) or dropped, and counted under
   // `name`. The first rule that matches decides; no match: through.
   struct Rule {
      uint32_t classPair = 0;
      uint32_t mask = 0xFFFFFFFF;
      bool permit = true;
      std::string name;
      friend bool operator==(const Rule&, const Rule&) = default;
   };
   virtual std::string rulesAre(const std::vector<Rule>& rules) {
      (void)rules;
      return "this dataplane filters nothing";
   }
   // Packets counted by each rule, by name.
   virtual std::map<std::string, uint64_t> ruleCounts() { return {}; }
   // A host on a link of its own to the switch, in VRF `vrf`: the host has
   // `address` (on a subnet of `len` bits) and routes everything via
   // `gateway`, the switch's address on the link. `adj` is set to the
   // adjacency that reaches the link (a FIB route with it is the link's
   // connected route).
   virtual std::string hostIs(const std::string& name, VrfId vrf, Pexo::IpAddr address,
                              uint32_t len, Pexo::IpAddr gateway, uint64_t& adj) {
      (void)name, (void)vrf, (void)address, (void)len, (void)gateway, (void)adj;
      return "hosts need a dataplane that forwards packets (kivsim --dataplane linux)";
   }
   // ---- Adopt mode: routes that other programs (`ip route`, a routing
   // daemon) put in the dataplane's tables, to be published as FIB routes.
   // The dataplane ignores the routes it writes itself. ----

   // One change of another program's route: present with its adjacency
   // (`adj`), or gone; `skipped` says why a present route cannot be a FIB
   // route of the switch (then `adj` means nothing).
   struct ForeignRoute {
      HwKey key;
      bool present = false;
      uint64_t adj = 0;
      std::string skipped;
   };
   // Starts following other programs' routes: the ones already there come
   // first, then every change. Empty when it follows them, else why not.
   virtual std::string adoptIs() { return "this dataplane holds no routes of other programs"; }
   // The next change waiting, if any; never waits for one.
   virtual bool foreignRouteNext(ForeignRoute& out) {
      (void)out;
      return false;
   }

   // One datagram from `host` to `to`, which must be a host's address;
   // `delivered` says whether it arrived.
   virtual std::string send(const std::string& host, Pexo::IpAddr to, bool& delivered) {
      (void)host, (void)to, (void)delivered;
      return "sending needs a dataplane that forwards packets (kivsim --dataplane linux)";
   }
};

}  // namespace sim
