#include "Routing/Trie.h"

namespace Routing {
namespace Impl {

template class PrefixTrie<uint32_t>;
template class PrefixTrie<Uint128>;

namespace {

template <class P>
[[noreturn]] void invalidPrefix(const char* op, const P& p) {
   throw Zop::RangeError(Zop::String(op) + ": invalid prefix " + Pexo::valueToStrep(p));
}

// Keys that change the set, and walk roots, must be exact prefixes: a prefix
// with host bits set would be stored under an address it does not start at.
template <class P>
void checkKey(const char* op, const P& p) {
   if (!p.validAsPrefix()) {
      invalidPrefix(op, p);
   }
}

// Lookup keys may carry host bits, but their length must make sense.
template <class P>
void checkLength(const char* op, const P& p) {
   if (p.len() > P::kMaxLength) {
      invalidPrefix(op, p);
   }
}

}  // namespace
}  // namespace Impl

void Trie::routeIs(const Pexo::Prefix& p, bool present) {
   if (!present) {
      routeDel(p);
      return;
   }
   Impl::checkKey("routeIs", p);
   trie_.insert(Impl::toKey(p), p.len());
}

bool Trie::routeDel(const Pexo::Prefix& p) {
   Impl::checkKey("routeDel", p);
   return trie_.erase(Impl::toKey(p), p.len());
}

bool Trie::routeHas(const Pexo::Prefix& p) const {
   return p.len() <= Pexo::Prefix::kMaxLength && trie_.contains(Impl::toKey(p), p.len());
}

std::optional<Pexo::Prefix> Trie::longestMatch(const Pexo::Prefix& p) const {
   Impl::checkLength("longestMatch", p);
   const auto m = trie_.longestMatch(Impl::toKey(p), p.len());
   if (!m) {
      return std::nullopt;
   }
   return Impl::toPrefix(m->key, m->len);
}

void Trie::checkFrom(const Pexo::Prefix& from) {
   Impl::checkKey("preOrderWalk", from);
}

Zop::Ptr<Trie> trieFactory() {
   return Zop::makePtr<Trie>();
}

void TrieGen::routeIs(const Pexo::IpGenPrefix& p, bool present) {
   if (present && af_ != Pexo::AddressFamily::ipunknown && p.af() != af_) {
      throw Zop::RangeError(name_ + ": routeIs: " + Pexo::valueToStrep(p) + " is not " +
                            Pexo::valueToStrep(af_));
   }
   if (p.isIpv4()) {
      v4_.routeIs(p.v4(), present);
   } else {
      v6_.routeIs(p, present);
   }
}

bool TrieGen::routeDel(const Pexo::IpGenPrefix& p) {
   return p.isIpv4() ? v4_.routeDel(p.v4()) : v6_.routeDel(p);
}

bool TrieGen::routeHas(const Pexo::IpGenPrefix& p) const {
   return p.isIpv4() ? v4_.routeHas(p.v4()) : v6_.routeHas(p);
}

std::optional<Pexo::IpGenPrefix> TrieGen::longestMatch(const Pexo::IpGenPrefix& p) const {
   if (p.isIpv4()) {
      const auto m = v4_.longestMatch(p.v4());
      return m ? std::optional<Pexo::IpGenPrefix>(*m) : std::nullopt;
   }
   return v6_.longestMatch(p);
}

std::optional<Pexo::IpGenPrefix> TrieGen::firstAfter(const Pexo::IpGenPrefix& after) const {
   std::optional<Pexo::IpGenPrefix> first;
   auto found = [&first](const auto& p) {
      first = Pexo::IpGenPrefix(p);
      return WalkStep::stop;
   };
   if (after.isIpv4()) {
      v4_.preOrderWalkAfter(Pexo::Prefix(Pexo::IpAddr(0), 0), after.v4(), found);
   } else if (after.isIpv6()) {
      v6_.preOrderWalkAfter(Pexo::Ip6Prefix(Pexo::Ip6Addr(), 0), after.v6(), found);
   }
   return first;
}

Zop::Ptr<TrieGen> trieGenFactory(Zop::String name, Pexo::AddressFamily af) {
   return Zop::makePtr<TrieGen>(std::move(name), af);
}

}  // namespace Routing

namespace Routing6 {

namespace Impl = Routing::Impl;

void Trie::routeIs(const Pexo::Ip6Prefix& p, bool present) {
   if (!present) {
      routeDel(p);
      return;
   }
   Impl::checkKey("routeIs", p);
   trie_.insert(Impl::toKey(p), p.len());
}

bool Trie::routeDel(const Pexo::Ip6Prefix& p) {
   Impl::checkKey("routeDel", p);
   return trie_.erase(Impl::toKey(p), p.len());
}

bool Trie::routeHas(const Pexo::Ip6Prefix& p) const {
   return p.len() <= Pexo::Ip6Prefix::kMaxLength && trie_.contains(Impl::toKey(p), p.len());
}

std::optional<Pexo::Ip6Prefix> Trie::longestMatch(const Pexo::Ip6Prefix& p) const {
   Impl::checkLength("longestMatch", p);
   const auto m = trie_.longestMatch(Impl::toKey(p), p.len());
   if (!m) {
      return std::nullopt;
   }
   return Impl::toPrefix(m->key, m->len);
}

std::optional<Pexo::IpGenPrefix> Trie::longestMatch(const Pexo::IpGenPrefix& p) const {
   const auto m = longestMatch(v6Of(p, "longestMatch"));
   return m ? std::optional<Pexo::IpGenPrefix>(*m) : std::nullopt;
}

Pexo::Ip6Prefix Trie::v6Of(const Pexo::IpGenPrefix& p, const char* op) {
   if (!p.isIpv6()) {
      throw Zop::RangeError(Zop::String(op) + ": " + Pexo::valueToStrep(p) +
                            " is not an IPv6 prefix");
   }
   return p.v6();
}

void Trie::checkFrom(const Pexo::Ip6Prefix& from) {
   Impl::checkKey("preOrderWalk", from);
}

Zop::Ptr<Trie> trieFactory() {
   return Zop::makePtr<Trie>();
}

}  // namespace Routing6
