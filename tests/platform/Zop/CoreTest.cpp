// Reference counting, text parsing, the generic value interface and fatal
// assertions.

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <unordered_set>
#include <utility>

#include "Zop/Assert.h"
#include "Zop/Error.h"
#include "Zop/Ptr.h"
#include "Zop/TextCursor.h"
#include "Zop/Value.h"

namespace ZopCoreTest {

// A value type with the text form "w=<number up to 1000>".
struct Weight {
   Weight() = default;
   explicit Weight(Zop::TextCursor& c) {
      c.expect("w=", "weight");
      value = uint32_t(c.unsignedNumber("weight", 1000));
   }
   bool operator==(const Weight&) const = default;
   uint32_t value = 0;
};

Zop::String valueToStrep(const Weight& w) {
   return "w=" + std::to_string(w.value);
}

}  // namespace ZopCoreTest

template <>
struct std::hash<ZopCoreTest::Weight> {
   size_t operator()(const ZopCoreTest::Weight& w) const noexcept { return w.value * 7919u; }
};

namespace ZopCoreTest {
namespace {

class Counted : public Zop::PtrInterface {
public:
   explicit Counted(int* destroyed) : destroyed_(destroyed) {}

private:
   ~Counted() override { ++*destroyed_; }
   int* destroyed_;
};

TEST(ZopPtrTest, LastPointerFreesThroughCopiesMovesAndAssignment) {
   int destroyed = 0;
   {
      Zop::Ptr<Counted> p = Zop::makePtr<Counted>(&destroyed);
      Counted* raw = p.ptr();
      Zop::Ptr<Counted> q = p;
      Zop::Ptr<Counted> m = std::move(q);
      EXPECT_FALSE(q);
      EXPECT_EQ(m, p);
      EXPECT_EQ(raw->references(), 2u);

      // Assigning a sole holder to itself, by copy, by move or from its raw
      // pointer, must neither free the object nor leave the holder empty.
      q = std::move(m);
      p = nullptr;
      Zop::Ptr<Counted>& alias = q;
      q = alias;
      q = std::move(alias);
      q = raw;
      EXPECT_EQ(q.ptr(), raw);
      EXPECT_EQ(raw->references(), 1u);
      EXPECT_EQ(destroyed, 0);

      Zop::PtrConst<Counted> reader = q;
      q = Zop::makePtr<Counted>(&destroyed);
      EXPECT_EQ(destroyed, 0) << "a const pointer still holds the first object";
      EXPECT_EQ(std::hash<Zop::PtrConst<Counted>>()(reader), std::hash<const Counted*>()(raw));
      reader = nullptr;
      EXPECT_EQ(destroyed, 1);
   }
   EXPECT_EQ(destroyed, 2);
}

void expectParseError(const std::function<void()>& parse, const std::string& field) {
   try {
      parse();
      ADD_FAILURE() << "parsed, expected an error naming " << field;
   } catch (const Zop::ParseError& e) {
      EXPECT_EQ(e.field(), field) << e.what();
      EXPECT_EQ(std::string(e.what()).rfind(field + ": ", 0), 0u) << e.what();
   }
}

TEST(ZopTextCursorTest, UnsignedNumberRejectsMalformedAndOutOfRange) {
   constexpr uint64_t kMax64 = std::numeric_limits<uint64_t>::max();
   auto number = [](std::string_view text, uint64_t max) {
      Zop::TextCursor c(text);
      return c.unsignedNumber("hwId", max);
   };
   EXPECT_EQ(number("0", 0), 0u);
   EXPECT_EQ(number("4294967295", 4294967295u), 4294967295u);
   EXPECT_EQ(number("18446744073709551615", kMax64), kMax64);
   for (std::string_view bad : {"", "x1", "-1", "007", "00", "4294967296", "18446744073709551616",
                                "99999999999999999999999"}) {
      SCOPED_TRACE(std::string(bad));
      expectParseError([&] { number(bad, bad.size() > 10 ? kMax64 : 4294967295u); }, "hwId");
   }

   // A number stops at the first non-digit and leaves the rest to the caller.
   Zop::TextCursor c("10/24");
   EXPECT_EQ(c.unsignedNumber("addr", 255), 10u);
   EXPECT_EQ(c.rest(), "/24");
   EXPECT_FALSE(c.consume("//"));
   EXPECT_EQ(c.position(), 2u);
   expectParseError([&] { c.expect(":", "sep"); }, "sep");
   c.expect("/", "sep");
   expectParseError([&] { c.expectEnd("len"); }, "len");
   EXPECT_EQ(c.unsignedNumber("len", 32), 24u);
   c.expectEnd("len");
}

TEST(ZopValueTest, ValueInterfaceRoundTripsThroughItsTextForm) {
   const Zop::ValueType& type = Zop::valueType<Weight>("Weight");
   EXPECT_STREQ(type.name, "Weight");

   void* parsed = type.fromStrep("w=7");
   void* copy = type.copy(parsed);
   void* fresh = type.construct();
   EXPECT_TRUE(type.equal(parsed, copy));
   EXPECT_FALSE(type.equal(parsed, fresh));
   EXPECT_EQ(type.hash(parsed), type.hash(copy));
   EXPECT_EQ(type.toStrep(copy), "w=7");
   EXPECT_EQ(type.toStrep(fresh), "w=0");
   type.destruct(parsed);
   type.destruct(copy);
   type.destruct(fresh);

   expectParseError([&] { type.destruct(type.fromStrep("w=7x")); }, "value");
   expectParseError([&] { type.destruct(type.fromStrep("v=1")); }, "weight");
}

void checkInvariant(bool holds) {
   ZOP_ASSERT(holds, "some text", "Src/Name");
}

TEST(ZopAssertDeathTest, FailedAssertionReportsTextSourceAndFunctionThenAborts) {
   checkInvariant(true);
   EXPECT_DEATH(checkInvariant(false),
                "assertion failed: some text\n  source: Src/Name\n  function: checkInvariant");
}

}  // namespace
}  // namespace ZopCoreTest
