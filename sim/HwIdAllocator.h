#pragma once
// The simulated segment hw-id allocator: answers SegmentIdRequest in
// SegmentIdResponse.
//
// Ids come from a pool (by default 1..65534: 0 means "no segment" and 65535
// is the invalid id, so neither is ever granted) and are unique across all
// VRFs: one id, one (VRF id, segment) key. In automatic mode (the default) a
// request is granted the lowest free id of the pool; in manual mode requests
// wait until grant() names them. A request that goes away takes its grant
// with it (statusDel) and frees the id. A request that finds the pool
// exhausted waits; it is granted when an id comes free (automatic mode).
//
// Request notifications only note the key and schedule the allocator's task
// ("SimHwIdAllocatorTask"); the task answers, in key order, first the
// requests that went and then the grants, asking the scheduler before each
// key and going on next run when it says to yield.
//
// What else an allocator may do, for the library to meet:
//   revoke(key): takes the grant back while the request stands (statusDel);
//      the request waits again. The id stays reserved for the key while its
//      request stands, never granted to another key (the old owner's routes
//      may still carry it, and only the request's withdrawal says they no
//      longer do); automatic mode grants the key its reserved id back at its
//      next run. Granted another id, the key still holds the old one until
//      its request goes. A request deleted frees every id it held.
//   grant(key, invalid): publishes the invalid id 65535 for the key; such a
//      key still waits (a later grant, or automatic mode, replaces it).
//   regrant(key): notifies the key's unchanged grant once more.

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <vector>

#include "Ruv/TaskScheduler.h"
#include "Segment/SegmentId.h"
#include "sim/Outcome.h"

namespace sim {

class HwIdAllocator {
public:
   enum class Mode : uint8_t { automatic, manual };
   static constexpr uint16_t kPoolFirst = 1;
   static constexpr uint16_t kPoolLast = 65534;

   HwIdAllocator(Zop::Ptr<Ruv::TaskScheduler> scheduler, Zop::Ptr<SegmentIdRequest> requests,
                 Zop::Ptr<SegmentIdResponse> responses);
   ~HwIdAllocator();
   HwIdAllocator(const HwIdAllocator&) = delete;
   HwIdAllocator& operator=(const HwIdAllocator&) = delete;

   Mode mode() const { return mode_; }
   // Switching to automatic grants whatever waits.
   void modeIs(Mode mode);

   // The pool new grants come from; ids granted already stay. Refused unless
   // 1 <= first <= last <= 65534.
   Outcome poolIs(uint16_t first, uint16_t last);
   uint16_t poolFirst() const { return poolFirst_; }
   uint16_t poolLast() const { return poolLast_; }

   // Grants a waiting request at once: the given id (any id from 1 to 65534
   // not granted to another key, in the pool or not), or the lowest free id
   // of the pool. Refused when the key has no request, is granted already,
   // or the id is taken or out of range.
   Outcome grant(const SegmentIdRequestKey& key, std::optional<SegmentHwId> id = std::nullopt);
   // Publishes the invalid id for a waiting request.
   Outcome grantInvalid(const SegmentIdRequestKey& key);
   // Takes a valid grant back; the request waits again, its id reserved.
   Outcome revoke(const SegmentIdRequestKey& key);
   // Notifies a key's grant (valid or not) again, unchanged.
   Outcome regrant(const SegmentIdRequestKey& key);

   // Requests without a valid grant, in key order.
   std::vector<SegmentIdRequestKey> pendingRequests() const;
   // What is granted (valid ids only), by key.
   const std::map<SegmentIdRequestKey, SegmentHwId>& grants() const { return grants_; }
   // Ids taken back and kept for their keys.
   const std::map<SegmentIdRequestKey, SegmentHwId>& reserved() const { return reserved_; }

private:
   class RequestNotifiee;

   void requestChanged(const SegmentIdRequestKey& key);
   void run();
   std::optional<SegmentHwId> lowestFree() const;
   void grantNow(const SegmentIdRequestKey& key, SegmentHwId id);

   Zop::Ptr<Ruv::TaskScheduler> scheduler_;
   Zop::Ptr<SegmentIdRequest> requests_;
   Zop::Ptr<SegmentIdResponse> responses_;
   Zop::Ptr<Ruv::Task> task_;
   std::unique_ptr<RequestNotifiee> notifiee_;

   Mode mode_ = Mode::automatic;
   uint16_t poolFirst_ = kPoolFirst;
   uint16_t poolLast_ = kPoolLast;
   // Keys whose request changed since the last run.
   std::set<SegmentIdRequestKey> changed_;
   std::map<SegmentIdRequestKey, SegmentHwId> grants_;
   std::map<SegmentIdRequestKey, SegmentHwId> reserved_;
   // Ids taken back from a key that was granted another one since.
   std::multimap<SegmentIdRequestKey, uint16_t> retired_;
   // Keys whose published status is the invalid id.
   std::set<SegmentIdRequestKey> invalid_;
   std::set<uint16_t> used_;
};

}  // namespace sim
