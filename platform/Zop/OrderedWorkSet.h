#pragma once
// An ordered set for a work list whose members come and go in runs of
// ascending keys: the FIB route review list, which a walk of a FIB trie
// fills in prefix order and the review drains in the same order.
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
   class const_iterator {
   public:
      using iterator_category = std::forward_iterator_tag;
      using value_type = K;
      using difference_type = std::ptrdiff_t;
      using pointer = const K*;
      using reference = const K&;
      const_iterator() = default;
      reference operator*() const { return inSmall_ ? *small_ : *large_; }
      pointer operator->() const { return &**this; }
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

}  // namespace Zop
