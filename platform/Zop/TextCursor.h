#pragma once
// A read position in a text form. Parsers of value types consume their own
// text form from a cursor token by token and throw ParseError naming the field
// that failed; nothing is produced from a partial parse.

#include <cstdint>
#include <string_view>

#include "Zop/Error.h"
#include "Zop/String.h"

namespace Zop {

class TextCursor {
public:
   explicit TextCursor(std::string_view text) : text_(text) {}

   std::string_view rest() const { return text_.substr(pos_); }
   size_t position() const { return pos_; }
   bool atEnd() const { return pos_ >= text_.size(); }
   char peek() const { return atEnd() ? '\0' : text_[pos_]; }

   // True, and consumed, when the rest starts with `literal`.
   bool consume(std::string_view literal);
   // The literal must come next; otherwise ParseError(field).
   void expect(std::string_view literal, std::string_view field);
   // Nothing may follow; otherwise ParseError(field).
   void expectEnd(std::string_view field) const;

   // The longest run of characters for which `pred` holds (may be empty).
   template <class Pred>
   std::string_view takeWhile(Pred pred) {
      size_t start = pos_;
      while (pos_ < text_.size() && pred(text_[pos_])) {
         ++pos_;
      }
      return text_.substr(start, pos_ - start);
   }

   // A decimal number without sign or leading blanks, at most `max`.
   uint64_t unsignedNumber(std::string_view field, uint64_t max);
   // "true" or "false".
   bool boolean(std::string_view field);
   // A single-quoted string without escapes ('name').
   String quoted(std::string_view field);

   [[noreturn]] void fail(std::string_view field, std::string_view reason) const;

private:
   std::string_view text_;
   size_t pos_ = 0;
};

// Parses a whole text into a T, which must offer a constructor from a
// TextCursor (or a specialisation of parseValue). Trailing text is an error.
template <class T>
T parseValue(TextCursor& c) {
   return T(c);
}

template <class T>
T strepToValue(std::string_view text) {
   TextCursor c(text);
   T value = parseValue<T>(c);
   c.expectEnd("value");
   return value;
}

}  // namespace Zop
