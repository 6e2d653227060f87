// Routing trie against the usual alternative, one hash set per prefix length
// (longest length first for longest match), on realistic tables: 1,000,000
// IPv4 prefixes (mostly /16-/24) and 200,000 IPv6 prefixes (mostly /32-/64),
// drawn with fixed seeds from a few thousand allocation blocks the way real
// tables cluster. Both run the same operations in the same binary:
//
//   Insert        build the whole table into an empty structure
//   Delete        remove the whole table, in random order
//   LongestMatch  one host-address lookup (80% inside some stored prefix)
//   WalkAll       ordered walk of everything
//   WalkSubtree   ordered walk under a random /12 (IPv4) or /28 (IPv6)
//
// The counter bytes_per_prefix is the structure's memory over the table
// size: the trie's node pool capacity (one large block), or the heap the hash
// sets hold (nodes and bucket arrays, as malloc accounts them) plus the sets
// themselves.

#include <benchmark/benchmark.h>

#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <optional>
#include <random>
#include <unordered_set>
#include <vector>

#include "Routing/Trie.h"

namespace {

using Routing::Impl::Uint128;

// ---- The two families ----

struct V4 {
   static constexpr unsigned kBits = 32;
   static constexpr size_t kCount = 1'000'000;
   static constexpr unsigned kSubtreeLen = 12;
   using Prefix = Pexo::Prefix;
   using Trie = Routing::Trie;
   using Key = uint32_t;
   using Hash = std::hash<uint32_t>;

   static Key key(const Prefix& p) { return p.addr().value(); }
   static Prefix prefix(Key k, unsigned len) { return Prefix(Pexo::IpAddr(k), len); }
   static Key mask(Key k, unsigned len) { return len == 0 ? 0 : k & (~Key(0) << (32 - len)); }
   static Key random(std::mt19937_64& rng) { return uint32_t(rng()); }

   // Roughly the shape of a global table: half /24, the rest mostly /16-/23.
   static unsigned length(std::mt19937_64& rng) {
      const unsigned r = unsigned(rng() % 1000);
      return r < 560   ? 24
             : r < 650 ? 23
             : r < 760 ? 22
             : r < 810 ? 21
             : r < 850 ? 20
             : r < 880 ? 19
             : r < 900 ? 18
             : r < 915 ? 17
             : r < 960 ? 16
             : r < 985 ? 8 + unsigned(rng() % 8)
                       : 25 + unsigned(rng() % 8);
   }
   // Allocation blocks: /14s in 1.0.0.0 - 223.255.255.255.
   static Key block(std::mt19937_64& rng) {
      return mask(uint32_t(0x01000000 + rng() % (0xE0000000u - 0x01000000)), 14);
   }
   static unsigned blockLen() { return 14; }
};

struct K6 {
   uint64_t hi;
   uint64_t lo;
   friend bool operator==(const K6&, const K6&) = default;
};
struct K6Hash {
   size_t operator()(const K6& k) const {
      return Pexo::hashCombine(Pexo::hashCombine(0, k.hi), k.lo);
   }
};

struct V6 {
   static constexpr unsigned kBits = 128;
   static constexpr size_t kCount = 200'000;
   static constexpr unsigned kSubtreeLen = 28;
   using Prefix = Pexo::Ip6Prefix;
   using Trie = Routing6::Trie;
   using Key = K6;
   using Hash = K6Hash;

   static Key key(const Prefix& p) { return {p.addr().hi(), p.addr().lo()}; }
   static Prefix prefix(Key k, unsigned len) { return Prefix(Pexo::Ip6Addr(k.hi, k.lo), len); }
   static Key mask(Key k, unsigned len) {
      const Uint128 v = (Uint128(k.hi) << 64) | k.lo;
      const Uint128 m = len == 0 ? 0 : ~Uint128(0) << (128 - len);
      return {uint64_t((v & m) >> 64), uint64_t(v & m)};
   }
   static Key random(std::mt19937_64& rng) { return {rng(), rng()}; }

   // Mostly /48, then /32-/47, /56, /64, with a few short and host routes.
   static unsigned length(std::mt19937_64& rng) {
      const unsigned r = unsigned(rng() % 1000);
      return r < 450   ? 48
             : r < 530 ? 32
             : r < 730 ? 33 + unsigned(rng() % 15)
             : r < 780 ? 56
             : r < 850 ? 64
             : r < 950 ? 49 + unsigned(rng() % 15)
             : r < 980 ? 29 + unsigned(rng() % 3)
                       : 128;
   }
   // Allocation blocks: /24s in 2000::/3.
   static Key block(std::mt19937_64& rng) {
      return mask({0x2000000000000000ull | (rng() >> 3), 0}, 24);
   }
   static unsigned blockLen() { return 24; }
};

// ---- Fixed tables ----

template <class F>
struct Data {
   std::vector<typename F::Prefix> table;        // unique, in insertion order
   std::vector<typename F::Prefix> deleteOrder;  // the same, shuffled
   std::vector<typename F::Prefix> queries;      // host addresses
   std::vector<typename F::Prefix> subtrees;     // walk roots
};

template <class F>
const Data<F>& data() {
   static const Data<F> d = [] {
      Data<F> d;
      std::mt19937_64 rng(20240611);
      std::vector<typename F::Key> blocks;
      for (int i = 0; i < 16384; ++i) {
         blocks.push_back(F::block(rng));
      }
      std::unordered_set<typename F::Key, typename F::Hash> seen[F::kBits + 1];
      while (d.table.size() < F::kCount) {
         const unsigned len = F::length(rng);
         const typename F::Key b = blocks[rng() % blocks.size()];
         // Block bits, then random bits below the block.
         typename F::Key k = F::random(rng);
         const typename F::Key above = F::mask(k, F::blockLen());
         if constexpr (F::kBits == 32) {
            k = b | (k ^ above);
         } else {
            k = {b.hi | (k.hi ^ above.hi), b.lo | (k.lo ^ above.lo)};
         }
         k = F::mask(k, len);
         if (seen[len].insert(k).second) {
            d.table.push_back(F::prefix(k, len));
         }
      }
      d.deleteOrder = d.table;
      std::shuffle(d.deleteOrder.begin(), d.deleteOrder.end(), rng);
      for (size_t i = 0; i < 1'000'000; ++i) {
         typename F::Key k = F::random(rng);
         if (rng() % 5 != 0) {
            const auto& p = d.table[rng() % d.table.size()];
            const typename F::Key net = F::key(p);
            const typename F::Key host = F::mask(k, p.len());
            if constexpr (F::kBits == 32) {
               k = net | (k ^ host);
            } else {
               k = {net.hi | (k.hi ^ host.hi), net.lo | (k.lo ^ host.lo)};
            }
         }
         d.queries.push_back(F::prefix(k, F::kBits));
      }
      for (size_t i = 0; i < 4096; ++i) {
         d.subtrees.push_back(
             F::prefix(F::mask(F::key(d.queries[i]), F::kSubtreeLen), F::kSubtreeLen));
      }
      return d;
   }();
   return d;
}

// ---- The alternative: one hash set per prefix length ----

// Counts the heap a container holds: what malloc really sets aside for each
// block (its usable size plus the chunk header), not just what was asked for;
// for small hash nodes the difference is large.
template <class T>
struct Counting {
   using value_type = T;
   size_t* bytes;
   explicit Counting(size_t* b) : bytes(b) {}
   template <class U>
   Counting(const Counting<U>& o) : bytes(o.bytes) {}
   T* allocate(size_t n) {
      void* p = std::malloc(n * sizeof(T));
      if (p == nullptr) {
         throw std::bad_alloc();
      }
      *bytes += malloc_usable_size(p) + sizeof(size_t);
      return static_cast<T*>(p);
   }
   void deallocate(T* p, size_t) {
      *bytes -= malloc_usable_size(p) + sizeof(size_t);
      std::free(p);
   }
   template <class U>
   friend bool operator==(const Counting& a, const Counting<U>& b) {
      return a.bytes == b.bytes;
   }
};

template <class F>
class HashPerLength {
public:
   using Key = typename F::Key;
   using Prefix = typename F::Prefix;

   HashPerLength() {
      sets_.reserve(F::kBits + 1);
      for (unsigned l = 0; l <= F::kBits; ++l) {
         sets_.emplace_back(0, typename F::Hash(), std::equal_to<Key>(),
                            Counting<Key>(bytes_.get()));
      }
   }

   void routeIs(const Prefix& p, bool) {
      auto& s = sets_[p.len()];
      const bool first = s.empty();
      s.insert(F::key(p));
      if (first) {
         refreshLengths();
      }
   }
   bool routeDel(const Prefix& p) {
      auto& s = sets_[p.len()];
      if (s.erase(F::key(p)) == 0) {
         return false;
      }
      if (s.empty()) {
         refreshLengths();
      }
      return true;
   }
   std::optional<Prefix> longestMatch(const Prefix& q) const {
      for (const unsigned l : lengths_) {
         if (l <= q.len()) {
            const Key k = F::mask(F::key(q), l);
            if (sets_[l].count(k)) {
               return F::prefix(k, l);
            }
         }
      }
      return std::nullopt;
   }
   // Everything inside `from`, gathered from every set and sorted into
   // pre-order: there is no cheaper way to find it.
   template <class Cb>
   void preOrderWalk(const Prefix& from, Cb&& cb) const {
      const Key root = F::key(from);
      std::vector<Prefix> found;
      for (unsigned l = from.len(); l <= F::kBits; ++l) {
         for (const Key& k : sets_[l]) {
            if (F::mask(k, from.len()) == root) {
               found.push_back(F::prefix(k, l));
            }
         }
      }
      std::sort(found.begin(), found.end());
      std::optional<Prefix> pruned;
      for (const Prefix& p : found) {
         if (pruned && pruned->contains(p)) {
            continue;
         }
         if (!cb(p)) {
            pruned = p;
         }
      }
   }
   size_t memoryUsage() const { return *bytes_ + sets_.capacity() * sizeof(Set); }

private:
   using Set = std::unordered_set<Key, typename F::Hash, std::equal_to<Key>, Counting<Key>>;
   void refreshLengths() {
      lengths_.clear();
      for (unsigned l = F::kBits + 1; l-- > 0;) {
         if (!sets_[l].empty()) {
            lengths_.push_back(l);
         }
      }
   }
   std::unique_ptr<size_t> bytes_ = std::make_unique<size_t>(0);
   std::vector<Set> sets_;
   std::vector<unsigned> lengths_;  // non-empty lengths, longest first
};

template <class F>
struct TrieImpl {
   using Type = typename F::Trie;
};
template <class F>
struct HashImpl {
   using Type = HashPerLength<F>;
};

template <class S, class F>
std::unique_ptr<S> build() {
   auto s = std::make_unique<S>();
   for (const auto& p : data<F>().table) {
      s->routeIs(p, true);
   }
   return s;
}

template <class S, class F>
const S& prebuilt() {
   static const std::unique_ptr<S> s = build<S, F>();
   return *s;
}

template <class S>
void reportMemory(benchmark::State& state, const S& s, size_t n) {
   state.counters["bytes_per_prefix"] = double(s.memoryUsage()) / double(n);
   if constexpr (requires { s.core(); }) {
      state.counters["nodes_per_prefix"] = double(s.core().nodeCount()) / double(n);
   }
}

// ---- Benchmarks ----

template <template <class> class Impl, class F>
void Insert(benchmark::State& state) {
   using S = typename Impl<F>::Type;
   const auto& d = data<F>();
   for (auto _ : state) {
      auto s = std::make_unique<S>();
      for (const auto& p : d.table) {
         s->routeIs(p, true);
      }
      state.PauseTiming();
      reportMemory(state, *s, d.table.size());
      s.reset();
      state.ResumeTiming();
   }
   state.SetItemsProcessed(int64_t(state.iterations() * d.table.size()));
}

template <template <class> class Impl, class F>
void Delete(benchmark::State& state) {
   using S = typename Impl<F>::Type;
   const auto& d = data<F>();
   for (auto _ : state) {
      state.PauseTiming();
      auto s = build<S, F>();
      state.ResumeTiming();
      for (const auto& p : d.deleteOrder) {
         benchmark::DoNotOptimize(s->routeDel(p));
      }
      state.PauseTiming();
      s.reset();
      state.ResumeTiming();
   }
   state.SetItemsProcessed(int64_t(state.iterations() * d.table.size()));
}

template <template <class> class Impl, class F>
void LongestMatch(benchmark::State& state) {
   using S = typename Impl<F>::Type;
   const S& s = prebuilt<S, F>();
   const auto& q = data<F>().queries;
   size_t i = 0;
   size_t hits = 0;
   for (auto _ : state) {
      const auto m = s.longestMatch(q[i]);
      hits += m.has_value();
      benchmark::DoNotOptimize(m);
      if (++i == q.size()) {
         i = 0;
      }
   }
   state.SetItemsProcessed(int64_t(state.iterations()));
   state.counters["hit_rate"] = double(hits) / double(state.iterations());
   reportMemory(state, s, data<F>().table.size());
}

template <template <class> class Impl, class F>
void WalkAll(benchmark::State& state) {
   using S = typename Impl<F>::Type;
   const S& s = prebuilt<S, F>();
   size_t visited = 0;
   for (auto _ : state) {
      s.preOrderWalk(F::prefix(typename F::Key{}, 0), [&](const auto&) {
         ++visited;
         return true;
      });
   }
   state.SetItemsProcessed(int64_t(visited));
}

template <template <class> class Impl, class F>
void WalkSubtree(benchmark::State& state) {
   using S = typename Impl<F>::Type;
   const S& s = prebuilt<S, F>();
   const auto& roots = data<F>().subtrees;
   size_t i = 0;
   size_t visited = 0;
   for (auto _ : state) {
      s.preOrderWalk(roots[i], [&](const auto&) {
         ++visited;
         return true;
      });
      i = (i + 1) % roots.size();
   }
   state.counters["visited_per_walk"] = double(visited) / double(state.iterations());
}

#define TRIE_BENCH(op, unit)                                    \
   BENCHMARK_TEMPLATE(op, TrieImpl, V4)->Unit(benchmark::unit); \
   BENCHMARK_TEMPLATE(op, HashImpl, V4)->Unit(benchmark::unit); \
   BENCHMARK_TEMPLATE(op, TrieImpl, V6)->Unit(benchmark::unit); \
   BENCHMARK_TEMPLATE(op, HashImpl, V6)->Unit(benchmark::unit)

TRIE_BENCH(Insert, kMillisecond);
TRIE_BENCH(Delete, kMillisecond);
TRIE_BENCH(LongestMatch, kNanosecond);
TRIE_BENCH(WalkAll, kMillisecond);
TRIE_BENCH(WalkSubtree, kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
