#include "Syslog/Syslog.h"

#include <limits>
#include <ostream>

#include "Zop/Error.h"

namespace Syslog {

namespace {

constexpr std::array<std::string_view, 8> kSeverityNames = {
    "emergency", "alert", "critical", "error", "warning", "notice", "info", "debug"};

bool validName(std::string_view name) {
   if (name.empty()) {
      return false;
   }
   for (char ch : name) {
      if (!((ch >= 'A' && ch <= 'Z') || (ch >= '0' && ch <= '9') || ch == '_')) {
         return false;
      }
   }
   return true;
}

// The first field in which two definitions of one name differ.
const char* differingField(const Definition& a, const Definition& b) {
   if (a.severity != b.severity) {
      return "severity";
   }
   if (a.format != b.format) {
      return "format";
   }
   if (a.explanation != b.explanation) {
      return "explanation";
   }
   return "recommended action";
}

}  // namespace

std::string_view severityName(Severity severity) {
   size_t index = size_t(severity);
   return index < kSeverityNames.size() ? kSeverityNames[index] : "invalid";
}

Argument::Argument(const char* text) {
   if (text == nullptr) {
      throw Zop::RangeError("syslog argument: null string");
   }
   value_ = Zop::String(text);
}

bool Argument::appendAs(char conversion, Zop::String& out) const {
   if (const auto* text = std::get_if<Zop::String>(&value_)) {
      if (conversion != 's') {
         return false;
      }
      out += *text;
      return true;
   }
   if (conversion == 's') {
      return false;
   }
   if (const auto* value = std::get_if<int64_t>(&value_)) {
      if (conversion == 'u' && *value < 0) {
         return false;
      }
      out += std::to_string(*value);
      return true;
   }
   uint64_t value = std::get<uint64_t>(value_);
   if (conversion == 'd' && value > uint64_t(std::numeric_limits<int64_t>::max())) {
      return false;
   }
   out += std::to_string(value);
   return true;
}

Zop::String Argument::describe() const {
   if (const auto* text = std::get_if<Zop::String>(&value_)) {
      return "string '" + *text + "'";
   }
   if (const auto* value = std::get_if<int64_t>(&value_)) {
      return "integer " + std::to_string(*value);
   }
   return "integer " + std::to_string(std::get<uint64_t>(value_));
}

Message::Message(Definition definition) : definition_(std::move(definition)) {
   const Zop::String& format = definition_.format;
   Zop::String literal;
   for (size_t i = 0; i < format.size(); ++i) {
      if (format[i] != '%') {
         literal += format[i];
         continue;
      }
      if (i + 1 == format.size()) {
         throw Zop::RangeError("message " + name() + ": format ends with a lone '%'");
      }
      char conversion = format[++i];
      if (conversion == '%') {
         literal += '%';
      } else if (conversion == 's' || conversion == 'd' || conversion == 'u') {
         literals_.push_back(std::move(literal));
         literal.clear();
         conversions_ += conversion;
      } else {
         throw Zop::RangeError("message " + name() + ": unsupported placeholder '%" +
                               Zop::String(1, conversion) + "' in format (use %s, %d, %u or %%)");
      }
   }
   literals_.push_back(std::move(literal));
}

Zop::String Message::format(std::span<const Argument> args) const {
   if (args.size() != conversions_.size()) {
      throw Zop::RangeError("message " + name() + " takes " + std::to_string(conversions_.size()) +
                            " arguments, got " + std::to_string(args.size()));
   }
   Zop::String text = literals_[0];
   for (size_t i = 0; i < args.size(); ++i) {
      if (!args[i].appendAs(conversions_[i], text)) {
         throw Zop::RangeError("message " + name() + ": argument " + std::to_string(i + 1) +
                               " does not fit %" + Zop::String(1, conversions_[i]) + ": " +
                               args[i].describe());
      }
      text += literals_[i + 1];
   }
   return text;
}

Zop::String Record::line() const {
   return name + ": " + text;
}

void MemorySink::print(std::ostream& os) const {
   for (const Record& record : records_) {
      os << record.line() << '\n';
   }
}

MessagePtr Registry::define(Definition definition) {
   if (!validName(definition.name)) {
      throw Zop::RangeError("syslog message name '" + definition.name +
                            "' must be upper-case letters, digits and underscores");
   }
   if (size_t(definition.severity) >= kSeverityNames.size()) {
      throw Zop::RangeError("message " + definition.name + ": invalid severity " +
                            std::to_string(unsigned(definition.severity)));
   }
   auto it = messages_.find(definition.name);
   if (it != messages_.end()) {
      const Definition& existing = it->second->definition();
      if (existing == definition) {
         return it->second;
      }
      throw Zop::RangeError("message " + definition.name + " is already defined with a different " +
                            differingField(existing, definition));
   }
   MessagePtr message(new Message(std::move(definition)));
   messages_.emplace(message->name(), message);
   return message;
}

MessagePtr Registry::lookup(std::string_view name) const {
   auto it = messages_.find(name);
   return it == messages_.end() ? nullptr : it->second;
}

std::vector<MessagePtr> Registry::definitions() const {
   std::vector<MessagePtr> out;
   out.reserve(messages_.size());
   for (const auto& [name, message] : messages_) {
      out.push_back(message);
   }
   return out;
}

void Registry::raiseWith(const MessagePtr& message, std::span<const Argument> args) {
   if (!message) {
      throw Zop::RangeError("raise of a null syslog message");
   }
   auto it = messages_.find(message->name());
   if (it == messages_.end() || it->second != message) {
      throw Zop::RangeError("message " + message->name() + " is not defined in this registry");
   }
   Record record{message->name(), message->severity(), message->format(args)};
   if (sink_) {
      sink_->deliver(record);
   }
}

}  // namespace Syslog
