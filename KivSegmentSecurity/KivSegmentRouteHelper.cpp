#include "KivSegmentSecurity/KivSegmentRouteHelper.h"

#include <cstdlib>

namespace Kiv {

bool KivSegmentRouteHelper::noopAgent() {
   return std::getenv("KIV_NOOP_AGENT") != nullptr;
}

SegmentHwId KivSegmentRouteHelper::getHardwareId(const VrfAndIpGenPrefix&) {
   if (noopAgent()) {
      return SegmentHwId(SegmentHwId::kInvalid);
   }
   kivAssert("This function must be implemented by derived class");
}

bool KivSegmentRouteHelper::updateHardwareId(const KivSegmentRouteInfo&) {
   if (noopAgent()) {
      return true;
   }
   kivAssert("This function must be implemented by derived class");
}

}  // namespace Kiv
