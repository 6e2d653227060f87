#pragma once
// The routing side's readiness for the segment feature's handshake, as the
// simulated switch gives it to the library: ready for either direction
// unless a test says otherwise with readyIs(false). readyIs announces a real
// change of the answer (handleReady), so a postponed handshake stage is tried
// again. It counts the questions it is asked.

#include <cstdint>

#include "Routing/RoutingStatusSmHelper.h"

namespace sim {

class RoutingStatusHelper final : public KivHelper::RoutingStatusSmHelper {
public:
   bool routingStatusReady(bool enable) override;

   bool ready() const { return ready_; }
   void readyIs(bool ready);

   // Questions asked so far, in all and by direction.
   uint32_t asked() const { return askedEnable_ + askedDisable_; }
   uint32_t askedEnable() const { return askedEnable_; }
   uint32_t askedDisable() const { return askedDisable_; }

private:
   bool ready_ = true;
   uint32_t askedEnable_ = 0;
   uint32_t askedDisable_ = 0;
};

}  // namespace sim
