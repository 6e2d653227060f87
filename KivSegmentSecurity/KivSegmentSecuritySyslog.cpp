#include "KivSegmentSecurity/KivSegmentSecuritySyslog.h"

namespace Kiv {

namespace {

KivSegmentSecuritySyslog define(const Zop::Ptr<Syslog::Registry>& registry) {
   using Syslog::Severity;
   KivSegmentSecuritySyslog s;
   s.registry = registry;
   s.hwResourceFull = registry->define(
       {"SECURITY_SEGMENTATION_POLICY_HW_RESOURCE_FULL", Severity::error,
        "Hardware resources are insufficient to enforce policy",
        "The switch is unable to program the policy rules due to TCAM resource exhaustion.",
        "Reconfigure the system to free up TCAM resources before configuring Segment Security"});
   s.hwResourceNormal =
       registry->define({"SECURITY_SEGMENTATION_POLICY_HW_RESOURCE_NORMAL", Severity::error,
                         "Hardware resources are available to enforce policy",
                         "The switch was able to program the policy rules in TCAM.", ""});
   s.urpfConflict = registry->define(
       {"SECURITY_SEGMENTATION_URPF_CONFIGURATION_CONFLICT", Severity::error,
        "Segment Security feature disabled because of conflicting URPF configuration",
        "URPF and Segment Security can not be configured at same time. URPF configuration has "
        "been applied.",
        "Reconfigure the system to remove one of the conflicting features"});
   s.invalidPrefix =
       registry->define({"SECURITY_SEGMENTATION_INVALID_PREFIX", Severity::error,
                         "Invalid prefix (%s) configuration",
                         "Switch has skipped processing invalid/unsupported prefix", ""});
   return s;
}

KivSegmentSecuritySyslog& current() {
   static KivSegmentSecuritySyslog syslog = define(Zop::makePtr<Syslog::Registry>());
   return syslog;
}

}  // namespace

const KivSegmentSecuritySyslog& kivSegmentSecuritySyslogInit(
    const Zop::Ptr<Syslog::Registry>& registry) {
   current() = define(registry);
   return current();
}

const KivSegmentSecuritySyslog& kivSegmentSecuritySyslog() {
   return current();
}

}  // namespace Kiv
