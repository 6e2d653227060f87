#pragma once
// The prompt's line source. Built with libedit, it gives line editing, the
// session's history and completion of the command word (the first word of a
// line, and after it the words and names its usage allows) from the
// scenario engine's command table; without libedit it prints
// the prompt and reads plain lines. Either way Ctrl-C cancels the line being
// typed instead of ending the program. Only for a terminal: files and pipes
// are read by the scenario engine directly.

#include <csignal>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace kivsim {

// `line` without the escape sequences and control characters (but the tab) a
// terminal sends for keys such as the arrows: what a plain read gets.
std::string withoutTerminalKeys(const std::string& line);

class Prompt {
public:
   // What may come after the whole words before the cursor, for Tab.
   using NextWords = std::function<std::vector<std::string>(const std::vector<std::string>&)>;

   Prompt(std::string text, NextWords nextWords);
   ~Prompt();
   Prompt(const Prompt&) = delete;
   Prompt& operator=(const Prompt&) = delete;

   // The next line, without its newline; none at the end of input.
   std::optional<std::string> read();

private:
   std::string text_;
   NextWords nextWords_;
   // SIGINT's handling before the prompt took it over (Ctrl-C cancels the
   // line being typed), given back when the prompt goes.
   struct sigaction previousInterrupt_;
};

}  // namespace kivsim
