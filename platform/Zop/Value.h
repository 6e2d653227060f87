#pragma once
// The framework's generic value interface: what a container or a trace needs
// to handle a value type without knowing it (construct, destruct, copy, hash,
// compare for equality, text form, parse from text).
//
// A value type T takes part when it offers: a default constructor, copy,
// operator==, std::hash<T>, `valueToStrep(const T&)` found by argument
// dependent lookup, and a constructor from Zop::TextCursor (or a
// specialisation of Zop::parseValue<T>).

#include <functional>
#include <string_view>

#include "Zop/String.h"
#include "Zop/TextCursor.h"

namespace Zop {

struct ValueType {
   const char* name;
   void* (*construct)();
   void (*destruct)(void*);
   void* (*copy)(const void*);
   size_t (*hash)(const void*);
   bool (*equal)(const void*, const void*);
   String (*toStrep)(const void*);
   // Throws ParseError when the text is not a value of the type.
   void* (*fromStrep)(std::string_view);
};

template <class T>
const ValueType& valueType(const char* name) {
   static const ValueType type{
       name,
       []() -> void* { return new T(); },
       [](void* p) { delete static_cast<T*>(p); },
       [](const void* p) -> void* { return new T(*static_cast<const T*>(p)); },
       [](const void* p) { return std::hash<T>()(*static_cast<const T*>(p)); },
       [](const void* a, const void* b) {
          return *static_cast<const T*>(a) == *static_cast<const T*>(b);
       },
       [](const void* p) { return valueToStrep(*static_cast<const T*>(p)); },
       [](std::string_view text) -> void* { return new T(strepToValue<T>(text)); },
   };
   return type;
}

}  // namespace Zop
