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

#include <cstddef>
#include <type_traits>
#include <vector>

#include "Zop/Ptr.h"

namespace Zop {

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
   template <class F>
   void notify(const PtrInterface* owner, F&& f) {
      if (list_.empty()) {
         return;
      }
      bool keep = owner && owner->references() > 0;
      if (keep) {
         owner->newRef();
      }
      ++delivering_;
      size_t count = list_.size();  // notifiees added now wait for the next change
      for (size_t i = 0; i < count; ++i) {
         N* n = list_[i];
         if (n && n->notificationActive()) {
            f(*n);
         }
      }
      --delivering_;
      compact();
      if (keep) {
         owner->deleteRef();
      }
   }

private:
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
