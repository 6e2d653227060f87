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

using namespace Pexo;

namespace {

// The shared check: a parser either rejects a text with ParseError or
// RangeError, or accepts it and then its value's text form is canonical
// (parses back to the same value, reprints identically, hashes alike).
// Anything else, another exception included, stops the run.
template <class T>
std::optional<T> tryParse(std::string_view text) {
   try {
      return Zop::strepToValue<T>(text);
   } catch (const Zop::ParseError&) {
   } catch (const Zop::RangeError&) {
   } catch (...) {
      __builtin_trap();
   }
   return std::nullopt;
}

template <class T>
T mustParse(std::string_view text) {
   try {
      return Zop::strepToValue<T>(text);
   } catch (...) {
      __builtin_trap();  // the printed form of a value must parse
   }
}

template <class T>
std::optional<T> roundTrip(std::string_view text) {
   std::optional<T> v = tryParse<T>(text);
   if (!v) {
      return v;
   }
   auto canonical = valueToStrep(*v);
   T again = mustParse<T>(canonical);
   if (!(again == *v) || valueToStrep(again) != canonical) {
      __builtin_trap();
   }
   if constexpr (std::is_default_constructible_v<std::hash<T>>) {
      if (std::hash<T>()(again) != std::hash<T>()(*v)) {
         __builtin_trap();
      }
   }
   return v;
}

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
