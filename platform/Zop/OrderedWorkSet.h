#pragma once
// An ordered set for a work list whose members come and go in runs of
// ascending keys: the simulated resolver's pending keys, and the keys of the
// FIB route review list that a range walk queued out of order (see
// AscendingRunSet below).
//
// A hash set spreads such a run over the whole table: at a million members
// every insertion and every removal is a cache miss (and a TLB miss) of its
// own. Here the members are a B-tree's, a node of a few cache lines holding
// a run of neighbouring keys: the next key of a run goes next to the last
// one, and is taken out next to it. A key past the last member is appended
// and the first member taken out without a search; any other insertion
// starts where the last insertion or removal ended (constant time when the
// key belongs there). A key out of order costs a descent of the tree, and
// nothing else changes. Iteration is in key order.
//
// Any insertion or removal moves a B-tree's members between nodes and
// invalidates every iterator: the one kept for the next insertion is the
// one the last change returned.

#include <absl/container/btree_set.h>

#include <algorithm>
#include <cstddef>
#include <deque>
#include <functional>
#include <iterator>
#include <unordered_set>
#include <utility>

#include "Zop/GrowingSet.h"

namespace Zop {

template <class K, class Less = std::less<K>>
class OrderedWorkSet {
public:
   using Set = absl::btree_set<K, Less>;
   using const_iterator = typename Set::const_iterator;

   OrderedWorkSet() = default;
   OrderedWorkSet(const OrderedWorkSet&) = delete;
   OrderedWorkSet& operator=(const OrderedWorkSet&) = delete;

   // False when k is a member already.
   bool insert(const K& k) {
      if (set_.empty() || Less()(*set_.rbegin(), k)) {
         // Past the last member, as a walk of a table in order goes on.
         set_.insert(set_.end(), k);
         hint_ = set_.end();
         held_ = std::max(held_, set_.size());
         return true;
      }
      // Inserted or found, the next key of a run is most often the one
      // after this one: a walk queueing a range, or walking again over a
      // range queued before (a segment prefix inside another).
      const size_t before = set_.size();
      hint_ = std::next(set_.insert(hint_, k));
      if (set_.size() == before) {
         return false;
      }
      held_ = std::max(held_, set_.size());
      return true;
   }
   bool erase(const K& k) {
      // Most often the first member: a list drained in the order it filled.
      const bool first = !set_.empty() && !Less()(*set_.begin(), k) && !Less()(k, *set_.begin());
      const auto it = first ? set_.begin() : set_.find(k);
      if (it == set_.end()) {
         return false;
      }
      hint_ = set_.erase(it);
      return true;
   }
   bool contains(const K& k) const { return set_.find(k) != set_.end(); }
   size_t size() const { return set_.size(); }
   bool empty() const { return set_.empty(); }
   const_iterator begin() const { return set_.begin(); }
   const_iterator end() const { return set_.end(); }
   // The most members held since the set was last given back.
   size_t held() const { return held_; }
   // Empties the set and gives its nodes back to the heap.
   void release() {
      Set().swap(set_);
      hint_ = set_.end();
      held_ = 0;
   }

private:
   Set set_;
   const_iterator hint_ = set_.end();
   size_t held_ = 0;
};

// A set taken member by member from its front: the segment prefix review
// list. Up to a few thousand members it is a std::unordered_set, growing
// exactly as GrowingSet's small set does, so that a small list is taken in
// the same hash order as always. Past that it is an OrderedWorkSet, and the
// list is taken in key order: VRF by VRF, each in prefix order, a segment
// prefix before the ones inside it. A table-wide review then walks the FIB
// beneath them in order too, and the FIB route review that follows touches
// the tries, the FIB and the hardware table where it touched them last,
// instead of a cache miss away at every range.
//
// Members move from the hash set to the ordered one a few per insertion or
// removal; until they all have, the ones not yet moved come first.
template <class K, class Hash = std::hash<K>, class Less = std::less<K>>
class HashThenOrderedSet {
   using Small = std::unordered_set<K, Hash>;
   using Large = OrderedWorkSet<K, Less>;

public:
   class const_iterator : public detail::KeyIterator<K> {
   public:
      const_iterator() = default;
      const K& operator*() const { return inSmall_ ? *small_ : *large_; }
      const K* operator->() const { return &**this; }
      const_iterator& operator++() {
         if (inSmall_) {
            ++small_;
            settle();
         } else {
            ++large_;
         }
         return *this;
      }
      friend bool operator==(const const_iterator& a, const const_iterator& b) {
         return a.inSmall_ == b.inSmall_ &&
                (a.inSmall_ ? a.small_ == b.small_ : a.large_ == b.large_);
      }

   private:
      friend class HashThenOrderedSet;
      const_iterator(const HashThenOrderedSet* s, typename Small::const_iterator small)
          : s_(s), inSmall_(true), small_(small) {
         settle();
      }
      const_iterator(const HashThenOrderedSet* s, typename Large::const_iterator large)
          : s_(s), large_(large) {}
      void settle() {
         if (s_->large_ && small_ == s_->small_.end()) {
            inSmall_ = false;
            large_ = s_->ordered_.begin();
         }
      }
      const HashThenOrderedSet* s_ = nullptr;
      bool inSmall_ = false;
      typename Small::const_iterator small_{};
      typename Large::const_iterator large_{};
   };

   HashThenOrderedSet() = default;
   HashThenOrderedSet(const HashThenOrderedSet&) = delete;
   HashThenOrderedSet& operator=(const HashThenOrderedSet&) = delete;

   bool insert(const K& k) {
      if (!large_) {
         if (small_.size() < kGrowInSteps || small_.size() < small_.bucket_count()) {
            if (small_.size() >= small_.bucket_count()) {
               small_.reserve(4 * small_.size());
            }
            return small_.insert(k).second;
         }
         large_ = true;
      }
      if (!small_.empty() && small_.count(k) != 0) {
         return false;
      }
      if (!ordered_.insert(k)) {
         return false;
      }
      moveSmall();
      return true;
   }
   bool erase(const K& k) {
      if (!large_) {
         return small_.erase(k) != 0;
      }
      if (!ordered_.erase(k) && (small_.empty() || small_.erase(k) == 0)) {
         return false;
      }
      moveSmall();
      return true;
   }
   bool contains(const K& k) const {
      return (!small_.empty() && small_.count(k) != 0) || (large_ && ordered_.contains(k));
   }
   size_t size() const { return small_.size() + ordered_.size(); }
   bool empty() const { return size() == 0; }
   const_iterator begin() const { return const_iterator(this, small_.begin()); }
   const_iterator end() const {
      return large_ ? const_iterator(this, ordered_.end()) : const_iterator(this, small_.end());
   }
   // What the set holds room for: its buckets, or the most members held.
   size_t held() const { return large_ ? ordered_.held() : small_.bucket_count(); }
   // Back to an empty hash set, its memory given back.
   void release() {
      Small().swap(small_);
      ordered_.release();
      large_ = false;
   }

   // Up to this many members the set is a std::unordered_set, as GrowingSet.
   static constexpr size_t kGrowInSteps = GrowingSet<K, Hash>::kGrowInSteps;
   // Members moved to the ordered set per insertion or removal.
   static constexpr size_t kMovePerStep = 8;

private:
   void moveSmall() {
      for (size_t i = 0; i < kMovePerStep && !small_.empty(); ++i) {
         ordered_.insert(*small_.begin());
         small_.erase(small_.begin());
      }
      if (small_.empty() && small_.bucket_count() > 1) {
         Small().swap(small_);
      }
   }

   Small small_;
   Large ordered_;
   bool large_ = false;
};

// The FIB route review list's set. Its members arrive, almost all of them,
// in ascending key order (range walks queue the FIB in prefix order) and
// leave oldest first (the review takes its queue from the front). Such
// members are kept as they came, in a queue of slots: a key past the last
// one is appended, and the oldest one is taken from the front, with no
// search, no node to split or merge and no allocation but a block of slots
// now and then. Membership of any other key is a binary search of the slots.
// A key taken from anywhere but the front leaves a dead slot, which comes
// back to life if the key does, and leaves when it reaches the front. Keys
// that arrive out of order (below the last slot, with no slot of their own)
// go to an OrderedWorkSet beside it.
//
// Dead slots behind a live front stay until the front moves on: the set
// suits members that leave roughly in the order they came, as a work list's
// do. (A review list's stale keys, which leave in queue order but come in
// any order, are not kept in one.)
template <class K, class Less = std::less<K>>
class AscendingRunSet {
   struct Slot {
      K key;
      bool live;
   };
   using Run = std::deque<Slot>;
   using Rest = OrderedWorkSet<K, Less>;

public:
   // Live slots first, oldest first, then the others in key order.
   class const_iterator : public detail::KeyIterator<K> {
   public:
      const_iterator() = default;
      const K& operator*() const { return inRun_ ? s_->run_[run_].key : *rest_; }
      const K* operator->() const { return &**this; }
      const_iterator& operator++() {
         if (inRun_) {
            ++run_;
            settle();
         } else {
            ++rest_;
         }
         return *this;
      }
      friend bool operator==(const const_iterator& a, const const_iterator& b) {
         return a.inRun_ == b.inRun_ && (a.inRun_ ? a.run_ == b.run_ : a.rest_ == b.rest_);
      }

   private:
      friend class AscendingRunSet;
      const_iterator(const AscendingRunSet* s, size_t run) : s_(s), inRun_(true), run_(run) {
         settle();
      }
      const_iterator(const AscendingRunSet* s, typename Rest::const_iterator rest)
          : s_(s), rest_(rest) {}
      void settle() {
         while (run_ != s_->run_.size() && !s_->run_[run_].live) {
            ++run_;
         }
         if (run_ == s_->run_.size()) {
            inRun_ = false;
            rest_ = s_->rest_.begin();
         }
      }
      const AscendingRunSet* s_ = nullptr;
      bool inRun_ = false;
      size_t run_ = 0;
      typename Rest::const_iterator rest_{};
   };

   AscendingRunSet() = default;
   AscendingRunSet(const AscendingRunSet&) = delete;
   AscendingRunSet& operator=(const AscendingRunSet&) = delete;

   // False when k is a member already.
   bool insert(const K& k) {
      if (!add(k)) {
         return false;
      }
      held_ = std::max(held_, size());
      return true;
   }
   bool erase(const K& k) {
      if (Slot* s = slotOf(*this, k)) {
         if (!s->live) {
            return false;
         }
         s->live = false;
         --runLive_;
         while (!run_.empty() && !run_.front().live) {
            run_.pop_front();
         }
         return true;
      }
      return !rest_.empty() && rest_.erase(k);
   }
   bool contains(const K& k) const {
      if (const Slot* s = slotOf(*this, k)) {
         return s->live;
      }
      return !rest_.empty() && rest_.contains(k);
   }
   size_t size() const { return runLive_ + rest_.size(); }
   bool empty() const { return size() == 0; }
   const_iterator begin() const { return const_iterator(this, size_t(0)); }
   const_iterator end() const { return const_iterator(this, rest_.end()); }
   // The most members held since the set was last given back.
   size_t held() const { return held_; }
   // Empties the set and gives its memory back to the heap, but for the
   // slots' block map (a pointer per 512 bytes of slots), kept for the next
   // fill: see QueueSetAttr::del.
   void release() {
      run_.clear();
      rest_.release();
      runLive_ = 0;
      held_ = 0;
   }

private:
   bool add(const K& k) {
      if (run_.empty() || Less()(run_.back().key, k)) {
         if (!rest_.empty() && rest_.contains(k)) {
            return false;
         }
         run_.push_back(Slot{k, true});
         ++runLive_;
         return true;
      }
      if (Slot* s = slotOf(*this, k)) {
         // A key with a slot has none in the rest: it comes back to life.
         if (s->live) {
            return false;
         }
         s->live = true;
         ++runLive_;
         return true;
      }
      return rest_.insert(k);
   }
   // k's slot, live or dead, or nullptr. The front first: a list drained in
   // the order it filled asks for it most.
   template <class Self>
   static auto slotOf(Self& self, const K& k) -> decltype(&self.run_.front()) {
      auto& run = self.run_;
      if (run.empty() || Less()(k, run.front().key) || Less()(run.back().key, k)) {
         return nullptr;
      }
      if (!Less()(run.front().key, k)) {
         return &run.front();
      }
      // The first slot not below k; the front is below it and the back is not.
      size_t lo = 0;
      size_t hi = run.size() - 1;
      while (hi - lo > 1) {
         const size_t mid = lo + (hi - lo) / 2;
         (Less()(run[mid].key, k) ? lo : hi) = mid;
      }
      return Less()(k, run[hi].key) ? nullptr : &run[hi];
   }

   Run run_;  // ascending keys, oldest first; the front slot is live
   Rest rest_;
   size_t runLive_ = 0;
   size_t held_ = 0;
};

}  // namespace Zop
