#pragma once
// An adjacency of the routing layer: where a route's packets go. The segment
// feature reads its route type and, through l2Adj(), the hardware adjacency
// index.

#include <cstdint>

#include "Routing/RouteInfo.h"
#include "Zop/Ptr.h"

namespace Routing {

class L2Adj {
public:
   L2Adj() = default;
   explicit L2Adj(uint64_t index) : index_(index) {}
   uint64_t index() const { return index_; }
   friend bool operator==(const L2Adj&, const L2Adj&) = default;

private:
   uint64_t index_ = 0;
};

class AdjEntry : public Zop::PtrInterface {
public:
   AdjEntry(RouteType routeType, uint64_t l2AdjIndex) : routeType_(routeType), l2Adj_(l2AdjIndex) {}
   RouteType routeType() const { return routeType_; }
   const L2Adj& l2Adj() const { return l2Adj_; }
   // The route info of a route that uses this adjacency.
   RouteInfo routeInfo() const { return RouteInfo(routeType_, l2Adj_.index()); }

private:
   RouteType routeType_;
   L2Adj l2Adj_;
};

}  // namespace Routing

using Routing::AdjEntry;
