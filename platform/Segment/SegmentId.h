#pragma once
// The segment hw-id handshake with the platform's allocator, and the
// feature's status.
//
// SegmentIdRequest: the requests, keyed by SegmentIdRequestKey (VRF id,
// segment name). SegmentIdResponse: the allocator's answers, per key the
// granted hw id, and the reverse entry hw id -> key. Withdrawing a request
// withdraws its grant.
//
// SegmentIdRequestKey text form:
//   Value('SegmentIdRequestKey', ** {'vrfId': 1, 'segment': 'web'})

#include <functional>
#include <iosfwd>

#include "Pexo/VrfId.h"
#include "Zop/Attr.h"
#include "Zop/TextCursor.h"

namespace Segment {

class SegmentIdRequestKey {
public:
   SegmentIdRequestKey() = default;
   SegmentIdRequestKey(VrfId vrfId, Zop::String segment)
       : vrfId_(vrfId), segment_(std::move(segment)) {}
   explicit SegmentIdRequestKey(Zop::TextCursor& c);

   VrfId vrfId() const { return vrfId_; }
   const Zop::String& segment() const { return segment_; }
   friend auto operator<=>(const SegmentIdRequestKey&, const SegmentIdRequestKey&) = default;
   friend bool operator==(const SegmentIdRequestKey&, const SegmentIdRequestKey&) = default;

private:
   VrfId vrfId_;
   Zop::String segment_;
};

Zop::String valueToStrep(const SegmentIdRequestKey& k);
std::ostream& operator<<(std::ostream& os, const SegmentIdRequestKey& k);

}  // namespace Segment

template <>
struct std::hash<Segment::SegmentIdRequestKey> {
   size_t operator()(const Segment::SegmentIdRequestKey& k) const noexcept {
      return Pexo::hashCombine(std::hash<Zop::String>()(k.segment()), k.vrfId().value());
   }
};

namespace Segment {

class SegmentIdRequest : public Zop::PtrInterface {
public:
   class Notifiee : public Zop::BaseNotifiee<SegmentIdRequest> {
   public:
      virtual void handleRequest(const SegmentIdRequestKey&) {}
   };

   void requestIs(const SegmentIdRequestKey& k) { request_.is(*this, k); }
   void requestDel(const SegmentIdRequestKey& k) { request_.del(*this, k); }
   bool requestHas(const SegmentIdRequestKey& k) const { return request_.has(k); }
   const auto& request() const { return request_; }

   Zop::NotifierList<Notifiee>& notifieeList() { return notifiees_; }

private:
   Zop::NotifierList<Notifiee> notifiees_;
   Zop::HashSetAttr<SegmentIdRequest, SegmentIdRequestKey> request_{&Notifiee::handleRequest};
};

// What the allocator granted for one request.
struct SegmentIdStatus {
   SegmentHwId hwId;
   friend bool operator==(const SegmentIdStatus&, const SegmentIdStatus&) = default;
};

class SegmentIdResponse : public Zop::PtrInterface {
public:
   class Notifiee : public Zop::BaseNotifiee<SegmentIdResponse> {
   public:
      virtual void handleStatus(const SegmentIdRequestKey&) {}
   };

   // Grants (or changes) the key's id and keeps the reverse entry in step.
   void statusIs(const SegmentIdRequestKey& k, const SegmentIdStatus& s);
   void statusDel(const SegmentIdRequestKey& k);
   // The key's unchanged status notified again (an allocator repeating
   // itself); nothing when the key has none.
   void statusRenotify(const SegmentIdRequestKey& k) { status_.renotify(*this, k); }
   const SegmentIdStatus* status(const SegmentIdRequestKey& k) const { return status_.find(k); }
   bool statusHas(const SegmentIdRequestKey& k) const { return status_.has(k); }
   const auto& status() const { return status_; }
   // The key granted `hwId`; null when none.
   const SegmentIdRequestKey* hwIdKey(SegmentHwId hwId) const {
      auto it = byHwId_.find(hwId);
      return it == byHwId_.end() ? nullptr : &it->second;
   }

   Zop::NotifierList<Notifiee>& notifieeList() { return notifiees_; }

private:
   Zop::NotifierList<Notifiee> notifiees_;
   Zop::HashMapAttr<SegmentIdResponse, SegmentIdRequestKey, SegmentIdStatus> status_{
       &Notifiee::handleStatus};
   std::unordered_map<SegmentHwId, SegmentIdRequestKey> byHwId_;
};

// The feature's status, written by the root reactor.
class SegmentSecurityStatus : public Zop::PtrInterface {
public:
   class Notifiee : public Zop::BaseNotifiee<SegmentSecurityStatus> {
   public:
      virtual void handleEnabled() {}
      virtual void handleWaitForRoutesCleanup() {}
      virtual void handleSegmentSecuritySetupComplete() {}
      virtual void handleSegmentSecurityRoutingDisableDone() {}
      virtual void handleSegmentSecurityRoutingDisable() {}
      virtual void handleSegmentSecurityRoutingEnable() {}
      virtual void handleWaitForSegmentSecurityRoutingDisabledCnt() {}
   };

   bool enabled() const { return enabled_.get(); }
   void enabledIs(bool v) { enabled_.is(*this, v); }
   bool waitForRoutesCleanup() const { return waitForRoutesCleanup_.get(); }
   void waitForRoutesCleanupIs(bool v) { waitForRoutesCleanup_.is(*this, v); }
   bool segmentSecuritySetupComplete() const { return setupComplete_.get(); }
   void segmentSecuritySetupCompleteIs(bool v) { setupComplete_.is(*this, v); }
   bool segmentSecurityRoutingDisableDone() const { return routingDisableDone_.get(); }
   void segmentSecurityRoutingDisableDoneIs(bool v) { routingDisableDone_.is(*this, v); }
   uint32_t segmentSecurityRoutingDisable() const { return routingDisable_.get(); }
   void segmentSecurityRoutingDisableInc() { routingDisable_.inc(*this); }
   uint32_t segmentSecurityRoutingEnable() const { return routingEnable_.get(); }
   void segmentSecurityRoutingEnableInc() { routingEnable_.inc(*this); }
   uint32_t waitForSegmentSecurityRoutingDisabledCnt() const { return waitCnt_.get(); }
   void waitForSegmentSecurityRoutingDisabledCntInc() { waitCnt_.inc(*this); }

   Zop::NotifierList<Notifiee>& notifieeList() { return notifiees_; }

private:
   using S = SegmentSecurityStatus;
   Zop::NotifierList<Notifiee> notifiees_;
   Zop::ScalarAttr<S, bool> enabled_{&Notifiee::handleEnabled, false};
   Zop::ScalarAttr<S, bool> waitForRoutesCleanup_{&Notifiee::handleWaitForRoutesCleanup, false};
   Zop::ScalarAttr<S, bool> setupComplete_{&Notifiee::handleSegmentSecuritySetupComplete, false};
   Zop::ScalarAttr<S, bool> routingDisableDone_{&Notifiee::handleSegmentSecurityRoutingDisableDone,
                                                false};
   Zop::ScalarAttr<S, uint32_t> routingDisable_{&Notifiee::handleSegmentSecurityRoutingDisable, 0};
   Zop::ScalarAttr<S, uint32_t> routingEnable_{&Notifiee::handleSegmentSecurityRoutingEnable, 0};
   Zop::ScalarAttr<S, uint32_t> waitCnt_{&Notifiee::handleWaitForSegmentSecurityRoutingDisabledCnt,
                                         0};
};

}  // namespace Segment

using Segment::SegmentIdRequest;
using Segment::SegmentIdRequestKey;
using Segment::SegmentIdResponse;
using Segment::SegmentIdStatus;
using Segment::SegmentSecurityStatus;
