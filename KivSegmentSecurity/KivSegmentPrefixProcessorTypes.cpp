#include "KivSegmentSecurity/KivSegmentPrefixProcessorTypes.h"

#include <array>
#include <ostream>

#include "Zop/Error.h"

namespace Kiv {

namespace {

constexpr std::array<const char*, 5> kOperationNames = {
    "segmentRouteAdd", "segmentRouteDelete", "segmentRouteHwIdUpdate", "fibOnlyRouteHwIdUpdate",
    "routeActionInvalid"};

KivSegmentRouteOperationType parseOperation(Zop::TextCursor& c) {
   std::string_view name = c.takeWhile([](char ch) {
      return (ch >= 'a' && ch <= 'z') || (ch >= 'A' && ch <= 'Z') || (ch >= '0' && ch <= '9');
   });
   try {
      return sequenceToValue(name);
   } catch (const Zop::RangeError& e) {
      throw Zop::ParseError("operation", e.what());
   }
}

// Parses one field of a record; whatever fails inside is reported as an error
// of that field.
template <class F>
auto parseField(std::string_view field, F&& parse) {
   try {
      return parse();
   } catch (const Zop::ParseError& e) {
      if (e.field() == field) {
         throw;
      }
      throw Zop::ParseError(Zop::String(field), e.what());
   }
}

}  // namespace

// ---- KivSegmentRouteOperationType ----

Zop::String stringValue(KivSegmentRouteOperationType op) {
   auto i = size_t(op);
   if (i < kOperationNames.size()) {
      return kOperationNames[i];
   }
   return "KivSegmentRouteOperationType(" + std::to_string(int32_t(op)) + ")";
}

Zop::String valueToStrep(KivSegmentRouteOperationType op) {
   return stringValue(op);
}

KivSegmentRouteOperationType sequenceToValue(std::string_view name) {
   for (size_t i = 0; i < kOperationNames.size(); ++i) {
      if (name == kOperationNames[i]) {
         return KivSegmentRouteOperationType(i);
      }
   }
   throw Zop::RangeError("unknown KivSegmentRouteOperationType '" + Zop::String(name) + "'");
}

std::ostream& operator<<(std::ostream& os, KivSegmentRouteOperationType op) {
   return os << stringValue(op);
}

// ---- KivSegmentHwInfo ----

KivSegmentHwInfo::KivSegmentHwInfo(Zop::TextCursor& c) {
   c.expect("Value('Kiv::KivSegmentHwInfo', ** {", "value");
   c.expect("'vrfPrefix': ", "vrfPrefix");
   vrfPrefix_ = parseField("vrfPrefix", [&] { return VrfAndIpGenPrefix(c); });
   c.expect(", 'operation': ", "operation");
   operation_ = parseOperation(c);
   c.expect(", 'hwId': ", "hwId");
   hwId_ = parseField("hwId", [&] { return SegmentHwId(c); });
   c.expect("})", "value");
}

bool KivSegmentHwInfo::operator==(const KivSegmentHwInfo& o) const {
   return vrfPrefix_ == o.vrfPrefix_ && operation_ == o.operation_ && hwId_ == o.hwId_;
}

bool KivSegmentHwInfo::operator<(const KivSegmentHwInfo& o) const {
   if (vrfPrefix_ != o.vrfPrefix_) {
      return vrfPrefix_ < o.vrfPrefix_;
   }
   if (operation_ != o.operation_) {
      return int32_t(operation_) < int32_t(o.operation_);
   }
   return hwId_.value() < o.hwId_.value();
}

Zop::String valueToStrep(const KivSegmentHwInfo& v) {
   return "Value('Kiv::KivSegmentHwInfo', ** {'vrfPrefix': " + valueToStrep(v.vrfPrefix()) +
          ", 'operation': " + valueToStrep(v.operation()) + ", 'hwId': " + valueToStrep(v.hwId()) +
          "})";
}

std::ostream& operator<<(std::ostream& os, const KivSegmentHwInfo& v) {
   return os << valueToStrep(v);
}

// ---- KivSegmentRouteInfo ----

KivSegmentRouteInfo::KivSegmentRouteInfo(Zop::TextCursor& c) {
   c.expect("Value('Kiv::KivSegmentRouteInfo', ** {", "value");
   c.expect("'vrfPrefix': ", "vrfPrefix");
   vrfPrefix_ = parseField("vrfPrefix", [&] { return VrfAndIpGenPrefix(c); });
   c.expect(", 'hwId': ", "hwId");
   hwId_ = parseField("hwId", [&] { return SegmentHwId(c); });
   c.expect(", 'routeInfo': ", "routeInfo");
   routeInfo_ = parseField("routeInfo", [&] { return RouteInfo(c); });
   c.expect("})", "value");
}

Zop::String valueToStrep(const KivSegmentRouteInfo& v) {
   return "Value('Kiv::KivSegmentRouteInfo', ** {'vrfPrefix': " + valueToStrep(v.vrfPrefix()) +
          ", 'hwId': " + valueToStrep(v.hwId()) + ", 'routeInfo': " + valueToStrep(v.routeInfo()) +
          "})";
}

std::ostream& operator<<(std::ostream& os, const KivSegmentRouteInfo& v) {
   return os << valueToStrep(v);
}

// ---- Collections ----

VrfPrefixCollection::VrfPrefixCollection(Membership m) {
   if (m == Membership::queue) {
      byQueue_ = std::make_unique<ByQueue>(&Notifiee::handleVrfIpGenPrefix);
   }
}

void VrfPrefixCollection::recordsToReviewIs(const RecordScope& r) {
   recordsToReview_.push_back(r);
   notifiees_.notify(this, [](Notifiee& n) { n.handleRecordsToReview(); });
}

void VrfPrefixCollection::segmentPrefixesToReviewIs(const SegmentPrefixScope& s) {
   segmentPrefixesToReview_.push_back(s);
   notifiees_.notify(this, [](Notifiee& n) { n.handleRecordsToReview(); });
}

void KivSegmentRouteInfoColl::routeInfoIs(const KivSegmentRouteInfo& r) {
   // Most often the key just asked about: a record written after a look.
   const KivSegmentRouteInfo* old = routeInfoFind(r.vrfPrefix());
   foundKey_.reset();
   if (!old || old->hwId() != r.hwId()) {
      if (old) {
         auto group = byHwId_.find({old->vrfPrefix().vrfId(), old->hwId()});
         group->second.erase(old->vrfPrefix());
         if (group->second.empty()) {
            byHwId_.erase(group);
         }
      }
      byHwId_[{r.vrfPrefix().vrfId(), r.hwId()}].insert(r.vrfPrefix());
   }
   routeInfo_.is(*this, r.vrfPrefix(), r);
}

KivSegmentRouteInfo KivSegmentRouteInfoColl::routeInfoDel(const VrfAndIpGenPrefix& k) {
   const KivSegmentRouteInfo* recorded = routeInfoFind(k);
   foundKey_.reset();
   if (recorded) {
      auto group = byHwId_.find({k.vrfId(), recorded->hwId()});
      group->second.erase(k);
      if (group->second.empty()) {
         byHwId_.erase(group);
      }
   }
   auto old = routeInfo_.del(*this, k);
   return old ? *old : KivSegmentRouteInfo();
}

void KivSegmentRouteInfoColl::routeInfoDelAll() {
   // One at a time, so that the index agrees with the records whenever a
   // handler looks.
   Zop::Ptr<KivSegmentRouteInfoColl> hold(references() > 0 ? this : nullptr);
   while (routeInfoCount() != 0) {
      routeInfoDel(routeInfo_.begin()->first);
   }
}

const std::set<VrfAndIpGenPrefix>& KivSegmentRouteInfoColl::routeInfoWithHwId(
    VrfId vrfId, SegmentHwId hwId) const {
   static const std::set<VrfAndIpGenPrefix> kNone;
   auto group = byHwId_.find({vrfId, hwId});
   return group == byHwId_.end() ? kNone : group->second;
}

Zop::Ptr<VrfTrieGen> KivSegmentPrefixTrie::vrfTrieIs(VrfId vrfId) {
   auto vrfTrieGen = vrfTrieGenFactory(vrfId);
   vrfTrie_.is(*this, vrfId, vrfTrieGen);
   return vrfTrieGen;
}

Zop::Ptr<Routing::TrieGen> KivSegmentPrefixTrie::getPrefixTrie(VrfId vrfId,
                                                               Pexo::AddressFamily af) {
   Zop::Ptr<VrfTrieGen> vrfTrieGen = vrfTrie(vrfId);
   if (!vrfTrieGen) {
      // Both families come into being together, whichever was asked for.
      vrfTrieGen = vrfTrieIs(vrfId);
      vrfTrieGen->prefixTrieIs(Pexo::AddressFamily::ipv4,
                               Routing::trieGenFactory("v4Trie", Pexo::AddressFamily::ipv4));
      vrfTrieGen->prefixTrieIs(Pexo::AddressFamily::ipv6,
                               Routing::trieGenFactory("v6Trie", Pexo::AddressFamily::ipv6));
   }
   return vrfTrieGen->prefixTrie(af);
}

Zop::Ptr<VrfPrefixCollection> vrfPrefixCollectionFactory(VrfPrefixCollection::Membership m) {
   return Zop::makePtr<VrfPrefixCollection>(m);
}
Zop::Ptr<KivSegmentRouteInfoColl> kivSegmentRouteInfoCollFactory() {
   return Zop::makePtr<KivSegmentRouteInfoColl>();
}
Zop::Ptr<PrefixCount> prefixCountFactory() {
   return Zop::makePtr<PrefixCount>();
}
Zop::Ptr<SegmentPrefixCount> segmentPrefixCountFactory(SegmentHwId hwId) {
   return Zop::makePtr<SegmentPrefixCount>(hwId);
}
Zop::Ptr<VrfTrieGen> vrfTrieGenFactory(VrfId vrfId) {
   return Zop::makePtr<VrfTrieGen>(vrfId);
}
Zop::Ptr<KivSegmentPrefixTrie> kivSegmentPrefixTrieFactory() {
   return Zop::makePtr<KivSegmentPrefixTrie>();
}

}  // namespace Kiv

size_t std::hash<Kiv::KivSegmentHwInfo>::operator()(const Kiv::KivSegmentHwInfo& v) const noexcept {
   size_t h = Pexo::hashValue(v.vrfPrefix());
   h = Pexo::hashCombine(h, uint64_t(uint32_t(v.operation())));
   return Pexo::hashCombine(h, v.hwId().value());
}

size_t std::hash<Kiv::KivSegmentRouteInfo>::operator()(
    const Kiv::KivSegmentRouteInfo& v) const noexcept {
   size_t h = Pexo::hashCombine(Pexo::hashValue(v.vrfPrefix()), v.hwId().value());
   return Pexo::hashCombine(h, std::hash<RouteInfo>()(v.routeInfo()));
}
