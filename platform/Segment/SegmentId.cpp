#include "Segment/SegmentId.h"

#include <ostream>

namespace Segment {

SegmentIdRequestKey::SegmentIdRequestKey(Zop::TextCursor& c) {
   c.expect("Value('SegmentIdRequestKey', ** {'vrfId': ", "vrfId");
   vrfId_ = VrfId(c);
   c.expect(", 'segment': ", "segment");
   segment_ = c.quoted("segment");
   c.expect("})", "value");
}

Zop::String valueToStrep(const SegmentIdRequestKey& k) {
   return "Value('SegmentIdRequestKey', ** {'vrfId': " + valueToStrep(k.vrfId()) +
          ", 'segment': '" + k.segment() + "'})";
}

std::ostream& operator<<(std::ostream& os, const SegmentIdRequestKey& k) {
   return os << valueToStrep(k);
}

void SegmentIdResponse::statusIs(const SegmentIdRequestKey& k, const SegmentIdStatus& s) {
   if (const SegmentIdStatus* old = status_.find(k)) {
      auto it = byHwId_.find(old->hwId);
      if (it != byHwId_.end() && it->second == k) {
         byHwId_.erase(it);
      }
   }
   byHwId_[s.hwId] = k;
   status_.is(*this, k, s);
}

void SegmentIdResponse::statusDel(const SegmentIdRequestKey& k) {
   if (const SegmentIdStatus* old = status_.find(k)) {
      auto it = byHwId_.find(old->hwId);
      if (it != byHwId_.end() && it->second == k) {
         byHwId_.erase(it);
      }
   }
   status_.del(*this, k);
}

}  // namespace Segment
