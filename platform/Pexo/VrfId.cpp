#include "Pexo/VrfId.h"

#include <ostream>

#include "Pexo/VrfName.h"

namespace Pexo {

VrfId::VrfId(Zop::TextCursor& c) : value_(uint32_t(c.unsignedNumber("vrfId", 0xFFFFFFFF))) {}

SegmentHwId::SegmentHwId(Zop::TextCursor& c) : value_(uint16_t(c.unsignedNumber("hwId", 0xFFFF))) {}

Zop::String valueToStrep(VrfId v) {
   return std::to_string(v.value());
}
Zop::String valueToStrep(SegmentHwId v) {
   return std::to_string(v.value());
}
std::ostream& operator<<(std::ostream& os, VrfId v) {
   return os << v.value();
}
std::ostream& operator<<(std::ostream& os, SegmentHwId v) {
   return os << v.value();
}

}  // namespace Pexo

namespace L3 {

VrfName::VrfName(Zop::String value) : value_(std::move(value)) {
   if (value_.size() > maxLength) {
      throw Zop::RangeError("VrfName::value::bytes > VrfName::maxLength not allowed");
   }
}

VrfName::VrfName(Zop::TextCursor& c)
    : VrfName(Zop::String(c.takeWhile([](char) { return true; }))) {}

Zop::String valueToStrep(const VrfName& n) {
   return n.value();
}
std::ostream& operator<<(std::ostream& os, const VrfName& n) {
   return os << n.value();
}

}  // namespace L3
