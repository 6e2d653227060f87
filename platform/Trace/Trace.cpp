#include "Trace/Trace.h"

#include <algorithm>
#include <cstring>
#include <ostream>
#include <streambuf>

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

// Appends what is streamed to a string. There is no put area, so each
// piece is one virtual call; a line is a handful of pieces.
class TextBuf : public std::streambuf {
public:
   Zop::String text;

protected:
   int_type overflow(int_type c) override {
      if (!traits_type::eq_int_type(c, traits_type::eof())) {
         text.push_back(traits_type::to_char_type(c));
      }
      return traits_type::not_eof(c);
   }
   std::streamsize xsputn(const char_type* s, std::streamsize n) override {
      text.append(s, size_t(n));
      return n;
   }
};

struct LineStream {
   TextBuf buf;
   std::ostream os{&buf};
   bool busy = false;

   // Whatever the last line did to the stream's format does not carry over.
   void reset() {
      os.clear();
      os.flags(std::ios_base::dec | std::ios_base::skipws);
      os.precision(6);
      os.width(0);
      os.fill(' ');
      buf.text.clear();
   }
};

}  // namespace detail

namespace {

// The shared stream, and those of lines formatted inside another line's
// formatting. Never destroyed, so tracing works during shutdown.
detail::LineStream& sharedLineStream() {
   static auto* shared = new detail::LineStream;
   return *shared;
}

}  // namespace

namespace {

detail::LineStream* takeLineStream(bool& shared) {
   detail::LineStream& s = sharedLineStream();
   shared = !s.busy;
   detail::LineStream* ls = shared ? &s : new detail::LineStream;
   ls->busy = true;
   ls->reset();
   return ls;
}

}  // namespace

LineWriter::LineWriter(Level level, std::string_view function)
    : level_(level), shared_(false), ls_(takeLineStream(shared_)), text_(ls_->buf.text, ls_->os) {
   ls_->buf.text.append(function);
}

LineWriter::~LineWriter() {
   if (shared_) {
      ls_->busy = false;
   } else {
      delete ls_;
   }
}

void LineWriter::write() {
   current().writeLine(level_, std::string_view(ls_->buf.text));
}

Ringlog::Ringlog(size_t capacity) : capacity_(capacity) {
   if (capacity == 0) {
      throw Zop::RangeError("Ringlog capacity must be at least 1");
   }
}

void Ringlog::append(uint64_t sequence, Level level, std::string_view text) {
   if (next_ == slots_.size()) {
      slots_.resize(std::min(capacity_, std::max<size_t>(64, 2 * slots_.size())));
   }
   Slot& slot = slots_[next_];
   slot.sequence = sequence;
   slot.level = level;
   slot.length = uint32_t(text.size());
   if (text.size() <= kInlineText) {
      std::memcpy(slot.text, text.data(), text.size());
   } else {
      long_[next_].assign(text);
   }
   next_ = next_ + 1 == capacity_ ? 0 : next_ + 1;
   size_ = std::min(size_ + 1, capacity_);
}

std::string_view Ringlog::text(size_t slot) const {
   const Slot& s = slots_[slot];
   return s.length <= kInlineText ? std::string_view(s.text, s.length)
                                  : std::string_view(long_.at(slot));
}

void Ringlog::clear() {
   size_ = 0;
   next_ = 0;
}

std::vector<Line> Ringlog::lines(size_t n) const {
   n = std::min(n, size_);
   std::vector<Line> out;
   out.reserve(n);
   // Until the ring is full next_ is the count, and the oldest line slot 0.
   const size_t first = (next_ + capacity_ - n) % capacity_;
   for (size_t i = 0; i < n; ++i) {
      const size_t slot = (first + i) % capacity_;
      out.push_back(Line{slots_[slot].sequence, slots_[slot].level, Zop::String(text(slot))});
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
   ring_.append(line);
}

void Duolog::writeLine(Level level, std::string_view text) {
   if (!enabled(level)) {
      return;
   }
   ++sequence_;
   if (sink_) {
      sink_(Line{sequence_, level, Zop::String(text)});
   }
   ring_.append(sequence_, level, text);
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
