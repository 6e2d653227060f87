#include "Quarn/GlobalFecId.h"

#include <ostream>

namespace Quarn::Fib {

GlobalFecId::GlobalFecId(Zop::TextCursor& c) {
   c.expect("Value('Quarn::Fib::GlobalFecId', ** {'type': ", "type");
   type_ = uint8_t(c.unsignedNumber("type", 255));
   c.expect(", 'tableId': ", "tableId");
   tableId_ = uint32_t(c.unsignedNumber("tableId", 0xFFFFFFFF));
   c.expect(", 'index': ", "index");
   index_ = uint16_t(c.unsignedNumber("index", 0xFFFF));
   c.expect("})", "value");
}

Zop::String valueToStrep(const GlobalFecId& id) {
   return "Value('Quarn::Fib::GlobalFecId', ** {'type': " + std::to_string(id.type()) +
          ", 'tableId': " + std::to_string(id.tableId()) +
          ", 'index': " + std::to_string(id.index()) + "})";
}

std::ostream& operator<<(std::ostream& os, const GlobalFecId& id) {
   return os << valueToStrep(id);
}

}  // namespace Quarn::Fib
