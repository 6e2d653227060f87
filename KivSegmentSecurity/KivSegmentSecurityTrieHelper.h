#pragma once
// Callbacks for the routing library's pre-order trie walks.
//
// RangeIpv4PrefixFinderCallback / RangeIpv6PrefixFinderCallback collect the
// FIB prefixes a walk from `startPrefix` visits, up to `endPrefix`: a visited
// prefix equal to or inside `endPrefix` (or not inside `startPrefix`) answers
// false, which prunes the walk below it. An unset `endPrefix` (length
// 0xFFFFFFFF; for IPv6 any value whose isNullPrefix() holds) bounds nothing.
// Collected prefixes go to `prefixColl` as (vrfId, prefix), or to
// `walkedPrefix` when there is no collection.
//
// NextSpecifcPrefixCallback finds, below a reference prefix, the next more
// specific prefix of the walked trie: the shortest one strictly inside it
// (lowest address among equals), excluding host prefixes. `nextPrefix()`
// starts as the reference prefix itself, so "none found" leaves it there.

#include <set>

#include "Kiv/KivExport.h"
#include "KivSegmentSecurity/KivSegmentPrefixProcessorTypes.h"
#include "Routing/Trie.h"

namespace Kiv {

class KIV_EXPORT RangeIpv4PrefixFinderCallback : public Routing::TrieWalkCallback {
public:
   RangeIpv4PrefixFinderCallback(const Pexo::Prefix& startPrefix, const Pexo::Prefix& endPrefix,
                                 VrfId vrfId, const Zop::Ptr<VrfPrefixCollection>& prefixColl,
                                 bool subnetsOnly);

   // True to go on below the prefix, false to prune there.
   bool handlePrefix(const Pexo::Prefix& prefix);

   const Pexo::Prefix& startPrefix() const { return startPrefix_; }
   const Pexo::Prefix& endPrefix() const { return endPrefix_; }
   VrfId vrfId() const { return vrfId_; }
   const Zop::Ptr<VrfPrefixCollection>& prefixColl() const { return prefixColl_; }
   bool subnetsOnly() const { return subnetsOnly_; }
   const std::set<Pexo::Prefix>& walkedPrefix() const { return walkedPrefix_; }
   void walkedPrefixIs(const Pexo::Prefix& p) { walkedPrefix_.insert(p); }
   void walkedPrefixDel(const Pexo::Prefix& p) { walkedPrefix_.erase(p); }
   void walkedPrefixDelAll() { walkedPrefix_.clear(); }

private:
   Pexo::Prefix startPrefix_;
   Pexo::Prefix endPrefix_;
   VrfId vrfId_;
   Zop::Ptr<VrfPrefixCollection> prefixColl_;
   bool subnetsOnly_;
   std::set<Pexo::Prefix> walkedPrefix_;
};

class KIV_EXPORT RangeIpv6PrefixFinderCallback : public Routing::TrieWalkCallback {
public:
   RangeIpv6PrefixFinderCallback(const Pexo::IpGenPrefix& startPrefix,
                                 const Pexo::IpGenPrefix& endPrefix, VrfId vrfId,
                                 const Zop::Ptr<VrfPrefixCollection>& prefixColl, bool subnetsOnly);

   bool handlePrefixData(const Pexo::IpGenPrefix& prefix, const Routing::PrefixData& data);

   const Pexo::IpGenPrefix& startPrefix() const { return startPrefix_; }
   const Pexo::IpGenPrefix& endPrefix() const { return endPrefix_; }
   VrfId vrfId() const { return vrfId_; }
   const Zop::Ptr<VrfPrefixCollection>& prefixColl() const { return prefixColl_; }
   bool subnetsOnly() const { return subnetsOnly_; }
   const std::set<Pexo::IpGenPrefix>& walkedPrefix() const { return walkedPrefix_; }
   void walkedPrefixIs(const Pexo::IpGenPrefix& p) { walkedPrefix_.insert(p); }
   void walkedPrefixDel(const Pexo::IpGenPrefix& p) { walkedPrefix_.erase(p); }
   void walkedPrefixDelAll() { walkedPrefix_.clear(); }

private:
   Pexo::IpGenPrefix startPrefix_;
   Pexo::IpGenPrefix endPrefix_;
   VrfId vrfId_;
   Zop::Ptr<VrfPrefixCollection> prefixColl_;
   bool subnetsOnly_;
   std::set<Pexo::IpGenPrefix> walkedPrefix_;
};

class KIV_EXPORT NextSpecifcPrefixCallback : public Routing::TrieWalkCallback {
public:
   explicit NextSpecifcPrefixCallback(const Pexo::IpGenPrefix& prefix);

   // False when `prefix` became the new answer (nothing below it can be a
   // better one), true otherwise.
   bool handlePrefix(const Pexo::IpGenPrefix& prefix);

   const Pexo::IpGenPrefix& prefix() const { return prefix_; }
   const Pexo::IpGenPrefix& nextPrefix() const { return nextPrefix_; }
   void nextPrefixIs(const Pexo::IpGenPrefix& p) { nextPrefix_ = p; }

private:
   Pexo::IpGenPrefix prefix_;
   Pexo::IpGenPrefix nextPrefix_;
};

KIV_EXPORT Zop::Ptr<RangeIpv4PrefixFinderCallback> rangeIpv4PrefixFinderCallbackFactory(
    const Pexo::Prefix& startPrefix, const Pexo::Prefix& endPrefix, VrfId vrfId,
    const Zop::Ptr<VrfPrefixCollection>& prefixColl, bool subnetsOnly);
KIV_EXPORT Zop::Ptr<RangeIpv6PrefixFinderCallback> rangeIpv6PrefixFinderCallbackFactory(
    const Pexo::IpGenPrefix& startPrefix, const Pexo::IpGenPrefix& endPrefix, VrfId vrfId,
    const Zop::Ptr<VrfPrefixCollection>& prefixColl, bool subnetsOnly);
KIV_EXPORT Zop::Ptr<NextSpecifcPrefixCallback> nextSpecifcPrefixCallbackFactory(
    const Pexo::IpGenPrefix& prefix);

}  // namespace Kiv
