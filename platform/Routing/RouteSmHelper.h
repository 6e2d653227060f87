#pragma once
// Hardware route programming of the routing layer, one helper per family.
//
// programRoute(prefix, vrfId, oldRouteInfo, newRouteInfo) moves the
// hardware entry of (vrfId, prefix) from what the caller believes is there
// (`oldRouteInfo`; empty when the caller believes nothing is) to
// `newRouteInfo`; an empty `newRouteInfo` removes the entry. It answers
// whether the hardware took the change. It runs on the reactor thread and
// calls nothing back.

#include "Pexo/VrfId.h"
#include "Routing/RouteInfo.h"
#include "Zop/Ptr.h"

namespace KivHelper {

class RouteSmHelper : public Zop::PtrInterface {
public:
   virtual bool programRoute(const Pexo::Prefix& prefix, VrfId vrfId, const RouteInfo& oldRouteInfo,
                             const RouteInfo& newRouteInfo) = 0;
};

class Route6SmHelper : public Zop::PtrInterface {
public:
   virtual bool programRoute(const Pexo::Ip6Prefix& prefix, VrfId vrfId,
                             const RouteInfo& oldRouteInfo, const RouteInfo& newRouteInfo) = 0;
};

}  // namespace KivHelper
