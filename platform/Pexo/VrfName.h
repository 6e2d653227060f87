#pragma once
// A VRF's name: at most 100 bytes. Its text form is the name itself.

#include <compare>
#include <functional>
#include <iosfwd>

#include "Zop/Error.h"
#include "Zop/String.h"
#include "Zop/TextCursor.h"

namespace L3 {

class VrfName {
public:
   static constexpr size_t maxLength = 100;

   VrfName() = default;
   // Throws Zop::RangeError when the name is longer than maxLength bytes.
   explicit VrfName(Zop::String value);
   VrfName(const char* value) : VrfName(Zop::String(value)) {}
   // Takes the rest of the text as the name.
   explicit VrfName(Zop::TextCursor& c);

   const Zop::String& value() const { return value_; }
   bool empty() const { return value_.empty(); }
   friend auto operator<=>(const VrfName&, const VrfName&) = default;
   friend bool operator==(const VrfName&, const VrfName&) = default;

private:
   Zop::String value_;
};

Zop::String valueToStrep(const VrfName& n);
std::ostream& operator<<(std::ostream& os, const VrfName& n);

}  // namespace L3

template <>
struct std::hash<L3::VrfName> {
   size_t operator()(const L3::VrfName& n) const noexcept {
      return std::hash<Zop::String>()(n.value());
   }
};
