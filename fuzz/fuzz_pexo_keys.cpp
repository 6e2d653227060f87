// Fuzzes the VRF id, segment hardware id and (VRF, prefix) key parsers. The
// input is tried on its own and also as the prefix of each key record, so the
// fuzzer reaches the prefix parsers through the record without first having
// to discover the record layout.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <type_traits>

#include "Pexo/VrfId.h"
#include "Zop/Error.h"
#include "Zop/TextCursor.h"
#include "fuzz/RoundTrip.h"

using namespace Pexo;

namespace {

using fuzzcheck::mustParse;
using fuzzcheck::roundTrip;
using fuzzcheck::tryParse;

template <class K>
void asPrefixOfRecord(std::string_view text) {
   std::string record = std::string("Value('") + K::typeName() + "', ** {'vrfId': 42, 'prefix': ";
   record.append(text);
   record += "})";
   auto key = roundTrip<K>(record);
   if (key && key->vrfId() != VrfId(42)) {
      __builtin_trap();
   }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
   std::string_view text(reinterpret_cast<const char*>(data), size);
   roundTrip<VrfId>(text);
   roundTrip<SegmentHwId>(text);
   auto gen = roundTrip<VrfAndIpGenPrefix>(text);
   auto v4 = roundTrip<VrfAndPrefix>(text);
   auto v6 = roundTrip<VrfAndIp6Prefix>(text);
   if (int(gen.has_value()) + int(v4.has_value()) + int(v6.has_value()) > 1) {
      __builtin_trap();  // the type name tells the keys apart
   }
   asPrefixOfRecord<VrfAndIpGenPrefix>(text);
   asPrefixOfRecord<VrfAndPrefix>(text);
   asPrefixOfRecord<VrfAndIp6Prefix>(text);
   return 0;
}
