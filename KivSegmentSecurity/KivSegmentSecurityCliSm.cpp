#include "KivSegmentSecurity/KivSegmentSecurityCliSm.h"

#include <algorithm>
#include <array>
#include <ostream>
#include <vector>

#include "KivSegmentSecurity/KivSegmentSecurityUtils.h"
#include "Zop/Error.h"

#include "KivSegmentSecurity/KivSegmentSecurityTrace.h"

namespace Kiv {

namespace {

constexpr char kSource[] = "KivSegmentSecurity/KivSegmentSecurityCliSm";
constexpr std::array<const char*, 3> kRouteTypeNames = {"routeTypeSegmentOnly", "routeTypeFibOnly",
                                                        "routeTypeSegmentAndFib"};
constexpr std::array<const char*, 3> kRouteTypeLetters = {"S", "F", "S,F"};

// A title line's underline: runs of '-' of the column widths, joined by
// blanks.
void underline(lumo::Printer& printer, std::initializer_list<int> widths) {
   Zop::String line;
   for (int w : widths) {
      if (!line.empty()) {
         line += ' ';
      }
      line.append(size_t(w), '-');
   }
   line += '\n';
   printer.addFrills("%s", line.c_str());
}

Zop::String prefixText(const SortedPrefixInfo& info) {
   return valueToStrep(info.vrfPrefix().prefix());
}

// The field of a "#"-separated request text; a missing field reads as empty.
Zop::String field(const std::vector<Zop::String>& fields, size_t i) {
   return i < fields.size() ? fields[i] : Zop::String();
}

// The id of a VRF named in a request; null when unknown (a name too long to
// be a VRF name is unknown too, not an error).
const VrfId* requestVrfId(const Zop::Ptr<const L3Status>& l3Status, const Zop::String& name) {
   if (name.size() > L3::VrfName::maxLength) {
      return nullptr;
   }
   return l3Status->vrfId(L3::VrfName(name));
}

// What one segment printer needs resolved before it prints anything.
struct SegmentView {
   Zop::Ptr<SortedSegmentPrefix> segment;
   SegmentHwId hwId;
};

std::optional<SegmentView> resolveSegment(VrfId vrfId, const Zop::String& segmentName,
                                          const Zop::Ptr<SortedSegmentRouteInfo>& sorted,
                                          const Zop::Ptr<const SegmentIdResponse>& hwIdStatus,
                                          const Zop::Ptr<const L3Status>& l3Status) {
   if (!l3Status->vrfNameHas(vrfId)) {
      return std::nullopt;
   }
   Zop::Ptr<SortedVrfRouteInfo> vrf = sorted->sortedVrf(vrfId);
   if (!vrf) {
      return std::nullopt;
   }
   const SegmentIdStatus* status = hwIdStatus->status(SegmentIdRequestKey(vrfId, segmentName));
   if (!status) {
      return std::nullopt;
   }
   Zop::Ptr<SortedSegmentPrefix> segment = vrf->sortedPrefix(segmentName);
   if (!segment) {
      return std::nullopt;
   }
   return SegmentView{segment, status->hwId};
}

// Detail and routes share their row layout: name and id on the first row
// only, then one row per programmed prefix with a last column of their own.
template <class LastColumn>
void showSegmentPrefixes(lumo::Printer& printer, const Zop::String& segmentName,
                         const SegmentView& view, const char* firstRow, const char* nextRow,
                         LastColumn&& lastColumn) {
   printer.startDictEntry(lumo::StrAttr{"segmentName", segmentName});
   printer.addAttributesJson({lumo::U32Attr{"hardwareId", view.hwId.value()}});
   printer.startDict("prefixes");
   bool first = true;
   for (const auto& [info, present] : view.segment->programmedPrefix()) {
      const Zop::String prefix = prefixText(info);
      lastColumn(info, prefix, first ? firstRow : nextRow, first);
      first = false;
   }
   printer.endDict();
   printer.endDictEntry();
}

}  // namespace

// ---- SegmentRouteType ----

Zop::String stringValue(SegmentRouteType t) {
   auto i = size_t(t);
   if (i < kRouteTypeNames.size()) {
      return kRouteTypeNames[i];
   }
   return "SegmentRouteType(" + std::to_string(uint32_t(t)) + ")";
}

Zop::String valueToStrep(SegmentRouteType t) {
   return stringValue(t);
}

SegmentRouteType segmentRouteTypeValue(std::string_view name) {
   for (size_t i = 0; i < kRouteTypeNames.size(); ++i) {
      if (name == kRouteTypeNames[i]) {
         return SegmentRouteType(i);
      }
   }
   throw Zop::RangeError("unknown SegmentRouteType '" + Zop::String(name) + "'");
}

std::ostream& operator<<(std::ostream& os, SegmentRouteType t) {
   return os << stringValue(t);
}

const char* segmentRouteTypeLetter(SegmentRouteType t) {
   auto i = size_t(t);
   return i < kRouteTypeLetters.size() ? kRouteTypeLetters[i] : "?";
}

// ---- SortedPrefixInfo ----

SortedPrefixInfo::SortedPrefixInfo(Zop::TextCursor& c) {
   c.expect("Value('Kiv::SortedPrefixInfo', ** {", "value");
   c.expect("'vrfPrefix': ", "vrfPrefix");
   try {
      vrfPrefix_ = VrfAndIpGenPrefix(c);
   } catch (const Zop::ParseError& e) {
      throw Zop::ParseError("vrfPrefix", e.what());
   }
   c.expect(", 'routeType': ", "routeType");
   std::string_view name = c.takeWhile([](char ch) {
      return (ch >= 'a' && ch <= 'z') || (ch >= 'A' && ch <= 'Z') || (ch >= '0' && ch <= '9');
   });
   try {
      routeType_ = segmentRouteTypeValue(name);
   } catch (const Zop::RangeError& e) {
      throw Zop::ParseError("routeType", e.what());
   }
   c.expect("})", "value");
}

bool SortedPrefixInfo::operator<(const SortedPrefixInfo& o) const {
   if (vrfPrefix_ != o.vrfPrefix_) {
      return vrfPrefix_ < o.vrfPrefix_;
   }
   return routeType_ < o.routeType_;
}

Zop::String valueToStrep(const SortedPrefixInfo& v) {
   return "Value('Kiv::SortedPrefixInfo', ** {'vrfPrefix': " + valueToStrep(v.vrfPrefix()) +
          ", 'routeType': " + valueToStrep(v.routeType()) + "})";
}

std::ostream& operator<<(std::ostream& os, const SortedPrefixInfo& v) {
   return os << valueToStrep(v);
}

// ---- The snapshot ----

Zop::Ptr<SortedSegmentPrefix> SortedVrfRouteInfo::sortedPrefix(
    const Zop::String& segmentName) const {
   auto it = sortedPrefix_.find(segmentName);
   return it == sortedPrefix_.end() ? nullptr : it->second;
}

Zop::Ptr<SortedVrfRouteInfo> SortedSegmentRouteInfo::sortedVrf(VrfId vrfId) const {
   auto it = sortedVrf_.find(vrfId);
   return it == sortedVrf_.end() ? nullptr : it->second;
}

Zop::Ptr<SortedSegmentRouteInfo> sortedSegmentRouteInfoFactory() {
   return Zop::makePtr<SortedSegmentRouteInfo>();
}

Zop::Ptr<SortedVrfRouteInfo> sortedVrfRouteInfoFactory(VrfId vrfId) {
   return Zop::makePtr<SortedVrfRouteInfo>(vrfId);
}

Zop::Ptr<SortedSegmentPrefix> sortedSegmentPrefixFactory(const Zop::String& segmentName) {
   return Zop::makePtr<SortedSegmentPrefix>(segmentName);
}

namespace {

Zop::Ptr<SortedVrfRouteInfo> sortedVrfFor(const Zop::Ptr<SortedSegmentRouteInfo>& sorted,
                                          VrfId vrfId) {
   Zop::Ptr<SortedVrfRouteInfo> vrf = sorted->sortedVrf(vrfId);
   if (!vrf) {
      vrf = sortedVrfRouteInfoFactory(vrfId);
      sorted->sortedVrfIs(vrf);
   }
   return vrf;
}

Zop::Ptr<SortedSegmentPrefix> sortedSegmentFor(const Zop::Ptr<SortedVrfRouteInfo>& vrf,
                                               const Zop::String& segmentName) {
   Zop::Ptr<SortedSegmentPrefix> segment = vrf->sortedPrefix(segmentName);
   if (!segment) {
      segment = sortedSegmentPrefixFactory(segmentName);
      vrf->sortedPrefixIs(segment);
   }
   return segment;
}

}  // namespace

Zop::Ptr<SortedSegmentPrefix> getSortedPrefixListForSegment(
    const Zop::Ptr<SortedSegmentRouteInfo>& sorted,
    const Zop::Ptr<const SegmentIdResponse>& hwIdStatus, VrfId vrfId, SegmentHwId hwId) {
   const SegmentIdRequestKey* key = hwIdStatus->hwIdKey(hwId);
   Zop::Ptr<SortedVrfRouteInfo> vrfRoutes = sorted->sortedVrf(vrfId);
   ZOP_ASSERT_FN(vrfRoutes, "VRF entry for sorted routes not found", kSource,
                 "getSortedPrefixListForSegment");
   if (!key) {
      return nullptr;
   }
   return sortedSegmentFor(vrfRoutes, key->segment());
}

void getSortedSegmentPrefixInfo(const Zop::Ptr<SortedSegmentRouteInfo>& sorted,
                                const Zop::Ptr<const SegmentIdResponse>& hwIdStatus,
                                const Zop::Ptr<const KivSegmentRouteInfoColl>& routeInfo,
                                const Zop::Ptr<const L3Status>& l3Status,
                                const Zop::Ptr<const Firewall::HwConfig>& fwConfig) {
   // Programmed prefixes.
   for (const auto& [key, info] : routeInfo->routeInfo()) {
      Zop::Ptr<SortedVrfRouteInfo> vrf = sortedVrfFor(sorted, key.vrfId());
      if (const SegmentIdRequestKey* owner = hwIdStatus->hwIdKey(info.hwId())) {
         sortedSegmentFor(vrf, owner->segment())
             ->programmedPrefixIs(SortedPrefixInfo(key, routeTypeSegmentOnly), true);
      }
   }
   // Configured prefixes.
   for (const auto& [vrfName, fwVrf] : fwConfig->vrf()) {
      const VrfId* vrfId = l3Status->vrfId(vrfName);
      if (!vrfId) {
         continue;
      }
      Zop::Ptr<SortedVrfRouteInfo> vrf = sortedVrfFor(sorted, *vrfId);
      for (const auto& [prefix, segmentName] : fwVrf->prefixList()) {
         sortedSegmentFor(vrf, segmentName)->configuredPrefixInc(1);
      }
   }
   // Segments with an id, listed even without a prefix.
   for (const auto& [key, status] : hwIdStatus->status()) {
      if (!l3Status->vrfNameHas(key.vrfId())) {
         continue;
      }
      sortedSegmentFor(sortedVrfFor(sorted, key.vrfId()), key.segment());
   }
}

// ---- Printers ----

void showSegmentHardwareRouteLegend(lumo::Printer& printer) {
   printer.addFrills("Codes: S - Segment prefix\n");
   printer.addFrills("       F - FIB route\n");
   printer.addFrills("       S,F - Segment prefix which is also present in FIB\n");
}

void showSegmentHardwareSummaryHeader(lumo::Printer& printer, const Zop::String& vrfName) {
   printer.addFrills("\nVRF: %s\n", vrfName.c_str());
   printer.addFrills("%-20s %-15s %-10s %-15s\n", "Segment", "Hardware ID", "Prefixes",
                     "Programmed");
   underline(printer, {20, 15, 10, 15});
}

void showSegmentHardwareDetailHeader(lumo::Printer& printer, const Zop::String& vrfName) {
   // No blank line before this one, unlike the other two headers.
   printer.addFrills("VRF: %s\n", vrfName.c_str());
   printer.addFrills("%-20s %-15s %-39s %-15s\n", "Segment", "Hardware ID", "Prefixes",
                     "Adj Index");
   underline(printer, {20, 15, 39, 15});
}

void showSegmentHardwareRoutesHeader(lumo::Printer& printer, const Zop::String& vrfName) {
   printer.addFrills("\nVRF: %s\n", vrfName.c_str());
   printer.addFrills("%-20s %-15s %-39s %-10s\n", "Segment", "Hardware ID", "Routes", "Route Type");
   underline(printer, {20, 15, 39, 10});
}

void showSegmentHardwareSummary(lumo::Printer& printer, VrfId vrfId, const Zop::String& segmentName,
                                const Zop::Ptr<SortedSegmentRouteInfo>& sorted,
                                const Zop::Ptr<const SegmentIdResponse>& hwIdStatus,
                                const Zop::Ptr<const Firewall::HwConfig>&,
                                const Zop::Ptr<const L3Status>& l3Status) {
   auto view = resolveSegment(vrfId, segmentName, sorted, hwIdStatus, l3Status);
   if (!view) {
      return;
   }
   const uint32_t hwId = view->hwId.value();
   const uint32_t configured = view->segment->configuredPrefix();
   const auto programmed = uint32_t(view->segment->programmedPrefix().size());
   printer.addFrills("%-20s %-15u %-10u %-15u\n", segmentName.c_str(), hwId, configured,
                     programmed);
   printer.startDictEntry(lumo::StrAttr{"segmentName", segmentName});
   printer.addAttributesJson({lumo::U32Attr{"hardwareId", hwId},
                              lumo::U32Attr{"prefixesConfigured", configured},
                              lumo::U32Attr{"prefixesProgrammed", programmed}});
   printer.endDictEntry();
}

void showSegmentHardwareDetail(lumo::Printer& printer, VrfId vrfId, const Zop::String& segmentName,
                               const Zop::Ptr<SortedSegmentRouteInfo>& sorted,
                               const Zop::Ptr<const SegmentIdResponse>& hwIdStatus,
                               const Zop::Ptr<const KivSegmentRouteInfoColl>& routeInfo,
                               const Zop::Ptr<const L3Status>& l3Status) {
   auto view = resolveSegment(vrfId, segmentName, sorted, hwIdStatus, l3Status);
   if (!view) {
      return;
   }
   const uint32_t hwId = view->hwId.value();
   showSegmentPrefixes(
       printer, segmentName, *view, "%-20s %-15u %-39s %-15llu\n", "%-20s %-15s %-39s %-15llu\n",
       [&](const SortedPrefixInfo& info, const Zop::String& prefix, const char*, bool first) {
          const KivSegmentRouteInfo* record = routeInfo->routeInfoFind(info.vrfPrefix());
          const uint64_t adj = record ? record->routeInfo().adjIndex() : 0;
          if (first) {
             printer.addFrills("%-20s %-15u %-39s %-15llu\n", segmentName.c_str(), hwId,
                               prefix.c_str(), static_cast<unsigned long long>(adj));
          } else {
             printer.addFrills("%-20s %-15s %-39s %-15llu\n", "", "", prefix.c_str(),
                               static_cast<unsigned long long>(adj));
          }
          // A prefix recorded with no route of its own (waiting for the
          // resolver's answer, or for a withdrawn FIB route's entry to go) is
          // not in hardware: said under its row and in its entry, the rows
          // keeping their format.
          const bool notInHardware =
              record && record->routeInfo().routeType() == RouteType::routeTypeInvalid;
          if (notInHardware) {
             printer.addFrills("%-20s %-15s %s\n", "", "", "(recorded, not in hardware)");
          }
          printer.startDictEntry(lumo::StrAttr{"prefix", prefix});
          if (notInHardware) {
             printer.addAttributesJson(
                 {lumo::U64Attr{"l2AdjIndex", adj}, lumo::StrAttr{"hardware", "not installed"}});
          } else {
             printer.addAttributesJson({lumo::U64Attr{"l2AdjIndex", adj}});
          }
          printer.endDictEntry();
       });
}

void showSegmentHardwareRoutes(lumo::Printer& printer, VrfId vrfId, const Zop::String& segmentName,
                               const Zop::Ptr<SortedSegmentRouteInfo>& sorted,
                               const Zop::Ptr<const SegmentIdResponse>& hwIdStatus,
                               const Zop::Ptr<const KivSegmentRouteInfoColl>&,
                               const Zop::Ptr<const L3Status>& l3Status) {
   auto view = resolveSegment(vrfId, segmentName, sorted, hwIdStatus, l3Status);
   if (!view) {
      return;
   }
   const uint32_t hwId = view->hwId.value();
   showSegmentPrefixes(
       printer, segmentName, *view, "%-20s %-15u %-39s %-10s\n", "%-20s %-15s %-39s %-10s\n",
       [&](const SortedPrefixInfo& info, const Zop::String& prefix, const char*, bool first) {
          const char* letter = segmentRouteTypeLetter(info.routeType());
          if (first) {
             printer.addFrills("%-20s %-15u %-39s %-10s\n", segmentName.c_str(), hwId,
                               prefix.c_str(), letter);
          } else {
             printer.addFrills("%-20s %-15s %-39s %-10s\n", "", "", prefix.c_str(), letter);
          }
          printer.startDictEntry(lumo::StrAttr{"prefix", prefix});
          printer.addAttributesJson({lumo::StrAttr{"routeType", letter}});
          printer.endDictEntry();
       });
}

namespace {

template <class ShowSegment>
void forEachSegment(VrfId vrfId, const Zop::Ptr<SortedSegmentRouteInfo>& sorted,
                    ShowSegment&& show) {
   Zop::Ptr<SortedVrfRouteInfo> vrf = sorted->sortedVrf(vrfId);
   if (!vrf) {
      return;
   }
   for (const auto& [name, segment] : vrf->sortedPrefix()) {
      show(name);
   }
}

}  // namespace

void showVrfHardwareSummary(lumo::Printer& printer, VrfId vrfId,
                            const Zop::Ptr<SortedSegmentRouteInfo>& sorted,
                            const Zop::Ptr<const SegmentIdResponse>& hwIdStatus,
                            const Zop::Ptr<const Firewall::HwConfig>& fwConfig,
                            const Zop::Ptr<const L3Status>& l3Status) {
   forEachSegment(vrfId, sorted, [&](const Zop::String& name) {
      showSegmentHardwareSummary(printer, vrfId, name, sorted, hwIdStatus, fwConfig, l3Status);
   });
}

void showVrfHardwareDetail(lumo::Printer& printer, VrfId vrfId,
                           const Zop::Ptr<SortedSegmentRouteInfo>& sorted,
                           const Zop::Ptr<const SegmentIdResponse>& hwIdStatus,
                           const Zop::Ptr<const KivSegmentRouteInfoColl>& routeInfo,
                           const Zop::Ptr<const L3Status>& l3Status) {
   forEachSegment(vrfId, sorted, [&](const Zop::String& name) {
      showSegmentHardwareDetail(printer, vrfId, name, sorted, hwIdStatus, routeInfo, l3Status);
   });
}

void showVrfHardwareRoutes(lumo::Printer& printer, VrfId vrfId,
                           const Zop::Ptr<SortedSegmentRouteInfo>& sorted,
                           const Zop::Ptr<const SegmentIdResponse>& hwIdStatus,
                           const Zop::Ptr<const KivSegmentRouteInfoColl>& routeInfo,
                           const Zop::Ptr<const L3Status>& l3Status) {
   forEachSegment(vrfId, sorted, [&](const Zop::String& name) {
      showSegmentHardwareRoutes(printer, vrfId, name, sorted, hwIdStatus, routeInfo, l3Status);
   });
}

// ---- Counters ----

void reconcileSnapshotCounters(const Zop::Ptr<const Firewall::Counters>& fwCounters,
                               const Zop::Ptr<Firewall::Counters>& snapshot, bool reset) {
   std::vector<L3::VrfName> vrfs;
   for (const auto& [name, vrf] : snapshot->vrf()) {
      vrfs.push_back(name);
   }
   for (const L3::VrfName& vrfName : vrfs) {
      Zop::Ptr<Firewall::VrfCounters> liveVrf = fwCounters->vrf(vrfName);
      if (!liveVrf) {
         TRACE5_FN("reconcileSnapshotCounters", " Removing vrf: " << vrfName);
         snapshot->vrfDel(vrfName);
         continue;
      }
      const Zop::Ptr<Firewall::CountersDir>& live = liveVrf->countersDir();
      const Zop::Ptr<Firewall::CountersDir>& dir = snapshot->vrf(vrfName)->countersDir();

      std::vector<Zop::String> policies;
      for (const auto& [name, p] : dir->policy()) {
         policies.push_back(name);
      }
      for (const Zop::String& name : policies) {
         Zop::Ptr<Firewall::PolicyCounters> livePolicy = live->policy(name);
         if (!livePolicy) {
            TRACE5_FN("reconcileSnapshotCounters", " Removing policy: " << name);
            dir->policyDel(name);
         } else if (reset) {
            Zop::Ptr<Firewall::PolicyCounters> p = dir->policy(name);
            p->hitCountIs(livePolicy->hitCount());
            p->dropCountIs(livePolicy->dropCount());
         }
      }

      std::vector<Zop::String> groups;
      for (const auto& [name, g] : dir->segment()) {
         groups.push_back(name);
      }
      for (const Zop::String& dst : groups) {
         Zop::Ptr<Firewall::SegmentCountersGroup> liveGroup = live->segment(dst);
         if (!liveGroup) {
            TRACE5_FN("reconcileSnapshotCounters", " Removing segment: " << dst);
            dir->segmentDel(dst);
            continue;
         }
         Zop::Ptr<Firewall::SegmentCountersGroup> group = dir->segment(dst);
         if (reset) {
            group->defaultDropIs(liveGroup->defaultDrop());
         }
         std::vector<Zop::String> sources;
         for (const auto& [name, s] : group->segmentCounters()) {
            sources.push_back(name);
         }
         for (const Zop::String& src : sources) {
            Zop::Ptr<Firewall::SegmentCounters> liveSrc = liveGroup->segmentCounters(src);
            if (!liveSrc) {
               TRACE5_FN("reconcileSnapshotCounters", " Removing source segment: " << src);
               group->segmentCountersDel(src);
            } else if (reset) {
               Zop::Ptr<Firewall::SegmentCounters> s = group->segmentCounters(src);
               s->hitCountIs(liveSrc->hitCount());
               s->dropCountIs(liveSrc->dropCount());
            }
         }
      }
   }
}

namespace {

// Live minus baseline; a live count below its baseline (reset or wrapped
// since) is shown whole.
uint64_t countDelta(uint64_t live, uint64_t base) {
   return live >= base ? live - base : live;
}

Zop::String pairPolicy(const Zop::Ptr<const Firewall::HwConfig>& fwConfig,
                       const L3::VrfName& vrfName, const Zop::String& dst, const Zop::String& src) {
   if (fwConfig) {
      if (Zop::Ptr<Firewall::FwVrf> vrf = fwConfig->vrf(vrfName)) {
         if (Zop::Ptr<Firewall::FwSegment> segment = vrf->segment(dst)) {
            if (const Zop::String* policy = segment->sourceSegment(src)) {
               return *policy;
            }
         }
      }
   }
   return "n/a";
}

void segmentRow(lumo::Printer& printer, const Zop::String& dst, const Zop::String& src,
                const Zop::String& policy, uint64_t hits, uint64_t drops) {
   // Counts go out as 32-bit values: the low 32 bits are shown.
   const auto h = uint32_t(hits);
   const auto d = uint32_t(drops);
   printer.addFrills("%-20s %-20s %-20s %-10u %-10u\n", dst.c_str(), src.c_str(), policy.c_str(), h,
                     d);
   printer.startDictEntry(lumo::StrAttr{"SrcSegment", src});
   printer.addAttributesJson(
       {lumo::StrAttr{"policyName", policy}, lumo::U32Attr{"hits", h}, lumo::U32Attr{"drops", d}});
   printer.endDictEntry();
}

}  // namespace

void showVrfHardwareCounters(lumo::Printer& printer, const L3::VrfName& vrfName,
                             const Zop::Ptr<const Firewall::Counters>& counters,
                             const Zop::Ptr<const Firewall::HwConfig>& fwConfig) {
   printer.addFrills("VRF: %s\n", vrfName.value().c_str());
   Zop::Ptr<Firewall::VrfCounters> vrf = counters->vrf(vrfName);
   if (!vrf) {
      return;
   }
   const Zop::Ptr<Firewall::CountersDir>& dir = vrf->countersDir();

   printer.addFrills("%-20s %-10s %-10s\n", "Policy", "Hit", "Drop");
   underline(printer, {20, 10, 10});
   printer.startDict("policies");
   for (const auto& [name, policy] : dir->policy()) {
      const auto hits = uint32_t(policy->hitCount());
      const auto drops = uint32_t(policy->dropCount());
      printer.addFrills("%-20s %-10u %-10u\n", name.c_str(), hits, drops);
      printer.startDictEntry(lumo::StrAttr{"policy", name});
      printer.addAttributesJson({lumo::U32Attr{"hits", hits}, lumo::U32Attr{"drops", drops}});
      printer.endDictEntry();
   }
   printer.endDict();

   printer.addFrills("\n%-20s %-20s %-20s %-10s %-10s\n", "Dest Segment", "Source Segment",
                     "Policy", "Hit", "Drop");
   underline(printer, {20, 20, 20, 10, 10});
   printer.startDict("destinationSegments");
   for (const auto& [dst, group] : dir->segment()) {
      printer.startDictEntry(lumo::StrAttr{"DestSegment", dst});
      printer.startDict("sourceSegments");
      segmentRow(printer, dst, "*", "n/a", 0, group->defaultDrop());
      for (const auto& [src, counts] : group->segmentCounters()) {
         segmentRow(printer, dst, src, pairPolicy(fwConfig, vrfName, dst, src), counts->hitCount(),
                    counts->dropCount());
      }
      printer.endDict();
      printer.endDictEntry();
   }
   printer.endDict();
}

// ---- The detail and routes walk ----

namespace {

// The walk both resumable commands share; `header`, `showSegment` and
// `showVrf` print their own command's pieces, `legend` prints the routes
// legend (nothing for detail).
struct VrfWalk {
   AsyncCommandSm& sm;
   const Zop::Ptr<const L3Status>& l3Status;
   const Zop::String& vrfName;
   const Zop::String& segmentName;
   Zop::Ptr<SortedSegmentRouteInfo>& sortedData;
   Zop::Ptr<SortedVrfRouteInfo>& vrfBookmark;
   // The summary walks everything in one run.
   bool mayYield = true;

   template <class Legend, class Header, class ShowSegment, class ShowVrf>
   void run(Legend&& legend, Header&& header, ShowSegment&& showSegment, ShowVrf&& showVrf) {
      lumo::Printer& p = sm.printer();
      if (!vrfName.empty()) {
         p.startDictEntry(lumo::StrAttr{"vrf", vrfName});
         p.startDict("segments");
         legend();
         if (const VrfId* vrfId = requestVrfId(l3Status, vrfName)) {
            header(vrfName);
            if (!segmentName.empty()) {
               showSegment(*vrfId, segmentName);
            } else {
               showVrf(*vrfId);
            }
         }
         p.endDict();
         p.endDictEntry();
         complete();
         return;
      }

      const auto& vrfs = sortedData->sortedVrf();
      auto it = vrfs.end();
      // A run that starts at the bookmark prints that VRF again; it must not
      // yield before it has printed one more, or a command whose every VRF
      // fills the output buffer would never end.
      const bool resumed = bool(vrfBookmark);
      if (!resumed) {
         if (vrfs.empty()) {
            complete();
            return;
         }
         it = vrfs.begin();
         vrfBookmark = it->second;
         legend();
      } else {
         it = vrfs.lower_bound(vrfBookmark->vrfId());
      }
      const auto start = it;
      for (; it != vrfs.end(); ++it) {
         vrfBookmark = it->second;
         const VrfId vrfId = it->first;
         if (l3Status->vrfNameHas(vrfId)) {
            const Zop::String name = l3Status->vrfName(vrfId).value();
            header(name);
            p.startDictEntry(lumo::StrAttr{"vrf", name});
            p.startDict("segments");
            showVrf(vrfId);
            p.endDict();
            p.endDictEntry();
         }
         const bool madeProgress = !resumed || it != start;
         if (mayYield && madeProgress && std::next(it) != vrfs.end() && sm.shouldYield()) {
            p.ioflush();
            return;
         }
      }
      complete();
   }

   void complete() {
      lumo::Printer& p = sm.printer();
      sm.executionCompletedIs(true);
      p.endDict();
      p.end();
      p.ioflush();
   }
};

}  // namespace

// ---- ShowSegmentPrefixInfoSm ----

ShowSegmentPrefixInfoSm::ShowSegmentPrefixInfoSm(
    const Zop::String& name, const Zop::Ptr<Agent::AgentCommandRequest>& request, double timeValue,
    const Zop::Ptr<Zop::Clock>& clock, const Zop::Ptr<const KivSegmentRouteInfoColl>& routeInfo,
    const Zop::Ptr<const SegmentIdResponse>& hwIdStatus, const Zop::Ptr<const L3Status>& l3Status,
    const Zop::Ptr<const Firewall::HwConfig>& fwConfig, const Zop::String& vrfName,
    const Zop::String& segmentName)
    : AsyncCommandSm(name, request, timeValue, clock),
      routeInfo_(routeInfo),
      hwIdStatus_(hwIdStatus),
      l3Status_(l3Status),
      fwConfig_(fwConfig),
      vrfName_(vrfName),
      segmentName_(segmentName) {}

// ---- ShowSegmentHardwareSummarySm ----

void ShowSegmentHardwareSummarySm::handleInitialized() {
   TRACE8_FN("void Kiv::ShowSegmentHardwareSummarySm::handleInitialized()",
             " VrfName: " << vrfName_ << " segmentName: " << segmentName_);
   initializeSm();
}

void ShowSegmentHardwareSummarySm::handleAsyncCommand() {
   TRACE8_FN("virtual void Kiv::ShowSegmentHardwareSummarySm::handleAsyncCommand()");
   lumo::Printer& p = printer();
   p.start();
   // Built and dropped within the one run.
   Zop::Ptr<SortedSegmentRouteInfo> sorted = sortedSegmentRouteInfoFactory();
   Zop::Ptr<SortedVrfRouteInfo> bookmark;
   getSortedSegmentPrefixInfo(sorted, hwIdStatus_, routeInfo_, l3Status_, fwConfig_);
   p.startDict("vrfs");
   VrfWalk walk{*this, l3Status_, vrfName_, segmentName_, sorted, bookmark, false};
   walk.run([] {}, [&](const Zop::String& name) { showSegmentHardwareSummaryHeader(p, name); },
            [&](VrfId vrfId, const Zop::String& segment) {
               showSegmentHardwareSummary(p, vrfId, segment, sorted, hwIdStatus_, fwConfig_,
                                          l3Status_);
            },
            [&](VrfId vrfId) {
               showVrfHardwareSummary(p, vrfId, sorted, hwIdStatus_, fwConfig_, l3Status_);
            });
}

// ---- ShowSegmentHardwareDetailSm ----

void ShowSegmentHardwareDetailSm::handleInitialized() {
   TRACE8_FN("void Kiv::ShowSegmentHardwareDetailSm::handleInitialized()",
             " VrfName: " << vrfName_ << " segmentName: " << segmentName_);
   initializeSm();
}

void ShowSegmentHardwareDetailSm::handleAsyncCommand() {
   TRACE8_FN("virtual void Kiv::ShowSegmentHardwareDetailSm::handleAsyncCommand()");
   lumo::Printer& p = printer();
   if (continuationState() == ContinuationState::initial) {
      p.start();
      vrfBookmark_ = nullptr;
      sortedData_ = sortedSegmentRouteInfoFactory();
      getSortedSegmentPrefixInfo(sortedData_, hwIdStatus_, routeInfo_, l3Status_, fwConfig_);
      p.startDict("vrfs");
   }
   VrfWalk walk{*this, l3Status_, vrfName_, segmentName_, sortedData_, vrfBookmark_};
   walk.run([] {}, [&](const Zop::String& name) { showSegmentHardwareDetailHeader(p, name); },
            [&](VrfId vrfId, const Zop::String& segment) {
               showSegmentHardwareDetail(p, vrfId, segment, sortedData_, hwIdStatus_, routeInfo_,
                                         l3Status_);
            },
            [&](VrfId vrfId) {
               showVrfHardwareDetail(p, vrfId, sortedData_, hwIdStatus_, routeInfo_, l3Status_);
            });
}

// ---- ShowSegmentHardwareRoutesSm ----

ShowSegmentHardwareRoutesSm::ShowSegmentHardwareRoutesSm(
    const Zop::String& name, const Zop::Ptr<Agent::AgentCommandRequest>& request, double timeValue,
    const Zop::Ptr<Zop::Clock>& clock, const Zop::Ptr<const KivSegmentRouteInfoColl>& routeInfo,
    const Zop::Ptr<const SegmentIdResponse>& hwIdStatus, const Zop::Ptr<const L3Status>& l3Status,
    const Zop::String& vrfName, const Zop::String& segmentName,
    const Zop::Ptr<KivSegmentRouteHelper>& segmentRouteHelper,
    const Zop::Ptr<const RouteReactorStatus>& routeStatus,
    const Zop::Ptr<const Route6ReactorStatus>& route6Status,
    const Zop::Ptr<const KivVrfFibRouteCollection>& vrfFibRouteDb,
    const Zop::Ptr<const KivVrfFibRoute6Collection>& vrfFibRoute6Db)
    : AsyncCommandSm(name, request, timeValue, clock),
      routeInfo_(routeInfo),
      hwIdStatus_(hwIdStatus),
      l3Status_(l3Status),
      vrfName_(vrfName),
      segmentName_(segmentName),
      segmentRouteHelper_(segmentRouteHelper),
      routeStatus_(routeStatus),
      route6Status_(route6Status),
      vrfFibRouteDb_(vrfFibRouteDb),
      vrfFibRoute6Db_(vrfFibRoute6Db) {}

void ShowSegmentHardwareRoutesSm::handleInitialized() {
   TRACE8_FN("void Kiv::ShowSegmentHardwareRoutesSm::handleInitialized()",
             " VrfName: " << vrfName_ << " segmentName: " << segmentName_);
   initializeSm();
}

bool ShowSegmentHardwareRoutesSm::inFib(const VrfAndIpGenPrefix& key) const {
   if (key.prefix().isIpv4()) {
      return vrfFibRouteDb_->fibRouteHas(VrfAndPrefix(key.vrfId(), key.prefix().v4()));
   }
   return vrfFibRoute6Db_->fibRouteHas(VrfAndIp6Prefix(key.vrfId(), key.prefix().v6()));
}

void ShowSegmentHardwareRoutesSm::getSortedRoutes(const Zop::Ptr<SortedSegmentRouteInfo>& sorted) {
   // Segment prefixes.
   for (const auto& [key, info] : routeInfo_->routeInfo()) {
      sortedVrfFor(sorted, key.vrfId());
      Zop::Ptr<SortedSegmentPrefix> list =
          getSortedPrefixListForSegment(sorted, hwIdStatus_, key.vrfId(), info.hwId());
      if (!list) {
         continue;
      }
      const SegmentRouteType type = inFib(key) ? routeTypeSegmentAndFib : routeTypeSegmentOnly;
      list->programmedPrefixIs(SortedPrefixInfo(key, type), true);
   }
   // FIB routes inside segment prefixes. A FIB route inside a nested segment
   // prefix is also inside the outer one, and the lists are sets, so walking
   // the outermost segment prefixes alone collects the same routes, each once.
   // In key order, a prefix's cover comes before it.
   std::vector<VrfAndIpGenPrefix> keys;
   keys.reserve(routeInfo_->routeInfoCount());
   for (const auto& [key, info] : routeInfo_->routeInfo()) {
      keys.push_back(key);
   }
   std::sort(keys.begin(), keys.end());
   const VrfAndIpGenPrefix* outer = nullptr;
   for (const VrfAndIpGenPrefix& key : keys) {
      if (outer && outer->vrfId() == key.vrfId() && outer->prefix().contains(key.prefix())) {
         continue;
      }
      outer = &key;
      const VrfId vrfId = key.vrfId();
      auto routes = vrfPrefixCollectionFactory();
      if (key.prefix().isIpv4()) {
         Zop::Ptr<const Routing::Trie> fibTrie = routeStatus_->fibTrie(vrfId);
         if (!fibTrie && !l3Status_->vrfNameHas(vrfId)) {
            continue;  // The VRF is gone, and its FIB routes with it.
         }
         ZOP_ASSERT_FN(fibTrie, " Fib trie does not exist ", kSource, "getSortedRoutes");
         getV4FibRoutes(vrfId, key.prefix(), key.prefix(), routeInfo_, routes, fibTrie);
      } else {
         Zop::Ptr<const Routing6::Trie> fibTrie = route6Status_->fibTrie(vrfId);
         if (!fibTrie && !l3Status_->vrfNameHas(vrfId)) {
            continue;
         }
         ZOP_ASSERT_FN(fibTrie, " Fib trie does not exist ", kSource, "getSortedRoutes");
         getV6FibRoutes(vrfId, key.prefix(), key.prefix(), routeInfo_, routes, fibTrie);
      }
      for (const VrfAndIpGenPrefix& route : routes->vrfIpGenPrefix()) {
         const SegmentHwId hwId = segmentRouteHelper_->getHardwareId(route);
         TRACE8_FN("getSortedRoutes", " Fib route: " << route << " " << hwId);
         Zop::Ptr<SortedSegmentPrefix> list =
             getSortedPrefixListForSegment(sorted, hwIdStatus_, vrfId, hwId);
         if (!list) {
            continue;
         }
         const SegmentRouteType type =
             routeInfo_->routeInfoHas(route) ? routeTypeSegmentAndFib : routeTypeFibOnly;
         list->programmedPrefixIs(SortedPrefixInfo(route, type), true);
      }
   }
}

void ShowSegmentHardwareRoutesSm::handleAsyncCommand() {
   TRACE8_FN("virtual void Kiv::ShowSegmentHardwareRoutesSm::handleAsyncCommand()");
   lumo::Printer& p = printer();
   if (continuationState() == ContinuationState::initial) {
      p.start();
      vrfBookmark_ = nullptr;
      sortedData_ = sortedSegmentRouteInfoFactory();
      getSortedRoutes(sortedData_);
      p.startDict("vrfs");
   }
   VrfWalk walk{*this, l3Status_, vrfName_, segmentName_, sortedData_, vrfBookmark_};
   walk.run([&] { showSegmentHardwareRouteLegend(p); },
            [&](const Zop::String& name) { showSegmentHardwareRoutesHeader(p, name); },
            [&](VrfId vrfId, const Zop::String& segment) {
               showSegmentHardwareRoutes(p, vrfId, segment, sortedData_, hwIdStatus_, routeInfo_,
                                         l3Status_);
            },
            [&](VrfId vrfId) {
               showVrfHardwareRoutes(p, vrfId, sortedData_, hwIdStatus_, routeInfo_, l3Status_);
            });
}

// ---- ShowSegmentHardwareCountersSm ----

ShowSegmentHardwareCountersSm::ShowSegmentHardwareCountersSm(
    const Zop::String& name, const Zop::Ptr<Agent::AgentCommandRequest>& request, double timeValue,
    const Zop::Ptr<Zop::Clock>& clock, const Zop::Ptr<const L3Status>& l3Status,
    const Zop::Ptr<const Firewall::Counters>& fwCounters,
    const Zop::Ptr<Firewall::Counters>& snapshot, const Zop::String& vrfName,
    const Zop::Ptr<const Firewall::HwConfig>& fwConfig)
    : AsyncCommandSm(name, request, timeValue, clock),
      l3Status_(l3Status),
      fwCounters_(fwCounters),
      snapshot_(snapshot),
      vrfName_(vrfName),
      fwConfig_(fwConfig) {}

void ShowSegmentHardwareCountersSm::handleInitialized() {
   TRACE8_FN("void Kiv::ShowSegmentHardwareCountersSm::handleInitialized()",
             " VrfName: " << vrfName_);
   initializeSm();
}

void ShowSegmentHardwareCountersSm::getCountersDelta(const Zop::Ptr<Firewall::Counters>& delta) {
   for (const auto& [vrfName, liveVrf] : fwCounters_->vrf()) {
      const Zop::Ptr<Firewall::CountersDir>& live = liveVrf->countersDir();
      const Zop::Ptr<Firewall::CountersDir>& base = snapshot_->vrfIs(vrfName)->countersDir();
      const Zop::Ptr<Firewall::CountersDir>& out = delta->vrfIs(vrfName)->countersDir();
      for (const auto& [name, livePolicy] : live->policy()) {
         Zop::Ptr<Firewall::PolicyCounters> b = base->policyIs(name);
         Zop::Ptr<Firewall::PolicyCounters> d = out->policyIs(name);
         d->hitCountIs(countDelta(livePolicy->hitCount(), b->hitCount()));
         d->dropCountIs(countDelta(livePolicy->dropCount(), b->dropCount()));
      }
      for (const auto& [dst, liveGroup] : live->segment()) {
         Zop::Ptr<Firewall::SegmentCountersGroup> b = base->segmentIs(dst);
         Zop::Ptr<Firewall::SegmentCountersGroup> d = out->segmentIs(dst);
         d->defaultDropIs(countDelta(liveGroup->defaultDrop(), b->defaultDrop()));
         for (const auto& [src, liveSrc] : liveGroup->segmentCounters()) {
            Zop::Ptr<Firewall::SegmentCounters> bs = b->segmentCountersIs(src);
            Zop::Ptr<Firewall::SegmentCounters> ds = d->segmentCountersIs(src);
            ds->hitCountIs(countDelta(liveSrc->hitCount(), bs->hitCount()));
            ds->dropCountIs(countDelta(liveSrc->dropCount(), bs->dropCount()));
         }
      }
   }
}

void ShowSegmentHardwareCountersSm::handleAsyncCommand() {
   TRACE8_FN("virtual void Kiv::ShowSegmentHardwareCountersSm::handleAsyncCommand()");
   lumo::Printer& p = printer();
   p.start();
   reconcileSnapshotCounters(fwCounters_, snapshot_, false);
   Zop::Ptr<Firewall::Counters> delta = Firewall::countersFactory("delta");
   getCountersDelta(delta);
   p.startDict("vrfs");
   if (!vrfName_.empty()) {
      p.startDictEntry(lumo::StrAttr{"vrf", vrfName_});
      if (const VrfId* vrfId = requestVrfId(l3Status_, vrfName_)) {
         (void)vrfId;
         showVrfHardwareCounters(p, L3::VrfName(vrfName_), delta, fwConfig_);
      }
      p.endDictEntry();
   } else {
      for (const auto& [vrfName, vrf] : delta->vrf()) {
         if (!l3Status_->vrfId(vrfName)) {
            continue;
         }
         p.startDictEntry(lumo::StrAttr{"vrf", vrfName.value()});
         showVrfHardwareCounters(p, vrfName, delta, fwConfig_);
         p.endDictEntry();
      }
   }
   executionCompletedIs(true);
   p.endDict();
   p.end();
   p.ioflush();
}

// ---- ClearSegmentHardwareCountersSm ----

ClearSegmentHardwareCountersSm::ClearSegmentHardwareCountersSm(
    const Zop::String& name, const Zop::Ptr<Agent::AgentCommandRequest>& request, double timeValue,
    const Zop::Ptr<Zop::Clock>& clock, const Zop::Ptr<const Firewall::Counters>& fwCounters,
    const Zop::Ptr<Firewall::Counters>& snapshot)
    : AsyncCommandSm(name, request, timeValue, clock),
      fwCounters_(fwCounters),
      snapshot_(snapshot) {}

void ClearSegmentHardwareCountersSm::handleInitialized() {
   TRACE8_FN("void Kiv::ClearSegmentHardwareCountersSm::handleInitialized()");
   initializeSm();
}

void ClearSegmentHardwareCountersSm::handleAsyncCommand() {
   TRACE8_FN("virtual void Kiv::ClearSegmentHardwareCountersSm::handleAsyncCommand()");
   reconcileSnapshotCounters(fwCounters_, snapshot_, true);
   executionCompletedIs(true);
}

// ---- KivSegmentCliCallbackWithFormat ----

KivSegmentCliCallbackWithFormat::KivSegmentCliCallbackWithFormat(
    const Zop::String& agentName, const Zop::String& callbackName,
    const Zop::Ptr<const Firewall::Counters>& fwCounters,
    const Zop::Ptr<Firewall::Counters>& snapshot,
    const Zop::Ptr<const KivSegmentRouteInfoColl>& routeInfo,
    const Zop::Ptr<const SegmentIdResponse>& hwIdStatus, const Zop::Ptr<const L3Status>& l3Status,
    const Zop::Ptr<const Firewall::HwConfig>& fwConfig,
    const Zop::Ptr<KivSegmentRouteHelper>& segmentRouteHelper,
    const Zop::Ptr<const RouteReactorStatus>& routeStatus,
    const Zop::Ptr<const Route6ReactorStatus>& route6Status,
    const Zop::Ptr<const KivVrfFibRouteCollection>& vrfFibRouteDb,
    const Zop::Ptr<const KivVrfFibRoute6Collection>& vrfFibRoute6Db,
    const Zop::Ptr<Zop::Clock>& clock)
    : AgentCommandCallbackWithFormat(agentName, callbackName),
      fwCounters_(fwCounters),
      snapshot_(snapshot),
      routeInfo_(routeInfo),
      hwIdStatus_(hwIdStatus),
      l3Status_(l3Status),
      fwConfig_(fwConfig),
      segmentRouteHelper_(segmentRouteHelper),
      routeStatus_(routeStatus),
      route6Status_(route6Status),
      vrfFibRouteDb_(vrfFibRouteDb),
      vrfFibRoute6Db_(vrfFibRoute6Db),
      clock_(clock) {}

Zop::Ptr<Agent::AgentAsyncCommandRequestSm>
KivSegmentCliCallbackWithFormat::createAgentAsyncCommandRequestSm(
    const Zop::Ptr<Agent::AgentCommandRequest>& request) {
   TRACE8_FN("createAgentAsyncCommandRequestSm", " Creating Async ACR for specific commands");
   const std::vector<Zop::String> fields = splitStr(request->command(), "#");
   const Zop::String command = field(fields, 0);
   // The time value is the longest a run of the command may take, in seconds
   // (the service may cap it further).
   constexpr double kTimeValue = 0.1;
   const Zop::String& name = request->name();
   if (command == "HardwareDetail") {
      return Zop::makePtr<ShowSegmentHardwareDetailSm>(
          name, request, kTimeValue, clock_, routeInfo_, hwIdStatus_, l3Status_, fwConfig_,
          field(fields, 1), field(fields, 2));
   }
   if (command == "HardwareSummary") {
      return Zop::makePtr<ShowSegmentHardwareSummarySm>(
          name, request, kTimeValue, clock_, routeInfo_, hwIdStatus_, l3Status_, fwConfig_,
          field(fields, 1), field(fields, 2));
   }
   if (command == "HardwareRoutes") {
      return Zop::makePtr<ShowSegmentHardwareRoutesSm>(
          name, request, kTimeValue, clock_, routeInfo_, hwIdStatus_, l3Status_, field(fields, 1),
          field(fields, 2), segmentRouteHelper_, routeStatus_, route6Status_, vrfFibRouteDb_,
          vrfFibRoute6Db_);
   }
   if (command == "ShowHardwareCounters") {
      return Zop::makePtr<ShowSegmentHardwareCountersSm>(name, request, kTimeValue, clock_,
                                                         l3Status_, fwCounters_, snapshot_,
                                                         field(fields, 1), fwConfig_);
   }
   if (command == "ClearHardwareCounters") {
      return Zop::makePtr<ClearSegmentHardwareCountersSm>(name, request, kTimeValue, clock_,
                                                          fwCounters_, snapshot_);
   }
   return nullptr;
}

void KivSegmentCliCallbackWithFormat::handleCommand(int socket, const Zop::String& command,
                                                    lumo::Format format) {
   TRACE8_FN("handleCommand",
             " Socket: " << socket << " Command: " << command << " Format: " << uint32_t(format));
}

// ---- KivSegmentSecurityCliSm ----

class KivSegmentSecurityCliSm::FwConfigNotifiee : public Firewall::HwConfig::Notifiee {
public:
   explicit FwConfigNotifiee(KivSegmentSecurityCliSm* owner) : owner_(owner) {}
   void handleFwActive() override { owner_->handleFwActive(); }
   void handleFwDefaultDrop() override { owner_->handleFwDefaultDrop(); }

private:
   KivSegmentSecurityCliSm* owner_;
};

KivSegmentSecurityCliSm::KivSegmentSecurityCliSm(
    const Zop::Ptr<Ruv::TaskScheduler>& scheduler, const Zop::Ptr<Zop::Dir>& cliRequestDir,
    const Zop::Ptr<const Firewall::Counters>& fwCounters,
    const Zop::Ptr<Firewall::Counters>& snapshot,
    const Zop::Ptr<const KivSegmentRouteInfoColl>& routeInfo,
    const Zop::Ptr<const SegmentIdResponse>& hwIdStatus, const Zop::Ptr<const L3Status>& l3Status,
    const Zop::Ptr<const Firewall::HwConfig>& fwConfig,
    const Zop::Ptr<KivSegmentRouteHelper>& segmentRouteHelper,
    const Zop::Ptr<const RouteReactorStatus>& routeStatus,
    const Zop::Ptr<const Route6ReactorStatus>& route6Status,
    const Zop::Ptr<const KivVrfFibRouteCollection>& vrfFibRouteDb,
    const Zop::Ptr<const KivVrfFibRoute6Collection>& vrfFibRoute6Db)
    : scheduler_(scheduler),
      cliRequestDir_(cliRequestDir),
      fwCounters_(fwCounters),
      snapshot_(snapshot),
      routeInfo_(routeInfo),
      hwIdStatus_(hwIdStatus),
      l3Status_(l3Status),
      fwConfig_(fwConfig),
      segmentRouteHelper_(segmentRouteHelper),
      routeStatus_(routeStatus),
      route6Status_(route6Status),
      vrfFibRouteDb_(vrfFibRouteDb),
      vrfFibRoute6Db_(vrfFibRoute6Db),
      fwConfigNotifiee_(std::make_unique<FwConfigNotifiee>(this)) {
   // Nothing is handled before the root is live.
   fwConfigNotifiee_->notificationActiveIs(false);
   fwConfigNotifiee_->notifierIs(fwConfig_);
}

KivSegmentSecurityCliSm::~KivSegmentSecurityCliSm() {
   cliRequestDirSmDel();
   cliCallbackWithFormatDel();
   fwConfigDel();
}

void KivSegmentSecurityCliSm::initializedIs(bool v) {
   if (v == initialized_) {
      return;
   }
   initialized_ = v;
   if (v) {
      handleInitialized();
   }
}

void KivSegmentSecurityCliSm::handleInitialized() {
   TRACE8_FN("void Kiv::KivSegmentSecurityCliSm::handleInitialized()");
   cliRequestDirSmIs();
   cliCallbackWithFormatIs("KivSegmentSecurityLumo", "KivSegmentCliCallbackWithFormat");
   cliRequestDirSm_->agentCommandCallbackWithFormatIs(cliCallbackWithFormat_);
   if (fwConfigNotifiee_) {
      fwConfigNotifiee_->notificationActiveIs(hasNotificationActive_);
   }
   handleFwActive();
   handleFwDefaultDrop();
   reconcileSnapshotCounters(fwCounters_, snapshot_, false);
}

void KivSegmentSecurityCliSm::cliRequestDirSmIs() {
   if (cliRequestDirSm_) {
      return;
   }
   cliRequestDirSm_ = Zop::makePtr<Agent::AgentCommandRequestDirSm>(scheduler_, cliRequestDir_);
   cliRequestDirSm_->hasNotificationActiveIs(hasNotificationActive_);
}

void KivSegmentSecurityCliSm::cliRequestDirSmDel() {
   if (cliRequestDirSm_) {
      cliRequestDirSm_->hasNotificationActiveIs(false);
      cliRequestDirSm_ = nullptr;
   }
}

void KivSegmentSecurityCliSm::cliCallbackWithFormatIs(const Zop::String& agentName,
                                                      const Zop::String& callbackName) {
   cliCallbackWithFormat_ = Zop::makePtr<KivSegmentCliCallbackWithFormat>(
       agentName, callbackName, fwCounters_, snapshot_, routeInfo_, hwIdStatus_, l3Status_,
       fwConfig_, segmentRouteHelper_, routeStatus_, route6Status_, vrfFibRouteDb_, vrfFibRoute6Db_,
       scheduler_->clock());
}

void KivSegmentSecurityCliSm::cliCallbackWithFormatDel() {
   if (cliRequestDirSm_) {
      cliRequestDirSm_->agentCommandCallbackWithFormatIs(nullptr);
   }
   cliCallbackWithFormat_ = nullptr;
}

void KivSegmentSecurityCliSm::fwConfigDel() {
   fwConfigNotifiee_ = nullptr;
}

void KivSegmentSecurityCliSm::hasNotificationActiveIs(bool on) {
   if (on == hasNotificationActive_) {
      return;
   }
   hasNotificationActive_ = on;
   if (cliRequestDirSm_) {
      cliRequestDirSm_->hasNotificationActiveIs(on);
   }
   if (fwConfigNotifiee_ && initialized_) {
      fwConfigNotifiee_->notificationActiveIs(on);
   }
}

void KivSegmentSecurityCliSm::handleFwActive() {
   if (fwConfig_->fwActive()) {
      return;
   }
   // A firewall restart starts from fresh counts: no stale baseline survives.
   snapshot_->vrfDelAll();
}

void KivSegmentSecurityCliSm::handleFwDefaultDrop() {
   if (fwConfig_->fwDefaultDrop()) {
      return;
   }
   for (const auto& [vrfName, vrf] : snapshot_->vrf()) {
      for (const auto& [dst, group] : vrf->countersDir()->segment()) {
         group->defaultDropIs(0);
      }
   }
}

Zop::Ptr<KivSegmentSecurityCliSm> kivSegmentSecurityCliSmFactory(
    const Zop::Ptr<Ruv::TaskScheduler>& scheduler, const Zop::Ptr<Zop::Dir>& cliRequestDir,
    const Zop::Ptr<const Firewall::Counters>& fwCounters,
    const Zop::Ptr<Firewall::Counters>& snapshot,
    const Zop::Ptr<const KivSegmentRouteInfoColl>& routeInfo,
    const Zop::Ptr<const SegmentIdResponse>& hwIdStatus, const Zop::Ptr<const L3Status>& l3Status,
    const Zop::Ptr<const Firewall::HwConfig>& fwConfig,
    const Zop::Ptr<KivSegmentRouteHelper>& segmentRouteHelper,
    const Zop::Ptr<const RouteReactorStatus>& routeStatus,
    const Zop::Ptr<const Route6ReactorStatus>& route6Status,
    const Zop::Ptr<const KivVrfFibRouteCollection>& vrfFibRouteDb,
    const Zop::Ptr<const KivVrfFibRoute6Collection>& vrfFibRoute6Db) {
   return Zop::makePtr<KivSegmentSecurityCliSm>(
       scheduler, cliRequestDir, fwCounters, snapshot, routeInfo, hwIdStatus, l3Status, fwConfig,
       segmentRouteHelper, routeStatus, route6Status, vrfFibRouteDb, vrfFibRoute6Db);
}

}  // namespace Kiv
