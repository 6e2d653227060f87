#pragma once
// The judge of the simulated switch: from the configuration, the FIB, the
// hw-id grants and the resolver's answers it computes the hardware state
// that must hold once everything has settled, and lists every difference
// from the hardware table.
//
// What must hold it computes from published state only, never from the
// segment library's own records, by brute force, so it shares no algorithm
// with what it judges. The records are given only to be compared with the
// hardware, as a second view (see "Records" below).
//
// The rules:
//   Counting segment prefixes (only while the feature runs): a prefix-list
//   entry P -> segment S of firewall VRF V counts when
//     - P is a valid prefix (no host bits) whose address is unicast (so
//       neither 0.0.0.0/n, ::/n nor multicast: the configuration side skips
//       those, and ::/0 or 0.0.0.0/0 would be a default route, not a segment),
//     - V has a VRF id in the L3 status,
//     - S exists in V's segment directory, and
//     - the allocator granted (V's id, S) a valid hw id.
//   Expected entries:
//     - Every FIB route keeps its own RouteInfo and carries the id of the
//       longest counting segment prefix of its VRF that contains it (equal
//       or shorter), or 0 when none does.
//     - A counting segment prefix that is not a FIB route:
//         routing of its family off in the VRF: its own route with the VRF's
//           drop adjacency of the family (route type and l2 index of
//           GlobalFecId(kDropV4/kDropV6, 0, drop index)), carrying its id;
//         routing on: absent until the resolver answered the watched key;
//           then its own route to the first resolved next hop of the answer
//           (the next hop's route type, and the l2 index of the adjacency of
//           GlobalFecId(kForward, the VRF's FIB table id, fecIndex)), or the
//           drop route when the answer has no resolved next hop; either way
//           carrying its id.
//     - Nothing else.
//   Where published state lacks something the rules need (no drop
//   adjacency, no adjacency for an answer's FEC), that is reported as a line
//   of its own and nothing is expected for the prefix.
//
// Whether the feature must run is decided from the inputs, never from the
// library's status: it runs exactly when the firewall is active and neither
// IPv4 nor IPv6 uRPF is configured. That is what must hold once settled with
// the routing side able to finish a handshake (the routing status helper
// ready, the routing layer not busy). With the helper unready or the layer
// busy a handshake may rightly wait, and where it waits depends on timing,
// not on the inputs: then, and only then, the hardware is judged against
// what the status says (and the status must at least be at rest: running
// or off). When the feature does not run, no segment prefix counts (so
// every FIB route carries 0 and no segment route may be in hardware), and no
// hw-id request may be left: each request left, and each grant left without
// its request, is a line of its own.
//
// The feature's state, once settled and decidable (lines of their own, first):
//   - the status agrees: enabled and segmentSecuritySetupComplete both equal
//     to whether the feature must run, no cleanup wait, no routing disable
//     outstanding;
//   - while it must run, every segment of a firewall VRF that has a VRF id has
//     an id request or a grant (requests are a set: a segment never waits for
//     nothing), and no segment that is gone keeps a granted request;
//   - hardware routing is on (multicast hwRouting) and not suspended by the
//     routing layer.
//
// Always, at every moment (alwaysDifferences, for tests that look after
// every scheduler slice): no hardware entry carries the invalid id 65535,
// and every record of the library has its prefix in the library's segment
// trie of its VRF and family.
//
// Records: when the library's KivSegmentRouteInfoColl is given, its records
// must describe the hardware, whatever the configuration says (a route the
// hardware refused to remove is still recorded, and still holds its id):
//   - a record with a route type claims hardware: its prefix has an entry;
//     a segment route's entry forwards with the record's route info and
//     carries its id;
//   - a segment route's entry has a record that claims hardware;
//   - a FIB route's entry carries the id of the longest recorded prefix of
//     its VRF containing it (equal or shorter), or 0 when none does.
//
// check() returns one line per difference, sorted by VRF name, then the
// hardware and record lines by prefix, then the id lines by segment (a VRF
// unknown to the L3 status shows as "vrf#<id>"), e.g.
//   red 10.1.0.0/16: expected routeTypeDrop adj 1048578 id 5 (segment route), found
//   routeTypeDrop adj 1048578 id 0 (segment route)
//   red 10.2.0.0/16: record routeTypeDrop adj 1048578 id 5, not in hardware
//   red 10.3.0.0/16: record routeTypeDrop adj 1048578 id 5, hardware holds routeTypeDrop adj
//   1048578 id 0 (segment route)
//   red 10.4.0.0/16: routeTypeDrop adj 1048578 id 5 (segment route) in hardware without a record
//   red 10.4.1.0/24: FIB route carries id 5, the records give it id 0 (no recorded prefix covers
//   it)
//   red segment 'web': id request left while the feature is off
//   red segment 'db': id 6 granted without a request while the feature is off
// An empty list means the hardware (and the id handshake) is exactly as it
// must be.

#include <map>
#include <utility>
#include <vector>

#include "Firewall/HwConfig.h"
#include "Ip/Status.h"
#include "KivSegmentSecurity/KivSegmentPrefixProcessorTypes.h"
#include "Routing/FibRoute.h"
#include "Routing/L3Status.h"
#include "Routing/MulticastHardwareStatus.h"
#include "Routing/RouteReactor.h"
#include "Segment/SegmentId.h"
#include "sim/HardwareRouteTable.h"
#include "sim/RoutingLayer.h"
#include "sim/RoutingStatusHelper.h"

namespace sim {

class Oracle {
public:
   struct Inputs {
      Zop::Ptr<const Firewall::HwConfig> fwConfig;
      Zop::Ptr<const L3Status> l3Status;
      Zop::Ptr<const KivVrfFibRouteCollection> fibRoutes;
      Zop::Ptr<const KivVrfFibRoute6Collection> fibRoutes6;
      Zop::Ptr<const SegmentIdResponse> segmentIdResponse;
      Zop::Ptr<const RouteReactorStatus> routeStatus;
      Zop::Ptr<const Route6ReactorStatus> route6Status;
      Zop::Ptr<const HardwareRouteTable> hardware;
      // uRPF configuration of each family; null: not configured.
      Zop::Ptr<const Ip::Status> ipStatus;
      Zop::Ptr<const Ip6::Status> ip6Status;
      // The routing status helper's answer and the hardware routing state;
      // null: ready, and routing not looked at.
      Zop::Ptr<const RoutingStatusHelper> routingHelper;
      const RoutingLayer* routingLayer = nullptr;
      Zop::Ptr<const MulticastHwStatus> multicastStatus;
      // The feature's status, compared with what must hold; null: not looked
      // at, and the feature is taken to run (a switch whose configuration
      // side is played by hand).
      Zop::Ptr<const SegmentSecurityStatus> status;
      // The id requests, looked at while the feature does not run; null:
      // not looked at.
      Zop::Ptr<const SegmentIdRequest> segmentIdRequest;
      // The library's records, compared with the hardware; null: not looked
      // at.
      Zop::Ptr<const Kiv::KivSegmentRouteInfoColl> segmentRoutes;
      // The library's segment tries, which every record must be in; null:
      // not looked at.
      Zop::Ptr<const Kiv::KivSegmentPrefixTrie> segmentTries;
   };

   explicit Oracle(Inputs inputs);

   std::vector<Zop::String> check() const;

   // Whether the feature must run, from the inputs: the firewall active and
   // no uRPF. Without a status (configuration by hand) it runs.
   bool featureShouldRun() const;
   // Whether a settled switch must show featureShouldRun(): the routing side
   // can finish a handshake (helper ready, routing layer not busy).
   bool decidable() const;
   // What expected() and the id lines go by: featureShouldRun() when
   // decidable, else what the status says.
   bool featureRunning() const;

   // The rules that hold at every moment, not only once settled.
   std::vector<Zop::String> alwaysDifferences() const;

   // The hardware table that must hold, with the lines for missing
   // published state; check() compares this with the real one.
   struct Expected {
      std::map<HardwareRouteTable::Key, HardwareRouteTable::Entry> entries;
      // Entries hardware may hold where `entries` has none: a segment prefix
      // in a VRF that routes its family, the resolver not having answered
      // for it, is either not in hardware yet or, once its own FIB route was
      // withdrawn, on the drop route with its id.
      std::map<HardwareRouteTable::Key, HardwareRouteTable::Entry> allowed;
      std::vector<std::pair<HardwareRouteTable::Key, Zop::String>> problems;
   };
   Expected expected() const;

   // The counting segment prefixes of each VRF with their ids (see "Counting
   // segment prefixes"); none while the feature does not run.
   std::map<VrfId, std::map<Pexo::IpGenPrefix, SegmentHwId>> segmentPrefixIds() const;

   const Inputs& inputs() const { return in_; }

   // Whether a configured prefix can be a segment prefix at all.
   static bool validSegmentPrefix(const Pexo::IpGenPrefix& prefix);

   // The differences between the records and the hardware (see "Records"),
   // each with its key; none when no records are given. check() has them
   // among its lines.
   std::vector<std::pair<HardwareRouteTable::Key, Zop::String>> recordDifferences() const;

private:
   Inputs in_;
};

}  // namespace sim
