#pragma once
// The L3 status the routing agent publishes:
//   vrfName      VRF id -> VRF name          vrfId   VRF name -> VRF id
//   vrfStatus    VRF name -> per-VRF status (routingEnabled, routing6Enabled)
//   vrfDropIndex VRF name -> index of the VRF's drop FECs (16 bits)
//   adjacency    global FEC id -> adjacency
//   routeAdj / route6Adj  (VRF id, prefix) -> adjacency of each FIB route
//   vrfTableStatus        VRF name -> FIB table id
// The agent publishes a VRF's status, drop index and drop adjacencies before
// its id, and removes them after its id; a FEC's adjacency is published
// before anything refers to the FEC. Observers are told the key of every
// change.

#include "Pexo/VrfId.h"
#include "Pexo/VrfName.h"
#include "Quarn/GlobalFecId.h"
#include "Routing/AdjEntry.h"
#include "Zop/Attr.h"

namespace L3 {

// The routing state of one VRF.
class VrfStatus : public Zop::PtrInterface {
public:
   class Notifiee : public Zop::BaseNotifiee<VrfStatus> {
   public:
      virtual void handleRoutingEnabled() {}
      virtual void handleRouting6Enabled() {}
   };

   explicit VrfStatus(const VrfName& name) : name_(name) {}
   const VrfName& name() const { return name_; }
   bool routingEnabled() const { return routingEnabled_.get(); }
   void routingEnabledIs(bool on) { routingEnabled_.is(*this, on); }
   bool routing6Enabled() const { return routing6Enabled_.get(); }
   void routing6EnabledIs(bool on) { routing6Enabled_.is(*this, on); }
   // The flag of the prefix's family.
   bool routingEnabled(Pexo::AddressFamily af) const {
      return af == Pexo::AddressFamily::ipv6 ? routing6Enabled() : routingEnabled();
   }

   Zop::NotifierList<Notifiee>& notifieeList() { return notifiees_; }

private:
   const VrfName name_;
   Zop::NotifierList<Notifiee> notifiees_;
   Zop::ScalarAttr<VrfStatus, bool> routingEnabled_{&Notifiee::handleRoutingEnabled, false};
   Zop::ScalarAttr<VrfStatus, bool> routing6Enabled_{&Notifiee::handleRouting6Enabled, false};
};

// The routing layer's count of completed routing disables, watched by the
// segment feature's setup handshake.
class WaitForRoutingWrapper : public Zop::PtrInterface {
public:
   class Notifiee : public Zop::BaseNotifiee<WaitForRoutingWrapper> {
   public:
      virtual void handleWaitForRoutingDisabledRefCnt() {}
   };
   uint32_t waitForRoutingDisabledRefCnt() const { return refCnt_.get(); }
   void waitForRoutingDisabledRefCntIs(uint32_t n) { refCnt_.is(*this, n); }
   void waitForRoutingDisabledRefCntInc() { refCnt_.inc(*this); }
   Zop::NotifierList<Notifiee>& notifieeList() { return notifiees_; }

private:
   Zop::NotifierList<Notifiee> notifiees_;
   Zop::ScalarAttr<WaitForRoutingWrapper, uint32_t> refCnt_{
       &Notifiee::handleWaitForRoutingDisabledRefCnt, 0};
};

// Set while the routing layer disables routing for uRPF.
class UrpfRoutingDisableDoneWrapper : public Zop::PtrInterface {
public:
   class Notifiee : public Zop::BaseNotifiee<UrpfRoutingDisableDoneWrapper> {
   public:
      virtual void handleUrpfRoutingDisableDone() {}
   };
   bool urpfRoutingDisableDone() const { return done_.get(); }
   void urpfRoutingDisableDoneIs(bool v) { done_.is(*this, v); }
   Zop::NotifierList<Notifiee>& notifieeList() { return notifiees_; }

private:
   Zop::NotifierList<Notifiee> notifiees_;
   Zop::ScalarAttr<UrpfRoutingDisableDoneWrapper, bool> done_{
       &Notifiee::handleUrpfRoutingDisableDone, false};
};

class L3Status : public Zop::PtrInterface {
public:
   class Notifiee : public Zop::BaseNotifiee<L3Status> {
   public:
      virtual void handleVrfName(const VrfId&) {}
      virtual void handleVrfId(const VrfName&) {}
      virtual void handleVrfStatus(const VrfName&) {}
      virtual void handleVrfDropIndex(const VrfName&) {}
      virtual void handleAdjacency(const Quarn::Fib::GlobalFecId&) {}
      virtual void handleRouteAdj(const VrfAndPrefix&) {}
      virtual void handleRoute6Adj(const VrfAndIp6Prefix&) {}
      virtual void handleWaitForRoutingDisabledInVrfs() {}
      virtual void handleWaitForRouting6DisabledInVrfs() {}
      virtual void handleRoutingEnabledInAnyVrf() {}
      virtual void handleRouting6EnabledInAnyVrf() {}
      virtual void handleMrouteZombieEnabled() {}
      virtual void handleWaitForRoutingWrapper() {}
      virtual void handleUrpfRoutingDisableDoneWrapper() {}
   };

   // ---- The routing handshake ----
   bool waitForRoutingDisabledInVrfs() const { return waitV4_.get(); }
   void waitForRoutingDisabledInVrfsIs(bool v) { waitV4_.is(*this, v); }
   bool waitForRouting6DisabledInVrfs() const { return waitV6_.get(); }
   void waitForRouting6DisabledInVrfsIs(bool v) { waitV6_.is(*this, v); }
   // Whether hardware routing is on in any VRF, per family.
   bool routingEnabledInAnyVrf() const { return anyV4_.get(); }
   void routingEnabledInAnyVrfIs(bool v) { anyV4_.is(*this, v); }
   bool routing6EnabledInAnyVrf() const { return anyV6_.get(); }
   void routing6EnabledInAnyVrfIs(bool v) { anyV6_.is(*this, v); }
   bool mrouteZombieEnabled() const { return mrouteZombie_.get(); }
   void mrouteZombieEnabledIs(bool v) { mrouteZombie_.is(*this, v); }
   // The wrappers; null until the routing layer publishes them.
   const Zop::Ptr<WaitForRoutingWrapper>& waitForRoutingWrapper() const { return waitWrapper_; }
   void waitForRoutingWrapperIs(const Zop::Ptr<WaitForRoutingWrapper>& w) {
      if (w != waitWrapper_) {
         waitWrapper_ = w;
         notifiees_.notify(this, [](Notifiee& n) { n.handleWaitForRoutingWrapper(); });
      }
   }
   const Zop::Ptr<UrpfRoutingDisableDoneWrapper>& urpfRoutingDisableDoneWrapper() const {
      return urpfWrapper_;
   }
   void urpfRoutingDisableDoneWrapperIs(const Zop::Ptr<UrpfRoutingDisableDoneWrapper>& w) {
      if (w != urpfWrapper_) {
         urpfWrapper_ = w;
         notifiees_.notify(this, [](Notifiee& n) { n.handleUrpfRoutingDisableDoneWrapper(); });
      }
   }

   // VRF names by id; empty name when the id is unknown.
   void vrfNameIs(VrfId id, const VrfName& name) { vrfName_.is(*this, id, name); }
   void vrfNameDel(VrfId id) { vrfName_.del(*this, id); }
   VrfName vrfName(VrfId id) const { return vrfName_.get(id); }
   bool vrfNameHas(VrfId id) const { return vrfName_.has(id); }
   const auto& vrfName() const { return vrfName_; }

   // VRF ids by name.
   void vrfIdIs(const VrfName& name, VrfId id) { vrfId_.is(*this, name, id); }
   void vrfIdDel(const VrfName& name) { vrfId_.del(*this, name); }
   const VrfId* vrfId(const VrfName& name) const { return vrfId_.find(name); }

   // Per-VRF status by name; null when absent.
   void vrfStatusIs(const Zop::Ptr<VrfStatus>& s) { vrfStatus_.is(*this, s->name(), s); }
   void vrfStatusDel(const VrfName& name) { vrfStatus_.del(*this, name); }
   Zop::Ptr<VrfStatus> vrfStatus(const VrfName& name) const { return vrfStatus_.get(name); }
   const auto& vrfStatus() const { return vrfStatus_; }

   // The index of a VRF's drop FECs; 0 when the name is not listed.
   void vrfDropIndexIs(const VrfName& name, uint16_t index) {
      vrfDropIndex_.is(*this, name, index);
   }
   void vrfDropIndexDel(const VrfName& name) { vrfDropIndex_.del(*this, name); }
   uint16_t vrfDropIndex(const VrfName& name) const { return vrfDropIndex_.get(name, 0); }

   // Adjacencies by global FEC id; null when absent.
   void adjacencyIs(const Quarn::Fib::GlobalFecId& id, const Zop::Ptr<AdjEntry>& adj) {
      adjacency_.is(*this, id, adj);
   }
   void adjacencyDel(const Quarn::Fib::GlobalFecId& id) { adjacency_.del(*this, id); }
   Zop::Ptr<AdjEntry> adjacency(const Quarn::Fib::GlobalFecId& id) const {
      return adjacency_.get(id);
   }

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

   // The FIB tables' VRF table status (VRF name -> FIB table id), published
   // with the L3 status.
   const Zop::Ptr<Quarn::Fib::VrfTableStatus>& vrfTableStatus() const { return vrfTableStatus_; }

   Zop::NotifierList<Notifiee>& notifieeList() { return notifiees_; }

private:
   Zop::NotifierList<Notifiee> notifiees_;
   const Zop::Ptr<Quarn::Fib::VrfTableStatus> vrfTableStatus_ =
       Zop::makePtr<Quarn::Fib::VrfTableStatus>();
   Zop::ScalarAttr<L3Status, bool> waitV4_{&Notifiee::handleWaitForRoutingDisabledInVrfs, false};
   Zop::ScalarAttr<L3Status, bool> waitV6_{&Notifiee::handleWaitForRouting6DisabledInVrfs, false};
   Zop::ScalarAttr<L3Status, bool> anyV4_{&Notifiee::handleRoutingEnabledInAnyVrf, false};
   Zop::ScalarAttr<L3Status, bool> anyV6_{&Notifiee::handleRouting6EnabledInAnyVrf, false};
   Zop::ScalarAttr<L3Status, bool> mrouteZombie_{&Notifiee::handleMrouteZombieEnabled, false};
   Zop::Ptr<WaitForRoutingWrapper> waitWrapper_;
   Zop::Ptr<UrpfRoutingDisableDoneWrapper> urpfWrapper_;
   Zop::HashMapAttr<L3Status, VrfId, VrfName> vrfName_{&Notifiee::handleVrfName};
   Zop::HashMapAttr<L3Status, VrfName, VrfId> vrfId_{&Notifiee::handleVrfId};
   Zop::HashMapAttr<L3Status, VrfName, Zop::Ptr<VrfStatus>> vrfStatus_{&Notifiee::handleVrfStatus};
   Zop::HashMapAttr<L3Status, VrfName, uint16_t> vrfDropIndex_{&Notifiee::handleVrfDropIndex};
   // A FEC per adjacency in use: tens of thousands at a full table, added
   // one per resolver answer; a one-go rehash was a 2-4 ms item.
   Zop::GrowingMapAttr<L3Status, Quarn::Fib::GlobalFecId, Zop::Ptr<AdjEntry>> adjacency_{
       &Notifiee::handleAdjacency};
   // Ordered, as the FIB collections are: the segment review asks for a VRF's
   // segment prefixes in prefix order, mostly for prefixes that are no FIB
   // route; in a hash map of a million each such question was a miss or two.
   Zop::WalkedMapAttr<L3Status, VrfAndPrefix, Zop::Ptr<AdjEntry>> routeAdj_{
       &Notifiee::handleRouteAdj};
   Zop::WalkedMapAttr<L3Status, VrfAndIp6Prefix, Zop::Ptr<AdjEntry>> route6Adj_{
       &Notifiee::handleRoute6Adj};
};

inline Zop::Ptr<L3Status> l3StatusFactory() {
   return Zop::makePtr<L3Status>();
}
inline Zop::Ptr<VrfStatus> vrfStatusFactory(const VrfName& name) {
   return Zop::makePtr<VrfStatus>(name);
}

}  // namespace L3

using L3::L3Status;
