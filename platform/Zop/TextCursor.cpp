#include "Zop/TextCursor.h"

#include <limits>

namespace Zop {

bool TextCursor::consume(std::string_view literal) {
   if (rest().substr(0, literal.size()) == literal) {
      pos_ += literal.size();
      return true;
   }
   return false;
}

void TextCursor::expect(std::string_view literal, std::string_view field) {
   if (!consume(literal)) {
      fail(field, "expected '" + String(literal) + "'");
   }
}

void TextCursor::expectEnd(std::string_view field) const {
   if (!atEnd()) {
      fail(field, "unexpected trailing text");
   }
}

uint64_t TextCursor::unsignedNumber(std::string_view field, uint64_t max) {
   std::string_view digits = takeWhile([](char ch) { return ch >= '0' && ch <= '9'; });
   if (digits.empty()) {
      fail(field, "expected a number");
   }
   if (digits.size() > 1 && digits[0] == '0') {
      fail(field, "leading zero in '" + String(digits) + "'");
   }
   uint64_t value = 0;
   for (char ch : digits) {
      uint64_t d = uint64_t(ch - '0');
      if (value > (std::numeric_limits<uint64_t>::max() - d) / 10) {
         fail(field, "number out of range: " + String(digits));
      }
      value = value * 10 + d;
   }
   if (value > max) {
      fail(field, "number out of range: " + String(digits));
   }
   return value;
}

bool TextCursor::boolean(std::string_view field) {
   if (consume("true")) {
      return true;
   }
   if (consume("false")) {
      return false;
   }
   fail(field, "expected true or false");
}

String TextCursor::quoted(std::string_view field) {
   expect("'", field);
   std::string_view body = takeWhile([](char ch) { return ch != '\''; });
   expect("'", field);
   return String(body);
}

void TextCursor::fail(std::string_view field, std::string_view reason) const {
   String where = atEnd() ? String("end of text") : "'" + String(rest().substr(0, 20)) + "'";
   throw ParseError(String(field), String(reason) + " at " + where);
}

}  // namespace Zop
