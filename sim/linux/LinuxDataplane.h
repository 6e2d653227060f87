#pragma once
// The Linux kernel as the switch's dataplane: the hardware route table's
// entries become kernel routes in a network namespace of their own.
//
// The mapping:
//   VRF id N              kernel routing table N (0 and 253-255 are the
//                         kernel's own: writes there are refused)
//   routeTypeDrop adj A   a blackhole route; A is the VRF's drop adjacency,
//                         remembered per (table, family) from the writes
//                         (the kernel keeps no index on a blackhole)
//   routeTypeForward adj A  a unicast route via a next hop that encodes A:
//                         100.64.0.0 + A (A < 4194302) or fd00:6b69:7600::A,
//                         on link through the namespace's veth kiv0
//   routeTypeForward adj kHostAdjBase + N  a route out of host link N
//   other route types, or the flag: refused
//   class id (IPv4)       the route's realm (RTA_FLOW), written by replacing
//                         the route with the same next hop
//   class id (IPv6)       kept beside the kernel table: the kernel carries no
//                         realm on IPv6 routes
//   owner                 the route's protocol: 75 for a FIB route, 76 for a
//                         segment route; routes of other protocols are not ours
//                         and are left alone
// A write the kernel refuses answers false: a refused write, as a fault of
// the simulated table is. Each write is one netlink request whose
// acknowledgement is waited for (no batching). The class id the library
// reads back is the one of the last write the kernel acknowledged; entries()
// dumps the kernel's tables, so `hw` and `check` see what the kernel holds.
//
// The namespace: one of its own ("kivsim-PID"), created at open() and
// deleted when the dataplane goes, at exit, or on SIGINT, SIGTERM or SIGHUP;
// or an existing one named by the caller, where only the routes of the two
// protocols above (and the veth, when it was made here) are removed at the
// end. The calling thread never leaves its own namespace: the netlink socket
// is opened by a short-lived thread that enters the namespace.

#include <cstdint>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "sim/Dataplane.h"

struct mnl_socket;
struct nlmsghdr;

namespace sim {

class LinuxDataplane final : public Dataplane {
public:
   // Why open() could not make a dataplane, in one line.
   struct Error : std::runtime_error {
      using std::runtime_error::runtime_error;
   };

   static constexpr uint8_t kProtoFib = 75;
   static constexpr uint8_t kProtoSegment = 76;

   // `netns` empty: a namespace of its own. Throws Error.
   static std::shared_ptr<LinuxDataplane> open(const std::string& netns);
   ~LinuxDataplane() override;
   LinuxDataplane(const LinuxDataplane&) = delete;
   LinuxDataplane& operator=(const LinuxDataplane&) = delete;

   bool entryIs(const HwKey& key, const HwEntry& entry) override;
   bool entryDel(const HwKey& key) override;
   std::optional<SegmentHwId> classId(const HwKey& key) override;
   std::map<HwKey, HwEntry> entries() override;
   std::vector<std::string> statusLines() const override;

   // Hosts are namespaces of their own ("NETNS-NAME"), joined to the
   // switch's namespace by a veth pair ("khN" there, "eth0" in the host);
   // an ip rule sends what comes in on khN to the VRF's table, and the
   // link's adjacency (kHostAdjBase + N) is a route out of khN. Rules are an
   // nftables table "inet kiv" whose forward chain matches `meta rtclassid`.
   static constexpr uint64_t kHostAdjBase = 4100000;
   std::string rulesAre(const std::vector<Rule>& rules) override;
   std::map<std::string, uint64_t> ruleCounts() override;
   std::string hostIs(const std::string& name, VrfId vrf, Pexo::IpAddr address, uint32_t len,
                      Pexo::IpAddr gateway, uint64_t& adj) override;
   std::string send(const std::string& host, Pexo::IpAddr to, bool& delivered) override;

   // Adopt mode: other programs' routes in the namespace's tables (any
   // protocol but the two above; not tables 0 and 253-255) are followed
   // through a route monitor socket, non-blocking. A unicast route with one
   // next hop has the adjacency:
   //   via 100.64.0.0 + A dev kiv0      A (the encoding above)
   //   via GATEWAY                      kAdoptAdjBase + fnv1a32("via GATEWAY") % 2^20
   //   dev LINK (no gateway)            kAdoptAdjBase + fnv1a32("dev LINK") % 2^20
   // Other kinds (blackhole and the like, multipath, source-specific, with a
   // TOS) are reported as skipped. The table's writes to an adopted route
   // keep the owner's route (protocol, next hop, metric) and only set its
   // realm; a route its owner replaces without the realm the table wrote
   // gets it back at once, when the monitor shows it. Removing an adopted
   // entry takes its realm off and leaves the route to its owner.
   static constexpr uint64_t kAdoptAdjBase = 0x200000;
   std::string adoptIs() override;
   bool foreignRouteNext(ForeignRoute& out) override;
   // Realms written back onto routes their owners replaced without one.
   uint64_t realmsRestored() const { return realmsRestored_; }

   const std::string& netns() const { return netns_; }
   // The kernel's refusals, one line each ("vrf 1 10.1.0.0/16: File exists").
   const std::vector<std::string>& refusals() const { return refusals_; }

private:
   LinuxDataplane() = default;
   // One request, its acknowledgement waited for: 0 or the kernel's -errno.
   int transact(void* buffer);
   // Dumps the routes of one family to `out`, ours only.
   // Asks the kernel for a dump of the family's routes under a new seq_ (the
   // answer's sequence number); false when the request could not be sent.
   bool requestRouteDump(int family);
   void dumpFamily(int family, std::map<HwKey, HwEntry>& out);
   // Removes every route of our protocols (left by an earlier run, or at the end).
   void flushOwnRoutes();
   void refused(const HwKey& key, const std::string& what, int err);
   // Removes the route of `key` with the protocol `proto` (0: any).
   int delRoute(const HwKey& key, uint8_t proto);
   // Every route message of one family the kernel dumps, raw.
   std::vector<std::vector<char>> dumpRaw(int family);
   // A route message of another program (new or deleted).
   void foreignSeen(const nlmsghdr* nlh);
   // Writes the owner's route of `key` back with the realm `classId`.
   int adoptedWrite(const HwKey& key, uint32_t classId);
   std::string linkName(int index);
   // After the monitor lost messages: the tables read again, the
   // differences reported.
   void resync();
   void close();

   std::string netns_;
   bool ownNamespace_ = false;
   bool ownLink_ = false;
   mnl_socket* nl_ = nullptr;
   uint32_t portId_ = 0;
   uint32_t seq_ = 0;
   int linkIndex_ = 0;
   // What the kernel acknowledged, per key; the IPv6 ids live only here.
   std::map<HwKey, HwEntry> acked_;
   // The drop adjacency of each (table, family) last written as a blackhole.
   std::map<std::pair<uint32_t, int>, uint64_t> dropAdj_;
   std::vector<std::string> refusals_;

   struct Host {
      std::string netns;
      Pexo::IpAddr address;
      std::string link;
      int linkIndex = 0;
   };
   std::map<std::string, Host> hosts_;
   // The link a host adjacency goes out of, and back.
   std::map<uint64_t, int> hostAdjLink_;
   std::map<int, uint64_t> linkHostAdj_;
   // Adopt mode.
   struct Foreign {
      uint8_t header[12] = {};  // the route's rtmsg
      std::vector<char> attrs;  // its attributes a write repeats
      uint64_t adj = 0;
      std::string skipped;
      uint32_t realm = 0;
   };
   mnl_socket* monitor_ = nullptr;
   std::map<HwKey, Foreign> foreign_;
   std::vector<ForeignRoute> foreignQueue_;
   size_t foreignHead_ = 0;
   std::map<int, std::string> linkNames_;
   uint64_t realmsRestored_ = 0;
   bool forwarding_ = false;
   bool ruleTable_ = false;
};

}  // namespace sim
