#pragma once
// Re-initialisers. Every reactor with a factory has one, named after the
// reactor (`FibRouteReactorSmIs`, `KivSegmentSecurityRootSmIs`, ...): given
// the pointer that holds the reactor and the factory's arguments, it replaces
// the reactor with a new one and answers it.
//
// The old reactor is dropped before the new one is made: a reactor's
// destructor may still clean up through the shared inputs (a VRF reactor
// withdraws its requests), and two reactors must never watch the same inputs
// at once, where both would act on one notification.

#include <utility>

#include "Zop/Ptr.h"

namespace Kiv {

template <class Sm, class Factory, class... Args>
Zop::Ptr<Sm> reactorIs(Zop::Ptr<Sm>& holder, Factory factory, Args&&... args) {
   holder = nullptr;
   holder = factory(std::forward<Args>(args)...);
   return holder;
}

}  // namespace Kiv

// Declares `SM##Is(holder, args...)`, the re-initialiser of reactor SM made by
// FACTORY, next to the factory.
#define KIV_REACTOR_IS(SM, FACTORY)                                          \
   template <class... Args>                                                  \
   Zop::Ptr<SM> SM##Is(Zop::Ptr<SM>& holder, Args&&... args) {               \
      return ::Kiv::reactorIs(holder, FACTORY, std::forward<Args>(args)...); \
   }
