#pragma once
// Trace lines and assertions of the library name the routine they belong to
// explicitly, never the C++ function that happens to write them: operators
// search the trace for those names, and the golden trace tests pin them, so
// factoring a routine into private helpers must not rename its lines. The
// forms that take the name from __func__ are therefore unavailable here:
// include this header last, after every other header, and write
//
//   TRACE5_FN("addIpPrefix", " Adding prefix in Hw. routingEnabled: " << flag);
//   ZOP_ASSERT_FN(vrfStatus, "VRF L3 Status is NULL", kSource, "addIpPrefix");
//
// A helper that traces for a named routine takes that name as a parameter.

#include "Trace/Trace.h"
#include "Zop/Assert.h"

#undef TRACE5
#undef TRACE8
#undef ZOP_ASSERT
