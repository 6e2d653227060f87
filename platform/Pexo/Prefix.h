#pragma once
// IPv4 and IPv6 addresses and prefixes.
//
// A prefix holds its address exactly as given: host bits may be set (such a
// value is not `validAsPrefix()`), so that configuration can be checked and
// reported rather than silently masked. An IPv4 prefix length is 32 bits wide
// and may hold kUnsetLength, the "no bound" marker of range walks.
//
// Text forms: dotted quad for IPv4; RFC 5952 canonical text for IPv6 (lower
// case, no leading zeros, the longest run of two or more zero groups shown as
// "::", IPv4-mapped addresses in mixed notation); prefixes as "addr/len". The
// parsers accept exactly the well-formed texts (for IPv6 every RFC 4291 form)
// and throw Zop::ParseError naming the field otherwise. The empty IpGenPrefix
// is written "none".
//
// Ordering (all types): family first (none < IPv4 < IPv6), then the address as
// an unsigned number, then the length. It is a total order; a prefix sorts
// right before the prefixes inside it that share its address.

#include <compare>
#include <cstdint>
#include <functional>
#include <iosfwd>

#include "Zop/String.h"
#include "Zop/TextCursor.h"

namespace Pexo {

enum class AddressFamily : uint8_t { ipunknown = 0, ipv4 = 1, ipv6 = 2 };

Zop::String valueToStrep(AddressFamily af);
std::ostream& operator<<(std::ostream& os, AddressFamily af);

class IpAddr {
public:
   constexpr IpAddr() = default;
   constexpr explicit IpAddr(uint32_t hostOrder) : value_(hostOrder) {}
   explicit IpAddr(Zop::TextCursor& c);

   constexpr uint32_t value() const { return value_; }
   // False for 0.0.0.0, 224.0.0.0/4 (multicast) and 255.255.255.255.
   bool isUnicast() const;
   bool isMulticast() const { return (value_ >> 28) == 0xE; }

   friend constexpr auto operator<=>(IpAddr, IpAddr) = default;

private:
   uint32_t value_ = 0;
};

class Ip6Addr {
public:
   constexpr Ip6Addr() = default;
   // `hi` holds the first eight bytes, `lo` the last eight, as big-endian numbers.
   constexpr Ip6Addr(uint64_t hi, uint64_t lo) : hi_(hi), lo_(lo) {}
   explicit Ip6Addr(Zop::TextCursor& c);

   constexpr uint64_t hi() const { return hi_; }
   constexpr uint64_t lo() const { return lo_; }
   // Group i (0..7) as a 16-bit number.
   uint16_t group(int i) const;
   // False for :: and ff00::/8 (multicast).
   bool isUnicast() const;
   bool isMulticast() const { return (hi_ >> 56) == 0xFF; }

   friend constexpr auto operator<=>(const Ip6Addr&, const Ip6Addr&) = default;

private:
   uint64_t hi_ = 0;
   uint64_t lo_ = 0;
};

class Prefix {
public:
   static constexpr uint32_t kMaxLength = 32;
   // Marks "no bound" in range walks; never a real prefix.
   static constexpr uint32_t kUnsetLength = 0xFFFFFFFF;

   constexpr Prefix() = default;
   constexpr Prefix(IpAddr addr, uint32_t len) : addr_(addr), len_(len) {}
   explicit Prefix(Zop::TextCursor& c);

   constexpr IpAddr addr() const { return addr_; }
   constexpr uint32_t len() const { return len_; }
   bool isUnset() const { return len_ == kUnsetLength; }
   bool isHost() const { return len_ == kMaxLength; }
   // Length at most 32 and no bit set beyond it.
   bool validAsPrefix() const;
   // The network part: address with the bits beyond the length cleared.
   Prefix masked() const;
   // The two address ranges share addresses (the addresses agree within the
   // shorter of the two lengths).
   bool overlaps(const Prefix& other) const;
   // `other` is equal to this prefix or lies inside it.
   bool contains(const Prefix& other) const;

   friend constexpr auto operator<=>(const Prefix&, const Prefix&) = default;

private:
   IpAddr addr_;
   uint32_t len_ = 0;
};

class Ip6Prefix {
public:
   static constexpr uint32_t kMaxLength = 128;
   static constexpr uint32_t kUnsetLength = 0xFFFFFFFF;

   constexpr Ip6Prefix() = default;
   constexpr Ip6Prefix(Ip6Addr addr, uint32_t len) : addr_(addr), len_(len) {}
   explicit Ip6Prefix(Zop::TextCursor& c);

   constexpr const Ip6Addr& addr() const { return addr_; }
   constexpr uint32_t len() const { return len_; }
   // The unset bound of range walks (length kUnsetLength).
   bool isNullPrefix() const { return len_ == kUnsetLength; }
   bool isHost() const { return len_ == kMaxLength; }
   bool validAsPrefix() const;
   Ip6Prefix masked() const;
   bool overlaps(const Ip6Prefix& other) const;
   bool contains(const Ip6Prefix& other) const;

   friend constexpr auto operator<=>(const Ip6Prefix&, const Ip6Prefix&) = default;

private:
   Ip6Addr addr_;
   uint32_t len_ = 0;
};

// Either family, or nothing (default constructed).
class IpGenPrefix {
public:
   IpGenPrefix() = default;
   IpGenPrefix(const Prefix& p)
       : hi_(uint64_t(p.addr().value()) << 32), len_(p.len()), af_(AddressFamily::ipv4) {}
   IpGenPrefix(const Ip6Prefix& p)
       : hi_(p.addr().hi()), lo_(p.addr().lo()), len_(p.len()), af_(AddressFamily::ipv6) {}
   explicit IpGenPrefix(Zop::TextCursor& c);

   AddressFamily af() const { return af_; }
   bool isIpv4() const { return af_ == AddressFamily::ipv4; }
   bool isIpv6() const { return af_ == AddressFamily::ipv6; }
   bool empty() const { return af_ == AddressFamily::ipunknown; }
   uint32_t len() const { return len_; }
   uint32_t maxLength() const;
   // The prefix as its own family's type; asking for the other family gives
   // that family's default value.
   Prefix v4() const { return isIpv4() ? Prefix(IpAddr(uint32_t(hi_ >> 32)), len_) : Prefix(); }
   Ip6Prefix v6() const { return isIpv6() ? Ip6Prefix(Ip6Addr(hi_, lo_), len_) : Ip6Prefix(); }

   bool isHost() const { return !empty() && len_ == maxLength(); }
   bool validAsPrefix() const;
   // Empty, or carrying the unset length.
   bool isNullPrefix() const { return empty() || len_ == Prefix::kUnsetLength; }
   // Same family and the ranges share addresses.
   bool overlaps(const IpGenPrefix& other) const;
   // Same family and `other` is equal to this prefix or lies inside it.
   bool contains(const IpGenPrefix& other) const;

   // Family, then address, then length. The members are laid out in another
   // order, the family last, so that it shares the length's word: 24 bytes
   // instead of 32, in every key and record that holds a prefix.
   friend std::strong_ordering operator<=>(const IpGenPrefix& a, const IpGenPrefix& b) {
      if (const auto c = a.af_ <=> b.af_; c != 0) {
         return c;
      }
      if (const auto c = a.hi_ <=> b.hi_; c != 0) {
         return c;
      }
      if (const auto c = a.lo_ <=> b.lo_; c != 0) {
         return c;
      }
      return a.len_ <=> b.len_;
   }
   friend bool operator==(const IpGenPrefix&, const IpGenPrefix&) = default;

private:
   uint64_t hi_ = 0;  // IPv4: address in the top 32 bits
   uint64_t lo_ = 0;
   uint32_t len_ = 0;
   AddressFamily af_ = AddressFamily::ipunknown;
};
static_assert(sizeof(IpGenPrefix) == 24, "the family shares the length's word");

Zop::String valueToStrep(IpAddr a);
Zop::String valueToStrep(const Ip6Addr& a);
Zop::String valueToStrep(const Prefix& p);
Zop::String valueToStrep(const Ip6Prefix& p);
Zop::String valueToStrep(const IpGenPrefix& p);
std::ostream& operator<<(std::ostream& os, IpAddr a);
std::ostream& operator<<(std::ostream& os, const Ip6Addr& a);
std::ostream& operator<<(std::ostream& os, const Prefix& p);
std::ostream& operator<<(std::ostream& os, const Ip6Prefix& p);
std::ostream& operator<<(std::ostream& os, const IpGenPrefix& p);
// Appends what operator<< writes to a stream in its default format: how a
// trace line takes them without a stream.
void appendTraceText(Zop::String& out, IpAddr a);
void appendTraceText(Zop::String& out, const Ip6Addr& a);
void appendTraceText(Zop::String& out, const Prefix& p);
void appendTraceText(Zop::String& out, const Ip6Prefix& p);
void appendTraceText(Zop::String& out, const IpGenPrefix& p);

// Mixes a value into a running hash (64-bit, well spread).
inline size_t hashCombine(size_t seed, uint64_t v) {
   uint64_t x = v + 0x9e3779b97f4a7c15ULL + (uint64_t(seed) << 6) + (uint64_t(seed) >> 2);
   x ^= x >> 30;
   x *= 0xbf58476d1ce4e5b9ULL;
   x ^= x >> 27;
   x *= 0x94d049bb133111ebULL;
   x ^= x >> 31;
   return size_t(seed ^ x);
}

// Inline: every review list and FIB lookup hashes a prefix.
inline size_t hashValue(const Prefix& p) {
   return hashCombine(p.len(), p.addr().value());
}
inline size_t hashValue(const Ip6Prefix& p) {
   return hashCombine(hashCombine(p.len(), p.addr().hi()), p.addr().lo());
}
inline size_t hashValue(const IpGenPrefix& p) {
   return p.isIpv4() ? hashValue(p.v4()) : p.isIpv6() ? hashValue(p.v6()) : 0;
}

}  // namespace Pexo

template <>
struct std::hash<Pexo::Prefix> {
   size_t operator()(const Pexo::Prefix& p) const noexcept { return Pexo::hashValue(p); }
};
template <>
struct std::hash<Pexo::Ip6Prefix> {
   size_t operator()(const Pexo::Ip6Prefix& p) const noexcept { return Pexo::hashValue(p); }
};
template <>
struct std::hash<Pexo::IpGenPrefix> {
   size_t operator()(const Pexo::IpGenPrefix& p) const noexcept { return Pexo::hashValue(p); }
};
