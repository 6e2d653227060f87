#pragma once
// Deterministic random prefixes for property tests: clustered under a few
// roots so that prefixes nest and share long common paths, with /0 and host
// routes in the mix.

#include <cstdint>
#include <random>

#include "Pexo/Prefix.h"

namespace KivTest {

class RandomPrefixes {
public:
   explicit RandomPrefixes(uint64_t seed) : rng_(seed) {}

   uint32_t below(uint32_t n) { return std::uniform_int_distribution<uint32_t>(0, n - 1)(rng_); }
   bool chance(uint32_t percent) { return below(100) < percent; }

   Pexo::Prefix v4() {
      static constexpr uint32_t kRoots[] = {0x0A000000, 0x0A010000, 0xC0A80000, 0xAC100000};
      uint32_t addr = kRoots[below(4)] | (uint32_t(rng_()) & 0x0000FFFF);
      if (chance(10)) {
         addr = uint32_t(rng_());
      }
      uint32_t len = chance(3) ? 0 : chance(10) ? 32 : 8 + below(25);
      return Pexo::Prefix(Pexo::IpAddr(addr), len).masked();
   }

   Pexo::Ip6Prefix v6() {
      static constexpr uint64_t kRoots[] = {0x20010db800000000ULL, 0x20010db800010000ULL,
                                            0xfd00000000000000ULL};
      uint64_t hi = kRoots[below(3)] | (uint64_t(rng_()) & 0xFFFF);
      uint64_t lo = chance(50) ? 0 : uint64_t(rng_());
      uint32_t len = chance(3) ? 0 : chance(10) ? 128 : 16 + below(113);
      return Pexo::Ip6Prefix(Pexo::Ip6Addr(hi, lo), len).masked();
   }

   Pexo::IpGenPrefix gen(Pexo::AddressFamily af) {
      return af == Pexo::AddressFamily::ipv4 ? Pexo::IpGenPrefix(v4()) : Pexo::IpGenPrefix(v6());
   }

   std::mt19937_64& rng() { return rng_; }

private:
   std::mt19937_64 rng_;
};

}  // namespace KivTest
