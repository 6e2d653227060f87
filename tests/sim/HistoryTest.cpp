// Random histories of kivsim scenario lines, run by the scenario engine over
// a switch whose every task yields after every item, judged after every
// settle. A failing history is shrunk (delta debugging) to a minimal scenario
// file, printed ready to go into tests/scenarios/.
//
//   KIV_HISTORIES=N      how many histories (seeds 1..N; default 400)
//   KIV_HISTORY_SEED=S   replays the history of seed S alone
//   KIV_CHURN_HISTORIES=N, KIV_CHURN_SEED=S
//                        the same for the fast-churn histories (default 300):
//                        lifecycle events in bursts a few slices apart, no
//                        hardware faults, settled only at the end of a burst
//
// The `soak` target runs thousands.
//
// The histories and their judge are in tests/support/History.h. A history
// that aborts (a broken invariant) or hangs (still running after a minute)
// fails too: replayed alone, each attempt runs in a child process, so it is
// shrunk like the others.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iostream>
#include <optional>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "support/History.h"

#if defined(__SANITIZE_ADDRESS__)
#define KIV_HISTORY_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KIV_HISTORY_SANITIZED 1
#endif
#endif
#ifdef KIV_HISTORY_SANITIZED
#include <sanitizer/common_interface_defs.h>
#endif

namespace {

using KivTest::Generator;
using KivTest::Lines;
using KivTest::Pace;
using KivTest::Runner;

// A history still running after this long is taken to hang.
constexpr unsigned kHistorySeconds = 60;

uint64_t envNumber(const char* name, uint64_t fallback) {
   const char* text = std::getenv(name);
   return text && *text ? std::strtoull(text, nullptr, 10) : fallback;
}

struct Verdict {
   enum class Kind : uint8_t { ok, failed, aborted, refused };
   Kind kind = Kind::ok;
   // The line it failed at (the settle judged, or the line that aborted).
   size_t at = 0;
   // The judge's lines, or what the aborting process printed.
   Lines details;
};

Verdict replay(const Lines& lines, const std::function<void(size_t)>& starting = {}) {
   Runner runner;
   for (size_t i = 0; i < lines.size(); ++i) {
      if (starting) {
         starting(i);
      }
      auto problems = runner.run(lines[i]);
      if (!problems) {
         return Verdict{Verdict::Kind::refused, i, {}};
      }
      if (!problems->empty()) {
         return Verdict{Verdict::Kind::failed, i, std::move(*problems)};
      }
   }
   return Verdict{};
}

struct Generated {
   Lines lines;
   Verdict verdict;
   uint64_t checks = 0;
   uint64_t faultyChecks = 0;
   uint64_t refusals = 0;  // writes the hardware refused
   uint64_t commands = 0;  // CLI commands judged
};

// The history of `seed`: its accepted lines, judged as they run; it stops at
// the first failure. `say` hears each line before it runs ("+LINE"), and "-"
// when the engine refused it.
Generated generate(uint64_t seed, Pace pace,
                   const std::function<void(const std::string&)>& say = {}) {
   Generated g;
   Runner runner;
   std::mt19937_64 rng(seed);
   // Half the steady histories make the hardware refuse writes; churn keeps
   // the judge strict.
   Generator gen =
       pace == Pace::steady
           ? Generator([&rng] { return rng(); }, runner.sw(), seed % 2 == 0, 40 + rng() % 100)
           : Generator([&rng] { return rng(); }, runner.sw(), false, 60 + rng() % 120, Pace::churn);
   auto feed = [&](const Lines& lines) {
      for (const auto& line : lines) {
         if (say) {
            say("+" + line);
         }
         auto problems = runner.run(line);
         if (!problems) {
            if (say) {
               say("-");
            }
            continue;
         }
         g.lines.push_back(line);
         if (!problems->empty()) {
            g.verdict = Verdict{Verdict::Kind::failed, g.lines.size() - 1, std::move(*problems)};
            return false;
         }
      }
      return true;
   };
   if (feed(gen.opening())) {
      while (!gen.done() && feed(gen.next(runner))) {
      }
   }
   g.checks = runner.checks();
   g.faultyChecks = runner.faultyChecks();
   g.refusals = runner.sw().hardware().counters().refusals;
   g.commands = runner.commands();
   return g;
}

// Runs `work` in a child process whose standard error, and whatever it says,
// come back as lines; answers them with how the child ended: its exit code,
// or -1 when it did not exit (an abort).
int apart(const std::function<int(const std::function<void(const std::string&)>&)>& work,
          Lines& heard) {
   int fds[2];
   if (pipe(fds) != 0) {
      std::abort();
   }
   std::cout.flush();
   std::cerr.flush();
   const pid_t pid = fork();
   if (pid == 0) {
      close(fds[0]);
      dup2(fds[1], STDERR_FILENO);
      const int devnull = open("/dev/null", O_WRONLY);
      dup2(devnull, STDOUT_FILENO);
      alarm(kHistorySeconds);  // a history that hangs is stopped
      const int code = work([&](const std::string& text) {
         const std::string line = text + "\n";
         (void)!write(fds[1], line.data(), line.size());
      });
      _exit(code);
   }
   close(fds[1]);
   std::string text;
   char buffer[4096];
   for (ssize_t n; (n = read(fds[0], buffer, sizeof buffer)) > 0;) {
      text.append(buffer, size_t(n));
   }
   close(fds[0]);
   int status = 0;
   waitpid(pid, &status, 0);
   std::istringstream in(text);
   for (std::string line; std::getline(in, line);) {
      heard.push_back(line);
   }
   if (WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM) {
      heard.push_back("(still running after " + std::to_string(kHistorySeconds) + " s: it hangs)");
   }
   return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

constexpr int kExitFailed = 10;
constexpr int kExitRefused = 11;

Verdict::Kind kindOf(int code) {
   switch (code) {
      case 0:
         return Verdict::Kind::ok;
      case kExitFailed:
         return Verdict::Kind::failed;
      case kExitRefused:
         return Verdict::Kind::refused;
      default:
         return Verdict::Kind::aborted;  // an abort, or a sanitizer's exit
   }
}

int exitCode(const Verdict& v) {
   return v.kind == Verdict::Kind::ok       ? 0
          : v.kind == Verdict::Kind::failed ? kExitFailed
                                            : kExitRefused;
}

// replay() in a child process, so that an abort is a verdict too.
Verdict replayApart(const Lines& lines) {
   Lines heard;
   const int code = apart(
       [&](const auto& say) {
          Verdict v = replay(lines, [&](size_t i) { say("@" + std::to_string(i)); });
          for (const auto& d : v.details) {
             say(d);
          }
          return exitCode(v);
       },
       heard);
   Verdict v;
   v.kind = kindOf(code);
   for (const auto& line : heard) {
      if (!line.empty() && line[0] == '@') {
         v.at = std::strtoull(line.c_str() + 1, nullptr, 10);
      } else {
         v.details.push_back(line);
      }
   }
   return v;
}

// generate() in a child process: the lines come back as they are drawn, so
// a history that aborts is known up to its last line.
Generated generateApart(uint64_t seed, Pace pace) {
   Lines heard;
   const int code = apart(
       [&](const auto& say) {
          Generated g = generate(seed, pace, say);
          for (const auto& d : g.verdict.details) {
             say("!" + d);
          }
          return exitCode(g.verdict);
       },
       heard);
   Generated g;
   g.verdict.kind = kindOf(code);
   for (const auto& line : heard) {
      if (!line.empty() && line[0] == '+') {
         g.lines.push_back(line.substr(1));
      } else if (line == "-") {
         g.lines.pop_back();
      } else if (!line.empty() && line[0] == '!') {
         g.verdict.details.push_back(line.substr(1));
      } else {
         g.verdict.details.push_back(line);
      }
   }
   g.verdict.at = g.lines.empty() ? 0 : g.lines.size() - 1;
   return g;
}

// Delta debugging: drops chunks of lines, halving the chunks down to single
// lines, as long as the history still fails the same way; every candidate
// ends at its first failure.
Lines shrink(Lines lines, const Verdict& first) {
   lines.resize(first.at + 1);
   size_t parts = 2;
   size_t attempts = 0;
   while (lines.size() >= 2 && attempts < 5000) {
      const size_t chunk = (lines.size() + parts - 1) / parts;
      bool reduced = false;
      for (size_t start = 0; start < lines.size() && !reduced; start += chunk) {
         Lines candidate(lines.begin(), lines.begin() + long(start));
         candidate.insert(candidate.end(),
                          lines.begin() + long(std::min(start + chunk, lines.size())), lines.end());
         ++attempts;
         const Verdict v = replayApart(candidate);
         if (v.kind == first.kind) {
            candidate.resize(v.at + 1);
            lines = std::move(candidate);
            parts = std::max<size_t>(parts - 1, 2);
            reduced = true;
         }
      }
      if (!reduced) {
         if (parts >= lines.size()) {
            break;
         }
         parts = std::min(parts * 2, lines.size());
      }
   }
   return lines;
}

// What a failure prints: the minimal scenario, ready to paste.
std::string report(uint64_t seed, const char* seedVariable, const Lines& original,
                   const Lines& minimal, const Verdict& verdict) {
   std::ostringstream out;
   const bool aborted = verdict.kind == Verdict::Kind::aborted;
   out << "history of seed " << seed << (aborted ? " aborted" : " failed") << " at line "
       << verdict.at + 1 << " of " << original.size() << "; " << seedVariable << "=" << seed
       << " replays it\n";
   out << "--- minimal scenario (" << minimal.size() << " lines), for tests/scenarios/NAME.kiv:\n";
   out << "# Found by the history test, seed " << seed << ".\n";
   for (const auto& line : minimal) {
      out << line << "\n";
   }
   if (!aborted) {
      out << "check\n";
   }
   out << "--- what it gives:\n";
   for (const auto& d : replayApart(minimal).details) {
      out << d << "\n";
   }
   return out.str();
}

// A history that aborts, that a sanitizer stops, or that hangs takes the
// whole test with it: this names its seed on the way out.
char gDeathNote[160];
void writeDeathNote() {
   (void)!write(STDERR_FILENO, gDeathNote, std::strlen(gDeathNote));
}
extern "C" void noteDeath(int) {
   writeDeathNote();
   std::signal(SIGABRT, SIG_DFL);
   std::abort();
}

void runHistories(Pace pace, const char* seedVariable, const char* countVariable,
                  uint64_t defaultCount) {
   if (std::getenv(seedVariable)) {
      const uint64_t seed = envNumber(seedVariable, 1);
      const Generated g = generateApart(seed, pace);
      if (g.verdict.kind != Verdict::Kind::ok) {
         ADD_FAILURE() << report(seed, seedVariable, g.lines, shrink(g.lines, g.verdict),
                                 g.verdict);
      } else {
         std::cout << "history of seed " << seed << ": " << g.lines.size() << " lines, ok\n";
      }
      return;
   }
   const uint64_t count = envNumber(countVariable, defaultCount);
   auto previous = std::signal(SIGABRT, noteDeath);
   auto previousAlarm = std::signal(SIGALRM, noteDeath);
#ifdef KIV_HISTORY_SANITIZED
   __sanitizer_set_death_callback(writeDeathNote);
#endif
   uint64_t lines = 0, checks = 0, faultyChecks = 0, refusals = 0, commands = 0;
   for (uint64_t seed = 1; seed <= count; ++seed) {
      std::snprintf(gDeathNote, sizeof gDeathNote,
                    "\nhistory of seed %llu died or hung; %s=%llu replays and shrinks it\n",
                    static_cast<unsigned long long>(seed), seedVariable,
                    static_cast<unsigned long long>(seed));
      alarm(kHistorySeconds);
      const Generated g = generate(seed, pace);
      alarm(0);
      lines += g.lines.size();
      checks += g.checks;
      faultyChecks += g.faultyChecks;
      refusals += g.refusals;
      commands += g.commands;
      if (g.verdict.kind != Verdict::Kind::ok) {
         std::signal(SIGABRT, previous);
         std::signal(SIGALRM, previousAlarm);
         ADD_FAILURE() << report(seed, seedVariable, g.lines, shrink(g.lines, g.verdict),
                                 g.verdict);
         return;
      }
   }
   std::signal(SIGABRT, previous);
   std::signal(SIGALRM, previousAlarm);
#ifdef KIV_HISTORY_SANITIZED
   __sanitizer_set_death_callback(nullptr);
#endif
   ::testing::Test::RecordProperty("histories", int(count));
   ::testing::Test::RecordProperty("lines", int(lines));
   ::testing::Test::RecordProperty("checks", int(checks));
   std::cout << "histories: " << count << ", lines run: " << lines << ", settles judged: " << checks
             << " (" << faultyChecks
             << " after hardware faults), hardware writes refused: " << refusals
             << ", CLI commands judged: " << commands << "\n";
}

TEST(History, RandomHistoriesPassTheJudgeAfterEverySettle) {
   runHistories(Pace::steady, "KIV_HISTORY_SEED", "KIV_HISTORIES", 400);
}

TEST(History, FastChurnHistoriesConverge) {
   runHistories(Pace::churn, "KIV_CHURN_SEED", "KIV_CHURN_HISTORIES", 300);
}

}  // namespace
