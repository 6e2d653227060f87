#pragma once
// A hash set for work lists that fill by the hundred thousand and drain again:
// the review lists of a table-wide review.
//
// Small, it is a plain std::unordered_set: same iteration order, same growth.
// That order is what a list taken member by member in hash order is processed
// in, so a small list behaves exactly as it always has.
//
// Past a few thousand members it becomes an open-addressing table with the
// keys inline (linear probing, each slot holding its key and the low half of
// its hash): no allocation per key and, mostly, one cache miss per lookup,
// where a node-based set costs an allocation, a free and two or three misses
// per member at a million members. It never grows in one go: the full table
// is set aside and a table of twice the slots takes new members, and every
// insertion or removal moves the next few slots of the old table across, so
// no single call rehashes a quarter million keys. Nearly drained, it shrinks
// the same way, and a table being emptied gives its memory back a piece at a
// time (see OpenTable::killBelow), so that no call frees a 96 MB table.
//
// Iteration visits the old table (what is left of it), then the new one: a
// hash order, the same for the same history. begin() is cheap however many
// members were taken from the front: each table remembers where its first
// member may be.
//
// GrowingMap is the same stepped table holding a key and its value: for the
// maps of one entry per watched prefix or per FEC, which a full table's
// enable fills by the hundred thousand.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <new>
#include <optional>
#include <type_traits>
#include <unordered_set>
#include <utility>

#include "Zop/TableMemory.h"

namespace Zop {

namespace detail {

// Linear-probing table of entries inline (a key, or a key and its value). A
// removal shifts the rest of the probe run back (no tombstones) unless the
// table is being emptied into a larger one: then removals and moved slots
// are only marked, so that the run of a key not yet moved stays intact and
// the move's position stays valid.
template <class Entry, class KeyOf>
class OpenTable {
public:
   using Key = std::remove_cvref_t<decltype(KeyOf()(std::declval<const Entry&>()))>;
   static constexpr size_t npos = ~size_t(0);

   OpenTable() = default;
   explicit OpenTable(size_t capacity)
       : memory_(tableMemoryAllocate(capacity * sizeof(Slot))),
         slots_(static_cast<Slot*>(memory_.at)),
         mask_(capacity - 1),
         first_(capacity) {}
   OpenTable(OpenTable&& o) noexcept { swap(o); }
   OpenTable& operator=(OpenTable&& o) noexcept {
      OpenTable gone(std::move(o));
      swap(gone);
      return *this;
   }
   ~OpenTable() {
      if constexpr (!std::is_trivially_destructible_v<Entry>) {
         for (size_t i = 0; i < capacity(); ++i) {
            if (slots_[i].state == kLive) {
               slots_[i].entry().~Entry();
            }
         }
      }
      tableMemoryFree(memory_);
   }

   size_t capacity() const { return slots_ ? mask_ + 1 : 0; }
   size_t size() const { return live_; }
   bool empty() const { return live_ == 0; }
   // Room for one more without passing three quarters full.
   bool hasRoom() const { return 4 * (live_ + 1) <= 3 * capacity(); }

   size_t find(const Key& k, uint32_t h) const {
      if (live_ == 0) {
         return npos;
      }
      // A probe that starts or wraps into the dead slots goes on past them:
      // they only ever held entries that were moved out (see killBelow).
      size_t i = std::max(size_t(h & mask_), deadBelow_);
      for (size_t n = 0; n <= mask_; ++n) {
         const Slot& s = slots_[i];
         if (s.state == kEmpty) {
            return npos;
         }
         if (s.state == kLive && s.hash == h && KeyOf()(s.entry()) == k) {
            return i;
         }
         i = std::max((i + 1) & mask_, deadBelow_);
      }
      return npos;
   }
   // The entry's key must not be present, and the table must have room.
   template <class E>
   size_t insertNew(E&& e, uint32_t h) {
      size_t i = h & mask_;
      while (slots_[i].state != kEmpty) {
         i = (i + 1) & mask_;
      }
      new (slots_[i].storage) Entry(std::forward<E>(e));
      slots_[i].state = kLive;
      slots_[i].hash = h;
      ++live_;
      first_ = std::min(first_, i);
      return i;
   }
   // Removes slot i, moving later entries of its probe run back.
   void eraseShift(size_t i) {
      --live_;
      slots_[i].entry().~Entry();
      for (size_t j = (i + 1) & mask_;; j = (j + 1) & mask_) {
         Slot& s = slots_[j];
         if (s.state == kEmpty) {
            break;
         }
         // s may fill the hole at i unless its home lies cyclically in (i, j].
         const size_t home = s.hash & mask_;
         const bool stays = i <= j ? (i < home && home <= j) : (i < home || home <= j);
         if (!stays) {
            new (slots_[i].storage) Entry(std::move(s.entry()));
            s.entry().~Entry();
            slots_[i].hash = s.hash;
            slots_[i].state = kLive;
            i = j;
         }
      }
      slots_[i].state = kEmpty;
   }
   // Removes slot i, leaving a mark that lookups step over.
   void eraseMark(size_t i) {
      slots_[i].entry().~Entry();
      slots_[i].state = kMarked;
      --live_;
   }
   bool liveAt(size_t i) const { return slots_[i].state == kLive; }
   Entry& entryAt(size_t i) { return slots_[i].entry(); }
   const Entry& entryAt(size_t i) const { return slots_[i].entry(); }
   uint32_t hashAt(size_t i) const { return slots_[i].hash; }
   // The first entry at or after i, or capacity().
   size_t nextLive(size_t i) const {
      const size_t cap = capacity();
      i = std::max(i, deadBelow_);
      while (i < cap && slots_[i].state != kLive) {
         ++i;
      }
      return i;
   }
   // The first entry: none lies before first_, which only insertions lower,
   // so draining from the front does not rescan what it emptied.
   size_t firstLive() const {
      first_ = nextLive(std::min(first_, capacity()));
      return first_;
   }
   // Slots below n hold no entry and never will again: a table being emptied
   // into another from its start. Lookups and iteration skip them, and their
   // memory goes back to the kernel a piece at a time, so that freeing the
   // table at the end of the move unmaps little: a 96 MB table given back at
   // once was a 4 ms item.
   void killBelow(size_t n) {
      deadBelow_ = n;
      constexpr size_t kPiece = 64 * 1024;
      const size_t to = n * sizeof(Slot);
      if (to >= released_ + kPiece) {
         tableMemoryRelease(memory_, released_, to);
         released_ = to;
      }
   }

private:
   static constexpr uint8_t kEmpty = 0, kLive = 1, kMarked = 2;
   // Slots come zeroed (Zop/TableMemory.h), which is an empty slot: a table
   // of a million slots is then pages the kernel hands out as they are first
   // touched, not 50 MB cleared inside the one insertion that grew the list.
   // An entry is constructed in its slot's storage when it arrives and
   // destroyed when it leaves, so entries that own memory (a value that is a
   // list) may live here too.
   struct Slot {
      uint32_t hash;
      uint8_t state;
      alignas(Entry) unsigned char storage[sizeof(Entry)];
      Entry& entry() { return *std::launder(reinterpret_cast<Entry*>(storage)); }
      const Entry& entry() const { return *std::launder(reinterpret_cast<const Entry*>(storage)); }
   };
   void swap(OpenTable& o) noexcept {
      std::swap(deadBelow_, o.deadBelow_);
      std::swap(released_, o.released_);
      std::swap(memory_, o.memory_);
      std::swap(slots_, o.slots_);
      std::swap(mask_, o.mask_);
      std::swap(live_, o.live_);
      std::swap(first_, o.first_);
   }
   TableMemory memory_;
   Slot* slots_ = nullptr;
   size_t mask_ = 0;
   size_t live_ = 0;
   mutable size_t first_ = 0;
   size_t deadBelow_ = 0;
   size_t released_ = 0;  // bytes from the start given back by killBelow
};

// An OpenTable that never grows (or shrinks) in one go: the full table is set
// aside and a table of twice the slots (a quarter, once under a sixteenth
// full) takes new entries, and every insertion or removal moves the next few
// slots of the old table across. A position names a slot of one of the two
// tables; it stays valid until the next insertion or removal.
template <class Entry, class KeyOf, class Hash>
class SteppedTable {
public:
   using Table = OpenTable<Entry, KeyOf>;
   using Key = typename Table::Key;
   struct Pos {
      bool inOld = false;
      size_t at = 0;
      friend bool operator==(const Pos&, const Pos&) = default;
   };

   // The hash spread once more: std::hash of an integer is the integer, and
   // linear probing wants neighbouring keys far apart.
   static uint32_t hashOf(const Key& k) {
      return uint32_t((uint64_t(Hash()(k)) * 0x9e3779b97f4a7c15ULL) >> 32);
   }

   std::optional<Pos> find(const Key& k) const { return locate(k, hashOf(k)); }
   // The entry of e's key, and whether it was inserted (as e) just now: one
   // hash for the lookup and the insertion.
   std::pair<Pos, bool> insert(const Entry& e) {
      const uint32_t h = hashOf(KeyOf()(e));
      if (std::optional<Pos> at = locate(KeyOf()(e), h)) {
         return {*at, false};
      }
      if (!cur_.hasRoom()) {
         grow();
      }
      const size_t i = cur_.insertNew(e, h);
      moveSome();  // moves into empty slots of cur_: i stays
      return {Pos{false, i}, true};
   }
   // Inserts an entry whose key is not present, without a step of the move:
   // for a caller that moves entries in from elsewhere.
   void moveIn(const Entry& e) { cur_.insertNew(e, hashOf(KeyOf()(e))); }
   void erase(Pos p) {
      if (p.inOld) {
         old_.eraseMark(p.at);
      } else {
         cur_.eraseShift(p.at);
      }
      moveSome();
      if (old_.capacity() == 0 && cur_.capacity() >= kShrinkFrom &&
          16 * cur_.size() < cur_.capacity()) {
         // Nearly drained: the entries left move to a table a quarter the
         // size, the big one emptied from its start and given back a piece
         // at a time, not all at once when the last entry goes.
         old_ = std::move(cur_);
         cur_ = Table(old_.capacity() / 4);
         moveAt_ = 0;
      }
   }

   size_t size() const { return cur_.size() + old_.size(); }
   size_t capacity() const { return cur_.capacity(); }
   bool growing() const { return !old_.empty(); }
   Entry& at(Pos p) { return p.inOld ? old_.entryAt(p.at) : cur_.entryAt(p.at); }
   const Entry& at(Pos p) const { return p.inOld ? old_.entryAt(p.at) : cur_.entryAt(p.at); }
   // Iteration: what is left of the old table, then the new one.
   Pos first() const { return settle(Pos{true, old_.firstLive()}); }
   Pos next(Pos p) const { return settle(Pos{p.inOld, p.at + 1}); }
   Pos last() const { return Pos{false, cur_.capacity()}; }
   // A new table with room for n entries, only before the first insertion.
   void start(size_t n) {
      size_t capacity = 16;
      while (3 * capacity < 4 * n) {
         capacity *= 2;
      }
      cur_ = Table(capacity);
   }

   // Old slots looked at per insertion or removal. The new table, twice the
   // slots, takes three quarters of the old table's slots in new entries
   // before it is full itself; two slots a call would do. A table shrinks
   // once under a sixteenth full, with as many calls left as entries at
   // most: it is emptied four times as fast, to be gone before the entries.
   static constexpr size_t kSlotsPerStep = 8;
   static constexpr size_t kSlotsPerShrinkStep = 32;
   static constexpr size_t kShrinkFrom = size_t(1) << 16;

private:
   std::optional<Pos> locate(const Key& k, uint32_t h) const {
      if (size_t i = cur_.find(k, h); i != Table::npos) {
         return Pos{false, i};
      }
      if (size_t i = old_.find(k, h); i != Table::npos) {
         return Pos{true, i};
      }
      return std::nullopt;
   }
   // On an entry or at the end: off the end of the old table means the start
   // of the new one.
   Pos settle(Pos p) const {
      if (p.inOld) {
         p.at = old_.nextLive(p.at);
         if (p.at < old_.capacity()) {
            return p;
         }
         return Pos{false, cur_.firstLive()};
      }
      p.at = cur_.nextLive(p.at);
      return p;
   }
   void grow() {
      // Not expected: the old table empties long before the new one fills.
      // Finish the move rather than keep three tables.
      while (!old_.empty()) {
         moveSome();
      }
      old_ = std::move(cur_);
      cur_ = Table(old_.capacity() == 0 ? 16 : 2 * old_.capacity());
      moveAt_ = 0;
   }
   void moveSome() {
      if (old_.capacity() == 0) {
         return;
      }
      const size_t step = old_.capacity() > cur_.capacity() ? kSlotsPerShrinkStep : kSlotsPerStep;
      const size_t stop = std::min(old_.capacity(), moveAt_ + step);
      for (; moveAt_ < stop && !old_.empty(); ++moveAt_) {
         if (old_.liveAt(moveAt_)) {
            cur_.insertNew(std::move(old_.entryAt(moveAt_)), old_.hashAt(moveAt_));
            old_.eraseMark(moveAt_);
         }
      }
      old_.killBelow(moveAt_);
      if (old_.empty()) {
         old_ = Table();
         moveAt_ = 0;
      }
   }

   Table cur_;
   Table old_;
   size_t moveAt_ = 0;  // the next slot of old_ to move
};

struct KeyIsEntry {
   template <class K>
   const K& operator()(const K& k) const {
      return k;
   }
};
struct KeyIsFirst {
   template <class E>
   const auto& operator()(const E& e) const {
      return e.first;
   }
};

// What a forward iterator over a set's keys declares.
template <class K>
struct KeyIterator {
   using iterator_category = std::forward_iterator_tag;
   using value_type = K;
   using difference_type = std::ptrdiff_t;
   using pointer = const K*;
   using reference = const K&;
};
}  // namespace detail

template <class K, class Hash = std::hash<K>>
class GrowingSet {
public:
   using Small = std::unordered_set<K, Hash>;
   using Large = detail::SteppedTable<K, detail::KeyIsEntry, Hash>;

   class const_iterator : public detail::KeyIterator<K> {
   public:
      const_iterator() = default;
      const K& operator*() const { return inSmall_ ? *small_ : s_->open_.at(pos_); }
      const K* operator->() const { return &**this; }
      const_iterator& operator++() {
         if (inSmall_) {
            ++small_;
            settle();
         } else {
            pos_ = s_->open_.next(pos_);
         }
         return *this;
      }
      const_iterator operator++(int) {
         const_iterator was = *this;
         ++*this;
         return was;
      }
      friend bool operator==(const const_iterator& a, const const_iterator& b) {
         return a.inSmall_ == b.inSmall_ && a.small_ == b.small_ && a.pos_ == b.pos_;
      }

   private:
      friend class GrowingSet;
      // The members not yet moved out of the std::unordered_set, then the
      // open table's.
      const_iterator(const GrowingSet* s, typename Small::const_iterator small)
          : s_(s), inSmall_(true), small_(small) {
         settle();
      }
      const_iterator(const GrowingSet* s, typename Large::Pos pos) : s_(s), pos_(pos) {}
      void settle() {
         if (s_->large() && small_ == s_->small_.end()) {
            inSmall_ = false;
            small_ = {};
            pos_ = s_->open_.first();
         }
      }
      const GrowingSet* s_ = nullptr;
      bool inSmall_ = false;
      typename Small::const_iterator small_{};
      typename Large::Pos pos_{};
   };

   bool insert(const K& k) {
      if (!large()) {
         if (small_.size() < kGrowInSteps || small_.size() < small_.bucket_count()) {
            if (small_.size() >= small_.bucket_count()) {
               // A review list fills by the hundred thousand when a table is
               // reviewed; growing fourfold moves each member a third as
               // often as doubling would.
               small_.reserve(4 * small_.size());
            }
            return small_.insert(k).second;
         }
         // The std::unordered_set's members move to the open table like an
         // old table's: a few per call, not 16,000 inside this insertion.
         open_.start(2 * small_.size());
      }
      if (!small_.empty() && small_.count(k) != 0) {
         return false;
      }
      if (!open_.insert(k).second) {
         return false;
      }
      moveSmall();
      return true;
   }
   bool erase(const K& k) {
      if (!large()) {
         return small_.erase(k) != 0;
      }
      if (std::optional<typename Large::Pos> at = open_.find(k)) {
         open_.erase(*at);
      } else if (small_.empty() || small_.erase(k) == 0) {
         return false;
      }
      moveSmall();
      return true;
   }
   bool contains(const K& k) const {
      if (!large()) {
         return small_.count(k) != 0;
      }
      return open_.find(k).has_value() || (!small_.empty() && small_.count(k) != 0);
   }
   size_t size() const { return small_.size() + open_.size(); }
   bool empty() const { return size() == 0; }
   size_t bucket_count() const { return large() ? open_.capacity() : small_.bucket_count(); }
   // True while members are still being moved to the larger table.
   bool growing() const { return large() && (open_.growing() || !small_.empty()); }
   const_iterator begin() const { return const_iterator(this, small_.begin()); }
   const_iterator end() const {
      return large() ? const_iterator(this, open_.last()) : const_iterator(this, small_.end());
   }
   void swap(GrowingSet& other) {
      small_.swap(other.small_);
      std::swap(open_, other.open_);
   }
   // What the set holds room for, and giving it all back (emptied), as the
   // review lists' sets all do once drained.
   size_t held() const { return bucket_count(); }
   void release() { GrowingSet().swap(*this); }

   // Up to this many members the set is a std::unordered_set: below it a
   // rehash costs well under a millisecond.
   static constexpr size_t kGrowInSteps = 4096;

private:
   void moveSmall() {
      if (small_.empty()) {
         return;
      }
      for (size_t i = 0; i < Large::kSlotsPerStep && !small_.empty(); ++i) {
         open_.moveIn(*small_.begin());
         small_.erase(small_.begin());
      }
      if (small_.empty()) {
         Small().swap(small_);
      }
   }

   // Past the few thousand members, for good: the open table has slots.
   bool large() const { return open_.capacity() != 0; }

   Small small_;
   Large open_;
};

// One entry of a GrowingMap; what its iterators point at.
template <class K, class V>
struct MapEntry {
   K first;
   V second;
};

// A hash map on the same stepped open table: entries inline, no allocation
// per entry, no rehash of the whole map in one call. It has the operations
// of std::unordered_map that the map attributes use; iteration is in no
// particular order, and a value found stays valid only until the next
// insertion or removal.
template <class K, class V, class Hash = std::hash<K>>
class GrowingMap {
   using Entry = MapEntry<K, V>;
   using Table = detail::SteppedTable<Entry, detail::KeyIsFirst, Hash>;
   using Pos = typename Table::Pos;

public:
   template <class M, class Ref>
   class Iter {
   public:
      using iterator_category = std::forward_iterator_tag;
      using value_type = Entry;
      using difference_type = std::ptrdiff_t;
      using pointer = std::remove_reference_t<Ref>*;
      using reference = Ref;
      Iter() = default;
      reference operator*() const { return m_->table_.at(pos_); }
      pointer operator->() const { return &**this; }
      Iter& operator++() {
         pos_ = m_->table_.next(pos_);
         return *this;
      }
      friend bool operator==(const Iter& a, const Iter& b) { return a.pos_ == b.pos_; }

   private:
      friend class GrowingMap;
      Iter(M* m, Pos pos) : m_(m), pos_(pos) {}
      M* m_ = nullptr;
      Pos pos_{};
   };
   using iterator = Iter<GrowingMap, Entry&>;
   using const_iterator = Iter<const GrowingMap, const Entry&>;

   std::pair<iterator, bool> try_emplace(const K& k, const V& v) {
      auto [at, inserted] = table_.insert(Entry{k, v});
      return {iterator(this, at), inserted};
   }
   iterator find(const K& k) {
      std::optional<Pos> at = table_.find(k);
      return at ? iterator(this, *at) : end();
   }
   const_iterator find(const K& k) const {
      std::optional<Pos> at = table_.find(k);
      return at ? const_iterator(this, *at) : end();
   }
   void erase(iterator it) { table_.erase(it.pos_); }
   size_t count(const K& k) const { return table_.find(k) ? 1 : 0; }
   size_t size() const { return table_.size(); }
   size_t bucket_count() const { return table_.capacity(); }
   // True while entries are being moved to a larger or a smaller table.
   bool growing() const { return table_.growing(); }
   bool empty() const { return size() == 0; }
   iterator begin() { return iterator(this, table_.first()); }
   iterator end() { return iterator(this, table_.last()); }
   const_iterator begin() const { return const_iterator(this, table_.first()); }
   const_iterator end() const { return const_iterator(this, table_.last()); }

private:
   Table table_;
};

}  // namespace Zop
