#pragma once
// Intrusive, single-threaded reference counting.
//
// Every shared object of the platform and the library derives from
// Zop::PtrInterface and is held by Zop::Ptr<T> (or Zop::PtrConst<T>). The last
// pointer frees the object. Counts are not atomic: everything runs on the
// agent's one reactor thread. A cycle of Ptrs is a leak, and a bug.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <utility>

namespace Zop {

class PtrInterface {
public:
   PtrInterface() = default;
   PtrInterface(const PtrInterface&) : refs_(0) {}
   PtrInterface& operator=(const PtrInterface&) { return *this; }

   uint32_t references() const { return refs_; }
   void newRef() const { ++refs_; }
   void deleteRef() const {
      if (--refs_ == 0) {
         delete this;
      }
   }

protected:
   virtual ~PtrInterface() = default;

private:
   mutable uint32_t refs_ = 0;
};

template <class T>
class Ptr {
public:
   Ptr() = default;
   Ptr(std::nullptr_t) {}
   Ptr(T* p) : p_(p) { acquire(); }
   Ptr(const Ptr& o) : p_(o.p_) { acquire(); }
   Ptr(Ptr&& o) noexcept : p_(o.p_) { o.p_ = nullptr; }
   template <class U>
   Ptr(const Ptr<U>& o) : p_(o.ptr()) {
      acquire();
   }
   ~Ptr() { release(); }

   Ptr& operator=(const Ptr& o) {
      Ptr(o).swap(*this);
      return *this;
   }
   Ptr& operator=(Ptr&& o) noexcept {
      Ptr(std::move(o)).swap(*this);
      return *this;
   }
   Ptr& operator=(T* p) {
      Ptr(p).swap(*this);
      return *this;
   }
   void swap(Ptr& o) noexcept { std::swap(p_, o.p_); }

   T* ptr() const { return p_; }
   T* operator->() const { return p_; }
   T& operator*() const { return *p_; }
   explicit operator bool() const { return p_ != nullptr; }

   friend bool operator==(const Ptr& a, const Ptr& b) { return a.p_ == b.p_; }
   friend bool operator==(const Ptr& a, std::nullptr_t) { return a.p_ == nullptr; }

private:
   void acquire() {
      if (p_) {
         p_->newRef();
      }
   }
   void release() {
      if (p_) {
         p_->deleteRef();
      }
   }
   T* p_ = nullptr;
};

// A pointer through which the object may only be read.
template <class T>
using PtrConst = Ptr<const T>;

template <class T, class... Args>
Ptr<T> makePtr(Args&&... args) {
   return Ptr<T>(new T(std::forward<Args>(args)...));
}

template <class T, class U>
Ptr<T> ptrCast(const Ptr<U>& p) {
   return Ptr<T>(static_cast<T*>(p.ptr()));
}

}  // namespace Zop

template <class T>
struct std::hash<Zop::Ptr<T>> {
   size_t operator()(const Zop::Ptr<T>& p) const noexcept { return std::hash<T*>()(p.ptr()); }
};
