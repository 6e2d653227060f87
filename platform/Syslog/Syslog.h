#pragma once
// Syslog: the operator-facing messages of the agent.
//
// Every message is defined once at start-up with its name, severity, format
// text, explanation and recommended action; the definitions double as the
// operator documentation, so they are kept together in the Registry and can
// be listed. Code keeps the handle define() returns and raises the message
// through it:
//
//   auto conflict = registry->define({"SECURITY_SEGMENTATION_URPF_CONFIGURATION_CONFLICT",
//                                     Syslog::Severity::warning,
//                                     "uRPF on interface %s conflicts with segment %s", ...});
//   registry->raise(conflict, intfName, segmentName);
//
// The format text uses printf-style placeholders: %s takes a string, %d an
// integer, %u a non-negative integer, and %% writes a percent sign. Nothing
// else is accepted, and define() rejects a format that uses anything else, so
// a bad format is found at start-up rather than when the message is first
// raised. Arguments are checked against the placeholders when the message is
// raised: a wrong count or kind of argument is a RangeError, never a garbled
// or unsafe text. Integers are checked by value, not by C++ type: an int of 7
// fits %u, an int of -7 does not.
//
// Raised messages go to the Registry's Sink as Records. Programs install the
// sink that forwards them to the system log; tests and the CLI use a
// MemorySink. A Registry without a sink checks and formats, then drops the
// record.

#include <array>
#include <concepts>
#include <cstdint>
#include <iosfwd>
#include <map>
#include <span>
#include <string_view>
#include <type_traits>
#include <variant>
#include <vector>

#include "Zop/Ptr.h"
#include "Zop/String.h"

namespace Syslog {

// In the conventional order and numbering, 0 (most severe) to 7.
enum class Severity : uint8_t { emergency, alert, critical, error, warning, notice, info, debug };

// "emergency", "alert", ..., "debug".
std::string_view severityName(Severity severity);

struct Definition {
   // Upper-case letters, digits and underscores, e.g.
   // "SECURITY_SEGMENTATION_URPF_CONFIGURATION_CONFLICT".
   Zop::String name;
   Severity severity = Severity::info;
   Zop::String format;
   Zop::String explanation;
   Zop::String recommendedAction;

   bool operator==(const Definition&) const = default;
};

// One value for a placeholder: a string or an integer. Characters and bools
// are neither, and do not convert.
class Argument {
public:
   Argument(const char* text);
   Argument(std::string_view text) : value_(Zop::String(text)) {}
   Argument(const Zop::String& text) : value_(text) {}
   template <std::integral T>
   Argument(T value) {
      if constexpr (std::is_signed_v<T>) {
         value_ = int64_t(value);
      } else {
         value_ = uint64_t(value);
      }
   }
   Argument(bool) = delete;
   Argument(char) = delete;
   Argument(char8_t) = delete;
   Argument(char16_t) = delete;
   Argument(char32_t) = delete;
   Argument(wchar_t) = delete;

   bool isString() const { return std::holds_alternative<Zop::String>(value_); }
   // Appends the value as placeholder `conversion` ('s', 'd' or 'u') wants
   // it, or returns false when the value does not fit that placeholder.
   bool appendAs(char conversion, Zop::String& out) const;
   // For error messages: "string 'x'" or "integer -3".
   Zop::String describe() const;

private:
   std::variant<Zop::String, int64_t, uint64_t> value_;
};

class Message : public Zop::PtrInterface {
public:
   const Definition& definition() const { return definition_; }
   const Zop::String& name() const { return definition_.name; }
   Severity severity() const { return definition_.severity; }
   // The placeholders of the format in order, e.g. "sd" for "%s ... %d".
   const Zop::String& conversions() const { return conversions_; }

   // The format text with the placeholders replaced; RangeError when the
   // arguments do not match the placeholders.
   Zop::String format(std::span<const Argument> args) const;

private:
   friend class Registry;
   // Parses the format; RangeError for an unsupported placeholder.
   explicit Message(Definition definition);

   Definition definition_;
   // The format split at the placeholders: literals_[i] precedes
   // conversions_[i], and the last literal follows the last placeholder.
   std::vector<Zop::String> literals_;
   Zop::String conversions_;
};

using MessagePtr = Zop::PtrConst<Message>;

struct Record {
   Zop::String name;
   Severity severity = Severity::info;
   Zop::String text;

   // "NAME: text", the form the CLI shows.
   Zop::String line() const;
   bool operator==(const Record&) const = default;
};

class Sink : public Zop::PtrInterface {
public:
   virtual void deliver(const Record& record) = 0;
};

// Keeps every record delivered, in order.
class MemorySink : public Sink {
public:
   void deliver(const Record& record) override { records_.push_back(record); }
   const std::vector<Record>& records() const { return records_; }
   void clear() { records_.clear(); }
   // One "NAME: text" line per record.
   void print(std::ostream& os) const;

private:
   std::vector<Record> records_;
};

class Registry : public Zop::PtrInterface {
public:
   explicit Registry(Zop::Ptr<Sink> sink = nullptr) : sink_(std::move(sink)) {}

   const Zop::Ptr<Sink>& sink() const { return sink_; }
   void setSink(Zop::Ptr<Sink> sink) { sink_ = std::move(sink); }

   // Defines a message and returns its handle. Defining a name again with
   // the same fields returns the existing handle, so that modules which
   // share a message may each define it; with any field different it is a
   // RangeError, as is a malformed name or format.
   MessagePtr define(Definition definition);

   // nullptr when no message has that name.
   MessagePtr lookup(std::string_view name) const;
   // Every definition, ordered by name.
   std::vector<MessagePtr> definitions() const;

   // Formats `message` with `args` and delivers the record to the sink.
   // RangeError for arguments that do not match the placeholders, or for a
   // message this registry did not define.
   template <class... Args>
   void raise(const MessagePtr& message, const Args&... args) {
      const std::array<Argument, sizeof...(Args)> list{Argument(args)...};
      raiseWith(message, list);
   }
   void raiseWith(const MessagePtr& message, std::span<const Argument> args);

private:
   std::map<Zop::String, MessagePtr, std::less<>> messages_;
   Zop::Ptr<Sink> sink_;
};

}  // namespace Syslog
