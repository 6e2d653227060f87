#include "Pexo/VrfId.h"

#include <charconv>
#include <ostream>
#include <string_view>

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
namespace {

// The digits of v at buf (room for 10); their count.
size_t decimalTo(char* buf, uint32_t v) {
   return size_t(std::to_chars(buf, buf + 10, v).ptr - buf);
}

// Ids are decimal: written without the stream's number formatting (its
// locale's facets), which a trace line pays for twice per FIB route. A
// stream set to another base still gets the number formatted its way.
std::ostream& decimalId(std::ostream& os, uint32_t v) {
   const auto base = os.flags() & std::ios_base::basefield;
   if (base != std::ios_base::dec && base != std::ios_base::fmtflags()) {
      return os << v;
   }
   char buf[10];
   return os << std::string_view(buf, decimalTo(buf, v));
}

}  // namespace

std::ostream& operator<<(std::ostream& os, VrfId v) {
   return decimalId(os, v.value());
}
std::ostream& operator<<(std::ostream& os, SegmentHwId v) {
   return decimalId(os, v.value());
}

void appendTraceText(Zop::String& out, VrfId v) {
   char buf[10];
   out.append(buf, decimalTo(buf, v.value()));
}
void appendTraceText(Zop::String& out, SegmentHwId v) {
   char buf[10];
   out.append(buf, decimalTo(buf, v.value()));
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
