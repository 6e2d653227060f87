#pragma once
// What the benchmarks measure with, and the FIB shape they share: wall time,
// the process's resident memory, hardware writes, type names.

#include <cxxabi.h>
#include <malloc.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <random>
#include <string>

#include "sim/HardwareRouteTable.h"

namespace bench {

// Configures the allocator as kivsim does: no glibc fast bins. With them,
// the frees of one phase (or command) are merged in one sweep inside a later
// run, at its first large request: 55-66 ms inside `show routes`, charged to
// work that did not cause it.
inline void allocateAsKivsim() {
   mallopt(M_MXFAST, 0);
}

inline double secondsSince(std::chrono::steady_clock::time_point t) {
   return std::chrono::duration<double>(std::chrono::steady_clock::now() - t).count();
}

// A "Vm...:" line of this process's status (field without the colon), in MB;
// 0 when unreadable.
inline double statusMb(const char* field) {
   std::ifstream status("/proc/self/status");
   std::string line;
   const std::string key = std::string(field) + ":";
   while (std::getline(status, line)) {
      if (line.rfind(key, 0) == 0) {
         return double(std::stoull(line.substr(key.size()))) / 1024.0;
      }
   }
   return 0;
}

inline double peakResidentMb() {
   return statusMb("VmHWM");
}

inline double residentMb() {
   return statusMb("VmRSS");
}

// Starts a new peak: the heap freed by earlier runs goes back to the system,
// then the kernel resets VmHWM to the current resident size.
inline void resetPeakResident() {
   malloc_trim(0);
   std::ofstream("/proc/self/clear_refs") << "5";
}

// What the segment library costs the hardware: route programs and id writes
// (the routing agent's own FIB writes are not counted).
inline uint64_t hardwareWrites(const sim::HardwareRouteTable::Counters& c) {
   return c.routePrograms + c.hwIdWrites;
}

// Roughly a global table: half /24, the rest mostly /16-/23, a few per cent
// longer than /24 including host routes.
inline unsigned fibLength(std::mt19937_64& rng) {
   const unsigned r = unsigned(rng() % 1000);
   return r < 560   ? 24
          : r < 650 ? 23
          : r < 760 ? 22
          : r < 810 ? 21
          : r < 850 ? 20
          : r < 880 ? 19
          : r < 900 ? 18
          : r < 915 ? 17
          : r < 950 ? 16
          : r < 970 ? 25 + unsigned(rng() % 7)
                    : 32;
}

// A type name as written in the source; the mangled name if that fails.
inline std::string demangled(const char* name) {
   int status = 0;
   std::unique_ptr<char, void (*)(void*)> d(abi::__cxa_demangle(name, nullptr, nullptr, &status),
                                            std::free);
   return status == 0 && d ? std::string(d.get()) : std::string(name);
}

}  // namespace bench
