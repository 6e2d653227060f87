#include "Trace/Trace.h"

#include <gtest/gtest.h>

#include <iomanip>
#include <ostream>
#include <sstream>

#include "Zop/Error.h"

namespace {

using Strings = std::vector<Zop::String>;

struct Prefix {
   const char* text;
};
std::ostream& operator<<(std::ostream& os, const Prefix& p) {
   return os << p.text;
}

void syncFibRouteHwId(const Prefix& prefix, unsigned hwId) {
   TRACE8();
   TRACE5(" Next Prefix: " << prefix << " hwId: " << hwId);
   TRACE5_FN("getLpmHardwareId", " returned " << hwId);
   TRACE8_FN("getLpmHardwareId", "(" << prefix << ")");
}

int evaluations = 0;
int sideEffect() {
   return ++evaluations;
}

void traceBothLevels() {
   TRACE5(" decision " << sideEffect());
   TRACE8(" entry " << sideEffect());
}

// A value whose printing traces, as a value that logs what it looks up would.
struct Noisy {
   int n;
};
std::ostream& operator<<(std::ostream& os, const Noisy& v) {
   TRACE5_FN("print", " noisy " << v.n);
   return os << std::hex << v.n;
}

}  // namespace

// Lines are formatted into a stream kept from line to line: what one line
// does to the stream's format must not show in the next, and a line
// formatted inside another's formatting must leave both whole.
TEST(Trace, LinesShareNoFormatAndNestWhole) {
   Trace::Duolog log(Trace::kDecisions, 3);
   Trace::ScopedDuolog guard(log);
   TRACE5_FN("a", " " << std::hex << std::showbase << 255 << std::setprecision(2) << 1.2345);
   TRACE5_FN("b",
             " " << 255 << " " << 1.2345 << " [" << std::setw(4) << std::setfill('*') << 1 << "]");
   TRACE5_FN("c", " " << 255 << " [" << 1 << "]");
   EXPECT_EQ(log.ringlog().texts(), (Strings{"a 0xff1.2", "b 255 1.2345 [***1]", "c 255 [1]"}));

   // The ring has gone round: every slot is reused, longer and shorter. The
   // inner line has a stream of its own; what the value does to the outer
   // stream holds for the rest of that line only.
   TRACE5_FN("outer", " " << Noisy{26} << " " << 26);
   TRACE5_FN("d", " " << 26);
   EXPECT_EQ(log.ringlog().texts(), (Strings{"print noisy 26", "outer 1a 1a", "d 26"}));
   EXPECT_EQ(log.lineCount(), 6u);
}

TEST(Trace, LinesAreFunctionNameFollowedByPieces) {
   Trace::Duolog log(Trace::kFunctions);
   Trace::ScopedDuolog guard(log);
   syncFibRouteHwId(Prefix{"10.1.0.0/16"}, 7);

   EXPECT_EQ(log.ringlog().texts(),
             (Strings{"syncFibRouteHwId", "syncFibRouteHwId Next Prefix: 10.1.0.0/16 hwId: 7",
                      "getLpmHardwareId returned 7", "getLpmHardwareId(10.1.0.0/16)"}));
   std::vector<Trace::Line> lines = log.ringlog().lines();
   ASSERT_EQ(lines.size(), 4u);
   EXPECT_EQ(lines[0].level, 8);
   EXPECT_EQ(lines[1].level, 5);
   EXPECT_EQ(lines[1].sequence, 2u);
}

TEST(Trace, DisabledLevelIsNeitherRecordedNorEvaluated) {
   Trace::Duolog log;  // level 5
   Trace::ScopedDuolog guard(log);
   evaluations = 0;
   traceBothLevels();
   EXPECT_EQ(evaluations, 1);
   EXPECT_EQ(log.ringlog().texts(), (Strings{"traceBothLevels decision 1"}));

   // Changing the level of the current Duolog takes effect at once.
   log.setMaxLevel(Trace::kFunctions);
   traceBothLevels();
   log.setMaxLevel(4);
   traceBothLevels();
   EXPECT_EQ(evaluations, 3);
   EXPECT_EQ(log.ringlog().texts(2),
             (Strings{"traceBothLevels decision 2", "traceBothLevels entry 3"}));
}

TEST(Trace, RingKeepsExactlyTheLastLinesInOrder) {
   Trace::Duolog log(Trace::kDecisions, 3);
   for (int i = 1; i <= 7; ++i) {
      log.write(5, "f", " " + std::to_string(i));
   }
   EXPECT_EQ(log.ringlog().texts(), (Strings{"f 5", "f 6", "f 7"}));
   EXPECT_EQ(log.ringlog().texts(2), (Strings{"f 6", "f 7"}));
   EXPECT_EQ(log.ringlog().texts(10).size(), 3u);
   EXPECT_EQ(log.ringlog().lines().front().sequence, 5u);
   EXPECT_EQ(log.lineCount(), 7u);

   // Texts longer than a slot holds, among short ones, overwriting and
   // overwritten as the ring goes round (and past its first growth).
   Trace::Ringlog partial(70);
   Strings all;
   for (uint64_t i = 1; i <= 200; ++i) {
      const size_t length = i % 3 == 0 ? Trace::Ringlog::kInlineText + i : i % 7;
      all.push_back(Zop::String(length, char('a' + i % 26)));
      partial.append({i, 5, all.back()});
      ASSERT_EQ(partial.size(), std::min<size_t>(i, 70));
   }
   EXPECT_EQ(partial.texts(), Strings(all.end() - 70, all.end()));
   EXPECT_EQ(partial.lines(1).front().sequence, 200u);
   partial.clear();
   partial.append({1, 5, "a"});
   partial.append({2, 5, "b"});
   EXPECT_EQ(partial.texts(), (Strings{"a", "b"}));
   EXPECT_THROW(Trace::Ringlog(0), Zop::RangeError);
}

TEST(Trace, BothStreamsReceiveTheSameLines) {
   Trace::Duolog log;
   std::ostringstream text;
   log.setTextStream(text);
   Trace::ScopedDuolog guard(log);
   traceBothLevels();
   syncFibRouteHwId(Prefix{"10.2.0.0/24"}, 9);

   Strings ring = log.ringlog().texts();
   EXPECT_EQ(ring.size(), 3u);
   Zop::String expected;
   for (const Zop::String& line : ring) {
      expected += line + "\n";
   }
   EXPECT_EQ(text.str(), expected);

   std::vector<Trace::Line> seen;
   log.setTextSink([&seen](const Trace::Line& line) { seen.push_back(line); });
   log.setMaxLevel(Trace::kFunctions);
   syncFibRouteHwId(Prefix{"10.3.0.0/24"}, 1);
   EXPECT_EQ(seen, log.ringlog().lines(4));
   EXPECT_EQ(text.str(), expected);  // replaced, not added to
}

TEST(Trace, ScopedDuologsNestAndRestore) {
   Trace::Duolog& original = Trace::current();
   Trace::Duolog outer;  // level 5
   {
      Trace::ScopedDuolog outerGuard(outer);
      Trace::Duolog inner(Trace::kFunctions);
      {
         Trace::ScopedDuolog innerGuard(inner);
         EXPECT_EQ(&Trace::current(), &inner);
         traceBothLevels();
      }
      EXPECT_EQ(&Trace::current(), &outer);
      evaluations = 0;
      traceBothLevels();  // back at the outer level: the entry line is off
      EXPECT_EQ(evaluations, 1);
      EXPECT_EQ(inner.ringlog().size(), 2u);
   }
   EXPECT_EQ(outer.ringlog().size(), 1u);
   EXPECT_EQ(&Trace::current(), &original);
}
