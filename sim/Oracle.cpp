#include "sim/Oracle.h"

#include <algorithm>
#include <functional>
#include <string>
#include <tuple>

namespace sim {

namespace {

using Key = HardwareRouteTable::Key;
using Entry = HardwareRouteTable::Entry;
using Owner = HardwareRouteTable::Owner;
using Quarn::Fib::GlobalFecId;

Pexo::IpGenPrefix shortened(const Pexo::IpGenPrefix& p, uint32_t len) {
   if (p.isIpv4()) {
      return Pexo::Prefix(p.v4().addr(), len).masked();
   }
   return Pexo::Ip6Prefix(p.v6().addr(), len).masked();
}

// The counting segment prefixes of one VRF, and the lengths they come in
// per family, longest first: a FIB route's longest cover is found by trying
// just those lengths.
struct VrfSegments {
   std::map<Pexo::IpGenPrefix, SegmentHwId> prefixes;
   std::vector<uint32_t> lengths4;
   std::vector<uint32_t> lengths6;

   void finish() {
      for (const auto& entry : prefixes) {
         (entry.first.isIpv4() ? lengths4 : lengths6).push_back(entry.first.len());
      }
      for (auto* v : {&lengths4, &lengths6}) {
         std::sort(v->begin(), v->end(), std::greater<>());
         v->erase(std::unique(v->begin(), v->end()), v->end());
      }
   }

   // The id of the longest segment prefix containing p; 0 when none does.
   SegmentHwId cover(const Pexo::IpGenPrefix& p) const {
      for (uint32_t len : p.isIpv4() ? lengths4 : lengths6) {
         if (len > p.len()) {
            continue;
         }
         auto it = prefixes.find(shortened(p, len));
         if (it != prefixes.end()) {
            return it->second;
         }
      }
      return SegmentHwId(0);
   }
};

Zop::String describe(const Entry& e) {
   return entryText(e.routeInfo, e.classId) + " (" + ownerText(e.owner) + ")";
}

}  // namespace

Oracle::Oracle(Inputs inputs) : in_(std::move(inputs)) {}

bool Oracle::featureShouldRun() const {
   if (!in_.status) {
      return true;
   }
   const bool urpf4 = in_.ipStatus && in_.ipStatus->urpfConfigured();
   const bool urpf6 = in_.ip6Status && in_.ip6Status->urpfConfigured();
   return in_.fwConfig->fwActive() && !urpf4 && !urpf6;
}

bool Oracle::decidable() const {
   if (!in_.status) {
      return true;
   }
   const bool helperReady = !in_.routingHelper || in_.routingHelper->ready();
   const bool layerBusy = in_.l3Status->waitForRoutingDisabledInVrfs() ||
                          in_.l3Status->waitForRouting6DisabledInVrfs() ||
                          (in_.routingLayer && in_.routingLayer->held());
   return helperReady && !layerBusy;
}

bool Oracle::featureRunning() const {
   if (decidable()) {
      return featureShouldRun();
   }
   return in_.status->enabled() && in_.status->segmentSecuritySetupComplete();
}

std::vector<Zop::String> Oracle::alwaysDifferences() const {
   std::vector<Zop::String> out;
   auto vrfText = [&](VrfId id) {
      const L3::VrfName name = in_.l3Status->vrfName(id);
      return name.empty() ? "vrf#" + std::to_string(id.value()) : name.value();
   };
   for (const auto& [key, entry] : in_.hardware->entries()) {
      if (entry.classId == SegmentHwId()) {
         out.push_back(vrfText(key.vrfId) + " " + valueToStrep(key.prefix) + ": " +
                       describe(entry) + " carries the invalid id");
      }
   }
   if (in_.segmentRoutes && in_.segmentTries) {
      for (const auto& [vrfPrefix, record] : in_.segmentRoutes->routeInfo()) {
         const auto tries = in_.segmentTries->vrfTrie(vrfPrefix.vrfId());
         const auto trie = tries ? tries->prefixTrie(vrfPrefix.prefix().af()) : nullptr;
         if (!trie || !trie->routeHas(vrfPrefix.prefix())) {
            out.push_back(vrfText(vrfPrefix.vrfId()) + " " + valueToStrep(vrfPrefix.prefix()) +
                          ": record " + entryText(record.routeInfo(), record.hwId()) +
                          " without its segment trie entry");
         }
      }
   }
   std::sort(out.begin(), out.end());
   return out;
}

bool Oracle::validSegmentPrefix(const Pexo::IpGenPrefix& p) {
   if (!p.validAsPrefix()) {
      return false;
   }
   return p.isIpv4() ? p.v4().addr().isUnicast() : p.v6().addr().isUnicast();
}

std::map<VrfId, std::map<Pexo::IpGenPrefix, SegmentHwId>> Oracle::segmentPrefixIds() const {
   std::map<VrfId, std::map<Pexo::IpGenPrefix, SegmentHwId>> out;
   if (!featureRunning()) {
      return out;
   }
   for (const auto& [name, fwVrf] : in_.fwConfig->vrf()) {
      const VrfId* vrfId = in_.l3Status->vrfId(name);
      if (!vrfId) {
         continue;
      }
      for (const auto& [prefix, segment] : fwVrf->prefixList()) {
         if (!validSegmentPrefix(prefix) || !fwVrf->segment(segment)) {
            continue;
         }
         const SegmentIdStatus* grant =
             in_.segmentIdResponse->status(SegmentIdRequestKey(*vrfId, segment));
         if (grant && grant->hwId.isValid()) {
            out[*vrfId][prefix] = grant->hwId;
         }
      }
   }
   return out;
}

Oracle::Expected Oracle::expected() const {
   Expected ex;
   std::map<VrfId, VrfSegments> segments;
   for (auto& [vrf, ids] : segmentPrefixIds()) {
      VrfSegments& vrfSegments = segments[vrf];
      vrfSegments.prefixes = std::move(ids);
      vrfSegments.finish();
   }
   auto idFor = [&segments](VrfId vrf, const Pexo::IpGenPrefix& p) {
      auto it = segments.find(vrf);
      return it == segments.end() ? SegmentHwId(0) : it->second.cover(p);
   };

   for (const auto& [k, r] : in_.fibRoutes->fibRoute()) {
      const Pexo::IpGenPrefix p(k.prefix());
      ex.entries[{k.vrfId(), p}] = Entry{r, idFor(k.vrfId(), p), Owner::fibRoute};
   }
   for (const auto& [k, r] : in_.fibRoutes6->fibRoute()) {
      const Pexo::IpGenPrefix p(k.prefix());
      ex.entries[{k.vrfId(), p}] = Entry{r, idFor(k.vrfId(), p), Owner::fibRoute};
   }

   for (const auto& [vrf, segs] : segments) {
      const L3::VrfName name = in_.l3Status->vrfName(vrf);
      const auto status = in_.l3Status->vrfStatus(name);
      for (const auto& segmentPrefix : segs.prefixes) {
         const Pexo::IpGenPrefix& p = segmentPrefix.first;
         const SegmentHwId id = segmentPrefix.second;
         const Key key{vrf, p};
         if (ex.entries.count(key)) {
            continue;  // a FIB route: its entry carries the id already
         }
         if (!status) {
            ex.problems.emplace_back(key, "the VRF has no status");
            continue;
         }
         auto dropRoute = [&](bool required = true) -> std::optional<RouteInfo> {
            const auto type = p.isIpv4() ? GlobalFecId::kDropV4 : GlobalFecId::kDropV6;
            const uint16_t dropIndex = in_.l3Status->vrfDropIndex(name);
            const auto adj = in_.l3Status->adjacency(GlobalFecId(type, 0, dropIndex));
            if (!adj) {
               if (!required) {
                  return std::nullopt;
               }
               ex.problems.emplace_back(
                   key, "no drop adjacency (drop index " + std::to_string(dropIndex) + ")");
               return std::nullopt;
            }
            return RouteInfo(adj->routeType(), adj->l2Adj().index());
         };
         std::optional<RouteInfo> route;
         if (!status->routingEnabled(p.af())) {
            route = dropRoute();
         } else {
            const NextHopEntryList* answer =
                p.isIpv4() ? in_.routeStatus->resolvedEntry(VrfAndPrefix(vrf, p.v4()))
                           : in_.route6Status->resolvedEntry(VrfAndIp6Prefix(vrf, p.v6()));
            if (!answer) {
               if (std::optional<RouteInfo> drop = dropRoute(false)) {
                  ex.allowed[key] = Entry{*drop, id, Owner::segmentRoute};
               }
               continue;
            }
            auto nextHop = std::find_if(answer->begin(), answer->end(),
                                        [](const Routing::NextHopEntry& e) { return e.resolved; });
            if (nextHop == answer->end()) {
               route = dropRoute();
            } else if (const uint32_t* table = in_.l3Status->vrfTableStatus()->fibTableId(name)) {
               const GlobalFecId fec(GlobalFecId::kForward, *table, nextHop->fecIndex);
               if (const auto adj = in_.l3Status->adjacency(fec)) {
                  route = RouteInfo(nextHop->routeType, adj->l2Adj().index());
               } else {
                  ex.problems.emplace_back(
                      key, "the resolver's next hop " + valueToStrep(fec) + " has no adjacency");
               }
            } else {
               ex.problems.emplace_back(key, "the resolver answered but the VRF has no FIB table");
            }
         }
         if (route) {
            ex.entries[key] = Entry{*route, id, Owner::segmentRoute};
         }
      }
   }
   return ex;
}

std::vector<std::pair<HardwareRouteTable::Key, Zop::String>> Oracle::recordDifferences() const {
   std::vector<std::pair<Key, Zop::String>> out;
   if (!in_.segmentRoutes) {
      return out;
   }
   const auto& hardware = in_.hardware->entries();
   // The recorded prefixes of each VRF with their ids, saved ones included:
   // the FIB routes beneath a prefix carry its id before it is programmed.
   std::map<VrfId, VrfSegments> recorded;
   for (const auto& [vrfPrefix, record] : in_.segmentRoutes->routeInfo()) {
      recorded[vrfPrefix.vrfId()].prefixes[vrfPrefix.prefix()] = record.hwId();
      const Key key{vrfPrefix.vrfId(), vrfPrefix.prefix()};
      if (record.routeInfo().routeType() == RouteType::routeTypeInvalid) {
         continue;  // saved until the resolver answers: claims nothing
      }
      const Zop::String text = "record " + entryText(record.routeInfo(), record.hwId());
      auto it = hardware.find(key);
      if (it == hardware.end()) {
         out.emplace_back(key, text + ", not in hardware");
      } else if (it->second.routeInfo != record.routeInfo() ||
                 it->second.classId != record.hwId()) {
         // A segment route's entry is the record's own; a FIB route's entry
         // must carry the recorded id, and the record the route it forwards
         // with.
         out.emplace_back(key, text + ", hardware holds " + describe(it->second));
      }
   }
   for (auto& entry : recorded) {
      entry.second.finish();
   }
   for (const auto& [key, entry] : hardware) {
      if (entry.owner == Owner::segmentRoute) {
         const Kiv::KivSegmentRouteInfo* record =
             in_.segmentRoutes->routeInfoFind(VrfAndIpGenPrefix(key.vrfId, key.prefix));
         if (!record || record->routeInfo().routeType() == RouteType::routeTypeInvalid) {
            out.emplace_back(key, describe(entry) + " in hardware without a record" +
                                      (record ? " that claims it" : ""));
         }
         continue;
      }
      auto vrf = recorded.find(key.vrfId);
      const SegmentHwId want =
          vrf == recorded.end() ? SegmentHwId(0) : vrf->second.cover(key.prefix);
      if (entry.classId != want) {
         out.emplace_back(key,
                          "FIB route carries id " + std::to_string(entry.classId.value()) +
                              ", the records give it id " + std::to_string(want.value()) +
                              (want == SegmentHwId(0) ? " (no recorded prefix covers it)" : ""));
      }
   }
   return out;
}

std::vector<Zop::String> Oracle::check() const {
   const Expected ex = expected();
   const auto& actual = in_.hardware->entries();

   // Sorted by VRF name; in a VRF the hardware lines (by prefix) come before
   // the id lines (by segment).
   struct Line {
      Zop::String vrf;
      int group;  // 0: a hardware line, 1: an id line
      Pexo::IpGenPrefix prefix;
      Zop::String segment;
      Zop::String text;
      bool operator<(const Line& o) const {
         return std::tie(vrf, group, prefix, segment, text) <
                std::tie(o.vrf, o.group, o.prefix, o.segment, o.text);
      }
   };
   std::vector<Line> lines;
   auto vrfText = [&](VrfId id) {
      const L3::VrfName name = in_.l3Status->vrfName(id);
      return name.empty() ? "vrf#" + std::to_string(id.value()) : name.value();
   };
   auto add = [&](const Key& key, const Zop::String& text) {
      Zop::String vrf = vrfText(key.vrfId);
      Zop::String line = vrf + " " + valueToStrep(key.prefix) + ": " + text;
      lines.push_back(Line{std::move(vrf), 0, key.prefix, {}, std::move(line)});
   };
   auto addFeature = [&](const Zop::String& text) {
      lines.push_back(Line{Zop::String(), -1, {}, {}, text});
   };
   auto addId = [&](const SegmentIdRequestKey& key, const Zop::String& text) {
      Zop::String vrf = vrfText(key.vrfId());
      Zop::String line = vrf + " segment '" + key.segment() + "': " + text;
      lines.push_back(Line{std::move(vrf), 1, {}, key.segment(), std::move(line)});
   };

   auto e = ex.entries.begin();
   auto a = actual.begin();
   while (e != ex.entries.end() || a != actual.end()) {
      if (a == actual.end() || (e != ex.entries.end() && e->first < a->first)) {
         add(e->first, "missing, expected " + describe(e->second));
         ++e;
      } else if (e == ex.entries.end() || a->first < e->first) {
         auto allowed = ex.allowed.find(a->first);
         if (allowed == ex.allowed.end() || allowed->second != a->second) {
            add(a->first, "unexpected " + describe(a->second));
         }
         ++a;
      } else {
         if (e->second != a->second) {
            add(e->first, "expected " + describe(e->second) + ", found " + describe(a->second));
         }
         ++e;
         ++a;
      }
   }
   for (const auto& [key, text] : ex.problems) {
      add(key, text);
   }
   for (const auto& [key, text] : recordDifferences()) {
      add(key, text);
   }

   if (in_.status && decidable()) {
      const bool want = featureShouldRun();
      const auto& st = *in_.status;
      auto onOff = [](bool v) { return v ? "on" : "off"; };
      if (st.enabled() != want || st.segmentSecuritySetupComplete() != want) {
         addFeature(Zop::String("feature: must ") + (want ? "run" : "be off") + " (firewall " +
                    onOff(in_.fwConfig->fwActive()) + ", uRPF ipv4 " +
                    onOff(in_.ipStatus && in_.ipStatus->urpfConfigured()) + ", ipv6 " +
                    onOff(in_.ip6Status && in_.ip6Status->urpfConfigured()) +
                    "), the status says enabled: " + (st.enabled() ? "true" : "false") +
                    ", segmentSecuritySetupComplete: " +
                    (st.segmentSecuritySetupComplete() ? "true" : "false"));
      }
      if (st.waitForRoutesCleanup()) {
         addFeature("feature: waitForRoutesCleanup left true");
      }
      if (st.segmentSecurityRoutingDisableDone()) {
         addFeature(
             "feature: segmentSecurityRoutingDisableDone left true (a routing disable "
             "never completed)");
      }
      if (in_.routingLayer && in_.routingLayer->suspended()) {
         addFeature("routing: hardware routing left suspended by the routing layer");
      }
      if (in_.multicastStatus && !in_.multicastStatus->hwRouting()) {
         addFeature("routing: hardware routing left off (hwRouting false)");
      }
      if (want && in_.segmentIdRequest) {
         for (const auto& [name, fwVrf] : in_.fwConfig->vrf()) {
            const VrfId* vrfId = in_.l3Status->vrfId(name);
            if (!vrfId) {
               continue;
            }
            for (const auto& [segment, fwSegment] : fwVrf->segmentDir()->segment()) {
               const SegmentIdRequestKey key(*vrfId, segment);
               const SegmentIdStatus* grant = in_.segmentIdResponse->status(key);
               if (!in_.segmentIdRequest->requestHas(key) && !(grant && grant->hwId.isValid())) {
                  addId(key, "configured, but neither requested nor granted");
               }
            }
         }
         // Nor does an id stay with a segment that is gone: once settled,
         // nothing is counted under it any more.
         for (const auto& [key, grant] : in_.segmentIdResponse->status()) {
            const auto fwVrf = in_.fwConfig->vrf(in_.l3Status->vrfName(key.vrfId()));
            if (grant.hwId.isValid() && in_.segmentIdRequest->requestHas(key) &&
                !(fwVrf && fwVrf->segment(key.segment()))) {
               addId(key, "id " + std::to_string(grant.hwId.value()) +
                              " still granted to a segment that is not configured");
            }
         }
      }
   }

   if (!featureRunning()) {
      if (in_.segmentIdRequest) {
         for (const SegmentIdRequestKey& key : in_.segmentIdRequest->request()) {
            addId(key, "id request left while the feature is off");
         }
      }
      for (const auto& [key, grant] : in_.segmentIdResponse->status()) {
         if (!in_.segmentIdRequest || !in_.segmentIdRequest->requestHas(key)) {
            addId(key, "id " + std::to_string(grant.hwId.value()) +
                           " granted without a request while the feature is off");
         }
      }
   }

   std::sort(lines.begin(), lines.end());
   std::vector<Zop::String> out;
   out.reserve(lines.size());
   for (auto& line : lines) {
      out.push_back(std::move(line.text));
   }
   return out;
}

}  // namespace sim
