#pragma once
// The firewall configuration, as the configuration agent publishes it.
//
//   HwConfig      fwActive, fwDefaultDrop, VRFs by name (FwVrf)
//   FwVrf         its prefix list (prefix -> segment name, also indexed by
//                 segment) and its segment directory
//   FwSegmentDir  segments by name (FwSegment)
//   FwSegment     per source segment, the name of the policy applied to
//                 traffic from that source into this (destination) segment
// Prefix-list entries are kept as written: an entry may be an invalid prefix
// (host bits set, multicast, ...); the segment feature checks them.

#include <set>
#include <unordered_map>

#include "Pexo/Prefix.h"
#include "Pexo/VrfName.h"
#include "Zop/Attr.h"
#include "Zop/String.h"

namespace Firewall {

class FwSegment : public Zop::PtrInterface {
public:
   class Notifiee : public Zop::BaseNotifiee<FwSegment> {
   public:
      virtual void handleSourceSegment(const Zop::String&) {}
   };

   explicit FwSegment(Zop::String name) : name_(std::move(name)) {}
   const Zop::String& name() const { return name_; }

   // Policy name per source segment.
   void sourceSegmentIs(const Zop::String& src, const Zop::String& policy) {
      sourceSegment_.is(*this, src, policy);
   }
   void sourceSegmentDel(const Zop::String& src) { sourceSegment_.del(*this, src); }
   const Zop::String* sourceSegment(const Zop::String& src) const {
      return sourceSegment_.find(src);
   }
   const auto& sourceSegment() const { return sourceSegment_; }

   Zop::NotifierList<Notifiee>& notifieeList() { return notifiees_; }

private:
   const Zop::String name_;
   Zop::NotifierList<Notifiee> notifiees_;
   Zop::OrderedMapAttr<FwSegment, Zop::String, Zop::String> sourceSegment_{
       &Notifiee::handleSourceSegment};
};

class FwSegmentDir : public Zop::PtrInterface {
public:
   class Notifiee : public Zop::BaseNotifiee<FwSegmentDir> {
   public:
      virtual void handleSegment(const Zop::String&) {}
   };

   void segmentIs(const Zop::Ptr<FwSegment>& s) { segment_.is(*this, s->name(), s); }
   void segmentDel(const Zop::String& name) { segment_.del(*this, name); }
   Zop::Ptr<FwSegment> segment(const Zop::String& name) const { return segment_.get(name); }
   bool segmentHas(const Zop::String& name) const { return segment_.has(name); }
   const auto& segment() const { return segment_; }

   Zop::NotifierList<Notifiee>& notifieeList() { return notifiees_; }

private:
   Zop::NotifierList<Notifiee> notifiees_;
   Zop::OrderedMapAttr<FwSegmentDir, Zop::String, Zop::Ptr<FwSegment>> segment_{
       &Notifiee::handleSegment};
};

class FwVrf : public Zop::PtrInterface {
public:
   class Notifiee : public Zop::BaseNotifiee<FwVrf> {
   public:
      virtual void handlePrefixList(const Pexo::IpGenPrefix&) {}
   };

   explicit FwVrf(const L3::VrfName& name)
       : name_(name), segmentDir_(Zop::makePtr<FwSegmentDir>()) {}
   const L3::VrfName& name() const { return name_; }

   // Prefix -> segment name.
   void prefixListIs(const Pexo::IpGenPrefix& p, const Zop::String& segment) {
      const Zop::String* old = prefixList_.find(p);
      if (old && *old == segment) {
         return;
      }
      if (old) {
         bySegmentDel(*old, p);
      }
      bySegment_[segment].insert(p);
      prefixList_.is(*this, p, segment);
   }
   void prefixListDel(const Pexo::IpGenPrefix& p) {
      if (const Zop::String* old = prefixList_.find(p)) {
         bySegmentDel(*old, p);
      }
      prefixList_.del(*this, p);
   }
   const Zop::String* prefixList(const Pexo::IpGenPrefix& p) const { return prefixList_.find(p); }
   bool prefixListHas(const Pexo::IpGenPrefix& p) const { return prefixList_.has(p); }
   const auto& prefixList() const { return prefixList_; }
   // The prefixes mapped to `segment`, in prefix order (empty when none): a
   // segment's prefixes without a walk of the VRF's whole list. Up to date
   // before any handler hears of a change.
   const std::set<Pexo::IpGenPrefix>& prefixListOfSegment(const Zop::String& segment) const {
      static const std::set<Pexo::IpGenPrefix> kNone;
      auto it = bySegment_.find(segment);
      return it == bySegment_.end() ? kNone : it->second;
   }

   const Zop::Ptr<FwSegmentDir>& segmentDir() const { return segmentDir_; }
   // The VRF's segment of that name; null when absent.
   Zop::Ptr<FwSegment> segment(const Zop::String& name) const { return segmentDir_->segment(name); }

   Zop::NotifierList<Notifiee>& notifieeList() { return notifiees_; }

private:
   const L3::VrfName name_;
   const Zop::Ptr<FwSegmentDir> segmentDir_;
   Zop::NotifierList<Notifiee> notifiees_;
   Zop::HashMapAttr<FwVrf, Pexo::IpGenPrefix, Zop::String> prefixList_{&Notifiee::handlePrefixList};
   void bySegmentDel(const Zop::String& segment, const Pexo::IpGenPrefix& p) {
      auto it = bySegment_.find(segment);
      it->second.erase(p);
      if (it->second.empty()) {
         bySegment_.erase(it);
      }
   }
   std::unordered_map<Zop::String, std::set<Pexo::IpGenPrefix>> bySegment_;
};

class HwConfig : public Zop::PtrInterface {
public:
   class Notifiee : public Zop::BaseNotifiee<HwConfig> {
   public:
      virtual void handleFwActive() {}
      virtual void handleFwDefaultDrop() {}
      virtual void handleVrf(const L3::VrfName&) {}
   };

   bool fwActive() const { return fwActive_.get(); }
   void fwActiveIs(bool on) { fwActive_.is(*this, on); }
   bool fwDefaultDrop() const { return fwDefaultDrop_.get(); }
   void fwDefaultDropIs(bool on) { fwDefaultDrop_.is(*this, on); }

   void vrfIs(const Zop::Ptr<FwVrf>& v) { vrf_.is(*this, v->name(), v); }
   void vrfDel(const L3::VrfName& name) { vrf_.del(*this, name); }
   Zop::Ptr<FwVrf> vrf(const L3::VrfName& name) const { return vrf_.get(name); }
   bool vrfHas(const L3::VrfName& name) const { return vrf_.has(name); }
   const auto& vrf() const { return vrf_; }

   Zop::NotifierList<Notifiee>& notifieeList() { return notifiees_; }

private:
   Zop::NotifierList<Notifiee> notifiees_;
   Zop::ScalarAttr<HwConfig, bool> fwActive_{&Notifiee::handleFwActive, false};
   Zop::ScalarAttr<HwConfig, bool> fwDefaultDrop_{&Notifiee::handleFwDefaultDrop, false};
   Zop::OrderedMapAttr<HwConfig, L3::VrfName, Zop::Ptr<FwVrf>> vrf_{&Notifiee::handleVrf};
};

inline Zop::Ptr<HwConfig> hwConfigFactory() {
   return Zop::makePtr<HwConfig>();
}
inline Zop::Ptr<FwVrf> fwVrfFactory(const L3::VrfName& name) {
   return Zop::makePtr<FwVrf>(name);
}
inline Zop::Ptr<FwSegment> fwSegmentFactory(const Zop::String& name) {
   return Zop::makePtr<FwSegment>(name);
}

}  // namespace Firewall
