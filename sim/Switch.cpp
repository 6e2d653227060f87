#include "sim/Switch.h"

namespace sim {

Switch::Switch(Zop::Ptr<Ruv::YieldPolicy> yieldPolicy)
    : clock_(Zop::makePtr<Zop::VirtualClock>()),
      scheduler_(Zop::makePtr<Ruv::TaskScheduler>(clock_, std::move(yieldPolicy))),
      l3Status_(L3::l3StatusFactory()),
      fibRoutes_(Zop::makePtr<KivVrfFibRouteCollection>()),
      fibRoutes6_(Zop::makePtr<KivVrfFibRoute6Collection>()),
      routeConfig_(Zop::makePtr<RouteReactorConfig>()),
      route6Config_(Zop::makePtr<Route6ReactorConfig>()),
      routeStatus_(Zop::makePtr<RouteReactorStatus>()),
      route6Status_(Zop::makePtr<Route6ReactorStatus>()),
      fwConfig_(Firewall::hwConfigFactory()),
      segmentIdRequest_(Zop::makePtr<SegmentIdRequest>()),
      segmentIdResponse_(Zop::makePtr<SegmentIdResponse>()),
      status_(Zop::makePtr<SegmentSecurityStatus>()),
      segmentReviewList_(Kiv::vrfPrefixCollectionFactory()),
      prefixCount_(Kiv::prefixCountFactory()),
      segmentRoutesList_(Kiv::kivSegmentRouteInfoCollFactory()),
      hardware_(Zop::makePtr<HardwareRouteTable>()) {
   routing_ = std::make_unique<RoutingAgent>(l3Status_, fibRoutes_, fibRoutes6_, routeStatus_,
                                             route6Status_, hardware_);
   resolver_ =
       std::make_unique<RouteResolver>(scheduler_, l3Status_, fibRoutes_, fibRoutes6_, routeConfig_,
                                       route6Config_, routeStatus_, route6Status_);
   allocator_ = std::make_unique<HwIdAllocator>(scheduler_, segmentIdRequest_, segmentIdResponse_);
   config_ = std::make_unique<ConfigDriver>(scheduler_, fwConfig_, l3Status_, segmentIdRequest_,
                                            segmentIdResponse_, prefixCount_, segmentReviewList_);
   // The platform agents are all in place before the library starts, as in
   // a switch where the library is loaded into a running forwarding agent.
   processor_ = Kiv::kivSegmentPrefixProcessorSmFactory(
       scheduler_, routeConfig_, route6Config_, routeStatus_, route6Status_, l3Status_, fibRoutes_,
       fibRoutes6_, hardware_->routeSmHelper(), hardware_->route6SmHelper(),
       hardware_->segmentRouteHelper(), fwConfig_, segmentIdRequest_, segmentIdResponse_,
       segmentReviewList_, prefixCount_, segmentRoutesList_, status_);
}

Switch::~Switch() {
   // The library goes first: it holds notifiees on the agents' state.
   processor_ = nullptr;
}

size_t Switch::settle() {
   return scheduler_->settle();
}

Oracle Switch::oracle() const {
   Oracle::Inputs in;
   in.fwConfig = fwConfig_;
   in.l3Status = l3Status_;
   in.fibRoutes = fibRoutes_;
   in.fibRoutes6 = fibRoutes6_;
   in.segmentIdResponse = segmentIdResponse_;
   in.routeStatus = routeStatus_;
   in.route6Status = route6Status_;
   in.hardware = hardware_;
   return Oracle(std::move(in));
}

std::vector<Zop::String> Switch::check() const {
   return oracle().check();
}

}  // namespace sim
