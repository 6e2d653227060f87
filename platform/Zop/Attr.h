#pragma once
// Notifying collection attributes: the storage of one entity attribute and
// the rule of when it notifies, written once and used by every entity.
//
// An entity declares its Notifiee with one handler per attribute, then one
// attribute member constructed with that handler, and forwards its generated
// operations to it:
//
//   class Coll : public Zop::PtrInterface {
//    public:
//      class Notifiee : public Zop::BaseNotifiee<Coll> {
//       public:
//         virtual void handleMember(const Key&) {}
//      };
//      void memberIs(const Key& k) { member_.is(*this, k); }
//      void memberDel(const Key& k) { member_.del(*this, k); }
//      Zop::NotifierList<Notifiee>& notifieeList() { return notifiees_; }
//    private:
//      Zop::NotifierList<Notifiee> notifiees_;
//      Zop::HashSetAttr<Coll, Key> member_{&Notifiee::handleMember};
//   };
//
// Rules shared by all: `is` notifies only on a real change (new key, or a
// value that differs); `del` notifies only when the key was present, after
// removing it; `delAll` removes members one at a time, each removal notifying.
// Handlers run after the change, so they see the new state.

#include <absl/container/btree_map.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <iterator>
#include <map>
#include <optional>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "Zop/GrowingSet.h"
#include "Zop/Notifier.h"
#include "Zop/OrderedWorkSet.h"

namespace Zop {

template <class E, class K, class Hash = std::hash<K>>
class HashSetAttr {
public:
   using Handler = void (E::Notifiee::*)(const K&);
   using Set = std::unordered_set<K, Hash>;
   explicit HashSetAttr(Handler h) : handler_(h) {}

   bool is(E& owner, const K& k) {
      if (!set_.insert(k).second) {
         return false;
      }
      // Handlers get their own copy: `k` may refer to a key that a handler
      // removes.
      const K key = k;
      notify(owner, key);
      return true;
   }
   bool del(E& owner, const K& k) {
      auto it = set_.find(k);
      if (it == set_.end()) {
         return false;
      }
      K key = *it;
      set_.erase(it);
      notify(owner, key);
      return true;
   }
   void delAll(E& owner) {
      // A handler may drop the last pointer to the owner; one delivery keeps
      // it alive only for itself, so the loop holds it to the end.
      Ptr<E> hold(owner.references() > 0 ? &owner : nullptr);
      while (!set_.empty()) {
         del(owner, *set_.begin());
      }
   }

   bool has(const K& k) const { return set_.count(k) != 0; }
   size_t size() const { return set_.size(); }
   bool empty() const { return set_.empty(); }
   const Set& members() const { return set_; }
   typename Set::const_iterator begin() const { return set_.begin(); }
   typename Set::const_iterator end() const { return set_.end(); }
   void reserve(size_t n) { set_.reserve(n); }

private:
   void notify(E& owner, const K& k) {
      owner.notifieeList().notify(&owner, [&](typename E::Notifiee& n) { (n.*handler_)(k); });
   }
   Handler handler_;
   Set set_;
};

// A review list taken member by member from its own set, in the set's order:
// no queue kept beside it. front() is the set's first member, the one the
// list is taken at next. Drained, it gives back what it grew to.
template <class E, class K, class Set>
class ReviewSetAttr {
public:
   using Handler = void (E::Notifiee::*)(const K&);
   explicit ReviewSetAttr(Handler h) : handler_(h) {}

   bool is(E& owner, const K& k) {
      if (!set_.insert(k)) {
         return false;
      }
      const K key = k;
      notify(owner, key);
      return true;
   }
   bool del(E& owner, const K& k) {
      const K key = k;
      if (!set_.erase(key)) {
         return false;
      }
      if (set_.empty() && set_.held() > kKeptBuckets) {
         set_.release();
      }
      notify(owner, key);
      return true;
   }
   void delAll(E& owner) {
      Ptr<E> hold(owner.references() > 0 ? &owner : nullptr);
      while (!set_.empty()) {
         del(owner, front());
      }
   }

   // The set's first member; the set must not be empty.
   const K& front() const { return *set_.begin(); }
   bool has(const K& k) const { return set_.contains(k); }
   size_t size() const { return set_.size(); }
   bool empty() const { return set_.empty(); }
   typename Set::const_iterator begin() const { return set_.begin(); }
   typename Set::const_iterator end() const { return set_.end(); }

private:
   void notify(E& owner, const K& k) {
      owner.notifieeList().notify(&owner, [&](typename E::Notifiee& n) { (n.*handler_)(k); });
   }

   static constexpr size_t kKeptBuckets = 4096;
   Handler handler_;
   Set set_;
};

// A set that also keeps the order in which its members came: front() is the
// member that has been in the set longest. Work lists use it so that work is
// done in the order it was found (a walk of a table queues routes in table
// order, and visiting them in that order keeps neighbouring entries close in
// memory), where a hash set would visit them scattered.
//
// The order is a queue holding one copy of each key that is a member, or
// that left while its copy stood inside the queue (a stale key): del() takes
// a key at the front off the queue, and only marks any other as stale. A
// stale key that comes back takes its old place again, so no key is ever
// queued twice; stale copies leave when they reach the front, or when the
// queue is compacted. Compaction keeps the queue within about twice the
// members and never stops the world: once stale keys outnumber members, each
// later insertion or removal moves the next few copies from the unsorted
// tail to a compacted head, dropping the stale ones.
//
// The stale keys are kept in a set of their own kind: they leave when they
// reach the front, in queue order, but come in whatever order keys are taken
// out of order.
template <class E, class K, class Set = GrowingSet<K>, class StaleSet = Set>
class QueueSetAttr {
public:
   using Handler = void (E::Notifiee::*)(const K&);
   explicit QueueSetAttr(Handler h) : handler_(h) {}

   bool is(E& owner, const K& k) {
      if (!set_.insert(k)) {
         return false;
      }
      if (stale_.empty() || !stale_.erase(k)) {
         tail_.push_back(k);
         ++pushed_;
      }
      tidy();
      const K key = k;
      notify(owner, key);
      return true;
   }
   bool del(E& owner, const K& k) {
      const K key = k;
      if (!set_.erase(key)) {
         return false;
      }
      if (front() == key) {
         // Taken in order, as the FIB route review takes its list.
         popFront();
      } else {
         stale_.insert(key);
         ++outOfOrder_;
      }
      if (set_.empty() && set_.held() > kKeptBuckets) {
         // A drained list gives back what a table's review grew its sets
         // to. The queue's block maps (a pointer per 512 bytes of keys) are
         // kept for the next review: freed here, the last item of a full
         // table's review took 1.5-2.8 ms, the heap merging its free chunks.
         set_.release();
         stale_.release();
         compacting_ = false;
      }
      // Handlers may look at front(): it is a member again before they run.
      tidy();
      notify(owner, key);
      return true;
   }
   void delAll(E& owner) {
      Ptr<E> hold(owner.references() > 0 ? &owner : nullptr);
      while (!set_.empty()) {
         del(owner, front());
      }
   }

   // The oldest member; the set must not be empty.
   const K& front() const { return head_.empty() ? tail_.front() : head_.front(); }
   bool has(const K& k) const { return set_.contains(k); }
   size_t size() const { return set_.size(); }
   bool empty() const { return set_.empty(); }
   // All members, in no particular order.
   const Set& members() const { return set_; }
   typename Set::const_iterator begin() const { return set_.begin(); }
   typename Set::const_iterator end() const { return set_.end(); }

   // Keys put at the back of the queue so far: the n-th one put there is
   // number n - 1. Keys are taken in number order, so every key numbered at
   // or above takenBound() is still a member, as long as outOfOrder() (keys
   // that left from anywhere but the front) has not moved since it was put
   // there. A walker that queued a range can so tell that the whole range is
   // still waiting without looking up each key again.
   uint64_t pushed() const { return pushed_; }
   uint64_t takenBound() const { return pushed_ - (head_.size() + tail_.size()); }
   uint64_t outOfOrder() const { return outOfOrder_; }

   // Copies moved per insertion or removal while the queue is compacted: it
   // gains at most one copy per call, so compaction ends.
   static constexpr size_t kCompactPerStep = 8;

private:
   void notify(E& owner, const K& k) {
      owner.notifieeList().notify(&owner, [&](typename E::Notifiee& n) { (n.*handler_)(k); });
   }
   void popFront() {
      if (!head_.empty()) {
         head_.pop_front();
      } else {
         tail_.pop_front();
      }
   }
   // Keeps front() a member, and compacts a step at a time.
   void tidy() {
      while (!stale_.empty() && !set_.empty() && !set_.contains(front())) {
         stale_.erase(front());
         popFront();
      }
      if (!compacting_ && stale_.size() > set_.size() + 64) {
         compacting_ = true;
      }
      if (!compacting_) {
         return;
      }
      for (size_t i = 0; i < kCompactPerStep && !tail_.empty(); ++i) {
         if (set_.contains(tail_.front())) {
            head_.push_back(tail_.front());
         } else {
            stale_.erase(tail_.front());
         }
         tail_.pop_front();
      }
      if (tail_.empty()) {
         head_.swap(tail_);
         compacting_ = false;
      }
   }

   static constexpr size_t kKeptBuckets = 4096;
   Handler handler_;
   Set set_;
   StaleSet stale_;
   std::deque<K> head_;  // compacted, before tail_ (empty unless compacting)
   std::deque<K> tail_;
   bool compacting_ = false;
   uint64_t pushed_ = 0;
   uint64_t outOfOrder_ = 0;
};

// Shared shape of the two map attributes.
template <class E, class K, class V, class Map>
class MapAttr {
public:
   using Handler = void (E::Notifiee::*)(const K&);
   explicit MapAttr(Handler h) : handler_(h) {}

   // Inserts or overwrites; true (and notified) only when something changed.
   bool is(E& owner, const K& k, const V& v) {
      auto [it, inserted] = map_.try_emplace(k, v);
      if (!inserted) {
         if (it->second == v) {
            return false;
         }
         it->second = v;
      }
      // Handlers get their own copy: `k` may refer to a key that a handler
      // removes.
      const K key = k;
      notify(owner, key);
      return true;
   }
   // The removed value, or none when the key was absent.
   std::optional<V> del(E& owner, const K& k) {
      auto it = map_.find(k);
      if (it == map_.end()) {
         return std::nullopt;
      }
      K key = it->first;
      std::optional<V> old(std::move(it->second));
      map_.erase(it);
      notify(owner, key);
      return old;
   }
   void delAll(E& owner) {
      // A handler may drop the last pointer to the owner; one delivery keeps
      // it alive only for itself, so the loop holds it to the end.
      Ptr<E> hold(owner.references() > 0 ? &owner : nullptr);
      while (!map_.empty()) {
         K key = map_.begin()->first;
         del(owner, key);
      }
   }

   const V* find(const K& k) const {
      auto it = map_.find(k);
      return it == map_.end() ? nullptr : &it->second;
   }
   // The value, or `fallback` when absent.
   V get(const K& k, const V& fallback = V()) const {
      const V* v = find(k);
      return v ? *v : fallback;
   }
   bool has(const K& k) const { return map_.count(k) != 0; }
   // Notifies the key's unchanged value once more, as a publisher that
   // writes the same value again may; false (nothing notified) when absent.
   bool renotify(E& owner, const K& k) {
      if (!has(k)) {
         return false;
      }
      const K key = k;
      notify(owner, key);
      return true;
   }
   size_t size() const { return map_.size(); }
   bool empty() const { return map_.empty(); }
   const Map& members() const { return map_; }
   typename Map::const_iterator begin() const { return map_.begin(); }
   typename Map::const_iterator end() const { return map_.end(); }

protected:
   Map map_;

private:
   void notify(E& owner, const K& k) {
      owner.notifieeList().notify(&owner, [&](typename E::Notifiee& n) { (n.*handler_)(k); });
   }
   Handler handler_;
};

template <class E, class K, class V, class Hash = std::hash<K>>
class HashMapAttr : public MapAttr<E, K, V, std::unordered_map<K, V, Hash>> {
public:
   using MapAttr<E, K, V, std::unordered_map<K, V, Hash>>::MapAttr;
   void reserve(size_t n) { this->map_.reserve(n); }
};

// A hash map attribute on the stepped open table (GrowingMap), for maps that
// a table-wide change fills by the hundred thousand: no allocation per entry
// and no rehash of the whole map in one call. Keys and values must be
// trivially copyable; iteration is in no particular order, and a value found
// stays valid only until the next change.
template <class E, class K, class V, class Hash = std::hash<K>>
class GrowingMapAttr : public MapAttr<E, K, V, GrowingMap<K, V, Hash>> {
public:
   using MapAttr<E, K, V, GrowingMap<K, V, Hash>>::MapAttr;
};

template <class E, class K, class V, class Less = std::less<K>>
class OrderedMapAttr : public MapAttr<E, K, V, std::map<K, V, Less>> {
public:
   using MapAttr<E, K, V, std::map<K, V, Less>>::MapAttr;
   // First entry whose key is not less than `k`.
   auto lowerBound(const K& k) const { return this->map_.lower_bound(k); }
};

// An ordered map attribute whose lookups start where the last one ended:
// for the maps of a whole FIB (the FIB collections, the route adjacencies,
// the watches and answers of the segment prefixes), which the reviews of a
// table go through in key order. The map is a B-tree: neighbouring keys
// share a node of a few cache lines, no node is allocated per entry, and a
// million entries take a third less memory than in a std::map. The next key
// asked is most often the one found last, the entry after it, or absent
// between the two; those are answered without a descent of the tree. Any
// other key costs one descent. Every change forgets the place, so the map is
// changed only through this class's own is, del and delAll. As in a
// GrowingMapAttr, a value found stays valid only until the next change: a
// B-tree moves its entries between nodes.
template <class E, class K, class V, class Less = std::less<K>>
class WalkedMapAttr : public MapAttr<E, K, V, absl::btree_map<K, V, Less>> {
   using Base = MapAttr<E, K, V, absl::btree_map<K, V, Less>>;

public:
   using Base::Base;

   bool is(E& owner, const K& k, const V& v) {
      last_.reset();
      return Base::is(owner, k, v);
   }
   std::optional<V> del(E& owner, const K& k) {
      last_.reset();
      return Base::del(owner, k);
   }
   void delAll(E& owner) {
      Ptr<E> hold(owner.references() > 0 ? &owner : nullptr);
      while (!this->map_.empty()) {
         del(owner, K(this->map_.begin()->first));
      }
   }

   const V* find(const K& k) const {
      const auto end = this->map_.end();
      const Less less;
      if (last_ && !less(k, *last_)) {
         // near_ is the first entry not below the last key asked: nothing
         // lies between that key and it.
         if (near_ == end || less(k, near_->first)) {
            last_ = k;
            return nullptr;
         }
         if (!less(near_->first, k)) {
            last_ = k;
            return &near_->second;
         }
         const auto next = std::next(near_);
         if (next == end || !less(next->first, k)) {
            last_ = k;
            near_ = next;
            return next != end && !less(k, next->first) ? &next->second : nullptr;
         }
      }
      near_ = this->map_.lower_bound(k);
      last_ = k;
      return near_ != end && !less(k, near_->first) ? &near_->second : nullptr;
   }
   V get(const K& k, const V& fallback = V()) const {
      const V* v = find(k);
      return v ? *v : fallback;
   }
   bool has(const K& k) const { return find(k) != nullptr; }

private:
   mutable std::optional<K> last_;
   mutable typename absl::btree_map<K, V, Less>::const_iterator near_;
};

// A single value (flag, counter, enum). Counters wrap as their unsigned type.
template <class E, class T>
class ScalarAttr {
public:
   using Handler = void (E::Notifiee::*)();
   ScalarAttr(Handler h, T initial = T()) : handler_(h), value_(initial) {}

   bool is(E& owner, const T& v) {
      if (value_ == v) {
         return false;
      }
      value_ = v;
      owner.notifieeList().notify(&owner, [&](typename E::Notifiee& n) { (n.*handler_)(); });
      return true;
   }
   bool inc(E& owner, T by = T(1)) { return is(owner, T(value_ + by)); }
   bool dec(E& owner, T by = T(1)) { return is(owner, T(value_ - by)); }
   const T& get() const { return value_; }

private:
   Handler handler_;
   T value_;
};

}  // namespace Zop
