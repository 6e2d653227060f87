// A program built against the installed library only: it includes the public
// headers as an agent does, calls into the shared library and checks the
// answers. It exits with 1 and says why on a wrong answer.
//
// Beyond linking at all, it checks what a packaging mistake breaks quietly:
// the library is the installed version, platform types made on this side of
// the library (parsed prefixes, a trie) are used by code inside it, and the
// library's trace lines reach the Duolog this program installed, since the
// library and the program must share one current trace. Every public header
// is included, so that one the installation left out fails the build.

#include <cstdio>
#include <cstring>
#include <string>

#include "Kiv/KivBaseHelper.h"
#include "KivSegmentSecurity/KivFibRouteReactorSm.h"
#include "KivSegmentSecurity/KivSegmentPrefixFirewallConfigSm.h"
#include "KivSegmentSecurity/KivSegmentPrefixProcessorSm.h"
#include "KivSegmentSecurity/KivSegmentPrefixProcessorTypes.h"
#include "KivSegmentSecurity/KivSegmentPrefixProcessorVersion.h"
#include "KivSegmentSecurity/KivSegmentRouteHelper.h"
#include "KivSegmentSecurity/KivSegmentSecuritySyslog.h"
#include "KivSegmentSecurity/KivSegmentSecurityTrieHelper.h"
#include "KivSegmentSecurity/KivSegmentSecurityUtils.h"
#include "Trace/Trace.h"
#include "Zop/Ptr.h"

namespace {

int failures = 0;

void expect(bool ok, const std::string& what) {
   if (!ok) {
      std::fprintf(stderr, "consumer: wrong answer: %s\n", what.c_str());
      ++failures;
   }
}

Pexo::IpGenPrefix prefix(const char* text) {
   return Zop::strepToValue<Pexo::IpGenPrefix>(text);
}

}  // namespace

int main() {
   const char* version = Kiv::kivSegmentPrefixProcessorVersion();
   expect(std::strcmp(version, EXPECTED_VERSION) == 0,
          std::string("library version ") + version + ", package version " + EXPECTED_VERSION);

   expect(Kiv::validSegmentPrefix(prefix("10.1.0.0/16")), "10.1.0.0/16 is a segment prefix");
   expect(!Kiv::validSegmentPrefix(prefix("224.1.0.0/16")), "multicast is no segment prefix");

   // A VRF's segment trie, made by the library, filled here.
   auto tries = Kiv::kivSegmentPrefixTrieFactory();
   auto trie = tries->getPrefixTrie(VrfId(7), Pexo::AddressFamily::ipv4);
   expect(trie != nullptr, "the library creates the VRF's IPv4 trie");
   if (!trie) {
      return 1;
   }
   for (const char* p :
        {"10.0.0.0/8", "10.2.0.0/16", "10.1.0.0/16", "10.1.2.0/24", "10.9.9.9/32"}) {
      trie->routeIs(prefix(p), true);
   }

   // The next more specific segment prefix below 10.0.0.0/8: the shortest
   // inside it, the lower address among equals. The callback writes a
   // level-8 trace line for every prefix it is shown.
   Trace::Duolog log(Trace::kFunctions);
   std::string found;
   {
      Trace::ScopedDuolog guard(log);
      auto next = Kiv::nextSpecifcPrefixCallbackFactory(prefix("10.0.0.0/8"));
      trie->preOrderWalk(prefix("10.0.0.0/8"),
                         [&](const Pexo::IpGenPrefix& p) { return next->handlePrefix(p); });
      found = Pexo::valueToStrep(next->nextPrefix());
   }
   expect(found == "10.1.0.0/16", "next more specific below 10.0.0.0/8 is " + found);

   bool traced = false;
   for (const auto& text : log.ringlog().texts()) {
      traced = traced || text == "handlePrefix 10.1.0.0/16";
   }
   expect(traced, "the library's trace line reaches the program's Duolog (" +
                      std::to_string(log.lineCount()) + " lines there)");

   if (failures == 0) {
      std::printf("consumer: ok (library %s)\n", version);
   }
   return failures == 0 ? 0 : 1;
}
