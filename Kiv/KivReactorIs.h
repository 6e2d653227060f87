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

#include <map>
#include <utility>

#include "Zop/Ptr.h"

namespace Kiv {

template <class Sm, class Factory, class... Args>
Zop::Ptr<Sm> reactorIs(Zop::Ptr<Sm>& holder, Factory factory, Args&&... args) {
   holder = nullptr;
   holder = factory(std::forward<Args>(args)...);
   return holder;
}

// The child reactors of a reactor, one per key. A child leaves the
// collection before it is destroyed: its destructor may clean up, and must
// not find itself still listed.
template <class Key, class Sm>
class ChildReactors {
public:
   Zop::Ptr<Sm> get(const Key& key) const {
      auto it = children_.find(key);
      return it == children_.end() ? nullptr : it->second;
   }
   void is(const Key& key, const Zop::Ptr<Sm>& sm) { children_[key] = sm; }
   void del(const Key& key) {
      auto it = children_.find(key);
      if (it == children_.end()) {
         return;
      }
      Zop::Ptr<Sm> child = std::move(it->second);
      children_.erase(it);
   }
   void clear() { children_.clear(); }
   size_t size() const { return children_.size(); }
   auto begin() const { return children_.begin(); }
   auto end() const { return children_.end(); }

private:
   std::map<Key, Zop::Ptr<Sm>> children_;
};

}  // namespace Kiv

// Declares `SM##Is(holder, args...)`, the re-initialiser of reactor SM made by
// FACTORY, next to the factory.
#define KIV_REACTOR_IS(SM, FACTORY)                                          \
   template <class... Args>                                                  \
   Zop::Ptr<SM> SM##Is(Zop::Ptr<SM>& holder, Args&&... args) {               \
      return ::Kiv::reactorIs(holder, FACTORY, std::forward<Args>(args)...); \
   }
