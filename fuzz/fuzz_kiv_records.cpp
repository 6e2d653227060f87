// Parsers of the segment records: whatever they accept must print back to a
// text that parses to the same value, and printing must be a fixed point.
// Rejection is a ParseError (or RangeError); anything else is a bug.

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "KivSegmentSecurity/KivSegmentPrefixProcessorTypes.h"
#include "Zop/Error.h"

namespace {

template <class T>
void roundTrip(std::string_view text) {
   T value;
   try {
      value = Zop::strepToValue<T>(text);
   } catch (const Zop::ParseError&) {
      return;
   } catch (const Zop::RangeError&) {
      return;
   }
   Zop::String printed = valueToStrep(value);
   T again = Zop::strepToValue<T>(printed);
   if (!(again == value) || valueToStrep(again) != printed) {
      __builtin_trap();
   }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
   std::string_view text(reinterpret_cast<const char*>(data), size);
   roundTrip<Kiv::KivSegmentHwInfo>(text);
   roundTrip<Kiv::KivSegmentRouteInfo>(text);
   roundTrip<RouteInfo>(text);
   return 0;
}
