#include "Prompt.h"

#include <iostream>

#ifdef KIVSIM_LIBEDIT
#include <editline/readline.h>

#include <cstdlib>
#include <cstring>
#include <string_view>

#include "sim/ScenarioCommands.h"
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

#ifdef KIVSIM_LIBEDIT

namespace {

// libedit asks for one match per call until we answer null; state 0 starts
// over. It frees what we return, hence malloc.
char* commandMatch(const char* text, int state) {
   static size_t next = 0;
   if (state == 0) {
      next = 0;
   }
   auto commands = sim::scenarioCommands();
   size_t length = std::strlen(text);
   while (next < commands.size()) {
      std::string_view word = commands[next++].word;
      if (word.substr(0, length) == std::string_view(text, length)) {
         char* match = static_cast<char*>(std::malloc(word.size() + 1));
         if (!match) {
            return nullptr;
         }
         std::memcpy(match, word.data(), word.size());
         match[word.size()] = '\0';
         return match;
      }
   }
   return nullptr;
}

// Command words complete where a command word goes: the first word, and the
// word after "help". Elsewhere stand VRFs, prefixes and the like, where
// offering file names (libedit's default) would only mislead.
char** complete(const char* text, int start, int) {
   rl_attempted_completion_over = 1;
   std::string_view before(rl_line_buffer, size_t(start));
   size_t first = before.find_first_not_of(" \t");
   bool commandWord = first == std::string_view::npos;
   if (!commandWord) {
      before.remove_prefix(first);
      size_t end = before.find_first_of(" \t");
      commandWord = before.substr(0, end) == "help" &&
                    before.find_first_not_of(" \t", end) == std::string_view::npos;
   }
   return commandWord ? rl_completion_matches(text, commandMatch) : nullptr;
}

}  // namespace

Prompt::Prompt(std::string text) : text_(std::move(text)) {
   rl_readline_name = "kivsim";
   rl_attempted_completion_function = complete;
   using_history();
}

Prompt::~Prompt() {
   clear_history();
}

std::optional<std::string> Prompt::read() {
   std::cout << std::flush;
   char* line = readline(text_.c_str());
   if (!line) {
      return std::nullopt;
   }
   std::string result(line);
   std::free(line);
   if (result.find_first_not_of(" \t") != std::string::npos) {
      add_history(result.c_str());
   }
   return result;
}

#else

Prompt::Prompt(std::string text) : text_(std::move(text)) {}

Prompt::~Prompt() = default;

std::optional<std::string> Prompt::read() {
   std::cout << text_ << std::flush;
   std::string line;
   if (!std::getline(std::cin, line)) {
      return std::nullopt;
   }
   return withoutTerminalKeys(line);
}

#endif

}  // namespace kivsim
