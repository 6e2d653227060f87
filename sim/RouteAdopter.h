#pragma once
// Adopt mode: routes that other programs put in the dataplane's tables
// (`ip route`, a routing daemon) become FIB routes of the switch, through the
// routing agent, as a routing layer would publish them; the library then
// tags them like any FIB route.
//
// Table N is the VRF whose id is N. A route in a table that is no VRF's is
// kept until a VRF takes that id; a VRF that goes takes its FIB routes with
// it, and they come back with a VRF that takes the id again. A route the
// switch cannot express is skipped with one line on `notes`, once per route
// and reason, when its table is a VRF's.
//
// The dataplane's changes are read by a task that asks taskShouldYield()
// before each one. pending() says whether there is anything to read or to
// publish; the switch's settle() runs the task until there is not, so a
// settle sees every change the kernel reported before it began.

#include <map>
#include <memory>
#include <ostream>
#include <set>
#include <string>

#include "Ruv/TaskScheduler.h"
#include "sim/Dataplane.h"
#include "sim/RoutingAgent.h"

namespace sim {

class RouteAdopter {
public:
   RouteAdopter(Zop::Ptr<Ruv::TaskScheduler> scheduler, std::shared_ptr<Dataplane> dataplane,
                RoutingAgent& routing, std::ostream* notes);
   ~RouteAdopter();
   RouteAdopter(const RouteAdopter&) = delete;
   RouteAdopter& operator=(const RouteAdopter&) = delete;

   // Whether a run of the task has work; schedules it when so.
   bool pending();
   // Routes published, changes read.
   size_t published() const { return published_.size(); }
   uint64_t changesRead() const { return changesRead_; }

private:
   struct Route {
      uint64_t adj = 0;
      std::string skipped;
   };
   void run();
   // The VRF names by id, from the routing agent; true when they changed.
   bool vrfsRead();
   void publish(const HwKey& key);

   Zop::Ptr<Ruv::TaskScheduler> scheduler_;
   std::shared_ptr<Dataplane> dataplane_;
   RoutingAgent& routing_;
   std::ostream* notes_;
   Zop::Ptr<Ruv::Task> task_;
   // What the dataplane holds of other programs, and what is published.
   std::map<HwKey, Route> kernel_;
   std::map<HwKey, uint64_t> published_;
   std::map<HwKey, std::string> noted_;
   std::map<uint32_t, L3::VrfName> vrfs_;
   std::set<HwKey> dirty_;
   bool peeked_ = false;
   Dataplane::ForeignRoute next_;
   uint64_t changesRead_ = 0;
};

}  // namespace sim
