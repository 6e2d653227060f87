#include "sim/Scenario.h"

#include <arpa/inet.h>

#include <cxxabi.h>
#include <malloc.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <istream>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <tuple>

#include "Zop/Error.h"
#include "Zop/Notifier.h"
#include "Zop/Value.h"
#include "sim/Floor.h"
#include "sim/ScenarioCommands.h"

namespace sim {

namespace {

using Words = std::vector<std::string>;

struct BadWord {
   std::string message;
};

[[noreturn]] void bad(std::string message) {
   throw BadWord{std::move(message)};
}

// The command `word` names (spelt out or shortened to a prefix only it has).
const ScenarioCommand& commandNamed(const std::string& word) {
   try {
      return scenarioCommandNamed(word);
   } catch (const std::invalid_argument& e) {
      bad(e.what());
   }
}

std::string quoted(const std::string& word) {
   return "'" + word + "'";
}

// The words of a line, without its comment.
Words split(const std::string& line) {
   Words words;
   std::string word;
   for (char c : line) {
      // A comment starts with a word; inside a word '#' is a character (the
      // CLI's request texts use it as a separator).
      if (c == '#' && word.empty()) {
         break;
      }
      if (c == ' ' || c == '\t' || c == '\r' || c == '\n') {
         if (!word.empty()) {
            words.push_back(std::move(word));
            word.clear();
         }
      } else {
         word += c;
      }
   }
   if (!word.empty()) {
      words.push_back(std::move(word));
   }
   return words;
}

uint64_t number(const std::string& word, const char* what, uint64_t max) {
   if (word.empty() || word.size() > 20) {
      bad(quoted(word) + " is not a number (" + what + ")");
   }
   uint64_t n = 0;
   for (char c : word) {
      if (c < '0' || c > '9') {
         bad(quoted(word) + " is not a number (" + what + ")");
      }
      uint64_t digit = uint64_t(c - '0');
      if (n > (max - digit) / 10) {
         bad(quoted(word) + " is out of range for " + what + " (at most " + std::to_string(max) +
             ")");
      }
      n = n * 10 + digit;
   }
   return n;
}

bool onOff(const std::string& word) {
   if (word == "on") {
      return true;
   }
   if (word == "off") {
      return false;
   }
   bad(quoted(word) + " is not on/off");
}

Pexo::IpGenPrefix prefixOf(const std::string& word) {
   try {
      return Zop::strepToValue<Pexo::IpGenPrefix>(word);
   } catch (const std::exception&) {
      bad("bad prefix " + quoted(word));
   }
}

L3::VrfName vrfNameOf(const std::string& word) {
   if (word.size() > L3::VrfName::maxLength) {
      bad("VRF name " + quoted(word.substr(0, 20) + "...") + " is longer than " +
          std::to_string(L3::VrfName::maxLength));
   }
   return L3::VrfName(word);
}

void usage(const Words& w, size_t least, size_t most, const char* form) {
   if (w.size() < least) {
      bad("missing words: " + std::string(form));
   }
   if (w.size() > most) {
      bad("unexpected word " + quoted(w[most]) + ": " + form);
   }
}

void outcome(const Outcome& o) {
   if (!o.ok()) {
      bad(o.error());
   }
}

std::string jsonString(const std::string& s) {
   std::string out = "\"";
   for (char c : s) {
      if (c == '"' || c == '\\') {
         out += '\\';
         out += c;
      } else if (static_cast<unsigned char>(c) < 0x20) {
         static const char* hex = "0123456789abcdef";
         out += "\\u00";
         out += hex[(c >> 4) & 0xF];
         out += hex[c & 0xF];
      } else {
         out += c;
      }
   }
   return out + "\"";
}

// COUNT consecutive prefixes of the length of `start`, from its address.
std::vector<Pexo::IpGenPrefix> consecutive(const std::string& word, uint64_t count) {
   Pexo::IpGenPrefix start = prefixOf(word);
   std::vector<Pexo::IpGenPrefix> out;
   out.reserve(count);
   uint32_t len = start.len();
   if (start.isIpv4()) {
      uint64_t base = start.v4().addr().value();
      uint64_t step = uint64_t(1) << (32 - len);
      if (base % step != 0) {
         bad("prefix " + quoted(word) + " has host bits set");
      }
      if (count > 0 && (base + (count - 1) * step) > 0xFFFFFFFFull) {
         bad(std::to_string(count) + " prefixes from " + quoted(word) + " leave IPv4");
      }
      for (uint64_t i = 0; i < count; ++i) {
         out.emplace_back(Pexo::Prefix(Pexo::IpAddr(uint32_t(base + i * step)), len));
      }
   } else {
      using U128 = unsigned __int128;
      auto addr = start.v6().addr();
      U128 base = (U128(addr.hi()) << 64) | addr.lo();
      U128 step = len == 0 ? 0 : U128(1) << (128 - len);
      if (len == 0 ? base != 0 : base % step != 0) {
         bad("prefix " + quoted(word) + " has host bits set");
      }
      U128 room = len == 0 ? 0 : (~base) / step;
      if (count > 0 && U128(count - 1) > room) {
         bad(std::to_string(count) + " prefixes from " + quoted(word) + " leave IPv6");
      }
      for (uint64_t i = 0; i < count; ++i) {
         U128 a = base + U128(i) * step;
         out.emplace_back(Pexo::Ip6Prefix(Pexo::Ip6Addr(uint64_t(a >> 64), uint64_t(a)), len));
      }
   }
   return out;
}

constexpr uint64_t kGenLimit = 1'000'000;

uint64_t hwWrites(const HardwareRouteTable::Counters& c) {
   return c.routePrograms + c.hwIdWrites + c.fibWrites;
}

uint64_t heapInUseKb() {
#ifdef __GLIBC__
   return uint64_t(mallinfo2().uordblks) / 1024;
#else
   return 0;
#endif
}

std::string demangled(const char* name) {
   int status = 0;
   std::unique_ptr<char, void (*)(void*)> d(abi::__cxa_demangle(name, nullptr, nullptr, &status),
                                            std::free);
   return status == 0 && d ? std::string(d.get()) : std::string(name);
}

}  // namespace

// VmHWM of this process; 0 where /proc is not there.
uint64_t peakResidentKb() {
   std::ifstream status("/proc/self/status");
   std::string line;
   while (std::getline(status, line)) {
      if (line.rfind("VmHWM:", 0) == 0) {
         return std::strtoull(line.c_str() + 6, nullptr, 10);
      }
   }
   return 0;
}

Scenario::Scenario(Options options)
    : options_(options), duolog_(options.traceLevel), guard_(duolog_) {
   if (options_.traceStream) {
      duolog_.setTextStream(*options_.traceStream);
   }
   sim::Switch::Options switchOptions;
   switchOptions.dataplane = options_.dataplane;
   switchOptions.adopt = options_.adopt;
   switchOptions.adoptNotes = options_.adoptNotes;
   if (options_.yieldEvery > 0) {
      uint32_t n =
          options_.yieldEvery > 0xFFFFFFFFull ? 0xFFFFFFFFu : uint32_t(options_.yieldEvery);
      switchOptions.yieldPolicy = Zop::makePtr<Ruv::EveryNItemsYieldPolicy>(n);
      switch_ = std::make_unique<sim::Switch>(switchOptions);
      // Show commands yield wherever they may too (after every VRF).
      Agent::AgentCommandServiceSettings cli;
      cli.bufferSize = 1;
      switch_->cliServiceSettingsIs(cli);
   } else if (options_.realTimeSlice > 0) {
      switchOptions.yieldPolicy =
          Zop::makePtr<Ruv::RealTimeSliceYieldPolicy>(options_.realTimeSlice);
      switch_ = std::make_unique<sim::Switch>(switchOptions);
   } else {
      switch_ = std::make_unique<sim::Switch>(switchOptions);
   }
   if (options_.timeHandlers) {
      Zop::notificationTimingIs(true);
      Zop::resetNotificationStatistics();
   }
   switch_->scheduler()->resetStatistics();
   sinceSettleNs_ = Zop::monotonicNow();
}

Scenario::~Scenario() {
   if (options_.timeHandlers) {
      Zop::notificationTimingIs(false);
   }
   // The switch goes before the Duolog its traces write to.
   switch_.reset();
}

Scenario::Result Scenario::run(std::istream& in, const std::string& fileName, std::ostream& out) {
   Result result;
   std::string line;
   uint64_t lineNo = 0;
   while (std::getline(in, line)) {
      ++lineNo;
      Result r = runLine(line, fileName, lineNo, out);
      if (r.kind == Result::Kind::badLine) {
         return r;
      }
      if (r.stop) {
         break;
      }
      if (r.kind == Result::Kind::checkFailed) {
         result.kind = Result::Kind::checkFailed;
      }
   }
   return result;
}

Scenario::Result Scenario::runLine(const std::string& line, const std::string& fileName,
                                   uint64_t lineNo, std::ostream& out) {
   Result result;
   Words w = split(line);
   if (w.empty()) {
      return result;
   }
   where_ = fileName + ":" + std::to_string(lineNo);
   // Looking commands write to a buffer first, so a bad line prints nothing.
   std::ostringstream buffer;
   try {
      // "?" alone lists the commands; a line ending in "?" gives its
      // command's usage, as help COMMAND does.
      if (w.front() == "?") {
         help({"help"}, buffer);
         out << buffer.str();
         return result;
      }
      // A command word may be shortened to any prefix only it has.
      w[0] = std::string(commandNamed(w[0]).word);
      result.command = w[0];
      if (w.size() > 1 && w.back() == "?") {
         help({"help", w[0]}, buffer);
         out << buffer.str();
         return result;
      }
      if (w[0] == "exit" || w[0] == "quit") {
         usage(w, 1, 1, w[0].c_str());
         result.stop = true;
         return result;
      }
      bool passed = true;
      if (w[0] == "echo") {
         // The text as written, from the first word after "echo".
         std::string text = line.substr(0, line.find('#'));
         size_t at = text.find("echo") + 4;
         at = text.find_first_not_of(" \t", at);
         text = at == std::string::npos ? "" : text.substr(at);
         while (!text.empty() &&
                (text.back() == ' ' || text.back() == '\t' || text.back() == '\r')) {
            text.pop_back();
         }
         buffer << text << '\n';
      } else {
         passed = execute(w, buffer);
      }
      ++stats_.commands;
      if (!passed) {
         result.kind = Result::Kind::checkFailed;
      }
   } catch (const BadWord& b) {
      result.kind = Result::Kind::badLine;
      result.message = fileName + ":" + std::to_string(lineNo) + ": " + b.message;
      return result;
   } catch (const std::exception& e) {
      result.kind = Result::Kind::badLine;
      result.message = fileName + ":" + std::to_string(lineNo) + ": " + w[0] + ": " + e.what();
      return result;
   }
   out << buffer.str();
   return result;
}

bool Scenario::execute(const Words& w, std::ostream& out) {
   const std::string& c = w[0];
   // The command table decides which words exist, so help lists them all.
   if (!scenarioCommand(c)) {
      bad("unknown command " + quoted(c));
   }
   if (c == "vrf") {
      vrf(w);
   } else if (c == "fib") {
      fib(w);
   } else if (c == "resolver") {
      resolver(w);
   } else if (c == "resolve") {
      resolve(w);
   } else if (c == "urpf") {
      urpf(w);
   } else if (c == "allocator") {
      allocator(w);
   } else if (c == "grant") {
      grant(w);
   } else if (c == "revoke" || c == "regrant") {
      revoke(w);
   } else if (c == "routing-helper") {
      routingHelper(w);
   } else if (c == "routing") {
      routing(w);
   } else if (c == "hwfail") {
      hwfail(w);
   } else if (c == "hwcapacity") {
      hwcapacity(w);
   } else if (c == "firewall") {
      usage(w, 2, 2, "firewall on/off");
      switch_->firewallIs(onOff(w[1]));
   } else if (c == "default-drop") {
      usage(w, 2, 2, "default-drop on/off");
      switch_->defaultDropIs(onOff(w[1]));
   } else if (c == "fw-vrf") {
      fwVrf(w);
   } else if (c == "segment") {
      segment(w);
   } else if (c == "prefix") {
      prefix(w);
   } else if (c == "policy") {
      policy(w);
   } else if (c == "host") {
      host(w);
   } else if (c == "send") {
      send(w, out);
   } else if (c == "settle") {
      usage(w, 1, 1, "settle");
      settle();
   } else if (c == "step") {
      step(w);
   } else if (c == "hw") {
      hw(w, out);
   } else if (c == "status") {
      status(w, out);
   } else if (c == "check") {
      return check(w, out);
   } else if (c == "syslog") {
      syslog(w, out);
   } else if (c == "trace") {
      trace(w, out);
   } else if (c == "gen") {
      gen(w);
   } else if (c == "counters") {
      counters(w);
   } else if (c == "show") {
      show(w, out);
   } else if (c == "clear") {
      usage(w, 2, 2, "clear counters");
      if (w[1] != "counters") {
         bad("unknown clear " + quoted(w[1]) + ": clear counters");
      }
      out << switch_->cliRequest("ClearHardwareCounters");
   } else if (c == "request") {
      usage(w, 2, 3, "request TEXT [json]");
      bool json = options_.json;
      if (w.size() == 3) {
         if (w[2] != "json") {
            bad("unexpected word " + quoted(w[2]) + ": request TEXT [json]");
         }
         json = true;
      }
      out << switch_->cliRequest(w[1], json ? lumo::Format::json : lumo::Format::text);
   } else if (c == "help") {
      help(w, out);
   } else {
      bad("unknown command " + quoted(c));
   }
   return true;
}

namespace {

VrfId knownVrf(sim::Switch& sw, const std::string& word) {
   auto id = sw.routing().vrfId(vrfNameOf(word));
   if (!id) {
      bad("unknown VRF " + quoted(word));
   }
   return *id;
}

}  // namespace

void Scenario::vrf(const Words& w) {
   static const char* form = "vrf NAME id N [routing on/off] [routing6 on/off] | vrf NAME delete";
   usage(w, 3, 8, form);
   L3::VrfName name = vrfNameOf(w[1]);
   if (w[2] == "delete") {
      usage(w, 3, 3, form);
      knownVrf(*switch_, w[1]);
      outcome(switch_->routing().vrfDelete(name));
      return;
   }
   if (w[2] != "id") {
      bad("expected 'id' or 'delete', not " + quoted(w[2]));
   }
   usage(w, 4, 8, form);
   auto id = uint32_t(number(w[3], "VRF id", 0xFFFFFFFFull));
   bool routing = false;
   bool routing6 = false;
   bool seen = false;
   bool seen6 = false;
   size_t i = 4;
   while (i < w.size()) {
      if (w[i] == "routing" && !seen) {
         seen = true;
      } else if (w[i] == "routing6" && !seen6) {
         seen6 = true;
      } else {
         bad("unexpected word " + quoted(w[i]) + ": " + form);
      }
      if (i + 1 >= w.size()) {
         bad("missing on/off after " + quoted(w[i]));
      }
      (w[i] == "routing" ? routing : routing6) = onOff(w[i + 1]);
      i += 2;
   }
   outcome(switch_->routing().vrfAdd(name, VrfId(id), routing, routing6));
}

void Scenario::fib(const Words& w) {
   static const char* form = "fib VRF PREFIX [adj N] | fib VRF PREFIX delete";
   usage(w, 3, 5, form);
   knownVrf(*switch_, w[1]);
   Pexo::IpGenPrefix p = prefixOf(w[2]);
   if (w.size() == 4) {
      if (w[3] != "delete") {
         bad("unexpected word " + quoted(w[3]) + ": " + form);
      }
      outcome(switch_->routing().fibDelete(vrfNameOf(w[1]), p));
      return;
   }
   uint64_t adj = 1;
   if (w.size() == 5) {
      if (w[3] != "adj") {
         bad("unexpected word " + quoted(w[3]) + ": " + form);
      }
      adj = number(w[4], "adjacency index", ~uint64_t(0));
   }
   outcome(switch_->routing().fibAdd(vrfNameOf(w[1]), p, adj));
}

void Scenario::resolver(const Words& w) {
   usage(w, 2, 2, "resolver auto/manual");
   if (w[1] == "auto") {
      switch_->resolver().modeIs(RouteResolver::Mode::automatic);
   } else if (w[1] == "manual") {
      switch_->resolver().modeIs(RouteResolver::Mode::manual);
   } else {
      bad(quoted(w[1]) + " is not auto/manual");
   }
}

void Scenario::resolve(const Words& w) {
   static const char* form = "resolve VRF PREFIX adj N | resolve VRF PREFIX none";
   usage(w, 4, 5, form);
   VrfId id = knownVrf(*switch_, w[1]);
   Pexo::IpGenPrefix p = prefixOf(w[2]);
   if (w[3] == "none") {
      usage(w, 4, 4, form);
      switch_->resolver().resolveNone(id, p);
   } else if (w[3] == "adj") {
      usage(w, 5, 5, form);
      switch_->resolver().resolve(id, p, number(w[4], "adjacency index", ~uint64_t(0)));
   } else {
      bad("expected 'adj' or 'none', not " + quoted(w[3]));
   }
}

void Scenario::urpf(const Words& w) {
   usage(w, 3, 3, "urpf ipv4/ipv6 on/off");
   Pexo::AddressFamily af;
   if (w[1] == "ipv4") {
      af = Pexo::AddressFamily::ipv4;
   } else if (w[1] == "ipv6") {
      af = Pexo::AddressFamily::ipv6;
   } else {
      bad(quoted(w[1]) + " is not ipv4/ipv6");
   }
   switch_->urpfIs(af, onOff(w[2]));
}

void Scenario::allocator(const Words& w) {
   static const char* form = "allocator auto [pool FIRST-LAST] | allocator manual";
   usage(w, 2, 4, form);
   if (w[1] == "manual") {
      usage(w, 2, 2, form);
      switch_->allocator().modeIs(HwIdAllocator::Mode::manual);
      return;
   }
   if (w[1] != "auto") {
      bad(quoted(w[1]) + " is not auto/manual");
   }
   if (w.size() == 3) {
      bad("missing words: " + std::string(form));
   }
   if (w.size() == 4) {
      if (w[2] != "pool") {
         bad("unexpected word " + quoted(w[2]) + ": " + form);
      }
      size_t dash = w[3].find('-');
      if (dash == std::string::npos) {
         bad("pool " + quoted(w[3]) + " is not FIRST-LAST");
      }
      auto first = uint16_t(number(w[3].substr(0, dash), "pool", HwIdAllocator::kPoolLast));
      auto last = uint16_t(number(w[3].substr(dash + 1), "pool", HwIdAllocator::kPoolLast));
      if (first < HwIdAllocator::kPoolFirst || first > last) {
         bad("pool " + quoted(w[3]) + " is not 1 <= FIRST <= LAST <= 65534");
      }
      outcome(switch_->allocator().poolIs(first, last));
   }
   switch_->allocator().modeIs(HwIdAllocator::Mode::automatic);
}

void Scenario::grant(const Words& w) {
   usage(w, 3, 4, "grant VRF SEGMENT [ID|invalid]");
   VrfId id = knownVrf(*switch_, w[1]);
   const SegmentIdRequestKey key(id, w[2]);
   if (w.size() == 4 && w[3] == "invalid") {
      outcome(switch_->allocator().grantInvalid(key));
      return;
   }
   std::optional<SegmentHwId> hwId;
   if (w.size() == 4) {
      hwId = SegmentHwId(uint16_t(number(w[3], "hw id", HwIdAllocator::kPoolLast)));
   }
   outcome(switch_->allocator().grant(key, hwId));
}

void Scenario::revoke(const Words& w) {
   const std::string form = w[0] + " VRF SEGMENT";
   usage(w, 3, 3, form.c_str());
   const SegmentIdRequestKey key(knownVrf(*switch_, w[1]), w[2]);
   outcome(w[0] == "revoke" ? switch_->allocator().revoke(key) : switch_->allocator().regrant(key));
}

void Scenario::routingHelper(const Words& w) {
   usage(w, 2, 2, "routing-helper ready/unready");
   if (w[1] != "ready" && w[1] != "unready") {
      bad(quoted(w[1]) + " is not ready/unready");
   }
   switch_->routingStatusHelper()->readyIs(w[1] == "ready");
}

void Scenario::routing(const Words& w) {
   static constexpr char kForm[] =
       "routing busy on/off | routing withdraw remove-first/report-first";
   usage(w, 3, 3, kForm);
   if (w[1] == "busy") {
      switch_->routingLayer().ownBusyIs(onOff(w[2]));
   } else if (w[1] == "withdraw") {
      if (w[2] != "remove-first" && w[2] != "report-first") {
         bad(quoted(w[2]) + " is not remove-first/report-first");
      }
      switch_->routing().withdrawOrderIs(w[2] == "report-first"
                                             ? RoutingAgent::WithdrawOrder::reportFirst
                                             : RoutingAgent::WithdrawOrder::removeFirst);
   } else {
      bad("unexpected word " + quoted(w[1]) + ": " + kForm);
   }
}

void Scenario::hwfail(const Words& w) {
   usage(w, 4, 4, "hwfail VRF PREFIX on/off/once");
   VrfId id = knownVrf(*switch_, w[1]);
   Pexo::IpGenPrefix p = prefixOf(w[2]);
   HardwareRouteTable::Fault fault;
   if (w[3] == "once") {
      fault = HardwareRouteTable::Fault::once;
   } else if (w[3] == "on" || w[3] == "off") {
      fault = onOff(w[3]) ? HardwareRouteTable::Fault::always : HardwareRouteTable::Fault::none;
   } else {
      bad(quoted(w[3]) + " is not on/off/once");
   }
   switch_->hardware().faultIs({id, p}, fault);
}

void Scenario::hwcapacity(const Words& w) {
   usage(w, 2, 2, "hwcapacity N/none");
   if (w[1] == "none") {
      switch_->hardware().capacityIs(std::nullopt);
   } else {
      switch_->hardware().capacityIs(size_t(number(w[1], "capacity", ~uint64_t(0))));
   }
}

void Scenario::fwVrf(const Words& w) {
   static const char* form = "fw-vrf NAME [delete]";
   usage(w, 2, 3, form);
   L3::VrfName name = vrfNameOf(w[1]);
   if (w.size() == 3) {
      if (w[2] != "delete") {
         bad("unexpected word " + quoted(w[2]) + ": " + form);
      }
      outcome(switch_->config().fwVrfDelete(name));
      return;
   }
   if (!switch_->fwConfig()->vrfHas(name)) {
      switch_->fwConfig()->vrfIs(Zop::makePtr<Firewall::FwVrf>(name));
   }
}

void Scenario::segment(const Words& w) {
   static const char* form = "segment VRF NAME [delete]";
   usage(w, 3, 4, form);
   L3::VrfName name = vrfNameOf(w[1]);
   if (w.size() == 4) {
      if (w[3] != "delete") {
         bad("unexpected word " + quoted(w[3]) + ": " + form);
      }
      outcome(switch_->segmentDelete(name, w[2]));
      return;
   }
   if (w[2] == "delete") {
      bad("missing segment name before 'delete'");
   }
   switch_->segmentAdd(name, w[2]);
}

void Scenario::prefix(const Words& w) {
   usage(w, 4, 4, "prefix VRF PREFIX SEGMENT | prefix VRF PREFIX delete");
   L3::VrfName name = vrfNameOf(w[1]);
   Pexo::IpGenPrefix p = prefixOf(w[2]);
   if (w[3] == "delete") {
      outcome(switch_->unconfigure(name, p));
   } else {
      switch_->configure(name, p, w[3]);
   }
}

void Scenario::policy(const Words& w) {
   constexpr const char* form = "policy VRF DST SRC NAME [permit/deny] | policy VRF DST SRC delete";
   usage(w, 5, 6, form);
   if (w.size() == 6 && (w[4] == "delete" || (w[5] != "permit" && w[5] != "deny"))) {
      bad("unexpected word " + quoted(w[5]) + ": " + form);
   }
   L3::VrfName name = vrfNameOf(w[1]);
   auto fwVrf = switch_->fwConfig()->vrf(name);
   if (!fwVrf) {
      bad("unknown firewall VRF " + quoted(w[1]));
   }
   auto dst = fwVrf->segment(w[2]);
   if (!dst) {
      bad("unknown segment " + quoted(w[2]) + " in VRF " + quoted(w[1]));
   }
   if (w[4] == "delete") {
      if (!dst->sourceSegment(w[3])) {
         bad("no policy from " + quoted(w[3]) + " to " + quoted(w[2]));
      }
      dst->sourceSegmentDel(w[3]);
      denied_.erase({w[1], w[2], w[3]});
   } else {
      dst->sourceSegmentIs(w[3], w[4]);
      if (w.size() == 6 && w[5] == "deny") {
         denied_[{w[1], w[2], w[3]}] = true;
      } else {
         denied_.erase({w[1], w[2], w[3]});
      }
   }
}

namespace {

std::optional<Pexo::IpAddr> ipv4Address(const std::string& word) {
   in_addr a{};
   if (inet_pton(AF_INET, word.c_str(), &a) != 1) {
      return std::nullopt;
   }
   return Pexo::IpAddr(ntohl(a.s_addr));
}

}  // namespace

void Scenario::host(const Words& w) {
   constexpr const char* form = "host NAME VRF ADDRESS/LEN via GATEWAY";
   usage(w, 6, 6, form);
   const std::string& name = w[1];
   if (name.empty() || name.size() > 12 ||
       name.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789-") != std::string::npos) {
      bad("bad host name " + quoted(name) + " (1 to 12 of a-z, 0-9, -)");
   }
   const VrfId vrfId = knownVrf(*switch_, w[2]);
   const size_t slash = w[3].find('/');
   const auto address = ipv4Address(w[3].substr(0, slash));
   uint64_t len = 0;
   if (slash == std::string::npos || !address) {
      bad("bad address " + quoted(w[3]) + " (an IPv4 ADDRESS/LEN)");
   }
   len = number(w[3].substr(slash + 1), "length", 30);
   if (len < 8) {
      bad("bad length in " + quoted(w[3]) + " (8 to 30)");
   }
   if (w[4] != "via") {
      bad("unexpected word " + quoted(w[4]) + ": " + form);
   }
   const auto gateway = ipv4Address(w[5]);
   const uint32_t mask = ~uint32_t(0) << (32 - len);
   if (!gateway || (gateway->value() & mask) != (address->value() & mask) || *gateway == *address) {
      bad("bad gateway " + quoted(w[5]) + " (another address on " + w[3] + ")");
   }
   Dataplane* dataplane = switch_->hardware().dataplane();
   if (!dataplane) {
      bad("hosts need a dataplane that forwards packets (kivsim --dataplane linux)");
   }
   uint64_t adj = 0;
   if (std::string why = dataplane->hostIs(name, vrfId, *address, uint32_t(len), *gateway, adj);
       !why.empty()) {
      bad(why);
   }
   // The link's connected route is a FIB route of the VRF.
   outcome(switch_->routing().fibAdd(
       vrfNameOf(w[2]),
       Pexo::IpGenPrefix(Pexo::Prefix(Pexo::IpAddr(address->value() & mask), uint32_t(len))), adj));
}

void Scenario::send(const Words& w, std::ostream& out) {
   usage(w, 3, 3, "send HOST ADDRESS");
   const auto to = ipv4Address(w[2]);
   if (!to) {
      bad("bad address " + quoted(w[2]) + " (an IPv4 address)");
   }
   Dataplane* dataplane = switch_->hardware().dataplane();
   if (!dataplane) {
      bad("sending needs a dataplane that forwards packets (kivsim --dataplane linux)");
   }
   rulesToDataplane();
   bool delivered = false;
   if (std::string why = dataplane->send(w[1], *to, delivered); !why.empty()) {
      bad(why);
   }
   out << (delivered ? "delivered" : "dropped") << '\n';
   countsFromDataplane();
}

void Scenario::rulesToDataplane() {
   Dataplane* dataplane = switch_->hardware().dataplane();
   if (!dataplane) {
      return;
   }
   std::map<std::pair<uint32_t, std::string>, uint32_t> ids;
   for (const auto& [key, grant] : switch_->segmentIdResponse()->status()) {
      const uint32_t id = grant.hwId.value();
      if (id != 0 && id != SegmentHwId::kInvalid) {
         ids[{key.vrfId().value(), key.segment()}] = id;
      }
   }
   std::vector<Dataplane::Rule> rules, defaultDrops;
   const auto& fw = *switch_->fwConfig();
   if (fw.fwActive()) {
      for (const auto& [vrfName, fwVrf] : fw.vrf()) {
         auto vrfId = switch_->routing().vrfId(vrfName);
         if (!vrfId) {
            continue;
         }
         const std::string vrf = vrfName.value();
         for (const auto& [dst, segment] : fwVrf->segmentDir()->segment()) {
            auto d = ids.find({vrfId->value(), dst});
            if (d == ids.end()) {
               continue;
            }
            for (const auto& [src, policyName] : segment->sourceSegment()) {
               auto sId = ids.find({vrfId->value(), src});
               if (sId == ids.end()) {
                  continue;
               }
               rules.push_back({sId->second << 16 | d->second, 0xFFFFFFFF,
                                !denied_.count({vrf, dst, src}),
                                "policy " + vrf + " " + dst + " " + src + " " + policyName});
            }
            if (fw.fwDefaultDrop()) {
               defaultDrops.push_back(
                   {d->second, 0xFFFF, false, "default-drop " + vrf + " " + dst});
            }
         }
      }
   }
   rules.insert(rules.end(), defaultDrops.begin(), defaultDrops.end());
   if (rules == rules_) {
      return;  // as sent (or none, and none sent)
   }
   if (std::string why = dataplane->rulesAre(rules); !why.empty()) {
      bad(why);
   }
   rules_ = rules;
}

void Scenario::countsFromDataplane() {
   Dataplane* dataplane = switch_->hardware().dataplane();
   if (!dataplane || rules_.empty()) {
      return;
   }
   const auto counts = dataplane->ruleCounts();
   Firewall::Counters& live = *switch_->counters();
   std::map<std::pair<std::string, std::string>, std::pair<uint64_t, uint64_t>> byPolicy;
   for (const auto& rule : rules_) {
      auto it = counts.find(rule.name);
      const uint64_t packets = it == counts.end() ? 0 : it->second;
      std::istringstream in(rule.name);
      Words w{std::istream_iterator<std::string>(in), std::istream_iterator<std::string>()};
      const L3::VrfName vrf = vrfNameOf(w[1]);
      if (w[0] == "policy") {
         auto sc = live.vrfIs(vrf)->countersDir()->segmentIs(w[2])->segmentCountersIs(w[3]);
         sc->hitCountIs(packets);
         sc->dropCountIs(rule.permit ? 0 : packets);
         auto& [hits, drops] = byPolicy[{w[1], w[4]}];
         hits += packets;
         drops += rule.permit ? 0 : packets;
      } else {
         live.vrfIs(vrf)->countersDir()->segmentIs(w[2])->defaultDropIs(packets);
      }
   }
   for (const auto& [key, count] : byPolicy) {
      auto p = live.vrfIs(vrfNameOf(key.first))->countersDir()->policyIs(key.second);
      p->hitCountIs(count.first);
      p->dropCountIs(count.second);
   }
}

void Scenario::settle() {
   const Zop::Time virtualStart = switch_->clock()->now();
   const Zop::Time realStart = Zop::monotonicNow();
   const size_t slices = switch_->settle();
   rulesToDataplane();
   const Zop::Time realEnd = Zop::monotonicNow();
   stats_.slices += slices;
   ScenarioStats::Settle s;
   s.where = where_;
   s.slices = slices;
   s.virtualNs = switch_->clock()->now() - virtualStart;
   s.realNs = realEnd - realStart;
   s.commandsNs = realStart - sinceSettleNs_;
   const uint64_t writes = hwWrites(switch_->hardware().counters());
   s.hwWrites = writes - hwWritesAtSettle_;
   hwWritesAtSettle_ = writes;
   const Ruv::SchedulerStatistics& sched = switch_->scheduler()->statistics();
   s.longestRunNs = sched.longestRun;
   s.longestRunTask = sched.longestRunTask;
   if (s.longestRunNs > stats_.longestRunNs) {
      stats_.longestRunNs = s.longestRunNs;
      stats_.longestRunTask = s.longestRunTask;
   }
   // The per-name figures of the whole run outlive the settle's reset.
   addFigures(taskTotals_, handlerTotals_);
   switch_->scheduler()->resetStatistics();
   const Zop::NotificationStatistics& handlers = Zop::notificationStatistics();
   s.longestHandlerNs = handlers.longestHandler;
   if (handlers.handlerCalls != 0) {
      s.longestHandlerNotifiee = demangled(handlers.longestHandlerNotifiee);
   }
   if (s.longestHandlerNs > stats_.longestHandlerNs) {
      stats_.longestHandlerNs = s.longestHandlerNs;
      stats_.longestHandlerNotifiee = s.longestHandlerNotifiee;
   }
   Zop::resetNotificationStatistics();
   if (options_.floor) {
      const bool runs = switch_->oracle().featureRunning();
      if (runs && !ranAtSettle_) {
         measureFloorNow(s);
      }
      ranAtSettle_ = runs;
   }
   s.peakResidentKb = peakResidentKb();
   s.heapInUseKb = heapInUseKb();
   stats_.settles.push_back(std::move(s));
   sinceSettleNs_ = Zop::monotonicNow();
}

uint64_t Scenario::peakResidentKb() const {
   return std::max(peakBeforeFloorKb_, sim::peakResidentKb());
}

void Scenario::measureFloorNow(ScenarioStats::Settle& s) {
   const uint64_t peak = sim::peakResidentKb();
   const FloorFigures floor = measureFloor(switch_->oracle());
   s.floorNs = floor.ns;
   s.floorWrites = floor.writes;
   // The floor's table is gone: what it took is given back, and the peak
   // starts again from here (the one before is kept).
#ifdef __GLIBC__
   malloc_trim(0);
#endif
   peakBeforeFloorKb_ = std::max(peakBeforeFloorKb_, peak);
   std::ofstream("/proc/self/clear_refs") << "5";
}

void Scenario::step(const Words& w) {
   usage(w, 1, 2, "step [N]");
   uint64_t n = w.size() == 2 ? number(w[1], "slices", ~uint64_t(0)) : 1;
   for (uint64_t i = 0; i < n && switch_->scheduler()->runOnce(); ++i) {
      ++stats_.slices;
   }
}

void Scenario::hw(const Words& w, std::ostream& out) {
   usage(w, 1, 3, "hw [VRF] [json]");
   bool json = options_.json;
   std::optional<VrfId> only;
   for (size_t i = 1; i < w.size(); ++i) {
      if (w[i] == "json" && i + 1 == w.size()) {
         json = true;
      } else if (i == 1) {
         only = knownVrf(*switch_, w[i]);
      } else {
         bad("unexpected word " + quoted(w[i]) + ": hw [VRF] [json]");
      }
   }
   std::map<uint32_t, std::string> names;
   for (const auto& name : switch_->routing().vrfNames()) {
      if (auto id = switch_->routing().vrfId(name)) {
         names[id->value()] = name.value();
      }
   }
   using Row = std::tuple<std::string, Pexo::IpGenPrefix, const HardwareRouteTable::Entry*>;
   std::vector<Row> rows;
   for (const auto& [key, entry] : switch_->hardware().entries()) {
      if (only && key.vrfId != *only) {
         continue;
      }
      auto it = names.find(key.vrfId.value());
      std::string vrfName =
          it != names.end() ? it->second : "vrf" + std::to_string(key.vrfId.value());
      rows.emplace_back(vrfName, key.prefix, &entry);
   }
   std::sort(rows.begin(), rows.end(), [](const Row& a, const Row& b) {
      return std::tie(std::get<0>(a), std::get<1>(a)) < std::tie(std::get<0>(b), std::get<1>(b));
   });
   if (!json) {
      for (const auto& [vrfName, p, e] : rows) {
         out << vrfName << ' ' << valueToStrep(p) << ' ' << entryText(e->routeInfo, e->classId)
             << '\n';
      }
      return;
   }
   if (rows.empty()) {
      out << "[]\n";
      return;
   }
   out << "[\n";
   for (size_t i = 0; i < rows.size(); ++i) {
      const auto& [vrfName, p, e] = rows[i];
      out << "  {\"vrf\": " << jsonString(vrfName) << ", \"prefix\": \"" << valueToStrep(p)
          << "\", \"routeType\": \"" << valueToStrep(e->routeInfo.routeType())
          << "\", \"adjIndex\": " << e->routeInfo.adjIndex() << ", \"hwId\": " << e->classId.value()
          << "}" << (i + 1 < rows.size() ? "," : "") << '\n';
   }
   out << "]\n";
}

void Scenario::status(const Words& w, std::ostream& out) {
   usage(w, 1, 1, "status");
   const auto& s = *switch_->status();
   auto b = [](bool v) { return v ? "true" : "false"; };
   out << "enabled: " << b(s.enabled()) << '\n'
       << "segmentSecuritySetupComplete: " << b(s.segmentSecuritySetupComplete()) << '\n'
       << "waitForRoutesCleanup: " << b(s.waitForRoutesCleanup()) << '\n'
       << "segmentSecurityRoutingDisableDone: " << b(s.segmentSecurityRoutingDisableDone()) << '\n'
       << "segmentSecurityRoutingDisable: " << s.segmentSecurityRoutingDisable() << '\n'
       << "segmentSecurityRoutingEnable: " << s.segmentSecurityRoutingEnable() << '\n'
       << "waitForSegmentSecurityRoutingDisabledCnt: "
       << s.waitForSegmentSecurityRoutingDisabledCnt() << '\n'
       << "hwRouting: " << b(switch_->multicastStatus()->hwRouting()) << '\n'
       << "routingSuspended: " << b(switch_->routingLayer().suspended()) << '\n';
   if (const Dataplane* dataplane = switch_->hardware().dataplane()) {
      for (const auto& line : dataplane->statusLines()) {
         out << line << '\n';
      }
   }
}

bool Scenario::check(const Words& w, std::ostream& out) {
   usage(w, 1, 1, "check");
   auto differences = switch_->check();
   if (differences.empty()) {
      out << "check: ok\n";
      return true;
   }
   out << "check: " << differences.size()
       << (differences.size() == 1 ? " difference" : " differences") << '\n';
   for (const auto& line : differences) {
      out << line << '\n';
      if (std::string hint = whereToLook(line); !hint.empty()) {
         out << "  " << hint << '\n';
      }
   }
   return false;
}

namespace {

std::vector<RunFigure> longestFirst(const std::map<std::string, RunFigure>& byName) {
   std::vector<RunFigure> figures;
   for (const auto& [name, figure] : byName) {
      figures.push_back(figure);
   }
   std::sort(figures.begin(), figures.end(), [](const RunFigure& a, const RunFigure& b) {
      return a.longestNs != b.longestNs ? a.longestNs > b.longestNs : a.name < b.name;
   });
   return figures;
}

}  // namespace

void Scenario::addFigures(std::map<std::string, RunFigure>& tasks,
                          std::map<std::string, RunFigure>& handlers) const {
   auto add = [](std::map<std::string, RunFigure>& into, const std::string& name, uint64_t runs,
                 int64_t longestNs) {
      RunFigure& figure = into[name];
      figure.name = name;
      figure.runs += runs;
      figure.longestNs = std::max(figure.longestNs, longestNs);
   };
   for (const auto& [name, task] : switch_->scheduler()->statistics().byTaskName) {
      if (task.runs != 0) {
         add(tasks, name, task.runs, task.longestRun);
      }
   }
   // The same class may be listed under two copies of its name.
   for (const auto& [mangled, handler] : Zop::notificationStatistics().byNotifiee) {
      add(handlers, demangled(mangled), handler.calls, handler.longest);
   }
}

std::vector<RunFigure> Scenario::taskFigures() const {
   std::map<std::string, RunFigure> tasks = taskTotals_;
   std::map<std::string, RunFigure> handlers;
   addFigures(tasks, handlers);
   return longestFirst(tasks);
}

std::vector<RunFigure> Scenario::handlerFigures() const {
   std::map<std::string, RunFigure> tasks;
   std::map<std::string, RunFigure> handlers = handlerTotals_;
   addFigures(tasks, handlers);
   return longestFirst(handlers);
}

ScenarioNames Scenario::names() const {
   ScenarioNames names;
   std::set<std::string> vrfs;
   std::set<std::string> segments;
   for (const auto& name : switch_->routing().vrfNames()) {
      vrfs.insert(name.value());
   }
   for (const auto& [name, fwVrf] : switch_->fwConfig()->vrf()) {
      vrfs.insert(name.value());
      for (const auto& [segment, fwSegment] : fwVrf->segmentDir()->segment()) {
         segments.insert(segment);
      }
   }
   names.vrfs.assign(vrfs.begin(), vrfs.end());
   names.segments.assign(segments.begin(), segments.end());
   return names;
}

std::string Scenario::whereToLook(const std::string& difference) const {
   // A difference about one prefix starts "VRF PREFIX: "; the others (the
   // feature's status, a grant) have no record or trace line of their own.
   const Words words = split(difference);
   if (words.size() < 3 || words[1].empty() || words[1].back() != ':') {
      return "";
   }
   const std::string prefixText = words[1].substr(0, words[1].size() - 1);
   Pexo::IpGenPrefix prefix;
   try {
      prefix = Zop::strepToValue<Pexo::IpGenPrefix>(prefixText);
   } catch (const std::exception&) {
      return "";
   }
   const auto vrfId = switch_->routing().vrfId(vrfNameOf(words[0]));
   std::string record = "none";
   if (vrfId) {
      if (const auto* info =
              switch_->segmentRoutesList()->routeInfoFind(VrfAndIpGenPrefix(*vrfId, prefix))) {
         record = entryText(info->routeInfo(), info->hwId());
      }
   }
   std::string lastTrace = "none in the buffer";
   const auto texts = duolog_.ringlog().texts();
   for (auto it = texts.rbegin(); it != texts.rend(); ++it) {
      if (it->find(" " + prefixText) != std::string::npos) {
         lastTrace = *it;
         break;
      }
   }
   size_t syslogs = 0;
   for (const auto& r : switch_->syslogRecords()) {
      syslogs += r.text.find(prefixText) != std::string::npos ? 1 : 0;
   }
   return "record: " + record + "; syslog: " + std::to_string(syslogs) +
          (syslogs == 1 ? " message names it" : " messages name it") + "; last trace: " + lastTrace;
}

void Scenario::syslog(const Words& w, std::ostream& out) {
   usage(w, 1, 1, "syslog");
   for (const auto& record : switch_->syslogRecords()) {
      out << record.line() << '\n';
   }
}

void Scenario::trace(const Words& w, std::ostream& out) {
   usage(w, 1, 2, "trace [N]");
   uint64_t n = w.size() == 2 ? number(w[1], "lines", ~uint64_t(0)) : 10;
   for (const auto& text : duolog_.ringlog().texts(size_t(n))) {
      out << text << '\n';
   }
}

void Scenario::counters(const Words& w) {
   constexpr const char* form =
       "counters VRF policy NAME HITS DROPS | counters VRF segment DST SRC HITS DROPS | "
       "counters VRF default-drop DST DROPS (or delete for the counts)";
   usage(w, 3, 7, form);
   const L3::VrfName vrf = vrfNameOf(w[1]);
   Firewall::Counters& live = *switch_->counters();
   const std::string& kind = w[2];
   constexpr uint64_t kMax = ~uint64_t(0);
   if (kind == "delete") {
      usage(w, 3, 3, "counters VRF delete");
      live.vrfDel(vrf);
   } else if (kind == "policy") {
      if (w.size() == 5 && w[4] == "delete") {
         if (auto v = live.vrf(vrf)) {
            v->countersDir()->policyDel(w[3]);
         }
         return;
      }
      usage(w, 6, 6, "counters VRF policy NAME HITS DROPS");
      const uint64_t hits = number(w[4], "hits", kMax);
      const uint64_t drops = number(w[5], "drops", kMax);
      auto p = live.vrfIs(vrf)->countersDir()->policyIs(w[3]);
      p->hitCountIs(hits);
      p->dropCountIs(drops);
   } else if (kind == "segment") {
      if (w.size() == 6 && w[5] == "delete") {
         if (auto v = live.vrf(vrf)) {
            if (auto g = v->countersDir()->segment(w[3])) {
               g->segmentCountersDel(w[4]);
            }
         }
         return;
      }
      usage(w, 7, 7, "counters VRF segment DST SRC HITS DROPS");
      const uint64_t hits = number(w[5], "hits", kMax);
      const uint64_t drops = number(w[6], "drops", kMax);
      auto sc = live.vrfIs(vrf)->countersDir()->segmentIs(w[3])->segmentCountersIs(w[4]);
      sc->hitCountIs(hits);
      sc->dropCountIs(drops);
   } else if (kind == "default-drop") {
      usage(w, 5, 5, "counters VRF default-drop DST DROPS");
      if (w[4] == "delete") {
         if (auto v = live.vrf(vrf)) {
            v->countersDir()->segmentDel(w[3]);
         }
         return;
      }
      const uint64_t drops = number(w[4], "drops", kMax);
      live.vrfIs(vrf)->countersDir()->segmentIs(w[3])->defaultDropIs(drops);
   } else {
      bad("unknown counters kind " + quoted(kind) + ": " + form);
   }
}

void Scenario::show(const Words& w, std::ostream& out) {
   constexpr const char* form =
       "show routes/detail/summary [VRF [SEGMENT]] [json] | show counters [VRF] [json]";
   usage(w, 2, 5, form);
   Words args(w.begin() + 2, w.end());
   bool json = options_.json;
   if (!args.empty() && args.back() == "json") {
      json = true;
      args.pop_back();
   }
   static constexpr std::array<std::string_view, 4> kShows = {"routes", "detail", "summary",
                                                              "counters"};
   std::string what;
   try {
      what = std::string(wordNamed(w[1], kShows, "show"));
   } catch (const std::invalid_argument& e) {
      bad(std::string(e.what()) + ": " + form);
   }
   std::string command;
   if (what == "routes" || what == "detail" || what == "summary") {
      if (args.size() > 2) {
         bad("unexpected word " + quoted(args[2]) + ": " + form);
      }
      command = what == "routes"   ? "HardwareRoutes"
                : what == "detail" ? "HardwareDetail"
                                   : "HardwareSummary";
      command += "#" + (args.size() > 0 ? args[0] : "") + "#" + (args.size() > 1 ? args[1] : "");
   } else if (what == "counters") {
      if (args.size() > 1) {
         bad("unexpected word " + quoted(args[1]) + ": show counters [VRF] [json]");
      }
      command = "ShowHardwareCounters#" + (args.empty() ? "" : args[0]);
   } else {
      bad("unknown show " + quoted(what) + ": " + form);
   }
   out << switch_->cliRequest(command, json ? lumo::Format::json : lumo::Format::text);
}

void Scenario::gen(const Words& w) {
   static const char* form =
       "gen fib VRF COUNT PREFIX/LEN | gen prefixes VRF SEGMENT COUNT PREFIX/LEN";
   usage(w, 2, 6, form);
   if (w[1] == "fib") {
      usage(w, 5, 5, form);
      knownVrf(*switch_, w[2]);
      uint64_t count = number(w[3], "count", kGenLimit);
      auto prefixes = consecutive(w[4], count);
      for (const auto& p : prefixes) {
         if (!p.validAsPrefix()) {
            bad("prefix " + valueToStrep(p) + " from " + quoted(w[4]) + " is not valid");
         }
      }
      L3::VrfName name = vrfNameOf(w[2]);
      for (const auto& p : prefixes) {
         outcome(switch_->routing().fibAdd(name, p, 1));
      }
   } else if (w[1] == "prefixes") {
      usage(w, 6, 6, form);
      L3::VrfName name = vrfNameOf(w[2]);
      uint64_t count = number(w[4], "count", kGenLimit);
      for (const auto& p : consecutive(w[5], count)) {
         switch_->configure(name, p, w[3]);
      }
   } else {
      bad(quoted(w[1]) + " is not fib/prefixes");
   }
}

void Scenario::help(const Words& w, std::ostream& out) {
   usage(w, 1, 2, "help [COMMAND]");
   if (w.size() == 1) {
      size_t width = 0;
      for (const auto& c : scenarioCommands()) {
         width = std::max(width, c.word.size());
      }
      for (const auto& c : scenarioCommands()) {
         out << c.word << std::string(width + 2 - c.word.size(), ' ') << c.summary << '\n';
      }
      return;
   }
   const ScenarioCommand* c = nullptr;
   try {
      c = &scenarioCommandNamed(w[1]);
   } catch (const std::invalid_argument& e) {
      bad(std::string(e.what()) + " (help lists the commands)");
   }
   // One alternative a line, aligned under the first.
   const char* lead = "usage: ";
   for (std::string_view form : usageForms(c->usage)) {
      out << lead << form << '\n';
      lead = "       ";
   }
   out << c->summary << '\n';
}

}  // namespace sim
