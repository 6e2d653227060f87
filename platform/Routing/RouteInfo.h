#pragma once
// How a route is programmed in hardware: its route type, the hardware
// adjacency index its packets go to, and one flag of the routing layer.
//
// Text form:
//   Value('Routing::RouteInfo', ** {'routeType': routeTypeDrop, 'adjIndex': 7, 'flag': false})

#include <cstdint>
#include <functional>
#include <ostream>

#include "Pexo/Prefix.h"
#include "Zop/String.h"
#include "Zop/TextCursor.h"

namespace Routing {

enum class RouteType : uint32_t {
   routeTypeInvalid = 0,
   routeTypeDrop = 1,
   routeTypeForward = 2,
   routeTypeReceive = 3,
   routeTypeAttached = 4,
};

inline constexpr const char* kRouteTypeNames[] = {"routeTypeInvalid", "routeTypeDrop",
                                                  "routeTypeForward", "routeTypeReceive",
                                                  "routeTypeAttached"};

inline Zop::String valueToStrep(RouteType t) {
   auto i = uint32_t(t);
   return i < std::size(kRouteTypeNames) ? kRouteTypeNames[i] : "routeTypeInvalid";
}
inline std::ostream& operator<<(std::ostream& os, RouteType t) {
   return os << valueToStrep(t);
}

inline RouteType parseRouteType(Zop::TextCursor& c) {
   // Longest names first would matter only if one name prefixed another; none does.
   for (uint32_t i = 0; i < std::size(kRouteTypeNames); ++i) {
      if (c.consume(kRouteTypeNames[i])) {
         return RouteType(i);
      }
   }
   c.fail("routeType", "unknown route type");
}

class RouteInfo {
public:
   RouteInfo() = default;
   RouteInfo(RouteType routeType, uint64_t adjIndex, bool flag = false)
       : routeType_(routeType), adjIndex_(adjIndex), flag_(flag) {}
   explicit RouteInfo(Zop::TextCursor& c) {
      c.expect("Value('Routing::RouteInfo', ** {'routeType': ", "routeInfo");
      routeType_ = parseRouteType(c);
      c.expect(", 'adjIndex': ", "adjIndex");
      adjIndex_ = c.unsignedNumber("adjIndex", ~uint64_t(0));
      c.expect(", 'flag': ", "flag");
      flag_ = c.boolean("flag");
      c.expect("})", "routeInfo");
   }

   RouteType routeType() const { return routeType_; }
   uint64_t adjIndex() const { return adjIndex_; }
   bool flag() const { return flag_; }
   // The default value: nothing programmed.
   bool empty() const { return *this == RouteInfo(); }

   friend bool operator==(const RouteInfo&, const RouteInfo&) = default;

private:
   RouteType routeType_ = RouteType::routeTypeInvalid;
   uint64_t adjIndex_ = 0;
   bool flag_ = false;
};

inline Zop::String valueToStrep(const RouteInfo& r) {
   return "Value('Routing::RouteInfo', ** {'routeType': " + valueToStrep(r.routeType()) +
          ", 'adjIndex': " + std::to_string(r.adjIndex()) +
          ", 'flag': " + (r.flag() ? "true" : "false") + "})";
}
inline std::ostream& operator<<(std::ostream& os, const RouteInfo& r) {
   return os << valueToStrep(r);
}

}  // namespace Routing

template <>
struct std::hash<Routing::RouteInfo> {
   size_t operator()(const Routing::RouteInfo& r) const noexcept {
      return Pexo::hashCombine(Pexo::hashCombine(uint32_t(r.routeType()), r.adjIndex()), r.flag());
   }
};

using Routing::RouteInfo;
using Routing::RouteType;
