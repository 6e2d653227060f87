#pragma once
// The IP agents' status as the segment feature reads it: whether uRPF is
// configured, one object per family.

#include "Zop/Attr.h"

namespace IpCommon {

template <int Family>
class UrpfStatus : public Zop::PtrInterface {
public:
   class Notifiee : public Zop::BaseNotifiee<UrpfStatus> {
   public:
      virtual void handleUrpfConfigured() {}
   };
   bool urpfConfigured() const { return urpfConfigured_.get(); }
   void urpfConfiguredIs(bool on) { urpfConfigured_.is(*this, on); }
   Zop::NotifierList<Notifiee>& notifieeList() { return notifiees_; }

private:
   Zop::NotifierList<Notifiee> notifiees_;
   Zop::ScalarAttr<UrpfStatus, bool> urpfConfigured_{&Notifiee::handleUrpfConfigured, false};
};

}  // namespace IpCommon

namespace Ip {
using Status = IpCommon::UrpfStatus<4>;
}
namespace Ip6 {
using Status = IpCommon::UrpfStatus<6>;
}
