#include "Syslog/Syslog.h"

#include <gtest/gtest.h>

#include <sstream>

#include "Zop/Error.h"

namespace {

Syslog::Definition conflict() {
   return {"SECURITY_SEGMENTATION_URPF_CONFIGURATION_CONFLICT", Syslog::Severity::warning,
           "uRPF on %s conflicts with %d segment(s), vrf id %u (100%% of routes)",
           "Segment security and uRPF cannot both be applied.", "Remove one of them."};
}

class TraceSyslog : public ::testing::Test {
protected:
   Zop::Ptr<Syslog::MemorySink> sink = Zop::makePtr<Syslog::MemorySink>();
   Zop::Ptr<Syslog::Registry> registry = Zop::makePtr<Syslog::Registry>(sink);
};

}  // namespace

TEST_F(TraceSyslog, RaiseFormatsPlaceholdersAndDelivers) {
   Syslog::MessagePtr m = registry->define(conflict());
   uint32_t vrf = 4000000000u;
   registry->raise(m, Zop::String("Ethernet1"), -2, vrf);
   registry->raise(m, "Vlan7", uint8_t(3), 0);
   ASSERT_EQ(sink->records().size(), 2u);
   EXPECT_EQ(sink->records()[0],
             (Syslog::Record{"SECURITY_SEGMENTATION_URPF_CONFIGURATION_CONFLICT",
                             Syslog::Severity::warning,
                             "uRPF on Ethernet1 conflicts with -2 segment(s), vrf id 4000000000 "
                             "(100% of routes)"}));

   std::ostringstream os;
   sink->print(os);
   EXPECT_EQ(os.str(),
             "SECURITY_SEGMENTATION_URPF_CONFIGURATION_CONFLICT: uRPF on Ethernet1 conflicts with "
             "-2 segment(s), vrf id 4000000000 (100% of routes)\n"
             "SECURITY_SEGMENTATION_URPF_CONFIGURATION_CONFLICT: uRPF on Vlan7 conflicts with 3 "
             "segment(s), vrf id 0 (100% of routes)\n");
}

TEST_F(TraceSyslog, MismatchedArgumentsAreRejectedWithoutDelivery) {
   Syslog::MessagePtr m = registry->define(conflict());
   EXPECT_THROW(registry->raise(m, "Ethernet1", 2), Zop::RangeError);
   EXPECT_THROW(registry->raise(m, "Ethernet1", 2, 3, 4), Zop::RangeError);
   EXPECT_THROW(registry->raise(m, 1, 2, 3), Zop::RangeError);              // %s
   EXPECT_THROW(registry->raise(m, "Ethernet1", "2", 3), Zop::RangeError);  // %d
   EXPECT_THROW(registry->raise(m, "Ethernet1", 2, -3), Zop::RangeError);   // %u
   EXPECT_THROW(registry->raise(m, "Ethernet1", UINT64_MAX, 3), Zop::RangeError);
   try {
      registry->raise(m, "Ethernet1", 2, -3);
   } catch (const Zop::RangeError& e) {
      EXPECT_NE(Zop::String(e.what()).find("argument 3"), Zop::String::npos) << e.what();
   }
   EXPECT_TRUE(sink->records().empty());

   // A handle from another registry is refused too.
   auto other = Zop::makePtr<Syslog::Registry>(sink);
   EXPECT_THROW(registry->raise(other->define(conflict()), "a", 1, 1), Zop::RangeError);
   EXPECT_TRUE(sink->records().empty());
}

TEST_F(TraceSyslog, DefinitionsAreCheckedAndIdempotent) {
   Syslog::MessagePtr m = registry->define(conflict());
   EXPECT_EQ(registry->define(conflict()), m);
   EXPECT_EQ(registry->lookup("SECURITY_SEGMENTATION_URPF_CONFIGURATION_CONFLICT"), m);
   EXPECT_EQ(registry->lookup("NO_SUCH_MESSAGE"), nullptr);

   Syslog::Definition changed = conflict();
   changed.severity = Syslog::Severity::error;
   try {
      registry->define(changed);
      ADD_FAILURE() << "redefinition with another severity accepted";
   } catch (const Zop::RangeError& e) {
      EXPECT_NE(Zop::String(e.what()).find("severity"), Zop::String::npos) << e.what();
   }
   changed = conflict();
   changed.recommendedAction = "Ignore it.";
   EXPECT_THROW(registry->define(changed), Zop::RangeError);
   EXPECT_EQ(registry->lookup(changed.name)->definition(), conflict());

   EXPECT_THROW(registry->define({"BAD_FORMAT", Syslog::Severity::info, "%x", "", ""}),
                Zop::RangeError);
   EXPECT_THROW(registry->define({"BAD_FORMAT", Syslog::Severity::info, "100%", "", ""}),
                Zop::RangeError);
   EXPECT_THROW(registry->define({"lower_case", Syslog::Severity::info, "", "", ""}),
                Zop::RangeError);
   EXPECT_EQ(registry->lookup("BAD_FORMAT"), nullptr);

   Syslog::MessagePtr a = registry->define({"A_FIRST", Syslog::Severity::debug, "no args", "", ""});
   registry->raise(a);
   EXPECT_EQ(sink->records().back().line(), "A_FIRST: no args");
   std::vector<Syslog::MessagePtr> all = registry->definitions();
   ASSERT_EQ(all.size(), 2u);
   EXPECT_EQ(all[0], a);
   EXPECT_EQ(Syslog::severityName(all[1]->severity()), "warning");
}
