#pragma once
// The routing side's readiness for the segment feature's setup handshake.
//
// routingStatusReady(enable): whether the routing side can go along with
// switching the segment feature to `enable` now. Asked at both stages of the
// handshake; a change of the answer is announced by handleReady() so that a
// postponed stage can be retried. Runs on the reactor thread; calls nothing
// back.

#include "Zop/Attr.h"

namespace KivHelper {

class RoutingStatusSmHelper : public Zop::PtrInterface {
public:
   class Notifiee : public Zop::BaseNotifiee<RoutingStatusSmHelper> {
   public:
      virtual void handleReady() {}
   };
   virtual bool routingStatusReady(bool enable) = 0;
   Zop::NotifierList<Notifiee>& notifieeList() { return notifiees_; }

protected:
   // For implementations: announce that the answer may have changed.
   void readyChanged() {
      notifiees_.notify(this, [](Notifiee& n) { n.handleReady(); });
   }

private:
   Zop::NotifierList<Notifiee> notifiees_;
};

}  // namespace KivHelper
