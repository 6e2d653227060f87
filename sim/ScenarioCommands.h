#pragma once
// The commands of kivsim's language: the word that starts a line, its usage
// and what it does, in the order `help` lists them. The scenario engine
// accepts exactly these words, so help, the prompt's completion and the
// engine cannot disagree about which commands exist. The usage is the form a
// bad line's message quotes; alternatives are separated by " | ".

#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace sim {

struct ScenarioCommand {
   std::string_view word;
   std::string_view usage;
   std::string_view summary;
   // Only looks (or runs the scheduler itself): the prompt settles after
   // every other command.
   bool looksOnly = false;
};

std::span<const ScenarioCommand> scenarioCommands();
// The command starting with `word`, or nullptr.
const ScenarioCommand* scenarioCommand(std::string_view word);
// The command `word` names: the one it spells, or the only one it starts
// (`sh` for show). Throws std::invalid_argument naming the word when it names
// none, or several (naming them).
const ScenarioCommand& scenarioCommandNamed(std::string_view word);
// `word` completed among `choices` the same way; `what` names them in the
// error ("show").
std::string_view wordNamed(std::string_view word, std::span<const std::string_view> choices,
                           std::string_view what);

// The alternatives of a usage text, in order (they are separated by " | ").
std::vector<std::string_view> usageForms(std::string_view usage);

// The names in use that a line may name, for completion.
struct ScenarioNames {
   std::vector<std::string> vrfs;
   std::vector<std::string> segments;
};

// What may come after the whole words `before` on a line: the command words
// at the start (and after help); further on, the literal words the
// command's usage allows at that place ("routes", "on", "delete", ...) and,
// where it names a VRF or a segment (VRF, SEGMENT, DST, SRC, a vrf's or a
// segment's NAME), the ones in use. The usage texts are the grammar: the
// same table gives parsing its words, help its text and the prompt this.
std::vector<std::string> scenarioNextWords(const std::vector<std::string>& before,
                                           const ScenarioNames& names);

}  // namespace sim
