#include "Pexo/Prefix.h"

#include <array>
#include <ostream>
#include <string_view>

namespace Pexo {

namespace {

bool isDigit(char ch) {
   return ch >= '0' && ch <= '9';
}
bool isHex(char ch) {
   return isDigit(ch) || (ch >= 'a' && ch <= 'f') || (ch >= 'A' && ch <= 'F');
}
int hexValue(char ch) {
   if (isDigit(ch)) {
      return ch - '0';
   }
   return (ch | 0x20) - 'a' + 10;
}

// Mask of the first `len` bits of a 32-bit word; `len` may be 0..32.
uint32_t mask32(uint32_t len) {
   return len == 0 ? 0 : len >= 32 ? ~0u : ~0u << (32 - len);
}
uint64_t mask64(uint32_t len) {
   return len == 0 ? 0 : len >= 64 ? ~uint64_t(0) : ~uint64_t(0) << (64 - len);
}

// Parses a dotted quad from `text` exactly (no trailing text). Returns false
// when malformed.
bool parseDottedQuad(std::string_view text, uint32_t& out) {
   uint32_t value = 0;
   size_t pos = 0;
   for (int octet = 0; octet < 4; ++octet) {
      if (octet > 0) {
         if (pos >= text.size() || text[pos] != '.') {
            return false;
         }
         ++pos;
      }
      size_t start = pos;
      uint32_t n = 0;
      while (pos < text.size() && isDigit(text[pos]) && pos - start < 3) {
         n = n * 10 + uint32_t(text[pos] - '0');
         ++pos;
      }
      size_t digits = pos - start;
      if (digits == 0 || n > 255 || (digits > 1 && text[start] == '0')) {
         return false;
      }
      value = (value << 8) | n;
   }
   if (pos != text.size()) {
      return false;
   }
   out = value;
   return true;
}

// Parses any RFC 4291 text form of an IPv6 address (groups of one to four hex
// digits, at most one "::", optionally a dotted quad in the last 32 bits).
bool parseIp6(std::string_view text, uint64_t& hi, uint64_t& lo) {
   std::array<uint16_t, 8> groups{};
   int count = 0;   // groups written so far
   int gapAt = -1;  // group index where "::" stands
   size_t pos = 0;
   if (text.substr(0, 2) == "::") {
      gapAt = 0;
      pos = 2;
   } else if (!text.empty() && text[0] == ':') {
      return false;
   }
   while (pos < text.size()) {
      // One group, or the trailing dotted quad.
      size_t start = pos;
      while (pos < text.size() && isHex(text[pos])) {
         ++pos;
      }
      if (pos < text.size() && text[pos] == '.') {
         uint32_t v4;
         if (count > 6 || !parseDottedQuad(text.substr(start), v4)) {
            return false;
         }
         groups[size_t(count++)] = uint16_t(v4 >> 16);
         groups[size_t(count++)] = uint16_t(v4 & 0xFFFF);
         pos = text.size();
         break;
      }
      size_t digits = pos - start;
      if (digits == 0 || digits > 4 || count >= 8) {
         return false;
      }
      uint16_t g = 0;
      for (size_t i = start; i < pos; ++i) {
         g = uint16_t((g << 4) | hexValue(text[i]));
      }
      groups[size_t(count++)] = g;
      if (pos == text.size()) {
         break;
      }
      // A separator: ':' or '::'.
      if (text[pos] != ':') {
         return false;
      }
      ++pos;
      if (pos < text.size() && text[pos] == ':') {
         if (gapAt >= 0) {
            return false;
         }
         gapAt = count;
         ++pos;
         if (pos < text.size() && text[pos] == ':') {
            return false;
         }
      } else if (pos == text.size()) {
         return false;  // a single trailing ':'
      }
   }
   if (gapAt >= 0) {
      // "::" stands for at least one zero group.
      if (count > 7) {
         return false;
      }
      int shift = 8 - count;
      for (int i = count - 1; i >= gapAt; --i) {
         groups[size_t(i + shift)] = groups[size_t(i)];
      }
      for (int i = gapAt; i < gapAt + shift; ++i) {
         groups[size_t(i)] = 0;
      }
   } else if (count != 8) {
      return false;
   }
   hi = lo = 0;
   for (int i = 0; i < 4; ++i) {
      hi = (hi << 16) | groups[size_t(i)];
      lo = (lo << 16) | groups[size_t(i + 4)];
   }
   return true;
}

std::string_view takeAddressText(Zop::TextCursor& c) {
   return c.takeWhile([](char ch) { return isHex(ch) || ch == ':' || ch == '.'; });
}

uint32_t parseLength(Zop::TextCursor& c, uint32_t maxLength) {
   c.expect("/", "prefix");
   uint64_t len = c.unsignedNumber("prefix length", Prefix::kUnsetLength);
   if (len > maxLength && len != Prefix::kUnsetLength) {
      throw Zop::ParseError("prefix length", "length " + std::to_string(len) + " beyond " +
                                                 std::to_string(maxLength));
   }
   return uint32_t(len);
}

// ---- Text ----
// Addresses and prefixes are written into a buffer of the caller's, without
// formatting functions: traces write one or two for nearly every route.

constexpr size_t kIpAddrText = 15;       // 255.255.255.255
constexpr size_t kPrefixText = 15 + 11;  // and a length: any uint32_t, /4294967295 at most
constexpr size_t kIp6AddrText = 45;      // ffff:...:ffff, or ::ffff: and a dotted quad
constexpr size_t kIp6PrefixText = 45 + 11;

char* decimal(char* out, unsigned v) {
   char digits[10];
   int n = 0;
   do {
      digits[n++] = char('0' + v % 10);
      v /= 10;
   } while (v != 0);
   while (n > 0) {
      *out++ = digits[--n];
   }
   return out;
}

char* hex(char* out, unsigned v) {
   static constexpr char kDigits[] = "0123456789abcdef";
   int shift = 12;
   while (shift > 0 && (v >> shift) == 0) {
      shift -= 4;
   }
   for (; shift >= 0; shift -= 4) {
      *out++ = kDigits[(v >> shift) & 0xF];
   }
   return out;
}

char* formattedTo(char* out, IpAddr a) {
   const uint32_t v = a.value();
   for (int shift = 24; shift >= 0; shift -= 8) {
      out = decimal(out, (v >> shift) & 0xFF);
      if (shift != 0) {
         *out++ = '.';
      }
   }
   return out;
}

char* formattedTo(char* out, const Ip6Addr& a) {
   // IPv4-mapped addresses keep the dotted quad (::ffff:a.b.c.d).
   if (a.hi() == 0 && (a.lo() >> 32) == 0xFFFF) {
      for (char c : std::string_view("::ffff:")) {
         *out++ = c;
      }
      return formattedTo(out, IpAddr(uint32_t(a.lo())));
   }
   // The longest run of two or more zero groups becomes "::" (the first such
   // run on a tie).
   int bestStart = -1, bestLen = 1;
   for (int i = 0; i < 8;) {
      if (a.group(i) != 0) {
         ++i;
         continue;
      }
      int j = i;
      while (j < 8 && a.group(j) == 0) {
         ++j;
      }
      if (j - i > bestLen) {
         bestStart = i;
         bestLen = j - i;
      }
      i = j;
   }
   char* const begin = out;
   for (int i = 0; i < 8; ++i) {
      if (i == bestStart) {
         *out++ = ':';
         *out++ = ':';
         i += bestLen - 1;
         continue;
      }
      if (out != begin && out[-1] != ':') {
         *out++ = ':';
      }
      out = hex(out, unsigned(a.group(i)));
   }
   return out;
}

template <class P>
char* prefixTo(char* out, const P& p) {
   out = formattedTo(out, p.addr());
   *out++ = '/';
   return decimal(out, p.len());
}

// The length of the text written at buf.
size_t formatted(char* buf, IpAddr a) {
   return size_t(formattedTo(buf, a) - buf);
}
size_t formatted(char* buf, const Ip6Addr& a) {
   return size_t(formattedTo(buf, a) - buf);
}
size_t formatted(char* buf, const Prefix& p) {
   return size_t(prefixTo(buf, p) - buf);
}
size_t formatted(char* buf, const Ip6Prefix& p) {
   return size_t(prefixTo(buf, p) - buf);
}

}  // namespace

// ---- IpAddr ----

IpAddr::IpAddr(Zop::TextCursor& c) {
   std::string_view text = c.takeWhile([](char ch) { return isDigit(ch) || ch == '.'; });
   if (!parseDottedQuad(text, value_)) {
      throw Zop::ParseError("address", "malformed IPv4 address '" + Zop::String(text) + "'");
   }
}

bool IpAddr::isUnicast() const {
   return value_ != 0 && !isMulticast() && value_ != 0xFFFFFFFF;
}

Zop::String valueToStrep(IpAddr a) {
   char buf[kIpAddrText];
   return Zop::String(buf, formatted(buf, a));
}

// ---- Ip6Addr ----

Ip6Addr::Ip6Addr(Zop::TextCursor& c) {
   std::string_view text = takeAddressText(c);
   if (!parseIp6(text, hi_, lo_)) {
      throw Zop::ParseError("address", "malformed IPv6 address '" + Zop::String(text) + "'");
   }
}

uint16_t Ip6Addr::group(int i) const {
   uint64_t word = i < 4 ? hi_ : lo_;
   return uint16_t(word >> (16 * (3 - (i & 3))));
}

bool Ip6Addr::isUnicast() const {
   return (hi_ != 0 || lo_ != 0) && !isMulticast();
}

Zop::String valueToStrep(const Ip6Addr& a) {
   char buf[kIp6AddrText];
   return Zop::String(buf, formatted(buf, a));
}

// ---- Prefix ----

Prefix::Prefix(Zop::TextCursor& c) : addr_(c), len_(parseLength(c, kMaxLength)) {}

bool Prefix::validAsPrefix() const {
   return len_ <= kMaxLength && (addr_.value() & ~mask32(len_)) == 0;
}

Prefix Prefix::masked() const {
   return Prefix(IpAddr(addr_.value() & mask32(len_)), len_);
}

bool Prefix::overlaps(const Prefix& other) const {
   uint32_t shorter = len_ < other.len_ ? len_ : other.len_;
   return ((addr_.value() ^ other.addr_.value()) & mask32(shorter)) == 0;
}

bool Prefix::contains(const Prefix& other) const {
   return len_ <= other.len_ && len_ <= kMaxLength &&
          ((addr_.value() ^ other.addr_.value()) & mask32(len_)) == 0;
}

Zop::String valueToStrep(const Prefix& p) {
   char buf[kPrefixText];
   return Zop::String(buf, formatted(buf, p));
}

// ---- Ip6Prefix ----

Ip6Prefix::Ip6Prefix(Zop::TextCursor& c) : addr_(c), len_(parseLength(c, kMaxLength)) {}

bool Ip6Prefix::validAsPrefix() const {
   if (len_ > kMaxLength) {
      return false;
   }
   uint64_t hiMask = mask64(len_);
   uint64_t loMask = len_ > 64 ? mask64(len_ - 64) : 0;
   return (addr_.hi() & ~hiMask) == 0 && (addr_.lo() & ~loMask) == 0;
}

Ip6Prefix Ip6Prefix::masked() const {
   uint64_t hiMask = mask64(len_);
   uint64_t loMask = len_ > 64 ? mask64(len_ - 64) : 0;
   return Ip6Prefix(Ip6Addr(addr_.hi() & hiMask, addr_.lo() & loMask), len_);
}

namespace {
bool agree128(const Ip6Addr& a, const Ip6Addr& b, uint32_t len) {
   uint64_t hiMask = mask64(len);
   uint64_t loMask = len > 64 ? mask64(len - 64) : 0;
   return ((a.hi() ^ b.hi()) & hiMask) == 0 && ((a.lo() ^ b.lo()) & loMask) == 0;
}
}  // namespace

bool Ip6Prefix::overlaps(const Ip6Prefix& other) const {
   return agree128(addr_, other.addr_, len_ < other.len_ ? len_ : other.len_);
}

bool Ip6Prefix::contains(const Ip6Prefix& other) const {
   return len_ <= other.len_ && len_ <= kMaxLength && agree128(addr_, other.addr_, len_);
}

Zop::String valueToStrep(const Ip6Prefix& p) {
   char buf[kIp6PrefixText];
   return Zop::String(buf, formatted(buf, p));
}

// ---- IpGenPrefix ----

IpGenPrefix::IpGenPrefix(Zop::TextCursor& c) {
   if (c.consume("none")) {
      return;
   }
   // The family shows in the address text: IPv6 always has a ':'.
   Zop::TextCursor probe = c;
   std::string_view text = takeAddressText(probe);
   if (text.find(':') != std::string_view::npos) {
      *this = IpGenPrefix(Ip6Prefix(c));
   } else {
      *this = IpGenPrefix(Prefix(c));
   }
}

uint32_t IpGenPrefix::maxLength() const {
   return isIpv4() ? Prefix::kMaxLength : isIpv6() ? Ip6Prefix::kMaxLength : 0;
}

bool IpGenPrefix::validAsPrefix() const {
   return isIpv4() ? v4().validAsPrefix() : isIpv6() ? v6().validAsPrefix() : false;
}

bool IpGenPrefix::overlaps(const IpGenPrefix& other) const {
   if (af_ != other.af_ || empty()) {
      return false;
   }
   return isIpv4() ? v4().overlaps(other.v4()) : v6().overlaps(other.v6());
}

bool IpGenPrefix::contains(const IpGenPrefix& other) const {
   if (af_ != other.af_ || empty()) {
      return false;
   }
   return isIpv4() ? v4().contains(other.v4()) : v6().contains(other.v6());
}

Zop::String valueToStrep(const IpGenPrefix& p) {
   return p.isIpv4() ? valueToStrep(p.v4()) : p.isIpv6() ? valueToStrep(p.v6()) : "none";
}

Zop::String valueToStrep(AddressFamily af) {
   switch (af) {
      case AddressFamily::ipv4:
         return "ipv4";
      case AddressFamily::ipv6:
         return "ipv6";
      case AddressFamily::ipunknown:
         break;
   }
   return "ipunknown";
}

std::ostream& operator<<(std::ostream& os, AddressFamily af) {
   return os << valueToStrep(af);
}
// Through a string_view, so that a width set on the stream applies as to a
// string.
std::ostream& operator<<(std::ostream& os, IpAddr a) {
   char buf[kIpAddrText];
   return os << std::string_view(buf, formatted(buf, a));
}
std::ostream& operator<<(std::ostream& os, const Ip6Addr& a) {
   char buf[kIp6AddrText];
   return os << std::string_view(buf, formatted(buf, a));
}
std::ostream& operator<<(std::ostream& os, const Prefix& p) {
   char buf[kPrefixText];
   return os << std::string_view(buf, formatted(buf, p));
}
std::ostream& operator<<(std::ostream& os, const Ip6Prefix& p) {
   char buf[kIp6PrefixText];
   return os << std::string_view(buf, formatted(buf, p));
}
std::ostream& operator<<(std::ostream& os, const IpGenPrefix& p) {
   if (p.isIpv4()) {
      return os << p.v4();
   }
   return p.isIpv6() ? os << p.v6() : os << "none";
}

namespace {

// Formats into a buffer of N characters on the stack, then appends.
template <size_t N, class T>
void appendFormatted(Zop::String& out, const T& v) {
   char buf[N];
   out.append(buf, formatted(buf, v));
}

}  // namespace

void appendTraceText(Zop::String& out, IpAddr a) {
   appendFormatted<kIpAddrText>(out, a);
}
void appendTraceText(Zop::String& out, const Ip6Addr& a) {
   appendFormatted<kIp6AddrText>(out, a);
}
void appendTraceText(Zop::String& out, const Prefix& p) {
   appendFormatted<kPrefixText>(out, p);
}
void appendTraceText(Zop::String& out, const Ip6Prefix& p) {
   appendFormatted<kIp6PrefixText>(out, p);
}
void appendTraceText(Zop::String& out, const IpGenPrefix& p) {
   if (p.isIpv4()) {
      appendTraceText(out, p.v4());
   } else if (p.isIpv6()) {
      appendTraceText(out, p.v6());
   } else {
      out.append("none");
   }
}

}  // namespace Pexo
