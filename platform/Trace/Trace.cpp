#include "Trace/Trace.h"

#include <algorithm>
#include <ostream>

#include "Zop/Assert.h"
#include "Zop/Error.h"

namespace Trace {

namespace {

constexpr const char* kSource = "Trace/Trace";

void install(Duolog* log) {
   detail::installed = log;
   detail::currentMaxLevel = current().maxLevel();
}

}  // namespace

namespace detail {

// Matches the default Duolog's level, which is current until a guard says
// otherwise.
Level currentMaxLevel = kDecisions;
Duolog* installed = nullptr;

Duolog& defaultDuolog() {
   static Duolog* log = new Duolog;
   return *log;
}

}  // namespace detail

Ringlog::Ringlog(size_t capacity) : capacity_(capacity) {
   if (capacity == 0) {
      throw Zop::RangeError("Ringlog capacity must be at least 1");
   }
}

void Ringlog::append(Line line) {
   if (buffer_.size() < capacity_) {
      buffer_.push_back(std::move(line));
      return;
   }
   buffer_[next_] = std::move(line);
   next_ = (next_ + 1) % capacity_;
}

void Ringlog::clear() {
   buffer_.clear();
   next_ = 0;
}

std::vector<Line> Ringlog::lines(size_t n) const {
   n = std::min(n, buffer_.size());
   std::vector<Line> out;
   out.reserve(n);
   // Until the buffer is full next_ stays 0 and the oldest line is slot 0.
   size_t first = next_ + buffer_.size() - n;
   for (size_t i = 0; i < n; ++i) {
      out.push_back(buffer_[(first + i) % buffer_.size()]);
   }
   return out;
}

std::vector<Zop::String> Ringlog::texts(size_t n) const {
   std::vector<Zop::String> out;
   for (Line& line : lines(n)) {
      out.push_back(std::move(line.text));
   }
   return out;
}

Duolog::Duolog(Level maxLevel, size_t ringCapacity) : maxLevel_(maxLevel), ring_(ringCapacity) {}

Duolog::~Duolog() {
   ZOP_ASSERT(detail::installed != this, "a Duolog was destroyed while it was the current one",
              kSource);
}

void Duolog::setMaxLevel(Level level) {
   maxLevel_ = level;
   if (&current() == this) {
      detail::currentMaxLevel = level;
   }
}

void Duolog::setTextStream(std::ostream& os) {
   sink_ = [&os](const Line& line) { os << line.text << '\n'; };
}

void Duolog::setTextSink(TextSink sink) {
   sink_ = std::move(sink);
}

void Duolog::clearTextSink() {
   sink_ = nullptr;
}

void Duolog::write(Level level, std::string_view function, std::string_view pieces) {
   if (!enabled(level)) {
      return;
   }
   Zop::String text;
   text.reserve(function.size() + pieces.size());
   text.append(function).append(pieces);
   writeLine(level, std::move(text));
}

void Duolog::writeLine(Level level, Zop::String text) {
   if (!enabled(level)) {
      return;
   }
   Line line{++sequence_, level, std::move(text)};
   if (sink_) {
      sink_(line);
   }
   ring_.append(std::move(line));
}

Duolog& current() {
   return detail::installed ? *detail::installed : detail::defaultDuolog();
}

ScopedDuolog::ScopedDuolog(Duolog& log) : installed_(&log), previous_(detail::installed) {
   install(&log);
}

ScopedDuolog::~ScopedDuolog() {
   ZOP_ASSERT(detail::installed == installed_, "ScopedDuolog guards ended out of order", kSource);
   install(previous_);
}

}  // namespace Trace
