#pragma once
// FIB routes per VRF, as the routing agent publishes them: (VRF id, prefix)
// -> the route's programmed RouteInfo. One collection per family.

#include "Pexo/VrfId.h"
#include "Routing/RouteInfo.h"
#include "Zop/Attr.h"

namespace Routing {

template <class Key>
class VrfFibRouteCollectionT : public Zop::PtrInterface {
public:
   class Notifiee : public Zop::BaseNotifiee<VrfFibRouteCollectionT> {
   public:
      virtual void handleFibRoute(const Key&) {}
   };

   void fibRouteIs(const Key& k, const RouteInfo& r) { fibRoute_.is(*this, k, r); }
   void fibRouteDel(const Key& k) { fibRoute_.del(*this, k); }
   const RouteInfo* fibRoute(const Key& k) const { return fibRoute_.find(k); }
   bool fibRouteHas(const Key& k) const { return fibRoute_.has(k); }
   size_t fibRouteCount() const { return fibRoute_.size(); }
   const auto& fibRoute() const { return fibRoute_; }

   Zop::NotifierList<Notifiee>& notifieeList() { return notifiees_; }

private:
   Zop::NotifierList<Notifiee> notifiees_;
   // Ordered, not hashed: whoever goes through a VRF's FIB in prefix order
   // (the FIB route review at an enable or a teardown, the resolver's
   // answers, a check of the whole table) finds each route next to the last
   // one, where a hash map made every lookup a miss or two; in less memory.
   Zop::WalkedMapAttr<VrfFibRouteCollectionT, Key, RouteInfo> fibRoute_{&Notifiee::handleFibRoute};
};

using KivVrfFibRouteCollection = VrfFibRouteCollectionT<VrfAndPrefix>;
using KivVrfFibRoute6Collection = VrfFibRouteCollectionT<VrfAndIp6Prefix>;

}  // namespace Routing

using Routing::KivVrfFibRoute6Collection;
using Routing::KivVrfFibRouteCollection;
