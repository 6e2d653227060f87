#include <gtest/gtest.h>

#include <random>

#include "lumo/Printer.h"
#include "support/Json.h"

namespace {

// The same call sequence, printed in one format.
std::string print(lumo::Format format, const std::string& name) {
   auto sink = Zop::makePtr<lumo::StringSink>();
   lumo::Printer p(sink, format);
   p.start();
   p.startDict("vrfs");
   p.addFrills("VRF: %s\n", name.c_str());
   p.startDictEntry(lumo::StrAttr{"vrf", name});
   p.startDict("segments");
   p.startDictEntry(lumo::StrAttr{"segmentName", "web"});
   p.addAttributesJson({lumo::U32Attr{"hardwareId", 7}, lumo::U64Attr{"big", ~uint64_t(0)},
                        lumo::StrAttr{"routeType", "S,F"}});
   p.addFrills("%-5s|%3u\n", "web", 7u);
   p.endDictEntry();
   p.startDictEntry(lumo::StrAttr{"segmentName", "db"});
   p.endDictEntry();
   p.endDict();
   p.endDictEntry();
   p.endDict();
   p.end();
   EXPECT_TRUE(p.balanced());
   p.ioflush();
   return sink->data();
}

TEST(Printer, TextKeepsOnlyFrillsAndJsonOnlyStructure) {
   EXPECT_EQ(print(lumo::Format::text, "red"), "VRF: red\nweb  |  7\n");
   EXPECT_EQ(print(lumo::Format::json, "red"),
             "{\"vrfs\": {\"red\": {\"segments\": {\"web\": {\"hardwareId\": 7, \"big\": "
             "18446744073709551615, \"routeType\": \"S,F\"}, \"db\": {}}}}}\n");
}

// Random text of code points of every UTF-8 length (no surrogates), as bytes.
std::string randomUtf8(std::mt19937& rng) {
   std::string out;
   const size_t len = rng() % 10;
   for (size_t i = 0; i < len; ++i) {
      unsigned cp = 0;
      switch (rng() % 4) {
         case 0:
            cp = rng() % 0x80;
            break;
         case 1:
            cp = 0x80 + rng() % (0x800 - 0x80);
            break;
         case 2:
            do {
               cp = 0x800 + rng() % (0x10000 - 0x800);
            } while (cp >= 0xD800 && cp <= 0xDFFF);
            break;
         default:
            cp = 0x10000 + rng() % (0x110000 - 0x10000);
            break;
      }
      if (cp < 0x80) {
         out += char(cp);
      } else if (cp < 0x800) {
         out += char(0xC0 | (cp >> 6));
         out += char(0x80 | (cp & 0x3F));
      } else if (cp < 0x10000) {
         out += char(0xE0 | (cp >> 12));
         out += char(0x80 | ((cp >> 6) & 0x3F));
         out += char(0x80 | (cp & 0x3F));
      } else {
         out += char(0xF0 | (cp >> 18));
         out += char(0x80 | ((cp >> 12) & 0x3F));
         out += char(0x80 | ((cp >> 6) & 0x3F));
         out += char(0x80 | (cp & 0x3F));
      }
   }
   return out;
}

// Valid UTF-8 names come back unchanged, quotes, backslashes and control
// characters included; any bytes at all still give well-formed JSON.
TEST(Printer, JsonIsWellFormedWhateverTheNamesHold) {
   std::mt19937 rng(20261121);
   for (int round = 0; round < 2000; ++round) {
      const std::string name = randomUtf8(rng);
      const std::string out = print(lumo::Format::json, name);
      test::Json doc;
      ASSERT_NO_THROW(doc = test::parseJson(out)) << out;
      const test::Json& vrfs = doc.at("vrfs");
      ASSERT_EQ(vrfs.size(), 1u);
      EXPECT_EQ(vrfs.names[0], name) << out;
      EXPECT_EQ(vrfs.values[0].at("segments").at("web").at("hardwareId").number(), 7u);
   }
   const std::vector<std::string> broken = {
       "\xff\xfe", "\xc3", "\xed\xa0\x80", "\xc0\xaf", "\xf4\x90\x80\x80", "ok\xe2\x82"};
   for (int round = 0; round < 2000; ++round) {
      std::string name;
      if (round < int(broken.size())) {
         name = broken[size_t(round)];
      } else {
         const size_t len = rng() % 12;
         for (size_t i = 0; i < len; ++i) {
            name += char(rng() % 256);
         }
      }
      const std::string out = print(lumo::Format::json, name);
      ASSERT_NO_THROW(test::parseJson(out)) << out;
   }
}

TEST(Printer, OutputIsStreamedAcrossFlushes) {
   auto sink = Zop::makePtr<lumo::StringSink>();
   lumo::Printer p(sink, lumo::Format::json);
   p.start();
   p.startDict("vrfs");
   p.startDictEntry(lumo::StrAttr{"vrf", "a"});
   p.endDictEntry();
   p.ioflush();
   const std::string first = sink->data();
   EXPECT_EQ(first, "{\"vrfs\": {\"a\": {}");
   p.startDictEntry(lumo::StrAttr{"vrf", "b"});
   p.endDictEntry();
   // end() closes whatever is still open.
   p.end();
   p.ioflush();
   EXPECT_EQ(sink->data(), "{\"vrfs\": {\"a\": {}, \"b\": {}}}\n");
   EXPECT_EQ(p.bytesProduced(), sink->data().size());
}

// The sink keeps its output in pieces; whatever the sizes of the writes
// (empty, tiny, past a piece, several pieces at once) and whenever it is
// read, it holds exactly what was written, in order.
TEST(StringSink, HoldsEveryWriteInOrderAcrossPieces) {
   std::mt19937_64 rng(7);
   auto sink = Zop::makePtr<lumo::StringSink>();
   std::string expected;
   const size_t sizes[] = {0,
                           1,
                           17,
                           lumo::StringSink::kFirstPiece - 1,
                           lumo::StringSink::kFirstPiece + 1,
                           lumo::StringSink::kPiece - 3,
                           lumo::StringSink::kPiece,
                           3 * lumo::StringSink::kPiece + 5};
   for (int i = 0; i < 60; ++i) {
      const size_t n = sizes[rng() % std::size(sizes)];
      std::string data(n, char('a' + i % 26));
      if (n > 0) {
         data.back() = char('0' + i % 10);
      }
      sink->write(data);
      expected += data;
      ASSERT_EQ(sink->size(), expected.size());
      if (rng() % 8 == 0) {
         ASSERT_EQ(sink->data(), expected) << "after write " << i;
      }
   }
   EXPECT_EQ(sink->data(), expected);
   sink->clear();
   EXPECT_EQ(sink->size(), 0u);
   EXPECT_EQ(sink->data(), "");
   sink->write("x");
   EXPECT_EQ(sink->data(), "x");
}

}  // namespace
