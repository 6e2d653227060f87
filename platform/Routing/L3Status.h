#pragma once
// The L3 status the routing agent publishes: VRF names by id and the
// adjacency of every FIB route, per family, keyed by (VRF id, prefix).
// Observers are told the key of every change.

#include "Pexo/VrfId.h"
#include "Pexo/VrfName.h"
#include "Routing/AdjEntry.h"
#include "Zop/Attr.h"

namespace L3 {

class L3Status : public Zop::PtrInterface {
public:
   class Notifiee : public Zop::BaseNotifiee<L3Status> {
   public:
      virtual void handleVrfName(const VrfId&) {}
      virtual void handleRouteAdj(const VrfAndPrefix&) {}
      virtual void handleRoute6Adj(const VrfAndIp6Prefix&) {}
   };

   // VRF names by id.
   void vrfNameIs(VrfId id, const VrfName& name) { vrfName_.is(*this, id, name); }
   void vrfNameDel(VrfId id) { vrfName_.del(*this, id); }
   // The VRF's name; empty when the id is unknown.
   VrfName vrfName(VrfId id) const { return vrfName_.get(id); }
   bool vrfNameHas(VrfId id) const { return vrfName_.has(id); }

   // Adjacencies of the IPv4 FIB routes.
   void routeAdjIs(const VrfAndPrefix& k, const Zop::Ptr<AdjEntry>& adj) {
      routeAdj_.is(*this, k, adj);
   }
   void routeAdjDel(const VrfAndPrefix& k) { routeAdj_.del(*this, k); }
   Zop::Ptr<AdjEntry> routeAdj(const VrfAndPrefix& k) const { return routeAdj_.get(k); }
   size_t routeAdjCount() const { return routeAdj_.size(); }

   // Adjacencies of the IPv6 FIB routes.
   void route6AdjIs(const VrfAndIp6Prefix& k, const Zop::Ptr<AdjEntry>& adj) {
      route6Adj_.is(*this, k, adj);
   }
   void route6AdjDel(const VrfAndIp6Prefix& k) { route6Adj_.del(*this, k); }
   Zop::Ptr<AdjEntry> route6Adj(const VrfAndIp6Prefix& k) const { return route6Adj_.get(k); }
   size_t route6AdjCount() const { return route6Adj_.size(); }

   Zop::NotifierList<Notifiee>& notifieeList() { return notifiees_; }

private:
   Zop::NotifierList<Notifiee> notifiees_;
   Zop::HashMapAttr<L3Status, VrfId, VrfName> vrfName_{&Notifiee::handleVrfName};
   Zop::HashMapAttr<L3Status, VrfAndPrefix, Zop::Ptr<AdjEntry>> routeAdj_{
       &Notifiee::handleRouteAdj};
   Zop::HashMapAttr<L3Status, VrfAndIp6Prefix, Zop::Ptr<AdjEntry>> route6Adj_{
       &Notifiee::handleRoute6Adj};
};

inline Zop::Ptr<L3Status> l3StatusFactory() {
   return Zop::makePtr<L3Status>();
}

}  // namespace L3

using L3::L3Status;
