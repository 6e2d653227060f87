#pragma once
// The version of the loaded library, for an agent to log at start-up.

#include "Kiv/KivExport.h"

namespace Kiv {
KIV_EXPORT const char* kivSegmentPrefixProcessorVersion();
}
