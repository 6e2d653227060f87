#pragma once
// Routing tries: sets of IP prefixes answering exact and longest-prefix
// queries and walking the prefixes inside a given prefix in order.
//
// One path-compressed binary trie serves both address families
// (Routing::Impl::PrefixTrie<Key>, Key = 32- or 128-bit unsigned). The typed
// front ends are:
//
//   Routing::Trie       IPv4 set, keyed by Pexo::Prefix.
//   Routing6::Trie      IPv6 set, keyed by Pexo::Ip6Prefix, or by a
//                       Pexo::IpGenPrefix holding IPv6 (walks yield
//                       IpGenPrefix). Routing::PatriciaTrie is the same type.
//   Routing::TrieGen    Named set of both families, keyed by IpGenPrefix;
//                       an IPv4 and an IPv6 trie side by side.
//
// Promises and costs (W = address width, 32 or 128; n = prefixes stored):
//
//   routeIs(p, true)   Adds p; adding a stored prefix changes nothing.
//                      O(W) amortized (the pool grows now and then).
//                      Creates at most two nodes.
//   routeIs(p, false)  Same as routeDel(p).
//   routeDel(p)        Removes p; returns whether it was stored. O(W).
//                      Frees at most two nodes for reuse.
//   routeHas(p)        Whether exactly p is stored. O(W).
//   longestMatch(p)    The longest stored prefix containing p (equal to p or
//                      shorter), or std::nullopt when none does. A stored /0
//                      matches everything; "no match" is never reported as a
//                      /0. p may have host bits set (an address with a length
//                      works as a lookup key). O(W).
//   preOrderWalk(from, cb)
//                      Calls cb once for every stored prefix equal to or
//                      inside `from` (stored or not), each prefix before the
//                      prefixes inside it and the 0-branch before the
//                      1-branch, which is ascending (address, length) order.
//                      cb returns bool: false skips everything inside the
//                      prefix just visited and the walk goes on with the rest.
//                      A cb returning void always goes on; one returning a
//                      Routing::WalkStep may also stop the walk. O(W + visited
//                      nodes); no allocation. cb must not change the trie it
//                      walks (checked: doing so aborts); lookups are fine.
//   preOrderWalkAfter(from, after, cb)
//                      The same walk, starting with the first prefix that
//                      comes after `after` in its order (`after` itself need
//                      not be stored; an `after` outside `from` starts at the
//                      beginning or finds nothing, as the order says). cb may
//                      also return a Routing::WalkStep, whose `stop` ends the
//                      walk at once. With the last prefix visited as `after`,
//                      a long walk is done piecewise: each piece costs
//                      O(W + visited nodes), however far into the range it
//                      starts, and the trie may change between pieces.
//   size(), empty()    O(1).
//   changeCount()      Grows at every insertion, removal and clear: while it
//                      stands still, every answer given since still holds.
//   clear()            Removes everything and releases the node memory.
//                      (A trie emptied by routeDel keeps it for reuse.)
//   memoryUsage()      Bytes held by the node pool, spare capacity included.
//
// Keys given to routeIs, routeDel and preOrderWalk must be valid prefixes
// (length within the family, host bits zero); anything else throws
// Zop::RangeError naming the prefix. routeHas answers false for them, and
// longestMatch accepts host bits but not an out-of-range length.
//
// Layout. Nodes live in one contiguous pool and refer to each other by 32-bit
// index, so a node costs no allocation of its own and the whole trie is one
// large block. Freed nodes go on a free list threaded through their child
// slot. A node is either a stored prefix (any number of children) or a branch
// where two stored paths split (exactly two children, always): no node exists
// that neither holds a prefix nor splits a path, so n prefixes need at most
// 2n - 1 nodes. A node is 16
// bytes for IPv4 and 28 bytes for IPv6, hence at most ~32 (IPv4) and ~56
// (IPv6) bytes per prefix before the pool's growth slack (25% at most).
//
// Not thread-safe; like everything in the agent it runs on the reactor thread.

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "Pexo/Prefix.h"
#include "Zop/Assert.h"
#include "Zop/Error.h"
#include "Zop/Ptr.h"
#include "Zop/String.h"

namespace Routing {
// What a walk does after visiting a prefix.
enum class WalkStep : uint8_t {
   descend,  // go on, into the prefixes inside it
   skip,     // go on, skipping the prefixes inside it
   stop,     // end the walk
};

namespace Impl {

__extension__ typedef unsigned __int128 Uint128;

// Per-width key arithmetic. Bit 0 is the most significant (first) bit of the
// address. `Stored` is how a node keeps its key: the 128-bit key is kept as
// four 32-bit words so the IPv6 node needs 4-byte alignment, not 16, and
// stays at 28 bytes instead of 32.
template <class K>
struct KeyTraits;

template <>
struct KeyTraits<uint32_t> {
   static constexpr unsigned kBits = 32;
   using Stored = uint32_t;
   static uint32_t load(const Stored& s) { return s; }
   static Stored store(uint32_t k) { return k; }
   static unsigned leadingZeros(uint32_t x) { return unsigned(std::countl_zero(x)); }
};

template <>
struct KeyTraits<Uint128> {
   static constexpr unsigned kBits = 128;
   struct Stored {
      uint32_t w[4];
   };
   static Uint128 load(const Stored& s) {
      Uint128 k;
      std::memcpy(&k, s.w, sizeof k);
      return k;
   }
   static Stored store(Uint128 k) {
      Stored s;
      std::memcpy(s.w, &k, sizeof k);
      return s;
   }
   static unsigned leadingZeros(Uint128 x) {
      const auto hi = uint64_t(x >> 64);
      return hi ? unsigned(std::countl_zero(hi)) : 64 + unsigned(std::countl_zero(uint64_t(x)));
   }
};

// The path-compressed trie over keys of type K. Lengths are plain unsigned;
// callers validate them (the typed front ends below do). Walk callbacks
// receive (K key, unsigned len).
template <class K>
class PrefixTrie {
public:
   using Traits = KeyTraits<K>;
   static constexpr unsigned kBits = Traits::kBits;
   static constexpr uint32_t kNil = 0xFFFFFFFFu;

   struct Match {
      K key;
      unsigned len;
   };

   // Trivially copyable: the pool moves nodes as flat bytes when it grows.
   struct Node {
      uint32_t child[2];  // child[0] doubles as the free list link
      uint8_t len;
      bool stored;  // false: a branch node, which always has two children
      typename Traits::Stored key;
   };

   // Bit `i` (0 = most significant) of k.
   static unsigned bitAt(K k, unsigned i) { return unsigned(k >> (kBits - 1 - i)) & 1u; }
   // k with all but the first `len` bits cleared.
   static K maskTo(K k, unsigned len) { return len == 0 ? K(0) : k & (~K(0) << (kBits - len)); }
   // Number of leading bits a and b share.
   static unsigned commonLen(K a, K b) { return Traits::leadingZeros(a ^ b); }

   // Adds key/len; returns false when it was already stored. The key must be
   // a prefix: len <= kBits and no bit set beyond len.
   bool insert(K key, unsigned len);
   // Removes key/len; returns false when it was not stored.
   bool erase(K key, unsigned len);
   bool contains(K key, unsigned len) const;
   std::optional<Match> longestMatch(K key, unsigned len) const;
   template <class F>
   void walk(K key, unsigned len, F&& f) const;
   // Visits what walk(key, len) would after (afterKey, afterLen); f returns
   // WalkStep.
   template <class F>
   void walkAfter(K key, unsigned len, K afterKey, unsigned afterLen, F&& f) const;

   size_t size() const { return size_; }
   // Calls of insert, erase and clear so far: unchanged, every answer given
   // since still holds.
   uint64_t changeCount() const { return changes_; }
   bool empty() const { return size_ == 0; }
   void clear();
   size_t memoryUsage() const { return pool_.capacity() * sizeof(Node); }
   // Nodes in use, stored and branch.
   size_t nodeCount() const { return pool_.size() - freeCount_; }
   // Checks the structure; returns a description of the first fault found,
   // or an empty string.
   std::string checkInvariants() const;

private:
   // Walks in progress. A copy of the trie starts with none.
   struct WalkCount {
      uint32_t n = 0;
      WalkCount() = default;
      WalkCount(const WalkCount&) {}
      WalkCount& operator=(const WalkCount&) { return *this; }
   };
   class WalkGuard {
   public:
      explicit WalkGuard(const PrefixTrie& t) : t_(t) { ++t_.walkers_.n; }
      ~WalkGuard() { --t_.walkers_.n; }
      WalkGuard(const WalkGuard&) = delete;
      WalkGuard& operator=(const WalkGuard&) = delete;

   private:
      const PrefixTrie& t_;
   };

   K keyOf(const Node& n) const { return Traits::load(n.key); }
   // The topmost node equal to or inside key/len, or kNil.
   uint32_t topmostInside(K key, unsigned len) const;
   // Visits the subtrees on the stack (top first) in walk order.
   template <class F>
   void walkPending(uint32_t* stack, unsigned sp, F& f) const;
   void ensureSpare(size_t n);
   uint32_t alloc(K key, unsigned len, bool stored);
   void release(uint32_t i);
   void assertNotWalking() const {
      ZOP_ASSERT(walkers_.n == 0, "trie changed during a walk of it", "Routing/Trie");
   }

   std::vector<Node> pool_;
   uint32_t root_ = kNil;
   uint32_t freeHead_ = kNil;
   uint32_t freeCount_ = 0;
   uint64_t changes_ = 0;
   size_t size_ = 0;
   mutable WalkCount walkers_;
};

static_assert(sizeof(PrefixTrie<uint32_t>::Node) == 16);
static_assert(sizeof(PrefixTrie<Uint128>::Node) == 28);
static_assert(std::is_trivially_copyable_v<PrefixTrie<Uint128>::Node>);

template <class K>
void PrefixTrie<K>::ensureSpare(size_t n) {
   if (freeCount_ + (pool_.capacity() - pool_.size()) >= n) {
      return;
   }
   // Grow by a quarter rather than double: the pool is the trie's whole
   // memory, so its slack is the trie's overhead, while the copy on growth
   // (a flat copy of trivially copyable nodes) stays amortized O(1).
   const size_t cap = pool_.capacity();
   size_t want = std::max<size_t>({cap + cap / 4, pool_.size() + n, 64});
   if (want > kNil) {
      want = kNil;  // indices must stay below kNil
   }
   if (want < pool_.size() + n) {
      throw std::length_error("Routing trie: node pool exhausted");
   }
   pool_.reserve(want);
}

template <class K>
uint32_t PrefixTrie<K>::alloc(K key, unsigned len, bool stored) {
   uint32_t i;
   if (freeHead_ != kNil) {
      i = freeHead_;
      freeHead_ = pool_[i].child[0];
      --freeCount_;
   } else {
      i = uint32_t(pool_.size());
      pool_.emplace_back();
   }
   Node& n = pool_[i];
   n.child[0] = n.child[1] = kNil;
   n.len = uint8_t(len);
   n.stored = stored;
   n.key = Traits::store(key);
   return i;
}

template <class K>
void PrefixTrie<K>::release(uint32_t i) {
   Node& n = pool_[i];
   n.child[0] = freeHead_;
   n.child[1] = kNil;
   n.stored = false;
   freeHead_ = i;
   ++freeCount_;
}

template <class K>
bool PrefixTrie<K>::insert(K key, unsigned len) {
   assertNotWalking();
   ++changes_;
   // With room for two nodes up front, the pool cannot move while `slot`
   // points into it.
   ensureSpare(2);
   uint32_t* slot = &root_;
   for (;;) {
      const uint32_t idx = *slot;
      if (idx == kNil) {
         *slot = alloc(key, len, true);
         break;
      }
      Node& n = pool_[idx];
      const K nkey = keyOf(n);
      const unsigned nlen = n.len;
      const unsigned common = std::min({commonLen(key, nkey), len, nlen});
      if (common == nlen) {
         if (nlen == len) {
            if (n.stored) {
               return false;
            }
            n.stored = true;  // a branch node becomes a stored prefix
            break;
         }
         slot = &n.child[bitAt(key, nlen)];  // n contains the new prefix
         continue;
      }
      if (common == len) {
         // The new prefix contains n: it goes above n.
         const uint32_t up = alloc(key, len, true);
         pool_[up].child[bitAt(nkey, len)] = idx;
         *slot = up;
         break;
      }
      // The paths split at bit `common`, inside both prefixes.
      const uint32_t leaf = alloc(key, len, true);
      const uint32_t branch = alloc(maskTo(key, common), common, false);
      const unsigned b = bitAt(key, common);
      pool_[branch].child[b] = leaf;
      pool_[branch].child[b ^ 1] = idx;
      *slot = branch;
      break;
   }
   ++size_;
   return true;
}

template <class K>
bool PrefixTrie<K>::erase(K key, unsigned len) {
   assertNotWalking();
   ++changes_;
   if (maskTo(key, len) != key) {
      return false;  // never stored
   }
   uint32_t* parentSlot = nullptr;  // the slot holding the parent of `slot`'s node
   uint32_t* slot = &root_;
   for (;;) {
      const uint32_t idx = *slot;
      if (idx == kNil) {
         return false;
      }
      const Node& n = pool_[idx];
      if (n.len > len || commonLen(key, keyOf(n)) < n.len) {
         return false;
      }
      if (n.len == len) {
         break;
      }
      parentSlot = slot;
      slot = &pool_[idx].child[bitAt(key, n.len)];
   }
   const uint32_t idx = *slot;
   Node& n = pool_[idx];
   if (!n.stored) {
      return false;
   }
   --size_;
   if (size_ == 0) {
      // Start over from index 0 but keep the memory: a table that empties
      // usually fills again.
      pool_.clear();
      root_ = freeHead_ = kNil;
      freeCount_ = 0;
      return true;
   }
   const uint32_t c0 = n.child[0];
   const uint32_t c1 = n.child[1];
   if (c0 != kNil && c1 != kNil) {
      n.stored = false;  // still where two paths split
      return true;
   }
   const uint32_t only = c0 != kNil ? c0 : c1;
   release(idx);
   *slot = only;
   if (only != kNil || parentSlot == nullptr) {
      return true;
   }
   // A leaf went; a branch parent is left with a single child and goes too.
   const uint32_t p = *parentSlot;
   Node& pn = pool_[p];
   if (!pn.stored) {
      const uint32_t other = pn.child[0] != kNil ? pn.child[0] : pn.child[1];
      release(p);
      *parentSlot = other;
   }
   return true;
}

template <class K>
bool PrefixTrie<K>::contains(K key, unsigned len) const {
   uint32_t idx = root_;
   while (idx != kNil) {
      const Node& n = pool_[idx];
      if (n.len > len || commonLen(key, keyOf(n)) < n.len) {
         return false;
      }
      if (n.len == len) {
         return n.stored && maskTo(key, len) == key;
      }
      idx = n.child[bitAt(key, n.len)];
   }
   return false;
}

template <class K>
std::optional<typename PrefixTrie<K>::Match> PrefixTrie<K>::longestMatch(K key,
                                                                         unsigned len) const {
   uint32_t best = kNil;
   uint32_t idx = root_;
   while (idx != kNil) {
      const Node& n = pool_[idx];
      if (n.len > len || commonLen(key, keyOf(n)) < n.len) {
         break;
      }
      if (n.stored) {
         best = idx;
      }
      if (n.len == len) {
         break;
      }
      idx = n.child[bitAt(key, n.len)];
   }
   if (best == kNil) {
      return std::nullopt;
   }
   return Match{keyOf(pool_[best]), pool_[best].len};
}

template <class K>
uint32_t PrefixTrie<K>::topmostInside(K key, unsigned len) const {
   uint32_t idx = root_;
   while (idx != kNil) {
      const Node& n = pool_[idx];
      const unsigned common = commonLen(key, keyOf(n));
      if (n.len >= len) {
         return common < len ? kNil : idx;
      }
      if (common < n.len) {
         return kNil;
      }
      idx = n.child[bitAt(key, n.len)];
   }
   return kNil;
}

template <class K>
template <class F>
void PrefixTrie<K>::walk(K key, unsigned len, F&& f) const {
   WalkGuard guard(*this);
   const uint32_t idx = topmostInside(key, len);
   if (idx == kNil) {
      return;
   }
   uint32_t stack[kBits + 2];
   stack[0] = idx;
   walkPending(stack, 1, f);
}

template <class K>
template <class F>
void PrefixTrie<K>::walkPending(uint32_t* stack, unsigned sp, F& f) const {
   // Pending nodes are right children of nodes on the current path, one per
   // distinct length below kBits, plus the two children just pushed.
   while (sp != 0) {
      const Node& n = pool_[stack[--sp]];
      if (n.stored) {
         using R = std::invoke_result_t<F&, K, unsigned>;
         if constexpr (std::is_void_v<R>) {
            f(keyOf(n), unsigned(n.len));
         } else if constexpr (std::is_same_v<R, WalkStep>) {
            const WalkStep step = f(keyOf(n), unsigned(n.len));
            if (step == WalkStep::stop) {
               return;
            }
            if (step == WalkStep::skip) {
               continue;
            }
         } else {
            if (!f(keyOf(n), unsigned(n.len))) {
               continue;
            }
         }
      }
      if (n.child[1] != kNil) {
         stack[sp++] = n.child[1];
      }
      if (n.child[0] != kNil) {
         stack[sp++] = n.child[0];
      }
   }
}

template <class K>
template <class F>
void PrefixTrie<K>::walkAfter(K key, unsigned len, K afterKey, unsigned afterLen, F&& f) const {
   WalkGuard guard(*this);
   uint32_t idx = topmostInside(key, len);
   // The pending nodes are those whose whole subtree comes after `after`:
   // going down towards it, the 1-side sibling of every 0-step; where the
   // path ends, the node reached if it lies after `after`, or the children
   // of `after` itself.
   uint32_t stack[kBits + 2];
   unsigned sp = 0;
   while (idx != kNil) {
      const Node& n = pool_[idx];
      const K nKey = keyOf(n);
      const bool containsAfter = n.len <= afterLen && commonLen(nKey, afterKey) >= n.len;
      if (!containsAfter) {
         // Disjoint from `after`, or inside it: the order of the two keys
         // (then of the lengths) places the whole subtree.
         if (nKey > afterKey || (nKey == afterKey && n.len > afterLen)) {
            stack[sp++] = idx;
         }
         break;
      }
      if (n.len == afterLen) {
         if (n.child[1] != kNil) {
            stack[sp++] = n.child[1];
         }
         if (n.child[0] != kNil) {
            stack[sp++] = n.child[0];
         }
         break;
      }
      const unsigned bit = bitAt(afterKey, n.len);
      if (bit == 0 && n.child[1] != kNil) {
         stack[sp++] = n.child[1];
      }
      idx = n.child[bit];
   }
   // The pending subtrees lie in walk order from the top of the stack down.
   walkPending(stack, sp, f);
}

template <class K>
void PrefixTrie<K>::clear() {
   assertNotWalking();
   ++changes_;
   std::vector<Node>().swap(pool_);
   root_ = freeHead_ = kNil;
   freeCount_ = 0;
   size_ = 0;
}

template <class K>
std::string PrefixTrie<K>::checkInvariants() const {
   size_t stored = 0;
   size_t nodes = 0;
   std::vector<uint32_t> todo;
   if (root_ != kNil) {
      todo.push_back(root_);
   }
   while (!todo.empty()) {
      const uint32_t i = todo.back();
      todo.pop_back();
      if (i >= pool_.size()) {
         return "node index out of the pool";
      }
      if (++nodes > pool_.size()) {
         return "a cycle among the nodes";
      }
      const Node& n = pool_[i];
      const K key = keyOf(n);
      if (n.len > kBits || maskTo(key, n.len) != key) {
         return "node " + std::to_string(i) + " holds no valid prefix";
      }
      stored += n.stored;
      if (!n.stored && (n.child[0] == kNil || n.child[1] == kNil)) {
         return "branch node " + std::to_string(i) + " without two children";
      }
      for (unsigned b = 0; b < 2; ++b) {
         const uint32_t c = n.child[b];
         if (c == kNil) {
            continue;
         }
         if (c >= pool_.size()) {
            return "child index out of the pool";
         }
         const Node& cn = pool_[c];
         if (cn.len <= n.len || commonLen(keyOf(cn), key) < n.len || bitAt(keyOf(cn), n.len) != b) {
            return "node " + std::to_string(c) + " misplaced under " + std::to_string(i);
         }
         todo.push_back(c);
      }
   }
   if (stored != size_) {
      return "size " + std::to_string(size_) + " but " + std::to_string(stored) + " stored";
   }
   size_t freeNodes = 0;
   for (uint32_t i = freeHead_; i != kNil; i = pool_[i].child[0]) {
      if (i >= pool_.size() || ++freeNodes > pool_.size()) {
         return "broken free list";
      }
   }
   if (freeNodes != freeCount_ || nodes + freeNodes != pool_.size()) {
      return "nodes lost: " + std::to_string(nodes) + " live, " + std::to_string(freeNodes) +
             " free, " + std::to_string(pool_.size()) + " in the pool";
   }
   return {};
}

extern template class PrefixTrie<uint32_t>;
extern template class PrefixTrie<Uint128>;

inline uint32_t toKey(const Pexo::Prefix& p) {
   return p.addr().value();
}
inline Uint128 toKey(const Pexo::Ip6Prefix& p) {
   return (Uint128(p.addr().hi()) << 64) | p.addr().lo();
}
inline Pexo::Prefix toPrefix(uint32_t key, unsigned len) {
   return Pexo::Prefix(Pexo::IpAddr(key), len);
}
inline Pexo::Ip6Prefix toPrefix(Uint128 key, unsigned len) {
   return Pexo::Ip6Prefix(Pexo::Ip6Addr(uint64_t(key >> 64), uint64_t(key)), len);
}

// Calls cb(prefix) and reports whether the walk should go below it; a
// callback returning void always goes on.
template <class F, class P>
bool visit(F& cb, const P& prefix) {
   if constexpr (std::is_void_v<std::invoke_result_t<F&, const P&>>) {
      cb(prefix);
      return true;
   } else {
      return bool(cb(prefix));
   }
}

// Calls cb(prefix) for a walk that may stop: a callback may return a
// WalkStep, a bool (false: skip) or nothing (descend).
template <class F, class P>
WalkStep visitStep(F& cb, const P& prefix) {
   using R = std::invoke_result_t<F&, const P&>;
   if constexpr (std::is_void_v<R>) {
      cb(prefix);
      return WalkStep::descend;
   } else if constexpr (std::is_same_v<R, WalkStep>) {
      return cb(prefix);
   } else {
      return bool(cb(prefix)) ? WalkStep::descend : WalkStep::skip;
   }
}

}  // namespace Impl

// Base of the library's walk handler classes. The trie takes any callable;
// handlers are reached through a lambda that forwards to them, so the walk
// itself makes no virtual call.
class TrieWalkCallback : public Zop::PtrInterface {
protected:
   TrieWalkCallback() = default;
};

// The (empty) data handed to IPv6 walk handlers along with each prefix.
struct PrefixData {};

// Set of IPv4 prefixes. Walk callbacks: bool(const Pexo::Prefix&).
class Trie : public Zop::PtrInterface {
public:
   Trie() = default;

   void routeIs(const Pexo::Prefix& p, bool present);
   bool routeDel(const Pexo::Prefix& p);
   bool routeHas(const Pexo::Prefix& p) const;
   std::optional<Pexo::Prefix> longestMatch(const Pexo::Prefix& p) const;
   std::optional<Pexo::Prefix> longestMatch(Pexo::IpAddr a) const {
      return longestMatch(Pexo::Prefix(a, Pexo::Prefix::kMaxLength));
   }
   template <class F>
   void preOrderWalk(const Pexo::Prefix& from, F&& cb) const;
   template <class F>
   void preOrderWalkAfter(const Pexo::Prefix& from, const Pexo::Prefix& after, F&& cb) const;

   size_t size() const { return trie_.size(); }
   uint64_t changeCount() const { return trie_.changeCount(); }
   bool empty() const { return trie_.empty(); }
   void clear() { trie_.clear(); }
   size_t memoryUsage() const { return trie_.memoryUsage(); }
   const Impl::PrefixTrie<uint32_t>& core() const { return trie_; }

private:
   static void checkFrom(const Pexo::Prefix& from);
   Impl::PrefixTrie<uint32_t> trie_;
};

Zop::Ptr<Trie> trieFactory();

}  // namespace Routing

namespace Routing6 {

// Set of IPv6 prefixes, keyed by Ip6Prefix or by an IpGenPrefix holding
// IPv6 (an IpGenPrefix of another family is an invalid key). Walk callbacks:
// bool(const Pexo::IpGenPrefix&).
class Trie : public Zop::PtrInterface {
public:
   Trie() = default;

   void routeIs(const Pexo::Ip6Prefix& p, bool present);
   void routeIs(const Pexo::IpGenPrefix& p, bool present) { routeIs(v6Of(p, "routeIs"), present); }
   bool routeDel(const Pexo::Ip6Prefix& p);
   bool routeDel(const Pexo::IpGenPrefix& p) { return routeDel(v6Of(p, "routeDel")); }
   bool routeHas(const Pexo::Ip6Prefix& p) const;
   bool routeHas(const Pexo::IpGenPrefix& p) const { return p.isIpv6() && routeHas(p.v6()); }
   std::optional<Pexo::Ip6Prefix> longestMatch(const Pexo::Ip6Prefix& p) const;
   std::optional<Pexo::Ip6Prefix> longestMatch(const Pexo::Ip6Addr& a) const {
      return longestMatch(Pexo::Ip6Prefix(a, Pexo::Ip6Prefix::kMaxLength));
   }
   std::optional<Pexo::IpGenPrefix> longestMatch(const Pexo::IpGenPrefix& p) const;
   template <class F>
   void preOrderWalk(const Pexo::Ip6Prefix& from, F&& cb) const;
   template <class F>
   void preOrderWalk(const Pexo::IpGenPrefix& from, F&& cb) const {
      preOrderWalk(v6Of(from, "preOrderWalk"), std::forward<F>(cb));
   }
   template <class F>
   void preOrderWalkAfter(const Pexo::Ip6Prefix& from, const Pexo::Ip6Prefix& after, F&& cb) const;
   template <class F>
   void preOrderWalkAfter(const Pexo::IpGenPrefix& from, const Pexo::IpGenPrefix& after,
                          F&& cb) const {
      preOrderWalkAfter(v6Of(from, "preOrderWalkAfter"), v6Of(after, "preOrderWalkAfter"),
                        std::forward<F>(cb));
   }

   size_t size() const { return trie_.size(); }
   uint64_t changeCount() const { return trie_.changeCount(); }
   bool empty() const { return trie_.empty(); }
   void clear() { trie_.clear(); }
   size_t memoryUsage() const { return trie_.memoryUsage(); }
   const Routing::Impl::PrefixTrie<Routing::Impl::Uint128>& core() const { return trie_; }

private:
   // The IPv6 prefix inside p; throws Zop::RangeError for another family.
   static Pexo::Ip6Prefix v6Of(const Pexo::IpGenPrefix& p, const char* op);
   static void checkFrom(const Pexo::Ip6Prefix& from);
   Routing::Impl::PrefixTrie<Routing::Impl::Uint128> trie_;
};

Zop::Ptr<Trie> trieFactory();

}  // namespace Routing6

namespace Routing {

using PatriciaTrie = Routing6::Trie;

// Named set of prefixes of both families. Constructed for one family
// (af ipv4 or ipv6) it refuses to store prefixes of the other with
// Zop::RangeError; lookups of the other family just find nothing. A walk
// stays within the family of `from`. Walk callbacks:
// bool(const Pexo::IpGenPrefix&).
class TrieGen : public Zop::PtrInterface {
public:
   explicit TrieGen(Zop::String name, Pexo::AddressFamily af = Pexo::AddressFamily::ipunknown)
       : name_(std::move(name)), af_(af) {}

   const Zop::String& name() const { return name_; }
   Pexo::AddressFamily af() const { return af_; }

   void routeIs(const Pexo::IpGenPrefix& p, bool present);
   bool routeDel(const Pexo::IpGenPrefix& p);
   bool routeHas(const Pexo::IpGenPrefix& p) const;
   std::optional<Pexo::IpGenPrefix> longestMatch(const Pexo::IpGenPrefix& p) const;
   template <class F>
   void preOrderWalk(const Pexo::IpGenPrefix& from, F&& cb) const;
   // The first stored prefix of after's family that comes after `after` in
   // walk order (address, then length), or nothing.
   std::optional<Pexo::IpGenPrefix> firstAfter(const Pexo::IpGenPrefix& after) const;

   size_t size() const { return v4_.size() + v6_.size(); }
   // Grows at every change of either family's prefixes.
   uint64_t changeCount() const { return v4_.changeCount() + v6_.changeCount(); }
   bool empty() const { return size() == 0; }
   void clear() {
      v4_.clear();
      v6_.clear();
   }
   size_t memoryUsage() const { return v4_.memoryUsage() + v6_.memoryUsage(); }
   const Trie& v4() const { return v4_; }
   const Routing6::Trie& v6() const { return v6_; }

private:
   Zop::String name_;
   Pexo::AddressFamily af_;
   Trie v4_;
   Routing6::Trie v6_;
};

Zop::Ptr<TrieGen> trieGenFactory(Zop::String name,
                                 Pexo::AddressFamily af = Pexo::AddressFamily::ipunknown);

template <class F>
void Trie::preOrderWalk(const Pexo::Prefix& from, F&& cb) const {
   checkFrom(from);
   trie_.walk(Impl::toKey(from), from.len(), [&cb](uint32_t key, unsigned len) {
      return Impl::visitStep(cb, Impl::toPrefix(key, len));
   });
}

template <class F>
void Trie::preOrderWalkAfter(const Pexo::Prefix& from, const Pexo::Prefix& after, F&& cb) const {
   checkFrom(from);
   checkFrom(after);
   trie_.walkAfter(
       Impl::toKey(from), from.len(), Impl::toKey(after), after.len(),
       [&cb](uint32_t key, unsigned len) { return Impl::visitStep(cb, Impl::toPrefix(key, len)); });
}

template <class F>
void TrieGen::preOrderWalk(const Pexo::IpGenPrefix& from, F&& cb) const {
   if (from.isIpv4()) {
      v4_.preOrderWalk(from.v4(), [&cb](const Pexo::Prefix& p) {
         return Impl::visitStep(cb, Pexo::IpGenPrefix(p));
      });
   } else {
      v6_.preOrderWalk(from, std::forward<F>(cb));
   }
}

}  // namespace Routing

template <class F>
void Routing6::Trie::preOrderWalk(const Pexo::Ip6Prefix& from, F&& cb) const {
   namespace Impl = Routing::Impl;
   checkFrom(from);
   trie_.walk(Impl::toKey(from), from.len(), [&cb](Impl::Uint128 key, unsigned len) {
      return Impl::visitStep(cb, Pexo::IpGenPrefix(Impl::toPrefix(key, len)));
   });
}

template <class F>
void Routing6::Trie::preOrderWalkAfter(const Pexo::Ip6Prefix& from, const Pexo::Ip6Prefix& after,
                                       F&& cb) const {
   namespace Impl = Routing::Impl;
   checkFrom(from);
   checkFrom(after);
   trie_.walkAfter(Impl::toKey(from), from.len(), Impl::toKey(after), after.len(),
                   [&cb](Impl::Uint128 key, unsigned len) {
                      return Impl::visitStep(cb, Pexo::IpGenPrefix(Impl::toPrefix(key, len)));
                   });
}
