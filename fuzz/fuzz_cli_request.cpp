// The CLI's request text under arbitrary bytes, over one small switch (two
// VRFs, nested segments, FIB routes beneath, live counters): every request
// completes and leaves nothing behind, and whatever it prints in JSON is a
// well-formed document. The first byte picks the output format.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>

#include "sim/Scenario.h"
#include "support/Json.h"

namespace {

sim::Scenario& scenario() {
   static sim::Scenario* s = [] {
      auto* sc = new sim::Scenario();
      const char* const lines[] = {"vrf red id 1",
                                   "vrf blue id 2 routing on",
                                   "fib red 10.1.1.0/24 adj 11",
                                   "fib red 10.1.0.0/16 adj 13",
                                   "fib blue 2001:db8:1::/48 adj 21",
                                   "segment red idle",
                                   "prefix red 10.1.0.0/16 web",
                                   "prefix red 10.1.1.0/25 db",
                                   "prefix blue 2001:db8::/32 app",
                                   "policy red db web p1",
                                   "counters red policy p1 10 2",
                                   "counters red segment db web 7 1",
                                   "counters red default-drop db 3",
                                   "firewall on",
                                   "settle"};
      std::ostringstream out;
      uint64_t n = 0;
      for (const char* line : lines) {
         if (!sc->runLine(line, "setup", ++n, out).ok()) {
            std::abort();
         }
      }
      return sc;
   }();
   return *s;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
   if (size == 0) {
      return 0;
   }
   sim::Switch& sw = scenario().sw();
   const auto format = (data[0] & 1) ? lumo::Format::json : lumo::Format::text;
   const std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
   const std::string out = sw.cliRequest(text, format);
   if (sw.cliRequestDir()->entryCount() != 0 ||
       sw.cli()->cliRequestDirSm()->activeCommands() != 0) {
      std::fprintf(stderr, "request did not complete\n");
      std::abort();
   }
   if (format == lumo::Format::json && !out.empty()) {
      try {
         test::parseJson(out);
      } catch (const std::exception& e) {
         std::fprintf(stderr, "%s\n%s\n", e.what(), out.c_str());
         std::abort();
      }
   }
   return 0;
}
