// Parsers of the segment records, under the shared round-trip check.

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "KivSegmentSecurity/KivSegmentPrefixProcessorTypes.h"
#include "fuzz/RoundTrip.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
   std::string_view text(reinterpret_cast<const char*>(data), size);
   fuzzcheck::roundTrip<Kiv::KivSegmentHwInfo>(text);
   fuzzcheck::roundTrip<Kiv::KivSegmentRouteInfo>(text);
   fuzzcheck::roundTrip<RouteInfo>(text);
   return 0;
}
