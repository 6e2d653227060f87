#pragma once
// The command printer: one call sequence, two output formats.
//
// A command describes its output once: the formatted text lines ("frills")
// and, beside them, the structure of the same data (dictionaries, entries
// keyed by an attribute, and typed attributes). In text format the printer
// keeps only the frills; in JSON format only the structure:
//
//   start()                       {
//   startDict("vrfs")             "vrfs": {
//   startDictEntry(StrAttr{"vrf", "red"})   "red": {
//   addAttributesJson({U32Attr{"hardwareId", 1}})   "hardwareId": 1
//   endDictEntry() / endDict()    }
//   end()                         }\n
//
// Members are separated by commas as they come, so the output is streamed:
// ioflush() hands what has been produced so far to the output sink, and a
// command may print across several runs. Every key and string value is
// escaped, so the JSON is well formed whatever bytes a name holds (a byte
// that is not part of valid UTF-8 is written as the code point of its value).

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "Zop/Ptr.h"
#include "Zop/String.h"

namespace lumo {

enum class Format : uint32_t {
   text = 0,
   json = 1,
};

// Where a command's output goes (the request's socket, in the agent).
class OutputSink : public Zop::PtrInterface {
public:
   virtual void write(std::string_view data) = 0;
};

// An output sink that keeps everything written to it. The writes land in
// pieces, the first small and each next one twice the last up to kPiece,
// joined into one string when data() is read: one growing string copied all
// it held whenever it doubled, inside whichever write crossed the line (a
// 42 MB copy and 84 MB of fresh pages, 27 ms, inside one run of a command
// listing the full table). The string data() returns stays valid until the
// next write(), data() or clear().
class StringSink : public OutputSink {
public:
   static constexpr size_t kFirstPiece = size_t(1) << 12;
   static constexpr size_t kPiece = size_t(1) << 20;

   void write(std::string_view data) override;
   // Everything written so far, in one string.
   const std::string& data() const;
   size_t size() const { return size_; }
   void clear();

private:
   mutable std::vector<std::string> pieces_;
   size_t size_ = 0;
};

// Typed attribute holders.
struct StrAttr {
   std::string_view name;
   std::string_view value;
};
struct U32Attr {
   std::string_view name;
   uint32_t value;
};
struct U64Attr {
   std::string_view name;
   uint64_t value;
};
using Attr = std::variant<StrAttr, U32Attr, U64Attr>;

class Printer {
public:
   Printer(Zop::Ptr<OutputSink> sink, Format format);
   Printer(const Printer&) = delete;
   Printer& operator=(const Printer&) = delete;

   Format format() const { return format_; }

   void start();
   void end();
   void startDict(std::string_view key);
   void endDict();
   // An entry of the open dictionary, named by the attribute's value.
   void startDictEntry(const Attr& key);
   void endDictEntry();
   void addAttributesJson(std::initializer_list<Attr> attrs);
   // printf-style text; dropped in JSON format.
   void addFrills(const char* format, ...) __attribute__((format(printf, 2, 3)));
   // Hands the produced output to the sink.
   void ioflush();

   // Bytes produced since the printer was made (flushed or not).
   uint64_t bytesProduced() const { return produced_; }
   // Whether every object opened has been closed again.
   bool balanced() const { return open_.empty(); }

private:
   bool json() const { return format_ == Format::json; }
   void emit(std::string_view s);
   void member(std::string_view key);
   void open();
   void close();
   void value(const Attr& a);

   Zop::Ptr<OutputSink> sink_;
   Format format_;
   std::string buffer_;
   uint64_t produced_ = 0;
   // Per open JSON object: whether it has a member yet.
   std::vector<bool> open_;
};

// `s` as a JSON string literal, quotes included.
std::string jsonQuote(std::string_view s);

}  // namespace lumo
