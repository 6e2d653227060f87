#pragma once
// A directory of named entities of any type, as the agents use to hand one
// another objects by name (command requests, for one). Entries are kept in
// name order; a watcher learns of every entry added, replaced or removed by
// its name, and looks the entry up to tell which.

#include "Zop/Attr.h"
#include "Zop/String.h"

namespace Zop {

class Dir : public PtrInterface {
public:
   class Notifiee : public BaseNotifiee<Dir> {
   public:
      virtual void handleEntry(const String&) {}
   };

   explicit Dir(String name) : name_(std::move(name)) {}
   const String& name() const { return name_; }

   void entryIs(const String& name, const Ptr<PtrInterface>& e) { entry_.is(*this, name, e); }
   void entryDel(const String& name) { entry_.del(*this, name); }
   Ptr<PtrInterface> entry(const String& name) const { return entry_.get(name); }
   // The entry when it is a T; null when absent or of another type.
   template <class T>
   Ptr<T> entry(const String& name) const {
      return Ptr<T>(dynamic_cast<T*>(entry_.get(name).ptr()));
   }
   bool entryHas(const String& name) const { return entry_.has(name); }
   size_t entryCount() const { return entry_.size(); }
   const auto& entry() const { return entry_; }

   NotifierList<Notifiee>& notifieeList() { return notifiees_; }

private:
   const String name_;
   NotifierList<Notifiee> notifiees_;
   OrderedMapAttr<Dir, String, Ptr<PtrInterface>> entry_{&Notifiee::handleEntry};
};

inline Ptr<Dir> dirFactory(const String& name) {
   return makePtr<Dir>(name);
}

}  // namespace Zop
