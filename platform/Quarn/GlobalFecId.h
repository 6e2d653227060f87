#pragma once
// Global FEC ids of the shared-memory FIB tables, and the VRF table status.
//
// A GlobalFecId addresses one forwarding equivalence class: a type, a table
// id and a 16-bit index. The drop adjacency of a VRF is (kDropV4 or kDropV6,
// 0, the VRF's drop index); a resolved next hop is (kForward, the VRF's FIB
// table id, the next hop's index). doInit() normalises a value built field by
// field: an id whose type is unknown becomes the null id.
//
// Text form: Value('Quarn::Fib::GlobalFecId', ** {'type': 1, 'tableId': 0, 'index': 7})

#include <compare>
#include <cstdint>
#include <functional>
#include <iosfwd>

#include "Pexo/Prefix.h"
#include "Pexo/VrfName.h"
#include "Zop/Attr.h"
#include "Zop/TextCursor.h"

namespace Quarn::Fib {

class GlobalFecId {
public:
   enum Type : uint8_t { kNull = 0, kDropV4 = 1, kDropV6 = 2, kForward = 3 };

   GlobalFecId() = default;
   GlobalFecId(uint8_t type, uint32_t tableId, uint16_t index)
       : type_(type), tableId_(tableId), index_(index) {}
   explicit GlobalFecId(Zop::TextCursor& c);

   uint8_t type() const { return type_; }
   uint32_t tableId() const { return tableId_; }
   uint16_t index() const { return index_; }
   bool isNull() const { return type_ == kNull; }
   // The id as one 64-bit number (type, table id, index from high to low).
   uint64_t value() const { return (uint64_t(type_) << 48) | (uint64_t(tableId_) << 16) | index_; }
   // The inverse of value().
   static GlobalFecId fromValue(uint64_t v) {
      return GlobalFecId(uint8_t(v >> 48), uint32_t(v >> 16), uint16_t(v));
   }

   void doInit() {
      if (type_ > kForward) {
         *this = GlobalFecId();
      }
   }

   friend auto operator<=>(const GlobalFecId&, const GlobalFecId&) = default;

private:
   uint8_t type_ = kNull;
   uint32_t tableId_ = 0;
   uint16_t index_ = 0;
};

Zop::String valueToStrep(const GlobalFecId& id);
std::ostream& operator<<(std::ostream& os, const GlobalFecId& id);

// VRF name to FIB table id.
class VrfTableStatus : public Zop::PtrInterface {
public:
   class Notifiee : public Zop::BaseNotifiee<VrfTableStatus> {
   public:
      virtual void handleFibTableId(const L3::VrfName&) {}
   };
   void fibTableIdIs(const L3::VrfName& name, uint32_t id) { fibTableId_.is(*this, name, id); }
   void fibTableIdDel(const L3::VrfName& name) { fibTableId_.del(*this, name); }
   const uint32_t* fibTableId(const L3::VrfName& name) const { return fibTableId_.find(name); }
   Zop::NotifierList<Notifiee>& notifieeList() { return notifiees_; }

private:
   Zop::NotifierList<Notifiee> notifiees_;
   Zop::HashMapAttr<VrfTableStatus, L3::VrfName, uint32_t> fibTableId_{&Notifiee::handleFibTableId};
};

}  // namespace Quarn::Fib

template <>
struct std::hash<Quarn::Fib::GlobalFecId> {
   size_t operator()(const Quarn::Fib::GlobalFecId& id) const noexcept {
      return Pexo::hashCombine(0, id.value());
   }
};
