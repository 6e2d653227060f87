#include "sim/ScenarioCommands.h"

#include <algorithm>
#include <array>
#include <stdexcept>
#include <string>
#include <vector>

namespace sim {

namespace {

// Platform state first, then the firewall configuration, then running and
// looking, as a scenario is usually written.
constexpr std::array kCommands = {
    ScenarioCommand{"vrf", "vrf NAME id N [routing on/off] [routing6 on/off] | vrf NAME delete",
                    "create or change a VRF (id, routing flags), or delete it with its FIB routes"},
    ScenarioCommand{"fib", "fib VRF PREFIX [adj N] | fib VRF PREFIX delete",
                    "add or change a FIB route, or withdraw it"},
    ScenarioCommand{"resolver", "resolver auto/manual",
                    "answer watched prefixes from the FIB, or only by resolve"},
    ScenarioCommand{"resolve", "resolve VRF PREFIX adj N | resolve VRF PREFIX none",
                    "the resolver's answer for a watched prefix"},
    ScenarioCommand{"urpf", "urpf ipv4/ipv6 on/off", "uRPF configured or not, per family"},
    ScenarioCommand{"allocator", "allocator auto [pool FIRST-LAST] | allocator manual",
                    "hw ids granted at once (from the pool), or only by grant"},
    ScenarioCommand{"grant", "grant VRF SEGMENT [ID|invalid]",
                    "grant a pending hw id request (invalid: publish the invalid id 65535)"},
    ScenarioCommand{"revoke", "revoke VRF SEGMENT",
                    "the allocator takes a grant back; the request waits, its id kept for it"},
    ScenarioCommand{"regrant", "regrant VRF SEGMENT",
                    "the allocator notifies a grant again, unchanged"},
    ScenarioCommand{"routing-helper", "routing-helper ready/unready",
                    "the routing status helper's answer to the feature's handshake"},
    ScenarioCommand{
        "routing", "routing busy on/off | routing withdraw remove-first/report-first",
        "routing layer busy on its own; a withdrawn FIB route's entry goes first or last"},
    ScenarioCommand{"hwfail", "hwfail VRF PREFIX on/off/once",
                    "make hardware programming of a prefix fail"},
    ScenarioCommand{"hwcapacity", "hwcapacity N/none",
                    "the hardware table's room for entries (none: unlimited)"},
    ScenarioCommand{"counters",
                    "counters VRF policy NAME HITS DROPS | counters VRF segment DST SRC HITS "
                    "DROPS | counters VRF default-drop DST DROPS (or delete for the counts)",
                    "the firewall's live hit and drop counts (delete removes an entry)"},
    ScenarioCommand{"firewall", "firewall on/off", "the firewall is active or not"},
    ScenarioCommand{"default-drop", "default-drop on/off", "the firewall's default drop"},
    ScenarioCommand{"fw-vrf", "fw-vrf NAME [delete]", "a VRF of the firewall configuration"},
    ScenarioCommand{"segment", "segment VRF NAME [delete]", "a segment of a firewall VRF"},
    ScenarioCommand{"prefix", "prefix VRF PREFIX SEGMENT | prefix VRF PREFIX delete",
                    "a prefix-list entry mapping a prefix to a segment"},
    ScenarioCommand{"policy", "policy VRF DST SRC NAME [permit/deny] | policy VRF DST SRC delete",
                    "the policy between two segments (permit, or deny: dropped)"},
    ScenarioCommand{"host", "host NAME VRF ADDRESS/LEN via GATEWAY",
                    "a host on a link of its own to the switch (--dataplane linux)"},
    ScenarioCommand{"gen",
                    "gen fib VRF COUNT PREFIX/LEN | gen prefixes VRF SEGMENT COUNT PREFIX/LEN",
                    "bulk-generate consecutive FIB routes or prefix-list entries"},
    ScenarioCommand{"settle", "settle", "run the event loop until nothing is scheduled", true},
    ScenarioCommand{"step", "step [N]", "run N scheduler slices (default 1)", true},
    ScenarioCommand{"show",
                    "show routes/detail/summary [VRF [SEGMENT]] [json] | show counters [VRF] "
                    "[json]",
                    "the CLI's show commands (hardware routes, detail, summary, counters)", true},
    ScenarioCommand{"clear", "clear counters", "the CLI's clear: counters count from now on"},
    ScenarioCommand{"request", "request TEXT [json]",
                    "a raw CLI request text (COMMAND#VRF#SEGMENT), as the switch's CLI sends it",
                    true},
    ScenarioCommand{"hw", "hw [VRF] [json]", "the simulated hardware table", true},
    ScenarioCommand{"send", "send HOST ADDRESS",
                    "one datagram from a host to a host's address: delivered or dropped", true},
    ScenarioCommand{"status", "status", "the feature's status fields", true},
    ScenarioCommand{"check", "check",
                    "compare the hardware with the expected state: check: ok, or the differences",
                    true},
    ScenarioCommand{"syslog", "syslog", "the messages raised so far", true},
    ScenarioCommand{"trace", "trace [N]", "the last N trace lines (default 10)", true},
    ScenarioCommand{"echo", "echo TEXT", "print TEXT on a line of its own", true},
    ScenarioCommand{"help", "help [COMMAND]",
                    "the commands, or the usage of one (also a line ending in ?)", true},
    ScenarioCommand{"exit", "exit", "leave: the prompt's session, or the rest of a file", true},
    ScenarioCommand{"quit", "quit", "leave, as exit", true},
};

}  // namespace

std::span<const ScenarioCommand> scenarioCommands() {
   return kCommands;
}

const ScenarioCommand* scenarioCommand(std::string_view word) {
   for (const auto& c : kCommands) {
      if (c.word == word) {
         return &c;
      }
   }
   return nullptr;
}

std::string_view wordNamed(std::string_view word, std::span<const std::string_view> choices,
                           std::string_view what) {
   std::vector<std::string_view> starting;
   for (std::string_view choice : choices) {
      if (choice == word) {
         return choice;
      }
      if (!word.empty() && choice.substr(0, word.size()) == word) {
         starting.push_back(choice);
      }
   }
   if (starting.size() == 1) {
      return starting.front();
   }
   std::string message = "unknown " + std::string(what) + " '" + std::string(word) + "'";
   if (!starting.empty()) {
      message = "ambiguous " + std::string(what) + " '" + std::string(word) + "': ";
      for (size_t i = 0; i < starting.size(); ++i) {
         message += (i ? ", " : "") + std::string(starting[i]);
      }
   }
   throw std::invalid_argument(message);
}

const ScenarioCommand& scenarioCommandNamed(std::string_view word) {
   static const std::vector<std::string_view> words = [] {
      std::vector<std::string_view> all;
      for (const auto& c : kCommands) {
         all.push_back(c.word);
      }
      return all;
   }();
   return *scenarioCommand(wordNamed(word, words, "command"));
}

std::vector<std::string_view> usageForms(std::string_view usage) {
   std::vector<std::string_view> forms;
   for (;;) {
      const size_t bar = usage.find(" | ");
      forms.push_back(usage.substr(0, bar));
      if (bar == std::string_view::npos) {
         return forms;
      }
      usage.remove_prefix(bar + 3);
   }
}

std::vector<std::string> scenarioNextWords(const std::vector<std::string>& before,
                                           const ScenarioNames& names) {
   std::vector<std::string> out;
   auto add = [&out](std::string_view word) {
      if (std::find(out.begin(), out.end(), word) == out.end()) {
         out.emplace_back(word);
      }
   };
   const ScenarioCommand* command = nullptr;
   if (!before.empty()) {
      try {
         command = &scenarioCommandNamed(before.front());
      } catch (const std::invalid_argument&) {
         return out;
      }
   }
   if (!command || (command->word == "help" && before.size() == 1)) {
      for (const auto& c : kCommands) {
         add(c.word);
      }
      return out;
   }
   // The word at this place in every form of the usage, brackets dropped.
   const size_t at = before.size();
   for (std::string_view form : usageForms(command->usage)) {
      size_t index = 0;
      size_t pos = 0;
      while (pos < form.size() && index <= at) {
         size_t end = form.find(' ', pos);
         if (end == std::string_view::npos) {
            end = form.size();
         }
         std::string_view token = form.substr(pos, end - pos);
         pos = end + 1;
         if (index++ != at) {
            continue;
         }
         while (!token.empty() && (token.front() == '[' || token.front() == '(')) {
            token.remove_prefix(1);
         }
         while (!token.empty() && (token.back() == ']' || token.back() == ')')) {
            token.remove_suffix(1);
         }
         const bool placeholder =
             !token.empty() && std::all_of(token.begin(), token.end(), [](char c) {
                return (c >= 'A' && c <= 'Z') || c == '/' || c == '-';
             });
         const bool vrfName = command->word == "vrf" || command->word == "fw-vrf";
         if (token == "VRF" || (token == "NAME" && vrfName)) {
            std::for_each(names.vrfs.begin(), names.vrfs.end(), add);
         } else if (token == "SEGMENT" || token == "DST" || token == "SRC" ||
                    (token == "NAME" && command->word == "segment")) {
            std::for_each(names.segments.begin(), names.segments.end(), add);
         } else if (!placeholder) {
            // "on/off", "routes/detail/summary": each is a word of its own.
            for (size_t from = 0; from <= token.size();) {
               size_t slash = token.find('/', from);
               if (slash == std::string_view::npos) {
                  slash = token.size();
               }
               if (slash > from) {
                  add(token.substr(from, slash - from));
               }
               from = slash + 1;
            }
         }
      }
   }
   return out;
}

}  // namespace sim
