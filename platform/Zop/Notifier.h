#pragma once
// Notifying entities.
//
// An entity keeps a list of notifiees; each entity type declares a nested
// `Notifiee` class with one virtual `handleX(key)` per attribute (default:
// nothing), deriving from Zop::BaseNotifiee<Entity>. A notifiee registers with
// `notifierIs(entity)` and is unregistered by `notifierIs(nullptr)` or by its
// destruction.
//
// Delivery is synchronous, in registration order. During a delivery a handler
// may:
//   - detach itself or any other notifiee, or destroy one: it is skipped from
//     then on (its slot is cleared, never dereferenced again);
//   - register a new notifiee: it receives later notifications, not this one;
//   - change the entity again: the nested notification is delivered at once
//     (handlers must tolerate re-entry, as they only record work);
//   - drop the last pointer to the entity: the entity stays alive until the
//     delivery has ended.
// A notifiee with `notificationActive()` false is registered but skipped.
//
// Handler timing. Notifications must only record work, so how long a handler
// holds the thread is worth watching at scale. While timing is on (benchmarks,
// kivsim --stats) each outermost handler call is timed with a monotonic clock,
// nested deliveries counting toward the handler that caused them; off (the
// default) a delivery costs one test of a flag more.

#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <typeinfo>
#include <unordered_map>
#include <vector>

#include "Zop/Clock.h"
#include "Zop/Ptr.h"

namespace Zop {

struct NotificationStatistics {
   // Outermost deliveries timed: one per change, however many notifiees hear it.
   uint64_t handlerCalls = 0;
   Time longestHandler = 0;
   // The notifiee class of the longest call (its mangled type name).
   const char* longestHandlerNotifiee = "";
   // Per notifiee class (its mangled type name, as given): its calls and the
   // longest. A class seen from a shared library and from the program may
   // come twice, under two copies of its name.
   struct Handler {
      uint64_t calls = 0;
      Time longest = 0;
   };
   std::unordered_map<const char*, Handler> byNotifiee;
};

// Process-wide like the trace state: a shared library embedding this code
// and the program using it share one switch and one set of figures.
#define ZOP_PROCESS_WIDE __attribute__((visibility("default")))

ZOP_PROCESS_WIDE void notificationTimingIs(bool on);
ZOP_PROCESS_WIDE const NotificationStatistics& notificationStatistics();
ZOP_PROCESS_WIDE void resetNotificationStatistics();

namespace detail {
extern ZOP_PROCESS_WIDE bool notificationTiming;
// Handler calls in progress while timing is on.
extern ZOP_PROCESS_WIDE unsigned notificationDepth;
// What handler calls are timed by. A busy agent makes a change, and so a
// timed call, for nearly every item: the processor's time-stamp counter
// costs a third of a clock read. The figures are kept in its ticks and
// converted to nanoseconds when read. Without a counter: the clock.
inline uint64_t handlerTicks() {
   return kHasCounter ? counterTicks() : uint64_t(monotonicNow());
}
ZOP_PROCESS_WIDE void handlerTimed(uint64_t startTicks, uint64_t endTicks, const char* notifiee);
}  // namespace detail

class NotifieeLink {
public:
   bool notificationActive() const { return active_; }
   void notificationActiveIs(bool a) { active_ = a; }

private:
   bool active_ = true;
};

// The list of notifiees of one entity. `N` is the entity's Notifiee class.
template <class N>
class NotifierList {
public:
   NotifierList() = default;
   NotifierList(const NotifierList&) = delete;
   NotifierList& operator=(const NotifierList&) = delete;
   // A registered notifiee holds a pointer to its entity, so an entity is
   // never destroyed with notifiees still registered.
   ~NotifierList() = default;

   void attach(N* n) { list_.push_back(n); }
   void detach(N* n) {
      for (auto& slot : list_) {
         if (slot == n) {
            slot = nullptr;
            dirty_ = true;
            break;
         }
      }
      compact();
   }
   size_t size() const {
      size_t count = 0;
      for (N* n : list_) {
         count += n != nullptr;
      }
      return count;
   }
   bool empty() const { return size() == 0; }

   // Calls `f(notifiee)` for each active notifiee. `owner` is the entity, kept
   // alive for the length of the delivery.
   //
   // With timing on, an outermost delivery is timed as one handler call: the
   // thread is held for the whole delivery, and every notifiee on the list is
   // filed under the list's one class name anyway. Timing each notifiee cost
   // two clock reads per notifiee: the record collection, watched by one
   // reactor per VRF, paid them 65 times per change at 64 VRFs, a fifth of a
   // full-table enable.
   template <class F>
   void notify(const PtrInterface* owner, F&& f) {
      if (list_.empty()) {
         return;
      }
      bool keep = owner && owner->references() > 0;
      if (keep) {
         owner->newRef();
      }
      if (detail::notificationTiming && detail::notificationDepth == 0) {
         ++detail::notificationDepth;
         const uint64_t start = detail::handlerTicks();
         if (deliver(f)) {
            detail::handlerTimed(start, detail::handlerTicks(), typeid(N).name());
         }
         --detail::notificationDepth;
      } else {
         deliver(f);
      }
      compact();
      if (keep) {
         owner->deleteRef();
      }
   }

private:
   // Whether any notifiee was called.
   template <class F>
   bool deliver(F& f) {
      bool called = false;
      ++delivering_;
      size_t count = list_.size();  // notifiees added now wait for the next change
      for (size_t i = 0; i < count; ++i) {
         N* n = list_[i];
         if (n && n->notificationActive()) {
            called = true;
            f(*n);
         }
      }
      --delivering_;
      return called;
   }
   void compact() {
      if (delivering_ == 0 && dirty_) {
         std::erase(list_, nullptr);
         dirty_ = false;
      }
   }
   std::vector<N*> list_;
   unsigned delivering_ = 0;
   bool dirty_ = false;
};

// Base of every entity's Notifiee class. `E` is the entity; it must offer
// `notifieeList()` returning its NotifierList<typename E::Notifiee>.
template <class E>
class BaseNotifiee : public NotifieeLink {
public:
   BaseNotifiee() = default;
   BaseNotifiee(const BaseNotifiee&) = delete;
   BaseNotifiee& operator=(const BaseNotifiee&) = delete;
   virtual ~BaseNotifiee() { detach(); }

   const Ptr<E>& notifier() const { return notifier_; }
   // Watching an entity one may only read is fine: registering changes the
   // entity's notifiee list, not the entity's state.
   template <class U>
   requires std::is_const_v<U>
   void notifierIs(const Ptr<U>& e) {
      notifierIs(Ptr<E>(const_cast<E*>(static_cast<const E*>(e.ptr()))));
   }
   void notifierIs(const Ptr<E>& e) {
      if (e == notifier_) {
         return;
      }
      detach();
      notifier_ = e;
      if (notifier_) {
         self_ = static_cast<typename E::Notifiee*>(this);
         notifier_->notifieeList().attach(self_);
      }
   }

private:
   void detach() {
      if (notifier_) {
         notifier_->notifieeList().detach(self_);
         notifier_ = nullptr;
      }
   }
   Ptr<E> notifier_;
   // This notifiee as the list holds it, taken while the object is whole: by
   // the time ~BaseNotifiee runs the derived object is gone, and casting down
   // to it then is undefined.
   typename E::Notifiee* self_ = nullptr;
};

}  // namespace Zop
