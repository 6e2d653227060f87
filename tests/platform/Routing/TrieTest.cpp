// The tries against a brute-force model (a sorted set scanned linearly), over
// random operation sequences on several shapes of prefix sets, for IPv4,
// IPv6 and the two-family TrieGen; then table-driven edge cases and the
// rejection of bad keys.

#include <gtest/gtest.h>

#include <optional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "Routing/Trie.h"
#include "Zop/TextCursor.h"

namespace {

using Routing::Impl::Uint128;

// A prefix as its address bits aligned to the top of 128 bits, so both
// families share one model and one ordering.
struct Pfx {
   Uint128 key;
   unsigned len;
   friend bool operator==(const Pfx& a, const Pfx& b) { return a.key == b.key && a.len == b.len; }
   // Ascending (address, length) is pre-order: a prefix starts at the
   // lowest address it covers and comes before the longer ones inside it.
   friend bool operator<(const Pfx& a, const Pfx& b) {
      return a.key != b.key ? a.key < b.key : a.len < b.len;
   }
};

Uint128 topMask(unsigned len) {
   return len == 0 ? 0 : ~Uint128(0) << (128 - len);
}
bool inside(const Pfx& outer, const Pfx& p) {
   return outer.len <= p.len && (p.key & topMask(outer.len)) == outer.key;
}

std::ostream& operator<<(std::ostream& os, const Pfx& p) {
   return os << std::hex << uint64_t(p.key >> 64) << ':' << uint64_t(p.key) << std::dec << '/'
             << p.len;
}

// ---- The model ----

std::optional<Pfx> modelLongestMatch(const std::set<Pfx>& model, const Pfx& q) {
   std::optional<Pfx> best;
   for (const Pfx& p : model) {
      if (p.len <= q.len && (q.key & topMask(p.len)) == p.key && (!best || p.len > best->len)) {
         best = p;
      }
   }
   return best;
}

template <class Prune>
std::vector<Pfx> modelWalk(const std::set<Pfx>& model, const Pfx& from, Prune prune) {
   std::vector<Pfx> out;
   std::optional<Pfx> pruned;
   for (const Pfx& p : model) {
      if (!inside(from, p) || (pruned && inside(*pruned, p))) {
         continue;
      }
      out.push_back(p);
      if (prune(p)) {
         pruned = p;
      }
   }
   return out;
}

// ---- The tries under test, through their public front ends ----

struct V4 {
   static constexpr unsigned kBits = 32;
   struct T {
      Routing::Trie t;
   };
   static Pexo::Prefix to(const Pfx& p) { return {Pexo::IpAddr(uint32_t(p.key >> 96)), p.len}; }
   static Pfx from(const Pexo::Prefix& p) { return {Uint128(p.addr().value()) << 96, p.len()}; }
   static void add(T& t, const Pfx& p) { t.t.routeIs(to(p), true); }
   static bool del(T& t, const Pfx& p) { return t.t.routeDel(to(p)); }
   static bool has(const T& t, const Pfx& p) { return t.t.routeHas(to(p)); }
   static std::optional<Pfx> longestMatch(const T& t, const Pfx& q) {
      const auto m = t.t.longestMatch(to(q));
      return m ? std::optional<Pfx>(from(*m)) : std::nullopt;
   }
   template <class F>
   static void walk(const T& t, const Pfx& p, F f) {
      t.t.preOrderWalk(to(p), [&](const Pexo::Prefix& q) { return f(from(q)); });
   }
   static size_t size(const T& t) { return t.t.size(); }
   static const auto& core(const T& t) { return t.t.core(); }
};

struct V6 {
   static constexpr unsigned kBits = 128;
   struct T {
      Routing6::Trie t;
   };
   static Pexo::Ip6Prefix to(const Pfx& p) {
      return {Pexo::Ip6Addr(uint64_t(p.key >> 64), uint64_t(p.key)), p.len};
   }
   static Pfx from(const Pexo::Ip6Prefix& p) {
      return {(Uint128(p.addr().hi()) << 64) | p.addr().lo(), p.len()};
   }
   // Half the calls go through the IpGenPrefix overloads.
   static void add(T& t, const Pfx& p) {
      if (p.len % 2) {
         t.t.routeIs(to(p), true);
      } else {
         t.t.routeIs(Pexo::IpGenPrefix(to(p)), true);
      }
   }
   static bool del(T& t, const Pfx& p) {
      return p.len % 2 ? t.t.routeDel(to(p)) : t.t.routeDel(Pexo::IpGenPrefix(to(p)));
   }
   static bool has(const T& t, const Pfx& p) { return t.t.routeHas(to(p)); }
   static std::optional<Pfx> longestMatch(const T& t, const Pfx& q) {
      const auto m = t.t.longestMatch(to(q));
      const auto g = t.t.longestMatch(Pexo::IpGenPrefix(to(q)));
      EXPECT_EQ(m.has_value(), g.has_value());
      if (m && g) {
         EXPECT_EQ(Pexo::IpGenPrefix(*m), *g);
      }
      return m ? std::optional<Pfx>(from(*m)) : std::nullopt;
   }
   template <class F>
   static void walk(const T& t, const Pfx& p, F f) {
      t.t.preOrderWalk(to(p), [&](const Pexo::IpGenPrefix& q) {
         EXPECT_TRUE(q.isIpv6());
         return f(from(q.v6()));
      });
   }
   static size_t size(const T& t) { return t.t.size(); }
   static const auto& core(const T& t) { return t.t.core(); }
};

// TrieGen, with a fixed set of the other family stored alongside that must
// never show up.
template <class Fam>
struct Gen {
   static constexpr unsigned kBits = Fam::kBits;
   static constexpr bool kV4 = kBits == 32;
   struct T {
      Routing::TrieGen t{"trie"};
      size_t noise = 0;
      T() {
         std::mt19937_64 rng(99);
         std::set<Pexo::IpGenPrefix> others;
         for (int i = 0; i < 200; ++i) {
            const unsigned len = unsigned(rng() % 40);
            const uint32_t a = uint32_t(rng()) & uint32_t(topMask(len + 96));
            if (kV4) {
               others.insert(Pexo::Ip6Prefix(Pexo::Ip6Addr(uint64_t(a) << 32, 0), len));
            } else {
               others.insert(Pexo::Prefix(Pexo::IpAddr(a), std::min(len, 32u)).masked());
            }
         }
         for (const auto& p : others) {
            t.routeIs(p, true);
         }
         noise = others.size();
      }
   };
   static Pexo::IpGenPrefix to(const Pfx& p) { return Pexo::IpGenPrefix(Fam::to(p)); }
   static Pfx from(const Pexo::IpGenPrefix& p) {
      EXPECT_EQ(p.isIpv4(), kV4);
      if constexpr (kV4) {
         return Fam::from(p.v4());
      } else {
         return Fam::from(p.v6());
      }
   }
   static void add(T& t, const Pfx& p) { t.t.routeIs(to(p), true); }
   static bool del(T& t, const Pfx& p) { return t.t.routeDel(to(p)); }
   static bool has(const T& t, const Pfx& p) { return t.t.routeHas(to(p)); }
   static std::optional<Pfx> longestMatch(const T& t, const Pfx& q) {
      const auto m = t.t.longestMatch(to(q));
      return m ? std::optional<Pfx>(from(*m)) : std::nullopt;
   }
   template <class F>
   static void walk(const T& t, const Pfx& p, F f) {
      t.t.preOrderWalk(to(p), [&](const Pexo::IpGenPrefix& q) { return f(from(q)); });
   }
   static size_t size(const T& t) { return t.t.size() - t.noise; }
   static const auto& core(const T& t) {
      if constexpr (kV4) {
         return t.t.v4().core();
      } else {
         return t.t.v6().core();
      }
   }
};

// ---- Random prefix sets of several shapes ----

enum class Shape {
   uniform,    // any length, any address
   clustered,  // long prefixes under a few bases: long shared paths
   nested,     // one address at every length, plus siblings: deep chains
   shortLen,   // lengths 0..4: /0 and heavy repetition
};

class PrefixSource {
public:
   PrefixSource(Shape shape, unsigned bits, uint64_t seed) : shape_(shape), w_(bits), rng_(seed) {
      for (int i = 0; i < 4; ++i) {
         bases_.push_back(bitsRandom());
      }
   }

   Pfx prefix() {
      unsigned len = 0;
      Uint128 key = bitsRandom();
      switch (shape_) {
         case Shape::uniform:
            len = below(w_ + 1);
            break;
         case Shape::clustered: {
            const Uint128 low = topMask(w_) & ~topMask(w_ - 10);
            key = (bases_[below(unsigned(bases_.size()))] & ~low) | (key & low);
            len = below(10) == 0 ? below(w_ + 1) : w_ - 16 + below(17);
            break;
         }
         case Shape::nested:
            len = below(w_ + 1);
            key = bases_[0];
            if (len > 0 && below(3) == 0) {
               key ^= Uint128(1) << (128 - len);  // the sibling at this length
            }
            break;
         case Shape::shortLen:
            len = below(5);
            break;
      }
      return {key & topMask(len), len};
   }

   // A lookup key: often inside a stored prefix, with host bits set.
   Pfx query(const std::set<Pfx>& model) {
      Pfx base = model.empty() || below(2) ? prefix() : pick(model);
      const unsigned len = base.len + below(w_ - base.len + 1);
      return {base.key | (bitsRandom() & ~topMask(base.len)), len};
   }

   // A walk root: stored, an ancestor of a stored one, or anything.
   Pfx walkRoot(const std::set<Pfx>& model) {
      const unsigned r = below(5);
      if (model.empty() || r == 0) {
         return prefix();
      }
      Pfx p = pick(model);
      if (r <= 2) {
         p.len = below(p.len + 1);
         p.key &= topMask(p.len);
      }
      return p;
   }

   Pfx pick(const std::set<Pfx>& model) { return *std::next(model.begin(), below(model.size())); }
   unsigned below(size_t n) { return unsigned(rng_() % n); }
   uint64_t next() { return rng_(); }

private:
   Uint128 bitsRandom() { return ((Uint128(rng_()) << 64) | rng_()) & topMask(w_); }

   Shape shape_;
   unsigned w_;
   std::mt19937_64 rng_;
   std::vector<Uint128> bases_;
};

template <class Fam>
void expectSameSet(const typename Fam::T& t, const std::set<Pfx>& model) {
   std::vector<Pfx> all;
   Fam::walk(t, Pfx{0, 0}, [&](const Pfx& p) {
      all.push_back(p);
      return true;
   });
   EXPECT_EQ(all, std::vector<Pfx>(model.begin(), model.end()));
   EXPECT_EQ(Fam::size(t), model.size());
   EXPECT_EQ(Fam::core(t).checkInvariants(), "");
   // Branch nodes only where stored paths split.
   EXPECT_LE(Fam::core(t).nodeCount(), model.empty() ? 0 : 2 * model.size() - 1);
}

template <class Fam>
void runOperations(Shape shape, uint64_t seed, int steps) {
   SCOPED_TRACE("shape " + std::to_string(int(shape)) + " seed " + std::to_string(seed));
   PrefixSource src(shape, Fam::kBits, seed);
   typename Fam::T t;
   std::set<Pfx> model;
   for (int step = 0; step < steps; ++step) {
      const unsigned r = src.below(100);
      if (r < 40) {
         const Pfx p = src.prefix();
         Fam::add(t, p);
         model.insert(p);
      } else if (r < 55) {
         if (!model.empty()) {
            const Pfx p = src.pick(model);
            EXPECT_TRUE(Fam::del(t, p)) << p;
            model.erase(p);
         }
      } else if (r < 60) {
         const Pfx p = src.prefix();
         EXPECT_EQ(Fam::del(t, p), model.erase(p) == 1) << p;
      } else if (r < 70) {
         const Pfx p = model.empty() || src.below(2) ? src.prefix() : src.pick(model);
         EXPECT_EQ(Fam::has(t, p), model.count(p) == 1) << p;
      } else if (r < 90) {
         const Pfx q = src.query(model);
         ASSERT_EQ(Fam::longestMatch(t, q), modelLongestMatch(model, q)) << "query " << q;
      } else {
         const Pfx from = src.walkRoot(model);
         const uint64_t salt = src.next();
         const unsigned every = 1 + src.below(4);  // 1: prune at every node
         auto prune = [&](const Pfx& p) {
            return (uint64_t(p.key >> 64) ^ uint64_t(p.key) ^ p.len ^ salt) % 7 % every == 0;
         };
         std::vector<Pfx> seen;
         Fam::walk(t, from, [&](const Pfx& p) {
            seen.push_back(p);
            return !prune(p);
         });
         ASSERT_EQ(seen, modelWalk(model, from, prune)) << "walk from " << from;
      }
      if (step % 256 == 0) {
         expectSameSet<Fam>(t, model);
      }
   }
   expectSameSet<Fam>(t, model);
}

template <class Fam>
class TrieProperty : public testing::Test {};

struct FamilyNames {
   template <class T>
   static std::string GetName(int) {
      if constexpr (std::is_same_v<T, V4>) {
         return "Ipv4";
      } else if constexpr (std::is_same_v<T, V6>) {
         return "Ipv6";
      } else if constexpr (std::is_same_v<T, Gen<V4>>) {
         return "GenIpv4";
      } else {
         return "GenIpv6";
      }
   }
};
using Families = testing::Types<V4, V6, Gen<V4>, Gen<V6>>;
TYPED_TEST_SUITE(TrieProperty, Families, FamilyNames);

TYPED_TEST(TrieProperty, RandomOperationsMatchModel) {
   for (Shape shape : {Shape::uniform, Shape::clustered, Shape::nested, Shape::shortLen}) {
      for (uint64_t seed : {1, 2, 3}) {
         runOperations<TypeParam>(shape, seed, 4000);
      }
   }
}

// Fill, then delete everything in random order: the trie stays right all
// the way down, ends with no node in use, and filling again reuses the pool
// without growing it.
TYPED_TEST(TrieProperty, DeleteToEmptyAndRefill) {
   using Fam = TypeParam;
   for (Shape shape : {Shape::uniform, Shape::clustered, Shape::nested}) {
      PrefixSource src(shape, Fam::kBits, 7);
      typename Fam::T t;
      std::set<Pfx> model;
      for (int i = 0; i < 3000; ++i) {
         const Pfx p = src.prefix();
         Fam::add(t, p);
         model.insert(p);
      }
      const std::set<Pfx> full = model;
      const size_t memory = Fam::core(t).memoryUsage();
      std::vector<Pfx> order(full.begin(), full.end());
      std::shuffle(order.begin(), order.end(), std::mt19937_64(8));
      for (size_t i = 0; i < order.size(); ++i) {
         ASSERT_TRUE(Fam::del(t, order[i]));
         ASSERT_FALSE(Fam::del(t, order[i]));
         model.erase(order[i]);
         if (i % 97 == 0) {
            expectSameSet<Fam>(t, model);
            const Pfx q = src.query(full);
            ASSERT_EQ(Fam::longestMatch(t, q), modelLongestMatch(model, q));
         }
      }
      expectSameSet<Fam>(t, model);
      EXPECT_EQ(Fam::core(t).nodeCount(), 0u);
      EXPECT_EQ(Fam::longestMatch(t, Pfx{0, 0}), std::nullopt);
      // Again, half of it in a different order, half deleted and re-added.
      std::shuffle(order.begin(), order.end(), std::mt19937_64(9));
      for (const Pfx& p : order) {
         Fam::add(t, p);
      }
      for (size_t i = 0; i < order.size() / 2; ++i) {
         Fam::del(t, order[i]);
      }
      for (size_t i = 0; i < order.size() / 2; ++i) {
         Fam::add(t, order[i]);
      }
      expectSameSet<Fam>(t, full);
      EXPECT_EQ(Fam::core(t).memoryUsage(), memory);
   }
}

// ---- Edge cases, both families side by side in one TrieGen ----

Pexo::IpGenPrefix gp(const char* text) {
   Zop::TextCursor c(text);
   return Pexo::IpGenPrefix(c);
}

struct MatchCase {
   std::vector<const char*> stored;
   const char* query;
   const char* expected;  // nullptr: no match
};

TEST(TrieEdges, LongestMatch) {
   const std::vector<MatchCase> cases = {
       {{}, "10.0.0.1/32", nullptr},
       {{}, "::/0", nullptr},
       {{"0.0.0.0/0"}, "255.255.255.255/32", "0.0.0.0/0"},
       {{"0.0.0.0/0"}, "0.0.0.0/0", "0.0.0.0/0"},
       {{"128.0.0.0/1"}, "10.0.0.0/8", nullptr},
       {{"128.0.0.0/1"}, "0.0.0.0/0", nullptr},
       {{"10.0.0.0/8", "10.1.0.0/16", "10.1.2.0/24"}, "10.1.2.3/32", "10.1.2.0/24"},
       {{"10.0.0.0/8", "10.1.0.0/16", "10.1.2.0/24"}, "10.1.3.3/32", "10.1.0.0/16"},
       {{"10.0.0.0/8", "10.1.0.0/16", "10.1.2.0/24"}, "10.1.0.0/15", "10.0.0.0/8"},
       {{"10.0.0.0/8", "10.1.0.0/16", "10.1.2.0/24"}, "11.1.2.3/32", nullptr},
       {{"10.1.2.3/32"}, "10.1.2.3/32", "10.1.2.3/32"},
       {{"10.1.2.3/32"}, "10.1.2.2/32", nullptr},
       {{"255.255.255.255/32", "0.0.0.0/32"}, "255.255.255.255/32", "255.255.255.255/32"},
       {{"255.255.255.255/32", "0.0.0.0/32"}, "0.0.0.0/32", "0.0.0.0/32"},
       // Host bits in the lookup key count only within its length.
       {{"10.1.0.0/16"}, "10.1.255.255/16", "10.1.0.0/16"},
       {{"10.1.0.0/16"}, "10.1.255.255/15", nullptr},
       // Two prefixes that split below a branch node that is not stored.
       {{"10.0.0.0/24", "10.0.1.0/24"}, "10.0.0.0/23", nullptr},
       {{"::/0"}, "2001:db8::1/128", "::/0"},
       {{"2001:db8::/32", "2001:db8:0:1::/64", "2001:db8::1/128"},
        "2001:db8::1/128",
        "2001:db8::1/128"},
       {{"2001:db8::/32", "2001:db8:0:1::/64", "2001:db8::1/128"},
        "2001:db8::2/128",
        "2001:db8::/32"},
       {{"2001:db8::/32", "2001:db8:0:1::/64", "2001:db8::1/128"},
        "2001:db8:0:1::5/128",
        "2001:db8:0:1::/64"},
       // Around the middle of the 128-bit key.
       {{"2001:db8::/64", "2001:db8::8000:0:0:0/65"},
        "2001:db8::8000:0:0:1/128",
        "2001:db8::8000:0:0:0/65"},
       {{"2001:db8::/64", "2001:db8::8000:0:0:0/65"}, "2001:db8::7fff:0:0:1/128", "2001:db8::/64"},
       {{"2001:db8::/63"}, "2001:db8:0:1::/64", "2001:db8::/63"},
       {{"8000::/1"}, "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff/128", "8000::/1"},
       // The families never match each other.
       {{"::/0"}, "10.0.0.1/32", nullptr},
       {{"0.0.0.0/0", "::a00:0/104"}, "::a00:1/128", "::a00:0/104"},
       {{"0.0.0.0/0"}, "::1/128", nullptr},
   };
   for (const MatchCase& c : cases) {
      Routing::TrieGen t("edges");
      for (const char* s : c.stored) {
         t.routeIs(gp(s), true);
      }
      const auto got = t.longestMatch(gp(c.query));
      const auto want = c.expected ? std::optional(gp(c.expected)) : std::nullopt;
      EXPECT_EQ(got, want) << "query " << c.query << " stored first "
                           << (c.stored.empty() ? "-" : c.stored[0]);
   }
}

struct WalkCase {
   const char* from;
   std::vector<const char*> prune;
   std::vector<const char*> expected;
};

TEST(TrieEdges, PreOrderWalk) {
   const std::vector<const char*> stored = {
       "10.0.0.0/8",    "10.0.0.0/16",        "10.128.0.0/9", "10.0.0.0/24",
       "10.0.0.7/32",   "11.0.0.0/8",         "0.0.0.0/0",    "2001:db8::/32",
       "2001:db8::/48", "2001:db8:8000::/33", "::/0",         "2001:db8::/128"};
   const std::vector<WalkCase> cases = {
       {"10.0.0.0/8",
        {},
        {"10.0.0.0/8", "10.0.0.0/16", "10.0.0.0/24", "10.0.0.7/32", "10.128.0.0/9"}},
       {"10.0.0.0/12", {}, {"10.0.0.0/16", "10.0.0.0/24", "10.0.0.7/32"}},
       {"10.0.0.0/8", {"10.0.0.0/16"}, {"10.0.0.0/8", "10.0.0.0/16", "10.128.0.0/9"}},
       {"10.0.0.0/8", {"10.0.0.0/8"}, {"10.0.0.0/8"}},
       {"0.0.0.0/0", {"10.0.0.0/8"}, {"0.0.0.0/0", "10.0.0.0/8", "11.0.0.0/8"}},
       {"10.0.0.7/32", {}, {"10.0.0.7/32"}},
       {"10.0.0.6/32", {}, {}},
       {"12.0.0.0/8", {}, {}},
       {"10.0.0.0/7",
        {"10.0.0.0/24"},
        {"10.0.0.0/8", "10.0.0.0/16", "10.0.0.0/24", "10.128.0.0/9", "11.0.0.0/8"}},
       {"::/0",
        {},
        {"::/0", "2001:db8::/32", "2001:db8::/48", "2001:db8::/128", "2001:db8:8000::/33"}},
       {"2001:db8::/31",
        {"2001:db8::/48"},
        {"2001:db8::/32", "2001:db8::/48", "2001:db8:8000::/33"}},
       {"2001:db8:4000::/34", {}, {}},
   };
   Routing::TrieGen t("edges");
   for (const char* s : stored) {
      t.routeIs(gp(s), true);
   }
   for (const WalkCase& c : cases) {
      std::set<Pexo::IpGenPrefix> prune;
      for (const char* s : c.prune) {
         prune.insert(gp(s));
      }
      std::vector<Pexo::IpGenPrefix> seen;
      t.preOrderWalk(gp(c.from), [&](const Pexo::IpGenPrefix& p) {
         seen.push_back(p);
         return prune.count(p) == 0;
      });
      std::vector<Pexo::IpGenPrefix> want;
      for (const char* s : c.expected) {
         want.push_back(gp(s));
      }
      EXPECT_EQ(seen, want) << "from " << c.from;
   }
}

// Keys that change the set and walk roots must be exact prefixes of the
// trie's family; the error names the prefix. Lookups of such keys are
// answered, not refused, where that makes sense.
TEST(TrieEdges, BadKeys) {
   Routing::Trie v4;
   const Pexo::Prefix hostBits(Pexo::IpAddr(0x0A000001), 8);
   const Pexo::Prefix tooLong(Pexo::IpAddr(0x0A000000), 33);
   for (const auto& bad : {hostBits, tooLong}) {
      const std::string text = Pexo::valueToStrep(bad);
      try {
         v4.routeIs(bad, true);
         ADD_FAILURE() << "accepted " << text;
      } catch (const Zop::RangeError& e) {
         EXPECT_NE(std::string(e.what()).find(text), std::string::npos) << e.what();
      }
      EXPECT_THROW(v4.routeIs(bad, false), Zop::RangeError);
      EXPECT_THROW(v4.routeDel(bad), Zop::RangeError);
      EXPECT_THROW(v4.preOrderWalk(bad, [](const Pexo::Prefix&) { return true; }), Zop::RangeError);
      EXPECT_FALSE(v4.routeHas(bad));
   }
   v4.routeIs(hostBits.masked(), true);
   EXPECT_EQ(v4.longestMatch(hostBits), hostBits.masked());
   EXPECT_FALSE(v4.routeHas(hostBits));
   EXPECT_THROW(v4.longestMatch(tooLong), Zop::RangeError);
   EXPECT_THROW(v4.longestMatch(Pexo::Prefix(Pexo::IpAddr(0), Pexo::Prefix::kUnsetLength)),
                Zop::RangeError);
   EXPECT_EQ(v4.size(), 1u);

   Routing::PatriciaTrie v6;
   static_assert(std::is_same_v<Routing::PatriciaTrie, Routing6::Trie>);
   EXPECT_THROW(v6.routeIs(gp("10.0.0.0/8"), true), Zop::RangeError);
   EXPECT_THROW(v6.routeIs(Pexo::IpGenPrefix(), true), Zop::RangeError);
   EXPECT_THROW(v6.routeIs(gp("2001:db8::1/64"), true), Zop::RangeError);
   EXPECT_THROW(v6.longestMatch(Pexo::Ip6Prefix(Pexo::Ip6Addr(), 129)), Zop::RangeError);
   EXPECT_THROW(v6.longestMatch(gp("10.0.0.0/8")), Zop::RangeError);
   EXPECT_FALSE(v6.routeHas(gp("10.0.0.0/8")));
   EXPECT_TRUE(v6.empty());

   // A TrieGen made for one family refuses the other.
   auto only4 = Routing::trieGenFactory("v4Trie", Pexo::AddressFamily::ipv4);
   EXPECT_EQ(only4->name(), "v4Trie");
   try {
      only4->routeIs(gp("2001:db8::/32"), true);
      ADD_FAILURE() << "IPv6 prefix accepted by an IPv4 trie";
   } catch (const Zop::RangeError& e) {
      EXPECT_NE(std::string(e.what()).find("2001:db8::/32"), std::string::npos) << e.what();
   }
   only4->routeIs(gp("10.0.0.0/8"), true);
   EXPECT_FALSE(only4->routeHas(gp("2001:db8::/32")));
   EXPECT_EQ(only4->longestMatch(gp("::/0")), std::nullopt);
   EXPECT_THROW(only4->routeIs(Pexo::IpGenPrefix(), true), Zop::RangeError);
   EXPECT_THROW(only4->longestMatch(Pexo::IpGenPrefix()), Zop::RangeError);
   EXPECT_EQ(only4->size(), 1u);
}

// A walk callback may look things up and may throw; it may not change the
// trie it walks.
TEST(TrieEdges, WalkCallbacks) {
   auto t = Routing::trieFactory();
   for (uint32_t i = 0; i < 16; ++i) {
      t->routeIs(Pexo::Prefix(Pexo::IpAddr(0x0A000000 | i << 8), 24), true);
   }
   const Pexo::Prefix all(Pexo::IpAddr(0), 0);
   int visits = 0;
   EXPECT_THROW(t->preOrderWalk(all,
                                [&](const Pexo::Prefix& p) {
                                   ++visits;
                                   EXPECT_EQ(t->longestMatch(p), p);
                                   if (visits == 3) {
                                      throw std::runtime_error("stop");
                                   }
                                   return true;
                                }),
                std::runtime_error);
   EXPECT_EQ(visits, 3);
   t->routeIs(all, true);  // allowed again once the walk is gone
   visits = 0;
   t->preOrderWalk(all, [&](const Pexo::Prefix&) { ++visits; });  // void: never prunes
   EXPECT_EQ(visits, 17);

   EXPECT_DEATH(t->preOrderWalk(all, [&](const Pexo::Prefix& p) { return t->routeDel(p); }),
                "trie changed during a walk");
}

// The node pool stays small: a realistic IPv4 table costs well under 48 bytes
// a prefix, pool slack included.
TEST(TrieEdges, MemoryPerPrefix) {
   Routing::Trie t;
   std::mt19937_64 rng(5);
   while (t.size() < 200000) {
      const uint32_t len = 16 + uint32_t(rng() % 9);
      t.routeIs(Pexo::Prefix(Pexo::IpAddr(uint32_t(rng()) & ~uint32_t(0) << (32 - len)), len),
                true);
   }
   EXPECT_LE(t.core().nodeCount(), 2 * t.size());
   EXPECT_LT(double(t.memoryUsage()) / double(t.size()), 48.0);
   t.clear();
   EXPECT_EQ(t.memoryUsage(), 0u);
   EXPECT_TRUE(t.empty());
}

}  // namespace
