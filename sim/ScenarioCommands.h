#pragma once
// The commands of kivsim's language: the word that starts a line, its usage
// and what it does, in the order `help` lists them. The scenario engine
// accepts exactly these words, so help, the prompt's completion and the
// engine cannot disagree about which commands exist. The usage is the form a
// bad line's message quotes; alternatives are separated by " | ".

#include <span>
#include <string_view>

namespace sim {

struct ScenarioCommand {
   std::string_view word;
   std::string_view usage;
   std::string_view summary;
};

std::span<const ScenarioCommand> scenarioCommands();
// The command starting with `word`, or nullptr.
const ScenarioCommand* scenarioCommand(std::string_view word);

}  // namespace sim
