#pragma once
// Base of the library's helper classes: a name, a notifiee list for whoever
// wants to follow the helper, and kivAssert for the operations a platform
// must override.

#include "Kiv/KivExport.h"
#include "Zop/Notifier.h"
#include "Zop/Ptr.h"
#include "Zop/String.h"

namespace Kiv {

class KIV_EXPORT KivBaseHelper : public Zop::PtrInterface {
public:
   class Notifiee : public Zop::BaseNotifiee<KivBaseHelper> {};

   explicit KivBaseHelper(Zop::String name) : name_(std::move(name)) {}
   const Zop::String& name() const { return name_; }
   Zop::NotifierList<Notifiee>& notifieeList() { return notifiees_; }

   // Writes `message` and a newline to standard error, then fails the fatal
   // assertion "0" of KivBaseHelper::kivAssert. Never returns.
   [[noreturn]] void kivAssert(const Zop::String& message) const;

private:
   Zop::String name_;
   Zop::NotifierList<Notifiee> notifiees_;
};

}  // namespace Kiv
