// A trace line appends most pieces itself instead of streaming them: random
// sequences of pieces (text, characters, integers of every width, booleans,
// floating point, addresses, prefixes and ids, values printed by their own
// operator<<, and manipulators that change the format for the rest of the
// line) must give exactly the text a std::ostream gives them.

#include <gtest/gtest.h>

#include <functional>
#include <iomanip>
#include <random>
#include <sstream>
#include <vector>

#include "Pexo/Prefix.h"
#include "Pexo/VrfId.h"
#include "Trace/Trace.h"

namespace {

struct Shouting {
   int n;
};
// A value whose printing leaves the stream's format changed.
std::ostream& operator<<(std::ostream& os, const Shouting& v) {
   return os << std::uppercase << std::hex << v.n;
}

// Each piece streams one value into whichever stream it is given.
using Piece = std::function<void(Trace::LineText&, std::ostream&)>;

template <class T>
Piece piece(T v) {
   return [v](Trace::LineText& line, std::ostream& os) {
      line << v;
      os << v;
   };
}

std::vector<Piece> pieces() {
   const Pexo::Prefix v4(Pexo::IpAddr(0x0A010200), 24);
   const Pexo::Ip6Prefix v6(Pexo::Ip6Addr(0x20010db800000000ULL, 0), 32);
   return {
       piece(" text "),
       piece(Zop::String("string")),
       piece(std::string_view("view")),
       piece('c'),
       piece(static_cast<signed char>('A')),
       piece(static_cast<unsigned char>('B')),
       piece(true),
       piece(false),
       piece(short(-12)),
       piece(-5),
       piece(4000000000u),
       piece(-1234567890123LL),
       piece(~uint64_t(0)),
       piece(uint16_t(65535)),
       piece(1.5),
       piece(0.125f),
       piece(Pexo::IpAddr(0xC0A80001)),
       piece(v4),
       piece(v6),
       piece(Pexo::IpGenPrefix(v4)),
       piece(Pexo::IpGenPrefix(v6)),
       piece(Pexo::IpGenPrefix()),
       piece(VrfId(7)),
       piece(SegmentHwId(513)),
       piece(Shouting{255}),
       [](Trace::LineText& line, std::ostream& os) {
          line << std::hex;
          os << std::hex;
       },
       [](Trace::LineText& line, std::ostream& os) {
          line << std::setw(6) << std::setfill('*');
          os << std::setw(6) << std::setfill('*');
       },
       [](Trace::LineText& line, std::ostream& os) {
          line << std::boolalpha;
          os << std::boolalpha;
       },
       [](Trace::LineText& line, std::ostream& os) {
          line << std::showpos;
          os << std::showpos;
       },
       [](Trace::LineText& line, std::ostream& os) {
          line << std::setprecision(2);
          os << std::setprecision(2);
       },
   };
}

TEST(TraceLine, PiecesAreWrittenAsAStreamWritesThem) {
   Trace::Duolog log(Trace::kDecisions, 1);
   Trace::ScopedDuolog guard(log);
   const std::vector<Piece> all = pieces();
   std::mt19937 rng(11);
   for (int round = 0; round < 3000; ++round) {
      const size_t n = 1 + rng() % 8;
      std::ostringstream expected;
      expected << "f";
      {
         Trace::LineWriter writer(Trace::kDecisions, "f");
         for (size_t i = 0; i < n; ++i) {
            // Manipulators and format-changing values come rarely, so most
            // lines stay on the direct path to their end.
            size_t k = rng() % all.size();
            if (k >= all.size() - 6 && rng() % 4 != 0) {
               k = rng() % (all.size() - 6);
            }
            all[k](writer.stream(), expected);
         }
         writer.write();
      }
      ASSERT_EQ(log.ringlog().texts().back(), expected.str()) << "round " << round;
   }
}

}  // namespace
