#pragma once
// The segment feature's syslog messages, defined once at start-up in the
// agent's registry. kivSegmentSecuritySyslogInit(registry) defines the four
// messages there; the reactors raise through kivSegmentSecuritySyslog().
// Until an agent initialises it, the messages live in a registry of their
// own without a sink (raised and dropped).

#include "Kiv/KivExport.h"
#include "Syslog/Syslog.h"

namespace Kiv {

struct KivSegmentSecuritySyslog {
   Zop::Ptr<Syslog::Registry> registry;
   Syslog::MessagePtr hwResourceFull;    // SECURITY_SEGMENTATION_POLICY_HW_RESOURCE_FULL
   Syslog::MessagePtr hwResourceNormal;  // SECURITY_SEGMENTATION_POLICY_HW_RESOURCE_NORMAL
   Syslog::MessagePtr urpfConflict;      // SECURITY_SEGMENTATION_URPF_CONFIGURATION_CONFLICT
   Syslog::MessagePtr invalidPrefix;     // SECURITY_SEGMENTATION_INVALID_PREFIX (%s: the prefix)
};

KIV_EXPORT const KivSegmentSecuritySyslog& kivSegmentSecuritySyslogInit(
    const Zop::Ptr<Syslog::Registry>& registry);
KIV_EXPORT const KivSegmentSecuritySyslog& kivSegmentSecuritySyslog();

}  // namespace Kiv
