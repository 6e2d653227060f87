#pragma once
// Trace: the agent's debugging record of what the code decided and where it
// went.
//
// A call site writes one line per event:
//
//   void syncFibRouteHwId(...) {
//      TRACE8();                                     // "syncFibRouteHwId"
//      TRACE5(" Next Prefix: " << prefix << " hwId: " << hwId);
//                                 // "syncFibRouteHwId Next Prefix: 10.1.0.0/16 hwId: 7"
//      TRACE5_FN("getLpmHardwareId", " returned " << hwId);
//   }
//
// A line is the name of the function that writes it immediately followed by
// the streamed pieces; no separator is added, so pieces carry their own
// leading blank. TRACE5/TRACE8 name the enclosing function (__func__; inside a
// lambda that is "operator()", so use the _FN form there); TRACE5_FN/TRACE8_FN
// name a routine explicitly, for lines written on behalf of another routine.
// Tools and tests compare these lines literally, so the text carries no
// timestamp or anything else that varies; each line's sequence number and
// level are kept beside the text, not in it.
//
// Levels: 5 records decisions, 8 records function entries and the details
// around them. A Duolog records the lines whose level is at most its maximum
// level (default 5). When a level is off, a trace statement costs one load and
// one branch: the streamed expression is neither formatted nor evaluated, so
// it must not have side effects the code relies on.
//
// Values are written with their operator<<. uint8_t and int8_t print as
// characters; widen them (unsigned(x)) to get a number.
//
// Where lines go: the Duolog writes each line to both of its streams, the
// Ringlog (the last N lines in memory, for post-mortem dumps and tests) and the
// text trace (an optional std::ostream or callback).
//
// Which Duolog: library code is many layers deep and cannot be handed a logger
// in every call, so trace statements write to one process-wide current Duolog,
// Trace::current(). That is global state, which is the price of keeping the
// call sites one line long. To keep it from becoming something tests must
// patch, the current Duolog is only ever replaced for a scope:
//
//   Trace::Duolog log(8);
//   Trace::ScopedDuolog guard(log);   // traces now go to `log`
//   ...                               // previous Duolog restored at scope exit
//
// Outside every guard, lines go to a default Duolog (level 5, no text sink).
// Guards nest and must end in reverse order of creation; a Duolog must not be
// destroyed while it is current. Like the rest of the platform this runs on
// the agent's one reactor thread: nothing here is synchronised.

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <ostream>
#include <string_view>
#include <type_traits>
#include <unordered_map>
#include <vector>

#include "Zop/String.h"

namespace Trace {

using Level = int;
constexpr Level kDecisions = 5;
constexpr Level kFunctions = 8;

struct Line {
   // 1 for the first line a Duolog records, then consecutive.
   uint64_t sequence = 0;
   Level level = 0;
   Zop::String text;

   bool operator==(const Line&) const = default;
};

// The last `capacity` lines, oldest overwritten first.
//
// A busy agent writes a line at level 5 for nearly every item, so a line is
// kept where writing it costs least: the slots are one array, each holding a
// line's text in place up to kInlineText characters (longer texts, rare,
// each in a string of their own), and the lines go into it one after the
// other. Strings of their own, one per slot, scattered over the heap, made
// every line two cache misses, a twentieth of a full table's enable.
class Ringlog {
public:
   static constexpr size_t kDefaultCapacity = 4096;
   static constexpr size_t kInlineText = 112;

   // A capacity of 0 is a RangeError: a ring that keeps nothing is a
   // configuration mistake, not a way to switch tracing off (use the level).
   explicit Ringlog(size_t capacity = kDefaultCapacity);

   void append(const Line& line) { append(line.sequence, line.level, line.text); }
   void append(uint64_t sequence, Level level, std::string_view text);
   void clear();

   size_t capacity() const { return capacity_; }
   size_t size() const { return size_; }

   // The last min(n, size()) lines, oldest first.
   std::vector<Line> lines(size_t n) const;
   std::vector<Line> lines() const { return lines(size()); }
   // The same, text only.
   std::vector<Zop::String> texts(size_t n) const;
   std::vector<Zop::String> texts() const { return texts(size()); }

private:
   struct Slot {
      uint64_t sequence;
      Level level;
      uint32_t length;
      char text[kInlineText];
   };
   std::string_view text(size_t slot) const;

   size_t capacity_;
   // Grows up to capacity_, then is used as a ring; next_ is the slot the
   // next line overwrites, which is also the oldest line once full.
   std::vector<Slot> slots_;
   // The texts longer than kInlineText, by slot.
   std::unordered_map<size_t, Zop::String> long_;
   size_t size_ = 0;
   size_t next_ = 0;
};

using TextSink = std::function<void(const Line&)>;

class Duolog {
public:
   explicit Duolog(Level maxLevel = kDecisions, size_t ringCapacity = Ringlog::kDefaultCapacity);
   ~Duolog();
   Duolog(const Duolog&) = delete;
   Duolog& operator=(const Duolog&) = delete;

   Level maxLevel() const { return maxLevel_; }
   void setMaxLevel(Level level);
   bool enabled(Level level) const { return level <= maxLevel_; }

   // The text trace receives exactly the lines the ring does. A stream gets
   // each line's text and a newline, unflushed (the ring is the record that
   // survives a crash; flushing every level-8 line would be too slow).
   // The stream must outlive its use by this Duolog.
   void setTextStream(std::ostream& os);
   void setTextSink(TextSink sink);
   void clearTextSink();

   // Records `function` immediately followed by `pieces`, if `level` is on.
   void write(Level level, std::string_view function, std::string_view pieces);
   // Records a line whose text is already complete.
   void writeLine(Level level, Zop::String text);
   void writeLine(Level level, std::string_view text);

   const Ringlog& ringlog() const { return ring_; }
   Ringlog& ringlog() { return ring_; }
   // Lines recorded so far (including those since dropped from the ring).
   uint64_t lineCount() const { return sequence_; }

private:
   Level maxLevel_;
   Ringlog ring_;
   TextSink sink_;
   uint64_t sequence_ = 0;
};

// The process-wide state is visible outside a shared library that embeds
// this code, so that such a library and the program using it resolve to one
// current Duolog instead of each tracing into its own copy.
#define TRACE_PROCESS_WIDE __attribute__((visibility("default")))

// The Duolog trace statements write to.
TRACE_PROCESS_WIDE Duolog& current();

class TRACE_PROCESS_WIDE ScopedDuolog {
public:
   explicit ScopedDuolog(Duolog& log);
   ~ScopedDuolog();
   ScopedDuolog(const ScopedDuolog&) = delete;
   ScopedDuolog& operator=(const ScopedDuolog&) = delete;

private:
   Duolog* installed_;
   Duolog* previous_;  // nullptr: the default Duolog
};

namespace detail {
// The maximum level of the current Duolog, kept here so that a disabled trace
// statement reads one integer instead of following pointers.
extern TRACE_PROCESS_WIDE Level currentMaxLevel;
// The Duolog a guard installed; nullptr while none is active.
extern TRACE_PROCESS_WIDE Duolog* installed;
// Where lines go outside every guard: level 5, no text sink. Created on
// first use and never destroyed, so tracing works at any point of start-up
// and shutdown.
TRACE_PROCESS_WIDE Duolog& defaultDuolog();
}  // namespace detail

inline bool enabled(Level level) {
   return level <= detail::currentMaxLevel;
}

// Collects one line for the macros; the function name goes first so that the
// stream's contents are the finished text.
//
// At level 5 a busy agent writes a line for nearly every item it handles, so
// a line must cost its formatting and little else. Constructing a stream
// sets up its locale, which costs more than formatting a short line; so
// lines are formatted into one stream kept for the purpose (its format state
// reset for each line), and the ring copies the text into the slot it
// overwrites, whose buffer is already the right size. A line formatted while
// another is (an operator<< that traces) gets a stream of its own.
//
// The pieces most lines are made of (text, characters, integers, and the
// types that offer an appendTraceText(std::string&, const T&) found by
// argument-dependent lookup, as addresses, prefixes and ids do) are appended
// to the line directly, exactly as the stream would write them in its
// default format: going through std::ostream, with its sentry and its
// virtual calls for each piece, was most of a line's cost. Anything else is
// written by the stream, into the same text; once something leaves the
// stream's format changed (a manipulator such as std::hex or std::setw),
// every later piece of the line goes through the stream too.
namespace detail {
struct LineStream;
}

class LineText {
public:
   LineText(Zop::String& text, std::ostream& os) : text_(text), os_(os) {}

   LineText& operator<<(std::string_view v) {
      if (viaStream_) {
         os_ << v;
      } else {
         text_.append(v);
      }
      return *this;
   }
   LineText& operator<<(const char* v) { return *this << std::string_view(v); }
   LineText& operator<<(const Zop::String& v) { return *this << std::string_view(v); }
   LineText& operator<<(char v) {
      if (viaStream_) {
         os_ << v;
      } else {
         text_.push_back(v);
      }
      return *this;
   }
   LineText& operator<<(signed char v) { return *this << char(v); }
   LineText& operator<<(unsigned char v) { return *this << char(v); }
   LineText& operator<<(bool v) {
      if (viaStream_) {
         os_ << v;  // perhaps std::boolalpha
      } else {
         text_.push_back(v ? '1' : '0');
      }
      return *this;
   }
   template <class T>
   requires std::is_integral_v<T> LineText& operator<<(T v) {
      if (viaStream_) {
         os_ << v;
      } else {
         char buf[24];
         text_.append(buf, size_t(std::to_chars(buf, buf + sizeof buf, v).ptr - buf));
      }
      return *this;
   }
   template <class T>
   requires(!std::is_integral_v<T> && !std::is_convertible_v<const T&, std::string_view>) LineText&
   operator<<(const T& v) {
      if constexpr (requires(Zop::String & out) { appendTraceText(out, v); }) {
         if (!viaStream_) {
            appendTraceText(text_, v);
            return *this;
         }
      }
      os_ << v;
      noteFormat();
      return *this;
   }
   // Manipulators.
   LineText& operator<<(std::ostream& (*f)(std::ostream&)) {
      os_ << f;
      noteFormat();
      return *this;
   }
   LineText& operator<<(std::ios_base& (*f)(std::ios_base&)) {
      os_ << f;
      noteFormat();
      return *this;
   }

private:
   // After the stream wrote something: if that changed its format, the
   // rest of the line keeps to it.
   void noteFormat() {
      if (!viaStream_ && (os_.flags() != (std::ios_base::dec | std::ios_base::skipws) ||
                          os_.width() != 0 || os_.precision() != 6 || os_.fill() != ' ')) {
         viaStream_ = true;
      }
   }

   Zop::String& text_;
   std::ostream& os_;  // appends to text_
   bool viaStream_ = false;
};

class LineWriter {
public:
   LineWriter(Level level, std::string_view function);
   ~LineWriter();
   LineWriter(const LineWriter&) = delete;
   LineWriter& operator=(const LineWriter&) = delete;
   LineText& stream() { return text_; }
   void write();

private:
   Level level_;
   // Set when this line took the shared stream, which it gives back;
   // otherwise ls_ is its own.
   bool shared_ = false;
   detail::LineStream* ls_;
   LineText text_;
};

}  // namespace Trace

#define TRACE_AT(level, function, ...)                              \
   do {                                                             \
      if (::Trace::enabled(level)) [[unlikely]] {                   \
         ::Trace::LineWriter traceLineWriter_((level), (function)); \
         traceLineWriter_.stream() __VA_OPT__(<< __VA_ARGS__);      \
         traceLineWriter_.write();                                  \
      }                                                             \
   } while (0)

#define TRACE5(...) TRACE_AT(::Trace::kDecisions, __func__, __VA_ARGS__)
#define TRACE8(...) TRACE_AT(::Trace::kFunctions, __func__, __VA_ARGS__)
#define TRACE5_FN(function, ...) TRACE_AT(::Trace::kDecisions, function, __VA_ARGS__)
#define TRACE8_FN(function, ...) TRACE_AT(::Trace::kFunctions, function, __VA_ARGS__)
