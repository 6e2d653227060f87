// The tries against a brute-force model (a sorted set scanned linearly), over
// random operation sequences on several shapes of prefix sets, for IPv4,
// IPv6 and the two-family TrieGen; then table-driven edge cases and the
// rejection of bad keys.

#include <gtest/gtest.h>

#include <algorithm>
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

Pexo::IpGenPrefix gp(const char* text) {
   Zop::TextCursor c(text);
   return Pexo::IpGenPrefix(c);
}

Pfx fromPexo(const Pexo::Prefix& p) {
   return {Uint128(p.addr().value()) << 96, p.len()};
}
Pfx fromPexo(const Pexo::Ip6Prefix& p) {
   return {(Uint128(p.addr().hi()) << 64) | p.addr().lo(), p.len()};
}
Pfx fromPexo(const Pexo::IpGenPrefix& p) {
   return p.isIpv4() ? fromPexo(p.v4()) : fromPexo(p.v6());
}

// One trie seen through key type Key (Prefix, Ip6Prefix or IpGenPrefix). A
// TrieGen also holds a few prefixes of the other family, which must never
// show up.
template <unsigned W, class Key, class TrieT>
struct Subject {
   static constexpr unsigned kBits = W;
   Zop::Ptr<TrieT> t;
   size_t noise = 0;

   Subject() {
      if constexpr (std::is_same_v<TrieT, Routing::TrieGen>) {
         t = Routing::trieGenFactory("gen");
         for (const char* s : W == 32
                                  ? std::vector{"::/0", "::a00:0/104", "2001:db8::/32", "::/128"}
                                  : std::vector{"0.0.0.0/0", "10.0.0.0/8", "0.0.0.0/32"}) {
            t->routeIs(gp(s), true);
            ++noise;
         }
      } else if constexpr (W == 32) {
         t = Routing::trieFactory();
      } else {
         t = Routing6::trieFactory();
      }
   }
   static Key key(const Pfx& p) {
      if constexpr (W == 32) {
         return Key(Pexo::Prefix(Pexo::IpAddr(uint32_t(p.key >> 96)), p.len));
      } else {
         return Key(Pexo::Ip6Prefix(Pexo::Ip6Addr(uint64_t(p.key >> 64), uint64_t(p.key)), p.len));
      }
   }
   void add(const Pfx& p) { t->routeIs(key(p), true); }
   bool del(const Pfx& p) { return t->routeDel(key(p)); }
   bool has(const Pfx& p) const { return t->routeHas(key(p)); }
   std::optional<Pfx> longestMatch(const Pfx& q) const {
      const auto m = t->longestMatch(key(q));
      return m ? std::optional(fromPexo(*m)) : std::nullopt;
   }
   template <class F>
   void walk(const Pfx& from, F f) const {
      t->preOrderWalk(key(from), [&](const auto& q) { return f(fromPexo(q)); });
   }
   // A walk that can stop, starting after `after` (the typed tries only).
   static constexpr bool kResumable = !std::is_same_v<TrieT, Routing::TrieGen>;
   template <class F>
   void walkAfter(const Pfx& from, const Pfx& after, F f) const {
      t->preOrderWalkAfter(key(from), key(after), [&](const auto& q) { return f(fromPexo(q)); });
   }
   size_t size() const { return t->size() - noise; }
   const auto& core() const {
      if constexpr (!std::is_same_v<TrieT, Routing::TrieGen>) {
         return t->core();
      } else if constexpr (W == 32) {
         return t->v4().core();
      } else {
         return t->v6().core();
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

template <class S>
void expectSameSet(const S& t, const std::set<Pfx>& model) {
   std::vector<Pfx> all;
   t.walk(Pfx{0, 0}, [&](const Pfx& p) {
      all.push_back(p);
      return true;
   });
   EXPECT_EQ(all, std::vector<Pfx>(model.begin(), model.end()));
   EXPECT_EQ(t.size(), model.size());
   EXPECT_EQ(t.core().checkInvariants(), "");
   // Branch nodes only where stored paths split.
   EXPECT_LE(t.core().nodeCount(), model.empty() ? 0 : 2 * model.size() - 1);
}

// Random operations, each checked against the model; then everything is
// deleted in random order (the trie must stay right all the way down and
// end with no node in use), and filled again into the same pool.
template <class S>
void runOperations(Shape shape, uint64_t seed) {
   SCOPED_TRACE("shape " + std::to_string(int(shape)) + " seed " + std::to_string(seed));
   PrefixSource src(shape, S::kBits, seed);
   S t;
   std::set<Pfx> model;
   for (int step = 0; step < 5000; ++step) {
      const unsigned r = src.below(100);
      if (r < 45) {
         const Pfx p = src.prefix();
         t.add(p);
         model.insert(p);
      } else if (r < 55) {
         const Pfx p = model.empty() || src.below(3) == 0 ? src.prefix() : src.pick(model);
         ASSERT_EQ(t.del(p), model.erase(p) == 1) << p;
      } else if (r < 65) {
         const Pfx p = model.empty() || src.below(2) ? src.prefix() : src.pick(model);
         ASSERT_EQ(t.has(p), model.count(p) == 1) << p;
      } else if (r < 88) {
         const Pfx q = src.query(model);
         ASSERT_EQ(t.longestMatch(q), modelLongestMatch(model, q)) << "query " << q;
      } else {
         const Pfx from = src.walkRoot(model);
         const uint64_t salt = src.next();
         const unsigned every = 1 + src.below(4);  // 1: prune at every prefix
         auto prune = [&](const Pfx& p) {
            return (uint64_t(p.key >> 64) ^ uint64_t(p.key) ^ p.len ^ salt) % 7 % every == 0;
         };
         std::vector<Pfx> seen;
         t.walk(from, [&](const Pfx& p) {
            seen.push_back(p);
            return !prune(p);
         });
         ASSERT_EQ(seen, modelWalk(model, from, prune)) << "walk from " << from;
      }
      if (step % 500 == 0) {
         expectSameSet(t, model);
      }
   }
   expectSameSet(t, model);

   const std::set<Pfx> full = model;
   const size_t memory = t.core().memoryUsage();
   std::vector<Pfx> order(full.begin(), full.end());
   std::shuffle(order.begin(), order.end(), std::mt19937_64(seed));
   for (size_t i = 0; i < order.size(); ++i) {
      ASSERT_TRUE(t.del(order[i]));
      model.erase(order[i]);
      if (i % 50 == 0) {
         expectSameSet(t, model);
         const Pfx q = src.query(full);
         ASSERT_EQ(t.longestMatch(q), modelLongestMatch(model, q)) << "query " << q;
      }
   }
   expectSameSet(t, model);
   EXPECT_EQ(t.core().nodeCount(), 0u);
   for (const Pfx& p : order) {
      t.add(p);
   }
   expectSameSet(t, full);
   EXPECT_EQ(t.core().memoryUsage(), memory);
}

template <class S>
class TrieProperty : public testing::Test {};

using Subjects = testing::Types<Subject<32, Pexo::Prefix, Routing::Trie>,
                                Subject<128, Pexo::Ip6Prefix, Routing6::Trie>,
                                Subject<128, Pexo::IpGenPrefix, Routing6::Trie>,
                                Subject<32, Pexo::IpGenPrefix, Routing::TrieGen>,
                                Subject<128, Pexo::IpGenPrefix, Routing::TrieGen>>;
TYPED_TEST_SUITE(TrieProperty, Subjects);

// A walk resumed after any prefix visits exactly what the whole walk visits
// beyond it; a walk done in pieces, each resumed after the last prefix
// visited, with the trie changing between pieces, visits in ascending order
// and misses nothing that was there all along.
template <class S>
void runPiecewiseWalks(Shape shape, uint64_t seed) {
   SCOPED_TRACE("shape " + std::to_string(int(shape)) + " seed " + std::to_string(seed));
   PrefixSource src(shape, S::kBits, seed);
   S t;
   std::set<Pfx> model;
   for (int i = 0; i < 400; ++i) {
      const Pfx p = src.prefix();
      t.add(p);
      model.insert(p);
   }
   auto none = [](const Pfx&) { return false; };
   for (int round = 0; round < 200; ++round) {
      const Pfx from = src.walkRoot(model);
      const Pfx after = src.below(2) ? src.walkRoot(model) : src.query(model);
      const Pfx afterKey{after.key & topMask(after.len), after.len};
      std::vector<Pfx> seen;
      t.walkAfter(from, afterKey, [&](const Pfx& p) {
         seen.push_back(p);
         return Routing::WalkStep::descend;
      });
      std::vector<Pfx> expected;
      for (const Pfx& p : modelWalk(model, from, none)) {
         if (afterKey < p) {
            expected.push_back(p);
         }
      }
      ASSERT_EQ(seen, expected) << "from " << from << " after " << afterKey;

      // In pieces of at most `piece` prefixes, the trie changing in between.
      const size_t piece = 1 + src.below(5);
      const std::set<Pfx> before = model;
      std::set<Pfx> removed;
      std::vector<Pfx> walked;
      std::optional<Pfx> last;
      for (;;) {
         size_t n = 0;
         bool stopped = false;
         auto visit = [&](const Pfx& p) {
            if (n == piece) {
               stopped = true;
               return Routing::WalkStep::stop;
            }
            ++n;
            walked.push_back(p);
            last = p;
            return Routing::WalkStep::descend;
         };
         if (last) {
            t.walkAfter(from, *last, visit);
         } else {
            t.walk(from, visit);
         }
         if (!stopped) {
            break;
         }
         for (int c = 0; c < 2; ++c) {
            if (src.below(2)) {
               const Pfx p = src.prefix();
               t.add(p);
               model.insert(p);
            } else if (!model.empty()) {
               const Pfx p = src.pick(model);
               t.del(p);
               model.erase(p);
               removed.insert(p);
            }
         }
      }
      ASSERT_TRUE(std::is_sorted(walked.begin(), walked.end()));
      ASSERT_EQ(std::adjacent_find(walked.begin(), walked.end()), walked.end());
      for (const Pfx& p : modelWalk(before, from, none)) {
         if (removed.count(p) == 0) {
            ASSERT_TRUE(std::binary_search(walked.begin(), walked.end(), p)) << p;
         }
      }
   }
}

TYPED_TEST(TrieProperty, ResumedWalksMatchModel) {
   if constexpr (TypeParam::kResumable) {
      for (Shape shape : {Shape::uniform, Shape::clustered, Shape::nested, Shape::shortLen}) {
         for (uint64_t seed : {1, 2}) {
            runPiecewiseWalks<TypeParam>(shape, seed);
         }
      }
   }
}

TYPED_TEST(TrieProperty, RandomOperationsMatchModel) {
   for (Shape shape : {Shape::uniform, Shape::clustered, Shape::nested, Shape::shortLen}) {
      for (uint64_t seed : {1, 2, 3}) {
         runOperations<TypeParam>(shape, seed);
      }
   }
}

// ---- Edge cases, both families side by side in one TrieGen ----

std::vector<Pexo::IpGenPrefix> gps(const std::vector<const char*>& texts) {
   std::vector<Pexo::IpGenPrefix> out;
   for (const char* s : texts) {
      out.push_back(gp(s));
   }
   return out;
}

TEST(TrieEdges, LongestMatch) {
   const std::vector<const char*> nest4 = {"10.0.0.0/8", "10.1.0.0/16", "10.1.2.0/24"};
   const std::vector<const char*> nest6 = {"2001:db8::/32", "2001:db8::/64",
                                           "2001:db8::8000:0:0:0/65", "2001:db8::1/128"};
   struct Case {
      std::vector<const char*> stored;
      const char* query;
      const char* expected;  // nullptr: no match
   };
   const std::vector<Case> cases = {
       {{}, "10.0.0.1/32", nullptr},
       {{"0.0.0.0/0"}, "255.255.255.255/32", "0.0.0.0/0"},
       {{"0.0.0.0/0"}, "0.0.0.0/0", "0.0.0.0/0"},
       {{"128.0.0.0/1"}, "10.0.0.0/8", nullptr},
       {nest4, "10.1.2.3/32", "10.1.2.0/24"},
       {nest4, "10.1.3.3/32", "10.1.0.0/16"},
       {nest4, "10.1.0.0/15", "10.0.0.0/8"},  // shorter than the /16 it covers
       {nest4, "11.1.2.3/32", nullptr},
       {{"10.1.2.3/32", "255.255.255.255/32"}, "10.1.2.2/32", nullptr},
       {{"10.1.2.3/32", "255.255.255.255/32"}, "255.255.255.255/32", "255.255.255.255/32"},
       // Host bits of the lookup key count only within its length.
       {{"10.1.0.0/16"}, "10.1.255.255/16", "10.1.0.0/16"},
       {{"10.1.0.0/16"}, "10.1.255.255/15", nullptr},
       // Under a branch node that is not stored.
       {{"10.0.0.0/24", "10.0.1.0/24"}, "10.0.0.0/23", nullptr},
       {{"::/0"}, "2001:db8::1/128", "::/0"},
       {nest6, "2001:db8::1/128", "2001:db8::1/128"},
       {nest6, "2001:db8::2/128", "2001:db8::/64"},
       {nest6, "2001:db8::8000:0:0:1/128", "2001:db8::8000:0:0:0/65"},
       {nest6, "2001:db8:0:1::/64", "2001:db8::/32"},
       {{"8000::/1"}, "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff/128", "8000::/1"},
       // The families never match each other.
       {{"::/0"}, "10.0.0.1/32", nullptr},
       {{"0.0.0.0/0", "::a00:0/104"}, "::a00:1/128", "::a00:0/104"},
   };
   for (const Case& c : cases) {
      Routing::TrieGen t("edges");
      for (const auto& p : gps(c.stored)) {
         t.routeIs(p, true);
      }
      const auto want = c.expected ? std::optional(gp(c.expected)) : std::nullopt;
      EXPECT_EQ(t.longestMatch(gp(c.query)), want) << "query " << c.query;
   }
}

TEST(TrieEdges, PreOrderWalk) {
   Routing::TrieGen t("edges");
   for (const auto& p : gps({"10.0.0.0/8", "10.0.0.0/16", "10.128.0.0/9", "10.0.0.0/24",
                             "10.0.0.7/32", "11.0.0.0/8", "0.0.0.0/0", "2001:db8::/32",
                             "2001:db8::/48", "2001:db8:8000::/33", "::/0", "2001:db8::/128"})) {
      t.routeIs(p, true);
   }
   struct Case {
      const char* from;
      std::vector<const char*> prune;
      std::vector<const char*> expected;
   };
   const std::vector<Case> cases = {
       {"10.0.0.0/8",
        {},
        {"10.0.0.0/8", "10.0.0.0/16", "10.0.0.0/24", "10.0.0.7/32", "10.128.0.0/9"}},
       {"10.0.0.0/12", {}, {"10.0.0.0/16", "10.0.0.0/24", "10.0.0.7/32"}},  // from not stored
       {"10.0.0.0/8", {"10.0.0.0/16"}, {"10.0.0.0/8", "10.0.0.0/16", "10.128.0.0/9"}},
       {"10.0.0.0/8", {"10.0.0.0/8"}, {"10.0.0.0/8"}},
       {"0.0.0.0/0", {"10.0.0.0/8"}, {"0.0.0.0/0", "10.0.0.0/8", "11.0.0.0/8"}},
       {"10.0.0.7/32", {}, {"10.0.0.7/32"}},
       {"10.0.0.6/32", {}, {}},
       {"12.0.0.0/8", {}, {}},
       {"::/0",
        {},
        {"::/0", "2001:db8::/32", "2001:db8::/48", "2001:db8::/128", "2001:db8:8000::/33"}},
       {"2001:db8::/31",
        {"2001:db8::/48"},
        {"2001:db8::/32", "2001:db8::/48", "2001:db8:8000::/33"}},
       {"2001:db8:4000::/34", {}, {}},
   };
   for (const Case& c : cases) {
      const auto prune = gps(c.prune);
      std::vector<Pexo::IpGenPrefix> seen;
      t.preOrderWalk(gp(c.from), [&](const Pexo::IpGenPrefix& p) {
         seen.push_back(p);
         return std::find(prune.begin(), prune.end(), p) == prune.end();
      });
      EXPECT_EQ(seen, gps(c.expected)) << "from " << c.from;
   }
}

// Keys that change the set and walk roots must be exact prefixes of the
// trie's family, and the error names the prefix; lookups are answered.
TEST(TrieEdges, BadKeys) {
   Routing::Trie v4;
   const Pexo::Prefix hostBits(Pexo::IpAddr(0x0A000001), 8);
   const Pexo::Prefix tooLong(Pexo::IpAddr(0x0A000000), 33);
   for (const auto& bad : {hostBits, tooLong}) {
      try {
         v4.routeIs(bad, true);
         ADD_FAILURE() << "accepted " << bad;
      } catch (const Zop::RangeError& e) {
         EXPECT_NE(std::string(e.what()).find(Pexo::valueToStrep(bad)), std::string::npos);
      }
      EXPECT_THROW(v4.routeIs(bad, false), Zop::RangeError);
      EXPECT_THROW(v4.preOrderWalk(bad, [](const Pexo::Prefix&) { return true; }), Zop::RangeError);
      EXPECT_FALSE(v4.routeHas(bad));
   }
   v4.routeIs(hostBits.masked(), true);
   EXPECT_EQ(v4.longestMatch(hostBits), hostBits.masked());
   EXPECT_FALSE(v4.routeHas(hostBits));
   EXPECT_THROW(v4.longestMatch(Pexo::Prefix(Pexo::IpAddr(0), Pexo::Prefix::kUnsetLength)),
                Zop::RangeError);

   Routing::PatriciaTrie v6;
   static_assert(std::is_same_v<Routing::PatriciaTrie, Routing6::Trie>);
   EXPECT_THROW(v6.routeIs(gp("10.0.0.0/8"), true), Zop::RangeError);
   EXPECT_THROW(v6.routeIs(Pexo::IpGenPrefix(), true), Zop::RangeError);
   EXPECT_THROW(v6.routeIs(gp("2001:db8::1/64"), true), Zop::RangeError);
   EXPECT_THROW(v6.longestMatch(Pexo::Ip6Prefix(Pexo::Ip6Addr(), 129)), Zop::RangeError);
   EXPECT_FALSE(v6.routeHas(gp("10.0.0.0/8")));

   // A TrieGen made for one family refuses to store the other.
   auto only4 = Routing::trieGenFactory("v4Trie", Pexo::AddressFamily::ipv4);
   EXPECT_EQ(only4->name(), "v4Trie");
   EXPECT_THROW(only4->routeIs(gp("2001:db8::/32"), true), Zop::RangeError);
   EXPECT_THROW(only4->routeIs(Pexo::IpGenPrefix(), true), Zop::RangeError);
   EXPECT_EQ(only4->longestMatch(gp("::/0")), std::nullopt);
   EXPECT_EQ(v4.size() + v6.size() + only4->size(), 1u);
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
   auto throwAtThird = [&](const Pexo::Prefix& p) {
      EXPECT_EQ(t->longestMatch(p), p);
      if (++visits == 3) {
         throw std::runtime_error("stop");
      }
      return true;
   };
   EXPECT_THROW(t->preOrderWalk(all, throwAtThird), std::runtime_error);
   t->routeIs(all, true);  // allowed again once the walk is gone
   visits = 0;
   t->preOrderWalk(all, [&](const Pexo::Prefix&) { ++visits; });  // void: never prunes
   EXPECT_EQ(visits, 17);
   EXPECT_DEATH(t->preOrderWalk(all, [&](const Pexo::Prefix& p) { return t->routeDel(p); }),
                "trie changed during a walk");
}

// At most 2n - 1 nodes of 16 bytes, and at most a quarter of the pool
// spare: an IPv4 table never costs more than 40 bytes a prefix.
TEST(TrieEdges, MemoryPerPrefix) {
   Routing::Trie t;
   std::mt19937_64 rng(5);
   while (t.size() < 200000) {
      const uint32_t len = 16 + uint32_t(rng() % 9);
      t.routeIs(Pexo::Prefix(Pexo::IpAddr(uint32_t(rng()) & ~0u << (32 - len)), len), true);
   }
   EXPECT_LE(double(t.memoryUsage()) / double(t.size()), 40.0);
   t.clear();
   EXPECT_EQ(t.memoryUsage(), 0u);
}

}  // namespace
