// kivsim: runs scenario files, standard input or an interactive prompt over
// one simulated switch. See --help.

#include <malloc.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "DefaultScenario.h"
#include "Prompt.h"
#include "sim/Scenario.h"
#include "sim/ScenarioCommands.h"
#ifdef KIVSIM_LINUX_DATAPLANE
#include "sim/linux/LinuxDataplane.h"
#endif

namespace {

constexpr int kOk = 0;
constexpr int kCheckFailed = 1;
constexpr int kBad = 2;

const char* kUsage =
    "usage: kivsim [OPTIONS] [FILE...]\n"
    "\n"
    "Runs the library inside the simulated switch, one command a line.\n"
    "  FILE...            scenario files, run in order over one switch; '-' reads\n"
    "                     standard input\n"
    "  no FILE            standard input is a terminal: the 'kivsim> ' prompt, with\n"
    "                     line editing, history and completion of commands, their\n"
    "                     words and the names in use when built with libedit\n"
    "                     ('help' lists the commands);\n"
    "                     otherwise standard input is the scenario, and an empty one\n"
    "                     runs the bundled default scenario (examples/default.kiv)\n"
    "Options:\n"
    "  --default          run the bundled default scenario, whatever the input\n"
    "  --no-auto-settle   at the prompt, changes wait for 'settle' as in a file\n"
    "  --json             hw, show and request print JSON\n"
    "  --trace FILE       write the text trace to FILE (never a scenario: a FILE\n"
    "                     run as a scenario, or an existing .kiv file, is refused)\n"
    "  --trace-level N    trace level (default 5; 8 adds function entries)\n"
    "  --yield-every N    every task yields after N items\n"
    "  --stats            print the run's figures to standard error at exit\n"
    "  --floor            with --stats: after each settle that enabled the feature,\n"
    "                     time the least work that gives the same ids (one longest\n"
    "                     match and one id write per FIB route, into a table of\n"
    "                     its own) and print it under the settle\n"
    "  --slice-us N       every task yields after N microseconds of real time (the\n"
    "                     figures then reflect a real agent's slices; where runs are\n"
    "                     cut depends on the machine)\n"
    "  --dataplane KIND   where the hardware table's routes go: 'sim' (the default,\n"
    "                     the simulated table) or 'linux' (kernel routes in a\n"
    "                     network namespace; needs root; see docs/DATAPLANE.md)\n"
    "  --netns NAME       with --dataplane linux: use the existing namespace NAME\n"
    "                     (default: one of its own, deleted at exit)\n"
    "  --adopt            with --dataplane linux: routes other programs put in\n"
    "                     the namespace's table N (N a VRF's id) are the VRF's FIB\n"
    "                     routes, followed as they change (read at each settle)\n"
    "  --help             this text\n"
    "  --version          the version\n"
    "Exit status: 0 all lines ran and every check passed; 1 a check found a\n"
    "difference; 2 a bad command line or scenario line (a file stops at its bad\n"
    "line; at the prompt the error is printed and the session goes on).\n";

bool parseCount(const char* text, uint64_t& n) {
   if (!*text || std::strlen(text) > 18) {
      return false;
   }
   n = 0;
   for (const char* p = text; *p; ++p) {
      if (*p < '0' || *p > '9') {
         return false;
      }
      n = n * 10 + uint64_t(*p - '0');
   }
   return true;
}

// Peak resident memory in kB, from /proc/self/status; none when unknown.

double ms(int64_t ns) {
   return double(ns) / double(Zop::kMillisecond);
}

void printStats(sim::Scenario& scenario) {
   auto& sw = scenario.sw();
   const auto& hw = sw.hardware().counters();
   const sim::ScenarioStats& stats = scenario.stats();
   char line[512];
   std::snprintf(line, sizeof line,
                 "commands run: %llu\nscheduler slices: %llu\n"
                 "longest task run: %.3f ms (%s)\nlongest notification handler: %.3f ms (%s)\n"
                 "hardware writes: %llu\nroutes in hardware: %zu\n",
                 (unsigned long long)stats.commands, (unsigned long long)stats.slices,
                 ms(stats.longestRunNs), stats.longestRunTask.c_str(), ms(stats.longestHandlerNs),
                 stats.longestHandlerNotifiee.c_str(),
                 (unsigned long long)(hw.routePrograms + hw.hwIdWrites + hw.fibWrites),
                 sw.hardware().size());
   std::cerr << line;
   if (uint64_t kb = scenario.peakResidentKb()) {
      std::cerr << "peak resident memory: " << kb << " kB\n";
   }
   // Which piece of work holds the thread longest, by name.
   auto figures = [&line](const char* title, const char* unit,
                          const std::vector<sim::RunFigure>& list) {
      std::cerr << title << '\n';
      for (const auto& f : list) {
         std::snprintf(line, sizeof line, "  %-40s %10llu %s, longest %.3f ms\n", f.name.c_str(),
                       (unsigned long long)f.runs, unit, ms(f.longestNs));
         std::cerr << line;
      }
   };
   figures("longest run per task:", "runs", scenario.taskFigures());
   figures("longest call per notification handler:", "calls", scenario.handlerFigures());
   for (const auto& s : stats.settles) {
      std::snprintf(line, sizeof line,
                    "settle %s: %llu slices, virtual %.3f ms, real %.3f ms (commands before it "
                    "%.3f ms), %llu hw writes, longest run %.3f ms%s%s%s, longest handler %.3f "
                    "ms, peak rss %llu kB, heap %llu kB\n",
                    s.where.c_str(), (unsigned long long)s.slices, ms(s.virtualNs), ms(s.realNs),
                    ms(s.commandsNs), (unsigned long long)s.hwWrites, ms(s.longestRunNs),
                    s.longestRunTask.empty() ? "" : " (", s.longestRunTask.c_str(),
                    s.longestRunTask.empty() ? "" : ")", ms(s.longestHandlerNs),
                    (unsigned long long)s.peakResidentKb, (unsigned long long)s.heapInUseKb);
      std::cerr << line;
      if (s.floorNs > 0) {
         std::snprintf(line, sizeof line,
                       "  floor after it: %.3f ms, %llu hw writes; the settle is %.2fx the floor\n",
                       ms(s.floorNs), (unsigned long long)s.floorWrites,
                       double(s.realNs) / double(s.floorNs));
         std::cerr << line;
      }
   }
}

// Why `file` cannot be run as a scenario; empty when it can be read.
std::string unreadable(const std::string& file) {
   if (file == "-") {
      return "";
   }
   std::error_code error;
   if (std::filesystem::is_directory(file, error)) {
      return "'" + file + "' is a directory, not a scenario file";
   }
   std::ifstream in(file);
   if (!in) {
      return "cannot read '" + file + "'";
   }
   return "";
}

// Why the trace may not go to `traceFile`; empty when it may. A trace never
// overwrites a scenario: one given to run, or an existing .kiv file (the
// likely meaning of `kivsim --trace scenario.kiv` is a forgotten trace name).
std::string traceRefused(const std::string& traceFile, const std::vector<std::string>& files) {
   std::error_code error;
   for (const auto& file : files) {
      if (file != "-" && std::filesystem::equivalent(traceFile, file, error)) {
         return "--trace '" + traceFile + "' would overwrite a scenario it runs";
      }
   }
   if (std::filesystem::path(traceFile).extension() == ".kiv" &&
       std::filesystem::exists(traceFile, error)) {
      return "--trace '" + traceFile +
             "' would overwrite a scenario file (give the trace its own name)";
   }
   return "";
}

// Whether standard input (not a terminal) has nothing to read.
bool stdinEmpty() {
   return std::cin.peek() == std::char_traits<char>::eof();
}

int worse(int a, int b) {
   return a > b ? a : b;
}

// The exit status a file's run earns; a bad line's message goes to standard
// error after everything the run printed before it.
int judged(const sim::ScenarioResult& result) {
   if (result.kind == sim::ScenarioResult::Kind::badLine) {
      std::cout << std::flush;
      std::cerr << result.message << '\n';
      return kBad;
   }
   return result.kind == sim::ScenarioResult::Kind::checkFailed ? kCheckFailed : kOk;
}

const char* kBanner =
    "kivsim: the segment library in a simulated switch. 'help' or '?' lists the\n"
    "commands, 'COMMAND ?' gives one's usage; 'exit', 'quit' or Ctrl-D leaves.\n"
    "Here every change settles at once; in a scenario file it takes effect at\n"
    "its 'settle' (--no-auto-settle: here too).\n";

// The prompt: errors are printed and the session goes on. With `autoSettle`,
// every command that changes something is followed by a settle, so that
// what the next command looks at has taken effect.
int interactive(sim::Scenario& scenario, bool autoSettle) {
   int status = kOk;
   std::cout << kBanner;
   kivsim::Prompt prompt("kivsim> ", [&scenario](const std::vector<std::string>& before) {
      return sim::scenarioNextWords(before, scenario.names());
   });
   uint64_t lineNo = 0;
   while (auto line = prompt.read()) {
      ++lineNo;
      auto result = scenario.runLine(*line, "<stdin>", lineNo, std::cout);
      if (result.kind == sim::ScenarioResult::Kind::badLine) {
         std::cerr << result.message << '\n';
         status = worse(status, kBad);
      } else {
         if (result.kind == sim::ScenarioResult::Kind::checkFailed) {
            status = worse(status, kCheckFailed);
         }
         const sim::ScenarioCommand* command = sim::scenarioCommand(result.command);
         if (autoSettle && command && !command->looksOnly) {
            scenario.runLine("settle", "<stdin>", lineNo, std::cout);
         }
      }
      std::cout << std::flush;
      if (result.stop) {
         return status;
      }
   }
   std::cout << '\n';
   return status;
}

}  // namespace

int main(int argc, char** argv) {
#ifdef __GLIBC__
   // glibc keeps small freed blocks in its fast bins and merges them all at
   // the next large request: after a teardown or a check has freed a million
   // small blocks, some unrelated handler pays 40-100 ms for the merge. With
   // no fast bins a block is merged as it is freed, a small cost each, and
   // no run pays for another's frees. (The per-thread cache still serves the
   // common small sizes.)
   mallopt(M_MXFAST, 0);
#endif
   sim::ScenarioOptions options;
   bool stats = false;
   bool bundled = false;
   bool autoSettle = true;
   const char* traceFile = nullptr;
   std::vector<std::string> files;
   std::string dataplane = "sim";
   std::string netns;
   bool adopt = false;
   for (int i = 1; i < argc; ++i) {
      std::string arg = argv[i];
      auto value = [&](uint64_t& n, uint64_t least) {
         if (i + 1 >= argc) {
            std::cerr << "kivsim: " << arg << " needs a value\n";
            return false;
         }
         if (!parseCount(argv[i + 1], n) || n < least) {
            std::cerr << "kivsim: " << arg << ": bad value '" << argv[i + 1] << "'\n";
            return false;
         }
         ++i;
         return true;
      };
      if (arg == "--help") {
         std::cout << kUsage;
         return kOk;
      } else if (arg == "--version") {
         std::cout << "kivsim " << KIVSIM_VERSION << '\n';
         return kOk;
      } else if (arg == "--default") {
         bundled = true;
      } else if (arg == "--no-auto-settle") {
         autoSettle = false;
      } else if (arg == "--json") {
         options.json = true;
      } else if (arg == "--stats") {
         stats = true;
         options.timeHandlers = true;
      } else if (arg == "--floor") {
         options.floor = true;
      } else if (arg == "--slice-us") {
         uint64_t n = 0;
         if (!value(n, 1) || n > 60'000'000) {
            return kBad;
         }
         options.realTimeSlice = Zop::Time(n) * Zop::kMicrosecond;
      } else if (arg == "--trace") {
         if (i + 1 >= argc) {
            std::cerr << "kivsim: --trace needs a file\n";
            return kBad;
         }
         traceFile = argv[++i];
      } else if (arg == "--trace-level") {
         uint64_t n = 0;
         if (!value(n, 0) || n > 100) {
            return kBad;
         }
         options.traceLevel = Trace::Level(n);
      } else if (arg == "--yield-every") {
         uint64_t n = 0;
         if (!value(n, 1) || n > 0xFFFFFFFFull) {
            return kBad;
         }
         options.yieldEvery = n;
      } else if (arg == "--adopt") {
         adopt = true;
      } else if (arg == "--dataplane" || arg == "--netns") {
         if (i + 1 >= argc) {
            std::cerr << "kivsim: " << arg << " needs a value\n";
            return kBad;
         }
         std::string v = argv[++i];
         if (arg == "--netns") {
            netns = v;
         } else if (v == "sim" || v == "linux") {
            dataplane = v;
         } else {
            std::cerr << "kivsim: --dataplane: unknown dataplane '" << v << "' (sim or linux)\n";
            return kBad;
         }
      } else if (arg.size() > 1 && arg[0] == '-') {
         std::cerr << "kivsim: unknown option '" << arg << "' (see --help)\n";
         return kBad;
      } else {
         files.push_back(arg);
      }
   }

   // Nothing runs unless every scenario can be read, and nothing is written
   // over one.
   for (const auto& file : files) {
      if (std::string why = unreadable(file); !why.empty()) {
         std::cerr << "kivsim: " << why << '\n';
         return kBad;
      }
   }
   if (bundled && !files.empty()) {
      std::cerr << "kivsim: --default runs the bundled scenario; give no FILE with it\n";
      return kBad;
   }
   std::ofstream trace;
   if (traceFile) {
      if (std::string why = traceRefused(traceFile, files); !why.empty()) {
         std::cerr << "kivsim: " << why << '\n';
         return kBad;
      }
      trace.open(traceFile);
      if (!trace) {
         std::cerr << "kivsim: cannot write the trace to '" << traceFile << "'\n";
         return kBad;
      }
      options.traceStream = &trace;
   }

   if (!netns.empty() && dataplane != "linux") {
      std::cerr << "kivsim: --netns goes with --dataplane linux\n";
      return kBad;
   }
   if (adopt && dataplane != "linux") {
      std::cerr << "kivsim: --adopt goes with --dataplane linux\n";
      return kBad;
   }
   if (options.floor && !stats) {
      std::cerr << "kivsim: --floor goes with --stats\n";
      return kBad;
   }
   if (dataplane == "linux") {
#ifdef KIVSIM_LINUX_DATAPLANE
      try {
         auto kernel = sim::LinuxDataplane::open(netns);
         if (adopt) {
            if (std::string why = kernel->adoptIs(); !why.empty()) {
               std::cerr << "kivsim: --adopt: " << why << '\n';
               return kBad;
            }
            options.adopt = true;
            options.adoptNotes = &std::cerr;
         }
         options.dataplane = std::move(kernel);
      } catch (const sim::LinuxDataplane::Error& e) {
         std::cerr << "kivsim: --dataplane linux: " << e.what() << '\n';
         return kBad;
      }
#else
      std::cerr << "kivsim: --dataplane linux: not built (needs libmnl, Debian: libmnl-dev)\n";
      return kBad;
#endif
   }

   const bool terminal = isatty(STDIN_FILENO);
   const bool prompt = !bundled && files.empty() && terminal;

   sim::Scenario scenario(options);
   int status = kOk;
   if (prompt) {
      status = interactive(scenario, autoSettle);
   } else if (files.empty() && !bundled && !terminal && !stdinEmpty()) {
      // `kivsim < scenario.kiv`, `... | kivsim`: the input is the scenario.
      status = judged(scenario.run(std::cin, "<stdin>", std::cout));
   } else if (files.empty()) {
      std::istringstream in(kivsim::kDefaultScenario);
      status = judged(scenario.run(in, kivsim::kDefaultScenarioName, std::cout));
   } else {
      for (const auto& file : files) {
         if (file == "-" && isatty(STDIN_FILENO)) {
            status = worse(status, interactive(scenario, autoSettle));
            continue;
         }
         int fileStatus = kOk;
         if (file == "-") {
            fileStatus = judged(scenario.run(std::cin, "<stdin>", std::cout));
         } else {
            std::ifstream in(file);
            if (!in) {  // gone since it was checked
               std::cout << std::flush;
               std::cerr << "kivsim: cannot read '" << file << "'\n";
               fileStatus = kBad;
            } else {
               fileStatus = judged(scenario.run(in, file, std::cout));
            }
         }
         status = worse(status, fileStatus);
         // A bad line stops the run there.
         if (fileStatus == kBad) {
            break;
         }
      }
   }
   std::cout << std::flush;
   if (stats) {
      printStats(scenario);
   }
   trace.flush();
   return status;
}
