#include "KivSegmentSecurity/KivSegmentSecurityTrieHelper.h"

#include "KivSegmentSecurity/KivSegmentSecurityTrace.h"

namespace Kiv {

// ---- RangeIpv4PrefixFinderCallback ----

RangeIpv4PrefixFinderCallback::RangeIpv4PrefixFinderCallback(
    const Pexo::Prefix& startPrefix, const Pexo::Prefix& endPrefix, VrfId vrfId,
    const Zop::Ptr<VrfPrefixCollection>& prefixColl, bool subnetsOnly)
    : startPrefix_(startPrefix),
      endPrefix_(endPrefix),
      vrfId_(vrfId),
      prefixColl_(prefixColl),
      subnetsOnly_(subnetsOnly) {}

bool RangeIpv4PrefixFinderCallback::handlePrefix(const Pexo::Prefix& prefix) {
   // The range ends at endPrefix: it and everything inside it are the next
   // segment prefix's business. An endPrefix of length 0 contains everything.
   if (!endPrefix_.isUnset() && endPrefix_.contains(prefix)) {
      return false;
   }
   if (!startPrefix_.contains(prefix)) {
      return false;
   }
   if (subnetsOnly_ && prefix.isHost()) {
      return true;
   }
   if (!prefixColl_) {
      walkedPrefixIs(prefix);
   } else {
      prefixColl_->vrfIpGenPrefixIs(VrfAndIpGenPrefix(vrfId_, Pexo::IpGenPrefix(prefix)));
   }
   return true;
}

// ---- RangeIpv6PrefixFinderCallback ----

RangeIpv6PrefixFinderCallback::RangeIpv6PrefixFinderCallback(
    const Pexo::IpGenPrefix& startPrefix, const Pexo::IpGenPrefix& endPrefix, VrfId vrfId,
    const Zop::Ptr<VrfPrefixCollection>& prefixColl, bool subnetsOnly)
    : startPrefix_(startPrefix),
      endPrefix_(endPrefix),
      vrfId_(vrfId),
      prefixColl_(prefixColl),
      subnetsOnly_(subnetsOnly) {}

bool RangeIpv6PrefixFinderCallback::handlePrefixData(const Pexo::IpGenPrefix& prefix,
                                                     const Routing::PrefixData&) {
   if (!endPrefix_.isNullPrefix() && endPrefix_.contains(prefix)) {
      return false;
   }
   if (!startPrefix_.contains(prefix)) {
      return false;
   }
   if (subnetsOnly_ && prefix.isHost()) {
      return true;
   }
   if (!prefixColl_) {
      walkedPrefixIs(prefix);
   } else {
      prefixColl_->vrfIpGenPrefixIs(VrfAndIpGenPrefix(vrfId_, prefix));
   }
   return true;
}

// ---- NextSpecifcPrefixCallback ----

NextSpecifcPrefixCallback::NextSpecifcPrefixCallback(const Pexo::IpGenPrefix& prefix)
    : prefix_(prefix), nextPrefix_(prefix) {}

bool NextSpecifcPrefixCallback::handlePrefix(const Pexo::IpGenPrefix& prefix) {
   TRACE8_FN("handlePrefix", " " << prefix);
   if (prefix.isHost()) {
      return true;
   }
   if (prefix.af() != prefix_.af()) {
      return true;
   }
   // Candidates lie strictly inside the reference prefix.
   if (!prefix_.contains(prefix) || prefix.len() <= prefix_.len()) {
      return true;
   }
   bool none = nextPrefix_ == prefix_;
   bool better = prefix.len() < nextPrefix_.len() ||
                 (prefix.len() == nextPrefix_.len() && prefix < nextPrefix_);
   if (none || better) {
      nextPrefixIs(prefix);
      return false;
   }
   return true;
}

// ---- Factories ----

Zop::Ptr<RangeIpv4PrefixFinderCallback> rangeIpv4PrefixFinderCallbackFactory(
    const Pexo::Prefix& startPrefix, const Pexo::Prefix& endPrefix, VrfId vrfId,
    const Zop::Ptr<VrfPrefixCollection>& prefixColl, bool subnetsOnly) {
   return Zop::makePtr<RangeIpv4PrefixFinderCallback>(startPrefix, endPrefix, vrfId, prefixColl,
                                                      subnetsOnly);
}

Zop::Ptr<RangeIpv6PrefixFinderCallback> rangeIpv6PrefixFinderCallbackFactory(
    const Pexo::IpGenPrefix& startPrefix, const Pexo::IpGenPrefix& endPrefix, VrfId vrfId,
    const Zop::Ptr<VrfPrefixCollection>& prefixColl, bool subnetsOnly) {
   return Zop::makePtr<RangeIpv6PrefixFinderCallback>(startPrefix, endPrefix, vrfId, prefixColl,
                                                      subnetsOnly);
}

Zop::Ptr<NextSpecifcPrefixCallback> nextSpecifcPrefixCallbackFactory(
    const Pexo::IpGenPrefix& prefix) {
   return Zop::makePtr<NextSpecifcPrefixCallback>(prefix);
}

}  // namespace Kiv
