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
// no single call rehashes a quarter million keys.
//
// Iteration visits the old table (what is left of it), then the new one: a
// hash order, the same for the same history. begin() is cheap however many
// members were taken from the front: each table remembers where its first
// member may be.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <new>
#include <type_traits>
#include <unordered_set>
#include <utility>

namespace Zop {

namespace detail {

// Linear-probing table of keys inline. A removal shifts the rest of the probe
// run back (no tombstones) unless the table is being emptied into a larger
// one: then removals and moved slots are only marked, so that the run of a
// key not yet moved stays intact and the move's position stays valid.
template <class K>
class OpenTable {
public:
   static constexpr size_t npos = ~size_t(0);

   OpenTable() = default;
   explicit OpenTable(size_t capacity)
       : slots_(static_cast<Slot*>(std::calloc(capacity, sizeof(Slot)))),
         mask_(capacity - 1),
         first_(capacity) {
      if (!slots_) {
         throw std::bad_alloc();
      }
   }

   size_t capacity() const { return slots_ ? mask_ + 1 : 0; }
   size_t size() const { return live_; }
   bool empty() const { return live_ == 0; }
   // Room for one more without passing three quarters full.
   bool hasRoom() const { return 4 * (live_ + 1) <= 3 * capacity(); }

   size_t find(const K& k, uint32_t h) const {
      if (live_ == 0) {
         return npos;
      }
      for (size_t i = h & mask_;; i = (i + 1) & mask_) {
         const Slot& s = slots_[i];
         if (s.state == kEmpty) {
            return npos;
         }
         if (s.state == kLive && s.hash == h && s.key == k) {
            return i;
         }
      }
   }
   // `k` must not be a member, and the table must have room.
   void insertNew(const K& k, uint32_t h) {
      size_t i = h & mask_;
      while (slots_[i].state != kEmpty) {
         i = (i + 1) & mask_;
      }
      slots_[i].state = kLive;
      slots_[i].hash = h;
      slots_[i].key = k;
      ++live_;
      first_ = std::min(first_, i);
   }
   // Removes slot i, moving later members of its probe run back.
   void eraseShift(size_t i) {
      --live_;
      for (size_t j = (i + 1) & mask_;; j = (j + 1) & mask_) {
         Slot& s = slots_[j];
         if (s.state == kEmpty) {
            break;
         }
         // s may fill the hole at i unless its home lies cyclically in (i, j].
         const size_t home = s.hash & mask_;
         const bool stays = i <= j ? (i < home && home <= j) : (i < home || home <= j);
         if (!stays) {
            slots_[i] = s;
            i = j;
         }
      }
      slots_[i].state = kEmpty;
   }
   // Removes slot i, leaving a mark that lookups step over.
   void eraseMark(size_t i) {
      slots_[i].state = kMarked;
      --live_;
   }
   bool liveAt(size_t i) const { return slots_[i].state == kLive; }
   const K& keyAt(size_t i) const { return slots_[i].key; }
   uint32_t hashAt(size_t i) const { return slots_[i].hash; }
   // The first member at or after i, or capacity().
   size_t nextLive(size_t i) const {
      const size_t cap = capacity();
      while (i < cap && slots_[i].state != kLive) {
         ++i;
      }
      return i;
   }
   // The first member: no member lies before first_, which only insertions
   // lower, so draining from the front does not rescan what it emptied.
   size_t firstLive() const {
      first_ = nextLive(std::min(first_, capacity()));
      return first_;
   }

private:
   static constexpr uint8_t kEmpty = 0, kLive = 1, kMarked = 2;
   // Slots come zeroed from calloc, which is an empty slot: a table of a
   // million slots is then pages the kernel hands out as they are first
   // touched, not 50 MB cleared inside the one insertion that grew the list.
   // That needs keys that may live in raw memory.
   static_assert(std::is_trivially_copyable_v<K> && std::is_trivially_destructible_v<K>);
   struct Slot {
      uint32_t hash;
      uint8_t state;
      K key;
   };
   struct FreeSlots {
      void operator()(Slot* s) const { std::free(s); }
   };
   std::unique_ptr<Slot[], FreeSlots> slots_;
   size_t mask_ = 0;
   size_t live_ = 0;
   mutable size_t first_ = 0;
};

}  // namespace detail

template <class K, class Hash = std::hash<K>>
class GrowingSet {
public:
   using Small = std::unordered_set<K, Hash>;
   using Table = detail::OpenTable<K>;

   class const_iterator {
   public:
      using iterator_category = std::forward_iterator_tag;
      using value_type = K;
      using difference_type = std::ptrdiff_t;
      using pointer = const K*;
      using reference = const K&;
      const_iterator() = default;
      reference operator*() const { return phase_ == kSmall ? *small_ : table()->keyAt(at_); }
      pointer operator->() const { return &**this; }
      const_iterator& operator++() {
         if (phase_ == kSmall) {
            ++small_;
         } else {
            ++at_;
         }
         settle();
         return *this;
      }
      const_iterator operator++(int) {
         const_iterator was = *this;
         ++*this;
         return was;
      }
      friend bool operator==(const const_iterator& a, const const_iterator& b) {
         return a.phase_ == b.phase_ && a.at_ == b.at_ && a.small_ == b.small_;
      }

   private:
      friend class GrowingSet;
      // The members not yet moved out of the std::unordered_set, then those
      // left in the old table, then the new table.
      enum Phase { kSmall, kOld, kCur };
      const_iterator(const GrowingSet* s, Phase phase, typename Small::const_iterator small,
                     size_t at)
          : s_(s), phase_(phase), at_(at), small_(small) {
         settle();
      }
      const Table* table() const { return phase_ == kOld ? &s_->old_ : &s_->cur_; }
      // On a member, or at the end: past a part means the next one.
      void settle() {
         if (phase_ == kSmall) {
            if (!s_->large_ || small_ != s_->small_.end()) {
               return;
            }
            phase_ = kOld;
            small_ = {};
            at_ = s_->old_.firstLive();
         } else {
            at_ = table()->nextLive(at_);
         }
         if (phase_ == kOld && at_ >= s_->old_.capacity()) {
            phase_ = kCur;
            at_ = s_->cur_.firstLive();
         }
      }
      const GrowingSet* s_ = nullptr;
      Phase phase_ = kSmall;
      size_t at_ = 0;
      typename Small::const_iterator small_{};
   };

   bool insert(const K& k) {
      if (!large_) {
         if (small_.size() < kGrowInSteps || small_.size() < small_.bucket_count()) {
            if (small_.size() >= small_.bucket_count()) {
               // A review list fills by the hundred thousand when a table is
               // reviewed; growing fourfold moves each member a third as
               // often as doubling would.
               small_.reserve(4 * small_.size());
            }
            return small_.insert(k).second;
         }
         becomeLarge();
      }
      const uint32_t h = hashOf(k);
      if (cur_.find(k, h) != Table::npos || old_.find(k, h) != Table::npos ||
          (!small_.empty() && small_.count(k) != 0)) {
         return false;
      }
      if (!cur_.hasRoom()) {
         grow();
      }
      cur_.insertNew(k, h);
      moveSome();
      return true;
   }
   bool erase(const K& k) {
      if (!large_) {
         return small_.erase(k) != 0;
      }
      const uint32_t h = hashOf(k);
      if (size_t i = cur_.find(k, h); i != Table::npos) {
         cur_.eraseShift(i);
      } else if (size_t j = old_.find(k, h); j != Table::npos) {
         old_.eraseMark(j);
      } else if (small_.empty() || small_.erase(k) == 0) {
         return false;
      }
      moveSome();
      return true;
   }
   bool contains(const K& k) const {
      if (!large_) {
         return small_.count(k) != 0;
      }
      const uint32_t h = hashOf(k);
      return cur_.find(k, h) != Table::npos || old_.find(k, h) != Table::npos ||
             (!small_.empty() && small_.count(k) != 0);
   }
   size_t size() const { return small_.size() + (large_ ? cur_.size() + old_.size() : 0); }
   bool empty() const { return size() == 0; }
   size_t bucket_count() const { return large_ ? cur_.capacity() : small_.bucket_count(); }
   // True while members are still being moved to the larger table.
   bool growing() const { return large_ && (!old_.empty() || !small_.empty()); }
   const_iterator begin() const {
      return const_iterator(this, const_iterator::kSmall, small_.begin(), 0);
   }
   const_iterator end() const {
      if (!large_) {
         return const_iterator(this, const_iterator::kSmall, small_.end(), 0);
      }
      return const_iterator(this, const_iterator::kCur, {}, cur_.capacity());
   }
   void swap(GrowingSet& other) {
      std::swap(large_, other.large_);
      small_.swap(other.small_);
      std::swap(cur_, other.cur_);
      std::swap(old_, other.old_);
      std::swap(moveAt_, other.moveAt_);
   }

   // Up to this many members the set is a std::unordered_set: below it a
   // rehash costs well under a millisecond.
   static constexpr size_t kGrowInSteps = 4096;
   // Old slots looked at per insertion or removal. The new table, twice the
   // slots, takes three quarters of the old table's slots in new members
   // before it is full itself; two slots a call would do.
   static constexpr size_t kSlotsPerStep = 8;

private:
   // The hash spread once more: std::hash of an integer is the integer, and
   // linear probing wants neighbouring keys far apart.
   static uint32_t hashOf(const K& k) {
      return uint32_t((uint64_t(Hash()(k)) * 0x9e3779b97f4a7c15ULL) >> 32);
   }
   // The std::unordered_set's members move to the open table like an old
   // table's: a few per call, not 16,000 inside the one insertion.
   void becomeLarge() {
      size_t capacity = 1;
      while (capacity < 2 * small_.size()) {
         capacity *= 2;
      }
      cur_ = Table(capacity);
      large_ = true;
   }
   void grow() {
      // Not expected: the old members are all moved long before the new
      // table fills. Finish the move rather than keep three tables.
      while (!old_.empty() || !small_.empty()) {
         moveSome();
      }
      old_ = std::move(cur_);
      cur_ = Table(2 * old_.capacity());
      moveAt_ = 0;
   }
   void moveSome() {
      if (!small_.empty()) {
         for (size_t i = 0; i < kSlotsPerStep && !small_.empty(); ++i) {
            const K& k = *small_.begin();
            cur_.insertNew(k, hashOf(k));
            small_.erase(small_.begin());
         }
         if (small_.empty()) {
            Small().swap(small_);
         }
      }
      if (old_.capacity() == 0) {
         return;
      }
      const size_t stop = std::min(old_.capacity(), moveAt_ + kSlotsPerStep);
      for (; moveAt_ < stop && !old_.empty(); ++moveAt_) {
         if (old_.liveAt(moveAt_)) {
            cur_.insertNew(old_.keyAt(moveAt_), old_.hashAt(moveAt_));
            old_.eraseMark(moveAt_);
         }
      }
      if (old_.empty()) {
         old_ = Table();
         moveAt_ = 0;
      }
   }

   bool large_ = false;
   Small small_;
   Table cur_;
   Table old_;
   size_t moveAt_ = 0;  // the next slot of old_ to move
};

}  // namespace Zop
