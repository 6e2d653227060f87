#pragma once
// A strict JSON reader for tests: what the printers write must parse, and
// tests compare it as data. Numbers are kept as their text (all ours are
// unsigned integers); an object keeps its members in order, duplicates
// included, and `at` finds the last member of a name (as most readers do).

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace test {

struct Json {
   enum class Kind { null, boolean, number, string, array, object };
   Kind kind = Kind::null;
   bool b = false;
   std::string text;  // number or string
   std::vector<Json> items;
   // An object's members: names[i] names values[i].
   std::vector<std::string> names;
   std::vector<Json> values;

   size_t size() const { return kind == Kind::object ? names.size() : items.size(); }
   const Json& at(std::string_view key) const {
      for (size_t i = names.size(); i-- > 0;) {
         if (names[i] == key) {
            return values[i];
         }
      }
      throw std::out_of_range("no member " + std::string(key));
   }
   bool has(std::string_view key) const {
      for (const auto& n : names) {
         if (n == key) {
            return true;
         }
      }
      return false;
   }
   const std::vector<std::string>& keys() const { return names; }
   uint64_t number() const { return std::stoull(text); }
};

class JsonReader {
public:
   explicit JsonReader(std::string_view s) : s_(s) {}

   // The one value the text holds (surrounding blanks allowed); throws
   // std::runtime_error naming the offset of the first fault.
   Json document() {
      Json v = value();
      blanks();
      if (i_ != s_.size()) {
         fail("trailing text");
      }
      return v;
   }

private:
   [[noreturn]] void fail(const std::string& why) const {
      throw std::runtime_error("JSON: " + why + " at offset " + std::to_string(i_));
   }
   void blanks() {
      while (i_ < s_.size() &&
             (s_[i_] == ' ' || s_[i_] == '\n' || s_[i_] == '\t' || s_[i_] == '\r')) {
         ++i_;
      }
   }
   void expect(char c) {
      blanks();
      if (i_ >= s_.size() || s_[i_] != c) {
         fail(std::string("expected '") + c + "'");
      }
      ++i_;
   }
   bool literal(std::string_view w) {
      if (s_.substr(i_, w.size()) == w) {
         i_ += w.size();
         return true;
      }
      return false;
   }
   static void appendUtf8(std::string& out, unsigned cp) {
      if (cp < 0x80) {
         out += char(cp);
      } else if (cp < 0x800) {
         out += char(0xC0 | (cp >> 6));
         out += char(0x80 | (cp & 0x3F));
      } else {
         out += char(0xE0 | (cp >> 12));
         out += char(0x80 | ((cp >> 6) & 0x3F));
         out += char(0x80 | (cp & 0x3F));
      }
   }
   std::string string() {
      expect('"');
      std::string out;
      while (true) {
         if (i_ >= s_.size()) {
            fail("unterminated string");
         }
         const auto c = static_cast<unsigned char>(s_[i_++]);
         if (c == '"') {
            return out;
         }
         if (c < 0x20) {
            fail("control character in string");
         }
         if (c >= 0x80) {
            // Raw bytes must be valid UTF-8 (RFC 8259 text is Unicode).
            const size_t n = c >= 0xF0 ? 4 : c >= 0xE0 ? 3 : c >= 0xC0 ? 2 : 0;
            if (n == 0 || c > 0xF4 || c < 0xC2 || i_ - 1 + n > s_.size()) {
               fail("invalid UTF-8");
            }
            unsigned cp = c & (0xFF >> (n + 1));
            for (size_t k = 1; k < n; ++k) {
               const auto cc = static_cast<unsigned char>(s_[i_ - 1 + k]);
               if ((cc & 0xC0) != 0x80) {
                  fail("invalid UTF-8");
               }
               cp = (cp << 6) | (cc & 0x3F);
            }
            const unsigned least = n == 2 ? 0x80 : n == 3 ? 0x800 : 0x10000;
            if (cp < least || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
               fail("invalid UTF-8");
            }
            out.append(s_.substr(i_ - 1, n));
            i_ += n - 1;
            continue;
         }
         if (c != '\\') {
            out += char(c);
            continue;
         }
         if (i_ >= s_.size()) {
            fail("bad escape");
         }
         const char e = s_[i_++];
         switch (e) {
            case '"':
               out += '"';
               break;
            case '\\':
               out += '\\';
               break;
            case '/':
               out += '/';
               break;
            case 'b':
               out += '\b';
               break;
            case 'f':
               out += '\f';
               break;
            case 'n':
               out += '\n';
               break;
            case 'r':
               out += '\r';
               break;
            case 't':
               out += '\t';
               break;
            case 'u': {
               if (i_ + 4 > s_.size()) {
                  fail("bad \\u escape");
               }
               unsigned cp = 0;
               for (int k = 0; k < 4; ++k) {
                  const char h = s_[i_++];
                  cp <<= 4;
                  if (h >= '0' && h <= '9') {
                     cp |= unsigned(h - '0');
                  } else if (h >= 'a' && h <= 'f') {
                     cp |= unsigned(h - 'a' + 10);
                  } else if (h >= 'A' && h <= 'F') {
                     cp |= unsigned(h - 'A' + 10);
                  } else {
                     fail("bad \\u escape");
                  }
               }
               appendUtf8(out, cp);
               break;
            }
            default:
               fail("bad escape");
         }
      }
   }
   Json value() {
      blanks();
      if (i_ >= s_.size()) {
         fail("value expected");
      }
      Json v;
      const char c = s_[i_];
      if (c == '{') {
         v.kind = Json::Kind::object;
         ++i_;
         blanks();
         if (i_ < s_.size() && s_[i_] == '}') {
            ++i_;
            return v;
         }
         while (true) {
            v.names.push_back(string());
            expect(':');
            v.values.push_back(value());
            blanks();
            if (i_ < s_.size() && s_[i_] == ',') {
               ++i_;
               continue;
            }
            expect('}');
            return v;
         }
      }
      if (c == '[') {
         v.kind = Json::Kind::array;
         ++i_;
         blanks();
         if (i_ < s_.size() && s_[i_] == ']') {
            ++i_;
            return v;
         }
         while (true) {
            v.items.push_back(value());
            blanks();
            if (i_ < s_.size() && s_[i_] == ',') {
               ++i_;
               continue;
            }
            expect(']');
            return v;
         }
      }
      if (c == '"') {
         v.kind = Json::Kind::string;
         v.text = string();
         return v;
      }
      if (literal("true") || literal("false")) {
         v.kind = Json::Kind::boolean;
         v.b = s_[i_ - 1] == 'e' && s_[i_ - 2] == 'u';
         return v;
      }
      if (literal("null")) {
         return v;
      }
      const size_t start = i_;
      if (i_ < s_.size() && s_[i_] == '-') {
         ++i_;
      }
      while (i_ < s_.size() && ((s_[i_] >= '0' && s_[i_] <= '9') || s_[i_] == '.' ||
                                s_[i_] == 'e' || s_[i_] == 'E' || s_[i_] == '+' || s_[i_] == '-')) {
         ++i_;
      }
      if (start == i_) {
         fail("value expected");
      }
      v.kind = Json::Kind::number;
      v.text = std::string(s_.substr(start, i_ - start));
      return v;
   }

   std::string_view s_;
   size_t i_ = 0;
};

inline Json parseJson(std::string_view s) {
   return JsonReader(s).document();
}

}  // namespace test
