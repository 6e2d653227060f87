#include "KivSegmentSecurity/KivSegmentSecurityCliSm.h"

#include <algorithm>
#include <array>
#include <functional>
#include <optional>
#include <ostream>
#include <set>
#include <vector>

#include "KivSegmentSecurity/KivSegmentSecurityUtils.h"
#include "Ruv/TaskScheduler.h"
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

// A piece-at-a-time question: the scheduler is asked before each piece, and
// a yes pauses the command's run (see the header comment). The first piece of
// a run always goes ahead, so every run makes progress.
std::function<bool()> piecePause(AsyncCommandSm& sm) {
   return [&sm, progressed = false]() mutable {
      const bool yield = Ruv::taskShouldYield();
      if (yield && progressed) {
         sm.pauseRun();
         return true;
      }
      progressed = true;
      return false;
   };
}

// For the paths that build or print in one go.
bool neverPause() {
   return false;
}

using SegmentMap = std::map<Zop::String, Zop::Ptr<SortedSegmentPrefix>>;
using RowMap = std::map<SortedPrefixInfo, bool>;

// Where a listing of one VRF's segments stands. The snapshot is private and
// never changes once built, so its iterators stay valid across runs.
struct SegmentCursor {
   bool active = false;
   Zop::Ptr<SortedVrfRouteInfo> vrf;
   SegmentMap::const_iterator segment;
   SegmentMap::const_iterator end;
   // Inside a segment: its entry is open and `row` is the next row.
   bool inSegment = false;
   RowMap::const_iterator row;
   bool firstRow = true;
   SegmentHwId hwId;
};

// One programmed prefix of a segment; `first` is the segment's first row,
// which carries its name and id.
using RowPrinter =
    std::function<void(const Zop::String& segmentName, uint32_t hwId, const SortedPrefixInfo& info,
                       const Zop::String& prefix, bool first)>;

// Detail and routes share their row layout: name and id on the first row
// only, then one row per programmed prefix with a last column of their own.
// Lists the segments of `vrfId` in the snapshot (only `only` when given) from
// where `c` stands, asking `pause` before each segment and each row but a
// segment's first; false when it paused (`c` then holds the place).
bool listSegments(lumo::Printer& printer, VrfId vrfId, const Zop::String* only,
                  const Zop::Ptr<SortedSegmentRouteInfo>& sorted,
                  const Zop::Ptr<const SegmentIdResponse>& hwIdStatus,
                  const Zop::Ptr<const L3Status>& l3Status, SegmentCursor& c,
                  const std::function<bool()>& pause, const RowPrinter& row) {
   if (!c.active) {
      c = SegmentCursor{};
      c.vrf = sorted->sortedVrf(vrfId);
      if (!c.vrf) {
         return true;
      }
      c.active = true;
      const SegmentMap& segments = c.vrf->sortedPrefix();
      if (only) {
         c.segment = segments.find(*only);
         c.end = c.segment == segments.end() ? c.segment : std::next(c.segment);
      } else {
         c.segment = segments.begin();
         c.end = segments.end();
      }
   }
   while (c.segment != c.end) {
      const Zop::String& name = c.segment->first;
      if (!c.inSegment) {
         if (pause()) {
            return false;
         }
         auto view = resolveSegment(vrfId, name, sorted, hwIdStatus, l3Status);
         if (!view) {
            ++c.segment;
            continue;
         }
         printer.startDictEntry(lumo::StrAttr{"segmentName", name});
         printer.addAttributesJson({lumo::U32Attr{"hardwareId", view->hwId.value()}});
         printer.startDict("prefixes");
         c.inSegment = true;
         c.hwId = view->hwId;
         c.row = view->segment->programmedPrefix().begin();
         c.firstRow = true;
      }
      const RowMap& rows = c.segment->second->programmedPrefix();
      for (; c.row != rows.end(); ++c.row) {
         if (!c.firstRow && pause()) {
            return false;
         }
         row(name, c.hwId.value(), c.row->first, prefixText(c.row->first), c.firstRow);
         c.firstRow = false;
      }
      printer.endDict();
      printer.endDictEntry();
      c.inSegment = false;
      ++c.segment;
   }
   c = SegmentCursor{};
   return true;
}

// Empties a snapshot a piece (one row, one segment, one VRF) at a time;
// true once it is empty.
bool dropSorted(const Zop::Ptr<SortedSegmentRouteInfo>& sorted,
                const std::function<bool()>& pause) {
   while (!sorted->sortedVrf().empty()) {
      const auto& [vrfId, vrf] = *sorted->sortedVrf().begin();
      while (!vrf->sortedPrefix().empty()) {
         const auto& [name, segment] = *vrf->sortedPrefix().begin();
         while (!segment->programmedPrefix().empty()) {
            if (pause()) {
               return false;
            }
            segment->programmedPrefixDelFirst();
         }
         vrf->sortedPrefixDel(Zop::String(name));
      }
      sorted->sortedVrfDel(VrfId(vrfId));
   }
   return true;
}

// A command whose listing has just completed drops its snapshot before it
// says so; `dropping` remembers that across runs.
void dropThenComplete(AsyncCommandSm& sm, Zop::Ptr<SortedSegmentRouteInfo>& sorted, bool& dropping,
                      const std::function<bool()>& pause) {
   if (!dropping) {
      if (!sm.executionCompleted()) {
         return;
      }
      sm.executionCompletedIs(false);
      dropping = true;
   }
   if (sorted && !dropSorted(sorted, pause)) {
      return;
   }
   sorted = nullptr;
   sm.executionCompletedIs(true);
}

void detailRow(lumo::Printer& printer, const Zop::Ptr<const KivSegmentRouteInfoColl>& routeInfo,
               const Zop::String& segmentName, uint32_t hwId, const SortedPrefixInfo& info,
               const Zop::String& prefix, bool first) {
   const KivSegmentRouteInfo* record = routeInfo->routeInfoFind(info.vrfPrefix());
   const uint64_t adj = record ? record->routeInfo().adjIndex() : 0;
   if (first) {
      printer.addFrills("%-20s %-15u %-39s %-15llu\n", segmentName.c_str(), hwId, prefix.c_str(),
                        static_cast<unsigned long long>(adj));
   } else {
      printer.addFrills("%-20s %-15s %-39s %-15llu\n", "", "", prefix.c_str(),
                        static_cast<unsigned long long>(adj));
   }
   // A prefix recorded with no route of its own (waiting for the resolver's
   // answer, or for a withdrawn FIB route's entry to go) is not in hardware:
   // said under its row and in its entry, the rows keeping their format.
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
}

void routesRow(lumo::Printer& printer, const Zop::String& segmentName, uint32_t hwId,
               const SortedPrefixInfo& info, const Zop::String& prefix, bool first) {
   const char* letter = segmentRouteTypeLetter(info.routeType());
   if (first) {
      printer.addFrills("%-20s %-15u %-39s %-10s\n", segmentName.c_str(), hwId, prefix.c_str(),
                        letter);
   } else {
      printer.addFrills("%-20s %-15s %-39s %-10s\n", "", "", prefix.c_str(), letter);
   }
   printer.startDictEntry(lumo::StrAttr{"prefix", prefix});
   printer.addAttributesJson({lumo::StrAttr{"routeType", letter}});
   printer.endDictEntry();
}

RowPrinter detailRows(lumo::Printer& printer,
                      const Zop::Ptr<const KivSegmentRouteInfoColl>& routeInfo) {
   return
       [&printer, routeInfo](const Zop::String& segmentName, uint32_t hwId,
                             const SortedPrefixInfo& info, const Zop::String& prefix, bool first) {
          detailRow(printer, routeInfo, segmentName, hwId, info, prefix, first);
       };
}

RowPrinter routesRows(lumo::Printer& printer) {
   return [&printer](const Zop::String& segmentName, uint32_t hwId, const SortedPrefixInfo& info,
                     const Zop::String& prefix,
                     bool first) { routesRow(printer, segmentName, hwId, info, prefix, first); };
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

namespace {

// A walk over a hash map that can stop after any bucket and go on in a later
// run. The map may change in between, so the bookmark is a bucket number,
// never an iterator: an entry added meanwhile may or may not be seen, one
// removed before its bucket is reached is not. When the map rehashes (its
// bucket count changes) the walk starts over after calling `restart`, so an
// entry may be seen twice: what the walk does with one must not mind, or
// `restart` must undo it.
struct BucketWalk {
   size_t bucket = 0;
   size_t buckets = 0;
   bool done = false;

   // One bucket: f(key, value) for each entry in it.
   template <class Map, class F, class Restart>
   void step(const Map& map, F&& f, Restart&& restart) {
      if (buckets != map.bucket_count()) {
         if (buckets != 0) {
            restart();
         }
         buckets = map.bucket_count();
         bucket = 0;
      }
      if (bucket < buckets) {
         for (auto it = map.begin(bucket); it != map.end(bucket); ++it) {
            f(it->first, it->second);
         }
         ++bucket;
      }
      done = bucket >= buckets;
   }
};

}  // namespace

// The summary and detail snapshot, built a piece at a time (one bucket of a
// hash map per piece): the records, then each firewall VRF's configured
// prefixes, then the segments with an id.
struct SortedPrefixInfoBuild {
   enum class Phase { records, configured, ids, done };
   Phase phase = Phase::records;
   BucketWalk walk;
   // The firewall VRF being counted (its entry kept alive), its VRF id when
   // it has one, and its counts so far per segment.
   bool vrfStarted = false;
   L3::VrfName vrfName;
   Zop::Ptr<Firewall::FwVrf> fwVrf;
   std::optional<VrfId> vrfId;
   std::map<Zop::String, uint32_t> counts;
};

namespace {

// True once `sorted` is complete; false when `pause` stopped it.
bool buildSortedSegmentPrefixInfo(SortedPrefixInfoBuild& b,
                                  const Zop::Ptr<SortedSegmentRouteInfo>& sorted,
                                  const Zop::Ptr<const SegmentIdResponse>& hwIdStatus,
                                  const Zop::Ptr<const KivSegmentRouteInfoColl>& routeInfo,
                                  const Zop::Ptr<const L3Status>& l3Status,
                                  const Zop::Ptr<const Firewall::HwConfig>& fwConfig,
                                  const std::function<bool()>& pause) {
   using Phase = SortedPrefixInfoBuild::Phase;
   const auto nothing = [] {};
   // Programmed prefixes: each record, under the segment that owns its id.
   if (b.phase == Phase::records) {
      while (!b.walk.done) {
         if (pause()) {
            return false;
         }
         b.walk.step(
             routeInfo->routeInfo().members(),
             [&](const VrfAndIpGenPrefix& key, const KivSegmentRouteInfo& info) {
                Zop::Ptr<SortedVrfRouteInfo> vrf = sortedVrfFor(sorted, key.vrfId());
                if (const SegmentIdRequestKey* owner = hwIdStatus->hwIdKey(info.hwId())) {
                   sortedSegmentFor(vrf, owner->segment())
                       ->programmedPrefixIs(SortedPrefixInfo(key, routeTypeSegmentOnly), true);
                }
             },
             nothing);
      }
      b.phase = Phase::configured;
      b.walk = {};
   }
   // Configured prefixes, counted per segment, one firewall VRF after the
   // other in name order; a VRF's counts go in once it is walked whole.
   if (b.phase == Phase::configured) {
      const auto& vrfs = fwConfig->vrf().members();
      for (;;) {
         if (!b.vrfStarted) {
            auto it = b.fwVrf ? vrfs.upper_bound(b.vrfName) : vrfs.begin();
            if (it == vrfs.end()) {
               break;
            }
            if (pause()) {
               return false;
            }
            b.vrfStarted = true;
            b.vrfName = it->first;
            b.fwVrf = it->second;
            b.vrfId.reset();
            if (const VrfId* vrfId = l3Status->vrfId(b.vrfName)) {
               b.vrfId = *vrfId;
               sortedVrfFor(sorted, *vrfId);
            }
            b.walk = {};
            b.counts.clear();
         }
         while (b.vrfId && !b.walk.done) {
            if (pause()) {
               return false;
            }
            b.walk.step(
                b.fwVrf->prefixList().members(),
                [&](const Pexo::IpGenPrefix&, const Zop::String& segmentName) {
                   ++b.counts[segmentName];
                },
                [&] { b.counts.clear(); });
         }
         if (b.vrfId) {
            if (pause()) {
               return false;
            }
            Zop::Ptr<SortedVrfRouteInfo> vrf = sortedVrfFor(sorted, *b.vrfId);
            for (const auto& [segmentName, count] : b.counts) {
               sortedSegmentFor(vrf, segmentName)->configuredPrefixInc(count);
            }
         }
         b.vrfStarted = false;
      }
      b.phase = Phase::ids;
      b.walk = {};
      b.counts.clear();
      b.fwVrf = nullptr;
   }
   // Segments with an id, listed even without a prefix.
   if (b.phase == Phase::ids) {
      while (!b.walk.done) {
         if (pause()) {
            return false;
         }
         b.walk.step(
             hwIdStatus->status().members(),
             [&](const SegmentIdRequestKey& key, const SegmentIdStatus&) {
                if (l3Status->vrfNameHas(key.vrfId())) {
                   sortedSegmentFor(sortedVrfFor(sorted, key.vrfId()), key.segment());
                }
             },
             nothing);
      }
      b.phase = Phase::done;
   }
   return true;
}

}  // namespace

void getSortedSegmentPrefixInfo(const Zop::Ptr<SortedSegmentRouteInfo>& sorted,
                                const Zop::Ptr<const SegmentIdResponse>& hwIdStatus,
                                const Zop::Ptr<const KivSegmentRouteInfoColl>& routeInfo,
                                const Zop::Ptr<const L3Status>& l3Status,
                                const Zop::Ptr<const Firewall::HwConfig>& fwConfig) {
   SortedPrefixInfoBuild b;
   buildSortedSegmentPrefixInfo(b, sorted, hwIdStatus, routeInfo, l3Status, fwConfig, neverPause);
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
   SegmentCursor c;
   listSegments(printer, vrfId, &segmentName, sorted, hwIdStatus, l3Status, c, neverPause,
                detailRows(printer, routeInfo));
}

void showSegmentHardwareRoutes(lumo::Printer& printer, VrfId vrfId, const Zop::String& segmentName,
                               const Zop::Ptr<SortedSegmentRouteInfo>& sorted,
                               const Zop::Ptr<const SegmentIdResponse>& hwIdStatus,
                               const Zop::Ptr<const KivSegmentRouteInfoColl>&,
                               const Zop::Ptr<const L3Status>& l3Status) {
   SegmentCursor c;
   listSegments(printer, vrfId, &segmentName, sorted, hwIdStatus, l3Status, c, neverPause,
                routesRows(printer));
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
   SegmentCursor c;
   listSegments(printer, vrfId, nullptr, sorted, hwIdStatus, l3Status, c, neverPause,
                detailRows(printer, routeInfo));
}

void showVrfHardwareRoutes(lumo::Printer& printer, VrfId vrfId,
                           const Zop::Ptr<SortedSegmentRouteInfo>& sorted,
                           const Zop::Ptr<const SegmentIdResponse>& hwIdStatus,
                           const Zop::Ptr<const KivSegmentRouteInfoColl>&,
                           const Zop::Ptr<const L3Status>& l3Status) {
   SegmentCursor c;
   listSegments(printer, vrfId, nullptr, sorted, hwIdStatus, l3Status, c, neverPause,
                routesRows(printer));
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

// Where the printing of a detail or routes command stands between runs.
struct ShowWalkState {
   // The vrfs dictionary is open: the snapshot is built.
   bool printing = false;
   // One VRF named: its entry is open, and the VRF's id when known.
   bool singleStarted = false;
   std::optional<VrfId> singleVrf;
   // Paused inside the listing of the bookmarked VRF (its entry is open).
   bool inVrf = false;
   // The run, pauses aside, began by printing the bookmarked VRF once more
   // (at startVrf).
   bool resumedAtBookmark = false;
   std::optional<VrfId> startVrf;
   SegmentCursor cursor;
};

namespace {

// The walk the three show commands share; `header` prints their own title,
// `legend` the routes legend (nothing for the others), and `list` one VRF's
// segments (only the named one when given) from where the walk's cursor
// stands, false when it paused.
struct VrfWalk {
   AsyncCommandSm& sm;
   const Zop::Ptr<const L3Status>& l3Status;
   const Zop::String& vrfName;
   const Zop::String& segmentName;
   Zop::Ptr<SortedSegmentRouteInfo>& sortedData;
   Zop::Ptr<SortedVrfRouteInfo>& vrfBookmark;
   ShowWalkState& state;
   // The summary walks everything in one run.
   bool mayYield = true;

   template <class Legend, class Header, class List>
   void run(Legend&& legend, Header&& header, List&& list) {
      lumo::Printer& p = sm.printer();
      if (!vrfName.empty()) {
         if (!state.singleStarted) {
            state.singleStarted = true;
            p.startDictEntry(lumo::StrAttr{"vrf", vrfName});
            p.startDict("segments");
            legend();
            if (const VrfId* vrfId = requestVrfId(l3Status, vrfName)) {
               header(vrfName);
               state.singleVrf = *vrfId;
            }
         }
         if (state.singleVrf &&
             !list(*state.singleVrf, segmentName.empty() ? nullptr : &segmentName)) {
            return;
         }
         p.endDict();
         p.endDictEntry();
         complete();
         return;
      }

      const auto& vrfs = sortedData->sortedVrf();
      auto it = vrfs.end();
      if (state.inVrf) {
         it = vrfs.find(vrfBookmark->vrfId());
      } else {
         // A run that starts at the bookmark prints that VRF again; it must
         // not yield before it has printed one more, or a command whose every
         // VRF fills the output buffer would never end.
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
         state.resumedAtBookmark = resumed;
         state.startVrf = it == vrfs.end() ? std::nullopt : std::optional<VrfId>(it->first);
      }
      for (; it != vrfs.end(); ++it) {
         const VrfId vrfId = it->first;
         if (!state.inVrf) {
            vrfBookmark = it->second;
            if (l3Status->vrfNameHas(vrfId)) {
               const Zop::String name = l3Status->vrfName(vrfId).value();
               header(name);
               p.startDictEntry(lumo::StrAttr{"vrf", name});
               p.startDict("segments");
               state.inVrf = true;
            }
         }
         if (state.inVrf) {
            if (!list(vrfId, nullptr)) {
               return;
            }
            p.endDict();
            p.endDictEntry();
            state.inVrf = false;
         }
         const bool madeProgress = !state.resumedAtBookmark || vrfId != state.startVrf;
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

ShowSegmentPrefixInfoSm::~ShowSegmentPrefixInfoSm() = default;

bool ShowSegmentPrefixInfoSm::buildSnapshot(const std::function<bool()>& pause) {
   if (!build_) {
      build_ = std::make_unique<SortedPrefixInfoBuild>();
      sortedData_ = sortedSegmentRouteInfoFactory();
   }
   if (build_->phase == SortedPrefixInfoBuild::Phase::done) {
      return true;
   }
   return buildSortedSegmentPrefixInfo(*build_, sortedData_, hwIdStatus_, routeInfo_, l3Status_,
                                       fwConfig_, pause);
}

// ---- ShowSegmentHardwareSummarySm ----

void ShowSegmentHardwareSummarySm::handleInitialized() {
   TRACE8_FN("void Kiv::ShowSegmentHardwareSummarySm::handleInitialized()",
             " VrfName: " << vrfName_ << " segmentName: " << segmentName_);
   initializeSm();
}

void ShowSegmentHardwareSummarySm::handleAsyncCommand() {
   TRACE8_FN("virtual void Kiv::ShowSegmentHardwareSummarySm::handleAsyncCommand()");
   lumo::Printer& p = printer();
   const std::function<bool()> pause = piecePause(*this);
   if (dropping_) {
      dropThenComplete(*this, sortedData_, dropping_, pause);
      return;
   }
   if (!build_) {
      p.start();
   }
   // Built a piece at a time; the listing, a row per segment, in one run.
   if (!buildSnapshot(pause)) {
      return;
   }
   Zop::Ptr<SortedVrfRouteInfo> bookmark;
   ShowWalkState state;
   p.startDict("vrfs");
   VrfWalk walk{*this, l3Status_, vrfName_, segmentName_, sortedData_, bookmark, state, false};
   walk.run([] {}, [&](const Zop::String& name) { showSegmentHardwareSummaryHeader(p, name); },
            [&](VrfId vrfId, const Zop::String* segment) {
               if (segment) {
                  showSegmentHardwareSummary(p, vrfId, *segment, sortedData_, hwIdStatus_,
                                             fwConfig_, l3Status_);
               } else {
                  showVrfHardwareSummary(p, vrfId, sortedData_, hwIdStatus_, fwConfig_, l3Status_);
               }
               return true;
            });
   dropThenComplete(*this, sortedData_, dropping_, pause);
}

// ---- ShowSegmentHardwareDetailSm ----

ShowSegmentHardwareDetailSm::~ShowSegmentHardwareDetailSm() = default;

void ShowSegmentHardwareDetailSm::handleInitialized() {
   TRACE8_FN("void Kiv::ShowSegmentHardwareDetailSm::handleInitialized()",
             " VrfName: " << vrfName_ << " segmentName: " << segmentName_);
   initializeSm();
}

void ShowSegmentHardwareDetailSm::handleAsyncCommand() {
   TRACE8_FN("virtual void Kiv::ShowSegmentHardwareDetailSm::handleAsyncCommand()");
   lumo::Printer& p = printer();
   const std::function<bool()> pause = piecePause(*this);
   if (dropping_) {
      dropThenComplete(*this, sortedData_, dropping_, pause);
      return;
   }
   if (!walk_) {
      p.start();
      vrfBookmark_ = nullptr;
      walk_ = std::make_unique<ShowWalkState>();
   }
   if (!walk_->printing) {
      if (!buildSnapshot(pause)) {
         return;
      }
      walk_->printing = true;
      p.startDict("vrfs");
   }
   const RowPrinter rows = detailRows(p, routeInfo_);
   VrfWalk walk{*this, l3Status_, vrfName_, segmentName_, sortedData_, vrfBookmark_, *walk_};
   walk.run([] {}, [&](const Zop::String& name) { showSegmentHardwareDetailHeader(p, name); },
            [&](VrfId vrfId, const Zop::String* segment) {
               return listSegments(p, vrfId, segment, sortedData_, hwIdStatus_, l3Status_,
                                   walk_->cursor, pause, rows);
            });
   dropThenComplete(*this, sortedData_, dropping_, pause);
}

// ---- ShowSegmentHardwareRoutesSm ----

// The routes snapshot, built a piece at a time: the record keys are taken
// into a sorted set one hash bucket per piece; then, per outermost key, each
// listed segment prefix beneath it is a piece, each batch of the FIB routes
// beneath it (up to kFibBatch, in prefix order, after the last one taken) is
// one, and each of those FIB routes is one.
constexpr size_t kFibBatch = 1024;

struct SortedRoutesBuild {
   enum class Phase { take, outermost, done };
   Phase phase = Phase::take;
   BucketWalk walk;
   std::set<VrfAndIpGenPrefix> keys;
   // The next key to list; the set is private, so it stays valid.
   std::set<VrfAndIpGenPrefix>::const_iterator at;
   // The outermost key being listed; the batch of FIB routes beneath it
   // being listed, the last one taken and whether there are no more.
   std::optional<VrfAndIpGenPrefix> outer;
   std::vector<VrfAndIpGenPrefix> fibRoutes;
   size_t fibNext = 0;
   std::optional<Pexo::IpGenPrefix> fibLast;
   bool fibDone = false;
};

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

ShowSegmentHardwareRoutesSm::~ShowSegmentHardwareRoutesSm() = default;

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
   SortedRoutesBuild build;
   buildSortedRoutes(build, sorted, neverPause);
}

bool ShowSegmentHardwareRoutesSm::buildSortedRoutes(SortedRoutesBuild& b,
                                                    const Zop::Ptr<SortedSegmentRouteInfo>& sorted,
                                                    const std::function<bool()>& pause) {
   using Phase = SortedRoutesBuild::Phase;
   if (b.phase == Phase::take) {
      // The keys (a key seen twice after a rehash is one in the set) and
      // the VRFs' entries.
      while (!b.walk.done) {
         if (pause()) {
            return false;
         }
         b.walk.step(
             routeInfo_->routeInfo().members(),
             [&](const VrfAndIpGenPrefix& key, const KivSegmentRouteInfo&) {
                if (b.keys.insert(key).second) {
                   sortedVrfFor(sorted, key.vrfId());
                }
             },
             [] {});
      }
      b.at = b.keys.begin();
      b.phase = Phase::outermost;
   }
   if (b.phase == Phase::outermost) {
      for (;;) {
         if (!b.outer) {
            if (b.at == b.keys.end()) {
               break;
            }
            if (pause()) {
               return false;
            }
            b.outer = *b.at;
            b.fibLast.reset();
            b.fibDone = false;
         }
         // The outermost key and the keys inside it, which follow it in key
         // order (a prefix's cover comes before it).
         const VrfAndIpGenPrefix& outer = *b.outer;
         // Each key goes once listed: the set empties as the build goes on.
         while (b.at != b.keys.end()) {
            const VrfAndIpGenPrefix& key = *b.at;
            if (key != outer &&
                !(key.vrfId() == outer.vrfId() && outer.prefix().contains(key.prefix()))) {
               break;
            }
            if (pause()) {
               return false;
            }
            addSegmentPrefix(key, sorted);
            b.at = b.keys.erase(b.at);
         }
         for (;;) {
            while (b.fibNext < b.fibRoutes.size()) {
               if (pause()) {
                  return false;
               }
               addFibRoute(b.fibRoutes[b.fibNext++], sorted);
            }
            if (b.fibDone) {
               break;
            }
            if (pause()) {
               return false;
            }
            b.fibRoutes.clear();
            b.fibNext = 0;
            takeFibRoutes(b);
         }
         b.outer.reset();
         b.fibRoutes = {};
         b.fibNext = 0;
      }
      b.keys = {};
      b.phase = Phase::done;
   }
   return true;
}

namespace {

// Thrown by a walk's callback once a batch is full: a trie walk cannot stop
// otherwise, and a batch must not pay for the routes after it.
struct BatchFull {};

using U128 = unsigned __int128;

U128 addressBits(const Pexo::IpGenPrefix& p) {
   if (p.isIpv4()) {
      return U128(p.v4().addr().value()) << 96;
   }
   const Pexo::Ip6Addr a = p.v6().addr();
   return (U128(a.hi()) << 64) | a.lo();
}

// Bit `i` (0 the first) of the prefix's address.
bool bitAt(const Pexo::IpGenPrefix& p, unsigned i) {
   return ((addressBits(p) >> (127 - i)) & 1) != 0;
}

// The first `i` bits of `p` followed by a 1, of length i + 1: the branch
// beside the one `p` lies on, after it in prefix order.
Pexo::IpGenPrefix rightSibling(const Pexo::IpGenPrefix& p, unsigned i) {
   const U128 top = i == 0 ? U128(0) : addressBits(p) & (~U128(0) << (128 - i));
   const U128 bits = top | (U128(1) << (127 - i));
   if (p.isIpv4()) {
      return Pexo::Prefix(Pexo::IpAddr(uint32_t(bits >> 96)), i + 1);
   }
   return Pexo::Ip6Prefix(Pexo::Ip6Addr(uint64_t(bits >> 64), uint64_t(bits)), i + 1);
}

}  // namespace

void ShowSegmentHardwareRoutesSm::takeFibRoutes(SortedRoutesBuild& b) {
   // A FIB route inside a nested segment prefix is also inside the outer
   // one, and the lists are sets, so the FIB routes beneath the outermost
   // segment prefixes alone are the same routes, each once.
   //
   // A batch goes on in prefix order after the last route taken, L: first
   // what lies inside L, then, from the deepest up to the outermost prefix,
   // each branch beside L's path that comes after it; so a batch walks only
   // what it takes. The FIB may change between batches; a route is taken as
   // it is when its batch is.
   const VrfAndIpGenPrefix& outer = *b.outer;
   const VrfId vrfId = outer.vrfId();
   const Pexo::IpGenPrefix& o = outer.prefix();
   const std::optional<Pexo::IpGenPrefix> last = b.fibLast;
   const auto visit = [&](const Pexo::IpGenPrefix& p) {
      if (last && p == *last) {
         return true;
      }
      b.fibRoutes.emplace_back(vrfId, p);
      b.fibLast = p;
      if (b.fibRoutes.size() >= kFibBatch) {
         throw BatchFull{};
      }
      return true;
   };
   const auto walk = [&](const Pexo::IpGenPrefix& from) {
      if (o.isIpv4()) {
         Zop::Ptr<const Routing::Trie> fibTrie = routeStatus_->fibTrie(vrfId);
         if (!fibTrie && !l3Status_->vrfNameHas(vrfId)) {
            return;  // The VRF is gone, and its FIB routes with it.
         }
         ZOP_ASSERT_FN(fibTrie, " Fib trie does not exist ", kSource, "getSortedRoutes");
         fibTrie->preOrderWalk(from.v4(),
                               [&](const Pexo::Prefix& p) { return visit(Pexo::IpGenPrefix(p)); });
      } else {
         Zop::Ptr<const Routing6::Trie> fibTrie = route6Status_->fibTrie(vrfId);
         if (!fibTrie && !l3Status_->vrfNameHas(vrfId)) {
            return;
         }
         ZOP_ASSERT_FN(fibTrie, " Fib trie does not exist ", kSource, "getSortedRoutes");
         fibTrie->preOrderWalk(from, visit);
      }
   };
   try {
      if (!last) {
         walk(o);
      } else {
         walk(*last);
         for (unsigned i = last->len(); i-- > o.len();) {
            if (!bitAt(*last, i)) {
               walk(rightSibling(*last, i));
            }
         }
      }
   } catch (const BatchFull&) {
      return;
   }
   b.fibDone = true;
}

void ShowSegmentHardwareRoutesSm::addSegmentPrefix(const VrfAndIpGenPrefix& key,
                                                   const Zop::Ptr<SortedSegmentRouteInfo>& sorted) {
   // Still installed: listed under the segment owning its record's id, S, or
   // S,F when it is also a FIB route.
   const KivSegmentRouteInfo* record = routeInfo_->routeInfoFind(key);
   if (!record) {
      return;
   }
   Zop::Ptr<SortedSegmentPrefix> list =
       getSortedPrefixListForSegment(sorted, hwIdStatus_, key.vrfId(), record->hwId());
   if (!list) {
      return;
   }
   const SegmentRouteType type = inFib(key) ? routeTypeSegmentAndFib : routeTypeSegmentOnly;
   list->programmedPrefixIs(SortedPrefixInfo(key, type), true);
}

void ShowSegmentHardwareRoutesSm::addFibRoute(const VrfAndIpGenPrefix& route,
                                              const Zop::Ptr<SortedSegmentRouteInfo>& sorted) {
   // Listed under the segment owning the id hardware gives it: F, or S,F
   // when it is a segment prefix too.
   const SegmentHwId hwId = segmentRouteHelper_->getHardwareId(route);
   TRACE8_FN("getSortedRoutes", " Fib route: " << route << " " << hwId);
   Zop::Ptr<SortedSegmentPrefix> list =
       getSortedPrefixListForSegment(sorted, hwIdStatus_, route.vrfId(), hwId);
   if (!list) {
      return;
   }
   const SegmentRouteType type =
       routeInfo_->routeInfoHas(route) ? routeTypeSegmentAndFib : routeTypeFibOnly;
   list->programmedPrefixIs(SortedPrefixInfo(route, type), true);
}

void ShowSegmentHardwareRoutesSm::handleAsyncCommand() {
   TRACE8_FN("virtual void Kiv::ShowSegmentHardwareRoutesSm::handleAsyncCommand()");
   lumo::Printer& p = printer();
   const std::function<bool()> pause = piecePause(*this);
   if (dropping_) {
      dropThenComplete(*this, sortedData_, dropping_, pause);
      return;
   }
   if (!walk_) {
      p.start();
      vrfBookmark_ = nullptr;
      sortedData_ = sortedSegmentRouteInfoFactory();
      build_ = std::make_unique<SortedRoutesBuild>();
      walk_ = std::make_unique<ShowWalkState>();
   }
   if (!walk_->printing) {
      if (!buildSortedRoutes(*build_, sortedData_, pause)) {
         return;
      }
      build_ = nullptr;
      walk_->printing = true;
      p.startDict("vrfs");
   }
   const RowPrinter rows = routesRows(p);
   VrfWalk walk{*this, l3Status_, vrfName_, segmentName_, sortedData_, vrfBookmark_, *walk_};
   walk.run([&] { showSegmentHardwareRouteLegend(p); },
            [&](const Zop::String& name) { showSegmentHardwareRoutesHeader(p, name); },
            [&](VrfId vrfId, const Zop::String* segment) {
               return listSegments(p, vrfId, segment, sortedData_, hwIdStatus_, l3Status_,
                                   walk_->cursor, pause, rows);
            });
   dropThenComplete(*this, sortedData_, dropping_, pause);
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
