#pragma once
// The simulated platform without the segment library: the shared state, the
// hardware table and the agents, for tests of the agents and the oracle on
// states built by hand.

#include <gtest/gtest.h>

#include "sim/ConfigDriver.h"
#include "sim/HardwareRouteTable.h"
#include "sim/HwIdAllocator.h"
#include "sim/Oracle.h"
#include "sim/RouteResolver.h"
#include "sim/RoutingAgent.h"

namespace simtest {

inline Pexo::IpGenPrefix pfx(const char* text) {
   return Zop::strepToValue<Pexo::IpGenPrefix>(text);
}

inline sim::HardwareRouteTable::Key hwKey(uint32_t vrf, const char* prefix) {
   return {VrfId(vrf), pfx(prefix)};
}

struct Platform {
   Zop::Ptr<Zop::VirtualClock> clock = Zop::makePtr<Zop::VirtualClock>();
   Zop::Ptr<Ruv::TaskScheduler> scheduler = Zop::makePtr<Ruv::TaskScheduler>(clock);
   Zop::Ptr<L3Status> l3Status = L3::l3StatusFactory();
   Zop::Ptr<KivVrfFibRouteCollection> fibRoutes = Zop::makePtr<KivVrfFibRouteCollection>();
   Zop::Ptr<KivVrfFibRoute6Collection> fibRoutes6 = Zop::makePtr<KivVrfFibRoute6Collection>();
   Zop::Ptr<RouteReactorConfig> routeConfig = Zop::makePtr<RouteReactorConfig>();
   Zop::Ptr<Route6ReactorConfig> route6Config = Zop::makePtr<Route6ReactorConfig>();
   Zop::Ptr<RouteReactorStatus> routeStatus = Zop::makePtr<RouteReactorStatus>();
   Zop::Ptr<Route6ReactorStatus> route6Status = Zop::makePtr<Route6ReactorStatus>();
   Zop::Ptr<Firewall::HwConfig> fwConfig = Firewall::hwConfigFactory();
   Zop::Ptr<SegmentIdRequest> requests = Zop::makePtr<SegmentIdRequest>();
   Zop::Ptr<SegmentIdResponse> responses = Zop::makePtr<SegmentIdResponse>();
   Zop::Ptr<Kiv::PrefixCount> prefixCount = Kiv::prefixCountFactory();
   Zop::Ptr<Kiv::VrfPrefixCollection> reviewList = Kiv::vrfPrefixCollectionFactory();
   Zop::Ptr<sim::HardwareRouteTable> hardware = Zop::makePtr<sim::HardwareRouteTable>();

   sim::RoutingAgent routing{scheduler,   l3Status,     fibRoutes, fibRoutes6,
                             routeStatus, route6Status, hardware};
   sim::RouteResolver resolver{scheduler,   l3Status,     fibRoutes,   fibRoutes6,
                               routeConfig, route6Config, routeStatus, route6Status};
   sim::HwIdAllocator allocator{scheduler, requests, responses};
   sim::ConfigDriver config{sim::ConfigDriver::Mode::manual,
                            scheduler,
                            fwConfig,
                            l3Status,
                            requests,
                            responses,
                            prefixCount,
                            reviewList};

   void settle() { scheduler->settle(); }

   sim::Oracle oracle() const { return sim::Oracle(inputs()); }

   sim::Oracle::Inputs inputs() const {
      sim::Oracle::Inputs in;
      in.fwConfig = fwConfig;
      in.l3Status = l3Status;
      in.fibRoutes = fibRoutes;
      in.fibRoutes6 = fibRoutes6;
      in.segmentIdResponse = responses;
      in.routeStatus = routeStatus;
      in.route6Status = route6Status;
      in.hardware = hardware;
      return in;
   }

   void watch(uint32_t vrf, const char* prefix) {
      const auto p = pfx(prefix);
      if (p.isIpv4()) {
         routeConfig->watchedPrefixIs(VrfAndPrefix(VrfId(vrf), p.v4()), {});
      } else {
         route6Config->watchedPrefixIs(VrfAndIp6Prefix(VrfId(vrf), p.v6()), {});
      }
   }
   void unwatch(uint32_t vrf, const char* prefix) {
      const auto p = pfx(prefix);
      if (p.isIpv4()) {
         routeConfig->watchedPrefixDel(VrfAndPrefix(VrfId(vrf), p.v4()));
      } else {
         route6Config->watchedPrefixDel(VrfAndIp6Prefix(VrfId(vrf), p.v6()));
      }
   }
   const NextHopEntryList* answer(uint32_t vrf, const char* prefix) const {
      const auto p = pfx(prefix);
      return p.isIpv4() ? routeStatus->resolvedEntry(VrfAndPrefix(VrfId(vrf), p.v4()))
                        : route6Status->resolvedEntry(VrfAndIp6Prefix(VrfId(vrf), p.v6()));
   }
   // The hardware adjacency the answer's next hop goes to; 0 for an answer
   // without one; -1 for no answer or a next hop without a published adjacency.
   int64_t answerAdj(uint32_t vrf, const char* prefix) const {
      const NextHopEntryList* list = answer(vrf, prefix);
      if (!list) {
         return -1;
      }
      if (list->empty()) {
         return 0;
      }
      const uint32_t* table = l3Status->vrfTableStatus()->fibTableId(l3Status->vrfName(VrfId(vrf)));
      const auto adj = table ? l3Status->adjacency(Quarn::Fib::GlobalFecId(
                                   Quarn::Fib::GlobalFecId::kForward, *table, list->at(0).fecIndex))
                             : nullptr;
      return adj ? int64_t(adj->l2Adj().index()) : -1;
   }
};

}  // namespace simtest
