#pragma once
// The route resolver's side of the routing layer.
//
// RouteReactorConfig (Route6ReactorConfig): the watch list, keys whose
// resolution the resolver must report. A watch carries two options of the
// resolver, both 0 for the segment feature.
//
// RouteReactorStatus (Route6ReactorStatus): per VRF the FIB trie of the
// family, and per watched key the resolved next-hop entries. The resolver
// publishes a next hop's adjacency (under its global FEC id) before it
// reports the next hop; withdrawing a watch withdraws the answer.

#include <vector>

#include "Pexo/VrfId.h"
#include "Routing/RouteInfo.h"
#include "Routing/Trie.h"
#include "Zop/Attr.h"

namespace Routing {

struct RouteWatch {
   uint32_t resolveOptions = 0;
   uint32_t resolveCookie = 0;
   friend bool operator==(const RouteWatch&, const RouteWatch&) = default;
};

// One resolved next hop: whether it resolved, its route type, and the index
// of its FEC in the VRF's FIB table.
struct NextHopEntry {
   bool resolved = false;
   RouteType routeType = RouteType::routeTypeInvalid;
   uint16_t fecIndex = 0;
   friend bool operator==(const NextHopEntry&, const NextHopEntry&) = default;
};
using NextHopEntryList = std::vector<NextHopEntry>;

template <class Key>
class RouteReactorConfigT : public Zop::PtrInterface {
public:
   class Notifiee : public Zop::BaseNotifiee<RouteReactorConfigT> {
   public:
      virtual void handleWatchedPrefix(const Key&) {}
   };

   void watchedPrefixIs(const Key& k, const RouteWatch& w) { watched_.is(*this, k, w); }
   void watchedPrefixDel(const Key& k) { watched_.del(*this, k); }
   bool watchedPrefixHas(const Key& k) const { return watched_.has(k); }
   const auto& watchedPrefix() const { return watched_; }

   Zop::NotifierList<Notifiee>& notifieeList() { return notifiees_; }

private:
   Zop::NotifierList<Notifiee> notifiees_;
   // One watch per segment prefix of a routing VRF: a full table's enable
   // adds a hundred thousand, in prefix order, and the resolver asks for
   // them in the same order. Ordered, they lie next to each other; a tree
   // has no rehash to make one long item of.
   Zop::WalkedMapAttr<RouteReactorConfigT, Key, RouteWatch> watched_{
       &Notifiee::handleWatchedPrefix};
};

template <class Key, class FibTrie>
class RouteReactorStatusT : public Zop::PtrInterface {
public:
   class Notifiee : public Zop::BaseNotifiee<RouteReactorStatusT> {
   public:
      virtual void handleFibTrie(const VrfId&) {}
      virtual void handleResolvedEntry(const Key&) {}
   };

   void fibTrieIs(VrfId vrf, const Zop::Ptr<FibTrie>& t) { fibTrie_.is(*this, vrf, t); }
   void fibTrieDel(VrfId vrf) { fibTrie_.del(*this, vrf); }
   // The VRF's FIB trie; null when the VRF has none.
   Zop::Ptr<FibTrie> fibTrie(VrfId vrf) const { return fibTrie_.get(vrf); }

   void resolvedEntryIs(const Key& k, const NextHopEntryList& l) { resolved_.is(*this, k, l); }
   void resolvedEntryDel(const Key& k) { resolved_.del(*this, k); }
   // The key's answer; null when the resolver has not answered.
   const NextHopEntryList* resolvedEntry(const Key& k) const { return resolved_.find(k); }
   const auto& resolvedEntry() const { return resolved_; }

   Zop::NotifierList<Notifiee>& notifieeList() { return notifiees_; }

private:
   Zop::NotifierList<Notifiee> notifiees_;
   Zop::HashMapAttr<RouteReactorStatusT, VrfId, Zop::Ptr<FibTrie>> fibTrie_{
       &Notifiee::handleFibTrie};
   // One answer per watch: filled by the hundred thousand at a full table's
   // enable, in prefix order, and read back by the processor in that order
   // (a one-go rehash of a hash map was a 5 ms item of the resolver's run).
   Zop::WalkedMapAttr<RouteReactorStatusT, Key, NextHopEntryList> resolved_{
       &Notifiee::handleResolvedEntry};
};

using RouteReactorConfig = RouteReactorConfigT<VrfAndPrefix>;
using Route6ReactorConfig = RouteReactorConfigT<VrfAndIp6Prefix>;
using RouteReactorStatus = RouteReactorStatusT<VrfAndPrefix, Routing::Trie>;
using Route6ReactorStatus = RouteReactorStatusT<VrfAndIp6Prefix, Routing6::Trie>;

}  // namespace Routing

using Routing::NextHopEntryList;
using Routing::Route6ReactorConfig;
using Routing::Route6ReactorStatus;
using Routing::RouteReactorConfig;
using Routing::RouteReactorStatus;
