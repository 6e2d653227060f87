// Fuzzer bytes as a short history of scenario lines: each byte makes one
// choice of the history generator the history test uses, so every history is
// one the engine accepts, run with a yield at every item and judged after
// every settle (tests/support/History.h). A difference aborts the run, after
// printing the history as a scenario and what the judge found.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "support/History.h"

namespace {

class Bytes {
public:
   Bytes(const uint8_t* data, size_t size) : data_(data), size_(size) {}
   // The next byte; 0 once they are used up.
   uint64_t next() { return at_ < size_ ? data_[at_++] : 0; }

private:
   const uint8_t* data_;
   size_t size_;
   size_t at_ = 0;
};

constexpr size_t kMaxSteps = 48;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
   Bytes bytes(data, size);
   KivTest::Runner runner;
   const bool faults = bytes.next() % 2 == 1;
   KivTest::Generator gen([&bytes] { return bytes.next(); }, runner.sw(), faults,
                          std::min(size / 2, kMaxSteps));
   KivTest::Lines history;
   auto feed = [&](const KivTest::Lines& lines) {
      for (const auto& line : lines) {
         auto problems = runner.run(line);
         if (!problems) {
            continue;  // refused: not part of the history
         }
         history.push_back(line);
         if (problems->empty()) {
            continue;
         }
         std::fprintf(stderr, "--- history:\n");
         for (const auto& h : history) {
            std::fprintf(stderr, "%s\n", h.c_str());
         }
         std::fprintf(stderr, "check\n--- what the judge found:\n");
         for (const auto& p : *problems) {
            std::fprintf(stderr, "%s\n", p.c_str());
         }
         std::abort();
      }
   };
   feed(gen.opening());
   while (!gen.done()) {
      feed(gen.next(runner));
   }
   return 0;
}
