#pragma once
// Strong ids and the (VRF, prefix) keys every collection of the segment
// feature is keyed by.
//
// Text forms: VrfId and SegmentHwId are decimal numbers; the keys use the
// framework's record form, e.g.
//   Value('Pexo::VrfAndIpGenPrefix', ** {'vrfId': 1, 'prefix': 10.1.0.0/16})
// Parsers read exactly that layout and name the failing field.

#include <compare>
#include <cstdint>
#include <functional>
#include <iosfwd>

#include "Pexo/Prefix.h"

namespace Pexo {

class VrfId {
public:
   constexpr VrfId() = default;
   constexpr explicit VrfId(uint32_t v) : value_(v) {}
   explicit VrfId(Zop::TextCursor& c);
   constexpr uint32_t value() const { return value_; }
   friend constexpr auto operator<=>(VrfId, VrfId) = default;

private:
   uint32_t value_ = 0;
};

// The 16-bit class id a segment's routes carry in hardware. 65535 is the
// invalid (unset) id and the default; 0 means "no segment".
class SegmentHwId {
public:
   static constexpr uint16_t kInvalid = 0xFFFF;
   constexpr SegmentHwId() = default;
   constexpr explicit SegmentHwId(uint16_t v) : value_(v) {}
   explicit SegmentHwId(Zop::TextCursor& c);
   constexpr uint16_t value() const { return value_; }
   constexpr bool isValid() const { return value_ != kInvalid; }
   friend constexpr auto operator<=>(SegmentHwId, SegmentHwId) = default;

private:
   uint16_t value_ = kInvalid;
};

// Shared shape of the three (VRF id, prefix) keys.
template <class P, const char* kTypeName>
class VrfAndPrefixKey {
public:
   VrfAndPrefixKey() = default;
   VrfAndPrefixKey(VrfId vrfId, const P& prefix) : vrfId_(vrfId), prefix_(prefix) {}
   explicit VrfAndPrefixKey(Zop::TextCursor& c) {
      c.expect("Value('", "value");
      c.expect(kTypeName, "value");
      c.expect("', ** {'vrfId': ", "vrfId");
      vrfId_ = VrfId(c);
      c.expect(", 'prefix': ", "prefix");
      try {
         prefix_ = P(c);
      } catch (const Zop::ParseError& e) {
         // Whatever part of the prefix failed, the key's field is "prefix".
         throw Zop::ParseError("prefix", e.what());
      }
      c.expect("})", "value");
   }

   VrfId vrfId() const { return vrfId_; }
   const P& prefix() const { return prefix_; }
   void vrfIdIs(VrfId v) { vrfId_ = v; }
   void prefixIs(const P& p) { prefix_ = p; }

   friend auto operator<=>(const VrfAndPrefixKey&, const VrfAndPrefixKey&) = default;
   friend bool operator==(const VrfAndPrefixKey&, const VrfAndPrefixKey&) = default;

   static const char* typeName() { return kTypeName; }

private:
   VrfId vrfId_;
   P prefix_;
};

inline constexpr char kVrfAndIpGenPrefixName[] = "Pexo::VrfAndIpGenPrefix";
inline constexpr char kVrfAndPrefixName[] = "Pexo::VrfAndPrefix";
inline constexpr char kVrfAndIp6PrefixName[] = "Pexo::VrfAndIp6Prefix";

using VrfAndIpGenPrefix = VrfAndPrefixKey<IpGenPrefix, kVrfAndIpGenPrefixName>;
using VrfAndPrefix = VrfAndPrefixKey<Prefix, kVrfAndPrefixName>;
using VrfAndIp6Prefix = VrfAndPrefixKey<Ip6Prefix, kVrfAndIp6PrefixName>;

Zop::String valueToStrep(VrfId v);
Zop::String valueToStrep(SegmentHwId v);
std::ostream& operator<<(std::ostream& os, VrfId v);
std::ostream& operator<<(std::ostream& os, SegmentHwId v);
// What operator<< writes in a stream's default format, for trace lines.
void appendTraceText(Zop::String& out, VrfId v);
void appendTraceText(Zop::String& out, SegmentHwId v);

template <class P, const char* N>
Zop::String valueToStrep(const VrfAndPrefixKey<P, N>& k) {
   return Zop::String("Value('") + N + "', ** {'vrfId': " + valueToStrep(k.vrfId()) +
          ", 'prefix': " + valueToStrep(k.prefix()) + "})";
}

template <class P, const char* N>
std::ostream& operator<<(std::ostream& os, const VrfAndPrefixKey<P, N>& k) {
   return os << valueToStrep(k);
}

template <class P, const char* N>
size_t hashValue(const VrfAndPrefixKey<P, N>& k) {
   return hashCombine(hashValue(k.prefix()), k.vrfId().value());
}

}  // namespace Pexo

// The segment feature names these without a namespace.
using Pexo::SegmentHwId;
using Pexo::VrfAndIp6Prefix;
using Pexo::VrfAndIpGenPrefix;
using Pexo::VrfAndPrefix;
using Pexo::VrfId;

template <>
struct std::hash<Pexo::VrfId> {
   size_t operator()(Pexo::VrfId v) const noexcept { return Pexo::hashCombine(0, v.value()); }
};
template <>
struct std::hash<Pexo::SegmentHwId> {
   size_t operator()(Pexo::SegmentHwId v) const noexcept { return v.value(); }
};
template <class P, const char* N>
struct std::hash<Pexo::VrfAndPrefixKey<P, N>> {
   size_t operator()(const Pexo::VrfAndPrefixKey<P, N>& k) const noexcept {
      return Pexo::hashValue(k);
   }
};
