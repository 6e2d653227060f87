#include "Prompt.h"

#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <iostream>

#ifdef KIVSIM_LIBEDIT
#include <editline/readline.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string_view>

#endif

namespace kivsim {

// Without line editing the terminal hands over what the keys send: an arrow
// key arrives as ESC [ A. Such sequences (ESC, an optional '[' or 'O', then
// parameter bytes up to a final letter or '~') and other control characters
// but the tab are dropped, so that they never reach the parser as words.
std::string withoutTerminalKeys(const std::string& line) {
   std::string out;
   for (size_t i = 0; i < line.size(); ++i) {
      const unsigned char c = static_cast<unsigned char>(line[i]);
      if (c == 0x1b) {
         if (i + 1 < line.size() && (line[i + 1] == '[' || line[i + 1] == 'O')) {
            ++i;
         }
         while (i + 1 < line.size()) {
            const unsigned char p = static_cast<unsigned char>(line[++i]);
            if ((p >= 0x40 && p <= 0x7e) && p != '[') {
               break;
            }
         }
         continue;
      }
      if (c < 0x20 && c != '\t') {
         continue;
      }
      out.push_back(static_cast<char>(c));
   }
   return out;
}

namespace {

// Ctrl-C at the prompt cancels the line being typed, not the program: the
// handler only notes it, and the read it interrupts (installed without
// SA_RESTART, so that it is interrupted) gives up the line.
volatile std::sig_atomic_t gInterrupted = 0;

void onInterrupt(int) {
   gInterrupted = 1;
}

struct sigaction interruptsCancelLines() {
   struct sigaction action {};
   action.sa_handler = onInterrupt;
   sigemptyset(&action.sa_mask);
   action.sa_flags = 0;
   struct sigaction previous {};
   sigaction(SIGINT, &action, &previous);
   return previous;
}

}  // namespace

#ifdef KIVSIM_LIBEDIT

namespace {

// libedit's key source: one byte at a time, as its own does, but a Ctrl-C
// empties the line and ends it, so that readline hands back an empty line.
int readKey(FILE* in) {
   for (;;) {
      unsigned char c = 0;
      const ssize_t n = ::read(fileno(in), &c, 1);
      if (n == 1) {
         return c;
      }
      if (n < 0 && errno == EINTR) {
         if (gInterrupted) {
            rl_replace_line("", 0);
            return '\n';
         }
         continue;
      }
      return EOF;
   }
}

// The words Tab may complete to, from the prompt's NextWords.
std::vector<std::string> gCandidates;

// libedit asks for one match per call until we answer null; state 0 starts
// over. It frees what we return, hence malloc.
char* candidateMatch(const char* text, int state) {
   static size_t next = 0;
   if (state == 0) {
      next = 0;
   }
   const std::string_view typed(text);
   while (next < gCandidates.size()) {
      const std::string& word = gCandidates[next++];
      if (std::string_view(word).substr(0, typed.size()) == typed) {
         char* match = static_cast<char*>(std::malloc(word.size() + 1));
         if (!match) {
            return nullptr;
         }
         std::memcpy(match, word.data(), word.size() + 1);
         return match;
      }
   }
   return nullptr;
}

Prompt::NextWords* gNextWords = nullptr;

// Completion offers what the grammar allows at the cursor, never file names
// (libedit's default), which would only mislead where VRFs and prefixes go.
char** complete(const char* text, int start, int) {
   rl_attempted_completion_over = 1;
   std::vector<std::string> before;
   std::string_view line(rl_line_buffer, size_t(start));
   for (size_t pos = line.find_first_not_of(" \t"); pos != std::string_view::npos;) {
      const size_t end = std::min(line.find_first_of(" \t", pos), line.size());
      before.emplace_back(line.substr(pos, end - pos));
      pos = line.find_first_not_of(" \t", end);
   }
   gCandidates = gNextWords && *gNextWords ? (*gNextWords)(before) : std::vector<std::string>();
   return rl_completion_matches(text, candidateMatch);
}

}  // namespace

Prompt::Prompt(std::string text, NextWords nextWords)
    : text_(std::move(text)),
      nextWords_(std::move(nextWords)),
      previousInterrupt_(interruptsCancelLines()) {
   gNextWords = &nextWords_;
   rl_readline_name = "kivsim";
   rl_attempted_completion_function = complete;
   rl_catch_signals = 0;
   rl_getc_function = readKey;
   using_history();
}

Prompt::~Prompt() {
   gNextWords = nullptr;
   clear_history();
   sigaction(SIGINT, &previousInterrupt_, nullptr);
}

std::optional<std::string> Prompt::read() {
   std::cout << std::flush;
   gInterrupted = 0;
   char* line = readline(text_.c_str());
   if (!line) {
      return std::nullopt;
   }
   std::string result(line);
   std::free(line);
   if (gInterrupted) {
      return std::string();  // the cancelled line
   }
   if (result.find_first_not_of(" \t") != std::string::npos) {
      add_history(result.c_str());
   }
   return result;
}

#else

Prompt::Prompt(std::string text, NextWords nextWords)
    : text_(std::move(text)),
      nextWords_(std::move(nextWords)),
      previousInterrupt_(interruptsCancelLines()) {}

Prompt::~Prompt() {
   sigaction(SIGINT, &previousInterrupt_, nullptr);
}

std::optional<std::string> Prompt::read() {
   for (;;) {
      std::cout << text_ << std::flush;
      gInterrupted = 0;
      std::string line;
      if (std::getline(std::cin, line)) {
         return withoutTerminalKeys(line);
      }
      if (!gInterrupted) {
         return std::nullopt;
      }
      // Ctrl-C: what was typed is dropped, and a new prompt follows.
      std::cin.clear();
      std::cout << '\n';
   }
}

#endif

}  // namespace kivsim
