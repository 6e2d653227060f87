#pragma once
// The check every parser fuzzer makes: a parser either rejects a text with
// ParseError or RangeError, or accepts it and then its value's text form is
// canonical (parses back to the same value, reprints identically, hashes
// alike). Anything else, another exception included, stops the run.

#include <functional>
#include <optional>
#include <string_view>
#include <type_traits>

#include "Zop/Error.h"
#include "Zop/TextCursor.h"

namespace fuzzcheck {

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

}  // namespace fuzzcheck
