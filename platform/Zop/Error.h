#pragma once
// Errors the framework raises for bad values coming from outside: a value out
// of its range (RangeError) or text that does not parse (ParseError). Both
// carry a message that names the offending field or value.

#include <stdexcept>

#include "Zop/String.h"

namespace Zop {

class RangeError : public std::out_of_range {
public:
   explicit RangeError(const String& what) : std::out_of_range(what) {}
};

class ParseError : public std::invalid_argument {
public:
   // `field` names what failed ("vrfPrefix", "hwId", "prefix", ...); `text`
   // is the reason.
   ParseError(const String& field, const String& text)
       : std::invalid_argument(field + ": " + text), field_(field) {}
   const String& field() const { return field_; }

private:
   String field_;
};

}  // namespace Zop
