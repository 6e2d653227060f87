#include "KivSegmentSecurity/KivSegmentPrefixProcessorVersion.h"

namespace Kiv {
const char* kivSegmentPrefixProcessorVersion() {
   return KIV_VERSION;
}
}  // namespace Kiv
