// The scenario language under arbitrary text, a line at a time over one
// switch: a line either runs, or is refused with "fuzz:N: message", and then
// it printed nothing and changed nothing the switch shows. A crash, an abort
// or an exception out of the engine stops the run.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

#include "sim/Scenario.h"

namespace {

// What a line may change, in one text: the hardware table with its faults
// and capacity, the VRFs with their flags and FIB routes, the firewall
// configuration, the allocator, the resolver's mode, uRPF.
std::string fingerprint(sim::Switch& sw) {
   std::ostringstream out;
   const auto& hw = sw.hardware();
   for (const auto& [key, entry] : hw.entries()) {
      out << sim::keyText(key) << ' ' << sim::entryText(entry.routeInfo, entry.classId) << ' '
          << sim::ownerText(entry.owner) << '\n';
   }
   for (const auto& [key, fault] : hw.faults()) {
      out << "fault " << sim::keyText(key) << ' ' << int(fault) << '\n';
   }
   out << "capacity " << (hw.capacity() ? std::to_string(*hw.capacity()) : "none") << '\n';
   for (const auto& name : sw.routing().vrfNames()) {
      out << "vrf " << name << ' ' << sw.routing().vrfId(name)->value();
      if (auto status = sw.l3Status()->vrfStatus(name)) {
         out << ' ' << status->routingEnabled() << status->routing6Enabled();
      }
      for (const auto& [prefix, adj] : sw.routing().fibRoutes(name)) {
         out << ' ' << prefix << '=' << adj;
      }
      out << '\n';
   }
   const auto& fw = *sw.fwConfig();
   out << "firewall " << fw.fwActive() << fw.fwDefaultDrop() << '\n';
   for (const auto& [name, fwVrf] : fw.vrf()) {
      std::vector<std::string> items;
      for (const auto& [prefix, segment] : fwVrf->prefixList()) {
         items.push_back(valueToStrep(prefix) + "->" + segment);
      }
      for (const auto& [segmentName, segment] : fwVrf->segmentDir()->segment()) {
         std::string item = "segment " + segmentName;
         for (const auto& [src, policy] : segment->sourceSegment()) {
            item += " " + src + ":" + policy;
         }
         items.push_back(item);
      }
      std::sort(items.begin(), items.end());
      out << "fw-vrf " << name;
      for (const auto& item : items) {
         out << ' ' << item;
      }
      out << '\n';
   }
   const auto& allocator = sw.allocator();
   out << "allocator " << int(allocator.mode()) << ' ' << allocator.poolFirst() << '-'
       << allocator.poolLast();
   for (const auto& [key, id] : allocator.grants()) {
      out << ' ' << valueToStrep(key) << '=' << id.value();
   }
   out << "\nresolver " << int(sw.resolver().mode()) << "\nurpf " << sw.ipStatus()->urpfConfigured()
       << sw.ip6Status()->urpfConfigured() << '\n';
   return out.str();
}

std::vector<std::string> words(const std::string& line) {
   std::istringstream in(line.substr(0, line.find('#')));
   std::vector<std::string> out;
   for (std::string w; in >> w;) {
      out.push_back(w);
   }
   return out;
}

// Bulk generation of many prefixes is a load test, not a parser's case.
bool tooBig(const std::vector<std::string>& w) {
   if (w.empty() || w[0] != "gen") {
      return false;
   }
   return std::any_of(w.begin(), w.end(), [](const std::string& word) {
      return word.size() > 3 && word.find_first_not_of("0123456789") == std::string::npos;
   });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
   if (size > 8192) {
      return 0;
   }
   sim::Scenario scenario;
   std::istringstream text(std::string(reinterpret_cast<const char*>(data), size));
   uint64_t lineNo = 0;
   for (std::string line; std::getline(text, line);) {
      ++lineNo;
      if (tooBig(words(line))) {
         continue;
      }
      const std::string before = fingerprint(scenario.sw());
      std::ostringstream out;
      const sim::ScenarioResult r = scenario.runLine(line, "fuzz", lineNo, out);
      if (r.kind != sim::ScenarioResult::Kind::badLine) {
         continue;
      }
      const std::string where = "fuzz:" + std::to_string(lineNo) + ": ";
      if (r.message.rfind(where, 0) != 0 || r.message.size() == where.size() ||
          !out.str().empty() || fingerprint(scenario.sw()) != before) {
         __builtin_trap();
      }
   }
   return 0;
}
