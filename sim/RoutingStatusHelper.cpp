#include "sim/RoutingStatusHelper.h"

namespace sim {

bool RoutingStatusHelper::routingStatusReady(bool enable) {
   ++(enable ? askedEnable_ : askedDisable_);
   return ready_;
}

void RoutingStatusHelper::readyIs(bool ready) {
   if (ready == ready_) {
      return;
   }
   ready_ = ready;
   readyChanged();
}

}  // namespace sim
