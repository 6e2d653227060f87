#pragma once
// The firewall's hit and drop counters, as a tree:
//   Counters              VRF name -> VrfCounters
//   VrfCounters           its CountersDir
//   CountersDir           policy name -> PolicyCounters (hitCount, dropCount);
//                         destination segment -> SegmentCountersGroup
//   SegmentCountersGroup  defaultDrop; source segment -> SegmentCounters
//   SegmentCounters       hitCount, dropCount
// `xIs(name)` creates the child when absent and returns it. Children are kept
// in name order, so walks are deterministic.

#include <cstdint>
#include <map>

#include "Pexo/VrfName.h"
#include "Zop/Ptr.h"
#include "Zop/String.h"

namespace Firewall {

namespace detail {
template <class K, class V>
class Children {
public:
   Zop::Ptr<V> is(const K& k) {
      auto [it, inserted] = map_.try_emplace(k);
      if (inserted) {
         it->second = Zop::makePtr<V>();
      }
      return it->second;
   }
   void del(const K& k) { map_.erase(k); }
   void delAll() { map_.clear(); }
   Zop::Ptr<V> get(const K& k) const {
      auto it = map_.find(k);
      return it == map_.end() ? nullptr : it->second;
   }
   const std::map<K, Zop::Ptr<V>>& members() const { return map_; }

private:
   std::map<K, Zop::Ptr<V>> map_;
};
}  // namespace detail

class HitDropCounters : public Zop::PtrInterface {
public:
   uint64_t hitCount() const { return hitCount_; }
   void hitCountIs(uint64_t n) { hitCount_ = n; }
   uint64_t dropCount() const { return dropCount_; }
   void dropCountIs(uint64_t n) { dropCount_ = n; }

private:
   uint64_t hitCount_ = 0;
   uint64_t dropCount_ = 0;
};

class PolicyCounters : public HitDropCounters {};
class SegmentCounters : public HitDropCounters {};

class SegmentCountersGroup : public Zop::PtrInterface {
public:
   uint64_t defaultDrop() const { return defaultDrop_; }
   void defaultDropIs(uint64_t n) { defaultDrop_ = n; }
   Zop::Ptr<SegmentCounters> segmentCountersIs(const Zop::String& src) { return src_.is(src); }
   void segmentCountersDel(const Zop::String& src) { src_.del(src); }
   Zop::Ptr<SegmentCounters> segmentCounters(const Zop::String& src) const { return src_.get(src); }
   const auto& segmentCounters() const { return src_.members(); }

private:
   uint64_t defaultDrop_ = 0;
   detail::Children<Zop::String, SegmentCounters> src_;
};

class CountersDir : public Zop::PtrInterface {
public:
   Zop::Ptr<PolicyCounters> policyIs(const Zop::String& name) { return policy_.is(name); }
   void policyDel(const Zop::String& name) { policy_.del(name); }
   Zop::Ptr<PolicyCounters> policy(const Zop::String& name) const { return policy_.get(name); }
   const auto& policy() const { return policy_.members(); }

   Zop::Ptr<SegmentCountersGroup> segmentIs(const Zop::String& dst) { return segment_.is(dst); }
   void segmentDel(const Zop::String& dst) { segment_.del(dst); }
   Zop::Ptr<SegmentCountersGroup> segment(const Zop::String& dst) const {
      return segment_.get(dst);
   }
   const auto& segment() const { return segment_.members(); }

private:
   detail::Children<Zop::String, PolicyCounters> policy_;
   detail::Children<Zop::String, SegmentCountersGroup> segment_;
};

class VrfCounters : public Zop::PtrInterface {
public:
   const Zop::Ptr<CountersDir>& countersDir() const { return countersDir_; }

private:
   Zop::Ptr<CountersDir> countersDir_ = Zop::makePtr<CountersDir>();
};

class Counters : public Zop::PtrInterface {
public:
   explicit Counters(Zop::String name) : name_(std::move(name)) {}
   const Zop::String& name() const { return name_; }
   Zop::Ptr<VrfCounters> vrfIs(const L3::VrfName& vrf) { return vrf_.is(vrf); }
   void vrfDel(const L3::VrfName& vrf) { vrf_.del(vrf); }
   void vrfDelAll() { vrf_.delAll(); }
   Zop::Ptr<VrfCounters> vrf(const L3::VrfName& vrf) const { return vrf_.get(vrf); }
   const auto& vrf() const { return vrf_.members(); }

private:
   Zop::String name_;
   detail::Children<L3::VrfName, VrfCounters> vrf_;
};

inline Zop::Ptr<Counters> countersFactory(const Zop::String& name) {
   return Zop::makePtr<Counters>(name);
}

}  // namespace Firewall
