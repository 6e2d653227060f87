// The address library: text forms (round trip of every value type, canonical
// IPv6, rejection of malformed text, the record layout of the keys), the set
// semantics and ordering of prefixes, and the VRF name limit.

#include <gtest/gtest.h>

#include <cctype>
#include <cstdio>
#include <functional>
#include <iomanip>
#include <random>
#include <sstream>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#include "Pexo/VrfId.h"
#include "Pexo/VrfName.h"

using namespace Pexo;

namespace {

// ---- Random values, skewed to what the text forms treat specially ----

using Rng = std::mt19937_64;
uint64_t below(Rng& rng, uint64_t n) {
   return std::uniform_int_distribution<uint64_t>(0, n - 1)(rng);
}
Ip6Addr randIp6(Rng& rng) {
   if (below(rng, 10) == 0) {  // IPv4-mapped
      return Ip6Addr(0, (uint64_t(0xFFFF) << 32) | uint32_t(rng()));
   }
   // Groups of one to four digits, scattered zeros and one zero run.
   size_t start = below(rng, 8), end = start + below(rng, 9 - start);
   uint64_t words[2] = {0, 0};
   for (size_t i = 0; i < 8; ++i) {
      bool zero = (i >= start && i < end) || below(rng, 4) == 0;
      words[i / 4] = (words[i / 4] << 16) | (zero ? 0 : rng() >> (48 + 4 * below(rng, 4)));
   }
   return Ip6Addr(words[0], words[1]);
}
IpAddr randIp4(Rng& rng) {  // now and then 0.0.0.0 or 255.255.255.255
   return IpAddr(below(rng, 8) == 0 ? 0u - uint32_t(below(rng, 2)) : uint32_t(rng()));
}
uint32_t randLength(Rng& rng, uint32_t max) {  // now and then the unset marker
   return below(rng, 20) == 0 ? Prefix::kUnsetLength : uint32_t(below(rng, max + 1));
}
Prefix randPrefix(Rng& rng) {
   return Prefix(randIp4(rng), randLength(rng, 32));
}
Ip6Prefix randIp6Prefix(Rng& rng) {
   return Ip6Prefix(randIp6(rng), randLength(rng, 128));
}
IpGenPrefix randGen(Rng& rng) {
   uint64_t pick = below(rng, 10);
   return pick == 0 ? IpGenPrefix() : pick <= 4 ? IpGenPrefix(randPrefix(rng)) : randIp6Prefix(rng);
}
VrfId randVrf(Rng& rng) {
   return VrfId(below(rng, 4) == 0 ? 0u - uint32_t(below(rng, 3)) : uint32_t(rng()));
}

template <class T>
void expectRoundTrip(const T& v) {
   Zop::String text = valueToStrep(v);
   T back = Zop::strepToValue<T>(text);
   ASSERT_EQ(back, v) << text;
   EXPECT_EQ(valueToStrep(back), text);
   // Streamed, the same text, padded to a width like a string.
   std::ostringstream os;
   os << v << '|' << std::setw(50) << std::left << v << '|';
   EXPECT_EQ(os.str(),
             text + "|" + text + Zop::String(50 - std::min<size_t>(50, text.size()), ' ') + "|");
   if constexpr (std::is_default_constructible_v<std::hash<T>>) {
      EXPECT_EQ(std::hash<T>()(back), std::hash<T>()(v)) << text;
   }
}

template <class T>
bool accepts(std::string_view text) {
   try {
      Zop::strepToValue<T>(text);
      return true;
   } catch (const Zop::ParseError&) {
      return false;
   }
}

// Another legal spelling of `a`: either case, padded or not, any one zero run
// (even a single group) compressed or none, the last 32 bits maybe dotted.
std::string spell(const Ip6Addr& a, Rng& rng) {
   bool upper = below(rng, 2), pad = below(rng, 2), quad = below(rng, 3) == 0;
   int n = quad ? 6 : 8, gap = int(below(rng, n)), gapEnd = gap;
   while (gapEnd < n && a.group(gapEnd) == 0 && below(rng, 4) != 0) {
      ++gapEnd;
   }
   std::string out;
   auto add = [&](const std::string& s) {
      out += (out.empty() || out.back() == ':' ? "" : ":") + s;
   };
   for (int i = 0; i < n; ++i) {
      char buf[8];
      std::snprintf(buf, sizeof buf, upper ? (pad ? "%04X" : "%X") : (pad ? "%04x" : "%x"),
                    unsigned(a.group(i)));
      if (i < gap || i >= gapEnd) {
         add(buf);
      } else if (i == gap) {
         out += "::";
      }
   }
   if (quad) {
      add(valueToStrep(IpAddr(uint32_t(a.lo()))));
   }
   return out;
}

}  // namespace

TEST(PexoText, RandomValuesRoundTripAndEverySpellingParses) {
   Rng rng(1);
   for (int i = 0; i < 3000 && !::testing::Test::HasFatalFailure(); ++i) {
      expectRoundTrip(randIp4(rng));
      expectRoundTrip(randPrefix(rng));
      expectRoundTrip(randIp6Prefix(rng));
      expectRoundTrip(randGen(rng));
      expectRoundTrip(randVrf(rng));
      expectRoundTrip(SegmentHwId(uint16_t(rng() >> (below(rng, 2) ? 48 : 63))));
      expectRoundTrip(VrfAndIpGenPrefix(randVrf(rng), randGen(rng)));
      expectRoundTrip(VrfAndPrefix(randVrf(rng), randPrefix(rng)));
      expectRoundTrip(VrfAndIp6Prefix(randVrf(rng), randIp6Prefix(rng)));
      std::string name(below(rng, L3::VrfName::maxLength + 1), '\0');
      for (char& ch : name) {
         ch = char(rng());
      }
      expectRoundTrip(L3::VrfName(name));
      Ip6Addr a = randIp6(rng);
      expectRoundTrip(a);
      std::string text = spell(a, rng) + "/" + std::to_string(below(rng, 129));
      Ip6Prefix p = Zop::strepToValue<Ip6Prefix>(text);
      ASSERT_EQ(p.addr(), a) << text;
      ASSERT_EQ(Zop::strepToValue<IpGenPrefix>(text), IpGenPrefix(p)) << text;
   }
   expectRoundTrip(SegmentHwId());
   // Ids are decimal unless the stream is set to another base.
   std::ostringstream based;
   based << std::hex << VrfId(255) << ' ' << SegmentHwId(4095) << std::dec << ' ' << VrfId(255);
   EXPECT_EQ(based.str(), "ff fff 255");
   EXPECT_EQ(valueToStrep(IpGenPrefix()), "none");
   EXPECT_EQ(valueToStrep(VrfAndIpGenPrefix(VrfId(1), Prefix(IpAddr(0x0A010000), 16))),
             "Value('Pexo::VrfAndIpGenPrefix', ** {'vrfId': 1, 'prefix': 10.1.0.0/16})");
}

TEST(PexoText, CanonicalIpv6Forms) {
   const std::pair<const char*, const char*> table[] = {
       {"2001:0DB8:0000:0000:0000:0000:0000:0001", "2001:db8::1"},
       {"2001:db8::1:1:1:1:1", "2001:db8:0:1:1:1:1:1"},  // one zero group stays
       {"2001:0:0:1:0:0:0:1", "2001:0:0:1::1"},          // the longest run wins
       {"2001:db8:0:0:1:0:0:1", "2001:db8::1:0:0:1"},    // the first of equal runs
       {"0:0:0:0:0:0:0:0", "::"},
       {"0:0:0:0:0:0:0:1", "::1"},
       {"1:0:0:0:0:0:0:0", "1::"},
       {"1:2:3:4:5:6:7::", "1:2:3:4:5:6:7:0"},
       {"FE80::0001", "fe80::1"},
       {"::FFFF:0102:0304", "::ffff:1.2.3.4"},
       {"0:0:0:0:0:ffff:255.255.255.255", "::ffff:255.255.255.255"},
       {"::1.2.3.4", "::102:304"},  // only mapped addresses keep the dotted quad
   };
   for (auto [in, canonical] : table) {
      EXPECT_EQ(valueToStrep(Zop::strepToValue<Ip6Addr>(in)), canonical) << in;
   }
   EXPECT_EQ(Zop::strepToValue<Ip6Addr>("2001:db8::1"), Ip6Addr(0x20010DB800000000, 1));
   EXPECT_EQ(Zop::strepToValue<Ip6Addr>("::ffff:1.2.3.4"), Ip6Addr(0, 0xFFFF01020304));
   EXPECT_EQ(Zop::strepToValue<IpAddr>("10.1.255.0"), IpAddr(0x0A01FF00));
}

TEST(PexoText, MalformedTextIsRejected) {
   for (const char* t : {":::", "1::2::3", "12345::", ":1::", "1::2:", ":", "", "1:2:3:4:5:6:7",
                         "1:2:3:4:5:6:7:8:9", "1:2:3:4::5:6:7:8", "g::", "::1 ", " ::1", "::1x"}) {
      EXPECT_FALSE(accepts<Ip6Addr>(t)) << t;
   }
   for (const char* t :
        {"::ffff:1.2.3", "::01.2.3.4", "1:2:3:4:5:6:7:1.2.3.4", "::1.2.3.4:5", "1.2.3.4"}) {
      EXPECT_FALSE(accepts<Ip6Addr>(t)) << t;
   }
   EXPECT_FALSE(accepts<Ip6Addr>(std::string_view("::1\0", 4)));
   for (const char* t : {"1.2.3.4.5/8", "10.1.0.0/33", "01.2.3.4/8", "10.1.0.0 /16", "10.1.0.0/",
                         "10.1.0.0/016", "10.1.0.0/16x", "1.2.3/8", "10.1.0.0", "10.1.0.0/-1", "",
                         "10.1.0.0/4294967296", "1.2.3.256/32", "::/129", "::", "::/1 ", "None"}) {
      EXPECT_FALSE(accepts<IpGenPrefix>(t)) << t;
      EXPECT_FALSE(accepts<Prefix>(t) || accepts<Ip6Prefix>(t)) << t;
   }
   for (const char* t : {"4294967296", "-1", "01", "", " 1", "0x1"}) {
      EXPECT_FALSE(accepts<VrfId>(t)) << t;
   }
   EXPECT_FALSE(accepts<SegmentHwId>("65536"));
}

TEST(PexoSemantics, HostValidityOverlapsContains) {
   for (const char* t : {"10.1.0.0/16", "0.0.0.0/0", "1.2.3.4/32", "::/0", "::1/128",
                         "2001:db8:0:1::/64", "2001:db8::8000:0:0:0/65"}) {
      IpGenPrefix p = Zop::strepToValue<IpGenPrefix>(t);
      EXPECT_TRUE(p.validAsPrefix()) << t;
      EXPECT_EQ(p.isHost(), p.len() == 32 || p.len() == 128) << t;
   }
   for (const char* t : {"10.1.2.0/16", "10.1.2.3/24", "128.0.0.0/0", "2001:db8::1/64",
                         "2001:db8::8000:0:0:0/64", "2001:db8::4000:0:0:0/65", "none"}) {
      EXPECT_FALSE(Zop::strepToValue<IpGenPrefix>(t).validAsPrefix()) << t;
   }
   struct Row {
      const char *a, *b;
      bool overlap, aHasB, bHasA;
   } const table[] = {
       {"10.0.0.0/8", "10.1.0.0/16", true, true, false},
       {"10.1.0.0/16", "10.2.0.0/16", false, false, false},
       {"10.1.2.3/16", "10.1.0.0/16", true, true, true},  // host bits do not matter
       {"0.0.0.0/0", "255.255.255.255/32", true, true, false},
       {"0.0.0.0/0", "::/0", false, false, false},
       {"2001:db8::/32", "2001:db8:1::/48", true, true, false},
       {"2001:db8::/65", "2001:db8::8000:0:0:0/65", false, false, false},
       {"::/0", "::ffff:1.2.3.4/128", true, true, false},
       {"none", "none", false, false, false},
   };
   for (const Row& r : table) {
      IpGenPrefix a = Zop::strepToValue<IpGenPrefix>(r.a), b = Zop::strepToValue<IpGenPrefix>(r.b);
      EXPECT_EQ(a.overlaps(b), r.overlap) << r.a << " " << r.b;
      EXPECT_EQ(b.overlaps(a), r.overlap) << r.a << " " << r.b;
      EXPECT_EQ(a.contains(b), r.aHasB) << r.a << " " << r.b;
      EXPECT_EQ(b.contains(a), r.bHasA) << r.a << " " << r.b;
   }
   // Against a bit-by-bit reference, on prefixes around one address per family
   // so that containment is common.
   auto bit = [](const IpGenPrefix& p, uint32_t i) {
      uint64_t word = p.isIpv4() ? uint64_t(p.v4().addr().value()) << 32
                      : i < 64   ? p.v6().addr().hi()
                                 : p.v6().addr().lo();
      return (word >> (63 - i % 64)) & 1;
   };
   auto agree = [&](const IpGenPrefix& a, const IpGenPrefix& b, uint32_t n) {
      for (uint32_t i = 0; i < n; ++i) {
         if (bit(a, i) != bit(b, i)) {
            return false;
         }
      }
      return true;
   };
   Rng rng(3);
   auto near = [&]() -> IpGenPrefix {
      uint64_t flip = below(rng, 3) ? 0 : uint64_t(1) << below(rng, 64), low = below(rng, 2);
      return below(rng, 2)
                 ? IpGenPrefix(Prefix(IpAddr(0x0A010000 ^ uint32_t(flip >> 32 * low)), 0))
                 : IpGenPrefix(Ip6Prefix(
                       Ip6Addr(0x20010DB800000000 ^ (low ? 0 : flip), low ? flip : 0), 0));
   };
   for (int i = 0; i < 20000; ++i) {
      IpGenPrefix a = near(), b = near();
      a = a.isIpv4() ? IpGenPrefix(Prefix(a.v4().addr(), uint32_t(below(rng, 33))).masked())
                     : IpGenPrefix(Ip6Prefix(a.v6().addr(), uint32_t(below(rng, 129))).masked());
      b = b.isIpv4() ? IpGenPrefix(Prefix(b.v4().addr(), uint32_t(below(rng, 33))))
                     : IpGenPrefix(Ip6Prefix(b.v6().addr(), uint32_t(below(rng, 129))));
      bool same = a.af() == b.af();
      ASSERT_EQ(a.contains(b), same && a.len() <= b.len() && agree(a, b, a.len())) << a << " " << b;
      ASSERT_EQ(a.overlaps(b), same && agree(a, b, std::min(a.len(), b.len()))) << a << " " << b;
   }
}

TEST(PexoSemantics, Unicast) {
   for (const char* t : {"0.0.0.0", "224.0.0.0", "239.255.255.255", "255.255.255.255"}) {
      EXPECT_FALSE(Zop::strepToValue<IpAddr>(t).isUnicast()) << t;
   }
   for (const char* t : {"0.0.0.1", "223.255.255.255", "240.0.0.0", "255.255.255.254"}) {
      EXPECT_TRUE(Zop::strepToValue<IpAddr>(t).isUnicast()) << t;
   }
   for (const char* t : {"::", "ff00::", "ff02::1", "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"}) {
      EXPECT_FALSE(Zop::strepToValue<Ip6Addr>(t).isUnicast()) << t;
   }
   for (const char* t : {"::1", "fe80::1", "feff::", "::ffff:224.0.0.1"}) {
      EXPECT_TRUE(Zop::strepToValue<Ip6Addr>(t).isUnicast()) << t;
   }
   Rng rng(4);
   for (int i = 0; i < 1000; ++i) {
      ASSERT_FALSE(IpAddr(0xE0000000 | uint32_t(below(rng, 1u << 28))).isUnicast());
      ASSERT_FALSE(Ip6Addr((0xFFull << 56) | below(rng, 1ull << 56), rng()).isUnicast());
   }
}

TEST(PexoSemantics, OrderIsFamilyThenAddressThenLengthAndStrictWeak) {
   Rng rng(5);
   std::vector<IpGenPrefix> values{IpGenPrefix()};
   while (values.size() < 150) {
      IpGenPrefix p = randGen(rng);
      values.push_back(p);
      if (!p.empty() && p.len() < p.maxLength()) {  // same address, other length
         values.push_back(p.isIpv4() ? IpGenPrefix(Prefix(p.v4().addr(), p.len() + 1))
                                     : IpGenPrefix(Ip6Prefix(p.v6().addr(), p.len() + 1)));
      }
   }
   auto key = [](const IpGenPrefix& p) {
      return p.isIpv4()   ? std::tuple(1, uint64_t(p.v4().addr().value()), uint64_t(0), p.len())
             : p.isIpv6() ? std::tuple(2, p.v6().addr().hi(), p.v6().addr().lo(), p.len())
                          : std::tuple(0, uint64_t(0), uint64_t(0), 0u);
   };
   for (const auto& a : values) {
      for (const auto& b : values) {
         ASSERT_EQ(a < b, key(a) < key(b)) << a << " " << b;
         ASSERT_EQ(a == b, key(a) == key(b)) << a << " " << b;
         if (a.af() == b.af() && !a.empty()) {  // the family types order alike
            ASSERT_EQ(a.isIpv4() ? a.v4() < b.v4() : a.v6() < b.v6(), a < b) << a << " " << b;
         }
         for (const auto& c : values) {
            ASSERT_FALSE(a < b && b < c && !(a < c)) << a << " " << b << " " << c;
         }
      }
   }
}

namespace {

// Parses `text`, which must be rejected, and returns the record field the
// error names. The prefix parsers name their own parts ("address", "prefix
// length"); inside a key these all belong to the prefix.
template <class K>
std::string failingField(const std::string& text) {
   try {
      Zop::strepToValue<K>(text);
   } catch (const Zop::ParseError& e) {
      return e.field() == "address" || e.field() == "prefix length" ? "prefix" : e.field();
   }
   return "<accepted>";
}

// Mutates the record text of `key` in one blank, one punctuation mark or one
// key name. Each mutant must be rejected, naming the field at the mutation:
// "value" up to the type name, "vrfId" from there through the id's digits,
// "prefix" from there through the prefix, "value" for the closing "})".
template <class K>
void checkMutants(const K& key) {
   const std::string text = valueToStrep(key), type = K::typeName();
   SCOPED_TRACE(text);
   ASSERT_EQ(Zop::strepToValue<K>(text), key);
   const size_t typeEnd = text.find(type) + type.size(), idEnd = text.find(", 'prefix'");
   const size_t valueStart = idEnd + 12, prefixEnd = text.size() - 2;
   auto fieldAt = [&](size_t pos) -> std::string {
      return pos < typeEnd ? "value" : pos < idEnd ? "vrfId" : pos < prefixEnd ? "prefix" : "value";
   };
   auto expectField = [&](const std::string& mutant, const std::string& field) {
      EXPECT_EQ(failingField<K>(mutant), field) << "mutant: " << mutant;
   };
   auto word = [&](size_t i) { return i < text.size() && std::isalnum((unsigned char)text[i]); };
   for (size_t i = 0; i <= text.size(); ++i) {
      if (i == 0 || !word(i - 1) || !word(i)) {  // a blank between tokens
         expectField(text.substr(0, i) + " " + text.substr(i), fieldAt(i));
      }
      // Punctuation is dropped, doubled or replaced, except inside the prefix:
      // there a dropped ':' can spell another valid address.
      if (i == text.size() || word(i) || (i >= valueStart && i < prefixEnd)) {
         continue;
      }
      expectField(text.substr(0, i) + text.substr(i + 1), fieldAt(i));
      expectField(text.substr(0, i) + text[i] + text.substr(i), fieldAt(i));
      for (char other : std::string(" \t.:/,'\"{}()*;-")) {
         if (other != text[i]) {
            expectField(text.substr(0, i) + other + text.substr(i + 1), fieldAt(i));
         }
      }
   }
   auto replaced = [&](const std::string& from, const std::string& to) {
      return std::string(text).replace(text.find(from), from.size(), to);
   };
   for (const char* k : {"'vrfid'", "'VrfId'", "'vrf_id'", "'vrfIds'", "vrfId", "'prefix'"}) {
      expectField(replaced("'vrfId'", k), "vrfId");
   }
   for (const char* k : {"'Prefix'", "'prefx'", "'prefixes'", "prefix", "'vrfId'"}) {
      expectField(replaced("'prefix'", k), "prefix");
   }
   for (const char* t : {kVrfAndIpGenPrefixName, kVrfAndPrefixName, kVrfAndIp6PrefixName}) {
      if (t != type) {
         expectField(replaced(type, t), "value");
      }
   }
}

}  // namespace

TEST(PexoKeys, RecordTextDifferingInOneBlankPunctuationOrKeyIsRejected) {
   checkMutants(VrfAndIpGenPrefix(VrfId(7), Zop::strepToValue<IpGenPrefix>("10.1.0.0/16")));
   checkMutants(VrfAndIpGenPrefix(VrfId(4000000000), Zop::strepToValue<IpGenPrefix>("fe80::/10")));
   checkMutants(VrfAndIpGenPrefix(VrfId(0), IpGenPrefix()));
   checkMutants(VrfAndPrefix(VrfId(12), Zop::strepToValue<Prefix>("192.168.1.0/24")));
   checkMutants(VrfAndIp6Prefix(VrfId(3), Zop::strepToValue<Ip6Prefix>("::ffff:1.2.3.4/128")));
   // The prefix's family must match the key type.
   EXPECT_EQ(failingField<VrfAndPrefix>(
                 "Value('Pexo::VrfAndPrefix', ** {'vrfId': 1, 'prefix': 2001:db8::/32})"),
             "prefix");
   EXPECT_EQ(failingField<VrfAndIp6Prefix>(
                 "Value('Pexo::VrfAndIp6Prefix', ** {'vrfId': 1, 'prefix': 10.0.0.0/8})"),
             "prefix");
}

TEST(PexoKeys, VrfNameHoldsAtMostOneHundredBytes) {
   std::string longest(L3::VrfName::maxLength, 'v');
   EXPECT_EQ(Zop::strepToValue<L3::VrfName>(longest).value(), longest);
   for (auto make : {+[](const std::string& s) { return L3::VrfName(s); },
                     +[](const std::string& s) { return Zop::strepToValue<L3::VrfName>(s); }}) {
      try {
         make(longest + "v");
         ADD_FAILURE() << "101 bytes accepted";
      } catch (const Zop::RangeError& e) {
         EXPECT_STREQ(e.what(), "VrfName::value::bytes > VrfName::maxLength not allowed");
      }
   }
   // Bytes, not characters: 50 two-byte characters fit, 51 do not.
   std::string twoByte;
   for (int i = 0; i < 50; ++i) {
      twoByte += "\xc3\xa9";
   }
   EXPECT_NO_THROW(L3::VrfName{twoByte});
   EXPECT_THROW(L3::VrfName(twoByte + "\xc3\xa9"), Zop::RangeError);
}
