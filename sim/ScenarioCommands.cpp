#include "sim/ScenarioCommands.h"

#include <array>

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
    ScenarioCommand{"policy", "policy VRF DST SRC NAME | policy VRF DST SRC delete",
                    "the policy between two segments"},
    ScenarioCommand{"gen",
                    "gen fib VRF COUNT PREFIX/LEN | gen prefixes VRF SEGMENT COUNT PREFIX/LEN",
                    "bulk-generate consecutive FIB routes or prefix-list entries"},
    ScenarioCommand{"settle", "settle", "run the event loop until nothing is scheduled"},
    ScenarioCommand{"step", "step [N]", "run N scheduler slices (default 1)"},
    ScenarioCommand{"show",
                    "show routes/detail/summary [VRF [SEGMENT]] [json] | show counters [VRF] "
                    "[json]",
                    "the CLI's show commands (hardware routes, detail, summary, counters)"},
    ScenarioCommand{"clear", "clear counters", "the CLI's clear: counters count from now on"},
    ScenarioCommand{"request", "request TEXT [json]",
                    "a raw CLI request text (COMMAND#VRF#SEGMENT), as the switch's CLI sends it"},
    ScenarioCommand{"hw", "hw [VRF] [json]", "the simulated hardware table"},
    ScenarioCommand{"status", "status", "the feature's status fields"},
    ScenarioCommand{"check", "check",
                    "compare the hardware with the expected state: check: ok, or the differences"},
    ScenarioCommand{"syslog", "syslog", "the messages raised so far"},
    ScenarioCommand{"trace", "trace [N]", "the last N trace lines (default 10)"},
    ScenarioCommand{"echo", "echo TEXT", "print TEXT on a line of its own"},
    ScenarioCommand{"help", "help [COMMAND]", "the commands, or the usage of one"},
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

}  // namespace sim
