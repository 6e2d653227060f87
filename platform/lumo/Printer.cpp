#include "lumo/Printer.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>

namespace lumo {

namespace {

// Length of the valid UTF-8 sequence starting at s[i], or 0 when there is
// none (overlong forms, surrogates and values past U+10FFFF are invalid).
size_t utf8Length(std::string_view s, size_t i) {
   const auto b = [&](size_t k) { return static_cast<unsigned char>(s[i + k]); };
   const auto cont = [&](size_t k) { return i + k < s.size() && (b(k) & 0xC0) == 0x80; };
   const unsigned char c = b(0);
   if (c < 0x80) {
      return 1;
   }
   if (c >= 0xC2 && c <= 0xDF) {
      return cont(1) ? 2 : 0;
   }
   if (c >= 0xE0 && c <= 0xEF) {
      if (!cont(1) || !cont(2)) {
         return 0;
      }
      if ((c == 0xE0 && b(1) < 0xA0) || (c == 0xED && b(1) >= 0xA0)) {
         return 0;
      }
      return 3;
   }
   if (c >= 0xF0 && c <= 0xF4) {
      if (!cont(1) || !cont(2) || !cont(3)) {
         return 0;
      }
      if ((c == 0xF0 && b(1) < 0x90) || (c == 0xF4 && b(1) >= 0x90)) {
         return 0;
      }
      return 4;
   }
   return 0;
}

void appendCodePoint(std::string& out, unsigned cp) {
   char buf[8];
   std::snprintf(buf, sizeof(buf), "\\u%04x", cp);
   out += buf;
}

}  // namespace

void StringSink::write(std::string_view data) {
   if (data.empty()) {
      return;
   }
   if (pieces_.empty() || pieces_.back().capacity() - pieces_.back().size() < data.size()) {
      const size_t next =
          pieces_.empty() ? kFirstPiece : std::min(kPiece, 2 * pieces_.back().capacity());
      pieces_.emplace_back().reserve(std::max(next, data.size()));
   }
   pieces_.back().append(data);
   size_ += data.size();
}

const std::string& StringSink::data() const {
   if (pieces_.size() != 1) {
      std::string joined;
      joined.reserve(size_);
      for (const std::string& piece : pieces_) {
         joined += piece;
      }
      pieces_.clear();
      pieces_.push_back(std::move(joined));
   }
   return pieces_.front();
}

void StringSink::clear() {
   pieces_.clear();
   size_ = 0;
}

std::string jsonQuote(std::string_view s) {
   std::string out;
   out.reserve(s.size() + 2);
   out += '"';
   for (size_t i = 0; i < s.size();) {
      const auto c = static_cast<unsigned char>(s[i]);
      switch (c) {
         case '"':
            out += "\\\"";
            ++i;
            continue;
         case '\\':
            out += "\\\\";
            ++i;
            continue;
         case '\n':
            out += "\\n";
            ++i;
            continue;
         case '\r':
            out += "\\r";
            ++i;
            continue;
         case '\t':
            out += "\\t";
            ++i;
            continue;
         default:
            break;
      }
      if (c < 0x20 || c == 0x7F) {
         appendCodePoint(out, c);
         ++i;
         continue;
      }
      const size_t n = utf8Length(s, i);
      if (n == 0) {
         appendCodePoint(out, c);
         ++i;
         continue;
      }
      out.append(s.substr(i, n));
      i += n;
   }
   out += '"';
   return out;
}

Printer::Printer(Zop::Ptr<OutputSink> sink, Format format)
    : sink_(std::move(sink)), format_(format) {}

void Printer::emit(std::string_view s) {
   buffer_.append(s);
   produced_ += s.size();
}

void Printer::member(std::string_view key) {
   if (!open_.empty()) {
      if (open_.back()) {
         emit(", ");
      }
      open_.back() = true;
   }
   emit(jsonQuote(key));
   emit(": ");
}

void Printer::open() {
   emit("{");
   open_.push_back(false);
}

void Printer::close() {
   if (!open_.empty()) {
      open_.pop_back();
      emit("}");
   }
}

void Printer::value(const Attr& a) {
   std::visit(
       [&](const auto& v) {
          member(v.name);
          if constexpr (std::is_same_v<std::decay_t<decltype(v)>, StrAttr>) {
             emit(jsonQuote(v.value));
          } else {
             emit(std::to_string(v.value));
          }
       },
       a);
}

void Printer::start() {
   if (json()) {
      open();
   }
}

void Printer::end() {
   if (json()) {
      while (!open_.empty()) {
         close();
      }
      emit("\n");
   }
}

void Printer::startDict(std::string_view key) {
   if (json()) {
      member(key);
      open();
   }
}

void Printer::endDict() {
   if (json()) {
      close();
   }
}

void Printer::startDictEntry(const Attr& key) {
   if (!json()) {
      return;
   }
   std::visit(
       [&](const auto& v) {
          if constexpr (std::is_same_v<std::decay_t<decltype(v)>, StrAttr>) {
             member(v.value);
          } else {
             member(std::to_string(v.value));
          }
       },
       key);
   open();
}

void Printer::endDictEntry() {
   if (json()) {
      close();
   }
}

void Printer::addAttributesJson(std::initializer_list<Attr> attrs) {
   if (json()) {
      for (const Attr& a : attrs) {
         value(a);
      }
   }
}

void Printer::addFrills(const char* format, ...) {
   if (json()) {
      return;
   }
   va_list args;
   va_start(args, format);
   va_list copy;
   va_copy(copy, args);
   char small[256];
   const int n = std::vsnprintf(small, sizeof(small), format, args);
   va_end(args);
   if (n >= 0 && size_t(n) < sizeof(small)) {
      emit(std::string_view(small, size_t(n)));
   } else if (n >= 0) {
      std::string big(size_t(n) + 1, '\0');
      std::vsnprintf(big.data(), big.size(), format, copy);
      big.resize(size_t(n));
      emit(big);
   }
   va_end(copy);
}

void Printer::ioflush() {
   if (!buffer_.empty() && sink_) {
      sink_->write(buffer_);
   }
   buffer_.clear();
}

}  // namespace lumo
