#pragma once
// What an operation of a simulated agent did with a request from a test or a
// scenario: carried out, or refused with the reason. Bad input (an unknown
// VRF, a prefix with host bits set, an id already in use) is an expected
// failure the caller reports; it never aborts the simulation.

#include <utility>

#include "Zop/String.h"

namespace sim {

class [[nodiscard]] Outcome {
public:
   static Outcome done() { return Outcome(); }
   static Outcome refused(Zop::String why) { return Outcome(std::move(why)); }

   bool ok() const { return error_.empty(); }
   // Why the request was refused; empty when it was carried out.
   const Zop::String& error() const { return error_; }

private:
   Outcome() = default;
   explicit Outcome(Zop::String why) : error_(why.empty() ? "refused" : std::move(why)) {}
   Zop::String error_;
};

}  // namespace sim
