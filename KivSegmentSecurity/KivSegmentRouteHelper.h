#pragma once
// Hardware-id access for segment routes. The platform derives from this class
// to read and write the segment class id of a route programmed in hardware.
//
// getHardwareId(key)     The id the route of `key` carries now; 65535 when
//                        the route is not in hardware.
// updateHardwareId(info) Writes info.hwId() onto the route of info.vrfPrefix()
//                        (programmed with info.routeInfo()); false when the
//                        hardware refused or holds no such route.
//
// Both run on the reactor thread and must not call back into the library.
// The base class only serves the no-op agent: with the environment variable
// KIV_NOOP_AGENT set (any value) getHardwareId answers 65535 and
// updateHardwareId answers true, touching nothing; without it, calling the
// base class is a programming error (kivAssert).

#include "Kiv/KivBaseHelper.h"
#include "Kiv/KivExport.h"
#include "KivSegmentSecurity/KivSegmentPrefixProcessorTypes.h"

namespace Kiv {

class KIV_EXPORT KivSegmentRouteHelper : public KivBaseHelper {
public:
   explicit KivSegmentRouteHelper(Zop::String name) : KivBaseHelper(std::move(name)) {}

   virtual SegmentHwId getHardwareId(const VrfAndIpGenPrefix& vrfPrefix);
   virtual bool updateHardwareId(const KivSegmentRouteInfo& routeInfo);

   // Whether KIV_NOOP_AGENT is set.
   static bool noopAgent();
};

}  // namespace Kiv
