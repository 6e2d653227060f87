// Fuzzes the address and prefix parsers. Besides the round trip, the parsers
// must agree with each other: the family-generic prefix accepts exactly what
// one of the two family prefixes accepts, with the same value, and an address
// is accepted exactly when it makes a host prefix.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "Pexo/Prefix.h"
#include "Zop/Error.h"
#include "Zop/TextCursor.h"
#include "fuzz/RoundTrip.h"

using namespace Pexo;

namespace {

using fuzzcheck::mustParse;
using fuzzcheck::roundTrip;
using fuzzcheck::tryParse;

// The groups of one side of "::" (none for an empty side).
std::vector<std::string_view> split(std::string_view side) {
   std::vector<std::string_view> groups;
   for (size_t pos = 0; !side.empty() && pos <= side.size();) {
      size_t end = std::min(side.find(':', pos), side.size());
      groups.push_back(side.substr(pos, end - pos));
      pos = end + 1;
   }
   return groups;
}

// Whether some run of zero groups is at least (or, when `strict`, longer
// than) `len` groups.
bool zeroRunReaches(const std::vector<std::string_view>& groups, int len, bool strict) {
   int run = 0;
   for (std::string_view g : groups) {
      run = g == "0" ? run + 1 : 0;
      if (run >= 2 && (strict ? run > len : run >= len)) {
         return true;
      }
   }
   return false;
}

// The canonical IPv6 text, judged on its own: lower case, no leading zeros,
// "::" only for the longest run of two or more zero groups (the first on a
// tie), and the dotted quad only for IPv4-mapped addresses.
bool canonicalIp6(const Ip6Addr& a, std::string_view text) {
   bool mapped = a.hi() == 0 && (a.lo() >> 32) == 0xFFFF;
   if (mapped || text.find('.') != std::string_view::npos) {
      return mapped && text == "::ffff:" + valueToStrep(IpAddr(uint32_t(a.lo())));
   }
   if (text.find_first_not_of("0123456789abcdef:") != std::string_view::npos) {
      return false;
   }
   size_t gap = text.find("::");
   bool hasGap = gap != std::string_view::npos;
   auto left = split(text.substr(0, gap));
   auto right = split(hasGap ? text.substr(gap + 2) : std::string_view());
   for (const auto* side : {&left, &right}) {
      for (std::string_view g : *side) {
         if (g.empty() || g.size() > 4 || (g.size() > 1 && g[0] == '0')) {
            return false;
         }
      }
   }
   int compressed = 8 - int(left.size() + right.size());
   if (!hasGap) {
      return compressed == 0 && !zeroRunReaches(left, 2, false);
   }
   // The gap takes in every adjacent zero group, and no written run beats it
   // (nor ties it before it).
   return compressed >= 2 && (left.empty() || left.back() != "0") &&
          (right.empty() || right.front() != "0") && !zeroRunReaches(left, compressed, false) &&
          !zeroRunReaches(right, compressed, true);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
   std::string_view text(reinterpret_cast<const char*>(data), size);
   auto gen = roundTrip<IpGenPrefix>(text);
   auto v4 = roundTrip<Prefix>(text);
   auto v6 = roundTrip<Ip6Prefix>(text);
   if (v4 && v6) {
      __builtin_trap();
   }
   if (gen.has_value() != (v4 || v6 || text == "none")) {
      __builtin_trap();
   }
   if ((v4 && *gen != IpGenPrefix(*v4)) || (v6 && *gen != IpGenPrefix(*v6))) {
      __builtin_trap();
   }
   if (gen && gen->isNullPrefix() && gen->validAsPrefix()) {
      __builtin_trap();  // neither "none" nor the unset length is a valid prefix
   }

   if ((v4 && v4->len() > Prefix::kMaxLength && !v4->isUnset()) ||
       (v6 && v6->len() > Ip6Prefix::kMaxLength && !v6->isNullPrefix())) {
      __builtin_trap();
   }

   auto a4 = roundTrip<IpAddr>(text);
   auto a6 = roundTrip<Ip6Addr>(text);
   std::string host4 = std::string(text) + "/32", host6 = std::string(text) + "/128";
   auto p4 = tryParse<Prefix>(host4);
   auto p6 = tryParse<Ip6Prefix>(host6);
   if (a4.has_value() != p4.has_value() || (a4 && (p4->addr() != *a4 || !p4->isHost()))) {
      __builtin_trap();
   }
   if (a6 && !canonicalIp6(*a6, valueToStrep(*a6))) {
      __builtin_trap();
   }
   if (v6 && !canonicalIp6(v6->addr(), valueToStrep(v6->addr()))) {
      __builtin_trap();
   }
   if (a6.has_value() != p6.has_value() || (a6 && (p6->addr() != *a6 || !p6->isHost()))) {
      __builtin_trap();
   }
   return 0;
}
