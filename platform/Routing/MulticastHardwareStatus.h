#pragma once
// The multicast FIB hardware status: whether multicast routing is on in
// hardware. The segment feature turns it back on when its setup handshake
// ends; the routing layer turns it off while routing is disabled.

#include "Zop/Attr.h"

namespace Routing::Multicast::Fib::Hardware {

class Status : public Zop::PtrInterface {
public:
   class Notifiee : public Zop::BaseNotifiee<Status> {
   public:
      virtual void handleHwRouting() {}
   };
   bool hwRouting() const { return hwRouting_.get(); }
   void hwRoutingIs(bool on) { hwRouting_.is(*this, on); }
   Zop::NotifierList<Notifiee>& notifieeList() { return notifiees_; }

private:
   Zop::NotifierList<Notifiee> notifiees_;
   Zop::ScalarAttr<Status, bool> hwRouting_{&Notifiee::handleHwRouting, true};
};

}  // namespace Routing::Multicast::Fib::Hardware
