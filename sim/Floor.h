#pragma once
// The floor: the least work any implementation must do to give a full table
// its segment ids, timed so that what the library takes can be put against
// it in the same run. Per VRF and family one trie of the segment prefixes;
// each segment prefix that is not a FIB route programmed as a drop route
// carrying its id; then per FIB route one longest match and one id write (0
// where no segment prefix covers it). It writes into a hardware table of its
// own, which holds the FIB before the clock starts.

#include <cstdint>
#include <vector>

#include "Pexo/Prefix.h"
#include "Pexo/VrfId.h"
#include "sim/HardwareRouteTable.h"

namespace sim {

class Oracle;

struct FloorPrefix {
   VrfId vrf;
   Pexo::IpGenPrefix prefix;
   SegmentHwId id;
};

struct FloorFigures {
   Zop::Time ns = 0;
   uint64_t writes = 0;  // route programs and id writes
   uint64_t fibRoutes = 0;
   uint64_t segmentPrefixes = 0;
};

// Times the floor on `table`, which holds the FIB routes `fib` and none of
// the segment prefixes that are not FIB routes.
FloorFigures timeFloor(HardwareRouteTable& table, const std::vector<HardwareRouteTable::Key>& fib,
                       const std::vector<FloorPrefix>& prefixes);

// The floor of a switch as it stands: its FIB, and the segment prefixes that
// count with the ids granted them, as the oracle decides from the inputs.
FloorFigures measureFloor(const Oracle& oracle);

}  // namespace sim
