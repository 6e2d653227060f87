#pragma once
// The segment feature's shared model: the value records handed from part to
// part, and the shared collections and tries the reactors and the CLI work on.
//
// Values (plain, copied, hashed; each with a one-line text form that parses
// back to an equal value):
//   KivSegmentRouteOperationType  what is to be done to a segment prefix
//   KivSegmentHwInfo              one requested hardware action
//   KivSegmentRouteInfo           one prefix as installed in hardware
//
// Shared collections (notifying entities, created by their factories and held
// by Zop::Ptr by every part that uses them):
//   VrfPrefixCollection      a review list of (VRF id, prefix) keys
//   KivSegmentRouteInfoColl  the installed segment routes, and the
//                            reviewSegmentHwId change signal
//   SegmentPrefixCount       installed prefixes of one hw id
//   PrefixCount              the SegmentPrefixCount of every hw id
//   VrfTrieGen               one VRF's segment tries, per family
//   KivSegmentPrefixTrie     the VrfTrieGen of every VRF

#include <cstdint>
#include <deque>
#include <iosfwd>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <utility>

#include "Kiv/KivExport.h"
#include "Pexo/VrfId.h"
#include "Routing/RouteInfo.h"
#include "Routing/Trie.h"
#include "Zop/Attr.h"
#include "Zop/Ptr.h"
#include "Zop/TextCursor.h"

namespace Kiv {

// ---- KivSegmentRouteOperationType ----

enum KivSegmentRouteOperationType : int32_t {
   segmentRouteAdd = 0,
   segmentRouteDelete = 1,
   segmentRouteHwIdUpdate = 2,
   fibOnlyRouteHwIdUpdate = 3,
   routeActionInvalid = 4,
};

// The value's name exactly as the enumerator is spelled.
KIV_EXPORT Zop::String stringValue(KivSegmentRouteOperationType op);
KIV_EXPORT Zop::String valueToStrep(KivSegmentRouteOperationType op);
// Parses a name back; an unknown name raises Zop::RangeError.
KIV_EXPORT KivSegmentRouteOperationType sequenceToValue(std::string_view name);
KIV_EXPORT std::ostream& operator<<(std::ostream& os, KivSegmentRouteOperationType op);

// ---- KivSegmentHwInfo ----

class KIV_EXPORT KivSegmentHwInfo {
public:
   KivSegmentHwInfo() = default;
   KivSegmentHwInfo(const VrfAndIpGenPrefix& vrfPrefix, KivSegmentRouteOperationType operation,
                    SegmentHwId hwId)
       : vrfPrefix_(vrfPrefix), operation_(operation), hwId_(hwId) {}
   // Parses the text form from the cursor (see valueToStrep).
   explicit KivSegmentHwInfo(Zop::TextCursor& c);

   const VrfAndIpGenPrefix& vrfPrefix() const { return vrfPrefix_; }
   KivSegmentRouteOperationType operation() const { return operation_; }
   SegmentHwId hwId() const { return hwId_; }
   void vrfPrefixIs(const VrfAndIpGenPrefix& v) { vrfPrefix_ = v; }
   void operationIs(KivSegmentRouteOperationType op) { operation_ = op; }
   void hwIdIs(SegmentHwId id) { hwId_ = id; }

   bool operator==(const KivSegmentHwInfo& o) const;
   // vrfPrefix first, then the operation as a signed number, then the hw id.
   bool operator<(const KivSegmentHwInfo& o) const;

private:
   VrfAndIpGenPrefix vrfPrefix_;
   KivSegmentRouteOperationType operation_ = routeActionInvalid;
   SegmentHwId hwId_;
};

// "Value('Kiv::KivSegmentHwInfo', ** {'vrfPrefix': %s, 'operation': %s, 'hwId': %s})"
KIV_EXPORT Zop::String valueToStrep(const KivSegmentHwInfo& v);
KIV_EXPORT std::ostream& operator<<(std::ostream& os, const KivSegmentHwInfo& v);

// ---- KivSegmentRouteInfo ----

class KIV_EXPORT KivSegmentRouteInfo {
public:
   // VRF id 0, empty prefix, hw id 65535, empty route info.
   KivSegmentRouteInfo() = default;
   KivSegmentRouteInfo(const VrfAndIpGenPrefix& vrfPrefix, SegmentHwId hwId,
                       const RouteInfo& routeInfo)
       : vrfPrefix_(vrfPrefix), hwId_(hwId), routeInfo_(routeInfo) {}
   explicit KivSegmentRouteInfo(Zop::TextCursor& c);

   const VrfAndIpGenPrefix& vrfPrefix() const { return vrfPrefix_; }
   SegmentHwId hwId() const { return hwId_; }
   const RouteInfo& routeInfo() const { return routeInfo_; }
   void hwIdIs(SegmentHwId id) { hwId_ = id; }
   void routeInfoIs(const RouteInfo& r) { routeInfo_ = r; }

   bool operator==(const KivSegmentRouteInfo& o) const = default;

private:
   VrfAndIpGenPrefix vrfPrefix_;
   SegmentHwId hwId_;
   RouteInfo routeInfo_;
};

// "Value('Kiv::KivSegmentRouteInfo', ** {'vrfPrefix': %s, 'hwId': %s, 'routeInfo': %s})"
KIV_EXPORT Zop::String valueToStrep(const KivSegmentRouteInfo& v);
KIV_EXPORT std::ostream& operator<<(std::ostream& os, const KivSegmentRouteInfo& v);

// Which records a walk of the records visits: every record (no VRF), a
// VRF's, or a VRF's records that carry one hw id.
struct RecordScope {
   std::optional<VrfId> vrfId;
   std::optional<SegmentHwId> hwId;  // only with a VRF
};

// The configured prefixes of one segment of a VRF.
struct SegmentPrefixScope {
   VrfId vrfId;
   Zop::String segment;
};

// ---- VrfPrefixCollection ----

// A review list: (VRF id, prefix) keys waiting to be examined.
//
// Its members are kept one of two ways:
// - Membership::set, for a list taken member by member from its set
//   (vrfIpGenPrefixFirst): the segment prefix review. A hash order up to a
//   few thousand members, key order beyond (Zop::HashThenOrderedSet). No
//   queue is kept: front is the set's first member.
// - Membership::queue, for a list taken only in queue order
//   (vrfIpGenPrefixFront): the FIB route review. Range walks fill it in
//   prefix order by the million and the review drains it in the same order:
//   its members are kept as they came, each new one past the last
//   (Zop::AscendingRunSet), where a hash set would look a cache miss away in
//   a table of a million.
class KIV_EXPORT VrfPrefixCollection : public Zop::PtrInterface {
public:
   class Notifiee : public Zop::BaseNotifiee<VrfPrefixCollection> {
   public:
      virtual void handleVrfIpGenPrefix(const VrfAndIpGenPrefix&) {}
      virtual void handleRecordsToReview() {}
   };
   enum class Membership { set, queue };

private:
   using BySet = Zop::ReviewSetAttr<VrfPrefixCollection, VrfAndIpGenPrefix,
                                    Zop::HashThenOrderedSet<VrfAndIpGenPrefix>>;
   using ByQueue = Zop::QueueSetAttr<VrfPrefixCollection, VrfAndIpGenPrefix,
                                     Zop::AscendingRunSet<VrfAndIpGenPrefix>,
                                     Zop::OrderedWorkSet<VrfAndIpGenPrefix>>;
   template <class F>
   decltype(auto) visit(F&& f) {
      return byQueue_ ? f(*byQueue_) : f(bySet_);
   }
   template <class F>
   decltype(auto) visit(F&& f) const {
      return byQueue_ ? f(std::as_const(*byQueue_)) : f(bySet_);
   }

public:
   explicit VrfPrefixCollection(Membership m = Membership::set);

   void vrfIpGenPrefixIs(const VrfAndIpGenPrefix& k) {
      visit([&](auto& q) { q.is(*this, k); });
   }
   void vrfIpGenPrefixDel(const VrfAndIpGenPrefix& k) {
      visit([&](auto& q) { q.del(*this, k); });
   }
   void vrfIpGenPrefixDelAll() {
      visit([&](auto& q) { q.delAll(*this); });
   }
   bool vrfIpGenPrefixHas(const VrfAndIpGenPrefix& k) const {
      return visit([&](const auto& q) { return q.has(k); });
   }
   size_t vrfIpGenPrefixCount() const {
      return visit([](const auto& q) { return q.size(); });
   }
   // The first member in the set's own order (see Membership::set); the
   // list must not be empty.
   const VrfAndIpGenPrefix& vrfIpGenPrefixFirst() const {
      return visit([](const auto& q) -> const VrfAndIpGenPrefix& { return *q.begin(); });
   }
   // f(key) for every member, in the set's own order; f must not change
   // the list.
   template <class F>
   void vrfIpGenPrefixForEach(F&& f) const {
      visit([&](const auto& q) {
         for (const VrfAndIpGenPrefix& k : q) {
            f(k);
         }
      });
   }
   // The key queued longest ago (Membership::set: the set's first member);
   // the list must not be empty.
   const VrfAndIpGenPrefix& vrfIpGenPrefixFront() const {
      return visit([](const auto& q) -> const VrfAndIpGenPrefix& { return q.front(); });
   }

   // A queue list's numbering of the keys put at its back (see
   // Zop::QueueSetAttr): queuedNumber() is the number the next one gets,
   // every key numbered at or above queuedTakenBound() still waits, while
   // queuedOutOfOrder() stays where it was when the key was numbered. A set
   // list numbers nothing: no key is known to wait.
   uint64_t queuedNumber() const { return byQueue_ ? byQueue_->pushed() : 0; }
   uint64_t queuedTakenBound() const { return byQueue_ ? byQueue_->takenBound() : UINT64_MAX; }
   uint64_t queuedOutOfOrder() const { return byQueue_ ? byQueue_->outOfOrder() : 0; }

   // A whole table's worth of records to queue. Whoever drains the list
   // takes the request (recordsToReviewTake) and queues the records itself,
   // a piece at a time, so that a teardown or the removal of a large segment
   // does not queue a million keys in one handler. Until then the request
   // counts as pending work of the list.
   void recordsToReviewIs(const RecordScope& r);
   std::deque<RecordScope> recordsToReviewTake() { return std::move(recordsToReview_); }
   // The same for a segment's configured prefixes (a segment whose id was
   // just granted), taken by segmentPrefixesToReviewTake.
   void segmentPrefixesToReviewIs(const SegmentPrefixScope& s);
   std::deque<SegmentPrefixScope> segmentPrefixesToReviewTake() {
      return std::move(segmentPrefixesToReview_);
   }
   size_t recordsToReviewCount() const {
      return recordsToReview_.size() + segmentPrefixesToReview_.size();
   }

   Zop::NotifierList<Notifiee>& notifieeList() { return notifiees_; }

   // Below this many records (or prefixes) a table is queued at once, by the
   // handler that wants it reviewed: well under a slice.
   static constexpr size_t kQueueAtOnce = 1024;

private:
   std::deque<RecordScope> recordsToReview_;
   std::deque<SegmentPrefixScope> segmentPrefixesToReview_;
   Zop::NotifierList<Notifiee> notifiees_;
   BySet bySet_{&Notifiee::handleVrfIpGenPrefix};
   std::unique_ptr<ByQueue> byQueue_;  // set for Membership::queue
};

// ---- KivSegmentRouteInfoColl ----

class KIV_EXPORT KivSegmentRouteInfoColl : public Zop::PtrInterface {
public:
   class Notifiee : public Zop::BaseNotifiee<KivSegmentRouteInfoColl> {
   public:
      virtual void handleRouteInfo(const VrfAndIpGenPrefix&) {}
      virtual void handleReviewSegmentHwId() {}
   };

   // Inserts or overwrites the record under its own vrfPrefix; notifies only
   // when something changed.
   void routeInfoIs(const KivSegmentRouteInfo& r);
   // The removed record; a default one (hw id 65535) when absent.
   KivSegmentRouteInfo routeInfoDel(const VrfAndIpGenPrefix& k);
   void routeInfoDelAll();
   // The record; a default one when absent.
   KivSegmentRouteInfo routeInfo(const VrfAndIpGenPrefix& k) const { return routeInfo_.get(k); }
   const KivSegmentRouteInfo* routeInfoFind(const VrfAndIpGenPrefix& k) const {
      // The FIB route review asks for the same covering prefix's record for
      // one route after another, and the segment review asks whether a
      // prefix has a record before it writes one: the answer found last,
      // absent or not, is kept at hand until the records change.
      if (!foundKey_ || *foundKey_ != k) {
         found_ = routeInfo_.find(k);
         foundKey_ = k;
      }
      return found_;
   }
   bool routeInfoHas(const VrfAndIpGenPrefix& k) const { return routeInfoFind(k) != nullptr; }
   size_t routeInfoCount() const { return routeInfo_.size(); }
   // Room for `expected` records, made while there are still few: a map that
   // grows one rehash at a time rehashes every record at each doubling, one
   // long item of whichever run adds the record (15 ms at 100,000). Only for
   // a large table, so that a small one keeps the hash order its records are
   // queued in.
   void routeInfoExpectedIs(size_t expected) {
      if (expected >= kSizeAheadFrom && expected > routeInfo_.members().bucket_count() &&
          8 * routeInfo_.size() < expected) {
         foundKey_.reset();
         routeInfo_.reserve(expected);
      }
   }
   static constexpr size_t kSizeAheadFrom = 16384;
   const auto& routeInfo() const { return routeInfo_; }
   // The keys of the VRF's records that carry `hwId`, in key order (empty
   // when there are none): a segment's records without a walk of every
   // record. Up to date before any handler hears of a change.
   const std::set<VrfAndIpGenPrefix>& routeInfoWithHwId(VrfId vrfId, SegmentHwId hwId) const;
   // Where a walk of records stands: the last record visited.
   struct RecordBookmark {
      SegmentHwId hwId;
      VrfAndIpGenPrefix key;
   };
   // Calls f(hwId, key) for the records of `scope` that come after `after`
   // (all of them without one), by VRF, hw id and then key, until f answers
   // false. A walk may stop and go on later from its last record, whatever
   // changed meanwhile: records added behind the bookmark are not met.
   // (`after` is a copy: f may move the caller's bookmark as it goes.)
   template <class F>
   void routeInfoIn(const RecordScope& scope, std::optional<RecordBookmark> after, F&& f) const {
      auto group = byHwId_.begin();
      if (after) {
         group = byHwId_.lower_bound({after->key.vrfId(), after->hwId});
      } else if (scope.vrfId) {
         group = byHwId_.lower_bound({*scope.vrfId, scope.hwId.value_or(SegmentHwId(0))});
      }
      for (; group != byHwId_.end(); ++group) {
         if ((scope.vrfId && group->first.first != *scope.vrfId) ||
             (scope.hwId && group->first.second != *scope.hwId)) {
            return;
         }
         auto key = after && group->first == std::pair(after->key.vrfId(), after->hwId)
                        ? group->second.upper_bound(after->key)
                        : group->second.begin();
         for (; key != group->second.end(); ++key) {
            if (!f(group->first.second, *key)) {
               return;
            }
         }
      }
   }

   uint32_t reviewSegmentHwId() const { return reviewSegmentHwId_.get(); }
   void reviewSegmentHwIdIs(uint32_t n) { reviewSegmentHwId_.is(*this, n); }
   // Wraps around at 2^32.
   void reviewSegmentHwIdInc(uint32_t n) { reviewSegmentHwId_.inc(*this, n); }

   Zop::NotifierList<Notifiee>& notifieeList() { return notifiees_; }

private:
   Zop::NotifierList<Notifiee> notifiees_;
   Zop::HashMapAttr<KivSegmentRouteInfoColl, VrfAndIpGenPrefix, KivSegmentRouteInfo> routeInfo_{
       &Notifiee::handleRouteInfo};
   // The last key asked and its record (nullptr: none); forgotten at every
   // change.
   mutable std::optional<VrfAndIpGenPrefix> foundKey_;
   mutable const KivSegmentRouteInfo* found_ = nullptr;
   // The record keys by (VRF id, hw id).
   std::map<std::pair<VrfId, SegmentHwId>, std::set<VrfAndIpGenPrefix>> byHwId_;
   Zop::ScalarAttr<KivSegmentRouteInfoColl, uint32_t> reviewSegmentHwId_{
       &Notifiee::handleReviewSegmentHwId, 0};
};

// ---- SegmentPrefixCount / PrefixCount ----

// Installed prefixes that carry one hw id. Plain counter without
// notification; its users keep it non-negative.
class KIV_EXPORT SegmentPrefixCount : public Zop::PtrInterface {
public:
   explicit SegmentPrefixCount(SegmentHwId hwId) : hwId_(hwId) {}
   SegmentHwId hwId() const { return hwId_; }
   int32_t prefixCount() const { return prefixCount_; }
   void prefixCountIs(int32_t n) { prefixCount_ = n; }
   void prefixCountInc(int32_t n) { prefixCount_ += n; }
   void prefixCountDec(int32_t n) { prefixCount_ -= n; }

private:
   const SegmentHwId hwId_;
   int32_t prefixCount_ = 0;
};

class KIV_EXPORT PrefixCount : public Zop::PtrInterface {
public:
   class Notifiee : public Zop::BaseNotifiee<PrefixCount> {
   public:
      virtual void handleSegmentPrefixCount(const SegmentHwId&) {}
   };

   // Stores the element under its own hw id (replacing another element there).
   void segmentPrefixCountIs(const Zop::Ptr<SegmentPrefixCount>& c) {
      segmentPrefixCount_.is(*this, c->hwId(), c);
   }
   void segmentPrefixCountDel(SegmentHwId id) { segmentPrefixCount_.del(*this, id); }
   void segmentPrefixCountDelAll() { segmentPrefixCount_.delAll(*this); }
   Zop::Ptr<SegmentPrefixCount> segmentPrefixCount(SegmentHwId id) const {
      return segmentPrefixCount_.get(id);
   }
   bool segmentPrefixCountHas(SegmentHwId id) const { return segmentPrefixCount_.has(id); }
   const auto& segmentPrefixCount() const { return segmentPrefixCount_; }

   Zop::NotifierList<Notifiee>& notifieeList() { return notifiees_; }

private:
   Zop::NotifierList<Notifiee> notifiees_;
   Zop::HashMapAttr<PrefixCount, SegmentHwId, Zop::Ptr<SegmentPrefixCount>> segmentPrefixCount_{
       &Notifiee::handleSegmentPrefixCount};
};

// ---- VrfTrieGen / KivSegmentPrefixTrie ----

class KIV_EXPORT VrfTrieGen : public Zop::PtrInterface {
public:
   class Notifiee : public Zop::BaseNotifiee<VrfTrieGen> {
   public:
      virtual void handlePrefixTrie(const Pexo::AddressFamily&) {}
   };

   explicit VrfTrieGen(VrfId vrfId) : vrfId_(vrfId) {}
   VrfId vrfId() const { return vrfId_; }

   void prefixTrieIs(Pexo::AddressFamily af, const Zop::Ptr<Routing::TrieGen>& trie) {
      prefixTrie_.is(*this, af, trie);
   }
   void prefixTrieDel(Pexo::AddressFamily af) { prefixTrie_.del(*this, af); }
   void prefixTrieDelAll() { prefixTrie_.delAll(*this); }
   // The family's trie, or null.
   Zop::Ptr<Routing::TrieGen> prefixTrie(Pexo::AddressFamily af) const {
      return prefixTrie_.get(af);
   }

   Zop::NotifierList<Notifiee>& notifieeList() { return notifiees_; }

private:
   const VrfId vrfId_;
   Zop::NotifierList<Notifiee> notifiees_;
   Zop::OrderedMapAttr<VrfTrieGen, Pexo::AddressFamily, Zop::Ptr<Routing::TrieGen>> prefixTrie_{
       &Notifiee::handlePrefixTrie};
};

class KIV_EXPORT KivSegmentPrefixTrie : public Zop::PtrInterface {
public:
   class Notifiee : public Zop::BaseNotifiee<KivSegmentPrefixTrie> {
   public:
      virtual void handleVrfTrie(const VrfId&) {}
   };

   // Creates (through vrfTrieGenFactory) and stores an empty VrfTrieGen.
   Zop::Ptr<VrfTrieGen> vrfTrieIs(VrfId vrfId);
   void vrfTrieDel(VrfId vrfId) { vrfTrie_.del(*this, vrfId); }
   void vrfTrieDelAll() { vrfTrie_.delAll(*this); }
   // The VRF's tries, or null; creates nothing.
   Zop::Ptr<VrfTrieGen> vrfTrie(VrfId vrfId) const { return vrfTrie_.get(vrfId); }
   const auto& vrfTrie() const { return vrfTrie_; }

   // The trie of (VRF, family). The first call for a VRF creates both its
   // tries ("v4Trie" and "v6Trie"); later calls create nothing, so a family
   // whose trie was deleted stays without one (null).
   Zop::Ptr<Routing::TrieGen> getPrefixTrie(VrfId vrfId, Pexo::AddressFamily af);

   Zop::NotifierList<Notifiee>& notifieeList() { return notifiees_; }

private:
   Zop::NotifierList<Notifiee> notifiees_;
   Zop::HashMapAttr<KivSegmentPrefixTrie, VrfId, Zop::Ptr<VrfTrieGen>> vrfTrie_{
       &Notifiee::handleVrfTrie};
};

// ---- Factories ----

KIV_EXPORT Zop::Ptr<VrfPrefixCollection> vrfPrefixCollectionFactory(
    VrfPrefixCollection::Membership m = VrfPrefixCollection::Membership::set);
KIV_EXPORT Zop::Ptr<KivSegmentRouteInfoColl> kivSegmentRouteInfoCollFactory();
KIV_EXPORT Zop::Ptr<PrefixCount> prefixCountFactory();
KIV_EXPORT Zop::Ptr<SegmentPrefixCount> segmentPrefixCountFactory(SegmentHwId hwId);
KIV_EXPORT Zop::Ptr<VrfTrieGen> vrfTrieGenFactory(VrfId vrfId);
KIV_EXPORT Zop::Ptr<KivSegmentPrefixTrie> kivSegmentPrefixTrieFactory();

}  // namespace Kiv

template <>
struct std::hash<Kiv::KivSegmentHwInfo> {
   size_t operator()(const Kiv::KivSegmentHwInfo& v) const noexcept;
};
template <>
struct std::hash<Kiv::KivSegmentRouteInfo> {
   size_t operator()(const Kiv::KivSegmentRouteInfo& v) const noexcept;
};
